// NAT port forwards: per vnet, a TCP and a UDP table keyed by host port,
// written through to the journal (through NetCfgAddWithRollback and
// NetCfgRemoveWithRollback).
#include <errno.h>
#include <string.h>

#include <algorithm>
#include <optional>

#include "netcfg/tables.h"
#include "pelorus/core.h"
#include "pelorus/dbapi.h"

namespace plr {
namespace {

// The description as the lookup and enumeration hand it out; the given
// length then becomes its length plus 2, 0 when there is none. The lookup
// copies a description that fits with its terminator; the enumeration keeps
// its older rule and wants one byte more (`spare`).
bool CopyDescription(const ShortText& description, char* buf, uint32_t* length, size_t spare,
                     const char* function) {
  if (description.empty()) {
    *length = 0;
    if (buf != nullptr) buf[0] = '\0';
    return true;
  }
  if (buf == nullptr || description.size() + 1 + spare > *length) {
    PLOG_AS(function, LOG_ERR, "Insufficient buffer length for description");
    return false;
  }
  memcpy(buf, description.c_str(), description.size() + 1);
  *length = static_cast<uint32_t>(description.size() + 2);
  return true;
}

// The failure line of a remove that finds nothing to take out of the table.
void LogNotRemoved(const char* function, bool isTCP, uint16_t hostPort) {
  PLOG_AS(function, LOG_ERR, "Failed to remove NAT port forward for %s port %u from hash table",
          NetCfgProtoName(isTCP), hostPort);
}

// A port forward as a record kind of NetCfgAddWithRollback and
// NetCfgRemoveWithRollback; `entry` is the one added or removed.
struct PortFwdKind {
  using Value = NATPortFwdEntry;
  const NATPortFwdEntry& entry;
  const char* function;

  std::optional<NATPortFwdEntry> Find(const PLRNetworkConfigurationDB* db) const {
    const NATPortFwdEntry* found = NetCfgFindPortFwd(db, entry.vnet, entry.isTCP, entry.hostPort);
    return found != nullptr ? std::optional<NATPortFwdEntry>(*found) : std::nullopt;
  }
  bool Put(PLRNetworkConfigurationDB* db, const NATPortFwdEntry& v) const {
    return NetCfgHashAddPortFwd(db, v);
  }
  bool Erase(PLRNetworkConfigurationDB* db) const {
    return NetCfgHashRemovePortFwd(db, entry.vnet, entry.isTCP, entry.hostPort);
  }
  NetCfgRecord Record(const NATPortFwdEntry& v, bool add) const { return PortFwdRecord(v, add); }
  void Log(NetCfgAddStep step, const NATPortFwdEntry* old) const {
    const char* proto = NetCfgProtoName(entry.isTCP);
    switch (step) {
      case NetCfgAddStep::kTable:
      case NetCfgAddStep::kWriteNew:
        PLOG_AS(function, LOG_ERR, "Failed to add port forward record for %s port %u", proto,
                entry.hostPort);
        break;
      case NetCfgAddStep::kRemoveOld:
        PLOG_AS(function, LOG_ERR, "Failed to remove port forward record for %s port %u", proto,
                entry.hostPort);
        break;
      case NetCfgAddStep::kRestoreOld:
        PLOG_AS(function, LOG_ERR,
                "Failed to restore previous values, vnet: %u, %s, port %u, vmip: %s, vmPort: %u",
                old->vnet, proto, old->hostPort, old->vmIP.c_str(), old->vmPort);
        break;
      case NetCfgAddStep::kRemoveNew:
        PLOG_AS(function, LOG_ERR,
                "Failed to remove newly added record, vnet: %u, %s, port %u, vmip: %s, vmPort: %u",
                entry.vnet, proto, entry.hostPort, entry.vmIP.c_str(), entry.vmPort);
        break;
    }
  }
  void Log(NetCfgRemoveStep step, const NATPortFwdEntry& old) const {
    const char* proto = NetCfgProtoName(old.isTCP);
    switch (step) {
      case NetCfgRemoveStep::kTable:
        LogNotRemoved(function, old.isTCP, old.hostPort);
        break;
      case NetCfgRemoveStep::kWrite:
        PLOG_AS(function, LOG_ERR,
                "Failed to remove NAT port forward for %s port %u from database file, error: %s",
                proto, old.hostPort, strerror(errno));
        break;
      case NetCfgRemoveStep::kRestore:
        PLOG_AS(function, LOG_ERR,
                "Failed to restore previous value for NAT port  forward record, vnet: %u, \"%s\", "
                "hostPort: %u, vmIP: %s vmPort: %u, desc.: %s",
                old.vnet, proto, old.hostPort, old.vmIP.c_str(), old.vmPort,
                old.description.c_str());
        break;
    }
  }
};

// Builds the enumeration array of a group from its table when it has none.
bool EnsureArray(NATPortFwdGroup& group, const char* function) {
  if (group.arrayValid) return true;
  group.array.clear();
  group.array.reserve(group.table->size());
  for (const auto& [port, entry] : *group.table) group.array.push_back(&entry);
  group.arrayValid = true;
  PLOG_AS(function, LOG_INFO2, "Created array of forwarded ports");
  return true;
}

}  // namespace

const std::vector<const NATPortFwdEntry*>* NetCfgPortFwdsInOrder(PLRNetworkConfigurationDB* db,
                                                                 uint32_t vnet, bool isTCP) {
  const char* function = kPortFwdEnumName;
  PLRNetworkConfigurationDB* cache = NetCfgCacheFor(db, function);
  if (cache == nullptr) return nullptr;
  if (vnet >= PLR_MAX_VNETS || !cache->portFwds[vnet] ||
      !cache->portFwds[vnet]->group(isTCP).table) {
    PLOG_AS(function, LOG_ERR, "List of forwarded ports is empty");
    return nullptr;
  }
  NATPortFwdGroup& group = cache->portFwds[vnet]->group(isTCP);
  if (!NetCfgGuarded(function, [&] { return EnsureArray(group, function); })) {
    PLOG_AS(function, LOG_ERR, "Failed to create array of forwarded ports");
    return nullptr;
  }
  return &group.array;
}

}  // namespace plr

using namespace plr;

extern "C" {

// Adds or replaces the forward of (vnet, protocol, host port).
bool PLRNetCfgAddNATPortFwd(PLRNetworkConfigurationDB* db, uint32_t vnet, bool isTCP,
                            uint16_t hostPort, const char* vmIP, uint16_t vmPort,
                            const char* description, bool restoring) {
  PLRNetworkConfigurationDB* cache = NetCfgCacheFor(db, __func__);
  if (cache == nullptr) return false;
  return NetCfgGuarded(__func__, [&, fnName = __func__] {
    std::string_view desc = description != nullptr ? description : "";
    if (vnet >= PLR_MAX_VNETS || hostPort == 0 || vmPort == 0 || vmIP == nullptr ||
        !IsValidIPText(vmIP) || !NetCfgIsLineText(desc)) {
      PLOG_AS(fnName, LOG_ERR, "Failed to add port forward record for %s port %u",
              NetCfgProtoName(isTCP), hostPort);
      return false;
    }
    if (desc.size() > kNetCfgMaxDescription) {
      PLOG_AS(fnName, LOG_ERR, "Discarding description since it is too long");
      desc = {};
    }
    NATPortFwdEntry entry;
    entry.vnet = static_cast<uint16_t>(vnet);  // checked above
    entry.isTCP = isTCP;
    entry.hostPort = hostPort;
    entry.vmIP.assign(vmIP);
    entry.vmPort = vmPort;
    entry.description.assign(desc);
    return NetCfgAddWithRollback(cache, PortFwdKind{entry, fnName}, entry, restoring);
  });
}

// Removes the forward of (vnet, protocol, host port); absent is a failure.
bool PLRNetCfgRemoveNATPortFwd(PLRNetworkConfigurationDB* db, uint32_t vnet, bool isTCP,
                               uint16_t hostPort) {
  PLRNetworkConfigurationDB* cache = NetCfgCacheFor(db, __func__);
  if (cache == nullptr) return false;
  return NetCfgGuarded(__func__, [&, fnName = __func__] {
    const NATPortFwdEntry* found = NetCfgFindPortFwd(cache, vnet, isTCP, hostPort);
    if (found == nullptr) {
      LogNotRemoved(fnName, isTCP, hostPort);
      return false;
    }
    const NATPortFwdEntry old = *found;
    return NetCfgRemoveWithRollback(cache, PortFwdKind{old, fnName}, old);
  });
}

// Copies out the forward of (vnet, protocol, host port).
bool PLRNetCfgLookupNATPortFwd(PLRNetworkConfigurationDB* db, uint32_t vnet, bool isTCP,
                               uint16_t hostPort, char* ipBuffer, size_t ipBufferSize,
                               uint16_t* vmPort, char* descBuffer, uint32_t* descLength) {
  PLRNetworkConfigurationDB* cache = NetCfgCacheFor(db, __func__);
  if (cache == nullptr) return false;
  const NATPortFwdEntry* entry = NetCfgFindPortFwd(cache, vnet, isTCP, hostPort);
  if (entry == nullptr) return false;
  PLOG(LOG_INFO2, "Port Fwd Lookup succeeded: %s:%u for %u, %s", entry->vmIP.c_str(), entry->vmPort,
       hostPort, NetCfgProtoName(isTCP));
  if (!NetCfgCopyOut(entry->vmIP, ipBuffer, ipBufferSize)) {
    PLOG(LOG_ERR, "Insufficient buffer length: %zu for IP address: %s", ipBufferSize,
         entry->vmIP.c_str());
    return false;
  }
  if (vmPort != nullptr) *vmPort = entry->vmPort;
  if (descLength != nullptr &&
      !CopyDescription(entry->description, descBuffer, descLength, 0, __func__))
    return false;
  return true;
}

// One step of a cursor walk over the cached array of a protocol's forwards.
bool PLRNetCfgEnumNATPortFwd(PLRNetworkConfigurationDB* db, uint32_t vnet, bool isTCP,
                             uint32_t* cursor, uint16_t* hostPort, char* ipBuffer,
                             size_t ipBufferSize, uint16_t* vmPort, char* descBuffer,
                             uint32_t* descLength) {
  if (cursor == nullptr) {
    NetCfgCacheFor(db, __func__);  // says so when nothing is loaded
    return false;
  }
  const std::vector<const NATPortFwdEntry*>* array = NetCfgPortFwdsInOrder(db, vnet, isTCP);
  if (array == nullptr) return false;
  if (*cursor >= array->size()) {
    PLOG(LOG_INFO2, "No ports to enumerate");
    return false;
  }
  const NATPortFwdEntry* entry = (*array)[*cursor];
  NetCfgPrefetchAhead(*array, *cursor);
  if (hostPort != nullptr) *hostPort = entry->hostPort;
  if (!NetCfgCopyOut(entry->vmIP, ipBuffer, ipBufferSize)) {
    PLOG(LOG_ERR, "Insufficient buffer length: %zu for IP address: %s", ipBufferSize,
         entry->vmIP.c_str());
    return false;
  }
  if (vmPort != nullptr) *vmPort = entry->vmPort;
  if (descBuffer != nullptr && descLength != nullptr &&
      !CopyDescription(entry->description, descBuffer, descLength, 1, __func__))
    return false;
  ++*cursor;
  return true;
}

// Drops the selected protocols' tables of a vnet, optionally journaling a
// remove record per entry (in host-port order). Never fails.
bool PLRNetCfgRemoveAllNATPortFwd(PLRNetworkConfigurationDB* db, uint32_t vnet, bool tcp, bool udp,
                                  bool writeRecords) {
  PLRNetworkConfigurationDB* cache = NetCfgResolve(db);
  if (cache == nullptr || vnet >= PLR_MAX_VNETS || !cache->portFwds[vnet]) return true;
  NATVnetPortFwdConfig& holder = *cache->portFwds[vnet];
  for (bool isTCP : {true, false}) {
    if (!(isTCP ? tcp : udp)) continue;
    NATPortFwdGroup& group = holder.group(isTCP);
    if (!group.table) continue;
    if (writeRecords && !cache->readOnly) {
      bool allWritten = NetCfgGuarded(__func__, [&] {
        std::vector<uint16_t> ports;
        ports.reserve(group.table->size());
        for (const auto& [port, entry] : *group.table) ports.push_back(port);
        std::sort(ports.begin(), ports.end());
        bool ok = true;
        for (uint16_t port : ports) {
          bool mayHaveLanded = false;
          ok = NetCfgWriteRecordToConfig(cache, PortFwdRecord(group.table->at(port), false),
                                         &mayHaveLanded) &&
               ok;
        }
        return ok;
      });
      if (!allWritten)
        PLOG(LOG_WRN, isTCP ? "All the forwarded TCP ports could not be deleted"
                            : "All the forwarded UDP ports could not be deleted");
    }
    group.table.reset();
    group.array.clear();
    group.array.shrink_to_fit();
    group.arrayValid = false;
  }
  if (!holder.groups[0].table && !holder.groups[1].table) cache->portFwds[vnet].reset();
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
  auto tableOf = [isTCP](const NATVnetPortFwdConfig* holder) -> const NATPortFwdTable* {
    if (holder == nullptr || !holder->group(isTCP).table) return nullptr;
    return &*holder->group(isTCP).table;
  };
  const NATPortFwdTable* newTable = tableOf(newHolder);
  const NATPortFwdTable* oldTable = tableOf(oldHolder);
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
