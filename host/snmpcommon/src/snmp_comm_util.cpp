#include "snmpcommon/snmp_comm_util.h"

#include <cstdint>

namespace {

// Parses text[begin, end) as a plain decimal u32. False for anything else.
bool ParseDecimal(const std::string& text, size_t begin, size_t end, unsigned int* value) {
  if (begin >= end) return false;
  uint64_t v = 0;
  for (size_t i = begin; i < end; ++i) {
    const char c = text[i];
    if (c < '0' || c > '9') return false;
    v = v * 10 + static_cast<uint64_t>(c - '0');
    if (v > 0xFFFFFFFFULL) return false;
  }
  *value = static_cast<unsigned int>(v);
  return true;
}

const unsigned int kSlotsPerEngine = 4;
const unsigned int kMaxEngine = 63;

}  // namespace

namespace CSnmpCommUtil {

unsigned int ParseCtrlNodeID(const std::string& id) {
  if (id.size() < 2 || id.size() > 3) return INVALID_NODE_ID;
  const char slot = id.back();
  if (slot < 'A' || slot >= static_cast<char>('A' + kSlotsPerEngine)) return INVALID_NODE_ID;
  if (id.size() == 3 && id[0] == '0') return INVALID_NODE_ID;  // no leading zero
  unsigned int engine = 0;
  if (!ParseDecimal(id, 0, id.size() - 1, &engine) || engine > kMaxEngine) return INVALID_NODE_ID;
  return engine * kSlotsPerEngine + static_cast<unsigned int>(slot - 'A');
}

std::string CtrlNodeIDFromNode(unsigned int node) {
  return std::to_string(node / kSlotsPerEngine) + static_cast<char>('A' + node % kSlotsPerEngine);
}

}  // namespace CSnmpCommUtil

unsigned int StrToUint(const std::string& text) {
  unsigned int value = 0;
  return ParseDecimal(text, 0, text.size(), &value) ? value : 0;
}

std::string UintToStr(unsigned int value) { return std::to_string(value); }

bool SplitToUint(std::string text, char separator, std::vector<unsigned int>& out) {
  std::vector<unsigned int> values;
  size_t begin = 0;
  for (;;) {
    size_t end = text.find(separator, begin);
    if (end == std::string::npos) end = text.size();
    unsigned int v = 0;
    if (!ParseDecimal(text, begin, end, &v)) return false;
    values.push_back(v);
    if (end == text.size()) break;
    begin = end + 1;
  }
  out.insert(out.end(), values.begin(), values.end());
  return true;
}
