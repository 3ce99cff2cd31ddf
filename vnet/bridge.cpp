// Bridge mappings of host adapters and the sets of adapters bridged to a vnet.
// The mappings live in the default database (netcfg owns the table); the
// default bridge vnet is cached by the vnet settings layer.
#include "pelorus/bridge.h"

#include <string.h>
#include <strings.h>

#include "core/log.h"
#include "pelorus/netcfg.h"
#include "pelorus/services.h"
#include "pelorus/vnet.h"
#include "vnet/bridge-util.h"

namespace plr {

// Names beginning with "kavix" (any case) are the library's own adapters.
bool IsKavixAdapterName(const char* name) {
  return strncasecmp(name, "kavix", 5) == 0;
}

namespace {

// True when `list` already holds an element named `name` (any case).
bool ContainsAdapter(const PLR_HostAdapter* list, const char* name) {
  for (; list != nullptr; list = list->next)
    if (strncasecmp(list->name, name, sizeof list->name) == 0) return true;
  return false;
}

// Moves the host adapters that `vnet` gets from the default bridge into
// `result`, freeing the others. False when an adapter's mapping cannot be
// read; the caller then drops `result` as well.
bool MergeHostAdapters(const char* function, uint32_t vnet, AdapterList& hostList,
                       AdapterList& result, uint32_t* count) {
  while (!hostList.empty()) {
    AdapterList element(hostList.PopFront());
    const char* name = element.get()->name;
    PLOG_AS(function, LOG_INFO2, "Iterating adapter: %s", name);
    if (IsKavixAdapterName(name)) {
      PLOG_AS(function, LOG_INFO2, "Skipping kavix virtual adapter: %s", name);
      continue;
    }
    uint32_t mapped = PLR_VNET_NONE;
    if (!PLRGetBridgeMappingForAdapter(name, &mapped)) {
      PLOG_AS(function, LOG_ERR, "Failed to get the bridge mapping for host adapter: %s", name);
      return false;
    }
    if (vnet != PLR_VNET_ALL && mapped != vnet) {
      PLOG_AS(function, LOG_INFO2, "Removing adapter: %s not bridged to DefaultBridge", name);
      continue;
    }
    if (ContainsAdapter(result.get(), name)) {
      PLOG_AS(function, LOG_INFO2, "Removing duplicate adapter: %s", name);
      continue;
    }
    element.get()->netId = PLR_NetworkID{PLR_NETID_VERSION, PLR_NETID_TYPE_VNET, mapped};
    result.PushFront(element.release());
    ++*count;
  }
  return true;
}

}  // namespace
}  // namespace plr

extern "C" {

// The adapter's explicit mapping, else the default bridge vnet: where the
// adapter's traffic goes.
bool PLRGetBridgeMappingForAdapter(const char* name, uint32_t* vnet) {
  int32_t mapped = 0;
  if (PLRNetCfgLookupVnetForHostAdapter(nullptr, name, &mapped)) {
    *vnet = static_cast<uint32_t>(mapped);
    return true;
  }
  return PLRGetDefaultBridgeVnet(vnet);
}

// One explicit mapping in the default database (written through at once).
bool PLRSetBridgeMappingForAdapter(const char* name, uint32_t vnet) {
  return PLRNetCfgAddHostAdapterMapping(nullptr, name, static_cast<int32_t>(vnet), false);
}

// Maps every listed adapter; a failure does not stop the others, so the
// database ends as close to the request as it can.
bool PLRSetBridgeMappingForMultipleAdapters(uint32_t vnet, PLR_HostAdapter* list) {
  bool ok = true;
  for (PLR_HostAdapter* element = list; element != nullptr; element = element->next) {
    PLOG(LOG_INFO2, "Iterating adapter: %s", element->name);
    if (!PLRSetBridgeMappingForAdapter(element->name, vnet)) {
      PLOG(LOG_ERR, "Failed to set bridge mapping, vnet: %d, host adapter: %s",
           static_cast<int>(vnet), element->name);
      ok = false;
    }
  }
  return ok;
}

// The adapters bridged to `vnet` (or every adapter with PLR_VNET_ALL): the
// explicit mappings, plus the unmapped host adapters when the default bridge
// vnet is asked for.
bool PLRGetVnetBridge(uint32_t vnet, uint32_t* count, PLR_HostAdapter** list) {
  using namespace plr;
  uint32_t n = 0;
  AdapterList result;
  if (!PLRNetCfgLookupHostAdaptersForVnet(nullptr, vnet, &n, result.out(), false)) {
    PLOG(LOG_ERR, "Cannot get list of bridge mappings for vnet: %d", static_cast<int>(vnet));
    return false;
  }
  PLOG(LOG_INFO2, "Obtained list of %u adapters with bridge mapping configured for vnet: %d", n,
       static_cast<int>(vnet));
  uint32_t defaultBridge = PLR_VNET_NONE;
  if (!PLRGetDefaultBridgeVnet(&defaultBridge)) {
    PLOG(LOG_ERR, "Failed to get the value of default bridge");
    return false;
  }
  if (vnet == PLR_VNET_ALL || vnet == defaultBridge) {
    uint32_t hostCount = 0;
    AdapterList hostList;
    if (!PLRCreateHostAdapList(&hostCount, hostList.out())) {
      PLOG(LOG_ERR, "Error creating list of adapters on host");
      return false;
    }
    PLOG(LOG_INFO2, "Obtained list of %u host adapters from the system", hostCount);
    if (!MergeHostAdapters(__func__, vnet, hostList, result, &n)) return false;
  }
  if (count != nullptr) *count = n;
  *list = result.release();
  return true;
}

// Hands the adapters of `vnet` to the default bridge vnet. Used when a vnet
// stops bridging; every step is tried, the result tells whether all worked.
bool PLRRemoveBridgeMappingsForVnet(uint32_t vnet) {
  bool ok = true;
  uint32_t defaultBridge = PLR_VNET_NONE;
  if (!PLRGetDefaultBridgeVnet(&defaultBridge)) {
    PLOG(LOG_ERR, "Failed to get value of default bridge");
    ok = false;
    defaultBridge = PLR_VNET_NONE;
  }
  plr::AdapterList list;
  if (!PLRGetVnetBridge(vnet, nullptr, list.out())) {
    PLOG(LOG_ERR, "Failed to get list of adapters bridged to vnet: %d", static_cast<int>(vnet));
    ok = false;
  }
  if (vnet == defaultBridge) {
    defaultBridge = PLR_VNET_NONE;
    if (!PLRSetDefaultBridgeVnet(PLR_VNET_NONE)) {
      PLOG(LOG_ERR, "Failed to set value of default bridge");
      ok = false;
    }
  }
  if (!PLRSetBridgeMappingForMultipleAdapters(defaultBridge, list.get())) {
    PLOG(LOG_ERR, "Failed to set the bridge mapping for vnet: %d, host adapter: %s",
         static_cast<int>(defaultBridge), list.get()->name);
    ok = false;
  }
  if (defaultBridge < PLR_MAX_VNETS) {
    if (!PLRRestartService(defaultBridge, PLR_SERVICE_BRIDGE, nullptr, nullptr, false)) {
      PLOG(LOG_ERR, "Failed to restart bridge service on default bridge: %d",
           static_cast<int>(defaultBridge));
      return false;
    }
  }
  return ok;
}

}  // extern "C"
