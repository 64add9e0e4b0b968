// Directory listings: VNOP_READDIR in the extended record form, decoded
// into DirEntry values that each carry the cookie at which a listing
// resumes after them: the driver puts it in each record's d_seekoff, so a
// batch is one read of the directory.

#include <cstring>

#include "api/api_private.h"
#include "host/kern.h"
#include "host/uio.h"
#include "vnops/exfat_dirent.h"

namespace exvol::detail {

namespace {

// One large read: room for at least 30 of the largest records.
constexpr size_t kBatchBytes = 32768;

struct Record {
  std::string name;
  uint8_t type = DT_UNKNOWN;
  uint64_t ino = 0;
  uint64_t after = 0;  // the cookie after the record
  uint16_t reclen = 0;
};

// Decodes the direntry records in the first `used` bytes of `buffer`.
// EIO for a record that does not fit the bytes the driver said it wrote.
int parse_records(const std::vector<char>& buffer, size_t used, std::vector<Record>* out) {
  size_t pos = 0;
  while (pos < used) {
    const size_t header = offsetof(struct direntry, d_name);
    if (used - pos < header)
      return EIO;
    const char* r = buffer.data() + pos;
    Record rec;
    uint16_t namlen = 0;
    memcpy(&rec.ino, r + offsetof(struct direntry, d_ino), sizeof(rec.ino));
    memcpy(&rec.after, r + offsetof(struct direntry, d_seekoff), sizeof(rec.after));
    memcpy(&rec.reclen, r + offsetof(struct direntry, d_reclen), sizeof(rec.reclen));
    memcpy(&namlen, r + offsetof(struct direntry, d_namlen), sizeof(namlen));
    memcpy(&rec.type, r + offsetof(struct direntry, d_type), sizeof(rec.type));
    if (rec.reclen < header + namlen + 1 || rec.reclen > used - pos)
      return EIO;
    rec.name.assign(r + header, namlen);
    pos += rec.reclen;
    out->push_back(std::move(rec));
  }
  return 0;
}

// One VNOP_READDIR from `cookie` into a buffer of `bytes`: the records, the
// cookie after them and the end-of-directory flag.
int read_records(vnode_t dvp, uint64_t cookie, size_t bytes, std::vector<Record>* records,
                 uint64_t* next, bool* end) {
  std::vector<char> buffer(bytes);
  uio_t uio = uio_create(1, static_cast<off_t>(cookie), UIO_SYSSPACE, UIO_READ);
  if (uio == nullptr)
    return ENOMEM;
  uio_addiov(uio, reinterpret_cast<user_addr_t>(buffer.data()), buffer.size());
  int eof = 0, count = 0;
  int error = VNOP_READDIR(dvp, uio, VNODE_READDIR_EXTENDED, &eof, &count, vfs_context_kernel());
  size_t used = bytes - static_cast<size_t>(uio_resid(uio));
  *next = static_cast<uint64_t>(uio_offset(uio));
  uio_free(uio);
  *end = eof != 0;
  records->clear();
  return error ? error : parse_records(buffer, used, records);
}

// The type of an entry listed as DT_UNKNOWN (a file of a symbolic link's
// size whose node the driver does not have in memory, so that only its
// contents tell): the vnode that a lookup of the name finds knows.
FileType resolve_type(vnode_t dvp, const std::string& name) {
  Component c(name, LOOKUP, ISLASTCN | MAKEENTRY);
  vnode_t vp = NULLVP;
  if (VNOP_LOOKUP(dvp, &vp, c.cn(), vfs_context_kernel()) != 0)
    return FileType::Unknown;
  FileType type = vnode_islnk(vp) ? FileType::Symlink
                  : vnode_isdir(vp) ? FileType::Directory
                  : vnode_isreg(vp) ? FileType::Regular
                                    : FileType::Unknown;
  vnode_put(vp);
  return type;
}

// The record of an entry set whose name no path can reach: "." or ".."
// past the two records of that name that every listing begins with (at
// cookies 0 and 32), an empty name, or one with '/' or NUL. Only a damaged
// or crafted volume holds such a name. It is left out of the listing, with
// a line in the log, rather than failing the listing: the rest of the
// directory stays listable, and no program that joins listed names to a
// path of its own (a copy out of the volume, a FUSE client) is ever handed
// a name that would lead it outside the directory.
bool unreachable(const Record& rec, uint64_t start) {
  if (start < 64)
    return false;  // the "." and ".." the listing begins with
  if (reachable_name(rec.name))
    return false;
  std::string shown;
  for (char c : rec.name)
    shown += static_cast<unsigned char>(c) < 0x20 ? '?' : c;
  kprintf("exvol: directory listing: left out an entry named \"%s\", which no path can name",
          shown.c_str());
  return true;
}

// Adds the entry of `rec`, listed from cookie `start`, with `after` as its
// cookie.
void add_entry(MountState& ms, vnode_t dvp, const Record& rec, uint64_t start, uint64_t after,
               DirBatch* out) {
  if (unreachable(rec, start))
    return;
  DirEntry e;
  e.name = start < 64 ? rec.name : listed_name(rec.name, ms.decomposed_names);
  e.file_id = rec.ino;
  e.cookie = after;
  if (rec.type == DT_DIR)
    e.type = FileType::Directory;
  else if (rec.type == DT_REG)
    e.type = FileType::Regular;
  else if (rec.type == DT_LNK)
    e.type = FileType::Symlink;
  else if (start >= 64)
    e.type = resolve_type(dvp, rec.name);
  out->entries.push_back(std::move(e));
}

}  // namespace

int vn_readdir_batch(MountState& ms, vnode_t dvp, uint64_t cookie, DirBatch* out) {
  if (!vnode_isdir(dvp))
    return ENOTDIR;
  std::vector<Record> records;
  uint64_t batch_next = 0;
  bool batch_end = false;
  if (int error = read_records(dvp, cookie, kBatchBytes, &records, &batch_next, &batch_end))
    return error;
  out->entries.clear();
  out->next = batch_next;
  out->end = batch_end;
  uint64_t position = cookie;
  for (size_t i = 0; i < records.size(); i++) {
    // A cookie that does not move forward can't come from the driver.
    if (records[i].after <= position || records[i].after > batch_next)
      return EIO;
    // The last record resumes where the driver stopped, past what it
    // passed over after that record.
    uint64_t after = i + 1 == records.size() ? batch_next : records[i].after;
    add_entry(ms, dvp, records[i], position, after, out);
    position = after;
  }
  return 0;  // no records: the end, or a directory removed meanwhile
}

int deliver_listing(const std::function<int(uint64_t, DirBatch*)>& fetch, uint64_t cookie,
                    const DirCallback& callback, uint64_t* next_cookie, bool* end) {
  uint64_t position = cookie;
  bool at_end = false;
  for (;;) {
    DirBatch batch;
    if (int error = fetch(position, &batch))
      return error;
    bool stopped = false;
    for (const DirEntry& e : batch.entries) {
      if (!callback(e)) {
        stopped = true;
        break;
      }
      position = e.cookie;
    }
    if (stopped)
      break;
    // A batch that made no progress and did not end would repeat forever.
    if (batch.entries.empty() && !batch.end && batch.next == position)
      return EIO;
    position = batch.next;
    if (batch.end) {
      at_end = true;
      break;
    }
  }
  if (next_cookie != nullptr)
    *next_cookie = position;
  if (end != nullptr)
    *end = at_end;
  return 0;
}

}  // namespace exvol::detail
