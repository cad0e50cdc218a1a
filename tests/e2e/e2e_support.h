// End-to-end tests of zerva-snmp-agent: the array simulator runs inside the
// test process with its model clock frozen, the real agent program runs as
// a child on a loopback UDP port with `zervaBackend unix:PATH`, and the
// Debian SNMP clients ask it. Every value the agent serves is then known:
// the simulator's ground truth, laid out as the MIB description says.
#ifndef ZERVA_TESTS_E2E_E2E_SUPPORT_H_
#define ZERVA_TESTS_E2E_E2E_SUPPORT_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "host/agent/mib_description.h"
#include "sim/array_simulator.h"
#include "tests/process/agent_under_test.h"
#include "tests/process/ground_truth.h"
#include "tests/process/process_harness.h"
#include "tests/process/served_mib.h"

namespace zerva_e2e {

using zerva_test::AgentUnderTest;
using zerva_test::Diff;
using zerva_test::GroundTruth;
using zerva_test::Hex;
using zerva_test::Mib;
using zerva_test::MibTable;
using zerva_test::MibTables;
using zerva_test::Oid;
using zerva_test::OidText;
using zerva_test::ParseOid;
using zerva_test::SubAgentOf;
using zerva_test::SwitchOid;
using zerva_test::TableTruth;
using zerva_test::Under;
using zerva_test::Value;
using zerva_test::ValueText;

// The model time every test freezes the simulator's clock at (an hour
// after its start, so that every rate has complete sample periods).
const uint64_t kFrozenMs = zerva_sim::ArraySimulator::kClockStartMs + 3600000ULL + 2500ULL;

// A small array that still has every kind of object the tables filter or
// order: controllers on three engines, ports of the four types in every
// status (reported or not), bond members, LUN IDs with gaps listed over
// several pages, file-system IDs of one, two and three digits (their text
// index orders by length first).
extern const char kSmallTopology[];

// One parsed line of snmpwalk/snmpbulkwalk/snmpget output (-On -Ox).
struct WalkLine {
  Oid oid;
  Value value;
};
struct ParsedWalk {
  std::vector<WalkLine> lines;      // instances, in output order
  std::vector<std::string> others;  // lines that are no instance (errors, end of view, ...)
};
ParsedWalk ParseWalk(const std::string& output);
// The instances of a walk under `prefix`, as a map; duplicates and
// out-of-order OIDs are reported in *problems.
std::map<Oid, Value> InstancesUnder(const ParsedWalk& walk, const Oid& prefix, std::vector<std::string>* problems);

// The array of the tests: kSmallTopology in this process, its clock frozen
// at kFrozenMs, every feature; the agent reuses no rows (snapshots off), so
// every answer is read from the array at that moment.
AgentUnderTest::Options SmallArray();

// Runs an SNMP client program on the agent (-On -Ox -Ot, 2 s timeout, one
// retry).
std::string Tool(const AgentUnderTest& agent, const std::string& program, const std::string& auth,
                 const std::string& args, int* rc = nullptr);
// snmpwalk (or another walker) of one subtree with the v2c read community.
ParsedWalk Walk(const AgentUnderTest& agent, const Oid& root, const std::string& program = "snmpwalk",
                const std::string& options = "", int* rc = nullptr, std::string* raw = nullptr);
// The ground truth of a table at this moment; fails the calling test when
// the simulator refuses an object it listed.
TableTruth Truth(const AgentUnderTest& agent, const zerva_agent::MibObject& table, bool* served = nullptr);

// The agent's credentials: communities and the SNMPv3 user of the tests.
extern const char kReadCommunity[];   // "-v2c -c public"
extern const char kWriteCommunity[];  // "-v2c -c private"
extern const char kV3UserConfig[];    // createUser/rwuser lines
extern const char kV3Auth[];          // the matching client options

}  // namespace zerva_e2e

#endif  // ZERVA_TESTS_E2E_E2E_SUPPORT_H_
