// Text helpers of the host's SNMP library.
#ifndef ZERVA_SNMPCOMMON_SNMP_COMM_UTIL_H_
#define ZERVA_SNMPCOMMON_SNMP_COMM_UTIL_H_

#include <string>
#include <vector>

namespace CSnmpCommUtil {

enum : unsigned int { INVALID_NODE_ID = 0xFFFFFFFF };

// The node number of a controller object ID, or 0xFFFFFFFF when the text is
// not one. A controller ID is an engine number (decimal, 0 to 63, no
// leading zero but "0" itself) followed by one slot letter A to D
// (upper case): "0A", "0B", "3D", "12C". Node = engine * 4 + slot.
unsigned int ParseCtrlNodeID(const std::string& id);

// The controller object ID of a node number: the inverse of ParseCtrlNodeID.
// REQUIRES: node < 256.
std::string CtrlNodeIDFromNode(unsigned int node);

}  // namespace CSnmpCommUtil

// A plain decimal number (digits only, leading zeros allowed, 0 to
// 4294967295: ParseDecimal's rule) to its value; any other text (empty,
// signs, blanks, other characters, overflow) gives 0.
unsigned int StrToUint(const std::string& text);

// The decimal text of a number.
std::string UintToStr(unsigned int value);

// Splits text at separator and appends each field's value to out. Every
// field must be a plain decimal number as StrToUint accepts it; an empty
// text, an empty field, a sign, a blank or an overflow make the whole text
// refused: then false is returned, out is left as it was and the refusal is
// counted in CSnmpReadFailures (the handlers parse the back end's value lists
// with this function).
bool SplitToUint(std::string text, char separator, std::vector<unsigned int>& out);

#endif  // ZERVA_SNMPCOMMON_SNMP_COMM_UTIL_H_
