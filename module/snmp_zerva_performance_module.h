// The performance-statistics service module: its factory and its registry
// of (OID prefix, handler) pairs under 1.3.6.1.4.1.32473.4.1.21.
#ifndef ZERVA_MODULE_SNMP_ZERVA_PERFORMANCE_MODULE_H_
#define ZERVA_MODULE_SNMP_ZERVA_PERFORMANCE_MODULE_H_

#include "snmpcommon/snmp_svc_module.h"

class CSNMP_ZervaPerformanceSvcModule : public CSNMP_Svc_Module {
 public:
  ~CSNMP_ZervaPerformanceSvcModule() override {}

  // "VEM-PERFORMANCE.xml".
  std::string getMibFileName() override;

  // Appends 5 to 11 new handlers in their fixed order: the switch, LUN, port,
  // node and cache tables always; the three NFS tables with feature 48, the
  // two SMB tables with feature 49 and the file-system table with feature
  // 602, each feature asked once. An exception from a handler's constructor
  // leaves the entries appended before it in the list (they are the
  // caller's) and propagates.
  void getSvcHandler(std::list<std::pair<const std::string, CSnmpHandler*> >& handlers) override;
};

extern "C" {
// A new module; the caller owns it.
CSNMP_Svc_Module* SNMP_SvcModuleCreator();
}

#endif  // ZERVA_MODULE_SNMP_ZERVA_PERFORMANCE_MODULE_H_
