// The one test fixture: a library loaded on a written database, and the daemons it starts.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "tests/support/sandbox.h"

namespace plr::test {

// Where the fixture daemons record their starts and read their modes.
inline constexpr const char* kFixtureDir = "/tmp/kavix-fixture";

// SetUp makes the test the reaper of the daemons it starts; TearDown unloads, kills every
// daemon started, reaps them and fails on sanitizer reports forked children logged.
class LoadedLibraryTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Writes the config (bindir `binDir`, default the fixtures) and a database of `records`,
  // loads the library and turns every log level on.
  void Load(const std::string& records = "", const std::string& binDir = "");
  // The database file as it is on disk now.
  std::string Database() const { return ReadFile(kDatabasePath); }
  // Kills `pid` with SIGKILL at TearDown unless it is gone already.
  void KillAtEnd(pid_t pid) { extraPids_.push_back(pid); }
  // Starts `command` (a python3 server) in the background in network namespace `ns`, killed
  // at TearDown, and waits at most 10 s until a socket in `ns` listens on TCP or UDP `port`.
  void ServeIn(const std::string& ns, const std::string& command, int port);

 private:
  std::vector<pid_t> extraPids_;
};

// Steers one fixture daemon ("kavix-natd", ...) through its mode file.
void SetDaemonMode(const std::string& daemon, const std::string& text);
// The PID written in a PID file, or -1 when it is missing or not a number.
pid_t PidInFile(const std::string& path);

// Kills the process with a message if the scope outlasts `seconds` (a blocked call fails).
class Watchdog {
 public:
  explicit Watchdog(unsigned seconds);
  ~Watchdog();
};

namespace svc {

// Loads with the log mask stored in the database, so the load itself is logged in full.
class ServiceTest : public LoadedLibraryTest {
 protected:
  void Load(const std::string& records, const std::string& binDir = "") {
    LoadedLibraryTest::Load("answer PLR_LOGLEVEL 0x7f\n" + records, binDir);
  }
  // The arguments the daemon was last started with (argv[0] included).
  std::vector<std::string> CommandLineOf(const std::string& daemon);
  // One "key: value" line of the daemon's environment record.
  std::string EnvironmentOf(const std::string& daemon, const std::string& key);
  // How many times the daemon was started.
  size_t StartsOf(const std::string& daemon);
};

}  // namespace svc
}  // namespace plr::test
