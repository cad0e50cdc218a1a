// Back-end command codes by name, from the host's device configuration.
//
// Only the commands the device configuration names are looked up here; the
// fixed record identifiers, the cell tags and the object types are in
// tlv/backend_codes.h, shared with the host's batch-table base.
#ifndef ZERVA_PERFORMANCE_COMMAND_CODE_H_
#define ZERVA_PERFORMANCE_COMMAND_CODE_H_

#include <cstdlib>
#include <string>

#include "vempub/vem_xml_config.h"

namespace perf {

// The decimal code of a command of section "COMMAND". Looked up on each use;
// a missing or non-numeric item gives what strtoll gives (0 for "").
inline long long CommandCode(const char* name) {
  std::string text;
  CVEMXmlConfig::instance()->getDeviceItem("COMMAND", name, text);
  return strtoll(text.c_str(), nullptr, 10);
}

}  // namespace perf

#endif  // ZERVA_PERFORMANCE_COMMAND_CODE_H_
