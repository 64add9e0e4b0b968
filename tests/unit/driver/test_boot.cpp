// Boot region arithmetic: the boot checksum, the metadata block size and
// largest I/O rules, the volume UUID and the Volume GUID byte order.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "exfat_proto.h"
#include "tests/unit/driver/host_mount_fixture.h"

using exvol::test::uuid_string;

namespace {

// The documented sample: only the signature, flags 0x0002, shifts 9 and 3,
// percentInUse 0x32 and the boot signature are nonzero.
std::vector<uint8_t> sample_region(uint32_t bps) {
  std::vector<uint8_t> region(12 * bps, 0);
  memcpy(region.data(), EXFAT_BOOT_SIGNATURE, EXFAT_BOOT_SIGNATURE_LEN);
  region[106] = 0x02;
  region[108] = 9;
  region[109] = 3;
  region[112] = 0x32;
  region[510] = 0x55;
  region[511] = 0xAA;
  return region;
}

}  // namespace

TEST(BootChecksum, DocumentedSampleAndSkippedBytes) {
  std::vector<uint8_t> region = sample_region(512);
  EXPECT_EQ(exfat_boot_checksum(region.data(), 512), 0x8016ACC4u);

  for (uint32_t skipped : {106u, 107u, 112u}) {
    std::vector<uint8_t> changed = region;
    changed[skipped] ^= 0xA5;
    EXPECT_EQ(exfat_boot_checksum(changed.data(), 512), 0x8016ACC4u) << skipped;
  }
  // Neighbours of the skipped bytes, and the last byte of sector 10, count.
  for (uint32_t counted : {105u, 108u, 111u, 113u, 11u * 512 - 1}) {
    std::vector<uint8_t> changed = region;
    changed[counted] ^= 0x01;
    EXPECT_NE(exfat_boot_checksum(changed.data(), 512), 0x8016ACC4u) << counted;
  }
  // Sector 11 itself is not part of the sum.
  std::vector<uint8_t> changed = region;
  changed[11 * 512] = 0xFF;
  EXPECT_EQ(exfat_boot_checksum(changed.data(), 512), 0x8016ACC4u);
}

TEST(BootGeometry, MetadataBlockSize) {
  // physical block, sector, cluster -> block
  EXPECT_EQ(exfat_metadata_block_size(4096, 512, 512), 512u);
  EXPECT_EQ(exfat_metadata_block_size(512, 512, 65536), 4096u);
  EXPECT_EQ(exfat_metadata_block_size(8192, 8192, 8192), 8192u);
  EXPECT_EQ(exfat_metadata_block_size(512, 512, 32768), 4096u);
  EXPECT_EQ(exfat_metadata_block_size(512, 512, 2048), 2048u);
  EXPECT_EQ(exfat_metadata_block_size(8192, 512, 8192), 8192u);   // physical = cluster
  EXPECT_EQ(exfat_metadata_block_size(4096, 4096, 4096), 4096u);
  EXPECT_EQ(exfat_metadata_block_size(16384, 4096, 8192), 4096u); // physical > cluster
  // Never smaller than a sector, which is the device's block.
  EXPECT_EQ(exfat_metadata_block_size(512, 8192, 16384), 8192u);
  // A physical block beyond the largest sector is not used, even when it
  // matches a (large) cluster: no buffer the size of a 2 MiB cluster.
  EXPECT_EQ(exfat_metadata_block_size(65536, 512, 65536), 65536u);
  EXPECT_EQ(exfat_metadata_block_size(2u << 20, 512, 2u << 20), 4096u);
  EXPECT_EQ(exfat_metadata_block_size(32u << 20, 4096, 32u << 20), 4096u);
}

TEST(BootGeometry, LargestIoSize) {
  const uint32_t MiB = 1 << 20, KiB = 1 << 10;
  EXPECT_EQ(exfat_max_io_size(8 * MiB, 128 * KiB, 8 * MiB, 256, 64 * KiB, 256, 64 * KiB,
                              256 * KiB),
            256 * KiB);
  // Each limit lowers the size where it is the smallest.
  EXPECT_EQ(exfat_max_io_size(8 * MiB, 8 * MiB, 8 * MiB, 256, 64 * KiB, 256, 64 * KiB, 4 * KiB),
            8 * MiB);
  EXPECT_EQ(exfat_max_io_size(8 * MiB, 8 * MiB, 1 * MiB, 256, 64 * KiB, 256, 64 * KiB, 4 * KiB),
            1 * MiB);
  EXPECT_EQ(exfat_max_io_size(8 * MiB, 8 * MiB, 8 * MiB, 4, 64 * KiB, 256, 64 * KiB, 4 * KiB),
            256 * KiB);
  EXPECT_EQ(exfat_max_io_size(8 * MiB, 8 * MiB, 8 * MiB, 256, 64 * KiB, 2, 64 * KiB, 4 * KiB),
            128 * KiB);
  // The segment products are 32-bit: 65536 × 65536 wraps to 0, then the
  // cluster size is the floor.
  EXPECT_EQ(exfat_max_io_size(8 * MiB, 8 * MiB, 8 * MiB, 65536, 65536, 256, 64 * KiB, 32 * KiB),
            32 * KiB);
}

TEST(VolumeUuid, FromSerialNumber) {
  unsigned char uuid[16];
  const uint8_t zero[4] = {0, 0, 0, 0};
  uuid_create_md5_from_name(uuid, kFSUUIDNamespaceSHA1, zero, 4);
  EXPECT_EQ(uuid_string(uuid), "C8BF5026-0077-3F03-AA08-019E0A1DC444");

  const uint8_t serial[4] = {0x78, 0x56, 0x34, 0x12};  // 0x12345678 as stored
  uuid_create_md5_from_name(uuid, kFSUUIDNamespaceSHA1, serial, 4);
  EXPECT_EQ(uuid_string(uuid), "9246EF5C-39A0-3E38-8960-B3D469327E21");
  EXPECT_EQ(uuid[6] >> 4, 3);       // version 3
  EXPECT_EQ(uuid[8] & 0xC0, 0x80);  // RFC 4122 variant
}

TEST(VolumeUuid, GuidEntryByteOrder) {
  const uint8_t guid[16] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                            0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};
  unsigned char uuid[16];
  exfat_guid_to_uuid(uuid, guid);
  EXPECT_EQ(uuid_string(uuid), "33221100-5544-7766-8899-AABBCCDDEEFF");
}
