#include "daemons/daemon.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kavix {

void Daemon::Log(const char* format, ...) const {
  char text[1024];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  fprintf(stderr, "%s[%s]: %s\n", name_, vnet_.empty() ? "-" : vnet_.c_str(), text);
  fflush(stderr);
}

void Daemon::Usage(const char* usage) const {
  fprintf(stderr, "usage: %s %s\n", name_, usage);
  exit(2);
}

void Daemon::Detach() {
  int ready[2];
  if (pipe2(ready, O_CLOEXEC) != 0) {
    Log("cannot create a pipe: %s", strerror(errno));
    exit(1);
  }
  const pid_t pid = fork();
  if (pid < 0) {
    Log("cannot fork: %s", strerror(errno));
    exit(1);
  }
  if (pid > 0) {  // the first process: exits once the daemon says how it went
    close(ready[1]);
    char verdict = 0;
    ssize_t n;
    do {
      n = read(ready[0], &verdict, 1);
    } while (n < 0 && errno == EINTR);
    _exit(n == 1 && verdict == 'u' ? 0 : 1);
  }
  close(ready[0]);
  setsid();
  // A keeper process reaps the daemon the moment it ends, so that nobody
  // waiting for it to go away sees a zombie that still answers kill(pid, 0).
  const pid_t daemon = fork();
  if (daemon < 0) {
    Log("cannot fork: %s", strerror(errno));
    _exit(1);
  }
  if (daemon > 0) {
    for (int fd = 3; fd < 1024; ++fd) close(fd);  // the status pipe belongs to the daemon
    while (waitpid(daemon, nullptr, 0) < 0 && errno == EINTR) {
    }
    _exit(0);
  }
  readyFd_ = ready[1];
}

bool Daemon::ClaimPidFile(const std::string& path) {
  pidFd_ = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (pidFd_ < 0) {
    Log("cannot open PID file %s: %s", path.c_str(), strerror(errno));
    return false;
  }
  if (flock(pidFd_, LOCK_EX | LOCK_NB) != 0) {
    Log("another instance is running (PID file %s is locked)", path.c_str());
    close(pidFd_);
    pidFd_ = -1;
    return false;
  }
  const std::string pid = std::to_string(getpid()) + "\n";
  if (ftruncate(pidFd_, 0) != 0 ||
      pwrite(pidFd_, pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
    Log("cannot write PID file %s: %s", path.c_str(), strerror(errno));
    return false;
  }
  pidPath_ = path;
  return true;
}

void Daemon::ReportUp(int statusFd) {
  const uint16_t status = 0;
  if (write(statusFd, &status, sizeof status) != sizeof status)
    Log("cannot report status: %s", strerror(errno));
  close(statusFd);
  const char verdict = 'u';
  if (write(readyFd_, &verdict, 1) != 1) Log("cannot release the starter: %s", strerror(errno));
  close(readyFd_);
  readyFd_ = -1;
}

void Daemon::FailStart() {
  Log("not started");
  const char verdict = 'f';
  if (readyFd_ >= 0 && write(readyFd_, &verdict, 1) != 1) {
    // The first process then sees the end of the pipe: a failure all the same.
  }
  ReleasePidFile();
  exit(1);
}

void Daemon::BlockSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGCHLD);
  sigprocmask(SIG_BLOCK, &set, nullptr);
}

bool Daemon::WaitForStop(pid_t child) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGCHLD);
  for (;;) {
    if (child > 0 && waitpid(child, nullptr, WNOHANG) == child) return false;
    siginfo_t info;
    const int sig = sigwaitinfo(&set, &info);
    if (sig == SIGTERM || sig == SIGINT) return true;
  }
}

void Daemon::ReleasePidFile() {
  if (pidFd_ < 0) return;
  unlink(pidPath_.c_str());
  close(pidFd_);
  pidFd_ = -1;
}

bool ParseNumber(const char* text, long min, long max, long* out) {
  if (text == nullptr || *text == '\0') return false;
  char* end = nullptr;
  errno = 0;
  const long value = strtol(text, &end, 10);
  if (errno != 0 || *end != '\0' || value < min || value > max) return false;
  *out = value;
  return true;
}

}  // namespace kavix
