// CPerformanceControllerSMBV1Handler: the controllers' SMBv1 table
// (1.3.6.1.4.1.32473.4.1.21.12), as the NFSv3 table with statistics of object type 1002.
#ifndef ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_CONTROLLERSMBV1_HANDLER_H_
#define ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_CONTROLLERSMBV1_HANDLER_H_

#include "performance/snmp_zerva_performance_controllerNFSV3_handler.h"

class CPerformanceControllerSMBV1Handler : public CPerformanceControllerNFSV3Handler {
 public:
  ~CPerformanceControllerSMBV1Handler() override {}
  unsigned int getObjIDForPerf() override;  // 1002
};

#endif  // ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_CONTROLLERSMBV1_HANDLER_H_
