#include "snmpcommon/snmp_comm_util.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "snmpcommon/snmp_read_failures.h"

using ::testing::ElementsAre;

namespace {

TEST(ParseCtrlNodeIDTest, EngineAndSlotGiveTheNodeNumber) {
  EXPECT_EQ(CSnmpCommUtil::ParseCtrlNodeID("0A"), 0u);
  EXPECT_EQ(CSnmpCommUtil::ParseCtrlNodeID("0B"), 1u);
  EXPECT_EQ(CSnmpCommUtil::ParseCtrlNodeID("0D"), 3u);
  EXPECT_EQ(CSnmpCommUtil::ParseCtrlNodeID("1A"), 4u);
  EXPECT_EQ(CSnmpCommUtil::ParseCtrlNodeID("12C"), 50u);
  EXPECT_EQ(CSnmpCommUtil::ParseCtrlNodeID("63D"), 255u);
}

TEST(ParseCtrlNodeIDTest, OtherTextsAreNotControllerIds) {
  for (const char* bad : {"", "A", "0", "0E", "0a", "64A", "01A", "-1A", " 0A", "0A ", "123A", "1.5A", "X0A"}) {
    EXPECT_EQ(CSnmpCommUtil::ParseCtrlNodeID(bad), 0xFFFFFFFFu) << bad;
  }
}

TEST(ParseCtrlNodeIDTest, NodeToIdIsTheInverse) {
  for (unsigned node = 0; node < 256; ++node) {
    EXPECT_EQ(CSnmpCommUtil::ParseCtrlNodeID(CSnmpCommUtil::CtrlNodeIDFromNode(node)), node);
  }
  EXPECT_EQ(CSnmpCommUtil::CtrlNodeIDFromNode(5), "1B");
}

TEST(StrToUintTest, PlainDecimalNumbers) {
  EXPECT_EQ(StrToUint("0"), 0u);
  EXPECT_EQ(StrToUint("17"), 17u);
  EXPECT_EQ(StrToUint("007"), 7u);
  EXPECT_EQ(StrToUint("4294967295"), 4294967295u);
}

TEST(StrToUintTest, BadTextGivesZero) {
  for (const char* bad : {"", "-1", "+1", " 1", "1 ", "1a", "0x10", "4294967296", "99999999999999999999"}) {
    EXPECT_EQ(StrToUint(bad), 0u) << bad;
  }
}

TEST(UintToStrTest, Decimal) {
  EXPECT_EQ(UintToStr(0), "0");
  EXPECT_EQ(UintToStr(4294967295u), "4294967295");
}

TEST(SplitToUintTest, AppendsEveryField) {
  std::vector<unsigned int> out{9};
  EXPECT_TRUE(SplitToUint("1,2,3", ',', out));
  EXPECT_THAT(out, ElementsAre(9u, 1u, 2u, 3u));
  std::vector<unsigned int> one;
  EXPECT_TRUE(SplitToUint("4294967295", ',', one));
  EXPECT_THAT(one, ElementsAre(4294967295u));
}

TEST(SplitToUintTest, RefusesBadTextsWholeAndLeavesOutAlone) {
  for (const char* bad : {"", ",", "1,", ",1", "1,,2", "1, 2", "1,-2", "+1", "1,x", "1,4294967296", "1;2"}) {
    std::vector<unsigned int> out{7};
    EXPECT_FALSE(SplitToUint(bad, ',', out)) << bad;
    EXPECT_THAT(out, ElementsAre(7u)) << bad;
  }
}

TEST(SplitToUintTest, EveryRefusedTextIsCountedAsAFailedRead) {
  const uint64_t texts = CSnmpReadFailures::refusedTexts();
  const uint64_t calls = CSnmpReadFailures::failedCalls();
  std::vector<unsigned int> out;
  EXPECT_TRUE(SplitToUint("1,2", ',', out));
  EXPECT_EQ(texts, CSnmpReadFailures::refusedTexts());
  EXPECT_FALSE(SplitToUint("1,x", ',', out));
  EXPECT_FALSE(SplitToUint("", ',', out));
  EXPECT_EQ(texts + 2, CSnmpReadFailures::refusedTexts());
  EXPECT_EQ(calls, CSnmpReadFailures::failedCalls());
}

TEST(SplitToUintTest, OtherSeparators) {
  std::vector<unsigned int> out;
  EXPECT_TRUE(SplitToUint("5;6", ';', out));
  EXPECT_THAT(out, ElementsAre(5u, 6u));
}

}  // namespace
