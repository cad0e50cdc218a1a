#include "diag/vem_debug_kit_guard.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/support/kit_log_capture.h"

using ::testing::ElementsAre;
using zerva_test::KitLogCapture;

namespace {

TEST(DebugKitGuardTest, TracesEnterAndLeaveOkOnTheGivenKit) {
  KitLogCapture log;
  { CVEMDebugKitGuard guard(4, "int Foo::bar()"); }
  auto records = log.records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].kitNo, 4u);
  EXPECT_EQ(records[0].level, VEM_LOG_TRACE);
  EXPECT_EQ(records[0].message, "enter int Foo::bar()...");
  EXPECT_EQ(records[1].kitNo, 4u);
  EXPECT_EQ(records[1].message, "leave int Foo::bar(): OK");
}

TEST(DebugKitGuardTest, OnlyDebugLeavesTheClosingLineOk) {
  KitLogCapture log;
  {
    CVEMDebugKitGuard guard(4, "f");
    guard.debug(0xFFFF, "f", 12, "getStatistics = %s", "182,439");
    EXPECT_TRUE(guard.ok());
  }
  EXPECT_THAT(log.traces(), ElementsAre("enter f...", "leave f: OK"));
  auto debug = log.records(VEM_LOG_DEBUG);
  ASSERT_EQ(debug.size(), 1u);
  EXPECT_EQ(debug[0].code, 0xFFFFu);
  EXPECT_EQ(debug[0].function, "f");
  EXPECT_EQ(debug[0].line, 12u);
  EXPECT_EQ(debug[0].message, "getStatistics = 182,439");
}

TEST(DebugKitGuardTest, WarnMakesTheClosingLineNok) {
  KitLogCapture log;
  {
    CVEMDebugKitGuard guard(4, "f");
    guard.warn(0xFFFF, "OnSetLeaf", 7, "set perf switch to %d, iRet:%d.", 1, 0);
    EXPECT_FALSE(guard.ok());
  }
  EXPECT_THAT(log.traces(), ElementsAre("enter f...", "leave f: NOK"));
  auto warn = log.records(VEM_LOG_WARN);
  ASSERT_EQ(warn.size(), 1u);
  EXPECT_EQ(warn[0].message, "set perf switch to 1, iRet:0.");
}

TEST(DebugKitGuardTest, ErrorMakesTheClosingLineNokAndCarriesItsCode) {
  KitLogCapture log;
  {
    CVEMDebugKitGuard guard(4, "f");
    guard.error(65582, "GetBatchPerfData", 99, "faild to query perf data, UUID:%s, Item:%s, err:%d.", "11:3", "1,2", 5);
  }
  EXPECT_THAT(log.traces(), ElementsAre("enter f...", "leave f: NOK"));
  auto errors = log.records(VEM_LOG_ERROR);
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].code, 0x1002Eu);
  EXPECT_EQ(errors[0].function, "GetBatchPerfData");
  EXPECT_EQ(errors[0].message, "faild to query perf data, UUID:11:3, Item:1,2, err:5.");
}

TEST(DebugKitGuardTest, NokIsNeverSetBackByALaterDebug) {
  KitLogCapture log;
  {
    CVEMDebugKitGuard guard(0, "g");
    guard.error(65582, "g", 1, "x");
    guard.debug(0xFFFF, "g", 2, "y");
  }
  EXPECT_THAT(log.traces(), ElementsAre("enter g...", "leave g: NOK"));
  EXPECT_EQ(log.records()[0].kitNo, 0u);
}

TEST(DebugKitGuardTest, GuardDestroyedByAnExceptionStillTracesItsClosingLine) {
  KitLogCapture log;
  try {
    CVEMDebugKitGuard guard(4, "h");
    throw std::runtime_error("boom");
  } catch (const std::runtime_error&) {
  }
  EXPECT_THAT(log.traces(), ElementsAre("enter h...", "leave h: OK"));
}

TEST(DebugKitGuardTest, LongMessagesAreNotCut) {
  KitLogCapture log;
  std::string longText(3000, 'z');
  {
    CVEMDebugKitGuard guard(4, "f");
    guard.debug(0xFFFF, "f", 1, "%s", longText.c_str());
  }
  EXPECT_EQ(log.records(VEM_LOG_DEBUG)[0].message, longText);
}

}  // namespace
