// A change whose append fails leaves the cache as it was, and the file
// replays to that same state: with injected write faults at every position
// of a change, and with a real full file system.
#include <errno.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <functional>

#include "base/sys-util.h"
#include "tests/netcfg/netcfg_util.h"

namespace plr::test {
namespace {

struct Change {
  const char* name;
  std::function<bool(PLRNetworkConfigurationDB*)> run;
};

// Existing entries first, so every change kind meets both a new key and a
// replaced one.
const char* kSeed =
    "answer OLD_KEY old value\n"
    "add_nat_portfwd 8 tcp 80 10.0.0.2 80 old\n"
    "add_dhcp_mac_to_ip 8 00:11:22:33:44:55 10.0.0.5\n"
    "add_bridge_mapping eth0 0\n"
    "add_nat_prefix 8 fd00:1::/64\n";

#define CHANGE(name, call)                                   \
  Change {                                                   \
    name, [](PLRNetworkConfigurationDB* db) { return call; } \
  }
std::vector<Change> Changes() {
  return {
      CHANGE("new answer", PLRNetCfgAddAnswerString(db, "NEW_KEY", "v")),
      CHANGE("changed answer", PLRNetCfgAddAnswerString(db, "OLD_KEY", "new")),
      CHANGE("removed answer", PLRNetCfgRemoveAnswer(db, "OLD_KEY")),
      CHANGE("new fwd", PLRNetCfgAddNATPortFwd(db, 8, false, 53, "10.0.0.3", 53, nullptr, false)),
      CHANGE("changed fwd", PLRNetCfgAddNATPortFwd(db, 8, true, 80, "10.0.0.9", 8080, "n", false)),
      CHANGE("removed forward", PLRNetCfgRemoveNATPortFwd(db, 8, true, 80)),
      CHANGE("new mapping", PLRNetCfgAddDHCPMACToIP(db, 8, "00:11:22:33:44:66", "10.0.0.6", false)),
      CHANGE("changed map", PLRNetCfgAddDHCPMACToIP(db, 8, "00:11:22:33:44:55", "10.0.0.7", false)),
      CHANGE("removed mapping", PLRNetCfgRemoveDHCPMACToIP(db, 8, "00:11:22:33:44:55")),
      CHANGE("new bridge", PLRNetCfgAddHostAdapterMapping(db, "eth1", 2, false)),
      CHANGE("changed bridge", PLRNetCfgAddHostAdapterMapping(db, "eth0", -1, false)),
      CHANGE("removed bridge", PLRNetCfgRemoveHostAdapterMapping(db, "eth0")),
      CHANGE("new prefix", PLRNetCfgAddNATPrefix(db, 8, "fd00:2::/64")),
      CHANGE("removed prefix", PLRNetCfgRemoveNATPrefix(db, 8, "fd00:1::/64")),
  };
}
#undef CHANGE

// For each change and each of its writes: failing that write (and only it)
// fails the change, the cache is back to its old state, the file replays to
// it, and the journal holds at most records followed by their compensation.
TEST(Rollback, InjectedWriteFaultAtEveryPositionOfEveryChange) {
  LogCapture log;
  unsigned injected = 0;
  for (const Change& change : Changes()) {
    for (unsigned nth = 1;; ++nth) {
      WriteDatabase(kSeed);
      PLRNetworkConfigurationDB* db = LoadCache();
      ASSERT_NE(db, nullptr);
      const std::string before = StateOf(db);
      sys::ClearFaults();
      sys::FailNth(sys::Op::kWrite, nth, EIO);
      bool ok = change.run(db);
      unsigned writes = sys::CallCount(sys::Op::kWrite);
      sys::ClearFaults();
      if (writes < nth) {  // the change made fewer writes: every position was tried
        EXPECT_TRUE(ok) << change.name;
        EXPECT_EQ(StateOfFile(), StateOf(db)) << change.name;
        PLRNetCfgUnload(&db, false);
        break;
      }
      ++injected;
      EXPECT_FALSE(ok) << change.name << ", write " << nth;
      EXPECT_EQ(StateOf(db), before) << change.name << ", write " << nth;
      EXPECT_EQ(StateOfFile(), before) << change.name << ", write " << nth;
      // The cache goes on working and its next change lands.
      EXPECT_TRUE(PLRNetCfgAddAnswerString(db, "AFTER", "1")) << change.name;
      EXPECT_EQ(StateOfFile(), StateOf(db)) << change.name;
      PLRNetCfgUnload(&db, false);
    }
  }
  // Every change writes at least one record; replacements write two.
  EXPECT_GE(injected, Changes().size() + 4);
  EXPECT_TRUE(log.Has("Failed to write record to database file: "));
}

TEST(Rollback, MessagesOfAFailedAnswerChange) {
  WriteDatabase("answer K old\n");
  LogCapture log;
  PLRNetworkConfigurationDB* db = LoadCache();
  ASSERT_NE(db, nullptr);
  sys::FailNth(sys::Op::kWrite, 2, ENOSPC);  // the remove record lands, the new value does not
  EXPECT_FALSE(PLRNetCfgAddAnswerString(db, "K", "new"));
  sys::ClearFaults();
  EXPECT_TRUE(
      log.HasLine("PLRNetCfgAddAnswerString",
                  "Failed to write to K:new to database file, error: No space left on device"));
  EXPECT_TRUE(log.HasLine("NetCfgWriteRecordToConfig",
                          "Failed to write record to database file: answer K new"));
  // The landed remove record is compensated by the old value.
  EXPECT_EQ(ReadFile(kDatabasePath), "VERSION=1,0\nanswer K old\nremove_answer K\nanswer K old\n");
  sys::FailNth(sys::Op::kWrite, 1, ENOSPC);
  EXPECT_FALSE(PLRNetCfgRemoveAnswer(db, "K"));
  sys::ClearFaults();
  EXPECT_TRUE(log.HasLine("PLRNetCfgRemoveAnswer", "Failed to remove \"K\" in database file"));
  const char* value = nullptr;
  ASSERT_TRUE(PLRNetCfgGetAnswerString(db, "K", &value));
  EXPECT_STREQ(value, "old");
  PLRNetCfgUnload(&db, false);
}

TEST(Rollback, RestoringCallKeepsItsChangeInTheCache) {
  WriteDatabase();
  LogCapture log;
  PLRNetworkConfigurationDB* db = LoadCache();
  ASSERT_NE(db, nullptr);
  sys::FailNth(sys::Op::kWrite, 1, EIO);
  EXPECT_FALSE(PLRNetCfgAddHostAdapterMapping(db, "eth3", 3, true));
  sys::ClearFaults();
  int32_t vnet = 0;
  ASSERT_TRUE(PLRNetCfgLookupVnetForHostAdapter(db, "eth3", &vnet));  // no undo of an undo
  EXPECT_EQ(vnet, 3);
  EXPECT_TRUE(db->modified);  // so a compacting unload writes what the cache holds
  PLRNetCfgUnload(&db, true);
  EXPECT_EQ(StateOfFile(), "B eth3 3\n");
}

// A real full file system: the database lives on a tiny tmpfs, filled up
// until an append fails. The failed change leaves no partial record.
TEST(Rollback, FullFileSystemFailsTheAppendCleanly) {
  ASSERT_EQ(mount("tmpfs", "/etc/tarsis", "tmpfs", 0, "size=16k"), 0) << strerror(errno);
  WriteDatabase("answer SEED 1\n");
  LogCapture log;
  PLRNetworkConfigurationDB* db = LoadCache();
  ASSERT_NE(db, nullptr);
  // Fill every free block with a file of its own.
  int filler = open("/etc/tarsis/filler", O_WRONLY | O_CREAT, 0644);
  ASSERT_GE(filler, 0);
  std::string block(4096, 'f');
  while (write(filler, block.data(), block.size()) > 0) {
  }
  while (write(filler, "f", 1) > 0) {
  }
  close(filler);

  bool failed = false;
  std::string before;
  for (int i = 0; i < 2000 && !failed; ++i) {
    before = StateOf(db);
    std::string key = "VNET_7_KEY_" + std::to_string(i);
    failed = !PLRNetCfgAddNATPortFwd(db, 7, true, static_cast<uint16_t>(i + 1), "10.0.0.2", 80,
                                     "some description text to fill the page", false);
  }
  ASSERT_TRUE(failed) << "the file system never filled up";
  EXPECT_TRUE(log.Has("No space left on device") || log.Has("Failed to add port forward record"));
  EXPECT_EQ(StateOf(db), before);
  std::string journal = ReadFile(kDatabasePath);
  EXPECT_EQ(journal.back(), '\n');  // no partial record
  EXPECT_EQ(StateOfFile(), before);

  // With room again the next change lands.
  ASSERT_EQ(unlink("/etc/tarsis/filler"), 0);
  EXPECT_TRUE(PLRNetCfgAddAnswerString(db, "AFTER", "room"));
  EXPECT_EQ(StateOfFile(), StateOf(db));
  PLRNetCfgUnload(&db, false);
}

}  // namespace
}  // namespace plr::test
