#include "performance/snmp_zerva_performance_controllerNFSV41_handler.h"

#include "tlv/backend_codes.h"

unsigned int CPerformanceControllerNFSV41Handler::getObjIDForPerf() { return backend::kObjTypeNfsV41; }
