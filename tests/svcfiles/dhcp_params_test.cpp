// DHCP parameters: identifier mapping, validation with its messages,
// computed defaults for every subnet size, storage, removal, static mappings.
#include <gtest/gtest.h>
#include <string.h>

#include <string>

#include "pelorus.h"
#include "tests/support/sandbox.h"
#include "tests/support/svcfiles_util.h"

namespace plr {
namespace {

using test::CountOf;

class DhcpParams : public test::LoadedLibraryTest {
 protected:
  // Loads a database holding vnet 8 with `subnet`/`mask` and NAT as given.
  void LoadVnet(const std::string& subnet, const std::string& mask, bool nat,
                const std::string& extra = "") {
    Load(test::VnetRecords(8, subnet, mask, nat) + extra);
  }
  std::string Default(uint32_t id, size_t size = 64) {
    char buf[64] = "unchanged";
    if (!PLRDHCPGetParameterDefault(8, id, buf, size)) return "FAILED";
    return buf;
  }
  std::string Get(uint32_t id, bool useDefault = false) {
    char buf[64] = "";
    if (!PLRDHCPGetParameter(8, id, useDefault, buf, sizeof buf)) return "FAILED";
    return buf;
  }
};

// --- Identifier mapping -------------------------------------------------------

TEST_F(DhcpParams, ExternalIdentifiersMapToInternalOnes) {
  Load();
  const std::pair<uint32_t, uint32_t> mapped[] = {
      {13350, PLR_DHCP_PARAM_LEASE_BEGIN_IP}, {13351, PLR_DHCP_PARAM_LEASE_END_IP},
      {13354, PLR_DHCP_PARAM_SUB_DEFAULT_LEASE_DURATION_SEC},
      {13355, PLR_DHCP_PARAM_SUB_MAX_LEASE_DURATION_SEC}, {13356, 9556u},
      {13357, PLR_DHCP_PARAM_DNS_ADDR}, {13358, PLR_DHCP_PARAM_ROUTERS},
      {13362, PLR_DHCP_PARAM_NETBIOS}};
  for (auto [external, internal] : mapped) EXPECT_EQ(PLRDHCPMapIntParamID(external), internal);
  EXPECT_EQ(test::LogCount("Could not map external paramID"), 0);
  // Neighbours of mapped identifiers are not mapped.
  EXPECT_EQ(PLRDHCPMapIntParamID(13352), 9555u);
  EXPECT_EQ(PLRDHCPMapIntParamID(13363), 9555u);
  EXPECT_EQ(test::LogCount("Could not map external paramID: 13352\n"), 1);
  EXPECT_EQ(test::LogCount("Mapped external ParamID: 13363 to internal ParamID: 9555\n"), 1);
}

TEST_F(DhcpParams, TablesHoldKeysAndQuotedDisplayNames) {
  EXPECT_STREQ(PLRDHCPParamIDToConfigOption[PLR_DHCP_PARAM_LEASE_BEGIN_IP - 9538],
               "DHCP_PARAM_LEASE_START_IP");
  EXPECT_STREQ(PLRDHCPParamIDToConfigOption[PLR_DHCP_PARAM_NETBIOS - 9538], "DHCP_PARAM_NETBIOS");
  EXPECT_STREQ(PLRDHCPParamIDToName[0], "\"DHCP Param Base\"");
  EXPECT_STREQ(PLRDHCPParamIDToName[PLR_DHCP_PARAM_SUB_MAX_LEASE_DURATION_SEC - 9538],
               "\"Subnet Max Lease Duration\"");
  for (uint32_t unused : {9539u, 9540u, 9541u, 9544u, 9545u, 9555u}) {
    EXPECT_STREQ(PLRDHCPParamIDToConfigOption[unused - 9538], "") << unused;
    EXPECT_STREQ(PLRDHCPParamIDToName[unused - 9538], "") << unused;
  }
}

// --- Computed defaults --------------------------------------------------------

struct SubnetCase {
  const char* subnet;
  const char* mask;
  const char* begin;
  const char* end;
  const char* broadcast;
  const char* netOne;
  const char* netTwo;
};

// Hand-computed: the lease range is the upper half of the subnet (its first
// address plus one) up to the address before the broadcast.
constexpr SubnetCase kSubnets[] = {
    {"192.168.8.0", "255.255.255.0", "192.168.8.128", "192.168.8.254", "192.168.8.255",
     "192.168.8.1", "192.168.8.2"},
    {"10.0.0.0", "255.255.255.248", "10.0.0.4", "10.0.0.6", "10.0.0.7", "10.0.0.1", "10.0.0.2"},
    {"10.1.2.8", "255.255.255.248", "10.1.2.12", "10.1.2.14", "10.1.2.15", "10.1.2.9", "10.1.2.10"},
    {"192.168.9.16", "255.255.255.240", "192.168.9.24", "192.168.9.30", "192.168.9.31",
     "192.168.9.17", "192.168.9.18"},
    {"172.16.4.0", "255.255.254.0", "172.16.5.0", "172.16.5.254", "172.16.5.255", "172.16.4.1",
     "172.16.4.2"},
    {"172.16.0.0", "255.255.0.0", "172.16.128.0", "172.16.255.254", "172.16.255.255", "172.16.0.1",
     "172.16.0.2"},
    {"10.0.0.0", "255.0.0.0", "10.128.0.0", "10.255.255.254", "10.255.255.255", "10.0.0.1",
     "10.0.0.2"},
    // Host bits in the subnet answer: the network part decides the start,
    // the stored address the end.
    {"192.168.8.77", "255.255.255.0", "192.168.8.128", "192.168.8.254", "192.168.8.255",
     "192.168.8.1", "192.168.8.2"},
};

TEST_F(DhcpParams, AddressDefaultsFollowTheSubnetOfEverySize) {
  Load();
  for (const SubnetCase& c : kSubnets) {
    SCOPED_TRACE(std::string(c.subnet) + "/" + c.mask);
    ASSERT_TRUE(PLRSetVnetSubnetAddr(8, c.subnet));
    ASSERT_TRUE(PLRSetVnetSubnetMask(8, c.mask));
    ASSERT_TRUE(PLRSetVnetUseNAT(8, false, false));
    EXPECT_EQ(Default(PLR_DHCP_PARAM_LEASE_BEGIN_IP), c.begin);
    EXPECT_EQ(Default(PLR_DHCP_PARAM_LEASE_END_IP), c.end);
    EXPECT_EQ(Default(PLR_DHCP_PARAM_BROADCAST_ADDR), c.broadcast);
    EXPECT_EQ(Default(PLR_DHCP_PARAM_DNS_ADDR), c.netOne);
    EXPECT_EQ(Default(PLR_DHCP_PARAM_ROUTERS), c.netTwo);
    EXPECT_EQ(Default(PLR_DHCP_PARAM_NETBIOS), c.netTwo);
    ASSERT_TRUE(PLRSetVnetUseNAT(8, true, false));
    EXPECT_EQ(Default(PLR_DHCP_PARAM_DNS_ADDR), c.netTwo);  // the NAT gateway answers DNS
  }
}

TEST_F(DhcpParams, EveryPrefixUpToSlash29GivesARangeInsideTheUpperHalf) {
  Load();
  for (int prefix = 1; prefix <= 29; ++prefix) {
    SCOPED_TRACE(prefix);
    uint32_t mask = 0xFFFFFFFFu << (32 - prefix);
    char maskText[16];
    ASSERT_TRUE(PLRIPInt2Str(mask, maskText));
    ASSERT_TRUE(PLRSetVnetSubnetAddr(8, "10.0.0.0"));
    ASSERT_TRUE(PLRSetVnetSubnetMask(8, maskText));
    uint32_t begin = 0, end = 0, broadcast = 0;
    ASSERT_TRUE(PLRIPStr2Int(Default(PLR_DHCP_PARAM_LEASE_BEGIN_IP).c_str(), &begin));
    ASSERT_TRUE(PLRIPStr2Int(Default(PLR_DHCP_PARAM_LEASE_END_IP).c_str(), &end));
    ASSERT_TRUE(PLRIPStr2Int(Default(PLR_DHCP_PARAM_BROADCAST_ADDR).c_str(), &broadcast));
    uint32_t size = ~mask + 1;  // 2^(32-prefix), computed independently of the code
    uint32_t net = 0x0A000000u & mask;
    EXPECT_EQ(begin, net + size / 2);
    EXPECT_EQ(broadcast, net + size - 1);
    EXPECT_EQ(end, broadcast - 1);
    EXPECT_LT(begin, end);
  }
}

TEST_F(DhcpParams, SubnetsBelowEightAddressesAreRefused) {
  LoadVnet("192.168.8.0", "255.255.255.252", false);
  for (uint32_t id :
       {PLR_DHCP_PARAM_LEASE_BEGIN_IP, PLR_DHCP_PARAM_LEASE_END_IP, PLR_DHCP_PARAM_BROADCAST_ADDR,
        PLR_DHCP_PARAM_DNS_ADDR, PLR_DHCP_PARAM_ROUTERS, PLR_DHCP_PARAM_NETBIOS}) {
    EXPECT_EQ(Default(id), "FAILED") << id;
  }
  EXPECT_EQ(test::LogCount("The subnet: 192.168.8.0, mask: 255.255.255.252 is too small, we "
                    "need atleast 8 hosts\n"),
            6);
  for (const char* mask : {"255.255.255.254", "255.255.255.255"}) {
    ASSERT_TRUE(PLRSetVnetSubnetMask(8, mask));
    EXPECT_EQ(Default(PLR_DHCP_PARAM_LEASE_BEGIN_IP), "FAILED") << mask;
  }
  // Non-address defaults do not need a subnet at all.
  EXPECT_EQ(Default(PLR_DHCP_PARAM_DOMAIN_NAME), "localdomain");
}

TEST_F(DhcpParams, AddressDefaultsNeedSubnetAndMask) {
  Load("answer VNET_8_HOSTONLY_NETMASK 255.255.255.0\n");
  EXPECT_EQ(Default(PLR_DHCP_PARAM_LEASE_BEGIN_IP), "FAILED");
  EXPECT_EQ(test::LogCount("Cannot obtain subnet address\n"), 1);
  ASSERT_TRUE(PLRSetVnetSubnetAddr(8, "192.168.8.0"));
  ASSERT_TRUE(PLRRemoveVnetSubnetMask(8));
  EXPECT_EQ(Default(PLR_DHCP_PARAM_LEASE_BEGIN_IP), "FAILED");
  EXPECT_EQ(test::LogCount("Cannot obtain subnet netmask\n"), 1);
}

TEST_F(DhcpParams, FixedDefaultsAndTheirBufferRules) {
  LoadVnet("192.168.100.0", "255.255.255.0", false);
  EXPECT_EQ(Default(PLR_DHCP_PARAM_DEFAULT_LEASE_DURATION_SEC), "1800");
  EXPECT_EQ(Default(PLR_DHCP_PARAM_SUB_DEFAULT_LEASE_DURATION_SEC), "1800");
  EXPECT_EQ(Default(PLR_DHCP_PARAM_MAX_LEASE_DURATION_SEC), "7200");
  EXPECT_EQ(Default(PLR_DHCP_PARAM_SUB_MAX_LEASE_DURATION_SEC), "7200");
  EXPECT_EQ(Default(PLR_DHCP_PARAM_DOMAIN_NAME), "localdomain");
  // A time into 4 bytes: reported, yet TRUE with the buffer as it was.
  EXPECT_EQ(Default(PLR_DHCP_PARAM_MAX_LEASE_DURATION_SEC, 4), "unchanged");
  EXPECT_EQ(test::LogCount("Insufficient buffer size: 4 for DHCP parameter: \"Max Lease "
                    "Duration\" required: 5\n"),
            1);
  EXPECT_EQ(Default(PLR_DHCP_PARAM_MAX_LEASE_DURATION_SEC, 5), "7200");
  // The domain name and addresses fail on a short buffer.
  EXPECT_EQ(Default(PLR_DHCP_PARAM_DOMAIN_NAME, 11), "FAILED");
  EXPECT_EQ(Default(PLR_DHCP_PARAM_DOMAIN_NAME, 12), "localdomain");
  EXPECT_EQ(Default(PLR_DHCP_PARAM_LEASE_END_IP, 15), "FAILED");  // "192.168.100.254"
  EXPECT_EQ(test::LogCount("Insufficient buffer size: 15 for DHCP parameter: \"Lease End IP\" "
                    "required: 16\n"),
            1);
  EXPECT_EQ(Default(PLR_DHCP_PARAM_LEASE_END_IP, 16), "192.168.100.254");
}

TEST_F(DhcpParams, IdentifiersWithoutARowAreRejected) {
  LoadVnet("192.168.8.0", "255.255.255.0", false);
  for (uint32_t id : {9538u, 9539u, 9541u, 9544u, 9545u, 9555u, 9556u, 13350u}) {
    SCOPED_TRACE(id);
    EXPECT_EQ(Default(id), "FAILED");
    EXPECT_FALSE(PLRDHCPSetParameter(8, id, "192.168.8.5"));
    EXPECT_EQ(test::LogCount("Invalid DHCP Param Name " + std::to_string(id) + "\n"), 2);
  }
  EXPECT_FALSE(PLRDHCPRemoveParameter(8, 9538));
  EXPECT_FALSE(PLRDHCPRemoveParameter(8, 9556));
  EXPECT_EQ(test::LogCount("Invalid DHCP parameter: 9556\n"), 1);
  // The getter with defaults reports the missing value and the failed default.
  EXPECT_EQ(Get(9556, true), "FAILED");
  EXPECT_EQ(test::LogCount("Value for DHCP parameter: Invalid DHCP Parameter not found in "
                    "configuration for vnet: 8\n"),
            1);
  EXPECT_EQ(test::LogCount("Failure in getting default value of parameter\n"), 1);
}

// --- Validation -------------------------------------------------------------

TEST_F(DhcpParams, RejectedValuesLogTheirReasonAndChangeNothing) {
  LoadVnet("192.168.8.0", "255.255.255.0", false);
  std::string before = Database();
  struct Bad {
    uint32_t id;
    const char* value;
    const char* message;
  } const bad[] = {
      {PLR_DHCP_PARAM_LEASE_BEGIN_IP, "192.168.8.300",
       "Invalid IP address: 192.168.8.300 for parameter: \"Lease Begin IP\"\n"},
      {PLR_DHCP_PARAM_ROUTERS, "", "Invalid IP address:  for parameter: \"Routers\"\n"},
      {PLR_DHCP_PARAM_NETBIOS, "192.168.008.0001",
       "Invalid value length: 16, value: 192.168.008.0001 for parameter: \"Netbios\"\n"},
      {PLR_DHCP_PARAM_DNS_ADDR, "1.2.3.4 garbage!",
       "Invalid value length: 16, value: 1.2.3.4 garbage! for parameter: \"DNS Address\"\n"},
      {PLR_DHCP_PARAM_DEFAULT_LEASE_DURATION_SEC, "-1", "Invalid argument for time\n"},
      {PLR_DHCP_PARAM_MAX_LEASE_DURATION_SEC, "12x", "Invalid argument for time\n"},
      {PLR_DHCP_PARAM_SUB_MAX_LEASE_DURATION_SEC, "", "Invalid argument for time\n"},
      {PLR_DHCP_PARAM_SUB_DEFAULT_LEASE_DURATION_SEC, "99999999999", "Invalid argument for time\n"},
  };
  for (const Bad& b : bad) {
    SCOPED_TRACE(b.value);
    int seen = test::LogCount(b.message);
    EXPECT_FALSE(PLRDHCPSetParameter(8, b.id, b.value));
    EXPECT_EQ(test::LogCount(b.message), seen + 1);
  }
  std::string longName(64, 'd');
  EXPECT_FALSE(PLRDHCPSetParameter(8, PLR_DHCP_PARAM_DOMAIN_NAME, longName.c_str()));
  EXPECT_EQ(test::LogCount("Invalid value length: 64, value: " + longName +
                               " for parameter: \"Domain Name\"\n"),
            1);
  EXPECT_EQ(Database(), before);
}

TEST_F(DhcpParams, AcceptedValuesAreStoredUnchanged) {
  LoadVnet("192.168.8.0", "255.255.255.0", false);
  std::string domain(63, 'd');
  EXPECT_TRUE(PLRDHCPSetParameter(8, PLR_DHCP_PARAM_DOMAIN_NAME, domain.c_str()));
  EXPECT_TRUE(PLRDHCPSetParameter(8, PLR_DHCP_PARAM_DEFAULT_LEASE_DURATION_SEC, "0"));
  EXPECT_TRUE(PLRDHCPSetParameter(8, PLR_DHCP_PARAM_MAX_LEASE_DURATION_SEC, "007200"));
  EXPECT_TRUE(PLRDHCPSetParameter(8, PLR_DHCP_PARAM_LEASE_BEGIN_IP, "192.168.8.200"));
  EXPECT_EQ(Get(PLR_DHCP_PARAM_DOMAIN_NAME), domain);
  EXPECT_EQ(Get(PLR_DHCP_PARAM_MAX_LEASE_DURATION_SEC), "007200");
  std::string db = Database();
  EXPECT_NE(db.find("answer VNET_8_DHCP_PARAM_MAX_LEASE_TIME 007200\n"), std::string::npos);
  EXPECT_NE(db.find("answer VNET_8_DHCP_PARAM_LEASE_START_IP 192.168.8.200\n"), std::string::npos);
  EXPECT_EQ(test::LogCount("Successfully set value of DHCP parameter: \"Lease Begin IP\" to "
                    "value: 192.168.8.200 for vnet: 8\n"),
            1);
  // A stored value wins over the default.
  EXPECT_EQ(Get(PLR_DHCP_PARAM_LEASE_BEGIN_IP, true), "192.168.8.200");
}

// --- Get and remove ---------------------------------------------------------

TEST_F(DhcpParams, GetReportsAbsenceAndFallsBackOnlyWhenAsked) {
  LoadVnet("192.168.8.0", "255.255.255.0", false);
  EXPECT_EQ(Get(PLR_DHCP_PARAM_LEASE_END_IP), "FAILED");
  EXPECT_EQ(test::LogCount("Value for DHCP parameter: \"Lease End IP\" not found in "
                    "configuration for vnet: 8\n"),
            1);
  EXPECT_EQ(Get(PLR_DHCP_PARAM_LEASE_END_IP, true), "192.168.8.254");
  EXPECT_EQ(test::LogCount("Reverting to getting default value\n"), 1);

  ASSERT_TRUE(PLRDHCPSetParameter(8, PLR_DHCP_PARAM_DNS_ADDR, "192.168.8.53"));
  char small[12];
  EXPECT_FALSE(PLRDHCPGetParameter(8, PLR_DHCP_PARAM_DNS_ADDR, true, small, sizeof small));
  EXPECT_EQ(test::LogCount("Insufficient space 12 to store value of DHCP parameter: \"DNS "
                    "Address\", required: 13\n"),
            1);
  char exact[13];
  EXPECT_TRUE(PLRDHCPGetParameter(8, PLR_DHCP_PARAM_DNS_ADDR, false, exact, sizeof exact));
  EXPECT_STREQ(exact, "192.168.8.53");
}

TEST_F(DhcpParams, RemoveRestoresTheDefault) {
  LoadVnet("192.168.8.0", "255.255.255.0", false);
  ASSERT_TRUE(PLRDHCPSetParameter(8, PLR_DHCP_PARAM_LEASE_BEGIN_IP, "192.168.8.200"));
  EXPECT_TRUE(PLRDHCPRemoveParameter(8, PLR_DHCP_PARAM_LEASE_BEGIN_IP));
  EXPECT_EQ(Get(PLR_DHCP_PARAM_LEASE_BEGIN_IP), "FAILED");
  EXPECT_EQ(Get(PLR_DHCP_PARAM_LEASE_BEGIN_IP, true), "192.168.8.128");
  EXPECT_NE(Database().find("remove_answer VNET_8_DHCP_PARAM_LEASE_START_IP\n"), std::string::npos);
  // A NULL value in the setter removes as well.
  ASSERT_TRUE(PLRDHCPSetParameter(8, PLR_DHCP_PARAM_ROUTERS, "192.168.8.3"));
  EXPECT_TRUE(PLRDHCPSetParameter(8, PLR_DHCP_PARAM_ROUTERS, nullptr));
  EXPECT_EQ(PLRGetVnetCfg(8, "DHCP_PARAM_ROUTERS"), nullptr);
}

TEST_F(DhcpParams, RemoveConfigForgetsEverythingAndKeepsGatewayLinesWithoutNat) {
  std::string settings;
  for (const char* key :
       {"LEASE_START_IP 192.168.8.130", "LEASE_END_IP 192.168.8.140",
        "BROADCAST_ADDR 192.168.8.255", "DNS_ADDR 192.168.8.1", "NETBIOS 192.168.8.2",
        "ROUTERS 192.168.8.2", "DOMAIN_NAME lab", "DEFAULT_LEASE_TIME 60", "MAX_LEASE_TIME 120",
        "SUB_DEFAULT_LEASE_TIME 60", "SUB_MAX_LEASE_TIME 120"}) {
    settings += std::string("answer VNET_8_DHCP_PARAM_") + key + "\n";
  }
  settings +=
      "answer VNET_8_DHCP_CFG_HASH 0123456789ABCDEF0123456789ABCDEF01234567\n"
      "add_dhcp_mac_to_ip 8 00:50:56:3F:00:10 192.168.8.10\n";
  LoadVnet("192.168.8.0", "255.255.255.0", false, settings);
  EXPECT_TRUE(PLRDHCPRemoveDHCPConfig(8));
  // Without NAT the gateway lines are not the vnet's own and stay.
  EXPECT_STREQ(PLRGetVnetCfg(8, "DHCP_PARAM_NETBIOS"), "192.168.8.2");
  EXPECT_STREQ(PLRGetVnetCfg(8, "DHCP_PARAM_ROUTERS"), "192.168.8.2");
  for (const char* key : {"DHCP_PARAM_LEASE_START_IP", "DHCP_PARAM_DOMAIN_NAME",
                          "DHCP_PARAM_SUB_MAX_LEASE_TIME", "DHCP_CFG_HASH"}) {
    EXPECT_EQ(PLRGetVnetCfg(8, key), nullptr) << key;
  }
  char ip[16];
  EXPECT_FALSE(PLRDHCPGetIPToMAC(8, ip, sizeof ip, "00:50:56:3F:00:10"));
  EXPECT_NE(Database().find("remove_dhcp_mac_to_ip 8 00:50:56:3F:00:10\n"), std::string::npos);

  ASSERT_TRUE(PLRSetVnetUseNAT(8, true, false));
  EXPECT_TRUE(PLRDHCPRemoveDHCPConfig(8));
  EXPECT_EQ(PLRGetVnetCfg(8, "DHCP_PARAM_NETBIOS"), nullptr);
  EXPECT_EQ(PLRGetVnetCfg(8, "DHCP_PARAM_ROUTERS"), nullptr);
}

// --- Static mappings ----------------------------------------------------------

TEST_F(DhcpParams, StaticMappingsAddLookUpEnumerateAndRemove) {
  LoadVnet("192.168.8.0", "255.255.255.0", false);
  EXPECT_TRUE(PLRDHCPSetIPToMAC(8, "192.168.8.10", "00:50:56:3F:00:10"));
  EXPECT_TRUE(PLRDHCPSetIPToMAC(8, "192.168.8.11", "00:50:56:3F:00:11"));
  EXPECT_FALSE(PLRDHCPSetIPToMAC(8, "192.168.8.256", "00:50:56:3F:00:12"));
  EXPECT_EQ(test::LogCount("IP address: 192.168.8.256 is not valid\n"), 1);

  char ip[16];
  ASSERT_TRUE(PLRDHCPGetIPToMAC(8, ip, sizeof ip, "00:50:56:3F:00:11"));
  EXPECT_STREQ(ip, "192.168.8.11");
  EXPECT_FALSE(PLRDHCPGetIPToMAC(8, ip, sizeof ip, "00:50:56:3F:00:12"));
  EXPECT_EQ(test::LogCount("Failure while getting the value of DHCP IP to MAC in vnet config\n"),
            1);

  // Enumeration hands out the IP first although the database takes the MAC first.
  uint32_t offset = 0;
  char mac[18];
  std::string seen;
  while (PLRDHCPEnumIPToMAC(8, &offset, ip, sizeof ip, mac, sizeof mac)) {
    seen += std::string(ip) + "=" + mac + ";";
  }
  EXPECT_EQ(offset, 2u);
  EXPECT_NE(seen.find("192.168.8.10=00:50:56:3F:00:10;"), std::string::npos) << seen;
  EXPECT_NE(seen.find("192.168.8.11=00:50:56:3F:00:11;"), std::string::npos) << seen;

  EXPECT_TRUE(PLRDHCPSetIPToMAC(8, nullptr, "00:50:56:3F:00:10"));
  EXPECT_FALSE(PLRDHCPGetIPToMAC(8, ip, sizeof ip, "00:50:56:3F:00:10"));
}

}  // namespace
}  // namespace plr
