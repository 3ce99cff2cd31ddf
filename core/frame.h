// The call every exported PLR_ function runs as: entry line, loaded check,
// argument line, refusals, the write bracket, the outcome line and the exit
// line, so an exported function spells out only its own steps:
//
//   bool PLR_SetVnetDisplayName(const char* vnetName, const char* displayName) {
//     return plr::ApiCall(__func__, [&](plr::Api& c) {
//       c.Args("Arguments - v: %p,%s, ...", vnetName, PLR_STR(vnetName), ...);
//       uint32_t vnet;
//       if (!plr::api::VnetArg(c, vnetName, &vnet)) return false;
//       bool ok = c.Locked([&] { return PLRSetVnetDisplayName(vnet, displayName); });
//       return c.Outcome(ok, "Successfully set ...: %s", "Error setting ...: %s", vnetName);
//     });
//   }
//
// Both the entry and the exit line carry the line of the function's return
// statement. The body runs as a lambda, so it logs through `c` (whose name is
// the exported function's), never through PLOG, which would name the lambda.
#pragma once


#include "core/log.h"

namespace plr {

// Logs `okFormat` at `okLevel` when `ok`, else `errFormat` at LOG_ERR, both
// under `function` and with the same arguments; returns `ok`.
bool LogOutcome(const char* function, bool ok, LogLevel okLevel, const char* okFormat,
                const char* errFormat, ...) __attribute__((format(printf, 4, 6)))
__attribute__((format(printf, 5, 6)));

// A line that takes no arguments, logged as it is.
struct FixedLine {
  const char* text;
};

// The outcome pair when only one of the two lines takes the arguments: the
// other one is a FixedLine.
bool LogOutcome(const char* function, bool ok, LogLevel okLevel, FixedLine okLine,
                const char* errFormat, ...) __attribute__((format(printf, 5, 6)));
bool LogOutcome(const char* function, bool ok, LogLevel okLevel, const char* okFormat,
                FixedLine errLine, ...) __attribute__((format(printf, 4, 6)));

// Whether the write bracket asks PLRNetCfgIsReadOnly first (the usual one)
// or takes the lock unconditionally (the update-from-config and service
// calls, which lock even a read-only cache).
enum class LockMode { kUnlessReadOnly, kAlways };

// One running exported call, handed to its body by ApiCall. Writes the entry
// line when made and the exit line when it ends (unless skipped or written
// early with Exit).
class Api {
 public:
  Api(const char* function, int line);
  Api(const Api&) = delete;
  Api& operator=(const Api&) = delete;
  ~Api() { Exit(); }

  const char* function() const { return function_; }

  // The loaded check: when the library is not loaded, logs
  // "Pelorus Un-Initialized. Aborting API Function: %s" and the call ends
  // without an exit line.
  bool Loaded();

  // The argument line, at LOG_ARGS.
  void Args(const char* format, ...) const __attribute__((format(printf, 2, 3)));
  // One line under the call's name.
  void Log(LogLevel level, const char* format, ...) const __attribute__((format(printf, 3, 4)));
  // A refusal: one LOG_ERR line; returns false.
  bool Fail(const char* format, ...) const __attribute__((format(printf, 2, 3)));
  // The outcome pair: LOG_OK or LOG_ERR line; returns `ok`.
  bool Outcome(bool ok, const char* okFormat, const char* errFormat, ...) const
      __attribute__((format(printf, 3, 5))) __attribute__((format(printf, 4, 5)));

  // Runs `work` inside the write bracket: the database lock is taken (unless
  // the default cache is read-only and `mode` allows that) and released
  // before this returns. False without running `work` when the lock cannot
  // be taken ("Failed to obtain lock on vnet config"); a failed lock calls
  // no unlock, an open bracket always calls PLRNetCfgUnlockConfig.
  template <class Work>
  bool Locked(Work&& work, LockMode mode = LockMode::kUnlessReadOnly) const {
    Bracket bracket(function_, mode);
    return bracket.ok && work();
  }

  // This return writes no exit line.
  void SkipExit() { exited_ = true; }
  // Writes the exit line now rather than when the call ends (for cleanup
  // that must log after it); later calls write nothing.
  void Exit();

 private:
  struct Bracket {
    Bracket(const char* function, LockMode mode);
    Bracket(const Bracket&) = delete;
    Bracket& operator=(const Bracket&) = delete;
    ~Bracket();
    bool ok = false;
  };

  const char* function_;
  int line_;
  bool exited_ = false;
};

// Selects the ApiCall that does not require a loaded library.
struct AnyState {};
inline constexpr AnyState kAnyState{};

// Runs `body(Api&)` as the exported function `function` (pass __func__);
// when the library is not loaded the call ends with `Result{}` (false, 0 or
// null) and the body does not run.
template <class Body>
auto ApiCall(const char* function, Body&& body,
             int line = __builtin_LINE()) {
  Api call(function, line);
  using Result = decltype(body(call));
  if (!call.Loaded()) return Result{};
  return body(call);
}

// The same for the few functions that also run while the library is not
// loaded (load, unload, the database file calls).
template <class Body>
auto ApiCall(const char* function, AnyState, Body&& body,
             int line = __builtin_LINE()) {
  Api call(function, line);
  return body(call);
}

}  // namespace plr
