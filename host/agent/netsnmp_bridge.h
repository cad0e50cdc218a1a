// The Net-SNMP side of the agent: one handler registration per served
// object, the configuration tokens, and Net-SNMP's log routed to the debug
// kits.
#ifndef ZERVA_AGENT_NETSNMP_BRIDGE_H_
#define ZERVA_AGENT_NETSNMP_BRIDGE_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "host/agent/agent_options.h"
#include "host/agent/object_server.h"

struct netsnmp_handler_registration_s;

namespace zerva_agent {

// The registrations of the served objects with the Net-SNMP agent.
class SnmpRegistrations {
 public:
  SnmpRegistrations() {}
  ~SnmpRegistrations();  // unregister()
  SnmpRegistrations(const SnmpRegistrations&) = delete;
  SnmpRegistrations& operator=(const SnmpRegistrations&) = delete;

  // Registers one handler for the server's prefix (read-write for a
  // writable scalar, else read-only). onWrite runs after every SET that
  // reached the back end. False with *error when Net-SNMP refuses it, or
  // (an AgentX sub-agent) the master does: "cannot register NAME PREFIX at
  // the AgentX master: ...".
  // REQUIRES: Net-SNMP's agent is initialised; server outlives the registration.
  bool add(ObjectServer* server, const std::function<void()>& onWrite, std::string* error);
  // Removes every registration (at an AgentX master only those it accepted,
  // and those unregisterKeepingMaster() left there).
  void unregister();
  // Removes every registration from the local registry only, for a module
  // that is loaded again: an AgentX master keeps those it accepted (it may
  // have requests out to this sub-agent for them, see
  // agentx_registration.h), and add() of the same prefix takes one up again
  // without a new AgentX registration. unregister() removes them at the
  // master too.
  void unregisterKeepingMaster();

  // One registration (what Net-SNMP's handler callback gets back).
  struct Entry;
  // A subtree left registered at the master.
  struct Kept;

 private:
  std::vector<Entry*> entries_;
  std::vector<Kept*> kept_;
  bool watching_ = false;  // counted in the watchers of the master's answers
};

// The number of the SNMP request the handlers are answering: it changes
// with each request Net-SNMP passes to them (every phase and repetition of
// one request keeps it). For ServerSettings::request.
uint64_t CurrentSnmpRequest();

// Registers our configuration tokens for Net-SNMP's parser of the given
// application type ("snmpd" inside a stock snmpd). Values go to *options;
// bad values are reported with Net-SNMP's config_perror (file and line) and
// appended to *errors. REQUIRES: options and errors outlive the parsing.
void RegisterAgentTokens(const char* appType, AgentOptions* options, std::vector<std::string>* errors);
// Removes them again.
void UnregisterAgentTokens(const char* appType);

// Routes Net-SNMP's log messages to debug kit 2. While capture is set,
// messages at warning level or worse are also appended to it (configuration
// problems Net-SNMP only logs).
void RouteNetSnmpLog();
void SetNetSnmpLogCapture(std::vector<std::string>* capture);

// The served module's entry in sysORTable (SNMPv2-MIB), for as long as the
// object lives or until remove(): in a standalone agent its own table, in an
// AgentX sub-agent the master's (Net-SNMP sends it again when it reconnects),
// inside snmpd through dlmod snmpd's table.
class SysOREntry {
 public:
  SysOREntry() {}
  ~SysOREntry();  // remove()
  SysOREntry(const SysOREntry&) = delete;
  SysOREntry& operator=(const SysOREntry&) = delete;

  // Lists the object identifier with the description; replaces the entry
  // listed before. REQUIRES: Net-SNMP's agent is initialised; arcs is not
  // empty.
  void add(const std::vector<unsigned long>& arcs, const std::string& description);
  void remove();

 private:
  std::vector<unsigned long> oid_;
  std::string description_;  // the text Net-SNMP was given, kept while listed
};

// Runs a function from Net-SNMP's alarms, every period: in the agent's
// loop (or snmpd's), between requests, never while one is being answered.
class SnmpAlarm {
 public:
  SnmpAlarm() {}
  ~SnmpAlarm();  // stop()
  SnmpAlarm(const SnmpAlarm&) = delete;
  SnmpAlarm& operator=(const SnmpAlarm&) = delete;

  // False when Net-SNMP refuses the alarm. REQUIRES: Net-SNMP is initialised.
  bool start(std::chrono::milliseconds period, std::function<void()> run);
  void stop();

 private:
  static void Fire(unsigned int id, void* self);
  unsigned int id_ = 0;
  std::function<void()> run_;
};

}  // namespace zerva_agent

#endif  // ZERVA_AGENT_NETSNMP_BRIDGE_H_
