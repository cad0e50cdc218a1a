#include "performance/snmp_zerva_performance_node_handler.h"

#include <sstream>

#include "snmpcommon/snmp_capability.h"
#include "snmpcommon/snmp_comm_util.h"
#include "tlv/backend_codes.h"

namespace {

const unsigned int kNodeItems[] = {68, 69, 78, 22, 25, 28, 21, 23, 26};
const unsigned int kFileSystemItems[] = {475, 476};

}  // namespace

CPerformanceNodeHandler::CPerformanceNodeHandler() {
  std::ostringstream items;
  for (size_t i = 0; i < sizeof kNodeItems / sizeof kNodeItems[0]; ++i) {
    if (i != 0) items << ",";
    items << kNodeItems[i];
  }
  if (checkOidFeatureSurport(SNMP_FEATURE_FILESYSTEM_PERF)) {
    for (unsigned int item : kFileSystemItems) items << "," << item;
  }
  m_nodeStatistics = items.str();
}

std::string CPerformanceNodeHandler::getStatistics() { return m_nodeStatistics; }

unsigned int CPerformanceNodeHandler::getObjIDForKey() { return backend::kObjTypeController; }

unsigned int CPerformanceNodeHandler::getObjIDForPerf() { return getObjIDForKey(); }

bool CPerformanceNodeHandler::checkRspValid(const CTLVRecordV3& record) {
  return CSnmpCommUtil::ParseCtrlNodeID(record[backend::kTagObjectId]->toString()) != CSnmpCommUtil::INVALID_NODE_ID;
}

void CPerformanceNodeHandler::fillRspRecord(CTLVRecordV3* row, std::string objectID,
                                            std::vector<unsigned int>& values) {
  const unsigned int node = CSnmpCommUtil::ParseCtrlNodeID(objectID);
  if (node == CSnmpCommUtil::INVALID_NODE_ID) return;

  row->append(tlv::NewUintCell(1, CTLVCell::TLV_TYPE_UINT, node, 4));
  // Values are taken by position; a short answer leaves the columns it lacks
  // out of the row rather than reading past its end.
  size_t pos = 0;
  for (unsigned short tag = 2; tag <= 10; ++tag, ++pos) {
    if (pos >= values.size()) return;
    row->append(tlv::NewUintCell(tag, CTLVCell::TLV_TYPE_UINT, values[pos], 4));
  }
  for (unsigned short tag = 11; tag <= 12; ++tag) {
    if (checkOidFeatureSurport(SNMP_FEATURE_FILESYSTEM_PERF)) {
      if (pos >= values.size()) return;
      row->append(tlv::NewUintCell(tag, CTLVCell::TLV_TYPE_UINT, values[pos++], 4));
    } else {
      // The absent column: an 8-byte all-ones value in a type-3 cell.
      row->append(tlv::NewUintCell(tag, CTLVCell::TLV_TYPE_UINT, 0xFFFFFFFFFFFFFFFFULL, 8));
    }
  }
}
