// NAT IPv6 prefixes: one set per vnet. They live in the file only as
// appended records; the compacting rewrite does not carry them over.
#include <errno.h>
#include <string.h>

#include <algorithm>
#include <vector>

#include "netcfg/tables.h"

namespace plr {
namespace {

// A prefix of one vnet as a record kind of NetCfgRemoveWithRollback. A set
// holds no value under its key, so the value is the prefix itself.
struct PrefixKind {
  using Value = std::string;
  uint32_t vnet;
  const char* prefix;
  const char* function;

  bool Put(PLRNetworkConfigurationDB* db, const std::string& v) const {
    return NetCfgHashAddPrefix(db, vnet, v);
  }
  bool Erase(PLRNetworkConfigurationDB* db) const {
    return NetCfgHashRemovePrefix(db, vnet, prefix);
  }
  NetCfgRecord Record(const std::string& v, bool add) const { return PrefixRecord(vnet, v, add); }
  void Log(NetCfgRemoveStep step, const std::string&) const {
    switch (step) {
      case NetCfgRemoveStep::kTable:
        PLOG_AS(function, LOG_ERR, "Failed to remove NAT prefix for %s from hash table", prefix);
        break;
      case NetCfgRemoveStep::kWrite:
        PLOG_AS(function, LOG_ERR,
                "Failed to remove NAT prefix for %s from database file, error: %s", prefix,
                strerror(errno));
        break;
      case NetCfgRemoveStep::kRestore:
        PLOG_AS(function, LOG_ERR,
                "Failed to add back NAT prefix for %s from database file, error: %s", prefix,
                strerror(errno));
        break;
    }
  }
};

}  // namespace
}  // namespace plr

using namespace plr;

extern "C" {

// TRUE when the vnet's prefix table holds `prefix`.
bool PLRNetCfgLookupNATPrefix(PLRNetworkConfigurationDB* db, uint32_t vnet, const char* prefix) {
  PLRNetworkConfigurationDB* cache = NetCfgCacheFor(db, __func__);
  if (cache == nullptr) return false;
  if (vnet >= PLR_MAX_VNETS || !cache->prefixes[vnet]) {
    PLOG(LOG_ERR, "List of prefix is empty");
    return false;
  }
  NetCfgStringSet& table = *cache->prefixes[vnet];
  auto it = prefix != nullptr ? table.find(std::string_view(prefix)) : table.end();
  if (it == table.end()) {
    PLOG(LOG_INFO2, "Cannot find prefix entry: %s in hash: %p", prefix ? prefix : "(null)",
         static_cast<void*>(&table));
    return false;
  }
  PLOG(LOG_INFO2, "Found prefix entry: %p for prefix: %s", static_cast<const void*>(&*it), prefix);
  return true;
}

// Adds `prefix` to the vnet; an existing one succeeds with nothing written.
bool PLRNetCfgAddNATPrefix(PLRNetworkConfigurationDB* db, uint32_t vnet, const char* prefix) {
  PLRNetworkConfigurationDB* cache = NetCfgCacheFor(db, __func__);
  if (cache == nullptr) return false;
  if (vnet >= PLR_MAX_VNETS || prefix == nullptr || !NetCfgIsValidPrefix(prefix)) {
    PLOG(LOG_ERR, "Failed to add prefix: %s to record", prefix ? prefix : "(null)");
    return false;
  }
  if (NetCfgFindPrefix(cache, vnet, prefix)) return true;
  return NetCfgGuarded(__func__, [&, fnName = __func__] {
    if (!NetCfgHashAddPrefix(cache, vnet, prefix)) {
      PLOG_AS(fnName, LOG_ERR, "Failed to add prefix: %s to record", prefix);
      return false;
    }
    if (cache->readOnly) {
      cache->modified = true;
      return true;
    }
    bool mayHaveLanded = false;
    if (NetCfgWriteRecordToConfig(cache, PrefixRecord(vnet, prefix, true), &mayHaveLanded))
      return true;
    PLOG_AS(fnName, LOG_ERR, "Failed to add prefix record");
    NetCfgHashRemovePrefix(cache, vnet, prefix);
    if (mayHaveLanded)
      NetCfgWriteRecordToConfig(cache, PrefixRecord(vnet, prefix, false), &mayHaveLanded);
    return false;
  });
}

// Removes `prefix` from the vnet; absent fails with nothing written.
bool PLRNetCfgRemoveNATPrefix(PLRNetworkConfigurationDB* db, uint32_t vnet, const char* prefix) {
  PLRNetworkConfigurationDB* cache = NetCfgCacheFor(db, __func__);
  if (cache == nullptr || !PLRNetCfgLookupNATPrefix(cache, vnet, prefix)) return false;
  return NetCfgGuarded(__func__, [&, fnName = __func__] {
    return NetCfgRemoveWithRollback(cache, PrefixKind{vnet, prefix, fnName}, std::string(prefix));
  });
}

// Walks the prefixes in byte order; sets are small, so each step sorts.
bool PLRNetCfgEnumNATPrefix(PLRNetworkConfigurationDB* db, uint32_t vnet, uint32_t* cursor,
                            char* buf, size_t size) {
  PLRNetworkConfigurationDB* cache = NetCfgResolve(db);
  if (cache == nullptr || cursor == nullptr || vnet >= PLR_MAX_VNETS || !cache->prefixes[vnet])
    return false;
  std::vector<std::string_view> sorted(cache->prefixes[vnet]->begin(),
                                       cache->prefixes[vnet]->end());
  if (*cursor >= sorted.size()) return false;
  std::nth_element(sorted.begin(), sorted.begin() + *cursor, sorted.end());
  if (!NetCfgCopyOut(sorted[*cursor], buf, size)) return false;
  ++*cursor;
  return true;
}

// Drops the vnet's prefixes without writing any record. Never fails.
bool PLRNetCfgRemoveAllNATPrefix(PLRNetworkConfigurationDB* db, uint32_t vnet, bool writeRecords) {
  (void)writeRecords;  // prefixes are dropped from the cache only, by definition
  PLRNetworkConfigurationDB* cache = NetCfgResolve(db);
  if (cache != nullptr && vnet < PLR_MAX_VNETS) cache->prefixes[vnet].reset();
  return true;
}

}  // extern "C"
