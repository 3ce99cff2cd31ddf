// Shared internals of the whole-database operations (create, export, import
// with the legacy upgrade, merge): the answers an import keeps, the owner of
// a private cache, and the backup copy of the database file.
#pragma once

#include <stdint.h>

#include <iterator>
#include <string>
#include <string_view>
#include <utility>

#include "netcfg/db-internal.h"

namespace plr {

// Per-vnet fields that survive an import, in the order the merge compares
// them. The last two are legacy fields that the upgrade converts.
inline constexpr const char* kNetCfgKnownVnetFields[] = {
    "HOSTONLY_SUBNET",
    "HOSTONLY_NETMASK",
    "VIRTUAL_ADAPTER_ADDR",
    "VIRTUAL_ADAPTER",
    "MTU",
    "VIRTUAL_ADAPTER_NAME",
    "DHCP",
    "DHCP_PARAM_LEASE_START_IP",
    "DHCP_PARAM_LEASE_END_IP",
    "DHCP_PARAM_DEFAULT_LEASE_TIME",
    "DHCP_PARAM_MAX_LEASE_TIME",
    "DHCP_PARAM_BROADCAST_ADDR",
    "DHCP_PARAM_DNS_ADDR",
    "DHCP_PARAM_ROUTERS",
    "DHCP_PARAM_DOMAIN_NAME",
    "DHCP_PARAM_SUB_DEFAULT_LEASE_TIME",
    "DHCP_PARAM_SUB_MAX_LEASE_TIME",
    "DHCP_CFG_HASH",
    "NAT",
    "NAT_PARAM_GATEWAY_IP",
    "NAT_PARAM_INT_GATEWAY_IPSUBNETMASK",
    "NAT_PARAM_CONFIG_PORT",
    "NAT_PARAM_ACTIVE_FTP",
    "NAT_PARAM_ALLOW_ANY_OUI",
    "NAT_PARAM_DEVICE",
    "NAT_PARAM_UDP_TIMEOUT",
    "NAT_PARAM_NAT6",
    "NAT_PARAM_NAT6_PREFIX",
    "DISPLAY_NAME",
    "INTERFACE",
    "HOSTONLY_HOSTADDR",
};
static_assert(std::size(kNetCfgKnownVnetFields) == 31);

// Owns a private cache (an imported or merged file) until the scope ends.
class NetCfgPrivateCache {
 public:
  NetCfgPrivateCache() = default;
  NetCfgPrivateCache(const NetCfgPrivateCache&) = delete;
  NetCfgPrivateCache& operator=(const NetCfgPrivateCache&) = delete;
  ~NetCfgPrivateCache() {
    if (db_ != nullptr) PLRNetCfgUnload(&db_, false);
  }
  PLRNetworkConfigurationDB* get() const { return db_; }
  PLRNetworkConfigurationDB** out() { return &db_; }
  PLRNetworkConfigurationDB* release() { return std::exchange(db_, nullptr); }

 private:
  PLRNetworkConfigurationDB* db_ = nullptr;
};

// Drops the answers an import does not know and, for a legacy (version 0)
// file, converts its fields; logs under `function` when that fails.
bool NetCfgPrepareImportedCache(PLRNetworkConfigurationDB* db, const char* function);

// How a backup copy of the database is named: "<path>.bak.<n>" for the first
// n that is free, or (kReplaceOld) that the file removal accepts, so an older
// backup copy under that name is replaced.
enum class NetCfgBackupName { kFirstFree, kReplaceOld };

// Moves the database file at `path` to its backup copy (created first, then
// renamed over), logging under `function`; *copy names it on success.
bool NetCfgMoveToBackupCopy(const char* function, const char* path, NetCfgBackupName naming,
                            std::string* copy);

// Puts the backup copy back over the database file; logs the outcome.
bool NetCfgRestoreBackupCopy(const char* function, const std::string& copy, const char* path);

}  // namespace plr
