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

// --- Name and number --------------------------------------------------------

TEST(VnetNames, NameToNumberAcceptsPrefixInAnyCaseAndDecimal0To255) {
  EXPECT_EQ(PLRConvVnetNameToNum("kavix0"), 0u);
  EXPECT_EQ(PLRConvVnetNameToNum("kavix8"), 8u);
  EXPECT_EQ(PLRConvVnetNameToNum("KAVIX1"), 1u);
  EXPECT_EQ(PLRConvVnetNameToNum("KAVIX3"), 3u);
  EXPECT_EQ(PLRConvVnetNameToNum("KaViX42"), 42u);
  EXPECT_EQ(PLRConvVnetNameToNum("kavix007"), 7u);
  EXPECT_EQ(PLRConvVnetNameToNum("kavix255"), 255u);
  // Leading zeros never push the value past 255, so any number of them reads.
  EXPECT_EQ(PLRConvVnetNameToNum("kavix00000000000000000000000000000001"), 1u);
}

TEST(VnetNames, NameToNumberRejectsEverythingElse) {
  const char* bad[] = {"kavix256", "kavix",     "kavix1a",
                       "kavix 1",  "kavix-1",   "kavix+1",
                       "kavix1 ",  "kavix2550", "kavix99999999999999999999",
                       "kavi",     "",          "xkavix1",
                       "kavix0x1", "vmnet1",    " kavix1"};
  for (const char* name : bad) EXPECT_EQ(PLRConvVnetNameToNum(name), PLR_VNET_NONE) << name;
  EXPECT_EQ(PLRConvVnetNameToNum(nullptr), PLR_VNET_NONE);
}

TEST(VnetNames, NumberToNameAndBackForEveryVnet) {
  for (uint32_t vnet = 0; vnet <= 255; ++vnet) {
    char name[PLR_VNET_NAME_SIZE];
    ASSERT_TRUE(PLRConvVnetNumToName(vnet, name));
    EXPECT_EQ(std::string(name), "kavix" + std::to_string(vnet));
    EXPECT_EQ(PLRConvVnetNameToNum(name), vnet);
  }
}

TEST(VnetNames, NumberAbove255LeavesBufferUntouched) {
  char name[PLR_VNET_NAME_SIZE];
  memset(name, '#', sizeof name);
  EXPECT_FALSE(PLRConvVnetNumToName(256, name));
  EXPECT_FALSE(PLRConvVnetNumToName(PLR_VNET_NONE, name));
  EXPECT_FALSE(PLRConvVnetNumToName(PLR_VNET_ALL, name));
  for (char c : name) EXPECT_EQ(c, '#');
}

// --- Default bridge vnet ----------------------------------------------------

class DefaultBridge : public test::LoadedLibraryTest {};

TEST_F(DefaultBridge, CacheStartsUnreadAndLoadPrimesIt) {
  EXPECT_EQ(plrDefaultBridgeVnet, PLR_VNET_ALL);
  Load();
  EXPECT_EQ(plrDefaultBridgeVnet, 0u) << "absent means vnet 0";
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

TEST_F(DefaultBridge, CachedValueWinsOverLaterDatabaseChanges) {
  Load();
  ASSERT_TRUE(PLRNetCfgAddAnswerString(nullptr, "PLR_DEFAULT_BRIDGE_VNET", "-1"));
  uint32_t vnet = 99;
  EXPECT_TRUE(PLRGetDefaultBridgeVnet(&vnet));
  EXPECT_EQ(vnet, 0u);
}

TEST_F(DefaultBridge, SetStoresAnyValueAndCachesIt) {
  Load();
  EXPECT_TRUE(PLRSetDefaultBridgeVnet(7));
  EXPECT_EQ(plrDefaultBridgeVnet, 7u);
  uint32_t vnet = 0;
  EXPECT_TRUE(PLRGetDefaultBridgeVnet(&vnet));
  EXPECT_EQ(vnet, 7u);
  EXPECT_TRUE(PLRSetDefaultBridgeVnet(PLR_VNET_NONE));
  EXPECT_EQ(plrDefaultBridgeVnet, PLR_VNET_NONE);
  std::string db = Database();
  EXPECT_NE(db.find("answer PLR_DEFAULT_BRIDGE_VNET 7\n"), std::string::npos) << db;
  EXPECT_NE(db.find("remove_answer PLR_DEFAULT_BRIDGE_VNET\nanswer PLR_DEFAULT_BRIDGE_VNET -1\n"),
            std::string::npos)
      << db;
}

TEST_F(DefaultBridge, UnloadResetsCacheAndReloadRejectsWhatSetWrote) {
  Load();
  ASSERT_TRUE(PLRSetDefaultBridgeVnet(3));
  PLR_Unload();
  EXPECT_EQ(plrDefaultBridgeVnet, PLR_VNET_ALL);
  // The set value survived in the file, but reading accepts only 0 and -1.
  ASSERT_TRUE(PLR_Load(false));
  PLR_SetCurrentLogLevel(PLR_LOG_MAX_LEVEL);
  EXPECT_EQ(plrDefaultBridgeVnet, PLR_VNET_ALL);
  EXPECT_FALSE(PLRGetDefaultBridgeVnet(nullptr));
  EXPECT_GE(CountOf(Log(), "Invalid value of defaultBridge in config"), 1);
}

}  // namespace
}  // namespace plr
