#include "core/frame.h"

#include "pelorus/netcfg.h"

namespace plr {
namespace {

// The outcome pair behind LogOutcome and Api::Outcome.
bool VLogOutcome(const char* function, bool ok, LogLevel okLevel, const char* okFormat,
                 const char* errFormat, va_list args) __attribute__((format(printf, 4, 0)))
__attribute__((format(printf, 5, 0)));
bool VLogOutcome(const char* function, bool ok, LogLevel okLevel, const char* okFormat,
                 const char* errFormat, va_list args) {
  PLRVLog(ok ? okLevel : LOG_ERR, function, ok ? okFormat : errFormat, args);
  return ok;
}

}  // namespace

bool LogOutcome(const char* function, bool ok, LogLevel okLevel, const char* okFormat,
                const char* errFormat, ...) {
  va_list args;
  va_start(args, errFormat);
  VLogOutcome(function, ok, okLevel, okFormat, errFormat, args);
  va_end(args);
  return ok;
}

bool LogOutcome(const char* function, bool ok, LogLevel okLevel, FixedLine okLine,
                const char* errFormat, ...) {
  if (ok) {
    PLRLog(okLevel, function, "%s", okLine.text);
    return true;
  }
  va_list args;
  va_start(args, errFormat);
  PLRVLog(LOG_ERR, function, errFormat, args);
  va_end(args);
  return false;
}

bool LogOutcome(const char* function, bool ok, LogLevel okLevel, const char* okFormat,
                FixedLine errLine, ...) {
  if (!ok) {
    PLRLog(LOG_ERR, function, "%s", errLine.text);
    return false;
  }
  va_list args;
  va_start(args, errLine);
  PLRVLog(okLevel, function, okFormat, args);
  va_end(args);
  return true;
}

Api::Api(const char* function, int line) : function_(function), line_(line) {
  PLRLog(LOG_INFO2, nullptr, "\n----------------------------------\nEntering API Function, %s:%d\n",
         function, line);
}

bool Api::Loaded() {
  if (IsLoaded()) return true;
  PLRLog(LOG_ERR, function_, "Pelorus Un-Initialized. Aborting API Function: %s", function_);
  SkipExit();
  return false;
}

void Api::Args(const char* format, ...) const {
  va_list args;
  va_start(args, format);
  PLRVLog(LOG_ARGS, function_, format, args);
  va_end(args);
}

void Api::Log(LogLevel level, const char* format, ...) const {
  va_list args;
  va_start(args, format);
  PLRVLog(level, function_, format, args);
  va_end(args);
}

bool Api::Fail(const char* format, ...) const {
  va_list args;
  va_start(args, format);
  PLRVLog(LOG_ERR, function_, format, args);
  va_end(args);
  return false;
}

bool Api::Outcome(bool ok, const char* okFormat, const char* errFormat, ...) const {
  va_list args;
  va_start(args, errFormat);
  VLogOutcome(function_, ok, LOG_OK, okFormat, errFormat, args);
  va_end(args);
  return ok;
}

void Api::Exit() {
  if (exited_) return;
  exited_ = true;
  PLRLog(LOG_INFO2, nullptr, "\nExiting API Function, %s:%d\n-----------\n", function_, line_);
}

Api::Bracket::Bracket(const char* function, LockMode mode) {
  if (mode == LockMode::kUnlessReadOnly && PLRNetCfgIsReadOnly(nullptr)) {
    ok = true;
    return;
  }
  ok = PLRNetCfgLockConfig(nullptr);
  if (!ok) PLRLog(LOG_ERR, function, "Failed to obtain lock on vnet config");
}

Api::Bracket::~Bracket() {
  if (ok) PLRNetCfgUnlockConfig(nullptr);
}

}  // namespace plr
