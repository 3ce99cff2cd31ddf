// Vnet names and numbers (the one place names are parsed), and the cached
// default bridge vnet.
#include <gtest/gtest.h>
#include <string.h>

#include <string>

#include "pelorus.h"
#include "tests/support/vnet_util.h"

namespace plr::test {
namespace {

TEST(VnetNames, NameToNumber) {
  const struct {
    const char* name;
    uint32_t vnet;
  } rows[] = {{"kavix0", 0},
              {"KAVIX1", 1},
              {"KaViX42", 42},
              {"kavix007", 7},
              {"kavix255", 255},
              {"kavix00000000000000000000000000000001", 1},  // zeros never overflow
              {"kavix256", PLR_VNET_NONE},
              {"kavix", PLR_VNET_NONE},
              {"kavix1a", PLR_VNET_NONE},
              {"kavix 1", PLR_VNET_NONE},
              {"kavix-1", PLR_VNET_NONE},
              {"kavix+1", PLR_VNET_NONE},
              {"kavix1 ", PLR_VNET_NONE},
              {"kavix2550", PLR_VNET_NONE},
              {"kavix99999999999999999999", PLR_VNET_NONE},
              {"kavi", PLR_VNET_NONE},
              {"", PLR_VNET_NONE},
              {"xkavix1", PLR_VNET_NONE},
              {"kavix0x1", PLR_VNET_NONE},
              {" kavix1", PLR_VNET_NONE}};
  for (const auto& r : rows) EXPECT_EQ(PLRConvVnetNameToNum(r.name), r.vnet) << r.name;
  EXPECT_EQ(PLRConvVnetNameToNum(nullptr), PLR_VNET_NONE);
}

TEST(VnetNames, NumberToNameRoundTripsAndAbove255LeavesBufferUntouched) {
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

class DefaultBridge : public LoadedLibraryTest {};

// What a load caches for each stored value; later database changes do not move it.
TEST_F(DefaultBridge, LoadCachesZeroOrMinusOneOnly) {
  const struct {
    const char* records;
    bool readable;
    uint32_t vnet;
  } rows[] = {{"", true, 0},
              {"answer PLR_DEFAULT_BRIDGE_VNET -1\n", true, PLR_VNET_NONE},
              {"answer PLR_DEFAULT_BRIDGE_VNET 2\n", false, PLR_VNET_ALL}};
  for (const auto& r : rows) {
    SCOPED_TRACE(r.records);
    EXPECT_EQ(plrDefaultBridgeVnet, PLR_VNET_ALL);
    Load(r.records);
    EXPECT_EQ(plrDefaultBridgeVnet, r.vnet);
    uint32_t vnet = 55;
    EXPECT_EQ(PLRGetDefaultBridgeVnet(&vnet), r.readable);
    EXPECT_EQ(vnet, r.readable ? r.vnet : 55u);
    ASSERT_TRUE(PLRNetCfgAddAnswerString(nullptr, "PLR_DEFAULT_BRIDGE_VNET", "0"));
    EXPECT_EQ(plrDefaultBridgeVnet, r.vnet) << "an answer change does not refresh the cache";
    PLR_Unload();
  }
  EXPECT_TRUE(LogHas("PLRGetDefaultBridgeVnet - Invalid value of defaultBridge in config"));
}

// Set stores any value and caches it; the reload then refuses what it wrote.
TEST_F(DefaultBridge, SetStoresAnyValueButReloadAcceptsOnly0AndMinus1) {
  Load();
  EXPECT_TRUE(PLRSetDefaultBridgeVnet(7));
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
  EXPECT_EQ(plrDefaultBridgeVnet, PLR_VNET_ALL);
  EXPECT_FALSE(PLRGetDefaultBridgeVnet(&vnet));
  EXPECT_FALSE(PLRGetDefaultBridgeVnet(nullptr));
}

}  // namespace
}  // namespace plr::test
