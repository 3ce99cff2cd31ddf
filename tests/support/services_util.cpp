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

// Only processes this suite starts are ever killed, even if a PID was reused.
void KillIfOurs(pid_t pid) {
  if (pid <= 1 || !ProcessAlive(pid)) return;
  std::ifstream in("/proc/" + std::to_string(pid) + "/comm");
  std::string comm;
  std::getline(in, comm);
  if (comm.rfind("kavix-", 0) == 0 || comm == "dhcpd" || comm == "dhclient" || comm == "python3")
    kill(pid, SIGKILL);
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
  [[maybe_unused]] ssize_t n = write(2, msg, sizeof msg - 1);
  _exit(97);
}

// The lines of one of the daemon's record files.
std::vector<std::string> RecordLines(const std::string& daemon, const char* suffix) {
  return FileLines(std::string(kFixtureDir) + "/" + daemon + suffix);
}

}  // namespace

void LoadedLibraryTest::SetUp() {
  ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0) << strerror(errno);
  ASSERT_TRUE(mkdir(kFixtureDir, 0755) == 0 || errno == EEXIST) << strerror(errno);
}

void LoadedLibraryTest::TearDown() {
  while (plrContext.loadCount != 0) PLR_Unload();
  for (const char* report : {"Sanitizer", "runtime error:"})
    EXPECT_FALSE(LogHas(report)) << LogText();
  for (const char* daemon : {"kavix-bridge", "kavix-netifup", "kavix-dhcpd", "kavix-natd"}) {
    std::ifstream in(std::string(kFixtureDir) + "/" + daemon + ".pids");
    for (pid_t pid; in >> pid;) KillIfOurs(pid);
  }
  for (pid_t pid : extraPids_) KillIfOurs(pid);
  ReapChildren();
}

void LoadedLibraryTest::Load(const std::string& records, const std::string& binDir) {
  WriteProductConfig(binDir);
  WriteDatabase(records);
  ASSERT_TRUE(PLR_Load(false));
  ASSERT_TRUE(PLR_SetCurrentLogLevel(PLR_LOG_MAX_LEVEL));
}

void SetDaemonMode(const std::string& daemon, const std::string& text) {
  mkdir(kFixtureDir, 0755);
  WriteFile(std::string(kFixtureDir) + "/" + daemon + ".mode", text);
}

void LoadedLibraryTest::ServeIn(const std::string& ns, const std::string& command, int port) {
  const std::string at = ns + "-" + std::to_string(port);
  // `ip netns exec` becomes the command, so $! is the server itself.
  ASSERT_EQ(test::Run("ip netns exec " + ns + " " + command + " >/tmp/serve-" + at +
                      ".out 2>&1 & echo $! >/tmp/serve-" + at + ".pid"),
            0);
  KillAtEnd(PidInFile("/tmp/serve-" + at + ".pid"));
  const std::string probe =
      "ip netns exec " + ns + " ss -Hltun 'sport = :" + std::to_string(port) + "'";
  ASSERT_TRUE(WaitFor([&] { return !Capture(probe).empty(); }, 10000))
      << command << ": " << ReadFile("/tmp/serve-" + at + ".out");
}

pid_t PidInFile(const std::string& path) {
  std::ifstream in(path);
  pid_t pid = -1;
  return in >> pid ? pid : -1;
}

Watchdog::Watchdog(unsigned seconds) {
  signal(SIGALRM, OnWatchdog);
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
