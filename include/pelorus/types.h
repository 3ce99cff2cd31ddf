/*
 * Types and constants shared by every family of the pelorus C interface.
 * Compiles as C99 and as C++; records keep the field order callers rely on.
 */
#ifndef PELORUS_TYPES_H
#define PELORUS_TYPES_H

#include <stddef.h>
#include <stdint.h>
#ifndef __cplusplus
#include <stdbool.h>
#endif

#ifdef __cplusplus
#define PLR_EXTERN_C_BEGIN extern "C" {
#define PLR_EXTERN_C_END }
#else
#define PLR_EXTERN_C_BEGIN
#define PLR_EXTERN_C_END
#endif

/* Marks a declaration as part of the exported surface of libpelorus.so. */
#define PLR_EXPORT __attribute__((visibility("default")))

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

/* Log level bits; a message has exactly one, the mask any combination. */
#define PLR_LOG_ERR 0x01u
#define PLR_LOG_INFO 0x02u
#define PLR_LOG_ERRCMN 0x04u
#define PLR_LOG_WRN 0x08u
#define PLR_LOG_OK 0x10u
#define PLR_LOG_INFO2 0x20u
#define PLR_LOG_ARGS 0x40u
#define PLR_LOG_MAX_LEVEL 0x7Fu
#define PLR_LOG_DEFAULT_LEVEL 0x19u

/* Vnet numbers: 0..255 are vnets; the two values below are markers. */
#define PLR_MAX_VNETS 256u
#define PLR_VNET_NONE 0xFFFFFFFFu
#define PLR_VNET_ALL 0xFFFFFF9Cu /* -100: every vnet, or "not read yet" */

/* Network-ID record: identifies a vnet to the feature and bridge calls. */
typedef struct PLR_NetworkID {
  uint32_t version; /* 1 */
  uint32_t netType; /* 1 = vnet */
  uint32_t vnet;    /* 0..255, or PLR_VNET_NONE */
} PLR_NetworkID;

#define PLR_NETID_VERSION 1u
#define PLR_NETID_TYPE_VNET 1u

/* One host adapter. Inside the library these are separately allocated list
 * nodes; in an exported PLR_HostAdapterList they follow the header in one block. */
typedef struct PLR_HostAdapter {
  uint32_t version; /* 1 */
  struct PLR_HostAdapter* next;
  PLR_NetworkID netId; /* the vnet the adapter is bridged to */
  uint32_t status;     /* PLR_ADAPTER_RUNNING, PLR_ADAPTER_NOT_RUNNING, or 0 */
  char displayName[128];
  char driverName[128];
  char name[128];
} PLR_HostAdapter;

#define PLR_HOSTADAPTER_VERSION 1u
#define PLR_ADAPTER_RUNNING 1u
#define PLR_ADAPTER_NOT_RUNNING 2u

/* The exported adapter list: header and elements in one block, one free(). */
typedef struct PLR_HostAdapterList {
  uint32_t version; /* 1 */
  uint32_t count;
  PLR_HostAdapter* first; /* NULL when count is 0 */
} PLR_HostAdapterList;

/* Opaque in-memory cache of one networking database file. */
typedef struct PLRNetworkConfigurationDB PLRNetworkConfigurationDB;

/* File-type codes naming every file, directory and device node. */
enum {
  PLR_FILE_NETWORKING = 0,
  PLR_FILE_VNET_DIR = 1,
  PLR_FILE_DHCP_DIR = 2,
  PLR_FILE_NAT_DIR = 3,
  PLR_FILE_CUSTOM = 4,
  PLR_FILE_DHCP_CONF = 5,
  PLR_FILE_DHCP_CONF_BAK = 6,
  PLR_FILE_DHCP_LEASES = 7,
  PLR_FILE_DHCP_LEASES_OLD = 8,
  PLR_FILE_NAT_MAC = 9,
  PLR_FILE_NAT_CONF = 10,
  PLR_FILE_NAT_CONF_BAK = 11,
  PLR_FILE_TARSIS_CONFIG = 12,
  PLR_FILE_KAVIX_DEVICE = 13
};

#ifdef __cplusplus
static_assert(sizeof(bool) == 1, "the interface boolean is one byte");
static_assert(sizeof(PLR_NetworkID) == 12, "network-ID record layout");
static_assert(offsetof(PLR_HostAdapter, next) == 8, "adapter element layout");
static_assert(offsetof(PLR_HostAdapter, netId) == 16, "adapter element layout");
static_assert(offsetof(PLR_HostAdapter, status) == 28, "adapter element layout");
static_assert(offsetof(PLR_HostAdapter, displayName) == 32, "adapter element layout");
static_assert(offsetof(PLR_HostAdapter, name) == 288, "adapter element layout");
static_assert(offsetof(PLR_HostAdapterList, first) == 8, "adapter list layout");
#else
_Static_assert(sizeof(bool) == 1, "the interface boolean is one byte");
_Static_assert(sizeof(PLR_NetworkID) == 12, "network-ID record layout");
#endif

#endif /* PELORUS_TYPES_H */
