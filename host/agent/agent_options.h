// The agent's own settings: the configuration tokens it adds to Net-SNMP's
// snmpd.conf syntax, and its command line.
//
// Net-SNMP parses the configuration file; for each of our tokens it hands
// the value to ApplyAgentToken, which checks it and stores it here.
#ifndef ZERVA_AGENT_AGENT_OPTIONS_H_
#define ZERVA_AGENT_AGENT_OPTIONS_H_

#include <map>
#include <string>
#include <vector>

#include "vempub/vem_debug_kit.h"

namespace zerva_agent {

struct AgentOptions {
  std::string modulePath;                // zervaModule: the service module plug-in
  std::string mibDir;                    // zervaMibDir: where the module's MIB description lies
  std::string backend = "embedded";      // zervaBackend: unix:/path | tcp:host:port | embedded
  unsigned int backendTimeoutMs = 0;     // zervaBackendTimeout: 0 keeps the transport's defaults
  unsigned int snapshotSeconds = 3;      // zervaSnapshotSeconds: 0 reads the back end for every request
  unsigned int walkSeconds = 60;         // zervaWalkSeconds: a walk's snapshot age limit; 0: no extension
  unsigned int waitMs = 300;             // zervaWaitMilliseconds: how long a request waits for the back end
  unsigned int maxAgeSeconds = 180;      // zervaMaxAgeSeconds: the oldest read a late request is answered from
  unsigned int batchRows = 160;          // zervaBatchRows: rows per batch of a batch table
  EVEMLogLevel logLevel = VEM_LOG_WARN;  // zervaLogLevel
  // zervaKitLogLevel KIT LEVEL: levels of single kits, over zervaLogLevel.
  std::map<unsigned int, EVEMLogLevel> kitLogLevels;
  unsigned int logFoldSeconds = 60;  // zervaLogFoldSeconds: window of folded lines (0: no folding)
  std::string logFile;               // zervaLogFile: append log lines to this file
  bool syslog = false;               // zervaSyslog: log to syslog
  std::string deviceConfig;          // zervaDeviceConfig: command codes (XML)
  // zervaSim*: the embedded simulated array.
  std::string simTopology;
  long simLuns = -1;
  long simFileSystems = -1;
  long simFeatures = -1;
  unsigned long long simSeed = 1;
  std::vector<std::string>
      simLatencies;     // zervaSimLatency [CMD=]MS (repeatable): answer latency of the embedded simulator
  bool agentx = false;  // zervaRole agentx: run as an AgentX sub-agent
};

// One configuration token of ours.
struct AgentToken {
  const char* name;
  const char* help;  // "VALUE: what it sets"
};
// Every token ApplyAgentToken knows, in documentation order.
const std::vector<AgentToken>& AgentTokens();

// Checks the value of one of our tokens and stores it in *options. Returns
// false with *error (the reason, without the file position) for an unknown
// token or a bad value.
bool ApplyAgentToken(const std::string& token, const std::string& value, AgentOptions* options, std::string* error);

// Finds the role token (zervaRole) in a configuration file without handing
// it to Net-SNMP, which needs the role before it reads configuration.
// Returns false with *error when the file cannot be read or the value is bad;
// leaves *agentx alone when the file has no such line.
bool ScanRole(const std::string& path, bool* agentx, std::string* error);

// The program's command line.
struct CommandLine {
  std::string configFile;    // -c FILE
  bool foreground = false;   // -f
  bool logToStderr = false;  // -L
  std::string agentxSocket;  // -x SOCKET: run as AgentX sub-agent of that master
  std::string listen;        // --listen ADDRS: overrides agentaddress
  std::string stateDir;      // --state-dir DIR: Net-SNMP's persistent state
  std::string pidFile;       // -p FILE / --pid-file FILE: the serving process's pid
  std::string user;          // -u USER: the user to run as after binding (name or number)
  std::string group;         // -g GROUP: the group to run as after binding (name or number)
  bool checkConfig = false;  // --check-config: check the configuration, bind nothing, exit
  // --create-user NAME: create an SNMPv3 user in the state directory and exit.
  std::string createUser;
  std::string authProtocol = "SHA";  // --auth-protocol SHA|SHA-224|SHA-256|SHA-384|SHA-512
  std::string privProtocol = "AES";  // --priv-protocol AES|DES
  bool readWrite = false;            // --read-write: the user may write
  bool help = false;                 // -h / --help
  bool version = false;              // --version
};

// Parses argv with getopt_long (long options also as --name=VALUE); can be
// called again for another argv. Returns false with *error, naming the
// option, for an unknown option, a missing value, a value given to an option
// that takes none, an argument that is not an option, or an option of
// --create-user (--auth-protocol, --priv-protocol, --read-write) without it.
bool ParseCommandLine(int argc, const char* const* argv, CommandLine* out, std::string* error);

// The usage text.
std::string Usage(const std::string& program);

// The state directory --create-user uses without --state-dir.
const char kDefaultStateDir[] = "/var/lib/zerva";

}  // namespace zerva_agent

#endif  // ZERVA_AGENT_AGENT_OPTIONS_H_
