// The test image builder: the volumes it calls valid pass the external
// checker, and its fields land where the driver's layouts say they are.

#include <gtest/gtest.h>

#include "exfat_proto.h"
#include "tests/support/fsck.h"
#include "tests/support/image_builder.h"

using namespace exvol::test;

namespace {

void expect_fsck_clean(const std::vector<uint8_t>& image) {
  if (fsck_program().empty())
    GTEST_SKIP() << "fsck.exfat is not installed; skipping the checker test";
  FsckResult r = run_fsck(image);
  EXPECT_EQ(r.status, 0) << r.output;
}

void expect_fsck_finds_damage(const std::vector<uint8_t>& image) {
  if (fsck_program().empty())
    GTEST_SKIP() << "fsck.exfat is not installed; skipping the checker test";
  FsckResult r = run_fsck(image);
  EXPECT_NE(r.status, 0) << r.output;
}

ImageBuilder standard(Geometry g = {}) {
  ImageBuilder b(g);
  b.add_bitmap_entry().add_upcase_entry();
  return b;
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
    ImageBuilder b = standard({.sector_shift = c.sector_shift,
                               .cluster_shift = c.cluster_shift,
                               .cluster_count = c.clusters});
    populate(b);
    expect_fsck_clean(b.build());
  }
}

TEST(ImageBuilderFsck, DeliberateDamageIsSeenByTheChecker) {
  {
    SCOPED_TRACE("wrong boot checksum word");
    ImageBuilder b = standard();
    b.corrupt_boot_checksum_word(5);
    expect_fsck_finds_damage(b.build());
  }
  {
    SCOPED_TRACE("bitmap disagrees with the allocation");
    ImageBuilder b = standard();
    Placed f = b.add_file(b.root(), u"f", bytes("data"));
    b.override_bitmap_bit(f.first_cluster, false);
    expect_fsck_finds_damage(b.build());
  }
  {
    SCOPED_TRACE("entry set with a bad checksum");
    ImageBuilder b = standard();
    FileDesc desc{.name = u"bad"};
    std::vector<uint8_t> set = make_file_set(desc, b.upcase());
    set[2] ^= 0xFF;
    b.add_entries(b.root(), set);
    expect_fsck_finds_damage(b.build());
  }
  {
    SCOPED_TRACE("up-case table with a wrong checksum");
    ImageBuilder b(Geometry{});
    b.add_bitmap_entry().add_upcase_entry(0x12345678);
    expect_fsck_finds_damage(b.build());
  }
}

TEST(ImageBuilderLayout, BootSectorFieldsMatchTheLayouts) {
  ImageBuilder b = standard({.sector_shift = 12, .cluster_shift = 2, .cluster_count = 300,
                             .fat_offset = 32, .serial = 0x12345678});
  b.volume_flags(EXFAT_VOLUME_DIRTY);
  std::vector<uint8_t> image = b.build();
  const auto* bs = reinterpret_cast<const struct exfat_boot_sector*>(image.data());

  EXPECT_EQ(0, memcmp(image.data(), EXFAT_BOOT_SIGNATURE, EXFAT_BOOT_SIGNATURE_LEN));
  EXPECT_EQ(bs->bsBytesPerSectorShift, 12);
  EXPECT_EQ(bs->bsSectorsPerClusterShift, 2);
  EXPECT_EQ(le32dec(bs->bsFatOffset), 32u);
  EXPECT_EQ(le32dec(bs->bsFatLength), 1u);  // 302 entries fit one 4 KiB sector
  EXPECT_EQ(le32dec(bs->bsClusterHeapOffset), 36u);  // cluster-aligned after the FAT
  EXPECT_EQ(le32dec(bs->bsClusterCount), 300u);
  EXPECT_EQ(le32dec(bs->bsFirstClusterOfRootDirectory), b.root().first_cluster);
  EXPECT_EQ(le32dec(bs->bsVolumeSerialNumber), 0x12345678u);
  EXPECT_EQ(le64dec(bs->bsVolumeLength), 36u + 300u * 4);
  EXPECT_EQ(le16dec(bs->bsVolumeFlags), EXFAT_VOLUME_DIRTY);
  EXPECT_EQ(le16dec(bs->bsBootSignature), 0xAA55);
  EXPECT_EQ(image.size(), (36u + 300u * 4) * 4096);

  // The driver's checksum agrees with the builder's, for the main region
  // and the backup alike.
  EXPECT_EQ(exfat_bad_boot_checksum(image.data(), 4096), 0);
  EXPECT_EQ(exfat_bad_boot_checksum(image.data() + 12 * 4096, 4096), 0);
  EXPECT_EQ(0, memcmp(image.data(), image.data() + 12 * 4096, 12 * 4096));
}

TEST(ImageBuilderLayout, BootFieldOverridesAndChecksumDamage) {
  ImageBuilder b = standard();
  b.boot_field(108, 17, 1).corrupt_boot_checksum_word(127);
  std::vector<uint8_t> image = b.build();
  EXPECT_EQ(image[108], 17);
  EXPECT_EQ(exfat_bad_boot_checksum(image.data(), 512), 1);
  // Only the chosen word is wrong.
  uint32_t sum = exfat_boot_checksum(image.data(), 512);
  for (uint32_t w = 0; w < 127; w++)
    EXPECT_EQ(le32dec(image.data() + 11 * 512 + 4 * w), sum) << w;
  EXPECT_NE(le32dec(image.data() + 11 * 512 + 4 * 127), sum);
}

TEST(ImageBuilderLayout, FatChainsContiguousRunsAndBitmap) {
  ImageBuilder b = standard({.cluster_count = 64});
  uint32_t bpc = b.bytes_per_cluster();
  Placed chained = b.add_file(b.root(), u"c", std::vector<uint8_t>(3 * bpc, 1));
  Placed contig = b.add_file(b.root(), u"r", std::vector<uint8_t>(2 * bpc, 2), Alloc::Contiguous);
  b.set_fat(60, 0xFFFFFFF7).set_allocated(60, true).override_bitmap_bit(61, true);
  std::vector<uint8_t> image = b.build();

  auto fat = [&](uint32_t c) { return le32dec(image.data() + b.fat_byte_offset() + 4 * c); };
  EXPECT_EQ(fat(0), 0xFFFFFFF8u);
  EXPECT_EQ(fat(1), 0xFFFFFFFFu);
  EXPECT_EQ(fat(chained.first_cluster), chained.first_cluster + 1);
  EXPECT_EQ(fat(chained.first_cluster + 2), EXFAT_FAT_EOC);
  EXPECT_EQ(fat(contig.first_cluster), 0u);  // NoFatChain leaves the FAT alone
  EXPECT_EQ(fat(60), EXFAT_FAT_BAD);

  const uint8_t* bitmap = image.data() + b.cluster_byte_offset(b.bitmap_cluster());
  auto bit = [&](uint32_t c) { return (bitmap[(c - 2) / 8] >> ((c - 2) % 8)) & 1; };
  for (uint32_t c = chained.first_cluster; c < contig.first_cluster + 2; c++)
    EXPECT_EQ(bit(c), 1) << c;
  EXPECT_EQ(bit(contig.first_cluster + 2), 0);
  EXPECT_EQ(bit(60), 1);
  EXPECT_EQ(bit(61), 1);  // the override, though nothing is allocated there
  EXPECT_FALSE(b.allocated(61));

  const uint8_t* data = image.data() + b.cluster_byte_offset(contig.first_cluster + 1);
  EXPECT_EQ(data[bpc - 1], 2);
}

TEST(ImageBuilderLayout, FileSetsAreValidForTheDriver) {
  ImageBuilder b = standard();
  std::vector<uint16_t> upcase = b.upcase();
  for (size_t len : {1, 15, 16, 30, 31, 255}) {
    FileDesc desc{.name = std::u16string(len, u'q'), .first_cluster = 9, .data_length = 5,
                  .no_fat_chain = true};
    std::vector<uint8_t> set = make_file_set(desc, upcase);
    set.resize(EXFAT_SET_BUFFER_SIZE);
    SCOPED_TRACE(len);
    EXPECT_EQ(set[1], 1 + (len + 14) / 15);
    EXPECT_TRUE(exfat_valid_entry_set(set.data()));
    const auto* st = reinterpret_cast<const struct exfat_stream_entry*>(set.data() + 32);
    EXPECT_EQ(st->NameLength, len);
    EXPECT_EQ(le16dec(st->NameHash),
              exfat_name_hash(upcase.data(), static_cast<uint8_t>(len),
                              reinterpret_cast<const uint16_t*>(desc.name.data())));
    EXPECT_EQ(st->GeneralSecondaryFlags, EXFAT_SECONDARY_ALLOCATION_POSSIBLE |
                                             EXFAT_SECONDARY_NO_FAT_CHAIN);
    EXPECT_EQ(le32dec(st->FirstCluster), 9u);
    EXPECT_EQ(le64dec(st->DataLength), 5u);
    EXPECT_EQ(le64dec(st->ValidDataLength), 5u);
  }
}

TEST(ImageBuilderLayout, RootEntriesAndPlacement) {
  ImageBuilder b(Geometry{});
  b.add_bitmap_entry(EXFAT_BITMAP_SECOND_FAT).add_bitmap_entry().add_upcase_entry();
  b.add_label(u"VOL").add_guid({1, 2, 3}, false);
  Placed deleted = b.add_entry(b.root(), label_entry(u"OLD"));
  b.mark_deleted(b.root(), deleted.offset, 1);
  b.skip_to(b.root(), 512 - 32);
  Placed straddling = b.add_file(b.root(), u"abcdefghijklmnopq", {});  // 4 entries
  std::vector<uint8_t> image = b.build();
  auto entry = [&](uint32_t off) { return image.data() + b.dir_byte_offset(b.root(), off); };

  EXPECT_EQ(entry(0)[0], EXFAT_ENTRY_BITMAP);
  EXPECT_EQ(entry(0)[1], EXFAT_BITMAP_SECOND_FAT);
  EXPECT_EQ(le32dec(entry(32) + 20), b.bitmap_cluster());
  EXPECT_EQ(le64dec(entry(32) + 24), b.bitmap_length());
  EXPECT_EQ(entry(64)[0], EXFAT_ENTRY_UPCASE);
  EXPECT_EQ(le32dec(entry(64) + 4), exfat_upcase_checksum(b.upcase_data().data(),
                                                          static_cast<uint32_t>(b.upcase_data().size())));
  EXPECT_EQ(entry(96)[0], EXFAT_ENTRY_LABEL);
  EXPECT_EQ(entry(96)[1], 3);
  EXPECT_EQ(le16dec(entry(96) + 2), u'V');
  EXPECT_EQ(entry(128)[0], EXFAT_ENTRY_GUID);
  EXPECT_NE(le16dec(entry(128) + 2), exfat_checksum_file_set(entry(128)));
  EXPECT_EQ(entry(128)[6], 1);
  EXPECT_EQ(entry(deleted.offset)[0], 0x03);
  EXPECT_EQ(straddling.offset, 512u - 32);
  EXPECT_EQ(entry(512 - 32)[0], EXFAT_ENTRY_FILE);
  EXPECT_EQ(entry(512)[0], EXFAT_ENTRY_STREAM);
  EXPECT_EQ(entry(512 + 64)[0], EXFAT_ENTRY_NAME);
}

TEST(ImageBuilderLayout, RootGrowsThroughTheFatAndSubdirectoriesRefuseToOverflow) {
  ImageBuilder b = standard({.cluster_shift = 0});
  uint32_t first = b.root().first_cluster;
  for (int i = 0; i < 20; i++)  // 22 entries: past one 512-byte cluster
    b.add_entry(b.root(), raw_entry(EXFAT_ENTRY_PADDING));
  ASSERT_EQ(b.root().clusters.size(), 2u);
  EXPECT_EQ(b.fat(first), b.root().clusters[1]);
  EXPECT_EQ(b.fat(b.root().clusters[1]), EXFAT_FAT_EOC);

  Dir small = b.mkdir(b.root(), u"small", 1);
  b.skip_to(small, 512 - 32);
  EXPECT_THROW(b.add_file(small, u"x", {}), std::runtime_error);
}

TEST(ImageBuilderLayout, UpcaseTablesExpandThroughTheDriver) {
  struct exfat_mount mount = {};
  std::vector<uint16_t> table(EXFAT_UPCASE_ENTRIES);
  for (bool runs : {true, false}) {
    std::vector<uint8_t> data = compress_upcase(ascii_upcase_table(), runs);
    ASSERT_EQ(exfat_upcase_load(&mount, data.data(), static_cast<uint32_t>(data.size()),
                                upcase_checksum(data), table.data()),
              0);
    EXPECT_EQ(table, ascii_upcase_table());
  }
  EXPECT_EQ(mount.xm_flags, 0u);
}

TEST(ImageBuilderLayout, SecondFatMirrorsTheFirst) {
  ImageBuilder b({.cluster_count = 100, .number_of_fats = 2});
  b.add_bitmap_entry().add_upcase_entry();
  Placed f = b.add_file(b.root(), u"f", std::vector<uint8_t>(2 * b.bytes_per_cluster(), 1));
  std::vector<uint8_t> image = b.build();
  uint64_t fat_bytes = uint64_t{b.geometry().fat_length} * b.bytes_per_sector();
  EXPECT_EQ(image[110], 2);
  EXPECT_GE(b.geometry().heap_offset, b.geometry().fat_offset + 2 * b.geometry().fat_length);
  EXPECT_EQ(0, memcmp(image.data() + b.fat_byte_offset(),
                      image.data() + b.fat_byte_offset() + fat_bytes, fat_bytes));
  EXPECT_EQ(le32dec(image.data() + b.fat_byte_offset() + fat_bytes + 4 * f.first_cluster),
            f.first_cluster + 1);
}


TEST(ImageBuilderLayout, BrokenSetsForTheDirectoryReader) {
  ImageBuilder b = standard();
  std::vector<uint8_t> no_stream = make_file_set({.name = u"nostream"}, b.upcase());
  no_stream.erase(no_stream.begin() + 32, no_stream.begin() + 64);
  no_stream[1] -= 1;
  fix_set_checksum(no_stream);
  std::vector<uint8_t> short_count = make_file_set({.name = std::u16string(20, u's')}, b.upcase());
  short_count[1] = 2;
  fix_set_checksum(short_count);
  Placed p1 = b.add_entries(b.root(), no_stream);
  Placed p2 = b.add_entries(b.root(), short_count);
  std::vector<uint8_t> image = b.build();

  std::vector<uint8_t> set(EXFAT_SET_BUFFER_SIZE, 0);
  memcpy(set.data(), image.data() + b.dir_byte_offset(b.root(), p1.offset), 32 * p1.entries);
  EXPECT_EQ(le16dec(set.data() + 2), exfat_checksum_file_set(set.data()));
  EXPECT_FALSE(exfat_valid_entry_set(set.data()));  // checksum right, shape wrong
  std::fill(set.begin(), set.end(), 0);
  memcpy(set.data(), image.data() + b.dir_byte_offset(b.root(), p2.offset), 32 * p2.entries);
  EXPECT_EQ(le16dec(set.data() + 2), exfat_checksum_file_set(set.data()));
  EXPECT_FALSE(exfat_valid_entry_set(set.data()));
}
