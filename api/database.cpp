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
bool ImportOrMerge(const char* function, int line, const char* file, bool merge) {
  ApiFrame frame(function, line);
  PLOG_AS(function, LOG_INFO2, "pelorus is %sloaded", IsLoaded() ? "" : "not ");
  StandaloneSession session(function, true);
  if (session.failed()) return frame.Exit(false, __LINE__);
  frame.Args("Arguments - f: %p,%s", static_cast<const void*>(file), PLR_STR(file));
  if (file == nullptr) file = kDefaultExchangeFile;
  char path[PLR_PATH_SIZE];
  if (!DatabasePath(function, path)) return frame.Exit(false, __LINE__);
  if (!PLRFileExists(PLR_VNET_NONE, PLR_FILE_CUSTOM, file)) {
    PLOG_AS(function, LOG_ERR, "Import file does not exist");
    return frame.Exit(false, __LINE__);
  }
  const bool ok = merge ? PLRNetCfgMergeConfig(file) : PLRNetCfgImportConfig(file, path);
  if (ok)
    PLOG_AS(function, LOG_OK, "Imported configration data from backup file: %s", file);
  else
    PLOG_AS(function, LOG_ERR, "Failed to import configuration data from backup file: %s", file);
  return frame.Exit(ok, __LINE__);
}

// One service of the runtime checks of a vnet deletion, with the two
// spellings of its name that the lines use.
struct ServiceCheck {
  uint32_t service;
  const char* lowerName;  // "Cannot determine status of %s service ..."
  const char* name;       // "%s service is ..."
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
      PLOG_AS(fn, LOG_ERR, "Cannot determine status of %s service on vnet: %s", check.lowerName,
              name);
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

// Logs one removal step's outcome (texts formatted by the caller) and
// folds it into `all`.
void Step(const char* fn, bool ok, bool* all, const std::string& success,
          const std::string& failure) {
  if (ok) {
    PLOG_AS(fn, LOG_INFO, "%s", success.c_str());
  } else {
    PLOG_AS(fn, LOG_ERR, "%s", failure.c_str());
    *all = false;
  }
}

// Every removal of a vnet deletion, in order; each is tried whatever the
// earlier ones gave.
bool RemoveVnetConfiguration(const char* fn, uint32_t vnet, const char* name, bool readOnly) {
  bool all = true;
  Step(fn, PLRRemoveBridgeMappingsForVnet(vnet), &all,
       StrPrintf("Removed bridge mappings for vnet: %s", name),
       StrPrintf("Falied to remove brige mappings for vnet: %s", name));
  Step(fn, PLRSetVnetUseDHCP(vnet, false, true), &all, StrPrintf("Removed DHCP on vnet: %s", name),
       StrPrintf("Removing NAT failed on vnet: %s, current status unknown", name));
  if (!readOnly)
    Step(fn, PLRDHCPUpdateFromConfig(vnet), &all,
         StrPrintf("Removed DHCP system configuraiton file, for vnet: %s", name),
         StrPrintf("Failed to remove DHCP system configuraiton file, for vnet: %s", name));
  Step(fn, PLRSetVnetUseNAT(vnet, false, true), &all, StrPrintf("Removed NAT on vnet: %s", name),
       StrPrintf("Removing NAT failed on vnet: %s, current status unknown", name));
  if (!readOnly)
    Step(fn, PLRNATUpdateFromConfig(vnet), &all,
         StrPrintf("Removed NAT system configuration file, for vnet: %s", name),
         StrPrintf("Failed to remove NAT system configuraiton file, for vnet: %s", name));
  Step(fn, PLRSetVnetUseAdapter(vnet, false, true), &all,
       StrPrintf("Removed Adapter from vnet: %s", name),
       "Failed to delete adapter from configuration");
  Step(fn, PLRRemoveSubnetAssignment(vnet), &all,
       StrPrintf("Removed subnet assignment for vnet: %s", name),
       "Failed to delete subnet assignment");
  if (!PLRRemoveFile(vnet, PLR_FILE_KAVIX_DEVICE, nullptr)) {
    PLOG_AS(fn, LOG_ERR, "Failed to delete kavix device");
    all = false;
  }
  return all;
}

}  // namespace
}  // namespace plr

extern "C" {

// Creates a new database while the library is not loaded.
bool PLR_CreateNetworkingDB(bool overwrite) {
  using namespace plr;
  ApiFrame frame(__func__, __LINE__);
  StandaloneSession session(__func__, true);
  if (session.failed()) PLR_RETURN(frame, false);
  char path[PLR_PATH_SIZE];
  if (!DatabasePath(__func__, path)) PLR_RETURN(frame, false);
  if (IsLoaded()) {
    PLOG(LOG_ERR, "%s", kLoadedRefusal);
    PLR_RETURN(frame, false);
  }
  bool ok;
  if (!PLRFileExists(PLR_VNET_NONE, PLR_FILE_CUSTOM, path)) {
    ok = PLRNetCfgCreateDB(path, false);
    if (ok)
      PLOG(LOG_OK, "Created and initialized networking configuration database: %s", path);
    else
      PLOG(LOG_ERR, "Failed to create/initialize database file: %s", path);
  } else if (!overwrite) {
    PLOG(LOG_ERR,
         "Existing networking configuration database must be deleted before creating new one");
    PLR_RETURN(frame, false);
  } else {
    ok = OverwriteDatabase(__func__, path);
  }
  PLR_RETURN(frame, ok);
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

// Removes the database file while the library is not loaded.
bool PLR_DeleteNetworkingDB(void) {
  using namespace plr;
  ApiFrame frame(__func__, __LINE__);
  if (IsLoaded()) {
    PLOG(LOG_ERR, "%s", kLoadedRefusal);
    return false;
  }
  char path[PLR_PATH_SIZE];
  if (!DatabasePath(__func__, path)) return false;
  const bool ok = PLRRemoveFile(PLR_VNET_NONE, PLR_FILE_CUSTOM, path);
  // The closing line repeats the entry line, with this line's number.
  ApiFrame closing(__func__, __LINE__);
  return ok;
}

// The default database as NUL-terminated text; the caller frees it.
char* PLR_ExportDatabaseToBuffer(void) {
  using namespace plr;
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return nullptr;
  char* buffer = nullptr;
  if (!PLRNetCfgExportConfigToBuffer(nullptr, &buffer, false, true)) {
    PLOG(LOG_ERR, "Failed to export configuration database to buffer");
    free(buffer);
    PLR_RETURN(frame, static_cast<char*>(nullptr));
  }
  PLOG(LOG_OK, "Exported configuration database to buffer");
  PLR_RETURN(frame, buffer);
}

// Writes the default database as a backup file.
bool PLR_ExportDatabaseToFile(const char* file) {
  using namespace plr;
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  frame.Args("Arguments - f: %p,%s", static_cast<const void*>(file), PLR_STR(file));
  if (file == nullptr) file = kDefaultExchangeFile;
  const bool ok = WithWriteLock(__func__, [&] {
    if (!PLRNetCfgExportConfig(nullptr, file, 0)) {
      PLOG_AS("PLR_ExportDatabaseToFile", LOG_ERR,
              "Failed to export configuration database to backup file:%s", file);
      return false;
    }
    PLOG_AS("PLR_ExportDatabaseToFile", LOG_OK,
            "Exported configuration database to backup file: %s", file);
    return true;
  });
  PLR_RETURN(frame, ok);
}

bool PLR_ImportDatabaseFromFile(const char* file) {
  return plr::ImportOrMerge(__func__, __LINE__, file, false);
}

bool PLR_MergeDatabaseFromFile(const char* file) {
  return plr::ImportOrMerge(__func__, __LINE__, file, true);
}

// Removes every trace of one vnet's configuration, refusing while anything
// of it runs.
bool PLR_DeleteVnetFromDatabase(const char* vnetName) {
  using namespace plr;
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  frame.Args("Arguments - v: %p,%s", static_cast<const void*>(vnetName), PLR_STR(vnetName));
  if (vnetName == nullptr) {
    PLOG(LOG_ERR, "Invalid argument - kavix: %p", static_cast<const void*>(vnetName));
    PLR_RETURN(frame, false);
  }
  uint32_t vnet = PLR_VNET_NONE;
  if (!api::VnetNumber(__func__, vnetName, &vnet)) PLR_RETURN(frame, false);
  const bool readOnly = PLRNetCfgIsReadOnly(nullptr);
  if (!readOnly && !NothingRunsOn(__func__, vnet, vnetName)) PLR_RETURN(frame, false);
  const bool ok = WithWriteLock(__func__, [&] {
    const char* fn = "PLR_DeleteVnetFromDatabase";
    const bool all = RemoveVnetConfiguration(fn, vnet, vnetName, readOnly);
    if (all)
      PLOG_AS(fn, LOG_OK, "Vnet: %s is successfully unconfigured", vnetName);
    else
      PLOG_AS(fn, LOG_ERR,
              "Not able to delete some configration information for one/more of the services "
              "for vnet: %s",
              vnetName);
    return all;
  });
  PLR_RETURN(frame, ok);
}

}  // extern "C"
