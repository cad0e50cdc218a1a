// A failing back end is not an empty table: while the array refuses the
// command a table needs, or answers value lists that do not parse, a walk or
// GET of the table gets an SNMP error (genErr); with collection switched off
// the same walk is empty without an error; once the array answers again the
// rows are back. One failure answers genErr to the request that met it, in
// GET, GETNEXT and GETBULK, and the next request reads again; during the
// transport's hold-off after a timeout, and with the back end stopped, every
// table answers genErr.
#include <gtest/gtest.h>

#include <cctype>
#include <chrono>
#include <ostream>
#include <sstream>
#include <string>
#include <thread>
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

// For each table, the commands it cannot do without. A refusal of one
// object's statistics makes the module leave that row out (the port and
// file-system tables); the agent answers genErr all the same.
const FailureCase kCases[] = {
    {"vemPerfNodeTable", REFUSE "GET_CUR_STATISTIC_DATA"},
    {"vemPerfNodeTable", REFUSE "LISTING"},
    {"vemPerfLunTable", REFUSE "LUN_BATCH_STATS"},
    {"vemPerfLunTable", REFUSE "LISTING"},
    {"vemPerfPortTable", REFUSE "LISTING"},
    {"vemPerfPortTable", REFUSE "GET_CUR_STATISTIC_DATA"},
    {"vemPerfPortTable", "bad-values,cmd=GET_CUR_STATISTIC_DATA"},
    {"vemPerfLunTable", "bad-values,cmd=LUN_BATCH_STATS"},
    {"vemPerfCacheTable", REFUSE "GET_CUR_STATISTIC_DATA"},
    {"vemPerfNfsV3Table", REFUSE "GET_CUR_STATISTIC_DATA"},
    {"vemPerfNfsV4Table", REFUSE "GET_CUR_STATISTIC_DATA"},
    {"vemPerfNfsV41Table", REFUSE "GET_CUR_STATISTIC_DATA"},
    {"vemPerfSmbV1Table", REFUSE "GET_CUR_STATISTIC_DATA"},
    {"vemPerfSmbV2Table", REFUSE "GET_CUR_STATISTIC_DATA"},
    {"vemPerfFsTable", REFUSE "SORTED_LISTING"},
    {"vemPerfFsTable", REFUSE "GET_CUR_STATISTIC_DATA"},
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
                           const std::string kind =
                               fault.compare(0, 7, "refuse=") == 0 ? "refuse" : fault.substr(0, fault.find(','));
                           for (char c : kind + "_" + fault.substr(cmd + 5)) {
                             if (isalnum(static_cast<unsigned char>(c)) || c == '_') name += c;
                           }
                           return name;
                         });

// ---------------------------------------------------------------------------
// One failure, one request: the error status a client sees.

// The reason Net-SNMP's clients print for genErr.
const char kGenErr[] = "(genError) A general failure occured";

// What a client printed about an error answer: the reason and the failed
// object (the varbind the error index names); empty without an error.
struct ErrorAnswer {
  std::string reason;
  std::string failedObject;
};

ErrorAnswer ErrorIn(const std::string& out) {
  ErrorAnswer e;
  std::istringstream in(out);
  std::string line;
  while (std::getline(in, line)) {
    if (line.compare(0, 8, "Reason: ") == 0) e.reason = line.substr(8);
    if (line.compare(0, 15, "Failed object: ") == 0) e.failedObject = line.substr(15);
  }
  return e;
}

enum class Request { kGet, kGetNext, kGetBulk };

struct OneFailureCase {
  const char* table;
  const char* fault;  // hits one request of the command
  Request request;
};

const char* RequestName(Request r) {
  switch (r) {
    case Request::kGet:
      return "GET";
    case Request::kGetNext:
      return "GETNEXT";
    case Request::kGetBulk:
      return "GETBULK";
  }
  return "?";
}

void PrintTo(const OneFailureCase& c, std::ostream* os) {
  *os << RequestName(c.request) << " of " << c.table << " with " << c.fault;
}

#define ONCE ",count=1"
// A refused switch query (the module reads it as "collection off"), a
// refused statistics command for one port or file system (the module leaves
// the row out), and value lists that do not parse.
const OneFailureCase kOneFailureTables[] = {
    {"vemPerfNodeTable", REFUSE "GET_PERFORMANCE_SWITCH" ONCE, Request::kGet},
    {"vemPerfPortTable", REFUSE "GET_CUR_STATISTIC_DATA" ONCE, Request::kGet},
    {"vemPerfPortTable", "bad-values,cmd=GET_CUR_STATISTIC_DATA" ONCE, Request::kGet},
    {"vemPerfLunTable", "bad-values,cmd=LUN_BATCH_STATS" ONCE, Request::kGet},
    {"vemPerfFsTable", REFUSE "GET_CUR_STATISTIC_DATA" ONCE, Request::kGet},
};

std::vector<OneFailureCase> OneFailureCases() {
  std::vector<OneFailureCase> out;
  for (Request r : {Request::kGet, Request::kGetNext, Request::kGetBulk}) {
    for (OneFailureCase c : kOneFailureTables) {
      c.request = r;
      out.push_back(c);
    }
  }
  return out;
}

const int kBulkRepetitions = 10;

class OneFailureTest : public ::testing::TestWithParam<OneFailureCase> {
 protected:
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(agent_.start(SmallArray(), &error)) << error;
    table_ = MibTable(GetParam().table);
    ASSERT_NE(nullptr, table_);
    truth_ = Truth(agent_, *table_);
    ASSERT_GT(truth_.instances.size(), static_cast<size_t>(kBulkRepetitions));
  }

  // The OID the request names: a cell in the middle of the table for a
  // GET, the table itself otherwise.
  Oid target() const {
    if (GetParam().request != Request::kGet) return truth_.prefix;
    return std::next(truth_.instances.begin(), static_cast<long>(truth_.instances.size() / 2))->first;
  }

  std::string ask(int* rc) const {
    switch (GetParam().request) {
      case Request::kGet:
        return Tool(agent_, "snmpget", kReadCommunity, OidText(target()), rc);
      case Request::kGetNext:
        return Tool(agent_, "snmpgetnext", kReadCommunity, OidText(target()), rc);
      case Request::kGetBulk:
        return Tool(agent_, "snmpbulkget", kReadCommunity,
                    "-Cn0 -Cr" + std::to_string(kBulkRepetitions) + " " + OidText(target()), rc);
    }
    return "";
  }

  // The instances a healthy answer to ask() holds.
  std::map<Oid, Value> expected() const {
    const Oid t = target();
    switch (GetParam().request) {
      case Request::kGet:
        return {{t, truth_.instances.at(t)}};
      case Request::kGetNext:
        return {*truth_.instances.begin()};
      case Request::kGetBulk:
        return std::map<Oid, Value>(truth_.instances.begin(), std::next(truth_.instances.begin(), kBulkRepetitions));
    }
    return {};
  }

  AgentUnderTest agent_;
  const zerva_agent::MibObject* table_ = nullptr;
  TableTruth truth_;
};

TEST_P(OneFailureTest, TheRequestThatMeetsItGetsGenErrAndTheNextOneTheRows) {
  zerva_sim::FaultRule fault;
  std::string error;
  ASSERT_TRUE(agent_.array().parseFault(GetParam().fault, &fault, &error)) << error;
  agent_.array().addFault(fault);

  int rc = -1;
  const std::string failed = ask(&rc);
  EXPECT_NE(0, rc) << failed;
  const ErrorAnswer e = ErrorIn(failed);
  EXPECT_EQ(kGenErr, e.reason) << failed;
  EXPECT_EQ(OidText(target()), e.failedObject) << "error index 1 names the request's one varbind:\n" << failed;
  EXPECT_TRUE(ParseWalk(failed).lines.empty()) << failed;
  EXPECT_TRUE(agent_.array().faults().empty()) << "the fault did not hit";

  // The next request reads again and has the rows, every one of them.
  const std::string healthy = ask(&rc);
  EXPECT_EQ(0, rc) << healthy;
  EXPECT_EQ("", ErrorIn(healthy).reason) << healthy;
  std::vector<std::string> problems;
  EXPECT_EQ("", Diff(expected(), InstancesUnder(ParseWalk(healthy), truth_.prefix, &problems))) << healthy;
  EXPECT_EQ("", Diff(truth_.instances, InstancesUnder(Walk(agent_, truth_.prefix), truth_.prefix, &problems)));
  EXPECT_TRUE(problems.empty()) << problems.front();
}

INSTANTIATE_TEST_SUITE_P(EveryRequestType, OneFailureTest, ::testing::ValuesIn(OneFailureCases()),
                         [](const ::testing::TestParamInfo<OneFailureCase>& info) {
                           // "GETNEXT_vemPerfPortTable_badvalues_GETCURSTATISTICDATA"
                           std::string name =
                               std::string(RequestName(info.param.request)) + "_" + info.param.table + "_";
                           const std::string fault = info.param.fault;
                           const std::string kind =
                               fault.compare(0, 7, "refuse=") == 0 ? "refuse" : fault.substr(0, fault.find(','));
                           const size_t cmd = fault.find(",cmd=") + 5;
                           for (char c : kind + "_" + fault.substr(cmd, fault.find(',', cmd) - cmd)) {
                             if (isalnum(static_cast<unsigned char>(c)) || c == '_') name += c;
                           }
                           return name;
                         });

// ---------------------------------------------------------------------------
// Every table at once: hold-off after a timeout, a stopped back end,
// collection switched off.

class EveryTableTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(agent_.start(SmallArray(), &error)) << error;
    for (const zerva_agent::MibObject* t : MibTables()) {
      truths_.push_back(Truth(agent_, *t));
      ASSERT_FALSE(truths_.back().instances.empty()) << t->name;
    }
  }

  // Every table's OID, in one list of arguments.
  std::string everyTable() const {
    std::string args;
    for (const TableTruth& t : truths_) args += " " + OidText(t.prefix);
    return args;
  }

  // One GETNEXT of every table in one request: each table's first instance.
  void expectEveryTableAnswers() {
    int rc = -1;
    const std::string out = Tool(agent_, "snmpgetnext", kReadCommunity, everyTable(), &rc);
    EXPECT_EQ(0, rc) << out;
    const ParsedWalk next = ParseWalk(out);
    ASSERT_EQ(truths_.size(), next.lines.size()) << out;
    for (size_t i = 0; i < truths_.size(); ++i) {
      EXPECT_EQ(OidText(truths_[i].first()), OidText(next.lines[i].oid)) << truths_[i].object->name;
    }
  }

  // GETNEXT, GET and GETBULK of one table, each in a request of its own,
  // answer genErr naming the request's one varbind.
  void expectGenErrFromEveryRequestType(const TableTruth& t) {
    const Oid first = t.first();
    const struct {
      const char* program;
      std::string args;
      Oid varbind;
    } requests[] = {
        {"snmpgetnext", OidText(t.prefix), t.prefix},
        {"snmpget", OidText(first), first},
        {"snmpbulkget", "-Cn0 -Cr5 " + OidText(t.prefix), t.prefix},
    };
    for (const auto& r : requests) {
      int rc = -1;
      const std::string out = Tool(agent_, r.program, kReadCommunity, r.args, &rc);
      EXPECT_NE(0, rc) << r.program << " of " << t.object->name << ":\n" << out;
      const ErrorAnswer e = ErrorIn(out);
      EXPECT_EQ(kGenErr, e.reason) << r.program << " of " << t.object->name << ":\n" << out;
      EXPECT_EQ(OidText(r.varbind), e.failedObject) << r.program << " of " << t.object->name;
    }
  }

  AgentUnderTest agent_;
  std::vector<TableTruth> truths_;
};

TEST_F(EveryTableTest, DuringTheHoldOffAfterATimeoutEveryTableAnswersGenErr) {
  // The first switch query of the request hangs past the call timeout
  // (400 ms); the transport then answers every call at once with the
  // timeout code for 500 ms, and the module reads each switch query as
  // "collection off". Every table must fail, none be empty.
  zerva_sim::FaultRule fault;
  std::string error;
  ASSERT_TRUE(agent_.array().parseFault("delay=1500,cmd=GET_PERFORMANCE_SWITCH" ONCE, &fault, &error)) << error;
  agent_.array().addFault(fault);
  int rc = -1;
  const std::string out = Tool(agent_, "snmpgetnext", kReadCommunity, everyTable(), &rc);
  EXPECT_NE(0, rc) << out;
  const ErrorAnswer e = ErrorIn(out);
  EXPECT_EQ(kGenErr, e.reason) << out;
  // Every varbind failed; the error index names one of them.
  EXPECT_NE(std::string::npos, (everyTable() + " ").find(" " + e.failedObject + " ")) << out;
  EXPECT_TRUE(ParseWalk(out).lines.empty()) << out;
  // Each table failed on its own (a table found empty would have moved on
  // to the next object without an error and without a log line).
  const std::string log = agent_.log();
  for (const TableTruth& t : truths_) {
    EXPECT_NE(std::string::npos, log.find(t.object->name + " (" + t.object->prefix + ") failed")) << log;
  }
  EXPECT_NE(std::string::npos, log.find("back end timed out")) << log;
  EXPECT_EQ(std::string::npos, log.find("answers again")) << log;

  // Past the hold-off and the hung answer: every table answers again.
  std::this_thread::sleep_for(std::chrono::milliseconds(1600));
  expectEveryTableAnswers();
}

TEST_F(EveryTableTest, WhileTheBackEndHangsEveryTableAnswersGenErr) {
  // Every switch query the back end gets hangs: a request either meets the
  // hold-off of the last timeout (its calls fail at once) or starts one.
  zerva_sim::FaultRule fault;
  std::string error;
  ASSERT_TRUE(agent_.array().parseFault("delay=1500,cmd=GET_PERFORMANCE_SWITCH", &fault, &error)) << error;
  agent_.array().addFault(fault);
  for (const TableTruth& t : truths_) {
    int rc = -1;
    const std::string out = Tool(agent_, "snmpgetnext", kReadCommunity, OidText(t.prefix), &rc);
    EXPECT_NE(0, rc) << t.object->name << ":\n" << out;
    const ErrorAnswer e = ErrorIn(out);
    EXPECT_EQ(kGenErr, e.reason) << t.object->name << ":\n" << out;
    EXPECT_EQ(OidText(t.prefix), e.failedObject) << t.object->name << ": error index 1";
  }
  agent_.array().clearFaults();
  std::this_thread::sleep_for(std::chrono::milliseconds(700));  // past the hold-off
  expectEveryTableAnswers();
}

TEST_F(EveryTableTest, WithTheBackEndStoppedEveryTableAnswersGenErr) {
  agent_.stopSimulator();
  for (const TableTruth& t : truths_) expectGenErrFromEveryRequestType(t);

  std::string error;
  ASSERT_TRUE(agent_.restartSimulator(&error)) << error;
  std::this_thread::sleep_for(std::chrono::milliseconds(700));  // past the transport's hold-off
  expectEveryTableAnswers();
  std::vector<std::string> problems;
  for (const TableTruth& t : truths_) {
    EXPECT_EQ("", Diff(t.instances, InstancesUnder(Walk(agent_, t.prefix), t.prefix, &problems))) << t.object->name;
  }
}

TEST_F(EveryTableTest, WithCollectionSwitchedOffEveryTableIsEmptyWithoutAnError) {
  int rc = -1;
  std::string out = Tool(agent_, "snmpset", kWriteCommunity, OidText(SwitchOid()) + " u 0", &rc);
  ASSERT_EQ(0, rc) << out;
  for (const TableTruth& t : truths_) {
    const std::string name = t.object->name;
    // GETNEXT of the table: past it (the next object, or the end of the
    // MIB view after the last table), without an error.
    out = Tool(agent_, "snmpgetnext", kReadCommunity, OidText(t.prefix), &rc);
    EXPECT_EQ(0, rc) << name << ":\n" << out;
    EXPECT_EQ("", ErrorIn(out).reason) << name << ":\n" << out;
    const ParsedWalk next = ParseWalk(out);
    EXPECT_TRUE(next.lines.size() == 1 || out.find("No more variables left in this MIB View") != std::string::npos)
        << name << ":\n"
        << out;
    for (const WalkLine& l : next.lines) EXPECT_FALSE(Under(l.oid, t.prefix)) << name << ":\n" << out;
    // GET of a cell that exists when collection is on: no such instance.
    out = Tool(agent_, "snmpget", kReadCommunity, OidText(t.first()), &rc);
    EXPECT_EQ(0, rc) << name << ":\n" << out;
    EXPECT_EQ("", ErrorIn(out).reason) << name << ":\n" << out;
    EXPECT_NE(std::string::npos, out.find("No Such Instance")) << name << ":\n" << out;
    // GETBULK of the table: nothing of it, without an error.
    out = Tool(agent_, "snmpbulkget", kReadCommunity, "-Cn0 -Cr5 " + OidText(t.prefix), &rc);
    EXPECT_EQ(0, rc) << name << ":\n" << out;
    EXPECT_EQ("", ErrorIn(out).reason) << name << ":\n" << out;
    std::vector<std::string> problems;
    EXPECT_TRUE(InstancesUnder(ParseWalk(out), t.prefix, &problems).empty()) << name << ":\n" << out;
  }
}

}  // namespace
}  // namespace zerva_e2e
