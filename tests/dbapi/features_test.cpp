// The vnet feature queries against configured vnets and fixture daemons.
#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>

#include <string>

#include "base/sys-util.h"
#include "pelorus.h"
#include "tests/support/sandbox.h"
#include "tests/support/vnet_util.h"

namespace plr {
namespace {

// A record asking about (or searching from) `vnet`, with every criterion 0
// and the reserved bytes filled with a marker.
PLR_VnetFeatures Record(uint32_t vnet) {
  PLR_VnetFeatures ft;
  memset(&ft, 0xAA, sizeof ft);
  ft.version = 1;
  ft.netId = PLR_NetworkID{1, 1, vnet};
  ft.subnet = 0;
  memset(ft.configFeatures, 0, 4);
  memset(ft.runtimeFeatures, 0, 4);
  return ft;
}

// vnet 3: NAT and subnet; vnet 8: NAT, DHCP, subnet, virtual adapter;
// vnet 5: bridged through eth5.
constexpr const char* kVnets =
    "answer VNET_3_NAT yes\nanswer VNET_3_HOSTONLY_SUBNET 192.168.3.0\n"
    "answer VNET_8_NAT yes\nanswer VNET_8_DHCP yes\nanswer VNET_8_VIRTUAL_ADAPTER yes\n"
    "answer VNET_8_HOSTONLY_SUBNET 192.168.8.0\n"
    "add_bridge_mapping eth5 5\nanswer PLR_DEFAULT_BRIDGE_VNET -1\n";

class Features : public test::LoadedLibraryTest {
 protected:
  void TearDown() override {
    sys::ClearFaults();
    for (uint32_t service = 1; service <= 4; ++service) PLRServiceStop(8, service);
    LoadedLibraryTest::TearDown();
  }
};

TEST_F(Features, DescribesConfiguredAndRunningFeatures) {
  Load(kVnets);
  ASSERT_TRUE(PLRServiceStart(8, PLR_SERVICE_NAT));
  ASSERT_EQ(test::Run("ip tuntap add dev kavix8 mode tap && ip link set kavix8 up"), 0);
  PLR_VnetFeatures ft = Record(8);
  ASSERT_TRUE(PLR_GetVnetFeatures(&ft));
  EXPECT_EQ(ft.subnet, 1);
  const uint8_t config[32] = {1, 1, 0, 1};
  const uint8_t runtime[32] = {0, 1, 0, 1};
  EXPECT_EQ(memcmp(ft.configFeatures, config, 32), 0) << "reserved bytes are cleared";
  EXPECT_EQ(memcmp(ft.runtimeFeatures, runtime, 32), 0);

  ft = Record(5);
  ASSERT_TRUE(PLR_GetVnetFeatures(&ft));
  EXPECT_EQ(ft.subnet, 0);
  EXPECT_EQ(ft.configFeatures[PLR_FEATURE_CFG_BRIDGE], 1);
  EXPECT_EQ(ft.configFeatures[PLR_FEATURE_CFG_NAT], 0);
}

TEST_F(Features, RecordChecks) {
  Load();
  PLR_VnetFeatures ft = Record(1);
  ft.version = 2;
  EXPECT_FALSE(PLR_GetVnetFeatures(&ft));
  EXPECT_FALSE(PLR_FindVnetWithFeatures(&ft));
  EXPECT_NE(test::LogText().find("Unsupported feature struct version: 2"), std::string::npos);
  ft = Record(1);
  ft.netId.netType = 2;
  EXPECT_FALSE(PLR_GetVnetFeatures(&ft));
  EXPECT_FALSE(PLR_FindVnetWithFeatures(&ft));
  EXPECT_NE(test::LogText().find("Query unsupported for non-vnets"), std::string::npos);
  ft = Record(256);
  EXPECT_FALSE(PLR_GetVnetFeatures(&ft));
  EXPECT_FALSE(PLR_FindVnetWithFeatures(&ft));
  EXPECT_NE(test::LogText().find("Invalid vnet number: 256"), std::string::npos);
  EXPECT_NE(test::LogText().find("Invalid index of starting vnet: 256"), std::string::npos);
  EXPECT_NE(test::LogText().find("Failed to return vnet features"), std::string::npos);
  EXPECT_FALSE(PLR_GetVnetFeatures(nullptr));
  EXPECT_FALSE(PLR_FindVnetWithFeatures(nullptr));
}

TEST_F(Features, AllZeroCriteriaMatchStartingVnet) {
  Load(kVnets);
  PLR_VnetFeatures ft = Record(5);
  ft.netId.version = 9;
  ASSERT_TRUE(PLR_FindVnetWithFeatures(&ft));
  EXPECT_EQ(ft.netId.vnet, 5u);
  EXPECT_EQ(ft.netId.version, 1u);
  EXPECT_EQ(ft.configFeatures[PLR_FEATURE_CFG_BRIDGE], 1);
  EXPECT_EQ(ft.configFeatures[4], 0xAA) << "reserved bytes are not touched";
  EXPECT_EQ(ft.runtimeFeatures[31], 0xAA);
}

TEST_F(Features, SearchWalksUpwardsAndRewritesCriteria) {
  Load(kVnets);
  PLR_VnetFeatures ft = Record(0);
  ft.configFeatures[PLR_FEATURE_CFG_NAT] = PLR_FEATURE_PRESENT;
  ASSERT_TRUE(PLR_FindVnetWithFeatures(&ft));
  EXPECT_EQ(ft.netId.vnet, 3u);
  // The next search starts after the match with the criteria written again.
  PLR_VnetFeatures next = Record(ft.netId.vnet + 1);
  next.configFeatures[PLR_FEATURE_CFG_NAT] = PLR_FEATURE_PRESENT;
  next.configFeatures[PLR_FEATURE_CFG_DHCP] = PLR_FEATURE_PRESENT;
  ASSERT_TRUE(PLR_FindVnetWithFeatures(&next));
  EXPECT_EQ(next.netId.vnet, 8u);
  // Absence as a criterion, and a value outside 0..2 that matches nothing.
  PLR_VnetFeatures absent = Record(3);
  absent.subnet = PLR_FEATURE_ABSENT;
  ASSERT_TRUE(PLR_FindVnetWithFeatures(&absent));
  EXPECT_EQ(absent.netId.vnet, 4u);
  PLR_VnetFeatures bogus = Record(0);
  bogus.runtimeFeatures[PLR_FEATURE_RT_NAT] = 3;
  const PLR_VnetFeatures before = bogus;
  EXPECT_FALSE(PLR_FindVnetWithFeatures(&bogus));
  EXPECT_EQ(memcmp(&bogus, &before, sizeof bogus), 0) << "unchanged when nothing matches";
  EXPECT_NE(test::LogText().find("Could not find any matching vnet"), std::string::npos);
}

TEST_F(Features, SearchFromLastVnetLooksAtItOnly) {
  Load(kVnets);
  PLR_VnetFeatures ft = Record(255);
  ft.configFeatures[PLR_FEATURE_CFG_NAT] = PLR_FEATURE_PRESENT;
  EXPECT_FALSE(PLR_FindVnetWithFeatures(&ft));
  const std::string log = test::LogText();
  EXPECT_NE(log.find("Looking at vnet: 255 to see if it matches"), std::string::npos);
  EXPECT_EQ(log.find("Looking at vnet: 254 to see if it matches"), std::string::npos);
  EXPECT_NE(log.find("NAT config-time feature does not match"), std::string::npos);
}

TEST_F(Features, UnreadableAdapterStatusEndsSearchAtOnce) {
  Load(kVnets);
  PLR_VnetFeatures ft = Record(0);
  ft.configFeatures[PLR_FEATURE_CFG_NAT] = PLR_FEATURE_PRESENT;
  sys::FailFrom(sys::Op::kFopen, 1, EMFILE);  // /proc/net/dev cannot be read
  EXPECT_FALSE(PLR_FindVnetWithFeatures(&ft));
  sys::ClearFaults();
  const std::string log = test::LogText();
  EXPECT_NE(log.find("Error getting status for virtual adapter: kavix3"), std::string::npos);
  EXPECT_EQ(log.find("Looking at vnet: 4 to see if it matches"), std::string::npos);
}

}  // namespace
}  // namespace plr
