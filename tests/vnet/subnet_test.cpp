// Automatic subnet assignment: the candidate table, its shuffle, the probe's
// bounds, the ping check against the scripted ping tool, and the assignment.
#include "vnet/subnet.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "base/sys-util.h"
#include "pelorus.h"
#include "tests/support/vnet_util.h"

namespace plr::test {
namespace {

constexpr uint32_t Net(uint32_t a, uint32_t b, uint32_t c) {
  return (a << 24) | (b << 16) | (c << 8);
}

std::string Text(uint32_t ip) {
  char buf[16];
  EXPECT_TRUE(PLRIPInt2Str(ip, buf));
  return buf;
}

std::vector<uint32_t> Subnets(const CandidateTable& table) {
  std::vector<uint32_t> out;
  for (uint32_t i = 0; i < table.count; ++i) out.push_back(table.entries[i].subnet);
  return out;
}

// The broadcast runs for table positions from..to of `order`.
std::vector<std::string> Runs(const std::vector<uint32_t>& order, int from, int to) {
  std::vector<std::string> runs;
  for (int i = from; i <= to; ++i) runs.push_back(PingCommand(Text(order[i])));
  return runs;
}

class Subnet : public LoadedLibraryTest {
 protected:
  void TearDown() override {
    sys::ClearFaults();
    LoadedLibraryTest::TearDown();
  }
  // Loads, fills the table and remembers its shuffled order.
  void Prepare(const std::string& pingRules) {
    Load();
    if (!pingRules.empty()) SetPingRules(pingRules);
    ASSERT_TRUE(PLRPopulateAvailSubnets());
    order_ = Subnets(AvailSubnetTable());
    order_.push_back(0);  // the position one past the filled entries
  }
  // Starts a fresh record of ping runs under `rules`.
  static void Rules(const std::string& rules) {
    SetPingRules(rules);
    WriteFile(kPingCallsPath, "");
  }
  std::vector<uint32_t> order_;
};

TEST_F(Subnet, CandidatesInFixedOrderLeaveOutConfiguredSubnets) {
  Load(
      "answer VNET_1_HOSTONLY_SUBNET 172.16.5.0\nanswer VNET_200_HOSTONLY_SUBNET 192.168.1.0\n"
      "answer VNET_3_HOSTONLY_SUBNET 10.20.30.0\nanswer VNET_4_HOSTONLY_SUBNET 10.20.30.0.0\n"
      "answer VNET_9_HOSTONLY_SUBNET bogus\n");
  EXPECT_TRUE(PLRSubnetUsed(Net(172, 16, 5)));
  EXPECT_FALSE(PLRSubnetUsed(Net(172, 16, 6)));
  EXPECT_EQ(UsedSubnetList().count, 3u) << "unreadable subnets are not listed";
  uint32_t subnet = 0;
  EXPECT_TRUE(PLRGetHostOnlySubnet(3, &subnet));
  EXPECT_EQ(subnet, Net(10, 20, 30));
  EXPECT_FALSE(PLRGetHostOnlySubnet(4, &subnet));
  EXPECT_FALSE(PLRGetHostOnlySubnet(5, &subnet));

  CandidateTable table;
  AddSubnetCandidates(table);
  ASSERT_EQ(table.count, 509u);
  const std::vector<uint32_t> all = Subnets(table);
  const std::vector<uint32_t> head = {Net(172, 16, 0),  Net(172, 16, 1),  Net(192, 168, 2),
                                      Net(172, 16, 2),  Net(192, 168, 3), Net(172, 16, 3),
                                      Net(192, 168, 4), Net(172, 16, 4),  Net(192, 168, 5),
                                      Net(192, 168, 6)};  // 172.16.5.0 is configured
  EXPECT_EQ(std::vector<uint32_t>(all.begin(), all.begin() + 10), head);
  EXPECT_EQ(all[507], Net(192, 168, 255));
  EXPECT_EQ(all[508], Net(172, 16, 255));
  EXPECT_EQ(table.entries[509].subnet, 0u) << "one past the filled entries stays zero";
  std::vector<uint32_t> sorted = all;
  std::sort(sorted.begin(), sorted.end());
  EXPECT_EQ(std::adjacent_find(sorted.begin(), sorted.end()), sorted.end()) << "duplicates";
  for (uint32_t s : all) {
    EXPECT_TRUE((s & 0xFFFF00FFu) == Net(172, 16, 0) || (s & 0xFFFF00FFu) == Net(192, 168, 0));
    EXPECT_TRUE(s != Net(192, 168, 0) && s != Net(192, 168, 1)) << Text(s);
  }
  ASSERT_TRUE(PLRSetVnetSubnetAddr(2, "172.16.77.0"));
  EXPECT_FALSE(PLRSubnetUsed(Net(172, 16, 77))) << "the used list is read once";
}

TEST_F(Subnet, PopulateShufflesOnceAndReshuffleKeepsFlags) {
  Load();
  CandidateTable ordered;
  AddSubnetCandidates(ordered);
  ASSERT_TRUE(PLRPopulateAvailSubnets());
  CandidateTable& table = AvailSubnetTable();
  EXPECT_TRUE(table.filled);
  EXPECT_EQ(table.cursor, 0);
  const std::vector<uint32_t> shuffled = Subnets(table);
  std::vector<uint32_t> a = shuffled, b = Subnets(ordered);
  EXPECT_NE(a, b);
  std::sort(a.begin(), a.end());
  std::sort(b.begin(), b.end());
  EXPECT_EQ(a, b) << "a permutation";
  ASSERT_TRUE(PLRPopulateAvailSubnets());
  EXPECT_EQ(Subnets(table), shuffled) << "filled once per process";

  ASSERT_TRUE(PLRMarkSubnetUsed("192.168.77.0", true));
  ASSERT_TRUE(PLRMarkSubnetUsed("172.16.3.0", true));
  ASSERT_TRUE(PLRShuffleAvailSubnets());
  EXPECT_NE(Subnets(table), shuffled);
  for (uint32_t i = 0; i < table.count; ++i) {
    const uint32_t s = table.entries[i].subnet;
    EXPECT_EQ(table.entries[i].taken != 0, s == Net(192, 168, 77) || s == Net(172, 16, 3));
  }
}

std::vector<uint32_t> gDraws;
size_t gDrawn = 0;
bool ScriptedRandom(void* buf, size_t size) {
  if (size != sizeof(uint32_t) || gDrawn >= gDraws.size()) return false;
  memcpy(buf, &gDraws[gDrawn++], size);
  return true;
}

TEST(SubnetShuffle, SwapsTwiceNTimesAtDrawnPositionsModuloN) {
  CandidateTable table;
  table.count = 3;
  table.entries[0] = {0xA, 0};
  table.entries[1] = {0xB, 1};
  table.entries[2] = {0xC, 0};
  // Swaps (0,1) (1,2) (2,2) (0,1) (2,0) (1,2): ABC BAC BCA BCA CBA ABC ACB.
  gDraws = {0, 1, 1, 2, 5, 5, 3, 4, 2, 0, 7, 8, 99, 99};
  ASSERT_TRUE(ShuffleSubnetCandidates("PLRShuffleAvailSubnets", table, ScriptedRandom));
  EXPECT_EQ(gDrawn, 12u) << "two 4-byte draws for each of 2n swaps";
  EXPECT_EQ(Subnets(table), (std::vector<uint32_t>{0xA, 0xC, 0xB}));
  EXPECT_EQ(table.entries[2].taken, 1) << "the flag moves with its subnet";
  CandidateTable empty;
  gDrawn = 0;
  EXPECT_TRUE(ShuffleSubnetCandidates("PLRShuffleAvailSubnets", empty, ScriptedRandom));
  EXPECT_EQ(gDrawn, 0u);
  EXPECT_FALSE(ShuffleSubnetCandidates("PLRShuffleAvailSubnets", table, [](void*, size_t) { return false; }));
}

TEST_F(Subnet, ProbeHandsOutFirstFreeCandidateAfterPositionZero) {
  Prepare("");
  char subnet[16], mask[16];
  ASSERT_TRUE(PLRSubnetProbe(subnet, mask));
  EXPECT_EQ(std::string(subnet), Text(order_[1]));
  EXPECT_STREQ(mask, "255.255.255.0");
  const CandidateTable& table = AvailSubnetTable();
  EXPECT_EQ(table.cursor, 1);
  EXPECT_NE(table.entries[1].taken, 0);
  EXPECT_EQ(table.entries[0].taken, 0);
  EXPECT_EQ(PingCalls(), (std::vector<std::string>{PingCommand(Text(order_[1])),
                                                   PingCommand(Text(order_[1] + 1))}));
  EXPECT_FALSE(PLRSubnetProbe(nullptr, mask));
  EXPECT_FALSE(PLRSubnetProbe(subnet, nullptr));
  EXPECT_EQ(PingCalls().size(), 2u);
}

// Ten candidates per call, the next call goes on from there, marks made
// ahead of the cursor count and those behind it do not.
TEST_F(Subnet, ProbeTriesTenCandidatesPerCallAndMovesOn) {
  Prepare("* 0\n");
  char subnet[16] = "untouched", mask[16] = "untouched";
  EXPECT_FALSE(PLRSubnetProbe(subnet, mask));
  EXPECT_STREQ(subnet, "untouched");
  EXPECT_STREQ(mask, "untouched");
  EXPECT_EQ(PingCalls(), Runs(order_, 1, 10));
  EXPECT_EQ(AvailSubnetTable().cursor, 10);
  EXPECT_TRUE(LogHas("PLRSubnetProbe - Could not automatically determine available subnet."));

  ASSERT_TRUE(PLRMarkSubnetUsed(Text(order_[12]).c_str(), true));
  ASSERT_TRUE(PLRMarkSubnetUsed(Text(order_[5]).c_str(), false));
  ASSERT_TRUE(PLRMarkSubnetUsed(Text(order_[15]).c_str(), true));
  ASSERT_TRUE(PLRMarkSubnetUsed(Text(order_[15]).c_str(), false));
  EXPECT_FALSE(PLRSubnetProbe(subnet, mask));  // 11, 13..21
  std::vector<std::string> expected = Runs(order_, 1, 11);
  for (const std::string& run : Runs(order_, 13, 21)) expected.push_back(run);
  EXPECT_EQ(PingCalls(), expected);
  EXPECT_EQ(AvailSubnetTable().cursor, 21);
}

TEST_F(Subnet, ProbeReachesOnePastTheFilledEntriesButNeverPositionZero) {
  Prepare("* 0\n");
  CandidateTable& table = AvailSubnetTable();
  const int32_t n = static_cast<int32_t>(table.count);
  for (int32_t i = 1; i < n; ++i) table.entries[i].taken = 1;
  char subnet[16], mask[16];
  EXPECT_FALSE(PLRSubnetProbe(subnet, mask));
  EXPECT_EQ(PingCalls(), std::vector<std::string>{PingCommand("0.0.0.0")});
  EXPECT_EQ(table.entries[0].taken, 0);
  EXPECT_EQ(table.cursor, n + 1);
  EXPECT_FALSE(PLRSubnetProbe(subnet, mask));
  EXPECT_EQ(PingCalls().size(), 1u);
  EXPECT_EQ(table.cursor, n + 2);
}

// Broadcast first: no reply (1) or code 2 decides free; no reply and then
// the first host decides; a reply, any other code or a failed fork: used.
TEST_F(Subnet, PingCheckOutcomes) {
  Load();
  const std::string bcast = PingCommand("10.1.2.0"), host = PingCommand("10.1.2.1");
  const struct {
    const char* rules;
    bool free;
    std::vector<std::string> runs;
  } rows[] = {{"", true, {bcast, host}},
              {"10.1.2.1 0\n", false, {bcast, host}},
              {"10.1.2.1 2\n", true, {bcast, host}},
              {"10.1.2.0 2\n10.1.2.1 0\n", true, {bcast}},
              {"10.1.2.0 0\n", false, {bcast}},
              {"10.1.2.0 3\n", false, {bcast}},
              {"10.1.2.0 255\n", false, {bcast}}};
  for (const auto& r : rows) {
    SCOPED_TRACE(r.rules);
    Rules(r.rules);
    EXPECT_EQ(PLRPingAndCheckSubnet("10.1.2.0", true, 1, 1), r.free);
    EXPECT_EQ(PingCalls(), r.runs);
  }
  Rules("");
  sys::FailNth(sys::Op::kFork, 1, EAGAIN);
  EXPECT_FALSE(PLRPingAndCheckSubnet("10.1.2.0", true, 1, 1));
  EXPECT_TRUE(PingCalls().empty());

  Rules("10.1.2.0 0\n10.1.2.1 1\n");  // without broadcast only the first host counts
  EXPECT_TRUE(PLRPingAndCheckSubnet("10.1.2.0", false, 3, 2));
  EXPECT_EQ(PingCalls(), std::vector<std::string>{std::string(FixtureBinDir()) +
                                                  "/tarsis-ping -q -b 10.1.2.1 -t 3 -i 2"});
  Rules("10.1.2.1 0\n");
  EXPECT_FALSE(PLRPingAndCheckSubnet("10.1.2.0", false, 1, 1));
}

// The tool runs from BINDIR (255 characters at most), /usr/bin without one.
TEST_F(Subnet, PingToolLocation) {
  const std::string fits = "/tmp/" + std::string(250, 'd'), tooLong = fits + "d";
  for (const std::string& dir : {fits, tooLong}) {
    ASSERT_EQ(plr::test::Run("mkdir -p " + dir), 0);
    ASSERT_EQ(symlink((std::string(FixtureBinDir()) + "/tarsis-ping").c_str(),
                      (dir + "/tarsis-ping").c_str()),
              0);
  }
  Load("", fits);
  EXPECT_TRUE(PLRPingAndCheckSubnet("10.1.2.0", false, 1, 1));
  EXPECT_EQ(PingCalls(), std::vector<std::string>{fits + "/tarsis-ping -q -b 10.1.2.1 -t 1 -i 1"});
  PLR_Unload();
  Load("", tooLong);
  EXPECT_FALSE(PLRPingAndCheckSubnet("10.1.2.0", false, 1, 1));
  EXPECT_EQ(PingCalls().size(), 1u);
  PLR_Unload();
  ASSERT_FALSE(FileExists("/usr/bin/tarsis-ping"));
  LoadWithProductConfig("# no bindir here\n", "");
  EXPECT_FALSE(PLRPingAndCheckSubnet("10.1.2.0", true, 1, 1));
  EXPECT_TRUE(LogHas("Return value of tarsis-ping: 127")) << "the shell finds no tool";
  EXPECT_EQ(PingCalls().size(), 1u);
}

TEST_F(Subnet, AssignmentStoresFreeSubnetWithSlash24Mask) {
  Prepare("");
  const std::string before = Database(), first = Text(order_[1]);
  ASSERT_TRUE(PLRAssignUnusedSubnetAddressToVNet(8));
  EXPECT_EQ(Database(), before + "answer VNET_8_HOSTONLY_SUBNET " + first +
                            "\nanswer VNET_8_HOSTONLY_NETMASK 255.255.255.0\n");
  EXPECT_FALSE(PLRSubnetUsed(order_[1])) << "an assignment does not join the used list";
  // Subnets in use on the network are skipped: at the network address or its first host.
  SetPingRules(Text(order_[2]) + " 0\n" + Text(order_[3] + 1) + " 0\n");
  ASSERT_TRUE(PLRAssignUnusedSubnetAddressToVNet(9));
  EXPECT_EQ(Answer("VNET_9_HOSTONLY_SUBNET"), Text(order_[4]));
  EXPECT_EQ(PingCalls().size(), 2u + 1u + 2u + 2u);
}

TEST_F(Subnet, AssignmentWithNothingFreeStoresNothing) {
  Prepare("* 0\n");
  const std::string before = Database();
  EXPECT_FALSE(PLRAssignUnusedSubnetAddressToVNet(8));
  EXPECT_EQ(Database(), before);
  EXPECT_EQ(PingCalls().size(), 10u);
  EXPECT_TRUE(LogHas("PLRAssignUnusedSubnetAddressToVNet - Failed to probe subnet for vnet 8."));
}

// The subnet record lands before the mask's: a failed mask leaves the subnet
// for the caller's undo step.
TEST_F(Subnet, AssignmentStopsAtTheFailedWrite) {
  for (int failing : {1, 2}) {
    SCOPED_TRACE(failing);
    Prepare("");
    sys::FailNth(sys::Op::kWrite, failing, ENOSPC);
    EXPECT_FALSE(PLRAssignUnusedSubnetAddressToVNet(6));
    sys::ClearFaults();
    EXPECT_EQ(Answer("VNET_6_HOSTONLY_NETMASK"), std::nullopt);
    EXPECT_EQ(Answer("VNET_6_HOSTONLY_SUBNET").has_value(), failing == 2);
    PLR_Unload();
  }
}

}  // namespace
}  // namespace plr::test
