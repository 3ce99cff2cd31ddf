// End to end: the real dhcpd started on a generated dhcpd.conf serves a real client.
#include <gtest/gtest.h>
#include <signal.h>

#include <string>

#include "pelorus.h"
#include "tests/support/sandbox.h"
#include "tests/support/services_util.h"

namespace plr::test {
namespace {

using namespace svc;  // NOLINT: the services test vocabulary

class DhcpEndToEndTest : public ServiceTest {};

TEST_F(DhcpEndToEndTest, ClientOnTheVnetGetsItsMappedAddress) {
  Load(
      "answer VNET_1_HOSTONLY_SUBNET 192.168.77.0\nanswer VNET_1_HOSTONLY_NETMASK 255.255.255.0\n"
      "answer VNET_1_DHCP yes\nanswer VNET_1_NAT yes\nanswer VNET_1_VIRTUAL_ADAPTER yes\n"
      "add_dhcp_mac_to_ip 1 02:11:22:33:44:55 192.168.77.50\n");
  Watchdog guard(90);
  ASSERT_EQ(plr::test::Run("ip link add kavix1 type veth peer name dhcpeer1 && ip link set "
                           "dhcpeer1 address 02:11:22:33:44:55 && ip link set dhcpeer1 up"),
            0);
  ASSERT_TRUE(PLRVirtAdapterEnable(1));
  ASSERT_EQ(plr::test::Run("mkdir -p /etc/tarsis/kavix1/dhcpd"), 0);
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(1));
  SetDaemonMode("kavix-dhcpd", "real");
  ASSERT_TRUE(PLRServiceStart(1, PLR_SERVICE_DHCP)) << LogText();
  const pid_t dhcpd = PidInFile("/var/run/kavix-dhcpd-kavix1.pid");
  ASSERT_TRUE(ProcessAlive(dhcpd));

  const int rc = plr::test::Run(
      "timeout 40 dhclient -sf /bin/true -lf /tmp/dhclient.leases -pf /tmp/dhclient.pid -1 "
      "dhcpeer1 >/tmp/dhclient.out 2>&1");
  if (pid_t client = PidInFile("/tmp/dhclient.pid"); client > 1) {
    KillAtEnd(client);
    kill(client, SIGTERM);
  }
  ASSERT_EQ(rc, 0) << ReadFile("/tmp/dhclient.out");
  const std::string lease = ReadFile("/tmp/dhclient.leases");
  EXPECT_NE(lease.find("fixed-address 192.168.77.50;"), std::string::npos) << lease;
  EXPECT_NE(lease.find("option routers 192.168.77.2;"), std::string::npos) << lease;

  EXPECT_TRUE(PLRServiceStop(1, PLR_SERVICE_DHCP));
  EXPECT_FALSE(ProcessAlive(dhcpd));
}

}  // namespace
}  // namespace plr::test
