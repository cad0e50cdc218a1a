// Encoding and decoding of CTLVPackageV3<TLVMsgHeadV3>, and the cell
// builders. Failures are logged through the ACE logger at error priority with
// the texts the back-end tooling greps for; keep them as they are.
#include "tlv/vem_message_package.h"

#include <algorithm>
#include <cstring>

#include "diag/vem_ace_log.h"
#include "tlv/coding.h"

// libsafec defines memcpy_s as a macro: it comes last.
#include <safe_mem_lib.h>

namespace {

// The text that names getRecord in its log lines.
const char kGetRecordSignature[] =
    "unsigned int CTLVPackageV3<HEAD>::getRecord(unsigned char*, unsigned int, CTLVRecordV3*&) "
    "[with HEAD = TLVMsgHeadV3]";

// "at File=<source>,Line=<line>"
std::string AtFileLine(const char* file, int line) {
  std::string s = "at File=";
  s += file;
  s += ",Line=";
  s += std::to_string(line);
  return s;
}

}  // namespace

template <typename HEAD>
CTLVPackageV3<HEAD>::~CTLVPackageV3() {
  for (CTLVRecordV3* record : m_records) delete record;
}

template <typename HEAD>
void CTLVPackageV3<HEAD>::clear() {
  for (CTLVRecordV3*& record : m_records) {
    if (record != nullptr) {
      record->clear();
      delete record;
      record = nullptr;
    }
  }
  m_records.clear();
}

template <typename HEAD>
unsigned int CTLVPackageV3<HEAD>::bodyLength() const {
  unsigned long long body = 0;
  for (const CTLVRecordV3* record : m_records) body += record->length() + MIN_RECORD_SIZE;
  return static_cast<unsigned int>(body);
}

template <typename HEAD>
unsigned int CTLVPackageV3<HEAD>::encode(unsigned char*& out) {
  const unsigned int bodyLen = bodyLength();
  const unsigned int total = HEAD::SIZE + bodyLen;
  out = new unsigned char[total];
  encode_i(out, bodyLen);
  return total;
}

template <typename HEAD>
unsigned int CTLVPackageV3<HEAD>::encode(unsigned char* buf, unsigned int size) {
  if (buf == nullptr) {
    VEM_ACE_ERROR_FMT("%D %M (%t) buf pointer is null!\n");
    return FAILED;
  }
  const unsigned int bodyLen = bodyLength();
  const unsigned int total = HEAD::SIZE + bodyLen;
  if (size < total) {
    VEM_ACE_ERROR_FMT("%D %M (%t) buf size is less than data size! buf size=%u, data size=%u!\n", size, total);
    return FAILED;
  }
  encode_i(buf, bodyLen);
  return total;
}

template <typename HEAD>
void CTLVPackageV3<HEAD>::encode_i(unsigned char* buf, unsigned int bodyLen) {
  m_head.dataLen = bodyLen;
  errno_t iRet = memcpy_s(buf, HEAD::SIZE, &m_head, HEAD::SIZE);
  if (iRet != 0) {
    VEM_ACE_ERROR_FMT("%D %M (%t) memcpy_s iRet = %d\n", static_cast<int>(iRet));
  }
  // One pass: each record's length is what its cells took, written after them.
  unsigned char* p = buf + HEAD::SIZE;
  unsigned char* const end = p + bodyLen;
  for (const CTLVRecordV3* record : m_records) {
    tlv::EncodeFixed64(p, record->id());
    unsigned char* c = p + MIN_RECORD_SIZE;
    for (const CTLVCell* cell : record->cells()) {
      const unsigned short len = cell->length();
      tlv::EncodeFixed16(c, cell->tagWord());
      tlv::EncodeFixed16(c + 2, len);
      unsigned char* v = c + MIN_TLV_SIZE;
      if (len <= CTLVCell::INLINE_VALUE_SIZE && end - v >= CTLVCell::INLINE_VALUE_SIZE) {
        // A short value lies in the cell's own 8 bytes: copy all of them at
        // once; the bytes past the value are overwritten by what follows.
        if (len != 0) std::memcpy(v, cell->value(), CTLVCell::INLINE_VALUE_SIZE);
      } else if (len != 0) {
        std::memcpy(v, cell->value(), len);
      }
      c = v + len;
    }
    tlv::EncodeFixed16(p + 8, static_cast<uint16_t>(c - p - MIN_RECORD_SIZE));
    p = c;
  }
}

template <typename HEAD>
unsigned int CTLVPackageV3<HEAD>::decode(unsigned char* buf, unsigned int size) {
  // Header verification.
  if (buf == nullptr || size < HEAD::SIZE) {
    VEM_ACE_ERROR_FMT(
        "%D %M (%t) at File=%s,Line=%d,Function=CTLVPackageV3::verifyMsgHead: pBuf is null or "
        "uiBufSize equal zero!\n",
        __FILE__, __LINE__);
    VEM_ACE_ERROR_FMT("%D %M (%t) invalid MSG header!\n");
    return FAILED;
  }
  if (tlv::DecodeFixed32(buf) != HEAD::MAGIC || tlv::DecodeFixed32(buf + 4) != HEAD::VERSION) {
    VEM_ACE_ERROR_FMT("%D %M (%t) invalid MSG header!\n");
    return FAILED;
  }
  const unsigned int dataLen = tlv::DecodeFixed32(buf + 24);
  if (static_cast<unsigned long long>(dataLen) + HEAD::SIZE > size) {
    VEM_ACE_ERROR_FMT("%D %M (%t) invalid MSG header!\n");
    return FAILED;
  }

  unsigned int pos = 0;
  if (dataLen != 0) {
    unsigned char* body = buf + HEAD::SIZE;
    unsigned int remaining = dataLen;
    for (;;) {
      if (remaining < MIN_RECORD_SIZE) {
        std::string text = AtFileLine(__FILE__, __LINE__) + ": MIN_RECORD_SIZE(10) > uiRemainLen, " +
                           "buf size=" + std::to_string(size) + ", parsing pos=" + std::to_string(pos + HEAD::SIZE);
        VEM_ACE_ERROR_TEXT(text);
        this->clear();
        return FAILED;
      }
      CTLVRecordV3* record = nullptr;
      pos += getRecord(body + pos, remaining, record);
      if (record == nullptr) {
        std::string text = AtFileLine(__FILE__, __LINE__) + " : it failed to parse record, " +
                           "buf size=" + std::to_string(size) + ", parsing pos=" + std::to_string(pos + HEAD::SIZE);
        VEM_ACE_ERROR_TEXT(text);
        this->clear();
        return FAILED;
      }
      push_back(record);
      if (dataLen <= pos) break;
      remaining = dataLen - pos;
    }
  }

  // Success: carry the back end's header fields through.
  m_head.hdrWord0 = tlv::DecodeFixed32(buf + 8);
  m_head.hdrWord1 = tlv::DecodeFixed32(buf + 12);
  m_head.hdrShort0 = tlv::DecodeFixed16(buf + 16);
  m_head.hdrShort1 = tlv::DecodeFixed16(buf + 18);
  m_head.hdrShort2 = tlv::DecodeFixed16(buf + 20);
  m_head.hdrShort3 = tlv::DecodeFixed16(buf + 22);
  m_head.dataLen = dataLen;
  return pos;
}

template <typename HEAD>
unsigned int CTLVPackageV3<HEAD>::getRecord(unsigned char* buf, unsigned int size, CTLVRecordV3*& record) {
  record = nullptr;
  const unsigned long long id = tlv::DecodeFixed64(buf);
  const unsigned short usRecordLen = tlv::DecodeFixed16(buf + 8);
  const unsigned int recordEnd = usRecordLen + MIN_RECORD_SIZE;
  // "at File=...,Line=...,Function=..." of a log line; built only when one is written.
  auto where = [](int line) { return AtFileLine(__FILE__, line) + ",Function=" + kGetRecordSignature; };

  if (recordEnd > size) {
    VEM_ACE_ERROR_TEXT(
        where(__LINE__) + " : record length is too long, (usRecordLen +  MIN_RECORD_SIZE) > uiBufSize ->" +
        std::to_string(usRecordLen) + "+" + std::to_string(MIN_RECORD_SIZE) + " < " + std::to_string(size));
    return 0;
  }

  // The record end of the cell bound check is 16-bit: a usRecordLen of 65526
  // or more can never be accepted. The position itself is kept wide so that
  // a cell header near the 64 KiB mark cannot wrap it back into the record.
  const unsigned short recordEnd16 = static_cast<unsigned short>(recordEnd);
  unsigned int pos = MIN_RECORD_SIZE;
  // The record is made first and takes the cells as they are read; if the
  // record turns out bad it is destroyed with them (values scrubbed).
  std::unique_ptr<CTLVRecordV3> built(new CTLVRecordV3(id, CTLVRecordV3::DEFAULT_BUCKETS));
  while (pos - MIN_RECORD_SIZE < usRecordLen) {
    if (size - pos < MIN_TLV_SIZE) {
      VEM_ACE_ERROR_TEXT(where(__LINE__) + " : (MIN_TLV_SIZE > uiBufSize - pos) ->" + std::to_string(MIN_TLV_SIZE) +
                         " < " + "uiBufSize" + " - " + std::to_string(pos));
      break;
    }
    const unsigned short tagWord = tlv::DecodeFixed16(buf + pos);
    pos += 2;
    if ((tagWord & 0xF) > CTLVCell::TLV_TYPE_MAX_ACCEPTED) {
      VEM_ACE_ERROR_TEXT(where(__LINE__) + " : data type unmated, received type is " + std::to_string(tagWord & 0xF));
      break;
    }
    const unsigned short sDataLen = tlv::DecodeFixed16(buf + pos);
    pos += 2;
    if (sDataLen + pos > recordEnd16) {
      VEM_ACE_ERROR_TEXT(where(__LINE__) +
                         " : data length is too long, ((sDataLen + pos) > usRecordLen + MIN_RECORD_SIZE) ->" +
                         std::to_string(sDataLen) + "+" + std::to_string(pos) + " > " + std::to_string(usRecordLen) +
                         "+" + std::to_string(MIN_RECORD_SIZE));
      break;
    }
    std::unique_ptr<CTLVCell> cell(new CTLVCell());
    cell->setFromWire(tagWord, buf + pos, sDataLen);
    built->adopt(cell.release());
    pos += sDataLen;
  }

  // The position alone decides, also after a loop left by an error above.
  if (pos != recordEnd) return 0;

  built->setBucketCount(std::max<unsigned long>(built->cellCount(), CTLVRecordV3::DEFAULT_BUCKETS));
  record = built.release();
  return recordEnd;
}

template <typename HEAD>
void CTLVPackageV3<HEAD>::dump(std::ostringstream& os) const {
  os << "{" << std::endl;
  m_head.dump(os);
  for (const CTLVRecordV3* record : m_records) record->dump(os);
  os << "}" << std::endl;
}

template class CTLVPackageV3<TLVMsgHeadV3>;

namespace tlv {

CTLVCell* NewUintCell(unsigned short tag, CTLVCell::ETLVType type, unsigned long long value, unsigned int width) {
  unsigned char bytes[8];
  EncodeFixed64(bytes, value);
  std::unique_ptr<CTLVCell> cell(new CTLVCell());
  cell->set_i(type, tag, bytes, width);
  return cell.release();
}

CTLVCell* NewStringCell(unsigned short tag, const std::string& text) {
  std::unique_ptr<CTLVCell> cell(new CTLVCell());
  // c_str() carries the terminating NUL, which is part of the value.
  cell->set_i(CTLVCell::TLV_TYPE_STRING, tag, text.c_str(), text.size() + 1);
  return cell.release();
}

}  // namespace tlv
