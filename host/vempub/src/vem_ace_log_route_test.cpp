#include "vempub/vem_ace_log_route.h"

#include <ace/Log_Msg.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>

#include "diag/vem_ace_log.h"
#include "tests/support/ace_log_capture.h"
#include "tests/support/kit_log_capture.h"
#include "vempub/vem_log_folding.h"

namespace {

using zerva_test::AceLogCapture;
using zerva_test::KitLogCapture;

// Routes ACE's log while alive.
class AceRoute {
 public:
  explicit AceRoute(unsigned int kit = VEM_KIT_ACE) { VEMRouteAceLog(kit); }
  ~AceRoute() { VEMUnrouteAceLog(); }
};

TEST(AceLogRouteTest, ACodecErrorBecomesAKitErrorWithItsSourcePosition) {
  KitLogCapture kits;
  testing::internal::CaptureStderr();
  unsigned int line = 0;
  {
    AceRoute route;
    EXPECT_TRUE(VEMAceLogRouted());
    const std::string text = "at File=x.cpp,Line=9 : it failed to parse record, buf size=40, parsing pos=38";
    // clang-format off
    line = __LINE__; VEM_ACE_ERROR_TEXT(text);
    // clang-format on
  }
  EXPECT_FALSE(VEMAceLogRouted());
  EXPECT_EQ("", testing::internal::GetCapturedStderr()) << "nothing of a routed ACE log goes to stderr";
  const std::vector<CVEMLogRecord> records = kits.records(VEM_LOG_ERROR);
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ(static_cast<unsigned int>(VEM_KIT_ACE), records[0].kitNo);
  EXPECT_EQ(0x1002EULL, records[0].code);
  EXPECT_EQ("vem_ace_log_route_test.cpp", records[0].function);
  EXPECT_EQ(line, records[0].line);
  EXPECT_EQ("at File=x.cpp,Line=9 : it failed to parse record, buf size=40, parsing pos=38", records[0].message);
}

TEST(AceLogRouteTest, PrioritiesMapToKitLevelsAndTheKitLevelFilters) {
  KitLogCapture kits;
  AceRoute route(7);
  ACE_Log_Msg* log = ACE_Log_Msg::instance();
  log->log(LM_WARNING, "%D %M (%t) careful\n");
  log->log(LM_DEBUG, "%D %M (%t) detail\n");
  log->log(LM_CRITICAL, "plain text without the prefix\n");
  const std::vector<CVEMLogRecord> records = kits.records();
  ASSERT_EQ(3u, records.size());
  EXPECT_EQ(VEM_LOG_WARN, records[0].level);
  EXPECT_EQ(0xFFFFULL, records[0].code);
  EXPECT_EQ("careful", records[0].message);
  EXPECT_EQ(VEM_LOG_DEBUG, records[1].level);
  EXPECT_EQ(VEM_LOG_ERROR, records[2].level);
  EXPECT_EQ("plain text without the prefix", records[2].message);
  for (const CVEMLogRecord& r : records) EXPECT_EQ(7u, r.kitNo);

  kits.clear();
  CVEMDebugKitMgrSingleton::instance()->setLevel(7, VEM_LOG_OFF);
  VEM_ACE_ERROR_FMT("%D %M (%t) silenced\n");
  EXPECT_TRUE(kits.records().empty());
}

TEST(AceLogRouteTest, ErrorsOfOtherThreadsAreRoutedToo) {
  KitLogCapture kits;
  AceRoute route;
  std::thread t([] { VEM_ACE_ERROR_FMT("%D %M (%t) invalid MSG header!\n"); });
  t.join();
  const std::vector<CVEMLogRecord> records = kits.records(VEM_LOG_ERROR);
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ("invalid MSG header!", records[0].message);
}

TEST(AceLogRouteTest, RepeatedCodecErrorsAreFoldedByTheKitsSink) {
  KitLogCapture kits;
  CVEMDebugKitMgr* mgr = CVEMDebugKitMgrSingleton::instance();
  const std::shared_ptr<IVEMLogSink> capture = mgr->sink();
  auto folding = std::make_shared<CVEMFoldingSink>(capture, std::chrono::seconds(60));
  mgr->setSink(folding);
  {
    AceRoute route;
    for (int i = 0; i < 5; ++i) VEM_ACE_ERROR_FMT("%D %M (%t) invalid MSG header!\n");
  }
  folding->flushAll();
  mgr->setSink(capture);
  const std::vector<CVEMLogRecord> records = kits.records(VEM_LOG_ERROR);
  ASSERT_EQ(2u, records.size());
  EXPECT_EQ("invalid MSG header!", records[0].message);
  EXPECT_EQ("\u2026 and 4 more like this in the last 60 s", records[1].message);
}

TEST(AceLogRouteTest, UnroutingGivesACEItsPreviousBackendBack) {
  AceLogCapture ace;
  {
    KitLogCapture kits;
    AceRoute route;
    VEM_ACE_ERROR_FMT("%D %M (%t) to the kits\n");
    EXPECT_EQ(1u, kits.records(VEM_LOG_ERROR).size());
  }
  VEM_ACE_ERROR_FMT("%D %M (%t) to ACE again\n");
  EXPECT_THAT(ace.texts(), ::testing::ElementsAre("to ACE again"));
}

TEST(AceLogRouteTest, RoutingTwiceKeepsOneRouteToTheLastKit) {
  KitLogCapture kits;
  VEMRouteAceLog(5);
  VEMRouteAceLog(6);
  VEM_ACE_ERROR_FMT("%D %M (%t) once\n");
  VEMUnrouteAceLog();
  EXPECT_FALSE(VEMAceLogRouted());
  const std::vector<CVEMLogRecord> records = kits.records(VEM_LOG_ERROR);
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ(6u, records[0].kitNo);
}

TEST(AceLogRouteTest, TextDropsOnlyALeadingAcePrefix) {
  EXPECT_EQ("invalid MSG header!", VEMAceLogText("2026-11-22 06:10:33.123456 LM_ERROR (140213) invalid MSG header!\n"));
  EXPECT_EQ("no prefix", VEMAceLogText("no prefix\r\n"));
  EXPECT_EQ("a text that names LM_ERROR (1) later on", VEMAceLogText("a text that names LM_ERROR (1) later on"));
  EXPECT_EQ("2026-11-22 LM_ERROR (abc) y", VEMAceLogText("2026-11-22 LM_ERROR (abc) y"));
}

TEST(AceLogRouteTest, LevelOfEachPriority) {
  EXPECT_EQ(VEM_LOG_ERROR, VEMAceLogLevel(LM_ERROR));
  EXPECT_EQ(VEM_LOG_ERROR, VEMAceLogLevel(LM_EMERGENCY));
  EXPECT_EQ(VEM_LOG_WARN, VEMAceLogLevel(LM_WARNING));
  EXPECT_EQ(VEM_LOG_DEBUG, VEMAceLogLevel(LM_INFO));
  EXPECT_EQ(VEM_LOG_DEBUG, VEMAceLogLevel(LM_STARTUP));
  EXPECT_EQ(VEM_LOG_TRACE, VEMAceLogLevel(LM_TRACE));
}

}  // namespace
