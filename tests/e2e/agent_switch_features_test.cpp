// The collection switch and the array's features as a manager sees them:
// switched off every table is empty, on again every table has its rows;
// the NFS, SMB and file-system tables are served exactly when the array
// reports features 48, 49 and 602.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "tests/e2e/e2e_support.h"

namespace zerva_e2e {
namespace {

// The row indexes of a table in a GETBULK walk of it.
std::set<Oid> BulkRows(const AgentUnderTest& agent, const zerva_agent::MibObject& table, int* rc, std::string* raw) {
  const ParsedWalk walk = Walk(agent, table.oid, "snmpbulkwalk", "-Cr30", rc, raw);
  std::vector<std::string> problems;
  std::set<Oid> rows;
  const Oid indexColumn = zerva_test::ColumnOid(table.oid, table.indexColumn);
  for (const auto& s : InstancesUnder(walk, table.oid, &problems)) {
    if (Under(s.first, indexColumn)) rows.insert(Oid(s.first.begin() + indexColumn.size(), s.first.end()));
  }
  return rows;
}

TEST(SwitchTest, SwitchedOffEveryTableIsEmptyAndOnAgainEveryTableHasItsRows) {
  AgentUnderTest agent;
  std::string error;
  ASSERT_TRUE(agent.start(SmallArray(), &error)) << error;
  const unsigned long long setSwitch = agent.array().codes().setSwitch;

  int rc = -1;
  std::string out = Tool(agent, "snmpset", kWriteCommunity, OidText(SwitchOid()) + " u 0", &rc);
  ASSERT_EQ(0, rc) << out;
  EXPECT_EQ(0u, agent.array().switchState()) << "the write did not reach the array";
  EXPECT_EQ(1u, agent.requests(setSwitch));

  for (const zerva_agent::MibObject* table : MibTables()) {
    std::string raw;
    const ParsedWalk walk = Walk(agent, table->oid, "snmpbulkwalk", "-Cr30", &rc, &raw);
    EXPECT_EQ(0, rc) << table->name << ":\n" << raw;
    std::vector<std::string> problems;
    EXPECT_TRUE(InstancesUnder(walk, table->oid, &problems).empty()) << table->name << " switched off:\n" << raw;
    // Empty, not failing: no error, no timeout.
    EXPECT_EQ(std::string::npos, raw.find("Error")) << raw;
    EXPECT_EQ(std::string::npos, raw.find("Timeout")) << raw;
  }

  out = Tool(agent, "snmpset", kWriteCommunity, OidText(SwitchOid()) + " u 1", &rc);
  ASSERT_EQ(0, rc) << out;
  EXPECT_EQ(1u, agent.array().switchState());
  for (const zerva_agent::MibObject* table : MibTables()) {
    const TableTruth truth = Truth(agent, *table);
    ASSERT_FALSE(truth.rowIndexes.empty()) << table->name;
    std::string raw;
    const std::set<Oid> rows = BulkRows(agent, *table, &rc, &raw);
    EXPECT_EQ(0, rc) << raw;
    EXPECT_EQ(std::set<Oid>(truth.rowIndexes.begin(), truth.rowIndexes.end()), rows) << table->name << ":\n" << raw;
  }
}

// One agent per combination of the three features (the agent asks the
// array's capabilities once, when it loads the module).
class FeatureCombinationTest : public ::testing::TestWithParam<int> {};

TEST_P(FeatureCombinationTest, OptionalTablesFollowTheArraysFeatures) {
  const int mask = GetParam();
  AgentUnderTest agent;
  AgentUnderTest::Options options = SmallArray();
  options.features = mask;
  options.luns = 3;  // the LUN and file-system tables are only counted here
  options.fileSystems = 2;
  std::string error;
  ASSERT_TRUE(agent.start(options, &error)) << error;

  int rc = -1;
  std::string raw;
  const ParsedWalk walk = Walk(agent, ParseOid(zerva_test::kSubtree), "snmpbulkwalk", "-Cr50", &rc, &raw);
  ASSERT_EQ(0, rc) << raw;

  const bool nfs = (mask & 1) != 0, smb = (mask & 2) != 0, fs = (mask & 4) != 0;
  size_t tablesServed = 0;
  for (const zerva_agent::MibObject* table : MibTables()) {
    const std::string& name = table->name;
    bool expectServed = true;
    if (name.compare(0, 10, "vemPerfNfs") == 0) expectServed = nfs;
    if (name.compare(0, 10, "vemPerfSmb") == 0) expectServed = smb;
    if (name == "vemPerfFsTable") expectServed = fs;

    bool truthServed = false;
    const TableTruth truth = Truth(agent, *table, &truthServed);
    ASSERT_EQ(expectServed, truthServed) << name;
    std::vector<std::string> problems;
    const std::map<Oid, Value> served = InstancesUnder(walk, table->oid, &problems);
    EXPECT_TRUE(problems.empty()) << name;
    EXPECT_EQ(expectServed, !served.empty()) << name << " with features mask " << mask;
    if (expectServed) {
      ++tablesServed;
      // Served tables are complete, node columns 11 and 12 included only
      // with file-system statistics.
      EXPECT_EQ("", Diff(truth.instances, served)) << name;
    }
  }
  // The start-up line counts the handlers: the switch and the served tables.
  EXPECT_NE(std::string::npos, agent.log().find(" " + std::to_string(tablesServed + 1) + " handlers ")) << agent.log();
}

INSTANTIATE_TEST_SUITE_P(AllEight, FeatureCombinationTest, ::testing::Range(0, 8),
                         [](const ::testing::TestParamInfo<int>& info) {
                           const int m = info.param;
                           std::string name = "Features";
                           if (m == 0) name += "None";
                           if (m & 1) name += "48";
                           if (m & 2) name += "49";
                           if (m & 4) name += "602";
                           return name;
                         });

}  // namespace
}  // namespace zerva_e2e
