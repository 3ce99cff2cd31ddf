// Exclusive cross-process lock identified by a file path.
//
// Mechanism: flock(LOCK_EX) on a companion lock file "<path>.lck", created
// with mode 0644 when missing and never removed. The lock lives on a file of
// its own because the database itself is replaced by rename at compaction,
// which would silently drop a lock held on the old inode. flock belongs to the
// open file description, so two owners in one process exclude each other too.
// The lock file stays open between locks, so that taking the lock again is
// one flock; a lock file removed or replaced meanwhile is noticed after the
// flock and the one now at the path is opened and locked instead.
//
// The lock file also carries a mark: a holder about to leave something
// behind should it die (a temporary file beside the database) marks it
// first and clears it once that is gone, so the next holder learns of a
// death from the look it takes at the file anyway.
#pragma once

#include <sys/types.h>

#include <string>

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
  bool held() const { return held_; }
  // Sets or clears the mark; only while the lock is held. False with errno set.
  bool SetMarked(bool marked);
  // Whether the lock file was marked when this owner last took the lock.
  bool foundMarked() const { return foundMarked_; }

 private:
  // Whether path_ still names the file open on fd_: it was neither removed
  // nor replaced since it was opened. Sets foundMarked_ from what it sees.
  bool StillLinked();
  // Closes the lock file (which also ends a lock held on it).
  void Close();

  int fd_ = -1;        // the lock file, open from the first Lock on
  bool held_ = false;  // the lock is taken on fd_
  bool foundMarked_ = false;
  std::string path_;  // the path fd_ was opened by
  dev_t dev_ = 0;     // the identity of the file open on fd_
  ino_t ino_ = 0;
};

}  // namespace plr
