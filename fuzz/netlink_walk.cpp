// Feeds arbitrary bytes to the walk over netlink reply buffers. The walk
// must never read outside the buffer and must only return names shorter than
// 16 characters.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "vnet/netlink-walk.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The first four bytes choose "our" pid, so both pid paths are reached.
  uint32_t pid = 0;
  if (size >= 4) {
    memcpy(&pid, data, 4);
    data += 4;
    size -= 4;
  }
  const plr::NetlinkWalkResult result = plr::WalkLinkDump("PLRCreateHostAdapList", data, size, pid);
  for (const plr::NetlinkLink& link : result.links)
    if (link.name.empty() || link.name.size() >= plr::kMaxAdapterNameChars) abort();
  return 0;
}
