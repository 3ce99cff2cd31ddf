// A generated file holds only what was configured: values a hand-edited
// database smuggles past the setters are replaced by their defaults, and the
// longest descriptions stop no enumeration.
#include <gtest/gtest.h>

#include <string>

#include "pelorus.h"
#include "tests/support/sandbox.h"
#include "tests/support/services_util.h"
#include "tests/support/svcfiles_util.h"

namespace plr::test {
namespace {

class HostileValues : public svc::ServiceTest {
 protected:
  // Generates vnet 8's dhcpd.conf or nat.conf from a database holding the
  // vnet and `extra`; the text with its time masked.
  std::string Generated(bool dhcp, const std::string& extra) {
    Load(VnetRecords(8, "192.168.8.0", "255.255.255.0", true) + extra);
    EXPECT_TRUE(dhcp ? PLRDHCPWriteDHCPCfg(8) : PLRNATUpdateFromConfig(8));
    return MaskWrittenAt(ReadFile(dhcp ? DhcpConfPath(8) : NatConfPath(8)));
  }
};

// Each row: a value of vnet 8 that the setter refuses, put into the database
// by hand. The generated file is the one its default gives.
TEST_F(HostileValues, InvalidStoredValuesBecomeTheirDefaultsInTheGeneratedFiles) {
  const struct {
    const char* answer;
    bool dhcp;
  } kRows[] = {
      {"DHCP_PARAM_DOMAIN_NAME x; option routers 10.6.6.6", true},
      {"DHCP_PARAM_DOMAIN_NAME a; } host evil { hardware ethernet 00:11:22:33:44:55", true},
      {"DHCP_PARAM_ROUTERS 1.2.3.4 %n", true},
      {"DHCP_PARAM_DNS_ADDR 10.0.0.1;", true},
      {"DHCP_PARAM_DEFAULT_LEASE_TIME 60; deny booting", true},
      {"NAT_PARAM_UDP_TIMEOUT -5", false},
      {"NAT_PARAM_NAT6_PREFIX fd00::/64 x=1", false},
      {"NAT_PARAM_CONFIG_PORT 22 33", false},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.answer);
    const std::string expected = Generated(row.dhcp, "");
    PLR_Unload();
    EXPECT_EQ(Generated(row.dhcp, "answer VNET_8_" + std::string(row.answer) + "\n"), expected);
    EXPECT_TRUE(LogHas("using its default"));
    std::string output;
    if (row.dhcp) {
      EXPECT_TRUE(DhcpdAccepts(DhcpConfPath(8), &output)) << output;
    }
    PLR_Unload();
  }
}

// A dotted domain name given bare is stored quoted, so the DHCP server takes it.
TEST_F(HostileValues, DottedDomainNameReachesTheServerQuoted) {
  Load(VnetRecords(8, "192.168.8.0", "255.255.255.0", true));
  ASSERT_TRUE(PLRDHCPSetParameter(8, PLR_DHCP_PARAM_DOMAIN_NAME, "example.com"));
  ASSERT_FALSE(PLRDHCPSetParameter(8, PLR_DHCP_PARAM_DOMAIN_NAME, "x; option routers 10.6.6.6"));
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));
  EXPECT_NE(ReadFile(DhcpConfPath(8)).find("option domain-name \"example.com\";"),
            std::string::npos);
  std::string output;
  EXPECT_TRUE(DhcpdAccepts(DhcpConfPath(8), &output)) << output;
}

// Forwards whose descriptions have the longest length the setter allows are
// all listed in nat.conf.
TEST_F(HostileValues, LongestDescriptionsStopNoEnumeration) {
  std::string records = VnetRecords(8, "192.168.8.0", "255.255.255.0", true);
  for (int i = 0; i < 8; ++i)
    records += "add_nat_portfwd 8 tcp " + std::to_string(8000 + i) + " 192.168.8.9 " +
               std::to_string(80 + i) + (i % 3 == 0 ? "" : " " + std::string(127, 'a' + i)) + "\n";
  Load(records);
  ASSERT_TRUE(PLRNATUpdateFromConfig(8));
  const std::string conf = ReadFile(NatConfPath(8));
  for (int i = 0; i < 8; ++i)
    EXPECT_NE(conf.find(std::to_string(8000 + i) + " = 192.168.8.9:" + std::to_string(80 + i)),
              std::string::npos)
        << i;
}

}  // namespace
}  // namespace plr::test
