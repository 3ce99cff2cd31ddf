#include "base/fs-util.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>

#include "base/fd-util.h"
#include "base/random-util.h"
#include "base/sys-util.h"

namespace plr {
namespace {

// Directory part of `path`: "." without a slash, "/" for a top-level file.
std::string DirName(const char* path) {
  std::string_view p(path);
  size_t slash = p.rfind('/');
  if (slash == std::string_view::npos) return ".";
  if (slash == 0) return "/";
  return std::string(p.substr(0, slash));
}

// Creates "<dir>/.<name>.XXXXXX" exclusively, like mkstemp but through the
// fault-injectable open, and returns its descriptor and name.
UniqueFd CreateTempBeside(const char* path, std::string* tempPath) {
  static constexpr char kChars[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  std::string_view p(path);
  size_t slash = p.rfind('/');
  std::string prefix = slash == std::string_view::npos ? "." + std::string(p)
                                                       : std::string(p.substr(0, slash + 1)) + "." +
                                                             std::string(p.substr(slash + 1));
  for (int attempt = 0; attempt < 100; ++attempt) {
    unsigned char bytes[6];
    if (!CryptoRandom(bytes, sizeof bytes)) return UniqueFd();
    *tempPath = prefix + ".";
    for (unsigned char b : bytes) *tempPath += kChars[b % (sizeof kChars - 1)];
    UniqueFd fd(sys::open(tempPath->c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (fd || errno != EEXIST) return fd;
  }
  return UniqueFd();  // errno is EEXIST
}

}  // namespace

// Until the rename the old file is untouched; the guard removes the
// temporary on every failure before it (keeping the failing call's errno).
bool ReplaceFileAtomically(const char* path, std::string_view data, mode_t mode) {
  std::string tempPath;
  UniqueFd fd = CreateTempBeside(path, &tempPath);
  if (!fd) return false;
  bool renamed = false;
  ScopeExit removeTemp([&] {
    if (renamed) return;
    int saved = errno;
    sys::unlink(tempPath.c_str());
    errno = saved;
  });
  if (fchmod(fd.get(), mode) != 0) return false;
  if (!sys::WriteAll(fd.get(), data.data(), data.size())) return false;
  if (sys::fsync(fd.get()) != 0) return false;
  fd.reset();
  if (sys::rename(tempPath.c_str(), path) != 0) return false;
  renamed = true;
  return FsyncParentDir(path);
}

bool ReadWholeFile(const char* path, std::string* out) {
  UniqueFd fd(sys::open(path, O_RDONLY | O_CLOEXEC));
  if (!fd) return false;
  out->clear();
  char buf[65536];
  for (;;) {
    ssize_t n = sys::read(fd.get(), buf, sizeof buf);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (n == 0) return true;
    out->append(buf, static_cast<size_t>(n));
  }
}

// Makes a rename or a new directory entry durable: the entry lives in the
// directory, so the directory itself must reach the disk.
bool FsyncParentDir(const char* path) {
  std::string dir = DirName(path);
  UniqueFd fd(sys::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) return false;
  return sys::fsync(fd.get()) == 0;
}

}  // namespace plr
