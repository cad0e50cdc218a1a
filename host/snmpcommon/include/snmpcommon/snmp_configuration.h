// CSNMP_Configuration: the host's synchronous path to the array's
// management back end.
//
// configure(req, rsp, flag) hands a request package to the installed
// transport, which carries it to the back end and decodes the answer into
// rsp. It returns 0 on success, the back end's own non-zero result code
// unchanged, or one of the transport codes below, which no back end may use
// (the protocol reserves the range 0x4E540000 to 0x4E5400FF for them).
// Every non-zero result is also counted in CSnmpReadFailures
// (snmp_read_failures.h), so that a caller learns of a failed call even when
// the handler that made it answers anyway.
#ifndef ZERVA_SNMPCOMMON_SNMP_CONFIGURATION_H_
#define ZERVA_SNMPCOMMON_SNMP_CONFIGURATION_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "tlv/vem_message_package.h"

enum ESnmpTransportError : int {
  SNMP_TRANSPORT_E_BASE = 0x4E540000,
  SNMP_TRANSPORT_E_NOT_CONFIGURED = 0x4E540001,  // no back end is set up
  SNMP_TRANSPORT_E_CONNECT = 0x4E540002,         // connection refused or unreachable
  SNMP_TRANSPORT_E_TIMEOUT = 0x4E540003,         // no (whole) answer within the timeout
  SNMP_TRANSPORT_E_CLOSED = 0x4E540004,          // the back end closed the connection
  SNMP_TRANSPORT_E_BAD_FRAME = 0x4E540005,       // bad magic, version or body
  SNMP_TRANSPORT_E_TOO_LARGE = 0x4E540006,       // dataLen above the configured limit
  SNMP_TRANSPORT_E_IO = 0x4E540007,              // send or receive failed
  SNMP_TRANSPORT_E_ENCODE = 0x4E540008,          // the request could not be encoded
  SNMP_TRANSPORT_E_LAST = 0x4E5400FF,
};

// True for the transport's own codes.
inline bool IsSnmpTransportError(int code) { return code >= SNMP_TRANSPORT_E_BASE && code <= SNMP_TRANSPORT_E_LAST; }
// A short English text for a transport code ("timed out", ...); "" otherwise.
const char* SnmpTransportErrorText(int code);

// Carries one request to the back end and its answer back.
class ISnmpBackendTransport {
 public:
  virtual ~ISnmpBackendTransport() {}
  // Sends req, waits for the answer and decodes it into rsp. listing is the
  // third argument of configure: true for object listings (the answer may be
  // long), false for statistics and switch commands. Returns as configure.
  virtual int exchange(CTLVPackageV3<TLVMsgHeadV3>& req, CTLVPackageV3<TLVMsgHeadV3>& rsp, bool listing) = 0;
};

class CSNMP_Configuration {
 public:
  static CSNMP_Configuration* instance();

  // Carries req to the back end and fills rsp with its answer.
  int configure(CTLVPackageV3<TLVMsgHeadV3>& req, CTLVPackageV3<TLVMsgHeadV3>& rsp, bool listing);

  // Installs the transport (null removes it: configure then answers
  // SNMP_TRANSPORT_E_NOT_CONFIGURED). Returns the previous one.
  std::shared_ptr<ISnmpBackendTransport> setTransport(std::shared_ptr<ISnmpBackendTransport> transport);
  std::shared_ptr<ISnmpBackendTransport> transport() const;

  // Calls that ended with a transport code so far. A handler may turn a
  // failed call into an answer of its own (a failed switch query reads as
  // "collection off"); a caller that compares the count before and after
  // the handler learns that the back end failed meanwhile.
  uint64_t transportFailures() const { return failures_.load(); }

 private:
  CSNMP_Configuration() {}
  mutable std::mutex mu_;
  std::shared_ptr<ISnmpBackendTransport> transport_;
  std::atomic<uint64_t> failures_{0};
};

#endif  // ZERVA_SNMPCOMMON_SNMP_CONFIGURATION_H_
