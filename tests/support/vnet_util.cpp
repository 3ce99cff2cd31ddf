#include "tests/support/vnet_util.h"

namespace plr::test {

void SetPingRules(const std::string& rules) {
  WriteFile("/tmp/tarsis-ping.rules", rules);
}

std::vector<std::string> PingCalls() {
  return FileLines(kPingCallsPath);
}

std::string PingCommand(const std::string& address) {
  return std::string(FixtureBinDir()) + "/tarsis-ping -q -b " + address + " -t 1 -i 1";
}

}  // namespace plr::test
