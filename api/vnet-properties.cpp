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

// The words of one getter of the shared shape, filled into its log lines.
struct GetterShape {
  uint32_t minimum;
  bool lengthCountsNul;  // the display name alone reports its length without the NUL
  const char* buffer;    // the buffer argument's name in the refusal
  const char* what;      // what was retrieved
  const char* failed;    // what could not be got
};

constexpr GetterShape kDisplayName = {PLR_DISPLAY_NAME_MIN_LEN, false, "name", "display name",
                                      "display name"};
constexpr GetterShape kSubnetAddr = {PLR_IP_ADDR_MIN_LEN, true, "addr", "subnet address",
                                     "subnet address"};
constexpr GetterShape kSubnetMask = {PLR_IP_ADDR_MIN_LEN, true, "mask", "subnet mask",
                                     "subnet mask"};
constexpr GetterShape kAdapterAddr = {PLR_IP_ADDR_MIN_LEN, true, "addr", "adapter address",
                                      "the adapter address"};

// The getter shape: all pointers given and the size at least the minimum,
// a valid name, then `fetch` into the caller's buffer. The caller's length
// changes only on success.
template <class Fetch>
bool RunGetter(const Api& c, const GetterShape& shape, const char* vnetName, char* buffer,
               uint32_t* length, Fetch fetch) {
  uint32_t size = length != nullptr ? *length : 0;
  if (vnetName == nullptr || buffer == nullptr || length == nullptr || size < shape.minimum)
    return c.Fail("Invalid argument - vnet: %p, %s: %p, %sLen:%p,%u", vnetName, shape.buffer,
                  buffer, shape.buffer, length, size);
  uint32_t vnet;
  if (!VnetNumber(c.function(), vnetName, &vnet)) return false;
  if (!fetch(vnet, buffer, size)) return c.Fail("Failure in getting %s", shape.failed);
  *length = TextLen(buffer, size) + (shape.lengthCountsNul ? 1 : 0);
  c.Log(LOG_INFO2, "Retrieved %s: %s, len: %u", shape.what, buffer, *length);
  return true;
}

// The length a caller passed, for argument lines.
uint32_t SizeOf(const uint32_t* length) {
  return length != nullptr ? *length : 0;
}

}  // namespace
}  // namespace plr::api

using namespace plr;
using namespace plr::api;

extern "C" {

// Copies the vnet's display name; the length comes back without the NUL.
bool PLR_GetVnetDisplayName(const char* vnetName, char* name, uint32_t* nameLen) {
  return ApiCall(__func__, [&](Api& c) {
    c.Args("Arguments - v: %p,%s, name: %p, nameLen:%p,%u", vnetName, PLR_STR(vnetName), name,
           nameLen, SizeOf(nameLen));
    return RunGetter(c, kDisplayName, vnetName, name, nameLen, PLRGetVnetDisplayName);
  });
}

// Copies the vnet's subnet address; the length comes back with the NUL.
bool PLR_GetVnetSubnetAddr(const char* vnetName, char* addr, uint32_t* addrLen) {
  return ApiCall(__func__, [&](Api& c) {
    c.Args("Arguments - v: %p,%s, ad: %p, sz:%p,%u", vnetName, PLR_STR(vnetName), addr, addrLen,
           SizeOf(addrLen));
    return RunGetter(c, kSubnetAddr, vnetName, addr, addrLen, PLRGetVnetSubnetAddr);
  });
}

// Copies the vnet's subnet mask; the length comes back with the NUL.
bool PLR_GetVnetSubnetMask(const char* vnetName, char* mask, uint32_t* maskLen) {
  return ApiCall(__func__, [&](Api& c) {
    c.Args("Arguments - v: %p,%s, mask: %p, maskLen:%p,%u", vnetName, PLR_STR(vnetName), mask,
           maskLen, SizeOf(maskLen));
    return RunGetter(c, kSubnetMask, vnetName, mask, maskLen, PLRGetVnetSubnetMask);
  });
}

// Copies the adapter address: the stored one, or with `calculateDefault`
// the subnet's first host address.
bool PLR_GetVnetAdapterAddr(const char* vnetName, char* addr, uint32_t* addrLen,
                            bool calculateDefault) {
  return ApiCall(__func__, [&](Api& c) {
    c.Args("Arguments - v: %p,%s, ad: %p, sz:%p,%u", vnetName, PLR_STR(vnetName), addr, addrLen,
           SizeOf(addrLen));
    auto fetch = [calculateDefault](uint32_t vnet, char* buffer, uint32_t size) {
      return PLRGetVnetVirtAdapterAddr(vnet, buffer, size, calculateDefault);
    };
    return RunGetter(c, kAdapterAddr, vnetName, addr, addrLen, fetch);
  });
}

// Sets the display name; what a NULL name does is the settings layer's call.
bool PLR_SetVnetDisplayName(const char* vnetName, const char* displayName) {
  return ApiCall(__func__, [&](Api& c) {
    c.Args("Arguments - v: %p,%s, sn: %p,%s", vnetName, PLR_STR(vnetName), displayName,
           PLR_STR(displayName));
    uint32_t vnet;
    if (!VnetArg(c, vnetName, &vnet)) return false;
    return c.Outcome(c.Locked([&] { return PLRSetVnetDisplayName(vnet, displayName); }),
                     "Successfully set the display name for vnet: %s",
                     "Error setting display name for vnet: %s", vnetName);
  });
}

// Sets the subnet address, or removes it (marking the subnet unused) on NULL.
bool PLR_SetVnetSubnetAddr(const char* vnetName, const char* subnetAddr) {
  return ApiCall(__func__, [&](Api& c) {
    c.Args("Arguments - v: %p,%s, sn: %p,%s", vnetName, PLR_STR(vnetName), subnetAddr,
           PLR_STR(subnetAddr));
    uint32_t vnet;
    if (!VnetArg(c, vnetName, &vnet)) return false;
    if (subnetAddr != nullptr && !PLRIsValidIP(subnetAddr))
      return c.Fail("Subnet address is not valid: %s", subnetAddr);
    const bool remove = subnetAddr == nullptr;
    bool ok = c.Locked([&] {
      return remove ? PLRRemoveVnetSubnetAddr(vnet) : PLRSetVnetSubnetAddr(vnet, subnetAddr);
    });
    return c.Outcome(ok, "Successfully %s set the subnet address for vnet: %s",
                     "Error %s subnet address for vnet: %s", SetVerb(ok, remove), vnetName);
  });
}

// Sets the subnet mask, or removes it on NULL.
bool PLR_SetVnetSubnetMask(const char* vnetName, const char* mask) {
  return ApiCall(__func__, [&](Api& c) {
    c.Args("Arguments - v: %p,%s, sn: %p,%s", vnetName, PLR_STR(vnetName), mask, PLR_STR(mask));
    uint32_t vnet;
    if (!VnetArg(c, vnetName, &vnet)) return false;
    if (mask != nullptr && !PLRIsValidSubnetMask(mask))
      return c.Fail("Specified mask is not valid");
    const bool remove = mask == nullptr;
    bool ok = c.Locked(
        [&] { return remove ? PLRRemoveVnetSubnetMask(vnet) : PLRSetVnetSubnetMask(vnet, mask); });
    return c.Outcome(ok, "Successfully %s the mask for vnet: %s", "Error %s mask for vnet: %s",
                     SetVerb(ok, remove), vnetName);
  });
}

// Stores the MTU as its decimal text. The text is made inside the bracket; a
// failed allocation writes nothing and logs nothing.
bool PLR_SetVnetMTU(const char* vnetName, uint32_t mtu) {
  return ApiCall(__func__, [&](Api& c) {
    c.Args("Arguments - v: %p,%s, mtu: %u", vnetName, PLR_STR(vnetName), mtu);
    uint32_t vnet;
    if (!VnetArg(c, vnetName, &vnet)) return false;
    bool allocated = true;
    bool ok = c.Locked([&] {
      char* text = nullptr;
      allocated = asprintf(&text, "%u", mtu) >= 0;
      if (!allocated) return false;
      OwnedText owned(text);
      return PLRSetVnetMTU(vnet, owned.get());
    });
    if (!allocated) return false;
    return c.Outcome(ok, "Successfully set the mtu for vnet: %s", "Error setting mtu for vnet: %s",
                     vnetName);
  });
}

// Reads the MTU text and converts it leniently: a non-numeric text reads 0.
bool PLR_GetVnetMTU(const char* vnetName, uint32_t* mtu) {
  return ApiCall(__func__, [&](Api& c) {
    c.Args("Arguments - v: %p,%s", vnetName, PLR_STR(vnetName));
    if (vnetName == nullptr || mtu == nullptr)
      return c.Fail("Invalid argument - vnet: %p, mtu: %p", vnetName, mtu);
    uint32_t vnet;
    if (!VnetNumber(c.function(), vnetName, &vnet)) return false;
    char text[128] = {};
    if (!PLRGetVnetMTU(vnet, text, sizeof text)) return c.Fail("Failure in getting MTU");
    *mtu = static_cast<uint32_t>(strtol(text, nullptr, 10));
    c.Log(LOG_INFO2, "Retrieved MTU: %u", *mtu);
    return true;
  });
}

// Removes the MTU setting.
bool PLR_RemoveMTU(const char* vnetName) {
  return ApiCall(__func__, [&](Api& c) {
    c.Args("Arguments - v: %p,%s", vnetName, PLR_STR(vnetName));
    uint32_t vnet;
    if (!VnetArg(c, vnetName, &vnet)) return false;
    return c.Outcome(c.Locked([&] { return PLRRemoveVnetMTU(vnet); }),
                     "Removing MTU setting succeeded for vnet: %s",
                     "Removing MTU setting failed for vnet: %s", vnetName);
  });
}

// Gives the vnet a free private subnet; an existing one is kept unless
// `overwriteExisting`, and then nothing is locked or changed.
bool PLR_AssignSubnetAddressToVnet(const char* vnetName, bool overwriteExisting) {
  return ApiCall(__func__, [&](Api& c) {
    c.Args("Arguments - v: %p,%s, oE: %u", vnetName, PLR_STR(vnetName), overwriteExisting);
    uint32_t vnet;
    if (!VnetArg(c, vnetName, &vnet)) return false;
    if (PLRVnetIsOptionConfigured(vnet, PLR_VNET_OPTION_SUBNET)) {
      if (!overwriteExisting) {
        c.Log(LOG_INFO2, "Not overwriting existing subnet");
        return true;
      }
      c.Log(LOG_INFO2, "Overwriting existing subnet");
    }
    if (!c.Outcome(c.Locked([&] { return PLRAssignUnusedSubnetAddressToVNet(vnet); }),
                   "New subnet configured for vnet: %s", "Failed to assign subnet to vnet: %s",
                   vnetName))
      return false;
    char subnet[PLR_IP_ADDR_MIN_LEN];
    if (PLRGetVnetSubnetAddr(vnet, subnet, sizeof subnet))
      c.Log(LOG_INFO2, "Subnet address: %s", subnet);
    return true;
  });
}

// Probes for a free private subnet without assigning it; no vnet, no lock.
bool PLR_GetUnusedSubnet(char* subnet, uint32_t subnetLen, char* mask, uint32_t maskLen) {
  return ApiCall(__func__, [&](Api& c) {
    c.Args("Arguments - s: %p, sl: %u, m: %p, ml: %u", subnet, subnetLen, mask, maskLen);
    if (subnet == nullptr || mask == nullptr || subnetLen < PLR_IP_ADDR_MIN_LEN ||
        maskLen < PLR_IP_ADDR_MIN_LEN)
      return c.Fail("Invalid arguments");
    if (!PLRSubnetProbe(subnet, mask)) return c.Fail("Failed to probe for unused subnet");
    c.Log(LOG_OK, "Obtained unused subnet: %s, mask: %s", subnet, mask);
    return true;
  });
}

// Pings the vnet's configured subnet. Once the subnet was read the call
// succeeds; `*available` carries what the probe found.
bool PLR_CheckSubnetAvailability(const char* vnetName, bool broadcast, uint32_t timeout,
                                 uint32_t interval, bool* available) {
  return ApiCall(__func__, [&](Api& c) {
    c.Args("Arguments - v: %p,%s, b: %u, t: %u, i: %u, a: %p", vnetName, PLR_STR(vnetName),
           broadcast, timeout, interval, available);
    if (vnetName == nullptr || available == nullptr)
      return c.Fail("Invalid argument - vnet: %p, available: %p", vnetName, available);
    uint32_t vnet;
    if (!VnetNumber(c.function(), vnetName, &vnet)) return false;
    char subnet[PLR_IP_ADDR_MIN_LEN];
    if (!PLRGetVnetSubnetAddr(vnet, subnet, sizeof subnet))
      return c.Fail("Failure in getting subnet address");
    *available = PLRPingAndCheckSubnet(subnet, broadcast, timeout, interval);
    c.Log(LOG_OK, "Subnet: %s on vnet: %s is %savailable", subnet, vnetName,
          *available ? "" : "not ");
    return true;
  });
}

// Adds a NAT prefix. The description is checked and copied (it need not be
// terminated) but the prefix records keep no description.
bool PLR_SetNATPrefix(const char* vnetName, const char* prefix, const char* description,
                      uint32_t descriptionLen) {
  return ApiCall(__func__, [&](Api& c) {
    if (vnetName == nullptr || prefix == nullptr)
      return c.Fail("Invalid argument - kavix: %p", vnetName);
    uint32_t vnet;
    if (!VnetNumber(c.function(), vnetName, &vnet)) return false;
    if (!PLRIsValidPrefix(prefix)) return c.Fail("Invalid prefix: %s", prefix);
    OwnedText copy;
    if (!TakeDescription(c.function(), description, descriptionLen, &copy)) return false;
    return c.Outcome(
        c.Locked([&] { return PLRNATSetPrefix(vnet, prefix, copy.get(), descriptionLen); }),
        "Setting NAT prefix succeeded for vnet: %s, prefix: %s ",
        "Setting NAT prefix failed for vnet: %s, prefix: %s", vnetName, prefix);
  });
}

// Answers whether `prefix` is configured on the vnet. The description buffer
// is never written; its length comes back as it went in.
bool PLR_GetNATPrefix(const char* vnetName, const char* prefix, char* description,
                      uint32_t* descriptionLen) {
  return ApiCall(__func__, [&](Api& c) {
    if (vnetName == nullptr || prefix == nullptr ||
        (description != nullptr && descriptionLen == nullptr))
      return c.Fail("Invalid argument - kavix: %p", vnetName);
    uint32_t vnet;
    if (!VnetNumber(c.function(), vnetName, &vnet)) return false;
    const uint32_t given = description != nullptr ? *descriptionLen : 0;
    uint32_t length = given;
    if (!PLRNATGetPrefix(vnet, prefix, description, &length))
      return c.Fail("Getting NAT prefix failed on vnet: %s", vnetName);
    if (description != nullptr) *descriptionLen = given;
    return true;
  });
}

}  // extern "C"
