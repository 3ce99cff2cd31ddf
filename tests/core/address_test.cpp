// The address, mask, MAC and prefix checks, one row per input, and copying a
// file over another.
#include "core/address.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/stat.h>

#include <string>
#include <tuple>

#include "base/str-util.h"
#include "base/sys-util.h"
#include "pelorus.h"
#include "tests/support/sandbox.h"

namespace plr::test {
namespace {

class Loaded : public testing::Test {
 protected:
  void SetUp() override {
    WriteDatabase(
        "answer VNET_2_HOSTONLY_SUBNET 192.168.2.0\nanswer VNET_2_HOSTONLY_NETMASK 255.255.255.0\n"
        "answer VNET_3_HOSTONLY_SUBNET 10.0.0.1\nanswer VNET_3_HOSTONLY_NETMASK 255.0.0.0\n"
        "answer VNET_5_HOSTONLY_SUBNET 172.16.0.0\n");
    ASSERT_TRUE(PLR_Load(0));
  }
  void TearDown() override {
    sys::ClearFaults();
    PLR_Unload();
  }
};

TEST_F(Loaded, DottedTextToIntegerAndBack) {
  for (auto [text, value] : {std::pair{"192.168.0.1", 0xC0A80001u},
                             {"0.0.0.0", 0u},
                             {"255.255.255.255", ~0u},
                             {"010.1.1.1", 0x0A010101u}}) {
    uint32_t out = 1;
    char back[16] = "";
    EXPECT_TRUE(PLRIPStr2Int(text, &out) && PLRIsValidIP(text)) << text;
    EXPECT_EQ(out, value) << text;
    ASSERT_TRUE(PLRIPInt2Str(value, back));
    EXPECT_TRUE(PLRIPStr2Int(back, &out) && out == value) << back;
  }
  for (const char* text : {"192.168.0.1 ", "192.168.0", "1.2.3.4.5", "256.1.1.1", "1.2.3.256",
                           "1.2.3.0004", "", "a.b.c.d", "1.2.3.4x", "1,2,3,4"}) {
    uint32_t out = 1;
    EXPECT_FALSE(PLRIPStr2Int(text, &out) || PLRIsValidIP(text) || out != 1) << text;
  }
}

// The journal's address check: digits and dots by the fast rules, anything
// else the way the scan reads it (leading blanks and signs accepted); the
// journal's MAC form; keywords compared with ASCII case folded.
TEST(AddressText, JournalAddressesAndKeywordCase) {
  for (auto [text, valid] : {std::pair{"1.2.3.4", true},
                             {"255.255.255.255", true},
                             {"01.2.3.4", true},
                             {"1.2.3.0004", false},
                             {"1.2.3.256", false},
                             {"1..2.3", false},
                             {"1.2.3.", false},
                             {".1.2.3", false},
                             {"1.2.3.4.5", false},
                             {"1.2.3", false},
                             {"", false},
                             {"1.2.3.4x", false},
                             {" 1.2.3.4", true},
                             {"+1.2.3.4", true},
                             {"1.2.3.4 junk", false},
                             {"1234.1.1.1x", false},
                             {"1.2.3.x", false}}) {
    EXPECT_EQ(IsValidIPText(text), valid) << text;
  }
  EXPECT_FALSE(IsValidIPText(std::string_view("1.2.3.4\0", 8)));
  // Every text made of four groups, empty to over-long or odd, between dots (or
  // with one dot too many, too few, or a byte after them) gets the scan's
  // answer: four numbers of at most three digits, none above 255, nothing after.
  // Bytes next to the digits ('/', ':') and a digit with its top bit set
  // must not pass for digits.
  const char* groups[] = {"", "7", "09", "255", "256", "999", "0004", "+1", "1/", ":", "\xb9"};
  for (const char* a : groups)
    for (const char* b : groups)
      for (const char* c : groups)
        for (const char* d : groups)
          for (const char* tail : {"", ".", ".5", "x", " "}) {
            const std::string text = std::string(a) + "." + b + "." + c + "." + d + tail;
            unsigned v[4] = {};
            char after = 0;
            const bool scanned = sscanf(text.c_str(), "%3u.%3u.%3u.%3u%c", &v[0], &v[1], &v[2],
                                        &v[3], &after) == 4 &&
                                 v[0] <= 255 && v[1] <= 255 && v[2] <= 255 && v[3] <= 255;
            ASSERT_EQ(IsValidIPText(text), scanned) << text;
          }
  // MACs as the journal holds them: the standard shape only changes case;
  // other shapes take the long way; the rest is refused.
  for (auto [text, standard] : {std::pair{"02:7a:3E:00:0f:ab", "02:7A:3E:00:0F:AB"},
                                {"2:7a:3e:0:f:ab", "02:7A:3E:00:0F:AB"},
                                {"02:7a:3e:00:0f:a", "02:7A:3E:00:0F:0A"},
                                {"AB:CD:EF:01:23:9f", "AB:CD:EF:01:23:9F"}}) {
    char out[18] = "";
    EXPECT_TRUE(StandardizeMACText(text, out)) << text;
    EXPECT_STREQ(out, standard);
  }
  for (std::string_view text :
       {std::string_view("02:7a:3e:00:0f:ag"), std::string_view("g2:7a:3e:00:0f:ab"),
        std::string_view("02:7a:3e:00;0f:ab"), std::string_view("02-7a-3e-00-0f-ab"),
        std::string_view("02:7a:3e:00:0f:ab\0", 18), std::string_view("")}) {
    char out[18] = "";
    EXPECT_FALSE(StandardizeMACText(text, out)) << text;
  }
  for (auto [a, b, equal] : {std::tuple{"ANSWER", "answer", true},
                             {"Add_Nat_PortFwd", "add_nat_portfwd", true},
                             {"tcp", "TCP", true},
                             {"@", "`", false},
                             {"[", "{", false},
                             {"_", "\x7f", false},
                             {"tcp", "udp", false},
                             {"answers", "answer", false}}) {
    EXPECT_EQ(EqualsIgnoringAsciiCase(a, b), equal) << a << " " << b;
  }
}

// A mask leaves at least eight hosts and is one run of ones.
TEST_F(Loaded, MasksAndMacAddresses) {
  for (const char* mask :
       {"255.255.255.248", "255.255.255.0", "128.0.0.0", "0.0.255.255", "0.255.255.0", "0.0.0.8"})
    EXPECT_TRUE(PLRIsValidSubnetMask(mask)) << mask;
  for (const char* mask : {"255.255.255.252", "255.255.255.255", "0.0.0.0", "255.0.255.0",
                           "255.255.254.255", "255.255.255"})
    EXPECT_FALSE(PLRIsValidSubnetMask(mask)) << mask;
  for (auto [text, standard] : {std::pair{"0:1a:2:3:4:5", "00:1A:02:03:04:05"},
                                {"a:b:c:d:e:f", "0A:0B:0C:0D:0E:0F"},
                                {"FF:ff:Ff:fF:00:00", "FF:FF:FF:FF:00:00"}}) {
    char out[18] = "";
    EXPECT_TRUE(PLRMACStandardizeFormat(text, out) && PLRIsValidMACAddr(text)) << text;
    EXPECT_STREQ(out, standard);
  }
  for (const char* text :
       {"00-11-22-33-44-55", "00:11:22:33:44:55:66", "00:11:22:33:44", "00:11:22:33:44:55 ",
        "001:1:2:3:4:5", "g0:11:22:33:44:55", "-1:11:22:33:44:55", ""}) {
    char out[18] = "";
    EXPECT_FALSE(PLRMACStandardizeFormat(text, out) || PLRIsValidMACAddr(text) || *out) << text;
  }
}

TEST_F(Loaded, PrefixesAndPrefixMatch) {
  for (const char* text : {"fd00::/64", "fd00::/32", "fd00::/96", "fd00::/64abc"})
    EXPECT_TRUE(PLRIsValidPrefix(text)) << text;
  for (const char* text :
       {"fd00::/31", "fd00::/97", "fd00::/", "fd00::", "fd00::/-1", "fd00::/99999999999999999999"})
    EXPECT_FALSE(PLRIsValidPrefix(text)) << text;
  // 0x9a = 1001 1010 and 0x9f = 1001 1111 agree on 5 bits; 0x80 on 1; 0x7f on none.
  const uint8_t a[16] = {0xfd, 0x00, 0x12, 0x34, 0x56, 0x78, 0x9a};
  for (auto [last, lengthA, lengthB, match] : {std::tuple{0x00, 48, 48, true},
                                               {0x00, 64, 48, false},
                                               {0x00, 0, 0, true},
                                               {0x9f, 53, 53, true},
                                               {0x9f, 54, 54, false},
                                               {0x80, 49, 49, true},
                                               {0x7f, 49, 49, false}}) {
    const uint8_t b[16] = {0xfd, 0x00, 0x12, 0x34, 0x56, 0x78, static_cast<uint8_t>(last)};
    EXPECT_EQ(PLRIsPrefixMatch(a, lengthA, b, lengthB), match) << last << " " << lengthA;
  }
  EXPECT_EQ(LogCount("Prefix not match"), 3u);  // one line for each mismatch
}

TEST_F(Loaded, SubnetMembershipMasksTheAddress) {
  for (auto [vnet, ip, in] : {std::tuple{2, "192.168.2.77", true},
                              {2, "192.168.2.255", true},
                              {2, "192.168.3.1", false},
                              {3, "10.0.0.1", false},
                              {5, "172.16.0.1", false},
                              {7, "192.168.7.1", false}})
    EXPECT_EQ(PLRIPBelongsToSubnet(vnet, ip), in) << vnet << " " << ip;
}

TEST_F(Loaded, CopyFileAcrossChunkBoundaries) {
  std::string source;
  // Sizes around the 64 KiB copy chunk; the last takes four reads.
  for (size_t size : {0u, 65535u, 65536u, 65537u, 200000u}) {
    source.resize(size);
    for (size_t i = 0; i < size; ++i) source[i] = static_cast<char>('a' + (i * 7 + i / 1024) % 26);
    WriteFile("/tmp/src", source);
    WriteFile("/tmp/dst", std::string(210000, 'z'));
    ASSERT_TRUE(PLRCopyFile("/tmp/src", "/tmp/dst")) << size;
    EXPECT_EQ(ReadFile("/tmp/dst"), source) << size;
  }
  umask(077);
  ASSERT_TRUE(PLRCopyFile("/tmp/src", "/tmp/new"));
  struct stat st;
  ASSERT_EQ(stat("/tmp/new", &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0644u) << "a missing destination is created 0644";
  EXPECT_EQ(umask(077), 077u) << "the caller's umask is back";
  EXPECT_FALSE(PLRCopyFile("/tmp/nothing", "/tmp/dst"));
  EXPECT_FALSE(PLRCopyFile("/tmp/src", "/tmp/no-dir/dst"));
  // The copy runs in the kernel; a file system that refuses that is copied
  // through the buffer instead, and any other failure fails the copy and
  // leaves the destination as it was.
  const struct {
    sys::Op op;
    unsigned nth;
    int err;
    bool copies;
  } kFaults[] = {{sys::Op::kCopyFileRange, 1, EXDEV, true},
                 {sys::Op::kCopyFileRange, 1, EOPNOTSUPP, true},
                 {sys::Op::kCopyFileRange, 1, EIO, false},
                 {sys::Op::kCopyFileRange, 2, EXDEV, false},  // after part of the file
                 {sys::Op::kOpen, 1, EACCES, false},
                 {sys::Op::kFsync, 1, EIO, false},
                 {sys::Op::kRename, 1, EIO, false}};
  for (const auto& f : kFaults) {
    WriteFile("/tmp/dst", "old");
    sys::FailNth(f.op, f.nth, f.err);
    EXPECT_EQ(PLRCopyFile("/tmp/src", "/tmp/dst"), f.copies) << f.err << " " << f.nth;
    sys::ClearFaults();
    EXPECT_EQ(ReadFile("/tmp/dst") == source, f.copies) << f.err << " " << f.nth;
  }
  for (sys::Op op : {sys::Op::kWrite, sys::Op::kRead}) {  // the buffer's own faults
    sys::FailNth(sys::Op::kCopyFileRange, 1, ENOSYS);
    sys::FailNth(op, 2, EIO);
    EXPECT_FALSE(PLRCopyFile("/tmp/src", "/tmp/dst"));
    EXPECT_EQ(sys::CallCount(op), 2u);
    sys::ClearFaults();
  }
}

}  // namespace
}  // namespace plr::test
