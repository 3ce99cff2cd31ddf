// The walk over netlink reply buffers, fed with crafted replies: no kernel.
#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>

#include <functional>
#include <memory>

#include "tests/bridge/bridge_util.h"
#include "vnet/netlink-walk.h"

namespace plr::test {
namespace {

using Header = NetlinkReply::Header;
using Link = NetlinkReply::Link;

constexpr uint32_t kOurPid = 4242;

// Walks a heap copy of exactly `size` bytes (one more in front when
// `unaligned`), so that ASan catches any read past the end.
NetlinkWalkResult Walk(const std::vector<uint8_t>& bytes, size_t size, bool unaligned = false) {
  std::unique_ptr<uint8_t[]> copy(new uint8_t[size + 1]);
  if (size > 0) memcpy(copy.get() + unaligned, bytes.data(), size);
  return WalkLinkDump("PLRCreateHostAdapList", copy.get() + unaligned, size, kOurPid);
}

Link Plain(const std::string& name) {
  Link link{name};
  link.mtuBefore = false;
  return link;
}

struct Row {
  const char* what;
  std::function<NetlinkReply()> reply;
  std::vector<std::string> names;
  bool multipart;
  size_t size = SIZE_MAX;  // walk only this many bytes when set
  bool unaligned = false;
};

TEST(NetlinkWalk, Replies) {
  const Row rows[] = {
      {"ethernet links in order, loopback skipped",
       [] {
         return NetlinkReply()
             .AddLink(Link{"eth0", 1, 0x41}, Header{})
             .AddLink(Link{"lo", 772, 0x49}, Header{})
             .AddLink(Link{"eth1", 1, 0x1}, Header{});
       },
       {"eth0", "eth1"},
       true},
      {"single part",
       [] {
         return NetlinkReply().AddLink(Link{"eth0"}, Header{16, 0, 1, 0});
       },
       {"eth0"},
       false},
      {"done only", [] { return NetlinkReply().AddDone(); }, {}, false},
      {"links then done", [] { return NetlinkReply().AddLink("eth0").AddDone(); }, {"eth0"}, true},
      {"our pid or our sequence; a foreign error goes on",
       [] {
         return NetlinkReply()
             .AddLink(Link{"strange"}, Header{16, 2, 9, 77})
             .AddLink(Link{"bypid"}, Header{16, 2, 9, kOurPid})
             .AddLink(Link{"byseq"}, Header{16, 2, 1, 77})
             .AddError(Header{2, 0, 5, 77})
             .AddLink(Link{"last"}, Header{});
       },
       {"bypid", "byseq", "last"},
       true},
      {"our error ends the walk",
       [] { return NetlinkReply().AddLink("eth0").AddError().AddLink("eth1"); },
       {"eth0"},
       true},
      {"sixteen characters refused, fifteen kept",
       [] { return NetlinkReply().AddLink("abcdefghijklmnop").AddLink("abcdefghijklmno"); },
       {"abcdefghijklmno"},
       true},
      {"nameless and empty names skipped",
       [] {
         Link nameless{"x"};
         nameless.omitName = true;
         return NetlinkReply()
             .AddLink(nameless, Header{})
             .AddLink(Link{""}, Header{})
             .AddLink("eth3");
       },
       {"eth3"},
       true},
      {"unterminated name",
       [] {
         Link raw{"eth7"};
         raw.nameWithoutNul = true;
         return NetlinkReply().AddLink(raw, Header{});
       },
       {"eth7"},
       true},
      {"a later name wins",
       [] {
         NetlinkReply r;
         r.AddLink("first").AddRaw({12, 0, 3, 0, 's', 'e', 'c', 'o', 'n', 'd', 0, 0});
         r.SetLength(0, static_cast<uint32_t>(r.size()));
         return r;
       },
       {"second"},
       true},
      {"attribute area may reach past the message into the buffer",
       [] {
         NetlinkReply r;
         r.AddLink(Plain("eth0xyz"), Header{16, 0, 1, 0});
         r.SetLength(0, 40);  // 32 + 8 of the 12 attribute bytes
         return r;
       },
       {"eth0xyz"},
       false},
      {"...but never past the buffer",
       [] {
         NetlinkReply r;
         r.AddLink(Plain("eth0xyz"), Header{16, 0, 1, 0});
         r.SetLength(0, 40);
         return r;
       },
       {},
       false,
       40},
      {"buffer shorter than a header",
       [] { return NetlinkReply().AddLink("eth0"); },
       {},
       false,
       15},
      {"empty buffer", [] { return NetlinkReply().AddLink("eth0"); }, {}, false, 0},
      {"message too short for the interface header is ignored",
       [] {
         return NetlinkReply()
             .AddRaw({20, 0, 0, 0, 16, 0, 2, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1, 0, 1, 0})
             .AddLink("eth0");
       },
       {"eth0"},
       true},
      {"lengths rounded up to four bytes",
       [] {
         NetlinkReply r;
         r.AddLink(Plain("eth0"), Header{}).AddLink("eth1");
         r.SetLength(0, 41);
         return r;
       },
       {"eth0", "eth1"},
       true},
      {"unaligned start",
       [] { return NetlinkReply().AddLink("eth0").AddLink("eth1"); },
       {"eth0", "eth1"},
       true,
       SIZE_MAX,
       true},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.what);
    const NetlinkReply reply = r.reply();
    const size_t size = r.size == SIZE_MAX ? reply.size() : r.size;
    const NetlinkWalkResult result = Walk(reply.bytes(), size, r.unaligned);
    std::vector<std::string> names;
    for (const auto& link : result.links) names.push_back(link.name);
    EXPECT_EQ(names, r.names);
    EXPECT_EQ(result.multipart, r.multipart);
  }
}

TEST(NetlinkWalk, RunningFlagAndBrokenLengths) {
  NetlinkReply reply;
  reply.AddLink(Link{"eth0", 1, 0x41}, Header{}).AddLink(Link{"eth1", 1, 0x1}, Header{});
  const NetlinkWalkResult result = Walk(reply.bytes(), reply.size());
  ASSERT_EQ(result.links.size(), 2u);
  EXPECT_TRUE(result.links[0].running);
  EXPECT_FALSE(result.links[1].running);

  NetlinkReply one;
  one.AddLink(Plain("eth0"), Header{});
  for (uint8_t attrLen : {200, 2}) {  // the name attribute past the message, or below its header
    std::vector<uint8_t> bytes = one.bytes();
    bytes[32] = attrLen;
    EXPECT_TRUE(Walk(bytes, bytes.size()).links.empty()) << int(attrLen);
  }
  for (uint32_t bad : {0u, 15u, static_cast<uint32_t>(one.size() + 1), 0xffffffffu}) {
    NetlinkReply copy = one;
    copy.SetLength(0, bad);
    const NetlinkWalkResult walked = Walk(copy.bytes(), copy.size());
    EXPECT_TRUE(walked.links.empty()) << bad;
    EXPECT_FALSE(walked.multipart) << bad;
  }
}

}  // namespace
}  // namespace plr::test
