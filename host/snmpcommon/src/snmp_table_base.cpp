#include "snmpcommon/snmp_table_base.h"

#include <algorithm>
#include <memory>

#include "diag/vem_debug_kit_guard.h"
#include "snmpcommon/snmp_configuration.h"
#include "vempub/vem_debug_kit.h"

const std::string CSnmpTableBase::INVALID_KEY = "-1";
const std::string CSnmpTableBase::DEFAULT_STRING_KEY = "";
const unsigned long long CSnmpTableBase::LISTING_CMD;

CSnmpTableBase::CSnmpTableBase()
    : m_usBatchSize(DEFAULT_BATCH_SIZE), m_strCurKey(INVALID_KEY), m_iRetCode(0), m_bWholeTable(false) {}

int CSnmpTableBase::OnQueryTable(const CVEM_SnmpContext& ctx, const CTLVPackageV3<TLVMsgHeadV3>&,
                                 CTLVPackageV3<TLVMsgHeadV3>& rsp) {
  m_bWholeTable = false;
  if (!checkOKBeforeQueryTable(ctx)) return 0;

  std::string startKey = DEFAULT_STRING_KEY;
  const bool continues = ctx.operation == SNMP_OP_GETNEXT || ctx.operation == SNMP_OP_GETBULK;
  if (continues && !ctx.index.empty()) startKey = getMibKey(ctx.index);
  return walk(startKey, startKey == DEFAULT_STRING_KEY, ctx.rowsWanted, rsp);
}

int CSnmpTableBase::walk(const std::string& startKey, bool fromStart, unsigned int rowsWanted,
                         CTLVPackageV3<TLVMsgHeadV3>& rsp) {
  CVEMDebugKitGuard guard(VEM_KIT_HOST,
                          "int CSnmpTableBase::walk(const string&, bool, unsigned int, CTLVPackageV3<TLVMsgHeadV3>&)");
  std::string index = INVALID_KEY;
  std::string firstIndex = INVALID_KEY;
  unsigned long long rows = 0;
  const size_t rowsBefore = rsp.size();
  m_strCurKey = startKey;

  for (;;) {
    CTLVPackage listReq;
    CTLVPackage listing;
    std::unique_ptr<CTLVRecordV3> record(new CTLVRecordV3(LISTING_CMD, CTLVRecordV3::DEFAULT_BUCKETS));
    fillReqRecord(record.get());
    listReq.push_back(record.release());
    const int listed = SendBatchPackage(listReq, listing);
    if (listed != 0) {
      m_iRetCode = listed;
      guard.error(VEM_CODE_ERROR, "walk", __LINE__, "failed to list the table's objects after key '%s', err:%d",
                  m_strCurKey.c_str(), listed);
      return listed;
    }

    Uint32 amount = std::max<Uint32>(m_usBatchSize, 1);
    if (rowsWanted != 0) amount = std::min<Uint32>(amount, static_cast<Uint32>(rowsWanted - rows));
    const std::string before = index;
    int collected = 0;
    m_iRetCode = 0;
    const int ret = GetBatchTableInfo_i(listing, index, firstIndex, rows, amount, collected, rsp);
    if (m_iRetCode != 0) return m_iRetCode;
    rows = rsp.size() - rowsBefore;

    if (index == INVALID_KEY) {  // the listing ended, or listed nothing at all
      m_bWholeTable = fromStart;
      return 0;
    }
    if (ret == 0 && amount != 0) {  // back at the walk's first object: everything was seen
      m_bWholeTable = fromStart;
      return 0;
    }
    if (rowsWanted != 0 && rows >= rowsWanted) return 0;
    if (index == before) {
      // The reply took the walk no further: asking again would loop forever.
      guard.warn(VEM_CODE_INFO, "walk", __LINE__, "the listing after key '%s' brought no new object; walk ended",
                 m_strCurKey.c_str());
      return 0;
    }
    m_strCurKey = index;
  }
}

long long CSnmpTableBase::ControlValue(const CTLVRecordV3& record) {
  if (!record.hasTag(CONTROL_TAG)) return -1;
  const CTLVCell* control = record[CONTROL_TAG];
  control->checkNumerical();
  return CTLVCell::ValueCast<unsigned int>()(control);
}

int CSnmpTableBase::GetBatchTableInfo_i(CTLVPackageV3<TLVMsgHeadV3>& listing, std::string& index,
                                        std::string& firstIndex, unsigned long long&, Uint32& amount,
                                        int& collectResult, CTLVPackageV3<TLVMsgHeadV3>& rsp) {
  collectResult = -1;
  for (CTLVRecordIterator it(&listing); !it.isEnd(); ++it) {
    const CTLVRecordV3& record = *it;
    if (record.cellCount() == 0) continue;
    const long long control = ControlValue(record);
    if (control == 0) return collectResult = -1;
    if (control == 1) {
      if (index != INVALID_KEY) {
        index = INVALID_KEY;
        return collectResult = -1;
      }
      return collectResult = 0;
    }
    if (!queryRecordValidation(record)) continue;

    const std::string key = getIndexOfRecord(record);
    index = key;
    if (firstIndex == INVALID_KEY) {
      firstIndex = key;
    } else if (firstIndex == key) {
      return collectResult = 0;
    }

    const int fetched = preGetRspCell(record);
    if (fetched != 0) {
      postGetRspCell(record);
      // An object the back end refuses (gone since the listing) drops its
      // row; losing the back end itself ends the walk.
      if (IsSnmpTransportError(fetched)) {
        m_iRetCode = fetched;
        return fetched;
      }
      continue;
    }
    AppendRspPkgRecord(rsp, record);
    if (--amount == 0) return collectResult = 0;
  }
  return collectResult = -1;
}

void CSnmpTableBase::AppendRspPkgRecord(CTLVPackageV3<TLVMsgHeadV3>& rsp, const CTLVRecordV3& record) {
  std::unique_ptr<CTLVRecordV3> row(new CTLVRecordV3(CTLVRecordV3::RESPONSE_ID, CTLVRecordV3::DEFAULT_BUCKETS));
  fillRspRecord(record, row.get());
  postGetRspCell(record);
  rsp.push_back(row.release());
}

int CSnmpTableBase::preGetRspCell(const CTLVRecordV3&) { return 0; }

void CSnmpTableBase::postGetRspCell(const CTLVRecordV3&) {}

bool CSnmpTableBase::queryRecordValidation(const CTLVRecordV3& record) { return record.hasTag(backend::kTagObjectId); }

bool CSnmpTableBase::checkOKBeforeQueryTable(const CVEM_SnmpContext&) { return true; }

int CSnmpTableBase::SendBatchPackage(CTLVPackageV3<TLVMsgHeadV3>& req, CTLVPackageV3<TLVMsgHeadV3>& rsp) {
  return CSNMP_Configuration::instance()->configure(req, rsp, true);
}
