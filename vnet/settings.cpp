// The per-vnet settings vocabulary: every setting of vnet n is the answer
// VNET_<n>_<KEY> of the default database cache. This layer forms the keys,
// reads and writes the answers as text, booleans and caller-buffer copies,
// converts vnet names and numbers and keeps the cached default bridge vnet.
// It never writes a file itself; the database appends each change.
#include <stdio.h>
#include <string.h>
#include <strings.h>

#include "core/frame.h"
#include "pelorus/bridge.h"
#include "pelorus/netcfg.h"
#include "pelorus/svcfiles.h"
#include "pelorus/vnet.h"

namespace plr {
namespace {

// Answer keys are formed into a buffer of this size, at most one byte less of text.
constexpr size_t kKeySize = 512;
constexpr const char kVnetNamePrefix[] = "kavix";
constexpr size_t kVnetNamePrefixLen = sizeof kVnetNamePrefix - 1;
constexpr uint32_t kMaxVnet = PLR_MAX_VNETS - 1;
constexpr const char kDefaultBridgeKey[] = "PLR_DEFAULT_BRIDGE_VNET";

// Forms "VNET_<vnet>_<key>" (vnet as signed decimal) into a zero-filled
// buffer. False for a null key, an empty result or one that would be
// truncated, so no accessor ever works on a cut-off key.
bool FormVnetKey(uint32_t vnet, const char* key, char (&out)[kKeySize]) {
  memset(out, 0, sizeof out);
  if (key == nullptr) return false;
  int n = snprintf(out, sizeof out, "VNET_%d_%s", static_cast<int>(vnet), key);
  return n > 0 && static_cast<size_t>(n) < sizeof out;
}

// Copies a named text setting into a caller buffer of `size` bytes. The size
// is a private copy: these getters never report the needed size.
bool CopySetting(uint32_t vnet, const char* key, char* buf, size_t size) {
  size_t space = size;
  return PLRGetVnetCfgCpy(vnet, key, buf, &space);
}

}  // namespace
}  // namespace plr

extern "C" {

uint32_t plrDefaultBridgeVnet = PLR_VNET_ALL;

// The stored text of VNET_<vnet>_<key>, pointing into the cache (valid until
// that answer changes), or null when absent or the key cannot be formed.
const char* PLRGetVnetCfg(uint32_t vnet, const char* key) {
  char fullKey[plr::kKeySize];
  if (!plr::FormVnetKey(vnet, key, fullKey)) return nullptr;
  const char* value = nullptr;
  if (!PLRNetCfgGetAnswerString(nullptr, fullKey, &value)) return nullptr;
  return value;
}

// Copies VNET_<vnet>_<key> into `buf`. `*size` is the buffer size on entry and
// the needed size (length plus one) on return whenever the answer exists, so a
// caller whose buffer was too small learns how much to allocate.
bool PLRGetVnetCfgCpy(uint32_t vnet, const char* key, char* buf, size_t* size) {
  if (size == nullptr) return false;
  const char* value = PLRGetVnetCfg(vnet, key);
  if (value == nullptr) {
    PLOG(LOG_INFO2, "Unable to find host configuration entry : \"%s\" for Vnet: %d", PLR_STR(key),
         static_cast<int>(vnet));
    return false;
  }
  size_t needed = strlen(value) + 1;
  if (needed > *size || buf == nullptr) {
    PLOG(LOG_INFO2, "Insufficient space provided for host configuration entry: \"%s\".", key);
    *size = needed;
    return false;
  }
  *size = needed;
  memcpy(buf, value, needed);
  return true;
}

// True only when VNET_<vnet>_<key> exists and reads "yes" (any case); an
// absent answer is simply false and is not logged.
bool PLRGetVnetCfgBool(uint32_t vnet, const char* key) {
  char fullKey[plr::kKeySize];
  if (!plr::FormVnetKey(vnet, key, fullKey)) return false;
  bool value = false;
  return PLRNetCfgGetAnswerBool(nullptr, fullKey, &value) && value;
}

// Stores `value` under VNET_<vnet>_<key>; the database appends the record.
bool PLRSetVnetCfg(uint32_t vnet, const char* key, const char* value) {
  char fullKey[plr::kKeySize];
  if (!plr::FormVnetKey(vnet, key, fullKey)) return false;
  return PLRNetCfgAddAnswerString(nullptr, fullKey, value);
}

// Stores a boolean setting as "yes"/"no"; an unchanged value writes nothing.
bool PLRSetVnetCfgBool(uint32_t vnet, const char* key, bool value) {
  char fullKey[plr::kKeySize];
  if (!plr::FormVnetKey(vnet, key, fullKey)) return false;
  return PLRNetCfgAddAnswerBool(nullptr, fullKey, value);
}

// Removes VNET_<vnet>_<key>; removing an absent answer is the database's
// success case.
bool PLRRemoveVnetCfg(uint32_t vnet, const char* key) {
  if (key == nullptr) {
    PLOG(LOG_ERR, "Invalid config option");
    return false;
  }
  char fullKey[plr::kKeySize];
  if (!plr::FormVnetKey(vnet, key, fullKey)) return false;
  return PLRNetCfgRemoveAnswer(nullptr, fullKey);
}

// Named settings: each is one call of the generic accessors above.
bool PLRGetVnetDisplayName(uint32_t vnet, char* buf, size_t size) {
  return plr::CopySetting(vnet, "DISPLAY_NAME", buf, size);
}
bool PLRSetVnetDisplayName(uint32_t vnet, const char* text) {
  return PLRSetVnetCfg(vnet, "DISPLAY_NAME", text);
}
bool PLRGetVnetSubnetAddr(uint32_t vnet, char* buf, size_t size) {
  return plr::CopySetting(vnet, "HOSTONLY_SUBNET", buf, size);
}
bool PLRSetVnetSubnetAddr(uint32_t vnet, const char* text) {
  return PLRSetVnetCfg(vnet, "HOSTONLY_SUBNET", text);
}
bool PLRGetVnetSubnetMask(uint32_t vnet, char* buf, size_t size) {
  return plr::CopySetting(vnet, "HOSTONLY_NETMASK", buf, size);
}
bool PLRSetVnetSubnetMask(uint32_t vnet, const char* text) {
  return PLRSetVnetCfg(vnet, "HOSTONLY_NETMASK", text);
}
bool PLRRemoveVnetSubnetMask(uint32_t vnet) {
  return PLRRemoveVnetCfg(vnet, "HOSTONLY_NETMASK");
}
bool PLRGetVnetMTU(uint32_t vnet, char* buf, size_t size) {
  return plr::CopySetting(vnet, "MTU", buf, size);
}
bool PLRSetVnetMTU(uint32_t vnet, const char* text) {
  return PLRSetVnetCfg(vnet, "MTU", text);
}
bool PLRRemoveVnetMTU(uint32_t vnet) {
  return PLRRemoveVnetCfg(vnet, "MTU");
}
bool PLRSetVnetVirtAdapterAddr(uint32_t vnet, const char* text) {
  return PLRSetVnetCfg(vnet, "VIRTUAL_ADAPTER_ADDR", text);
}
bool PLRRemoveVnetVirtAdapterAddr(uint32_t vnet) {
  return PLRRemoveVnetCfg(vnet, "VIRTUAL_ADAPTER_ADDR");
}
bool PLRSetVnetVirtAdapter(uint32_t vnet, const char* name) {
  return PLRSetVnetCfg(vnet, "VIRTUAL_ADAPTER_NAME", name);
}
bool PLRGetVnetUseDHCP(uint32_t vnet) {
  return PLRGetVnetCfgBool(vnet, "DHCP");
}
bool PLRGetVnetUseNAT(uint32_t vnet) {
  return PLRGetVnetCfgBool(vnet, "NAT");
}

// The host-only adapter's interface name: the stored one when it fits,
// otherwise (absent) the default "kavix<n>", truncated to the buffer.
bool PLRGetVnetVirtAdapter(uint32_t vnet, char* buf, size_t size) {
  if (PLRGetVnetCfg(vnet, "VIRTUAL_ADAPTER_NAME") != nullptr)
    return plr::CopySetting(vnet, "VIRTUAL_ADAPTER_NAME", buf, size);
  if (buf == nullptr) return false;
  snprintf(buf, size, "%s%d", plr::kVnetNamePrefix, static_cast<int>(vnet));
  return true;
}

// Switches DHCP for the vnet; with `removeConfig` the vnet's DHCP parameters
// and mappings go too, and a failed removal fails the call.
bool PLRSetVnetUseDHCP(uint32_t vnet, bool use, bool removeConfig) {
  if (!PLRSetVnetCfgBool(vnet, "DHCP", use)) {
    PLOG(LOG_ERR, "Error setting DHCP to %u in vnet config", static_cast<unsigned>(use));
    return false;
  }
  PLOG(LOG_INFO2, "DHCP set to %u in vnet config for vnet: %u", static_cast<unsigned>(use), vnet);
  if (!removeConfig) return true;
  bool removed = PLRDHCPRemoveDHCPConfig(vnet);
  if (!removed) PLOG(LOG_ERR, "Error removing DHCP configuration informtion");
  return removed;
}

// Switches NAT for the vnet; with `removeConfig` the NAT parameters and port
// forwards go too. Unlike DHCP, a failed NAT removal is only reported: the
// switch itself has been stored and the call succeeds.
bool PLRSetVnetUseNAT(uint32_t vnet, bool use, bool removeConfig) {
  if (!PLRSetVnetCfgBool(vnet, "NAT", use)) {
    PLOG(LOG_ERR, "Error setting NAT to %u in vnet config", static_cast<unsigned>(use));
    return false;
  }
  PLOG(LOG_INFO2, "NAT set to %u in vnet config for vnet: %u", static_cast<unsigned>(use), vnet);
  if (removeConfig && !PLRNATRemoveConfig(vnet))
    PLOG(LOG_INFO, "Error removing NAT coniguration information");
  return true;
}

// Records whether the vnet has a host-only adapter; with `removeConfig` its
// stored address and then its name are removed, stopping at the first failure.
bool PLRSetVnetUseAdapter(uint32_t vnet, bool use, bool removeConfig) {
  if (!PLRSetVnetCfgBool(vnet, "VIRTUAL_ADAPTER", use)) {
    PLOG(LOG_ERR, "Error setting VIRTUAL_ADAPTER to %u in vnet config", static_cast<unsigned>(use));
    return false;
  }
  PLOG(LOG_INFO2, "VIRTUAL_ADAPTER set to %u in vnet config for vnet: %u",
       static_cast<unsigned>(use), vnet);
  if (!removeConfig) return true;
  if (!PLRRemoveVnetVirtAdapterAddr(vnet)) {
    PLOG(LOG_ERR, "Error removing Adapter address from vnet config");
    return false;
  }
  bool removed = PLRRemoveVnetCfg(vnet, "VIRTUAL_ADAPTER_NAME");
  if (!removed) PLOG(LOG_ERR, "Error removing Adapter name from vnet config");
  return removed;
}

// Gives the vnet's subnet back: it becomes a candidate for automatic
// assignment again, and the answer is removed in every case.
bool PLRRemoveVnetSubnetAddr(uint32_t vnet) {
  if (PLRVnetIsOptionConfigured(vnet, PLR_VNET_OPTION_SUBNET)) {
    char subnet[16];
    if (PLRGetVnetSubnetAddr(vnet, subnet, sizeof subnet)) {
      PLOG(LOG_INFO, "Marking subnet: %s as unused", subnet);
      PLRMarkSubnetUsed(subnet, false);
    }
  }
  return PLRRemoveVnetCfg(vnet, "HOSTONLY_SUBNET");
}

// Removes subnet and mask; the mask only once the subnet is gone.
bool PLRRemoveSubnetAssignment(uint32_t vnet) {
  if (!PLRRemoveVnetSubnetAddr(vnet)) return false;
  return PLRRemoveVnetSubnetMask(vnet);
}

// Whether `option` (PLR_VNET_OPTION_*) is in use on the vnet. A vnet is
// bridged when it is the default bridge vnet or has bridged adapters.
bool PLRVnetIsOptionConfigured(uint32_t vnet, uint32_t option) {
  switch (option) {
    case PLR_VNET_OPTION_BRIDGE: {
      uint32_t defaultBridge = PLR_VNET_ALL;
      if (!PLRGetDefaultBridgeVnet(&defaultBridge))
        PLOG(LOG_ERR, "Failed to get the value of default bridge");
      else if (defaultBridge == vnet)
        return true;
      uint32_t count = 0;
      PLR_HostAdapter* list = nullptr;
      bool ok = PLRGetVnetBridge(vnet, &count, &list);
      PLRFreeHostAdapList(&list);
      if (!ok) {
        PLOG(LOG_ERR, "Cannot get bridge mappings for vnet: %d", static_cast<int>(vnet));
        return false;
      }
      return count != 0;
    }
    case PLR_VNET_OPTION_DHCP:
      return PLRGetVnetUseDHCP(vnet);
    case PLR_VNET_OPTION_NAT:
      return PLRGetVnetUseNAT(vnet);
    case PLR_VNET_OPTION_VIRTUAL_ADAPTER:
      return PLRGetVnetCfgBool(vnet, "VIRTUAL_ADAPTER");
    case PLR_VNET_OPTION_SUBNET:
      return PLRGetVnetCfg(vnet, "HOSTONLY_SUBNET") != nullptr;
    default:
      return false;
  }
}

// The default bridge vnet, read once from PLR_DEFAULT_BRIDGE_VNET (absent
// means vnet 0) and cached until the database is unloaded. Only 0 and -1 are
// accepted from the database; anything else fails every time and is not cached.
bool PLRGetDefaultBridgeVnet(uint32_t* vnet) {
  if (plrDefaultBridgeVnet == PLR_VNET_ALL) {
    int32_t value = 0;
    if (!PLRNetCfgGetAnswerInt32(nullptr, plr::kDefaultBridgeKey, &value)) {
      value = 0;
    } else if (static_cast<uint32_t>(value) + 1u > 1u) {
      PLOG(LOG_ERR, "Invalid value of defaultBridge in config");
      return false;
    }
    plrDefaultBridgeVnet = static_cast<uint32_t>(value);
  }
  if (vnet != nullptr) *vnet = plrDefaultBridgeVnet;
  return true;
}

// Stores the default bridge vnet (any value; -1 means none) and, once it is
// stored, caches it.
bool PLRSetDefaultBridgeVnet(uint32_t vnet) {
  if (!PLRNetCfgAddAnswerInt32(nullptr, plr::kDefaultBridgeKey, static_cast<int32_t>(vnet))) {
    PLOG(LOG_ERR, "Error setting value of DefaultBridge in config");
    return false;
  }
  plrDefaultBridgeVnet = vnet;
  return true;
}

// "kavix<n>" (prefix in any case, n decimal 0..255, leading zeros allowed)
// to n; PLR_VNET_NONE for anything else. Digits stop being read once the
// value passes 255, so arbitrarily long numbers cannot overflow.
uint32_t PLRConvVnetNameToNum(const char* name) {
  if (name == nullptr || strncasecmp(name, plr::kVnetNamePrefix, plr::kVnetNamePrefixLen) != 0)
    return PLR_VNET_NONE;
  const char* p = name + plr::kVnetNamePrefixLen;
  uint32_t value = 0;
  bool sawDigit = false;
  while (value <= plr::kMaxVnet && *p >= '0' && *p <= '9') {
    value = value * 10 + static_cast<uint32_t>(*p - '0');
    sawDigit = true;
    ++p;
  }
  if (*p != '\0' || value > plr::kMaxVnet || !sawDigit) return PLR_VNET_NONE;
  return value;
}

// Writes "kavix<vnet>" into `buf` (PLR_VNET_NAME_SIZE bytes); vnets above
// 255 fail and leave the buffer untouched.
bool PLRConvVnetNumToName(uint32_t vnet, char* buf) {
  if (vnet > plr::kMaxVnet || buf == nullptr) return false;
  snprintf(buf, PLR_VNET_NAME_SIZE, "%s%d", plr::kVnetNamePrefix, static_cast<int>(vnet));
  return true;
}

}  // extern "C"
