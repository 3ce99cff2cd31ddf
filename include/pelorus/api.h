/*
 * The public per-vnet API: vnet properties, DHCP and NAT, host-only adapters
 * and service daemons. Every function takes the vnet by its name ("kavix8"),
 * returns TRUE on success and logs the reason of a failure.
 *
 * Length conventions: in/out lengths carry the buffer size in and the result
 * length out. The display name reports its length without the NUL; every
 * address, mask, parameter and MAC getter reports the length plus one.
 */
#ifndef PELORUS_API_H
#define PELORUS_API_H

#include "pelorus/types.h"

PLR_EXTERN_C_BEGIN

/* Service types of PLR_StartService, PLR_StopService and PLR_GetServiceStatus. */
#define PLR_SERVICE_TYPE_BRIDGE 0x8801u
#define PLR_SERVICE_TYPE_DHCP 0x8802u
#define PLR_SERVICE_TYPE_NAT 0x8803u
#define PLR_SERVICE_TYPE_NETIFUP 0x8804u

/* Minimum buffer sizes of the getters. */
#define PLR_DISPLAY_NAME_MIN_LEN 128u
#define PLR_IP_ADDR_MIN_LEN 16u
#define PLR_MAC_ADDR_MIN_LEN 18u
#define PLR_DESCRIPTION_MAX_LEN 127u

/* Vnet properties. */
PLR_EXPORT bool PLR_GetVnetDisplayName(const char* vnetName, char* name, uint32_t* nameLen);
PLR_EXPORT bool PLR_SetVnetDisplayName(const char* vnetName, const char* displayName);
PLR_EXPORT bool PLR_AssignSubnetAddressToVnet(const char* vnetName, bool overwriteExisting);
PLR_EXPORT bool PLR_GetVnetSubnetAddr(const char* vnetName, char* addr, uint32_t* addrLen);
PLR_EXPORT bool PLR_SetVnetSubnetAddr(const char* vnetName, const char* subnetAddr);
PLR_EXPORT bool PLR_GetVnetSubnetMask(const char* vnetName, char* mask, uint32_t* maskLen);
PLR_EXPORT bool PLR_SetVnetSubnetMask(const char* vnetName, const char* mask);
PLR_EXPORT bool PLR_GetVnetAdapterAddr(const char* vnetName, char* addr, uint32_t* addrLen,
                                       bool calculateDefault);
PLR_EXPORT bool PLR_SetVnetMTU(const char* vnetName, uint32_t mtu);
PLR_EXPORT bool PLR_GetVnetMTU(const char* vnetName, uint32_t* mtu);
PLR_EXPORT bool PLR_RemoveMTU(const char* vnetName);
PLR_EXPORT bool PLR_SetNATPrefix(const char* vnetName, const char* prefix, const char* description,
                                 uint32_t descriptionLen);
PLR_EXPORT bool PLR_GetNATPrefix(const char* vnetName, const char* prefix, char* description,
                                 uint32_t* descriptionLen);
PLR_EXPORT bool PLR_GetUnusedSubnet(char* subnet, uint32_t subnetLen, char* mask, uint32_t maskLen);
PLR_EXPORT bool PLR_CheckSubnetAvailability(const char* vnetName, bool broadcast, uint32_t timeout,
                                            uint32_t interval, bool* available);

/* DHCP and NAT. Parameter IDs are the external IDs of the svcfiles family. */
PLR_EXPORT bool PLR_GetVnetUseDHCP(const char* vnetName);
PLR_EXPORT bool PLR_SetVnetUseDHCP(const char* vnetName, bool use, bool removeConfig);
PLR_EXPORT bool PLR_GetVnetUseNAT(const char* vnetName);
PLR_EXPORT bool PLR_SetVnetUseNAT(const char* vnetName, bool use, bool removeConfig);
PLR_EXPORT bool PLR_GetDHCPParam(const char* vnetName, uint32_t paramID, bool useDefault,
                                 char* value, uint32_t* valueLen);
PLR_EXPORT bool PLR_SetDHCPParam(const char* vnetName, uint32_t paramID, const char* value,
                                 uint32_t valueLen);
PLR_EXPORT bool PLR_GetNATParam(const char* vnetName, uint32_t paramID, bool useDefault,
                                char* value, uint32_t* valueLen);
/* The NAT value must be NUL-terminated; valueLen only bounds its log line. */
PLR_EXPORT bool PLR_SetNATParam(const char* vnetName, uint32_t paramID, const char* value,
                                uint32_t valueLen);
PLR_EXPORT bool PLR_SetDHCPIPToMAC(const char* vnetName, const char* ip, const char* mac);
PLR_EXPORT bool PLR_GetDHCPIPToMAC(const char* vnetName, char* ip, uint32_t* ipLen,
                                   const char* mac);
PLR_EXPORT bool PLR_EnumDHCPIPToMAC(const char* vnetName, uint32_t* enumOffset, char* ip,
                                    uint32_t* ipLen, char* mac, uint32_t* macLen);
PLR_EXPORT bool PLR_SetNATPortForward(const char* vnetName, bool tcp, uint16_t hostPort,
                                      const char* vmIP, uint16_t vmPort, const char* description,
                                      uint32_t descriptionLen);
PLR_EXPORT bool PLR_GetNATPortForward(const char* vnetName, bool tcp, uint16_t hostPort, char* vmIP,
                                      uint32_t* vmIPLen, uint16_t* vmPort, char* description,
                                      uint32_t* descriptionLen);
PLR_EXPORT bool PLR_EnumNATPortForward(const char* vnetName, bool tcp, uint32_t* enumOffset,
                                       uint16_t* hostPort, char* vmIP, uint32_t* vmIPLen,
                                       uint16_t* vmPort, char* description,
                                       uint32_t* descriptionLen);
PLR_EXPORT bool PLR_UpdateDHCPFromConfig(const char* vnetName);
PLR_EXPORT bool PLR_UpdateNATFromConfig(const char* vnetName);

/* Host-only adapters, services and the kavix device. */
PLR_EXPORT bool PLR_SetVnetUseAdapter(const char* vnetName, bool use, bool removeConfig);
PLR_EXPORT bool PLR_SetVnetAdapterAddr(const char* vnetName, const char* adapterIP);
PLR_EXPORT bool PLR_GetVnetAdapterStatus(const char* vnetName, bool* installed, bool* enabled);
PLR_EXPORT bool PLR_UpdateAdapterFromConfig(const char* vnetName);
PLR_EXPORT bool PLR_DisableNetworkAdapter(const char* vnetName);
PLR_EXPORT bool PLR_EnableNetworkAdapter(const char* vnetName);
PLR_EXPORT bool PLR_StartService(const char* vnetName, uint32_t serviceType);
PLR_EXPORT bool PLR_StopService(const char* vnetName, uint32_t serviceType);
/* Returns a service status (PLR_SERVICE_STOPPED, _RUNNING, _STATUS_UNKNOWN),
 * or 0 when the library is not loaded. */
PLR_EXPORT uint32_t PLR_GetServiceStatus(const char* vnetName, uint32_t serviceType);
PLR_EXPORT bool PLR_CreateKavixDevice(const char* vnetName);
PLR_EXPORT bool PLR_DeleteKavixDevice(const char* vnetName);

PLR_EXTERN_C_END

#endif /* PELORUS_API_H */
