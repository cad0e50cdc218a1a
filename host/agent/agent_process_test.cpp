// The agent as a whole process on loopback: zerva-snmp-agent with its
// embedded simulated array, asked by the Debian SNMP clients; a stock snmpd
// as AgentX master of the agent, and with the agent as its dlmod module.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>

#include <chrono>
#include <memory>
#include <sstream>
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
using zerva_test::LinesWith;
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

// ------------------------------------------------- listening beyond loopback

// The small embedded array as configuration lines of the agent program.
const char kEmbeddedArrayLines[] = "zervaBackend embedded\nzervaSimLuns 30\nzervaSimFileSystems 4\nzervaSimSeed 7\n";

// An address of TEST-NET-1 (RFC 5737): other hosts would reach it, and this
// host has no such address, so the agent can never bind it in a test.
std::string UnreachableAddress(const std::string& transport, int port) {
  return transport + ":192.0.2.1:" + std::to_string(port);
}

// Runs the agent with these arguments until it exits (at most 15 s): its
// exit code, and *output what it wrote.
int RunAgent(const std::string& args, std::string* output) {
  int rc = 0;
  *output = RunShell("timeout 15 " + AgentUnderTest::Program() + " -f -L " + args + " 2>&1", &rc);
  return rc;
}

std::string Refusal(const std::string& where, const std::string& what, const std::string& address) {
  return "zerva-snmp-agent: " + where + ": " + what +
         " ships with zerva-snmp-agent; choose your own before listening on " + address + "\n";
}

TEST(AgentListenSafetyTest, ShippedCommunityBeyondLoopbackIsRefusedNamingFileAndLine) {
  TempDir dir;
  const std::string conf = dir.file(
      "agent.conf", std::string("# ours\nrocommunity s3cret-of-ours 127.0.0.1\nrocommunity public 127.0.0.1\n") +
                        kEmbeddedArrayLines);
  const std::string address = UnreachableAddress("udp", FreeUdpPort());
  std::string out;
  EXPECT_EQ(1, RunAgent("-c " + conf + " --state-dir " + dir.path() + " --listen " + address, &out));
  EXPECT_NE(std::string::npos, out.find(Refusal(conf + ": line 3", "community \"public\"", address))) << out;
  EXPECT_EQ(1u, LinesWith(out, "ships with").size()) << out;
  EXPECT_EQ(std::string::npos, out.find("cannot listen")) << out;
  EXPECT_EQ(std::string::npos, out.find("serving ")) << out;
}

TEST(AgentListenSafetyTest, AgentaddressOfTheFileIsCheckedToo) {
  TempDir dir;
  const std::string address = UnreachableAddress("tcp", FreeUdpPort());
  const std::string conf =
      dir.file("agent.conf", "agentaddress " + address + "\nrwcommunity6 private ::1\n" + kEmbeddedArrayLines);
  std::string out;
  EXPECT_EQ(1, RunAgent("-c " + conf, &out));
  EXPECT_NE(std::string::npos, out.find(Refusal(conf + ": line 2", "community \"private\"", address))) << out;
}

TEST(AgentListenSafetyTest, DemoConfigurationIsRefusedBeyondLoopbackLineByLine) {
  const std::string demo = std::string(ZERVA_SOURCE_DIR) + "/host/agent/demo.conf";
  const std::string address = UnreachableAddress("udp", FreeUdpPort());
  std::string out;
  EXPECT_EQ(1, RunAgent("-c " + demo + " --listen " + address, &out));
  EXPECT_EQ(4u, LinesWith(out, "ships with zerva-snmp-agent").size()) << out;
  // Each credential is named with the demo file's line that holds it.
  std::vector<std::string> lines;
  std::istringstream text(ReadFile(demo));
  for (std::string line; std::getline(text, line);) lines.push_back(line);
  for (const std::pair<const char*, const char*>& c :
       std::vector<std::pair<const char*, const char*>>{{"community", "public"},
                                                        {"community", "private"},
                                                        {"passphrase", "zerva-auth-pass"},
                                                        {"passphrase", "zerva-priv-pass"}}) {
    size_t number = 0;
    for (size_t i = 0; i < lines.size() && number == 0; ++i) {
      if (lines[i][0] != '#' && lines[i].find(c.second) != std::string::npos) number = i + 1;
    }
    ASSERT_NE(0u, number) << c.second;
    EXPECT_NE(std::string::npos, out.find(Refusal(demo + ": line " + std::to_string(number),
                                                  c.first + std::string(" \"") + c.second + "\"", address)))
        << c.second << " in:\n"
        << out;
  }
}

TEST(AgentListenSafetyTest, BuiltInConfigurationIsRefusedBeyondLoopback) {
  const std::string address = UnreachableAddress("udp", FreeUdpPort());
  std::string out;
  EXPECT_EQ(1, RunAgent("--listen " + address, &out));
  EXPECT_NE(std::string::npos, out.find(Refusal("the built-in configuration (no -c)", "community \"public\"", address)))
      << out;
}

TEST(AgentListenSafetyTest, OwnCommunityBeyondLoopbackPassesTheCheck) {
  if (ReadFile("/proc/sys/net/ipv4/ip_nonlocal_bind").find('1') != std::string::npos) {
    GTEST_SKIP() << "this host binds addresses it does not have (ip_nonlocal_bind)";
  }
  TempDir dir;
  const std::string conf =
      dir.file("agent.conf", std::string("rocommunity s3cret-of-ours 192.0.2.0/24\n") +
                                 "createUser u SHA own-auth-pass AES own-priv-pass\n" + kEmbeddedArrayLines);
  const std::string address = UnreachableAddress("udp", FreeUdpPort());
  std::string out;
  // Past the check, the agent tries to bind the address, which this host
  // does not have.
  EXPECT_EQ(1, RunAgent("-c " + conf + " --state-dir " + dir.path() + " --listen " + address, &out));
  EXPECT_EQ(std::string::npos, out.find("ships with")) << out;
  EXPECT_NE(std::string::npos, out.find("zerva-snmp-agent: cannot listen on " + address)) << out;
}

TEST(AgentListenSafetyTest, ShippedCommunityOnAnotherLoopbackAddressServes) {
  TempDir dir;
  const std::string conf = dir.file("agent.conf", std::string("rocommunity public 127.0.0.1\n") + kEmbeddedArrayLines);
  const std::string peer = "127.0.0.2:" + std::to_string(FreeUdpPort());
  Process agent(
      {AgentUnderTest::Program(), "-f", "-L", "-c", conf, "--state-dir", dir.path(), "--listen", "udp:" + peer},
      dir.path() + "/agent.log");
  std::string answer;
  for (int i = 0; i < 75 && answer.find("Gauge32") == std::string::npos; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    answer = RunShell("MIBS= snmpget -On -t 1 -r 0 -v2c -c public " + peer + " " + kSwitch);
  }
  EXPECT_NE(std::string::npos, answer.find(std::string(kSwitch) + " = Gauge32: 1"))
      << answer << ReadFile(dir.path() + "/agent.log");
  EXPECT_EQ(0, agent.stop());
}

// ------------------------------------------------- SNMPv3 users of --create-user

// Runs --create-user with these arguments, the passphrases on standard
// input: its exit code; *output what it wrote.
int CreateUser(const std::string& args, const std::string& auth, const std::string& priv, std::string* output) {
  int rc = 0;
  *output = RunShell("printf '%s\\n%s\\n' '" + auth + "' '" + priv + "' | " + AgentUnderTest::Program() +
                         " --create-user " + args + " 2>&1",
                     &rc);
  return rc;
}

// The text of every file in a directory (not its subdirectories).
std::string AllFilesOf(const std::string& dir) {
  std::string text;
  for (const std::string& name : LinesWith(RunShell("ls -A '" + dir + "'"), "")) {
    text += ReadFile(dir + "/" + name);
  }
  return text;
}

const char kReader[] = "-v3 -l authPriv -u reader -a SHA -A reader-auth-1 -x AES -X reader-priv-1";
const char kWriter[] = "-v3 -l authPriv -u writer -a SHA-512 -A writer-auth-1 -x DES -X writer-priv-1";

class AgentV3UserTest : public ::testing::Test {
 protected:
  // Creates the reader (SHA, AES, read-only) in the agent's state directory.
  void createReader() {
    std::string out;
    ASSERT_EQ(0, CreateUser("reader --state-dir " + agent_.dir().path(), "reader-auth-1", "reader-priv-1", &out))
        << out;
    EXPECT_NE(std::string::npos, out.find("user reader (SHA, AES, read-only) created in")) << out;
  }
  void createWriter() {
    std::string out;
    ASSERT_EQ(0, CreateUser("writer --auth-protocol SHA-512 --priv-protocol DES --read-write --state-dir " +
                                agent_.dir().path(),
                            "writer-auth-1", "writer-priv-1", &out))
        << out;
  }
  // Starts the agent with no community: the users are its only access.
  void start(const std::string& readyAuth) {
    AgentUnderTest::Options options = SmallEmbeddedArray();
    options.communities = false;
    options.readyAuth = readyAuth;
    std::string error;
    ASSERT_TRUE(agent_.start(options, &error)) << error;
  }
  std::string engineId() const {
    const std::vector<std::string> lines =
        LinesWith(ReadFile(agent_.dir().path() + "/zerva-snmp-agent.conf"), "oldEngineID ");
    return lines.empty() ? "" : lines.back();
  }

  AgentUnderTest agent_;
};

TEST_F(AgentV3UserTest, CreatedUsersAnswerAuthPrivReadOnlyOrReadWrite) {
  ASSERT_NO_FATAL_FAILURE(createReader());
  ASSERT_NO_FATAL_FAILURE(createWriter());
  for (const char* secret : {"reader-auth-1", "reader-priv-1", "writer-auth-1", "writer-priv-1"}) {
    EXPECT_EQ(std::string::npos, AllFilesOf(agent_.dir().path()).find(secret)) << secret;
  }
  ASSERT_NO_FATAL_FAILURE(start(kReader));
  EXPECT_NE(std::string::npos, agent_.snmp().get(kSwitch, kReader).find("Gauge32: 1"));
  int rc = 0;
  const std::string refused = agent_.snmp().tool("snmpset", kReader, std::string(kSwitch) + " u 0", &rc);
  EXPECT_NE(0, rc);
  EXPECT_NE(std::string::npos, refused.find("noAccess")) << refused;
  agent_.snmp().tool("snmpset", kWriter, std::string(kSwitch) + " u 0", &rc);
  EXPECT_EQ(0, rc);
  EXPECT_NE(std::string::npos, agent_.snmp().get(kSwitch, kReader).find("Gauge32: 0"));
  for (const char* secret : {"reader-auth-1", "reader-priv-1", "writer-auth-1", "writer-priv-1"}) {
    EXPECT_EQ(std::string::npos, AllFilesOf(agent_.dir().path()).find(secret)) << secret;
  }
}

TEST_F(AgentV3UserTest, WrongPassphraseFails) {
  ASSERT_NO_FATAL_FAILURE(createReader());
  ASSERT_NO_FATAL_FAILURE(start(kReader));
  int rc = 0;
  const std::string out = agent_.snmp().tool(
      "snmpget", "-v3 -l authPriv -u reader -a SHA -A reader-auth-2 -x AES -X reader-priv-1", kSwitch, &rc);
  EXPECT_NE(0, rc);
  EXPECT_NE(std::string::npos, out.find("Authentication failure")) << out;
  const std::string wrongPriv = agent_.snmp().tool(
      "snmpget", "-v3 -l authPriv -u reader -a SHA -A reader-auth-1 -x AES -X reader-priv-2", kSwitch, &rc);
  EXPECT_EQ(std::string::npos, wrongPriv.find("Gauge32")) << wrongPriv;
}

TEST_F(AgentV3UserTest, UserCreatedWhileTheAgentRunsAnswersAfterARestartOnTheSameEngineId) {
  ASSERT_NO_FATAL_FAILURE(createReader());
  ASSERT_NO_FATAL_FAILURE(start(kReader));
  const std::string engine = engineId();
  ASSERT_FALSE(engine.empty());
  ASSERT_NO_FATAL_FAILURE(createWriter());
  EXPECT_EQ(0, agent_.stop()) << agent_.log();
  ASSERT_NO_FATAL_FAILURE(start(kWriter));
  EXPECT_EQ(engine, engineId());
  EXPECT_NE(std::string::npos, ReadFile(agent_.dir().path() + "/zerva-snmp-agent.conf").find("engineBoots 2"));
  EXPECT_NE(std::string::npos, agent_.snmp().get(kSwitch, kReader).find("Gauge32: 1"));
  EXPECT_NE(std::string::npos, agent_.snmp().get(kSwitch, kWriter).find("Gauge32: 1"));
}

TEST(AgentV3UserToolTest, ShortPassphraseUnknownProtocolAndKnownNameAreRefused) {
  TempDir dir;
  std::string out;
  EXPECT_EQ(1, CreateUser("u1 --state-dir " + dir.path(), "short", "long-enough-1", &out));
  EXPECT_NE(std::string::npos, out.find("the authentication passphrase has fewer than 8 characters")) << out;
  EXPECT_EQ(1, CreateUser("u1 --state-dir " + dir.path(), "long-enough-1", "1234567", &out));
  EXPECT_NE(std::string::npos, out.find("the privacy passphrase has fewer than 8 characters")) << out;
  EXPECT_EQ("", ReadFile(dir.path() + "/users.conf"));
  EXPECT_EQ(1, CreateUser("u1 --auth-protocol MD5 --state-dir " + dir.path(), "long-enough-1", "long-enough-2", &out));
  EXPECT_NE(std::string::npos, out.find("'MD5'")) << out;
  EXPECT_EQ(0, CreateUser("u1 --state-dir " + dir.path(), "long-enough-1", "long-enough-2", &out)) << out;
  EXPECT_EQ(1, CreateUser("u1 --read-write --state-dir " + dir.path(), "long-enough-3", "long-enough-4", &out));
  EXPECT_NE(std::string::npos, out.find("user 'u1' exists already")) << out;
  EXPECT_EQ(1u, LinesWith(ReadFile(dir.path() + "/users.conf"), "usmUser ").size());
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
  ASSERT_TRUE(agent.start(SubAgentOf(SmallEmbeddedArray(), snmpd, port), &error)) << error << snmpd.log();
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
  AgentUnderTest::Options subAgent() const { return SubAgentOf(SmallEmbeddedArray(), snmpd_, port_); }
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
  AgentUnderTest::Options options = SubAgentOf(SmallEmbeddedArray(), snmpd, port);
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

// ------------------------------------------------- running as a daemon

// The sockets a process holds ("socket:[INODE]" of its descriptors).
std::vector<std::string> SocketsOf(pid_t pid) {
  return LinesWith(RunShell("for f in /proc/" + std::to_string(pid) + "/fd/*; do readlink $f; done | sort"), "socket:");
}

// Waits up to 10 s for a file to hold text containing `part`.
bool WaitForText(const std::string& path, const std::string& part) {
  for (int i = 0; i < 100; ++i) {
    if (ReadFile(path).find(part) != std::string::npos) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return false;
}

// Waits up to 10 s for a process to be gone.
bool WaitGone(pid_t pid) {
  for (int i = 0; i < 100; ++i) {
    if (access(("/proc/" + std::to_string(pid)).c_str(), F_OK) != 0) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return false;
}

// The names in a directory.
std::string Listing(const std::string& dir) { return RunShell("ls -A '" + dir + "'"); }

class AgentReloadTest : public ::testing::Test {
 protected:
  void start(AgentUnderTest::Options options) {
    options.extraConfig = "createUser zerva SHA zerva-auth-pass AES zerva-priv-pass\nrouser zerva priv\n";
    std::string error;
    ASSERT_TRUE(agent_.start(options, &error)) << error;
    conf_ = agent_.dir().path() + "/agent.conf";
  }
  // Rewrites the agent's configuration file: `from` replaced by `to`.
  void edit(const std::string& from, const std::string& to) {
    std::string text = ReadFile(conf_);
    const size_t at = text.find(from);
    ASSERT_NE(std::string::npos, at) << from << " in " << text;
    text.replace(at, from.size(), to);
    std::ofstream(conf_, std::ios::trunc) << text;
  }
  // Sends SIGHUP and waits for the reload's line ("configuration reloaded"
  // or "not reloaded").
  void hangUp(const std::string& line) {
    ::kill(agent_.process().pid(), SIGHUP);
    ASSERT_TRUE(WaitForText(agent_.dir().path() + "/agent.log", line)) << agent_.log();
  }

  AgentUnderTest agent_;
  std::string conf_;
};

const char kV3[] = "-v3 -l authPriv -u zerva -a SHA -A zerva-auth-pass -x AES -X zerva-priv-pass";

TEST_F(AgentReloadTest, SighupTakesNewCommunitiesAndLogLevelAndKeepsServing) {
  ASSERT_NO_FATAL_FAILURE(start(SmallEmbeddedArray()));
  const pid_t pid = agent_.process().pid();
  EXPECT_EQ(std::string::npos, agent_.log().find("DEBUG")) << agent_.log();
  // Requests all along: none of them may time out across the reload.
  std::atomic<bool> done(false);
  std::atomic<int> answered(0);
  std::atomic<int> lost(0);
  std::thread asker([&] {
    while (!done) {
      (agent_.snmp().get(kSwitch).find("Gauge32") != std::string::npos ? answered : lost)++;
    }
  });
  ASSERT_NO_FATAL_FAILURE(edit(std::string("rwcommunity private 127.0.0.1 ") + kSubtree + "\n",
                               "rocommunity extra 127.0.0.1\nzervaLogLevel debug\n"));
  hangUp(std::string("configuration reloaded from ") + conf_);
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  done = true;
  asker.join();
  EXPECT_EQ(0, lost.load());
  EXPECT_LT(0, answered.load());
  EXPECT_EQ(pid, agent_.process().pid());
  EXPECT_TRUE(agent_.process().running());
  EXPECT_NE(std::string::npos, agent_.snmp().get(kSwitch, "-v2c -c extra").find("Gauge32: 1"));
  int rc = 0;
  agent_.snmp().tool("snmpget", "-v2c -c private", kSwitch, &rc);
  EXPECT_NE(0, rc);
  EXPECT_NE(std::string::npos, agent_.snmp().get(kSwitch, kV3).find("Gauge32: 1"));
  EXPECT_NE(std::string::npos, agent_.log().find("DEBUG")) << agent_.log();
  // Served all along: one start-up line.
  EXPECT_EQ(1u, LinesWith(agent_.log(), " serving ").size()) << agent_.log();
}

TEST_F(AgentReloadTest, SighupWithABrokenConfigurationKeepsTheOldOneAndNamesFileAndLine) {
  ASSERT_NO_FATAL_FAILURE(start(SmallEmbeddedArray()));
  ASSERT_NO_FATAL_FAILURE(edit(std::string("rocommunity public 127.0.0.1 ") + kSubtree + "\n", "zervaLogLevel loud\n"));
  hangUp("not reloaded");
  const std::vector<std::string> errors = LinesWith(agent_.log(), "not reloaded");
  ASSERT_EQ(1u, errors.size()) << agent_.log();
  EXPECT_NE(std::string::npos, errors[0].find(conf_ + ": line ")) << errors[0];
  EXPECT_NE(std::string::npos, errors[0].find("'loud'")) << errors[0];
  EXPECT_NE(std::string::npos, agent_.snmp().get(kSwitch).find("Gauge32: 1"));
  EXPECT_EQ(std::string::npos, agent_.log().find("configuration reloaded")) << agent_.log();
}

TEST_F(AgentReloadTest, SighupKeepsTheBackEndConnectionAndTheSockets) {
  AgentUnderTest::Options options;
  options.array = AgentUnderTest::Array::kInThisProcess;
  ASSERT_NO_FATAL_FAILURE(start(options));
  EXPECT_NE(std::string::npos, agent_.snmp().get(kSwitch).find("Gauge32"));
  const std::vector<std::string> before = SocketsOf(agent_.process().pid());
  ASSERT_FALSE(before.empty());
  // The last zervaBackend line counts.
  std::ofstream(conf_, std::ios::app) << "zervaBackend unix:/nonexistent/sock\n";
  hangUp("configuration reloaded from");
  EXPECT_NE(std::string::npos, agent_.snmp().get(kSwitch).find("Gauge32"));
  EXPECT_EQ(before, SocketsOf(agent_.process().pid()));
  const std::vector<std::string> kept = LinesWith(agent_.log(), "keep their running value");
  ASSERT_EQ(1u, kept.size()) << agent_.log();
  EXPECT_NE(std::string::npos, kept[0].find("zervaBackend")) << kept[0];
}

// A configuration of the small embedded array in dir, read-only public,
// with these more lines.
std::string EmbeddedConfig(const TempDir& dir, const std::string& more = "") {
  return dir.file("agent.conf", std::string("rocommunity public 127.0.0.1\n") + kEmbeddedArrayLines + more);
}

TEST(AgentDaemonTest, BackgroundAgentWritesItsPidFileAndLogsNothingToStderr) {
  TempDir dir;
  const int port = FreeUdpPort();
  const std::string pidFile = dir.path() + "/agent.pid";
  int rc = 0;
  const std::string out =
      RunShell("TMPDIR=" + dir.path() + "/tmp; mkdir $TMPDIR; export TMPDIR; " + AgentUnderTest::Program() + " -c " +
                   EmbeddedConfig(dir) + " --listen udp:127.0.0.1:" + std::to_string(port) + " -p " + pidFile + " 2>" +
                   dir.path() + "/stderr",
               &rc);
  EXPECT_EQ(0, rc) << out << ReadFile(dir.path() + "/stderr");
  Snmp snmp(dir.path(), port);
  ASSERT_TRUE(snmp.ready()) << ReadFile(dir.path() + "/stderr");
  const pid_t pid = static_cast<pid_t>(std::stol("0" + ReadFile(pidFile)));
  ASSERT_GT(pid, 0);
  // The pid is the serving process's: it holds the listening socket.
  EXPECT_NE(std::string::npos, ReadFile("/proc/" + std::to_string(pid) + "/cmdline").find("zerva-snmp-agent"));
  EXPECT_NE(std::string::npos, snmp.get(kSwitch).find("Gauge32: 1"));
  // In the background the log goes to syslog, not to stderr.
  EXPECT_EQ(std::string::npos, ReadFile(dir.path() + "/stderr").find("serving ")) << ReadFile(dir.path() + "/stderr");
  kill(pid, SIGTERM);
  ASSERT_TRUE(WaitGone(pid));
  EXPECT_NE(0, access(pidFile.c_str(), F_OK));
  EXPECT_EQ("", Listing(dir.path() + "/tmp"));
}

class AgentSecondInstanceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    AgentUnderTest::Options options = SmallEmbeddedArray();
    std::string error;
    ASSERT_TRUE(agent_.start(options, &error)) << error;
  }
  AgentUnderTest agent_;
};

TEST_F(AgentSecondInstanceTest, SecondAgentOnTheSameStateDirectoryIsRefusedNamingThePid) {
  TempDir dir;
  std::string out;
  EXPECT_EQ(1, RunAgent("-c " + EmbeddedConfig(dir) + " --state-dir " + agent_.dir().path() +
                            " --listen udp:127.0.0.1:" + std::to_string(FreeUdpPort()),
                        &out));
  EXPECT_NE(std::string::npos,
            out.find("zerva-snmp-agent: another zerva-snmp-agent (pid " + std::to_string(agent_.process().pid()) +
                     ") is using the state directory " + agent_.dir().path() + "\n"))
      << out;
  EXPECT_NE(std::string::npos, agent_.snmp().get(kSwitch).find("Gauge32: 1"));
}

TEST_F(AgentSecondInstanceTest, SecondAgentOnAPortInUseIsRefusedNamingTheAddress) {
  TempDir dir;
  std::string out;
  const std::string address = "udp:127.0.0.1:" + std::to_string(agent_.port());
  EXPECT_EQ(1, RunAgent("-c " + EmbeddedConfig(dir) + " --listen " + address, &out));
  EXPECT_NE(std::string::npos, out.find("zerva-snmp-agent: cannot listen on " + address + ": address already in use\n"))
      << out;
  EXPECT_NE(std::string::npos, agent_.snmp().get(kSwitch).find("Gauge32: 1"));
}

// The agent's own temporary state directory goes whichever way it ends.
class AgentTempStateTest : public ::testing::Test {
 protected:
  std::string tmp() const { return dir_.path() + "/tmp"; }
  void SetUp() override {
    ASSERT_EQ(0, mkdir(tmp().c_str(), 0700));
    ASSERT_EQ(0, chmod(tmp().c_str(), 01777));  // an agent run as nobody makes its directory there too
  }
  // Runs the agent in the foreground with TMPDIR set and these arguments
  // until it exits: its exit code; *output what it wrote.
  int run(const std::string& args, std::string* output, const std::string& prefix = "") {
    int rc = 0;
    *output = RunShell(
        "TMPDIR=" + tmp() + " " + prefix + " timeout 15 " + AgentUnderTest::Program() + " -f -L " + args + " 2>&1",
        &rc);
    return rc;
  }
  // Starts the agent, waits until it answers, sends `signal`: its exit code.
  int serveThenSignal(int signal) {
    const int port = FreeUdpPort();
    Process agent({"/usr/bin/env", "TMPDIR=" + tmp(), AgentUnderTest::Program(), "-f", "-L", "-c", EmbeddedConfig(dir_),
                   "--listen", "udp:127.0.0.1:" + std::to_string(port)},
                  dir_.path() + "/agent.log");
    Snmp snmp(dir_.path(), port);
    EXPECT_TRUE(snmp.ready()) << ReadFile(dir_.path() + "/agent.log");
    EXPECT_NE("", Listing(tmp()));  // it made its directory
    ::kill(agent.pid(), signal);
    return agent.wait();
  }
  TempDir dir_;
};

TEST_F(AgentTempStateTest, GoesOnSigintSigtermAndSigquit) {
  for (int signal : {SIGINT, SIGTERM, SIGQUIT}) {
    EXPECT_EQ(0, serveThenSignal(signal)) << signal << ": " << ReadFile(dir_.path() + "/agent.log");
    EXPECT_EQ("", Listing(tmp())) << signal;
  }
}

TEST_F(AgentTempStateTest, GoesOnABadConfigurationAPortInUseAndACheck) {
  std::string out;
  EXPECT_EQ(1, run("-c " + EmbeddedConfig(dir_, "zervaLogLevel loud\n"), &out)) << out;
  EXPECT_EQ("", Listing(tmp())) << out;
  const int port = FreeUdpPort();
  Process holder({"/usr/bin/env", "TMPDIR=" + tmp(), AgentUnderTest::Program(), "-f", "-L", "-c", EmbeddedConfig(dir_),
                  "--listen", "udp:127.0.0.1:" + std::to_string(port), "--state-dir", dir_.path()},
                 dir_.path() + "/holder.log");
  Snmp snmp(dir_.path(), port);
  ASSERT_TRUE(snmp.ready()) << ReadFile(dir_.path() + "/holder.log");
  EXPECT_EQ(1, run("-c " + EmbeddedConfig(dir_) + " --listen udp:127.0.0.1:" + std::to_string(port), &out)) << out;
  EXPECT_NE(std::string::npos, out.find("address already in use")) << out;
  EXPECT_EQ("", Listing(tmp())) << out;
  // The duplicate makes no directory of its own; nothing is left either.
  EXPECT_EQ(1, run("-c " + EmbeddedConfig(dir_) + " --state-dir " + dir_.path(), &out)) << out;
  EXPECT_NE(std::string::npos, out.find("another zerva-snmp-agent")) << out;
  EXPECT_EQ("", Listing(tmp())) << out;
  EXPECT_EQ(0, run("--check-config -c " + EmbeddedConfig(dir_), &out)) << out;
  EXPECT_NE(std::string::npos, out.find("the configuration is good")) << out;
  EXPECT_EQ("", Listing(tmp())) << out;
  EXPECT_EQ(1, run("--check-config -c " + EmbeddedConfig(dir_, "zervaNoSuchToken 1\n"), &out)) << out;
  EXPECT_NE(std::string::npos, out.find("agent.conf: line 6:")) << out;
  EXPECT_EQ("", Listing(tmp())) << out;
}

TEST_F(AgentTempStateTest, GoesWhenTheUserCannotBeChanged) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to run the agent as nobody";
  ASSERT_EQ(0, chmod(dir_.path().c_str(), 0755));
  const std::string conf = EmbeddedConfig(dir_);
  ASSERT_EQ(0, chmod(conf.c_str(), 0644));
  std::string out;
  EXPECT_EQ(1, run("-u root -c " + conf + " --listen udp:127.0.0.1:" + std::to_string(FreeUdpPort()), &out,
                   "setpriv --reuid nobody --regid nogroup --clear-groups"))
      << out;
  EXPECT_NE(std::string::npos, out.find("zerva-snmp-agent: cannot run as user root: only root can change the user"))
      << out;
  EXPECT_EQ("", Listing(tmp())) << out;
}

TEST(AgentPrivilegeTest, RootAgentDropsToNobodyAndServes) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to change the user";
  TempDir dir;
  ASSERT_EQ(0, chmod(dir.path().c_str(), 0755));  // nobody reaches its state directory below
  const std::string tmp = dir.path() + "/tmp";
  ASSERT_EQ(0, mkdir(tmp.c_str(), 0700));
  ASSERT_EQ(0, chmod(tmp.c_str(), 01777));
  const int port = FreeUdpPort();
  Process agent({"/usr/bin/env", "TMPDIR=" + tmp, AgentUnderTest::Program(), "-f", "-L", "-u", "nobody", "-g",
                 "nogroup", "-c", EmbeddedConfig(dir), "--listen", "udp:127.0.0.1:" + std::to_string(port)},
                dir.path() + "/agent.log");
  Snmp snmp(dir.path(), port);
  ASSERT_TRUE(snmp.ready()) << ReadFile(dir.path() + "/agent.log");
  const std::string status = ReadFile("/proc/" + std::to_string(agent.pid()) + "/status");
  const std::string nobody = RunShell("id -u nobody").substr(0, RunShell("id -u nobody").find('\n'));
  const std::string nogroup = RunShell("getent group nogroup | cut -d: -f3 | tr -d '\\n'");
  EXPECT_NE(std::string::npos, status.find("Uid:\t" + nobody + "\t" + nobody + "\t" + nobody + "\t" + nobody + "\n"))
      << status;
  EXPECT_NE(std::string::npos,
            status.find("Gid:\t" + nogroup + "\t" + nogroup + "\t" + nogroup + "\t" + nogroup + "\n"))
      << status;
  EXPECT_NE(std::string::npos, snmp.get(kSwitch).find("Gauge32: 1"));
  EXPECT_EQ(0, agent.stop()) << ReadFile(dir.path() + "/agent.log");
  EXPECT_EQ("", Listing(tmp));
}

TEST(AgentPrivilegeTest, AgentuserIsRefusedWhenUnprivileged) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to run the agent as nobody";
  TempDir dir;
  ASSERT_EQ(0, chmod(dir.path().c_str(), 0755));
  const std::string conf = EmbeddedConfig(dir, "agentuser daemon\n");
  ASSERT_EQ(0, chmod(conf.c_str(), 0644));
  int rc = 0;
  const std::string out =
      RunShell("setpriv --reuid nobody --regid nogroup --clear-groups timeout 15 " + AgentUnderTest::Program() +
                   " -f -L -c " + conf + " --listen udp:127.0.0.1:" + std::to_string(FreeUdpPort()) + " 2>&1",
               &rc);
  EXPECT_EQ(1, rc) << out;
  EXPECT_NE(std::string::npos, out.find("cannot run as user daemon: only root can change the user")) << out;
}

}  // namespace
