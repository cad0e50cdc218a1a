#include "performance/snmp_zerva_performance_node_handler.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "diag/vem_exception.h"
#include "snmpcommon/snmp_capability.h"
#include "tests/support/handler_test_support.h"

namespace zerva_test {
namespace {

const char kNineItems[] = "68,69,78,22,25,28,21,23,26";
const char kElevenItems[] = "68,69,78,22,25,28,21,23,26,475,476";

// Requests as the back end saw them.
const char kListing207[] = "listing 0xD0000C000: 0/6/8/207";

// The statistics request of a two-character controller ID.
std::string Stats9(const std::string& id) {
  return R"(query 0xDE0222010: 0/2/7/"207:)" + id + R"(\0" 8/2/27/"68,69,78,22,25,28,21,23,26\0" 2/3/8/4)";
}
std::string Stats11(const std::string& id) {
  return R"(query 0xDE0222010: 0/2/7/"207:)" + id + R"(\0" 8/2/35/"68,69,78,22,25,28,21,23,26,475,476\0" 2/3/8/4)";
}

const char kAllOnes[] = "18446744073709551615";

// The expected row of a controller: node number, then one cell per value;
// without feature 602 the two last columns are 8-byte all-ones cells.
std::string Row(unsigned int node, const std::vector<unsigned int>& values, bool feature602) {
  std::string out = "0xFFFFFFFFFFFFFFFF: 1/3/4/" + std::to_string(node);
  for (size_t i = 0; i < values.size(); ++i) {
    out += " " + std::to_string(i + 2) + "/3/4/" + std::to_string(values[i]);
  }
  if (!feature602) out += std::string(" 11/3/8/") + kAllOnes + " 12/3/8/" + kAllOnes;
  return out;
}

std::string Join(const std::vector<unsigned int>& values) {
  std::string out;
  for (size_t i = 0; i < values.size(); ++i) out += (i == 0 ? "" : ",") + std::to_string(values[i]);
  return out;
}

// A listing answer record: tag 0 an unrelated number, tag 1 the object ID.
Rec Controller(const std::string& objectId) { return Rec(0x5).t6(0, 207).str(1, objectId); }

const std::vector<unsigned int> kValues0A = {10, 11, 12, 13, 14, 15, 16, 17, 4294967295u};
const std::vector<unsigned int> kValues1B = {20, 21, 22, 23, 24, 25, 26, 27, 28};
const std::vector<unsigned int> kValues0A11 = {10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 4294967295u};
const std::vector<unsigned int> kValues1B11 = {20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30};

class NodeHandlerTest : public HandlerTest<> {
 protected:
  void SetUp() override { env_.setSwitch(1); }
  int Query(CPerformanceNodeHandler& handler) { return handler.OnQueryTable(ctx_, req_, rsp_); }
  std::vector<std::string> QueryTraces(const std::vector<bool>& batches, bool ok) {
    return CallTraces(kSimpleQueryTableSig, kGetBatchPerfDataSig, batches, ok, kBareTrace);
  }
  // A query of handler that answers a row for each listed controller: it
  // returns 0 after the switch query and requests (the listing, then one
  // statistics query per controller), writes no message and traces every
  // statistics query as succeeded; the rows are those of the answer.
  void ExpectEveryControllerAnswered(CPerformanceNodeHandler& handler, const std::vector<std::string>& requests,
                                     const std::vector<std::string>& rows) {
    EXPECT_EQ(Query(handler), 0);

    std::vector<std::string> all{kSwitchQuery};
    all.insert(all.end(), requests.begin(), requests.end());
    EXPECT_EQ(Requests(backend(), ListingLabel::kWord), all);
    EXPECT_EQ(PackageText(rsp_), rows);
    EXPECT_TRUE(KitMessages(log_).empty());
    EXPECT_EQ(log_.traces(), QueryTraces(std::vector<bool>(requests.size() - 1, true), true));
  }
};

TEST_F(NodeHandlerTest, HooksListControllersAndAskStatisticsOfControllers) {
  CPerformanceNodeHandler handler;
  EXPECT_EQ(handler.getObjIDForKey(), 207u);
  EXPECT_EQ(handler.getObjIDForPerf(), 207u);
  EXPECT_EQ(handler.getStatistics(), kNineItems);
  EXPECT_EQ(backend().callCount(), 0u);
  EXPECT_TRUE(KitMessages(log_).empty());
  EXPECT_TRUE(log_.traces().empty());
}

TEST_F(NodeHandlerTest, ItemListWithoutFeature602HasNineItems) {
  CPerformanceNodeHandler handler;
  EXPECT_EQ(handler.getStatistics(), "68,69,78,22,25,28,21,23,26");
  backend().onListing(207, Answer{Controller("0A")});
  backend().onStats("207:0A", Join(kValues0A));

  ExpectEveryControllerAnswered(
      handler, {kListing207, R"(query 0xDE0222010: 0/2/7/"207:0A\0" 8/2/27/"68,69,78,22,25,28,21,23,26\0" 2/3/8/4)"},
      {Row(0, kValues0A, false)});
}

TEST_F(NodeHandlerTest, ItemListWithFeature602HasElevenItems) {
  env_.setFeatures({602});
  CPerformanceNodeHandler handler;
  EXPECT_EQ(handler.getStatistics(), "68,69,78,22,25,28,21,23,26,475,476");
  backend().onListing(207, Answer{Controller("0A")});
  backend().onStats("207:0A", Join(kValues0A11));

  ExpectEveryControllerAnswered(
      handler,
      {kListing207, R"(query 0xDE0222010: 0/2/7/"207:0A\0" 8/2/35/"68,69,78,22,25,28,21,23,26,475,476\0" 2/3/8/4)"},
      {Row(0, kValues0A11, true)});
}

TEST_F(NodeHandlerTest, OtherFeaturesDoNotChangeTheItemList) {
  env_.setFeatures({48, 49, 601, 603});
  CPerformanceNodeHandler handler;
  EXPECT_EQ(handler.getStatistics(), kNineItems);
  EXPECT_EQ(backend().callCount(), 0u);
  EXPECT_TRUE(KitMessages(log_).empty());
}

TEST_F(NodeHandlerTest, WithoutFeature602TagsElevenAndTwelveCarryEightByteAllOnes) {
  CPerformanceNodeHandler handler;
  backend().onListing(207, Answer{Controller("0A"), Controller("1B")});
  backend().onStats("207:0A", Join(kValues0A));
  backend().onStats("207:1B", Join(kValues1B));

  ExpectEveryControllerAnswered(
      handler, {kListing207, Stats9("0A"), Stats9("1B")},
      {"0xFFFFFFFFFFFFFFFF: 1/3/4/0 2/3/4/10 3/3/4/11 4/3/4/12 5/3/4/13 6/3/4/14 7/3/4/15 8/3/4/16 9/3/4/17 "
       "10/3/4/4294967295 11/3/8/18446744073709551615 12/3/8/18446744073709551615",
       "0xFFFFFFFFFFFFFFFF: 1/3/4/5 2/3/4/20 3/3/4/21 4/3/4/22 5/3/4/23 6/3/4/24 7/3/4/25 8/3/4/26 9/3/4/27 "
       "10/3/4/28 11/3/8/18446744073709551615 12/3/8/18446744073709551615"});
  ASSERT_EQ(rsp_.size(), 2u);
  for (size_t r = 0; r < rsp_.size(); ++r) {
    ASSERT_EQ(rsp_[r]->cellCount(), 12u);
    const CTLVCell* c11 = (*rsp_[r])[11];
    const CTLVCell* c12 = (*rsp_[r])[12];
    for (const CTLVCell* c : {c11, c12}) {
      EXPECT_EQ(c->type(), 3);
      ASSERT_EQ(c->length(), 8u);
      for (unsigned i = 0; i < 8; ++i) EXPECT_EQ(c->value()[i], 0xFF);
    }
  }
}

TEST_F(NodeHandlerTest, WithFeature602EveryRowHasTwelveCellsOfFourBytes) {
  env_.setFeatures({602});
  CPerformanceNodeHandler handler;
  backend().onListing(207, Answer{Controller("0A"), Controller("1B")});
  backend().onStats("207:0A", Join(kValues0A11));
  backend().onStats("207:1B", Join(kValues1B11));

  ExpectEveryControllerAnswered(
      handler, {kListing207, Stats11("0A"), Stats11("1B")},
      {"0xFFFFFFFFFFFFFFFF: 1/3/4/0 2/3/4/10 3/3/4/11 4/3/4/12 5/3/4/13 6/3/4/14 7/3/4/15 8/3/4/16 9/3/4/17 "
       "10/3/4/18 11/3/4/19 12/3/4/4294967295",
       "0xFFFFFFFFFFFFFFFF: 1/3/4/5 2/3/4/20 3/3/4/21 4/3/4/22 5/3/4/23 6/3/4/24 7/3/4/25 8/3/4/26 9/3/4/27 "
       "10/3/4/28 11/3/4/29 12/3/4/30"});
  ASSERT_EQ(rsp_.size(), 2u);
  for (size_t r = 0; r < rsp_.size(); ++r) {
    ASSERT_EQ(rsp_[r]->cellCount(), 12u);
    unsigned short tag = 1;
    for (const CTLVCell* c : rsp_[r]->cells()) {
      EXPECT_EQ(c->tag(), tag++);
      EXPECT_EQ(c->type(), 3);
      EXPECT_EQ(c->length(), 4u);
    }
  }
}

TEST_F(NodeHandlerTest, RowIsIndexedByNodeNumberOfTheControllerId) {
  CPerformanceNodeHandler handler;
  backend().onListing(207, Answer{Controller("0A"), Controller("0D"), Controller("1A"), Controller("12C")});
  backend().onStats("207:0A", Join(kValues0A));
  backend().onStats("207:0D", Join(kValues1B));
  backend().onStats("207:1A", Join(kValues1B));
  backend().onStats("207:12C", Join(kValues0A));

  ExpectEveryControllerAnswered(
      handler,
      {kListing207, Stats9("0A"), Stats9("0D"), Stats9("1A"),
       R"(query 0xDE0222010: 0/2/8/"207:12C\0" 8/2/27/"68,69,78,22,25,28,21,23,26\0" 2/3/8/4)"},
      {Row(0, kValues0A, false), Row(3, kValues1B, false), Row(4, kValues1B, false), Row(50, kValues0A, false)});
}

TEST_F(NodeHandlerTest, SwitchAtZeroGivesEmptyTableWithoutListingRequest) {
  env_.setSwitch(0);
  CPerformanceNodeHandler handler;
  backend().onListing(207, Answer{Controller("0A")});
  backend().onStats("207:0A", Join(kValues0A));

  EXPECT_EQ(Query(handler), 0);

  ExpectReadStoppedAtTheSwitch(backend(), rsp_, log_);
}

TEST_F(NodeHandlerTest, SwitchAtTwoGivesEmptyTableWithoutListingRequest) {
  env_.setSwitch(2);
  CPerformanceNodeHandler handler;
  backend().onListing(207, Answer{Controller("0A")});
  backend().onStats("207:0A", Join(kValues0A));

  EXPECT_EQ(Query(handler), 0);

  ExpectReadStoppedAtTheSwitch(backend(), rsp_, log_);
}

TEST_F(NodeHandlerTest, SwitchNotOneIsNoFailureGivesZeroAndNoRows) {
  env_.setSwitch(0xFFFFFFFFu);
  CPerformanceNodeHandler handler;
  backend().onListing(207, Answer{Controller("0A")});
  backend().onStats("207:0A", Join(kValues0A));

  EXPECT_EQ(Query(handler), 0);

  ExpectReadStoppedAtTheSwitch(backend(), rsp_, log_);
}

TEST_F(NodeHandlerTest, EmptyListingAnswerGivesZeroAndEmptyTable) {
  CPerformanceNodeHandler handler;
  backend().onListing(207, Answer{});

  EXPECT_EQ(Query(handler), 0);

  ExpectNoRowAfterTheListing(backend(), rsp_, kListing207);
  EXPECT_TRUE(KitMessages(log_).empty());
  EXPECT_EQ(log_.traces(), QueryTraces({}, true));
}

TEST_F(NodeHandlerTest, FailedListingRequestReturnsItsCodeAndLogsIt) {
  CPerformanceNodeHandler handler;
  backend().onListing(207, Answer(1077949460));

  EXPECT_EQ(Query(handler), 1077949460);

  ExpectNoRowAfterTheListing(backend(), rsp_, kListing207);
  EXPECT_EQ(KitMessages(log_),
            (std::vector<std::string>{
                "kit4 ERROR 0x1002E OnQueryTable: faild to query info of controller, err:1077949460."}));
  EXPECT_EQ(log_.traces(), QueryTraces({}, false));
}

TEST_F(NodeHandlerTest, FailedStatisticsOfSecondOfThreeControllersLeavesOneRowAndReturnsItsCode) {
  CPerformanceNodeHandler handler;
  backend().onListing(207, Answer{Controller("0A"), Controller("0B"), Controller("0C")});
  backend().onStats("207:0A", Join(kValues0A));
  backend().onStatsError("207:0B", 1077949461);
  backend().onStats("207:0C", Join(kValues1B));

  EXPECT_EQ(Query(handler), 1077949461);

  EXPECT_EQ(Requests(backend(), ListingLabel::kWord),
            (std::vector<std::string>{kSwitchQuery, kListing207, Stats9("0A"), Stats9("0B")}));
  EXPECT_EQ(PackageText(rsp_), (std::vector<std::string>{Row(0, kValues0A, false)}));
  EXPECT_EQ(KitMessages(log_), (std::vector<std::string>{
                                   "kit4 ERROR 0x1002E GetBatchPerfData: faild to query perf data, UUID:207:0B, "
                                   "Item:68,69,78,22,25,28,21,23,26, err:1077949461.",
                                   "kit4 ERROR 0x1002E OnQueryTable: failed to get perf data of 0B, err:1077949461"}));
  EXPECT_EQ(log_.traces(), QueryTraces({true, false}, false));
}

TEST_F(NodeHandlerTest, FailedStatisticsOfOnlyControllerGivesNoRowAndItsCode) {
  CPerformanceNodeHandler handler;
  backend().onListing(207, Answer{Controller("3D")});
  backend().onStatsError("207:3D", -5);

  EXPECT_EQ(Query(handler), -5);

  EXPECT_EQ(Requests(backend(), ListingLabel::kWord),
            (std::vector<std::string>{kSwitchQuery, kListing207, Stats9("3D")}));
  EXPECT_EQ(rsp_.size(), 0u);
  EXPECT_EQ(KitMessages(log_),
            (std::vector<std::string>{"kit4 ERROR 0x1002E GetBatchPerfData: faild to query perf data, UUID:207:3D, "
                                      "Item:68,69,78,22,25,28,21,23,26, err:-5.",
                                      "kit4 ERROR 0x1002E OnQueryTable: failed to get perf data of 3D, err:-5"}));
  EXPECT_EQ(log_.traces(), QueryTraces({false}, false));
}

TEST_F(NodeHandlerTest, NonControllerIdEndsQueryWithMinusOneKeepingEarlierRows) {
  CPerformanceNodeHandler handler;
  backend().onListing(207, Answer{Controller("0A"), Controller("X9"), Controller("1B")});
  backend().onStats("207:0A", Join(kValues0A));
  backend().onStats("207:X9", Join(kValues1B));
  backend().onStats("207:1B", Join(kValues1B));

  EXPECT_EQ(Query(handler), -1);

  EXPECT_EQ(Requests(backend(), ListingLabel::kWord),
            (std::vector<std::string>{kSwitchQuery, kListing207, Stats9("0A")}));
  EXPECT_EQ(PackageText(rsp_), (std::vector<std::string>{Row(0, kValues0A, false)}));
  EXPECT_EQ(KitMessages(log_), (std::vector<std::string>{"kit4 ERROR 0x1002E OnQueryTable: faild to parse rsp"}));
  EXPECT_EQ(log_.traces(), QueryTraces({true}, false));
}

TEST_F(NodeHandlerTest, BareEngineNumberIsNoControllerIdAndGivesMinusOne) {
  CPerformanceNodeHandler handler;
  backend().onListing(207, Answer{Controller("7")});
  backend().onStats("207:7", Join(kValues0A));

  EXPECT_EQ(Query(handler), -1);

  ExpectNoRowAfterTheListing(backend(), rsp_, kListing207);
  EXPECT_EQ(KitMessages(log_), (std::vector<std::string>{"kit4 ERROR 0x1002E OnQueryTable: faild to parse rsp"}));
  EXPECT_EQ(log_.traces(), QueryTraces({}, false));
}

TEST_F(NodeHandlerTest, RecordCheckAcceptsExactlyControllerIds) {
  CPerformanceNodeHandler handler;
  for (const char* id : {"0A", "0B", "0C", "0D", "1A", "63D"}) {
    std::unique_ptr<CTLVRecordV3> r(Rec(1).str(1, id).build());
    EXPECT_TRUE(handler.checkRspValid(*r)) << id;
  }
  for (const char* id : {"X9", "7", "0E", "", "A", "64A", "01A", "1a"}) {
    std::unique_ptr<CTLVRecordV3> r(Rec(1).str(1, id).build());
    EXPECT_FALSE(handler.checkRspValid(*r)) << id;
  }
  EXPECT_EQ(backend().callCount(), 0u);
  EXPECT_TRUE(KitMessages(log_).empty());
}

TEST_F(NodeHandlerTest, RowHookAppendsNoCellForANonControllerId) {
  CPerformanceNodeHandler handler;
  std::vector<unsigned int> values = kValues0A;
  CTLVRecordV3 row(CTLVRecordV3::RESPONSE_ID, 32);
  handler.fillRspRecord(&row, "X9", values);
  EXPECT_EQ(row.cellCount(), 0u);
  handler.fillRspRecord(&row, "0B", values);
  EXPECT_EQ(RecordText(row), Row(1, kValues0A, false).substr(20));
  EXPECT_EQ(backend().callCount(), 0u);
  EXPECT_TRUE(KitMessages(log_).empty());
}

// A node table that counts how often its item list is asked for.
class CountingNodeHandler : public CPerformanceNodeHandler {
 public:
  int statisticsCalls = 0;
  std::string getStatistics() override {
    ++statisticsCalls;
    return CPerformanceNodeHandler::getStatistics();
  }
};

TEST_F(NodeHandlerTest, ItemListIsComputedOnceAndReusedByLaterQueries) {
  CountingNodeHandler handler;
  backend().onListing(207, Answer{Controller("0A")});
  backend().onStats("207:0A", Join(kValues0A));

  EXPECT_EQ(Query(handler), 0);
  CTLVPackage rsp2;
  EXPECT_EQ(handler.OnQueryTable(ctx_, req_, rsp2), 0);

  EXPECT_EQ(
      Requests(backend(), ListingLabel::kWord),
      (std::vector<std::string>{kSwitchQuery, kListing207, Stats9("0A"), kSwitchQuery, kListing207, Stats9("0A")}));
  EXPECT_EQ(PackageText(rsp_), (std::vector<std::string>{Row(0, kValues0A, false)}));
  EXPECT_EQ(PackageText(rsp2), (std::vector<std::string>{Row(0, kValues0A, false)}));
  EXPECT_EQ(handler.statisticsCalls, 1);
  EXPECT_TRUE(KitMessages(log_).empty());
  EXPECT_EQ(log_.traces(), Repeat(QueryTraces({true}, true), 2));
}

TEST_F(NodeHandlerTest, ItemListFollowsFeature602AsAskedAtConstruction) {
  CPerformanceNodeHandler handler;  // without 602
  env_.setFeatures({602});
  backend().onListing(207, Answer{Controller("0A")});
  backend().onStats("207:0A", Join(kValues0A));

  // The list keeps nine items; the row asks the feature again, finds it and
  // has no tenth value for tag 11.
  ExpectEveryControllerAnswered(handler, {kListing207, Stats9("0A")}, {Row(0, kValues0A, true)});
  ASSERT_EQ(rsp_.size(), 1u);
  EXPECT_EQ(rsp_[0]->cellCount(), 10u);
}

TEST_F(NodeHandlerTest, FeatureIsAskedAgainForEveryRow) {
  env_.setFeatures({602});
  CPerformanceNodeHandler handler;  // eleven items
  env_.setFeatures({});
  backend().onListing(207, Answer{Controller("0A")});
  backend().onStats("207:0A", Join(kValues0A11));

  // Ten values are used and the two last are replaced by the absent column.
  ExpectEveryControllerAnswered(
      handler, {kListing207, Stats11("0A")},
      {Row(0, std::vector<unsigned int>(kValues0A11.begin(), kValues0A11.begin() + 9), false)});
}

// A capability source that answers from a script and records the questions.
class ScriptedCapabilities : public ISnmpCapabilitySource {
 public:
  explicit ScriptedCapabilities(std::vector<bool> answers) : answers_(std::move(answers)) {}
  bool supports(int feature) override {
    asked.push_back(feature);
    const bool answer = next_ < answers_.size() ? answers_[next_] : false;
    ++next_;
    return answer;
  }
  std::vector<int> asked;

 private:
  std::vector<bool> answers_;
  size_t next_ = 0;
};

TEST_F(NodeHandlerTest, FeatureIsAskedAtConstructionAndForEachOfTagsElevenAndTwelve) {
  // Construction: yes (eleven items); row 0A: no for tag 11, yes for tag 12;
  // row 1B: yes for tag 11, no for tag 12.
  auto source = std::make_shared<ScriptedCapabilities>(std::vector<bool>{true, false, true, true, false});
  SetSnmpCapabilitySource(source);
  CPerformanceNodeHandler handler;
  backend().onListing(207, Answer{Controller("0A"), Controller("1B")});
  backend().onStats("207:0A", Join(kValues0A11));
  backend().onStats("207:1B", Join(kValues1B11));

  EXPECT_EQ(Query(handler), 0);

  EXPECT_EQ(source->asked, (std::vector<int>{602, 602, 602, 602, 602}));
  EXPECT_EQ(Requests(backend(), ListingLabel::kWord),
            (std::vector<std::string>{kSwitchQuery, kListing207, Stats11("0A"), Stats11("1B")}));
  // A column without the feature does not use up a value.
  EXPECT_EQ(PackageText(rsp_),
            (std::vector<std::string>{
                "0xFFFFFFFFFFFFFFFF: 1/3/4/0 2/3/4/10 3/3/4/11 4/3/4/12 5/3/4/13 6/3/4/14 7/3/4/15 8/3/4/16 9/3/4/17 "
                "10/3/4/18 11/3/8/18446744073709551615 12/3/4/19",
                "0xFFFFFFFFFFFFFFFF: 1/3/4/5 2/3/4/20 3/3/4/21 4/3/4/22 5/3/4/23 6/3/4/24 7/3/4/25 8/3/4/26 9/3/4/27 "
                "10/3/4/28 11/3/4/29 12/3/8/18446744073709551615"}));
  EXPECT_TRUE(KitMessages(log_).empty());
  EXPECT_EQ(log_.traces(), QueryTraces({true, true}, true));
}

TEST_F(NodeHandlerTest, ShortValueListWithoutFeature602GivesOnlyColumnsThatHaveValues) {
  CPerformanceNodeHandler handler;
  backend().onListing(207, Answer{Controller("0A"), Controller("0B")});
  backend().onStats("207:0A", "7,8,9");
  backend().onStats("207:0B", Join(kValues1B));

  ExpectEveryControllerAnswered(handler, {kListing207, Stats9("0A"), Stats9("0B")},
                                {"0xFFFFFFFFFFFFFFFF: 1/3/4/0 2/3/4/7 3/3/4/8 4/3/4/9", Row(1, kValues1B, false)});
}

TEST_F(NodeHandlerTest, ShortValueListWithFeature602GivesOnlyColumnsThatHaveValues) {
  env_.setFeatures({602});
  CPerformanceNodeHandler handler;
  backend().onListing(207, Answer{Controller("0A"), Controller("0B")});
  backend().onStats("207:0A", "1,2,3,4,5,6,7,8,9,10");
  backend().onStats("207:0B", "5");

  ExpectEveryControllerAnswered(
      handler, {kListing207, Stats11("0A"), Stats11("0B")},
      {"0xFFFFFFFFFFFFFFFF: 1/3/4/0 2/3/4/1 3/3/4/2 4/3/4/3 5/3/4/4 6/3/4/5 7/3/4/6 8/3/4/7 9/3/4/8 "
       "10/3/4/9 11/3/4/10",
       "0xFFFFFFFFFFFFFFFF: 1/3/4/1 2/3/4/5"});
}

TEST_F(NodeHandlerTest, LongerValueListUsesOnlyTheLeadingValues) {
  CPerformanceNodeHandler handler;
  backend().onListing(207, Answer{Controller("0A")});
  backend().onStats("207:0A", Join(kValues0A) + ",98,99");

  ExpectEveryControllerAnswered(handler, {kListing207, Stats9("0A")}, {Row(0, kValues0A, false)});
}

// A node table listing another object type: the statistics follow it.
class OtherKeyNodeHandler : public CPerformanceNodeHandler {
 public:
  unsigned int getObjIDForKey() override { return 208; }
};

TEST_F(NodeHandlerTest, StatisticsTypeFollowsTheListedType) {
  OtherKeyNodeHandler handler;
  EXPECT_EQ(handler.getObjIDForPerf(), 208u);
  backend().onListing(208, Answer{Controller("0A")});
  backend().onStats("208:0A", Join(kValues0A));

  ExpectEveryControllerAnswered(
      handler,
      {"listing 0xD0000C000: 0/6/8/208",
       R"(query 0xDE0222010: 0/2/7/"208:0A\0" 8/2/27/"68,69,78,22,25,28,21,23,26\0" 2/3/8/4)"},
      {Row(0, kValues0A, false)});
}

}  // namespace
}  // namespace zerva_test
