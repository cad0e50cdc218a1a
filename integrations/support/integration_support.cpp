#include "integrations/support/integration_support.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <thread>

extern char** environ;

namespace zerva_integrations {

using zerva_agent::MibIndexEncoding;
using zerva_agent::MibObject;
using zerva_test::Oid;

std::string IntegrationsDir() { return ZERVA_INTEGRATIONS_SOURCE_DIR; }

int FreeTcpPort() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return 0;
  sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  int port = 0;
  if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0) {
    port = ntohs(a.sin_port);
  }
  close(fd);
  return port;
}

HttpResponse HttpGet(int port, const std::string& path, int timeoutMs) {
  HttpResponse r;
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return r.error = std::string("socket: ") + strerror(errno), r;
  timeval tv = {timeoutMs / 1000, (timeoutMs % 1000) * 1000};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
  sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a.sin_port = htons(static_cast<uint16_t>(port));
  if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
    r.error = std::string("connect: ") + strerror(errno);
    close(fd);
    return r;
  }
  const std::string request = "GET " + path + " HTTP/1.0\r\nHost: 127.0.0.1:" + std::to_string(port) + "\r\n\r\n";
  if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size())) {
    r.error = std::string("send: ") + strerror(errno);
    close(fd);
    return r;
  }
  std::string answer;
  char buf[16384];
  for (;;) {
    const ssize_t n = recv(fd, buf, sizeof buf, 0);
    if (n > 0) {
      answer.append(buf, static_cast<size_t>(n));
    } else if (n == 0) {
      break;
    } else {
      r.error = std::string("recv: ") + strerror(errno);
      close(fd);
      return r;
    }
  }
  close(fd);
  // "HTTP/1.x CODE reason", headers, an empty line, the body.
  const size_t headerEnd = answer.find("\r\n\r\n");
  if (answer.compare(0, 5, "HTTP/") != 0 || headerEnd == std::string::npos) {
    r.error = "not an HTTP answer: " + answer.substr(0, 200);
    return r;
  }
  const size_t space = answer.find(' ');
  r.status = atoi(answer.c_str() + space + 1);
  r.body = answer.substr(headerEnd + 4);
  return r;
}

bool WaitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit, std::chrono::milliseconds every) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    if (done()) return true;
    if (std::chrono::steady_clock::now() >= deadline) return done();
    std::this_thread::sleep_for(every);
  }
}

std::string ReplaceOnce(const std::string& text, const std::string& from, const std::string& to, int* count) {
  *count = 0;
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + from.size())) ++*count;
  if (*count != 1) return text;
  std::string out = text;
  out.replace(out.find(from), from.size(), to);
  return out;
}

std::string TextOf(const zerva_test::Value& value) {
  std::string text;
  for (size_t i = 0; i + 1 < value.value.size(); i += 2) {
    text += static_cast<char>(std::stoi(value.value.substr(i, 2), nullptr, 16));
  }
  return text;
}

std::string CellOf(const zerva_test::TableTruth& truth, unsigned int column, const Oid& rowIndex, bool* found) {
  const auto it = truth.instances.find(zerva_test::InstanceOid(truth.prefix, column, rowIndex));
  if (found != nullptr) *found = it != truth.instances.end();
  if (it == truth.instances.end()) return "";
  return it->second.type == "OCTETS" ? TextOf(it->second) : it->second.value;
}

std::string MapDiff(const std::map<std::string, std::string>& expected,
                    const std::map<std::string, std::string>& actual, size_t max) {
  std::ostringstream out;
  size_t n = 0;
  auto line = [&](const std::string& text) {
    if (n++ < max) out << text << "\n";
  };
  for (const auto& e : expected) {
    const auto a = actual.find(e.first);
    if (a == actual.end()) {
      line("missing: " + e.first + " (expected " + e.second + ")");
    } else if (a->second != e.second) {
      line("differs: " + e.first + ": expected " + e.second + ", got " + a->second);
    }
  }
  for (const auto& a : actual) {
    if (expected.count(a.first) == 0) line("unexpected: " + a.first + " = " + a.second);
  }
  if (n > max) out << "... " << (n - max) << " more\n";
  return out.str();
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    out.push_back(line);
  }
  return out;
}

std::string WholeNumber(const std::string& text) {
  char* end = nullptr;
  errno = 0;
  const double v = strtod(text.c_str(), &end);
  if (errno != 0 || end == text.c_str() || *end != '\0' || !std::isfinite(v) || v != std::floor(v) ||
      std::fabs(v) > 9.0e15) {
    return text;
  }
  return std::to_string(static_cast<long long>(v));
}

std::string RunProgram(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                       const std::string& dir, int limitSeconds, int* rc) {
  *rc = -1;
  // Everything the child uses is made before fork(): the test process may
  // run threads (the in-process simulator's).
  std::vector<std::string> envText;
  for (char** e = environ; *e != nullptr; ++e) envText.push_back(*e);
  envText.insert(envText.end(), env.begin(), env.end());
  std::vector<char*> args, envp;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  for (const std::string& e : envText) envp.push_back(const_cast<char*>(e.c_str()));
  envp.push_back(nullptr);
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return std::string("pipe: ") + strerror(errno);
  const pid_t pid = fork();
  if (pid < 0) {
    close(fds[0]);
    close(fds[1]);
    return std::string("fork: ") + strerror(errno);
  }
  if (pid == 0) {
    dup2(fds[1], 1);
    dup2(fds[1], 2);
    if (!dir.empty() && chdir(dir.c_str()) != 0) _exit(126);
    execve(args[0], args.data(), envp.data());
    _exit(127);
  }
  close(fds[1]);
  std::string out;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(limitSeconds);
  bool killed = false;
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
    if (left <= 0) {
      kill(pid, SIGKILL);
      killed = true;
      break;
    }
    pollfd p = {fds[0], POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(left)) <= 0) continue;
    char buf[8192];
    const ssize_t n = read(fds[0], buf, sizeof buf);
    if (n <= 0) break;
    out.append(buf, static_cast<size_t>(n));
  }
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (killed) {
    out += "\n(killed after " + std::to_string(limitSeconds) + " s)";
  } else if (WIFEXITED(status)) {
    *rc = WEXITSTATUS(status);
  }
  return out;
}

}  // namespace zerva_integrations
