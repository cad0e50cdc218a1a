#include "performance/snmp_zerva_performance_cache_handler.h"

#include <memory>
#include <vector>

#include "diag/vem_debug_kit_guard.h"
#include "snmpcommon/snmp_comm_util.h"
#include "snmpcommon/snmp_configuration.h"
#include "tlv/backend_codes.h"

namespace {

const char kCacheItems[] = "110,120,303";
const size_t kCacheItemCount = 3;

}  // namespace

CPerformanceCacheHandler::CPerformanceCacheHandler() : m_strItems(kCacheItems) {}

int CPerformanceCacheHandler::OnQueryTable(const CVEM_SnmpContext&, const CTLVPackageV3<TLVMsgHeadV3>&,
                                           CTLVPackageV3<TLVMsgHeadV3>& rsp) {
  CVEMDebugKitGuard guard(VEM_KIT_HANDLER,
                          "virtual int CPerformanceCacheHandler::OnQueryTable(const CVEM_SnmpContext&, const "
                          "CTLVPackageV3<TLVMsgHeadV3>&, CTLVPackageV3<TLVMsgHeadV3>&)");
  if (GetPerfSwitchSta() != 1) return 0;

  CTLVPackage req;
  CTLVPackage answer;
  std::unique_ptr<CTLVRecordV3> record(new CTLVRecordV3(backend::kObjectListingCmd, CTLVRecordV3::DEFAULT_BUCKETS));
  record->append(tlv::NewUintCell(backend::kTagListingType, CTLVCell::TLV_TYPE_UINT64, backend::kObjTypeController, 8));
  req.push_back(record.release());

  const int result = CSNMP_Configuration::instance()->configure(req, answer, true);
  if (result != 0) {
    guard.error(VEM_CODE_ERROR, "OnQueryTable", __LINE__, "failed to query info of controller, err:%d", result);
    return result;
  }

  std::vector<unsigned int> values;
  for (CTLVRecordIterator it(&answer); !it.isEnd(); ++it) {
    values.clear();
    const std::string objectId = (*it)[backend::kTagObjectId]->toString();
    const int fetched = GetBatchPerfData(backend::kObjTypeController, objectId, m_strItems, values);
    if (fetched != 0) {
      guard.error(VEM_CODE_ERROR, "OnQueryTable", __LINE__, "failed to get perf data of %s, err:%d", objectId.c_str(),
                  fetched);
      return fetched;
    }
    const unsigned int node = CSnmpCommUtil::ParseCtrlNodeID(objectId);
    if (node == CSnmpCommUtil::INVALID_NODE_ID) {
      guard.error(VEM_CODE_ERROR, "OnQueryTable", __LINE__, "faild to parse controller id %s.", objectId.c_str());
      return SNMP_HANDLER_FAILED;
    }
    if (values.size() < kCacheItemCount) return SNMP_HANDLER_FAILED;

    std::unique_ptr<CTLVRecordV3> row(new CTLVRecordV3(CTLVRecordV3::RESPONSE_ID, CTLVRecordV3::DEFAULT_BUCKETS));
    row->append(tlv::NewUintCell(1, CTLVCell::TLV_TYPE_UINT, node, 4));
    row->append(tlv::NewUintCell(2, CTLVCell::TLV_TYPE_UINT, values[0], 4));
    row->append(tlv::NewUintCell(3, CTLVCell::TLV_TYPE_UINT, values[1], 4));
    // Column 4 has no source item: it always reads -1.
    row->append(tlv::NewUintCell(4, CTLVCell::TLV_TYPE_INT, 0xFFFFFFFFu, 4));
    row->append(tlv::NewUintCell(5, CTLVCell::TLV_TYPE_UINT, values[2], 4));
    rsp.push_back(row.release());
  }
  return 0;
}
