// Test support for the service daemons and host-only adapters: a library
// loaded on a given database, switches and records of the fixture daemons,
// process cleanup, descriptor snapshots and log inspection. Kept in their
// own namespace: other folders' helpers use the same short names.
#pragma once

#include <gtest/gtest.h>
#include <stdint.h>
#include <sys/types.h>

#include <set>
#include <string>
#include <vector>

namespace plr::test::svc {

// Where the fixture daemons record their start and read their switches
// (kept equal to kavix_fixture::kFixtureDir).
inline constexpr const char* kFixtureDir = "/tmp/kavix-fixture";

// Every test of the services folder derives from this. SetUp makes the test
// process the reaper of the daemons it starts; TearDown unloads the library,
// kills by PID every fixture daemon (and real dhcpd) that was started, and
// reaps what is left, so no process outlives its test.
class ServiceTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Writes the product configuration (bindir = `binDir`), a database holding
  // `records` plus a log mask of every level, and loads the library.
  void Load(const std::string& records, const std::string& binDir = "");
  // The same with the product configuration file's whole text.
  void LoadWithProductConfig(const std::string& config, const std::string& records);

  // Steers one fixture daemon ("kavix-natd", ...) through its mode file.
  void SetDaemonMode(const std::string& daemon, const std::string& text);
  // The arguments the daemon was last started with (argv[0] included).
  std::vector<std::string> CommandLineOf(const std::string& daemon);
  // One "key: value" line of the daemon's environment record.
  std::string EnvironmentOf(const std::string& daemon, const std::string& key);
  // How many times the daemon was started.
  size_t StartsOf(const std::string& daemon);

  // Kills `pid` with SIGKILL at TearDown unless it is gone already.
  void KillAtEnd(pid_t pid) { extraPids_.push_back(pid); }

 private:
  std::vector<pid_t> extraPids_;
  bool loaded_ = false;
};

// The PID written in a PID file, or -1 when it is missing or not a number.
pid_t PidInFile(const std::string& path);
// Whether `pid` names a live process (zombies count as gone).
bool ProcessAlive(pid_t pid);
// Polls `pred` every 10 ms for at most `timeoutMs`; true once it holds.
template <class Pred>
bool WaitFor(Pred pred, unsigned timeoutMs);
bool WaitForSleep(unsigned ms);

// The descriptors open in this process.
std::set<int> OpenFds();

// The library's log file, whether it holds `text`, and how often.
std::string LogText();
bool LogHas(const std::string& text);
size_t LogCount(const std::string& text);

// Monotonic milliseconds.
uint64_t NowMs();

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

template <class Pred>
bool WaitFor(Pred pred, unsigned timeoutMs) {
  for (unsigned waited = 0;; waited += 10) {
    if (pred()) return true;
    if (waited >= timeoutMs) return false;
    WaitForSleep(10);
  }
}

}  // namespace plr::test::svc
