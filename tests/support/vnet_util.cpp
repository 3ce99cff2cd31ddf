#include "tests/support/vnet_util.h"

#include "pelorus.h"
#include "tests/support/sandbox.h"

namespace plr::test {

void SetPingRules(const std::string& rules) {
  WriteFile(kPingRulesPath, rules);
}

std::vector<std::string> PingCalls() {
  std::vector<std::string> calls;
  if (!FileExists(kPingCallsPath)) return calls;
  std::string text = ReadFile(kPingCallsPath);
  size_t start = 0;
  for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
    calls.push_back(text.substr(start, end - start));
  return calls;
}

std::string PingCommand(const std::string& address) {
  return std::string(FixtureBinDir()) + "/tarsis-ping -q -b " + address + " -t 1 -i 1";
}

int CountOf(const std::string& text, const std::string& needle) {
  int count = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1))
    ++count;
  return count;
}

void LoadedLibraryTest::Load(const std::string& records) {
  WriteProductConfig();
  WriteDatabase(records);
  ASSERT_TRUE(PLR_Load(false));
  ASSERT_TRUE(PLR_SetCurrentLogLevel(PLR_LOG_MAX_LEVEL));
}

void LoadedLibraryTest::TearDown() {
  while (plrContext.loadCount != 0) PLR_Unload();
}

std::string LoadedLibraryTest::Log() const {
  return ReadFile(kLogPath);
}

std::string LoadedLibraryTest::Database() const {
  return ReadFile(kDatabasePath);
}

std::optional<std::string> Answer(const std::string& key) {
  const char* value = nullptr;
  if (!PLRNetCfgGetAnswerString(nullptr, key.c_str(), &value) || value == nullptr)
    return std::nullopt;
  return std::string(value);
}

}  // namespace plr::test
