// CPerformanceControllerNFSV41Handler: the controllers' NFSv4.1 table
// (1.3.6.1.4.1.32473.4.1.21.15), as the NFSv3 table with statistics of object type 57636.
#ifndef ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_CONTROLLERNFSV41_HANDLER_H_
#define ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_CONTROLLERNFSV41_HANDLER_H_

#include "performance/snmp_zerva_performance_controllerNFSV3_handler.h"

class CPerformanceControllerNFSV41Handler : public CPerformanceControllerNFSV3Handler {
 public:
  ~CPerformanceControllerNFSV41Handler() override {}
  unsigned int getObjIDForPerf() override;  // 57636
};

#endif  // ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_CONTROLLERNFSV41_HANDLER_H_
