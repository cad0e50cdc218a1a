#include "snmpcommon/snmp_backend_frame.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <climits>
#include <cstring>

#include "snmpcommon/snmp_configuration.h"
#include "tlv/coding.h"
#include "tlv/vem_message_package.h"
#include "vempub/vem_decimal.h"

namespace {

const size_t kHeaderSize = TLVMsgHeadV3::SIZE;
// magic (offset 0) and version (offset 4): the bytes every frame starts with.
const size_t kPrefixSize = 8;
const size_t kDataLenOffset = 24;

void SetReason(std::string* reason, const std::string& text) {
  if (reason != nullptr) *reason = text;
}

std::string ErrnoText(const char* what, int err) { return std::string(what) + ": " + strerror(err); }

// Milliseconds left until the deadline for poll(): -1 for no deadline, 0 once
// it has passed, rounded up so that poll never wakes before the deadline.
int PollTimeout(CSnmpDeadline deadline) {
  if (deadline == SnmpNoDeadline()) return -1;
  const auto now = std::chrono::steady_clock::now();
  if (deadline <= now) return 0;
  const auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - now).count();
  const long long ms = (left + 999) / 1000;
  return ms > INT_MAX ? INT_MAX : static_cast<int>(ms);
}

// Waits until fd is ready for events. Returns 0, SNMP_TRANSPORT_E_TIMEOUT or
// SNMP_TRANSPORT_E_IO. Readiness includes error and hang-up conditions: the
// following recv or send reports them.
int WaitReady(int fd, short events, CSnmpDeadline deadline, std::string* reason) {
  for (;;) {
    const int timeout = PollTimeout(deadline);
    struct pollfd pfd;
    pfd.fd = fd;
    pfd.events = events;
    pfd.revents = 0;
    const int n = poll(&pfd, 1, timeout);
    if (n > 0) {
      if (pfd.revents & POLLNVAL) {
        SetReason(reason, ErrnoText("poll", EBADF));
        return SNMP_TRANSPORT_E_IO;
      }
      return 0;
    }
    if (n == 0) {
      if (timeout == 0 || std::chrono::steady_clock::now() >= deadline) {
        SetReason(reason, "deadline passed");
        return SNMP_TRANSPORT_E_TIMEOUT;
      }
      continue;  // woke a little early: wait for the rest
    }
    if (errno == EINTR) continue;
    SetReason(reason, ErrnoText("poll", errno));
    return SNMP_TRANSPORT_E_IO;
  }
}

// True for the errors that mean the peer is gone.
bool PeerGone(int err) { return err == EPIPE || err == ECONNRESET; }

// Receives some bytes (at most len) into buf. Returns 0 with *got > 0, or an
// error code; end of stream is SNMP_TRANSPORT_E_CLOSED.
int ReceiveSome(int fd, unsigned char* buf, size_t len, CSnmpDeadline deadline, size_t* got, std::string* reason) {
  for (;;) {
    int rc = WaitReady(fd, POLLIN, deadline, reason);
    if (rc != 0) return rc;
    const ssize_t n = recv(fd, buf, len, MSG_DONTWAIT);
    if (n > 0) {
      *got = static_cast<size_t>(n);
      return 0;
    }
    if (n == 0) {
      SetReason(reason, "end of stream");
      return SNMP_TRANSPORT_E_CLOSED;
    }
    if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK) continue;
    SetReason(reason, ErrnoText("recv", errno));
    return PeerGone(errno) ? SNMP_TRANSPORT_E_CLOSED : SNMP_TRANSPORT_E_IO;
  }
}

// Receives exactly len bytes into buf.
int ReceiveAll(int fd, unsigned char* buf, size_t len, CSnmpDeadline deadline, std::string* reason) {
  size_t done = 0;
  while (done < len) {
    size_t got = 0;
    int rc = ReceiveSome(fd, buf + done, len - done, deadline, &got, reason);
    if (rc != 0) return rc;
    done += got;
  }
  return 0;
}

// Checks the first n (up to 8) bytes of a header against magic and version.
int CheckPrefix(const unsigned char* head, size_t n, std::string* reason) {
  unsigned char expected[kPrefixSize];
  tlv::EncodeFixed32(expected, TLVMsgHeadV3::MAGIC);
  tlv::EncodeFixed32(expected + 4, TLVMsgHeadV3::VERSION);
  const size_t upto = n < kPrefixSize ? n : kPrefixSize;
  for (size_t i = 0; i < upto; ++i) {
    if (head[i] == expected[i]) continue;
    char text[96];
    if (i < 4) {
      snprintf(text, sizeof text, "bad magic: byte %zu is 0x%02X, expected 0x%02X", i, head[i], expected[i]);
    } else {
      snprintf(text, sizeof text, "bad version: byte %zu is 0x%02X, expected 0x%02X", i, head[i], expected[i]);
    }
    SetReason(reason, text);
    return SNMP_TRANSPORT_E_BAD_FRAME;
  }
  return 0;
}

}  // namespace

int ReadBackendFrame(int fd, std::vector<unsigned char>& frame, size_t maxBody, CSnmpDeadline deadline,
                     std::string* reason) {
  frame.clear();
  // The header arrives in pieces of any size; magic and version are checked
  // on every piece, so garbage is refused as soon as its first wrong byte is
  // in, without waiting for a whole header.
  unsigned char head[kHeaderSize];
  size_t have = 0;
  while (have < kHeaderSize) {
    size_t got = 0;
    int rc = ReceiveSome(fd, head + have, kHeaderSize - have, deadline, &got, reason);
    if (rc != 0) {
      if (rc == SNMP_TRANSPORT_E_CLOSED && have > 0 && reason != nullptr) *reason += " inside a frame header";
      return rc;
    }
    have += got;
    rc = CheckPrefix(head, have, reason);
    if (rc != 0) return rc;
  }
  const uint32_t dataLen = tlv::DecodeFixed32(head + kDataLenOffset);
  if (dataLen > maxBody) {
    SetReason(reason, "dataLen " + std::to_string(dataLen) + " exceeds the limit of " + std::to_string(maxBody));
    return SNMP_TRANSPORT_E_TOO_LARGE;
  }
  frame.resize(kHeaderSize + dataLen);
  std::memcpy(frame.data(), head, kHeaderSize);
  int rc = ReceiveAll(fd, frame.data() + kHeaderSize, dataLen, deadline, reason);
  if (rc != 0) {
    if (rc == SNMP_TRANSPORT_E_CLOSED && reason != nullptr) *reason += " inside a frame body";
    frame.clear();
  }
  return rc;
}

int WriteBackendFrame(int fd, const unsigned char* data, size_t size, CSnmpDeadline deadline, std::string* reason) {
  size_t done = 0;
  while (done < size) {
    int rc = WaitReady(fd, POLLOUT, deadline, reason);
    if (rc != 0) return rc;
    const ssize_t n = send(fd, data + done, size - done, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n >= 0) {
      done += static_cast<size_t>(n);
      continue;
    }
    if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK) continue;
    SetReason(reason, ErrnoText("send", errno));
    return PeerGone(errno) ? SNMP_TRANSPORT_E_CLOSED : SNMP_TRANSPORT_E_IO;
  }
  return 0;
}

namespace {

bool Fail(std::string* error, const std::string& text) {
  if (error != nullptr) *error = text;
  return false;
}

bool ParseUnix(const std::string& text, const std::string& rest, CSnmpBackendAddress& out, std::string* error) {
  if (rest.empty()) return Fail(error, "'" + text + "': empty socket path");
  if (rest.find('\0') != std::string::npos) return Fail(error, "'" + text + "': NUL byte in socket path");
  const size_t limit = sizeof(sockaddr_un::sun_path) - 1;  // room for the terminating NUL
  if (rest.size() > limit) {
    return Fail(error, "'" + text + "': socket path is " + std::to_string(rest.size()) + " bytes, at most " +
                           std::to_string(limit) + " fit");
  }
  out = CSnmpBackendAddress();
  out.kind = CSnmpBackendAddress::UNIX;
  out.path = rest;
  return true;
}

bool ParseTcp(const std::string& text, const std::string& rest, CSnmpBackendAddress& out, std::string* error) {
  std::string host;
  std::string port;
  if (!rest.empty() && rest[0] == '[') {  // [IPv6]:port
    const size_t close = rest.find(']');
    if (close == std::string::npos) return Fail(error, "'" + text + "': missing ']' after IPv6 address");
    host = rest.substr(1, close - 1);
    if (close + 1 >= rest.size() || rest[close + 1] != ':') {
      return Fail(error, "'" + text + "': expected tcp:host:port");
    }
    port = rest.substr(close + 2);
  } else {
    const size_t colon = rest.rfind(':');
    if (colon == std::string::npos) return Fail(error, "'" + text + "': expected tcp:host:port");
    host = rest.substr(0, colon);
    port = rest.substr(colon + 1);
    if (host.find(':') != std::string::npos) {
      return Fail(error, "'" + text + "': an IPv6 address must be written in brackets, tcp:[addr]:port");
    }
  }
  if (host.empty()) return Fail(error, "'" + text + "': empty host");
  if (port.empty()) return Fail(error, "'" + text + "': empty port");
  uint64_t value = 0;
  if (!ParseDecimal(port, UINT64_MAX, &value)) {
    return Fail(error, "'" + text + "': port '" + port + "' is not a number from 0 to 65535");
  }
  if (value > 65535) return Fail(error, "'" + text + "': port " + port + " is out of range 0..65535");
  out = CSnmpBackendAddress();
  out.kind = CSnmpBackendAddress::TCP;
  out.host = host;
  out.port = static_cast<unsigned short>(value);
  return true;
}

}  // namespace

bool CSnmpBackendAddress::parse(const std::string& text, CSnmpBackendAddress& out, std::string* error) {
  const size_t colon = text.find(':');
  if (colon == std::string::npos) {
    return Fail(error, "'" + text + "': expected unix:/path/to/socket or tcp:host:port");
  }
  const std::string scheme = text.substr(0, colon);
  const std::string rest = text.substr(colon + 1);
  if (scheme == "unix") return ParseUnix(text, rest, out, error);
  if (scheme == "tcp") return ParseTcp(text, rest, out, error);
  return Fail(error, "'" + text + "': unknown address kind '" + scheme + "', expected unix: or tcp:");
}

std::string CSnmpBackendAddress::toString() const {
  if (kind == UNIX) return "unix:" + path;
  const bool v6 = host.find(':') != std::string::npos;
  return "tcp:" + (v6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}
