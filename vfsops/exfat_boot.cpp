// Boot region arithmetic: the boot checksum, the metadata block size and
// largest I/O rules of the volume geometry, and the volume UUID.
//
// These are pure functions of their arguments; the mount code reads the
// boot region, calls them and stores the results in the exfat_mount record.

#include <md5.h>

#include <cstring>

#include "exfat_proto.h"

// The namespace of volume UUIDs made from a serial number,
// b3e20f39-f292-11d6-97a4-00306543ecac, in network byte order.
const unsigned char kFSUUIDNamespaceSHA1[16] = {0xb3, 0xe2, 0x0f, 0x39, 0xf2, 0x92, 0x11, 0xd6,
                                                0x97, 0xa4, 0x00, 0x30, 0x65, 0x43, 0xec, 0xac};

namespace {

constexpr uint32_t kMetadataBlockLimit = 4096;

inline uint32_t ror32(uint32_t v) {
  return (v >> 1) | (v << 31);
}

}  // namespace

// Computes the boot checksum over sectors 0 to 10 of the boot region in
// `buffer` (at least 11 sectors), skipping bsVolumeFlags (bytes 106, 107) and
// percentInUse (byte 112), which change while the volume is in use.
uint32_t exfat_boot_checksum(const uint8_t* buffer, uint32_t bytes_per_sector) {
  uint32_t n = EXFAT_BOOT_CHECKSUM_SECTOR * bytes_per_sector;
  uint32_t checksum = 0;
  for (uint32_t i = 0; i < n; i++) {
    if (i == EXFAT_BOOT_VOLUME_FLAGS_OFFSET || i == EXFAT_BOOT_VOLUME_FLAGS_OFFSET + 1 ||
        i == EXFAT_BOOT_PERCENT_IN_USE_OFFSET)
      continue;
    checksum = ror32(checksum) + buffer[i];
  }
  return checksum;
}

// Checks the checksum sector (sector 11) of a 12-sector boot region in
// `buffer`: 0 when every 32-bit little-endian word of it equals the checksum
// of sectors 0 to 10, 1 when any word differs.
int exfat_bad_boot_checksum(const uint8_t* buffer, uint32_t bytes_per_sector) {
  uint32_t checksum = exfat_boot_checksum(buffer, bytes_per_sector);
  const uint8_t* sector = buffer + EXFAT_BOOT_CHECKSUM_SECTOR * bytes_per_sector;
  for (uint32_t i = 0; i < bytes_per_sector; i += 4) {
    if (le32dec(sector + i) != checksum)
      return 1;
  }
  return 0;
}

// The size of the buffer-cache blocks through which directories and other
// metadata are read. A physical block that fits in a cluster is used when it
// covers the whole cluster; otherwise blocks are the cluster, capped at
// 4096 bytes. The result is never below the sector size: the device's
// logical block is one sector, and a metadata block must hold at least one
// for directory block addressing (sectors per block) to work. A physical
// block above EXFAT_MAX_META_BLOCK counts as none (the sector size): with
// clusters of up to 32 MiB it could otherwise make a buffer of a whole
// large cluster.
uint32_t exfat_metadata_block_size(uint32_t phys_block_size, uint32_t bytes_per_sector,
                                   uint32_t bytes_per_cluster) {
  uint32_t p = phys_block_size;
  if (p > bytes_per_cluster || p > EXFAT_MAX_META_BLOCK)
    p = bytes_per_sector;
  uint32_t block = p >= bytes_per_cluster
                       ? p
                       : (bytes_per_cluster < kMetadataBlockLimit ? bytes_per_cluster
                                                                  : kMetadataBlockLimit);
  return block < bytes_per_sector ? bytes_per_sector : block;
}

// The largest file I/O in bytes: the page cache's largest transfer, lowered
// in turn to each of the device's limits (its vfsioattr io_maxreadcnt,
// io_maxwritecnt, io_segreadcnt × io_maxsegreadsize and io_segwritecnt ×
// io_maxsegwritesize, products in 32 bits), but never below one cluster,
// since the block mapping hands out whole clusters.
uint32_t exfat_max_io_size(uint32_t upl_maxbufsize, uint32_t maxreadcnt, uint32_t maxwritecnt,
                           uint32_t segreadcnt, uint32_t maxsegreadsize, uint32_t segwritecnt,
                           uint32_t maxsegwritesize, uint32_t bytes_per_cluster) {
  uint32_t max_io = upl_maxbufsize;
  const uint32_t limits[4] = {maxreadcnt, maxwritecnt, segreadcnt * maxsegreadsize,
                              segwritecnt * maxsegwritesize};
  for (uint32_t limit : limits) {
    if (limit < max_io)
      max_io = limit;
  }
  if (max_io < bytes_per_cluster)
    max_io = bytes_per_cluster;
  return max_io;
}

// Makes a name-based version 3 (MD5) UUID of `name` in the namespace
// `name_space` (16 bytes, network byte order) into uuid_out (16 bytes).
void uuid_create_md5_from_name(unsigned char* uuid_out, const unsigned char* name_space,
                               const void* name, int name_length) {
  MD5_CTX context;
  unsigned char digest[16];
  MD5Init(&context);
  MD5Update(&context, name_space, 16);
  MD5Update(&context, static_cast<const uint8_t*>(name), static_cast<size_t>(name_length));
  MD5Final(digest, &context);
  digest[6] = static_cast<unsigned char>((digest[6] & 0x0F) | 0x30);
  digest[8] = static_cast<unsigned char>((digest[8] & 0x3F) | 0x80);
  memcpy(uuid_out, digest, 16);
}

// Converts a Volume GUID as stored on disk (little-endian GUID layout) into
// RFC 4122 byte order: the 32-bit and two 16-bit leading fields are
// byte-swapped, the last eight bytes copied as they are.
void exfat_guid_to_uuid(unsigned char* uuid_out, const uint8_t* guid) {
  static const uint8_t order[16] = {3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15};
  for (int i = 0; i < 16; i++)
    uuid_out[i] = guid[order[i]];
}
