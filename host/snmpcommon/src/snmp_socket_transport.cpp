#include "snmpcommon/snmp_socket_transport.h"

#include <errno.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdio>
#include <cstring>
#include <vector>

#include "tlv/coding.h"
#include "vempub/vem_debug_kit.h"

namespace {

typedef std::chrono::steady_clock Clock;

// Result code of an answer: hdrWord0, at offset 8 of the header.
const size_t kResultOffset = 8;
// A record's cells are counted in a 16-bit field on the wire.
const unsigned long kMaxRecordLength = 0xFFFF;

long long MillisBetween(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(to - from).count();
}

std::string ErrnoText(const char* what, int err) { return std::string(what) + ": " + strerror(err); }

// Owns a socket descriptor; closes it unless released.
class ScopedFd {
 public:
  explicit ScopedFd(int fd = -1) : fd_(fd) {}
  ~ScopedFd() {
    if (fd_ >= 0) close(fd_);
  }
  ScopedFd(const ScopedFd&) = delete;
  ScopedFd& operator=(const ScopedFd&) = delete;
  int get() const { return fd_; }
  int release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }

 private:
  int fd_;
};

// Waits for a non-blocking connect on fd to finish by the deadline.
// Returns true when connected; otherwise false with *reason.
bool FinishConnect(int fd, Clock::time_point deadline, std::string* reason) {
  for (;;) {
    const auto now = Clock::now();
    if (now >= deadline) {
      *reason = "connect timed out";
      return false;
    }
    const long long left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - now).count();
    const long long ms = (left + 999) / 1000;
    struct pollfd pfd;
    pfd.fd = fd;
    pfd.events = POLLOUT;
    pfd.revents = 0;
    const int n = poll(&pfd, 1, ms > INT_MAX ? INT_MAX : static_cast<int>(ms));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      *reason = ErrnoText("poll", errno);
      return false;
    }
    if (n == 0) continue;  // the loop head decides whether the deadline passed
    int err = 0;
    socklen_t len = sizeof err;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0) err = errno;
    if (err == 0) return true;
    *reason = ErrnoText("connect", err);
    return false;
  }
}

// Opens a non-blocking, close-on-exec stream socket to one socket address.
// Returns the descriptor, or -1 with *reason.
int ConnectOne(int family, const struct sockaddr* sa, socklen_t saLen, Clock::time_point deadline,
               std::string* reason) {
  ScopedFd fd(socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (fd.get() < 0) {
    *reason = ErrnoText("socket", errno);
    return -1;
  }
  int rc;
  do {
    rc = connect(fd.get(), sa, saLen);
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) {
    if (errno == EAGAIN) {  // a Unix socket whose listen queue is full
      *reason = ErrnoText("connect", errno) + " (the back end's listen queue is full)";
      return -1;
    }
    if (errno != EINPROGRESS) {
      *reason = ErrnoText("connect", errno);
      return -1;
    }
    if (!FinishConnect(fd.get(), deadline, reason)) return -1;
  }
  if (family != AF_UNIX) {
    // Requests are small and answered one at a time: send each at once.
    int one = 1;
    if (setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one) != 0) {
      *reason = ErrnoText("setsockopt(TCP_NODELAY)", errno);
      return -1;
    }
  }
  return fd.release();
}

// Opens a connection to the address. Returns the descriptor, or -1 with
// *reason.
int ConnectTo(const CSnmpBackendAddress& address, Clock::time_point deadline, std::string* reason) {
  if (address.kind == CSnmpBackendAddress::UNIX) {
    struct sockaddr_un sun;
    std::memset(&sun, 0, sizeof sun);
    sun.sun_family = AF_UNIX;
    if (address.path.empty() || address.path.size() >= sizeof sun.sun_path) {
      *reason = "socket path is empty or longer than sun_path";
      return -1;
    }
    std::memcpy(sun.sun_path, address.path.data(), address.path.size());
    return ConnectOne(AF_UNIX, reinterpret_cast<struct sockaddr*>(&sun), sizeof sun, deadline, reason);
  }
  struct addrinfo hints;
  std::memset(&hints, 0, sizeof hints);
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV;
  struct addrinfo* list = nullptr;
  const std::string port = std::to_string(address.port);
  const int gai = getaddrinfo(address.host.c_str(), port.c_str(), &hints, &list);
  if (gai != 0) {
    *reason = std::string("getaddrinfo: ") + gai_strerror(gai);
    return -1;
  }
  std::unique_ptr<struct addrinfo, void (*)(struct addrinfo*)> owned(list, freeaddrinfo);
  *reason = "host has no address";
  for (struct addrinfo* ai = list; ai != nullptr; ai = ai->ai_next) {
    const int fd = ConnectOne(ai->ai_family, ai->ai_addr, ai->ai_addrlen, deadline, reason);
    if (fd >= 0) return fd;
    if (Clock::now() >= deadline) break;
  }
  return -1;
}

// Checks an idle connection before it carries a request. Returns true when
// it can be used; false when the back end closed or reset it, or sent bytes
// that nobody asked for (they must not be read as the next answer), with
// *what saying which.
bool IdleConnectionUsable(int fd, std::string* what) {
  struct pollfd pfd;
  pfd.fd = fd;
  pfd.events = POLLIN;
  pfd.revents = 0;
  int n;
  do {
    n = poll(&pfd, 1, 0);
  } while (n < 0 && errno == EINTR);
  if (n == 0) return true;
  if (n < 0) {
    *what = ErrnoText("poll", errno);
    return false;
  }
  unsigned char byte;
  const ssize_t got = recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  if (got > 0) {
    *what = "unexpected bytes from the back end on the idle connection";
  } else if (got == 0) {
    *what = "the back end closed the idle connection";
  } else if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) {
    return true;  // spurious wake-up
  } else {
    *what = ErrnoText("idle connection", errno);
  }
  return false;
}

}  // namespace

struct CSnmpSocketTransport::State {
  std::mutex mu;                      // one exchange at a time; guards what follows
  int fd = -1;                        // the connection, -1 when there is none
  uint64_t calls = 0;                 // exchanges begun, numbers the log lines
  int heldCode = 0;                   // the last connect failed or call timed out ...
  Clock::time_point retryAfter;       // ... so calls answer heldCode until this
  bool fastFailLogged = false;        // a refusal in the current window was logged
  std::atomic<uint64_t> connects{0};  // connections opened
  std::mutex fdMu;                    // fd's changes, against shutdown() on another thread
  std::atomic<bool> shut{false};      // shutdown() was called

  void drop() {
    std::lock_guard<std::mutex> lock(fdMu);
    if (fd >= 0) close(fd);
    fd = -1;
  }
  void use(int connection) {
    std::lock_guard<std::mutex> lock(fdMu);
    fd = connection;
    if (shut.load()) ::shutdown(fd, SHUT_RDWR);  // shut down while connecting
  }
  // Calls answer code at once for the interval, without trying the back end.
  void hold(int code, std::chrono::milliseconds interval) {
    heldCode = code;
    retryAfter = Clock::now() + interval;
    fastFailLogged = false;
  }
};

namespace {

// What one failed exchange tells the log.
struct Failure {
  int code;
  std::string what;
};

}  // namespace

CSnmpSocketTransport::CSnmpSocketTransport(const CSnmpSocketTransportOptions& options)
    : options_(options), state_(new State()) {}

CSnmpSocketTransport::~CSnmpSocketTransport() {
  std::lock_guard<std::mutex> lock(state_->mu);
  state_->drop();
}

uint64_t CSnmpSocketTransport::connectCount() const { return state_->connects.load(); }

void CSnmpSocketTransport::shutdown() {
  State& st = *state_;
  std::lock_guard<std::mutex> lock(st.fdMu);
  st.shut = true;
  if (st.fd >= 0) ::shutdown(st.fd, SHUT_RDWR);
}

int CSnmpSocketTransport::exchange(CTLVPackageV3<TLVMsgHeadV3>& req, CTLVPackageV3<TLVMsgHeadV3>& rsp, bool listing) {
  State& st = *state_;
  if (st.shut.load()) return SNMP_TRANSPORT_E_NOT_CONFIGURED;
  std::lock_guard<std::mutex> lock(st.mu);
  if (st.shut.load()) return SNMP_TRANSPORT_E_NOT_CONFIGURED;
  const uint64_t call = ++st.calls;
  const unsigned long long requestId = req.empty() || req[0] == nullptr ? 0ULL : req[0]->id();
  const std::string address = options_.address.toString();
  const auto start = Clock::now();
  const auto timeout = listing ? options_.listingTimeout : options_.callTimeout;
  const auto deadline = start + timeout;

  auto fail = [&](int code, const std::string& what, bool dropConnection) {
    if (dropConnection) st.drop();
    VEMLog(VEM_KIT_HOST, VEM_LOG_ERROR, "exchange", __LINE__, "back end %s: %s; request 0x%llX, call #%llu: %s",
           address.c_str(), what.c_str(), requestId, static_cast<unsigned long long>(call),
           SnmpTransportErrorText(code));
    return code;
  };

  // 1. Encode. A record's cell bytes must fit its 16-bit length field and
  // the request the frame limit; the codec would cut them silently.
  for (size_t i = 0; i < req.size(); ++i) {
    if (req[i] == nullptr) return fail(SNMP_TRANSPORT_E_ENCODE, "record " + std::to_string(i) + " is null", false);
    if (req[i]->length() > kMaxRecordLength) {
      return fail(SNMP_TRANSPORT_E_ENCODE,
                  "record " + std::to_string(i) + " holds " + std::to_string(req[i]->length()) +
                      " bytes of cells, at most 65535 fit",
                  false);
    }
  }
  unsigned long long body = 0;
  for (const CTLVRecordV3* r : req.records()) body += r->length() + CTLVPackageV3<TLVMsgHeadV3>::MIN_RECORD_SIZE;
  if (body > options_.maxBody) {
    return fail(
        SNMP_TRANSPORT_E_ENCODE,
        "request body of " + std::to_string(body) + " bytes exceeds the limit of " + std::to_string(options_.maxBody),
        false);
  }
  std::vector<unsigned char> out(TLVMsgHeadV3::SIZE + body);
  if (req.encode(out.data(), static_cast<unsigned int>(out.size())) != out.size()) {
    return fail(SNMP_TRANSPORT_E_ENCODE, "the codec refused the request", false);
  }

  // 2. A connection: the idle one if it is still good, else a new one unless
  // a connect failed within the retry interval.
  if (st.fd >= 0) {
    std::string what;
    if (!IdleConnectionUsable(st.fd, &what)) {
      VEMLog(VEM_KIT_HOST, VEM_LOG_DEBUG, "exchange", __LINE__, "back end %s: %s; reconnecting", address.c_str(),
             what.c_str());
      st.drop();
    }
  }
  if (st.fd < 0) {
    if (st.heldCode != 0 && start < st.retryAfter) {
      if (st.fastFailLogged) return st.heldCode;
      st.fastFailLogged = true;
      const char* why = st.heldCode == SNMP_TRANSPORT_E_CONNECT ? "not connected: the last connect failed"
                                                                : "not asked: the last call timed out";
      return fail(st.heldCode,
                  std::string(why) + "; calls fail at once for another " +
                      std::to_string(MillisBetween(start, st.retryAfter)) + " ms",
                  false);
    }
    const auto connectDeadline = std::min(deadline, start + options_.connectTimeout);
    std::string reason;
    const int fd = ConnectTo(options_.address, connectDeadline, &reason);
    if (fd < 0) {
      st.hold(SNMP_TRANSPORT_E_CONNECT, options_.retryInterval);
      return fail(SNMP_TRANSPORT_E_CONNECT,
                  "connect failed after " + std::to_string(MillisBetween(start, Clock::now())) + " ms (" + reason + ")",
                  false);
    }
    st.use(fd);
    st.heldCode = 0;
    st.connects.fetch_add(1);
    VEMLog(VEM_KIT_HOST, VEM_LOG_DEBUG, "exchange", __LINE__, "back end %s: connected", address.c_str());
  }

  // 3. Send the request, read one answer. Any failure drops the connection:
  // an answer that arrives later must never be read as another request's.
  std::string reason;
  int rc = WriteBackendFrame(st.fd, out.data(), out.size(), deadline, &reason);
  if (rc != 0) {
    const std::string what = rc == SNMP_TRANSPORT_E_TIMEOUT
                                 ? "request not sent within " + std::to_string(timeout.count()) + " ms"
                                 : "sending the request failed";
    if (rc == SNMP_TRANSPORT_E_TIMEOUT) st.hold(rc, options_.retryInterval);
    return fail(rc, what + " (" + reason + ")", true);
  }
  std::vector<unsigned char> frame;
  rc = ReadBackendFrame(st.fd, frame, options_.maxBody, deadline, &reason);
  if (rc != 0) {
    std::string what;
    switch (rc) {
      case SNMP_TRANSPORT_E_TIMEOUT:
        what = "no whole answer within " + std::to_string(timeout.count()) + " ms";
        break;
      case SNMP_TRANSPORT_E_CLOSED:
        what = "connection closed before a whole answer";
        break;
      case SNMP_TRANSPORT_E_BAD_FRAME:
        what = "answer is not a frame";
        break;
      case SNMP_TRANSPORT_E_TOO_LARGE:
        what = "answer too large";
        break;
      default:
        what = "receiving the answer failed";
        break;
    }
    if (rc == SNMP_TRANSPORT_E_TIMEOUT) st.hold(rc, options_.retryInterval);
    return fail(rc, what + " (" + reason + ")", true);
  }

  // 4. Decode; the result code is the answer's hdrWord0.
  const int result = static_cast<int>(tlv::DecodeFixed32(frame.data() + kResultOffset));
  if (rsp.decode(frame.data(), static_cast<unsigned int>(frame.size())) == CTLVPackageV3<TLVMsgHeadV3>::FAILED) {
    return fail(SNMP_TRANSPORT_E_BAD_FRAME,
                "answer body of " + std::to_string(frame.size() - TLVMsgHeadV3::SIZE) + " bytes does not decode", true);
  }
  if (IsSnmpTransportError(result)) {
    // A back end may not use the host's own codes: passing one on would make
    // the back end's answer read as a failure of the transport.
    rsp.clear();
    char text[128];
    snprintf(text, sizeof text, "answer carries result 0x%08X, a code reserved for the host's transport",
             static_cast<unsigned int>(result));
    return fail(SNMP_TRANSPORT_E_BAD_FRAME, text, true);
  }
  return result;
}
