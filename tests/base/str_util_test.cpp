#include <gtest/gtest.h>

#include "base/str-util.h"

namespace plr {
namespace {

TEST(StrToInt32, AcceptsDecimalHexAndSign) {
  struct Case {
    const char* text;
    int32_t value;
  } cases[] = {{"0", 0},
               {"42", 42},
               {"-42", -42},
               {"+7", 7},
               {"007", 7},
               {"0x1f", 31},
               {"0X1F", 31},
               {"0x00", 0},
               {"-0x10", -16},
               {"2147483647", INT32_MAX},
               {"-2147483648", INT32_MIN},
               {"0x7fffffff", INT32_MAX}};
  for (const Case& c : cases) {
    int32_t v = 12345;
    EXPECT_TRUE(StrToInt32(c.text, &v)) << c.text;
    EXPECT_EQ(v, c.value) << c.text;
  }
}

TEST(StrToInt32, RejectsMalformedAndOutOfRange) {
  for (const char* text :
       {"", "-", "+", "0x", "-0x", " 5", "5 ", "5x", "12a", "0x1g", "1.5", "--1", "+-1",
        "2147483648", "-2147483649", "0x80000000", "99999999999999999999", "0xffffffffffffffff1"}) {
    int32_t v = 12345;
    EXPECT_FALSE(StrToInt32(text, &v)) << '"' << text << '"';
    EXPECT_EQ(v, 12345) << "output changed on failure: " << text;
  }
  int32_t v;
  EXPECT_FALSE(StrToInt32(nullptr, &v));
}

TEST(StrToUint32, FullRangeWithoutSign) {
  uint32_t v = 0;
  EXPECT_TRUE(StrToUint32("4294967295", &v));
  EXPECT_EQ(v, UINT32_MAX);
  EXPECT_TRUE(StrToUint32("0xFFFFFFFF", &v));
  EXPECT_EQ(v, UINT32_MAX);
  EXPECT_TRUE(StrToUint32("65535", &v));
  EXPECT_EQ(v, 65535u);
  for (const char* text : {"-1", "+1", "4294967296", "0x100000000", "", "1 ", "\t1"})
    EXPECT_FALSE(StrToUint32(text, &v)) << '"' << text << '"';
  EXPECT_FALSE(StrToUint32(nullptr, &v));
}

TEST(StrPrintf, FormatsWithoutTruncation) {
  EXPECT_EQ(StrPrintf("VNET_%d_%s", 8, "NAT"), "VNET_8_NAT");
  EXPECT_EQ(StrPrintf("%s", ""), "");
  const std::string longText(5000, 'x');
  EXPECT_EQ(StrPrintf("<%s>", longText.c_str()), "<" + longText + ">");
}

}  // namespace
}  // namespace plr
