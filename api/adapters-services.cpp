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

void SayAdapter(const SwitchCall& s, SwitchStep step, bool ok) {
  const char* fn = s.function;
  switch (step) {
    case SwitchStep::kSame:
      PLOG_AS(fn, LOG_INFO, "Current Adapter status and requested status are same");
      break;
    case SwitchStep::kCleanup:
      LogOutcome(fn, ok, LOG_INFO, "Cleaned up existing adapter configuration values for vnet: %s",
                 "Failed to cleanup existing adapter configuration values for vnet: %s",
                 s.vnetName);
      break;
    case SwitchStep::kChanging:
      PLOG_AS(fn, LOG_INFO2, "Changing Adapter status");
      break;
    case SwitchStep::kSubnetAttempt:
      PLOG_AS(fn, LOG_INFO2, "Attemping to configure subnet for vnet");
      break;
    case SwitchStep::kSubnetFailed:
      PLOG_AS(fn, LOG_ERR, "Failed to assign subnet to vnet");
      break;
    case SwitchStep::kSubnetAssigned:
      PLOG_AS(fn, LOG_INFO, "New subnet configured");
      break;
    case SwitchStep::kOn:
      LogOutcome(fn, ok, LOG_OK, FixedLine{"Success in configuring Adapter for the vnet"},
                 "Configuring Adapter failed on vnet: %s, current status unknown", s.vnetName);
      break;
    case SwitchStep::kOff:
      LogOutcome(fn, ok, LOG_OK, "Success in unconfiguring Adapter on vnet: %s",
                 "Unconfiguring Adapter failed on vnet: %s, current status unknown", s.vnetName);
      break;
    case SwitchStep::kBeforeOn:
    case SwitchStep::kRollback:
      break;
  }
}

const OptionSwitch kAdapterSwitch = {AdapterConfigured, PLRSetVnetUseAdapter, SayAdapter};

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

// The argument line and checks shared by the three service calls: a name, a
// known service type, a valid vnet name.
bool ServiceArgs(const Api& c, const char* vnetName, uint32_t serviceType, uint32_t* vnet,
                 uint32_t* service) {
  c.Args("Arguments - v: %p,%s, sT: %u", vnetName, PLR_STR(vnetName), serviceType);
  *service = ServiceID(serviceType);
  if (vnetName == nullptr || *service == 0)
    return c.Fail("Invalid argument - vnet: %p, serviceType: %u", vnetName, serviceType);
  return VnetNumber(c.function(), vnetName, vnet);
}

// A service may start only when the vnet has it configured, has a subnet
// (all but the bridge) and, for DHCP and NAT, has its configuration file.
bool ServiceStartable(const Api& c, uint32_t vnet, uint32_t service) {
  const char* desc = PLRLookupDescStringForServiceID(service);
  if (!PLRVnetIsOptionConfigured(vnet, PLRLookupConfigOptionForServiceID(service)))
    return c.Fail("\"%s\" service is not configured for this vnet", desc);
  if (service == PLR_SERVICE_BRIDGE) return true;
  if (!PLRVnetIsOptionConfigured(vnet, PLR_VNET_OPTION_SUBNET))
    return c.Fail("Subnet is not assigned, so service \"%s\" is invalid", desc);
  if (service == PLR_SERVICE_NAT && !PLRFileExists(vnet, PLR_FILE_NAT_CONF, nullptr))
    return c.Fail("NAT configuration file needed for the service does not exist");
  if (service == PLR_SERVICE_DHCP && !PLRFileExists(vnet, PLR_FILE_DHCP_CONF, nullptr))
    return c.Fail("DHCP configuration file needed for the service does not exist");
  return true;
}

// Under the lock: the kavix device node first, then the daemon.
bool StartUnderLock(const Api& c, uint32_t vnet, const char* vnetName, uint32_t service) {
  const char* desc = PLRLookupDescStringForServiceID(service);
  if (!PLRCreateFile(vnet, PLR_FILE_KAVIX_DEVICE, nullptr))
    return c.Fail("Failed to create required vnet device before starting \"%s\" service", desc);
  c.Log(LOG_INFO2, "Success in creating kavix device before starting \"%s\" service for vnet: %s",
        desc, vnetName);
  return c.Outcome(PLRServiceStart(vnet, service), "Started \"%s\" service for vnet: %s",
                   "Failure in starting \"%s\" service for vnet: %s", desc, vnetName);
}

// The host-only adapter's interface name into a 16-byte buffer.
bool AdapterName(uint32_t vnet, char (&name)[PLR_IP_ADDR_MIN_LEN]) {
  return PLRGetVnetVirtAdapter(vnet, name, sizeof name);
}

// Disables the adapter, logging the outcome.
bool DisableAdapter(const Api& c, uint32_t vnet, const char* vnetName, const char* adapter) {
  return LogOutcome(c.function(), PLRVirtAdapterDisable(vnet), LOG_INFO,
                    "Successfully disabled hostonly adapter: %s for vnet: %s",
                    "Failed to disable hostonly adapter: %s for vnet: %s", adapter, vnetName);
}

// Enables the adapter, logging the outcome.
bool EnableAdapter(const Api& c, uint32_t vnet, const char* vnetName) {
  return c.Outcome(PLRVirtAdapterEnable(vnet), "Successfully enabled hostonly adapter on vnet: %s",
                   "Failed to enable hostonly adapter on vnet: %s", vnetName);
}

// Starts netifup and enables the adapter. The one undo step, stopping the
// netifup service this call started, runs unless both steps succeeded.
bool StartNetifupAndEnable(const Api& c, uint32_t vnet, const char* vnetName) {
  c.Log(LOG_INFO2, "Starting netifup service on vnet: %s", vnetName);
  ScopeExit stopStartedNetifup([&] {
    LogOutcome(c.function(), PLRServiceStop(vnet, PLR_SERVICE_NETIFUP), LOG_INFO2,
               "Stopped netifup service on vnet: %s during cleanup",
               "Failure in stopping netifup service on vnet: %s during cleanup", vnetName);
  });
  if (!PLRServiceStart(vnet, PLR_SERVICE_NETIFUP))
    return c.Fail("Failure in starting netifup service on vnet: %s", vnetName);
  if (!EnableAdapter(c, vnet, vnetName)) return false;
  stopStartedNetifup.dismiss();
  return true;
}

// Under the lock: the device node, then netifup (started here if it was
// stopped, left alone if it already ran), then the adapter.
bool EnableUnderLock(const Api& c, uint32_t vnet, const char* vnetName) {
  if (!PLRCreateFile(vnet, PLR_FILE_KAVIX_DEVICE, nullptr))
    return c.Fail("Failed to create required kavix device before starting netifup service");
  c.Log(LOG_INFO2, "Success in creating kavix device before starting netifup service");
  switch (PLRServiceStatus(vnet, PLR_SERVICE_NETIFUP)) {
    case PLR_SERVICE_STATUS_UNKNOWN:
      return c.Fail("Could not determine status of netifup service");
    case PLR_SERVICE_STOPPED:
      return StartNetifupAndEnable(c, vnet, vnetName);
    default:
      c.Log(LOG_INFO2, "netifup service is already running on vnet: %s", vnetName);
      return EnableAdapter(c, vnet, vnetName);
  }
}

// Under the lock: disabling is attempted, but the netifup stop decides.
bool DisableUnderLock(const Api& c, uint32_t vnet, const char* vnetName, const char* adapter) {
  DisableAdapter(c, vnet, vnetName, adapter);
  c.Log(LOG_INFO2, "Attempting to stop netifup service on vnet: %s", vnetName);
  return LogOutcome(c.function(), PLRServiceStop(vnet, PLR_SERVICE_NETIFUP), LOG_INFO,
                    "Stopped netifup service on vnet: %s",
                    "Failed to stop netifup service on vnet: %s", vnetName);
}

// Under the lock, adapter configured: a disabled adapter needs nothing; an
// enabled one is cycled. Only the "nothing to update" case returns true.
bool RefreshConfiguredAdapter(const Api& c, uint32_t vnet, const char* vnetName) {
  char adapter[PLR_IP_ADDR_MIN_LEN];
  if (!AdapterName(vnet, adapter))
    return c.Fail("Failed to get the name of hostonly adapter for vnet: %s", vnetName);
  const uint32_t status = PLRAdapterStatus(adapter);
  if (status == PLR_ADAPTER_ABSENT || status == PLR_ADAPTER_DOWN) {
    c.Log(LOG_ERR, "Adapter is currently disabled, nothing to update on vnet: %s", vnetName);
    return true;
  }
  if (status == PLR_ADAPTER_UP && !DisableAdapter(c, vnet, vnetName, adapter)) return false;
  c.Outcome(PLRVirtAdapterEnable(vnet), "Successfully updated adapter from config on vnet: %s",
            "Failed to enable the virtual adapter on vnet: %s", vnetName);
  return false;
}

// Under the lock, adapter not configured: disable it and stop netifup; both
// must work.
bool RetireUnconfiguredAdapter(const Api& c, uint32_t vnet, const char* vnetName) {
  c.Log(LOG_ERR, "Hostonly adapter not configured for vnet: %s", vnetName);
  // No name was read in this branch: the message shows an empty adapter name.
  bool ok = PLRVirtAdapterDisable(vnet);
  if (!ok) c.Log(LOG_ERR, "Failed to disable hostonly adapter: %s for vnet: %s", "", vnetName);
  if (!PLRServiceStop(vnet, PLR_SERVICE_NETIFUP))
    ok = c.Fail("Failed to stop netifup service for vnet: %s", vnetName);
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

using namespace plr;
using namespace plr::api;

extern "C" {

// Switches the host-only adapter in the configuration; switching on assigns a
// subnet when the vnet has none and removes it again when the switch fails.
bool PLR_SetVnetUseAdapter(const char* vnetName, bool use, bool removeConfig) {
  return ApiCall(__func__, [&](Api& c) {
    c.Args("Arguments - v: %p,%s, uA: %u, c: %u", vnetName, PLR_STR(vnetName), use, removeConfig);
    uint32_t vnet;
    if (!VnetArg(c, vnetName, &vnet)) return false;
    return c.Locked([&] {
      return SwitchOption(c.function(), kAdapterSwitch, vnet, vnetName, use, removeConfig);
    });
  });
}

// Sets the adapter's address, or removes it (back to the computed default)
// on NULL.
bool PLR_SetVnetAdapterAddr(const char* vnetName, const char* adapterIP) {
  return ApiCall(__func__, [&](Api& c) {
    c.Args("Arguments - v: %p,%s, sn: %p,%s", vnetName, PLR_STR(vnetName), adapterIP,
           PLR_STR(adapterIP));
    uint32_t vnet;
    if (!VnetArg(c, vnetName, &vnet)) return false;
    if (adapterIP != nullptr && !PLRIsValidIP(adapterIP))
      return c.Fail("Invalid adapter IP address: %s", adapterIP);
    const bool remove = adapterIP == nullptr;
    bool ok = c.Locked([&] {
      return remove ? PLRRemoveVnetVirtAdapterAddr(vnet)
                    : PLRSetVnetVirtAdapterAddr(vnet, adapterIP);
    });
    return c.Outcome(ok, "Successfully %s adapter address for vnet: %s",
                     "Error %s adapter address for vnet: %s", SetVerb(ok, remove), vnetName);
  });
}

// Reports whether the adapter is configured (installed) and up (enabled).
// An unconfigured adapter is a successful answer with both outs FALSE.
bool PLR_GetVnetAdapterStatus(const char* vnetName, bool* installed, bool* enabled) {
  return ApiCall(__func__, [&](Api& c) {
    c.Args("Arguments - v: %p,%s, i: %p, e: %p", vnetName, PLR_STR(vnetName), installed, enabled);
    if (vnetName == nullptr || installed == nullptr || enabled == nullptr)
      return c.Fail("Invalid argument - vnet: %p, installed: %p, e: %p", vnetName, installed,
                    enabled);
    uint32_t vnet;
    if (!VnetNumber(c.function(), vnetName, &vnet)) return false;
    if (!AdapterConfigured(vnet)) {
      *installed = false;
      *enabled = false;
      c.Log(LOG_ERR, "Hostonly virtual adapter is not configured on vnet: %s", vnetName);
      return true;
    }
    *installed = true;
    c.Log(LOG_INFO2, "Hostonly virtual adapter is configured on vnet: %s", vnetName);
    char adapter[PLR_IP_ADDR_MIN_LEN];
    if (!AdapterName(vnet, adapter))
      return c.Fail("Failed to get the name of hostonly adapter for vnet: %s", vnetName);
    const uint32_t status = PLRAdapterStatus(adapter);
    if (status == PLR_ADAPTER_STATUS_ERROR)
      return c.Fail("Could not determing runtime status of adapter on vnet: %s", vnetName);
    *enabled = status == PLR_ADAPTER_UP;
    c.Log(LOG_INFO2, "Hostonly virtual adapter is %s on vnet: %s",
          *enabled ? "enabled" : "disabled", vnetName);
    return true;
  });
}

// Brings the running adapter in line with the configuration: cycles an
// enabled adapter, or retires one that is no longer configured.
bool PLR_UpdateAdapterFromConfig(const char* vnetName) {
  return ApiCall(__func__, [&](Api& c) {
    c.Args("Arguments - v: %p,%s", vnetName, PLR_STR(vnetName));
    uint32_t vnet;
    if (!VnetArg(c, vnetName, &vnet, NameWording::kKavix)) return false;
    return c.Locked(
        [&] {
          return AdapterConfigured(vnet) ? RefreshConfiguredAdapter(c, vnet, vnetName)
                                         : RetireUnconfiguredAdapter(c, vnet, vnetName);
        },
        LockMode::kAlways);
  });
}

// Disables the adapter and stops netifup; the stop's result is the result.
// An absent adapter needs nothing and takes no lock.
bool PLR_DisableNetworkAdapter(const char* vnetName) {
  return ApiCall(__func__, [&](Api& c) {
    c.Args("Arguments - v: %p,%s", vnetName, PLR_STR(vnetName));
    uint32_t vnet;
    if (!VnetArg(c, vnetName, &vnet)) return false;
    char adapter[PLR_IP_ADDR_MIN_LEN];
    if (!AdapterName(vnet, adapter))
      return c.Fail("Failed to get the name of hostonly adapter for vnet: %s", vnetName);
    if (PLRAdapterStatus(adapter) == PLR_ADAPTER_ABSENT) {
      c.Log(LOG_INFO2, "Hostonly adapter: %s does not exist", vnetName);
      return true;
    }
    return c.Locked([&] { return DisableUnderLock(c, vnet, vnetName, adapter); },
                    LockMode::kAlways);
  });
}

// Enables the adapter, starting netifup first; a netifup service started by
// this call is stopped again when enabling fails.
bool PLR_EnableNetworkAdapter(const char* vnetName) {
  return ApiCall(__func__, [&](Api& c) {
    c.Args("Arguments - v: %p,%s", vnetName, PLR_STR(vnetName));
    uint32_t vnet;
    if (!VnetArg(c, vnetName, &vnet)) return false;
    if (!AdapterConfigured(vnet))
      return c.Fail("Hostonly adapter not configured for vnet: %s", vnetName);
    char adapter[PLR_IP_ADDR_MIN_LEN];
    if (!AdapterName(vnet, adapter)) return c.Fail("Failed to get the virtual adapter's name");
    if (PLRAdapterStatus(adapter) == PLR_ADAPTER_UP) {
      c.Log(LOG_INFO2, "Adapter is already enabled");
      return true;
    }
    return c.Locked([&] { return EnableUnderLock(c, vnet, vnetName); }, LockMode::kAlways);
  });
}

// Starts a service daemon after checking that the vnet can run it; a running
// service is left alone and takes no lock.
bool PLR_StartService(const char* vnetName, uint32_t serviceType) {
  return ApiCall(__func__, [&](Api& c) {
    uint32_t vnet, service;
    if (!ServiceArgs(c, vnetName, serviceType, &vnet, &service)) return false;
    if (!ServiceStartable(c, vnet, service)) return false;
    if (PLRServiceStatus(vnet, service) == PLR_SERVICE_RUNNING) {
      c.Log(LOG_INFO, "\"%s\" Service is already running on the vnet: %s",
            PLRLookupDescStringForServiceID(service), vnetName);
      return true;
    }
    return c.Locked([&] { return StartUnderLock(c, vnet, vnetName, service); }, LockMode::kAlways);
  });
}

// Stops a service daemon; no configuration checks.
bool PLR_StopService(const char* vnetName, uint32_t serviceType) {
  return ApiCall(__func__, [&](Api& c) {
    uint32_t vnet, service;
    if (!ServiceArgs(c, vnetName, serviceType, &vnet, &service)) return false;
    const char* desc = PLRLookupDescStringForServiceID(service);
    bool ok = c.Locked([&] { return PLRServiceStop(vnet, service); }, LockMode::kAlways);
    return c.Outcome(ok, "Stopped \"%s\" service on vnet: %s",
                     "Failure in stopping \"%s\" service on vnet: %s", desc, vnetName);
  });
}

// Returns the service's status value; PLR_SERVICE_STATUS_UNKNOWN on bad
// arguments, 0 when the library is not loaded.
uint32_t PLR_GetServiceStatus(const char* vnetName, uint32_t serviceType) {
  return ApiCall(__func__, [&](Api& c) -> uint32_t {
    uint32_t vnet, service;
    if (!ServiceArgs(c, vnetName, serviceType, &vnet, &service)) return PLR_SERVICE_STATUS_UNKNOWN;
    const char* desc = PLRLookupDescStringForServiceID(service);
    const uint32_t status = PLRServiceStatus(vnet, service);
    if (status == PLR_SERVICE_STATUS_UNKNOWN) {
      c.Log(LOG_ERR, "Failure in determining status of \"%s\" service on vnet: %s", desc, vnetName);
    } else {
      c.Log(LOG_INFO, "\"%s\" service is currently %s on vnet: %s", desc,
            status == PLR_SERVICE_STOPPED ? "stopped" : "running", vnetName);
    }
    return status;
  });
}

// Creates the vnet's kavix device node.
bool PLR_CreateKavixDevice(const char* vnetName) {
  return ApiCall(__func__, [&](Api&) { return PLRCreateDeleteKavixDevice(vnetName, true); });
}

// Deletes the vnet's kavix device node.
bool PLR_DeleteKavixDevice(const char* vnetName) {
  return ApiCall(__func__, [&](Api&) { return PLRCreateDeleteKavixDevice(vnetName, false); });
}

}  // extern "C"
