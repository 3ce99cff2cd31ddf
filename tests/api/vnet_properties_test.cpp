// The vnet property calls over a real database: length rules of the getters,
// set/remove of the setters, the write bracket, subnet assignment and
// availability, NAT prefixes with unterminated descriptions.
#include <gtest/gtest.h>
#include <string.h>

#include <memory>
#include <string>

#include "base/sys-util.h"
#include "pelorus.h"
#include "tests/support/api_util.h"
#include "tests/support/sandbox.h"

namespace plr::test {
namespace {

using VnetPropertiesTest = ApiTest;

// The display name reports its length without the NUL, the addresses with it,
// at exactly the minimum buffer sizes; lengths stay put on failure.
TEST_F(VnetPropertiesTest, GettersReportTheirLengthsAtTheMinimumSize) {
  Load(Vnet1Records());
  char name[128];
  uint32_t nameLen = sizeof name;
  ASSERT_TRUE(PLR_GetVnetDisplayName("kavix1", name, &nameLen));
  EXPECT_STREQ(name, "Lab network");
  EXPECT_EQ(nameLen, 11u);

  char addr[16];
  uint32_t addrLen = sizeof addr;
  ASSERT_TRUE(PLR_GetVnetSubnetAddr("kavix1", addr, &addrLen));
  EXPECT_STREQ(addr, "192.168.1.0");
  EXPECT_EQ(addrLen, 12u);

  uint32_t maskLen = 17;
  char mask[17];
  ASSERT_TRUE(PLR_GetVnetSubnetMask("KAVIX1", mask, &maskLen));
  EXPECT_STREQ(mask, "255.255.255.0");
  EXPECT_EQ(maskLen, 14u);

  addrLen = sizeof addr;
  ASSERT_TRUE(PLR_GetVnetAdapterAddr("kavix1", addr, &addrLen, true));
  EXPECT_STREQ(addr, "192.168.1.1");
  EXPECT_EQ(addrLen, 12u);
  EXPECT_TRUE(
      LogCount("PLR_GetVnetAdapterAddr - Retrieved adapter address: 192.168.1.1, len: 12"));

  // Without a stored address and without the computed default: failure, length kept.
  addrLen = sizeof addr;
  Mark();
  EXPECT_FALSE(PLR_GetVnetAdapterAddr("kavix1", addr, &addrLen, false));
  EXPECT_EQ(addrLen, 16u);
  EXPECT_TRUE(LogHas("PLR_GetVnetAdapterAddr - Failure in getting the adapter address"));

  nameLen = 200;
  Mark();
  EXPECT_FALSE(PLR_GetVnetDisplayName("kavix2", name, &nameLen));
  EXPECT_EQ(nameLen, 200u);
  EXPECT_TRUE(LogHas("PLR_GetVnetDisplayName - Failure in getting display name"));
}

TEST_F(VnetPropertiesTest, KavixTwoFiftyFiveIsAValidName) {
  Load("answer VNET_255_HOSTONLY_SUBNET 10.9.8.0\n");
  char addr[16];
  uint32_t addrLen = sizeof addr;
  ASSERT_TRUE(PLR_GetVnetSubnetAddr("kavix255", addr, &addrLen));
  EXPECT_STREQ(addr, "10.9.8.0");
}

// Each setter appends its record, the NULL value removes, and the outcome
// line names what was done.
TEST_F(VnetPropertiesTest, SettersWriteThroughAndNullRemoves) {
  Load(Vnet1Records());
  Mark();
  ASSERT_TRUE(PLR_SetVnetSubnetAddr("kavix1", "10.20.30.0"));
  EXPECT_TRUE(LogHas(
      "PLR_SetVnetSubnetAddr - Successfully set set the subnet address for vnet: kavix1"));
  EXPECT_EQ(Database(), MarkedDatabase() +
                            "remove_answer VNET_1_HOSTONLY_SUBNET\n"
                            "answer VNET_1_HOSTONLY_SUBNET 10.20.30.0\n");
  EXPECT_TRUE(TookLockSinceMark());
  EXPECT_TRUE(LogHas("PLRNetCfgUnlockConfig - Config file unlocking success"));

  Mark();
  ASSERT_TRUE(PLR_SetVnetSubnetAddr("kavix1", nullptr));
  EXPECT_EQ(Answer(1, "HOSTONLY_SUBNET"), "<absent>");
  EXPECT_TRUE(LogHas(
      "PLR_SetVnetSubnetAddr - Successfully removed set the subnet address for vnet: kavix1"));

  ASSERT_TRUE(PLR_SetVnetSubnetMask("kavix1", "255.255.0.0"));
  EXPECT_EQ(Answer(1, "HOSTONLY_NETMASK"), "255.255.0.0");
  Mark();
  ASSERT_TRUE(PLR_SetVnetSubnetMask("kavix1", nullptr));
  EXPECT_EQ(Answer(1, "HOSTONLY_NETMASK"), "<absent>");
  EXPECT_TRUE(
      LogHas("PLR_SetVnetSubnetMask - Successfully removed the mask for vnet: kavix1"));

  ASSERT_TRUE(PLR_SetVnetDisplayName("kavix3", "Third"));
  EXPECT_EQ(Answer(3, "DISPLAY_NAME"), "Third");

  ASSERT_TRUE(PLR_SetVnetAdapterAddr("kavix1", "192.168.1.200"));
  EXPECT_EQ(Answer(1, "VIRTUAL_ADAPTER_ADDR"), "192.168.1.200");
  Mark();
  ASSERT_TRUE(PLR_SetVnetAdapterAddr("kavix1", nullptr));
  EXPECT_EQ(Answer(1, "VIRTUAL_ADAPTER_ADDR"), "<absent>");
  EXPECT_TRUE(LogHas(
      "PLR_SetVnetAdapterAddr - Successfully removed adapter address for vnet: kavix1"));
}

TEST_F(VnetPropertiesTest, MtuRoundTripsAsDecimalTextAndReadsLeniently) {
  Load(Vnet1Records() + "answer VNET_2_MTU jumbo\n");
  ASSERT_TRUE(PLR_SetVnetMTU("kavix1", 0));
  EXPECT_EQ(Answer(1, "MTU"), "0");
  ASSERT_TRUE(PLR_SetVnetMTU("kavix1", 4294967295u));
  EXPECT_EQ(Answer(1, "MTU"), "4294967295");
  uint32_t mtu = 7;
  ASSERT_TRUE(PLR_GetVnetMTU("kavix2", &mtu));
  EXPECT_EQ(mtu, 0u);
  ASSERT_TRUE(PLR_SetVnetMTU("kavix1", 9000));
  ASSERT_TRUE(PLR_GetVnetMTU("kavix1", &mtu));
  EXPECT_EQ(mtu, 9000u);
  Mark();
  ASSERT_TRUE(PLR_RemoveMTU("kavix1"));
  EXPECT_TRUE(LogHas("PLR_RemoveMTU - Removing MTU setting succeeded for vnet: kavix1"));
  mtu = 5;
  EXPECT_FALSE(PLR_GetVnetMTU("kavix1", &mtu));
  EXPECT_EQ(mtu, 5u);
}

// A failed append leaves the cache as it was and logs the setter's failure.
TEST_F(VnetPropertiesTest, FailedAppendFailsTheSetterAndKeepsTheValue) {
  Load(Vnet1Records() + "answer VNET_1_MTU 1500\n");
  Mark();
  sys::FailFrom(sys::Op::kWrite, 1, ENOSPC);
  EXPECT_FALSE(PLR_SetVnetMTU("kavix1", 9000));
  sys::ClearFaults();
  EXPECT_EQ(Answer(1, "MTU"), "1500");
  EXPECT_TRUE(LogHas("PLR_SetVnetMTU - Error setting mtu for vnet: kavix1"));
  EXPECT_TRUE(LogHas("PLRNetCfgUnlockConfig - Config file unlocking success"));
}

// Read-only: no lock is taken, the change stays in the cache, the unlock is
// still called (it finds nothing locked).
TEST_F(VnetPropertiesTest, ReadOnlyDatabaseWritesWithoutLockAndStillUnlocks) {
  WriteProductConfig();
  WriteDatabase(Vnet1Records());
  ASSERT_TRUE(PLR_Load(true));
  PLR_SetCurrentLogLevel(PLR_LOG_MAX_LEVEL);
  Mark();
  ASSERT_TRUE(PLR_SetVnetMTU("kavix1", 1400));
  EXPECT_EQ(Answer(1, "MTU"), "1400");
  EXPECT_FALSE(TookLockSinceMark());
  EXPECT_TRUE(LogHas("PLRNetCfgUnlockConfig - Config file is not currently locked"));
  EXPECT_TRUE(DatabaseUnchangedSinceMark());
}

// A held lock (another writer) makes the setter fail without unlocking.
TEST_F(VnetPropertiesTest, LockFailureRefusesTheChange) {
  Load(Vnet1Records());
  ASSERT_TRUE(PLRNetCfgLockConfig(nullptr));
  Mark();
  EXPECT_FALSE(PLR_SetVnetDisplayName("kavix1", "Other"));
  EXPECT_TRUE(LogHas("PLR_SetVnetDisplayName - Failed to obtain lock on vnet config"));
  EXPECT_EQ(Answer(1, "DISPLAY_NAME"), "Lab network");
  EXPECT_FALSE(LogHas("PLRNetCfgUnlockConfig - Config file unlocking success"));
  EXPECT_TRUE(DatabaseUnchangedSinceMark());
  PLRNetCfgUnlockConfig(nullptr);
}

TEST_F(VnetPropertiesTest, AssignKeepsAnExistingSubnetUnlessAskedToOverwrite) {
  Load(Vnet1Records());
  SetPingRules("");
  Mark();
  ASSERT_TRUE(PLR_AssignSubnetAddressToVnet("kavix1", false));
  EXPECT_TRUE(LogHas("PLR_AssignSubnetAddressToVnet - Not overwriting existing subnet"));
  EXPECT_FALSE(TookLockSinceMark());
  EXPECT_TRUE(DatabaseUnchangedSinceMark());
  EXPECT_TRUE(PingCalls().empty());

  ASSERT_TRUE(PLR_AssignSubnetAddressToVnet("kavix1", true));
  const std::string subnet = Answer(1, "HOSTONLY_SUBNET");
  EXPECT_NE(subnet, "192.168.1.0");
  EXPECT_EQ(Answer(1, "HOSTONLY_NETMASK"), "255.255.255.0");
  EXPECT_TRUE(LogHas("PLR_AssignSubnetAddressToVnet - Overwriting existing subnet"));
  EXPECT_TRUE(LogHas("PLR_AssignSubnetAddressToVnet - Subnet address: " + subnet));
}

TEST_F(VnetPropertiesTest, AssignFailsWhenEveryCandidateAnswers) {
  Load();
  SetPingRules("* 0\n");
  Mark();
  EXPECT_FALSE(PLR_AssignSubnetAddressToVnet("kavix4", false));
  EXPECT_TRUE(
      LogHas("PLR_AssignSubnetAddressToVnet - Failed to assign subnet to vnet: kavix4"));
  EXPECT_TRUE(DatabaseUnchangedSinceMark());
}

TEST_F(VnetPropertiesTest, UnusedSubnetAndAvailability) {
  Load(Vnet1Records());
  SetPingRules("");
  char subnet[16], mask[16];
  ASSERT_TRUE(PLR_GetUnusedSubnet(subnet, 16, mask, 16));
  EXPECT_STREQ(mask, "255.255.255.0");
  EXPECT_EQ(Answer(1, "HOSTONLY_SUBNET"), "192.168.1.0");  // nothing assigned

  bool available = false;
  ASSERT_TRUE(PLR_CheckSubnetAvailability("kavix1", false, 1, 1, &available));
  EXPECT_TRUE(available);
  EXPECT_TRUE(LogCount("Subnet: 192.168.1.0 on vnet: kavix1 is available"));

  SetPingRules("192.168.1.1 0\n");
  Mark();
  ASSERT_TRUE(PLR_CheckSubnetAvailability("kavix1", false, 1, 1, &available));
  EXPECT_FALSE(available);
  EXPECT_TRUE(LogHas(
      "PLR_CheckSubnetAvailability - Subnet: 192.168.1.0 on vnet: kavix1 is not available"));

  Mark();
  EXPECT_FALSE(PLR_CheckSubnetAvailability("kavix2", false, 1, 1, &available));
  EXPECT_TRUE(LogHas("PLR_CheckSubnetAvailability - Failure in getting subnet address"));
}

// Descriptions come as pointer and length without a NUL: exact-size heap
// buffers make any read past the length visible under the sanitizers.
TEST_F(VnetPropertiesTest, NatPrefixDescriptionLengthRules) {
  Load(Vnet1Records());
  std::unique_ptr<char[]> desc(new char[127]);
  memset(desc.get(), 'd', 127);
  ASSERT_TRUE(PLR_SetNATPrefix("kavix1", "fd15:4ba5:5a2b:1001::/64", desc.get(), 127));
  EXPECT_TRUE(LogCount("PLR_SetNATPrefix - Setting NAT prefix succeeded for vnet: kavix1, prefix: "
                      "fd15:4ba5:5a2b:1001::/64 \n"));

  Mark();
  ASSERT_TRUE(PLR_SetNATPrefix("kavix1", "fd15:4ba5:5a2b:1002::/64", desc.get(), 0));
  EXPECT_TRUE(LogHas("PLR_SetNATPrefix - Using a NULL description since, length is 0"));

  Mark();
  EXPECT_FALSE(PLR_SetNATPrefix("kavix1", "fd15:4ba5:5a2b:1003::/64", desc.get(), 128));
  EXPECT_TRUE(DatabaseUnchangedSinceMark());

  char out[8] = "keep";
  uint32_t outLen = sizeof out;
  ASSERT_TRUE(PLR_GetNATPrefix("kavix1", "fd15:4ba5:5a2b:1001::/64", out, &outLen));
  EXPECT_STREQ(out, "keep");  // the lookup never writes the description
  EXPECT_EQ(outLen, 8u);
  EXPECT_TRUE(PLR_GetNATPrefix("kavix1", "fd15:4ba5:5a2b:1002::/64", nullptr, nullptr));
  Mark();
  EXPECT_FALSE(PLR_GetNATPrefix("kavix1", "fd15:4ba5:5a2b:1003::/64", nullptr, nullptr));
  EXPECT_TRUE(LogHas("PLR_GetNATPrefix - Getting NAT prefix failed on vnet: kavix1"));
  EXPECT_FALSE(PLR_GetNATPrefix("kavix2", "fd15:4ba5:5a2b:1001::/64", nullptr, nullptr));
}

// The frame around a successful call: argument line with "null" for the
// missing value, one exit line.
TEST_F(VnetPropertiesTest, ArgumentLinePrintsNullForMissingValue) {
  Load(Vnet1Records());
  const char* vnet = "kavix1";
  char expected[128];
  snprintf(expected, sizeof expected,
           "PLR_SetVnetSubnetMask - Arguments - v: %p,kavix1, sn: %p,null",
           static_cast<const void*>(vnet), nullptr);
  Mark();
  ASSERT_TRUE(PLR_SetVnetSubnetMask(vnet, nullptr));
  EXPECT_TRUE(LogHas(expected));
  EXPECT_EQ(LogCount("Exiting API Function, PLR_SetVnetSubnetMask:"), 1);
}

}  // namespace
}  // namespace plr::test
