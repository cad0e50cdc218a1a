// The agent as a whole process on loopback: zerva-snmp-agent with its
// embedded simulated array, asked by the Debian SNMP clients; a stock snmpd
// as AgentX master of the agent, and with the agent as its dlmod module.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/process/process_harness.h"
#include "zerva_version.h"

namespace {

using zerva_test::FreeUdpPort;
using zerva_test::kSubtree;
using zerva_test::kSwitch;
using zerva_test::Process;
using zerva_test::ReadFile;
using zerva_test::RunShell;
using zerva_test::Shape;
using zerva_test::Snmp;
using zerva_test::TempDir;

// Small simulated array so that a walk stays short.
const char kSimTokens[] =
    "zervaSimLuns 30\n"
    "zervaSimFileSystems 4\n"
    "zervaSimFeatures 7\n";

class AgentProcessTest : public ::testing::Test {
 protected:
  // Starts the agent with these extra configuration lines.
  void start(const std::string& extra, const std::string& auth = "-v2c -c public") {
    port_ = FreeUdpPort();
    const std::string conf = dir_.file("agent.conf", std::string("rocommunity public 127.0.0.1\n"
                                                                 "rwcommunity private 127.0.0.1\n") +
                                                         kSimTokens + extra);
    log_ = dir_.path() + "/agent.log";
    agent_.reset(new Process({ZERVA_AGENT_PROGRAM, "-f", "-L", "-c", conf, "--state-dir", dir_.path(), "--listen",
                              "udp:127.0.0.1:" + std::to_string(port_)},
                             log_));
    snmp_.reset(new Snmp(dir_.path(), port_));
    ASSERT_TRUE(snmp_->ready(auth)) << ReadFile(log_);
  }

  TempDir dir_;
  int port_ = 0;
  std::string log_;
  std::unique_ptr<Process> agent_;
  std::unique_ptr<Snmp> snmp_;
};

TEST_F(AgentProcessTest, AnswersV2cAndV1Get) {
  start("");
  EXPECT_NE(std::string::npos, snmp_->get(kSwitch).find(std::string(kSwitch) + " = Gauge32: 1"));
  EXPECT_NE(std::string::npos, snmp_->get(kSwitch, "-v1 -c public").find("Gauge32: 1"));
}

TEST_F(AgentProcessTest, LogsOneStartUpLineNamingWhatWhereAndWhichBackEnd) {
  start("");
  const std::string log = ReadFile(log_);
  EXPECT_NE(std::string::npos, log.find("serving ")) << log;
  EXPECT_NE(std::string::npos, log.find("libsnmp_zerva_performance.so")) << log;
  EXPECT_NE(std::string::npos, log.find("11 handlers")) << log;
  EXPECT_NE(std::string::npos, log.find("udp:127.0.0.1:" + std::to_string(port_))) << log;
  EXPECT_NE(std::string::npos, log.find("embedded simulated array")) << log;
}

TEST_F(AgentProcessTest, WalkAndBulkWalkAgree) {
  start("");
  const std::string walk = snmp_->walk();
  int rc = 0;
  const std::string bulk = snmp_->tool("snmpbulkwalk", "-v2c -c public -Cr25", kSubtree, &rc);
  EXPECT_EQ(0, rc);
  EXPECT_NE(std::string::npos, walk.find(".1.3.6.1.4.1.32473.4.1.21.4.1.1.29 = Gauge32: 29")) << walk;
  EXPECT_NE(std::string::npos, walk.find(".1.3.6.1.4.1.32473.4.1.21.14.1.")) << walk;
  EXPECT_EQ(Shape(walk), Shape(bulk));
  EXPECT_GT(Shape(walk).size(), 30u * 16);
}

TEST_F(AgentProcessTest, MissingRowIsNoSuchInstance) {
  start("");
  EXPECT_NE(std::string::npos, snmp_->get(".1.3.6.1.4.1.32473.4.1.21.4.1.2.999").find("No Such Instance"));
}

TEST_F(AgentProcessTest, SetTheSwitchOffEmptiesTheTablesAndOnAgain) {
  start("");
  int rc = 0;
  snmp_->tool("snmpset", "-v2c -c private", std::string(kSwitch) + " u 0", &rc);
  EXPECT_EQ(0, rc);
  EXPECT_NE(std::string::npos, snmp_->get(kSwitch).find("Gauge32: 0"));
  const std::string walk = snmp_->walk();
  EXPECT_EQ(std::string::npos, walk.find(".21.4.1.")) << walk;  // switched off: no LUN rows
  snmp_->tool("snmpset", "-v2c -c private", std::string(kSwitch) + " u 1", &rc);
  EXPECT_EQ(0, rc);
  EXPECT_NE(std::string::npos, snmp_->walk().find(".21.4.1.1.0 = Gauge32: 0"));
}

TEST_F(AgentProcessTest, SetOfTheWrongTypeIsRefused) {
  start("");
  const std::string out = snmp_->tool("snmpset", "-v2c -c private", std::string(kSwitch) + " s on");
  EXPECT_NE(std::string::npos, out.find("wrongType")) << out;
  EXPECT_NE(std::string::npos, snmp_->get(kSwitch).find("Gauge32: 1"));
}

TEST_F(AgentProcessTest, ReadOnlyCommunityCannotSet) {
  start("");
  int rc = 0;
  const std::string out = snmp_->tool("snmpset", "-v2c -c public", std::string(kSwitch) + " u 0", &rc);
  EXPECT_NE(0, rc);
  EXPECT_NE(std::string::npos, out.find("noAccess")) << out;
  EXPECT_NE(std::string::npos, snmp_->get(kSwitch).find("Gauge32: 1"));
}

TEST_F(AgentProcessTest, TableObjectsAreNotWritable) {
  start("");
  const std::string out = snmp_->tool("snmpset", "-v2c -c private", ".1.3.6.1.4.1.32473.4.1.21.4.1.2.0 u 5");
  EXPECT_NE(std::string::npos, out.find("notWritable")) << out;
}

TEST_F(AgentProcessTest, V3AuthPrivWithShaAndAes) {
  const std::string v3 = "-v3 -l authPriv -u zerva -a SHA -A zerva-auth-pass -x AES -X zerva-priv-pass";
  start("createUser zerva SHA zerva-auth-pass AES zerva-priv-pass\nrwuser zerva priv\n", v3);
  EXPECT_NE(std::string::npos, snmp_->get(kSwitch, v3).find("Gauge32: 1"));
  int rc = 0;
  snmp_->tool("snmpset", v3, std::string(kSwitch) + " u 0", &rc);
  EXPECT_EQ(0, rc);
  EXPECT_NE(std::string::npos, snmp_->get(kSwitch, v3).find("Gauge32: 0"));
  const std::string wrong =
      snmp_->get(kSwitch, "-v3 -l authPriv -u zerva -a SHA -A wrong-pass-123 -x AES -X zerva-priv-pass");
  EXPECT_EQ(std::string::npos, wrong.find("Gauge32")) << wrong;
}

TEST_F(AgentProcessTest, ShutsDownCleanlyOnSigterm) {
  start("");
  EXPECT_EQ(0, agent_->stop());
}

TEST(AgentProcessConfigTest, BadTokenValueIsAClearErrorAndNonZeroExit) {
  TempDir dir;
  const std::string conf = dir.file("bad.conf", "zervaSnapshotSeconds soon\n");
  int rc = 0;
  const std::string out = RunShell(std::string(ZERVA_AGENT_PROGRAM) + " -f -L -c " + conf + " --state-dir " +
                                       dir.path() + " --listen udp:127.0.0.1:" + std::to_string(FreeUdpPort()),
                                   &rc);
  EXPECT_NE(0, rc);
  EXPECT_NE(std::string::npos, out.find("zervaSnapshotSeconds")) << out;
  EXPECT_NE(std::string::npos, out.find("soon")) << out;
}

TEST(AgentProcessConfigTest, UnknownTokenIsAnError) {
  TempDir dir;
  const std::string conf = dir.file("bad.conf", "zervaNoSuchToken 1\n");
  int rc = 0;
  const std::string out = RunShell(std::string(ZERVA_AGENT_PROGRAM) + " -f -L -c " + conf + " --state-dir " +
                                       dir.path() + " --listen udp:127.0.0.1:" + std::to_string(FreeUdpPort()),
                                   &rc);
  EXPECT_NE(0, rc);
  EXPECT_NE(std::string::npos, out.find("zervaNoSuchToken")) << out;
}

TEST(AgentProcessConfigTest, UnknownOptionPrintsUsage) {
  int rc = 0;
  const std::string out = RunShell(std::string(ZERVA_AGENT_PROGRAM) + " --bogus", &rc);
  EXPECT_EQ(2, rc);
  EXPECT_NE(std::string::npos, out.find("usage:")) << out;
}

TEST(AgentProcessConfigTest, UnknownOptionIsNamedOnStderr) {
  int rc = 0;
  const std::string err = RunShell("{ " + std::string(ZERVA_AGENT_PROGRAM) + " --bogus 2>&1 >/dev/null; }", &rc);
  EXPECT_EQ(2, rc);
  EXPECT_EQ(0u, err.find("zerva-snmp-agent: unknown option '--bogus'\n")) << err;
  EXPECT_NE(std::string::npos, err.find("usage:")) << err;
}

TEST(AgentProcessConfigTest, HelpPrintsTheUsageOnStdout) {
  int rc = 0;
  const std::string out = RunShell("{ " + std::string(ZERVA_AGENT_PROGRAM) + " --help 2>/dev/null; }", &rc);
  EXPECT_EQ(0, rc);
  EXPECT_EQ(0u, out.find("usage: ")) << out;
  EXPECT_NE(std::string::npos, out.find("zervaBackend")) << out;
}

TEST(AgentProcessConfigTest, VersionPrintsTheProjectVersionOnStdout) {
  int rc = 0;
  const std::string out = RunShell("{ " + std::string(ZERVA_AGENT_PROGRAM) + " --version 2>/dev/null; }", &rc);
  EXPECT_EQ(0, rc);
  EXPECT_EQ(std::string("zerva-snmp-agent ") + ZERVA_VERSION + "\n", out);
}

TEST(AgentProcessConfigTest, MissingModuleIsAClearError) {
  TempDir dir;
  const std::string conf = dir.file("a.conf", std::string("zervaModule /nonexistent/libx.so\n") + kSimTokens);
  int rc = 0;
  const std::string out = RunShell(std::string(ZERVA_AGENT_PROGRAM) + " -f -L -c " + conf + " --state-dir " +
                                       dir.path() + " --listen udp:127.0.0.1:" + std::to_string(FreeUdpPort()),
                                   &rc);
  EXPECT_EQ(1, rc);
  EXPECT_NE(std::string::npos, out.find("/nonexistent/libx.so")) << out;
}

// A stock snmpd on loopback with a temporary configuration: no default
// configuration files, no SMUX, state in the test's directory.
std::unique_ptr<Process> StartSnmpd(const TempDir& dir, int port, const std::string& lines) {
  const std::string conf = dir.file("snmpd.conf", "rocommunity public 127.0.0.1\n" + lines);
  return std::unique_ptr<Process>(
      new Process({"/usr/bin/env", "MIBS=", "SNMP_PERSISTENT_DIR=" + dir.path(), ZERVA_SNMPD_PROGRAM, "-f", "-Lo", "-C",
                   "-c", conf, "-I", "-smux", "udp:127.0.0.1:" + std::to_string(port)},
                  dir.path() + "/snmpd.log"));
}

// The walk of the standalone agent (same simulated array) for comparison.
std::vector<std::string> StandaloneShape() {
  TempDir dir;
  const int port = FreeUdpPort();
  const std::string conf = dir.file("agent.conf", std::string("rocommunity public 127.0.0.1\n") + kSimTokens);
  Process agent({ZERVA_AGENT_PROGRAM, "-f", "-L", "-c", conf, "--state-dir", dir.path(), "--listen",
                 "udp:127.0.0.1:" + std::to_string(port)},
                dir.path() + "/agent.log");
  Snmp snmp(dir.path(), port);
  if (!snmp.ready()) return {};
  return Shape(snmp.walk());
}

// Compares two walk shapes, naming the first line where they part.
void ExpectSameShape(const std::vector<std::string>& expected, const std::vector<std::string>& actual) {
  EXPECT_EQ(expected.size(), actual.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    const std::string got = i < actual.size() ? actual[i] : "(end of walk)";
    if (expected[i] != got) {
      ADD_FAILURE() << "line " << i << ": expected " << expected[i] << ", got " << got;
      return;
    }
  }
}

TEST(AgentXTest, SubAgentOfAStockSnmpdGivesTheStandaloneWalk) {
  ASSERT_FALSE(std::string(ZERVA_SNMPD_PROGRAM).empty());
  TempDir dir;
  const int port = FreeUdpPort();
  const std::string socket = dir.path() + "/agentx.sock";
  auto snmpd = StartSnmpd(dir, port, "master agentx\nagentXSocket " + socket + "\n");
  for (int i = 0; i < 50 && access(socket.c_str(), F_OK) != 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  ASSERT_EQ(0, access(socket.c_str(), F_OK)) << ReadFile(dir.path() + "/snmpd.log");
  const std::string conf = dir.file("agent.conf", kSimTokens);
  Process agent({ZERVA_AGENT_PROGRAM, "-f", "-L", "-c", conf, "--state-dir", dir.path(), "-x", socket},
                dir.path() + "/agent.log");
  Snmp snmp(dir.path(), port);
  ASSERT_TRUE(snmp.ready()) << ReadFile(dir.path() + "/agent.log") << ReadFile(dir.path() + "/snmpd.log");
  const std::vector<std::string> walk = Shape(snmp.walk());
  EXPECT_GT(walk.size(), 30u * 16);
  ExpectSameShape(StandaloneShape(), walk);
  EXPECT_EQ(0, agent.stop());
}

TEST(DlmodTest, ModuleOfAStockSnmpdGivesTheStandaloneWalk) {
  if (ZERVA_AGENT_SANITIZED) GTEST_SKIP() << "a sanitized module cannot be loaded into an unsanitized snmpd";
  TempDir dir;
  const int port = FreeUdpPort();
  auto snmpd = StartSnmpd(dir, port, std::string("dlmod zerva_snmp_dlmod ") + ZERVA_AGENT_DLMOD + "\n" + kSimTokens);
  Snmp snmp(dir.path(), port);
  ASSERT_TRUE(snmp.ready()) << ReadFile(dir.path() + "/snmpd.log");
  const std::vector<std::string> walk = Shape(snmp.walk());
  EXPECT_GT(walk.size(), 30u * 16);
  ExpectSameShape(StandaloneShape(), walk);
  EXPECT_EQ(0, snmpd->stop());
}

}  // namespace
