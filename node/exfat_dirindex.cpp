// The directory index (include/exfat_dirindex.h): building it with one walk,
// answering from it with every answer checked against the directory's
// blocks, keeping it in step with the driver's own writes, and bounding the
// memory of all indexes together by evicting the least recently used.
//
// Sets are found by a 32-bit key of the up-cased name (exfat_dirindex_key),
// not by the 16-bit hash stored in the set: that one is weak enough that
// names differing in a digit share it by the dozen.
//
// Slots are counted in 32-byte entries ("slot" = byte offset / 32). A run is
// a maximal sequence of free slots (deleted entries, the end marker and
// everything after it); runs are kept by first slot, and once more by
// length class so that the first run of at least n slots in directory
// order is found without looking at the others.

#include "exfat_dirindex.h"

#include <algorithm>
#include <bitset>
#include <map>
#include <mutex>
#include <new>
#include <set>

#include "exfat_proto.h"
#include "host/kern.h"
#include "host/malloc.h"

namespace {

constexpr uint32_t kClasses = EXFAT_MAX_SET_ENTRIES + 1;  // run length classes 0..256
constexpr size_t kTreeNodeBytes = 64;  // one entry of a std::map/std::set, with its overhead
constexpr int kStale = -4;             // a check against the blocks failed
constexpr uint32_t kKeySeed = 2166136261u;  // FNV-1a
constexpr uint32_t kKeyPrime = 16777619u;

uint32_t key_step(uint32_t h, const uint16_t* upcase, const uint16_t* units, uint32_t n) {
  for (uint32_t k = 0; k < n; k++) {
    uint16_t u = upcase[units[k]];
    h = (h ^ (u & 0xFFu)) * kKeyPrime;
    h = (h ^ (u >> 8)) * kKeyPrime;
  }
  return h;
}

uint32_t key_finish(uint32_t h, uint32_t length) {
  return (h ^ length) * kKeyPrime;
}

}  // namespace

struct exfat_dirindex {
  struct exfat_node* dir = nullptr;
  uint64_t size = 0;                    // the directory's x_size the index describes
  std::map<uint32_t, uint32_t> sets;    // File set offset -> name key
  std::set<uint64_t> by_key;            // key << 32 | offset
  std::map<uint32_t, uint32_t> runs;    // first free slot -> length in slots
  std::set<uint32_t> by_class[kClasses];  // run starts by min(length, 256)
  std::bitset<kClasses> filled;         // classes that hold a run
  // Under exfat_dirindex_lock:
  exfat_dirindex* lru_prev = nullptr;
  exfat_dirindex* lru_next = nullptr;
  exfat_dirindex* doomed_next = nullptr;
  uint32_t pins = 0;
  bool dead = false;     // detached while pinned: freed at the last unpin
  size_t charged = 0;    // bytes counted in the global total
};

namespace {

// exfat_dirindex_lock and what it guards: the LRU list (head least
// recently used), the byte total and every node's x_index.
struct dirindex_global {
  std::mutex lock;
  exfat_dirindex* head = nullptr;
  exfat_dirindex* tail = nullptr;
  size_t bytes = 0;
  size_t budget = size_t(64) << 20;
};

dirindex_global& G() {
  static dirindex_global* g = new dirindex_global;
  return *g;
}

size_t index_bytes(const exfat_dirindex* idx) {
  return sizeof(*idx) + (idx->sets.size() * 2 + idx->runs.size() * 2) * kTreeNodeBytes;
}

void lru_remove(dirindex_global& g, exfat_dirindex* idx) {
  (idx->lru_prev ? idx->lru_prev->lru_next : g.head) = idx->lru_next;
  (idx->lru_next ? idx->lru_next->lru_prev : g.tail) = idx->lru_prev;
  idx->lru_prev = idx->lru_next = nullptr;
}

void lru_append(dirindex_global& g, exfat_dirindex* idx) {
  idx->lru_prev = g.tail;
  idx->lru_next = nullptr;
  (g.tail ? g.tail->lru_next : g.head) = idx;
  g.tail = idx;
}

// Detaches an index from its node and the list. Caller holds the lock.
void detach_locked(dirindex_global& g, exfat_dirindex* idx) {
  lru_remove(g, idx);
  g.bytes -= idx->charged;
  idx->charged = 0;
  idx->dir->x_index = nullptr;
}

// Pins dir's index for the calling owner (who holds dir's node lock) and
// marks it most recently used. NULL when the directory has none.
exfat_dirindex* pin(struct exfat_node* dir) {
  dirindex_global& g = G();
  std::lock_guard<std::mutex> guard(g.lock);
  exfat_dirindex* idx = dir->x_index;
  if (idx != nullptr) {
    idx->pins++;
    lru_remove(g, idx);
    lru_append(g, idx);
  }
  return idx;
}

// Detaches unpinned indexes, least recently used first, until the total
// is within the budget, and chains them on *doomed. Caller holds the lock.
void evict_locked(dirindex_global& g, exfat_dirindex** doomed) {
  for (exfat_dirindex* e = g.head; e != nullptr && g.bytes > g.budget;) {
    exfat_dirindex* next = e->lru_next;
    if (e->pins == 0) {
      detach_locked(g, e);
      e->doomed_next = *doomed;
      *doomed = e;
    }
    e = next;
  }
}

void free_doomed(exfat_dirindex* doomed) {
  while (doomed != nullptr) {
    exfat_dirindex* next = doomed->doomed_next;
    delete doomed;
    doomed = next;
  }
}

// Unpins, charges the index's new size and evicts what goes over the
// budget; the evicted indexes are freed after the lock is dropped.
void unpin(exfat_dirindex* idx) {
  dirindex_global& g = G();
  exfat_dirindex* doomed = nullptr;
  {
    std::lock_guard<std::mutex> guard(g.lock);
    idx->pins--;
    if (idx->dead) {
      if (idx->pins == 0)
        doomed = idx;
    } else {
      size_t now = index_bytes(idx);
      g.bytes = g.bytes - idx->charged + now;
      idx->charged = now;
    }
    evict_locked(g, &doomed);
  }
  free_doomed(doomed);
}

// --- Runs and sets --------------------------------------------------------------------

uint32_t length_class(uint32_t length) {
  return std::min(length, kClasses - 1);
}

void run_insert(exfat_dirindex* idx, uint32_t start, uint32_t length) {
  idx->runs.emplace(start, length);
  uint32_t c = length_class(length);
  idx->by_class[c].insert(start);
  idx->filled.set(c);
}

std::map<uint32_t, uint32_t>::iterator run_erase(exfat_dirindex* idx,
                                                 std::map<uint32_t, uint32_t>::iterator it) {
  uint32_t c = length_class(it->second);
  idx->by_class[c].erase(it->first);
  if (idx->by_class[c].empty())
    idx->filled.reset(c);
  return idx->runs.erase(it);
}

// Slots [a, a + n) are free: merges them with the runs they touch.
void mark_free(exfat_dirindex* idx, uint32_t a, uint32_t n) {
  uint32_t lo = a, hi = a + n;
  auto it = idx->runs.upper_bound(a);
  if (it != idx->runs.begin()) {
    auto before = std::prev(it);
    if (before->first + before->second >= a) {
      lo = before->first;
      hi = std::max(hi, before->first + before->second);
      run_erase(idx, before);
    }
  }
  while (it != idx->runs.end() && it->first <= hi) {
    hi = std::max(hi, it->first + it->second);
    it = run_erase(idx, it);
  }
  run_insert(idx, lo, hi - lo);
}

// Slots [a, a + n) are in use: cuts them out of the runs they overlap.
void mark_used(exfat_dirindex* idx, uint32_t a, uint32_t n) {
  uint32_t b = a + n;
  auto it = idx->runs.upper_bound(a);
  if (it != idx->runs.begin() && std::prev(it)->first + std::prev(it)->second > a)
    --it;
  while (it != idx->runs.end() && it->first < b) {
    uint32_t s = it->first, e = it->first + it->second;
    it = run_erase(idx, it);
    if (s < a)
      run_insert(idx, s, a - s);
    if (e > b)
      run_insert(idx, b, e - b);
  }
}

void set_insert(exfat_dirindex* idx, uint32_t offset, uint32_t key) {
  idx->sets[offset] = key;
  idx->by_key.insert(uint64_t(key) << 32 | offset);
}

// Forgets the set whose File entry lies at `offset`. Returns whether there
// was one, with its key in *key.
bool set_erase(exfat_dirindex* idx, uint32_t offset, uint32_t* key) {
  auto it = idx->sets.find(offset);
  if (it == idx->sets.end())
    return false;
  *key = it->second;
  idx->by_key.erase(uint64_t(it->second) << 32 | it->first);
  idx->sets.erase(it);
  return true;
}

// The key of the name held by the File set in `set`, whose first
// `available` bytes are present. False when the name entries are not all
// there.
bool set_key(const uint8_t* set, uint32_t available, const uint16_t* upcase, uint32_t* key) {
  if (available < EXFAT_SET_NAME_OFFSET)
    return false;
  uint32_t length = set[EXFAT_SET_STREAM_OFFSET + 3];
  uint32_t entries = (length + EXFAT_NAME_CHARS_PER_ENTRY - 1) / EXFAT_NAME_CHARS_PER_ENTRY;
  if (available < EXFAT_SET_NAME_OFFSET + entries * EXFAT_ENTRY_SIZE)
    return false;
  uint16_t units[EXFAT_NAME_CHARS_PER_ENTRY];
  uint32_t h = kKeySeed;
  for (uint32_t i = 0; i < length; i += EXFAT_NAME_CHARS_PER_ENTRY) {
    const uint8_t* names =
        set + EXFAT_SET_NAME_OFFSET + (i / EXFAT_NAME_CHARS_PER_ENTRY) * EXFAT_ENTRY_SIZE + 2;
    uint32_t n = std::min<uint32_t>(length - i, EXFAT_NAME_CHARS_PER_ENTRY);
    for (uint32_t k = 0; k < n; k++)
      units[k] = le16dec(names + 2 * k);
    h = key_step(h, upcase, units, n);
  }
  *key = key_finish(h, length);
  return true;
}

// The first run of at least `wanted` slots in directory order.
bool first_fit(const exfat_dirindex* idx, uint32_t wanted, uint32_t* start) {
  bool found = false;
  for (uint32_t c = length_class(wanted); c < kClasses; c++) {
    if (!idx->filled.test(c))
      continue;
    uint32_t s = *idx->by_class[c].begin();
    if (!found || s < *start)
      *start = s;
    found = true;
  }
  return found;
}

// --- Building -----------------------------------------------------------------------

struct builder {
  exfat_dirindex* idx;
  const uint16_t* upcase;
  uint32_t run_start;
  uint32_t run_length;
  bool after_end;     // the end-of-directory marker was met
  bool unindexable;   // an in-use entry follows the end marker
  bool failed;        // out of memory
};

void builder_flush_run(struct builder* b) {
  if (b->run_length != 0)
    run_insert(b->idx, b->run_start, b->run_length);
  b->run_length = 0;
}

// The build walk's callback (ITER_SETS | ITER_FREE | ITER_INUSE): File sets
// go into the hash map, free slots into runs. An in-use entry after the end
// marker stops the walk: lookups never see what lies there, and an index
// that would either hide it or show it would differ from the walk.
int build_callback(void* argument, uint8_t* set, uint8_t* entry, uint32_t offset) {
  auto* b = static_cast<struct builder*>(argument);
  try {
    if (set != nullptr) {
      uint32_t key;
      if (set[0] == EXFAT_ENTRY_FILE &&
          set_key(set, (set[1] + 1u) * EXFAT_ENTRY_SIZE, b->upcase, &key))
        set_insert(b->idx, offset, key);
      return 0;
    }
    if (entry[0] & EXFAT_ENTRY_INUSE) {
      if (b->after_end) {
        b->unindexable = true;
        return EXFAT_ITER_FOUND;
      }
      builder_flush_run(b);
      return 0;
    }
    if (entry[0] == EXFAT_ENTRY_END)
      b->after_end = true;
    uint32_t slot = offset / EXFAT_ENTRY_SIZE;
    if (b->run_length != 0 && slot == b->run_start + b->run_length) {
      b->run_length++;
    } else {
      builder_flush_run(b);
      b->run_start = slot;
      b->run_length = 1;
    }
    return 0;
  } catch (const std::bad_alloc&) {
    b->failed = true;
    return EXFAT_ITER_FOUND;
  }
}

// Builds dir's index with one walk and attaches it, pinned. NULL when the
// directory can't be indexed (X_NO_INDEX is set for good when its layout is
// the reason) or the walk or memory failed: the caller then walks.
exfat_dirindex* build(struct exfat_node* dir, vfs_context_t context) {
  auto* idx = new (std::nothrow) exfat_dirindex;
  if (idx == nullptr)
    return nullptr;
  idx->dir = dir;
  struct builder b = {idx, dir->x_mount->xm_upcase, 0, 0, false, false, false};
  int error = exfat_dir_iterate(dir, 0, &b, build_callback, ITER_SETS | ITER_FREE | ITER_INUSE,
                                context);
  if (!b.failed && !b.unindexable && error == 0) {
    try {
      builder_flush_run(&b);
    } catch (const std::bad_alloc&) {
      b.failed = true;
    }
  }
  if (b.unindexable)
    dir->x_flags |= X_NO_INDEX;
  if (error != 0 || b.failed || b.unindexable) {
    delete idx;
    return nullptr;
  }
  idx->size = dir->x_size;
  idx->pins = 1;
  dirindex_global& g = G();
  std::lock_guard<std::mutex> guard(g.lock);
  dir->x_index = idx;
  lru_append(g, idx);
  return idx;
}

// Dir's index, pinned, built first when there is none; NULL when there is
// no usable one. An index made for another directory size is dropped.
exfat_dirindex* acquire(struct exfat_node* dir, vfs_context_t context) {
  lck_mtx_assert(dir->x_lock, LCK_MTX_ASSERT_OWNED);
  if (dir->x_flags & X_NO_INDEX)
    return nullptr;
  exfat_dirindex* idx = pin(dir);
  if (idx != nullptr && idx->size != dir->x_size) {
    unpin(idx);
    exfat_dirindex_drop(dir);
    idx = nullptr;
  }
  return idx != nullptr ? idx : build(dir, context);
}

// --- Checks against the blocks ---------------------------------------------------------

// Reads the set whose File entry lies at `offset` into `buffer` (8 KiB) and
// checks it as the walk would have: a File entry followed by its in-use
// secondaries, all inside the directory, and valid (sets ending before
// x_checked_end by shape, the others by checksum too). Returns 0, kStale,
// or a read error.
int read_set(struct exfat_node* dir, uint32_t offset, uint8_t* buffer, vfs_context_t context) {
  int error = exfat_dir_read(dir, nullptr, buffer, offset, EXFAT_ENTRY_SIZE, context);
  if (error == 0 && buffer[0] != EXFAT_ENTRY_FILE)
    return kStale;
  uint32_t count = 0;
  if (error == 0) {
    count = buffer[1] + 1u;
    error = exfat_dir_read(dir, nullptr, buffer, offset, count * EXFAT_ENTRY_SIZE, context);
  }
  if (error == E2BIG)
    return kStale;
  if (error)
    return error;
  for (uint32_t i = 1; i < count; i++) {
    if ((buffer[i * EXFAT_ENTRY_SIZE] & (EXFAT_ENTRY_INUSE | EXFAT_ENTRY_SECONDARY)) !=
        (EXFAT_ENTRY_INUSE | EXFAT_ENTRY_SECONDARY))
      return kStale;
  }
  uint32_t last = offset + (count - 1) * EXFAT_ENTRY_SIZE;
  bool valid = last >= dir->x_checked_end ? exfat_valid_entry_set(buffer)
                                          : exfat_entry_set_shape_ok(buffer);
  return valid ? 0 : kStale;
}

// Reads `count` slots (at most a set's worth) from slot `slot` and checks
// that none is in use. Returns 0, kStale or a read error.
int check_free(struct exfat_node* dir, uint32_t slot, uint32_t count, uint8_t* buffer,
               vfs_context_t context) {
  int error = exfat_dir_read(dir, nullptr, buffer, uint64_t(slot) * EXFAT_ENTRY_SIZE,
                             count * EXFAT_ENTRY_SIZE, context);
  if (error == E2BIG)
    return kStale;
  if (error)
    return error;
  for (uint32_t i = 0; i < count; i++) {
    if (buffer[i * EXFAT_ENTRY_SIZE] & EXFAT_ENTRY_INUSE)
      return kStale;
  }
  return 0;
}

// The caller found its index stale: a line in the log, and the index goes.
void stale(struct exfat_node* dir, exfat_dirindex* idx, const char* what) {
  kprintf("exfat_dirindex: %s does not match the directory; rebuilding", what);
  unpin(idx);
  exfat_dirindex_drop(dir);
}

}  // namespace

uint32_t exfat_dirindex_key(const uint16_t* upcase, const uint16_t* name, uint32_t length) {
  return key_finish(key_step(kKeySeed, upcase, name, length), length);
}

int exfat_dirindex_find_set(struct exfat_node* dir, const uint16_t* name, uint32_t length,
                            void* argument,
                            int (*callback)(void*, uint8_t*, uint8_t*, uint32_t),
                            vfs_context_t context) {
  exfat_dirindex* idx = acquire(dir, context);
  if (idx == nullptr)
    return EXFAT_DIRINDEX_NONE;
  auto* buffer = static_cast<uint8_t*>(OSMalloc(EXFAT_SET_BUFFER_SIZE, exfat_malloc_tag));
  if (buffer == nullptr) {
    unpin(idx);
    return ENOMEM;
  }
  int result = 0;
  const uint16_t* upcase = dir->x_mount->xm_upcase;
  uint32_t key = exfat_dirindex_key(upcase, name, length);
  uint64_t next = uint64_t(key) << 32;
  for (;;) {
    auto it = idx->by_key.lower_bound(next);
    if (it == idx->by_key.end() || (*it >> 32) != key)
      break;
    uint32_t offset = static_cast<uint32_t>(*it);
    next = *it + 1;
    result = read_set(dir, offset, buffer, context);
    uint32_t found_key = 0;
    if (result == 0 && (!set_key(buffer, EXFAT_SET_BUFFER_SIZE, upcase, &found_key) ||
                        found_key != key))
      result = kStale;
    if (result == 0)
      result = callback(argument, buffer, nullptr, offset);
    if (result != 0)
      break;
  }
  OSFree(buffer, EXFAT_SET_BUFFER_SIZE, exfat_malloc_tag);
  if (result == kStale) {
    stale(dir, idx, "a set");
    return EXFAT_DIRINDEX_NONE;
  }
  unpin(idx);
  return result;
}

int exfat_dirindex_find_free(struct exfat_node* dir, uint32_t wanted, uint32_t* offset,
                             uint32_t* trail_start, uint32_t* trail_length,
                             vfs_context_t context) {
  exfat_dirindex* idx = acquire(dir, context);
  if (idx == nullptr)
    return EXFAT_DIRINDEX_NONE;
  uint32_t start = 0, length = wanted;
  bool found = first_fit(idx, wanted, &start);
  if (!found) {
    // Shorter than `wanted`, or there would have been a fit.
    length = 0;
    auto last = idx->runs.rbegin();
    uint64_t end_slot = idx->size / EXFAT_ENTRY_SIZE;
    if (last != idx->runs.rend() && last->first + last->second == end_slot) {
      start = last->first;
      length = last->second;
    }
  }
  int result = 0;
  if (length != 0) {
    auto* buffer = static_cast<uint8_t*>(OSMalloc(EXFAT_SET_BUFFER_SIZE, exfat_malloc_tag));
    result = buffer == nullptr ? ENOMEM : check_free(dir, start, length, buffer, context);
    if (buffer != nullptr)
      OSFree(buffer, EXFAT_SET_BUFFER_SIZE, exfat_malloc_tag);
  }
  if (result == kStale) {
    stale(dir, idx, "a free run");
    return EXFAT_DIRINDEX_NONE;
  }
  unpin(idx);
  if (result)
    return result;
  if (found) {
    *offset = start * EXFAT_ENTRY_SIZE;
    return 0;
  }
  *trail_start = start;
  *trail_length = length;
  return ENOENT;
}

namespace {

// The index's part of a write of `n` slots from slot `first`; throws
// bad_alloc. Returns false when the index can't follow the write.
bool apply_write(exfat_dirindex* idx, const uint16_t* upcase, uint32_t first, const uint8_t* data,
                 uint32_t n) {
  uint32_t last_end = UINT32_MAX;  // the last end marker written, as a slot
  for (uint32_t i = 0; i < n;) {
    auto in_use = [data](uint32_t k) { return data != nullptr && (data[k * 32] & EXFAT_ENTRY_INUSE); };
    bool used = in_use(i);
    uint32_t j = i;
    while (j < n && in_use(j) == used)
      j++;
    for (uint32_t k = i; k < j; k++) {
      uint32_t offset = (first + k) * EXFAT_ENTRY_SIZE;
      uint32_t key = 0;
      bool had_key = set_erase(idx, offset, &key);
      if (!used) {
        if (data == nullptr || data[k * 32] == EXFAT_ENTRY_END)
          last_end = first + k;
        continue;
      }
      if (data[k * 32] != EXFAT_ENTRY_FILE)
        continue;
      // A whole set written carries its name; a File entry (and stream)
      // rewritten in place keeps the name it had.
      if ((k + 1 < n && data[(k + 1) * 32] == EXFAT_ENTRY_STREAM &&
           set_key(data + k * 32, (n - k) * 32, upcase, &key)) || had_key)
        set_insert(idx, offset, key);
      else
        return false;
    }
    if (used)
      mark_used(idx, first + i, j - i);
    else
      mark_free(idx, first + i, j - i);
    i = j;
  }
  // An end marker written before an in-use entry would hide that entry
  // from lookups: the index can't show the same.
  uint64_t end_slot = idx->size / EXFAT_ENTRY_SIZE;
  if (last_end != UINT32_MAX && last_end < end_slot) {
    auto it = std::prev(idx->runs.upper_bound(last_end));
    if (it->first + it->second != end_slot)
      return false;
  }
  return true;
}

}  // namespace

void exfat_dirindex_note_write(struct exfat_node* dir, uint64_t offset, const uint8_t* data,
                               uint32_t length, bool ok) {
  lck_mtx_assert(dir->x_lock, LCK_MTX_ASSERT_OWNED);
  exfat_dirindex* idx = pin(dir);
  if (idx == nullptr)
    return;
  bool kept = ok && offset % EXFAT_ENTRY_SIZE == 0 && length % EXFAT_ENTRY_SIZE == 0;
  if (kept) {
    try {
      kept = apply_write(idx, dir->x_mount->xm_upcase,
                         static_cast<uint32_t>(offset / EXFAT_ENTRY_SIZE), data,
                         length / EXFAT_ENTRY_SIZE);
    } catch (const std::bad_alloc&) {
      kept = false;
    }
  }
  unpin(idx);
  if (!kept)
    exfat_dirindex_drop(dir);
}

void exfat_dirindex_note_grow(struct exfat_node* dir, uint64_t old_size) {
  lck_mtx_assert(dir->x_lock, LCK_MTX_ASSERT_OWNED);
  exfat_dirindex* idx = pin(dir);
  if (idx == nullptr)
    return;
  bool kept = idx->size == old_size && dir->x_size > old_size;
  if (kept) {
    try {
      mark_free(idx, static_cast<uint32_t>(old_size / EXFAT_ENTRY_SIZE),
                static_cast<uint32_t>((dir->x_size - old_size) / EXFAT_ENTRY_SIZE));
      idx->size = dir->x_size;
    } catch (const std::bad_alloc&) {
      kept = false;
    }
  }
  unpin(idx);
  if (!kept)
    exfat_dirindex_drop(dir);
}

void exfat_dirindex_drop(struct exfat_node* dir) {
  dirindex_global& g = G();
  exfat_dirindex* idx;
  {
    std::lock_guard<std::mutex> guard(g.lock);
    idx = dir->x_index;
    if (idx == nullptr)
      return;
    detach_locked(g, idx);
    if (idx->pins != 0) {
      idx->dead = true;
      return;
    }
  }
  delete idx;
}

void exfat_dirindex_set_budget(size_t bytes) {
  dirindex_global& g = G();
  exfat_dirindex* doomed = nullptr;
  {
    std::lock_guard<std::mutex> guard(g.lock);
    g.budget = bytes;
    evict_locked(g, &doomed);
  }
  free_doomed(doomed);
}

size_t exfat_dirindex_bytes(void) {
  dirindex_global& g = G();
  std::lock_guard<std::mutex> guard(g.lock);
  return g.bytes;
}
