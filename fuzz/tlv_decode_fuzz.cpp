// libFuzzer target for the TLV message decoder.
//
// Arbitrary bytes go to CTLVPackage::decode. When a message is accepted it
// must survive a round trip: encode it, decode the encoding into a fresh
// package, and find the same records and cells; encoding that package again
// must give the very same bytes.
//
// The decoder keeps a record whose last cell is cut by the record's end right
// after its tag word or its length (the cell is dropped, the record kept; the
// unit tests pin that down). Such a record re-encodes shorter than it came in.
// Otherwise the wire format has a single encoding for a given set of records
// and header fields, so the first encoding must then be the accepted input
// itself (header and body, without trailing bytes).
//
// Any broken expectation traps, which libFuzzer reports as a crash and saves
// the input.
#include <ace/Log_Msg.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <list>
#include <memory>
#include <vector>

#include "fuzz/fuzz_check.h"
#include "tlv/coding.h"
#include "tlv/vem_message_package.h"

namespace {

constexpr unsigned int kHeadSize = TLVMsgHeadV3::SIZE;
constexpr unsigned int kFailed = CTLVPackage::FAILED;

// Frees a buffer that encode(unsigned char*&) allocated with new[].
struct ArrayDeleter {
  void operator()(unsigned char* p) const { delete[] p; }
};
using EncodedBuffer = std::unique_ptr<unsigned char, ArrayDeleter>;

bool SameCell(const CTLVCell* a, const CTLVCell* b) {
  if (a->tagWord() != b->tagWord() || a->length() != b->length()) return false;
  if (a->length() == 0) return true;
  if (a->value() == nullptr || b->value() == nullptr) return false;
  return std::memcmp(a->value(), b->value(), a->length()) == 0;
}

// Same records, in the same order, with the same identifiers and cells.
void CheckSameRecords(const CTLVPackage& a, const CTLVPackage& b) {
  FUZZ_CHECK(a.size() == b.size());
  for (size_t i = 0; i < a.size(); ++i) {
    const CTLVRecordV3& ra = *a[i];
    const CTLVRecordV3& rb = *b[i];
    FUZZ_CHECK(ra.id() == rb.id());
    FUZZ_CHECK(ra.cellCount() == rb.cellCount());
    FUZZ_CHECK(ra.length() == rb.length());
    auto ia = ra.cells().begin();
    auto ib = rb.cells().begin();
    for (; ia != ra.cells().end(); ++ia, ++ib) FUZZ_CHECK(SameCell(*ia, *ib));
  }
}

// The tag index of a decoded record answers every tag it holds with the
// first cell carrying that tag.
void CheckTagIndex(CTLVPackage& pkg) {
  for (CTLVRecordV3* record : pkg.records()) {
    for (const CTLVCell* cell : record->cells()) {
      const unsigned short tag = cell->tag();
      FUZZ_CHECK(record->hasTag(tag));
      const CTLVCell* first = nullptr;
      for (const CTLVCell* c : record->cells()) {
        if (c->tag() == tag) {
          first = c;
          break;
        }
      }
      FUZZ_CHECK((*record)[tag] == first);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  // Every rejected input is logged at error priority; with the process mask
  // cleared the logger returns at once and prints nothing.
  ACE_Log_Msg::instance()->priority_mask(0, ACE_Log_Msg::PROCESS);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 0xFFFFFFFFu) return 0;
  // decode() takes a mutable buffer: give it a private copy of exactly the
  // input size, so that any read past the end is caught.
  std::vector<unsigned char> input(data, data + size);
  const unsigned int inputSize = static_cast<unsigned int>(size);

  CTLVPackage first;
  const unsigned int consumed = first.decode(input.empty() ? nullptr : input.data(), inputSize);
  if (consumed == kFailed) {
    // A rejected message leaves no records behind.
    FUZZ_CHECK(first.empty());
    return 0;
  }

  // Accepted: the whole body as announced by the header's dataLen is used.
  FUZZ_CHECK(inputSize >= kHeadSize);
  const unsigned int dataLen = tlv::DecodeFixed32(input.data() + 24);
  FUZZ_CHECK(consumed == dataLen);
  FUZZ_CHECK(first.head().dataLen == dataLen);
  FUZZ_CHECK(dataLen == 0 || !first.empty());
  // Dropped cells can only make the body shorter.
  const unsigned int bodyLen = first.bodyLength();
  FUZZ_CHECK(bodyLen <= dataLen);
  CheckTagIndex(first);

  // First encoding: the accepted message itself unless a cell was dropped.
  unsigned char* raw = nullptr;
  const unsigned int encodedSize = first.encode(raw);
  EncodedBuffer encoded(raw);
  FUZZ_CHECK(encodedSize == kHeadSize + bodyLen);
  FUZZ_CHECK(first.head().dataLen == bodyLen);
  if (bodyLen == dataLen) {
    FUZZ_CHECK(std::memcmp(encoded.get(), input.data(), encodedSize) == 0);
  } else {
    // Same header words, only dataLen differs.
    FUZZ_CHECK(std::memcmp(encoded.get(), input.data(), 24) == 0);
  }

  // Encoding into a caller's buffer gives the same bytes, and a buffer one
  // byte short is refused.
  {
    std::vector<unsigned char> buf(encodedSize);
    FUZZ_CHECK(first.encode(buf.data(), encodedSize) == encodedSize);
    FUZZ_CHECK(std::memcmp(buf.data(), encoded.get(), encodedSize) == 0);
    FUZZ_CHECK(first.encode(buf.data(), encodedSize - 1) == kFailed);
  }

  // Decode the encoding into a fresh package: same records and cells.
  CTLVPackage second;
  const unsigned int consumedAgain = second.decode(encoded.get(), encodedSize);
  FUZZ_CHECK(consumedAgain != kFailed);
  FUZZ_CHECK(consumedAgain == bodyLen);
  CheckSameRecords(first, second);

  // Second encoding: byte for byte the first one.
  unsigned char* raw2 = nullptr;
  const unsigned int encodedSize2 = second.encode(raw2);
  EncodedBuffer encoded2(raw2);
  FUZZ_CHECK(encodedSize2 == encodedSize);
  FUZZ_CHECK(std::memcmp(encoded2.get(), encoded.get(), encodedSize) == 0);

  // clear() keeps the header: the package encodes as an empty message.
  second.clear();
  FUZZ_CHECK(second.empty());
  FUZZ_CHECK(second.bodyLength() == 0);
  return 0;
}
