// The file survives what happens to it: the compacting rewrite, appends on a
// really full file system, and writers in other processes behind the
// database lock.
#include <errno.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "base/file-lock.h"
#include "tests/netcfg/netcfg_util.h"

namespace plr::test {
namespace {

// The compacting unload writes the add records in order, without prefixes.
TEST_F(CacheTest, CompactionRewritesSortedAddRecordsWithTheOldMode) {
  WriteProductConfig();  // BINDIR is in the cache but never written
  Open(
      "answer VNET_8_NAT yes\nanswer V 1\nadd_bridge_mapping eth9 -1\nadd_nat_prefix 8 "
      "fd00::/64\n");
  chmod(kDatabasePath, 0600);
  ASSERT_TRUE(PLRNetCfgAddAnswerString(db_, "N", "kavix1"));
  ASSERT_TRUE(PLRNetCfgAddAnswerString(db_, "V", "2"));
  ASSERT_TRUE(PLRNetCfgAddNATPortFwd(db_, 8, false, 53, "192.168.120.128", 53, nullptr, false));
  ASSERT_TRUE(PLRNetCfgAddNATPortFwd(db_, 8, true, 443, "192.168.120.128", 443, "web", false));
  ASSERT_TRUE(PLRNetCfgAddNATPortFwd(db_, 8, true, 22, "192.168.120.129", 22, nullptr, false));
  ASSERT_TRUE(PLRNetCfgAddNATPortFwd(db_, 2, true, 9000, "10.0.0.2", 9, nullptr, false));
  ASSERT_TRUE(PLRNetCfgAddDHCPMACToIP(db_, 8, "02:7a:3e:2a:10:01", "192.168.120.130", false));
  ASSERT_TRUE(PLRNetCfgAddDHCPMACToIP(db_, 3, "02:7a:3e:2a:10:02", "10.0.3.2", false));
  for (auto [name, vnet] : {std::pair{"eth1", 0}, {"eth0", 0}, {"br5", 5}})
    ASSERT_TRUE(PLRNetCfgAddHostAdapterMapping(db_, name, vnet, false));
  ASSERT_TRUE(PLRNetCfgRemoveAnswer(db_, "VNET_8_NAT"));
  ASSERT_TRUE(PLRNetCfgUnload(&db_, true));
  EXPECT_EQ(ReadFile(kDatabasePath),
            "VERSION=1,0\nanswer N kavix1\nanswer V 2\n"
            "add_nat_portfwd 2 tcp 9000 10.0.0.2 9\n"
            "add_nat_portfwd 8 tcp 22 192.168.120.129 22\n"
            "add_nat_portfwd 8 tcp 443 192.168.120.128 443 web\n"
            "add_nat_portfwd 8 udp 53 192.168.120.128 53\n"
            "add_dhcp_mac_to_ip 3 02:7A:3E:2A:10:02 10.0.3.2\n"
            "add_dhcp_mac_to_ip 8 02:7A:3E:2A:10:01 192.168.120.130\n"
            "add_bridge_mapping eth9 -1\nadd_bridge_mapping eth0 0\n"
            "add_bridge_mapping eth1 0\nadd_bridge_mapping br5 5\n");
  struct stat st;
  ASSERT_EQ(stat(kDatabasePath, &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
}

// Keys that share their first 8 or 16 bytes, differ only in length, or
// differ in bytes above 0x7f still come out in byte order, whatever the
// order they were added in.
TEST_F(CacheTest, CompactionSortsKeysSharingLongPrefixesByteWise) {
  Open();
  const std::vector<std::string> keys = {"VNET_1_DHCP_PARAM_B",
                                         "VNET_1_DHCP_PARAM",
                                         "VNET_1_DHCP_PARAM_\xc3\xa9",
                                         "VNET_1_DHCP_PARAMZ",
                                         "VNET_1_D",
                                         "VNET_1_",
                                         "VNET_10_DHCP",
                                         "VNET_1_DHCP_PARAM_A",
                                         "\xe2x",
                                         "A",
                                         "VNET_1_DHCP_PARAM_AA",
                                         "VNET_1_DHCP_PARAL"};
  const std::vector<std::pair<int, std::string>> bridges = {
      {0, "eth0123456789abcdef1"}, {-1, "zz"}, {0, "eth0123456789abcdef"},
      {0, "eth\xc3\xa9"},          {5, "a"},   {0, "eth0123456789abcdeg"},
      {0, "eth0123456789abcde"},   {0, "eth"}, {-1, "eth0123456789abcdef0"}};
  for (const std::string& key : keys) ASSERT_TRUE(PLRNetCfgAddAnswerString(db_, key.c_str(), "v"));
  for (const auto& [vnet, name] : bridges)
    ASSERT_TRUE(PLRNetCfgAddHostAdapterMapping(db_, name.c_str(), vnet, false));
  ASSERT_TRUE(PLRNetCfgUnload(&db_, true));
  std::vector<std::string> sortedKeys = keys;
  std::sort(sortedKeys.begin(), sortedKeys.end());
  std::vector<std::pair<int, std::string>> sortedBridges = bridges;
  std::sort(sortedBridges.begin(), sortedBridges.end());
  std::string expected = "VERSION=1,0\n";
  for (const std::string& key : sortedKeys) expected += "answer " + key + " v\n";
  for (const auto& [vnet, name] : sortedBridges)
    expected += "add_bridge_mapping " + name + " " + std::to_string(vnet) + "\n";
  EXPECT_EQ(ReadFile(kDatabasePath), expected);
}

// A real full file system: the database lives on a tiny tmpfs, filled up
// until an append fails. The failed change leaves no partial record.
TEST(FullDisk, AppendFailsCleanlyAndTheNextOneLandsWithRoomAgain) {
  ASSERT_EQ(mount("tmpfs", "/etc/tarsis", "tmpfs", 0, "size=16k"), 0) << strerror(errno);
  WriteDatabase("answer SEED 1\n");
  PLRNetworkConfigurationDB* db = LoadCache();
  ASSERT_NE(db, nullptr);
  int filler = open("/etc/tarsis/filler", O_WRONLY | O_CREAT, 0644);
  const std::string block(4096, 'f');
  for (size_t n = block.size(); n > 0; n /= 64)  // whole blocks, then single bytes
    while (write(filler, block.data(), n) > 0) {
    }
  close(filler);
  bool failed = false;
  std::string before;
  for (int i = 0; i < 2000 && !failed; ++i) {
    before = StateOf(db);
    failed = !PLRNetCfgAddNATPortFwd(db, 7, true, static_cast<uint16_t>(i + 1), "10.0.0.2", 80,
                                     "some description text to fill the page", false);
  }
  ASSERT_TRUE(failed) << "the file system never filled up";
  EXPECT_EQ(StateOf(db), before);
  EXPECT_EQ(ReadFile(kDatabasePath).back(), '\n');
  EXPECT_EQ(StateOfFile(), before);
  ASSERT_EQ(unlink("/etc/tarsis/filler"), 0);
  EXPECT_TRUE(PLRNetCfgAddAnswerString(db, "AFTER", "room"));
  EXPECT_EQ(StateOfFile(), StateOf(db));
  PLRNetCfgUnload(&db, false);
}

// Two processes, each with its own cache, take turns: lock, change, unlock.
// Every record of both lands, in turn order.
TEST(Lock, TwoProcessesAppendingInTurnLeaveAValidJournal) {
  WriteDatabase();
  int toChild[2], toParent[2];
  ASSERT_TRUE(pipe(toChild) == 0 && pipe(toParent) == 0);
  constexpr int kTurns = 20;
  auto turns = [](int in, int out, const char* who, bool first) {
    PLRNetworkConfigurationDB* db = LoadCache();
    char token = 't';
    bool ok = db != nullptr;
    for (int i = 0; i < kTurns; ++i) {  // the token passes on even after a failure
      if ((!first || i > 0) && read(in, &token, 1) != 1) return false;
      ok = ok && PLRNetCfgLockConfig(db) &&
           PLRNetCfgAddAnswerString(db, (who + std::to_string(i)).c_str(), "v") &&
           PLRNetCfgAddNATPortFwd(db, 1, first, i + 1, "10.0.0.2", 1, who, false);
      ok = ok && PLRNetCfgUnlockConfig(db);
      if (write(out, &token, 1) != 1) return false;
    }
    if (db != nullptr) PLRNetCfgUnload(&db, false);
    return ok;
  };
  pid_t pid = fork();
  if (pid == 0) {
    close(toChild[1]);  // either side gone early is an end of file, not a hang
    _exit(turns(toChild[0], toParent[1], "child", false) ? 0 : 1);
  }
  close(toParent[1]);
  bool parentOk = turns(toParent[0], toChild[1], "parent", true);
  close(toChild[1]);
  int status = 0;
  waitpid(pid, &status, 0);
  ASSERT_TRUE(parentOk && WIFEXITED(status) && WEXITSTATUS(status) == 0);
  std::string expected = "VERSION=1,0\n";  // and the lock is free again
  EXPECT_TRUE(FileLock().Lock(kDatabasePath, 0));
  for (int i = 0; i < kTurns; ++i) {
    const std::string n = std::to_string(i), port = std::to_string(i + 1);
    expected += "answer parent" + n + " v\nadd_nat_portfwd 1 tcp " + port + " 10.0.0.2 1 parent\n";
    expected += "answer child" + n + " v\nadd_nat_portfwd 1 udp " + port + " 10.0.0.2 1 child\n";
  }
  EXPECT_EQ(ReadFile(kDatabasePath), expected);
}

}  // namespace
}  // namespace plr::test
