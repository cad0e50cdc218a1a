#include "performance/snmp_zerva_performance_controllerSMBV1_handler.h"

#include "tlv/backend_codes.h"

unsigned int CPerformanceControllerSMBV1Handler::getObjIDForPerf() { return backend::kObjTypeSmbV1; }
