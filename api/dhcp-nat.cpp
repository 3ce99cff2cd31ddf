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

const OptionSwitch kDhcpSwitch = {
    PLRGetVnetUseDHCP,
    PLRSetVnetUseDHCP,
    {
        .same = "Current DHCP status and requested status are same",
        .cleanedUp = "Cleaned up existing DHCP configuration for vnet: %s",
        .cleanupFailed = "Failed to cleanup existing DHCP configuration for vnet: %s",
        .changing = "Current DHCP status: %u, requested status: %u, changing DHCP status",
        .beforeOn = nullptr,
        .subnetAttempt = "Attemping to configure subnet for vnet",
        .subnetFailed = "Failed to assign subnet to vnet",
        .subnetAssigned = "New subnet configured",
        .subnetAssignedLevel = LOG_INFO2,
        .on = "Success in configuring DHCP for the vnet",
        .onFailed = "Configuring DHCP failed on vnet: %s, current status unknown",
        .off = "Success in unconfiguring DHCP  on vnet: %s",
        .offFailed = "Unconfiguring DHCP failed on vnet: %s, current status unknown",
        .rollback = nullptr,
    },
};

const OptionSwitch kNatSwitch = {
    PLRGetVnetUseNAT,
    PLRSetVnetUseNAT,
    {
        .same = "Current NAT status and requested status are same",
        .cleanedUp = "Cleaned up existing NAT configuration for vnet: %s",
        .cleanupFailed = "Failed to cleanup existing NAT configuration for vnet: %s",
        .changing = "Current NAT status: %u, requested status: %u, changing NAT status",
        .beforeOn = "Setting NAT to \"dont use\" for vnet: %s",
        .subnetAttempt = "Attempting to assign an unused subnet for vnet: %s",
        .subnetFailed = "Failed to assign subnet to vnet: %s",
        .subnetAssigned = "New subnet configured for vnet: %s",
        .subnetAssignedLevel = LOG_INFO2,
        .on = "Success in configuring NAT for vnet: %s",
        .onFailed = "Configuring NAT failed on vnet: %s",
        .off = "Success in unconfiguring NAT on vnet: %s",
        .offFailed = "Unconfiguring NAT failed on vnet: %s",
        .rollback = "Removing assigned subnet for vnet: %s because of error",
    },
};

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

// Stores a DHCP parameter from a terminated copy of the caller's bytes, or
// deletes it when `value` is NULL; logs the outcome under `function`.
bool StoreDhcpParam(const char* function, uint32_t vnet, const char* vnetName, uint32_t paramID,
                    uint32_t internalID, const char* value, uint32_t valueLen) {
  if (value == nullptr) {
    bool ok = PLRDHCPRemoveParameter(vnet, internalID);
    if (ok) {
      PLOG_AS(function, LOG_OK, "Deleted value for DHCP parameter: %u for vnet: %s", paramID,
              vnetName);
    } else {
      PLOG_AS(function, LOG_ERR, "Deleting DHCP parameter: %u failed for vnet: %s", paramID,
              vnetName);
    }
    return ok;
  }
  OwnedText copy = CopyBytes(value, valueLen);
  if (!copy) {
    PLOG_AS(function, LOG_ERR, "Memory allocation failure for DHCP parameter");
    return false;
  }
  bool ok = PLRDHCPSetParameter(vnet, internalID, copy.get());
  if (ok) {
    PLOG_AS(function, LOG_OK,
            "Setting value for DHCP Parameter succeeded, vnet: %s, paramID: %u, param: %s",
            vnetName, paramID, copy.get());
  } else {
    PLOG_AS(function, LOG_ERR,
            "Setting value for DHCP Parameter failed, vnet: %s, paramID: %u, param: %s", vnetName,
            paramID, copy.get());
  }
  return ok;
}

// Stores a NAT parameter, or deletes it when `value` is NULL. The NAT layer
// gets the caller's own (terminated) text; the copy serves the log line.
bool StoreNatParam(const char* function, uint32_t vnet, const char* vnetName, uint32_t paramID,
                   uint32_t internalID, const char* value, uint32_t valueLen) {
  if (value == nullptr) {
    bool ok = PLRNATRemoveParam(vnet, internalID);
    if (ok) {
      PLOG_AS(function, LOG_OK, "Deleted value for NAT parameter: %u for vnet: %s", paramID,
              vnetName);
    } else {
      PLOG_AS(function, LOG_ERR, "Deleting NAT parameter: %u failed for vnet: %s", paramID,
              vnetName);
    }
    return ok;
  }
  OwnedText copy = CopyBytes(value, valueLen);
  if (!copy) {
    PLOG_AS(function, LOG_ERR, "Memory allocation failure for NAT param string");
    return false;
  }
  bool ok = PLRNATSetParameter(vnet, internalID, value);
  if (ok) {
    PLOG_AS(function, LOG_OK, "Setting value for NAT parameter: %u, %s succeeded for vnet: %s",
            paramID, copy.get(), vnetName);
  } else {
    PLOG_AS(function, LOG_ERR, "Setting value for NAT parameter: %u, %s failed for vnet: %s",
            paramID, copy.get(), vnetName);
  }
  return ok;
}

// Writes dhcpd.conf when the vnet uses DHCP, removes the DHCP files when not.
bool RewriteDhcpConf(const char* function, uint32_t vnet, const char* vnetName) {
  const char* verb = PLRGetVnetUseDHCP(vnet) ? "Writing" : "Removing";
  bool ok = PLRDHCPUpdateFromConfig(vnet);
  if (ok) {
    PLOG_AS(function, LOG_OK, "%s DHCP configuration file succeeded for vnet: %s", verb, vnetName);
  } else {
    PLOG_AS(function, LOG_ERR, "%s DHCP configuration file failed for vnet: %s", verb, vnetName);
  }
  return ok;
}

// Writes nat.conf when the vnet uses NAT, removes the NAT files when not.
bool RewriteNatConf(const char* function, uint32_t vnet, const char* vnetName) {
  const char* verb = PLRGetVnetUseNAT(vnet) ? "Writing" : "Removing";
  bool ok = PLRNATUpdateFromConfig(vnet);
  if (ok) {
    PLOG_AS(function, LOG_OK, "%s NAT configuration file succeeded for vnet: %s", verb, vnetName);
  } else {
    PLOG_AS(function, LOG_ERR, "%s NAT configuration file failed for vnet: %s", verb, vnetName);
  }
  return ok;
}

}  // namespace
}  // namespace plr::api

using plr::ApiFrame;
using plr::LockMode;
using plr::api::PrintLen;
using plr::api::TextLen;
using plr::api::VnetNumber;

extern "C" {

// Whether DHCP is configured on the vnet; FALSE on bad arguments too.
bool PLR_GetVnetUseDHCP(const char* vnetName) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  frame.Args("Arguments - v:%p,%s", vnetName, PLR_STR(vnetName));
  if (vnetName == nullptr) {
    PLOG(LOG_ERR, "Invalid argument - vnet: %p", vnetName);
    PLR_RETURN(frame, false);
  }
  uint32_t vnet;
  if (!VnetNumber(__func__, vnetName, &vnet)) PLR_RETURN(frame, false);
  bool use = PLRGetVnetUseDHCP(vnet);
  PLOG(LOG_INFO2, "DHCP %s on vnet: %s", use ? "configured" : "not configured", vnetName);
  PLR_RETURN(frame, use);
}

// Whether NAT is configured on the vnet; FALSE on bad arguments too.
bool PLR_GetVnetUseNAT(const char* vnetName) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  frame.Args("Arguments - v: %p,%s", vnetName, PLR_STR(vnetName));
  if (vnetName == nullptr) {
    PLOG(LOG_ERR, "Invalid argument - kavix: %p", vnetName);
    PLR_RETURN(frame, false);
  }
  uint32_t vnet;
  if (!VnetNumber(__func__, vnetName, &vnet)) PLR_RETURN(frame, false);
  bool use = PLRGetVnetUseNAT(vnet);
  PLOG(LOG_INFO2, "NAT %s on vnet %s", use ? "configured" : "not configured", vnetName);
  PLR_RETURN(frame, use);
}

// Switches DHCP; switching on assigns a subnet when the vnet has none and
// removes it again when DHCP cannot be configured.
bool PLR_SetVnetUseDHCP(const char* vnetName, bool use, bool removeConfig) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  frame.Args("Arguments - v: %p,%s, uD: %u", vnetName, PLR_STR(vnetName), use);
  if (vnetName == nullptr) {
    PLOG(LOG_ERR, "Invalid argument - %p", vnetName);
    PLR_RETURN(frame, false);
  }
  uint32_t vnet;
  if (!VnetNumber(__func__, vnetName, &vnet)) PLR_RETURN(frame, false);
  PLR_RETURN(frame, plr::WithWriteLock(__func__, [&] {
               return plr::api::SwitchOption(frame.function(), plr::api::kDhcpSwitch, vnet,
                                             vnetName, use, removeConfig);
             }));
}

// Switches NAT, with the same subnet assignment and undo as DHCP.
bool PLR_SetVnetUseNAT(const char* vnetName, bool use, bool removeConfig) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  frame.Args("Arguments - v: %p,%s, uN: %u", vnetName, PLR_STR(vnetName), use);
  if (vnetName == nullptr) {
    PLOG(LOG_ERR, "Invalid argument - vnet: %p", vnetName);
    PLR_RETURN(frame, false);
  }
  uint32_t vnet;
  if (!VnetNumber(__func__, vnetName, &vnet)) PLR_RETURN(frame, false);
  PLR_RETURN(frame, plr::WithWriteLock(__func__, [&] {
               return plr::api::SwitchOption(frame.function(), plr::api::kNatSwitch, vnet, vnetName,
                                             use, removeConfig);
             }));
}

// Reads a DHCP parameter by external ID, with its computed default when
// `useDefault`; the length comes back with the NUL.
bool PLR_GetDHCPParam(const char* vnetName, uint32_t paramID, bool useDefault, char* value,
                      uint32_t* valueLen) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  const uint32_t size = valueLen != nullptr ? *valueLen : 0;
  frame.Args("Arguments - v: %p,%s, pID: %u, uD: %u, p: %p, pL: %p,%u", vnetName, PLR_STR(vnetName),
             paramID, useDefault, value, valueLen, size);
  if (!plr::api::ParamBufferGiven(vnetName, value, valueLen)) {
    PLOG(LOG_ERR, "Invalid argument - v: %p p: %p, pL: %p,%u", vnetName, value, valueLen, size);
    PLR_RETURN(frame, false);
  }
  uint32_t vnet;
  if (!VnetNumber(__func__, vnetName, &vnet)) PLR_RETURN(frame, false);
  const uint32_t internalID = PLRDHCPMapIntParamID(paramID);
  if (internalID == PLR_DHCP_PARAM_UNMAPPED) {
    PLOG(LOG_ERR, "Unsupported DHCP Parameter");
    PLR_RETURN(frame, false);
  }
  PLOG(LOG_INFO2, "Mapped external param ID: %u to internal paramID: %u", paramID, internalID);
  if (!PLRDHCPGetParameter(vnet, internalID, useDefault, value, size)) {
    PLOG(LOG_ERR, "Get DHCP Parameter failed on vnet: %s, paramID: %u", vnetName, paramID);
    PLR_RETURN(frame, false);
  }
  *valueLen = TextLen(value, size) + 1;
  PLOG(LOG_INFO2,
       "Success in getting value of DHCP parameter,vnet: %s, paramID: %u, value: %s, len: %u",
       vnetName, paramID, value, *valueLen);
  PLR_RETURN(frame, true);
}

// Reads a NAT parameter by external ID; the length comes back with the NUL.
bool PLR_GetNATParam(const char* vnetName, uint32_t paramID, bool useDefault, char* value,
                     uint32_t* valueLen) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  if (!plr::api::ParamBufferGiven(vnetName, value, valueLen)) {
    PLOG(LOG_ERR, "Invalid argument");
    PLR_RETURN(frame, false);
  }
  uint32_t vnet;
  if (!VnetNumber(__func__, vnetName, &vnet)) PLR_RETURN(frame, false);
  const uint32_t internalID = PLRNATMapIntParamID(paramID);
  if (internalID == PLR_NAT_PARAM_NOT_SUPPORTED) {
    PLOG(LOG_ERR, "Unsupported NAT parameter ID: %u", paramID);
    PLR_RETURN(frame, false);
  }
  PLOG(LOG_INFO2, "Mapped external NAT param ID: %u to internal param ID: %u", paramID, internalID);
  const uint32_t size = *valueLen;
  if (!PLRNATGetParameter(vnet, internalID, useDefault, value, size)) {
    PLOG(LOG_ERR, "Getting value of NAT Parameter: %u failed for vnet: %s", paramID, vnetName);
    PLR_RETURN(frame, false);
  }
  *valueLen = TextLen(value, size) + 1;
  PLOG(LOG_INFO2, "Retrieved value of NAT parameter, paramID: %u, value: %s, len: %u for vnet: %s",
       paramID, value, *valueLen, vnetName);
  PLR_RETURN(frame, true);
}

// Sets a DHCP parameter from exactly `valueLen` caller bytes (which need not
// be terminated), or deletes it when `value` is NULL.
bool PLR_SetDHCPParam(const char* vnetName, uint32_t paramID, const char* value,
                      uint32_t valueLen) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  frame.Args("Arguments - v: %p,%s, pID: %u, p: %p,%.*s pL: %u", vnetName, PLR_STR(vnetName),
             paramID, value, value != nullptr ? PrintLen(valueLen) : 4, PLR_STR(value), valueLen);
  if (vnetName == nullptr) {
    PLOG(LOG_ERR, "Invalid argument - vnet: %p, param: %p", vnetName, value);
    PLR_RETURN(frame, false);
  }
  uint32_t vnet;
  if (!VnetNumber(__func__, vnetName, &vnet)) PLR_RETURN(frame, false);
  const uint32_t internalID = PLRDHCPMapIntParamID(paramID);
  if (internalID == PLR_DHCP_PARAM_UNMAPPED) {
    PLOG(LOG_ERR, "Unsupported DHCP Parameter");
    PLR_RETURN(frame, false);
  }
  PLOG(LOG_INFO2, "Mapped external param ID: %u to internal paramID: %u", paramID, internalID);
  PLR_RETURN(frame, plr::WithWriteLock(__func__, [&] {
               return plr::api::StoreDhcpParam(frame.function(), vnet, vnetName, paramID,
                                               internalID, value, valueLen);
             }));
}

// Sets a NAT parameter, or deletes it when `value` is NULL. The NAT layer
// receives the caller's own text, so it must be NUL-terminated; the copy of
// `valueLen` bytes serves the log line only.
bool PLR_SetNATParam(const char* vnetName, uint32_t paramID, const char* value, uint32_t valueLen) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  frame.Args("Arguments - v: %p,%s, pID: %u, p: %p,%.*s, pL: %u", vnetName, PLR_STR(vnetName),
             paramID, value, value != nullptr ? PrintLen(valueLen) : 4, PLR_STR(value), valueLen);
  if (vnetName == nullptr) {
    PLOG(LOG_ERR, "Invalid argument - kavix: %p", vnetName);
    PLR_RETURN(frame, false);
  }
  uint32_t vnet;
  if (!VnetNumber(__func__, vnetName, &vnet)) PLR_RETURN(frame, false);
  const uint32_t internalID = PLRNATMapIntParamID(paramID);
  if (internalID == PLR_NAT_PARAM_NOT_SUPPORTED) {
    PLOG(LOG_ERR, "Unsupported NAT parameter: %u", paramID);
    PLR_RETURN(frame, false);
  }
  PLOG(LOG_INFO2, "Mapped external parameter ID: %u to internal parameter ID: %u", paramID,
       internalID);
  PLR_RETURN(frame, plr::WithWriteLock(__func__, [&] {
               return plr::api::StoreNatParam(frame.function(), vnet, vnetName, paramID, internalID,
                                              value, valueLen);
             }));
}

// Creates the static mapping MAC -> IP, or removes the MAC's mapping when
// `ip` is NULL.
bool PLR_SetDHCPIPToMAC(const char* vnetName, const char* ip, const char* mac) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  frame.Args("Arguments - v: %p,%s, ip: %s, mac: %s", vnetName, PLR_STR(vnetName), PLR_STR(ip),
             PLR_STR(mac));
  if (vnetName == nullptr || mac == nullptr) {
    PLOG(LOG_ERR, "Invalid argument - vnet: %p, mac: %p", vnetName, mac);
    PLR_RETURN(frame, false);
  }
  uint32_t vnet;
  if (!VnetNumber(__func__, vnetName, &vnet)) PLR_RETURN(frame, false);
  if (ip == nullptr) {
    PLOG(LOG_INFO2, "IP address is NULL");
  } else if (!PLRIsValidIP(ip)) {
    PLOG(LOG_ERR, "IP address is not valid: %s", ip);
    PLR_RETURN(frame, false);
  }
  char standardMAC[PLR_MAC_ADDR_MIN_LEN];
  if (!PLRMACStandardizeFormat(mac, standardMAC)) {
    PLOG(LOG_ERR, "MAC address is not valid: %s", mac);
    PLR_RETURN(frame, false);
  }
  bool ok = plr::WithWriteLock(__func__, [&] { return PLRDHCPSetIPToMAC(vnet, ip, standardMAC); });
  if (ok) {
    PLOG(LOG_OK, "Creating/Removing DHCP static mapping succeeded for vnet: %s, ip: %s, mac: %s",
         vnetName, PLR_STR(ip), mac);
  } else {
    PLOG(LOG_ERR, "Creating/Removing DHCP static mapping failed for vnet: %s", vnetName);
  }
  PLR_RETURN(frame, ok);
}

// Finds the IP mapped to `mac`; the length comes back with the NUL.
bool PLR_GetDHCPIPToMAC(const char* vnetName, char* ip, uint32_t* ipLen, const char* mac) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  const uint32_t size = ipLen != nullptr ? *ipLen : 0;
  frame.Args("Arguments - v: %p,%s, ip: %p, iL: %p,%u, m: %p, %s", vnetName, PLR_STR(vnetName), ip,
             ipLen, size, mac, PLR_STR(mac));
  if (vnetName == nullptr || ip == nullptr || ipLen == nullptr || mac == nullptr ||
      size < PLR_IP_ADDR_MIN_LEN) {
    PLOG(LOG_ERR, "Invalid argument - kavix: %p, ip: %p, ipLen: %p,%u, mac: %p", vnetName, ip,
         ipLen, size, mac);
    PLR_RETURN(frame, false);
  }
  uint32_t vnet;
  if (!VnetNumber(__func__, vnetName, &vnet)) PLR_RETURN(frame, false);
  char standardMAC[PLR_MAC_ADDR_MIN_LEN];
  if (!PLRMACStandardizeFormat(mac, standardMAC)) {
    // The message shows the IP output buffer, bounded by its size.
    PLOG(LOG_ERR, "MAC address is not valid: %.*s", PrintLen(size), ip);
    PLR_RETURN(frame, false);
  }
  if (!PLRDHCPGetIPToMAC(vnet, ip, size, standardMAC)) {
    PLOG(LOG_ERR, "Getting DHCP static IP address mapping failedvnet: %s, MAC: %s", vnetName, mac);
    PLR_RETURN(frame, false);
  }
  *ipLen = TextLen(ip, size) + 1;
  PLOG(LOG_INFO, "Success in getting DHCP static IP mapping, vnet: %s, MAC: %s, IP: %s, len: %u",
       vnetName, mac, ip, *ipLen);
  PLR_RETURN(frame, true);
}

// Returns the mapping at `*enumOffset` and advances it; FALSE at the end.
bool PLR_EnumDHCPIPToMAC(const char* vnetName, uint32_t* enumOffset, char* ip, uint32_t* ipLen,
                         char* mac, uint32_t* macLen) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  const uint32_t offset = enumOffset != nullptr ? *enumOffset : 0;
  const uint32_t ipSize = ipLen != nullptr ? *ipLen : 0;
  const uint32_t macSize = macLen != nullptr ? *macLen : 0;
  frame.Args("Arguments - v: %p,%s eO: %p,%u ip: %p, iL: %p,%u, mac: %p, mL: %p,%u", vnetName,
             PLR_STR(vnetName), enumOffset, offset, ip, ipLen, ipSize, mac, macLen, macSize);
  if (vnetName == nullptr || enumOffset == nullptr || ip == nullptr || ipLen == nullptr ||
      mac == nullptr || macLen == nullptr || ipSize < PLR_IP_ADDR_MIN_LEN ||
      macSize < PLR_MAC_ADDR_MIN_LEN) {
    PLOG(LOG_ERR,
         "Invalid argument: vnet: %p,%s enumOffset: %p,%u ip: %p, ipLen: %p,%u, mac: %p, "
         "macLen: %p,%u",
         vnetName, PLR_STR(vnetName), enumOffset, offset, ip, ipLen, ipSize, mac, macLen, macSize);
    PLR_RETURN(frame, false);
  }
  uint32_t vnet;
  if (!VnetNumber(__func__, vnetName, &vnet)) PLR_RETURN(frame, false);
  if (!PLRDHCPEnumIPToMAC(vnet, enumOffset, ip, ipSize, mac, macSize)) {
    PLOG(LOG_ERR, "No DHCP IP to MAC mappings to enumerate");
    PLR_RETURN(frame, false);
  }
  *ipLen = TextLen(ip, ipSize) + 1;
  *macLen = TextLen(mac, macSize) + 1;
  PLOG(LOG_INFO2, "DHCP IP to MAC mapping enumerated, vnet: %s, ip: %s, len: %u, mac: %s, len: %u",
       vnetName, ip, *ipLen, mac, *macLen);
  PLR_RETURN(frame, true);
}

// Adds or replaces the forward of (tcp, hostPort), or removes it when `vmIP`
// is NULL. The description need not be terminated and stays in the database.
bool PLR_SetNATPortForward(const char* vnetName, bool tcp, uint16_t hostPort, const char* vmIP,
                           uint16_t vmPort, const char* description, uint32_t descriptionLen) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  frame.Args("Arguments - v: %p,%s, tcp: %u, hP: %u, vmIP: %p,%s, vmP: %u, d: %p,%.*s, dL: %u",
             vnetName, PLR_STR(vnetName), tcp, hostPort, vmIP, PLR_STR(vmIP), vmPort, description,
             description != nullptr ? PrintLen(descriptionLen) : 4, PLR_STR(description),
             descriptionLen);
  if (vnetName == nullptr || hostPort == 0) {
    PLOG(LOG_ERR, "Invalid argument - kavix: %p, hostPort: %u", vnetName, hostPort);
    PLR_RETURN(frame, false);
  }
  uint32_t vnet;
  if (!VnetNumber(__func__, vnetName, &vnet)) PLR_RETURN(frame, false);
  if (vmIP != nullptr && (!PLRIsValidIP(vmIP) || vmPort == 0)) {
    PLOG(LOG_ERR, "Invalid VM IP: %s or port: %u", vmIP, vmPort);
    PLR_RETURN(frame, false);
  }
  plr::api::OwnedText copy;
  if (!plr::api::TakeDescription(__func__, description, descriptionLen, &copy))
    PLR_RETURN(frame, false);
  bool ok = plr::WithWriteLock(__func__, [&] {
    return PLRNATSetPortForward(vnet, tcp, hostPort, vmIP, vmPort, copy.get());
  });
  if (!ok) {
    PLOG(LOG_ERR, "Setting/ Removing NAT Port Forward failed for vnet: %s, port: %u", vnetName,
         hostPort);
  } else if (vmIP != nullptr) {
    PLOG(LOG_OK,
         "Setting NAT Port Forward succeeded for vnet: %s, tcp: %u, hostPort: %u, vm IP: %s, "
         "vm port: %u, description: %s",
         vnetName, tcp, hostPort, vmIP, vmPort, PLR_STR(copy.get()));
  } else {
    PLOG(LOG_OK, "Removing NAT Port Forward succeeded for vnet: %s, tcp: %u, hostPort: %u",
         vnetName, tcp, hostPort);
  }
  PLR_RETURN(frame, ok);
}

// Reads the forward of (tcp, hostPort); lengths as the record layer reports
// them (the VM IP with its NUL).
bool PLR_GetNATPortForward(const char* vnetName, bool tcp, uint16_t hostPort, char* vmIP,
                           uint32_t* vmIPLen, uint16_t* vmPort, char* description,
                           uint32_t* descriptionLen) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  const uint32_t ipSize = vmIPLen != nullptr ? *vmIPLen : 0;
  const uint32_t descSize = descriptionLen != nullptr ? *descriptionLen : 0;
  frame.Args(
      "Arguments - v: %p,%s, tcp: %u, hP: %u, vIP: %p, vIPL: %p, %u, vP: %p, d: %p, dL: %p,%u",
      vnetName, PLR_STR(vnetName), tcp, hostPort, vmIP, vmIPLen, ipSize, vmPort, description,
      descriptionLen, descSize);
  if (vnetName == nullptr || vmIP == nullptr || vmIPLen == nullptr || vmPort == nullptr ||
      ipSize < PLR_IP_ADDR_MIN_LEN || (description != nullptr && descriptionLen == nullptr)) {
    PLOG(LOG_ERR,
         "Invalid argument - vnet: %p, vmIP: %p, vmIPLen: %p, %u, vmPort: %p, description: %p, "
         "descLen: %p",
         vnetName, vmIP, vmIPLen, ipSize, vmPort, description, descriptionLen);
    PLR_RETURN(frame, false);
  }
  uint32_t vnet;
  if (!VnetNumber(__func__, vnetName, &vnet)) return false;  // this refusal writes no exit line
  // The record layer is asked for a description only when there is a buffer for it.
  uint32_t descLength = description != nullptr ? descSize : 0;
  if (!PLRNATGetPortForward(vnet, tcp, hostPort, vmIP, ipSize, vmPort, description,
                            description != nullptr ? &descLength : nullptr)) {
    PLOG(LOG_ERR, "Getting NAT Port Forward failed on vnet: %s", vnetName);
    PLR_RETURN(frame, false);
  }
  *vmIPLen = TextLen(vmIP, ipSize) + 1;
  if (description != nullptr) *descriptionLen = descLength;
  PLOG(LOG_INFO,
       "Retrieved NAT Port forward record for vnet: %s, tcp: %u, hostport: %u, vmIP: %s, "
       "vmIPLen: %u, vmPort: %u, description: %s, description len: %u",
       vnetName, tcp, hostPort, vmIP, *vmIPLen, *vmPort,
       plr::api::DescriptionText(description, descLength), descLength);
  PLR_RETURN(frame, true);
}

// Returns the forward at `*enumOffset` of the protocol's table and advances
// the offset; FALSE at the end. `hostPort` must always be supplied.
bool PLR_EnumNATPortForward(const char* vnetName, bool tcp, uint32_t* enumOffset,
                            uint16_t* hostPort, char* vmIP, uint32_t* vmIPLen, uint16_t* vmPort,
                            char* description, uint32_t* descriptionLen) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  const uint32_t offset = enumOffset != nullptr ? *enumOffset : 0;
  const uint32_t ipSize = vmIPLen != nullptr ? *vmIPLen : 0;
  const uint32_t descSize = descriptionLen != nullptr ? *descriptionLen : 0;
  frame.Args(
      "Arguments - v: %p,%s, tcp: %u, eO: %p,%u, hP: %p, vIP: %p, vIPL: %p,%u, vP: %p, d: %p, "
      "dL: %p,%u",
      vnetName, PLR_STR(vnetName), tcp, enumOffset, offset, hostPort, vmIP, vmIPLen, ipSize, vmPort,
      description, descriptionLen, descSize);
  if (enumOffset == nullptr || vnetName == nullptr || vmIP == nullptr || vmIPLen == nullptr ||
      ipSize < PLR_IP_ADDR_MIN_LEN || vmPort == nullptr ||
      (description != nullptr && descriptionLen == nullptr)) {
    PLOG(LOG_ERR,
         "Invalid argument, kavix: %p, enumOffset: %p, vmIP: %p vmIPLen: %p, %u, vmPort: %p, "
         "description: %p, descLen: %p",
         vnetName, enumOffset, vmIP, vmIPLen, ipSize, vmPort, description, descriptionLen);
    PLR_RETURN(frame, false);
  }
  uint32_t vnet;
  if (!VnetNumber(__func__, vnetName, &vnet)) PLR_RETURN(frame, false);
  uint32_t descLength = description != nullptr ? descSize : 0;
  if (!PLRNATEnumPortForward(vnet, tcp, enumOffset, hostPort, vmIP, ipSize, vmPort, description,
                             description != nullptr ? &descLength : nullptr)) {
    PLOG(LOG_ERR, "No ports to enumerate for vnet: %s", vnetName);
    PLR_RETURN(frame, false);
  }
  *vmIPLen = TextLen(vmIP, ipSize) + 1;
  if (description != nullptr) *descriptionLen = descLength;
  PLOG(LOG_INFO2,
       "Successfully enumerated NAT forwarde port, vnet: %s, tcp: %uenumOffset: %u, hostPort: %u, "
       "vmIP: %s, vmIPLen: %u, vmPort: %u, description: %s, description len: %u",
       vnetName, tcp, *enumOffset, *hostPort, vmIP, *vmIPLen, *vmPort,
       plr::api::DescriptionText(description, descLength), descLength);
  PLR_RETURN(frame, true);
}

// Rewrites (or removes) dhcpd.conf from the database; refused while the DHCP
// service is not stopped. Locks even a read-only cache.
bool PLR_UpdateDHCPFromConfig(const char* vnetName) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  frame.Args("Arguments - v: %p,%s", vnetName, PLR_STR(vnetName));
  if (vnetName == nullptr) {
    PLOG(LOG_ERR, "Invalid argument - kavix: %p", vnetName);
    PLR_RETURN(frame, false);
  }
  uint32_t vnet;
  if (!VnetNumber(__func__, vnetName, &vnet)) PLR_RETURN(frame, false);
  PLOG(LOG_INFO2, "Checking to see if DHCP service is running");
  if (PLRServiceStatus(vnet, PLR_SERVICE_DHCP) != PLR_SERVICE_STOPPED) {
    PLOG(LOG_ERR, "DHCP service is not in stopped state on this vnet, Cannot update config files");
    PLR_RETURN(frame, false);
  }
  PLR_RETURN(frame, plr::WithWriteLock(__func__, LockMode::kAlways, [&] {
               return plr::api::RewriteDhcpConf(frame.function(), vnet, vnetName);
             }));
}

// Rewrites (or removes) nat.conf from the database; refused while the NAT
// service is not stopped. Locks even a read-only cache.
bool PLR_UpdateNATFromConfig(const char* vnetName) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  frame.Args("Arguments - v: %p,%s", vnetName, PLR_STR(vnetName));
  if (vnetName == nullptr) {
    PLOG(LOG_ERR, "Invalid argument - kavix: %p", vnetName);
    PLR_RETURN(frame, false);
  }
  uint32_t vnet;
  if (!VnetNumber(__func__, vnetName, &vnet)) PLR_RETURN(frame, false);
  PLOG(LOG_INFO2, "Checking to see if NAT service is running");
  if (PLRServiceStatus(vnet, PLR_SERVICE_NAT) != PLR_SERVICE_STOPPED) {
    PLOG(LOG_ERR,
         "NAT service is not in stopped state on this vnet,Cannot update config information");
    PLR_RETURN(frame, false);
  }
  PLR_RETURN(frame, plr::WithWriteLock(__func__, LockMode::kAlways, [&] {
               return plr::api::RewriteNatConf(frame.function(), vnet, vnetName);
             }));
}

}  // extern "C"
