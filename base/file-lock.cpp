#include "base/file-lock.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
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

FileLock::FileLock(FileLock&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

FileLock& FileLock::operator=(FileLock&& other) noexcept {
  if (this != &other) {
    Unlock();
    fd_ = std::exchange(other.fd_, -1);
  }
  return *this;
}

FileLock::~FileLock() {
  Unlock();
}

// Polls with LOCK_NB rather than blocking, because a blocking flock cannot be
// bounded without signals. The descriptor is kept only once the lock is ours.
bool FileLock::Lock(const char* path, unsigned maxWaitMs) {
  if (held()) {
    errno = EBUSY;
    return false;
  }
  const std::string lockPath = std::string(path) + ".lck";
  UniqueFd fd(sys::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
  if (!fd) return false;
  const uint64_t deadline = MonotonicNs() + uint64_t{maxWaitMs} * 1'000'000u;
  for (;;) {
    if (flock(fd.get(), LOCK_EX | LOCK_NB) == 0) {
      fd_ = fd.release();
      return true;
    }
    if (errno != EWOULDBLOCK && errno != EINTR) return false;
    const uint64_t now = MonotonicNs();
    if (now >= deadline) {
      errno = 0;  // timed out: no system error to report
      return false;
    }
    SleepNs(deadline - now < kPollNs ? deadline - now : kPollNs);
  }
}

// LOCK_UN first, so the lock also ends for any forked copy of the
// descriptor; the descriptor is closed whatever happens.
bool FileLock::Unlock() {
  if (!held()) return true;
  UniqueFd fd(std::exchange(fd_, -1));
  return flock(fd.get(), LOCK_UN) == 0;
}

}  // namespace plr
