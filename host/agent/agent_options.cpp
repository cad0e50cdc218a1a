#include "host/agent/agent_options.h"

#include <cstdint>
#include <cstdlib>
#include <map>
#include <sstream>

#include "snmpcommon/snmp_backend_frame.h"
#include "vempub/vem_command_line.h"
#include "vempub/vem_decimal.h"
#include "vempub/vem_text_file.h"

namespace zerva_agent {

namespace {

// The highest kit number zervaKitLogLevel takes.
const uint64_t kMaxKitNumber = 255;

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

// A number token: a decimal number (ParseDecimal's rule) within [lo, hi],
// stored in *out.
template <typename T>
bool NumberToken(const std::string& value, uint64_t lo, uint64_t hi, T* out, std::string* error) {
  uint64_t n = 0;
  if (ParseDecimal(value, hi, &n) && n >= lo) {
    *out = static_cast<T>(n);
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
      {"zervaWalkSeconds", "N: how long a walk goes on with the rows it began on (0: no longer than the snapshot)"},
      {"zervaWaitMilliseconds",
       "MS: how long a request waits for the back end before it is answered from the previous read"},
      {"zervaMaxAgeSeconds",
       "N: the oldest read a request the back end is late for is answered from (0: none, genErr)"},
      {"zervaBatchRows", "N: rows asked per batch of a batch table"},
      {"zervaLogLevel", "trace|debug|warn|error|off: level of the debug kits"},
      {"zervaKitLogLevel", "KIT trace|debug|warn|error|off: level of one debug kit (repeatable)"},
      {"zervaLogFoldSeconds", "N: window in which repeated log lines are counted, not written (0: never)"},
      {"zervaLogFile", "PATH: append log lines to this file"},
      {"zervaSyslog", "yes|no: log to syslog"},
      {"zervaDeviceConfig", "PATH: the device configuration (command codes)"},
      {"zervaSimTopology", "PATH: topology file of the embedded simulator"},
      {"zervaSimLuns", "N: LUNs of the embedded simulator"},
      {"zervaSimFileSystems", "N: file systems of the embedded simulator"},
      {"zervaSimFeatures", "N: features of the embedded simulator (bits: 1 NFS, 2 SMB, 4 file systems)"},
      {"zervaSimSeed", "N: workload seed of the embedded simulator"},
      {"zervaSimLatency", "[CMD=]MS: answer latency of the embedded simulator, per command or for all (repeatable)"},
      {"zervaRole", "master|agentx: standalone agent or AgentX sub-agent"},
  };
  return tokens;
}

bool ApplyAgentToken(const std::string& token, const std::string& rawValue, AgentOptions* o, std::string* error) {
  const std::string value = Trim(rawValue);
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
  if (token == "zervaBackendTimeout") return NumberToken(value, 1, 3600000, &o->backendTimeoutMs, error);
  if (token == "zervaSnapshotSeconds") return NumberToken(value, 0, 86400, &o->snapshotSeconds, error);
  if (token == "zervaWalkSeconds") return NumberToken(value, 0, 86400, &o->walkSeconds, error);
  if (token == "zervaWaitMilliseconds") return NumberToken(value, 1, 60000, &o->waitMs, error);
  if (token == "zervaMaxAgeSeconds") return NumberToken(value, 0, 86400, &o->maxAgeSeconds, error);
  if (token == "zervaBatchRows") return NumberToken(value, 1, 10000, &o->batchRows, error);
  if (token == "zervaLogLevel") {
    if (VEMParseLogLevel(value, &o->logLevel)) return true;
    *error = "'" + value + "' is not one of trace, debug, warn, error, off";
    return false;
  }
  if (token == "zervaKitLogLevel") {
    std::istringstream words(value);
    std::string kitText;
    std::string levelText;
    std::string extra;
    words >> kitText >> levelText >> extra;
    if (levelText.empty() || !extra.empty()) {
      *error = "'" + value + "' is not KIT LEVEL (a kit number and one of trace, debug, warn, error, off)";
      return false;
    }
    unsigned int kit = 0;
    EVEMLogLevel level = VEM_LOG_WARN;
    // The error names the whole value, then the word that is wrong.
    if (!NumberToken(kitText, 0, kMaxKitNumber, &kit, error)) {
      *error = "'" + value + "': kit " + *error;
      return false;
    }
    if (!VEMParseLogLevel(levelText, &level)) {
      *error = "'" + value + "': '" + levelText + "' is not one of trace, debug, warn, error, off";
      return false;
    }
    o->kitLogLevels[kit] = level;
    return true;
  }
  if (token == "zervaLogFoldSeconds") return NumberToken(value, 0, 86400, &o->logFoldSeconds, error);
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
  if (token == "zervaSimLuns") return NumberToken(value, 0, 1000000, &o->simLuns, error);
  if (token == "zervaSimFileSystems") return NumberToken(value, 0, 1000000, &o->simFileSystems, error);
  if (token == "zervaSimFeatures") return NumberToken(value, 0, 7, &o->simFeatures, error);
  if (token == "zervaSimSeed") return NumberToken(value, 0, UINT64_MAX, &o->simSeed, error);
  if (token == "zervaSimLatency") {
    // The command names are the device configuration's: checked when the
    // simulator starts.
    if (value.empty()) {
      *error = "a latency is [COMMAND=]MS";
      return false;
    }
    o->simLatencies.push_back(value);
    return true;
  }
  *error = "unknown token '" + token + "'";
  return false;
}

bool ScanRole(const std::string& path, bool* agentx, std::string* error) {
  std::string text;
  if (!VEMReadTextFile(path, &text, error)) return false;
  const VEMLineVisitor role = [agentx](const std::string& line, std::string* why) {
    std::istringstream words(line);
    std::string token;
    words >> token;
    if (token != "zervaRole") return true;
    std::string rest;
    std::getline(words, rest);
    AgentOptions scratch;
    if (!ApplyAgentToken(token, rest, &scratch, why)) {
      *why = "zervaRole: " + *why;
      return false;
    }
    *agentx = scratch.agentx;
    return true;
  };
  if (VEMForEachLine(text, role, error)) return true;
  *error = path + ": " + *error;
  return false;
}

bool ParseCommandLine(int argc, const char* const* argv, CommandLine* out, std::string* error) {
  // Codes of the long options, in the order of syntax.longOptions.
  enum {
    kOptListen = VEM_LONG_OPTION_BASE,
    kOptStateDir,
    kOptCreateUser,
    kOptAuthProtocol,
    kOptPrivProtocol,
    kOptReadWrite,
    kOptPidFile,
    kOptCheckConfig
  };
  VEMCommandLineSyntax syntax;
  syntax.shortOptions = "c:fLx:p:u:g:h";
  syntax.longOptions =
      "listen:,state-dir:,create-user:,auth-protocol:,priv-protocol:,read-write,pid-file:,check-config";
  syntax.valuePrefix = "option ";
  // Where each option's value goes; the options without a value set a flag.
  const std::map<int, std::string*> texts = {{'c', &out->configFile},
                                             {'x', &out->agentxSocket},
                                             {kOptListen, &out->listen},
                                             {kOptStateDir, &out->stateDir},
                                             {kOptCreateUser, &out->createUser},
                                             {kOptAuthProtocol, &out->authProtocol},
                                             {kOptPrivProtocol, &out->privProtocol},
                                             {'p', &out->pidFile},
                                             {kOptPidFile, &out->pidFile},
                                             {'u', &out->user},
                                             {'g', &out->group}};
  const std::map<int, bool*> flags = {{'f', &out->foreground},
                                      {'L', &out->logToStderr},
                                      {kOptReadWrite, &out->readWrite},
                                      {kOptCheckConfig, &out->checkConfig}};
  // The first option given that only --create-user takes.
  std::string userOption;
  const std::map<int, const char*> userOptions = {
      {kOptAuthProtocol, "--auth-protocol"}, {kOptPrivProtocol, "--priv-protocol"}, {kOptReadWrite, "--read-write"}};
  const VEMOptionHandler apply = [&texts, &flags, &userOptions, &userOption](int code, const std::string& value,
                                                                             std::string*) {
    if (userOptions.count(code) != 0 && userOption.empty()) userOption = userOptions.at(code);
    if (texts.count(code) != 0) {
      *texts.at(code) = value;
    } else {
      *flags.at(code) = true;
    }
    return true;
  };
  if (!VEMParseOptions(argc, argv, syntax, apply, nullptr, &out->help, &out->version, error)) return false;
  if (!userOption.empty() && out->createUser.empty() && !out->help && !out->version) {
    *error = "option " + userOption + " goes with --create-user";
    return false;
  }
  return true;
}

std::string Usage(const std::string& program) {
  std::ostringstream os;
  os << "usage: " << program << " [-c FILE] [-f] [-L] [-x SOCKET] [--listen ADDRS] [--state-dir DIR]\n"
     << "           [-p FILE] [-u USER] [-g GROUP] [-h] [--version]\n"
     << "       " << program << " --check-config [-c FILE] [-x SOCKET] [--listen ADDRS] [--state-dir DIR]\n"
     << "       " << program << " --create-user NAME [--auth-protocol SHA|SHA-224|SHA-256|SHA-384|SHA-512]\n"
     << "           [--priv-protocol AES|DES] [--read-write] [--state-dir DIR]\n"
     << "  -c FILE          configuration in snmpd.conf syntax (communities, users, agentaddress,\n"
     << "                   and the zerva* tokens below); without it: rocommunity public from\n"
     << "                   127.0.0.1 only, no write access\n"
     << "  -f               stay in the foreground (log to stderr); without it the agent goes to\n"
     << "                   the background and logs to syslog (daemon facility)\n"
     << "  -L               log to stderr (overrides zervaLogFile and zervaSyslog)\n"
     << "  -p, --pid-file FILE  write the serving process's pid to FILE, removed at exit\n"
     << "  -u USER          after binding, run as USER (name or number; as agentuser)\n"
     << "  -g GROUP         after binding, run as GROUP (name or number; as agentgroup)\n"
     << "  --check-config   read and check the configuration as a start would, bind nothing;\n"
     << "                   print each problem as FILE: line N: ..., exit 0 (good) or 1\n"
     << "  -x SOCKET        run as an AgentX sub-agent of the master at SOCKET\n"
     << "  --listen ADDRS   listening addresses, overrides agentaddress (default udp:127.0.0.1:1161);\n"
     << "                   one other hosts reach is refused while the configuration holds a\n"
     << "                   community or passphrase that ships with zerva-snmp-agent\n"
     << "  --state-dir DIR  the agent's state: engineID, boot count, the users of --create-user;\n"
     << "                   one agent at a time uses it (a lock file)\n"
     << "                   (default: a private temporary directory; with --create-user: " << kDefaultStateDir << ")\n"
     << "  --create-user NAME  create an SNMPv3 user (authPriv, read-only unless --read-write) in\n"
     << "                   the state directory and exit; the passphrases (8 or more characters,\n"
     << "                   authentication then privacy) are read from standard input, one a line,\n"
     << "                   or asked on a terminal. Only keys are stored. The agent takes the user\n"
     << "                   up at its next start or on SIGHUP\n"
     << "  --auth-protocol P  the user's authentication: SHA (default), SHA-224, SHA-256, SHA-384, SHA-512\n"
     << "  --priv-protocol P  the user's privacy: AES (default, AES-128) or DES\n"
     << "  --read-write     the user may write (rwuser); default read-only (rouser)\n"
     << "  -h, --help       this text\n"
     << "  --version        the program's version\n"
     << "signals: SIGHUP re-reads the configuration (checked first), SIGINT, SIGTERM, SIGQUIT stop\n"
     << "configuration tokens:\n";
  for (const AgentToken& t : AgentTokens()) os << "  " << t.name << " " << t.help << "\n";
  return os.str();
}

}  // namespace zerva_agent
