// The compacting unload: the rewritten file's order and bytes, what it
// leaves out, and that a failure at any step keeps the journal intact.
#include <dirent.h>
#include <errno.h>
#include <sys/stat.h>

#include "base/sys-util.h"
#include "tests/netcfg/netcfg_util.h"

namespace plr::test {
namespace {

// Names in /etc/tarsis besides the database and its lock file.
std::vector<std::string> StrayFiles() {
  std::vector<std::string> out;
  DIR* dir = opendir("/etc/tarsis");
  if (dir == nullptr) return out;
  while (dirent* e = readdir(dir)) {
    std::string name = e->d_name;
    if (name != "." && name != ".." && name != "networking" && name != "networking.lck" &&
        name != "config")
      out.push_back(name);
  }
  closedir(dir);
  return out;
}

// A cache changed in every way, unloaded with compaction.
class Compaction : public ::testing::Test {
 protected:
  void SetUp() override {
    WriteProductConfig();  // BINDIR is in the cache but never written
    WriteDatabase(
        "answer VNET_8_NAT yes\n"
        "answer VNET_1_HOSTONLY_SUBNET 192.168.56.0\n"
        "add_bridge_mapping eth9 -1\n"
        "add_nat_prefix 8 fd00:1::/64\n");
    chmod(kDatabasePath, 0600);
    db_ = LoadCache();
    ASSERT_NE(db_, nullptr);
    ASSERT_TRUE(PLRNetCfgAddAnswerString(db_, "VNET_1_DISPLAY_NAME", "kavix1"));
    ASSERT_TRUE(PLRNetCfgAddAnswerString(db_, "VNET_1_HOSTONLY_SUBNET", "192.168.57.0"));
    ASSERT_TRUE(PLRNetCfgAddAnswerString(db_, "VNET_1_DHCP", "yes"));
    ASSERT_TRUE(PLRNetCfgAddNATPortFwd(db_, 8, false, 53, "192.168.120.128", 53, nullptr, false));
    ASSERT_TRUE(
        PLRNetCfgAddNATPortFwd(db_, 8, true, 443, "192.168.120.128", 443, "web server", false));
    ASSERT_TRUE(PLRNetCfgAddNATPortFwd(db_, 8, true, 22, "192.168.120.129", 22, nullptr, false));
    ASSERT_TRUE(PLRNetCfgAddNATPortFwd(db_, 2, true, 9000, "10.0.0.2", 9, nullptr, false));
    ASSERT_TRUE(PLRNetCfgAddDHCPMACToIP(db_, 8, "02:7a:3e:2a:10:01", "192.168.120.130", false));
    ASSERT_TRUE(PLRNetCfgAddDHCPMACToIP(db_, 3, "02:7a:3e:2a:10:02", "10.0.3.2", false));
    ASSERT_TRUE(PLRNetCfgAddHostAdapterMapping(db_, "eth1", 0, false));
    ASSERT_TRUE(PLRNetCfgAddHostAdapterMapping(db_, "eth0", 0, false));
    ASSERT_TRUE(PLRNetCfgAddHostAdapterMapping(db_, "br5", 5, false));
    ASSERT_TRUE(PLRNetCfgRemoveAnswer(db_, "VNET_8_NAT"));
  }
  void TearDown() override {
    sys::ClearFaults();
    if (db_ != nullptr) PLRNetCfgUnload(&db_, false);
  }

  LogCapture log_;
  PLRNetworkConfigurationDB* db_ = nullptr;
};

TEST_F(Compaction, RewritesSortedAddRecordsOnly) {
  std::string state = StateOf(db_);
  ASSERT_TRUE(PLRNetCfgUnload(&db_, true));
  EXPECT_EQ(ReadFile(kDatabasePath),
            "VERSION=1,0\n"
            "answer VNET_1_DHCP yes\n"
            "answer VNET_1_DISPLAY_NAME kavix1\n"
            "answer VNET_1_HOSTONLY_SUBNET 192.168.57.0\n"
            "add_nat_portfwd 2 tcp 9000 10.0.0.2 9\n"
            "add_nat_portfwd 8 tcp 22 192.168.120.129 22\n"
            "add_nat_portfwd 8 tcp 443 192.168.120.128 443 web server\n"
            "add_nat_portfwd 8 udp 53 192.168.120.128 53\n"
            "add_dhcp_mac_to_ip 3 02:7A:3E:2A:10:02 10.0.3.2\n"
            "add_dhcp_mac_to_ip 8 02:7A:3E:2A:10:01 192.168.120.130\n"
            "add_bridge_mapping eth9 -1\n"
            "add_bridge_mapping eth0 0\n"
            "add_bridge_mapping eth1 0\n"
            "add_bridge_mapping br5 5\n");
  EXPECT_TRUE(log_.Has("Records of type: 1, count 3 written to database file"));
  EXPECT_TRUE(log_.Has("Records of type: 3, count 4 written to database file"));
  EXPECT_TRUE(log_.Has("Records of type: 5, count 2 written to database file"));
  EXPECT_TRUE(log_.Has("Records of type: 7, count 4 written to database file"));
  EXPECT_TRUE(log_.Has("Renamed temp file: /etc/tarsis/.networking."));
  // Prefixes are not carried over by a rewrite; everything else replays the same.
  std::string withoutPrefix = state;
  withoutPrefix.erase(withoutPrefix.find("X 8 fd00:1::/64\n"), 16);
  EXPECT_EQ(StateOfFile(), withoutPrefix);
  struct stat st;
  ASSERT_EQ(stat(kDatabasePath, &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);  // the permissions of the old file
  EXPECT_TRUE(StrayFiles().empty());
}

TEST_F(Compaction, WithoutCompactOrChangesTheJournalStays) {
  std::string journal = ReadFile(kDatabasePath);
  ASSERT_TRUE(PLRNetCfgUnload(&db_, false));
  EXPECT_EQ(ReadFile(kDatabasePath), journal);
}

struct Fault {
  sys::Op op;
  unsigned nth;
  const char* message;
};

class CompactionFault : public Compaction, public ::testing::WithParamInterface<Fault> {};

TEST_P(CompactionFault, KeepsTheJournalAndRemovesTheTemporaryFile) {
  const Fault& f = GetParam();
  std::string journal = ReadFile(kDatabasePath);
  sys::ClearFaults();
  sys::FailNth(f.op, f.nth, EIO);
  ASSERT_TRUE(PLRNetCfgUnload(&db_, true));  // an unload always succeeds
  sys::ClearFaults();
  EXPECT_TRUE(log_.Has(f.message)) << log_.Text();
  EXPECT_EQ(ReadFile(kDatabasePath), journal);
  EXPECT_TRUE(StrayFiles().empty());
}

INSTANTIATE_TEST_SUITE_P(
    EveryStep, CompactionFault,
    ::testing::Values(
        Fault{sys::Op::kOpen, 1, "Failed to lock config database file, error: Input/output error"},
        Fault{sys::Op::kOpen, 2, "Failed to write to temp database file: /etc/tarsis/.networking."},
        Fault{sys::Op::kWrite, 1, "Failed to write initialization data into file: "},
        Fault{sys::Op::kWrite, 2, "Failed to write record of type: 1 to  database file"},
        Fault{sys::Op::kWrite, 3, "Failed to write record of type: 3 to  database file"},
        Fault{sys::Op::kWrite, 5, "Failed to write record of type: 7 to  database file"},
        Fault{sys::Op::kFsync, 1, "Failed to flush database file: "},
        Fault{sys::Op::kRename, 1, "Failed to reame: /etc/tarsis/.networking."}),
    [](const ::testing::TestParamInfo<Fault>& info) {
      return "Case" + std::to_string(info.index);
    });

TEST(CompactionLarge, HundredThousandRecordsRoundTrip) {
  WriteDatabase();
  PLRNetworkConfigurationDB* db = LoadCache();
  ASSERT_NE(db, nullptr);
  db->readOnly = true;  // fill the cache quickly, without journal records
  for (uint32_t i = 0; i < 100000; ++i) {
    uint32_t vnet = i % 256;
    uint16_t port = static_cast<uint16_t>(1 + i / 256);
    if (i % 2 == 0)
      ASSERT_TRUE(PLRNetCfgAddNATPortFwd(db, vnet, true, port, "10.1.2.3", port, "d", false));
    else
      ASSERT_TRUE(PLRNetCfgAddAnswerString(db, ("KEY_" + std::to_string(i)).c_str(), "value"));
  }
  db->readOnly = false;
  std::string state = StateOf(db);
  ASSERT_TRUE(PLRNetCfgUnload(&db, true));
  EXPECT_EQ(StateOfFile(), state);
}

}  // namespace
}  // namespace plr::test
