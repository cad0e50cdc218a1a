// AgentRuntime: everything the agent serves, set up and torn down in order.
//
// start(): logging, back end, the service module and its MIB description,
// one ObjectServer per handler, their Net-SNMP registrations, and the
// start-up line. stop() (and the destructor) undo it in reverse: the
// registrations, the servers, the handlers, the module, the library, the
// back end. Used by the zerva-snmp-agent program and by the dlmod module.
#ifndef ZERVA_AGENT_AGENT_RUNTIME_H_
#define ZERVA_AGENT_AGENT_RUNTIME_H_

#include <memory>
#include <string>
#include <vector>

#include "host/agent/agent_options.h"
#include "host/agent/backend.h"
#include "host/agent/module_host.h"
#include "host/agent/netsnmp_bridge.h"
#include "host/agent/object_server.h"

namespace zerva_agent {

// Sets the debug kits' levels, destination and folding from the options
// (logToStderr wins over zervaLogFile and zervaSyslog; the default is
// stderr): ConfigureAgentLog with LogHome::kStderr. False with *error for a
// log file that cannot be opened.
bool ConfigureLogging(const AgentOptions& options, bool logToStderr, std::string* error);

// The plug-in and MIB directory used when none is configured.
std::string DefaultModulePath();
std::string DefaultMibDir();

class AgentRuntime {
 public:
  AgentRuntime() {}
  ~AgentRuntime() { stop(); }
  AgentRuntime(const AgentRuntime&) = delete;
  AgentRuntime& operator=(const AgentRuntime&) = delete;

  // Starts serving. where names the listening addresses or the AgentX
  // master for the start-up line. False with *error; nothing stays set up.
  // REQUIRES: Net-SNMP's agent is initialised.
  bool start(const AgentOptions& options, const std::string& where, std::string* error);
  void stop();

 private:
  void invalidateTables();

  Backend backend_;
  ModuleHost module_;
  std::vector<std::unique_ptr<ObjectServer>> servers_;
  SnmpRegistrations registrations_;
};

}  // namespace zerva_agent

#endif  // ZERVA_AGENT_AGENT_RUNTIME_H_
