// Random packages survive encode then decode unchanged, byte for byte.
#include <gtest/gtest.h>

#include <random>

#include "tlv/vem_message_package.h"

namespace {

struct CellSpec {
  unsigned short tagWord;
  std::vector<unsigned char> value;
};
struct RecordSpec {
  unsigned long long id;
  std::vector<CellSpec> cells;
};

// Builds a random package: identifiers over the whole 64-bit range, tags
// 0..4095, the types in use (0, 2, 3, 4, 6) and the rest up to 9, values of
// 0 to 300 bytes, up to 300 records.
std::vector<RecordSpec> RandomRecords(std::mt19937_64& rng) {
  static const unsigned kTypes[] = {0, 2, 3, 3, 4, 6, 6, 2, 1, 5, 7, 8, 9};
  std::uniform_int_distribution<int> records(0, 300);
  std::uniform_int_distribution<int> cellsPerRecord(0, 24);
  std::uniform_int_distribution<int> typeIdx(0, sizeof kTypes / sizeof kTypes[0] - 1);
  std::uniform_int_distribution<int> tag(0, 4095);
  std::uniform_int_distribution<int> len(0, 300);
  std::uniform_int_distribution<int> byte(0, 255);
  std::vector<RecordSpec> out(records(rng));
  for (RecordSpec& r : out) {
    r.id = rng();
    r.cells.resize(cellsPerRecord(rng));
    for (CellSpec& c : r.cells) {
      unsigned type = kTypes[typeIdx(rng)];
      c.tagWord = static_cast<unsigned short>((tag(rng) << 4) | type);
      int n = type == 3 || type == 4 ? 4 : type == 6 ? 8 : len(rng);
      c.value.resize(n);
      for (auto& b : c.value) b = static_cast<unsigned char>(byte(rng));
    }
  }
  return out;
}

void Fill(const std::vector<RecordSpec>& specs, CTLVPackage& pkg) {
  for (const RecordSpec& r : specs) {
    CTLVRecordV3* record = new CTLVRecordV3(r.id, 32);
    pkg.push_back(record);
    for (const CellSpec& c : r.cells) {
      std::unique_ptr<CTLVCell> cell(new CTLVCell());
      cell->setCell(c.tagWord, reinterpret_cast<const char*>(c.value.data()), c.value.size());
      record->append(cell.release());
    }
  }
}

void ExpectSame(const std::vector<RecordSpec>& specs, const CTLVPackage& pkg) {
  ASSERT_EQ(pkg.size(), specs.size());
  for (size_t i = 0; i < specs.size(); ++i) {
    const CTLVRecordV3& r = *pkg[i];
    ASSERT_EQ(r.id(), specs[i].id) << i;
    ASSERT_EQ(r.cellCount(), specs[i].cells.size()) << i;
    size_t j = 0;
    for (const CTLVCell* cell : r.cells()) {
      const CellSpec& c = specs[i].cells[j++];
      ASSERT_EQ(cell->tagWord(), c.tagWord);
      ASSERT_EQ(std::vector<unsigned char>(cell->value(), cell->value() + cell->length()), c.value);
    }
  }
}

TEST(PackagePropertyTest, RandomPackagesEncodeThenDecodeToTheSameRecordsAndHeader) {
  std::mt19937_64 rng(20261122);
  for (int round = 0; round < 200; ++round) {
    SCOPED_TRACE(round);
    std::vector<RecordSpec> specs = RandomRecords(rng);
    CTLVPackage pkg;
    pkg.head().hdrWord0 = static_cast<uint32_t>(rng());
    pkg.head().hdrWord1 = static_cast<uint32_t>(rng());
    pkg.head().hdrShort0 = static_cast<uint16_t>(rng());
    pkg.head().hdrShort1 = static_cast<uint16_t>(rng());
    pkg.head().hdrShort2 = static_cast<uint16_t>(rng());
    pkg.head().hdrShort3 = static_cast<uint16_t>(rng());
    Fill(specs, pkg);

    unsigned char* out = nullptr;
    const unsigned int n = pkg.encode(out);
    std::unique_ptr<unsigned char[]> owned(out);
    ASSERT_EQ(n, 28u + pkg.bodyLength());

    CTLVPackage back;
    ASSERT_EQ(back.decode(out, n), n - 28);
    ExpectSame(specs, back);
    EXPECT_EQ(back.head().hdrWord0, pkg.head().hdrWord0);
    EXPECT_EQ(back.head().hdrWord1, pkg.head().hdrWord1);
    EXPECT_EQ(back.head().hdrShort0, pkg.head().hdrShort0);
    EXPECT_EQ(back.head().hdrShort1, pkg.head().hdrShort1);
    EXPECT_EQ(back.head().hdrShort2, pkg.head().hdrShort2);
    EXPECT_EQ(back.head().hdrShort3, pkg.head().hdrShort3);
    EXPECT_EQ(back.head().dataLen, n - 28);

    std::vector<unsigned char> again(n);
    ASSERT_EQ(back.encode(again.data(), n), n);
    ASSERT_EQ(again, std::vector<unsigned char>(out, out + n));
  }
}

}  // namespace
