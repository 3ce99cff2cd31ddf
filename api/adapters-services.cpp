// Exported host-only adapter and service calls. The order of steps is fixed:
// the kavix device node exists before any service starts, the netifup
// service runs before the adapter is enabled and stops after it is disabled.
#include "api/api-util.h"
#include "api/option-switch.h"
#include "base/fd-util.h"
#include "pelorus/api.h"
#include "pelorus/core.h"
#include "pelorus/files.h"
#include "pelorus/services.h"
#include "pelorus/vnet.h"

namespace plr::api {
namespace {

bool AdapterConfigured(uint32_t vnet) {
  return PLRVnetIsOptionConfigured(vnet, PLR_VNET_OPTION_VIRTUAL_ADAPTER);
}

const OptionSwitch kAdapterSwitch = {
    AdapterConfigured,
    PLRSetVnetUseAdapter,
    {
        .same = "Current Adapter status and requested status are same",
        .cleanedUp = "Cleaned up existing adapter configuration values for vnet: %s",
        .cleanupFailed = "Failed to cleanup existing adapter configuration values for vnet: %s",
        .changing = "Changing Adapter status",
        .beforeOn = nullptr,
        .subnetAttempt = "Attemping to configure subnet for vnet",
        .subnetFailed = "Failed to assign subnet to vnet",
        .subnetAssigned = "New subnet configured",
        .subnetAssignedLevel = LOG_INFO,
        .on = "Success in configuring Adapter for the vnet",
        .onFailed = "Configuring Adapter failed on vnet: %s, current status unknown",
        .off = "Success in unconfiguring Adapter on vnet: %s",
        .offFailed = "Unconfiguring Adapter failed on vnet: %s, current status unknown",
        .rollback = nullptr,
    },
};

// Service type of the interface -> internal service ID; 0 for any other type.
uint32_t ServiceID(uint32_t serviceType) {
  switch (serviceType) {
    case PLR_SERVICE_TYPE_BRIDGE:
      return PLR_SERVICE_BRIDGE;
    case PLR_SERVICE_TYPE_DHCP:
      return PLR_SERVICE_DHCP;
    case PLR_SERVICE_TYPE_NAT:
      return PLR_SERVICE_NAT;
    case PLR_SERVICE_TYPE_NETIFUP:
      return PLR_SERVICE_NETIFUP;
    default:
      return 0;
  }
}

// The checks shared by the three service calls: a name, a known service
// type, a valid vnet name.
bool ServiceArgs(const char* function, const char* vnetName, uint32_t serviceType, uint32_t* vnet,
                 uint32_t* service) {
  *service = ServiceID(serviceType);
  if (vnetName == nullptr || *service == 0) {
    PLOG_AS(function, LOG_ERR, "Invalid argument - vnet: %p, serviceType: %u", vnetName,
            serviceType);
    return false;
  }
  return VnetNumber(function, vnetName, vnet);
}

// A service may start only when the vnet has it configured, has a subnet
// (all but the bridge) and, for DHCP and NAT, has its configuration file.
bool ServiceStartable(const char* function, uint32_t vnet, uint32_t service) {
  const char* desc = PLRLookupDescStringForServiceID(service);
  if (!PLRVnetIsOptionConfigured(vnet, PLRLookupConfigOptionForServiceID(service))) {
    PLOG_AS(function, LOG_ERR, "\"%s\" service is not configured for this vnet", desc);
    return false;
  }
  if (service == PLR_SERVICE_BRIDGE) return true;
  if (!PLRVnetIsOptionConfigured(vnet, PLR_VNET_OPTION_SUBNET)) {
    PLOG_AS(function, LOG_ERR, "Subnet is not assigned, so service \"%s\" is invalid", desc);
    return false;
  }
  if (service == PLR_SERVICE_NAT && !PLRFileExists(vnet, PLR_FILE_NAT_CONF, nullptr)) {
    PLOG_AS(function, LOG_ERR, "NAT configuration file needed for the service does not exist");
    return false;
  }
  if (service == PLR_SERVICE_DHCP && !PLRFileExists(vnet, PLR_FILE_DHCP_CONF, nullptr)) {
    PLOG_AS(function, LOG_ERR, "DHCP configuration file needed for the service does not exist");
    return false;
  }
  return true;
}

// Under the lock: the kavix device node first, then the daemon.
bool StartUnderLock(const char* function, uint32_t vnet, const char* vnetName, uint32_t service) {
  const char* desc = PLRLookupDescStringForServiceID(service);
  if (!PLRCreateFile(vnet, PLR_FILE_KAVIX_DEVICE, nullptr)) {
    PLOG_AS(function, LOG_ERR,
            "Failed to create required vnet device before starting \"%s\" service", desc);
    return false;
  }
  PLOG_AS(function, LOG_INFO2,
          "Success in creating kavix device before starting \"%s\" service for vnet: %s", desc,
          vnetName);
  bool ok = PLRServiceStart(vnet, service);
  if (ok) {
    PLOG_AS(function, LOG_OK, "Started \"%s\" service for vnet: %s", desc, vnetName);
  } else {
    PLOG_AS(function, LOG_ERR, "Failure in starting \"%s\" service for vnet: %s", desc, vnetName);
  }
  return ok;
}

// The host-only adapter's interface name into a 16-byte buffer.
bool AdapterName(uint32_t vnet, char (&name)[PLR_IP_ADDR_MIN_LEN]) {
  return PLRGetVnetVirtAdapter(vnet, name, sizeof name);
}

// Disables the adapter, logging the outcome under `function`.
bool DisableAdapter(const char* function, uint32_t vnet, const char* vnetName,
                    const char* adapter) {
  bool ok = PLRVirtAdapterDisable(vnet);
  if (ok) {
    PLOG_AS(function, LOG_INFO, "Successfully disabled hostonly adapter: %s for vnet: %s", adapter,
            vnetName);
  } else {
    PLOG_AS(function, LOG_ERR, "Failed to disable hostonly adapter: %s for vnet: %s", adapter,
            vnetName);
  }
  return ok;
}

// Enables the adapter, logging the outcome under `function`.
bool EnableAdapter(const char* function, uint32_t vnet, const char* vnetName) {
  bool ok = PLRVirtAdapterEnable(vnet);
  if (ok) {
    PLOG_AS(function, LOG_OK, "Successfully enabled hostonly adapter on vnet: %s", vnetName);
  } else {
    PLOG_AS(function, LOG_ERR, "Failed to enable hostonly adapter on vnet: %s", vnetName);
  }
  return ok;
}

// Starts netifup and enables the adapter. The one undo step, stopping the
// netifup service this call started, runs unless both steps succeeded.
bool StartNetifupAndEnable(const char* function, uint32_t vnet, const char* vnetName) {
  PLOG_AS(function, LOG_INFO2, "Starting netifup service on vnet: %s", vnetName);
  ScopeExit stopStartedNetifup([&] {
    if (PLRServiceStop(vnet, PLR_SERVICE_NETIFUP)) {
      PLOG_AS(function, LOG_INFO2, "Stopped netifup service on vnet: %s during cleanup", vnetName);
    } else {
      PLOG_AS(function, LOG_ERR, "Failure in stopping netifup service on vnet: %s during cleanup",
              vnetName);
    }
  });
  if (!PLRServiceStart(vnet, PLR_SERVICE_NETIFUP)) {
    PLOG_AS(function, LOG_ERR, "Failure in starting netifup service on vnet: %s", vnetName);
    return false;
  }
  if (!EnableAdapter(function, vnet, vnetName)) return false;
  stopStartedNetifup.dismiss();
  return true;
}

// Under the lock: the device node, then netifup (started here if it was
// stopped, left alone if it already ran), then the adapter.
bool EnableUnderLock(const char* function, uint32_t vnet, const char* vnetName) {
  if (!PLRCreateFile(vnet, PLR_FILE_KAVIX_DEVICE, nullptr)) {
    PLOG_AS(function, LOG_ERR,
            "Failed to create required kavix device before starting netifup service");
    return false;
  }
  PLOG_AS(function, LOG_INFO2, "Success in creating kavix device before starting netifup service");
  switch (PLRServiceStatus(vnet, PLR_SERVICE_NETIFUP)) {
    case PLR_SERVICE_STATUS_UNKNOWN:
      PLOG_AS(function, LOG_ERR, "Could not determine status of netifup service");
      return false;
    case PLR_SERVICE_STOPPED:
      return StartNetifupAndEnable(function, vnet, vnetName);
    default:
      PLOG_AS(function, LOG_INFO2, "netifup service is already running on vnet: %s", vnetName);
      return EnableAdapter(function, vnet, vnetName);
  }
}

// Under the lock: disabling is attempted, but the netifup stop decides.
bool DisableUnderLock(const char* function, uint32_t vnet, const char* vnetName,
                      const char* adapter) {
  DisableAdapter(function, vnet, vnetName, adapter);
  PLOG_AS(function, LOG_INFO2, "Attempting to stop netifup service on vnet: %s", vnetName);
  bool ok = PLRServiceStop(vnet, PLR_SERVICE_NETIFUP);
  if (ok) {
    PLOG_AS(function, LOG_INFO, "Stopped netifup service on vnet: %s", vnetName);
  } else {
    PLOG_AS(function, LOG_ERR, "Failed to stop netifup service on vnet: %s", vnetName);
  }
  return ok;
}

// Under the lock, adapter configured: a disabled adapter needs nothing; an
// enabled one is cycled. Only the "nothing to update" case returns true.
bool RefreshConfiguredAdapter(const char* function, uint32_t vnet, const char* vnetName) {
  char adapter[PLR_IP_ADDR_MIN_LEN];
  if (!AdapterName(vnet, adapter)) {
    PLOG_AS(function, LOG_ERR, "Failed to get the name of hostonly adapter for vnet: %s", vnetName);
    return false;
  }
  const uint32_t status = PLRAdapterStatus(adapter);
  if (status == PLR_ADAPTER_ABSENT || status == PLR_ADAPTER_DOWN) {
    PLOG_AS(function, LOG_ERR, "Adapter is currently disabled, nothing to update on vnet: %s",
            vnetName);
    return true;
  }
  if (status == PLR_ADAPTER_UP && !DisableAdapter(function, vnet, vnetName, adapter)) return false;
  if (PLRVirtAdapterEnable(vnet)) {
    PLOG_AS(function, LOG_OK, "Successfully updated adapter from config on vnet: %s", vnetName);
  } else {
    PLOG_AS(function, LOG_ERR, "Failed to enable the virtual adapter on vnet: %s", vnetName);
  }
  return false;
}

// Under the lock, adapter not configured: disable it and stop netifup; both
// must work.
bool RetireUnconfiguredAdapter(const char* function, uint32_t vnet, const char* vnetName) {
  PLOG_AS(function, LOG_ERR, "Hostonly adapter not configured for vnet: %s", vnetName);
  // No name was read in this branch: the message shows an empty adapter name.
  bool ok = PLRVirtAdapterDisable(vnet);
  if (!ok)
    PLOG_AS(function, LOG_ERR, "Failed to disable hostonly adapter: %s for vnet: %s", "", vnetName);
  if (!PLRServiceStop(vnet, PLR_SERVICE_NETIFUP)) {
    PLOG_AS(function, LOG_ERR, "Failed to stop netifup service for vnet: %s", vnetName);
    ok = false;
  }
  return ok;
}

// Creates or deletes the vnet's kavix device node. An invalid name is logged
// but, deliberately, still handed to the file operation, which refuses it.
bool PLRCreateDeleteKavixDevice(const char* vnetName, bool create) {
  PLOG(LOG_ARGS, "Arguments - v: %p,%s", vnetName, PLR_STR(vnetName));
  if (vnetName == nullptr) {
    PLOG(LOG_ERR, "Invalid argument - vnet: %p", vnetName);
    return false;
  }
  uint32_t vnet;
  VnetNumber(__func__, vnetName, &vnet);
  bool ok = create ? PLRCreateFile(vnet, PLR_FILE_KAVIX_DEVICE, nullptr)
                   : PLRRemoveFile(vnet, PLR_FILE_KAVIX_DEVICE, nullptr);
  if (!ok)
    PLOG(LOG_ERR, "Failed to %s kavix device for vmet: %s", create ? "create" : "delete", vnetName);
  return ok;
}

}  // namespace
}  // namespace plr::api

using plr::ApiFrame;
using plr::LockMode;
using plr::api::VnetNumber;

extern "C" {

// Switches the host-only adapter in the configuration; switching on assigns a
// subnet when the vnet has none and removes it again when the switch fails.
bool PLR_SetVnetUseAdapter(const char* vnetName, bool use, bool removeConfig) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  frame.Args("Arguments - v: %p,%s, uA: %u, c: %u", vnetName, PLR_STR(vnetName), use, removeConfig);
  if (vnetName == nullptr) {
    PLOG(LOG_ERR, "Invalid argument - vnet: %p", vnetName);
    PLR_RETURN(frame, false);
  }
  uint32_t vnet;
  if (!VnetNumber(__func__, vnetName, &vnet)) PLR_RETURN(frame, false);
  PLR_RETURN(frame, plr::WithWriteLock(__func__, [&] {
               return plr::api::SwitchOption(frame.function(), plr::api::kAdapterSwitch, vnet,
                                             vnetName, use, removeConfig);
             }));
}

// Sets the adapter's address, or removes it (back to the computed default)
// on NULL.
bool PLR_SetVnetAdapterAddr(const char* vnetName, const char* adapterIP) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  frame.Args("Arguments - v: %p,%s, sn: %p,%s", vnetName, PLR_STR(vnetName), adapterIP,
             PLR_STR(adapterIP));
  if (vnetName == nullptr) {
    PLOG(LOG_ERR, "Invalid argument - vnet: %p", vnetName);
    PLR_RETURN(frame, false);
  }
  uint32_t vnet;
  if (!VnetNumber(__func__, vnetName, &vnet)) PLR_RETURN(frame, false);
  if (adapterIP != nullptr && !PLRIsValidIP(adapterIP)) {
    PLOG(LOG_ERR, "Invalid adapter IP address: %s", adapterIP);
    PLR_RETURN(frame, false);
  }
  const bool remove = adapterIP == nullptr;
  bool ok = plr::WithWriteLock(__func__, [&] {
    return remove ? PLRRemoveVnetVirtAdapterAddr(vnet) : PLRSetVnetVirtAdapterAddr(vnet, adapterIP);
  });
  if (ok) {
    PLOG(LOG_OK, "Successfully %s adapter address for vnet: %s", remove ? "removed" : "set",
         vnetName);
  } else {
    PLOG(LOG_ERR, "Error %s adapter address for vnet: %s", remove ? "removing" : "setting",
         vnetName);
  }
  PLR_RETURN(frame, ok);
}

// Reports whether the adapter is configured (installed) and up (enabled).
// An unconfigured adapter is a successful answer with both outs FALSE.
bool PLR_GetVnetAdapterStatus(const char* vnetName, bool* installed, bool* enabled) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  frame.Args("Arguments - v: %p,%s, i: %p, e: %p", vnetName, PLR_STR(vnetName), installed, enabled);
  if (vnetName == nullptr || installed == nullptr || enabled == nullptr) {
    PLOG(LOG_ERR, "Invalid argument - vnet: %p, installed: %p, e: %p", vnetName, installed,
         enabled);
    PLR_RETURN(frame, false);
  }
  uint32_t vnet;
  if (!VnetNumber(__func__, vnetName, &vnet)) PLR_RETURN(frame, false);
  if (!plr::api::AdapterConfigured(vnet)) {
    *installed = false;
    *enabled = false;
    PLOG(LOG_ERR, "Hostonly virtual adapter is not configured on vnet: %s", vnetName);
    PLR_RETURN(frame, true);
  }
  *installed = true;
  PLOG(LOG_INFO2, "Hostonly virtual adapter is configured on vnet: %s", vnetName);
  char adapter[PLR_IP_ADDR_MIN_LEN];
  if (!plr::api::AdapterName(vnet, adapter)) {
    PLOG(LOG_ERR, "Failed to get the name of hostonly adapter for vnet: %s", vnetName);
    PLR_RETURN(frame, false);
  }
  const uint32_t status = PLRAdapterStatus(adapter);
  if (status == PLR_ADAPTER_STATUS_ERROR) {
    PLOG(LOG_ERR, "Could not determing runtime status of adapter on vnet: %s", vnetName);
    PLR_RETURN(frame, false);
  }
  *enabled = status == PLR_ADAPTER_UP;
  PLOG(LOG_INFO2, "Hostonly virtual adapter is %s on vnet: %s", *enabled ? "enabled" : "disabled",
       vnetName);
  PLR_RETURN(frame, true);
}

// Brings the running adapter in line with the configuration: cycles an
// enabled adapter, or retires one that is no longer configured.
bool PLR_UpdateAdapterFromConfig(const char* vnetName) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  frame.Args("Arguments - v: %p,%s", vnetName, PLR_STR(vnetName));
  if (vnetName == nullptr) {
    PLOG(LOG_ERR, "Invalid argument - kavix: %p", vnetName);
    PLR_RETURN(frame, false);
  }
  uint32_t vnet;
  if (!VnetNumber(__func__, vnetName, &vnet)) PLR_RETURN(frame, false);
  PLR_RETURN(frame, plr::WithWriteLock(__func__, LockMode::kAlways, [&] {
               return plr::api::AdapterConfigured(vnet)
                          ? plr::api::RefreshConfiguredAdapter(frame.function(), vnet, vnetName)
                          : plr::api::RetireUnconfiguredAdapter(frame.function(), vnet, vnetName);
             }));
}

// Disables the adapter and stops netifup; the stop's result is the result.
// An absent adapter needs nothing and takes no lock.
bool PLR_DisableNetworkAdapter(const char* vnetName) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  frame.Args("Arguments - v: %p,%s", vnetName, PLR_STR(vnetName));
  if (vnetName == nullptr) {
    PLOG(LOG_ERR, "Invalid argument - vnet: %p", vnetName);
    PLR_RETURN(frame, false);
  }
  uint32_t vnet;
  if (!VnetNumber(__func__, vnetName, &vnet)) PLR_RETURN(frame, false);
  char adapter[PLR_IP_ADDR_MIN_LEN];
  if (!plr::api::AdapterName(vnet, adapter)) {
    PLOG(LOG_ERR, "Failed to get the name of hostonly adapter for vnet: %s", vnetName);
    PLR_RETURN(frame, false);
  }
  if (PLRAdapterStatus(adapter) == PLR_ADAPTER_ABSENT) {
    PLOG(LOG_INFO2, "Hostonly adapter: %s does not exist", vnetName);
    PLR_RETURN(frame, true);
  }
  PLR_RETURN(frame, plr::WithWriteLock(__func__, LockMode::kAlways, [&] {
               return plr::api::DisableUnderLock(frame.function(), vnet, vnetName, adapter);
             }));
}

// Enables the adapter, starting netifup first; a netifup service started by
// this call is stopped again when enabling fails.
bool PLR_EnableNetworkAdapter(const char* vnetName) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  frame.Args("Arguments - v: %p,%s", vnetName, PLR_STR(vnetName));
  if (vnetName == nullptr) {
    PLOG(LOG_ERR, "Invalid argument - vnet: %p", vnetName);
    PLR_RETURN(frame, false);
  }
  uint32_t vnet;
  if (!VnetNumber(__func__, vnetName, &vnet)) PLR_RETURN(frame, false);
  if (!plr::api::AdapterConfigured(vnet)) {
    PLOG(LOG_ERR, "Hostonly adapter not configured for vnet: %s", vnetName);
    PLR_RETURN(frame, false);
  }
  char adapter[PLR_IP_ADDR_MIN_LEN];
  if (!plr::api::AdapterName(vnet, adapter)) {
    PLOG(LOG_ERR, "Failed to get the virtual adapter's name");
    PLR_RETURN(frame, false);
  }
  if (PLRAdapterStatus(adapter) == PLR_ADAPTER_UP) {
    PLOG(LOG_INFO2, "Adapter is already enabled");
    PLR_RETURN(frame, true);
  }
  PLR_RETURN(frame, plr::WithWriteLock(__func__, LockMode::kAlways, [&] {
               return plr::api::EnableUnderLock(frame.function(), vnet, vnetName);
             }));
}

// Starts a service daemon after checking that the vnet can run it; a running
// service is left alone and takes no lock.
bool PLR_StartService(const char* vnetName, uint32_t serviceType) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  frame.Args("Arguments - v: %p,%s, sT: %u", vnetName, PLR_STR(vnetName), serviceType);
  uint32_t vnet, service;
  if (!plr::api::ServiceArgs(__func__, vnetName, serviceType, &vnet, &service))
    PLR_RETURN(frame, false);
  if (!plr::api::ServiceStartable(__func__, vnet, service)) PLR_RETURN(frame, false);
  if (PLRServiceStatus(vnet, service) == PLR_SERVICE_RUNNING) {
    PLOG(LOG_INFO, "\"%s\" Service is already running on the vnet: %s",
         PLRLookupDescStringForServiceID(service), vnetName);
    PLR_RETURN(frame, true);
  }
  PLR_RETURN(frame, plr::WithWriteLock(__func__, LockMode::kAlways, [&] {
               return plr::api::StartUnderLock(frame.function(), vnet, vnetName, service);
             }));
}

// Stops a service daemon; no configuration checks.
bool PLR_StopService(const char* vnetName, uint32_t serviceType) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  frame.Args("Arguments - v: %p,%s, sT: %u", vnetName, PLR_STR(vnetName), serviceType);
  uint32_t vnet, service;
  if (!plr::api::ServiceArgs(__func__, vnetName, serviceType, &vnet, &service))
    PLR_RETURN(frame, false);
  const char* desc = PLRLookupDescStringForServiceID(service);
  bool ok = plr::WithWriteLock(__func__, LockMode::kAlways,
                               [&] { return PLRServiceStop(vnet, service); });
  if (ok) {
    PLOG(LOG_OK, "Stopped \"%s\" service on vnet: %s", desc, vnetName);
  } else {
    PLOG(LOG_ERR, "Failure in stopping \"%s\" service on vnet: %s", desc, vnetName);
  }
  PLR_RETURN(frame, ok);
}

// Returns the service's status value; PLR_SERVICE_STATUS_UNKNOWN on bad
// arguments, 0 when the library is not loaded.
uint32_t PLR_GetServiceStatus(const char* vnetName, uint32_t serviceType) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return 0;
  frame.Args("Arguments - v: %p,%s, sT: %u", vnetName, PLR_STR(vnetName), serviceType);
  uint32_t vnet, service;
  if (!plr::api::ServiceArgs(__func__, vnetName, serviceType, &vnet, &service))
    PLR_RETURN(frame, PLR_SERVICE_STATUS_UNKNOWN);
  const char* desc = PLRLookupDescStringForServiceID(service);
  const uint32_t status = PLRServiceStatus(vnet, service);
  if (status == PLR_SERVICE_STATUS_UNKNOWN) {
    PLOG(LOG_ERR, "Failure in determining status of \"%s\" service on vnet: %s", desc, vnetName);
  } else {
    PLOG(LOG_INFO, "\"%s\" service is currently %s on vnet: %s", desc,
         status == PLR_SERVICE_STOPPED ? "stopped" : "running", vnetName);
  }
  PLR_RETURN(frame, status);
}

// Creates the vnet's kavix device node.
bool PLR_CreateKavixDevice(const char* vnetName) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  PLR_RETURN(frame, plr::api::PLRCreateDeleteKavixDevice(vnetName, true));
}

// Deletes the vnet's kavix device node.
bool PLR_DeleteKavixDevice(const char* vnetName) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  PLR_RETURN(frame, plr::api::PLRCreateDeleteKavixDevice(vnetName, false));
}

}  // extern "C"
