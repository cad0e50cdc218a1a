#include "host/agent/netsnmp_bridge.h"

// clang-format off
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>
#include <net-snmp/agent/agent_sysORTable.h>
// clang-format on

#include <exception>
#include <memory>
#include <type_traits>

#include "host/agent/agentx_registration.h"
#include "vempub/vem_debug_kit.h"

namespace zerva_agent {

namespace {

// ---------------------------------------------------------------- values

Agentpp::Oidx ToOidx(const oid* name, size_t len) {
  Agentpp::Oidx out;
  for (size_t i = 0; i < len; ++i) out += static_cast<uint32_t>(name[i]);
  return out;
}

void SetValue(netsnmp_variable_list* vb, const SnmpValue& value) {
  switch (value.type) {
    case kAsnInteger: {
      long v = value.asInt32();
      snmp_set_var_typed_value(vb, ASN_INTEGER, &v, sizeof v);
      return;
    }
    case kAsnOctetString:
      snmp_set_var_typed_value(vb, ASN_OCTET_STR, value.bytes.data(), value.bytes.size());
      return;
    case kAsnCounter64: {
      struct counter64 c;
      c.high = static_cast<u_long>(value.number >> 32);
      c.low = static_cast<u_long>(value.number & 0xFFFFFFFFULL);
      snmp_set_var_typed_value(vb, ASN_COUNTER64, &c, sizeof c);
      return;
    }
    default: {
      u_long v = static_cast<u_long>(value.number);
      snmp_set_var_typed_value(vb, value.type, &v, sizeof v);
      return;
    }
  }
}

// The GETBULK max-repetitions of the request, 0 for other requests.
unsigned int RowsHint(netsnmp_agent_request_info* reqinfo) {
  if (reqinfo->asp == nullptr || reqinfo->asp->pdu == nullptr) return 0;
  const netsnmp_pdu* pdu = reqinfo->asp->pdu;
  if (pdu->command != SNMP_MSG_GETBULK || pdu->errindex <= 0) return 0;
  return static_cast<unsigned int>(pdu->errindex);
}

// ---------------------------------------------------------------- SET state

const char kUndoName[] = "zerva_undo";

struct UndoState {
  uint32_t previous = 0;
  bool applied = false;
};

void FreeUndo(void* data) { delete static_cast<UndoState*>(data); }

}  // namespace

struct SnmpRegistrations::Entry {
  ObjectServer* server = nullptr;
  std::function<void()> onWrite;
  netsnmp_handler_registration* reginfo = nullptr;
  // An AgentX sub-agent's: the master accepted the registration. Only then
  // does unregistering it tell the master.
  bool atMaster = false;
};

struct SnmpRegistrations::Kept {
  AgentxSubtree subtree;
  uint64_t session = 0;  // AgentxSessionNumber() it was registered on
};

namespace {

void Answer(netsnmp_agent_request_info* reqinfo, netsnmp_request_info* request, const Lookup& found, bool next) {
  switch (found.status) {
    case Lookup::kFound:
      if (next) {
        std::vector<oid> name(found.name.subids().begin(), found.name.subids().end());
        snmp_set_var_objid(request->requestvb, name.data(), name.size());
      }
      SetValue(request->requestvb, found.value);
      return;
    case Lookup::kNoSuchObject:
      netsnmp_set_request_error(reqinfo, request, SNMP_NOSUCHOBJECT);
      return;
    case Lookup::kNoSuchInstance:
      netsnmp_set_request_error(reqinfo, request, SNMP_NOSUCHINSTANCE);
      return;
    case Lookup::kEndOfObject:
      return;  // left alone: the agent goes on with the next subtree
    case Lookup::kError:
      netsnmp_set_request_error(reqinfo, request, SNMP_ERR_GENERR);
      return;
  }
}

// One phase of a SET on a scalar.
void HandleSet(SnmpRegistrations::Entry* entry, netsnmp_agent_request_info* reqinfo, netsnmp_request_info* request) {
  auto* scalar = dynamic_cast<ScalarServer*>(entry->server);
  netsnmp_variable_list* vb = request->requestvb;
  const Agentpp::Oidx name = ToOidx(vb->name, vb->name_length);
  std::string why;
  switch (reqinfo->mode) {
    case MODE_SET_RESERVE1: {
      if (scalar == nullptr) {
        netsnmp_set_request_error(reqinfo, request, SNMP_ERR_NOTWRITABLE);
        return;
      }
      uint64_t number = 0;
      bool negative = false;
      if ((vb->type == ASN_INTEGER || vb->type == ASN_UNSIGNED || vb->type == ASN_COUNTER ||
           vb->type == ASN_TIMETICKS) &&
          vb->val.integer != nullptr) {
        const long v = *vb->val.integer;
        negative = vb->type == ASN_INTEGER && v < 0;
        number = negative ? 0 : static_cast<uint64_t>(static_cast<unsigned long>(v));
        if (vb->type != ASN_INTEGER) number &= 0xFFFFFFFFULL;
      }
      const SetError err = scalar->checkSet(name, vb->type, number, negative);
      if (err != kSetOk) netsnmp_set_request_error(reqinfo, request, err);
      return;
    }
    case MODE_SET_RESERVE2: {
      auto state = std::unique_ptr<UndoState>(new UndoState);
      if (scalar->readCurrent(&state->previous, &why) != 0) {
        netsnmp_set_request_error(reqinfo, request, SNMP_ERR_GENERR);
        return;
      }
      netsnmp_request_add_list_data(request, netsnmp_create_data_list(kUndoName, state.release(), FreeUndo));
      return;
    }
    case MODE_SET_ACTION: {
      auto* state = static_cast<UndoState*>(netsnmp_request_get_list_data(request, kUndoName));
      const uint32_t value = static_cast<uint32_t>(*vb->val.integer);
      const int rc = scalar->write(value, &why);
      if (entry->onWrite) entry->onWrite();
      if (rc != 0) {
        netsnmp_set_request_error(reqinfo, request, SNMP_ERR_GENERR);
        return;
      }
      if (state != nullptr) state->applied = true;
      return;
    }
    case MODE_SET_UNDO: {
      auto* state = static_cast<UndoState*>(netsnmp_request_get_list_data(request, kUndoName));
      if (state == nullptr || !state->applied) return;
      const int rc = scalar->write(state->previous, &why);
      if (entry->onWrite) entry->onWrite();
      state->applied = false;
      if (rc != 0) {
        VEMLog(VEM_KIT_AGENT, VEM_LOG_ERROR, "HandleSet", __LINE__, "undo of %s to %u failed: %s",
               scalar->object().name.c_str(), state->previous, why.c_str());
        netsnmp_set_request_error(reqinfo, request, SNMP_ERR_UNDOFAILED);
      }
      return;
    }
    default:  // COMMIT, FREE: nothing kept outside the request
      return;
  }
}

// The request being answered: Net-SNMP keeps one agent session and one
// request PDU for all phases and repetitions of a request; a new request
// has a new session or PDU (and a session's memory may be reused, so the
// PDU's request and transaction IDs are compared too).
uint64_t g_requestNumber = 0;
const void* g_lastSession = nullptr;
const void* g_lastPdu = nullptr;
long g_lastRequestId = 0;
long g_lastTransactionId = 0;

void NoteRequest(const netsnmp_agent_request_info* reqinfo) {
  const netsnmp_agent_session* asp = reqinfo->asp;
  const netsnmp_pdu* pdu = asp != nullptr ? asp->pdu : nullptr;
  const long requestId = pdu != nullptr ? pdu->reqid : 0;
  const long transactionId = pdu != nullptr ? pdu->transid : 0;
  if (asp != nullptr && asp == g_lastSession && pdu == g_lastPdu && requestId == g_lastRequestId &&
      transactionId == g_lastTransactionId) {
    return;
  }
  ++g_requestNumber;
  g_lastSession = asp;
  g_lastPdu = pdu;
  g_lastRequestId = requestId;
  g_lastTransactionId = transactionId;
}

int HandleRequests(netsnmp_mib_handler* handler, netsnmp_handler_registration*, netsnmp_agent_request_info* reqinfo,
                   netsnmp_request_info* requests) {
  auto* entry = static_cast<SnmpRegistrations::Entry*>(handler->myvoid);
  NoteRequest(reqinfo);
  for (netsnmp_request_info* request = requests; request != nullptr; request = request->next) {
    if (request->processed) continue;
    try {
      netsnmp_variable_list* vb = request->requestvb;
      const Agentpp::Oidx name = ToOidx(vb->name, vb->name_length);
      switch (reqinfo->mode) {
        case MODE_GET:
          Answer(reqinfo, request, entry->server->get(name), false);
          break;
        case MODE_GETNEXT:
          Answer(reqinfo, request, entry->server->getNext(name, RowsHint(reqinfo)), true);
          break;
        default:
          HandleSet(entry, reqinfo, request);
          break;
      }
    } catch (const std::exception& e) {
      VEMLog(VEM_KIT_AGENT, VEM_LOG_ERROR, "HandleRequests", __LINE__, "%s: %s", entry->server->object().name.c_str(),
             e.what());
      netsnmp_set_request_error(reqinfo, request, SNMP_ERR_GENERR);
    } catch (...) {
      netsnmp_set_request_error(reqinfo, request, SNMP_ERR_GENERR);
    }
  }
  return SNMP_ERR_NOERROR;
}

// ---------------------------------------------------------------- AgentX

// The registrations Net-SNMP sends to a master that came or came back; the
// master's answer decides whether unregistering tells it.
int g_watchingRegistrations = 0;  // the SnmpRegistrations with watching_ set

void OnMasterAnswer(netsnmp_handler_registration* reginfo, bool accepted, const std::string& reason) {
  for (netsnmp_mib_handler* h = reginfo->handler; h != nullptr; h = h->next) {
    if (h->access_method != HandleRequests) continue;
    auto* entry = static_cast<SnmpRegistrations::Entry*>(h->myvoid);
    entry->atMaster = accepted;
    if (!accepted) {
      const std::string text =
          AgentxRefusalMessage(entry->server->object().name + " " + entry->server->object().prefix, reason);
      VEMLog(VEM_KIT_AGENT, VEM_LOG_ERROR, "OnMasterAnswer", __LINE__, "%s; it is not served", text.c_str());
    }
    return;
  }
}

}  // namespace

uint64_t CurrentSnmpRequest() { return g_requestNumber; }

SnmpRegistrations::~SnmpRegistrations() { unregister(); }

bool SnmpRegistrations::add(ObjectServer* server, const std::function<void()>& onWrite, std::string* error) {
  auto* scalar = dynamic_cast<ScalarServer*>(server);
  const int modes = scalar != nullptr && scalar->writable() ? HANDLER_CAN_RWRITE : HANDLER_CAN_RONLY;
  std::vector<oid> root(server->prefix().subids().begin(), server->prefix().subids().end());
  std::unique_ptr<Entry> entry(new Entry);
  entry->server = server;
  entry->onWrite = onWrite;
  const std::string name = "zerva:" + server->object().name;
  netsnmp_handler_registration* reginfo =
      netsnmp_create_handler_registration(name.c_str(), HandleRequests, root.data(), root.size(), modes);
  if (reginfo == nullptr) {
    *error = "cannot register " + server->object().prefix;
    return false;
  }
  reginfo->handler->myvoid = entry.get();
  if (!watching_) {
    watching_ = true;
    if (g_watchingRegistrations++ == 0) WatchAgentxRegistrations(OnMasterAnswer);
  }
  // A sub-agent connected to its master registers there first: a subtree
  // the master refuses must not enter the local registry (see
  // agentx_registration.h); one the master has kept for us since the module
  // was loaded last enters it alone. Otherwise Net-SNMP registers it at the
  // master once one is connected, and OnMasterAnswer hears how that went.
  std::string refusal;
  entry->atMaster = AgentxSessionOpen();
  auto kept = kept_.end();
  if (entry->atMaster) {
    const AgentxSubtree subtree = AgentxSubtree::Of(*reginfo);
    const uint64_t session = AgentxSessionNumber();
    for (auto k = kept_.begin(); k != kept_.end() && kept == kept_.end(); ++k) {
      if ((*k)->session == session && (*k)->subtree == subtree) kept = k;
    }
  }
  int rc = 0;  // the calls below free reginfo on failure
  if (kept != kept_.end()) {
    rc = RegisterLocally(reginfo);
    if (rc == MIB_REGISTERED_OK) {
      delete *kept;
      kept_.erase(kept);
    }
  } else if (entry->atMaster) {
    rc = RegisterAtMasterFirst(reginfo, &refusal);
  } else {
    rc = netsnmp_register_handler(reginfo);
  }
  if (!refusal.empty()) {
    *error = AgentxRefusalMessage(server->object().name + " " + server->object().prefix, refusal);
    return false;
  }
  if (rc != MIB_REGISTERED_OK) {
    *error = "Net-SNMP refuses the registration of " + server->object().prefix + " (code " + std::to_string(rc) +
             (rc == MIB_DUPLICATE_REGISTRATION ? ": already registered)" : ")");
    return false;
  }
  entry->reginfo = reginfo;
  entries_.push_back(entry.release());
  return true;
}

void SnmpRegistrations::unregister() {
  const bool connected = AgentxSessionOpen();
  for (Entry* e : entries_) {
    // The master removes a subtree by its OID, whoever registered it: one it
    // refused us is dropped here only. The AgentX unregister of one it
    // accepted is sent by us, outside Net-SNMP's callbacks.
    if (e->reginfo != nullptr && connected && e->atMaster) {
      UnregisterAtMasterFirst(e->reginfo);
    } else if (e->reginfo != nullptr) {
      UnregisterLocally(e->reginfo);
    }
    delete e;
  }
  entries_.clear();
  const uint64_t session = connected ? AgentxSessionNumber() : 0;
  for (Kept* k : kept_) {
    if (connected && k->session == session) UnregisterAtMaster(k->subtree);
    delete k;
  }
  kept_.clear();
  if (watching_) {
    watching_ = false;
    if (--g_watchingRegistrations == 0) RemoveAgentxHooks();
  }
}

void SnmpRegistrations::unregisterKeepingMaster() {
  const bool connected = AgentxSessionOpen();
  const uint64_t session = connected ? AgentxSessionNumber() : 0;
  // What an earlier session kept: that master has forgotten it.
  for (auto k = kept_.begin(); k != kept_.end();) {
    if (connected && (*k)->session == session) {
      ++k;
    } else {
      delete *k;
      k = kept_.erase(k);
    }
  }
  for (Entry* e : entries_) {
    if (e->reginfo != nullptr) {
      if (connected && e->atMaster) {
        std::unique_ptr<Kept> k(new Kept);
        k->subtree = AgentxSubtree::Of(*e->reginfo);
        k->session = session;
        kept_.push_back(k.release());
      }
      UnregisterLocally(e->reginfo);
    }
    delete e;
  }
  entries_.clear();
}

// ---------------------------------------------------------------- tokens

namespace {

AgentOptions* g_options = nullptr;
std::vector<std::string>* g_errors = nullptr;

void ParseToken(const char* token, char* line) {
  if (g_options == nullptr) return;
  std::string why;
  if (!ApplyAgentToken(token, line != nullptr ? line : "", g_options, &why)) {
    const std::string text = std::string(token) + ": " + why;
    config_perror(text.c_str());
    if (g_errors != nullptr) g_errors->push_back(text);
  }
}

// ---------------------------------------------------------------- log

std::vector<std::string>* g_capture = nullptr;
std::string g_pending;  // a message Net-SNMP writes in pieces

int LogCallback(int, int, void* serverarg, void*) {
  auto* message = static_cast<struct snmp_log_message*>(serverarg);
  if (message == nullptr || message->msg == nullptr) return 0;
  g_pending += message->msg;
  if (g_pending.empty() || g_pending.back() != '\n') return 0;
  std::string text;
  text.swap(g_pending);
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  EVEMLogLevel level = VEM_LOG_DEBUG;
  if (message->priority <= LOG_ERR) {
    level = VEM_LOG_ERROR;
  } else if (message->priority <= LOG_NOTICE) {
    level = VEM_LOG_WARN;
  }
  VEMLog(VEM_KIT_AGENT, level, "net-snmp", 0, "%s", text.c_str());
  NoteAgentxLogLine(text);  // the master's answer to a registration
  // Problems in the configuration file name it and the line ("FILE: line N: ...").
  if (g_capture != nullptr && message->priority <= LOG_WARNING && text.find(": line ") != std::string::npos) {
    g_capture->push_back(text);
  }
  return 0;
}

}  // namespace

void RegisterAgentTokens(const char* appType, AgentOptions* options, std::vector<std::string>* errors) {
  g_options = options;
  g_errors = errors;
  for (const AgentToken& t : AgentTokens()) {
    register_config_handler(appType, t.name, ParseToken, nullptr, t.help);
  }
}

void UnregisterAgentTokens(const char* appType) {
  for (const AgentToken& t : AgentTokens()) unregister_config_handler(appType, t.name);
  g_options = nullptr;
  g_errors = nullptr;
}

void RouteNetSnmpLog() {
  snmp_disable_log();
  netsnmp_register_loghandler(NETSNMP_LOGHANDLER_CALLBACK, LOG_DEBUG);
  snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, LogCallback, nullptr);
}

void SetNetSnmpLogCapture(std::vector<std::string>* capture) { g_capture = capture; }

// ---------------------------------------------------------------- alarm

SysOREntry::~SysOREntry() { remove(); }

static_assert(std::is_same<::oid, unsigned long>::value, "Net-SNMP's oid is an unsigned long");

void SysOREntry::add(const std::vector<unsigned long>& arcs, const std::string& description) {
  remove();
  oid_ = arcs;
  description_ = description;
  register_sysORTable(oid_.data(), oid_.size(), description_.c_str());
}

void SysOREntry::remove() {
  if (oid_.empty()) return;
  unregister_sysORTable(oid_.data(), oid_.size());
  oid_.clear();
}

SnmpAlarm::~SnmpAlarm() { stop(); }

bool SnmpAlarm::start(std::chrono::milliseconds period, std::function<void()> run) {
  stop();
  run_ = std::move(run);
  struct timeval every;
  every.tv_sec = static_cast<time_t>(period.count() / 1000);
  every.tv_usec = static_cast<suseconds_t>((period.count() % 1000) * 1000);
  id_ = snmp_alarm_register_hr(every, SA_REPEAT, Fire, this);
  return id_ != 0;
}

void SnmpAlarm::stop() {
  if (id_ != 0) snmp_alarm_unregister(id_);
  id_ = 0;
  run_ = nullptr;
}

void SnmpAlarm::Fire(unsigned int, void* self) {
  // A copy: the function may stop the alarm.
  const std::function<void()> run = static_cast<SnmpAlarm*>(self)->run_;
  if (run) run();
}

}  // namespace zerva_agent
