#include "core/frame.h"

#include "pelorus/netcfg.h"

namespace plr {

ApiFrame::ApiFrame(const char* function, int line) : function_(function) {
  PLRLog(LOG_INFO2, nullptr, "\n----------------------------------\nEntering API Function, %s:%d\n",
         function, line);
}

bool ApiFrame::Loaded() const {
  if (IsLoaded()) return true;
  PLRLog(LOG_ERR, function_, "Pelorus Un-Initialized. Aborting API Function: %s", function_);
  return false;
}

void ApiFrame::Args(const char* format, ...) const {
  va_list args;
  va_start(args, format);
  PLRVLog(LOG_ARGS, function_, format, args);
  va_end(args);
}

void ApiFrame::WriteExit(int line) const {
  PLRLog(LOG_INFO2, nullptr, "\nExiting API Function, %s:%d\n-----------\n", function_, line);
}

WriteBracket::WriteBracket(const char* function, LockMode mode) {
  if (mode == LockMode::kUnlessReadOnly && PLRNetCfgIsReadOnly(nullptr)) {
    ok_ = true;
    return;
  }
  ok_ = PLRNetCfgLockConfig(nullptr);
  if (!ok_) PLRLog(LOG_ERR, function, "Failed to obtain lock on vnet config");
}

WriteBracket::~WriteBracket() {
  if (ok_) PLRNetCfgUnlockConfig(nullptr);
}

}  // namespace plr
