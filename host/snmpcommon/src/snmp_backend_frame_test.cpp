#include "snmpcommon/snmp_backend_frame.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <thread>

#include "snmpcommon/snmp_configuration.h"
#include "tests/support/fake_backend.h"
#include "tlv/coding.h"

// Allocation watch: this binary's operator new records the largest single
// request while a test has the watch on, so a test can show that a frame
// reader never asked for the memory a hostile header claims.
namespace {
std::atomic<bool> g_watchAllocations{false};
std::atomic<size_t> g_largestAllocation{0};
}  // namespace

void* operator new(size_t n) {
  if (g_watchAllocations.load(std::memory_order_relaxed)) {
    size_t seen = g_largestAllocation.load(std::memory_order_relaxed);
    while (n > seen && !g_largestAllocation.compare_exchange_weak(seen, n)) {
    }
  }
  void* p = malloc(n == 0 ? 1 : n);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}
// Every other form is replaced too, so that whatever a library allocates with
// one of them (ACE uses the nothrow form) is freed by the matching form here.
void* operator new[](size_t n) { return operator new(n); }
void* operator new(size_t n, const std::nothrow_t&) noexcept {
  try {
    return operator new(n);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
void* operator new[](size_t n, const std::nothrow_t& tag) noexcept { return operator new(n, tag); }
// GCC pairs the inlined free() below with the new-expressions of the callers
// and would warn; the pair is right, as operator new above uses malloc().
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void operator delete(void* p) noexcept { free(p); }
void operator delete(void* p, size_t) noexcept { free(p); }
void operator delete[](void* p) noexcept { free(p); }
void operator delete[](void* p, size_t) noexcept { free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { free(p); }
#pragma GCC diagnostic pop

namespace {

using zerva_test::Encode;
using zerva_test::PackageText;
using zerva_test::Rec;

typedef std::vector<unsigned char> Bytes;

CSnmpDeadline In(int ms) { return std::chrono::steady_clock::now() + std::chrono::milliseconds(ms); }

// A connected pair of Unix stream sockets, closed on destruction.
struct SocketPair {
  int fd[2] = {-1, -1};
  SocketPair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fd), 0); }
  ~SocketPair() {
    closeEnd(0);
    closeEnd(1);
  }
  void closeEnd(int i) {
    if (fd[i] >= 0) close(fd[i]);
    fd[i] = -1;
  }
  void send(const Bytes& bytes) const {
    ASSERT_EQ(::send(fd[1], bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
  }
  void shrinkBuffers() const {
    int size = 4096;
    for (int i = 0; i < 2; ++i) {
      setsockopt(fd[i], SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
      setsockopt(fd[i], SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    }
  }
};

// A frame with three records of assorted cells.
Bytes SampleFrame() {
  CTLVPackage pkg;
  pkg.head().hdrWord0 = 7;
  pkg.push_back(Rec(0x2A).u32(0, 48).str(1, "ctrl 0A").build());
  pkg.push_back(Rec().t6(2, 0x1122334455667788ULL).build());
  pkg.push_back(Rec(0xD0000C000ULL).build());
  return Encode(pkg);
}

// A frame header (28 bytes) with these fields and defaults for the rest.
Bytes Header(uint32_t magic, uint32_t version, uint32_t dataLen) {
  Bytes h(28, 0xFF);
  tlv::EncodeFixed32(h.data(), magic);
  tlv::EncodeFixed32(h.data() + 4, version);
  tlv::EncodeFixed32(h.data() + 8, 0);
  tlv::EncodeFixed32(h.data() + 24, dataLen);
  return h;
}

// Bytes waiting to be read on fd, without blocking.
size_t Pending(int fd) {
  unsigned char buf[256];
  ssize_t n = recv(fd, buf, sizeof buf, MSG_DONTWAIT | MSG_PEEK);
  return n > 0 ? static_cast<size_t>(n) : 0;
}

TEST(BackendFrameTest, RoundTripKeepsEveryByte) {
  SocketPair sp;
  const Bytes sent = SampleFrame();
  ASSERT_EQ(WriteBackendFrame(sp.fd[1], sent.data(), sent.size(), In(2000)), 0);
  Bytes got;
  ASSERT_EQ(ReadBackendFrame(sp.fd[0], got, SNMP_FRAME_DEFAULT_MAX_BODY, In(2000)), 0);
  EXPECT_EQ(got, sent);
  CTLVPackage decoded;
  ASSERT_EQ(decoded.decode(got.data(), static_cast<unsigned int>(got.size())), got.size() - 28);
  EXPECT_EQ(decoded.head().hdrWord0, 7u);
  EXPECT_EQ(PackageText(decoded),
            (std::vector<std::string>{"0x2A: 0/3/4/48 1/2/8/\"ctrl 0A\\0\"",
                                      "0xFFFFFFFFFFFFFFFF: 2/6/8/1234605616436508552", "0xD0000C000: "}));
}

TEST(BackendFrameTest, ReadsTwoFramesSentBackToBackOneAtATime) {
  SocketPair sp;
  Bytes first = SampleFrame();
  CTLVPackage small;
  Bytes second = Encode(small);
  Bytes both = first;
  both.insert(both.end(), second.begin(), second.end());
  sp.send(both);
  Bytes got;
  ASSERT_EQ(ReadBackendFrame(sp.fd[0], got, SNMP_FRAME_DEFAULT_MAX_BODY, In(2000)), 0);
  EXPECT_EQ(got, first);
  ASSERT_EQ(ReadBackendFrame(sp.fd[0], got, SNMP_FRAME_DEFAULT_MAX_BODY, In(2000)), 0);
  EXPECT_EQ(got, second);
}

TEST(BackendFrameTest, RoundTripOverTcpLoopback) {
  int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(listener, 0);
  sockaddr_in sin{};
  sin.sin_family = AF_INET;
  sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&sin), sizeof sin), 0);
  ASSERT_EQ(listen(listener, 1), 0);
  socklen_t len = sizeof sin;
  ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&sin), &len), 0);
  int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(connect(client, reinterpret_cast<sockaddr*>(&sin), sizeof sin), 0);
  int server = accept(listener, nullptr, nullptr);
  ASSERT_GE(server, 0);
  const Bytes sent = SampleFrame();
  EXPECT_EQ(WriteBackendFrame(client, sent.data(), sent.size(), In(2000)), 0);
  Bytes got;
  EXPECT_EQ(ReadBackendFrame(server, got, SNMP_FRAME_DEFAULT_MAX_BODY, In(2000)), 0);
  EXPECT_EQ(got, sent);
  close(server);
  close(client);
  close(listener);
}

TEST(BackendFrameTest, ReadsAFrameThatArrivesByteByByte) {
  SocketPair sp;
  const Bytes sent = SampleFrame();
  std::thread writer([&] {
    for (unsigned char b : sent) {
      if (::send(sp.fd[1], &b, 1, MSG_NOSIGNAL) != 1) return;
      std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
  });
  Bytes got;
  const int rc = ReadBackendFrame(sp.fd[0], got, SNMP_FRAME_DEFAULT_MAX_BODY, In(5000));
  writer.join();
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(got, sent);
}

TEST(BackendFrameTest, WritesAndReadsAFrameMuchLargerThanTheSocketBuffers) {
  SocketPair sp;
  sp.shrinkBuffers();
  // 40 records of 50000-byte cells: about 2 MB, so every send is partial.
  CTLVPackage pkg;
  for (int i = 0; i < 40; ++i) {
    pkg.push_back(Rec(i).cell(0, 2, Bytes(50000, static_cast<unsigned char>('a' + i % 26))).build());
  }
  const Bytes sent = Encode(pkg);
  int writeRc = -1;
  std::thread writer([&] { writeRc = WriteBackendFrame(sp.fd[1], sent.data(), sent.size(), In(10000)); });
  Bytes got;
  const int readRc = ReadBackendFrame(sp.fd[0], got, SNMP_FRAME_DEFAULT_MAX_BODY, In(10000));
  writer.join();
  EXPECT_EQ(writeRc, 0);
  EXPECT_EQ(readRc, 0);
  EXPECT_TRUE(got == sent);
}

TEST(BackendFrameTest, WrongMagicIsRefusedAtTheFirstWrongByte) {
  SocketPair sp;
  sp.send(Bytes{'G', 'E', 'T', ' '});  // nothing more follows
  Bytes got;
  std::string reason;
  EXPECT_EQ(ReadBackendFrame(sp.fd[0], got, SNMP_FRAME_DEFAULT_MAX_BODY, In(5000), &reason),
            SNMP_TRANSPORT_E_BAD_FRAME);
  EXPECT_NE(reason.find("bad magic"), std::string::npos) << reason;
  EXPECT_TRUE(got.empty());
}

TEST(BackendFrameTest, WrongVersionIsRefused) {
  SocketPair sp;
  sp.send(Header(TLVMsgHeadV3::MAGIC, 2, 0));
  Bytes got;
  std::string reason;
  EXPECT_EQ(ReadBackendFrame(sp.fd[0], got, SNMP_FRAME_DEFAULT_MAX_BODY, In(5000), &reason),
            SNMP_TRANSPORT_E_BAD_FRAME);
  EXPECT_NE(reason.find("bad version"), std::string::npos) << reason;
}

TEST(BackendFrameTest, DataLenAboveTheLimitIsRefusedWithoutReadingOrAllocatingTheBody) {
  SocketPair sp;
  Bytes frame = Header(TLVMsgHeadV3::MAGIC, 3, 0xFFFFFFF0u);
  frame.insert(frame.end(), 16, 0xAB);  // the start of the claimed body
  sp.send(frame);
  Bytes got;
  std::string reason;
  g_largestAllocation = 0;
  g_watchAllocations = true;
  const int rc = ReadBackendFrame(sp.fd[0], got, SNMP_FRAME_DEFAULT_MAX_BODY, In(5000), &reason);
  g_watchAllocations = false;
  EXPECT_EQ(rc, SNMP_TRANSPORT_E_TOO_LARGE);
  EXPECT_LT(g_largestAllocation.load(), size_t(1) << 20);
  EXPECT_EQ(Pending(sp.fd[0]), 16u);  // not one byte of the body was read
  EXPECT_TRUE(got.empty());
  EXPECT_NE(reason.find("4294967280"), std::string::npos) << reason;
}

TEST(BackendFrameTest, DataLenAtTheLimitIsAccepted) {
  SocketPair sp;
  CTLVPackage pkg;
  pkg.push_back(Rec(1).cell(0, 2, Bytes(50, 'x')).build());  // body: 10 + 4 + 50 = 64
  const Bytes sent = Encode(pkg);
  sp.send(sent);
  Bytes got;
  EXPECT_EQ(ReadBackendFrame(sp.fd[0], got, 64, In(2000)), 0);
  EXPECT_EQ(got, sent);
  sp.send(sent);
  EXPECT_EQ(ReadBackendFrame(sp.fd[0], got, 63, In(2000)), SNMP_TRANSPORT_E_TOO_LARGE);
}

TEST(BackendFrameTest, EndOfStreamBeforeAFrameIsClosed) {
  SocketPair sp;
  sp.closeEnd(1);
  Bytes got;
  EXPECT_EQ(ReadBackendFrame(sp.fd[0], got, SNMP_FRAME_DEFAULT_MAX_BODY, In(2000)), SNMP_TRANSPORT_E_CLOSED);
}

TEST(BackendFrameTest, EndOfStreamInsideAFrameIsClosedAndNamesThePart) {
  const Bytes frame = SampleFrame();
  const struct {
    const char* part;  // where the stream ends, as the reason names it
    size_t sent;       // the bytes of the frame sent before the end
  } cases[] = {{"header", 13}, {"body", frame.size() - 3}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.part);
    SocketPair sp;
    sp.send(Bytes(frame.begin(), frame.begin() + c.sent));
    sp.closeEnd(1);
    Bytes got;
    std::string reason;
    EXPECT_EQ(ReadBackendFrame(sp.fd[0], got, SNMP_FRAME_DEFAULT_MAX_BODY, In(2000), &reason), SNMP_TRANSPORT_E_CLOSED);
    EXPECT_NE(reason.find(c.part), std::string::npos) << reason;
    EXPECT_TRUE(got.empty());
  }
}

TEST(BackendFrameTest, NothingOrHalfAFrameBeforeTheDeadlineTimesOut) {
  const Bytes frame = SampleFrame();
  for (size_t sent : {size_t{0}, size_t{40}}) {
    SCOPED_TRACE(std::to_string(sent) + " bytes sent");
    SocketPair sp;
    if (sent != 0) sp.send(Bytes(frame.begin(), frame.begin() + sent));
    Bytes got;
    EXPECT_EQ(ReadBackendFrame(sp.fd[0], got, SNMP_FRAME_DEFAULT_MAX_BODY, In(50)), SNMP_TRANSPORT_E_TIMEOUT);
    EXPECT_TRUE(got.empty());
  }
}

std::atomic<int> g_signalsCaught{0};
void CountSignal(int) { g_signalsCaught.fetch_add(1); }

TEST(BackendFrameTest, SignalsWhileWaitingDoNotEndTheRead) {
  struct sigaction sa {};
  struct sigaction old {};
  sa.sa_handler = CountSignal;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = 0;  // no SA_RESTART: poll and recv see EINTR
  ASSERT_EQ(sigaction(SIGUSR1, &sa, &old), 0);
  g_signalsCaught = 0;
  SocketPair sp;
  const Bytes sent = SampleFrame();
  int rc = -1;
  Bytes got;
  std::atomic<bool> started{false};
  std::thread reader([&] {
    started = true;
    rc = ReadBackendFrame(sp.fd[0], got, SNMP_FRAME_DEFAULT_MAX_BODY, In(5000));
  });
  while (!started) std::this_thread::yield();
  for (int i = 0; i < 5; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    pthread_kill(reader.native_handle(), SIGUSR1);
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(10));
  sp.send(Bytes(sent.begin(), sent.begin() + 10));
  for (int i = 0; i < 3; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    pthread_kill(reader.native_handle(), SIGUSR1);
  }
  sp.send(Bytes(sent.begin() + 10, sent.end()));
  reader.join();
  sigaction(SIGUSR1, &old, nullptr);
  EXPECT_EQ(g_signalsCaught.load(), 8);
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(got, sent);
}

TEST(BackendFrameTest, WritingToAClosedPeerIsClosedWithoutSigpipe) {
  // SIGPIPE keeps its default action: raising it would end this test binary.
  SocketPair sp;
  sp.closeEnd(1);
  const Bytes frame = SampleFrame();
  std::string reason;
  EXPECT_EQ(WriteBackendFrame(sp.fd[0], frame.data(), frame.size(), In(2000), &reason), SNMP_TRANSPORT_E_CLOSED);
  EXPECT_NE(reason.find(strerror(EPIPE)), std::string::npos) << reason;
}

TEST(BackendFrameTest, WriteTimesOutWhenThePeerDoesNotRead) {
  SocketPair sp;
  sp.shrinkBuffers();
  const Bytes big(4u << 20, 0x55);
  EXPECT_EQ(WriteBackendFrame(sp.fd[0], big.data(), big.size(), In(100)), SNMP_TRANSPORT_E_TIMEOUT);
}

TEST(BackendFrameTest, ReadingAnUnconnectedSocketIsAnIoErrorWithErrnoText) {
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(fd, 0);
  Bytes got;
  std::string reason;
  EXPECT_EQ(ReadBackendFrame(fd, got, SNMP_FRAME_DEFAULT_MAX_BODY, In(1000), &reason), SNMP_TRANSPORT_E_IO);
  EXPECT_EQ(reason, std::string("recv: ") + strerror(EINVAL));  // Linux's errno for this case
  close(fd);
}

// ---- addresses ----

TEST(BackendAddressTest, ParsesUnixAddresses) {
  CSnmpBackendAddress a;
  std::string error;
  ASSERT_TRUE(CSnmpBackendAddress::parse("unix:/run/zerva/backend.sock", a, &error)) << error;
  EXPECT_EQ(a.kind, CSnmpBackendAddress::UNIX);
  EXPECT_EQ(a.path, "/run/zerva/backend.sock");
  EXPECT_EQ(a.toString(), "unix:/run/zerva/backend.sock");
}

TEST(BackendAddressTest, ParsesTcpAddresses) {
  CSnmpBackendAddress a;
  std::string error;
  ASSERT_TRUE(CSnmpBackendAddress::parse("tcp:127.0.0.1:7000", a, &error)) << error;
  EXPECT_EQ(a.kind, CSnmpBackendAddress::TCP);
  EXPECT_EQ(a.host, "127.0.0.1");
  EXPECT_EQ(a.port, 7000);
  EXPECT_EQ(a.toString(), "tcp:127.0.0.1:7000");
  ASSERT_TRUE(CSnmpBackendAddress::parse("tcp:localhost:0", a, &error)) << error;
  EXPECT_EQ(a.host, "localhost");
  EXPECT_EQ(a.port, 0);
  ASSERT_TRUE(CSnmpBackendAddress::parse("tcp:array-mgmt:65535", a, &error)) << error;
  EXPECT_EQ(a.port, 65535);
  // A port is read as its value, leading zeros and all.
  ASSERT_TRUE(CSnmpBackendAddress::parse("tcp:127.0.0.1:0000080", a, &error)) << error;
  EXPECT_EQ(a.port, 80);
  EXPECT_EQ(a.toString(), "tcp:127.0.0.1:80");
  ASSERT_TRUE(CSnmpBackendAddress::parse("tcp:[::1]:8080", a, &error)) << error;
  EXPECT_EQ(a.host, "::1");
  EXPECT_EQ(a.port, 8080);
  EXPECT_EQ(a.toString(), "tcp:[::1]:8080");
}

TEST(BackendAddressTest, PathLengthIsBoundBySunPath) {
  CSnmpBackendAddress a;
  std::string error;
  const std::string fits = "/" + std::string(106, 'p');  // 107 bytes and the NUL
  EXPECT_TRUE(CSnmpBackendAddress::parse("unix:" + fits, a, &error)) << error;
  EXPECT_FALSE(CSnmpBackendAddress::parse("unix:" + fits + "q", a, &error));
  EXPECT_NE(error.find("at most 107"), std::string::npos) << error;
}

struct BadAddress {
  const char* text;
  const char* errorPart;
};

TEST(BackendAddressTest, RefusesBadFormsWithAClearError) {
  const BadAddress cases[] = {
      {"", "expected unix:/path/to/socket or tcp:host:port"},
      {"/run/backend.sock", "expected unix:/path/to/socket or tcp:host:port"},
      {"udp:127.0.0.1:161", "unknown address kind 'udp'"},
      {"unix:", "empty socket path"},
      {"tcp:127.0.0.1", "expected tcp:host:port"},
      {"tcp::7000", "empty host"},
      {"tcp:127.0.0.1:", "empty port"},
      {"tcp:127.0.0.1:65536", "out of range 0..65535"},
      {"tcp:127.0.0.1:99999", "out of range 0..65535"},
      {"tcp:127.0.0.1:123456", "out of range 0..65535"},
      {"tcp:127.0.0.1:99999999999999999999", "not a number from 0 to 65535"},
      {"tcp:127.0.0.1:+80", "not a number from 0 to 65535"},
      {"tcp:127.0.0.1:-1", "not a number from 0 to 65535"},
      {"tcp:127.0.0.1:80a", "not a number from 0 to 65535"},
      {"tcp:127.0.0.1: 80", "not a number from 0 to 65535"},
      {"tcp:::1:80", "in brackets"},
      {"tcp:[::1:80", "missing ']'"},
      {"tcp:[::1]80", "expected tcp:host:port"},
  };
  for (const BadAddress& c : cases) {
    CSnmpBackendAddress a;
    a.path = "untouched";
    std::string error;
    EXPECT_FALSE(CSnmpBackendAddress::parse(c.text, a, &error)) << c.text;
    EXPECT_NE(error.find(c.errorPart), std::string::npos) << c.text << " -> " << error;
    EXPECT_EQ(a.path, "untouched") << c.text;
  }
  CSnmpBackendAddress a;
  EXPECT_FALSE(CSnmpBackendAddress::parse(std::string("unix:/a\0b", 9), a, nullptr));
}

}  // namespace
