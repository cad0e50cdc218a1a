#include "tests/process/agent_under_test.h"

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <thread>
#include <vector>

#include "sim/topology.h"

namespace zerva_test {

AgentUnderTest::~AgentUnderTest() {
  // The agent first: it must not see its back end vanish under it.
  if ((agent_ && agent_->pid() > 0) || (snmpd_ && snmpd_->running())) {
    const int status = stop();
    if (options_.expectCleanExit) {
      EXPECT_EQ(0, status) << "agent exit status; its log:\n" << log();
    }
  }
  agent_.reset();
  snmpd_.reset();
  stopSimulator();
}

bool AgentUnderTest::restartSimulator(std::string* error) {
  zerva_sim::SimOptions o;
  if (!options_.topology.empty()) o.topologyFile = dir_.file("topology.conf", options_.topology);
  o.features = options_.features;
  o.luns = options_.luns;
  o.fileSystems = options_.fileSystems;
  o.switchOn = options_.switchOn;
  o.seed = options_.seed;
  o.listen = "unix:" + socketPath();
  o.deviceConfig = ZERVA_DEVICE_CONFIG;
  sim_.reset(new zerva_sim::ArraySimServer(o));
  std::string why;
  if (!sim_->start(&why)) {
    if (error != nullptr) *error = "simulator: " + why;
    return false;
  }
  if (options_.frozenMs != 0) sim_->array().freezeClock(options_.frozenMs);
  return true;
}

void AgentUnderTest::stopSimulator() {
  if (sim_) sim_->stop();
}

uint64_t AgentUnderTest::requests(unsigned long long command) const {
  const std::map<unsigned long long, uint64_t> counts = sim_->commandCounts();
  const auto it = counts.find(command);
  return it == counts.end() ? 0 : it->second;
}

std::string AgentUnderTest::arrayConfig(const Options& options) {
  if (options.array == Array::kInThisProcess) return "zervaBackend " + sim_->address() + "\n";
  if (options.array == Array::kExternal) return "zervaBackend " + options.backend + "\n";
  std::string conf;
  if (!options.topology.empty()) conf += "zervaSimTopology " + dir_.file("topology.conf", options.topology) + "\n";
  if (options.luns >= 0) conf += "zervaSimLuns " + std::to_string(options.luns) + "\n";
  if (options.fileSystems >= 0) conf += "zervaSimFileSystems " + std::to_string(options.fileSystems) + "\n";
  if (options.features >= 0) conf += "zervaSimFeatures " + std::to_string(options.features) + "\n";
  conf += "zervaSimSeed " + std::to_string(options.seed) + "\n";
  return conf;
}

bool AgentUnderTest::launch(const Options& options, std::string* error) {
  options_ = options;
  if (dir_.path().empty()) return *error = "no temporary directory", false;
  if (options.array == Array::kInThisProcess && !restartSimulator(error)) return false;

  // The agent and snmpd serve the standard groups too: unless the test asks
  // for everything, the communities see the module's subtree.
  const std::string view = options.wholeView ? "" : std::string(" ") + kSubtree;
  const std::string communities =
      options.communities ? "rocommunity public 127.0.0.1" + view + "\nrwcommunity private 127.0.0.1" + view + "\n"
                          : "";
  if (options.dlmod) {
    std::string conf = communities;
    conf += StockSnmpd::DlmodLine() + arrayConfig(options) + options.extraConfig;
    port_ = options.port != 0 ? options.port : FreeUdpPort();
    snmpd_.reset(new StockSnmpd(dir_));
    snmp_.reset(new Snmp(dir_.path(), port_));
    return snmpd_->start(port_, conf, error);
  }

  std::string conf = communities + arrayConfig(options) + options.extraConfig;

  std::vector<std::string> argv = {Program(), "-f", "-c", dir_.file("agent.conf", conf), "--state-dir", dir_.path()};
  if (options.logToStderr) argv.push_back("-L");
  port_ = options.port != 0 ? options.port : FreeUdpPort();
  if (options.agentxMaster.empty()) {
    argv.insert(argv.end(), {"--listen", "udp:127.0.0.1:" + std::to_string(port_)});
  } else {
    argv.insert(argv.end(), {"-x", options.agentxMaster});
  }
  agent_.reset(new Process(argv, dir_.path() + "/agent.log"));
  snmp_.reset(new Snmp(dir_.path(), port_));
  return true;
}

bool AgentUnderTest::start(const Options& options, std::string* error) {
  if (!launch(options, error)) return false;
  if (options.array == Array::kExternal) {
    for (int i = 0; i < 50 && log().find("serving ") == std::string::npos; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    if (log().find("serving ") == std::string::npos) {
      *error = "the agent logs no start-up line; its log:\n" + log();
      return false;
    }
    return true;
  }
  if (!snmp_->ready(options.readyAuth)) {
    *error = "the agent does not answer on port " + std::to_string(port_) + "; its log:\n" + log();
    return false;
  }
  return true;
}

int AgentUnderTest::runToExit(const Options& options) {
  std::string error;
  if (options.dlmod) {
    ADD_FAILURE() << "runToExit runs the agent program, not snmpd";
    return -1;
  }
  if (!launch(options, &error)) {
    ADD_FAILURE() << error;
    return -1;
  }
  return agent_->wait();
}

int AgentUnderTest::stop() {
  if (snmpd_) return snmpd_->stop();
  return agent_ ? agent_->stop() : -1;
}

std::string AgentUnderTest::log() const { return snmpd_ ? snmpd_->log() : ReadFile(dir_.path() + "/agent.log"); }

std::string AgentUnderTest::Program() { return ZERVA_AGENT_PROGRAM; }

AgentUnderTest::Options SubAgentOf(AgentUnderTest::Options options, const StockSnmpd& master, int port) {
  options.communities = false;
  options.agentxMaster = master.agentxSocket();
  options.port = port;
  return options;
}

long NodeOfController(const std::string& controller) {
  for (unsigned int n = 0; n < 256; ++n) {
    if (zerva_sim::ControllerIdOfNode(n) == controller) return n;
  }
  return -1;
}

}  // namespace zerva_test
