/*
 * Service daemons and host-only virtual adapters.
 *
 * Each vnet can run four daemons (bridge, netifup, DHCP, NAT). A daemon's
 * state is its PID file in RUNDIR and the process it names; nothing is kept
 * in memory. The host-only adapter of a vnet is a network interface brought
 * up and down with the classic IPv4 interface ioctls.
 */
#ifndef PELORUS_SERVICES_H
#define PELORUS_SERVICES_H

#include "pelorus/types.h"

PLR_EXTERN_C_BEGIN

/* Service IDs. */
#define PLR_SERVICE_BRIDGE 1u
#define PLR_SERVICE_NETIFUP 2u
#define PLR_SERVICE_DHCP 3u
#define PLR_SERVICE_NAT 4u

/* Service status values returned by PLRServiceStatus. */
#define PLR_SERVICE_STOPPED 0x8404u        /* no PID file, or the PID is stale */
#define PLR_SERVICE_RUNNING 0x8408u        /* the recorded process exists */
#define PLR_SERVICE_STATUS_UNKNOWN 0x8420u /* bad ID, unreadable PID, kill failed */

/* Host-only adapter status values returned by PLRAdapterStatus. */
#define PLR_ADAPTER_STATUS_ERROR 0u /* the status could not be read */
#define PLR_ADAPTER_ABSENT 1u       /* no such interface */
#define PLR_ADAPTER_UP 2u           /* exists, IFF_UP set */
#define PLR_ADAPTER_DOWN 3u         /* exists, IFF_UP clear */

/* Service table lookups: option code of PLRVnetIsOptionConfigured (0 for an
 * unknown ID) and description text ("" for an unknown ID). */
PLR_EXPORT uint32_t PLRLookupConfigOptionForServiceID(uint32_t service);
PLR_EXPORT const char* PLRLookupDescStringForServiceID(uint32_t service);

/* Allocates the PID file name of a service on a vnet into *pidFile (caller
 * frees with free()); *desc, when desc is not NULL, receives the description. */
PLR_EXPORT bool PLRGetPidFilename(uint32_t vnet, uint32_t service, char** pidFile,
                                  const char** desc);

/* The PID recorded in a PID file, or 0 when there is none; *noFile is set
 * (only) when the file cannot be opened. */
PLR_EXPORT int32_t PLRExtractPidFromFile(const char* path, bool* noFile);

/* Daemon control. */
PLR_EXPORT bool PLRServiceStart(uint32_t vnet, uint32_t service);
PLR_EXPORT bool PLRServiceStop(uint32_t vnet, uint32_t service);
PLR_EXPORT uint32_t PLRServiceStatus(uint32_t vnet, uint32_t service);
/* wasRunning and restarted may be NULL. */
PLR_EXPORT bool PLRRestartService(uint32_t vnet, uint32_t service, bool* wasRunning,
                                  bool* restarted, bool startIfStopped);

/* Host-only adapter. */
PLR_EXPORT uint32_t PLRAdapterStatus(const char* name);
/* Writes addr | ~mask as dotted text into out (16 bytes). */
PLR_EXPORT bool PLRGetBcastAddr(const char* addr, const char* mask, char* out);
PLR_EXPORT bool PLRVirtAdapterEnable(uint32_t vnet);
PLR_EXPORT bool PLRVirtAdapterDisable(uint32_t vnet);

/* The kernel driver is not managed by this library: both always fail. */
PLR_EXPORT bool PLRLoadKavixDriver(void);
PLR_EXPORT bool PLRUnloadKavixDriver(void);

PLR_EXTERN_C_END

#endif /* PELORUS_SERVICES_H */
