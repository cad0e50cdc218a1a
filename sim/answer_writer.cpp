#include "sim/answer_writer.h"

#include <cstring>

#include "tlv/coding.h"
#include "tlv/vem_message_package.h"

namespace zerva_sim {

namespace {
const size_t kHeader = TLVMsgHeadV3::SIZE;
const size_t kRecordHead = 10;  // identifier and length
}  // namespace

AnswerWriter::AnswerWriter(uint32_t result) : buf_(kHeader) {
  TLVMsgHeadV3 head;
  head.hdrWord0 = result;
  unsigned char* p = buf_.data();
  tlv::EncodeFixed32(p, head.magic);
  tlv::EncodeFixed32(p + 4, head.version);
  tlv::EncodeFixed32(p + 8, head.hdrWord0);
  tlv::EncodeFixed32(p + 12, head.hdrWord1);
  tlv::EncodeFixed16(p + 16, head.hdrShort0);
  tlv::EncodeFixed16(p + 18, head.hdrShort1);
  tlv::EncodeFixed16(p + 20, head.hdrShort2);
  tlv::EncodeFixed16(p + 22, head.hdrShort3);
  tlv::EncodeFixed32(p + 24, 0);
}

void AnswerWriter::closeRecord() {
  if (recordStart_ == 0) return;
  const size_t len = buf_.size() - recordStart_ - kRecordHead;
  if (len > 0xFFFF) ok_ = false;
  tlv::EncodeFixed16(buf_.data() + recordStart_ + 8, static_cast<uint16_t>(len));
  recordStart_ = 0;
}

void AnswerWriter::beginRecord(unsigned long long id) {
  closeRecord();
  recordStart_ = buf_.size();
  buf_.resize(buf_.size() + kRecordHead);
  tlv::EncodeFixed64(buf_.data() + recordStart_, id);
  ++records_;
}

void AnswerWriter::cell(uint16_t tag, uint16_t type, const void* value, size_t len) {
  const size_t at = buf_.size();
  buf_.resize(at + 4 + len);
  tlv::EncodeFixed16(buf_.data() + at, static_cast<uint16_t>((tag << 4) | (type & 0xF)));
  tlv::EncodeFixed16(buf_.data() + at + 2, static_cast<uint16_t>(len));
  if (len > 0) memcpy(buf_.data() + at + 4, value, len);
}

void AnswerWriter::str(uint16_t tag, const std::string& text) {
  cell(tag, CTLVCell::TLV_TYPE_STRING, text.c_str(), text.size() + 1);
}

void AnswerWriter::u32(uint16_t tag, uint32_t value) {
  unsigned char v[4];
  tlv::EncodeFixed32(v, value);
  cell(tag, CTLVCell::TLV_TYPE_UINT, v, sizeof v);
}

void AnswerWriter::t6(uint16_t tag, uint64_t value) {
  unsigned char v[8];
  tlv::EncodeFixed64(v, value);
  cell(tag, CTLVCell::TLV_TYPE_UINT64, v, sizeof v);
}

std::vector<unsigned char> AnswerWriter::finish() {
  closeRecord();
  tlv::EncodeFixed32(buf_.data() + 24, static_cast<uint32_t>(buf_.size() - kHeader));
  return std::move(buf_);
}

std::vector<unsigned char> AnswerWriter::Empty(uint32_t result) { return AnswerWriter(result).finish(); }

}  // namespace zerva_sim
