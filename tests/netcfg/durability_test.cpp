// The file survives what happens to it: the compacting rewrite, failed
// appends (injected, and on a really full file system), and writers in other
// processes behind the database lock (which gives up after 3.5 s).
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/file-lock.h"
#include "base/sys-util.h"
#include "base/time-util.h"
#include "tests/netcfg/netcfg_util.h"

namespace plr::test {
namespace {

// Names in /etc/tarsis besides the database, its lock and the product configuration.
size_t StrayFiles() {
  size_t n = 0;
  DIR* dir = opendir("/etc/tarsis");
  while (dirent* e = dir != nullptr ? readdir(dir) : nullptr)
    n += std::set<std::string>{".", "..", "networking", "networking.lck", "config"}.count(
             e->d_name) == 0;
  if (dir != nullptr) closedir(dir);
  return n;
}

TEST_F(CacheTest, CompactionRewritesSortedAddRecordsWithTheOldMode) {
  WriteProductConfig();  // BINDIR is in the cache but never written
  Open(
      "answer VNET_8_NAT yes\nanswer VNET_1_HOSTONLY_SUBNET 192.168.56.0\n"
      "add_bridge_mapping eth9 -1\nadd_nat_prefix 8 fd00:1::/64\n");
  chmod(kDatabasePath, 0600);
  ASSERT_TRUE(PLRNetCfgAddAnswerString(db_, "VNET_1_DISPLAY_NAME", "kavix1"));
  ASSERT_TRUE(PLRNetCfgAddAnswerString(db_, "VNET_1_HOSTONLY_SUBNET", "192.168.57.0"));
  ASSERT_TRUE(PLRNetCfgAddNATPortFwd(db_, 8, false, 53, "192.168.120.128", 53, nullptr, false));
  ASSERT_TRUE(PLRNetCfgAddNATPortFwd(db_, 8, true, 443, "192.168.120.128", 443, "web", false));
  ASSERT_TRUE(PLRNetCfgAddNATPortFwd(db_, 8, true, 22, "192.168.120.129", 22, nullptr, false));
  ASSERT_TRUE(PLRNetCfgAddNATPortFwd(db_, 2, true, 9000, "10.0.0.2", 9, nullptr, false));
  ASSERT_TRUE(PLRNetCfgAddDHCPMACToIP(db_, 8, "02:7a:3e:2a:10:01", "192.168.120.130", false));
  ASSERT_TRUE(PLRNetCfgAddDHCPMACToIP(db_, 3, "02:7a:3e:2a:10:02", "10.0.3.2", false));
  for (auto [name, vnet] : {std::pair{"eth1", 0}, {"eth0", 0}, {"br5", 5}})
    ASSERT_TRUE(PLRNetCfgAddHostAdapterMapping(db_, name, vnet, false));
  ASSERT_TRUE(PLRNetCfgRemoveAnswer(db_, "VNET_8_NAT"));
  std::string state = StateOf(db_);
  ASSERT_TRUE(PLRNetCfgUnload(&db_, true));
  EXPECT_EQ(ReadFile(kDatabasePath),
            "VERSION=1,0\n"
            "answer VNET_1_DISPLAY_NAME kavix1\n"
            "answer VNET_1_HOSTONLY_SUBNET 192.168.57.0\n"
            "add_nat_portfwd 2 tcp 9000 10.0.0.2 9\n"
            "add_nat_portfwd 8 tcp 22 192.168.120.129 22\n"
            "add_nat_portfwd 8 tcp 443 192.168.120.128 443 web\n"
            "add_nat_portfwd 8 udp 53 192.168.120.128 53\n"
            "add_dhcp_mac_to_ip 3 02:7A:3E:2A:10:02 10.0.3.2\n"
            "add_dhcp_mac_to_ip 8 02:7A:3E:2A:10:01 192.168.120.130\n"
            "add_bridge_mapping eth9 -1\n"
            "add_bridge_mapping eth0 0\n"
            "add_bridge_mapping eth1 0\n"
            "add_bridge_mapping br5 5\n");
  // Prefixes are not carried over by a rewrite; everything else replays the same.
  state.erase(state.find("X 8 fd00:1::/64\n"), 16);
  EXPECT_EQ(StateOfFile(), state);
  struct stat st;
  ASSERT_EQ(stat(kDatabasePath, &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  EXPECT_EQ(StrayFiles(), 0u);
}

TEST(Compaction, HundredThousandRecordsRoundTrip) {
  WriteDatabase();
  PLRNetworkConfigurationDB* db = LoadCache();
  ASSERT_NE(db, nullptr);
  db->readOnly = true;  // fill the cache quickly, without journal records
  for (uint32_t i = 0; i < 100000; ++i) {
    uint16_t port = static_cast<uint16_t>(1 + i / 256);
    if (i % 2 == 0)
      ASSERT_TRUE(PLRNetCfgAddNATPortFwd(db, i % 256, true, port, "10.1.2.3", port, "d", false));
    else
      ASSERT_TRUE(PLRNetCfgAddAnswerString(db, ("KEY_" + std::to_string(i)).c_str(), "value"));
  }
  db->readOnly = false;
  db->modified = true;
  std::string state = StateOf(db);
  ASSERT_TRUE(PLRNetCfgUnload(&db, true));
  EXPECT_EQ(StateOfFile(), state);
}

// A remove record that lands before the failed add is compensated by the old
// value; removing all forwards goes on past a failed record.
TEST_F(CacheTest, CompensatingRecordAndRemoveAllPastAFailure) {
  Open(
      "answer K old\nadd_nat_portfwd 8 tcp 80 10.0.0.2 80\nadd_nat_portfwd 8 udp 80 10.0.0.2 80\n");
  sys::FailNth(sys::Op::kWrite, 2, ENOSPC);
  EXPECT_FALSE(PLRNetCfgAddAnswerString(db_, "K", "new"));
  EXPECT_TRUE(LogHas("Failed to write to K:new to database file, error: No space left on device"));
  sys::FailNth(sys::Op::kWrite, 1, ENOSPC);
  EXPECT_TRUE(PLRNetCfgRemoveAllNATPortFwd(db_, 8, true, false, true));
  sys::ClearFaults();
  EXPECT_TRUE(LogHas("All the forwarded TCP ports could not be deleted"));
  EXPECT_EQ(Tail().substr(Tail().find("remove_answer")), "remove_answer K\nanswer K old\n");
  EXPECT_EQ(StateOf(db_), "A K=old\nP 8 udp 80 10.0.0.2 80 []\n");
}

// A real full file system: the database lives on a tiny tmpfs, filled up
// until an append fails. The failed change leaves no partial record.
TEST(FullDisk, AppendFailsCleanlyAndTheNextOneLandsWithRoomAgain) {
  ASSERT_EQ(mount("tmpfs", "/etc/tarsis", "tmpfs", 0, "size=16k"), 0) << strerror(errno);
  WriteDatabase("answer SEED 1\n");
  PLRNetworkConfigurationDB* db = LoadCache();
  ASSERT_NE(db, nullptr);
  int filler = open("/etc/tarsis/filler", O_WRONLY | O_CREAT, 0644);
  ASSERT_GE(filler, 0);
  const std::string block(4096, 'f');
  while (write(filler, block.data(), block.size()) > 0) {
  }
  while (write(filler, "f", 1) > 0) {
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

// Forks a child that takes the database lock and holds it until killed;
// its PID, or -1 when it could not take the lock.
pid_t HoldLockInChild() {
  int ready[2];
  if (pipe(ready) != 0) return -1;
  pid_t pid = fork();
  if (pid == 0) {
    FileLock lock;
    char c = lock.Lock(kDatabasePath, 1000) ? '1' : '0';
    (void)!write(ready[1], &c, 1);
    pause();
    _exit(0);
  }
  char c = '0';
  (void)!read(ready[0], &c, 1);
  close(ready[0]);
  close(ready[1]);
  return c == '1' ? pid : -1;
}

void KillHolder(pid_t pid) {
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

double SecondsSince(uint64_t startNs) {
  return static_cast<double>(MonotonicNs() - startNs) / 1e9;
}

// Against a holder in another process, a lock call and a writable load
// give up after 3.5 s; a read-only load takes no lock.
TEST(Lock, GivesUpAfterThreeAndAHalfSecondsAgainstAnotherProcess) {
  WriteDatabase("answer K v\n");
  PLRNetworkConfigurationDB* db = LoadCache();
  ASSERT_NE(db, nullptr);
  pid_t holder = HoldLockInChild();  // the load released the lock after reading
  ASSERT_GT(holder, 0);
  for (bool load : {false, true}) {
    uint64_t start = MonotonicNs();
    EXPECT_FALSE(load ? LoadCache() != nullptr : PLRNetCfgLockConfig(db));
    EXPECT_GE(SecondsSince(start), 3.4);
    EXPECT_LT(SecondsSince(start), 6.0);
  }
  PLRNetworkConfigurationDB* reader = LoadCache(kDatabasePath, false, true);
  ASSERT_NE(reader, nullptr);
  EXPECT_EQ(StateOf(reader), "A K=v\n");
  PLRNetCfgUnload(&reader, false);
  KillHolder(holder);
  EXPECT_TRUE(PLRNetCfgLockConfig(db));  // ours once the holder is gone, once
  EXPECT_FALSE(PLRNetCfgLockConfig(db));
  FileLock other;
  EXPECT_FALSE(other.Lock(kDatabasePath, 0));
  EXPECT_TRUE(PLRNetCfgUnlockConfig(db));
  EXPECT_TRUE(PLRNetCfgUnlockConfig(db));
  EXPECT_TRUE(other.Lock(kDatabasePath, 0));
  PLRNetCfgUnload(&db, false);
}

// Two processes, each with its own cache, take turns: lock, change, unlock.
// Every record of both lands, in turn order.
TEST(Lock, TwoProcessesAppendingInTurnLeaveAValidJournal) {
  WriteDatabase();
  int toChild[2], toParent[2];
  ASSERT_EQ(pipe(toChild), 0);
  ASSERT_EQ(pipe(toParent), 0);
  constexpr int kTurns = 20;
  auto turns = [](int in, int out, const char* who, bool first) {
    PLRNetworkConfigurationDB* db = LoadCache();
    if (db == nullptr) return false;
    char token = 't';
    bool ok = true;
    for (int i = 0; i < kTurns; ++i) {
      if ((!first || i > 0) && read(in, &token, 1) != 1) return false;
      ok = PLRNetCfgLockConfig(db) && ok;
      ok = PLRNetCfgAddAnswerString(db, (who + std::to_string(i)).c_str(), "v") && ok;
      ok = PLRNetCfgAddNATPortFwd(db, 1, first, i + 1, "10.0.0.2", 1, who, false) && ok;
      ok = PLRNetCfgUnlockConfig(db) && ok;
      if (write(out, &token, 1) != 1) return false;
    }
    PLRNetCfgUnload(&db, false);
    return ok;
  };
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) _exit(turns(toChild[0], toParent[1], "child", false) ? 0 : 1);
  bool parentOk = turns(toParent[0], toChild[1], "parent", true);
  int status = 0;
  waitpid(pid, &status, 0);
  ASSERT_TRUE(parentOk);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  std::string expected = "VERSION=1,0\n";
  for (int i = 0; i < kTurns; ++i) {
    const std::string n = std::to_string(i), port = std::to_string(i + 1);
    expected += "answer parent" + n + " v\nadd_nat_portfwd 1 tcp " + port + " 10.0.0.2 1 parent\n";
    expected += "answer child" + n + " v\nadd_nat_portfwd 1 udp " + port + " 10.0.0.2 1 child\n";
  }
  EXPECT_EQ(ReadFile(kDatabasePath), expected);
}

}  // namespace
}  // namespace plr::test
