// Internal logging vocabulary. Every message goes through PLRLog, which is
// printf-checked, so each fixed message is checked against its arguments.
#pragma once


#include "pelorus/core.h"

namespace plr {

enum LogLevel : unsigned {
  LOG_ERR = PLR_LOG_ERR,
  LOG_INFO = PLR_LOG_INFO,
  LOG_ERRCMN = PLR_LOG_ERRCMN,
  LOG_WRN = PLR_LOG_WRN,
  LOG_OK = PLR_LOG_OK,
  LOG_INFO2 = PLR_LOG_INFO2,
  LOG_ARGS = PLR_LOG_ARGS,
};

// True when the library has been loaded and not yet released.
inline bool IsLoaded() {
  return plrContext.loadCount != 0;
}

// The " Entering Function" / " Exiting Function" lines that internal service
// functions write around their work. The exit line is written when the trace
// goes out of scope, after every other local has been destroyed, and names
// the source line of the return that went through Exit():
//   plr::FunctionTrace trace(__func__);
//   ...
//   return trace.Exit(ok);
class FunctionTrace {
 public:
  // Writes the entry line unless `enter` is false (functions that trace
  // only their exit).
  explicit FunctionTrace(const char* function, bool enter = true,
                         int line = __builtin_LINE())
      : function_(function), line_(line) {
    if (enter) PLRLog(LOG_INFO2, function_, " Entering Function, %s:%d", function_, line_);
  }
  FunctionTrace(const FunctionTrace&) = delete;
  FunctionTrace& operator=(const FunctionTrace&) = delete;
  ~FunctionTrace() { PLRLog(LOG_INFO2, function_, " Exiting Function, %s:%d", function_, line_); }

  // Records the line of the return statement and passes `value` through.
  template <typename T>
  T Exit(T value, int line = __builtin_LINE()) {
    line_ = line;
    return value;
  }

 private:
  const char* function_;
  int line_;
};

}  // namespace plr

// Logs under the calling function's name: PLOG(LOG_ERR, "Invalid vnet name: %s", name).
#define PLOG(level, ...) PLRLog(::plr::level, __func__, __VA_ARGS__)
// Logs under an explicit name (for lambdas and helpers speaking for a caller).
#define PLOG_AS(name, level, ...) PLRLog(::plr::level, (name), __VA_ARGS__)

// Text of a possibly missing string argument in log lines.
#define PLR_STR(s) ((s) != nullptr ? (s) : "null")
