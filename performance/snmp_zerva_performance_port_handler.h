// CPerformancePortHandler: the front-end port table (1.3.6.1.4.1.32473.4.1.21.5).
// Lists the ports of the four port types, keeps those that qualify, and
// answers one row of nine statistic items and the name per port.
#ifndef ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_PORT_HANDLER_H_
#define ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_PORT_HANDLER_H_

#include <string>
#include <vector>

#include "performance/snmp_zerva_performance_common.h"

class CPerformancePortHandler : public CSnmpPerformanceCommon {
 public:
  CPerformancePortHandler();
  ~CPerformancePortHandler() override {}

  // Fills rsp with the rows of every port type; ctx and req are not read.
  // Returns 0, or the back end's code when a port listing fails (rows of the
  // types before stay in rsp).
  int OnQueryTable(const CVEM_SnmpContext& ctx, const CTLVPackageV3<TLVMsgHeadV3>& req,
                   CTLVPackageV3<TLVMsgHeadV3>& rsp) override;

  // Turns the back end's listing of the ports of one type into rows.
  void GetPortPerfValue(unsigned int portType, CTLVPackageV3<TLVMsgHeadV3>& answer, CTLVPackageV3<TLVMsgHeadV3>& rsp);

 private:
  std::string m_strItems;
  std::vector<unsigned int> m_vecPortTypes;
};

#endif  // ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_PORT_HANDLER_H_
