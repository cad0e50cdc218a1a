#include "performance/snmp_zerva_performance_fileSystem_handler.h"

#include <json/value.h>

#include <memory>
#include <sstream>

#include "diag/vem_debug_kit_guard.h"
#include "performance/snmp_zerva_performance_common.h"
#include "tlv/backend_codes.h"

namespace {

const unsigned int kFileSystemItems[] = {182, 523, 232, 23, 524, 525, 233, 26};

}  // namespace

const unsigned long long CPerformanceFileSystemHandler::kPlainListingCmd;
const unsigned long long CPerformanceFileSystemHandler::kSortedListingCmd;

CPerformanceFileSystemHandler::CPerformanceFileSystemHandler() : m_pPerfCommon(nullptr) {
  m_usBatchSize = 160;
  m_strCurKey = INVALID_KEY;
  m_iRetCode = 0;
  m_bWholeTable = false;
  m_pPerfCommon = new CSnmpPerformanceCommon();
  std::ostringstream items;
  for (size_t i = 0; i < sizeof kFileSystemItems / sizeof kFileSystemItems[0]; ++i) {
    if (i != 0) items << ",";
    items << kFileSystemItems[i];
  }
  m_strItemList = items.str();
}

CPerformanceFileSystemHandler::~CPerformanceFileSystemHandler() { delete m_pPerfCommon; }

bool CPerformanceFileSystemHandler::checkOKBeforeQueryTable(const CVEM_SnmpContext&) {
  return m_pPerfCommon->GetPerfSwitchSta() == 1;
}

std::string CPerformanceFileSystemHandler::getMibKey(const Agentpp::Oidx&) { return DEFAULT_STRING_KEY; }

void CPerformanceFileSystemHandler::fillReqRecord(CTLVRecordV3* record) {
  record->append(tlv::NewUintCell(backend::kTagListingType, CTLVCell::TLV_TYPE_UINT64, backend::kObjTypeFileSystem, 8));
  if (!m_strCurKey.empty()) record->append(tlv::NewStringCell(backend::kTagListingKey, m_strCurKey));
  if (record->id() != kPlainListingCmd) {
    record->setId(kSortedListingCmd);
    Json::Value sort(Json::objectValue);
    sort["sortby"] = "1 ASC";
    std::unique_ptr<CTLVCell> cell(new CTLVCell());
    cell->set(backend::kTagListingSort, sort);
    record->append(cell.release());
  }
}

std::string CPerformanceFileSystemHandler::getIndexOfRecord(const CTLVRecordV3& record) {
  CVEMDebugKitGuard guard(VEM_KIT_HANDLER,
                          "virtual std::string CPerformanceFileSystemHandler::getIndexOfRecord(const CTLVRecordV3&)");
  const CTLVCell* id = record[backend::kTagObjectId];
  id->checkString();
  return id->toString();
}

int CPerformanceFileSystemHandler::preGetRspCell(const CTLVRecordV3& record) {
  CVEMDebugKitGuard guard(VEM_KIT_HANDLER,
                          "virtual int CPerformanceFileSystemHandler::preGetRspCell(const CTLVRecordV3&)");
  m_vecPerfData.clear();
  const CTLVCell* id = record[backend::kTagObjectId];
  id->checkString();
  const int result =
      m_pPerfCommon->GetBatchPerfData(backend::kObjTypeFileSystem, id->toString(), m_strItemList, m_vecPerfData);
  if (result != 0) {
    // The message names no object: its ID buffer is never filled.
    const char lunId[1] = "";
    guard.error(VEM_CODE_ERROR, "preGetRspCell", __LINE__, "get performance data of lun %s failed, errcode=%d", lunId,
                result);
    return result;
  }
  return 0;
}

void CPerformanceFileSystemHandler::postGetRspCell(const CTLVRecordV3&) {
  CVEMDebugKitGuard guard(VEM_KIT_HANDLER,
                          "virtual void CPerformanceFileSystemHandler::postGetRspCell(const CTLVRecordV3&)");
  m_vecPerfData.clear();
}

void CPerformanceFileSystemHandler::fillRspRecord(const CTLVRecordV3& in, CTLVRecordV3* out) {
  CVEMDebugKitGuard guard(
      VEM_KIT_HANDLER, "virtual void CPerformanceFileSystemHandler::fillRspRecord(const CTLVRecordV3&, CTLVRecordV3*)");
  const CTLVCell* id = in[backend::kTagObjectId];
  id->checkString();
  out->append(tlv::NewStringCell(1, id->toString()));
  // A short value list leaves the columns it lacks out of the row.
  for (size_t i = 0; i < 8 && i < m_vecPerfData.size(); ++i) {
    out->append(tlv::NewUintCell(static_cast<unsigned short>(i + 2), CTLVCell::TLV_TYPE_UINT, m_vecPerfData[i], 4));
  }
}
