#include "performance/snmp_zerva_performance_lun_handler.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "snmpcommon/snmp_comm_util.h"
#include "tests/support/handler_test_support.h"

namespace zerva_test {
namespace {

const TableSigs kSigs("CPerformanceLunHandler");

// The batch statistics command of the LUN table.
const unsigned long long kLunStatsCmd = 59594907720ULL;
static_assert(kLunStatsCmd == 0xDE0222048ULL, "batch statistics command code");
static_assert(kGetStatsCmd == 0xDE0222010ULL, "per-row statistics command code");
static_assert(kGetSwitchCmd == 0xDE0222001ULL, "switch command code");

// The thirteen statistics items the LUN table asks for, in the order of its
// value lists.
const char kItems[] = "303,22,25,28,21,23,26,5,307,370,371,384,385";

// Trace signatures of the LUN handler's own functions.
const std::string kFillReqSig = "virtual void CPerformanceLunHandler::fillReqRecord(CTLVRecordV3*)";
const std::string kBatchInfoSig =
    "virtual int CPerformanceLunHandler::GetBatchTableInfo_i(CTLVPackageV3<TLVMsgHeadV3>&, std::string&, "
    "std::string&, long long unsigned int&, Uint32&, int&, CTLVPackageV3<TLVMsgHeadV3>&)";
const std::string kQuerySig = "int CPerformanceLunHandler::QueryPerfLunData(std::string, CTLVPackageV3<TLVMsgHeadV3>&)";

// The handler with the base's state in reach.
using TestLunHandler = WithTableState<CPerformanceLunHandler>;

// The per-row statistics request (GET_CUR_STATISTIC_DATA) of LUN id.
std::string RowStatsRequest(const std::string& id) {
  return "listing=0 0xDE0222010: " + StrCell(0, "11:" + id) + " " + StrCell(8, kItems) + " 2/3/8/4";
}

// The batch statistics request for the IDs text objID.
std::string BatchStatsRequest(const std::string& objID) {
  return "listing=0 0xDE0222048: 11/3/4/11 " + StrCell(12, objID) + " " + StrCell(8, kItems) + " 2/3/8/4";
}

// The listing request of the walk, with the key cell when key is not empty.
std::string ListingRequest(const std::string& key) {
  return "listing=1 0xD0000C000: 0/6/8/11" + (key.empty() ? std::string() : " " + StrCell(1, key));
}

// The lines of getIndexOfRecord for one listed record.
std::vector<std::string> IndexLines(int times) {
  std::vector<std::string> out;
  for (int i = 0; i < times; ++i) {
    out.push_back(Enter(kSigs.indexOfRecord));
    out.push_back(Leave(kSigs.indexOfRecord, true));
  }
  return out;
}

// A listed LUN as the back end lists it.
Rec Lun(const std::string& id) { return Rec(kListingCmd).t6(0, 11).str(1, id); }
// The control record of a listing or statistics reply.
Rec Control(unsigned int value) { return Rec(kListingCmd).u32(4095, value); }

// A package holding the records.
std::unique_ptr<CTLVPackage> Package(const std::vector<Rec>& records) {
  std::unique_ptr<CTLVPackage> pkg(new CTLVPackage());
  for (const Rec& r : records) pkg->push_back(r.build());
  return pkg;
}

std::string Join(const std::vector<unsigned int>& values) {
  std::string out;
  for (size_t i = 0; i < values.size(); ++i) out += (i ? "," : "") + std::to_string(values[i]);
  return out;
}

std::string JoinKeys(unsigned int first, unsigned int last) {
  std::string out;
  for (unsigned int k = first; k <= last; ++k) out += (k == first ? "" : ",") + std::to_string(k);
  return out;
}

// A full row: column 1 the ID number, 2 to 8 the values V[0] to V[6], 9 and
// 10 the given percentages, 11 to 16 the values V[7] to V[12].
std::string LunRow(unsigned int id, const std::vector<unsigned int>& v, unsigned int p9, unsigned int p10) {
  std::string out = "1/3/4/" + std::to_string(id);
  for (unsigned int tag = 2; tag <= 8; ++tag) out += " " + std::to_string(tag) + "/3/4/" + std::to_string(v[tag - 2]);
  out += " 9/3/4/" + std::to_string(p9) + " 10/3/4/" + std::to_string(p10);
  for (unsigned int tag = 11; tag <= 16; ++tag) out += " " + std::to_string(tag) + "/3/4/" + std::to_string(v[tag - 4]);
  return out;
}

// Values of LUN n in the walk tests: item 22 (V[1]) is 100, so the two
// percentages are V[2] and V[3] themselves.
std::vector<unsigned int> WalkValues(unsigned int n) {
  std::vector<unsigned int> v;
  for (unsigned int i = 0; i < 13; ++i) v.push_back(n * 1000 + i);
  v[1] = 100;
  v[2] = n % 100;
  v[3] = (n * 7) % 100;
  return v;
}

std::string WalkRow(unsigned int n) {
  const std::vector<unsigned int> v = WalkValues(n);
  return kResponseId + LunRow(n, v, v[2], v[3]);
}

// Answers the batch statistics command as the back end does: one record per
// LUN named in tag 12 (empty fields ignored), LUN ID in tag 13 and the
// values of WalkValues in tag 9, then a control record ending the reply.
// Records the ID texts it was asked for.
struct BatchStatsResponder {
  std::shared_ptr<std::vector<std::string>> asked = std::make_shared<std::vector<std::string>>();

  Answer operator()(const CTLVPackage& req, bool) const {
    const std::string ids = (*req[0])[12]->toString();
    asked->push_back(ids);
    Answer answer;
    size_t start = 0;
    while (start <= ids.size()) {
      size_t comma = ids.find(',', start);
      if (comma == std::string::npos) comma = ids.size();
      const std::string id = ids.substr(start, comma - start);
      if (!id.empty()) answer.records.push_back(Rec().str(13, id).str(9, Join(WalkValues(StrToUint(id)))));
      start = comma + 1;
    }
    answer.records.push_back(Rec().u32(4095, 1));
    return answer;
  }
};

std::vector<std::string> Keys(unsigned int n) {
  std::vector<std::string> keys;
  for (unsigned int i = 1; i <= n; ++i) keys.push_back(std::to_string(i));
  return keys;
}

// The in and out arguments of one GetBatchTableInfo_i call, as a walk's first
// batch starts them: no index yet, a full batch of 160 asked for, and a
// collection result the call is to overwrite.
struct BatchInfoCall {
  std::string index = CSnmpTableBase::INVALID_KEY;
  std::string firstIndex = CSnmpTableBase::INVALID_KEY;
  unsigned long long unused = 0;
  Uint32 amount = 160;
  int collected = 77;

  int Run(TestLunHandler& handler, CTLVPackage& listing, CTLVPackage& rsp) {
    return handler.GetBatchTableInfo_i(listing, index, firstIndex, unused, amount, collected, rsp);
  }
};

class PerformanceLunTest : public HandlerTest<> {
 protected:
  PerformanceLunTest() { env_.setSwitch(1); }

  // preGetRspCell for a listed LUN whose statistics answer is values, then
  // fillRspRecord into a new row; the row's cells as text.
  std::string RowFromValues(const std::string& id, const std::string& values) {
    return FilledRowText(handler_, backend(), "11:" + id, values, Lun(id));
  }

  // GetBatchUUID over a listing of these records, from amount, index and
  // firstIndex: "<result> ids=<batchObjID> index=<index> first=<firstIndex>
  // amount=<amount>" as the call leaves them.
  std::string BatchUUID(const std::vector<Rec>& records, Uint32 amount, std::string index = CSnmpTableBase::INVALID_KEY,
                        std::string firstIndex = CSnmpTableBase::INVALID_KEY) {
    std::unique_ptr<CTLVPackage> listing = Package(records);
    std::string batchObjID;
    const int result = handler_.GetBatchUUID(*listing, amount, index, firstIndex, batchObjID);
    return std::to_string(result) + " ids=" + batchObjID + " index=" + index + " first=" + firstIndex +
           " amount=" + std::to_string(amount);
  }

  TestLunHandler handler_;
};

// ---------------------------------------------------------------------------
// Construction and the switch check.

// ---------------------------------------------------------------------------
// getMibKey and fillReqRecord.

TEST_F(PerformanceLunTest, AnEmptyIndexGivesKeyZeroAndIndex1Dot2GivesKeyOne) {
  EXPECT_EQ(handler_.getMibKey(Agentpp::Oidx()), "0");
  EXPECT_EQ(handler_.getMibKey(Agentpp::Oidx{1, 2}), "1");
  EXPECT_EQ(handler_.getMibKey(Agentpp::Oidx("1.2")), "1");
  EXPECT_EQ(handler_.getMibKey(Agentpp::Oidx{4294967295u}), "4294967295");
  EXPECT_EQ(backend().callCount(), 0u);
}

TEST_F(PerformanceLunTest, AnEmptyCurrentKeyAddsNoKeyCellToTheListingRequest) {
  handler_.m_strCurKey = CSnmpTableBase::DEFAULT_STRING_KEY;
  CTLVRecordV3 record(CSnmpTableBase::LISTING_CMD, 32);
  handler_.fillReqRecord(&record);
  EXPECT_EQ(record.id(), 0xD0000C000ULL);
  EXPECT_EQ(RecordText(record), "0/6/8/11");
  EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kFillReqSig), Leave(kFillReqSig, true)));
  EXPECT_EQ(backend().callCount(), 0u);
}

TEST_F(PerformanceLunTest, ANonEmptyCurrentKeyFollowsTheObjectTypeAsATextCellAndTheCodeStays) {
  CTLVRecordV3 initial(CSnmpTableBase::LISTING_CMD, 32);
  handler_.fillReqRecord(&initial);  // the key the handler starts with
  EXPECT_EQ(RecordText(initial), "0/6/8/11 " + StrCell(1, "-1"));

  handler_.m_strCurKey = "160";
  CTLVRecordV3 other(0xD00000000ULL, 32);
  handler_.fillReqRecord(&other);
  EXPECT_EQ(other.id(), 0xD00000000ULL);
  EXPECT_EQ(RecordText(other), "0/6/8/11 1/2/4/\"160\\0\"");
  EXPECT_THAT(KitLines(log_),
              ElementsAre(Enter(kFillReqSig), Leave(kFillReqSig, true), Enter(kFillReqSig), Leave(kFillReqSig, true)));
}

// ---------------------------------------------------------------------------
// getIndexOfRecord, preGetRspCell, fillRspRecord, postGetRspCell.

TEST_F(PerformanceLunTest, PerRowFetchAsksForObjectKey11ColonIdWithTheThirteenItems) {
  EXPECT_EQ(RowFromValues("7", "1,2,3,4,5,6,7,8,9,10,11,12,13"),
            LunRow(7, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13}, 150, 200));
  EXPECT_THAT(Requests(backend()), ElementsAre(RowStatsRequest("7")));
  EXPECT_FALSE(backend().calls()[0].listing);
  EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kSigs.preGetRspCell), Enter(kGetBatchPerfDataSig),
                                          Leave(kGetBatchPerfDataSig, true), Leave(kSigs.preGetRspCell, true)));
}

TEST_F(PerformanceLunTest, PerRowFetchEmptiesTheValuesOfTheRowBefore) {
  backend().onStats("11:7", "9,9,9,9,9,9,9,9,9,9,9,9,9");
  std::unique_ptr<CTLVRecordV3> listed(Lun("7").build());
  ASSERT_EQ(handler_.preGetRspCell(*listed), 0);
  // No postGetRspCell in between: the second fetch still starts afresh.
  EXPECT_EQ(RowFromValues("8", "10,20,30,40,50,60,70,80,90,100,110,120,130"),
            LunRow(8, {10, 20, 30, 40, 50, 60, 70, 80, 90, 100, 110, 120, 130}, 150, 200));
}

TEST_F(PerformanceLunTest, PerRowUnparsableValuesReturnMinusOneWithAnEmptyLunId) {
  backend().onStats("11:7", "1,x,3");
  std::unique_ptr<CTLVRecordV3> listed(Lun("7").build());
  EXPECT_EQ(handler_.preGetRspCell(*listed), -1);
  EXPECT_THAT(KitLines(log_),
              ElementsAre(Enter(kSigs.preGetRspCell), Enter(kGetBatchPerfDataSig),
                          Error("GetBatchPerfData",
                                std::string("faild to parse perf data, UUID:11:7, Item:") + kItems + ", Value:1,x,3."),
                          Leave(kGetBatchPerfDataSig, false),
                          Error("preGetRspCell", "get performance data of lun  failed, errcode=-1"),
                          Leave(kSigs.preGetRspCell, false)));
}

TEST_F(PerformanceLunTest, PercentColumnsAreZeroWithoutTotalIopsTruncatedAndWrapIn32Bits) {
  // V[1] = 0: both percentages 0.
  EXPECT_EQ(RowFromValues("1", "10,0,5,7,1,1,1,1,1,1,1,1,1"),
            LunRow(1, {10, 0, 5, 7, 1, 1, 1, 1, 1, 1, 1, 1, 1}, 0, 0));
  // V[1] = 3, V[2] = 2: 200 / 3 truncates to 66; V[3] = 1: 33.
  EXPECT_EQ(RowFromValues("2", "10,3,2,1,1,1,1,1,1,1,1,1,1"),
            LunRow(2, {10, 3, 2, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1}, 66, 33));
  // V[2] = 50000000, V[1] = 100: (5000000000 mod 2^32) / 100 = 7050327.
  EXPECT_EQ(RowFromValues("3", "10,100,50000000,25,1,1,1,1,1,1,1,1,1"),
            LunRow(3, {10, 100, 50000000, 25, 1, 1, 1, 1, 1, 1, 1, 1, 1}, 7050327, 25));
}

TEST_F(PerformanceLunTest, ColumnOneIsTheIdAsANumberAndANonNumericIdGivesZero) {
  const std::string values = "1,2,3,4,5,6,7,8,9,10,11,12,13";
  const std::vector<unsigned int> v = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13};
  EXPECT_EQ(RowFromValues("42", values), LunRow(42, v, 150, 200));
  EXPECT_EQ(RowFromValues("lun7", values), LunRow(0, v, 150, 200));
  EXPECT_EQ(RowFromValues("4294967296", values), LunRow(0, v, 150, 200));
  EXPECT_EQ(RowFromValues("4294967295", values), LunRow(4294967295u, v, 150, 200));
}

TEST_F(PerformanceLunTest, ShortValueListGivesOnlyTheColumnsThatHaveValues) {
  // Three values: columns 2 to 4; no percentages (they need V[3]).
  EXPECT_EQ(RowFromValues("1", "10,20,30"), "1/3/4/1 2/3/4/10 3/3/4/20 4/3/4/30");
  // Four values: columns 2 to 5, then both percentages.
  EXPECT_EQ(RowFromValues("2", "10,20,30,40"), "1/3/4/2 2/3/4/10 3/3/4/20 4/3/4/30 5/3/4/40 9/3/4/150 10/3/4/200");
  // Nine values: up to column 12.
  EXPECT_EQ(RowFromValues("3", "1,2,3,4,5,6,7,8,9"),
            "1/3/4/3 2/3/4/1 3/3/4/2 4/3/4/3 5/3/4/4 6/3/4/5 7/3/4/6 8/3/4/7 9/3/4/150 10/3/4/200 11/3/4/8 "
            "12/3/4/9");
}

TEST_F(PerformanceLunTest, FillWithAnIdTagReadsTheIdFromThatCell) {
  backend().onStats("11:5", "1,2,3,4,5,6,7,8,9,10,11,12,13");
  std::unique_ptr<CTLVRecordV3> listed(Lun("5").build());
  ASSERT_EQ(handler_.preGetRspCell(*listed), 0);
  std::unique_ptr<CTLVRecordV3> stats(Rec().str(1, "99").str(13, "77").build());
  CTLVRecordV3 row13(CTLVRecordV3::RESPONSE_ID, 32);
  handler_.fillRspRecord(*stats, &row13, 13);
  EXPECT_EQ(RecordText(row13), LunRow(77, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13}, 150, 200));
  // Only the low 16 bits of the tag count.
  CTLVRecordV3 rowHigh(CTLVRecordV3::RESPONSE_ID, 32);
  handler_.fillRspRecord(*stats, &rowHigh, 0x10000u + 13);
  EXPECT_EQ(RecordText(rowHigh), RecordText(row13));
  // The two-argument fill is the one with tag 1.
  CTLVRecordV3 row1(CTLVRecordV3::RESPONSE_ID, 32);
  handler_.fillRspRecord(*stats, &row1);
  EXPECT_EQ(RecordText(row1), LunRow(99, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13}, 150, 200));
}

TEST_F(PerformanceLunTest, AppendingARowMakesAResponseRecordAndEmptiesTheValues) {
  backend().onStats("11:5", "1,2,3,4,5,6,7,8,9,10,11,12,13");
  std::unique_ptr<CTLVRecordV3> listed(Lun("5").build());
  ASSERT_EQ(handler_.preGetRspCell(*listed), 0);
  log_.clear();
  std::unique_ptr<CTLVRecordV3> stats(Rec().str(13, "6").build());
  handler_.AppendRspPkgRecord(rsp_, *stats, 13);
  handler_.AppendRspPkgRecord(rsp_, *stats, 13);
  EXPECT_THAT(PackageText(rsp_),
              ElementsAre(kResponseId + LunRow(6, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13}, 150, 200),
                          std::string(kResponseId) + "1/3/4/6"));
  EXPECT_EQ(rsp_[0]->bucketCount(), 32u);
  EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kSigs.postGetRspCell), Leave(kSigs.postGetRspCell, true),
                                          Enter(kSigs.postGetRspCell), Leave(kSigs.postGetRspCell, true)));
}

TEST_F(PerformanceLunTest, NonStringIdCellInTheIdTagThrowsFromFillAndFromAppendRspPkgRecord) {
  std::unique_ptr<CTLVRecordV3> stats(Rec().u32(1, 7).u32(13, 8).build());
  CTLVRecordV3 row(CTLVRecordV3::RESPONSE_ID, 32);
  EXPECT_EQ(ThrownText([&] { handler_.fillRspRecord(*stats, &row, 13); }),
            "CVEM_Exception: CTLVCell isn't string type! tag equal to 13");
  EXPECT_EQ(row.cellCount(), 0u);
  EXPECT_EQ(ThrownText([&] { handler_.AppendRspPkgRecord(rsp_, *stats, 13); }),
            "CVEM_Exception: CTLVCell isn't string type! tag equal to 13");
  EXPECT_EQ(rsp_.size(), 0u);
}

// ---------------------------------------------------------------------------
// GetBatchUUID.

TEST_F(PerformanceLunTest, FiveListedLunsWithAmountThreeGiveTheFirstThreeJoinedByCommas) {
  EXPECT_EQ(BatchUUID({Lun("7"), Lun("8"), Lun("9"), Lun("10"), Lun("11"), Control(1)}, 3),
            "0 ids=7,8,9 index=9 first=7 amount=0");
  EXPECT_THAT(KitLines(log_), ElementsAreArray(IndexLines(3)));
  EXPECT_EQ(backend().callCount(), 0u);
}

TEST_F(PerformanceLunTest, AListingThatRepeatsTheFirstKeyStopsBeforeItWithoutCountingIt) {
  // The position names the repeated key.
  EXPECT_EQ(BatchUUID({Lun("1"), Lun("2"), Lun("1"), Lun("3")}, 10), "0 ids=1,2 index=1 first=1 amount=8");
  EXPECT_THAT(KitLines(log_), ElementsAreArray(IndexLines(3)));
}

TEST_F(PerformanceLunTest, ALaterBatchThatComesBackToTheFirstKeyStopsBeforeIt) {
  // firstIndex set by an earlier batch: every ID of this batch follows a comma.
  EXPECT_EQ(BatchUUID({Lun("4"), Lun("5"), Lun("3"), Lun("6")}, 10, "3", "3"), "0 ids=,4,5 index=3 first=3 amount=8");
}

TEST_F(PerformanceLunTest, AControlValueOfTwoIsAnOrdinaryLunRecord) {
  EXPECT_EQ(BatchUUID({Rec(kListingCmd).u32(4095, 2).str(1, "9"), Lun("10")}, 5),
            "-1 ids=9,10 index=10 first=9 amount=3");
  EXPECT_THAT(KitLines(log_), ElementsAreArray(IndexLines(2)));
}

TEST_F(PerformanceLunTest, ControlValueZeroStopsTheBatchAndAsksForMore) {
  EXPECT_EQ(BatchUUID({Lun("1"), Lun("2"), Control(0), Lun("3")}, 160), "-1 ids=1,2 index=2 first=1 amount=158");
}

TEST_F(PerformanceLunTest, AnEmptyControlCellReadsAsZeroAndStopsTheBatch) {
  EXPECT_EQ(BatchUUID({Lun("1"), Rec(kListingCmd).cell(4095, 3, {}).str(1, "2"), Lun("3")}, 160),
            "-1 ids=1 index=1 first=1 amount=159");
}

TEST_F(PerformanceLunTest, ControlValueOneAfterLunsEndsTheWalkAndResetsTheIndex) {
  EXPECT_EQ(BatchUUID({Lun("1"), Lun("2"), Control(1), Lun("3")}, 160),
            "-1 ids=1,2 index=" + CSnmpTableBase::INVALID_KEY + " first=1 amount=158");
  EXPECT_THAT(KitLines(log_), ElementsAreArray(IndexLines(2)));
}

TEST_F(PerformanceLunTest, ARecordWithoutCellsIsSkippedAndAUsedUpReplyAsksForMore) {
  EXPECT_EQ(BatchUUID({Rec(), Lun("1"), Rec(), Lun("2")}, 160), "-1 ids=1,2 index=2 first=1 amount=158");
  EXPECT_THAT(KitLines(log_), ElementsAreArray(IndexLines(2)));
}

TEST_F(PerformanceLunTest, NonNumericControlCellThrowsFromGetBatchUUID) {
  auto listing = Package({Lun("1"), Rec().str(4095, "1")});
  Uint32 amount = 160;
  std::string index = CSnmpTableBase::INVALID_KEY;
  std::string firstIndex = CSnmpTableBase::INVALID_KEY;
  std::string batchObjID;
  EXPECT_EQ(ThrownText([&] { handler_.GetBatchUUID(*listing, amount, index, firstIndex, batchObjID); }),
            "CVEM_Exception: CTLVCell isn't numerical type! tag equal to 4095");
  EXPECT_EQ(batchObjID, "");
  EXPECT_EQ(index, "1");
}

// ---------------------------------------------------------------------------
// QueryPerfLunData.

TEST_F(PerformanceLunTest, BatchQuerySendsOneCommandForAllLunsAndAppendsOneRowPerRecord) {
  backend().on(kLunStatsCmd, Answer{Rec().str(13, "1").str(9, "1,2,3,4,5,6,7,8,9,10,11,12,13"),
                                    Rec().str(13, "2").str(9, "10,0,5,7,1,1,1,1,1,1,1,1,1"), Control(1)});
  EXPECT_EQ(handler_.QueryPerfLunData("1,2", rsp_), 0);
  EXPECT_THAT(Requests(backend()), ElementsAre(BatchStatsRequest("1,2")));
  EXPECT_THAT(Requests(backend()),
              ElementsAre(std::string("listing=0 0xDE0222048: 11/3/4/11 12/2/4/\"1,2\\0\" 8/2/44/\"") + kItems +
                          "\\0\" 2/3/8/4"));
  std::vector<Call> calls = backend().calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_FALSE(calls[0].listing);
  EXPECT_EQ(calls[0].id(), kLunStatsCmd);
  EXPECT_EQ(calls[0].package()->size(), 1u);
  EXPECT_THAT(PackageText(rsp_),
              ElementsAre(kResponseId + LunRow(1, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13}, 150, 200),
                          kResponseId + LunRow(2, {10, 0, 5, 7, 1, 1, 1, 1, 1, 1, 1, 1, 1}, 0, 0)));
  EXPECT_THAT(KitLines(log_),
              ElementsAre(Enter(kQuerySig), Enter(kSigs.postGetRspCell), Leave(kSigs.postGetRspCell, true),
                          Enter(kSigs.postGetRspCell), Leave(kSigs.postGetRspCell, true), Leave(kQuerySig, true)));
}

TEST_F(PerformanceLunTest, AStatisticsReplyOpeningWithControlOneGivesNoRowsAndZero) {
  backend().on(kLunStatsCmd, Answer{Rec().u32(4095, 1).str(13, "1").str(9, "1,2,3,4,5,6,7,8,9,10,11,12,13"),
                                    Rec().str(13, "2").str(9, "1,2,3,4,5,6,7,8,9,10,11,12,13")});
  EXPECT_EQ(handler_.QueryPerfLunData("1,2", rsp_), 0);
  EXPECT_THAT(rsp_.records(), IsEmpty());
  EXPECT_THAT(Requests(backend()), ElementsAre(BatchStatsRequest("1,2")));
  EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kQuerySig), Leave(kQuerySig, true)));
}

TEST_F(PerformanceLunTest, StatisticsRecordsWithControlZeroOrEmptyAreRowsAndEmptyRecordsAreSkipped) {
  backend().on(kLunStatsCmd, Answer{Rec(), Rec().u32(4095, 0).str(13, "4").str(9, "1,2,3,4,5,6,7,8,9,10,11,12,13"),
                                    Rec().cell(4095, 3, {}).str(13, "5").str(9, "1,2,3,4,5,6,7,8,9,10,11,12,13"),
                                    Rec().u32(4095, 2).str(13, "6").str(9, "1,2,3")});
  EXPECT_EQ(handler_.QueryPerfLunData("4,5,6", rsp_), 0);
  EXPECT_THAT(PackageText(rsp_),
              ElementsAre(kResponseId + LunRow(4, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13}, 150, 200),
                          kResponseId + LunRow(5, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13}, 150, 200),
                          std::string(kResponseId) + "1/3/4/6 2/3/4/1 3/3/4/2 4/3/4/3"));
}

TEST_F(PerformanceLunTest, BatchQueryFailureLogsObjIdItemsAndCodeAndReturnsTheCode) {
  backend().on(kLunStatsCmd, Answer(5));
  EXPECT_EQ(handler_.QueryPerfLunData("1,2,3", rsp_), 5);
  EXPECT_THAT(rsp_.records(), IsEmpty());
  EXPECT_THAT(Requests(backend()), ElementsAre(BatchStatsRequest("1,2,3")));
  EXPECT_THAT(KitLines(log_),
              ElementsAre(Enter(kQuerySig),
                          Error("QueryPerfLunData",
                                std::string("faild to query perf data, objID:1,2,3, Item:") + kItems + ", err:5."),
                          Leave(kQuerySig, false)));
  ExpectMessagesCarrySourceLines(log_);
}

TEST_F(PerformanceLunTest, UnparsableValueListLogsAndReturnsMinusOneKeepingEarlierRows) {
  backend().on(kLunStatsCmd,
               Answer{Rec().str(13, "1").str(9, "1,2,3,4,5,6,7,8,9,10,11,12,13"), Rec().str(13, "2").str(9, "1,,3"),
                      Rec().str(13, "3").str(9, "1,2,3,4,5,6,7,8,9,10,11,12,13")});
  EXPECT_EQ(handler_.QueryPerfLunData("1,2,3", rsp_), -1);
  EXPECT_THAT(PackageText(rsp_),
              ElementsAre(kResponseId + LunRow(1, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13}, 150, 200)));
  EXPECT_THAT(KitLines(log_),
              ElementsAre(Enter(kQuerySig), Enter(kSigs.postGetRspCell), Leave(kSigs.postGetRspCell, true),
                          Error("QueryPerfLunData", "faild to parse perf data."), Leave(kQuerySig, false)));
  ExpectMessagesCarrySourceLines(log_);
}

TEST_F(PerformanceLunTest, NonNumericControlCellThrowsFromQueryPerfLunData) {
  backend().on(kLunStatsCmd, Answer{Rec().str(13, "1").str(9, "1,2,3,4,5,6,7,8,9,10,11,12,13"),
                                    Rec().str(4095, "1").str(13, "2").str(9, "1")});
  EXPECT_EQ(ThrownText([&] { handler_.QueryPerfLunData("1,2", rsp_); }),
            "CVEM_Exception: CTLVCell isn't numerical type! tag equal to 4095");
  EXPECT_EQ(rsp_.size(), 1u);
  EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kQuerySig), Enter(kSigs.postGetRspCell),
                                          Leave(kSigs.postGetRspCell, true), Leave(kQuerySig, true)));
}

TEST_F(PerformanceLunTest, NonStringLunIdInAStatisticsRecordThrowsWithoutAddingARow) {
  backend().on(kLunStatsCmd, Answer{Rec().u32(13, 1).str(9, "1,2,3,4,5,6,7,8,9,10,11,12,13")});
  EXPECT_EQ(ThrownText([&] { handler_.QueryPerfLunData("1", rsp_); }),
            "CVEM_Exception: CTLVCell isn't string type! tag equal to 13");
  EXPECT_THAT(rsp_.records(), IsEmpty());
  EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kQuerySig), Leave(kQuerySig, true)));
}

TEST_F(PerformanceLunTest, ValuesOfALunWhoseRowFailedNeverReachTheRowOfALaterLun) {
  // LUN 1: its values split, then its row throws on the numeric ID cell, so
  // postGetRspCell never runs and the values stay in the handler.
  backend().on(kLunStatsCmd, Answer{Rec().u32(13, 1).str(9, "1,2,3,4,5,6,7,8,9,10,11,12,13")});
  EXPECT_EQ(ThrownText([&] { handler_.QueryPerfLunData("1", rsp_); }),
            "CVEM_Exception: CTLVCell isn't string type! tag equal to 13");
  // LUN 2: a values text that fails to split gives no row.
  backend().on(kLunStatsCmd, Answer{Rec().str(13, "2").str(9, "1,,3")});
  EXPECT_EQ(handler_.QueryPerfLunData("2", rsp_), -1);
  EXPECT_THAT(rsp_.records(), IsEmpty());
  // LUN 3: its row carries its own values only.
  backend().on(kLunStatsCmd, Answer{Rec().str(13, "3").str(9, "30,100,40,50,31,32,33,34,35,36,37,38,39")});
  EXPECT_EQ(handler_.QueryPerfLunData("3", rsp_), 0);
  EXPECT_THAT(PackageText(rsp_),
              ElementsAre(kResponseId + LunRow(3, {30, 100, 40, 50, 31, 32, 33, 34, 35, 36, 37, 38, 39}, 40, 50)));
  EXPECT_THAT(Requests(backend()), ElementsAre(BatchStatsRequest("1"), BatchStatsRequest("2"), BatchStatsRequest("3")));
}

// ---------------------------------------------------------------------------
// GetBatchTableInfo_i.

TEST_F(PerformanceLunTest, ABatchIsQueriedWithOneCommandAndLoggedAtErrorLevel) {
  BatchStatsResponder stats;
  backend().on(kLunStatsCmd, stats);
  auto listing = Package({Lun("1"), Lun("2"), Lun("3"), Lun("4"), Control(0)});
  BatchInfoCall call;
  call.unused = 12345;
  call.amount = 3;
  handler_.m_iRetCode = 99;
  EXPECT_EQ(call.Run(handler_, *listing, rsp_), 0);
  EXPECT_EQ(call.collected, 0);
  EXPECT_EQ(handler_.m_iRetCode, 0);
  EXPECT_EQ(call.index, "3");
  EXPECT_EQ(call.firstIndex, "1");
  EXPECT_EQ(call.amount, 0u);
  EXPECT_EQ(call.unused, 12345u);
  EXPECT_THAT(Requests(backend()), ElementsAre(BatchStatsRequest("1,2,3")));
  EXPECT_THAT(PackageText(rsp_), ElementsAre(WalkRow(1), WalkRow(2), WalkRow(3)));
  std::vector<std::string> expected = {Enter(kBatchInfoSig)};
  for (const std::string& line : IndexLines(3)) expected.push_back(line);
  expected.push_back(Enter(kQuerySig));
  for (int i = 0; i < 3; ++i) {
    expected.push_back(Enter(kSigs.postGetRspCell));
    expected.push_back(Leave(kSigs.postGetRspCell, true));
  }
  expected.push_back(Leave(kQuerySig, true));
  expected.push_back(Error("GetBatchTableInfo_i", "query LUN performance. batchObjID:1,2,3, amount:0, index:3"));
  expected.push_back(Leave(kBatchInfoSig, false));
  EXPECT_THAT(KitLines(log_), ElementsAreArray(expected));
  ExpectMessagesCarrySourceLines(log_);
}

TEST_F(PerformanceLunTest, ABatchCutShortByTheListingReturnsMinusOneAfterItsRows) {
  BatchStatsResponder stats;
  backend().on(kLunStatsCmd, stats);
  auto listing = Package({Lun("5"), Lun("6"), Control(0)});
  BatchInfoCall call;
  call.collected = 0;
  EXPECT_EQ(call.Run(handler_, *listing, rsp_), -1);
  EXPECT_EQ(call.collected, -1);
  EXPECT_EQ(handler_.m_iRetCode, 0);
  EXPECT_EQ(call.amount, 158u);
  EXPECT_THAT(PackageText(rsp_), ElementsAre(WalkRow(5), WalkRow(6)));
  EXPECT_THAT(
      KitLines(log_, 4),
      ::testing::Contains(Error("GetBatchTableInfo_i", "query LUN performance. batchObjID:5,6, amount:158, index:6")));
}

TEST_F(PerformanceLunTest, AListingOpeningWithTheEndGivesAnEmptyBatchAndTheEndMessage) {
  auto listing = Package({Control(1), Lun("1")});
  BatchInfoCall call;
  EXPECT_EQ(call.Run(handler_, *listing, rsp_), 0);
  EXPECT_EQ(call.collected, 0);
  EXPECT_EQ(call.index, CSnmpTableBase::INVALID_KEY);
  EXPECT_EQ(call.firstIndex, CSnmpTableBase::INVALID_KEY);
  EXPECT_EQ(call.amount, 160u);
  EXPECT_EQ(handler_.m_iRetCode, 0);
  EXPECT_THAT(rsp_.records(), IsEmpty());
  EXPECT_EQ(backend().callCount(), 0u);
  EXPECT_THAT(KitLines(log_),
              ElementsAre(Enter(kBatchInfoSig), Debug("GetBatchTableInfo_i", "end to  get perf lun data"),
                          Leave(kBatchInfoSig, true)));
  ExpectMessagesCarrySourceLines(log_);
}

TEST_F(PerformanceLunTest, AnEmptyListingReplyGivesTheEndMessageAndAsksForMore) {
  CTLVPackage listing;
  BatchInfoCall call;
  call.index = "160";
  call.firstIndex = "1";
  EXPECT_EQ(call.Run(handler_, listing, rsp_), -1);
  EXPECT_EQ(call.collected, -1);
  EXPECT_EQ(call.index, "160");
  EXPECT_EQ(backend().callCount(), 0u);
  EXPECT_THAT(KitLines(log_),
              ElementsAre(Enter(kBatchInfoSig), Debug("GetBatchTableInfo_i", "end to  get perf lun data"),
                          Leave(kBatchInfoSig, true)));
}

TEST_F(PerformanceLunTest, BackEndRefusingTheBatchIsLoggedReturnedAndStoredAsTheResultCode) {
  backend().on(kLunStatsCmd, Answer(5));
  auto listing = Package({Lun("1"), Lun("2"), Control(0)});
  BatchInfoCall call;
  EXPECT_EQ(call.Run(handler_, *listing, rsp_), 5);
  EXPECT_EQ(handler_.m_iRetCode, 5);
  EXPECT_EQ(call.collected, -1);  // the collection result stays as collected
  EXPECT_THAT(rsp_.records(), IsEmpty());
  EXPECT_THAT(Requests(backend()), ElementsAre(BatchStatsRequest("1,2")));
  std::vector<std::string> expected = {Enter(kBatchInfoSig)};
  for (const std::string& line : IndexLines(2)) expected.push_back(line);
  expected.push_back(Enter(kQuerySig));
  expected.push_back(
      Error("QueryPerfLunData", std::string("faild to query perf data, objID:1,2, Item:") + kItems + ", err:5."));
  expected.push_back(Leave(kQuerySig, false));
  expected.push_back(Leave(kBatchInfoSig, true));
  EXPECT_THAT(KitLines(log_), ElementsAreArray(expected));
}

TEST_F(PerformanceLunTest, UnparsableBatchValuesAreStoredAsResultMinusOne) {
  backend().on(kLunStatsCmd,
               Answer{Rec().str(13, "1").str(9, "1,2,3,4,5,6,7,8,9,10,11,12,13"), Rec().str(13, "2").str(9, "oops")});
  auto listing = Package({Lun("1"), Lun("2"), Control(1)});
  BatchInfoCall call;
  EXPECT_EQ(call.Run(handler_, *listing, rsp_), -1);
  EXPECT_EQ(handler_.m_iRetCode, -1);
  EXPECT_EQ(call.collected, -1);
  EXPECT_EQ(call.index, CSnmpTableBase::INVALID_KEY);
  EXPECT_THAT(PackageText(rsp_),
              ElementsAre(kResponseId + LunRow(1, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13}, 150, 200)));
  std::vector<std::string> lines = KitLines(log_, 4);
  EXPECT_THAT(lines, ::testing::Contains(Error("QueryPerfLunData", "faild to parse perf data.")));
  EXPECT_THAT(lines, ::testing::Not(::testing::Contains(::testing::HasSubstr("query LUN performance."))));
}

// ---------------------------------------------------------------------------
// Whole walks through OnQueryTable.

TEST_F(PerformanceLunTest, AWalkOf1000LunsAnswersEachOnceInListingOrderWithSevenBatchCommands) {
  PagedListing listing(Keys(1000), 160);
  BatchStatsResponder stats;
  backend().on(kListingCmd, listing);
  backend().on(kLunStatsCmd, stats);
  CVEM_SnmpContext walk;
  CTLVPackage req;
  EXPECT_EQ(handler_.OnQueryTable(walk, req, rsp_), 0);
  EXPECT_TRUE(handler_.isWholeTable());

  std::vector<std::string> expectedRows;
  for (unsigned int n = 1; n <= 1000; ++n) expectedRows.push_back(WalkRow(n));
  EXPECT_EQ(PackageText(rsp_), expectedRows);

  // The first batch opens the walk; every later one continues it, so its IDs
  // each follow a comma.
  std::vector<std::string> expectedIds;
  std::vector<std::string> expectedRequests = {kSwitchRequest};
  for (unsigned int b = 0; b < 7; ++b) {
    const unsigned int first = 160 * b + 1;
    const unsigned int last = std::min(160 * b + 160, 1000u);
    expectedIds.push_back((b == 0 ? "" : ",") + JoinKeys(first, last));
    expectedRequests.push_back(ListingRequest(b == 0 ? "" : std::to_string(160 * b)));
    expectedRequests.push_back(BatchStatsRequest(expectedIds.back()));
  }
  EXPECT_EQ(*stats.asked, expectedIds);
  EXPECT_EQ(Requests(backend()), expectedRequests);
  EXPECT_THAT(listing.keysAsked(), ElementsAre("", "160", "320", "480", "640", "800", "960"));
  EXPECT_EQ(backend().callsTo(kLunStatsCmd).size(), 7u);
  EXPECT_THAT(backend().callsTo(kGetStatsCmd), IsEmpty());
  for (const Call& call : backend().callsTo(kListingCmd)) EXPECT_TRUE(call.listing);
  for (const Call& call : backend().callsTo(kLunStatsCmd)) EXPECT_FALSE(call.listing);

  std::vector<std::string> expectedErrors;
  for (unsigned int b = 0; b < 7; ++b) {
    const std::string index = b < 6 ? std::to_string(160 * b + 160) : CSnmpTableBase::INVALID_KEY;
    const unsigned int amount = b < 6 ? 0 : 120;
    expectedErrors.push_back("query LUN performance. batchObjID:" + expectedIds[b] +
                             ", amount:" + std::to_string(amount) + ", index:" + index);
  }
  std::vector<std::string> errors;
  for (const CVEMLogRecord& r : log_.records(VEM_LOG_ERROR)) {
    EXPECT_EQ(r.kitNo, 4u);
    EXPECT_EQ(r.code, 0x1002Eu);
    EXPECT_EQ(r.function, "GetBatchTableInfo_i");
    errors.push_back(r.message);
  }
  EXPECT_EQ(errors, expectedErrors);
  EXPECT_THAT(log_.records(VEM_LOG_WARN), IsEmpty());
  EXPECT_THAT(log_.records(VEM_LOG_DEBUG), IsEmpty());
}

TEST_F(PerformanceLunTest, AWalkWhoseThirdBatchFailsReturnsItsCodeAndKeepsTheEarlierRows) {
  PagedListing listing(Keys(1000), 160);
  BatchStatsResponder stats;
  int batches = 0;
  backend().on(kListingCmd, listing);
  backend().on(kLunStatsCmd,
               [&](const CTLVPackage& req, bool l) { return ++batches == 3 ? Answer(5) : stats(req, l); });
  CVEM_SnmpContext walk;
  CTLVPackage req;
  EXPECT_EQ(handler_.OnQueryTable(walk, req, rsp_), 5);
  EXPECT_FALSE(handler_.isWholeTable());
  EXPECT_EQ(handler_.m_iRetCode, 5);
  std::vector<std::string> expectedRows;
  for (unsigned int n = 1; n <= 320; ++n) expectedRows.push_back(WalkRow(n));
  EXPECT_EQ(PackageText(rsp_), expectedRows);
  EXPECT_EQ(Requests(backend()),
            std::vector<std::string>({kSwitchRequest, ListingRequest(""), BatchStatsRequest(JoinKeys(1, 160)),
                                      ListingRequest("160"), BatchStatsRequest("," + JoinKeys(161, 320)),
                                      ListingRequest("320"), BatchStatsRequest("," + JoinKeys(321, 480))}));
  std::vector<std::string> errors;
  for (const CVEMLogRecord& r : log_.records(VEM_LOG_ERROR)) errors.push_back(r.function + ": " + r.message);
  EXPECT_EQ(
      errors,
      std::vector<std::string>(
          {"GetBatchTableInfo_i: query LUN performance. batchObjID:" + JoinKeys(1, 160) + ", amount:0, index:160",
           "GetBatchTableInfo_i: query LUN performance. batchObjID:," + JoinKeys(161, 320) + ", amount:0, index:320",
           "QueryPerfLunData: faild to query perf data, objID:," + JoinKeys(321, 480) + ", Item:" + kItems +
               ", err:5."}));
}

TEST_F(PerformanceLunTest, AnUnreachableBackEndEndsTheWalkWithTheTransportCodeStoredAsTheResult) {
  backend().on(kListingCmd, PagedListing(Keys(3), 160));
  backend().on(kLunStatsCmd, Answer(SNMP_TRANSPORT_E_CONNECT));
  CVEM_SnmpContext walk;
  CTLVPackage req;
  EXPECT_EQ(handler_.OnQueryTable(walk, req, rsp_), SNMP_TRANSPORT_E_CONNECT);
  EXPECT_EQ(handler_.m_iRetCode, SNMP_TRANSPORT_E_CONNECT);
  EXPECT_FALSE(handler_.isWholeTable());
  EXPECT_THAT(rsp_.records(), IsEmpty());
  EXPECT_THAT(Requests(backend()), ElementsAre(kSwitchRequest, ListingRequest(""), BatchStatsRequest("1,2,3")));
  std::vector<std::string> expected = {Enter(kFillReqSig), Leave(kFillReqSig, true), Enter(kBatchInfoSig)};
  for (const std::string& line : IndexLines(3)) expected.push_back(line);
  expected.push_back(Enter(kQuerySig));
  expected.push_back(Error("QueryPerfLunData", "faild to query perf data, objID:1,2,3, Item:" + std::string(kItems) +
                                                   ", err:" + std::to_string(SNMP_TRANSPORT_E_CONNECT) + "."));
  expected.push_back(Leave(kQuerySig, false));
  expected.push_back(Leave(kBatchInfoSig, true));
  EXPECT_THAT(KitLines(log_, 4), ElementsAreArray(expected));
}

TEST_F(PerformanceLunTest, AWalkOfAnEmptyListingGivesNoRowsTheWholeTableAndTheEndMessage) {
  backend().on(kListingCmd, Answer{Control(1)});
  CVEM_SnmpContext walk;
  CTLVPackage req;
  EXPECT_EQ(handler_.OnQueryTable(walk, req, rsp_), 0);
  EXPECT_THAT(rsp_.records(), IsEmpty());
  EXPECT_TRUE(handler_.isWholeTable());
  EXPECT_THAT(Requests(backend()), ElementsAre(kSwitchRequest, ListingRequest("")));
  EXPECT_THAT(KitLines(log_, 4),
              ElementsAre(Enter(kFillReqSig), Leave(kFillReqSig, true), Enter(kBatchInfoSig),
                          Debug("GetBatchTableInfo_i", "end to  get perf lun data"), Leave(kBatchInfoSig, true)));
}

TEST_F(PerformanceLunTest, AGetNextFromAnIndexContinuesAfterItsLunInOneBatch) {
  PagedListing listing(Keys(1000), 160);
  BatchStatsResponder stats;
  backend().on(kListingCmd, listing);
  backend().on(kLunStatsCmd, stats);
  CVEM_SnmpContext next(SNMP_OP_GETNEXT, Agentpp::Oidx{500, 9}, 3);
  CTLVPackage req;
  EXPECT_EQ(handler_.OnQueryTable(next, req, rsp_), 0);
  EXPECT_FALSE(handler_.isWholeTable());
  EXPECT_THAT(PackageText(rsp_), ElementsAre(WalkRow(501), WalkRow(502), WalkRow(503)));
  EXPECT_THAT(Requests(backend()),
              ElementsAre(kSwitchRequest, ListingRequest("500"), BatchStatsRequest("501,502,503")));
}

}  // namespace
}  // namespace zerva_test
