#include "sim/sim_flags.h"

#include <gtest/gtest.h>

namespace zerva_sim {
namespace {

bool Parse(std::vector<const char*> args, SimFlags* flags, std::string* error) {
  args.insert(args.begin(), "zerva-array-sim");
  return ParseSimFlags(static_cast<int>(args.size()), args.data(), flags, error);
}

TEST(SimFlagsTest, ParsesEveryFlag) {
  SimFlags f;
  std::string error;
  ASSERT_TRUE(Parse({"--listen",
                     "unix:/tmp/x",
                     "--topology",
                     "t.conf",
                     "--luns",
                     "65536",
                     "--filesystems=4096",
                     "--features",
                     "48,602",
                     "--switch",
                     "off",
                     "--seed",
                     "9",
                     "--device-config",
                     "d.xml",
                     "--fault",
                     "close",
                     "--fault",
                     "delay=5",
                     "--latency",
                     "1",
                     "--latency=GET_CUR_STATISTIC_DATA=5"},
                    &f, &error))
      << error;
  EXPECT_EQ(f.options.listen, "unix:/tmp/x");
  EXPECT_EQ(f.options.topologyFile, "t.conf");
  EXPECT_EQ(f.options.luns, 65536);
  EXPECT_EQ(f.options.fileSystems, 4096);
  EXPECT_EQ(f.options.features, 5);
  EXPECT_EQ(f.options.switchOn, 0);
  EXPECT_EQ(f.options.seed, 9u);
  EXPECT_EQ(f.options.deviceConfig, "d.xml");
  EXPECT_EQ(f.options.faults, (std::vector<std::string>{"close", "delay=5"}));
  EXPECT_EQ(f.options.latencies, (std::vector<std::string>{"1", "GET_CUR_STATISTIC_DATA=5"}));
}

TEST(SimFlagsTest, RefusesBadFlagsClearly) {
  SimFlags f;
  std::string error;
  EXPECT_FALSE(Parse({"--listen", "unix:/x", "--bogus"}, &f, &error));
  EXPECT_EQ(error, "unknown flag '--bogus'");
  EXPECT_FALSE(Parse({"--luns", "5"}, &f, &error));
  EXPECT_EQ(error, "--listen is required");
  EXPECT_FALSE(Parse({"--listen"}, &f, &error));
  EXPECT_EQ(error, "--listen needs a value");
  EXPECT_FALSE(Parse({"--listen", "unix:/x", "--luns", "-1"}, &f, &error));
  EXPECT_FALSE(Parse({"--listen", "unix:/x", "--switch", "maybe"}, &f, &error));
  EXPECT_FALSE(Parse({"--listen", "unix:/x", "--features", "8"}, &f, &error));
  EXPECT_FALSE(Parse({"--listen", "unix:/x", "--seed", "x"}, &f, &error));
}

TEST(SimFlagsTest, NumbersAreDecimalWithLeadingZerosRead) {
  SimFlags f;
  std::string error;
  ASSERT_TRUE(Parse({"--listen=unix:/x", "--luns", "007", "--seed", "010", "--features", "05"}, &f, &error)) << error;
  EXPECT_EQ(f.options.luns, 7);
  EXPECT_EQ(f.options.seed, 10u);
  EXPECT_EQ(f.options.features, 5);
  ASSERT_TRUE(Parse({"--listen=unix:/x", "--seed", "18446744073709551615"}, &f, &error)) << error;
  EXPECT_EQ(f.options.seed, 18446744073709551615u);
  for (const char* seed : {"0x10", "+5", " 5", "18446744073709551616", ""}) {
    EXPECT_FALSE(Parse({"--listen=unix:/x", "--seed", seed}, &f, &error)) << seed;
    EXPECT_EQ(error.rfind("--seed: ", 0), 0u) << seed << ": " << error;
  }
  EXPECT_FALSE(Parse({"--listen=unix:/x", "--luns", "1048577"}, &f, &error));
  EXPECT_FALSE(Parse({"--listen=unix:/x", "--luns", "+5"}, &f, &error));
}

TEST(SimFlagsTest, UnknownFlagsMissingValuesAndStrayArgumentsAreNamed) {
  SimFlags f;
  std::string error;
  EXPECT_FALSE(Parse({"--listen", "unix:/x", "-q"}, &f, &error));
  EXPECT_EQ(error, "unknown flag '-q'");
  EXPECT_FALSE(Parse({"--listen", "unix:/x", "--bogus=1"}, &f, &error));
  EXPECT_EQ(error, "unknown flag '--bogus'");
  EXPECT_FALSE(Parse({"--listen", "unix:/x", "--seed"}, &f, &error));
  EXPECT_EQ(error, "--seed needs a value");
  EXPECT_FALSE(Parse({"--listen", "unix:/x", "--help=1"}, &f, &error));
  EXPECT_EQ(error, "--help takes no value");
  EXPECT_FALSE(Parse({"--listen", "unix:/x", "extra"}, &f, &error));
  EXPECT_EQ(error, "unexpected argument 'extra'");
}

TEST(SimFlagsTest, FeaturesAcceptMaskListAndWords) {
  long m;
  std::string error;
  ASSERT_TRUE(ParseFeatures("0x3", &m, &error));
  EXPECT_EQ(m, 3);
  ASSERT_TRUE(ParseFeatures("6", &m, &error));
  EXPECT_EQ(m, 6);
  for (const char* bad : {"8", "0x8", "+3", " 3", "0x", "-1", "3a"}) {
    EXPECT_FALSE(ParseFeatures(bad, &m, &error)) << bad;
  }
  ASSERT_TRUE(ParseFeatures("602", &m, &error));
  EXPECT_EQ(m, 4);
  ASSERT_TRUE(ParseFeatures("all", &m, &error));
  EXPECT_EQ(m, 7);
  ASSERT_TRUE(ParseFeatures("none", &m, &error));
  EXPECT_EQ(m, 0);
  EXPECT_FALSE(ParseFeatures("48,", &m, &error));
}

TEST(SimFlagsTest, HelpNeedsNoListen) {
  for (const char* help : {"--help", "-h"}) {
    SimFlags f;
    std::string error;
    ASSERT_TRUE(Parse({help}, &f, &error)) << help << ": " << error;
    EXPECT_TRUE(f.help) << help;
    EXPECT_FALSE(f.version) << help;
  }
  EXPECT_NE(SimUsage("p").find("--fault RULE"), std::string::npos);
  EXPECT_NE(SimUsage("p").find("--version"), std::string::npos);
}

TEST(SimFlagsTest, VersionNeedsNoListen) {
  SimFlags f;
  std::string error;
  ASSERT_TRUE(Parse({"--version"}, &f, &error)) << error;
  EXPECT_TRUE(f.version);
  EXPECT_FALSE(f.help);
}

}  // namespace
}  // namespace zerva_sim
