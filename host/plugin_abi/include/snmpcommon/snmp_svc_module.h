// CSNMP_Svc_Module: what a plug-in service module offers the host.
//
// The host loads the module's shared library, calls its exported C function
// SNMP_SvcModuleCreator (the only symbol it looks up), owns the object it
// returns, asks it for the MIB description file it serves and for its
// handlers, and from then on routes every SNMP request under a handler's
// OID prefix to that handler. The handlers become the host's, deleted
// through CSnmpHandler's virtual destructor.
#ifndef ZERVA_SNMPCOMMON_SNMP_SVC_MODULE_H_
#define ZERVA_SNMPCOMMON_SNMP_SVC_MODULE_H_

#include <list>
#include <string>
#include <utility>

#include "handlers/snmp_handler.h"

// (OID prefix in dotted decimal without leading dot, handler) in registration order.
typedef std::list<std::pair<const std::string, CSnmpHandler*> > CSnmpHandlerList;

class CSNMP_Svc_Module {
 public:
  virtual ~CSNMP_Svc_Module() {}
  // The name of the MIB description file the module serves.
  virtual std::string getMibFileName() = 0;
  // Appends the module's handlers to the back of the list.
  virtual void getSvcHandler(std::list<std::pair<const std::string, CSnmpHandler*> >& handlers) = 0;
};

// The exported factory: each call returns a new module the caller owns.
typedef CSNMP_Svc_Module* (*SNMP_SvcModuleCreatorFn)();
#define SNMP_SVC_MODULE_CREATOR_NAME "SNMP_SvcModuleCreator"

#endif  // ZERVA_SNMPCOMMON_SNMP_SVC_MODULE_H_
