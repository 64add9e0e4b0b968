#pragma once
// The name cache: (directory vnode, exact name bytes) -> vnode, or a negative
// entry saying the name does not exist. Bounded, least recently used entries
// go first. Entries naming a vnode or lying in a directory vnode vanish when
// that vnode is reclaimed.

#include "host/types.h"
#include "host/vnode.h"

// -1: positive hit, *vpp holds an I/O reference. ENOENT: negative hit.
// 0: miss. Without MAKEENTRY in cn_flags any entry is dropped and 0 is
// returned; a negative entry is not reported to a CREATE or RENAME of the
// last component (0, the entry is dropped).
int cache_lookup(vnode_t dvp, vnode_t* vpp, struct componentname* cnp);
// vp NULL enters a negative entry.
void cache_enter(vnode_t dvp, vnode_t vp, struct componentname* cnp);
// Drops every entry naming vp and every entry in directory vp.
void cache_purge(vnode_t vp);
// Drops the negative entries of directory vp.
void cache_purge_negatives(vnode_t vp);

// Host controls.
void host_namecache_set_limit(size_t entries);
size_t host_namecache_count(void);
