// Back-end command codes by name, from the host's device configuration.
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

// Record identifier of the object listing, by object type in cell 0.
const unsigned long long kObjectListingCmd = 0xD0000C000ULL;

// Back-end object types.
enum : unsigned int {
  kObjTypeLun = 11,
  kObjTypeFileSystem = 40,
  kObjTypeController = 207,
};

}  // namespace perf

#endif  // ZERVA_PERFORMANCE_COMMAND_CODE_H_
