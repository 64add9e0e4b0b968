// Filling a new volume from a host directory: every directory, file and
// symbolic link below it becomes an entry set, with data laid out
// contiguously (NoFatChain) in the order the tree is walked.
//
// A directory is listed once, whole (its names and attributes), to size it
// before its children are allocated behind it; only the listings of the
// directories on the current path are held, and directory contents go out
// through a fixed buffer.

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

#include "api/mkfs_private.h"
#include "exfat_proto.h"
#include "host/utf8.h"

namespace exvol::detail {

namespace {

constexpr size_t kCopyBuffer = 1u << 20;
constexpr size_t kDirBuffer = 16u << 10;  // per directory on the current path
constexpr uint32_t kLinkFileSize = 1067;
constexpr size_t kLinkMaxTarget = 1024;

bool fail(MkfsError* e, int error, std::string message) {
  e->error = error;
  e->message = std::move(message);
  return false;
}

bool fail_errno(MkfsError* e, const std::string& path) {
  int error = errno;
  return fail(e, error, path + ": " + strerror(error));
}

// One name of a host directory, as it will be stored.
struct Child {
  std::string name;  // host name (UTF-8)
  struct statx st;
  uint16_t units[EXFAT_MAX_NAME_LENGTH];
  uint32_t length = 0;  // UTF-16 units
  uint16_t hash = 0;
  uint32_t entries() const { return 2 + (length + EXFAT_NAME_CHARS_PER_ENTRY - 1) / 15; }
};

bool is_supported(const struct statx& st) {
  return S_ISREG(st.stx_mode) || S_ISDIR(st.stx_mode) || S_ISLNK(st.stx_mode);
}

// The contents of a link file (the driver's format): magic, length, MD5 of
// the target, target, then a newline and space padding.
std::vector<uint8_t> link_contents(const std::string& target) {
  std::vector<uint8_t> data(kLinkFileSize, ' ');
  char header[11];
  snprintf(header, sizeof(header), "XSym\n%04zu\n", target.size());
  memcpy(data.data(), header, 10);
  exfat_md5_digest(target.data(), target.size(), reinterpret_cast<char*>(&data[10]));
  data[42] = '\n';
  memcpy(&data[43], target.data(), target.size());
  if (target.size() < kLinkMaxTarget)
    data[43 + target.size()] = '\n';
  return data;
}

class TreeWriter {
 public:
  explicit TreeWriter(Formatter& f) : f_(f) {}

  // Lists `path` into *children, sorted by name, with names converted and
  // checked. A directory whose names clash only in case can't be stored.
  bool list(const std::string& path, std::vector<Child>* children, MkfsError* e);
  // Writes the children of `path` into the directory at first (clusters).
  bool fill(const std::string& path, std::vector<Child>& children, DirWriter& dir, MkfsError* e);
  // Sizes of a directory holding `children` after `prefix` bytes.
  bool dir_clusters(const std::string& path, const std::vector<Child>& children, uint64_t prefix,
                    uint32_t* clusters, MkfsError* e);

 private:
  bool child_data(const std::string& path, const Child& c, uint32_t* first, uint64_t* length,
                  uint32_t* clusters, MkfsError* e);
  bool copy_file(const std::string& path, uint64_t size, uint32_t first, MkfsError* e);
  bool subdirectory(const std::string& path, uint32_t* first, uint32_t* clusters, MkfsError* e);
  void build_set(const Child& c, uint32_t first, uint64_t length, uint32_t clusters);

  Formatter& f_;
  uint8_t set_[EXFAT_SET_BUFFER_SIZE];
};

bool TreeWriter::list(const std::string& path, std::vector<Child>* children, MkfsError* e) {
  DIR* d = opendir(path.c_str());
  if (!d)
    return fail_errno(e, path);
  std::vector<std::string> names;
  errno = 0;
  while (struct dirent* de = readdir(d)) {
    if (strcmp(de->d_name, ".") != 0 && strcmp(de->d_name, "..") != 0)
      names.emplace_back(de->d_name);
  }
  int error = errno;
  int dfd = dirfd(d);
  std::sort(names.begin(), names.end());
  std::set<std::u16string> keys;
  for (const std::string& name : names) {
    Child c;
    c.name = name;
    std::string full = path + "/" + name;
    if (statx(dfd, name.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS | STATX_BTIME, &c.st)) {
      error = errno;
      closedir(d);
      errno = error;
      return fail_errno(e, full);
    }
    bool self = f_.is_target(makedev(c.st.stx_dev_major, c.st.stx_dev_minor), c.st.stx_ino);
    if (!is_supported(c.st) || self) {
      if (f_.options().warn)
        f_.options().warn(full + (self ? ": skipped: the volume being made"
                                        : ": skipped: exFAT holds only files, directories and links"));
      continue;
    }
    size_t bytes = 0;
    int rc = utf8_decodestr(reinterpret_cast<const uint8_t*>(name.data()), name.size(), c.units,
                            &bytes, sizeof(c.units), 0, UTF_PRECOMPOSED | UTF_SFM_CONVERSIONS);
    if (rc) {
      closedir(d);
      return fail(e, rc, full + (rc == EINVAL ? ": the name is not valid UTF-8"
                                              : ": the name is longer than 255 UTF-16 units"));
    }
    c.length = static_cast<uint32_t>(bytes / 2);
    c.hash = exfat_name_hash(f_.upcase().data(), static_cast<uint8_t>(c.length), c.units);
    std::u16string key(c.length, u'\0');
    for (uint32_t i = 0; i < c.length; i++)
      key[i] = static_cast<char16_t>(f_.upcase()[c.units[i]]);
    if (!keys.insert(key).second) {
      closedir(d);
      return fail(e, EEXIST, full + ": another name in its directory differs only in case");
    }
    children->push_back(c);
  }
  closedir(d);
  if (error) {
    errno = error;
    return fail_errno(e, path);
  }
  return true;
}

bool TreeWriter::dir_clusters(const std::string& path, const std::vector<Child>& children,
                              uint64_t prefix, uint32_t* clusters, MkfsError* e) {
  uint64_t bytes = prefix;
  for (const Child& c : children)
    bytes += uint64_t{c.entries()} * EXFAT_ENTRY_SIZE;
  if (bytes > EXFAT_MAX_DIR_SIZE)
    return fail(e, EFBIG, path + ": too many names for one exFAT directory (256 MiB of entries)");
  *clusters = std::max<uint32_t>(1, f_.layout().clusters_for(bytes));
  return true;
}

bool TreeWriter::copy_file(const std::string& path, uint64_t size, uint32_t first,
                           MkfsError* e) {
  int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0)
    return fail_errno(e, path);
  std::vector<uint8_t>& buf = f_.copy_buffer();
  uint64_t at = f_.layout().cluster_offset(first);
  uint64_t done = 0;
  bool ok = true;
  while (ok && done < size) {
    size_t want = static_cast<size_t>(std::min<uint64_t>(buf.size(), size - done));
    ssize_t n = read(fd, buf.data(), want);
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0)
      ok = fail_errno(e, path);
    else if (n == 0)
      ok = fail(e, EIO, path + ": the file shrank while it was copied");
    else
      ok = f_.write_at(at + done, buf.data(), static_cast<size_t>(n), e);
    done += n > 0 ? static_cast<uint64_t>(n) : 0;
  }
  close(fd);
  return ok;
}

bool TreeWriter::subdirectory(const std::string& path, uint32_t* first, uint32_t* clusters,
                              MkfsError* e) {
  std::vector<Child> children;
  if (!list(path, &children, e) || !dir_clusters(path, children, 0, clusters, e) ||
      !f_.allocate(*clusters, first, e, path))
    return false;
  const MkfsLayout& l = f_.layout();
  DirWriter dir(f_, l.cluster_offset(*first), uint64_t{*clusters} * l.cluster_bytes());
  f_.result().directories++;
  return fill(path, children, dir, e) && dir.finish(e);
}

bool TreeWriter::child_data(const std::string& path, const Child& c, uint32_t* first,
                            uint64_t* length, uint32_t* clusters, MkfsError* e) {
  const MkfsLayout& l = f_.layout();
  if (S_ISDIR(c.st.stx_mode)) {
    if (!subdirectory(path, first, clusters, e))
      return false;
    *length = uint64_t{*clusters} * l.cluster_bytes();
    return true;
  }
  f_.result().files++;
  if (S_ISLNK(c.st.stx_mode)) {
    char target[kLinkMaxTarget + 1];
    ssize_t n = readlink(path.c_str(), target, sizeof(target));
    if (n < 0)
      return fail_errno(e, path);
    if (static_cast<size_t>(n) > kLinkMaxTarget)
      return fail(e, ENAMETOOLONG, path + ": a link target holds at most 1024 bytes");
    std::vector<uint8_t> data = link_contents(std::string(target, static_cast<size_t>(n)));
    *length = data.size();
    *clusters = l.clusters_for(data.size());
    return f_.allocate(*clusters, first, e, path) &&
           f_.write_at(l.cluster_offset(*first), data.data(), data.size(), e);
  }
  *length = c.st.stx_size;
  *clusters = l.clusters_for(*length);
  *first = 0;
  if (*clusters == 0)
    return true;
  f_.result().bytes += *length;
  return f_.allocate(*clusters, first, e, path) && copy_file(path, *length, *first, e);
}

// Fills set_ for a child: the driver's own set layout, then the times and
// allocation taken from the host.
void TreeWriter::build_set(const Child& c, uint32_t first, uint64_t length, uint32_t clusters) {
  const int32_t west = f_.options().seconds_west;
  bool dir = S_ISDIR(c.st.stx_mode);
  uint16_t attributes = dir ? EXFAT_ATTR_DIRECTORY : EXFAT_ATTR_ARCHIVE;
  if (c.name[0] == '.')
    attributes |= EXFAT_ATTR_HIDDEN;  // as the driver marks new dot names
  if (S_ISREG(c.st.stx_mode) && !(c.st.stx_mode & S_IWUSR))
    attributes |= EXFAT_ATTR_READ_ONLY;
  exfat_file_set_init(set_, c.units, c.length, c.hash, attributes, west);

  auto* fe = reinterpret_cast<struct exfat_file_entry*>(set_);
  auto ts = [](const struct statx_timestamp& t) {
    return timespec{static_cast<time_t>(t.tv_sec), static_cast<long>(t.tv_nsec)};
  };
  timespec modified = ts(c.st.stx_mtime), accessed = ts(c.st.stx_atime);
  timespec birth = (c.st.stx_mask & STATX_BTIME) ? ts(c.st.stx_btime) : modified;
  uint32_t stamp = 0;
  exfat_timestamp_from_unix(&stamp, &fe->Create10msIncrement, &fe->CreateUtcOffset, &birth, west);
  le32enc(fe->CreateTimestamp, stamp);
  exfat_timestamp_from_unix(&stamp, &fe->LastModified10msIncrement, &fe->LastModifiedUtcOffset,
                            &modified, west);
  le32enc(fe->LastModifiedTimestamp, stamp);
  exfat_timestamp_from_unix(&stamp, nullptr, &fe->LastAccessedUtcOffset, &accessed, west);
  le32enc(fe->LastAccessedTimestamp, stamp);

  auto* se = reinterpret_cast<struct exfat_stream_entry*>(set_ + EXFAT_SET_STREAM_OFFSET);
  se->GeneralSecondaryFlags = static_cast<uint8_t>(
      EXFAT_SECONDARY_ALLOCATION_POSSIBLE | (clusters ? EXFAT_SECONDARY_NO_FAT_CHAIN : 0));
  le32enc(se->FirstCluster, first);
  le64enc(se->ValidDataLength, length);
  le64enc(se->DataLength, length);
  le16enc(fe->SetChecksum, exfat_checksum_file_set(set_));
}

bool TreeWriter::fill(const std::string& path, std::vector<Child>& children, DirWriter& dir,
                      MkfsError* e) {
  for (const Child& c : children) {
    if (f_.options().cancelled && f_.options().cancelled())
      return fail(e, ECANCELED, "interrupted");
    uint32_t first = 0, clusters = 0;
    uint64_t length = 0;
    if (!child_data(path + "/" + c.name, c, &first, &length, &clusters, e))
      return false;
    build_set(c, first, length, clusters);
    if (!dir.append(set_, size_t{c.entries()} * EXFAT_ENTRY_SIZE, e))
      return false;
  }
  return true;
}

}  // namespace

Formatter::Formatter(int fd, bool regular_file, const MkfsLayout& layout,
                     const MkfsOptions& options)
    : fd_(fd),
      regular_file_(regular_file),
      layout_(layout),
      options_(options),
      upcase_(upcase_mapping()) {
  struct stat st;
  if (fstat(fd, &st) == 0) {
    target_dev_ = st.st_dev;
    target_ino_ = st.st_ino;
  }
}

bool Formatter::allocate(uint32_t count, uint32_t* first, MkfsError* error,
                         const std::string& what) {
  uint64_t end = uint64_t{next_cluster_} + count;
  if (end > uint64_t{layout_.cluster_count} + 2)
    return fail(error, ENOSPC, what + ": no space left on the volume");
  *first = next_cluster_;
  next_cluster_ = static_cast<uint32_t>(end);
  return true;
}

bool Formatter::write_at(uint64_t offset, const void* data, size_t length, MkfsError* error) {
  const uint8_t* p = static_cast<const uint8_t*>(data);
  while (length > 0) {
    ssize_t n = pwrite(fd_, p, length, static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      return fail(error, n < 0 ? errno : EIO,
                  std::string("writing the volume: ") + strerror(n < 0 ? errno : EIO));
    p += n;
    offset += static_cast<uint64_t>(n);
    length -= static_cast<size_t>(n);
  }
  return true;
}

// An image file gets a hole (cheap, and keeps it sparse); a device or a
// file system without holes gets zeros written.
bool Formatter::zero(uint64_t offset, uint64_t length, MkfsError* error) {
  if (length == 0)
    return true;
  if (regular_file_ && fallocate(fd_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE,
                                 static_cast<off_t>(offset), static_cast<off_t>(length)) == 0)
    return true;
  std::vector<uint8_t> zeros(static_cast<size_t>(std::min<uint64_t>(length, kDirBuffer)), 0);
  for (uint64_t at = 0; at < length; at += zeros.size()) {
    size_t n = static_cast<size_t>(std::min<uint64_t>(zeros.size(), length - at));
    if (!write_at(offset + at, zeros.data(), n, error))
      return false;
  }
  return true;
}

bool Formatter::populate_root(const std::vector<uint8_t>& system_entries, uint32_t* root_first,
                              uint32_t* root_clusters, MkfsError* error) {
  TreeWriter tree(*this);
  std::vector<Child> children;
  if (!options_.from.empty()) {
    if (!tree.list(options_.from, &children, error))
      return false;
    copy_buffer_.resize(kCopyBuffer);
  }
  if (!tree.dir_clusters(options_.from, children, system_entries.size(), root_clusters, error) ||
      !allocate(*root_clusters, root_first, error, "the root directory"))
    return false;
  DirWriter root(*this, layout_.cluster_offset(*root_first),
                 uint64_t{*root_clusters} * layout_.cluster_bytes());
  return root.append(system_entries.data(), system_entries.size(), error) &&
         tree.fill(options_.from, children, root, error) && root.finish(error);
}

DirWriter::DirWriter(Formatter& f, uint64_t offset, uint64_t capacity)
    : f_(f), offset_(offset), end_(offset + capacity) {
  buffer_.reserve(kDirBuffer);
}

bool DirWriter::flush(MkfsError* error) {
  if (buffer_.empty())
    return true;
  if (!f_.write_at(offset_, buffer_.data(), buffer_.size(), error))
    return false;
  offset_ += buffer_.size();
  buffer_.clear();
  return true;
}

bool DirWriter::append(const uint8_t* entries, size_t length, MkfsError* error) {
  if (buffer_.size() + length > kDirBuffer && !flush(error))
    return false;
  buffer_.insert(buffer_.end(), entries, entries + length);
  return true;
}

// Zeroes what the entries left of the directory: an unused entry there
// (type 0) ends the directory.
bool DirWriter::finish(MkfsError* error) {
  if (!flush(error) || !f_.zero(offset_, end_ - offset_, error))
    return false;
  offset_ = end_;
  return true;
}

}  // namespace exvol::detail
