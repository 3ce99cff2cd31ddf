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
#include "tests/support/sandbox.h"
#include "tests/support/vnet_util.h"

namespace plr {
namespace {

using test::Answer;
using test::CountOf;
using test::PingCalls;
using test::PingCommand;
using test::SetPingRules;

constexpr uint32_t Net(uint32_t a, uint32_t b, uint32_t c, uint32_t d = 0) {
  return (a << 24) | (b << 16) | (c << 8) | d;
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

// The broadcast run's command for each table position, in order.
std::vector<std::string> BroadcastRuns(const std::vector<uint32_t>& order, int from, int to) {
  std::vector<std::string> runs;
  for (int i = from; i <= to; ++i) runs.push_back(PingCommand(Text(order[i])));
  return runs;
}

class SubnetCandidates : public test::LoadedLibraryTest {};

// --- Candidates and used subnets ---------------------------------------------

TEST_F(SubnetCandidates, FixedOrderBeforeShuffling) {
  Load();
  CandidateTable table;
  AddSubnetCandidates(table);
  ASSERT_EQ(table.count, 510u);
  const std::vector<uint32_t> head = {Net(172, 16, 0),  Net(172, 16, 1),  Net(192, 168, 2),
                                      Net(172, 16, 2),  Net(192, 168, 3), Net(172, 16, 3),
                                      Net(192, 168, 4), Net(172, 16, 4)};
  std::vector<uint32_t> all = Subnets(table);
  EXPECT_EQ(std::vector<uint32_t>(all.begin(), all.begin() + 8), head);
  EXPECT_EQ(all[100], Net(192, 168, 51));
  EXPECT_EQ(all[101], Net(172, 16, 51));
  EXPECT_EQ(all[508], Net(192, 168, 255));
  EXPECT_EQ(all[509], Net(172, 16, 255));
  EXPECT_EQ(table.entries[510].subnet, 0u) << "one past the filled entries stays zero";

  std::vector<uint32_t> sorted = all;
  std::sort(sorted.begin(), sorted.end());
  EXPECT_EQ(std::adjacent_find(sorted.begin(), sorted.end()), sorted.end()) << "duplicates";
  for (uint32_t subnet : all) {
    EXPECT_EQ(subnet & 0xFFu, 0u);
    uint32_t net16 = subnet >> 16;
    EXPECT_TRUE(net16 == Net(172, 16, 0) >> 16 || net16 == Net(192, 168, 0) >> 16) << Text(subnet);
    EXPECT_NE(subnet, Net(192, 168, 0));
    EXPECT_NE(subnet, Net(192, 168, 1));
  }
  for (uint32_t i = 0; i < table.count; ++i) EXPECT_EQ(table.entries[i].taken, 0);
}

// The used list is read once from the configured subnets, and configured
// subnets are no candidates.
TEST_F(SubnetCandidates, ConfiguredSubnetsAreUsedOnceAndLeftOutOfTheCandidates) {
  Load(
      "answer VNET_1_HOSTONLY_SUBNET 172.16.5.0\n"
      "answer VNET_200_HOSTONLY_SUBNET 192.168.1.0\n"
      "answer VNET_3_HOSTONLY_SUBNET 10.20.30.0\n"
      "answer VNET_4_HOSTONLY_SUBNET 10.20.30.0.0\n"
      "answer VNET_9_HOSTONLY_SUBNET bogus\n");
  EXPECT_TRUE(PLRSubnetUsed(Net(172, 16, 5)));
  EXPECT_FALSE(PLRSubnetUsed(Net(172, 16, 6)));
  EXPECT_EQ(UsedSubnetList().count, 3u) << "unreadable subnets are not listed";
  EXPECT_EQ(CountOf(Log(), "PLRGetHostOnlySubnet - Got existing subnet for vnet 1."), 1);
  uint32_t subnet = 0;
  EXPECT_TRUE(PLRGetHostOnlySubnet(3, &subnet));
  EXPECT_EQ(subnet, Net(10, 20, 30));
  EXPECT_FALSE(PLRGetHostOnlySubnet(4, &subnet));
  EXPECT_FALSE(PLRGetHostOnlySubnet(5, &subnet));

  CandidateTable table;
  AddSubnetCandidates(table);
  EXPECT_EQ(table.count, 509u);
  EXPECT_EQ(table.entries[8].subnet, Net(192, 168, 5));
  EXPECT_EQ(table.entries[9].subnet, Net(192, 168, 6)) << "172.16.5.0 is skipped";
  std::vector<uint32_t> all = Subnets(table);
  EXPECT_EQ(std::count(all.begin(), all.end(), Net(172, 16, 5)), 0);

  ASSERT_TRUE(PLRSetVnetSubnetAddr(2, "172.16.77.0"));
  EXPECT_FALSE(PLRSubnetUsed(Net(172, 16, 77))) << "the list is not refreshed";
}

TEST_F(SubnetCandidates, PopulateShufflesOnceIntoAPermutationAndReshuffleKeepsFlags) {
  Load();
  CandidateTable ordered;
  AddSubnetCandidates(ordered);
  ASSERT_TRUE(PLRPopulateAvailSubnets());
  CandidateTable& table = AvailSubnetTable();
  EXPECT_TRUE(table.filled);
  EXPECT_EQ(table.cursor, 0);
  std::vector<uint32_t> shuffled = Subnets(table);
  std::vector<uint32_t> fixed = Subnets(ordered);
  EXPECT_NE(shuffled, fixed) << "510 entries left in their fixed order";
  std::vector<uint32_t> a = shuffled, b = fixed;
  std::sort(a.begin(), a.end());
  std::sort(b.begin(), b.end());
  EXPECT_EQ(a, b);
  ASSERT_TRUE(PLRPopulateAvailSubnets());
  EXPECT_EQ(Subnets(table), shuffled) << "filled once per process";

  // A later shuffle keeps the taken flags with their subnets.
  ASSERT_TRUE(PLRMarkSubnetUsed("192.168.77.0", true));
  ASSERT_TRUE(PLRMarkSubnetUsed("172.16.3.0", true));
  ASSERT_TRUE(PLRShuffleAvailSubnets());
  EXPECT_NE(Subnets(table), shuffled);
  int taken = 0;
  for (uint32_t i = 0; i < table.count; ++i) {
    bool marked =
        table.entries[i].subnet == Net(192, 168, 77) || table.entries[i].subnet == Net(172, 16, 3);
    EXPECT_EQ(table.entries[i].taken != 0, marked) << Text(table.entries[i].subnet);
    taken += table.entries[i].taken != 0;
  }
  EXPECT_EQ(taken, 2);
}

// --- Shuffle -----------------------------------------------------------------

std::vector<uint32_t> gDraws;
size_t gDrawn = 0;
bool ScriptedRandom(void* buf, size_t size) {
  if (size != sizeof(uint32_t) || gDrawn >= gDraws.size()) return false;
  memcpy(buf, &gDraws[gDrawn++], size);
  return true;
}
bool BrokenRandom(void*, size_t) {
  errno = EIO;
  return false;
}

TEST(SubnetShuffle, SwapsTwiceNTimesAtDrawnPositionsModuloN) {
  CandidateTable table;
  table.count = 3;
  table.entries[0] = {0xA, 0};
  table.entries[1] = {0xB, 1};
  table.entries[2] = {0xC, 0};
  // Swaps (0,1) (1,2) (2,2) (0,1) (2,0) (1,2): ABC BAC BCA BCA CBA ABC ACB.
  gDraws = {0, 1, 1, 2, 5, 5, 3, 4, 2, 0, 7, 8, 99, 99};
  gDrawn = 0;
  ASSERT_TRUE(ShuffleSubnetCandidates("PLRShuffleAvailSubnets", table, ScriptedRandom));
  EXPECT_EQ(gDrawn, 12u) << "two 4-byte draws for each of 2n swaps";
  EXPECT_EQ(table.entries[0].subnet, 0xAu);
  EXPECT_EQ(table.entries[1].subnet, 0xCu);
  EXPECT_EQ(table.entries[2].subnet, 0xBu);
  EXPECT_EQ(table.entries[2].taken, 1) << "the flag moves with its subnet";
  EXPECT_EQ(table.entries[0].taken + table.entries[1].taken, 0);

  // An empty table draws nothing; a broken source fails the shuffle.
  CandidateTable empty;
  gDrawn = 0;
  EXPECT_TRUE(ShuffleSubnetCandidates("PLRShuffleAvailSubnets", empty, ScriptedRandom));
  EXPECT_EQ(gDrawn, 0u);
  EXPECT_FALSE(ShuffleSubnetCandidates("PLRShuffleAvailSubnets", table, BrokenRandom));
}

// --- Probe -------------------------------------------------------------------

class SubnetProbe : public test::LoadedLibraryTest {
 protected:
  // Loads, fills the table and remembers its shuffled order.
  void Prepare(const std::string& pingRules) {
    Load();
    if (!pingRules.empty()) SetPingRules(pingRules);
    ASSERT_TRUE(PLRPopulateAvailSubnets());
    order_ = Subnets(AvailSubnetTable());
    order_.push_back(0);  // the position one past the filled entries
  }
  std::vector<uint32_t> order_;
};

TEST_F(SubnetProbe, HandsOutFirstFreeCandidateAfterPositionZero) {
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
  EXPECT_EQ(CountOf(Log(), "PLRSubnetProbe - Pinging to see if subnet is used"), 1);
}

TEST_F(SubnetProbe, TriesTenCandidatesPerCallAndMovesOn) {
  Prepare("* 0\n");
  char subnet[16] = "untouched", mask[16] = "untouched";
  EXPECT_FALSE(PLRSubnetProbe(subnet, mask));
  EXPECT_STREQ(subnet, "untouched");
  EXPECT_STREQ(mask, "untouched");
  EXPECT_EQ(PingCalls(), BroadcastRuns(order_, 1, 10));
  std::string log = Log();
  EXPECT_EQ(CountOf(log, "PLRPingAndCheckSubnet - Return value of tarsis-ping: 0"), 10);
  EXPECT_EQ(CountOf(log, "PLRSubnetProbe - Could not automatically determine available subnet."),
            1);
  EXPECT_EQ(AvailSubnetTable().cursor, 10);

  EXPECT_FALSE(PLRSubnetProbe(subnet, mask));
  std::vector<std::string> expected = BroadcastRuns(order_, 1, 20);
  EXPECT_EQ(PingCalls(), expected) << "the second call goes on after the first";
  EXPECT_EQ(AvailSubnetTable().cursor, 20);
  for (const std::string& call : PingCalls()) EXPECT_NE(call, PingCommand(Text(order_[0])));
}

TEST_F(SubnetProbe, SearchReachesOnePastTheFilledEntriesButNeverPositionZero) {
  Prepare("* 0\n");
  CandidateTable& table = AvailSubnetTable();
  const int32_t n = static_cast<int32_t>(table.count);
  for (int32_t i = 1; i < n; ++i) table.entries[i].taken = 1;
  char subnet[16], mask[16];
  EXPECT_FALSE(PLRSubnetProbe(subnet, mask));
  EXPECT_EQ(PingCalls(), std::vector<std::string>{PingCommand("0.0.0.0")});
  EXPECT_EQ(table.entries[0].taken, 0);
  // Running out of candidates is not the ten-attempt failure and is not logged.
  EXPECT_EQ(CountOf(Log(), "Could not automatically determine available subnet."), 0);
  EXPECT_EQ(table.cursor, n + 1);
  EXPECT_FALSE(PLRSubnetProbe(subnet, mask));
  EXPECT_EQ(PingCalls().size(), 1u);
  EXPECT_EQ(table.cursor, n + 2);
}

TEST_F(SubnetProbe, MarkingFreeHelpsOnlyAheadOfTheCursor) {
  Prepare("* 0\n");
  char subnet[16], mask[16];
  EXPECT_FALSE(PLRSubnetProbe(subnet, mask));  // positions 1..10
  ASSERT_TRUE(PLRMarkSubnetUsed(Text(order_[12]).c_str(), true));
  ASSERT_TRUE(PLRMarkSubnetUsed(Text(order_[5]).c_str(), false));
  EXPECT_EQ(AvailSubnetTable().entries[5].taken, 0);

  EXPECT_FALSE(PLRSubnetProbe(subnet, mask));  // 11, 13..21: not 12, and not 5 behind the cursor
  std::vector<std::string> calls = PingCalls();
  std::vector<std::string> second(calls.begin() + 10, calls.end());
  std::vector<std::string> expected = BroadcastRuns(order_, 11, 11);
  for (const std::string& run : BroadcastRuns(order_, 13, 21)) expected.push_back(run);
  EXPECT_EQ(second, expected);

  // Taken and given back before the cursor reaches it: tried again.
  ASSERT_TRUE(PLRMarkSubnetUsed(Text(order_[25]).c_str(), true));
  ASSERT_TRUE(PLRMarkSubnetUsed(Text(order_[25]).c_str(), false));
  EXPECT_FALSE(PLRSubnetProbe(subnet, mask));  // 22..31
  calls = PingCalls();
  std::vector<std::string> third(calls.begin() + 20, calls.end());
  EXPECT_EQ(third, BroadcastRuns(order_, 22, 31));
}

TEST_F(SubnetProbe, NullBuffersFailBeforeAnything) {
  Load();
  char buf[16];
  EXPECT_FALSE(PLRSubnetProbe(nullptr, buf));
  EXPECT_FALSE(PLRSubnetProbe(buf, nullptr));
  EXPECT_FALSE(AvailSubnetTable().filled);
  EXPECT_TRUE(PingCalls().empty());
}

// --- Ping check --------------------------------------------------------------

class PingCheck : public test::LoadedLibraryTest {};

TEST_F(PingCheck, BroadcastWithoutReplyThenHostAddressDecides) {
  Load();
  const std::vector<std::string> both = {PingCommand("10.1.2.0"), PingCommand("10.1.2.1")};
  EXPECT_TRUE(PLRPingAndCheckSubnet("10.1.2.0", true, 1, 1));
  EXPECT_EQ(PingCalls(), both);

  SetPingRules("10.1.2.1 0\n");
  test::WriteFile(test::kPingCallsPath, "");
  EXPECT_FALSE(PLRPingAndCheckSubnet("10.1.2.0", true, 1, 1));
  EXPECT_EQ(PingCalls(), both);
  EXPECT_EQ(CountOf(Log(), "PLRPingAndCheckSubnet - Return value of tarsis-ping: 0"), 1);

  SetPingRules("10.1.2.1 2\n");
  test::WriteFile(test::kPingCallsPath, "");
  EXPECT_TRUE(PLRPingAndCheckSubnet("10.1.2.0", true, 1, 1));
  EXPECT_EQ(PingCalls(), both);

  // Code 2 at the broadcast decides free at once.
  SetPingRules("10.1.2.0 2\n10.1.2.1 0\n");
  test::WriteFile(test::kPingCallsPath, "");
  EXPECT_TRUE(PLRPingAndCheckSubnet("10.1.2.0", true, 1, 1));
  EXPECT_EQ(PingCalls(), std::vector<std::string>{PingCommand("10.1.2.0")});
}

TEST_F(PingCheck, BroadcastReplyOtherCodesOrFailedForkDecideUsedAtOnce) {
  Load();
  for (int code : {0, 3, 64, 255}) {
    SCOPED_TRACE(code);
    SetPingRules("10.1.2.0 " + std::to_string(code) + "\n");
    test::WriteFile(test::kPingCallsPath, "");
    EXPECT_FALSE(PLRPingAndCheckSubnet("10.1.2.0", true, 1, 1));
    EXPECT_EQ(PingCalls(), std::vector<std::string>{PingCommand("10.1.2.0")});
    EXPECT_EQ(CountOf(Log(), "Return value of tarsis-ping: " + std::to_string(code) + "\n"), 1);
  }
  // A failed fork counts as used (code 255 again), without a run.
  test::WriteFile(test::kPingCallsPath, "");
  sys::ClearFaults();
  sys::FailNth(sys::Op::kFork, 1, EAGAIN);
  EXPECT_FALSE(PLRPingAndCheckSubnet("10.1.2.0", true, 1, 1));
  sys::ClearFaults();
  EXPECT_TRUE(PingCalls().empty());
  EXPECT_EQ(CountOf(Log(), "Return value of tarsis-ping: 255"), 2);
}

TEST_F(PingCheck, WithoutBroadcastOnlyTheFirstHostIsPinged) {
  Load();
  SetPingRules("10.1.2.0 0\n10.1.2.1 1\n");
  EXPECT_TRUE(PLRPingAndCheckSubnet("10.1.2.0", false, 3, 2));
  EXPECT_EQ(PingCalls(), std::vector<std::string>{std::string(test::FixtureBinDir()) +
                                                  "/tarsis-ping -q -b 10.1.2.1 -t 3 -i 2"});
  EXPECT_EQ(CountOf(Log(),
                    "PLRPingAndCheckSubnet - Ping arguments, subnet: 10.1.2.0, broadcast: false, "
                    "timeout: 3 interval: 2"),
            1);
  SetPingRules("10.1.2.1 0\n");
  EXPECT_FALSE(PLRPingAndCheckSubnet("10.1.2.0", false, 1, 1));
}

TEST_F(PingCheck, MissingBindirFallsBackToUsrBin) {
  ASSERT_FALSE(test::FileExists("/usr/bin/tarsis-ping"));
  test::WriteDatabase();
  test::WriteFile("/etc/tarsis/config", "# no bindir here\n");
  ASSERT_TRUE(PLR_Load(false));
  PLR_SetCurrentLogLevel(PLR_LOG_MAX_LEVEL);
  EXPECT_FALSE(PLRPingAndCheckSubnet("10.1.2.0", true, 1, 1));
  std::string log = Log();
  EXPECT_EQ(CountOf(log, "PLRPingAndCheckSubnet - Unable to find BINDIR in host config database."),
            1);
  EXPECT_EQ(CountOf(log, "Return value of tarsis-ping: 127"), 1) << "the shell finds no tool";
  EXPECT_TRUE(PingCalls().empty());
}

TEST_F(PingCheck, BindirOf255CharactersRunsAndLongerIsRefused) {
  const std::string fits = "/tmp/" + std::string(250, 'd');
  const std::string tooLong = "/tmp/" + std::string(251, 'd');
  for (const std::string& dir : {fits, tooLong}) {
    ASSERT_EQ(test::Run("mkdir -p " + dir), 0);
    ASSERT_EQ(symlink((std::string(test::FixtureBinDir()) + "/tarsis-ping").c_str(),
                      (dir + "/tarsis-ping").c_str()),
              0);
  }
  test::WriteDatabase();
  test::WriteFile("/etc/tarsis/config", "bindir = \"" + fits + "\"\n");
  ASSERT_TRUE(PLR_Load(false));
  EXPECT_TRUE(PLRPingAndCheckSubnet("10.1.2.0", false, 1, 1));
  EXPECT_EQ(PingCalls(), std::vector<std::string>{fits + "/tarsis-ping -q -b 10.1.2.1 -t 1 -i 1"});
  PLR_Unload();

  test::WriteFile("/etc/tarsis/config", "bindir = \"" + tooLong + "\"\n");
  ASSERT_TRUE(PLR_Load(false));
  EXPECT_FALSE(PLRPingAndCheckSubnet("10.1.2.0", false, 1, 1));
  EXPECT_EQ(PingCalls().size(), 1u);
  EXPECT_EQ(CountOf(Log(),
                    "PLRPingAndCheckSubnet - Value of BINDIR is bigger than allowed 256 chracters"),
            1);
}

// --- Assignment --------------------------------------------------------------

class SubnetAssignment : public SubnetProbe {};

TEST_F(SubnetAssignment, FreeSubnetIsStoredWithSlash24Mask) {
  Prepare("");
  const std::string before = Database();
  const std::string first = Text(order_[1]);
  ASSERT_TRUE(PLRAssignUnusedSubnetAddressToVNet(8));
  EXPECT_EQ(Answer("VNET_8_HOSTONLY_SUBNET"), first);
  EXPECT_EQ(Answer("VNET_8_HOSTONLY_NETMASK"), "255.255.255.0");
  EXPECT_EQ(Database(), before + "answer VNET_8_HOSTONLY_SUBNET " + first +
                            "\nanswer VNET_8_HOSTONLY_NETMASK 255.255.255.0\n");
  EXPECT_EQ(CountOf(Log(), "PLRAssignUnusedSubnetAddressToVNet - Success: vnet 8 assigned subnet " +
                               first + "."),
            1);
  EXPECT_FALSE(PLRSubnetUsed(order_[1])) << "an assignment does not join the used list";

  // The next assignment never gets the same subnet.
  ASSERT_TRUE(PLRAssignUnusedSubnetAddressToVNet(9));
  EXPECT_EQ(Answer("VNET_9_HOSTONLY_SUBNET"), Text(order_[2]));
  EXPECT_EQ(PingCalls().size(), 4u);
}

TEST_F(SubnetAssignment, NothingFreeFailsAndStoresNothing) {
  Prepare("* 0\n");
  const std::string before = Database();
  EXPECT_FALSE(PLRAssignUnusedSubnetAddressToVNet(8));
  EXPECT_EQ(Database(), before);
  EXPECT_EQ(Answer("VNET_8_HOSTONLY_SUBNET"), std::nullopt);
  EXPECT_EQ(Answer("VNET_8_HOSTONLY_NETMASK"), std::nullopt);
  EXPECT_EQ(PingCalls().size(), 10u);
  std::string log = Log();
  EXPECT_EQ(CountOf(log, "PLRAssignUnusedSubnetAddressToVNet - Failed to probe subnet for vnet 8."),
            1);
  EXPECT_EQ(CountOf(log, "Could not automatically determine available subnet."), 1);
}

TEST_F(SubnetAssignment, SubnetsInUseOnTheNetworkAreSkipped) {
  Prepare("");
  // The first three candidates answer: two at the network address, one at its first host.
  SetPingRules(Text(order_[1]) + " 0\n" + Text(order_[2]) + " 0\n" + Text(order_[3] + 1) + " 0\n");
  ASSERT_TRUE(PLRAssignUnusedSubnetAddressToVNet(4));
  EXPECT_EQ(Answer("VNET_4_HOSTONLY_SUBNET"), Text(order_[4]));
  EXPECT_EQ(PingCalls().size(), 1u + 1u + 2u + 2u);
}

}  // namespace
}  // namespace plr
