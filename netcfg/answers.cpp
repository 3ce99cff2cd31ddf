// Answers: string values under string keys, written through to the journal.
//
// A change is made in the table first and then appended; a failed append
// undoes the table change. Because an append that fails leaves nothing of
// its record in the file, a compensating record is written only for records
// that did land (the remove record of a replaced value), so the journal never
// holds a remove of a key it does not have.
#include <errno.h>
#include <string.h>
#include <strings.h>

#include <optional>

#include "base/str-util.h"
#include "netcfg/tables.h"

namespace plr {
namespace {

// Undoes a failed add: the table gets its old state back; the file gets a
// compensating record when part of the change reached it. A restoring call
// (itself an undo) leaves the table as it is.
bool RollbackAnswer(PLRNetworkConfigurationDB* db, std::string_view key, const char* value,
                    const std::optional<std::string>& oldValue, bool landed, bool restoring) {
  db->modified = true;  // the cache may now differ from the file; compaction settles it
  if (restoring) return false;
  bool mayHaveLanded = false;
  if (oldValue) {
    NetCfgHashAddAnswer(db, key, *oldValue);
    if (landed && !NetCfgAppendRecord(db, AnswerRecord(key, *oldValue), &mayHaveLanded))
      PLOG_AS("PLRNetCfgAddAnswerString", LOG_ERR, "Failed to restore previous values %s:%s",
              std::string(key).c_str(), oldValue->c_str());
    return false;
  }
  if (!NetCfgHashRemoveAnswer(db, key) ||
      (landed && !NetCfgAppendRecord(db, RemoveAnswerRecord(key), &mayHaveLanded)))
    PLOG_AS("PLRNetCfgAddAnswerString", LOG_ERR, "Failed to remove newly added record, %s:%s",
            std::string(key).c_str(), value);
  return false;
}

// Adds or replaces one answer. `restoring` marks a call that undoes another
// change: it never starts an undo of its own.
bool NetCfgAddAnswerStringInt(PLRNetworkConfigurationDB* db, const char* key, const char* value,
                              bool restoring) {
  const char* fn = "PLRNetCfgAddAnswerString";
  if (key == nullptr || !NetCfgIsToken(key) || value == nullptr || *value == '\0' ||
      !NetCfgIsLineText(value)) {
    PLOG_AS(fn, LOG_ERR, "Failed to add %s:%s to hash table", key ? key : "(null)",
            value ? value : "(null)");
    return false;
  }
  std::optional<std::string> oldValue;
  if (db->answers) {
    auto it = db->answers->find(std::string_view(key));
    if (it != db->answers->end()) oldValue = it->second.value;
  }
  if (!NetCfgHashAddAnswer(db, key, value)) {
    PLOG_AS(fn, LOG_ERR, "Failed to add %s:%s to hash table", key, value);
    return false;
  }
  if (db->readOnly) {
    db->modified = true;
    return true;
  }
  bool mayHaveLanded = false;
  if (oldValue && !NetCfgAppendRecord(db, RemoveAnswerRecord(key), &mayHaveLanded)) {
    PLOG_AS(fn, LOG_ERR, "Failed to remove: %s from database file, error: %s", key,
            strerror(errno));
    return RollbackAnswer(db, key, value, oldValue, mayHaveLanded, restoring);
  }
  if (!NetCfgAppendRecord(db, AnswerRecord(key, value), &mayHaveLanded)) {
    PLOG_AS(fn, LOG_ERR, "Failed to write to %s:%s to database file, error: %s", key, value,
            strerror(errno));
    return RollbackAnswer(db, key, value, oldValue, oldValue.has_value() || mayHaveLanded,
                          restoring);
  }
  return true;
}

}  // namespace
}  // namespace plr

extern "C" {

// Points *value at the cached string; FALSE without a log line when absent.
bool PLRNetCfgGetAnswerString(PLRNetworkConfigurationDB* db, const char* key, const char** value) {
  PLRNetworkConfigurationDB* cache = plr::NetCfgCacheFor(db, __func__);
  if (cache == nullptr || !cache->answers || key == nullptr) return false;
  auto it = cache->answers->find(std::string_view(key));
  if (it == cache->answers->end()) return false;
  if (value != nullptr) *value = it->second.value.c_str();
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
  if (value == nullptr) return PLRNetCfgRemoveAnswer(cache, key);
  return plr::NetCfgGuarded(
      __func__, [&] { return plr::NetCfgAddAnswerStringInt(cache, key, value, false); });
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
  return plr::NetCfgGuarded(__func__, [&, fnName = __func__] {
    auto it = cache->answers->find(std::string_view(key));
    if (it == cache->answers->end()) return true;
    std::string oldValue = it->second.value;
    if (!plr::NetCfgHashRemoveAnswer(cache, key)) {
      PLOG_AS(fnName, LOG_ERR, "Failed to remove \"%s\" from hash table", key);
      return false;
    }
    if (cache->readOnly) {
      cache->modified = true;
      return true;
    }
    bool mayHaveLanded = false;
    if (plr::NetCfgAppendRecord(cache, plr::RemoveAnswerRecord(key), &mayHaveLanded)) return true;
    PLOG_AS(fnName, LOG_ERR, "Failed to remove \"%s\" in database file", key);
    if (!plr::NetCfgHashAddAnswer(cache, key, oldValue))
      PLOG_AS(fnName, LOG_ERR, "Restoring %s:%s failed in hash table", key, oldValue.c_str());
    if (mayHaveLanded)
      plr::NetCfgAppendRecord(cache, plr::AnswerRecord(key, oldValue), &mayHaveLanded);
    return false;
  });
}

}  // extern "C"
