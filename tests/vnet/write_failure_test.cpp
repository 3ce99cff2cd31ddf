// Settings changes whose database append fails: each reports once, changes
// nothing it had not completed, and the multi-step ones stop where they failed.
#include <errno.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "base/sys-util.h"
#include "pelorus.h"
#include "tests/support/sandbox.h"
#include "tests/support/vnet_util.h"
#include "vnet/subnet.h"

namespace plr {
namespace {

using test::Answer;
using test::CountOf;

class WriteFailure : public test::LoadedLibraryTest {
 protected:
  // Every append from now on fails as on a full disk.
  void FailAllWrites() { sys::FailFrom(sys::Op::kWrite, 1, ENOSPC); }
  // Only the next append fails; the database's own rollback then lands.
  void FailNextWrite() { sys::FailNth(sys::Op::kWrite, 1, ENOSPC); }
  void TearDown() override {
    sys::ClearFaults();
    test::LoadedLibraryTest::TearDown();
  }
};

TEST_F(WriteFailure, UseSwitchesAndDefaultBridgeReportAndStoreNothing) {
  Load();
  FailNextWrite();
  EXPECT_FALSE(PLRSetVnetUseDHCP(3, true, true));
  FailNextWrite();
  EXPECT_FALSE(PLRSetVnetUseNAT(3, true, true));
  FailNextWrite();
  EXPECT_FALSE(PLRSetVnetUseAdapter(3, true, true));
  FailNextWrite();  // the default bridge cache keeps its old value
  EXPECT_FALSE(PLRSetDefaultBridgeVnet(4));
  sys::ClearFaults();
  EXPECT_EQ(plrDefaultBridgeVnet, 0u);
  EXPECT_EQ(Answer("PLR_DEFAULT_BRIDGE_VNET"), std::nullopt);
  EXPECT_EQ(Answer("VNET_3_DHCP"), std::nullopt);
  EXPECT_EQ(Answer("VNET_3_NAT"), std::nullopt);
  EXPECT_EQ(Answer("VNET_3_VIRTUAL_ADAPTER"), std::nullopt);
  std::string log = Log();
  EXPECT_EQ(CountOf(log, "PLRSetVnetUseDHCP - Error setting DHCP to 1 in vnet config"), 1);
  EXPECT_EQ(CountOf(log, "PLRSetVnetUseNAT - Error setting NAT to 1 in vnet config"), 1);
  EXPECT_EQ(CountOf(log, "Error setting VIRTUAL_ADAPTER to 1 in vnet config"), 1);
  EXPECT_EQ(CountOf(log, "set to 1 in vnet config for vnet"), 0);
  EXPECT_EQ(
      CountOf(log, "PLRSetDefaultBridgeVnet - Error setting value of DefaultBridge in config"), 1);
}

// The switch is already in place (no append), so only the removal meets the
// failing disk: a failed DHCP removal fails the call, a failed NAT removal does not.
TEST_F(WriteFailure, FailedDhcpRemovalFailsButFailedNatRemovalDoesNot) {
  Load(
      "answer VNET_3_DHCP no\n"
      "answer VNET_3_NAT no\n"
      "answer VNET_3_DHCP_PARAM_MAX_LEASE_TIME 7200\n"
      "answer VNET_3_NAT_PARAM_UDP_TIMEOUT 60\n");
  FailAllWrites();
  EXPECT_FALSE(PLRSetVnetUseDHCP(3, false, true));
  EXPECT_TRUE(PLRSetVnetUseNAT(3, false, true));
  sys::ClearFaults();
  EXPECT_EQ(Answer("VNET_3_DHCP_PARAM_MAX_LEASE_TIME"), "7200");
  EXPECT_EQ(Answer("VNET_3_NAT_PARAM_UDP_TIMEOUT"), "60");
  std::string log = Log();
  EXPECT_EQ(CountOf(log, "PLRSetVnetUseDHCP - Error removing DHCP configuration informtion"), 1);
  EXPECT_EQ(CountOf(log, "PLRSetVnetUseNAT - Error removing NAT coniguration information"), 1);
}

TEST_F(WriteFailure, AdapterNameAndMaskStayWhenTheFirstRemovalFails) {
  Load(
      "answer VNET_2_VIRTUAL_ADAPTER no\n"
      "answer VNET_2_VIRTUAL_ADAPTER_ADDR 10.0.2.1\n"
      "answer VNET_2_VIRTUAL_ADAPTER_NAME hostnet2\n"
      "answer VNET_5_HOSTONLY_SUBNET 172.16.40.0\n"
      "answer VNET_5_HOSTONLY_NETMASK 255.255.255.0\n");
  FailAllWrites();
  EXPECT_FALSE(PLRSetVnetUseAdapter(2, false, true));
  EXPECT_FALSE(PLRRemoveSubnetAssignment(5));
  sys::ClearFaults();
  EXPECT_EQ(Answer("VNET_5_HOSTONLY_SUBNET"), "172.16.40.0");
  EXPECT_EQ(Answer("VNET_5_HOSTONLY_NETMASK"), "255.255.255.0");
  EXPECT_EQ(Answer("VNET_2_VIRTUAL_ADAPTER_ADDR"), "10.0.2.1");
  EXPECT_EQ(Answer("VNET_2_VIRTUAL_ADAPTER_NAME"), "hostnet2");
  std::string log = Log();
  EXPECT_EQ(CountOf(log, "Error removing Adapter address from vnet config"), 1);
  EXPECT_EQ(CountOf(log, "Error removing Adapter name from vnet config"), 0);
}

TEST_F(WriteFailure, AdapterNameRemovalFailureIsTheResult) {
  Load(
      "answer VNET_2_VIRTUAL_ADAPTER no\n"
      "answer VNET_2_VIRTUAL_ADAPTER_ADDR 10.0.2.1\n"
      "answer VNET_2_VIRTUAL_ADAPTER_NAME hostnet2\n");
  sys::FailNth(sys::Op::kWrite, 2, ENOSPC);  // the address goes, the name does not
  EXPECT_FALSE(PLRSetVnetUseAdapter(2, false, true));
  sys::ClearFaults();
  EXPECT_EQ(Answer("VNET_2_VIRTUAL_ADAPTER_ADDR"), std::nullopt);
  EXPECT_EQ(Answer("VNET_2_VIRTUAL_ADAPTER_NAME"), "hostnet2");
  EXPECT_EQ(CountOf(Log(), "PLRSetVnetUseAdapter - Error removing Adapter name from vnet config"),
            1);
}

class AssignmentWriteFailure : public WriteFailure {
 protected:
  // The subnet the next probe hands out when nothing answers the ping.
  std::string NextCandidate() {
    EXPECT_TRUE(PLRPopulateAvailSubnets());
    char text[16];
    EXPECT_TRUE(PLRIPInt2Str(AvailSubnetTable().entries[1].subnet, text));
    return text;
  }
};

TEST_F(AssignmentWriteFailure, SubnetNotStored) {
  Load();
  const std::string subnet = NextCandidate();
  FailNextWrite();
  EXPECT_FALSE(PLRAssignUnusedSubnetAddressToVNet(6));
  sys::ClearFaults();
  EXPECT_EQ(Answer("VNET_6_HOSTONLY_SUBNET"), std::nullopt);
  EXPECT_EQ(Answer("VNET_6_HOSTONLY_NETMASK"), std::nullopt);
  EXPECT_EQ(CountOf(Log(), "PLRAssignUnusedSubnetAddressToVNet - Error setting subnet value: " +
                               subnet + " in vnet config"),
            1);
}

TEST_F(AssignmentWriteFailure, MaskNotStoredNamesTheSubnet) {
  Load();
  const std::string subnet = NextCandidate();
  sys::FailNth(sys::Op::kWrite, 2, ENOSPC);  // the subnet lands, the mask does not
  EXPECT_FALSE(PLRAssignUnusedSubnetAddressToVNet(6));
  sys::ClearFaults();
  EXPECT_EQ(Answer("VNET_6_HOSTONLY_NETMASK"), std::nullopt);
  EXPECT_EQ(Answer("VNET_6_HOSTONLY_SUBNET"), subnet) << "removing it is the caller's undo step";
  EXPECT_EQ(CountOf(Log(), "PLRAssignUnusedSubnetAddressToVNet - Error setting subnet mask: " +
                               subnet + " in vnet config"),
            1);
}

}  // namespace
}  // namespace plr
