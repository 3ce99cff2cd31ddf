#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/file-lock.h"
#include "base/sys-util.h"
#include "base/time-util.h"
#include "tests/support/sandbox.h"

namespace plr {
namespace {

constexpr const char* kPath = "/tmp/db";

// A second process that takes the lock on kPath, reports "locked" through a
// pipe, and holds the lock for `holdMs` or, with 0, until Release() (or until
// it is killed).
class LockHolder {
 public:
  explicit LockHolder(unsigned holdMs = 0) {
    int ready[2], control[2];
    EXPECT_EQ(pipe(ready), 0);
    EXPECT_EQ(pipe(control), 0);
    pid_ = ::fork();
    if (pid_ == 0) {
      close(ready[0]);
      close(control[1]);
      FileLock lock;
      char status = lock.Lock(kPath, 1000) ? 'L' : 'F';
      if (write(ready[1], &status, 1) != 1) _exit(1);
      char c;
      if (holdMs > 0) {
        usleep(holdMs * 1000);
      } else if (read(control[0], &c, 1) < 0) {
        _exit(1);
      }
      _exit(lock.Unlock() ? 0 : 1);
    }
    close(ready[1]);
    close(control[0]);
    control_ = control[1];
    char status = 0;
    EXPECT_EQ(read(ready[0], &status, 1), 1);
    close(ready[0]);
    locked_ = status == 'L';
  }
  ~LockHolder() {
    if (pid_ > 0) kill(pid_, SIGKILL);
    Wait();
  }
  bool locked() const { return locked_; }
  // Tells the holder to unlock and waits for it to exit cleanly.
  bool Release() {
    char c = 'u';
    EXPECT_EQ(write(control_, &c, 1), 1);
    return Wait() == 0;
  }

 private:
  int Wait() {
    if (control_ >= 0) close(control_);
    control_ = -1;
    if (pid_ <= 0) return -1;
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  pid_t pid_ = -1;
  int control_ = -1;
  bool locked_ = false;
};

uint64_t ElapsedMs(uint64_t startNs) {
  return (MonotonicNs() - startNs) / 1'000'000;
}

TEST(FileLock, TimesOutAgainstAnotherProcessThenSucceedsAfterRelease) {
  LockHolder holder;
  ASSERT_TRUE(holder.locked());
  FileLock lock;
  errno = EINVAL;
  uint64_t start = MonotonicNs();
  EXPECT_FALSE(lock.Lock(kPath, 300));
  uint64_t waited = ElapsedMs(start);
  EXPECT_EQ(errno, 0) << "a timeout reports no system error";
  EXPECT_GE(waited, 300u);
  EXPECT_LT(waited, 450u);
  EXPECT_FALSE(lock.held());

  ASSERT_TRUE(holder.Release());
  EXPECT_TRUE(lock.Lock(kPath, 0));
  EXPECT_TRUE(lock.held());
  EXPECT_TRUE(test::FileExists("/tmp/db.lck"));
}

TEST(FileLock, WaitsForAHolderThatReleasesInTime) {
  uint64_t start = MonotonicNs();
  LockHolder holder(200);
  ASSERT_TRUE(holder.locked());
  FileLock lock;
  EXPECT_TRUE(lock.Lock(kPath, 3500));
  EXPECT_GE(ElapsedMs(start), 200u);
  EXPECT_LT(ElapsedMs(start), 1500u);
}

TEST(FileLock, SecondOwnerInOneProcessIsExcluded) {
  FileLock first, second;
  ASSERT_TRUE(first.Lock(kPath, 0));
  EXPECT_FALSE(second.Lock(kPath, 50));
  EXPECT_EQ(errno, 0);
  errno = 0;
  EXPECT_FALSE(first.Lock(kPath, 0)) << "an owner holds one lock at a time";
  EXPECT_EQ(errno, EBUSY);
  EXPECT_TRUE(first.Unlock());
  EXPECT_FALSE(first.held());
  EXPECT_TRUE(first.Unlock()) << "unlocking nothing succeeds";
  EXPECT_TRUE(second.Lock(kPath, 0));
}

TEST(FileLock, MoveTransfersOwnershipAndDestructionReleases) {
  FileLock other;
  {
    FileLock a;
    ASSERT_TRUE(a.Lock(kPath, 0));
    FileLock b(std::move(a));
    EXPECT_FALSE(a.held());
    EXPECT_TRUE(b.held());
    EXPECT_FALSE(other.Lock(kPath, 0)) << "the moved lock still excludes";
    FileLock c;
    c = std::move(b);
    EXPECT_TRUE(c.held());
    EXPECT_FALSE(other.Lock(kPath, 0));
  }
  EXPECT_TRUE(other.Lock(kPath, 0)) << "destruction released the lock";

  // Assigning over a held lock releases the lock it held.
  FileLock target;
  ASSERT_TRUE(target.Lock("/tmp/other", 0));
  target = FileLock();
  FileLock probe;
  EXPECT_TRUE(probe.Lock("/tmp/other", 0));
}

TEST(FileLock, ReportsOpenFailures) {
  FileLock lock;
  EXPECT_FALSE(lock.Lock("/tmp/missing-dir/db", 1000));
  EXPECT_EQ(errno, ENOENT);
  sys::FailNth(sys::Op::kOpen, 1, EACCES);
  EXPECT_FALSE(lock.Lock(kPath, 1000));
  EXPECT_EQ(errno, EACCES);
  sys::ClearFaults();
  EXPECT_FALSE(lock.held());
}

}  // namespace
}  // namespace plr
