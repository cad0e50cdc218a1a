// TLV messages exchanged with the array's management back end.
//
// A message (CTLVPackageV3<TLVMsgHeadV3>) is a 28-byte header followed by a
// body of records; a record (CTLVRecordV3) is a 64-bit identifier, a 16-bit
// length and a run of cells; a cell (CTLVCell) is a 16-bit tag word (tag in
// bits 4..15, type in bits 0..3), a 16-bit value length and the value bytes.
// Every integer on the wire is little-endian.
//
// Ownership: a package owns its records, a record owns its cells. Cells are
// created with new and handed to a record with append(); records are handed
// to a package with push_back(). Cell values are zeroed before they are freed.
//
// Memory: cells, records, the records' list nodes and tag index entries, and
// value buffers of up to 2 KiB come from the per-thread block pool of
// tlv/tlv_pool.h (class-level operator new/delete and allocators), so that
// decoding does not call malloc once per cell. Values of up to 8 bytes live
// inside the cell. A record builds its tag index at the first lookup by tag.
//
// The operations marked "platform" are defined out of line in libvempub; the
// rest is inline here or in tlv/vem_message_package.cpp, and is compiled into
// every binary that uses the types.
#ifndef ZERVA_TLV_VEM_MESSAGE_PACKAGE_H_
#define ZERVA_TLV_VEM_MESSAGE_PACKAGE_H_

#include <ace/Functor_T.h>
#include <ace/Hash_Map_Manager_T.h>
#include <ace/Malloc_Base.h>
#include <ace/Null_Mutex.h>

#include <cstdint>
#include <cstring>
#include <list>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "diag/vem_exception.h"
#include "tlv/coding.h"
#include "tlv/tlv_pool.h"

namespace Json {
class Value;
}

// Observer of cell values about to be freed (after scrubbing). Null in
// production; tests install one to check that no value byte survives.
typedef void (*TLVCellReleaseObserver)(const unsigned char* value, unsigned short len);
extern TLVCellReleaseObserver g_tlvCellReleaseObserver;  // platform

class CTLVCell {
 public:
  enum ETLVType {
    TLV_TYPE_NONE = 0,
    TLV_TYPE_STRING = 2,
    TLV_TYPE_UINT = 3,
    TLV_TYPE_INT = 4,
    TLV_TYPE_UINT64 = 6,
    TLV_TYPE_MAX_ACCEPTED = 9,  // highest type code accepted on decode
  };

  enum : unsigned short { DEFAULT_TAG = 4094 };
  // Values of up to this many bytes are kept inside the cell.
  enum : unsigned short { INLINE_VALUE_SIZE = 8 };

  // Cells come from the TLV block pool; delete returns them there.
  static void* operator new(size_t n) { return tlv::PoolAllocate(n); }
  static void operator delete(void* p, size_t n) { tlv::PoolFree(p, n); }

  // A default cell: type 0, tag 4094, no value.
  CTLVCell() : m_usTagWord(static_cast<unsigned short>(DEFAULT_TAG << 4)), m_usLen(0), m_pValue(nullptr) {}
  // Zeroes every value byte, one by one, before freeing the value.
  ~CTLVCell() { releaseValue(); }
  CTLVCell(const CTLVCell&) = delete;
  CTLVCell& operator=(const CTLVCell&) = delete;

  // platform: sets type and tag and copies len bytes of value (a null value
  // with len 0 leaves the cell empty). A previous value is scrubbed and freed.
  // Throws CVEM_Exception when len exceeds 65535 or value is null with len > 0.
  void set_i(ETLVType type, unsigned short tag, const void* value, unsigned long len);
  // platform: as set_i with type and tag packed in one wire tag word.
  void setCell(unsigned short tagWord, const char* data, unsigned long len);
  // platform: sets the cell from a JSON value (mapping in docs/tlv.md).
  void set(unsigned short tag, const Json::Value& v);
  // platform: the value as text. Strings stop at their first NUL byte;
  // numbers are written in decimal; a cell of type 0 gives "".
  std::string toString() const;

  // Throws CVEM_Exception unless the type is 3 to 15.
  void checkNumerical() const {
    if (static_cast<unsigned short>(type() - 3) > 65532) {
      throw CVEM_Exception("CTLVCell isn't numerical type! tag equal to " + std::to_string(tag()));
    }
  }
  // Throws CVEM_Exception unless the type is 2.
  void checkString() const {
    if (type() != TLV_TYPE_STRING) {
      throw CVEM_Exception("CTLVCell isn't string type! tag equal to " + std::to_string(tag()));
    }
  }

  unsigned short tagWord() const { return m_usTagWord; }
  unsigned short tag() const { return static_cast<unsigned short>(m_usTagWord >> 4); }
  unsigned short type() const { return static_cast<unsigned short>(m_usTagWord & 0xF); }
  unsigned short length() const { return m_usLen; }
  const unsigned char* value() const { return m_pValue; }

  // Replaces the tag word; the value stays.
  void setTagWord(unsigned short tagWord) { m_usTagWord = tagWord; }

  // As setCell on a cell that holds no value yet (a new cell), for the
  // decoder: the tag word as read, len bytes of data copied.
  // REQUIRES: the cell holds no value; data has len bytes.
  void setFromWire(unsigned short tagWord, const unsigned char* data, unsigned short len) {
    m_usTagWord = tagWord;
    if (len != 0) {
      unsigned char* copy = allocValue(len);
      std::memcpy(copy, data, len);
      m_pValue = copy;
      m_usLen = len;
    }
  }

  // Value conversions, as function objects over a cell.
  template <typename T>
  struct ValueCast;

 private:
  // Storage for a value of len (> 0) bytes: the cell's own bytes up to
  // INLINE_VALUE_SIZE, a pool block up to tlv::kMaxPooledSize, else new[].
  unsigned char* allocValue(unsigned short len) {
    if (len <= INLINE_VALUE_SIZE) return m_inline;
    if (len <= tlv::kMaxPooledSize) return static_cast<unsigned char*>(tlv::PoolAllocate(len));
    return new unsigned char[len];
  }
  // Frees what allocValue(len) gave.
  void freeValue(unsigned char* value, unsigned short len) {
    if (value == m_inline) return;
    if (len <= tlv::kMaxPooledSize) {
      tlv::PoolFree(value, len);
    } else {
      delete[] value;
    }
  }

  void releaseValue() {
    if (m_pValue != nullptr) {
      volatile unsigned char* p = m_pValue;
      for (unsigned int i = 0; i < m_usLen; ++i) p[i] = 0;
      if (g_tlvCellReleaseObserver != nullptr) g_tlvCellReleaseObserver(m_pValue, m_usLen);
      freeValue(m_pValue, m_usLen);
      m_pValue = nullptr;
    }
    m_usLen = 0;
  }

  unsigned short m_usTagWord;
  unsigned short m_usLen;
  unsigned char* m_pValue;
  unsigned char m_inline[INLINE_VALUE_SIZE];  // the value when it is this short
};

// The value as an unsigned 32-bit number, by value length n:
// 0 -> 0; 1 or 2 -> little-endian, sign-extended for type 4, else
// zero-extended; 3 -> little-endian, zero-extended whatever the type;
// 4 or more -> the first four bytes little-endian. The type is not checked.
template <>
struct CTLVCell::ValueCast<unsigned int> {
  unsigned int operator()(const CTLVCell* cell) const {
    const unsigned char* v = cell->value();
    const bool isSigned = cell->type() == TLV_TYPE_INT;
    switch (cell->length()) {
      case 0:
        return 0;
      case 1:
        return isSigned ? static_cast<unsigned int>(static_cast<int>(static_cast<int8_t>(v[0])))
                        : static_cast<unsigned int>(v[0]);
      case 2: {
        const uint16_t u = tlv::DecodeFixed16(v);
        return isSigned ? static_cast<unsigned int>(static_cast<int>(static_cast<int16_t>(u)))
                        : static_cast<unsigned int>(u);
      }
      case 3:
        return static_cast<unsigned int>(tlv::DecodeFixedUpTo64(v, 3));
      default:
        return tlv::DecodeFixed32(v);
    }
  }
};

class CTLVRecordV3 {
 public:
  typedef std::list<CTLVCell*, tlv::PoolAllocator<CTLVCell*>> CellList;
  typedef ACE_Hash_Map_Manager_Ex<int, CellList::iterator, ACE_Hash<int>, ACE_Equal_To<int>, ACE_Null_Mutex> TagIndex;

  enum : unsigned long long { RESPONSE_ID = 0xFFFFFFFFFFFFFFFFULL };
  enum : unsigned long { DEFAULT_BUCKETS = 32 };

  // An empty record with that identifier and a tag index of bucketCount
  // buckets. The index is made at the first lookup by tag (or append after
  // one), its buckets and entries from the block pool; a failure to get them
  // is logged by ACE as "ACE_Hash_Map_Manager_Ex\n" and the record carries on.
  // Because of that, a record must not be read from two threads at once.
  CTLVRecordV3(unsigned long long id, unsigned long bucketCount)
      : m_ullId(id), m_ulBuckets(bucketCount), m_pIndex(nullptr) {}
  ~CTLVRecordV3() {
    dropIndex();  // first: clear() then has no index to empty
    clear();
  }

  // Records come from the TLV block pool; delete returns them there.
  static void* operator new(size_t n) { return tlv::PoolAllocate(n); }
  static void operator delete(void* p, size_t n) { tlv::PoolFree(p, n); }
  CTLVRecordV3(const CTLVRecordV3&) = delete;
  CTLVRecordV3& operator=(const CTLVRecordV3&) = delete;

  // platform: adds the cell at the end and indexes it by its tag; takes
  // ownership (the cell is freed if indexing throws). With several cells of
  // one tag the index keeps the first.
  void append(const CTLVCell* cell);
  // platform: the first cell with that tag; throws CVEM_Exception
  // "cell don't exist, tag is N" when the record has none.
  CTLVCell* operator[](unsigned short tag);
  const CTLVCell* operator[](unsigned short tag) const;
  // platform: the encoded size of the cells: the sum of 4 + value length.
  unsigned long length() const;
  // platform: destroys every cell and empties the list and the index.
  void clear();
  // platform: readable text of the record, one line per cell.
  void dump(std::ostringstream& os) const;

  // True when the tag index holds the tag.
  bool hasTag(unsigned short tag) const { return index().find(tag) == 0; }

  // append, inline for the decoder (append itself is the platform's
  // out-of-line operation and calls this).
  void adopt(CTLVCell* cell) {
    std::unique_ptr<CTLVCell> guard(cell);
    m_cells.push_back(cell);
    guard.release();
    if (m_pIndex != nullptr) m_pIndex->bind(cell->tag(), std::prev(m_cells.end()));
  }

  unsigned long long id() const { return m_ullId; }
  void setId(unsigned long long id) { m_ullId = id; }
  const CellList& cells() const { return m_cells; }
  size_t cellCount() const { return m_cells.size(); }
  // The bucket count of the tag index (the one it will have while it is not
  // made yet).
  size_t bucketCount() const { return m_pIndex != nullptr ? m_pIndex->total_size() : m_ulBuckets; }
  // Sets the bucket count of a tag index not made yet; no effect afterwards.
  void setBucketCount(unsigned long bucketCount) {
    if (m_pIndex == nullptr) m_ulBuckets = bucketCount;
  }

 private:
  // The tag index, made from the cells at the first call.
  TagIndex& index() const {
    if (m_pIndex == nullptr) buildIndex();
    return *m_pIndex;
  }
  void buildIndex() const;  // platform
  void dropIndex();         // platform

  unsigned long long m_ullId;
  CellList m_cells;
  unsigned long m_ulBuckets;
  mutable TagIndex* m_pIndex;
};

// The 28-byte message header, laid out as on the wire (little-endian host).
struct TLVMsgHeadV3 {
  enum : uint32_t { MAGIC = 0x55555555, VERSION = 3 };
  enum : unsigned int { SIZE = 28 };

  uint32_t magic = MAGIC;
  uint32_t version = VERSION;
  uint32_t hdrWord0 = 0;
  uint32_t hdrWord1 = 0xFFFFFFFF;
  uint16_t hdrShort0 = 0xFFFD;
  uint16_t hdrShort1 = 0xFFFF;
  uint16_t hdrShort2 = 0xFFFF;
  uint16_t hdrShort3 = 0xFFFF;
  uint32_t dataLen = 0;

  // platform: one "name=value" line per field.
  void dump(std::ostringstream& os) const;
};
static_assert(sizeof(TLVMsgHeadV3) == 28, "TLVMsgHeadV3 must be 28 bytes");
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the header is copied as it lies in memory");

template <typename HEAD>
class CTLVPackageV3 {
 public:
  enum : unsigned int { MIN_RECORD_SIZE = 10, MIN_TLV_SIZE = 4, FAILED = 0xFFFFFFFF };

  CTLVPackageV3() {}
  virtual ~CTLVPackageV3();
  CTLVPackageV3(const CTLVPackageV3&) = delete;
  CTLVPackageV3& operator=(const CTLVPackageV3&) = delete;

  // Parses a whole message and appends its records. Returns the body bytes
  // consumed (dataLen), 0 for an empty body, 0xFFFFFFFF on failure (logged;
  // the package then holds no records and keeps its header).
  virtual unsigned int decode(unsigned char* buf, unsigned int size);
  // Allocates exactly the encoded size with new[] into out (the caller frees
  // it with delete[]) and returns that size.
  virtual unsigned int encode(unsigned char*& out);
  // Encodes into buf. Returns the size, or 0xFFFFFFFF (logged) when buf is
  // null or smaller than the encoded size; nothing is written then.
  virtual unsigned int encode(unsigned char* buf, unsigned int size);
  // Destroys every record; the header stays.
  virtual void clear();
  // Readable text of the header and the records.
  virtual void dump(std::ostringstream& os) const;

  // Parses one record at buf with size bytes available. Returns its size on
  // the wire and a new record, or 0 and null (logged).
  unsigned int getRecord(unsigned char* buf, unsigned int size, CTLVRecordV3*& record);
  // Encoding worker: stores bodyLen into the header's dataLen and writes
  // header and records. REQUIRES: buf holds 28 + bodyLen bytes.
  void encode_i(unsigned char* buf, unsigned int bodyLen);

  // The record at that position; throws CVEM_Exception
  // "record don't exist, index is N" past the end.
  CTLVRecordV3* operator[](unsigned long index) const {
    if (index < m_records.size()) return m_records[index];
    throw CVEM_Exception("record don't exist, index is " + std::to_string(index));
  }

  // Appends a record and takes ownership of it (freed if the append throws).
  void push_back(CTLVRecordV3* record) {
    std::unique_ptr<CTLVRecordV3> owned(record);
    m_records.push_back(record);
    owned.release();
  }

  size_t size() const { return m_records.size(); }
  bool empty() const { return m_records.empty(); }
  const std::vector<CTLVRecordV3*>& records() const { return m_records; }

  HEAD& head() { return m_head; }
  const HEAD& head() const { return m_head; }

  // The body length: the sum over the records of length() + 10.
  unsigned int bodyLength() const;

 private:
  HEAD m_head;
  std::vector<CTLVRecordV3*> m_records;
};

typedef CTLVPackageV3<TLVMsgHeadV3> CTLVPackage;

// The only instantiation is made in tlv/vem_message_package.cpp.
extern template class CTLVPackageV3<TLVMsgHeadV3>;

// Walks the records of a package by position. index 0xFFFFFFFF is "end".
template <typename PACKAGE>
class CTLVRecordV3_Const_Iterator {
 public:
  enum : unsigned long long { END = 0xFFFFFFFFULL };

  explicit CTLVRecordV3_Const_Iterator(const PACKAGE* package)
      : m_ullIndex(package != nullptr && package->size() > 0 ? 0ULL : static_cast<unsigned long long>(END)),
        m_pPackage(package) {}

  bool isEnd() const { return m_ullIndex == END; }
  unsigned long long index() const { return m_ullIndex; }

  CTLVRecordV3_Const_Iterator& operator++() {
    if (m_ullIndex != END) {
      ++m_ullIndex;
      if (m_pPackage == nullptr || m_ullIndex >= m_pPackage->size()) m_ullIndex = END;
    }
    return *this;
  }

  // Throws CVEM_Exception "record don't exist, index is N" unless the
  // iterator stands on a record.
  void checkRecord() const {
    if (m_ullIndex != END && m_pPackage != nullptr && m_ullIndex < m_pPackage->size()) return;
    throw CVEM_Exception("record don't exist, index is " + std::to_string(m_ullIndex));
  }

  const CTLVRecordV3& operator*() const {
    checkRecord();
    return *(*m_pPackage)[static_cast<unsigned long>(m_ullIndex)];
  }
  const CTLVRecordV3* operator->() const { return &**this; }

 private:
  unsigned long long m_ullIndex;
  const PACKAGE* m_pPackage;
};

typedef CTLVRecordV3_Const_Iterator<CTLVPackageV3<TLVMsgHeadV3>> CTLVRecordIterator;

// Cell-building helpers used by request and row builders.
namespace tlv {

// A new cell holding an unsigned number of width 4 or 8 bytes (type 3 or 6).
// REQUIRES: width is 4 or 8.
CTLVCell* NewUintCell(unsigned short tag, CTLVCell::ETLVType type, unsigned long long value, unsigned int width);
// A new type-2 cell holding the text and its terminating NUL byte.
CTLVCell* NewStringCell(unsigned short tag, const std::string& text);

}  // namespace tlv

#endif  // ZERVA_TLV_VEM_MESSAGE_PACKAGE_H_
