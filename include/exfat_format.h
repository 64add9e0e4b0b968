#pragma once
// exFAT on-disk layouts and constants.
//
// Every structure that mirrors bytes on the volume lives here, built from
// single bytes and byte arrays only, so that it has no padding, alignment 1
// and the exact size of the on-disk record. Multi-byte fields are
// little-endian on disk and are always read and written through the
// le16dec/le32dec/le64dec and le16enc/le32enc/le64enc helpers below, never
// through a cast of an unaligned pointer.

#include <cstddef>
#include <cstdint>

// --- Little-endian field access ----------------------------------------------

static inline uint16_t le16dec(const void* pp) {
  const uint8_t* p = static_cast<const uint8_t*>(pp);
  return static_cast<uint16_t>(p[0] | (p[1] << 8));
}

static inline uint32_t le32dec(const void* pp) {
  const uint8_t* p = static_cast<const uint8_t*>(pp);
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

static inline uint64_t le64dec(const void* pp) {
  const uint8_t* p = static_cast<const uint8_t*>(pp);
  return static_cast<uint64_t>(le32dec(p)) | (static_cast<uint64_t>(le32dec(p + 4)) << 32);
}

static inline void le16enc(void* pp, uint16_t v) {
  uint8_t* p = static_cast<uint8_t*>(pp);
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
}

static inline void le32enc(void* pp, uint32_t v) {
  uint8_t* p = static_cast<uint8_t*>(pp);
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
  p[2] = static_cast<uint8_t>(v >> 16);
  p[3] = static_cast<uint8_t>(v >> 24);
}

static inline void le64enc(void* pp, uint64_t v) {
  uint8_t* p = static_cast<uint8_t*>(pp);
  le32enc(p, static_cast<uint32_t>(v));
  le32enc(p + 4, static_cast<uint32_t>(v >> 32));
}

// --- Boot region ---------------------------------------------------------------
//
// The boot region is 12 sectors: the main boot sector (0), eight extended
// boot sectors (1-8), the OEM parameters (9), a reserved sector (10) and the
// boot checksum sector (11). A backup copy follows in sectors 12-23.

#define EXFAT_BOOT_REGION_SECTORS 12
#define EXFAT_BOOT_CHECKSUM_SECTOR 11
#define EXFAT_BACKUP_BOOT_SECTOR 12

// The first 11 bytes of a boot sector: the jump instruction and the name.
#define EXFAT_BOOT_SIGNATURE "\xEB\x76\x90" "EXFAT   "
#define EXFAT_BOOT_SIGNATURE_LEN 11

// bsVolumeFlags bits.
#define EXFAT_VOLUME_ACTIVE_FAT 0x0001
#define EXFAT_VOLUME_DIRTY 0x0002
#define EXFAT_VOLUME_MEDIA_FAILURE 0x0004
#define EXFAT_VOLUME_CLEAR_TO_ZERO 0x0008

// Byte offsets that the boot checksum skips: bsVolumeFlags and percentInUse
// change while a volume is in use and must not invalidate the checksum.
#define EXFAT_BOOT_VOLUME_FLAGS_OFFSET 106
#define EXFAT_BOOT_PERCENT_IN_USE_OFFSET 112

#define EXFAT_MIN_SECTOR_SHIFT 9
#define EXFAT_MAX_SECTOR_SHIFT 16
#define EXFAT_MAX_CLUSTER_SHIFT 16  // sectors per cluster shift

struct exfat_boot_sector {
  uint8_t bsJumpBoot[3];                     //   0: EB 76 90
  uint8_t bsFileSystemName[8];               //   3: "EXFAT   "
  uint8_t bsMustBeZero[53];                  //  11
  uint8_t bsPartitionOffset[8];              //  64
  uint8_t bsVolumeLength[8];                 //  72: in sectors
  uint8_t bsFatOffset[4];                    //  80: sector of the first FAT
  uint8_t bsFatLength[4];                    //  84: in sectors
  uint8_t bsClusterHeapOffset[4];            //  88: sector of cluster 2
  uint8_t bsClusterCount[4];                 //  92
  uint8_t bsFirstClusterOfRootDirectory[4];  //  96
  uint8_t bsVolumeSerialNumber[4];           // 100
  uint8_t bsFileSystemRevision[2];           // 104: minor, major
  uint8_t bsVolumeFlags[2];                  // 106
  uint8_t bsBytesPerSectorShift;             // 108
  uint8_t bsSectorsPerClusterShift;          // 109
  uint8_t bsNumberOfFats;                    // 110
  uint8_t bsDriveSelect;                     // 111
  uint8_t percentInUse;                      // 112: 0xFF when unknown
  uint8_t bsReserved[7];                     // 113
  uint8_t bsBootCode[390];                   // 120
  uint8_t bsBootSignature[2];                // 510: 55 AA
};
static_assert(sizeof(struct exfat_boot_sector) == 512);
static_assert(offsetof(struct exfat_boot_sector, bsFileSystemName) == 3);
static_assert(offsetof(struct exfat_boot_sector, bsPartitionOffset) == 64);
static_assert(offsetof(struct exfat_boot_sector, bsVolumeLength) == 72);
static_assert(offsetof(struct exfat_boot_sector, bsFatOffset) == 80);
static_assert(offsetof(struct exfat_boot_sector, bsFatLength) == 84);
static_assert(offsetof(struct exfat_boot_sector, bsClusterHeapOffset) == 88);
static_assert(offsetof(struct exfat_boot_sector, bsClusterCount) == 92);
static_assert(offsetof(struct exfat_boot_sector, bsFirstClusterOfRootDirectory) == 96);
static_assert(offsetof(struct exfat_boot_sector, bsVolumeSerialNumber) == 100);
static_assert(offsetof(struct exfat_boot_sector, bsFileSystemRevision) == 104);
static_assert(offsetof(struct exfat_boot_sector, bsVolumeFlags) ==
              EXFAT_BOOT_VOLUME_FLAGS_OFFSET);
static_assert(offsetof(struct exfat_boot_sector, bsBytesPerSectorShift) == 108);
static_assert(offsetof(struct exfat_boot_sector, bsSectorsPerClusterShift) == 109);
static_assert(offsetof(struct exfat_boot_sector, bsNumberOfFats) == 110);
static_assert(offsetof(struct exfat_boot_sector, bsDriveSelect) == 111);
static_assert(offsetof(struct exfat_boot_sector, percentInUse) ==
              EXFAT_BOOT_PERCENT_IN_USE_OFFSET);
static_assert(offsetof(struct exfat_boot_sector, bsBootCode) == 120);
static_assert(offsetof(struct exfat_boot_sector, bsBootSignature) == 510);

// --- Clusters and the FAT --------------------------------------------------------

#define EXFAT_FIRST_CLUSTER 2          // cluster numbers of the heap start here
#define EXFAT_FAT_MEDIA 0xFFFFFFF8     // FAT entry 0
#define EXFAT_FAT_BAD 0xFFFFFFF7       // bad cluster; ends a chain like EOC
#define EXFAT_FAT_EOC 0xFFFFFFFF       // the end-of-chain mark the driver writes
#define EXFAT_FAT_ENTRY_SIZE 4

// --- Directory entries ----------------------------------------------------------
//
// Entry type byte:
//
//    7   6   5   4       0
//  +---+---+---+-----------+
//  |use|sec|ben| type code |
//  +---+---+---+-----------+
//   InUse, Secondary (else primary), Benign (else critical).

#define EXFAT_ENTRY_SIZE 32
#define EXFAT_SET_BUFFER_SIZE 8192  // 256 entries: the largest entry set
#define EXFAT_MAX_SET_ENTRIES 256
#define EXFAT_MAX_DIR_SIZE (256u << 20)  // bytes: the longest directory the format allows

#define EXFAT_ENTRY_INUSE 0x80
#define EXFAT_ENTRY_SECONDARY 0x40
#define EXFAT_ENTRY_BENIGN 0x20
#define EXFAT_ENTRY_CODE_MASK 0x1F

#define EXFAT_ENTRY_END 0x00      // end of directory
#define EXFAT_ENTRY_BITMAP 0x81   // allocation bitmap
#define EXFAT_ENTRY_UPCASE 0x82   // up-case table
#define EXFAT_ENTRY_LABEL 0x83    // volume label
#define EXFAT_ENTRY_FILE 0x85     // file or directory
#define EXFAT_ENTRY_GUID 0xA0     // volume GUID
#define EXFAT_ENTRY_PADDING 0xA1  // TexFAT padding
#define EXFAT_ENTRY_ACT 0xA2      // Windows CE access control table
#define EXFAT_ENTRY_STREAM 0xC0   // stream extension
#define EXFAT_ENTRY_NAME 0xC1     // file name
#define EXFAT_ENTRY_VENDOR_EXT 0xE0
#define EXFAT_ENTRY_VENDOR_ALLOC 0xE1

// The in-use primaries that stand alone rather than open an entry set: the
// system entries of the root directory (bitmap, up-case table, label, GUID)
// and the other benign primaries the format defines (padding, ACT).
inline bool exfat_single_entry_type(uint8_t type) {
  switch (type) {
    case EXFAT_ENTRY_BITMAP:
    case EXFAT_ENTRY_UPCASE:
    case EXFAT_ENTRY_LABEL:
    case EXFAT_ENTRY_GUID:
    case EXFAT_ENTRY_PADDING:
    case EXFAT_ENTRY_ACT:
      return true;
    default:
      return false;
  }
}

// FileAttributes bits.
#define EXFAT_ATTR_READ_ONLY 0x0001
#define EXFAT_ATTR_HIDDEN 0x0002
#define EXFAT_ATTR_SYSTEM 0x0004
#define EXFAT_ATTR_DIRECTORY 0x0010
#define EXFAT_ATTR_ARCHIVE 0x0020

// GeneralSecondaryFlags bits.
#define EXFAT_SECONDARY_ALLOCATION_POSSIBLE 0x01
#define EXFAT_SECONDARY_NO_FAT_CHAIN 0x02

// BitmapFlags bit 0: set for the bitmap of the second FAT.
#define EXFAT_BITMAP_SECOND_FAT 0x01

#define EXFAT_NAME_CHARS_PER_ENTRY 15
#define EXFAT_MAX_NAME_LENGTH 255
#define EXFAT_LABEL_MAX_CHARS 11

// A generic 32-byte entry.
struct exfat_dirent {
  uint8_t EntryType;
  uint8_t data[31];
};
static_assert(sizeof(struct exfat_dirent) == EXFAT_ENTRY_SIZE);

// File entry (0x85): the primary entry of a file or directory set.
struct exfat_file_entry {
  uint8_t EntryType;                  //  0
  uint8_t SecondaryCount;             //  1
  uint8_t SetChecksum[2];             //  2
  uint8_t FileAttributes[2];          //  4
  uint8_t Reserved1[2];               //  6
  uint8_t CreateTimestamp[4];         //  8
  uint8_t LastModifiedTimestamp[4];   // 12
  uint8_t LastAccessedTimestamp[4];   // 16
  uint8_t Create10msIncrement;        // 20
  uint8_t LastModified10msIncrement;  // 21
  uint8_t CreateUtcOffset;            // 22
  uint8_t LastModifiedUtcOffset;      // 23
  uint8_t LastAccessedUtcOffset;      // 24
  uint8_t Reserved2[7];               // 25
};
static_assert(sizeof(struct exfat_file_entry) == EXFAT_ENTRY_SIZE);
static_assert(offsetof(struct exfat_file_entry, SecondaryCount) == 1);
static_assert(offsetof(struct exfat_file_entry, SetChecksum) == 2);
static_assert(offsetof(struct exfat_file_entry, FileAttributes) == 4);
static_assert(offsetof(struct exfat_file_entry, CreateTimestamp) == 8);
static_assert(offsetof(struct exfat_file_entry, LastModifiedTimestamp) == 12);
static_assert(offsetof(struct exfat_file_entry, LastAccessedTimestamp) == 16);
static_assert(offsetof(struct exfat_file_entry, Create10msIncrement) == 20);
static_assert(offsetof(struct exfat_file_entry, LastModified10msIncrement) == 21);
static_assert(offsetof(struct exfat_file_entry, CreateUtcOffset) == 22);
static_assert(offsetof(struct exfat_file_entry, LastModifiedUtcOffset) == 23);
static_assert(offsetof(struct exfat_file_entry, LastAccessedUtcOffset) == 24);
static_assert(offsetof(struct exfat_file_entry, Reserved2) == 25);

// Stream Extension entry (0xC0): the first secondary of a File set.
struct exfat_stream_entry {
  uint8_t EntryType;              //  0
  uint8_t GeneralSecondaryFlags;  //  1
  uint8_t Reserved1;              //  2
  uint8_t NameLength;             //  3
  uint8_t NameHash[2];            //  4
  uint8_t Reserved2[2];           //  6
  uint8_t ValidDataLength[8];     //  8
  uint8_t Reserved3[4];           // 16
  uint8_t FirstCluster[4];        // 20
  uint8_t DataLength[8];          // 24
};
static_assert(sizeof(struct exfat_stream_entry) == EXFAT_ENTRY_SIZE);
static_assert(offsetof(struct exfat_stream_entry, GeneralSecondaryFlags) == 1);
static_assert(offsetof(struct exfat_stream_entry, NameLength) == 3);
static_assert(offsetof(struct exfat_stream_entry, NameHash) == 4);
static_assert(offsetof(struct exfat_stream_entry, ValidDataLength) == 8);
static_assert(offsetof(struct exfat_stream_entry, FirstCluster) == 20);
static_assert(offsetof(struct exfat_stream_entry, DataLength) == 24);

// File Name entry (0xC1): 15 UTF-16 units of the name.
struct exfat_name_entry {
  uint8_t EntryType;              // 0
  uint8_t GeneralSecondaryFlags;  // 1
  uint8_t FileName[30];           // 2
};
static_assert(sizeof(struct exfat_name_entry) == EXFAT_ENTRY_SIZE);
static_assert(offsetof(struct exfat_name_entry, FileName) == 2);

// Any other secondary (0xC2-0xFF). When AllocationPossible is set, the
// entry owns FirstCluster/DataLength like a stream does.
struct exfat_generic_secondary {
  uint8_t EntryType;              //  0
  uint8_t GeneralSecondaryFlags;  //  1
  uint8_t CustomDefined[18];      //  2
  uint8_t FirstCluster[4];        // 20
  uint8_t DataLength[8];          // 24
};
static_assert(sizeof(struct exfat_generic_secondary) == EXFAT_ENTRY_SIZE);
static_assert(offsetof(struct exfat_generic_secondary, FirstCluster) == 20);
static_assert(offsetof(struct exfat_generic_secondary, DataLength) == 24);

// Allocation Bitmap entry (0x81).
struct exfat_bitmap_entry {
  uint8_t EntryType;        //  0
  uint8_t BitmapFlags;      //  1
  uint8_t Reserved[18];     //  2
  uint8_t FirstCluster[4];  // 20
  uint8_t DataLength[8];    // 24
};
static_assert(sizeof(struct exfat_bitmap_entry) == EXFAT_ENTRY_SIZE);
static_assert(offsetof(struct exfat_bitmap_entry, BitmapFlags) == 1);
static_assert(offsetof(struct exfat_bitmap_entry, FirstCluster) == 20);
static_assert(offsetof(struct exfat_bitmap_entry, DataLength) == 24);

// Up-case Table entry (0x82).
struct exfat_upcase_entry {
  uint8_t EntryType;         //  0
  uint8_t Reserved1[3];      //  1
  uint8_t TableChecksum[4];  //  4
  uint8_t Reserved2[12];     //  8
  uint8_t FirstCluster[4];   // 20
  uint8_t DataLength[8];     // 24
};
static_assert(sizeof(struct exfat_upcase_entry) == EXFAT_ENTRY_SIZE);
static_assert(offsetof(struct exfat_upcase_entry, TableChecksum) == 4);
static_assert(offsetof(struct exfat_upcase_entry, FirstCluster) == 20);
static_assert(offsetof(struct exfat_upcase_entry, DataLength) == 24);

// Volume Label entry (0x83).
struct exfat_label_entry {
  uint8_t EntryType;        //  0
  uint8_t CharacterCount;   //  1
  uint8_t VolumeLabel[22];  //  2: 11 UTF-16 units
  uint8_t Reserved[8];      // 24
};
static_assert(sizeof(struct exfat_label_entry) == EXFAT_ENTRY_SIZE);
static_assert(offsetof(struct exfat_label_entry, CharacterCount) == 1);
static_assert(offsetof(struct exfat_label_entry, VolumeLabel) == 2);
static_assert(offsetof(struct exfat_label_entry, Reserved) == 24);

// Volume GUID entry (0xA0): a one-entry set with its own checksum.
struct exfat_guid_entry {
  uint8_t EntryType;               //  0
  uint8_t SecondaryCount;          //  1: 0
  uint8_t SetChecksum[2];          //  2
  uint8_t GeneralPrimaryFlags[2];  //  4
  uint8_t VolumeGuid[16];          //  6
  uint8_t Reserved[10];            // 22
};
static_assert(sizeof(struct exfat_guid_entry) == EXFAT_ENTRY_SIZE);
static_assert(offsetof(struct exfat_guid_entry, SetChecksum) == 2);
static_assert(offsetof(struct exfat_guid_entry, GeneralPrimaryFlags) == 4);
static_assert(offsetof(struct exfat_guid_entry, VolumeGuid) == 6);
static_assert(offsetof(struct exfat_guid_entry, Reserved) == 22);

// Offsets of the entries of a File set inside an entry-set buffer.
#define EXFAT_SET_STREAM_OFFSET 32
#define EXFAT_SET_NAME_OFFSET 64

// --- Up-case table ------------------------------------------------------------

#define EXFAT_UPCASE_ENTRIES 65536
#define EXFAT_UPCASE_TABLE_SIZE (EXFAT_UPCASE_ENTRIES * 2)  // expanded, bytes
#define EXFAT_UPCASE_RUN_MARK 0xFFFF  // item that starts an identity run

// --- Timestamps -----------------------------------------------------------------
//
//   31        25 24   21 20   16 15   11 10     5 4      0
//  +------------+-------+-------+-------+--------+--------+
//  | year-1980  | month |  day  | hour  | minute | sec/2  |
//  +------------+-------+-------+-------+--------+--------+

#define EXFAT_TS_SECONDS_SHIFT 0
#define EXFAT_TS_MINUTE_SHIFT 5
#define EXFAT_TS_HOUR_SHIFT 11
#define EXFAT_TS_DAY_SHIFT 16
#define EXFAT_TS_MONTH_SHIFT 21
#define EXFAT_TS_YEAR_SHIFT 25

// UtcOffset byte: bit 7 says the low 7 bits hold a signed count of 15-minute
// units by which the stored local time is ahead of UTC.
#define EXFAT_UTC_OFFSET_VALID 0x80

// 1980-01-01 00:00:00 in seconds since 1970-01-01 00:00:00.
#define EXFAT_EPOCH_UNIX 315532800

// --- Symbolic links ----------------------------------------------------------------
//
// The format has no link entry: a link is a regular file of exactly 1067
// bytes, recognised by its contents:
//
//   offset  0  "XSym\n"
//           5  the target length L, four decimal digits, then '\n'
//          10  MD5 of the target, 32 lowercase hex digits, then '\n'
//          43  the L target bytes; then '\n' when L < 1024, and spaces
//              up to offset 1066 when L < 1023

inline constexpr char kSymlinkMagic[] = "XSym\n";
inline constexpr uint32_t kSymlinkMagicLength = 5;
inline constexpr uint32_t kSymlinkFileSize = 1067;
inline constexpr uint32_t kSymlinkLengthOffset = 5;
inline constexpr uint32_t kSymlinkLengthDigits = 4;
inline constexpr uint32_t kSymlinkDigestOffset = 10;
inline constexpr uint32_t kSymlinkDigestLength = 32;
inline constexpr uint32_t kSymlinkTargetOffset = 43;
inline constexpr uint32_t kSymlinkMaxTarget = 1024;
