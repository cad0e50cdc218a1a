#include "performance/snmp_zerva_performance_cache_handler.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/fake_backend.h"
#include "tests/support/kit_log_capture.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using zerva_test::Answer;
using zerva_test::BackendFixture;
using zerva_test::Call;
using zerva_test::FakeBackend;
using zerva_test::KitLogCapture;
using zerva_test::PackageText;
using zerva_test::Rec;

const char kTableSig[] =
    "virtual int CPerformanceCacheHandler::OnQueryTable(const CVEM_SnmpContext&, const "
    "CTLVPackageV3<TLVMsgHeadV3>&, CTLVPackageV3<TLVMsgHeadV3>&)";
const char kBatchSig[] =
    "int CSnmpPerformanceCommon::GetBatchPerfData(u_int, const string&, const string&, "
    "std::vector<unsigned int>&)";

const char kSwitchRequest[] = "listing=0 0xDE0222001: ";
const char kListControllers[] = "listing=1 0xD0000C000: 0/6/8/207";

// Every request the back end received, in order: "listing=<0|1> " followed by
// its records as "0x<id>: <cells>", records joined by " | ".
std::vector<std::string> Requests(const FakeBackend& backend) {
  std::vector<std::string> out;
  for (const Call& call : backend.calls()) {
    std::string text = call.listing ? "listing=1 " : "listing=0 ";
    std::vector<std::string> records = PackageText(*call.package());
    for (size_t i = 0; i < records.size(); ++i) text += (i == 0 ? "" : " | ") + records[i];
    out.push_back(text);
  }
  return out;
}

// The statistics request of the cache table for one two-character
// controller ID ("0A" gives the object key "207:0A").
std::string StatsRequest(const std::string& controller) {
  EXPECT_EQ(controller.size(), 2u) << "the expected text below is written for two-character IDs";
  return "listing=0 0xDE0222010: 0/2/7/\"207:" + controller + "\\0\" 8/2/12/\"110,120,303\\0\" 2/3/8/4";
}

// Every debug-kit record, in order: "<kit> TRACE <text>" for the enter and
// leave lines, "<kit> <LEVEL> 0x<code> <function>: <text>" for messages.
std::vector<std::string> KitLines(const KitLogCapture& log) {
  std::vector<std::string> out;
  for (const CVEMLogRecord& r : log.records()) {
    std::string text = std::to_string(r.kitNo) + " ";
    if (r.level == VEM_LOG_TRACE) {
      out.push_back(text + "TRACE " + r.message);
      continue;
    }
    const char* level = r.level == VEM_LOG_ERROR   ? "ERROR"
                        : r.level == VEM_LOG_WARN  ? "WARN"
                        : r.level == VEM_LOG_DEBUG ? "DEBUG"
                                                   : "OTHER";
    char code[32];
    snprintf(code, sizeof code, "0x%llX", r.code);
    out.push_back(text + level + " " + code + " " + r.function + ": " + r.message);
  }
  return out;
}

// Every message line names the source line it was written from.
void ExpectMessagesCarrySourceLines(const KitLogCapture& log) {
  for (const CVEMLogRecord& r : log.records()) {
    if (r.level != VEM_LOG_TRACE) {
      EXPECT_GT(r.line, 0u) << r.message;
    }
  }
}

std::string Enter(const std::string& sig) { return "4 TRACE enter " + sig + "..."; }
std::string Leave(const std::string& sig, bool ok) { return "4 TRACE leave " + sig + (ok ? ": OK" : ": NOK"); }
std::string Error(const std::string& function, const std::string& text) {
  return "4 ERROR 0x1002E " + function + ": " + text;
}

// The trace lines of a table read that fetched statistics for n controllers
// without a logged failure.
std::vector<std::string> OkTrace(int n) {
  std::vector<std::string> out = {Enter(kTableSig)};
  for (int i = 0; i < n; ++i) {
    out.push_back(Enter(kBatchSig));
    out.push_back(Leave(kBatchSig, true));
  }
  out.push_back(Leave(kTableSig, true));
  return out;
}

// A listed controller: its object ID in tag 1, as the back end lists it.
Rec Controller(const std::string& id) { return Rec().t6(0, 207).str(1, id); }

class PerformanceCacheTest : public ::testing::Test {
 protected:
  PerformanceCacheTest() { fixture_.setSwitch(1); }

  FakeBackend& backend() { return fixture_.backend(); }
  int Query() { return handler_.OnQueryTable(ctx_, req_, rsp_); }

  BackendFixture fixture_;
  KitLogCapture log_;
  CPerformanceCacheHandler handler_;
  CVEM_SnmpContext ctx_;
  CTLVPackage req_;
  CTLVPackage rsp_;
};

TEST_F(PerformanceCacheTest, CollectionSwitchedOffGivesAnEmptyTableAndZeroWithoutAskingTheBackEnd) {
  fixture_.setSwitch(0);
  backend().onListing(207, Answer{Controller("0A")});
  backend().onStats("207:0A", "1,2,3");
  EXPECT_EQ(Query(), 0);
  EXPECT_THAT(rsp_.records(), IsEmpty());
  EXPECT_THAT(Requests(backend()), ElementsAre(kSwitchRequest));
  EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kTableSig), Leave(kTableSig, true)));
}

TEST_F(PerformanceCacheTest, SwitchStateOtherThanOneIsAlsoOffAndGivesNoRows) {
  fixture_.setSwitch(2);
  backend().onListing(207, Answer{Controller("0A")});
  backend().onStats("207:0A", "1,2,3");
  EXPECT_EQ(Query(), 0);
  EXPECT_THAT(rsp_.records(), IsEmpty());
  EXPECT_THAT(Requests(backend()), ElementsAre(kSwitchRequest));
  EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kTableSig), Leave(kTableSig, true)));
}

TEST_F(PerformanceCacheTest, AnswerWithNoControllersGivesAnEmptyTableAndZero) {
  backend().onListing(207, Answer{});
  EXPECT_EQ(Query(), 0);
  EXPECT_THAT(rsp_.records(), IsEmpty());
  EXPECT_THAT(Requests(backend()), ElementsAre(kSwitchRequest, kListControllers));
  EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kTableSig), Leave(kTableSig, true)));
}

TEST_F(PerformanceCacheTest, TwoControllersGiveTwoRowsWithMinusOneAsSignedFourByteTag4) {
  backend().onListing(207, Answer{Controller("0A"), Controller("1B")});
  backend().onStats("207:0A", "1,2,3");
  backend().onStats("207:1B", "4,5,6");
  EXPECT_EQ(Query(), 0);
  EXPECT_THAT(Requests(backend()),
              ElementsAre(kSwitchRequest, kListControllers, StatsRequest("0A"), StatsRequest("1B")));
  EXPECT_THAT(PackageText(rsp_), ElementsAre("0xFFFFFFFFFFFFFFFF: 1/3/4/0 2/3/4/1 3/3/4/2 4/4/4/4294967295 5/3/4/3",
                                             "0xFFFFFFFFFFFFFFFF: 1/3/4/5 2/3/4/4 3/3/4/5 4/4/4/4294967295 5/3/4/6"));
  EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kTableSig), Enter(kBatchSig), Leave(kBatchSig, true), Enter(kBatchSig),
                                          Leave(kBatchSig, true), Leave(kTableSig, true)));
}

TEST_F(PerformanceCacheTest, Tag4CellIsTypeFourFourBytesAllOnes) {
  backend().onListing(207, Answer{Controller("0B")});
  backend().onStats("207:0B", "7,8,9");
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
  backend().onListing(207, Answer{Controller("3D"), Controller("12C")});
  backend().onStats("207:3D", "1,2,3");
  backend().onStats("207:12C", "4,5,6");
  EXPECT_EQ(Query(), 0);
  EXPECT_THAT(PackageText(rsp_), ElementsAre("0xFFFFFFFFFFFFFFFF: 1/3/4/15 2/3/4/1 3/3/4/2 4/4/4/4294967295 5/3/4/3",
                                             "0xFFFFFFFFFFFFFFFF: 1/3/4/50 2/3/4/4 3/3/4/5 4/4/4/4294967295 5/3/4/6"));
  EXPECT_THAT(Requests(backend()),
              ElementsAre(kSwitchRequest, kListControllers, StatsRequest("3D"),
                          "listing=0 0xDE0222010: 0/2/8/\"207:12C\\0\" 8/2/12/\"110,120,303\\0\" 2/3/8/4"));
  EXPECT_EQ(KitLines(log_), OkTrace(2));
}

TEST_F(PerformanceCacheTest, ValuesBeyondTheThirdAreNotAnswered) {
  backend().onListing(207, Answer{Controller("0A")});
  backend().onStats("207:0A", "1,2,3,4,5");
  EXPECT_EQ(Query(), 0);
  EXPECT_THAT(PackageText(rsp_), ElementsAre("0xFFFFFFFFFFFFFFFF: 1/3/4/0 2/3/4/1 3/3/4/2 4/4/4/4294967295 5/3/4/3"));
  EXPECT_THAT(Requests(backend()), ElementsAre(kSwitchRequest, kListControllers, StatsRequest("0A")));
  EXPECT_EQ(KitLines(log_), OkTrace(1));
}

TEST_F(PerformanceCacheTest, UnparsableControllerIdEndsTheReadWithMinusOneAfterEarlierRows) {
  backend().onListing(207, Answer{Controller("0A"), Controller("X9"), Controller("0B")});
  backend().onStats("207:0A", "1,2,3");
  backend().onStats("207:X9", "4,5,6");
  backend().onStats("207:0B", "7,8,9");
  EXPECT_EQ(Query(), -1);
  EXPECT_THAT(Requests(backend()),
              ElementsAre(kSwitchRequest, kListControllers, StatsRequest("0A"), StatsRequest("X9")));
  EXPECT_THAT(PackageText(rsp_), ElementsAre("0xFFFFFFFFFFFFFFFF: 1/3/4/0 2/3/4/1 3/3/4/2 4/4/4/4294967295 5/3/4/3"));
  EXPECT_THAT(
      KitLines(log_),
      ElementsAre(Enter(kTableSig), Enter(kBatchSig), Leave(kBatchSig, true), Enter(kBatchSig), Leave(kBatchSig, true),
                  Error("OnQueryTable", "faild to parse controller id X9."), Leave(kTableSig, false)));
  ExpectMessagesCarrySourceLines(log_);
}

TEST_F(PerformanceCacheTest, ObjectIdThatIsNotAControllerIdGivesMinusOneAndTheParseFailureLine) {
  backend().onListing(207, Answer{Controller("0E"), Controller("0A")});
  backend().onStats("207:0E", "1,2,3");
  backend().onStats("207:0A", "4,5,6");
  EXPECT_EQ(Query(), -1);
  EXPECT_THAT(rsp_.records(), IsEmpty());
  EXPECT_THAT(Requests(backend()), ElementsAre(kSwitchRequest, kListControllers, StatsRequest("0E")));
  EXPECT_THAT(KitLines(log_),
              ElementsAre(Enter(kTableSig), Enter(kBatchSig), Leave(kBatchSig, true),
                          Error("OnQueryTable", "faild to parse controller id 0E."), Leave(kTableSig, false)));
  ExpectMessagesCarrySourceLines(log_);
}

TEST_F(PerformanceCacheTest, FetchReturningOnlyTwoValuesEndsTheReadWithMinusOneAndNoLogLine) {
  backend().onListing(207, Answer{Controller("0A"), Controller("0B")});
  backend().onStats("207:0A", "1,2");
  backend().onStats("207:0B", "4,5,6");
  EXPECT_EQ(Query(), -1);
  EXPECT_THAT(rsp_.records(), IsEmpty());
  EXPECT_THAT(Requests(backend()), ElementsAre(kSwitchRequest, kListControllers, StatsRequest("0A")));
  EXPECT_THAT(KitLines(log_),
              ElementsAre(Enter(kTableSig), Enter(kBatchSig), Leave(kBatchSig, true), Leave(kTableSig, true)));
}

TEST_F(PerformanceCacheTest, FewerThanThreeValuesAfterEarlierRowsGivesMinusOneWithoutLogging) {
  backend().onListing(207, Answer{Controller("0A"), Controller("0B"), Controller("0C")});
  backend().onStats("207:0A", "1,2,3");
  backend().onStats("207:0B", "4");
  backend().onStats("207:0C", "7,8,9");
  EXPECT_EQ(Query(), -1);
  EXPECT_THAT(PackageText(rsp_), ElementsAre("0xFFFFFFFFFFFFFFFF: 1/3/4/0 2/3/4/1 3/3/4/2 4/4/4/4294967295 5/3/4/3"));
  EXPECT_THAT(Requests(backend()),
              ElementsAre(kSwitchRequest, kListControllers, StatsRequest("0A"), StatsRequest("0B")));
  EXPECT_TRUE(log_.records(VEM_LOG_ERROR).empty());
  EXPECT_TRUE(log_.records(VEM_LOG_WARN).empty());
  EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kTableSig), Enter(kBatchSig), Leave(kBatchSig, true), Enter(kBatchSig),
                                          Leave(kBatchSig, true), Leave(kTableSig, true)));
}

TEST_F(PerformanceCacheTest, RefusedControllerListReturnsTheBackEndCodeAndLogsIt) {
  backend().onListing(207, Answer(1077949460));
  EXPECT_EQ(Query(), 1077949460);
  EXPECT_THAT(rsp_.records(), IsEmpty());
  EXPECT_THAT(Requests(backend()), ElementsAre(kSwitchRequest, kListControllers));
  EXPECT_THAT(KitLines(log_),
              ElementsAre(Enter(kTableSig), Error("OnQueryTable", "failed to query info of controller, err:1077949460"),
                          Leave(kTableSig, false)));
  ExpectMessagesCarrySourceLines(log_);
}

TEST_F(PerformanceCacheTest, FailedFetchForAControllerReturnsItsCodeKeepsEarlierRowsAndTriesNoLater) {
  backend().onListing(207, Answer{Controller("0A"), Controller("0B"), Controller("0C")});
  backend().onStats("207:0A", "1,2,3");
  backend().onStatsError("207:0B", 7);
  backend().onStats("207:0C", "7,8,9");
  EXPECT_EQ(Query(), 7);
  EXPECT_THAT(Requests(backend()),
              ElementsAre(kSwitchRequest, kListControllers, StatsRequest("0A"), StatsRequest("0B")));
  EXPECT_THAT(PackageText(rsp_), ElementsAre("0xFFFFFFFFFFFFFFFF: 1/3/4/0 2/3/4/1 3/3/4/2 4/4/4/4294967295 5/3/4/3"));
  EXPECT_THAT(KitLines(log_),
              ElementsAre(Enter(kTableSig), Enter(kBatchSig), Leave(kBatchSig, true), Enter(kBatchSig),
                          Error("GetBatchPerfData", "faild to query perf data, UUID:207:0B, Item:110,120,303, err:7."),
                          Leave(kBatchSig, false), Error("OnQueryTable", "failed to get perf data of 0B, err:7"),
                          Leave(kTableSig, false)));
  ExpectMessagesCarrySourceLines(log_);
}

TEST_F(PerformanceCacheTest, UnparsableStatisticsTextEndsTheReadWithMinusOneAndBothFailureLines) {
  backend().onListing(207, Answer{Controller("1A")});
  backend().onStats("207:1A", "1,two,3");
  EXPECT_EQ(Query(), -1);
  EXPECT_THAT(rsp_.records(), IsEmpty());
  EXPECT_THAT(Requests(backend()), ElementsAre(kSwitchRequest, kListControllers, StatsRequest("1A")));
  EXPECT_THAT(
      KitLines(log_),
      ElementsAre(Enter(kTableSig), Enter(kBatchSig),
                  Error("GetBatchPerfData", "faild to parse perf data, UUID:207:1A, Item:110,120,303, Value:1,two,3."),
                  Leave(kBatchSig, false), Error("OnQueryTable", "failed to get perf data of 1A, err:-1"),
                  Leave(kTableSig, false)));
  ExpectMessagesCarrySourceLines(log_);
}

TEST_F(PerformanceCacheTest, ValueListIsEmptiedBetweenControllers) {
  backend().onListing(207, Answer{Controller("0A"), Controller("0B")});
  backend().onStats("207:0A", "1,2,3");
  backend().onStats("207:0B", "4,5");
  // Were the first controller's values kept, the second would find five.
  EXPECT_EQ(Query(), -1);
  EXPECT_THAT(PackageText(rsp_), ElementsAre("0xFFFFFFFFFFFFFFFF: 1/3/4/0 2/3/4/1 3/3/4/2 4/4/4/4294967295 5/3/4/3"));
  EXPECT_THAT(Requests(backend()),
              ElementsAre(kSwitchRequest, kListControllers, StatsRequest("0A"), StatsRequest("0B")));
  EXPECT_EQ(KitLines(log_), OkTrace(2));
}

}  // namespace
