// DHCP MAC-to-IP mappings: one table per vnet keyed by the standard form of
// the MAC, written through to the journal (through NetCfgAddWithRollback and
// NetCfgRemoveWithRollback).
#include <errno.h>
#include <string.h>

#include <algorithm>
#include <optional>

#include "netcfg/tables.h"

namespace plr {
namespace {

// A DHCP mapping as a record kind of NetCfgAddWithRollback and
// NetCfgRemoveWithRollback; `ip` is the added address (unused by a remove).
struct DhcpKind {
  using Value = ShortText;
  uint32_t vnet;
  const char* mac;  // standard form
  const char* ip;
  const char* function;

  std::optional<ShortText> Find(const PLRNetworkConfigurationDB* db) const {
    const ShortText* found = NetCfgFindDhcp(db, vnet, mac);
    return found != nullptr ? std::optional<ShortText>(*found) : std::nullopt;
  }
  bool Put(PLRNetworkConfigurationDB* db, const ShortText& v) const {
    return NetCfgHashAddDhcp(db, vnet, mac, v);
  }
  bool Erase(PLRNetworkConfigurationDB* db) const { return NetCfgHashRemoveDhcp(db, vnet, mac); }
  NetCfgRecord Record(const ShortText& v, bool add) const { return DhcpRecord(vnet, mac, v, add); }
  void Log(NetCfgAddStep step, const ShortText* old) const {
    switch (step) {
      case NetCfgAddStep::kTable:
        PLOG_AS(function, LOG_ERR, "Failed to add DHCP address mapping for MAC: %s To IP: %s", mac,
                ip);
        break;
      case NetCfgAddStep::kRemoveOld:
        PLOG_AS(function, LOG_ERR, "Failed to remove DHCP address mapping for MAC: %s To IP: %s",
                mac, old->c_str());
        break;
      case NetCfgAddStep::kWriteNew:
        PLOG_AS(function, LOG_ERR,
                "Failed to add DHCP address mapping record for MAC: %s To IP: %s", mac, ip);
        break;
      case NetCfgAddStep::kRestoreOld:
        PLOG_AS(function, LOG_ERR, "Failed to restore previous values %s:%s", mac, old->c_str());
        break;
      case NetCfgAddStep::kRemoveNew:
        PLOG_AS(function, LOG_ERR, "Failed to remove newly added record, %s:%s", mac, ip);
        break;
    }
  }
  void Log(NetCfgRemoveStep step, const ShortText& old) const {
    switch (step) {
      case NetCfgRemoveStep::kTable:
      case NetCfgRemoveStep::kWrite:
        PLOG_AS(function, LOG_ERR, "Failed to remove DHCP address mapping for MAC: %s", mac);
        break;
      case NetCfgRemoveStep::kRestore:
        PLOG_AS(function, LOG_ERR,
                "Failed to restore previous values of DHCP mapping, mac: %s, ip: %s", mac,
                old.c_str());
        break;
    }
  }
};

}  // namespace

const NetCfgDhcpArray* NetCfgDhcpInOrder(PLRNetworkConfigurationDB* db, uint32_t vnet) {
  const char* function = kDhcpEnumName;
  PLRNetworkConfigurationDB* cache = NetCfgCacheFor(db, function);
  if (cache == nullptr) return nullptr;
  if (vnet >= PLR_MAX_VNETS || !cache->dhcp[vnet]) {
    PLOG_AS(function, LOG_ERR, "List of mappings is empty");
    return nullptr;
  }
  DhcpVnetTable& table = *cache->dhcp[vnet];
  if (table.arrayValid) return &table.array;
  const bool built = NetCfgGuarded(function, [&] {
    table.array.clear();
    table.array.reserve(table.table.size());
    for (const auto& node : table.table) table.array.push_back(&node);
    return true;
  });
  if (!built) {
    PLOG_AS(function, LOG_ERR, "Failure in creating array of DHCP mappings");
    return nullptr;
  }
  table.arrayValid = true;
  PLOG_AS(function, LOG_INFO2, "Created array of DHCP mappings");
  return &table.array;
}

}  // namespace plr

using namespace plr;

extern "C" {

// Adds or replaces the mapping of `mac` (any accepted form) on `vnet`.
bool PLRNetCfgAddDHCPMACToIP(PLRNetworkConfigurationDB* db, uint32_t vnet, const char* mac,
                             const char* ip, bool restoring) {
  PLRNetworkConfigurationDB* cache = NetCfgCacheFor(db, __func__);
  if (cache == nullptr) return false;
  char standard[18];
  if (vnet >= PLR_MAX_VNETS || mac == nullptr || !StandardizeMACText(mac, standard) ||
      ip == nullptr || !IsValidIPText(ip)) {
    PLOG(LOG_ERR, "Failed to add DHCP address mapping for MAC: %s To IP: %s", mac ? mac : "(null)",
         ip ? ip : "(null)");
    return false;
  }
  return NetCfgGuarded(__func__, [&, fnName = __func__] {
    return NetCfgAddWithRollback(cache, DhcpKind{vnet, standard, ip, fnName}, ShortText(ip),
                                 restoring);
  });
}

// Removes the mapping of `mac` on `vnet`; absent is a failure.
bool PLRNetCfgRemoveDHCPMACToIP(PLRNetworkConfigurationDB* db, uint32_t vnet, const char* mac) {
  PLRNetworkConfigurationDB* cache = NetCfgCacheFor(db, __func__);
  if (cache == nullptr) return false;
  char standard[18];
  const ShortText* found = nullptr;
  if (mac != nullptr && StandardizeMACText(mac, standard))
    found = NetCfgFindDhcp(cache, vnet, standard);
  if (found == nullptr) {
    PLOG(LOG_ERR, "Failed to remove DHCP address mapping for MAC: %s", mac ? mac : "(null)");
    return false;
  }
  return NetCfgGuarded(__func__, [&, fnName = __func__] {
    return NetCfgRemoveWithRollback(cache, DhcpKind{vnet, standard, nullptr, fnName},
                                    ShortText(*found));
  });
}

// Copies out the IP address mapped to `mac` on `vnet`.
bool PLRNetCfgLookupDHCPMACToIP(PLRNetworkConfigurationDB* db, uint32_t vnet, const char* mac,
                                char* ipBuffer, size_t ipBufferSize) {
  PLRNetworkConfigurationDB* cache = NetCfgCacheFor(db, __func__);
  if (cache == nullptr) return false;
  if (vnet >= PLR_MAX_VNETS || !cache->dhcp[vnet]) {
    PLOG(LOG_ERR, "List of DHCP mappings is empty");
    return false;
  }
  DhcpVnetTable* table = cache->dhcp[vnet].get();
  char standard[18];
  const ShortText* ip = nullptr;
  if (mac != nullptr && StandardizeMACText(mac, standard))
    ip = NetCfgFindDhcp(cache, vnet, standard);
  if (ip == nullptr) {
    PLOG(LOG_INFO2, "Cannot find mapping for MAC: %s in hash: %p", mac ? mac : "(null)",
         static_cast<void*>(table));
    return false;
  }
  PLOG(LOG_INFO2, "Found DHCP entry: %p for MAC: %s", static_cast<const void*>(ip), standard);
  if (!NetCfgCopyOut(*ip, ipBuffer, ipBufferSize)) {
    PLOG(LOG_ERR, "Insufficient buffer size: %zu for IP address: %s", ipBufferSize, ip->c_str());
    return false;
  }
  return true;
}

// One step of a cursor walk over the cached array of a vnet's mappings.
bool PLRNetCfgEnumDHCPMACToIP(PLRNetworkConfigurationDB* db, uint32_t vnet, uint32_t* cursor,
                              char* macBuffer, size_t macBufferSize, char* ipBuffer,
                              size_t ipBufferSize) {
  if (cursor == nullptr) {
    NetCfgCacheFor(db, __func__);  // says so when nothing is loaded
    return false;
  }
  const NetCfgDhcpArray* array = NetCfgDhcpInOrder(db, vnet);
  if (array == nullptr) return false;
  if (*cursor >= array->size()) {
    PLOG(LOG_INFO2, "No mappings to enumerate");
    return false;
  }
  const auto& [key, ip] = *(*array)[*cursor];
  NetCfgPrefetchAhead(*array, *cursor);
  if (!NetCfgCopyOut(key.view(), macBuffer, macBufferSize)) {
    PLOG(LOG_ERR, "Insufficient buffer size: %zu for MAC address: %s", macBufferSize, key.c_str());
    return false;
  }
  if (!NetCfgCopyOut(ip, ipBuffer, ipBufferSize)) {
    PLOG(LOG_ERR, "Insufficient buffer size: %zu for IP address: %s", ipBufferSize, ip.c_str());
    return false;
  }
  ++*cursor;
  return true;
}

// Drops a vnet's mappings, optionally journaling a remove record for each
// (in MAC order). Never fails.
bool PLRNetCfgRemoveAllDHCPMACToIPMapping(PLRNetworkConfigurationDB* db, uint32_t vnet,
                                          bool writeRecords) {
  PLRNetworkConfigurationDB* cache = NetCfgResolve(db);
  if (cache == nullptr || vnet >= PLR_MAX_VNETS || !cache->dhcp[vnet]) return true;
  if (writeRecords && !cache->readOnly) {
    bool allWritten = NetCfgGuarded(__func__, [&] {
      std::vector<const DhcpVnetTable::Table::value_type*> nodes;
      for (const auto& node : cache->dhcp[vnet]->table) nodes.push_back(&node);
      std::sort(nodes.begin(), nodes.end(),
                [](auto* a, auto* b) { return a->first.view() < b->first.view(); });
      bool ok = true;
      for (const auto* node : nodes) {
        bool mayHaveLanded = false;
        ok =
            NetCfgWriteRecordToConfig(
                cache, DhcpRecord(vnet, node->first.view(), node->second, false), &mayHaveLanded) &&
            ok;
      }
      return ok;
    });
    if (!allWritten) PLOG(LOG_WRN, "All the DHCP mappings could not be deleted");
  }
  cache->dhcp[vnet].reset();
  return true;
}

}  // extern "C"
