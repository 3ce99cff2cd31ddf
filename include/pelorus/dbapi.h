/*
 * Whole-database operations (create, export, import, merge), the database
 * API and the vnet feature queries.
 *
 * Decisions on arguments and defaults:
 * - PLRNetCfgExportConfig(db, path, flags): `flags` is reserved and must be
 *   0; a call with any other value fails and writes nothing.
 * - PLRNetCfgExportConfigToBuffer(db, &buffer, backup, terminate): `backup`
 *   false starts the text with "VERSION=1,0", true with "BACKUP_VERSION=1,0";
 *   `terminate` true ends the text with a NUL so callers can treat it as a
 *   string. The buffer is allocated with malloc and released with free; on
 *   failure *buffer is left NULL.
 * - An import of a legacy backup converts VNET_<n>_HOSTONLY_HOSTADDR into
 *   VNET_<n>_HOSTONLY_SUBNET, VNET_<n>_VIRTUAL_ADAPTER and
 *   VNET_<n>_VIRTUAL_ADAPTER_ADDR; when the vnet had no HOSTONLY_NETMASK it
 *   assumes "255.255.255.0" and stores VNET_<n>_HOSTONLY_NETMASK with it too.
 *   Each legacy answer (VNET_<n>_INTERFACE, VNET_<n>_HOSTONLY_HOSTADDR) is
 *   deleted once it has been converted.
 * - The default file of export, import and merge is "/tmp/networking_export".
 */
#ifndef PELORUS_DBAPI_H
#define PELORUS_DBAPI_H

#include "pelorus/types.h"

PLR_EXTERN_C_BEGIN

/* ---- Whole-database operations on files and caches ---- */

/* Creates `path` holding only the version line ("VERSION=1,0", or
 * "BACKUP_VERSION=1,0" when `backup`). */
PLR_EXPORT bool PLRNetCfgCreateDB(const char* path, bool backup);

/* Writes the cache (the default cache when `db` is NULL) to `path` as a
 * backup file. `flags` is reserved and must be 0. The cache and its own file
 * are left untouched. */
PLR_EXPORT bool PLRNetCfgExportConfig(PLRNetworkConfigurationDB* db, const char* path,
                                      uint32_t flags);

/* Writes the cache (default when NULL) into a newly allocated buffer in the
 * order of the compacted file. `backup` selects the version key of the first
 * line, `terminate` appends a NUL. The caller frees *buffer. */
PLR_EXPORT bool PLRNetCfgExportConfigToBuffer(PLRNetworkConfigurationDB* db, char** buffer,
                                              bool backup, bool terminate);

/* True when `path` is a database file ("VERSION=" line, not a backup) whose
 * version this library reads. */
PLR_EXPORT bool PLRNetCfgCheckVersion(const char* path);

/* Replaces the database at `databasePath` by the contents of the backup file
 * `backupPath`, dropping unknown keys and upgrading legacy fields. The old
 * database is kept as the first free "<databasePath>.bak.<n>"; on failure it
 * is put back. When the default cache was loaded, the imported cache
 * becomes the default cache. */
PLR_EXPORT bool PLRNetCfgImportConfig(const char* backupPath, const char* databasePath);

/* Brings the per-vnet settings of the backup file `path` into the running
 * system: vnets whose settings differ get their services stopped, the new
 * contents become the database, and their services are started again from the
 * new settings. Needs the loaded library. */
PLR_EXPORT bool PLRNetCfgMergeConfig(const char* path);

/* True when the port forwards of `vnet` differ between `newCache` and the
 * default cache (both protocols, or the one table of `isTCP`). */
PLR_EXPORT bool PLRNetCfgMergeConfigPortFwdCmp(PLRNetworkConfigurationDB* newCache, uint32_t vnet);
PLR_EXPORT bool PLRNetCfgMergeConfigPortFwdCmpHash(PLRNetworkConfigurationDB* newCache, bool isTCP,
                                                   uint32_t vnet);

/* ---- Database API ---- */

/* Creates the networking database. Only while the library is not loaded.
 * With `overwrite`, an existing database is moved to the first free
 * "<path>.bak.<n>" first (and moved back when the creation fails). */
PLR_EXPORT bool PLR_CreateNetworkingDB(bool overwrite);
/* True when the database file exists. Works loaded or not. */
PLR_EXPORT bool PLR_NetworkingDBExists(void);
/* True when the database file exists and its version is readable. */
PLR_EXPORT bool PLR_CanReadNetworkingDB(void);
/* Removes the database file. Only while the library is not loaded. */
PLR_EXPORT bool PLR_DeleteNetworkingDB(void);
/* The default database as NUL-terminated text starting "VERSION=1,0", or
 * NULL. The caller releases it with free(). */
PLR_EXPORT char* PLR_ExportDatabaseToBuffer(void);
/* Writes the default database as a backup file; NULL means
 * "/tmp/networking_export". */
PLR_EXPORT bool PLR_ExportDatabaseToFile(const char* path);
/* Replaces the database by a backup file; NULL means "/tmp/networking_export".
 * Works loaded or not. */
PLR_EXPORT bool PLR_ImportDatabaseFromFile(const char* path);
/* Merges a backup file into the database; NULL means
 * "/tmp/networking_export". */
PLR_EXPORT bool PLR_MergeDatabaseFromFile(const char* path);
/* Removes every trace of one vnet's configuration; refused while any of its
 * services or its host-only adapter is up. */
PLR_EXPORT bool PLR_DeleteVnetFromDatabase(const char* vnetName);

/* ---- Vnet feature queries ---- */

#define PLR_FEATURES_VERSION 1u
#define PLR_FEATURE_BLOCK_SIZE 32u

/* Indices into the two feature blocks. */
#define PLR_FEATURE_CFG_DHCP 0u
#define PLR_FEATURE_CFG_NAT 1u
#define PLR_FEATURE_CFG_BRIDGE 2u
#define PLR_FEATURE_CFG_HOSTONLY 3u
#define PLR_FEATURE_RT_DHCP 0u
#define PLR_FEATURE_RT_NAT 1u
#define PLR_FEATURE_RT_BRIDGE 2u
#define PLR_FEATURE_RT_HOSTONLY 3u

/* Feature byte values. As an answer: PLR_FEATURE_PRESENT or 0. As a search
 * criterion: PLR_FEATURE_ANY, PLR_FEATURE_PRESENT or PLR_FEATURE_ABSENT; any
 * other value matches no vnet. */
#define PLR_FEATURE_ANY 0u
#define PLR_FEATURE_PRESENT 1u
#define PLR_FEATURE_ABSENT 2u

/* The features record exchanged by the two feature calls. */
typedef struct PLR_VnetFeatures {
  uint32_t version;                                /* 1 */
  PLR_NetworkID netId;                             /* type 1; vnet to describe or first to search */
  uint8_t subnet;                                  /* the vnet has a subnet */
  uint8_t configFeatures[PLR_FEATURE_BLOCK_SIZE];  /* DHCP, NAT, bridged, host-only adapter */
  uint8_t runtimeFeatures[PLR_FEATURE_BLOCK_SIZE]; /* DHCP, NAT, bridge running; adapter up */
} PLR_VnetFeatures;

/* The number of vnets, 256. No frame, works unloaded. */
PLR_EXPORT uint32_t PLR_GetNumberOfVnets(void);
/* Fills the subnet byte and both feature blocks for ft->netId.vnet. */
PLR_EXPORT bool PLR_GetVnetFeatures(PLR_VnetFeatures* ft);
/* Finds the first vnet from ft->netId.vnet upwards that matches the criteria
 * in `ft` and rewrites `ft` to describe it. To find the next one, set the vnet
 * number to the found one plus 1 and write the criteria again. */
PLR_EXPORT bool PLR_FindVnetWithFeatures(PLR_VnetFeatures* ft);

#ifdef __cplusplus
static_assert(offsetof(PLR_VnetFeatures, netId) == 4, "features record layout");
static_assert(offsetof(PLR_VnetFeatures, subnet) == 16, "features record layout");
static_assert(offsetof(PLR_VnetFeatures, configFeatures) == 17, "features record layout");
static_assert(offsetof(PLR_VnetFeatures, runtimeFeatures) == 49, "features record layout");
static_assert(sizeof(PLR_VnetFeatures) == 84, "features record layout");
#else
_Static_assert(offsetof(PLR_VnetFeatures, netId) == 4, "features record layout");
_Static_assert(offsetof(PLR_VnetFeatures, subnet) == 16, "features record layout");
_Static_assert(offsetof(PLR_VnetFeatures, configFeatures) == 17, "features record layout");
_Static_assert(offsetof(PLR_VnetFeatures, runtimeFeatures) == 49, "features record layout");
_Static_assert(sizeof(PLR_VnetFeatures) == 84, "features record layout");
#endif

PLR_EXTERN_C_END

#endif /* PELORUS_DBAPI_H */
