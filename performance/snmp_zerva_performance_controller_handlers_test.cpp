#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "performance/snmp_zerva_performance_controllerNFSV3_handler.h"
#include "performance/snmp_zerva_performance_controllerNFSV41_handler.h"
#include "performance/snmp_zerva_performance_controllerNFSV4_handler.h"
#include "performance/snmp_zerva_performance_controllerSMBV1_handler.h"
#include "performance/snmp_zerva_performance_controllerSMBV2_handler.h"
#include "tests/support/handler_test_support.h"

namespace zerva_test {
namespace {

const char kItemsSig[] = "virtual std::string CPerformanceControllerNFSV3Handler::getStatistics()";

// Requests as the back end saw them.
const char kListing207[] = "listing 0xD0000C000: 0/6/8/207";

const char kItemsDebug[] = "kit4 DEBUG 0xFFFF getStatistics: getStatistics = 182,439";

// A listing answer record: tag 0 an unrelated number, tag 1 the object ID.
Rec Controller(const std::string& objectId) { return Rec(0x5).t6(0, 207).str(1, objectId); }

// One member of the family.
struct Table {
  const char* name;
  std::function<CPerformanceSimpleHandler*()> make;
  const char* type;  // object type of the statistics, as text
};

void PrintTo(const Table& table, std::ostream* os) { *os << table.name; }

const Table kTables[] = {
    {"NFSV3", [] { return new CPerformanceControllerNFSV3Handler(); }, "1000"},
    {"NFSV4", [] { return new CPerformanceControllerNFSV4Handler(); }, "1001"},
    {"NFSV41", [] { return new CPerformanceControllerNFSV41Handler(); }, "57636"},
    {"SMBV1", [] { return new CPerformanceControllerSMBV1Handler(); }, "1002"},
    {"SMBV2", [] { return new CPerformanceControllerSMBV2Handler(); }, "1003"},
};

class FileProtocolTableTest : public HandlerTest<::testing::TestWithParam<Table>> {
 protected:
  void SetUp() override {
    env_.setSwitch(1);
    handler_.reset(GetParam().make());
  }
  int Query() { return handler_->OnQueryTable(ctx_, req_, rsp_); }
  std::string Key(const std::string& id) const { return std::string(GetParam().type) + ":" + id; }
  // The statistics request of one controller.
  std::string Stats(const std::string& id) const {
    const std::string key = Key(id);
    return "query 0xDE0222010: 0/2/" + std::to_string(key.size() + 1) + "/\"" + key +
           R"(\0" 8/2/8/"182,439\0" 2/3/8/4)";
  }
  // OnQueryTable's trace lines when the item list is built first, with one
  // statistics query per entry (true: it succeeded).
  std::vector<std::string> FirstQueryTraces(const std::vector<bool>& batches, bool ok) const {
    std::vector<std::string> out = CallTraces(kSimpleQueryTableSig, kGetBatchPerfDataSig, batches, ok, kBareTrace);
    out.insert(out.begin() + 1, {Enter(kItemsSig, kBareTrace), Leave(kItemsSig, true, kBareTrace)});
    return out;
  }
  // A query that answers a row for each listed controller of ids: it returns
  // 0 after the switch query, the listing and one statistics query per
  // controller, logs the item list alone and traces each statistics query as
  // succeeded; the rows are those of the answer.
  void ExpectEveryControllerAnswered(const std::vector<std::string>& ids, const std::vector<std::string>& rows) {
    EXPECT_EQ(Query(), 0);

    std::vector<std::string> requests{kSwitchQuery, kListing207};
    for (const std::string& id : ids) requests.push_back(Stats(id));
    EXPECT_EQ(Requests(backend(), ListingLabel::kWord), requests);
    EXPECT_EQ(PackageText(rsp_), rows);
    EXPECT_EQ(KitMessages(log_), (std::vector<std::string>{kItemsDebug}));
    EXPECT_EQ(log_.traces(), FirstQueryTraces(std::vector<bool>(ids.size(), true), true));
  }

  std::unique_ptr<CPerformanceSimpleHandler> handler_;
};

TEST_P(FileProtocolTableTest, HooksGiveItemsControllersAndTheTablesObjectType) {
  EXPECT_EQ(handler_->getObjIDForKey(), 207u);
  EXPECT_EQ(std::to_string(handler_->getObjIDForPerf()), GetParam().type);
  EXPECT_EQ(handler_->getStatistics(), "182,439");
  EXPECT_EQ(KitMessages(log_), (std::vector<std::string>{kItemsDebug}));
  EXPECT_EQ(log_.traces(),
            (std::vector<std::string>{Enter(kItemsSig, kBareTrace), Leave(kItemsSig, true, kBareTrace)}));
}

TEST_P(FileProtocolTableTest, TwoControllersGiveTwoRowsOfThreeCellsWithObjectIdAndNul) {
  backend().onListing(207, Answer{Controller("0A"), Controller("1B")});
  backend().onStats(Key("0A"), "11,4294967295");
  backend().onStats(Key("1B"), "0,22");

  ExpectEveryControllerAnswered({"0A", "1B"}, {R"(0xFFFFFFFFFFFFFFFF: 1/2/3/"0A\0" 2/3/4/11 3/3/4/4294967295)",
                                               R"(0xFFFFFFFFFFFFFFFF: 1/2/3/"1B\0" 2/3/4/0 3/3/4/22)"});
  ASSERT_EQ(rsp_.size(), 2u);
  for (size_t r = 0; r < 2; ++r) {
    ASSERT_EQ(rsp_[r]->cellCount(), 3u);
    const CTLVCell* id = (*rsp_[r])[1];
    ASSERT_EQ(id->length(), 3u);
    EXPECT_EQ(id->value()[2], 0);
  }
}

TEST_P(FileProtocolTableTest, StatisticsKeyIsTheTablesObjectTypeAndTheControllerId) {
  backend().onListing(207, Answer{Controller("12C")});
  backend().onStats(Key("12C"), "1,2");

  ExpectEveryControllerAnswered({"12C"}, {R"(0xFFFFFFFFFFFFFFFF: 1/2/4/"12C\0" 2/3/4/1 3/3/4/2)"});
  ASSERT_EQ(backend().calls().size(), 3u);
  std::unique_ptr<CTLVPackage> stats = backend().calls()[2].package();
  EXPECT_FALSE(backend().calls()[2].listing);
  EXPECT_EQ((*(*stats)[0])[0]->toString(), std::string(GetParam().type) + ":12C");
}

TEST_P(FileProtocolTableTest, SwitchAtZeroOrTwoGivesEmptyTableWithoutListingRequest) {
  for (unsigned int state : {0u, 2u}) {
    SCOPED_TRACE("switch state " + std::to_string(state));
    backend().reset();
    log_.clear();
    env_.setSwitch(state);
    backend().onListing(207, Answer{Controller("0A")});
    backend().onStats(Key("0A"), "1,2");
    std::unique_ptr<CPerformanceSimpleHandler> handler(GetParam().make());
    CTLVPackage rsp;

    EXPECT_EQ(handler->OnQueryTable(ctx_, req_, rsp), 0);

    ExpectReadStoppedAtTheSwitch(backend(), rsp, log_);
  }
}

TEST_P(FileProtocolTableTest, EmptyListingAnswerGivesZeroAndEmptyTable) {
  backend().onListing(207, Answer{});

  EXPECT_EQ(Query(), 0);

  ExpectNoRowAfterTheListing(backend(), rsp_, kListing207);
  EXPECT_EQ(KitMessages(log_), (std::vector<std::string>{kItemsDebug}));
  EXPECT_EQ(log_.traces(), FirstQueryTraces({}, true));
}

TEST_P(FileProtocolTableTest, FailedListingRequestReturnsItsCodeAndLogsIt) {
  backend().onListing(207, Answer(1077949460));

  EXPECT_EQ(Query(), 1077949460);

  ExpectNoRowAfterTheListing(backend(), rsp_, kListing207);
  EXPECT_EQ(KitMessages(log_),
            (std::vector<std::string>{
                kItemsDebug, "kit4 ERROR 0x1002E OnQueryTable: faild to query info of controller, err:1077949460."}));
  EXPECT_EQ(log_.traces(), FirstQueryTraces({}, false));
}

TEST_P(FileProtocolTableTest, FailedStatisticsOfSecondOfThreeControllersLeavesOneRowAndReturnsItsCode) {
  backend().onListing(207, Answer{Controller("0A"), Controller("0B"), Controller("1A")});
  backend().onStats(Key("0A"), "1,2");
  backend().onStatsError(Key("0B"), 9);
  backend().onStats(Key("1A"), "3,4");

  EXPECT_EQ(Query(), 9);

  EXPECT_EQ(Requests(backend(), ListingLabel::kWord),
            (std::vector<std::string>{kSwitchQuery, kListing207, Stats("0A"), Stats("0B")}));
  EXPECT_EQ(PackageText(rsp_), (std::vector<std::string>{R"(0xFFFFFFFFFFFFFFFF: 1/2/3/"0A\0" 2/3/4/1 3/3/4/2)"}));
  EXPECT_EQ(KitMessages(log_),
            (std::vector<std::string>{kItemsDebug,
                                      "kit4 ERROR 0x1002E GetBatchPerfData: faild to query perf data, UUID:" +
                                          Key("0B") + ", Item:182,439, err:9.",
                                      "kit4 ERROR 0x1002E OnQueryTable: failed to get perf data of 0B, err:9"}));
  EXPECT_EQ(log_.traces(), FirstQueryTraces({true, false}, false));
}

TEST_P(FileProtocolTableTest, NonControllerIdEndsQueryWithMinusOneThoughRowNeedsNoNodeNumber) {
  backend().onListing(207, Answer{Controller("0A"), Controller("X9"), Controller("1A")});
  backend().onStats(Key("0A"), "1,2");
  backend().onStats(Key("X9"), "3,4");
  backend().onStats(Key("1A"), "5,6");

  EXPECT_EQ(Query(), -1);

  EXPECT_EQ(Requests(backend(), ListingLabel::kWord),
            (std::vector<std::string>{kSwitchQuery, kListing207, Stats("0A")}));
  EXPECT_EQ(PackageText(rsp_), (std::vector<std::string>{R"(0xFFFFFFFFFFFFFFFF: 1/2/3/"0A\0" 2/3/4/1 3/3/4/2)"}));
  EXPECT_EQ(KitMessages(log_),
            (std::vector<std::string>{kItemsDebug, "kit4 ERROR 0x1002E OnQueryTable: faild to parse rsp"}));
  EXPECT_EQ(log_.traces(), FirstQueryTraces({true}, false));
}

TEST_P(FileProtocolTableTest, BareEngineNumberIsNoControllerIdAndGivesMinusOne) {
  backend().onListing(207, Answer{Controller("7")});
  backend().onStats(Key("7"), "1,2");

  EXPECT_EQ(Query(), -1);

  ExpectNoRowAfterTheListing(backend(), rsp_, kListing207);
  EXPECT_EQ(KitMessages(log_),
            (std::vector<std::string>{kItemsDebug, "kit4 ERROR 0x1002E OnQueryTable: faild to parse rsp"}));
  EXPECT_EQ(log_.traces(), FirstQueryTraces({}, false));
}

TEST_P(FileProtocolTableTest, ItemListIsLoggedOnceOverTwoQueries) {
  backend().onListing(207, Answer{Controller("0A")});
  backend().onStats(Key("0A"), "1,2");

  EXPECT_EQ(Query(), 0);
  CTLVPackage rsp2;
  EXPECT_EQ(handler_->OnQueryTable(ctx_, req_, rsp2), 0);

  EXPECT_EQ(Requests(backend(), ListingLabel::kWord),
            (std::vector<std::string>{kSwitchQuery, kListing207, Stats("0A"), kSwitchQuery, kListing207, Stats("0A")}));
  EXPECT_EQ(PackageText(rsp_), (std::vector<std::string>{R"(0xFFFFFFFFFFFFFFFF: 1/2/3/"0A\0" 2/3/4/1 3/3/4/2)"}));
  EXPECT_EQ(PackageText(rsp2), (std::vector<std::string>{R"(0xFFFFFFFFFFFFFFFF: 1/2/3/"0A\0" 2/3/4/1 3/3/4/2)"}));
  EXPECT_EQ(KitMessages(log_), (std::vector<std::string>{kItemsDebug}));
  std::vector<std::string> traces = FirstQueryTraces({true}, true);
  traces.push_back(Enter(kSimpleQueryTableSig, kBareTrace));
  traces.push_back(Enter(kGetBatchPerfDataSig, kBareTrace));
  traces.push_back(Leave(kGetBatchPerfDataSig, true, kBareTrace));
  traces.push_back(Leave(kSimpleQueryTableSig, true, kBareTrace));
  EXPECT_EQ(log_.traces(), traces);
}

TEST_P(FileProtocolTableTest, ItemListIsNotLoggedWhileSwitchIsOff) {
  env_.setSwitch(0);
  EXPECT_EQ(Query(), 0);
  EXPECT_TRUE(KitMessages(log_).empty());

  env_.setSwitch(1);
  backend().onListing(207, Answer{Controller("0A")});
  backend().onStats(Key("0A"), "1,2");
  EXPECT_EQ(Query(), 0);

  EXPECT_EQ(KitMessages(log_), (std::vector<std::string>{kItemsDebug}));
  EXPECT_EQ(Requests(backend(), ListingLabel::kWord),
            (std::vector<std::string>{kSwitchQuery, kSwitchQuery, kListing207, Stats("0A")}));
  EXPECT_EQ(PackageText(rsp_), (std::vector<std::string>{R"(0xFFFFFFFFFFFFFFFF: 1/2/3/"0A\0" 2/3/4/1 3/3/4/2)"}));
  std::vector<std::string> traces{Enter(kSimpleQueryTableSig, kBareTrace),
                                  Leave(kSimpleQueryTableSig, true, kBareTrace)};
  const std::vector<std::string> on = FirstQueryTraces({true}, true);
  traces.insert(traces.end(), on.begin(), on.end());
  EXPECT_EQ(log_.traces(), traces);
}

TEST_P(FileProtocolTableTest, ShortValueListGivesOnlyColumnsThatHaveValues) {
  backend().onListing(207, Answer{Controller("0A"), Controller("0B")});
  backend().onStats(Key("0A"), "5");
  backend().onStats(Key("0B"), "6,7");

  ExpectEveryControllerAnswered({"0A", "0B"}, {R"(0xFFFFFFFFFFFFFFFF: 1/2/3/"0A\0" 2/3/4/5)",
                                               R"(0xFFFFFFFFFFFFFFFF: 1/2/3/"0B\0" 2/3/4/6 3/3/4/7)"});
}

TEST_P(FileProtocolTableTest, LongerValueListUsesOnlyTheFirstTwoValues) {
  backend().onListing(207, Answer{Controller("0A")});
  backend().onStats(Key("0A"), "5,6,7,8");

  ExpectEveryControllerAnswered({"0A"}, {R"(0xFFFFFFFFFFFFFFFF: 1/2/3/"0A\0" 2/3/4/5 3/3/4/6)"});
}

TEST_P(FileProtocolTableTest, Feature602ChangesNeitherItemsNorRow) {
  env_.setFeatures({602, 48, 49});
  handler_.reset(GetParam().make());
  backend().onListing(207, Answer{Controller("0A")});
  backend().onStats(Key("0A"), "5,6");

  ExpectEveryControllerAnswered({"0A"}, {R"(0xFFFFFFFFFFFFFFFF: 1/2/3/"0A\0" 2/3/4/5 3/3/4/6)"});
}

TEST_P(FileProtocolTableTest, RowHookWritesTheObjectIdWithoutParsingIt) {
  std::vector<unsigned int> values = {3, 4};
  CTLVRecordV3 row(CTLVRecordV3::RESPONSE_ID, 32);
  handler_->fillRspRecord(&row, "X9", values);
  EXPECT_EQ(RecordText(row), R"(1/2/3/"X9\0" 2/3/4/3 3/3/4/4)");
  EXPECT_EQ(backend().callCount(), 0u);
  EXPECT_TRUE(KitMessages(log_).empty());
  EXPECT_TRUE(log_.traces().empty());
}

INSTANTIATE_TEST_SUITE_P(AllFileProtocols, FileProtocolTableTest, ::testing::ValuesIn(kTables),
                         [](const ::testing::TestParamInfo<Table>& info) { return std::string(info.param.name); });

class FileProtocolFamilyTest : public HandlerTest<> {
 protected:
  void SetUp() override { env_.setSwitch(1); }
};

TEST_F(FileProtocolFamilyTest, FiveTablesSendTheSameListingAndDifferOnlyInTheStatisticsObjectType) {
  FakeBackend& backend = env_.backend();
  backend.onListing(207, Answer{Controller("0A"), Controller("1C")});
  const char* types[] = {"1000", "1001", "57636", "1002", "1003"};
  for (const char* type : types) {
    backend.onStats(std::string(type) + ":0A", "1,2");
    backend.onStats(std::string(type) + ":1C", "3,4");
  }

  std::vector<std::vector<std::string>> rows;
  for (const Table& table : kTables) {
    std::unique_ptr<CPerformanceSimpleHandler> handler(table.make());
    CTLVPackage rsp;
    EXPECT_EQ(handler->OnQueryTable(ctx_, req_, rsp), 0) << table.name;
    rows.push_back(PackageText(rsp));
  }

  std::vector<std::string> expected;
  for (const char* type : types) {
    expected.push_back(kSwitchQuery);
    expected.push_back(kListing207);
    const std::string t(type);
    const std::string width = std::to_string(t.size() + 4);
    expected.push_back("query 0xDE0222010: 0/2/" + width + "/\"" + t + R"(:0A\0" 8/2/8/"182,439\0" 2/3/8/4)");
    expected.push_back("query 0xDE0222010: 0/2/" + width + "/\"" + t + R"(:1C\0" 8/2/8/"182,439\0" 2/3/8/4)");
  }
  EXPECT_EQ(Requests(backend, ListingLabel::kWord), expected);
  // The literal keys, for the record.
  const std::vector<Call> calls = backend.calls();
  ASSERT_EQ(calls.size(), 20u);
  EXPECT_EQ(PackageText(*calls[2].package()),
            (std::vector<std::string>{R"(0xDE0222010: 0/2/8/"1000:0A\0" 8/2/8/"182,439\0" 2/3/8/4)"}));
  EXPECT_EQ(PackageText(*calls[6].package()),
            (std::vector<std::string>{R"(0xDE0222010: 0/2/8/"1001:0A\0" 8/2/8/"182,439\0" 2/3/8/4)"}));
  EXPECT_EQ(PackageText(*calls[10].package()),
            (std::vector<std::string>{R"(0xDE0222010: 0/2/9/"57636:0A\0" 8/2/8/"182,439\0" 2/3/8/4)"}));
  EXPECT_EQ(PackageText(*calls[14].package()),
            (std::vector<std::string>{R"(0xDE0222010: 0/2/8/"1002:0A\0" 8/2/8/"182,439\0" 2/3/8/4)"}));
  EXPECT_EQ(PackageText(*calls[18].package()),
            (std::vector<std::string>{R"(0xDE0222010: 0/2/8/"1003:0A\0" 8/2/8/"182,439\0" 2/3/8/4)"}));
  for (size_t i = 0; i < calls.size(); ++i) EXPECT_EQ(calls[i].listing, i % 4 == 1) << i;

  const std::vector<std::string> row = {R"(0xFFFFFFFFFFFFFFFF: 1/2/3/"0A\0" 2/3/4/1 3/3/4/2)",
                                        R"(0xFFFFFFFFFFFFFFFF: 1/2/3/"1C\0" 2/3/4/3 3/3/4/4)"};
  for (const std::vector<std::string>& r : rows) EXPECT_EQ(r, row);
  EXPECT_EQ(KitMessages(log_), std::vector<std::string>(5, kItemsDebug));
  std::vector<std::string> traces;
  for (int i = 0; i < 5; ++i) {
    for (const std::string& line :
         {Enter(kSimpleQueryTableSig, kBareTrace), Enter(kItemsSig, kBareTrace), Leave(kItemsSig, true, kBareTrace),
          Enter(kGetBatchPerfDataSig, kBareTrace), Leave(kGetBatchPerfDataSig, true, kBareTrace),
          Enter(kGetBatchPerfDataSig, kBareTrace), Leave(kGetBatchPerfDataSig, true, kBareTrace),
          Leave(kSimpleQueryTableSig, true, kBareTrace)}) {
      traces.push_back(line);
    }
  }
  EXPECT_EQ(log_.traces(), traces);
}

TEST_F(FileProtocolFamilyTest, ItemListIsLoggedOncePerHandlerObject) {
  env_.backend().onListing(207, Answer{Controller("0A")});
  env_.backend().onStats("1000:0A", "1,2");
  CPerformanceControllerNFSV3Handler first;
  CPerformanceControllerNFSV3Handler second;
  CTLVPackage rsp;

  EXPECT_EQ(first.OnQueryTable(ctx_, req_, rsp), 0);
  EXPECT_EQ(first.OnQueryTable(ctx_, req_, rsp), 0);
  EXPECT_EQ(KitMessages(log_), (std::vector<std::string>{kItemsDebug}));
  EXPECT_EQ(second.OnQueryTable(ctx_, req_, rsp), 0);
  EXPECT_EQ(second.OnQueryTable(ctx_, req_, rsp), 0);

  EXPECT_EQ(KitMessages(log_), (std::vector<std::string>{kItemsDebug, kItemsDebug}));
  const std::string stats = R"(query 0xDE0222010: 0/2/8/"1000:0A\0" 8/2/8/"182,439\0" 2/3/8/4)";
  EXPECT_EQ(Requests(env_.backend(), ListingLabel::kWord),
            (std::vector<std::string>{kSwitchQuery, kListing207, stats, kSwitchQuery, kListing207, stats, kSwitchQuery,
                                      kListing207, stats, kSwitchQuery, kListing207, stats}));
  EXPECT_EQ(PackageText(rsp), std::vector<std::string>(4, R"(0xFFFFFFFFFFFFFFFF: 1/2/3/"0A\0" 2/3/4/1 3/3/4/2)"));
  const std::vector<std::string> first_query = {Enter(kSimpleQueryTableSig, kBareTrace),
                                                Enter(kItemsSig, kBareTrace),
                                                Leave(kItemsSig, true, kBareTrace),
                                                Enter(kGetBatchPerfDataSig, kBareTrace),
                                                Leave(kGetBatchPerfDataSig, true, kBareTrace),
                                                Leave(kSimpleQueryTableSig, true, kBareTrace)};
  const std::vector<std::string> later_query = {
      Enter(kSimpleQueryTableSig, kBareTrace), Enter(kGetBatchPerfDataSig, kBareTrace),
      Leave(kGetBatchPerfDataSig, true, kBareTrace), Leave(kSimpleQueryTableSig, true, kBareTrace)};
  std::vector<std::string> traces;
  for (const std::vector<std::string>* q : {&first_query, &later_query, &first_query, &later_query}) {
    traces.insert(traces.end(), q->begin(), q->end());
  }
  EXPECT_EQ(log_.traces(), traces);
}

}  // namespace
}  // namespace zerva_test
