// DHCP and NAT parameters: computed defaults for every subnet size, the
// values each setter refuses, storage, fallback to defaults, removal, and the
// static mapping, port-forward and prefix records.
#include <gtest/gtest.h>

#include <string>

#include "pelorus.h"
#include "tests/support/sandbox.h"
#include "tests/support/services_util.h"
#include "tests/support/svcfiles_util.h"

namespace plr::test {
namespace {

using namespace svc;  // NOLINT: the services test vocabulary

class Params : public ServiceTest {
 protected:
  void LoadVnet(const std::string& mask, bool nat, const std::string& extra = "") {
    Load(VnetRecords(8, "192.168.8.0", mask, nat) + extra);
  }
  // A getter's result on vnet 8, "FAILED" when it returns false.
  template <class Getter>
  static std::string Value(Getter get, size_t size = 64) {
    char buf[64] = "unchanged";
    return get(buf, size) ? buf : "FAILED";
  }
  static std::string Dhcp(uint32_t id, bool useDefault = false, size_t size = 64) {
    return Value([&](char* b, size_t n) { return PLRDHCPGetParameter(8, id, useDefault, b, n); },
                 size);
  }
  static std::string DhcpDefault(uint32_t id, size_t size = 64) {
    return Value([&](char* b, size_t n) { return PLRDHCPGetParameterDefault(8, id, b, n); }, size);
  }
  static std::string Nat(uint32_t id, bool useDefault = true, size_t size = 64) {
    return Value([&](char* b, size_t n) { return PLRNATGetParameter(8, id, useDefault, b, n); },
                 size);
  }
};

// Hand-computed: the lease range is the upper half of the subnet up to the
// address before the broadcast; the first two addresses serve DNS and the
// gateway (with NAT, the gateway answers DNS too).
struct SubnetCase {
  const char *subnet, *mask, *begin, *end, *broadcast, *netOne, *netTwo;
  const char* natGateway = netTwo;  // the NAT default keeps the host bits
};
constexpr SubnetCase kSubnets[] = {
    {"192.168.8.0", "255.255.255.0", "192.168.8.128", "192.168.8.254", "192.168.8.255",
     "192.168.8.1", "192.168.8.2"},
    {"10.1.2.8", "255.255.255.248", "10.1.2.12", "10.1.2.14", "10.1.2.15", "10.1.2.9", "10.1.2.10"},
    {"172.16.4.0", "255.255.254.0", "172.16.5.0", "172.16.5.254", "172.16.5.255", "172.16.4.1",
     "172.16.4.2"},
    {"10.0.0.0", "255.0.0.0", "10.128.0.0", "10.255.255.254", "10.255.255.255", "10.0.0.1",
     "10.0.0.2"},
    // Host bits in the subnet answer: the network part decides.
    {"192.168.8.77", "255.255.255.0", "192.168.8.128", "192.168.8.254", "192.168.8.255",
     "192.168.8.1", "192.168.8.2", "192.168.8.79"}};

TEST_F(Params, AddressDefaultsFollowTheSubnet) {
  Load("");
  for (const SubnetCase& c : kSubnets) {
    SCOPED_TRACE(std::string(c.subnet) + "/" + c.mask);
    ASSERT_TRUE(PLRSetVnetSubnetAddr(8, c.subnet));
    ASSERT_TRUE(PLRSetVnetSubnetMask(8, c.mask));
    ASSERT_TRUE(PLRSetVnetUseNAT(8, false, false));
    EXPECT_EQ(DhcpDefault(PLR_DHCP_PARAM_LEASE_BEGIN_IP), c.begin);
    EXPECT_EQ(DhcpDefault(PLR_DHCP_PARAM_LEASE_END_IP), c.end);
    EXPECT_EQ(DhcpDefault(PLR_DHCP_PARAM_BROADCAST_ADDR), c.broadcast);
    EXPECT_EQ(DhcpDefault(PLR_DHCP_PARAM_DNS_ADDR), c.netOne);
    EXPECT_EQ(DhcpDefault(PLR_DHCP_PARAM_ROUTERS), c.netTwo);
    EXPECT_EQ(DhcpDefault(PLR_DHCP_PARAM_NETBIOS), c.netTwo);
    EXPECT_EQ(Nat(PLR_NAT_PARAM_GATEWAY_IP), c.natGateway);
    EXPECT_EQ(Nat(PLR_NAT_PARAM_GATEWAY_NETMASK), c.mask);
    ASSERT_TRUE(PLRSetVnetUseNAT(8, true, false));
    EXPECT_EQ(DhcpDefault(PLR_DHCP_PARAM_DNS_ADDR), c.netTwo);
  }
  // Below eight addresses there is no range.
  for (const char* mask : {"255.255.255.252", "255.255.255.255"}) {
    ASSERT_TRUE(PLRSetVnetSubnetMask(8, mask));
    EXPECT_EQ(DhcpDefault(PLR_DHCP_PARAM_LEASE_BEGIN_IP), "FAILED") << mask;
    EXPECT_EQ(DhcpDefault(PLR_DHCP_PARAM_DNS_ADDR), "FAILED") << mask;
  }
  ASSERT_TRUE(PLRRemoveVnetSubnetMask(8));
  EXPECT_EQ(DhcpDefault(PLR_DHCP_PARAM_LEASE_END_IP), "FAILED");
  EXPECT_EQ(Nat(PLR_NAT_PARAM_GATEWAY_NETMASK), "FAILED");
  EXPECT_EQ(DhcpDefault(PLR_DHCP_PARAM_DOMAIN_NAME), "localdomain");  // needs no subnet
}

TEST_F(Params, EveryPrefixUpToSlash29GivesTheUpperHalf) {
  Load("");
  ASSERT_TRUE(PLRSetVnetSubnetAddr(8, "10.0.0.0"));
  for (int prefix = 1; prefix <= 29; ++prefix) {
    SCOPED_TRACE(prefix);
    uint32_t mask = 0xFFFFFFFFu << (32 - prefix), begin = 0, end = 0, size = ~mask + 1;
    char text[16];
    ASSERT_TRUE(PLRIPInt2Str(mask, text));
    ASSERT_TRUE(PLRSetVnetSubnetMask(8, text));
    ASSERT_TRUE(PLRIPStr2Int(DhcpDefault(PLR_DHCP_PARAM_LEASE_BEGIN_IP).c_str(), &begin));
    ASSERT_TRUE(PLRIPStr2Int(DhcpDefault(PLR_DHCP_PARAM_LEASE_END_IP).c_str(), &end));
    EXPECT_EQ(begin, (0x0A000000u & mask) + size / 2);
    EXPECT_EQ(end, (0x0A000000u & mask) + size - 2);
  }
}

TEST_F(Params, FixedDefaultsAndBufferSizes) {
  LoadVnet("255.255.255.0", true);
  const struct {
    uint32_t id;
    const char* value;
  } kFixed[] = {{PLR_DHCP_PARAM_DEFAULT_LEASE_DURATION_SEC, "1800"},
                {PLR_DHCP_PARAM_SUB_DEFAULT_LEASE_DURATION_SEC, "1800"},
                {PLR_DHCP_PARAM_MAX_LEASE_DURATION_SEC, "7200"},
                {PLR_DHCP_PARAM_SUB_MAX_LEASE_DURATION_SEC, "7200"},
                {PLR_DHCP_PARAM_DOMAIN_NAME, "localdomain"},
                {PLR_NAT_PARAM_CONFIG_PORT, "33445"},
                {PLR_NAT_PARAM_ACTIVE_FTP, "1"},
                {PLR_NAT_PARAM_ALLOW_ANY_OUI, "1"},
                {PLR_NAT_PARAM_DEVICE, "/dev/kavix8"},
                {PLR_NAT_PARAM_UDP_TIMEOUT, "60"},
                {PLR_NAT_PARAM_NAT6, "0"},
                {PLR_NAT_PARAM_NAT6_PREFIX, "fd15:4ba5:5a2b:1008::/64"}};
  for (const auto& f : kFixed) {
    EXPECT_EQ(f.id < PLR_NAT_PARAM_BASE ? DhcpDefault(f.id) : Nat(f.id), f.value) << f.id;
  }
  char prefix[46];
  ASSERT_TRUE(PLRNATGetParamDefault(255, PLR_NAT_PARAM_NAT6_PREFIX, prefix, sizeof prefix));
  EXPECT_STREQ(prefix, "fd15:4ba5:5a2b:10ff::/64");
  // A lease time into a short buffer is reported, yet succeeds untouched.
  EXPECT_EQ(DhcpDefault(PLR_DHCP_PARAM_MAX_LEASE_DURATION_SEC, 4), "unchanged");
  EXPECT_EQ(DhcpDefault(PLR_DHCP_PARAM_DOMAIN_NAME, 11), "FAILED");
  EXPECT_EQ(DhcpDefault(PLR_DHCP_PARAM_DOMAIN_NAME, 12), "localdomain");
  EXPECT_EQ(DhcpDefault(PLR_DHCP_PARAM_LEASE_END_IP, 13), "FAILED");
  EXPECT_EQ(DhcpDefault(PLR_DHCP_PARAM_LEASE_END_IP, 14), "192.168.8.254");
  EXPECT_EQ(Nat(PLR_NAT_PARAM_GATEWAY_IP, true, 11), "FAILED");
  EXPECT_EQ(Nat(PLR_NAT_PARAM_GATEWAY_IP, true, 12), "192.168.8.2");
  EXPECT_EQ(Nat(PLR_NAT_PARAM_CONFIG_PORT, true, 5), "FAILED");  // always needs six
  EXPECT_EQ(Nat(PLR_NAT_PARAM_CONFIG_PORT, true, 6), "33445");
  ASSERT_TRUE(PLRDHCPSetParameter(8, PLR_DHCP_PARAM_DNS_ADDR, "192.168.8.53"));
  EXPECT_EQ(Dhcp(PLR_DHCP_PARAM_DNS_ADDR, false, 12), "FAILED");
  EXPECT_EQ(Dhcp(PLR_DHCP_PARAM_DNS_ADDR, false, 13), "192.168.8.53");
}

struct Refused {
  uint32_t id;
  const char* value;
};
const Refused kRefused[] = {{PLR_DHCP_PARAM_LEASE_BEGIN_IP, "192.168.8.300"},
                            {PLR_DHCP_PARAM_ROUTERS, ""},
                            {PLR_DHCP_PARAM_NETBIOS, "192.168.008.0001"},
                            {PLR_DHCP_PARAM_DNS_ADDR, "1.2.3.4 garbage!"},
                            {PLR_DHCP_PARAM_DEFAULT_LEASE_DURATION_SEC, "-1"},
                            {PLR_DHCP_PARAM_MAX_LEASE_DURATION_SEC, "12x"},
                            {PLR_DHCP_PARAM_SUB_MAX_LEASE_DURATION_SEC, ""},
                            {PLR_DHCP_PARAM_SUB_DEFAULT_LEASE_DURATION_SEC, "99999999999"},
                            {PLR_DHCP_PARAM_DOMAIN_NAME,
                             "dddddddddddddddddddddddddddddddddddddddddddddddddddddddddddddddd"},
                            {PLR_DHCP_PARAM_BASE, "1"},
                            {9541, "1"},
                            {PLR_DHCP_PARAM_UNMAPPED, "1"},
                            {PLR_DHCP_PARAM_UNSUPPORTED, "1"},
                            {PLR_NAT_PARAM_GATEWAY_IP, "192.168.8"},
                            {PLR_NAT_PARAM_CONFIG_PORT, "0"},
                            {PLR_NAT_PARAM_CONFIG_PORT, "65536"},
                            {PLR_NAT_PARAM_CONFIG_PORT, "80a"},
                            {PLR_NAT_PARAM_ACTIVE_FTP, "2"},
                            {PLR_NAT_PARAM_ACTIVE_FTP, "10"},
                            {PLR_NAT_PARAM_ALLOW_ANY_OUI, "yes"},
                            {PLR_NAT_PARAM_NAT6, "01"},
                            {PLR_NAT_PARAM_UDP_TIMEOUT, "-5"},
                            {PLR_NAT_PARAM_GATEWAY_NETMASK, "1"},
                            {13861, "1"},
                            {PLR_NAT_PARAM_DEVICE, "1"},
                            {PLR_NAT_PARAM_NOT_SUPPORTED, "1"},
                            {PLR_NAT_PARAM_BASE, "1"},
                            {13870, "1"}};
const Refused kAccepted[] = {
    {PLR_DHCP_PARAM_DOMAIN_NAME, "ddddddddddddddddddddddddddddddddddddddddddddddddddddddddddddddd"},
    {PLR_DHCP_PARAM_DEFAULT_LEASE_DURATION_SEC, "0"},
    {PLR_DHCP_PARAM_MAX_LEASE_DURATION_SEC, "007200"},
    {PLR_DHCP_PARAM_LEASE_BEGIN_IP, "192.168.8.200"},
    {PLR_NAT_PARAM_CONFIG_PORT, "65535"},
    {PLR_NAT_PARAM_CONFIG_PORT, "1"},
    {PLR_NAT_PARAM_UDP_TIMEOUT, "0"},
    {PLR_NAT_PARAM_ACTIVE_FTP, "0"},
    {PLR_NAT_PARAM_ALLOW_ANY_OUI, "0"},
    {PLR_NAT_PARAM_NAT6, "1"},
    {PLR_NAT_PARAM_GATEWAY_IP, "192.168.8.254"},
    {PLR_NAT_PARAM_NAT6_PREFIX, "anything at all"}};

bool Set(const Refused& r) {
  return r.id < PLR_NAT_PARAM_BASE ? PLRDHCPSetParameter(8, r.id, r.value)
                                   : PLRNATSetParameter(8, r.id, r.value);
}

TEST_F(Params, SettersRefuseBadValuesAndStoreGoodOnesUnchanged) {
  LoadVnet("255.255.255.0", true);
  const std::string before = ReadFile(kDatabasePath);
  for (const Refused& r : kRefused) EXPECT_FALSE(Set(r)) << r.id << " " << r.value;
  EXPECT_EQ(ReadFile(kDatabasePath), before);
  for (const Refused& r : kAccepted) {
    SCOPED_TRACE(std::to_string(r.id) + " " + r.value);
    EXPECT_TRUE(Set(r));
    EXPECT_EQ(r.id < PLR_NAT_PARAM_BASE ? Dhcp(r.id, true) : Nat(r.id, false), r.value);
  }
  EXPECT_NE(ReadFile(kDatabasePath).find("answer VNET_8_DHCP_PARAM_LEASE_START_IP 192.168.8.200\n"),
            std::string::npos);
  EXPECT_NE(ReadFile(kDatabasePath).find("answer VNET_8_NAT_PARAM_CONFIG_PORT 1\n"),
            std::string::npos);
}

TEST_F(Params, UnsetValuesFallBackOnlyWhenAskedAndRemovalRestoresTheDefault) {
  LoadVnet("255.255.255.0", false);
  EXPECT_EQ(Dhcp(PLR_DHCP_PARAM_LEASE_END_IP), "FAILED");
  EXPECT_EQ(Dhcp(PLR_DHCP_PARAM_LEASE_END_IP, true), "192.168.8.254");
  EXPECT_EQ(Nat(PLR_NAT_PARAM_UDP_TIMEOUT, false), "FAILED");
  ASSERT_TRUE(PLRDHCPSetParameter(8, PLR_DHCP_PARAM_LEASE_BEGIN_IP, "192.168.8.200"));
  EXPECT_TRUE(PLRDHCPRemoveParameter(8, PLR_DHCP_PARAM_LEASE_BEGIN_IP));
  EXPECT_EQ(Dhcp(PLR_DHCP_PARAM_LEASE_BEGIN_IP), "FAILED");
  EXPECT_EQ(Dhcp(PLR_DHCP_PARAM_LEASE_BEGIN_IP, true), "192.168.8.128");
  EXPECT_FALSE(PLRDHCPRemoveParameter(8, PLR_DHCP_PARAM_UNSUPPORTED));
  ASSERT_TRUE(PLRDHCPSetParameter(8, PLR_DHCP_PARAM_ROUTERS, "192.168.8.3"));
  EXPECT_TRUE(PLRDHCPSetParameter(8, PLR_DHCP_PARAM_ROUTERS, nullptr));  // NULL removes
  EXPECT_EQ(PLRGetVnetCfg(8, "DHCP_PARAM_ROUTERS"), nullptr);
  EXPECT_TRUE(PLRNATRemoveParam(8, PLR_NAT_PARAM_ACTIVE_FTP));  // never set: done already
  EXPECT_FALSE(PLRNATRemoveParam(8, 13870));
  ASSERT_TRUE(PLRNATSetParameter(8, PLR_NAT_PARAM_UDP_TIMEOUT, "5"));
  EXPECT_TRUE(PLRNATRemoveParam(8, PLR_NAT_PARAM_UDP_TIMEOUT));
  EXPECT_EQ(Nat(PLR_NAT_PARAM_UDP_TIMEOUT), "60");
  // External identifiers map to internal ones; others to the "unmapped" one.
  EXPECT_EQ(PLRDHCPMapIntParamID(13350), PLR_DHCP_PARAM_LEASE_BEGIN_IP);
  EXPECT_EQ(PLRDHCPMapIntParamID(13362), PLR_DHCP_PARAM_NETBIOS);
  EXPECT_EQ(PLRDHCPMapIntParamID(13352), PLR_DHCP_PARAM_UNMAPPED);
  EXPECT_EQ(PLRNATMapIntParamID(9027), PLR_NAT_PARAM_GATEWAY_IP);
  EXPECT_EQ(PLRNATMapIntParamID(9051), PLR_NAT_PARAM_NAT6_PREFIX);
  EXPECT_EQ(PLRNATMapIntParamID(9028), PLR_NAT_PARAM_NOT_SUPPORTED);
}

// Removing a whole configuration forgets parameters, hash and records; the
// gateway lines go only where NAT makes them the vnet's own.
TEST_F(Params, RemoveConfigForgetsEverything) {
  std::string records =
      "answer VNET_8_DHCP_PARAM_NETBIOS 192.168.8.2\nanswer VNET_8_DHCP_PARAM_ROUTERS 192.168.8.2\n"
      "answer VNET_8_DHCP_PARAM_DOMAIN_NAME lab\nanswer VNET_8_DHCP_PARAM_SUB_MAX_LEASE_TIME 1\n"
      "answer VNET_8_DHCP_CFG_HASH 0123\nadd_dhcp_mac_to_ip 8 00:50:56:3F:00:10 192.168.8.10\n"
      "answer VNET_8_NAT_PARAM_GATEWAY_IP 192.168.8.254\nanswer VNET_8_NAT_PARAM_NAT6 1\n"
      "add_nat_portfwd 8 tcp 8080 192.168.8.128 80 web\n"
      "add_nat_portfwd 8 udp 53 192.168.8.128 53\n";
  LoadVnet("255.255.255.0", false, records);
  EXPECT_TRUE(PLRDHCPRemoveDHCPConfig(8));
  EXPECT_STREQ(PLRGetVnetCfg(8, "DHCP_PARAM_NETBIOS"), "192.168.8.2");
  EXPECT_STREQ(PLRGetVnetCfg(8, "DHCP_PARAM_ROUTERS"), "192.168.8.2");
  for (const char* key :
       {"DHCP_PARAM_DOMAIN_NAME", "DHCP_PARAM_SUB_MAX_LEASE_TIME", "DHCP_CFG_HASH"})
    EXPECT_EQ(PLRGetVnetCfg(8, key), nullptr) << key;
  char ip[16];
  uint16_t port = 0;
  EXPECT_FALSE(PLRDHCPGetIPToMAC(8, ip, sizeof ip, "00:50:56:3F:00:10"));
  ASSERT_TRUE(PLRSetVnetUseNAT(8, true, false));
  EXPECT_TRUE(PLRDHCPRemoveDHCPConfig(8));
  EXPECT_EQ(PLRGetVnetCfg(8, "DHCP_PARAM_NETBIOS"), nullptr);
  EXPECT_EQ(PLRGetVnetCfg(8, "DHCP_PARAM_ROUTERS"), nullptr);

  EXPECT_TRUE(PLRNATRemoveConfig(8));
  EXPECT_EQ(PLRGetVnetCfg(8, "NAT_PARAM_GATEWAY_IP"), nullptr);
  EXPECT_EQ(PLRGetVnetCfg(8, "NAT_PARAM_NAT6"), nullptr);
  EXPECT_FALSE(PLRNATGetPortForward(8, true, 8080, ip, sizeof ip, &port, nullptr, nullptr));
  EXPECT_FALSE(PLRNATGetPortForward(8, false, 53, ip, sizeof ip, &port, nullptr, nullptr));
  EXPECT_STREQ(PLRGetVnetCfg(8, "NAT"), "yes");  // the switch is no parameter
}

TEST_F(Params, StaticMappingsForwardsAndPrefixesReachTheDatabase) {
  LoadVnet("255.255.255.0", true);
  EXPECT_TRUE(PLRDHCPSetIPToMAC(8, "192.168.8.10", "00:50:56:3F:00:10"));
  EXPECT_TRUE(PLRDHCPSetIPToMAC(8, "192.168.8.11", "00:50:56:3F:00:11"));
  EXPECT_FALSE(PLRDHCPSetIPToMAC(8, "192.168.8.256", "00:50:56:3F:00:12"));
  char ip[16], mac[18], desc[32];
  ASSERT_TRUE(PLRDHCPGetIPToMAC(8, ip, sizeof ip, "00:50:56:3F:00:11"));
  EXPECT_STREQ(ip, "192.168.8.11");
  uint32_t offset = 0;
  std::string seen;
  while (PLRDHCPEnumIPToMAC(8, &offset, ip, sizeof ip, mac, sizeof mac))
    seen += std::string(ip) + "=" + mac + ";";
  EXPECT_EQ(seen, "192.168.8.11=00:50:56:3F:00:11;192.168.8.10=00:50:56:3F:00:10;");
  EXPECT_TRUE(PLRDHCPSetIPToMAC(8, nullptr, "00:50:56:3F:00:10"));
  EXPECT_FALSE(PLRDHCPGetIPToMAC(8, ip, sizeof ip, "00:50:56:3F:00:10"));

  EXPECT_TRUE(PLRNATSetPortForward(8, 1, 8080, "192.168.8.128", 80, "web"));
  EXPECT_TRUE(PLRNATSetPortForward(8, 0, 8080, "192.168.8.129", 8081, nullptr));
  uint16_t vmPort = 0, hostPort = 0;
  uint32_t descLength = sizeof desc;
  ASSERT_TRUE(PLRNATGetPortForward(8, true, 8080, ip, sizeof ip, &vmPort, desc, &descLength));
  EXPECT_EQ(std::string(ip) + ":" + std::to_string(vmPort) + " " + desc, "192.168.8.128:80 web");
  offset = 0;
  ASSERT_TRUE(PLRNATEnumPortForward(8, false, &offset, &hostPort, ip, sizeof ip, &vmPort, nullptr,
                                    nullptr));
  EXPECT_EQ(std::to_string(hostPort) + ">" + ip + ":" + std::to_string(vmPort),
            "8080>192.168.8.129:8081");
  EXPECT_FALSE(PLRNATEnumPortForward(8, false, &offset, &hostPort, ip, sizeof ip, &vmPort, nullptr,
                                     nullptr));
  EXPECT_TRUE(PLRNATSetPortForward(8, 1, 8080, nullptr, 0, nullptr));  // that protocol only
  EXPECT_FALSE(PLRNATGetPortForward(8, true, 8080, ip, sizeof ip, &vmPort, nullptr, nullptr));
  EXPECT_TRUE(PLRNATGetPortForward(8, false, 8080, ip, sizeof ip, &vmPort, nullptr, nullptr));

  EXPECT_FALSE(PLRNATSetPrefix(8, nullptr, "d", 1));
  EXPECT_TRUE(PLRNATSetPrefix(8, "fd00:1:2:3::/64", "my prefix", 9));
  EXPECT_NE(ReadFile(kDatabasePath).find("add_nat_prefix 8 fd00:1:2:3::/64\n"), std::string::npos);
  descLength = sizeof desc;
  EXPECT_TRUE(PLRNATGetPrefix(8, "fd00:1:2:3::/64", desc, &descLength));
  EXPECT_FALSE(PLRNATGetPrefix(8, "fd00:9::/64", desc, &descLength));
}

}  // namespace
}  // namespace plr::test
