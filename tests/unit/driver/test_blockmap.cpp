// Block mapping: the one-run extent cache over a chain, E2BIG past the
// data, and the blockmap vnode operation's holes past the valid data.

#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "exfat_proto.h"
#include "host/kern.h"
#include "host/vfs.h"
#include "tests/support/image_builder.h"
#include "tests/unit/driver/host_mount_fixture.h"

using namespace exvol::test;

namespace {

constexpr uint32_t kClusterSize = 4096;  // default geometry: 512-byte sectors, 8 per cluster

class BlockmapTest : public MountTest {
 protected:
  uint64_t sector_of(uint32_t cluster) {
    return xm->xm_heap_offset + uint64_t(cluster - 2) * (kClusterSize / 512);
  }

  // The vnode of the file whose set is at `offset` in the root, with an I/O
  // reference (released with vnode_put).
  vnode_t file_vnode(uint32_t offset) {
    vnode_t root = nullptr;
    EXPECT_EQ(0, VFS_ROOT(mp, &root, vfs_context_kernel()));
    if (root == nullptr)
      return nullptr;
    struct exfat_node* dir = static_cast<struct exfat_node*>(vnode_fsnode(root));
    struct exfat_node* file = nullptr;
    exfat_node_lock(dir);  // exfat_node_get drops this level
    EXPECT_EQ(0, exfat_node_get(xm, root, nullptr, offset, VREG, 0, &file, vfs_context_kernel()));
    vnode_put(root);
    return file ? file->x_vnode : nullptr;
  }

  struct Mapping {
    int error;
    daddr64_t bpn;
    size_t run;
    int poff;
  };
  Mapping blockmap(vnode_t vp, off_t offset, size_t size, int flags) {
    Mapping m{0, -7, 7, -7};
    m.error = VNOP_BLOCKMAP(vp, offset, size, &m.bpn, &m.run, &m.poff, flags, vfs_context_kernel());
    return m;
  }
};

// The chain 10 -> 11 -> 12 -> 20 -> 21 -> end.
void five_cluster_chain(ImageBuilder& b) {
  for (uint32_t c : {10u, 11u, 12u, 20u, 21u})
    b.set_allocated(c, true);
  b.set_fat(10, 11).set_fat(11, 12).set_fat(12, 20).set_fat(20, 21).set_fat(21, 0xFFFFFFFF);
}

TEST_F(BlockmapTest, IndexesPastTheDataAreE2BIG) {
  mount_volume({}, five_cluster_chain);
  uint64_t sector = 0;

  // The chain is longer than the size says.
  struct exfat_node shorter = stand_in_node(xm, 10, 3 * kClusterSize - 1);
  EXPECT_EQ(0, exfat_blockmap(&shorter, 2, 1, &sector, nullptr, nullptr));
  EXPECT_EQ(E2BIG, exfat_blockmap(&shorter, 3, 1, &sector, nullptr, nullptr));

  // The chain ends before the size says: not corruption.
  KernLogCapture log;
  struct exfat_node longer = stand_in_node(xm, 10, 6 * kClusterSize);
  EXPECT_EQ(E2BIG, exfat_blockmap(&longer, 5, 1, &sector, nullptr, nullptr));
  EXPECT_FALSE(xm->xm_flags & XM_CORRUPT);
  EXPECT_TRUE(log.lines().empty());

  // Nothing asked for: nothing done, even past the end.
  EXPECT_EQ(0, exfat_blockmap(&shorter, 99, 1, nullptr, nullptr, nullptr));
}

// A contiguous file of two clusters holding 1000 valid bytes.
TEST_F(BlockmapTest, ReadsPastTheValidDataAreHolesAndWritesAreNot) {
  uint32_t offset = 0, cluster = 0;
  mount_volume({}, [&](ImageBuilder& b) {
    cluster = b.allocate(2, Alloc::Contiguous);
    FileDesc s;
    s.name = u"valid1000";
    s.first_cluster = cluster;
    s.data_length = 2 * kClusterSize;
    s.valid_length = 1000;
    s.no_fat_chain = true;
    offset = b.add_set(b.root(), s).offset;
  });
  vnode_t vp = file_vnode(offset);
  ASSERT_NE(nullptr, vp);
  const daddr64_t first = static_cast<daddr64_t>(sector_of(cluster));

  // At and past the valid size rounded up to a sector: holes.
  Mapping m = blockmap(vp, 1024, 4096, VNODE_READ);
  EXPECT_EQ(0, m.error);
  EXPECT_EQ(-1, m.bpn);
  EXPECT_EQ(4096u, m.run);
  EXPECT_EQ(0, m.poff);
  m = blockmap(vp, 5000, 8192, VNODE_READ);
  EXPECT_EQ(-1, m.bpn);
  EXPECT_EQ(8192u - 5000u, m.run) << "a hole ends with the allocation";
  EXPECT_EQ(5000 % 512, m.poff);

  // A read crossing it is looked up only to it: one cluster, not two.
  m = blockmap(vp, 0, 8192, VNODE_READ);
  EXPECT_EQ(0, m.error);
  EXPECT_EQ(first, m.bpn);
  EXPECT_EQ(4096u, m.run);
  m = blockmap(vp, 1000, 100, VNODE_READ);
  EXPECT_EQ(first + 1, m.bpn);
  EXPECT_EQ(100u, m.run);
  EXPECT_EQ(1000 - 512, m.poff);

  // A write maps real sectors up to the size.
  m = blockmap(vp, 0, 8192, VNODE_WRITE);
  EXPECT_EQ(first, m.bpn);
  EXPECT_EQ(8192u, m.run);
  m = blockmap(vp, 5000, 100, VNODE_WRITE);
  EXPECT_EQ(first + 8 + 1, m.bpn);
  EXPECT_EQ(100u, m.run);
  EXPECT_EQ(5000 % 512, m.poff);
  EXPECT_EQ(EINVAL, blockmap(vp, 8192, 4096, VNODE_WRITE).error) << "past the size";

  EXPECT_EQ(0, VNOP_BLOCKMAP(vp, 0, 4096, nullptr, nullptr, nullptr, VNODE_READ,
                             vfs_context_kernel()));
  vnode_put(vp);
}

}  // namespace
