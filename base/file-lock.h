// Exclusive cross-process lock identified by a file path.
//
// Mechanism: flock(LOCK_EX) on a companion lock file "<path>.lck", created
// with mode 0644 when missing and never removed. The lock lives on a file of
// its own because the database itself is replaced by rename at compaction,
// which would silently drop a lock held on the old inode. flock belongs to the
// open file description, so two owners in one process exclude each other too.
#pragma once

namespace plr {

class FileLock {
 public:
  FileLock() = default;
  FileLock(FileLock&& other) noexcept;
  FileLock& operator=(FileLock&& other) noexcept;
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;
  ~FileLock();  // releases a held lock

  // Takes the lock on `path`, waiting at most `maxWaitMs` milliseconds
  // (polling every 10 ms). False with errno set, or errno 0 when the wait
  // timed out; EBUSY when this owner already holds a lock.
  bool Lock(const char* path, unsigned maxWaitMs);
  // Releases the lock; false with errno set. Unlocking nothing succeeds.
  bool Unlock();
  bool held() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

}  // namespace plr
