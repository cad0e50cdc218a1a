// Encodes answer frames straight into bytes: header, records and cells in
// the TLV wire format, without building a record object per listed object.
#ifndef ZERVA_SIM_ANSWER_WRITER_H_
#define ZERVA_SIM_ANSWER_WRITER_H_

#include <cstdint>
#include <string>
#include <vector>

namespace zerva_sim {

class AnswerWriter {
 public:
  // An answer carrying this result code in hdrWord0.
  explicit AnswerWriter(uint32_t result = 0);

  // Starts a record; the previous one is closed.
  void beginRecord(unsigned long long id);
  // Text cell (type 2) with its terminating NUL. REQUIRES: a record is open.
  void str(uint16_t tag, const std::string& text);
  // Unsigned cell (type 3) of 4 bytes. REQUIRES: a record is open.
  void u32(uint16_t tag, uint32_t value);
  // Unsigned 64-bit cell (type 6) of 8 bytes. REQUIRES: a record is open.
  void t6(uint16_t tag, uint64_t value);

  // False once a record outgrew its 16-bit length field.
  bool ok() const { return ok_; }
  size_t records() const { return records_; }
  // Closes the last record, sets dataLen and hands over the frame.
  std::vector<unsigned char> finish();

  // A header-only answer with this result code.
  static std::vector<unsigned char> Empty(uint32_t result);

 private:
  void cell(uint16_t tag, uint16_t type, const void* value, size_t len);
  void closeRecord();

  std::vector<unsigned char> buf_;
  size_t recordStart_ = 0;  // offset of the open record, 0 when none
  size_t records_ = 0;
  bool ok_ = true;
};

}  // namespace zerva_sim

#endif  // ZERVA_SIM_ANSWER_WRITER_H_
