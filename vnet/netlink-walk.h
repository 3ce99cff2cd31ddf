// The walk over one buffer of a netlink RTM_GETLINK dump reply. It is a pure
// function over bytes, kept apart from the socket so that any reply shape can
// be tested and fuzzed without a kernel. It logs under the name of the
// enumeration it serves (PLRCreateHostAdapList).
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace plr {

// Sequence number of the one dump request the enumeration sends.
inline constexpr uint32_t kLinkDumpSequence = 1;
// Interface names of this many characters or more are refused.
inline constexpr size_t kMaxAdapterNameChars = 16;

// One Ethernet interface found in a reply.
struct NetlinkLink {
  std::string name;  // shorter than kMaxAdapterNameChars
  bool running;      // IFF_RUNNING at the time of the dump
};

struct NetlinkWalkResult {
  std::vector<NetlinkLink> links;  // in the order of the messages
  // The buffer held a message (other than NLMSG_DONE) flagged NLM_F_MULTI:
  // the reply goes on and the caller must receive again.
  bool multipart = false;
};

// Walks the messages of `size` bytes at `data` (any alignment, any content).
// Messages whose pid is not `ourPid` and whose sequence is not
// kLinkDumpSequence are skipped; NLMSG_ERROR ends the walk; non-Ethernet
// interfaces, interfaces without a name and names of kMaxAdapterNameChars
// characters or more are left out. Never reads outside the buffer. Logs
// under `function`, the enumeration that received the buffer.
NetlinkWalkResult WalkLinkDump(const char* function, const uint8_t* data, size_t size,
                               uint32_t ourPid);

}  // namespace plr
