#include "tests/support/services_util.h"

#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "pelorus.h"

namespace plr::test {
namespace {

const char* const kDaemons[] = {"kavix-bridge", "kavix-netifup", "kavix-dhcpd", "kavix-natd"};

// Only processes this suite starts are ever killed, even if a PID was reused.
void KillIfOurs(pid_t pid) {
  if (pid <= 1 || !ProcessAlive(pid)) return;
  std::ifstream in("/proc/" + std::to_string(pid) + "/comm");
  std::string comm;
  std::getline(in, comm);
  if (comm.rfind("kavix-", 0) == 0 || comm == "dhcpd" || comm == "dhclient") kill(pid, SIGKILL);
}

// Kills every fixture daemon (and real dhcpd) recorded as started.
void KillFixtureDaemons() {
  for (const char* daemon : kDaemons) {
    std::ifstream in(std::string(kFixtureDir) + "/" + daemon + ".pids");
    for (pid_t pid; in >> pid;) KillIfOurs(pid);
  }
}

// Reaps every child that has ended, waiting up to 3 s for killed ones.
void ReapChildren() {
  const uint64_t deadline = NowMs() + 3000;
  for (;;) {
    pid_t pid = waitpid(-1, nullptr, WNOHANG);
    if (pid > 0) continue;
    if ((pid < 0 && errno != EINTR) || NowMs() > deadline) return;  // ECHILD: nothing left
    SleepMs(10);
  }
}

void OnWatchdog(int) {
  const char msg[] = "test: watchdog expired, a library call is blocked\n";
  ssize_t n = write(2, msg, sizeof msg - 1);
  (void)n;
  _exit(97);
}

// The lines of one of the daemon's record files.
std::vector<std::string> RecordLines(const std::string& daemon, const char* suffix) {
  std::vector<std::string> lines;
  std::ifstream in(std::string(kFixtureDir) + "/" + daemon + suffix);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

}  // namespace

void LoadedLibraryTest::SetUp() {
  // Detached daemons are re-parented to us, so TearDown can reap them.
  ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0) << strerror(errno);
  ASSERT_TRUE(mkdir(kFixtureDir, 0755) == 0 || errno == EEXIST) << strerror(errno);
}

void LoadedLibraryTest::TearDown() {
  while (plrContext.loadCount != 0) PLR_Unload();
  for (const char* report : {"Sanitizer", "runtime error:"})
    EXPECT_FALSE(LogHas(report)) << LogText();
  KillFixtureDaemons();
  for (pid_t pid : extraPids_) KillIfOurs(pid);
  ReapChildren();
}

void LoadedLibraryTest::Load(const std::string& records, const std::string& binDir) {
  WriteFile("/etc/tarsis/config",
            "bindir = \"" + (binDir.empty() ? FixtureBinDir() : binDir) + "\"\n");
  WriteDatabase(records);
  ASSERT_TRUE(PLR_Load(false));
  ASSERT_TRUE(PLR_SetCurrentLogLevel(PLR_LOG_MAX_LEVEL));
}

void SetDaemonMode(const std::string& daemon, const std::string& text) {
  mkdir(kFixtureDir, 0755);
  WriteFile(std::string(kFixtureDir) + "/" + daemon + ".mode", text);
}

pid_t PidInFile(const std::string& path) {
  std::ifstream in(path);
  long pid = -1;
  if (!(in >> pid)) return -1;
  return static_cast<pid_t>(pid);
}

Watchdog::Watchdog(unsigned seconds) {
  struct sigaction sa;
  memset(&sa, 0, sizeof sa);
  sa.sa_handler = OnWatchdog;
  sigaction(SIGALRM, &sa, nullptr);
  alarm(seconds);
}

Watchdog::~Watchdog() {
  alarm(0);
}

namespace svc {

std::vector<std::string> ServiceTest::CommandLineOf(const std::string& daemon) {
  return RecordLines(daemon, ".cmdline");
}

std::string ServiceTest::EnvironmentOf(const std::string& daemon, const std::string& key) {
  for (const std::string& line : RecordLines(daemon, ".env"))
    if (line.rfind(key + ": ", 0) == 0) return line.substr(key.size() + 2);
  return "<missing>";
}

size_t ServiceTest::StartsOf(const std::string& daemon) {
  return RecordLines(daemon, ".starts").size();
}

}  // namespace svc
}  // namespace plr::test
