// The walk over netlink reply buffers, fed with crafted replies.
#include <gtest/gtest.h>
#include <net/if.h>
// after net/if.h, which the kernel headers must not redefine
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if_arp.h>
#include <string.h>

#include <memory>
#include <string>

#include "vnet/netlink-walk.h"

namespace plr::test {
namespace {

using namespace std::string_literals;

std::string Bytes(const void* p, size_t n) {
  return std::string(static_cast<const char*>(p), n);
}
// One attribute, padded; `len` overrides its length field.
std::string Attr(uint16_t type, const std::string& payload, uint16_t len = 0) {
  const uint16_t head[2] = {static_cast<uint16_t>(len ? len : 4 + payload.size()), type};
  const std::string attr = Bytes(head, 4) + payload;
  return attr + std::string((4 - attr.size() % 4) % 4, '\0');
}
std::string Info(uint16_t type = ARPHRD_ETHER, uint32_t flags = IFF_RUNNING) {
  ifinfomsg info{};
  info.ifi_type = type;
  info.ifi_flags = flags;
  return Bytes(&info, sizeof info);
}
// One message; `len` overrides its length field.
std::string Msg(const std::string& payload, uint16_t type = RTM_NEWLINK, uint32_t seq = 1,
                uint32_t pid = 0, uint16_t flags = NLM_F_MULTI, uint32_t len = 0) {
  const nlmsghdr h{len ? len : static_cast<uint32_t>(16 + payload.size()), type, flags, seq, pid};
  return Bytes(&h, sizeof h) + payload;
}
std::string Link(const std::string& name, uint32_t seq = 1, uint32_t pid = 0) {
  return Msg(Info() + Attr(IFLA_IFNAME, name + '\0'), RTM_NEWLINK, seq, pid);
}

constexpr uint32_t kOurPid = 4242;

TEST(NetlinkWalk, Replies) {
  const std::string mtu = Attr(IFLA_MTU, "\xdc\x05\0\0"s),
                    eth0 = Info() + Attr(IFLA_IFNAME, "eth0\0"s);
  // The bytes, the links found (name, '+' when running) and whether the reply goes on.
  const struct {
    std::string bytes;
    const char* links;
    bool multipart;
  } rows[] = {
      // Ethernet links in order (attributes before the name skipped), loopback left out.
      {Msg(Info(ARPHRD_ETHER, 0x41) + mtu + Attr(IFLA_IFNAME, "eth0\0"s)) +
           Msg(Info(ARPHRD_LOOPBACK) + Attr(IFLA_IFNAME, "lo\0"s)) +
           Msg(Info(ARPHRD_ETHER, 1) + Attr(IFLA_IFNAME, "eth1\0"s)),
       "eth0+ eth1- ", true},
      {Msg(eth0, RTM_NEWLINK, 1, 0, 0) + Msg("\0\0\0\0"s, NLMSG_DONE), "eth0+ ", false},
      // Ours by pid or sequence; a foreign error goes on, ours ends the walk.
      {Link("strange", 9, 77) + Link("bypid", 9, kOurPid) + Link("byseq", 1, 77) +
           Msg(std::string(20, '\0'), NLMSG_ERROR, 5, 77) + Link("last") +
           Msg(std::string(20, '\0'), NLMSG_ERROR) + Link("x"),
       "bypid+ byseq+ last+ ", true},
      {Link("abcdefghijklmnop") + Link("abcdefghijklmno"), "abcdefghijklmno+ ", true},
      {Msg(Info() + mtu) + Link("") + Msg(Info() + Attr(IFLA_IFNAME, "eth7")), "eth7+ ", true},
      {Msg(Info() + Attr(IFLA_IFNAME, "eth0\0"s, 200)) +
           Msg(Info() + Attr(IFLA_IFNAME, "eth1\0"s, 2)),
       "", true},
      // The attribute area may reach past the message into the buffer, never past the buffer.
      {Msg(Info() + Attr(IFLA_IFNAME, "eth0xyz\0"s), RTM_NEWLINK, 1, 0, 0, 40), "eth0xyz+ ", false},
      {Msg(Info() + Attr(IFLA_IFNAME, "eth0xyz\0"s), RTM_NEWLINK, 1, 0, 0, 40).substr(0, 40), "",
       false},
      {Msg(eth0, RTM_NEWLINK, 1, 0, 2, 41) + Link("eth1"), "eth0+ eth1+ ", true},  // rounded up
      {Link("eth0").substr(0, 15), "", false},
      {Msg("") + Link("eth5"), "eth5+ ", true},  // a bare header is passed over
      {Msg(eth0, RTM_NEWLINK, 1, 0, 2, 49), "", false}};
  for (const auto& r : rows) {
    for (size_t offset : {0, 1}) {  // aligned and not
      SCOPED_TRACE(std::to_string(&r - rows) + (offset ? " unaligned" : ""));
      // A heap copy of exactly the bytes, so that ASan catches a read past the end.
      std::unique_ptr<uint8_t[]> copy(new uint8_t[r.bytes.size() + offset]);
      memcpy(copy.get() + offset, r.bytes.data(), r.bytes.size());
      const NetlinkWalkResult result =
          WalkLinkDump("test", copy.get() + offset, r.bytes.size(), kOurPid);
      std::string links;
      for (const auto& link : result.links) links += link.name + (link.running ? "+ " : "- ");
      EXPECT_EQ(links, r.links);
      EXPECT_EQ(result.multipart, r.multipart);
    }
  }
}

}  // namespace
}  // namespace plr::test
