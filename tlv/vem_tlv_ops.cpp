// The platform's out-of-line operations of the TLV cell, record and header.
#include <json/value.h>
#include <json/writer.h>

#include <cstring>

#include "tlv/coding.h"
#include "tlv/vem_message_package.h"

TLVCellReleaseObserver g_tlvCellReleaseObserver = nullptr;

namespace {

// Decimal text of a numeric cell. Up to 4 bytes: the ValueCast number,
// signed for type 4. Longer: the first 8 bytes little-endian, signed for an
// 8-byte type-4 value.
std::string NumberText(const CTLVCell& cell) {
  const bool isSigned = cell.type() == CTLVCell::TLV_TYPE_INT;
  if (cell.length() <= 4) {
    const unsigned int u = CTLVCell::ValueCast<unsigned int>()(&cell);
    return isSigned ? std::to_string(static_cast<int32_t>(u)) : std::to_string(u);
  }
  const uint64_t u = tlv::DecodeFixedUpTo64(cell.value(), cell.length());
  if (isSigned && cell.length() == 8) return std::to_string(static_cast<int64_t>(u));
  return std::to_string(u);
}

}  // namespace

void CTLVCell::set_i(ETLVType type, unsigned short tag, const void* value, unsigned long len) {
  if (len > 0xFFFF) {
    throw CVEM_Exception("CTLVCell value is too long, tag equal to " + std::to_string(tag) + ", length " +
                         std::to_string(len));
  }
  if (value == nullptr && len != 0) {
    throw CVEM_Exception("CTLVCell value is null, tag equal to " + std::to_string(tag));
  }
  const unsigned short n = static_cast<unsigned short>(len);
  if (n <= INLINE_VALUE_SIZE) {
    // The new value goes where the old one may lie (value may even point
    // into it): copy it aside before the old one is scrubbed.
    unsigned char bytes[INLINE_VALUE_SIZE];
    if (n != 0) std::memcpy(bytes, value, n);
    releaseValue();
    if (n != 0) {
      std::memcpy(m_inline, bytes, n);
      m_pValue = m_inline;
    }
  } else {
    unsigned char* copy = allocValue(n);
    std::memcpy(copy, value, n);
    releaseValue();
    m_pValue = copy;
  }
  m_usTagWord = static_cast<unsigned short>((tag << 4) | (static_cast<unsigned int>(type) & 0xF));
  m_usLen = n;
}

void CTLVCell::setCell(unsigned short tagWord, const char* data, unsigned long len) {
  set_i(static_cast<ETLVType>(tagWord & 0xF), static_cast<unsigned short>(tagWord >> 4), data, len);
}

void CTLVCell::set(unsigned short tag, const Json::Value& v) {
  unsigned char bytes[8];
  switch (v.type()) {
    case Json::nullValue:
      set_i(TLV_TYPE_NONE, tag, nullptr, 0);
      return;
    case Json::booleanValue:
      tlv::EncodeFixed32(bytes, v.asBool() ? 1 : 0);
      set_i(TLV_TYPE_UINT, tag, bytes, 4);
      return;
    case Json::intValue: {
      const Json::Int64 i = v.asInt64();
      tlv::EncodeFixed64(bytes, static_cast<uint64_t>(i));
      set_i(TLV_TYPE_INT, tag, bytes, (i >= INT32_MIN && i <= INT32_MAX) ? 4 : 8);
      return;
    }
    case Json::uintValue:
      tlv::EncodeFixed64(bytes, v.asUInt64());
      set_i(TLV_TYPE_UINT64, tag, bytes, 8);
      return;
    case Json::stringValue: {
      const std::string s = v.asString();
      set_i(TLV_TYPE_STRING, tag, s.c_str(), s.size() + 1);
      return;
    }
    case Json::realValue:
    case Json::arrayValue:
    case Json::objectValue: {
      Json::StreamWriterBuilder builder;
      builder["indentation"] = "";
      const std::string s = Json::writeString(builder, v);
      set_i(TLV_TYPE_STRING, tag, s.c_str(), s.size() + 1);
      return;
    }
  }
}

std::string CTLVCell::toString() const {
  if (type() == TLV_TYPE_STRING) {
    if (m_usLen == 0) return std::string();
    const char* p = reinterpret_cast<const char*>(m_pValue);
    const void* nul = std::memchr(p, 0, m_usLen);
    return std::string(p, nul != nullptr ? static_cast<const char*>(nul) - p : m_usLen);
  }
  if (type() == TLV_TYPE_NONE) return std::string();
  return NumberText(*this);
}

void CTLVRecordV3::append(const CTLVCell* cell) {
  // bind() keeps an existing entry: the first cell of a tag stays indexed.
  adopt(const_cast<CTLVCell*>(cell));
}

void CTLVRecordV3::buildIndex() const {
  void* storage = tlv::PoolAllocate(sizeof(TagIndex));
  // A failure to get the buckets is logged by ACE; the index is then empty
  // and finds nothing.
  m_pIndex = new (storage) TagIndex(m_ulBuckets, tlv::PoolAceAllocator::instance(), tlv::PoolAceAllocator::instance());
  CellList& cells = const_cast<CellList&>(m_cells);
  for (CellList::iterator node = cells.begin(); node != cells.end(); ++node) m_pIndex->bind((*node)->tag(), node);
}

void CTLVRecordV3::dropIndex() {
  if (m_pIndex == nullptr) return;
  m_pIndex->~TagIndex();
  tlv::PoolFree(m_pIndex, sizeof(TagIndex));
  m_pIndex = nullptr;
}

CTLVCell* CTLVRecordV3::operator[](unsigned short tag) {
  CellList::iterator node;
  if (index().find(tag, node) != 0) {
    throw CVEM_Exception("cell don't exist, tag is " + std::to_string(tag));
  }
  return *node;
}

const CTLVCell* CTLVRecordV3::operator[](unsigned short tag) const { return (*const_cast<CTLVRecordV3*>(this))[tag]; }

unsigned long CTLVRecordV3::length() const {
  unsigned long total = 0;
  for (const CTLVCell* cell : m_cells) total += 4 + cell->length();
  return total;
}

void CTLVRecordV3::clear() {
  if (m_pIndex != nullptr) m_pIndex->unbind_all();
  for (CTLVCell* cell : m_cells) delete cell;
  m_cells.clear();
}

void CTLVRecordV3::dump(std::ostringstream& os) const {
  os << "  record id=0x" << std::hex << std::uppercase << m_ullId << std::dec << std::nouppercase
     << " cells=" << m_cells.size() << " length=" << length() << std::endl;
  for (const CTLVCell* cell : m_cells) {
    os << "    tag=" << cell->tag() << " type=" << cell->type() << " len=" << cell->length();
    if (cell->type() == CTLVCell::TLV_TYPE_STRING) {
      os << " text=\"" << cell->toString() << "\"";
    } else if (cell->type() != CTLVCell::TLV_TYPE_NONE) {
      os << " value=" << cell->toString();
    }
    os << std::endl;
  }
}

void TLVMsgHeadV3::dump(std::ostringstream& os) const {
  os << std::hex << std::uppercase;
  os << "  magic=0x" << magic << std::endl;
  os << "  version=" << std::dec << version << std::hex << std::endl;
  os << "  hdrWord0=0x" << hdrWord0 << std::endl;
  os << "  hdrWord1=0x" << hdrWord1 << std::endl;
  os << "  hdrShort0=0x" << hdrShort0 << std::endl;
  os << "  hdrShort1=0x" << hdrShort1 << std::endl;
  os << "  hdrShort2=0x" << hdrShort2 << std::endl;
  os << "  hdrShort3=0x" << hdrShort3 << std::endl;
  os << std::dec << std::nouppercase;
  os << "  dataLen=" << dataLen << std::endl;
}
