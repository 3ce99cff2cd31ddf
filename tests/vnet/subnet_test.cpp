// Automatic subnet assignment: the candidate table, its shuffle, the probe's
// bounds, the ping check against the scripted ping tool, and the assignment.
#include "vnet/subnet.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
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

class Subnet : public LoadedLibraryTest {
 protected:
  // Loads, sets the ping tool's answers and fills the table, remembering its order.
  void Prepare(const std::string& pingRules) {
    Load();
    SetPingRules(pingRules);
    ASSERT_TRUE(PLRPopulateAvailSubnets());
    order_ = Subnets(AvailSubnetTable());
    order_.push_back(0);  // the position one past the filled entries
  }
  // The ping runs for table positions from..to.
  std::vector<std::string> Runs(size_t from, size_t to) const {
    std::vector<std::string> runs;
    for (size_t i = from; i <= to; ++i) runs.push_back(PingCommand(Text(order_[i])));
    return runs;
  }
  std::vector<uint32_t> order_;
};

TEST_F(Subnet, CandidatesInFixedOrderLeaveOutConfiguredSubnets) {
  Load(
      "answer VNET_1_HOSTONLY_SUBNET 172.16.5.0\nanswer VNET_200_HOSTONLY_SUBNET 192.168.1.0\n"
      "answer VNET_4_HOSTONLY_SUBNET 10.20.30.0.0\n");
  EXPECT_TRUE(PLRSubnetUsed(Net(172, 16, 5)));
  EXPECT_EQ(UsedSubnetList().count, 2u) << "unreadable subnets are not listed";
  CandidateTable table;
  AddSubnetCandidates(table);
  ASSERT_EQ(table.count, 509u);
  const std::vector<uint32_t> all = Subnets(table);
  EXPECT_EQ(
      std::vector<uint32_t>(all.begin(), all.begin() + 10),
      (std::vector<uint32_t>{Net(172, 16, 0), Net(172, 16, 1), Net(192, 168, 2), Net(172, 16, 2),
                             Net(192, 168, 3), Net(172, 16, 3), Net(192, 168, 4), Net(172, 16, 4),
                             Net(192, 168, 5), Net(192, 168, 6)}));  // 172.16.5.0 is configured
  EXPECT_EQ(all[508], Net(172, 16, 255));
  ASSERT_TRUE(PLRSetVnetSubnetAddr(2, "172.16.77.0"));
  EXPECT_FALSE(PLRSubnetUsed(Net(172, 16, 77))) << "the used list is read once";
  // Filled and shuffled once per process into a permutation.
  ASSERT_TRUE(PLRPopulateAvailSubnets());
  const std::vector<uint32_t> shuffled = Subnets(AvailSubnetTable());
  std::vector<uint32_t> sorted = shuffled, expected = all;
  std::sort(sorted.begin(), sorted.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_NE(shuffled, all);
  EXPECT_EQ(sorted, expected);
  ASSERT_TRUE(PLRPopulateAvailSubnets());
  EXPECT_EQ(Subnets(AvailSubnetTable()), shuffled);
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
  ASSERT_TRUE(ShuffleSubnetCandidates("test", table, ScriptedRandom));
  EXPECT_EQ(gDrawn, 12u) << "two 4-byte draws for each of 2n swaps";
  EXPECT_EQ(Subnets(table), (std::vector<uint32_t>{0xA, 0xC, 0xB}));
  EXPECT_EQ(table.entries[2].taken, 1) << "the flag moves with its subnet";
  EXPECT_FALSE(ShuffleSubnetCandidates("test", table, [](void*, size_t) { return false; }));
}

// Ten candidates per call from position 1 on, each marked taken; the next
// call goes on from there, skipping candidates marked ahead of the cursor.
TEST_F(Subnet, ProbeTriesTenCandidatesPerCallAndMovesOn) {
  Prepare("* 0\n");
  char subnet[16] = "untouched", mask[16] = "untouched";
  EXPECT_FALSE(PLRSubnetProbe(subnet, mask));
  EXPECT_STREQ(subnet, "untouched");
  EXPECT_EQ(PingCalls(), Runs(1, 10));
  ASSERT_TRUE(PLRMarkSubnetUsed(Text(order_[12]).c_str(), true));
  ASSERT_TRUE(PLRMarkSubnetUsed(Text(order_[5]).c_str(), false));
  std::vector<std::string> expected = Runs(1, 11), rest = Runs(13, 21);
  expected.insert(expected.end(), rest.begin(), rest.end());
  SetPingRules(Text(order_[21]) + " 2\n* 0\n");
  ASSERT_TRUE(PLRSubnetProbe(subnet, mask));
  EXPECT_EQ(std::string(subnet) + "/" + mask, Text(order_[21]) + "/255.255.255.0");
  EXPECT_EQ(PingCalls(), expected);
  EXPECT_FALSE(PLRSubnetProbe(nullptr, mask) || PLRSubnetProbe(subnet, nullptr));
  // Past the last candidate only the zero entry one beyond is tried, once.
  CandidateTable& table = AvailSubnetTable();
  for (uint32_t i = 1; i < table.count; ++i) table.entries[i].taken = 1;
  WriteFile(kPingCallsPath, "");
  EXPECT_FALSE(PLRSubnetProbe(subnet, mask) || PLRSubnetProbe(subnet, mask));
  EXPECT_EQ(PingCalls(), std::vector<std::string>{PingCommand("0.0.0.0")});
  EXPECT_EQ(table.entries[0].taken, 0);
}

// Broadcast first: no reply (1) or code 2 decides free; no reply and then
// the first host decides; a reply, any other code or a failed fork: used.
TEST_F(Subnet, PingCheckOutcomes) {
  Load();
  const std::string bcast = PingCommand("10.1.2.0"), host = PingCommand("10.1.2.1");
  const struct {
    const char* rules;
    bool broadcast, free;
    std::vector<std::string> runs;
  } rows[] = {{"", true, true, {bcast, host}},
              {"10.1.2.1 0\n", true, false, {bcast, host}},
              {"10.1.2.1 2\n", true, true, {bcast, host}},
              {"10.1.2.0 2\n10.1.2.1 0\n", true, true, {bcast}},
              {"10.1.2.0 0\n", true, false, {bcast}},
              {"10.1.2.0 3\n", true, false, {bcast}},
              {"10.1.2.0 0\n", false, true, {host}},
              {"10.1.2.1 0\n", false, false, {host}}};
  for (const auto& r : rows) {
    SetPingRules(r.rules);
    WriteFile(kPingCallsPath, "");
    EXPECT_EQ(PLRPingAndCheckSubnet("10.1.2.0", r.broadcast, 1, 1), r.free) << r.rules;
    EXPECT_EQ(PingCalls(), r.runs) << r.rules;
  }
  sys::FailNth(sys::Op::kFork, 1, EAGAIN);
  EXPECT_FALSE(PLRPingAndCheckSubnet("10.1.2.0", true, 3, 2));
  sys::ClearFaults();
  SetPingRules("");
  WriteFile(kPingCallsPath, "");
  EXPECT_TRUE(PLRPingAndCheckSubnet("10.1.2.0", false, 3, 2));
  EXPECT_EQ(PingCalls()[0], std::string(FixtureBinDir()) + "/tarsis-ping -q -b 10.1.2.1 -t 3 -i 2");
}

// The tool runs from BINDIR (255 characters at most), /usr/bin without one.
TEST_F(Subnet, PingToolLocation) {
  const std::string fits = "/tmp/" + std::string(250, 'd'), tooLong = fits + "d";
  for (const std::string& dir : {fits, tooLong}) {
    ASSERT_EQ(
        plr::test::Run("mkdir -p " + dir + " && ln -s " + FixtureBinDir() + "/tarsis-ping " + dir),
        0);
    Load("", dir);
    EXPECT_EQ(PLRPingAndCheckSubnet("10.1.2.0", false, 1, 1), dir == fits);
    PLR_Unload();
  }
  EXPECT_EQ(PingCalls(), std::vector<std::string>{fits + "/tarsis-ping -q -b 10.1.2.1 -t 1 -i 1"});
  ASSERT_FALSE(FileExists("/usr/bin/tarsis-ping"));
  WriteFile("/etc/tarsis/config", "# no bindir here\n");
  ASSERT_TRUE(PLR_Load(false) && PLR_SetCurrentLogLevel(PLR_LOG_MAX_LEVEL));
  EXPECT_FALSE(PLRPingAndCheckSubnet("10.1.2.0", true, 1, 1));
  EXPECT_TRUE(LogHas("Return value of tarsis-ping: 127")) << "the shell finds no tool";
}

// A free subnet is stored with the /24 mask, the subnet record first; in-use
// candidates (at the network address or its first host) are skipped.
TEST_F(Subnet, Assignment) {
  Prepare("");
  const std::string before = Database();
  ASSERT_TRUE(PLRAssignUnusedSubnetAddressToVNet(8));
  EXPECT_EQ(Database(), before + "answer VNET_8_HOSTONLY_SUBNET " + Text(order_[1]) +
                            "\nanswer VNET_8_HOSTONLY_NETMASK 255.255.255.0\n");
  SetPingRules(Text(order_[2]) + " 0\n" + Text(order_[3] + 1) + " 0\n");
  ASSERT_TRUE(PLRAssignUnusedSubnetAddressToVNet(9));
  EXPECT_EQ(Answer("VNET_9_HOSTONLY_SUBNET"), Text(order_[4]));
  for (int failing : {1, 2}) {
    sys::FailNth(sys::Op::kWrite, failing, ENOSPC);
    EXPECT_FALSE(PLRAssignUnusedSubnetAddressToVNet(6));
    sys::ClearFaults();
    EXPECT_EQ(Answer("VNET_6_HOSTONLY_NETMASK"), std::nullopt);
    EXPECT_EQ(Answer("VNET_6_HOSTONLY_SUBNET").has_value(), failing == 2);
  }
  SetPingRules("* 0\n");
  const std::string full = Database();
  EXPECT_FALSE(PLRAssignUnusedSubnetAddressToVNet(7));
  EXPECT_EQ(Database(), full);
}

}  // namespace
}  // namespace plr::test
