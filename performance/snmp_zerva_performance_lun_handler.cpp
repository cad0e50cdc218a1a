#include "performance/snmp_zerva_performance_lun_handler.h"

#include <memory>
#include <sstream>

#include "diag/vem_debug_kit_guard.h"
#include "performance/snmp_zerva_performance_common.h"
#include "snmpcommon/snmp_comm_util.h"
#include "snmpcommon/snmp_configuration.h"
#include "tlv/backend_codes.h"

namespace {

const unsigned int kLunItems[] = {303, 22, 25, 28, 21, 23, 26, 5, 307, 370, 371, 384, 385};

// a * 100 / b in unsigned 32-bit arithmetic (the product wraps); 0 when b is 0.
unsigned int Percent(unsigned int a, unsigned int b) { return b == 0 ? 0 : static_cast<unsigned int>(a * 100u) / b; }

}  // namespace

CPerformanceLunHandler::CPerformanceLunHandler() : m_pPerfCommon(nullptr) {
  m_usBatchSize = 160;
  m_strCurKey = INVALID_KEY;
  m_iRetCode = 0;
  m_bWholeTable = false;
  m_pPerfCommon = new CSnmpPerformanceCommon();
  std::ostringstream items;
  for (size_t i = 0; i < sizeof kLunItems / sizeof kLunItems[0]; ++i) {
    if (i != 0) items << ",";
    items << kLunItems[i];
  }
  m_strItemList = items.str();
}

CPerformanceLunHandler::~CPerformanceLunHandler() { delete m_pPerfCommon; }

bool CPerformanceLunHandler::checkOKBeforeQueryTable(const CVEM_SnmpContext&) {
  return m_pPerfCommon->GetPerfSwitchSta() == 1;
}

std::string CPerformanceLunHandler::getMibKey(const Agentpp::Oidx& index) {
  return UintToStr(index.len() == 0 ? 0 : index[0]);
}

void CPerformanceLunHandler::fillReqRecord(CTLVRecordV3* record) {
  CVEMDebugKitGuard guard(VEM_KIT_HANDLER, "virtual void CPerformanceLunHandler::fillReqRecord(CTLVRecordV3*)");
  record->append(tlv::NewUintCell(backend::kTagListingType, CTLVCell::TLV_TYPE_UINT64, backend::kObjTypeLun, 8));
  if (!m_strCurKey.empty()) record->append(tlv::NewStringCell(backend::kTagListingKey, m_strCurKey));
}

std::string CPerformanceLunHandler::getIndexOfRecord(const CTLVRecordV3& record) {
  CVEMDebugKitGuard guard(VEM_KIT_HANDLER,
                          "virtual std::string CPerformanceLunHandler::getIndexOfRecord(const CTLVRecordV3&)");
  const CTLVCell* id = record[backend::kTagObjectId];
  id->checkString();
  return id->toString();
}

int CPerformanceLunHandler::preGetRspCell(const CTLVRecordV3& record) {
  CVEMDebugKitGuard guard(VEM_KIT_HANDLER, "virtual int CPerformanceLunHandler::preGetRspCell(const CTLVRecordV3&)");
  m_vecPerfData.clear();
  const CTLVCell* id = record[backend::kTagObjectId];
  id->checkString();
  const int result =
      m_pPerfCommon->GetBatchPerfData(backend::kObjTypeLun, id->toString(), m_strItemList, m_vecPerfData);
  if (result != 0) {
    // The message names no LUN: its ID buffer is never filled.
    const char lunId[1] = "";
    guard.error(VEM_CODE_ERROR, "preGetRspCell", __LINE__, "get performance data of lun %s failed, errcode=%d", lunId,
                result);
    return result;
  }
  return 0;
}

void CPerformanceLunHandler::postGetRspCell(const CTLVRecordV3&) {
  CVEMDebugKitGuard guard(VEM_KIT_HANDLER, "virtual void CPerformanceLunHandler::postGetRspCell(const CTLVRecordV3&)");
  m_vecPerfData.clear();
}

void CPerformanceLunHandler::fillRspRecord(const CTLVRecordV3& in, CTLVRecordV3* out) {
  fillRspRecord(in, out, backend::kTagObjectId);
}

void CPerformanceLunHandler::fillRspRecord(const CTLVRecordV3& in, CTLVRecordV3* out, unsigned int idTag) {
  const CTLVCell* id = in[static_cast<unsigned short>(idTag & 0xFFFF)];
  id->checkString();
  out->append(tlv::NewUintCell(1, CTLVCell::TLV_TYPE_UINT, StrToUint(id->toString()), 4));

  const std::vector<unsigned int>& v = m_vecPerfData;
  // Columns in order: (tag, value position), with the two percentages of
  // item 22 computed in between. A short value list leaves the columns it
  // lacks out of the row rather than reading past its end.
  auto put = [&](unsigned short tag, size_t pos) {
    if (pos < v.size()) out->append(tlv::NewUintCell(tag, CTLVCell::TLV_TYPE_UINT, v[pos], 4));
  };
  for (unsigned short tag = 2; tag <= 8; ++tag) put(tag, tag - 2);
  if (v.size() > 3) {
    out->append(tlv::NewUintCell(9, CTLVCell::TLV_TYPE_UINT, Percent(v[2], v[1]), 4));
    out->append(tlv::NewUintCell(10, CTLVCell::TLV_TYPE_UINT, Percent(v[3], v[1]), 4));
  }
  for (unsigned short tag = 11; tag <= 16; ++tag) put(tag, tag - 4);
}

int CPerformanceLunHandler::GetBatchTableInfo_i(CTLVPackageV3<TLVMsgHeadV3>& listing, std::string& index,
                                                std::string& firstIndex, unsigned long long&, Uint32& amount,
                                                int& collectResult, CTLVPackageV3<TLVMsgHeadV3>& rsp) {
  CVEMDebugKitGuard guard(VEM_KIT_HANDLER,
                          "virtual int CPerformanceLunHandler::GetBatchTableInfo_i(CTLVPackageV3<TLVMsgHeadV3>&, "
                          "std::string&, std::string&, long long unsigned int&, Uint32&, int&, "
                          "CTLVPackageV3<TLVMsgHeadV3>&)");
  std::string batchObjID;
  collectResult = GetBatchUUID(listing, amount, index, firstIndex, batchObjID);
  if (batchObjID.empty()) {
    guard.debug(VEM_CODE_INFO, "GetBatchTableInfo_i", __LINE__, "end to  get perf lun data");
    return collectResult;
  }
  m_iRetCode = QueryPerfLunData(batchObjID, rsp);
  if (m_iRetCode != 0) return m_iRetCode;
  guard.error(VEM_CODE_ERROR, "GetBatchTableInfo_i", __LINE__,
              "query LUN performance. batchObjID:%s, amount:%d, index:%s", batchObjID.c_str(), amount, index.c_str());
  return collectResult;
}

int CPerformanceLunHandler::GetBatchUUID(CTLVPackageV3<TLVMsgHeadV3>& listing, Uint32& amount, std::string& index,
                                         std::string& firstIndex, std::string& batchObjID) {
  std::ostringstream ids;
  for (CTLVRecordIterator it(&listing); !it.isEnd(); ++it) {
    const CTLVRecordV3& record = *it;
    if (record.cellCount() == 0) continue;
    const long long control = ControlValue(record);
    if (control == 0) {
      batchObjID = ids.str();
      return -1;
    }
    if (control == 1) {
      if (index != INVALID_KEY) {
        index = INVALID_KEY;
        batchObjID = ids.str();
        return -1;
      }
      return 0;
    }
    const std::string key = getIndexOfRecord(record);
    index = key;
    if (firstIndex == INVALID_KEY) {
      firstIndex = key;
      ids << key;
    } else if (firstIndex == key) {
      batchObjID = ids.str();
      return 0;
    } else {
      ids << "," << key;
    }
    if (--amount == 0) {
      batchObjID = ids.str();
      return 0;
    }
  }
  batchObjID = ids.str();
  return -1;
}

int CPerformanceLunHandler::QueryPerfLunData(std::string objID, CTLVPackageV3<TLVMsgHeadV3>& rsp) {
  CVEMDebugKitGuard guard(VEM_KIT_HANDLER,
                          "int CPerformanceLunHandler::QueryPerfLunData(std::string, CTLVPackageV3<TLVMsgHeadV3>&)");
  CTLVPackage req;
  CTLVPackage reply;
  std::unique_ptr<CTLVRecordV3> record(new CTLVRecordV3(backend::kLunBatchStatsCmd, CTLVRecordV3::DEFAULT_BUCKETS));
  record->append(tlv::NewUintCell(backend::kTagBatchObjectType, CTLVCell::TLV_TYPE_UINT, backend::kObjTypeLun, 4));
  record->append(tlv::NewStringCell(backend::kTagBatchObjectIds, objID));
  record->append(tlv::NewStringCell(backend::kTagStatsItems, m_strItemList));
  record->append(tlv::NewUintCell(backend::kTagStatsFlag, CTLVCell::TLV_TYPE_UINT, backend::kStatsFlagValue, 8));
  req.push_back(record.release());

  const int result = CSNMP_Configuration::instance()->configure(req, reply, false);
  if (result != 0) {
    guard.error(VEM_CODE_ERROR, "QueryPerfLunData", __LINE__, "faild to query perf data, objID:%s, Item:%s, err:%d.",
                objID.c_str(), m_strItemList.c_str(), result);
    return result;
  }
  for (CTLVRecordIterator it(&reply); !it.isEnd(); ++it) {
    const CTLVRecordV3& stats = *it;
    if (stats.cellCount() == 0) continue;
    if (ControlValue(stats) == 1) return 0;
    m_vecPerfData.clear();  // a row that threw while being filled leaves nothing behind
    if (!SplitToUint(stats[backend::kTagStatsValues]->toString(), ',', m_vecPerfData)) {
      guard.error(VEM_CODE_ERROR, "QueryPerfLunData", __LINE__, "faild to parse perf data.");
      return SNMP_HANDLER_FAILED;
    }
    AppendRspPkgRecord(rsp, stats, backend::kTagBatchObjectId);
  }
  return 0;
}

void CPerformanceLunHandler::AppendRspPkgRecord(CTLVPackageV3<TLVMsgHeadV3>& rsp, const CTLVRecordV3& record,
                                                unsigned int idTag) {
  std::unique_ptr<CTLVRecordV3> row(new CTLVRecordV3(CTLVRecordV3::RESPONSE_ID, CTLVRecordV3::DEFAULT_BUCKETS));
  fillRspRecord(record, row.get(), idTag);
  postGetRspCell(record);
  rsp.push_back(row.release());
}
