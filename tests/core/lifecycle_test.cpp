// Load and unload counting, the log mask in force and the stored default,
// and which file the log goes to.
#include <gtest/gtest.h>

#include <string>

#include "base/file-lock.h"
#include "pelorus.h"
#include "tests/support/sandbox.h"

namespace plr::test {
namespace {

bool Has(const std::string& path, const std::string& text) {
  return FileExists(path) && ReadFile(path).find(text) != std::string::npos;
}

TEST(Lifecycle, LoadsCountUpAndOnlyTheLastUnloadReleases) {
  // A call before any load is refused with its one line, and the trace that
  // entered it is not closed as if it had run (the raw answer calls have a
  // line of their own).
  LogWhileUnloaded();
  EXPECT_FALSE(PLR_SetDefaultLogLevel(0x19));
  EXPECT_FALSE(PLR_VnetCfgRemoveAnswer("K"));
  EXPECT_TRUE(LogHas("Entering API Function, PLR_SetDefaultLogLevel:"));
  EXPECT_TRUE(LogHas("Pelorus Un-Initialized. Aborting API Function: PLR_SetDefaultLogLevel\n"));
  EXPECT_FALSE(LogHas("Exiting API Function, PLR_SetDefaultLogLevel:"));
  EXPECT_TRUE(LogHas("PLR_VnetCfgRemoveAnswer - Pelorus Un-Initialized, Aborting\n"));
  WriteFile(kDatabasePath, "VERSION=2,0\n");
  EXPECT_FALSE(PLR_Load(0));
  EXPECT_FALSE(PLR_Load(0));  // a failed load's log stream is replaced, not kept twice
  EXPECT_EQ(plrContext.loadCount, 0);
  EXPECT_FALSE(PLR_VnetCfgAddAnswer("K", "v"));
  WriteDatabase("answer OLD one\n");
  ASSERT_TRUE(PLR_Load(0));
  ASSERT_TRUE(PLR_Load(0));
  EXPECT_EQ(plrContext.loadCount, 2);
  const char* value = nullptr;
  EXPECT_TRUE(PLR_VnetCfgAddAnswer("OLD", "two words"));
  EXPECT_TRUE(PLR_VnetCfgAddAnswer("NEW", "x"));
  EXPECT_TRUE(PLR_VnetCfgRemoveAnswer("NEW"));
  PLR_Unload();
  EXPECT_EQ(plrContext.loadCount, 1);
  EXPECT_NE(plrContext.logStream, nullptr) << "the log stays open while still loaded";
  ASSERT_TRUE(PLR_VnetCfgGetAnswer("OLD", &value));
  EXPECT_STREQ(value, "two words");
  EXPECT_EQ(ReadFile(kDatabasePath),
            "VERSION=1,0\nanswer OLD one\nremove_answer OLD\nanswer OLD two words\n"
            "answer NEW x\nremove_answer NEW\n");
  PLR_Unload();  // the last unload compacts the changed file
  EXPECT_EQ(plrContext.loadCount, 0);
  EXPECT_EQ(plrContext.logStream, nullptr);
  EXPECT_FALSE(PLR_VnetCfgGetAnswer("OLD", &value));
  EXPECT_EQ(ReadFile(kDatabasePath), "VERSION=1,0\nanswer OLD two words\n");
  PLR_Unload();
  EXPECT_EQ(plrContext.loadCount, 0);
}

TEST(Lifecycle, ChangeFailsWhileAnotherOwnerHoldsTheLock) {
  WriteDatabase();
  ASSERT_TRUE(PLR_Load(0));
  FileLock other;
  ASSERT_TRUE(other.Lock(kDatabasePath, 0));
  EXPECT_FALSE(PLR_SetDefaultLogLevel(0x1b));
  other.Unlock();
  EXPECT_EQ(ReadFile(kDatabasePath), "VERSION=1,0\n");
  EXPECT_TRUE(PLR_SetDefaultLogLevel(0x1b));
  EXPECT_EQ(ReadFile(kDatabasePath), "VERSION=1,0\nanswer PLR_LOGLEVEL 0x1b\n");
  PLR_Unload();
}

TEST(LogLevel, StoredLevelIsPutInForceAtLoad) {
  for (auto [records, level] : {std::pair{"", 0x19u},
                                {"answer PLR_LOGLEVEL -5\n", 0x19u},
                                {"answer PLR_LOGLEVEL 0x7f\n", 0x7fu},
                                {"answer PLR_LOGLEVEL 0\n", 0u}}) {
    WriteDatabase(records);
    ASSERT_TRUE(PLR_Load(0)) << records;
    EXPECT_EQ(PLRGetVnetCfgLogLevel(), level) << records;
    EXPECT_EQ(PLR_GetCurrentLogLevel(), level) << records;
    PLR_Unload2(0);
  }
  // Setting the default stores it for the next load; the mask in force stays.
  WriteDatabase("answer PLR_LOGLEVEL 0x19\n");
  ASSERT_TRUE(PLR_Load(0));
  EXPECT_FALSE(PLR_SetDefaultLogLevel(0x80));
  EXPECT_TRUE(PLR_SetDefaultLogLevel(0x7f));
  EXPECT_EQ(PLR_GetCurrentLogLevel(), 0x19u);
  EXPECT_EQ(PLR_GetDefaultLogLevel(), 0x7fu);
  EXPECT_TRUE(PLRSetVnetCfgLogLevel(-1));
  EXPECT_EQ(PLRGetVnetCfgLogLevel(), 0x19u);  // negative reads back as the default
  PLR_Unload();
  EXPECT_EQ(ReadFile(kDatabasePath), "VERSION=1,0\nanswer PLR_LOGLEVEL 0xffffffff\n");
}

TEST(LogLevel, MaskDecidesWhichLinesAreWritten) {
  WriteDatabase();
  ASSERT_TRUE(PLR_Load(0));
  EXPECT_EQ(PLR_GetCurrentLogLevel(), PLR_LOG_DEFAULT_LEVEL);
  PLRLog(PLR_LOG_INFO, "Probe", "info %d", 1);
  PLRLog(PLR_LOG_ERRCMN, "Probe", "common %d", 3);
  PLRLog(PLR_LOG_WRN, "Probe", "warning %d", 2);
  PLRLog(PLR_LOG_OK, nullptr, "no name %s", "here");
  ASSERT_TRUE(PLR_SetCurrentLogLevel(0));
  PLRLog(PLR_LOG_ERR, "Probe", "silenced");
  ASSERT_TRUE(PLR_SetCurrentLogLevel(PLR_LOG_ERR));
  PLRLog(PLR_LOG_ERR, "Probe", "error again");
  PLR_Unload();
  std::string seen;
  for (const char* text : {"Probe - info 1", "Probe - common 3", "Probe - warning 2",
                           " no name here\n", "silenced", "Probe - error again"})
    seen += LogHas(text) ? '1' : '0';
  EXPECT_EQ(seen, "001101");
}

// The configured file (at most 255 characters, and openable) replaces the
// default one.
TEST(LogFile, ConfiguredFileOfAtMost255CharactersReplacesTheDefault) {
  const std::string longest = "/tmp/" + std::string(250, 'b');
  for (auto [path, used] :
       {std::pair{longest, true}, {longest + "c", false}, {"/tmp/no-dir/x.log", false}}) {
    WriteFile(kLogPath, "");
    WriteDatabase("answer PLR_LOG_FILE " + path + "\n");
    ASSERT_TRUE(PLR_Load(0));
    char buffer[300];
    EXPECT_TRUE(PLRGetLogPath(buffer, path.size() + 1) && buffer == path);
    EXPECT_FALSE(PLRGetLogPath(buffer, path.size()));
    PLR_Unload();
    EXPECT_EQ(Has(path, "LOG_ERR logged"), used) << path;
    EXPECT_EQ(Has(kLogPath, "LOG_ERR logged"), !used) << path;
  }
}

}  // namespace
}  // namespace plr::test
