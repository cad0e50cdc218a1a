// The agent against a failing back end: while a manager bulk-walks the
// served subtree, the simulated array (inside this test process) is stopped
// and restarted, answers late, or answers frames the transport must refuse.
// Every request must still be answered (data or an SNMP error) within the
// manager's 1 s timeout, the agent must stay up, and once the back end is
// healthy again the next walk must be the whole, correct subtree.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "sim/array_simulator.h"
#include "tests/fault/fault_harness.h"

namespace zerva_fault {
namespace {

using std::chrono::milliseconds;

const int kMaxRepetitions = 50;
// The manager's patience for one request.
const double kAnswerMs = 1000;
// How long each fault holds: longer than the agent's snapshot time (3 s),
// so rows kept from before the fault expire and are read through it.
const milliseconds kFaultTime(3500);
// After the back end is healthy again: longer than the transport's
// fail-fast interval after a failed connect (500 ms), which is how long the
// agent goes on refusing at once without trying the back end.
const milliseconds kRecoveryPause(700);

uint64_t TotalRequests(zerva_sim::ArraySimServer& sim) {
  uint64_t n = 0;
  for (const auto& c : sim.commandCounts()) n += c.second;
  return n;
}

class AgentFaultTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(checker_.loaded()) << checker_.error();
    std::string error;
    ASSERT_TRUE(rig_.start(TestArray(), &error)) << error;
    client_.reset(new SnmpClient(rig_.port(), "public"));
    const WalkResult w = Walk(*client_, checker_, kMaxRepetitions, Clock::now() + std::chrono::seconds(20), 2000);
    ASSERT_TRUE(w.complete) << "the walk before the fault is not complete";
    ASSERT_TRUE(w.problems.empty()) << w.problems.front();
    baseline_ = w.varbinds;
    ASSERT_EQ("", CheckAgainstGroundTruth(baseline_, rig_.array()));
    // A few hundred LUNs: the walk takes many bulk requests.
    ASSERT_GT(w.requests, 80u);
  }

  void TearDown() override { client_.reset(); }

  // Bulk-walks again and again: `inject` runs after the 5th request, the
  // walks go on for kFaultTime, then `heal` runs. Checks every answer and,
  // after kRecoveryPause, that the next walk is the baseline. During the
  // fault the walks take turns over the whole subtree and each table on its
  // own (as a table-reading manager does), so that an error in one object
  // does not keep the walks from the others.
  void RunScenario(const std::function<void()>& inject, const std::function<void()>& heal, bool countBackEndRequests) {
    std::vector<Oid> roots = {Subtree()};
    for (const zerva_agent::MibObject& o : checker_.mib().objects) {
      if (o.kind == zerva_agent::MibObject::Table) roots.push_back(Oid(o.oid.begin(), o.oid.end()));
    }
    const auto start = Clock::now();
    const auto hardEnd = start + std::chrono::seconds(30);
    bool injected = false;
    Clock::time_point injectedAt;
    uint64_t requestsBefore = 0;
    auto hook = [&](size_t n) {
      if (injected || n != 5) return;
      if (countBackEndRequests) requestsBefore = TotalRequests(rig_.simulator());
      inject();
      injected = true;
      injectedAt = Clock::now();
    };
    size_t requests = 0, timeouts = 0, errors = 0, walks = 0;
    double maxMs = 0;
    bool faultShowed = false;
    std::vector<std::string> problems;
    while (Clock::now() < hardEnd && walks < 20000) {
      const Oid& root = roots[walks % roots.size()];
      const WalkResult w = Walk(*client_, checker_, kMaxRepetitions, hardEnd, 2000, hook, root);
      ++walks;
      requests += w.requests;
      timeouts += w.timeouts;
      errors += w.errors;
      maxMs = std::max(maxMs, w.maxMs);
      problems.insert(problems.end(), w.problems.begin(), w.problems.end());
      if (injected && (!w.complete || !CompareWalks(Under(baseline_, root), w.varbinds).empty())) {
        faultShowed = true;
      }
      if (w.timeouts != 0) break;  // reported below; the agent may be gone
      if (injected && Clock::now() - injectedAt >= kFaultTime) break;
    }
    ASSERT_TRUE(injected);
    const uint64_t requestsDuring = countBackEndRequests ? TotalRequests(rig_.simulator()) - requestsBefore : 0;
    heal();
    std::this_thread::sleep_for(kRecoveryPause);

    EXPECT_EQ(0u, timeouts) << "requests without an answer within 1 s, of " << requests;
    EXPECT_LT(maxMs, kAnswerMs) << "slowest answer during the fault";
    EXPECT_TRUE(problems.empty()) << problems.front();
    EXPECT_TRUE(faultShowed) << "no walk during the fault differed from the healthy walk (" << walks << " walks, "
                             << errors << " errors)";
    if (countBackEndRequests) {
      EXPECT_GT(requestsDuring, 0u) << "the back end was not asked during the fault";
    }
    EXPECT_TRUE(rig_.process().running()) << rig_.log();

    const WalkResult after = Walk(*client_, checker_, kMaxRepetitions, Clock::now() + std::chrono::seconds(20), 2000);
    EXPECT_TRUE(after.complete) << "the walk after the fault ends early: " << after.requests << " requests, "
                                << after.errors << " errors, " << after.timeouts << " timeouts";
    EXPECT_EQ(0u, after.timeouts);
    EXPECT_LT(after.maxMs, kAnswerMs);
    EXPECT_TRUE(after.problems.empty()) << after.problems.front();
    EXPECT_EQ("", CompareWalks(baseline_, after.varbinds));
    EXPECT_EQ("", CheckAgainstGroundTruth(after.varbinds, rig_.array()));
    // Stopped, it exits cleanly (in the sanitizer build: no leak, no error
    // on the failure paths it went through).
    EXPECT_EQ(0, rig_.stop()) << rig_.log();
    RecordProperty("requests", static_cast<int>(requests));
    RecordProperty("slowest_ms", static_cast<int>(maxMs));
    printf("%zu walks, %zu requests, %zu error answers during the fault; slowest answer %.0f ms\n", walks, requests,
           errors, maxMs);
  }

  // Runs a scenario with one fault of the simulator's fault table.
  void RunFault(const std::string& rule) {
    zerva_sim::FaultRule fault;
    std::string error;
    ASSERT_TRUE(rig_.array().parseFault(rule, &fault, &error)) << error;
    RunScenario([&] { rig_.array().addFault(fault); }, [&] { rig_.array().clearFaults(); }, true);
  }

  AnswerChecker checker_;
  AgentUnderTest rig_;
  std::unique_ptr<SnmpClient> client_;
  std::vector<VarBind> baseline_;
};

TEST_F(AgentFaultTest, BackEndStoppedAndRestartedDuringBulkWalk) {
  RunScenario([&] { rig_.stopSimulator(); },
              [&] {
                std::string error;
                ASSERT_TRUE(rig_.restartSimulator(&error)) << error;
              },
              false);
}

TEST_F(AgentFaultTest, BackEndAnswersLaterThanTheCallTimeoutDuringBulkWalk) { RunFault("delay=1500"); }

TEST_F(AgentFaultTest, BackEndAnswersGarbageDuringBulkWalk) { RunFault("garbage"); }

TEST_F(AgentFaultTest, BackEndAnswersTruncatedFramesDuringBulkWalk) { RunFault("truncate"); }

TEST_F(AgentFaultTest, BackEndAnswersWrongMagicDuringBulkWalk) { RunFault("bad-magic"); }

TEST_F(AgentFaultTest, BackEndAnnouncesHugeBodyDuringBulkWalk) { RunFault("huge-len"); }

}  // namespace
}  // namespace zerva_fault
