// Vnet names and numbers, and the cached default bridge vnet.
#include <gtest/gtest.h>
#include <string.h>

#include <string>

#include "pelorus.h"
#include "tests/support/sandbox.h"
#include "tests/support/vnet_util.h"

namespace plr {
namespace {

using test::CountOf;

TEST(VnetNames, NameToNumberAcceptsPrefixInAnyCaseAndDecimal0To255) {
  const struct {
    const char* name;
    uint32_t vnet;
  } good[] = {{"kavix0", 0},
              {"KAVIX1", 1},
              {"KaViX42", 42},
              {"kavix007", 7},
              {"kavix255", 255},
              // Leading zeros never push the value past 255, so any number of them reads.
              {"kavix00000000000000000000000000000001", 1}};
  for (const auto& c : good) EXPECT_EQ(PLRConvVnetNameToNum(c.name), c.vnet) << c.name;
  const char* bad[] = {"kavix256", "kavix",     "kavix1a",
                       "kavix 1",  "kavix-1",   "kavix+1",
                       "kavix1 ",  "kavix2550", "kavix99999999999999999999",
                       "kavi",     "",          "xkavix1",
                       "kavix0x1", "vmnet1",    " kavix1"};
  for (const char* name : bad) EXPECT_EQ(PLRConvVnetNameToNum(name), PLR_VNET_NONE) << name;
  EXPECT_EQ(PLRConvVnetNameToNum(nullptr), PLR_VNET_NONE);
}

TEST(VnetNames, NumberToNameAndBackForEveryVnetAndAbove255LeavesBufferUntouched) {
  char name[PLR_VNET_NAME_SIZE];
  for (uint32_t vnet = 0; vnet <= 255; ++vnet) {
    ASSERT_TRUE(PLRConvVnetNumToName(vnet, name));
    EXPECT_EQ(std::string(name), "kavix" + std::to_string(vnet));
    EXPECT_EQ(PLRConvVnetNameToNum(name), vnet);
  }
  memset(name, '#', sizeof name);
  for (uint32_t vnet : {256u, PLR_VNET_NONE, PLR_VNET_ALL})
    EXPECT_FALSE(PLRConvVnetNumToName(vnet, name));
  for (char c : name) EXPECT_EQ(c, '#');
}

class DefaultBridge : public test::LoadedLibraryTest {};

TEST_F(DefaultBridge, LoadPrimesCacheAndLaterDatabaseChangesDoNotMoveIt) {
  EXPECT_EQ(plrDefaultBridgeVnet, PLR_VNET_ALL);
  Load();
  EXPECT_EQ(plrDefaultBridgeVnet, 0u) << "absent means vnet 0";
  ASSERT_TRUE(PLRNetCfgAddAnswerString(nullptr, "PLR_DEFAULT_BRIDGE_VNET", "-1"));
  uint32_t vnet = 77;
  EXPECT_TRUE(PLRGetDefaultBridgeVnet(&vnet));
  EXPECT_EQ(vnet, 0u);
}

TEST_F(DefaultBridge, MinusOneMeansNone) {
  Load("answer PLR_DEFAULT_BRIDGE_VNET -1\n");
  EXPECT_EQ(plrDefaultBridgeVnet, PLR_VNET_NONE);
  uint32_t vnet = 0;
  EXPECT_TRUE(PLRGetDefaultBridgeVnet(&vnet));
  EXPECT_EQ(vnet, PLR_VNET_NONE);
}

TEST_F(DefaultBridge, OtherStoredValuesFailEveryTimeAndAreNotCached) {
  Load("answer PLR_DEFAULT_BRIDGE_VNET 2\n");
  EXPECT_EQ(plrDefaultBridgeVnet, PLR_VNET_ALL);
  uint32_t vnet = 55;
  EXPECT_FALSE(PLRGetDefaultBridgeVnet(&vnet));
  EXPECT_FALSE(PLRGetDefaultBridgeVnet(nullptr));
  EXPECT_EQ(vnet, 55u);
  EXPECT_EQ(plrDefaultBridgeVnet, PLR_VNET_ALL);
  // Once at load, then once per call.
  EXPECT_EQ(CountOf(Log(), "PLRGetDefaultBridgeVnet - Invalid value of defaultBridge in config"),
            3);
}

// Set stores any value and caches it; the reload then refuses what it wrote.
TEST_F(DefaultBridge, SetStoresAndCachesAnyValueButReloadAcceptsOnly0AndMinus1) {
  Load();
  EXPECT_TRUE(PLRSetDefaultBridgeVnet(7));
  EXPECT_EQ(plrDefaultBridgeVnet, 7u);
  uint32_t vnet = 0;
  EXPECT_TRUE(PLRGetDefaultBridgeVnet(&vnet));
  EXPECT_EQ(vnet, 7u);
  EXPECT_TRUE(PLRSetDefaultBridgeVnet(PLR_VNET_NONE));
  EXPECT_EQ(plrDefaultBridgeVnet, PLR_VNET_NONE);
  EXPECT_TRUE(PLRSetDefaultBridgeVnet(3));
  EXPECT_NE(Database().find("answer PLR_DEFAULT_BRIDGE_VNET 7\nremove_answer "
                            "PLR_DEFAULT_BRIDGE_VNET\nanswer PLR_DEFAULT_BRIDGE_VNET -1\n"),
            std::string::npos)
      << Database();
  PLR_Unload();
  EXPECT_EQ(plrDefaultBridgeVnet, PLR_VNET_ALL);
  ASSERT_TRUE(PLR_Load(false));
  PLR_SetCurrentLogLevel(PLR_LOG_MAX_LEVEL);
  EXPECT_EQ(plrDefaultBridgeVnet, PLR_VNET_ALL);
  EXPECT_FALSE(PLRGetDefaultBridgeVnet(nullptr));
  EXPECT_GE(CountOf(Log(), "Invalid value of defaultBridge in config"), 1);
}

}  // namespace
}  // namespace plr
