// Per-vnet settings over the default database: key forming, the generic and
// named accessors, the use-DHCP/NAT/adapter switches and subnet give-back.
#include <gtest/gtest.h>
#include <string.h>

#include <optional>
#include <string>

#include "pelorus.h"
#include "tests/support/sandbox.h"
#include "tests/support/vnet_util.h"
#include "vnet/subnet.h"

namespace plr {
namespace {

using test::Answer;
using test::CountOf;

class VnetSettings : public test::LoadedLibraryTest {};

TEST_F(VnetSettings, KeysJoinSignedVnetNumberAndSettingName) {
  Load();
  ASSERT_TRUE(PLRSetVnetDisplayName(12, "Lab net"));
  ASSERT_TRUE(PLRSetVnetCfg(PLR_VNET_NONE, "MTU", "9000"));
  EXPECT_EQ(Answer("VNET_12_DISPLAY_NAME"), "Lab net");
  EXPECT_EQ(Answer("VNET_-1_MTU"), "9000");
  EXPECT_STREQ(PLRGetVnetCfg(PLR_VNET_NONE, "MTU"), "9000");
  // The value runs to the end of the record, blanks included.
  EXPECT_NE(Database().find("answer VNET_12_DISPLAY_NAME Lab net\n"), std::string::npos);
}

TEST_F(VnetSettings, KeyOf511CharactersWorksAndOneMoreIsRefusedEverywhere) {
  Load();
  const std::string prefix = "VNET_1_";
  const std::string fits(511 - prefix.size(), 'K');
  const std::string tooLong = fits + "K";
  ASSERT_TRUE(PLRSetVnetCfg(1, fits.c_str(), "v"));
  EXPECT_EQ(Answer(prefix + fits), "v");
  EXPECT_STREQ(PLRGetVnetCfg(1, fits.c_str()), "v");

  std::string before = Database();
  EXPECT_FALSE(PLRSetVnetCfg(1, tooLong.c_str(), "v"));
  EXPECT_FALSE(PLRSetVnetCfgBool(1, tooLong.c_str(), true));
  EXPECT_FALSE(PLRRemoveVnetCfg(1, tooLong.c_str()));
  EXPECT_EQ(PLRGetVnetCfg(1, tooLong.c_str()), nullptr);
  EXPECT_FALSE(PLRGetVnetCfgBool(1, tooLong.c_str()));
  char buf[8];
  size_t size = sizeof buf;
  EXPECT_FALSE(PLRGetVnetCfgCpy(1, tooLong.c_str(), buf, &size));
  EXPECT_EQ(Database(), before);
  EXPECT_EQ(Answer(prefix + tooLong), std::nullopt);
}

// --- Generic accessors ------------------------------------------------------

TEST_F(VnetSettings, CopyReportsNeededSizeAndFailsWhenTooSmallOrAbsent) {
  Load("answer VNET_4_DISPLAY_NAME fifteen-chars!!\n");
  char buf[32];
  memset(buf, 'x', sizeof buf);
  size_t size = 15;
  EXPECT_FALSE(PLRGetVnetCfgCpy(4, "DISPLAY_NAME", buf, &size));
  EXPECT_EQ(size, 16u);
  EXPECT_EQ(buf[0], 'x') << "a failed copy leaves the buffer alone";
  EXPECT_EQ(CountOf(Log(),
                    "PLRGetVnetCfgCpy - Insufficient space provided for host configuration "
                    "entry: \"DISPLAY_NAME\"."),
            1);

  size = 16;
  EXPECT_TRUE(PLRGetVnetCfgCpy(4, "DISPLAY_NAME", buf, &size));
  EXPECT_EQ(size, 16u);
  EXPECT_STREQ(buf, "fifteen-chars!!");

  // An absent setting leaves the size; at the default level absence is not logged.
  EXPECT_FALSE(PLRGetVnetCfgCpy(9, "MTU", buf, &size));
  EXPECT_EQ(size, 16u);
  EXPECT_EQ(CountOf(Log(), "Unable to find host configuration entry : \"MTU\" for Vnet: 9"), 1);
  PLR_SetCurrentLogLevel(PLR_LOG_DEFAULT_LEVEL);
  EXPECT_FALSE(PLRGetVnetCfgCpy(10, "MTU", buf, &size));
  EXPECT_EQ(CountOf(Log(), "for Vnet: 10"), 0);
}

TEST_F(VnetSettings, GetPointsIntoTheCacheAndBooleanIsTrueOnlyForYesInAnyCase) {
  Load(
      "answer VNET_1_DHCP YES\n"
      "answer VNET_2_DHCP yes\n"
      "answer VNET_3_DHCP true\n"
      "answer VNET_4_DHCP 1\n"
      "answer VNET_5_DHCP no\n"
      "answer VNET_6_NAT yEs\n"
      "answer VNET_2_MTU 1500\n");
  const char* mtu = PLRGetVnetCfg(2, "MTU");
  ASSERT_NE(mtu, nullptr);
  EXPECT_STREQ(mtu, "1500");
  const char* cached = nullptr;
  ASSERT_TRUE(PLRNetCfgGetAnswerString(nullptr, "VNET_2_MTU", &cached));
  EXPECT_EQ(mtu, cached);
  EXPECT_EQ(PLRGetVnetCfg(3, "MTU"), nullptr);
  EXPECT_EQ(PLRGetVnetCfg(2, nullptr), nullptr);
  for (uint32_t vnet = 1; vnet <= 7; ++vnet)  // 7: absent
    EXPECT_EQ(PLRGetVnetUseDHCP(vnet), vnet <= 2) << vnet;
  EXPECT_TRUE(PLRGetVnetUseNAT(6));
  EXPECT_FALSE(PLRGetVnetUseNAT(1));
  EXPECT_FALSE(PLRGetVnetCfgBool(1, nullptr));
}

TEST_F(VnetSettings, SettingUnchangedBooleanAppendsNothingAndRemoveNeedsAKey) {
  Load("answer VNET_1_NAT yes\nanswer VNET_1_MTU 1500\n");
  std::string before = Database();
  EXPECT_TRUE(PLRSetVnetCfgBool(1, "NAT", true));
  EXPECT_TRUE(PLRSetVnetCfgBool(2, "NAT", false)) << "absent counts as false";
  EXPECT_EQ(Database(), before);
  EXPECT_TRUE(PLRSetVnetCfgBool(1, "NAT", false));
  EXPECT_EQ(Database(), before + "remove_answer VNET_1_NAT\nanswer VNET_1_NAT no\n");
  // Removing needs a key.
  EXPECT_FALSE(PLRRemoveVnetCfg(1, nullptr));
  EXPECT_EQ(CountOf(Log(), "PLRRemoveVnetCfg - Invalid config option"), 1);
  EXPECT_TRUE(PLRRemoveVnetCfg(1, "MTU"));
  EXPECT_EQ(Answer("VNET_1_MTU"), std::nullopt);
  EXPECT_NE(Database().find("remove_answer VNET_1_MTU\n"), std::string::npos);
}

// --- Named accessors --------------------------------------------------------

struct NamedText {
  const char* key;
  bool (*set)(uint32_t, const char*);
  bool (*get)(uint32_t, char*, size_t);
  bool (*remove)(uint32_t);
};

// Also: the adapter name defaults to the vnet name.
TEST_F(VnetSettings, NamedTextSettingsUseTheirKeys) {
  Load("answer VNET_6_VIRTUAL_ADAPTER_NAME hostonly-long-name\n");
  const NamedText settings[] = {
      {"DISPLAY_NAME", PLRSetVnetDisplayName, PLRGetVnetDisplayName, nullptr},
      {"HOSTONLY_SUBNET", PLRSetVnetSubnetAddr, PLRGetVnetSubnetAddr, PLRRemoveVnetSubnetAddr},
      {"HOSTONLY_NETMASK", PLRSetVnetSubnetMask, PLRGetVnetSubnetMask, PLRRemoveVnetSubnetMask},
      {"MTU", PLRSetVnetMTU, PLRGetVnetMTU, PLRRemoveVnetMTU},
      {"VIRTUAL_ADAPTER_ADDR", PLRSetVnetVirtAdapterAddr, nullptr, PLRRemoveVnetVirtAdapterAddr},
      {"VIRTUAL_ADAPTER_NAME", PLRSetVnetVirtAdapter, PLRGetVnetVirtAdapter, nullptr},
  };
  for (const NamedText& s : settings) {
    SCOPED_TRACE(s.key);
    const std::string key = std::string("VNET_17_") + s.key;
    const std::string value = std::string("v-") + s.key;
    ASSERT_TRUE(s.set(17, value.c_str()));
    EXPECT_EQ(Answer(key), value);
    if (s.get != nullptr) {
      char buf[64];
      ASSERT_TRUE(s.get(17, buf, sizeof buf));
      EXPECT_EQ(std::string(buf), value);
      // The getters keep the needed size to themselves: a short buffer just fails.
      EXPECT_FALSE(s.get(17, buf, value.size()));
    }
    if (s.remove != nullptr) {
      EXPECT_TRUE(s.remove(17));
      EXPECT_EQ(Answer(key), std::nullopt);
    }
  }
  char buf[16];
  EXPECT_TRUE(PLRGetVnetVirtAdapter(5, buf, sizeof buf));
  EXPECT_STREQ(buf, "kavix5");
  EXPECT_EQ(Answer("VNET_5_VIRTUAL_ADAPTER_NAME"), std::nullopt) << "the default is not stored";
  // The default is cut to the buffer, but still succeeds.
  EXPECT_TRUE(PLRGetVnetVirtAdapter(123, buf, 6));
  EXPECT_STREQ(buf, "kavix");
  // A stored name longer than the buffer fails.
  EXPECT_FALSE(PLRGetVnetVirtAdapter(6, buf, sizeof buf));
  char big[32];
  EXPECT_TRUE(PLRGetVnetVirtAdapter(6, big, sizeof big));
  EXPECT_STREQ(big, "hostonly-long-name");
}

// --- Use switches -----------------------------------------------------------

TEST_F(VnetSettings, UseSwitchesStoreYesNoAndLogTheChange) {
  Load();
  EXPECT_TRUE(PLRSetVnetUseDHCP(3, true, false));
  EXPECT_TRUE(PLRSetVnetUseNAT(3, true, false));
  EXPECT_TRUE(PLRSetVnetUseAdapter(3, true, false));
  EXPECT_EQ(Answer("VNET_3_DHCP"), "yes");
  EXPECT_EQ(Answer("VNET_3_NAT"), "yes");
  EXPECT_EQ(Answer("VNET_3_VIRTUAL_ADAPTER"), "yes");
  EXPECT_TRUE(PLRSetVnetUseNAT(3, false, false));
  EXPECT_EQ(Answer("VNET_3_NAT"), "no");
  std::string log = Log();
  EXPECT_EQ(CountOf(log, "PLRSetVnetUseDHCP - DHCP set to 1 in vnet config for vnet: 3"), 1);
  EXPECT_EQ(CountOf(log, "PLRSetVnetUseNAT - NAT set to 1 in vnet config for vnet: 3"), 1);
  EXPECT_EQ(CountOf(log, "PLRSetVnetUseNAT - NAT set to 0 in vnet config for vnet: 3"), 1);
  EXPECT_EQ(CountOf(log, "VIRTUAL_ADAPTER set to 1 in vnet config for vnet: 3"), 1);
}

// Each switch turned off with removeConfig drops its own settings and records
// and leaves the other switches' ones; without removeConfig all of them stay.
TEST_F(VnetSettings, SwitchesOffDropTheirOwnSettingsOnlyWithRemoveConfig) {
  Load(
      "answer VNET_3_DHCP yes\n"
      "answer VNET_3_DHCP_PARAM_LEASE_START_IP 192.168.3.128\n"
      "answer VNET_3_DHCP_CFG_HASH 0123456789abcdef0123456789abcdef01234567\n"
      "answer VNET_3_NAT_PARAM_DEVICE /dev/kavix3\n"
      "add_dhcp_mac_to_ip 3 00:50:56:00:00:01 192.168.3.10\n"
      "answer VNET_8_NAT yes\n"
      "answer VNET_8_NAT_PARAM_DEVICE /dev/kavix8\n"
      "answer VNET_8_DHCP_PARAM_MAX_LEASE_TIME 7200\n"
      "add_nat_portfwd 8 tcp 8080 192.168.8.10 80 web\n"
      "answer VNET_2_VIRTUAL_ADAPTER yes\n"
      "answer VNET_2_VIRTUAL_ADAPTER_ADDR 10.0.2.1\n"
      "answer VNET_2_VIRTUAL_ADAPTER_NAME hostnet2\n"
      "answer VNET_2_HOSTONLY_SUBNET 10.0.2.0\n"
      "answer VNET_4_DHCP_PARAM_MAX_LEASE_TIME 7200\n"
      "answer VNET_4_NAT_PARAM_UDP_TIMEOUT 60\n"
      "answer VNET_4_VIRTUAL_ADAPTER_ADDR 10.0.4.1\n");
  EXPECT_TRUE(PLRSetVnetUseDHCP(3, false, true));
  EXPECT_TRUE(PLRSetVnetUseNAT(8, false, true));
  EXPECT_TRUE(PLRSetVnetUseAdapter(2, false, true));
  EXPECT_TRUE(PLRSetVnetUseAdapter(2, false, true)) << "nothing left to remove is success";
  EXPECT_TRUE(PLRSetVnetUseDHCP(4, false, false));
  EXPECT_TRUE(PLRSetVnetUseNAT(4, false, false));
  EXPECT_TRUE(PLRSetVnetUseAdapter(4, false, false));
  for (const char* gone :
       {"VNET_3_DHCP_PARAM_LEASE_START_IP", "VNET_3_DHCP_CFG_HASH", "VNET_8_NAT_PARAM_DEVICE",
        "VNET_2_VIRTUAL_ADAPTER_ADDR", "VNET_2_VIRTUAL_ADAPTER_NAME"})
    EXPECT_EQ(Answer(gone), std::nullopt) << gone;
  for (const char* kept : {"VNET_3_NAT_PARAM_DEVICE", "VNET_8_DHCP_PARAM_MAX_LEASE_TIME",
                           "VNET_2_HOSTONLY_SUBNET", "VNET_4_DHCP_PARAM_MAX_LEASE_TIME",
                           "VNET_4_NAT_PARAM_UDP_TIMEOUT", "VNET_4_VIRTUAL_ADAPTER_ADDR"})
    EXPECT_NE(Answer(kept), std::nullopt) << kept;
  EXPECT_EQ(Answer("VNET_3_DHCP"), "no");
  EXPECT_EQ(Answer("VNET_8_NAT"), "no");
  EXPECT_EQ(Answer("VNET_2_VIRTUAL_ADAPTER"), "no");
  char ip[16];
  EXPECT_FALSE(PLRNetCfgLookupDHCPMACToIP(nullptr, 3, "00:50:56:00:00:01", ip, sizeof ip));
  uint16_t vmPort = 0;
  EXPECT_FALSE(
      PLRNetCfgLookupNATPortFwd(nullptr, 8, true, 8080, ip, sizeof ip, &vmPort, nullptr, nullptr));
}

// --- Options ----------------------------------------------------------------

TEST_F(VnetSettings, OptionsReflectTheSettings) {
  Load(
      "answer VNET_1_DHCP yes\n"
      "answer VNET_1_NAT YES\n"
      "answer VNET_1_VIRTUAL_ADAPTER yes\n"
      "answer VNET_1_HOSTONLY_SUBNET 192.168.50.0\n"
      "answer VNET_2_DHCP no\n"
      "answer VNET_2_VIRTUAL_ADAPTER no\n"
      "add_bridge_mapping eth1 2\nadd_bridge_mapping eth2 -1\n");
  EXPECT_TRUE(PLRVnetIsOptionConfigured(1, PLR_VNET_OPTION_DHCP));
  EXPECT_TRUE(PLRVnetIsOptionConfigured(1, PLR_VNET_OPTION_NAT));
  EXPECT_TRUE(PLRVnetIsOptionConfigured(1, PLR_VNET_OPTION_VIRTUAL_ADAPTER));
  EXPECT_TRUE(PLRVnetIsOptionConfigured(1, PLR_VNET_OPTION_SUBNET));
  for (uint32_t option = 2; option <= 5; ++option)
    EXPECT_FALSE(PLRVnetIsOptionConfigured(2, option)) << option;
  EXPECT_FALSE(PLRVnetIsOptionConfigured(1, 0));
  EXPECT_FALSE(PLRVnetIsOptionConfigured(1, 6));
  // Bridged means the default bridge vnet or an explicit mapping.
  EXPECT_TRUE(PLRVnetIsOptionConfigured(0, PLR_VNET_OPTION_BRIDGE)) << "absent default is 0";
  EXPECT_TRUE(PLRVnetIsOptionConfigured(2, PLR_VNET_OPTION_BRIDGE));
  EXPECT_FALSE(PLRVnetIsOptionConfigured(3, PLR_VNET_OPTION_BRIDGE));
  ASSERT_TRUE(PLRSetDefaultBridgeVnet(3));
  EXPECT_TRUE(PLRVnetIsOptionConfigured(3, PLR_VNET_OPTION_BRIDGE));
}

TEST_F(VnetSettings, BridgedFailsWhenDefaultBridgeCannotBeRead) {
  Load("answer PLR_DEFAULT_BRIDGE_VNET 2\nadd_bridge_mapping eth1 2\n");
  EXPECT_FALSE(PLRVnetIsOptionConfigured(2, PLR_VNET_OPTION_BRIDGE));
  std::string log = Log();
  EXPECT_EQ(CountOf(log, "PLRVnetIsOptionConfigured - Failed to get the value of default bridge"),
            1);
  EXPECT_EQ(CountOf(log, "PLRVnetIsOptionConfigured - Cannot get bridge mappings for vnet: 2"), 1);
}

// --- Giving a subnet back ---------------------------------------------------

TEST_F(VnetSettings, RemovingSubnetMakesItACandidateAgain) {
  Load("answer VNET_7_HOSTONLY_SUBNET 192.168.9.0\nanswer VNET_7_HOSTONLY_NETMASK 255.255.255.0\n");
  ASSERT_TRUE(PLRPopulateAvailSubnets());
  CandidateTable& table = AvailSubnetTable();
  auto taken = [&table](uint32_t subnet) {
    for (uint32_t i = 0; i < table.count; ++i)
      if (table.entries[i].subnet == subnet) return table.entries[i].taken != 0;
    ADD_FAILURE() << "not a candidate";
    return false;
  };
  // Configured when the table was filled, 192.168.9.0 is no candidate at all.
  uint32_t configured = 0;
  ASSERT_TRUE(PLRIPStr2Int("192.168.9.0", &configured));
  EXPECT_EQ(table.count, 509u);
  for (uint32_t i = 0; i < table.count; ++i) EXPECT_NE(table.entries[i].subnet, configured);

  ASSERT_TRUE(PLRMarkSubnetUsed("192.168.10.0", true));
  uint32_t other = 0;
  ASSERT_TRUE(PLRIPStr2Int("192.168.10.0", &other));
  EXPECT_TRUE(taken(other));

  ASSERT_TRUE(PLRSetVnetSubnetAddr(9, "192.168.10.0"));
  EXPECT_TRUE(PLRRemoveVnetSubnetAddr(9));
  EXPECT_FALSE(taken(other));
  EXPECT_EQ(CountOf(Log(), "PLRRemoveVnetSubnetAddr - Marking subnet: 192.168.10.0 as unused"), 1);
  EXPECT_EQ(Answer("VNET_9_HOSTONLY_SUBNET"), std::nullopt);
}

TEST_F(VnetSettings, RemovingAssignmentDropsSubnetThenMask) {
  Load(
      "answer VNET_5_HOSTONLY_SUBNET 172.16.40.0\n"
      "answer VNET_5_HOSTONLY_NETMASK 255.255.255.0\n"
      "answer VNET_6_HOSTONLY_NETMASK 255.255.0.0\n");
  // No subnet: the candidates are not touched and nothing is written.
  std::string before = Database();
  EXPECT_TRUE(PLRRemoveVnetSubnetAddr(4));
  EXPECT_FALSE(AvailSubnetTable().filled);
  EXPECT_EQ(CountOf(Log(), "Marking subnet"), 0);
  EXPECT_EQ(Database(), before);
  EXPECT_TRUE(PLRRemoveSubnetAssignment(5));
  EXPECT_EQ(Answer("VNET_5_HOSTONLY_SUBNET"), std::nullopt);
  EXPECT_EQ(Answer("VNET_5_HOSTONLY_NETMASK"), std::nullopt);
  std::string db = Database();
  size_t subnetAt = db.find("remove_answer VNET_5_HOSTONLY_SUBNET\n");
  size_t maskAt = db.find("remove_answer VNET_5_HOSTONLY_NETMASK\n");
  ASSERT_NE(subnetAt, std::string::npos) << db;
  ASSERT_NE(maskAt, std::string::npos) << db;
  EXPECT_LT(subnetAt, maskAt);
  // A mask without a subnet goes as well.
  EXPECT_TRUE(PLRRemoveSubnetAssignment(6));
  EXPECT_EQ(Answer("VNET_6_HOSTONLY_NETMASK"), std::nullopt);
}

}  // namespace
}  // namespace plr
