#include "performance/snmp_zerva_performance_controllerSMBV1_handler.h"

unsigned int CPerformanceControllerSMBV1Handler::getObjIDForPerf() { return 1002; }
