// CPerformanceSwithHandler: the array's performance-collection switch as a
// read-write scalar (1.3.6.1.4.1.32473.4.1.21.1). Reads and writes are each
// one exchange with the back end; the value is passed through unchanged.
#ifndef ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_SWITCH_H_
#define ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_SWITCH_H_

#include "handlers/snmp_handler.h"

class CPerformanceSwithHandler : public CSnmpLeafHandler {
 public:
  // Writes the number of req's first cell (tag 0) to the back end with
  // "SET_PERFORMANCE_SWITCH"; the answer goes into rsp. Returns the back
  // end's status. Throws CVEM_Exception when req has no record or its cell
  // is not numerical.
  int OnSetLeaf(const CVEM_SnmpContext& ctx, const CTLVPackageV3<TLVMsgHeadV3>& req,
                CTLVPackageV3<TLVMsgHeadV3>& rsp) override;

  // Reads the state with "GET_PERFORMANCE_SWITCH" into a new 4-byte type-3
  // cell. Returns 0, or the back end's status with cell untouched.
  int queryLeaf(const CVEM_SnmpContext& ctx, CTLVCell*& cell) override;
};

#endif  // ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_SWITCH_H_
