// Test support for subnet assignment: the scripted ping tool fixture.
#pragma once

#include <string>
#include <vector>

#include "tests/support/services_util.h"

namespace plr::test {

// The fixture tarsis-ping reads its exit codes from the rules file (lines "ADDRESS CODE" or
// "* CODE", first match; no match means 1, no reply) and appends its command lines to the calls.
inline constexpr const char* kPingCallsPath = "/tmp/tarsis-ping.calls";
inline void SetPingRules(const std::string& rules) {
  WriteFile("/tmp/tarsis-ping.rules", rules);
}
// The command lines of every run of the ping tool so far, in order.
inline std::vector<std::string> PingCalls() {
  return FileLines(kPingCallsPath);
}
// The command line the library runs for `address` with timeout and interval 1.
inline std::string PingCommand(const std::string& address) {
  return std::string(FixtureBinDir()) + "/tarsis-ping -q -b " + address + " -t 1 -i 1";
}

}  // namespace plr::test
