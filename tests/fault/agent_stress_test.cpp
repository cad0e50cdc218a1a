// The agent under concurrent load: two GETBULK and two GETNEXT walkers,
// each with its own session and thread, walk the subtree again and again
// while a fifth manager switches collection off and on with SET every
// ~200 ms. The simulated array's clock is frozen, so every value the agent
// serves is known: each answer must be well formed, in order, of its
// column's type and equal to the healthy walk's value (or the table is
// empty while collection is off, or the answer is an SNMP error). The agent
// must survive and, stopped with SIGTERM, exit 0 (in the sanitizer build a
// leak or memory error would make that status non-zero).
//
// ZERVA_STRESS_SECONDS sets how long the load lasts (default 60).
#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/fault/fault_harness.h"

namespace zerva_fault {
namespace {

const double kAnswerMs = 1000;

int StressSeconds() {
  const char* text = getenv("ZERVA_STRESS_SECONDS");
  if (text == nullptr || *text == '\0') return 60;
  char* end = nullptr;
  const long v = strtol(text, &end, 10);
  if (*end != '\0' || v < 1) return 60;
  return v > 3600 ? 3600 : static_cast<int>(v);
}

// What one walker or the writer saw.
struct Tally {
  size_t requests = 0;
  size_t timeouts = 0;
  size_t errors = 0;
  size_t walks = 0;
  size_t completeWalks = 0;
  size_t wholeWalks = 0;  // complete with every table's rows
  size_t wrongData = 0;
  double maxMs = 0;
  std::vector<std::string> problems;  // the first few

  void problem(const std::string& text) {
    if (problems.size() < 5) problems.push_back(text);
  }
};

TEST(AgentStressTest, ConcurrentWalkersAndSwitchWritesGetOnlyCorrectAnswers) {
  const int seconds = StressSeconds();
  AnswerChecker checker;
  ASSERT_TRUE(checker.loaded()) << checker.error();
  AgentUnderTest rig;
  std::string error;
  ASSERT_TRUE(rig.start(TestArray(), &error)) << error;

  // The healthy walk: every value any later answer may carry.
  std::vector<VarBind> baseline;
  {
    SnmpClient client(rig.port(), "public");
    const WalkResult w = Walk(client, checker, 50, Clock::now() + std::chrono::seconds(20), 2000);
    ASSERT_TRUE(w.complete);
    baseline = w.varbinds;
    ASSERT_EQ("", CheckAgainstGroundTruth(baseline, rig.array()));
  }
  std::map<Oid, VarBind> expected;
  for (const VarBind& vb : baseline) expected[vb.name] = vb;
  const Oid switchOid = SwitchOid();

  const auto deadline = Clock::now() + std::chrono::seconds(seconds);
  std::vector<Tally> walkers(4);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < walkers.size(); ++i) {
    threads.emplace_back([&, i] {
      Tally& t = walkers[i];
      SnmpClient client(rig.port(), "public");
      const int repetitions = i < 2 ? 50 : 0;  // two GETBULK, two GETNEXT walkers
      while (Clock::now() < deadline && t.walks < 100000) {
        const WalkResult w = Walk(client, checker, repetitions, deadline, 20000);
        ++t.walks;
        t.requests += w.requests;
        t.timeouts += w.timeouts;
        t.errors += w.errors;
        t.maxMs = std::max(t.maxMs, w.maxMs);
        if (w.complete) ++t.completeWalks;
        if (w.complete && w.varbinds.size() == expected.size()) ++t.wholeWalks;
        for (const std::string& p : w.problems) t.problem(p);
        for (const VarBind& vb : w.varbinds) {
          if (vb.name == switchOid) {
            if (vb.number > 1) t.problem("switch answered as " + vb.text());
            continue;
          }
          auto e = expected.find(vb.name);
          if (e == expected.end() || !(e->second == vb)) {
            ++t.wrongData;
            t.problem("not the array's value: " + vb.text() +
                      (e == expected.end() ? " (no such instance)" : ", expected " + e->second.text()));
          }
        }
      }
    });
  }

  // The fifth manager: collection off, on, off, ... every ~200 ms.
  Tally writer;
  size_t writes = 0;
  {
    SnmpClient client(rig.port(), "private");
    unsigned long value = 0;
    while (Clock::now() < deadline && writes < 100000) {
      const Answer a = client.setUnsigned(switchOid, value);
      ++writes;
      writer.maxMs = std::max(writer.maxMs, a.ms);
      if (a.status != Answer::kAnswered) {
        ++writer.timeouts;
      } else if (a.command != 0xA2 || a.varbinds.size() != 1) {
        writer.problem("SET answer: PDU type " + std::to_string(a.command) + ", " + std::to_string(a.varbinds.size()) +
                       " varbinds");
      } else if (a.errorStatus != 0) {
        ++writer.errors;
        writer.problem("SET answered error status " + std::to_string(a.errorStatus));
      } else if (a.varbinds[0].name != switchOid || a.varbinds[0].number != value) {
        writer.problem("SET answer echoes " + a.varbinds[0].text());
      }
      value ^= 1;
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
  }
  for (std::thread& t : threads) t.join();

  size_t requests = 0, completeWalks = 0, wholeWalks = 0, errors = 0;
  double maxMs = writer.maxMs;
  for (size_t i = 0; i < walkers.size(); ++i) {
    const Tally& t = walkers[i];
    EXPECT_EQ(0u, t.timeouts) << "walker " << i << ": requests without an answer within 1 s";
    EXPECT_EQ(0u, t.wrongData) << "walker " << i;
    EXPECT_TRUE(t.problems.empty()) << "walker " << i << ": " << t.problems.front();
    EXPECT_GT(t.requests, 0u);
    requests += t.requests;
    completeWalks += t.completeWalks;
    wholeWalks += t.wholeWalks;
    errors += t.errors;
    maxMs = std::max(maxMs, t.maxMs);
  }
  EXPECT_GT(completeWalks, 0u);
  EXPECT_EQ(0u, writer.timeouts);
  EXPECT_TRUE(writer.problems.empty()) << writer.problems.front();
  EXPECT_GE(writes, static_cast<size_t>(seconds));  // about five a second
  EXPECT_LT(maxMs, kAnswerMs);
  EXPECT_TRUE(rig.process().running()) << rig.log();
  printf(
      "%d s: %zu walk requests, %zu complete walks (%zu with every row), %zu error answers, %zu writes, "
      "slowest answer %.0f ms\n",
      seconds, requests, completeWalks, wholeWalks, errors, writes, maxMs);

  // Off: the tables are empty; on again: the whole subtree, as before.
  SnmpClient client(rig.port(), "private");
  auto set = [&](unsigned long value) {
    const Answer a = client.setUnsigned(switchOid, value);
    return a.status == Answer::kAnswered && a.errorStatus == 0;
  };
  ASSERT_TRUE(set(0));
  WalkResult off = Walk(client, checker, 50, Clock::now() + std::chrono::seconds(10), 100);
  EXPECT_TRUE(off.complete);
  ASSERT_EQ(1u, off.varbinds.size());
  EXPECT_EQ(switchOid, off.varbinds[0].name);
  EXPECT_EQ(0u, off.varbinds[0].number);
  ASSERT_TRUE(set(1));
  WalkResult on = Walk(client, checker, 50, Clock::now() + std::chrono::seconds(20), 2000);
  EXPECT_TRUE(on.complete);
  EXPECT_EQ("", CompareWalks(baseline, on.varbinds));

  EXPECT_EQ(0, rig.stop()) << rig.log();
}

}  // namespace
}  // namespace zerva_fault
