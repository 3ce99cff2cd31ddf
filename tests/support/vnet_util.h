// Test support for subnet assignment: the scripted ping tool fixture.
#pragma once

#include <string>
#include <vector>

#include "tests/support/services_util.h"

namespace plr::test {

// The fixture tarsis-ping reads its exit codes from the rules file (lines
// "ADDRESS CODE" or "* CODE", first match; no match means 1, no reply) and
// appends each of its command lines to the calls file.
inline constexpr const char* kPingCallsPath = "/tmp/tarsis-ping.calls";
void SetPingRules(const std::string& rules);
// The command lines of every run of the ping tool so far, in order.
std::vector<std::string> PingCalls();
// The command line the library runs for `address` with timeout and interval 1.
std::string PingCommand(const std::string& address);

}  // namespace plr::test
