// The host-only adapter address: stored, or computed from the subnet.
#include <gtest/gtest.h>
#include <string.h>

#include <string>

#include "pelorus.h"
#include "tests/support/sandbox.h"
#include "tests/support/vnet_util.h"

namespace plr {
namespace {

using test::CountOf;

class AdapterAddr : public test::LoadedLibraryTest {};

TEST(AdapterAddrCalc, DefaultIsSubnetPlusOne) {
  struct Case {
    const char* subnet;
    const char* address;
  } cases[] = {{"192.168.5.0", "192.168.5.1"},
               {"10.0.7.0", "10.0.7.1"},
               {"10.0.7.5", "10.0.7.6"},  // host bits carry over
               {"10.0.7.255", "10.0.8.0"}};
  for (const Case& c : cases) {
    char out[16];
    EXPECT_TRUE(PLRCalcVirtAdapAddr(c.subnet, out));
    EXPECT_STREQ(out, c.address) << c.subnet;
  }
}

TEST_F(AdapterAddr, StoredAddressWinsWhetherOrNotDefaultIsAsked) {
  Load(
      "answer VNET_3_HOSTONLY_SUBNET 10.0.3.0\n"
      "answer VNET_3_VIRTUAL_ADAPTER_ADDR 10.0.3.254\n");
  char buf[16];
  EXPECT_TRUE(PLRGetVnetVirtAdapterAddr(3, buf, sizeof buf, true));
  EXPECT_STREQ(buf, "10.0.3.254");
  memset(buf, 0, sizeof buf);
  EXPECT_TRUE(PLRGetVnetVirtAdapterAddr(3, buf, sizeof buf, false));
  EXPECT_STREQ(buf, "10.0.3.254");
  // A stored address that does not fit fails, with no fallback to the default.
  EXPECT_FALSE(PLRGetVnetVirtAdapterAddr(3, buf, 10, true));
}

TEST_F(AdapterAddr, ComputedDefaultNeedsSubnetAndRoomAndIsNotStored) {
  Load("answer VNET_7_HOSTONLY_SUBNET 10.0.7.0\n");
  std::string before = Database();
  char buf[16];
  // Absent address without the default asked for fails silently.
  EXPECT_FALSE(PLRGetVnetVirtAdapterAddr(7, buf, sizeof buf, false));
  EXPECT_EQ(CountOf(Log(), "PLRGetVnetVirtAdapterAddr -"), 0);
  EXPECT_TRUE(PLRGetVnetVirtAdapterAddr(7, buf, 9, true));
  EXPECT_STREQ(buf, "10.0.7.1");
  EXPECT_FALSE(PLRGetVnetVirtAdapterAddr(7, buf, 8, true));
  EXPECT_EQ(CountOf(Log(),
                    "PLRGetVnetVirtAdapterAddr - Insufficient buffer length: 8 for adapter "
                    "address"),
            1);
  EXPECT_EQ(PLRGetVnetCfg(7, "VIRTUAL_ADAPTER_ADDR"), nullptr);
  EXPECT_EQ(Database(), before);

  EXPECT_FALSE(PLRGetVnetVirtAdapterAddr(8, buf, sizeof buf, true));
  EXPECT_EQ(CountOf(Log(), "PLRGetVnetVirtAdapterAddr - Getting Subnet Address failed"), 1);
}

}  // namespace
}  // namespace plr
