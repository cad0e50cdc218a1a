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

#include "tests/process/agent_under_test.h"
#include "tests/process/process_harness.h"
#include "tests/process/stock_snmpd.h"
#include "zerva_version.h"

namespace {

using zerva_test::AgentUnderTest;
using zerva_test::FreeUdpPort;
using zerva_test::kSubtree;
using zerva_test::kSwitch;
using zerva_test::Process;
using zerva_test::ReadFile;
using zerva_test::RunShell;
using zerva_test::Shape;
using zerva_test::Snmp;
using zerva_test::StockSnmpd;
using zerva_test::TempDir;

// The agent's embedded simulated array, small so that a walk stays short.
AgentUnderTest::Options SmallEmbeddedArray() {
  AgentUnderTest::Options o;
  o.array = AgentUnderTest::Array::kEmbedded;
  o.luns = 30;
  o.fileSystems = 4;
  o.features = 7;
  return o;
}

class AgentProcessTest : public ::testing::Test {
 protected:
  // Starts the agent with these extra configuration lines.
  void start(const std::string& extra, const std::string& auth = "-v2c -c public") {
    AgentUnderTest::Options options = SmallEmbeddedArray();
    options.extraConfig = extra;
    options.readyAuth = auth;
    std::string error;
    ASSERT_TRUE(agent_.start(options, &error)) << error;
  }
  const Snmp& snmp() const { return agent_.snmp(); }

  AgentUnderTest agent_;
};

TEST_F(AgentProcessTest, AnswersV2cAndV1Get) {
  start("");
  EXPECT_NE(std::string::npos, snmp().get(kSwitch).find(std::string(kSwitch) + " = Gauge32: 1"));
  EXPECT_NE(std::string::npos, snmp().get(kSwitch, "-v1 -c public").find("Gauge32: 1"));
}

TEST_F(AgentProcessTest, LogsOneStartUpLineNamingWhatWhereAndWhichBackEnd) {
  start("");
  const std::string log = agent_.log();
  EXPECT_NE(std::string::npos, log.find("serving ")) << log;
  EXPECT_NE(std::string::npos, log.find("libsnmp_zerva_performance.so")) << log;
  EXPECT_NE(std::string::npos, log.find("11 handlers")) << log;
  EXPECT_NE(std::string::npos, log.find("udp:127.0.0.1:" + std::to_string(agent_.port()))) << log;
  EXPECT_NE(std::string::npos, log.find("embedded simulated array")) << log;
}

TEST_F(AgentProcessTest, WalkAndBulkWalkAgree) {
  start("");
  const std::string walk = snmp().walk();
  int rc = 0;
  const std::string bulk = snmp().tool("snmpbulkwalk", "-v2c -c public -Cr25", kSubtree, &rc);
  EXPECT_EQ(0, rc);
  EXPECT_NE(std::string::npos, walk.find(".1.3.6.1.4.1.32473.4.1.21.4.1.1.29 = Gauge32: 29")) << walk;
  EXPECT_NE(std::string::npos, walk.find(".1.3.6.1.4.1.32473.4.1.21.14.1.")) << walk;
  EXPECT_EQ(Shape(walk), Shape(bulk));
  EXPECT_GT(Shape(walk).size(), 30u * 16);
}

TEST_F(AgentProcessTest, MissingRowIsNoSuchInstance) {
  start("");
  EXPECT_NE(std::string::npos, snmp().get(".1.3.6.1.4.1.32473.4.1.21.4.1.2.999").find("No Such Instance"));
}

TEST_F(AgentProcessTest, SetOfTheWrongTypeIsRefused) {
  start("");
  const std::string out = snmp().tool("snmpset", "-v2c -c private", std::string(kSwitch) + " s on");
  EXPECT_NE(std::string::npos, out.find("wrongType")) << out;
  EXPECT_NE(std::string::npos, snmp().get(kSwitch).find("Gauge32: 1"));
}

TEST_F(AgentProcessTest, ReadOnlyCommunityCannotSet) {
  start("");
  int rc = 0;
  const std::string out = snmp().tool("snmpset", "-v2c -c public", std::string(kSwitch) + " u 0", &rc);
  EXPECT_NE(0, rc);
  EXPECT_NE(std::string::npos, out.find("noAccess")) << out;
  EXPECT_NE(std::string::npos, snmp().get(kSwitch).find("Gauge32: 1"));
}

TEST_F(AgentProcessTest, TableObjectsAreNotWritable) {
  start("");
  const std::string out = snmp().tool("snmpset", "-v2c -c private", ".1.3.6.1.4.1.32473.4.1.21.4.1.2.0 u 5");
  EXPECT_NE(std::string::npos, out.find("notWritable")) << out;
}

TEST_F(AgentProcessTest, V3AuthPrivWithShaAndAes) {
  const std::string v3 = "-v3 -l authPriv -u zerva -a SHA -A zerva-auth-pass -x AES -X zerva-priv-pass";
  start("createUser zerva SHA zerva-auth-pass AES zerva-priv-pass\nrwuser zerva priv\n", v3);
  EXPECT_NE(std::string::npos, snmp().get(kSwitch, v3).find("Gauge32: 1"));
  int rc = 0;
  snmp().tool("snmpset", v3, std::string(kSwitch) + " u 0", &rc);
  EXPECT_EQ(0, rc);
  EXPECT_NE(std::string::npos, snmp().get(kSwitch, v3).find("Gauge32: 0"));
}

TEST_F(AgentProcessTest, ShutsDownCleanlyOnSigterm) {
  start("");
  EXPECT_EQ(0, agent_.stop());
}

// Runs the agent on the small embedded array with these configuration
// lines until it exits: its exit status; *output what it wrote.
int RunWithConfig(const std::string& lines, std::string* output) {
  AgentUnderTest agent;
  AgentUnderTest::Options options = SmallEmbeddedArray();
  options.extraConfig = lines;
  const int status = agent.runToExit(options);
  *output = agent.log();
  return status;
}

// The agent refuses these configuration lines: it exits with a non-zero
// status, naming each of `named` in what it writes.
void ExpectConfigRefused(const std::string& lines, const std::vector<std::string>& named) {
  std::string out;
  const int rc = RunWithConfig(lines, &out);
  EXPECT_NE(0, rc) << out;
  EXPECT_NE(-1, rc) << "still running: " << out;
  for (const std::string& text : named) EXPECT_NE(std::string::npos, out.find(text)) << text << " in:\n" << out;
}

TEST(AgentProcessConfigTest, BadTokenValueIsAClearErrorAndNonZeroExit) {
  ExpectConfigRefused("zervaSnapshotSeconds soon\n", {"zervaSnapshotSeconds", "soon"});
}

TEST(AgentProcessConfigTest, BadLogTokensAreErrorsNamingFileAndLine) {
  ExpectConfigRefused("zervaKitLogLevel 4 loud\n",
                      {"agent.conf: line ", "zervaKitLogLevel: '4 loud': 'loud' is not one of"});
  ExpectConfigRefused("zervaLogFoldSeconds 1m\n", {"agent.conf: line ", "zervaLogFoldSeconds: '1m' is not a number"});
}

TEST(AgentProcessConfigTest, UnknownTokenIsAnError) {
  ExpectConfigRefused("zervaNoSuchToken 1\n", {"zervaNoSuchToken"});
}

// Runs the agent with this command-line option and returns what it writes
// to stderr (its stdout thrown away), or to stdout (its stderr thrown away);
// *rc is its exit code.
enum class Stream { kStdout, kStderr };
std::string RunAgentWithOption(const std::string& option, Stream stream, int* rc) {
  const std::string redirect = stream == Stream::kStderr ? " 2>&1 >/dev/null" : " 2>/dev/null";
  return RunShell("{ " + AgentUnderTest::Program() + " " + option + redirect + "; }", rc);
}

TEST(AgentProcessConfigTest, UnknownOptionIsNamedOnStderr) {
  int rc = 0;
  const std::string err = RunAgentWithOption("--bogus", Stream::kStderr, &rc);
  EXPECT_EQ(2, rc);
  EXPECT_EQ(0u, err.find("zerva-snmp-agent: unknown option '--bogus'\n")) << err;
  EXPECT_NE(std::string::npos, err.find("usage:")) << err;
}

TEST(AgentProcessConfigTest, HelpPrintsTheUsageOnStdout) {
  int rc = 0;
  const std::string out = RunAgentWithOption("--help", Stream::kStdout, &rc);
  EXPECT_EQ(0, rc);
  EXPECT_EQ(0u, out.find("usage: ")) << out;
  EXPECT_NE(std::string::npos, out.find("zervaBackend")) << out;
}

TEST(AgentProcessConfigTest, VersionPrintsTheProjectVersionOnStdout) {
  int rc = 0;
  const std::string out = RunAgentWithOption("--version", Stream::kStdout, &rc);
  EXPECT_EQ(0, rc);
  EXPECT_EQ(std::string("zerva-snmp-agent ") + ZERVA_VERSION + "\n", out);
}

TEST(AgentProcessConfigTest, MissingModuleIsAClearError) {
  std::string out;
  EXPECT_EQ(1, RunWithConfig("zervaModule /nonexistent/libx.so\n", &out));
  EXPECT_NE(std::string::npos, out.find("/nonexistent/libx.so")) << out;
}

// The embedded array of SmallEmbeddedArray() as snmpd.conf lines for the
// agent loaded as a dlmod module.
const char kDlmodSimTokens[] =
    "zervaSimLuns 30\n"
    "zervaSimFileSystems 4\n"
    "zervaSimFeatures 7\n"
    "zervaSimSeed 7\n";

// The walk of the standalone agent (same simulated array) for comparison.
std::vector<std::string> StandaloneShape() {
  AgentUnderTest agent;
  std::string error;
  if (!agent.start(SmallEmbeddedArray(), &error)) {
    ADD_FAILURE() << error;
    return {};
  }
  return Shape(agent.snmp().walk());
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
  TempDir dir;
  const int port = FreeUdpPort();
  StockSnmpd snmpd(dir);
  std::string error;
  ASSERT_TRUE(snmpd.startMaster(port, "", &error)) << error;
  AgentUnderTest agent;
  AgentUnderTest::Options options = SmallEmbeddedArray();
  options.communities = false;  // the master holds the access control
  options.agentxMaster = snmpd.agentxSocket();
  options.port = port;
  ASSERT_TRUE(agent.start(options, &error)) << error << snmpd.log();
  const std::vector<std::string> walk = Shape(agent.snmp().walk());
  EXPECT_GT(walk.size(), 30u * 16);
  ExpectSameShape(StandaloneShape(), walk);
  EXPECT_EQ(0, agent.stop());
}

// Two sub-agents of one master: the first serves, the master refuses the
// second's registrations (duplicateRegistration).
class AgentXTwoInstancesTest : public ::testing::Test {
 protected:
  void startMaster() {
    std::string error;
    ASSERT_TRUE(snmpd_.startMaster(port_, "", &error)) << error;
  }
  // The small embedded array as a sub-agent of the master.
  AgentUnderTest::Options subAgent() const {
    AgentUnderTest::Options options = SmallEmbeddedArray();
    options.communities = false;  // the master holds the access control
    options.agentxMaster = snmpd_.agentxSocket();
    options.port = port_;
    return options;
  }
  // What the first instance serves through the master now: the switch's GET
  // and the walk's names and types.
  struct Served {
    std::string switchGet;
    std::vector<std::string> walk;
  };
  Served served(const AgentUnderTest& agent) const {
    return Served{agent.snmp().get(kSwitch), Shape(agent.snmp().walk())};
  }
  void expectStillServed(const AgentUnderTest& agent, const Served& before) const {
    const Served after = served(agent);
    EXPECT_NE(std::string::npos, after.switchGet.find(std::string(kSwitch) + " = Gauge32: 1")) << after.switchGet;
    EXPECT_EQ(before.switchGet, after.switchGet);
    ExpectSameShape(before.walk, after.walk);
  }

  TempDir dir_;  // declared first: removed last
  const int port_ = FreeUdpPort();
  StockSnmpd snmpd_{dir_};
};

const char kRefusedSwitch[] =
    "cannot register vemPerfSwitch 1.3.6.1.4.1.32473.4.1.21.1 at the AgentX master: duplicateRegistration (263) "
    "(another agent serves it?)";

TEST_F(AgentXTwoInstancesTest, SecondInstanceExitsNonZeroAndTheFirstStaysServed) {
  ASSERT_NO_FATAL_FAILURE(startMaster());
  AgentUnderTest first;
  std::string error;
  ASSERT_TRUE(first.start(subAgent(), &error)) << error << snmpd_.log();
  const Served before = served(first);
  EXPECT_GT(before.walk.size(), 30u * 16);

  AgentUnderTest second;
  const int status = second.runToExit(subAgent());
  const std::string log = second.log();
  EXPECT_EQ(1, status) << log;
  EXPECT_NE(std::string::npos, log.find(std::string("zerva-snmp-agent: ") + kRefusedSwitch)) << log;
  EXPECT_EQ(std::string::npos, log.find("serving ")) << log;

  // Its exit took none of the first instance's registrations with it.
  expectStillServed(first, before);
}

TEST_F(AgentXTwoInstancesTest, InstanceRefusedWhenItsMasterComesLeavesTheServingOneAlone) {
  // The second instance starts while the master is away: Net-SNMP sends its
  // registrations once it reconnects (every agentxPingInterval, 5 s), when
  // the first instance serves the subtree already.
  AgentUnderTest second;
  std::string error;
  ASSERT_TRUE(second.launch(subAgent(), &error)) << error;
  for (int i = 0; i < 50 && second.log().find("serving ") == std::string::npos; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  ASSERT_NE(std::string::npos, second.log().find("Failed to connect to the agentx master")) << second.log();

  ASSERT_NO_FATAL_FAILURE(startMaster());
  AgentUnderTest first;
  ASSERT_TRUE(first.start(subAgent(), &error)) << error << snmpd_.log();
  const Served before = served(first);
  for (int i = 0; i < 100 && second.log().find(kRefusedSwitch) == std::string::npos; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  EXPECT_NE(std::string::npos, second.log().find(kRefusedSwitch)) << second.log();

  // Refused, it is dropped without an AgentX unregister: the first
  // instance's registrations stay with the master.
  EXPECT_EQ(0, second.stop()) << second.log();
  expectStillServed(first, before);
}

TEST(AgentXTest, SubAgentStartedBeforeItsMasterServesOnceTheMasterIsThere) {
  TempDir dir;
  const int port = FreeUdpPort();
  StockSnmpd snmpd(dir);
  AgentUnderTest agent;
  AgentUnderTest::Options options = SmallEmbeddedArray();
  options.communities = false;
  options.agentxMaster = snmpd.agentxSocket();
  options.port = port;
  options.extraConfig = "agentxPingInterval 1\n";  // how often it tries to reconnect
  std::string error;
  ASSERT_TRUE(agent.launch(options, &error)) << error;
  for (int i = 0; i < 50 && agent.log().find("serving ") == std::string::npos; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  ASSERT_NE(std::string::npos, agent.log().find("Failed to connect to the agentx master")) << agent.log();

  ASSERT_TRUE(snmpd.startMaster(port, "", &error)) << error;
  ASSERT_TRUE(agent.snmp().ready()) << agent.log() << snmpd.log();
  const std::vector<std::string> walk = Shape(agent.snmp().walk());
  EXPECT_GT(walk.size(), 30u * 16);
  ExpectSameShape(StandaloneShape(), walk);
  EXPECT_EQ(0, agent.stop());
}

TEST(DlmodTest, ModuleOfAStockSnmpdGivesTheStandaloneWalk) {
  if (ZERVA_AGENT_SANITIZED) GTEST_SKIP() << "a sanitized module cannot be loaded into an unsanitized snmpd";
  TempDir dir;
  const int port = FreeUdpPort();
  StockSnmpd snmpd(dir);
  std::string error;
  ASSERT_TRUE(snmpd.start(port, "rocommunity public 127.0.0.1\n" + StockSnmpd::DlmodLine() + kDlmodSimTokens, &error))
      << error;
  Snmp snmp(dir.path(), port);
  ASSERT_TRUE(snmp.ready()) << snmpd.log();
  const std::vector<std::string> walk = Shape(snmp.walk());
  EXPECT_GT(walk.size(), 30u * 16);
  ExpectSameShape(StandaloneShape(), walk);
  EXPECT_EQ(0, snmpd.stop());
}

}  // namespace
