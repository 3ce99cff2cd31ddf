// Restarting services: running or stopped, configured or not, with and
// without startIfStopped, and the failures on the way.
#include <gtest/gtest.h>

#include <string>

#include "pelorus.h"
#include "tests/support/sandbox.h"
#include "tests/support/services_util.h"

namespace plr::test {
namespace {

using namespace svc;  // NOLINT: the services test vocabulary

class ServiceRestartTest : public ServiceTest {};

constexpr const char* kNatPid = "/var/run/kavix-natd-2.pid";

TEST_F(ServiceRestartTest, RunningConfiguredServiceGetsANewProcess) {
  Load("answer VNET_2_NAT yes\n");
  Watchdog guard(30);
  ASSERT_TRUE(PLRServiceStart(2, PLR_SERVICE_NAT));
  pid_t before = PidInFile(kNatPid);
  bool wasRunning = false, restarted = false;
  EXPECT_TRUE(PLRRestartService(2, PLR_SERVICE_NAT, &wasRunning, &restarted, false));
  EXPECT_TRUE(wasRunning);
  EXPECT_TRUE(restarted);
  pid_t after = PidInFile(kNatPid);
  EXPECT_NE(after, before);
  EXPECT_FALSE(ProcessAlive(before));
  EXPECT_TRUE(ProcessAlive(after));
  EXPECT_EQ(StartsOf("kavix-natd"), 2u);
}

TEST_F(ServiceRestartTest, RunningServiceNoLongerConfiguredIsOnlyStopped) {
  Load("answer VNET_2_NAT no\n");
  Watchdog guard(30);
  ASSERT_TRUE(PLRServiceStart(2, PLR_SERVICE_NAT));
  pid_t pid = PidInFile(kNatPid);
  bool wasRunning = false, restarted = true;
  EXPECT_TRUE(PLRRestartService(2, PLR_SERVICE_NAT, &wasRunning, &restarted, true));
  EXPECT_TRUE(wasRunning);
  EXPECT_FALSE(restarted);
  EXPECT_FALSE(ProcessAlive(pid));
  EXPECT_EQ(PLRServiceStatus(2, PLR_SERVICE_NAT), PLR_SERVICE_STOPPED);
  EXPECT_TRUE(
      LogHas("PLRRestartService - Service: 4 could not be restarted since it is not "
             "configured for vnet: 2"));
}

// Without startIfStopped a stopped service stays stopped; `restarted` stays
// untouched and NULL out-pointers are allowed.
TEST_F(ServiceRestartTest, StoppedServiceStaysStoppedWithoutStartIfStopped) {
  Load("answer VNET_2_NAT yes\n");
  bool wasRunning = true, restarted = true;
  EXPECT_TRUE(PLRRestartService(2, PLR_SERVICE_NAT, &wasRunning, &restarted, false));
  EXPECT_FALSE(wasRunning);
  EXPECT_TRUE(restarted);
  EXPECT_TRUE(PLRRestartService(2, PLR_SERVICE_NAT, nullptr, nullptr, false));
  EXPECT_EQ(StartsOf("kavix-natd"), 0u);
  EXPECT_TRUE(LogHas("PLRRestartService - Service: 4 is not running on vnet: 2"));
}

struct ConfiguredCase {
  uint32_t service;
  uint32_t vnet;
  const char* daemon;
};

// With startIfStopped a stopped service starts exactly when the vnet has its
// option: bridge on the default bridge vnet, and the DHCP, NAT and virtual
// adapter answers.
TEST_F(ServiceRestartTest, StartIfStoppedStartsEachConfiguredService) {
  Load("answer VNET_3_DHCP yes\nanswer VNET_3_NAT yes\nanswer VNET_3_VIRTUAL_ADAPTER yes\n");
  Watchdog guard(30);
  const ConfiguredCase cases[] = {
      {PLR_SERVICE_BRIDGE, 0, "kavix-bridge"},
      {PLR_SERVICE_NETIFUP, 3, "kavix-netifup"},
      {PLR_SERVICE_DHCP, 3, "kavix-dhcpd"},
      {PLR_SERVICE_NAT, 3, "kavix-natd"},
  };
  for (const ConfiguredCase& c : cases) {
    SCOPED_TRACE(c.daemon);
    bool wasRunning = true, restarted = false;
    EXPECT_TRUE(PLRRestartService(c.vnet, c.service, &wasRunning, &restarted, true));
    EXPECT_FALSE(wasRunning);
    EXPECT_TRUE(restarted);
    EXPECT_EQ(StartsOf(c.daemon), 1u);
    EXPECT_EQ(PLRServiceStatus(c.vnet, c.service), PLR_SERVICE_RUNNING);
  }
}

TEST_F(ServiceRestartTest, StartIfStoppedLeavesUnconfiguredServicesAlone) {
  Load("answer PLR_DEFAULT_BRIDGE_VNET -1\n");
  for (uint32_t service = PLR_SERVICE_BRIDGE; service <= PLR_SERVICE_NAT; ++service) {
    bool restarted = true;
    EXPECT_TRUE(PLRRestartService(3, service, nullptr, &restarted, true)) << service;
    EXPECT_FALSE(restarted) << service;
  }
  for (const char* daemon : {"kavix-bridge", "kavix-netifup", "kavix-dhcpd", "kavix-natd"})
    EXPECT_EQ(StartsOf(daemon), 0u) << daemon;
}

TEST_F(ServiceRestartTest, UnknownServiceOrStatusFails) {
  Load("answer VNET_2_NAT yes\n");
  bool wasRunning = false, restarted = false;
  EXPECT_FALSE(PLRRestartService(2, 7, &wasRunning, &restarted, true));
  EXPECT_TRUE(LogHas("PLRRestartService - Unknown service: 7"));

  WriteFile(kNatPid, "not a pid\n");
  EXPECT_FALSE(PLRRestartService(2, PLR_SERVICE_NAT, &wasRunning, &restarted, true));
  EXPECT_TRUE(LogHas("PLRRestartService - Cannot determine status of service: 4 on vnet: 2"));
  EXPECT_EQ(StartsOf("kavix-natd"), 0u);
  EXPECT_TRUE(FileExists(kNatPid));
}

TEST_F(ServiceRestartTest, FailedStartFailsTheRestart) {
  Load("answer VNET_2_NAT yes\n");
  Watchdog guard(30);
  ASSERT_TRUE(PLRServiceStart(2, PLR_SERVICE_NAT));
  pid_t first = PidInFile(kNatPid);
  SetDaemonMode("kavix-natd", "mode close-pipe\n");
  bool wasRunning = false, restarted = false;
  EXPECT_FALSE(PLRRestartService(2, PLR_SERVICE_NAT, &wasRunning, &restarted, false));
  EXPECT_TRUE(wasRunning);
  EXPECT_FALSE(restarted);
  EXPECT_FALSE(ProcessAlive(first));
  EXPECT_TRUE(LogHas("PLRRestartService - Failed to start service: 4 for vnet: 2"));
}

}  // namespace
}  // namespace plr::test
