// CVEM_SnmpContext: what the host knows about the SNMP request being served.
//
// The handlers pass it on and never read it; the host's batch-table base
// (CSnmpTableBase) reads the operation, the requested index and the number
// of rows wanted.
#ifndef ZERVA_SNMPCOMMON_SNMP_CONTEXT_H_
#define ZERVA_SNMPCOMMON_SNMP_CONTEXT_H_

#include "agentpp/oidx.h"

enum ESnmpOperation {
  SNMP_OP_GET = 0,      // the row at index exactly
  SNMP_OP_GETNEXT = 1,  // rows after index (or from the first row when index is empty)
  SNMP_OP_GETBULK = 2,  // as GETNEXT, with rowsWanted rows asked for
  SNMP_OP_SET = 3,
  SNMP_OP_WALK = 4,  // the whole table
};

class CVEM_SnmpContext {
 public:
  CVEM_SnmpContext() {}
  CVEM_SnmpContext(ESnmpOperation op, const Agentpp::Oidx& index, unsigned int rowsWanted)
      : operation(op), index(index), rowsWanted(rowsWanted) {}

  ESnmpOperation operation = SNMP_OP_WALK;
  // The row index of the request: the OID part after the table entry and
  // the column (empty for a walk from the start).
  Agentpp::Oidx index;
  // How many rows the request can use; 0 means as many as there are.
  unsigned int rowsWanted = 0;
};

#endif  // ZERVA_SNMPCOMMON_SNMP_CONTEXT_H_
