// One invocation of the command: the library loaded once, the failure line
// of a failed call taken from the library's own log, vnet names, and the
// write bracket for the few calls that do not lock by themselves.
#pragma once

#include <pelorus.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace pelorus_cli {

// Exit statuses.
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;

// What a command ends with when it cannot go on: the line for stderr and
// the exit status.
class CommandError : public std::runtime_error {
 public:
  CommandError(int status, const std::string& line) : std::runtime_error(line), status_(status) {}
  int status() const { return status_; }

 private:
  int status_;
};

// Ends the command with a usage error (exit 2).
[[noreturn]] void UsageError(const std::string& line);

// A vnet as the user names it ("kavix8" or "8"); refuses anything else.
struct Vnet {
  uint32_t number = 0;
  std::string name;  // "kavix<n>"
};
Vnet ParseVnet(const std::string& text);

// The library, loaded for the lifetime of the object. A session that may
// change the configuration needs root (checked before anything is loaded)
// and creates an empty database when there is none.
class Session {
 public:
  explicit Session(bool writes);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Marks where the log ends, so a failing call's own lines can be found.
  void Mark();
  // The lines logged since Mark(): the function that logged each (may be
  // empty) and its text.
  struct LogLine {
    std::string function, text;
  };
  std::vector<LogLine> LoggedSinceMark() const;
  // `ok`, or ends the command (exit 1) with "`what`: <the first line the
  // library logged since Mark()>".
  void Check(bool ok, const std::string& what);
  // Runs `call` between Mark() and Check().
  template <class Call>
  void Do(const std::string& what, Call&& call) {
    Mark();
    Check(call(), what);
  }
  // Runs `call` inside the database write bracket (for the calls of the
  // lower layers that expect their caller to hold it).
  template <class Call>
  void Locked(const std::string& what, Call&& call) {
    Mark();
    bool ok = PLRNetCfgLockConfig(nullptr);
    if (ok) {
      ok = call();
      PLRNetCfgUnlockConfig(nullptr);
    }
    Check(ok, what);
  }

 private:
  std::string logPath_;
  long logMark_ = 0;
};

}  // namespace pelorus_cli
