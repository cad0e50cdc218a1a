#include "host/agent/agent_options.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <string>
#include <vector>

namespace zerva_agent {
namespace {

bool Apply(const std::string& token, const std::string& value, AgentOptions* o, std::string* error) {
  return ApplyAgentToken(token, value, o, error);
}

TEST(AgentOptionsTest, DefaultsAreDocumented) {
  AgentOptions o;
  EXPECT_EQ("embedded", o.backend);
  EXPECT_EQ(3u, o.snapshotSeconds);
  EXPECT_EQ(60u, o.walkSeconds);
  EXPECT_EQ(160u, o.batchRows);
  EXPECT_EQ(300u, o.waitMs);
  EXPECT_EQ(180u, o.maxAgeSeconds);
  EXPECT_TRUE(o.simLatencies.empty());
  EXPECT_EQ(VEM_LOG_WARN, o.logLevel);
  EXPECT_TRUE(o.kitLogLevels.empty());
  EXPECT_EQ(60u, o.logFoldSeconds);
  EXPECT_FALSE(o.agentx);
}

TEST(AgentOptionsTest, EveryTokenAcceptsAGoodValue) {
  AgentOptions o;
  std::string e;
  EXPECT_TRUE(Apply("zervaModule", "/x/lib.so", &o, &e));
  EXPECT_TRUE(Apply("zervaMibDir", " /mibs ", &o, &e));
  EXPECT_TRUE(Apply("zervaBackend", "tcp:127.0.0.1:9000", &o, &e)) << e;
  EXPECT_TRUE(Apply("zervaBackendTimeout", "250", &o, &e));
  EXPECT_TRUE(Apply("zervaSnapshotSeconds", "0", &o, &e));
  EXPECT_TRUE(Apply("zervaWalkSeconds", "0", &o, &e));
  EXPECT_TRUE(Apply("zervaBatchRows", "16", &o, &e));
  EXPECT_TRUE(Apply("zervaWaitMilliseconds", "50", &o, &e));
  EXPECT_TRUE(Apply("zervaMaxAgeSeconds", "0", &o, &e));
  EXPECT_TRUE(Apply("zervaSimLatency", "5", &o, &e));
  EXPECT_TRUE(Apply("zervaSimLatency", "GET_CUR_STATISTIC_DATA=1", &o, &e));
  EXPECT_TRUE(Apply("zervaLogLevel", "debug", &o, &e));
  EXPECT_TRUE(Apply("zervaKitLogLevel", "4 error", &o, &e)) << e;
  EXPECT_TRUE(Apply("zervaLogFoldSeconds", "0", &o, &e)) << e;
  EXPECT_TRUE(Apply("zervaLogFile", "/tmp/a.log", &o, &e));
  EXPECT_TRUE(Apply("zervaSyslog", "yes", &o, &e));
  EXPECT_TRUE(Apply("zervaDeviceConfig", "/d.xml", &o, &e));
  EXPECT_TRUE(Apply("zervaSimTopology", "/t.txt", &o, &e));
  EXPECT_TRUE(Apply("zervaSimLuns", "400", &o, &e));
  EXPECT_TRUE(Apply("zervaSimFileSystems", "12", &o, &e));
  EXPECT_TRUE(Apply("zervaSimFeatures", "7", &o, &e));
  EXPECT_TRUE(Apply("zervaSimSeed", "99", &o, &e));
  EXPECT_TRUE(Apply("zervaRole", "agentx", &o, &e));
  EXPECT_EQ("/x/lib.so", o.modulePath);
  EXPECT_EQ("/mibs", o.mibDir);
  EXPECT_EQ("tcp:127.0.0.1:9000", o.backend);
  EXPECT_EQ(250u, o.backendTimeoutMs);
  EXPECT_EQ(0u, o.snapshotSeconds);
  EXPECT_EQ(0u, o.walkSeconds);
  EXPECT_EQ(16u, o.batchRows);
  EXPECT_EQ(50u, o.waitMs);
  EXPECT_EQ(0u, o.maxAgeSeconds);
  EXPECT_EQ((std::vector<std::string>{"5", "GET_CUR_STATISTIC_DATA=1"}), o.simLatencies);
  EXPECT_EQ(VEM_LOG_DEBUG, o.logLevel);
  EXPECT_EQ((std::map<unsigned int, EVEMLogLevel>{{4, VEM_LOG_ERROR}}), o.kitLogLevels);
  EXPECT_EQ(0u, o.logFoldSeconds);
  EXPECT_TRUE(o.syslog);
  EXPECT_EQ(400, o.simLuns);
  EXPECT_EQ(12, o.simFileSystems);
  EXPECT_EQ(7, o.simFeatures);
  EXPECT_EQ(99u, o.simSeed);
  EXPECT_TRUE(o.agentx);
}

TEST(AgentOptionsTest, BadValuesAreRefusedWithAReason) {
  AgentOptions o;
  std::string e;
  EXPECT_FALSE(Apply("zervaBackend", "http://x", &o, &e));
  EXPECT_NE(std::string::npos, e.find("http://x"));
  EXPECT_FALSE(Apply("zervaBackendTimeout", "0", &o, &e));
  EXPECT_FALSE(Apply("zervaSnapshotSeconds", "-1", &o, &e));
  EXPECT_FALSE(Apply("zervaWalkSeconds", "sixty", &o, &e));
  EXPECT_NE(std::string::npos, e.find("'sixty' is not a number from 0 to 86400")) << e;
  EXPECT_FALSE(Apply("zervaWalkSeconds", "86401", &o, &e));
  EXPECT_FALSE(Apply("zervaBatchRows", "ten", &o, &e));
  EXPECT_FALSE(Apply("zervaWaitMilliseconds", "0", &o, &e));
  EXPECT_FALSE(Apply("zervaWaitMilliseconds", "60001", &o, &e));
  EXPECT_FALSE(Apply("zervaMaxAgeSeconds", "86401", &o, &e));
  EXPECT_FALSE(Apply("zervaSimLatency", "", &o, &e));
  EXPECT_FALSE(Apply("zervaLogLevel", "loud", &o, &e));
  EXPECT_FALSE(Apply("zervaSyslog", "maybe", &o, &e));
  EXPECT_FALSE(Apply("zervaLogFoldSeconds", "1m", &o, &e));
  EXPECT_FALSE(Apply("zervaKitLogLevel", "4", &o, &e));
  EXPECT_FALSE(Apply("zervaSimFeatures", "8", &o, &e));
  EXPECT_FALSE(Apply("zervaRole", "slave", &o, &e));
  EXPECT_FALSE(Apply("zervaModule", "", &o, &e));
  EXPECT_FALSE(Apply("zervaNoSuchThing", "1", &o, &e));
  EXPECT_EQ("embedded", o.backend);  // nothing bad was stored
  EXPECT_EQ(3u, o.snapshotSeconds);
  EXPECT_EQ(60u, o.walkSeconds);
  EXPECT_EQ(60u, o.logFoldSeconds);
  EXPECT_TRUE(o.kitLogLevels.empty());
}

TEST(AgentOptionsTest, KitLogLevelsAreSetPerKitAndTheLastLineOfAKitWins) {
  AgentOptions o;
  std::string e;
  EXPECT_TRUE(Apply("zervaKitLogLevel", "4 debug", &o, &e)) << e;
  EXPECT_TRUE(Apply("zervaKitLogLevel", "  2\tOFF ", &o, &e)) << e;
  EXPECT_TRUE(Apply("zervaKitLogLevel", "4 trace", &o, &e)) << e;
  EXPECT_TRUE(Apply("zervaKitLogLevel", "255 warn", &o, &e)) << e;
  const std::map<unsigned int, EVEMLogLevel> expected = {{2, VEM_LOG_OFF}, {4, VEM_LOG_TRACE}, {255, VEM_LOG_WARN}};
  EXPECT_EQ(expected, o.kitLogLevels);
  EXPECT_EQ(VEM_LOG_WARN, o.logLevel) << "the other kits keep zervaLogLevel";
}

TEST(AgentOptionsTest, BadKitLogLevelsAreRefusedWithAReason) {
  const struct {
    const char* value;
    const char* reason;
  } cases[] = {
      {"", "is not KIT LEVEL"},
      {"4", "'4' is not KIT LEVEL"},
      {"4 debug now", "'4 debug now' is not KIT LEVEL"},
      {"x debug", "'x debug': kit 'x' is not a number from 0 to 255"},
      {"-1 debug", "'-1 debug': kit '-1' is not a number from 0 to 255"},
      {"256 debug", "'256 debug': kit '256' is not a number from 0 to 255"},
      {"4 loud", "'4 loud': 'loud' is not one of trace, debug, warn, error, off"},
  };
  for (const auto& c : cases) {
    AgentOptions o;
    std::string e;
    EXPECT_FALSE(Apply("zervaKitLogLevel", c.value, &o, &e)) << c.value;
    EXPECT_NE(std::string::npos, e.find(c.reason)) << c.value << ": " << e;
    EXPECT_TRUE(o.kitLogLevels.empty()) << c.value;
  }
}

TEST(AgentOptionsTest, LogFoldSecondsTakesZeroToADay) {
  AgentOptions o;
  std::string e;
  EXPECT_TRUE(Apply("zervaLogFoldSeconds", "2", &o, &e)) << e;
  EXPECT_EQ(2u, o.logFoldSeconds);
  EXPECT_TRUE(Apply("zervaLogFoldSeconds", "86400", &o, &e)) << e;
  EXPECT_EQ(86400u, o.logFoldSeconds);
  EXPECT_FALSE(Apply("zervaLogFoldSeconds", "86401", &o, &e));
  EXPECT_NE(std::string::npos, e.find("'86401' is not a number from 0 to 86400")) << e;
  EXPECT_FALSE(Apply("zervaLogFoldSeconds", "-5", &o, &e));
  EXPECT_EQ(86400u, o.logFoldSeconds);
}

TEST(AgentOptionsTest, CommandLineOptions) {
  const char* argv[] = {"agent",   "-c",       "a.conf",          "-f",          "-L",    "-x",
                        "/tmp/ax", "--listen", "udp:127.0.0.1:9", "--state-dir", "/tmp/s"};
  CommandLine cmd;
  std::string e;
  ASSERT_TRUE(ParseCommandLine(11, argv, &cmd, &e)) << e;
  EXPECT_EQ("a.conf", cmd.configFile);
  EXPECT_TRUE(cmd.foreground);
  EXPECT_TRUE(cmd.logToStderr);
  EXPECT_EQ("/tmp/ax", cmd.agentxSocket);
  EXPECT_EQ("udp:127.0.0.1:9", cmd.listen);
  EXPECT_EQ("/tmp/s", cmd.stateDir);
}

TEST(AgentOptionsTest, CommandLineLongOptionsTakeAnAttachedValue) {
  const char* argv[] = {"agent", "--listen=udp:127.0.0.1:7", "--state-dir=/tmp/t", "-fc", "b.conf"};
  CommandLine cmd;
  std::string e;
  ASSERT_TRUE(ParseCommandLine(5, argv, &cmd, &e)) << e;
  EXPECT_EQ("udp:127.0.0.1:7", cmd.listen);
  EXPECT_EQ("/tmp/t", cmd.stateDir);
  EXPECT_TRUE(cmd.foreground);
  EXPECT_EQ("b.conf", cmd.configFile);
  // The argv handed in is left as it was.
  EXPECT_STREQ("--listen=udp:127.0.0.1:7", argv[1]);
  EXPECT_STREQ("b.conf", argv[4]);
}

TEST(AgentOptionsTest, CommandLineCreateUserOptions) {
  const char* argv[] = {"agent",           "--create-user", "monitor",     "--auth-protocol=SHA-256", "--read-write",
                        "--priv-protocol", "DES",           "--state-dir", "/var/lib/other"};
  CommandLine cmd;
  std::string e;
  ASSERT_TRUE(ParseCommandLine(9, argv, &cmd, &e)) << e;
  EXPECT_EQ("monitor", cmd.createUser);
  EXPECT_EQ("SHA-256", cmd.authProtocol);
  EXPECT_EQ("DES", cmd.privProtocol);
  EXPECT_TRUE(cmd.readWrite);
  EXPECT_EQ("/var/lib/other", cmd.stateDir);
}

TEST(AgentOptionsTest, CreateUserDefaultsToShaAesReadOnly) {
  const char* argv[] = {"agent", "--create-user", "monitor"};
  CommandLine cmd;
  std::string e;
  ASSERT_TRUE(ParseCommandLine(3, argv, &cmd, &e)) << e;
  EXPECT_EQ("SHA", cmd.authProtocol);
  EXPECT_EQ("AES", cmd.privProtocol);
  EXPECT_FALSE(cmd.readWrite);
  EXPECT_EQ("", cmd.stateDir);
  const char* bad[] = {"agent", "--create-user=monitor", "--read-write=yes"};
  EXPECT_FALSE(ParseCommandLine(3, bad, &cmd, &e));
  EXPECT_EQ("option --read-write takes no value", e);
}

TEST(AgentOptionsTest, UsageGivesTheReadOnlyDefaultAndCreateUser) {
  const std::string usage = Usage("agent");
  EXPECT_NE(std::string::npos,
            usage.find("rocommunity public from\n                   127.0.0.1 only, no write access"))
      << usage;
  EXPECT_EQ(std::string::npos, usage.find("rwcommunity")) << usage;
  for (const char* option : {"--create-user NAME", "--auth-protocol", "--priv-protocol", "--read-write"}) {
    EXPECT_NE(std::string::npos, usage.find(option)) << option;
  }
}

TEST(AgentOptionsTest, CommandLineDaemonOptions) {
  const char* argv[] = {"agent", "-p", "/run/a.pid", "-u", "zerva", "-g", "123", "--check-config"};
  CommandLine cmd;
  std::string e;
  ASSERT_TRUE(ParseCommandLine(8, argv, &cmd, &e)) << e;
  EXPECT_EQ("/run/a.pid", cmd.pidFile);
  EXPECT_EQ("zerva", cmd.user);
  EXPECT_EQ("123", cmd.group);
  EXPECT_TRUE(cmd.checkConfig);
  const char* longForm[] = {"agent", "--pid-file=/run/b.pid"};
  CommandLine other;
  ASSERT_TRUE(ParseCommandLine(2, longForm, &other, &e)) << e;
  EXPECT_EQ("/run/b.pid", other.pidFile);
  EXPECT_FALSE(other.checkConfig);
  EXPECT_TRUE(other.user.empty());
  EXPECT_TRUE(other.group.empty());
}

TEST(AgentOptionsTest, UsageGivesTheDaemonOptionsAndSignals) {
  const std::string usage = Usage("agent");
  for (const char* option : {"-p, --pid-file FILE", "-u USER", "-g GROUP", "--check-config", "agentuser", "agentgroup",
                             "SIGHUP", "syslog"}) {
    EXPECT_NE(std::string::npos, usage.find(option)) << option;
  }
}

TEST(AgentOptionsTest, CommandLineHelpAndVersion) {
  for (const char* help : {"-h", "--help"}) {
    const char* argv[] = {"agent", help};
    CommandLine cmd;
    std::string e;
    ASSERT_TRUE(ParseCommandLine(2, argv, &cmd, &e)) << help << ": " << e;
    EXPECT_TRUE(cmd.help) << help;
    EXPECT_FALSE(cmd.version) << help;
  }
  const char* argv[] = {"agent", "--version"};
  CommandLine cmd;
  std::string e;
  ASSERT_TRUE(ParseCommandLine(2, argv, &cmd, &e)) << e;
  EXPECT_TRUE(cmd.version);
  EXPECT_FALSE(cmd.help);
  EXPECT_NE(std::string::npos, Usage("agent").find("--version"));
}

TEST(AgentOptionsTest, CommandLineErrors) {
  const struct {
    std::vector<const char*> argv;
    const char* error;
  } cases[] = {
      {{"agent", "-q"}, "unknown option '-q'"},
      {{"agent", "-fq"}, "unknown option '-q'"},
      {{"agent", "--bogus"}, "unknown option '--bogus'"},
      {{"agent", "--bogus=1"}, "unknown option '--bogus'"},
      {{"agent", "-c"}, "option -c needs a value"},
      {{"agent", "-u"}, "option -u needs a value"},
      {{"agent", "--pid-file"}, "option --pid-file needs a value"},
      {{"agent", "--check-config=yes"}, "option --check-config takes no value"},
      {{"agent", "-f", "--listen"}, "option --listen needs a value"},
      {{"agent", "--help=all"}, "option --help takes no value"},
      {{"agent", "-f", "extra"}, "unexpected argument 'extra'"},
      {{"agent", "--read-write"}, "option --read-write goes with --create-user"},
      {{"agent", "-f", "--priv-protocol", "DES", "--auth-protocol", "SHA"},
       "option --priv-protocol goes with --create-user"},
  };
  for (const auto& c : cases) {
    CommandLine cmd;
    std::string e;
    EXPECT_FALSE(ParseCommandLine(static_cast<int>(c.argv.size()), c.argv.data(), &cmd, &e)) << c.error;
    EXPECT_EQ(c.error, e);
  }
}

TEST(AgentOptionsTest, UsageNamesEveryToken) {
  const std::string usage = Usage("agent");
  for (const AgentToken& t : AgentTokens()) EXPECT_NE(std::string::npos, usage.find(t.name)) << t.name;
}

TEST(AgentOptionsTest, ScanRoleFindsTheRoleLine) {
  char path[] = "/tmp/zerva-role-test.XXXXXX";
  const int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  close(fd);
  {
    std::ofstream f(path);
    f << "rocommunity public\n# zervaRole master\n  zervaRole agentx\n";
  }
  bool agentx = false;
  std::string e;
  EXPECT_TRUE(ScanRole(path, &agentx, &e)) << e;
  EXPECT_TRUE(agentx);
  {
    std::ofstream f(path);
    f << "zervaRole boss\n";
  }
  EXPECT_FALSE(ScanRole(path, &agentx, &e));
  EXPECT_NE(std::string::npos, e.find("line 1"));
  unlink(path);
  EXPECT_FALSE(ScanRole(path, &agentx, &e));
}

}  // namespace
}  // namespace zerva_agent
