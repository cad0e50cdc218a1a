#include "sim/latency.h"

#include <gtest/gtest.h>

namespace zerva_sim {
namespace {

bool Resolve(const std::string& name, unsigned long long* id) {
  if (name != "GET_CUR_STATISTIC_DATA") return false;
  *id = 59594907664ULL;
  return true;
}

LatencySetting Parse(const std::string& text) {
  LatencySetting setting;
  std::string error;
  EXPECT_TRUE(ParseLatency(text, Resolve, &setting, &error)) << text << ": " << error;
  return setting;
}

TEST(LatencyTest, ParsesEveryCommandOrOneByNameOrIdentifier) {
  const LatencySetting any = Parse("5");
  EXPECT_TRUE(any.anyCommand);
  EXPECT_EQ(any.ms, 5u);
  const LatencySetting named = Parse("GET_CUR_STATISTIC_DATA=1");
  EXPECT_FALSE(named.anyCommand);
  EXPECT_EQ(named.command, 59594907664ULL);
  EXPECT_EQ(named.ms, 1u);
  EXPECT_EQ(Parse("0xD0000C000=60000").command, 0xD0000C000ULL);
  EXPECT_EQ(Parse("12=0").ms, 0u);
}

TEST(LatencyTest, TextNamesTheCommandInHexadecimal) {
  EXPECT_EQ(LatencyText(Parse("7")), "7");
  EXPECT_EQ(LatencyText(Parse("GET_CUR_STATISTIC_DATA=3")), "0xDE0222010=3");
  // The text parses back to the same setting.
  const LatencySetting back = Parse(LatencyText(Parse("GET_CUR_STATISTIC_DATA=3")));
  EXPECT_EQ(back.command, 59594907664ULL);
  EXPECT_EQ(back.ms, 3u);
}

TEST(LatencyTest, RefusesBadTexts) {
  LatencySetting setting;
  for (const char* bad : {"", "x", "-1", "60001", "1.5", "NOPE=1", "=1", "GET_CUR_STATISTIC_DATA=", "5ms"}) {
    std::string error;
    EXPECT_FALSE(ParseLatency(bad, Resolve, &setting, &error)) << bad;
    EXPECT_FALSE(error.empty()) << bad;
  }
  std::string error;
  ParseLatency("NOPE=1", Resolve, &setting, &error);
  EXPECT_EQ(error, "unknown command 'NOPE'");
  ParseLatency("60001", Resolve, &setting, &error);
  EXPECT_EQ(error, "latency needs milliseconds, 0 to 60000: [COMMAND=]MS");
}

TEST(LatencyTest, ACommandsOwnLatencyWinsOverTheEveryCommandOne) {
  LatencyTable table;
  EXPECT_EQ(table.of(5), 0u);
  table.set(Parse("2"));
  table.set(Parse("5=9"));
  EXPECT_EQ(table.of(5), 9u);
  EXPECT_EQ(table.of(6), 2u);
  // 0 removes a command's own latency: the every-command one applies again.
  table.set(Parse("5=0"));
  EXPECT_EQ(table.of(5), 2u);
}

TEST(LatencyTest, ListsTheEveryCommandSettingFirstAndClearRemovesAll) {
  LatencyTable table;
  table.set(Parse("9=4"));
  table.set(Parse("3"));
  table.set(Parse("8=1"));
  std::vector<std::string> texts;
  for (const LatencySetting& s : table.list()) texts.push_back(LatencyText(s));
  EXPECT_EQ(texts, (std::vector<std::string>{"3", "0x8=1", "0x9=4"}));
  table.clear();
  EXPECT_TRUE(table.list().empty());
  EXPECT_EQ(table.of(9), 0u);
}

}  // namespace
}  // namespace zerva_sim
