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
bool g_watcherHooks = false;  // BeforeRegistration, AfterRegistration registered
bool g_sessionHook = false;   // SessionOpened registered
uint64_t g_sessionNumber = 0;

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

// Net-SNMP's sub-agent calls the SNMPD_CALLBACK_INDEX_START callbacks
// each time it has opened a session to the master.
int SessionOpened(int, int, void*, void*) {
  ++g_sessionNumber;
  return 0;
}

// The sub-agent's hook (agentx_registration_callback) finds the session to
// send to through the cell its callback argument points to (the session's
// myvoid); nullptr there makes it send nothing (agentx_register() and
// agentx_unregister() of no session return at once).
netsnmp_session** HookSessionCell() {
  return AgentxSessionOpen() && main_session->myvoid != nullptr ? static_cast<netsnmp_session**>(main_session->myvoid)
                                                                : nullptr;
}

}  // namespace

AgentxSubtree AgentxSubtree::Of(const netsnmp_handler_registration& reginfo) {
  AgentxSubtree s;
  s.root.assign(reginfo.rootoid, reginfo.rootoid + reginfo.rootoid_len);
  s.priority = reginfo.priority;
  s.rangeSubid = reginfo.range_subid;
  s.rangeUbound = reginfo.range_ubound;
  s.hasContext = reginfo.contextName != nullptr;
  s.context = s.hasContext ? reginfo.contextName : "";
  return s;
}

bool AgentxSessionOpen() {
  return netsnmp_ds_get_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE) && main_session != nullptr &&
         (main_session->version & kAgentxVersionBase) == kAgentxVersionBase;
}

int RegisterAtMasterFirst(netsnmp_handler_registration* reginfo, std::string* refusal) {
  AgentxSubtree subtree = AgentxSubtree::Of(*reginfo);
  const char* contextName = subtree.hasContext ? subtree.context.c_str() : nullptr;
  const u_char flags = RegistrationFlags(*reginfo);

  g_refusal = 0;
  const int accepted = agentx_register(main_session, subtree.root.data(), subtree.root.size(), subtree.priority,
                                       subtree.rangeSubid, subtree.rangeUbound, reginfo->timeout, flags, contextName);
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

  const int rc = RegisterLocally(reginfo);
  // Not served here after all: the master's registration is taken back.
  if (rc != MIB_REGISTERED_OK && AgentxSessionOpen()) UnregisterAtMaster(subtree);
  return rc;
}

int RegisterLocally(netsnmp_handler_registration* reginfo) {
  // As netsnmp_register_handler() registers, perform_callback off: a
  // handler that cannot answer GETBULK gets it split into GETNEXTs.
  if (reginfo->modes == 0) reginfo->modes = HANDLER_CAN_DEFAULT;
  if (!(reginfo->modes & HANDLER_CAN_GETBULK)) {
    netsnmp_mib_handler* bulk = netsnmp_get_bulk_to_next_handler();
    if (bulk == nullptr || netsnmp_inject_handler(reginfo, bulk) != SNMPERR_SUCCESS) {
      if (bulk != nullptr) netsnmp_handler_free(bulk);
      netsnmp_handler_registration_free(reginfo);
      return MIB_REGISTRATION_FAILED;
    }
  }
  return netsnmp_register_mib(reginfo->handlerName, nullptr, 0, 0, reginfo->rootoid, reginfo->rootoid_len,
                              reginfo->priority, reginfo->range_subid, reginfo->range_ubound, nullptr,
                              reginfo->contextName, reginfo->timeout, RegistrationFlags(*reginfo), reginfo,
                              /*perform_callback=*/0);
}

void UnregisterLocally(netsnmp_handler_registration* reginfo) {
  // Every local unregistration runs the SNMPD_CALLBACK_UNREGISTER_OID
  // callbacks; the sub-agent's hook is given no session for this one
  // (rather than taken out of the list and put back: a list must not
  // change while Net-SNMP may be running through it).
  netsnmp_session** cell = HookSessionCell();
  netsnmp_session* session = cell != nullptr ? *cell : nullptr;
  if (cell != nullptr) *cell = nullptr;
  netsnmp_unregister_handler(reginfo);
  if (cell != nullptr) *cell = session;
}

bool UnregisterAtMaster(const AgentxSubtree& subtree) {
  if (!AgentxSessionOpen()) return false;
  std::vector<oid> root = subtree.root;  // agentx_unregister() takes it writable
  return agentx_unregister(main_session, root.data(), root.size(), subtree.priority, subtree.rangeSubid,
                           subtree.rangeUbound, subtree.hasContext ? subtree.context.c_str() : nullptr) == 1;
}

void UnregisterAtMasterFirst(netsnmp_handler_registration* reginfo) {
  // The exchange may end with the session closed (the master gone); then
  // Net-SNMP has taken its hook out and the local unregistration below
  // sends nothing anyway.
  UnregisterAtMaster(AgentxSubtree::Of(*reginfo));
  UnregisterLocally(reginfo);
}

uint64_t AgentxSessionNumber() {
  if (!g_sessionHook) {
    g_sessionHook = true;
    snmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_INDEX_START, SessionOpened, nullptr);
  }
  return g_sessionNumber;
}

void WatchAgentxRegistrations(AgentxAnswerWatcher watcher) {
  if (watcher != nullptr && !g_watcherHooks) {
    g_watcherHooks = true;
    netsnmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_REGISTER_OID, BeforeRegistration, nullptr,
                              NETSNMP_CALLBACK_HIGHEST_PRIORITY);
    netsnmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_REGISTER_OID, AfterRegistration, nullptr,
                              NETSNMP_CALLBACK_LOWEST_PRIORITY);
  }
  g_watcher = watcher;
}

void RemoveAgentxHooks() {
  g_watcher = nullptr;
  if (g_watcherHooks) {
    g_watcherHooks = false;
    snmp_unregister_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_REGISTER_OID, BeforeRegistration, nullptr, 0);
    snmp_unregister_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_REGISTER_OID, AfterRegistration, nullptr, 0);
  }
  if (g_sessionHook) {
    g_sessionHook = false;
    snmp_unregister_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_INDEX_START, SessionOpened, nullptr, 0);
  }
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
