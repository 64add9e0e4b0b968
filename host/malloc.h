#pragma once
// Kernel memory: tagged allocations with per-tag accounting.
//
// Every allocation is counted against its tag (OSMalloc) or malloc type
// (_MALLOC), so a test can assert that nothing is outstanding after an
// unmount. host_malloc_fail_nth() makes a chosen future allocation fail, to
// drive ENOMEM paths.

#include "host/types.h"

typedef struct OSMallocTag_* OSMallocTag;

#define OSMT_DEFAULT 0x00

OSMallocTag OSMalloc_Tagalloc(const char* name, uint32_t flags);
// Frees the tag. Allocations still outstanding under it are a leak: the host
// reports them on the kernel log ("OSMalloc_Tagfree: tag %s: %llu bytes
// outstanding").
void OSMalloc_Tagfree(OSMallocTag tag);
// NULL when memory is exhausted (or the failure switch fires). Memory is not
// zeroed.
void* OSMalloc(uint32_t size, OSMallocTag tag);
void* OSMalloc_noblock(uint32_t size, OSMallocTag tag);
// size must be the size that was allocated (checked).
void OSFree(void* addr, uint32_t size, OSMallocTag tag);

// Malloc-type allocations (type: M_TEMP …, flags: M_WAITOK/M_NOWAIT/M_ZERO).
void* _MALLOC(size_t size, int type, int flags);
void _FREE(void* addr, int type);

// A table of 2^k bucket heads (pointers, NULL-initialised), 2^k the largest
// power of two not above `elements` (at least 1); *hashmask = 2^k - 1.
// Freed with hashdestroy.
void* hashinit(int elements, int type, u_long* hashmask);
void hashdestroy(void* table, int type, u_long hashmask);

// --- Host controls -----------------------------------------------------------
// Bytes outstanding under a tag name (all tags of that name), or a type.
uint64_t host_malloc_outstanding(const char* tag_name);
uint64_t host_malloc_type_outstanding(int type);
// The n-th allocation from now (1 = the next) fails; 0 disarms. Counts
// OSMalloc, OSMalloc_noblock and _MALLOC calls, the host's own included.
void host_malloc_fail_nth(uint64_t n);
// Allocations made since start (for sizing failure sweeps).
uint64_t host_malloc_count(void);
// For host services that allocate with new/std containers where a kernel
// would allocate: counts one allocation and says whether it must fail.
bool host_alloc_should_fail(void);
