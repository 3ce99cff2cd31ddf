// The preparation of an imported cache: answers the library does not know
// are dropped, and the fields of a legacy (version 0) backup are converted
// into today's answers and mappings.
#include <string>
#include <string_view>
#include <vector>

#include "base/str-util.h"
#include "core/log.h"
#include "netcfg/whole-db.h"
#include "pelorus/core.h"

namespace plr {
namespace {

// Global answers that survive an import.
constexpr std::string_view kKnownGlobalKeys[] = {"PLR_DEFAULT_HOSTONLY_VNET",
                                                 "PLR_DEFAULT_NAT_VNET", "PLR_LOG_FILE",
                                                 "PLR_LOGLEVEL", "PLR_DEFAULT_BRIDGE_VNET"};

constexpr std::string_view kVnetPrefix = "VNET_";
constexpr size_t kMaxLegacyValue = 128;  // display and adapter names are shorter
constexpr const char* kAssumedNetmask = "255.255.255.0";

bool IsKnownVnetField(std::string_view field) {
  for (const char* known : kNetCfgKnownVnetFields)
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
  for (const auto& entry : *db->answers) {
    const std::string_view key = entry.key();
    std::string field(entry.extra.fieldOffset > 0 ? key.substr(entry.extra.fieldOffset) : "");
    out.push_back(AnswerCopy{std::string(key), std::string(entry.value()), entry.extra.vnet,
                             std::move(field)});
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
bool UpgradeHostAddress(PLRNetworkConfigurationDB* db, const AnswerCopy& answer,
                        const char* function) {
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
      (assumedMask && !NetCfgUtilAddVnetRecord(db, vnet, "HOSTONLY_NETMASK", kAssumedNetmask)) ||
      !NetCfgUtilAddVnetRecord(db, vnet, "VIRTUAL_ADAPTER", "yes") ||
      !NetCfgUtilAddVnetRecord(db, vnet, "VIRTUAL_ADAPTER_ADDR", answer.value.c_str())) {
    PLOG_AS(function, LOG_ERR, "Failed to update HOSTONLY_HOSTADDR record, aborting");
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
      if (!UpgradeHostAddress(db, answer, __func__)) return false;
    }
  }
  PLOG(LOG_INFO2, "Updated database fields");
  return true;
}

}  // namespace

bool NetCfgPrepareImportedCache(PLRNetworkConfigurationDB* db, const char* function) {
  if (!NetCfgCleanupDatabaseFields(db)) {
    PLOG_AS(function, LOG_ERR, "Failed to cleanup database fields");
    return false;
  }
  const bool hasAnswers = db->answers && !db->answers->empty();
  if (db->majorVersion == 0 && hasAnswers) {
    if (!NetCfgUpdateDatabaseFields(db)) {
      PLOG_AS(function, LOG_ERR, "Failed to update fields in backup database cache");
      return false;
    }
  } else if (db->majorVersion == kNetCfgMajorVersion && db->minorVersion == kNetCfgMinorVersion) {
    PLOG_AS(function, LOG_ERR, "Source and destination database versions are same");
  }
  PLOG_AS(function, LOG_INFO2, "Updated database fields");
  return true;
}

}  // namespace plr
