#include "performance/snmp_zerva_performance_fileSystem_handler.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/handler_test_support.h"

namespace zerva_test {
namespace {

const TableSigs kSigs("CPerformanceFileSystemHandler");

const unsigned long long kPlainListing = 55834574848ULL;   // 0xD00000000
const unsigned long long kSortedListing = 55834583059ULL;  // 0xD00002013
static_assert(kPlainListing == 0xD00000000ULL, "plain file-system listing code");
static_assert(kSortedListing == 0xD00002013ULL, "sorted file-system listing code");
static_assert(kGetStatsCmd == 0xDE0222010ULL, "per-row statistics command code");

const char kItems[] = "182,523,232,23,524,525,233,26";
// The sort cell: {"sortby":"1 ASC"} with its terminating NUL.
const char kSortCell[] = "15/2/19/\"{\"sortby\":\"1 ASC\"}\\0\"";

// The handler with the base's state in reach.
using TestFileSystemHandler = WithTableState<CPerformanceFileSystemHandler>;

// The per-row statistics request of file system id.
std::string StatsRequest(const std::string& id) {
  return "listing=0 0xDE0222010: " + StrCell(0, "40:" + id) + " " + StrCell(8, kItems) + " 2/3/8/4";
}

// The sorted listing request, with the key cell when key is not empty.
std::string SortedListingRequest(const std::string& key) {
  return std::string("listing=1 0xD00002013: 0/6/8/40 ") + (key.empty() ? "" : StrCell(1, key) + " ") + kSortCell;
}

// A listed file system.
Rec FileSystem(const std::string& id) { return Rec(kSortedListing).t6(0, 40).str(1, id); }

// The eight statistic values of file system n: n * 100 + i.
std::string Values(unsigned int n) {
  std::string out;
  for (unsigned int i = 0; i < 8; ++i) out += (i ? "," : "") + std::to_string(n * 100 + i);
  return out;
}

// The row of file system id with the values of Values(n).
std::string Row(const std::string& id, unsigned int n) {
  std::string out = StrCell(1, id);
  for (unsigned int i = 0; i < 8; ++i) out += " " + std::to_string(i + 2) + "/3/4/" + std::to_string(n * 100 + i);
  return out;
}

// The kit-4 lines of one row of the per-row path.
std::vector<std::string> RowLines() {
  return {Enter(kSigs.indexOfRecord),       Leave(kSigs.indexOfRecord, true),  Enter(kSigs.preGetRspCell),
          Enter(kGetBatchPerfDataSig),      Leave(kGetBatchPerfDataSig, true), Leave(kSigs.preGetRspCell, true),
          Enter(kSigs.fillRspRecord),       Leave(kSigs.fillRspRecord, true),  Enter(kSigs.postGetRspCell),
          Leave(kSigs.postGetRspCell, true)};
}

class PerformanceFileSystemTest : public HandlerTest<> {
 protected:
  PerformanceFileSystemTest() { env_.setSwitch(1); }

  // preGetRspCell for a listed file system whose statistics answer is
  // values, then fillRspRecord into a new row; the row's cells as text.
  std::string RowFromValues(const std::string& id, const std::string& values) {
    return FilledRowText(handler_, backend(), "40:" + id, values, FileSystem(id));
  }

  // fillReqRecord on a new record with that identifier: "0x<id>: <cells>".
  std::string FilledRequest(unsigned long long id) {
    CTLVRecordV3 record(id, 32);
    handler_.fillReqRecord(&record);
    char text[32];
    snprintf(text, sizeof text, "0x%llX: ", record.id());
    return text + RecordText(record);
  }

  TestFileSystemHandler handler_;
};

// ---------------------------------------------------------------------------
// Construction and the switch check.

// ---------------------------------------------------------------------------
// getMibKey and fillReqRecord.

TEST_F(PerformanceFileSystemTest, AnyIndexEmptyOrNotGivesTheDefaultStringKey) {
  EXPECT_EQ(handler_.getMibKey(Agentpp::Oidx()), CSnmpTableBase::DEFAULT_STRING_KEY);
  EXPECT_EQ(handler_.getMibKey(Agentpp::Oidx{12}), CSnmpTableBase::DEFAULT_STRING_KEY);
  EXPECT_EQ(handler_.getMibKey(Agentpp::Oidx{1, 2, 3}), CSnmpTableBase::DEFAULT_STRING_KEY);
  EXPECT_EQ(handler_.getMibKey(Agentpp::Oidx{4294967295u}), "");
  EXPECT_EQ(backend().callCount(), 0u);
  EXPECT_THAT(KitLines(log_), IsEmpty());
}

TEST_F(PerformanceFileSystemTest, PlainListingKeepsItsCodeAndOtherCodesBecomeTheSortedListingWithTheSortCellLast) {
  handler_.m_strCurKey = CSnmpTableBase::DEFAULT_STRING_KEY;
  EXPECT_EQ(FilledRequest(kPlainListing), "0xD00000000: 0/6/8/40");
  EXPECT_EQ(FilledRequest(CSnmpTableBase::LISTING_CMD), std::string("0xD00002013: 0/6/8/40 ") + kSortCell);
  EXPECT_EQ(FilledRequest(0), std::string("0xD00002013: 0/6/8/40 ") + kSortCell);
  EXPECT_EQ(FilledRequest(kSortedListing), std::string("0xD00002013: 0/6/8/40 ") + kSortCell);

  handler_.m_strCurKey = "12";
  EXPECT_EQ(FilledRequest(kPlainListing), "0xD00000000: 0/6/8/40 1/2/3/\"12\\0\"");
  EXPECT_EQ(FilledRequest(CSnmpTableBase::LISTING_CMD),
            std::string("0xD00002013: 0/6/8/40 1/2/3/\"12\\0\" ") + kSortCell);

  // fillReqRecord opens no trace guard.
  EXPECT_THAT(KitLines(log_), IsEmpty());
  EXPECT_EQ(backend().callCount(), 0u);
}

TEST_F(PerformanceFileSystemTest, TheInitialKeyIsSentAsAKeyCell) {
  EXPECT_EQ(FilledRequest(CSnmpTableBase::LISTING_CMD),
            std::string("0xD00002013: 0/6/8/40 1/2/3/\"-1\\0\" ") + kSortCell);
}

// ---------------------------------------------------------------------------
// getIndexOfRecord, preGetRspCell, fillRspRecord, postGetRspCell.

TEST_F(PerformanceFileSystemTest, PerRowFetchAsksForObjectKey40ColonIdWithTheEightItems) {
  EXPECT_EQ(RowFromValues("7", Values(1)), Row("7", 1));
  EXPECT_THAT(Requests(backend()), ElementsAre(StatsRequest("7")));
  EXPECT_FALSE(backend().calls()[0].listing);
  EXPECT_THAT(KitLines(log_), ElementsAre(Enter(kSigs.preGetRspCell), Enter(kGetBatchPerfDataSig),
                                          Leave(kGetBatchPerfDataSig, true), Leave(kSigs.preGetRspCell, true),
                                          Enter(kSigs.fillRspRecord), Leave(kSigs.fillRspRecord, true)));
}

TEST_F(PerformanceFileSystemTest, AFileSystemIdIsPublishedAsTextInColumnOne) {
  EXPECT_EQ(RowFromValues("12", "1,2,3,4,5,6,7,8"),
            "1/2/3/\"12\\0\" 2/3/4/1 3/3/4/2 4/3/4/3 5/3/4/4 6/3/4/5 7/3/4/6 8/3/4/7 9/3/4/8");
  EXPECT_EQ(RowFromValues("fs_a", "1,2,3,4,5,6,7,8"),
            "1/2/5/\"fs_a\\0\" 2/3/4/1 3/3/4/2 4/3/4/3 5/3/4/4 6/3/4/5 7/3/4/6 8/3/4/7 9/3/4/8");
}

TEST_F(PerformanceFileSystemTest, ColumnNineCarriesTheWriteBandwidthItemUnchangedWithoutAPercentage) {
  // With the LUN table's rule column 9 would be 2 * 100 / 3 = 66.
  EXPECT_EQ(RowFromValues("3", "10,3,2,1,5,6,7,99"),
            "1/2/2/\"3\\0\" 2/3/4/10 3/3/4/3 4/3/4/2 5/3/4/1 6/3/4/5 7/3/4/6 8/3/4/7 9/3/4/99");
  EXPECT_EQ(RowFromValues("4", "0,0,50000000,0,0,0,0,4294967295"),
            "1/2/2/\"4\\0\" 2/3/4/0 3/3/4/0 4/3/4/50000000 5/3/4/0 6/3/4/0 7/3/4/0 8/3/4/0 9/3/4/4294967295");
}

TEST_F(PerformanceFileSystemTest, PerRowFetchEmptiesTheValuesOfTheRowBefore) {
  backend().onStats("40:1", Values(1));
  std::unique_ptr<CTLVRecordV3> first(FileSystem("1").build());
  ASSERT_EQ(handler_.preGetRspCell(*first), 0);
  EXPECT_EQ(RowFromValues("2", Values(2)), Row("2", 2));
  // A failed fetch leaves nothing behind either.
  backend().onStatsError("40:3", 5);
  std::unique_ptr<CTLVRecordV3> third(FileSystem("3").build());
  EXPECT_EQ(handler_.preGetRspCell(*third), 5);
  CTLVRecordV3 row(CTLVRecordV3::RESPONSE_ID, 32);
  handler_.fillRspRecord(*third, &row);
  EXPECT_EQ(RecordText(row), "1/2/2/\"3\\0\"");
}

TEST_F(PerformanceFileSystemTest, ShortValueListGivesOnlyTheColumnsThatHaveValues) {
  EXPECT_EQ(RowFromValues("1", "10,20,30"), "1/2/2/\"1\\0\" 2/3/4/10 3/3/4/20 4/3/4/30");
  EXPECT_EQ(RowFromValues("2", "7"), "1/2/2/\"2\\0\" 2/3/4/7");
  // More values than items: the first eight.
  EXPECT_EQ(RowFromValues("3", "1,2,3,4,5,6,7,8,9,10"),
            "1/2/2/\"3\\0\" 2/3/4/1 3/3/4/2 4/3/4/3 5/3/4/4 6/3/4/5 7/3/4/6 8/3/4/7 9/3/4/8");
}

// ---------------------------------------------------------------------------
// Whole walks through OnQueryTable (per-row path).

TEST_F(PerformanceFileSystemTest, AWalkOfFiveFileSystemsListsSortedAndQueriesEachOnce) {
  PagedListing listing({"1", "2", "3", "4", "5"}, 160);
  backend().on(kSortedListing, listing);
  for (unsigned int n = 1; n <= 5; ++n) backend().onStats("40:" + std::to_string(n), Values(n));
  CVEM_SnmpContext walk;
  CTLVPackage req;
  EXPECT_EQ(handler_.OnQueryTable(walk, req, rsp_), 0);
  EXPECT_TRUE(handler_.isWholeTable());
  EXPECT_THAT(PackageText(rsp_),
              ElementsAre(kResponseId + Row("1", 1), kResponseId + Row("2", 2), kResponseId + Row("3", 3),
                          kResponseId + Row("4", 4), kResponseId + Row("5", 5)));
  EXPECT_THAT(Requests(backend()),
              ElementsAre(kSwitchRequest, SortedListingRequest(""), StatsRequest("1"), StatsRequest("2"),
                          StatsRequest("3"), StatsRequest("4"), StatsRequest("5")));
  EXPECT_THAT(listing.keysAsked(), ElementsAre(""));
  EXPECT_EQ(backend().callsTo(kGetStatsCmd).size(), 5u);
  EXPECT_THAT(backend().callsTo(kListingCmd), IsEmpty());
  EXPECT_THAT(backend().callsTo(kPlainListing), IsEmpty());
  for (const Call& call : backend().callsTo(kSortedListing)) EXPECT_TRUE(call.listing);
  for (const Call& call : backend().callsTo(kGetStatsCmd)) EXPECT_FALSE(call.listing);

  std::vector<std::string> expected;
  for (int i = 0; i < 5; ++i) {
    for (const std::string& line : RowLines()) expected.push_back(line);
  }
  EXPECT_THAT(KitLines(log_, 4), ElementsAreArray(expected));
}

TEST_F(PerformanceFileSystemTest, AWalkOverTwoPagesContinuesAfterTheLastKeyWithTheSortCell) {
  std::vector<std::string> keys;
  for (unsigned int n = 1; n <= 170; ++n) keys.push_back(std::to_string(n));
  PagedListing listing(keys, 160);
  backend().on(kSortedListing, listing);
  for (unsigned int n = 1; n <= 170; ++n) backend().onStats("40:" + std::to_string(n), Values(n));
  CVEM_SnmpContext walk;
  CTLVPackage req;
  EXPECT_EQ(handler_.OnQueryTable(walk, req, rsp_), 0);
  EXPECT_TRUE(handler_.isWholeTable());
  std::vector<std::string> rows;
  for (unsigned int n = 1; n <= 170; ++n) rows.push_back(kResponseId + Row(std::to_string(n), n));
  EXPECT_EQ(PackageText(rsp_), rows);
  EXPECT_THAT(listing.keysAsked(), ElementsAre("", "160"));
  std::vector<Call> listings = backend().callsTo(kSortedListing);
  ASSERT_EQ(listings.size(), 2u);
  EXPECT_THAT(PackageText(*listings[1].package()),
              ElementsAre(std::string("0xD00002013: 0/6/8/40 1/2/4/\"160\\0\" ") + kSortCell));
  EXPECT_EQ(backend().callsTo(kGetStatsCmd).size(), 170u);
}

TEST_F(PerformanceFileSystemTest, AWalkLosesTheRowOfAFileSystemWhoseStatisticsFail) {
  backend().on(kSortedListing, PagedListing({"1", "2", "3"}, 160));
  backend().onStats("40:1", Values(1));
  backend().onStatsError("40:2", 5);
  backend().onStats("40:3", Values(3));
  CVEM_SnmpContext walk;
  CTLVPackage req;
  EXPECT_EQ(handler_.OnQueryTable(walk, req, rsp_), 0);
  EXPECT_THAT(PackageText(rsp_), ElementsAre(kResponseId + Row("1", 1), kResponseId + Row("3", 3)));
  EXPECT_THAT(Requests(backend()), ElementsAre(kSwitchRequest, SortedListingRequest(""), StatsRequest("1"),
                                               StatsRequest("2"), StatsRequest("3")));
  std::vector<std::string> errors;
  for (const CVEMLogRecord& r : log_.records(VEM_LOG_ERROR)) errors.push_back(r.function + ": " + r.message);
  EXPECT_THAT(errors, ElementsAre(std::string("GetBatchPerfData: faild to query perf data, UUID:40:2, Item:") + kItems +
                                      ", err:5.",
                                  "preGetRspCell: get performance data of lun  failed, errcode=5"));
}

TEST_F(PerformanceFileSystemTest, AGetNextWalksFromTheFirstFileSystemWhateverTheIndex) {
  PagedListing listing({"1", "2", "3"}, 160);
  backend().on(kSortedListing, listing);
  for (unsigned int n = 1; n <= 3; ++n) backend().onStats("40:" + std::to_string(n), Values(n));
  CVEM_SnmpContext next(SNMP_OP_GETNEXT, Agentpp::Oidx{2}, 0);
  CTLVPackage req;
  EXPECT_EQ(handler_.OnQueryTable(next, req, rsp_), 0);
  EXPECT_THAT(listing.keysAsked(), ElementsAre(""));
  EXPECT_THAT(PackageText(rsp_),
              ElementsAre(kResponseId + Row("1", 1), kResponseId + Row("2", 2), kResponseId + Row("3", 3)));
  EXPECT_TRUE(handler_.isWholeTable());
}

}  // namespace
}  // namespace zerva_test
