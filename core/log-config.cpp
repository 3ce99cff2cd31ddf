// The log settings: the default mask and the log path persist as answers of
// the networking database ("PLR_LOGLEVEL", "PLR_LOG_FILE") and take effect at
// the next load; the mask in force lives in plrContext and changes at once.
#include <stdio.h>
#include <string.h>

#include "core/frame.h"
#include "pelorus/core.h"
#include "pelorus/netcfg.h"

namespace plr {
namespace {

constexpr const char* kLogLevelKey = "PLR_LOGLEVEL";
constexpr const char* kLogFileKey = "PLR_LOG_FILE";

}  // namespace
}  // namespace plr

extern "C" {

// The stored default mask; the built-in default when it is absent, is not a
// number or is negative, so a damaged answer never silences the log.
uint32_t PLRGetVnetCfgLogLevel(void) {
  int32_t level = 0;
  if (!PLRNetCfgGetAnswerInt32(nullptr, plr::kLogLevelKey, &level) || level < 0) {
    return PLR_LOG_DEFAULT_LEVEL;
  }
  return static_cast<uint32_t>(level);
}

// Stores the default mask as "0x%x" text, written through like any answer.
bool PLRSetVnetCfgLogLevel(int level) {
  char text[11];
  snprintf(text, sizeof text, "0x%x", static_cast<unsigned>(level));
  return PLRNetCfgAddAnswerString(nullptr, plr::kLogLevelKey, text);
}

// Copies the configured log path with its terminator; false when none is
// configured or it does not fit `size` bytes.
bool PLRGetLogPath(char* buffer, size_t size) {
  const char* path = nullptr;
  if (buffer == nullptr || !PLRNetCfgGetAnswerString(nullptr, plr::kLogFileKey, &path) ||
      path == nullptr) {
    return false;
  }
  size_t length = strlen(path);
  if (length >= size) return false;
  memcpy(buffer, path, length + 1);
  return true;
}

// Stores a new default mask for the next load; the mask in force is left
// alone. Masks with bits above the highest level are refused.
bool PLR_SetDefaultLogLevel(unsigned level) {
  return plr::ApiCall(__func__, [&](plr::Api& c) {
    c.Args("Arguments - level: 0x%x", level);
    if (level > PLR_LOG_MAX_LEVEL)
      return c.Fail("Invalid log level: %x, max log level: %x", level, PLR_LOG_MAX_LEVEL);
    bool locked = false;
    bool ok = c.Locked([&] {
      locked = true;
      return PLRSetVnetCfgLogLevel(static_cast<int>(level));
    });
    if (!locked) return false;  // the failed lock is the one line
    return c.Outcome(ok, "Default log level set to: 0x%x", "Failed to set default log level: 0x%x",
                     level);
  });
}

// The stored default mask; 0 when the library is not loaded.
uint32_t PLR_GetDefaultLogLevel(void) {
  return plr::ApiCall(__func__, [](plr::Api&) { return PLRGetVnetCfgLogLevel(); });
}

// Sets the mask in force. Works loaded or not and logs nothing, so a caller
// can silence the library (0) or open every level before loading it.
bool PLR_SetCurrentLogLevel(unsigned level) {
  plrContext.currentLevel = level;
  return true;
}

// The mask in force.
uint32_t PLR_GetCurrentLogLevel(void) {
  return plrContext.currentLevel;
}

}  // extern "C"
