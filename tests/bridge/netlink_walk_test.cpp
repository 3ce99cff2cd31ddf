// The walk over netlink reply buffers, fed with crafted replies: no kernel.
#include <gtest/gtest.h>
#include <string.h>

#include <memory>

#include "tests/support/bridge_util.h"
#include "vnet/netlink-walk.h"

namespace plr {
namespace {

using test::LogCapture;
using test::NetlinkReply;
using Header = NetlinkReply::Header;
using Link = NetlinkReply::Link;

constexpr uint32_t kOurPid = 4242;

// Walks a heap copy of exactly the reply's bytes, so that ASan catches any
// read past the end.
NetlinkWalkResult Walk(const std::vector<uint8_t>& bytes, size_t size) {
  std::unique_ptr<uint8_t[]> copy(new uint8_t[size == 0 ? 1 : size]);
  if (size > 0) memcpy(copy.get(), bytes.data(), size);
  return WalkLinkDump("PLRCreateHostAdapList", copy.get(), size, kOurPid);
}
NetlinkWalkResult Walk(const NetlinkReply& reply) {
  return Walk(reply.bytes(), reply.size());
}

std::vector<std::string> Names(const NetlinkWalkResult& result) {
  std::vector<std::string> names;
  for (const auto& link : result.links) names.push_back(link.name);
  return names;
}

TEST(NetlinkWalk, SeveralMessagesPerBufferKeepOrderAndRunningState) {
  LogCapture log;
  NetlinkReply reply;
  reply.AddLink(Link{"eth0", 1, 0x41}, Header{})
      .AddLink(Link{"lo", 772, 0x49}, Header{})
      .AddLink(Link{"eth1", 1, 0x1}, Header{});
  const NetlinkWalkResult result = Walk(reply);
  EXPECT_EQ(Names(result), (std::vector<std::string>{"eth0", "eth1"}));
  ASSERT_EQ(result.links.size(), 2u);
  EXPECT_TRUE(result.links[0].running);
  EXPECT_FALSE(result.links[1].running);
  EXPECT_TRUE(result.multipart);
  EXPECT_TRUE(
      log.Contains("PLRCreateHostAdapList - Skipping non-ethernet interface: ifi_type: 772"));
  EXPECT_TRUE(log.Contains(
      "Adapter: ifi_family: 0, ifi_type: 1, ifi_index: 7, ifi_flags: not running,ifi_change: 0"));
  EXPECT_TRUE(log.Contains("PLRCreateHostAdapList - Found name of adapter: eth0"));
  EXPECT_TRUE(log.Contains("PLRCreateHostAdapList - Ignoring Attribute: 4"));
}

TEST(NetlinkWalk, MultipartOnlyWhileAMessageOtherThanDoneCarriesTheFlag) {
  NetlinkReply single;
  single.AddLink(Link{"eth0"}, Header{16, 0, 1, 0});
  EXPECT_FALSE(Walk(single).multipart);
  EXPECT_EQ(Names(Walk(single)), std::vector<std::string>{"eth0"});

  NetlinkReply doneOnly;
  doneOnly.AddDone();
  const NetlinkWalkResult done = Walk(doneOnly);
  EXPECT_FALSE(done.multipart);
  EXPECT_TRUE(done.links.empty());

  NetlinkReply linksThenDone;
  linksThenDone.AddLink("eth0").AddDone();
  EXPECT_TRUE(Walk(linksThenDone).multipart);
}

TEST(NetlinkWalk, MessageNeedsOurPidOrOurSequence) {
  LogCapture log;
  NetlinkReply reply;
  reply
      .AddLink(Link{"strange"}, Header{16, 2, 9, 77})  // neither: skipped
      .AddLink(Link{"bypid"}, Header{16, 2, 9, kOurPid})
      .AddLink(Link{"byseq"}, Header{16, 2, 1, 77})
      .AddError(Header{2, 0, 5, 77})  // a foreign error does not end the walk
      .AddLink(Link{"last"}, Header{});
  EXPECT_EQ(Names(Walk(reply)), (std::vector<std::string>{"bypid", "byseq", "last"}));
  EXPECT_TRUE(log.Contains(
      "PID or Seq does not match: Req-pid = 4242, Resp-pid = 77, Req-seq = 1, Resp-seq = 9"));
  NetlinkReply ours;  // an error of our own ends the walk of the buffer
  ours.AddLink("eth0").AddError().AddLink("eth1");
  EXPECT_EQ(Names(Walk(ours)), std::vector<std::string>{"eth0"});
}

TEST(NetlinkWalk, NamesOfSixteenCharactersAreRefusedFifteenKept) {
  LogCapture log;
  NetlinkReply reply;
  reply.AddLink("abcdefghijklmnop").AddLink("abcdefghijklmno");
  EXPECT_EQ(Names(Walk(reply)), std::vector<std::string>{"abcdefghijklmno"});
  EXPECT_TRUE(log.Contains("Interface name abcdefghijklmnop is longer than allowed 16 characters"));
}

TEST(NetlinkWalk, AdapterWithoutNameIsSkipped) {
  LogCapture log;
  Link nameless{"x"};
  nameless.omitName = true;
  NetlinkReply reply;
  reply.AddLink(nameless, Header{}).AddLink(Link{""}, Header{}).AddLink("eth3");
  EXPECT_EQ(Names(Walk(reply)), std::vector<std::string>{"eth3"});
  EXPECT_TRUE(log.Contains("PLRCreateHostAdapList - Skipping adapter without name"));
}

TEST(NetlinkWalk, UnterminatedNameStopsAtItsAttributeAndLaterNameWins) {
  Link raw{"eth7"};
  raw.nameWithoutNul = true;  // payload "eth7", padded by zeros in the message only
  NetlinkReply unterminated;
  unterminated.AddLink(raw, Header{});
  EXPECT_EQ(Names(Walk(unterminated)), std::vector<std::string>{"eth7"});

  NetlinkReply reply;
  reply.AddLink("first");
  // Append a second IFLA_IFNAME to the message and fix its length.
  reply.AddRaw({12, 0, 3, 0, 's', 'e', 'c', 'o', 'n', 'd', 0, 0});
  reply.SetLength(0, static_cast<uint32_t>(reply.size()));
  EXPECT_EQ(Names(Walk(reply)), std::vector<std::string>{"second"});
}

TEST(NetlinkWalk, TruncatedAttributesEndTheAttributeWalk) {
  // The name attribute claims more bytes than the message holds.
  Link plain{"eth0"};
  plain.mtuBefore = false;
  NetlinkReply longAttr;
  longAttr.AddLink(plain, Header{});
  std::vector<uint8_t> bytes = longAttr.bytes();
  bytes[32] = 200;  // rta_len of the name attribute
  EXPECT_TRUE(Walk(bytes, bytes.size()).links.empty());

  // An attribute shorter than its own header.
  bytes = longAttr.bytes();
  bytes[32] = 2;
  EXPECT_TRUE(Walk(bytes, bytes.size()).links.empty());
}

TEST(NetlinkWalk, AttributeAreaReachesEightBytesPastTheMessageButNotPastTheBuffer) {
  // A message whose length cuts the name attribute by 4 bytes: the attribute
  // area is taken as length - 24, so the name is read from the bytes that
  // follow when the buffer holds them...
  Link plain{"eth0xyz"};  // attribute of 12 bytes
  plain.mtuBefore = false;
  NetlinkReply reply;
  reply.AddLink(plain, Header{16, 0, 1, 0});
  reply.SetLength(0, 40);  // 32 + 8 of the 12 attribute bytes
  EXPECT_EQ(Names(Walk(reply.bytes(), reply.size())), std::vector<std::string>{"eth0xyz"});
  // ...and never when the buffer ends with the message.
  EXPECT_TRUE(Walk(reply.bytes(), 40).links.empty());
}

TEST(NetlinkWalk, BadFirstLengthOrShortBufferYieldsNothing) {
  NetlinkReply reply;
  reply.AddLink("eth0");
  std::vector<uint8_t> bytes = reply.bytes();
  EXPECT_TRUE(Walk(bytes, 15).links.empty());
  EXPECT_FALSE(Walk(bytes, 15).multipart);
  EXPECT_TRUE(Walk(bytes, 0).links.empty());
  for (uint32_t bad : {0u, 15u, static_cast<uint32_t>(bytes.size() + 1), 0xffffffffu}) {
    NetlinkReply copy = reply;
    copy.SetLength(0, bad);
    const NetlinkWalkResult result = Walk(copy);
    EXPECT_TRUE(result.links.empty()) << bad;
    EXPECT_FALSE(result.multipart) << bad;
  }
}

TEST(NetlinkWalk, MessageTooShortForInterfaceHeaderIsIgnored) {
  NetlinkReply reply;
  reply.AddRaw({20, 0, 0, 0, 16, 0, 2, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1, 0, 1, 0});
  reply.AddLink("eth0");
  const NetlinkWalkResult result = Walk(reply);
  EXPECT_EQ(Names(result), std::vector<std::string>{"eth0"});
  EXPECT_TRUE(result.multipart);
}

TEST(NetlinkWalk, LengthsAreRoundedUpToFourBytes) {
  Link plain{"eth0"};
  plain.mtuBefore = false;
  NetlinkReply reply;
  reply.AddLink(plain, Header{}).AddLink("eth1");
  reply.SetLength(0, 41);  // the name attribute's 9 bytes without padding
  EXPECT_EQ(Names(Walk(reply)), (std::vector<std::string>{"eth0", "eth1"}));
}

TEST(NetlinkWalk, UnalignedBufferStart) {
  NetlinkReply reply;
  reply.AddLink("eth0").AddLink("eth1");
  // An unaligned start: the walk copies every header it reads.
  std::unique_ptr<uint8_t[]> copy(new uint8_t[reply.size() + 1]);
  copy[0] = 0xAA;
  memcpy(copy.get() + 1, reply.bytes().data(), reply.size());
  const NetlinkWalkResult result =
      WalkLinkDump("PLRCreateHostAdapList", copy.get() + 1, reply.size(), kOurPid);
  EXPECT_EQ(Names(result), (std::vector<std::string>{"eth0", "eth1"}));
}

}  // namespace
}  // namespace plr
