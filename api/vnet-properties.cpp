// Exported vnet properties: display name, subnet address and mask, adapter
// address, MTU, NAT prefixes, free-subnet requests and subnet availability.
// Each function checks its arguments before any lock, then hands the work to
// the vnet settings, subnet and NAT prefix layers.
#include <stdlib.h>
#include <string.h>

#include <string>

#include "api/api-util.h"
#include "pelorus/api.h"
#include "pelorus/core.h"
#include "pelorus/svcfiles.h"
#include "pelorus/vnet.h"

namespace plr::api {
namespace {

// The texts of one getter of the shared shape. `invalid` takes (vnet,
// buffer, length pointer, length), `retrieved` (text, length) and `failed`
// nothing.
struct GetterShape {
  uint32_t minimum;
  bool lengthCountsNul;  // the display name alone reports its length without the NUL
  const char* invalid;
  const char* retrieved;
  const char* failed;
};

constexpr GetterShape kDisplayName = {
    PLR_DISPLAY_NAME_MIN_LEN, false, "Invalid argument - vnet: %p, name: %p, nameLen:%p,%u",
    "Retrieved display name: %s, len: %u", "Failure in getting display name"};
constexpr GetterShape kSubnetAddr = {
    PLR_IP_ADDR_MIN_LEN, true, "Invalid argument - vnet: %p, addr: %p, addrLen:%p,%u",
    "Retrieved subnet address: %s, len: %u", "Failure in getting subnet address"};
constexpr GetterShape kSubnetMask = {
    PLR_IP_ADDR_MIN_LEN, true, "Invalid argument - vnet: %p, mask: %p, maskLen:%p,%u",
    "Retrieved subnet mask: %s, len: %u", "Failure in getting subnet mask"};
constexpr GetterShape kAdapterAddr = {
    PLR_IP_ADDR_MIN_LEN, true, "Invalid argument - vnet: %p, addr: %p, addrLen:%p,%u",
    "Retrieved adapter address: %s, len: %u", "Failure in getting the adapter address"};

// The getter shape: all pointers given and the size at least the minimum,
// a valid name, then `fetch` into the caller's buffer. The caller's length
// changes only on success.
template <class Fetch>
bool RunGetter(const char* function, const GetterShape& shape, const char* vnetName, char* buffer,
               uint32_t* length, Fetch fetch) {
  uint32_t size = length != nullptr ? *length : 0;
  if (vnetName == nullptr || buffer == nullptr || length == nullptr || size < shape.minimum) {
    PLOG_AS(function, LOG_ERR, shape.invalid, vnetName, buffer, length, size);
    return false;
  }
  uint32_t vnet;
  if (!VnetNumber(function, vnetName, &vnet)) return false;
  if (!fetch(vnet, buffer, size)) {
    PLOG_AS(function, LOG_ERR, shape.failed, vnetName);
    return false;
  }
  *length = TextLen(buffer, size) + (shape.lengthCountsNul ? 1 : 0);
  PLOG_AS(function, LOG_INFO2, shape.retrieved, buffer, *length);
  return true;
}

// The first checks of every setter: a vnet name is given and valid.
bool SetterVnet(const char* function, const char* vnetName, uint32_t* vnet) {
  if (vnetName == nullptr) {
    PLOG_AS(function, LOG_ERR, "Invalid argument - vnet: %p", vnetName);
    return false;
  }
  return VnetNumber(function, vnetName, vnet);
}

}  // namespace
}  // namespace plr::api

using plr::ApiFrame;
using plr::api::SetterVnet;
using plr::api::VnetNumber;

extern "C" {

// Copies the vnet's display name; the length comes back without the NUL.
bool PLR_GetVnetDisplayName(const char* vnetName, char* name, uint32_t* nameLen) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  frame.Args("Arguments - v: %p,%s, name: %p, nameLen:%p,%u", vnetName, PLR_STR(vnetName), name,
             nameLen, nameLen != nullptr ? *nameLen : 0);
  PLR_RETURN(frame, plr::api::RunGetter(__func__, plr::api::kDisplayName, vnetName, name, nameLen,
                                        PLRGetVnetDisplayName));
}

// Copies the vnet's subnet address; the length comes back with the NUL.
bool PLR_GetVnetSubnetAddr(const char* vnetName, char* addr, uint32_t* addrLen) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  frame.Args("Arguments - v: %p,%s, ad: %p, sz:%p,%u", vnetName, PLR_STR(vnetName), addr, addrLen,
             addrLen != nullptr ? *addrLen : 0);
  PLR_RETURN(frame, plr::api::RunGetter(__func__, plr::api::kSubnetAddr, vnetName, addr, addrLen,
                                        PLRGetVnetSubnetAddr));
}

// Copies the vnet's subnet mask; the length comes back with the NUL.
bool PLR_GetVnetSubnetMask(const char* vnetName, char* mask, uint32_t* maskLen) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  frame.Args("Arguments - v: %p,%s, mask: %p, maskLen:%p,%u", vnetName, PLR_STR(vnetName), mask,
             maskLen, maskLen != nullptr ? *maskLen : 0);
  PLR_RETURN(frame, plr::api::RunGetter(__func__, plr::api::kSubnetMask, vnetName, mask, maskLen,
                                        PLRGetVnetSubnetMask));
}

// Copies the adapter address: the stored one, or with `calculateDefault`
// the subnet's first host address.
bool PLR_GetVnetAdapterAddr(const char* vnetName, char* addr, uint32_t* addrLen,
                            bool calculateDefault) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  frame.Args("Arguments - v: %p,%s, ad: %p, sz:%p,%u", vnetName, PLR_STR(vnetName), addr, addrLen,
             addrLen != nullptr ? *addrLen : 0);
  auto fetch = [calculateDefault](uint32_t vnet, char* buffer, uint32_t size) {
    return PLRGetVnetVirtAdapterAddr(vnet, buffer, size, calculateDefault);
  };
  PLR_RETURN(frame,
             plr::api::RunGetter(__func__, plr::api::kAdapterAddr, vnetName, addr, addrLen, fetch));
}

// Sets the display name; what a NULL name does is the settings layer's call.
bool PLR_SetVnetDisplayName(const char* vnetName, const char* displayName) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  frame.Args("Arguments - v: %p,%s, sn: %p,%s", vnetName, PLR_STR(vnetName), displayName,
             PLR_STR(displayName));
  uint32_t vnet;
  if (!SetterVnet(__func__, vnetName, &vnet)) PLR_RETURN(frame, false);
  bool ok = plr::WithWriteLock(__func__, [&] { return PLRSetVnetDisplayName(vnet, displayName); });
  if (ok) {
    PLOG(LOG_OK, "Successfully set the display name for vnet: %s", vnetName);
  } else {
    PLOG(LOG_ERR, "Error setting display name for vnet: %s", vnetName);
  }
  PLR_RETURN(frame, ok);
}

// Sets the subnet address, or removes it (marking the subnet unused) on NULL.
bool PLR_SetVnetSubnetAddr(const char* vnetName, const char* subnetAddr) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  frame.Args("Arguments - v: %p,%s, sn: %p,%s", vnetName, PLR_STR(vnetName), subnetAddr,
             PLR_STR(subnetAddr));
  uint32_t vnet;
  if (!SetterVnet(__func__, vnetName, &vnet)) PLR_RETURN(frame, false);
  if (subnetAddr != nullptr && !PLRIsValidIP(subnetAddr)) {
    PLOG(LOG_ERR, "Subnet address is not valid: %s", subnetAddr);
    PLR_RETURN(frame, false);
  }
  bool remove = subnetAddr == nullptr;
  bool ok = plr::WithWriteLock(__func__, [&] {
    return remove ? PLRRemoveVnetSubnetAddr(vnet) : PLRSetVnetSubnetAddr(vnet, subnetAddr);
  });
  if (ok) {
    PLOG(LOG_OK, "Successfully %s set the subnet address for vnet: %s", remove ? "removed" : "set",
         vnetName);
  } else {
    PLOG(LOG_ERR, "Error %s subnet address for vnet: %s", remove ? "removing" : "setting",
         vnetName);
  }
  PLR_RETURN(frame, ok);
}

// Sets the subnet mask, or removes it on NULL.
bool PLR_SetVnetSubnetMask(const char* vnetName, const char* mask) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  frame.Args("Arguments - v: %p,%s, sn: %p,%s", vnetName, PLR_STR(vnetName), mask, PLR_STR(mask));
  uint32_t vnet;
  if (!SetterVnet(__func__, vnetName, &vnet)) PLR_RETURN(frame, false);
  if (mask != nullptr && !PLRIsValidSubnetMask(mask)) {
    PLOG(LOG_ERR, "Specified mask is not valid");
    PLR_RETURN(frame, false);
  }
  bool remove = mask == nullptr;
  bool ok = plr::WithWriteLock(__func__, [&] {
    return remove ? PLRRemoveVnetSubnetMask(vnet) : PLRSetVnetSubnetMask(vnet, mask);
  });
  if (ok) {
    PLOG(LOG_OK, "Successfully %s the mask for vnet: %s", remove ? "removed" : "set", vnetName);
  } else {
    PLOG(LOG_ERR, "Error %s mask for vnet: %s", remove ? "removing" : "setting", vnetName);
  }
  PLR_RETURN(frame, ok);
}

// Stores the MTU as its decimal text. The text is made inside the bracket; a
// failed allocation writes nothing and logs nothing.
bool PLR_SetVnetMTU(const char* vnetName, uint32_t mtu) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  frame.Args("Arguments - v: %p,%s, mtu: %u", vnetName, PLR_STR(vnetName), mtu);
  uint32_t vnet;
  if (!SetterVnet(__func__, vnetName, &vnet)) PLR_RETURN(frame, false);
  bool allocated = true;
  bool ok = plr::WithWriteLock(__func__, [&] {
    char* text = nullptr;
    allocated = asprintf(&text, "%u", mtu) >= 0;
    if (!allocated) return false;
    plr::api::OwnedText owned(text);
    return PLRSetVnetMTU(vnet, owned.get());
  });
  if (ok) {
    PLOG(LOG_OK, "Successfully set the mtu for vnet: %s", vnetName);
  } else if (allocated) {
    PLOG(LOG_ERR, "Error setting mtu for vnet: %s", vnetName);
  }
  PLR_RETURN(frame, ok);
}

// Reads the MTU text and converts it leniently: a non-numeric text reads 0.
bool PLR_GetVnetMTU(const char* vnetName, uint32_t* mtu) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  frame.Args("Arguments - v: %p,%s", vnetName, PLR_STR(vnetName));
  if (vnetName == nullptr || mtu == nullptr) {
    PLOG(LOG_ERR, "Invalid argument - vnet: %p, mtu: %p", vnetName, mtu);
    PLR_RETURN(frame, false);
  }
  uint32_t vnet;
  if (!VnetNumber(__func__, vnetName, &vnet)) PLR_RETURN(frame, false);
  char text[128] = {};
  if (!PLRGetVnetMTU(vnet, text, sizeof text)) {
    PLOG(LOG_ERR, "Failure in getting MTU");
    PLR_RETURN(frame, false);
  }
  *mtu = static_cast<uint32_t>(strtol(text, nullptr, 10));
  PLOG(LOG_INFO2, "Retrieved MTU: %u", *mtu);
  PLR_RETURN(frame, true);
}

// Removes the MTU setting.
bool PLR_RemoveMTU(const char* vnetName) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  frame.Args("Arguments - v: %p,%s", vnetName, PLR_STR(vnetName));
  uint32_t vnet;
  if (!SetterVnet(__func__, vnetName, &vnet)) PLR_RETURN(frame, false);
  bool ok = plr::WithWriteLock(__func__, [&] { return PLRRemoveVnetMTU(vnet); });
  if (ok) {
    PLOG(LOG_OK, "Removing MTU setting succeeded for vnet: %s", vnetName);
  } else {
    PLOG(LOG_ERR, "Removing MTU setting failed for vnet: %s", vnetName);
  }
  PLR_RETURN(frame, ok);
}

// Gives the vnet a free private subnet; an existing one is kept unless
// `overwriteExisting`, and then nothing is locked or changed.
bool PLR_AssignSubnetAddressToVnet(const char* vnetName, bool overwriteExisting) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  frame.Args("Arguments - v: %p,%s, oE: %u", vnetName, PLR_STR(vnetName), overwriteExisting);
  uint32_t vnet;
  if (!SetterVnet(__func__, vnetName, &vnet)) PLR_RETURN(frame, false);
  if (PLRVnetIsOptionConfigured(vnet, PLR_VNET_OPTION_SUBNET)) {
    if (!overwriteExisting) {
      PLOG(LOG_INFO2, "Not overwriting existing subnet");
      PLR_RETURN(frame, true);
    }
    PLOG(LOG_INFO2, "Overwriting existing subnet");
  }
  bool ok = plr::WithWriteLock(__func__, [&] { return PLRAssignUnusedSubnetAddressToVNet(vnet); });
  if (ok) {
    PLOG(LOG_OK, "New subnet configured for vnet: %s", vnetName);
    char subnet[PLR_IP_ADDR_MIN_LEN];
    if (PLRGetVnetSubnetAddr(vnet, subnet, sizeof subnet))
      PLOG(LOG_INFO2, "Subnet address: %s", subnet);
  } else {
    PLOG(LOG_ERR, "Failed to assign subnet to vnet: %s", vnetName);
  }
  PLR_RETURN(frame, ok);
}

// Probes for a free private subnet without assigning it; no vnet, no lock.
bool PLR_GetUnusedSubnet(char* subnet, uint32_t subnetLen, char* mask, uint32_t maskLen) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  frame.Args("Arguments - s: %p, sl: %u, m: %p, ml: %u", subnet, subnetLen, mask, maskLen);
  if (subnet == nullptr || mask == nullptr || subnetLen < PLR_IP_ADDR_MIN_LEN ||
      maskLen < PLR_IP_ADDR_MIN_LEN) {
    PLOG(LOG_ERR, "Invalid arguments");
    PLR_RETURN(frame, false);
  }
  if (!PLRSubnetProbe(subnet, mask)) {
    PLOG(LOG_ERR, "Failed to probe for unused subnet");
    PLR_RETURN(frame, false);
  }
  PLOG(LOG_OK, "Obtained unused subnet: %s, mask: %s", subnet, mask);
  PLR_RETURN(frame, true);
}

// Pings the vnet's configured subnet. Once the subnet was read the call
// succeeds; `*available` carries what the probe found.
bool PLR_CheckSubnetAvailability(const char* vnetName, bool broadcast, uint32_t timeout,
                                 uint32_t interval, bool* available) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  frame.Args("Arguments - v: %p,%s, b: %u, t: %u, i: %u, a: %p", vnetName, PLR_STR(vnetName),
             broadcast, timeout, interval, available);
  if (vnetName == nullptr || available == nullptr) {
    PLOG(LOG_ERR, "Invalid argument - vnet: %p, available: %p", vnetName, available);
    PLR_RETURN(frame, false);
  }
  uint32_t vnet;
  if (!VnetNumber(__func__, vnetName, &vnet)) PLR_RETURN(frame, false);
  char subnet[PLR_IP_ADDR_MIN_LEN];
  if (!PLRGetVnetSubnetAddr(vnet, subnet, sizeof subnet)) {
    PLOG(LOG_ERR, "Failure in getting subnet address");
    PLR_RETURN(frame, false);
  }
  *available = PLRPingAndCheckSubnet(subnet, broadcast, timeout, interval);
  PLOG(LOG_OK, "Subnet: %s on vnet: %s is %savailable", subnet, vnetName, *available ? "" : "not ");
  PLR_RETURN(frame, true);
}

// Adds a NAT prefix. The description is checked and copied (it need not be
// terminated) but the prefix records keep no description.
bool PLR_SetNATPrefix(const char* vnetName, const char* prefix, const char* description,
                      uint32_t descriptionLen) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  if (vnetName == nullptr || prefix == nullptr) {
    PLOG(LOG_ERR, "Invalid argument - kavix: %p", vnetName);
    PLR_RETURN(frame, false);
  }
  uint32_t vnet;
  if (!VnetNumber(__func__, vnetName, &vnet)) PLR_RETURN(frame, false);
  if (!PLRIsValidPrefix(prefix)) {
    PLOG(LOG_ERR, "Invalid prefix: %s", prefix);
    PLR_RETURN(frame, false);
  }
  plr::api::OwnedText copy;
  if (!plr::api::TakeDescription(__func__, description, descriptionLen, &copy))
    PLR_RETURN(frame, false);
  bool ok = plr::WithWriteLock(
      __func__, [&] { return PLRNATSetPrefix(vnet, prefix, copy.get(), descriptionLen); });
  if (ok) {
    PLOG(LOG_OK, "Setting NAT prefix succeeded for vnet: %s, prefix: %s ", vnetName, prefix);
  } else {
    PLOG(LOG_ERR, "Setting NAT prefix failed for vnet: %s, prefix: %s", vnetName, prefix);
  }
  PLR_RETURN(frame, ok);
}

// Answers whether `prefix` is configured on the vnet. The description buffer
// is never written; its length comes back as it went in.
bool PLR_GetNATPrefix(const char* vnetName, const char* prefix, char* description,
                      uint32_t* descriptionLen) {
  ApiFrame frame(__func__, __LINE__);
  if (!frame.Loaded()) return false;
  if (vnetName == nullptr || prefix == nullptr ||
      (description != nullptr && descriptionLen == nullptr)) {
    PLOG(LOG_ERR, "Invalid argument - kavix: %p", vnetName);
    PLR_RETURN(frame, false);
  }
  uint32_t vnet;
  if (!VnetNumber(__func__, vnetName, &vnet)) PLR_RETURN(frame, false);
  const uint32_t given = description != nullptr ? *descriptionLen : 0;
  uint32_t length = given;
  if (!PLRNATGetPrefix(vnet, prefix, description, &length)) {
    PLOG(LOG_ERR, "Getting NAT prefix failed on vnet: %s", vnetName);
    PLR_RETURN(frame, false);
  }
  if (description != nullptr) *descriptionLen = given;
  PLR_RETURN(frame, true);
}

}  // extern "C"
