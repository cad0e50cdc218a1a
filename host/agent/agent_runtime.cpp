#include "host/agent/agent_runtime.h"

#include <chrono>

#include "host/agent/agent_log.h"
#include "snmpcommon/snmp_table_base.h"

namespace zerva_agent {

std::string DefaultModulePath() { return ZERVA_AGENT_DEFAULT_MODULE; }
std::string DefaultMibDir() { return ZERVA_AGENT_DEFAULT_MIB_DIR; }

bool ConfigureLogging(const AgentOptions& options, bool logToStderr, std::string* error) {
  return ConfigureAgentLog(options, logToStderr, LogHome::kStderr, error);
}

bool AgentRuntime::start(const AgentOptions& optionsIn, const std::string& where, std::string* error) {
  stop();
  AgentOptions options = optionsIn;
  if (options.modulePath.empty()) options.modulePath = DefaultModulePath();
  if (options.mibDir.empty()) options.mibDir = DefaultMibDir();

  // The back end first: the module asks it for capabilities while it
  // creates its handlers.
  if (!backend_.start(options, error)) return false;
  if (!module_.load(options.modulePath, options.mibDir, error)) {
    stop();
    return false;
  }

  ServerSettings settings;
  settings.snapshotTime = std::chrono::seconds(options.snapshotSeconds);
  settings.batchRows = options.batchRows;
  settings.request = CurrentSnmpRequest;
  std::string prefixes;
  for (const HostedHandler& h : module_.handlers()) {
    std::unique_ptr<ObjectServer> server;
    if (h.object->kind == MibObject::Scalar) {
      server.reset(new ScalarServer(*h.object, h.handler, settings));
    } else {
      const bool batch = dynamic_cast<CSnmpTableBase*>(h.handler) != nullptr;
      server.reset(new TableServer(*h.object, h.handler, settings, batch));
    }
    if (!registrations_.add(
            server.get(), [this] { invalidateTables(); }, error)) {
      stop();
      return false;
    }
    servers_.push_back(std::move(server));
    prefixes += (prefixes.empty() ? "" : ", ") + h.object->name + " " + h.prefix;
  }

  // The start-up line.
  const std::string summary = "serving " + options.modulePath + " (MIB " + module_.mib().moduleName + " from " +
                              module_.mibPath() + "): " + std::to_string(servers_.size()) + " handlers [" + prefixes +
                              "] on " + where + ", back end " + backend_.description();
  VEMLog(VEM_KIT_AGENT, VEM_LOG_WARN, "start", __LINE__, "%s", summary.c_str());
  return true;
}

void AgentRuntime::stop() {
  registrations_.unregister();
  servers_.clear();
  module_.unload();  // handlers, module, library
  backend_.stop();
}

void AgentRuntime::invalidateTables() {
  // A write (the collection switch) changes what every table answers.
  for (auto& s : servers_) s->invalidate();
}

}  // namespace zerva_agent
