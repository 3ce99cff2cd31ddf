// Load and unload counting, the lines a load writes, the API frame around
// exported functions, the raw answer functions and the network-ID check.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/file-lock.h"
#include "pelorus.h"
#include "tests/core/core_util.h"
#include "tests/support/sandbox.h"

namespace plr::test {
namespace {

using Lines = std::vector<std::string>;

const std::string kEntryBar = "----------------------------------";

// The first number logged after "<prefix><function>:" in the log, or 0.
int LoggedLine(const Lines& lines, const std::string& prefix, const std::string& function) {
  std::string head = prefix + function + ":";
  for (const std::string& line : lines)
    if (line.rfind(head, 0) == 0) return std::stoi(line.substr(head.size()));
  return 0;
}

TEST(LoadCount, LoadsCountUpAndOnlyTheLastUnloadReleases) {
  LoadWithRecords();
  int barsBefore = CountLine(LogLines(kLogPath), kEntryBar);
  ASSERT_TRUE(PLR_Load(1));
  EXPECT_EQ(plrContext.loadCount, 2);
  Lines lines = LogLines(kLogPath);
  EXPECT_EQ(CountLine(lines, "PLR_Load - pelorus is already loaded"), 1);
  EXPECT_EQ(CountLine(lines, kEntryBar), barsBefore) << "a counting load has no API frame";
  EXPECT_EQ(CountLine(lines, "PLR_Load - Successfully initialized Pelorus"), 1);

  PLR_Unload();
  EXPECT_EQ(plrContext.loadCount, 1);
  EXPECT_NE(plrContext.logStream, nullptr) << "the log stays open while still loaded";
  const char* value = nullptr;
  EXPECT_TRUE(PLR_VnetCfgAddAnswer("STILL", "loaded"));
  EXPECT_TRUE(PLR_VnetCfgGetAnswer("STILL", &value));

  PLR_Unload();
  EXPECT_EQ(plrContext.loadCount, 0);
  EXPECT_EQ(plrContext.logStream, nullptr);
  EXPECT_FALSE(PLR_VnetCfgGetAnswer("STILL", &value));

  // The third unload has no stream to write to; reopen one to see its line.
  plrContext.logStream = fopen(kLogPath, "ab+");
  PLR_Unload();
  EXPECT_EQ(plrContext.loadCount, 0);
  fclose(plrContext.logStream);
  plrContext.logStream = nullptr;
  EXPECT_TRUE(ContainsInOrder(LogLines(kLogPath), {"PLR_Unload2 - Pelorus unloaded.",
                                                   "PLR_Unload2 - pelorus is not loaded"}));
  EXPECT_EQ(CountLine(LogLines(kLogPath), "PLR_Unload2 - Pelorus unloaded."), 1);
}

TEST(LoadLog, DefaultMaskWritesOnlyErrorWarningAndOkLines) {
  WriteDatabase();
  ASSERT_TRUE(PLR_Load(0));
  EXPECT_EQ(PLR_GetCurrentLogLevel(), PLR_LOG_DEFAULT_LEVEL);
  Lines lines = LogLines(kLogPath);
  EXPECT_TRUE(ContainsInOrder(
      lines, {"PLR_Load - LOG_ERR logged", "PLR_Load - LOG_WRN logged", "PLR_Load - LOG_OK logged",
              "PLR_Load - Successfully initialized Pelorus"}));
  for (const char* masked :
       {"PLR_Load - LOG_ERRCMN logged", "PLR_Load - LOG_INFO logged", "PLR_Load - LOG_INFO2 logged",
        "PLR_Load - LOG_ARGS logged", "PLR_Load - Config file used: /etc/tarsis/networking"}) {
    EXPECT_EQ(CountLine(lines, masked), 0) << masked;
  }
  EXPECT_EQ(CountLine(lines, kEntryBar), 0) << "entry lines are LOG_INFO2";
  PLR_Unload();
}

TEST(LoadLog, FullMaskShowsEveryStepInOrderWithRealLineNumbers) {
  WriteDatabase("answer PLR_LOGLEVEL 0x7f\n");
  ASSERT_TRUE(PLR_Load(0));
  EXPECT_EQ(PLR_GetCurrentLogLevel(), 0x7Fu);
  PLR_Unload();

  Lines lines = LogLines(kLogPath);
  // The entry line is written while the default mask is still in force, so
  // it is not there; everything after the database load is.
  EXPECT_TRUE(ContainsInOrder(
      lines,
      {"PLR_Load - LOG_ERR logged", "PLR_Load - LOG_ERRCMN logged", "PLR_Load - LOG_WRN logged",
       "PLR_Load - LOG_OK logged", "PLR_Load - LOG_INFO logged", "PLR_Load - LOG_INFO2 logged",
       "PLR_Load - LOG_ARGS logged", "PLR_Load - Config file used: /etc/tarsis/networking",
       "PLR_Load - Successfully initialized Pelorus", "",
       "Exiting API Function, PLR_Load:" +
           std::to_string(SourceLineOf("core/lifecycle.cpp", "PLR_RETURN(frame, true)")),
       "-----------", "", kEntryBar,
       "Entering API Function, PLR_Unload2:" +
           std::to_string(SourceLineOf("core/lifecycle.cpp", "void PLR_Unload2(int") + 1),
       "PLR_Unload2 - Pelorus unloaded."}));
  EXPECT_EQ(LoggedLine(lines, "Entering API Function, ", "PLR_Load"), 0)
      << "the load's own entry line is written under the default mask";
  EXPECT_EQ(LoggedLine(lines, "Exiting API Function, ", "PLR_Unload2"), 0)
      << "the stream is closed before the unload's exit line";
}

TEST(LoadFailure, BadVersionLeavesLibraryUnloadedWithLogOpen) {
  WriteFile(kDatabasePath, "VERSION=2,0\n");
  EXPECT_FALSE(PLR_Load(0));
  EXPECT_EQ(plrContext.loadCount, 0);
  ASSERT_NE(plrContext.logStream, nullptr) << "the failed load's stream stays the log stream";
  Lines lines = LogLines(kLogPath);
  EXPECT_EQ(CountLine(lines,
                      "PLR_Load - Error loading the vnet configuration, file used: "
                      "/etc/tarsis/networking"),
            1);
  EXPECT_EQ(CountLine(lines, "PLR_Load - Successfully initialized Pelorus"), 0);

  // The library is usable again once the file is fixed.
  WriteDatabase();
  EXPECT_TRUE(PLR_Load(0));
  EXPECT_EQ(plrContext.loadCount, 1);
  PLR_Unload();
}

TEST(ApiFrame, UnloadedCallWritesEntryAndAbortButNoExit) {
  // A failed load keeps its log stream, so the frame's lines can be seen.
  WriteFile(kDatabasePath, "VERSION=2,0\n");
  ASSERT_FALSE(PLR_Load(0));
  PLR_SetCurrentLogLevel(PLR_LOG_MAX_LEVEL);

  EXPECT_EQ(PLR_GetDefaultLogLevel(), 0u);
  EXPECT_FALSE(PLR_SetDefaultLogLevel(0x19));

  Lines lines = LogLines(kLogPath);
  int entry = SourceLineOf("core/log-config.cpp", "uint32_t PLR_GetDefaultLogLevel(void) {") + 1;
  EXPECT_TRUE(ContainsInOrder(
      lines,
      {"", kEntryBar, "Entering API Function, PLR_GetDefaultLogLevel:" + std::to_string(entry), "",
       "PLR_GetDefaultLogLevel - Pelorus Un-Initialized. Aborting API Function: "
       "PLR_GetDefaultLogLevel",
       "PLR_SetDefaultLogLevel - Pelorus Un-Initialized. Aborting API Function: "
       "PLR_SetDefaultLogLevel"}));
  EXPECT_EQ(LoggedLine(lines, "Exiting API Function, ", "PLR_GetDefaultLogLevel"), 0);
  EXPECT_EQ(LoggedLine(lines, "Exiting API Function, ", "PLR_SetDefaultLogLevel"), 0);
  EXPECT_EQ(CountLine(lines, "PLR_SetDefaultLogLevel - Arguments - level: 0x19"), 0)
      << "no argument line before the loaded check";

  // The answer functions have no frame; their message carries its own newline.
  int bars = CountLine(lines, kEntryBar);
  const char* value = nullptr;
  EXPECT_FALSE(PLR_VnetCfgAddAnswer("KEY", "value"));
  EXPECT_FALSE(PLR_VnetCfgRemoveAnswer("KEY"));
  EXPECT_FALSE(PLR_VnetCfgGetAnswer("KEY", &value));
  lines = LogLines(kLogPath);
  EXPECT_TRUE(
      ContainsInOrder(lines, {"PLR_VnetCfgAddAnswer - Pelorus Un-Initialized, Aborting", "",
                              "PLR_VnetCfgRemoveAnswer - Pelorus Un-Initialized, Aborting", "",
                              "PLR_VnetCfgGetAnswer - Pelorus Un-Initialized, Aborting", ""}));
  EXPECT_EQ(CountLine(lines, kEntryBar), bars);
}

TEST(ApiFrame, LoadedCallWritesArgumentsLocksAndExitsInOrder) {
  LoadWithRecords();
  EXPECT_TRUE(PLR_SetDefaultLogLevel(0x1b));
  Lines lines = LogLines(kLogPath);
  int entryLine = LoggedLine(lines, "Entering API Function, ", "PLR_SetDefaultLogLevel");
  int exitLine = LoggedLine(lines, "Exiting API Function, ", "PLR_SetDefaultLogLevel");
  EXPECT_EQ(entryLine,
            SourceLineOf("core/log-config.cpp", "bool PLR_SetDefaultLogLevel(unsigned") + 1);
  EXPECT_GT(exitLine, entryLine);
  EXPECT_TRUE(ContainsInOrder(
      lines,
      {kEntryBar, "Entering API Function, PLR_SetDefaultLogLevel:" + std::to_string(entryLine),
       "PLR_SetDefaultLogLevel - Arguments - level: 0x1b",
       "PLRNetCfgLockConfig - Database file locking success",
       "PLRNetCfgUnlockConfig - Config file unlocking success",
       "PLR_SetDefaultLogLevel - Default log level set to: 0x1b",
       "Exiting API Function, PLR_SetDefaultLogLevel:" + std::to_string(exitLine), "-----------"}));
  PLR_Unload();
}

TEST(ApiFrame, LockHeldElsewhereFailsTheChangeWithExitLine) {
  LoadWithRecords();
  FileLock other;  // another owner of the database lock
  ASSERT_TRUE(other.Lock(kDatabasePath, 0));
  EXPECT_FALSE(PLR_SetDefaultLogLevel(0x1b));
  other.Unlock();
  Lines lines = LogLines(kLogPath);
  EXPECT_TRUE(ContainsInOrder(
      lines,
      {"PLR_SetDefaultLogLevel - Failed to obtain lock on vnet config",
       "Exiting API Function, PLR_SetDefaultLogLevel:" +
           std::to_string(LoggedLine(lines, "Exiting API Function, ", "PLR_SetDefaultLogLevel"))}));
  EXPECT_EQ(CountLine(lines, "PLR_SetDefaultLogLevel - Failed to set default log level: 0x1b"), 0);
  EXPECT_EQ(ReadFile(kDatabasePath), "VERSION=1,0\n");
  PLR_Unload();
}

TEST(Answers, AddGetRemoveWriteThroughToTheFile) {
  LoadWithRecords("answer OLD one\n");
  const char* value = nullptr;
  EXPECT_FALSE(PLR_VnetCfgGetAnswer("KEY", nullptr));
  EXPECT_FALSE(PLR_VnetCfgGetAnswer(nullptr, &value));
  EXPECT_FALSE(PLR_VnetCfgAddAnswer("KEY", nullptr));
  EXPECT_FALSE(PLR_VnetCfgAddAnswer(nullptr, "v"));
  EXPECT_FALSE(PLR_VnetCfgRemoveAnswer(nullptr));
  Lines lines = LogLines(kLogPath);
  EXPECT_EQ(CountLine(lines, "PLR_VnetCfgGetAnswer - Invalid argument"), 2);
  EXPECT_EQ(CountLine(lines, "PLR_VnetCfgAddAnswer - Invalid argument"), 2);
  EXPECT_EQ(CountLine(lines, "PLR_VnetCfgRemoveAnswer - Invalid argument"), 1);
  ASSERT_TRUE(PLR_VnetCfgGetAnswer("OLD", &value));
  EXPECT_STREQ(value, "one");
  EXPECT_TRUE(PLR_VnetCfgAddAnswer("OLD", "two words"));
  ASSERT_TRUE(PLR_VnetCfgGetAnswer("OLD", &value));
  EXPECT_STREQ(value, "two words");
  EXPECT_TRUE(PLR_VnetCfgAddAnswer("NEW", "x"));
  EXPECT_TRUE(PLR_VnetCfgRemoveAnswer("NEW"));
  EXPECT_FALSE(PLR_VnetCfgGetAnswer("NEW", &value));
  const std::string journal =
      "VERSION=1,0\nanswer OLD one\nremove_answer OLD\nanswer OLD two words\n"
      "answer NEW x\nremove_answer NEW\n";
  EXPECT_EQ(ReadFile(kDatabasePath), journal);
  PLR_Unload2(0);
  EXPECT_EQ(ReadFile(kDatabasePath), journal) << "no compaction asked for";
}

TEST(Answers, LastUnloadCompactsTheChangedFile) {
  LoadWithRecords("answer OLD one\n");
  ASSERT_TRUE(PLR_Load(0));
  EXPECT_TRUE(PLR_VnetCfgAddAnswer("OLD", "two"));
  PLR_Unload();
  EXPECT_EQ(ReadFile(kDatabasePath),
            "VERSION=1,0\nanswer OLD one\nremove_answer OLD\nanswer OLD two\n")
      << "only the last unload releases the cache";
  PLR_Unload();
  EXPECT_EQ(ReadFile(kDatabasePath), "VERSION=1,0\nanswer OLD two\n");
}

TEST(Version, IsTheInterfaceConstant) {
  EXPECT_EQ(PLR_Version(), 0x10000u);
}

TEST(NetworkId, AcceptsVnetsAndNoVnetOnly) {
  WriteDatabase();
  ASSERT_TRUE(PLR_Load(0));
  struct Case {
    PLR_NetworkID id;
    bool valid;
    const char* line;
  };
  const Case cases[] = {
      {{1, 1, 0xFFFFFFFFu}, true, nullptr},
      {{1, 1, 0}, true, nullptr},
      {{1, 1, 255}, true, nullptr},
      {{1, 1, 256}, false, "PLRValidateNetIDStruct - Invalid vnet number: 256"},
      {{1, 1, 0xFFFFFF9Cu}, false, "PLRValidateNetIDStruct - Invalid vnet number: -100"},
      {{2, 1, 0}, false, "PLRValidateNetIDStruct - Unsupported network ID version: 2"},
      {{0, 1, 0}, false, "PLRValidateNetIDStruct - Unsupported network ID version: 0"},
      {{1, 2, 0}, false, "PLRValidateNetIDStruct - Non vnet network not supported"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(PLRValidateNetIDStruct(&c.id), c.valid) << c.id.version << " " << c.id.vnet;
    if (c.line != nullptr) {
      EXPECT_EQ(CountLine(LogLines(kLogPath), c.line), 1) << c.line;
    }
  }
  EXPECT_FALSE(PLRValidateNetIDStruct(nullptr));
  PLR_Unload();
}

}  // namespace
}  // namespace plr::test
