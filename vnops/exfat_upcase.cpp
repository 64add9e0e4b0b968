// The up-case table: its checksum, and the expansion of the compressed file
// into the flat 65,536-entry table that name hashing and comparison index.
//
// The compressed file is a sequence of 16-bit little-endian items mapping
// code units 0, 1, 2 … in turn: a plain item is the up-case value of the
// next code unit; 0xFFFF followed by a count N says the next N code units
// map to themselves; a 0xFFFF that is the file's last item is a plain value.
// exfat_read_upcase reads the file and calls these in order:
// exfat_upcase_check_length before it allocates, exfat_upcase_load once the
// bytes are in memory. Every malformation is corruption: a message, XM_CORRUPT
// on the mount and EIO. Runs during mount, before other threads can reach
// the mount record, so xm_flags is changed without a lock.

#include "exfat_proto.h"
#include "host/kern.h"

namespace {

// Records corruption of the table: the message, then the mount's mark.
int upcase_corrupt(struct exfat_mount* mount, const char* message) {
  kprintf("%s", message);
  mount->xm_flags |= XM_CORRUPT;
  return EIO;
}

}  // namespace

// The 32-bit checksum of the compressed table's bytes: for each byte b,
// rotate right by one bit and add b.
uint32_t exfat_upcase_checksum(const uint8_t* buffer, uint32_t length) {
  uint32_t checksum = 0;
  for (uint32_t i = 0; i < length; i++)
    checksum = ((checksum >> 1) | (checksum << 31)) + buffer[i];
  return checksum;
}

// Refuses a compressed table longer than the expanded one could ever need
// (131,072 bytes), before any memory is allocated for it. Returns 0, or EIO
// with XM_CORRUPT set on the mount.
int exfat_upcase_check_length(struct exfat_mount* mount, uint64_t length) {
  if (length > EXFAT_UPCASE_TABLE_SIZE)
    return upcase_corrupt(mount, "exfat: upcase table length is absurdly large");
  return 0;
}

// Expands the compressed table in buffer (length bytes; a trailing odd byte
// is ignored) into table (65,536 entries). Returns 0 when the items describe
// exactly 65,536 code units; otherwise EIO with XM_CORRUPT set, a message
// naming the defect, and the table partly written.
int exfat_upcase_expand(struct exfat_mount* mount, const uint8_t* buffer, uint32_t length,
                        uint16_t* table) {
  uint32_t n = length / 2;  // whole items
  uint32_t i = 0;           // next item
  uint32_t d = 0;           // next code unit

  while (i < n && d < EXFAT_UPCASE_ENTRIES) {
    uint16_t item = le16dec(buffer + 2 * i);
    if (item == EXFAT_UPCASE_RUN_MARK && i + 1 < n) {
      uint32_t count = le16dec(buffer + 2 * (i + 1));
      uint32_t room = EXFAT_UPCASE_ENTRIES - d;
      uint32_t run = count < room ? count : room;
      for (uint32_t k = 0; k < run; k++, d++)
        table[d] = static_cast<uint16_t>(d);
      if (run < count)
        return upcase_corrupt(mount, "exfat: malformed upcase table (run too large)");
      i += 2;
    } else {
      table[d++] = item;
      i++;
    }
  }
  if (i < n)
    return upcase_corrupt(mount, "exfat: malformed upcase table (source too large)");
  if (d != EXFAT_UPCASE_ENTRIES)
    return upcase_corrupt(mount, "exfat: malformed upcase table (too short)");
  return 0;
}

// Checks the compressed table in buffer against the TableChecksum of its
// directory entry, then expands it into table. Returns 0, or EIO with
// XM_CORRUPT set and a message on a checksum mismatch or a malformed table.
int exfat_upcase_load(struct exfat_mount* mount, const uint8_t* buffer, uint32_t length,
                      uint32_t table_checksum, uint16_t* table) {
  if (exfat_upcase_checksum(buffer, length) != table_checksum)
    return upcase_corrupt(mount, "exfat: upcase checksum mismatch");
  return exfat_upcase_expand(mount, buffer, length, table);
}
