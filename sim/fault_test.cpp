#include "sim/fault.h"

#include <gtest/gtest.h>

namespace zerva_sim {
namespace {

bool Resolve(const std::string& name, unsigned long long* id) {
  if (name != "GET_CUR_STATISTIC_DATA") return false;
  *id = 59594907664ULL;
  return true;
}

FaultRule Parse(const std::string& text) {
  FaultRule rule;
  std::string error;
  EXPECT_TRUE(ParseFault(text, Resolve, &rule, &error)) << text << ": " << error;
  return rule;
}

TEST(FaultTest, ParsesEveryKind) {
  EXPECT_EQ(Parse("refuse=0x1234").code, 0x1234u);
  EXPECT_EQ(Parse("delay=250").delayMs, 250u);
  EXPECT_EQ(Parse("close").kind, FaultKind::kClose);
  EXPECT_EQ(Parse("garbage").kind, FaultKind::kGarbage);
  EXPECT_EQ(Parse("truncate").kind, FaultKind::kTruncate);
  EXPECT_EQ(Parse("bad-magic").kind, FaultKind::kBadMagic);
  EXPECT_EQ(Parse("bad-version").kind, FaultKind::kBadVersion);
  EXPECT_EQ(Parse("huge-len").kind, FaultKind::kHugeLength);
  EXPECT_EQ(Parse("bad-values").kind, FaultKind::kBadValues);
  EXPECT_EQ(FaultText(Parse("bad-values,cmd=GET_CUR_STATISTIC_DATA,count=1")), "bad-values,cmd=0xDE0222010,count=1");
  EXPECT_EQ(Parse("bad-body").kind, FaultKind::kBadBody);
}

TEST(FaultTest, ParsesOptions) {
  const FaultRule s = Parse("close,cmd=GET_CUR_STATISTIC_DATA,rate=0.25,count=3");
  EXPECT_FALSE(s.anyCommand);
  EXPECT_EQ(s.command, 59594907664ULL);
  EXPECT_DOUBLE_EQ(s.rate, 0.25);
  EXPECT_EQ(s.count, 3u);
  EXPECT_EQ(Parse("close,cmd=0xD0000C000").command, 0xD0000C000ULL);
  EXPECT_EQ(FaultText(s), "close,cmd=0xDE0222010,rate=0.25,count=3");
}

TEST(FaultTest, RefusesBadTexts) {
  FaultRule s;
  std::string error;
  for (const char* bad : {"", "explode", "refuse", "refuse=0", "delay=abc", "delay=999999", "close=1", "close,cmd=NOPE",
                          "close,rate=0", "close,rate=2", "close,count=0", "close,colour=red", "bad-values=1"}) {
    EXPECT_FALSE(ParseFault(bad, Resolve, &s, &error)) << bad;
    EXPECT_FALSE(error.empty());
  }
}

TEST(FaultTest, MatchesByCommandAndCountsDown) {
  FaultTable table(1);
  table.add(Parse("refuse=7,cmd=5,count=2"));
  FaultRule hit;
  EXPECT_FALSE(table.match(6, &hit));
  EXPECT_TRUE(table.match(5, &hit));
  EXPECT_EQ(hit.code, 7u);
  EXPECT_TRUE(table.match(5, &hit));
  EXPECT_FALSE(table.match(5, &hit));
  EXPECT_TRUE(table.list().empty());
}

TEST(FaultTest, ClearRemovesEveryFault) {
  FaultTable table(1);
  table.add(Parse("close"));
  FaultRule hit;
  EXPECT_TRUE(table.match(1, &hit));
  table.clear();
  EXPECT_FALSE(table.match(1, &hit));
}

TEST(FaultTest, RateHitsAboutThatShare) {
  FaultTable table(42);
  table.add(Parse("close,rate=0.3"));
  int hits = 0;
  FaultRule hit;
  for (int i = 0; i < 2000; ++i) hits += table.match(1, &hit) ? 1 : 0;
  EXPECT_GT(hits, 450);
  EXPECT_LT(hits, 750);
}

}  // namespace
}  // namespace zerva_sim
