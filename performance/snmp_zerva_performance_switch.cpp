#include "performance/snmp_zerva_performance_switch.h"

#include <memory>

#include "diag/vem_debug_kit_guard.h"
#include "performance/command_code.h"
#include "snmpcommon/snmp_configuration.h"
#include "tlv/backend_codes.h"

namespace {

// A one-record request with that command code and, optionally, the state.
void BuildRequest(CTLVPackage& req, long long cmd, const unsigned int* state) {
  std::unique_ptr<CTLVRecordV3> record(
      new CTLVRecordV3(static_cast<unsigned long long>(cmd), CTLVRecordV3::DEFAULT_BUCKETS));
  if (state != nullptr) record->append(tlv::NewUintCell(backend::kTagSwitchState, CTLVCell::TLV_TYPE_UINT, *state, 4));
  req.push_back(record.release());
}

}  // namespace

int CPerformanceSwithHandler::queryLeaf(const CVEM_SnmpContext&, CTLVCell*& cell) {
  CVEMDebugKitGuard guard(VEM_KIT_HANDLER,
                          "virtual int CPerformanceSwithHandler::queryLeaf(const CVEM_SnmpContext&, CTLVCell*&)");
  const long long cmd = perf::CommandCode("GET_PERFORMANCE_SWITCH");
  CTLVPackage req;
  CTLVPackage rsp;
  BuildRequest(req, cmd, nullptr);
  const int result = CSNMP_Configuration::instance()->configure(req, rsp, false);
  if (result != 0) return result;

  const CTLVCell* answer = (*rsp[0])[backend::kTagSwitchState];
  answer->checkNumerical();
  const unsigned int state = CTLVCell::ValueCast<unsigned int>()(answer);
  cell = tlv::NewUintCell(0, CTLVCell::TLV_TYPE_UINT, state, 4);
  return 0;
}

int CPerformanceSwithHandler::OnSetLeaf(const CVEM_SnmpContext&, const CTLVPackageV3<TLVMsgHeadV3>& req,
                                        CTLVPackageV3<TLVMsgHeadV3>& rsp) {
  CVEMDebugKitGuard guard(VEM_KIT_HANDLER,
                          "virtual int CPerformanceSwithHandler::OnSetLeaf(const CVEM_SnmpContext&, const "
                          "CTLVPackageV3<TLVMsgHeadV3>&, CTLVPackageV3<TLVMsgHeadV3>&)");
  const long long cmd = perf::CommandCode("SET_PERFORMANCE_SWITCH");
  const CTLVCell* value = (*req[0])[0];
  value->checkNumerical();
  const unsigned int state = CTLVCell::ValueCast<unsigned int>()(value);

  CTLVPackage setReq;
  BuildRequest(setReq, cmd, &state);
  const int iRet = CSNMP_Configuration::instance()->configure(setReq, rsp, false);
  guard.warn(VEM_CODE_INFO, "OnSetLeaf", __LINE__, "set perf switch to %d, iRet:%d.", state, iRet);
  return iRet;
}
