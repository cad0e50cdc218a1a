#include "sim/topology.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace zerva_sim {
namespace {

size_t CountType(const Topology& t, uint32_t type) {
  return static_cast<size_t>(
      std::count_if(t.ports.begin(), t.ports.end(), [type](const SimPort& p) { return p.type == type; }));
}

TEST(TopologyTest, DefaultIsAMidSizeArray) {
  const Topology t = DefaultTopology();
  EXPECT_EQ(t.controllers, (std::vector<std::string>{"0A", "0B", "1A", "1B"}));
  EXPECT_EQ(CountType(t, 213), 16u);
  EXPECT_EQ(CountType(t, 212), 8u);
  EXPECT_EQ(CountType(t, 252), 4u);
  EXPECT_EQ(CountType(t, 235), 2u);
  EXPECT_EQ(t.luns.size(), 400u);
  EXPECT_EQ(t.fileSystems.size(), 48u);
  EXPECT_EQ(t.features, (std::set<int>{48, 49, 602}));
  EXPECT_TRUE(t.switchOn);
}

TEST(TopologyTest, DefaultHasPortsThatDoNotQualifyAndBondMembers) {
  const Topology t = DefaultTopology();
  size_t bonded = 0, offline = 0;
  for (const SimPort& p : t.ports) {
    if (!p.bond.empty()) {
      ++bonded;
      EXPECT_EQ(p.type, 213u);
    }
    if (p.status != 0 && p.status != 5 && p.status != 6) ++offline;
  }
  EXPECT_EQ(bonded, 4u);
  EXPECT_GT(offline, 0u);
}

TEST(TopologyTest, ShippedDefaultFileEqualsTheBuiltIn) {
  Topology file;
  std::string error;
  ASSERT_TRUE(LoadTopologyFile(std::string(SIM_TOPOLOGY_DIR) + "/default.conf", &file, &error)) << error;
  const Topology builtIn = DefaultTopology();
  EXPECT_EQ(file.controllers, builtIn.controllers);
  EXPECT_EQ(file.luns, builtIn.luns);
  EXPECT_EQ(file.fileSystems, builtIn.fileSystems);
  ASSERT_EQ(file.ports.size(), builtIn.ports.size());
  for (size_t i = 0; i < file.ports.size(); ++i) {
    EXPECT_EQ(file.ports[i].id, builtIn.ports[i].id);
    EXPECT_EQ(file.ports[i].name, builtIn.ports[i].name);
    EXPECT_EQ(file.ports[i].status, builtIn.ports[i].status);
    EXPECT_EQ(file.ports[i].bond, builtIn.ports[i].bond);
  }
}

TEST(TopologyTest, LargeFileHasTheAdvertisedSize) {
  Topology t;
  std::string error;
  ASSERT_TRUE(LoadTopologyFile(std::string(SIM_TOPOLOGY_DIR) + "/large.conf", &t, &error)) << error;
  EXPECT_EQ(t.controllers.size(), 8u);
  EXPECT_EQ(t.controllers.back(), "1D");
  EXPECT_EQ(t.ports.size(), 256u);
  EXPECT_EQ(t.luns.size(), 16384u);
  EXPECT_EQ(t.fileSystems.size(), 2048u);
  EXPECT_EQ(t.features.size(), 3u);
}

TEST(TopologyTest, ParsesExplicitObjects) {
  Topology t;
  std::string error;
  ASSERT_TRUE(
      ParseTopology("# comment\ncontrollers 0A 3D\nport 213 7 p7 5 bond=b1  # member\n"
                    "port 235 8 b1 6\nlun_ids 5 10-12\nfilesystem_ids 3-4\nfeatures none\n"
                    "switch off\npage_size 10\n",
                    &t, &error))
      << error;
  EXPECT_EQ(t.controllers, (std::vector<std::string>{"0A", "3D"}));
  ASSERT_EQ(t.ports.size(), 2u);
  EXPECT_EQ(t.ports[0].bond, "b1");
  EXPECT_EQ(t.findPort(235, "8"), 1);
  EXPECT_EQ(t.findPort(213, "8"), -1);
  EXPECT_EQ(t.luns, (std::vector<uint32_t>{5, 10, 11, 12}));
  EXPECT_EQ(t.fileSystems, (std::vector<uint32_t>{3, 4}));
  EXPECT_TRUE(t.features.empty());
  EXPECT_FALSE(t.switchOn);
  EXPECT_EQ(t.pageSize, 10u);
}

TEST(TopologyTest, RefusesBadLinesWithTheirNumber) {
  Topology t;
  std::string error;
  EXPECT_FALSE(ParseTopology("luns 3\nbogus 1\n", &t, &error));
  EXPECT_EQ(error, "line 2: unknown setting 'bogus'");
  EXPECT_FALSE(ParseTopology("controllers 0a\n", &t, &error));
  EXPECT_NE(error.find("line 1: bad controller ID '0a'"), std::string::npos);
  EXPECT_FALSE(ParseTopology("port 999 1 x 5\n", &t, &error));
  EXPECT_FALSE(ParseTopology("port 213 1 x 5\nport 212 1 y 5\n", &t, &error));
  EXPECT_NE(error.find("duplicate port ID"), std::string::npos);
  EXPECT_FALSE(ParseTopology("features 48,50\n", &t, &error));
  EXPECT_FALSE(ParseTopology("switch maybe\n", &t, &error));
  EXPECT_FALSE(ParseTopology("luns 2000000\n", &t, &error));
  EXPECT_FALSE(ParseTopology("lun_ids 9-3\n", &t, &error));
}

TEST(TopologyTest, NumbersAreDecimalButControllerIdsTakeNoLeadingZero) {
  Topology t;
  std::string error;
  ASSERT_TRUE(ParseTopology("luns 0010\nlun_ids 007 0020-021\nport 0213 09 p 05\nfeatures 048,602\n", &t, &error))
      << error;
  EXPECT_EQ(t.luns, (std::vector<uint32_t>{7, 20, 21}));
  ASSERT_EQ(t.ports.size(), 1u);
  EXPECT_EQ(t.ports[0].type, 213u);
  EXPECT_EQ(t.ports[0].id, 9u);
  EXPECT_EQ(t.findPort(213, "0009"), 0);
  EXPECT_EQ(t.features, (std::set<int>{48, 602}));
  for (const char* bad : {"luns +5\n", "luns 0x10\n", "lun_ids 1-+2\n", "page_size 99999999999999999999\n"}) {
    EXPECT_FALSE(ParseTopology(bad, &t, &error)) << bad;
  }
  for (const char* id : {"01A", "00A", "064A"}) {
    EXPECT_FALSE(ParseTopology(std::string("controllers ") + id + "\n", &t, &error)) << id;
    EXPECT_NE(error.find(std::string("bad controller ID '") + id + "'"), std::string::npos) << error;
  }
}

TEST(TopologyTest, SupportsTheLargestSizes) {
  Topology t;
  std::string error;
  ASSERT_TRUE(ParseTopology("luns 65536\nfilesystems 4096\n", &t, &error)) << error;
  EXPECT_EQ(t.luns.size(), 65536u);
  EXPECT_EQ(t.luns.back(), 65535u);
  EXPECT_EQ(t.fileSystems.front(), 1u);
  EXPECT_EQ(t.fileSystems.back(), 4096u);
}

TEST(TopologyTest, ControllerIdsFollowTheNodeNumbering) {
  EXPECT_EQ(ControllerIdOfNode(0), "0A");
  EXPECT_EQ(ControllerIdOfNode(5), "1B");
  EXPECT_EQ(ControllerIdOfNode(255), "63D");
}

TEST(TopologyTest, FeatureMaskMapsBits) {
  Topology t;
  SetFeatureMask(&t, 5);
  EXPECT_EQ(t.features, (std::set<int>{48, 602}));
}

}  // namespace
}  // namespace zerva_sim
