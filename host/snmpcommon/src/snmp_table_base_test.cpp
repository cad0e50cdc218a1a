#include "snmpcommon/snmp_table_base.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "snmpcommon/snmp_comm_util.h"
#include "tests/support/fake_backend.h"

namespace {

using ::testing::ElementsAre;
using zerva_test::Answer;
using zerva_test::BackendFixture;
using zerva_test::PagedListing;
using zerva_test::Rec;

// A table whose rows are the listed keys, recording the hook calls.
class KeyTable : public CSnmpTableBase {
 public:
  std::vector<std::string> hookCalls;
  bool ready = true;
  std::map<std::string, int> refuse;  // preGetRspCell result by key

  void fillReqRecord(CTLVRecordV3* record) override {
    record->append(tlv::NewUintCell(0, CTLVCell::TLV_TYPE_UINT64, 11, 8));
    if (!m_strCurKey.empty()) record->append(tlv::NewStringCell(1, m_strCurKey));
  }
  std::string getIndexOfRecord(const CTLVRecordV3& record) override { return record[1]->toString(); }
  std::string getMibKey(const Agentpp::Oidx& index) override { return UintToStr(index[0]); }
  int preGetRspCell(const CTLVRecordV3& record) override {
    hookCalls.push_back("pre " + record[1]->toString());
    auto it = refuse.find(record[1]->toString());
    return it == refuse.end() ? 0 : it->second;
  }
  void fillRspRecord(const CTLVRecordV3& in, CTLVRecordV3* out) override {
    hookCalls.push_back("fill " + in[1]->toString());
    out->append(tlv::NewStringCell(1, in[1]->toString()));
  }
  void postGetRspCell(const CTLVRecordV3& record) override { hookCalls.push_back("post " + record[1]->toString()); }
  bool checkOKBeforeQueryTable(const CVEM_SnmpContext&) override { return ready; }
  unsigned short batchSize() const { return m_usBatchSize; }
  const std::string& currentKey() const { return m_strCurKey; }
};

std::vector<std::string> Keys(int n, int first = 1) {
  std::vector<std::string> keys;
  for (int i = 0; i < n; ++i) keys.push_back(std::to_string(first + i));
  return keys;
}

std::vector<std::string> RowKeys(const CTLVPackage& rsp) {
  std::vector<std::string> out;
  for (const CTLVRecordV3* r : rsp.records()) out.push_back((*r)[1]->toString());
  return out;
}

struct TableBaseTest : ::testing::Test {
  BackendFixture fixture;
  KeyTable table;
  CTLVPackage req, rsp;
  CVEM_SnmpContext walk;
};

TEST_F(TableBaseTest, KeysAndDefaults) {
  EXPECT_EQ(CSnmpTableBase::INVALID_KEY, "-1");
  EXPECT_EQ(CSnmpTableBase::DEFAULT_STRING_KEY, "");
  EXPECT_EQ(table.batchSize(), 160);
  EXPECT_EQ(table.currentKey(), CSnmpTableBase::INVALID_KEY);
  EXPECT_FALSE(table.isWholeTable());
}

TEST_F(TableBaseTest, AWalkOf1000ObjectsAnswersEachOnceInListingOrder) {
  PagedListing listing(Keys(1000), 160);
  fixture.backend().on(zerva_test::kListingCmd, listing);
  EXPECT_EQ(table.OnQueryTable(walk, req, rsp), 0);
  EXPECT_EQ(RowKeys(rsp), Keys(1000));
  EXPECT_TRUE(table.isWholeTable());
  // One listing per batch of 160: the last one ends with the control record.
  EXPECT_THAT(listing.keysAsked(), ElementsAre("", "160", "320", "480", "640", "800", "960"));
  for (const auto& call : fixture.backend().calls()) EXPECT_TRUE(call.listing);
}

TEST_F(TableBaseTest, TheListingRequestCarriesTheHandlersCellsAndNoKeyAtTheStart) {
  fixture.backend().on(zerva_test::kListingCmd, PagedListing(Keys(3), 160));
  ASSERT_EQ(table.OnQueryTable(walk, req, rsp), 0);
  auto calls = fixture.backend().calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_THAT(zerva_test::PackageText(*calls[0].package()), ElementsAre("0xD0000C000: 0/6/8/11"));
}

TEST_F(TableBaseTest, HooksRunPreFillPostForEachObject) {
  fixture.backend().on(zerva_test::kListingCmd, PagedListing(Keys(2), 160));
  ASSERT_EQ(table.OnQueryTable(walk, req, rsp), 0);
  EXPECT_THAT(table.hookCalls, ElementsAre("pre 1", "fill 1", "post 1", "pre 2", "fill 2", "post 2"));
  ASSERT_EQ(rsp.size(), 2u);
  EXPECT_EQ(rsp[0]->id(), 0xFFFFFFFFFFFFFFFFULL);
}

TEST_F(TableBaseTest, AnEmptyListingGivesAnEmptyTable) {
  fixture.backend().on(zerva_test::kListingCmd, Answer{});
  EXPECT_EQ(table.OnQueryTable(walk, req, rsp), 0);
  EXPECT_EQ(rsp.size(), 0u);
  EXPECT_TRUE(table.isWholeTable());
  EXPECT_EQ(fixture.backend().callCount(), 1u);
}

TEST_F(TableBaseTest, AListingOfOnlyAControlRecordGivesAnEmptyTable) {
  fixture.backend().on(zerva_test::kListingCmd, Answer{Rec(zerva_test::kListingCmd).u32(4095, 1)});
  EXPECT_EQ(table.OnQueryTable(walk, req, rsp), 0);
  EXPECT_EQ(rsp.size(), 0u);
  EXPECT_TRUE(table.isWholeTable());
  EXPECT_EQ(fixture.backend().callCount(), 1u);
}

TEST_F(TableBaseTest, AListingThatWrapsBackToTheFirstKeyStops) {
  PagedListing listing(Keys(10), 4, /*wrap=*/true);
  fixture.backend().on(zerva_test::kListingCmd, listing);
  EXPECT_EQ(table.OnQueryTable(walk, req, rsp), 0);
  EXPECT_EQ(RowKeys(rsp), Keys(10));
  EXPECT_TRUE(table.isWholeTable());
  EXPECT_THAT(listing.keysAsked(), ElementsAre("", "4", "8"));
}

TEST_F(TableBaseTest, GetNextFromAnIndexContinuesAfterItsKey) {
  PagedListing listing(Keys(1000), 160);
  fixture.backend().on(zerva_test::kListingCmd, listing);
  CVEM_SnmpContext next(SNMP_OP_GETNEXT, Agentpp::Oidx{500}, 3);
  EXPECT_EQ(table.OnQueryTable(next, req, rsp), 0);
  EXPECT_THAT(RowKeys(rsp), ElementsAre("501", "502", "503"));
  EXPECT_FALSE(table.isWholeTable());
  EXPECT_THAT(listing.keysAsked(), ElementsAre("500"));
  EXPECT_THAT(zerva_test::PackageText(*fixture.backend().calls()[0].package()),
              ElementsAre("0xD0000C000: 0/6/8/11 1/2/4/\"500\\0\""));
}

TEST_F(TableBaseTest, GetNextFromTheLastKeyGivesNoRowsAndIsNotTheWholeTable) {
  fixture.backend().on(zerva_test::kListingCmd, PagedListing(Keys(5), 160));
  CVEM_SnmpContext next(SNMP_OP_GETNEXT, Agentpp::Oidx{5}, 0);
  EXPECT_EQ(table.OnQueryTable(next, req, rsp), 0);
  EXPECT_EQ(rsp.size(), 0u);
  EXPECT_FALSE(table.isWholeTable());
}

TEST_F(TableBaseTest, RowsWantedBoundTheBatchAndTheWalk) {
  PagedListing listing(Keys(1000), 160);
  fixture.backend().on(zerva_test::kListingCmd, listing);
  CVEM_SnmpContext bulk(SNMP_OP_GETBULK, Agentpp::Oidx(), 200);
  EXPECT_EQ(table.OnQueryTable(bulk, req, rsp), 0);
  EXPECT_EQ(RowKeys(rsp), Keys(200));
  EXPECT_FALSE(table.isWholeTable());
  EXPECT_THAT(listing.keysAsked(), ElementsAre("", "160"));
}

TEST_F(TableBaseTest, NotReadyGivesNoRowsAndAsksNothing) {
  table.ready = false;
  EXPECT_EQ(table.OnQueryTable(walk, req, rsp), 0);
  EXPECT_EQ(rsp.size(), 0u);
  EXPECT_EQ(fixture.backend().callCount(), 0u);
  EXPECT_FALSE(table.isWholeTable());
}

TEST_F(TableBaseTest, AFailingListingEndsTheWalkWithItsCodeAndKeepsTheRows) {
  PagedListing listing(Keys(400), 160);
  int calls = 0;
  fixture.backend().on(zerva_test::kListingCmd,
                       [&](const CTLVPackage& r, bool l) { return ++calls == 2 ? Answer(1077) : listing(r, l); });
  EXPECT_EQ(table.OnQueryTable(walk, req, rsp), 1077);
  EXPECT_EQ(rsp.size(), 160u);
  EXPECT_FALSE(table.isWholeTable());
}

TEST_F(TableBaseTest, AnObjectTheBackEndRefusesLosesOnlyItsRow) {
  fixture.backend().on(zerva_test::kListingCmd, PagedListing(Keys(3), 160));
  table.refuse["2"] = 1077;
  EXPECT_EQ(table.OnQueryTable(walk, req, rsp), 0);
  EXPECT_THAT(RowKeys(rsp), ElementsAre("1", "3"));
  EXPECT_THAT(table.hookCalls,
              ElementsAre("pre 1", "fill 1", "post 1", "pre 2", "post 2", "pre 3", "fill 3", "post 3"));
}

TEST_F(TableBaseTest, LosingTheBackEndMidWalkEndsItWithTheTransportCode) {
  fixture.backend().on(zerva_test::kListingCmd, PagedListing(Keys(3), 160));
  table.refuse["2"] = SNMP_TRANSPORT_E_TIMEOUT;
  EXPECT_EQ(table.OnQueryTable(walk, req, rsp), SNMP_TRANSPORT_E_TIMEOUT);
  EXPECT_THAT(RowKeys(rsp), ElementsAre("1"));
}

TEST_F(TableBaseTest, ABackEndThatIgnoresTheKeyCannotMakeTheWalkLoop) {
  // Always the same first page and "more follows".
  fixture.backend().on(zerva_test::kListingCmd,
                       Answer{Rec().t6(0, 11).str(1, "1"), Rec().t6(0, 11).str(1, "2"), Rec().u32(4095, 0)});
  EXPECT_EQ(table.OnQueryTable(walk, req, rsp), 0);
  // "1" again is the walk's first key: the second listing stops there.
  EXPECT_THAT(RowKeys(rsp), ElementsAre("1", "2"));
  EXPECT_EQ(fixture.backend().callCount(), 2u);
}

TEST_F(TableBaseTest, AReplyThatBringsNothingNewEndsTheWalk) {
  int calls = 0;
  fixture.backend().on(zerva_test::kListingCmd, [&](const CTLVPackage&, bool) {
    return ++calls == 1 ? Answer{Rec().t6(0, 11).str(1, "1"), Rec().u32(4095, 0)} : Answer{Rec().u32(4095, 0)};
  });
  EXPECT_EQ(table.OnQueryTable(walk, req, rsp), 0);
  EXPECT_THAT(RowKeys(rsp), ElementsAre("1"));
  EXPECT_EQ(calls, 2);
  EXPECT_FALSE(table.isWholeTable());
}

TEST_F(TableBaseTest, EmptyRecordsAndRecordsWithoutKeyAreSkipped) {
  fixture.backend().on(zerva_test::kListingCmd,
                       Answer{Rec(), Rec().t6(0, 11), Rec().t6(0, 11).str(1, "7"), Rec().u32(4095, 1)});
  EXPECT_EQ(table.OnQueryTable(walk, req, rsp), 0);
  EXPECT_THAT(RowKeys(rsp), ElementsAre("7"));
}

TEST_F(TableBaseTest, AControlValueOfTwoIsAnOrdinaryRecord) {
  fixture.backend().on(zerva_test::kListingCmd, Answer{Rec().u32(4095, 2).str(1, "9"), Rec().u32(4095, 1)});
  EXPECT_EQ(table.OnQueryTable(walk, req, rsp), 0);
  EXPECT_THAT(RowKeys(rsp), ElementsAre("9"));
}

TEST_F(TableBaseTest, ANonNumericControlCellThrows) {
  fixture.backend().on(zerva_test::kListingCmd, Answer{Rec().str(4095, "1")});
  try {
    table.OnQueryTable(walk, req, rsp);
    FAIL() << "no exception";
  } catch (const CVEM_Exception& e) {
    EXPECT_STREQ(e.what(), "CVEM_Exception: CTLVCell isn't numerical type! tag equal to 4095");
  }
}

TEST_F(TableBaseTest, ControlValueReadsTheControlCell) {
  std::unique_ptr<CTLVRecordV3> none(Rec().str(1, "x").build());
  std::unique_ptr<CTLVRecordV3> end(Rec().u32(4095, 1).build());
  std::unique_ptr<CTLVRecordV3> empty(Rec().cell(4095, 3, {}).build());
  EXPECT_EQ(CSnmpTableBase::ControlValue(*none), -1);
  EXPECT_EQ(CSnmpTableBase::ControlValue(*end), 1);
  EXPECT_EQ(CSnmpTableBase::ControlValue(*empty), 0);
}

}  // namespace
