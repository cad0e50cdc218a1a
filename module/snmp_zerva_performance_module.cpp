#include "module/snmp_zerva_performance_module.h"

#include <memory>

#include "diag/vem_debug_kit_guard.h"
#include "performance/snmp_zerva_performance_cache_handler.h"
#include "performance/snmp_zerva_performance_controllerNFSV3_handler.h"
#include "performance/snmp_zerva_performance_controllerNFSV41_handler.h"
#include "performance/snmp_zerva_performance_controllerNFSV4_handler.h"
#include "performance/snmp_zerva_performance_controllerSMBV1_handler.h"
#include "performance/snmp_zerva_performance_controllerSMBV2_handler.h"
#include "performance/snmp_zerva_performance_fileSystem_handler.h"
#include "performance/snmp_zerva_performance_lun_handler.h"
#include "performance/snmp_zerva_performance_node_handler.h"
#include "performance/snmp_zerva_performance_port_handler.h"
#include "performance/snmp_zerva_performance_switch.h"
#include "snmpcommon/snmp_capability.h"

namespace {

// Creates a handler and appends it with its prefix; the list owns it then.
template <typename HANDLER>
void Register(std::list<std::pair<const std::string, CSnmpHandler*> >& handlers, const char* prefix) {
  std::unique_ptr<CSnmpHandler> handler(new HANDLER());
  handlers.push_back(std::make_pair(std::string(prefix), handler.get()));
  handler.release();
}

}  // namespace

std::string CSNMP_ZervaPerformanceSvcModule::getMibFileName() { return "VEM-PERFORMANCE.xml"; }

void CSNMP_ZervaPerformanceSvcModule::getSvcHandler(std::list<std::pair<const std::string, CSnmpHandler*> >& handlers) {
  CVEMDebugKitGuard guard(VEM_KIT_REGISTRY,
                          "virtual void CSNMP_ZervaPerformanceSvcModule::getSvcHandler(std::list<std::pair<const "
                          "std::basic_string<char>, CSnmpHandler*> >&)");
  Register<CPerformanceSwithHandler>(handlers, "1.3.6.1.4.1.32473.4.1.21.1");
  Register<CPerformanceLunHandler>(handlers, "1.3.6.1.4.1.32473.4.1.21.4");
  Register<CPerformancePortHandler>(handlers, "1.3.6.1.4.1.32473.4.1.21.5");
  Register<CPerformanceNodeHandler>(handlers, "1.3.6.1.4.1.32473.4.1.21.3");
  Register<CPerformanceCacheHandler>(handlers, "1.3.6.1.4.1.32473.4.1.21.7");
  if (checkOidFeatureSurport(SNMP_FEATURE_NFS)) {
    Register<CPerformanceControllerNFSV3Handler>(handlers, "1.3.6.1.4.1.32473.4.1.21.10");
    Register<CPerformanceControllerNFSV4Handler>(handlers, "1.3.6.1.4.1.32473.4.1.21.11");
    Register<CPerformanceControllerNFSV41Handler>(handlers, "1.3.6.1.4.1.32473.4.1.21.15");
  }
  if (checkOidFeatureSurport(SNMP_FEATURE_CIFS)) {
    Register<CPerformanceControllerSMBV1Handler>(handlers, "1.3.6.1.4.1.32473.4.1.21.12");
    Register<CPerformanceControllerSMBV2Handler>(handlers, "1.3.6.1.4.1.32473.4.1.21.13");
  }
  if (checkOidFeatureSurport(SNMP_FEATURE_FILESYSTEM_PERF)) {
    Register<CPerformanceFileSystemHandler>(handlers, "1.3.6.1.4.1.32473.4.1.21.14");
  }
}

extern "C" __attribute__((visibility("default"))) CSNMP_Svc_Module* SNMP_SvcModuleCreator() {
  return new CSNMP_ZervaPerformanceSvcModule();
}
