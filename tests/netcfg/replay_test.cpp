// Loading: the version line, the replay of every record type, malformed
// records (each costs only itself), BINDIR and the default cache.
#include "pelorus/vnet.h"
#include "tests/netcfg/netcfg_util.h"

namespace plr::test {
namespace {

constexpr const char* kBackupPath = "/tmp/networking.bak";

TEST(Load, FirstLineDecidesWhetherADatabaseOrBackupLoads) {
  const struct {
    const char* text;
    bool backup, loads;
    uint32_t major = 0, minor = 0;
  } kRows[] = {
      {"VERSION=1,0\n", false, true, 1, 0},
      {"VERSION=1,7\n", false, true, 1, 7},
      {"VERSION=0,3\n", false, true, 0, 3},
      {"VERSION=2,0\n", false, false},
      {"VERSION=1\n", false, false},
      {"VERSION=1,-1\n", false, false},
      {"VERSION=x,0\n", false, false},
      {"VERSION=-1,0\n", false, false},
      {"version=1,0\n", false, false},
      {"BACKUP_VERSION=1,0\n", false, false},
      {"", false, false},
      {"answer A b\n", false, false},
      {"VERSION=1,0\n", true, true, 0, 0},
      {"BACKUP_VERSION=1,0\n", true, true, 1, 0},
      {"BACKUP_VERSION=3,0\n", true, false},
      {"", true, true, 0, 0},
      {"answer A b\n", true, true, 0, 0},
  };
  LogToFile log;
  for (const auto& r : kRows) {
    SCOPED_TRACE(std::string(r.text) + (r.backup ? " backup" : ""));
    const char* path = r.backup ? kBackupPath : kDatabasePath;
    WriteFile(path, std::string(r.text) + "answer K v\n");
    PLRNetworkConfigurationDB* db = LoadCache(path, r.backup, false);
    ASSERT_EQ(db != nullptr, r.loads);
    if (db == nullptr) continue;
    EXPECT_EQ(db->majorVersion, r.major);
    EXPECT_EQ(db->minorVersion, r.minor);
    EXPECT_EQ(db->backup, r.backup);
    EXPECT_EQ(StateOf(db),
              std::string(r.text).starts_with("answer") ? "A A=b\nA K=v\n" : "A K=v\n");
    PLRNetCfgUnload(&db, false);
  }
  EXPECT_EQ(LoadCache("/etc/tarsis/nothing-here"), nullptr);
  EXPECT_EQ(LogCount("Failed to load database cache with contents of file: "), 10u);
}

TEST(Load, ReplaysEveryRecordTypeInOrder) {
  WriteDatabase(
      "answer VNET_1_DISPLAY_NAME my net\nANSWER VNET_1_DHCP yes\n"
      "answer GONE x\nRemove_Answer GONE\n"
      "add_nat_portfwd 8 TCP 443 192.168.120.128 443 web server\n"
      "add_nat_portfwd 8 udp 53 192.168.120.128 53\nadd_nat_portfwd 8 udp 54 192.168.120.128 54\n"
      "remove_nat_portfwd 8 udp 54\n"
      "add_dhcp_mac_to_ip 8 02:7a:3e:2a:10:01 192.168.120.130\n"
      "add_dhcp_mac_to_ip 8 02:7a:3e:2a:10:02 192.168.120.131\n"
      "remove_dhcp_mac_to_ip 8 02:7A:3E:2A:10:02 anything after the mac\n"
      "add_bridge_mapping eth0 0\nadd_bridge_mapping eth1 -1\nadd_bridge_mapping eth2 5\n"
      "remove_bridge_mapping eth2\n"
      "add_nat_prefix 8 fd00:1::/64\nadd_nat_prefix 8 fd00:2::/64\nremove_nat_prefix 8 "
      "fd00:2::/64\n"
      "add_nat_portfwd 1 tcp 1 10.0.0.2 1 " +
      std::string(127, 'a') + "\n" + "add_nat_portfwd 1 tcp 2 10.0.0.2 2 " + std::string(128, 'b') +
      "\n" + "answer LONG " + std::string(1019, 'x') + "\n" +  // 1031 characters: refused
      "answer FITS " + std::string(1011, 'y') + "\n" +         // 1023 characters: kept
      "unknown_keyword is ignored\n");
  PLRNetworkConfigurationDB* db = LoadCache();
  ASSERT_NE(db, nullptr);
  EXPECT_EQ(StateOf(db),
            "A FITS=" + std::string(1011, 'y') +
                "\nA VNET_1_DHCP=yes\nA VNET_1_DISPLAY_NAME=my net\n"
                "B eth0 0\nB eth1 -1\nD 8 02:7A:3E:2A:10:01 192.168.120.130\n"
                "P 1 tcp 1 10.0.0.2 1 [" +
                std::string(127, 'a') +
                "]\nP 1 tcp 2 10.0.0.2 2 []\n"
                "P 8 tcp 443 192.168.120.128 443 [web server]\nP 8 udp 53 192.168.120.128 53 []\n"
                "X 8 fd00:1::/64\n");
  // Vnet and field position of VNET_<n>_<FIELD> keys travel with the entry.
  const auto& entry = db->answers->at("VNET_1_DHCP");
  EXPECT_EQ(entry.vnet, 1);
  EXPECT_EQ(std::string("VNET_1_DHCP").substr(entry.fieldOffset), "DHCP");
  EXPECT_EQ(db->answers->at("FITS").vnet, -1);
  PLRNetCfgUnload(&db, false);
}

// Every malformed record is skipped; the good records around it still load.
TEST(Load, MalformedRecordsCostOnlyThemselves) {
  const char* kBad[] = {
      "",
      "answer",
      "answer KEY_ONLY",
      "remove_answer NOT_THERE",
      "add_nat_portfwd 256 tcp 80 10.0.0.2 80",
      "add_nat_portfwd x tcp 80 10.0.0.2 80",
      "add_nat_portfwd 8 icmp 80 10.0.0.2 80",
      "add_nat_portfwd 8 tcp 0 10.0.0.2 80",
      "add_nat_portfwd 8 tcp 65536 10.0.0.2 80",
      "add_nat_portfwd 8 tcp 80 10.0.0.300 80",
      "add_nat_portfwd 8 tcp 80",
      "add_nat_portfwd 8 tcp 80 10.0.0.2 0",
      "add_nat_portfwd 8 tcp 80 10.0.0.2",
      "remove_nat_portfwd 8 tcp 81",
      "add_dhcp_mac_to_ip 300 00:11:22:33:44:55 10.0.0.2",
      "add_dhcp_mac_to_ip 8 00:11:22:33:44 10.0.0.2",
      "add_dhcp_mac_to_ip 8 00:11:22:33:44:55",
      "add_dhcp_mac_to_ip 8 00:11:22:33:44:55 10.0.0.2 x",
      "remove_dhcp_mac_to_ip 8 00:11:22:33:44:66",
      "add_bridge_mapping eth1 300",
      "add_bridge_mapping eth1 -2",
      "add_bridge_mapping",
      "remove_bridge_mapping nosuch",
      "add_nat_prefix 8 fd00::",
      "add_nat_prefix 8 fd00::/20",
      "add_nat_prefix 999 fd00::/64",
      "remove_nat_prefix 8 fd00:9::/64",
  };
  std::string journal = "answer GOOD_FIRST 1\nadd_bridge_mapping eth0 0\n";
  for (const char* line : kBad) journal += std::string(line) + "\n";
  WriteDatabase(journal + "answer GOOD_LAST 2\n");
  LogToFile log;
  PLRNetworkConfigurationDB* db = LoadCache();
  ASSERT_NE(db, nullptr);
  EXPECT_EQ(StateOf(db), "A GOOD_FIRST=1\nA GOOD_LAST=2\nB eth0 0\n");
  EXPECT_EQ(LogCount("Failed to parse record at line #: "), std::size(kBad));
  EXPECT_TRUE(LogHas("Failed to parse record at line #: 8, data: 256 tcp 80 10.0.0.2 80\n"));
  PLRNetCfgUnload(&db, false);
}

// BINDIR comes from the product configuration, a load without one still
// succeeds; the default cache is loaded once, and its unload resets the
// cached default bridge vnet.
TEST(Load, BinDirAndTheDefaultCache) {
  WriteDatabase("answer BINDIR /from/the/file\nanswer K v\n");
  ASSERT_TRUE(PLRNetCfgLoad(kDatabasePath, nullptr, false, false));
  WriteFile("/etc/tarsis/config", "# no bindir here\nother = 1\n");
  PLRNetworkConfigurationDB* db = LoadCache();
  ASSERT_NE(db, nullptr);
  PLRNetCfgUnload(&db, false);
  WriteProductConfig();
  WriteDatabase("answer K w\n");
  ASSERT_TRUE(PLRNetCfgLoad(kDatabasePath, nullptr, false, false));  // keeps the first
  const char* value = nullptr;
  ASSERT_TRUE(PLRNetCfgGetAnswerString(nullptr, "K", &value));
  EXPECT_STREQ(value, "v");
  ASSERT_TRUE(PLRNetCfgLoad(kDatabasePath, &db, false, false));
  ASSERT_TRUE(PLRNetCfgGetAnswerString(db, "BINDIR", &value));
  EXPECT_STREQ(value, FixtureBinDir());
  PLRNetCfgUnload(&db, false);
  plrDefaultBridgeVnet = 3;
  EXPECT_TRUE(PLRNetCfgUnload(nullptr, false));
  EXPECT_EQ(plrDefaultBridgeVnet, PLR_VNET_ALL);
  EXPECT_FALSE(PLRNetCfgGetAnswerString(nullptr, "K", &value));
}

}  // namespace
}  // namespace plr::test
