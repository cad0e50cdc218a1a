// What the two tables read row by row (file systems and LUNs) do alike: the
// state after construction, the switch check before a walk, and the hooks
// around one listed row (its key, the per-row statistics query, the fill and
// the clean-up after it).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "performance/snmp_zerva_performance_fileSystem_handler.h"
#include "performance/snmp_zerva_performance_lun_handler.h"
#include "tests/support/handler_test_support.h"

namespace zerva_test {
namespace {

struct FileSystemRows {
  using Handler = WithTableState<CPerformanceFileSystemHandler>;
  static constexpr char kClass[] = "CPerformanceFileSystemHandler";
  static constexpr unsigned int kObjectType = 40;
  static constexpr char kItems[] = "182,523,232,23,524,525,233,26";
  static constexpr char kValues[] = "1,2,3,4,5,6,7,8";
  static constexpr unsigned long long kListing = 0xD00002013ULL;  // the sorted listing
  // A key as the tests list it: file-system IDs are text.
  static constexpr char kKey[] = "fs-12";
  // fillRspRecord traces its entry and exit.
  static constexpr bool kFillTraced = true;
  // Column 1 of the row of id: the ID as text.
  static std::string IdCell(const std::string& id) { return StrCell(1, id); }
};

struct LunRows {
  using Handler = WithTableState<CPerformanceLunHandler>;
  static constexpr char kClass[] = "CPerformanceLunHandler";
  static constexpr unsigned int kObjectType = 11;
  static constexpr char kItems[] = "303,22,25,28,21,23,26,5,307,370,371,384,385";
  static constexpr char kValues[] = "1,2,3,4,5,6,7,8,9,10,11,12,13";
  static constexpr unsigned long long kListing = kListingCmd;
  static constexpr char kKey[] = "42";
  // fillRspRecord writes no trace line.
  static constexpr bool kFillTraced = false;
  // Column 1 of the row of id: the ID as a number.
  static std::string IdCell(const std::string& id) { return "1/3/4/" + id; }
};

template <class Rows>
class RowHandlerTest : public HandlerTest<> {
 protected:
  RowHandlerTest() { env_.setSwitch(1); }

  const TableSigs kSigs{Rows::kClass};

  // The object key of id in the statistics queries ("40:7").
  static std::string Key(const std::string& id) { return std::to_string(Rows::kObjectType) + ":" + id; }
  // A listed row as the back end lists it.
  static Rec Listed(const std::string& id) { return Rec(Rows::kListing).t6(0, Rows::kObjectType).str(1, id); }
  // The per-row statistics request of id.
  static std::string StatsRequest(const std::string& id) {
    return "listing=0 0xDE0222010: " + StrCell(0, Key(id)) + " " + StrCell(8, Rows::kItems) + " 2/3/8/4";
  }

  typename Rows::Handler handler_;
};

using RowTables = ::testing::Types<FileSystemRows, LunRows>;
class RowTableNames {
 public:
  template <class T>
  static std::string GetName(int) {
    return std::is_same<T, FileSystemRows>::value ? "FileSystem" : "Lun";
  }
};
TYPED_TEST_SUITE(RowHandlerTest, RowTables, RowTableNames);

TYPED_TEST(RowHandlerTest, ConstructionSetsBatchSize160InvalidKeyAndNoResultAndSendsNothing) {
  EXPECT_EQ(this->handler_.m_usBatchSize, 160);
  EXPECT_EQ(this->handler_.m_strCurKey, CSnmpTableBase::INVALID_KEY);
  EXPECT_EQ(this->handler_.m_strCurKey, "-1");
  EXPECT_EQ(this->handler_.m_iRetCode, 0);
  EXPECT_FALSE(this->handler_.m_bWholeTable);
  EXPECT_FALSE(this->handler_.isWholeTable());
  EXPECT_EQ(this->backend().callCount(), 0u);
  EXPECT_THAT(KitLines(this->log_), IsEmpty());
}

TYPED_TEST(RowHandlerTest, TheCheckBeforeTheWalkIsTrueOnlyWhenTheSwitchReadsOne) {
  EXPECT_TRUE(this->handler_.checkOKBeforeQueryTable(this->ctx_));
  EXPECT_THAT(Requests(this->backend()), ElementsAre(kSwitchRequest));
  this->env_.setSwitch(0);
  EXPECT_FALSE(this->handler_.checkOKBeforeQueryTable(this->ctx_));
  this->env_.setSwitch(2);
  EXPECT_FALSE(this->handler_.checkOKBeforeQueryTable(this->ctx_));
  this->backend().on(kGetSwitchCmd, Answer(5));
  EXPECT_FALSE(this->handler_.checkOKBeforeQueryTable(this->ctx_));
  EXPECT_THAT(Requests(this->backend()), ElementsAre(kSwitchRequest, kSwitchRequest, kSwitchRequest, kSwitchRequest));
  EXPECT_THAT(KitLines(this->log_), IsEmpty());
}

TYPED_TEST(RowHandlerTest, AWalkWithCollectionSwitchedOffGivesNoRowsAndSendsNoListing) {
  this->env_.setSwitch(0);
  this->backend().on(TypeParam::kListing, PagedListing({"1", "2"}, 160));
  this->backend().onStats(this->Key("1"), TypeParam::kValues);
  EXPECT_EQ(this->handler_.OnQueryTable(this->ctx_, this->req_, this->rsp_), 0);
  EXPECT_THAT(this->rsp_.records(), IsEmpty());
  EXPECT_FALSE(this->handler_.isWholeTable());
  EXPECT_THAT(Requests(this->backend()), ElementsAre(kSwitchRequest));
  EXPECT_THAT(KitLines(this->log_), IsEmpty());
}

TYPED_TEST(RowHandlerTest, TheKeyOfAListedRowIsTheTextOfItsTag1Cell) {
  std::unique_ptr<CTLVRecordV3> listed(this->Listed(TypeParam::kKey).build());
  EXPECT_EQ(this->handler_.getIndexOfRecord(*listed), TypeParam::kKey);
  EXPECT_THAT(KitLines(this->log_),
              ElementsAre(Enter(this->kSigs.indexOfRecord), Leave(this->kSigs.indexOfRecord, true)));
}

TYPED_TEST(RowHandlerTest, PerRowStatisticsFailureIsLoggedWithAnEmptyIdAndItsCodeReturned) {
  this->backend().onStatsError(this->Key("7"), 5);
  std::unique_ptr<CTLVRecordV3> listed(this->Listed("7").build());
  EXPECT_EQ(this->handler_.preGetRspCell(*listed), 5);
  EXPECT_THAT(Requests(this->backend()), ElementsAre(this->StatsRequest("7")));
  EXPECT_THAT(KitLines(this->log_),
              ElementsAre(Enter(this->kSigs.preGetRspCell), Enter(kGetBatchPerfDataSig),
                          Error("GetBatchPerfData", "faild to query perf data, UUID:" + this->Key("7") +
                                                        ", Item:" + TypeParam::kItems + ", err:5."),
                          Leave(kGetBatchPerfDataSig, false),
                          Error("preGetRspCell", "get performance data of lun  failed, errcode=5"),
                          Leave(this->kSigs.preGetRspCell, false)));
  ExpectMessagesCarrySourceLines(this->log_);
  // Nothing was fetched: a fill now gives the ID column only.
  CTLVRecordV3 row(CTLVRecordV3::RESPONSE_ID, 32);
  this->handler_.fillRspRecord(*listed, &row);
  EXPECT_EQ(RecordText(row), TypeParam::IdCell("7"));
}

TYPED_TEST(RowHandlerTest, PostGetRspCellEmptiesTheValuesAndTraces) {
  this->backend().onStats(this->Key("5"), TypeParam::kValues);
  std::unique_ptr<CTLVRecordV3> listed(this->Listed("5").build());
  ASSERT_EQ(this->handler_.preGetRspCell(*listed), 0);
  this->log_.clear();
  this->handler_.postGetRspCell(*listed);
  EXPECT_THAT(KitLines(this->log_),
              ElementsAre(Enter(this->kSigs.postGetRspCell), Leave(this->kSigs.postGetRspCell, true)));
  CTLVRecordV3 row(CTLVRecordV3::RESPONSE_ID, 32);
  this->handler_.fillRspRecord(*listed, &row);
  EXPECT_EQ(RecordText(row), TypeParam::IdCell("5"));
}

TYPED_TEST(RowHandlerTest, NothingFetchedGivesTheIdColumnAlone) {
  std::unique_ptr<CTLVRecordV3> listed(this->Listed("4").build());
  CTLVRecordV3 row(CTLVRecordV3::RESPONSE_ID, 32);
  this->handler_.fillRspRecord(*listed, &row);
  EXPECT_EQ(RecordText(row), TypeParam::IdCell("4"));
}

TYPED_TEST(RowHandlerTest, NonStringIdCellThrowsFromGetIndexOfRecord) {
  std::unique_ptr<CTLVRecordV3> listed(Rec().t6(0, TypeParam::kObjectType).u32(1, 12).build());
  EXPECT_EQ(ThrownText([&] { this->handler_.getIndexOfRecord(*listed); }),
            "CVEM_Exception: CTLVCell isn't string type! tag equal to 1");
  EXPECT_THAT(KitLines(this->log_),
              ElementsAre(Enter(this->kSigs.indexOfRecord), Leave(this->kSigs.indexOfRecord, true)));
}

TYPED_TEST(RowHandlerTest, NonStringIdCellThrowsFromPreGetRspCellBeforeAnyQuery) {
  // An 8-byte type-6 ID and an 8-byte unsigned one.
  std::unique_ptr<CTLVRecordV3> type6(Rec().t6(0, TypeParam::kObjectType).t6(1, 12).build());
  std::unique_ptr<CTLVRecordV3> unsigned8(Rec().t6(0, TypeParam::kObjectType).u64(1, 7).build());
  for (const CTLVRecordV3* listed : {type6.get(), unsigned8.get()}) {
    EXPECT_EQ(ThrownText([&] { this->handler_.preGetRspCell(*listed); }),
              "CVEM_Exception: CTLVCell isn't string type! tag equal to 1");
  }
  EXPECT_EQ(this->backend().callCount(), 0u);
  EXPECT_THAT(KitLines(this->log_),
              ElementsAre(Enter(this->kSigs.preGetRspCell), Leave(this->kSigs.preGetRspCell, true),
                          Enter(this->kSigs.preGetRspCell), Leave(this->kSigs.preGetRspCell, true)));
}

TYPED_TEST(RowHandlerTest, NonStringIdCellThrowsFromFillRspRecordAndTheRowStaysEmpty) {
  std::unique_ptr<CTLVRecordV3> listed(Rec().t6(0, TypeParam::kObjectType).u32(1, 12).build());
  CTLVRecordV3 row(CTLVRecordV3::RESPONSE_ID, 32);
  EXPECT_EQ(ThrownText([&] { this->handler_.fillRspRecord(*listed, &row); }),
            "CVEM_Exception: CTLVCell isn't string type! tag equal to 1");
  EXPECT_EQ(row.cellCount(), 0u);
  const std::vector<std::string> traces = {Enter(this->kSigs.fillRspRecord), Leave(this->kSigs.fillRspRecord, true)};
  EXPECT_EQ(KitLines(this->log_), TypeParam::kFillTraced ? traces : std::vector<std::string>());
}

}  // namespace
}  // namespace zerva_test
