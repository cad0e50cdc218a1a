#include "vempub/vem_decimal.h"

bool ParseDecimal(const std::string& text, size_t begin, size_t end, uint64_t max, uint64_t* value) {
  if (begin >= end) return false;
  uint64_t v = 0;
  for (size_t i = begin; i < end; ++i) {
    const char c = text[i];
    if (c < '0' || c > '9') return false;
    const uint64_t digit = static_cast<uint64_t>(c - '0');
    // v * 10 + digit <= max, checked without overflowing.
    if (digit > max || v > (max - digit) / 10) return false;
    v = v * 10 + digit;
  }
  *value = v;
  return true;
}

bool ParseDecimal(const std::string& text, uint64_t max, uint64_t* value) {
  return ParseDecimal(text, 0, text.size(), max, value);
}
