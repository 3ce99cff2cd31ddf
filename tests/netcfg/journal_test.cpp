// Every change appends exactly its records to the journal and nothing else;
// a failed write undoes the change; any cut of the journal loads; read-only
// and unchanged caches leave the file alone.
#include <fcntl.h>
#include <unistd.h>

#include <iterator>
#include <set>

#include "base/file-lock.h"
#include "base/sys-util.h"
#include "tests/netcfg/netcfg_util.h"

namespace plr::test {
namespace {

using Db = PLRNetworkConfigurationDB*;
#define DO(call) [](Db d) { return PLRNetCfg##call; }

const std::string kDesc127(127, 'd'), kDesc128(128, 'd'), kLongValue(1100, 'v');
const std::string kDesc127Record = "add_nat_portfwd 2 tcp 23 10.0.0.2 23 " + kDesc127 + "\n";

// One change, whether it succeeds, and the records it appends.
const struct Step {
  bool (*run)(Db);
  bool ok;
  const char* appended;
  bool removeAll = false;  // goes on past a failed record
} kSteps[] = {
    {DO(AddAnswerString(d, "K", "my net")), true, "answer K my net\n"},
    {DO(AddAnswerString(d, "K", "other")), true, "remove_answer K\nanswer K other\n"},
    {DO(AddAnswerInt32(d, "N", -5)), true, "answer N -5\n"},
    {DO(RemoveAnswer(d, "N")), true, "remove_answer N\n"},
    {DO(RemoveAnswer(d, "NEVER_SET")), true, ""},
    {DO(AddAnswerBool(d, "B", false)), true, ""},  // absent counts as false
    {DO(AddAnswerBool(d, "B", true)), true, "answer B yes\n"},
    {DO(AddAnswerBool(d, "B", true)), true, ""},
    {DO(AddAnswerBool(d, "B", false)), true, "remove_answer B\nanswer B no\n"},
    {DO(AddNATPortFwd(d, 8, true, 80, "10.0.0.2", 8080, "web server", false)), true,
     "add_nat_portfwd 8 tcp 80 10.0.0.2 8080 web server\n"},
    {DO(AddNATPortFwd(d, 8, true, 80, "10.0.0.3", 80, nullptr, false)), true,
     "remove_nat_portfwd 8 tcp 80\nadd_nat_portfwd 8 tcp 80 10.0.0.3 80\n"},
    {DO(AddNATPortFwd(d, 8, false, 80, "10.0.0.4", 53, "", false)), true,
     "add_nat_portfwd 8 udp 80 10.0.0.4 53\n"},
    {DO(RemoveNATPortFwd(d, 8, false, 80)), true, "remove_nat_portfwd 8 udp 80\n"},
    {DO(RemoveNATPortFwd(d, 8, false, 80)), false, ""},
    {DO(AddNATPortFwd(d, 8, true, 20, "10.0.0.2", 20, nullptr, false)), true,
     "add_nat_portfwd 8 tcp 20 10.0.0.2 20\n"},
    {DO(AddNATPortFwd(d, 8, false, 7, "10.0.0.2", 7, nullptr, false)), true,
     "add_nat_portfwd 8 udp 7 10.0.0.2 7\n"},
    {DO(RemoveAllNATPortFwd(d, 8, true, false, true)), true,
     "remove_nat_portfwd 8 tcp 20\nremove_nat_portfwd 8 tcp 80\n", true},
    {DO(RemoveAllNATPortFwd(d, 8, false, true, false)), true, ""},  // cache only
    {DO(RemoveAllNATPortFwd(d, 9, true, true, true)), true, ""},    // nothing to drop
    {DO(AddDHCPMACToIP(d, 8, "02:7a:3e:2a:10:01", "192.168.120.130", false)), true,
     "add_dhcp_mac_to_ip 8 02:7A:3E:2A:10:01 192.168.120.130\n"},
    {DO(AddDHCPMACToIP(d, 8, "02:7A:3E:2A:10:01", "192.168.120.131", false)), true,
     "remove_dhcp_mac_to_ip 8 02:7A:3E:2A:10:01\n"
     "add_dhcp_mac_to_ip 8 02:7A:3E:2A:10:01 192.168.120.131\n"},
    {DO(RemoveDHCPMACToIP(d, 8, "2:7a:3e:2a:10:1")), true,
     "remove_dhcp_mac_to_ip 8 02:7A:3E:2A:10:01\n"},
    {DO(AddDHCPMACToIP(d, 9, "00:00:00:00:00:0b", "10.0.0.2", false)), true,
     "add_dhcp_mac_to_ip 9 00:00:00:00:00:0B 10.0.0.2\n"},
    {DO(AddDHCPMACToIP(d, 9, "00:00:00:00:00:0a", "10.0.0.3", false)), true,
     "add_dhcp_mac_to_ip 9 00:00:00:00:00:0A 10.0.0.3\n"},
    {DO(RemoveAllDHCPMACToIPMapping(d, 9, true)), true,
     "remove_dhcp_mac_to_ip 9 00:00:00:00:00:0A\nremove_dhcp_mac_to_ip 9 00:00:00:00:00:0B\n",
     true},
    {DO(AddHostAdapterMapping(d, "eth0", 0, false)), true, "add_bridge_mapping eth0 0\n"},
    {DO(AddHostAdapterMapping(d, "eth0", 0, false)), true, ""},
    {DO(AddHostAdapterMapping(d, "eth0", -1, false)), true,
     "remove_bridge_mapping eth0\nadd_bridge_mapping eth0 -1\n"},
    {DO(RemoveHostAdapterMapping(d, "eth0")), true, "remove_bridge_mapping eth0\n"},
    {DO(RemoveHostAdapterMapping(d, "eth0")), false, ""},
    {DO(AddNATPrefix(d, 8, "fd00:1::/64")), true, "add_nat_prefix 8 fd00:1::/64\n"},
    {DO(AddNATPrefix(d, 8, "fd00:1::/64")), true, ""},
    {DO(AddNATPrefix(d, 8, "fd00:2::/64")), true, "add_nat_prefix 8 fd00:2::/64\n"},
    {DO(RemoveNATPrefix(d, 8, "fd00:1::/64")), true, "remove_nat_prefix 8 fd00:1::/64\n"},
    {DO(RemoveNATPrefix(d, 8, "fd00:1::/64")), false, ""},
    {DO(AddNATPrefix(d, 7, "fd00:7::/64")), true, "add_nat_prefix 7 fd00:7::/64\n"},
    {DO(RemoveAllNATPrefix(d, 8, true)), true, ""},  // never written
    // Past the last vnet there is nothing to drop.
    {DO(RemoveAllNATPrefix(d, 256, true)), true, ""},
    {DO(RemoveAllNATPortFwd(d, 256, true, true, true)), true, ""},
    {DO(RemoveAllDHCPMACToIPMapping(d, 256, true)), true, ""},
    // Refused before anything is written.
    {DO(AddAnswerString(d, "TWO WORDS", "v")), false, ""},
    {DO(AddAnswerString(d, "KEY", "line\nbreak")), false, ""},
    {DO(AddAnswerString(d, "KEY", "")), false, ""},
    {DO(AddAnswerString(d, "LONG", kLongValue.c_str())), false, ""},
    {DO(AddNATPortFwd(d, 256, true, 80, "10.0.0.2", 80, nullptr, false)), false, ""},
    {DO(AddNATPortFwd(d, 1, true, 0, "10.0.0.2", 80, nullptr, false)), false, ""},
    {DO(AddNATPortFwd(d, 1, true, 80, "10.0.0.256", 80, nullptr, false)), false, ""},
    {DO(AddNATPortFwd(d, 1, true, 80, "10.0.0.2", 0, nullptr, false)), false, ""},
    {DO(AddNATPortFwd(d, 1, true, 80, "10.0.0.2", 80, "a\nb", false)), false, ""},
    {DO(AddDHCPMACToIP(d, 1, "not-a-mac", "10.0.0.2", false)), false, ""},
    {DO(AddDHCPMACToIP(d, 1, "00:11:22:33:44:55", "10.0.0", false)), false, ""},
    {DO(AddDHCPMACToIP(d, 256, "00:11:22:33:44:55", "10.0.0.2", false)), false, ""},
    {DO(AddHostAdapterMapping(d, "eth0", 256, false)), false, ""},
    {DO(AddHostAdapterMapping(d, "eth0", -2, false)), false, ""},
    {DO(AddHostAdapterMapping(d, std::string(128, 'e').c_str(), 1, false)), false, ""},
    {DO(AddHostAdapterMapping(d, "eth 0", 1, false)), false, ""},
    {DO(AddNATPrefix(d, 1, "fd00::/20")), false, ""},
    {DO(AddNATPrefix(d, 256, "fd00::/64")), false, ""},
    {DO(AddNATPrefix(d, 1, "fd00::/64 x")), false, ""},
    {DO(AddNATPrefix(d, 1, ("fd00::/64" + std::string(120, '0')).c_str())), false, ""},
    // An overlong description is dropped, the forward kept.
    {DO(AddNATPortFwd(d, 2, true, 22, "10.0.0.2", 22, kDesc128.c_str(), false)), true,
     "add_nat_portfwd 2 tcp 22 10.0.0.2 22\n"},
    {DO(AddNATPortFwd(d, 2, true, 23, "10.0.0.2", 23, kDesc127.c_str(), false)), true,
     kDesc127Record.c_str()},
};
#undef DO

TEST_F(CacheTest, EachChangeAppendsExactlyItsRecords) {
  Open();
  std::string journal;
  for (size_t i = 0; i < std::size(kSteps); ++i) {
    SCOPED_TRACE("step " + std::to_string(i));
    EXPECT_EQ(kSteps[i].run(db_), kSteps[i].ok);
    ASSERT_EQ(Tail(), journal += kSteps[i].appended);
  }
  const std::string fwds = "add_nat_portfwd 2 tcp 22 10.0.0.2 22\n" + kDesc127Record;
  const std::string answers = "answer B no\nanswer K other\n";
  EXPECT_EQ(StateOf(db_), fwds + "add_nat_prefix 7 fd00:7::/64\n" + answers);
  EXPECT_EQ(db_->portFwds[8], nullptr);  // the holder goes with its last table
  // The cache-only removals are not in the file.
  EXPECT_EQ(StateOfFile(), fwds +
                               "add_nat_portfwd 8 udp 7 10.0.0.2 7\nadd_nat_prefix 7 fd00:7::/64\n"
                               "add_nat_prefix 8 fd00:2::/64\n" +
                               answers);
}

// How the nth write of a change fails: refused outright, or cut one byte
// short (the record lands without its newline) and then cut off the file
// again, or cut short with the truncation failing too, which leaves the
// partial record in the file for a compensating record to settle.
enum class WriteFault { kRefused, kCut, kCutAndStuck };
unsigned gWritesLeft = 0;  // writes to pass before the cut one
ssize_t (*gRealWrite)(int, const void*, size_t);
ssize_t CutWrite(int fd, const void* buf, size_t n) {
  if (gWritesLeft-- != 1 || n < 2) return gRealWrite(fd, buf, n);
  return gRealWrite(fd, buf, n - 1);
}

// Failing any write of a change, in any of those ways (the database holding
// the journal of the steps before it), fails the change, leaves cache and
// file state as they were, ends the file with a newline, and the cache goes
// on working.
TEST_F(CacheTest, FailedWriteAtEveryPositionUndoesTheChange) {
  for (WriteFault fault : {WriteFault::kRefused, WriteFault::kCut, WriteFault::kCutAndStuck}) {
    std::string journal;
    for (size_t i = 0; i < std::size(kSteps); journal += kSteps[i++].appended) {
      for (unsigned nth = 1; *kSteps[i].appended != '\0' && !kSteps[i].removeAll; ++nth) {
        SCOPED_TRACE("fault " + std::to_string(static_cast<int>(fault)) + ", step " +
                     std::to_string(i) + ", write " + std::to_string(nth));
        Open(journal);
        const std::string before = StateOf(db_);
        sys::ClearFaults();  // counts the change's writes only
        if (fault == WriteFault::kRefused) {
          sys::FailNth(sys::Op::kWrite, nth, ENOSPC);
        } else {
          gRealWrite = sys::calls().write;
          sys::calls().write = CutWrite;
          gWritesLeft = nth;
          if (fault == WriteFault::kCutAndStuck) sys::FailNth(sys::Op::kFtruncate, 1, EIO);
        }
        bool ok = kSteps[i].run(db_);
        bool reached = sys::CallCount(sys::Op::kWrite) >= nth;
        sys::ClearFaults();
        sys::ResetCalls();
        if (!reached) break;
        EXPECT_FALSE(ok);
        EXPECT_EQ(StateOf(db_), before);
        EXPECT_EQ(StateOfFile(), before);
        EXPECT_EQ(ReadFile(kDatabasePath).back(), '\n');
        ASSERT_TRUE(PLRNetCfgAddAnswerString(db_, "AFTER", "1"));
        EXPECT_EQ(StateOfFile(), StateOf(db_));
      }
    }
  }
}

// A remove record that lands before the failed add is compensated by the old
// value; removing all forwards goes on past a failed record.
TEST_F(CacheTest, CompensatingRecordAndRemoveAllPastAFailure) {
  Open(
      "answer K old\nadd_nat_portfwd 8 tcp 80 10.0.0.2 80\nadd_nat_portfwd 8 udp 80 10.0.0.2 80\n");
  sys::FailNth(sys::Op::kWrite, 2, ENOSPC);
  EXPECT_FALSE(PLRNetCfgAddAnswerString(db_, "K", "new"));
  sys::FailNth(sys::Op::kWrite, 1, ENOSPC);
  EXPECT_TRUE(PLRNetCfgRemoveAllNATPortFwd(db_, 8, true, false, true));
  sys::ClearFaults();
  EXPECT_EQ(Tail().substr(Tail().find("remove_answer")), "remove_answer K\nanswer K old\n");
  EXPECT_EQ(StateOf(db_), "add_nat_portfwd 8 udp 80 10.0.0.2 80\nanswer K old\n");
  // Removing all mappings goes on past a failed record too, and says so.
  ASSERT_TRUE(PLRNetCfgAddDHCPMACToIP(db_, 9, "00:00:00:00:00:0a", "10.0.0.2", false));
  ASSERT_TRUE(PLRNetCfgAddDHCPMACToIP(db_, 9, "00:00:00:00:00:0b", "10.0.0.3", false));
  LogWhileUnloaded();
  sys::FailNth(sys::Op::kWrite, 1, ENOSPC);
  EXPECT_TRUE(PLRNetCfgRemoveAllDHCPMACToIPMapping(db_, 9, true));
  sys::ClearFaults();
  EXPECT_TRUE(LogHas("All the DHCP mappings could not be deleted"));
  EXPECT_TRUE(LogHas(
      "Failed to write record to database file: remove_dhcp_mac_to_ip 9 00:00:00:00:00:0A\n"))
      << "the record as written, without its own line break";
  EXPECT_EQ(Tail().substr(Tail().rfind("answer K old\n") + 13),
            "add_dhcp_mac_to_ip 9 00:00:00:00:00:0A 10.0.0.2\n"
            "add_dhcp_mac_to_ip 9 00:00:00:00:00:0B 10.0.0.3\n"
            "remove_dhcp_mac_to_ip 9 00:00:00:00:00:0B\n");
  EXPECT_EQ(StateOf(db_), "add_nat_portfwd 8 udp 80 10.0.0.2 80\nanswer K old\n");
  // The cache's own records are not read back: the lock's catch-up finds the
  // file ending where the cache's last append ended, so nothing is replayed
  // (a replayed mapping would say it replaces itself).
  ASSERT_TRUE(PLRNetCfgAddDHCPMACToIP(db_, 9, "00:00:00:00:00:0c", "10.0.0.4", false));
  ASSERT_TRUE(PLRNetCfgLockConfig(db_));
  ASSERT_TRUE(PLRNetCfgUnlockConfig(db_));
  EXPECT_FALSE(LogHas("DHCP entry already exists"));
}

// The journal of all steps cut at every byte loads to the state of its last
// complete record, or that state changed in at most one entry by the partial
// last record; a cut version line does not load.
TEST_F(CacheTest, EveryPrefixOfTheJournalLoadsToACompleteState) {
  Open();
  for (const Step& step : kSteps) step.run(db_);
  const std::string file = ReadFile(kDatabasePath);
  auto stateOf = [](const std::string& text) {
    WriteFile(kDatabasePath, text);
    return StateOfFile();
  };
  auto lines = [](const std::string& s) {
    std::multiset<std::string> out;
    for (size_t b = 0, e; b < s.size(); b = e + 1)
      out.insert(s.substr(b, (e = s.find('\n', b)) - b));
    return out;
  };
  EXPECT_EQ(stateOf("VERSION=1,"), "<load failed>");
  std::string complete;
  for (size_t cut = sizeof "VERSION=1,0", end = 0; cut <= file.size(); ++cut) {
    if (file[cut - 1] == '\n') complete = stateOf(file.substr(0, end = cut));
    auto a = lines(complete), b = lines(stateOf(file.substr(0, cut)));
    std::vector<std::string> diff;
    std::set_symmetric_difference(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(diff));
    EXPECT_LE(diff.size(), 2u) << "cut " << cut << " after " << end;
  }
}

// Another process appends and leaves its last line unterminated: ours still
// lands on a line of its own at the end. The lock is held once.
TEST_F(CacheTest, AppendLandsAtTheEndAfterAnotherWriter) {
  Open();
  ASSERT_TRUE(PLRNetCfgAddAnswerString(db_, "A", "1"));
  int fd = open(kDatabasePath, O_WRONLY | O_APPEND);
  ASSERT_EQ(write(fd, "answer B 2\nanswer C 3", 21), 21);
  close(fd);
  ASSERT_TRUE(PLRNetCfgAddAnswerString(db_, "D", "4"));
  EXPECT_EQ(Tail(), "answer A 1\nanswer B 2\nanswer C 3\nanswer D 4\n");
  // The cache holds its lock once; unlocking twice is harmless.
  EXPECT_TRUE(PLRNetCfgLockConfig(db_) && !PLRNetCfgLockConfig(db_));
  EXPECT_FALSE(FileLock().Lock(kDatabasePath, 0));
  EXPECT_TRUE(PLRNetCfgUnlockConfig(db_) && PLRNetCfgUnlockConfig(db_));
  EXPECT_TRUE(FileLock().Lock(kDatabasePath, 0));
}

TEST_F(CacheTest, ReadOnlyUnchangedOrMissingCacheLeavesTheFileByteForByte) {
  WriteDatabase("answer X old\n");
  const std::string before = ReadFile(kDatabasePath);
  ASSERT_NE(db_ = LoadCache(kDatabasePath, false, true), nullptr);
  EXPECT_TRUE(PLRNetCfgIsReadOnly(db_));
  for (const Step& step : kSteps) step.run(db_);
  EXPECT_TRUE(PLRNetCfgAddNATPrefix(db_, 9, "fd00:9::/64"));  // in memory only
  EXPECT_TRUE(PLRNetCfgLookupNATPrefix(db_, 9, "fd00:9::/64"));
  const char* value = nullptr;
  ASSERT_TRUE(PLRNetCfgGetAnswerString(db_, "K", &value));
  EXPECT_STREQ(value, "other");
  PLRNetCfgUnload(&db_, true);  // a read-only cache is never rewritten
  EXPECT_EQ(ReadFile(kDatabasePath), before);
  // Nor is a writable one that was not changed, junk lines and all.
  const std::string journal = "VERSION=1,0\nanswer B 2\nremove_answer B\nanswer A 1\nbogus line\n";
  WriteFile(kDatabasePath, journal);
  ASSERT_NE(db_ = LoadCache(), nullptr);
  EXPECT_FALSE(PLRNetCfgIsReadOnly(db_));
  ASSERT_TRUE(PLRNetCfgAddAnswerBool(db_, "A_BOOL", false));  // no change
  PLRNetCfgUnload(&db_, true);
  EXPECT_EQ(ReadFile(kDatabasePath), journal);
  // Without a default cache every writing change to a null cache is refused
  // (but turning off a boolean that is absent, as it is there, is no change).
  for (const Step& step : kSteps)
    EXPECT_TRUE(*step.appended == '\0' || step.removeAll || &step == &kSteps[8] ||
                !step.run(nullptr));
  EXPECT_FALSE(PLRNetCfgLockConfig(nullptr));
  EXPECT_TRUE(PLRNetCfgUnlockConfig(nullptr)) << "nothing locked is nothing to unlock";
}

}  // namespace
}  // namespace plr::test
