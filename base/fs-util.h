// Whole-file helpers.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

namespace plr {

// Replaces `path` with `data`: write a temporary file beside it, fsync it,
// rename it over `path`, fsync the directory. The file gets exactly `mode`
// (no umask). On any failure up to the rename the temporary file is removed,
// `path` is untouched, errno is set. When only the final directory fsync
// fails, the new content is in place but not yet durable: false, errno set.
bool ReplaceFileAtomically(const char* path, std::string_view data, mode_t mode);

// Reads the whole file; false with errno set.
bool ReadWholeFile(const char* path, std::string* out);

// fsync of the directory holding `path`; false with errno set.
bool FsyncParentDir(const char* path);

}  // namespace plr
