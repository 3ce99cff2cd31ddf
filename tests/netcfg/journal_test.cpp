// Every kind of change appends exactly its records to the journal, and
// nothing else; read-only caches and unchanged caches leave the file alone.
#include <fcntl.h>
#include <sys/stat.h>

#include "tests/netcfg/netcfg_util.h"

namespace plr::test {
namespace {

const std::string kHeader = "VERSION=1,0\n";

class Journal : public ::testing::Test {
 protected:
  void SetUp() override {
    WriteDatabase();
    db_ = LoadCache();
    ASSERT_NE(db_, nullptr);
  }
  void TearDown() override {
    if (db_ != nullptr) PLRNetCfgUnload(&db_, false);
  }
  std::string Tail() { return ReadFile(kDatabasePath).substr(kHeader.size()); }

  LogCapture log_;
  PLRNetworkConfigurationDB* db_ = nullptr;
};

TEST_F(Journal, AnswersAppendAddAndRemoveRecords) {
  ASSERT_TRUE(PLRNetCfgAddAnswerString(db_, "VNET_1_DISPLAY_NAME", "my net"));
  EXPECT_EQ(Tail(), "answer VNET_1_DISPLAY_NAME my net\n");
  // A changed value is preceded by the remove record of the old one.
  ASSERT_TRUE(PLRNetCfgAddAnswerString(db_, "VNET_1_DISPLAY_NAME", "other"));
  ASSERT_TRUE(PLRNetCfgAddAnswerInt32(db_, "PLR_LOGLEVEL", -5));
  ASSERT_TRUE(PLRNetCfgRemoveAnswer(db_, "PLR_LOGLEVEL"));
  ASSERT_TRUE(PLRNetCfgRemoveAnswer(db_, "NEVER_SET"));  // absent: nothing written
  EXPECT_EQ(Tail(),
            "answer VNET_1_DISPLAY_NAME my net\n"
            "remove_answer VNET_1_DISPLAY_NAME\n"
            "answer VNET_1_DISPLAY_NAME other\n"
            "answer PLR_LOGLEVEL -5\n"
            "remove_answer PLR_LOGLEVEL\n");
}

TEST_F(Journal, BoolAnswerWritesOnlyWhenTheValueChanges) {
  for (bool value : {false, true, true, false})  // absent counts as false
    ASSERT_TRUE(PLRNetCfgAddAnswerBool(db_, "VNET_8_NAT", value));
  EXPECT_EQ(Tail(), "answer VNET_8_NAT yes\nremove_answer VNET_8_NAT\nanswer VNET_8_NAT no\n");
}

TEST_F(Journal, PortForwardsAppendTheirRecords) {
  ASSERT_TRUE(PLRNetCfgAddNATPortFwd(db_, 8, true, 80, "10.0.0.2", 8080, "web server", false));
  ASSERT_TRUE(PLRNetCfgAddNATPortFwd(db_, 8, true, 80, "10.0.0.3", 80, nullptr, false));
  ASSERT_TRUE(PLRNetCfgAddNATPortFwd(db_, 8, false, 80, "10.0.0.4", 53, "", false));
  ASSERT_TRUE(PLRNetCfgRemoveNATPortFwd(db_, 8, false, 80));
  EXPECT_FALSE(PLRNetCfgRemoveNATPortFwd(db_, 8, false, 80));
  EXPECT_EQ(Tail(),
            "add_nat_portfwd 8 tcp 80 10.0.0.2 8080 web server\n"
            "remove_nat_portfwd 8 tcp 80\n"
            "add_nat_portfwd 8 tcp 80 10.0.0.3 80\n"
            "add_nat_portfwd 8 udp 80 10.0.0.4 53\n"
            "remove_nat_portfwd 8 udp 80\n");
  EXPECT_TRUE(log_.Has("Failed to remove NAT port forward for udp port 80 from hash table"));
}

// Removing all of a protocol writes one remove per entry, in port order.
TEST_F(Journal, RemoveAllPortForwardsWritesOneRemovePerEntryInPortOrder) {
  for (uint16_t port : {300, 20, 1000})
    ASSERT_TRUE(PLRNetCfgAddNATPortFwd(db_, 3, true, port, "10.0.0.2", port, nullptr, false));
  ASSERT_TRUE(PLRNetCfgAddNATPortFwd(db_, 3, false, 7, "10.0.0.2", 7, nullptr, false));
  std::string before = Tail();
  ASSERT_TRUE(PLRNetCfgRemoveAllNATPortFwd(db_, 3, true, false, true));
  EXPECT_EQ(Tail(), before +
                        "remove_nat_portfwd 3 tcp 20\n"
                        "remove_nat_portfwd 3 tcp 300\n"
                        "remove_nat_portfwd 3 tcp 1000\n");
  EXPECT_EQ(StateOf(db_), "P 3 udp 7 10.0.0.2 7 []\n");
  ASSERT_TRUE(PLRNetCfgRemoveAllNATPortFwd(db_, 3, false, true, false));
  EXPECT_EQ(db_->portFwds[3], nullptr);                   // the holder goes with its last table
  EXPECT_EQ(StateOfFile(), "P 3 udp 7 10.0.0.2 7 []\n");  // no record without writeRecords
}

TEST_F(Journal, DhcpMappingsInStandardFormAndBridgeMappingsOnlyWhenChanged) {
  ASSERT_TRUE(PLRNetCfgAddDHCPMACToIP(db_, 8, "02:7a:3e:2a:10:01", "192.168.120.130", false));
  ASSERT_TRUE(PLRNetCfgAddDHCPMACToIP(db_, 8, "02:7A:3E:2A:10:01", "192.168.120.131", false));
  ASSERT_TRUE(PLRNetCfgRemoveDHCPMACToIP(db_, 8, "2:7a:3e:2a:10:1"));
  ASSERT_TRUE(PLRNetCfgAddDHCPMACToIP(db_, 9, "00:00:00:00:00:0b", "10.0.0.2", false));
  ASSERT_TRUE(PLRNetCfgAddDHCPMACToIP(db_, 9, "00:00:00:00:00:0a", "10.0.0.3", false));
  ASSERT_TRUE(PLRNetCfgRemoveAllDHCPMACToIPMapping(db_, 9, true));
  ASSERT_TRUE(PLRNetCfgAddHostAdapterMapping(db_, "eth0", 0, false));
  ASSERT_TRUE(PLRNetCfgAddHostAdapterMapping(db_, "eth0", 0, false));  // unchanged: not written
  EXPECT_TRUE(
      log_.Has("New and old value vnet in the configuration are same: 0 for adapter: eth0"));
  ASSERT_TRUE(PLRNetCfgAddHostAdapterMapping(db_, "eth0", -1, false));
  ASSERT_TRUE(PLRNetCfgRemoveHostAdapterMapping(db_, "eth0"));
  EXPECT_EQ(Tail(),
            "add_dhcp_mac_to_ip 8 02:7A:3E:2A:10:01 192.168.120.130\n"
            "remove_dhcp_mac_to_ip 8 02:7A:3E:2A:10:01\n"
            "add_dhcp_mac_to_ip 8 02:7A:3E:2A:10:01 192.168.120.131\n"
            "remove_dhcp_mac_to_ip 8 02:7A:3E:2A:10:01\n"
            "add_dhcp_mac_to_ip 9 00:00:00:00:00:0B 10.0.0.2\n"
            "add_dhcp_mac_to_ip 9 00:00:00:00:00:0A 10.0.0.3\n"
            "remove_dhcp_mac_to_ip 9 00:00:00:00:00:0A\n"
            "remove_dhcp_mac_to_ip 9 00:00:00:00:00:0B\n"
            "add_bridge_mapping eth0 0\n"
            "remove_bridge_mapping eth0\n"
            "add_bridge_mapping eth0 -1\n"
            "remove_bridge_mapping eth0\n");
  EXPECT_EQ(StateOf(db_), "");
}

TEST_F(Journal, PrefixesAppendAddAndRemoveButRemoveAllWritesNothing) {
  ASSERT_TRUE(PLRNetCfgAddNATPrefix(db_, 8, "fd00:1::/64"));
  ASSERT_TRUE(PLRNetCfgAddNATPrefix(db_, 8, "fd00:1::/64"));  // present: nothing written
  ASSERT_TRUE(PLRNetCfgAddNATPrefix(db_, 8, "fd00:2::/64"));
  ASSERT_TRUE(PLRNetCfgRemoveNATPrefix(db_, 8, "fd00:1::/64"));
  EXPECT_FALSE(PLRNetCfgRemoveNATPrefix(db_, 8, "fd00:1::/64"));
  ASSERT_TRUE(PLRNetCfgRemoveAllNATPrefix(db_, 8, true));
  EXPECT_EQ(Tail(),
            "add_nat_prefix 8 fd00:1::/64\n"
            "add_nat_prefix 8 fd00:2::/64\n"
            "remove_nat_prefix 8 fd00:1::/64\n");
  EXPECT_FALSE(PLRNetCfgLookupNATPrefix(db_, 8, "fd00:2::/64"));
  EXPECT_TRUE(log_.Has("List of prefix is empty"));
}

TEST_F(Journal, InvalidFieldsAreRefusedBeforeAnythingIsWrittenButLongDescriptionsDropped) {
  EXPECT_FALSE(PLRNetCfgAddAnswerString(db_, "TWO WORDS", "v"));
  EXPECT_FALSE(PLRNetCfgAddAnswerString(db_, "KEY", "line\nbreak"));
  EXPECT_FALSE(PLRNetCfgAddAnswerString(db_, "KEY", ""));
  EXPECT_FALSE(PLRNetCfgAddNATPortFwd(db_, 256, true, 80, "10.0.0.2", 80, nullptr, false));
  EXPECT_FALSE(PLRNetCfgAddNATPortFwd(db_, 1, true, 0, "10.0.0.2", 80, nullptr, false));
  EXPECT_FALSE(PLRNetCfgAddNATPortFwd(db_, 1, true, 80, "10.0.0.256", 80, nullptr, false));
  EXPECT_FALSE(PLRNetCfgAddNATPortFwd(db_, 1, true, 80, "10.0.0.2", 0, nullptr, false));
  EXPECT_FALSE(PLRNetCfgAddDHCPMACToIP(db_, 1, "not-a-mac", "10.0.0.2", false));
  EXPECT_FALSE(PLRNetCfgAddDHCPMACToIP(db_, 1, "00:11:22:33:44:55", "10.0.0", false));
  EXPECT_FALSE(PLRNetCfgAddHostAdapterMapping(db_, "eth0", 256, false));
  EXPECT_FALSE(PLRNetCfgAddHostAdapterMapping(db_, "eth0", -2, false));
  EXPECT_FALSE(PLRNetCfgAddHostAdapterMapping(db_, std::string(128, 'e').c_str(), 1, false));
  EXPECT_FALSE(PLRNetCfgAddNATPrefix(db_, 1, "fd00::/20"));
  // A record the reader would refuse (1024 characters and more) is not written.
  EXPECT_FALSE(PLRNetCfgAddAnswerString(db_, "LONG", std::string(1100, 'v').c_str()));
  EXPECT_EQ(StateOf(db_), "");
  // An overlong description is dropped but the forward kept.
  std::string desc(128, 'd');
  ASSERT_TRUE(PLRNetCfgAddNATPortFwd(db_, 2, true, 22, "10.0.0.2", 22, desc.c_str(), false));
  EXPECT_TRUE(log_.Has("Discarding description since it is too long"));
  EXPECT_EQ(Tail(), "add_nat_portfwd 2 tcp 22 10.0.0.2 22\n");
}

TEST_F(Journal, AppendLandsAtTheEndAfterAnotherWriter) {
  ASSERT_TRUE(PLRNetCfgAddAnswerString(db_, "A", "1"));
  // Another process appends, and even leaves its last line unterminated.
  int fd = open(kDatabasePath, O_WRONLY | O_APPEND);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(write(fd, "answer B 2\nanswer C 3", 21), 21);
  close(fd);
  ASSERT_TRUE(PLRNetCfgAddAnswerString(db_, "D", "4"));
  EXPECT_EQ(Tail(), "answer A 1\nanswer B 2\nanswer C 3\nanswer D 4\n");
  EXPECT_EQ(StateOfFile(), "A A=1\nA B=2\nA C=3\nA D=4\n");
}

TEST_F(Journal, ReadOnlyOrUnmodifiedCacheLeavesTheFileByteForByte) {
  PLRNetCfgUnload(&db_, false);
  WriteDatabase("answer X old\n");
  std::string before = ReadFile(kDatabasePath);
  db_ = LoadCache(kDatabasePath, false, true);
  ASSERT_NE(db_, nullptr);
  EXPECT_TRUE(PLRNetCfgIsReadOnly(db_));
  ASSERT_TRUE(PLRNetCfgAddAnswerString(db_, "X", "new"));
  ASSERT_TRUE(PLRNetCfgAddNATPortFwd(db_, 1, true, 80, "10.0.0.2", 80, nullptr, false));
  ASSERT_TRUE(PLRNetCfgAddDHCPMACToIP(db_, 1, "00:11:22:33:44:55", "10.0.0.3", false));
  ASSERT_TRUE(PLRNetCfgAddHostAdapterMapping(db_, "eth1", 1, false));
  ASSERT_TRUE(PLRNetCfgAddNATPrefix(db_, 1, "fd00::/64"));
  const char* value = nullptr;
  ASSERT_TRUE(PLRNetCfgGetAnswerString(db_, "X", &value));
  EXPECT_STREQ(value, "new");
  EXPECT_TRUE(db_->modified);
  PLRNetCfgUnload(&db_, true);  // a read-only cache is never rewritten
  EXPECT_EQ(ReadFile(kDatabasePath), before);

  // Nor is a writable one that was not changed, junk lines and all.
  std::string journal = kHeader + "answer B 2\nremove_answer B\nanswer A 1\nbogus line\n";
  WriteFile(kDatabasePath, journal);
  db_ = LoadCache();
  ASSERT_NE(db_, nullptr);
  ASSERT_TRUE(PLRNetCfgAddAnswerBool(db_, "A_BOOL", false));  // no change
  PLRNetCfgUnload(&db_, true);
  EXPECT_EQ(ReadFile(kDatabasePath), journal);
}

TEST_F(Journal, PrivateCachesWithoutADefaultReportTheMissingCache) {
  EXPECT_FALSE(PLRNetCfgAddAnswerString(nullptr, "K", "v"));
  EXPECT_FALSE(PLRNetCfgGetAnswerString(nullptr, "K", nullptr));
  EXPECT_FALSE(PLRNetCfgLockConfig(nullptr));
  EXPECT_EQ(log_.Count("Database cache is not loaded"), 3);
  PLRNetworkConfigurationDB* none = nullptr;
  EXPECT_TRUE(PLRNetCfgUnload(&none, true));
  EXPECT_TRUE(log_.Has("Requested cache is not loaded"));
}

}  // namespace
}  // namespace plr::test
