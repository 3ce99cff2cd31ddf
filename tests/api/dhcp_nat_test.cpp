// DHCP and NAT calls over a real database: switching with subnet assignment
// and rollback (database file checked byte for byte), parameters, static
// mappings and port forwards with unterminated bytes, enumeration.
#include <gtest/gtest.h>
#include <string.h>

#include <memory>
#include <set>
#include <string>

#include "base/sys-util.h"
#include "pelorus.h"
#include "tests/support/api_util.h"
#include "tests/support/sandbox.h"

namespace plr::test {
namespace {

using DhcpNatTest = ApiTest;

// An exact-size heap copy without a NUL, so a read past `text.size()` trips ASan.
std::unique_ptr<char[]> Unterminated(const std::string& text) {
  std::unique_ptr<char[]> bytes(new char[text.size()]);
  memcpy(bytes.get(), text.data(), text.size());
  return bytes;
}

TEST_F(DhcpNatTest, SwitchingOnWithoutSubnetAssignsOne) {
  Load();
  SetPingRules("");  // every candidate is free
  Mark();
  ASSERT_TRUE(PLR_SetVnetUseDHCP("kavix1", true, false));
  EXPECT_TRUE(PLR_GetVnetUseDHCP("kavix1"));
  EXPECT_NE(Answer(1, "HOSTONLY_SUBNET"), "<absent>");
  EXPECT_EQ(Answer(1, "HOSTONLY_NETMASK"), "255.255.255.0");
  EXPECT_TRUE(LogHas("PLR_SetVnetUseDHCP - Attemping to configure subnet for vnet"));
  EXPECT_TRUE(LogHas("PLR_SetVnetUseDHCP - New subnet configured"));
  EXPECT_TRUE(LogHas("PLR_SetVnetUseDHCP - Success in configuring DHCP for the vnet"));
  EXPECT_TRUE(LogHas(
      "PLR_SetVnetUseDHCP - Current DHCP status: 0, requested status: 1, changing DHCP status"));

  ASSERT_TRUE(PLR_SetVnetUseNAT("kavix1", true, false));  // the subnet is there already
  EXPECT_TRUE(PLR_GetVnetUseNAT("kavix1"));
  EXPECT_EQ(LogCount("Attempting to assign an unused subnet for vnet: kavix1"), 0);
}

TEST_F(DhcpNatTest, SameStatusChangesNothingUnlessCleanupIsAsked) {
  Load(Vnet1Records() +
       "answer VNET_1_DHCP yes\nanswer VNET_1_DHCP_PARAM_LEASE_START_IP 192.168.1.100\n");
  Mark();
  ASSERT_TRUE(PLR_SetVnetUseDHCP("kavix1", true, false));
  EXPECT_TRUE(
      LogHas("PLR_SetVnetUseDHCP - Current DHCP status and requested status are same"));
  EXPECT_TRUE(DatabaseUnchangedSinceMark());

  ASSERT_TRUE(PLR_SetVnetUseDHCP("kavix1", true, true));
  EXPECT_TRUE(LogCount("Cleaned up existing DHCP configuration for vnet: kavix1"));
  EXPECT_EQ(Answer(1, "DHCP_PARAM_LEASE_START_IP"), "<absent>");
  EXPECT_TRUE(PLR_GetVnetUseDHCP("kavix1"));

  Mark();
  ASSERT_TRUE(PLR_SetVnetUseDHCP("kavix1", false, false));
  EXPECT_TRUE(
      LogHas("PLR_SetVnetUseDHCP - Success in unconfiguring DHCP  on vnet: kavix1"));
  EXPECT_EQ(Answer(1, "HOSTONLY_SUBNET"), "192.168.1.0");  // switching off keeps the subnet
}

// Every candidate answers the ping: no subnet, nothing in the database file.
TEST_F(DhcpNatTest, FailedAssignmentLeavesTheFileByteForByte) {
  Load("answer VNET_1_DISPLAY_NAME One\n");
  SetPingRules("* 0\n");
  Mark();
  EXPECT_FALSE(PLR_SetVnetUseDHCP("kavix1", true, false));
  EXPECT_TRUE(LogHas("PLR_SetVnetUseDHCP - Failed to assign subnet to vnet"));
  EXPECT_TRUE(DatabaseUnchangedSinceMark());
  EXPECT_FALSE(PLR_GetVnetUseDHCP("kavix1"));

  Mark();
  EXPECT_FALSE(PLR_SetVnetUseNAT("kavix1", true, false));
  EXPECT_TRUE(LogHas("PLR_SetVnetUseNAT - Failed to assign subnet to vnet: kavix1"));
  EXPECT_TRUE(LogHas(
      "PLR_SetVnetUseNAT - Removing assigned subnet for vnet: kavix1 because of error"));
  EXPECT_TRUE(DatabaseUnchangedSinceMark());
}

// The subnet is assigned (two answer records), then storing the service
// setting fails: the assignment is taken back with its remove records and
// the cache holds no subnet; a subnet the vnet had before is kept.
TEST_F(DhcpNatTest, SetterFailureAfterAssignmentRemovesOnlyThisCallsSubnet) {
  Load("answer VNET_1_DISPLAY_NAME One\n");
  SetPingRules("");
  Mark();
  sys::FailNth(sys::Op::kWrite, 3, ENOSPC);  // subnet, mask, then the DHCP answer
  EXPECT_FALSE(PLR_SetVnetUseNAT("kavix1", true, false));
  sys::ClearFaults();
  EXPECT_EQ(Answer(1, "HOSTONLY_SUBNET"), "<absent>");
  EXPECT_EQ(Answer(1, "HOSTONLY_NETMASK"), "<absent>");
  EXPECT_FALSE(PLR_GetVnetUseNAT("kavix1"));
  EXPECT_TRUE(LogHas("PLR_SetVnetUseNAT - Configuring NAT failed on vnet: kavix1"));
  EXPECT_TRUE(LogHas(
      "PLR_SetVnetUseNAT - Removing assigned subnet for vnet: kavix1 because of error"));
  // The journal holds each assignment record followed by its remove record.
  const std::string added = Database().substr(MarkedDatabase().size());
  ASSERT_EQ(Database().substr(0, MarkedDatabase().size()), MarkedDatabase());
  const size_t subnetAt = added.find("answer VNET_1_HOSTONLY_SUBNET ");
  ASSERT_NE(subnetAt, std::string::npos);
  const std::string subnet =
      added.substr(subnetAt + 30, added.find('\n', subnetAt) - subnetAt - 30);
  EXPECT_EQ(added, "answer VNET_1_HOSTONLY_SUBNET " + subnet +
                       "\nanswer VNET_1_HOSTONLY_NETMASK 255.255.255.0\n"
                       "remove_answer VNET_1_HOSTONLY_SUBNET\n"
                       "remove_answer VNET_1_HOSTONLY_NETMASK\n");
}

TEST_F(DhcpNatTest, SetterFailureKeepsASubnetTheVnetHadBefore) {
  Load(Vnet1Records());
  Mark();
  sys::FailNth(sys::Op::kWrite, 1, ENOSPC);
  EXPECT_FALSE(PLR_SetVnetUseDHCP("kavix1", true, false));
  sys::ClearFaults();
  EXPECT_EQ(Answer(1, "HOSTONLY_SUBNET"), "192.168.1.0");
  EXPECT_EQ(Answer(1, "HOSTONLY_NETMASK"), "255.255.255.0");
  EXPECT_TRUE(DatabaseUnchangedSinceMark());
  EXPECT_TRUE(LogHas(
      "PLR_SetVnetUseDHCP - Configuring DHCP failed on vnet: kavix1, current status unknown"));
}

TEST_F(DhcpNatTest, DhcpParametersByExternalIdWithUnterminatedValues) {
  Load(Vnet1Records());
  auto routers = Unterminated("192.168.1.2XYZ");
  ASSERT_TRUE(PLR_SetDHCPParam("kavix1", PLR_DHCP_EXT_PARAM_ROUTERS, routers.get(), 11));
  EXPECT_EQ(Answer(1, "DHCP_PARAM_ROUTERS"), "192.168.1.2");
  auto lease = Unterminated("3600");
  ASSERT_TRUE(
      PLR_SetDHCPParam("kavix1", PLR_DHCP_EXT_PARAM_SUB_MAX_LEASE_DURATION_SEC, lease.get(), 3));
  EXPECT_EQ(Answer(1, "DHCP_PARAM_SUB_MAX_LEASE_TIME"), "360");

  char value[16];
  uint32_t len = 1;  // non-zero passes the check; the layer finds it too small
  EXPECT_FALSE(PLR_GetDHCPParam("kavix1", PLR_DHCP_EXT_PARAM_ROUTERS, false, value, &len));
  EXPECT_EQ(len, 1u);
  len = sizeof value;
  ASSERT_TRUE(PLR_GetDHCPParam("kavix1", PLR_DHCP_EXT_PARAM_ROUTERS, false, value, &len));
  EXPECT_STREQ(value, "192.168.1.2");
  EXPECT_EQ(len, 12u);
  len = sizeof value;
  ASSERT_TRUE(PLR_GetDHCPParam("kavix1", PLR_DHCP_EXT_PARAM_LEASE_BEGIN_IP, true, value, &len));
  EXPECT_STREQ(value, "192.168.1.128");

  Mark();
  ASSERT_TRUE(PLR_SetDHCPParam("kavix1", PLR_DHCP_EXT_PARAM_ROUTERS, nullptr, 0));
  EXPECT_EQ(Answer(1, "DHCP_PARAM_ROUTERS"), "<absent>");
  EXPECT_TRUE(LogHas(
      "PLR_SetDHCPParam - Deleted value for DHCP parameter: 13358 for vnet: kavix1"));

  Mark();
  EXPECT_FALSE(PLR_SetDHCPParam("kavix1", PLR_DHCP_EXT_PARAM_DNS_ADDR, "1.2.3", 5));
  EXPECT_TRUE(LogHas(
      "PLR_SetDHCPParam - Setting value for DHCP Parameter failed, vnet: kavix1, paramID: 13357, "
      "param: 1.2.3"));
  EXPECT_TRUE(TookLockSinceMark());
}

TEST_F(DhcpNatTest, NatParametersByExternalId) {
  Load(Vnet1Records());
  ASSERT_TRUE(PLR_SetNATParam("kavix1", PLR_NAT_EXT_PARAM_UDP_TIMEOUT, "90", 2));
  EXPECT_EQ(Answer(1, "NAT_PARAM_UDP_TIMEOUT"), "90");
  char value[64];
  uint32_t len = sizeof value;
  ASSERT_TRUE(PLR_GetNATParam("kavix1", PLR_NAT_EXT_PARAM_GATEWAY_IP, true, value, &len));
  EXPECT_STREQ(value, "192.168.1.2");
  EXPECT_EQ(len, 12u);
  Mark();
  EXPECT_FALSE(PLR_SetNATParam("kavix1", PLR_NAT_EXT_PARAM_ACTIVE_FTP, "2", 1));
  EXPECT_TRUE(LogHas(
      "PLR_SetNATParam - Setting value for NAT parameter: 9031, 2 failed for vnet: kavix1"));
  ASSERT_TRUE(PLR_SetNATParam("kavix1", PLR_NAT_EXT_PARAM_UDP_TIMEOUT, nullptr, 0));
  EXPECT_EQ(Answer(1, "NAT_PARAM_UDP_TIMEOUT"), "<absent>");
}

TEST_F(DhcpNatTest, StaticMappingsStandardizeTheMacAndEnumerate) {
  Load(Vnet1Records());
  ASSERT_TRUE(PLR_SetDHCPIPToMAC("kavix1", "192.168.1.10", "0:50:56:AA:bb:1"));
  ASSERT_TRUE(PLR_SetDHCPIPToMAC("kavix1", "192.168.1.11", "00:50:56:aa:bb:02"));
  char ip[16];
  uint32_t ipLen = 16;
  ASSERT_TRUE(PLR_GetDHCPIPToMAC("kavix1", ip, &ipLen, "00:50:56:aa:BB:01"));
  EXPECT_STREQ(ip, "192.168.1.10");
  EXPECT_EQ(ipLen, 13u);

  std::set<std::string> seen;
  uint32_t offset = 0;
  char mac[18];
  for (;;) {
    ipLen = 16;
    uint32_t macLen = 18;
    if (!PLR_EnumDHCPIPToMAC("kavix1", &offset, ip, &ipLen, mac, &macLen)) break;
    EXPECT_EQ(ipLen, strlen(ip) + 1);
    EXPECT_EQ(macLen, 18u);
    seen.insert(std::string(ip) + "=" + mac);
  }
  EXPECT_EQ(offset, 2u);
  EXPECT_EQ(seen.size(), 2u);
  EXPECT_TRUE(LogCount("No DHCP IP to MAC mappings to enumerate"));

  Mark();
  ASSERT_TRUE(PLR_SetDHCPIPToMAC("kavix1", nullptr, "00:50:56:aa:bb:02"));
  EXPECT_TRUE(LogHas("PLR_SetDHCPIPToMAC - IP address is NULL"));
  EXPECT_TRUE(LogHas(
      "PLR_SetDHCPIPToMAC - Creating/Removing DHCP static mapping succeeded for vnet: kavix1, ip: "
      "null, mac: 00:50:56:aa:bb:02"));
  ipLen = 16;
  EXPECT_FALSE(PLR_GetDHCPIPToMAC("kavix1", ip, &ipLen, "00:50:56:aa:bb:02"));
  EXPECT_EQ(ipLen, 16u);
}

TEST_F(DhcpNatTest, PortForwardsWithUnterminatedDescriptions) {
  Load(Vnet1Records());
  auto web = Unterminated("web server!");
  ASSERT_TRUE(PLR_SetNATPortForward("kavix1", true, 8080, "192.168.1.128", 80, web.get(), 10));
  std::unique_ptr<char[]> longest(new char[127]);
  memset(longest.get(), 'x', 127);
  ASSERT_TRUE(
      PLR_SetNATPortForward("kavix1", false, 5353, "192.168.1.129", 53, longest.get(), 127));
  Mark();
  ASSERT_TRUE(PLR_SetNATPortForward("kavix1", true, 2222, "192.168.1.130", 22, web.get(), 0));
  EXPECT_TRUE(
      LogHas("PLR_SetNATPortForward - Using a NULL description since, length is 0"));
  EXPECT_TRUE(LogHas(
      "PLR_SetNATPortForward - Setting NAT Port Forward succeeded for vnet: kavix1, tcp: 1, "
      "hostPort: 2222, vm IP: 192.168.1.130, vm port: 22, description: null"));

  char vmIP[16];
  uint32_t vmIPLen = 16;
  uint16_t vmPort = 0;
  char desc[128];
  uint32_t descLen = sizeof desc;
  ASSERT_TRUE(PLR_GetNATPortForward("kavix1", true, 8080, vmIP, &vmIPLen, &vmPort, desc, &descLen));
  EXPECT_STREQ(vmIP, "192.168.1.128");
  EXPECT_EQ(vmIPLen, 14u);
  EXPECT_EQ(vmPort, 80);
  EXPECT_STREQ(desc, "web server");
  vmIPLen = 16;
  Mark();
  ASSERT_TRUE(
      PLR_GetNATPortForward("kavix1", false, 5353, vmIP, &vmIPLen, &vmPort, nullptr, nullptr))
      << ::testing::PrintToString(LogText());
  EXPECT_EQ(vmPort, 53);

  Mark();
  ASSERT_TRUE(PLR_SetNATPortForward("kavix1", true, 8080, nullptr, 0, nullptr, 0));
  EXPECT_TRUE(LogHas(
      "PLR_SetNATPortForward - Removing NAT Port Forward succeeded for vnet: kavix1, tcp: 1, "
      "hostPort: 8080"));
  vmIPLen = 16;
  EXPECT_FALSE(
      PLR_GetNATPortForward("kavix1", true, 8080, vmIP, &vmIPLen, &vmPort, nullptr, nullptr));
  EXPECT_TRUE(LogCount("Getting NAT Port Forward failed on vnet: kavix1"));
}

TEST_F(DhcpNatTest, EnumeratingForwardsVisitsEachOnceThenFails) {
  Load(Vnet1Records());
  for (uint16_t port = 1000; port < 1010; ++port)
    ASSERT_TRUE(PLR_SetNATPortForward("kavix1", true, port, "192.168.1.50", port, "d", 1));
  std::set<uint16_t> ports;
  uint32_t offset = 0;
  for (;;) {
    uint16_t hostPort = 0, vmPort = 0;
    char vmIP[16];
    uint32_t vmIPLen = 16;
    if (!PLR_EnumNATPortForward("kavix1", true, &offset, &hostPort, vmIP, &vmIPLen, &vmPort,
                                nullptr, nullptr))
      break;
    EXPECT_EQ(hostPort, vmPort);
    ports.insert(hostPort);
  }
  EXPECT_EQ(ports.size(), 10u);
  EXPECT_EQ(offset, 10u);
  EXPECT_TRUE(LogCount("PLR_EnumNATPortForward - No ports to enumerate for vnet: kavix1"));
  uint16_t hostPort, vmPort;
  char vmIP[16];
  uint32_t vmIPLen = 16;
  offset = 0;
  EXPECT_FALSE(PLR_EnumNATPortForward("kavix1", false, &offset, &hostPort, vmIP, &vmIPLen, &vmPort,
                                      nullptr, nullptr));
}

// Updating refuses while the service runs and writes nothing.
TEST_F(DhcpNatTest, UpdateFromConfigRefusesWhileServiceRuns) {
  Load(Vnet1Records() + "answer VNET_1_NAT yes\n");
  WriteFile("/var/run/kavix-natd-1.pid", std::to_string(getpid()) + "\n");
  Mark();
  EXPECT_FALSE(PLR_UpdateNATFromConfig("kavix1"));
  EXPECT_TRUE(LogHas(
      "PLR_UpdateNATFromConfig - NAT service is not in stopped state on this vnet,Cannot update "
      "config information"));
  EXPECT_FALSE(TookLockSinceMark());
  EXPECT_FALSE(FileExists("/etc/tarsis/kavix1/nat/nat.conf"));

  WriteFile("/var/run/kavix-dhcpd-kavix1.pid", "abc\n");  // status unknown
  Mark();
  EXPECT_FALSE(PLR_UpdateDHCPFromConfig("kavix1"));
  EXPECT_TRUE(LogHas(
      "PLR_UpdateDHCPFromConfig - DHCP service is not in stopped state on this vnet, Cannot "
      "update config files"));
}

TEST_F(DhcpNatTest, UpdateFromConfigWritesAndRemovesFiles) {
  Load(Vnet1Records() + "answer VNET_1_DHCP yes\n");
  Mark();
  ASSERT_TRUE(PLR_UpdateDHCPFromConfig("kavix1")) << ::testing::PrintToString(LogText());
  EXPECT_TRUE(LogHas(
      "PLR_UpdateDHCPFromConfig - Writing DHCP configuration file succeeded for vnet: kavix1"));
  EXPECT_TRUE(TookLockSinceMark());
  EXPECT_NE(ReadFile("/etc/tarsis/kavix1/dhcpd/dhcpd.conf").find("subnet 192.168.1.0 netmask"),
            std::string::npos);
  ASSERT_TRUE(PLR_SetVnetUseDHCP("kavix1", false, false));
  Mark();
  ASSERT_TRUE(PLR_UpdateDHCPFromConfig("kavix1"));
  EXPECT_TRUE(LogHas(
      "PLR_UpdateDHCPFromConfig - Removing DHCP configuration file succeeded for vnet: kavix1"));
  EXPECT_FALSE(FileExists("/etc/tarsis/kavix1/dhcpd/dhcpd.conf"));
}

}  // namespace
}  // namespace plr::test
