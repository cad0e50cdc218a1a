#include "agentpp/oidx.h"

#include <gtest/gtest.h>

namespace {

using Agentpp::Oidx;

TEST(OidxTest, ParsesDottedText) {
  Oidx o("1.3.6.1.4.1.32473.4.1.21");
  EXPECT_TRUE(o.valid());
  ASSERT_EQ(o.len(), 10u);
  EXPECT_EQ(o[0], 1u);
  EXPECT_EQ(o[6], 32473u);
  EXPECT_EQ(o.get_printable(), "1.3.6.1.4.1.32473.4.1.21");
}

TEST(OidxTest, LeadingDotIsAllowedAndEmptyTextIsTheEmptyOid) {
  EXPECT_EQ(Oidx(".1.2").get_printable(), "1.2");
  EXPECT_TRUE(Oidx("").empty());
  EXPECT_TRUE(Oidx("").valid());
  EXPECT_TRUE(Oidx(".").empty());
}

TEST(OidxTest, BadTextGivesAnInvalidEmptyOid) {
  for (const char* bad : {"1..2", "1.2.", "a.b", "1.-2", "1.4294967296", " 1.2", "1.2 "}) {
    Oidx o(bad);
    EXPECT_FALSE(o.valid()) << bad;
    EXPECT_TRUE(o.empty()) << bad;
  }
  EXPECT_EQ(Oidx("1.4294967295")[1], 4294967295u);
}

TEST(OidxTest, BuildsFromAList) {
  Oidx o{1, 2, 3};
  EXPECT_EQ(o.len(), 3u);
  EXPECT_EQ(o.get_printable(), "1.2.3");
  const uint32_t raw[] = {7, 8};
  EXPECT_EQ(Oidx(raw, 2), (Oidx{7, 8}));
}

TEST(OidxTest, OrdersLexicographically) {
  EXPECT_LT(Oidx("1.2"), Oidx("1.2.0"));
  EXPECT_LT(Oidx("1.2.9"), Oidx("1.3"));
  EXPECT_LT(Oidx("1.10"), Oidx("2"));
  EXPECT_FALSE(Oidx("1.2") < Oidx("1.2"));
}

TEST(OidxTest, CutLeftAndPrefix) {
  Oidx o("1.3.6.1.4.1.32473.4.1.21.4.1.2.17");
  Oidx table("1.3.6.1.4.1.32473.4.1.21.4");
  EXPECT_TRUE(o.startsWith(table));
  EXPECT_FALSE(table.startsWith(o));
  EXPECT_EQ(o.cut_left(table.len() + 2), Oidx("17"));
  EXPECT_TRUE(o.cut_left(99).empty());
  Oidx grown = table;
  grown += 1;
  grown += Oidx{2, 5};
  EXPECT_EQ(grown.get_printable(), "1.3.6.1.4.1.32473.4.1.21.4.1.2.5");
}

}  // namespace
