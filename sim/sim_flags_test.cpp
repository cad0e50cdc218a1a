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
  ASSERT_TRUE(Parse({"--listen", "unix:/tmp/x", "--topology", "t.conf", "--luns", "65536", "--filesystems=4096",
                     "--features", "48,602", "--switch", "off", "--seed", "9", "--device-config", "d.xml", "--fault",
                     "close", "--fault", "delay=5"},
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
  EXPECT_EQ(f.faults, (std::vector<std::string>{"close", "delay=5"}));
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

TEST(SimFlagsTest, FeaturesAcceptMaskListAndWords) {
  long m;
  std::string error;
  ASSERT_TRUE(ParseFeatures("0x3", &m, &error));
  EXPECT_EQ(m, 3);
  ASSERT_TRUE(ParseFeatures("602", &m, &error));
  EXPECT_EQ(m, 4);
  ASSERT_TRUE(ParseFeatures("all", &m, &error));
  EXPECT_EQ(m, 7);
  ASSERT_TRUE(ParseFeatures("none", &m, &error));
  EXPECT_EQ(m, 0);
  EXPECT_FALSE(ParseFeatures("48,", &m, &error));
}

TEST(SimFlagsTest, HelpNeedsNoListen) {
  SimFlags f;
  std::string error;
  ASSERT_TRUE(Parse({"--help"}, &f, &error));
  EXPECT_TRUE(f.help);
  EXPECT_NE(SimUsage("p").find("--fault RULE"), std::string::npos);
}

}  // namespace
}  // namespace zerva_sim
