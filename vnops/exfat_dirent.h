#pragma once
// The directory records that readdir hands to the VFS, in the kernel's
// published layouts. Whoever decodes a listing (the library's readdir)
// reads these.
//
// A listing is a sequence of records, each d_reclen bytes long: the fixed
// header, the name, a NUL, and padding up to the record's alignment. The
// caller's readdir flags choose the form: VNODE_READDIR_EXTENDED asks for
// direntry records, otherwise the records are the short form.
//
// The short form is the kernel's "struct dirent" with a 32-bit file number.
// The platform's C library owns that name (and a different layout), so here
// the record is called dirent32. The d_type values are the C library's
// DT_* constants, whose values the kernel's records share.
//
//   dirent32  (d_reclen = (namlen + 12) & 0x1FC, a multiple of 4)
//   0        4          6        7         8
//   +--------+----------+--------+---------+---------------------+
//   | d_ino  | d_reclen | d_type | d_namlen| d_name ... NUL pad  |
//   +--------+----------+--------+---------+---------------------+
//
//   direntry  (d_reclen = (namlen + 29) & 0xFFF8, a multiple of 8)
//   0        8           16         18         20       21
//   +--------+-----------+----------+----------+--------+-------------------+
//   | d_ino  | d_seekoff | d_reclen | d_namlen | d_type | d_name ... NUL pad|
//   +--------+-----------+----------+----------+--------+-------------------+
//
// Fields are in the machine's byte order: records never leave the machine.

#include <cstddef>
#include <cstdint>
#include <dirent.h>

static_assert(DT_UNKNOWN == 0 && DT_DIR == 4 && DT_REG == 8,
              "directory record types must have the kernel's values");

#define EXFAT_DIRENT32_NAME_MAX 256    // d_name bytes, NUL included
#define EXFAT_DIRENTRY_NAME_MAX 1024   // d_name bytes, NUL included

struct dirent32 {
  uint32_t d_ino;     // file number
  uint16_t d_reclen;  // length of this record
  uint8_t d_type;     // DT_*
  uint8_t d_namlen;   // name length in bytes, without the NUL (low 8 bits)
  char d_name[EXFAT_DIRENT32_NAME_MAX];
};
static_assert(offsetof(struct dirent32, d_reclen) == 4);
static_assert(offsetof(struct dirent32, d_type) == 6);
static_assert(offsetof(struct dirent32, d_namlen) == 7);
static_assert(offsetof(struct dirent32, d_name) == 8);
static_assert(sizeof(struct dirent32) == 264);

struct direntry {
  uint64_t d_ino;      // file number
  uint64_t d_seekoff;  // the listing position right after this record
  uint16_t d_reclen;   // length of this record
  uint16_t d_namlen;   // name length in bytes, without the NUL
  uint8_t d_type;      // DT_*
  char d_name[EXFAT_DIRENTRY_NAME_MAX];
};
static_assert(offsetof(struct direntry, d_seekoff) == 8);
static_assert(offsetof(struct direntry, d_reclen) == 16);
static_assert(offsetof(struct direntry, d_namlen) == 18);
static_assert(offsetof(struct direntry, d_type) == 20);
static_assert(offsetof(struct direntry, d_name) == 21);
static_assert(sizeof(struct direntry) == 1048);

// Record lengths for a name of `namlen` bytes: header, name and NUL,
// rounded up to the form's alignment.
#define EXFAT_DIRENT32_RECLEN(namlen) (((namlen) + 12) & 0x1FC)
#define EXFAT_DIRENTRY_RECLEN(namlen) (((namlen) + 29) & 0xFFF8)
