// CSnmpPerformanceCommon: the two back-end queries every performance table
// needs: is collection switched on, and the current values of a list of
// statistic items for one object.
#ifndef ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_COMMON_H_
#define ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_COMMON_H_

#include <string>
#include <vector>

#include "handlers/snmp_handler.h"

class CSnmpPerformanceCommon : public CSnmpTableHandler {
 public:
  // Looks up the code of "GET_PERFORMANCE_SWITCH".
  CSnmpPerformanceCommon();
  ~CSnmpPerformanceCommon() override {}

  bool isWholeTable() override { return false; }

  // The switch state as the back end reports it (1: collection on); 0 when
  // the query fails. Throws CVEM_Exception for an answer without a record
  // or with a non-numeric state cell.
  unsigned int GetPerfSwitchSta();

  // Fetches the items (decimal item IDs joined by ",") of object objID of
  // type objType with one "GET_CUR_STATISTIC_DATA" command and appends their
  // values to values, in item order. Returns 0, the back end's code, or -1
  // when the answer text is not a list of numbers.
  int GetBatchPerfData(unsigned int objType, const std::string& objID, const std::string& items,
                       std::vector<unsigned int>& values);

 protected:
  long long m_getSwitchCmd;
};

#endif  // ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_COMMON_H_
