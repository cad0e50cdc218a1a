#include "performance/snmp_zerva_performance_controllerSMBV2_handler.h"

unsigned int CPerformanceControllerSMBV2Handler::getObjIDForPerf() { return 1003; }
