// CPerformanceCacheHandler: the controller cache table
// (1.3.6.1.4.1.32473.4.1.21.7), one row of three statistic items per controller.
#ifndef ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_CACHE_HANDLER_H_
#define ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_CACHE_HANDLER_H_

#include <string>

#include "performance/snmp_zerva_performance_common.h"

class CPerformanceCacheHandler : public CSnmpPerformanceCommon {
 public:
  CPerformanceCacheHandler();
  ~CPerformanceCacheHandler() override {}

  // Fills rsp with one row per controller; ctx and req are not read. Any
  // failure for one controller ends the read (earlier rows stay in rsp).
  int OnQueryTable(const CVEM_SnmpContext& ctx, const CTLVPackageV3<TLVMsgHeadV3>& req,
                   CTLVPackageV3<TLVMsgHeadV3>& rsp) override;

 private:
  std::string m_strItems;
};

#endif  // ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_CACHE_HANDLER_H_
