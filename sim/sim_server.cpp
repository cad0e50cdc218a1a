#include "sim/sim_server.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <list>
#include <mutex>
#include <set>
#include <thread>

#include "sim/answer_writer.h"
#include "sim/array_simulator.h"
#include "snmpcommon/snmp_backend_frame.h"
#include "snmpcommon/snmp_configuration.h"

namespace zerva_sim {

namespace {

// Most connections served at once; further ones are closed at accept.
const size_t kMaxConnections = 256;
// How long one answer may take to leave.
const std::chrono::milliseconds kSendTimeout(5000);

std::string ErrnoText(const std::string& what) { return what + ": " + strerror(errno); }

// Binds and listens on a Unix socket path. A stale socket file (nobody
// accepting on it) is replaced; a live one is an error.
int ListenUnix(const std::string& path, std::string* error) {
  struct sockaddr_un sun;
  memset(&sun, 0, sizeof sun);
  sun.sun_family = AF_UNIX;
  memcpy(sun.sun_path, path.data(), path.size());
  struct stat st;
  if (lstat(path.c_str(), &st) == 0) {
    if (!S_ISSOCK(st.st_mode)) {
      *error = path + " exists and is not a socket";
      return -1;
    }
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool live = probe >= 0 && connect(probe, reinterpret_cast<struct sockaddr*>(&sun), sizeof sun) == 0;
    if (probe >= 0) close(probe);
    if (live) {
      *error = path + " is in use by another server";
      return -1;
    }
    unlink(path.c_str());
  }
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return *error = ErrnoText("socket"), -1;
  if (bind(fd, reinterpret_cast<struct sockaddr*>(&sun), sizeof sun) != 0 || listen(fd, 64) != 0) {
    *error = ErrnoText("bind/listen " + path);
    close(fd);
    return -1;
  }
  return fd;
}

// Binds and listens on a TCP host and port; *port receives the bound port.
int ListenTcp(const std::string& host, unsigned short* port, std::string* error) {
  struct addrinfo hints;
  memset(&hints, 0, sizeof hints);
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV | AI_PASSIVE;
  struct addrinfo* list = nullptr;
  const int gai = getaddrinfo(host.c_str(), std::to_string(*port).c_str(), &hints, &list);
  if (gai != 0) {
    *error = "getaddrinfo " + host + ": " + gai_strerror(gai);
    return -1;
  }
  int fd = -1;
  *error = "no address for " + host;
  for (struct addrinfo* ai = list; ai != nullptr && fd < 0; ai = ai->ai_next) {
    fd = socket(ai->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) continue;
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (bind(fd, ai->ai_addr, ai->ai_addrlen) != 0 || listen(fd, 64) != 0) {
      *error = ErrnoText("bind/listen " + host + ":" + std::to_string(*port));
      close(fd);
      fd = -1;
    }
  }
  freeaddrinfo(list);
  if (fd < 0) return -1;
  struct sockaddr_storage ss;
  socklen_t len = sizeof ss;
  if (getsockname(fd, reinterpret_cast<struct sockaddr*>(&ss), &len) == 0) {
    *port = ntohs(ss.ss_family == AF_INET ? reinterpret_cast<struct sockaddr_in*>(&ss)->sin_port
                                          : reinterpret_cast<struct sockaddr_in6*>(&ss)->sin6_port);
  }
  return fd;
}

}  // namespace

struct ArraySimServer::Impl {
  SimOptions options;
  std::unique_ptr<ArraySimulator> sim;
  CSnmpBackendAddress bound;
  int listenFd = -1;
  int wake[2] = {-1, -1};  // stop() writes to wake[1] to end the accept loop
  std::thread acceptor;
  bool running = false;

  std::mutex mu;  // guards what follows
  std::condition_variable cv;
  bool stopping = false;
  std::set<int> connections;
  struct Worker {
    std::thread thread;
    std::shared_ptr<std::atomic<bool>> done;
  };
  std::list<Worker> workers;

  void acceptLoop();
  void serve(int fd);
  void reapFinished();
  // Waits ms or until stop; false when stopping.
  bool sleepFor(uint32_t ms) {
    std::unique_lock<std::mutex> lock(mu);
    return !cv.wait_for(lock, std::chrono::milliseconds(ms), [this] { return stopping; });
  }
};

void ArraySimServer::Impl::reapFinished() {
  for (auto it = workers.begin(); it != workers.end();) {
    if (it->done->load()) {
      it->thread.join();
      it = workers.erase(it);
    } else {
      ++it;
    }
  }
}

void ArraySimServer::Impl::acceptLoop() {
  for (;;) {
    struct pollfd pfd[2];
    pfd[0].fd = listenFd;
    pfd[0].events = POLLIN;
    pfd[1].fd = wake[0];
    pfd[1].events = POLLIN;
    pfd[0].revents = pfd[1].revents = 0;
    const int n = poll(pfd, 2, -1);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 || pfd[1].revents != 0) return;
    if ((pfd[0].revents & POLLIN) == 0) continue;
    const int fd = accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    std::lock_guard<std::mutex> lock(mu);
    reapFinished();
    if (stopping || connections.size() >= kMaxConnections) {
      close(fd);
      continue;
    }
    connections.insert(fd);
    Worker w;
    w.done = std::make_shared<std::atomic<bool>>(false);
    auto done = w.done;
    w.thread = std::thread([this, fd, done] {
      serve(fd);
      done->store(true);
    });
    workers.push_back(std::move(w));
  }
}

void ArraySimServer::Impl::serve(int fd) {
  for (;;) {
    std::vector<unsigned char> frame;
    const int rc = ReadBackendFrame(fd, frame, SNMP_FRAME_DEFAULT_MAX_BODY, SnmpNoDeadline());
    if (rc == SNMP_TRANSPORT_E_BAD_FRAME || rc == SNMP_TRANSPORT_E_TOO_LARGE) {
      // The stream cannot be followed any more: say so once and hang up.
      const std::vector<unsigned char> refusal = AnswerWriter::Empty(kSimErrMalformed);
      WriteBackendFrame(fd, refusal.data(), refusal.size(), std::chrono::steady_clock::now() + kSendTimeout);
    }
    if (rc != 0) break;
    Reply reply = sim->handle(frame.data(), frame.size());
    if (reply.delayMs != 0 && !sleepFor(reply.delayMs)) break;
    if (!reply.bytes.empty() && WriteBackendFrame(fd, reply.bytes.data(), reply.bytes.size(),
                                                  std::chrono::steady_clock::now() + kSendTimeout) != 0) {
      break;
    }
    if (reply.closeAfter) break;
  }
  std::lock_guard<std::mutex> lock(mu);
  connections.erase(fd);
  shutdown(fd, SHUT_WR);
  close(fd);
}

ArraySimServer::ArraySimServer(const SimOptions& options) : impl_(new Impl()) { impl_->options = options; }

ArraySimServer::~ArraySimServer() { stop(); }

bool ArraySimServer::start(std::string* error, bool* badOption) {
  Impl& im = *impl_;
  if (badOption != nullptr) *badOption = false;
  if (im.running) return *error = "already started", false;
  std::string why;
  Topology topology;
  if (im.options.topologyFile.empty()) {
    topology = DefaultTopology();
  } else if (!LoadTopologyFile(im.options.topologyFile, &topology, &why)) {
    return *error = why, false;
  }
  if (im.options.luns >= 0) {
    if (static_cast<unsigned long>(im.options.luns) > kMaxLuns) return *error = "too many LUNs", false;
    SetLunCount(&topology, static_cast<size_t>(im.options.luns));
  }
  if (im.options.fileSystems >= 0) {
    if (static_cast<unsigned long>(im.options.fileSystems) > kMaxFileSystems) {
      return *error = "too many file systems", false;
    }
    SetFileSystemCount(&topology, static_cast<size_t>(im.options.fileSystems));
  }
  if (im.options.features >= 0) SetFeatureMask(&topology, static_cast<unsigned long>(im.options.features));
  if (im.options.switchOn >= 0) topology.switchOn = im.options.switchOn != 0;
  CommandCodes codes;
  if (!LoadCommandCodes(im.options.deviceConfig, &codes, &why)) return *error = why, false;
  std::unique_ptr<ArraySimulator> sim(new ArraySimulator(std::move(topology), im.options.seed, codes));
  for (const std::string& text : im.options.faults) {
    FaultRule rule;
    if (!sim->parseFault(text, &rule, &why)) {
      if (badOption != nullptr) *badOption = true;
      return *error = "fault " + text + ": " + why, false;
    }
    sim->addFault(rule);
  }
  for (const std::string& text : im.options.latencies) {
    LatencySetting setting;
    if (!sim->parseLatency(text, &setting, &why)) {
      if (badOption != nullptr) *badOption = true;
      return *error = "latency " + text + ": " + why, false;
    }
    sim->setLatency(setting);
  }
  if (!CSnmpBackendAddress::parse(im.options.listen, im.bound, &why)) {
    return *error = "listen address '" + im.options.listen + "': " + why, false;
  }
  im.listenFd = im.bound.kind == CSnmpBackendAddress::UNIX ? ListenUnix(im.bound.path, &why)
                                                           : ListenTcp(im.bound.host, &im.bound.port, &why);
  if (im.listenFd < 0) return *error = why, false;
  if (pipe2(im.wake, O_CLOEXEC) != 0) {
    *error = ErrnoText("pipe");
    close(im.listenFd);
    im.listenFd = -1;
    return false;
  }
  im.sim = std::move(sim);
  im.stopping = false;
  im.running = true;
  im.acceptor = std::thread([&im] { im.acceptLoop(); });
  return true;
}

void ArraySimServer::stop() {
  Impl& im = *impl_;
  if (!im.running) return;
  {
    std::lock_guard<std::mutex> lock(im.mu);
    im.stopping = true;
  }
  im.cv.notify_all();
  const char byte = 0;
  while (write(im.wake[1], &byte, 1) < 0 && errno == EINTR) {
  }
  im.acceptor.join();
  close(im.listenFd);
  im.listenFd = -1;
  if (im.bound.kind == CSnmpBackendAddress::UNIX) unlink(im.bound.path.c_str());
  std::list<Impl::Worker> workers;
  {
    std::lock_guard<std::mutex> lock(im.mu);
    for (int fd : im.connections) shutdown(fd, SHUT_RDWR);  // wakes every blocked read
    workers.swap(im.workers);
  }
  for (Impl::Worker& w : workers) w.thread.join();
  close(im.wake[0]);
  close(im.wake[1]);
  im.wake[0] = im.wake[1] = -1;
  im.running = false;
}

std::string ArraySimServer::address() const { return impl_->bound.toString(); }

ArraySimulator& ArraySimServer::array() { return *impl_->sim; }

std::map<unsigned long long, uint64_t> ArraySimServer::commandCounts() const {
  return impl_->sim ? impl_->sim->commandCounts() : std::map<unsigned long long, uint64_t>();
}

}  // namespace zerva_sim
