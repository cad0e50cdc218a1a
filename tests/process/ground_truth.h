// What the agent must serve, from the simulated array's own model: every
// table's instances with their SNMP types and values, laid out as the MIB
// description says. With the model's clock frozen, two walks at any time
// must both equal it.
#ifndef ZERVA_TESTS_PROCESS_GROUND_TRUTH_H_
#define ZERVA_TESTS_PROCESS_GROUND_TRUTH_H_

#include <map>
#include <string>
#include <vector>

#include "host/agent/mib_description.h"
#include "sim/array_simulator.h"
#include "tests/process/process_harness.h"

namespace zerva_test {

// One value as both sides are compared: the SNMP type as snmpwalk names it
// (INTEGER, Gauge32, Counter32, Counter64, Timeticks; OCTETS for strings)
// and the value (decimal; strings as lower-case hex, two digits a byte).
struct Value {
  std::string type;
  std::string value;
  bool operator==(const Value& o) const { return type == o.type && value == o.value; }
  bool operator!=(const Value& o) const { return !(*this == o); }
};
std::string ValueText(const Value& v);  // "Gauge32: 5"
// Bytes as lower-case hex, two digits a byte (how Value holds strings).
std::string Hex(const std::string& bytes);

// What the agent must serve for one table: instance OID -> value.
struct TableTruth {
  const zerva_agent::MibObject* object = nullptr;  // from the MIB description
  Oid prefix;
  std::vector<Oid> rowIndexes;  // in OID order
  std::map<Oid, Value> instances;
  // The first and last instance of a walk of the table (column by column).
  Oid first() const;
  Oid last() const;
};

// The ground truth of one table at the simulator's current (frozen) time.
// Tables whose feature the array lacks are not served: `served` false.
// `error` is set when the simulator refuses an object it listed.
TableTruth GroundTruth(const zerva_sim::ArraySimulator& sim, const zerva_agent::MibObject& table, bool* served,
                       std::string* error);

// "" when the two agree, else up to a few lines naming the differences.
std::string Diff(const std::map<Oid, Value>& expected, const std::map<Oid, Value>& actual);

// The row index of a table as text: the number of an Integer index, the
// text of a String index (its length arc left out).
std::string IndexText(const zerva_agent::MibObject& table, const Oid& rowIndex);

}  // namespace zerva_test

#endif  // ZERVA_TESTS_PROCESS_GROUND_TRUTH_H_
