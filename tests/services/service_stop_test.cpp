// Stopping daemons and asking their status from PID files: running, stale,
// missing and unusable PID files, and a daemon that ignores SIGTERM.
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "pelorus.h"
#include "tests/support/sandbox.h"
#include "tests/support/services_util.h"

namespace plr::test {
namespace {

using namespace svc;  // NOLINT: the services test vocabulary

volatile sig_atomic_t gTermsReceived = 0;
void CountTerm(int) {
  gTermsReceived = gTermsReceived + 1;
}

class ServiceStopTest : public ServiceTest {
 protected:
  // A PID that named a process of ours a moment ago and names none now.
  pid_t ReapedPid() {
    pid_t pid = fork();
    if (pid == 0) _exit(0);
    EXPECT_GT(pid, 0);
    waitpid(pid, nullptr, 0);
    return pid;
  }
};

struct ServiceCase {
  uint32_t service;
  const char* pidFile;
  const char* daemon;
};

TEST_F(ServiceStopTest, EveryServiceStartsRunsAndStops) {
  Load("");
  Watchdog guard(40);
  const ServiceCase cases[] = {
      {PLR_SERVICE_BRIDGE, "/var/run/kavix-bridge-3.pid", "Bridge"},
      {PLR_SERVICE_NETIFUP, "/var/run/kavix-netifup-kavix3.pid", "Netifup"},
      {PLR_SERVICE_DHCP, "/var/run/kavix-dhcpd-kavix3.pid", "DHCP"},
      {PLR_SERVICE_NAT, "/var/run/kavix-natd-3.pid", "NAT"},
  };
  for (const ServiceCase& c : cases) {
    SCOPED_TRACE(c.daemon);
    EXPECT_EQ(PLRServiceStatus(3, c.service), PLR_SERVICE_STOPPED);
    ASSERT_TRUE(PLRServiceStart(3, c.service));
    pid_t pid = PidInFile(c.pidFile);
    ASSERT_TRUE(ProcessAlive(pid));
    EXPECT_EQ(PLRServiceStatus(3, c.service), PLR_SERVICE_RUNNING);
    EXPECT_TRUE(LogHas(std::string("Successfully tracked ") + c.daemon +
                       " daemon on vnet: 3, pid: " + std::to_string(pid)));

    uint64_t start = NowMs();
    EXPECT_TRUE(PLRServiceStop(3, c.service));
    EXPECT_LT(NowMs() - start, 2000u);
    EXPECT_FALSE(ProcessAlive(pid));
    EXPECT_FALSE(FileExists(c.pidFile));
    EXPECT_TRUE(LogHas(std::string("Successfully killed ") + c.daemon +
                       " service daemon, pid: " + std::to_string(pid)));
    EXPECT_EQ(PLRServiceStatus(3, c.service), PLR_SERVICE_STOPPED);
  }
  EXPECT_TRUE(LogHas("PLRServiceStop -  Entering Function, PLRServiceStop:"));
  EXPECT_TRUE(LogHas("PLRServiceStop -  Exiting Function, PLRServiceStop:"));
  EXPECT_TRUE(LogHas("PLRServiceStatus -  Exiting Function, PLRServiceStatus:"));
}

TEST_F(ServiceStopTest, NoPidFileMeansStoppedAndNothingIsSignalled) {
  Load("");
  EXPECT_EQ(PLRServiceStatus(1, 9), PLR_SERVICE_STATUS_UNKNOWN);  // unknown service
  EXPECT_FALSE(PLRServiceStop(1, 9));
  EXPECT_TRUE(LogHas("Invalid service name: 9"));
  EXPECT_EQ(PLRServiceStatus(8, PLR_SERVICE_DHCP), PLR_SERVICE_STOPPED);
  EXPECT_TRUE(PLRServiceStop(8, PLR_SERVICE_DHCP));
  EXPECT_TRUE(LogHas("PLRServiceStop - Could not extract PID of DHCP"));
  EXPECT_TRUE(LogHas("PLRServiceStatus - Could not extract PID of DHCP"));
  EXPECT_FALSE(LogHas("service daemon, pid:"));
}

// None of these names a process: stop fails and keeps the file, status
// cannot tell, and no signal goes anywhere (a SIGTERM to PID 0 would reach
// this very process group, which counts them).
TEST_F(ServiceStopTest, PidFileWithoutAUsablePidIsNeverSignalled) {
  Load("");
  struct sigaction sa, old;
  memset(&sa, 0, sizeof sa);
  sa.sa_handler = CountTerm;
  ASSERT_EQ(sigaction(SIGTERM, &sa, &old), 0);
  const char* const texts[] = {
      "abc\n", "", "-1\n", "0\n", "1\n", "-100\n", "4294967295\n", "99999999999\n", "12 34\n"};
  for (const char* text : texts) {
    SCOPED_TRACE(text);
    WriteFile("/var/run/kavix-natd-4.pid", text);
    EXPECT_EQ(PLRServiceStatus(4, PLR_SERVICE_NAT), PLR_SERVICE_STATUS_UNKNOWN);
    EXPECT_FALSE(PLRServiceStop(4, PLR_SERVICE_NAT));
    EXPECT_TRUE(FileExists("/var/run/kavix-natd-4.pid"));
  }
  SleepMs(100);
  sigaction(SIGTERM, &old, nullptr);
  EXPECT_EQ(gTermsReceived, 0);
  EXPECT_TRUE(LogHas("PLRServiceStop - Could not extract PID of NAT"));
  EXPECT_FALSE(LogHas("Sending term failed"));
  EXPECT_FALSE(LogHas("does not seem to be running"));
  // An unreadable PID file likewise.
  ASSERT_EQ(mkdir("/var/run/kavix-bridge-2.pid", 0755), 0);
  EXPECT_EQ(PLRServiceStatus(2, PLR_SERVICE_BRIDGE), PLR_SERVICE_STATUS_UNKNOWN);
  EXPECT_FALSE(PLRServiceStop(2, PLR_SERVICE_BRIDGE));
  EXPECT_TRUE(FileExists("/var/run/kavix-bridge-2.pid"));
}

TEST_F(ServiceStopTest, StalePidFileReadsStoppedAndStopRemovesIt) {
  Load("");
  pid_t gone = ReapedPid();
  ASSERT_FALSE(ProcessAlive(gone));
  WriteFile("/var/run/kavix-dhcpd-kavix6.pid", std::to_string(gone) + "\n");
  EXPECT_EQ(PLRServiceStatus(6, PLR_SERVICE_DHCP), PLR_SERVICE_STOPPED);
  EXPECT_TRUE(LogHas("PLRServiceStatus - pid: " + std::to_string(gone) +
                     " for DHCP service daemon on vnet: 6 is stale"));
  EXPECT_TRUE(FileExists("/var/run/kavix-dhcpd-kavix6.pid"));

  EXPECT_TRUE(PLRServiceStop(6, PLR_SERVICE_DHCP));
  EXPECT_TRUE(LogHas("PLRServiceStop - DHCP service daemon does not seem to be running, pid: " +
                     std::to_string(gone)));
  EXPECT_FALSE(FileExists("/var/run/kavix-dhcpd-kavix6.pid"));
}

TEST_F(ServiceStopTest, DaemonIgnoringTermIsKilledAfterThreeSeconds) {
  Load("");
  Watchdog guard(30);
  SetDaemonMode("kavix-natd", "mode ignore-term\n");
  ASSERT_TRUE(PLRServiceStart(5, PLR_SERVICE_NAT));
  pid_t pid = PidInFile("/var/run/kavix-natd-5.pid");
  ASSERT_TRUE(ProcessAlive(pid));

  uint64_t start = NowMs();
  EXPECT_TRUE(PLRServiceStop(5, PLR_SERVICE_NAT));
  uint64_t took = NowMs() - start;
  EXPECT_GT(took, 3000u);
  EXPECT_LT(took, 4500u);
  EXPECT_TRUE(
      LogHas("PLRServiceStop - Timeout expired while waiting for NAT service daemon, "
             "pid: " +
             std::to_string(pid) + " to quit"));
  EXPECT_FALSE(LogHas("Successfully killed NAT"));
  EXPECT_TRUE(WaitFor([&] { return !ProcessAlive(pid); }, 2000)) << "SIGKILL follows the timeout";
  EXPECT_FALSE(FileExists("/var/run/kavix-natd-5.pid"));
}

// A daemon we may not signal: status cannot tell, and stop reports the
// refused SIGTERM, tries SIGKILL and still counts as done.
TEST_F(ServiceStopTest, DaemonWeMayNotSignalIsUnknownAndStopReportsIt) {
  Load("");
  Watchdog guard(20);
  ASSERT_TRUE(PLRServiceStart(5, PLR_SERVICE_NAT));
  pid_t pid = PidInFile("/var/run/kavix-natd-5.pid");
  ASSERT_TRUE(ProcessAlive(pid));

  // Keep root as the saved ID so the test can return to it.
  ASSERT_EQ(setresuid(65534, 65534, 0), 0);
  uint32_t status = PLRServiceStatus(5, PLR_SERVICE_NAT);
  bool stopped = PLRServiceStop(5, PLR_SERVICE_NAT);
  ASSERT_EQ(setresuid(0, 0, 0), 0);

  EXPECT_EQ(status, PLR_SERVICE_STATUS_UNKNOWN);
  EXPECT_TRUE(LogHas("PLRServiceStatus - kill(): failed for pid: " + std::to_string(pid) +
                     ", error: Operation not permitted"));
  EXPECT_TRUE(stopped);
  EXPECT_TRUE(LogHas("PLRServiceStop - Sending term failed for NAT service daemon, pid: " +
                     std::to_string(pid) + ", error: Operation not permitted"));
  EXPECT_TRUE(ProcessAlive(pid));
  bool wasRunning = false;
  EXPECT_EQ(PLRServiceStatus(5, PLR_SERVICE_NAT), PLR_SERVICE_RUNNING);
  ASSERT_EQ(setresuid(65534, 65534, 0), 0);
  bool restarted = PLRRestartService(5, PLR_SERVICE_NAT, &wasRunning, nullptr, true);
  ASSERT_EQ(setresuid(0, 0, 0), 0);
  EXPECT_FALSE(restarted);
  EXPECT_TRUE(LogHas("PLRRestartService - Cannot determine status of service: 4 on vnet: 5"));
}

TEST_F(ServiceStopTest, StopAndStatusLeakNoDescriptor) {
  Load("");
  WriteFile("/var/run/kavix-natd-4.pid", "garbage\n");
  WriteFile("/var/run/kavix-dhcpd-kavix4.pid", std::to_string(ReapedPid()) + "\n");
  std::set<int> before = OpenFds();
  for (int i = 0; i < 20; ++i) {
    PLRServiceStatus(4, PLR_SERVICE_NAT);
    PLRServiceStop(4, PLR_SERVICE_NAT);
    PLRServiceStatus(4, PLR_SERVICE_DHCP);
    PLRServiceStatus(4, PLR_SERVICE_BRIDGE);
  }
  PLRServiceStop(4, PLR_SERVICE_DHCP);
  EXPECT_EQ(OpenFds(), before);
}

}  // namespace
}  // namespace plr::test
