#include "diag/vem_debug_kit_guard.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <ostream>
#include <stdexcept>
#include <string>

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

// One message through a guard of kit 4 for "f": how it is sent, the record
// it must leave and whether the guard's closing line then says OK.
struct GuardMessage {
  const char* name;
  std::function<void(CVEMDebugKitGuard&)> send;
  EVEMLogLevel level;
  unsigned long long code;
  const char* function;
  unsigned int line;
  const char* message;
  bool ok;
};

void PrintTo(const GuardMessage& m, std::ostream* os) { *os << m.name; }

const GuardMessage kGuardMessages[] = {
    // Only debug leaves the closing line OK.
    {"DebugLeavesTheClosingLineOk",
     [](CVEMDebugKitGuard& g) { g.debug(0xFFFF, "f", 12, "getStatistics = %s", "182,439"); }, VEM_LOG_DEBUG, 0xFFFFu,
     "f", 12u, "getStatistics = 182,439", true},
    {"WarnMakesTheClosingLineNok",
     [](CVEMDebugKitGuard& g) { g.warn(0xFFFF, "OnSetLeaf", 7, "set perf switch to %d, iRet:%d.", 1, 0); },
     VEM_LOG_WARN, 0xFFFFu, "OnSetLeaf", 7u, "set perf switch to 1, iRet:0.", false},
    // An error carries its code.
    {"ErrorMakesTheClosingLineNokAndCarriesItsCode",
     [](CVEMDebugKitGuard& g) {
       g.error(65582, "GetBatchPerfData", 99, "faild to query perf data, UUID:%s, Item:%s, err:%d.", "11:3", "1,2", 5);
     },
     VEM_LOG_ERROR, 0x1002Eu, "GetBatchPerfData", 99u, "faild to query perf data, UUID:11:3, Item:1,2, err:5.", false},
};

class DebugKitGuardMessageTest : public ::testing::TestWithParam<GuardMessage> {};

TEST_P(DebugKitGuardMessageTest, IsLoggedAtItsLevelAndSetsTheClosingLine) {
  const GuardMessage& m = GetParam();
  KitLogCapture log;
  {
    CVEMDebugKitGuard guard(4, "f");
    m.send(guard);
    EXPECT_EQ(guard.ok(), m.ok);
  }
  EXPECT_THAT(log.traces(), ElementsAre("enter f...", m.ok ? "leave f: OK" : "leave f: NOK"));
  auto records = log.records(m.level);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].code, m.code);
  EXPECT_EQ(records[0].function, m.function);
  EXPECT_EQ(records[0].line, m.line);
  EXPECT_EQ(records[0].message, m.message);
}

INSTANTIATE_TEST_SUITE_P(Levels, DebugKitGuardMessageTest, ::testing::ValuesIn(kGuardMessages),
                         [](const ::testing::TestParamInfo<GuardMessage>& info) { return info.param.name; });

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
