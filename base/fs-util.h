// Whole-file helpers.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

namespace plr {

// Replaces `path` with `data`: write a temporary file beside it, fsync it,
// rename it over `path`, fsync the directory. The file gets `mode`. On any
// failure the temporary file is removed, `path` is untouched, errno is set.
bool ReplaceFileAtomically(const char* path, std::string_view data, mode_t mode);

// Reads the whole file; false with errno set.
bool ReadWholeFile(const char* path, std::string* out);

// fsync of the directory holding `path`; false with errno set.
bool FsyncParentDir(const char* path);

}  // namespace plr
