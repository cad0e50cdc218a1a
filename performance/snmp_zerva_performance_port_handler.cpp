#include "performance/snmp_zerva_performance_port_handler.h"

#include <memory>

#include "diag/vem_debug_kit_guard.h"
#include "snmpcommon/snmp_comm_util.h"
#include "snmpcommon/snmp_configuration.h"
#include "tlv/backend_codes.h"

namespace {

// Port types, in the order they are listed.
const unsigned int kPortTypes[] = {backend::kObjTypePortEth, backend::kObjTypePortFc, backend::kObjTypePortFcoe,
                                   backend::kObjTypePortBond};
// Bond ports are named by their own tag and have no status to test; an
// Ethernet port with a non-empty bond cell is left out.
const unsigned int kPortTypeNoStatus = backend::kObjTypePortBond;
const unsigned int kPortTypeInBond = backend::kObjTypePortEth;

// Statistic items of a port row, columns 2 to 10.
const char kPortItems[] = "78,22,25,28,21,23,26,5,307";
const unsigned short kFirstValueTag = 2;
const unsigned short kNameTag = 11;

// Only these states qualify a port (not read for type 235).
bool StatusQualifies(unsigned int status) { return status == 0 || status == 5 || status == 6; }

}  // namespace

CPerformancePortHandler::CPerformancePortHandler()
    : m_strItems(kPortItems), m_vecPortTypes(std::begin(kPortTypes), std::end(kPortTypes)) {}

int CPerformancePortHandler::OnQueryTable(const CVEM_SnmpContext&, const CTLVPackageV3<TLVMsgHeadV3>&,
                                          CTLVPackageV3<TLVMsgHeadV3>& rsp) {
  CVEMDebugKitGuard guard(VEM_KIT_HANDLER,
                          "virtual int CPerformancePortHandler::OnQueryTable(const CVEM_SnmpContext&, const "
                          "CTLVPackageV3<TLVMsgHeadV3>&, CTLVPackageV3<TLVMsgHeadV3>&)");
  if (GetPerfSwitchSta() != 1) return 0;

  for (unsigned int portType : m_vecPortTypes) {
    CTLVPackage req;
    CTLVPackage answer;
    std::unique_ptr<CTLVRecordV3> record(new CTLVRecordV3(backend::kObjectListingCmd, CTLVRecordV3::DEFAULT_BUCKETS));
    record->append(tlv::NewUintCell(backend::kTagListingType, CTLVCell::TLV_TYPE_UINT64, portType, 8));
    req.push_back(record.release());

    const int result = CSNMP_Configuration::instance()->configure(req, answer, true);
    if (result != 0) {
      guard.error(VEM_CODE_ERROR, "OnQueryTable", __LINE__, "failed to query port info, port type:%d, err:%d.",
                  portType, result);
      return result;
    }
    GetPortPerfValue(portType, answer, rsp);
  }
  return 0;
}

void CPerformancePortHandler::GetPortPerfValue(unsigned int portType, CTLVPackageV3<TLVMsgHeadV3>& answer,
                                               CTLVPackageV3<TLVMsgHeadV3>& rsp) {
  std::vector<unsigned int> values;
  for (CTLVRecordIterator it(&answer); !it.isEnd(); ++it) {
    const CTLVRecordV3& port = *it;
    std::string name;
    if (portType == kPortTypeNoStatus) {
      name = port[backend::kTagBondPortName]->toString();
    } else {
      if (portType == kPortTypeInBond && port.hasTag(backend::kTagPortBond) &&
          !port[backend::kTagPortBond]->toString().empty()) {
        continue;
      }
      const CTLVCell* statusCell = port[backend::kTagPortStatus];
      statusCell->checkNumerical();
      const unsigned int status = CTLVCell::ValueCast<unsigned int>()(statusCell);
      name = port[backend::kTagPortName]->toString();
      if (!StatusQualifies(status)) continue;
    }

    const std::string objectId = port[backend::kTagObjectId]->toString();
    values.clear();
    if (GetBatchPerfData(portType, objectId, m_strItems, values) != 0) continue;

    // One cell per value the back end gave: a short answer leaves the
    // columns it lacks out of the row rather than reading past its end.
    std::unique_ptr<CTLVRecordV3> row(new CTLVRecordV3(CTLVRecordV3::RESPONSE_ID, CTLVRecordV3::DEFAULT_BUCKETS));
    row->append(tlv::NewUintCell(1, CTLVCell::TLV_TYPE_UINT, StrToUint(objectId), 4));
    for (size_t i = 0; i < values.size() && i < 9; ++i) {
      row->append(
          tlv::NewUintCell(static_cast<unsigned short>(kFirstValueTag + i), CTLVCell::TLV_TYPE_UINT, values[i], 4));
    }
    // The name with its NUL; no name text gives an empty value.
    std::unique_ptr<CTLVCell> nameCell(new CTLVCell());
    nameCell->set_i(CTLVCell::TLV_TYPE_STRING, kNameTag, name.c_str(), name.empty() ? 0 : name.size() + 1);
    row->append(nameCell.release());
    rsp.push_back(row.release());
  }
}
