#include "performance/snmp_zerva_performance_controllerSMBV2_handler.h"

#include "tlv/backend_codes.h"

unsigned int CPerformanceControllerSMBV2Handler::getObjIDForPerf() { return backend::kObjTypeSmbV2; }
