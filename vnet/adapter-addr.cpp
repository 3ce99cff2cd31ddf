// The host-only adapter's address: the stored VIRTUAL_ADAPTER_ADDR, or by
// default the first host address of the vnet's subnet, which is computed on
// demand and never stored.
#include <string.h>

#include "core/log.h"
#include "pelorus/vnet.h"

namespace plr {
namespace {

constexpr size_t kAddrSize = 16;

}  // namespace
}  // namespace plr

extern "C" {

// The subnet's integer value plus one as dotted text into `out` (16 bytes);
// the subnet text is taken as it converts, so host bits carry over.
bool PLRCalcVirtAdapAddr(const char* subnet, char* out) {
  if (subnet == nullptr || out == nullptr) return false;
  uint32_t value = 0;
  PLRIPStr2Int(subnet, &value);
  PLRIPInt2Str(value + 1, out);
  return true;
}

// Copies the adapter address into `buf` of `size` bytes: the stored one, or
// with `calculateDefault` the computed default when none is stored.
bool PLRGetVnetVirtAdapterAddr(uint32_t vnet, char* buf, size_t size, bool calculateDefault) {
  if (PLRGetVnetCfg(vnet, "VIRTUAL_ADAPTER_ADDR") != nullptr) {
    size_t space = size;
    return PLRGetVnetCfgCpy(vnet, "VIRTUAL_ADAPTER_ADDR", buf, &space);
  }
  if (!calculateDefault) return false;

  char subnet[plr::kAddrSize];
  if (!PLRGetVnetSubnetAddr(vnet, subnet, sizeof subnet)) {
    PLOG(LOG_ERR, "Getting Subnet Address failed");
    return false;
  }
  char address[plr::kAddrSize];
  if (!PLRCalcVirtAdapAddr(subnet, address)) {
    PLOG(LOG_ERR, "Could not calculate adapter address");
    return false;
  }
  size_t length = strlen(address);
  if (buf == nullptr || length >= size) {
    PLOG(LOG_ERR, "Insufficient buffer length: %zu for adapter address", size);
    return false;
  }
  memcpy(buf, address, length + 1);
  return true;
}

}  // extern "C"
