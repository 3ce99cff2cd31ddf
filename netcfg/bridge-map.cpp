// Bridge mappings of host adapters to vnets (-1: bridged to nothing), written
// through to the journal (through NetCfgAddWithRollback and
// NetCfgRemoveWithRollback), and the adapter lists built from them.
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <optional>

#include "netcfg/tables.h"

namespace plr {
namespace {

// A bridge mapping as a record kind of NetCfgAddWithRollback and
// NetCfgRemoveWithRollback; `vnet` is the added one.
struct BridgeKind {
  using Value = int32_t;
  const char* adapter;
  int32_t vnet;
  const char* function;

  std::optional<int32_t> Find(const PLRNetworkConfigurationDB* db) const {
    const int32_t* found = NetCfgFindBridge(db, adapter);
    return found != nullptr ? std::optional<int32_t>(*found) : std::nullopt;
  }
  bool Put(PLRNetworkConfigurationDB* db, int32_t v) const {
    return NetCfgHashAddBridge(db, adapter, v);
  }
  bool Erase(PLRNetworkConfigurationDB* db) const { return NetCfgHashRemoveBridge(db, adapter); }
  NetCfgRecord Record(int32_t v, bool add) const { return BridgeRecord(adapter, v, add); }
  void Log(NetCfgAddStep step, const int32_t* old) const {
    switch (step) {
      case NetCfgAddStep::kTable:
        PLOG_AS(function, LOG_ERR, "Failed to add Bridge mapping for adapter: %s to vnet: %d",
                adapter, vnet);
        break;
      case NetCfgAddStep::kRemoveOld:
        PLOG_AS(function, LOG_ERR,
                "Failed to remove bridge mapping for adapter: %s To vnet: %d from database file, "
                "error: %s",
                adapter, *old, strerror(errno));
        break;
      case NetCfgAddStep::kWriteNew:
        PLOG_AS(function, LOG_ERR,
                "Failed to write bridge for adapter: %s To vnet: %d to database file, error: %s",
                adapter, vnet, strerror(errno));
        break;
      case NetCfgAddStep::kRestoreOld:
        PLOG_AS(function, LOG_ERR,
                "Failed to restore previous values of Bridge mapping adapter: %s, vnet: %d",
                adapter, *old);
        break;
      case NetCfgAddStep::kRemoveNew:
        PLOG_AS(function, LOG_ERR, "Failed to remove newly added record, adapter: %s, vnet:%d",
                adapter, vnet);
        break;
    }
  }
  void Log(NetCfgRemoveStep step, int32_t old) const {
    switch (step) {
      case NetCfgRemoveStep::kTable:
        PLOG_AS(function, LOG_ERR,
                "Failed to remove Bridge mapping for adapter: %s from hash table", adapter);
        break;
      case NetCfgRemoveStep::kWrite:
        PLOG_AS(function, LOG_ERR,
                "Failed to remove Bridge mapping for adapter: %s from database file", adapter);
        break;
      case NetCfgRemoveStep::kRestore:
        PLOG_AS(function, LOG_ERR,
                "Failed to restore previous values of Bridge mapping, adapter: %s, vnet: %d",
                adapter, old);
        break;
    }
  }
};

// A separately allocated list element for a mapped adapter.
PLR_HostAdapter* NewAdapterElement(std::string_view name, int32_t vnet) {
  auto* element = static_cast<PLR_HostAdapter*>(calloc(1, sizeof(PLR_HostAdapter)));
  if (element == nullptr) return nullptr;
  element->version = PLR_HOSTADAPTER_VERSION;
  element->netId.version = PLR_NETID_VERSION;
  element->netId.netType = PLR_NETID_TYPE_VNET;
  element->netId.vnet = static_cast<uint32_t>(vnet);
  memcpy(element->name, name.data(), name.size());  // calloc left the terminator
  memcpy(element->displayName, name.data(), name.size());
  return element;
}

}  // namespace
}  // namespace plr

using namespace plr;

extern "C" {

// Maps `adapter` to `vnet` (0..255, or -1 for bridged to nothing).
bool PLRNetCfgAddHostAdapterMapping(PLRNetworkConfigurationDB* db, const char* adapter,
                                    int32_t vnet, bool restoring) {
  PLRNetworkConfigurationDB* cache = NetCfgCacheFor(db, __func__);
  if (cache == nullptr) return false;
  if (adapter == nullptr || !NetCfgIsValidAdapterName(adapter) || !NetCfgIsValidBridgeVnet(vnet)) {
    PLOG(LOG_ERR, "Failed to add Bridge mapping for adapter: %s to vnet: %d",
         adapter ? adapter : "(null)", vnet);
    return false;
  }
  const int32_t* found = NetCfgFindBridge(cache, adapter);
  if (found != nullptr && *found == vnet) {
    PLOG(LOG_INFO2, "New and old value vnet in the configuration are same: %d for adapter: %s",
         vnet, adapter);
    return true;
  }
  return NetCfgGuarded(__func__, [&, fnName = __func__] {
    return NetCfgAddWithRollback(cache, BridgeKind{adapter, vnet, fnName}, vnet, restoring);
  });
}

// Removes the mapping of `adapter`; absent is a failure.
bool PLRNetCfgRemoveHostAdapterMapping(PLRNetworkConfigurationDB* db, const char* adapter) {
  PLRNetworkConfigurationDB* cache = NetCfgCacheFor(db, __func__);
  if (cache == nullptr) return false;
  if (!cache->bridges) {
    PLOG(LOG_ERR, "Cannot delete mapping entry from empty mapping list");
    return false;
  }
  const int32_t* found = adapter != nullptr ? NetCfgFindBridge(cache, adapter) : nullptr;
  if (found == nullptr) {
    PLOG(LOG_ERR, "Failed to remove Bridge mapping for adapter: %s from hash table",
         adapter ? adapter : "(null)");
    return false;
  }
  const int32_t oldVnet = *found;
  return NetCfgGuarded(__func__, [&, fnName = __func__] {
    if (NetCfgRemoveWithRollback(cache, BridgeKind{adapter, oldVnet, fnName}, oldVnet)) return true;
    PLOG_AS(fnName, LOG_ERR, "Removing Bridge mapping failed");
    return false;
  });
}

// The vnet `adapter` is explicitly mapped to.
bool PLRNetCfgLookupVnetForHostAdapter(PLRNetworkConfigurationDB* db, const char* adapter,
                                       int32_t* vnet) {
  PLRNetworkConfigurationDB* cache = NetCfgCacheFor(db, __func__);
  if (cache == nullptr) return false;
  if (!cache->bridges) {
    PLOG(LOG_INFO2, "List of Bridge mappings is empty");
    return false;
  }
  const int32_t* found = adapter != nullptr ? NetCfgFindBridge(cache, adapter) : nullptr;
  if (found == nullptr) {
    PLOG(LOG_INFO2, "Cannot find mapping for adapter: %s in hash: %p", adapter ? adapter : "(null)",
         static_cast<void*>(cache->bridges.get()));
    return false;
  }
  PLOG(LOG_INFO2, "Found Bridge mapping entry: %p for adapter: %s", static_cast<const void*>(found),
       adapter);
  if (vnet != nullptr) *vnet = *found;
  return true;
}

// The adapters mapped to `vnet` (every mapping for PLR_VNET_ALL), or with
// `exclude` those mapped to another vnet, as a list of separately allocated
// elements in table order. No mapping at all gives an empty list.
bool PLRNetCfgLookupHostAdaptersForVnet(PLRNetworkConfigurationDB* db, uint32_t vnet,
                                        uint32_t* count, PLR_HostAdapter** list, bool exclude) {
  PLRNetworkConfigurationDB* cache = NetCfgCacheFor(db, __func__);
  if (cache == nullptr || count == nullptr || list == nullptr) return false;
  *count = 0;
  *list = nullptr;
  if (!cache->bridges || cache->bridges->empty()) {
    PLOG(LOG_INFO2, "List of bridge mappings is empty");
    return true;
  }
  std::vector<const NetCfgBridgeTable::Entry*> array;
  if (!NetCfgGuarded(__func__, [&] {
        array.reserve(cache->bridges->size());
        for (const auto& node : *cache->bridges) array.push_back(&node);
        return true;
      })) {
    PLOG(LOG_ERR, "Failure in creating array of Bridge mappings");
    return false;
  }
  PLOG(LOG_INFO2, "Created array of Bridge mappings");
  PLR_HostAdapter** tail = list;
  for (const auto* node : array) {
    PLOG(LOG_INFO2, "Entry in Array: %p", static_cast<const void*>(node));
    bool mapped = vnet == PLR_VNET_ALL || static_cast<uint32_t>(node->extra) == vnet;
    if (mapped == exclude) continue;
    if (node->keySize >= sizeof((*list)->name)) {
      PLOG(LOG_ERR, "Adapter: %s is longer than expected, skipping", node->keyText);
      continue;
    }
    PLR_HostAdapter* element = NewAdapterElement(node->key(), node->extra);
    if (element == nullptr) {
      PLOG(LOG_ERR, "Memory allocation failure");
      PLRFreeHostAdapList(list);
      *count = 0;
      return false;
    }
    *tail = element;
    tail = &element->next;
    ++*count;
  }
  return true;
}

// Frees every element of a list and leaves the head NULL.
void PLRFreeHostAdapList(PLR_HostAdapter** head) {
  if (head == nullptr) return;
  PLR_HostAdapter* element = *head;
  while (element != nullptr) {
    PLR_HostAdapter* next = element->next;
    free(element);
    element = next;
  }
  *head = nullptr;
}

}  // extern "C"
