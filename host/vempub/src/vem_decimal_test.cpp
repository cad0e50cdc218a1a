#include "vempub/vem_decimal.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace {

const uint64_t kU64Max = UINT64_MAX;

TEST(ParseDecimalTest, DigitsGiveTheirValue) {
  uint64_t v = 99;
  ASSERT_TRUE(ParseDecimal("0", kU64Max, &v));
  EXPECT_EQ(v, 0u);
  ASSERT_TRUE(ParseDecimal("17", kU64Max, &v));
  EXPECT_EQ(v, 17u);
  ASSERT_TRUE(ParseDecimal("4294967296", kU64Max, &v));
  EXPECT_EQ(v, 4294967296u);
}

TEST(ParseDecimalTest, LeadingZerosAreReadAsTheValue) {
  uint64_t v = 99;
  ASSERT_TRUE(ParseDecimal("007", kU64Max, &v));
  EXPECT_EQ(v, 7u);
  ASSERT_TRUE(ParseDecimal("0000", kU64Max, &v));
  EXPECT_EQ(v, 0u);
  // No length cap: forty zeros before the largest value still fit.
  ASSERT_TRUE(ParseDecimal(std::string(40, '0') + "18446744073709551615", kU64Max, &v));
  EXPECT_EQ(v, kU64Max);
  ASSERT_TRUE(ParseDecimal(std::string(40, '0') + "65535", 65535, &v));
  EXPECT_EQ(v, 65535u);
}

TEST(ParseDecimalTest, AnythingButDigitsIsRefusedAndLeavesTheValue) {
  for (const char* bad : {"", "-1", "+1", " 1", "1 ", "1a", "a1", "0x10", "1.5", "1,2", "１"}) {
    uint64_t v = 42;
    EXPECT_FALSE(ParseDecimal(bad, kU64Max, &v)) << bad;
    EXPECT_EQ(v, 42u) << bad;
  }
  uint64_t v = 42;
  EXPECT_FALSE(ParseDecimal(std::string("1\0", 2), kU64Max, &v));
  EXPECT_EQ(v, 42u);
}

TEST(ParseDecimalTest, MaxIsInclusive) {
  uint64_t v = 0;
  ASSERT_TRUE(ParseDecimal("65535", 65535, &v));
  EXPECT_EQ(v, 65535u);
  v = 42;
  EXPECT_FALSE(ParseDecimal("65536", 65535, &v));
  EXPECT_EQ(v, 42u);
  ASSERT_TRUE(ParseDecimal("0", 0, &v));
  EXPECT_EQ(v, 0u);
  v = 42;
  EXPECT_FALSE(ParseDecimal("1", 0, &v));
  EXPECT_EQ(v, 42u);
  ASSERT_TRUE(ParseDecimal("18446744073709551615", kU64Max, &v));
  EXPECT_EQ(v, kU64Max);
}

TEST(ParseDecimalTest, OverflowIsRefusedAtAnyLength) {
  for (const char* bad : {"18446744073709551616", "18446744073709551620", "99999999999999999999",
                          "184467440737095516150", "100000000000000000000000000000"}) {
    uint64_t v = 42;
    EXPECT_FALSE(ParseDecimal(bad, kU64Max, &v)) << bad;
    EXPECT_EQ(v, 42u) << bad;
  }
  uint64_t v = 42;
  EXPECT_FALSE(ParseDecimal("4294967296", 4294967295u, &v));
  EXPECT_EQ(v, 42u);
}

TEST(ParseDecimalTest, RangeFormReadsOnlyItsField) {
  const std::string text = "12,0034,x";
  uint64_t v = 0;
  ASSERT_TRUE(ParseDecimal(text, 0, 2, kU64Max, &v));
  EXPECT_EQ(v, 12u);
  ASSERT_TRUE(ParseDecimal(text, 3, 7, kU64Max, &v));
  EXPECT_EQ(v, 34u);
  v = 42;
  EXPECT_FALSE(ParseDecimal(text, 2, 2, kU64Max, &v));  // empty field
  EXPECT_FALSE(ParseDecimal(text, 0, 4, kU64Max, &v));  // "12,0"
  EXPECT_FALSE(ParseDecimal(text, 8, 9, kU64Max, &v));  // "x"
  EXPECT_EQ(v, 42u);
}

}  // namespace
