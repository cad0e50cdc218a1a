#include "performance/snmp_zerva_performance_controllerNFSV41_handler.h"

unsigned int CPerformanceControllerNFSV41Handler::getObjIDForPerf() { return 57636; }
