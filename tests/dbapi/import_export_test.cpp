// Creating, exporting, version checks and importing of whole databases.
#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "base/sys-util.h"
#include "pelorus.h"
#include "tests/support/sandbox.h"
#include "tests/support/vnet_util.h"

namespace plr {
namespace {

using test::FileExists;
using test::ReadFile;
using test::WriteFile;

constexpr const char* kBackup = "/tmp/backup";

// A database with one record of every kind that a rewrite keeps.
constexpr const char* kFullRecords =
    "answer VNET_8_NAT yes\n"
    "answer VNET_1_DISPLAY_NAME my net\n"
    "answer VNET_1_HOSTONLY_SUBNET 192.168.56.0\n"
    "add_nat_portfwd 8 udp 53 192.168.120.128 53\n"
    "add_nat_portfwd 8 tcp 443 192.168.120.128 443 web server\n"
    "add_dhcp_mac_to_ip 8 02:7a:3e:2a:10:01 192.168.120.130\n"
    "add_bridge_mapping eth0 0\n";

constexpr const char* kFullSorted =
    "answer VNET_1_DISPLAY_NAME my net\n"
    "answer VNET_1_HOSTONLY_SUBNET 192.168.56.0\n"
    "answer VNET_8_NAT yes\n"
    "add_nat_portfwd 8 tcp 443 192.168.120.128 443 web server\n"
    "add_nat_portfwd 8 udp 53 192.168.120.128 53\n"
    "add_dhcp_mac_to_ip 8 02:7A:3E:2A:10:01 192.168.120.130\n"
    "add_bridge_mapping eth0 0\n";

std::string Answer(const char* key) {
  const char* value = nullptr;
  if (!PLRNetCfgGetAnswerString(nullptr, key, &value)) return "<absent>";
  return value;
}

int32_t Mapping(const char* adapter) {
  int32_t vnet = 999;
  if (!PLRNetCfgLookupVnetForHostAdapter(nullptr, adapter, &vnet)) return 999;
  return vnet;
}

class WholeDatabase : public test::LoadedLibraryTest {};

TEST(CreateDatabase, WritesOnlyTheVersionLineOrNoFile) {
  test::LogWhileUnloaded();
  ASSERT_TRUE(PLRNetCfgCreateDB("/tmp/db", false));
  EXPECT_EQ(ReadFile("/tmp/db"), "VERSION=1,0\n");
  ASSERT_TRUE(PLRNetCfgCreateDB("/tmp/bk", true));
  EXPECT_EQ(ReadFile("/tmp/bk"), "BACKUP_VERSION=1,0\n");
  EXPECT_TRUE(test::LogHas("Created and initialized database backup file: /tmp/bk"));
  // A failed open or write leaves no file.
  sys::FailNth(sys::Op::kFopen, 1, EACCES);
  EXPECT_FALSE(PLRNetCfgCreateDB("/tmp/nodb", false));
  EXPECT_FALSE(FileExists("/tmp/nodb"));
  EXPECT_TRUE(test::LogHas("Failed to open file: /tmp/nodb, error: Permission denied"));
  sys::ClearFaults();
  sys::FailNth(sys::Op::kFsync, 1, EIO);
  EXPECT_FALSE(PLRNetCfgCreateDB("/tmp/nodb", false));
  EXPECT_FALSE(FileExists("/tmp/nodb"));
  EXPECT_TRUE(test::LogHas(
      "Failed to write initialization data into file: /tmp/nodberror: Input/output error"));
  sys::ClearFaults();
}

TEST(CheckVersion, OnlyReadableDatabaseVersionLinesPass) {
  test::LogWhileUnloaded();
  const struct {
    const char* text;
    bool ok;
  } cases[] = {
      {"VERSION=1,0\n", true},
      {"VERSION=1,7\nanswer A b\n", true},
      {"VERSION=0,3", true},
      {"BACKUP_VERSION=1,0\n", false},
      {"VERSION=2,0\n", false},
      {"VERSION=1\n", false},
      {"VERSIONX=1,0\n", false},
      {"answer VNET_1_DHCP yes\n", false},
      {"", false},
      {"VERSION=-1,0\n", false},
  };
  for (const auto& c : cases) {
    WriteFile("/tmp/v", c.text);
    EXPECT_EQ(PLRNetCfgCheckVersion("/tmp/v"), c.ok) << c.text;
  }
  EXPECT_FALSE(PLRNetCfgCheckVersion("/tmp/missing"));
  EXPECT_TRUE(test::LogHas("Cannot find version in database file"));
  EXPECT_TRUE(
      test::LogHas("Unable to open network configuration database file, error: No such "
                   "file or directory"));
}

TEST_F(WholeDatabase, ExportWritesSortedBackupAndTouchesNothingElse) {
  Load(kFullRecords);
  const std::string before = Database();
  ASSERT_TRUE(PLRNetCfgExportConfig(nullptr, "/tmp/exp", 0));
  EXPECT_EQ(ReadFile("/tmp/exp"), std::string("BACKUP_VERSION=1,0\n") + kFullSorted)
      << "BINDIR never leaves the library";
  EXPECT_EQ(Database(), before);
  EXPECT_FALSE(PLRNetCfgExportConfig(nullptr, "/tmp/exp2", 1)) << "flags are reserved";
  EXPECT_FALSE(FileExists("/tmp/exp2"));
  EXPECT_FALSE(PLRNetCfgExportConfig(nullptr, "/nonexistent/dir/file", 0));
  EXPECT_NE(test::LogText().find("Failed to write records to database file: /nonexistent/dir/file"),
            std::string::npos);
}

TEST_F(WholeDatabase, BufferExportMatchesCompactedFile) {
  Load(kFullRecords);
  char* buffer = nullptr;
  ASSERT_TRUE(PLRNetCfgExportConfigToBuffer(nullptr, &buffer, false, true));
  const std::string text(buffer);
  free(buffer);
  EXPECT_EQ(text, std::string("VERSION=1,0\n") + kFullSorted);
  ASSERT_TRUE(PLRNetCfgExportConfigToBuffer(nullptr, &buffer, true, false));
  EXPECT_EQ(memcmp(buffer, "BACKUP_VERSION=1,0\nanswer ", 26), 0);
  free(buffer);
  // A compacting unload writes the same bytes as the buffer.
  ASSERT_TRUE(PLRNetCfgAddAnswerString(nullptr, "VNET_2_MTU", "1400"));
  ASSERT_TRUE(PLRNetCfgExportConfigToBuffer(nullptr, &buffer, false, true));
  const std::string afterChange(buffer);
  free(buffer);
  PLR_Unload();
  EXPECT_EQ(Database(), afterChange);
}

// ---- Import ----

TEST_F(WholeDatabase, LegacyImportUpgradesFieldsAndDropsUnknownKeys) {
  Load("answer VNET_5_DHCP yes\n");
  WriteFile(kBackup,
            "answer VNET_3_HOSTONLY_HOSTADDR 192.168.3.1\n"
            "answer VNET_3_INTERFACE eth0\n"
            "answer VNET_3_DISPLAY_NAME net three\n"
            "answer VNET_4_HOSTONLY_HOSTADDR 10.1.2.3\n"
            "answer VNET_4_HOSTONLY_NETMASK 255.255.0.0\n"
            "answer FOO bar\n"
            "answer VNET_300_DHCP yes\n"
            "answer VNET_x_DHCP yes\n"
            "answer VNET_1_BOGUS x\n"
            "answer PLR_LOGLEVEL 0x7f\n"
            "add_bridge_mapping eth9 2\n");
  ASSERT_TRUE(PLRNetCfgImportConfig(kBackup, test::kDatabasePath));
  EXPECT_EQ(Answer("VNET_3_HOSTONLY_SUBNET"), "192.168.3.0");
  EXPECT_EQ(Answer("VNET_3_HOSTONLY_NETMASK"), "255.255.255.0") << "assumed mask is stored";
  EXPECT_EQ(Answer("VNET_3_VIRTUAL_ADAPTER"), "yes");
  EXPECT_EQ(Answer("VNET_3_VIRTUAL_ADAPTER_ADDR"), "192.168.3.1");
  EXPECT_EQ(Answer("VNET_3_HOSTONLY_HOSTADDR"), "<absent>");
  EXPECT_EQ(Answer("VNET_3_INTERFACE"), "<absent>");
  EXPECT_EQ(Mapping("eth0"), 3);
  EXPECT_EQ(Mapping("eth9"), 2);
  EXPECT_EQ(Answer("VNET_3_DISPLAY_NAME"), "net three");
  EXPECT_EQ(Answer("VNET_4_HOSTONLY_SUBNET"), "10.1.0.0");
  EXPECT_EQ(Answer("VNET_4_HOSTONLY_NETMASK"), "255.255.0.0");
  for (const char* gone : {"FOO", "VNET_300_DHCP", "VNET_x_DHCP", "VNET_1_BOGUS", "VNET_5_DHCP"})
    EXPECT_EQ(Answer(gone), "<absent>") << gone;
  EXPECT_EQ(Answer("PLR_LOGLEVEL"), "0x7f");
  // The old database is kept; the new one is on disk and the default cache
  // writes through to it.
  EXPECT_EQ(ReadFile("/etc/tarsis/networking.bak.0"), "VERSION=1,0\nanswer VNET_5_DHCP yes\n");
  ASSERT_TRUE(PLRNetCfgAddAnswerString(nullptr, "VNET_9_MTU", "1280"));
  const std::string db = Database();
  EXPECT_EQ(db.rfind("VERSION=1,0\n", 0), 0u);
  EXPECT_NE(db.find("answer VNET_3_HOSTONLY_SUBNET 192.168.3.0\n"), std::string::npos);
  EXPECT_NE(db.find("answer VNET_9_MTU 1280\n"), std::string::npos);
  EXPECT_EQ(db.find("FOO"), std::string::npos);
  const std::string log = test::LogText();
  EXPECT_NE(log.find("Failed to parse vnet number in record: VNET_300_DHCP, deleting record"),
            std::string::npos);
  EXPECT_NE(log.find("Deleting record - FOO:bar from backup cache"), std::string::npos);
  EXPECT_NE(log.find("Source version - 0,0, Destination version - 1,0"), std::string::npos);
}

TEST_F(WholeDatabase, LegacyNamesOf127And128AndOverlongLines) {
  Load();
  const std::string n127(127, 'a'), n128(128, 'b'), n1000(1000, 'c');
  WriteFile(kBackup, "answer VNET_1_DISPLAY_NAME " + n127 + "\n" + "answer VNET_2_DISPLAY_NAME " +
                         n128 + "\n" + "answer VNET_3_DISPLAY_NAME " + n1000 + "\n" +
                         "answer VNET_1_INTERFACE " + n127 + "\n" + "answer VNET_2_INTERFACE " +
                         n128 + "\n" + "answer VNET_3_INTERFACE " + n1000 + "\n" +
                         "answer VNET_4_DHCP yes\n");
  ASSERT_TRUE(PLRNetCfgImportConfig(kBackup, test::kDatabasePath));
  EXPECT_EQ(Answer("VNET_1_DISPLAY_NAME"), n127);
  EXPECT_EQ(Answer("VNET_2_DISPLAY_NAME"), "<absent>");
  EXPECT_EQ(Answer("VNET_3_DISPLAY_NAME"), "<absent>");
  EXPECT_EQ(Mapping(n127.c_str()), 1);
  EXPECT_EQ(Mapping(n128.c_str()), 999);
  EXPECT_EQ(Answer("VNET_2_INTERFACE"), "<absent>");
  EXPECT_EQ(Answer("VNET_4_DHCP"), "yes");
  const std::string log = test::LogText();
  EXPECT_NE(log.find("Invalid display name: " + n128 + ", deleting record"), std::string::npos);
  EXPECT_NE(log.find("Invalid adapter name: " + n128 + ", deleting record"), std::string::npos);
}

TEST_F(WholeDatabase, MalformedLinesCostOnlyThemselves) {
  Load();
  WriteFile(kBackup,
            "BACKUP_VERSION=1,0\n"
            "\n"
            "answer\n"
            "answer VNET_1_MTU\n"
            "frobnicate VNET_1_MTU 9\n"
            "add_nat_portfwd 8 tcp 80 10.0.0.2 0\n"
            "add_nat_portfwd 300 tcp 80 10.0.0.2 80\n"
            "add_nat_portfwd 8 sctp 80 10.0.0.2 80\n"
            "add_nat_portfwd 8 tcp 81 10.0.0.256 80\n"
            "add_dhcp_mac_to_ip 8 02:7a:zz:2a:10:01 10.0.0.9\n"
            "add_dhcp_mac_to_ip 8 02:7a:3e:2a:10:01\n"
            "add_bridge_mapping eth1 300\n"
            "add_bridge_mapping\n"
            "remove_bridge_mapping eth7\n"
            "add_nat_prefix 8 fd00::/8\n" +
                std::string(3000, 'x') + "\n" +
                "answer VNET_1_DISPLAY_NAME kept\n"
                "add_bridge_mapping eth1 -1\n"
                "add_nat_portfwd 8 TCP 8080 10.0.0.2 80\n");
  ASSERT_TRUE(PLRNetCfgImportConfig(kBackup, test::kDatabasePath));
  EXPECT_EQ(Answer("VNET_1_DISPLAY_NAME"), "kept");
  EXPECT_EQ(Answer("VNET_1_MTU"), "<absent>");
  EXPECT_EQ(Mapping("eth1"), -1);
  char ip[16];
  uint16_t port = 0;
  EXPECT_TRUE(
      PLRNetCfgLookupNATPortFwd(nullptr, 8, true, 8080, ip, sizeof ip, &port, nullptr, nullptr));
  EXPECT_FALSE(
      PLRNetCfgLookupNATPortFwd(nullptr, 8, true, 80, ip, sizeof ip, &port, nullptr, nullptr));
}

// What must hold after every failed import: the database file and the
// default cache as before, no backup copy left behind.
class FailedImport : public WholeDatabase {
 protected:
  void SetUp() override {
    Load("answer VNET_5_DHCP yes\nadd_bridge_mapping eth0 5\n");
    before_ = Database();
  }
  void ExpectUntouched() {
    EXPECT_EQ(Database(), before_);
    EXPECT_EQ(Answer("VNET_5_DHCP"), "yes");
    EXPECT_EQ(Mapping("eth0"), 5);
    EXPECT_FALSE(FileExists("/etc/tarsis/networking.bak.0"));
    // The default cache still writes through to the database file.
    EXPECT_TRUE(PLRNetCfgAddAnswerString(nullptr, "VNET_6_MTU", "1300"));
    EXPECT_NE(Database().find("answer VNET_6_MTU 1300\n"), std::string::npos);
  }
  std::string before_;
};

TEST_F(FailedImport, UnknownOrBrokenVersion) {
  for (const char* head : {"BACKUP_VERSION=2,0\n", "BACKUP_VERSION=1\n", "BACKUP_VERSION=x,0\n"}) {
    WriteFile(kBackup, std::string(head) + "answer VNET_1_DHCP yes\n");
    EXPECT_FALSE(PLRNetCfgImportConfig(kBackup, test::kDatabasePath)) << head;
  }
  EXPECT_NE(test::LogText().find("Unsupported major version, supported: 1, actual: 2"), std::string::npos);
  EXPECT_NE(test::LogText().find("Failed to parse and load configuration data from backup file: /tmp/backup"),
            std::string::npos);
  ExpectUntouched();
}

TEST_F(FailedImport, PathIsDirectoryDanglingSymlinkOrMissing) {
  ASSERT_EQ(mkdir("/tmp/adir", 0755), 0);
  ASSERT_EQ(symlink("/tmp/nowhere", "/tmp/dangling"), 0);
  ASSERT_EQ(symlink("/tmp/adir", "/tmp/dirlink"), 0);
  for (const char* path : {"/tmp/adir", "/tmp/dangling", "/tmp/dirlink", "/tmp/missing"})
    EXPECT_FALSE(PLRNetCfgImportConfig(path, test::kDatabasePath)) << path;
  ExpectUntouched();
}

TEST_F(FailedImport, FileStepsFailAnywhere) {
  WriteFile(kBackup, "BACKUP_VERSION=1,0\nanswer VNET_1_DHCP yes\n");
  // The rename of the old database to its backup copy, then the rename of
  // the new file over the database, then the write of the new file.
  for (int step = 0; step < 3; ++step) {
    if (step < 2)
      sys::FailNth(sys::Op::kRename, static_cast<unsigned>(step + 1), EIO);
    else
      sys::FailNth(sys::Op::kFsync, 1, EIO);
    EXPECT_FALSE(PLRNetCfgImportConfig(kBackup, test::kDatabasePath)) << step;
    sys::ClearFaults();
    EXPECT_EQ(Database(), before_) << step;
    EXPECT_EQ(Answer("VNET_1_DHCP"), "<absent>") << step;
  }
  EXPECT_NE(test::LogText().find("Restored database file during error handling"), std::string::npos);
  ExpectUntouched();
}

TEST_F(FailedImport, SymlinkToBackupImports) {
  WriteFile(kBackup, "BACKUP_VERSION=1,0\nanswer VNET_1_DHCP yes\n");
  ASSERT_EQ(symlink(kBackup, "/tmp/link"), 0);
  ASSERT_TRUE(PLRNetCfgImportConfig("/tmp/link", test::kDatabasePath));
  EXPECT_EQ(Answer("VNET_1_DHCP"), "yes");
  EXPECT_EQ(Answer("VNET_5_DHCP"), "<absent>");
  EXPECT_EQ(ReadFile("/etc/tarsis/networking.bak.0"), before_);
}

TEST(ImportUnloaded, ReplacesDatabaseWithoutLoadingIt) {
  test::WriteProductConfig();
  test::WriteDatabase("answer VNET_5_DHCP yes\n");
  WriteFile(kBackup, "BACKUP_VERSION=1,0\nanswer VNET_1_NAT yes\n");
  test::LogWhileUnloaded();
  ASSERT_TRUE(PLRNetCfgImportConfig(kBackup, test::kDatabasePath));
  EXPECT_EQ(ReadFile(test::kDatabasePath), "VERSION=1,0\nanswer VNET_1_NAT yes\n");
  EXPECT_TRUE(test::LogHas("Source and destination database versions are same"));
}

}  // namespace
}  // namespace plr
