#include "vnet/netlink-walk.h"

#include <net/if.h>
#include <net/if_arp.h>
// after net/if.h, which the kernel headers below must not redefine
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <string.h>

#include <algorithm>

#include "core/log.h"

namespace plr {
namespace {

constexpr size_t kHeaderSize = sizeof(nlmsghdr);    // 16
constexpr size_t kIfInfoSize = sizeof(ifinfomsg);   // 16
constexpr size_t kAttrHeaderSize = sizeof(rtattr);  // 4
constexpr size_t kLinkMessageMin = kHeaderSize + kIfInfoSize;
// The attribute area is taken as the message length minus this, which is
// 8 bytes more than the attributes can occupy; the per-attribute checks end
// the walk, and the area is further bounded by the end of the buffer.
constexpr size_t kAttrAreaDeduction = 24;

static_assert(kHeaderSize == 16 && kIfInfoSize == 16 && kAttrHeaderSize == 4);

constexpr size_t Align4(size_t n) {
  return (n + 3) & ~static_cast<size_t>(3);
}

// Reads a record of type T at `p`, which may be unaligned.
template <class T>
T ReadAt(const uint8_t* p) {
  T value;
  memcpy(&value, p, sizeof value);
  return value;
}

// True when the message belongs to our request: either the pid or the
// sequence number matches.
bool IsOurs(const char* function, const nlmsghdr& header, uint32_t ourPid) {
  if (header.nlmsg_pid == ourPid || header.nlmsg_seq == kLinkDumpSequence) return true;
  PLOG_AS(function, LOG_INFO2,
          "PID or Seq does not match: Req-pid = %u, Resp-pid = %u, Req-seq = %u, Resp-seq = %u",
          ourPid, header.nlmsg_pid, kLinkDumpSequence, header.nlmsg_seq);
  return false;
}

// Finds the IFLA_IFNAME attribute among the attributes starting at `attrs`,
// within `area` bytes; a later name replaces an earlier one. Empty when none.
std::string FindInterfaceName(const char* function, const uint8_t* attrs, size_t area) {
  std::string name;
  while (area >= kAttrHeaderSize) {
    const rtattr attr = ReadAt<rtattr>(attrs);
    if (attr.rta_len < kAttrHeaderSize || attr.rta_len > area) break;
    const size_t payload = attr.rta_len - kAttrHeaderSize;
    const char* text = reinterpret_cast<const char*>(attrs + kAttrHeaderSize);
    if (attr.rta_type == IFLA_IFNAME) {
      name.assign(text, strnlen(text, payload));
      PLOG_AS(function, LOG_INFO2, "Found name of adapter: %s", name.c_str());
    } else {
      PLOG_AS(function, LOG_INFO2, "Ignoring Attribute: %u", attr.rta_type);
    }
    const size_t step = Align4(attr.rta_len);
    if (step >= area) break;
    attrs += step;
    area -= step;
  }
  return name;
}

// Reads one message of `length` bytes at `message` as a link message and
// appends the Ethernet interface it describes. `available` is what the
// buffer holds from `message` on.
void ReadLinkMessage(const char* function, const uint8_t* message, size_t length, size_t available,
                     NetlinkWalkResult& result) {
  if (length < kLinkMessageMin) return;  // too short to describe an interface
  const ifinfomsg info = ReadAt<ifinfomsg>(message + kHeaderSize);
  const bool running = (info.ifi_flags & IFF_RUNNING) != 0;
  PLOG_AS(function, LOG_INFO2,
          "Adapter: ifi_family: %u, ifi_type: %u, ifi_index: %u, ifi_flags: %s,ifi_change: %x",
          info.ifi_family, info.ifi_type, static_cast<unsigned>(info.ifi_index),
          running ? "running" : "not running", info.ifi_change);
  if (info.ifi_type != ARPHRD_ETHER) {
    PLOG_AS(function, LOG_INFO2, "Skipping non-ethernet interface: ifi_type: %u", info.ifi_type);
    return;
  }
  const size_t area = std::min(length - kAttrAreaDeduction, available - kLinkMessageMin);
  std::string name = FindInterfaceName(function, message + kLinkMessageMin, area);
  if (name.empty()) {
    PLOG_AS(function, LOG_ERR, "Skipping adapter without name");
    return;
  }
  if (name.size() >= kMaxAdapterNameChars) {
    PLOG_AS(function, LOG_ERR, "Interface name %s is longer than allowed %u characters",
            name.c_str(), static_cast<unsigned>(kMaxAdapterNameChars));
    return;
  }
  result.links.push_back(NetlinkLink{std::move(name), running});
}

}  // namespace

// Walks every complete message of the buffer; see the header for the rules.
NetlinkWalkResult WalkLinkDump(const char* function, const uint8_t* data, size_t size,
                               uint32_t ourPid) {
  NetlinkWalkResult result;
  size_t offset = 0;
  while (size - offset >= kHeaderSize) {
    const nlmsghdr header = ReadAt<nlmsghdr>(data + offset);
    const size_t remaining = size - offset;
    if (header.nlmsg_len < kHeaderSize || header.nlmsg_len > remaining) break;
    if (IsOurs(function, header, ourPid)) {
      if (header.nlmsg_type == NLMSG_ERROR) break;
      if (header.nlmsg_type != NLMSG_DONE && (header.nlmsg_flags & NLM_F_MULTI) != 0)
        result.multipart = true;
      if (header.nlmsg_type != NLMSG_DONE)
        ReadLinkMessage(function, data + offset, header.nlmsg_len, remaining, result);
    }
    const size_t step = Align4(header.nlmsg_len);
    if (step >= remaining) break;
    offset += step;
  }
  return result;
}

}  // namespace plr
