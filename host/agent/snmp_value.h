// How the agent turns back-end cells into SNMP values and row indexes.
//
// A handler answers rows of cells (tag = MIB column number). The MIB
// description says which SNMP type each column has and how a table's index
// column becomes the OID suffix of its rows. These functions hold that
// translation; they do not depend on the Net-SNMP library, so the mapping can
// be tested on its own.
#ifndef ZERVA_AGENT_SNMP_VALUE_H_
#define ZERVA_AGENT_SNMP_VALUE_H_

#include <cstdint>
#include <string>

#include "agentpp/oidx.h"
#include "host/agent/mib_description.h"
#include "tlv/vem_message_package.h"

namespace zerva_agent {

// ASN.1 / SMI type tags, numerically equal to Net-SNMP's ASN_* constants.
enum SnmpType : unsigned char {
  kAsnInteger = 0x02,
  kAsnOctetString = 0x04,
  kAsnCounter32 = 0x41,
  kAsnGauge32 = 0x42,  // also Unsigned32
  kAsnTimeTicks = 0x43,
  kAsnCounter64 = 0x46,
};

// One SNMP value: integer types use number (Integer32 as its two's
// complement in the low 32 bits), strings use bytes.
struct SnmpValue {
  SnmpType type = kAsnInteger;
  uint64_t number = 0;
  std::string bytes;

  // Integer32 value of an kAsnInteger value.
  int32_t asInt32() const { return static_cast<int32_t>(static_cast<uint32_t>(number)); }
  friend bool operator==(const SnmpValue& a, const SnmpValue& b) {
    return a.type == b.type && a.number == b.number && a.bytes == b.bytes;
  }
  // "Counter32: 5", "STRING: \"abc\"", for logs and tests.
  std::string toString() const;
};

// The SNMP type that carries a syntax.
SnmpType SnmpTypeOf(MibSyntax syntax);

// Converts a cell to a value of the syntax. Numbers beyond the syntax's range
// are clamped (Integer32, Unsigned32, Gauge32, TimeTicks) or wrap modulo 2^32
// (Counter32), except an unsigned 8-byte all-ones cell, which means "no
// value" and fits no syntax but Counter64; text cells (type 2) lose one terminating NUL and feed numeric
// syntaxes only when they are plain decimal; numeric cells feed string
// syntaxes as decimal text. Returns false (and sets *why) when the cell
// cannot be a value of that syntax.
bool CellToValue(const CTLVCell& cell, MibSyntax syntax, SnmpValue* out, std::string* why);

// The OID suffix of a row whose index column holds cell. Integer: one
// sub-identifier (the number, or a text cell holding a decimal number up to
// 2^32-1); String: the length, then one sub-identifier per byte (text
// without its terminating NUL). False (with *why) when the cell cannot be
// such an index.
bool CellToIndex(const CTLVCell& cell, MibIndexEncoding encoding, Agentpp::Oidx* out, std::string* why);

// True when index is a complete, well-formed row index of that encoding.
bool IsValidIndex(const Agentpp::Oidx& index, MibIndexEncoding encoding);

// The cell's numeric value as 64 bits: little-endian value bytes (at most 8),
// sign-extended for type 4.
// REQUIRES: cell is numeric (type 3 to 15).
uint64_t CellNumber(const CTLVCell& cell);

// The bytes of a text cell without one terminating NUL.
std::string CellText(const CTLVCell& cell);

}  // namespace zerva_agent

#endif  // ZERVA_AGENT_SNMP_VALUE_H_
