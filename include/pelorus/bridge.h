/*
 * Bridging of host Ethernet adapters to vnets and the enumeration of host
 * adapters.
 *
 * Which adapter serves which vnet is decided by the explicit bridge mappings
 * of the database (adapter name -> vnet, -1 meaning bridged to nothing) and by
 * the default bridge vnet, which takes every adapter without a mapping of its
 * own. Adapters named "kavix..." (any case) are the library's own virtual
 * adapters and are never bridged nor listed.
 *
 * Lists of PLR_HostAdapter built by the PLR... functions below are linked
 * lists of separately allocated elements, released with PLRFreeHostAdapList
 * (declared in pelorus/netcfg.h). The exported PLR_HostAdapterList is one
 * block (header followed by its elements) released with
 * PLR_FreeHostAdapterList or a plain free().
 */
#ifndef PELORUS_BRIDGE_H
#define PELORUS_BRIDGE_H

#include "pelorus/types.h"

PLR_EXTERN_C_BEGIN

/* Enumerates the host's Ethernet adapters over a netlink route socket, with
 * the driver name of each. The elements' netId stays zero. Names of 16
 * characters or more are left out. */
PLR_EXPORT bool PLRCreateHostAdapList(uint32_t* count, PLR_HostAdapter** head);

/* The adapter's explicit mapping, or the default bridge vnet without one. */
PLR_EXPORT bool PLRGetBridgeMappingForAdapter(const char* name, uint32_t* vnet);

/* Maps the adapter to `vnet` in the default database; PLR_VNET_NONE records
 * the adapter as bridged to nothing. */
PLR_EXPORT bool PLRSetBridgeMappingForAdapter(const char* name, uint32_t vnet);

/* Maps every element's name to `vnet`, going on after a failure; true only
 * when every mapping succeeded (an empty list is true). */
PLR_EXPORT bool PLRSetBridgeMappingForMultipleAdapters(uint32_t vnet, PLR_HostAdapter* list);

/* The adapters bridged to `vnet`: its explicit mappings, plus every unmapped
 * host Ethernet adapter when it is the default bridge vnet. With PLR_VNET_ALL,
 * every mapping and every host adapter with its effective vnet. `count` may be
 * NULL. Free the list with PLRFreeHostAdapList. */
PLR_EXPORT bool PLRGetVnetBridge(uint32_t vnet, uint32_t* count, PLR_HostAdapter** list);

/* Hands the adapters bridged to `vnet` over to the default bridge vnet (which
 * becomes "none" when it was `vnet` itself) and restarts the bridge daemon of
 * the default bridge vnet. */
PLR_EXPORT bool PLRRemoveBridgeMappingsForVnet(uint32_t vnet);

/* The default bridge vnet; out->version must be 1 on entry. vnet
 * PLR_VNET_NONE means there is no default bridge. */
PLR_EXPORT bool PLR_GetBridgeDefaultNetwork(PLR_NetworkID* out);

/* Makes vnet 0 or PLR_VNET_NONE the default bridge vnet (no other vnet can
 * be), keeping every adapter on the vnet it was bridged to, and restarts the
 * bridge daemons of the old and the new default. All or nothing. */
PLR_EXPORT bool PLR_SetBridgeDefaultNetwork(const PLR_NetworkID* in);

/* Every host Ethernet adapter and every mapped adapter with the vnet it is
 * bridged to, as one block. `version` must be 1. Release with
 * PLR_FreeHostAdapterList. */
PLR_EXPORT bool PLR_GetHostAdapterList(uint32_t version, PLR_HostAdapterList** out);

/* Releases a list from PLR_GetHostAdapterList; NULL is fine. Needs no loaded
 * library. */
PLR_EXPORT void PLR_FreeHostAdapterList(PLR_HostAdapterList* list);

/* Bridges adapter->name to `destination` (the default bridge vnet when NULL).
 * When `source` is given the adapter must currently be bridged to it. The
 * adapter previously bridged to the destination moves to the default bridge
 * vnet, and the bridge daemons concerned are restarted. All or nothing. */
PLR_EXPORT bool PLR_BridgeMoveAdapter(const PLR_HostAdapter* adapter, const PLR_NetworkID* source,
                                      const PLR_NetworkID* destination);

PLR_EXTERN_C_END

#endif /* PELORUS_BRIDGE_H */
