#include "snmpcommon/snmp_socket_transport.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "snmpcommon/snmp_backend_capability.h"
#include "tests/support/fake_backend.h"
#include "tests/support/kit_log_capture.h"
#include "tests/support/temp_dir.h"
#include "tlv/coding.h"
#include "vempub/vem_xml_config.h"

namespace {

using zerva_test::Encode;
using zerva_test::KitLogCapture;
using zerva_test::PackageText;
using zerva_test::Rec;

typedef std::vector<unsigned char> Bytes;
typedef std::chrono::milliseconds Ms;

// Every wait in these tests gives up after this long.
const Ms kBound(4000);

// A one-shot flag that threads wait on, never longer than kBound.
class Gate {
 public:
  void open() {
    std::lock_guard<std::mutex> lock(mu_);
    open_ = true;
    cv_.notify_all();
  }
  bool wait() {
    std::unique_lock<std::mutex> lock(mu_);
    return cv_.wait_for(lock, kBound, [this] { return open_; });
  }

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  bool open_ = false;
};

// One accepted connection of a TestServer, as its handler sees it.
class Conn {
 public:
  Conn(int fd, int index) : fd_(fd), index_(index) {}
  int fd() const { return fd_; }
  int index() const { return index_; }  // 0 for the server's first connection

  // Reads one request frame into pkg (cleared first). False at end of stream,
  // on a bad frame or after kBound.
  bool read(CTLVPackage& pkg) {
    Bytes frame;
    pkg.clear();
    if (ReadBackendFrame(fd_, frame, SNMP_FRAME_DEFAULT_MAX_BODY, std::chrono::steady_clock::now() + kBound) != 0) {
      return false;
    }
    lastRequest = frame;
    return pkg.decode(frame.data(), static_cast<unsigned int>(frame.size())) != CTLVPackage::FAILED;
  }
  // Sends an answer with this result code and these records.
  bool answer(uint32_t code, const std::vector<Rec>& records = {}) {
    CTLVPackage pkg;
    pkg.head().hdrWord0 = code;
    for (const Rec& r : records) pkg.push_back(r.build());
    return sendRaw(Encode(pkg));
  }
  bool sendRaw(const Bytes& bytes) {
    return WriteBackendFrame(fd_, bytes.data(), bytes.size(), std::chrono::steady_clock::now() + kBound) == 0;
  }
  Bytes lastRequest;

 private:
  int fd_;
  int index_;
};

// The token a test request carries in its cell 0.
unsigned int TokenOf(const CTLVPackage& req) {
  return req.empty() || !req[0]->hasTag(0) ? 0u : CTLVCell::ValueCast<unsigned int>()((*req[0])[0]);
}

CTLVRecordV3* TokenRecord(unsigned int token) { return Rec(0x2A).u32(0, token).build(); }

// Answers every request with result 0 and one record echoing its token.
void EchoHandler(Conn& c) {
  CTLVPackage req;
  while (c.read(req)) {
    if (!c.answer(0, {Rec().u32(0, TokenOf(req))})) return;
  }
}

// A back end for tests: a listening socket on loopback (a Unix socket or TCP
// on 127.0.0.1) whose connections are each served by handler on a thread of
// their own. At most kMaxConnections are served; stop() (also run by the
// destructor) shuts every connection down and joins every thread.
class TestServer {
 public:
  typedef std::function<void(Conn&)> Handler;
  enum { kMaxConnections = 16 };

  static std::unique_ptr<TestServer> Unix(const std::string& path, Handler handler) {
    std::unique_ptr<TestServer> s(new TestServer(std::move(handler)));
    s->listenFd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un sun{};
    sun.sun_family = AF_UNIX;
    strncpy(sun.sun_path, path.c_str(), sizeof sun.sun_path - 1);
    unlink(path.c_str());
    if (bind(s->listenFd_, reinterpret_cast<sockaddr*>(&sun), sizeof sun) != 0) return nullptr;
    s->address_ = "unix:" + path;
    return s->start() ? std::move(s) : nullptr;
  }

  static std::unique_ptr<TestServer> Tcp(Handler handler, unsigned short port = 0) {
    std::unique_ptr<TestServer> s(new TestServer(std::move(handler)));
    s->listenFd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int one = 1;
    setsockopt(s->listenFd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in sin{};
    sin.sin_family = AF_INET;
    sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sin.sin_port = htons(port);
    if (bind(s->listenFd_, reinterpret_cast<sockaddr*>(&sin), sizeof sin) != 0) return nullptr;
    socklen_t len = sizeof sin;
    getsockname(s->listenFd_, reinterpret_cast<sockaddr*>(&sin), &len);
    s->address_ = "tcp:127.0.0.1:" + std::to_string(ntohs(sin.sin_port));
    return s->start() ? std::move(s) : nullptr;
  }

  ~TestServer() { stop(); }

  const std::string& address() const { return address_; }
  int accepted() const { return accepted_.load(); }

  void stop() {
    if (stopping_.exchange(true)) return;
    if (acceptThread_.joinable()) acceptThread_.join();
    {
      std::lock_guard<std::mutex> lock(mu_);
      for (int fd : connFds_) shutdown(fd, SHUT_RDWR);
    }
    for (std::thread& t : connThreads_) t.join();
    for (int fd : connFds_) close(fd);
    if (listenFd_ >= 0) close(listenFd_);
    listenFd_ = -1;
  }

 private:
  explicit TestServer(Handler handler) : handler_(std::move(handler)) {}

  bool start() {
    if (listen(listenFd_, 8) != 0) return false;
    acceptThread_ = std::thread([this] { acceptLoop(); });
    return true;
  }

  void acceptLoop() {
    while (!stopping_.load()) {
      pollfd pfd{listenFd_, POLLIN, 0};
      if (poll(&pfd, 1, 10) <= 0) continue;
      const int fd = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) continue;
      const int index = accepted_.fetch_add(1);
      if (index >= kMaxConnections) {
        close(fd);
        continue;
      }
      std::lock_guard<std::mutex> lock(mu_);
      connFds_.push_back(fd);
      connThreads_.emplace_back([this, fd, index] {
        Conn c(fd, index);
        handler_(c);
        shutdown(fd, SHUT_RDWR);  // the peer sees the end of the stream now
      });
    }
  }

  Handler handler_;
  int listenFd_ = -1;
  std::string address_;
  std::atomic<bool> stopping_{false};
  std::atomic<int> accepted_{0};
  std::thread acceptThread_;
  std::mutex mu_;
  std::vector<int> connFds_;
  std::vector<std::thread> connThreads_;
};

bool Contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// Answers each request with the next of codes as its result (from the first
// again after the last; the count is shared by all connections) and with rec.
TestServer::Handler AnswersCodesInTurn(const std::vector<uint32_t>& codes, const Rec& rec) {
  auto next = std::make_shared<std::atomic<size_t>>(0);
  return [codes, rec, next](Conn& c) {
    CTLVPackage req;
    while (c.read(req)) c.answer(codes[(*next)++ % codes.size()], {rec});
  };
}

class SocketTransportTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE(dir_.path().empty()); }
  std::string socketPath() const { return dir_.path() + "/backend.sock"; }

  // Options for a transport to this address with generous timeouts, so that
  // only the tests about timeouts ever meet one.
  static CSnmpSocketTransportOptions Options(const std::string& address) {
    CSnmpSocketTransportOptions o;
    std::string error;
    EXPECT_TRUE(CSnmpBackendAddress::parse(address, o.address, &error)) << error;
    o.connectTimeout = Ms(2000);
    o.callTimeout = Ms(3000);
    o.listingTimeout = Ms(3000);
    o.retryInterval = Ms(500);
    return o;
  }

  // Sends a request carrying token and returns the result; *answerToken is
  // the token of the answer's first record (0 when it has none).
  static int Call(CSnmpSocketTransport& t, unsigned int token, unsigned int* answerToken = nullptr,
                  bool listing = false) {
    CTLVPackage req, rsp;
    req.push_back(TokenRecord(token));
    const int rc = t.exchange(req, rsp, listing);
    if (answerToken != nullptr) *answerToken = TokenOf(rsp);
    return rc;
  }

  static std::vector<CVEMLogRecord> TransportErrors(const KitLogCapture& log) {
    std::vector<CVEMLogRecord> out;
    for (const CVEMLogRecord& r : log.records(VEM_LOG_ERROR)) {
      if (r.kitNo == VEM_KIT_HOST) out.push_back(r);
    }
    return out;
  }

  // Expects the transport to have logged exactly one error, and that it says part.
  static void ExpectOneTransportError(const KitLogCapture& log, const std::string& part) {
    const auto errors = TransportErrors(log);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_TRUE(Contains(errors[0].message, part)) << errors[0].message;
  }

  zerva_test::TempDir dir_;
};

TEST_F(SocketTransportTest, CarriesARequestAndItsAnswerOverAUnixSocket) {
  Bytes seen;
  auto server = TestServer::Unix(socketPath(), [&](Conn& c) {
    CTLVPackage req;
    while (c.read(req)) {
      seen = c.lastRequest;
      c.answer(0, {Rec().u32(0, 48).str(1, "ok"), Rec(0x77).t6(2, 5)});
    }
  });
  ASSERT_TRUE(server);
  CSnmpSocketTransport t(Options(server->address()));
  CTLVPackage req, rsp;
  req.push_back(Rec(0xD0000C000ULL).t6(0, 213).str(1, "key").build());
  EXPECT_EQ(t.exchange(req, rsp, true), 0);
  EXPECT_EQ(PackageText(rsp),
            (std::vector<std::string>{"0xFFFFFFFFFFFFFFFF: 0/3/4/48 1/2/3/\"ok\\0\"", "0x77: 2/6/8/5"}));
  EXPECT_EQ(seen, Encode(req));  // the request as the codec encodes it, listing or not
  CTLVPackage rsp2;
  EXPECT_EQ(t.exchange(req, rsp2, false), 0);
  EXPECT_EQ(rsp2.size(), 2u);
  EXPECT_EQ(t.connectCount(), 1u);  // the connection is kept between calls
  EXPECT_EQ(server->accepted(), 1);
}

TEST_F(SocketTransportTest, CarriesARequestAndItsAnswerOverTcpLoopback) {
  auto server = TestServer::Tcp(EchoHandler);
  ASSERT_TRUE(server);
  CSnmpSocketTransport t(Options(server->address()));
  unsigned int token = 0;
  EXPECT_EQ(Call(t, 4711, &token), 0);
  EXPECT_EQ(token, 4711u);
  EXPECT_EQ(Call(t, 4712, &token), 0);
  EXPECT_EQ(token, 4712u);
  EXPECT_EQ(server->accepted(), 1);
}

TEST_F(SocketTransportTest, BackEndResultCodesPassThroughUnchanged) {
  const std::vector<uint32_t> codes = {1077949460u, 0xFFFFFFFFu, 0x4E53FFFFu, 0x4E540100u, 1u};
  auto server = TestServer::Unix(socketPath(), AnswersCodesInTurn(codes, Rec().u32(0, 9)));
  ASSERT_TRUE(server);
  KitLogCapture log;
  CSnmpSocketTransport t(Options(server->address()));
  for (uint32_t code : codes) {
    CTLVPackage req, rsp;
    req.push_back(TokenRecord(1));
    EXPECT_EQ(t.exchange(req, rsp, false), static_cast<int>(code));
    EXPECT_EQ(rsp.size(), 1u);  // the answer's records are decoded all the same
  }
  EXPECT_TRUE(TransportErrors(log).empty());  // the back end's codes are not the transport's failures
  EXPECT_EQ(t.connectCount(), 1u);
}

TEST_F(SocketTransportTest, ReservedCodeFromTheBackEndIsABadFrame) {
  const std::vector<uint32_t> reserved = {0x4E540000u, 0x4E540003u, 0x4E5400FFu};
  auto server = TestServer::Unix(socketPath(), AnswersCodesInTurn(reserved, Rec().u32(0, 1)));
  ASSERT_TRUE(server);
  KitLogCapture log;
  CSnmpSocketTransport t(Options(server->address()));
  for (uint32_t code : reserved) {
    CTLVPackage req, rsp;
    req.push_back(TokenRecord(1));
    EXPECT_EQ(t.exchange(req, rsp, false), SNMP_TRANSPORT_E_BAD_FRAME) << std::hex << code;
    EXPECT_TRUE(rsp.empty());
  }
  const auto errors = TransportErrors(log);
  ASSERT_EQ(errors.size(), 3u);
  EXPECT_TRUE(Contains(errors[1].message, "result 0x4E540003, a code reserved for the host's transport"))
      << errors[1].message;
  EXPECT_EQ(t.connectCount(), 3u);  // each failure dropped the connection
}

TEST_F(SocketTransportTest, NoAnswerTimesOutAndTheLateAnswerIsNotTakenForTheNextRequest) {
  Gate firstCallOver, lateAnswerSent;
  auto server = TestServer::Unix(socketPath(), [&](Conn& c) {
    CTLVPackage req;
    while (c.read(req)) {
      const unsigned int token = TokenOf(req);
      if (token == 1) {  // answer the first request only once its caller gave up
        firstCallOver.wait();
        c.answer(0, {Rec().u32(0, token)});
        lateAnswerSent.open();
      } else {
        c.answer(0, {Rec().u32(0, token)});
      }
    }
  });
  ASSERT_TRUE(server);
  KitLogCapture log;
  CSnmpSocketTransportOptions o = Options(server->address());
  o.callTimeout = Ms(200);
  o.retryInterval = Ms(0);  // no hold after the timeout: the next call is sent
  CSnmpSocketTransport t(o);
  unsigned int token = 0;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Call(t, 1, &token), SNMP_TRANSPORT_E_TIMEOUT);
  EXPECT_LT(std::chrono::steady_clock::now() - start, kBound);  // ended by its own timeout
  firstCallOver.open();
  ASSERT_TRUE(lateAnswerSent.wait());
  EXPECT_EQ(Call(t, 2, &token), 0);
  EXPECT_EQ(token, 2u);  // its own answer, not the late one
  EXPECT_EQ(t.connectCount(), 2u);
  EXPECT_EQ(server->accepted(), 2);
  ExpectOneTransportError(log, "no whole answer within 200 ms");
}

TEST_F(SocketTransportTest, ShutdownEndsTheCallUnderWayAndRefusesEveryLaterOne) {
  Gate requestSeen, serverDone;
  auto server = TestServer::Unix(socketPath(), [&](Conn& c) {
    CTLVPackage req;
    if (c.read(req)) requestSeen.open();  // and never answers
    serverDone.wait();
  });
  ASSERT_TRUE(server);
  CSnmpSocketTransportOptions o = Options(server->address());
  o.callTimeout = Ms(30000);  // the call would wait this long
  CSnmpSocketTransport t(o);
  int rc = 0;
  std::thread caller([&] { rc = Call(t, 1); });
  ASSERT_TRUE(requestSeen.wait());
  const auto start = std::chrono::steady_clock::now();
  t.shutdown();
  caller.join();
  EXPECT_LT(std::chrono::steady_clock::now() - start, kBound);
  EXPECT_EQ(SNMP_TRANSPORT_E_CLOSED, rc);
  EXPECT_EQ(SNMP_TRANSPORT_E_NOT_CONFIGURED, Call(t, 2));
  EXPECT_EQ(1u, t.connectCount());  // no reconnect was tried
  serverDone.open();
}

// A back end that serves one connection at a time on one thread, as a simple
// back end does: it accepts a connection and answers its requests until the
// peer closes it, then accepts the next. Its first answer comes late, after
// the caller's timeout. The transport must have closed the timed-out
// connection before it opens the next one: otherwise this back end would
// still be waiting on the first connection and never see the second.
TEST_F(SocketTransportTest, ASingleThreadedBackEndThatAnsweredLateServesTheNextConnection) {
  const std::string path = socketPath();
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(listener, 0);
  sockaddr_un sun{};
  sun.sun_family = AF_UNIX;
  strncpy(sun.sun_path, path.c_str(), sizeof sun.sun_path - 1);
  ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr*>(&sun), sizeof sun));
  ASSERT_EQ(0, listen(listener, 8));

  std::atomic<bool> lateAnswerRefused{false};  // writing the late answer failed: the peer was gone
  std::atomic<bool> firstClosedBeforeSecond{false};
  std::atomic<int> served{0};
  std::thread backEnd([&] {
    auto acceptOne = [&]() {
      pollfd pfd{listener, POLLIN, 0};
      return poll(&pfd, 1, static_cast<int>(kBound.count())) == 1 ? accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)
                                                                  : -1;
    };
    const int first = acceptOne();
    if (first < 0) return;
    Conn c1(first, 0);
    CTLVPackage req;
    if (c1.read(req)) {
      std::this_thread::sleep_for(Ms(700));  // the caller gave up after 400 ms
      lateAnswerRefused = !c1.answer(0, {Rec().u32(0, TokenOf(req))});
      ++served;
    }
    // The end of the first connection is there before any second
    // connection is looked at (read would wait for kBound otherwise).
    const auto waitFrom = std::chrono::steady_clock::now();
    firstClosedBeforeSecond = !c1.read(req) && std::chrono::steady_clock::now() - waitFrom < Ms(200);
    close(first);
    const int second = acceptOne();
    if (second < 0) return;
    Conn c2(second, 1);
    while (c2.read(req)) {
      c2.answer(0, {Rec().u32(0, TokenOf(req))});
      ++served;
    }
    close(second);
  });

  CSnmpSocketTransportOptions o = Options("unix:" + path);
  o.callTimeout = Ms(400);
  o.retryInterval = Ms(100);
  unsigned int token = 0;
  {
    CSnmpSocketTransport t(o);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Call(t, 1, &token), SNMP_TRANSPORT_E_TIMEOUT);
    EXPECT_LT(std::chrono::steady_clock::now() - start, Ms(700));
    // Past the hold-off, while the back end is still busy with the first
    // call: the next call waits in the back end's listen queue and is
    // answered once the back end is done with the first connection.
    std::this_thread::sleep_for(Ms(150));
    EXPECT_EQ(Call(t, 2, &token), 0);
    EXPECT_EQ(token, 2u);
    EXPECT_EQ(Call(t, 3, &token), 0);
    EXPECT_EQ(token, 3u);
    EXPECT_EQ(t.connectCount(), 2u);
  }  // the transport closes its connection: the back end's loop ends
  backEnd.join();
  close(listener);
  EXPECT_TRUE(firstClosedBeforeSecond);
  EXPECT_TRUE(lateAnswerRefused);
  EXPECT_EQ(served.load(), 3);
}

TEST_F(SocketTransportTest, ListingsGetTheListingTimeout) {
  auto server = TestServer::Unix(socketPath(), [&](Conn& c) {
    CTLVPackage req;
    while (c.read(req)) {
      std::this_thread::sleep_for(Ms(300));
      c.answer(0, {Rec().u32(0, TokenOf(req))});
    }
  });
  ASSERT_TRUE(server);
  CSnmpSocketTransportOptions o = Options(server->address());
  o.callTimeout = Ms(100);
  o.listingTimeout = Ms(3000);
  CSnmpSocketTransport t(o);
  unsigned int token = 0;
  EXPECT_EQ(Call(t, 5, &token, /*listing=*/true), 0);
  EXPECT_EQ(token, 5u);
  EXPECT_EQ(Call(t, 6, &token, /*listing=*/false), SNMP_TRANSPORT_E_TIMEOUT);
}

TEST_F(SocketTransportTest, AfterAFailedConnectCallsFailFastForTheRetryInterval) {
  KitLogCapture log;
  CSnmpSocketTransportOptions o = Options("unix:" + socketPath());
  o.retryInterval = Ms(1000);
  CSnmpSocketTransport t(o);
  EXPECT_EQ(Call(t, 1), SNMP_TRANSPORT_E_CONNECT);  // nothing listens yet
  for (int i = 0; i < 5; ++i) EXPECT_EQ(Call(t, 1), SNMP_TRANSPORT_E_CONNECT);
  // The back end comes up within the interval: calls still fail without trying.
  auto server = TestServer::Unix(socketPath(), EchoHandler);
  ASSERT_TRUE(server);
  EXPECT_EQ(Call(t, 1), SNMP_TRANSPORT_E_CONNECT);
  std::this_thread::sleep_for(Ms(100));  // the server's accept loop polls every 10 ms
  EXPECT_EQ(server->accepted(), 0);
  EXPECT_EQ(t.connectCount(), 0u);
  // Once the interval is over the next call connects.
  std::this_thread::sleep_for(Ms(1000));
  unsigned int token = 0;
  EXPECT_EQ(Call(t, 3, &token), 0);
  EXPECT_EQ(token, 3u);
  EXPECT_EQ(server->accepted(), 1);
  // One line for the failed connect, one for the refusals of its interval.
  const auto errors = TransportErrors(log);
  ASSERT_EQ(errors.size(), 2u);
  EXPECT_TRUE(Contains(errors[0].message, "connect failed")) << errors[0].message;
  EXPECT_TRUE(Contains(errors[0].message, strerror(ENOENT))) << errors[0].message;
  EXPECT_TRUE(Contains(errors[1].message, "calls fail at once")) << errors[1].message;
}

TEST_F(SocketTransportTest, AfterATimeoutCallsFailFastForTheRetryInterval) {
  std::atomic<bool> hung{true};
  auto server = TestServer::Unix(socketPath(), [&](Conn& c) {
    CTLVPackage req;
    while (c.read(req)) {
      while (hung.load()) std::this_thread::sleep_for(Ms(5));
      c.answer(0, {Rec().u32(0, TokenOf(req))});
    }
  });
  ASSERT_TRUE(server);
  KitLogCapture log;
  CSnmpSocketTransportOptions o = Options(server->address());
  o.callTimeout = Ms(150);
  o.retryInterval = Ms(1000);
  CSnmpSocketTransport t(o);
  EXPECT_EQ(Call(t, 1), SNMP_TRANSPORT_E_TIMEOUT);
  // Within the interval: the timeout code without trying the back end (the
  // timed-out connection was dropped, and no new one is opened).
  for (int i = 0; i < 5; ++i) EXPECT_EQ(Call(t, 2), SNMP_TRANSPORT_E_TIMEOUT);
  EXPECT_EQ(t.connectCount(), 1u);
  EXPECT_EQ(server->accepted(), 1);
  // Once the interval is over the back end is asked again.
  hung.store(false);
  std::this_thread::sleep_for(Ms(1000));
  unsigned int token = 0;
  EXPECT_EQ(Call(t, 3, &token), 0);
  EXPECT_EQ(token, 3u);
  EXPECT_EQ(t.connectCount(), 2u);
  // One line for the timeout, one for the refusals of its interval.
  const auto errors = TransportErrors(log);
  ASSERT_EQ(errors.size(), 2u);
  EXPECT_TRUE(Contains(errors[0].message, "no whole answer within 150 ms")) << errors[0].message;
  EXPECT_TRUE(Contains(errors[1].message, "not asked: the last call timed out; calls fail at once for another"))
      << errors[1].message;
}

TEST_F(SocketTransportTest, RefusedTcpConnectIsReportedWithItsReason) {
  // A port that was just free: bind one, note it, release it.
  int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in sin{};
  sin.sin_family = AF_INET;
  sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(probe, reinterpret_cast<sockaddr*>(&sin), sizeof sin), 0);
  socklen_t len = sizeof sin;
  getsockname(probe, reinterpret_cast<sockaddr*>(&sin), &len);
  close(probe);
  const std::string address = "tcp:127.0.0.1:" + std::to_string(ntohs(sin.sin_port));
  KitLogCapture log;
  CSnmpSocketTransport t(Options(address));
  EXPECT_EQ(Call(t, 0x99), SNMP_TRANSPORT_E_CONNECT);
  const auto errors = TransportErrors(log);
  ASSERT_EQ(errors.size(), 1u);
  const std::string& m = errors[0].message;
  EXPECT_TRUE(Contains(m, "back end " + address)) << m;
  EXPECT_TRUE(Contains(m, strerror(ECONNREFUSED))) << m;
  EXPECT_TRUE(Contains(m, "request 0x2A")) << m;
  EXPECT_TRUE(Contains(m, "cannot connect to the back end")) << m;
}

TEST_F(SocketTransportTest, ReconnectsAfterTheBackEndRestarts) {
  auto server = TestServer::Unix(socketPath(), EchoHandler);
  ASSERT_TRUE(server);
  KitLogCapture log;
  CSnmpSocketTransport t(Options(server->address()));
  unsigned int token = 0;
  EXPECT_EQ(Call(t, 1, &token), 0);
  server->stop();  // closes the connection the transport holds
  server = TestServer::Unix(socketPath(), EchoHandler);
  ASSERT_TRUE(server);
  EXPECT_EQ(Call(t, 2, &token), 0);
  EXPECT_EQ(token, 2u);
  EXPECT_EQ(t.connectCount(), 2u);
  EXPECT_EQ(server->accepted(), 1);
  EXPECT_TRUE(TransportErrors(log).empty());  // the closed idle connection was replaced, not a failure
}

TEST_F(SocketTransportTest, UnaskedBytesOnAnIdleConnectionAreNeverReadAsAnAnswer) {
  Gate extraSent;
  auto server = TestServer::Unix(socketPath(), [&](Conn& c) {
    CTLVPackage req;
    while (c.read(req)) {
      c.answer(0, {Rec().u32(0, TokenOf(req))});
      if (c.index() == 0) {  // then a second answer nobody asked for
        c.answer(0, {Rec().u32(0, 999)});
        extraSent.open();
      }
    }
  });
  ASSERT_TRUE(server);
  CSnmpSocketTransport t(Options(server->address()));
  unsigned int token = 0;
  EXPECT_EQ(Call(t, 1, &token), 0);
  ASSERT_TRUE(extraSent.wait());
  EXPECT_EQ(Call(t, 2, &token), 0);
  EXPECT_EQ(token, 2u);
  EXPECT_EQ(t.connectCount(), 2u);
}

TEST_F(SocketTransportTest, GarbageFromTheBackEndIsABadFrame) {
  auto server = TestServer::Unix(socketPath(), [&](Conn& c) {
    CTLVPackage req;
    while (c.read(req)) {
      if (c.index() == 0) {
        const std::string text = "HTTP/1.0 400 Bad Request\r\n\r\n";
        c.sendRaw(Bytes(text.begin(), text.end()));
      } else {
        c.answer(0, {Rec().u32(0, TokenOf(req))});
      }
    }
  });
  ASSERT_TRUE(server);
  KitLogCapture log;
  CSnmpSocketTransport t(Options(server->address()));
  unsigned int token = 0;
  EXPECT_EQ(Call(t, 1), SNMP_TRANSPORT_E_BAD_FRAME);
  ExpectOneTransportError(log, "bad magic");
  EXPECT_EQ(Call(t, 2, &token), 0);  // on a fresh connection
  EXPECT_EQ(token, 2u);
}

TEST_F(SocketTransportTest, AnswerWhoseBodyDoesNotDecodeIsABadFrame) {
  auto server = TestServer::Unix(socketPath(), [&](Conn& c) {
    CTLVPackage req;
    while (c.read(req)) {
      Bytes frame(28 + 5, 0xFF);
      tlv::EncodeFixed32(frame.data(), TLVMsgHeadV3::MAGIC);
      tlv::EncodeFixed32(frame.data() + 4, 3);
      tlv::EncodeFixed32(frame.data() + 8, 0);
      tlv::EncodeFixed32(frame.data() + 24, 5);  // 5 bytes: shorter than any record
      c.sendRaw(frame);
    }
  });
  ASSERT_TRUE(server);
  KitLogCapture log;
  CSnmpSocketTransport t(Options(server->address()));
  EXPECT_EQ(Call(t, 1), SNMP_TRANSPORT_E_BAD_FRAME);
  ExpectOneTransportError(log, "does not decode");
}

TEST_F(SocketTransportTest, AnswerAboveTheSizeLimitIsTooLarge) {
  auto server = TestServer::Unix(socketPath(), [&](Conn& c) {
    CTLVPackage req;
    while (c.read(req)) c.answer(0, {Rec().cell(0, 2, Bytes(2000, 'z'))});
  });
  ASSERT_TRUE(server);
  KitLogCapture log;
  CSnmpSocketTransportOptions o = Options(server->address());
  o.maxBody = 1024;
  CSnmpSocketTransport t(o);
  CTLVPackage req, rsp;
  req.push_back(TokenRecord(1));
  EXPECT_EQ(t.exchange(req, rsp, false), SNMP_TRANSPORT_E_TOO_LARGE);
  EXPECT_TRUE(rsp.empty());
  ExpectOneTransportError(log, "dataLen 2014 exceeds the limit of 1024");
}

TEST_F(SocketTransportTest, AnswerCutShortByAClosedConnectionIsClosed) {
  auto server = TestServer::Unix(socketPath(), [&](Conn& c) {
    CTLVPackage req;
    if (!c.read(req)) return;
    CTLVPackage rsp;
    rsp.push_back(Rec().u32(0, 1).build());
    const Bytes whole = Encode(rsp);
    c.sendRaw(Bytes(whole.begin(), whole.begin() + 20));  // then the handler ends: the server closes
  });
  ASSERT_TRUE(server);
  KitLogCapture log;
  CSnmpSocketTransport t(Options(server->address()));
  EXPECT_EQ(Call(t, 1), SNMP_TRANSPORT_E_CLOSED);
  ExpectOneTransportError(log, "connection closed before a whole answer");
}

TEST_F(SocketTransportTest, ConcurrentCallersEachGetTheirOwnAnswer) {
  std::atomic<int> overlaps{0};
  auto server = TestServer::Unix(socketPath(), [&](Conn& c) {
    CTLVPackage req;
    while (c.read(req)) {
      // With one request in flight nothing more can have arrived yet.
      std::this_thread::sleep_for(std::chrono::microseconds(200));
      pollfd pfd{c.fd(), POLLIN, 0};
      if (poll(&pfd, 1, 0) > 0 && (pfd.revents & POLLIN)) overlaps++;
      c.answer(0, {Rec().u32(0, TokenOf(req))});
    }
  });
  ASSERT_TRUE(server);
  CSnmpSocketTransport t(Options(server->address()));
  const int kThreads = 4, kCalls = 25;
  std::atomic<int> good{0}, wrong{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      for (int n = 0; n < kCalls; ++n) {
        const unsigned int mine = static_cast<unsigned int>(1000 * (i + 1) + n);
        unsigned int got = 0;
        if (Call(t, mine, &got) == 0 && got == mine) {
          good++;
        } else {
          wrong++;
        }
      }
    });
  }
  for (std::thread& th : threads) th.join();
  EXPECT_EQ(good.load(), kThreads * kCalls);
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(overlaps.load(), 0);
  EXPECT_EQ(server->accepted(), 1);
}

TEST_F(SocketTransportTest, EachFailureIsLoggedOnceWithItsReason) {
  auto server = TestServer::Unix(socketPath(), [&](Conn& c) {
    CTLVPackage req;
    while (c.read(req)) {
    }  // never answers
  });
  ASSERT_TRUE(server);
  KitLogCapture log;
  CSnmpSocketTransportOptions o = Options(server->address());
  o.callTimeout = Ms(100);
  CSnmpSocketTransport t(o);
  CTLVPackage req, rsp;
  req.push_back(Rec(0xDE0000100ULL).build());
  EXPECT_EQ(t.exchange(req, rsp, false), SNMP_TRANSPORT_E_TIMEOUT);
  const auto errors = TransportErrors(log);
  ASSERT_EQ(errors.size(), 1u);
  const std::string& m = errors[0].message;
  EXPECT_TRUE(Contains(m, "back end unix:" + socketPath())) << m;
  EXPECT_TRUE(Contains(m, "no whole answer within 100 ms (deadline passed)")) << m;
  EXPECT_TRUE(Contains(m, "request 0xDE0000100, call #1")) << m;
  EXPECT_TRUE(Contains(m, "back end timed out")) << m;
  EXPECT_EQ(errors[0].function, "exchange");
}

TEST_F(SocketTransportTest, RequestThatCannotBeEncodedIsRefusedBeforeConnecting) {
  auto server = TestServer::Unix(socketPath(), EchoHandler);
  ASSERT_TRUE(server);
  KitLogCapture log;
  CSnmpSocketTransport t(Options(server->address()));
  CTLVPackage req, rsp;
  // 80008 bytes of cells: more than a record's 16-bit length can say.
  req.push_back(Rec(0x2A).cell(0, 2, Bytes(40000, 'a')).cell(1, 2, Bytes(40000, 'b')).build());
  EXPECT_EQ(t.exchange(req, rsp, false), SNMP_TRANSPORT_E_ENCODE);
  EXPECT_EQ(t.connectCount(), 0u);
  ExpectOneTransportError(log, "record 0 holds 80008 bytes of cells");
  std::this_thread::sleep_for(Ms(50));
  EXPECT_EQ(server->accepted(), 0);
}

TEST_F(SocketTransportTest, RequestAboveTheSizeLimitIsNotSent) {
  auto server = TestServer::Unix(socketPath(), EchoHandler);
  ASSERT_TRUE(server);
  CSnmpSocketTransportOptions o = Options(server->address());
  o.maxBody = 100;
  CSnmpSocketTransport t(o);
  CTLVPackage req, rsp;
  req.push_back(Rec(0x2A).cell(0, 2, Bytes(200, 'a')).build());
  EXPECT_EQ(t.exchange(req, rsp, false), SNMP_TRANSPORT_E_ENCODE);
  EXPECT_EQ(t.connectCount(), 0u);
}

TEST_F(SocketTransportTest, PeerThatClosesWithoutReadingGivesClosedAndNoSigpipe) {
  // SIGPIPE keeps its default action: raising it would end this test binary.
  auto server = TestServer::Unix(socketPath(), [](Conn&) {});  // closes at once
  ASSERT_TRUE(server);
  CSnmpSocketTransport t(Options(server->address()));
  CTLVPackage req, rsp;
  for (int i = 0; i < 32; ++i) req.push_back(Rec(i).cell(0, 2, Bytes(60000, 'x')).build());  // ~2 MB
  const int rc = t.exchange(req, rsp, false);
  EXPECT_EQ(rc, SNMP_TRANSPORT_E_CLOSED) << std::hex << rc;
}

// Descriptors of this process that are sockets connected to the path.
std::vector<int> SocketsConnectedTo(const std::string& path) {
  std::vector<int> out;
  DIR* d = opendir("/proc/self/fd");
  if (d == nullptr) return out;
  while (dirent* e = readdir(d)) {
    const int fd = atoi(e->d_name);
    if (e->d_name[0] == '.' || fd == dirfd(d)) continue;
    sockaddr_un peer{};
    socklen_t len = sizeof peer;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &len) == 0 && peer.sun_family == AF_UNIX &&
        path == peer.sun_path) {
      out.push_back(fd);
    }
  }
  closedir(d);
  return out;
}

TEST_F(SocketTransportTest, ItsSocketIsCloseOnExecAndClosedWithTheTransport) {
  Gate peerClosed;
  auto server = TestServer::Unix(socketPath(), [&](Conn& c) {
    EchoHandler(c);  // returns at the end of the stream
    peerClosed.open();
  });
  ASSERT_TRUE(server);
  std::unique_ptr<CSnmpSocketTransport> t(new CSnmpSocketTransport(Options(server->address())));
  EXPECT_TRUE(SocketsConnectedTo(socketPath()).empty());
  EXPECT_EQ(Call(*t, 1), 0);
  const std::vector<int> fds = SocketsConnectedTo(socketPath());
  ASSERT_EQ(fds.size(), 1u);
  EXPECT_TRUE(fcntl(fds[0], F_GETFD) & FD_CLOEXEC);
  t.reset();
  EXPECT_TRUE(peerClosed.wait());
  EXPECT_TRUE(SocketsConnectedTo(socketPath()).empty());
}

TEST_F(SocketTransportTest, CarriesTheCapabilityQueryEndToEnd) {
  std::string error;
  ASSERT_TRUE(CVEMXmlConfig::instance()->loadFromString(
      "<device><section name=\"COMMAND\"><item key=\"GET_SNMP_FEATURES\" value=\"59594907904\"/>"
      "</section></device>",
      &error))
      << error;
  std::atomic<int> queries{0};
  auto server = TestServer::Unix(socketPath(), [&](Conn& c) {
    CTLVPackage req;
    while (c.read(req)) {
      queries++;
      if (req.size() == 1 && req[0]->id() == 59594907904ULL && req[0]->cellCount() == 0) {
        c.answer(0, {Rec().u32(0, 48), Rec().u32(0, 49), Rec().u32(0, 602)});
      } else {
        c.answer(1);
      }
    }
  });
  ASSERT_TRUE(server);
  auto transport = std::make_shared<CSnmpSocketTransport>(Options(server->address()));
  auto previous = CSNMP_Configuration::instance()->setTransport(transport);
  auto previousSource = SetSnmpCapabilitySource(std::make_shared<CBackendCapabilitySource>());
  EXPECT_TRUE(checkOidFeatureSurport(SNMP_FEATURE_NFS));
  EXPECT_TRUE(checkOidFeatureSurport(SNMP_FEATURE_CIFS));
  EXPECT_TRUE(checkOidFeatureSurport(SNMP_FEATURE_FILESYSTEM_PERF));
  EXPECT_EQ(queries.load(), 1);
  SetSnmpCapabilitySource(previousSource);
  CSNMP_Configuration::instance()->setTransport(previous);
}

}  // namespace
