#include "performance/snmp_zerva_performance_cache_handler.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/handler_test_support.h"

namespace zerva_test {
namespace {

const TableSigs kSigs("CPerformanceCacheHandler");

const char kListControllers[] = "listing=1 0xD0000C000: 0/6/8/207";

// The statistics request of the cache table for one two-character
// controller ID ("0A" gives the object key "207:0A").
std::string StatsRequest(const std::string& controller) {
  EXPECT_EQ(controller.size(), 2u) << "the expected text below is written for two-character IDs";
  return "listing=0 0xDE0222010: 0/2/7/\"207:" + controller + "\\0\" 8/2/12/\"110,120,303\\0\" 2/3/8/4";
}

// The trace lines of a table read that fetched statistics for n controllers
// without a logged failure.
std::vector<std::string> OkTrace(int n) {
  return CallTraces(kSigs.queryTable, kGetBatchPerfDataSig, std::vector<bool>(n, true), true);
}

// The kit lines of a read that fetched the statistics of n controllers, then
// could not parse the ID id and ended with its error.
std::vector<std::string> ParseFailureTrace(int n, const std::string& id) {
  std::vector<std::string> out = CallTraces(kSigs.queryTable, kGetBatchPerfDataSig, std::vector<bool>(n, true), false);
  out.insert(out.end() - 1, Error("OnQueryTable", "faild to parse controller id " + id + "."));
  return out;
}

// A listed controller: its object ID in tag 1, as the back end lists it.
Rec Controller(const std::string& id) { return Rec().t6(0, 207).str(1, id); }

class PerformanceCacheTest : public HandlerTest<> {
 protected:
  PerformanceCacheTest() { env_.setSwitch(1); }

  // Answers the controller listing with these controllers, in order.
  void ListControllers(const std::vector<std::string>& ids) {
    Answer listing;
    for (const std::string& id : ids) listing.records.push_back(Controller(id));
    backend().onListing(207, listing);
  }
  // The same, each controller answering its statistics with the values text
  // paired with it.
  void ListControllersWithStats(const std::vector<std::pair<std::string, std::string>>& controllers) {
    std::vector<std::string> ids;
    for (const auto& c : controllers) {
      ids.push_back(c.first);
      backend().onStats("207:" + c.first, c.second);
    }
    ListControllers(ids);
  }

  int Query() { return handler_.OnQueryTable(ctx_, req_, rsp_); }

  CPerformanceCacheHandler handler_;
};

TEST_F(PerformanceCacheTest, CollectionSwitchedOffGivesAnEmptyTableAndZeroWithoutAskingTheBackEnd) {
  env_.setSwitch(0);
  ListControllersWithStats({{"0A", "1,2,3"}});
  EXPECT_EQ(Query(), 0);
  ExpectReadStoppedAtTheSwitch(backend(), rsp_, log_, kSigs.queryTable);
}

TEST_F(PerformanceCacheTest, SwitchStateOtherThanOneIsAlsoOffAndGivesNoRows) {
  env_.setSwitch(2);
  ListControllersWithStats({{"0A", "1,2,3"}});
  EXPECT_EQ(Query(), 0);
  ExpectReadStoppedAtTheSwitch(backend(), rsp_, log_, kSigs.queryTable);
}

TEST_F(PerformanceCacheTest, AnswerWithNoControllersGivesAnEmptyTableAndZero) {
  backend().onListing(207, Answer{});
  EXPECT_EQ(Query(), 0);
  EXPECT_THAT(rsp_.records(), IsEmpty());
  EXPECT_THAT(Requests(backend()), ElementsAre(kSwitchRequest, kListControllers));
  EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kSigs.queryTable), Leave(kSigs.queryTable, true)));
}

TEST_F(PerformanceCacheTest, TwoControllersGiveTwoRowsWithMinusOneAsSignedFourByteTag4) {
  ListControllersWithStats({{"0A", "1,2,3"}, {"1B", "4,5,6"}});
  EXPECT_EQ(Query(), 0);
  EXPECT_THAT(Requests(backend()),
              ElementsAre(kSwitchRequest, kListControllers, StatsRequest("0A"), StatsRequest("1B")));
  EXPECT_THAT(PackageText(rsp_), ElementsAre("0xFFFFFFFFFFFFFFFF: 1/3/4/0 2/3/4/1 3/3/4/2 4/4/4/4294967295 5/3/4/3",
                                             "0xFFFFFFFFFFFFFFFF: 1/3/4/5 2/3/4/4 3/3/4/5 4/4/4/4294967295 5/3/4/6"));
  EXPECT_THAT(KitLines(log_), ElementsAreArray(OkTrace(2)));
}

TEST_F(PerformanceCacheTest, Tag4CellIsTypeFourFourBytesAllOnes) {
  ListControllersWithStats({{"0B", "7,8,9"}});
  EXPECT_EQ(Query(), 0);
  ASSERT_EQ(rsp_.size(), 1u);
  const CTLVRecordV3& row = *rsp_[0];
  EXPECT_EQ(row.id(), 0xFFFFFFFFFFFFFFFFULL);
  ASSERT_EQ(row.cellCount(), 5u);
  std::vector<const CTLVCell*> cells(row.cells().begin(), row.cells().end());
  const CTLVCell& minusOne = *cells[3];
  EXPECT_EQ(minusOne.tag(), 4);
  EXPECT_EQ(minusOne.type(), 4);
  ASSERT_EQ(minusOne.length(), 4);
  EXPECT_EQ(std::vector<unsigned char>(minusOne.value(), minusOne.value() + 4),
            (std::vector<unsigned char>{0xFF, 0xFF, 0xFF, 0xFF}));
  EXPECT_EQ(minusOne.toString(), "-1");
  EXPECT_THAT(PackageText(rsp_), ElementsAre("0xFFFFFFFFFFFFFFFF: 1/3/4/1 2/3/4/7 3/3/4/8 4/4/4/4294967295 5/3/4/9"));
  EXPECT_THAT(Requests(backend()), ElementsAre(kSwitchRequest, kListControllers, StatsRequest("0B")));
  EXPECT_EQ(KitLines(log_), OkTrace(1));
}

TEST_F(PerformanceCacheTest, NodeNumberOfTheFirstColumnIsParsedFromTheControllerId) {
  ListControllersWithStats({{"3D", "1,2,3"}, {"12C", "4,5,6"}});
  EXPECT_EQ(Query(), 0);
  EXPECT_THAT(PackageText(rsp_), ElementsAre("0xFFFFFFFFFFFFFFFF: 1/3/4/15 2/3/4/1 3/3/4/2 4/4/4/4294967295 5/3/4/3",
                                             "0xFFFFFFFFFFFFFFFF: 1/3/4/50 2/3/4/4 3/3/4/5 4/4/4/4294967295 5/3/4/6"));
  EXPECT_THAT(Requests(backend()),
              ElementsAre(kSwitchRequest, kListControllers, StatsRequest("3D"),
                          "listing=0 0xDE0222010: 0/2/8/\"207:12C\\0\" 8/2/12/\"110,120,303\\0\" 2/3/8/4"));
  EXPECT_EQ(KitLines(log_), OkTrace(2));
}

TEST_F(PerformanceCacheTest, ValuesBeyondTheThirdAreNotAnswered) {
  ListControllersWithStats({{"0A", "1,2,3,4,5"}});
  EXPECT_EQ(Query(), 0);
  EXPECT_THAT(PackageText(rsp_), ElementsAre("0xFFFFFFFFFFFFFFFF: 1/3/4/0 2/3/4/1 3/3/4/2 4/4/4/4294967295 5/3/4/3"));
  EXPECT_THAT(Requests(backend()), ElementsAre(kSwitchRequest, kListControllers, StatsRequest("0A")));
  EXPECT_EQ(KitLines(log_), OkTrace(1));
}

TEST_F(PerformanceCacheTest, UnparsableControllerIdEndsTheReadWithMinusOneAfterEarlierRows) {
  ListControllersWithStats({{"0A", "1,2,3"}, {"X9", "4,5,6"}, {"0B", "7,8,9"}});
  EXPECT_EQ(Query(), -1);
  EXPECT_THAT(Requests(backend()),
              ElementsAre(kSwitchRequest, kListControllers, StatsRequest("0A"), StatsRequest("X9")));
  EXPECT_THAT(PackageText(rsp_), ElementsAre("0xFFFFFFFFFFFFFFFF: 1/3/4/0 2/3/4/1 3/3/4/2 4/4/4/4294967295 5/3/4/3"));
  EXPECT_THAT(KitLines(log_), ElementsAreArray(ParseFailureTrace(2, "X9")));
  ExpectMessagesCarrySourceLines(log_);
}

TEST_F(PerformanceCacheTest, ObjectIdThatIsNotAControllerIdGivesMinusOneAndTheParseFailureLine) {
  ListControllersWithStats({{"0E", "1,2,3"}, {"0A", "4,5,6"}});
  EXPECT_EQ(Query(), -1);
  EXPECT_THAT(rsp_.records(), IsEmpty());
  EXPECT_THAT(Requests(backend()), ElementsAre(kSwitchRequest, kListControllers, StatsRequest("0E")));
  EXPECT_THAT(KitLines(log_), ElementsAreArray(ParseFailureTrace(1, "0E")));
  ExpectMessagesCarrySourceLines(log_);
}

TEST_F(PerformanceCacheTest, FetchReturningOnlyTwoValuesEndsTheReadWithMinusOneAndNoLogLine) {
  ListControllersWithStats({{"0A", "1,2"}, {"0B", "4,5,6"}});
  EXPECT_EQ(Query(), -1);
  EXPECT_THAT(rsp_.records(), IsEmpty());
  EXPECT_THAT(Requests(backend()), ElementsAre(kSwitchRequest, kListControllers, StatsRequest("0A")));
  EXPECT_THAT(KitLines(log_), ElementsAreArray(OkTrace(1)));
}

TEST_F(PerformanceCacheTest, FewerThanThreeValuesAfterEarlierRowsGivesMinusOneWithoutLogging) {
  ListControllersWithStats({{"0A", "1,2,3"}, {"0B", "4"}, {"0C", "7,8,9"}});
  EXPECT_EQ(Query(), -1);
  EXPECT_THAT(PackageText(rsp_), ElementsAre("0xFFFFFFFFFFFFFFFF: 1/3/4/0 2/3/4/1 3/3/4/2 4/4/4/4294967295 5/3/4/3"));
  EXPECT_THAT(Requests(backend()),
              ElementsAre(kSwitchRequest, kListControllers, StatsRequest("0A"), StatsRequest("0B")));
  EXPECT_TRUE(log_.records(VEM_LOG_ERROR).empty());
  EXPECT_TRUE(log_.records(VEM_LOG_WARN).empty());
  EXPECT_THAT(KitLines(log_), ElementsAreArray(OkTrace(2)));
}

TEST_F(PerformanceCacheTest, RefusedControllerListReturnsTheBackEndCodeAndLogsIt) {
  backend().onListing(207, Answer(1077949460));
  EXPECT_EQ(Query(), 1077949460);
  EXPECT_THAT(rsp_.records(), IsEmpty());
  EXPECT_THAT(Requests(backend()), ElementsAre(kSwitchRequest, kListControllers));
  EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kSigs.queryTable),
                                          Error("OnQueryTable", "failed to query info of controller, err:1077949460"),
                                          Leave(kSigs.queryTable, false)));
  ExpectMessagesCarrySourceLines(log_);
}

TEST_F(PerformanceCacheTest, FailedFetchForAControllerReturnsItsCodeKeepsEarlierRowsAndTriesNoLater) {
  ListControllers({"0A", "0B", "0C"});
  backend().onStats("207:0A", "1,2,3");
  backend().onStatsError("207:0B", 7);
  backend().onStats("207:0C", "7,8,9");
  EXPECT_EQ(Query(), 7);
  EXPECT_THAT(Requests(backend()),
              ElementsAre(kSwitchRequest, kListControllers, StatsRequest("0A"), StatsRequest("0B")));
  EXPECT_THAT(PackageText(rsp_), ElementsAre("0xFFFFFFFFFFFFFFFF: 1/3/4/0 2/3/4/1 3/3/4/2 4/4/4/4294967295 5/3/4/3"));
  EXPECT_THAT(
      KitLines(log_),
      ElementsAre(Enter(kSigs.queryTable), Enter(kGetBatchPerfDataSig), Leave(kGetBatchPerfDataSig, true),
                  Enter(kGetBatchPerfDataSig),
                  Error("GetBatchPerfData", "faild to query perf data, UUID:207:0B, Item:110,120,303, err:7."),
                  Leave(kGetBatchPerfDataSig, false), Error("OnQueryTable", "failed to get perf data of 0B, err:7"),
                  Leave(kSigs.queryTable, false)));
  ExpectMessagesCarrySourceLines(log_);
}

TEST_F(PerformanceCacheTest, UnparsableStatisticsTextEndsTheReadWithMinusOneAndBothFailureLines) {
  ListControllersWithStats({{"1A", "1,two,3"}});
  EXPECT_EQ(Query(), -1);
  EXPECT_THAT(rsp_.records(), IsEmpty());
  EXPECT_THAT(Requests(backend()), ElementsAre(kSwitchRequest, kListControllers, StatsRequest("1A")));
  EXPECT_THAT(
      KitLines(log_),
      ElementsAre(Enter(kSigs.queryTable), Enter(kGetBatchPerfDataSig),
                  Error("GetBatchPerfData", "faild to parse perf data, UUID:207:1A, Item:110,120,303, Value:1,two,3."),
                  Leave(kGetBatchPerfDataSig, false), Error("OnQueryTable", "failed to get perf data of 1A, err:-1"),
                  Leave(kSigs.queryTable, false)));
  ExpectMessagesCarrySourceLines(log_);
}

TEST_F(PerformanceCacheTest, ValueListIsEmptiedBetweenControllers) {
  ListControllersWithStats({{"0A", "1,2,3"}, {"0B", "4,5"}});
  // Were the first controller's values kept, the second would find five.
  EXPECT_EQ(Query(), -1);
  EXPECT_THAT(PackageText(rsp_), ElementsAre("0xFFFFFFFFFFFFFFFF: 1/3/4/0 2/3/4/1 3/3/4/2 4/4/4/4294967295 5/3/4/3"));
  EXPECT_THAT(Requests(backend()),
              ElementsAre(kSwitchRequest, kListControllers, StatsRequest("0A"), StatsRequest("0B")));
  EXPECT_EQ(KitLines(log_), OkTrace(2));
}

}  // namespace
}  // namespace zerva_test
