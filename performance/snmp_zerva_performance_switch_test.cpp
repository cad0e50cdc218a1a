#include "performance/snmp_zerva_performance_switch.h"

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
using zerva_test::CellText;
using zerva_test::FakeBackend;
using zerva_test::KitLogCapture;
using zerva_test::PackageText;
using zerva_test::Rec;

const char kQuerySig[] = "virtual int CPerformanceSwithHandler::queryLeaf(const CVEM_SnmpContext&, CTLVCell*&)";
const char kSetSig[] =
    "virtual int CPerformanceSwithHandler::OnSetLeaf(const CVEM_SnmpContext&, const "
    "CTLVPackageV3<TLVMsgHeadV3>&, CTLVPackageV3<TLVMsgHeadV3>&)";

const char kGetRequest[] = "listing=0 0xDE0222001: ";

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
std::string Warn(const std::string& function, const std::string& text) {
  return "4 WARN 0xFFFF " + function + ": " + text;
}

// what() of the CVEM_Exception that f throws.
std::string ThrownText(const std::function<void()>& f) {
  try {
    f();
  } catch (const CVEM_Exception& e) {
    return e.what();
  } catch (...) {
    return "an exception other than CVEM_Exception";
  }
  return "no exception";
}

// A write request of one record holding the given cell.
std::unique_ptr<CTLVPackage> WriteRequest(const Rec& record) {
  std::unique_ptr<CTLVPackage> req(new CTLVPackage());
  req->push_back(record.build());
  return req;
}

class PerformanceSwitchTest : public ::testing::Test {
 protected:
  FakeBackend& backend() { return fixture_.backend(); }

  // Writes the request, answering the set command with code (and a record of
  // tag 0 = 77 on success), and returns the handler's result.
  int Write(const CTLVPackage& req, int code = 0) {
    if (code == 0) {
      backend().on(zerva_test::kSetSwitchCmd, Answer{Rec(5).u32(0, 77)});
    } else {
      backend().on(zerva_test::kSetSwitchCmd, Answer(code));
    }
    return handler_.OnSetLeaf(ctx_, req, rsp_);
  }

  BackendFixture fixture_;
  KitLogCapture log_;
  CPerformanceSwithHandler handler_;
  CVEM_SnmpContext ctx_;
  CTLVPackage rsp_;
};

// ---------------------------------------------------------------------------
// Read.

TEST_F(PerformanceSwitchTest, ReadAnswersTheBackEndStateAsAFourByteUnsignedTag0Cell) {
  fixture_.setSwitch(1);
  CTLVCell* cell = nullptr;
  EXPECT_EQ(handler_.queryLeaf(ctx_, cell), 0);
  ASSERT_NE(cell, nullptr);
  std::unique_ptr<CTLVCell> owned(cell);
  EXPECT_EQ(CellText(*cell), "0/3/4/1");
  EXPECT_THAT(Requests(backend()), ElementsAre(kGetRequest));
  EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kQuerySig), Leave(kQuerySig, true)));
}

TEST_F(PerformanceSwitchTest, ReadPassesAnyStateThroughUnchanged) {
  fixture_.setSwitch(4000000000u);
  CTLVCell* cell = nullptr;
  EXPECT_EQ(handler_.queryLeaf(ctx_, cell), 0);
  ASSERT_NE(cell, nullptr);
  std::unique_ptr<CTLVCell> owned(cell);
  EXPECT_EQ(CellText(*cell), "0/3/4/4000000000");
  EXPECT_THAT(Requests(backend()), ElementsAre(kGetRequest));
  EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kQuerySig), Leave(kQuerySig, true)));
}

TEST_F(PerformanceSwitchTest, ReadOfASignedOneByteAnswerFFGivesAllOnes) {
  backend().on(zerva_test::kGetSwitchCmd, Answer{Rec().cell(0, 4, {0xFF})});
  CTLVCell* cell = nullptr;
  EXPECT_EQ(handler_.queryLeaf(ctx_, cell), 0);
  ASSERT_NE(cell, nullptr);
  std::unique_ptr<CTLVCell> owned(cell);
  EXPECT_EQ(CellText(*cell), "0/3/4/4294967295");
  EXPECT_THAT(Requests(backend()), ElementsAre(kGetRequest));
  EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kQuerySig), Leave(kQuerySig, true)));
}

TEST_F(PerformanceSwitchTest, ReadThroughOnQueryLeafAnswersOneResponseRecord) {
  fixture_.setSwitch(0);
  CTLVPackage req;
  EXPECT_EQ(handler_.OnQueryLeaf(ctx_, req, rsp_), 0);
  EXPECT_THAT(PackageText(rsp_), ElementsAre("0xFFFFFFFFFFFFFFFF: 0/3/4/0"));
  EXPECT_THAT(Requests(backend()), ElementsAre(kGetRequest));
  EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kQuerySig), Leave(kQuerySig, true)));
}

TEST_F(PerformanceSwitchTest, ReadWithAFailingBackEndReturnsItsStatusAndLeavesTheCellPointerAlone) {
  backend().on(zerva_test::kGetSwitchCmd, Answer(1077949460));
  CTLVCell sentinel;
  CTLVCell* cell = &sentinel;
  EXPECT_EQ(handler_.queryLeaf(ctx_, cell), 1077949460);
  EXPECT_EQ(cell, &sentinel);
  EXPECT_THAT(Requests(backend()), ElementsAre(kGetRequest));
  EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kQuerySig), Leave(kQuerySig, true)));
}

TEST_F(PerformanceSwitchTest, ReadBackEndFailureReturnsTheStatusWithoutLogOrCell) {
  backend().on(zerva_test::kGetSwitchCmd, Answer(SNMP_TRANSPORT_E_CONNECT));
  CTLVCell* cell = nullptr;
  EXPECT_EQ(handler_.queryLeaf(ctx_, cell), SNMP_TRANSPORT_E_CONNECT);
  EXPECT_EQ(cell, nullptr);
  EXPECT_TRUE(log_.records(VEM_LOG_ERROR).empty());
  EXPECT_TRUE(log_.records(VEM_LOG_WARN).empty());
  EXPECT_TRUE(log_.records(VEM_LOG_DEBUG).empty());
  EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kQuerySig), Leave(kQuerySig, true)));
  EXPECT_THAT(Requests(backend()), ElementsAre(kGetRequest));
}

TEST_F(PerformanceSwitchTest, ReadAnswerWithoutARecordThrowsRecordDontExistIndex0) {
  backend().on(zerva_test::kGetSwitchCmd, Answer{});
  CTLVCell* cell = nullptr;
  EXPECT_EQ(ThrownText([&] { handler_.queryLeaf(ctx_, cell); }), "CVEM_Exception: record don't exist, index is 0");
  EXPECT_EQ(cell, nullptr);
  EXPECT_THAT(Requests(backend()), ElementsAre(kGetRequest));
  EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kQuerySig), Leave(kQuerySig, true)));
}

TEST_F(PerformanceSwitchTest, ReadAnswerCell0NotNumericalThrowsWithItsTag) {
  backend().on(zerva_test::kGetSwitchCmd, Answer{Rec().str(0, "1")});
  CTLVCell* cell = nullptr;
  EXPECT_EQ(ThrownText([&] { handler_.queryLeaf(ctx_, cell); }),
            "CVEM_Exception: CTLVCell isn't numerical type! tag equal to 0");
  EXPECT_EQ(cell, nullptr);
  EXPECT_THAT(Requests(backend()), ElementsAre(kGetRequest));
  EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kQuerySig), Leave(kQuerySig, true)));
}

TEST_F(PerformanceSwitchTest, ReadAnswerWithSeveralRecordsAndCellsUsesRecord0Cell0Only) {
  backend().on(zerva_test::kGetSwitchCmd,
               Answer{Rec().u32(0, 6).u32(1, 9).str(2, "x"), Rec().u32(0, 8), Rec().u32(0, 10)});
  CTLVCell* cell = nullptr;
  EXPECT_EQ(handler_.queryLeaf(ctx_, cell), 0);
  ASSERT_NE(cell, nullptr);
  std::unique_ptr<CTLVCell> owned(cell);
  EXPECT_EQ(CellText(*cell), "0/3/4/6");
  EXPECT_THAT(Requests(backend()), ElementsAre(kGetRequest));
  EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kQuerySig), Leave(kQuerySig, true)));
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

TEST_F(PerformanceSwitchTest, WriteOfASignedOneByteFFReachesTheBackEndAsAllOnes) {
  std::unique_ptr<CTLVPackage> req = WriteRequest(Rec().cell(0, 4, {0xFF}));
  EXPECT_EQ(Write(*req), 0);
  EXPECT_THAT(Requests(backend()), ElementsAre("listing=0 0xDE0222002: 0/3/4/4294967295"));
  EXPECT_THAT(PackageText(rsp_), ElementsAre("0x5: 0/3/4/77"));
  EXPECT_THAT(KitLines(log_),
              ElementsAre(Enter(kSetSig), Warn("OnSetLeaf", "set perf switch to -1, iRet:0."), Leave(kSetSig, false)));
}

TEST_F(PerformanceSwitchTest, WriteOfAnUnsignedOneByteFFReachesTheBackEndAs255) {
  std::unique_ptr<CTLVPackage> req = WriteRequest(Rec().cell(0, 3, {0xFF}));
  EXPECT_EQ(Write(*req), 0);
  EXPECT_THAT(Requests(backend()), ElementsAre("listing=0 0xDE0222002: 0/3/4/255"));
  EXPECT_THAT(PackageText(rsp_), ElementsAre("0x5: 0/3/4/77"));
  EXPECT_THAT(KitLines(log_),
              ElementsAre(Enter(kSetSig), Warn("OnSetLeaf", "set perf switch to 255, iRet:0."), Leave(kSetSig, false)));
}

TEST_F(PerformanceSwitchTest, WriteOfAnEightByteValueReachesTheBackEndAsItsLowFourBytes) {
  std::unique_ptr<CTLVPackage> req = WriteRequest(Rec().u64(0, 0x0000000100000002ULL));
  EXPECT_EQ(Write(*req), 0);
  EXPECT_THAT(Requests(backend()), ElementsAre("listing=0 0xDE0222002: 0/3/4/2"));
  EXPECT_THAT(PackageText(rsp_), ElementsAre("0x5: 0/3/4/77"));
  EXPECT_THAT(KitLines(log_),
              ElementsAre(Enter(kSetSig), Warn("OnSetLeaf", "set perf switch to 2, iRet:0."), Leave(kSetSig, false)));
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
