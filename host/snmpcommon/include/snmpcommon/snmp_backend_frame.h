// Whole-frame I/O of the back-end protocol on a stream socket.
//
// Every message in both directions is one encoded CTLVPackageV3<TLVMsgHeadV3>:
// the 28-byte header, then dataLen bytes of body. A reader takes the header,
// checks magic and version, refuses a dataLen above its limit before it
// allocates anything, then reads the body. Both the host's transport and the
// array simulator use these functions.
#ifndef ZERVA_SNMPCOMMON_SNMP_BACKEND_FRAME_H_
#define ZERVA_SNMPCOMMON_SNMP_BACKEND_FRAME_H_

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

// Default limit on a frame's body: 8 MiB.
enum : size_t { SNMP_FRAME_DEFAULT_MAX_BODY = 8u << 20 };

typedef std::chrono::steady_clock::time_point CSnmpDeadline;
// A deadline that never comes.
inline CSnmpDeadline SnmpNoDeadline() { return CSnmpDeadline::max(); }

// Reads one whole frame (header and body) from fd into frame.
// Returns 0, or SNMP_TRANSPORT_E_CLOSED (orderly end of stream, also in the
// middle of a frame, or ECONNRESET), SNMP_TRANSPORT_E_TIMEOUT (deadline
// passed), SNMP_TRANSPORT_E_BAD_FRAME (wrong magic or version, refused at the
// first wrong byte, before the rest of the header has arrived),
// SNMP_TRANSPORT_E_TOO_LARGE (dataLen > maxBody; nothing of the body is
// read or allocated) or SNMP_TRANSPORT_E_IO. On success frame holds header
// and body; on failure it is empty and *reason (when given) says what
// happened, with errno's text for system-call failures.
// REQUIRES: fd is a connected stream socket (blocking or not).
int ReadBackendFrame(int fd, std::vector<unsigned char>& frame, size_t maxBody, CSnmpDeadline deadline,
                     std::string* reason = nullptr);

// Writes size bytes (one encoded frame) to fd. Returns 0, or
// SNMP_TRANSPORT_E_CLOSED (peer gone, EPIPE/ECONNRESET; no SIGPIPE is
// raised), SNMP_TRANSPORT_E_TIMEOUT or SNMP_TRANSPORT_E_IO.
int WriteBackendFrame(int fd, const unsigned char* data, size_t size, CSnmpDeadline deadline,
                      std::string* reason = nullptr);

// A back-end address: "unix:/path/to/socket" or "tcp:host:port".
struct CSnmpBackendAddress {
  enum Kind { UNIX, TCP } kind = UNIX;
  std::string path;  // UNIX
  std::string host;  // TCP
  unsigned short port = 0;

  // Parses the text form; false (with *error) for anything else. The path
  // must be non-empty and fit sun_path with its NUL; the port is decimal,
  // 0 to 65535 (0 lets a listener pick one); IPv6 hosts go in brackets,
  // "tcp:[::1]:port".
  static bool parse(const std::string& text, CSnmpBackendAddress& out, std::string* error);
  std::string toString() const;
};

#endif  // ZERVA_SNMPCOMMON_SNMP_BACKEND_FRAME_H_
