#include "host/agent/config_reload.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

namespace zerva_agent {
namespace {

TEST(ConfigReloadTest, CheckArgumentsCarryTheAgentsFilesAndAddresses) {
  CommandLine cmd;
  cmd.configFile = "/etc/zerva/a.conf";
  cmd.listen = "udp:127.0.0.1:1161";
  cmd.stateDir = "/var/lib/zerva";
  cmd.pidFile = "/run/a.pid";
  cmd.foreground = true;
  const std::vector<std::string> want = {"--check-config",     "-c",          "/etc/zerva/a.conf", "--listen",
                                         "udp:127.0.0.1:1161", "--state-dir", "/var/lib/zerva"};
  EXPECT_EQ(want, CheckConfigArguments(cmd));
  CommandLine sub;
  sub.agentxSocket = "/run/agentx";
  const std::vector<std::string> subWant = {"--check-config", "-x", "/run/agentx"};
  EXPECT_EQ(subWant, CheckConfigArguments(sub));
}

TEST(ConfigReloadTest, RunConfigCheckGivesStatusAndOutput) {
  const CheckOutcome good = RunConfigCheck("/bin/sh", {"-c", "echo fine"}, std::chrono::seconds(5));
  EXPECT_TRUE(good.good);
  EXPECT_EQ("fine\n", good.output);
  const CheckOutcome bad =
      RunConfigCheck("/bin/sh", {"-c", "echo 'a.conf: line 3: bad' >&2; exit 1"}, std::chrono::seconds(5));
  EXPECT_FALSE(bad.good);
  EXPECT_EQ("a.conf: line 3: bad\n", bad.output);
  const CheckOutcome missing = RunConfigCheck("/nonexistent/program", {}, std::chrono::seconds(5));
  EXPECT_FALSE(missing.good);
  EXPECT_EQ("cannot run /nonexistent/program", missing.output);
}

TEST(ConfigReloadTest, RunConfigCheckKillsACheckThatDoesNotEnd) {
  const auto begin = std::chrono::steady_clock::now();
  const CheckOutcome slow = RunConfigCheck("/bin/sh", {"-c", "exec sleep 30"}, std::chrono::milliseconds(300));
  const auto took = std::chrono::steady_clock::now() - begin;
  EXPECT_FALSE(slow.good);
  EXPECT_NE(std::string::npos, slow.output.find("did not end within 300 ms")) << slow.output;
  EXPECT_LT(took, std::chrono::seconds(5));
}

TEST(ConfigReloadTest, KeepRestartSettingsNamesAndRestoresThem) {
  AgentOptions running;
  running.backend = "unix:/run/a.sock";
  running.modulePath = "/m.so";
  AgentOptions reread = running;
  reread.backend = "tcp:127.0.0.1:9000";
  reread.simLuns = 12;
  reread.logLevel = VEM_LOG_DEBUG;
  reread.logFoldSeconds = 0;
  const std::vector<std::string> want = {"zervaBackend", "zervaSimLuns"};
  EXPECT_EQ(want, KeepRestartSettings(running, &reread));
  EXPECT_EQ("unix:/run/a.sock", reread.backend);
  EXPECT_EQ(-1, reread.simLuns);
  // What the running agent can change stays as read.
  EXPECT_EQ(VEM_LOG_DEBUG, reread.logLevel);
  EXPECT_EQ(0u, reread.logFoldSeconds);
  AgentOptions same = running;
  EXPECT_TRUE(KeepRestartSettings(running, &same).empty());
}

TEST(ConfigReloadTest, ARejectedConfigurationIsNotRead) {
  int rereads = 0;
  int logs = 0;
  ConfigReload::Steps steps;
  steps.check = [] {
    CheckOutcome o;
    o.output = "a.conf: line 2: unknown token\n";
    return o;
  };
  steps.reread = [&rereads](AgentOptions* o, std::vector<std::string>*) {
    ++rereads;
    o->logLevel = VEM_LOG_TRACE;
  };
  steps.applyLog = [&logs](const AgentOptions&, std::string*) {
    ++logs;
    return true;
  };
  ConfigReload reload("a.conf", steps);
  AgentOptions running;
  running.logLevel = VEM_LOG_ERROR;
  EXPECT_FALSE(reload.reload(&running));
  EXPECT_EQ(0, rereads);
  EXPECT_EQ(0, logs);
  EXPECT_EQ(VEM_LOG_ERROR, running.logLevel);
}

TEST(ConfigReloadTest, AGoodConfigurationTakesTheLogSettingsAndKeepsTheBackEnd) {
  AgentOptions applied;
  ConfigReload::Steps steps;
  steps.check = [] {
    CheckOutcome o;
    o.good = true;
    return o;
  };
  steps.reread = [](AgentOptions* o, std::vector<std::string>* kept) {
    o->logLevel = VEM_LOG_DEBUG;
    o->kitLogLevels[4] = VEM_LOG_TRACE;
    o->backend = "tcp:127.0.0.1:9";
    kept->push_back("agentaddress");
  };
  steps.applyLog = [&applied](const AgentOptions& o, std::string*) {
    applied = o;
    return true;
  };
  ConfigReload reload("a.conf", steps);
  AgentOptions running;
  running.backend = "unix:/run/a.sock";
  EXPECT_TRUE(reload.reload(&running));
  EXPECT_EQ(VEM_LOG_DEBUG, running.logLevel);
  EXPECT_EQ(VEM_LOG_TRACE, running.kitLogLevels.at(4));
  EXPECT_EQ("unix:/run/a.sock", running.backend);
  EXPECT_EQ(VEM_LOG_DEBUG, applied.logLevel);
  EXPECT_EQ("unix:/run/a.sock", applied.backend);
}

TEST(ConfigReloadTest, ALogFileThatCannotBeOpenedKeepsThePreviousDestination) {
  ConfigReload::Steps steps;
  steps.check = [] {
    CheckOutcome o;
    o.good = true;
    return o;
  };
  steps.reread = [](AgentOptions* o, std::vector<std::string>*) {
    o->logFile = "/nonexistent/dir/a.log";
    o->logLevel = VEM_LOG_DEBUG;
  };
  steps.applyLog = [](const AgentOptions&, std::string* error) {
    *error = "cannot open";
    return false;
  };
  ConfigReload reload("a.conf", steps);
  AgentOptions running;
  running.logFile = "/var/log/a.log";
  EXPECT_TRUE(reload.reload(&running));
  EXPECT_EQ("/var/log/a.log", running.logFile);
  EXPECT_EQ(VEM_LOG_DEBUG, running.logLevel);
}

}  // namespace
}  // namespace zerva_agent
