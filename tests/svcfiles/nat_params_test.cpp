// NAT parameters: identifier mapping, validation with its messages, computed
// defaults, removal, and the port-forward and prefix wrappers.
#include <gtest/gtest.h>

#include <string>

#include "pelorus.h"
#include "tests/support/sandbox.h"
#include "tests/support/svcfiles_util.h"

namespace plr {
namespace {

using test::CountOf;

class NatParams : public test::LoadedLibraryTest {
 protected:
  void LoadVnet(const std::string& extra = "") {
    Load(test::VnetRecords(8, "192.168.8.0", "255.255.255.0", true) + extra);
  }
  std::string Get(uint32_t id, bool useDefault, size_t size = 256) {
    char buf[256] = "unchanged";
    if (!PLRNATGetParameter(8, id, useDefault, buf, size)) return "FAILED";
    return buf;
  }
};

TEST_F(NatParams, ExternalIdentifiersMapAndNetmaskOrDeviceHaveNone) {
  Load();
  const std::pair<uint32_t, uint32_t> mapped[] = {
      {9027, PLR_NAT_PARAM_GATEWAY_IP},      {9030, PLR_NAT_PARAM_CONFIG_PORT},
      {9031, PLR_NAT_PARAM_ACTIVE_FTP},      {9032, PLR_NAT_PARAM_ALLOW_ANY_OUI},
      {9033, PLR_NAT_PARAM_UDP_TIMEOUT},     {9050, PLR_NAT_PARAM_NAT6},
      {9051, PLR_NAT_PARAM_NAT6_PREFIX}};
  for (auto [external, internal] : mapped) EXPECT_EQ(PLRNATMapIntParamID(external), internal);
  EXPECT_EQ(test::LogCount("Could not map external paramID"), 0);
  for (uint32_t unmapped : {9028u, 9029u, 9034u, 9049u, 9052u}) {
    EXPECT_EQ(PLRNATMapIntParamID(unmapped), PLR_NAT_PARAM_NOT_SUPPORTED) << unmapped;
  }
  EXPECT_EQ(test::LogCount("Could not map external paramID: 9028\n"), 1);
  EXPECT_STREQ(PLRNATParamIDToConfigOption[PLR_NAT_PARAM_GATEWAY_NETMASK - 13858],
               "NAT_PARAM_INT_GATEWAY_IPSUBNETMASK");
  EXPECT_STREQ(PLRNATParamIDToName[PLR_NAT_PARAM_NOT_SUPPORTED - 13858], "\"non support\"");
  EXPECT_STREQ(PLRNATParamIDToConfigOption[0], "");
  EXPECT_STREQ(PLRNATParamIDToConfigOption[3], "");
}

TEST_F(NatParams, SetterRejectsWhatTheRulesRejectAndChangesNothing) {
  LoadVnet();
  const std::string before = Database();
  struct Bad {
    uint32_t id;
    const char* value;
    const char* message;
  } const bad[] = {
      {PLR_NAT_PARAM_GATEWAY_IP, "192.168.8",
       "Invalid IP address value: 192.168.8 for NAT parameter: \"gateway ip\" on vnet: 13859\n"},
      {PLR_NAT_PARAM_CONFIG_PORT, "0",
       "Invalid config port value: 0 for NAT parameter: \"configport\" on vnet: 13862 \n"},
      {PLR_NAT_PARAM_CONFIG_PORT, "65536",
       "Invalid config port value: 65536 for NAT parameter: \"configport\" on vnet: 13862 \n"},
      {PLR_NAT_PARAM_CONFIG_PORT, "80a",
       "Invalid config port value: 80a for NAT parameter: \"configport\" on vnet: 13862 \n"},
      {PLR_NAT_PARAM_ACTIVE_FTP, "2",
       "Invalid value: 2 for NAT parameter: \"activeFTP\" on vnet: 13863\n"},
      {PLR_NAT_PARAM_ACTIVE_FTP, "10",
       "Invalid value: 10 for NAT parameter: \"activeFTP\" on vnet: 13863\n"},
      {PLR_NAT_PARAM_ALLOW_ANY_OUI, "yes",
       "Invalid value: yes for NAT parameter: \"allowAnyOUI\" on vnet: 13864\n"},
      {PLR_NAT_PARAM_NAT6, "01",
       "Invalid value: 01 for NAT parameter: \"natIp6Enable\" on vnet: 13868\n"},
      {PLR_NAT_PARAM_UDP_TIMEOUT, "-5",
       "Invalid value: -5 for NAT parameter: \"timeout\" on vnet: 13866\n"},
  };
  for (const Bad& b : bad) {
    SCOPED_TRACE(b.value);
    int seen = test::LogCount(b.message);
    EXPECT_FALSE(PLRNATSetParameter(8, b.id, b.value));
    EXPECT_EQ(test::LogCount(b.message), seen + 1);
  }
  for (uint32_t id : {PLR_NAT_PARAM_GATEWAY_NETMASK, 13861u, PLR_NAT_PARAM_DEVICE,
                      PLR_NAT_PARAM_NOT_SUPPORTED, 13858u, 13870u}) {
    EXPECT_FALSE(PLRNATSetParameter(8, id, "1")) << id;
    EXPECT_EQ(test::LogCount("Unrecognized NAT parameter ID: " + std::to_string(id) + "\n"), 1) << id;
  }
  EXPECT_EQ(Database(), before);
}

TEST_F(NatParams, AcceptedValuesAreStoredAsGiven) {
  LoadVnet();
  EXPECT_TRUE(PLRNATSetParameter(8, PLR_NAT_PARAM_CONFIG_PORT, "65535"));
  EXPECT_TRUE(PLRNATSetParameter(8, PLR_NAT_PARAM_CONFIG_PORT, "01"));
  EXPECT_TRUE(PLRNATSetParameter(8, PLR_NAT_PARAM_UDP_TIMEOUT, "0"));
  EXPECT_TRUE(PLRNATSetParameter(8, PLR_NAT_PARAM_ACTIVE_FTP, "0"));
  EXPECT_TRUE(PLRNATSetParameter(8, PLR_NAT_PARAM_GATEWAY_IP, "192.168.8.254"));
  EXPECT_TRUE(PLRNATSetParameter(8, PLR_NAT_PARAM_NAT6_PREFIX, "anything at all"));
  EXPECT_EQ(Get(PLR_NAT_PARAM_CONFIG_PORT, false), "01");
  EXPECT_EQ(Get(PLR_NAT_PARAM_NAT6_PREFIX, true), "anything at all");
  EXPECT_NE(Database().find("answer VNET_8_NAT_PARAM_CONFIG_PORT 01\n"), std::string::npos);
  EXPECT_EQ(test::LogCount("Successfully set value of NAT parameter: \"gateway ip\" to value: "
                     "192.168.8.254 for vnet: 8\n"),
            1);
}

TEST_F(NatParams, DefaultsFollowTheVnet) {
  LoadVnet();
  EXPECT_EQ(Get(PLR_NAT_PARAM_GATEWAY_IP, true), "192.168.8.2");
  EXPECT_EQ(Get(PLR_NAT_PARAM_GATEWAY_NETMASK, true), "255.255.255.0");
  EXPECT_EQ(Get(PLR_NAT_PARAM_CONFIG_PORT, true), "33445");
  EXPECT_EQ(Get(PLR_NAT_PARAM_ACTIVE_FTP, true), "1");
  EXPECT_EQ(Get(PLR_NAT_PARAM_ALLOW_ANY_OUI, true), "1");
  EXPECT_EQ(Get(PLR_NAT_PARAM_DEVICE, true), "/dev/kavix8");
  EXPECT_EQ(Get(PLR_NAT_PARAM_UDP_TIMEOUT, true), "60");
  EXPECT_EQ(Get(PLR_NAT_PARAM_NAT6, true), "0");
  EXPECT_EQ(Get(PLR_NAT_PARAM_NAT6_PREFIX, true), "fd15:4ba5:5a2b:1008::/64");
  char prefix[46];
  ASSERT_TRUE(PLRNATGetParamDefault(255, PLR_NAT_PARAM_NAT6_PREFIX, prefix, sizeof prefix));
  EXPECT_STREQ(prefix, "fd15:4ba5:5a2b:10ff::/64");
  ASSERT_TRUE(PLRNATGetParamDefault(0, PLR_NAT_PARAM_DEVICE, prefix, sizeof prefix));
  EXPECT_STREQ(prefix, "/dev/kavix0");
  for (uint32_t id : {13861u, PLR_NAT_PARAM_NOT_SUPPORTED, 13870u}) {
    EXPECT_FALSE(PLRNATGetParamDefault(8, id, prefix, sizeof prefix)) << id;
  }
}

TEST_F(NatParams, DefaultsReportWhatTheyLack) {
  Load("answer VNET_8_NAT yes\n");
  char buf[64];
  EXPECT_FALSE(PLRNATGetParamDefault(8, PLR_NAT_PARAM_GATEWAY_IP, buf, sizeof buf));
  EXPECT_EQ(test::LogCount("Could not get subnet address for vnet: 8\n"), 1);
  EXPECT_FALSE(PLRNATGetParamDefault(8, PLR_NAT_PARAM_GATEWAY_NETMASK, buf, sizeof buf));
  EXPECT_EQ(test::LogCount("Could not get subnet netmask for vnet: 8\n"), 1);
  EXPECT_FALSE(PLRNATGetParamDefault(256, PLR_NAT_PARAM_DEVICE, buf, sizeof buf));
  EXPECT_EQ(test::LogCount("Could not get kavix name for vnet: 256\n"), 1);
}

TEST_F(NatParams, BufferMustHoldTheValueAndTheConfigPortAlwaysNeedsSix) {
  LoadVnet();
  EXPECT_EQ(Get(PLR_NAT_PARAM_GATEWAY_IP, true, 11), "FAILED");  // "192.168.8.2" needs 12
  EXPECT_EQ(Get(PLR_NAT_PARAM_GATEWAY_IP, true, 12), "192.168.8.2");
  EXPECT_EQ(Get(PLR_NAT_PARAM_CONFIG_PORT, true, 5), "FAILED");
  EXPECT_EQ(Get(PLR_NAT_PARAM_CONFIG_PORT, true, 6), "33445");
  EXPECT_EQ(test::LogCount("Insufficient space to store NAT param 13862.\n"), 1);
  ASSERT_TRUE(PLRNATSetParameter(8, PLR_NAT_PARAM_UDP_TIMEOUT, "1200"));
  EXPECT_EQ(Get(PLR_NAT_PARAM_UDP_TIMEOUT, false, 4), "FAILED");
  EXPECT_EQ(Get(PLR_NAT_PARAM_UDP_TIMEOUT, false, 5), "1200");
}

TEST_F(NatParams, UnsetParameterWithoutDefaultsFailsWithoutAnError) {
  LoadVnet();
  ASSERT_TRUE(PLR_SetCurrentLogLevel(PLR_LOG_ERR));
  std::string before = test::LogText();
  EXPECT_EQ(Get(PLR_NAT_PARAM_UDP_TIMEOUT, false), "FAILED");
  EXPECT_EQ(test::LogText(), before);  // absence is not an error
  EXPECT_EQ(Get(13870, false), "FAILED");
  EXPECT_EQ(test::LogCount("Unrecognized NAT parameter ID: 13870\n"), 1);
}

TEST_F(NatParams, RemoveTreatsAbsenceAsDoneAndRemoveConfigClearsEverything) {
  LoadVnet(
      "answer VNET_8_NAT_PARAM_GATEWAY_IP 192.168.8.254\n"
      "answer VNET_8_NAT_PARAM_UDP_TIMEOUT 30\n"
      "answer VNET_8_NAT_PARAM_NAT6 1\n"
      "add_nat_portfwd 8 tcp 8080 192.168.8.128 80 web\n"
      "add_nat_portfwd 8 udp 53 192.168.8.128 53\n");
  EXPECT_TRUE(PLRNATRemoveParam(8, PLR_NAT_PARAM_ACTIVE_FTP));  // never set
  EXPECT_FALSE(PLRNATRemoveParam(8, 13870));
  EXPECT_TRUE(PLRNATRemoveParam(8, PLR_NAT_PARAM_UDP_TIMEOUT));
  EXPECT_EQ(PLRGetVnetCfg(8, "NAT_PARAM_UDP_TIMEOUT"), nullptr);

  EXPECT_TRUE(PLRNATRemoveConfig(8));
  EXPECT_EQ(PLRGetVnetCfg(8, "NAT_PARAM_GATEWAY_IP"), nullptr);
  EXPECT_EQ(PLRGetVnetCfg(8, "NAT_PARAM_NAT6"), nullptr);
  char ip[16];
  uint16_t vmPort = 0;
  EXPECT_FALSE(PLRNATGetPortForward(8, true, 8080, ip, sizeof ip, &vmPort, nullptr, nullptr));
  EXPECT_FALSE(PLRNATGetPortForward(8, false, 53, ip, sizeof ip, &vmPort, nullptr, nullptr));
  EXPECT_NE(Database().find("remove_nat_portfwd 8 tcp 8080\n"), std::string::npos);
  EXPECT_STREQ(PLRGetVnetCfg(8, "NAT"), "yes");  // the switch itself is not a parameter
}

TEST_F(NatParams, PortForwardWrappersReachTheDatabase) {
  LoadVnet();
  EXPECT_TRUE(PLRNATSetPortForward(8, 1, 8080, "192.168.8.128", 80, "web"));
  EXPECT_TRUE(PLRNATSetPortForward(8, 0, 8080, "192.168.8.129", 8081, nullptr));
  char ip[16];
  uint16_t vmPort = 0;
  char desc[128];
  uint32_t descLength = sizeof desc;
  ASSERT_TRUE(PLRNATGetPortForward(8, true, 8080, ip, sizeof ip, &vmPort, desc, &descLength));
  EXPECT_STREQ(ip, "192.168.8.128");
  EXPECT_EQ(vmPort, 80);
  EXPECT_STREQ(desc, "web");
  uint32_t offset = 0;
  uint16_t hostPort = 0;
  descLength = sizeof desc;
  ASSERT_TRUE(PLRNATEnumPortForward(8, false, &offset, &hostPort, ip, sizeof ip, &vmPort, desc,
                                    &descLength));
  EXPECT_EQ(hostPort, 8080);
  EXPECT_STREQ(ip, "192.168.8.129");
  EXPECT_EQ(offset, 1u);
  EXPECT_FALSE(PLRNATEnumPortForward(8, false, &offset, &hostPort, ip, sizeof ip, &vmPort, nullptr,
                                     nullptr));
  // A NULL target removes the forward of that protocol only.
  EXPECT_TRUE(PLRNATSetPortForward(8, 1, 8080, nullptr, 0, nullptr));
  EXPECT_FALSE(PLRNATGetPortForward(8, true, 8080, ip, sizeof ip, &vmPort, nullptr, nullptr));
  EXPECT_TRUE(PLRNATGetPortForward(8, false, 8080, ip, sizeof ip, &vmPort, nullptr, nullptr));
}

TEST_F(NatParams, PrefixesAreStoredWithoutDescriptions) {
  LoadVnet();
  EXPECT_FALSE(PLRNATSetPrefix(8, nullptr, "d", 1));
  EXPECT_EQ(test::LogCount("Invalid prefix\n"), 1);
  EXPECT_TRUE(PLRNATSetPrefix(8, "fd00:1:2:3::/64", "my prefix", 9));
  EXPECT_NE(Database().find("add_nat_prefix 8 fd00:1:2:3::/64\n"), std::string::npos);
  char desc[32] = "untouched";
  uint32_t length = sizeof desc;
  EXPECT_TRUE(PLRNATGetPrefix(8, "fd00:1:2:3::/64", desc, &length));
  EXPECT_STREQ(desc, "untouched");
  EXPECT_EQ(length, sizeof desc);
  EXPECT_FALSE(PLRNATGetPrefix(8, "fd00:9::/64", desc, &length));
}

}  // namespace
}  // namespace plr
