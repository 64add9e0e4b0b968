// Directory entry sets: checksum, validation, name hash, and building or
// renaming a File set in a caller's 8192-byte buffer.
//
// Every function here works in place on a contiguous copy of one set,
// primary entry at offset 0, and allocates nothing. None of them takes a
// lock: the caller owns the buffer.

#include <cstring>
#include <ctime>

#include "exfat_proto.h"
#include "host/kern.h"
#include "host/time.h"

namespace {

// A one-bit right rotation of a 16-bit value, the step of both the set
// checksum and the name hash.
inline uint16_t ror16(uint16_t v) {
  return static_cast<uint16_t>((v >> 1) | (v << 15));
}

// Name entries needed for a name of `length` UTF-16 units.
inline uint32_t name_entries(uint32_t length) {
  return (length + EXFAT_NAME_CHARS_PER_ENTRY - 1) / EXFAT_NAME_CHARS_PER_ENTRY;
}

inline struct exfat_file_entry* file_entry(uint8_t* set) {
  return reinterpret_cast<struct exfat_file_entry*>(set);
}

inline struct exfat_stream_entry* stream_entry(uint8_t* set) {
  return reinterpret_cast<struct exfat_stream_entry*>(set + EXFAT_SET_STREAM_OFFSET);
}

}  // namespace

// Computes the entry-set checksum over (SecondaryCount + 1) entries, taking
// SecondaryCount from byte 1 and skipping the SetChecksum field (bytes 2
// and 3). The caller's buffer must hold the whole set.
uint16_t exfat_checksum_file_set(const uint8_t* set) {
  uint32_t n = (static_cast<uint32_t>(set[1]) + 1) * EXFAT_ENTRY_SIZE;
  uint16_t c = 0;
  for (uint32_t i = 0; i < n; i++) {
    if (i == 2 || i == 3)
      continue;
    c = static_cast<uint16_t>(ror16(c) + set[i]);
  }
  return c;
}

// Says whether a set read from disk may be used: nonzero when it passes,
// 0 when not. The checksum is checked for every primary; the shape (stream
// entry first, enough name entries) only for File sets. The stored NameHash
// and any secondaries after the names are not examined.
int exfat_valid_entry_set(const uint8_t* set) {
  if (le16dec(set + 2) != exfat_checksum_file_set(set))
    return 0;
  return exfat_entry_set_shape_ok(set);
}

// The structural part of the validity rules, without the checksum: a File
// set has a stream entry and room for, and the types of, the name entries
// its NameLength implies. Every reader of a name relies on this; an unknown
// benign primary passes.
int exfat_entry_set_shape_ok(const uint8_t* set) {
  if (set[0] != EXFAT_ENTRY_FILE)
    return 1;  // an unknown benign primary: the checksum is all we know
  uint32_t secondaries = set[1];
  if (secondaries == 0)
    return 0;
  if (set[EXFAT_SET_STREAM_OFFSET] != EXFAT_ENTRY_STREAM)
    return 0;
  uint32_t k = name_entries(set[EXFAT_SET_STREAM_OFFSET + 3]);
  if (secondaries <= k)
    return 0;
  for (uint32_t i = 0; i < k; i++) {
    if (set[EXFAT_SET_NAME_OFFSET + i * EXFAT_ENTRY_SIZE] != EXFAT_ENTRY_NAME)
      return 0;
  }
  return 1;
}

// Hashes a name through the volume's up-case table, low byte of each
// up-cased unit first. The length is a byte on disk, so only names of at
// most 255 units can be hashed; the type makes callers truncate.
uint16_t exfat_name_hash(const uint16_t* upcase, uint8_t name_length, const uint16_t* name) {
  uint16_t h = 0;
  for (uint32_t i = 0; i < name_length; i++) {
    uint16_t c = upcase[name[i]];
    h = static_cast<uint16_t>(ror16(h) + (c & 0xFF));
    h = static_cast<uint16_t>(ror16(h) + (c >> 8));
  }
  return h;
}

// Writes NameLength, NameHash and the File Name entries of a set. Leaves
// SecondaryCount, the checksum and byte 1 of each name entry alone; the
// callers maintain those. A length outside 1..255 is a caller bug: names are
// converted and limited before they reach here.
void exfat_file_set_copy_name(uint8_t* set, const uint16_t* name, long name_length,
                              uint16_t name_hash) {
  if (name_length < 1 || name_length > EXFAT_MAX_NAME_LENGTH)
    panic("exfat_file_set_copy_name: invalid name length (%ld)", name_length);

  struct exfat_stream_entry* stream = stream_entry(set);
  stream->NameLength = static_cast<uint8_t>(name_length);
  le16enc(stream->NameHash, name_hash);

  uint8_t* entry = set + EXFAT_SET_NAME_OFFSET;
  long left = name_length;
  while (left > 0) {
    struct exfat_name_entry* ne = reinterpret_cast<struct exfat_name_entry*>(entry);
    long n = left < EXFAT_NAME_CHARS_PER_ENTRY ? left : EXFAT_NAME_CHARS_PER_ENTRY;
    ne->EntryType = EXFAT_ENTRY_NAME;
    for (long i = 0; i < EXFAT_NAME_CHARS_PER_ENTRY; i++)
      le16enc(ne->FileName + 2 * i, i < n ? name[i] : 0);
    name += n;
    left -= n;
    entry += EXFAT_ENTRY_SIZE;
  }
}

// Builds a new File set for a name in the caller's 8192-byte buffer: all
// three times set to now (in the volume's time zone, seconds_west), an
// empty allocation (FirstCluster 0, sizes 0, AllocationPossible). Returns
// the checksum stored in the set.
uint16_t exfat_file_set_init(uint8_t* set, const uint16_t* name, long name_length,
                             uint16_t name_hash, uint16_t attributes, int32_t seconds_west) {
  memset(set, 0, EXFAT_SET_BUFFER_SIZE);

  struct exfat_file_entry* fe = file_entry(set);
  fe->EntryType = EXFAT_ENTRY_FILE;
  fe->SecondaryCount = static_cast<uint8_t>((name_length + 14) / 15 + 1);
  le16enc(fe->FileAttributes, attributes);

  struct timespec now;
  uint32_t timestamp;
  uint8_t increment, utc_offset;
  nanotime(&now);
  exfat_timestamp_from_unix(&timestamp, &increment, &utc_offset, &now, seconds_west);
  le32enc(fe->CreateTimestamp, timestamp);
  le32enc(fe->LastModifiedTimestamp, timestamp);
  le32enc(fe->LastAccessedTimestamp, timestamp);
  fe->Create10msIncrement = increment;
  fe->LastModified10msIncrement = increment;
  fe->CreateUtcOffset = utc_offset;
  fe->LastModifiedUtcOffset = utc_offset;
  fe->LastAccessedUtcOffset = utc_offset;

  struct exfat_stream_entry* stream = stream_entry(set);
  stream->EntryType = EXFAT_ENTRY_STREAM;
  stream->GeneralSecondaryFlags = EXFAT_SECONDARY_ALLOCATION_POSSIBLE;

  exfat_file_set_copy_name(set, name, name_length, name_hash);

  uint16_t checksum = exfat_checksum_file_set(set);
  le16enc(fe->SetChecksum, checksum);
  return checksum;
}

// Gives an existing set (whole, in the caller's buffer) a new name in place.
// Secondaries after the name entries move as one block to follow the new
// name entries. When the name shrinks, the entries past the new end stay in
// the buffer untouched; when it grows, the caller has made room for the
// longer set on disk. A set cannot have more than 255 secondaries: a caller
// whose new name would push a set with many extra secondaries past that must
// refuse the rename before calling (the buffer would overflow). Returns the
// new checksum, which is stored in the set.
uint16_t exfat_file_set_rename(uint8_t* set, const uint16_t* name, long name_length,
                               uint32_t name_hash) {
  struct exfat_file_entry* fe = file_entry(set);
  uint32_t old_names = name_entries(stream_entry(set)->NameLength);
  uint32_t new_names = name_entries(static_cast<uint32_t>(name_length));
  uint32_t rest = fe->SecondaryCount - old_names;  // the stream plus any extras

  if (rest + new_names > EXFAT_MAX_SET_ENTRIES - 1)
    panic("exfat_file_set_rename: set too large (%u secondaries)", rest + new_names);
  if (old_names != new_names && rest != 1) {
    memmove(set + EXFAT_SET_NAME_OFFSET + EXFAT_ENTRY_SIZE * new_names,
            set + EXFAT_SET_NAME_OFFSET + EXFAT_ENTRY_SIZE * old_names,
            static_cast<size_t>(rest - 1) * EXFAT_ENTRY_SIZE);
  }
  fe->SecondaryCount = static_cast<uint8_t>(rest + new_names);
  exfat_file_set_copy_name(set, name, name_length, static_cast<uint16_t>(name_hash));

  uint16_t checksum = exfat_checksum_file_set(set);
  le16enc(fe->SetChecksum, checksum);
  return checksum;
}
