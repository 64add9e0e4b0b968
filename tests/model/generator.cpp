#include "tests/model/generator.h"

#include <fcntl.h>

#include <limits>

#include "tests/model/names.h"

namespace exvol::model {

namespace {

// Short names that collide under case folding, Latin-1 letters whose
// stored (NFC) and listed (NFD) forms differ, a leading dot (Hidden).
const char* const kBases[] = {"a",
                              "b",
                              "c",
                              "ab",
                              "Abc",
                              "file",
                              "x.txt",
                              "data.bin",
                              "\xc3\xa9",
                              "\xc3\xbc"
                              "ber",
                              "\xc3\x87"
                              "a",
                              "na\xc3\xaf"
                              "ve",
                              "r\xc3\xa9sum\xc3\xa9",
                              "z9",
                              ".hid"};
const char* const kLabels[] = {"",
                               "VOL",
                               "Donn\xc3\xa9"
                               "es",
                               "\xc3\x89T\xc3\x89",
                               "x",
                               "twelve chars",
                               "ELEVENCHARS"};

// Times the volume can hold (1980-01-02 to 2107-11-30).
constexpr int64_t kEarliest = 315619200;
constexpr int64_t kLatest = 4352486400;

struct Weight {
  OpKind kind;
  int library;  // weight with libexvol
  int posix;    // weight through a FUSE mount
};

const Weight kWeights[] = {
    {OpKind::Open, 10, 10},   {OpKind::Close, 5, 5},   {OpKind::Read, 9, 9},
    {OpKind::Write, 16, 16},  {OpKind::Seek, 1, 1},    {OpKind::FTruncate, 3, 3},
    {OpKind::Fsync, 2, 2},    {OpKind::FStat, 4, 4},   {OpKind::FUtimes, 2, 2},
    {OpKind::FChflags, 1, 1}, {OpKind::Stat, 6, 6},    {OpKind::Truncate, 3, 3},
    {OpKind::Unlink, 5, 5},   {OpKind::Mkdir, 6, 6},   {OpKind::Rmdir, 3, 3},
    {OpKind::Rename, 9, 9},   {OpKind::Symlink, 3, 3}, {OpKind::Readlink, 2, 2},
    {OpKind::Utimes, 3, 3},   {OpKind::Chflags, 2, 2}, {OpKind::List, 3, 3},
    {OpKind::Label, 1, 0},    {OpKind::Sync, 2, 1},
};

}  // namespace

Generator::Generator(uint64_t seed, GenParams params) : rng_(seed), p_(std::move(params)) {}

std::string Generator::name() {
  std::string n = kBases[below(std::size(kBases))];
  if (chance(0.03)) {
    // Long names: 15 units fill one name entry, 255 is the limit.
    size_t units = 100 + below(165);
    std::string unit = chance(0.5) ? "\xc3\xa9" : "q";
    n.clear();
    for (size_t i = 0; i < units; i++)
      n += unit;
  }
  if (!p_.name_variants)
    return n;
  if (chance(0.4))
    n = case_variant(n, rng_());
  if (chance(0.15))
    n = nfd(n);
  return n;
}

void Generator::collect(const Model& model) {
  entries_.clear();
  std::vector<Entry> stack = {{"/", &model.root()}};
  while (!stack.empty()) {
    Entry e = stack.back();
    stack.pop_back();
    entries_.push_back(e);
    for (const auto& [key, child] : e.node->children)
      stack.push_back({(e.path == "/" ? "" : e.path) + "/" + child->name, child.get()});
  }
}

Generator::Entry Generator::any_entry() {
  // The root only now and then: most operations on it are refused.
  if (entries_.size() > 1 && (!p_.root_ops || !chance(0.03)))
    return entries_[1 + below(entries_.size() - 1)];
  if (!p_.root_ops)
    return {fresh_path(), nullptr};
  return entries_[0];
}

const Generator::Entry* Generator::pick(FileType type, bool allow_root) {
  std::vector<const Entry*> of;
  for (const Entry& e : entries_)
    if (e.node->type == type && (allow_root || e.node->parent != nullptr))
      of.push_back(&e);
  return of.empty() ? nullptr : of[below(of.size())];
}

std::string Generator::existing(FileType type) {
  const Entry* e = pick(type, p_.root_ops);
  return e != nullptr ? e->path : fresh_path();
}

std::string Generator::fresh_path() {
  const Entry* e = pick(FileType::Directory, true);
  std::string dir = e != nullptr ? e->path : "/";
  if (p_.crowd > 0 && chance(0.5))
    dir = "/crowd";
  if (chance(0.1)) {
    // Through a link, which the walk follows to its directory.
    if (const Entry* link = pick(FileType::Symlink, true))
      dir = link->path;
  }
  return (dir == "/" ? "" : dir) + "/" + name();
}

// The same name written another way: another case, decomposed, with a
// trailing slash, "." or "x/.." inside, doubled slashes.
std::string Generator::variant(const std::string& path) {
  if (!p_.name_variants)
    return path;
  size_t slash = path.rfind('/');
  std::string dir = path.substr(0, slash);
  std::string last = path.substr(slash + 1);
  uint64_t r = below(100);
  if (r < 30)
    return dir + "/" + case_variant(last, rng_());
  if (r < 40)
    return dir + "/" + nfd(last);
  if (!p_.dotdot)
    return path;
  if (r < 45)
    return path + "/";
  if (r < 50)
    return dir + "/./" + last;
  if (r < 55)
    return dir + "/" + name() + "/../" + last;
  if (r < 60)
    return dir + "//" + last;
  return path;
}

std::string Generator::link_target(const std::string& link_path) {
  size_t depth = 0;
  for (size_t i = 1; i < link_path.size(); i++)
    depth += link_path[i] == '/';
  Entry e = any_entry();
  std::string rel = e.path == "/" ? "." : e.path.substr(1);
  uint64_t r = below(100);
  if (!p_.dotdot) {
    // No "..": a link moved up the tree must not point above the root.
    std::string dir = link_path.substr(0, link_path.rfind('/') + 1);
    if (r < 40 && e.path.rfind(dir, 0) == 0 && e.path.size() > dir.size())
      return e.path.substr(dir.size());
    r = 45 + below(55);
  }
  if (r < 30) {
    std::string up;
    for (size_t i = 0; i < depth; i++)
      up += "../";
    return up + rel;
  }
  if (r < 45 && p_.absolute_links)
    return e.path;
  if (r < 60)
    return name();  // a sibling, or dangling
  if (r < 67)
    return link_path.substr(link_path.rfind('/') + 1);  // itself: ELOOP
  if (r < 72)
    return std::string(1000 + below(40), 'a');  // over 1024 bytes: refused
  if (r < 75)
    return "";
  if (r < 80)
    return p_.dotdot ? ".." : ".";
  if (!p_.dotdot || depth == 0)
    return name();
  return "../" + rel.substr(0, rel.find('/'));
}

int Generator::slot(const Model& model, bool occupied) {
  const auto& h = model.handles();
  if (occupied && !h.empty() && !chance(0.03)) {
    auto it = h.begin();
    std::advance(it, static_cast<long>(below(h.size())));
    return it->first;
  }
  return static_cast<int>(below(static_cast<uint64_t>(p_.slots)));
}

int64_t Generator::write_offset(const Node* node) {
  uint64_t size = node != nullptr ? node->size : 0;
  uint64_t c = p_.cluster_bytes;
  uint64_t r = below(100);
  if (r < 30)
    return static_cast<int64_t>(below(size + 1));
  if (r < 50)
    return static_cast<int64_t>(size);
  if (r < 65) {
    uint64_t boundary = (below(size / c + 2) + 1) * c;
    return static_cast<int64_t>(boundary - 1 - below(std::min<uint64_t>(c, 64)));
  }
  if (r < 80)
    return static_cast<int64_t>(size + 1 + below(3 * c));
  if (r < 87)
    return -1;
  if (r < 98)  // far past the end: usually more than the volume holds
    return static_cast<int64_t>(size + p_.volume_bytes / 4 + below(p_.volume_bytes * 4));
  if (r < 99)  // beyond any volume
    return int64_t{1} << (32 + below(30));
  return std::numeric_limits<int64_t>::max() - static_cast<int64_t>(below(64));
}

uint64_t Generator::length() {
  uint64_t r = below(100);
  if (r < 55)
    return 1 + below(2 * p_.cluster_bytes);
  if (r < 80)
    return 1 + below(64 << 10);
  if (r < 95)
    return 1 + below(1 << 20);
  return 1 + below(p_.max_write);
}

timespec Generator::some_time(bool birth) {
  timespec t{};
  t.tv_sec = static_cast<time_t>(kEarliest + static_cast<int64_t>(below(kLatest - kEarliest)));
  if (!birth && chance(0.03))
    t.tv_sec = static_cast<time_t>(below(kEarliest));  // before 1980: held as 1980
  t.tv_nsec = static_cast<long>(below(1000000000));
  return t;
}

Op Generator::open_op(const Model& model) {
  Op op;
  op.kind = OpKind::Open;
  op.slot = slot(model, false);
  uint64_t r = below(100);
  int flags = r < 25 ? O_RDONLY : r < 45 ? O_WRONLY : O_RDWR;
  if (chance(0.55)) {
    flags |= O_CREAT;
    if (chance(0.12))
      flags |= O_EXCL;
  }
  if (chance(0.08))
    flags |= O_TRUNC;
  if (chance(0.1))
    flags |= O_APPEND;
  if (chance(0.05))
    flags |= O_NOFOLLOW;
  if (chance(0.03))
    flags |= O_DIRECTORY;
  if (chance(0.04))
    flags |= O_SYNC;
  r = below(100);
  if (r < 60) {
    const Entry* e = pick(chance(0.85) ? FileType::Regular : FileType::Symlink, false);
    op.path = e != nullptr ? e->path : fresh_path();
  } else if (r < 88) {
    op.path = fresh_path();
  } else {
    op.path = any_entry().path;
    if (chance(0.7))
      flags = O_RDONLY | (chance(0.5) ? O_DIRECTORY : 0);
  }
  if (!p_.library && (flags & O_CREAT))
    flags &= ~O_DIRECTORY;  // a kernel refuses the pair
  if (chance(0.25))
    op.path = variant(op.path);
  op.a = static_cast<uint64_t>(flags);
  return op;
}

Op Generator::file_op(const Model& model, OpKind kind) {
  Op op;
  op.kind = kind;
  op.slot = slot(model, true);
  auto h = model.handles().find(op.slot);
  const Node* node = h != model.handles().end() ? h->second.node.get() : nullptr;
  uint64_t size = node != nullptr ? node->size : 0;
  switch (kind) {
    case OpKind::Read: {
      uint64_t r = below(100);
      op.b = r < 30   ? -1
             : r < 80 ? static_cast<int64_t>(below(size + 1))
             : r < 90 ? static_cast<int64_t>(size + below(p_.cluster_bytes))
                      : static_cast<int64_t>(size);
      op.a = chance(0.9) ? 1 + below(2 * p_.cluster_bytes) : 1 + below(1 << 20);
      break;
    }
    case OpKind::Write:
      op.b = write_offset(node);
      op.a = length();
      op.seed = static_cast<uint32_t>(rng_());
      break;
    case OpKind::Seek:
      op.a = below(3);  // SEEK_SET, SEEK_CUR, SEEK_END
      op.b = static_cast<int64_t>(below(size + p_.cluster_bytes)) - (chance(0.1) ? 10000 : 0);
      // Now and then a whence the library refuses (through a kernel 3 and 4
      // would be SEEK_DATA and SEEK_HOLE). Taken from the offset's bits, not
      // a draw of its own, so that the sequences of the fixed seeds stay
      // as they were.
      if (p_.library && (op.b & 31) == 7)
        op.a = 42;
      break;
    case OpKind::FTruncate: {
      uint64_t r = below(100);
      op.b = r < 15   ? 0
             : r < 45 ? static_cast<int64_t>(below(size + 1))
             : r < 75 ? static_cast<int64_t>(size + below(3 * p_.cluster_bytes))
             : r < 85 ? static_cast<int64_t>(size)
             : r < 95 ? static_cast<int64_t>(size + 2 * p_.volume_bytes)
                      : -1;
      break;
    }
    case OpKind::Fsync: op.a = chance(0.3); break;
    case OpKind::FUtimes: {
      bool birth = p_.library && chance(0.5);
      timespec t = some_time(birth);
      op.b = t.tv_sec;
      op.a = chance(0.03) ? 1000000000 : static_cast<uint64_t>(t.tv_nsec);
      op.seed = (chance(0.6) ? kTimeModify : 0) | (chance(0.5) ? kTimeAccess : 0) |
                (birth ? kTimeBirth : 0);
      break;
    }
    case OpKind::FChflags: {
      uint64_t r = below(100);
      if (!p_.library)
        op.a = r < 30 ? kFlagImmutable : 0;
      else
        op.a = r < 4 ? 0x1
                     : (r < 25 ? kFlagImmutable : 0) | (chance(0.3) ? kFlagHidden : 0) |
                           (chance(0.3) ? kFlagArchived : 0);
      break;
    }
    default: break;
  }
  return op;
}

Op Generator::path_op(const Model& model, OpKind kind) {
  Op op;
  op.kind = kind;
  switch (kind) {
    case OpKind::Stat:
      op.path = chance(0.95) ? any_entry().path : fresh_path();
      op.a = chance(0.3);
      break;
    case OpKind::Truncate:
      op.path = chance(0.8) ? existing(FileType::Regular) : any_entry().path;
      op.b = file_op(model, OpKind::FTruncate).b;
      if (auto n = model.find(op.path))
        op.b = chance(0.5) ? static_cast<int64_t>(below(n->size + 2 * p_.cluster_bytes)) : op.b;
      break;
    case OpKind::Unlink:
      op.path = chance(0.7)   ? existing(chance(0.8) ? FileType::Regular : FileType::Symlink)
                : chance(0.5) ? any_entry().path
                              : fresh_path();
      break;
    case OpKind::Mkdir:
      op.path = chance(0.8) ? fresh_path() : any_entry().path;
      if (p_.dotdot && chance(0.1))
        op.path += "/";
      break;
    case OpKind::Rmdir:
      op.path = chance(0.7)   ? existing(FileType::Directory)
                : chance(0.5) ? any_entry().path
                              : fresh_path();
      break;
    case OpKind::Rename: {
      Entry from = any_entry();
      FileType from_type = from.node != nullptr ? from.node->type : FileType::Regular;
      op.path = from.path;
      uint64_t r = below(100);
      if (r < 25) {
        op.path2 = fresh_path();
      } else if (r < 45) {
        op.path2 = existing(from_type);
      } else if (r < 55) {
        op.path2 = any_entry().path;
      } else if (r < 67 && p_.name_variants) {
        size_t slash = from.path.rfind('/');
        op.path2 =
            from.path.substr(0, slash + 1) + case_variant(from.path.substr(slash + 1), rng_() | 1);
      } else if (r < 72) {
        op.path2 = from.path;
      } else if (r < 80) {
        op.path2 = (from.path == "/" ? "" : from.path) + "/" + name();  // into itself
        for (const Entry& e : entries_)
          if (e.path.rfind(from.path + "/", 0) == 0 && e.node->is_dir() && chance(0.5))
            op.path2 = e.path + "/" + name();
      } else if (r < 90) {
        // Same directory, a name of another length: the set changes shape.
        size_t slash = from.path.rfind('/');
        std::string n(1 + below(chance(0.5) ? 40 : 250), 'r');
        op.path2 = from.path.substr(0, slash + 1) + n;
      } else {
        op.path2 = variant(fresh_path());
      }
      if (chance(0.2))
        op.path = variant(op.path);
      op.a = chance(0.1) ? kRenameNoReplace : chance(0.01) && p_.library ? 0x4 : 0;
      break;
    }
    case OpKind::Symlink:
      op.path = chance(0.85) ? fresh_path() : any_entry().path;
      op.path2 = link_target(op.path);
      break;
    case OpKind::Readlink:
      op.path = chance(0.7) ? existing(FileType::Symlink) : any_entry().path;
      break;
    case OpKind::Utimes:
    case OpKind::Chflags: {
      Op f = file_op(model, kind == OpKind::Utimes ? OpKind::FUtimes : OpKind::FChflags);
      op.path = any_entry().path;
      op.b = f.b;
      op.a = f.a;
      op.seed = f.seed | (chance(0.2) ? kNoFollow : 0);
      if (!p_.library && kind == OpKind::Chflags) {
        // chmod: follows links; only a file keeps the ReadOnly attribute.
        op.path = existing(FileType::Regular);
        op.seed = 0;
      }
      break;
    }
    case OpKind::List:
      op.path = chance(0.85) ? existing(FileType::Directory) : any_entry().path;
      break;
    case OpKind::Label: op.path2 = case_variant(kLabels[below(std::size(kLabels))], rng_()); break;
    case OpKind::Sync: op.a = chance(0.8); break;
    default: break;
  }
  return op;
}

Op Generator::next(const Model& model) {
  collect(model);
  if (crowd_made_ < p_.crowd) {
    Op op;
    op.kind = crowd_made_ < 0 ? OpKind::Mkdir : OpKind::Symlink;
    op.path = crowd_made_ < 0 ? "/crowd" : "/crowd/l" + std::to_string(crowd_made_);
    op.path2 = "t";
    crowd_made_++;
    return op;
  }
  if (p_.remount && (model.read_only() ? chance(0.12) : chance(0.02))) {
    Op op;
    op.kind = OpKind::Remount;
    // Read-only through a kernel would check EROFS in the kernel's order.
    op.a = p_.library && chance(0.15);
    return op;
  }
  if (p_.fill && !model.read_only() && chance(0.006)) {
    Op op;
    op.kind = OpKind::Fill;
    op.path = chance(0.5) ? fresh_path() : existing(FileType::Regular);
    op.a = (64u << 10) << below(5);
    op.seed = static_cast<uint32_t>(rng_());
    return op;
  }
  auto weight = [this](const Weight& w) {
    int n = p_.library ? w.library : w.posix;
    return w.kind == OpKind::Sync || w.kind == OpKind::Fsync ? n * p_.sync_weight : n;
  };
  int total = 0;
  for (const Weight& w : kWeights)
    total += weight(w);
  int r = static_cast<int>(below(static_cast<uint64_t>(total)));
  OpKind kind = OpKind::Sync;
  for (const Weight& w : kWeights) {
    r -= weight(w);
    if (r < 0) {
      kind = w.kind;
      break;
    }
  }
  if (kind == OpKind::Open || (on_slot(kind) && model.handles().empty()))
    return open_op(model);
  return on_slot(kind) ? file_op(model, kind) : path_op(model, kind);
}

}  // namespace exvol::model
