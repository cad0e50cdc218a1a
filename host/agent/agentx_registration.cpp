#include "host/agent/agentx_registration.h"

#include <cstdlib>
#include <cstring>
#include <vector>

// Net-SNMP's sub-agent (libnetsnmpagent, agent/mibgroup/agentx/): exported
// but declared in headers it does not install. main_session is the session
// to the master; agentx_registration_callback() is the hook that sends the
// AgentX (un)registration of each local one, registered with the session's
// myvoid as its argument.
extern "C" {
extern netsnmp_session* main_session;
int agentx_register(netsnmp_session* ss, oid start[], size_t startlen, int priority, int range_subid, oid range_ubound,
                    int timeout, u_char flags, const char* contextName);
int agentx_unregister(netsnmp_session* ss, oid start[], size_t startlen, int priority, int range_subid,
                      oid range_ubound, const char* contextName);
int agentx_registration_callback(int majorID, int minorID, void* serverarg, void* clientarg);
}

namespace zerva_agent {

namespace {

// An AgentX session's version (agentx/protocol.h: AGENTX_VERSION_BASE).
const int kAgentxVersionBase = 192;
const char kRefusalLine[] = "registering pdu failed: ";

// The master's refusal logged during the registration being answered (0: none).
long g_refusal = 0;
AgentxAnswerWatcher g_watcher = nullptr;

u_char RegistrationFlags(const netsnmp_handler_registration& reginfo) {
  for (const netsnmp_mib_handler* h = reginfo.handler; h != nullptr; h = h->next) {
    if (h->flags & MIB_HANDLER_INSTANCE) return FULLY_QUALIFIED_INSTANCE;
  }
  return 0;
}

// Net-SNMP calls the SNMPD_CALLBACK_REGISTER_OID callbacks in priority
// order: this one before its AgentX registration, AfterRegistration after it.
int BeforeRegistration(int, int, void*, void*) {
  g_refusal = 0;
  return 0;
}

int AfterRegistration(int, int, void* serverarg, void*) {
  auto* params = static_cast<struct register_parameters*>(serverarg);
  const long refusal = g_refusal;
  g_refusal = 0;
  // Without an open session Net-SNMP sent nothing: the master comes later.
  if (g_watcher == nullptr || params == nullptr || params->reginfo == nullptr || !AgentxSessionOpen()) return 0;
  g_watcher(params->reginfo, refusal == 0, refusal == 0 ? std::string() : AgentxErrorText(refusal));
  return 0;
}

}  // namespace

bool AgentxSessionOpen() {
  return netsnmp_ds_get_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE) && main_session != nullptr &&
         (main_session->version & kAgentxVersionBase) == kAgentxVersionBase;
}

int RegisterAtMasterFirst(netsnmp_handler_registration* reginfo, std::string* refusal) {
  std::vector<oid> root(reginfo->rootoid, reginfo->rootoid + reginfo->rootoid_len);
  const int priority = reginfo->priority;
  const int rangeSubid = reginfo->range_subid;
  const oid rangeUbound = reginfo->range_ubound;
  const std::string context = reginfo->contextName != nullptr ? reginfo->contextName : "";
  const char* contextName = reginfo->contextName != nullptr ? context.c_str() : nullptr;
  const u_char flags = RegistrationFlags(*reginfo);

  g_refusal = 0;
  const int accepted = agentx_register(main_session, root.data(), root.size(), priority, rangeSubid, rangeUbound,
                                       reginfo->timeout, flags, contextName);
  const long code = g_refusal;
  g_refusal = 0;
  if (accepted != 1) {
    // agentx_register() logs the master's error (seen here when Net-SNMP's
    // log comes to RouteNetSnmpLog's callback); else it got no answer.
    *refusal = code != 0 ? AgentxErrorText(code)
                         : "not accepted (no answer from the master, or its error only in Net-SNMP's log)";
    netsnmp_handler_registration_free(reginfo);
    return MIB_REGISTRATION_FAILED;
  }

  // Locally as netsnmp_register_handler() registers, perform_callback off:
  // a handler that cannot answer GETBULK gets it split into GETNEXTs.
  if (reginfo->modes == 0) reginfo->modes = HANDLER_CAN_DEFAULT;
  int rc = MIB_REGISTERED_OK;
  if (!(reginfo->modes & HANDLER_CAN_GETBULK)) {
    netsnmp_mib_handler* bulk = netsnmp_get_bulk_to_next_handler();
    if (bulk == nullptr || netsnmp_inject_handler(reginfo, bulk) != SNMPERR_SUCCESS) {
      if (bulk != nullptr) netsnmp_handler_free(bulk);
      netsnmp_handler_registration_free(reginfo);
      rc = MIB_REGISTRATION_FAILED;
    }
  }
  if (rc == MIB_REGISTERED_OK) {
    rc = netsnmp_register_mib(reginfo->handlerName, nullptr, 0, 0, reginfo->rootoid, reginfo->rootoid_len,
                              reginfo->priority, reginfo->range_subid, reginfo->range_ubound, nullptr,
                              reginfo->contextName, reginfo->timeout, flags, reginfo, /*perform_callback=*/0);
  }
  // Not served here after all: the master's registration is taken back.
  if (rc != MIB_REGISTERED_OK) {
    agentx_unregister(main_session, root.data(), root.size(), priority, rangeSubid, rangeUbound, contextName);
  }
  return rc;
}

void UnregisterLocally(netsnmp_handler_registration* reginfo) {
  // Every local unregistration runs the SNMPD_CALLBACK_UNREGISTER_OID
  // callbacks; the sub-agent's hook is taken out for this one.
  void* hook = AgentxSessionOpen() ? main_session->myvoid : nullptr;
  const int removed = hook == nullptr
                          ? 0
                          : snmp_unregister_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_UNREGISTER_OID,
                                                     agentx_registration_callback, hook, 1);
  netsnmp_unregister_handler(reginfo);
  if (removed > 0) {
    snmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_UNREGISTER_OID, agentx_registration_callback,
                           hook);
  }
}

void WatchAgentxRegistrations(AgentxAnswerWatcher watcher) {
  if (watcher != nullptr && g_watcher == nullptr) {
    netsnmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_REGISTER_OID, BeforeRegistration, nullptr,
                              NETSNMP_CALLBACK_HIGHEST_PRIORITY);
    netsnmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_REGISTER_OID, AfterRegistration, nullptr,
                              NETSNMP_CALLBACK_LOWEST_PRIORITY);
  } else if (watcher == nullptr && g_watcher != nullptr) {
    snmp_unregister_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_REGISTER_OID, BeforeRegistration, nullptr, 0);
    snmp_unregister_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_REGISTER_OID, AfterRegistration, nullptr, 0);
  }
  g_watcher = watcher;
}

void NoteAgentxLogLine(const std::string& line) {
  long code = 0;
  if (ParseAgentxRefusal(line, &code)) g_refusal = code;
}

std::string AgentxRefusalMessage(const std::string& what, const std::string& reason) {
  const bool taken = reason.compare(0, strlen("duplicateRegistration"), "duplicateRegistration") == 0;
  return "cannot register " + what + " at the AgentX master: " + reason + (taken ? " (another agent serves it?)" : "");
}

std::string AgentxErrorText(long code) {
  // RFC 2741, 6.2.16: the res.error values.
  static const char* const kNames[] = {
      "openFailed",          "notOpen",           "indexWrongType",     "indexAlreadyAllocated",
      "indexNoneAvailable",  "indexNotAllocated", "unsupportedContext", "duplicateRegistration",
      "unknownRegistration", "unknownAgentCaps",  "parseError",         "requestDenied",
      "processingError",
  };
  const long first = 256;
  const long count = static_cast<long>(sizeof kNames / sizeof kNames[0]);
  const std::string number = std::to_string(code);
  if (code >= first && code < first + count) return std::string(kNames[code - first]) + " (" + number + ")";
  return "error " + number;
}

bool ParseAgentxRefusal(const std::string& line, long* code) {
  const size_t at = line.find(kRefusalLine);
  if (at == std::string::npos) return false;
  const char* digits = line.c_str() + at + strlen(kRefusalLine);
  char* end = nullptr;
  const long value = strtol(digits, &end, 10);
  if (end == digits || value <= 0) return false;
  *code = value;
  return true;
}

}  // namespace zerva_agent
