// Little-endian encoding and decoding of fixed-width integers.
//
// The TLV wire format stores every integer low byte first. These helpers
// write and read bytes explicitly, so they are right whatever the alignment
// of the buffer.
#ifndef ZERVA_TLV_CODING_H_
#define ZERVA_TLV_CODING_H_

#include <cstddef>
#include <cstdint>

namespace tlv {

// Writes value into dst[0..1], low byte first. REQUIRES: dst has 2 bytes.
inline void EncodeFixed16(unsigned char* dst, uint16_t value) {
  dst[0] = static_cast<unsigned char>(value);
  dst[1] = static_cast<unsigned char>(value >> 8);
}

// Writes value into dst[0..3], low byte first. REQUIRES: dst has 4 bytes.
inline void EncodeFixed32(unsigned char* dst, uint32_t value) {
  for (int i = 0; i < 4; ++i) dst[i] = static_cast<unsigned char>(value >> (8 * i));
}

// Writes value into dst[0..7], low byte first. REQUIRES: dst has 8 bytes.
inline void EncodeFixed64(unsigned char* dst, uint64_t value) {
  for (int i = 0; i < 8; ++i) dst[i] = static_cast<unsigned char>(value >> (8 * i));
}

// Reads a little-endian u16 from src[0..1]. REQUIRES: src has 2 bytes.
inline uint16_t DecodeFixed16(const unsigned char* src) { return static_cast<uint16_t>(src[0] | (src[1] << 8)); }

// Reads a little-endian u32 from src[0..3]. REQUIRES: src has 4 bytes.
inline uint32_t DecodeFixed32(const unsigned char* src) {
  return static_cast<uint32_t>(src[0]) | (static_cast<uint32_t>(src[1]) << 8) | (static_cast<uint32_t>(src[2]) << 16) |
         (static_cast<uint32_t>(src[3]) << 24);
}

// Reads a little-endian u64 from src[0..7]. REQUIRES: src has 8 bytes.
inline uint64_t DecodeFixed64(const unsigned char* src) {
  return static_cast<uint64_t>(DecodeFixed32(src)) | (static_cast<uint64_t>(DecodeFixed32(src + 4)) << 32);
}

// Reads the first n bytes of src, at most 8, as a little-endian unsigned
// number, zero-extended: a value of any width up to 8 bytes (0 bytes give 0).
// Bytes past the eighth are not read. REQUIRES: src has min(n, 8) bytes.
inline uint64_t DecodeFixedUpTo64(const unsigned char* src, size_t n) {
  const size_t width = n < 8 ? n : 8;
  uint64_t value = 0;
  for (size_t i = 0; i < width; ++i) value |= static_cast<uint64_t>(src[i]) << (8 * i);
  return value;
}

}  // namespace tlv

#endif  // ZERVA_TLV_CODING_H_
