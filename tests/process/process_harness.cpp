#include "tests/process/process_harness.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <thread>

namespace zerva_test {

const char kSubtree[] = ".1.3.6.1.4.1.32473.4.1.21";
const char kSwitch[] = ".1.3.6.1.4.1.32473.4.1.21.1.0";

Oid ParseOid(const std::string& dotted) {
  Oid out;
  std::istringstream in(dotted);
  std::string arc;
  while (std::getline(in, arc, '.')) {
    if (!arc.empty()) out.push_back(std::stoul(arc));
  }
  return out;
}

std::string OidText(const Oid& oid) {
  std::string out;
  for (unsigned long arc : oid) out += "." + std::to_string(arc);
  return out;
}

bool Under(const Oid& oid, const Oid& prefix) {
  return oid.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), oid.begin());
}

Oid Subtree() { return ParseOid(kSubtree); }

Oid SwitchOid() { return ParseOid(kSwitch); }

Oid StringIndex(const std::string& text) {
  Oid out{text.size()};
  for (unsigned char c : text) out.push_back(c);
  return out;
}

Oid ColumnOid(const Oid& table, unsigned long column) {
  Oid out = table;
  out.push_back(1);
  out.push_back(column);
  return out;
}

Oid InstanceOid(const Oid& table, unsigned long column, const Oid& index) {
  Oid out = ColumnOid(table, column);
  out.insert(out.end(), index.begin(), index.end());
  return out;
}

int FreeUdpPort() {
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
  socklen_t len = sizeof a;
  getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
  close(fd);
  return ntohs(a.sin_port);
}

Process::Process(const std::vector<std::string>& argv, const std::string& output) {
  // Everything the child needs is made before fork(): the test process runs
  // threads (the simulator's), so the child may only call async-signal-safe
  // functions. An allocation there can wait forever for a lock another
  // thread held at the fork.
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  const int out = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  pid_ = fork();
  if (pid_ == 0) {
    if (out >= 0) {
      dup2(out, 1);
      dup2(out, 2);
    }
    execv(args[0], args.data());
    _exit(127);
  }
  if (out >= 0) close(out);
}

Process::~Process() { stop(); }

bool Process::running() {
  if (pid_ <= 0) return false;
  int status = 0;
  if (waitpid(pid_, &status, WNOHANG) == pid_) {
    pid_ = -1;
    return false;
  }
  return true;
}

int Process::wait() {
  for (int i = 0; i < 100 && pid_ > 0; ++i) {
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return -1;
}

int Process::stop() {
  if (pid_ <= 0) return -1;
  ::kill(pid_, SIGTERM);
  const int rc = wait();
  if (rc == -1 && pid_ > 0) kill(SIGKILL);
  return rc;
}

void Process::kill(int signal) {
  if (pid_ <= 0) return;
  ::kill(pid_, signal);
  waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

std::string RunShell(const std::string& command, int* rc) {
  std::string out;
  FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  if (pipe == nullptr) return out;
  char buf[4096];
  size_t n = 0;
  while ((n = fread(buf, 1, sizeof buf, pipe)) > 0) out.append(buf, n);
  const int status = pclose(pipe);
  if (rc != nullptr) *rc = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return out;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

std::vector<std::string> LinesWith(const std::string& text, const std::string& part) {
  std::vector<std::string> out;
  size_t begin = 0;
  while (begin < text.size()) {
    size_t end = text.find('\n', begin);
    if (end == std::string::npos) end = text.size();
    if (text.find(part, begin) < end) out.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return out;
}

std::vector<std::string> Shape(const std::string& walk) {
  std::vector<std::string> out;
  std::istringstream in(walk);
  std::string line;
  while (std::getline(in, line)) {
    // The standalone agent serves nothing after the subtree; snmpd does.
    if (line.find("No more variables left") != std::string::npos) continue;
    const size_t colon = line.find(':');
    out.push_back(colon == std::string::npos ? line : line.substr(0, colon));
  }
  return out;
}

Snmp::Snmp(const std::string& stateDir, int port) : port_(port) {
  env_ = "MIBS= SNMP_PERSISTENT_DIR='" + stateDir + "' SNMPCONFPATH='" + stateDir + "' ";
}

std::string Snmp::tool(const std::string& program, const std::string& auth, const std::string& args, int* rc) const {
  return RunShell(env_ + program + " -On -t 2 -r 1 " + auth + " 127.0.0.1:" + std::to_string(port_) + " " + args, rc);
}

std::string Snmp::get(const std::string& oid, const std::string& auth) const { return tool("snmpget", auth, oid); }

std::string Snmp::walk(const std::string& auth) const { return tool("snmpwalk", auth, kSubtree); }

bool Snmp::ready(const std::string& auth) const {
  // An agent under a sanitizer on a loaded machine may take several seconds
  // to load its module and bind; a healthy one answers the first probe.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
  do {
    if (RunShell(env_ + "snmpget -On -t 0.2 -r 0 " + auth + " 127.0.0.1:" + std::to_string(port_) + " " + kSwitch)
            .find("Gauge32") != std::string::npos) {
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  } while (std::chrono::steady_clock::now() < deadline);
  return false;
}

}  // namespace zerva_test
