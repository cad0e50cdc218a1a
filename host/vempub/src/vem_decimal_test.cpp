#include "vempub/vem_decimal.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace {

const uint64_t kU64Max = UINT64_MAX;

// Expects text to parse, within max, to expected.
void ExpectParses(const std::string& text, uint64_t max, uint64_t expected) {
  uint64_t v = 99;
  ASSERT_TRUE(ParseDecimal(text, max, &v)) << text;
  EXPECT_EQ(v, expected) << text;
}

// Expects text to be refused within max, and the value left as it was.
void ExpectRefused(const std::string& text, uint64_t max) {
  uint64_t v = 42;
  EXPECT_FALSE(ParseDecimal(text, max, &v)) << text;
  EXPECT_EQ(v, 42u) << text;
}

TEST(ParseDecimalTest, DigitsGiveTheirValue) {
  ExpectParses("0", kU64Max, 0u);
  ExpectParses("17", kU64Max, 17u);
  ExpectParses("4294967296", kU64Max, 4294967296u);
}

TEST(ParseDecimalTest, LeadingZerosAreReadAsTheValue) {
  ExpectParses("007", kU64Max, 7u);
  ExpectParses("0000", kU64Max, 0u);
  // No length cap: forty zeros before the largest value still fit.
  ExpectParses(std::string(40, '0') + "18446744073709551615", kU64Max, kU64Max);
  ExpectParses(std::string(40, '0') + "65535", 65535, 65535u);
}

TEST(ParseDecimalTest, AnythingButDigitsIsRefusedAndLeavesTheValue) {
  for (const char* bad : {"", "-1", "+1", " 1", "1 ", "1a", "a1", "0x10", "1.5", "1,2", "１"}) {
    ExpectRefused(bad, kU64Max);
  }
  ExpectRefused(std::string("1\0", 2), kU64Max);
}

TEST(ParseDecimalTest, MaxIsInclusive) {
  ExpectParses("65535", 65535, 65535u);
  ExpectRefused("65536", 65535);
  ExpectParses("0", 0, 0u);
  ExpectRefused("1", 0);
  ExpectParses("18446744073709551615", kU64Max, kU64Max);
}

TEST(ParseDecimalTest, OverflowIsRefusedAtAnyLength) {
  for (const char* bad : {"18446744073709551616", "18446744073709551620", "99999999999999999999",
                          "184467440737095516150", "100000000000000000000000000000"}) {
    ExpectRefused(bad, kU64Max);
  }
  ExpectRefused("4294967296", 4294967295u);
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
