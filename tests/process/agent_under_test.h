// The agent program (zerva-snmp-agent) as a child process of a test, with
// its simulated array: a simulator server inside the test process that the
// agent reaches over a Unix socket (its model is then the test's ground
// truth and fault control), or the agent's own embedded simulated array.
// The agent serves on a loopback UDP port of its own, or as the AgentX
// sub-agent of a master the test runs, or as the dlmod module of a stock
// snmpd the harness runs.
#ifndef ZERVA_TESTS_PROCESS_AGENT_UNDER_TEST_H_
#define ZERVA_TESTS_PROCESS_AGENT_UNDER_TEST_H_

#include <cstdint>
#include <memory>
#include <string>

#include "sim/array_simulator.h"
#include "sim/sim_server.h"
#include "tests/process/process_harness.h"
#include "tests/process/stock_snmpd.h"

namespace zerva_test {

class AgentUnderTest {
 public:
  // Where the agent's array is.
  enum class Array {
    kInThisProcess,  // a simulator server in the test process: zervaBackend unix:PATH
    kEmbedded,       // the agent's own simulated array (zervaSim... lines)
    kExternal,       // an array the test runs itself at `backend`: zervaBackend BACKEND
  };

  struct Options {
    Array array = Array::kInThisProcess;
    // The array: a topology file's text ("" for the simulator's built-in
    // array) and overrides of it (negative: as the topology says).
    std::string topology;
    // Array::kExternal: the array's address ("unix:PATH"). Nothing needs to
    // listen there yet: start() waits for the agent's start-up line instead
    // of an answer.
    std::string backend;
    long features = 7;      // bit 0: 48 NFS, bit 1: 49 SMB, bit 2: 602 file systems
    long luns = -1;         // LUN IDs 0..n-1
    long fileSystems = -1;  // file-system IDs 1..n
    long switchOn = -1;     // the switch at start (in-process array only)
    uint64_t seed = 7;      // the workload model's seed
    // In-process array: the model time its clock is frozen at (0: it runs).
    uint64_t frozenMs = 0;
    // rocommunity public and rwcommunity private for 127.0.0.1.
    bool communities = true;
    // What those communities see: the module's subtree only (as in snmpd's
    // configuration for a sub-agent or a dlmod module), or with wholeView
    // everything the agent or snmpd serves (the standard groups too).
    bool wholeView = false;
    // More configuration lines, after the harness's own.
    std::string extraConfig;
    // -L: the agent logs to stderr, into log(). False: where its
    // configuration says (zervaLogFile in extraConfig, say).
    bool logToStderr = true;
    // The UDP port the agent listens on (0: a free one). As an AgentX
    // sub-agent (agentxMaster set) the agent has no port of its own: this is
    // the master's, which snmp() asks.
    int port = 0;
    // The master's AgentX socket: the agent runs as its sub-agent.
    std::string agentxMaster;
    // The agent is the dlmod module of a stock snmpd on `port` instead of
    // the program: our tokens follow the dlmod line, and the communities
    // see the subtree only unless wholeView. The
    // process, its log and its exit status are then snmpd's. REQUIRES: no
    // sanitizer build (the module cannot be loaded into snmpd then).
    bool dlmod = false;
    // The credentials the agent must answer a GET of the switch with before
    // start() returns true.
    std::string readyAuth = "-v2c -c public";
    // When the object goes and the agent still runs, it must exit 0 on
    // SIGTERM (in a sanitizer build: without a leak or error report).
    bool expectCleanExit = true;
  };

  AgentUnderTest() = default;
  ~AgentUnderTest();
  AgentUnderTest(const AgentUnderTest&) = delete;
  AgentUnderTest& operator=(const AgentUnderTest&) = delete;

  // Starts the array and the agent; true once the agent answers, else false
  // with *error (the agent's log included).
  bool start(const Options& options, std::string* error);
  // Starts the array and the agent without waiting for an answer (an
  // AgentX sub-agent whose master is not there yet). False with *error
  // when the array cannot start.
  bool launch(const Options& options, std::string* error);
  // Starts the agent as start() does and waits for it to exit (at most
  // about 5 s): its exit status, or -1 when it is still running. Its output
  // is then log(). Not with Options::dlmod.
  int runToExit(const Options& options);

  // The in-process array's server and model (only with Array::kInThisProcess).
  zerva_sim::ArraySimServer& simulator() { return *sim_; }
  zerva_sim::ArraySimulator& array() { return sim_->array(); }
  const zerva_sim::ArraySimulator& array() const { return sim_->array(); }
  // Stops the in-process array: its socket disappears, connections are cut.
  void stopSimulator();
  // A new in-process array on the same socket (clock frozen as before).
  bool restartSimulator(std::string* error);
  // Requests the in-process array answered with this record identifier.
  uint64_t requests(unsigned long long command) const;

  // The agent program (not with Options::dlmod).
  Process& process() { return *agent_; }
  // Stops the agent (SIGTERM) and returns its exit status (-1 when it is
  // not running).
  int stop();

  const Snmp& snmp() const { return *snmp_; }
  int port() const { return port_; }
  const TempDir& dir() const { return dir_; }
  std::string socketPath() const { return dir_.path() + "/backend.sock"; }
  // Everything the agent (with Options::dlmod: snmpd) wrote to stdout and
  // stderr.
  std::string log() const;

  // The agent program.
  static std::string Program();

 private:
  // The configuration lines of our tokens for the array of `options`.
  // REQUIRES: the in-process array runs (Array::kInThisProcess).
  std::string arrayConfig(const Options& options);

  TempDir dir_;  // declared first: removed last
  Options options_;
  std::unique_ptr<zerva_sim::ArraySimServer> sim_;
  std::unique_ptr<Process> agent_;
  std::unique_ptr<StockSnmpd> snmpd_;  // Options::dlmod
  std::unique_ptr<Snmp> snmp_;
  int port_ = 0;
};

// The node number of a controller ID ("1A" -> 4), by the simulator's own
// naming; -1 when no node has that ID.
long NodeOfController(const std::string& controller);

// options for an AgentX sub-agent of master, which listens on port: the
// master holds the access control, so the agent configures no community.
AgentUnderTest::Options SubAgentOf(AgentUnderTest::Options options, const StockSnmpd& master, int port);

}  // namespace zerva_test

#endif  // ZERVA_TESTS_PROCESS_AGENT_UNDER_TEST_H_
