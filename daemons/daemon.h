// What every service daemon shares: its log lines, its command-line errors,
// and the start-up contract with the library that starts it:
//   - the first process exits only once the daemon is up (or has given up);
//   - the process that stays holds a lock on the PID file (a second instance
//     for the same vnet is refused) and has written its PID there;
//   - then two status bytes go to the -s descriptor, which is closed;
//   - a daemon that cannot start writes no status and logs why;
//   - SIGTERM undoes what the daemon set up and it exits 0.
#pragma once

#include <sys/types.h>

#include <string>

namespace kavix {

class Daemon {
 public:
  // `name` is the program ("kavix-netifup"); `vnet` is set once known.
  explicit Daemon(const char* name) : name_(name) {}
  void SetVnet(const std::string& vnet) { vnet_ = vnet; }

  // One line on stderr (the library's log): "<name>[<vnet>]: <text>".
  void Log(const char* format, ...) const __attribute__((format(printf, 2, 3)));
  // A bad command line: "usage: <name> <usage>" on stderr, exit 2.
  [[noreturn]] void Usage(const char* usage) const;

  // Forks; returns in the process that stays (a new session, whose parent
  // only reaps it). The first process waits for ReportUp() or FailStart()
  // and exits 0 or 1.
  void Detach();
  // Locks `path` and writes this process's PID into it; false (logged) when
  // another instance holds the lock.
  bool ClaimPidFile(const std::string& path);
  // The daemon is up: status on `statusFd`, then the first process exits 0.
  void ReportUp(int statusFd);
  // The daemon could not start: no status, the first process exits 1.
  [[noreturn]] void FailStart();

  // Blocks SIGTERM, SIGINT and SIGCHLD for WaitForStop(); call before
  // starting children.
  void BlockSignals();
  // Waits for SIGTERM or SIGINT (true), or for `child` to end (false).
  bool WaitForStop(pid_t child = -1);

  // Removes the PID file (at a clean exit).
  void ReleasePidFile();

 private:
  const char* name_;
  std::string vnet_;
  int readyFd_ = -1;  // write end towards the first process
  int pidFd_ = -1;
  std::string pidPath_;
};

// Parses a decimal in [min, max]; false otherwise.
bool ParseNumber(const char* text, long min, long max, long* out);

}  // namespace kavix
