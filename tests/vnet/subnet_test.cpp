// Automatic subnet assignment: the candidate table, its shuffle, the probe's
// bounds, the ping check against the scripted ping tool, and the assignment.
#include "vnet/subnet.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "base/sys-util.h"
#include "pelorus.h"
#include "tests/support/vnet_util.h"

namespace plr::test {
namespace {

std::string Text(uint32_t ip) {
  char buf[16];
  EXPECT_TRUE(PLRIPInt2Str(ip, buf));
  return buf;
}

std::vector<std::string> Subnets(const CandidateTable& table, uint32_t from = 0, uint32_t to = 0) {
  std::vector<std::string> out;
  for (uint32_t i = from; i <= (to ? to : table.count - 1); ++i)
    out.push_back(Text(table.entries[i].subnet));
  return out;
}

// The ping runs for positions from..to of the filled candidate table.
std::vector<std::string> Runs(uint32_t from, uint32_t to) {
  std::vector<std::string> runs = Subnets(AvailSubnetTable(), from, to);
  for (std::string& run : runs) run = PingCommand(run);
  return runs;
}

using Subnet = LoadedLibraryTest;

TEST_F(Subnet, CandidatesInFixedOrderLeaveOutConfiguredSubnetsAndAreShuffledOnce) {
  Load(
      "answer VNET_1_HOSTONLY_SUBNET 172.16.5.0\nanswer VNET_200_HOSTONLY_SUBNET 192.168.1.0\n"
      "answer VNET_4_HOSTONLY_SUBNET 10.20.30.0.0\n");
  EXPECT_TRUE(PLRSubnetUsed(0xAC100500u));
  EXPECT_EQ(UsedSubnetList().count, 2u) << "unreadable subnets are not listed";
  CandidateTable table;
  AddSubnetCandidates(table);
  std::vector<std::string> all = Subnets(table);
  ASSERT_EQ(all.size(), 509u);
  EXPECT_EQ(Subnets(table, 0, 8),
            (std::vector<std::string>{"172.16.0.0", "172.16.1.0", "192.168.2.0", "172.16.2.0",
                                      "192.168.3.0", "172.16.3.0", "192.168.4.0", "172.16.4.0",
                                      "192.168.5.0"}));
  EXPECT_EQ(all[9] + all[508], "192.168.6.0172.16.255.0") << "172.16.5.0 is configured";
  ASSERT_TRUE(PLRSetVnetSubnetAddr(2, "172.16.77.0"));
  EXPECT_FALSE(PLRSubnetUsed(0xAC104D00u)) << "the used list is read once";
  ASSERT_TRUE(PLRPopulateAvailSubnets() && PLRMarkSubnetUsed("172.16.3.0", true));
  std::vector<std::string> shuffled = Subnets(AvailSubnetTable());
  ASSERT_TRUE(PLRPopulateAvailSubnets());
  EXPECT_EQ(Subnets(AvailSubnetTable()), shuffled) << "filled once";
  EXPECT_NE(shuffled, all);
  std::sort(all.begin(), all.end());
  std::sort(shuffled.begin(), shuffled.end());
  EXPECT_EQ(shuffled, all);
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
  EXPECT_EQ(table.entries[1].subnet * 16 + table.entries[2].subnet, 0xCBu);
  EXPECT_EQ(table.entries[2].taken, 1) << "the flag moves with its subnet";
  EXPECT_FALSE(ShuffleSubnetCandidates("test", table, [](void*, size_t) { return false; }));
}

// Ten candidates per call from position 1 on, each marked taken; the next
// call goes on from there, skipping candidates marked ahead of the cursor.
// Past the last candidate only the zero entry one beyond is tried, once.
TEST_F(Subnet, ProbeTriesTenCandidatesPerCallAndMovesOn) {
  Load();
  SetPingRules("* 0\n");
  char subnet[16] = "untouched", mask[16];
  EXPECT_FALSE(PLRSubnetProbe(subnet, mask));
  EXPECT_STREQ(subnet, "untouched");
  EXPECT_EQ(PingCalls(), Runs(1, 10));
  ASSERT_TRUE(PLRMarkSubnetUsed(Subnets(AvailSubnetTable(), 12, 12)[0].c_str(), true));
  ASSERT_TRUE(PLRMarkSubnetUsed(Subnets(AvailSubnetTable(), 5, 5)[0].c_str(), false));
  SetPingRules(Subnets(AvailSubnetTable(), 21, 21)[0] + " 2\n* 0\n");
  ASSERT_TRUE(PLRSubnetProbe(subnet, mask));
  EXPECT_EQ(std::string(subnet) + "/" + mask,
            Subnets(AvailSubnetTable(), 21, 21)[0] + "/255.255.255.0");
  std::vector<std::string> expected = Runs(1, 11), rest = Runs(13, 21);
  expected.insert(expected.end(), rest.begin(), rest.end());
  EXPECT_EQ(PingCalls(), expected);
  EXPECT_FALSE(PLRSubnetProbe(nullptr, mask) || PLRSubnetProbe(subnet, nullptr));
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
              {"10.1.2.0 2\n* 0\n", true, true, {bcast}},
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
  SetPingRules("");
  EXPECT_FALSE(PLRPingAndCheckSubnet("10.1.2.0", false, 1, 1));
}

// The tool runs from BINDIR (255 characters at most), /usr/bin without one.
TEST_F(Subnet, PingToolLocation) {
  const std::string fits = "/tmp/" + std::string(250, 'd'), tooLong = fits + "d";
  for (const std::string& dir : {fits, tooLong}) {
    ASSERT_EQ(
        plr::test::Run("mkdir -p " + dir + " && ln -s " + FixtureBinDir() + "/tarsis-ping " + dir),
        0);
    Load("", dir);
    EXPECT_EQ(PLRPingAndCheckSubnet("10.1.2.0", false, 3, 2), dir == fits);
    PLR_Unload();
  }
  EXPECT_EQ(PingCalls(), std::vector<std::string>{fits + "/tarsis-ping -q -b 10.1.2.1 -t 3 -i 2"});
  WriteFile("/etc/tarsis/config", "# no bindir here\n");
  ASSERT_TRUE(PLR_Load(false) && PLR_SetCurrentLogLevel(PLR_LOG_MAX_LEVEL));
  EXPECT_FALSE(PLRPingAndCheckSubnet("10.1.2.0", true, 1, 1));
  EXPECT_TRUE(LogHas("Return value of tarsis-ping: 127")) << "there is no /usr/bin/tarsis-ping";
}

// A free subnet is stored with the /24 mask, the subnet record first; in-use
// candidates (at the network address or its first host) are skipped.
TEST_F(Subnet, Assignment) {
  Load();
  ASSERT_TRUE(PLRPopulateAvailSubnets());
  const std::vector<std::string> order = Subnets(AvailSubnetTable(), 0, 4);
  const std::string before = Database();
  ASSERT_TRUE(PLRAssignUnusedSubnetAddressToVNet(8));
  EXPECT_EQ(Database(), before + "answer VNET_8_HOSTONLY_SUBNET " + order[1] +
                            "\nanswer VNET_8_HOSTONLY_NETMASK 255.255.255.0\n");
  SetPingRules(order[2] + " 0\n" + order[3].substr(0, order[3].size() - 1) + "1 0\n");
  ASSERT_TRUE(PLRAssignUnusedSubnetAddressToVNet(9));
  EXPECT_STREQ(PLRGetVnetCfg(9, "HOSTONLY_SUBNET"), order[4].c_str());
  for (int failing : {1, 2}) {
    sys::FailNth(sys::Op::kWrite, failing, ENOSPC);
    EXPECT_FALSE(PLRAssignUnusedSubnetAddressToVNet(6));
    sys::ClearFaults();
    EXPECT_TRUE(!PLRGetVnetCfg(6, "HOSTONLY_NETMASK") &&
                !PLRGetVnetCfg(6, "HOSTONLY_SUBNET") == (failing == 1));
  }
  SetPingRules("* 0\n");
  const std::string full = Database();
  EXPECT_FALSE(PLRAssignUnusedSubnetAddressToVNet(7));
  EXPECT_EQ(Database(), full);
}

}  // namespace
}  // namespace plr::test
