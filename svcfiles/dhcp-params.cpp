// DHCP parameters of a vnet: identifier tables, validation, computed defaults
// and storage as per-vnet answers, plus the static MAC-to-IP mappings.
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

// Rows are indexed by identifier minus PLR_DHCP_PARAM_BASE; empty rows are
// identifiers without a setting of their own.
const char* const PLRDHCPParamIDToConfigOption[PLR_DHCP_PARAM_TABLE_SIZE] = {
    "",
    "",
    "",
    "",
    "DHCP_PARAM_LEASE_START_IP",
    "DHCP_PARAM_LEASE_END_IP",
    "",
    "",
    "DHCP_PARAM_DEFAULT_LEASE_TIME",
    "DHCP_PARAM_MAX_LEASE_TIME",
    "DHCP_PARAM_BROADCAST_ADDR",
    "DHCP_PARAM_DNS_ADDR",
    "DHCP_PARAM_ROUTERS",
    "DHCP_PARAM_DOMAIN_NAME",
    "DHCP_PARAM_SUB_DEFAULT_LEASE_TIME",
    "DHCP_PARAM_SUB_MAX_LEASE_TIME",
    "DHCP_PARAM_NETBIOS",
    "",
};

const char* const PLRDHCPParamIDToName[PLR_DHCP_PARAM_TABLE_SIZE] = {
    "\"DHCP Param Base\"",
    "",
    "",
    "",
    "\"Lease Begin IP\"",
    "\"Lease End IP\"",
    "",
    "",
    "\"Default Lease Duration\"",
    "\"Max Lease Duration\"",
    "\"Broadcast Address\"",
    "\"DNS Address\"",
    "\"Routers\"",
    "\"Domain Name\"",
    "\"Subnet Default Lease Duration\"",
    "\"Subnet Max Lease Duration\"",
    "\"Netbios\"",
    "",
};

}  // extern "C"

namespace plr {
namespace {

constexpr size_t kMaxDomainNameLength = 63;
constexpr size_t kAddressTextSize = 16;

const ParamTable kDhcpTable = {"DHCP",
                               PLR_DHCP_PARAM_BASE,
                               PLR_DHCP_PARAM_TABLE_SIZE,
                               PLRDHCPParamIDToConfigOption,
                               PLRDHCPParamIDToName,
                               "Invalid DHCP Parameter"};

// The identifiers a caller may set or ask a default for: the named rows.
bool IsSettableDhcpParam(uint32_t id) {
  return id >= PLR_DHCP_PARAM_LEASE_BEGIN_IP && id <= PLR_DHCP_PARAM_NETBIOS && id != 9544 &&
         id != 9545;
}

bool IsAddressParam(uint32_t id) {
  return id == PLR_DHCP_PARAM_LEASE_BEGIN_IP || id == PLR_DHCP_PARAM_LEASE_END_IP ||
         id == PLR_DHCP_PARAM_BROADCAST_ADDR || id == PLR_DHCP_PARAM_DNS_ADDR ||
         id == PLR_DHCP_PARAM_ROUTERS || id == PLR_DHCP_PARAM_NETBIOS;
}

bool IsTimeParam(uint32_t id) {
  return id == PLR_DHCP_PARAM_DEFAULT_LEASE_DURATION_SEC ||
         id == PLR_DHCP_PARAM_MAX_LEASE_DURATION_SEC ||
         id == PLR_DHCP_PARAM_SUB_DEFAULT_LEASE_DURATION_SEC ||
         id == PLR_DHCP_PARAM_SUB_MAX_LEASE_DURATION_SEC;
}

// Checks `value` against the rules of parameter `id`; logs the rejection
// under `function`.
bool ValidateDhcpValue(const char* function, uint32_t id, const char* value) {
  const char* name = ParamName(kDhcpTable, id);
  if (IsAddressParam(id)) {
    size_t length = strlen(value);
    if (length >= kAddressTextSize) {
      PLOG_AS(function, LOG_ERR, "Invalid value length: %u, value: %s for parameter: %s",
              static_cast<unsigned>(length), value, name);
      return false;
    }
    if (!PLRIsValidIP(value)) {
      PLOG_AS(function, LOG_ERR, "Invalid IP address: %s for parameter: %s", value, name);
      return false;
    }
    return true;
  }
  if (IsTimeParam(id)) {
    int32_t seconds = 0;
    if (!StrToInt32(value, &seconds) || seconds < 0) {
      PLOG_AS(function, LOG_ERR, "Invalid argument for time");
      return false;
    }
    return true;
  }
  size_t length = strlen(value);  // the domain name
  if (length > kMaxDomainNameLength) {
    PLOG_AS(function, LOG_ERR, "Invalid value length: %u, value: %s for parameter: %s",
            static_cast<unsigned>(length), value, name);
    return false;
  }
  if (!IsValidDomainName(value)) {
    PLOG_AS(function, LOG_ERR, "Invalid domain name: %s for parameter: %s", value, name);
    return false;
  }
  return true;
}

// The form a valid value is stored in: a dotted domain name in double
// quotes, which the DHCP server needs (a caller may give it bare).
std::string StoredDhcpValue(uint32_t id, const char* value) {
  if (id != PLR_DHCP_PARAM_DOMAIN_NAME || value[0] == '"' || strchr(value, '.') == nullptr)
    return value;
  return StrPrintf("\"%s\"", value);
}

// Copies `text` into the caller's buffer when it fits with its terminator.
bool CopyDefault(const char* function, const std::string& text, uint32_t id, char* buffer,
                 size_t bufferSize) {
  if (text.size() + 1 > bufferSize) {
    PLOG_AS(function, LOG_ERR, "Insufficient buffer size: %zu for DHCP parameter: %s required: %zu",
            bufferSize, ParamName(kDhcpTable, id), text.size() + 1);
    return false;
  }
  memcpy(buffer, text.c_str(), text.size() + 1);
  return true;
}

// The address defaults, computed from the vnet's subnet: the upper half of
// the subnet is leased, the gateway and name services sit at the bottom.
bool ComputeAddressDefault(const char* function, uint32_t vnet, uint32_t id, std::string* out) {
  char subnet[kAddressTextSize];
  char mask[kAddressTextSize];
  uint32_t address = 0;
  uint32_t netmask = 0;
  if (!PLRGetVnetSubnetAddr(vnet, subnet, sizeof subnet) || !PLRIPStr2Int(subnet, &address)) {
    PLOG_AS(function, LOG_ERR, "Cannot obtain subnet address");
    return false;
  }
  if (!PLRGetVnetSubnetMask(vnet, mask, sizeof mask) || !PLRIPStr2Int(mask, &netmask)) {
    PLOG_AS(function, LOG_ERR, "Cannot obtain subnet netmask");
    return false;
  }
  if (netmask > 0xFFFFFFF8u) {
    PLOG_AS(function, LOG_ERR, "The subnet: %s, mask: %s is too small, we need atleast 8 hosts",
            subnet, mask);
    return false;
  }
  uint32_t net = address & netmask;
  uint32_t host = ~netmask;
  uint32_t value = 0;
  switch (id) {
    case PLR_DHCP_PARAM_LEASE_BEGIN_IP:
      value = (net | (host >> 1)) + 1;
      break;
    case PLR_DHCP_PARAM_LEASE_END_IP:
      value = (address | host) - 1;
      break;
    case PLR_DHCP_PARAM_BROADCAST_ADDR:
      value = address | host;
      break;
    case PLR_DHCP_PARAM_DNS_ADDR:
      value = PLRGetVnetUseNAT(vnet) ? net + 2 : net + 1;
      break;
    default:  // routers, netbios
      value = net + 2;
      break;
  }
  char text[kAddressTextSize];
  if (!PLRIPInt2Str(value, text)) return false;
  *out = text;
  return true;
}

}  // namespace
}  // namespace plr

using plr::LOG_ERR;
using plr::LOG_INFO2;

extern "C" {

// Maps an identifier of the public API to the internal one; unknown ones map
// to the unmapped identifier, which every operation rejects.
PLR_EXPORT uint32_t PLRDHCPMapIntParamID(uint32_t externalId) {
  uint32_t internal = PLR_DHCP_PARAM_UNMAPPED;
  switch (externalId) {
    case PLR_DHCP_EXT_PARAM_LEASE_BEGIN_IP:
      internal = PLR_DHCP_PARAM_LEASE_BEGIN_IP;
      break;
    case PLR_DHCP_EXT_PARAM_LEASE_END_IP:
      internal = PLR_DHCP_PARAM_LEASE_END_IP;
      break;
    case PLR_DHCP_EXT_PARAM_SUB_DEFAULT_LEASE_DURATION_SEC:
      internal = PLR_DHCP_PARAM_SUB_DEFAULT_LEASE_DURATION_SEC;
      break;
    case PLR_DHCP_EXT_PARAM_SUB_MAX_LEASE_DURATION_SEC:
      internal = PLR_DHCP_PARAM_SUB_MAX_LEASE_DURATION_SEC;
      break;
    case PLR_DHCP_EXT_PARAM_UNSUPPORTED:
      internal = PLR_DHCP_PARAM_UNSUPPORTED;
      break;
    case PLR_DHCP_EXT_PARAM_DNS_ADDR:
      internal = PLR_DHCP_PARAM_DNS_ADDR;
      break;
    case PLR_DHCP_EXT_PARAM_ROUTERS:
      internal = PLR_DHCP_PARAM_ROUTERS;
      break;
    case PLR_DHCP_EXT_PARAM_NETBIOS:
      internal = PLR_DHCP_PARAM_NETBIOS;
      break;
    default:
      PLOG(LOG_ERR, "Could not map external paramID: %u", externalId);
      break;
  }
  PLOG(LOG_INFO2, "Mapped external ParamID: %u to internal ParamID: %u", externalId, internal);
  return internal;
}

// Validates `value` for parameter `id` and stores it unchanged as the vnet's
// answer; a NULL value removes the parameter.
PLR_EXPORT bool PLRDHCPSetParameter(uint32_t vnet, uint32_t paramId, const char* value) {
  plr::FunctionTrace trace(__func__);
  if (!plr::IsSettableDhcpParam(paramId)) {
    PLOG(LOG_ERR, "Invalid DHCP Param Name %d", static_cast<int>(paramId));
    return trace.Exit(false);
  }
  if (value == nullptr) return trace.Exit(PLRDHCPRemoveParameter(vnet, paramId));
  return trace.Exit(plr::ValidateDhcpValue(__func__, paramId, value) &&
                    plr::StoreParam(__func__, plr::kDhcpTable, vnet, paramId,
                                    plr::StoredDhcpValue(paramId, value).c_str()));
}

// Copies the stored value of `id` into `buffer`; when none is stored and
// `useDefault` is set, the computed default instead.
PLR_EXPORT bool PLRDHCPGetParameter(uint32_t vnet, uint32_t paramId, bool useDefault, char* buffer,
                                    size_t bufferSize) {
  plr::FunctionTrace trace(__func__);
  const char* name = plr::ParamName(plr::kDhcpTable, paramId);
  const char* value = nullptr;
  if (paramId > PLR_DHCP_PARAM_BASE && paramId <= PLR_DHCP_PARAM_UNMAPPED) {
    value = PLRGetVnetCfg(vnet, plr::ParamKey(plr::kDhcpTable, paramId));
  }
  // A hand-edited database may hold what the setter refuses; the files are
  // generated with the default instead.
  if (value != nullptr && useDefault && plr::IsSettableDhcpParam(paramId) &&
      !plr::ValidateDhcpValue(__func__, paramId, value)) {
    PLOG(LOG_ERR,
         "Ignoring invalid value: %s of DHCP parameter: %s for vnet: %d, using its default", value,
         name, static_cast<int>(vnet));
    value = nullptr;
  }
  if (value != nullptr) {
    size_t required = strlen(value) + 1;
    if (required > bufferSize) {
      PLOG(LOG_ERR, "Insufficient space %zu to store value of DHCP parameter: %s, required: %zu",
           bufferSize, name, required);
      return trace.Exit(false);
    }
    memcpy(buffer, value, required);
    PLOG(LOG_INFO2, "Value of DHCP parameter: %s is: %s for vnet: %d", name, buffer,
         static_cast<int>(vnet));
    return trace.Exit(true);
  }
  PLOG(LOG_ERR, "Value for DHCP parameter: %s not found in configuration for vnet: %d", name,
       static_cast<int>(vnet));
  if (!useDefault) return trace.Exit(false);
  PLOG(LOG_INFO2, "Reverting to getting default value");
  if (!PLRDHCPGetParameterDefault(vnet, paramId, buffer, bufferSize)) {
    PLOG(LOG_ERR, "Failure in getting default value of parameter");
    return trace.Exit(false);
  }
  return trace.Exit(true);
}

// The value a parameter has when the vnet stores none.
PLR_EXPORT bool PLRDHCPGetParameterDefault(uint32_t vnet, uint32_t paramId, char* buffer,
                                           size_t bufferSize) {
  plr::FunctionTrace trace(__func__);
  if (!plr::IsSettableDhcpParam(paramId)) {
    PLOG(LOG_ERR, "Invalid DHCP Param Name %d", static_cast<int>(paramId));
    return trace.Exit(false);
  }
  std::string text;
  if (plr::IsAddressParam(paramId)) {
    if (!plr::ComputeAddressDefault(__func__, vnet, paramId, &text) ||
        !plr::CopyDefault(__func__, text, paramId, buffer, bufferSize))
      return trace.Exit(false);
  } else if (plr::IsTimeParam(paramId)) {
    bool isDefault = paramId == PLR_DHCP_PARAM_DEFAULT_LEASE_DURATION_SEC ||
                     paramId == PLR_DHCP_PARAM_SUB_DEFAULT_LEASE_DURATION_SEC;
    text = isDefault ? "1800" : "7200";
    // A short buffer is reported but not a failure; callers have always
    // relied on this and pass at least 10 bytes themselves.
    if (!plr::CopyDefault(__func__, text, paramId, buffer, bufferSize)) return trace.Exit(true);
  } else {
    text = "localdomain";
    if (!plr::CopyDefault(__func__, text, paramId, buffer, bufferSize)) return trace.Exit(false);
  }
  PLOG(LOG_INFO2, "Default value of DHCP parameter: %s is: %s for vnet: %d",
       plr::ParamName(plr::kDhcpTable, paramId), buffer, static_cast<int>(vnet));
  return trace.Exit(true);
}

// Removes the vnet's stored value of `id`, so that its default applies again.
PLR_EXPORT bool PLRDHCPRemoveParameter(uint32_t vnet, uint32_t paramId) {
  plr::FunctionTrace trace(__func__);
  if (paramId <= PLR_DHCP_PARAM_BASE || paramId > PLR_DHCP_PARAM_UNMAPPED) {
    PLOG(LOG_ERR, "Invalid DHCP parameter: %u", paramId);
    return trace.Exit(false);
  }
  const char* name = plr::ParamName(plr::kDhcpTable, paramId);
  if (!PLRRemoveVnetCfg(vnet, plr::ParamKey(plr::kDhcpTable, paramId))) {
    PLOG(LOG_ERR, "Removing value of DHCP parameter: %s failed for vnet: %d", name,
         static_cast<int>(vnet));
    return trace.Exit(false);
  }
  PLOG(LOG_INFO2, "Removed value of DHCP parameter: %s for vnet: %d", name, static_cast<int>(vnet));
  return trace.Exit(true);
}

// Forgets every DHCP setting of the vnet: parameters, block hash and static
// mappings. Goes on after a failure; fails if any parameter stayed.
PLR_EXPORT bool PLRDHCPRemoveDHCPConfig(uint32_t vnet) {
  plr::FunctionTrace trace(__func__);
  static constexpr plr::ParamRemoval kBefore[] = {
      {PLR_DHCP_PARAM_LEASE_BEGIN_IP, "Failure in deleting DHCP parameter Lease Start IP"},
      {PLR_DHCP_PARAM_LEASE_END_IP, "Failure in deleting DHCP parameter lease end IP"},
      {PLR_DHCP_PARAM_BROADCAST_ADDR, "Failure in deleting DHCP parameter broadcast address"},
      {PLR_DHCP_PARAM_DNS_ADDR, "Failure in deleting DHCP parameter DNS address"},
  };
  static constexpr plr::ParamRemoval kNatOnly[] = {
      {PLR_DHCP_PARAM_NETBIOS, "Failure in deleting DHCP parameter netbios"},
      {PLR_DHCP_PARAM_ROUTERS, "Failure in deleting DHCP parameter routers"},
  };
  static constexpr plr::ParamRemoval kAfter[] = {
      {PLR_DHCP_PARAM_DOMAIN_NAME, "Failure in deleting DHCP parameter domain name"},
      {PLR_DHCP_PARAM_DEFAULT_LEASE_DURATION_SEC,
       "Failure in deleting DHCP parameter default lease time"},
      {PLR_DHCP_PARAM_MAX_LEASE_DURATION_SEC, "Failure in deleting DHCP parameter max lease time"},
      {PLR_DHCP_PARAM_SUB_DEFAULT_LEASE_DURATION_SEC,
       "Failure in deleting DHCP subnet parameter default lease time"},
      {PLR_DHCP_PARAM_SUB_MAX_LEASE_DURATION_SEC,
       "Failure in deleting DHCP subnet parameter max lease time"},
  };
  bool ok = plr::RemoveParams(__func__, vnet, kBefore, PLRDHCPRemoveParameter);
  if (PLRGetVnetUseNAT(vnet))
    ok = plr::RemoveParams(__func__, vnet, kNatOnly, PLRDHCPRemoveParameter) && ok;
  ok = plr::RemoveParams(__func__, vnet, kAfter, PLRDHCPRemoveParameter) && ok;
  PLRRemoveVnetCfg(vnet, plr::kDhcpCfgHashKey);
  PLRNetCfgRemoveAllDHCPMACToIPMapping(nullptr, vnet, true);
  return trace.Exit(ok);
}

// The IP statically mapped to `mac` on the vnet.
PLR_EXPORT bool PLRDHCPGetIPToMAC(uint32_t vnet, char* ipBuffer, size_t ipBufferSize,
                                  const char* mac) {
  plr::FunctionTrace trace(__func__);
  if (!PLRNetCfgLookupDHCPMACToIP(nullptr, vnet, mac, ipBuffer, ipBufferSize)) {
    PLOG(LOG_ERR, "Failure while getting the value of DHCP IP to MAC in vnet config");
    return trace.Exit(false);
  }
  return trace.Exit(true);
}

// Maps `mac` to `ip` on the vnet; a NULL ip removes the MAC's mapping.
PLR_EXPORT bool PLRDHCPSetIPToMAC(uint32_t vnet, const char* ip, const char* mac) {
  plr::FunctionTrace trace(__func__);
  if (ip == nullptr) return trace.Exit(PLRNetCfgRemoveDHCPMACToIP(nullptr, vnet, mac));
  if (!PLRIsValidIP(ip)) {
    PLOG(LOG_ERR, "IP address: %s is not valid", ip);
    return trace.Exit(false);
  }
  return trace.Exit(PLRNetCfgAddDHCPMACToIP(nullptr, vnet, mac, ip, false));
}

// The mapping at `*enumOffset`, which moves on by one on success.
PLR_EXPORT bool PLRDHCPEnumIPToMAC(uint32_t vnet, uint32_t* enumOffset, char* ipBuffer,
                                   size_t ipBufferSize, char* macBuffer, size_t macBufferSize) {
  plr::FunctionTrace trace(__func__);
  return trace.Exit(PLRNetCfgEnumDHCPMACToIP(nullptr, vnet, enumOffset, macBuffer, macBufferSize,
                                             ipBuffer, ipBufferSize));
}

}  // extern "C"
