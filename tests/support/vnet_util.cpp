#include "tests/support/vnet_util.h"

namespace plr::test {

void SetPingRules(const std::string& rules) {
  WriteFile("/tmp/tarsis-ping.rules", rules);
}

std::vector<std::string> PingCalls() {
  std::vector<std::string> calls;
  const std::string text = FileExists(kPingCallsPath) ? ReadFile(kPingCallsPath) : "";
  for (size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
    calls.push_back(text.substr(at, end - at));
  return calls;
}

std::string PingCommand(const std::string& address) {
  return std::string(FixtureBinDir()) + "/tarsis-ping -q -b " + address + " -t 1 -i 1";
}

}  // namespace plr::test
