// Per-vnet settings over the default database: key forming, the generic and
// named accessors, the use-DHCP/NAT/adapter switches, the options and
// subnet give-back.
#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>

#include <optional>
#include <string>

#include "base/sys-util.h"
#include "pelorus.h"
#include "tests/support/vnet_util.h"
#include "vnet/subnet.h"

namespace plr::test {
namespace {

class VnetSettings : public LoadedLibraryTest {
 protected:
  void TearDown() override {
    sys::ClearFaults();
    LoadedLibraryTest::TearDown();
  }
};

TEST_F(VnetSettings, KeysJoinSignedVnetNumberAndNameUpTo511Characters) {
  Load();
  ASSERT_TRUE(PLRSetVnetDisplayName(12, "Lab net"));
  ASSERT_TRUE(PLRSetVnetCfg(PLR_VNET_NONE, "MTU", "9000"));
  EXPECT_EQ(Answer("VNET_12_DISPLAY_NAME"), "Lab net");
  EXPECT_EQ(Answer("VNET_-1_MTU"), "9000");
  EXPECT_NE(Database().find("answer VNET_12_DISPLAY_NAME Lab net\n"), std::string::npos);

  const std::string fits(511 - strlen("VNET_1_"), 'K'), tooLong = fits + "K";
  ASSERT_TRUE(PLRSetVnetCfg(1, fits.c_str(), "v"));
  EXPECT_STREQ(PLRGetVnetCfg(1, fits.c_str()), "v");
  const std::string before = Database();
  char buf[8];
  size_t size = sizeof buf;
  EXPECT_FALSE(PLRSetVnetCfg(1, tooLong.c_str(), "v"));
  EXPECT_FALSE(PLRSetVnetCfgBool(1, tooLong.c_str(), true));
  EXPECT_FALSE(PLRRemoveVnetCfg(1, tooLong.c_str()));
  EXPECT_EQ(PLRGetVnetCfg(1, tooLong.c_str()), nullptr);
  EXPECT_FALSE(PLRGetVnetCfgCpy(1, tooLong.c_str(), buf, &size));
  EXPECT_EQ(Database(), before);
}

TEST_F(VnetSettings, CopyReportsNeededSizeAndGetPointsIntoTheCache) {
  Load("answer VNET_4_DISPLAY_NAME fifteen-chars!!\nanswer VNET_2_MTU 1500\n");
  char buf[32];
  memset(buf, 'x', sizeof buf);
  size_t size = 15;
  EXPECT_FALSE(PLRGetVnetCfgCpy(4, "DISPLAY_NAME", buf, &size));
  EXPECT_EQ(size, 16u);
  EXPECT_EQ(buf[0], 'x') << "a failed copy leaves the buffer alone";
  EXPECT_TRUE(PLRGetVnetCfgCpy(4, "DISPLAY_NAME", buf, &size));
  EXPECT_STREQ(buf, "fifteen-chars!!");
  EXPECT_FALSE(PLRGetVnetCfgCpy(9, "MTU", buf, &size));
  EXPECT_EQ(size, 16u) << "an absent setting leaves the size";

  const char* cached = nullptr;
  ASSERT_TRUE(PLRNetCfgGetAnswerString(nullptr, "VNET_2_MTU", &cached));
  EXPECT_EQ(PLRGetVnetCfg(2, "MTU"), cached);
  EXPECT_EQ(PLRGetVnetCfg(3, "MTU"), nullptr);
  EXPECT_EQ(PLRGetVnetCfg(2, nullptr), nullptr);
}

TEST_F(VnetSettings, BooleansAreTrueOnlyForYesInAnyCase) {
  Load(
      "answer VNET_1_DHCP YES\nanswer VNET_2_DHCP yes\nanswer VNET_3_DHCP true\n"
      "answer VNET_4_DHCP 1\nanswer VNET_5_DHCP no\nanswer VNET_6_NAT yEs\n");
  for (uint32_t vnet = 1; vnet <= 7; ++vnet)  // 7: absent
    EXPECT_EQ(PLRGetVnetUseDHCP(vnet), vnet <= 2) << vnet;
  EXPECT_TRUE(PLRGetVnetUseNAT(6));
  EXPECT_FALSE(PLRGetVnetUseNAT(1));
  EXPECT_FALSE(PLRGetVnetCfgBool(1, nullptr));

  // Setting the value a boolean already has appends nothing; absent counts as false.
  const std::string before = Database();
  EXPECT_TRUE(PLRSetVnetCfgBool(1, "DHCP", true));
  EXPECT_TRUE(PLRSetVnetCfgBool(8, "NAT", false));
  EXPECT_EQ(Database(), before);
  EXPECT_TRUE(PLRSetVnetCfgBool(1, "DHCP", false));
  EXPECT_EQ(Database(), before + "remove_answer VNET_1_DHCP\nanswer VNET_1_DHCP no\n");
  EXPECT_FALSE(PLRRemoveVnetCfg(1, nullptr));
  EXPECT_TRUE(PLRRemoveVnetCfg(2, "DHCP"));
  EXPECT_EQ(Answer("VNET_2_DHCP"), std::nullopt);
}

TEST_F(VnetSettings, NamedTextSettingsUseTheirKeys) {
  Load("answer VNET_6_VIRTUAL_ADAPTER_NAME hostonly-long-name\n");
  const struct {
    const char* key;
    bool (*set)(uint32_t, const char*);
    bool (*get)(uint32_t, char*, size_t);
    bool (*remove)(uint32_t);
  } rows[] = {
      {"DISPLAY_NAME", PLRSetVnetDisplayName, PLRGetVnetDisplayName, nullptr},
      {"HOSTONLY_SUBNET", PLRSetVnetSubnetAddr, PLRGetVnetSubnetAddr, PLRRemoveVnetSubnetAddr},
      {"HOSTONLY_NETMASK", PLRSetVnetSubnetMask, PLRGetVnetSubnetMask, PLRRemoveVnetSubnetMask},
      {"MTU", PLRSetVnetMTU, PLRGetVnetMTU, PLRRemoveVnetMTU},
      {"VIRTUAL_ADAPTER_ADDR", PLRSetVnetVirtAdapterAddr, nullptr, PLRRemoveVnetVirtAdapterAddr},
      {"VIRTUAL_ADAPTER_NAME", PLRSetVnetVirtAdapter, PLRGetVnetVirtAdapter, nullptr},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.key);
    const std::string key = std::string("VNET_17_") + r.key, value = std::string("v-") + r.key;
    ASSERT_TRUE(r.set(17, value.c_str()));
    EXPECT_EQ(Answer(key), value);
    if (r.get != nullptr) {
      char buf[64];
      ASSERT_TRUE(r.get(17, buf, sizeof buf));
      EXPECT_EQ(std::string(buf), value);
      EXPECT_FALSE(r.get(17, buf, value.size())) << "no room for the terminator";
    }
    if (r.remove != nullptr) {
      EXPECT_TRUE(r.remove(17));
      EXPECT_EQ(Answer(key), std::nullopt);
    }
  }
  // The adapter name defaults to the vnet name, cut to the buffer, and is not stored.
  char buf[16];
  EXPECT_TRUE(PLRGetVnetVirtAdapter(5, buf, sizeof buf));
  EXPECT_STREQ(buf, "kavix5");
  EXPECT_EQ(Answer("VNET_5_VIRTUAL_ADAPTER_NAME"), std::nullopt);
  EXPECT_TRUE(PLRGetVnetVirtAdapter(123, buf, 6));
  EXPECT_STREQ(buf, "kavix");
  EXPECT_FALSE(PLRGetVnetVirtAdapter(6, buf, sizeof buf)) << "a stored name must fit";
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
  for (const char* key : {"VNET_3_DHCP", "VNET_8_NAT", "VNET_2_VIRTUAL_ADAPTER"})
    EXPECT_EQ(Answer(key), "no") << key;
  EXPECT_TRUE(PLRSetVnetUseDHCP(5, true, false));
  EXPECT_EQ(Answer("VNET_5_DHCP"), "yes");
  char ip[16];
  EXPECT_FALSE(PLRNetCfgLookupDHCPMACToIP(nullptr, 3, "00:50:56:00:00:01", ip, sizeof ip));
  uint16_t vmPort = 0;
  EXPECT_FALSE(
      PLRNetCfgLookupNATPortFwd(nullptr, 8, true, 8080, ip, sizeof ip, &vmPort, nullptr, nullptr));
}

// The switch is already off, so only the removals meet a full disk: which of
// them fail the call, and what is left.
TEST_F(VnetSettings, FailedRemovalsOnAFullDisk) {
  const struct {
    const char* name;
    bool (*off)(uint32_t);
    int failingWrite;  // 0: every write fails
    bool result;
    const char* kept;
    const char* gone;
  } rows[] = {
      {"dhcp", [](uint32_t v) { return PLRSetVnetUseDHCP(v, false, true); }, 0, false,
       "VNET_3_DHCP_PARAM_MAX_LEASE_TIME", nullptr},
      {"nat", [](uint32_t v) { return PLRSetVnetUseNAT(v, false, true); }, 0, true,
       "VNET_3_NAT_PARAM_UDP_TIMEOUT", nullptr},
      {"adapter", [](uint32_t v) { return PLRSetVnetUseAdapter(v, false, true); }, 0, false,
       "VNET_3_VIRTUAL_ADAPTER_ADDR", nullptr},
      {"adapter name", [](uint32_t v) { return PLRSetVnetUseAdapter(v, false, true); }, 2, false,
       "VNET_3_VIRTUAL_ADAPTER_NAME", "VNET_3_VIRTUAL_ADAPTER_ADDR"},
      {"subnet", PLRRemoveSubnetAssignment, 0, false, "VNET_3_HOSTONLY_NETMASK", nullptr},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.name);
    Load(
        "answer VNET_3_DHCP no\nanswer VNET_3_NAT no\nanswer VNET_3_VIRTUAL_ADAPTER no\n"
        "answer VNET_3_DHCP_PARAM_MAX_LEASE_TIME 7200\nanswer VNET_3_NAT_PARAM_UDP_TIMEOUT 60\n"
        "answer VNET_3_VIRTUAL_ADAPTER_ADDR 10.0.2.1\nanswer VNET_3_VIRTUAL_ADAPTER_NAME h2\n"
        "answer VNET_3_HOSTONLY_SUBNET 172.16.40.0\nanswer VNET_3_HOSTONLY_NETMASK 255.0.0.0\n");
    if (r.failingWrite == 0) sys::FailFrom(sys::Op::kWrite, 1, ENOSPC);
    if (r.failingWrite != 0) sys::FailNth(sys::Op::kWrite, r.failingWrite, ENOSPC);
    EXPECT_EQ(r.off(3), r.result);
    sys::ClearFaults();
    EXPECT_NE(Answer(r.kept), std::nullopt);
    if (r.gone != nullptr) {
      EXPECT_EQ(Answer(r.gone), std::nullopt);
    }
    PLR_Unload();
  }
}

TEST_F(VnetSettings, OptionsReflectTheSettings) {
  Load(
      "answer VNET_1_DHCP yes\nanswer VNET_1_NAT YES\nanswer VNET_1_VIRTUAL_ADAPTER yes\n"
      "answer VNET_1_HOSTONLY_SUBNET 192.168.50.0\n"
      "answer VNET_2_DHCP no\nanswer VNET_2_VIRTUAL_ADAPTER no\n"
      "add_bridge_mapping eth1 2\nadd_bridge_mapping eth2 -1\n");
  for (uint32_t option = PLR_VNET_OPTION_BRIDGE; option <= PLR_VNET_OPTION_SUBNET; ++option) {
    EXPECT_EQ(PLRVnetIsOptionConfigured(1, option), option != PLR_VNET_OPTION_BRIDGE) << option;
    EXPECT_EQ(PLRVnetIsOptionConfigured(2, option), option == PLR_VNET_OPTION_BRIDGE) << option;
  }
  EXPECT_FALSE(PLRVnetIsOptionConfigured(1, 0));
  EXPECT_FALSE(PLRVnetIsOptionConfigured(1, PLR_VNET_OPTION_SUBNET + 1));
  // Bridged means the default bridge vnet (absent: 0) or an explicit mapping.
  EXPECT_TRUE(PLRVnetIsOptionConfigured(0, PLR_VNET_OPTION_BRIDGE));
  EXPECT_FALSE(PLRVnetIsOptionConfigured(3, PLR_VNET_OPTION_BRIDGE));
  ASSERT_TRUE(PLRSetDefaultBridgeVnet(3));
  EXPECT_TRUE(PLRVnetIsOptionConfigured(3, PLR_VNET_OPTION_BRIDGE));
  PLR_Unload();
  Load("answer PLR_DEFAULT_BRIDGE_VNET 2\nadd_bridge_mapping eth1 2\n");
  EXPECT_FALSE(PLRVnetIsOptionConfigured(2, PLR_VNET_OPTION_BRIDGE)) << "unreadable default";
}

TEST_F(VnetSettings, RemovingSubnetGivesItBackAndDropsTheMaskAfterIt) {
  Load(
      "answer VNET_5_HOSTONLY_SUBNET 172.16.40.0\nanswer VNET_5_HOSTONLY_NETMASK 255.255.255.0\n"
      "answer VNET_6_HOSTONLY_NETMASK 255.255.0.0\n");
  const std::string before = Database();
  EXPECT_TRUE(PLRRemoveVnetSubnetAddr(4));
  EXPECT_FALSE(AvailSubnetTable().filled) << "no subnet: the candidates are not touched";
  EXPECT_EQ(Database(), before);

  ASSERT_TRUE(PLRPopulateAvailSubnets());
  ASSERT_TRUE(PLRMarkSubnetUsed("192.168.10.0", true));
  ASSERT_TRUE(PLRSetVnetSubnetAddr(9, "192.168.10.0"));
  EXPECT_TRUE(PLRRemoveVnetSubnetAddr(9));
  const CandidateTable& table = AvailSubnetTable();
  for (uint32_t i = 0; i < table.count; ++i)
    EXPECT_TRUE(table.entries[i].subnet != 0xC0A80A00u || table.entries[i].taken == 0);
  EXPECT_EQ(Answer("VNET_9_HOSTONLY_SUBNET"), std::nullopt);

  EXPECT_TRUE(PLRRemoveSubnetAssignment(5));
  EXPECT_TRUE(PLRRemoveSubnetAssignment(6));
  const std::string db = Database();
  const size_t subnetAt = db.find("remove_answer VNET_5_HOSTONLY_SUBNET\n");
  ASSERT_NE(subnetAt, std::string::npos) << db;
  EXPECT_GT(db.find("remove_answer VNET_5_HOSTONLY_NETMASK\n"), subnetAt) << db;
  EXPECT_EQ(Answer("VNET_6_HOSTONLY_NETMASK"), std::nullopt);
}

}  // namespace
}  // namespace plr::test
