#include "host/agent/module_host.h"

#include <dlfcn.h>

#include <exception>

namespace zerva_agent {

ModuleHost::~ModuleHost() { unload(); }

void ModuleHost::unload() {
  for (HostedHandler& h : handlers_) delete h.handler;
  handlers_.clear();
  delete module_;
  module_ = nullptr;
  if (library_ != nullptr) dlclose(library_);
  library_ = nullptr;
}

bool ModuleHost::load(const std::string& modulePath, const std::string& mibDir, std::string* error) {
  unload();
  error->clear();
  library_ = dlopen(modulePath.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library_ == nullptr) {
    const char* why = dlerror();
    *error = "cannot load the module " + modulePath + ": " + (why != nullptr ? why : "unknown error");
    return false;
  }
  auto create = reinterpret_cast<SNMP_SvcModuleCreatorFn>(dlsym(library_, SNMP_SVC_MODULE_CREATOR_NAME));
  if (create == nullptr) {
    *error = modulePath + " exports no " SNMP_SVC_MODULE_CREATOR_NAME;
    unload();
    return false;
  }

  CSnmpHandlerList list;
  try {
    module_ = create();
    if (module_ == nullptr) {
      *error = modulePath + ": " SNMP_SVC_MODULE_CREATOR_NAME " returned no module";
      unload();
      return false;
    }
    const std::string mibFile = module_->getMibFileName();
    mibPath_ = mibDir.empty() ? mibFile : mibDir + "/" + mibFile;
    module_->getSvcHandler(list);
  } catch (const std::exception& e) {
    *error = modulePath + ": the module failed to start: " + e.what();
  } catch (...) {
    *error = modulePath + ": the module failed to start";
  }
  // Whatever the module handed over is ours, also on failure.
  for (auto& entry : list) handlers_.push_back(HostedHandler{entry.first, entry.second, nullptr});
  if (!error->empty()) {
    unload();
    return false;
  }

  std::string why;
  if (!LoadMibDescription(mibPath_, mib_, &why)) {
    *error = "cannot load the MIB description: " + why;
    unload();
    return false;
  }
  for (HostedHandler& h : handlers_) {
    h.object = mib_.find(h.prefix);
    if (h.object == nullptr || h.handler == nullptr) {
      *error = mibPath_ + " describes no object " + h.prefix + " that the module registers";
      unload();
      return false;
    }
  }
  return true;
}

}  // namespace zerva_agent
