// The one test fixture: a library loaded on a written database in the
// sandbox, and the fixture daemons it may start, all stopped again at the end.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "tests/support/sandbox.h"

namespace plr::test {

// Where the fixture daemons record their start and read their switches
// (kept equal to kavix_fixture::kFixtureDir).
inline constexpr const char* kFixtureDir = "/tmp/kavix-fixture";

// SetUp makes the test process the reaper of the daemons it starts; TearDown
// unloads the library, kills by PID every fixture daemon (and real dhcpd)
// that was started, reaps what is left and fails on sanitizer reports that
// forked children wrote to the log.
class LoadedLibraryTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Writes the product configuration (bindir = `binDir`, the fixtures when
  // empty) and a database holding `records`, loads the library and turns
  // every log level on.
  void Load(const std::string& records = "", const std::string& binDir = "");
  // The database file as it is on disk now.
  std::string Database() const { return ReadFile(kDatabasePath); }
  // Kills `pid` with SIGKILL at TearDown unless it is gone already.
  void KillAtEnd(pid_t pid) { extraPids_.push_back(pid); }

 private:
  std::vector<pid_t> extraPids_;
};

// Steers one fixture daemon ("kavix-natd", ...) through its mode file.
void SetDaemonMode(const std::string& daemon, const std::string& text);
// The PID written in a PID file, or -1 when it is missing or not a number.
pid_t PidInFile(const std::string& path);

// Makes the process die with a message if the scope lasts longer than
// `seconds`: a library call blocked on a broken fixture fails the test
// instead of hanging it.
class Watchdog {
 public:
  explicit Watchdog(unsigned seconds);
  ~Watchdog();
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;
};

namespace svc {

using plr::test::LogCount;
using plr::test::LogHas;
using plr::test::LogText;
using plr::test::OpenFds;
using plr::test::PidInFile;
using plr::test::ProcessAlive;
using plr::test::WaitFor;

// The services tests load with the log mask stored in the database, so the
// load itself is logged at every level.
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
