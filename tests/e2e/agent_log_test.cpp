// The log an operator keeps: repeated lines folded, failures at once, and
// inside a stock snmpd every line of ours in snmpd's own log.
//
// Standalone, the agent logs to a file with the default configuration but
// a short fold window: bulk walks of a few thousand LUNs write the
// per-batch "query LUN performance" line once, then at most one summary per
// window that counts the rest, and a back-end failure injected afterwards
// is in the file as soon as the walk that met it returns.
//
// As a dlmod module of a stock snmpd started with -Lf FILE, against the
// array simulator in this process: a refusal the module logs and a body
// the TLV codec cannot decode (which it reports through ACE) both end up in
// FILE, and nothing of ours in what snmpd writes to stdout and stderr.
#include <gtest/gtest.h>

#include <chrono>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "sim/sim_server.h"
#include "tests/e2e/e2e_support.h"
#include "tests/process/stock_snmpd.h"

namespace zerva_e2e {
namespace {

using zerva_test::FreeUdpPort;
using zerva_test::LinesWith;
using zerva_test::ReadFile;
using zerva_test::Snmp;
using zerva_test::StockSnmpd;
using zerva_test::TempDir;

typedef std::chrono::steady_clock Clock;

// The LUN table's per-batch line (error level by the module's design).
const char kBatchLine[] = "query LUN performance. batchObjID:";
// The module's line for a LUN batch the array refuses.
const char kRefusalLine[] = "faild to query perf data";

std::string Joined(const std::vector<std::string>& lines) {
  std::string out;
  for (const std::string& l : lines) out += l.substr(0, 300) + "\n";
  return out;
}

// "… and N more like this in the last W s" lines of one function:line.
struct Summaries {
  std::vector<std::string> lines;
  unsigned long long counted = 0;
};
Summaries SummariesOf(const std::string& text, const std::string& where, unsigned int windowSeconds) {
  Summaries out;
  const std::regex summary(" " + where + " \u2026 and ([0-9]+) more like this in the last " +
                           std::to_string(windowSeconds) + " s$");
  for (const std::string& line : LinesWith(text, " " + where + " ")) {
    std::smatch m;
    if (std::regex_search(line, m, summary)) {
      out.lines.push_back(line);
      out.counted += std::stoull(m[1]);
    }
  }
  return out;
}

// The module's function:line of the batch line, as the log names it.
std::string BatchLineWhere(const std::string& text) {
  const std::vector<std::string> lines = LinesWith(text, kBatchLine);
  if (lines.empty()) return "";
  const std::smatch m = [&] {
    std::smatch r;
    std::regex_search(lines[0], r, std::regex(" ERROR 0x1002E (GetBatchTableInfo_i:[0-9]+) "));
    return r;
  }();
  return m.empty() ? "" : m[1].str();
}

TEST(StandaloneLogTest, BulkWalksWriteTheBatchLineOnceThenOneSummaryPerWindowAndAFailureAtOnce) {
  // The batch line comes while a walk reads its LUN batches; a window that
  // ends without one closes its key, so two windows must outlast the gap
  // between the batches of two walks. A walk takes about a second, several
  // under a sanitizer.
  const unsigned int kWindow = ZERVA_AGENT_SANITIZED ? 15 : 4;
  AgentUnderTest agent;
  AgentUnderTest::Options options;  // the default configuration but for the log's place and window
  options.luns = 3000;
  options.logToStderr = false;
  const std::string logPath = agent.dir().path() + "/zerva.log";
  options.extraConfig = "zervaLogFile " + logPath + "\nzervaLogFoldSeconds " + std::to_string(kWindow) + "\n";
  std::string error;
  ASSERT_TRUE(agent.start(options, &error)) << error;
  const zerva_agent::MibObject* luns = MibTable("vemPerfLunTable");
  ASSERT_NE(nullptr, luns);

  // The walks one after the other: while they run the array is asked again
  // each time the rows' snapshot (3 s) expires, in every window (4 s) anew.
  const Clock::time_point start = Clock::now();
  for (int walk = 0; walk < 5; ++walk) {
    int rc = -1;
    const std::string out = Tool(agent, "snmpbulkwalk", kReadCommunity, "-Cr50 " + OidText(luns->oid), &rc);
    ASSERT_EQ(0, rc) << out;
    ASSERT_GT(ParseWalk(out).lines.size(), 3000u) << "walk " << walk;
  }
  // Past the last window (and the snapshot time) every counted line is in
  // a summary; the agent flushes its windows once a second.
  std::this_thread::sleep_for(std::chrono::milliseconds(kWindow * 1000 + 1500));
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();

  const std::string text = ReadFile(logPath);
  const std::vector<std::string> batchLines = LinesWith(text, kBatchLine);
  ASSERT_EQ(1u, batchLines.size()) << Joined(batchLines);
  const std::string where = BatchLineWhere(text);
  ASSERT_FALSE(where.empty()) << batchLines[0];
  const Summaries summaries = SummariesOf(text, where, kWindow);
  EXPECT_GE(summaries.lines.size(), 1u) << text.substr(0, 4000);
  EXPECT_LE(summaries.lines.size(), static_cast<size_t>(seconds / kWindow) + 1) << Joined(summaries.lines);
  // Nothing is lost: the line once plus what the summaries counted is one
  // line per LUN batch the array answered.
  const uint64_t batches = agent.requests(zerva_sim::kLunBatchStatsCmd);
  EXPECT_GE(batches, 19u) << "3000 LUNs in batches of 160";
  EXPECT_EQ(batches, 1 + summaries.counted) << Joined(summaries.lines);
  EXPECT_LT(text.size(), 8000u) << "5 walks of 3000 LUNs in a few lines";

  // A failure afterwards is a new line: in the file when the walk returns.
  EXPECT_TRUE(LinesWith(text, kRefusalLine).empty());
  zerva_sim::FaultRule fault;
  ASSERT_TRUE(agent.array().parseFault("refuse=0x53494D7E,cmd=LUN_BATCH_STATS", &fault, &error)) << error;
  agent.array().addFault(fault);
  int rc = -1;
  const std::string out = Tool(agent, "snmpbulkwalk", kReadCommunity, "-Cr50 " + OidText(luns->oid), &rc);
  EXPECT_NE(std::string::npos, out.find("genError")) << out;
  const std::vector<std::string> refusals = LinesWith(ReadFile(logPath), kRefusalLine);
  ASSERT_EQ(1u, refusals.size()) << ReadFile(logPath).substr(0, 4000);
  EXPECT_NE(std::string::npos, refusals[0].find("[kit 4] ERROR 0x1002E QueryPerfLunData:")) << refusals[0];
  EXPECT_EQ("", agent.log()) << "nothing on stdout or stderr";
}

TEST(DlmodLogTest, ModuleAndCodecLinesGoToSnmpdsLogFileAndNotToItsOutput) {
  if (ZERVA_AGENT_SANITIZED) GTEST_SKIP() << "a sanitized module cannot be loaded into an unsanitized snmpd";
  TempDir dir;
  zerva_sim::SimOptions simOptions;
  simOptions.luns = 400;
  simOptions.listen = "unix:" + dir.path() + "/backend.sock";
  simOptions.deviceConfig = std::string(ZERVA_E2E_SOURCE_DIR) + "/host/vempub/config/vem-device.xml";
  zerva_sim::ArraySimServer sim(simOptions);
  std::string error;
  ASSERT_TRUE(sim.start(&error)) << error;

  const int port = FreeUdpPort();
  const std::string logFile = dir.path() + "/snmpd-file.log";
  StockSnmpd snmpd(dir);
  ASSERT_TRUE(snmpd.start(
      port, "rocommunity public 127.0.0.1\n" + StockSnmpd::DlmodLine() + "zervaBackend " + sim.address() + "\n", &error,
      {"-Lf", logFile}))
      << error;
  Snmp snmp(dir.path(), port);
  ASSERT_TRUE(snmp.ready()) << snmpd.log() << ReadFile(logFile);

  // The array refuses the LUN batches and answers the node table's
  // statistics with a body that does not decode.
  zerva_sim::FaultRule fault;
  ASSERT_TRUE(sim.array().parseFault("refuse=0x53494D7E,cmd=LUN_BATCH_STATS", &fault, &error)) << error;
  sim.array().addFault(fault);
  ASSERT_TRUE(sim.array().parseFault("bad-body,cmd=GET_CUR_STATISTIC_DATA", &fault, &error)) << error;
  sim.array().addFault(fault);
  const zerva_agent::MibObject* luns = MibTable("vemPerfLunTable");
  const zerva_agent::MibObject* nodes = MibTable("vemPerfNodeTable");
  ASSERT_NE(nullptr, luns);
  ASSERT_NE(nullptr, nodes);
  EXPECT_NE(std::string::npos, snmp.tool("snmpbulkwalk", "-v2c -c public", OidText(luns->oid)).find("genError"));
  EXPECT_NE(std::string::npos, snmp.tool("snmpbulkwalk", "-v2c -c public", OidText(nodes->oid)).find("genError"));
  EXPECT_EQ(0, snmpd.stop());

  const std::string text = ReadFile(logFile);
  // The start-up line, the module's refusal, the codec's error (kit 3, from
  // ACE) and the transport's view of it (kit 1).
  EXPECT_EQ(1u, LinesWith(text, "[kit 2] WARN 0xFFFF start:").size()) << text;
  const std::vector<std::string> refusals = LinesWith(text, kRefusalLine);
  ASSERT_FALSE(refusals.empty()) << text;
  EXPECT_NE(std::string::npos, refusals[0].find("[kit 4] ERROR 0x1002E QueryPerfLunData:")) << refusals[0];
  const std::vector<std::string> codec = LinesWith(text, "[kit 3] ERROR 0x1002E vem_message_package.cpp:");
  ASSERT_FALSE(codec.empty()) << text;
  EXPECT_FALSE(LinesWith(text, "record length is too long").empty()) << Joined(codec);
  EXPECT_FALSE(LinesWith(text, "bytes does not decode").empty()) << text;
  EXPECT_TRUE(LinesWith(text, "LM_ERROR").empty()) << "ACE's own prefix is not kept: " << text;

  const std::string output = snmpd.log();
  for (const char* ours : {"[kit ", "LM_ERROR", kRefusalLine, "record length is too long", "zerva"}) {
    EXPECT_EQ(std::string::npos, output.find(ours)) << ours << " in snmpd's output:\n" << output;
  }
}

}  // namespace
}  // namespace zerva_e2e
