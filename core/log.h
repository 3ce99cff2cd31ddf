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
inline bool IsLoaded() { return plrContext.loadCount != 0; }

}  // namespace plr

// Logs under the calling function's name: PLOG(LOG_ERR, "Invalid vnet name: %s", name).
#define PLOG(level, ...) PLRLog(::plr::level, __func__, __VA_ARGS__)
// Logs under an explicit name (for lambdas and helpers speaking for a caller).
#define PLOG_AS(name, level, ...) PLRLog(::plr::level, (name), __VA_ARGS__)

// The trace lines that internal service functions write around their work.
#define PLOG_ENTER() PLOG(LOG_INFO2, " Entering Function, %s:%d", __func__, __LINE__)
#define PLOG_EXIT() PLOG(LOG_INFO2, " Exiting Function, %s:%d", __func__, __LINE__)

// Text of a possibly missing string argument in log lines.
#define PLR_STR(s) ((s) != nullptr ? (s) : "null")
