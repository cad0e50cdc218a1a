#include "host/agent/snmp_value.h"

#include <cstdint>
#include <limits>

#include "tlv/coding.h"
#include "vempub/vem_decimal.h"

namespace zerva_agent {

namespace {

bool IsNumericCell(const CTLVCell& cell) { return cell.type() >= 3; }

uint64_t ClampU32(uint64_t v) { return v > 0xFFFFFFFFULL ? 0xFFFFFFFFULL : v; }

}  // namespace

std::string SnmpValue::toString() const {
  switch (type) {
    case kAsnInteger:
      return "INTEGER: " + std::to_string(asInt32());
    case kAsnOctetString:
      return "STRING: \"" + bytes + "\"";
    case kAsnCounter32:
      return "Counter32: " + std::to_string(number);
    case kAsnGauge32:
      return "Gauge32: " + std::to_string(number);
    case kAsnTimeTicks:
      return "Timeticks: " + std::to_string(number);
    case kAsnCounter64:
      return "Counter64: " + std::to_string(number);
  }
  return "?";
}

SnmpType SnmpTypeOf(MibSyntax syntax) {
  switch (syntax) {
    case MibSyntax::Integer32:
      return kAsnInteger;
    case MibSyntax::Unsigned32:
    case MibSyntax::Gauge32:
      return kAsnGauge32;
    case MibSyntax::Counter32:
      return kAsnCounter32;
    case MibSyntax::Counter64:
      return kAsnCounter64;
    case MibSyntax::TimeTicks:
      return kAsnTimeTicks;
    case MibSyntax::DisplayString:
    case MibSyntax::OctetString:
      return kAsnOctetString;
  }
  return kAsnOctetString;
}

uint64_t CellNumber(const CTLVCell& cell) {
  const unsigned n = cell.length() > 8 ? 8 : cell.length();
  uint64_t value = tlv::DecodeFixedUpTo64(cell.value(), n);
  if (cell.type() == CTLVCell::TLV_TYPE_INT && n > 0 && n < 8 && (cell.value()[n - 1] & 0x80) != 0) {
    value |= ~0ULL << (8 * n);  // sign-extend
  }
  return value;
}

std::string CellText(const CTLVCell& cell) {
  std::string text(reinterpret_cast<const char*>(cell.value()), cell.length());
  if (!text.empty() && text.back() == '\0') text.pop_back();
  return text;
}

bool CellToValue(const CTLVCell& cell, MibSyntax syntax, SnmpValue* out, std::string* why) {
  SnmpValue value;
  value.type = SnmpTypeOf(syntax);
  const bool isText = cell.type() == CTLVCell::TLV_TYPE_STRING;
  if (!isText && !IsNumericCell(cell)) {
    *why = "cell of type " + std::to_string(cell.type()) + " carries no value";
    return false;
  }
  if (value.type == kAsnOctetString) {
    value.bytes = isText ? CellText(cell) : std::to_string(CellNumber(cell));
    *out = value;
    return true;
  }

  // Numeric syntaxes: the cell's number, or decimal text.
  uint64_t number = 0;
  bool negative = false;
  if (isText) {
    if (!ParseDecimal(CellText(cell), UINT64_MAX, &number)) {
      *why = "text \"" + CellText(cell) + "\" is not a number";
      return false;
    }
  } else {
    number = CellNumber(cell);
    negative = cell.type() == CTLVCell::TLV_TYPE_INT && static_cast<int64_t>(number) < 0;
    // Eight all-ones bytes in an unsigned cell are the back end's "no value"
    // (the node table's items 475/476 without file-system statistics): they
    // fit no 32-bit syntax, so the cell is left out rather than latched.
    if (cell.type() != CTLVCell::TLV_TYPE_INT && cell.length() >= 8 && number == ~0ULL &&
        syntax != MibSyntax::Counter64) {
      *why = std::string("an all-ones 64-bit cell (no value) does not fit ") + MibSyntaxName(syntax);
      return false;
    }
  }
  switch (syntax) {
    case MibSyntax::Integer32: {
      int64_t v = static_cast<int64_t>(number);
      if (!negative && number > static_cast<uint64_t>(std::numeric_limits<int32_t>::max())) {
        v = std::numeric_limits<int32_t>::max();
      } else if (negative && v < std::numeric_limits<int32_t>::min()) {
        v = std::numeric_limits<int32_t>::min();
      }
      value.number = static_cast<uint32_t>(static_cast<int32_t>(v));
      break;
    }
    case MibSyntax::Counter32:
      value.number = number & 0xFFFFFFFFULL;  // counters wrap
      break;
    case MibSyntax::Counter64:
      value.number = number;
      break;
    default:  // Unsigned32, Gauge32, TimeTicks: latch at the ends
      value.number = negative ? 0 : ClampU32(number);
      break;
  }
  *out = value;
  return true;
}

bool CellToIndex(const CTLVCell& cell, MibIndexEncoding encoding, Agentpp::Oidx* out, std::string* why) {
  const bool isText = cell.type() == CTLVCell::TLV_TYPE_STRING;
  if (!isText && !IsNumericCell(cell)) {
    *why = "index cell of type " + std::to_string(cell.type());
    return false;
  }
  if (encoding == MibIndexEncoding::Integer) {
    uint64_t number = 0;
    if (isText) {
      if (!ParseDecimal(CellText(cell), UINT64_MAX, &number)) {
        *why = "index text \"" + CellText(cell) + "\" is not a number";
        return false;
      }
    } else {
      number = CellNumber(cell);
    }
    if (number > 0xFFFFFFFFULL) {
      *why = "index " + std::to_string(number) + " does not fit a sub-identifier";
      return false;
    }
    *out = Agentpp::Oidx{static_cast<uint32_t>(number)};
    return true;
  }
  const std::string text = isText ? CellText(cell) : std::to_string(CellNumber(cell));
  if (text.size() > 112) {  // an OID holds at most 128 sub-identifiers
    *why = "index text of " + std::to_string(text.size()) + " bytes is too long";
    return false;
  }
  Agentpp::Oidx index{static_cast<uint32_t>(text.size())};
  for (unsigned char c : text) index += static_cast<uint32_t>(c);
  *out = index;
  return true;
}

bool IsValidIndex(const Agentpp::Oidx& index, MibIndexEncoding encoding) {
  if (encoding == MibIndexEncoding::Integer) return index.len() == 1;
  if (index.empty() || index.len() != static_cast<size_t>(index[0]) + 1) return false;
  for (size_t i = 1; i < index.len(); ++i) {
    if (index[i] > 255) return false;
  }
  return true;
}

}  // namespace zerva_agent
