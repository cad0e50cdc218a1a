// The TLV codec's block pool (see tlv/tlv_pool.h).
#include "tlv/tlv_pool.h"

#include <pthread.h>

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#define ZERVA_TLV_POOL_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZERVA_TLV_POOL_ASAN 1
#endif
#endif

#ifdef ZERVA_TLV_POOL_ASAN
#include <sanitizer/asan_interface.h>
#endif

namespace tlv {
namespace {

constexpr size_t kClasses = kMaxPooledSize / kPoolGranule;
constexpr size_t kChunkSize = 64 * 1024;
constexpr size_t kChunkHeader = 16;  // the link to the previous chunk

inline void Poison(void* p, size_t n) {
#ifdef ZERVA_TLV_POOL_ASAN
  ASAN_POISON_MEMORY_REGION(p, n);
#else
  (void)p;
  (void)n;
#endif
}

inline void Unpoison(void* p, size_t n) {
#ifdef ZERVA_TLV_POOL_ASAN
  ASAN_UNPOISON_MEMORY_REGION(p, n);
#else
  (void)p;
  (void)n;
#endif
}

struct FreeBlock {
  FreeBlock* next;
};

// Class c holds blocks of (c + 1) * 16 bytes.
inline size_t ClassOf(size_t n) { return n == 0 ? 0 : (n - 1) / kPoolGranule; }
inline size_t ClassSize(size_t c) { return (c + 1) * kPoolGranule; }

// The next block of a free (poisoned) block.
inline FreeBlock* NextOf(FreeBlock* b) {
  Unpoison(b, sizeof(FreeBlock));
  FreeBlock* next = b->next;
  Poison(b, sizeof(FreeBlock));
  return next;
}

// Links a block, poisoned whole, in front of head.
inline void Link(FreeBlock* b, size_t classSize, FreeBlock* head) {
  Unpoison(b, sizeof(FreeBlock));
  b->next = head;
  Poison(b, classSize);
}

// Process-wide state: the chunks and the free lists of exited threads. Made
// once and never destroyed, so that blocks freed during exit still find it.
struct Depot {
  std::mutex mutex;
  void* chunks = nullptr;                   // newest chunk; each links the previous
  std::vector<FreeBlock*> lists[kClasses];  // whole free lists handed back
  unsigned long long chunkCount = 0;
  std::vector<struct ThreadCache*> spareCaches;  // caches of exited threads
};

Depot& TheDepot() {
  static Depot* depot = new Depot();
  return *depot;
}

struct ThreadCache {
  FreeBlock* heads[kClasses];
  unsigned long long allocations;
};

pthread_key_t g_cacheKey;
pthread_once_t g_cacheKeyOnce = PTHREAD_ONCE_INIT;

// Thread exit: the free lists go to the depot, the cache to the spares.
void ReleaseCache(void* arg);

// The calling thread's cache, or null once its thread-exit release has run
// (frees then go to the depot under the lock).
// Initial-exec: a plain TLS access, no __tls_get_addr call (16 bytes of
// static TLS, which a library loaded with dlopen can still get).
__attribute__((tls_model("initial-exec"))) thread_local ThreadCache* t_cache = nullptr;
__attribute__((tls_model("initial-exec"))) thread_local bool t_cacheReleased = false;

void ReleaseCache(void* arg) {
  ThreadCache* cache = static_cast<ThreadCache*>(arg);
  t_cache = nullptr;
  t_cacheReleased = true;
  Depot& depot = TheDepot();
  std::lock_guard<std::mutex> lock(depot.mutex);
  for (size_t c = 0; c < kClasses; ++c) {
    if (cache->heads[c] != nullptr) depot.lists[c].push_back(cache->heads[c]);
    cache->heads[c] = nullptr;
  }
  depot.spareCaches.push_back(cache);
}

void MakeCacheKey() {
  if (pthread_key_create(&g_cacheKey, &ReleaseCache) != 0) std::abort();
}

ThreadCache* MakeCache() {
  pthread_once(&g_cacheKeyOnce, &MakeCacheKey);
  ThreadCache* cache = nullptr;
  {
    Depot& depot = TheDepot();
    std::lock_guard<std::mutex> lock(depot.mutex);
    if (!depot.spareCaches.empty()) {
      cache = depot.spareCaches.back();
      depot.spareCaches.pop_back();
    }
    if (cache == nullptr) cache = new ThreadCache();
  }
  std::memset(cache, 0, sizeof(*cache));
  pthread_setspecific(g_cacheKey, cache);
  return cache;
}

// A free list of class c: one handed back by an exited thread, or a new
// chunk carved into blocks. Called with the depot locked.
FreeBlock* TakeList(Depot& depot, size_t c) {
  if (!depot.lists[c].empty()) {
    FreeBlock* list = depot.lists[c].back();
    depot.lists[c].pop_back();
    return list;
  }
  const size_t classSize = ClassSize(c);
  unsigned char* chunk = static_cast<unsigned char*>(::operator new(kChunkSize));
  *reinterpret_cast<void**>(chunk) = depot.chunks;
  depot.chunks = chunk;
  ++depot.chunkCount;
  const size_t count = (kChunkSize - kChunkHeader) / classSize;
  FreeBlock* head = nullptr;
  for (size_t i = count; i-- > 0;) {
    FreeBlock* b = reinterpret_cast<FreeBlock*>(chunk + kChunkHeader + i * classSize);
    b->next = head;
    head = b;
  }
  Poison(chunk + kChunkHeader, count * classSize);
  return head;
}

// Pops the first block of a non-empty list.
inline void* Pop(FreeBlock*& head, size_t n) {
  FreeBlock* b = head;
  head = NextOf(b);
  Unpoison(b, n == 0 ? 1 : n);
  return b;
}

}  // namespace

void* PoolAllocate(size_t n) {
  if (n > kMaxPooledSize) return ::operator new(n);
  const size_t c = ClassOf(n);
  ThreadCache* cache = t_cache;
  if (cache == nullptr) {
    if (t_cacheReleased) {
      // This thread's cache is gone (thread exit): take one block centrally.
      Depot& depot = TheDepot();
      std::lock_guard<std::mutex> lock(depot.mutex);
      FreeBlock* list = TakeList(depot, c);
      void* b = Pop(list, n);
      if (list != nullptr) depot.lists[c].push_back(list);
      return b;
    }
    cache = t_cache = MakeCache();
  }
  if (cache->heads[c] == nullptr) {
    Depot& depot = TheDepot();
    std::lock_guard<std::mutex> lock(depot.mutex);
    cache->heads[c] = TakeList(depot, c);
  }
  ++cache->allocations;
  return Pop(cache->heads[c], n);
}

void PoolFree(void* p, size_t n) {
  if (p == nullptr) return;
  if (n > kMaxPooledSize) {
    ::operator delete(p);
    return;
  }
  const size_t c = ClassOf(n);
  FreeBlock* b = static_cast<FreeBlock*>(p);
  ThreadCache* cache = t_cache;
  if (cache == nullptr) {
    if (t_cacheReleased) {
      Depot& depot = TheDepot();
      std::lock_guard<std::mutex> lock(depot.mutex);
      Link(b, ClassSize(c), nullptr);
      depot.lists[c].push_back(b);
      return;
    }
    cache = t_cache = MakeCache();
  }
  Link(b, ClassSize(c), cache->heads[c]);
  cache->heads[c] = b;
}

PoolStats GetPoolStats() {
  PoolStats stats{0, 0};
  if (t_cache != nullptr) stats.allocations = t_cache->allocations;
  Depot& depot = TheDepot();
  std::lock_guard<std::mutex> lock(depot.mutex);
  stats.chunks = depot.chunkCount;
  return stats;
}

// PoolAceAllocator: a 16-byte prefix holds the size asked for.
PoolAceAllocator* PoolAceAllocator::instance() {
  static PoolAceAllocator* allocator = new PoolAceAllocator();
  return allocator;
}

void* PoolAceAllocator::malloc(size_type nbytes) {
  unsigned char* block;
  try {
    block = static_cast<unsigned char*>(PoolAllocate(nbytes + kPoolGranule));
  } catch (const std::bad_alloc&) {
    return nullptr;  // as ACE's own allocator: ACE logs and copes
  }
  *reinterpret_cast<size_t*>(block) = nbytes;
  return block + kPoolGranule;
}

void* PoolAceAllocator::calloc(size_type nbytes, char initial_value) {
  void* p = malloc(nbytes);
  if (p != nullptr) std::memset(p, initial_value, nbytes);
  return p;
}

void* PoolAceAllocator::calloc(size_type n_elem, size_type elem_size, char initial_value) {
  return calloc(n_elem * elem_size, initial_value);
}

void PoolAceAllocator::free(void* ptr) {
  if (ptr == nullptr) return;
  unsigned char* block = static_cast<unsigned char*>(ptr) - kPoolGranule;
  PoolFree(block, *reinterpret_cast<size_t*>(block) + kPoolGranule);
}

}  // namespace tlv
