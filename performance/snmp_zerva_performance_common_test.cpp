#include "performance/snmp_zerva_performance_common.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/support/handler_test_support.h"
#include "vempub/vem_xml_config.h"

namespace zerva_test {
namespace {

class PerformanceCommonTest : public HandlerTest<> {
 protected:
  CSnmpPerformanceCommon common_;
};

// ---------------------------------------------------------------------------
// Switch state query.

TEST_F(PerformanceCommonTest, SwitchStateOneIsReadFromTag0OfTheAnswer) {
  env_.setSwitch(1);
  EXPECT_EQ(common_.GetPerfSwitchSta(), 1u);
  EXPECT_THAT(Requests(backend()), ElementsAre("listing=0 0xDE0222001: "));
  EXPECT_THAT(KitLines(log_), IsEmpty());
}

TEST_F(PerformanceCommonTest, SwitchStatesOtherThanOneArePassedThroughUnchanged) {
  env_.setSwitch(0);
  EXPECT_EQ(common_.GetPerfSwitchSta(), 0u);
  env_.setSwitch(2);
  EXPECT_EQ(common_.GetPerfSwitchSta(), 2u);
  env_.setSwitch(0xFFFFFFFFu);
  EXPECT_EQ(common_.GetPerfSwitchSta(), 0xFFFFFFFFu);
  EXPECT_THAT(Requests(backend()),
              ElementsAre("listing=0 0xDE0222001: ", "listing=0 0xDE0222001: ", "listing=0 0xDE0222001: "));
  EXPECT_THAT(KitLines(log_), IsEmpty());
}

TEST_F(PerformanceCommonTest, SwitchAnswerOfOneSignedByteFFReadsAsAllOnes) {
  backend().on(kGetSwitchCmd, Answer{Rec().cell(0, 4, {0xFF})});
  EXPECT_EQ(common_.GetPerfSwitchSta(), 0xFFFFFFFFu);
  EXPECT_THAT(Requests(backend()), ElementsAre("listing=0 0xDE0222001: "));
  EXPECT_THAT(KitLines(log_), IsEmpty());
}

TEST_F(PerformanceCommonTest, SwitchAnswerOfOneUnsignedByteFFReads255) {
  backend().on(kGetSwitchCmd, Answer{Rec().cell(0, 3, {0xFF})});
  EXPECT_EQ(common_.GetPerfSwitchSta(), 255u);
  EXPECT_THAT(Requests(backend()), ElementsAre("listing=0 0xDE0222001: "));
  EXPECT_THAT(KitLines(log_), IsEmpty());
}

TEST_F(PerformanceCommonTest, SwitchAnswerOfEightBytesReadsItsLowFourBytes) {
  backend().on(kGetSwitchCmd, Answer{Rec().u64(0, 0x0000000100000002ULL)});
  EXPECT_EQ(common_.GetPerfSwitchSta(), 2u);
  EXPECT_THAT(Requests(backend()), ElementsAre("listing=0 0xDE0222001: "));
  EXPECT_THAT(KitLines(log_), IsEmpty());
}

TEST_F(PerformanceCommonTest, SwitchAnswerWithSeveralRecordsUsesTag0OfTheFirst) {
  backend().on(kGetSwitchCmd, Answer{Rec().u32(5, 9).u32(0, 1), Rec().u32(0, 7)});
  EXPECT_EQ(common_.GetPerfSwitchSta(), 1u);
  EXPECT_THAT(Requests(backend()), ElementsAre("listing=0 0xDE0222001: "));
  EXPECT_THAT(KitLines(log_), IsEmpty());
}

TEST_F(PerformanceCommonTest, SwitchQueryWithABackEndFailureReturnsZeroWithoutLogging) {
  backend().on(kGetSwitchCmd, Answer(SNMP_TRANSPORT_E_TIMEOUT));
  EXPECT_EQ(common_.GetPerfSwitchSta(), 0u);
  EXPECT_THAT(Requests(backend()), ElementsAre("listing=0 0xDE0222001: "));
  EXPECT_THAT(KitLines(log_), IsEmpty());
}

TEST_F(PerformanceCommonTest, FailedSwitchQueryReturnsZeroEvenForBackEndCodeOne) {
  backend().on(kGetSwitchCmd, Answer(1));
  EXPECT_EQ(common_.GetPerfSwitchSta(), 0u);
  EXPECT_THAT(Requests(backend()), ElementsAre("listing=0 0xDE0222001: "));
  EXPECT_THAT(KitLines(log_), IsEmpty());
}

TEST_F(PerformanceCommonTest, SwitchAnswerWithoutARecordThrowsRecordDontExistIndex0) {
  backend().on(kGetSwitchCmd, Answer{});
  EXPECT_EQ(ThrownText([&] { common_.GetPerfSwitchSta(); }), "CVEM_Exception: record don't exist, index is 0");
  EXPECT_THAT(Requests(backend()), ElementsAre("listing=0 0xDE0222001: "));
  EXPECT_THAT(KitLines(log_), IsEmpty());
}

TEST_F(PerformanceCommonTest, SwitchAnswerCellOfStringTypeThrowsNotNumericalWithTag0) {
  backend().on(kGetSwitchCmd, Answer{Rec().str(0, "1")});
  EXPECT_EQ(ThrownText([&] { common_.GetPerfSwitchSta(); }),
            "CVEM_Exception: CTLVCell isn't numerical type! tag equal to 0");
  EXPECT_THAT(Requests(backend()), ElementsAre("listing=0 0xDE0222001: "));
  EXPECT_THAT(KitLines(log_), IsEmpty());
}

TEST_F(PerformanceCommonTest, SwitchAnswerCellOfTypeOneThrowsNotNumericalWithTag0) {
  backend().on(kGetSwitchCmd, Answer{Rec().cell(0, 1, {1, 0, 0, 0})});
  EXPECT_EQ(ThrownText([&] { common_.GetPerfSwitchSta(); }),
            "CVEM_Exception: CTLVCell isn't numerical type! tag equal to 0");
  EXPECT_THAT(Requests(backend()), ElementsAre("listing=0 0xDE0222001: "));
  EXPECT_THAT(KitLines(log_), IsEmpty());
}

// ---------------------------------------------------------------------------
// Batch statistics query.

TEST_F(PerformanceCommonTest, AnswerOneTwoThreeGivesZeroAndAddsTheValuesInOrder) {
  backend().onStats("207:0A", "1,2,3");
  std::vector<unsigned int> values = {9};
  EXPECT_EQ(common_.GetBatchPerfData(207, "0A", "182,439,5", values), 0);
  EXPECT_THAT(values, ElementsAre(9u, 1u, 2u, 3u));
  EXPECT_THAT(Requests(backend()),
              ElementsAre("listing=0 0xDE0222010: 0/2/7/\"207:0A\\0\" 8/2/10/\"182,439,5\\0\" 2/3/8/4"));
  EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kGetBatchPerfDataSig), Leave(kGetBatchPerfDataSig, true)));
}

TEST_F(PerformanceCommonTest, BatchRequestIsOneRecordOfKeyItemsAndConstantFourInThatOrder) {
  backend().onStats("207:0A", "10,20");
  std::vector<unsigned int> values;
  ASSERT_EQ(common_.GetBatchPerfData(207, "0A", "182,439", values), 0);
  std::vector<Call> calls = backend().calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_FALSE(calls[0].listing);
  std::unique_ptr<CTLVPackage> req = calls[0].package();
  ASSERT_EQ(req->size(), 1u);
  const CTLVRecordV3& record = *(*req)[0];
  EXPECT_EQ(record.id(), 59594907664ULL);
  ASSERT_EQ(record.cellCount(), 3u);
  std::vector<const CTLVCell*> cells(record.cells().begin(), record.cells().end());

  EXPECT_EQ(cells[0]->tag(), 0);
  EXPECT_EQ(cells[0]->type(), 2);
  ASSERT_EQ(cells[0]->length(), 7);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(cells[0]->value()), 7), std::string("207:0A\0", 7));

  EXPECT_EQ(cells[1]->tag(), 8);
  EXPECT_EQ(cells[1]->type(), 2);
  ASSERT_EQ(cells[1]->length(), 8);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(cells[1]->value()), 8), std::string("182,439\0", 8));

  EXPECT_EQ(cells[2]->tag(), 2);
  EXPECT_EQ(cells[2]->type(), 3);
  ASSERT_EQ(cells[2]->length(), 8);
  EXPECT_EQ(std::vector<unsigned char>(cells[2]->value(), cells[2]->value() + 8),
            (std::vector<unsigned char>{4, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_THAT(values, ElementsAre(10u, 20u));
  EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kGetBatchPerfDataSig), Leave(kGetBatchPerfDataSig, true)));
}

TEST_F(PerformanceCommonTest, ObjectKeyForObjectType11AndObject3Reads11Colon3) {
  backend().onStats("11:3", "42");
  std::vector<unsigned int> values;
  EXPECT_EQ(common_.GetBatchPerfData(11, "3", "182", values), 0);
  EXPECT_THAT(values, ElementsAre(42u));
  std::vector<Call> calls = backend().calls();
  ASSERT_EQ(calls.size(), 1u);
  std::unique_ptr<CTLVPackage> req = calls[0].package();
  ASSERT_EQ(req->size(), 1u);
  ASSERT_GE((*req)[0]->cellCount(), 1u);
  EXPECT_EQ(CellText(*(*req)[0]->cells().front()), "0/2/5/\"11:3\\0\"");
  EXPECT_THAT(Requests(backend()), ElementsAre("listing=0 0xDE0222010: 0/2/5/\"11:3\\0\" 8/2/4/\"182\\0\" 2/3/8/4"));
  EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kGetBatchPerfDataSig), Leave(kGetBatchPerfDataSig, true)));
}

TEST_F(PerformanceCommonTest, AnswerWithSeveralRecordsIsReadFromTheFirst) {
  backend().on(kGetStatsCmd, Answer{Rec().str(9, "4,5"), Rec().str(9, "6")});
  std::vector<unsigned int> values;
  EXPECT_EQ(common_.GetBatchPerfData(11, "3", "1,2", values), 0);
  EXPECT_THAT(values, ElementsAre(4u, 5u));
  EXPECT_THAT(Requests(backend()), ElementsAre("listing=0 0xDE0222010: 0/2/5/\"11:3\\0\" 8/2/4/\"1,2\\0\" 2/3/8/4"));
  EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kGetBatchPerfDataSig), Leave(kGetBatchPerfDataSig, true)));
}

TEST_F(PerformanceCommonTest, AnswerTextThatIsNotNumbersGivesMinusOneAndOneParseFailureLine) {
  backend().onStats("11:3", "1,x,3");
  std::vector<unsigned int> values = {7};
  EXPECT_EQ(common_.GetBatchPerfData(11, "3", "182,439,5", values), -1);
  EXPECT_THAT(values, ElementsAre(7u));
  EXPECT_THAT(Requests(backend()),
              ElementsAre("listing=0 0xDE0222010: 0/2/5/\"11:3\\0\" 8/2/10/\"182,439,5\\0\" 2/3/8/4"));
  EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kGetBatchPerfDataSig),
                                          Error("GetBatchPerfData",
                                                "faild to parse perf data, UUID:11:3, Item:182,439,5, Value:1,x,3."),
                                          Leave(kGetBatchPerfDataSig, false)));
  ExpectMessagesCarrySourceLines(log_);
}

TEST_F(PerformanceCommonTest, BackEndCode5GivesFiveAndOneQueryFailureLineWithCode5) {
  backend().onStatsError("11:3", 5);
  std::vector<unsigned int> values = {7};
  EXPECT_EQ(common_.GetBatchPerfData(11, "3", "182,439", values), 5);
  EXPECT_THAT(values, ElementsAre(7u));
  EXPECT_THAT(Requests(backend()),
              ElementsAre("listing=0 0xDE0222010: 0/2/5/\"11:3\\0\" 8/2/8/\"182,439\\0\" 2/3/8/4"));
  EXPECT_THAT(KitLines(log_),
              ElementsAre(Enter(kGetBatchPerfDataSig),
                          Error("GetBatchPerfData", "faild to query perf data, UUID:11:3, Item:182,439, err:5."),
                          Leave(kGetBatchPerfDataSig, false)));
  ExpectMessagesCarrySourceLines(log_);
}

TEST_F(PerformanceCommonTest, BatchBackEndFailureReturnsItsCodeUnchangedAndLeavesValuesAlone) {
  backend().onStatsError("40:fs-9", 1077949460);
  std::vector<unsigned int> values = {1, 2};
  EXPECT_EQ(common_.GetBatchPerfData(40, "fs-9", "12", values), 1077949460);
  EXPECT_THAT(values, ElementsAre(1u, 2u));
  EXPECT_THAT(Requests(backend()), ElementsAre("listing=0 0xDE0222010: 0/2/8/\"40:fs-9\\0\" 8/2/3/\"12\\0\" 2/3/8/4"));
  EXPECT_THAT(KitLines(log_),
              ElementsAre(Enter(kGetBatchPerfDataSig),
                          Error("GetBatchPerfData", "faild to query perf data, UUID:40:fs-9, Item:12, err:1077949460."),
                          Leave(kGetBatchPerfDataSig, false)));
  ExpectMessagesCarrySourceLines(log_);
}

TEST_F(PerformanceCommonTest, BatchAnswerWithoutARecordThrowsAndTheGuardClosesOk) {
  backend().on(kGetStatsCmd, Answer{});
  std::vector<unsigned int> values = {3};
  EXPECT_EQ(ThrownText([&] { common_.GetBatchPerfData(11, "3", "182", values); }),
            "CVEM_Exception: record don't exist, index is 0");
  EXPECT_THAT(values, ElementsAre(3u));
  EXPECT_THAT(Requests(backend()), ElementsAre("listing=0 0xDE0222010: 0/2/5/\"11:3\\0\" 8/2/4/\"182\\0\" 2/3/8/4"));
  EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kGetBatchPerfDataSig), Leave(kGetBatchPerfDataSig, true)));
}

TEST_F(PerformanceCommonTest, BatchAnswerWithAnEmptyTextGivesMinusOneAndParseFailureLine) {
  backend().onStats("207:1B", "");
  std::vector<unsigned int> values;
  EXPECT_EQ(common_.GetBatchPerfData(207, "1B", "110,120,303", values), -1);
  EXPECT_THAT(values, IsEmpty());
  EXPECT_THAT(Requests(backend()),
              ElementsAre("listing=0 0xDE0222010: 0/2/7/\"207:1B\\0\" 8/2/12/\"110,120,303\\0\" 2/3/8/4"));
  EXPECT_THAT(KitLines(log_),
              ElementsAre(Enter(kGetBatchPerfDataSig),
                          Error("GetBatchPerfData", "faild to parse perf data, UUID:207:1B, Item:110,120,303, Value:."),
                          Leave(kGetBatchPerfDataSig, false)));
  ExpectMessagesCarrySourceLines(log_);
}

TEST_F(PerformanceCommonTest, StatisticsCodeIsLookedUpOnEveryCallSwitchCodeOnceAtConstruction) {
  std::string error;
  ASSERT_TRUE(
      CVEMXmlConfig::instance()->loadFromString("<device><section name=\"COMMAND\">"
                                                "<item key=\"GET_PERFORMANCE_SWITCH\" value=\"101\"/>"
                                                "<item key=\"GET_CUR_STATISTIC_DATA\" value=\"202\"/>"
                                                "</section></device>",
                                                &error))
      << error;
  env_.setSwitch(1);
  backend().on(101, Answer{Rec().u32(0, 6)});
  backend().on(202, Answer{Rec().str(9, "8")});

  EXPECT_EQ(common_.GetPerfSwitchSta(), 1u);
  std::vector<unsigned int> values;
  EXPECT_EQ(common_.GetBatchPerfData(11, "3", "182", values), 0);
  EXPECT_THAT(values, ElementsAre(8u));
  CSnmpPerformanceCommon later;
  EXPECT_EQ(later.GetPerfSwitchSta(), 6u);

  EXPECT_THAT(Requests(backend()),
              ElementsAre("listing=0 0xDE0222001: ", "listing=0 0xCA: 0/2/5/\"11:3\\0\" 8/2/4/\"182\\0\" 2/3/8/4",
                          "listing=0 0x65: "));
  EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kGetBatchPerfDataSig), Leave(kGetBatchPerfDataSig, true)));
}

TEST_F(PerformanceCommonTest, IsNotAWholeTableHandler) {
  EXPECT_FALSE(common_.isWholeTable());
  EXPECT_EQ(backend().callCount(), 0u);
  EXPECT_THAT(KitLines(log_), IsEmpty());
}

}  // namespace
}  // namespace zerva_test
