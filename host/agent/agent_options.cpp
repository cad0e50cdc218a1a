#include "host/agent/agent_options.h"

#include <getopt.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "snmpcommon/snmp_backend_frame.h"
#include "vempub/vem_decimal.h"

namespace zerva_agent {

namespace {

std::string Trim(const std::string& text) {
  const size_t b = text.find_first_not_of(" \t\r\n");
  if (b == std::string::npos) return "";
  const size_t e = text.find_last_not_of(" \t\r\n");
  return text.substr(b, e - b + 1);
}

bool Lower(const std::string& a, const char* b) {
  if (a.size() != std::char_traits<char>::length(b)) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) != b[i]) return false;
  }
  return true;
}

bool ParseBool(const std::string& text, bool* out) {
  if (Lower(text, "yes") || Lower(text, "true") || Lower(text, "on") || text == "1") {
    *out = true;
    return true;
  }
  if (Lower(text, "no") || Lower(text, "false") || Lower(text, "off") || text == "0") {
    *out = false;
    return true;
  }
  return false;
}

// A number token: a decimal number (ParseDecimal's rule) within [lo, hi].
bool NumberToken(const std::string& value, uint64_t lo, uint64_t hi, uint64_t* out, std::string* error) {
  uint64_t n = 0;
  if (ParseDecimal(value, hi, &n) && n >= lo) {
    *out = n;
    return true;
  }
  *error = "'" + value + "' is not a number from " + std::to_string(lo) + " to " + std::to_string(hi);
  return false;
}

bool PathToken(const std::string& value, std::string* out, std::string* error) {
  if (value.empty()) {
    *error = "a path is required";
    return false;
  }
  *out = value;
  return true;
}

}  // namespace

const std::vector<AgentToken>& AgentTokens() {
  static const std::vector<AgentToken> tokens = {
      {"zervaModule", "PATH: the service module plug-in to load"},
      {"zervaMibDir", "DIR: the directory holding the module's MIB description"},
      {"zervaBackend", "embedded | unix:PATH | tcp:HOST:PORT: the management back end"},
      {"zervaBackendTimeout", "MS: back-end call timeout (listings get twice as long)"},
      {"zervaSnapshotSeconds", "N: how long table rows are reused (0: never)"},
      {"zervaBatchRows", "N: rows asked per batch of a batch table"},
      {"zervaLogLevel", "trace|debug|warn|error|off: level of the debug kits"},
      {"zervaLogFile", "PATH: append log lines to this file"},
      {"zervaSyslog", "yes|no: log to syslog"},
      {"zervaDeviceConfig", "PATH: the device configuration (command codes)"},
      {"zervaSimTopology", "PATH: topology file of the embedded simulator"},
      {"zervaSimLuns", "N: LUNs of the embedded simulator"},
      {"zervaSimFileSystems", "N: file systems of the embedded simulator"},
      {"zervaSimFeatures", "N: features of the embedded simulator (bits: 1 NFS, 2 SMB, 4 file systems)"},
      {"zervaSimSeed", "N: workload seed of the embedded simulator"},
      {"zervaRole", "master|agentx: standalone agent or AgentX sub-agent"},
  };
  return tokens;
}

bool ApplyAgentToken(const std::string& token, const std::string& rawValue, AgentOptions* o, std::string* error) {
  const std::string value = Trim(rawValue);
  uint64_t n = 0;
  if (token == "zervaModule") return PathToken(value, &o->modulePath, error);
  if (token == "zervaMibDir") return PathToken(value, &o->mibDir, error);
  if (token == "zervaDeviceConfig") return PathToken(value, &o->deviceConfig, error);
  if (token == "zervaLogFile") return PathToken(value, &o->logFile, error);
  if (token == "zervaSimTopology") return PathToken(value, &o->simTopology, error);
  if (token == "zervaBackend") {
    if (value == "embedded") {
      o->backend = value;
      return true;
    }
    CSnmpBackendAddress address;
    std::string why;
    if (!CSnmpBackendAddress::parse(value, address, &why)) {
      *error = "'" + value + "' is not embedded, unix:PATH or tcp:HOST:PORT (" + why + ")";
      return false;
    }
    o->backend = value;
    return true;
  }
  if (token == "zervaBackendTimeout") {
    if (!NumberToken(value, 1, 3600000, &n, error)) return false;
    o->backendTimeoutMs = static_cast<unsigned int>(n);
    return true;
  }
  if (token == "zervaSnapshotSeconds") {
    if (!NumberToken(value, 0, 86400, &n, error)) return false;
    o->snapshotSeconds = static_cast<unsigned int>(n);
    return true;
  }
  if (token == "zervaBatchRows") {
    if (!NumberToken(value, 1, 10000, &n, error)) return false;
    o->batchRows = static_cast<unsigned int>(n);
    return true;
  }
  if (token == "zervaLogLevel") {
    if (VEMParseLogLevel(value, &o->logLevel)) return true;
    *error = "'" + value + "' is not one of trace, debug, warn, error, off";
    return false;
  }
  if (token == "zervaSyslog" || token == "zervaRole") {
    bool flag = false;
    if (token == "zervaSyslog" && ParseBool(value, &flag)) {
      o->syslog = flag;
      return true;
    }
    if (token == "zervaRole" && (value == "master" || value == "agentx")) {
      o->agentx = value == "agentx";
      return true;
    }
    *error = "'" + value + "' is not " + (token == "zervaSyslog" ? "yes or no" : "master or agentx");
    return false;
  }
  if (token == "zervaSimLuns" || token == "zervaSimFileSystems") {
    if (!NumberToken(value, 0, 1000000, &n, error)) return false;
    (token == "zervaSimLuns" ? o->simLuns : o->simFileSystems) = static_cast<long>(n);
    return true;
  }
  if (token == "zervaSimFeatures") {
    if (!NumberToken(value, 0, 7, &n, error)) return false;
    o->simFeatures = static_cast<long>(n);
    return true;
  }
  if (token == "zervaSimSeed") {
    if (!NumberToken(value, 0, UINT64_MAX, &n, error)) return false;
    o->simSeed = n;
    return true;
  }
  *error = "unknown token '" + token + "'";
  return false;
}

bool ScanRole(const std::string& path, bool* agentx, std::string* error) {
  std::ifstream in(path);
  if (!in) {
    *error = path + ": cannot be read";
    return false;
  }
  std::string line;
  int number = 0;
  while (std::getline(in, line)) {
    ++number;
    std::istringstream words(line);
    std::string token;
    words >> token;
    if (token != "zervaRole") continue;
    std::string rest;
    std::getline(words, rest);
    AgentOptions scratch;
    std::string why;
    if (!ApplyAgentToken(token, rest, &scratch, &why)) {
      *error = path + ": line " + std::to_string(number) + ": zervaRole: " + why;
      return false;
    }
    *agentx = scratch.agentx;
  }
  return true;
}

namespace {

// Codes of the long options without a short form (beyond every char).
enum LongOption { kOptListen = 256, kOptStateDir, kOptHelp, kOptVersion };

const struct option kLongOptions[] = {
    {"listen", required_argument, nullptr, kOptListen},
    {"state-dir", required_argument, nullptr, kOptStateDir},
    {"help", no_argument, nullptr, kOptHelp},
    {"version", no_argument, nullptr, kOptVersion},
    {nullptr, 0, nullptr, 0},
};

// The option getopt_long has just refused, as written on the command line.
std::string RefusedOption(char* const* argv) {
  if (optopt >= kOptListen) {
    for (const struct option* o = kLongOptions; o->name != nullptr; ++o) {
      if (o->val == optopt) return std::string("--") + o->name;
    }
  }
  if (optopt != 0) return std::string("-") + static_cast<char>(optopt);
  const std::string arg = argv[optind - 1];
  return arg.substr(0, arg.find('='));
}

}  // namespace

bool ParseCommandLine(int argc, const char* const* argv, CommandLine* out, std::string* error) {
  // getopt_long may reorder the pointers it is given: it gets a copy.
  std::vector<char*> args;
  for (int i = 0; i < argc; ++i) args.push_back(const_cast<char*>(argv[i]));
  args.push_back(nullptr);
  optind = 0;  // a fresh parse (GNU), so that this can be called again
  opterr = 0;  // the errors are reported through *error
  int c;
  while ((c = getopt_long(argc, args.data(), ":c:fLx:h", kLongOptions, nullptr)) != -1) {
    switch (c) {
      case 'c':
        out->configFile = optarg;
        break;
      case 'f':
        out->foreground = true;
        break;
      case 'L':
        out->logToStderr = true;
        break;
      case 'x':
        out->agentxSocket = optarg;
        break;
      case kOptListen:
        out->listen = optarg;
        break;
      case kOptStateDir:
        out->stateDir = optarg;
        break;
      case 'h':
      case kOptHelp:
        out->help = true;
        break;
      case kOptVersion:
        out->version = true;
        break;
      case ':':
        *error = "option " + RefusedOption(args.data()) + " needs a value";
        return false;
      default:
        *error = (optopt >= kOptListen ? "option " + RefusedOption(args.data()) + " takes no value"
                                       : "unknown option '" + RefusedOption(args.data()) + "'");
        return false;
    }
  }
  if (optind < argc) {
    *error = "unexpected argument '" + std::string(args[optind]) + "'";
    return false;
  }
  return true;
}

std::string Usage(const std::string& program) {
  std::ostringstream os;
  os << "usage: " << program << " [-c FILE] [-f] [-L] [-x SOCKET] [--listen ADDRS] [--state-dir DIR] [-h] [--version]\n"
     << "  -c FILE          configuration in snmpd.conf syntax (communities, users, agentaddress,\n"
     << "                   and the zerva* tokens below); without it: rocommunity public and\n"
     << "                   rwcommunity private from 127.0.0.1 only\n"
     << "  -f               stay in the foreground\n"
     << "  -L               log to stderr (overrides zervaLogFile and zervaSyslog)\n"
     << "  -x SOCKET        run as an AgentX sub-agent of the master at SOCKET\n"
     << "  --listen ADDRS   listening addresses, overrides agentaddress (default udp:127.0.0.1:1161)\n"
     << "  --state-dir DIR  Net-SNMP persistent state (default: a private temporary directory)\n"
     << "  -h, --help       this text\n"
     << "  --version        the program's version\n"
     << "configuration tokens:\n";
  for (const AgentToken& t : AgentTokens()) os << "  " << t.name << " " << t.help << "\n";
  return os.str();
}

}  // namespace zerva_agent
