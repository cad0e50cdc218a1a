// The AgentX example that ships with the agent (examples/agentx), as an
// administrator uses it: a stock snmpd reads the snmpd.conf.d lines, the
// agent reads its example configuration, and SNMP clients ask snmpd.
//
// The test reads the example files themselves and changes only what a test
// machine must: the AgentX socket moves into the test's directory, the
// socket's owners (Debian-snmp, zerva) are left to the user running the
// test, and the back end is the simulator in this process. Debian's stock
// snmpd.conf lines that the example builds on (the view "systemonly" and
// the community "public" reading it from this host) are written here as
// Debian ships them.
#include <gtest/gtest.h>

#include <chrono>
#include <regex>
#include <sstream>
#include <string>
#include <thread>

#include <unistd.h>

#include "sim/sim_server.h"
#include "tests/e2e/e2e_support.h"
#include "tests/process/agent_under_test.h"
#include "tests/process/stock_snmpd.h"

namespace zerva_e2e {
namespace {

using zerva_test::AgentUnderTest;
using zerva_test::FreeUdpPort;
using zerva_test::Process;
using zerva_test::ReadFile;
using zerva_test::Snmp;
using zerva_test::StockSnmpd;
using zerva_test::TempDir;

const char kExampleSocket[] = "unix:/run/zerva-agentx/master";
const char kExampleBackend[] = "unix:/run/zerva-array-sim/array.sock";
const char kExamplePerms[] = "agentXPerms 0660 0750 Debian-snmp zerva";

std::string Example(const std::string& name) {
  return ReadFile(std::string(ZERVA_E2E_SOURCE_DIR) + "/examples/agentx/" + name);
}

// Replaces the one occurrence of `from` in *text; false when there is not
// exactly one (the example changed: the test must be looked at).
bool ReplaceOnce(std::string* text, const std::string& from, const std::string& to) {
  const size_t at = text->find(from);
  if (at == std::string::npos || text->find(from, at + 1) != std::string::npos) return false;
  text->replace(at, from.size(), to);
  return true;
}

TEST(AgentXExampleTest, StockSnmpdWithTheExampleLinesServesTheAgentWithItsExampleConfiguration) {
  if (ZERVA_AGENT_SANITIZED) GTEST_SKIP() << "the sanitized agent is covered by the AgentX tests of the harness";
  TempDir dir;
  zerva_sim::SimOptions simOptions;
  simOptions.listen = "unix:" + dir.path() + "/backend.sock";
  simOptions.deviceConfig = std::string(ZERVA_E2E_SOURCE_DIR) + "/host/vempub/config/vem-device.xml";
  zerva_sim::ArraySimServer sim(simOptions);
  std::string error;
  ASSERT_TRUE(sim.start(&error)) << error;

  const std::string socket = "unix:" + dir.path() + "/agentx/master";
  std::string snmpdLines = Example("zerva.conf");
  ASSERT_TRUE(ReplaceOnce(&snmpdLines, kExampleSocket, socket)) << snmpdLines;
  ASSERT_TRUE(ReplaceOnce(&snmpdLines, kExamplePerms, "agentXPerms 0660 0750")) << snmpdLines;
  // Debian's snmpd.conf: the view and the community the example extends.
  const std::string debianLines =
      "view systemonly included .1.3.6.1.2.1.1\n"
      "rocommunity public 127.0.0.1 -V systemonly\n";
  const int port = FreeUdpPort();
  StockSnmpd snmpd(dir);
  ASSERT_TRUE(snmpd.start(port, debianLines + snmpdLines, &error)) << error;
  for (int i = 0; i < 50 && access((dir.path() + "/agentx/master").c_str(), F_OK) != 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }

  std::string agentLines = Example("zerva-snmp-agent-agentx.conf");
  ASSERT_TRUE(ReplaceOnce(&agentLines, kExampleSocket, socket)) << agentLines;
  ASSERT_TRUE(ReplaceOnce(&agentLines, kExampleBackend, sim.address())) << agentLines;
  const std::string agentConf = dir.file("zerva-snmp-agent-agentx.conf", agentLines);
  Process agent({AgentUnderTest::Program(), "-f", "-L", "-c", agentConf, "--state-dir", dir.path() + "/state"},
                dir.path() + "/agent.log");

  Snmp snmp(dir.path(), port);
  ASSERT_TRUE(snmp.ready()) << "snmpd:\n" << snmpd.log() << "agent:\n" << ReadFile(dir.path() + "/agent.log");
  EXPECT_NE(std::string::npos, snmp.get(OidText(SwitchOid())).find("Gauge32: 1"));

  // Every row of the port table, through snmpd, and nothing beyond it.
  const zerva_agent::MibObject* ports = MibTable("vemPerfPortTable");
  ASSERT_NE(nullptr, ports);
  const std::string prefix = OidText(ports->oid);
  const std::string walk = snmp.tool("snmpbulkwalk", "-v2c -c public -On", prefix);
  std::istringstream lines(walk);
  std::string line;
  int inTable = 0;
  while (std::getline(lines, line)) {
    ASSERT_EQ(0u, line.find(prefix + ".")) << line << "\n" << walk;
    ++inTable;
  }
  EXPECT_GT(inTable, 0) << walk;
  EXPECT_EQ(0u, inTable % ports->columns.size()) << walk;
  // The system group stays as Debian serves it.
  EXPECT_NE(std::string::npos, snmp.get("1.3.6.1.2.1.1.5.0").find("STRING")) << snmpd.log();
}

}  // namespace
}  // namespace zerva_e2e
