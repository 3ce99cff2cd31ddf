#include "tests/support/services_util.h"

#include <dirent.h>
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "pelorus.h"
#include "tests/support/sandbox.h"

namespace plr::test::svc {
namespace {

const char* const kDaemons[] = {"kavix-bridge", "kavix-netifup", "kavix-dhcpd", "kavix-natd"};

std::string Slurp(const std::string& path) {
  std::ifstream in(path);
  std::stringstream buf;
  buf << in.rdbuf();
  return buf.str();
}

std::string CommOf(pid_t pid) {
  std::string comm = Slurp("/proc/" + std::to_string(pid) + "/comm");
  if (!comm.empty() && comm.back() == '\n') comm.pop_back();
  return comm;
}

// Only processes this suite starts are ever killed, even if a PID was reused.
bool IsOurs(pid_t pid) {
  std::string comm = CommOf(pid);
  return comm.rfind("kavix-", 0) == 0 || comm == "dhcpd" || comm == "dhclient";
}

void KillIfOurs(pid_t pid) {
  if (pid > 1 && ProcessAlive(pid) && IsOurs(pid)) kill(pid, SIGKILL);
}

// Reaps every child that has ended, waiting up to 3 s for killed ones.
void ReapChildren() {
  uint64_t deadline = NowMs() + 3000;
  for (;;) {
    pid_t pid = waitpid(-1, nullptr, WNOHANG);
    if (pid > 0) continue;
    if (pid < 0 && errno != EINTR) return;  // ECHILD: nothing left
    if (NowMs() > deadline) return;
    WaitForSleep(10);
  }
}

void OnWatchdog(int) {
  const char msg[] = "services test: watchdog expired, a library call is blocked\n";
  ssize_t n = write(2, msg, sizeof msg - 1);
  (void)n;
  _exit(97);
}

}  // namespace

void ServiceTest::SetUp() {
  // Detached daemons are re-parented to us, so TearDown can reap them.
  ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0) << strerror(errno);
  ASSERT_EQ(plr::test::Run(std::string("mkdir -p ") + kFixtureDir), 0);
}

void ServiceTest::TearDown() {
  if (loaded_) PLR_Unload();
  loaded_ = false;
  // Forked children and daemons write to the log as their stderr, so any
  // sanitizer report of theirs lands there.
  for (const char* report : {"Sanitizer", "runtime error:"})
    EXPECT_FALSE(LogHas(report)) << LogText();
  for (const char* daemon : kDaemons) {
    std::ifstream in(std::string(kFixtureDir) + "/" + daemon + ".pids");
    pid_t pid;
    while (in >> pid) KillIfOurs(pid);
  }
  for (pid_t pid : extraPids_) KillIfOurs(pid);
  ReapChildren();
}

void ServiceTest::Load(const std::string& records, const std::string& binDir) {
  const std::string dir = binDir.empty() ? std::string(FixtureBinDir()) : binDir;
  LoadWithProductConfig("bindir = \"" + dir + "\"\n", records);
}

void ServiceTest::LoadWithProductConfig(const std::string& config, const std::string& records) {
  WriteFile("/etc/tarsis/config", config);
  WriteDatabase("answer PLR_LOGLEVEL 0x7f\n" + records);
  ASSERT_TRUE(PLR_Load(0));
  loaded_ = true;
  PLR_SetCurrentLogLevel(0x7f);
}

void ServiceTest::SetDaemonMode(const std::string& daemon, const std::string& text) {
  WriteFile(std::string(kFixtureDir) + "/" + daemon + ".mode", text);
}

std::vector<std::string> ServiceTest::CommandLineOf(const std::string& daemon) {
  std::vector<std::string> args;
  std::ifstream in(std::string(kFixtureDir) + "/" + daemon + ".cmdline");
  std::string line;
  while (std::getline(in, line)) args.push_back(line);
  return args;
}

std::string ServiceTest::EnvironmentOf(const std::string& daemon, const std::string& key) {
  std::ifstream in(std::string(kFixtureDir) + "/" + daemon + ".env");
  std::string line;
  while (std::getline(in, line))
    if (line.rfind(key + ": ", 0) == 0) return line.substr(key.size() + 2);
  return "<missing>";
}

size_t ServiceTest::StartsOf(const std::string& daemon) {
  std::ifstream in(std::string(kFixtureDir) + "/" + daemon + ".starts");
  size_t n = 0;
  std::string line;
  while (std::getline(in, line)) ++n;
  return n;
}

pid_t PidInFile(const std::string& path) {
  std::ifstream in(path);
  long pid = -1;
  if (!(in >> pid)) return -1;
  return static_cast<pid_t>(pid);
}

bool ProcessAlive(pid_t pid) {
  if (pid <= 0) return false;
  std::string stat = Slurp("/proc/" + std::to_string(pid) + "/stat");
  size_t paren = stat.rfind(')');
  if (paren == std::string::npos || paren + 2 >= stat.size()) return false;
  char state = stat[paren + 2];
  return state != 'Z' && state != 'X';
}

bool WaitForSleep(unsigned ms) {
  struct timespec ts = {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
  return nanosleep(&ts, nullptr) == 0;
}

std::set<int> OpenFds() {
  std::set<int> fds;
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return fds;
  int own = dirfd(dir);
  while (dirent* e = readdir(dir)) {
    if (e->d_name[0] == '.') continue;
    int fd = atoi(e->d_name);
    if (fd != own) fds.insert(fd);
  }
  closedir(dir);
  return fds;
}

std::string LogText() {
  return Slurp(kLogPath);
}

bool LogHas(const std::string& text) {
  return LogText().find(text) != std::string::npos;
}

size_t LogCount(const std::string& text) {
  std::string log = LogText();
  size_t n = 0;
  for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++n;
  return n;
}

uint64_t NowMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000 + static_cast<uint64_t>(ts.tv_nsec) / 1000000;
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

}  // namespace plr::test::svc
