#include "performance/snmp_zerva_performance_common.h"

#include <memory>

#include "diag/vem_debug_kit_guard.h"
#include "performance/command_code.h"
#include "snmpcommon/snmp_comm_util.h"
#include "snmpcommon/snmp_configuration.h"
#include "tlv/backend_codes.h"

CSnmpPerformanceCommon::CSnmpPerformanceCommon() : m_getSwitchCmd(perf::CommandCode("GET_PERFORMANCE_SWITCH")) {}

unsigned int CSnmpPerformanceCommon::GetPerfSwitchSta() {
  CTLVPackage req;
  CTLVPackage rsp;
  req.push_back(new CTLVRecordV3(static_cast<unsigned long long>(m_getSwitchCmd), CTLVRecordV3::DEFAULT_BUCKETS));
  if (CSNMP_Configuration::instance()->configure(req, rsp, false) != 0) return 0;
  const CTLVCell* state = (*rsp[0])[backend::kTagSwitchState];
  state->checkNumerical();
  return CTLVCell::ValueCast<unsigned int>()(state);
}

int CSnmpPerformanceCommon::GetBatchPerfData(unsigned int objType, const std::string& objID, const std::string& items,
                                             std::vector<unsigned int>& values) {
  CVEMDebugKitGuard guard(VEM_KIT_HANDLER,
                          "int CSnmpPerformanceCommon::GetBatchPerfData(u_int, const string&, const string&, "
                          "std::vector<unsigned int>&)");
  const long long cmd = perf::CommandCode("GET_CUR_STATISTIC_DATA");
  const std::string key = UintToStr(objType) + ":" + objID;

  CTLVPackage req;
  CTLVPackage rsp;
  std::unique_ptr<CTLVRecordV3> record(
      new CTLVRecordV3(static_cast<unsigned long long>(cmd), CTLVRecordV3::DEFAULT_BUCKETS));
  record->append(tlv::NewStringCell(backend::kTagStatsObjectKey, key));
  record->append(tlv::NewStringCell(backend::kTagStatsItems, items));
  record->append(tlv::NewUintCell(backend::kTagStatsFlag, CTLVCell::TLV_TYPE_UINT, backend::kStatsFlagValue, 8));
  req.push_back(record.release());

  const int result = CSNMP_Configuration::instance()->configure(req, rsp, false);
  if (result != 0) {
    guard.error(VEM_CODE_ERROR, "GetBatchPerfData", __LINE__, "faild to query perf data, UUID:%s, Item:%s, err:%d.",
                key.c_str(), items.c_str(), result);
    return result;
  }
  const std::string text = (*rsp[0])[backend::kTagStatsValues]->toString();
  if (!SplitToUint(text, ',', values)) {
    guard.error(VEM_CODE_ERROR, "GetBatchPerfData", __LINE__, "faild to parse perf data, UUID:%s, Item:%s, Value:%s.",
                key.c_str(), items.c_str(), text.c_str());
    return SNMP_HANDLER_FAILED;
  }
  return 0;
}
