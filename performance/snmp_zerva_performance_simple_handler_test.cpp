#include "performance/snmp_zerva_performance_simple_handler.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "diag/vem_exception.h"
#include "tests/support/handler_test_support.h"

namespace zerva_test {
namespace {

// Requests as the back end saw them.
const char kListing213[] = "listing 0xD0000C000: 0/6/8/213";

// A statistics request of object type 214 for the items "7,8".
std::string Stats214(const std::string& objectId) {
  return "query 0xDE0222010: 0/2/" + std::to_string(objectId.size() + 5) + "/\"214:" + objectId +
         "\\0\" 8/2/4/\"7,8\\0\" 2/3/8/4";
}

// A table whose hooks are scripted: it lists object type 213, asks
// statistics under 214 and writes the object ID and every value.
class ScriptedTable : public CPerformanceSimpleHandler {
 public:
  std::string items = "7,8";
  unsigned int keyType = 213;
  unsigned int perfType = 214;
  bool appendCells = true;
  std::function<bool(const CTLVRecordV3&)> validator;

  int statisticsCalls = 0;
  std::vector<std::string> seenIds;
  std::vector<std::vector<unsigned int>> seenValues;
  std::vector<std::string> checkedRecords;

  std::string getStatistics() override {
    ++statisticsCalls;
    return items;
  }
  unsigned int getObjIDForKey() override { return keyType; }
  unsigned int getObjIDForPerf() override { return perfType; }
  void fillRspRecord(CTLVRecordV3* row, std::string objectID, std::vector<unsigned int>& values) override {
    seenIds.push_back(objectID);
    seenValues.push_back(values);
    if (!appendCells) return;
    row->append(tlv::NewStringCell(1, objectID));
    for (size_t i = 0; i < values.size(); ++i) {
      row->append(tlv::NewUintCell(static_cast<unsigned short>(2 + i), CTLVCell::TLV_TYPE_UINT, values[i], 4));
    }
  }
  bool checkRspValid(const CTLVRecordV3& record) override {
    checkedRecords.push_back(RecordText(record));
    return validator ? validator(record) : CPerformanceSimpleHandler::checkRspValid(record);
  }
  const std::string& statistics() const { return m_statistics; }
};

// OnQueryTable's trace lines with one statistics query per entry (true: it
// succeeded).
std::vector<std::string> QueryTraces(const std::vector<bool>& batches, bool ok) {
  return CallTraces(kSimpleQueryTableSig, kGetBatchPerfDataSig, batches, ok, kBareTrace);
}

// A listing answer record: tag 0 an unrelated number, tag 1 the object ID.
Rec Listed(const std::string& objectId) { return Rec(0x77).u32(0, 9).str(1, objectId); }

class SimpleHandlerTest : public HandlerTest<> {
 protected:
  void SetUp() override { env_.setSwitch(1); }
  int Query() { return table_.OnQueryTable(ctx_, req_, rsp_); }

  ScriptedTable table_;
};

TEST_F(SimpleHandlerTest, TwoObjectsGiveTwoRowsInListingOrder) {
  backend().onListing(213, Answer{Listed("obj1"), Listed("obj2")});
  backend().onStats("214:obj1", "5,6");
  backend().onStats("214:obj2", "4294967295,0");

  EXPECT_EQ(Query(), 0);

  EXPECT_EQ(Requests(backend(), ListingLabel::kWord),
            (std::vector<std::string>{kSwitchQuery, kListing213,
                                      R"(query 0xDE0222010: 0/2/9/"214:obj1\0" 8/2/4/"7,8\0" 2/3/8/4)",
                                      R"(query 0xDE0222010: 0/2/9/"214:obj2\0" 8/2/4/"7,8\0" 2/3/8/4)"}));
  EXPECT_EQ(PackageText(rsp_), (std::vector<std::string>{
                                   R"(0xFFFFFFFFFFFFFFFF: 1/2/5/"obj1\0" 2/3/4/5 3/3/4/6)",
                                   R"(0xFFFFFFFFFFFFFFFF: 1/2/5/"obj2\0" 2/3/4/4294967295 3/3/4/0)",
                               }));
  ASSERT_EQ(rsp_.size(), 2u);
  EXPECT_EQ(rsp_[0]->bucketCount(), 32u);
  EXPECT_EQ(rsp_[1]->bucketCount(), 32u);
  EXPECT_EQ(table_.seenIds, (std::vector<std::string>{"obj1", "obj2"}));
  EXPECT_TRUE(KitMessages(log_).empty());
  EXPECT_EQ(log_.traces(),
            (std::vector<std::string>{
                Enter(kSimpleQueryTableSig, kBareTrace), Enter(kGetBatchPerfDataSig, kBareTrace),
                Leave(kGetBatchPerfDataSig, true, kBareTrace), Enter(kGetBatchPerfDataSig, kBareTrace),
                Leave(kGetBatchPerfDataSig, true, kBareTrace), Leave(kSimpleQueryTableSig, true, kBareTrace)}));
}

TEST_F(SimpleHandlerTest, ListingUsesTheKeyTypeAndStatisticsUseThePerfType) {
  table_.keyType = 4000000000u;
  table_.perfType = 57636;
  backend().onListing(4000000000u, Answer{Listed("0A")});
  backend().onStats("57636:0A", "1,2");

  EXPECT_EQ(Query(), 0);

  EXPECT_EQ(Requests(backend(), ListingLabel::kWord),
            (std::vector<std::string>{kSwitchQuery, "listing 0xD0000C000: 0/6/8/4000000000",
                                      R"(query 0xDE0222010: 0/2/9/"57636:0A\0" 8/2/4/"7,8\0" 2/3/8/4)"}));
  EXPECT_EQ(PackageText(rsp_), (std::vector<std::string>{R"(0xFFFFFFFFFFFFFFFF: 1/2/3/"0A\0" 2/3/4/1 3/3/4/2)"}));
  EXPECT_TRUE(KitMessages(log_).empty());
  EXPECT_EQ(log_.traces(), QueryTraces({true}, true));
}

TEST_F(SimpleHandlerTest, SwitchAtZeroOrTwoOrAFailedSwitchQueryGivesEmptyTableWithoutListingRequest) {
  const std::vector<std::pair<std::string, Answer>> switches = {
      {"state 0", Answer{Rec().u32(0, 0)}}, {"state 2", Answer{Rec().u32(0, 2)}}, {"refused", Answer(3)}};
  for (const auto& sw : switches) {
    SCOPED_TRACE(sw.first);
    backend().reset();
    log_.clear();
    backend().on(kGetSwitchCmd, sw.second);
    backend().onListing(213, Answer{Listed("obj1")});
    backend().onStats("214:obj1", "5,6");
    ScriptedTable table;
    CTLVPackage rsp;

    EXPECT_EQ(table.OnQueryTable(ctx_, req_, rsp), 0);

    EXPECT_EQ(table.statisticsCalls, 0);
    EXPECT_EQ(table.statistics(), "");
    ExpectReadStoppedAtTheSwitch(backend(), rsp, log_);
  }
}

TEST_F(SimpleHandlerTest, SwitchNotOneIsNoFailureGivesZeroAndNoRows) {
  env_.setSwitch(0xFFFFFFFFu);
  backend().onListing(213, Answer{Listed("obj1")});
  backend().onStats("214:obj1", "5,6");
  rsp_.push_back(Rec(5).build());

  EXPECT_EQ(Query(), 0);

  EXPECT_EQ(Requests(backend(), ListingLabel::kWord), (std::vector<std::string>{kSwitchQuery}));
  EXPECT_EQ(PackageText(rsp_), (std::vector<std::string>{"0x5: "}));
  EXPECT_EQ(table_.statisticsCalls, 0);
  EXPECT_TRUE(KitMessages(log_).empty());
  EXPECT_EQ(log_.traces(), QueryTraces({}, true));
}

TEST_F(SimpleHandlerTest, EmptyListingAnswerGivesZeroAndEmptyTable) {
  backend().onListing(213, Answer{});

  EXPECT_EQ(Query(), 0);

  ExpectNoRowAfterTheListing(backend(), rsp_, kListing213);
  EXPECT_TRUE(table_.checkedRecords.empty());
  EXPECT_TRUE(KitMessages(log_).empty());
  EXPECT_EQ(log_.traces(), QueryTraces({}, true));
}

TEST_F(SimpleHandlerTest, FailedListingRequestReturnsItsCodeAndLogsIt) {
  backend().onListing(213, Answer(1077949460));

  EXPECT_EQ(Query(), 1077949460);

  ExpectNoRowAfterTheListing(backend(), rsp_, kListing213);
  // The item list is taken before the listing is sent.
  EXPECT_EQ(table_.statisticsCalls, 1);
  EXPECT_EQ(KitMessages(log_),
            (std::vector<std::string>{
                "kit4 ERROR 0x1002E OnQueryTable: faild to query info of controller, err:1077949460."}));
  EXPECT_EQ(log_.traces(), QueryTraces({}, false));
}

TEST_F(SimpleHandlerTest, RecordFailingTheCheckEndsQueryWithMinusOneKeepingEarlierRows) {
  table_.validator = [](const CTLVRecordV3& r) { return r[1]->toString() != "bad"; };
  backend().onListing(213, Answer{Listed("obj1"), Listed("bad"), Listed("obj3")});
  backend().onStats("214:obj1", "1,2");
  backend().onStats("214:bad", "3,4");
  backend().onStats("214:obj3", "5,6");

  EXPECT_EQ(Query(), -1);

  EXPECT_EQ(Requests(backend(), ListingLabel::kWord),
            (std::vector<std::string>{kSwitchQuery, kListing213, Stats214("obj1")}));
  EXPECT_EQ(PackageText(rsp_), (std::vector<std::string>{R"(0xFFFFFFFFFFFFFFFF: 1/2/5/"obj1\0" 2/3/4/1 3/3/4/2)"}));
  // The check saw the listing records as they came, and none after the bad one.
  EXPECT_EQ(table_.checkedRecords, (std::vector<std::string>{R"(0/3/4/9 1/2/5/"obj1\0")", R"(0/3/4/9 1/2/4/"bad\0")"}));
  EXPECT_EQ(KitMessages(log_), (std::vector<std::string>{"kit4 ERROR 0x1002E OnQueryTable: faild to parse rsp"}));
  EXPECT_EQ(log_.traces(),
            (std::vector<std::string>{Enter(kSimpleQueryTableSig, kBareTrace), Enter(kGetBatchPerfDataSig, kBareTrace),
                                      Leave(kGetBatchPerfDataSig, true, kBareTrace),
                                      Leave(kSimpleQueryTableSig, false, kBareTrace)}));
}

TEST_F(SimpleHandlerTest, FirstRecordFailingTheCheckGivesMinusOneAndNoStatisticsRequest) {
  table_.validator = [](const CTLVRecordV3&) { return false; };
  backend().onListing(213, Answer{Listed("obj1")});
  backend().onStats("214:obj1", "1,2");

  EXPECT_EQ(Query(), -1);

  ExpectNoRowAfterTheListing(backend(), rsp_, kListing213);
  EXPECT_EQ(KitMessages(log_), (std::vector<std::string>{"kit4 ERROR 0x1002E OnQueryTable: faild to parse rsp"}));
  EXPECT_EQ(log_.traces(), QueryTraces({}, false));
}

TEST_F(SimpleHandlerTest, FailedStatisticsOfSecondOfThreeObjectsLeavesOneRowAndReturnsItsCode) {
  backend().onListing(213, Answer{Listed("obj1"), Listed("obj2"), Listed("obj3")});
  backend().onStats("214:obj1", "1,2");
  backend().onStatsError("214:obj2", 7);
  backend().onStats("214:obj3", "5,6");

  EXPECT_EQ(Query(), 7);

  EXPECT_EQ(Requests(backend(), ListingLabel::kWord),
            (std::vector<std::string>{kSwitchQuery, kListing213, Stats214("obj1"), Stats214("obj2")}));
  EXPECT_EQ(PackageText(rsp_), (std::vector<std::string>{R"(0xFFFFFFFFFFFFFFFF: 1/2/5/"obj1\0" 2/3/4/1 3/3/4/2)"}));
  EXPECT_EQ(table_.seenIds, (std::vector<std::string>{"obj1"}));
  EXPECT_EQ(KitMessages(log_),
            (std::vector<std::string>{
                "kit4 ERROR 0x1002E GetBatchPerfData: faild to query perf data, UUID:214:obj2, Item:7,8, err:7.",
                "kit4 ERROR 0x1002E OnQueryTable: failed to get perf data of obj2, err:7"}));
  EXPECT_EQ(log_.traces(),
            (std::vector<std::string>{
                Enter(kSimpleQueryTableSig, kBareTrace), Enter(kGetBatchPerfDataSig, kBareTrace),
                Leave(kGetBatchPerfDataSig, true, kBareTrace), Enter(kGetBatchPerfDataSig, kBareTrace),
                Leave(kGetBatchPerfDataSig, false, kBareTrace), Leave(kSimpleQueryTableSig, false, kBareTrace)}));
}

TEST_F(SimpleHandlerTest, UnparsableStatisticsEndQueryWithMinusOne) {
  backend().onListing(213, Answer{Listed("obj1")});
  backend().onStats("214:obj1", "1,x");

  EXPECT_EQ(Query(), -1);

  EXPECT_EQ(Requests(backend(), ListingLabel::kWord),
            (std::vector<std::string>{kSwitchQuery, kListing213, Stats214("obj1")}));
  EXPECT_EQ(rsp_.size(), 0u);
  EXPECT_TRUE(table_.seenIds.empty());
  EXPECT_EQ(KitMessages(log_),
            (std::vector<std::string>{
                "kit4 ERROR 0x1002E GetBatchPerfData: faild to parse perf data, UUID:214:obj1, Item:7,8, Value:1,x.",
                "kit4 ERROR 0x1002E OnQueryTable: failed to get perf data of obj1, err:-1"}));
  EXPECT_EQ(log_.traces(),
            (std::vector<std::string>{Enter(kSimpleQueryTableSig, kBareTrace), Enter(kGetBatchPerfDataSig, kBareTrace),
                                      Leave(kGetBatchPerfDataSig, false, kBareTrace),
                                      Leave(kSimpleQueryTableSig, false, kBareTrace)}));
}

TEST_F(SimpleHandlerTest, ItemListIsComputedOnceAndReusedByLaterQueries) {
  backend().onListing(213, Answer{Listed("obj1")});
  backend().onStats("214:obj1", "1,2");

  EXPECT_EQ(Query(), 0);
  table_.items = "9,9,9";  // a later answer of the hook is never asked for
  CTLVPackage rsp2;
  EXPECT_EQ(table_.OnQueryTable(ctx_, req_, rsp2), 0);

  EXPECT_EQ(table_.statisticsCalls, 1);
  EXPECT_EQ(table_.statistics(), "7,8");
  EXPECT_EQ(Requests(backend(), ListingLabel::kWord),
            (std::vector<std::string>{kSwitchQuery, kListing213, Stats214("obj1"), kSwitchQuery, kListing213,
                                      Stats214("obj1")}));
  EXPECT_EQ(PackageText(rsp_), (std::vector<std::string>{R"(0xFFFFFFFFFFFFFFFF: 1/2/5/"obj1\0" 2/3/4/1 3/3/4/2)"}));
  EXPECT_EQ(PackageText(rsp2), (std::vector<std::string>{R"(0xFFFFFFFFFFFFFFFF: 1/2/5/"obj1\0" 2/3/4/1 3/3/4/2)"}));
  EXPECT_TRUE(KitMessages(log_).empty());
  EXPECT_EQ(log_.traces(), Repeat(QueryTraces({true}, true), 2));
}

TEST_F(SimpleHandlerTest, ItemListIsTakenAtFirstQueryWithSwitchOn) {
  env_.setSwitch(0);
  EXPECT_EQ(Query(), 0);
  EXPECT_EQ(table_.statisticsCalls, 0);

  env_.setSwitch(1);
  backend().onListing(213, Answer{Listed("obj1")});
  backend().onStats("214:obj1", "1,2");
  EXPECT_EQ(Query(), 0);

  EXPECT_EQ(table_.statisticsCalls, 1);
  EXPECT_EQ(Requests(backend(), ListingLabel::kWord),
            (std::vector<std::string>{kSwitchQuery, kSwitchQuery, kListing213, Stats214("obj1")}));
  EXPECT_EQ(PackageText(rsp_), (std::vector<std::string>{R"(0xFFFFFFFFFFFFFFFF: 1/2/5/"obj1\0" 2/3/4/1 3/3/4/2)"}));
  EXPECT_TRUE(KitMessages(log_).empty());
  std::vector<std::string> traces = QueryTraces({}, true);
  const std::vector<std::string> on = QueryTraces({true}, true);
  traces.insert(traces.end(), on.begin(), on.end());
  EXPECT_EQ(log_.traces(), traces);
}

TEST_F(SimpleHandlerTest, ValueListIsEmptiedBeforeEachObject) {
  backend().onListing(213, Answer{Listed("a1"), Listed("a2")});
  backend().onStats("214:a1", "1,2");
  backend().onStats("214:a2", "3,4");

  EXPECT_EQ(Query(), 0);

  EXPECT_EQ(table_.seenValues, (std::vector<std::vector<unsigned int>>{{1, 2}, {3, 4}}));
  EXPECT_EQ(Requests(backend(), ListingLabel::kWord),
            (std::vector<std::string>{kSwitchQuery, kListing213,
                                      R"(query 0xDE0222010: 0/2/7/"214:a1\0" 8/2/4/"7,8\0" 2/3/8/4)",
                                      R"(query 0xDE0222010: 0/2/7/"214:a2\0" 8/2/4/"7,8\0" 2/3/8/4)"}));
  EXPECT_EQ(PackageText(rsp_), (std::vector<std::string>{R"(0xFFFFFFFFFFFFFFFF: 1/2/3/"a1\0" 2/3/4/1 3/3/4/2)",
                                                         R"(0xFFFFFFFFFFFFFFFF: 1/2/3/"a2\0" 2/3/4/3 3/3/4/4)"}));
  EXPECT_TRUE(KitMessages(log_).empty());
  EXPECT_EQ(log_.traces(), QueryTraces({true, true}, true));
}

TEST_F(SimpleHandlerTest, RowIsAppendedWhateverNumberOfCellsTheHookAppended) {
  table_.appendCells = false;
  backend().onListing(213, Answer{Listed("obj1"), Listed("obj2")});
  backend().onStats("214:obj1", "1,2");
  backend().onStats("214:obj2", "3,4");

  EXPECT_EQ(Query(), 0);

  ASSERT_EQ(rsp_.size(), 2u);
  EXPECT_EQ(rsp_[0]->id(), 0xFFFFFFFFFFFFFFFFULL);
  EXPECT_EQ(rsp_[0]->cellCount(), 0u);
  EXPECT_EQ(rsp_[1]->id(), 0xFFFFFFFFFFFFFFFFULL);
  EXPECT_EQ(rsp_[1]->cellCount(), 0u);
  EXPECT_EQ(PackageText(rsp_), (std::vector<std::string>{"0xFFFFFFFFFFFFFFFF: ", "0xFFFFFFFFFFFFFFFF: "}));
  EXPECT_EQ(table_.seenIds, (std::vector<std::string>{"obj1", "obj2"}));
  EXPECT_EQ(Requests(backend(), ListingLabel::kWord),
            (std::vector<std::string>{kSwitchQuery, kListing213, Stats214("obj1"), Stats214("obj2")}));
  EXPECT_TRUE(KitMessages(log_).empty());
  EXPECT_EQ(log_.traces(), QueryTraces({true, true}, true));
}

TEST_F(SimpleHandlerTest, RowsAreAppendedAfterWhatTheResponseHeld) {
  rsp_.push_back(Rec(5).u32(3, 33).build());
  backend().onListing(213, Answer{Listed("obj1")});
  backend().onStats("214:obj1", "1,2");

  EXPECT_EQ(Query(), 0);

  EXPECT_EQ(PackageText(rsp_),
            (std::vector<std::string>{"0x5: 3/3/4/33", R"(0xFFFFFFFFFFFFFFFF: 1/2/5/"obj1\0" 2/3/4/1 3/3/4/2)"}));
  EXPECT_EQ(Requests(backend(), ListingLabel::kWord),
            (std::vector<std::string>{kSwitchQuery, kListing213, Stats214("obj1")}));
  EXPECT_TRUE(KitMessages(log_).empty());
  EXPECT_EQ(log_.traces(), QueryTraces({true}, true));
}

TEST_F(SimpleHandlerTest, RequestPackageAndContextAreNotConsulted) {
  req_.push_back(Rec(kListingCmd).t6(0, 207).str(1, "0A").build());
  backend().onListing(213, Answer{Listed("obj1")});
  backend().onStats("214:obj1", "1,2");

  EXPECT_EQ(Query(), 0);

  EXPECT_EQ(Requests(backend(), ListingLabel::kWord),
            (std::vector<std::string>{kSwitchQuery, kListing213, Stats214("obj1")}));
  EXPECT_EQ(PackageText(rsp_), (std::vector<std::string>{R"(0xFFFFFFFFFFFFFFFF: 1/2/5/"obj1\0" 2/3/4/1 3/3/4/2)"}));
  EXPECT_EQ(PackageText(req_), (std::vector<std::string>{R"(0xD0000C000: 0/6/8/207 1/2/3/"0A\0")"}));
  EXPECT_TRUE(KitMessages(log_).empty());
  EXPECT_EQ(log_.traces(), QueryTraces({true}, true));
}

TEST_F(SimpleHandlerTest, DefaultRecordCheckAcceptsAnyRecord) {
  ScriptedTable plain;
  std::unique_ptr<CTLVRecordV3> empty(Rec(1).build());
  std::unique_ptr<CTLVRecordV3> notController(Rec(2).str(1, "X9").build());
  std::unique_ptr<CTLVRecordV3> numeric(Rec(3).u32(1, 5).u64(2, 6).build());
  EXPECT_TRUE(plain.CPerformanceSimpleHandler::checkRspValid(*empty));
  EXPECT_TRUE(plain.CPerformanceSimpleHandler::checkRspValid(*notController));
  EXPECT_TRUE(plain.CPerformanceSimpleHandler::checkRspValid(*numeric));
  EXPECT_TRUE(plain.checkedRecords.empty());
  EXPECT_EQ(backend().callCount(), 0u);
  EXPECT_TRUE(KitMessages(log_).empty());
  EXPECT_TRUE(log_.traces().empty());
}

TEST_F(SimpleHandlerTest, DefaultRecordCheckLetsObjectIdsThatAreNoControllerIdsThrough) {
  backend().onListing(213, Answer{Listed("X9"), Listed("7")});
  backend().onStats("214:X9", "1,2");
  backend().onStats("214:7", "3,4");

  EXPECT_EQ(Query(), 0);

  EXPECT_EQ(Requests(backend(), ListingLabel::kWord),
            (std::vector<std::string>{kSwitchQuery, kListing213, Stats214("X9"), Stats214("7")}));
  EXPECT_EQ(PackageText(rsp_), (std::vector<std::string>{R"(0xFFFFFFFFFFFFFFFF: 1/2/3/"X9\0" 2/3/4/1 3/3/4/2)",
                                                         R"(0xFFFFFFFFFFFFFFFF: 1/2/2/"7\0" 2/3/4/3 3/3/4/4)"}));
  EXPECT_TRUE(KitMessages(log_).empty());
  EXPECT_EQ(log_.traces(), QueryTraces({true, true}, true));
}

TEST_F(SimpleHandlerTest, ListingRecordWithoutObjectIdThrowsAndKeepsEarlierRows) {
  backend().onListing(213, Answer{Listed("obj1"), Rec(0x77).u32(0, 9)});
  backend().onStats("214:obj1", "1,2");

  try {
    Query();
    ADD_FAILURE() << "no exception";
  } catch (const CVEM_Exception& e) {
    EXPECT_EQ(std::string(e.what()), "CVEM_Exception: cell don't exist, tag is 1");
  }

  EXPECT_EQ(Requests(backend(), ListingLabel::kWord),
            (std::vector<std::string>{kSwitchQuery, kListing213, Stats214("obj1")}));
  EXPECT_EQ(PackageText(rsp_), (std::vector<std::string>{R"(0xFFFFFFFFFFFFFFFF: 1/2/5/"obj1\0" 2/3/4/1 3/3/4/2)"}));
  EXPECT_TRUE(KitMessages(log_).empty());
  EXPECT_EQ(log_.traces(),
            (std::vector<std::string>{Enter(kSimpleQueryTableSig, kBareTrace), Enter(kGetBatchPerfDataSig, kBareTrace),
                                      Leave(kGetBatchPerfDataSig, true, kBareTrace),
                                      Leave(kSimpleQueryTableSig, true, kBareTrace)}));
}

}  // namespace
}  // namespace zerva_test
