// Locking a node's parent: the retry when the node moves while its parent
// is held.

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "exfat_proto.h"
#include "host/kern.h"
#include "host/locks.h"
#include "host/mount.h"
#include "tests/unit/driver/volume_fixture.h"

using namespace exvol::test;

namespace {

// Nodes that exist only for their locks and links, at ascending addresses
// (n[0] < n[1] < ...), so that tests can choose which is lower.
struct FakeNodes {
  static constexpr int kCount = 4;
  struct exfat_node n[kCount];

  FakeNodes() {
    memset(n, 0, sizeof(n));
    for (struct exfat_node& node : n)
      node.x_lock = lck_mtx_alloc_init(exfat_lck_grp, exfat_lck_attr);
  }
  ~FakeNodes() {
    for (struct exfat_node& node : n)
      lck_mtx_free(node.x_lock, exfat_lck_grp);
  }
};

// The owner of a node lock as another thread sees it.
thread_t owner_of(struct exfat_node* node) {
  return std::atomic_ref<thread_t>(node->x_lock_owner).load(std::memory_order_relaxed);
}

class LockTest : public VolumeTest {
 protected:
  void mount_with_file() {
    uint32_t offset = builder_.add_file(builder_.root(), u"f", bytes("data")).offset;
    mount_built();
    file_vp_ = get(offset);
    file_ = node_of(file_vp_);
  }

  vnode_t file_vp_ = NULLVP;
  struct exfat_node* file_ = nullptr;
};

class LockConcurrency : public LockTest {};

// A parent at a lower address held by another thread.
TEST_F(LockConcurrency, LockParentRetriesAfterAMove) {
  mount_with_file();
  FakeNodes f;
  struct exfat_node* parent = &f.n[0];
  struct exfat_node* child = &f.n[1];
  struct exfat_node* new_parent = &f.n[2];
  parent->x_vnode = root_vp_;
  child->x_vnode = file_vp_;
  child->x_parent = parent;
  int root_refs = host_vnode_iocount(root_vp_);

  exfat_node_lock(parent);  // held "by another thread": the test's
  int result = 0;
  struct exfat_node* got = reinterpret_cast<struct exfat_node*>(1);
  bool child_held_after = false;
  std::atomic<bool> entered{false};
  std::thread t([&] {
    exfat_node_lock(child);
    entered = true;
    result = exfat_lock_parent(child, &got);
    child_held_after = owner_of(child) == current_thread() && child->x_lock_count == 1;
    exfat_node_unlock(child);
  });
  // The try-lock of the parent fails, so the child is let go: a rename can
  // now move it.
  ASSERT_TRUE(wait_for([&] { return entered.load(); }));
  ASSERT_TRUE(wait_for([&] {
    if (!exfat_node_try_lock(child))
      return false;
    child->x_parent = new_parent;
    exfat_node_unlock(child);
    return true;
  }));
  exfat_node_unlock(parent);
  t.join();

  EXPECT_EQ(-1, result);
  EXPECT_EQ(nullptr, got);
  EXPECT_TRUE(child_held_after);
  EXPECT_EQ(nullptr, owner_of(parent));
  EXPECT_EQ(root_refs, host_vnode_iocount(root_vp_));
}

}  // namespace
