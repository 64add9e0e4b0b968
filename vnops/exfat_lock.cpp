// Taking several node locks at once without deadlock.
//
// The rule: node locks are acquired in ascending order of the node records'
// addresses. A thread holding a node's lock may block on the lock of a node
// at a higher address only; a lower one it may take by try-lock, or else it
// drops what it holds and takes the locks again in ascending order. Release
// order is free. Remove and rmdir use exfat_lock_two, rename
// exfat_lock_four/exfat_unlock_four, and everything that rewrites a node's
// entry set inside its parent (inactive, close, fsync, setattr, write)
// exfat_lock_parent.

#include <cstdint>

#include "exfat_proto.h"
#include "host/kern.h"
#include "host/vnode.h"

namespace {

inline uintptr_t node_key(const struct exfat_node* node) {
  return reinterpret_cast<uintptr_t>(node);
}

}  // namespace

// Locks two distinct nodes, the lower address first. NULL or identical
// arguments are a caller bug and fatal.
void exfat_lock_two(struct exfat_node* node1, struct exfat_node* node2) {
  if (node1 == nullptr)
    panic("exfat_lock_two: node1 == NULL\n");
  if (node2 == nullptr)
    panic("exfat_lock_two: node2 == NULL\n");
  if (node1 == node2)
    panic("exfat_lock_two: node1 == node2\n");
  if (node_key(node1) < node_key(node2)) {
    exfat_node_lock(node1);
    exfat_node_lock(node2);
  } else {
    exfat_node_lock(node2);
    exfat_node_lock(node1);
  }
}

// Sorts four node pointers ascending (NULL first) and removes duplicates in
// place: each distinct pointer is kept once, at the last place of its run,
// and the places before it become NULL.
void exfat_sort_nodes(struct exfat_node* nodes[4]) {
  for (int pass = 3; pass >= 1; pass--) {
    for (int i = 0; i < pass; i++) {
      if (node_key(nodes[i]) > node_key(nodes[i + 1])) {
        struct exfat_node* t = nodes[i];
        nodes[i] = nodes[i + 1];
        nodes[i + 1] = t;
      }
    }
  }
  for (int i = 1; i < 4; i++) {
    if (nodes[i] == nodes[i - 1])
      nodes[i - 1] = nullptr;
  }
}

// Locks every distinct non-NULL node of the four once, in ascending address
// order. A node passed twice (the same directory as source and target of a
// rename) is locked once.
void exfat_lock_four(struct exfat_node* a, struct exfat_node* b, struct exfat_node* c,
                     struct exfat_node* d) {
  struct exfat_node* nodes[4] = {a, b, c, d};
  exfat_sort_nodes(nodes);
  for (struct exfat_node* node : nodes) {
    if (node != nullptr)
      exfat_node_lock(node);
  }
}

// Releases what exfat_lock_four(a, b, c, d) took: each distinct non-NULL
// node once. Must be given the same four pointers.
void exfat_unlock_four(struct exfat_node* a, struct exfat_node* b, struct exfat_node* c,
                       struct exfat_node* d) {
  struct exfat_node* nodes[4] = {a, b, c, d};
  exfat_sort_nodes(nodes);
  for (struct exfat_node* node : nodes) {
    if (node != nullptr)
      exfat_node_unlock(node);
  }
}

// Locks the parent directory of a node whose entry set is to be rewritten.
//
// The caller holds the node's lock exactly once (asserted: the retry below
// must be able to release it completely). Returns 0 with *parent NULL for a
// node without an entry set (root, deleted, system file); 0 with the parent
// locked and an I/O reference on its vnode, both for the caller to drop
// (exfat_node_unlock, vnode_put of x_vnode); EIO when the parent is unknown;
// or -1 when the node had to be unlocked to respect the lock order and a
// rename moved it meanwhile: the node is locked again, nothing else is held,
// and the caller retries.
int exfat_lock_parent(struct exfat_node* node, struct exfat_node** parentp) {
  lck_mtx_assert(node->x_lock, LCK_MTX_ASSERT_OWNED);
  if (node->x_lock_count != 1)
    panic("exfat_lock_parent: node lock held %u times\n", node->x_lock_count);

  *parentp = nullptr;
  if (node->x_flags & (X_ROOT | X_DELETED | X_SYSTEM))
    return 0;

  struct exfat_node* parent = node->x_parent;
  if (parent == nullptr) {
    kprintf("exfat_lock_parent: parent == NULL (child vp = %p)\n",
            static_cast<void*>(node->x_vnode));
    return EIO;
  }
  vnode_t parent_vp = vnode_getparent(node->x_vnode);
  if (parent_vp == NULLVP) {
    kprintf("exfat_lock_parent: vnode_getparent(%p) == NULL\n", static_cast<void*>(node->x_vnode));
    return EIO;
  }
  if (parent_vp != parent->x_vnode)
    panic("exfat_lock_parent: vnode_getparent and x_parent disagree!\n");

  if (node_key(parent) > node_key(node)) {
    exfat_node_lock(parent);
  } else if (!exfat_node_try_lock(parent)) {
    // Taking the lower parent while holding the child could deadlock: let
    // go of the child and take both in ascending order.
    exfat_node_unlock(node);
    exfat_node_lock(parent);
    exfat_node_lock(node);
    if (node->x_parent != parent) {
      exfat_node_unlock(parent);
      vnode_put(parent_vp);
      return -1;
    }
  }
  *parentp = parent;
  return 0;
}
