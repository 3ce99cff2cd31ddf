// Test support for the vnet settings and subnet assignment: a loaded
// database in the sandbox, the log, and the scripted ping tool fixture.
#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

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

// Occurrences of `needle` in `text`.
int CountOf(const std::string& text, const std::string& needle);

// A case with the product configuration and a database written, the library
// loaded over them with every log level on, and unloaded at the end.
class LoadedLibraryTest : public ::testing::Test {
 protected:
  // Writes the database with `records` after the version line and loads it.
  void Load(const std::string& records = "");
  void TearDown() override;
  // The whole log file so far.
  std::string Log() const;
  // The database file as it is on disk now.
  std::string Database() const;
};

// The answer `key` of the default cache, or nothing when it is absent.
std::optional<std::string> Answer(const std::string& key);

}  // namespace plr::test
