#include "host/malloc.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include "host/kern.h"

// Every allocation carries a small header in front of the caller's bytes that
// records its size and owner, so that OSFree can check the size it is given
// and _FREE (which has no size) can account correctly.

namespace {

constexpr uint32_t kMagicTag = 0x54414721;   // "TAG!"
constexpr uint32_t kMagicType = 0x54595045;  // "TYPE"
constexpr uint32_t kMagicFreed = 0xDEADF4EE;

struct alignas(16) Header {
  uint64_t size;
  uint32_t magic;
  int32_t type;      // malloc type for _MALLOC
  OSMallocTag tag;   // tag for OSMalloc
};
static_assert(sizeof(Header) % 16 == 0);

std::atomic<uint64_t> g_alloc_count{0};
std::atomic<uint64_t> g_fail_at{0};  // absolute allocation number that fails; 0 = none

std::mutex g_lock;
std::map<int, uint64_t>& type_bytes() {
  static std::map<int, uint64_t> m;
  return m;
}

}  // namespace

struct OSMallocTag_ {
  std::string name;
  std::atomic<uint64_t> outstanding{0};
};

namespace {
std::map<OSMallocTag, bool>& live_tags() {
  static std::map<OSMallocTag, bool> m;
  return m;
}
}  // namespace

bool host_alloc_should_fail(void) {
  uint64_t n = g_alloc_count.fetch_add(1) + 1;
  uint64_t at = g_fail_at.load();
  if (at != 0 && n == at) {
    g_fail_at.store(0);
    return true;
  }
  return false;
}

void host_malloc_fail_nth(uint64_t n) {
  g_fail_at.store(n == 0 ? 0 : g_alloc_count.load() + n);
}

uint64_t host_malloc_count(void) { return g_alloc_count.load(); }

OSMallocTag OSMalloc_Tagalloc(const char* name, uint32_t flags) {
  auto* tag = new OSMallocTag_;
  tag->name = name;
  std::lock_guard<std::mutex> guard(g_lock);
  live_tags()[tag] = true;
  return tag;
}

void OSMalloc_Tagfree(OSMallocTag tag) {
  uint64_t left = tag->outstanding.load();
  if (left != 0) {
    kprintf("OSMalloc_Tagfree: tag %s: %llu bytes outstanding\n", tag->name.c_str(),
            static_cast<unsigned long long>(left));
  }
  {
    std::lock_guard<std::mutex> guard(g_lock);
    live_tags().erase(tag);
  }
  delete tag;
}

static void* alloc_with_header(uint64_t size, uint32_t magic, int type, OSMallocTag tag) {
  if (host_alloc_should_fail()) return nullptr;
  auto* h = static_cast<Header*>(malloc(sizeof(Header) + (size ? size : 1)));
  if (h == nullptr) return nullptr;
  h->size = size;
  h->magic = magic;
  h->type = type;
  h->tag = tag;
  return h + 1;
}

static Header* header_of(void* addr, uint32_t magic, const char* who) {
  auto* h = static_cast<Header*>(addr) - 1;
  if (h->magic != magic) panic("%s: bad or double free of %p", who, addr);
  return h;
}

void* OSMalloc(uint32_t size, OSMallocTag tag) {
  void* p = alloc_with_header(size, kMagicTag, 0, tag);
  if (p != nullptr) tag->outstanding.fetch_add(size);
  return p;
}

void* OSMalloc_noblock(uint32_t size, OSMallocTag tag) { return OSMalloc(size, tag); }

void OSFree(void* addr, uint32_t size, OSMallocTag tag) {
  if (addr == nullptr) return;
  Header* h = header_of(addr, kMagicTag, "OSFree");
  if (h->tag != tag) panic("OSFree: %p freed under tag %s, allocated under %s", addr,
                           tag->name.c_str(), h->tag->name.c_str());
  if (h->size != size) panic("OSFree: %p freed with size %u, allocated with %llu", addr, size,
                             static_cast<unsigned long long>(h->size));
  tag->outstanding.fetch_sub(size);
  h->magic = kMagicFreed;
  free(h);
}

void* _MALLOC(size_t size, int type, int flags) {
  void* p = alloc_with_header(size, kMagicType, type, nullptr);
  if (p == nullptr) return nullptr;
  if (flags & M_ZERO) memset(p, 0, size);
  std::lock_guard<std::mutex> guard(g_lock);
  type_bytes()[type] += size;
  return p;
}

void _FREE(void* addr, int type) {
  if (addr == nullptr) return;
  Header* h = header_of(addr, kMagicType, "_FREE");
  {
    std::lock_guard<std::mutex> guard(g_lock);
    type_bytes()[h->type] -= h->size;
  }
  h->magic = kMagicFreed;
  free(h);
}

void* hashinit(int elements, int type, u_long* hashmask) {
  if (elements <= 0) panic("hashinit: bad cnt %d", elements);
  u_long n = 1;
  while (n * 2 <= static_cast<u_long>(elements)) n *= 2;
  void* table = _MALLOC(n * sizeof(void*), type, M_WAITOK | M_ZERO);
  if (table == nullptr) return nullptr;
  *hashmask = n - 1;
  return table;
}

void hashdestroy(void* table, int type, u_long hashmask) { _FREE(table, type); }

uint64_t host_malloc_outstanding(const char* tag_name) {
  std::lock_guard<std::mutex> guard(g_lock);
  uint64_t total = 0;
  for (auto& [tag, live] : live_tags())
    if (tag->name == tag_name) total += tag->outstanding.load();
  return total;
}

uint64_t host_malloc_type_outstanding(int type) {
  std::lock_guard<std::mutex> guard(g_lock);
  auto it = type_bytes().find(type);
  return it == type_bytes().end() ? 0 : it->second;
}
