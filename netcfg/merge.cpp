// Merge: another database file is brought into the running system vnet by
// vnet. The vnets whose settings differ have their daemons stopped, the
// database replaced, their service files regenerated and their daemons
// started again; a failure puts the old file and the old daemons back. This
// is the only database code that drives services, service files and adapters.
#include <errno.h>
#include <string.h>
#include <strings.h>

#include <iterator>
#include <string>
#include <vector>

#include "base/fs-util.h"
#include "base/str-util.h"
#include "base/sys-util.h"
#include "core/log.h"
#include "netcfg/whole-db.h"
#include "pelorus/dbapi.h"
#include "pelorus/services.h"
#include "pelorus/svcfiles.h"
#include "pelorus/vnet.h"

namespace plr {
namespace {

// True when vnet `vnet`'s answers differ between the default cache and
// `newCache` (compared field by field, case-insensitively), or its port
// forwards do.
bool VnetSettingsDiffer(PLRNetworkConfigurationDB* newCache, uint32_t vnet, const char* function) {
  for (const char* field : kNetCfgKnownVnetFields) {
    const std::string key = StrPrintf("VNET_%d_%s", static_cast<int>(vnet), field);
    const char* oldValue = nullptr;
    const char* newValue = nullptr;
    const bool hasOld = PLRNetCfgGetAnswerString(nullptr, key.c_str(), &oldValue);
    const bool hasNew = PLRNetCfgGetAnswerString(newCache, key.c_str(), &newValue);
    if (hasOld) PLOG_AS(function, LOG_INFO2, "Key: %s OldValue: %s ", key.c_str(), oldValue);
    if (hasNew) PLOG_AS(function, LOG_INFO2, "Key: %s NewValue: %s", key.c_str(), newValue);
    if (hasOld && hasNew) {
      if (strcasecmp(oldValue, newValue) != 0) return true;
    } else if (hasOld) {
      // A file without the DHCP configuration hash changes nothing.
      if (strcmp(field, "DHCP_CFG_HASH") != 0) return true;
    } else if (hasNew) {
      return true;
    }
  }
  return PLRNetCfgMergeConfigPortFwdCmp(newCache, vnet);
}

// The order in which a changed vnet's services are stopped.
constexpr uint32_t kStopOrder[] = {PLR_SERVICE_BRIDGE, PLR_SERVICE_NAT, PLR_SERVICE_DHCP,
                                   PLR_SERVICE_NETIFUP};

// One changed vnet of a merge and the services that ran on it before.
struct ChangedVnet {
  uint32_t vnet;
  bool wasRunning[5] = {};  // indexed by service ID
};

// Stops the running services of a changed vnet, noting which ran.
bool StopVnetServices(ChangedVnet& changed, const char* function) {
  const int v = static_cast<int>(changed.vnet);
  for (uint32_t service : kStopOrder) {
    if (PLRServiceStatus(changed.vnet, service) != PLR_SERVICE_RUNNING) continue;
    changed.wasRunning[service] = true;
    if (PLRServiceStop(changed.vnet, service)) continue;
    switch (service) {
      case PLR_SERVICE_BRIDGE:
        PLOG_AS(function, LOG_ERR, "Failed to stop BRIDGE service for vnet: %d", v);
        break;
      case PLR_SERVICE_NAT:
        PLOG_AS(function, LOG_ERR, "Failed to stop NAT service for vnet: %d", v);
        break;
      case PLR_SERVICE_DHCP:
        PLOG_AS(function, LOG_ERR, "Failed to stop DHCP service for vnet: %d", v);
        break;
      default:
        PLOG_AS(function, LOG_ERR, "Failed to stop NETIFUP service for vnet: %d", v);
        break;
    }
    return false;
  }
  return true;
}

// Regenerates a changed vnet's service files and starts what its settings
// call for: bridge, netifup and the host-only adapter, DHCP, NAT.
bool StartVnetServices(uint32_t vnet, const char* function) {
  const int v = static_cast<int>(vnet);
  if (!PLRDHCPUpdateFromConfig(vnet)) {
    PLOG_AS(function, LOG_ERR, "Failed to update DHCP config for vnet: %d", v);
    return false;
  }
  if (!PLRNATUpdateFromConfig(vnet)) {
    PLOG_AS(function, LOG_ERR, "Failed to update NAT config for vnet: %d", v);
    return false;
  }
  if (PLRVnetIsOptionConfigured(vnet, PLR_VNET_OPTION_BRIDGE) &&
      !PLRServiceStart(vnet, PLR_SERVICE_BRIDGE)) {
    PLOG_AS(function, LOG_ERR, "Failed to start BRIDGE service for vnet: %d", v);
    return false;
  }
  if (PLRVnetIsOptionConfigured(vnet, PLR_VNET_OPTION_VIRTUAL_ADAPTER)) {
    if (!PLRServiceStart(vnet, PLR_SERVICE_NETIFUP)) {
      PLOG_AS(function, LOG_ERR, "Failed to start NETIFUP service for vnet: %d", v);
      return false;
    }
    if (!PLRVirtAdapterEnable(vnet)) {
      PLOG_AS(function, LOG_ERR, "Failed to enable hostonly adapter on vnet: %d", v);
      return false;
    }
  }
  if (PLRVnetIsOptionConfigured(vnet, PLR_VNET_OPTION_DHCP) &&
      !PLRServiceStart(vnet, PLR_SERVICE_DHCP)) {
    PLOG_AS(function, LOG_ERR, "Failed to start DHCP service for vnet: %d", v);
    return false;
  }
  if (PLRVnetIsOptionConfigured(vnet, PLR_VNET_OPTION_NAT) &&
      !PLRServiceStart(vnet, PLR_SERVICE_NAT)) {
    PLOG_AS(function, LOG_ERR, "Failed to start NAT service for vnet: %d", v);
    return false;
  }
  return true;
}

// Puts a changed vnet's daemons back as they were before the merge, from the
// restored settings: files regenerated, services that ran restarted, and
// services the merge started but that did not run stopped.
void RestoreVnetServices(const ChangedVnet& changed, const char* function) {
  const uint32_t vnet = changed.vnet;
  PLRDHCPUpdateFromConfig(vnet);
  PLRNATUpdateFromConfig(vnet);
  for (auto it = std::rbegin(kStopOrder); it != std::rend(kStopOrder); ++it) {
    const uint32_t service = *it;
    const bool ok = changed.wasRunning[service]
                        ? PLRRestartService(vnet, service, nullptr, nullptr, true)
                        : PLRServiceStatus(vnet, service) != PLR_SERVICE_RUNNING ||
                              PLRServiceStop(vnet, service);
    if (!ok)
      PLOG_AS(function, LOG_ERR, "Failed to restore service: %u on vnet: %d, during error handling",
              service, static_cast<int>(vnet));
  }
}

// What a merge did so far, for its rollback.
struct MergeState {
  const char* function = nullptr;
  std::string databasePath;
  bool defaultWasReadOnly = false;
  std::string restorePoint;
  FileBytes oldDatabase;  // the database file's bytes before the merge
  std::vector<ChangedVnet> changed;
  size_t touched = 0;  // changed vnets whose services were stopped
  bool databaseReplaced = false;
};

// Undoes a merge: the database file gets its old bytes back, the default
// cache is loaded from it, the touched vnets' daemons are put back, and the
// restore point goes once the database is as before. Nothing of a failed
// merge stays behind.
void RollBackMerge(const MergeState& s) {
  bool restored = true;
  if (s.databaseReplaced) {
    // The default cache holds the merged settings when their reload worked.
    if (netCfgDefaultCache != nullptr) PLRNetCfgUnload(nullptr, false);
    restored = ReplaceFileAtomically(s.databasePath.c_str(), s.oldDatabase.view(), 0600);
    if (restored)
      PLOG_AS(s.function, LOG_INFO, "Restored config from backup file: %s", s.restorePoint.c_str());
    else
      PLOG_AS(s.function, LOG_ERR,
              "Failed to restore database file during error handling from: %s to %s",
              s.restorePoint.c_str(), s.databasePath.c_str());
  }
  if (!PLRNetCfgLoad(s.databasePath.c_str(), nullptr, false, s.defaultWasReadOnly))
    PLOG_AS(s.function, LOG_ERR,
            "Failed to restore the default database cache, during error handling");
  for (size_t i = s.touched; i-- > 0;) RestoreVnetServices(s.changed[i], s.function);
  // A database that could not be put back keeps its restore point.
  if (restored) sys::unlink(s.restorePoint.c_str());
}

// Replaces the database file by the contents of `db` (temporary file beside
// it, renamed over it) and loads the default cache from it again. The old
// bytes are kept for the rollback.
bool InstallMergedDatabase(PLRNetworkConfigurationDB* db, MergeState& s) {
  const char* path = s.databasePath.c_str();
  if (!ReadWholeFile(path, &s.oldDatabase)) {
    PLOG_AS(s.function, LOG_ERR, "Failed to read database file: %s, error: %s", path,
            strerror(errno));
    return false;
  }
  PendingFile file;
  if (!NetCfgWriteDatabaseFile(db, &file, path, 0600, false)) {
    PLOG_AS(s.function, LOG_ERR, "Failed to write to database file: %s", path);
    return false;
  }
  PLRNetCfgUnload(nullptr, false);
  // A failed directory sync after the rename is not undone: the new file
  // is complete, only its name may not be durable yet.
  if (!file.Commit() && !file.committed()) {
    PLOG_AS(s.function, LOG_ERR, "Failed to write to database file: %s", path);
    return false;
  }
  s.databaseReplaced = true;
  PLOG_AS(s.function, LOG_ERR, "Reopened database file: %s", path);
  if (!PLRNetCfgLoad(path, nullptr, false, s.defaultWasReadOnly)) {
    PLOG_AS(s.function, LOG_ERR, "Failed to reload the default database cache");
    return false;
  }
  return true;
}

// Exports the default cache as a backup file beside the database: the
// restore point, removed when the merge ends. It is named as a temporary of
// "<database>.merge" (".networking.merge.XXXXXX"), a shape no compaction's
// temporary has, so the cleanup after a killed compaction never takes it.
bool WriteRestorePoint(MergeState& s) {
  PendingFile file;
  const std::string namedAfter = s.databasePath + ".merge";
  const bool written =
      NetCfgWriteDatabaseFile(netCfgDefaultCache, &file, namedAfter.c_str(), 0600, true);
  s.restorePoint = file.tempPath();
  if (!written) {
    PLOG_AS(s.function, LOG_ERR, "Failed to create backup file: %s", s.restorePoint.c_str());
    return false;
  }
  file.Keep();
  return true;
}

}  // namespace
}  // namespace plr

using plr::netCfgDefaultCache;

extern "C" {

// Brings another database file into the running system vnet by vnet.
bool PLRNetCfgMergeConfig(const char* path) {
  using namespace plr;
  if (netCfgDefaultCache == nullptr) {
    PLOG(LOG_ERR,
         "Database needs to be loaded using PLR_Load beforecalling PLRNetCfgMergeConfig()");
    return false;
  }
  NetCfgPrivateCache merged;
  if (path == nullptr || !PLRNetCfgLoad(path, merged.out(), true, true)) {
    PLOG(LOG_ERR, "Failed to parse and load configuration data frombackup file: %s", PLR_STR(path));
    return false;
  }
  MergeState state;
  state.function = __func__;
  state.databasePath = netCfgDefaultCache->fileName;
  state.defaultWasReadOnly = netCfgDefaultCache->readOnly;
  if (!WriteRestorePoint(state)) return false;
  for (uint32_t vnet = 0; vnet < PLR_MAX_VNETS; ++vnet)
    if (VnetSettingsDiffer(merged.get(), vnet, __func__))
      state.changed.push_back(ChangedVnet{vnet});
  if (state.changed.empty()) {
    // Nothing to bring in: the restore point is not needed either.
    sys::unlink(state.restorePoint.c_str());
    return true;
  }
  bool ok = true;
  for (; ok && state.touched < state.changed.size(); ++state.touched)
    ok = StopVnetServices(state.changed[state.touched], __func__);
  ok = ok && InstallMergedDatabase(merged.get(), state);
  for (size_t i = 0; ok && i < state.changed.size(); ++i)
    ok = StartVnetServices(state.changed[i].vnet, __func__);
  if (!ok) {
    RollBackMerge(state);
    return false;
  }
  sys::unlink(state.restorePoint.c_str());
  return true;
}

}  // extern "C"
