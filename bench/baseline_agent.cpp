// baseline_agent: the ceiling of what a Net-SNMP agent can do with tables of
// our shapes. It serves, from memory, every object of a MIB description
// (VEM-PERFORMANCE.xml) with synthetic values and the given row counts, with
// no back end and no module in between. The agent benchmark walks it and our
// agent in the same run.
//
//   baseline_agent --mib mibs/VEM-PERFORMANCE.xml [--listen udp:127.0.0.1:1162]
//                  [--luns N] [--ports N] [--controllers N] [--filesystems N]
//   baseline_agent --help | --version
//
// A bad command line prints the error and the usage on stderr and exits 2.
// Community "public", read-only, from 127.0.0.1. Runs until SIGINT/SIGTERM.
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <algorithm>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "host/agent/mib_description.h"
#include "vempub/vem_command_line.h"
#include "vempub/vem_decimal.h"
#include "zerva_version.h"

// The view-based access control tables; the agent library defines it but
// its headers do not declare it.
extern "C" void init_vacm_conf(void);

namespace {

volatile sig_atomic_t g_running = 1;
void Stop(int) { g_running = 0; }

typedef std::vector<oid> OidVec;

// One table (or scalar) held in memory: rows sorted by their index OID.
struct MemTable {
  const zerva_agent::MibObject* object = nullptr;
  std::vector<OidVec> indexes;        // sorted
  std::vector<std::string> textKeys;  // the text of string indexes, by row
};

std::vector<std::unique_ptr<MemTable>> g_tables;

// Row count of a table by its name, from the command line.
long RowsFor(const std::string& name, const std::map<std::string, long>& counts) {
  std::string lower(name);
  std::transform(lower.begin(), lower.end(), lower.begin(), ::tolower);
  for (const auto& entry : counts) {
    if (lower.find(entry.first) != std::string::npos) return entry.second;
  }
  return counts.at("controller");  // node, cache and protocol tables: one row per controller
}

OidVec IndexOf(const MemTable& t, long row, std::string* text) {
  if (t.object->indexEncoding == zerva_agent::MibIndexEncoding::Integer) return OidVec{static_cast<oid>(row)};
  char buf[32];
  snprintf(buf, sizeof buf, "obj%06ld", row);
  *text = buf;
  OidVec out{static_cast<oid>(text->size())};
  for (unsigned char c : *text) out.push_back(c);
  return out;
}

// Fills the varbind with the synthetic value of (row, column).
void SetValue(netsnmp_variable_list* vb, const MemTable& t, size_t row, const zerva_agent::MibColumn& col) {
  using zerva_agent::MibSyntax;
  const unsigned long v = static_cast<unsigned long>(row * 131 + col.number * 7) % 100000;
  switch (col.syntax) {
    case MibSyntax::DisplayString:
    case MibSyntax::OctetString: {
      std::string s = "value" + std::to_string(v);
      if (col.number == t.object->indexColumn && !t.textKeys.empty()) s = t.textKeys[row];
      snmp_set_var_typed_value(vb, ASN_OCTET_STR, s.data(), s.size());
      return;
    }
    case MibSyntax::Counter64: {
      struct counter64 c;
      c.high = 0;
      c.low = v;
      snmp_set_var_typed_value(vb, ASN_COUNTER64, &c, sizeof c);
      return;
    }
    case MibSyntax::Integer32: {
      long i = static_cast<long>(v);
      snmp_set_var_typed_value(vb, ASN_INTEGER, &i, sizeof i);
      return;
    }
    case MibSyntax::Counter32:
      snmp_set_var_typed_value(vb, ASN_COUNTER, &v, sizeof v);
      return;
    case MibSyntax::TimeTicks:
      snmp_set_var_typed_value(vb, ASN_TIMETICKS, &v, sizeof v);
      return;
    default:
      snmp_set_var_typed_value(vb, ASN_GAUGE, &v, sizeof v);
      return;
  }
}

// The first (column, row) whose OID is after suffix (the part after the
// table prefix), or false.
bool NextTableCell(const MemTable& t, const OidVec& suffix, size_t* colPos, size_t* row) {
  const auto& cols = t.object->columns;
  if (suffix.empty() || suffix[0] < 1) {
    *colPos = 0;
    *row = 0;
    return !cols.empty() && !t.indexes.empty();
  }
  if (suffix[0] > 1 || t.indexes.empty()) return false;
  size_t c = 0;
  if (suffix.size() >= 2) {
    while (c < cols.size() && cols[c].number < suffix[1]) ++c;
    if (c < cols.size() && cols[c].number == suffix[1]) {
      OidVec rest(suffix.begin() + 2, suffix.end());
      auto it = std::upper_bound(t.indexes.begin(), t.indexes.end(), rest);
      if (it != t.indexes.end()) {
        *colPos = c;
        *row = static_cast<size_t>(it - t.indexes.begin());
        return true;
      }
      ++c;
    }
  }
  if (c >= cols.size()) return false;
  *colPos = c;
  *row = 0;
  return true;
}

int Handle(netsnmp_mib_handler* handler, netsnmp_handler_registration* reg, netsnmp_agent_request_info* reqinfo,
           netsnmp_request_info* requests) {
  const MemTable& t = *static_cast<MemTable*>(handler->myvoid);
  const size_t plen = t.object->oid.size();
  for (netsnmp_request_info* r = requests; r != nullptr; r = r->next) {
    netsnmp_variable_list* vb = r->requestvb;
    OidVec name(vb->name, vb->name + vb->name_length);
    OidVec suffix;
    if (name.size() > plen && std::equal(t.object->oid.begin(), t.object->oid.end(), name.begin())) {
      suffix.assign(name.begin() + plen, name.end());
    } else if (name > OidVec(t.object->oid.begin(), t.object->oid.end())) {
      suffix.push_back(~0UL);  // after the whole subtree
    }
    if (t.object->kind == zerva_agent::MibObject::Scalar) {
      const bool exact = suffix == OidVec{0};
      if (reqinfo->mode == MODE_GET) {
        if (exact)
          SetValue(vb, t, 0, t.object->columns[0]);
        else
          netsnmp_set_request_error(reqinfo, r, SNMP_NOSUCHINSTANCE);
      } else if (reqinfo->mode == MODE_GETNEXT && suffix.empty()) {
        OidVec inst(t.object->oid.begin(), t.object->oid.end());
        inst.push_back(0);
        snmp_set_var_objid(vb, inst.data(), inst.size());
        SetValue(vb, t, 0, t.object->columns[0]);
      }
      continue;
    }
    if (reqinfo->mode == MODE_GET) {
      bool found = false;
      if (suffix.size() >= 3 && suffix[0] == 1) {
        const zerva_agent::MibColumn* col = t.object->column(static_cast<unsigned>(suffix[1]));
        OidVec rest(suffix.begin() + 2, suffix.end());
        auto it = std::lower_bound(t.indexes.begin(), t.indexes.end(), rest);
        if (col != nullptr && it != t.indexes.end() && *it == rest) {
          SetValue(vb, t, static_cast<size_t>(it - t.indexes.begin()), *col);
          found = true;
        }
      }
      if (!found) netsnmp_set_request_error(reqinfo, r, SNMP_NOSUCHINSTANCE);
    } else if (reqinfo->mode == MODE_GETNEXT) {
      size_t c = 0;
      size_t row = 0;
      if (!NextTableCell(t, suffix, &c, &row)) continue;  // the agent moves on to the next subtree
      OidVec out(t.object->oid.begin(), t.object->oid.end());
      out.push_back(1);
      out.push_back(t.object->columns[c].number);
      out.insert(out.end(), t.indexes[row].begin(), t.indexes[row].end());
      snmp_set_var_objid(vb, out.data(), out.size());
      SetValue(vb, t, row, t.object->columns[c]);
    }
  }
  return SNMP_ERR_NOERROR;
}

std::string Usage() {
  return "usage: baseline_agent --mib FILE [--listen ADDRS] [--luns N] [--ports N] [--controllers N]\n"
         "                      [--filesystems N]\n"
         "  --mib FILE          the MIB description whose objects are served (VEM-PERFORMANCE.xml)\n"
         "  --listen ADDRS      listening addresses (default udp:127.0.0.1:1162)\n"
         "  --luns N            rows of the LUN table (default 16384)\n"
         "  --ports N           rows of the port table (default 256)\n"
         "  --controllers N     rows of the node, cache and protocol tables (default 8)\n"
         "  --filesystems N     rows of the file-system table (default 2048)\n"
         "  --help              this text\n"
         "  --version           the program's version\n";
}

struct BaselineOptions {
  std::string mibPath;
  std::string listen = "udp:127.0.0.1:1162";
  // Row counts; keys are matched against the lower-case table name (vemPerfFsTable: "fstable").
  std::map<std::string, long> counts = {{"lun", 16384}, {"port", 256}, {"fstable", 2048}, {"controller", 8}};
  bool help = false;
  bool version = false;
};

// Codes of the long options, in the order of kOptions.
enum Option { kOptMib = VEM_LONG_OPTION_BASE, kOptListen, kOptLuns, kOptPorts, kOptControllers, kOptFileSystems };

const char kOptions[] = "mib:,listen:,luns:,ports:,controllers:,filesystems:";

// The row-count options: their code, name and key in BaselineOptions::counts.
const struct {
  int code;
  const char* name;
  const char* key;
} kRowOptions[] = {
    {kOptLuns, "--luns", "lun"},
    {kOptPorts, "--ports", "port"},
    {kOptControllers, "--controllers", "controller"},
    {kOptFileSystems, "--filesystems", "fstable"},
};

// Parses argv with getopt_long. False with *error naming the bad option or value.
bool ParseBaselineOptions(int argc, char** argv, BaselineOptions* out, std::string* error) {
  const VEMOptionHandler apply = [out](int code, const std::string& value, std::string* why) {
    for (const auto& rows : kRowOptions) {
      if (rows.code != code) continue;
      uint64_t n = 0;
      if (!ParseDecimal(value, LONG_MAX, &n)) {
        *why = std::string(rows.name) + ": '" + value + "' is not a number of rows";
        return false;
      }
      out->counts[rows.key] = static_cast<long>(n);
    }
    if (code == kOptMib) out->mibPath = value;
    if (code == kOptListen) out->listen = value;
    return true;
  };
  VEMCommandLineSyntax syntax;
  syntax.longOptions = kOptions;
  return VEMParseOptions(argc, argv, syntax, apply, nullptr, &out->help, &out->version, error);
}

}  // namespace

int main(int argc, char** argv) {
  BaselineOptions options;
  std::string error;
  const bool parsed = ParseBaselineOptions(argc, argv, &options, &error);
  const VEMProgramTexts texts = {"baseline_agent", Usage(), std::string("baseline_agent ") + ZERVA_VERSION};
  int status = 0;
  if (VEMAnswerCommandLine(parsed, error, options.help, options.version, texts, &status)) return status;
  const std::string& mibPath = options.mibPath;
  const std::string& listen = options.listen;
  const std::map<std::string, long>& counts = options.counts;
  zerva_agent::MibDescription mib;
  if (mibPath.empty() || !zerva_agent::LoadMibDescription(mibPath, mib, &error)) {
    fprintf(stderr, "baseline_agent: %s\n", mibPath.empty() ? "--mib is required" : error.c_str());
    return 2;
  }

  netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE, 0);
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
  netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_PORTS, listen.c_str());
  snmp_disable_log();
  init_agent("baseline_agent");
  init_vacm_conf();
  netsnmp_config_remember(strdup("rocommunity public 127.0.0.1"));

  for (const zerva_agent::MibObject& object : mib.objects) {
    std::unique_ptr<MemTable> t(new MemTable());
    t->object = &object;
    if (object.kind == zerva_agent::MibObject::Table) {
      const long rows = RowsFor(object.name, counts);
      std::vector<std::pair<OidVec, std::string>> keyed;
      for (long r = 0; r < rows; ++r) {
        std::string text;
        OidVec idx = IndexOf(*t, r, &text);
        keyed.emplace_back(idx, text);
      }
      std::sort(keyed.begin(), keyed.end());
      for (auto& k : keyed) {
        t->indexes.push_back(k.first);
        if (object.indexEncoding == zerva_agent::MibIndexEncoding::String) t->textKeys.push_back(k.second);
      }
    }
    netsnmp_mib_handler* handler = netsnmp_create_handler(object.name.c_str(), Handle);
    handler->myvoid = t.get();
    netsnmp_handler_registration* reg = netsnmp_handler_registration_create(
        object.name.c_str(), handler, object.oid.data(), object.oid.size(), HANDLER_CAN_RONLY);
    if (netsnmp_register_handler(reg) != MIB_REGISTERED_OK) {
      fprintf(stderr, "baseline_agent: cannot register %s\n", object.prefix.c_str());
      return 1;
    }
    g_tables.push_back(std::move(t));
  }

  init_snmp("baseline_agent");
  if (init_master_agent() != 0) {
    fprintf(stderr, "baseline_agent: cannot listen on %s\n", listen.c_str());
    return 1;
  }
  signal(SIGINT, Stop);
  signal(SIGTERM, Stop);
  printf("baseline_agent: serving %zu objects of %s on %s\n", g_tables.size(), mibPath.c_str(), listen.c_str());
  fflush(stdout);
  while (g_running) agent_check_and_process(1);
  snmp_shutdown("baseline_agent");
  return 0;
}
