#pragma once
// The fixture of the tests that drive one mounted builder volume: the
// builder starts with the bitmap and up-case entries; a test adds what it
// needs, calls mount_built() and reaches the root (root_vp_, root_) and the
// nodes of the root's entry sets, fetched as lookup fetches them. Every
// vnode handed out is released at TearDown.

#include <gtest/gtest.h>
#include <md5.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <string>
#include <vector>

#include "exfat_proto.h"
#include "host/blkdev.h"
#include "host/buf.h"
#include "host/mount.h"
#include "host/vfs.h"
#include "host/vnode.h"
#include "tests/support/fsck.h"
#include "tests/support/image_builder.h"
#include "tests/unit/driver/host_mount_fixture.h"

namespace exvol::test {

// Test file bytes: never zero, so that a zero read back is always one the
// driver produced.
inline uint8_t pattern(uint64_t offset, uint8_t seed = 0) {
  return static_cast<uint8_t>((offset + seed) % 251 + 1);
}
inline std::vector<uint8_t> pattern_bytes(uint64_t offset, size_t length, uint8_t seed = 0) {
  std::vector<uint8_t> v(length);
  for (size_t i = 0; i < length; i++)
    v[i] = pattern(offset + i, seed);
  return v;
}
inline bool all_zero(const std::vector<uint8_t>& v, size_t from = 0, size_t to = SIZE_MAX) {
  for (size_t i = from; i < std::min(to, v.size()); i++)
    if (v[i] != 0)
      return false;
  return true;
}

// An I/O reference on a vnode, released at scope exit.
struct Vref {
  vnode_t vp = NULLVP;
  Vref() = default;
  explicit Vref(vnode_t v) : vp(v) {}
  Vref(const Vref&) = delete;
  Vref& operator=(const Vref&) = delete;
  ~Vref() { reset(); }
  void reset() {
    if (vp != NULLVP)
      vnode_put(vp);
    vp = NULLVP;
  }
  struct exfat_node* node() const { return static_cast<struct exfat_node*>(vnode_fsnode(vp)); }
};

// The symbolic-link file of a target, written independently of the driver.
inline std::string link_file(const std::string& target) {
  char digest[33];
  MD5Data(reinterpret_cast<const unsigned char*>(target.data()), target.size(), digest);
  char length[6];
  snprintf(length, sizeof(length), "%04zu", target.size());
  std::string out = std::string("XSym\n") + length + "\n" + digest + "\n" + target;
  if (target.size() < 1024)
    out += "\n";
  out.resize(1067, ' ');
  return out;
}

inline Geometry geometry_with_clusters(uint32_t cluster_count) {
  return Geometry{.cluster_count = cluster_count};
}
// 512-byte sectors and clusters: 16 entries per directory cluster.
inline Geometry small_cluster_geometry() {
  return Geometry{.cluster_shift = 0, .cluster_count = 512};
}

class VolumeTest : public MountTest {
 protected:
  explicit VolumeTest(const Geometry& g = Geometry()) : builder_(g) {
    builder_.add_bitmap_entry().add_upcase_entry();
  }

  void TearDown() override {
    release_nodes();
    MountTest::TearDown();
  }

  void mount_built(uint64_t flags = 0, const std::array<uint8_t, 24>& args = exfat_mount_args()) {
    std::vector<uint8_t> image = builder_.build();
    image_bytes_ = image.size();
    ASSERT_EQ(0, load(image));
    ASSERT_EQ(0, mount(flags, args));
    ctx_ = vfs_context_kernel();
    ASSERT_EQ(0, VFS_ROOT(mp, &root_vp_, ctx_));
    root_ = node_of(root_vp_);
  }

  static struct exfat_node* node_of(vnode_t vp) {
    return static_cast<struct exfat_node*>(vnode_fsnode(vp));
  }

  // exfat_node_get of the set at `offset` in the root, as lookup calls it:
  // with the root locked, a level the call drops.
  int node_get(uint32_t offset, struct exfat_node** node, enum vtype type = VNON) {
    exfat_node_lock(root_);
    return exfat_node_get(xm, root_vp_, nullptr, offset, type, 0, node, ctx_);
  }

  // The vnode of the set at `offset` in the root, held until the test ends
  // (or until put()).
  vnode_t get(uint32_t offset, enum vtype type = VNON) {
    struct exfat_node* node = nullptr;
    EXPECT_EQ(0, node_get(offset, &node, type));
    if (node == nullptr)
      return NULLVP;
    held_.push_back(node->x_vnode);
    return node->x_vnode;
  }
  struct exfat_node* get_node(uint32_t offset, enum vtype type = VNON) {
    vnode_t vp = get(offset, type);
    return vp == NULLVP ? nullptr : node_of(vp);
  }

  // Unmounts and mounts the same device again with other flags.
  void remount(uint64_t flags) {
    release_nodes();
    ASSERT_EQ(0, unmount());
    ASSERT_EQ(0, mount(flags));
    ASSERT_EQ(0, VFS_ROOT(mp, &root_vp_, ctx_));
    root_ = node_of(root_vp_);
  }

  // Drops the test's reference: the vnode goes inactive.
  void put(vnode_t vp) {
    auto it = std::find(held_.begin(), held_.end(), vp);
    ASSERT_NE(held_.end(), it);
    held_.erase(it);
    vnode_put(vp);
  }

  void release_nodes() {
    for (vnode_t vp : held_)
      vnode_put(vp);
    held_.clear();
    if (root_vp_ != NULLVP)
      vnode_put(root_vp_);
    root_vp_ = NULLVP;
  }

  // Releases every vnode, unmounts, and runs the checker over the device
  // (an optional oracle: nothing to check without it).
  void unmount_and_check() {
    release_nodes();
    ASSERT_EQ(0, unmount());
    if (fsck_program().empty())
      return;
    FsckResult r = run_fsck(device_image());
    EXPECT_EQ(0, r.status) << r.output;
  }

  // Writes the node's stream fields back into its set in the root.
  void update(struct exfat_node* node, int expected = 0) {
    exfat_lock_two(node, root_);
    EXPECT_EQ(expected, exfat_node_update(node, root_, ctx_));
    exfat_node_unlock(root_);
    exfat_node_unlock(node);
  }

  std::vector<uint8_t> device_image() const { return read_device(0, image_bytes_); }

  // A set of `entries` entries at `offset` of the root as it is on the
  // device, once the delayed directory writes went out. Entry by entry:
  // the root's clusters need not be adjacent.
  std::vector<uint8_t> root_set(uint32_t offset, uint32_t entries = 3) {
    if (mp != nullptr)
      buf_flushdirtyblks(devvp, 1, 0, "test");
    std::vector<uint8_t> set;
    for (uint32_t i = 0; i < entries; i++) {
      uint64_t at = builder_.dir_byte_offset(builder_.root(), offset + 32 * i);
      std::vector<uint8_t> entry = read_device(at, 32);
      set.insert(set.end(), entry.begin(), entry.end());
    }
    return set;
  }
  std::vector<uint8_t> disk_data(uint32_t first_cluster, uint64_t offset, size_t length) {
    return read_device(builder_.cluster_byte_offset(first_cluster) + offset, length);
  }

  // Whether a cluster's bitmap bit is set, as the driver sees it.
  bool used(uint32_t cluster) {
    lck_mtx_lock(xm->xm_bitmap_lock);
    int error = 0;
    uint32_t bit = cluster - 2;
    uint32_t* word = exfat_bitmap_map(xm, bit, nullptr, &error);
    bool value = word != nullptr && ((le32dec(word) >> (bit % 32)) & 1) != 0;
    lck_mtx_unlock(xm->xm_bitmap_lock);
    EXPECT_EQ(0, error);
    return value;
  }
  // Frees the clusters given back whose owners' entries are written (the
  // metadata flush does it otherwise, after writing the directory blocks).
  void settle_frees() { exfat_pending_flush(xm, "test"); }
  uint32_t free_clusters() {
    lck_mtx_lock(xm->xm_bitmap_lock);
    uint32_t n = xm->xm_free_clusters;
    lck_mtx_unlock(xm->xm_bitmap_lock);
    return n;
  }
  uint32_t fat(uint32_t cluster) {
    uint32_t value = 0;
    EXPECT_EQ(0, exfat_fat_get_set(EXFAT_FAT_GET, xm, cluster, &value, 0));
    return value;
  }

  // Writes every cache and dirty buffer of the volume, then forgets the
  // device's counters: what is written afterwards is the test's doing.
  void settle() {
    exfat_meta_flush_internal(xm, 1);
    host_blkdev_reset_stats(devvp);
  }

  // An empty regular file in the root; returns its set's offset.
  uint32_t empty_file(const std::u16string& name) {
    FileDesc desc;
    desc.name = name;
    return builder_.add_set(builder_.root(), desc).offset;
  }

  struct File {
    uint32_t offset = 0;         // of its set in the root
    uint32_t first_cluster = 0;  // of its (contiguous) data
  };
  // A contiguous file of `size` bytes whose first `valid` bytes hold the
  // pattern and whose clusters hold `junk` after that.
  File junk_file(const std::u16string& name, uint64_t size, uint64_t valid, uint8_t junk = 0xEE) {
    File f;
    uint32_t cluster = builder_.bytes_per_cluster();
    uint32_t clusters = static_cast<uint32_t>((size + cluster - 1) / cluster);
    if (clusters != 0) {
      f.first_cluster = builder_.allocate(clusters, Alloc::Contiguous);
      std::vector<uint8_t> data(uint64_t(clusters) * cluster, junk);
      for (uint64_t i = 0; i < valid; i++)
        data[i] = pattern(i);
      builder_.write_data(f.first_cluster, Alloc::Contiguous, data);
    }
    FileDesc desc;
    desc.name = name;
    desc.first_cluster = f.first_cluster;
    desc.data_length = size;
    desc.valid_length = valid;
    desc.no_fat_chain = clusters != 0;
    f.offset = builder_.add_set(builder_.root(), desc).offset;
    return f;
  }

  ImageBuilder builder_;
  size_t image_bytes_ = 0;
  vfs_context_t ctx_ = nullptr;
  vnode_t root_vp_ = NULLVP;
  struct exfat_node* root_ = nullptr;
  std::vector<vnode_t> held_;
};

}  // namespace exvol::test
