/*
 * Service configuration files: the DHCP and NAT parameters with their
 * validation and computed defaults, the dhcpd.conf and nat.conf generators,
 * the nat.conf template texts, and the exported nat.conf reader.
 */
#ifndef PELORUS_SVCFILES_H
#define PELORUS_SVCFILES_H

#include "pelorus/types.h"

PLR_EXTERN_C_BEGIN

/* ---- DHCP parameters ---------------------------------------------------- */

/* Internal DHCP parameter identifiers; identifier minus PLR_DHCP_PARAM_BASE
 * indexes PLRDHCPParamIDToConfigOption and PLRDHCPParamIDToName. */
#define PLR_DHCP_PARAM_BASE 9538u
#define PLR_DHCP_PARAM_LEASE_BEGIN_IP 9542u
#define PLR_DHCP_PARAM_LEASE_END_IP 9543u
#define PLR_DHCP_PARAM_DEFAULT_LEASE_DURATION_SEC 9546u
#define PLR_DHCP_PARAM_MAX_LEASE_DURATION_SEC 9547u
#define PLR_DHCP_PARAM_BROADCAST_ADDR 9548u
#define PLR_DHCP_PARAM_DNS_ADDR 9549u
#define PLR_DHCP_PARAM_ROUTERS 9550u
#define PLR_DHCP_PARAM_DOMAIN_NAME 9551u
#define PLR_DHCP_PARAM_SUB_DEFAULT_LEASE_DURATION_SEC 9552u
#define PLR_DHCP_PARAM_SUB_MAX_LEASE_DURATION_SEC 9553u
#define PLR_DHCP_PARAM_NETBIOS 9554u
#define PLR_DHCP_PARAM_UNMAPPED 9555u    /* an external identifier without mapping */
#define PLR_DHCP_PARAM_UNSUPPORTED 9556u /* mapped, but no table row: always rejected */
#define PLR_DHCP_PARAM_TABLE_SIZE 18u

/* External (API) DHCP parameter identifiers accepted by PLRDHCPMapIntParamID. */
#define PLR_DHCP_EXT_PARAM_LEASE_BEGIN_IP 13350u
#define PLR_DHCP_EXT_PARAM_LEASE_END_IP 13351u
#define PLR_DHCP_EXT_PARAM_SUB_DEFAULT_LEASE_DURATION_SEC 13354u
#define PLR_DHCP_EXT_PARAM_SUB_MAX_LEASE_DURATION_SEC 13355u
#define PLR_DHCP_EXT_PARAM_UNSUPPORTED 13356u
#define PLR_DHCP_EXT_PARAM_DNS_ADDR 13357u
#define PLR_DHCP_EXT_PARAM_ROUTERS 13358u
#define PLR_DHCP_EXT_PARAM_NETBIOS 13362u

/* Per-vnet answer key (without the VNET_<n>_ prefix) and display name of every
 * DHCP parameter row; unused rows hold empty texts. */
PLR_EXPORT extern const char* const PLRDHCPParamIDToConfigOption[PLR_DHCP_PARAM_TABLE_SIZE];
PLR_EXPORT extern const char* const PLRDHCPParamIDToName[PLR_DHCP_PARAM_TABLE_SIZE];

PLR_EXPORT uint32_t PLRDHCPMapIntParamID(uint32_t externalId);
PLR_EXPORT bool PLRDHCPSetParameter(uint32_t vnet, uint32_t paramId, const char* value);
PLR_EXPORT bool PLRDHCPGetParameter(uint32_t vnet, uint32_t paramId, bool useDefault, char* buffer,
                                    size_t bufferSize);
PLR_EXPORT bool PLRDHCPGetParameterDefault(uint32_t vnet, uint32_t paramId, char* buffer,
                                           size_t bufferSize);
PLR_EXPORT bool PLRDHCPRemoveParameter(uint32_t vnet, uint32_t paramId);
PLR_EXPORT bool PLRDHCPRemoveDHCPConfig(uint32_t vnet);

/* dhcpd.conf generation, and writing or removing the DHCP files as the
 * vnet's DHCP setting says. */
PLR_EXPORT bool PLRDHCPWriteDHCPCfg(uint32_t vnet);
PLR_EXPORT bool PLRDHCPUpdateFromConfig(uint32_t vnet);

/* Static MAC-to-IP mappings of the vnet (the MAC in standard form). */
PLR_EXPORT bool PLRDHCPGetIPToMAC(uint32_t vnet, char* ipBuffer, size_t ipBufferSize,
                                  const char* mac);
PLR_EXPORT bool PLRDHCPSetIPToMAC(uint32_t vnet, const char* ip, const char* mac);
PLR_EXPORT bool PLRDHCPEnumIPToMAC(uint32_t vnet, uint32_t* enumOffset, char* ipBuffer,
                                   size_t ipBufferSize, char* macBuffer, size_t macBufferSize);

/* ---- NAT parameters ----------------------------------------------------- */

/* Internal NAT parameter identifiers; identifier minus PLR_NAT_PARAM_BASE
 * indexes PLRNATParamIDToConfigOption and PLRNATParamIDToName. */
#define PLR_NAT_PARAM_BASE 13858u
#define PLR_NAT_PARAM_GATEWAY_IP 13859u
#define PLR_NAT_PARAM_GATEWAY_NETMASK 13860u
#define PLR_NAT_PARAM_CONFIG_PORT 13862u
#define PLR_NAT_PARAM_ACTIVE_FTP 13863u
#define PLR_NAT_PARAM_ALLOW_ANY_OUI 13864u
#define PLR_NAT_PARAM_DEVICE 13865u
#define PLR_NAT_PARAM_UDP_TIMEOUT 13866u
#define PLR_NAT_PARAM_NOT_SUPPORTED 13867u
#define PLR_NAT_PARAM_NAT6 13868u
#define PLR_NAT_PARAM_NAT6_PREFIX 13869u
#define PLR_NAT_PARAM_TABLE_SIZE 12u

/* External (API) NAT parameter identifiers accepted by PLRNATMapIntParamID. */
#define PLR_NAT_EXT_PARAM_GATEWAY_IP 9027u
#define PLR_NAT_EXT_PARAM_CONFIG_PORT 9030u
#define PLR_NAT_EXT_PARAM_ACTIVE_FTP 9031u
#define PLR_NAT_EXT_PARAM_ALLOW_ANY_OUI 9032u
#define PLR_NAT_EXT_PARAM_UDP_TIMEOUT 9033u
#define PLR_NAT_EXT_PARAM_NAT6 9050u
#define PLR_NAT_EXT_PARAM_NAT6_PREFIX 9051u

PLR_EXPORT extern const char* const PLRNATParamIDToConfigOption[PLR_NAT_PARAM_TABLE_SIZE];
PLR_EXPORT extern const char* const PLRNATParamIDToName[PLR_NAT_PARAM_TABLE_SIZE];

PLR_EXPORT uint32_t PLRNATMapIntParamID(uint32_t externalId);
PLR_EXPORT bool PLRNATSetParameter(uint32_t vnet, uint32_t paramId, const char* value);
PLR_EXPORT bool PLRNATGetParameter(uint32_t vnet, uint32_t paramId, bool useDefault, char* buffer,
                                   size_t bufferSize);
PLR_EXPORT bool PLRNATGetParamDefault(uint32_t vnet, uint32_t paramId, char* buffer,
                                      size_t bufferSize);
PLR_EXPORT bool PLRNATRemoveParam(uint32_t vnet, uint32_t paramId);
PLR_EXPORT bool PLRNATRemoveConfig(uint32_t vnet);

/* nat.conf generation (or removal when the vnet does not use NAT). */
PLR_EXPORT bool PLRNATUpdateFromConfig(uint32_t vnet);

/* Port forwards: a NULL vmIP removes the forward of (isTCP, hostPort). */
PLR_EXPORT bool PLRNATSetPortForward(uint32_t vnet, int8_t isTCP, uint16_t hostPort,
                                     const char* vmIP, uint16_t vmPort, const char* description);
PLR_EXPORT bool PLRNATGetPortForward(uint32_t vnet, bool isTCP, uint16_t hostPort, char* ipBuffer,
                                     size_t ipBufferSize, uint16_t* vmPort, char* descBuffer,
                                     uint32_t* descLength);
PLR_EXPORT bool PLRNATEnumPortForward(uint32_t vnet, bool isTCP, uint32_t* enumOffset,
                                      uint16_t* hostPort, char* ipBuffer, size_t ipBufferSize,
                                      uint16_t* vmPort, char* descBuffer, uint32_t* descLength);

/* NAT IPv6 prefixes; descriptions are accepted but not stored. */
PLR_EXPORT bool PLRNATSetPrefix(uint32_t vnet, const char* prefix, const char* description,
                                uint32_t length);
PLR_EXPORT bool PLRNATGetPrefix(uint32_t vnet, const char* prefix, char* description,
                                uint32_t* length);

/* nat.conf template texts, shared with programs that produce or recognise
 * the same file. The *Param texts are printf formats. */
PLR_EXPORT extern const char PLRNATConfigFileHeader[];
PLR_EXPORT extern const char PLRNATConfigFileHostSectionHeader[];
PLR_EXPORT extern const char PLRNATConfigFileIPDesc[];
PLR_EXPORT extern const char PLRNATConfigFileIPParam[];
PLR_EXPORT extern const char PLRNATConfigFileNetmaskParam[];
PLR_EXPORT extern const char PLRNATConfigFileDeviceDesc[];
PLR_EXPORT extern const char PLRNATConfigFileDeviceParam[];
PLR_EXPORT extern const char PLRNATConfigFileActiveFTPDesc[];
PLR_EXPORT extern const char PLRNATConfigFileActiveFTPParam[];
PLR_EXPORT extern const char PLRNATConfigFileAllowAnyOUIDesc[];
PLR_EXPORT extern const char PLRNATConfigFileAllowAnyOUIParam[];
PLR_EXPORT extern const char PLRNATConfigHostDefaultOptions[];
PLR_EXPORT extern const char PLRNATConfigHostNat6DefaultOptions[];
PLR_EXPORT extern const char PLRNATConfigFileNat6Desc[];
PLR_EXPORT extern const char PLRNATConfigFileNat6Param[];
PLR_EXPORT extern const char PLRNATConfigFileNat6PrefixDesc[];
PLR_EXPORT extern const char PLRNATConfigFileNat6PrefixParam[];
PLR_EXPORT extern const char PLRNATConfigFileTCPSectionHeader[];
PLR_EXPORT extern const char PLRNATConfigFileTCPDefaultOptions[];
PLR_EXPORT extern const char PLRNATConfigFileUDPSectionHeader[];
PLR_EXPORT extern const char PLRNATConfigFileUDPTimeoutDesc[];
PLR_EXPORT extern const char PLRNATConfigFileUDPTimeoutParam[];
PLR_EXPORT extern const char PLRNATConfigFileNetbiosSectionHeader[];
PLR_EXPORT extern const char PLRNATConfigNetbiosDefaultOptions[];
PLR_EXPORT extern const char PLRNATConfigFileIncomingTCPSectionHeader[];
PLR_EXPORT extern const char PLRNATConfigFileIncomingTCPDesc[];
PLR_EXPORT extern const char PLRNATConfigFileIncomingUDPSectionHeader[];
PLR_EXPORT extern const char PLRNATConfigFileIncomingUDPDesc[];
PLR_EXPORT extern const char PLRNATConfigFilePortForwardParam[];

/* ---- nat.conf reader ---------------------------------------------------- */

/* Path of the file every reader call opens; set by the calling program (which
 * owns the text) before the first call. NULL makes every open fail. */
PLR_EXPORT extern const char* globalConfig;

/* Opaque iterator over the sections of the file or the items of one section. */
typedef struct NatCfgIterator NatCfgIterator;

/* Every returned text is newly allocated; the caller frees it with free(). */
PLR_EXPORT NatCfgIterator* NatCfgListSectionsInit(void);
PLR_EXPORT char* NatCfgListSections(NatCfgIterator* iter);
PLR_EXPORT void NatCfgListSectionsDestroy(NatCfgIterator* iter);
PLR_EXPORT NatCfgIterator* NatCfgListItemsInit(const char* section);
PLR_EXPORT char* NatCfgListItems(NatCfgIterator* iter, char** value, char** comment);
PLR_EXPORT void NatCfgListItemsDestroy(NatCfgIterator* iter);
PLR_EXPORT char* NatCfgGetItem(const char* section, const char* key);
PLR_EXPORT unsigned long NatCfgGetItemLong(const char* section, const char* key,
                                           unsigned long defaultValue);

PLR_EXTERN_C_END

#endif /* PELORUS_SVCFILES_H */
