// The system calls whose failure the library must survive go through one
// table, so that a test can make "the Nth write" fail and drive every rollback
// path. Production code calls plr::sys::write() and friends, never ::write().
#pragma once

#include <fcntl.h>
#include <stdio.h>
#include <sys/types.h>
#include <unistd.h>

namespace plr::sys {

// The live table; tests may replace entries and restore them with ResetCalls().
struct Calls {
  int (*open)(const char* path, int flags, mode_t mode);
  ssize_t (*read)(int fd, void* buf, size_t count);
  ssize_t (*write)(int fd, const void* buf, size_t count);
  int (*fsync)(int fd);
  int (*rename)(const char* from, const char* to);
  int (*unlink)(const char* path);
  int (*mkdir)(const char* path, mode_t mode);
  int (*rmdir)(const char* path);
  int (*mknod)(const char* path, mode_t mode, dev_t dev);
  pid_t (*fork)();
  int (*ioctl)(int fd, unsigned long request, void* arg);
  int (*socket)(int domain, int type, int protocol);
  FILE* (*fopen)(const char* path, const char* mode);
  ssize_t (*copy_file_range)(int in, off_t* inOffset, int out, off_t* outOffset, size_t count,
                             unsigned flags);
  int (*ftruncate)(int fd, off_t length);
};

Calls& calls();
void ResetCalls();

// Identifies one entry of the table for fault injection.
enum class Op { kOpen, kRead, kWrite, kFsync, kRename, kUnlink, kMkdir, kRmdir, kMknod,
                kFork, kIoctl, kSocket, kFopen, kCopyFileRange, kFtruncate, kCount };

// Makes the nth call (1 = the next one) of `op` fail with `err`; 0 clears it.
void FailNth(Op op, unsigned n, int err);
// Makes every call of `op` from the nth on fail with `err`.
void FailFrom(Op op, unsigned n, int err);
void ClearFaults();
// Calls of `op` made since the last ClearFaults().
unsigned CallCount(Op op);

inline int open(const char* path, int flags, mode_t mode = 0) { return calls().open(path, flags, mode); }
inline ssize_t read(int fd, void* buf, size_t n) { return calls().read(fd, buf, n); }
inline ssize_t write(int fd, const void* buf, size_t n) { return calls().write(fd, buf, n); }
inline int fsync(int fd) { return calls().fsync(fd); }
inline int rename(const char* from, const char* to) { return calls().rename(from, to); }
inline int unlink(const char* path) { return calls().unlink(path); }
inline int mkdir(const char* path, mode_t mode) { return calls().mkdir(path, mode); }
inline int rmdir(const char* path) { return calls().rmdir(path); }
inline int mknod(const char* path, mode_t mode, dev_t dev) { return calls().mknod(path, mode, dev); }
inline pid_t fork() { return calls().fork(); }
inline int ioctl(int fd, unsigned long request, void* arg) { return calls().ioctl(fd, request, arg); }
inline int socket(int domain, int type, int protocol) { return calls().socket(domain, type, protocol); }
inline FILE* fopen(const char* path, const char* mode) { return calls().fopen(path, mode); }
inline ssize_t copy_file_range(int in, off_t* inOffset, int out, off_t* outOffset, size_t count,
                               unsigned flags) {
  return calls().copy_file_range(in, inOffset, out, outOffset, count, flags);
}
inline int ftruncate(int fd, off_t length) { return calls().ftruncate(fd, length); }

// Writes all of `buf`, retrying short writes and EINTR; false with errno set.
bool WriteAll(int fd, const void* buf, size_t count);

}  // namespace plr::sys
