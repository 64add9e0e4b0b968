#pragma once
// The operations the model checker runs: concrete values only (paths,
// offsets, lengths, a seed for the bytes written), so that a recorded
// sequence replays exactly and prints as C++ that replays it again.
//
// Open files live in numbered slots; an operation on an empty slot is
// skipped by both sides, which keeps a sequence meaningful when a shrinker
// deletes the open that filled the slot.

#include <cstdint>
#include <string>
#include <vector>

namespace exvol::model {

enum class OpKind : uint8_t {
  Open,       // slot, path, a = O_* flags (an occupied slot is closed first)
  Close,      // slot
  Read,       // slot, b = offset (-1: at the file offset), a = length
  Write,      // slot, b = offset (-1: at the file offset), a = length, seed = bytes
  Seek,       // slot, b = offset, a = whence
  FTruncate,  // slot, b = size
  Fsync,      // slot, a = 1: full fsync
  FStat,      // slot
  FUtimes,    // slot, b = seconds, a = nanoseconds, seed = kTime* bits
  FChflags,   // slot, a = flags
  Stat,       // path, a = 1: lstat
  Truncate,   // path, b = size
  Unlink,     // path
  Mkdir,      // path
  Rmdir,      // path
  Rename,     // path -> path2, a = rename flags
  Symlink,    // path (the link), path2 (its target)
  Readlink,   // path
  Utimes,     // path, b = seconds, a = nanoseconds, seed = kTime* bits | kNoFollow
  Chflags,    // path, a = flags, seed = kNoFollow
  List,       // path
  Label,      // path2 = the new label
  Sync,       // a = 1: wait
  Fill,       // path: append to it until the volume is full, a = chunk bytes, seed = bytes
  Remount,    // a = 1: mount read-only afterwards
};

inline constexpr uint32_t kTimeAccess = 1;
inline constexpr uint32_t kTimeModify = 2;
inline constexpr uint32_t kTimeBirth = 4;
inline constexpr uint32_t kNoFollow = 8;

struct Op {
  OpKind kind = OpKind::Sync;
  int slot = -1;
  std::string path;
  std::string path2;
  int64_t b = 0;
  uint64_t a = 0;
  uint32_t seed = 0;
};

const char* kind_name(OpKind kind);
// Whether the operation works on an open file's slot (Open fills one).
bool on_slot(OpKind kind);
// One line: "Write slot 1 offset 4096 length 100".
std::string describe(const Op& op);
// A C++ initializer that builds op: {OpKind::Write, 1, "", "", 4096, 100, 7}.
std::string to_code(const Op& op);
// A whole test case replaying ops in the given mode.
std::string to_test_case(const std::string& name, const std::string& mode_expr,
                         const std::vector<Op>& ops);
// The bytes a Write with this seed and length writes.
std::vector<uint8_t> op_bytes(uint32_t seed, size_t length, uint64_t salt = 0);

}  // namespace exvol::model
