// The host-only adapter address: stored, or computed from the subnet.
#include <gtest/gtest.h>
#include <string.h>

#include <string>

#include "pelorus.h"
#include "tests/support/vnet_util.h"

namespace plr::test {
namespace {

TEST(AdapterAddr, DefaultIsSubnetPlusOne) {
  const struct {
    const char* subnet;
    const char* address;
  } rows[] = {{"192.168.5.0", "192.168.5.1"},
              {"10.0.7.0", "10.0.7.1"},
              {"10.0.7.5", "10.0.7.6"},  // host bits carry over
              {"10.0.7.255", "10.0.8.0"}};
  for (const auto& r : rows) {
    char out[16];
    EXPECT_TRUE(PLRCalcVirtAdapAddr(r.subnet, out));
    EXPECT_STREQ(out, r.address) << r.subnet;
  }
}

class AdapterAddrLoaded : public LoadedLibraryTest {};

// A stored address wins and must fit; the computed default needs the asking,
// a subnet and room, and is never stored.
TEST_F(AdapterAddrLoaded, StoredOrComputed) {
  Load(
      "answer VNET_3_HOSTONLY_SUBNET 10.0.3.0\nanswer VNET_3_VIRTUAL_ADAPTER_ADDR 10.0.3.254\n"
      "answer VNET_7_HOSTONLY_SUBNET 10.0.7.0\n");
  const std::string before = Database();
  const struct {
    uint32_t vnet;
    size_t size;
    bool computeDefault;
    const char* address;  // nullptr: the call fails
  } rows[] = {{3, 16, true, "10.0.3.254"}, {3, 16, false, "10.0.3.254"}, {3, 10, true, nullptr},
              {7, 16, false, nullptr},     {7, 9, true, "10.0.7.1"},     {7, 8, true, nullptr},
              {8, 16, true, nullptr}};
  for (const auto& r : rows) {
    SCOPED_TRACE(std::to_string(r.vnet) + "/" + std::to_string(r.size));
    char buf[16] = "";
    EXPECT_EQ(PLRGetVnetVirtAdapterAddr(r.vnet, buf, r.size, r.computeDefault),
              r.address != nullptr);
    EXPECT_STREQ(buf, r.address != nullptr ? r.address : "");
  }
  EXPECT_EQ(PLRGetVnetCfg(7, "VIRTUAL_ADAPTER_ADDR"), nullptr);
  EXPECT_EQ(Database(), before);
}

}  // namespace
}  // namespace plr::test
