// The frame every exported PLR_ function runs in, and the write bracket of
// every function that changes the database. One object each, so no function
// spells out its entry/exit lines or its lock/unlock pair by hand.
//
//   bool PLR_SetVnetMTU(const char* vnetName, uint32_t mtu) {
//     plr::ApiFrame frame(__func__, __LINE__);
//     if (!frame.Loaded()) return false;
//     frame.Args("Arguments - v: %p,%s, mtu: %u", vnetName, PLR_STR(vnetName), mtu);
//     ...checks: a refused call never takes the lock...
//     bool ok = plr::WithWriteLock(__func__, [&] { return ...work...; });
//     PLR_RETURN(frame, ok);
//   }
//
// WithWriteLock releases the lock before the exit line is written, as the
// log order requires (work, unlock, exit line).
#pragma once

#include "core/log.h"

// Text of a possibly missing string argument in argument lines.
#define PLR_STR(s) ((s) != nullptr ? (s) : "null")

// Writes the exit line with the line number of this return and returns `value`.
#define PLR_RETURN(frame, value) return (frame).Exit((value), __LINE__)

namespace plr {

class ApiFrame {
 public:
  // Writes the entry line naming `function` and the line of its entry.
  ApiFrame(const char* function, int line);
  ApiFrame(const ApiFrame&) = delete;
  ApiFrame& operator=(const ApiFrame&) = delete;

  // The loaded check: when the library is not loaded, logs
  // "Pelorus Un-Initialized. Aborting API Function: %s" and returns false;
  // the function then returns its failure value without an exit line.
  bool Loaded() const;

  // The argument line, at LOG_ARGS under the function's name.
  void Args(const char* format, ...) const __attribute__((format(printf, 2, 3)));

  // Writes the exit line with `line` and passes `value` through.
  template <class T>
  T Exit(T value, int line) const {
    WriteExit(line);
    return value;
  }
  void Exit(int line) const { WriteExit(line); }

  const char* function() const { return function_; }

 private:
  void WriteExit(int line) const;
  const char* function_;
};

// Whether the bracket asks PLRNetCfgIsReadOnly first (the usual write
// bracket) or takes the lock unconditionally (the update-from-config and
// service calls, which lock even a read-only cache).
enum class LockMode { kUnlessReadOnly, kAlways };

// Takes the database lock unless the default cache is read-only, and always
// releases what it took when the scope ends. A failed lock is logged as
// "Failed to obtain lock on vnet config" under the caller's name. Once the
// bracket is open, PLRNetCfgUnlockConfig is called at its end in every case,
// also when a read-only cache took no lock (it then only logs); a failed lock
// calls no unlock.
class WriteBracket {
 public:
  explicit WriteBracket(const char* function, LockMode mode = LockMode::kUnlessReadOnly);
  WriteBracket(const WriteBracket&) = delete;
  WriteBracket& operator=(const WriteBracket&) = delete;
  ~WriteBracket();

  // True when the work may go ahead: locked, or the cache is read-only.
  bool Ok() const { return ok_; }

 private:
  bool ok_ = false;
};

// Runs `work` inside a write bracket; false without running it when the lock
// cannot be taken. The bracket is closed before this returns.
template <class Work>
bool WithWriteLock(const char* function, LockMode mode, Work&& work) {
  WriteBracket bracket(function, mode);
  return bracket.Ok() && work();
}

template <class Work>
bool WithWriteLock(const char* function, Work&& work) {
  return WithWriteLock(function, LockMode::kUnlessReadOnly, static_cast<Work&&>(work));
}

}  // namespace plr
