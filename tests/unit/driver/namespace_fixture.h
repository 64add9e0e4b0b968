#pragma once
// The fixture of the namespace-operation tests: helpers that drive each
// operation as path resolution does, a VNOP_LOOKUP of the last component
// with the operation's nameiop, then the operation on the vnodes found.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "exfat_proto.h"
#include "host/buf.h"
#include "host/mount.h"
#include "host/namecache.h"
#include "host/vfs.h"
#include "host/vnode.h"
#include "tests/support/image_builder.h"
#include "tests/support/vnode_io.h"
#include "tests/unit/driver/volume_fixture.h"

namespace exvol::test {

class NamespaceTest : public VolumeTest {
 protected:
  NamespaceTest() : VolumeTest(small_cluster_geometry()) {}

  // VNOP_LOOKUP of the last component `name` in dvp with `nameiop`.
  int lookup(vnode_t dvp, const std::string& name, uint32_t nameiop, Vref* out) {
    vnode_t vp = NULLVP;
    int error = vn_lookup(dvp, name, &vp, nameiop);
    if (error == 0)
      out->vp = vp;
    return error;
  }
  int lookup(const std::string& name, Vref* out) { return lookup(root_vp_, name, LOOKUP, out); }

  // Path resolution for a name to be made: the lookup must report the name
  // free (EJUSTRETURN); its error is returned otherwise.
  int lookup_free(vnode_t dvp, const std::string& name) {
    Vref found;
    int error = lookup(dvp, name, CREATE, &found);
    return error == EJUSTRETURN ? 0 : (error == 0 ? EEXIST : error);
  }

  // Makes `name` in dvp with op(&vp, &cn) once lookup_free allowed it.
  template <typename Op>
  int make(vnode_t dvp, const std::string& name, Vref* out, Op op) {
    int error = lookup_free(dvp, name);
    if (error)
      return error;
    Component c(name, CREATE);
    vnode_t vp = NULLVP;
    error = op(&vp, &c.cn);
    if (error == 0)
      out->vp = vp;
    return error;
  }
  int create(vnode_t dvp, const std::string& name, Vref* out, struct vnode_attr* vap = nullptr) {
    struct vnode_attr va;
    VATTR_INIT(&va);
    return make(dvp, name, out, [&](vnode_t* vpp, struct componentname* cn) {
      return VNOP_CREATE(dvp, vpp, cn, vap != nullptr ? vap : &va, ctx_);
    });
  }
  int mkdir(vnode_t dvp, const std::string& name, Vref* out, struct vnode_attr* vap = nullptr) {
    struct vnode_attr va;
    VATTR_INIT(&va);
    return make(dvp, name, out, [&](vnode_t* vpp, struct componentname* cn) {
      return VNOP_MKDIR(dvp, vpp, cn, vap != nullptr ? vap : &va, ctx_);
    });
  }
  int symlink(vnode_t dvp, const std::string& name, const std::string& target, Vref* out) {
    struct vnode_attr va;
    VATTR_INIT(&va);
    std::string t = target;
    return make(dvp, name, out, [&](vnode_t* vpp, struct componentname* cn) {
      return VNOP_SYMLINK(dvp, vpp, cn, &va, t.data(), ctx_);
    });
  }

  // Looks `name` up for DELETE and removes it with VNOP_REMOVE or
  // VNOP_RMDIR.
  int remove(vnode_t dvp, const std::string& name, int flags = 0, bool directory = false) {
    Vref victim;
    int error = lookup(dvp, name, DELETE, &victim);
    if (error)
      return error;
    Component c(name, DELETE);
    return directory ? VNOP_RMDIR(dvp, victim.vp, &c.cn, ctx_)
                     : VNOP_REMOVE(dvp, victim.vp, &c.cn, flags, ctx_);
  }
  int rmdir(vnode_t dvp, const std::string& name) { return remove(dvp, name, 0, true); }

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

  // Runs op until it stops asking for a restart (ERESTART: look the names up
  // again), which a few rounds must settle; a private code must not escape.
  template <typename Op>
  int settled(Op op) {
    int error = ERESTART;
    for (int round = 0; round < 8 && error == ERESTART; round++)
      error = op();
    EXPECT_NE(ERESTART, error) << "the operation keeps asking for a restart";
    EXPECT_GE(error, 0) << "a private code escaped";
    return error;
  }

  // What a reader of a damaged or interrupted volume does: lists, looks up,
  // stats and reads every name below dvp, whatever errno each call gives.
  // Returns the number of names looked up.
  int walk_tree(vnode_t dvp, int depth = 0) {
    std::vector<DirRecord> records;
    if (settled([&] { return vn_list(dvp, &records); }) != 0 || depth > 6)
      return 0;
    int visited = 0;
    for (const DirRecord& r : records) {
      Vref vp;
      if (settled([&] { return lookup(dvp, r.name, LOOKUP, &vp); }) != 0)
        continue;
      visited++;
      uint64_t size = 0;
      settled([&] { return vn_size(vp.vp, &size); });
      if (vnode_isdir(vp.vp)) {
        visited += walk_tree(vp.vp, depth + 1);
      } else if (vnode_islnk(vp.vp)) {
        std::string target;
        settled([&] { return vn_readlink(vp.vp, &target); });
      } else {
        std::vector<uint8_t> data;
        settled([&] { return vn_read_all(vp.vp, &data, 1u << 20, 4096); });
      }
    }
    return visited;
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

  // Up to `length` bytes of a file from offset 0.
  std::string read_file(vnode_t vp, size_t length) {
    std::vector<uint8_t> data;
    EXPECT_EQ(0, vn_read_all(vp, &data, length));
    return std::string(data.begin(), data.end());
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
};

}  // namespace exvol::test
