#include "performance/snmp_zerva_performance_controllerNFSV4_handler.h"

unsigned int CPerformanceControllerNFSV4Handler::getObjIDForPerf() { return 1001; }
