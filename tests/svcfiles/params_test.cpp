// DHCP and NAT parameters: defaults, refused values, storage, fallback and removal.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "pelorus.h"
#include "tests/support/sandbox.h"
#include "tests/support/services_util.h"
#include "tests/support/svcfiles_util.h"

namespace plr::test {
namespace {

enum How { kStored, kOrDefault, kDefault };

// A parameter of vnet 8 read into a buffer of `size`: "FAILED" when the getter fails,
// "unchanged" when it succeeds without writing.
std::string Get(uint32_t id, How how = kStored, size_t size = 64) {
  char buf[64] = "unchanged";
  bool ok = how == kDefault
                ? (id < PLR_NAT_PARAM_BASE ? PLRDHCPGetParameterDefault(8, id, buf, size)
                                           : PLRNATGetParamDefault(8, id, buf, size))
            : id < PLR_NAT_PARAM_BASE ? PLRDHCPGetParameter(8, id, how == kOrDefault, buf, size)
                                      : PLRNATGetParameter(8, id, how == kOrDefault, buf, size);
  return ok ? buf : "FAILED";
}

class Params : public svc::ServiceTest {
 protected:
  void LoadVnet(const std::string& mask, bool nat, const std::string& extra = "") {
    Load(VnetRecords(8, "192.168.8.0", mask, nat) + extra);
  }
};

// Hand-computed: leases are the upper half of the subnet up to the address before the
// broadcast; the first two addresses serve DNS and the gateway (with NAT, the gateway answers
// DNS too); host bits in the subnet answer do not count, except in the NAT gateway default.
TEST_F(Params, AddressDefaultsFollowTheSubnet) {
  Load("");
  const struct {
    const char *subnet, *mask, *values;  // begin end broadcast dns routers netbios gw; NAT dns
  } kSubnets[] = {
      {"10.1.2.8", "255.255.255.248",
       "10.1.2.12 10.1.2.14 10.1.2.15 10.1.2.9 10.1.2.10 10.1.2.10 10.1.2.10 10.1.2.10"},
      {"10.0.0.0", "255.0.0.0",
       "10.128.0.0 10.255.255.254 10.255.255.255 10.0.0.1 10.0.0.2 10.0.0.2 10.0.0.2 10.0.0.2"},
      {"192.168.8.77", "255.255.255.0",
       "192.168.8.128 192.168.8.254 192.168.8.255 192.168.8.1 192.168.8.2 192.168.8.2 "
       "192.168.8.79 192.168.8.2"}};
  for (const auto& c : kSubnets) {
    ASSERT_TRUE(PLRSetVnetSubnetAddr(8, c.subnet) && PLRSetVnetSubnetMask(8, c.mask) &&
                PLRSetVnetUseNAT(8, false, false));
    std::string got;
    for (uint32_t id : {PLR_DHCP_PARAM_LEASE_BEGIN_IP, PLR_DHCP_PARAM_LEASE_END_IP,
                        PLR_DHCP_PARAM_BROADCAST_ADDR, PLR_DHCP_PARAM_DNS_ADDR,
                        PLR_DHCP_PARAM_ROUTERS, PLR_DHCP_PARAM_NETBIOS, PLR_NAT_PARAM_GATEWAY_IP})
      got += Get(id, kDefault) + " ";
    EXPECT_EQ(Get(PLR_NAT_PARAM_GATEWAY_NETMASK, kOrDefault), c.mask);
    ASSERT_TRUE(PLRSetVnetUseNAT(8, true, false));
    EXPECT_EQ(got + Get(PLR_DHCP_PARAM_DNS_ADDR, kDefault), c.values);
  }
  ASSERT_TRUE(PLRSetVnetSubnetMask(8, "255.255.255.252"));  // no range below eight addresses
  EXPECT_EQ(Get(PLR_DHCP_PARAM_LEASE_BEGIN_IP, kDefault) + Get(PLR_DHCP_PARAM_DNS_ADDR, kDefault),
            "FAILEDFAILED");
  ASSERT_TRUE(PLRRemoveVnetSubnetMask(8));
  EXPECT_EQ(Get(PLR_DHCP_PARAM_LEASE_END_IP, kDefault), "FAILED");
  EXPECT_EQ(Get(PLR_NAT_PARAM_GATEWAY_NETMASK, kOrDefault), "FAILED");
  ASSERT_TRUE(PLRSetVnetSubnetMask(8, "255.255.255.0") && PLRRemoveVnetSubnetAddr(8));
  EXPECT_EQ(Get(PLR_DHCP_PARAM_BROADCAST_ADDR, kDefault), "FAILED") << "no subnet address";
  EXPECT_EQ(Get(PLR_DHCP_PARAM_DOMAIN_NAME, kDefault), "localdomain");  // needs no subnet
}

bool Set(uint32_t id, const char* value) {
  return id < PLR_NAT_PARAM_BASE ? PLRDHCPSetParameter(8, id, value)
                                 : PLRNATSetParameter(8, id, value);
}

// The fixed defaults are proven by the generated files; here the per-vnet prefix, buffer sizes,
// the values each setter refuses and the good ones stored unchanged.
TEST_F(Params, Nat6PrefixBufferSizesAndSetters) {
  LoadVnet("255.255.255.0", true);
  char prefix[46];
  ASSERT_TRUE(PLRNATGetParamDefault(255, PLR_NAT_PARAM_NAT6_PREFIX, prefix, sizeof prefix));
  EXPECT_STREQ(prefix, "fd15:4ba5:5a2b:10ff::/64");
  ASSERT_TRUE(PLRDHCPSetParameter(8, PLR_DHCP_PARAM_DNS_ADDR, "192.168.8.53"));
  // fits: the smallest buffer that holds the value (the port always needs six)
  for (auto [id, how, fits, value] :
       {std::tuple{PLR_DHCP_PARAM_DOMAIN_NAME, kDefault, 12, "localdomain"},
        {PLR_NAT_PARAM_CONFIG_PORT, kOrDefault, 6, "33445"},
        {PLR_DHCP_PARAM_DNS_ADDR, kStored, 13, "192.168.8.53"}}) {
    EXPECT_EQ(Get(id, how, fits - 1), "FAILED") << value;
    EXPECT_EQ(Get(id, how, fits), value);
  }

  const std::string d63(63, 'd'), d64(64, 'd');
  const struct {
    uint32_t id;
    std::vector<std::string> refused, accepted;
  } kValues[] = {{PLR_DHCP_PARAM_LEASE_BEGIN_IP, {"192.168.8.300"}, {"192.168.8.200"}},
                 {PLR_DHCP_PARAM_ROUTERS, {""}, {}},
                 {PLR_DHCP_PARAM_NETBIOS, {"192.168.008.0001"}, {}},
                 {PLR_DHCP_PARAM_DNS_ADDR, {"1.2.3.4 garbage!"}, {}},
                 {PLR_DHCP_PARAM_DEFAULT_LEASE_DURATION_SEC, {"-1"}, {"0"}},
                 {PLR_DHCP_PARAM_MAX_LEASE_DURATION_SEC, {"12x"}, {"007200"}},
                 {PLR_DHCP_PARAM_SUB_MAX_LEASE_DURATION_SEC, {""}, {}},
                 {PLR_DHCP_PARAM_SUB_DEFAULT_LEASE_DURATION_SEC, {"99999999999"}, {}},
                 {PLR_DHCP_PARAM_DOMAIN_NAME,
                  {d64, "x; option routers 10.6.6.6", "a{b", "a}b", "a#b", "a b", "a\tb", "a..b",
                   ".a", "\"a", "a\"b\"", "\"\""},
                  {d63, "\"quoted.example\"", "my-net_1", "\"trailing.dot.\""}},
                 {PLR_NAT_PARAM_GATEWAY_IP, {"192.168.8"}, {"192.168.8.254"}},
                 {PLR_NAT_PARAM_CONFIG_PORT, {"0", "65536", "80a"}, {"65535", "1"}},
                 {PLR_NAT_PARAM_ACTIVE_FTP, {"2", "10"}, {"0"}},
                 {PLR_NAT_PARAM_ALLOW_ANY_OUI, {"yes"}, {"0"}},
                 {PLR_NAT_PARAM_NAT6, {"01"}, {"1"}},
                 {PLR_NAT_PARAM_UDP_TIMEOUT, {"-5"}, {"0"}},
                 {PLR_NAT_PARAM_NAT6_PREFIX,
                  {"anything at all", "fd00::/64;x", "fd00::/12", "fd00::x/64", "fd00::/64 "},
                  {"fd00:1::/64"}}};
  const std::string before = Database();
  for (const auto& r : kValues)
    for (const std::string& value : r.refused) EXPECT_FALSE(Set(r.id, value.c_str())) << value;
  for (uint32_t id :
       {PLR_DHCP_PARAM_BASE, 9541u, PLR_DHCP_PARAM_UNMAPPED, PLR_DHCP_PARAM_UNSUPPORTED,
        PLR_NAT_PARAM_GATEWAY_NETMASK, 13861u, PLR_NAT_PARAM_DEVICE, PLR_NAT_PARAM_NOT_SUPPORTED,
        PLR_NAT_PARAM_BASE, 13870u})
    EXPECT_FALSE(Set(id, "1")) << id;
  EXPECT_EQ(Database(), before);
  for (const auto& r : kValues) {
    for (const std::string& value : r.accepted) {
      EXPECT_TRUE(Set(r.id, value.c_str())) << value;
      EXPECT_EQ(Get(r.id), value);
    }
  }
  EXPECT_STREQ(PLRGetVnetCfg(8, "DHCP_PARAM_LEASE_START_IP"), "192.168.8.200");
  // A dotted domain name is stored in the quotes the DHCP server needs.
  EXPECT_TRUE(Set(PLR_DHCP_PARAM_DOMAIN_NAME, "example.com"));
  EXPECT_EQ(Get(PLR_DHCP_PARAM_DOMAIN_NAME), "\"example.com\"");
}

TEST_F(Params, UnsetValuesFallBackOnlyWhenAskedAndRemovalRestoresTheDefault) {
  LoadVnet("255.255.255.0", false);
  EXPECT_EQ(Get(PLR_DHCP_PARAM_LEASE_END_IP) + Get(PLR_NAT_PARAM_UDP_TIMEOUT), "FAILEDFAILED");
  ASSERT_TRUE(PLRDHCPSetParameter(8, PLR_DHCP_PARAM_LEASE_BEGIN_IP, "192.168.8.200"));
  EXPECT_TRUE(PLRDHCPRemoveParameter(8, PLR_DHCP_PARAM_LEASE_BEGIN_IP));
  EXPECT_EQ(Get(PLR_DHCP_PARAM_LEASE_BEGIN_IP), "FAILED");
  EXPECT_EQ(Get(PLR_DHCP_PARAM_LEASE_BEGIN_IP, kOrDefault), "192.168.8.128");
  EXPECT_FALSE(PLRDHCPRemoveParameter(8, PLR_DHCP_PARAM_UNSUPPORTED));
  EXPECT_FALSE(PLRDHCPRemoveParameter(8, PLR_DHCP_PARAM_BASE));  // the base names none
  ASSERT_TRUE(PLRDHCPSetParameter(8, PLR_DHCP_PARAM_ROUTERS, "192.168.8.3"));
  EXPECT_TRUE(PLRDHCPSetParameter(8, PLR_DHCP_PARAM_ROUTERS, nullptr));  // NULL removes
  EXPECT_EQ(PLRGetVnetCfg(8, "DHCP_PARAM_ROUTERS"), nullptr);
  EXPECT_TRUE(PLRNATRemoveParam(8, PLR_NAT_PARAM_ACTIVE_FTP));  // never set: done already
  EXPECT_FALSE(PLRNATRemoveParam(8, 13870));
  ASSERT_TRUE(PLRNATSetParameter(8, PLR_NAT_PARAM_UDP_TIMEOUT, "5"));
  EXPECT_TRUE(PLRNATRemoveParam(8, PLR_NAT_PARAM_UDP_TIMEOUT));
  EXPECT_EQ(Get(PLR_NAT_PARAM_UDP_TIMEOUT, kOrDefault), "60");
}

// Removing a whole configuration forgets parameters, hash and records; the gateway lines go
// only where NAT makes them the vnet's own.
// Static mappings set directly: an address that is not one is refused with its line and
// leaves the mapping as it was; a NULL address removes the mapping.
TEST_F(Params, StaticMappingSetterChecksTheAddressAndRemovesByNull) {
  LoadVnet("255.255.255.0", false, "add_dhcp_mac_to_ip 8 00:50:56:3F:00:10 192.168.8.10\n");
  auto mapped = [] {
    char ip[16];
    return PLRDHCPGetIPToMAC(8, ip, sizeof ip, "00:50:56:3f:00:10") ? std::string(ip) : "none";
  };
  EXPECT_FALSE(PLRDHCPSetIPToMAC(8, "192.168.8.999", "00:50:56:3F:00:10"));
  EXPECT_TRUE(LogHas("IP address: 192.168.8.999 is not valid"));
  EXPECT_EQ(mapped(), "192.168.8.10");
  EXPECT_TRUE(PLRDHCPSetIPToMAC(8, "192.168.8.20", "00:50:56:3F:00:10"));
  EXPECT_EQ(mapped(), "192.168.8.20");
  EXPECT_TRUE(PLRDHCPSetIPToMAC(8, nullptr, "00:50:56:3F:00:10"));
  EXPECT_EQ(mapped(), "none");
}

TEST_F(Params, RemoveConfigForgetsEverything) {
  LoadVnet(
      "255.255.255.0", false,
      "answer VNET_8_DHCP_PARAM_NETBIOS 192.168.8.2\nanswer VNET_8_DHCP_PARAM_ROUTERS 192.168.8.2\n"
      "answer VNET_8_DHCP_PARAM_DOMAIN_NAME lab\nanswer VNET_8_DHCP_CFG_HASH 0123\n"
      "answer VNET_8_NAT_PARAM_GATEWAY_IP 192.168.8.254\nanswer VNET_8_NAT_PARAM_NAT6 1\n"
      "add_dhcp_mac_to_ip 8 00:50:56:3F:00:10 192.168.8.10\n"
      "add_nat_portfwd 8 tcp 80 192.168.8.128 80 web\nadd_nat_portfwd 8 udp 53 192.168.8.128 53\n");
  // The keys of vnet 8 still set, and whether its records are.
  auto left = [] {
    std::string out;
    for (const char* key : {"DHCP_PARAM_NETBIOS", "DHCP_PARAM_ROUTERS", "DHCP_PARAM_DOMAIN_NAME",
                            "DHCP_CFG_HASH", "NAT_PARAM_GATEWAY_IP", "NAT_PARAM_NAT6"})
      if (PLRGetVnetCfg(8, key) != nullptr) out += std::string(key) + " ";
    char ip[16];
    uint16_t guest = 0;
    if (PLRDHCPGetIPToMAC(8, ip, sizeof ip, "00:50:56:3F:00:10")) out += "mac ";
    for (uint16_t port : {80, 53})
      if (PLRNATGetPortForward(8, port == 80, port, ip, sizeof ip, &guest, nullptr, nullptr))
        out += port == 80 ? "tcp " : "udp";
    return out;
  };
  EXPECT_TRUE(PLRDHCPRemoveDHCPConfig(8));
  EXPECT_EQ(left(),
            "DHCP_PARAM_NETBIOS DHCP_PARAM_ROUTERS NAT_PARAM_GATEWAY_IP NAT_PARAM_NAT6 tcp udp");
  ASSERT_TRUE(PLRSetVnetUseNAT(8, true, false));
  EXPECT_TRUE(PLRDHCPRemoveDHCPConfig(8));
  EXPECT_EQ(left(), "NAT_PARAM_GATEWAY_IP NAT_PARAM_NAT6 tcp udp");
  EXPECT_TRUE(PLRNATRemoveConfig(8));
  EXPECT_EQ(left(), "");
  EXPECT_STREQ(PLRGetVnetCfg(8, "NAT"), "yes");  // the switch is no parameter
}

}  // namespace
}  // namespace plr::test
