// The address, mask, MAC and prefix checks: what they accept, what they
// produce, and the one line each rejection leaves in the log.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "pelorus.h"
#include "tests/core/core_util.h"
#include "tests/support/sandbox.h"

namespace plr::test {
namespace {

using Lines = std::vector<std::string>;

class AddressTest : public testing::Test {
 protected:
  void SetUp() override { LoadWithRecords(records()); }
  void TearDown() override { PLR_Unload(); }
  virtual std::string records() const { return ""; }
  static int Count(const std::string& line) { return CountLine(LogLines(kLogPath), line); }
};

TEST_F(AddressTest, DottedTextToInteger) {
  struct Case {
    const char* text;
    bool ok;
    uint32_t value;
  };
  const Case cases[] = {
      {"192.168.0.1", true, 0xC0A80001u},
      {"0.0.0.0", true, 0},
      {"255.255.255.255", true, 0xFFFFFFFFu},
      {"1.2.3.4", true, 0x01020304u},
      {"010.1.1.1", true, 0x0A010101u},  // three digits, leading zero is decimal
      {"192.168.0.1 ", false, 0},
      {"192.168.0", false, 0},
      {"1.2.3.4.5", false, 0},
      {"256.1.1.1", false, 0},
      {"1.2.3.0004", false, 0},
      {"", false, 0},
      {"a.b.c.d", false, 0},
      {"1.2.3.4x", false, 0},
      {"1,2,3,4", false, 0},
  };
  for (const Case& c : cases) {
    uint32_t out = 0xDEADBEEFu;
    EXPECT_EQ(PLRIPStr2Int(c.text, &out), c.ok) << "'" << c.text << "'";
    EXPECT_EQ(out, c.ok ? c.value : 0xDEADBEEFu) << "written only on success: " << c.text;
    EXPECT_EQ(PLRIsValidIP(c.text), c.ok) << c.text;
  }
}

TEST_F(AddressTest, RejectionsLogScanOrRangeFailure) {
  uint32_t out;
  EXPECT_FALSE(PLRIPStr2Int("256.1.1.999", &out));
  EXPECT_FALSE(PLRIPStr2Int("1.2.3", &out));
  EXPECT_EQ(Count("PLRIPStr2Int - Invalid values: 256, 1, 1, 999"), 1);
  EXPECT_EQ(Count("PLRIPStr2Int - sscanf failed"), 1);
}

TEST_F(AddressTest, IntegerToDottedTextRoundTrips) {
  char buf[16];
  for (uint32_t ip : {0u, 0xC0A80001u, 0xFFFFFFFFu, 0x0A000102u, 0x7F000001u}) {
    ASSERT_TRUE(PLRIPInt2Str(ip, buf));
    in_addr expected{htonl(ip)};
    EXPECT_STREQ(buf, inet_ntoa(expected));
    uint32_t back = 0;
    ASSERT_TRUE(PLRIPStr2Int(buf, &back));
    EXPECT_EQ(back, ip);
  }
}

TEST_F(AddressTest, MasksNeedEightHostsAndOneRunOfOnes) {
  struct Case {
    const char* text;
    bool ok;
  };
  const Case cases[] = {
      {"255.255.255.248", true}, {"255.255.255.0", true},    {"255.0.0.0", true},
      {"128.0.0.0", true},       {"0.0.255.255", true},      {"0.255.255.0", true},
      {"0.0.0.8", true},         {"255.255.255.252", false}, {"255.255.255.255", false},
      {"0.0.0.0", false},        {"255.0.255.0", false},     {"255.255.254.255", false},
      {"255.255.255", false},
  };
  for (const Case& c : cases) EXPECT_EQ(PLRIsValidSubnetMask(c.text), c.ok) << c.text;
}

TEST_F(AddressTest, MaskRejectionMessages) {
  EXPECT_FALSE(PLRIsValidSubnetMask("255.255.255.252"));
  EXPECT_FALSE(PLRIsValidSubnetMask("0.0.0.0"));
  EXPECT_FALSE(PLRIsValidSubnetMask("255.0.255.0"));
  EXPECT_FALSE(PLRIsValidSubnetMask("mask"));
  EXPECT_EQ(Count("PLRIsValidSubnetMask - The subnet is too small, we need at least 8 hosts"), 2);
  // 255.0.255.0 shifted right past its eight trailing zeros.
  EXPECT_EQ(Count("PLRIsValidSubnetMask - Mask is not a contiguous string of 1s: ff00ff"), 1);
  EXPECT_EQ(Count("PLRIsValidSubnetMask - Could not convert mask to integer: mask"), 1);
}

TEST_F(AddressTest, MacAddressesBecomeUpperCaseColonForm) {
  struct Case {
    const char* text;
    const char* standard;  // null: rejected
  };
  const Case cases[] = {
      {"0:1a:2:3:4:5", "00:1A:02:03:04:05"},
      {"a:b:c:d:e:f", "0A:0B:0C:0D:0E:0F"},
      {"02:7a:3e:2a:10:01", "02:7A:3E:2A:10:01"},
      {"FF:ff:Ff:fF:00:00", "FF:FF:FF:FF:00:00"},
      {"00-11-22-33-44-55", nullptr},
      {"00:11:22:33:44:55:66", nullptr},
      {"00:11:22:33:44", nullptr},
      {"00:11:22:33:44:55 ", nullptr},
      {"001:1:2:3:4:5", nullptr},
      {"g0:11:22:33:44:55", nullptr},
      {"-1:11:22:33:44:55", nullptr},
      {"", nullptr},
  };
  for (const Case& c : cases) {
    char out[18] = "untouched";
    bool ok = PLRMACStandardizeFormat(c.text, out);
    EXPECT_EQ(ok, c.standard != nullptr) << c.text;
    if (c.standard != nullptr) {
      EXPECT_STREQ(out, c.standard) << c.text;
    }
    EXPECT_EQ(PLRIsValidMACAddr(c.text), c.standard != nullptr) << c.text;
  }
}

TEST_F(AddressTest, MacRejectionNamesTheScannedCount) {
  char out[18];
  EXPECT_FALSE(PLRMACStandardizeFormat("00-11-22-33-44-55", out));
  EXPECT_FALSE(PLRMACStandardizeFormat("00:11:22:33:44:55:66", out));
  EXPECT_EQ(Count("PLRMACStandardizeFormat - sscanf failed, scanned 1 elements"), 1);
  EXPECT_EQ(Count("PLRMACStandardizeFormat - sscanf failed, scanned 7 elements"), 1);
}

TEST_F(AddressTest, PrefixesNeedASlashAndLength32To96) {
  struct Case {
    const char* text;
    bool ok;
  };
  const Case cases[] = {
      {"fd00::/64", true},
      {"fd00::/32", true},
      {"fd00::/96", true},
      {"fd00::/31", false},
      {"fd00::/97", false},
      {"fd00::/", false},
      {"fd00::/-1", false},
      {"fd00::/64abc", true},       // text after the length is ignored
      {"not-an-address/48", true},  // the address part is not checked here
      {"fd00::/99999999999999999999", false},
  };
  for (const Case& c : cases) EXPECT_EQ(PLRIsValidPrefix(c.text), c.ok) << c.text;
  EXPECT_EQ(Count("PLRIsValidPrefix - Non valid prefix"), 5);
}

TEST_F(AddressTest, PrefixWithoutSlashFailsSilently) {
  Lines before = LogLines(kLogPath);
  EXPECT_FALSE(PLRIsValidPrefix("fd00::"));
  EXPECT_EQ(LogLines(kLogPath).size(), before.size());
}

TEST_F(AddressTest, PrefixMatchComparesLengthThenLeadingBits) {
  const uint8_t a[16] = {0xfd, 0x00, 0x12, 0x34, 0x56, 0x78, 0x9a, 0xbc};
  uint8_t b[16] = {0xfd, 0x00, 0x12, 0x34, 0x56, 0x78, 0x00, 0x00};
  EXPECT_FALSE(PLRIsPrefixMatch(a, 64, b, 48)) << "lengths differ though 48 bits agree";
  EXPECT_TRUE(PLRIsPrefixMatch(a, 48, b, 48));
  EXPECT_FALSE(PLRIsPrefixMatch(a, 64, b, 64));
  EXPECT_TRUE(PLRIsPrefixMatch(a, 0, b, 0));
  EXPECT_EQ(Count("PLRIsPrefixMatch - Prefix not match"), 2);

  // Partial byte: 0x9a = 1001 1010 against 0x9f = 1001 1111 agree on 5 bits, not 6.
  b[6] = 0x9f;
  EXPECT_TRUE(PLRIsPrefixMatch(a, 53, b, 53));
  EXPECT_FALSE(PLRIsPrefixMatch(a, 54, b, 54));
  // The top bit alone: 0x9a and 0x80 agree, 0x9a and 0x7f do not.
  b[6] = 0x80;
  EXPECT_TRUE(PLRIsPrefixMatch(a, 49, b, 49));
  b[6] = 0x7f;
  EXPECT_FALSE(PLRIsPrefixMatch(a, 49, b, 49));
}

class SubnetMembershipTest : public AddressTest {
 protected:
  std::string records() const override {
    return "answer VNET_2_HOSTONLY_SUBNET 192.168.2.0\n"
           "answer VNET_2_HOSTONLY_NETMASK 255.255.255.0\n"
           "answer VNET_3_HOSTONLY_SUBNET 10.0.0.1\n"
           "answer VNET_3_HOSTONLY_NETMASK 255.0.0.0\n"
           "answer VNET_4_HOSTONLY_SUBNET 0.0.0.0\n"
           "answer VNET_4_HOSTONLY_NETMASK 255.0.0.0\n"
           "answer VNET_5_HOSTONLY_SUBNET 172.16.0.0\n";
  }
};

TEST_F(SubnetMembershipTest, AddressMaskedEqualsTheStoredSubnet) {
  EXPECT_TRUE(PLRIPBelongsToSubnet(2, "192.168.2.77"));
  EXPECT_TRUE(PLRIPBelongsToSubnet(2, "192.168.2.0"));
  EXPECT_TRUE(PLRIPBelongsToSubnet(2, "192.168.2.255"));
  EXPECT_FALSE(PLRIPBelongsToSubnet(2, "192.168.3.1"));
  EXPECT_FALSE(PLRIPBelongsToSubnet(3, "10.0.0.1")) << "host bits in the stored subnet";
  EXPECT_TRUE(PLRIPBelongsToSubnet(4, "garbage")) << "unparsable text counts as 0.0.0.0";
}

TEST_F(SubnetMembershipTest, MissingSubnetOrMaskFails) {
  EXPECT_FALSE(PLRIPBelongsToSubnet(7, "192.168.7.1"));
  EXPECT_FALSE(PLRIPBelongsToSubnet(5, "172.16.0.1")) << "subnet without a mask";
  EXPECT_EQ(Count("PLRIPBelongsToSubnet - Getting subnet address failed"), 2);
}

}  // namespace
}  // namespace plr::test
