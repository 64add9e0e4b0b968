#pragma once
// libexvol: the values that file calls take and return.
//
// Errors travel as std::error_code values in the generic category carrying
// the errno the call failed with (ENOENT, ENOTDIR, EISDIR, EEXIST, ENOTEMPTY,
// ELOOP, ENAMETOOLONG, EROFS, EINVAL, ENOSPC, EIO …). Nothing throws across
// the library's surface.

#include <cstdint>
#include <ctime>
#include <functional>
#include <optional>
#include <string>

namespace exvol {

enum class FileType : uint8_t { Unknown, Regular, Directory, Symlink };

// File flags, in the encoding of the BSD chflags call (st_flags). exFAT
// stores three attribute bits behind them:
//   kFlagImmutable   the ReadOnly attribute of a file (directories never
//                    report it and ignore it when set); an immutable file
//                    can't be opened for writing, truncated, removed or
//                    renamed (EPERM) until the flag is cleared
//   kFlagHidden      the Hidden attribute (set at creation for names that
//                    begin with ".")
//   kFlagArchived    reported when the Archive attribute is CLEAR on a file,
//                    so that setting flags to 0 marks a file for backup
// kFlagSystemImmutable is accepted when setting, as a synonym of
// kFlagImmutable, and never reported. Any other bit is refused (EINVAL).
inline constexpr uint32_t kFlagImmutable = 0x00000002;
inline constexpr uint32_t kFlagHidden = 0x00008000;
inline constexpr uint32_t kFlagArchived = 0x00010000;
inline constexpr uint32_t kFlagSystemImmutable = 0x00020000;

// What stat reports about a file, directory or symbolic link.
struct Stat {
  FileType type = FileType::Unknown;
  // S_IFREG, S_IFDIR or S_IFLNK with the permission bits of the mount's
  // mask: exFAT has no permissions, every file shows the same bits.
  uint32_t mode = 0;
  uint32_t nlink = 0;
  uint32_t uid = 0;
  uint32_t gid = 0;
  uint64_t size = 0;       // bytes; for a symbolic link the target's length
  uint64_t allocated = 0;  // bytes of the clusters the file holds
  uint32_t io_size = 0;    // preferred transfer size
  uint32_t flags = 0;      // kFlag*
  // The volume's own file number: the first cluster of the file's data, or
  // 1 for every file without clusters. It is NOT unique (all empty files
  // share 1); a NodeId is (see Volume::lookup).
  uint64_t file_id = 0;
  uint64_t parent_id = 0;  // the parent directory's file_id; 0 for the root
  timespec birth{};
  timespec modified{};
  timespec accessed{};
  timespec changed{};      // exFAT keeps none: the modification time
};

// A change of a file's times; times left empty stay as they are. exFAT
// keeps creation and modification times to 10 ms and access times to 2 s.
struct TimeChange {
  std::optional<timespec> accessed;
  std::optional<timespec> modified;
  std::optional<timespec> birth;
};

// One name of a directory listing.
struct DirEntry {
  // UTF-8, composed (NFC) as the volume holds it, unless the volume was
  // mounted with MountOptions::decomposed_names. A listing leaves out
  // entries whose names no path can name ("." or ".." past the first two
  // entries, names with '/' or NUL: only damaged volumes hold them).
  std::string name;
  FileType type = FileType::Unknown;
  uint64_t file_id = 0;  // as Stat::file_id
  // The position just after this entry: a listing started with this cookie
  // continues with the next entry. Cookies stay meaningful while the
  // directory changes: a listing resumed after a change continues with the
  // entries that now follow the position.
  uint64_t cookie = 0;
};

// Receives the entries of a listing in directory order. Returns true to
// take the entry and go on, false to stop WITHOUT taking it (a caller whose
// buffer is full); the listing's next cookie then names that entry.
using DirCallback = std::function<bool(const DirEntry&)>;

// The first cookie of a listing. A listing starts with "." and "..".
inline constexpr uint64_t kDirStart = 0;

// A vnode held for a front end that keeps its own references, the way a
// kernel's FUSE client does (see Volume::lookup). Ids are unique among the
// nodes held at a time, stay the same while a node is held, and are never
// 0. kRootNode is the root directory, always present and never counted.
enum class NodeId : uint64_t {};
inline constexpr NodeId kRootNode{1};

// Volume::rename flags.
inline constexpr unsigned kRenameNoReplace = 0x1;  // EEXIST when the target exists

}  // namespace exvol
