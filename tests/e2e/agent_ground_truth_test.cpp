// What the agent serves equals the simulated array's ground truth: every
// table row for row and cell for cell (snmpwalk and snmpbulkwalk), the
// switch, the order of the subtree (snmpgetnext across table boundaries),
// and the tables as a manager with the MIB loaded sees them (snmptable,
// values in their units).
#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/e2e/e2e_support.h"

namespace zerva_e2e {
namespace {

// The tables the module serves with every feature on, in OID order.
const char* const kTables[] = {
    "vemPerfNodeTable",  "vemPerfLunTable",   "vemPerfPortTable",  "vemPerfCacheTable", "vemPerfNfsV3Table",
    "vemPerfNfsV4Table", "vemPerfSmbV1Table", "vemPerfSmbV2Table", "vemPerfFsTable",    "vemPerfNfsV41Table",
};

// Tables with more instances than this are walked with GETBULK as well.
const size_t kBulkWalkFrom = 60;

TEST(MibTablesTest, EveryTableOfTheMibIsCoveredHere) {
  std::vector<std::string> names;
  for (const zerva_agent::MibObject* t : MibTables()) names.push_back(t->name);
  EXPECT_EQ(std::vector<std::string>(std::begin(kTables), std::end(kTables)), names);
}

class TableGroundTruthTest : public ::testing::TestWithParam<const char*> {};

// The instances of the table in a walk by `program` from `root` (the table,
// or its entry) equal the ground truth: same row indexes, every column's
// value and type as the MIB says.
void ExpectTableEqualsTruth(const AgentUnderTest& agent, const TableTruth& truth, const Oid& root,
                            const std::string& program, const std::string& options) {
  int rc = -1;
  std::string raw;
  const ParsedWalk walk = Walk(agent, root, program, options, &rc, &raw);
  EXPECT_EQ(0, rc) << program << ":\n" << raw;
  std::vector<std::string> problems;
  const std::map<Oid, Value> served = InstancesUnder(walk, truth.prefix, &problems);
  EXPECT_TRUE(problems.empty()) << program << ": " << problems.front();
  EXPECT_EQ("", Diff(truth.instances, served)) << program << " of " << truth.object->name;

  // The row indexes, read from the index column.
  std::set<Oid> indexes;
  const Oid indexColumn = zerva_test::ColumnOid(truth.prefix, truth.object->indexColumn);
  for (const auto& s : served) {
    if (Under(s.first, indexColumn)) indexes.insert(Oid(s.first.begin() + indexColumn.size(), s.first.end()));
    // Text cells carry no terminating NUL.
    if (s.second.type == "OCTETS") {
      EXPECT_FALSE(s.second.value.size() >= 2 && s.second.value.compare(s.second.value.size() - 2, 2, "00") == 0)
          << OidText(s.first) << " ends in a NUL byte: " << s.second.value;
    }
  }
  EXPECT_EQ(std::set<Oid>(truth.rowIndexes.begin(), truth.rowIndexes.end()), indexes) << program;
}

// Starts the agent as `options` say and checks the walks of the table
// `name` (its OID and its entry's) against the ground truth.
void ExpectServedTableEqualsTruth(const AgentUnderTest::Options& options, const char* name) {
  AgentUnderTest agent;
  std::string error;
  ASSERT_TRUE(agent.start(options, &error)) << error;
  const zerva_agent::MibObject* table = MibTable(name);
  ASSERT_NE(nullptr, table);
  bool served = false;
  const TableTruth truth = Truth(agent, *table, &served);
  ASSERT_TRUE(served);
  ASSERT_FALSE(truth.rowIndexes.empty());

  ExpectTableEqualsTruth(agent, truth, truth.prefix, "snmpwalk", "");
  if (truth.instances.size() > kBulkWalkFrom) {
    ExpectTableEqualsTruth(agent, truth, truth.prefix, "snmpbulkwalk", "-Cr25");
  }
  // Managers discover a table by walking its entry.
  Oid entry = truth.prefix;
  entry.push_back(1);
  ExpectTableEqualsTruth(agent, truth, entry, "snmpwalk", "");
}

TEST_P(TableGroundTruthTest, RowsAndValuesEqualTheSimulatorsGroundTruth) {
  ExpectServedTableEqualsTruth(SmallArray(), GetParam());
}

INSTANTIATE_TEST_SUITE_P(EveryTable, TableGroundTruthTest, ::testing::ValuesIn(kTables),
                         [](const ::testing::TestParamInfo<const char*>& info) { return std::string(info.param); });

// The same through a stock snmpd that loaded the agent as its dlmod module.
class DlmodTableGroundTruthTest : public ::testing::TestWithParam<const char*> {};

TEST_P(DlmodTableGroundTruthTest, RowsAndValuesEqualTheSimulatorsGroundTruth) {
  if (ZERVA_AGENT_SANITIZED) GTEST_SKIP() << "a sanitized module cannot be loaded into an unsanitized snmpd";
  AgentUnderTest::Options options = SmallArray();
  options.dlmod = true;
  ExpectServedTableEqualsTruth(options, GetParam());
}

INSTANTIATE_TEST_SUITE_P(EveryTable, DlmodTableGroundTruthTest, ::testing::ValuesIn(kTables),
                         [](const ::testing::TestParamInfo<const char*>& info) { return std::string(info.param); });

class AgentTruthTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(agent_.start(SmallArray(), &error)) << error;
  }
  // The ground truth of every table, in OID order.
  std::vector<TableTruth> allTables() const {
    std::vector<TableTruth> out;
    for (const zerva_agent::MibObject* t : MibTables()) out.push_back(Truth(agent_, *t));
    return out;
  }
  AgentUnderTest agent_;
};

TEST_F(AgentTruthTest, SwitchScalarIsTheArraysSwitchReadLive) {
  const zerva_agent::MibObject& scalar = Mib().objects.front();
  ASSERT_EQ(zerva_agent::MibObject::Scalar, scalar.kind);
  ASSERT_EQ(zerva_agent::MibSyntax::Unsigned32, scalar.columns.at(0).syntax);
  Oid instance = scalar.oid;
  instance.push_back(0);

  // A walk of the scalar's subtree: exactly its one instance.
  std::vector<std::string> problems;
  const std::map<Oid, Value> walked = InstancesUnder(Walk(agent_, scalar.oid), scalar.oid, &problems);
  const std::map<Oid, Value> expected = {{instance, {"Gauge32", std::to_string(agent_.array().switchState())}}};
  EXPECT_EQ("", Diff(expected, walked));

  // The array switches collection off by itself: the next GET says so.
  agent_.array().setSwitch(false);
  const ParsedWalk off = ParseWalk(Tool(agent_, "snmpget", kReadCommunity, OidText(instance)));
  ASSERT_EQ(1u, off.lines.size());
  EXPECT_EQ((Value{"Gauge32", std::to_string(agent_.array().switchState())}), off.lines[0].value);
  EXPECT_EQ("0", off.lines[0].value.value);
}

TEST_F(AgentTruthTest, GetNextOfEachTableObjectGivesItsFirstInstance) {
  for (const TableTruth& t : allTables()) {
    ASSERT_FALSE(t.instances.empty()) << t.object->name;
    const ParsedWalk next = ParseWalk(Tool(agent_, "snmpgetnext", kReadCommunity, OidText(t.prefix)));
    ASSERT_EQ(1u, next.lines.size()) << t.object->name;
    EXPECT_EQ(OidText(t.first()), OidText(next.lines[0].oid)) << t.object->name;
    EXPECT_EQ(t.instances.begin()->second, next.lines[0].value) << t.object->name;
  }
}

TEST_F(AgentTruthTest, GetNextFromTheLastInstanceOfATableGivesTheNextTable) {
  const std::vector<TableTruth> tables = allTables();
  // From the switch instance to the first table.
  Oid from = SwitchOid();
  for (const TableTruth& t : tables) {
    const ParsedWalk next = ParseWalk(Tool(agent_, "snmpgetnext", kReadCommunity, OidText(from)));
    ASSERT_EQ(1u, next.lines.size()) << "after " << OidText(from);
    EXPECT_EQ(OidText(t.first()), OidText(next.lines[0].oid)) << "after " << OidText(from);
    EXPECT_EQ(t.instances.begin()->second, next.lines[0].value) << t.object->name;
    from = t.last();
  }
  // After the last table: nothing more in the view.
  int rc = -1;
  const std::string end = Tool(agent_, "snmpgetnext", kReadCommunity, OidText(from), &rc);
  const ParsedWalk last = ParseWalk(end);
  EXPECT_TRUE(last.lines.empty()) << end;
  EXPECT_NE(std::string::npos, end.find("No more variables left in this MIB View")) << end;
}

// snmptable's cells of one row: the separator is '|'.
std::vector<std::string> SplitCells(const std::string& line) {
  std::vector<std::string> out;
  std::string cell;
  std::istringstream in(line);
  while (std::getline(in, cell, '|')) out.push_back(cell);
  return out;
}

// The text snmptable shows for a ground-truth value.
std::string TableText(const Value& v) {
  if (v.type != "OCTETS") return v.value;
  std::string text;
  for (size_t i = 0; i + 1 < v.value.size(); i += 2)
    text += static_cast<char>(std::stoi(v.value.substr(i, 2), nullptr, 16));
  return text;
}

TEST_F(AgentTruthTest, SnmptableWithTheMibShowsNamedColumnsAndTheGroundTruthRowsInTheirUnits) {
  const std::string mibOptions =
      "-M " ZERVA_E2E_SOURCE_DIR "/mibs:" ZERVA_E2E_SOURCE_DIR "/mibs/base -m VEM-PERFORMANCE-MIB";
  for (const TableTruth& t : allTables()) {
    const std::string& name = t.object->name;
    int rc = -1;
    const std::string out = zerva_test::RunShell(
        agent_.snmp().env() + "snmptable -t 2 -r 1 -v2c -c public " + mibOptions +
            " -Cf '|' 127.0.0.1:" + std::to_string(agent_.snmp().port()) + " VEM-PERFORMANCE-MIB::" + name,
        &rc);
    EXPECT_EQ(0, rc) << out;
    std::vector<std::string> lines;
    std::istringstream in(out);
    std::string line;
    while (std::getline(in, line)) {
      if (!line.empty()) lines.push_back(line);
    }
    ASSERT_GE(lines.size(), 2u) << out;
    EXPECT_EQ("SNMP table: VEM-PERFORMANCE-MIB::" + name, lines[0]);

    // The header: every column by its MIB name, in column order.
    std::vector<std::string> names;
    for (const zerva_agent::MibColumn& c : t.object->columns) names.push_back(c.name);
    EXPECT_EQ(names, SplitCells(lines[1])) << out;

    // One line per ground-truth row, in index order, each cell as the
    // ground truth has it ("?" where a column has no instance), followed by
    // the column's UNITS where the MIB gives it ("1783 microseconds").
    ASSERT_EQ(t.rowIndexes.size(), lines.size() - 2) << out;
    for (size_t r = 0; r < t.rowIndexes.size(); ++r) {
      std::vector<std::string> expected;
      for (const zerva_agent::MibColumn& c : t.object->columns) {
        const auto v = t.instances.find(zerva_test::InstanceOid(t.prefix, c.number, t.rowIndexes[r]));
        const auto units = zerva_test::MibUnits().find(c.name);
        std::string cell = v == t.instances.end() ? "?" : TableText(v->second);
        if (v != t.instances.end() && units != zerva_test::MibUnits().end()) cell += " " + units->second;
        expected.push_back(cell);
      }
      EXPECT_EQ(expected, SplitCells(lines[2 + r])) << name << " row " << r;
    }
  }
}

}  // namespace
}  // namespace zerva_e2e
