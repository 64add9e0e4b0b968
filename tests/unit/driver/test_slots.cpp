// Entry deletion with 512-byte clusters (16 slots per directory cluster):
// the bytes changed and the clusters freed; roots at the format's limit.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "exfat_proto.h"
#include "host/kern.h"
#include "host/malloc.h"
#include "host/vfs.h"
#include "tests/unit/driver/volume_fixture.h"

using namespace exvol::test;

namespace {

constexpr uint32_t kCluster = 512;  // small_cluster_geometry
constexpr uint32_t kSlots = kCluster / EXFAT_ENTRY_SIZE;

class SlotTest : public VolumeTest {
 protected:
  SlotTest() : VolumeTest(small_cluster_geometry()) {
    dir_offset_ = builder_.root().next_offset;
    dir_ = builder_.mkdir(builder_.root(), u"d", 1);
  }

  // Appends a set of `entries` entries (3 or 4) for an empty file to the
  // directory under test; returns its offset.
  uint32_t add(uint32_t entries, const FileDesc& base = {}) {
    FileDesc desc = base;
    std::u16string name = u"n" + std::u16string(1, static_cast<char16_t>(u'A' + names_++));
    if (entries == 4)
      name.resize(16, u'x');
    desc.name = name;
    return builder_.add_set(dir_, desc).offset;
  }

  void mount_and_open() {
    mount_built();
    dir_node_ = get_node(dir_offset_);
    ASSERT_NE(nullptr, dir_node_);
    ASSERT_EQ(VDIR, vnode_vtype(dir_node_->x_vnode));
  }

  int find(uint32_t wanted, uint32_t* offset) {
    exfat_node_lock(dir_node_);
    int error = exfat_find_empty_entries(dir_node_, wanted, offset, ctx_);
    exfat_node_unlock(dir_node_);
    return error;
  }

  int remove(uint32_t offset, uint32_t count, int free_clusters) {
    exfat_node_lock(dir_node_);
    int error = exfat_delete_dirents(dir_node_, offset, count, free_clusters, ctx_);
    exfat_node_unlock(dir_node_);
    return error;
  }

  std::vector<uint8_t> contents(uint32_t offset, uint32_t length) {
    std::vector<uint8_t> data(length);
    exfat_node_lock(dir_node_);
    EXPECT_EQ(0, exfat_dir_read(dir_node_, nullptr, data.data(), offset, length, ctx_));
    exfat_node_unlock(dir_node_);
    return data;
  }

  void update_dir() { update(dir_node_); }

  Dir dir_;
  uint32_t dir_offset_ = 0;
  int names_ = 0;
  struct exfat_node* dir_node_ = nullptr;
};

// Deleting a set clears bit 7 of each entry's type and changes no other byte,
// neither of the set nor of its neighbours.
TEST_F(SlotTest, DeletionClearsOnlyTheInUseBits) {
  add(3);
  uint32_t b = add(3);
  add(4);
  mount_and_open();
  std::vector<uint8_t> before = contents(0, kCluster);
  ASSERT_EQ(EXFAT_ENTRY_FILE, before[b]);
  host_malloc_fail_nth(1);
  EXPECT_EQ(ENOMEM, remove(b, 3, 1));
  host_malloc_fail_nth(0);
  EXPECT_EQ(before, contents(0, kCluster));

  ASSERT_EQ(0, remove(b, 3, 1));
  std::vector<uint8_t> after = contents(0, kCluster);
  EXPECT_EQ(0x05, after[b]);
  EXPECT_EQ(0x40, after[b + 32]);
  EXPECT_EQ(0x41, after[b + 64]);
  std::vector<uint8_t> expected = before;
  expected[b] = 0x05;
  expected[b + 32] = 0x40;
  expected[b + 64] = 0x41;
  EXPECT_EQ(expected, after);

  unmount_and_check();
  EXPECT_EQ(expected, read_device(builder_.dir_byte_offset(dir_, 0), kCluster));
}

// The free flag releases only the clusters of extra secondaries that own some.
TEST_F(SlotTest, FreeFlagReleasesOnlyExtraSecondaries) {
  auto set_with_extras = [&](uint32_t* data, uint32_t* run, uint32_t* chain, uint32_t* inert) {
    *data = builder_.allocate(1, Alloc::Chain);
    *run = builder_.allocate(2, Alloc::Contiguous);
    *chain = builder_.allocate(2, Alloc::Chain);
    *inert = builder_.allocate(1, Alloc::Contiguous);
    FileDesc desc;
    desc.first_cluster = *data;
    desc.data_length = kCluster;
    desc.extra_secondaries = {
        raw_entry(EXFAT_ENTRY_VENDOR_ALLOC, 0x03, *run, 2 * kCluster),
        raw_entry(EXFAT_ENTRY_VENDOR_ALLOC, 0x01, *chain, 2 * kCluster),
        raw_entry(EXFAT_ENTRY_VENDOR_EXT, 0x02, *inert, kCluster),
    };
    return add(3, desc);
  };
  uint32_t data0, run0, chain0, inert0, data1, run1, chain1, inert1;
  uint32_t keep = set_with_extras(&data0, &run0, &chain0, &inert0);
  uint32_t release = set_with_extras(&data1, &run1, &chain1, &inert1);
  uint32_t inert_primary = builder_.allocate(1, Alloc::Contiguous);
  uint32_t benign =
      builder_.add_entry(dir_, raw_entry(0xA5, 0x03, inert_primary, kCluster)).offset;
  mount_and_open();
  const uint32_t free_before = xm->xm_free_clusters;

  ASSERT_EQ(0, remove(keep, 6, 0));
  EXPECT_EQ(free_before, xm->xm_free_clusters);
  for (uint32_t c : {data0, run0, run0 + 1, chain0, inert0})
    EXPECT_TRUE(used(c)) << c;

  ASSERT_EQ(0, remove(release, 6, 1));
  settle_frees();
  EXPECT_EQ(free_before + 4, xm->xm_free_clusters);
  EXPECT_TRUE(used(data1)) << "the stream's clusters go with the file, not here";
  EXPECT_TRUE(used(inert1));
  for (uint32_t c : {run1, run1 + 1, chain1})
    EXPECT_FALSE(used(c)) << c;

  // A primary owns nothing here, whatever its second byte says.
  ASSERT_EQ(0, remove(benign, 1, 1));
  EXPECT_TRUE(used(inert_primary));

  std::vector<uint8_t> entries = contents(release, 6 * EXFAT_ENTRY_SIZE);
  const uint8_t types[] = {0x05, 0x40, 0x41, 0x61, 0x61, 0x60};
  for (int i = 0; i < 6; i++)
    EXPECT_EQ(types[i], entries[i * EXFAT_ENTRY_SIZE]) << i;
}

}  // namespace

namespace {

// A root directory as long as the format allows, or one cluster longer,
// every slot in use. 1 MiB clusters on a device whose physical block is as
// large make each cluster one metadata block, so that walking 256 MiB takes
// 256 block reads. The builder lays out a small volume; its cluster count,
// bitmap length and root chain are then widened in the image, and the
// root's later clusters are written to the device directly, past it.
constexpr uint32_t kMiB = 1u << 20;
constexpr uint32_t kVolumeClusters = EXFAT_MAX_DIR_SIZE / kMiB + 16;
constexpr uint32_t kChainStart = 8;  // the root's second cluster; the builder uses fewer

class LongRootTest : public MountTest {
 protected:
  LongRootTest() : builder_(Geometry{.cluster_shift = 11, .cluster_count = 4, .fat_length = 8}) {
    builder_.add_bitmap_entry().add_upcase_entry();
    uint64_t sectors = builder_.geometry().heap_offset + uint64_t(kVolumeClusters) * 2048;
    builder_.boot_field(72, sectors, 8).boot_field(92, kVolumeClusters, 4);
  }

  uint64_t cluster_offset(uint32_t cluster) const {
    return builder_.cluster_byte_offset(EXFAT_FIRST_CLUSTER) +
           uint64_t(cluster - EXFAT_FIRST_CLUSTER) * kMiB;
  }

  // Loads the volume with a root of `clusters` clusters, every slot after
  // the bitmap and up-case entries holding a TexFAT padding entry (in use,
  // passed over by every walk).
  void load_volume(uint32_t clusters) {
    std::vector<uint8_t> image = builder_.build();
    const uint32_t root = builder_.root().first_cluster;
    std::vector<uint8_t> filler(kMiB, 0);
    for (uint32_t i = 0; i < kMiB; i += EXFAT_ENTRY_SIZE)
      filler[i] = EXFAT_ENTRY_PADDING;
    std::copy(filler.begin() + 64, filler.end(), image.begin() + cluster_offset(root) + 64);
    le64enc(&image[cluster_offset(root) + 24], (kVolumeClusters + 7) / 8);  // bitmap length

    uint8_t* fat = &image[builder_.fat_byte_offset()];
    uint8_t* bitmap = &image[cluster_offset(builder_.bitmap_cluster())];
    uint32_t previous = root;
    for (uint32_t c = kChainStart; c < kChainStart + clusters - 1; c++) {
      le32enc(fat + 4 * previous, c);
      bitmap[(c - 2) / 8] |= static_cast<uint8_t>(1u << ((c - 2) % 8));
      previous = c;
    }
    le32enc(fat + 4 * previous, EXFAT_FAT_EOC);

    image_ = image;
    ASSERT_EQ(0, load(image, 512, kMiB, cluster_offset(kVolumeClusters + 2)));
    for (uint32_t c = kChainStart; c < kChainStart + clusters - 1; c++)
      ASSERT_EQ(0, host_memdev_load(devvp, filler.data(), kMiB, cluster_offset(c)));
  }

  ImageBuilder builder_;
  std::vector<uint8_t> image_;
};

// A root as long as the format allows can't grow: no slot is free, and the
// search says so without taking a cluster.
TEST_F(LongRootTest, FullRootAtTheLimitDoesNotGrow) {
  load_volume(EXFAT_MAX_DIR_SIZE / kMiB);
  ASSERT_EQ(0, mount());
  vnode_t root_vp = NULLVP;
  ASSERT_EQ(0, VFS_ROOT(mp, &root_vp, vfs_context_kernel()));
  auto* root = static_cast<struct exfat_node*>(vnode_fsnode(root_vp));
  EXPECT_EQ(EXFAT_MAX_DIR_SIZE, root->x_size);
  uint32_t free_before = xm->xm_free_clusters;

  uint32_t offset = 0;
  exfat_node_lock(root);
  EXPECT_EQ(ENOSPC, exfat_find_empty_entries(root, 3, &offset, vfs_context_kernel()));
  exfat_node_unlock(root);
  EXPECT_EQ(EXFAT_MAX_DIR_SIZE, root->x_size);
  EXPECT_EQ(free_before, xm->xm_free_clusters);
  vnode_put(root_vp);
}

// One cluster more and the walk stops where the format's limit is, before
// its 32-bit offset could wrap: the mount's scan of the root fails, the
// volume is marked corrupt, and a read-only mount writes nothing.
TEST_F(LongRootTest, WalkStopsAtTheLongestDirectory) {
  load_volume(EXFAT_MAX_DIR_SIZE / kMiB + 1);
  KernLogCapture log;
  EXPECT_EQ(EIO, mount(MNT_RDONLY));
  EXPECT_EQ(1u, log.count("exfat_dir_iterate: directory longer than 268435456 bytes"));
  EXPECT_TRUE(read_device(0, image_.size()) == image_);
  expect_nothing_left("after the refused mount");
}

}  // namespace
