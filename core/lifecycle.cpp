// Load and unload of the library with their reference count, the version
// query, the raw answer functions, the network-ID check and the file
// bookkeeping hooks. The load count in plrContext is the one "loaded" test of
// the whole library; only PLR_Load and PLR_Unload2 change it.
#include <errno.h>
#include <string.h>

#include "base/fd-util.h"
#include "base/sys-util.h"
#include "core/frame.h"
#include "pelorus/core.h"
#include "pelorus/files.h"
#include "pelorus/netcfg.h"
#include "pelorus/vnet.h"

namespace plr {
namespace {

constexpr const char* kDefaultLogPath = "/var/log/pelorus";
// Close-on-exec ("e"), so the daemons the library starts do not inherit it.
constexpr const char* kLogMode = "ab+e";
// The mask in force while no log file is open: no defined level bit is set.
constexpr uint32_t kNoLevelMask = 0xFFFFFF80u;

// Replaces the log stream with `stream` (which may be null), closing the one
// in use. The context owns the stream from here until the last unload.
void ReplaceLogStream(FILE* stream) {
  UniqueFile old(plrContext.logStream);
  plrContext.logStream = stream;
}

// Opens the default log file as the stream in force and sets the first mask:
// the default levels when it opened, none when it did not. A stream left open
// by an earlier failed load is closed here rather than leaked.
void OpenDefaultLog() {
  ReplaceLogStream(sys::fopen(kDefaultLogPath, kLogMode));
  plrContext.currentLevel = plrContext.logStream != nullptr ? PLR_LOG_DEFAULT_LEVEL : kNoLevelMask;
}

// Switches to the log file configured in the database, when there is one
// that differs from the default; keeps the current stream when it cannot be
// opened, logging that under `function`. A path that does not fit the
// 256-byte buffer counts as none.
void SwitchToConfiguredLog(const char* function) {
  char path[PLR_PATH_SIZE];
  if (!PLRGetLogPath(path, sizeof path) || strcmp(path, kDefaultLogPath) == 0) return;
  FILE* stream = sys::fopen(path, kLogMode);
  if (stream == nullptr) {
    PLOG_AS(function, LOG_ERR, "fopen: opening log file: %s failed, error: %s", path,
            strerror(errno));
    return;
  }
  ReplaceLogStream(stream);
}

// One line at every level under `function`, so the log shows at a glance
// which levels are on.
void WriteLevelTestLines(const char* function, const char* dbPath) {
  PLOG_AS(function, LOG_ERR, "LOG_ERR logged");
  PLOG_AS(function, LOG_ERRCMN, "LOG_ERRCMN logged");
  PLOG_AS(function, LOG_WRN, "LOG_WRN logged");
  PLOG_AS(function, LOG_OK, "LOG_OK logged");
  PLOG_AS(function, LOG_INFO, "LOG_INFO logged");
  PLOG_AS(function, LOG_INFO2, "LOG_INFO2 logged");
  PLOG_AS(function, LOG_ARGS, "LOG_ARGS logged");
  PLOG_AS(function, LOG_INFO, "Config file used: %s", dbPath);
}

// The check shared by the raw answer functions, which run without the API
// frame: loaded, and every pointer argument present.
bool AnswerCallAllowed(const char* function, bool argumentsPresent) {
  if (!IsLoaded()) {
    PLOG_AS(function, LOG_ERR, "Pelorus Un-Initialized, Aborting\n");
    return false;
  }
  if (!argumentsPresent) {
    PLOG_AS(function, LOG_ERR, "Invalid argument");
    return false;
  }
  return true;
}

}  // namespace
}  // namespace plr

extern "C" {

// Loads the default database cache and sets up logging on the first call;
// later calls only count up. A failed load leaves the count at 0 with the
// cache released, but keeps the log stream it opened as the stream in force.
bool PLR_Load(int readOnly) {
  if (plrContext.loadCount != 0) {
    ++plrContext.loadCount;
    PLOG(LOG_INFO, "pelorus is already loaded");
    return true;
  }
  char dbPath[PLR_PATH_SIZE];
  if (!PLRGetFileName(PLR_VNET_NONE, PLR_FILE_NETWORKING, dbPath, sizeof dbPath)) {
    PLOG(LOG_ERR, "Failed to get the path of networking DB file");
    return false;
  }
  plr::OpenDefaultLog();
  return plr::ApiCall(__func__, plr::kAnyState, [&](plr::Api& c) {
    if (!PLRNetCfgLoad(dbPath, nullptr, false, readOnly != 0)) {
      c.Log(plr::LOG_ERR, "Error loading the vnet configuration, file used: %s", dbPath);
    } else if (!PLRFileDirBookkeepingDBLoad()) {
      c.Log(plr::LOG_ERR, "Failed to load the file creation database");
    } else {
      plrContext.currentLevel = PLRGetVnetCfgLogLevel();
      plr::SwitchToConfiguredLog(c.function());
      plr::WriteLevelTestLines(c.function(), dbPath);
      // Only primes the cache: an invalid stored value is logged there and
      // does not fail the load.
      PLRGetDefaultBridgeVnet(nullptr);
      ++plrContext.loadCount;
      c.Log(plr::LOG_OK, "Successfully initialized Pelorus");
      return true;
    }
    // Undo of a partial load: the cache without compaction, then the bookkeeping.
    PLRNetCfgUnload(nullptr, false);
    PLRFileDirBookkeepingDBUnload();
    return false;
  });
}

// Counts one load down; the last one releases the default cache (compacting
// the database file when `compact` is set and it was modified), the
// bookkeeping and the log stream. Unloading while not loaded only logs.
void PLR_Unload2(int compact) {
  plr::ApiCall(__func__, plr::kAnyState, [&](plr::Api& c) {
    if (plrContext.loadCount == 0) {
      c.Log(plr::LOG_INFO, "pelorus is not loaded");
    } else if (--plrContext.loadCount == 0) {
      PLRNetCfgUnload(nullptr, compact != 0);
      PLRFileDirBookkeepingDBUnload();
      c.Log(plr::LOG_OK, "Pelorus unloaded.");
      plr::ReplaceLogStream(nullptr);
    }
  });
}

// The usual unload: compacts the database file on the last unload.
void PLR_Unload(void) {
  PLR_Unload2(1);
}

// The interface version; callable at any time, logs nothing.
uint32_t PLR_Version(void) {
  return 0x10000u;
}

// Adds or replaces an answer of the default cache, written through to the file.
bool PLR_VnetCfgAddAnswer(const char* key, const char* value) {
  if (!plr::AnswerCallAllowed(__func__, key != nullptr && value != nullptr)) return false;
  return PLRNetCfgAddAnswerString(nullptr, key, value);
}

// Removes an answer of the default cache, written through to the file.
bool PLR_VnetCfgRemoveAnswer(const char* key) {
  if (!plr::AnswerCallAllowed(__func__, key != nullptr)) return false;
  return PLRNetCfgRemoveAnswer(nullptr, key);
}

// Points `*value` at the cached text of an answer; the caller must neither
// change nor free it, and it lives until the answer changes or the unload.
bool PLR_VnetCfgGetAnswer(const char* key, const char** value) {
  if (!plr::AnswerCallAllowed(__func__, key != nullptr && value != nullptr)) return false;
  return PLRNetCfgGetAnswerString(nullptr, key, value);
}

// Accepts a version-1 vnet network ID naming vnet 0..255 or no vnet (-1).
bool PLRValidateNetIDStruct(const PLR_NetworkID* netId) {
  if (netId == nullptr) {
    PLOG(LOG_ERR, "Invalid argument");
    return false;
  }
  if (netId->version != PLR_NETID_VERSION) {
    PLOG(LOG_ERR, "Unsupported network ID version: %u", netId->version);
    return false;
  }
  if (netId->netType != PLR_NETID_TYPE_VNET) {
    PLOG(LOG_ERR, "Non vnet network not supported");
    return false;
  }
  if (netId->vnet == PLR_VNET_NONE || netId->vnet < PLR_MAX_VNETS) return true;
  PLOG(LOG_ERR, "Invalid vnet number: %d", static_cast<int>(netId->vnet));
  return false;
}

// The file bookkeeping hooks are kept for interface stability only: callers
// reach them at every create and remove, and they always succeed.
bool PLRFileDirBookkeepingDBLoad(void) {
  return true;
}
bool PLRFileDirBookkeepingDBUnload(void) {
  return true;
}
bool PLRRecordFileCreation(const char* /*path*/, const char* /*mtime*/) {
  return true;
}
bool PLRRecordDirectoryCreation(const char* /*path*/) {
  return true;
}
bool PLRRecordFileDeletion(const char* /*path*/) {
  return true;
}
bool PLRRecordDirectoryDeletion(const char* /*path*/) {
  return true;
}

}  // extern "C"
