// CPerformanceControllerNFSV4Handler: the controllers' NFSv4 table
// (1.3.6.1.4.1.32473.4.1.21.11), as the NFSv3 table with statistics of object type 1001.
#ifndef ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_CONTROLLERNFSV4_HANDLER_H_
#define ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_CONTROLLERNFSV4_HANDLER_H_

#include "performance/snmp_zerva_performance_controllerNFSV3_handler.h"

class CPerformanceControllerNFSV4Handler : public CPerformanceControllerNFSV3Handler {
 public:
  ~CPerformanceControllerNFSV4Handler() override {}
  unsigned int getObjIDForPerf() override;  // 1001
};

#endif  // ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_CONTROLLERNFSV4_HANDLER_H_
