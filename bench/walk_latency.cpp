// walk_latency: walks a subtree with GETNEXT or GETBULK requests and times
// each request, for the per-request latency figures of the agent benchmark.
//
//   walk_latency HOST:PORT COMMUNITY OID getnext|bulk [REPETITIONS]
//
// Prints one line of JSON: requests, varbinds, errors (an error status or
// an exception value), timeouts (5 s, no retry; the walk stops at one),
// wall seconds, and the requests' p50, p99 and max in microseconds.
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

typedef std::chrono::steady_clock Clock;

// The value at quantile q of sorted samples (nearest rank).
long long Quantile(const std::vector<long long>& sorted, double q) {
  if (sorted.empty()) return 0;
  size_t rank = static_cast<size_t>(q * static_cast<double>(sorted.size()) + 0.999999);
  rank = std::min(std::max<size_t>(rank, 1), sorted.size());
  return sorted[rank - 1];
}

bool Under(const oid* name, size_t len, const oid* root, size_t rootLen) {
  return len > rootLen && netsnmp_oid_equals(name, rootLen, root, rootLen) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5 || (strcmp(argv[4], "getnext") != 0 && strcmp(argv[4], "bulk") != 0)) {
    fprintf(stderr, "usage: %s HOST:PORT COMMUNITY OID getnext|bulk [REPETITIONS]\n", argv[0]);
    return 2;
  }
  const bool bulk = strcmp(argv[4], "bulk") == 0;
  const long repetitions = argc > 5 ? atol(argv[5]) : 50;
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
  init_snmp("walk_latency");
  netsnmp_session settings;
  snmp_sess_init(&settings);
  settings.peername = argv[1];
  settings.version = SNMP_VERSION_2c;
  settings.community = reinterpret_cast<u_char*>(argv[2]);
  settings.community_len = strlen(argv[2]);
  settings.timeout = 5000000;
  settings.retries = 0;
  netsnmp_session* session = snmp_open(&settings);
  if (session == nullptr) {
    snmp_perror("snmp_open");
    return 1;
  }
  oid root[MAX_OID_LEN];
  size_t rootLen = MAX_OID_LEN;
  if (read_objid(argv[3], root, &rootLen) == 0) {
    fprintf(stderr, "%s: not an OID\n", argv[3]);
    return 2;
  }
  std::vector<oid> at(root, root + rootLen);
  std::vector<long long> micros;
  long long varbinds = 0, errors = 0, timeouts = 0;
  const Clock::time_point start = Clock::now();
  for (bool more = true; more;) {
    netsnmp_pdu* pdu = snmp_pdu_create(bulk ? SNMP_MSG_GETBULK : SNMP_MSG_GETNEXT);
    if (bulk) {
      pdu->non_repeaters = 0;
      pdu->max_repetitions = repetitions;
    }
    snmp_add_null_var(pdu, at.data(), at.size());
    netsnmp_pdu* response = nullptr;
    const Clock::time_point t0 = Clock::now();
    const int status = snmp_synch_response(session, pdu, &response);
    micros.push_back(std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - t0).count());
    if (status != STAT_SUCCESS || response == nullptr) {
      ++timeouts;
      break;
    }
    if (response->errstat != SNMP_ERR_NOERROR) {
      ++errors;
      more = false;
    }
    for (netsnmp_variable_list* vb = response->variables; more && vb != nullptr; vb = vb->next_variable) {
      if (vb->type == SNMP_ENDOFMIBVIEW || vb->type == SNMP_NOSUCHOBJECT || vb->type == SNMP_NOSUCHINSTANCE ||
          !Under(vb->name, vb->name_length, root, rootLen)) {
        more = false;
        break;
      }
      ++varbinds;
      at.assign(vb->name, vb->name + vb->name_length);
    }
    snmp_free_pdu(response);
  }
  const double wall = std::chrono::duration<double>(Clock::now() - start).count();
  std::sort(micros.begin(), micros.end());
  printf(
      "{\"requests\": %zu, \"varbinds\": %lld, \"errors\": %lld, \"timeouts\": %lld, \"wall\": %.3f, "
      "\"p50_us\": %lld, \"p99_us\": %lld, \"max_us\": %lld}\n",
      micros.size(), varbinds, errors, timeouts, wall, Quantile(micros, 0.5), Quantile(micros, 0.99),
      micros.empty() ? 0 : micros.back());
  snmp_close(session);
  return timeouts == 0 && errors == 0 ? 0 : 1;
}
