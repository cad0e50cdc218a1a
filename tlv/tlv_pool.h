// Block pool of the TLV codec: cells, their value buffers, the records' cell
// list nodes and tag index entries come from here instead of one malloc each.
//
// Blocks are grouped in size classes of 16 bytes up to kMaxPooledSize; a
// larger request goes to operator new. Each thread keeps its own free list
// per class, so the common path takes no lock: a block freed by another
// thread than the one that allocated it simply joins the freeing thread's
// list. Lists are refilled from a process-wide depot (free lists of exited
// threads) or by carving a new 64 KiB chunk, both under one mutex. Chunks are
// never returned to the system; when a thread ends its free lists go back to
// the depot for the next thread.
//
// Under AddressSanitizer the free blocks are poisoned and a block is
// unpoisoned for exactly the bytes requested, so use after free and reads
// past a value are still reported.
#ifndef ZERVA_TLV_TLV_POOL_H_
#define ZERVA_TLV_TLV_POOL_H_

#include <ace/Malloc_Base.h>

#include <cstddef>
#include <new>

namespace tlv {

enum : size_t { kPoolGranule = 16, kMaxPooledSize = 2048 };

// A block of at least n bytes, 16-byte aligned. Never null (throws
// std::bad_alloc). n may be 0.
void* PoolAllocate(size_t n);
// Returns a block of PoolAllocate(n); n must be the size it was asked with.
// A null p is ignored.
void PoolFree(void* p, size_t n);

// Counters of the calling thread's pool use, for tests.
struct PoolStats {
  unsigned long long allocations;  // blocks handed out by PoolAllocate
  unsigned long long chunks;       // chunks carved, process-wide
};
PoolStats GetPoolStats();

// Standard allocator over the pool (the records' cell lists use it).
template <typename T>
struct PoolAllocator {
  typedef T value_type;
  PoolAllocator() noexcept {}
  template <typename U>
  PoolAllocator(const PoolAllocator<U>&) noexcept {}
  T* allocate(size_t n) { return static_cast<T*>(PoolAllocate(n * sizeof(T))); }
  void deallocate(T* p, size_t n) noexcept { PoolFree(p, n * sizeof(T)); }
  template <typename U>
  bool operator==(const PoolAllocator<U>&) const noexcept {
    return true;
  }
  template <typename U>
  bool operator!=(const PoolAllocator<U>&) const noexcept {
    return false;
  }
};

// ACE_Allocator over the pool, for the tag index's bucket array and entries.
// ACE frees without a size, so each block carries its size in a 16-byte
// prefix. Only malloc, calloc and free are meaningful; the naming and
// memory-mapping operations of ACE_Allocator fail with -1.
class PoolAceAllocator : public ACE_Allocator {
 public:
  // The one instance (stateless; never destroyed).
  static PoolAceAllocator* instance();

  void* malloc(size_type nbytes) override;
  void* calloc(size_type nbytes, char initial_value = '\0') override;
  void* calloc(size_type n_elem, size_type elem_size, char initial_value = '\0') override;
  void free(void* ptr) override;
  int remove() override { return -1; }
  int bind(const char*, void*, int = 0) override { return -1; }
  int trybind(const char*, void*&) override { return -1; }
  int find(const char*, void*&) override { return -1; }
  int find(const char*) override { return -1; }
  int unbind(const char*) override { return -1; }
  int unbind(const char*, void*&) override { return -1; }
  int sync(ssize_t = -1, int = MS_SYNC) override { return -1; }
  int sync(void*, size_type, int = MS_SYNC) override { return -1; }
  int protect(ssize_t = -1, int = PROT_RDWR) override { return -1; }
  int protect(void*, size_type, int = PROT_RDWR) override { return -1; }
#if defined(ACE_HAS_MALLOC_STATS)
  void print_stats() const override {}
#endif
  void dump() const override {}
};

}  // namespace tlv

#endif  // ZERVA_TLV_TLV_POOL_H_
