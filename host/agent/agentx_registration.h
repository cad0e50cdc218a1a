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
#ifndef ZERVA_AGENT_AGENTX_REGISTRATION_H_
#define ZERVA_AGENT_AGENTX_REGISTRATION_H_

// clang-format off
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>
#include <net-snmp/agent/agent_callbacks.h>
// clang-format on

#include <string>

namespace zerva_agent {

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
// Takes reginfo out of the local registry (and frees it) without the
// AgentX unregister Net-SNMP would send for it.
void UnregisterLocally(netsnmp_handler_registration* reginfo);

// Called after each registration Net-SNMP sends to the master itself (a
// master that came, or came back), with whether the master accepted it and
// if not, why.
typedef void (*AgentxAnswerWatcher)(netsnmp_handler_registration* reginfo, bool accepted, const std::string& reason);
// Starts calling watcher (one at a time; nullptr stops).
void WatchAgentxRegistrations(AgentxAnswerWatcher watcher);
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
