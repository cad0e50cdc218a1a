#include "performance/snmp_zerva_performance_port_handler.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tlv/coding.h"
#include "tests/support/handler_test_support.h"

namespace zerva_test {
namespace {

const TableSigs kSigs("CPerformancePortHandler");

const char kItems[] = "78,22,25,28,21,23,26,5,307";

const char kList213[] = "listing=1 0xD0000C000: 0/6/8/213";
const char kList212[] = "listing=1 0xD0000C000: 0/6/8/212";
const char kList252[] = "listing=1 0xD0000C000: 0/6/8/252";
const char kList235[] = "listing=1 0xD0000C000: 0/6/8/235";

// The statistics request of the port table for one object key ("212:17").
std::string StatsRequest(const std::string& key) {
  return "listing=0 0xDE0222010: 0/2/" + std::to_string(key.size() + 1) + "/\"" + key + "\\0\" 8/2/27/\"" + kItems +
         "\\0\" 2/3/8/4";
}

// The trace lines of a table read that fetched statistics for n ports
// without a failure.
std::vector<std::string> OkTrace(int n) {
  return CallTraces(kSigs.queryTable, kGetBatchPerfDataSig, std::vector<bool>(n, true), true);
}

// A listed port of types 213, 212 and 252: object ID, name (tag 6), status.
Rec Port(const std::string& id, const std::string& name, unsigned int status) {
  return Rec().str(1, id).str(6, name).u32(64, status);
}

// The nine statistic values first, first + 1, ..., first + 8 as answer text.
std::string Values(unsigned int first) {
  std::string out;
  for (unsigned int i = 0; i < 9; ++i) out += (i ? "," : "") + std::to_string(first + i);
  return out;
}

// A full row: object ID, the nine values from first on, then the name cell
// as given ("11/2/len/\"text\\0\"").
std::string Row(unsigned int id, unsigned int first, const std::string& nameCell) {
  std::string out = "0xFFFFFFFFFFFFFFFF: 1/3/4/" + std::to_string(id);
  for (unsigned int i = 0; i < 9; ++i) out += " " + std::to_string(2 + i) + "/3/4/" + std::to_string(first + i);
  return out + " " + nameCell;
}

class PerformancePortTest : public HandlerTest<> {
 protected:
  PerformancePortTest() {
    env_.setSwitch(1);
    for (unsigned long long type : {213ULL, 212ULL, 252ULL, 235ULL}) backend().onListing(type, Answer{});
  }

  int Query() { return handler_.OnQueryTable(ctx_, req_, rsp_); }

  CPerformancePortHandler handler_;
};

TEST_F(PerformancePortTest, ListsPortTypes213Then212Then252Then235AndAnswersOneRowPerPort) {
  backend().onListing(213, Answer{Port("11", "A0", 0)});
  backend().onListing(212, Answer{Port("12", "B0", 5)});
  backend().onListing(252, Answer{Port("13", "C0", 6)});
  backend().onListing(235, Answer{Rec().str(1, "14").str(2, "D0")});
  backend().onStats("213:11", Values(100));
  backend().onStats("212:12", Values(200));
  backend().onStats("252:13", Values(300));
  backend().onStats("235:14", Values(400));

  EXPECT_EQ(Query(), 0);
  EXPECT_THAT(Requests(backend()),
              ElementsAre(kSwitchRequest, kList213, StatsRequest("213:11"), kList212, StatsRequest("212:12"), kList252,
                          StatsRequest("252:13"), kList235, StatsRequest("235:14")));
  EXPECT_THAT(PackageText(rsp_),
              ElementsAre("0xFFFFFFFFFFFFFFFF: 1/3/4/11 2/3/4/100 3/3/4/101 4/3/4/102 5/3/4/103 6/3/4/104 7/3/4/105 "
                          "8/3/4/106 9/3/4/107 10/3/4/108 11/2/3/\"A0\\0\"",
                          Row(12, 200, "11/2/3/\"B0\\0\""), Row(13, 300, "11/2/3/\"C0\\0\""),
                          Row(14, 400, "11/2/3/\"D0\\0\"")));
  EXPECT_THAT(KitLines(log_),
              ElementsAreArray(CallTraces(kSigs.queryTable, kGetBatchPerfDataSig, {true, true, true, true}, true)));
}

TEST_F(PerformancePortTest, ListingRequestIsOneRecordWithTheTypeAsAnEightByteType6Cell) {
  EXPECT_EQ(Query(), 0);
  std::vector<Call> calls = backend().calls();
  ASSERT_EQ(calls.size(), 5u);
  const unsigned long long types[] = {213, 212, 252, 235};
  for (int i = 0; i < 4; ++i) {
    const Call& call = calls[i + 1];
    EXPECT_TRUE(call.listing);
    std::unique_ptr<CTLVPackage> req = call.package();
    ASSERT_EQ(req->size(), 1u);
    const CTLVRecordV3& record = *(*req)[0];
    EXPECT_EQ(record.id(), 0xD0000C000ULL);
    ASSERT_EQ(record.cellCount(), 1u);
    const CTLVCell& cell = *record.cells().front();
    EXPECT_EQ(cell.tag(), 0);
    EXPECT_EQ(cell.type(), 6);
    ASSERT_EQ(cell.length(), 8);
    EXPECT_EQ(tlv::DecodeFixed64(cell.value()), types[i]);
  }
  EXPECT_THAT(Requests(backend()), ElementsAre(kSwitchRequest, kList213, kList212, kList252, kList235));
  EXPECT_THAT(rsp_.records(), IsEmpty());
  EXPECT_EQ(KitLines(log_), OkTrace(0));
}

TEST_F(PerformancePortTest, CollectionSwitchedOffGivesAnEmptyTableAndZeroWithoutAskingForPorts) {
  env_.setSwitch(0);
  backend().onListing(212, Answer{Port("12", "B0", 0)});
  backend().onStats("212:12", Values(1));
  EXPECT_EQ(Query(), 0);
  ExpectReadStoppedAtTheSwitch(backend(), rsp_, log_, kSigs.queryTable);
}

TEST_F(PerformancePortTest, SwitchStateOtherThanOneOrAFailedSwitchQueryAlsoReadsAsOff) {
  env_.setSwitch(2);
  EXPECT_EQ(Query(), 0);
  backend().on(kGetSwitchCmd, Answer(7));
  EXPECT_EQ(Query(), 0);
  EXPECT_THAT(rsp_.records(), IsEmpty());
  EXPECT_THAT(Requests(backend()), ElementsAre(kSwitchRequest, kSwitchRequest));
  EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kSigs.queryTable), Leave(kSigs.queryTable, true),
                                          Enter(kSigs.queryTable), Leave(kSigs.queryTable, true)));
}

TEST_F(PerformancePortTest, Type212PortWithStatus0Or5Or6YieldsARowAndWithStatus1Or7None) {
  backend().onListing(
      212, Answer{Port("1", "s0", 0), Port("2", "s1", 1), Port("3", "s5", 5), Port("4", "s6", 6), Port("5", "s7", 7)});
  for (const char* key : {"212:1", "212:2", "212:3", "212:4", "212:5"}) backend().onStats(key, Values(10));
  EXPECT_EQ(Query(), 0);
  EXPECT_THAT(Requests(backend()), ElementsAre(kSwitchRequest, kList213, kList212, StatsRequest("212:1"),
                                               StatsRequest("212:3"), StatsRequest("212:4"), kList252, kList235));
  EXPECT_THAT(PackageText(rsp_), ElementsAre(Row(1, 10, "11/2/3/\"s0\\0\""), Row(3, 10, "11/2/3/\"s5\\0\""),
                                             Row(4, 10, "11/2/3/\"s6\\0\"")));
  EXPECT_THAT(KitLines(log_),
              ElementsAreArray(CallTraces(kSigs.queryTable, kGetBatchPerfDataSig, {true, true, true}, true)));
}

TEST_F(PerformancePortTest, Type235PortYieldsARowWhateverItsTag64AndTakesItsNameFromTag2) {
  backend().onListing(
      235, Answer{Rec().str(1, "31").str(2, "eth0").str(6, "other").u32(64, 1),
                  Rec().str(1, "32").str(2, "eth1").str(64, "not a number"), Rec().str(1, "33").str(2, "eth2")});
  backend().onStats("235:31", Values(1));
  backend().onStats("235:32", Values(2));
  backend().onStats("235:33", Values(3));
  EXPECT_EQ(Query(), 0);
  EXPECT_THAT(Requests(backend()), ElementsAre(kSwitchRequest, kList213, kList212, kList252, kList235,
                                               StatsRequest("235:31"), StatsRequest("235:32"), StatsRequest("235:33")));
  EXPECT_THAT(PackageText(rsp_), ElementsAre(Row(31, 1, "11/2/5/\"eth0\\0\""), Row(32, 2, "11/2/5/\"eth1\\0\""),
                                             Row(33, 3, "11/2/5/\"eth2\\0\"")));
  EXPECT_THAT(KitLines(log_),
              ElementsAreArray(CallTraces(kSigs.queryTable, kGetBatchPerfDataSig, {true, true, true}, true)));
}

TEST_F(PerformancePortTest, Type213PortWithANonEmptyTag70YieldsNoRow) {
  backend().onListing(213, Answer{Port("1", "p1", 0).str(70, "x"), Port("2", "p2", 0)});
  backend().onStats("213:1", Values(10));
  backend().onStats("213:2", Values(20));
  EXPECT_EQ(Query(), 0);
  EXPECT_THAT(Requests(backend()),
              ElementsAre(kSwitchRequest, kList213, StatsRequest("213:2"), kList212, kList252, kList235));
  EXPECT_THAT(PackageText(rsp_), ElementsAre(Row(2, 20, "11/2/3/\"p2\\0\"")));
  EXPECT_THAT(KitLines(log_), ElementsAreArray(CallTraces(kSigs.queryTable, kGetBatchPerfDataSig, {true}, true)));
}

TEST_F(PerformancePortTest, Type213PortWithNonEmptyTag70IsLeftOutBeforeItsStatusIsRead) {
  // The left-out port has no status cell at all: reading it would throw.
  backend().onListing(213, Answer{Rec().str(1, "1").str(6, "p1").str(70, "bond0")});
  EXPECT_EQ(Query(), 0);
  EXPECT_THAT(Requests(backend()), ElementsAre(kSwitchRequest, kList213, kList212, kList252, kList235));
  EXPECT_THAT(rsp_.records(), IsEmpty());
  EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kSigs.queryTable), Leave(kSigs.queryTable, true)));
}

TEST_F(PerformancePortTest, Type213PortWithAnEmptyOrAbsentTag70IsJudgedByItsStatus) {
  backend().onListing(213, Answer{Port("1", "e0", 0).str(70, ""), Port("2", "e1", 1).str(70, ""), Port("3", "a5", 5),
                                  Port("4", "a7", 7), Port("5", "r6", 6).rawstr(70, "")});
  for (const char* key : {"213:1", "213:2", "213:3", "213:4", "213:5"}) backend().onStats(key, Values(50));
  EXPECT_EQ(Query(), 0);
  EXPECT_THAT(Requests(backend()), ElementsAre(kSwitchRequest, kList213, StatsRequest("213:1"), StatsRequest("213:3"),
                                               StatsRequest("213:5"), kList212, kList252, kList235));
  EXPECT_THAT(PackageText(rsp_), ElementsAre(Row(1, 50, "11/2/3/\"e0\\0\""), Row(3, 50, "11/2/3/\"a5\\0\""),
                                             Row(5, 50, "11/2/3/\"r6\\0\"")));
  EXPECT_EQ(KitLines(log_), OkTrace(3));
}

TEST_F(PerformancePortTest, Tag70IsNotConsultedForPortTypesOtherThan213) {
  backend().onListing(212, Answer{Port("7", "q", 0).str(70, "x")});
  backend().onListing(252, Answer{Port("8", "r", 5).str(70, "y")});
  backend().onStats("212:7", Values(70));
  backend().onStats("252:8", Values(80));
  EXPECT_EQ(Query(), 0);
  EXPECT_THAT(PackageText(rsp_), ElementsAre(Row(7, 70, "11/2/2/\"q\\0\""), Row(8, 80, "11/2/2/\"r\\0\"")));
  EXPECT_THAT(Requests(backend()), ElementsAre(kSwitchRequest, kList213, kList212, StatsRequest("212:7"), kList252,
                                               StatsRequest("252:8"), kList235));
  EXPECT_EQ(KitLines(log_), OkTrace(2));
}

TEST_F(PerformancePortTest, TwoCharacterNameGivesAThreeByteNameCellWithItsNul) {
  backend().onListing(252, Answer{Port("9", "P1", 0)});
  backend().onStats("252:9", Values(1));
  EXPECT_EQ(Query(), 0);
  ASSERT_EQ(rsp_.size(), 1u);
  const CTLVRecordV3& row = *rsp_[0];
  EXPECT_EQ(row.id(), 0xFFFFFFFFFFFFFFFFULL);
  ASSERT_EQ(row.cellCount(), 11u);
  const CTLVCell& name = *row.cells().back();
  EXPECT_EQ(name.tag(), 11);
  EXPECT_EQ(name.type(), 2);
  ASSERT_EQ(name.length(), 3);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(name.value()), 3), std::string("P1\0", 3));
  EXPECT_THAT(PackageText(rsp_), ElementsAre(Row(9, 1, "11/2/3/\"P1\\0\"")));
  EXPECT_THAT(Requests(backend()),
              ElementsAre(kSwitchRequest, kList213, kList212, kList252, StatsRequest("252:9"), kList235));
  EXPECT_EQ(KitLines(log_), OkTrace(1));
}

TEST_F(PerformancePortTest, EmptyNameGivesAZeroLengthNameCell) {
  backend().onListing(212, Answer{Port("4", "", 0)});
  backend().onListing(235, Answer{Rec().str(1, "5").rawstr(2, "")});
  backend().onStats("212:4", Values(1));
  backend().onStats("235:5", Values(2));
  EXPECT_EQ(Query(), 0);
  EXPECT_THAT(PackageText(rsp_), ElementsAre(Row(4, 1, "11/2/0/\"\""), Row(5, 2, "11/2/0/\"\"")));
  EXPECT_THAT(Requests(backend()), ElementsAre(kSwitchRequest, kList213, kList212, StatsRequest("212:4"), kList252,
                                               kList235, StatsRequest("235:5")));
  EXPECT_EQ(KitLines(log_), OkTrace(2));
}

TEST_F(PerformancePortTest, FailedListingOfType252ReturnsItsCodeKeepsRowsOf213And212AndSkips235) {
  backend().onListing(213, Answer{Port("1", "a", 0)});
  backend().onListing(212, Answer{Port("2", "b", 0)});
  backend().onListing(252, Answer(1077949460));
  backend().onListing(235, Answer{Rec().str(1, "4").str(2, "d")});
  backend().onStats("213:1", Values(10));
  backend().onStats("212:2", Values(20));
  backend().onStats("235:4", Values(40));
  EXPECT_EQ(Query(), 1077949460);
  EXPECT_THAT(Requests(backend()),
              ElementsAre(kSwitchRequest, kList213, StatsRequest("213:1"), kList212, StatsRequest("212:2"), kList252));
  EXPECT_THAT(PackageText(rsp_), ElementsAre(Row(1, 10, "11/2/2/\"a\\0\""), Row(2, 20, "11/2/2/\"b\\0\"")));
  EXPECT_THAT(KitLines(log_),
              ElementsAre(Enter(kSigs.queryTable), Enter(kGetBatchPerfDataSig), Leave(kGetBatchPerfDataSig, true),
                          Enter(kGetBatchPerfDataSig), Leave(kGetBatchPerfDataSig, true),
                          Error("OnQueryTable", "failed to query port info, port type:252, err:1077949460."),
                          Leave(kSigs.queryTable, false)));
  ExpectMessagesCarrySourceLines(log_);
}

TEST_F(PerformancePortTest, FailedListingOfTheFirstTypeEndsTheReadWithItsCodeAndNoRows) {
  backend().onListing(213, Answer(-5));
  backend().onListing(212, Answer{Port("2", "b", 0)});
  backend().onStats("212:2", Values(20));
  EXPECT_EQ(Query(), -5);
  EXPECT_THAT(Requests(backend()), ElementsAre(kSwitchRequest, kList213));
  EXPECT_THAT(rsp_.records(), IsEmpty());
  EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kSigs.queryTable),
                                          Error("OnQueryTable", "failed to query port info, port type:213, err:-5."),
                                          Leave(kSigs.queryTable, false)));
  ExpectMessagesCarrySourceLines(log_);
}

TEST_F(PerformancePortTest, FailedStatisticsFetchForOnePortDropsOnlyThatPort) {
  backend().onListing(212, Answer{Port("1", "a", 0), Port("2", "b", 0), Port("3", "c", 0), Port("4", "d", 0)});
  backend().onStats("212:1", Values(10));
  backend().onStatsError("212:2", 9);
  backend().onStats("212:3", "1,x");
  backend().onStats("212:4", Values(40));
  EXPECT_EQ(Query(), 0);
  EXPECT_THAT(Requests(backend()),
              ElementsAre(kSwitchRequest, kList213, kList212, StatsRequest("212:1"), StatsRequest("212:2"),
                          StatsRequest("212:3"), StatsRequest("212:4"), kList252, kList235));
  EXPECT_THAT(PackageText(rsp_), ElementsAre(Row(1, 10, "11/2/2/\"a\\0\""), Row(4, 40, "11/2/2/\"d\\0\"")));
  EXPECT_THAT(KitLines(log_),
              ElementsAre(Enter(kSigs.queryTable), Enter(kGetBatchPerfDataSig), Leave(kGetBatchPerfDataSig, true),
                          Enter(kGetBatchPerfDataSig),
                          Error("GetBatchPerfData",
                                "faild to query perf data, UUID:212:2, Item:78,22,25,28,21,23,26,5,307, "
                                "err:9."),
                          Leave(kGetBatchPerfDataSig, false), Enter(kGetBatchPerfDataSig),
                          Error("GetBatchPerfData",
                                "faild to parse perf data, UUID:212:3, Item:78,22,25,28,21,23,26,5,307, "
                                "Value:1,x."),
                          Leave(kGetBatchPerfDataSig, false), Enter(kGetBatchPerfDataSig),
                          Leave(kGetBatchPerfDataSig, true), Leave(kSigs.queryTable, true)));
  ExpectMessagesCarrySourceLines(log_);
}

TEST_F(PerformancePortTest, StatusCellOfStringTypeThrowsNotNumericalTag64AndKeepsEarlierRows) {
  backend().onListing(213, Answer{Port("1", "a", 0)});
  backend().onListing(212, Answer{Port("2", "b", 0), Rec().str(1, "3").str(6, "c").str(64, "0"), Port("4", "d", 0)});
  backend().onStats("213:1", Values(10));
  backend().onStats("212:2", Values(20));
  backend().onStats("212:4", Values(40));
  EXPECT_EQ(ThrownText([&] { Query(); }), "CVEM_Exception: CTLVCell isn't numerical type! tag equal to 64");
  EXPECT_THAT(Requests(backend()),
              ElementsAre(kSwitchRequest, kList213, StatsRequest("213:1"), kList212, StatsRequest("212:2")));
  EXPECT_THAT(PackageText(rsp_), ElementsAre(Row(1, 10, "11/2/2/\"a\\0\""), Row(2, 20, "11/2/2/\"b\\0\"")));
  EXPECT_THAT(KitLines(log_), ElementsAreArray(CallTraces(kSigs.queryTable, kGetBatchPerfDataSig, {true, true}, true)));
}

TEST_F(PerformancePortTest, PortWithoutAStatusCellThrowsCellDontExistForTag64) {
  backend().onListing(252, Answer{Rec().str(1, "3").str(6, "c")});
  EXPECT_EQ(ThrownText([&] { Query(); }), "CVEM_Exception: cell don't exist, tag is 64");
  EXPECT_THAT(Requests(backend()), ElementsAre(kSwitchRequest, kList213, kList212, kList252));
  EXPECT_THAT(rsp_.records(), IsEmpty());
  EXPECT_EQ(KitLines(log_), OkTrace(0));
}

TEST_F(PerformancePortTest, ShortValueListGivesARowOfOnlyTheColumnsItHasValuesForAndTheName) {
  backend().onListing(212, Answer{Port("6", "sh", 0), Port("7", "one", 5)});
  backend().onStats("212:6", "5,6,7");
  backend().onStats("212:7", "9");
  EXPECT_EQ(Query(), 0);
  EXPECT_THAT(PackageText(rsp_), ElementsAre("0xFFFFFFFFFFFFFFFF: 1/3/4/6 2/3/4/5 3/3/4/6 4/3/4/7 11/2/3/\"sh\\0\"",
                                             "0xFFFFFFFFFFFFFFFF: 1/3/4/7 2/3/4/9 11/2/4/\"one\\0\""));
  EXPECT_THAT(Requests(backend()), ElementsAre(kSwitchRequest, kList213, kList212, StatsRequest("212:6"),
                                               StatsRequest("212:7"), kList252, kList235));
  EXPECT_THAT(KitLines(log_), ElementsAreArray(CallTraces(kSigs.queryTable, kGetBatchPerfDataSig, {true, true}, true)));
}

TEST_F(PerformancePortTest, ValuesBeyondTheNinthAreNotAnswered) {
  backend().onListing(252, Answer{Port("8", "x", 6)});
  backend().onStats("252:8", "1,2,3,4,5,6,7,8,9,10,11");
  EXPECT_EQ(Query(), 0);
  EXPECT_THAT(PackageText(rsp_), ElementsAre(Row(8, 1, "11/2/2/\"x\\0\"")));
  EXPECT_THAT(Requests(backend()),
              ElementsAre(kSwitchRequest, kList213, kList212, kList252, StatsRequest("252:8"), kList235));
  EXPECT_EQ(KitLines(log_), OkTrace(1));
}

TEST_F(PerformancePortTest, ValueListIsEmptiedBetweenPorts) {
  backend().onListing(212, Answer{Port("1", "a", 0), Port("2", "b", 0)});
  backend().onStats("212:1", Values(10));
  backend().onStats("212:2", "3,4");
  EXPECT_EQ(Query(), 0);
  EXPECT_THAT(PackageText(rsp_), ElementsAre(Row(1, 10, "11/2/2/\"a\\0\""),
                                             "0xFFFFFFFFFFFFFFFF: 1/3/4/2 2/3/4/3 3/3/4/4 11/2/2/\"b\\0\""));
  EXPECT_THAT(Requests(backend()), ElementsAre(kSwitchRequest, kList213, kList212, StatsRequest("212:1"),
                                               StatsRequest("212:2"), kList252, kList235));
  EXPECT_EQ(KitLines(log_), OkTrace(2));
}

TEST_F(PerformancePortTest, ObjectIdTextBecomesTheFirstColumnAsANumber) {
  backend().onListing(212, Answer{Port("4294967295", "max", 0), Port("0", "zero", 0)});
  backend().onStats("212:4294967295", Values(1));
  backend().onStats("212:0", Values(2));
  EXPECT_EQ(Query(), 0);
  EXPECT_THAT(PackageText(rsp_),
              ElementsAre(Row(4294967295u, 1, "11/2/4/\"max\\0\""), Row(0, 2, "11/2/5/\"zero\\0\"")));
  EXPECT_THAT(Requests(backend()), ElementsAre(kSwitchRequest, kList213, kList212, StatsRequest("212:4294967295"),
                                               StatsRequest("212:0"), kList252, kList235));
  EXPECT_EQ(KitLines(log_), OkTrace(2));
}

TEST_F(PerformancePortTest, EveryReadProducesTheWholeTableAgain) {
  backend().onListing(212, Answer{Port("1", "a", 0)});
  backend().onStats("212:1", Values(10));
  EXPECT_EQ(Query(), 0);
  EXPECT_EQ(Query(), 0);
  EXPECT_THAT(PackageText(rsp_), ElementsAre(Row(1, 10, "11/2/2/\"a\\0\""), Row(1, 10, "11/2/2/\"a\\0\"")));
  EXPECT_THAT(Requests(backend()),
              ElementsAre(kSwitchRequest, kList213, kList212, StatsRequest("212:1"), kList252, kList235, kSwitchRequest,
                          kList213, kList212, StatsRequest("212:1"), kList252, kList235));
  std::vector<std::string> twice = OkTrace(1);
  std::vector<std::string> second = OkTrace(1);
  twice.insert(twice.end(), second.begin(), second.end());
  EXPECT_EQ(KitLines(log_), twice);
}

}  // namespace
}  // namespace zerva_test
