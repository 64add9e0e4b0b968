#pragma once
// The fixture of the namespace-operation tests (create, remove, rename,
// symbolic links): a mounted builder volume and helpers that drive the
// operations as the kernel's path resolution does, a VNOP_LOOKUP of the
// last component with the operation's nameiop and then the operation with
// the vnodes the lookups returned.
//
// Geometry: 512-byte sectors and clusters, 512 clusters, so that a
// directory cluster holds 16 entries and a test can fill a directory or the
// volume with a few files.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "exfat_proto.h"
#include "host/buf.h"
#include "host/mount.h"
#include "host/namecache.h"
#include "host/vfs.h"
#include "host/vnode.h"
#include "tests/support/fsck.h"
#include "tests/support/image_builder.h"
#include "tests/unit/driver/mount_fixture.h"

namespace exvol::test {

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

// A componentname with its own name buffer, kept alive across calls.
struct Component {
  std::string name;
  struct componentname cn = {};
  Component(const std::string& n, uint32_t nameiop) : name(n) {
    cn.cn_nameiop = nameiop;
    cn.cn_flags = ISLASTCN | MAKEENTRY;
    cn.cn_nameptr = name.data();
    cn.cn_namelen = static_cast<int>(name.size());
    cn.cn_pnbuf = name.data();
    cn.cn_pnlen = static_cast<int>(name.size());
  }
  Component(const Component&) = delete;
  Component& operator=(const Component&) = delete;
};

inline Geometry namespace_geometry() {
  Geometry g;
  g.sector_shift = 9;
  g.cluster_shift = 0;
  g.cluster_count = 512;
  return g;
}

class NamespaceTest : public MountTest {
 protected:
  NamespaceTest() : builder_(namespace_geometry()) { builder_.add_bitmap_entry().add_upcase_entry(); }

  void TearDown() override {
    root_.reset();
    MountTest::TearDown();
  }

  void mount_built(uint64_t flags = 0) {
    std::vector<uint8_t> image = builder_.build();
    image_bytes_ = image.size();
    ASSERT_EQ(0, load(image));
    ASSERT_EQ(0, mount(flags));
    ctx_ = vfs_context_kernel();
    ASSERT_EQ(0, VFS_ROOT(mp, &root_.vp, ctx_));
  }

  // VNOP_LOOKUP of the last component `name` in dvp with `nameiop`.
  int lookup(vnode_t dvp, const std::string& name, uint32_t nameiop, Vref* out) {
    Component c(name, nameiop);
    vnode_t vp = NULLVP;
    int error = VNOP_LOOKUP(dvp, &vp, &c.cn, ctx_);
    if (error == 0)
      out->vp = vp;
    return error;
  }
  int lookup(const std::string& name, Vref* out) { return lookup(root_.vp, name, LOOKUP, out); }

  // Path resolution for a name to be made: the lookup must report the name
  // free (EJUSTRETURN); its error is returned otherwise.
  int lookup_free(vnode_t dvp, const std::string& name) {
    Vref found;
    int error = lookup(dvp, name, CREATE, &found);
    return error == EJUSTRETURN ? 0 : (error == 0 ? EEXIST : error);
  }

  int create(vnode_t dvp, const std::string& name, Vref* out, struct vnode_attr* vap = nullptr) {
    int error = lookup_free(dvp, name);
    if (error)
      return error;
    Component c(name, CREATE);
    struct vnode_attr va;
    VATTR_INIT(&va);
    vnode_t vp = NULLVP;
    error = VNOP_CREATE(dvp, &vp, &c.cn, vap != nullptr ? vap : &va, ctx_);
    if (error == 0)
      out->vp = vp;
    return error;
  }

  int mkdir(vnode_t dvp, const std::string& name, Vref* out, struct vnode_attr* vap = nullptr) {
    int error = lookup_free(dvp, name);
    if (error)
      return error;
    Component c(name, CREATE);
    struct vnode_attr va;
    VATTR_INIT(&va);
    vnode_t vp = NULLVP;
    error = VNOP_MKDIR(dvp, &vp, &c.cn, vap != nullptr ? vap : &va, ctx_);
    if (error == 0)
      out->vp = vp;
    return error;
  }

  int symlink(vnode_t dvp, const std::string& name, const std::string& target, Vref* out) {
    int error = lookup_free(dvp, name);
    if (error)
      return error;
    Component c(name, CREATE);
    struct vnode_attr va;
    VATTR_INIT(&va);
    std::string t = target;
    vnode_t vp = NULLVP;
    error = VNOP_SYMLINK(dvp, &vp, &c.cn, &va, t.data(), ctx_);
    if (error == 0)
      out->vp = vp;
    return error;
  }

  // Looks `name` up for DELETE and removes it with VNOP_REMOVE or
  // VNOP_RMDIR.
  int remove(vnode_t dvp, const std::string& name, int flags = 0) {
    Vref victim;
    int error = lookup(dvp, name, DELETE, &victim);
    if (error)
      return error;
    Component c(name, DELETE);
    return VNOP_REMOVE(dvp, victim.vp, &c.cn, flags, ctx_);
  }
  int rmdir(vnode_t dvp, const std::string& name) {
    Vref victim;
    int error = lookup(dvp, name, DELETE, &victim);
    if (error)
      return error;
    Component c(name, DELETE);
    return VNOP_RMDIR(dvp, victim.vp, &c.cn, ctx_);
  }

  // Looks both names up (the source for DELETE, the target for RENAME,
  // which may find nothing) and renames.
  int rename(vnode_t fdvp, const std::string& from, vnode_t tdvp, const std::string& to) {
    Vref source, target;
    int error = lookup(fdvp, from, DELETE, &source);
    if (error)
      return error;
    error = lookup(tdvp, to, RENAME, &target);
    if (error != 0 && error != EJUSTRETURN)
      return error;
    Component fc(from, DELETE), tc(to, RENAME);
    return VNOP_RENAME(fdvp, source.vp, &fc.cn, tdvp, target.vp, &tc.cn, ctx_);
  }

  // Copies `length` bytes of a directory from `offset`, as the driver sees
  // them (cached blocks included).
  std::vector<uint8_t> dir_bytes(vnode_t dvp, uint32_t offset, uint32_t length) {
    auto* dir = static_cast<struct exfat_node*>(vnode_fsnode(dvp));
    std::vector<uint8_t> data(length);
    exfat_node_lock(dir);
    EXPECT_EQ(0, exfat_dir_read(dir, nullptr, data.data(), offset, length, ctx_));
    exfat_node_unlock(dir);
    return data;
  }
  // The entry set of a node, read from its parent.
  std::vector<uint8_t> set_of(vnode_t dvp, const struct exfat_node* node) {
    return dir_bytes(dvp, node->x_dir_offset, (node->x_secondary_count + 1u) * EXFAT_ENTRY_SIZE);
  }

  // Whether a cluster's bitmap bit is set.
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
  uint32_t free_clusters() {
    lck_mtx_lock(xm->xm_bitmap_lock);
    uint32_t n = xm->xm_free_clusters;
    lck_mtx_unlock(xm->xm_bitmap_lock);
    return n;
  }

  // Gives every cluster still free to one file of the builder's root, so
  // that the volume is full and yet consistent.
  void fill_volume_with_file(const std::u16string& name) {
    uint32_t free = 0;
    for (uint32_t c = 2; c < builder_.geometry().cluster_count + 2; c++)
      free += builder_.allocated(c) ? 0 : 1;
    ASSERT_GT(free, 0u);
    builder_.add_file(builder_.root(), name,
                      std::vector<uint8_t>(uint64_t(free) * builder_.bytes_per_cluster(), 'z'));
  }

  // The image as it is on the device now.
  std::vector<uint8_t> device_image() { return read_device(0, image_bytes_); }

  // Drops the test's references, unmounts and checks the volume.
  void unmount_and_fsck() {
    root_.reset();
    ASSERT_EQ(0, unmount());
    if (fsck_program().empty())
      GTEST_SKIP() << "fsck.exfat is not installed";
    FsckResult r = run_fsck(device_image());
    EXPECT_EQ(0, r.status) << r.output;
  }

  // The UTF-16 name stored in a set.
  static std::u16string set_name(const std::vector<uint8_t>& set) {
    std::u16string name;
    uint8_t length = set[EXFAT_SET_STREAM_OFFSET + 3];
    for (uint32_t i = 0; i < length; i++)
      name.push_back(static_cast<char16_t>(
          le16dec(&set[EXFAT_SET_NAME_OFFSET + (i / 15) * 32 + 2 + (i % 15) * 2])));
    return name;
  }

  ImageBuilder builder_;
  size_t image_bytes_ = 0;
  vfs_context_t ctx_ = nullptr;
  Vref root_;
};

}  // namespace exvol::test
