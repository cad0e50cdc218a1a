#include "snmpcommon/snmp_configuration.h"

#include "snmpcommon/snmp_read_failures.h"
#include "vempub/vem_debug_kit.h"

const char* SnmpTransportErrorText(int code) {
  switch (code) {
    case SNMP_TRANSPORT_E_NOT_CONFIGURED:
      return "no back end configured";
    case SNMP_TRANSPORT_E_CONNECT:
      return "cannot connect to the back end";
    case SNMP_TRANSPORT_E_TIMEOUT:
      return "back end timed out";
    case SNMP_TRANSPORT_E_CLOSED:
      return "back end closed the connection";
    case SNMP_TRANSPORT_E_BAD_FRAME:
      return "bad frame from the back end";
    case SNMP_TRANSPORT_E_TOO_LARGE:
      return "frame from the back end exceeds the size limit";
    case SNMP_TRANSPORT_E_IO:
      return "i/o error with the back end";
    case SNMP_TRANSPORT_E_ENCODE:
      return "request could not be encoded";
    default:
      return "";
  }
}

CSNMP_Configuration* CSNMP_Configuration::instance() {
  static CSNMP_Configuration* const config = new CSNMP_Configuration();  // never destroyed: used until exit
  return config;
}

int CSNMP_Configuration::configure(CTLVPackageV3<TLVMsgHeadV3>& req, CTLVPackageV3<TLVMsgHeadV3>& rsp, bool listing) {
  std::shared_ptr<ISnmpBackendTransport> t = transport();
  if (!t) {
    failures_.fetch_add(1);
    CSnmpReadFailures::noteFailedCall(SNMP_TRANSPORT_E_NOT_CONFIGURED);
    VEMLog(VEM_KIT_HOST, VEM_LOG_ERROR, "configure", __LINE__, "no back end configured, request 0x%llX refused",
           req.empty() ? 0ULL : req[0]->id());
    return SNMP_TRANSPORT_E_NOT_CONFIGURED;
  }
  const int result = t->exchange(req, rsp, listing);
  if (IsSnmpTransportError(result)) failures_.fetch_add(1);
  if (result != 0) CSnmpReadFailures::noteFailedCall(result);
  return result;
}

std::shared_ptr<ISnmpBackendTransport> CSNMP_Configuration::setTransport(
    std::shared_ptr<ISnmpBackendTransport> transport) {
  std::lock_guard<std::mutex> lock(mu_);
  std::swap(transport_, transport);
  return transport;
}

std::shared_ptr<ISnmpBackendTransport> CSNMP_Configuration::transport() const {
  std::lock_guard<std::mutex> lock(mu_);
  return transport_;
}
