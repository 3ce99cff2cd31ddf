// Several caches over one database file, in one process or in several: every
// change made under the lock survives every other cache's appends,
// compactions and reloads; what a killed compaction left goes at the next load.
#include <dirent.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <set>
#include <vector>

#include "base/sys-util.h"
#include "tests/netcfg/netcfg_util.h"

namespace plr::test {
namespace {

using Db = PLRNetworkConfigurationDB*;

// The MAC of change `n` of `who`.
std::string MacOf(const std::string& who, int n) {
  char mac[32];
  snprintf(mac, sizeof mac, "02:00:00:00:%02X:%02X", n, static_cast<unsigned char>(who.back()));
  return mac;
}

// The host port of change `n` of `who` (n < 100).
uint16_t PortOf(const std::string& who, int n) {
  return static_cast<uint16_t>(static_cast<unsigned char>(who.back()) * 100 + n);
}

// The record a change adds, by kind (rotating), so every record type is
// replayed from another cache's tail and carried through compactions.
std::string ChangeRecord(const std::string& who, int n) {
  const std::string id = std::to_string(n);
  switch (n % 4) {
    case 0:
      return "answer " + who + "_" + id + " v" + id;
    case 1:
      return "add_nat_portfwd 3 tcp " + std::to_string(PortOf(who, n)) + " 10.0.0.2 80 " + who;
    case 2:
      return "add_dhcp_mac_to_ip 4 " + MacOf(who, n) + " 10.0.0." + id;
    default:
      return "add_bridge_mapping " + who + "eth" + id + " 5";
  }
}

// Makes change `n` of `who` inside a write bracket of `db`.
bool Change(Db db, const std::string& who, int n) {
  if (!PLRNetCfgLockConfig(db)) return false;
  const std::string id = std::to_string(n);
  bool ok = false;
  switch (n % 4) {
    case 0:
      ok = PLRNetCfgAddAnswerString(db, (who + "_" + id).c_str(), ("v" + id).c_str());
      break;
    case 1:
      ok = PLRNetCfgAddNATPortFwd(db, 3, true, PortOf(who, n), "10.0.0.2", 80, who.c_str(), false);
      break;
    case 2:
      ok = PLRNetCfgAddDHCPMACToIP(db, 4, MacOf(who, n).c_str(), ("10.0.0." + id).c_str(), false);
      break;
    default:
      ok = PLRNetCfgAddHostAdapterMapping(db, (who + "eth" + id).c_str(), 5, false);
  }
  return PLRNetCfgUnlockConfig(db) && ok;
}

// Every record of `expected` is in the state a fresh load of the file gives.
void ExpectAllLanded(const std::set<std::string>& expected) {
  const std::string state = StateOfFile();
  size_t missing = 0;
  for (const std::string& record : expected)
    if (state.find(record + "\n") == std::string::npos) {
      ADD_FAILURE() << "lost: " << record;
      ++missing;
    }
  EXPECT_EQ(missing, 0u) << "of " << expected.size();
}

// Two caches A and B over one file, driven by a script: 'a'/'b' make the next
// change of A/B, 'A'/'B' unload that cache with compaction and load it again,
// 'x'/'y' unload A/B without compaction and load again.
TEST(SeveralWriters, NoScriptOfChangesAndCompactionsLosesAChange) {
  const struct {
    const char* name;
    const char* script;
  } kScripts[] = {
      {"B compacts its forward, then A compacts", "bBaA"},
      {"A appends after B compacted", "bBax"},
      {"alternating, both compact at the end", "abababababababababababababababababababab"},
      {"compactions between every change", "aAbBaAbBabABbaBA"},
      {"reloads without compaction in between", "aaxbbyaBbAab"},
  };
  for (const auto& script : kScripts) {
    SCOPED_TRACE(script.name);
    WriteDatabase();
    Db caches[2] = {LoadCache(), LoadCache()};
    ASSERT_TRUE(caches[0] != nullptr && caches[1] != nullptr);
    const std::string names[2] = {"A", "B"};
    int next[2] = {0, 0};
    std::set<std::string> expected;
    for (const char* step = script.script; *step != '\0'; ++step) {
      const int who = (*step == 'a' || *step == 'A' || *step == 'x') ? 0 : 1;
      if (*step == 'a' || *step == 'b') {
        ASSERT_TRUE(Change(caches[who], names[who], next[who])) << *step;
        expected.insert(ChangeRecord(names[who], next[who]++));
      } else {
        PLRNetCfgUnload(&caches[who], *step == 'A' || *step == 'B');
        ASSERT_NE(caches[who] = LoadCache(), nullptr);
      }
    }
    PLRNetCfgUnload(&caches[0], true);
    PLRNetCfgUnload(&caches[1], true);
    ExpectAllLanded(expected);
  }
}

// Several processes, each with its own cache, change the database at random
// moments and compact now and then; a fresh load holds every change.
TEST(SeveralWriters, ProcessesChangingAndCompactingAtOnceLoseNothing) {
  WriteDatabase();
  constexpr int kProcesses = 4, kChanges = 60;
  int start[2];  // every writer waits for the end of this pipe, so they run at once
  ASSERT_EQ(pipe(start), 0);
  std::vector<pid_t> children;
  for (int p = 0; p < kProcesses; ++p) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      close(start[1]);
      char byte;
      if (read(start[0], &byte, 1) != 0) _exit(2);
      const std::string who = "P" + std::to_string(p);
      Db db = LoadCache();
      bool ok = db != nullptr;
      for (int n = 0; ok && n < kChanges; ++n) {
        ok = Change(db, who, n);
        usleep(100 + 37 * p);    // let the others in between
        if (ok && n % 7 == p) {  // each process compacts at its own moments
          PLRNetCfgUnload(&db, true);
          ok = (db = LoadCache()) != nullptr;
        }
      }
      if (db != nullptr) PLRNetCfgUnload(&db, true);
      _exit(ok ? 0 : 1);
    }
    children.push_back(pid);
  }
  close(start[0]);
  close(start[1]);
  for (pid_t pid : children) {
    int status = -1;
    ASSERT_TRUE(WaitFor([&] { return waitpid(pid, &status, WNOHANG) == pid; }, 60000))
        << "writer " << pid << " did not finish";
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  std::set<std::string> expected;
  for (int p = 0; p < kProcesses; ++p)
    for (int n = 0; n < kChanges; ++n) expected.insert(ChangeRecord("P" + std::to_string(p), n));
  ExpectAllLanded(expected);
}

// The files beside the database named like its temporaries.
std::vector<std::string> Temporaries() {
  constexpr std::string_view kPrefix = ".networking.";
  std::vector<std::string> names;
  std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir("/etc/tarsis"), closedir);
  while (const struct dirent* entry = dir ? readdir(dir.get()) : nullptr) {
    const std::string_view name(entry->d_name);
    if (name.size() == kPrefix.size() + 6 && name.substr(0, kPrefix.size()) == kPrefix)
      names.emplace_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

// A compaction killed between writing its temporary and renaming it leaves
// the temporary and a marked lock file: the next writable load removes the
// temporaries and the mark (a read-only load holds no lock and removes
// nothing). While no writer died, a load looks at no temporary: another
// writer's live temporary stays. A merge's restore point and files of other
// names stay in any case.
TEST(SeveralWriters, LoadRemovesWhatAKilledCompactionLeft) {
  WriteDatabase("answer K v\n");
  LogWhileUnloaded();
  const std::string live = "/etc/tarsis/.networking.Ab12Cd",
                    restorePoint = "/etc/tarsis/.networking.merge.Ab12Cd",
                    other = "/etc/tarsis/.networking.x", user = "/etc/tarsis/networking.mine";
  for (const std::string& path : {live, restorePoint, other, user})
    WriteFile(path, "VERSION=1,0\n");
  Db db = LoadCache();
  ASSERT_NE(db, nullptr);
  PLRNetCfgUnload(&db, false);
  EXPECT_EQ(Temporaries(), std::vector<std::string>{".networking.Ab12Cd"});
  EXPECT_EQ(ReadFile("/etc/tarsis/networking.lck"), "");

  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    Db dying = LoadCache();
    if (dying == nullptr || !Change(dying, "D", 0)) _exit(1);
    sys::calls().rename = [](const char*, const char*) -> int { _exit(0); };
    PLRNetCfgUnload(&dying, true);
    _exit(2);  // the compaction never got to the rename
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  ASSERT_EQ(Temporaries().size(), 2u) << "the dead compaction's temporary is left";
  EXPECT_EQ(ReadFile("/etc/tarsis/networking.lck").size(), 1u) << "and the lock file marked";

  ASSERT_NE(db = LoadCache(kDatabasePath, false, true), nullptr);
  PLRNetCfgUnload(&db, false);
  EXPECT_EQ(Temporaries().size(), 2u) << "a read-only load holds no lock and removes nothing";
  ASSERT_NE(db = LoadCache(), nullptr);
  PLRNetCfgUnload(&db, false);
  EXPECT_EQ(Temporaries(), std::vector<std::string>{});
  EXPECT_EQ(LogCount("Removed stale temporary file: /etc/tarsis/.networking."), 2u);
  EXPECT_EQ(ReadFile("/etc/tarsis/networking.lck"), "");
  EXPECT_TRUE(FileExists(restorePoint));
  EXPECT_TRUE(FileExists(other));
  EXPECT_TRUE(FileExists(user));
  EXPECT_EQ(StateOfFile(), "answer D_0 v0\nanswer K v\n") << "the journal kept the dead change";

  // A compaction that completes clears its mark; one that cannot mark the
  // lock file still completes.
  for (bool markFails : {false, true}) {
    ASSERT_NE(db = LoadCache(), nullptr);
    ASSERT_TRUE(Change(db, "C", markFails ? 4 : 8));
    if (markFails) sys::FailNth(sys::Op::kFtruncate, 1, EIO);
    PLRNetCfgUnload(&db, true);
    sys::ClearFaults();
    EXPECT_EQ(Temporaries(), std::vector<std::string>{});
    EXPECT_EQ(ReadFile("/etc/tarsis/networking.lck"), "");
  }
  EXPECT_EQ(StateOfFile(), "answer C_4 v4\nanswer C_8 v8\nanswer D_0 v0\nanswer K v\n");
}

}  // namespace
}  // namespace plr::test
