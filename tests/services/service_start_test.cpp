// Starting daemons: the command line of each service, what the daemon
// inherits, the status handshake in all its outcomes, and bad configuration.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <vector>

#include "base/sys-util.h"
#include "pelorus.h"
#include "tests/support/sandbox.h"
#include "tests/support/services_util.h"

namespace plr::test {
namespace {

using namespace svc;  // NOLINT: the services test vocabulary

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::UnorderedElementsAre;

class ServiceStartTest : public ServiceTest {
 protected:
  std::string Bin(const char* daemon) { return std::string(FixtureBinDir()) + "/" + daemon; }

  // The command line after "-s FD", checking that FD is a plain descriptor number.
  std::vector<std::string> ArgsAfterStatusFd(const std::string& daemon) {
    std::vector<std::string> args = CommandLineOf(daemon);
    EXPECT_GE(args.size(), 3u);
    if (args.size() < 3) return {};
    EXPECT_EQ(args[0], Bin(daemon.c_str()));
    EXPECT_EQ(args[1], "-s");
    EXPECT_GE(atoi(args[2].c_str()), 3) << args[2];
    return std::vector<std::string>(args.begin() + 3, args.end());
  }
};

TEST_F(ServiceStartTest, NatDaemonStartsWithItsFixedCommandLine) {
  Load("");
  Watchdog guard(20);
  ASSERT_TRUE(PLRServiceStart(8, PLR_SERVICE_NAT));
  EXPECT_THAT(ArgsAfterStatusFd("kavix-natd"),
              ElementsAre("-d", "/var/run/kavix-natd-8.pid", "-m", "/etc/tarsis/kavix8/nat.mac",
                          "-c", "/etc/tarsis/kavix8/nat/nat.conf"));
  pid_t pid = PidInFile("/var/run/kavix-natd-8.pid");
  EXPECT_TRUE(ProcessAlive(pid));
  EXPECT_EQ(PLRServiceStatus(8, PLR_SERVICE_NAT), PLR_SERVICE_RUNNING);

  const std::string path = Bin("kavix-natd");
  EXPECT_TRUE(LogHas("PLRServiceStart -  Entering Function, PLRServiceStart:"));
  EXPECT_TRUE(LogHas("PLRServiceStart - Fork and exec command: " + path));
  EXPECT_TRUE(LogHas("PLRServiceStart - Argument: 0, " + path));
  EXPECT_TRUE(LogHas("PLRServiceStart - Argument: 8, /etc/tarsis/kavix8/nat/nat.conf"));
  EXPECT_TRUE(LogHas("Attempting to fork a child for the service daemon"));
  EXPECT_TRUE(LogHas("Successfully forked off child process to start daemon: " + path + ", pid: "));
  EXPECT_TRUE(LogHas(", reported error: none"));
  EXPECT_TRUE(LogHas("PLRServiceStart - Child process wrote status value: 0"));
  EXPECT_TRUE(LogHas("PLRServiceStart -  Exiting Function, PLRServiceStart:"));
}

// DHCP gets its files and the vnet name; netifup the MTU only when set and
// the adapter name; a bridge its own adapters, the default bridge vnet every
// adapter except those mapped elsewhere.
TEST_F(ServiceStartTest, EachDaemonGetsItsCommandLine) {
  Load(
      "answer VNET_4_MTU 1400\nanswer VNET_4_VIRTUAL_ADAPTER_NAME vmx4\n"
      "add_bridge_mapping eth1 2\nadd_bridge_mapping eth2 5\n");
  Watchdog guard(30);
  const struct {
    uint32_t vnet, service;
    const char* daemon;
    std::vector<std::string> args;
  } cases[] = {
      {8, PLR_SERVICE_DHCP, "kavix-dhcpd",
       {"-cf", "/etc/tarsis/kavix8/dhcpd/dhcpd.conf", "-lf",
        "/etc/tarsis/kavix8/dhcpd/dhcpd.leases", "-pf", "/var/run/kavix-dhcpd-kavix8.pid",
        "kavix8"}},
      {3, PLR_SERVICE_NETIFUP, "kavix-netifup",
       {"-d", "/var/run/kavix-netifup-kavix3.pid", "/dev/kavix3", "kavix3"}},
      {4, PLR_SERVICE_NETIFUP, "kavix-netifup",
       {"-m", "1400", "-d", "/var/run/kavix-netifup-kavix4.pid", "/dev/kavix4", "vmx4"}},
      {2, PLR_SERVICE_BRIDGE, "kavix-bridge",
       {"-d", "/var/run/kavix-bridge-2.pid", "-n", "2", "-ieth1"}},
      {7, PLR_SERVICE_BRIDGE, "kavix-bridge", {"-d", "/var/run/kavix-bridge-7.pid", "-n", "7"}},
  };
  for (const auto& c : cases) {
    ASSERT_TRUE(PLRServiceStart(c.vnet, c.service)) << c.daemon << c.vnet;
    EXPECT_THAT(ArgsAfterStatusFd(c.daemon), ElementsAreArray(c.args));
  }
  EXPECT_TRUE(ProcessAlive(PidInFile("/var/run/kavix-dhcpd-kavix8.pid")));

  ASSERT_TRUE(PLRServiceStart(0, PLR_SERVICE_BRIDGE));
  std::vector<std::string> args = ArgsAfterStatusFd("kavix-bridge");
  ASSERT_EQ(args.size(), 6u);
  EXPECT_THAT(std::vector<std::string>(args.begin(), args.begin() + 4),
              ElementsAre("-d", "/var/run/kavix-bridge-0.pid", "-n", "0"));
  EXPECT_THAT(std::vector<std::string>(args.begin() + 4, args.end()),
              UnorderedElementsAre("-eeth1", "-eeth2"));
}

// The program answer names only the PID file; the executable keeps its name.
TEST_F(ServiceStartTest, ProgramAnswerRenamesOnlyThePidFile) {
  Load("answer DHCP_PROGRAM mydhcpd\n");
  Watchdog guard(20);
  ASSERT_TRUE(PLRServiceStart(8, PLR_SERVICE_DHCP));
  std::vector<std::string> args = CommandLineOf("kavix-dhcpd");
  ASSERT_FALSE(args.empty());
  EXPECT_EQ(args[0], Bin("kavix-dhcpd"));
  EXPECT_NE(std::find(args.begin(), args.end(), "/var/run/mydhcpd-kavix8.pid"), args.end());
  EXPECT_EQ(PLRServiceStatus(8, PLR_SERVICE_DHCP), PLR_SERVICE_RUNNING);
}

TEST_F(ServiceStartTest, NetifupWithoutAUsableAdapterNameStartsNothing) {
  Load("answer VNET_4_VIRTUAL_ADAPTER_NAME an-adapter-name-far-too-long\n");
  std::set<int> before = OpenFds();
  EXPECT_FALSE(PLRServiceStart(4, PLR_SERVICE_NETIFUP));
  EXPECT_TRUE(LogHas("PLRServiceStart - Cannot obtain virtual adapter name"));
  EXPECT_EQ(StartsOf("kavix-netifup"), 0u);
  EXPECT_EQ(OpenFds(), before);
}

TEST_F(ServiceStartTest, UnknownServiceForksNothing) {
  Load("");
  sys::ClearFaults();
  std::set<int> before = OpenFds();
  EXPECT_FALSE(PLRServiceStart(1, 5));
  EXPECT_FALSE(PLRServiceStart(1, 0));
  EXPECT_EQ(sys::CallCount(sys::Op::kFork), 0u);
  EXPECT_TRUE(LogHas("PLRServiceStart - Invalid service name 5"));
  EXPECT_EQ(OpenFds(), before);
}

// The descriptors of this process that a program it execs would inherit,
// except the library's log (the start hands the daemon the log as its stdout
// and stderr instead).
std::string InheritableFdsWith(int extra) {
  std::set<int> fds;
  const int logFd = plrContext.logStream != nullptr ? fileno(plrContext.logStream) : -1;
  for (int fd : OpenFds())
    if (fd > 2 && fd != logFd && (fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0) fds.insert(fd);
  fds.insert({0, 1, 2, extra});
  std::string out;
  for (int fd : fds) out += (out.empty() ? "" : " ") + std::to_string(fd);
  return out;
}

// The daemon sees its stdout and stderr in the log, no signal blocked, and
// the status pipe's write end but no descriptor of the library (whatever the
// caller itself leaves inheritable is the caller's business).
TEST_F(ServiceStartTest, DaemonInheritsOnlyThePipeAndNoBlockedSignal) {
  Load("");
  Watchdog guard(20);
  sigset_t block, old;
  sigemptyset(&block);
  sigaddset(&block, SIGUSR1);
  sigaddset(&block, SIGTERM);
  ASSERT_EQ(sigprocmask(SIG_BLOCK, &block, &old), 0);
  bool started = PLRServiceStart(1, PLR_SERVICE_NAT);
  sigset_t after;
  sigprocmask(SIG_SETMASK, &old, &after);
  ASSERT_TRUE(started);
  EXPECT_TRUE(sigismember(&after, SIGUSR1)) << "the caller's own mask is left alone";

  std::vector<std::string> args = CommandLineOf("kavix-natd");
  ASSERT_GE(args.size(), 3u);
  EXPECT_EQ(EnvironmentOf("kavix-natd", "fds"), InheritableFdsWith(atoi(args[2].c_str())))
      << EnvironmentOf("kavix-natd", "fdtargets");
  EXPECT_EQ(EnvironmentOf("kavix-natd", "sigblk"), "0000000000000000");
  EXPECT_EQ(EnvironmentOf("kavix-natd", "stderr"), kLogPath);
  EXPECT_TRUE(LogHas("kavix fixture kavix-natd: started, pid "));
  EXPECT_TRUE(LogHas("PLRServiceStart - Duping Fds status 2, 1"));
  EXPECT_TRUE(LogHas("PLRServiceStart - Child process started"));
}

TEST_F(ServiceStartTest, StatusValueIsOnlyLogged) {
  Load("");
  Watchdog guard(20);
  SetDaemonMode("kavix-natd", "status 4660\n");
  EXPECT_TRUE(PLRServiceStart(2, PLR_SERVICE_NAT));
  EXPECT_TRUE(LogHas("Child process wrote status value: 4660"));
}

// A daemon that never reports fails once its pipe closes (it runs on); one
// that closes the pipe unwritten fails at once.
TEST_F(ServiceStartTest, DaemonThatNeverReportsFails) {
  Load("");
  Watchdog guard(20);
  SetDaemonMode("kavix-natd", "mode silent\nhold_ms 1500\n");
  SetDaemonMode("kavix-bridge", "mode close-pipe\n");
  std::set<int> before = OpenFds();
  uint64_t start = NowMs();
  EXPECT_FALSE(PLRServiceStart(2, PLR_SERVICE_NAT));
  EXPECT_GE(NowMs() - start, 1400u) << "the start waits for the daemon's pipe";
  EXPECT_TRUE(LogHas("PLRServiceStart - Daemon process did not report status, returning failure"));
  EXPECT_EQ(PLRServiceStatus(2, PLR_SERVICE_NAT), PLR_SERVICE_RUNNING);
  EXPECT_FALSE(PLRServiceStart(2, PLR_SERVICE_BRIDGE));
  EXPECT_EQ(LogCount("Daemon process did not report status, returning failure"), 2u);
  EXPECT_FALSE(LogHas("Child process wrote status value"));
  EXPECT_EQ(OpenFds(), before);
}

TEST_F(ServiceStartTest, DaemonExitingAfterItsReportLeavesAStalePidFile) {
  Load("");
  Watchdog guard(20);
  SetDaemonMode("kavix-natd", "mode exit-after-report\n");
  ASSERT_TRUE(PLRServiceStart(2, PLR_SERVICE_NAT));
  pid_t pid = PidInFile("/var/run/kavix-natd-2.pid");
  ASSERT_GT(pid, 1);
  ASSERT_TRUE(WaitFor([&] { return kill(pid, 0) != 0; }, 5000));
  EXPECT_EQ(PLRServiceStatus(2, PLR_SERVICE_NAT), PLR_SERVICE_STOPPED);
  EXPECT_TRUE(
      LogHas("pid: " + std::to_string(pid) + " for NAT service daemon on vnet: 2 is stale"));
  EXPECT_TRUE(FileExists("/var/run/kavix-natd-2.pid")) << "status leaves a stale file alone";
}

TEST_F(ServiceStartTest, MissingBinDirFailsWithTheExecError) {
  Load("", "/nonexistent/bin");
  Watchdog guard(20);
  std::set<int> before = OpenFds();
  EXPECT_FALSE(PLRServiceStart(2, PLR_SERVICE_NAT));
  EXPECT_TRUE(
      LogHas("PLRServiceStart - exec(): Error while starting daemon: "
             "/nonexistent/bin/kavix-natd, error: No such file or directory"));
  EXPECT_TRUE(LogHas("Daemon process did not report status, returning failure"));
  EXPECT_EQ(OpenFds(), before);
}

TEST_F(ServiceStartTest, AbsentBinDirAnswerFallsBackToUsrBin) {
  LoadWithProductConfig("# no bindir here\n", "");
  Watchdog guard(20);
  EXPECT_FALSE(PLRServiceStart(2, PLR_SERVICE_NAT));
  EXPECT_TRUE(LogHas("PLRServiceStart - Cannot find BINDIR value in Vnet Config"));
  EXPECT_TRUE(LogHas("Fork and exec command: /usr/bin/kavix-natd"));
}

TEST_F(ServiceStartTest, DaemonThatIsNotExecutableFails) {
  ASSERT_EQ(plr::test::Run(std::string("mkdir -p /tmp/bin && cp ") + FixtureBinDir() +
                           "/kavix-natd /tmp/bin/ && chmod 0644 /tmp/bin/kavix-natd"),
            0);
  Load("", "/tmp/bin");
  Watchdog guard(20);
  std::set<int> before = OpenFds();
  EXPECT_FALSE(PLRServiceStart(2, PLR_SERVICE_NAT));
  EXPECT_TRUE(
      LogHas("exec(): Error while starting daemon: /tmp/bin/kavix-natd, error: "
             "Permission denied"));
  EXPECT_EQ(StartsOf("kavix-natd"), 0u);
  EXPECT_EQ(OpenFds(), before);
}

// The daemon cannot write its PID file but reports that: any status counts as
// started; the service then reads as stopped and stopping it is a no-op.
TEST_F(ServiceStartTest, MissingRunDirIsTheDaemonsReportedProblem) {
  Load("answer RUNDIR /run/nonexistent\n");
  Watchdog guard(20);
  std::set<int> before = OpenFds();
  EXPECT_TRUE(PLRServiceStart(2, PLR_SERVICE_NAT));
  EXPECT_TRUE(LogHas("Child process wrote status value: 61166"));
  EXPECT_EQ(PLRServiceStatus(2, PLR_SERVICE_NAT), PLR_SERVICE_STOPPED);
  EXPECT_TRUE(PLRServiceStop(2, PLR_SERVICE_NAT));
  EXPECT_TRUE(LogHas("Could not open the PID file: /run/nonexistent/kavix-natd-2.pid"));
  EXPECT_EQ(OpenFds(), before);
}

TEST_F(ServiceStartTest, ForkOrStatusReadFailureFailsAndClosesThePipe) {
  Load("");
  Watchdog guard(20);
  std::set<int> before = OpenFds();
  sys::FailNth(sys::Op::kFork, 1, EAGAIN);
  EXPECT_FALSE(PLRServiceStart(2, PLR_SERVICE_NAT));
  sys::ClearFaults();
  EXPECT_TRUE(LogHas("PLRServiceStart - fork(): Error while forking child to start daemon: " +
                     Bin("kavix-natd") + ", error: Resource temporarily unavailable"));
  EXPECT_EQ(StartsOf("kavix-natd"), 0u);
  EXPECT_EQ(OpenFds(), before);
  sys::FailNth(sys::Op::kRead, 1, EIO);
  EXPECT_FALSE(PLRServiceStart(2, PLR_SERVICE_NAT));
  sys::ClearFaults();
  EXPECT_TRUE(LogHas("PLRServiceStart - read() failed, error: Input/output error"));
  EXPECT_EQ(OpenFds(), before);
}

TEST_F(ServiceStartTest, RepeatedStartsLeakNoDescriptor) {
  Load("");
  Watchdog guard(40);
  std::set<int> before = OpenFds();
  for (int i = 0; i < 5; ++i) {
    ASSERT_TRUE(PLRServiceStart(2, PLR_SERVICE_NAT));
    ASSERT_TRUE(PLRServiceStop(2, PLR_SERVICE_NAT));
  }
  EXPECT_EQ(OpenFds(), before);
  EXPECT_EQ(StartsOf("kavix-natd"), 5u);
}

}  // namespace
}  // namespace plr::test
