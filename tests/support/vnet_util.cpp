#include "tests/support/vnet_util.h"

#include "pelorus.h"

namespace plr::test {

void SetPingRules(const std::string& rules) {
  WriteFile(kPingRulesPath, rules);
}

std::vector<std::string> PingCalls() {
  std::vector<std::string> calls;
  if (!FileExists(kPingCallsPath)) return calls;
  const std::string text = ReadFile(kPingCallsPath);
  size_t start = 0;
  for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
    calls.push_back(text.substr(start, end - start));
  return calls;
}

std::string PingCommand(const std::string& address) {
  return std::string(FixtureBinDir()) + "/tarsis-ping -q -b " + address + " -t 1 -i 1";
}

std::optional<std::string> Answer(const std::string& key) {
  const char* value = nullptr;
  if (!PLRNetCfgGetAnswerString(nullptr, key.c_str(), &value) || value == nullptr)
    return std::nullopt;
  return std::string(value);
}

}  // namespace plr::test
