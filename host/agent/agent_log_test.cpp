#include "host/agent/agent_log.h"

#include <ace/Log_Msg.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

// clang-format off
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
// clang-format on

#include <algorithm>
#include <chrono>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "diag/vem_ace_log.h"
#include "tests/support/temp_dir.h"
#include "vempub/vem_ace_log_route.h"
#include "vempub/vem_log_folding.h"

namespace zerva_agent {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using zerva_test::TempDir;

// What Net-SNMP's log handlers got: priority and text of each message.
struct SnmpLogLine {
  int priority;
  std::string text;
};
std::vector<SnmpLogLine>* g_snmpLog = nullptr;

int CaptureSnmpLog(int, int, void* serverarg, void*) {
  auto* message = static_cast<struct snmp_log_message*>(serverarg);
  if (g_snmpLog != nullptr && message != nullptr && message->msg != nullptr) {
    g_snmpLog->push_back({message->priority, message->msg});
  }
  return 0;
}

// Net-SNMP's log into memory while alive.
class SnmpLogCapture {
 public:
  SnmpLogCapture() {
    static bool registered = false;
    if (!registered) {
      snmp_disable_log();
      netsnmp_register_loghandler(NETSNMP_LOGHANDLER_CALLBACK, LOG_DEBUG);
      snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, CaptureSnmpLog, nullptr);
      registered = true;
    }
    g_snmpLog = &lines;
  }
  ~SnmpLogCapture() { g_snmpLog = nullptr; }
  std::vector<SnmpLogLine> lines;
};

std::string ReadFile(const std::string& path) {
  std::ifstream in(path);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

int Lines(const std::string& text) { return static_cast<int>(std::count(text.begin(), text.end(), '\n')); }

CVEMLogRecord Record(EVEMLogLevel level, const std::string& message, unsigned int line = 10) {
  CVEMLogRecord r;
  r.kitNo = 4;
  r.level = level;
  r.code = level == VEM_LOG_ERROR ? 0x1002E : 0xFFFF;
  r.function = level == VEM_LOG_TRACE ? "" : "GetBatchTableInfo_i";
  r.line = level == VEM_LOG_TRACE ? 0 : line;
  r.message = message;
  return r;
}

// Leaves the kits and ACE as they were found.
class AgentLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    CVEMDebugKitMgr* kits = CVEMDebugKitMgrSingleton::instance();
    previousSink_ = kits->sink();
    previousLevel_ = kits->defaultLevel();
  }
  void TearDown() override {
    CloseAgentLog();
    CVEMDebugKitMgr* kits = CVEMDebugKitMgrSingleton::instance();
    kits->setSink(previousSink_);
    kits->setLevel(previousLevel_);
  }
  std::string logFile(const std::string& name = "agent.log") { return dir_.path() + "/" + name; }

  TempDir dir_;
  std::shared_ptr<IVEMLogSink> previousSink_;
  EVEMLogLevel previousLevel_ = VEM_LOG_WARN;
};

TEST_F(AgentLogTest, SnmpLogSinkWritesEachLineWithTheLevelsPriority) {
  SnmpLogCapture capture;
  SnmpLogSink sink;
  sink.write(Record(VEM_LOG_ERROR, "faild to query perf data, objID:1,2"));
  sink.write(Record(VEM_LOG_WARN, "careful"));
  sink.write(Record(VEM_LOG_DEBUG, "detail"));
  sink.write(Record(VEM_LOG_TRACE, "enter f..."));
  ASSERT_EQ(4u, capture.lines.size());
  EXPECT_EQ(LOG_ERR, capture.lines[0].priority);
  EXPECT_EQ(LOG_WARNING, capture.lines[1].priority);
  EXPECT_EQ(LOG_DEBUG, capture.lines[2].priority);
  EXPECT_EQ(LOG_DEBUG, capture.lines[3].priority);
  EXPECT_THAT(capture.lines[0].text, MatchesRegex("[0-9-]+ [0-9:.]+ \\[kit 4\\] ERROR 0x1002E GetBatchTableInfo_i:10 "
                                                  "faild to query perf data, objID:1,2\n"));
  EXPECT_THAT(capture.lines[3].text, MatchesRegex(".* \\[kit 4\\] TRACE enter f\\.\\.\\.\n"));
}

TEST_F(AgentLogTest, SnmpLogSinkLeavesTheStampToNetSnmpWhenItStampsLines) {
  SnmpLogCapture capture;
  SnmpLogSink sink;
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_LOG_TIMESTAMP, 1);
  sink.write(Record(VEM_LOG_ERROR, "x"));
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_LOG_TIMESTAMP, 0);
  ASSERT_EQ(1u, capture.lines.size());
  EXPECT_EQ("[kit 4] ERROR 0x1002E GetBatchTableInfo_i:10 x\n", capture.lines[0].text);
}

TEST_F(AgentLogTest, SnmpLogIsTheDestinationOfTheDlmodHomeAndFoldsByDefault) {
  SnmpLogCapture capture;
  AgentOptions options;
  std::string error;
  ASSERT_TRUE(ConfigureAgentLog(options, false, LogHome::kSnmpLog, &error)) << error;
  auto folding = std::dynamic_pointer_cast<CVEMFoldingSink>(CVEMDebugKitMgrSingleton::instance()->sink());
  ASSERT_NE(nullptr, folding);
  EXPECT_EQ(std::chrono::seconds(60), folding->window());
  EXPECT_NE(nullptr, dynamic_cast<SnmpLogSink*>(folding->inner().get()));
  for (int i = 0; i < 3; ++i) VEMLog(2, VEM_LOG_ERROR, "fn", 7, "batch %d", i);
  ASSERT_EQ(1u, capture.lines.size());
  EXPECT_THAT(capture.lines[0].text, HasSubstr("[kit 2] ERROR 0x1002E fn:7 batch 0"));
  // Unloading writes what was counted, and leaves no sink of the library behind.
  CloseAgentLog();
  ASSERT_EQ(2u, capture.lines.size());
  EXPECT_THAT(capture.lines[1].text, HasSubstr("fn:7 \u2026 and 2 more like this in the last 60 s"));
  EXPECT_NE(nullptr, dynamic_cast<CVEMStderrSink*>(CVEMDebugKitMgrSingleton::instance()->sink().get()));
}

TEST_F(AgentLogTest, TheProgramsHomeIsStderrAndALogFileOrSyslogOverridesEitherHome) {
  AgentOptions options;
  options.logFoldSeconds = 0;
  std::string error;
  CVEMDebugKitMgr* kits = CVEMDebugKitMgrSingleton::instance();
  ASSERT_TRUE(ConfigureAgentLog(options, false, LogHome::kStderr, &error)) << error;
  EXPECT_NE(nullptr, dynamic_cast<CVEMStderrSink*>(kits->sink().get()));
  options.syslog = true;
  ASSERT_TRUE(ConfigureAgentLog(options, false, LogHome::kSnmpLog, &error)) << error;
  EXPECT_NE(nullptr, dynamic_cast<CVEMSyslogSink*>(kits->sink().get()));
  options.logFile = logFile();
  ASSERT_TRUE(ConfigureAgentLog(options, false, LogHome::kSnmpLog, &error)) << error;
  EXPECT_NE(nullptr, dynamic_cast<CVEMFileSink*>(kits->sink().get()));
  // -L wins over everything.
  ASSERT_TRUE(ConfigureAgentLog(options, true, LogHome::kSnmpLog, &error)) << error;
  EXPECT_NE(nullptr, dynamic_cast<CVEMStderrSink*>(kits->sink().get()));
}

TEST_F(AgentLogTest, TheBackgroundProgramsHomeIsSyslogAndALogFileOrMinusLOverridesIt) {
  AgentOptions options;
  options.logFoldSeconds = 0;
  std::string error;
  CVEMDebugKitMgr* kits = CVEMDebugKitMgrSingleton::instance();
  ASSERT_TRUE(ConfigureAgentLog(options, false, LogHome::kSyslog, &error)) << error;
  EXPECT_NE(nullptr, dynamic_cast<CVEMSyslogSink*>(kits->sink().get()));
  options.logFile = logFile();
  ASSERT_TRUE(ConfigureAgentLog(options, false, LogHome::kSyslog, &error)) << error;
  EXPECT_NE(nullptr, dynamic_cast<CVEMFileSink*>(kits->sink().get()));
  ASSERT_TRUE(ConfigureAgentLog(options, true, LogHome::kSyslog, &error)) << error;
  EXPECT_NE(nullptr, dynamic_cast<CVEMStderrSink*>(kits->sink().get()));
}

TEST_F(AgentLogTest, ALogFileThatCannotBeOpenedIsAnErrorAndKeepsTheDestination) {
  AgentOptions options;
  std::string error;
  ASSERT_TRUE(ConfigureAgentLog(options, false, LogHome::kStderr, &error)) << error;
  const std::shared_ptr<IVEMLogSink> before = CVEMDebugKitMgrSingleton::instance()->sink();
  options.logFile = "/nonexistent-dir/agent.log";
  EXPECT_FALSE(ConfigureAgentLog(options, false, LogHome::kStderr, &error));
  EXPECT_EQ("cannot log to file:/nonexistent-dir/agent.log: cannot open log file /nonexistent-dir/agent.log", error);
  EXPECT_EQ(before, CVEMDebugKitMgrSingleton::instance()->sink());
}

TEST_F(AgentLogTest, KitLevelsOverrideTheCommonLevelForTheirKit) {
  AgentOptions options;
  options.logLevel = VEM_LOG_ERROR;
  options.kitLogLevels = {{1, VEM_LOG_DEBUG}, {4, VEM_LOG_OFF}};
  std::string error;
  ASSERT_TRUE(ConfigureAgentLog(options, false, LogHome::kStderr, &error)) << error;
  CVEMDebugKitMgr* kits = CVEMDebugKitMgrSingleton::instance();
  EXPECT_EQ(VEM_LOG_DEBUG, kits->find(1)->level());
  EXPECT_EQ(VEM_LOG_OFF, kits->find(4)->level());
  EXPECT_EQ(VEM_LOG_ERROR, kits->find(2)->level());
  EXPECT_EQ(VEM_LOG_ERROR, kits->find(3)->level());
  // A later configuration without them gives every kit the common level.
  options.kitLogLevels.clear();
  ASSERT_TRUE(ConfigureAgentLog(options, false, LogHome::kStderr, &error)) << error;
  EXPECT_EQ(VEM_LOG_ERROR, kits->find(1)->level());
  EXPECT_EQ(VEM_LOG_ERROR, kits->find(4)->level());
}

TEST_F(AgentLogTest, RepeatedLinesInTheFileAreFoldedAndSummarisedOnFlushAfterTheWindow) {
  AgentOptions options;
  options.logFile = logFile();
  options.logFoldSeconds = 1;
  std::string error;
  ASSERT_TRUE(ConfigureAgentLog(options, false, LogHome::kStderr, &error)) << error;
  for (int i = 0; i < 5; ++i) VEMLog(4, VEM_LOG_ERROR, "GetBatchTableInfo_i", 77, "query LUN performance. %d", i);
  FlushAgentLog();
  EXPECT_EQ(1, Lines(ReadFile(logFile())));
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  FlushAgentLog();
  const std::string text = ReadFile(logFile());
  EXPECT_THAT(text, HasSubstr("GetBatchTableInfo_i:77 query LUN performance. 0\n"));
  EXPECT_THAT(text, HasSubstr("GetBatchTableInfo_i:77 \u2026 and 4 more like this in the last 1 s\n"));
  EXPECT_THAT(text, ::testing::Not(HasSubstr("performance. 4")));
}

TEST_F(AgentLogTest, NoFoldingWithZeroSeconds) {
  AgentOptions options;
  options.logFile = logFile();
  options.logFoldSeconds = 0;
  std::string error;
  ASSERT_TRUE(ConfigureAgentLog(options, false, LogHome::kStderr, &error)) << error;
  EXPECT_EQ(nullptr, std::dynamic_pointer_cast<CVEMFoldingSink>(CVEMDebugKitMgrSingleton::instance()->sink()));
  for (int i = 0; i < 5; ++i) VEMLog(4, VEM_LOG_ERROR, "fn", 77, "same");
  const std::string text = ReadFile(logFile());
  EXPECT_EQ(5, Lines(text)) << text;
}

TEST_F(AgentLogTest, ReconfiguringWritesWhatThePreviousConfigurationCounted) {
  AgentOptions options;
  options.logFile = logFile("first.log");
  std::string error;
  ASSERT_TRUE(ConfigureAgentLog(options, false, LogHome::kStderr, &error)) << error;
  for (int i = 0; i < 3; ++i) VEMLog(4, VEM_LOG_ERROR, "fn", 77, "same");
  options.logFile = logFile("second.log");
  ASSERT_TRUE(ConfigureAgentLog(options, false, LogHome::kStderr, &error)) << error;
  EXPECT_THAT(ReadFile(logFile("first.log")), HasSubstr("fn:77 \u2026 and 2 more like this in the last 60 s\n"));
  VEMLog(4, VEM_LOG_ERROR, "fn", 77, "same");
  EXPECT_THAT(ReadFile(logFile("second.log")), HasSubstr("fn:77 same\n"));
}

TEST_F(AgentLogTest, CodecErrorsThroughAceGoToTheConfiguredFileOnKit3) {
  AgentOptions options;
  options.logFile = logFile();
  std::string error;
  testing::internal::CaptureStderr();
  ASSERT_TRUE(ConfigureAgentLog(options, false, LogHome::kStderr, &error)) << error;
  EXPECT_TRUE(VEMAceLogRouted());
  VEM_ACE_ERROR_FMT("%D %M (%t) invalid MSG header!\n");
  CloseAgentLog();
  EXPECT_FALSE(VEMAceLogRouted());
  EXPECT_EQ("", testing::internal::GetCapturedStderr());
  EXPECT_THAT(ReadFile(logFile()),
              MatchesRegex(".* \\[kit 3\\] ERROR 0x1002E agent_log_test.cpp:[0-9]+ invalid MSG header!\n"));
}

TEST_F(AgentLogTest, CloseKeepsTheDestinationUnfolded) {
  AgentOptions options;
  options.logFile = logFile();
  std::string error;
  ASSERT_TRUE(ConfigureAgentLog(options, false, LogHome::kStderr, &error)) << error;
  CloseAgentLog();
  EXPECT_NE(nullptr, dynamic_cast<CVEMFileSink*>(CVEMDebugKitMgrSingleton::instance()->sink().get()));
  VEMLog(2, VEM_LOG_WARN, "main", 1, "after");
  VEMLog(2, VEM_LOG_WARN, "main", 1, "after");
  const std::string text = ReadFile(logFile());
  EXPECT_EQ(2, Lines(text)) << text;
}

}  // namespace
}  // namespace zerva_agent
