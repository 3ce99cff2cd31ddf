// The database API: create, test, delete, export, import and merge the
// networking database as a whole, and remove one vnet's whole configuration.
// Several of these run before the library is loaded (installers, tools);
// they then open the log file themselves for the length of the call.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "api/api-util.h"
#include "base/fd-util.h"
#include "base/str-util.h"
#include "base/sys-util.h"
#include "core/frame.h"
#include "core/log.h"
#include "netcfg/whole-db.h"
#include "pelorus/bridge.h"
#include "pelorus/dbapi.h"
#include "pelorus/files.h"
#include "pelorus/netcfg.h"
#include "pelorus/services.h"
#include "pelorus/svcfiles.h"
#include "pelorus/vnet.h"

namespace plr {
namespace {

constexpr const char* kStandaloneLogPath = "/var/log/pelorus";
constexpr uint32_t kStandaloneLogLevel = PLR_LOG_ERR | PLR_LOG_WRN | PLR_LOG_OK;  // 25
constexpr const char* kDefaultExchangeFile = "/tmp/networking_export";

// While the library is not loaded: the bookkeeping database and a log stream
// of the call's own, both released when the scope ends. Does nothing while
// the library is loaded.
class StandaloneSession {
 public:
  StandaloneSession(const char* function, bool withBookkeeping)
      : active_(!IsLoaded()), bookkeeping_(withBookkeeping) {
    if (!active_) return;
    savedStream_ = plrContext.logStream;
    savedLevel_ = plrContext.currentLevel;
    if (bookkeeping_ && !PLRFileDirBookkeepingDBLoad()) {
      PLOG_AS(function, LOG_ERR, "Failed to load the file creation database");
      failed_ = true;
      return;
    }
    plrContext.logStream = sys::fopen(kStandaloneLogPath, "ab+e");
    plrContext.currentLevel = kStandaloneLogLevel;
  }
  StandaloneSession(const StandaloneSession&) = delete;
  StandaloneSession& operator=(const StandaloneSession&) = delete;
  ~StandaloneSession() {
    if (!active_ || failed_) return;
    if (bookkeeping_) PLRFileDirBookkeepingDBUnload();
    if (plrContext.logStream != nullptr) fclose(plrContext.logStream);
    // A stream some caller set up while the library was unloaded comes back.
    plrContext.logStream = savedStream_;
    plrContext.currentLevel = savedLevel_;
  }

  bool failed() const { return failed_; }

 private:
  bool active_;
  bool bookkeeping_;
  bool failed_ = false;
  FILE* savedStream_ = nullptr;
  uint32_t savedLevel_ = 0;
};

// The path of the networking database; logs under `function` on failure.
bool DatabasePath(const char* function, char (&path)[PLR_PATH_SIZE]) {
  if (PLRGetFileName(PLR_VNET_NONE, PLR_FILE_NETWORKING, path, sizeof path)) return true;
  PLOG_AS(function, LOG_ERR, "Failed to get the path of networking DB file");
  return false;
}

constexpr const char* kLoadedRefusal =
    "pelorus is initialized, unload the data structures and delete existing networking "
    "configuration database before creating new one";

// Moves the existing database to the first free "<path>.bak.<n>" and writes
// a new one; the old one comes back when the creation fails.
bool OverwriteDatabase(const char* function, const char* path) {
  std::string backup;
  if (!NetCfgMoveToBackupCopy(function, path, NetCfgBackupName::kFirstFree, &backup)) return false;
  PLOG_AS(function, LOG_INFO2, "Existing database will be overwritten");
  if (PLRNetCfgCreateDB(path, false)) {
    PLOG_AS(function, LOG_OK, "Created and initialized networking configuration database: %s",
            path);
    return true;
  }
  PLOG_AS(function, LOG_ERR, "Failed to create/initialize database file: %s", path);
  NetCfgRestoreBackupCopy(function, backup, path);
  return false;
}

// The shape shared by import and merge; `merge` selects the operation.
bool ImportOrMerge(Api& c, const char* file, bool merge) {
  c.Log(LOG_INFO2, "pelorus is %sloaded", IsLoaded() ? "" : "not ");
  StandaloneSession session(c.function(), true);
  // The exit line goes to the session's log stream, before it is closed.
  ScopeExit exitFirst([&] { c.Exit(); });
  if (session.failed()) return false;
  c.Args("Arguments - f: %p,%s", static_cast<const void*>(file), PLR_STR(file));
  if (file == nullptr) file = kDefaultExchangeFile;
  char path[PLR_PATH_SIZE];
  if (!DatabasePath(c.function(), path)) return false;
  if (!PLRFileExists(PLR_VNET_NONE, PLR_FILE_CUSTOM, file))
    return c.Fail("Import file does not exist");
  const bool ok = merge ? PLRNetCfgMergeConfig(file) : PLRNetCfgImportConfig(file, path);
  return c.Outcome(ok, "Imported configration data from backup file: %s",
                   "Failed to import configuration data from backup file: %s", file);
}

// One service of the runtime checks of a vnet deletion, with its names in
// the unknown-status line and in the others.
struct ServiceCheck {
  uint32_t service;
  const char* lower;
  const char* name;
};
constexpr ServiceCheck kDeletionChecks[] = {
    {PLR_SERVICE_BRIDGE, "bridge", "Bridge"},
    {PLR_SERVICE_DHCP, "DHCP", "DHCP"},
    {PLR_SERVICE_NAT, "NAT", "NAT"},
    {PLR_SERVICE_NETIFUP, "NETIFUP", "NETIFUP"},
};

// Refuses a deletion while anything of the vnet runs on the host: any of
// the four services (all are checked and logged) or its host-only adapter.
bool NothingRunsOn(const char* fn, uint32_t vnet, const char* name) {
  bool running = false;
  for (const ServiceCheck& check : kDeletionChecks) {
    const uint32_t status = PLRServiceStatus(vnet, check.service);
    if (status == PLR_SERVICE_STATUS_UNKNOWN) {
      PLOG_AS(fn, LOG_ERR, "Cannot determine status of %s service on vnet: %s", check.lower, name);
      return false;
    }
    if (status == PLR_SERVICE_RUNNING) {
      PLOG_AS(fn, LOG_ERR,
              "%s service is still running on this vnet Cannot delete config information",
              check.name);
      running = true;
    } else {
      PLOG_AS(fn, LOG_INFO2, "%s service is not running on vnet: %s", check.name, name);
    }
  }
  char adapter[16];
  if (!PLRGetVnetVirtAdapter(vnet, adapter, sizeof adapter)) {
    PLOG_AS(fn, LOG_ERR, "Failed to get the name of the hostonly adapter for vnet: %s", name);
    return false;
  }
  const uint32_t status = PLRAdapterStatus(adapter);
  if (status == PLR_ADAPTER_STATUS_ERROR) {
    PLOG_AS(fn, LOG_ERR, "Could not determine status of hostonly adapter for vnet: %s", name);
    return false;
  }
  if (status != PLR_ADAPTER_ABSENT) {
    PLOG_AS(fn, LOG_ERR,
            "Hostonly Adapter %s is still enabled on vnet: %s. Cannot delete config information",
            adapter, name);
    return false;
  }
  PLOG_AS(fn, LOG_INFO2, "Hostonly Adapter %s is disabled on vnet: %s", adapter, name);
  return !running;
}

// Every removal of a vnet deletion, in order; each is tried whatever the
// earlier ones gave.
bool RemoveVnetConfiguration(const char* fn, uint32_t vnet, const char* name, bool readOnly) {
  bool all = true;
  all &= LogOutcome(fn, PLRRemoveBridgeMappingsForVnet(vnet), LOG_INFO,
                    "Removed bridge mappings for vnet: %s",
                    "Falied to remove brige mappings for vnet: %s", name);
  all &= LogOutcome(fn, PLRSetVnetUseDHCP(vnet, false, true), LOG_INFO, "Removed DHCP on vnet: %s",
                    "Removing NAT failed on vnet: %s, current status unknown", name);
  if (!readOnly)
    all &= LogOutcome(fn, PLRDHCPUpdateFromConfig(vnet), LOG_INFO,
                      "Removed DHCP system configuraiton file, for vnet: %s",
                      "Failed to remove DHCP system configuraiton file, for vnet: %s", name);
  all &= LogOutcome(fn, PLRSetVnetUseNAT(vnet, false, true), LOG_INFO, "Removed NAT on vnet: %s",
                    "Removing NAT failed on vnet: %s, current status unknown", name);
  if (!readOnly)
    all &= LogOutcome(fn, PLRNATUpdateFromConfig(vnet), LOG_INFO,
                      "Removed NAT system configuration file, for vnet: %s",
                      "Failed to remove NAT system configuraiton file, for vnet: %s", name);
  all &= LogOutcome(fn, PLRSetVnetUseAdapter(vnet, false, true), LOG_INFO,
                    "Removed Adapter from vnet: %s",
                    FixedLine{"Failed to delete adapter from configuration"}, name);
  all &= LogOutcome(fn, PLRRemoveSubnetAssignment(vnet), LOG_INFO,
                    "Removed subnet assignment for vnet: %s",
                    FixedLine{"Failed to delete subnet assignment"}, name);
  if (!PLRRemoveFile(vnet, PLR_FILE_KAVIX_DEVICE, nullptr)) {
    PLOG_AS(fn, LOG_ERR, "Failed to delete kavix device");
    all = false;
  }
  return all;
}

}  // namespace
}  // namespace plr

using namespace plr;

extern "C" {

// Creates a new database while the library is not loaded.
bool PLR_CreateNetworkingDB(bool overwrite) {
  return ApiCall(__func__, kAnyState, [&](Api& c) {
    StandaloneSession session(c.function(), true);
    // The exit line goes to the session's log stream, before it is closed.
    ScopeExit exitFirst([&] { c.Exit(); });
    if (session.failed()) return false;
    char path[PLR_PATH_SIZE];
    if (!DatabasePath(c.function(), path)) return false;
    if (IsLoaded()) return c.Fail("%s", kLoadedRefusal);
    if (!PLRFileExists(PLR_VNET_NONE, PLR_FILE_CUSTOM, path))
      return c.Outcome(PLRNetCfgCreateDB(path, false),
                       "Created and initialized networking configuration database: %s",
                       "Failed to create/initialize database file: %s", path);
    if (!overwrite)
      return c.Fail(
          "Existing networking configuration database must be deleted before creating new one");
    return OverwriteDatabase(c.function(), path);
  });
}

// True when the database file exists.
bool PLR_NetworkingDBExists(void) {
  char path[PLR_PATH_SIZE];
  if (!plr::DatabasePath(__func__, path)) return false;
  return PLRFileExists(PLR_VNET_NONE, PLR_FILE_CUSTOM, path);
}

// True when the database file's version can be read by this library.
bool PLR_CanReadNetworkingDB(void) {
  plr::StandaloneSession session(__func__, false);
  char path[PLR_PATH_SIZE];
  if (!plr::DatabasePath(__func__, path)) return false;
  return PLRNetCfgCheckVersion(path);
}

// Removes the database file while the library is not loaded. This call
// writes no exit line; a removal attempt ends with a second entry line.
bool PLR_DeleteNetworkingDB(void) {
  return ApiCall(__func__, kAnyState, [&](Api& c) {
    c.SkipExit();
    if (IsLoaded()) return c.Fail("%s", kLoadedRefusal);
    char path[PLR_PATH_SIZE];
    if (!DatabasePath(c.function(), path)) return false;
    const bool ok = PLRRemoveFile(PLR_VNET_NONE, PLR_FILE_CUSTOM, path);
    Api(c.function(), __LINE__).SkipExit();
    return ok;
  });
}

// The default database as NUL-terminated text; the caller frees it.
char* PLR_ExportDatabaseToBuffer(void) {
  return ApiCall(__func__, [&](Api& c) -> char* {
    char* buffer = nullptr;
    if (!PLRNetCfgExportConfigToBuffer(nullptr, &buffer, false, true)) {
      c.Log(LOG_ERR, "Failed to export configuration database to buffer");
      free(buffer);
      return nullptr;
    }
    c.Log(LOG_OK, "Exported configuration database to buffer");
    return buffer;
  });
}

// Writes the default database as a backup file.
bool PLR_ExportDatabaseToFile(const char* file) {
  return ApiCall(__func__, [&](Api& c) {
    c.Args("Arguments - f: %p,%s", static_cast<const void*>(file), PLR_STR(file));
    if (file == nullptr) file = kDefaultExchangeFile;
    return c.Locked([&] {
      return c.Outcome(PLRNetCfgExportConfig(nullptr, file, 0),
                       "Exported configuration database to backup file: %s",
                       "Failed to export configuration database to backup file:%s", file);
    });
  });
}

bool PLR_ImportDatabaseFromFile(const char* file) {
  return ApiCall(__func__, kAnyState, [&](Api& c) { return ImportOrMerge(c, file, false); });
}

bool PLR_MergeDatabaseFromFile(const char* file) {
  return ApiCall(__func__, kAnyState, [&](Api& c) { return ImportOrMerge(c, file, true); });
}

// Removes every trace of one vnet's configuration, refusing while anything
// of it runs.
bool PLR_DeleteVnetFromDatabase(const char* vnetName) {
  return ApiCall(__func__, [&](Api& c) {
    c.Args("Arguments - v: %p,%s", static_cast<const void*>(vnetName), PLR_STR(vnetName));
    uint32_t vnet = PLR_VNET_NONE;
    if (!api::VnetArg(c, vnetName, &vnet, api::NameWording::kKavix)) return false;
    const bool readOnly = PLRNetCfgIsReadOnly(nullptr);
    if (!readOnly && !NothingRunsOn(c.function(), vnet, vnetName)) return false;
    return c.Locked([&] {
      return c.Outcome(RemoveVnetConfiguration(c.function(), vnet, vnetName, readOnly),
                       "Vnet: %s is successfully unconfigured",
                       "Not able to delete some configration information for one/more of the "
                       "services for vnet: %s",
                       vnetName);
    });
  });
}

}  // extern "C"
