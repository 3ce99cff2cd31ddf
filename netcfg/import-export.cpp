// Whole-database operations: creating an empty database, exporting a cache
// to a backup file or a memory buffer, checking a file's version, importing a
// backup in place of the database, and merging one into the running system.
//
// Private caches (the imported or merged file) live only within one call.
// The default cache is released and loaded again by import and merge; every
// step that changes files or daemons has its undo in one rollback routine.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

#include <iterator>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/fd-util.h"
#include "base/fs-util.h"
#include "base/line-reader.h"
#include "base/str-util.h"
#include "base/sys-util.h"
#include "core/frame.h"
#include "core/log.h"
#include "netcfg/db-internal.h"
#include "pelorus/core.h"
#include "pelorus/dbapi.h"
#include "pelorus/files.h"
#include "pelorus/services.h"
#include "pelorus/svcfiles.h"
#include "pelorus/vnet.h"

namespace plr {
namespace {

// Global answers that survive an import.
constexpr std::string_view kKnownGlobalKeys[] = {"PLR_DEFAULT_HOSTONLY_VNET",
                                                 "PLR_DEFAULT_NAT_VNET", "PLR_LOG_FILE",
                                                 "PLR_LOGLEVEL", "PLR_DEFAULT_BRIDGE_VNET"};

// Per-vnet fields that survive an import, in the order the merge compares
// them. The last two are legacy fields that the upgrade converts.
constexpr const char* kKnownVnetFields[] = {
    "HOSTONLY_SUBNET",
    "HOSTONLY_NETMASK",
    "VIRTUAL_ADAPTER_ADDR",
    "VIRTUAL_ADAPTER",
    "MTU",
    "VIRTUAL_ADAPTER_NAME",
    "DHCP",
    "DHCP_PARAM_LEASE_START_IP",
    "DHCP_PARAM_LEASE_END_IP",
    "DHCP_PARAM_DEFAULT_LEASE_TIME",
    "DHCP_PARAM_MAX_LEASE_TIME",
    "DHCP_PARAM_BROADCAST_ADDR",
    "DHCP_PARAM_DNS_ADDR",
    "DHCP_PARAM_ROUTERS",
    "DHCP_PARAM_DOMAIN_NAME",
    "DHCP_PARAM_SUB_DEFAULT_LEASE_TIME",
    "DHCP_PARAM_SUB_MAX_LEASE_TIME",
    "DHCP_CFG_HASH",
    "NAT",
    "NAT_PARAM_GATEWAY_IP",
    "NAT_PARAM_INT_GATEWAY_IPSUBNETMASK",
    "NAT_PARAM_CONFIG_PORT",
    "NAT_PARAM_ACTIVE_FTP",
    "NAT_PARAM_ALLOW_ANY_OUI",
    "NAT_PARAM_DEVICE",
    "NAT_PARAM_UDP_TIMEOUT",
    "NAT_PARAM_NAT6",
    "NAT_PARAM_NAT6_PREFIX",
    "DISPLAY_NAME",
    "INTERFACE",
    "HOSTONLY_HOSTADDR",
};
static_assert(std::size(kKnownVnetFields) == 31);

constexpr std::string_view kVnetPrefix = "VNET_";
constexpr size_t kMaxLegacyValue = 128;  // display and adapter names are shorter
constexpr const char* kAssumedNetmask = "255.255.255.0";

bool IsKnownVnetField(std::string_view field) {
  for (const char* known : kKnownVnetFields)
    if (field == known) return true;
  return false;
}

bool IsKnownGlobalKey(std::string_view key) {
  for (std::string_view known : kKnownGlobalKeys)
    if (key == known) return true;
  return false;
}

// One answer of a private cache, copied out so the table may change while
// the copies are worked through.
struct AnswerCopy {
  std::string key;
  std::string value;
  int32_t vnet;
  std::string field;  // empty for global keys
};

std::vector<AnswerCopy> CopyAnswers(const PLRNetworkConfigurationDB* db) {
  std::vector<AnswerCopy> out;
  if (!db->answers) return out;
  out.reserve(db->answers->size());
  for (const auto& [key, entry] : *db->answers) {
    std::string field = entry.fieldOffset > 0 ? key.substr(entry.fieldOffset) : std::string();
    out.push_back(AnswerCopy{key, entry.value, entry.vnet, std::move(field)});
  }
  return out;
}

// Stores VNET_<vnet>_<field> = value in `db`.
bool NetCfgUtilAddVnetRecord(PLRNetworkConfigurationDB* db, uint32_t vnet, const char* field,
                             const char* value) {
  const std::string key = StrPrintf("VNET_%u_%s", vnet, field);
  return PLRNetCfgAddAnswerString(db, key.c_str(), value);
}

// Deletes every answer of the private cache that the library does not know:
// VNET_<n>_<FIELD> with n up to 255 and a known field, or a known global key.
// BINDIR stays: it comes from the product configuration and is never written.
bool NetCfgCleanupDatabaseFields(PLRNetworkConfigurationDB* db) {
  if (!db->answers || db->answers->empty()) {
    PLOG(LOG_INFO2, "Dictionary hash table is empty");
    return true;
  }
  for (const AnswerCopy& answer : CopyAnswers(db)) {
    bool keep;
    if (answer.key.compare(0, kVnetPrefix.size(), kVnetPrefix) == 0) {
      if (answer.vnet < 0) {
        PLOG(LOG_WRN, "Failed to parse vnet number in record: %s, deleting record",
             answer.key.c_str());
        keep = false;
      } else {
        keep = IsKnownVnetField(answer.field);
      }
    } else {
      keep = IsKnownGlobalKey(answer.key) || answer.key == kNetCfgBinDirKey;
    }
    if (keep) continue;
    PLOG(LOG_INFO2, "Deleting record - %s:%s from backup cache", answer.key.c_str(),
         answer.value.c_str());
    if (!PLRNetCfgRemoveAnswer(db, answer.key.c_str())) return false;
  }
  return true;
}

// HOSTONLY_HOSTADDR of a legacy file: the address becomes the virtual
// adapter's address and, masked, the vnet's subnet.
bool UpgradeHostAddress(PLRNetworkConfigurationDB* db, const AnswerCopy& answer) {
  const char* fn = "NetCfgUpdateDatabaseFields";
  const uint32_t vnet = static_cast<uint32_t>(answer.vnet);
  const std::string maskKey = StrPrintf("VNET_%u_HOSTONLY_NETMASK", vnet);
  const char* mask = nullptr;
  const bool assumedMask = !PLRNetCfgGetAnswerString(db, maskKey.c_str(), &mask);
  const std::string maskText = assumedMask ? kAssumedNetmask : mask;
  uint32_t address = 0, maskValue = 0;
  char subnet[16];
  if (!PLRIPStr2Int(answer.value.c_str(), &address) ||
      !PLRIPStr2Int(maskText.c_str(), &maskValue) || !PLRIPInt2Str(address & maskValue, subnet) ||
      !NetCfgUtilAddVnetRecord(db, vnet, "HOSTONLY_SUBNET", subnet) ||
      (assumedMask && !NetCfgUtilAddVnetRecord(db, vnet, "HOSTONLY_NETMASK", kAssumedNetmask))) {
    PLOG_AS(fn, LOG_ERR, "Failed to update HOSTONLY_HOSTADDR record, aborting");
    return false;
  }
  if (!NetCfgUtilAddVnetRecord(db, vnet, "VIRTUAL_ADAPTER", "yes") ||
      !NetCfgUtilAddVnetRecord(db, vnet, "VIRTUAL_ADAPTER_ADDR", answer.value.c_str())) {
    PLOG_AS(fn, LOG_ERR, "Failed to update HOSTONLY_HOSTADDR record, aborting");
    return false;
  }
  return PLRNetCfgRemoveAnswer(db, answer.key.c_str());
}

// Converts the fields of a legacy (version 0) backup into today's answers
// and mappings. Legacy answers are deleted once converted.
bool NetCfgUpdateDatabaseFields(PLRNetworkConfigurationDB* db) {
  for (const AnswerCopy& answer : CopyAnswers(db)) {
    if (answer.key.compare(0, kVnetPrefix.size(), kVnetPrefix) != 0) continue;
    if (answer.vnet < 0 || answer.field.empty()) {
      PLOG(LOG_ERR, "Invalid vnetField in record: %s", answer.key.c_str());
      return false;
    }
    const uint32_t vnet = static_cast<uint32_t>(answer.vnet);
    const bool fits = answer.value.size() < kMaxLegacyValue;
    if (answer.field == "DISPLAY_NAME") {
      if (!fits) {
        PLOG(LOG_WRN, "Invalid display name: %s, deleting record", answer.value.c_str());
        PLRNetCfgRemoveAnswer(db, answer.key.c_str());
      } else if (!NetCfgUtilAddVnetRecord(db, vnet, "DISPLAY_NAME", answer.value.c_str())) {
        PLOG(LOG_ERR, "Failed to add display name record to hash table, aborting");
        return false;
      }
    } else if (answer.field == "INTERFACE") {
      if (!fits) {
        PLOG(LOG_WRN, "Invalid adapter name: %s, deleting record", answer.value.c_str());
      } else if (!PLRNetCfgAddHostAdapterMapping(db, answer.value.c_str(),
                                                 static_cast<int32_t>(vnet), false)) {
        PLOG(LOG_ERR, "Failed to add bridge mapping record to hash table, aborting");
        return false;
      }
      PLRNetCfgRemoveAnswer(db, answer.key.c_str());
    } else if (answer.field == "HOSTONLY_HOSTADDR") {
      if (!UpgradeHostAddress(db, answer)) return false;
    }
  }
  PLOG(LOG_INFO2, "Updated database fields");
  return true;
}

// Cleanup and, for legacy files, the field upgrade of an imported cache.
bool PrepareImportedCache(PLRNetworkConfigurationDB* db) {
  const char* fn = "PLRNetCfgImportConfig";
  if (!NetCfgCleanupDatabaseFields(db)) {
    PLOG_AS(fn, LOG_ERR, "Failed to cleanup database fields");
    return false;
  }
  const bool hasAnswers = db->answers && !db->answers->empty();
  if (db->majorVersion == 0 && hasAnswers) {
    if (!NetCfgUpdateDatabaseFields(db)) {
      PLOG_AS(fn, LOG_ERR, "Failed to update fields in backup database cache");
      return false;
    }
  } else if (db->majorVersion == kNetCfgMajorVersion && db->minorVersion == kNetCfgMinorVersion) {
    PLOG_AS(fn, LOG_ERR, "Source and destination database versions are same");
  }
  PLOG_AS(fn, LOG_INFO2, "Updated database fields");
  return true;
}

// The first "<path>.bak.<n>" that the file removal accepts (a missing name,
// or an older backup copy, which it replaces).
std::string BackupCopyName(const char* databasePath) {
  for (unsigned n = 0;; ++n) {
    std::string name = StrPrintf("%s.bak.%u", databasePath, n);
    if (PLRRemoveFile(PLR_VNET_NONE, PLR_FILE_CUSTOM, name.c_str())) return name;
  }
}

// A temporary file in the directory of `path`; empty on failure.
std::string MakeTempBeside(const char* path) {
  std::string dir(path);
  const size_t slash = dir.rfind('/');
  dir = slash == std::string::npos ? std::string(".") : dir.substr(0, slash);
  std::string temp = dir + "/.networking.XXXXXX";
  UniqueFd fd(mkostemp(temp.data(), O_CLOEXEC));
  if (!fd) return std::string();
  return temp;
}

// Turns the private cache into the default cache of `databasePath`: its
// stream is the database file opened for appending, and it may write.
bool PublishAsDefault(PLRNetworkConfigurationDB* db, const char* databasePath) {
  const char* fn = "PLRNetCfgImportConfig";
  db->stream.reset();
  db->fileName = databasePath;
  db->stream.reset(sys::fopen(databasePath, "ab+e"));
  if (!db->stream) {
    PLOG_AS(fn, LOG_ERR, "Failed to open database file after import, error: %s", strerror(errno));
    return false;
  }
  db->readOnly = false;
  db->backup = false;
  db->majorVersion = kNetCfgMajorVersion;
  db->minorVersion = kNetCfgMinorVersion;
  db->journalEnd = -1;
  PLOG_AS(fn, LOG_ERR, "Reopened database file: %s", databasePath);
  netCfgDefaultCache = db;
  return true;
}

// What an import changed on disk and in memory, for its rollback.
struct ImportState {
  const char* databasePath = nullptr;
  bool defaultWasLoaded = false;
  bool defaultWasReadOnly = false;
  bool defaultUnloaded = false;
  std::string tempPath;    // the new contents, before they take the database's place
  std::string backupCopy;  // where the old database went
  bool databaseReplaced = false;
};

// Undoes an import in reverse order: the new file goes, the old database
// comes back from its backup copy, and the default cache is loaded again.
void RollBackImport(const ImportState& s) {
  const char* fn = "PLRNetCfgImportConfig";
  if (!s.tempPath.empty()) sys::unlink(s.tempPath.c_str());
  if (s.databaseReplaced && s.backupCopy.empty()) sys::unlink(s.databasePath);
  if (!s.backupCopy.empty()) {
    if (sys::rename(s.backupCopy.c_str(), s.databasePath) != 0) {
      PLOG_AS(fn, LOG_ERR, "Failed to restore database file during error handling from: %s to %s",
              s.backupCopy.c_str(), s.databasePath);
    } else {
      PLOG_AS(fn, LOG_INFO, "Restored database file during error handling");
      FsyncParentDir(s.databasePath);
    }
  }
  if (s.defaultUnloaded && !PLRNetCfgLoad(s.databasePath, nullptr, false, s.defaultWasReadOnly))
    PLOG_AS(fn, LOG_ERR, "Failed to unload default database cache");
}

// The file steps of an import once the private cache is ready: release the
// default cache, write the new contents beside the database, move the old
// database to its backup copy, put the new file in its place.
bool ReplaceDatabase(PLRNetworkConfigurationDB* db, ImportState& s) {
  const char* fn = "PLRNetCfgImportConfig";
  if (s.defaultWasLoaded) {
    if (!PLRNetCfgUnload(nullptr, false)) {
      PLOG_AS(fn, LOG_ERR, "Failed to unload default database cache");
      return false;
    }
    s.defaultUnloaded = true;
  }
  s.tempPath = MakeTempBeside(s.databasePath);
  if (s.tempPath.empty() || !NetCfgWriteDatabaseFile(db, s.tempPath.c_str(), false)) {
    PLOG_AS(fn, LOG_ERR, "Failed to write to database file: %s", s.databasePath);
    return false;
  }
  if (PLRFileExists(PLR_VNET_NONE, PLR_FILE_CUSTOM, s.databasePath)) {
    std::string copy = BackupCopyName(s.databasePath);
    if (!PLRCreateFile(PLR_VNET_NONE, PLR_FILE_CUSTOM, copy.c_str())) {
      PLOG_AS(fn, LOG_ERR, "Failed to create backup file: %s", copy.c_str());
      return false;
    }
    if (sys::rename(s.databasePath, copy.c_str()) != 0) {
      PLOG_AS(fn, LOG_ERR, "Failed to backup existing database file, error: %s", strerror(errno));
      sys::unlink(copy.c_str());
      return false;
    }
    s.backupCopy = std::move(copy);
    PLOG_AS(fn, LOG_INFO, "Renamed database file: %s to: %s", s.databasePath, s.backupCopy.c_str());
  }
  if (sys::rename(s.tempPath.c_str(), s.databasePath) != 0) {
    PLOG_AS(fn, LOG_ERR, "Failed to write to database file: %s", s.databasePath);
    return false;
  }
  s.tempPath.clear();
  s.databaseReplaced = true;
  FsyncParentDir(s.databasePath);
  return true;
}

// ---- Merge ----

constexpr const char* kMerge = "PLRNetCfgMergeConfig";

// True when vnet `vnet`'s answers differ between the default cache and
// `newCache` (compared field by field, case-insensitively), or its port
// forwards do.
bool VnetSettingsDiffer(PLRNetworkConfigurationDB* newCache, uint32_t vnet) {
  for (const char* field : kKnownVnetFields) {
    const std::string key = StrPrintf("VNET_%d_%s", static_cast<int>(vnet), field);
    const char* oldValue = nullptr;
    const char* newValue = nullptr;
    const bool hasOld = PLRNetCfgGetAnswerString(nullptr, key.c_str(), &oldValue);
    const bool hasNew = PLRNetCfgGetAnswerString(newCache, key.c_str(), &newValue);
    if (hasOld) PLOG_AS(kMerge, LOG_INFO2, "Key: %s OldValue: %s ", key.c_str(), oldValue);
    if (hasNew) PLOG_AS(kMerge, LOG_INFO2, "Key: %s NewValue: %s", key.c_str(), newValue);
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

struct ServiceStep {
  uint32_t service;
  const char* stopFailure;
};
// The order in which a changed vnet's services are stopped.
constexpr ServiceStep kStopOrder[] = {
    {PLR_SERVICE_BRIDGE, "Failed to stop BRIDGE service for vnet: %d"},
    {PLR_SERVICE_NAT, "Failed to stop NAT service for vnet: %d"},
    {PLR_SERVICE_DHCP, "Failed to stop DHCP service for vnet: %d"},
    {PLR_SERVICE_NETIFUP, "Failed to stop NETIFUP service for vnet: %d"},
};

// One changed vnet of a merge and the services that ran on it before.
struct ChangedVnet {
  uint32_t vnet;
  bool wasRunning[5] = {};  // indexed by service ID
};

// Stops the running services of a changed vnet, noting which ran.
bool StopVnetServices(ChangedVnet& changed) {
  for (const ServiceStep& step : kStopOrder) {
    if (PLRServiceStatus(changed.vnet, step.service) != PLR_SERVICE_RUNNING) continue;
    changed.wasRunning[step.service] = true;
    if (!PLRServiceStop(changed.vnet, step.service)) {
      PLRLog(LOG_ERR, kMerge, step.stopFailure, static_cast<int>(changed.vnet));
      return false;
    }
  }
  return true;
}

// Regenerates a changed vnet's service files and starts what its settings
// call for: bridge, netifup and the host-only adapter, DHCP, NAT.
bool StartVnetServices(uint32_t vnet) {
  const int v = static_cast<int>(vnet);
  if (!PLRDHCPUpdateFromConfig(vnet)) {
    PLOG_AS(kMerge, LOG_ERR, "Failed to update DHCP config for vnet: %d", v);
    return false;
  }
  if (!PLRNATUpdateFromConfig(vnet)) {
    PLOG_AS(kMerge, LOG_ERR, "Failed to update NAT config for vnet: %d", v);
    return false;
  }
  if (PLRVnetIsOptionConfigured(vnet, PLR_VNET_OPTION_BRIDGE) &&
      !PLRServiceStart(vnet, PLR_SERVICE_BRIDGE)) {
    PLOG_AS(kMerge, LOG_ERR, "Failed to start BRIDGE service for vnet: %d", v);
    return false;
  }
  if (PLRVnetIsOptionConfigured(vnet, PLR_VNET_OPTION_VIRTUAL_ADAPTER)) {
    if (!PLRServiceStart(vnet, PLR_SERVICE_NETIFUP)) {
      PLOG_AS(kMerge, LOG_ERR, "Failed to start NETIFUP service for vnet: %d", v);
      return false;
    }
    if (!PLRVirtAdapterEnable(vnet)) {
      PLOG_AS(kMerge, LOG_ERR, "Failed to enable hostonly adapter on vnet: %d", v);
      return false;
    }
  }
  if (PLRVnetIsOptionConfigured(vnet, PLR_VNET_OPTION_DHCP) &&
      !PLRServiceStart(vnet, PLR_SERVICE_DHCP)) {
    PLOG_AS(kMerge, LOG_ERR, "Failed to start DHCP service for vnet: %d", v);
    return false;
  }
  if (PLRVnetIsOptionConfigured(vnet, PLR_VNET_OPTION_NAT) &&
      !PLRServiceStart(vnet, PLR_SERVICE_NAT)) {
    PLOG_AS(kMerge, LOG_ERR, "Failed to start NAT service for vnet: %d", v);
    return false;
  }
  return true;
}

// Puts a changed vnet's daemons back as they were before the merge, from the
// restored settings: files regenerated, services that ran restarted, and
// services the merge started but that did not run stopped.
void RestoreVnetServices(const ChangedVnet& changed) {
  const uint32_t vnet = changed.vnet;
  PLRDHCPUpdateFromConfig(vnet);
  PLRNATUpdateFromConfig(vnet);
  for (auto it = std::rbegin(kStopOrder); it != std::rend(kStopOrder); ++it) {
    const uint32_t service = it->service;
    const bool ok = changed.wasRunning[service]
                        ? PLRRestartService(vnet, service, nullptr, nullptr, true)
                        : PLRServiceStatus(vnet, service) != PLR_SERVICE_RUNNING ||
                              PLRServiceStop(vnet, service);
    if (!ok)
      PLOG_AS(kMerge, LOG_ERR, "Failed to restore service: %u on vnet: %d, during error handling",
              service, static_cast<int>(vnet));
  }
}

// What a merge did so far, for its rollback.
struct MergeState {
  std::string databasePath;
  bool defaultWasReadOnly = false;
  std::string restorePoint;
  std::vector<ChangedVnet> changed;
  size_t touched = 0;  // changed vnets whose services were stopped
  bool databaseReplaced = false;
};

// Undoes a merge: the restore point becomes the database again, the default
// cache is loaded from it, and the touched vnets' daemons are put back.
void RollBackMerge(const MergeState& s) {
  if (s.databaseReplaced) {
    if (PLRNetCfgImportConfig(s.restorePoint.c_str(), s.databasePath.c_str()))
      PLOG_AS(kMerge, LOG_INFO, "Restored config from backup file: %s", s.restorePoint.c_str());
  }
  if (!PLRNetCfgLoad(s.databasePath.c_str(), nullptr, false, s.defaultWasReadOnly))
    PLOG_AS(kMerge, LOG_ERR, "Failed to restore the default database cache, during error handling");
  for (size_t i = s.touched; i-- > 0;) RestoreVnetServices(s.changed[i]);
}

// Replaces the database file by the contents of `db` (temporary file beside
// it, renamed over it) and loads the default cache from it again.
bool InstallMergedDatabase(PLRNetworkConfigurationDB* db, MergeState& s) {
  const std::string temp = MakeTempBeside(s.databasePath.c_str());
  if (temp.empty() || !NetCfgWriteDatabaseFile(db, temp.c_str(), false)) {
    PLOG_AS(kMerge, LOG_ERR, "Failed to write to database file: %s", s.databasePath.c_str());
    if (!temp.empty()) sys::unlink(temp.c_str());
    return false;
  }
  PLRNetCfgUnload(nullptr, false);
  if (sys::rename(temp.c_str(), s.databasePath.c_str()) != 0) {
    PLOG_AS(kMerge, LOG_ERR, "Failed to write to database file: %s", s.databasePath.c_str());
    sys::unlink(temp.c_str());
    return false;
  }
  s.databaseReplaced = true;
  FsyncParentDir(s.databasePath.c_str());
  PLOG_AS(kMerge, LOG_ERR, "Reopened database file: %s", s.databasePath.c_str());
  if (!PLRNetCfgLoad(s.databasePath.c_str(), nullptr, false, s.defaultWasReadOnly)) {
    PLOG_AS(kMerge, LOG_ERR, "Failed to reload the default database cache");
    return false;
  }
  return true;
}

// Owns a private cache until the scope ends.
class PrivateCache {
 public:
  PrivateCache() = default;
  PrivateCache(const PrivateCache&) = delete;
  PrivateCache& operator=(const PrivateCache&) = delete;
  ~PrivateCache() {
    if (db_ != nullptr) PLRNetCfgUnload(&db_, false);
  }
  PLRNetworkConfigurationDB* get() const { return db_; }
  PLRNetworkConfigurationDB** out() { return &db_; }
  PLRNetworkConfigurationDB* release() { return std::exchange(db_, nullptr); }

 private:
  PLRNetworkConfigurationDB* db_ = nullptr;
};

// Appends `db` as file text to `out`: version line, then the add records
// in the order of the compacted file. A record that cannot be formatted
// (BINDIR, which never leaves the library) is logged and left out.
void FormatDatabase(const PLRNetworkConfigurationDB* db, bool backup, std::string* out) {
  *out += backup ? "BACKUP_VERSION=" : "VERSION=";
  *out += std::to_string(kNetCfgMajorVersion) + "," + std::to_string(kNetCfgMinorVersion) + "\n";
  std::vector<NetCfgRecord> records;
  for (uint32_t type : kNetCfgWrittenTypes) {
    NetCfgCollectRecords(db, type, &records);
    for (const NetCfgRecord& record : records) NetCfgWriteRecord(out, record);
  }
}

}  // namespace
}  // namespace plr

using plr::netCfgDefaultCache;

extern "C" {

// Creates `path` holding only its version line.
bool PLRNetCfgCreateDB(const char* path, bool backup) {
  using namespace plr;
  if (!PLRCreateFile(PLR_VNET_NONE, PLR_FILE_CUSTOM, path)) {
    PLOG(LOG_ERR, "Failed to create file: %s", path);
    return false;
  }
  UniqueFile file(sys::fopen(path, "we"));
  if (!file) {
    PLOG(LOG_ERR, "Failed to open file: %s, error: %s", path, strerror(errno));
    PLRRemoveFile(PLR_VNET_NONE, PLR_FILE_CUSTOM, path);
    return false;
  }
  const bool written = fprintf(file.get(), "%s=%u,%u\n", backup ? "BACKUP_VERSION" : "VERSION",
                               kNetCfgMajorVersion, kNetCfgMinorVersion) > 0 &&
                       fflush(file.get()) == 0 && sys::fsync(fileno(file.get())) == 0;
  const int err = errno;
  if (file.reset() != 0 || !written) {
    PLOG(LOG_ERR, "Failed to write initialization data into file: %serror: %s", path,
         strerror(written ? errno : err));
    PLRRemoveFile(PLR_VNET_NONE, PLR_FILE_CUSTOM, path);
    return false;
  }
  PLOG(LOG_INFO2, "Created and initialized database %sfile: %s", backup ? "backup " : "", path);
  return true;
}

// Writes the cache to `path` as a backup file; nothing else is touched.
bool PLRNetCfgExportConfig(PLRNetworkConfigurationDB* db, const char* path, uint32_t flags) {
  using namespace plr;
  if (flags != 0) {
    PLOG(LOG_ERR, "Unsupported export flags: %u", flags);
    return false;
  }
  PLRNetworkConfigurationDB* cache = NetCfgResolve(db);
  if (cache == nullptr) {
    PLOG(LOG_ERR, "Database cache is not loaded");
    return false;
  }
  if (path == nullptr || !NetCfgWriteDatabaseFile(cache, path, true)) {
    PLOG(LOG_ERR, "Failed to write records to database file: %s", PLR_STR(path));
    return false;
  }
  return true;
}

// Writes the cache into a new malloc'ed buffer (see pelorus/dbapi.h).
bool PLRNetCfgExportConfigToBuffer(PLRNetworkConfigurationDB* db, char** buffer, bool backup,
                                   bool terminate) {
  using namespace plr;
  if (buffer == nullptr) return false;
  *buffer = nullptr;
  PLRNetworkConfigurationDB* cache = NetCfgResolve(db);
  if (cache == nullptr) {
    PLOG(LOG_ERR, "Database cache is not loaded");
    return false;
  }
  try {
    std::string text;
    FormatDatabase(cache, backup, &text);
    if (terminate) text.push_back('\0');
    char* out = static_cast<char*>(malloc(text.empty() ? 1 : text.size()));
    if (out == nullptr) throw std::bad_alloc();
    memcpy(out, text.data(), text.size());
    *buffer = out;
    return true;
  } catch (const std::bad_alloc&) {
    PLOG(LOG_ERR, "Memory allocation failure, error: %s", strerror(ENOMEM));
    return false;
  }
}

// True when `path` is a database file whose version this library reads.
bool PLRNetCfgCheckVersion(const char* path) {
  using namespace plr;
  UniqueFile file(path != nullptr ? sys::fopen(path, "re") : nullptr);
  if (!file) {
    PLOG(LOG_ERR, "Unable to open network configuration database file, error: %s",
         strerror(path != nullptr ? errno : EINVAL));
    return false;
  }
  std::string line;
  LineReader reader(file.get(), kNetCfgMaxLine);
  errno = 0;
  if (reader.Next(line) != LineReader::Status::kLine) {
    PLOG(LOG_ERR, "Failed to read version number, error: %s", strerror(errno));
    return false;
  }
  const size_t equals = line.find('=');
  if (equals == std::string::npos || line.compare(0, equals, "VERSION") != 0) {
    PLOG(LOG_ERR, "Cannot find version in database file");
    return false;
  }
  uint32_t major = 0, minor = 0;
  return ParseVersionString(line.c_str() + equals + 1, &major, &minor);
}

// Replaces the database by a cleaned and upgraded backup file; the old
// database is kept as a backup copy and put back if anything fails.
bool PLRNetCfgImportConfig(const char* backupPath, const char* databasePath) {
  using namespace plr;
  PrivateCache imported;
  if (backupPath == nullptr || databasePath == nullptr ||
      !PLRNetCfgLoad(backupPath, imported.out(), true, true)) {
    PLOG(LOG_ERR, "Failed to parse and load configuration data from backup file: %s",
         PLR_STR(backupPath));
    return false;
  }
  PLRNetworkConfigurationDB* db = imported.get();
  if (!db->backup) {
    PLOG(LOG_ERR, "Specified backup file is not actually a backup file");
    return false;
  }
  PLOG(LOG_INFO2, "Source version - %u,%u, Destination version - %u,%u", db->majorVersion,
       db->minorVersion, kNetCfgMajorVersion, kNetCfgMinorVersion);
  if (db->majorVersion > kNetCfgMajorVersion && db->minorVersion != 0) {
    PLOG(LOG_ERR, "Source database version is higher than destination of version");
    return false;
  }
  bool prepared = false;
  try {
    prepared = PrepareImportedCache(db);
  } catch (const std::bad_alloc&) {
    PLOG(LOG_ERR, "Failed to cleanup database fields");
  }
  if (!prepared) return false;

  ImportState state;
  state.databasePath = databasePath;
  state.defaultWasLoaded = netCfgDefaultCache != nullptr;
  state.defaultWasReadOnly = state.defaultWasLoaded && netCfgDefaultCache->readOnly;
  bool ok = false;
  try {
    ok = ReplaceDatabase(db, state) &&
         (!state.defaultWasLoaded || PublishAsDefault(db, databasePath));
  } catch (const std::bad_alloc&) {
    PLOG(LOG_ERR, "Failed to copy DB file name");
  }
  if (!ok) {
    RollBackImport(state);
    return false;
  }
  if (state.defaultWasLoaded) imported.release();  // now the default cache
  return true;
}

// Brings another database file into the running system vnet by vnet.
bool PLRNetCfgMergeConfig(const char* path) {
  using namespace plr;
  if (netCfgDefaultCache == nullptr) {
    PLOG(LOG_ERR,
         "Database needs to be loaded using PLR_Load beforecalling PLRNetCfgMergeConfig()");
    return false;
  }
  PrivateCache merged;
  if (path == nullptr || !PLRNetCfgLoad(path, merged.out(), true, true)) {
    PLOG(LOG_ERR, "Failed to parse and load configuration data frombackup file: %s", PLR_STR(path));
    return false;
  }
  MergeState state;
  state.databasePath = netCfgDefaultCache->fileName;
  state.defaultWasReadOnly = netCfgDefaultCache->readOnly;
  state.restorePoint = MakeTempBeside(state.databasePath.c_str());
  if (state.restorePoint.empty() ||
      !PLRNetCfgExportConfig(nullptr, state.restorePoint.c_str(), 0)) {
    PLOG(LOG_ERR, "Failed to create backup file: %s", state.restorePoint.c_str());
    if (!state.restorePoint.empty()) sys::unlink(state.restorePoint.c_str());
    return false;
  }
  for (uint32_t vnet = 0; vnet < PLR_MAX_VNETS; ++vnet)
    if (VnetSettingsDiffer(merged.get(), vnet)) state.changed.push_back(ChangedVnet{vnet});
  if (state.changed.empty()) {
    // Nothing to bring in: the restore point is not needed either.
    sys::unlink(state.restorePoint.c_str());
    return true;
  }
  bool ok = true;
  for (; ok && state.touched < state.changed.size(); ++state.touched)
    ok = StopVnetServices(state.changed[state.touched]);
  ok = ok && InstallMergedDatabase(merged.get(), state);
  for (size_t i = 0; ok && i < state.changed.size(); ++i)
    ok = StartVnetServices(state.changed[i].vnet);
  if (!ok) {
    RollBackMerge(state);
    return false;
  }
  return true;
}

// True when the vnet's port forwards differ between `newCache` and the
// default cache.
bool PLRNetCfgMergeConfigPortFwdCmp(PLRNetworkConfigurationDB* newCache, uint32_t vnet) {
  using namespace plr;
  if (newCache == nullptr || vnet >= PLR_MAX_VNETS || netCfgDefaultCache == nullptr) return false;
  const bool hasNew = newCache->portFwds[vnet] != nullptr;
  const bool hasOld = netCfgDefaultCache->portFwds[vnet] != nullptr;
  if (!hasNew) return hasOld;
  if (!hasOld) return true;
  return PLRNetCfgMergeConfigPortFwdCmpHash(newCache, true, vnet) ||
         PLRNetCfgMergeConfigPortFwdCmpHash(newCache, false, vnet);
}

// True when one protocol's port forwards of the vnet differ.
bool PLRNetCfgMergeConfigPortFwdCmpHash(PLRNetworkConfigurationDB* newCache, bool isTCP,
                                        uint32_t vnet) {
  using namespace plr;
  if (newCache == nullptr || vnet >= PLR_MAX_VNETS || netCfgDefaultCache == nullptr) return false;
  const NATVnetPortFwdConfig* newHolder = newCache->portFwds[vnet].get();
  const NATVnetPortFwdConfig* oldHolder = netCfgDefaultCache->portFwds[vnet].get();
  const auto* newTable = newHolder != nullptr ? newHolder->group(isTCP).table.get() : nullptr;
  const auto* oldTable = oldHolder != nullptr ? oldHolder->group(isTCP).table.get() : nullptr;
  if (newTable == nullptr) return oldTable != nullptr;
  if (oldTable == nullptr) return true;
  if (newTable->size() != oldTable->size()) return true;
  for (const auto& [port, entry] : *newTable) {
    auto old = oldTable->find(port);
    if (old == oldTable->end()) return true;
    if (old->second.vmIP != entry.vmIP || old->second.vmPort != entry.vmPort ||
        old->second.description != entry.description)
      return true;
  }
  return false;
}

}  // extern "C"
