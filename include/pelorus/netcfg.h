/*
 * The networking configuration database: caches, locking, answers and the
 * structured records. A NULL cache pointer always means the default cache.
 */
#ifndef PELORUS_NETCFG_H
#define PELORUS_NETCFG_H

#include "pelorus/types.h"

PLR_EXTERN_C_BEGIN

/* Loading, unloading, locking. */
PLR_EXPORT bool PLRNetCfgLoad(const char* path, PLRNetworkConfigurationDB** cacheOut, bool backup,
                              bool readOnly);
PLR_EXPORT bool PLRNetCfgUnload(PLRNetworkConfigurationDB** cache, bool compact);
PLR_EXPORT bool PLRNetCfgIsReadOnly(PLRNetworkConfigurationDB* db);
PLR_EXPORT bool PLRNetCfgLockConfig(PLRNetworkConfigurationDB* db);
PLR_EXPORT bool PLRNetCfgUnlockConfig(PLRNetworkConfigurationDB* db);

/* Answers. */
PLR_EXPORT bool PLRNetCfgGetAnswerString(PLRNetworkConfigurationDB* db, const char* key,
                                         const char** value);
PLR_EXPORT bool PLRNetCfgGetAnswerInt32(PLRNetworkConfigurationDB* db, const char* key,
                                        int32_t* value);
PLR_EXPORT bool PLRNetCfgGetAnswerBool(PLRNetworkConfigurationDB* db, const char* key, bool* value);
PLR_EXPORT bool PLRNetCfgAddAnswerString(PLRNetworkConfigurationDB* db, const char* key,
                                         const char* value);
PLR_EXPORT bool PLRNetCfgAddAnswerInt32(PLRNetworkConfigurationDB* db, const char* key,
                                        int32_t value);
PLR_EXPORT bool PLRNetCfgAddAnswerBool(PLRNetworkConfigurationDB* db, const char* key, bool value);
PLR_EXPORT bool PLRNetCfgRemoveAnswer(PLRNetworkConfigurationDB* db, const char* key);

/* NAT port forwards, per vnet and protocol, keyed by host port. */
PLR_EXPORT bool PLRNetCfgAddNATPortFwd(PLRNetworkConfigurationDB* db, uint32_t vnet, bool isTCP,
                                       uint16_t hostPort, const char* vmIP, uint16_t vmPort,
                                       const char* description, bool restoring);
PLR_EXPORT bool PLRNetCfgRemoveNATPortFwd(PLRNetworkConfigurationDB* db, uint32_t vnet, bool isTCP,
                                          uint16_t hostPort);
PLR_EXPORT bool PLRNetCfgLookupNATPortFwd(PLRNetworkConfigurationDB* db, uint32_t vnet, bool isTCP,
                                          uint16_t hostPort, char* ipBuffer, size_t ipBufferSize,
                                          uint16_t* vmPort, char* descBuffer, uint32_t* descLength);
PLR_EXPORT bool PLRNetCfgEnumNATPortFwd(PLRNetworkConfigurationDB* db, uint32_t vnet, bool isTCP,
                                        uint32_t* cursor, uint16_t* hostPort, char* ipBuffer,
                                        size_t ipBufferSize, uint16_t* vmPort, char* descBuffer,
                                        uint32_t* descLength);
PLR_EXPORT bool PLRNetCfgRemoveAllNATPortFwd(PLRNetworkConfigurationDB* db, uint32_t vnet, bool tcp,
                                             bool udp, bool writeRecords);

/* DHCP MAC-to-IP mappings, per vnet, keyed by the standardised MAC. */
PLR_EXPORT bool PLRNetCfgAddDHCPMACToIP(PLRNetworkConfigurationDB* db, uint32_t vnet,
                                        const char* mac, const char* ip, bool restoring);
PLR_EXPORT bool PLRNetCfgRemoveDHCPMACToIP(PLRNetworkConfigurationDB* db, uint32_t vnet,
                                           const char* mac);
PLR_EXPORT bool PLRNetCfgLookupDHCPMACToIP(PLRNetworkConfigurationDB* db, uint32_t vnet,
                                           const char* mac, char* ipBuffer, size_t ipBufferSize);
PLR_EXPORT bool PLRNetCfgEnumDHCPMACToIP(PLRNetworkConfigurationDB* db, uint32_t vnet,
                                         uint32_t* cursor, char* macBuffer, size_t macBufferSize,
                                         char* ipBuffer, size_t ipBufferSize);
PLR_EXPORT bool PLRNetCfgRemoveAllDHCPMACToIPMapping(PLRNetworkConfigurationDB* db, uint32_t vnet,
                                                     bool writeRecords);

/* Bridge mappings of host adapters; vnet -1 means bridged to nothing. */
PLR_EXPORT bool PLRNetCfgAddHostAdapterMapping(PLRNetworkConfigurationDB* db, const char* adapter,
                                               int32_t vnet, bool restoring);
PLR_EXPORT bool PLRNetCfgRemoveHostAdapterMapping(PLRNetworkConfigurationDB* db,
                                                  const char* adapter);
PLR_EXPORT bool PLRNetCfgLookupVnetForHostAdapter(PLRNetworkConfigurationDB* db,
                                                  const char* adapter, int32_t* vnet);
/* Returns a linked list of separately allocated elements (free it with
 * PLRFreeHostAdapList): the adapters mapped to `vnet` (every mapping when vnet
 * is PLR_VNET_ALL), or with `exclude` the adapters mapped to some other vnet.
 * With no mapping at all the list is empty and the call succeeds. */
PLR_EXPORT bool PLRNetCfgLookupHostAdaptersForVnet(PLRNetworkConfigurationDB* db, uint32_t vnet,
                                                   uint32_t* count, PLR_HostAdapter** list,
                                                   bool exclude);
PLR_EXPORT void PLRFreeHostAdapList(PLR_HostAdapter** head);

/* NAT IPv6 prefixes, per vnet. */
PLR_EXPORT bool PLRNetCfgAddNATPrefix(PLRNetworkConfigurationDB* db, uint32_t vnet,
                                      const char* prefix);
PLR_EXPORT bool PLRNetCfgRemoveNATPrefix(PLRNetworkConfigurationDB* db, uint32_t vnet,
                                         const char* prefix);
PLR_EXPORT bool PLRNetCfgLookupNATPrefix(PLRNetworkConfigurationDB* db, uint32_t vnet,
                                         const char* prefix);
PLR_EXPORT bool PLRNetCfgRemoveAllNATPrefix(PLRNetworkConfigurationDB* db, uint32_t vnet,
                                            bool writeRecords);
/* The vnet's prefix at *cursor (0 first) in byte order into buf, moving the
 * cursor on; false past the last one, or when buf is too small. */
PLR_EXPORT bool PLRNetCfgEnumNATPrefix(PLRNetworkConfigurationDB* db, uint32_t vnet,
                                       uint32_t* cursor, char* buf, size_t size);

PLR_EXTERN_C_END

#endif /* PELORUS_NETCFG_H */
