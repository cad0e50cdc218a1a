// check_snmp of Debian's monitoring-plugins, run with the command lines of
// the shipped Nagios definitions (zerva-commands.cfg, macros expanded as
// Nagios does), against the agent whose back end is a zerva-array-sim
// process. The array's states are set on that running process:
// zerva-sim-ctl freezes its clock at model times whose LUN response times
// are known (the same model, same topology and seed, in this process) and
// injects faults; the collection switch is written through the agent (a
// SET of vemPerfSwitch.0, as an operator does; zerva-sim-ctl has no switch
// action). Each check's exit code and first output line are compared with
// what those states must give.
#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "integrations/support/integration_support.h"
#include "sim/array_simulator.h"
#include "sim/topology.h"
#include "tests/e2e/e2e_support.h"

namespace zerva_integrations {
namespace {

using zerva_e2e::AgentUnderTest;
using zerva_test::Process;
using zerva_test::ReadFile;
using zerva_test::TempDir;

const uint64_t kSeed = 7;
const char kLun[] = "5";

// One `define TYPE { ... }` block of a Nagios object file: its directives.
struct Definition {
  std::string type;
  std::map<std::string, std::string> directives;
};

std::vector<Definition> ParseObjects(const std::string& text) {
  std::vector<Definition> out;
  bool open = false;
  for (std::string line : Lines(text)) {
    const size_t first = line.find_first_not_of(" \t");
    if (first == std::string::npos || line[first] == '#' || line[first] == ';') continue;
    line = line.substr(first);
    if (line.compare(0, 7, "define ") == 0) {
      out.push_back(Definition());
      out.back().type = line.substr(7, line.find_first_of(" {", 7) - 7);
      open = true;
    } else if (line[0] == '}') {
      open = false;
    } else if (open) {
      const size_t space = line.find_first_of(" \t");
      const size_t value = space == std::string::npos ? std::string::npos : line.find_first_not_of(" \t", space);
      out.back().directives[line.substr(0, space)] = value == std::string::npos ? "" : line.substr(value);
    }
  }
  return out;
}

std::vector<Definition> Objects(const std::string& file, const std::string& type) {
  std::vector<Definition> out;
  for (const Definition& d : ParseObjects(ReadFile(IntegrationsDir() + "/nagios/" + file))) {
    if (d.type == type) out.push_back(d);
  }
  return out;
}

// command_name -> command_line of zerva-commands.cfg.
std::map<std::string, std::string> Commands() {
  std::map<std::string, std::string> out;
  for (const Definition& d : Objects("zerva-commands.cfg", "command")) {
    out[d.directives.at("command_name")] = d.directives.at("command_line");
  }
  return out;
}

// The $MACRO$ names a text uses.
std::set<std::string> MacrosOf(const std::string& text) {
  std::set<std::string> out;
  const std::regex macro("\\$([A-Z0-9_]+)\\$");
  for (std::sregex_iterator m(text.begin(), text.end(), macro), end; m != end; ++m) out.insert((*m)[1]);
  return out;
}

// A command line with its macros replaced; an unknown macro fails the test.
std::string Expand(std::string line, const std::map<std::string, std::string>& macros) {
  for (const std::string& name : MacrosOf(line)) {
    const auto m = macros.find(name);
    EXPECT_NE(macros.end(), m) << "no value for $" << name << "$";
    if (m == macros.end()) continue;
    for (size_t at = line.find("$" + name + "$"); at != std::string::npos; at = line.find("$" + name + "$", at)) {
      line.replace(at, name.size() + 2, m->second);
      at += m->second.size();
    }
  }
  return line;
}

// What one check printed and returned.
struct CheckResult {
  int rc = -1;
  std::string firstLine;  // without trailing blanks
  std::string output;
};

class CheckSnmpTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.path().empty());
    const std::string topology = dir_.file("topology.conf", zerva_e2e::kSmallTopology);
    // The running array.
    sim_.reset(new Process({ZERVA_ARRAY_SIM, "--listen", backend(), "--topology", topology, "--seed",
                            std::to_string(kSeed), "--device-config", ZERVA_DEVICE_CONFIG},
                           dir_.path() + "/sim.log"));
    ASSERT_TRUE(WaitUntil(
        [this] {
          return !sim_->running() || ReadFile(dir_.path() + "/sim.log").find("listening on") != std::string::npos;
        },
        std::chrono::seconds(10)));
    ASSERT_TRUE(sim_->running()) << ReadFile(dir_.path() + "/sim.log");
    // The same array's model, for the ground truth.
    zerva_sim::Topology parsed;
    std::string error;
    ASSERT_TRUE(zerva_sim::ParseTopology(zerva_e2e::kSmallTopology, &parsed, &error)) << error;
    model_.reset(new zerva_sim::ArraySimulator(parsed, kSeed, zerva_sim::CommandCodes()));

    AgentUnderTest::Options o;
    o.array = AgentUnderTest::Array::kExternal;
    o.backend = backend();
    o.extraConfig = "zervaSnapshotSeconds 0\n";
    ASSERT_TRUE(agent_.start(o, &error)) << error;
    agentStarted_ = true;
    ASSERT_TRUE(agent_.snmp().ready()) << agent_.log();
  }

  void TearDown() override {
    // The agent first: it must not see its back end vanish under it.
    if (agentStarted_) {
      EXPECT_EQ(0, agent_.stop()) << agent_.log();
    }
    if (sim_) {
      EXPECT_EQ(0, sim_->stop()) << ReadFile(dir_.path() + "/sim.log");
    }
  }

  std::string backend() const { return "unix:" + dir_.path() + "/sim.sock"; }

  // zerva-sim-ctl ACTION [ARG] on the running array; fails the test unless
  // it succeeds.
  void SimCtl(const std::string& action, const std::string& arg = "") {
    std::vector<std::string> argv = {ZERVA_SIM_CTL, backend(), action};
    if (!arg.empty()) argv.push_back(arg);
    int rc = -1;
    const std::string out = RunProgram(argv, {}, "", 15, &rc);
    EXPECT_EQ(0, rc) << "zerva-sim-ctl " << action << " " << arg << ":\n" << out;
  }

  // Runs the shipped command `name` as Nagios would for the host of
  // zerva-services.cfg pointed at the agent, with these $ARGn$.
  CheckResult Check(const std::string& name, const std::vector<std::string>& args) {
    const std::map<std::string, std::string> commands = Commands();
    const auto command = commands.find(name);
    EXPECT_NE(commands.end(), command) << name;
    if (command == commands.end()) return CheckResult();
    std::map<std::string, std::string> macros = {
        {"USER1", ZERVA_NAGIOS_PLUGIN_DIR},
        {"HOSTADDRESS", "127.0.0.1"},
        {"_HOSTSNMP_PORT", std::to_string(agent_.port())},
        {"_HOSTSNMP_COMMUNITY", "public"},
    };
    for (size_t i = 0; i < args.size(); ++i) macros["ARG" + std::to_string(i + 1)] = args[i];
    CheckResult r;
    // Nagios runs a command line with shell metacharacters through /bin/sh.
    // The environment keeps the Net-SNMP configuration of the machine and
    // the user out of check_snmp's snmpget.
    r.output = zerva_test::RunShell(agent_.snmp().env() + Expand(command->second, macros), &r.rc);
    r.firstLine = r.output.substr(0, r.output.find('\n'));
    r.firstLine.erase(r.firstLine.find_last_not_of(" \t") + 1);
    std::cout << name << " (exit " << r.rc << "): " << r.firstLine << "\n";
    return r;
  }

  // LUN kLun's read and write response times at model time ms.
  std::pair<uint32_t, uint32_t> ResponseTimes(uint64_t ms) {
    model_->freezeClock(ms);
    std::vector<uint32_t> values;
    EXPECT_EQ(zerva_sim::kSimOk, model_->statistics(zerva_sim::kObjLun, kLun, {370, 371}, &values));
    values.resize(2);
    return {values[0], values[1]};
  }

  TempDir dir_;                   // removed last
  std::unique_ptr<Process> sim_;  // stopped after the agent
  std::unique_ptr<zerva_sim::ArraySimulator> model_;
  AgentUnderTest agent_;
  bool agentStarted_ = false;
};

// The state check_snmp gives one value against -w W -c C.
int StateOf(uint32_t value, uint32_t warning, uint32_t critical) {
  return value > critical ? 2 : value > warning ? 1 : 0;
}

const char* const kStateNames[] = {"OK", "WARNING", "CRITICAL"};

TEST_F(CheckSnmpTest, LunResponseTimeCheckIsOkWarningAndCriticalAtModelTimesOfLowMiddleAndHighResponseTimes) {
  // An hour of sample periods, each in its middle: the slower of the LUN's
  // read and write response time at each.
  std::vector<std::pair<uint32_t, uint64_t>> slowest;  // (max(read, write), model time)
  for (uint64_t k = 0; k < 720; ++k) {
    const uint64_t ms = zerva_e2e::kFrozenMs + k * 5000;
    const std::pair<uint32_t, uint32_t> rt = ResponseTimes(ms);
    slowest.push_back({std::max(rt.first, rt.second), ms});
  }
  std::sort(slowest.begin(), slowest.end());
  const auto low = slowest.front(), middle = slowest[slowest.size() / 2], high = slowest.back();
  ASSERT_LT(low.first, middle.first);
  ASSERT_LT(middle.first, high.first);
  // Thresholds between them: low is OK, middle WARNING, high CRITICAL.
  const uint32_t warning = low.first + (middle.first - low.first) / 2;
  const uint32_t critical = middle.first + (high.first - middle.first) / 2;

  int expectedState = 0;
  for (const auto& at : {low, middle, high}) {
    SimCtl("freeze-clock", std::to_string(at.second));
    const std::pair<uint32_t, uint32_t> rt = ResponseTimes(at.second);
    const int read = StateOf(rt.first, warning, critical), write = StateOf(rt.second, warning, critical);
    ASSERT_EQ(expectedState, std::max(read, write));
    // check_snmp marks the values outside their range with asterisks.
    auto shown = [](uint32_t v, int state) { return state == 0 ? std::to_string(v) : "*" + std::to_string(v) + "*"; };
    const std::string thresholds = ";" + std::to_string(warning) + ";" + std::to_string(critical);
    const std::string expected = std::string("SNMP ") + kStateNames[expectedState] + " - read_response_time " +
                                 shown(rt.first, read) + " us, write_response_time " + shown(rt.second, write) +
                                 " us | read_response_time=" + std::to_string(rt.first) + thresholds +
                                 " write_response_time=" + std::to_string(rt.second) + thresholds;

    const CheckResult r =
        Check("check_zerva_lun_response_time", {kLun, std::to_string(warning), std::to_string(critical)});
    EXPECT_EQ(expectedState, r.rc) << r.output;
    EXPECT_EQ(expected, r.firstLine) << "model time " << at.second;
    ++expectedState;
  }
}

TEST_F(CheckSnmpTest, CollectionSwitchCheckIsOkWhileOnAndCriticalWhileOffWhenTheLunCheckIsUnknown) {
  CheckResult r = Check("check_zerva_collection_switch", {});
  EXPECT_EQ(0, r.rc) << r.output;
  EXPECT_EQ("SNMP OK - collection_switch 1 | collection_switch=1;;1:1", r.firstLine);

  // Collection off on the running array, through the agent.
  int rc = -1;
  const std::string set =
      agent_.snmp().tool("snmpset", zerva_e2e::kWriteCommunity, std::string(zerva_test::kSwitch) + " u 0", &rc);
  ASSERT_EQ(0, rc) << set;
  r = Check("check_zerva_collection_switch", {});
  EXPECT_EQ(2, r.rc) << r.output;
  EXPECT_EQ("SNMP CRITICAL - collection_switch *0* | collection_switch=0;;1:1", r.firstLine);
  // The LUN has no row while collection is off.
  r = Check("check_zerva_lun_response_time", {kLun, "20000", "50000"});
  EXPECT_EQ(3, r.rc) << r.output;
  EXPECT_EQ("No valid data returned (No Such Instance currently exists at this OID)", r.firstLine);

  agent_.snmp().tool("snmpset", zerva_e2e::kWriteCommunity, std::string(zerva_test::kSwitch) + " u 1", &rc);
  ASSERT_EQ(0, rc);
  r = Check("check_zerva_collection_switch", {});
  EXPECT_EQ(0, r.rc) << r.output;
  EXPECT_EQ("SNMP OK - collection_switch 1 | collection_switch=1;;1:1", r.firstLine);
}

TEST_F(CheckSnmpTest, LunResponseTimeCheckIsUnknownWhileTheArrayRefusesStatisticsAndOkOnceItAnswers) {
  SimCtl("freeze-clock", std::to_string(zerva_e2e::kFrozenMs));
  const std::pair<uint32_t, uint32_t> rt = ResponseTimes(zerva_e2e::kFrozenMs);
  const std::string above = std::to_string(std::max(rt.first, rt.second) + 1000);
  // The array refuses every statistics request (with the code it gives
  // while collection is off).
  SimCtl("fault", "refuse=0x53494D05,cmd=GET_CUR_STATISTIC_DATA");
  SimCtl("fault", "refuse=0x53494D05,cmd=LUN_BATCH_STATS");
  CheckResult r = Check("check_zerva_lun_response_time", {kLun, above, above});
  EXPECT_EQ(3, r.rc) << r.output;
  EXPECT_EQ("External command error: Error in packet", r.firstLine);

  SimCtl("clear-faults");
  r = Check("check_zerva_lun_response_time", {kLun, above, above});
  EXPECT_EQ(0, r.rc) << r.output;
  EXPECT_EQ("SNMP OK - read_response_time " + std::to_string(rt.first) + " us, write_response_time " +
                std::to_string(rt.second) + " us | read_response_time=" + std::to_string(rt.first) + ";" + above + ";" +
                above + " write_response_time=" + std::to_string(rt.second) + ";" + above + ";" + above,
            r.firstLine);
}

// The example services call the shipped commands with as many arguments as
// the commands use, and their host defines every custom variable the
// commands read.
TEST(NagiosDefinitionsTest, ServicesCallTheShippedCommandsWithEveryArgumentAndHostVariableTheyUse) {
  const std::map<std::string, std::string> commands = Commands();
  EXPECT_EQ((std::set<std::string>{"check_zerva_collection_switch", "check_zerva_lun_response_time"}), [&] {
    std::set<std::string> names;
    for (const auto& c : commands) names.insert(c.first);
    return names;
  }());
  const std::vector<Definition> hosts = Objects("zerva-services.cfg", "host");
  ASSERT_EQ(1u, hosts.size());
  const std::vector<Definition> services = Objects("zerva-services.cfg", "service");
  ASSERT_EQ(commands.size(), services.size());
  std::set<std::string> called;
  for (const Definition& s : services) {
    const std::string& check = s.directives.at("check_command");
    std::vector<std::string> parts;
    size_t begin = 0;
    for (size_t bang = check.find('!');; bang = check.find('!', begin)) {
      parts.push_back(check.substr(begin, bang - begin));
      if (bang == std::string::npos) break;
      begin = bang + 1;
    }
    const auto command = commands.find(parts[0]);
    ASSERT_NE(commands.end(), command) << check;
    called.insert(parts[0]);
    EXPECT_EQ(hosts[0].directives.at("host_name"), s.directives.at("host_name"));
    size_t args = 0;
    for (const std::string& macro : MacrosOf(command->second)) {
      if (macro.compare(0, 3, "ARG") == 0) args = std::max(args, static_cast<size_t>(std::stoul(macro.substr(3))));
      // $_HOSTNAME$ is the host's custom variable _NAME.
      if (macro.compare(0, 5, "_HOST") == 0) {
        EXPECT_EQ(1u, hosts[0].directives.count("_" + macro.substr(5))) << macro << " of " << parts[0];
      }
    }
    EXPECT_EQ(args, parts.size() - 1) << check;
  }
  EXPECT_EQ(commands.size(), called.size());
}

}  // namespace
}  // namespace zerva_integrations
