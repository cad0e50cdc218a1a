#include "performance/snmp_zerva_performance_simple_handler.h"

#include <memory>

#include "diag/vem_debug_kit_guard.h"
#include "snmpcommon/snmp_configuration.h"
#include "tlv/backend_codes.h"

bool CPerformanceSimpleHandler::checkRspValid(const CTLVRecordV3&) { return true; }

int CPerformanceSimpleHandler::OnQueryTable(const CVEM_SnmpContext&, const CTLVPackageV3<TLVMsgHeadV3>&,
                                            CTLVPackageV3<TLVMsgHeadV3>& rsp) {
  CVEMDebugKitGuard guard(VEM_KIT_HANDLER,
                          "virtual int CPerformanceSimpleHandler::OnQueryTable(const CVEM_SnmpContext&, const "
                          "CTLVPackageV3<TLVMsgHeadV3>&, CTLVPackageV3<TLVMsgHeadV3>&)");
  if (GetPerfSwitchSta() != 1) return 0;
  if (m_statistics.empty()) m_statistics = getStatistics();

  CTLVPackage req;
  CTLVPackage answer;
  std::unique_ptr<CTLVRecordV3> record(new CTLVRecordV3(backend::kObjectListingCmd, CTLVRecordV3::DEFAULT_BUCKETS));
  record->append(tlv::NewUintCell(backend::kTagListingType, CTLVCell::TLV_TYPE_UINT64, getObjIDForKey(), 8));
  req.push_back(record.release());

  const int status = CSNMP_Configuration::instance()->configure(req, answer, true);
  if (status != 0) {
    guard.error(VEM_CODE_ERROR, "OnQueryTable", __LINE__, "faild to query info of controller, err:%d.", status);
    return status;
  }

  std::vector<unsigned int> values;
  for (CTLVRecordIterator it(&answer); !it.isEnd(); ++it) {
    values.clear();
    if (!checkRspValid(*it)) {
      guard.error(VEM_CODE_ERROR, "OnQueryTable", __LINE__, "faild to parse rsp");
      return SNMP_HANDLER_FAILED;
    }
    const std::string objectId = (*it)[backend::kTagObjectId]->toString();
    const int fetched = GetBatchPerfData(getObjIDForPerf(), objectId, m_statistics, values);
    if (fetched != 0) {
      guard.error(VEM_CODE_ERROR, "OnQueryTable", __LINE__, "failed to get perf data of %s, err:%d", objectId.c_str(),
                  fetched);
      return fetched;
    }
    std::unique_ptr<CTLVRecordV3> row(new CTLVRecordV3(CTLVRecordV3::RESPONSE_ID, CTLVRecordV3::DEFAULT_BUCKETS));
    fillRspRecord(row.get(), objectId, values);
    rsp.push_back(row.release());
  }
  return 0;
}
