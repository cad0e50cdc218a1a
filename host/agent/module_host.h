// ModuleHost: the loaded service module and its handlers.
//
// Loads the plug-in with dlopen, creates the module through its one exported
// factory (SNMP_SvcModuleCreator), loads the MIB description file the module
// names from the MIB directory, and takes the module's (prefix, handler)
// list. It owns all of it: the destructor deletes the handlers, then the
// module, then closes the library.
#ifndef ZERVA_AGENT_MODULE_HOST_H_
#define ZERVA_AGENT_MODULE_HOST_H_

#include <string>
#include <vector>

#include "host/agent/mib_description.h"
#include "snmpcommon/snmp_svc_module.h"

namespace zerva_agent {

// One registration: a handler, its prefix and what the MIB says about it.
struct HostedHandler {
  std::string prefix;
  CSnmpHandler* handler = nullptr;
  const MibObject* object = nullptr;
};

class ModuleHost {
 public:
  ModuleHost() {}
  ~ModuleHost();  // handlers, then module, then the library
  ModuleHost(const ModuleHost&) = delete;
  ModuleHost& operator=(const ModuleHost&) = delete;

  // Loads everything. Returns false with *error when the library, its
  // factory, the MIB description or a prefix without a MIB object is wrong;
  // what was loaded is released again.
  bool load(const std::string& modulePath, const std::string& mibDir, std::string* error);

  // Releases handlers, module and library (also done by the destructor).
  void unload();

  const std::string& mibPath() const { return mibPath_; }
  const MibDescription& mib() const { return mib_; }
  // In the order the module listed them.
  const std::vector<HostedHandler>& handlers() const { return handlers_; }

 private:
  void* library_ = nullptr;
  CSNMP_Svc_Module* module_ = nullptr;
  std::string mibPath_;
  MibDescription mib_;
  std::vector<HostedHandler> handlers_;
};

}  // namespace zerva_agent

#endif  // ZERVA_AGENT_MODULE_HOST_H_
