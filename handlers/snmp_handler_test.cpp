#include "handlers/snmp_handler.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/support/fake_backend.h"
#include "tests/support/handler_test_support.h"

namespace {

using zerva_test::CellText;
using zerva_test::Rec;
using zerva_test::ThrownText;

// A scalar whose hook is scripted.
class ScriptedLeaf : public CSnmpLeafHandler {
 public:
  int result = 0;
  bool makeCell = true;
  bool throws = false;
  unsigned short tag = 7;
  int queryLeaf(const CVEM_SnmpContext&, CTLVCell*& cell) override {
    if (makeCell) cell = tlv::NewUintCell(tag, CTLVCell::TLV_TYPE_UINT, 42, 4);
    if (throws) throw std::runtime_error("hook failed");
    return result;
  }
};

struct ReleaseCount {
  static int& count() {
    static int n = 0;
    return n;
  }
  ReleaseCount() {
    count() = 0;
    g_tlvCellReleaseObserver = [](const unsigned char*, unsigned short) { ++count(); };
  }
  ~ReleaseCount() { g_tlvCellReleaseObserver = nullptr; }
};

class PlainLeaf : public CSnmpLeafHandler {};
class PlainTable : public CSnmpTableHandler {};

CVEM_SnmpContext ctx;

TEST(LeafHandlerTest, HookCellWithTag7IsAnsweredAsOneRecordWithTag0) {
  ScriptedLeaf leaf;
  CTLVPackage req, rsp;
  EXPECT_EQ(leaf.OnQueryLeaf(ctx, req, rsp), 0);
  ASSERT_EQ(rsp.size(), 1u);
  EXPECT_EQ(rsp[0]->id(), 0xFFFFFFFFFFFFFFFFULL);
  ASSERT_EQ(rsp[0]->cellCount(), 1u);
  EXPECT_EQ(CellText(*rsp[0]->cells().front()), "0/3/4/42");
  EXPECT_TRUE(rsp[0]->hasTag(0));
  EXPECT_EQ(rsp[0]->bucketCount(), 32u);
}

TEST(LeafHandlerTest, AnswerIsAppendedAfterWhatTheResponseHeld) {
  ScriptedLeaf leaf;
  CTLVPackage req, rsp;
  rsp.push_back(Rec(5).build());
  EXPECT_EQ(leaf.OnQueryLeaf(ctx, req, rsp), 0);
  ASSERT_EQ(rsp.size(), 2u);
  EXPECT_EQ(rsp[0]->id(), 5u);
}

TEST(LeafHandlerTest, HookFailureWithACellFreesItAndReturnsMinusOne) {
  ReleaseCount released;
  ScriptedLeaf leaf;
  leaf.result = 5;
  CTLVPackage req, rsp;
  EXPECT_EQ(leaf.OnQueryLeaf(ctx, req, rsp), -1);
  EXPECT_EQ(rsp.size(), 0u);
  EXPECT_EQ(ReleaseCount::count(), 1);
}

TEST(LeafHandlerTest, HookSuccessWithoutACellReturnsMinusOne) {
  ScriptedLeaf leaf;
  leaf.makeCell = false;
  CTLVPackage req, rsp;
  EXPECT_EQ(leaf.OnQueryLeaf(ctx, req, rsp), -1);
  EXPECT_EQ(rsp.size(), 0u);
}

TEST(LeafHandlerTest, HookExceptionFreesTheCellAndPropagates) {
  ReleaseCount released;
  ScriptedLeaf leaf;
  leaf.throws = true;
  CTLVPackage req, rsp;
  EXPECT_THROW(leaf.OnQueryLeaf(ctx, req, rsp), std::runtime_error);
  EXPECT_EQ(rsp.size(), 0u);
  EXPECT_EQ(ReleaseCount::count(), 1);
}

TEST(LeafHandlerTest, DefaultHookRefuses) {
  PlainLeaf leaf;
  CTLVCell* cell = reinterpret_cast<CTLVCell*>(0x10);
  EXPECT_EQ(leaf.queryLeaf(ctx, cell), -1);
  EXPECT_EQ(cell, reinterpret_cast<CTLVCell*>(0x10));
  CTLVPackage req, rsp;
  EXPECT_EQ(leaf.OnQueryLeaf(ctx, req, rsp), -1);
}

TEST(LeafHandlerTest, SetOnALeafReturnsMinusOneAndTouchesNothing) {
  PlainLeaf leaf;
  CTLVPackage req, rsp;
  EXPECT_EQ(leaf.OnSetLeaf(ctx, req, rsp), -1);
  EXPECT_EQ(rsp.size(), 0u);
}

TEST(LeafHandlerTest, TableOperationsOnALeafThrow) {
  PlainLeaf leaf;
  CTLVPackage req, rsp;
  EXPECT_EQ(ThrownText([&] { leaf.OnQueryTable(ctx, req, rsp); }),
            "CVEM_Exception: CSnmpLeafHandler can't support leaf OnQueryTable!");
  EXPECT_EQ(ThrownText([&] { leaf.OnCreateTable(ctx, req, rsp); }),
            "CVEM_Exception: CSnmpLeafHandler can't support leaf OnCreateTable!");
  EXPECT_EQ(ThrownText([&] { leaf.OnModifyTable(ctx, req, rsp); }),
            "CVEM_Exception: CSnmpLeafHandler can't support leaf OnModifyTable!");
  EXPECT_EQ(ThrownText([&] { leaf.OnDeleteTable(ctx, req, rsp); }),
            "CVEM_Exception: CSnmpLeafHandler can't support leaf OnDeleteTable!");
}

TEST(TableHandlerTest, LeafOperationsOnATableThrow) {
  PlainTable table;
  CTLVPackage req, rsp;
  EXPECT_EQ(ThrownText([&] { table.OnSetLeaf(ctx, req, rsp); }),
            "CVEM_Exception: CSnmpTableHandler can't support leaf OnSetLeaf!");
  EXPECT_EQ(ThrownText([&] { table.OnQueryLeaf(ctx, req, rsp); }),
            "CVEM_Exception: CSnmpTableHandler can't support leaf OnQueryLeaf!");
}

TEST(TableHandlerTest, UnimplementedTableOperationsReturnMinusOneWithoutThrowing) {
  PlainTable table;
  CTLVPackage req, rsp;
  EXPECT_EQ(table.OnDeleteTable(ctx, req, rsp), -1);
  EXPECT_EQ(table.OnCreateTable(ctx, req, rsp), -1);
  EXPECT_EQ(table.OnModifyTable(ctx, req, rsp), -1);
  EXPECT_EQ(table.OnQueryTable(ctx, req, rsp), -1);
  EXPECT_EQ(rsp.size(), 0u);
}

TEST(HandlerDefaultsTest, StrategyVersionAndWholeTableOnBothBases) {
  PlainLeaf leaf;
  PlainTable table;
  CSnmpHandler* handlers[] = {&leaf, &table};
  for (CSnmpHandler* h : handlers) {
    EXPECT_EQ(h->strategy(), 0);
    EXPECT_EQ(h->getSnmpOIDVersion(), 1);
    EXPECT_TRUE(h->isWholeTable());
  }
}

}  // namespace
