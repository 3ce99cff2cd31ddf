// The real service daemons started by the library: kavix-netifup makes and
// removes the vnet's bridge, kavix-dhcpd serves a guest in its own network
// namespace its mapped address, keeps leases across restarts and reports the
// server's own error for a broken configuration.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <string>

#include "pelorus.h"
#include "tests/support/sandbox.h"
#include "tests/support/services_util.h"

namespace plr::test {
namespace {

constexpr const char* kNetifupPid = "/var/run/kavix-netifup-kavix1.pid";
constexpr const char* kDhcpdPid = "/var/run/kavix-dhcpd-kavix1.pid";
constexpr const char* kGuestMac = "02:11:22:33:44:55";

class Daemons : public LoadedLibraryTest {
 protected:
  // Vnet 1 with a host-only adapter, DHCP, an MTU and the guest's mapping,
  // served by the daemons of this build.
  void LoadVnet() {
    Load(
        "answer VNET_1_HOSTONLY_SUBNET 192.168.77.0\nanswer VNET_1_HOSTONLY_NETMASK "
        "255.255.255.0\nanswer VNET_1_VIRTUAL_ADAPTER yes\nanswer VNET_1_DHCP yes\n"
        "answer VNET_1_MTU 1400\nadd_dhcp_mac_to_ip 1 02:11:22:33:44:55 192.168.77.50\n",
        PLR_DAEMONS_BINDIR);
  }
  static std::string Link() { return Capture("ip -d link show kavix1 2>&1"); }
};

TEST_F(Daemons, NetifupMakesTheBridgeAndRemovesItOnStop) {
  LoadVnet();
  Watchdog guard(60);
  ASSERT_TRUE(PLR_StartService("kavix1", PLR_SERVICE_TYPE_NETIFUP)) << LogText();
  pid_t daemon = PidInFile(kNetifupPid);
  EXPECT_TRUE(ProcessAlive(daemon));
  EXPECT_NE(Link().find("mtu 1400"), std::string::npos) << Link();
  EXPECT_NE(Link().find("bridge forward_delay"), std::string::npos) << Link();
  // A second instance for the vnet is refused; a bad command line is a usage error.
  const std::string program = std::string(PLR_DAEMONS_BINDIR) + "/kavix-netifup";
  EXPECT_EQ(test::Run(program + " -s 1 -d " + kNetifupPid + " /dev/kavix1 kavix1 2>>/tmp/second"),
            1);
  EXPECT_NE(ReadFile("/tmp/second").find("another instance is running"), std::string::npos);
  EXPECT_TRUE(ProcessAlive(daemon));
  for (const char* args : {"", "-s x -d /tmp/p /dev/kavix1 kavix1", "-s 3 -d /tmp/p kavix1",
                           "-s 3 -d /tmp/p /dev/kavix1 eth0", "-s 3 -m 20 -d /tmp/p /dev/k kavix1"})
    EXPECT_EQ(test::Run(program + " " + args + " 2>/tmp/usage"), 2) << args;
  EXPECT_EQ(ReadFile("/tmp/usage").rfind("usage: kavix-netifup", 0), 0u);
  // Killed, it leaves the bridge; the next start cleans it up and makes it anew.
  ASSERT_EQ(kill(daemon, SIGKILL), 0);
  ASSERT_TRUE(WaitFor([&] { return !ProcessAlive(daemon); }, 3000));
  EXPECT_NE(Link().find("bridge"), std::string::npos);
  ASSERT_TRUE(PLR_StartService("kavix1", PLR_SERVICE_TYPE_NETIFUP)) << LogText();
  daemon = PidInFile(kNetifupPid);
  EXPECT_TRUE(LogHas("removing the bridge kavix1 left by an earlier instance"));
  ASSERT_TRUE(PLR_EnableNetworkAdapter("kavix1"));
  EXPECT_NE(Capture("ip -4 addr show kavix1").find("inet 192.168.77.1/24"), std::string::npos);
  ASSERT_TRUE(PLR_StopService("kavix1", PLR_SERVICE_TYPE_NETIFUP));
  EXPECT_TRUE(WaitFor([&] { return !ProcessAlive(daemon); }, 1000));
  EXPECT_NE(Link().find("does not exist"), std::string::npos) << Link();
  EXPECT_FALSE(FileExists(kNetifupPid));
}

TEST_F(Daemons, DhcpdServesTheGuestItsMappedAddressAndKeepsLeases) {
  LoadVnet();
  Watchdog guard(120);
  ASSERT_TRUE(PLR_EnableNetworkAdapter("kavix1")) << LogText();  // starts netifup
  // A broken configuration: no status, and the server's own complaint in the log.
  ASSERT_EQ(test::Run("mkdir -p /etc/tarsis/kavix1/dhcpd"), 0);
  WriteFile("/etc/tarsis/kavix1/dhcpd/dhcpd.conf", "subnet 192.168.77.0 netmask { broken\n");
  EXPECT_FALSE(PLR_StartService("kavix1", PLR_SERVICE_TYPE_DHCP));
  EXPECT_TRUE(LogHas("kavix-dhcpd[kavix1]: dhcpd refuses /etc/tarsis/kavix1/dhcpd/dhcpd.conf"));
  EXPECT_TRUE(LogHas("kavix-dhcpd[kavix1]: dhcpd: ")) << LogText();
  EXPECT_TRUE(LogHas("did not report status"));

  ASSERT_TRUE(PLR_UpdateDHCPFromConfig("kavix1"));
  ASSERT_TRUE(PLR_StartService("kavix1", PLR_SERVICE_TYPE_DHCP)) << LogText();
  const pid_t dhcpd = PidInFile(kDhcpdPid);
  EXPECT_EQ(PLR_GetServiceStatus("kavix1", PLR_SERVICE_TYPE_DHCP), PLR_SERVICE_RUNNING);
  // A guest in a namespace of its own, its veth port joined to the bridge.
  ASSERT_EQ(
      test::Run(std::string("ip netns add guest && ip link add gv0 type veth peer name gv1 && "
                            "ip link set gv1 netns guest && ip link set gv0 master kavix1 up && "
                            "ip netns exec guest ip link set gv1 address ") +
                kGuestMac + " && ip netns exec guest ip link set gv1 up"),
      0);
  const int rc = test::Run(
      "ip netns exec guest timeout 40 dhclient -sf /bin/true -lf /tmp/guest.leases -pf "
      "/tmp/guest.pid -1 gv1 >/tmp/dhclient.out 2>&1");
  if (const pid_t client = PidInFile("/tmp/guest.pid"); client > 1) {
    KillAtEnd(client);
    kill(client, SIGTERM);
  }
  ASSERT_EQ(rc, 0) << ReadFile("/tmp/dhclient.out");
  const std::string lease = ReadFile("/tmp/guest.leases");
  EXPECT_NE(lease.find("fixed-address 192.168.77.50;"), std::string::npos) << lease;

  // Stopped, the keeper and the server are gone; the leases survive a restart.
  const pid_t server = PidInFile(std::string(kDhcpdPid) + ".server");
  EXPECT_TRUE(ProcessAlive(server));
  ASSERT_TRUE(PLR_StopService("kavix1", PLR_SERVICE_TYPE_DHCP));
  EXPECT_TRUE(WaitFor([&] { return !ProcessAlive(dhcpd) && !ProcessAlive(server); }, 1000));
  const std::string leases = "/etc/tarsis/kavix1/dhcpd/dhcpd.leases";
  WriteFile(leases, ReadFile(leases) +
                        "lease 192.168.77.200 {\n  starts 4 2026/11/19 10:00:00;\n  ends 4 "
                        "2036/11/19 10:00:00;\n  binding state active;\n  hardware ethernet "
                        "02:00:00:00:00:99;\n}\n");
  ASSERT_TRUE(PLR_StartService("kavix1", PLR_SERVICE_TYPE_DHCP)) << LogText();
  EXPECT_NE(ReadFile(leases).find("lease 192.168.77.200 {"), std::string::npos) << ReadFile(leases);
  EXPECT_TRUE(PLR_StopService("kavix1", PLR_SERVICE_TYPE_DHCP));
  EXPECT_TRUE(PLR_StopService("kavix1", PLR_SERVICE_TYPE_NETIFUP));
}

}  // namespace
}  // namespace plr::test
