// The agent's registrations at an AgentX master (the agent as a sub-agent),
// with the master's answer read.
//
// Net-SNMP registers a sub-agent's subtree at the master from a callback of
// the local registration (SNMPD_CALLBACK_REGISTER_OID, which calls
// agentx_register()) and throws the master's answer away: a refused subtree
// stays registered locally and the registration "succeeds"; the refusal
// shows only as Net-SNMP's log line "registering pdu failed: N!". And every
// local unregistration sends an AgentX unregister, which the master carries
// out by OID and priority whatever session registered the subtree: the
// unregister of a subtree the master refused removes the registration of
// the agent that does serve it.
//
// So, while the session to the master is open, a subtree is registered at
// the master first, with agentx_register() itself, whose result says
// whether the master accepted it; only an accepted subtree then enters the
// local registry, without a second AgentX registration
// (RegisterAtMasterFirst). A refused one never does. Subtrees registered while no master is connected
// are sent by Net-SNMP when the master comes (and again after each
// reconnection); there the refusal is known only from that log line, which
// WatchAgentxRegistrations() ties to the registration it belongs to, and a
// subtree the master refused is dropped with UnregisterLocally(), which
// sends no AgentX unregister.
//
// Net-SNMP sends an AgentX unregister from a callback of the local
// unregistration too (SNMPD_CALLBACK_UNREGISTER_OID), and waits there for
// the master's answer, reading whatever else comes meanwhile. When the
// master goes away during that wait, its disconnect handler unregisters
// the sub-agent's callbacks from the very list Net-SNMP is running through
// ("lock in _callback_lock sleeps more than 100 milliseconds in
// snmp_unregister_callback", then an entry freed under the running loop).
// So the agent sends its AgentX unregisters itself, outside every callback
// (UnregisterAtMasterFirst), and takes the subtree out of the local
// registry without Net-SNMP's; its own callbacks stay registered for the
// life of the process (switched by WatchAgentxRegistrations), so nothing
// here changes a callback list at all.
//
// And a master (Net-SNMP's, 5.9 at least) frees a subtree as soon as it is
// unregistered, even while a request it passed to the sub-agent for that
// subtree is out: the sub-agent's answer then makes it use the freed
// subtree and crash. A sub-agent that unregisters while managers walk
// through its master brings the master down sooner or later; a module
// loaded again (SnmpRegistrations::unregisterKeepingMaster) therefore
// leaves its subtrees registered at the master and takes them up again
// without a new AgentX registration (RegisterLocally). A subtree the
// master keeps for us that nothing serves here gets the answers of an
// empty subtree (noSuchObject, endOfMibView).
#ifndef ZERVA_AGENT_AGENTX_REGISTRATION_H_
#define ZERVA_AGENT_AGENTX_REGISTRATION_H_

// clang-format off
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>
#include <net-snmp/agent/agent_callbacks.h>
// clang-format on

#include <cstdint>
#include <string>
#include <vector>

namespace zerva_agent {

// A subtree as the master has it registered: what an AgentX unregister
// names.
struct AgentxSubtree {
  std::vector<oid> root;
  int priority = 0;
  int rangeSubid = 0;
  oid rangeUbound = 0;
  bool hasContext = false;
  std::string context;

  static AgentxSubtree Of(const netsnmp_handler_registration& reginfo);
  bool operator==(const AgentxSubtree& o) const {
    return root == o.root && priority == o.priority && rangeSubid == o.rangeSubid && rangeUbound == o.rangeUbound &&
           hasContext == o.hasContext && context == o.context;
  }
};

// True when this process is an AgentX sub-agent whose session to the
// master is open.
bool AgentxSessionOpen();

// Registers reginfo at the master over the open session (its priority and
// context as the local registration has them) and, once the master
// accepted it, in the local registry as netsnmp_register_handler() does but
// without the AgentX registration Net-SNMP would send. Returns
// MIB_REGISTERED_OK; else reginfo is freed and either *refusal says why the
// master did not accept it (the AgentX error, as AgentxErrorText gives it)
// or the local registry's MIB_ code is returned (the master's registration
// taken back). REQUIRES: AgentxSessionOpen().
int RegisterAtMasterFirst(netsnmp_handler_registration* reginfo, std::string* refusal);
// Registers reginfo in the local registry as netsnmp_register_handler()
// does but without the AgentX registration Net-SNMP would send: for a
// subtree the master has registered for this sub-agent already. Returns
// the local registry's MIB_ code; reginfo is freed unless it is
// MIB_REGISTERED_OK.
int RegisterLocally(netsnmp_handler_registration* reginfo);
// Takes reginfo out of the local registry (and frees it) without the
// AgentX unregister Net-SNMP would send for it. Net-SNMP's callback lists
// stay as they are.
void UnregisterLocally(netsnmp_handler_registration* reginfo);
// Sends the AgentX unregister of subtree over the open session and waits
// for the master's answer; true when the master took it out. Call it
// outside Net-SNMP's callbacks: the session may close meanwhile.
bool UnregisterAtMaster(const AgentxSubtree& subtree);
// UnregisterAtMaster() for reginfo (when the session is open), then
// UnregisterLocally().
void UnregisterAtMasterFirst(netsnmp_handler_registration* reginfo);
// Changes each time a session to the master is opened (0 before the first
// call, which starts counting): a registration at the master belongs to
// the session it was made on, a master that is connected again has
// forgotten it.
uint64_t AgentxSessionNumber();

// Called after each registration Net-SNMP sends to the master itself (a
// master that came, or came back), with whether the master accepted it and
// if not, why.
typedef void (*AgentxAnswerWatcher)(netsnmp_handler_registration* reginfo, bool accepted, const std::string& reason);
// Starts calling watcher (one at a time; nullptr stops). The callbacks
// behind it are registered with Net-SNMP at the first call and stay for the
// life of the process: starting and stopping changes no callback list.
void WatchAgentxRegistrations(AgentxAnswerWatcher watcher);
// Takes the callbacks of WatchAgentxRegistrations() and
// AgentxSessionNumber() out of Net-SNMP again (the agent stops; a module
// about to be unloaded must leave none behind) and stops the watcher. Not
// from inside a Net-SNMP callback.
void RemoveAgentxHooks();
// For the log callback: a line Net-SNMP logged. A registration refusal in it
// is kept for the registration being answered.
void NoteAgentxLogLine(const std::string& line);

// "cannot register WHAT at the AgentX master: REASON", with a hint when the
// master has the subtree from another agent.
std::string AgentxRefusalMessage(const std::string& what, const std::string& reason);
// "duplicateRegistration (263)": an AgentX error code by its RFC 2741 name.
std::string AgentxErrorText(long code);
// The error code in Net-SNMP's log line of a refused registration
// ("registering pdu failed: 263!"); false for any other line.
bool ParseAgentxRefusal(const std::string& line, long* code);

}  // namespace zerva_agent

#endif  // ZERVA_AGENT_AGENTX_REGISTRATION_H_
