// Copying one file over another, used to keep the ".bak" sibling of a
// regenerated service file. The copy is written beside the destination and
// renamed over it, so a failure leaves the destination as it was.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>

#include <memory>

#include "base/fd-util.h"
#include "base/fs-util.h"
#include "base/sys-util.h"
#include "core/log.h"
#include "pelorus/core.h"

namespace plr {
namespace {

// Large enough that a copy of a few MB takes a few dozen system calls.
constexpr size_t kCopyChunk = 64 * 1024;

// Copies everything readable from `source` to `destination` through a
// buffer in chunks; logs under `function`.
bool CopyThroughBuffer(const char* function, int source, int destination, const char* sourcePath,
                       const char* destinationPath) {
  std::unique_ptr<char[]> chunk(new char[kCopyChunk]);
  for (;;) {
    ssize_t got = sys::read(source, chunk.get(), kCopyChunk);
    if (got < 0) {
      PLOG_AS(function, LOG_ERR, "Reading from source file: %s failed, error: %s", sourcePath,
              strerror(errno));
      return false;
    }
    if (got == 0) return true;
    ssize_t put = sys::write(destination, chunk.get(), static_cast<size_t>(got));
    if (put != got) {
      PLOG_AS(function, LOG_ERR, "Writing to destination file: %s failed, error: %s",
              destinationPath, strerror(put < 0 ? errno : EIO));
      return false;
    }
  }
}

// Copies everything readable from `source` to `destination`, inside the
// kernel where the file systems allow it and through a buffer where they
// do not; logs under `function`.
bool CopyContents(const char* function, int source, int destination, const char* sourcePath,
                  const char* destinationPath) {
  for (bool copiedAny = false;;) {
    ssize_t got = sys::copy_file_range(source, nullptr, destination, nullptr, kCopyChunk * 16, 0);
    if (got > 0) {
      copiedAny = true;
      continue;
    }
    if (got < 0 && errno == EINTR) continue;
    if (got == 0 && copiedAny) break;
    bool refused =
        got < 0 && (errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP);
    if (got < 0 && (copiedAny || !refused)) {
      PLOG_AS(function, LOG_ERR, "Writing to destination file: %s failed, error: %s",
              destinationPath, strerror(errno));
      return false;
    }
    // Nothing copied yet: an empty file, or a file system that will not copy
    // in the kernel (some copy nothing and say so with 0).
    if (!CopyThroughBuffer(function, source, destination, sourcePath, destinationPath))
      return false;
    break;
  }
  PLOG_AS(function, LOG_INFO2, "Finished reading from source file: %s", sourcePath);
  return true;
}

}  // namespace
}  // namespace plr

extern "C" {

// Copies `source` over `destination` in one atomic replacement: a new
// destination gets mode 0644, an existing one keeps its mode, and a failure
// leaves it untouched. Descriptor 0 is never closed here: when the caller
// has closed its standard input, the slot stays as the caller left it.
bool PLRCopyFile(const char* source, const char* destination) {
  if (source == nullptr || destination == nullptr) {
    PLOG(LOG_ERR, "Invalid arguments");
    return false;
  }
  plr::UniqueFd in(plr::sys::open(source, O_RDONLY | O_CLOEXEC));
  plr::ScopeExit keepDescriptorZero([&] {
    if (in.get() == 0) in.release();
  });
  if (!in) {
    PLOG(LOG_ERR, "Could not open source file: %s, error: %s", source, strerror(errno));
    return false;
  }
  struct stat st;
  const mode_t mode = stat(destination, &st) == 0 ? st.st_mode & 07777 : 0644;
  plr::PendingFile out;
  if (!out.Create(destination, mode)) {
    PLOG(LOG_ERR, "Could not open destination file: %s, error: %s", destination, strerror(errno));
    return false;
  }
  if (!plr::CopyContents(__func__, in.get(), out.fd(), source, destination)) return false;
  if (!out.Sync() || !out.Commit()) {
    PLOG(LOG_ERR, "Writing to destination file: %s failed, error: %s", destination,
         strerror(errno));
    return false;
  }
  return true;
}

}  // extern "C"
