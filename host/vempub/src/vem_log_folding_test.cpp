#include "vempub/vem_log_folding.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

class MemorySink : public IVEMLogSink {
 public:
  void write(const CVEMLogRecord& r) override {
    std::lock_guard<std::mutex> lock(mu);
    records.push_back(r);
  }
  std::vector<std::string> messages() {
    std::lock_guard<std::mutex> lock(mu);
    std::vector<std::string> out;
    for (const CVEMLogRecord& r : records) out.push_back(r.message);
    return out;
  }
  std::mutex mu;
  std::vector<CVEMLogRecord> records;
};

// A clock the test moves by hand.
struct FakeClock {
  CVEMFoldingSink::TimePoint now = CVEMFoldingSink::TimePoint(std::chrono::hours(1));
  CVEMFoldingSink::Clock fn() {
    return [this] { return now; };
  }
  void advance(std::chrono::milliseconds d) { now += d; }
};

CVEMLogRecord Line(const std::string& message, unsigned int line = 123, EVEMLogLevel level = VEM_LOG_ERROR,
                   unsigned int kit = 4, const char* function = "GetBatchTableInfo_i",
                   unsigned long long code = 0x1002E) {
  CVEMLogRecord r;
  r.kitNo = kit;
  r.level = level;
  r.code = code;
  r.function = function;
  r.line = line;
  r.message = message;
  return r;
}

class FoldingSinkTest : public ::testing::Test {
 protected:
  std::shared_ptr<MemorySink> inner_ = std::make_shared<MemorySink>();
  FakeClock clock_;
  CVEMFoldingSink sink_{inner_, std::chrono::seconds(60), clock_.fn()};
};

TEST_F(FoldingSinkTest, FirstLineIsWrittenAtOnceAndRepeatsOnlyCounted) {
  sink_.write(Line("query LUN performance. batchObjID:1,2"));
  ASSERT_EQ(1u, inner_->records.size());
  EXPECT_EQ("query LUN performance. batchObjID:1,2", inner_->records[0].message);
  for (int i = 0; i < 102; ++i) {
    clock_.advance(std::chrono::milliseconds(100));
    sink_.write(Line("query LUN performance. batchObjID:" + std::to_string(i)));
  }
  EXPECT_EQ(1u, inner_->records.size());
  EXPECT_EQ(102u, sink_.pending());
}

TEST_F(FoldingSinkTest, FlushWritesOneSummaryWithTheLinesFieldsWhenTheWindowEnds) {
  sink_.write(Line("batch 1"));
  sink_.write(Line("batch 2,3"));
  sink_.write(Line("batch -1"));
  clock_.advance(std::chrono::seconds(59));
  sink_.flush();
  EXPECT_EQ(1u, inner_->records.size()) << "the window has not ended yet";
  clock_.advance(std::chrono::seconds(1));
  sink_.flush();
  ASSERT_EQ(2u, inner_->records.size());
  const CVEMLogRecord& s = inner_->records[1];
  EXPECT_EQ("\u2026 and 2 more like this in the last 60 s", s.message);
  EXPECT_EQ(4u, s.kitNo);
  EXPECT_EQ(VEM_LOG_ERROR, s.level);
  EXPECT_EQ(0x1002EULL, s.code);
  EXPECT_EQ("GetBatchTableInfo_i", s.function);
  EXPECT_EQ(123u, s.line);
  EXPECT_EQ(0u, sink_.pending());
  sink_.flush();
  EXPECT_EQ(2u, inner_->records.size()) << "a summary is written once";
}

TEST_F(FoldingSinkTest, EveryWriteChecksTheWindowsAndPutsTheSummaryFirst) {
  sink_.write(Line("a"));
  sink_.write(Line("a"));
  clock_.advance(std::chrono::seconds(61));
  sink_.write(Line("other", 7));
  EXPECT_THAT(inner_->messages(), ElementsAre("a", "\u2026 and 1 more like this in the last 60 s", "other"));
}

TEST_F(FoldingSinkTest, ALineThatKeepsComingCostsOneSummaryPerWindow) {
  // Five polls a minute apart, 103 lines each.
  for (int poll = 0; poll < 5; ++poll) {
    for (int i = 0; i < 103; ++i) {
      sink_.write(Line("query LUN performance. batchObjID:" + std::to_string(i)));
      clock_.advance(std::chrono::milliseconds(10));
    }
    clock_.advance(std::chrono::seconds(60) - std::chrono::milliseconds(1030));
    sink_.flush();
  }
  std::vector<std::string> messages = inner_->messages();
  ASSERT_EQ(6u, messages.size());
  EXPECT_EQ("query LUN performance. batchObjID:0", messages[0]);
  EXPECT_EQ("\u2026 and 102 more like this in the last 60 s", messages[1]);
  for (size_t i = 2; i < messages.size(); ++i) {
    EXPECT_EQ("\u2026 and 103 more like this in the last 60 s", messages[i]) << i;
  }
}

TEST_F(FoldingSinkTest, ALineAfterAWindowWithoutRepeatsIsWrittenAtOnce) {
  sink_.write(Line("line 1"));
  clock_.advance(std::chrono::seconds(60));
  sink_.write(Line("line 2"));
  EXPECT_THAT(inner_->messages(), ElementsAre("line 1", "line 2"));
  // Also when no flush ran while windows passed: the summarised window is
  // followed by an empty one.
  sink_.write(Line("line 3"));
  clock_.advance(std::chrono::seconds(150));
  sink_.write(Line("line 4"));
  EXPECT_THAT(inner_->messages(),
              ElementsAre("line 1", "line 2", "\u2026 and 1 more like this in the last 60 s", "line 4"));
}

TEST_F(FoldingSinkTest, ALineOfANewKeyAppearsAtOnce) {
  sink_.write(Line("base"));
  sink_.write(Line("kit", 123, VEM_LOG_ERROR, 2));
  sink_.write(Line("level", 123, VEM_LOG_WARN));
  sink_.write(Line("code", 123, VEM_LOG_ERROR, 4, "GetBatchTableInfo_i", 0xFFFF));
  sink_.write(Line("function", 123, VEM_LOG_ERROR, 4, "QueryPerfLunData"));
  sink_.write(Line("line", 124));
  EXPECT_THAT(inner_->messages(), ElementsAre("base", "kit", "level", "code", "function", "line"));
  EXPECT_EQ(0u, sink_.pending());
}

TEST_F(FoldingSinkTest, OneSourceLineAboutDifferentThingsIsNotFolded) {
  const std::vector<std::string> tables = {
      "vemPerfNodeTable (1.3.6.1.4.1.32473.4.1.21.3) failed: timed out",
      "vemPerfPortTable (1.3.6.1.4.1.32473.4.1.21.5) failed: timed out",
      "vemPerfNfsV4Table (1.3.6.1.4.1.32473.4.1.21.11) failed: timed out",
      "vemPerfNfsV41Table (1.3.6.1.4.1.32473.4.1.21.15) failed: timed out",
  };
  for (const std::string& t : tables) sink_.write(Line(t, 79, VEM_LOG_ERROR, 2, "ObjectServer"));
  sink_.write(Line(tables[0], 79, VEM_LOG_ERROR, 2, "ObjectServer"));
  EXPECT_EQ(tables, inner_->messages());
  EXPECT_EQ(1u, sink_.pending());
}

TEST_F(FoldingSinkTest, LinesWithoutASourceLineFoldByTheirTextWithoutItsNumbers) {
  sink_.write(Line("Connection from UDP: [127.0.0.1]:35109", 0, VEM_LOG_DEBUG, 2, "net-snmp"));
  sink_.write(Line("Connection from UDP: [127.0.0.1]:44125", 0, VEM_LOG_DEBUG, 2, "net-snmp"));
  sink_.write(Line("Received broken packet", 0, VEM_LOG_DEBUG, 2, "net-snmp"));
  sink_.write(Line("Received broken packet", 0, VEM_LOG_DEBUG, 2, "net-snmp"));
  EXPECT_THAT(inner_->messages(), ElementsAre("Connection from UDP: [127.0.0.1]:35109", "Received broken packet"));
  sink_.flushAll();
  const std::vector<std::string> m = inner_->messages();
  ASSERT_EQ(4u, m.size());
  // The summary names what it counted.
  EXPECT_THAT(m, ::testing::Contains("\u2026 and 1 more like this in the last 60 s: Received broken packet"));
  EXPECT_THAT(
      m, ::testing::Contains("\u2026 and 1 more like this in the last 60 s: Connection from UDP: [127.0.0.1]:35109"));
}

TEST_F(FoldingSinkTest, WarnAndDebugLinesFoldTraceLinesPass) {
  for (int i = 0; i < 3; ++i) {
    sink_.write(Line("w", 1, VEM_LOG_WARN));
    sink_.write(Line("d", 2, VEM_LOG_DEBUG));
    sink_.write(Line("enter f...", 0, VEM_LOG_TRACE, 4, ""));
  }
  EXPECT_THAT(inner_->messages(), ElementsAre("w", "d", "enter f...", "enter f...", "enter f..."));
  EXPECT_EQ(4u, sink_.pending());
}

TEST_F(FoldingSinkTest, FlushAllWritesEveryPendingCountAndForgetsTheKeys) {
  sink_.write(Line("x"));
  sink_.write(Line("x"));
  sink_.write(Line("y", 9));
  sink_.flushAll();
  EXPECT_THAT(inner_->messages(), ElementsAre("x", "y", "\u2026 and 1 more like this in the last 60 s"));
  sink_.write(Line("x"));
  EXPECT_EQ("x", inner_->messages().back()) << "after flushAll every key is new";
}

TEST(FoldingSinkLifetimeTest, DestructionWritesThePendingSummaries) {
  auto inner = std::make_shared<MemorySink>();
  {
    CVEMFoldingSink sink(inner, std::chrono::seconds(60));
    sink.write(Line("x"));
    sink.write(Line("x"));
    sink.write(Line("x"));
  }
  EXPECT_THAT(inner->messages(), ElementsAre("x", "\u2026 and 2 more like this in the last 60 s"));
}

TEST(FoldingSinkLifetimeTest, TheSummaryNamesTheWindowsSeconds) {
  auto inner = std::make_shared<MemorySink>();
  FakeClock clock;
  CVEMFoldingSink sink(inner, std::chrono::seconds(2), clock.fn());
  EXPECT_EQ(std::chrono::seconds(2), sink.window());
  sink.write(Line("x"));
  sink.write(Line("x"));
  clock.advance(std::chrono::seconds(2));
  sink.flush();
  EXPECT_THAT(inner->messages(), ElementsAre("x", "\u2026 and 1 more like this in the last 2 s"));
}

TEST(FoldingSinkLifetimeTest, ConcurrentWritersLoseNoLine) {
  auto inner = std::make_shared<MemorySink>();
  FakeClock clock;
  std::atomic<int64_t> ms{0};
  CVEMFoldingSink sink(inner, std::chrono::seconds(1),
                       [&clock, &ms] { return clock.now + std::chrono::milliseconds(ms.load()); });
  const int kThreads = 4;
  const int kLines = 2000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&sink, &ms, t] {
      for (int i = 0; i < kLines; ++i) {
        sink.write(Line("same", 10 + (i % 3)));
        if (t == 0 && i % 100 == 0) ms.fetch_add(250);  // windows end while the others write
      }
    });
  }
  for (std::thread& t : threads) t.join();
  sink.flushAll();
  // Every line is either written or counted in a summary.
  uint64_t total = 0;
  for (const CVEMLogRecord& r : inner->records) {
    if (r.message == "same") {
      ++total;
    } else {
      const std::string prefix = "\u2026 and ";
      ASSERT_EQ(0u, r.message.find(prefix)) << r.message;
      total += std::stoull(r.message.substr(prefix.size()));
      EXPECT_THAT(r.message, HasSubstr(" more like this in the last 1 s"));
    }
  }
  EXPECT_EQ(static_cast<uint64_t>(kThreads * kLines), total);
}

TEST(FoldingSinkLifetimeTest, ANullInnerSinkWritesToStderr) {
  CVEMFoldingSink sink(nullptr, std::chrono::seconds(60));
  ASSERT_NE(nullptr, sink.inner());
  EXPECT_NE(nullptr, dynamic_cast<CVEMStderrSink*>(sink.inner().get()));
}

}  // namespace
