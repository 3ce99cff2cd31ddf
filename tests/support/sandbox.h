// The private world of each test case (one process per case): own mount and network namespace,
// tmpfs over /run, /var/log, /tmp, /dev and /etc/tarsis (over an /etc overlay), loopback up.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <set>
#include <string>
#include <vector>

namespace plr::test {

// Enters the sandbox; on failure prints why and returns false (never skips).
bool EnterSandbox();
// Kills every process left in this sandbox's network namespace.
void KillStragglers();

// Paths baked in by the build: checkout, build tree, fixture programs, tests/data.
inline const char* SourceDir() {
  return PLR_TEST_SOURCE_DIR;
}
inline const char* BinaryDir() {
  return PLR_TEST_BINARY_DIR;
}
inline const char* FixtureBinDir() {
  return PLR_TEST_FIXTURE_BINDIR;
}
inline const char* TestDataDir() {
  return PLR_TEST_SOURCE_DIR "/tests/data";
}

// Small file helpers; they fail the test on errors.
void WriteFile(const std::string& path, const std::string& text, int mode = 0644);
std::string ReadFile(const std::string& path);
bool FileExists(const std::string& path);
// The lines of a file; none when it is missing.
std::vector<std::string> FileLines(const std::string& path);

// Writes the product config naming BINDIR (default: the fixtures); a database of `records`.
void WriteProductConfig(const std::string& binDir = "");
void WriteDatabase(const std::string& records = "");
inline constexpr const char* kDatabasePath = "/etc/tarsis/networking";
inline constexpr const char* kLogPath = "/var/log/pelorus";

// Runs a shell command (inside the sandbox); returns its exit status, or -1.
int Run(const std::string& command);
// Runs a command and returns its standard output.
std::string Capture(const std::string& command);

// The one log probe: the library's log file, whether it holds `text`, and how often.
std::string LogText();
bool LogHas(const std::string& text);
size_t LogCount(const std::string& text);
// Logs an unloaded library to the log file at every level (the next load takes it over).
void LogWhileUnloaded();

// Whether `pid` names a live process (zombies count as gone).
bool ProcessAlive(pid_t pid);
void SleepMs(unsigned ms);
// Polls `pred` every 10 ms for at most `timeoutMs`; true once it holds.
template <class Pred>
bool WaitFor(Pred pred, unsigned timeoutMs) {
  for (unsigned waited = 0;; waited += 10) {
    if (pred()) return true;
    if (waited >= timeoutMs) return false;
    SleepMs(10);
  }
}
// Monotonic milliseconds; the descriptors open in this process.
uint64_t NowMs();
std::set<int> OpenFds();

}  // namespace plr::test
