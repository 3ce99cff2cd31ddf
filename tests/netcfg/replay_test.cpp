// Loading and reading back: the version line, the replay of every record type,
// malformed records (each costs only itself) and the default cache; answer
// conversions, lookups and cursor walks, and the adapter lists built from
// bridge mappings.
#include <numeric>
#include <set>
#include <tuple>

#include "pelorus/vnet.h"
#include "tests/netcfg/netcfg_util.h"

namespace plr::test {
namespace {

// The version a load reports ("major,minor"), or "-" when it fails.
TEST(Load, FirstLineDecidesWhetherADatabaseOrBackupLoads) {
  const struct {
    const char* text;
    bool backup;
    const char* version;
  } kRows[] = {{"VERSION=1,7", 0, "1,7"},      {"VERSION=0,3", 0, "0,3"},
               {"VERSION=2,0", 0, "-"},        {"VERSION=1", 0, "-"},
               {"BACKUP_VERSION=1,0", 0, "-"}, {"", 0, "-"},
               {"VERSION=1,0", 1, "0,0"},      {"BACKUP_VERSION=1,0", 1, "1,0"},
               {"BACKUP_VERSION=3,0", 1, "-"}, {"answer A b", 1, "0,0"}};
  for (const auto& r : kRows) {
    SCOPED_TRACE(std::string(r.text) + (r.backup ? " backup" : ""));
    const char* path = r.backup ? "/tmp/networking.bak" : kDatabasePath;
    WriteFile(path, std::string(r.text) + (*r.text ? "\n" : "") + "answer K v\n");
    PLRNetworkConfigurationDB* db = LoadCache(path, r.backup, false);
    ASSERT_EQ(db ? std::to_string(db->majorVersion) + "," + std::to_string(db->minorVersion) : "-",
              r.version);
    if (db == nullptr) continue;
    EXPECT_EQ(db->backup, r.backup);
    EXPECT_EQ(StateOf(db), *r.text == 'a' ? "answer A b\nanswer K v\n" : "answer K v\n");
    PLRNetCfgUnload(&db, false);
  }
  EXPECT_EQ(LoadCache("/etc/tarsis/nothing-here"), nullptr);
  // An empty file is no database, but it is an empty backup.
  WriteFile(kDatabasePath, "");
  EXPECT_EQ(LoadCache(), nullptr);
  WriteFile("/tmp/networking.bak", "");
  PLRNetworkConfigurationDB* db = LoadCache("/tmp/networking.bak", true, false);
  ASSERT_NE(db, nullptr);
  EXPECT_EQ(std::to_string(db->majorVersion) + "," + std::to_string(db->minorVersion), "0,0");
  EXPECT_EQ(StateOf(db), "");
  PLRNetCfgUnload(&db, false);
}

TEST(Load, ReplaysEveryRecordTypeInOrder) {
  const std::string a127(127, 'a'), x1019(1019, 'x'), y1011(1011, 'y');
  WriteDatabase(
      "answer VNET_1_DISPLAY_NAME my net\nANSWER VNET_1_DHCP yes\n"
      "answer GONE x\nRemove_Answer GONE\n"
      "add_nat_portfwd 8 TCP 443 192.168.120.128 443 web server\n"
      "add_nat_portfwd 8 udp 53 192.168.120.128 53\nadd_nat_portfwd 8 udp 54 192.168.120.128 54\n"
      "add_nat_portfwd 255 udp 7 10.0.0.9 7\nadd_dhcp_mac_to_ip 255 02:7a:3e:2a:10:09 10.0.0.9\n"
      "add_nat_prefix 255 fd00:9::/64\n"
      "remove_nat_portfwd 8 udp 54\n"
      "add_dhcp_mac_to_ip 8 02:7a:3e:2a:10:01 192.168.120.130\n"
      "add_dhcp_mac_to_ip 8 02:7a:3e:2a:10:02 192.168.120.131\n"
      "remove_dhcp_mac_to_ip 8 02:7A:3E:2A:10:02 anything after the mac\n"
      "ADD_BRIDGE_MAPPING eth0 0\nadd_bridge_mapping eth1 -1\nadd_bridge_mapping eth2 5\n"
      "remove_bridge_mapping eth2\nadd_nat_prefix 8 fd00:1::/64\nadd_nat_prefix 8 fd00:2::/64\n"
      "Remove_Nat_PrefiX 8 fd00:2::/64\nxdd_bridge_mapping eth9 1\n"
      "add_nat_portfwd 1 tcp 1 10.0.0.2 1 " +
      a127 + "\nadd_nat_portfwd 1 tcp 2 10.0.0.2 2 " + a127 + "b\nanswer LONG " + x1019 +
      "\nanswer FITS " + y1011 + "\nunknown_keyword is ignored\n");  // a 1031 and a 1023 line
  LogWhileUnloaded();
  PLRNetworkConfigurationDB* db = LoadCache();
  ASSERT_NE(db, nullptr);
  // The overlong line is the one record refused; every add and remove
  // that applies is replayed without a word.
  EXPECT_EQ(LogCount("Failed to parse record at line #"), 1u);
  EXPECT_TRUE(LogHas("Failed to parse record at line #: 26, data: answer LONG xxx"));
  EXPECT_EQ(StateOf(db),
            "add_bridge_mapping eth0 0\nadd_bridge_mapping eth1 -1\n"
            "add_dhcp_mac_to_ip 255 02:7A:3E:2A:10:09 10.0.0.9\n"
            "add_dhcp_mac_to_ip 8 02:7A:3E:2A:10:01 192.168.120.130\n"
            "add_nat_portfwd 1 tcp 1 10.0.0.2 1 " +
                a127 +
                "\nadd_nat_portfwd 1 tcp 2 10.0.0.2 2\nadd_nat_portfwd 255 udp 7 10.0.0.9 7\n"
                "add_nat_portfwd 8 tcp 443 192.168.120.128 443 web server\n"
                "add_nat_portfwd 8 udp 53 192.168.120.128 53\nadd_nat_prefix 255 fd00:9::/64\n"
                "add_nat_prefix 8 fd00:1::/64\n"
                "answer FITS " +
                y1011 + "\nanswer VNET_1_DHCP yes\nanswer VNET_1_DISPLAY_NAME my net\n");
  PLRNetCfgUnload(&db, false);
}

// Every malformed record is skipped; the good records around it still load.
TEST(Load, MalformedRecordsCostOnlyThemselves) {
  WriteDatabase(
      "answer GOOD_FIRST 1\nadd_bridge_mapping eth0 0\n\nanswer\nanswer KEY_ONLY\n"
      "remove_answer NOT_THERE\nadd_nat_portfwd 256 tcp 80 10.0.0.2 80\n"
      "add_nat_portfwd x tcp 80 10.0.0.2 80\nadd_nat_portfwd 8 icmp 80 10.0.0.2 80\n"
      "add_nat_portfwd 8 tcp 0 10.0.0.2 80\nadd_nat_portfwd 8 tcp 65536 10.0.0.2 80\n"
      "add_nat_portfwd 8 tcp 80 10.0.0.300 80\nadd_nat_portfwd 8 tcp 80\n"
      "add_nat_portfwd 8 tcp 80 10.0.0.2 0\nadd_nat_portfwd 8 tcp 80 10.0.0.2\n"
      "remove_nat_portfwd 8 tcp 81\nadd_dhcp_mac_to_ip 300 00:11:22:33:44:55 10.0.0.2\n"
      "add_dhcp_mac_to_ip 8 00:11:22:33:44 10.0.0.2\nadd_dhcp_mac_to_ip 8 00:11:22:33:44:55\n"
      "add_dhcp_mac_to_ip 8 00:11:22:33:44:55 10.0.0.2 x\n"
      "remove_dhcp_mac_to_ip 8 00:11:22:33:44:66\nadd_bridge_mapping eth1 300\n"
      "add_bridge_mapping eth1 -2\nadd_bridge_mapping\nremove_bridge_mapping nosuch\n"
      "add_nat_prefix 8 fd00::\nadd_nat_prefix 8 fd00::/20\nadd_nat_prefix 999 fd00::/64\n"
      "remove_nat_prefix 8 fd00:9::/64\nanswer GOOD_LAST 2\n");
  LogWhileUnloaded();
  PLRNetworkConfigurationDB* db = LoadCache();
  ASSERT_NE(db, nullptr);
  EXPECT_EQ(StateOf(db), "add_bridge_mapping eth0 0\nanswer GOOD_FIRST 1\nanswer GOOD_LAST 2\n");
  EXPECT_EQ(LogCount("Failed to parse record at line #"), 27u);  // each one reported
  EXPECT_TRUE(LogHas("Failed to parse record at line #: 8, data: 256 tcp 80 10.0.0.2 80\n"));
  PLRNetCfgUnload(&db, false);
}

// The default cache is loaded once; its unload resets the cached default
// bridge vnet.
TEST(Load, TheDefaultCacheLoadsOnce) {
  WriteDatabase("answer K v\n");
  ASSERT_TRUE(PLRNetCfgLoad(kDatabasePath, nullptr, false, false));
  WriteDatabase("answer K w\n");
  ASSERT_TRUE(PLRNetCfgLoad(kDatabasePath, nullptr, false, false));
  const char* value = nullptr;
  ASSERT_TRUE(PLRNetCfgGetAnswerString(nullptr, "K", &value));
  EXPECT_STREQ(value, "v");
  plrDefaultBridgeVnet = 3;
  EXPECT_TRUE(PLRNetCfgUnload(nullptr, false));
  EXPECT_EQ(plrDefaultBridgeVnet, PLR_VNET_ALL);
  EXPECT_FALSE(PLRNetCfgGetAnswerString(nullptr, "K", &value));
}

// Integer and boolean readings of answers ("-": refused), and the returned
// string stays put while other answers change.
TEST_F(CacheTest, AnswerConversions) {
  Open("answer HEX 0x19\nanswer NEG -42\nanswer TEXT 12abc\nanswer UPPER YES\nanswer ONE 1\n");
  std::string got;
  for (const char* key : {"HEX", "NEG", "TEXT", "UPPER", "ONE", "ABSENT"}) {
    int32_t n = 0;
    bool b = false;
    got += PLRNetCfgGetAnswerInt32(db_, key, &n) ? std::to_string(n) : "-";
    got += PLRNetCfgGetAnswerBool(db_, key, &b) ? (b ? " yes;" : " no;") : " -;";
  }
  EXPECT_EQ(got, "25 no;-42 no;- no;- yes;1 no;- -;");
  const char *first = nullptr, *again = nullptr;
  ASSERT_TRUE(PLRNetCfgGetAnswerString(db_, "ONE", &first) &&
              PLRNetCfgAddAnswerString(db_, "OTHER", "x") &&
              PLRNetCfgGetAnswerString(db_, "ONE", &again));
  EXPECT_EQ(first, again);
}

// The prefix walk gives each prefix once, in byte order, and stops at a
// buffer too small for the next one.
TEST_F(CacheTest, PrefixWalkIsOrderedAndBounded) {
  Open(
      "add_nat_prefix 3 fd00:2::/64\nadd_nat_prefix 3 fd00:10::/64\nadd_nat_prefix 3 fd00:1::/64\n"
      "add_nat_prefix 4 fd00:4::/64\n");
  std::vector<std::string> walked;
  uint32_t cursor = 0;
  for (char buf[32]; PLRNetCfgEnumNATPrefix(db_, 3, &cursor, buf, sizeof buf);)
    walked.push_back(buf);
  EXPECT_EQ(walked, (std::vector<std::string>{"fd00:10::/64", "fd00:1::/64", "fd00:2::/64"}));
  char small[12];
  cursor = 0;
  EXPECT_FALSE(PLRNetCfgEnumNATPrefix(db_, 3, &cursor, small, sizeof small));
  EXPECT_EQ(cursor, 0u);
  cursor = 0;
  EXPECT_FALSE(PLRNetCfgEnumNATPrefix(db_, 5, &cursor, small, sizeof small)) << "no prefixes";
}

// Lookups copy only what fits; a walk visits each entry once, in a stable
// order, and a change between two steps shows up in the rest of the walk.
TEST_F(CacheTest, LookupsAndWalksOfForwardsAndMappings) {
  Open(
      "add_nat_portfwd 8 tcp 443 192.168.120.128 8443 web\n"
      "add_nat_portfwd 8 udp 443 192.168.120.129 53\n"
      "add_dhcp_mac_to_ip 8 00:11:22:33:44:aa 10.0.0.5\nadd_dhcp_mac_to_ip 8 0:11:22:33:44:b "
      "10.0.0.6\n");
  char ip[16], desc[128], mac[18];
  uint16_t vmPort = 0, hostPort = 0;
  uint32_t len = 0, cursor = 0;
  auto fwd = [&](bool tcp, uint16_t port, size_t ipSize, uint32_t descSize) {
    len = descSize;
    desc[0] = '\0';
    return PLRNetCfgLookupNATPortFwd(db_, 8, tcp, port, ip, ipSize, &vmPort, desc, &len)
               ? std::string(ip) + " " + std::to_string(vmPort) + " " + desc + std::to_string(len)
               : "-";
  };
  EXPECT_EQ(fwd(true, 443, 16, 128), "192.168.120.128 8443 web5");  // length with 2 added
  EXPECT_EQ(fwd(false, 443, 16, 128), "192.168.120.129 53 0");
  EXPECT_EQ(fwd(true, 444, 16, 128) + fwd(true, 443, 15, 128) + fwd(true, 443, 16, 3), "---");
  EXPECT_EQ(fwd(true, 443, 16, 4), "192.168.120.128 8443 web5");  // fits with its terminator
  for (uint16_t port = 1; port <= 50; ++port)
    ASSERT_TRUE(PLRNetCfgAddNATPortFwd(db_, 4, true, port, "10.0.0.2", port, "d", false));
  auto walk = [&](bool changeAfterFirst) {
    std::vector<uint16_t> ports;
    for (cursor = 0, len = 128;
         PLRNetCfgEnumNATPortFwd(db_, 4, true, &cursor, &hostPort, ip, 16, &vmPort, desc, &len);
         len = 128) {
      EXPECT_EQ(std::string(ip) + desc + std::to_string(len), "10.0.0.2d3");
      EXPECT_EQ(vmPort, hostPort);
      ports.push_back(hostPort);
      EXPECT_TRUE(!changeAfterFirst || ports.size() != 1 ||
                  PLRNetCfgAddNATPortFwd(db_, 4, true, 500, "10.0.0.2", 500, "d", false));
    }
    EXPECT_EQ(cursor, ports.size());
    return ports;
  };
  std::vector<uint16_t> first = walk(false);
  EXPECT_EQ(std::set<uint16_t>(first.begin(), first.end()).size(), 50u);
  EXPECT_EQ(walk(false), first);
  EXPECT_EQ(walk(true).size(), 51u);
  cursor = 0;
  EXPECT_FALSE(
      PLRNetCfgEnumNATPortFwd(db_, 5, true, &cursor, nullptr, ip, 16, nullptr, nullptr, nullptr));
  ASSERT_TRUE(PLRNetCfgLookupDHCPMACToIP(db_, 8, "0:11:22:33:44:AA", ip, 16));
  EXPECT_STREQ(ip, "10.0.0.5");
  EXPECT_FALSE(PLRNetCfgLookupDHCPMACToIP(db_, 7, "00:11:22:33:44:aa", ip, 16) ||
               PLRNetCfgLookupDHCPMACToIP(db_, 8, "00:11:22:33:44:cc", ip, 16) ||
               PLRNetCfgLookupDHCPMACToIP(db_, 8, "00:11:22:33:44:aa", ip, 8));
  std::set<std::string> seen;
  for (cursor = 0; PLRNetCfgEnumDHCPMACToIP(db_, 8, &cursor, mac, sizeof mac, ip, 16);)
    seen.insert(std::string(mac) + " " + ip);
  EXPECT_EQ(seen,
            (std::set<std::string>{"00:11:22:33:44:AA 10.0.0.5", "00:11:22:33:44:0B 10.0.0.6"}));
  EXPECT_EQ(cursor, 2u);
  cursor = 0;
  EXPECT_FALSE(PLRNetCfgEnumDHCPMACToIP(db_, 8, &cursor, mac, 17, ip, 16) ||
               PLRNetCfgEnumDHCPMACToIP(db_, 8, &cursor, mac, 18, ip, 8) ||
               PLRNetCfgEnumDHCPMACToIP(db_, 9, &cursor, mac, 18, ip, 16));
}

// The adapters mapped to a vnet (or to every other vnet), as a list.
TEST_F(CacheTest, HostAdaptersForAVnet) {
  Open(
      "add_bridge_mapping eth0 0\nadd_bridge_mapping eth1 0\nadd_bridge_mapping eth2 2\n"
      "add_bridge_mapping eth3 -1\n");
  for (auto [vnet, exclude, names] : std::initializer_list<std::tuple<uint32_t, bool, const char*>>{
           {0, false, "eth0 0,eth1 0,"},
           {PLR_VNET_NONE, false, "eth3 -1,"},
           {7, false, ""},
           {PLR_VNET_ALL, false, "eth0 0,eth1 0,eth2 2,eth3 -1,"},
           {0, true, "eth2 2,eth3 -1,"}}) {
    uint32_t count = 99;
    PLR_HostAdapter* list = reinterpret_cast<PLR_HostAdapter*>(1);
    ASSERT_TRUE(PLRNetCfgLookupHostAdaptersForVnet(db_, vnet, &count, &list, exclude));
    std::set<std::string> seen;
    for (PLR_HostAdapter* e = list; e != nullptr; e = e->next)
      seen.insert(e->name + (" " + std::to_string(static_cast<int32_t>(e->netId.vnet)) + ","));
    EXPECT_EQ(seen.size(), count);
    EXPECT_EQ(std::accumulate(seen.begin(), seen.end(), std::string()), names) << vnet;
    PLRFreeHostAdapList(&list);
  }
  EXPECT_FALSE(PLRNetCfgLookupHostAdaptersForVnet(db_, 0, nullptr, nullptr, false));
  int32_t vnet = 0;
  EXPECT_TRUE(PLRNetCfgLookupVnetForHostAdapter(db_, "eth3", &vnet) && vnet == -1);
  EXPECT_FALSE(PLRNetCfgLookupVnetForHostAdapter(db_, "eth9", &vnet));
}

}  // namespace
}  // namespace plr::test
