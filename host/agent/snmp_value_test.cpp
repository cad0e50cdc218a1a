#include "host/agent/snmp_value.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "tests/support/fake_backend.h"

namespace zerva_agent {
namespace {

using zerva_test::Rec;

// The first cell of a record built by Rec.
class OneCell {
 public:
  explicit OneCell(const Rec& rec) : record_(rec.build()) {}
  const CTLVCell& operator*() const { return *record_->cells().front(); }

 private:
  std::unique_ptr<CTLVRecordV3> record_;
};

SnmpValue Convert(const Rec& rec, MibSyntax syntax) {
  OneCell cell(rec);
  SnmpValue v;
  std::string why;
  EXPECT_TRUE(CellToValue(*cell, syntax, &v, &why)) << why;
  return v;
}

TEST(SnmpValueTest, TextCellLosesItsTerminatingNul) {
  SnmpValue v = Convert(Rec().str(1, "fs12"), MibSyntax::DisplayString);
  EXPECT_EQ(kAsnOctetString, v.type);
  EXPECT_EQ("fs12", v.bytes);
  EXPECT_EQ(4u, v.bytes.size());
}

TEST(SnmpValueTest, TextWithoutNulIsKeptWhole) {
  EXPECT_EQ("abc", Convert(Rec().rawstr(1, "abc"), MibSyntax::OctetString).bytes);
}

TEST(SnmpValueTest, NumbersTakeTheTypeOfTheSyntax) {
  EXPECT_EQ(kAsnGauge32, Convert(Rec().u32(1, 7), MibSyntax::Gauge32).type);
  EXPECT_EQ(kAsnGauge32, Convert(Rec().u32(1, 7), MibSyntax::Unsigned32).type);
  EXPECT_EQ(kAsnCounter32, Convert(Rec().u32(1, 7), MibSyntax::Counter32).type);
  EXPECT_EQ(kAsnCounter64, Convert(Rec().u64(1, 7), MibSyntax::Counter64).type);
  EXPECT_EQ(kAsnTimeTicks, Convert(Rec().u32(1, 7), MibSyntax::TimeTicks).type);
  EXPECT_EQ(kAsnInteger, Convert(Rec().i32(1, -7), MibSyntax::Integer32).type);
  EXPECT_EQ(-7, Convert(Rec().i32(1, -7), MibSyntax::Integer32).asInt32());
}

TEST(SnmpValueTest, Counter64KeepsAll64Bits) {
  EXPECT_EQ(0x123456789ABULL, Convert(Rec().u64(1, 0x123456789ABULL), MibSyntax::Counter64).number);
}

TEST(SnmpValueTest, WideValuesWrapForCounter32AndLatchForGauge32) {
  const unsigned long long big = (1ULL << 32) + 5;
  EXPECT_EQ(5u, Convert(Rec().u64(1, big), MibSyntax::Counter32).number);
  EXPECT_EQ(4294967295u, Convert(Rec().u64(1, big), MibSyntax::Gauge32).number);
  EXPECT_EQ(2147483647, Convert(Rec().u32(1, 4000000000u), MibSyntax::Integer32).asInt32());
  EXPECT_EQ(0u, Convert(Rec().i32(1, -3), MibSyntax::Unsigned32).number);
}

TEST(SnmpValueTest, DecimalTextFeedsNumericSyntaxes) {
  EXPECT_EQ(42u, Convert(Rec().str(1, "42"), MibSyntax::Gauge32).number);
  // Leading zeros are read as the value, at any length.
  EXPECT_EQ(7u, Convert(Rec().str(1, "0000000000000000000000007"), MibSyntax::Counter64).number);
}

TEST(SnmpValueTest, NonNumericTextIsRefusedForNumericSyntax) {
  OneCell cell(Rec().str(1, "4x"));
  SnmpValue v;
  std::string why;
  EXPECT_FALSE(CellToValue(*cell, MibSyntax::Gauge32, &v, &why));
  EXPECT_NE(std::string::npos, why.find("4x"));
}

TEST(SnmpValueTest, NumbersFeedStringSyntaxesAsDecimal) {
  EXPECT_EQ("1234", Convert(Rec().u32(1, 1234), MibSyntax::DisplayString).bytes);
}

TEST(SnmpValueTest, IntegerIndexIsOneSubIdentifier) {
  OneCell cell(Rec().u32(1, 1234));
  Agentpp::Oidx index;
  std::string why;
  ASSERT_TRUE(CellToIndex(*cell, MibIndexEncoding::Integer, &index, &why));
  EXPECT_EQ(Agentpp::Oidx({1234}), index);
  OneCell text(Rec().str(1, "77"));
  ASSERT_TRUE(CellToIndex(*text, MibIndexEncoding::Integer, &index, &why));
  EXPECT_EQ(Agentpp::Oidx({77}), index);
}

TEST(SnmpValueTest, StringIndexIsLengthThenBytesWithoutNul) {
  OneCell cell(Rec().str(1, "fs1"));
  Agentpp::Oidx index;
  std::string why;
  ASSERT_TRUE(CellToIndex(*cell, MibIndexEncoding::String, &index, &why));
  EXPECT_EQ(Agentpp::Oidx({3, 'f', 's', '1'}), index);
}

TEST(SnmpValueTest, IntegerIndexBeyond32BitsIsRefused) {
  OneCell cell(Rec().u64(1, 1ULL << 32));
  Agentpp::Oidx index;
  std::string why;
  EXPECT_FALSE(CellToIndex(*cell, MibIndexEncoding::Integer, &index, &why));
}

TEST(SnmpValueTest, ValidIndexShapes) {
  EXPECT_TRUE(IsValidIndex(Agentpp::Oidx({5}), MibIndexEncoding::Integer));
  EXPECT_FALSE(IsValidIndex(Agentpp::Oidx({5, 1}), MibIndexEncoding::Integer));
  EXPECT_FALSE(IsValidIndex(Agentpp::Oidx(), MibIndexEncoding::Integer));
  EXPECT_TRUE(IsValidIndex(Agentpp::Oidx({2, 'a', 'b'}), MibIndexEncoding::String));
  EXPECT_FALSE(IsValidIndex(Agentpp::Oidx({3, 'a', 'b'}), MibIndexEncoding::String));
  EXPECT_FALSE(IsValidIndex(Agentpp::Oidx({1, 300}), MibIndexEncoding::String));
}

}  // namespace
}  // namespace zerva_agent
