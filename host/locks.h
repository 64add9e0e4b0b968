#pragma once
// Mutexes, sleep and wakeup.
//
// lck_mtx_t records its owner so that code can assert "caller holds X"
// (lck_mtx_assert). msleep() atomically releases the interlock and sleeps on
// an address channel; wakeup() wakes every thread sleeping on the channel.

#include "host/types.h"

typedef struct lck_grp_attr lck_grp_attr_t;
typedef struct lck_grp lck_grp_t;
typedef struct lck_attr lck_attr_t;
typedef struct lck_mtx lck_mtx_t;

lck_grp_attr_t* lck_grp_attr_alloc_init(void);
void lck_grp_attr_free(lck_grp_attr_t* attr);
lck_grp_t* lck_grp_alloc_init(const char* name, lck_grp_attr_t* attr);
// Panics when mutexes made from the group are still allocated.
void lck_grp_free(lck_grp_t* grp);
lck_attr_t* lck_attr_alloc_init(void);
void lck_attr_free(lck_attr_t* attr);

// NULL when memory runs out.
lck_mtx_t* lck_mtx_alloc_init(lck_grp_t* grp, lck_attr_t* attr);
void lck_mtx_free(lck_mtx_t* mtx, lck_grp_t* grp);
void lck_mtx_lock(lck_mtx_t* mtx);
void lck_mtx_unlock(lck_mtx_t* mtx);  // panics unless the caller owns it
int lck_mtx_try_lock(lck_mtx_t* mtx); // 1 when taken

#define LCK_MTX_ASSERT_OWNED 0x01
#define LCK_MTX_ASSERT_NOTOWNED 0x02
// Panics when the assertion does not hold.
void lck_mtx_assert(lck_mtx_t* mtx, unsigned int type);

thread_t current_thread(void);

// Sleeps on chan with mtx released; mtx is held again on return (PDROP is
// not supported). ts is a relative timeout or NULL. Returns 0 when woken,
// EWOULDBLOCK on timeout. pri is recorded only.
int msleep(void* chan, lck_mtx_t* mtx, int pri, const char* wmesg, struct timespec* ts);
void wakeup(void* chan);
void wakeup_one(void* chan);

// Number of threads sleeping with this wait message (tests).
int host_sleepers(const char* wmesg);
// Number of mutexes allocated from a group and not freed.
int host_lck_grp_mutexes(lck_grp_t* grp);
