// Service daemons: PID files, command lines, the status handshake, status, stop and restart.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "base/sys-util.h"
#include "pelorus.h"
#include "tests/support/sandbox.h"
#include "tests/support/services_util.h"

namespace plr::test {
namespace {

using namespace svc;  // NOLINT: the services test vocabulary

class Services : public ServiceTest {
 protected:
  // The daemon's last arguments after "<bindir>/<daemon> -s FD", joined by blanks.
  std::string Args(const std::string& daemon, int* statusFd = nullptr) {
    std::vector<std::string> a = CommandLineOf(daemon);
    if (a.size() < 3 || a[0] != std::string(FixtureBinDir()) + "/" + daemon || a[1] != "-s")
      return "<bad>";
    if (statusFd != nullptr) *statusFd = atoi(a[2].c_str());
    std::string out;
    for (size_t i = 3; i < a.size(); ++i) out += (i > 3 ? " " : "") + a[i];
    return out;
  }
};

// DHCP gets its files and the vnet name; netifup the MTU only when set and the adapter
// name; a bridge its own adapters, the default bridge vnet every adapter not mapped elsewhere.
TEST_F(Services, EachDaemonGetsItsCommandLine) {
  Load(
      "answer VNET_4_MTU 1400\nanswer VNET_4_VIRTUAL_ADAPTER_NAME vmx4\n"
      "add_bridge_mapping eth1 2\nadd_bridge_mapping eth2 5\nanswer DHCP_PROGRAM mydhcpd\n"
      "answer RUNDIR /run/svc\n");
  Watchdog guard(30);
  const struct {
    uint32_t vnet, service;
    const char *daemon, *args;
  } kCases[] = {
      {8, PLR_SERVICE_NAT, "kavix-natd",
       "-d /run/svc/kavix-natd-8.pid -m /etc/tarsis/kavix8/nat.mac -c "
       "/etc/tarsis/kavix8/nat/nat.conf"},
      {8, PLR_SERVICE_DHCP, "kavix-dhcpd",
       "-cf /etc/tarsis/kavix8/dhcpd/dhcpd.conf -lf /etc/tarsis/kavix8/dhcpd/dhcpd.leases -pf "
       "/run/svc/mydhcpd-kavix8.pid kavix8"},
      {255, PLR_SERVICE_NETIFUP, "kavix-netifup",
       "-d /run/svc/kavix-netifup-kavix255.pid /dev/kavix255 kavix255"},
      {4, PLR_SERVICE_NETIFUP, "kavix-netifup",
       "-m 1400 -d /run/svc/kavix-netifup-kavix4.pid /dev/kavix4 vmx4"},
      {2, PLR_SERVICE_BRIDGE, "kavix-bridge", "-d /run/svc/kavix-bridge-2.pid -n 2 -ieth1"},
      {7, PLR_SERVICE_BRIDGE, "kavix-bridge", "-d /run/svc/kavix-bridge-7.pid -n 7"}};
  for (const auto& c : kCases) {
    ASSERT_TRUE(PLRServiceStart(c.vnet, c.service)) << c.daemon << c.vnet;
    EXPECT_EQ(Args(c.daemon), c.args);
  }
  ASSERT_TRUE(PLRServiceStart(0, PLR_SERVICE_BRIDGE));
  const std::string args = Args("kavix-bridge"), prefix = "-d /run/svc/kavix-bridge-0.pid -n 0 ";
  EXPECT_TRUE(args == prefix + "-eeth1 -eeth2" || args == prefix + "-eeth2 -eeth1") << args;
}

// The daemon sees its stdout and stderr in the log, no signal blocked, and the status pipe's
// write end but no descriptor of the library.
TEST_F(Services, DaemonInheritsOnlyThePipeAndNoBlockedSignal) {
  Load("");
  Watchdog guard(20);
  sigset_t block, old, after;
  sigemptyset(&block);
  sigaddset(&block, SIGUSR1);
  ASSERT_EQ(sigprocmask(SIG_BLOCK, &block, &old), 0);
  bool started = PLRServiceStart(1, PLR_SERVICE_NAT);
  sigprocmask(SIG_SETMASK, &old, &after);
  ASSERT_TRUE(started);
  EXPECT_TRUE(sigismember(&after, SIGUSR1)) << "the caller's own mask is left alone";
  int statusFd = -1;
  Args("kavix-natd", &statusFd);
  std::set<int> expected = {0, 1, 2, statusFd};
  const int logFd = plrContext.logStream != nullptr ? fileno(plrContext.logStream) : -1;
  for (int fd : OpenFds())
    if (fd > 2 && fd != logFd && (fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0) expected.insert(fd);
  std::string fds;
  for (int fd : expected) fds += (fds.empty() ? "" : " ") + std::to_string(fd);
  EXPECT_EQ(EnvironmentOf("kavix-natd", "fds"), fds);
  EXPECT_EQ(EnvironmentOf("kavix-natd", "sigblk"), "0000000000000000");
  EXPECT_EQ(EnvironmentOf("kavix-natd", "stderr"), kLogPath);
}

// Any reported status counts as started; a daemon that never reports (or cannot be run)
// fails the start, and no descriptor is left behind.
TEST_F(Services, StartSucceedsExactlyWhenTheDaemonReports) {
  const struct {
    const char *name, *mode, *binDir, *records;
    bool started;
    uint32_t status;  // once a daemon that ends has ended
    size_t starts;
  } kCases[] = {{"normal", "", "", "", true, PLR_SERVICE_RUNNING, 1},
                {"silent", "silent", "", "", false, PLR_SERVICE_RUNNING, 1},
                {"pipe closed", "close-pipe", "", "", false, PLR_SERVICE_RUNNING, 1},
                {"exits", "exit-after-report", "", "", true, PLR_SERVICE_STOPPED, 1},
                {"no run dir", "", "", "answer RUNDIR /run/none\n", true, PLR_SERVICE_STOPPED, 1},
                {"no bin dir", "", "/nonexistent", "", false, PLR_SERVICE_STOPPED, 0}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Load(c.records, c.binDir);
    Watchdog guard(30);
    SetDaemonMode("kavix-natd", c.mode);
    const std::set<int> before = OpenFds();
    const size_t starts = StartsOf("kavix-natd");
    const uint64_t start = NowMs();
    EXPECT_EQ(PLRServiceStart(2, PLR_SERVICE_NAT), c.started);
    EXPECT_GE(NowMs() - start, strstr(c.mode, "silent") ? 1400u : 0u) << "waits for the pipe";
    EXPECT_EQ(StartsOf("kavix-natd") - starts, c.starts);
    EXPECT_EQ(OpenFds(), before);
    // A daemon that ends is reaped by its parent, but under load only some time later.
    const pid_t pid = PidInFile("/var/run/kavix-natd-2.pid");
    EXPECT_TRUE(c.status != PLR_SERVICE_STOPPED || pid <= 0 ||
                WaitFor([&] { return kill(pid, 0) != 0; }, 20000));
    EXPECT_EQ(PLRServiceStatus(2, PLR_SERVICE_NAT), c.status);
    EXPECT_TRUE(PLRServiceStop(2, PLR_SERVICE_NAT));
    EXPECT_FALSE(ProcessAlive(pid));
    EXPECT_FALSE(FileExists("/var/run/kavix-natd-2.pid"));
    PLR_Unload();
  }
  Load("");
  for (sys::Op op : {sys::Op::kFork, sys::Op::kRead}) {
    const size_t starts = StartsOf("kavix-natd");
    sys::FailNth(op, 1, EAGAIN);
    EXPECT_FALSE(PLRServiceStart(2, PLR_SERVICE_NAT));
    sys::ClearFaults();
    EXPECT_EQ(StartsOf("kavix-natd") - starts, op == sys::Op::kFork ? 0u : 1u);
  }
}

// Start, status and stop of every service; a stale PID file reads as stopped and stop removes
// it; a PID file without a usable PID makes status unknown and stop fail, and no signal goes
// anywhere (a SIGTERM to PID 0 would end this very process).
TEST_F(Services, StatusAndStopFollowThePidFile) {
  Load("");
  // Only a plain number above 1 on the first line is a PID: nothing else may ever signal init,
  // a process group or every process.
  const std::string kTexts[] = {
      "1234",    "77\nabc\n",   "2147483647\n",       "2\n", "1\n", "", "-5\n", "2147483648\n",
      "12abc\n", "abc\n1234\n", std::string(300, '1')};
  std::string pids;
  bool noFile = true;
  for (const std::string& text : kTexts) {
    WriteFile("/run/test.pid", text);
    pids += std::to_string(PLRExtractPidFromFile("/run/test.pid", &noFile));
    pids += noFile ? "! " : " ";
  }
  EXPECT_EQ(pids, "1234 77 2147483647 2 0 0 0 0 0 0 0 ");
  EXPECT_EQ(PLRExtractPidFromFile("/run/none.pid", &noFile), 0);
  EXPECT_TRUE(noFile);
  Watchdog guard(40);
  for (uint32_t service = PLR_SERVICE_BRIDGE; service <= PLR_SERVICE_NAT; ++service) {
    char* name = nullptr;
    ASSERT_TRUE(PLRGetPidFilename(3, service, &name, nullptr));
    const std::string pidFile = name;
    free(name);
    SCOPED_TRACE(pidFile);
    EXPECT_EQ(PLRServiceStatus(3, service), PLR_SERVICE_STOPPED);
    EXPECT_TRUE(PLRServiceStop(3, service));  // nothing to stop
    ASSERT_TRUE(PLRServiceStart(3, service));
    const pid_t pid = PidInFile(pidFile);
    ASSERT_TRUE(ProcessAlive(pid));
    EXPECT_EQ(PLRServiceStatus(3, service), PLR_SERVICE_RUNNING);
    const uint64_t start = NowMs();
    EXPECT_TRUE(PLRServiceStop(3, service));
    EXPECT_LT(NowMs() - start, 2000u);
    EXPECT_FALSE(ProcessAlive(pid));
    EXPECT_FALSE(FileExists(pidFile));
  }
  EXPECT_EQ(PLRServiceStatus(1, 9), PLR_SERVICE_STATUS_UNKNOWN);
  EXPECT_FALSE(PLRServiceStop(1, 9));
  WriteFile("/var/run/kavix-dhcpd-kavix6.pid", "2147483647\n");  // no such process
  EXPECT_EQ(PLRServiceStatus(6, PLR_SERVICE_DHCP), PLR_SERVICE_STOPPED);
  EXPECT_TRUE(FileExists("/var/run/kavix-dhcpd-kavix6.pid"));
  EXPECT_TRUE(PLRServiceStop(6, PLR_SERVICE_DHCP));
  EXPECT_FALSE(FileExists("/var/run/kavix-dhcpd-kavix6.pid"));

  for (const char* text : {"abc\n", "0\n", "1\n"}) {
    WriteFile("/var/run/kavix-natd-4.pid", text);
    EXPECT_EQ(PLRServiceStatus(4, PLR_SERVICE_NAT), PLR_SERVICE_STATUS_UNKNOWN) << text;
    EXPECT_FALSE(PLRServiceStop(4, PLR_SERVICE_NAT)) << text;
    EXPECT_TRUE(FileExists("/var/run/kavix-natd-4.pid"));
  }
}

TEST_F(Services, DaemonIgnoringTermIsKilledAfterThreeSeconds) {
  Load("");
  Watchdog guard(30);
  SetDaemonMode("kavix-natd", "ignore-term");
  ASSERT_TRUE(PLRServiceStart(5, PLR_SERVICE_NAT));
  const pid_t pid = PidInFile("/var/run/kavix-natd-5.pid");
  // One we may not signal: status cannot tell, stop reports it and counts as done, restart fails.
  ASSERT_EQ(setresuid(65534, 65534, 0), 0);
  const bool asDocumented = PLRServiceStatus(5, PLR_SERVICE_NAT) == PLR_SERVICE_STATUS_UNKNOWN &&
                            PLRServiceStop(5, PLR_SERVICE_NAT) &&
                            !PLRRestartService(5, PLR_SERVICE_NAT, nullptr, nullptr, true);
  ASSERT_EQ(setresuid(0, 0, 0), 0);
  EXPECT_TRUE(asDocumented);
  EXPECT_TRUE(ProcessAlive(pid));
  const uint64_t start = NowMs();
  EXPECT_TRUE(PLRServiceStop(5, PLR_SERVICE_NAT));
  EXPECT_GT(NowMs() - start, 3000u);
  EXPECT_TRUE(WaitFor([&] { return !ProcessAlive(pid); }, 5000)) << "SIGKILL follows";
  EXPECT_FALSE(FileExists("/var/run/kavix-natd-5.pid"));
}

// A restart stops a running service and starts it again where the vnet has the service's
// option; a stopped one starts only when asked to.
TEST_F(Services, RestartFollowsTheConfiguration) {
  Load(
      "answer VNET_3_DHCP yes\nanswer VNET_3_NAT yes\nanswer VNET_3_VIRTUAL_ADAPTER yes\n"
      "answer VNET_2_NAT no\n");
  Watchdog guard(40);
  const struct {
    uint32_t vnet, service;
    const char* daemon;
    bool running, startIfStopped, ok, restarted;
    size_t starts;
  } kCases[] = {{3, PLR_SERVICE_NAT, "kavix-natd", false, false, true, false, 0},
                {3, PLR_SERVICE_NAT, "kavix-natd", true, false, true, true, 2},
                {2, PLR_SERVICE_NAT, "kavix-natd", true, true, true, false, 1},
                {0, PLR_SERVICE_BRIDGE, "kavix-bridge", false, true, true, true, 1},
                {2, PLR_SERVICE_NETIFUP, "kavix-netifup", false, true, true, false, 0},
                {3, 7, "kavix-natd", false, true, false, false, 0}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::to_string(c.vnet) + "/" + std::to_string(c.service));
    const size_t before = StartsOf(c.daemon);
    ASSERT_TRUE(!c.running || PLRServiceStart(c.vnet, c.service));
    const pid_t old = PidInFile("/var/run/kavix-natd-" + std::to_string(c.vnet) + ".pid");
    bool wasRunning = !c.running, restarted = !c.restarted;
    EXPECT_EQ(PLRRestartService(c.vnet, c.service, &wasRunning, &restarted, c.startIfStopped),
              c.ok);
    if (!c.ok) continue;
    EXPECT_EQ(wasRunning, c.running);
    EXPECT_EQ(restarted, c.running || c.startIfStopped ? c.restarted : !c.restarted);
    EXPECT_EQ(StartsOf(c.daemon) - before, c.starts);
    EXPECT_TRUE(!c.running || !ProcessAlive(old));
    EXPECT_EQ(PLRServiceStatus(c.vnet, c.service),
              c.restarted ? PLR_SERVICE_RUNNING : PLR_SERVICE_STOPPED);
    PLRServiceStop(c.vnet, c.service);
  }
  // A restart whose start fails fails, with the old process gone.
  ASSERT_TRUE(PLRServiceStart(3, PLR_SERVICE_NAT));
  const pid_t first = PidInFile("/var/run/kavix-natd-3.pid");
  SetDaemonMode("kavix-natd", "close-pipe");
  EXPECT_FALSE(PLRRestartService(3, PLR_SERVICE_NAT, nullptr, nullptr, false));
  EXPECT_FALSE(ProcessAlive(first));
}

}  // namespace
}  // namespace plr::test
