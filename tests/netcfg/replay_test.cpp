// Loading: the version line rules, the replay of every record type, every
// kind of malformed record (each costs only itself and its log lines), and
// loads of every prefix of a journal written by a sequence of changes.
#include <sys/stat.h>

#include "netcfg/tables.h"
#include "pelorus/vnet.h"
#include "tests/netcfg/netcfg_util.h"

namespace plr::test {
namespace {

constexpr const char* kBackupPath = "/tmp/networking.bak";

// Each first line decides whether a database (or backup) loads, with its log line.
TEST(VersionLine, DecidesTheLoad) {
  const char* kMajor = "Cannot parse major version of database file, aborting parsing";
  const char* kMinor = "Cannot parse or invalid minor version of database file, aborting parsing";
  const char* kNone = "Database file must have version number, aborting";
  const struct {
    const char* firstLine;
    bool backup, loads;
    const char* message;
  } cases[] = {
      {"VERSION=1,0", false, true, "Database file, Major version: 1, Minor version: 0"},
      {"VERSION=1,7", false, true, "Major version: 1, Minor version: 7"},
      {"VERSION=0,3", false, true, "Major version: 0, Minor version: 3"},
      {"VERSION=2,0", false, false, "Unsupported major version, supported: 1, actual: 2"},
      {"VERSION=1", false, false, kMinor},
      {"VERSION=1,-1", false, false, kMinor},
      {"VERSION=x,0", false, false, kMajor},
      {"VERSION=-1,0", false, false, kMajor},
      {"version=1,0", false, false, kNone},
      {"BACKUP_VERSION=1,0", false, false, kNone},
      {"VERSION=1,0", true, true,
       "Version line not found in database file, defaulting to legacy version"},
      {"BACKUP_VERSION=1,0", true, true, "Major version: 1, Minor version: 0"},
      {"BACKUP_VERSION=3,0", true, false, "Unsupported major version"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.firstLine);
    LogCapture log;
    const char* path = c.backup ? kBackupPath : kDatabasePath;
    WriteFile(path, std::string(c.firstLine) + "\nanswer K v\n");
    PLRNetworkConfigurationDB* db = LoadCache(path, c.backup, false);
    EXPECT_EQ(db != nullptr, c.loads);
    EXPECT_TRUE(log.Has(c.message)) << log.Text();
    if (db == nullptr) {
      EXPECT_TRUE(
          log.Has(std::string("Failed to load database cache with contents of file: ") + path));
      continue;
    }
    EXPECT_EQ(StateOf(db), "A K=v\n");
    PLRNetCfgUnload(&db, false);
  }
}

// A missing file is refused before anything else; an empty file or one
// starting with a record fails a database but is a legacy backup.
TEST(VersionLineRules, MissingEmptyAndUnversionedFiles) {
  LogCapture log;
  EXPECT_EQ(LoadCache("/etc/tarsis/nothing-here"), nullptr);
  EXPECT_TRUE(log.Has("Import file does not exist"));
  EXPECT_FALSE(log.Has("Failed to load database cache"));
  WriteFile(kDatabasePath, "");
  EXPECT_EQ(LoadCache(), nullptr);
  EXPECT_TRUE(log.Has("Database file cannot be empty, aborting"));
  WriteFile(kDatabasePath, "answer VNET_1_DHCP yes\n");
  EXPECT_EQ(LoadCache(), nullptr);
  EXPECT_TRUE(log.Has("Database file must have version number, aborting"));

  for (const char* legacy : {"", "answer VNET_1_DHCP yes\nanswer VNET_1_NAT no\n"}) {
    WriteFile(kBackupPath, legacy);
    PLRNetworkConfigurationDB* db = LoadCache(kBackupPath, true, true);
    ASSERT_NE(db, nullptr) << legacy;
    EXPECT_EQ(db->majorVersion, 0u);
    EXPECT_EQ(db->minorVersion, 0u);
    EXPECT_TRUE(db->backup);
    EXPECT_EQ(StateOf(db), *legacy ? "A VNET_1_DHCP=yes\nA VNET_1_NAT=no\n" : "");
    PLRNetCfgUnload(&db, false);
  }
}

TEST(Replay, EveryRecordTypeIsReplayedInOrder) {
  WriteDatabase(
      "answer VNET_1_DISPLAY_NAME my net\n"
      "ANSWER VNET_1_DHCP yes\n"
      "answer GONE x\n"
      "Remove_Answer GONE\n"
      "add_nat_portfwd 8 TCP 443 192.168.120.128 443 web server\n"
      "add_nat_portfwd 8 udp 53 192.168.120.128 53\n"
      "add_nat_portfwd 8 udp 54 192.168.120.128 54\n"
      "remove_nat_portfwd 8 udp 54\n"
      "add_dhcp_mac_to_ip 8 02:7a:3e:2a:10:01 192.168.120.130\n"
      "add_dhcp_mac_to_ip 8 02:7a:3e:2a:10:02 192.168.120.131\n"
      "remove_dhcp_mac_to_ip 8 02:7A:3E:2A:10:02 anything after the mac\n"
      "add_bridge_mapping eth0 0\n"
      "add_bridge_mapping eth1 -1\n"
      "add_bridge_mapping eth2 5\n"
      "remove_bridge_mapping eth2\n"
      "add_nat_prefix 8 fd00:1::/64\n"
      "add_nat_prefix 8 fd00:2::/64\n"
      "remove_nat_prefix 8 fd00:2::/64\n"
      "unknown_keyword is ignored silently\n");
  LogCapture log;
  PLRNetworkConfigurationDB* db = LoadCache();
  ASSERT_NE(db, nullptr);
  EXPECT_EQ(StateOf(db),
            "A VNET_1_DHCP=yes\n"
            "A VNET_1_DISPLAY_NAME=my net\n"
            "B eth0 0\n"
            "B eth1 -1\n"
            "D 8 02:7A:3E:2A:10:01 192.168.120.130\n"
            "P 8 tcp 443 192.168.120.128 443 [web server]\n"
            "P 8 udp 53 192.168.120.128 53 []\n"
            "X 8 fd00:1::/64\n");
  EXPECT_FALSE(log.Has("Failed to parse record"));
  EXPECT_TRUE(log.Has("Database cache loaded with contents of file: /etc/tarsis/networking"));
  // Vnet and field position of VNET_<n>_<FIELD> keys travel with the entry.
  const auto& entry = db->answers->at("VNET_1_DHCP");
  EXPECT_EQ(entry.vnet, 1);
  EXPECT_EQ(std::string("VNET_1_DHCP").substr(entry.fieldOffset), "DHCP");
  PLRNetCfgUnload(&db, false);
}

struct BadRecord {
  const char* line;
  const char* reason;  // the parse function's own line
};

// Every malformed record is skipped with its reason and the line-number
// message; the good records around it still load.
TEST(Replay, MalformedRecordsCostOnlyThemselves) {
  const BadRecord bad[] = {
      {"", nullptr},
      {"answer", "Failed to extract key"},
      {"answer KEY_ONLY", "Empty value for key"},
      {"remove_answer NOT_THERE", "Failed to remove from hash table"},
      {"add_nat_portfwd 256 tcp 80 10.0.0.2 80",
       "Failed to extract vnet number or invalid vnet number"},
      {"add_nat_portfwd x tcp 80 10.0.0.2 80",
       "Failed to extract vnet number or invalid vnet number"},
      {"add_nat_portfwd 8 icmp 80 10.0.0.2 80", "Failed to parse tcp/udp"},
      {"add_nat_portfwd 8 tcp 0 10.0.0.2 80", "Failed to parse host port"},
      {"add_nat_portfwd 8 tcp 65536 10.0.0.2 80", "Failed to parse host port"},
      {"add_nat_portfwd 8 tcp 80 10.0.0.300 80",
       "Failed to parse VM IP address or invalid address"},
      {"add_nat_portfwd 8 tcp 80", "Failed to parse VM IP address or invalid address"},
      {"add_nat_portfwd 8 tcp 80 10.0.0.2 0", "Failed to parse host port"},
      {"add_nat_portfwd 8 tcp 80 10.0.0.2", "Failed to parse host port"},
      {"remove_nat_portfwd 8 tcp 81", "Failed to remove NAT port forward from hash table"},
      {"add_dhcp_mac_to_ip 300 00:11:22:33:44:55 10.0.0.2",
       "Failed to parse vnet number or invalid vnet number"},
      {"add_dhcp_mac_to_ip 8 00:11:22:33:44 10.0.0.2",
       "Failed to parse MAC address or invalid MAC address"},
      {"add_dhcp_mac_to_ip 8 00:11:22:33:44:55",
       "Failed to parse IP address or invalid IP address"},
      {"add_dhcp_mac_to_ip 8 00:11:22:33:44:55 10.0.0.2 x",
       "Failed to parse IP address or invalid IP address"},
      {"remove_dhcp_mac_to_ip 8 00:11:22:33:44:66",
       "Failed to remove DHCP MAC to IP mapping in hash table"},
      {"add_bridge_mapping eth1 300", "Failed to parse vnet number or invalid vnet number"},
      {"add_bridge_mapping eth1 -2", "Failed to parse vnet number or invalid vnet number"},
      {"add_bridge_mapping", "Failed to parse host adapter or invalid host adpater name"},
      {"remove_bridge_mapping nosuch", "Failed to remove bridge mapping in hash table"},
      {"add_nat_prefix 8 fd00::", "Failed to parse prefix or invalid prefix"},
      {"add_nat_prefix 8 fd00::/20", "Failed to parse prefix or invalid prefix"},
      {"add_nat_prefix 999 fd00::/64", "Failed to parse vnet number or invalid vnet number"},
      {"remove_nat_prefix 8 fd00:9::/64", "Failed to remove prefix in hash table"},
  };
  std::string journal = "answer GOOD_FIRST 1\nadd_bridge_mapping eth0 0\n";
  for (const BadRecord& b : bad) journal += std::string(b.line) + "\n";
  journal += "answer GOOD_LAST 2\n";
  WriteDatabase(journal);
  LogCapture log;
  PLRNetworkConfigurationDB* db = LoadCache();
  ASSERT_NE(db, nullptr);
  EXPECT_EQ(StateOf(db), "A GOOD_FIRST=1\nA GOOD_LAST=2\nB eth0 0\n");
  for (size_t i = 0; i < std::size(bad); ++i) {
    std::string line = bad[i].line;
    size_t space = line.find(' ');
    std::string rest = space == std::string::npos ? "" : line.substr(space + 1);
    if (line.empty()) rest = "";
    unsigned lineNumber = static_cast<unsigned>(i) + 4;  // version line and two good records first
    EXPECT_TRUE(log.HasLine("PLRNetCfgLoad", "Failed to parse record at line #: " +
                                                 std::to_string(lineNumber) + ", data: " + rest))
        << line;
    if (bad[i].reason != nullptr) {
      EXPECT_TRUE(log.Has(bad[i].reason)) << line;
    }
  }
  EXPECT_EQ(log.Count("Failed to parse record at line #: "), static_cast<int>(std::size(bad)));
  PLRNetCfgUnload(&db, false);
}

TEST(Replay, RemoveOnTablesThatDoNotExistYet) {
  WriteDatabase("remove_answer NONE\nremove_bridge_mapping eth0\n");
  LogCapture log;
  PLRNetworkConfigurationDB* db = LoadCache();
  ASSERT_NE(db, nullptr);
  EXPECT_TRUE(log.HasLine("DictRecordParseFunct", "Cannot delete from empty hash table"));
  EXPECT_TRUE(log.HasLine("BridgeMappingRecordParseFunct",
                          "Cannot delete mapping entry from empty mapping list"));
  EXPECT_EQ(log.Count("Failed to parse record at line #: "), 1);  // only the bridge record
  PLRNetCfgUnload(&db, false);
}

TEST(Replay, DescriptionsAndLongLines) {
  std::string desc127(127, 'a'), desc128(128, 'b');
  WriteDatabase("add_nat_portfwd 1 tcp 1 10.0.0.2 1 " + desc127 + "\n" +
                "add_nat_portfwd 1 tcp 2 10.0.0.2 2 " + desc128 + "\n" + "answer LONG " +
                std::string(1019, 'x') + "\n" +                   // 1031 characters: refused
                "answer FITS " + std::string(1011, 'y') + "\n" +  // 1023 characters: kept
                "answer AFTER ok\n");
  LogCapture log;
  PLRNetworkConfigurationDB* db = LoadCache();
  ASSERT_NE(db, nullptr);
  EXPECT_TRUE(log.HasLine("NatFwdRecordParseFunct", "Discarding description since it is too long"));
  EXPECT_EQ(NetCfgFindPortFwd(db, 1, true, 1)->description, desc127);
  EXPECT_EQ(NetCfgFindPortFwd(db, 1, true, 2)->description, "");
  const char* value = nullptr;
  EXPECT_FALSE(PLRNetCfgGetAnswerString(db, "LONG", &value));
  ASSERT_TRUE(PLRNetCfgGetAnswerString(db, "FITS", &value));
  EXPECT_EQ(strlen(value), 1011u);
  EXPECT_TRUE(PLRNetCfgGetAnswerString(db, "AFTER", &value));
  EXPECT_TRUE(log.Has("Failed to parse record at line #: 4, data: answer LONG xxx"));
  PLRNetCfgUnload(&db, false);
}

TEST(Replay, BinDirComesFromTheProductConfiguration) {
  WriteDatabase("answer BINDIR /from/the/file\n");
  LogCapture log;
  PLRNetworkConfigurationDB* db = LoadCache();
  ASSERT_NE(db, nullptr);
  EXPECT_TRUE(log.Has("Failed to load product config file: /etc/tarsis/config, error: "));
  PLRNetCfgUnload(&db, false);

  WriteFile("/etc/tarsis/config", "# no bindir here\nother = 1\n");
  db = LoadCache();
  ASSERT_NE(db, nullptr);
  EXPECT_TRUE(log.Has("Value not found for bindir"));
  PLRNetCfgUnload(&db, false);

  WriteProductConfig();
  db = LoadCache();
  ASSERT_NE(db, nullptr);
  const char* value = nullptr;
  ASSERT_TRUE(PLRNetCfgGetAnswerString(db, "BINDIR", &value));
  EXPECT_STREQ(value, FixtureBinDir());
  PLRNetCfgUnload(&db, false);
}

TEST(Replay, DefaultCacheIsLoadedOnceAndUnloadResetsTheBridgeVnet) {
  WriteDatabase("answer K v\n");
  LogCapture log;
  ASSERT_TRUE(PLRNetCfgLoad(kDatabasePath, nullptr, false, false));
  ASSERT_TRUE(PLRNetCfgLoad(kDatabasePath, nullptr, false, false));
  EXPECT_TRUE(log.Has("Network configuration database cache is already loaded"));
  const char* value = nullptr;
  ASSERT_TRUE(PLRNetCfgGetAnswerString(nullptr, "K", &value));
  EXPECT_STREQ(value, "v");
  plrDefaultBridgeVnet = 3;
  EXPECT_TRUE(PLRNetCfgUnload(nullptr, true));
  EXPECT_EQ(plrDefaultBridgeVnet, PLR_VNET_ALL);
  EXPECT_FALSE(PLRNetCfgGetAnswerString(nullptr, "K", &value));
}

// A journal written by changes of every kind, cut at every byte: a load never
// crashes and gives the state after the last complete record, or that state
// changed in at most one entry by the partial last record.
TEST(CrashSafety, EveryPrefixOfAJournalLoadsToACompleteState) {
  WriteDatabase();
  PLRNetworkConfigurationDB* db = LoadCache();
  ASSERT_NE(db, nullptr);
  std::vector<std::pair<size_t, std::string>> checkpoints;  // file size, state
  auto mark = [&] { checkpoints.emplace_back(ReadFile(kDatabasePath).size(), StateOf(db)); };
  mark();
  ASSERT_TRUE(PLRNetCfgAddAnswerString(db, "VNET_1_HOSTONLY_SUBNET", "192.168.56.0"));
  mark();
  ASSERT_TRUE(PLRNetCfgAddNATPortFwd(db, 8, true, 443, "192.168.120.128", 443, "web", false));
  mark();
  ASSERT_TRUE(PLRNetCfgAddDHCPMACToIP(db, 8, "02:7a:3e:2a:10:01", "192.168.120.130", false));
  mark();
  ASSERT_TRUE(PLRNetCfgAddHostAdapterMapping(db, "eth0", 0, false));
  mark();
  ASSERT_TRUE(PLRNetCfgAddNATPrefix(db, 8, "fd00:1::/64"));
  mark();
  ASSERT_TRUE(PLRNetCfgRemoveAnswer(db, "VNET_1_HOSTONLY_SUBNET"));
  mark();
  ASSERT_TRUE(PLRNetCfgRemoveNATPortFwd(db, 8, true, 443));
  mark();
  ASSERT_TRUE(PLRNetCfgRemoveDHCPMACToIP(db, 8, "02:7a:3e:2a:10:01"));
  mark();
  ASSERT_TRUE(PLRNetCfgRemoveHostAdapterMapping(db, "eth0"));
  mark();
  ASSERT_TRUE(PLRNetCfgRemoveNATPrefix(db, 8, "fd00:1::/64"));
  mark();
  ASSERT_TRUE(PLRNetCfgAddAnswerString(db, "VNET_1_DISPLAY_NAME", "last one"));
  mark();
  PLRNetCfgUnload(&db, false);
  const std::string journal = ReadFile(kDatabasePath);

  auto lines = [](const std::string& s) {
    std::multiset<std::string> out;
    for (size_t b = 0, e; b < s.size(); b = e + 1)
      out.insert(s.substr(b, (e = s.find('\n', b)) - b));
    return out;
  };
  for (size_t cut = 0; cut <= journal.size(); ++cut) {
    WriteFile(kDatabasePath, journal.substr(0, cut));
    PLRNetworkConfigurationDB* partial = LoadCache(kDatabasePath, false, true);
    if (cut < std::string("VERSION=1,0").size()) {
      EXPECT_EQ(partial, nullptr) << cut;
      continue;
    }
    ASSERT_NE(partial, nullptr) << cut;
    std::string state = StateOf(partial);
    PLRNetCfgUnload(&partial, false);
    size_t last = 0;
    while (last + 1 < checkpoints.size() && checkpoints[last + 1].first <= cut) ++last;
    const std::string& complete = checkpoints[last].second;
    if (state == complete) continue;
    // Otherwise the partial record changed exactly one entry.
    auto a = lines(complete), b = lines(state);
    std::vector<std::string> onlyA, onlyB;
    std::set_difference(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(onlyA));
    std::set_difference(b.begin(), b.end(), a.begin(), a.end(), std::back_inserter(onlyB));
    EXPECT_LE(onlyA.size(), 1u) << "cut " << cut;
    EXPECT_LE(onlyB.size(), 1u) << "cut " << cut;
    EXPECT_NE(cut, checkpoints[last].first) << "a complete journal must load exactly";
  }
}

}  // namespace
}  // namespace plr::test
