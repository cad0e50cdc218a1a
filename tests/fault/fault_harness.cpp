#include "tests/fault/fault_harness.h"

#include <poll.h>
#include <stdlib.h>
#include <sys/select.h>

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "host/agent/snmp_value.h"
#include "tests/process/ground_truth.h"
#include "tests/process/served_mib.h"

// Net-SNMP's headers define short macros: they come last.
// clang-format off
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
// clang-format on

namespace zerva_fault {

// ---------------------------------------------------------------- OIDs

std::string VarBind::text() const {
  std::ostringstream s;
  s << OidText(name) << " type 0x" << std::hex << type << std::dec;
  if (type == ASN_OCTET_STR) {
    s << " \"" << bytes << "\"";
  } else if (type < 0x80) {
    s << " " << number;
  }
  return s.str();
}

// ---------------------------------------------------------------- library

namespace {

// Serialises every call into the Net-SNMP library (it is built without
// thread support); the clients wait for their answers outside it.
std::mutex& LibraryMutex() {
  static std::mutex mu;
  return mu;
}

// The client library's state directory (it saves nothing there).
std::unique_ptr<zerva_test::TempDir> g_stateDir;
bool g_initialised = false;

}  // namespace

void InitSnmpClientLibrary() {
  static std::once_flag once;
  std::call_once(once, [] {
    std::lock_guard<std::mutex> lock(LibraryMutex());
    g_stateDir.reset(new zerva_test::TempDir);
    setenv("MIBS", "", 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_LOAD, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_SAVE, 1);
    if (!g_stateDir->path().empty()) {
      netsnmp_ds_set_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_PERSISTENT_DIR, g_stateDir->path().c_str());
    }
    snmp_disable_log();
    init_snmp("zerva-fault-test");
    g_initialised = true;
  });
}

void ShutdownSnmpClientLibrary() {
  std::lock_guard<std::mutex> lock(LibraryMutex());
  if (!g_initialised) return;
  snmp_shutdown("zerva-fault-test");
  g_initialised = false;
  g_stateDir.reset();
}

namespace {

// Releases the client library once every test of the program has run.
class SnmpLibraryEnvironment : public ::testing::Environment {
 public:
  void TearDown() override { ShutdownSnmpClientLibrary(); }
};

::testing::Environment* const g_snmpEnvironment = ::testing::AddGlobalTestEnvironment(new SnmpLibraryEnvironment);

}  // namespace

// ---------------------------------------------------------------- client

namespace {

struct Pending {
  bool done = false;
  Answer* out = nullptr;
};

VarBind FromNetSnmp(const netsnmp_variable_list* v) {
  VarBind vb;
  vb.name.assign(v->name, v->name + v->name_length);
  vb.type = v->type;
  switch (v->type) {
    case ASN_INTEGER:
      vb.number = static_cast<uint64_t>(static_cast<int64_t>(*v->val.integer));
      break;
    case ASN_COUNTER:
    case ASN_GAUGE:
    case ASN_TIMETICKS:
      vb.number = static_cast<uint64_t>(*v->val.integer) & 0xFFFFFFFFULL;
      break;
    case ASN_COUNTER64:
      vb.number = (static_cast<uint64_t>(v->val.counter64->high) << 32) | (v->val.counter64->low & 0xFFFFFFFFUL);
      break;
    case ASN_OCTET_STR:
      vb.bytes.assign(reinterpret_cast<const char*>(v->val.string), v->val_len);
      break;
    default:
      break;
  }
  return vb;
}

int OnResponse(int operation, netsnmp_session*, int, netsnmp_pdu* pdu, void* magic) {
  auto* pending = static_cast<Pending*>(magic);
  if (operation != NETSNMP_CALLBACK_OP_RECEIVED_MESSAGE || pdu == nullptr) return 1;
  Answer& a = *pending->out;
  a.status = Answer::kAnswered;
  a.command = pdu->command;
  a.errorStatus = pdu->errstat;
  a.errorIndex = pdu->errindex;
  for (const netsnmp_variable_list* v = pdu->variables; v != nullptr; v = v->next_variable) {
    a.varbinds.push_back(FromNetSnmp(v));
  }
  pending->done = true;
  return 1;
}

}  // namespace

SnmpClient::SnmpClient(int port, const std::string& community, long version, std::chrono::milliseconds timeout)
    : port_(port), community_(community), version_(version), timeout_(timeout) {
  InitSnmpClientLibrary();
  open();
}

SnmpClient::~SnmpClient() { close(); }

void SnmpClient::open() {
  std::lock_guard<std::mutex> lock(LibraryMutex());
  netsnmp_session s;
  snmp_sess_init(&s);
  const std::string peer = "udp:127.0.0.1:" + std::to_string(port_);
  s.version = version_;
  s.peername = const_cast<char*>(peer.c_str());
  s.community = reinterpret_cast<u_char*>(const_cast<char*>(community_.data()));
  s.community_len = community_.size();
  s.timeout = static_cast<long>(timeout_.count()) * 1000;
  s.retries = 0;
  session_ = snmp_sess_open(&s);
}

void SnmpClient::close() {
  std::lock_guard<std::mutex> lock(LibraryMutex());
  if (session_ != nullptr) snmp_sess_close(session_);
  session_ = nullptr;
}

Answer SnmpClient::get(const Oid& name) { return send(SNMP_MSG_GET, name, 0, nullptr); }
Answer SnmpClient::getNext(const Oid& name) { return send(SNMP_MSG_GETNEXT, name, 0, nullptr); }
Answer SnmpClient::getBulk(const Oid& name, int maxRepetitions) {
  return send(SNMP_MSG_GETBULK, name, maxRepetitions, nullptr);
}
Answer SnmpClient::setUnsigned(const Oid& name, unsigned long value) { return send(SNMP_MSG_SET, name, 0, &value); }

Answer SnmpClient::send(int command, const Oid& name, int maxRepetitions, const unsigned long* value) {
  Answer answer;
  Pending pending;
  pending.out = &answer;
  const auto start = Clock::now();
  int fd = -1;
  {
    std::lock_guard<std::mutex> lock(LibraryMutex());
    if (session_ == nullptr) return answer;
    netsnmp_pdu* pdu = snmp_pdu_create(command);
    std::vector<oid> o(name.begin(), name.end());
    if (command == SNMP_MSG_GETBULK) {
      pdu->non_repeaters = 0;
      pdu->max_repetitions = maxRepetitions;
    }
    if (value != nullptr) {
      u_long v = *value;
      snmp_pdu_add_variable(pdu, o.data(), o.size(), ASN_UNSIGNED, &v, sizeof v);
    } else {
      snmp_add_null_var(pdu, o.data(), o.size());
    }
    if (snmp_sess_async_send(session_, pdu, OnResponse, &pending) == 0) {
      snmp_free_pdu(pdu);
      return answer;
    }
    netsnmp_transport* t = snmp_sess_transport(session_);
    fd = t != nullptr ? t->sock : -1;
  }
  const auto deadline = start + timeout_;
  while (!pending.done && fd >= 0) {
    const auto now = Clock::now();
    if (now >= deadline) break;
    const long long left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now).count() + 1;
    struct pollfd p;
    p.fd = fd;
    p.events = POLLIN;
    p.revents = 0;
    if (poll(&p, 1, static_cast<int>(left)) <= 0) continue;
    std::lock_guard<std::mutex> lock(LibraryMutex());
    fd_set fds;
    FD_ZERO(&fds);
    FD_SET(fd, &fds);
    snmp_sess_read(session_, &fds);
  }
  answer.ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
  if (!pending.done) {
    answer.status = Answer::kTimeout;
    // The request is still pending in the session (with `pending` as its
    // callback argument): a new session forgets it.
    close();
    open();
  }
  return answer;
}

// ---------------------------------------------------------------- checks

AnswerChecker::AnswerChecker() : mib_(zerva_test::ServedMib(&error_)) {}

std::string AnswerChecker::checkVarBind(const VarBind& vb) const {
  const Oid subtree = Subtree();
  if (vb.type == kEndOfMibView) return "";
  if (!Under(vb.name, subtree)) return "";
  if (vb.type == kNoSuchObject || vb.type == kNoSuchInstance) return "";
  for (const zerva_agent::MibObject& object : mib_.objects) {
    const Oid prefix(object.oid.begin(), object.oid.end());
    if (!Under(vb.name, prefix)) continue;
    if (object.kind == zerva_agent::MibObject::Scalar) {
      if (vb.name.size() != prefix.size() + 1 || vb.name.back() != 0) return vb.text() + ": not the scalar's instance";
      const int type = zerva_agent::SnmpTypeOf(object.columns.front().syntax);
      if (vb.type != type) return vb.text() + ": type of " + object.name + " is " + std::to_string(type);
      return "";
    }
    const size_t p = prefix.size();
    if (vb.name.size() < p + 3 || vb.name[p] != 1) return vb.text() + ": not a column instance of " + object.name;
    const zerva_agent::MibColumn* column = object.column(static_cast<unsigned int>(vb.name[p + 1]));
    if (column == nullptr) return vb.text() + ": no such column in " + object.name;
    const Oid index(vb.name.begin() + static_cast<long>(p) + 2, vb.name.end());
    if (object.indexEncoding == zerva_agent::MibIndexEncoding::Integer) {
      if (index.size() != 1 || index[0] > 0xFFFFFFFFUL) return vb.text() + ": bad integer index";
    } else {
      if (index.empty() || index[0] + 1 != index.size()) return vb.text() + ": bad string index";
      for (unsigned long c : index) {
        if (c > 255) return vb.text() + ": bad string index";
      }
    }
    const int type = zerva_agent::SnmpTypeOf(column->syntax);
    if (vb.type != type) return vb.text() + ": type of " + column->name + " is " + std::to_string(type);
    if (column->number == object.indexColumn) {
      if (object.indexEncoding == zerva_agent::MibIndexEncoding::Integer && vb.number != index[0]) {
        return vb.text() + ": index column differs from the row index";
      }
      if (object.indexEncoding == zerva_agent::MibIndexEncoding::String) {
        const std::string expected(index.begin() + 1, index.end());
        if (vb.bytes != expected) return vb.text() + ": index column differs from the row index";
      }
    }
    return "";
  }
  return vb.text() + ": under the subtree but no served object";
}

std::string AnswerChecker::checkWalkAnswer(const Answer& answer, const Oid& name, int maxRepetitions) const {
  if (answer.status != Answer::kAnswered) return "no answer";
  if (answer.command != SNMP_MSG_RESPONSE) return "answer is PDU type " + std::to_string(answer.command);
  if (answer.errorStatus != 0) {
    if (answer.errorStatus < 0 || answer.errorStatus > SNMP_ERR_INCONSISTENTNAME) {
      return "unknown error status " + std::to_string(answer.errorStatus);
    }
    if (answer.errorIndex < 0 || answer.errorIndex > static_cast<long>(std::max<size_t>(answer.varbinds.size(), 1))) {
      return "error index " + std::to_string(answer.errorIndex) + " out of range";
    }
    return "";
  }
  const size_t n = answer.varbinds.size();
  if (n == 0) return "no varbinds";
  if (maxRepetitions == 0 && n != 1) return std::to_string(n) + " varbinds for a GETNEXT";
  if (maxRepetitions > 0 && n > static_cast<size_t>(maxRepetitions)) {
    return std::to_string(n) + " varbinds for max-repetitions " + std::to_string(maxRepetitions);
  }
  const Oid* previous = &name;
  for (const VarBind& vb : answer.varbinds) {
    if (vb.type == kEndOfMibView) break;  // the rest repeats the end
    if (vb.type == kNoSuchObject || vb.type == kNoSuchInstance) return vb.text() + ": exception in a walk answer";
    if (!(*previous < vb.name)) return vb.text() + ": not after " + OidText(*previous);
    const std::string problem = checkVarBind(vb);
    if (!problem.empty()) return problem;
    previous = &vb.name;
  }
  return "";
}

// ---------------------------------------------------------------- walks

WalkResult Walk(SnmpClient& client, const AnswerChecker& checker, int maxRepetitions, Clock::time_point deadline,
                size_t maxRequests, const std::function<void(size_t)>& afterRequest, const Oid& root) {
  WalkResult out;
  const Oid subtree = root.empty() ? Subtree() : root;
  Oid next = subtree;
  while (out.requests < maxRequests && Clock::now() < deadline) {
    const Answer a = maxRepetitions > 0 ? client.getBulk(next, maxRepetitions) : client.getNext(next);
    ++out.requests;
    out.maxMs = std::max(out.maxMs, a.ms);
    if (afterRequest) afterRequest(out.requests);
    if (a.status != Answer::kAnswered) {
      ++out.timeouts;
      return out;
    }
    const std::string problem = checker.checkWalkAnswer(a, next, maxRepetitions);
    if (!problem.empty()) {
      out.problems.push_back("after " + OidText(next) + ": " + problem);
      return out;
    }
    if (a.errorStatus != 0) {
      ++out.errors;
      return out;
    }
    for (const VarBind& vb : a.varbinds) {
      if (vb.type == kEndOfMibView || !Under(vb.name, subtree)) {
        out.complete = true;
        return out;
      }
      out.varbinds.push_back(vb);
      next = vb.name;
    }
  }
  return out;
}

std::vector<VarBind> Under(const std::vector<VarBind>& walk, const Oid& root) {
  std::vector<VarBind> out;
  for (const VarBind& vb : walk) {
    if (Under(vb.name, root)) out.push_back(vb);
  }
  return out;
}

std::string CompareWalks(const std::vector<VarBind>& expected, const std::vector<VarBind>& actual) {
  for (size_t i = 0; i < expected.size() && i < actual.size(); ++i) {
    if (!(expected[i] == actual[i])) {
      return "varbind " + std::to_string(i) + ": expected " + expected[i].text() + ", got " + actual[i].text();
    }
  }
  if (expected.size() != actual.size()) {
    return std::to_string(expected.size()) + " varbinds expected, " + std::to_string(actual.size()) + " answered";
  }
  return "";
}

// ---------------------------------------------------------------- agent

AgentUnderTest::Options TestArray() {
  AgentUnderTest::Options o;
  o.luns = 300;
  o.fileSystems = 24;
  o.features = 7;
  o.switchOn = 1;
  o.frozenMs = kFrozenMs;
  return o;
}

// ---------------------------------------------------------------- ground truth

namespace {

// A varbind's value as the ground truth holds values.
zerva_test::Value AsValue(const VarBind& vb) {
  switch (vb.type) {
    case ASN_INTEGER:
      return {"INTEGER", std::to_string(static_cast<int64_t>(vb.number))};
    case ASN_GAUGE:
      return {"Gauge32", std::to_string(vb.number)};
    case ASN_COUNTER:
      return {"Counter32", std::to_string(vb.number)};
    case ASN_COUNTER64:
      return {"Counter64", std::to_string(vb.number)};
    case ASN_TIMETICKS:
      return {"Timeticks", std::to_string(vb.number)};
    case ASN_OCTET_STR:
      return {"OCTETS", zerva_test::Hex(vb.bytes)};
    default:
      return {"type " + std::to_string(vb.type), ""};
  }
}

}  // namespace

std::string CheckAgainstGroundTruth(const std::vector<VarBind>& walk, const zerva_sim::ArraySimulator& array) {
  std::map<Oid, zerva_test::Value> served;
  for (const VarBind& vb : walk) served.emplace(vb.name, AsValue(vb));
  for (const zerva_agent::MibObject* table : zerva_test::MibTables()) {
    std::string error;
    const zerva_test::TableTruth truth = zerva_test::GroundTruth(array, *table, nullptr, &error);
    if (!error.empty()) return error;
    std::map<Oid, zerva_test::Value> instances;
    for (auto i = served.lower_bound(truth.prefix); i != served.end() && Under(i->first, truth.prefix); ++i) {
      instances.insert(*i);
    }
    const std::string diff = zerva_test::Diff(truth.instances, instances);
    if (!diff.empty()) return table->name + ": " + diff;
  }
  return "";
}

}  // namespace zerva_fault
