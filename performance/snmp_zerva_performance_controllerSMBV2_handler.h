// CPerformanceControllerSMBV2Handler: the controllers' SMBv2 table
// (1.3.6.1.4.1.32473.4.1.21.13), as the NFSv3 table with statistics of object type 1003.
#ifndef ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_CONTROLLERSMBV2_HANDLER_H_
#define ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_CONTROLLERSMBV2_HANDLER_H_

#include "performance/snmp_zerva_performance_controllerNFSV3_handler.h"

class CPerformanceControllerSMBV2Handler : public CPerformanceControllerNFSV3Handler {
 public:
  ~CPerformanceControllerSMBV2Handler() override {}
  unsigned int getObjIDForPerf() override;  // 1003
};

#endif  // ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_CONTROLLERSMBV2_HANDLER_H_
