// Reading the cache back: answer conversions, lookups and cursor walks of
// the structured records, and the adapter lists built from bridge mappings.
#include <set>

#include "tests/netcfg/netcfg_util.h"

namespace plr::test {
namespace {

class Records : public ::testing::Test {
 protected:
  void SetUp() override {
    WriteDatabase();
    db_ = LoadCache();
    ASSERT_NE(db_, nullptr);
  }
  void TearDown() override {
    if (db_ != nullptr) PLRNetCfgUnload(&db_, false);
  }
  LogCapture log_;
  PLRNetworkConfigurationDB* db_ = nullptr;
};

TEST_F(Records, AnswerConversions) {
  const char* answers[][2] = {
      {"HEX", "0x19"}, {"NEG", "-42"}, {"TEXT", "12abc"}, {"UPPER", "YES"}, {"ONE", "1"}};
  for (const auto& a : answers) ASSERT_TRUE(PLRNetCfgAddAnswerString(db_, a[0], a[1]));
  int32_t n = 0;
  ASSERT_TRUE(PLRNetCfgGetAnswerInt32(db_, "HEX", &n));
  EXPECT_EQ(n, 0x19);
  ASSERT_TRUE(PLRNetCfgGetAnswerInt32(db_, "NEG", &n));
  EXPECT_EQ(n, -42);
  EXPECT_FALSE(PLRNetCfgGetAnswerInt32(db_, "TEXT", &n));
  EXPECT_TRUE(
      log_.HasLine("PLRNetCfgGetAnswerInt32", "Failed to convert value to integer: TEXT = 12abc"));
  EXPECT_FALSE(PLRNetCfgGetAnswerInt32(db_, "ABSENT", &n));
  EXPECT_TRUE(log_.HasLine("PLRNetCfgGetAnswerInt32", "Value not found for key: ABSENT"));
  bool b = false;
  ASSERT_TRUE(PLRNetCfgGetAnswerBool(db_, "UPPER", &b));
  EXPECT_TRUE(b);
  ASSERT_TRUE(PLRNetCfgGetAnswerBool(db_, "ONE", &b));
  EXPECT_FALSE(b);
  EXPECT_FALSE(PLRNetCfgGetAnswerBool(db_, "ABSENT", &b));
  // The returned string lives in the cache until the answer changes.
  const char* first = nullptr;
  ASSERT_TRUE(PLRNetCfgGetAnswerString(db_, "ONE", &first));
  ASSERT_TRUE(PLRNetCfgAddAnswerString(db_, "OTHER", "x"));
  const char* again = nullptr;
  ASSERT_TRUE(PLRNetCfgGetAnswerString(db_, "ONE", &again));
  EXPECT_EQ(first, again);
}

TEST_F(Records, PortForwardLookupCopiesWhatFits) {
  ASSERT_TRUE(PLRNetCfgAddNATPortFwd(db_, 8, true, 443, "192.168.120.128", 8443, "web", false));
  ASSERT_TRUE(PLRNetCfgAddNATPortFwd(db_, 8, false, 443, "192.168.120.129", 53, nullptr, false));
  char ip[16], desc[128];
  uint16_t vmPort = 0;
  uint32_t descLength = sizeof desc;
  ASSERT_TRUE(
      PLRNetCfgLookupNATPortFwd(db_, 8, true, 443, ip, sizeof ip, &vmPort, desc, &descLength));
  EXPECT_STREQ(ip, "192.168.120.128");
  EXPECT_EQ(vmPort, 8443);
  EXPECT_STREQ(desc, "web");
  EXPECT_EQ(descLength, 5u);  // length plus 2
  EXPECT_TRUE(log_.Has("Port Fwd Lookup succeeded: 192.168.120.128:8443 for 443, tcp"));
  descLength = sizeof desc;
  ASSERT_TRUE(
      PLRNetCfgLookupNATPortFwd(db_, 8, false, 443, ip, sizeof ip, &vmPort, desc, &descLength));
  EXPECT_STREQ(ip, "192.168.120.129");
  EXPECT_EQ(descLength, 0u);  // TCP and UDP on one port are separate entries
  EXPECT_FALSE(
      PLRNetCfgLookupNATPortFwd(db_, 8, true, 444, ip, sizeof ip, &vmPort, nullptr, nullptr));
  EXPECT_FALSE(PLRNetCfgLookupNATPortFwd(db_, 8, true, 443, ip, 15, &vmPort, nullptr, nullptr));
  EXPECT_TRUE(log_.Has("Insufficient buffer length: 15 for IP address: 192.168.120.128"));
  descLength = 4;  // "web" plus its terminator is not smaller than 4
  EXPECT_FALSE(
      PLRNetCfgLookupNATPortFwd(db_, 8, true, 443, ip, sizeof ip, &vmPort, desc, &descLength));
  EXPECT_TRUE(log_.Has("Insufficient buffer length for description"));
}

TEST_F(Records, PortForwardEnumerationVisitsEachOnceAndRestartsAfterAChange) {
  EXPECT_FALSE([&] {
    uint32_t cursor = 0;
    return PLRNetCfgEnumNATPortFwd(db_, 4, true, &cursor, nullptr, nullptr, 0, nullptr, nullptr,
                                   nullptr);
  }());
  EXPECT_TRUE(log_.HasLine("PLRNetCfgEnumNATPortFwd", "List of forwarded ports is empty"));
  for (uint16_t port = 1; port <= 50; ++port)
    ASSERT_TRUE(PLRNetCfgAddNATPortFwd(db_, 4, true, port, "10.0.0.2", port, "d", false));
  auto walk = [&](std::vector<uint16_t>* ports) {
    uint32_t cursor = 0;
    uint16_t hostPort = 0, vmPort = 0;
    char ip[16], desc[8];
    uint32_t descLength = sizeof desc;
    while (PLRNetCfgEnumNATPortFwd(db_, 4, true, &cursor, &hostPort, ip, sizeof ip, &vmPort, desc,
                                   &descLength)) {
      EXPECT_EQ(vmPort, hostPort);
      EXPECT_STREQ(desc, "d");
      EXPECT_EQ(descLength, 3u);
      descLength = sizeof desc;
      ports->push_back(hostPort);
    }
    return cursor;
  };
  std::vector<uint16_t> first, second;
  EXPECT_EQ(walk(&first), 50u);
  EXPECT_TRUE(log_.HasLine("PLRNetCfgEnumNATPortFwd", "No ports to enumerate"));
  EXPECT_EQ(std::set<uint16_t>(first.begin(), first.end()).size(), 50u);
  EXPECT_EQ(log_.Count("Created array of forwarded ports"), 1);
  walk(&second);
  EXPECT_EQ(first, second);  // the cached array keeps its order
  EXPECT_EQ(log_.Count("Created array of forwarded ports"), 1);
  // A change between two steps discards the array; the walk sees the new entry.
  uint32_t cursor = 0;
  uint16_t hostPort = 0;
  char ip[16];
  ASSERT_TRUE(PLRNetCfgEnumNATPortFwd(db_, 4, true, &cursor, &hostPort, ip, sizeof ip, nullptr,
                                      nullptr, nullptr));
  ASSERT_TRUE(PLRNetCfgAddNATPortFwd(db_, 4, true, 500, "10.0.0.2", 500, "d", false));
  std::vector<uint16_t> third;
  walk(&third);
  EXPECT_EQ(third.size(), 51u);
  EXPECT_EQ(log_.Count("Created array of forwarded ports"), 2);
}

TEST_F(Records, DhcpLookupAndEnumeration) {
  char ip[16], mac[18];
  EXPECT_FALSE(PLRNetCfgLookupDHCPMACToIP(db_, 8, "00:11:22:33:44:55", ip, sizeof ip));
  EXPECT_TRUE(log_.Has("List of DHCP mappings is empty"));
  ASSERT_TRUE(PLRNetCfgAddDHCPMACToIP(db_, 8, "00:11:22:33:44:aa", "192.168.120.130", false));
  ASSERT_TRUE(PLRNetCfgAddDHCPMACToIP(db_, 8, "00:11:22:33:44:bb", "192.168.120.131", false));
  ASSERT_TRUE(PLRNetCfgLookupDHCPMACToIP(db_, 8, "00:11:22:33:44:AA", ip, sizeof ip));
  EXPECT_STREQ(ip, "192.168.120.130");
  EXPECT_TRUE(log_.Has("for MAC: 00:11:22:33:44:AA"));
  EXPECT_FALSE(PLRNetCfgLookupDHCPMACToIP(db_, 8, "00:11:22:33:44:cc", ip, sizeof ip));
  EXPECT_TRUE(log_.Has("Cannot find mapping for MAC: 00:11:22:33:44:cc in hash: "));
  EXPECT_FALSE(PLRNetCfgLookupDHCPMACToIP(db_, 8, "00:11:22:33:44:aa", ip, 8));
  EXPECT_TRUE(log_.Has("Insufficient buffer size: 8 for IP address: 192.168.120.130"));

  std::set<std::string> seen;
  uint32_t cursor = 0;
  while (PLRNetCfgEnumDHCPMACToIP(db_, 8, &cursor, mac, sizeof mac, ip, sizeof ip))
    seen.insert(std::string(mac) + "=" + ip);
  EXPECT_EQ(seen, (std::set<std::string>{"00:11:22:33:44:AA=192.168.120.130",
                                         "00:11:22:33:44:BB=192.168.120.131"}));
  EXPECT_TRUE(log_.Has("Created array of DHCP mappings"));
  EXPECT_TRUE(log_.Has("No mappings to enumerate"));
  cursor = 0;
  EXPECT_FALSE(PLRNetCfgEnumDHCPMACToIP(db_, 8, &cursor, mac, 17, ip, sizeof ip));
  EXPECT_TRUE(log_.Has("Insufficient buffer size: 17 for MAC address: "));
  EXPECT_FALSE(PLRNetCfgEnumDHCPMACToIP(db_, 9, &cursor, mac, sizeof mac, ip, sizeof ip));
  EXPECT_TRUE(log_.Has("List of mappings is empty"));
}

// The adapters of a vnet as a linked list of separately allocated elements.
std::set<std::string> Names(PLR_HostAdapter* list, uint32_t count) {
  std::set<std::string> names;
  uint32_t n = 0;
  for (PLR_HostAdapter* e = list; e != nullptr; e = e->next, ++n) {
    EXPECT_EQ(e->version, 1u);
    EXPECT_EQ(e->netId.version, 1u);
    EXPECT_EQ(e->netId.netType, 1u);
    EXPECT_EQ(e->status, 0u);
    EXPECT_STREQ(e->driverName, "");
    EXPECT_STREQ(e->displayName, e->name);
    names.insert(std::string(e->name) + ":" + std::to_string(static_cast<int32_t>(e->netId.vnet)));
  }
  EXPECT_EQ(n, count);
  return names;
}

TEST_F(Records, HostAdaptersForAVnet) {
  uint32_t count = 99;
  PLR_HostAdapter* list = reinterpret_cast<PLR_HostAdapter*>(1);
  ASSERT_TRUE(PLRNetCfgLookupHostAdaptersForVnet(db_, 0, &count, &list, false));
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(list, nullptr);
  EXPECT_TRUE(log_.Has("List of bridge mappings is empty"));

  ASSERT_TRUE(PLRNetCfgAddHostAdapterMapping(db_, "eth0", 0, false));
  ASSERT_TRUE(PLRNetCfgAddHostAdapterMapping(db_, "eth1", 0, false));
  ASSERT_TRUE(PLRNetCfgAddHostAdapterMapping(db_, "eth2", 2, false));
  ASSERT_TRUE(PLRNetCfgAddHostAdapterMapping(db_, "eth3", -1, false));
  struct Case {
    uint32_t vnet;
    bool exclude;
    std::set<std::string> names;
  };
  const Case cases[] = {
      {0, false, {"eth0:0", "eth1:0"}},
      {2, false, {"eth2:2"}},
      {PLR_VNET_NONE, false, {"eth3:-1"}},
      {7, false, {}},
      {PLR_VNET_ALL, false, {"eth0:0", "eth1:0", "eth2:2", "eth3:-1"}},
      {0, true, {"eth2:2", "eth3:-1"}},
  };
  for (const Case& c : cases) {
    ASSERT_TRUE(PLRNetCfgLookupHostAdaptersForVnet(db_, c.vnet, &count, &list, c.exclude));
    EXPECT_EQ(Names(list, count), c.names) << c.vnet << " " << c.exclude;
    PLRFreeHostAdapList(&list);
    EXPECT_EQ(list, nullptr);
  }
  EXPECT_TRUE(log_.Has("Created array of Bridge mappings"));
  EXPECT_TRUE(log_.Has("Entry in Array: "));

  int32_t vnet = 0;
  ASSERT_TRUE(PLRNetCfgLookupVnetForHostAdapter(db_, "eth3", &vnet));
  EXPECT_EQ(vnet, -1);
  EXPECT_FALSE(PLRNetCfgLookupVnetForHostAdapter(db_, "eth9", &vnet));
  EXPECT_TRUE(log_.Has("Cannot find mapping for adapter: eth9 in hash: "));
  EXPECT_FALSE(PLRNetCfgRemoveHostAdapterMapping(db_, "eth9"));
  EXPECT_TRUE(log_.Has("Failed to remove Bridge mapping for adapter: eth9 from hash table"));
}

}  // namespace
}  // namespace plr::test
