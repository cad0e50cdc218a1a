// zerva-snmp-agent: the host agent program. Loads the service module, serves
// it over SNMP v1/v2c/v3 as a standalone agent (default udp:127.0.0.1:1161)
// or as an AgentX sub-agent, against the embedded simulated array or a real
// back end. Usage: zerva-snmp-agent --help; version: --version.

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <netdb.h>
#include <pwd.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "host/agent/agent_log.h"
#include "host/agent/agent_options.h"
#include "host/agent/agent_runtime.h"
#include "host/agent/config_reload.h"
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

extern "C" {
void init_vacm_conf(void);
void update_config(void);
// Net-SNMP's own MIB modules (libnetsnmpmibs) for the groups every SNMP
// device serves.
void init_system_mib(void);
void init_sysORTable(void);
void init_snmp_mib(void);
void init_setSerialNo(void);
void init_snmpEngine(void);
void init_snmpMPDStats(void);
void init_usmStats(void);
void init_usmUser(void);
void init_vacm_vars(void);
void init_vacm_context(void);
}

namespace {

const char kAppType[] = "zerva-snmp-agent";
const char kDefaultListen[] = "udp:127.0.0.1:1161";
// The access of the agent without -c: read-only, from this host only.
const char kDefaultAccess[] = "rocommunity public 127.0.0.1";
// sysObjectID.0: VEM-PERFORMANCE-MIB::vemSnmpAgentProduct, this product.
const char kProductOid[] = ".1.3.6.1.4.1.32473.4.2.1";
// The lock file that keeps a second agent off a state directory.
const char kLockFile[] = "zerva-snmp-agent.lock";
// How long a SIGHUP waits for the check of the new configuration.
const std::chrono::seconds kCheckLimit(10);

volatile sig_atomic_t g_stop = 0;
volatile sig_atomic_t g_hangup = 0;

void OnSignal(int) { g_stop = 1; }
void OnHangup(int) { g_hangup = 1; }

// SIGINT, SIGTERM and SIGQUIT stop the agent (through the normal exit, which
// removes what it made); SIGHUP re-reads the configuration. Installed
// before anything is made, so that no signal ends the process without that.
void InstallSignals() {
  struct sigaction sa = {};
  sa.sa_handler = OnSignal;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
  sigaction(SIGQUIT, &sa, nullptr);
  sa.sa_handler = OnHangup;
  sigaction(SIGHUP, &sa, nullptr);
  signal(SIGPIPE, SIG_IGN);
}

// Wakes the main loop once a second so that a signal is seen promptly, and
// writes the summaries of folded log lines whose window has ended.
void Tick(unsigned int, void*) { zerva_agent::FlushAgentLog(); }

// Calls visit(child path, is a directory) for each entry of the directory
// at path but "." and "..".
template <typename Visit>
void ForEachEntry(const std::string& path, Visit visit) {
  DIR* dir = opendir(path.c_str());
  if (dir == nullptr) return;
  while (struct dirent* e = readdir(dir)) {
    const std::string name = e->d_name;
    if (name == "." || name == "..") continue;
    visit(path + "/" + name, e->d_type == DT_DIR);
  }
  closedir(dir);
}

// Removes a private state directory and the files Net-SNMP put into it.
void RemoveTree(const std::string& path) {
  ForEachEntry(path, [](const std::string& child, bool isDir) {
    if (isDir) {
      RemoveTree(child);
    } else {
      unlink(child.c_str());
    }
  });
  rmdir(path.c_str());
}

// Gives a private state directory and its files to the user the agent
// becomes. A file that cannot be given stays as it is: the agent then cannot
// keep it, and goes on.
void ChownTree(const std::string& path, uid_t uid, gid_t gid) {
  if (chown(path.c_str(), uid, gid) != 0) return;
  ForEachEntry(path, [uid, gid](const std::string& child, bool isDir) {
    if (isDir) {
      ChownTree(child, uid, gid);
    } else if (chown(child.c_str(), uid, gid) != 0) {
      // Kept as it is (see above).
    }
  });
}

// A temporary state directory of the agent's own (in TMPDIR, else /tmp),
// removed whichever way the agent ends: the process that made it (the one
// that serves, in the background too) removes it.
class TempStateDir {
 public:
  TempStateDir() = default;
  ~TempStateDir() {
    if (!path_.empty() && getpid() == owner_) RemoveTree(path_);
  }
  TempStateDir(const TempStateDir&) = delete;
  TempStateDir& operator=(const TempStateDir&) = delete;

  bool make() {
    const char* tmp = getenv("TMPDIR");
    std::string dir = (tmp != nullptr && *tmp != '\0') ? tmp : "/tmp";
    std::string name = dir + "/zerva-snmp-agent.XXXXXX";
    std::vector<char> buffer(name.begin(), name.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) == nullptr) return false;
    path_ = buffer.data();
    owner_ = getpid();
    return true;
  }
  // After going to the background: the serving process removes it.
  void adopt() { owner_ = getpid(); }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
  pid_t owner_ = 0;
};

// The lock that keeps one agent on a state directory: an flock on a file
// in it, held for the agent's life (its descriptor goes to the background
// process), holding the pid of the agent.
class StateLock {
 public:
  StateLock() = default;
  ~StateLock() {
    if (fd_ >= 0) close(fd_);
  }
  StateLock(const StateLock&) = delete;
  StateLock& operator=(const StateLock&) = delete;

  bool take(const std::string& dir, std::string* error) {
    const std::string path = dir + "/" + kLockFile;
    fd_ = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd_ < 0) {
      *error = "cannot open " + path + ": " + strerror(errno);
      return false;
    }
    if (flock(fd_, LOCK_EX | LOCK_NB) != 0) {
      char text[32] = {};
      const ssize_t n = pread(fd_, text, sizeof text - 1, 0);
      const long pid = n > 0 ? strtol(text, nullptr, 10) : 0;
      *error = "another zerva-snmp-agent (pid " + (pid > 0 ? std::to_string(pid) : std::string("unknown")) +
               ") is using the state directory " + dir;
      close(fd_);
      fd_ = -1;
      return false;
    }
    writePid();
    return true;
  }
  // The pid of the process that serves (after going to the background).
  void writePid() {
    if (fd_ < 0) return;
    const std::string text = std::to_string(getpid()) + "\n";
    if (ftruncate(fd_, 0) != 0 || pwrite(fd_, text.data(), text.size(), 0) < 0) {
      // The lock holds without the pid; a second agent then says "unknown".
    }
  }

 private:
  int fd_ = -1;
};

// -p FILE: the pid of the serving process, removed at its exit.
class PidFile {
 public:
  PidFile() = default;
  ~PidFile() {
    if (!path_.empty() && getpid() == owner_) unlink(path_.c_str());
  }
  PidFile(const PidFile&) = delete;
  PidFile& operator=(const PidFile&) = delete;

  bool write(const std::string& path, std::string* error) {
    const std::string text = std::to_string(getpid()) + "\n";
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0 || ::write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
      *error = "cannot write the pid file " + path + ": " + strerror(errno);
      if (fd >= 0) close(fd);
      return false;
    }
    close(fd);
    path_ = path;
    owner_ = getpid();
    return true;
  }

 private:
  std::string path_;
  pid_t owner_ = 0;
};

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

// ---------------------------------------------------------------- the user to run as

// Who the agent becomes after binding: -u/-g, else agentuser/agentgroup.
struct Identity {
  bool changeUser = false;
  bool changeGroup = false;
  uid_t uid = 0;
  gid_t gid = 0;
  std::string userName;   // for its supplementary groups
  std::string userText;   // as given, for messages
  std::string groupText;  // as given, for messages
};

bool AllDigits(const std::string& text) {
  if (text.empty()) return false;
  for (char c : text) {
    if (!isdigit(static_cast<unsigned char>(c))) return false;
  }
  return true;
}

// -u/-g (a name or a number) override the agentuser/agentgroup lines
// Net-SNMP parsed (0: none). A user without a group brings its own group.
bool ResolveIdentity(const zerva_agent::CommandLine& cmd, Identity* id, std::string* error) {
  if (!cmd.user.empty()) {
    id->userText = cmd.user;
    const struct passwd* pw = AllDigits(cmd.user) ? getpwuid(static_cast<uid_t>(strtoul(cmd.user.c_str(), nullptr, 10)))
                                                  : getpwnam(cmd.user.c_str());
    if (pw == nullptr && !AllDigits(cmd.user)) {
      *error = "unknown user " + cmd.user;
      return false;
    }
    id->changeUser = true;
    id->uid = pw != nullptr ? pw->pw_uid : static_cast<uid_t>(strtoul(cmd.user.c_str(), nullptr, 10));
    if (pw != nullptr) {
      id->userName = pw->pw_name;
      id->gid = pw->pw_gid;
      id->changeGroup = true;
      id->groupText = std::to_string(pw->pw_gid);
    }
  } else if (const int uid = netsnmp_ds_get_int(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_USERID); uid > 0) {
    id->changeUser = true;
    id->uid = static_cast<uid_t>(uid);
    id->userText = std::to_string(uid);
    if (const struct passwd* pw = getpwuid(id->uid)) {
      id->userName = pw->pw_name;
      id->userText = pw->pw_name;
    }
  }
  if (!cmd.group.empty()) {
    id->groupText = cmd.group;
    const struct group* gr = AllDigits(cmd.group)
                                 ? getgrgid(static_cast<gid_t>(strtoul(cmd.group.c_str(), nullptr, 10)))
                                 : getgrnam(cmd.group.c_str());
    if (gr == nullptr && !AllDigits(cmd.group)) {
      *error = "unknown group " + cmd.group;
      return false;
    }
    id->changeGroup = true;
    id->gid = gr != nullptr ? gr->gr_gid : static_cast<gid_t>(strtoul(cmd.group.c_str(), nullptr, 10));
  } else if (const int gid = netsnmp_ds_get_int(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_GROUPID); gid > 0) {
    id->changeGroup = true;
    id->gid = static_cast<gid_t>(gid);
    id->groupText = std::to_string(gid);
  }
  return true;
}

// Refuses a change only root can make when the agent is not root.
bool CanBecome(const Identity& id, std::string* error) {
  if (geteuid() == 0) return true;
  if (id.changeUser && id.uid != geteuid()) {
    *error = "cannot run as user " + id.userText + ": only root can change the user (running as uid " +
             std::to_string(geteuid()) + ")";
    return false;
  }
  if (id.changeGroup && id.gid != getegid()) {
    *error = "cannot run as group " + id.groupText + ": only root can change the group (running as gid " +
             std::to_string(getegid()) + ")";
    return false;
  }
  return true;
}

// Becomes the user and group of `id` (root only; nothing to do otherwise).
// The private state directory goes to the new user first.
bool DropPrivileges(const Identity& id, const std::string& ownStateDir, std::string* error) {
  if (!CanBecome(id, error)) return false;
  if (geteuid() != 0 || (!id.changeUser && !id.changeGroup)) return true;
  const uid_t uid = id.changeUser ? id.uid : geteuid();
  const gid_t gid = id.changeGroup ? id.gid : getegid();
  if (!ownStateDir.empty()) ChownTree(ownStateDir, uid, gid);
  const int groups =
      (id.changeUser && !id.userName.empty()) ? initgroups(id.userName.c_str(), gid) : setgroups(1, &gid);
  if (groups != 0 || setgid(gid) != 0) {
    *error = "cannot run as group " + id.groupText + ": " + strerror(errno);
    return false;
  }
  if (id.changeUser && setuid(uid) != 0) {
    *error = "cannot run as user " + id.userText + ": " + strerror(errno);
    return false;
  }
  if (uid != 0 && (setuid(0) == 0 || seteuid(0) == 0)) {
    *error = "running as user " + id.userText + " could still become root again";
    return false;
  }
  VEMLog(VEM_KIT_AGENT, VEM_LOG_WARN, "main", __LINE__, "running as uid %u gid %u", static_cast<unsigned>(getuid()),
         static_cast<unsigned>(getgid()));
  return true;
}

// ---------------------------------------------------------------- listening

// Why an address cannot be listened on: binds it once more to learn the
// reason ("udp:127.0.0.1:1161: address already in use"), for the addresses
// in the forms udp:HOST:PORT, tcp:HOST:PORT, HOST:PORT and PORT.
std::string ListenFailure(const std::string& addresses) {
  size_t start = 0;
  while (start <= addresses.size()) {
    size_t end = addresses.find(',', start);
    if (end == std::string::npos) end = addresses.size();
    const std::string item = addresses.substr(start, end - start);
    start = end + 1;
    std::string rest = item;
    int type = SOCK_DGRAM;
    if (rest.compare(0, 4, "udp:") == 0) {
      rest.erase(0, 4);
    } else if (rest.compare(0, 4, "tcp:") == 0) {
      rest.erase(0, 4);
      type = SOCK_STREAM;
    } else if (rest.find(':') != std::string::npos && !isdigit(static_cast<unsigned char>(rest[0]))) {
      continue;  // another transport: no guess
    }
    const size_t colon = rest.rfind(':');
    const std::string host = colon == std::string::npos ? "0.0.0.0" : rest.substr(0, colon);
    const std::string port = colon == std::string::npos ? rest : rest.substr(colon + 1);
    struct addrinfo hints = {};
    hints.ai_family = AF_INET;
    hints.ai_socktype = type;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    struct addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0 || found == nullptr) continue;
    const int fd = socket(found->ai_family, found->ai_socktype, 0);
    int reason = 0;
    if (fd >= 0) {
      const int on = 1;
      if (type == SOCK_STREAM) setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
      if (bind(fd, found->ai_addr, found->ai_addrlen) != 0) reason = errno;
      close(fd);
    }
    freeaddrinfo(found);
    if (reason != 0) {
      std::string why = strerror(reason);
      if (!why.empty()) why[0] = static_cast<char>(tolower(static_cast<unsigned char>(why[0])));
      return "cannot listen on " + item + ": " + why;
    }
  }
  return "cannot listen on " + addresses;
}

// ---------------------------------------------------------------- the standard groups

// The groups every SNMP device serves, from Net-SNMP's MIB modules as snmpd
// serves them: system (sysDescr, sysObjectID, sysUpTime, sysContact,
// sysName, sysLocation, sysServices, sysORTable), the snmp group and
// snmpSetSerialNo, snmpEngine and the MPD statistics, USM and VACM. Their
// configuration tokens (sysContact, sysName, sysLocation, sysDescr,
// sysObjectID, ...) are Net-SNMP's. sysDescr and sysObjectID name this
// product unless the configuration says otherwise. An AgentX sub-agent
// leaves all of them to its master.
void InitStandardGroups() {
  init_system_mib();
  init_sysORTable();
  init_snmp_mib();
  init_setSerialNo();
  init_snmpEngine();
  init_snmpMPDStats();
  init_usmStats();
  init_usmUser();
  init_vacm_vars();
  init_vacm_context();
  std::string descr = std::string("sysdescr ") + kAppType + " " + ZERVA_VERSION +
                      ": performance statistics of the Zerva storage array (VEM-PERFORMANCE-MIB)";
  netsnmp_config(&descr[0]);
  std::string objectId = std::string("sysobjectid ") + kProductOid;
  netsnmp_config(&objectId[0]);
}

// ---------------------------------------------------------------- the configuration

// The settings a start reads: Net-SNMP's (access, users, agentaddress,
// agentuser) in Net-SNMP, ours here.
struct Configuration {
  zerva_agent::AgentOptions options;  // our tokens as parsed (Net-SNMP writes into it)
  std::vector<std::string> tokenErrors;
  std::vector<std::string> problems;  // what Net-SNMP complained about
  bool agentx = false;
  std::string where;  // the listening addresses, or the AgentX master
};

// Sets Net-SNMP up to read the configuration of `cmd` (and the users of
// the state directory) with persistent state in persistentDir, and reads
// it: our tokens into *config.
bool ReadConfiguration(const zerva_agent::CommandLine& cmd, const std::string& persistentDir, Configuration* config,
                       std::string* error) {
  std::string netSnmpFiles;
  if (!zerva_agent::NetSnmpConfigFiles(cmd.configFile, cmd.stateDir, &netSnmpFiles, error)) return false;
  setenv("MIBS", "", 1);
  netsnmp_ds_set_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_PERSISTENT_DIR, persistentDir.c_str());
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
  if (!netSnmpFiles.empty()) {
    netsnmp_ds_set_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_OPTIONALCONFIG, netSnmpFiles.c_str());
  }
  netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE, config->agentx ? 1 : 0);
  if (!cmd.agentxSocket.empty()) {
    netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_X_SOCKET, cmd.agentxSocket.c_str());
  }
  zerva_agent::RouteNetSnmpLog();
  zerva_agent::SetNetSnmpLogCapture(&config->problems);

  add_to_init_list(const_cast<char*>("-smux"));
  init_agent(kAppType);
  if (config->agentx) {
    // Reconnect to a master that restarts (may be changed by agentxPingInterval).
    netsnmp_ds_set_int(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_AGENTX_PING_INTERVAL, 5);
  } else {
    init_vacm_conf();
    InitStandardGroups();
  }
  zerva_agent::RegisterAgentTokens(kAppType, &config->options, &config->tokenErrors);
  if (cmd.configFile.empty()) netsnmp_config_remember(const_cast<char*>(kDefaultAccess));
  init_snmp(kAppType);
  zerva_agent::SetNetSnmpLogCapture(nullptr);

  if (!config->agentx) {
    if (!cmd.listen.empty()) {
      netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_PORTS, cmd.listen.c_str());
    } else if (netsnmp_ds_get_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_PORTS) == nullptr) {
      netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_PORTS, kDefaultListen);
    }
    config->where = netsnmp_ds_get_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_PORTS);
  } else {
    const char* socket = netsnmp_ds_get_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_X_SOCKET);
    config->where = std::string("the AgentX master at ") + (socket != nullptr ? socket : "the default socket");
  }
  return true;
}

// Every check a start makes of a configuration read, before it binds:
// the errors of the configuration, the log destination, the listening
// addresses against the shipped credentials, the user and group to run as.
// Prints each problem; true when there is none. --check-config is this.
bool CheckConfiguration(const zerva_agent::CommandLine& cmd, const Configuration& config, Identity* id) {
  bool good = true;
  std::string error;
  if (!config.tokenErrors.empty() || !config.problems.empty()) {
    for (const std::string& p : config.problems) fprintf(stderr, "zerva-snmp-agent: %s\n", p.c_str());
    Fail("the configuration has errors");
    good = false;
  }
  zerva_agent::AgentOptions logging = config.options;
  if (cmd.checkConfig) logging.logLevel = VEM_LOG_OFF;
  if (!zerva_agent::ConfigureLogging(logging, cmd.logToStderr, &error)) good = !Fail(error) && good;
  if (!config.agentx && !SafeToListen(cmd.configFile, config.where)) good = false;
  if (!ResolveIdentity(cmd, id, &error) || !CanBecome(*id, &error)) good = !Fail(error) && good;
  return good;
}

// SIGHUP: the configuration checked by the program in a child, then read
// again by Net-SNMP and applied.
void Reload(const zerva_agent::CommandLine& cmd, Configuration* config, zerva_agent::AgentOptions* running,
            zerva_agent::LogHome home) {
  zerva_agent::ConfigReload::Steps steps;
  steps.check = [&cmd] {
    return zerva_agent::RunConfigCheck("/proc/self/exe", zerva_agent::CheckConfigArguments(cmd), kCheckLimit);
  };
  steps.reread = [&cmd, config](zerva_agent::AgentOptions* options, std::vector<std::string>* kept) {
    const char* portsBefore = netsnmp_ds_get_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_PORTS);
    const std::string before = portsBefore != nullptr ? portsBefore : "";
    config->options = zerva_agent::AgentOptions();
    config->tokenErrors.clear();
    if (cmd.configFile.empty()) netsnmp_config_remember(const_cast<char*>(kDefaultAccess));
    update_config();
    *options = config->options;
    const char* portsAfter = netsnmp_ds_get_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_PORTS);
    if (!config->agentx && (portsAfter == nullptr || before != portsAfter)) {
      // The sockets stay; --listen always wins over agentaddress.
      if (cmd.listen.empty()) kept->push_back("agentaddress");
      netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_PORTS, before.c_str());
    }
  };
  steps.applyLog = [&cmd, home](const zerva_agent::AgentOptions& options, std::string* error) {
    return zerva_agent::ConfigureLogging(options, cmd.logToStderr, error, home);
  };
  zerva_agent::ConfigReload reload(cmd.configFile.empty() ? "the built-in default" : cmd.configFile, steps);
  reload.reload(running);
}

// Serves until a signal stops it; SIGHUP reloads.
void Serve(const zerva_agent::CommandLine& cmd, Configuration* config, zerva_agent::AgentOptions* running,
           zerva_agent::LogHome home) {
  snmp_alarm_register(1, SA_REPEAT, Tick, nullptr);
  while (!g_stop) {
    if (g_hangup) {
      g_hangup = 0;
      Reload(cmd, config, running, home);
    }
    agent_check_and_process(1);
  }
  VEMLog(VEM_KIT_AGENT, VEM_LOG_WARN, "main", __LINE__, "stopping on signal");
}

// A path from the directory the agent started in (it goes on in / in the
// background, and a reload reads the same files).
std::string Absolute(const std::string& path) {
  if (path.empty() || path[0] == '/') return path;
  char cwd[4096];
  if (getcwd(cwd, sizeof cwd) == nullptr) return path;
  return std::string(cwd) + "/" + path;
}

// The agent: reads and checks the configuration, binds, goes to the
// background, becomes its user, serves. Everything it made goes at exit.
int Run(zerva_agent::CommandLine cmd) {
  cmd.configFile = Absolute(cmd.configFile);
  cmd.stateDir = Absolute(cmd.stateDir);
  cmd.pidFile = Absolute(cmd.pidFile);
  InstallSignals();
  Configuration config;
  config.agentx = !cmd.agentxSocket.empty();
  std::string error;
  if (!cmd.configFile.empty()) {
    if (access(cmd.configFile.c_str(), R_OK) != 0) return Fail(cmd.configFile + ": cannot be read");
    if (!zerva_agent::ScanRole(cmd.configFile, &config.agentx, &error)) return Fail(error);
    if (!cmd.agentxSocket.empty()) config.agentx = true;
  }

  // Early logging on stderr; the configuration may choose another place. A
  // check prints its problems itself, once each.
  zerva_agent::AgentOptions early;
  if (cmd.checkConfig) early.logLevel = VEM_LOG_OFF;
  zerva_agent::ConfigureLogging(early, true, &error);

  // Net-SNMP reads only our file, then the engineID and users kept in the
  // state directory (--state-dir, else a private one), and loads no MIB
  // files (the agent needs none). A check keeps its state apart: it must
  // not write into the running agent's.
  TempStateDir tempDir;
  StateLock lock;
  const bool ownStateDir = cmd.stateDir.empty() || cmd.checkConfig;
  if (ownStateDir && !tempDir.make()) return Fail("cannot create a state directory");
  if (!ownStateDir) {
    // Like Net-SNMP's persistent directory, a missing state directory is
    // made (its parent must exist); systemd's StateDirectory= makes it too.
    if (mkdir(cmd.stateDir.c_str(), 0750) != 0 && errno != EEXIST) {
      return Fail("cannot create the state directory " + cmd.stateDir + ": " + strerror(errno));
    }
    zerva_agent::EnsureUsersFile(cmd.stateDir);
    if (!lock.take(cmd.stateDir, &error)) return Fail(error);
  }
  const std::string persistentDir = ownStateDir ? tempDir.path() : cmd.stateDir;
  if (!ReadConfiguration(cmd, persistentDir, &config, &error)) return Fail(error);
  // The engineID is kept at once: users created meanwhile are localized to it.
  if (!cmd.checkConfig) snmp_store(kAppType);

  Identity id;
  int rc = CheckConfiguration(cmd, config, &id) ? 0 : 1;
  if (cmd.checkConfig) {
    if (rc == 0) {
      printf("%s: the configuration is good\n",
             cmd.configFile.empty() ? "the built-in default" : cmd.configFile.c_str());
    }
  } else if (rc == 0 && !config.agentx && init_master_agent() != 0) {
    rc = Fail(ListenFailure(config.where));
  }

  zerva_agent::LogHome home = zerva_agent::LogHome::kStderr;
  if (rc == 0 && !cmd.checkConfig && !cmd.foreground) {
    if (netsnmp_daemonize(1, cmd.logToStderr ? 1 : 0) != 0) {
      rc = Fail("cannot run in the background");
    } else {
      // Only the serving process goes on from here.
      tempDir.adopt();
      home = zerva_agent::LogHome::kSyslog;
      if (!zerva_agent::ConfigureLogging(config.options, cmd.logToStderr, &error, home)) rc = Fail(error);
    }
  }

  PidFile pidFile;
  zerva_agent::AgentOptions running = config.options;
  zerva_agent::AgentRuntime runtime;
  if (rc == 0 && !cmd.checkConfig) {
    lock.writePid();
    if (!cmd.pidFile.empty() && !pidFile.write(cmd.pidFile, &error)) {
      rc = Fail(error);
    } else if (!DropPrivileges(id, ownStateDir ? tempDir.path() : "", &error)) {
      rc = Fail(error);
    } else if (!runtime.start(running, config.where, &error)) {
      rc = Fail(error);
    } else {
      // As snmpd does, to the configured trap2sink, trapsink and informsink.
      if (!config.agentx) send_easy_trap(SNMP_TRAP_COLDSTART, 0);
      Serve(cmd, &config, &running, home);
    }
  }

  runtime.stop();
  zerva_agent::UnregisterAgentTokens(kAppType);
  snmp_shutdown(kAppType);
  zerva_agent::CloseAgentLog();  // folded lines still counted are written
  return rc;
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
  return Run(cmd);
}
