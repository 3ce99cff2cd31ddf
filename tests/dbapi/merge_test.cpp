// Merging a database file into the running system, with the fixture
// daemons of the changed and unchanged vnets running.
#include <errno.h>
#include <glob.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>

#include <string>

#include "base/sys-util.h"
#include "pelorus.h"
#include "tests/support/sandbox.h"
#include "tests/support/vnet_util.h"

namespace plr {
namespace {

using test::WriteFile;

constexpr const char* kMergeFile = "/tmp/merge";

// vnet 1 bridges eth1; vnet 2 bridges eth2 and runs NAT.
constexpr const char* kRunning =
    "add_bridge_mapping eth1 1\n"
    "add_bridge_mapping eth2 2\n"
    "answer VNET_2_NAT yes\n"
    "answer VNET_2_HOSTONLY_SUBNET 192.168.2.0\n"
    "answer VNET_2_HOSTONLY_NETMASK 255.255.255.0\n";

// PID of a running service daemon, 0 when it does not run.
pid_t ServicePid(uint32_t vnet, uint32_t service) {
  char* file = nullptr;
  if (!PLRGetPidFilename(vnet, service, &file, nullptr)) return 0;
  bool noFile = false;
  const pid_t pid = PLRExtractPidFromFile(file, &noFile);
  free(file);
  return pid > 0 && kill(pid, 0) == 0 ? pid : 0;
}

std::string Answer(const char* key) {
  const char* value = nullptr;
  if (!PLRNetCfgGetAnswerString(nullptr, key, &value)) return "<absent>";
  return value;
}

size_t RestorePoints() {
  glob_t g;
  const size_t n = glob("/etc/tarsis/.networking.*", 0, nullptr, &g) == 0 ? g.gl_pathc : 0;
  globfree(&g);
  return n;
}

class Merge : public test::LoadedLibraryTest {
 protected:
  void SetUp() override {
    Load(kRunning);
    ASSERT_TRUE(PLRServiceStart(1, PLR_SERVICE_BRIDGE));
    ASSERT_TRUE(PLRServiceStart(2, PLR_SERVICE_BRIDGE));
    ASSERT_TRUE(PLRServiceStart(2, PLR_SERVICE_NAT));
    bridge1_ = ServicePid(1, PLR_SERVICE_BRIDGE);
    bridge2_ = ServicePid(2, PLR_SERVICE_BRIDGE);
    nat2_ = ServicePid(2, PLR_SERVICE_NAT);
    ASSERT_TRUE(bridge1_ != 0 && bridge2_ != 0 && nat2_ != 0);
  }
  void TearDown() override {
    sys::ClearFaults();
    for (uint32_t vnet = 0; vnet < 5; ++vnet)
      for (uint32_t service = 1; service <= 4; ++service) PLRServiceStop(vnet, service);
    LoadedLibraryTest::TearDown();
  }
  pid_t bridge1_ = 0, bridge2_ = 0, nat2_ = 0;
};

TEST_F(Merge, ChangedVnetRestartsInOrderAndUnchangedKeepsItsDaemons) {
  WriteFile(kMergeFile,
            std::string("BACKUP_VERSION=1,0\n") + kRunning + "answer VNET_2_DISPLAY_NAME two\n");
  const size_t logStart = test::LogText().size();
  ASSERT_TRUE(PLRNetCfgMergeConfig(kMergeFile));
  EXPECT_EQ(ServicePid(1, PLR_SERVICE_BRIDGE), bridge1_);
  const pid_t newBridge = ServicePid(2, PLR_SERVICE_BRIDGE);
  const pid_t newNat = ServicePid(2, PLR_SERVICE_NAT);
  EXPECT_NE(newBridge, 0);
  EXPECT_NE(newBridge, bridge2_);
  EXPECT_NE(newNat, 0);
  EXPECT_NE(newNat, nat2_);
  EXPECT_EQ(ServicePid(2, PLR_SERVICE_DHCP), 0) << "DHCP is not on for vnet 2";
  EXPECT_EQ(Answer("VNET_2_DISPLAY_NAME"), "two");
  EXPECT_NE(Database().find("answer VNET_2_DISPLAY_NAME two\n"), std::string::npos);
  // Stopped bridge first, then NAT; started bridge first, then NAT.
  const std::string log = test::LogText().substr(logStart);
  const size_t stopBridge =
      log.find("Successfully killed Bridge service daemon, pid: " + std::to_string(bridge2_));
  const size_t stopNat =
      log.find("Successfully killed NAT service daemon, pid: " + std::to_string(nat2_));
  const size_t startBridge = log.find("kavix-bridge", stopNat);
  const size_t startNat = log.find("Fork and exec command: ", startBridge);
  ASSERT_NE(stopBridge, std::string::npos);
  ASSERT_NE(stopNat, std::string::npos);
  EXPECT_LT(stopBridge, stopNat);
  ASSERT_NE(startBridge, std::string::npos);
  ASSERT_NE(startNat, std::string::npos);
  EXPECT_NE(log.find("kavix-natd", startNat), std::string::npos);
  EXPECT_EQ(log.find("Successfully killed Bridge service daemon, pid: " + std::to_string(bridge1_)),
            std::string::npos);
  EXPECT_EQ(RestorePoints(), 1u) << "the restore point stays";
}

TEST_F(Merge, SameSettingsChangeNothing) {
  // Letter case of values and a missing DHCP configuration hash do not count.
  ASSERT_TRUE(PLRNetCfgAddAnswerString(nullptr, "VNET_2_DHCP_CFG_HASH", "abc"));
  const std::string before = Database();
  WriteFile(kMergeFile,
            "BACKUP_VERSION=1,0\n"
            "add_bridge_mapping eth1 1\n"
            "add_bridge_mapping eth2 2\n"
            "answer VNET_2_NAT YES\n"
            "answer VNET_2_HOSTONLY_SUBNET 192.168.2.0\n"
            "answer VNET_2_HOSTONLY_NETMASK 255.255.255.0\n");
  ASSERT_TRUE(PLRNetCfgMergeConfig(kMergeFile));
  EXPECT_EQ(Database(), before);
  EXPECT_EQ(ServicePid(1, PLR_SERVICE_BRIDGE), bridge1_);
  EXPECT_EQ(ServicePid(2, PLR_SERVICE_BRIDGE), bridge2_);
  EXPECT_EQ(ServicePid(2, PLR_SERVICE_NAT), nat2_);
  EXPECT_EQ(RestorePoints(), 0u);
}

TEST_F(Merge, PortForwardDifferenceMakesVnetChanged) {
  ASSERT_TRUE(PLRNetCfgAddNATPortFwd(nullptr, 2, true, 80, "192.168.2.9", 80, "web", false));
  WriteFile(kMergeFile, std::string("BACKUP_VERSION=1,0\n") + kRunning +
                            "add_nat_portfwd 2 tcp 80 192.168.2.9 80 www\n");
  ASSERT_TRUE(PLRNetCfgMergeConfig(kMergeFile));
  EXPECT_NE(ServicePid(2, PLR_SERVICE_NAT), nat2_);
  EXPECT_EQ(ServicePid(1, PLR_SERVICE_BRIDGE), bridge1_);
}

TEST_F(Merge, FailedStartPutsDatabaseAndDaemonsBack) {
  // vnet 2 changes, vnet 3 turns NAT on, vnet 4 (changed by its name; bridge
  // mappings alone are not compared) gets bridged. Starts: bridge
  // 2, NAT 2, NAT 3, then the bridge of vnet 4 fails.
  WriteFile(kMergeFile, std::string("BACKUP_VERSION=1,0\n") + kRunning +
                            "answer VNET_2_DISPLAY_NAME two\n"
                            "answer VNET_3_NAT yes\n"
                            "answer VNET_3_HOSTONLY_SUBNET 192.168.3.0\n"
                            "answer VNET_3_HOSTONLY_NETMASK 255.255.255.0\n"
                            "answer VNET_4_DISPLAY_NAME four\n"
                            "add_bridge_mapping eth4 4\n");
  sys::FailNth(sys::Op::kFork, 4, EAGAIN);
  EXPECT_FALSE(PLRNetCfgMergeConfig(kMergeFile));
  sys::ClearFaults();
  EXPECT_NE(test::LogText().find("Failed to start BRIDGE service for vnet: 4"), std::string::npos);
  EXPECT_EQ(Answer("VNET_2_DISPLAY_NAME"), "<absent>");
  EXPECT_EQ(Answer("VNET_3_NAT"), "<absent>");
  EXPECT_EQ(Answer("VNET_2_NAT"), "yes");
  EXPECT_EQ(ServicePid(3, PLR_SERVICE_NAT), 0) << "started by the merge, stopped again";
  EXPECT_EQ(ServicePid(4, PLR_SERVICE_BRIDGE), 0);
  EXPECT_NE(ServicePid(2, PLR_SERVICE_BRIDGE), 0) << "ran before, runs again";
  EXPECT_NE(ServicePid(2, PLR_SERVICE_NAT), 0);
  EXPECT_EQ(ServicePid(1, PLR_SERVICE_BRIDGE), bridge1_);
  // The restored database holds the same settings (it was rewritten).
  EXPECT_NE(Database().find("answer VNET_2_NAT yes\n"), std::string::npos);
  EXPECT_EQ(Database().find("VNET_3_NAT"), std::string::npos);
  // The default cache writes through again.
  EXPECT_TRUE(PLRNetCfgAddAnswerString(nullptr, "VNET_7_MTU", "1300"));
  EXPECT_NE(Database().find("answer VNET_7_MTU 1300\n"), std::string::npos);
}

TEST_F(Merge, UnreadableFileChangesNothing) {
  const std::string before = Database();
  WriteFile(kMergeFile, "BACKUP_VERSION=7,0\n");
  EXPECT_FALSE(PLRNetCfgMergeConfig(kMergeFile));
  EXPECT_FALSE(PLRNetCfgMergeConfig("/tmp/missing"));
  EXPECT_NE(test::LogText().find("Failed to parse and load configuration data frombackup file: /tmp/merge"),
            std::string::npos);
  EXPECT_EQ(Database(), before);
  EXPECT_EQ(ServicePid(2, PLR_SERVICE_BRIDGE), bridge2_);
  EXPECT_EQ(RestorePoints(), 0u);
}

TEST(MergeUnloaded, NeedsTheLoadedLibrary) {
  test::LogWhileUnloaded();
  test::WriteDatabase();
  WriteFile(kMergeFile, "BACKUP_VERSION=1,0\n");
  EXPECT_FALSE(PLRNetCfgMergeConfig(kMergeFile));
  EXPECT_TRUE(test::LogHas(
      "Database needs to be loaded using PLR_Load beforecalling PLRNetCfgMergeConfig()"));
}

}  // namespace
}  // namespace plr
