// A failing back end is not an empty table: while the array refuses the
// command a table needs, a walk or GET of the table gets an SNMP error
// (genErr); with collection switched off the same walk is empty without an
// error; once the array answers again the rows are back.
#include <gtest/gtest.h>

#include <cctype>
#include <ostream>
#include <string>
#include <vector>

#include "tests/e2e/e2e_support.h"

namespace zerva_e2e {
namespace {

// A refusal code of the array's own (outside the host transport's range).
#define REFUSE "refuse=0x53494D7E,cmd="

struct FailureCase {
  const char* table;
  const char* fault;  // the simulator's fault, as --fault takes it
};

// "vemPerfLunTable with refuse=...,cmd=LISTING" in test listings.
void PrintTo(const FailureCase& c, std::ostream* os) { *os << c.table << " with " << c.fault; }

// For each table, the commands it cannot do without. Per-object statistics
// of the file-system table that the array refuses drop that object's row
// (it may be gone since the listing), so its statistics fail here by the
// connection closing instead.
const FailureCase kCases[] = {
    {"vemPerfNodeTable", REFUSE "GET_CUR_STATISTIC_DATA"},
    {"vemPerfNodeTable", REFUSE "LISTING"},
    {"vemPerfLunTable", REFUSE "LUN_BATCH_STATS"},
    {"vemPerfLunTable", REFUSE "LISTING"},
    {"vemPerfPortTable", REFUSE "LISTING"},
    {"vemPerfCacheTable", REFUSE "GET_CUR_STATISTIC_DATA"},
    {"vemPerfNfsV3Table", REFUSE "GET_CUR_STATISTIC_DATA"},
    {"vemPerfNfsV4Table", REFUSE "GET_CUR_STATISTIC_DATA"},
    {"vemPerfNfsV41Table", REFUSE "GET_CUR_STATISTIC_DATA"},
    {"vemPerfSmbV1Table", REFUSE "GET_CUR_STATISTIC_DATA"},
    {"vemPerfSmbV2Table", REFUSE "GET_CUR_STATISTIC_DATA"},
    {"vemPerfFsTable", REFUSE "SORTED_LISTING"},
    {"vemPerfFsTable", "close,cmd=GET_CUR_STATISTIC_DATA"},
};

class BackendFailureTest : public ::testing::TestWithParam<FailureCase> {
 protected:
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(agent_.start(SmallArray(), &error)) << error;
    table_ = MibTable(GetParam().table);
    ASSERT_NE(nullptr, table_);
    switch_ = SwitchOid();
  }

  // Walks the table: its instances, the exit code and the client's output.
  std::map<Oid, Value> walk(int* rc, std::string* raw) {
    std::vector<std::string> problems;
    return InstancesUnder(Walk(agent_, table_->oid, "snmpwalk", "", rc, raw), table_->oid, &problems);
  }

  void setSwitch(int value) {
    int rc = -1;
    const std::string out =
        Tool(agent_, "snmpset", kWriteCommunity, OidText(switch_) + " u " + std::to_string(value), &rc);
    ASSERT_EQ(0, rc) << out;
  }

  AgentUnderTest agent_;
  const zerva_agent::MibObject* table_ = nullptr;
  Oid switch_;
};

TEST_P(BackendFailureTest, RefusedCommandIsAnErrorNotAnEmptyTable) {
  const TableTruth truth = Truth(agent_, *table_);
  ASSERT_FALSE(truth.instances.empty());
  int rc = -1;
  std::string raw;
  ASSERT_EQ("", Diff(truth.instances, walk(&rc, &raw))) << raw;

  zerva_sim::FaultRule fault;
  std::string error;
  ASSERT_TRUE(agent_.array().parseFault(GetParam().fault, &fault, &error)) << error;
  agent_.array().addFault(fault);

  // The walk stops with genErr at the table, having served none of it.
  std::map<Oid, Value> served = walk(&rc, &raw);
  EXPECT_TRUE(served.empty()) << raw;
  EXPECT_NE(0, rc) << raw;
  EXPECT_NE(std::string::npos, raw.find("genError")) << raw;
  EXPECT_EQ(std::string::npos, raw.find("No more variables")) << raw;
  // The error is this table's (a walk that finds a table empty goes on to
  // the next one): the agent logs which object fails.
  const std::string failing = table_->name + " (" + table_->prefix + ") failed";
  EXPECT_NE(std::string::npos, agent_.log().find(failing)) << agent_.log();

  // A GET of a cell that exists gets the same error.
  const Oid cell = std::next(truth.instances.begin(), static_cast<long>(truth.instances.size() / 2))->first;
  const std::string get = Tool(agent_, "snmpget", kReadCommunity, OidText(cell), &rc);
  EXPECT_NE(0, rc) << get;
  EXPECT_NE(std::string::npos, get.find("genError")) << get;
  EXPECT_TRUE(ParseWalk(get).lines.empty()) << get;

  // Switched off (the fault still active): empty, and no error.
  setSwitch(0);
  served = walk(&rc, &raw);
  EXPECT_TRUE(served.empty()) << raw;
  EXPECT_EQ(0, rc) << raw;
  EXPECT_EQ(std::string::npos, raw.find("genError")) << raw;

  // On again: the error again.
  setSwitch(1);
  served = walk(&rc, &raw);
  EXPECT_TRUE(served.empty()) << raw;
  EXPECT_NE(std::string::npos, raw.find("genError")) << raw;

  // The array answers again: every row is back.
  agent_.array().clearFaults();
  EXPECT_EQ("", Diff(truth.instances, walk(&rc, &raw))) << raw;
  EXPECT_EQ(0, rc) << raw;
}

INSTANTIATE_TEST_SUITE_P(EveryTable, BackendFailureTest, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<FailureCase>& info) {
                           // "vemPerfFsTable_close_GETCURSTATISTICDATA"
                           std::string name = std::string(info.param.table) + "_";
                           std::string fault = info.param.fault;
                           const size_t cmd = fault.find(",cmd=");
                           name += fault.compare(0, 7, "refuse=") == 0 ? "refuse" : fault.substr(0, fault.find(','));
                           name += "_";
                           for (char c : fault.substr(cmd + 5)) {
                             if (isalnum(static_cast<unsigned char>(c))) name += c;
                           }
                           return name;
                         });

}  // namespace
}  // namespace zerva_e2e
