// Vnet names and settings, options, the default bridge vnet, and subnet assignment.
#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <functional>
#include <tuple>

#include "base/sys-util.h"
#include "pelorus.h"
#include "tests/support/vnet_util.h"
#include "vnet/subnet.h"

namespace plr::test {
namespace {

TEST(VnetNames, NameToNumberAndBack) {
  for (auto [name, vnet] : {std::pair{"kavix0", 0u},
                            {"KaViX42", 42u},
                            {"kavix019", 19u},
                            {"kavix255", 255u},
                            {"kavix0000000000000000000000001", 1u}})
    EXPECT_EQ(PLRConvVnetNameToNum(name), vnet) << name;
  for (const char* bad : {"kavix256", "kavix", "kavix1a", "kavix-1", "kavix2550", "xkavix1",
                          "kavix99999999999999999"})
    EXPECT_EQ(PLRConvVnetNameToNum(bad), PLR_VNET_NONE) << bad;
  EXPECT_EQ(PLRConvVnetNameToNum(nullptr), PLR_VNET_NONE);
  char name[PLR_VNET_NAME_SIZE] = "#";
  EXPECT_FALSE(PLRConvVnetNumToName(256, name));
  EXPECT_STREQ(name, "#") << "a refused number leaves the buffer alone";
  EXPECT_TRUE(PLRConvVnetNumToName(255, name) && !strcmp(name, "kavix255"));
}

using VnetSettings = LoadedLibraryTest;

TEST_F(VnetSettings, Accessors) {
  Load(
      "answer VNET_4_DISPLAY_NAME fifteen-chars!!\nanswer VNET_1_DHCP YES\nanswer VNET_2_DHCP yes\n"
      "answer VNET_3_DHCP true\nanswer VNET_6_NAT yEs\nanswer VNET_6_VIRTUAL_ADAPTER_NAME h-long\n"
      "answer VNET_3_VIRTUAL_ADAPTER_ADDR 10.0.3.254\nanswer VNET_7_HOSTONLY_SUBNET 10.0.7.255\n");
  ASSERT_TRUE(PLRSetVnetCfg(PLR_VNET_NONE, "MTU", "9000"));
  EXPECT_STREQ(PLRGetVnetCfg(-1, "MTU"), "9000");
  // Keys up to 511 characters; longer ones are refused by every accessor.
  const std::string fits(511 - strlen("VNET_1_"), 'K'), tooLong = fits + "K";
  EXPECT_TRUE(PLRSetVnetCfg(1, fits.c_str(), "v") && PLRGetVnetCfg(1, fits.c_str()));
  const std::string before = Database();
  char buf[32] = "x";
  size_t size = 15;
  const char* k = tooLong.c_str();
  EXPECT_FALSE(PLRSetVnetCfg(1, k, "v") || PLRSetVnetCfgBool(1, k, true) ||
               PLRRemoveVnetCfg(1, k) || PLRGetVnetCfg(1, k) ||
               PLRGetVnetCfgCpy(1, k, buf, &size) || PLRRemoveVnetCfg(2, nullptr));
  // A copy reports the size it needs whenever the setting exists; a failed one leaves the buffer.
  EXPECT_FALSE(PLRGetVnetCfgCpy(4, "DISPLAY_NAME", buf, &size) || strcmp(buf, "x") || size != 16);
  EXPECT_TRUE(PLRGetVnetCfgCpy(4, "DISPLAY_NAME", buf, &size) && !strcmp(buf, "fifteen-chars!!"));
  EXPECT_FALSE(PLRGetVnetCfgCpy(9, "MTU", buf, &size) || size != 16);
  // Booleans are "yes" in any case; an unchanged value writes nothing.
  for (uint32_t vnet = 1; vnet <= 4; ++vnet) EXPECT_EQ(PLRGetVnetUseDHCP(vnet), vnet <= 2) << vnet;
  EXPECT_TRUE(PLRGetVnetUseNAT(6) && !PLRGetVnetUseNAT(1));
  EXPECT_TRUE(PLRSetVnetCfgBool(1, "DHCP", true) && PLRSetVnetCfgBool(8, "NAT", false) &&
              PLRSetVnetCfgBool(1, "DHCP", false));
  EXPECT_EQ(Database(), before + "remove_answer VNET_1_DHCP\nanswer VNET_1_DHCP no\n");
  // The adapter name defaults to the vnet name cut to the buffer; a stored one must fit.
  EXPECT_TRUE(PLRGetVnetVirtAdapter(123, buf, 6) && !strcmp(buf, "kavix"));
  EXPECT_FALSE(PLRGetVnetVirtAdapter(6, buf, 6));
  // The adapter address: stored (it must fit), or the subnet plus one on request when it fits.
  for (auto [vnet, size, compute, address] : {std::tuple{3, 16, false, "10.0.3.254"},
                                              {3, 10, true, ""},
                                              {7, 16, false, ""},
                                              {7, 9, true, "10.0.8.0"},
                                              {7, 8, true, ""}}) {
    char addr[16] = "";
    EXPECT_EQ(PLRGetVnetVirtAdapterAddr(vnet, addr, size, compute), *address != 0)
        << vnet << "/" << size;
    EXPECT_STREQ(addr, address);
  }
  EXPECT_EQ(PLRGetVnetCfg(7, "VIRTUAL_ADAPTER_ADDR"), nullptr) << "the default is not stored";
}

// Switching off with removeConfig drops its own settings only; a failed NAT cleanup is not fatal.
TEST_F(VnetSettings, SwitchesOffDropTheirOwnSettingsOnlyWithRemoveConfig) {
  const char* kRecords =
      "answer VNET_3_DHCP_PARAM_LEASE_START_IP 192.168.3.128\nanswer VNET_3_NAT_PARAM_DEVICE /k\n"
      "add_dhcp_mac_to_ip 3 00:50:56:00:00:01 192.168.3.10\nadd_nat_portfwd 3 tcp 80 1.2.3.4 80\n"
      "answer VNET_3_VIRTUAL_ADAPTER_ADDR 10.0.3.1\nanswer VNET_3_VIRTUAL_ADAPTER_NAME h3\n";
  const std::function<bool(bool)> offs[] = {
      [](bool rm) { return PLRSetVnetUseDHCP(3, false, rm); },
      [](bool rm) { return PLRSetVnetUseNAT(3, false, rm); },
      [](bool rm) { return PLRSetVnetUseAdapter(3, false, rm); }};
  const char* owned[][2] = {{"DHCP_PARAM_LEASE_START_IP", "DHCP_PARAM_LEASE_START_IP"},
                            {"NAT_PARAM_DEVICE", "NAT_PARAM_DEVICE"},
                            {"VIRTUAL_ADAPTER_ADDR", "VIRTUAL_ADAPTER_NAME"}};
  for (int i = 0; i < 3; ++i) {
    SCOPED_TRACE(owned[i][0]);
    Load(kRecords);
    auto left = [&] {
      int n = 0;
      for (const auto& keys : owned) n += !!PLRGetVnetCfg(3, keys[0]) + !!PLRGetVnetCfg(3, keys[1]);
      return n;
    };
    EXPECT_TRUE(offs[i](false));
    EXPECT_EQ(left(), 6) << "without removeConfig everything stays";
    EXPECT_TRUE(offs[i](true) && offs[i](true));
    EXPECT_EQ(left(), 4) << "exactly its own settings are gone";
    char ip[16];
    uint16_t port = 0;
    EXPECT_EQ(PLRNetCfgLookupDHCPMACToIP(nullptr, 3, "00:50:56:00:00:01", ip, sizeof ip), i != 0);
    EXPECT_EQ(PLRNetCfgLookupNATPortFwd(nullptr, 3, true, 80, ip, sizeof ip, &port, 0, 0), i != 1);
    PLR_Unload();
    Load(kRecords);
    sys::FailFrom(sys::Op::kWrite, 1, ENOSPC);
    EXPECT_EQ(offs[i](true), i == 1);
    sys::ClearFaults();
    EXPECT_TRUE(PLRGetVnetCfg(3, owned[i][0]) && PLRGetVnetCfg(3, owned[i][1]));
    PLR_Unload();
  }
}

TEST_F(VnetSettings, OptionsAndSubnetGiveBack) {
  Load(
      "answer VNET_1_DHCP yes\nanswer VNET_1_NAT YES\nanswer VNET_1_VIRTUAL_ADAPTER yes\n"
      "answer VNET_1_HOSTONLY_SUBNET 192.168.10.0\nanswer VNET_1_HOSTONLY_NETMASK 255.0.0.0\n"
      "answer VNET_2_DHCP no\nanswer VNET_2_VIRTUAL_ADAPTER no\nadd_bridge_mapping eth1 2\n");
  for (uint32_t option = PLR_VNET_OPTION_BRIDGE; option <= PLR_VNET_OPTION_SUBNET + 1; ++option) {
    EXPECT_EQ(PLRVnetIsOptionConfigured(1, option),
              option != PLR_VNET_OPTION_BRIDGE && option <= PLR_VNET_OPTION_SUBNET)
        << option;
    EXPECT_EQ(PLRVnetIsOptionConfigured(2, option), option == PLR_VNET_OPTION_BRIDGE) << option;
  }
  // Bridged means the default bridge vnet (absent: 0) or an explicit mapping.
  EXPECT_TRUE(PLRVnetIsOptionConfigured(0, PLR_VNET_OPTION_BRIDGE) && PLRSetDefaultBridgeVnet(3) &&
              PLRVnetIsOptionConfigured(3, PLR_VNET_OPTION_BRIDGE));
  // A removed subnet can be handed out again; the mask goes after it.
  ASSERT_TRUE(PLRMarkSubnetUsed("192.168.10.0", true));
  const std::string before = Database();
  EXPECT_TRUE(PLRRemoveSubnetAssignment(1));
  EXPECT_EQ(
      Database(),
      before + "remove_answer VNET_1_HOSTONLY_SUBNET\nremove_answer VNET_1_HOSTONLY_NETMASK\n");
  const CandidateTable& table = AvailSubnetTable();
  for (uint32_t i = 0; i < table.count; ++i)
    EXPECT_TRUE(table.entries[i].subnet != 0xC0A80A00u || table.entries[i].taken == 0);
}

// A load caches 0 (when absent too) or -1, refusing others; answers do not move the cache.
TEST_F(VnetSettings, DefaultBridgeVnetCache) {
  for (auto [records, cached] : {std::pair{"", 0u},
                                 {"answer PLR_DEFAULT_BRIDGE_VNET -1\n", PLR_VNET_NONE},
                                 {"answer PLR_DEFAULT_BRIDGE_VNET 2\n", PLR_VNET_ALL}}) {
    Load(std::string(records) + "add_bridge_mapping eth1 2\n");
    uint32_t vnet = 55;
    EXPECT_EQ(PLRGetDefaultBridgeVnet(&vnet), cached != PLR_VNET_ALL) << records;
    EXPECT_EQ(vnet, cached != PLR_VNET_ALL ? cached : 55u) << records;
    EXPECT_EQ(PLRVnetIsOptionConfigured(2, PLR_VNET_OPTION_BRIDGE), cached != PLR_VNET_ALL);
    ASSERT_TRUE(PLRNetCfgAddAnswerString(nullptr, "PLR_DEFAULT_BRIDGE_VNET", "0"));
    EXPECT_EQ(plrDefaultBridgeVnet, cached) << records;
    EXPECT_TRUE(PLRSetDefaultBridgeVnet(7) && PLRGetDefaultBridgeVnet(&vnet) && vnet == 7u);
    PLR_Unload();
    ASSERT_TRUE(PLR_Load(false));
    EXPECT_FALSE(PLRGetDefaultBridgeVnet(nullptr)) << "the load refuses what the set stored";
    PLR_Unload();
  }
}

// The subnets at positions from..to (default: all) of a candidate table.
std::vector<std::string> Subnets(const CandidateTable& table, uint32_t from = 0, uint32_t to = 0) {
  std::vector<std::string> out;
  char buf[16];
  for (uint32_t i = from; i <= (to ? to : table.count - 1); ++i)
    out.push_back(PLRIPInt2Str(table.entries[i].subnet, buf) ? buf : "?");
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
  EXPECT_EQ(Subnets(table, 0, 4),
            (std::vector<std::string>{"172.16.0.0", "172.16.1.0", "192.168.2.0", "172.16.2.0",
                                      "192.168.3.0"}));
  EXPECT_EQ(all[9] + all[508], "192.168.6.0172.16.255.0") << "172.16.5.0 is configured";
  ASSERT_TRUE(PLRSetVnetSubnetAddr(2, "172.16.77.0"));
  EXPECT_FALSE(PLRSubnetUsed(0xAC104D00u)) << "the used list is read once";
  ASSERT_TRUE(PLRPopulateAvailSubnets() && PLRMarkSubnetUsed("172.16.3.0", true));
  std::vector<std::string> shuffled = Subnets(AvailSubnetTable());
  ASSERT_TRUE(PLRPopulateAvailSubnets());
  EXPECT_EQ(Subnets(AvailSubnetTable()), shuffled) << "filled once";
  EXPECT_TRUE(shuffled != all && std::is_permutation(all.begin(), all.end(), shuffled.begin()));
}

// Ten untaken candidates per call from position 1 on; past the end only entry 0, once.
TEST_F(Subnet, ProbeTriesTenCandidatesPerCallAndMovesOn) {
  Load();
  SetPingRules("* 0\n");
  char subnet[16] = "untouched", mask[16];
  EXPECT_FALSE(PLRSubnetProbe(subnet, mask) || strcmp(subnet, "untouched"));
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
  EXPECT_FALSE(PLRSubnetProbe(subnet, mask) || PLRSubnetProbe(subnet, mask) ||
               table.entries[0].taken);
  EXPECT_EQ(PingCalls(), std::vector<std::string>{PingCommand("0.0.0.0")});
}

// Broadcast first: no reply (1) or code 2 decides free; no reply and then the first host
// decides; a reply, any other code or a failed fork: used. Runs: (b)roadcast, first (h)ost.
TEST_F(Subnet, PingCheckOutcomes) {
  Load();
  for (auto [rules, broadcast, free, runs] : {std::tuple{"", true, true, "bh"},
                                              {"10.1.2.1 0\n", true, false, "bh"},
                                              {"10.1.2.1 2\n", true, true, "bh"},
                                              {"10.1.2.0 2\n* 0\n", true, true, "b"},
                                              {"10.1.2.0 0\n", true, false, "b"},
                                              {"10.1.2.0 0\n", false, true, "h"},
                                              {"10.1.2.1 0\n", false, false, "h"}}) {
    SetPingRules(rules);
    WriteFile(kPingCallsPath, "");
    EXPECT_EQ(PLRPingAndCheckSubnet("10.1.2.0", broadcast, 1, 1), free) << rules;
    std::vector<std::string> expected;
    for (const char* c = runs; *c; ++c)
      expected.push_back(PingCommand(*c == 'b' ? "10.1.2.0" : "10.1.2.1"));
    EXPECT_EQ(PingCalls(), expected) << rules;
  }
  sys::FailNth(sys::Op::kFork, 1, EAGAIN);
  SetPingRules("");
  EXPECT_FALSE(PLRPingAndCheckSubnet("10.1.2.0", false, 1, 1));
}

// BINDIR comes only from the product configuration: a database record or an
// API call naming another directory (here one that would run a command if a
// shell ever saw it) changes nothing, and the probe runs the configured tool.
TEST_F(Subnet, BinDirComesOnlyFromTheProductConfiguration) {
  Load("answer BINDIR /usr/bin$(touch /tmp/ran)\n");
  EXPECT_TRUE(LogHas("Ignoring BINDIR in database file, it comes only from /etc/tarsis/config"));
  EXPECT_FALSE(PLR_VnetCfgAddAnswer("BINDIR", "/tmp/$(touch /tmp/ran)"));
  EXPECT_FALSE(PLRNetCfgRemoveAnswer(nullptr, "BINDIR"));
  const char* binDir = nullptr;
  ASSERT_TRUE(PLRNetCfgGetAnswerString(nullptr, "BINDIR", &binDir));
  EXPECT_STREQ(binDir, FixtureBinDir());
  SetPingRules("");
  WriteFile(kPingCallsPath, "");
  EXPECT_TRUE(PLRPingAndCheckSubnet("10.1.2.0", false, 1, 1));
  EXPECT_EQ(PingCalls(), std::vector<std::string>{PingCommand("10.1.2.1")});
  EXPECT_FALSE(FileExists("/tmp/ran"));
}

// A free subnet is stored with the /24 mask; in-use candidates (network or first host) are skipped.
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
  SetPingRules("* 0\n");
  const std::string full = Database();
  EXPECT_FALSE(PLRAssignUnusedSubnetAddressToVNet(7));
  EXPECT_EQ(Database(), full);
}

}  // namespace
}  // namespace plr::test
