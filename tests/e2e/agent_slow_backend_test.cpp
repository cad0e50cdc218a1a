// An array whose management plane is slow: the agent answers every request
// within its wait (zervaWaitMilliseconds), from the previous read while a
// refresh is late and with genErr when there is none, never by letting the
// manager time out; the embedded simulator's latency is set by
// zervaSimLatency.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "sim/array_simulator.h"
#include "tests/e2e/e2e_support.h"

namespace zerva_e2e {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// Column 2 of LUN 0.
const char kLunCell[] = "1.3.6.1.4.1.32473.4.1.21.4.1.2.0";
// Every command of the array takes this long from now on: far beyond the
// agent's wait, and beyond what the assertions below allow a request.
const uint32_t kSlowMs = 1500;

struct Timed {
  std::string out;
  milliseconds took;
};

// One GET with a 5 s timeout and no retry.
Timed Get(const AgentUnderTest& agent, const std::string& oid) {
  const steady_clock::time_point start = steady_clock::now();
  std::string out = Tool(agent, "snmpget", kReadCommunity, "-t 5 -r 0 " + oid);
  return Timed{out, std::chrono::duration_cast<milliseconds>(steady_clock::now() - start)};
}

void SlowDown(AgentUnderTest& agent) {
  zerva_sim::LatencySetting all;
  all.ms = kSlowMs;
  agent.array().setLatency(all);
}

AgentUnderTest::Options SlowArray() {
  AgentUnderTest::Options o = SmallArray();
  // Calls may take as long as the array does.
  o.extraConfig = "zervaSnapshotSeconds 1\nzervaWaitMilliseconds 200\nzervaBackendTimeout 10000\n";
  return o;
}

TEST(SlowBackendTest, ALateRefreshIsAnsweredInTimeFromThePreviousRead) {
  AgentUnderTest agent;
  std::string error;
  ASSERT_TRUE(agent.start(SlowArray(), &error)) << error;
  const Timed fresh = Get(agent, kLunCell);
  ASSERT_NE(std::string::npos, fresh.out.find("Gauge32")) << fresh.out;

  SlowDown(agent);
  std::this_thread::sleep_for(milliseconds(1200));  // the rows are older than the snapshot time
  const Timed late = Get(agent, kLunCell);
  EXPECT_EQ(fresh.out, late.out);  // the clock is frozen: the previous read's value
  EXPECT_LT(late.took, milliseconds(kSlowMs - 500)) << late.out;
  EXPECT_NE(std::string::npos, agent.log().find("the back end has not answered within 200 ms; answering from the read "
                                                "of "))
      << agent.log();
}

TEST(SlowBackendTest, AFirstReadThatIsLateIsAGenErrNotATimeout) {
  AgentUnderTest agent;
  std::string error;
  ASSERT_TRUE(agent.start(SlowArray(), &error)) << error;
  SlowDown(agent);
  const Timed late = Get(agent, kLunCell);
  EXPECT_NE(std::string::npos, late.out.find("genError")) << late.out;
  EXPECT_EQ(std::string::npos, late.out.find("Timeout")) << late.out;
  EXPECT_LT(late.took, milliseconds(kSlowMs - 500)) << late.out;
  // The read goes on (a few commands): once the array has answered, its
  // rows serve; every request meanwhile is answered at once.
  Timed later;
  const steady_clock::time_point until = steady_clock::now() + std::chrono::seconds(20);
  do {
    later = Get(agent, kLunCell);
    EXPECT_EQ(std::string::npos, later.out.find("Timeout")) << later.out;
  } while (later.out.find("Gauge32") == std::string::npos && steady_clock::now() < until);
  EXPECT_NE(std::string::npos, later.out.find("Gauge32")) << later.out << agent.log();
}

TEST(SlowBackendTest, TheEmbeddedArraysLatencyComesFromTheConfiguration) {
  AgentUnderTest::Options o = SmallArray();
  o.array = AgentUnderTest::Array::kEmbedded;
  o.extraConfig = "zervaWaitMilliseconds 200\nzervaSimLatency GET_CUR_STATISTIC_DATA=3000\n";
  AgentUnderTest agent;
  std::string error;
  ASSERT_TRUE(agent.start(o, &error)) << error;
  // The LUN statistics have a command of their own: in time.
  const Timed lun = Get(agent, kLunCell);
  EXPECT_NE(std::string::npos, lun.out.find("Gauge32")) << lun.out;
  // The node table's statistics command is slow.
  const Timed node = Get(agent, "1.3.6.1.4.1.32473.4.1.21.3.1.2.0");
  EXPECT_NE(std::string::npos, node.out.find("genError")) << node.out;
}

TEST(SlowBackendTest, AnEmbeddedLatencyNamingNoCommandIsRefusedAtStart) {
  AgentUnderTest::Options o = SmallArray();
  o.array = AgentUnderTest::Array::kEmbedded;
  o.extraConfig = "zervaSimLatency NO_SUCH_COMMAND=1\n";
  AgentUnderTest agent;
  EXPECT_NE(0, agent.runToExit(o));
  EXPECT_NE(std::string::npos, agent.log().find("the embedded simulator does not start: latency NO_SUCH_COMMAND=1: "))
      << agent.log();
}

}  // namespace
}  // namespace zerva_e2e
