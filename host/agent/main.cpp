// zerva-snmp-agent: the host agent program. Loads the service module, serves
// it over SNMP v1/v2c/v3 as a standalone agent (default udp:127.0.0.1:1161)
// or as an AgentX sub-agent, against the embedded simulated array or a real
// back end. Usage: zerva-snmp-agent --help; version: --version.

#include <dirent.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "host/agent/agent_log.h"
#include "host/agent/agent_options.h"
#include "host/agent/agent_runtime.h"
#include "host/agent/listen_safety.h"
#include "host/agent/netsnmp_bridge.h"
#include "host/agent/v3_users.h"
#include "vempub/vem_command_line.h"
#include "zerva_version.h"

// Net-SNMP's headers define short macros (ACTION, FREE, ...): they come last.
// clang-format off
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>
// clang-format on

extern "C" void init_vacm_conf(void);

namespace {

const char kAppType[] = "zerva-snmp-agent";
const char kDefaultListen[] = "udp:127.0.0.1:1161";
// The access of the agent without -c: read-only, from this host only.
const char kDefaultAccess[] = "rocommunity public 127.0.0.1";

volatile sig_atomic_t g_stop = 0;

void OnSignal(int) { g_stop = 1; }

// Wakes the main loop once a second so that a signal is seen promptly, and
// writes the summaries of folded log lines whose window has ended.
void Tick(unsigned int, void*) { zerva_agent::FlushAgentLog(); }

// Removes a private state directory and the files Net-SNMP put into it.
void RemoveTree(const std::string& path) {
  if (DIR* dir = opendir(path.c_str())) {
    while (struct dirent* e = readdir(dir)) {
      const std::string name = e->d_name;
      if (name == "." || name == "..") continue;
      const std::string child = path + "/" + name;
      if (e->d_type == DT_DIR) {
        RemoveTree(child);
      } else {
        unlink(child.c_str());
      }
    }
    closedir(dir);
  }
  rmdir(path.c_str());
}

int Fail(const std::string& text) {
  fprintf(stderr, "zerva-snmp-agent: %s\n", text.c_str());
  return 1;
}

// --create-user: reads the passphrases and adds the user to the state
// directory.
int CreateUser(const zerva_agent::CommandLine& cmd) {
  zerva_agent::NewUser user;
  user.name = cmd.createUser;
  user.authProtocol = cmd.authProtocol;
  user.privProtocol = cmd.privProtocol;
  user.readWrite = cmd.readWrite;
  const std::string stateDir = cmd.stateDir.empty() ? zerva_agent::kDefaultStateDir : cmd.stateDir;
  std::string error;
  if (!zerva_agent::CheckNewUser(user, &error) ||
      !zerva_agent::ReadPassphrases(stdin, stderr, &user.authPassphrase, &user.privPassphrase, &error) ||
      !zerva_agent::CheckPassphrase("authentication", user.authPassphrase, &error) ||
      !zerva_agent::CheckPassphrase("privacy", user.privPassphrase, &error) ||
      !zerva_agent::CreateUser(stateDir, user, &error)) {
    return Fail(error);
  }
  printf("user %s (%s, %s, %s) created in %s; the agent takes it up at its next start or on SIGHUP\n",
         user.name.c_str(), user.authProtocol.c_str(), user.privProtocol.c_str(),
         user.readWrite ? "read-write" : "read-only", zerva_agent::UsersFile(stateDir).c_str());
  return 0;
}

// Refuses to listen where other hosts reach the agent while its
// configuration holds a community or passphrase that ships with it: one line
// for each of them. True when the agent may listen on `addresses`.
bool SafeToListen(const std::string& configFile, const std::string& addresses) {
  std::vector<std::string> problems;
  const bool safe = zerva_agent::SafeToListen(configFile, kDefaultAccess, addresses, &problems);
  for (const std::string& line : problems) fprintf(stderr, "zerva-snmp-agent: %s\n", line.c_str());
  return safe;
}

}  // namespace

int main(int argc, char** argv) {
  zerva_agent::CommandLine cmd;
  std::string error;
  const bool parsed = zerva_agent::ParseCommandLine(argc, argv, &cmd, &error);
  const VEMProgramTexts texts = {kAppType, zerva_agent::Usage(argv[0]), std::string(kAppType) + " " + ZERVA_VERSION};
  int status = 0;
  if (VEMAnswerCommandLine(parsed, error, cmd.help, cmd.version, texts, &status)) return status;
  if (!cmd.createUser.empty()) return CreateUser(cmd);

  bool agentx = !cmd.agentxSocket.empty();
  if (!cmd.configFile.empty()) {
    if (access(cmd.configFile.c_str(), R_OK) != 0) return Fail(cmd.configFile + ": cannot be read");
    if (!zerva_agent::ScanRole(cmd.configFile, &agentx, &error)) return Fail(error);
    if (!cmd.agentxSocket.empty()) agentx = true;
  }

  // Early logging on stderr; the configuration may choose another place.
  zerva_agent::AgentOptions options;
  zerva_agent::ConfigureLogging(options, true, &error);

  // Net-SNMP reads only our file, then the engineID and users kept in the
  // state directory (--state-dir, else a private one), and loads no MIB
  // files (the agent needs none).
  std::string netSnmpFiles;
  if (!cmd.stateDir.empty()) zerva_agent::EnsureUsersFile(cmd.stateDir);
  if (!zerva_agent::NetSnmpConfigFiles(cmd.configFile, cmd.stateDir, &netSnmpFiles, &error)) return Fail(error);
  std::string stateDir = cmd.stateDir;
  bool ownStateDir = false;
  if (stateDir.empty()) {
    char dir[] = "/tmp/zerva-snmp-agent.XXXXXX";
    if (mkdtemp(dir) == nullptr) return Fail("cannot create a state directory");
    stateDir = dir;
    ownStateDir = true;
  }
  setenv("MIBS", "", 1);
  netsnmp_ds_set_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_PERSISTENT_DIR, stateDir.c_str());
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
  if (!netSnmpFiles.empty()) {
    netsnmp_ds_set_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_OPTIONALCONFIG, netSnmpFiles.c_str());
  }
  netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE, agentx ? 1 : 0);
  if (!cmd.agentxSocket.empty()) {
    netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_X_SOCKET, cmd.agentxSocket.c_str());
  }
  zerva_agent::RouteNetSnmpLog();
  std::vector<std::string> problems;
  zerva_agent::SetNetSnmpLogCapture(&problems);

  add_to_init_list(const_cast<char*>("-smux"));
  init_agent(kAppType);
  if (agentx) {
    // Reconnect to a master that restarts (may be changed by agentxPingInterval).
    netsnmp_ds_set_int(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_AGENTX_PING_INTERVAL, 5);
  } else {
    init_vacm_conf();
  }
  std::vector<std::string> tokenErrors;
  zerva_agent::RegisterAgentTokens(kAppType, &options, &tokenErrors);
  if (cmd.configFile.empty()) netsnmp_config_remember(const_cast<char*>(kDefaultAccess));
  init_snmp(kAppType);
  // The engineID is kept at once: users created meanwhile are localized to it.
  snmp_store(kAppType);
  zerva_agent::SetNetSnmpLogCapture(nullptr);

  int rc = 0;
  std::string where;
  if (!tokenErrors.empty() || !problems.empty()) {
    for (const std::string& p : problems) fprintf(stderr, "zerva-snmp-agent: %s\n", p.c_str());
    rc = Fail("the configuration has errors");
  } else if (!zerva_agent::ConfigureLogging(options, cmd.logToStderr, &error)) {
    rc = Fail(error);
  } else if (!agentx) {
    if (!cmd.listen.empty()) {
      netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_PORTS, cmd.listen.c_str());
    } else if (netsnmp_ds_get_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_PORTS) == nullptr) {
      netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_PORTS, kDefaultListen);
    }
    where = netsnmp_ds_get_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_PORTS);
    if (!SafeToListen(cmd.configFile, where)) {
      rc = 1;
    } else if (init_master_agent() != 0) {
      rc = Fail("cannot listen on " + where);
    }
  } else {
    const char* socket = netsnmp_ds_get_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_X_SOCKET);
    where = std::string("the AgentX master at ") + (socket != nullptr ? socket : "the default socket");
  }

  if (rc == 0 && !cmd.foreground && netsnmp_daemonize(1, cmd.logToStderr ? 1 : 0) != 0) {
    rc = Fail("cannot run in the background");
  }

  zerva_agent::AgentRuntime runtime;
  if (rc == 0 && !runtime.start(options, where, &error)) rc = Fail(error);

  if (rc == 0) {
    struct sigaction sa = {};
    sa.sa_handler = OnSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
    snmp_alarm_register(1, SA_REPEAT, Tick, nullptr);
    while (!g_stop) agent_check_and_process(1);
    VEMLog(VEM_KIT_AGENT, VEM_LOG_WARN, "main", __LINE__, "stopping on signal");
  }

  runtime.stop();
  zerva_agent::UnregisterAgentTokens(kAppType);
  snmp_shutdown(kAppType);
  zerva_agent::CloseAgentLog();  // folded lines still counted are written
  if (ownStateDir) RemoveTree(stateDir);
  return rc;
}
