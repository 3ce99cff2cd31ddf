// Test support for the vnet settings and subnet assignment: the answers of
// the default cache and the scripted ping tool fixture.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tests/support/services_util.h"

namespace plr::test {

// The fixture tarsis-ping reads its exit codes from this rule file (lines
// "ADDRESS CODE" or "* CODE"; no match means 1, no reply) and appends each of
// its command lines to the calls file.
inline constexpr const char* kPingRulesPath = "/tmp/tarsis-ping.rules";
inline constexpr const char* kPingCallsPath = "/tmp/tarsis-ping.calls";

void SetPingRules(const std::string& rules);
// The command lines of every run of the ping tool so far, in order.
std::vector<std::string> PingCalls();
// The command line the library runs for `address` with timeout and interval 1.
std::string PingCommand(const std::string& address);

// The answer `key` of the default cache, or nothing when it is absent.
std::optional<std::string> Answer(const std::string& key);

}  // namespace plr::test
