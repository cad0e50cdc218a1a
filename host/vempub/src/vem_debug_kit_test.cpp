#include "vempub/vem_debug_kit.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <regex>

namespace {

class MemorySink : public IVEMLogSink {
 public:
  void write(const CVEMLogRecord& r) override { records.push_back(r); }
  std::vector<CVEMLogRecord> records;
};

void Debug(CVEMDebugKit* kit, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  kit->debug(0xFFFF, "fn", 3, fmt, ap);
  va_end(ap);
}

void Error(CVEMDebugKit* kit, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  kit->error(0x1002E, "fn", 4, fmt, ap);
  va_end(ap);
}

TEST(DebugKitTest, FindReturnsOneKitPerNumber) {
  CVEMDebugKitMgr mgr;
  CVEMDebugKit* a = mgr.find(4);
  EXPECT_EQ(a, mgr.find(4));
  EXPECT_NE(a, mgr.find(0));
  EXPECT_EQ(a->number(), 4u);
}

TEST(DebugKitTest, DefaultLevelIsWarnAndFiltersTraceAndDebug) {
  CVEMDebugKitMgr mgr;
  auto sink = std::make_shared<MemorySink>();
  mgr.setSink(sink);
  CVEMDebugKit* kit = mgr.find(4);
  EXPECT_EQ(kit->level(), VEM_LOG_WARN);
  kit->trace("enter x...");
  Debug(kit, "d");
  Error(kit, "e %d", 1);
  ASSERT_EQ(sink->records.size(), 1u);
  EXPECT_EQ(sink->records[0].message, "e 1");
  EXPECT_EQ(sink->records[0].level, VEM_LOG_ERROR);
}

TEST(DebugKitTest, LevelsApplyToAllKitsOrToOne) {
  CVEMDebugKitMgr mgr;
  auto sink = std::make_shared<MemorySink>();
  mgr.setSink(sink);
  mgr.setLevel(VEM_LOG_TRACE);
  mgr.find(4)->trace("t4");
  mgr.find(9)->trace("t9");  // created after the change: gets the new default
  mgr.setLevel(4, VEM_LOG_OFF);
  mgr.find(4)->trace("hidden");
  Error(mgr.find(4), "hidden too");
  ASSERT_EQ(sink->records.size(), 2u);
  EXPECT_EQ(sink->records[0].message, "t4");
  EXPECT_EQ(sink->records[1].message, "t9");
}

TEST(DebugKitTest, ParsesLevelNames) {
  EVEMLogLevel level = VEM_LOG_OFF;
  EXPECT_TRUE(VEMParseLogLevel("Trace", &level));
  EXPECT_EQ(level, VEM_LOG_TRACE);
  EXPECT_TRUE(VEMParseLogLevel("error", &level));
  EXPECT_EQ(level, VEM_LOG_ERROR);
  EXPECT_FALSE(VEMParseLogLevel("loud", &level));
  EXPECT_EQ(level, VEM_LOG_ERROR);
}

TEST(DebugKitTest, FormatCarriesKitLevelCodeFunctionAndLine) {
  CVEMLogRecord r;
  r.kitNo = 4;
  r.level = VEM_LOG_ERROR;
  r.code = 0x1002E;
  r.function = "GetBatchPerfData";
  r.line = 123;
  r.message = "faild to parse perf data.";
  const std::regex expected(
      R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} \[kit 4\] ERROR 0x1002E GetBatchPerfData:123 faild to parse perf data\.$)");
  EXPECT_TRUE(std::regex_match(VEMFormatLogRecord(r), expected)) << VEMFormatLogRecord(r);
  CVEMLogRecord t;
  t.kitNo = 0;
  t.message = "enter f...";
  EXPECT_TRUE(std::regex_match(VEMFormatLogRecord(t), std::regex(R"(^.* \[kit 0\] TRACE enter f\.\.\.$)")));
}

TEST(DebugKitTest, FileDestinationAppendsFormattedLines) {
  char path[] = "/tmp/vem_kit_testXXXXXX";
  int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  close(fd);
  {
    CVEMDebugKitMgr mgr;
    std::string err;
    ASSERT_TRUE(mgr.setDestination(std::string("file:") + path, &err)) << err;
    Error(mgr.find(4), "first %s", "line");
    Error(mgr.find(4), "second");
  }
  std::ifstream in(path);
  std::string l1, l2, l3;
  ASSERT_TRUE(std::getline(in, l1));
  ASSERT_TRUE(std::getline(in, l2));
  EXPECT_FALSE(std::getline(in, l3));
  EXPECT_NE(l1.find("[kit 4] ERROR 0x1002E fn:4 first line"), std::string::npos) << l1;
  EXPECT_NE(l2.find("second"), std::string::npos);
  unlink(path);
}

TEST(DebugKitTest, BadDestinationsAreRefusedAndTheSinkKept) {
  CVEMDebugKitMgr mgr;
  auto sink = std::make_shared<MemorySink>();
  mgr.setSink(sink);
  std::string err;
  EXPECT_FALSE(mgr.setDestination("file:/nonexistent-dir/x.log", &err));
  EXPECT_EQ(err, "cannot open log file /nonexistent-dir/x.log");
  EXPECT_FALSE(mgr.setDestination("printer", &err));
  EXPECT_NE(err.find("unknown log destination 'printer'"), std::string::npos);
  EXPECT_EQ(mgr.sink(), sink);
}

}  // namespace
