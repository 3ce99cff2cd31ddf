#include "base/fs-util.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>

#include "base/fd-util.h"
#include "base/random-util.h"
#include "base/sha1.h"
#include "base/sys-util.h"

namespace plr {
namespace {

// A temporary's name: ".<name of the target>." and this many random letters.
constexpr size_t kRandomLetters = 6;

std::string TemporaryPrefix(const char* path) {
  std::string_view p(path);
  const size_t slash = p.rfind('/');
  return "." + std::string(slash == std::string_view::npos ? p : p.substr(slash + 1)) + ".";
}

}  // namespace

std::string DirName(const char* path) {
  std::string_view p(path);
  size_t slash = p.rfind('/');
  if (slash == std::string_view::npos) return ".";
  if (slash == 0) return "/";
  return std::string(p.substr(0, slash));
}

bool IsPendingFileName(const char* path, std::string_view name) {
  const std::string prefix = TemporaryPrefix(path);
  return name.size() == prefix.size() + kRandomLetters && name.substr(0, prefix.size()) == prefix;
}

// Like mkstemp, but through the fault-injectable open; a name taken by
// someone else is retried with new random letters.
bool PendingFile::Create(const char* path, mode_t mode) {
  static constexpr char kChars[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  Discard();
  committed_ = false;
  path_ = path;
  std::string_view p(path);
  const size_t slash = p.rfind('/');
  const std::string prefix =
      (slash == std::string_view::npos ? std::string() : std::string(p.substr(0, slash + 1))) +
      TemporaryPrefix(path);
  for (int attempt = 0; attempt < 100; ++attempt) {
    unsigned char bytes[kRandomLetters];
    if (!CryptoRandom(bytes, sizeof bytes)) return false;
    std::string name = prefix;
    for (unsigned char b : bytes) name += kChars[b % (sizeof kChars - 1)];
    temp_ = std::move(name);
    fd_.reset(sys::open(temp_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!fd_ && errno == EEXIST) continue;
    if (!fd_) return false;  // the name stays for the caller's log line
    owned_ = true;
    return fchmod(fd_.get(), mode) == 0;
  }
  return false;  // errno is EEXIST
}

bool PendingFile::Sync() {
  if (sys::fsync(fd_.get()) != 0) return false;
  fd_.reset();
  return true;
}

bool PendingFile::Commit() {
  fd_.reset();
  if (sys::rename(temp_.c_str(), path_.c_str()) != 0) return false;
  owned_ = false;
  committed_ = true;
  return FsyncParentDir(path_.c_str());
}

void PendingFile::Discard() {
  fd_.reset();
  if (!owned_) return;
  owned_ = false;
  int saved = errno;
  sys::unlink(temp_.c_str());
  errno = saved;
}

bool ReplaceFileAtomically(const char* path, std::string_view data, mode_t mode) {
  PendingFile file;
  return file.Create(path, mode) && sys::WriteAll(file.fd(), data.data(), data.size()) &&
         file.Sync() && file.Commit();
}

SpillBuffer::SpillBuffer(int fd) : fd_(fd) {
  text_.reserve(kSpillMark + 4096);  // a spill plus the item that crossed the mark
}

void SpillBuffer::Spill() {
  HashPending();
  if (error_ == 0 && !sys::WriteAll(fd_, text_.data(), text_.size())) error_ = errno;
  text_.clear();
  hashedUpTo_ = 0;
}

void SpillBuffer::HashPending() {
  if (sha_ != nullptr) sha_->Update(text_.data() + hashedUpTo_, text_.size() - hashedUpTo_);
  hashedUpTo_ = text_.size();
}

// The mark moves without a write: what is buffered goes out with the rest.
void SpillBuffer::HashFromHere(Sha1* sha) {
  HashPending();
  sha_ = sha;
}

bool SpillBuffer::Flush() {
  Spill();
  if (error_ == 0) return true;
  errno = error_;
  return false;
}

bool ReadWholeFile(const char* path, FileBytes* out) {
  *out = FileBytes();
  UniqueFd fd(sys::open(path, O_RDONLY | O_CLOEXEC));
  if (!fd) return false;
  // Read straight into a buffer sized from fstat, one byte more so that
  // the end shows without a second buffer; a file that grows meanwhile (or
  // a size fstat cannot tell) is followed to its end.
  struct stat st;
  size_t room =
      (fstat(fd.get(), &st) == 0 && st.st_size > 0 ? static_cast<size_t>(st.st_size) : 0) + 1;
  auto data = std::make_unique_for_overwrite<char[]>(room);
  size_t have = 0;
  for (;;) {
    if (have == room) {
      const size_t larger = room * 2 + 65536;
      auto grown = std::make_unique_for_overwrite<char[]>(larger);
      memcpy(grown.get(), data.get(), have);
      data = std::move(grown);
      room = larger;
    }
    ssize_t n = sys::read(fd.get(), data.get() + have, room - have);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (n == 0) break;
    have += static_cast<size_t>(n);
  }
  out->data_ = std::move(data);
  out->size_ = have;
  return true;
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
