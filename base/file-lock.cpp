#include "base/file-lock.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>

#include <string>
#include <utility>

#include "base/fd-util.h"
#include "base/sys-util.h"
#include "base/time-util.h"

namespace plr {
namespace {

// How often a waiting owner retries; short against the waits callers use
// (seconds), long enough not to spin.
constexpr uint64_t kPollNs = 10'000'000;

void SleepNs(uint64_t ns) {
  struct timespec ts = {static_cast<time_t>(ns / 1'000'000'000u),
                        static_cast<long>(ns % 1'000'000'000u)};
  while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
}

}  // namespace

FileLock::FileLock(FileLock&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)),
      held_(std::exchange(other.held_, false)),
      foundMarked_(other.foundMarked_),
      path_(std::move(other.path_)),
      dev_(other.dev_),
      ino_(other.ino_) {}

FileLock& FileLock::operator=(FileLock&& other) noexcept {
  if (this != &other) {
    Close();
    fd_ = std::exchange(other.fd_, -1);
    held_ = std::exchange(other.held_, false);
    foundMarked_ = other.foundMarked_;
    path_ = std::move(other.path_);
    dev_ = other.dev_;
    ino_ = other.ino_;
  }
  return *this;
}

FileLock::~FileLock() {
  Close();
}

// The mark is the lock file's size (one byte marked, empty not), which the
// look taken here after every flock reports without a call of its own.
bool FileLock::StillLinked() {
  struct stat st;
  if (stat(path_.c_str(), &st) != 0 || st.st_dev != dev_ || st.st_ino != ino_) return false;
  foundMarked_ = st.st_size > 0;
  return true;
}

bool FileLock::SetMarked(bool marked) {
  if (!held_) {
    errno = ENOLCK;
    return false;
  }
  return sys::ftruncate(fd_, marked ? 1 : 0) == 0;
}

void FileLock::Close() {
  held_ = false;
  UniqueFd closing(std::exchange(fd_, -1));
}

// Polls with LOCK_NB rather than blocking, because a blocking flock cannot be
// bounded without signals. A lock taken on a file that is no longer the one
// at the path would exclude nobody: it is dropped and the path opened again.
bool FileLock::Lock(const char* path, unsigned maxWaitMs) {
  if (held_) {
    errno = EBUSY;
    return false;
  }
  const std::string lockPath = std::string(path) + ".lck";
  if (fd_ >= 0 && lockPath != path_) Close();
  const uint64_t deadline = MonotonicNs() + uint64_t{maxWaitMs} * 1'000'000u;
  for (;;) {
    if (fd_ < 0) {
      UniqueFd fd(sys::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
      struct stat st;
      if (!fd || fstat(fd.get(), &st) != 0) return false;
      fd_ = fd.release();
      path_ = lockPath;
      dev_ = st.st_dev;
      ino_ = st.st_ino;
    }
    if (flock(fd_, LOCK_EX | LOCK_NB) == 0) {
      if (StillLinked()) {
        held_ = true;
        return true;
      }
      Close();  // replaced meanwhile: the next round locks the file now there
    } else if (errno != EWOULDBLOCK && errno != EINTR) {
      return false;
    }
    const uint64_t now = MonotonicNs();
    if (now >= deadline) {
      errno = 0;  // timed out: no system error to report
      return false;
    }
    SleepNs(deadline - now < kPollNs ? deadline - now : kPollNs);
  }
}

// LOCK_UN, so the lock also ends for any forked copy of the descriptor; the
// file stays open for the next Lock unless the unlock failed.
bool FileLock::Unlock() {
  if (!held_) return true;
  held_ = false;
  if (flock(fd_, LOCK_UN) == 0) return true;
  const int err = errno;
  Close();
  errno = err;
  return false;
}

}  // namespace plr
