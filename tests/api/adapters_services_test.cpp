// Adapters, services and the kavix device, against the fixture daemons, veth
// interfaces in the test's own network namespace, and the real ISC dhcpd and
// dhclient for the end-to-end DHCP case.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <string>

#include "base/sys-util.h"
#include "pelorus.h"
#include "tests/support/api_util.h"
#include "tests/support/sandbox.h"

namespace plr::test {
namespace {

class AdaptersServicesTest : public ApiTest {
 protected:
  void TearDown() override {
    KillFixtureDaemons();
    ApiTest::TearDown();
  }
  // The PID recorded in a PID file, or 0.
  static int PidIn(const std::string& path) {
    std::ifstream in(path);
    int pid = 0;
    in >> pid;
    return pid;
  }
  // The administrative IFF_UP flag, as `ip` shows it between the angle brackets.
  static bool InterfaceUp(const std::string& name) {
    const std::string link = Capture("ip -o link show " + name);
    const std::string flags = link.substr(0, link.find('>'));
    return flags.find(",UP") != std::string::npos || flags.find("<UP") != std::string::npos;
  }
};

constexpr const char* kNetifupPid = "/var/run/kavix-netifup-kavix1.pid";
constexpr const char* kDhcpPid = "/var/run/kavix-dhcpd-kavix1.pid";

TEST_F(AdaptersServicesTest, ServiceStatusAndRefusals) {
  Load(Vnet1Records() + "answer VNET_1_DHCP yes\n");
  EXPECT_EQ(PLR_GetServiceStatus("kavix1", PLR_SERVICE_TYPE_DHCP), PLR_SERVICE_STOPPED);
  Mark();
  EXPECT_FALSE(PLR_StartService("kavix1", PLR_SERVICE_TYPE_DHCP));
  EXPECT_TRUE(LogHas(
      "PLR_StartService - DHCP configuration file needed for the service does not exist"));
  EXPECT_FALSE(TookLockSinceMark());
  Mark();
  EXPECT_FALSE(PLR_StartService("kavix1", PLR_SERVICE_TYPE_NAT));
  EXPECT_TRUE(
      LogHas("PLR_StartService - \"NAT\" service is not configured for this vnet"));
  Mark();
  EXPECT_FALSE(PLR_StartService("kavix2", PLR_SERVICE_TYPE_NETIFUP));
  EXPECT_TRUE(
      LogHas("PLR_StartService - \"Netifup\" service is not configured for this vnet"));
}

TEST_F(AdaptersServicesTest, StartingARunningServiceTakesNoLock) {
  Load(Vnet1Records() + "answer VNET_1_NAT yes\n");
  ASSERT_TRUE(PLR_UpdateNATFromConfig("kavix1"));
  SetDaemonMode("kavix-natd", "mode normal\n");
  ASSERT_TRUE(PLR_StartService("kavix1", PLR_SERVICE_TYPE_NAT));
  EXPECT_TRUE(FileExists("/dev/kavix1"));
  EXPECT_EQ(PLR_GetServiceStatus("kavix1", PLR_SERVICE_TYPE_NAT), PLR_SERVICE_RUNNING);
  Mark();
  ASSERT_TRUE(PLR_StartService("kavix1", PLR_SERVICE_TYPE_NAT));
  EXPECT_TRUE(
      LogHas("PLR_StartService - \"NAT\" Service is already running on the vnet: kavix1"));
  EXPECT_FALSE(TookLockSinceMark());
  Mark();
  ASSERT_TRUE(PLR_StopService("kavix1", PLR_SERVICE_TYPE_NAT));
  EXPECT_TRUE(LogHas("PLR_StopService - Stopped \"NAT\" service on vnet: kavix1"));
  EXPECT_TRUE(TookLockSinceMark());
  EXPECT_EQ(PLR_GetServiceStatus("kavix1", PLR_SERVICE_TYPE_NAT), PLR_SERVICE_STOPPED);
}

TEST_F(AdaptersServicesTest, KavixDeviceCreateAndDelete) {
  Load();
  ASSERT_TRUE(PLR_CreateKavixDevice("kavix7"));
  EXPECT_TRUE(FileExists("/dev/kavix7"));
  ASSERT_TRUE(PLR_DeleteKavixDevice("KAVIX7"));
  EXPECT_FALSE(FileExists("/dev/kavix7"));
  Mark();
  EXPECT_FALSE(PLR_CreateKavixDevice("kavix300"));
  EXPECT_TRUE(LogHas("PLRCreateDeleteKavixDevice - Invalid vnet name: kavix300"));
  EXPECT_TRUE(LogHas(
      "PLRCreateDeleteKavixDevice - Failed to create kavix device for vmet: kavix300"));
}

TEST_F(AdaptersServicesTest, AdapterStatusWithoutAdapterIsAnAnswer) {
  Load(Vnet1Records());
  bool installed = true, enabled = true;
  ASSERT_TRUE(PLR_GetVnetAdapterStatus("kavix1", &installed, &enabled));
  EXPECT_FALSE(installed);
  EXPECT_FALSE(enabled);
  Mark();
  ASSERT_TRUE(PLR_DisableNetworkAdapter("kavix1"));  // no interface kavix1: nothing to do
  EXPECT_TRUE(
      LogHas("PLR_DisableNetworkAdapter - Hostonly adapter: kavix1 does not exist"));
  EXPECT_FALSE(TookLockSinceMark());
}

// Switching the adapter on assigns a subnet; a failed switch removes it again.
TEST_F(AdaptersServicesTest, UseAdapterAssignsSubnetAndRollsBack) {
  Load();
  SetPingRules("");
  ASSERT_TRUE(PLR_SetVnetUseAdapter("kavix1", true, false));
  EXPECT_EQ(Answer(1, "VIRTUAL_ADAPTER"), "yes");
  EXPECT_NE(Answer(1, "HOSTONLY_SUBNET"), "<absent>");

  Mark();
  sys::FailNth(sys::Op::kWrite, 3, ENOSPC);
  EXPECT_FALSE(PLR_SetVnetUseAdapter("kavix2", true, false));
  sys::ClearFaults();
  EXPECT_EQ(Answer(2, "HOSTONLY_SUBNET"), "<absent>");
  EXPECT_EQ(Answer(2, "VIRTUAL_ADAPTER"), "<absent>");
  EXPECT_TRUE(
      LogHas("PLR_SetVnetUseAdapter - Configuring Adapter failed on vnet: kavix2, current "
                      "status unknown"));

  ASSERT_TRUE(PLR_SetVnetAdapterAddr("kavix1", "10.0.0.9"));
  ASSERT_TRUE(PLR_SetVnetUseAdapter("kavix1", false, true));
  EXPECT_EQ(Answer(1, "VIRTUAL_ADAPTER"), "no");
  EXPECT_EQ(Answer(1, "VIRTUAL_ADAPTER_ADDR"), "<absent>");
}

// The host-only adapter on a veth interface named kavix1: enabling runs the
// netifup fixture and configures the interface; disabling undoes both.
TEST_F(AdaptersServicesTest, HostOnlyAdapterOnVeth) {
  Load("answer VNET_1_HOSTONLY_SUBNET 10.77.1.0\nanswer VNET_1_HOSTONLY_NETMASK 255.255.255.0\n");
  ASSERT_EQ(plr::test::Run("ip link add kavix1 type veth peer name kavix1p"), 0);
  ASSERT_TRUE(PLR_SetVnetUseAdapter("kavix1", true, false));
  SetDaemonMode("kavix-netifup", "mode normal\n");

  ASSERT_TRUE(PLR_EnableNetworkAdapter("kavix1"));
  const std::string addr = Capture("ip -o -4 addr show dev kavix1");
  EXPECT_NE(addr.find("inet 10.77.1.1/24 brd 10.77.1.255"), std::string::npos) << addr;
  EXPECT_TRUE(InterfaceUp("kavix1"));
  const int netifup = PidIn(kNetifupPid);
  ASSERT_GT(netifup, 0);
  EXPECT_TRUE(ProcessAlive(netifup));
  EXPECT_EQ(PLR_GetServiceStatus("kavix1", PLR_SERVICE_TYPE_NETIFUP), PLR_SERVICE_RUNNING);
  bool installed = false, enabled = false;
  ASSERT_TRUE(PLR_GetVnetAdapterStatus("kavix1", &installed, &enabled));
  EXPECT_TRUE(installed);
  EXPECT_TRUE(enabled);

  Mark();
  ASSERT_TRUE(PLR_EnableNetworkAdapter("kavix1"));
  EXPECT_TRUE(LogHas("PLR_EnableNetworkAdapter - Adapter is already enabled"));

  ASSERT_TRUE(PLR_DisableNetworkAdapter("kavix1"));
  EXPECT_FALSE(InterfaceUp("kavix1"));
  EXPECT_FALSE(FileExists(kNetifupPid));
  EXPECT_FALSE(ProcessAlive(netifup));
  ASSERT_TRUE(PLR_GetVnetAdapterStatus("kavix1", &installed, &enabled));
  EXPECT_FALSE(enabled);

  // Configured but down: nothing to update.
  EXPECT_TRUE(PLR_UpdateAdapterFromConfig("kavix1"));
}

// Enabling fails (no interface): the netifup service this call started is
// stopped again; one that was already running is left alone.
TEST_F(AdaptersServicesTest, EnableFailureStopsOnlyTheNetifupItStarted) {
  Load(Vnet1Records() + "answer VNET_1_VIRTUAL_ADAPTER yes\n");
  SetDaemonMode("kavix-netifup", "mode normal\n");
  Mark();
  EXPECT_FALSE(PLR_EnableNetworkAdapter("kavix1"));
  EXPECT_TRUE(LogHas(
      "PLR_EnableNetworkAdapter - Failed to enable hostonly adapter on vnet: kavix1"));
  EXPECT_TRUE(LogHas(
      "PLR_EnableNetworkAdapter - Stopped netifup service on vnet: kavix1 during cleanup"));
  EXPECT_FALSE(FileExists(kNetifupPid));
  EXPECT_EQ(PLR_GetServiceStatus("kavix1", PLR_SERVICE_TYPE_NETIFUP), PLR_SERVICE_STOPPED);

  ASSERT_TRUE(PLR_StartService("kavix1", PLR_SERVICE_TYPE_NETIFUP));
  const int netifup = PidIn(kNetifupPid);
  ASSERT_GT(netifup, 0);
  Mark();
  EXPECT_FALSE(PLR_EnableNetworkAdapter("kavix1"));
  EXPECT_TRUE(LogHas(
      "PLR_EnableNetworkAdapter - netifup service is already running on vnet: kavix1"));
  EXPECT_FALSE(LogHas(
      "PLR_EnableNetworkAdapter - Stopped netifup service on vnet: kavix1 during cleanup"));
  EXPECT_TRUE(ProcessAlive(netifup));
  EXPECT_EQ(PLR_GetServiceStatus("kavix1", PLR_SERVICE_TYPE_NETIFUP), PLR_SERVICE_RUNNING);
}

// A vnet from nothing to serving DHCP: subnet assigned, a static mapping,
// dhcpd.conf written, the real dhcpd started through the fixture, and a real
// dhclient on the veth peer gets exactly the mapped address.
TEST_F(AdaptersServicesTest, VnetFromNothingToServingDhcp) {
  ASSERT_EQ(access("/usr/sbin/dhcpd", X_OK), 0);
  ASSERT_EQ(access("/usr/sbin/dhclient", X_OK), 0);
  Load();
  SetPingRules("");
  ASSERT_TRUE(PLR_SetVnetUseDHCP("kavix1", true, false));
  char subnet[16];
  uint32_t len = sizeof subnet;
  ASSERT_TRUE(PLR_GetVnetSubnetAddr("kavix1", subnet, &len));
  const std::string net(subnet, strlen(subnet) - 1);  // "a.b.c."
  const std::string mapped = net + "42";

  ASSERT_EQ(plr::test::Run("ip link add kavix1 type veth peer name peer1"), 0);
  ASSERT_EQ(plr::test::Run("ip link set peer1 address 02:00:00:aa:bb:01"), 0);
  ASSERT_EQ(plr::test::Run("ip addr add " + net +
                "1/24 dev kavix1 && ip link set kavix1 up && ip link set peer1 up"),
            0);
  ASSERT_TRUE(PLR_SetDHCPIPToMAC("kavix1", mapped.c_str(), "02:00:00:aa:bb:01"));
  ASSERT_TRUE(PLR_UpdateDHCPFromConfig("kavix1"));

  SetDaemonMode("kavix-dhcpd", "mode real\n");
  ASSERT_TRUE(PLR_StartService("kavix1", PLR_SERVICE_TYPE_DHCP));
  EXPECT_EQ(PLR_GetServiceStatus("kavix1", PLR_SERVICE_TYPE_DHCP), PLR_SERVICE_RUNNING);

  const int rc = RunBounded(
      "dhclient -4 -1 -v -sf /bin/true -lf /tmp/peer1.leases -pf /tmp/peer1.pid peer1 "
      ">/tmp/dhclient.out 2>&1",
      40);
  plr::test::Run("[ -f /tmp/peer1.pid ] && kill $(cat /tmp/peer1.pid)");
  const std::string leases = FileExists("/tmp/peer1.leases") ? ReadFile("/tmp/peer1.leases") : "";
  EXPECT_EQ(rc, 0) << ReadFile("/tmp/dhclient.out");
  EXPECT_NE(leases.find("fixed-address " + mapped + ";"), std::string::npos) << leases;

  ASSERT_TRUE(PLR_StopService("kavix1", PLR_SERVICE_TYPE_DHCP));
  EXPECT_EQ(PLR_GetServiceStatus("kavix1", PLR_SERVICE_TYPE_DHCP), PLR_SERVICE_STOPPED);
  EXPECT_FALSE(FileExists(kDhcpPid));
}

// NAT with forwards: nat.conf read back through the library's reader lists
// every forward; descriptions stay in the database only.
TEST_F(AdaptersServicesTest, NatForwardsReadBackThroughTheReader) {
  Load();
  SetPingRules("");
  ASSERT_TRUE(PLR_SetVnetUseNAT("kavix8", true, false));
  ASSERT_TRUE(PLR_SetNATPortForward("kavix8", true, 8080, "172.16.9.128", 80, "web frontend", 12));
  ASSERT_TRUE(PLR_SetNATPortForward("kavix8", true, 2222, "172.16.9.129", 22, "ssh", 3));
  ASSERT_TRUE(PLR_SetNATPortForward("kavix8", false, 5353, "172.16.9.130", 53, "dns", 3));
  ASSERT_TRUE(PLR_UpdateNATFromConfig("kavix8"));

  const std::string path = "/etc/tarsis/kavix8/nat/nat.conf";
  globalConfig = path.c_str();
  auto items = [](const char* section) {
    std::map<std::string, std::string> out;
    NatCfgIterator* it = NatCfgListItemsInit(section);
    if (it == nullptr) return out;
    char* value = nullptr;
    while (char* key = NatCfgListItems(it, &value, nullptr)) {
      out[key] = value;
      free(key);
      free(value);
    }
    NatCfgListItemsDestroy(it);
    return out;
  };
  const auto tcp = items("incomingtcp");
  const auto udp = items("incomingudp");
  EXPECT_EQ(tcp.size(), 2u);
  EXPECT_EQ(tcp.at("8080"), "172.16.9.128:80");
  EXPECT_EQ(tcp.at("2222"), "172.16.9.129:22");
  ASSERT_EQ(udp.size(), 1u);
  EXPECT_EQ(udp.at("5353"), "172.16.9.130:53");
  char* device = NatCfgGetItem("host", "device");
  ASSERT_NE(device, nullptr);
  EXPECT_STREQ(device, "/dev/kavix8");
  free(device);
  globalConfig = nullptr;

  const std::string conf = ReadFile(path);
  EXPECT_EQ(conf.find("web frontend"), std::string::npos);
  EXPECT_NE(Database().find("web frontend"), std::string::npos);
}

}  // namespace
}  // namespace plr::test
