#include "tests/model/model.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <sstream>

#include "tests/model/names.h"

namespace exvol::model {

namespace {

constexpr int kMaxLinks = 32;           // links followed on one path
constexpr size_t kPathMax = 4096;       // bytes
constexpr size_t kComponentMax = 1023;  // bytes
constexpr size_t kNameUnits = 255;      // UTF-16 units of a name
constexpr size_t kLabelUnits = 11;
constexpr size_t kLinkMax = 1024;  // bytes of a link target
constexpr uint64_t kLinkFileBytes = 1067;
constexpr int64_t k1980 = 315532800;  // 1980-01-01 00:00:00 UTC
constexpr uint32_t kSettableFlags =
    kFlagImmutable | kFlagHidden | kFlagArchived | kFlagSystemImmutable;

uint64_t clusters(uint64_t bytes, uint32_t cluster) {
  return (bytes + cluster - 1) / cluster;
}

std::string expected(const Op& op, int want, int got) {
  if (want == got)
    return "";
  return describe(op) + ": expected " + errno_name(want) + ", got " + errno_name(got);
}

std::string differs(const Op& op, const std::string& what) {
  return describe(op) + ": " + what;
}

bool is_dot(const std::string& name) {
  return name == "." || name == "..";
}

std::string show(const timespec& t) {
  return std::to_string(t.tv_sec) + "." + std::to_string(t.tv_nsec);
}

bool same(const timespec& a, const timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// Tolerance: a request that needs clusters may fail with ENOSPC when the
// volume had fewer free clusters than it needs. The model does not count
// directory clusters, so `needed` is an upper bound on what the operation
// could have asked for; with at least that many free, ENOSPC is a fault.
bool space_ran_out(uint64_t needed, const Env& env) {
  return needed > env.free_clusters;
}

}  // namespace

namespace {

// Every KnownFault bit; empty while none is open.
constexpr std::array<uint32_t, 0> kAllKnownFaults{};

}  // namespace

// EXVOL_MODEL_STRICT=1 tolerates none; a comma-separated list of names
// stops tolerating just those.
uint32_t known_faults_tolerated() {
  uint32_t all = 0;
  for (uint32_t f : kAllKnownFaults)
    all |= f;
  const char* strict = getenv("EXVOL_MODEL_STRICT");
  if (strict == nullptr || *strict == '\0')
    return all;
  if (std::string(strict) == "1")
    return 0;
  std::string list = std::string(",") + strict + ",";
  for (uint32_t f : kAllKnownFaults) {
    if (list.find("," + std::string(known_fault_name(f)) + ",") != std::string::npos)
      all &= ~f;
  }
  return all;
}

const char* known_fault_name(uint32_t fault) {
  (void)fault;  // one case per KnownFault bit
  return "?";
}

std::string errno_name(int err) {
  if (err == 0)
    return "success";
  const char* name = strerrorname_np(err);
  return name != nullptr ? name : "errno " + std::to_string(err);
}

timespec stored_10ms(timespec t) {
  if (t.tv_sec < k1980)
    t.tv_sec = k1980;
  t.tv_nsec -= t.tv_nsec % 10000000;
  return t;
}

timespec stored_2s(timespec t) {
  if (t.tv_sec < k1980)
    t.tv_sec = k1980;
  t.tv_sec -= (t.tv_sec - k1980) % 2;
  t.tv_nsec = 0;
  return t;
}

// --- Content -----------------------------------------------------------------------

void Content::write(uint64_t offset, const uint8_t* data, size_t length) {
  if (length == 0)
    return;
  uint64_t end = offset + length;
  auto it = extents_.upper_bound(offset);
  if (it != extents_.begin()) {
    auto prev = std::prev(it);
    if (prev->first + prev->second.size() >= offset)
      it = prev;  // overlaps or touches: merged below
  }
  uint64_t start = offset;
  std::vector<uint8_t> merged;
  std::vector<uint8_t> tail;
  while (it != extents_.end() && it->first <= end) {
    uint64_t s = it->first;
    const std::vector<uint8_t>& v = it->second;
    if (s < start) {
      start = s;
      merged.assign(v.begin(), v.begin() + static_cast<long>(offset - s));
    }
    if (s + v.size() > end)
      tail.assign(v.begin() + static_cast<long>(end - s), v.end());
    it = extents_.erase(it);
  }
  merged.insert(merged.end(), data, data + length);
  merged.insert(merged.end(), tail.begin(), tail.end());
  extents_[start] = std::move(merged);
}

void Content::cut(uint64_t size) {
  auto it = extents_.lower_bound(size);
  extents_.erase(it, extents_.end());
  if (!extents_.empty()) {
    auto last = std::prev(extents_.end());
    if (last->first + last->second.size() > size)
      last->second.resize(size - last->first);
  }
}

std::vector<uint8_t> Content::read(uint64_t offset, size_t length) const {
  std::vector<uint8_t> out(length, 0);
  uint64_t end = offset + length;
  auto it = extents_.upper_bound(offset);
  if (it != extents_.begin())
    --it;
  for (; it != extents_.end() && it->first < end; ++it) {
    uint64_t s = std::max(offset, it->first);
    uint64_t e = std::min(end, it->first + it->second.size());
    if (s < e)
      std::copy_n(it->second.begin() + static_cast<long>(s - it->first), e - s,
                  out.begin() + static_cast<long>(s - offset));
  }
  return out;
}

uint64_t Content::stored() const {
  uint64_t n = 0;
  for (const auto& [offset, bytes] : extents_)
    n += bytes.size();
  return n;
}

// --- The tree ----------------------------------------------------------------------------

struct Model::Resolved {
  int err = 0;
  std::shared_ptr<Node> dir;   // the last component's directory, when wanted
  std::shared_ptr<Node> node;  // null: the last component is free (create, rename)
  std::string last;
  bool trailing = false;
};

Model::Model(Semantics semantics) : sem_(semantics) {
  root_ = make_node(FileType::Directory, "", nullptr);
  root_->archive.reset();
}

std::shared_ptr<Node> Model::make_node(FileType type, const std::string& name, Node* parent) {
  auto node = std::make_shared<Node>();
  node->id = next_id_++;
  node->type = type;
  node->name = nfc(name);
  node->parent = parent;
  // Hidden follows the first byte of the name as given.
  node->hidden = !name.empty() && name[0] == '.';
  node->archive = type != FileType::Directory;
  if (type == FileType::Symlink)
    node->size = kLinkFileBytes;
  return node;
}

std::string Model::path_of(const Node& node) {
  if (node.parent == nullptr)
    return node.unlinked ? "" : "/";
  std::string path;
  for (const Node* n = &node; n->parent != nullptr; n = n->parent)
    path = "/" + n->name + path;
  return path;
}

// Resolves a path as the volume's path walk does: one component at a time
// from the root, "." and ".." as the directory itself and its parent (the
// root's parent is the root), links replaced by their targets (absolute
// ones from the root) unless they are the last component and not followed.
Model::Resolved Model::namei(const std::string& path, NameOp op, bool follow,
                             bool want_parent) const {
  Resolved r;
  auto fail = [&r](int err) {
    r.err = err;
    return r;
  };
  if (path.empty())
    return fail(ENOENT);
  if (path.size() > kPathMax)
    return fail(ENAMETOOLONG);
  std::shared_ptr<Node> dir = root_;
  std::string rest = path;
  size_t pos = 0;
  int links = 0;
  for (;;) {
    while (pos < rest.size() && rest[pos] == '/')
      pos++;
    if (pos == rest.size()) {
      r.node = dir;
      r.trailing = true;
      return r;
    }
    size_t end = rest.find('/', pos);
    if (end == std::string::npos)
      end = rest.size();
    std::string name = rest.substr(pos, end - pos);
    size_t next = end;
    while (next < rest.size() && rest[next] == '/')
      next++;
    bool last = next == rest.size();
    bool trailing = last && end < rest.size();
    if (name.size() > kComponentMax)
      return fail(ENAMETOOLONG);
    if (!dir->is_dir())
      return fail(ENOTDIR);
    std::shared_ptr<Node> child;
    if (name == ".") {
      child = dir;
    } else if (name == "..") {
      child = dir->parent != nullptr ? dir->parent->shared_from_this() : dir;
    } else {
      if (utf16_units(name) > kNameUnits)
        return fail(ENAMETOOLONG);
      auto it = dir->children.find(fold_key(name));
      if (it == dir->children.end()) {
        if (last && (op == kCreate || op == kRename)) {
          r.dir = dir;
          r.last = name;
          r.trailing = trailing;
          return r;
        }
        return fail(ENOENT);
      }
      child = it->second;
    }
    if (child->type == FileType::Symlink && (!last || follow || trailing)) {
      if (++links > kMaxLinks)
        return fail(ELOOP);
      std::string target = child->target;
      if (target.empty())
        return fail(ENOENT);
      if (!last) {
        target += '/';
        target.append(rest, next, std::string::npos);
      } else if (trailing) {
        target += '/';
      }
      if (target.size() > kPathMax)
        return fail(ENAMETOOLONG);
      if (target[0] == '/')
        dir = root_;
      rest = std::move(target);
      pos = 0;
      continue;
    }
    if (last) {
      if (trailing && !child->is_dir())
        return fail(ENOTDIR);
      if (want_parent)
        r.dir = dir;
      r.node = child;
      r.last = name;
      r.trailing = trailing;
      return r;
    }
    dir = child;
    pos = next;
  }
}

std::shared_ptr<Node> Model::find(const std::string& path, bool follow) const {
  Resolved r = namei(path, kLookup, follow, false);
  return r.err == 0 ? r.node : nullptr;
}

void Model::detach(Node& node) {
  if (node.parent != nullptr) {
    touch_dir(*node.parent);
    node.parent->children.erase(fold_key(node.name));
  }
  node.parent = nullptr;
  node.unlinked = true;
  node.version++;
}

// The volume may stamp a directory whose entries changed; the model
// doesn't say whether it does, and adopts what it finds.
void Model::touch_dir(Node& dir) {
  dir.modified.reset();
  dir.version++;
}

// A write or size change: the modification time and the archive bit are
// the volume's to stamp (at close at the latest).
void Model::modified(Node& node) {
  node.modified.reset();
  node.archive.reset();
  node.version++;
}

bool Model::skipped(const Op& op) const {
  return on_slot(op.kind) && handles_.count(op.slot) == 0;
}

void Model::remounted(bool read_only) {
  for (auto& [slot, h] : handles_)
    h.node->opens--;
  handles_.clear();
  read_only_ = read_only;
  root_->modified.reset();
  root_->accessed.reset();
  root_->birth.reset();
  root_->hidden = false;
}

// --- Checking a node against the volume ---------------------------------------------------

std::string Model::compare_stat(const Node& node, const Stat& st, uint32_t cluster_bytes) const {
  std::ostringstream d;
  if (st.type != node.type)
    d << " type " << static_cast<int>(st.type) << " (expected " << static_cast<int>(node.type)
      << ")";
  bool file = node.type == FileType::Regular;
  // A name has one link; a file removed while open has none, through the
  // library and through a mount alike.
  if (!node.is_dir() && st.nlink != (node.unlinked ? 0u : 1u))
    d << " nlink " << st.nlink << " (expected " << (node.unlinked ? 0 : 1) << ")";
  if (sem_.library) {
    uint32_t type_bits = node.is_dir() ? S_IFDIR : file ? S_IFREG : S_IFLNK;
    if (st.mode != (type_bits | (sem_.mask & 07777)))
      d << " mode " << std::oct << st.mode << std::dec;
    uint32_t flags = node.hidden ? kFlagHidden : 0;
    uint32_t care = kFlagHidden | kFlagImmutable | kFlagArchived;
    if (!node.is_dir()) {
      if (node.readonly)
        flags |= kFlagImmutable;
      if (node.archive.has_value() && !*node.archive)
        flags |= kFlagArchived;
      if (!node.archive.has_value())
        care &= ~kFlagArchived;
    }
    if ((st.flags & care) != flags)
      d << " flags 0x" << std::hex << st.flags << " (expected 0x" << flags << ")" << std::dec;
  } else if (!node.is_dir() && file) {
    bool writable = (st.mode & 0222) != 0;
    if (writable == node.readonly)
      d << " mode " << std::oct << st.mode << std::dec << (node.readonly ? " (read-only)" : "");
  }
  if (file) {
    if (st.size != node.size)
      d << " size " << st.size << " (expected " << node.size << ")";
    uint64_t alloc = clusters(node.size, cluster_bytes) * cluster_bytes;
    if (sem_.library && st.allocated != alloc)
      d << " allocated " << st.allocated << " (expected " << alloc << ")";
  } else if (node.type == FileType::Symlink && st.size != node.target.size()) {
    d << " size " << st.size << " (expected " << node.target.size() << ")";
  }
  if (node.birth && sem_.library && !same(stored_10ms(st.birth), *node.birth))
    d << " birth " << show(st.birth) << " (expected " << show(*node.birth) << ")";
  if (node.modified && !same(stored_10ms(st.modified), *node.modified))
    d << " modified " << show(st.modified) << " (expected " << show(*node.modified) << ")";
  if (node.accessed && !same(st.accessed, *node.accessed))
    d << " accessed " << show(st.accessed) << " (expected " << show(*node.accessed) << ")";
  return d.str();
}

void Model::adopt(Node& node, const Stat& st) {
  if (!node.birth && sem_.library)
    node.birth = stored_10ms(st.birth);
  // A directory's own stamps (its growth, its listing) land when its last
  // reference goes, which the model can't see: only times set on it are
  // checked. So for everything behind a FUSE mount, whose daemon keeps
  // references for the kernel's cache.
  if (node.is_dir() || !sem_.library)
    return;
  if (!node.modified)
    node.modified = stored_10ms(st.modified);
  if (!node.accessed)
    node.accessed = st.accessed;
  if (!node.archive && !node.is_dir())
    node.archive = (st.flags & kFlagArchived) == 0;
}

// --- Operations ---------------------------------------------------------------------------

std::string Model::apply(const Op& op, const Outcome& got, const Env& env) {
  if (on_slot(op.kind))
    return apply_file_op(op, got, env);
  switch (op.kind) {
    case OpKind::Open: return do_open(op, got, env);
    case OpKind::Label: return do_label(op, got, env);
    case OpKind::Sync: return expected(op, 0, got.err);
    case OpKind::Fill:
    case OpKind::Remount: return differs(op, "expanded by the runner, never applied");
    default: return apply_path_op(op, got, env);
  }
}

std::string Model::do_open(const Op& op, const Outcome& got, const Env& env) {
  // Opening into a slot closes what the slot held first.
  if (auto it = handles_.find(op.slot); it != handles_.end()) {
    it->second.node->opens--;
    handles_.erase(it);
  }
  int oflags = static_cast<int>(op.a);
  auto fail = [&](int err) { return expected(op, err, got.err); };
  std::shared_ptr<Node> node;
  bool created = false;
  if (oflags & O_CREAT) {
    // O_EXCL refuses whatever the name is, a link included.
    bool follow = (oflags & (O_EXCL | O_NOFOLLOW)) == 0;
    Resolved r = namei(op.path, kCreate, follow, true);
    if (r.err)
      return fail(r.err);
    if (!r.node) {
      if (r.trailing)
        return fail(EISDIR);
      if (read_only_)
        return fail(EROFS);
      if (got.err == ENOSPC && space_ran_out(1, env))
        return "";
      // Made; an error may still come from the checks of the open below.
      node = make_node(FileType::Regular, r.last, r.dir.get());
      r.dir->children[fold_key(r.last)] = node;
      touch_dir(*r.dir);
      created = true;
    } else if (oflags & O_EXCL) {
      return fail(EEXIST);
    } else if (r.node->is_dir()) {
      return fail(EISDIR);
    } else {
      node = r.node;
    }
  } else {
    Resolved r = namei(op.path, kLookup, (oflags & O_NOFOLLOW) == 0, false);
    if (r.err)
      return fail(r.err);
    node = r.node;
  }
  int access = oflags & O_ACCMODE;
  bool writing = access != O_RDONLY;
  bool truncating = (oflags & O_TRUNC) != 0 && !created;
  if (access == O_ACCMODE)
    return fail(EINVAL);
  // A kernel tests O_DIRECTORY before it refuses to open a link.
  if (node->type == FileType::Symlink && !sem_.library && (oflags & O_DIRECTORY))
    return fail(ENOTDIR);
  if (node->type == FileType::Symlink)
    return fail(ELOOP);
  if ((oflags & O_DIRECTORY) && !node->is_dir())
    return fail(ENOTDIR);
  if (node->is_dir() && (writing || (oflags & O_TRUNC)))
    return fail(EISDIR);
  if ((writing || truncating) && read_only_)
    return fail(EROFS);
  if ((writing || truncating) && node->readonly)
    return fail(EPERM);
  if (got.err)
    return fail(0);
  if (truncating && node->type == FileType::Regular) {
    node->data.cut(0);
    node->size = 0;
    modified(*node);
  }
  handles_[op.slot] = Handle{node, oflags, 0};
  node->opens++;
  return "";
}

std::string Model::apply_file_op(const Op& op, const Outcome& got, const Env& env) {
  Handle& h = handles_.at(op.slot);
  Node& node = *h.node;
  int access = h.oflags & O_ACCMODE;
  auto fail = [&](int err) { return expected(op, err, got.err); };
  switch (op.kind) {
    case OpKind::Close: {
      std::shared_ptr<Node> keep = h.node;
      keep->opens--;
      handles_.erase(op.slot);
      return fail(0);
    }
    case OpKind::Read: return do_read(op, got);
    case OpKind::Write: return do_write(op, got, env);
    case OpKind::Seek: {
      int64_t base = 0;
      if (op.a == SEEK_CUR)
        base = h.offset;
      else if (op.a == SEEK_END)
        base = node.is_dir() ? -1 : static_cast<int64_t>(node.size);
      else if (op.a != SEEK_SET)
        return fail(EINVAL);
      if (base < 0) {  // a directory's size is the volume's business
        if (got.err == 0)
          h.offset = got.position;
        return got.err == 0 || got.err == EINVAL ? "" : fail(0);
      }
      if (base + op.b < 0)
        return fail(EINVAL);
      if (std::string e = fail(0); !e.empty())
        return e;
      h.offset = base + op.b;
      if (got.position != h.offset)
        return differs(op, "position " + std::to_string(got.position) + ", expected " +
                               std::to_string(h.offset));
      return "";
    }
    case OpKind::FTruncate:
      if (access == O_RDONLY)
        return fail(EINVAL);
      if (op.b < 0)
        return fail(EINVAL);
      if (node.is_dir())
        return fail(EISDIR);
      if (read_only_)
        return fail(EROFS);
      if (node.readonly)
        return fail(EPERM);
      return do_resize(h.node, op, got, env);
    case OpKind::Fsync: return fail(0);
    case OpKind::FStat: {
      if (std::string e = fail(0); !e.empty())
        return e;
      std::string d = compare_stat(node, got.st, env.cluster_bytes);
      return d.empty() ? "" : differs(op, "stat differs:" + d);
    }
    case OpKind::FUtimes: return do_times(h.node, op, got);
    case OpKind::FChflags: return do_flags(h.node, op, got);
    default: return differs(op, "not a file operation");
  }
}

std::string Model::do_read(const Op& op, const Outcome& got) {
  Handle& h = handles_.at(op.slot);
  Node& node = *h.node;
  int access = h.oflags & O_ACCMODE;
  auto fail = [&](int err) { return expected(op, err, got.err); };
  if (access == O_WRONLY)
    return fail(EBADF);
  if (node.is_dir())
    return fail(EISDIR);
  if (std::string e = fail(0); !e.empty())
    return e;
  uint64_t offset = op.b < 0 ? static_cast<uint64_t>(h.offset) : static_cast<uint64_t>(op.b);
  uint64_t n = offset < node.size ? std::min<uint64_t>(op.a, node.size - offset) : 0;
  if (got.done != n)
    return differs(op, "read " + std::to_string(got.done) + " bytes, expected " +
                           std::to_string(n) + " (size " + std::to_string(node.size) + ")");
  std::vector<uint8_t> want = node.data.read(offset, n);
  if (got.data != want) {
    size_t i = 0;
    while (i < n && got.data[i] == want[i])
      i++;
    return differs(op, "bytes differ from file offset " + std::to_string(offset + i) + ": got " +
                           std::to_string(got.data[i]) + ", expected " + std::to_string(want[i]));
  }
  if (op.b < 0)
    h.offset = static_cast<int64_t>(offset + n);
  if (n > 0 && !sem_.noatime && !read_only_)
    node.accessed.reset();
  return "";
}

std::string Model::do_write(const Op& op, const Outcome& got, const Env& env) {
  Handle& h = handles_.at(op.slot);
  Node& node = *h.node;
  int access = h.oflags & O_ACCMODE;
  auto fail = [&](int err) { return expected(op, err, got.err); };
  if (access == O_RDONLY)
    return fail(EBADF);
  if (node.is_dir())
    return fail(EISDIR);
  if (read_only_)
    return fail(EROFS);
  uint64_t length = op.a;
  if (length == 0)
    return fail(0);
  // A kernel checks the range asked for, even when O_APPEND moves it.
  if (!sem_.library && op.b >= 0 &&
      static_cast<uint64_t>(op.b) + length > static_cast<uint64_t>(INT64_MAX))
    return fail(EINVAL);
  bool append = (h.oflags & O_APPEND) != 0;
  uint64_t offset = append     ? node.size
                    : op.b < 0 ? static_cast<uint64_t>(h.offset)
                               : static_cast<uint64_t>(op.b);
  // An end past the largest offset: the driver says EFBIG, a kernel
  // refuses the range itself.
  if (offset + length > static_cast<uint64_t>(std::numeric_limits<int64_t>::max()))
    return fail(sem_.library ? EFBIG : EINVAL);
  uint64_t end = offset + length;
  bool whole = got.err == 0 && got.done == length;
  if (!whole) {
    // Tolerance: out of space. A write that found some clusters writes
    // what fits and succeeds short; one that wrote nothing fails with
    // ENOSPC. Either is a fault when the free clusters covered it.
    if (got.err != 0 && got.err != ENOSPC)
      return fail(0);
    if (got.err == ENOSPC && got.done > 0)
      return differs(op, "ENOSPC after " + std::to_string(got.done) +
                             " bytes were written: a short write succeeds");
    if (got.done > length)
      return differs(op, "wrote more than asked");
    uint64_t needed = clusters(std::max(end, node.size), env.cluster_bytes) -
                      clusters(node.size, env.cluster_bytes);
    if (!space_ran_out(needed, env))
      return differs(op, (got.err ? "ENOSPC" : "short write of " + std::to_string(got.done)) +
                             " with " + std::to_string(env.free_clusters) + " clusters free for " +
                             std::to_string(needed) + " needed");
  }
  std::vector<uint8_t> bytes = op_bytes(op.seed, got.done);
  node.data.write(offset, bytes.data(), bytes.size());
  uint64_t written_end = offset + got.done;
  uint64_t size = got.done > 0 ? std::max(node.size, written_end) : node.size;
  if (!whole) {
    // Tolerance: the clusters found stay allocated and the size covers
    // them, so the file may have grown past what was written (the bytes
    // there read as zeros), but never past the end asked for.
    if (got.after_err != 0)
      return differs(op, "stat after running out of space: " + errno_name(got.after_err));
    uint64_t upper = std::max(node.size, end);
    if (got.after.size < size || got.after.size > upper)
      return differs(op, "size " + std::to_string(got.after.size) +
                             " after running out of space, "
                             "expected " +
                             std::to_string(size) + " to " + std::to_string(upper));
    size = got.after.size;
  }
  node.size = size;
  if (op.b < 0 && got.done > 0)
    h.offset = static_cast<int64_t>(written_end);
  // A write that ran out of space may still have grown the file.
  if (got.done > 0 || !whole)
    modified(node);
  if (got.after_err == 0 && got.after.size != node.size)
    return differs(op, "size " + std::to_string(got.after.size) + " after the write, expected " +
                           std::to_string(node.size));
  return "";
}

std::string Model::do_resize(const std::shared_ptr<Node>& node, const Op& op, const Outcome& got,
                             const Env& env) {
  uint64_t want = static_cast<uint64_t>(op.b);
  if (got.err == ENOSPC) {
    // Tolerance: growth beyond the free clusters fails at once, nothing
    // changed.
    uint64_t needed = want > node->size ? clusters(want, env.cluster_bytes) -
                                              clusters(node->size, env.cluster_bytes)
                                        : 0;
    if (space_ran_out(needed, env))
      return "";
  }
  if (got.err)
    return expected(op, 0, got.err);
  if (want < node->size)
    node->data.cut(want);
  node->size = want;
  modified(*node);
  if (got.after_err == 0 && got.after.size != want)
    return differs(op, "size " + std::to_string(got.after.size) + " after it");
  return "";
}

std::string Model::apply_path_op(const Op& op, const Outcome& got, const Env& env) {
  auto fail = [&](int err) { return expected(op, err, got.err); };
  switch (op.kind) {
    case OpKind::Stat: {
      Resolved r = namei(op.path, kLookup, op.a != 1, false);
      if (r.err)
        return fail(r.err);
      if (std::string e = fail(0); !e.empty())
        return e;
      std::string d = compare_stat(*r.node, got.st, env.cluster_bytes);
      return d.empty() ? "" : differs(op, "stat differs:" + d);
    }
    case OpKind::Truncate: {
      if (op.b < 0)
        return fail(EINVAL);
      Resolved r = namei(op.path, kLookup, true, false);
      if (r.err)
        return fail(r.err);
      if (r.node->is_dir())
        return fail(EISDIR);
      if (read_only_)
        return fail(EROFS);
      if (r.node->readonly)
        return fail(EPERM);
      return do_resize(r.node, op, got, env);
    }
    case OpKind::Unlink:
    case OpKind::Rmdir: return do_remove(op, got);
    case OpKind::Mkdir:
    case OpKind::Symlink: return do_make(op, got, env);
    case OpKind::Rename: return do_rename(op, got, env);
    case OpKind::Readlink: {
      Resolved r = namei(op.path, kLookup, false, false);
      if (r.err)
        return fail(r.err);
      if (r.node->type != FileType::Symlink)
        return fail(EINVAL);
      if (std::string e = fail(0); !e.empty())
        return e;
      return got.text == r.node->target ? "" : differs(op, "target \"" + got.text + "\"");
    }
    case OpKind::Utimes:
    case OpKind::Chflags: {
      // A kernel answers a change of no time at all before it looks.
      if (op.kind == OpKind::Utimes && !sem_.library && (op.seed & 7) == 0)
        return fail(0);
      Resolved r = namei(op.path, kLookup, (op.seed & kNoFollow) == 0, false);
      if (r.err)
        return fail(r.err);
      return op.kind == OpKind::Utimes ? do_times(r.node, op, got) : do_flags(r.node, op, got);
    }
    case OpKind::List: return do_list(op, got);
    default: return differs(op, "not a path operation");
  }
}

std::string Model::do_make(const Op& op, const Outcome& got, const Env& env) {
  auto fail = [&](int err) { return expected(op, err, got.err); };
  bool link = op.kind == OpKind::Symlink;
  if (link && op.path2.empty())
    return fail(ENOENT);
  Resolved r = namei(op.path, kCreate, false, true);
  if (r.err)
    return fail(r.err);
  if (r.node)
    return fail(EEXIST);
  if (r.trailing && link)
    return fail(ENOENT);
  if (read_only_)
    return fail(EROFS);
  if (link && op.path2.size() > kLinkMax)
    return fail(ENAMETOOLONG);
  // Tolerance: a new entry may need a new directory cluster, a directory
  // its first cluster, a link the clusters of its 1067 bytes.
  uint64_t needed = 1 + (link ? clusters(kLinkFileBytes, env.cluster_bytes) : 1);
  if (got.err == ENOSPC && space_ran_out(needed, env))
    return "";
  if (got.err)
    return fail(0);
  auto node = make_node(link ? FileType::Symlink : FileType::Directory, r.last, r.dir.get());
  node->target = op.path2;
  r.dir->children[fold_key(r.last)] = node;
  touch_dir(*r.dir);
  return "";
}

std::string Model::do_remove(const Op& op, const Outcome& got) {
  auto fail = [&](int err) { return expected(op, err, got.err); };
  Resolved r = namei(op.path, kDelete, false, true);
  if (r.err)
    return fail(r.err);
  if (op.kind == OpKind::Unlink) {
    if (!r.dir || r.node->is_dir())
      return fail(EISDIR);
    if (read_only_)
      return fail(EROFS);
    if (r.node->readonly)
      return fail(EPERM);
  } else {
    if (!r.dir)
      return fail(EBUSY);
    if (r.last == ".")
      return fail(EINVAL);
    if (r.last == "..")
      return fail(ENOTEMPTY);
    if (!r.node->is_dir())
      return fail(ENOTDIR);
    if (read_only_)
      return fail(EROFS);
    if (!r.node->children.empty())
      return fail(ENOTEMPTY);
  }
  if (got.err)
    return fail(0);
  detach(*r.node);
  return "";
}

std::string Model::do_rename(const Op& op, const Outcome& got, const Env& env) {
  auto fail = [&](int err) { return expected(op, err, got.err); };
  if (op.a & ~uint64_t{kRenameNoReplace})
    return fail(EINVAL);
  Resolved f = namei(op.path, kDelete, false, true);
  if (f.err)
    return fail(f.err);
  if (!f.dir)
    return fail(EBUSY);
  if (is_dot(f.last))
    return fail(EINVAL);
  Resolved t = namei(op.path2, kRename, false, true);
  if (t.err)
    return fail(t.err);
  if (!t.dir)
    return fail(EBUSY);
  if (is_dot(t.last))
    return fail(EINVAL);
  if (read_only_)
    return fail(EROFS);
  std::shared_ptr<Node> from = f.node;
  std::shared_ptr<Node> victim = t.node;
  if (!sem_.library) {
    // A kernel's order: an existing target, then the two names' places
    // in the tree, then their types.
    if (victim && (op.a & kRenameNoReplace))
      return fail(EEXIST);
    if (t.trailing && !from->is_dir())
      return fail(ENOTDIR);
    for (const Node* d = t.dir.get(); d != nullptr; d = d->parent)
      if (d == from.get())
        return fail(EINVAL);
    for (const Node* d = f.dir.get(); victim && d != nullptr; d = d->parent)
      if (d == victim.get())
        return fail(ENOTEMPTY);
  }
  if (t.trailing && !from->is_dir())
    return fail(ENOTDIR);
  if (from == t.dir)
    return fail(EINVAL);
  if (victim == from && !sem_.library && (op.a & kRenameNoReplace))
    return fail(EEXIST);  // a kernel refuses any existing target first
  if (victim == from) {
    // One node under two names: the same bytes change nothing; another
    // case of the name renames it (through a FUSE mount the kernel sees
    // one file and does nothing).
    if ((f.dir == t.dir && f.last == t.last) || !sem_.library)
      return fail(0);
    victim = nullptr;
  } else if (victim) {
    if (op.a & kRenameNoReplace)
      return fail(EEXIST);
    if (from->is_dir() && !victim->is_dir())
      return fail(ENOTDIR);
    if (!from->is_dir() && victim->is_dir())
      return fail(EISDIR);
    if (victim == f.dir)
      return fail(ENOTEMPTY);
    if (victim->readonly)
      return fail(EPERM);
  }
  if (from->readonly)
    return fail(EPERM);
  if (from->is_dir() && f.dir != t.dir) {
    for (const Node* d = t.dir.get(); d != nullptr; d = d->parent) {
      if (d == from.get())
        return fail(EINVAL);
    }
  }
  // Tolerance: the new entry set may need a new directory cluster.
  if (got.err == ENOSPC && space_ran_out(1, env))
    return "";
  if (victim && victim->is_dir() && !victim->children.empty())
    return fail(ENOTEMPTY);
  if (got.err)
    return fail(0);
  if (victim)
    detach(*victim);
  f.dir->children.erase(fold_key(from->name));
  touch_dir(*f.dir);
  from->name = nfc(t.last);
  from->hidden = !t.last.empty() && t.last[0] == '.';
  from->parent = t.dir.get();
  from->version++;
  t.dir->children[fold_key(t.last)] = from;
  touch_dir(*t.dir);
  return "";
}

std::string Model::do_times(const std::shared_ptr<Node>& node, const Op& op, const Outcome& got) {
  auto fail = [&](int err) { return expected(op, err, got.err); };
  uint32_t which = op.seed & (kTimeAccess | kTimeModify | kTimeBirth);
  if (which != 0 && op.a >= 1000000000)
    return fail(EINVAL);
  if (read_only_)
    return fail(EROFS);
  if (std::string e = fail(0); !e.empty() || which == 0)
    return e;
  timespec t{static_cast<time_t>(op.b), static_cast<long>(op.a)};
  if (which & kTimeBirth)
    node->birth = stored_10ms(t);
  if (which & kTimeModify)
    node->modified = stored_10ms(t);
  if (which & kTimeAccess)
    node->accessed = stored_2s(t);
  if (!node->is_dir())
    node->archive = true;
  node->version++;
  return "";
}

std::string Model::do_flags(const std::shared_ptr<Node>& node, const Op& op, const Outcome& got) {
  uint64_t flags = op.a;
  auto fail = [&](int err) { return expected(op, err, got.err); };
  bool immutable = (flags & (kFlagImmutable | kFlagSystemImmutable)) != 0;
  if (read_only_)
    return fail(EROFS);
  if (flags & ~uint64_t{kSettableFlags})
    return fail(EINVAL);
  if (!sem_.library && node->is_dir() && immutable)
    return fail(EPERM);  // chmod can't take a directory's write bits
  if (std::string e = fail(0); !e.empty())
    return e;
  if (!sem_.library) {
    // Through FUSE: chmod, which keeps only the ReadOnly attribute.
    if (node->type == FileType::Regular)
      node->readonly = immutable;
    return "";
  }
  if (!node->is_dir()) {
    // Tolerance: a modification stamp still pending sets Archive again
    // when it is taken (at the next close), so after a write the bit
    // stays the volume's to report.
    bool pending = !node->archive.has_value() && node->opens > 0;
    node->archive = pending ? std::nullopt : std::optional<bool>((flags & kFlagArchived) == 0);
    node->readonly = immutable;
  }
  node->hidden = (flags & kFlagHidden) != 0;
  node->version++;
  return "";
}

std::string Model::do_list(const Op& op, const Outcome& got) {
  auto fail = [&](int err) { return expected(op, err, got.err); };
  Resolved r = namei(op.path, kLookup, true, false);
  if (r.err)
    return fail(r.err);
  if (!r.node->is_dir())
    return fail(ENOTDIR);
  if (std::string e = fail(0); !e.empty())
    return e;
  // Names are listed composed, as the volume holds them.
  std::vector<std::pair<std::string, int>> want, have;
  for (const auto& [key, child] : r.node->children)
    want.emplace_back(child->name, static_cast<int>(child->type));
  for (const Listed& l : got.listing)
    have.emplace_back(l.name, static_cast<int>(l.type));
  std::sort(want.begin(), want.end());
  std::sort(have.begin(), have.end());
  if (want == have)
    return "";
  std::string d = "listing differs: got";
  for (const auto& [name, type] : have)
    d += " \"" + name + "\"/" + std::to_string(type);
  d += "; expected";
  for (const auto& [name, type] : want)
    d += " \"" + name + "\"/" + std::to_string(type);
  return differs(op, d);
}

std::string Model::do_label(const Op& op, const Outcome& got, const Env& env) {
  auto fail = [&](int err) { return expected(op, err, got.err); };
  if (read_only_)
    return fail(EROFS);
  if (utf16_units(op.path2) > kLabelUnits)
    return fail(ENAMETOOLONG);
  // Tolerance: a first label entry may need a new root directory cluster.
  if (got.err == ENOSPC && label_.empty() && space_ran_out(1, env))
    return "";
  if (got.err)
    return fail(0);
  label_ = nfc(op.path2);
  return "";
}

}  // namespace exvol::model
