#include "performance/snmp_zerva_performance_switch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/support/handler_test_support.h"

namespace zerva_test {
namespace {

const char kQuerySig[] = "virtual int CPerformanceSwithHandler::queryLeaf(const CVEM_SnmpContext&, CTLVCell*&)";
const char kSetSig[] =
    "virtual int CPerformanceSwithHandler::OnSetLeaf(const CVEM_SnmpContext&, const "
    "CTLVPackageV3<TLVMsgHeadV3>&, CTLVPackageV3<TLVMsgHeadV3>&)";

// A write request of one record holding the given cell.
std::unique_ptr<CTLVPackage> WriteRequest(const Rec& record) {
  std::unique_ptr<CTLVPackage> req(new CTLVPackage());
  req->push_back(record.build());
  return req;
}

class PerformanceSwitchTest : public HandlerTest<> {
 protected:
  // Writes the request, answering the set command with code (and a record of
  // tag 0 = 77 on success), and returns the handler's result.
  int Write(const CTLVPackage& req, int code = 0) {
    if (code == 0) {
      backend().on(kSetSwitchCmd, Answer{Rec(5).u32(0, 77)});
    } else {
      backend().on(kSetSwitchCmd, Answer(code));
    }
    return handler_.OnSetLeaf(ctx_, req, rsp_);
  }

  // queryLeaf, expected to succeed: the cell it answers, as text.
  std::string ReadCell() {
    CTLVCell* cell = nullptr;
    EXPECT_EQ(handler_.queryLeaf(ctx_, cell), 0);
    std::unique_ptr<CTLVCell> owned(cell);
    return cell == nullptr ? "no cell" : CellText(*cell);
  }

  // The back end saw the switch query alone, and queryLeaf traced its entry
  // and exit (OK) and nothing else.
  void ExpectOneTracedSwitchQuery() {
    EXPECT_THAT(Requests(backend()), ElementsAre(kSwitchRequest));
    EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kQuerySig), Leave(kQuerySig, true)));
  }

  CPerformanceSwithHandler handler_;
};

// ---------------------------------------------------------------------------
// Read.

TEST_F(PerformanceSwitchTest, ReadAnswersTheBackEndStateAsAFourByteUnsignedTag0Cell) {
  env_.setSwitch(1);
  EXPECT_EQ(ReadCell(), "0/3/4/1");
  ExpectOneTracedSwitchQuery();
}

TEST_F(PerformanceSwitchTest, ReadPassesAnyStateThroughUnchanged) {
  env_.setSwitch(4000000000u);
  EXPECT_EQ(ReadCell(), "0/3/4/4000000000");
  ExpectOneTracedSwitchQuery();
}

TEST_F(PerformanceSwitchTest, ReadOfASignedOneByteAnswerFFGivesAllOnes) {
  backend().on(kGetSwitchCmd, Answer{Rec().cell(0, 4, {0xFF})});
  EXPECT_EQ(ReadCell(), "0/3/4/4294967295");
  ExpectOneTracedSwitchQuery();
}

TEST_F(PerformanceSwitchTest, ReadThroughOnQueryLeafAnswersOneResponseRecord) {
  env_.setSwitch(0);
  CTLVPackage req;
  EXPECT_EQ(handler_.OnQueryLeaf(ctx_, req, rsp_), 0);
  EXPECT_THAT(PackageText(rsp_), ElementsAre("0xFFFFFFFFFFFFFFFF: 0/3/4/0"));
  ExpectOneTracedSwitchQuery();
}

TEST_F(PerformanceSwitchTest, ReadWithAFailingBackEndReturnsItsStatusAndLeavesTheCellPointerAlone) {
  backend().on(kGetSwitchCmd, Answer(1077949460));
  CTLVCell sentinel;
  CTLVCell* cell = &sentinel;
  EXPECT_EQ(handler_.queryLeaf(ctx_, cell), 1077949460);
  EXPECT_EQ(cell, &sentinel);
  ExpectOneTracedSwitchQuery();
}

TEST_F(PerformanceSwitchTest, ReadBackEndFailureReturnsTheStatusWithoutLogOrCell) {
  backend().on(kGetSwitchCmd, Answer(SNMP_TRANSPORT_E_CONNECT));
  CTLVCell* cell = nullptr;
  EXPECT_EQ(handler_.queryLeaf(ctx_, cell), SNMP_TRANSPORT_E_CONNECT);
  EXPECT_EQ(cell, nullptr);
  EXPECT_TRUE(log_.records(VEM_LOG_ERROR).empty());
  EXPECT_TRUE(log_.records(VEM_LOG_WARN).empty());
  EXPECT_TRUE(log_.records(VEM_LOG_DEBUG).empty());
  ExpectOneTracedSwitchQuery();
}

TEST_F(PerformanceSwitchTest, ReadAnswerWithoutARecordThrowsRecordDontExistIndex0) {
  backend().on(kGetSwitchCmd, Answer{});
  CTLVCell* cell = nullptr;
  EXPECT_EQ(ThrownText([&] { handler_.queryLeaf(ctx_, cell); }), "CVEM_Exception: record don't exist, index is 0");
  EXPECT_EQ(cell, nullptr);
  ExpectOneTracedSwitchQuery();
}

TEST_F(PerformanceSwitchTest, ReadAnswerCell0NotNumericalThrowsWithItsTag) {
  backend().on(kGetSwitchCmd, Answer{Rec().str(0, "1")});
  CTLVCell* cell = nullptr;
  EXPECT_EQ(ThrownText([&] { handler_.queryLeaf(ctx_, cell); }),
            "CVEM_Exception: CTLVCell isn't numerical type! tag equal to 0");
  EXPECT_EQ(cell, nullptr);
  ExpectOneTracedSwitchQuery();
}

TEST_F(PerformanceSwitchTest, ReadAnswerWithSeveralRecordsAndCellsUsesRecord0Cell0Only) {
  backend().on(kGetSwitchCmd, Answer{Rec().u32(0, 6).u32(1, 9).str(2, "x"), Rec().u32(0, 8), Rec().u32(0, 10)});
  EXPECT_EQ(ReadCell(), "0/3/4/6");
  ExpectOneTracedSwitchQuery();
}

// ---------------------------------------------------------------------------
// Write.

TEST_F(PerformanceSwitchTest, WritesOfZeroOneAndAllOnesEachReachTheBackEndAsFourByteUnsignedTag0Cell) {
  const unsigned int states[] = {0u, 1u, 4294967295u};
  const char* const expectedRequests[] = {
      "listing=0 0xDE0222002: 0/3/4/0",
      "listing=0 0xDE0222002: 0/3/4/1",
      "listing=0 0xDE0222002: 0/3/4/4294967295",
  };
  const char* const expectedWarnings[] = {
      "set perf switch to 0, iRet:0.",
      "set perf switch to 1, iRet:0.",
      "set perf switch to -1, iRet:0.",
  };
  for (int i = 0; i < 3; ++i) {
    SCOPED_TRACE(states[i]);
    backend().reset();
    log_.clear();
    rsp_.clear();
    std::unique_ptr<CTLVPackage> req = WriteRequest(Rec().u32(0, states[i]));
    EXPECT_EQ(Write(*req), 0);
    EXPECT_THAT(Requests(backend()), ElementsAre(expectedRequests[i]));
    EXPECT_THAT(PackageText(rsp_), ElementsAre("0x5: 0/3/4/77"));
    EXPECT_THAT(KitLines(log_),
                ElementsAre(Enter(kSetSig), Warn("OnSetLeaf", expectedWarnings[i]), Leave(kSetSig, false)));
    ExpectMessagesCarrySourceLines(log_);
  }
}

TEST_F(PerformanceSwitchTest, WritesOfOtherCellTypesReachTheBackEndAsFourByteUnsigned) {
  struct Case {
    const char* name;
    Rec cell;
    const char* request;
    const char* warning;
  };
  const Case cases[] = {
      // A signed one-byte FF is -1: all ones.
      {"signed one-byte FF", Rec().cell(0, 4, {0xFF}), "listing=0 0xDE0222002: 0/3/4/4294967295",
       "set perf switch to -1, iRet:0."},
      {"unsigned one-byte FF", Rec().cell(0, 3, {0xFF}), "listing=0 0xDE0222002: 0/3/4/255",
       "set perf switch to 255, iRet:0."},
      // An eight-byte value keeps its low four bytes.
      {"eight-byte 0x100000002", Rec().u64(0, 0x0000000100000002ULL), "listing=0 0xDE0222002: 0/3/4/2",
       "set perf switch to 2, iRet:0."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    backend().reset();
    log_.clear();
    rsp_.clear();
    std::unique_ptr<CTLVPackage> req = WriteRequest(c.cell);
    EXPECT_EQ(Write(*req), 0);
    EXPECT_THAT(Requests(backend()), ElementsAre(c.request));
    EXPECT_THAT(PackageText(rsp_), ElementsAre("0x5: 0/3/4/77"));
    EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kSetSig), Warn("OnSetLeaf", c.warning), Leave(kSetSig, false)));
  }
}

TEST_F(PerformanceSwitchTest, WritePutsTheBackEndAnswerIntoTheCallersResponse) {
  std::unique_ptr<CTLVPackage> req = WriteRequest(Rec().u32(0, 1));
  EXPECT_EQ(Write(*req), 0);
  EXPECT_THAT(PackageText(rsp_), ElementsAre("0x5: 0/3/4/77"));
  EXPECT_THAT(Requests(backend()), ElementsAre("listing=0 0xDE0222002: 0/3/4/1"));
  EXPECT_THAT(KitLines(log_),
              ElementsAre(Enter(kSetSig), Warn("OnSetLeaf", "set perf switch to 1, iRet:0."), Leave(kSetSig, false)));
}

TEST_F(PerformanceSwitchTest, WriteWithValueTypeZeroOneOrTwoIsRefusedBeforeAnyBackEndCall) {
  const Rec requests[] = {Rec().cell(0, 0, {}), Rec().cell(0, 1, {1, 0, 0, 0}), Rec().str(0, "1")};
  for (const Rec& record : requests) {
    backend().reset();
    log_.clear();
    std::unique_ptr<CTLVPackage> req = WriteRequest(record);
    SCOPED_TRACE(PackageText(*req)[0]);
    EXPECT_EQ(ThrownText([&] { Write(*req); }), "CVEM_Exception: CTLVCell isn't numerical type! tag equal to 0");
    EXPECT_EQ(backend().callCount(), 0u);
    EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kSetSig), Leave(kSetSig, true)));
    EXPECT_EQ(rsp_.size(), 0u);
  }
}

TEST_F(PerformanceSwitchTest, WriteRequestWithoutARecordThrowsRecordDontExistIndex0) {
  CTLVPackage req;
  EXPECT_EQ(ThrownText([&] { Write(req); }), "CVEM_Exception: record don't exist, index is 0");
  EXPECT_EQ(backend().callCount(), 0u);
  EXPECT_EQ(rsp_.size(), 0u);
  EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kSetSig), Leave(kSetSig, true)));
}

TEST_F(PerformanceSwitchTest, WriteRequestCell0OfStringTypeThrowsNotNumericalWithItsTag) {
  std::unique_ptr<CTLVPackage> req = WriteRequest(Rec().str(0, "on"));
  EXPECT_EQ(ThrownText([&] { Write(*req); }), "CVEM_Exception: CTLVCell isn't numerical type! tag equal to 0");
  EXPECT_EQ(backend().callCount(), 0u);
  EXPECT_TRUE(log_.records(VEM_LOG_WARN).empty());
  EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kSetSig), Leave(kSetSig, true)));
  EXPECT_EQ(rsp_.size(), 0u);
}

TEST_F(PerformanceSwitchTest, WriteBackEndFailureLogsTheWarningWithTheFailingCodeAndReturnsIt) {
  std::unique_ptr<CTLVPackage> req = WriteRequest(Rec().u32(0, 1));
  EXPECT_EQ(Write(*req, 1077949460), 1077949460);
  EXPECT_THAT(Requests(backend()), ElementsAre("listing=0 0xDE0222002: 0/3/4/1"));
  EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kSetSig), Warn("OnSetLeaf", "set perf switch to 1, iRet:1077949460."),
                                          Leave(kSetSig, false)));
  EXPECT_EQ(rsp_.size(), 0u);
  ExpectMessagesCarrySourceLines(log_);
}

TEST_F(PerformanceSwitchTest, WarningLineIsLoggedOncePerWriteWhateverTheResult) {
  std::unique_ptr<CTLVPackage> on = WriteRequest(Rec().u32(0, 1));
  std::unique_ptr<CTLVPackage> off = WriteRequest(Rec().u32(0, 0));
  EXPECT_EQ(Write(*on), 0);
  EXPECT_EQ(Write(*off, -3), -3);
  EXPECT_EQ(Write(*on), 0);
  EXPECT_THAT(PackageText(rsp_), ElementsAre("0x5: 0/3/4/77", "0x5: 0/3/4/77"));
  EXPECT_THAT(Requests(backend()), ElementsAre("listing=0 0xDE0222002: 0/3/4/1", "listing=0 0xDE0222002: 0/3/4/0",
                                               "listing=0 0xDE0222002: 0/3/4/1"));
  EXPECT_THAT(KitLines(log_),
              ElementsAre(Enter(kSetSig), Warn("OnSetLeaf", "set perf switch to 1, iRet:0."), Leave(kSetSig, false),
                          Enter(kSetSig), Warn("OnSetLeaf", "set perf switch to 0, iRet:-3."), Leave(kSetSig, false),
                          Enter(kSetSig), Warn("OnSetLeaf", "set perf switch to 1, iRet:0."), Leave(kSetSig, false)));
  ExpectMessagesCarrySourceLines(log_);
}

}  // namespace
}  // namespace zerva_test
