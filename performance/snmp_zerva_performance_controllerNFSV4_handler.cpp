#include "performance/snmp_zerva_performance_controllerNFSV4_handler.h"

#include "tlv/backend_codes.h"

unsigned int CPerformanceControllerNFSV4Handler::getObjIDForPerf() { return backend::kObjTypeNfsV4; }
