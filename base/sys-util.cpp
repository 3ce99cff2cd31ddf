#include "base/sys-util.h"

#include <errno.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <array>

namespace plr::sys {
namespace {

struct Fault {
  unsigned calls = 0;     // calls seen since the plan was set
  unsigned failAt = 0;    // 0: never
  bool sticky = false;    // fail every call from failAt on
  int err = 0;
};

std::array<Fault, static_cast<size_t>(Op::kCount)> gFaults;

// True when the current call of `op` must fail; sets errno then.
bool Injected(Op op) {
  Fault& f = gFaults[static_cast<size_t>(op)];
  ++f.calls;
  if (f.failAt == 0) return false;
  if (f.calls == f.failAt || (f.sticky && f.calls > f.failAt)) {
    errno = f.err;
    return true;
  }
  return false;
}

int Open(const char* p, int fl, mode_t m) { return Injected(Op::kOpen) ? -1 : ::open(p, fl, m); }
ssize_t Read(int fd, void* b, size_t n) { return Injected(Op::kRead) ? -1 : ::read(fd, b, n); }
ssize_t Write(int fd, const void* b, size_t n) {
  return Injected(Op::kWrite) ? -1 : ::write(fd, b, n);
}
int Fsync(int fd) { return Injected(Op::kFsync) ? -1 : ::fsync(fd); }
int Rename(const char* a, const char* b) { return Injected(Op::kRename) ? -1 : ::rename(a, b); }
int Unlink(const char* p) { return Injected(Op::kUnlink) ? -1 : ::unlink(p); }
int Mkdir(const char* p, mode_t m) { return Injected(Op::kMkdir) ? -1 : ::mkdir(p, m); }
int Rmdir(const char* p) { return Injected(Op::kRmdir) ? -1 : ::rmdir(p); }
int Mknod(const char* p, mode_t m, dev_t d) { return Injected(Op::kMknod) ? -1 : ::mknod(p, m, d); }
pid_t Fork() { return Injected(Op::kFork) ? -1 : ::fork(); }
int Ioctl(int fd, unsigned long r, void* a) { return Injected(Op::kIoctl) ? -1 : ::ioctl(fd, r, a); }
int Socket(int d, int t, int p) { return Injected(Op::kSocket) ? -1 : ::socket(d, t, p); }
FILE* Fopen(const char* p, const char* m) { return Injected(Op::kFopen) ? nullptr : ::fopen(p, m); }
ssize_t CopyFileRange(int in, off_t* io, int out, off_t* oo, size_t n, unsigned fl) {
  return Injected(Op::kCopyFileRange) ? -1 : ::copy_file_range(in, io, out, oo, n, fl);
}
int Ftruncate(int fd, off_t n) { return Injected(Op::kFtruncate) ? -1 : ::ftruncate(fd, n); }

constexpr Calls kRealCalls = {Open,  Read,  Write, Fsync,  Rename, Unlink,        Mkdir,
                              Rmdir, Mknod, Fork,  Ioctl,  Socket, Fopen,  CopyFileRange,
                              Ftruncate};
Calls gCalls = kRealCalls;

}  // namespace

Calls& calls() { return gCalls; }
void ResetCalls() { gCalls = kRealCalls; }

void FailNth(Op op, unsigned n, int err) {
  Fault& f = gFaults[static_cast<size_t>(op)];
  f = Fault{0, n, false, err};
}

void FailFrom(Op op, unsigned n, int err) {
  Fault& f = gFaults[static_cast<size_t>(op)];
  f = Fault{0, n, true, err};
}

void ClearFaults() { gFaults.fill(Fault{}); }

unsigned CallCount(Op op) { return gFaults[static_cast<size_t>(op)].calls; }

bool WriteAll(int fd, const void* buf, size_t count) {
  const char* p = static_cast<const char*>(buf);
  while (count > 0) {
    ssize_t n = write(fd, p, count);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    p += n;
    count -= static_cast<size_t>(n);
  }
  return true;
}

}  // namespace plr::sys
