// The private world every test case runs in: its own mount and network
// namespace, fresh tmpfs over the fixed paths the library writes
// (/etc/tarsis through an overlay of /etc, /var/log, /run, /tmp, /dev), the
// checkout and build tree bound back when they live under /tmp, loopback up.
// Each case runs in its own process, so library state never leaks between cases.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <set>
#include <string>

namespace plr::test {

// Enters the sandbox; on failure prints why and returns false (never skips).
bool EnterSandbox();
// Kills every process left in this sandbox's network namespace.
void KillStragglers();

// Paths baked in by the build.
const char* SourceDir();
const char* BinaryDir();
const char* FixtureBinDir();  // the fixture daemons and ping tool
const char* TestDataDir();    // tests/data in the checkout

// Small file helpers; they fail the test on errors.
void WriteFile(const std::string& path, const std::string& text, int mode = 0644);
std::string ReadFile(const std::string& path);
bool FileExists(const std::string& path);

// Writes "/etc/tarsis/config" naming the fixture BINDIR, and a networking
// database holding `records` after its version line.
void WriteProductConfig();
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
// Sends the log of a library that is not loaded to the log file with every
// level on; the next load or unload takes the stream over.
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
// Monotonic milliseconds.
uint64_t NowMs();
// The descriptors open in this process.
std::set<int> OpenFds();

}  // namespace plr::test
