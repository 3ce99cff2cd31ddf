// NAT parameters of a vnet: identifier tables, validation, computed defaults
// and storage as per-vnet answers, plus the thin port-forward and prefix
// operations over the database records.
#include <string.h>

#include <string>

#include "base/str-util.h"
#include "core/address.h"
#include "core/log.h"
#include "pelorus/core.h"
#include "pelorus/netcfg.h"
#include "pelorus/svcfiles.h"
#include "pelorus/vnet.h"
#include "svcfiles/svcfiles-internal.h"

extern "C" {

// Rows are indexed by identifier minus PLR_NAT_PARAM_BASE.
const char* const PLRNATParamIDToConfigOption[PLR_NAT_PARAM_TABLE_SIZE] = {
    "",
    "NAT_PARAM_GATEWAY_IP",
    "NAT_PARAM_INT_GATEWAY_IPSUBNETMASK",
    "",
    "NAT_PARAM_CONFIG_PORT",
    "NAT_PARAM_ACTIVE_FTP",
    "NAT_PARAM_ALLOW_ANY_OUI",
    "NAT_PARAM_DEVICE",
    "NAT_PARAM_UDP_TIMEOUT",
    "NAT_PARAM_NOT_SUPPORTED",
    "NAT_PARAM_NAT6",
    "NAT_PARAM_NAT6_PREFIX",
};

const char* const PLRNATParamIDToName[PLR_NAT_PARAM_TABLE_SIZE] = {
    "",
    "\"gateway ip\"",
    "\"gateway netmask\"",
    "",
    "\"configport\"",
    "\"activeFTP\"",
    "\"allowAnyOUI\"",
    "\"device\"",
    "\"timeout\"",
    "\"non support\"",
    "\"natIp6Enable\"",
    "\"natIp6Prefix\"",
};

}  // extern "C"

namespace plr {
namespace {

constexpr size_t kAddrSize = 16;
constexpr size_t kPathSize = 256;
// The config port default is checked against the room of any port number.
constexpr size_t kPortBufferSize = 6;

// True for the identifiers that have a table row.
bool InNatTable(uint32_t id) {
  return id > PLR_NAT_PARAM_BASE && id < PLR_NAT_PARAM_BASE + PLR_NAT_PARAM_TABLE_SIZE;
}

const ParamTable kNatTable = {"NAT",
                              PLR_NAT_PARAM_BASE,
                              PLR_NAT_PARAM_TABLE_SIZE,
                              PLRNATParamIDToConfigOption,
                              PLRNATParamIDToName,
                              ""};

bool IsZeroOrOne(const char* value) {
  return strcmp(value, "0") == 0 || strcmp(value, "1") == 0;
}

// Checks `value` against the rules of `id`, logging a rejection under
// `function`. The rejection lines print the parameter identifier where the
// vnet would be expected; tools match on it.
bool ValidateNatValue(const char* function, uint32_t id, const char* value) {
  const char* name = ParamName(kNatTable, id);
  int32_t number = 0;
  switch (id) {
    case PLR_NAT_PARAM_GATEWAY_IP:
      if (PLRIsValidIP(value)) return true;
      PLOG_AS(function, LOG_ERR, "Invalid IP address value: %s for NAT parameter: %s on vnet: %d",
              value, name, static_cast<int>(id));
      return false;
    case PLR_NAT_PARAM_CONFIG_PORT:
      if (StrToInt32(value, &number) && number >= 1 && number <= 65535) return true;
      PLOG_AS(function, LOG_ERR, "Invalid config port value: %s for NAT parameter: %s on vnet: %d ",
              value, name, static_cast<int>(id));
      return false;
    case PLR_NAT_PARAM_ACTIVE_FTP:
    case PLR_NAT_PARAM_ALLOW_ANY_OUI:
    case PLR_NAT_PARAM_NAT6:
      if (IsZeroOrOne(value)) return true;
      break;
    case PLR_NAT_PARAM_UDP_TIMEOUT:
      if (StrToInt32(value, &number) && number >= 0) return true;
      break;
    case PLR_NAT_PARAM_NAT6_PREFIX:
      if (IsValidIPv6PrefixText(value)) return true;
      break;
    default:
      return true;
  }
  PLOG_AS(function, LOG_ERR, "Invalid value: %s for NAT parameter: %s on vnet: %d", value, name,
          static_cast<int>(id));
  return false;
}

bool IsSettableNatParam(uint32_t id) {
  switch (id) {
    case PLR_NAT_PARAM_GATEWAY_IP:
    case PLR_NAT_PARAM_CONFIG_PORT:
    case PLR_NAT_PARAM_ACTIVE_FTP:
    case PLR_NAT_PARAM_ALLOW_ANY_OUI:
    case PLR_NAT_PARAM_UDP_TIMEOUT:
    case PLR_NAT_PARAM_NAT6:
    case PLR_NAT_PARAM_NAT6_PREFIX:
      return true;
    default:
      return false;
  }
}

// The computed default of `id` for the vnet; false (logged) when it cannot
// be formed, or for identifiers without a default. Logs under `function`.
bool ComputeNatDefault(const char* function, uint32_t vnet, uint32_t id, std::string* out) {
  switch (id) {
    case PLR_NAT_PARAM_GATEWAY_IP: {
      char subnet[kAddrSize];
      char gateway[kAddrSize];
      uint32_t address = 0;
      if (!PLRGetVnetSubnetAddr(vnet, subnet, sizeof subnet)) {
        PLOG_AS(function, LOG_ERR, "Could not get subnet address for vnet: %d",
                static_cast<int>(vnet));
        return false;
      }
      if (!PLRIPStr2Int(subnet, &address) || !PLRIPInt2Str(address + 2, gateway)) {
        PLOG_AS(function, LOG_ERR, "Could not calculate NAT gateway address for vnet: %d",
                static_cast<int>(vnet));
        return false;
      }
      *out = gateway;
      return true;
    }
    case PLR_NAT_PARAM_GATEWAY_NETMASK: {
      char mask[kAddrSize];
      if (!PLRGetVnetSubnetMask(vnet, mask, sizeof mask)) {
        PLOG_AS(function, LOG_ERR, "Could not get subnet netmask for vnet: %d",
                static_cast<int>(vnet));
        return false;
      }
      *out = mask;
      return true;
    }
    case PLR_NAT_PARAM_CONFIG_PORT:
      *out = "33445";
      return true;
    case PLR_NAT_PARAM_ACTIVE_FTP:
    case PLR_NAT_PARAM_ALLOW_ANY_OUI:
      *out = "1";
      return true;
    case PLR_NAT_PARAM_DEVICE: {
      char name[PLR_VNET_NAME_SIZE];
      if (!PLRConvVnetNumToName(vnet, name)) {
        PLOG_AS(function, LOG_ERR, "Could not get kavix name for vnet: %d", static_cast<int>(vnet));
        return false;
      }
      std::string device = StrPrintf("/dev/%s", name);
      if (device.size() >= kPathSize) device.resize(kPathSize - 1);
      *out = device;
      return true;
    }
    case PLR_NAT_PARAM_UDP_TIMEOUT:
      *out = "60";
      return true;
    case PLR_NAT_PARAM_NAT6:
      *out = "0";
      return true;
    case PLR_NAT_PARAM_NAT6_PREFIX:
      *out = StrPrintf("fd15:4ba5:5a2b:10%02x::/64", vnet & 0xFF);
      return true;
    default:
      PLOG_AS(function, LOG_ERR, "Unrecognized NAT parameter ID: %d", static_cast<int>(id));
      return false;
  }
}

}  // namespace
}  // namespace plr

using plr::LOG_ERR;
using plr::LOG_INFO2;

extern "C" {

// Maps an identifier of the public API to the internal one. The netmask and
// device have no external identifier: they always follow the vnet.
PLR_EXPORT uint32_t PLRNATMapIntParamID(uint32_t externalId) {
  switch (externalId) {
    case PLR_NAT_EXT_PARAM_GATEWAY_IP:
      return PLR_NAT_PARAM_GATEWAY_IP;
    case PLR_NAT_EXT_PARAM_CONFIG_PORT:
      return PLR_NAT_PARAM_CONFIG_PORT;
    case PLR_NAT_EXT_PARAM_ACTIVE_FTP:
      return PLR_NAT_PARAM_ACTIVE_FTP;
    case PLR_NAT_EXT_PARAM_ALLOW_ANY_OUI:
      return PLR_NAT_PARAM_ALLOW_ANY_OUI;
    case PLR_NAT_EXT_PARAM_UDP_TIMEOUT:
      return PLR_NAT_PARAM_UDP_TIMEOUT;
    case PLR_NAT_EXT_PARAM_NAT6:
      return PLR_NAT_PARAM_NAT6;
    case PLR_NAT_EXT_PARAM_NAT6_PREFIX:
      return PLR_NAT_PARAM_NAT6_PREFIX;
    default:
      PLOG(LOG_ERR, "Could not map external paramID: %u", externalId);
      return PLR_NAT_PARAM_NOT_SUPPORTED;
  }
}

// Validates `value` for `id` and stores it unchanged; NULL removes it.
PLR_EXPORT bool PLRNATSetParameter(uint32_t vnet, uint32_t paramId, const char* value) {
  plr::FunctionTrace trace(__func__);
  if (!plr::IsSettableNatParam(paramId)) {
    PLOG(LOG_ERR, "Unrecognized NAT parameter ID: %u", paramId);
    return trace.Exit(false);
  }
  if (value == nullptr) return trace.Exit(PLRNATRemoveParam(vnet, paramId));
  return trace.Exit(plr::ValidateNatValue(__func__, paramId, value) &&
                    plr::StoreParam(__func__, plr::kNatTable, vnet, paramId, value));
}

// Copies the stored value of `id` into `buffer`; with `useDefault`, the
// computed default when none is stored. Absence alone is not an error.
// Traces only its exit.
PLR_EXPORT bool PLRNATGetParameter(uint32_t vnet, uint32_t paramId, bool useDefault, char* buffer,
                                   size_t bufferSize) {
  plr::FunctionTrace trace(__func__, false);
  if (!plr::InNatTable(paramId)) {
    PLOG(LOG_ERR, "Unrecognized NAT parameter ID: %d", static_cast<int>(paramId));
    return trace.Exit(false);
  }
  const char* name = plr::ParamName(plr::kNatTable, paramId);
  const char* value = PLRGetVnetCfg(vnet, plr::ParamKey(plr::kNatTable, paramId));
  // A hand-edited database may hold what the setter refuses; the files are
  // generated with the default instead.
  if (value != nullptr && useDefault && plr::IsSettableNatParam(paramId) &&
      !plr::ValidateNatValue(__func__, paramId, value)) {
    PLOG(LOG_ERR, "Ignoring invalid value: %s of NAT parameter: %s for vnet: %d, using its default",
         value, name, static_cast<int>(vnet));
    value = nullptr;
  }
  if (value != nullptr) {
    size_t required = strlen(value) + 1;
    if (required > bufferSize) {
      PLOG(LOG_ERR, "Insufficient space to store NAT param %d.", static_cast<int>(paramId));
      return trace.Exit(false);
    }
    memcpy(buffer, value, required);
    PLOG(LOG_INFO2, "Value of NAT parameter: %s is: %s for vnet: %d", name, buffer,
         static_cast<int>(vnet));
    return trace.Exit(true);
  }
  PLOG(LOG_INFO2, "Value of NAT parameter: %s not found in configuration for vnet: %d", name,
       static_cast<int>(vnet));
  if (!useDefault) return trace.Exit(false);
  PLOG(LOG_INFO2, "Reverting to default value");
  if (!PLRNATGetParamDefault(vnet, paramId, buffer, bufferSize)) {
    PLOG(LOG_ERR, "Failure in getting default value of parameter");
    return trace.Exit(false);
  }
  return trace.Exit(true);
}

// The value a NAT parameter has when the vnet stores none.
PLR_EXPORT bool PLRNATGetParamDefault(uint32_t vnet, uint32_t paramId, char* buffer,
                                      size_t bufferSize) {
  plr::FunctionTrace trace(__func__);
  std::string text;
  if (!plr::ComputeNatDefault(__func__, vnet, paramId, &text)) return trace.Exit(false);
  size_t required = paramId == PLR_NAT_PARAM_CONFIG_PORT ? plr::kPortBufferSize : text.size() + 1;
  if (bufferSize < required) {
    PLOG(LOG_ERR, "Insufficient space to store NAT param %d.", static_cast<int>(paramId));
    return trace.Exit(false);
  }
  memcpy(buffer, text.c_str(), text.size() + 1);
  PLOG(LOG_INFO2, "Default value of NAT parameter: %s is: %s for vnet: %d",
       plr::ParamName(plr::kNatTable, paramId), buffer, static_cast<int>(vnet));
  return trace.Exit(true);
}

// Removes the stored value of `id`; a value never stored counts as removed.
PLR_EXPORT bool PLRNATRemoveParam(uint32_t vnet, uint32_t paramId) {
  if (!plr::InNatTable(paramId)) {
    PLOG(LOG_ERR, "Unrecognized NAT parameter ID: %d", static_cast<int>(paramId));
    return false;
  }
  const char* key = plr::ParamKey(plr::kNatTable, paramId);
  if (PLRGetVnetCfg(vnet, key) == nullptr) return true;
  if (!PLRRemoveVnetCfg(vnet, key)) {
    PLOG(LOG_ERR, "Failure while removing value of NAT parameter");
    return false;
  }
  return true;
}

// Forgets every NAT setting and port forward of the vnet. Goes on after a
// failure; fails if any parameter stayed.
PLR_EXPORT bool PLRNATRemoveConfig(uint32_t vnet) {
  plr::FunctionTrace trace(__func__);
  static constexpr plr::ParamRemoval kSteps[] = {
      {PLR_NAT_PARAM_GATEWAY_IP,
       "Failure while removing value for NAT parameter Gateway IP Address"},
      {PLR_NAT_PARAM_NAT6, "Failure while removing value for NAT parameter nat ipv6 enable"},
      {PLR_NAT_PARAM_NAT6_PREFIX, "Failure while removing value for NAT parameter nat ipv6 prefix"},
      {PLR_NAT_PARAM_GATEWAY_NETMASK,
       "Failure while removing value for NAT parameter Gateway netmask"},
      {PLR_NAT_PARAM_CONFIG_PORT, "Failure while removing value for NAT parameter Config port"},
      {PLR_NAT_PARAM_DEVICE, "Failure while removing value for NAT parameter device"},
      {PLR_NAT_PARAM_ACTIVE_FTP, "Failure while removing value for NAT parameter active FTP"},
      {PLR_NAT_PARAM_ALLOW_ANY_OUI, "Failure while removing value for NAT parameter allow any OUI"},
      {PLR_NAT_PARAM_UDP_TIMEOUT, "Failure while setting value for NAT parameter UDP timeout"},
  };
  bool ok = plr::RemoveParams(__func__, vnet, kSteps, PLRNATRemoveParam);
  PLRNetCfgRemoveAllNATPortFwd(nullptr, vnet, true, true, true);
  return trace.Exit(ok);
}

// Adds or replaces the forward of (isTCP, hostPort); a NULL vmIP removes it.
PLR_EXPORT bool PLRNATSetPortForward(uint32_t vnet, int8_t isTCP, uint16_t hostPort,
                                     const char* vmIP, uint16_t vmPort, const char* description) {
  if (vmIP == nullptr) return PLRNetCfgRemoveNATPortFwd(nullptr, vnet, isTCP != 0, hostPort);
  return PLRNetCfgAddNATPortFwd(nullptr, vnet, isTCP != 0, hostPort, vmIP, vmPort, description,
                                false);
}

PLR_EXPORT bool PLRNATGetPortForward(uint32_t vnet, bool isTCP, uint16_t hostPort, char* ipBuffer,
                                     size_t ipBufferSize, uint16_t* vmPort, char* descBuffer,
                                     uint32_t* descLength) {
  return PLRNetCfgLookupNATPortFwd(nullptr, vnet, isTCP, hostPort, ipBuffer, ipBufferSize, vmPort,
                                   descBuffer, descLength);
}

PLR_EXPORT bool PLRNATEnumPortForward(uint32_t vnet, bool isTCP, uint32_t* enumOffset,
                                      uint16_t* hostPort, char* ipBuffer, size_t ipBufferSize,
                                      uint16_t* vmPort, char* descBuffer, uint32_t* descLength) {
  return PLRNetCfgEnumNATPortFwd(nullptr, vnet, isTCP, enumOffset, hostPort, ipBuffer, ipBufferSize,
                                 vmPort, descBuffer, descLength);
}

// Adds an IPv6 prefix; the description is part of the interface only.
PLR_EXPORT bool PLRNATSetPrefix(uint32_t vnet, const char* prefix, const char* description,
                                uint32_t length) {
  (void)description;
  (void)length;
  if (prefix == nullptr) {
    PLOG(LOG_ERR, "Invalid prefix");
    return false;
  }
  return PLRNetCfgAddNATPrefix(nullptr, vnet, prefix);
}

// Whether the vnet has `prefix`; the description buffer is never written.
PLR_EXPORT bool PLRNATGetPrefix(uint32_t vnet, const char* prefix, char* description,
                                uint32_t* length) {
  (void)description;
  (void)length;
  return PLRNetCfgLookupNATPrefix(nullptr, vnet, prefix);
}

}  // extern "C"
