// The database lock between processes: a holder in another process makes
// loads and lock calls time out after 3.5 s; writers in turn leave a valid
// journal.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/file-lock.h"
#include "base/time-util.h"
#include "tests/netcfg/netcfg_util.h"

namespace plr::test {
namespace {

// A child process that holds the database lock until it is told to stop.
class LockHolder {
 public:
  LockHolder() {
    int ready[2], stop[2];
    if (pipe(ready) != 0 || pipe(stop) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      close(stop[1]);  // only the parent's end may keep the child waiting
      close(ready[0]);
      FileLock lock;
      char c = lock.Lock(kDatabasePath, 1000) ? '1' : '0';
      (void)!write(ready[1], &c, 1);
      (void)!read(stop[0], &c, 1);
      _exit(0);
    }
    close(ready[1]);
    close(stop[0]);
    stop_ = stop[1];
    char c = '0';
    held_ = read(ready[0], &c, 1) == 1 && c == '1';
    close(ready[0]);
  }
  ~LockHolder() {
    if (stop_ >= 0) close(stop_);  // end of file tells the child to go
    if (pid_ > 0) waitpid(pid_, nullptr, 0);
  }
  bool held() const { return held_; }

 private:
  pid_t pid_ = -1;
  int stop_ = -1;
  bool held_ = false;
};

double SecondsSince(uint64_t startNs) {
  return static_cast<double>(MonotonicNs() - startNs) / 1e9;
}

TEST(Lock, LockConfigTimesOutAgainstAnotherProcess) {
  WriteDatabase("answer K v\n");
  LogCapture log;
  PLRNetworkConfigurationDB* db = LoadCache();
  ASSERT_NE(db, nullptr);
  // The load released the lock after reading: another owner gets it at once.
  EXPECT_FALSE(db->lock.held());
  {
    FileLock other;
    EXPECT_TRUE(other.Lock(kDatabasePath, 0));
  }
  {
    LockHolder holder;
    ASSERT_TRUE(holder.held());
    uint64_t start = MonotonicNs();
    EXPECT_FALSE(PLRNetCfgLockConfig(db));
    double waited = SecondsSince(start);
    EXPECT_GE(waited, 3.4);
    EXPECT_LT(waited, 6.0);
    EXPECT_TRUE(log.HasLine("PLRNetCfgLockConfig",
                            "Failed to lock config file, file: /etc/tarsis/networking, error: "
                            "timed out"));
  }
  // Once the holder is gone the lock is ours, once.
  EXPECT_TRUE(PLRNetCfgLockConfig(db));
  EXPECT_TRUE(log.Has("Database file locking success"));
  EXPECT_FALSE(PLRNetCfgLockConfig(db));
  EXPECT_TRUE(log.HasLine("PLRNetCfgLockConfig", "Database file is already locked"));
  EXPECT_TRUE(PLRNetCfgUnlockConfig(db));
  EXPECT_TRUE(log.Has("Config file unlocking success"));
  EXPECT_TRUE(PLRNetCfgUnlockConfig(db));
  EXPECT_TRUE(log.Has("Config file is not currently locked"));
  PLRNetCfgUnload(&db, false);
}

TEST(Lock, LoadTimesOutButAReadOnlyLoadTakesNoLock) {
  WriteDatabase("answer K v\n");
  LogCapture log;
  LockHolder holder;
  ASSERT_TRUE(holder.held());
  uint64_t start = MonotonicNs();
  EXPECT_EQ(LoadCache(), nullptr);
  EXPECT_GE(SecondsSince(start), 3.4);
  EXPECT_TRUE(log.Has("Failed to lock config database file, error: timed out"));
  EXPECT_TRUE(
      log.Has("Failed to load database cache with contents of file: /etc/tarsis/networking"));
  PLRNetworkConfigurationDB* db = LoadCache(kDatabasePath, false, true);
  ASSERT_NE(db, nullptr);
  EXPECT_EQ(StateOf(db), "A K=v\n");
  PLRNetCfgUnload(&db, false);
}

// Two processes, each with its own cache, take turns: lock, change, unlock.
// Every record of both lands, in turn order, and the journal replays.
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
      std::string key = std::string(who) + "_" + std::to_string(i);
      ok = PLRNetCfgAddAnswerString(db, key.c_str(), "v") && ok;
      ok = PLRNetCfgAddNATPortFwd(db, 1, first, static_cast<uint16_t>(i + 1), "10.0.0.2", 1, who,
                                  false) &&
           ok;
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

  std::string journal = ReadFile(kDatabasePath);
  std::string expected = "VERSION=1,0\n";
  for (int i = 0; i < kTurns; ++i) {
    std::string port = std::to_string(i + 1);
    expected += "answer parent_" + std::to_string(i) + " v\n";
    expected += "add_nat_portfwd 1 tcp " + port + " 10.0.0.2 1 parent\n";
    expected += "answer child_" + std::to_string(i) + " v\n";
    expected += "add_nat_portfwd 1 udp " + port + " 10.0.0.2 1 child\n";
  }
  EXPECT_EQ(journal, expected);
  PLRNetworkConfigurationDB* db = LoadCache();
  ASSERT_NE(db, nullptr);
  EXPECT_EQ(db->answers->size(), 2u * kTurns);
  PLRNetCfgUnload(&db, false);
}

}  // namespace
}  // namespace plr::test
