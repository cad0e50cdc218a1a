// The MIB description the agent serves (mibs/VEM-PERFORMANCE.xml of the
// source tree), loaded once for every test of the program.
#ifndef ZERVA_TESTS_PROCESS_SERVED_MIB_H_
#define ZERVA_TESTS_PROCESS_SERVED_MIB_H_

#include <map>
#include <string>
#include <vector>

#include "host/agent/mib_description.h"

namespace zerva_test {

// The description; *error is "" when it loaded.
const zerva_agent::MibDescription& ServedMib(std::string* error);
// The description; fails the calling test when it does not load.
const zerva_agent::MibDescription& Mib();
// The table of the description with this name, or null.
const zerva_agent::MibObject* MibTable(const std::string& name);
// Every table of the description, in OID order.
std::vector<const zerva_agent::MibObject*> MibTables();
// The UNITS clauses of the SMIv2 module (mibs/VEM-PERFORMANCE-MIB.txt): the
// units text by object name, for the objects that have one. Net-SNMP's
// tools print a value of such an object followed by a blank and the units.
const std::map<std::string, std::string>& MibUnits();

}  // namespace zerva_test

#endif  // ZERVA_TESTS_PROCESS_SERVED_MIB_H_
