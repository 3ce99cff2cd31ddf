// Exported DHCP and NAT calls: switching the services on and off (with the
// subnet assignment and its undo), parameters by external ID, static DHCP
// mappings, NAT port forwards, and regenerating the service files.
#include <string.h>

#include "api/api-util.h"
#include "api/option-switch.h"
#include "pelorus/api.h"
#include "pelorus/core.h"
#include "pelorus/services.h"
#include "pelorus/svcfiles.h"
#include "pelorus/vnet.h"

namespace plr::api {
namespace {

void SayDhcp(const SwitchCall& s, SwitchStep step, bool ok) {
  const char* fn = s.function;
  switch (step) {
    case SwitchStep::kSame:
      PLOG_AS(fn, LOG_INFO, "Current DHCP status and requested status are same");
      break;
    case SwitchStep::kCleanup:
      LogOutcome(fn, ok, LOG_INFO, "Cleaned up existing DHCP configuration for vnet: %s",
                 "Failed to cleanup existing DHCP configuration for vnet: %s", s.vnetName);
      break;
    case SwitchStep::kChanging:
      PLOG_AS(fn, LOG_INFO2, "Current DHCP status: %u, requested status: %u, changing DHCP status",
              s.current, s.use);
      break;
    case SwitchStep::kSubnetAttempt:
      PLOG_AS(fn, LOG_INFO2, "Attemping to configure subnet for vnet");
      break;
    case SwitchStep::kSubnetFailed:
      PLOG_AS(fn, LOG_ERR, "Failed to assign subnet to vnet");
      break;
    case SwitchStep::kSubnetAssigned:
      PLOG_AS(fn, LOG_INFO2, "New subnet configured");
      break;
    case SwitchStep::kOn:
      LogOutcome(fn, ok, LOG_OK, FixedLine{"Success in configuring DHCP for the vnet"},
                 "Configuring DHCP failed on vnet: %s, current status unknown", s.vnetName);
      break;
    case SwitchStep::kOff:
      LogOutcome(fn, ok, LOG_OK, "Success in unconfiguring DHCP  on vnet: %s",
                 "Unconfiguring DHCP failed on vnet: %s, current status unknown", s.vnetName);
      break;
    case SwitchStep::kBeforeOn:
    case SwitchStep::kRollback:
      break;
  }
}

void SayNat(const SwitchCall& s, SwitchStep step, bool ok) {
  const char* fn = s.function;
  switch (step) {
    case SwitchStep::kSame:
      PLOG_AS(fn, LOG_INFO, "Current NAT status and requested status are same");
      break;
    case SwitchStep::kCleanup:
      LogOutcome(fn, ok, LOG_INFO, "Cleaned up existing NAT configuration for vnet: %s",
                 "Failed to cleanup existing NAT configuration for vnet: %s", s.vnetName);
      break;
    case SwitchStep::kChanging:
      PLOG_AS(fn, LOG_INFO2, "Current NAT status: %u, requested status: %u, changing NAT status",
              s.current, s.use);
      break;
    case SwitchStep::kBeforeOn:
      PLOG_AS(fn, LOG_INFO2, "Setting NAT to \"dont use\" for vnet: %s", s.vnetName);
      break;
    case SwitchStep::kSubnetAttempt:
      PLOG_AS(fn, LOG_INFO2, "Attempting to assign an unused subnet for vnet: %s", s.vnetName);
      break;
    case SwitchStep::kSubnetFailed:
      PLOG_AS(fn, LOG_ERR, "Failed to assign subnet to vnet: %s", s.vnetName);
      break;
    case SwitchStep::kSubnetAssigned:
      PLOG_AS(fn, LOG_INFO2, "New subnet configured for vnet: %s", s.vnetName);
      break;
    case SwitchStep::kOn:
      LogOutcome(fn, ok, LOG_OK, "Success in configuring NAT for vnet: %s",
                 "Configuring NAT failed on vnet: %s", s.vnetName);
      break;
    case SwitchStep::kOff:
      LogOutcome(fn, ok, LOG_OK, "Success in unconfiguring NAT on vnet: %s",
                 "Unconfiguring NAT failed on vnet: %s", s.vnetName);
      break;
    case SwitchStep::kRollback:
      PLOG_AS(fn, LOG_ERR, "Removing assigned subnet for vnet: %s because of error", s.vnetName);
      break;
  }
}

const OptionSwitch kDhcpSwitch = {PLRGetVnetUseDHCP, PLRSetVnetUseDHCP, SayDhcp};
const OptionSwitch kNatSwitch = {PLRGetVnetUseNAT, PLRSetVnetUseNAT, SayNat};

// What differs between the DHCP and the NAT side of the calls they share.
struct Service {
  const char* name;  // as the log lines spell it
  uint32_t id;
  bool (*inUse)(uint32_t vnet);
  bool (*updateFromConfig)(uint32_t vnet);
  bool (*removeParam)(uint32_t vnet, uint32_t internalID);
  const char* notStopped;  // the tail of the refusal while the service is not stopped
};
const Service kDhcp = {"DHCP",
                       PLR_SERVICE_DHCP,
                       PLRGetVnetUseDHCP,
                       PLRDHCPUpdateFromConfig,
                       PLRDHCPRemoveParameter,
                       " Cannot update config files"};
const Service kNat = {"NAT",
                      PLR_SERVICE_NAT,
                      PLRGetVnetUseNAT,
                      PLRNATUpdateFromConfig,
                      PLRNATRemoveParam,
                      "Cannot update config information"};

// The value check of the parameter getters: name, buffer and length given,
// the length non-zero.
bool ParamBufferGiven(const char* vnetName, const char* value, const uint32_t* valueLen) {
  return vnetName != nullptr && value != nullptr && valueLen != nullptr && *valueLen != 0;
}

// Text for log lines of a caller's description buffer after a lookup: the
// buffer is printed only when the lookup reported a description in it.
const char* DescriptionText(const char* buffer, uint32_t length) {
  return buffer != nullptr && length != 0 ? buffer : "null";
}

// Deletes a DHCP or NAT parameter; logs the outcome under `function`.
bool RemoveParam(const char* function, const Service& svc, uint32_t vnet, const char* vnetName,
                 uint32_t paramID, uint32_t internalID) {
  return LogOutcome(function, svc.removeParam(vnet, internalID), LOG_OK,
                    "Deleted value for %s parameter: %u for vnet: %s",
                    "Deleting %s parameter: %u failed for vnet: %s", svc.name, paramID, vnetName);
}

// Stores a DHCP parameter from a terminated copy of the caller's bytes, or
// deletes it when `value` is NULL; logs the outcome under `function`.
bool StoreDhcpParam(const char* function, uint32_t vnet, const char* vnetName, uint32_t paramID,
                    uint32_t internalID, const char* value, uint32_t valueLen) {
  if (value == nullptr) return RemoveParam(function, kDhcp, vnet, vnetName, paramID, internalID);
  OwnedText copy = CopyBytes(value, valueLen);
  if (!copy) {
    PLOG_AS(function, LOG_ERR, "Memory allocation failure for DHCP parameter");
    return false;
  }
  return LogOutcome(function, PLRDHCPSetParameter(vnet, internalID, copy.get()), LOG_OK,
                    "Setting value for DHCP Parameter succeeded, vnet: %s, paramID: %u, param: %s",
                    "Setting value for DHCP Parameter failed, vnet: %s, paramID: %u, param: %s",
                    vnetName, paramID, copy.get());
}

// Stores a NAT parameter, or deletes it when `value` is NULL. The NAT layer
// gets the caller's own (terminated) text; the copy serves the log line.
bool StoreNatParam(const char* function, uint32_t vnet, const char* vnetName, uint32_t paramID,
                   uint32_t internalID, const char* value, uint32_t valueLen) {
  if (value == nullptr) return RemoveParam(function, kNat, vnet, vnetName, paramID, internalID);
  OwnedText copy = CopyBytes(value, valueLen);
  if (!copy) {
    PLOG_AS(function, LOG_ERR, "Memory allocation failure for NAT param string");
    return false;
  }
  return LogOutcome(function, PLRNATSetParameter(vnet, internalID, value), LOG_OK,
                    "Setting value for NAT parameter: %u, %s succeeded for vnet: %s",
                    "Setting value for NAT parameter: %u, %s failed for vnet: %s", paramID,
                    copy.get(), vnetName);
}

// Rewrites the service's configuration file from the database (removes it
// when the vnet does not use the service); refused while the service is not
// stopped. Locks even a read-only cache.
bool UpdateFromConfig(const Api& c, const Service& svc, const char* vnetName) {
  c.Args("Arguments - v: %p,%s", vnetName, PLR_STR(vnetName));
  uint32_t vnet;
  if (!VnetArg(c, vnetName, &vnet, NameWording::kKavix)) return false;
  c.Log(LOG_INFO2, "Checking to see if %s service is running", svc.name);
  if (PLRServiceStatus(vnet, svc.id) != PLR_SERVICE_STOPPED)
    return c.Fail("%s service is not in stopped state on this vnet,%s", svc.name, svc.notStopped);
  return c.Locked(
      [&] {
        const char* verb = svc.inUse(vnet) ? "Writing" : "Removing";
        return c.Outcome(svc.updateFromConfig(vnet),
                         "%s %s configuration file succeeded for vnet: %s",
                         "%s %s configuration file failed for vnet: %s", verb, svc.name, vnetName);
      },
      LockMode::kAlways);
}

}  // namespace
}  // namespace plr::api

using namespace plr;
using namespace plr::api;

extern "C" {

// Whether DHCP is configured on the vnet; FALSE on bad arguments too.
bool PLR_GetVnetUseDHCP(const char* vnetName) {
  return ApiCall(__func__, [&](Api& c) {
    c.Args("Arguments - v:%p,%s", vnetName, PLR_STR(vnetName));
    uint32_t vnet;
    if (!VnetArg(c, vnetName, &vnet)) return false;
    bool use = PLRGetVnetUseDHCP(vnet);
    c.Log(LOG_INFO2, "DHCP %s on vnet: %s", use ? "configured" : "not configured", vnetName);
    return use;
  });
}

// Whether NAT is configured on the vnet; FALSE on bad arguments too.
bool PLR_GetVnetUseNAT(const char* vnetName) {
  return ApiCall(__func__, [&](Api& c) {
    c.Args("Arguments - v: %p,%s", vnetName, PLR_STR(vnetName));
    uint32_t vnet;
    if (!VnetArg(c, vnetName, &vnet, NameWording::kKavix)) return false;
    bool use = PLRGetVnetUseNAT(vnet);
    c.Log(LOG_INFO2, "NAT %s on vnet %s", use ? "configured" : "not configured", vnetName);
    return use;
  });
}

// Switches DHCP; switching on assigns a subnet when the vnet has none and
// removes it again when DHCP cannot be configured.
bool PLR_SetVnetUseDHCP(const char* vnetName, bool use, bool removeConfig) {
  return ApiCall(__func__, [&](Api& c) {
    c.Args("Arguments - v: %p,%s, uD: %u", vnetName, PLR_STR(vnetName), use);
    if (vnetName == nullptr) return c.Fail("Invalid argument - %p", vnetName);
    uint32_t vnet;
    if (!VnetNumber(c.function(), vnetName, &vnet)) return false;
    return c.Locked(
        [&] { return SwitchOption(c.function(), kDhcpSwitch, vnet, vnetName, use, removeConfig); });
  });
}

// Switches NAT, with the same subnet assignment and undo as DHCP.
bool PLR_SetVnetUseNAT(const char* vnetName, bool use, bool removeConfig) {
  return ApiCall(__func__, [&](Api& c) {
    c.Args("Arguments - v: %p,%s, uN: %u", vnetName, PLR_STR(vnetName), use);
    uint32_t vnet;
    if (!VnetArg(c, vnetName, &vnet)) return false;
    return c.Locked(
        [&] { return SwitchOption(c.function(), kNatSwitch, vnet, vnetName, use, removeConfig); });
  });
}

// Reads a DHCP parameter by external ID, with its computed default when
// `useDefault`; the length comes back with the NUL.
bool PLR_GetDHCPParam(const char* vnetName, uint32_t paramID, bool useDefault, char* value,
                      uint32_t* valueLen) {
  return ApiCall(__func__, [&](Api& c) {
    const uint32_t size = valueLen != nullptr ? *valueLen : 0;
    c.Args("Arguments - v: %p,%s, pID: %u, uD: %u, p: %p, pL: %p,%u", vnetName, PLR_STR(vnetName),
           paramID, useDefault, value, valueLen, size);
    if (!ParamBufferGiven(vnetName, value, valueLen))
      return c.Fail("Invalid argument - v: %p p: %p, pL: %p,%u", vnetName, value, valueLen, size);
    uint32_t vnet;
    if (!VnetNumber(c.function(), vnetName, &vnet)) return false;
    const uint32_t internalID = PLRDHCPMapIntParamID(paramID);
    if (internalID == PLR_DHCP_PARAM_UNMAPPED) return c.Fail("Unsupported DHCP Parameter");
    c.Log(LOG_INFO2, "Mapped external param ID: %u to internal paramID: %u", paramID, internalID);
    if (!PLRDHCPGetParameter(vnet, internalID, useDefault, value, size))
      return c.Fail("Get DHCP Parameter failed on vnet: %s, paramID: %u", vnetName, paramID);
    *valueLen = TextLen(value, size) + 1;
    c.Log(LOG_INFO2,
          "Success in getting value of DHCP parameter,vnet: %s, paramID: %u, value: %s, len: %u",
          vnetName, paramID, value, *valueLen);
    return true;
  });
}

// Reads a NAT parameter by external ID; the length comes back with the NUL.
bool PLR_GetNATParam(const char* vnetName, uint32_t paramID, bool useDefault, char* value,
                     uint32_t* valueLen) {
  return ApiCall(__func__, [&](Api& c) {
    if (!ParamBufferGiven(vnetName, value, valueLen)) return c.Fail("Invalid argument");
    uint32_t vnet;
    if (!VnetNumber(c.function(), vnetName, &vnet)) return false;
    const uint32_t internalID = PLRNATMapIntParamID(paramID);
    if (internalID == PLR_NAT_PARAM_NOT_SUPPORTED)
      return c.Fail("Unsupported NAT parameter ID: %u", paramID);
    c.Log(LOG_INFO2, "Mapped external NAT param ID: %u to internal param ID: %u", paramID,
          internalID);
    const uint32_t size = *valueLen;
    if (!PLRNATGetParameter(vnet, internalID, useDefault, value, size))
      return c.Fail("Getting value of NAT Parameter: %u failed for vnet: %s", paramID, vnetName);
    *valueLen = TextLen(value, size) + 1;
    c.Log(LOG_INFO2,
          "Retrieved value of NAT parameter, paramID: %u, value: %s, len: %u for vnet: %s", paramID,
          value, *valueLen, vnetName);
    return true;
  });
}

// Sets a DHCP parameter from exactly `valueLen` caller bytes (which need not
// be terminated), or deletes it when `value` is NULL.
bool PLR_SetDHCPParam(const char* vnetName, uint32_t paramID, const char* value,
                      uint32_t valueLen) {
  return ApiCall(__func__, [&](Api& c) {
    c.Args("Arguments - v: %p,%s, pID: %u, p: %p,%.*s pL: %u", vnetName, PLR_STR(vnetName), paramID,
           value, value != nullptr ? PrintLen(valueLen) : 4, PLR_STR(value), valueLen);
    if (vnetName == nullptr)
      return c.Fail("Invalid argument - vnet: %p, param: %p", vnetName, value);
    uint32_t vnet;
    if (!VnetNumber(c.function(), vnetName, &vnet)) return false;
    const uint32_t internalID = PLRDHCPMapIntParamID(paramID);
    if (internalID == PLR_DHCP_PARAM_UNMAPPED) return c.Fail("Unsupported DHCP Parameter");
    c.Log(LOG_INFO2, "Mapped external param ID: %u to internal paramID: %u", paramID, internalID);
    return c.Locked([&] {
      return StoreDhcpParam(c.function(), vnet, vnetName, paramID, internalID, value, valueLen);
    });
  });
}

// Sets a NAT parameter, or deletes it when `value` is NULL. The NAT layer
// receives the caller's own text, so it must be NUL-terminated; the copy of
// `valueLen` bytes serves the log line only.
bool PLR_SetNATParam(const char* vnetName, uint32_t paramID, const char* value, uint32_t valueLen) {
  return ApiCall(__func__, [&](Api& c) {
    c.Args("Arguments - v: %p,%s, pID: %u, p: %p,%.*s, pL: %u", vnetName, PLR_STR(vnetName),
           paramID, value, value != nullptr ? PrintLen(valueLen) : 4, PLR_STR(value), valueLen);
    uint32_t vnet;
    if (!VnetArg(c, vnetName, &vnet, NameWording::kKavix)) return false;
    const uint32_t internalID = PLRNATMapIntParamID(paramID);
    if (internalID == PLR_NAT_PARAM_NOT_SUPPORTED)
      return c.Fail("Unsupported NAT parameter: %u", paramID);
    c.Log(LOG_INFO2, "Mapped external parameter ID: %u to internal parameter ID: %u", paramID,
          internalID);
    return c.Locked([&] {
      return StoreNatParam(c.function(), vnet, vnetName, paramID, internalID, value, valueLen);
    });
  });
}

// Creates the static mapping MAC -> IP, or removes the MAC's mapping when
// `ip` is NULL.
bool PLR_SetDHCPIPToMAC(const char* vnetName, const char* ip, const char* mac) {
  return ApiCall(__func__, [&](Api& c) {
    c.Args("Arguments - v: %p,%s, ip: %s, mac: %s", vnetName, PLR_STR(vnetName), PLR_STR(ip),
           PLR_STR(mac));
    if (vnetName == nullptr || mac == nullptr)
      return c.Fail("Invalid argument - vnet: %p, mac: %p", vnetName, mac);
    uint32_t vnet;
    if (!VnetNumber(c.function(), vnetName, &vnet)) return false;
    if (ip == nullptr) {
      c.Log(LOG_INFO2, "IP address is NULL");
    } else if (!PLRIsValidIP(ip)) {
      return c.Fail("IP address is not valid: %s", ip);
    }
    char standardMAC[PLR_MAC_ADDR_MIN_LEN];
    if (!PLRMACStandardizeFormat(mac, standardMAC))
      return c.Fail("MAC address is not valid: %s", mac);
    if (!c.Locked([&] { return PLRDHCPSetIPToMAC(vnet, ip, standardMAC); }))
      return c.Fail("Creating/Removing DHCP static mapping failed for vnet: %s", vnetName);
    c.Log(LOG_OK, "Creating/Removing DHCP static mapping succeeded for vnet: %s, ip: %s, mac: %s",
          vnetName, PLR_STR(ip), mac);
    return true;
  });
}

// Finds the IP mapped to `mac`; the length comes back with the NUL.
bool PLR_GetDHCPIPToMAC(const char* vnetName, char* ip, uint32_t* ipLen, const char* mac) {
  return ApiCall(__func__, [&](Api& c) {
    const uint32_t size = ipLen != nullptr ? *ipLen : 0;
    c.Args("Arguments - v: %p,%s, ip: %p, iL: %p,%u, m: %p, %s", vnetName, PLR_STR(vnetName), ip,
           ipLen, size, mac, PLR_STR(mac));
    if (vnetName == nullptr || ip == nullptr || ipLen == nullptr || mac == nullptr ||
        size < PLR_IP_ADDR_MIN_LEN)
      return c.Fail("Invalid argument - kavix: %p, ip: %p, ipLen: %p,%u, mac: %p", vnetName, ip,
                    ipLen, size, mac);
    uint32_t vnet;
    if (!VnetNumber(c.function(), vnetName, &vnet)) return false;
    char standardMAC[PLR_MAC_ADDR_MIN_LEN];
    // The refusal shows the IP output buffer, bounded by its size.
    if (!PLRMACStandardizeFormat(mac, standardMAC))
      return c.Fail("MAC address is not valid: %.*s", PrintLen(size), ip);
    if (!PLRDHCPGetIPToMAC(vnet, ip, size, standardMAC))
      return c.Fail("Getting DHCP static IP address mapping failedvnet: %s, MAC: %s", vnetName,
                    mac);
    *ipLen = TextLen(ip, size) + 1;
    c.Log(LOG_INFO, "Success in getting DHCP static IP mapping, vnet: %s, MAC: %s, IP: %s, len: %u",
          vnetName, mac, ip, *ipLen);
    return true;
  });
}

// Returns the mapping at `*enumOffset` and advances it; FALSE at the end.
bool PLR_EnumDHCPIPToMAC(const char* vnetName, uint32_t* enumOffset, char* ip, uint32_t* ipLen,
                         char* mac, uint32_t* macLen) {
  return ApiCall(__func__, [&](Api& c) {
    const uint32_t offset = enumOffset != nullptr ? *enumOffset : 0;
    const uint32_t ipSize = ipLen != nullptr ? *ipLen : 0;
    const uint32_t macSize = macLen != nullptr ? *macLen : 0;
    c.Args("Arguments - v: %p,%s eO: %p,%u ip: %p, iL: %p,%u, mac: %p, mL: %p,%u", vnetName,
           PLR_STR(vnetName), enumOffset, offset, ip, ipLen, ipSize, mac, macLen, macSize);
    if (vnetName == nullptr || enumOffset == nullptr || ip == nullptr || ipLen == nullptr ||
        mac == nullptr || macLen == nullptr || ipSize < PLR_IP_ADDR_MIN_LEN ||
        macSize < PLR_MAC_ADDR_MIN_LEN)
      return c.Fail(
          "Invalid argument: vnet: %p,%s enumOffset: %p,%u ip: %p, ipLen: %p,%u, mac: %p, "
          "macLen: %p,%u",
          vnetName, PLR_STR(vnetName), enumOffset, offset, ip, ipLen, ipSize, mac, macLen, macSize);
    uint32_t vnet;
    if (!VnetNumber(c.function(), vnetName, &vnet)) return false;
    if (!PLRDHCPEnumIPToMAC(vnet, enumOffset, ip, ipSize, mac, macSize))
      return c.Fail("No DHCP IP to MAC mappings to enumerate");
    *ipLen = TextLen(ip, ipSize) + 1;
    *macLen = TextLen(mac, macSize) + 1;
    c.Log(LOG_INFO2,
          "DHCP IP to MAC mapping enumerated, vnet: %s, ip: %s, len: %u, mac: %s, len: %u",
          vnetName, ip, *ipLen, mac, *macLen);
    return true;
  });
}

// Adds or replaces the forward of (tcp, hostPort), or removes it when `vmIP`
// is NULL. The description need not be terminated and stays in the database.
bool PLR_SetNATPortForward(const char* vnetName, bool tcp, uint16_t hostPort, const char* vmIP,
                           uint16_t vmPort, const char* description, uint32_t descriptionLen) {
  return ApiCall(__func__, [&](Api& c) {
    c.Args("Arguments - v: %p,%s, tcp: %u, hP: %u, vmIP: %p,%s, vmP: %u, d: %p,%.*s, dL: %u",
           vnetName, PLR_STR(vnetName), tcp, hostPort, vmIP, PLR_STR(vmIP), vmPort, description,
           description != nullptr ? PrintLen(descriptionLen) : 4, PLR_STR(description),
           descriptionLen);
    if (vnetName == nullptr || hostPort == 0)
      return c.Fail("Invalid argument - kavix: %p, hostPort: %u", vnetName, hostPort);
    uint32_t vnet;
    if (!VnetNumber(c.function(), vnetName, &vnet)) return false;
    if (vmIP != nullptr && (!PLRIsValidIP(vmIP) || vmPort == 0))
      return c.Fail("Invalid VM IP: %s or port: %u", vmIP, vmPort);
    OwnedText copy;
    if (!TakeDescription(c.function(), description, descriptionLen, &copy)) return false;
    if (!c.Locked(
            [&] { return PLRNATSetPortForward(vnet, tcp, hostPort, vmIP, vmPort, copy.get()); }))
      return c.Fail("Setting/ Removing NAT Port Forward failed for vnet: %s, port: %u", vnetName,
                    hostPort);
    if (vmIP != nullptr) {
      c.Log(LOG_OK,
            "Setting NAT Port Forward succeeded for vnet: %s, tcp: %u, hostPort: %u, vm IP: %s, "
            "vm port: %u, description: %s",
            vnetName, tcp, hostPort, vmIP, vmPort, PLR_STR(copy.get()));
    } else {
      c.Log(LOG_OK, "Removing NAT Port Forward succeeded for vnet: %s, tcp: %u, hostPort: %u",
            vnetName, tcp, hostPort);
    }
    return true;
  });
}

// Reads the forward of (tcp, hostPort); lengths as the record layer reports
// them (the VM IP with its NUL).
bool PLR_GetNATPortForward(const char* vnetName, bool tcp, uint16_t hostPort, char* vmIP,
                           uint32_t* vmIPLen, uint16_t* vmPort, char* description,
                           uint32_t* descriptionLen) {
  return ApiCall(__func__, [&](Api& c) {
    const uint32_t ipSize = vmIPLen != nullptr ? *vmIPLen : 0;
    const uint32_t descSize = descriptionLen != nullptr ? *descriptionLen : 0;
    c.Args("Arguments - v: %p,%s, tcp: %u, hP: %u, vIP: %p, vIPL: %p, %u, vP: %p, d: %p, dL: %p,%u",
           vnetName, PLR_STR(vnetName), tcp, hostPort, vmIP, vmIPLen, ipSize, vmPort, description,
           descriptionLen, descSize);
    if (vnetName == nullptr || vmIP == nullptr || vmIPLen == nullptr || vmPort == nullptr ||
        ipSize < PLR_IP_ADDR_MIN_LEN || (description != nullptr && descriptionLen == nullptr))
      return c.Fail(
          "Invalid argument - vnet: %p, vmIP: %p, vmIPLen: %p, %u, vmPort: %p, description: %p, "
          "descLen: %p",
          vnetName, vmIP, vmIPLen, ipSize, vmPort, description, descriptionLen);
    uint32_t vnet;
    if (!VnetNumber(c.function(), vnetName, &vnet)) {
      c.SkipExit();  // this refusal writes no exit line
      return false;
    }
    // The record layer is asked for a description only when there is a buffer for it.
    uint32_t descLength = description != nullptr ? descSize : 0;
    if (!PLRNATGetPortForward(vnet, tcp, hostPort, vmIP, ipSize, vmPort, description,
                              description != nullptr ? &descLength : nullptr))
      return c.Fail("Getting NAT Port Forward failed on vnet: %s", vnetName);
    *vmIPLen = TextLen(vmIP, ipSize) + 1;
    if (description != nullptr) *descriptionLen = descLength;
    c.Log(LOG_INFO,
          "Retrieved NAT Port forward record for vnet: %s, tcp: %u, hostport: %u, vmIP: %s, "
          "vmIPLen: %u, vmPort: %u, description: %s, description len: %u",
          vnetName, tcp, hostPort, vmIP, *vmIPLen, *vmPort,
          DescriptionText(description, descLength), descLength);
    return true;
  });
}

// Returns the forward at `*enumOffset` of the protocol's table and advances
// the offset; FALSE at the end. `hostPort` must always be supplied.
bool PLR_EnumNATPortForward(const char* vnetName, bool tcp, uint32_t* enumOffset,
                            uint16_t* hostPort, char* vmIP, uint32_t* vmIPLen, uint16_t* vmPort,
                            char* description, uint32_t* descriptionLen) {
  return ApiCall(__func__, [&](Api& c) {
    const uint32_t offset = enumOffset != nullptr ? *enumOffset : 0;
    const uint32_t ipSize = vmIPLen != nullptr ? *vmIPLen : 0;
    const uint32_t descSize = descriptionLen != nullptr ? *descriptionLen : 0;
    c.Args(
        "Arguments - v: %p,%s, tcp: %u, eO: %p,%u, hP: %p, vIP: %p, vIPL: %p,%u, vP: %p, d: %p, "
        "dL: %p,%u",
        vnetName, PLR_STR(vnetName), tcp, enumOffset, offset, hostPort, vmIP, vmIPLen, ipSize,
        vmPort, description, descriptionLen, descSize);
    if (enumOffset == nullptr || vnetName == nullptr || vmIP == nullptr || vmIPLen == nullptr ||
        ipSize < PLR_IP_ADDR_MIN_LEN || vmPort == nullptr ||
        (description != nullptr && descriptionLen == nullptr))
      return c.Fail(
          "Invalid argument, kavix: %p, enumOffset: %p, vmIP: %p vmIPLen: %p, %u, vmPort: %p, "
          "description: %p, descLen: %p",
          vnetName, enumOffset, vmIP, vmIPLen, ipSize, vmPort, description, descriptionLen);
    uint32_t vnet;
    if (!VnetNumber(c.function(), vnetName, &vnet)) return false;
    uint32_t descLength = description != nullptr ? descSize : 0;
    if (!PLRNATEnumPortForward(vnet, tcp, enumOffset, hostPort, vmIP, ipSize, vmPort, description,
                               description != nullptr ? &descLength : nullptr))
      return c.Fail("No ports to enumerate for vnet: %s", vnetName);
    *vmIPLen = TextLen(vmIP, ipSize) + 1;
    if (description != nullptr) *descriptionLen = descLength;
    c.Log(LOG_INFO2,
          "Successfully enumerated NAT forwarde port, vnet: %s, tcp: %uenumOffset: %u, hostPort: "
          "%u, vmIP: %s, vmIPLen: %u, vmPort: %u, description: %s, description len: %u",
          vnetName, tcp, *enumOffset, *hostPort, vmIP, *vmIPLen, *vmPort,
          DescriptionText(description, descLength), descLength);
    return true;
  });
}

// Rewrites (or removes) dhcpd.conf from the database.
bool PLR_UpdateDHCPFromConfig(const char* vnetName) {
  return ApiCall(__func__, [&](Api& c) { return UpdateFromConfig(c, kDhcp, vnetName); });
}

// Rewrites (or removes) nat.conf from the database.
bool PLR_UpdateNATFromConfig(const char* vnetName) {
  return ApiCall(__func__, [&](Api& c) { return UpdateFromConfig(c, kNat, vnetName); });
}

}  // extern "C"
