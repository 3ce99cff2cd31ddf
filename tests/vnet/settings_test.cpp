// Per-vnet settings over the default database: vnet names, key forming, the
// accessors and switches, the options and the default bridge vnet.
#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>

#include <functional>
#include <optional>
#include <string>

#include "base/sys-util.h"
#include "pelorus.h"
#include "tests/support/vnet_util.h"
#include "vnet/subnet.h"

namespace plr::test {
namespace {

TEST(VnetNames, NameToNumberAndBack) {
  const uint32_t none = PLR_VNET_NONE;
  const std::pair<const char*, uint32_t> rows[] = {
      {"kavix0", 0},
      {"KaViX42", 42},
      {"kavix019", 19},
      {"kavix255", 255},
      {"kavix256", none},
      {"kavix", none},
      {"kavix1a", none},
      {"kavix-1", none},
      {"kavix2550", none},
      {"kavi", none},
      {"xkavix1", none},
      {"kavix99999999999999999999", none},
      {"kavix00000000000000000000000000000001", 1}};  // zeros never overflow
  for (const auto& [name, vnet] : rows) EXPECT_EQ(PLRConvVnetNameToNum(name), vnet) << name;
  EXPECT_EQ(PLRConvVnetNameToNum(nullptr), none);
  char name[PLR_VNET_NAME_SIZE] = "#";
  EXPECT_FALSE(PLRConvVnetNumToName(256, name));
  EXPECT_STREQ(name, "#") << "a refused number leaves the buffer alone";
  ASSERT_TRUE(PLRConvVnetNumToName(255, name));
  EXPECT_STREQ(name, "kavix255");
}

using VnetSettings = LoadedLibraryTest;

TEST_F(VnetSettings, Accessors) {
  Load(
      "answer VNET_4_DISPLAY_NAME fifteen-chars!!\nanswer VNET_1_DHCP YES\n"
      "answer VNET_2_DHCP yes\nanswer VNET_3_DHCP true\nanswer VNET_6_NAT yEs\n"
      "answer VNET_6_VIRTUAL_ADAPTER_NAME hostonly-long-name\n"
      "answer VNET_3_HOSTONLY_SUBNET 10.0.3.0\nanswer VNET_3_VIRTUAL_ADAPTER_ADDR 10.0.3.254\n"
      "answer VNET_7_HOSTONLY_SUBNET 10.0.7.255\n");
  ASSERT_TRUE(PLRSetVnetCfg(PLR_VNET_NONE, "MTU", "9000"));
  EXPECT_EQ(Answer("VNET_-1_MTU"), "9000");
  // Keys up to 511 characters; longer ones are refused by every accessor.
  const std::string fits(511 - strlen("VNET_1_"), 'K'), tooLong = fits + "K";
  ASSERT_TRUE(PLRSetVnetCfg(1, fits.c_str(), "v"));
  EXPECT_STREQ(PLRGetVnetCfg(1, fits.c_str()), "v");
  const std::string before = Database();
  char buf[32] = "x";
  size_t size = 15;
  const char* k = tooLong.c_str();
  EXPECT_FALSE(PLRSetVnetCfg(1, k, "v") || PLRSetVnetCfgBool(1, k, true) ||
               PLRRemoveVnetCfg(1, k) || PLRGetVnetCfg(1, k) ||
               PLRGetVnetCfgCpy(1, k, buf, &size) || PLRGetVnetCfg(2, nullptr) ||
               PLRRemoveVnetCfg(2, nullptr));
  // A copy reports the size it needs; a failed one leaves the buffer alone.
  EXPECT_FALSE(PLRGetVnetCfgCpy(4, "DISPLAY_NAME", buf, &size));
  EXPECT_EQ(size, 16u);
  EXPECT_STREQ(buf, "x");
  EXPECT_TRUE(PLRGetVnetCfgCpy(4, "DISPLAY_NAME", buf, &size));
  EXPECT_STREQ(buf, "fifteen-chars!!");
  EXPECT_FALSE(PLRGetVnetCfgCpy(9, "MTU", buf, &size));
  EXPECT_EQ(size, 16u) << "an absent setting leaves the size";
  // Booleans are "yes" in any case; an unchanged value writes nothing.
  for (uint32_t vnet = 1; vnet <= 4; ++vnet) EXPECT_EQ(PLRGetVnetUseDHCP(vnet), vnet <= 2) << vnet;
  EXPECT_TRUE(PLRGetVnetUseNAT(6) && !PLRGetVnetUseNAT(1));
  EXPECT_TRUE(PLRSetVnetCfgBool(1, "DHCP", true) && PLRSetVnetCfgBool(8, "NAT", false));
  EXPECT_EQ(Database(), before);
  EXPECT_TRUE(PLRSetVnetCfgBool(1, "DHCP", false));
  EXPECT_EQ(Database(), before + "remove_answer VNET_1_DHCP\nanswer VNET_1_DHCP no\n");
  // The adapter name defaults to the vnet name, cut to the buffer; a stored one must fit.
  EXPECT_TRUE(PLRGetVnetVirtAdapter(123, buf, 6));
  EXPECT_STREQ(buf, "kavix");
  EXPECT_FALSE(PLRGetVnetVirtAdapter(6, buf, 16));
  // The adapter address: stored (it must fit), or the subnet plus one on request when it fits.
  const struct {
    uint32_t vnet;
    size_t size;
    bool computeDefault;
    const char* address;  // "": the call fails
  } addrs[] = {{3, 16, false, "10.0.3.254"}, {3, 10, true, ""}, {7, 16, false, ""},
               {7, 9, true, "10.0.8.0"},     {7, 8, true, ""},  {8, 16, true, ""}};
  for (const auto& r : addrs) {
    char addr[16] = "";
    EXPECT_EQ(PLRGetVnetVirtAdapterAddr(r.vnet, addr, r.size, r.computeDefault), *r.address != 0);
    EXPECT_STREQ(addr, r.address) << r.vnet << "/" << r.size;
  }
  EXPECT_EQ(Answer("VNET_7_VIRTUAL_ADAPTER_ADDR"), std::nullopt) << "the default is not stored";
}

// Each switch turned off with removeConfig drops its own settings and records
// only; without removeConfig everything stays.
TEST_F(VnetSettings, SwitchesOffDropTheirOwnSettingsOnlyWithRemoveConfig) {
  Load(
      "answer VNET_3_DHCP yes\nanswer VNET_3_DHCP_PARAM_LEASE_START_IP 192.168.3.128\n"
      "answer VNET_3_NAT_PARAM_DEVICE /dev/kavix3\n"
      "add_dhcp_mac_to_ip 3 00:50:56:00:00:01 192.168.3.10\n"
      "answer VNET_8_NAT yes\nanswer VNET_8_NAT_PARAM_DEVICE /dev/kavix8\n"
      "answer VNET_8_DHCP_PARAM_MAX_LEASE_TIME 7200\nadd_nat_portfwd 8 tcp 80 192.168.8.10 80 w\n"
      "answer VNET_2_VIRTUAL_ADAPTER yes\nanswer VNET_2_VIRTUAL_ADAPTER_ADDR 10.0.2.1\n"
      "answer VNET_2_VIRTUAL_ADAPTER_NAME hostnet2\nanswer VNET_2_HOSTONLY_SUBNET 10.0.2.0\n"
      "answer VNET_4_DHCP_PARAM_MAX_LEASE_TIME 7200\nanswer VNET_4_NAT_PARAM_UDP_TIMEOUT 60\n"
      "answer VNET_4_VIRTUAL_ADAPTER_ADDR 10.0.4.1\n");
  EXPECT_TRUE(PLRSetVnetUseDHCP(3, false, true) && PLRSetVnetUseNAT(8, false, true) &&
              PLRSetVnetUseAdapter(2, false, true) && PLRSetVnetUseAdapter(2, false, true) &&
              PLRSetVnetUseDHCP(4, false, false) && PLRSetVnetUseNAT(4, false, false) &&
              PLRSetVnetUseAdapter(4, false, false) && PLRSetVnetUseDHCP(5, true, false));
  for (const char* gone : {"3_DHCP_PARAM_LEASE_START_IP", "8_NAT_PARAM_DEVICE",
                           "2_VIRTUAL_ADAPTER_ADDR", "2_VIRTUAL_ADAPTER_NAME"})
    EXPECT_EQ(Answer(std::string("VNET_") + gone), std::nullopt) << gone;
  for (const char* kept :
       {"3_NAT_PARAM_DEVICE", "8_DHCP_PARAM_MAX_LEASE_TIME", "2_HOSTONLY_SUBNET",
        "4_DHCP_PARAM_MAX_LEASE_TIME", "4_NAT_PARAM_UDP_TIMEOUT", "4_VIRTUAL_ADAPTER_ADDR"})
    EXPECT_NE(Answer(std::string("VNET_") + kept), std::nullopt) << kept;
  for (const char* key : {"3_DHCP", "8_NAT", "2_VIRTUAL_ADAPTER"})
    EXPECT_EQ(Answer(std::string("VNET_") + key), "no") << key;
  EXPECT_EQ(Answer("VNET_5_DHCP"), "yes");
  char ip[16];
  uint16_t port = 0;
  EXPECT_FALSE(PLRNetCfgLookupDHCPMACToIP(nullptr, 3, "00:50:56:00:00:01", ip, sizeof ip));
  EXPECT_FALSE(PLRNetCfgLookupNATPortFwd(nullptr, 8, true, 80, ip, sizeof ip, &port, 0, 0));
}

// With the switch already off only the removals meet a full disk: a failed
// NAT removal does not fail the call, the others do and stop there.
TEST_F(VnetSettings, FailedRemovalsOnAFullDisk) {
  const struct {
    std::function<bool()> off;
    bool result;
    const char* kept;
  } rows[] = {
      {[] { return PLRSetVnetUseDHCP(3, false, true); }, false, "DHCP_PARAM_MAX_LEASE_TIME"},
      {[] { return PLRSetVnetUseNAT(3, false, true); }, true, "NAT_PARAM_UDP_TIMEOUT"},
      {[] { return PLRSetVnetUseAdapter(3, false, true); }, false, "VIRTUAL_ADAPTER_ADDR"},
      {[] { return PLRRemoveSubnetAssignment(3); }, false, "HOSTONLY_NETMASK"}};
  for (const auto& r : rows) {
    Load(
        "answer VNET_3_DHCP no\nanswer VNET_3_NAT no\nanswer VNET_3_VIRTUAL_ADAPTER no\n"
        "answer VNET_3_DHCP_PARAM_MAX_LEASE_TIME 7200\nanswer VNET_3_NAT_PARAM_UDP_TIMEOUT 60\n"
        "answer VNET_3_VIRTUAL_ADAPTER_ADDR 10.0.2.1\nanswer VNET_3_VIRTUAL_ADAPTER_NAME h2\n"
        "answer VNET_3_HOSTONLY_SUBNET 172.16.40.0\nanswer VNET_3_HOSTONLY_NETMASK 255.0.0.0\n");
    sys::FailFrom(sys::Op::kWrite, 1, ENOSPC);
    EXPECT_EQ(r.off(), r.result) << r.kept;
    sys::ClearFaults();
    EXPECT_NE(PLRGetVnetCfg(3, r.kept), nullptr) << r.kept;
    EXPECT_NE(PLRGetVnetCfg(3, "VIRTUAL_ADAPTER_NAME"), nullptr) << r.kept;
    PLR_Unload();
  }
}

TEST_F(VnetSettings, OptionsAndSubnetGiveBack) {
  Load(
      "answer VNET_1_DHCP yes\nanswer VNET_1_NAT YES\nanswer VNET_1_VIRTUAL_ADAPTER yes\n"
      "answer VNET_1_HOSTONLY_SUBNET 192.168.10.0\nanswer VNET_1_HOSTONLY_NETMASK 255.0.0.0\n"
      "answer VNET_2_DHCP no\nanswer VNET_2_VIRTUAL_ADAPTER no\nadd_bridge_mapping eth1 2\n"
      "add_bridge_mapping eth2 -1\n");
  for (uint32_t option = PLR_VNET_OPTION_BRIDGE; option <= PLR_VNET_OPTION_SUBNET + 1; ++option) {
    EXPECT_EQ(PLRVnetIsOptionConfigured(1, option),
              option != PLR_VNET_OPTION_BRIDGE && option <= PLR_VNET_OPTION_SUBNET)
        << option;
    EXPECT_EQ(PLRVnetIsOptionConfigured(2, option), option == PLR_VNET_OPTION_BRIDGE) << option;
  }
  // Bridged means the default bridge vnet (absent: 0) or an explicit mapping.
  EXPECT_TRUE(PLRVnetIsOptionConfigured(0, PLR_VNET_OPTION_BRIDGE));
  EXPECT_FALSE(PLRVnetIsOptionConfigured(3, PLR_VNET_OPTION_BRIDGE));
  ASSERT_TRUE(PLRSetDefaultBridgeVnet(3));
  EXPECT_TRUE(PLRVnetIsOptionConfigured(3, PLR_VNET_OPTION_BRIDGE));
  // A removed subnet can be handed out again; the mask goes after it.
  ASSERT_TRUE(PLRMarkSubnetUsed("192.168.10.0", true));
  const std::string before = Database();
  EXPECT_TRUE(PLRRemoveSubnetAssignment(1));
  EXPECT_EQ(Database(), before +
                            "remove_answer VNET_1_HOSTONLY_SUBNET\n"
                            "remove_answer VNET_1_HOSTONLY_NETMASK\n");
  const CandidateTable& table = AvailSubnetTable();
  for (uint32_t i = 0; i < table.count; ++i)
    EXPECT_TRUE(table.entries[i].subnet != 0xC0A80A00u || table.entries[i].taken == 0);
}

// A load caches 0 (also when absent) or -1 and refuses anything else; later
// answer changes do not move the cache, a set stores any value.
TEST_F(VnetSettings, DefaultBridgeVnetCache) {
  const std::pair<const char*, uint32_t> rows[] = {
      {"", 0},
      {"answer PLR_DEFAULT_BRIDGE_VNET -1\n", PLR_VNET_NONE},
      {"answer PLR_DEFAULT_BRIDGE_VNET 2\n", PLR_VNET_ALL}};
  for (const auto& [records, cached] : rows) {
    Load(records);
    uint32_t vnet = 55;
    EXPECT_EQ(PLRGetDefaultBridgeVnet(&vnet), cached != PLR_VNET_ALL) << records;
    EXPECT_EQ(vnet, cached != PLR_VNET_ALL ? cached : 55u) << records;
    ASSERT_TRUE(PLRNetCfgAddAnswerString(nullptr, "PLR_DEFAULT_BRIDGE_VNET", "0"));
    EXPECT_EQ(plrDefaultBridgeVnet, cached) << records;
    ASSERT_TRUE(PLRSetDefaultBridgeVnet(7));
    EXPECT_TRUE(PLRGetDefaultBridgeVnet(&vnet) && vnet == 7u) << records;
    PLR_Unload();
    ASSERT_TRUE(PLR_Load(false));
    EXPECT_FALSE(PLRGetDefaultBridgeVnet(nullptr)) << "the load refuses what the set stored";
    PLR_Unload();
  }
}

}  // namespace
}  // namespace plr::test
