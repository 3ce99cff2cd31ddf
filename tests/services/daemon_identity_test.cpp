// Signals reach only the service's own daemon, and a start that hears
// nothing gives up within its bound, killing what it started.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "base/file-lock.h"
#include "pelorus.h"
#include "tests/support/sandbox.h"
#include "tests/support/services_util.h"

namespace plr::test {
namespace {

using namespace svc;  // NOLINT: the services test vocabulary

constexpr const char* kPidFile = "/var/run/kavix-natd-4.pid";

// Starts `argv` as a child of the test; killed at the end of the test.
pid_t Spawn(std::vector<const char*> argv) {
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    execv(argv[0], const_cast<char* const*>(argv.data()));
    _exit(127);
  }
  return pid;
}

// A PID file naming a process whose command line does not name that PID file
// is stale: status reads stopped, stop signals nothing and removes the file.
TEST_F(ServiceTest, PidFileNamingAnotherProcessIsStale) {
  Load("");
  const pid_t sleeper = Spawn({"/bin/sleep", "60"});
  const pid_t otherDaemon =
      Spawn({"/bin/sh", "-c", "sleep 60; :", "kavix-natd", "-d", "/var/run/kavix-natd-5.pid"});
  KillAtEnd(sleeper);
  KillAtEnd(otherDaemon);
  const struct {
    const char* name;
    pid_t pid;
  } kOthers[] = {
      {"another program", sleeper},
      {"the daemon of another vnet", otherDaemon},
      {"the caller", getpid()},
  };
  for (const auto& other : kOthers) {
    SCOPED_TRACE(other.name);
    WriteFile(kPidFile, std::to_string(other.pid) + "\n");
    EXPECT_EQ(PLRServiceStatus(4, PLR_SERVICE_NAT), PLR_SERVICE_STOPPED);
    EXPECT_TRUE(PLRServiceStop(4, PLR_SERVICE_NAT));
    EXPECT_FALSE(FileExists(kPidFile));
    EXPECT_TRUE(ProcessAlive(other.pid));
  }
  // The real daemon of the vnet is recognised and stopped.
  ASSERT_TRUE(PLRServiceStart(4, PLR_SERVICE_NAT));
  const pid_t daemon = PidInFile(kPidFile);
  EXPECT_EQ(PLRServiceStatus(4, PLR_SERVICE_NAT), PLR_SERVICE_RUNNING);
  EXPECT_TRUE(PLRServiceStop(4, PLR_SERVICE_NAT));
  EXPECT_TRUE(WaitFor([&] { return !ProcessAlive(daemon); }, 5000));
}

// A daemon that never detaches, and one that keeps its status pipe open
// without a word, make the start fail within its bound with the daemon
// killed and the database lock free again.
TEST_F(ServiceTest, StartGivesUpOnADaemonThatNeverReports) {
  Load(
      "answer VNET_1_VIRTUAL_ADAPTER yes\nanswer VNET_1_HOSTONLY_SUBNET 192.168.1.0\n"
      "answer VNET_1_HOSTONLY_NETMASK 255.255.255.0\n");
  Watchdog guard(60);
  for (const char* mode : {"no-detach", "never-report"}) {
    SCOPED_TRACE(mode);
    SetDaemonMode("kavix-netifup", mode);
    const size_t starts = StartsOf("kavix-netifup");
    EXPECT_FALSE(PLR_StartService("kavix1", PLR_SERVICE_TYPE_NETIFUP));
    EXPECT_EQ(StartsOf("kavix-netifup"), starts + 1);
    EXPECT_TRUE(LogHas(std::string(mode) == "no-detach" ? "did not detach within 10000 ms"
                                                        : "did not report status within 10000 ms"));
    // Every process it started, the first one and the daemon, is gone.
    for (const char* record : {"starts", "pids"})
      for (const std::string& line :
           FileLines("/tmp/kavix-fixture/kavix-netifup." + std::string(record))) {
        const pid_t pid = static_cast<pid_t>(std::stol(line));
        EXPECT_TRUE(WaitFor([&] { return !ProcessAlive(pid); }, 3000)) << record << " " << pid;
      }
    EXPECT_FALSE(FileExists("/var/run/kavix-netifup-1.pid"));
    EXPECT_TRUE(FileLock().Lock(kDatabasePath, 0)) << "the lock is free";
  }
}

}  // namespace
}  // namespace plr::test
