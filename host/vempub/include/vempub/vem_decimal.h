// Decimal numbers in text: the one rule every number field of our
// configuration, topology, command-line and back-end texts is read with.
#ifndef ZERVA_VEMPUB_VEM_DECIMAL_H_
#define ZERVA_VEMPUB_VEM_DECIMAL_H_

#include <cstdint>
#include <string>

// Parses text as a plain decimal number no greater than max and stores it in
// *value. The text must be one or more ASCII digits '0'-'9' and nothing else
// (no sign, no blank, no "0x", nothing after the digits); leading zeros are
// read as part of the value ("007" is 7). Overflow is detected at any length.
// Returns false and leaves *value untouched for any other text.
// REQUIRES: value != nullptr.
bool ParseDecimal(const std::string& text, uint64_t max, uint64_t* value);

// The same for text[begin, end), for callers that split a text into fields.
// REQUIRES: begin <= end <= text.size(), value != nullptr.
bool ParseDecimal(const std::string& text, size_t begin, size_t end, uint64_t max, uint64_t* value);

#endif  // ZERVA_VEMPUB_VEM_DECIMAL_H_
