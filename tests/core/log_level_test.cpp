// The log mask in force, the stored default mask, and which file the log
// goes to: the default file, a configured one, or none.
#include <dirent.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "pelorus.h"
#include "tests/core/core_util.h"
#include "tests/support/sandbox.h"

namespace plr::test {
namespace {

using Lines = std::vector<std::string>;

// How many descriptors of this process are open on `path`.
int OpenDescriptorsOn(const std::string& path) {
  int count = 0;
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return -1;
  while (dirent* entry = readdir(dir)) {
    char target[PATH_MAX];
    std::string link = std::string("/proc/self/fd/") + entry->d_name;
    ssize_t n = readlink(link.c_str(), target, sizeof target - 1);
    if (n <= 0) continue;
    target[n] = '\0';
    count += path == target;
  }
  closedir(dir);
  return count;
}

TEST(LogMask, DefaultMaskWritesWarningsButNotInfo) {
  LoadWithRecords();
  PLR_SetCurrentLogLevel(PLR_LOG_DEFAULT_LEVEL);
  PLRLog(PLR_LOG_INFO, "Probe", "info %d", 1);
  PLRLog(PLR_LOG_WRN, "Probe", "warning %d", 2);
  PLRLog(PLR_LOG_ERRCMN, "Probe", "common %d", 3);
  PLRLog(PLR_LOG_OK, nullptr, "no name %s", "here");
  Lines lines = LogLines(kLogPath);
  EXPECT_EQ(CountLine(lines, "Probe - info 1"), 0);
  EXPECT_EQ(CountLine(lines, "Probe - common 3"), 0);
  EXPECT_EQ(CountLine(lines, "Probe - warning 2"), 1);
  EXPECT_EQ(CountLine(lines, "no name here"), 1);
  PLR_Unload();
}

TEST(LogMask, CurrentLevelZeroSilencesUntilSetAgain) {
  LoadWithRecords();
  ASSERT_TRUE(PLR_SetCurrentLogLevel(0));
  EXPECT_EQ(PLR_GetCurrentLogLevel(), 0u);
  off_t before = static_cast<off_t>(ReadFile(kLogPath).size());
  EXPECT_FALSE(PLRIsValidIP("not an address"));
  EXPECT_FALSE(PLR_SetDefaultLogLevel(0x80));
  EXPECT_EQ(static_cast<off_t>(ReadFile(kLogPath).size()), before);

  ASSERT_TRUE(PLR_SetCurrentLogLevel(PLR_LOG_ERR));
  EXPECT_FALSE(PLRIsValidIP("not an address"));
  EXPECT_EQ(CountLine(LogLines(kLogPath), "PLRIPStr2Int - sscanf failed"), 1);
  PLR_Unload();
}

TEST(StoredLevel, DamagedOrMissingValuesGiveTheDefault) {
  struct Case {
    const char* records;
    uint32_t level;
  };
  const Case cases[] = {
      {"", 0x19},
      {"answer PLR_LOGLEVEL -5\n", 0x19},
      {"answer PLR_LOGLEVEL abc\n", 0x19},
      {"answer PLR_LOGLEVEL 0x7f\n", 0x7f},
      {"answer PLR_LOGLEVEL 3\n", 3},
      {"answer PLR_LOGLEVEL 0\n", 0},
  };
  for (const Case& c : cases) {
    WriteDatabase(c.records);
    ASSERT_TRUE(PLR_Load(0)) << c.records;
    EXPECT_EQ(PLRGetVnetCfgLogLevel(), c.level) << c.records;
    EXPECT_EQ(PLR_GetCurrentLogLevel(), c.level) << "the load puts it in force: " << c.records;
    PLR_Unload2(0);
  }
}

TEST(StoredLevel, SetDefaultStoresForTheNextLoadOnly) {
  LoadWithRecords();
  ASSERT_TRUE(PLR_SetCurrentLogLevel(PLR_LOG_DEFAULT_LEVEL));
  EXPECT_TRUE(PLR_SetDefaultLogLevel(0x7f));
  EXPECT_EQ(PLR_GetCurrentLogLevel(), PLR_LOG_DEFAULT_LEVEL) << "the mask in force is kept";
  EXPECT_EQ(PLR_GetDefaultLogLevel(), 0x7fu);
  EXPECT_EQ(ReadFile(kDatabasePath), "VERSION=1,0\nanswer PLR_LOGLEVEL 0x7f\n");
  PLR_Unload();
  ASSERT_TRUE(PLR_Load(0));
  EXPECT_EQ(PLR_GetCurrentLogLevel(), 0x7fu);
  PLR_Unload();
}

TEST(StoredLevel, LevelAboveMaximumIsRefusedAndNegativeReadsBackAsDefault) {
  LoadWithRecords("answer PLR_LOGLEVEL 0x19\n");
  EXPECT_FALSE(PLR_SetDefaultLogLevel(0x80));
  EXPECT_FALSE(PLR_SetDefaultLogLevel(0xFFFFFFFFu));
  EXPECT_EQ(PLR_GetDefaultLogLevel(), 0x19u);
  EXPECT_EQ(CountLine(LogLines(kLogPath),
                      "PLR_SetDefaultLogLevel - Invalid log level: 80, max log level: 7f"),
            1);
  EXPECT_EQ(ReadFile(kDatabasePath), "VERSION=1,0\nanswer PLR_LOGLEVEL 0x19\n");
  EXPECT_TRUE(PLRSetVnetCfgLogLevel(-1));
  EXPECT_EQ(ReadFile(kDatabasePath),
            "VERSION=1,0\nanswer PLR_LOGLEVEL 0x19\nremove_answer PLR_LOGLEVEL\n"
            "answer PLR_LOGLEVEL 0xffffffff\n");
  EXPECT_EQ(PLRGetVnetCfgLogLevel(), 0x19u);
  PLR_Unload();
}

TEST(LogPath, CopiesOnlyWhatFits) {
  LoadWithRecords("answer PLR_LOG_FILE /tmp/x.log\n");  // 10 characters
  char buf[16];
  EXPECT_TRUE(PLRGetLogPath(buf, 11));
  EXPECT_STREQ(buf, "/tmp/x.log");
  EXPECT_FALSE(PLRGetLogPath(buf, 10));
  EXPECT_TRUE(PLR_VnetCfgRemoveAnswer("PLR_LOG_FILE"));
  EXPECT_FALSE(PLRGetLogPath(buf, sizeof buf));
  PLR_Unload();
}

TEST(LogFile, ConfiguredFileReplacesTheDefaultStream) {
  WriteDatabase("answer PLR_LOG_FILE /tmp/alt.log\n");
  ASSERT_TRUE(PLR_Load(0));
  EXPECT_EQ(OpenDescriptorsOn(kLogPath), 0) << "the default stream is closed";
  EXPECT_EQ(OpenDescriptorsOn("/tmp/alt.log"), 1);
  EXPECT_EQ(CountLine(LogLines("/tmp/alt.log"), "PLR_Load - LOG_ERR logged"), 1);
  EXPECT_EQ(CountLine(LogLines(kLogPath), "PLR_Load - LOG_ERR logged"), 0);
  PLR_Unload();
  EXPECT_EQ(OpenDescriptorsOn("/tmp/alt.log"), 0) << "the last unload closes the log";
  EXPECT_EQ(CountLine(LogLines("/tmp/alt.log"), "PLR_Unload2 - Pelorus unloaded."), 1);

  WriteDatabase("answer PLR_LOG_FILE /var/log/pelorus\n");  // the default path is not reopened
  ASSERT_TRUE(PLR_Load(0));
  EXPECT_EQ(OpenDescriptorsOn(kLogPath), 1);
  EXPECT_EQ(CountLine(LogLines(kLogPath), "PLR_Load - LOG_ERR logged"), 1);
  PLR_Unload();
}

TEST(LogFile, PathOf256CharactersIsIgnoredAnd255IsUsed) {
  std::string tooLong = "/tmp/" + std::string(251, 'a');
  std::string longest = "/tmp/" + std::string(250, 'b');
  ASSERT_EQ(tooLong.size(), 256u);
  WriteDatabase("answer PLR_LOG_FILE " + tooLong + "\n");
  ASSERT_TRUE(PLR_Load(0));
  PLR_Unload();
  EXPECT_FALSE(FileExists(tooLong));
  EXPECT_EQ(CountLine(LogLines(kLogPath), "PLR_Load - LOG_ERR logged"), 1);

  WriteDatabase("answer PLR_LOG_FILE " + longest + "\n");
  ASSERT_TRUE(PLR_Load(0));
  PLR_Unload();
  EXPECT_EQ(CountLine(LogLines(longest), "PLR_Load - LOG_ERR logged"), 1);
  EXPECT_EQ(CountLine(LogLines(kLogPath), "PLR_Load - LOG_ERR logged"), 1);
}

TEST(LogFile, UnopenableConfiguredFileKeepsTheDefault) {
  WriteDatabase("answer PLR_LOG_FILE /tmp/missing-dir/x.log\n");
  ASSERT_TRUE(PLR_Load(0));
  PLR_Unload();
  EXPECT_TRUE(ContainsInOrder(LogLines(kLogPath),
                              {"PLR_Load - fopen: opening log file: /tmp/missing-dir/x.log failed, "
                               "error: No such file or directory",
                               "PLR_Load - LOG_ERR logged"}));
}

TEST(LogFile, UnopenableDefaultStillLoadsAndLogsNothing) {
  ASSERT_EQ(mkdir(kLogPath, 0755), 0);  // a directory cannot be opened for appending
  WriteDatabase();
  ASSERT_TRUE(PLR_Load(0));
  EXPECT_EQ(plrContext.logStream, nullptr);
  EXPECT_EQ(PLR_GetCurrentLogLevel(), PLR_LOG_DEFAULT_LEVEL);
  PLRLog(PLR_LOG_ERR, "Probe", "goes nowhere");
  PLR_Unload();
  EXPECT_EQ(PLR_GetCurrentLogLevel(), PLR_LOG_DEFAULT_LEVEL);
}

TEST(LogFile, UnopenableDefaultLogsOnceTheConfiguredFileOpens) {
  ASSERT_EQ(mkdir(kLogPath, 0755), 0);
  WriteDatabase("answer PLR_LOG_FILE /tmp/alt.log\n");
  ASSERT_TRUE(PLR_Load(0));
  ASSERT_NE(plrContext.logStream, nullptr);
  PLR_Unload();
  Lines lines = LogLines("/tmp/alt.log");
  EXPECT_TRUE(ContainsInOrder(
      lines, {"PLR_Load - LOG_ERR logged", "PLR_Load - Successfully initialized Pelorus",
              "PLR_Unload2 - Pelorus unloaded."}));
}

TEST(LogFile, FailedLoadThenLoadLeavesOneStream) {
  WriteFile(kDatabasePath, "VERSION=2,0\n");
  ASSERT_FALSE(PLR_Load(0));
  ASSERT_FALSE(PLR_Load(0));
  EXPECT_EQ(OpenDescriptorsOn(kLogPath), 1) << "a failed load's stream is replaced, not leaked";
  WriteDatabase();
  ASSERT_TRUE(PLR_Load(0));
  EXPECT_EQ(OpenDescriptorsOn(kLogPath), 1);
  PLR_Unload();
  EXPECT_EQ(OpenDescriptorsOn(kLogPath), 0);
  EXPECT_EQ(CountLine(LogLines(kLogPath),
                      "PLR_Load - Error loading the vnet configuration, "
                      "file used: /etc/tarsis/networking"),
            2);
}

}  // namespace
}  // namespace plr::test
