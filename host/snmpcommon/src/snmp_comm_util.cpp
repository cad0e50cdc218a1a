#include "snmpcommon/snmp_comm_util.h"

#include <cstdint>

#include "snmpcommon/snmp_read_failures.h"
#include "vempub/vem_decimal.h"

namespace {

const unsigned int kSlotsPerEngine = 4;
const unsigned int kMaxEngine = 63;

}  // namespace

namespace CSnmpCommUtil {

unsigned int ParseCtrlNodeID(const std::string& id) {
  if (id.size() < 2 || id.size() > 3) return INVALID_NODE_ID;
  const char slot = id.back();
  if (slot < 'A' || slot >= static_cast<char>('A' + kSlotsPerEngine)) return INVALID_NODE_ID;
  // A controller ID names its engine in canonical form: "01A" is not "1A".
  if (id.size() == 3 && id[0] == '0') return INVALID_NODE_ID;
  uint64_t engine = 0;
  if (!ParseDecimal(id, 0, id.size() - 1, kMaxEngine, &engine)) return INVALID_NODE_ID;
  return static_cast<unsigned int>(engine) * kSlotsPerEngine + static_cast<unsigned int>(slot - 'A');
}

std::string CtrlNodeIDFromNode(unsigned int node) {
  return std::to_string(node / kSlotsPerEngine) + static_cast<char>('A' + node % kSlotsPerEngine);
}

}  // namespace CSnmpCommUtil

unsigned int StrToUint(const std::string& text) {
  uint64_t value = 0;
  return ParseDecimal(text, 0xFFFFFFFFu, &value) ? static_cast<unsigned int>(value) : 0;
}

std::string UintToStr(unsigned int value) { return std::to_string(value); }

bool SplitToUint(std::string text, char separator, std::vector<unsigned int>& out) {
  std::vector<unsigned int> values;
  size_t begin = 0;
  for (;;) {
    size_t end = text.find(separator, begin);
    if (end == std::string::npos) end = text.size();
    uint64_t v = 0;
    if (!ParseDecimal(text, begin, end, 0xFFFFFFFFu, &v)) {
      CSnmpReadFailures::noteRefusedText();
      return false;
    }
    values.push_back(static_cast<unsigned int>(v));
    if (end == text.size()) break;
    begin = end + 1;
  }
  out.insert(out.end(), values.begin(), values.end());
  return true;
}
