// The test image builder: the volumes it calls valid pass the external
// checker.

#include <gtest/gtest.h>

#include "exfat_proto.h"
#include "tests/support/fsck.h"
#include "tests/support/image_builder.h"
#include "tests/unit/driver/mount_fixture.h"

using namespace exvol::test;

namespace {

void expect_fsck(const std::vector<uint8_t>& image, bool clean) {
  if (fsck_program().empty())
    GTEST_SKIP() << "fsck.exfat is not installed; skipping the checker test";
  FsckResult r = run_fsck(image);
  EXPECT_EQ(clean, r.status == 0) << r.output;
}

// A populated volume: label, GUID, nested directories, chained and
// contiguous files, a long name and a set placed across a block boundary.
void populate(ImageBuilder& b) {
  b.add_label(u"TESTVOL");
  Dir docs = b.mkdir(b.root(), u"docs", 2);
  b.add_file(docs, u"chained.txt", std::vector<uint8_t>(3 * b.bytes_per_cluster() + 7, 'c'));
  b.add_file(docs, u"contig.bin", std::vector<uint8_t>(2 * b.bytes_per_cluster(), 'x'),
             Alloc::Contiguous);
  b.add_file(b.root(), u"empty", {});
  b.add_file(b.root(), std::u16string(255, u'n'), bytes("long name"));
  uint32_t sub_clusters = (2048 + b.bytes_per_cluster() - 1) / b.bytes_per_cluster();
  Dir sub = b.mkdir(docs, u"Sub Dir", sub_clusters);
  // A 9-entry set starting 2 entries before the end of the first 512 bytes.
  // (The checker misreads sets that span three clusters, so the longest
  // sets stay within two here.)
  b.skip_to(sub, 512 - 64);
  b.add_file(sub, std::u16string(100, u'z'), bytes("straddles"));
  Dir contig = b.mkdir(b.root(), u"contiguous dir", 2, Alloc::Contiguous);
  b.add_file(contig, u"inside", bytes("x"));
}

}  // namespace

TEST(ImageBuilderFsck, ValidVolumesPassAcrossSectorAndClusterSizes) {
  struct Case {
    unsigned sector_shift, cluster_shift;
    uint32_t clusters;
  } cases[] = {{9, 0, 2048}, {9, 3, 512}, {10, 2, 256}, {11, 1, 256}, {12, 0, 256}, {12, 3, 128}};
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "sector shift " << c.sector_shift << ", cluster shift "
                                    << c.cluster_shift);
    ImageBuilder b = mountable({.sector_shift = c.sector_shift,
                               .cluster_shift = c.cluster_shift,
                               .cluster_count = c.clusters});
    populate(b);
    expect_fsck(b.build(), true);
  }
}

