// Helpers of the agent's fault-tolerance tests: the array simulator inside
// the test process as the agent's back end, the real agent program as a
// child on loopback, and a small SNMP client on the Net-SNMP library that
// times every request and checks every answer against the MIB description.
#ifndef ZERVA_TESTS_FAULT_FAULT_HARNESS_H_
#define ZERVA_TESTS_FAULT_FAULT_HARNESS_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "host/agent/mib_description.h"
#include "sim/array_simulator.h"
#include "tests/process/agent_under_test.h"
#include "tests/process/process_harness.h"

namespace zerva_fault {

typedef std::chrono::steady_clock Clock;
using zerva_test::AgentUnderTest;
using zerva_test::Oid;
using zerva_test::OidText;
using zerva_test::ParseOid;
using zerva_test::Subtree;
using zerva_test::SwitchOid;
using zerva_test::Under;

// SNMP exception values (RFC 3416) as varbind types.
const int kNoSuchObject = 0x80;
const int kNoSuchInstance = 0x81;
const int kEndOfMibView = 0x82;

struct VarBind {
  Oid name;
  int type = 0;         // ASN type or exception
  uint64_t number = 0;  // integer types and Counter64
  std::string bytes;    // OCTET STRING
  bool operator==(const VarBind& o) const {
    return name == o.name && type == o.type && number == o.number && bytes == o.bytes;
  }
  std::string text() const;
};

struct Answer {
  enum Status { kAnswered, kTimeout, kNotSent };
  Status status = kNotSent;
  int command = 0;  // PDU type of the answer (0xA2: Response)
  long errorStatus = 0;
  long errorIndex = 0;
  std::vector<VarBind> varbinds;
  double ms = 0;  // from sending to the whole answer
};

// Prepares the Net-SNMP library for the clients (once per process): no
// configuration files, no MIB files, no persistent state.
void InitSnmpClientLibrary();
// Releases what the library allocated (end of the test program).
void ShutdownSnmpClientLibrary();

// One SNMP v1/v2c session to 127.0.0.1:port. Every request waits at most
// `timeout` and is not retried. One client per thread; clients in several
// threads may run at once (library calls are serialised, waiting is not).
class SnmpClient {
 public:
  SnmpClient(int port, const std::string& community, long version = 1 /* SNMP_VERSION_2c */,
             std::chrono::milliseconds timeout = std::chrono::milliseconds(1000));
  ~SnmpClient();
  SnmpClient(const SnmpClient&) = delete;
  SnmpClient& operator=(const SnmpClient&) = delete;

  Answer get(const Oid& name);
  Answer getNext(const Oid& name);
  Answer getBulk(const Oid& name, int maxRepetitions);
  // SET of an Unsigned32 (Gauge32) value.
  Answer setUnsigned(const Oid& name, unsigned long value);

 private:
  Answer send(int command, const Oid& name, int maxRepetitions, const unsigned long* value);
  void open();
  void close();

  int port_;
  std::string community_;
  long version_;
  std::chrono::milliseconds timeout_;
  void* session_ = nullptr;
};

// Checks answers against the MIB description the agent serves.
class AnswerChecker {
 public:
  AnswerChecker();  // loads mibs/VEM-PERFORMANCE.xml of the source tree
  bool loaded() const { return error_.empty(); }
  const std::string& error() const { return error_; }
  const zerva_agent::MibDescription& mib() const { return mib_; }

  // "" when the varbind is a well-formed instance of the served subtree (or
  // lies outside it, or is endOfMibView); else what is wrong: unknown
  // object or column, bad index, wrong type, an index column whose value
  // is not its row's index.
  std::string checkVarBind(const VarBind& vb) const;
  // "" when the answer to a GETNEXT (maxRepetitions 0) or GETBULK of `name`
  // is a well-formed Response: an error status with a valid index, or
  // 1 (GETNEXT) / 1..maxRepetitions (GETBULK) varbinds in increasing
  // order after `name`, each well formed.
  std::string checkWalkAnswer(const Answer& answer, const Oid& name, int maxRepetitions) const;

 private:
  std::string error_;  // declared first: set while mib_ is bound
  const zerva_agent::MibDescription& mib_;
};

struct WalkResult {
  bool complete = false;  // reached the end of the subtree
  size_t requests = 0;
  size_t timeouts = 0;                // requests without an answer in time
  size_t errors = 0;                  // answers with an SNMP error status
  double maxMs = 0;                   // slowest answer
  std::vector<std::string> problems;  // malformed answers, out-of-order OIDs
  std::vector<VarBind> varbinds;      // instances of the subtree, in walk order
};

// Walks the subtree under `root` (the served subtree when empty) with
// GETBULK (maxRepetitions > 0) or GETNEXT (maxRepetitions 0) until its end,
// an error, a timeout, `deadline` or `maxRequests`. `afterRequest` (may be
// empty) runs after every answer with the number of requests made so far.
WalkResult Walk(SnmpClient& client, const AnswerChecker& checker, int maxRepetitions, Clock::time_point deadline,
                size_t maxRequests, const std::function<void(size_t)>& afterRequest = nullptr, const Oid& root = Oid());

// The varbinds of a walk that lie under root.
std::vector<VarBind> Under(const std::vector<VarBind>& walk, const Oid& root);

// Compares two walks varbind by varbind; "" when equal, else the first
// difference.
std::string CompareWalks(const std::vector<VarBind>& expected, const std::vector<VarBind>& actual);

// The simulated array of the tests, inside this process: the simulator's
// built-in array with a few hundred LUNs, every feature, collection on, its
// model clock frozen so that every value it serves is known in advance.
AgentUnderTest::Options TestArray();
// The model time the tests freeze the clock at.
const uint64_t kFrozenMs = 1000000000ULL + 3600000ULL;

// Checks a complete walk against the simulated array's ground truth: every
// table of the MIB description has exactly the instances, types and values
// the model gives at this moment. "" when it agrees, else the first table
// that does not, with its differences.
std::string CheckAgainstGroundTruth(const std::vector<VarBind>& walk, const zerva_sim::ArraySimulator& array);

}  // namespace zerva_fault

#endif  // ZERVA_TESTS_FAULT_FAULT_HARNESS_H_
