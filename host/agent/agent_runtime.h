// AgentRuntime: everything the agent serves, set up and torn down in order.
//
// start(): logging, back end, the service module and its MIB description,
// one ObjectServer per handler, their Net-SNMP registrations, and the
// start-up line. stop() (and the destructor) undo it in reverse: the
// registrations, the servers, the handlers, the module, the library, the
// back end. Used by the zerva-snmp-agent program and by the dlmod module.
//
// While it serves, a Net-SNMP alarm watches the array's feature list
// (FeatureWatch): when the list the back end gives differs from the answers
// the module was built with, the module is loaded again between two
// requests (registrations, servers, handlers, module, library out; the
// library, module, handlers, servers and registrations in again).
#ifndef ZERVA_AGENT_AGENT_RUNTIME_H_
#define ZERVA_AGENT_AGENT_RUNTIME_H_

#include <memory>
#include <string>
#include <vector>

#include "host/agent/agent_log.h"
#include "host/agent/agent_options.h"
#include "host/agent/backend.h"
#include "host/agent/feature_watch.h"
#include "host/agent/module_host.h"
#include "host/agent/netsnmp_bridge.h"
#include "host/agent/object_server.h"

namespace zerva_agent {

// Sets the debug kits' levels, destination and folding from the options
// (logToStderr wins over zervaLogFile and zervaSyslog; the default is
// stderr, or `home`): ConfigureAgentLog. False with *error for a log file
// that cannot be opened.
bool ConfigureLogging(const AgentOptions& options, bool logToStderr, std::string* error,
                      LogHome home = LogHome::kStderr);

// The plug-in and MIB directory used when none is configured: the service
// module beside the host libraries, the data directory's mibs/
// (vempub/vem_install_paths.h).
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
  // Loads the module, creates its servers and registers them; *summary says
  // what is served (the start-up line). On failure none of it stays.
  bool serve(std::string* summary, std::string* error);
  // Undoes serve(), but for the subtrees an AgentX master has registered
  // for us: they stay there for the next serve(), until stop().
  void unserve();
  // Starts watching the array's features; loads the module again when they
  // change (from the alarm).
  void watchFeatures();
  void followFeatures();

  AgentOptions options_;
  std::string where_;
  Backend backend_;
  ModuleHost module_;
  std::unique_ptr<BackendWorker> worker_;  // makes every call into the module
  std::vector<std::unique_ptr<ObjectServer>> servers_;
  SnmpRegistrations registrations_;
  SysOREntry sysOR_;  // the served MIB module in sysORTable
  std::unique_ptr<FeatureSource> featureSource_;
  std::unique_ptr<FeatureWatch> featureWatch_;
  SnmpAlarm featureAlarm_;
  bool following_ = false;
};

}  // namespace zerva_agent

#endif  // ZERVA_AGENT_AGENT_RUNTIME_H_
