#include "performance/snmp_zerva_performance_controllerNFSV3_handler.h"

#include <sstream>

#include "diag/vem_debug_kit_guard.h"
#include "tlv/backend_codes.h"

namespace {

const unsigned int kProtocolItems[] = {182, 439};

}  // namespace

std::string CPerformanceControllerNFSV3Handler::getStatistics() {
  CVEMDebugKitGuard guard(VEM_KIT_HANDLER, "virtual std::string CPerformanceControllerNFSV3Handler::getStatistics()");
  std::ostringstream items;
  items << kProtocolItems[0] << "," << kProtocolItems[1];
  const std::string list = items.str();
  guard.debug(VEM_CODE_INFO, "getStatistics", __LINE__, "getStatistics = %s", list.c_str());
  return list;
}

unsigned int CPerformanceControllerNFSV3Handler::getObjIDForPerf() { return backend::kObjTypeNfsV3; }

void CPerformanceControllerNFSV3Handler::fillRspRecord(CTLVRecordV3* row, std::string objectID,
                                                       std::vector<unsigned int>& values) {
  row->append(tlv::NewStringCell(1, objectID));
  // Values by position; a short answer leaves the columns it lacks out.
  for (size_t i = 0; i < 2 && i < values.size(); ++i) {
    row->append(tlv::NewUintCell(static_cast<unsigned short>(2 + i), CTLVCell::TLV_TYPE_UINT, values[i], 4));
  }
}
