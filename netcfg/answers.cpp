// Answers: string values under string keys, written through to the journal.
//
// Adds and removes go through NetCfgAddWithRollback and
// NetCfgRemoveWithRollback (netcfg/tables.h), which hold the undo rules of
// every record kind.
#include <errno.h>
#include <string.h>
#include <strings.h>

#include <optional>

#include "base/str-util.h"
#include "netcfg/global-answer.h"
#include "netcfg/tables.h"

namespace plr {
namespace {

// An answer as a record kind of NetCfgAddWithRollback and NetCfgRemoveWithRollback;
// `value` is the added value (unused by a remove).
struct AnswerKind {
  using Value = std::string;
  const char* key;
  const char* value;
  const char* function;

  std::optional<std::string> Find(const PLRNetworkConfigurationDB* db) const {
    const NetCfgAnswerTable::Entry* entry = db->answers ? db->answers->Find(key) : nullptr;
    if (entry == nullptr) return std::nullopt;
    return std::string(entry->value());
  }
  bool Put(PLRNetworkConfigurationDB* db, const std::string& v) const {
    return NetCfgHashAddAnswer(db, key, v);
  }
  bool Erase(PLRNetworkConfigurationDB* db) const { return NetCfgHashRemoveAnswer(db, key); }
  NetCfgRecord Record(const std::string& v, bool add) const {
    return add ? AnswerRecord(key, v) : RemoveAnswerRecord(key);
  }
  void Log(NetCfgAddStep step, const std::string* old) const {
    switch (step) {
      case NetCfgAddStep::kTable:
        PLOG_AS(function, LOG_ERR, "Failed to add %s:%s to hash table", key, value);
        break;
      case NetCfgAddStep::kRemoveOld:
        PLOG_AS(function, LOG_ERR, "Failed to remove: %s from database file, error: %s", key,
                strerror(errno));
        break;
      case NetCfgAddStep::kWriteNew:
        PLOG_AS(function, LOG_ERR, "Failed to write to %s:%s to database file, error: %s", key,
                value, strerror(errno));
        break;
      case NetCfgAddStep::kRestoreOld:
        PLOG_AS(function, LOG_ERR, "Failed to restore previous values %s:%s", key, old->c_str());
        break;
      case NetCfgAddStep::kRemoveNew:
        PLOG_AS(function, LOG_ERR, "Failed to remove newly added record, %s:%s", key, value);
        break;
    }
  }
  void Log(NetCfgRemoveStep step, const std::string& old) const {
    switch (step) {
      case NetCfgRemoveStep::kTable:
        PLOG_AS(function, LOG_ERR, "Failed to remove \"%s\" from hash table", key);
        break;
      case NetCfgRemoveStep::kWrite:
        PLOG_AS(function, LOG_ERR, "Failed to remove \"%s\" in database file", key);
        break;
      case NetCfgRemoveStep::kRestore:
        PLOG_AS(function, LOG_ERR, "Restoring %s:%s failed in hash table", key, old.c_str());
        break;
    }
  }
};

}  // namespace

// Declared in netcfg/global-answer.h.
const char* NetCfgGlobalAnswerOr(const char* key, const char* fallback) {
  const char* value = nullptr;
  if (PLRNetCfgGetAnswerString(nullptr, key, &value) && value != nullptr) return value;
  return fallback;
}

}  // namespace plr

extern "C" {

// Points *value at the cached string; FALSE without a log line when absent.
bool PLRNetCfgGetAnswerString(PLRNetworkConfigurationDB* db, const char* key, const char** value) {
  PLRNetworkConfigurationDB* cache = plr::NetCfgCacheFor(db, __func__);
  if (cache == nullptr || !cache->answers || key == nullptr) return false;
  const plr::NetCfgAnswerTable::Entry* entry = cache->answers->Find(key);
  if (entry == nullptr) return false;
  if (value != nullptr) *value = entry->c_value();
  return true;
}

// Decimal or 0x-hexadecimal text as a signed 32-bit integer.
bool PLRNetCfgGetAnswerInt32(PLRNetworkConfigurationDB* db, const char* key, int32_t* value) {
  const char* text = nullptr;
  if (!PLRNetCfgGetAnswerString(db, key, &text)) {
    PLOG(LOG_INFO, "Value not found for key: %s", key ? key : "(null)");
    return false;
  }
  int32_t number = 0;
  if (!plr::StrToInt32(text, &number)) {
    PLOG(LOG_ERR, "Failed to convert value to integer: %s = %s", key, text);
    return false;
  }
  if (value != nullptr) *value = number;
  return true;
}

// "yes" in any letter case is true; every other value is false.
bool PLRNetCfgGetAnswerBool(PLRNetworkConfigurationDB* db, const char* key, bool* value) {
  const char* text = nullptr;
  if (!PLRNetCfgGetAnswerString(db, key, &text)) return false;
  if (value != nullptr) *value = strcasecmp(text, "yes") == 0;
  return true;
}

// Adds or replaces an answer; a NULL value removes it.
bool PLRNetCfgAddAnswerString(PLRNetworkConfigurationDB* db, const char* key, const char* value) {
  PLRNetworkConfigurationDB* cache = plr::NetCfgCacheFor(db, __func__);
  if (cache == nullptr) return false;
  if (key != nullptr && strcmp(key, plr::kNetCfgBinDirKey) == 0) {
    PLOG(LOG_ERR, "Refusing to set %s: it comes only from %s", key, plr::kProductConfigPath);
    return false;
  }
  if (value == nullptr) return PLRNetCfgRemoveAnswer(cache, key);
  if (key == nullptr || !plr::NetCfgIsToken(key) || *value == '\0' ||
      !plr::NetCfgIsLineText(value)) {
    PLOG(LOG_ERR, "Failed to add %s:%s to hash table", key ? key : "(null)", value);
    return false;
  }
  return plr::NetCfgGuarded(__func__, [&, fnName = __func__] {
    return plr::NetCfgAddWithRollback(cache, plr::AnswerKind{key, value, fnName},
                                      std::string(value), false);
  });
}

bool PLRNetCfgAddAnswerInt32(PLRNetworkConfigurationDB* db, const char* key, int32_t value) {
  char text[16];
  snprintf(text, sizeof text, "%d", value);
  return PLRNetCfgAddAnswerString(db, key, text);
}

// Writes nothing when the stored boolean (absent counts as false) is already `value`.
bool PLRNetCfgAddAnswerBool(PLRNetworkConfigurationDB* db, const char* key, bool value) {
  bool current = false;
  PLRNetCfgGetAnswerBool(db, key, &current);
  if (current == value) return true;
  return PLRNetCfgAddAnswerString(db, key, value ? "yes" : "no");
}

// Removes an answer; removing an absent one succeeds and writes nothing.
bool PLRNetCfgRemoveAnswer(PLRNetworkConfigurationDB* db, const char* key) {
  PLRNetworkConfigurationDB* cache = plr::NetCfgCacheFor(db, __func__);
  if (cache == nullptr) return false;
  if (!cache->answers || key == nullptr) return true;
  if (strcmp(key, plr::kNetCfgBinDirKey) == 0) {
    PLOG(LOG_ERR, "Refusing to set %s: it comes only from %s", key, plr::kProductConfigPath);
    return false;
  }
  return plr::NetCfgGuarded(__func__, [&, fnName = __func__] {
    const plr::NetCfgAnswerTable::Entry* entry = cache->answers->Find(key);
    if (entry == nullptr) return true;
    return plr::NetCfgRemoveWithRollback(cache, plr::AnswerKind{key, nullptr, fnName},
                                         std::string(entry->value()));
  });
}

}  // extern "C"
