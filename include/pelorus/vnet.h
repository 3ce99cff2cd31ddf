/*
 * Vnet settings: the per-vnet answers VNET_<n>_<KEY> of the default database
 * cache, vnet names and numbers, the cached default bridge vnet, automatic
 * assignment of a free host-only subnet, and the host-only adapter address.
 */
#ifndef PELORUS_VNET_H
#define PELORUS_VNET_H

#include "pelorus/types.h"

PLR_EXTERN_C_BEGIN

/* Options asked of PLRVnetIsOptionConfigured; any other code is "not configured". */
#define PLR_VNET_OPTION_BRIDGE 1u
#define PLR_VNET_OPTION_DHCP 2u
#define PLR_VNET_OPTION_NAT 3u
#define PLR_VNET_OPTION_VIRTUAL_ADAPTER 4u
#define PLR_VNET_OPTION_SUBNET 5u

/* Size of a vnet name buffer ("kavix255" and its NUL fit with room to spare). */
#define PLR_VNET_NAME_SIZE 20u

/* The cached default bridge vnet; PLR_VNET_ALL (-100) means not read yet. */
PLR_EXPORT extern uint32_t plrDefaultBridgeVnet;

/* Generic accessors of VNET_<vnet>_<key>. */
PLR_EXPORT const char* PLRGetVnetCfg(uint32_t vnet, const char* key);
PLR_EXPORT bool PLRGetVnetCfgCpy(uint32_t vnet, const char* key, char* buf, size_t* size);
PLR_EXPORT bool PLRGetVnetCfgBool(uint32_t vnet, const char* key);
PLR_EXPORT bool PLRSetVnetCfg(uint32_t vnet, const char* key, const char* value);
PLR_EXPORT bool PLRSetVnetCfgBool(uint32_t vnet, const char* key, bool value);
PLR_EXPORT bool PLRRemoveVnetCfg(uint32_t vnet, const char* key);

/* Named accessors; getters copy into `buf` of `size` bytes. */
PLR_EXPORT bool PLRGetVnetDisplayName(uint32_t vnet, char* buf, size_t size);
PLR_EXPORT bool PLRSetVnetDisplayName(uint32_t vnet, const char* text);
PLR_EXPORT bool PLRGetVnetSubnetAddr(uint32_t vnet, char* buf, size_t size);
PLR_EXPORT bool PLRSetVnetSubnetAddr(uint32_t vnet, const char* text);
PLR_EXPORT bool PLRRemoveVnetSubnetAddr(uint32_t vnet);
PLR_EXPORT bool PLRGetVnetSubnetMask(uint32_t vnet, char* buf, size_t size);
PLR_EXPORT bool PLRSetVnetSubnetMask(uint32_t vnet, const char* text);
PLR_EXPORT bool PLRRemoveVnetSubnetMask(uint32_t vnet);
PLR_EXPORT bool PLRRemoveSubnetAssignment(uint32_t vnet);
PLR_EXPORT bool PLRGetVnetMTU(uint32_t vnet, char* buf, size_t size);
PLR_EXPORT bool PLRSetVnetMTU(uint32_t vnet, const char* text);
PLR_EXPORT bool PLRRemoveVnetMTU(uint32_t vnet);
PLR_EXPORT bool PLRSetVnetVirtAdapterAddr(uint32_t vnet, const char* text);
PLR_EXPORT bool PLRRemoveVnetVirtAdapterAddr(uint32_t vnet);
PLR_EXPORT bool PLRGetVnetVirtAdapter(uint32_t vnet, char* buf, size_t size);
PLR_EXPORT bool PLRSetVnetVirtAdapter(uint32_t vnet, const char* name);
PLR_EXPORT bool PLRGetVnetUseDHCP(uint32_t vnet);
PLR_EXPORT bool PLRGetVnetUseNAT(uint32_t vnet);
PLR_EXPORT bool PLRSetVnetUseDHCP(uint32_t vnet, bool use, bool removeConfig);
PLR_EXPORT bool PLRSetVnetUseNAT(uint32_t vnet, bool use, bool removeConfig);
PLR_EXPORT bool PLRSetVnetUseAdapter(uint32_t vnet, bool use, bool removeConfig);
PLR_EXPORT bool PLRVnetIsOptionConfigured(uint32_t vnet, uint32_t option);

/* The default bridge vnet; a NULL `vnet` only loads the cache. */
PLR_EXPORT bool PLRGetDefaultBridgeVnet(uint32_t* vnet);
PLR_EXPORT bool PLRSetDefaultBridgeVnet(uint32_t vnet);

/* "kavix<n>" <-> n; the name buffer holds PLR_VNET_NAME_SIZE bytes. */
PLR_EXPORT uint32_t PLRConvVnetNameToNum(const char* name);
PLR_EXPORT bool PLRConvVnetNumToName(uint32_t vnet, char* buf);

/* Subnet assignment. Subnets are host-order integers or dotted text in
 * 16-byte buffers; assigned subnets are /24 private networks. */
PLR_EXPORT bool PLRGetHostOnlySubnet(uint32_t vnet, uint32_t* subnet);
PLR_EXPORT bool PLRPopulateUsedSubnets(void);
PLR_EXPORT bool PLRSubnetUsed(uint32_t subnet);
PLR_EXPORT bool PLRPopulateAvailSubnets(void);
PLR_EXPORT bool PLRShuffleAvailSubnets(void);
PLR_EXPORT bool PLRSubnetProbe(char* subnet, char* mask);
PLR_EXPORT bool PLRMarkSubnetUsed(const char* subnet, bool used);
PLR_EXPORT bool PLRPingAndCheckSubnet(const char* subnet, bool broadcast, uint32_t timeout,
                                      uint32_t interval);
PLR_EXPORT bool PLRAssignUnusedSubnetAddressToVNet(uint32_t vnet);

/* The host-only adapter's address: stored, or the subnet's first host. */
PLR_EXPORT bool PLRCalcVirtAdapAddr(const char* subnet, char* out);
PLR_EXPORT bool PLRGetVnetVirtAdapterAddr(uint32_t vnet, char* buf, size_t size,
                                          bool calculateDefault);

PLR_EXTERN_C_END

#endif /* PELORUS_VNET_H */
