// The TLV block pool, and the codec's use of it from several threads.
#include "tlv/tlv_pool.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tlv/vem_message_package.h"

namespace {

TEST(TlvPoolTest, BlocksAreAlignedDistinctAndReused) {
  std::vector<void*> blocks;
  for (size_t n = 0; n <= tlv::kMaxPooledSize + 64; n += 7) {
    void* p = tlv::PoolAllocate(n);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 16, 0u) << n;
    std::memset(p, static_cast<int>(blocks.size() & 0xFF), n);
    blocks.push_back(p);
  }
  // No block overlaps another: each still holds its own bytes.
  size_t i = 0;
  for (size_t n = 0; n <= tlv::kMaxPooledSize + 64; n += 7, ++i) {
    const unsigned char* p = static_cast<const unsigned char*>(blocks[i]);
    for (size_t k = 0; k < n; ++k) ASSERT_EQ(p[k], i & 0xFF) << "block " << i << " of " << n << " bytes";
  }
  i = 0;
  for (size_t n = 0; n <= tlv::kMaxPooledSize + 64; n += 7) tlv::PoolFree(blocks[i++], n);
  // The last block freed of a class is the first one handed out again.
  void* a = tlv::PoolAllocate(40);
  tlv::PoolFree(a, 40);
  EXPECT_EQ(tlv::PoolAllocate(33), a);
  tlv::PoolFree(a, 33);
  tlv::PoolFree(nullptr, 10);
}

TEST(TlvPoolTest, AceAllocatorKeepsTheSizeAndZeroesOnCalloc) {
  tlv::PoolAceAllocator* alloc = tlv::PoolAceAllocator::instance();
  char* p = static_cast<char*>(alloc->calloc(100, 'x'));
  ASSERT_NE(p, nullptr);
  for (int i = 0; i < 100; ++i) ASSERT_EQ(p[i], 'x');
  alloc->free(p);
  // free() found the size in the block's prefix: the block went back to the
  // class of 100 bytes and its 16-byte prefix, and is the next one of it.
  void* again = tlv::PoolAllocate(116);
  EXPECT_EQ(again, p - 16);
  tlv::PoolFree(again, 116);
  char* q = static_cast<char*>(alloc->calloc(3, 5, '\0'));
  for (int i = 0; i < 15; ++i) ASSERT_EQ(q[i], 0);
  alloc->free(q);
  alloc->free(nullptr);
  EXPECT_EQ(alloc->remove(), -1);
}

// A package of records with short, pooled and large values.
void Fill(CTLVPackage& pkg, unsigned int seed) {
  for (unsigned int r = 0; r < 50; ++r) {
    CTLVRecordV3* record = new CTLVRecordV3(seed * 1000 + r, CTLVRecordV3::DEFAULT_BUCKETS);
    pkg.push_back(record);
    record->append(tlv::NewUintCell(1, CTLVCell::TLV_TYPE_UINT, seed + r, 4));
    record->append(tlv::NewStringCell(2, std::string(20 + r, 'a' + static_cast<char>(r % 26))));
    record->append(tlv::NewStringCell(3, std::string(r == 7 ? 5000 : 3, 'z')));
  }
}

std::vector<unsigned char> Encode(CTLVPackage& pkg) {
  unsigned char* out = nullptr;
  const unsigned int n = pkg.encode(out);
  std::vector<unsigned char> wire(out, out + n);
  delete[] out;
  return wire;
}

TEST(TlvPoolTest, ThreadsEncodeAndDecodeAtOnceAndTheirCellsOutliveThem) {
  constexpr int kThreads = 4;
  std::vector<CTLVPackage*> handedOver(kThreads, nullptr);
  std::vector<std::string> failures(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &handedOver, &failures] {
      CTLVPackage source;
      Fill(source, static_cast<unsigned int>(t));
      const std::vector<unsigned char> wire = Encode(source);
      for (int round = 0; round < 200; ++round) {
        CTLVPackage copy;
        std::vector<unsigned char> buf(wire);
        if (copy.decode(buf.data(), static_cast<unsigned int>(buf.size())) == CTLVPackage::FAILED) {
          failures[t] = "decode failed";
          return;
        }
        if (Encode(copy) != wire) {
          failures[t] = "round trip differs";
          return;
        }
        if ((*copy[3])[2]->length() != 24) {
          failures[t] = "lookup by tag failed";
          return;
        }
      }
      // This thread's cells outlive it: the main thread frees them.
      CTLVPackage* kept = new CTLVPackage();
      std::vector<unsigned char> buf(wire);
      kept->decode(buf.data(), static_cast<unsigned int>(buf.size()));
      handedOver[t] = kept;
    });
  }
  for (std::thread& th : threads) th.join();
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(failures[t], "") << "thread " << t;
    ASSERT_NE(handedOver[t], nullptr);
    EXPECT_EQ(handedOver[t]->size(), 50u);
    EXPECT_EQ(CTLVCell::ValueCast<unsigned int>()((*(*handedOver[t])[5])[1]), static_cast<unsigned int>(t + 5));
    delete handedOver[t];
  }
  // Blocks of the exited threads are used again: no chunk is carved.
  const unsigned long long chunks = tlv::GetPoolStats().chunks;
  CTLVPackage after;
  Fill(after, 9);
  EXPECT_EQ(tlv::GetPoolStats().chunks, chunks);
}

TEST(TlvPoolTest, TagIndexIsMadeAtTheFirstLookupAndFollowsAppends) {
  CTLVRecordV3 record(1, 40);
  EXPECT_EQ(record.bucketCount(), 40u);
  record.append(tlv::NewUintCell(7, CTLVCell::TLV_TYPE_UINT, 1, 4));
  record.append(tlv::NewUintCell(7, CTLVCell::TLV_TYPE_UINT, 2, 4));
  // The first lookup takes the index's blocks from the pool; the next ones none.
  const unsigned long long before = tlv::GetPoolStats().allocations;
  EXPECT_TRUE(record.hasTag(7));
  const unsigned long long made = tlv::GetPoolStats().allocations;
  EXPECT_GT(made, before);
  EXPECT_FALSE(record.hasTag(8));
  EXPECT_EQ(tlv::GetPoolStats().allocations, made);
  EXPECT_EQ(record.bucketCount(), 40u);
  // The first cell of a tag stays the indexed one.
  EXPECT_EQ(CTLVCell::ValueCast<unsigned int>()(record[7]), 1u);
  record.append(tlv::NewUintCell(8, CTLVCell::TLV_TYPE_UINT, 3, 4));
  EXPECT_EQ(CTLVCell::ValueCast<unsigned int>()(record[8]), 3u);
  record.clear();
  EXPECT_FALSE(record.hasTag(7));
  EXPECT_THROW(record[7], CVEM_Exception);
}

TEST(TlvPoolTest, SetReplacesAnInlineValueWithItsOwnBytes) {
  CTLVCell cell;
  const unsigned char v[4] = {1, 2, 3, 4};
  cell.set_i(CTLVCell::TLV_TYPE_UINT, 5, v, 4);
  // The new value comes from the old one's storage.
  cell.set_i(CTLVCell::TLV_TYPE_UINT, 5, cell.value() + 1, 3);
  ASSERT_EQ(cell.length(), 3u);
  EXPECT_EQ(cell.value()[0], 2);
  EXPECT_EQ(cell.value()[2], 4);
  std::string longText(100, 'q');
  cell.set_i(CTLVCell::TLV_TYPE_STRING, 5, longText.c_str(), 101);
  cell.set_i(CTLVCell::TLV_TYPE_STRING, 5, cell.value() + 50, 51);
  EXPECT_EQ(cell.toString(), std::string(50, 'q'));
}

}  // namespace
