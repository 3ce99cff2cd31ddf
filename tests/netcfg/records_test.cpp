// Reading the cache back: answer conversions, lookups and cursor walks of the
// structured records, and the adapter lists built from bridge mappings.
#include <set>

#include "tests/netcfg/netcfg_util.h"

namespace plr::test {
namespace {

TEST_F(CacheTest, AnswerConversions) {
  Open("answer HEX 0x19\nanswer NEG -42\nanswer TEXT 12abc\nanswer UPPER YES\nanswer ONE 1\n");
  for (auto [key, expected] : {std::pair{"HEX", "25 no"},
                               {"NEG", "-42 no"},
                               {"TEXT", "- no"},
                               {"UPPER", "- yes"},
                               {"ONE", "1 no"},
                               {"ABSENT", "- -"}}) {
    int32_t n = 0;
    bool b = false;
    std::string got = PLRNetCfgGetAnswerInt32(db_, key, &n) ? std::to_string(n) : "-";
    got += PLRNetCfgGetAnswerBool(db_, key, &b) ? (b ? " yes" : " no") : " -";
    EXPECT_EQ(got, expected) << key;
  }
  // The returned string lives in the cache until that answer changes.
  const char *first = nullptr, *again = nullptr;
  ASSERT_TRUE(PLRNetCfgGetAnswerString(db_, "ONE", &first));
  ASSERT_TRUE(PLRNetCfgAddAnswerString(db_, "OTHER", "x"));
  ASSERT_TRUE(PLRNetCfgGetAnswerString(db_, "ONE", &again));
  EXPECT_EQ(first, again);
}

TEST_F(CacheTest, PortForwardLookupCopiesWhatFitsAndEnumerationVisitsEachOnce) {
  Open(
      "add_nat_portfwd 8 tcp 443 192.168.120.128 8443 web\n"
      "add_nat_portfwd 8 udp 443 192.168.120.129 53\n");
  char ip[16], desc[128];
  uint16_t vmPort = 0;
  const struct {
    bool tcp;
    uint16_t port;
    size_t ipSize;
    uint32_t descSize;
    const char* found;  // ip, port, description and its length plus 2; null: fails
  } kRows[] = {{true, 443, 16, 128, "192.168.120.128 8443 web 5"},
               {false, 443, 16, 128, "192.168.120.129 53  0"},
               {true, 444, 16, 128, nullptr},
               {true, 443, 15, 128, nullptr},
               {true, 443, 16, 4, nullptr}};  // "web" and its terminator do not fit in 4
  for (const auto& r : kRows) {
    uint32_t descLength = r.descSize;
    desc[0] = '\0';
    bool ok =
        PLRNetCfgLookupNATPortFwd(db_, 8, r.tcp, r.port, ip, r.ipSize, &vmPort, desc, &descLength);
    EXPECT_EQ(ok ? StrCat(ip, vmPort, desc, descLength) : "-", r.found ? r.found : "-");
  }
  for (uint16_t port = 1; port <= 50; ++port)
    ASSERT_TRUE(PLRNetCfgAddNATPortFwd(db_, 4, true, port, "10.0.0.2", port, "d", false));
  auto walk = [&](bool changeAfterFirst) {
    std::vector<uint16_t> ports;
    uint32_t cursor = 0, descLength = sizeof desc;
    uint16_t hostPort = 0;
    while (PLRNetCfgEnumNATPortFwd(db_, 4, true, &cursor, &hostPort, ip, 16, &vmPort, desc,
                                   &descLength)) {
      EXPECT_EQ(StrCat(ip, vmPort, desc, descLength), StrCat("10.0.0.2", hostPort, "d", 3));
      descLength = sizeof desc;
      ports.push_back(hostPort);
      if (changeAfterFirst && ports.size() == 1) {
        EXPECT_TRUE(PLRNetCfgAddNATPortFwd(db_, 4, true, 500, "10.0.0.2", 500, "d", false));
      }
    }
    EXPECT_EQ(cursor, ports.size());
    return ports;
  };
  std::vector<uint16_t> first = walk(false);
  EXPECT_EQ(std::set<uint16_t>(first.begin(), first.end()).size(), 50u);
  EXPECT_EQ(walk(false), first);  // the cached array keeps its order
  // A change between two steps rebuilds the array; the walk sees the new entry.
  EXPECT_EQ(walk(true).size(), 51u);
  uint32_t cursor = 0;
  EXPECT_FALSE(
      PLRNetCfgEnumNATPortFwd(db_, 5, true, &cursor, nullptr, ip, 16, nullptr, nullptr, nullptr));
}

TEST_F(CacheTest, DhcpLookupAndEnumeration) {
  Open(
      "add_dhcp_mac_to_ip 8 00:11:22:33:44:aa 192.168.120.130\n"
      "add_dhcp_mac_to_ip 8 00:11:22:33:44:bb 192.168.120.131\n");
  char ip[16], mac[18];
  EXPECT_FALSE(PLRNetCfgLookupDHCPMACToIP(db_, 7, "00:11:22:33:44:aa", ip, 16));
  ASSERT_TRUE(PLRNetCfgLookupDHCPMACToIP(db_, 8, "0:11:22:33:44:AA", ip, 16));
  EXPECT_STREQ(ip, "192.168.120.130");
  EXPECT_FALSE(PLRNetCfgLookupDHCPMACToIP(db_, 8, "00:11:22:33:44:cc", ip, 16));
  EXPECT_FALSE(PLRNetCfgLookupDHCPMACToIP(db_, 8, "00:11:22:33:44:aa", ip, 15));
  std::set<std::string> seen;
  uint32_t cursor = 0;
  while (PLRNetCfgEnumDHCPMACToIP(db_, 8, &cursor, mac, sizeof mac, ip, 16))
    seen.insert(StrCat(mac, ip));
  EXPECT_EQ(seen, (std::set<std::string>{"00:11:22:33:44:AA 192.168.120.130",
                                         "00:11:22:33:44:BB 192.168.120.131"}));
  EXPECT_EQ(cursor, 2u);
  cursor = 0;
  EXPECT_FALSE(PLRNetCfgEnumDHCPMACToIP(db_, 8, &cursor, mac, 17, ip, 16));
  EXPECT_FALSE(PLRNetCfgEnumDHCPMACToIP(db_, 8, &cursor, mac, 18, ip, 15));
  EXPECT_FALSE(PLRNetCfgEnumDHCPMACToIP(db_, 9, &cursor, mac, 18, ip, 16));
}

TEST_F(CacheTest, HostAdaptersForAVnet) {
  Open();
  uint32_t count = 99;
  PLR_HostAdapter* list = reinterpret_cast<PLR_HostAdapter*>(1);
  ASSERT_TRUE(PLRNetCfgLookupHostAdaptersForVnet(db_, 0, &count, &list, false));
  EXPECT_EQ(StrCat(count, list == nullptr), "0 1");
  for (auto [name, vnet] : {std::pair{"eth0", 0}, {"eth1", 0}, {"eth2", 2}, {"eth3", -1}})
    ASSERT_TRUE(PLRNetCfgAddHostAdapterMapping(db_, name, vnet, false));
  const struct {
    uint32_t vnet;
    bool exclude;
    std::set<std::string> names;
  } kRows[] = {{0, false, {"eth0 0", "eth1 0"}},
               {2, false, {"eth2 2"}},
               {PLR_VNET_NONE, false, {"eth3 -1"}},
               {7, false, {}},
               {PLR_VNET_ALL, false, {"eth0 0", "eth1 0", "eth2 2", "eth3 -1"}},
               {0, true, {"eth2 2", "eth3 -1"}}};
  for (const auto& r : kRows) {
    ASSERT_TRUE(PLRNetCfgLookupHostAdaptersForVnet(db_, r.vnet, &count, &list, r.exclude));
    std::set<std::string> names;
    uint32_t n = 0;
    for (PLR_HostAdapter* e = list; e != nullptr; e = e->next, ++n) {
      EXPECT_EQ(StrCat(e->version, e->netId.version, e->netId.netType, e->displayName),
                StrCat(1, 1, 1, e->name));
      names.insert(StrCat(e->name, static_cast<int32_t>(e->netId.vnet)));
    }
    EXPECT_EQ(n, count);
    EXPECT_EQ(names, r.names) << r.vnet << " " << r.exclude;
    PLRFreeHostAdapList(&list);
    EXPECT_EQ(list, nullptr);
  }
  int32_t vnet = 0;
  ASSERT_TRUE(PLRNetCfgLookupVnetForHostAdapter(db_, "eth3", &vnet));
  EXPECT_EQ(vnet, -1);
  EXPECT_FALSE(PLRNetCfgLookupVnetForHostAdapter(db_, "eth9", &vnet));
}

}  // namespace
}  // namespace plr::test
