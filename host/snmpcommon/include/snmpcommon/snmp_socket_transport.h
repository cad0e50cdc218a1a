// CSnmpSocketTransport: the host's real path to the management back end, a
// stream socket (Unix domain by default, TCP as an option) carrying one
// request frame and one answer frame at a time.
//
// One connection per transport, opened on first use and again after any
// failure. A call that gets no whole answer within its timeout drops the
// connection, so a late answer can never be taken for the next request's.
// After a failed connect, calls fail fast with SNMP_TRANSPORT_E_CONNECT for
// the retry interval instead of waiting on a back end that is down; after a
// call timed out, with SNMP_TRANSPORT_E_TIMEOUT, instead of waiting out one
// timeout per call on a back end that hangs (one SNMP request may need many
// back-end calls, and its manager gives up after about a second).
#ifndef ZERVA_SNMPCOMMON_SNMP_SOCKET_TRANSPORT_H_
#define ZERVA_SNMPCOMMON_SNMP_SOCKET_TRANSPORT_H_

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "snmpcommon/snmp_backend_frame.h"
#include "snmpcommon/snmp_configuration.h"

struct CSnmpSocketTransportOptions {
  CSnmpBackendAddress address;
  std::chrono::milliseconds connectTimeout{200};
  // Whole exchange (send the request, receive the whole answer).
  std::chrono::milliseconds callTimeout{400};
  // Listings may be long: their exchanges get this timeout instead.
  std::chrono::milliseconds listingTimeout{800};
  // After a failed connect or a timed-out call, calls answer its code
  // (SNMP_TRANSPORT_E_CONNECT, SNMP_TRANSPORT_E_TIMEOUT) at once for this
  // long.
  std::chrono::milliseconds retryInterval{500};
  size_t maxBody = SNMP_FRAME_DEFAULT_MAX_BODY;
};

class CSnmpSocketTransport : public ISnmpBackendTransport {
 public:
  explicit CSnmpSocketTransport(const CSnmpSocketTransportOptions& options);
  ~CSnmpSocketTransport() override;

  // Thread-safe: calls are serialised, one request in flight.
  int exchange(CTLVPackageV3<TLVMsgHeadV3>& req, CTLVPackageV3<TLVMsgHeadV3>& rsp, bool listing) override;

  const CSnmpSocketTransportOptions& options() const { return options_; }
  // Connections opened so far (reconnects included).
  uint64_t connectCount() const;
  // Ends the transport for good, from any thread: the call under way ends at
  // once (its connection is shut down under it) and every later call
  // answers SNMP_TRANSPORT_E_NOT_CONFIGURED without trying. The agent stops
  // so without waiting out a slow array.
  void shutdown();

 private:
  struct State;
  CSnmpSocketTransportOptions options_;
  std::unique_ptr<State> state_;
};

#endif  // ZERVA_SNMPCOMMON_SNMP_SOCKET_TRANSPORT_H_
