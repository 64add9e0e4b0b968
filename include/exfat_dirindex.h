#pragma once
// The directory index: per directory node, an in-memory map of where its
// File sets lie, by a hash of the name, and of its runs of free slots, so that a
// lookup, a create's existence check and its free-slot search look only
// where the index points instead of walking the whole directory.
//
// The index is a cache, never an authority for what it reports found:
// every set it names is read from the buffer cache and checked (type,
// shape, checksum, hash and then the caller's name comparison), and every
// free run it offers is read and checked free before it is used. A check
// that fails means the index is stale: it is dropped, the caller walks the
// directory as it would without an index, and the next operation builds a
// new one. An answer "no such name" rests on the index being complete,
// which holds because every change the driver makes to a directory's
// contents goes through exfat_dir_write, which keeps the index up to date
// (exfat_dirindex_note_write), and every growth through the slot search
// (exfat_dirindex_note_grow); a size that changed by any other way drops it.
//
// Locking. An index belongs to its directory node and is read and changed
// only by the thread holding that node's lock. exfat_dirindex_lock (global,
// a leaf below every driver lock) guards the LRU list of all indexes, their
// byte total and each node's x_index pointer: the owner pins its index
// under it for the length of one operation, and the eviction that keeps the
// total under the budget detaches only unpinned indexes, so an index is
// never freed under its user. Memory: an index costs about a hundred bytes
// per set and per free run; operations themselves need a fixed amount.

#include "host/types.h"

struct exfat_node;

// exfat_dirindex_find_set and _find_free: no usable index, walk instead.
#define EXFAT_DIRINDEX_NONE (-3)

// The index's key of a name (`length` UTF-16 units): a 32-bit hash of its
// up-cased form, so that names equal but for case share it.
uint32_t exfat_dirindex_key(const uint16_t* upcase, const uint16_t* name, uint32_t length);

// Searches the sets whose name has the key of `name`, in directory order,
// reading each from the buffer cache and handing it to `callback` as the
// walk would (set form), which compares the names. Caller holds dir's node
// lock. Returns EXFAT_ITER_FOUND when the callback did; 0 when no set
// matched; EXFAT_DIRINDEX_NONE when there is no index (or it proved stale
// and was dropped); or a read error.
int exfat_dirindex_find_set(struct exfat_node* dir, const uint16_t* name, uint32_t length,
                            void* argument,
                            int (*callback)(void*, uint8_t*, uint8_t*, uint32_t),
                            vfs_context_t context);

// The first run of at least `wanted` free slots in directory order, read
// and checked free: 0 with its byte offset in *offset; ENOENT when no run
// is long enough, with the trailing free run (checked free; the start and
// length in slots, 0 length when the last slot is in use) in *trail_start
// and *trail_length; EXFAT_DIRINDEX_NONE; or a read error. Caller holds
// dir's node lock.
int exfat_dirindex_find_free(struct exfat_node* dir, uint32_t wanted, uint32_t* offset,
                             uint32_t* trail_start, uint32_t* trail_length,
                             vfs_context_t context);

// Keeps the index in step with `length` bytes written at `offset` (`data`
// NULL: zeros; `ok` false: the write failed part way, which drops the index).
// Caller holds dir's node lock.
void exfat_dirindex_note_write(struct exfat_node* dir, uint64_t offset, const uint8_t* data,
                               uint32_t length, bool ok);
// The directory grew from `old_size` bytes to its x_size, zero-filled.
void exfat_dirindex_note_grow(struct exfat_node* dir, uint64_t old_size);
// Drops dir's index (the node is going, or its index can't be trusted).
void exfat_dirindex_drop(struct exfat_node* dir);

// Host controls: the byte budget of all indexes together, and what they
// hold now.
void exfat_dirindex_set_budget(size_t bytes);
size_t exfat_dirindex_bytes(void);
