#include "tests/model/runner.h"

#include "exvol/check.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "tests/model/names.h"
#include "tests/support/fsck.h"

namespace exvol::model {

namespace {

constexpr size_t kReadChunk = 1 << 20;

// Peak and current resident memory of this process, in bytes.
uint64_t status_kb(const char* field) {
  std::ifstream f("/proc/self/status");
  std::string line;
  size_t n = strlen(field);
  while (std::getline(f, line)) {
    if (line.compare(0, n, field) == 0)
      return std::stoull(line.substr(n + 1)) * 1024;
  }
  return 0;
}

// Starts the peak (VmHWM) afresh from the current resident size.
bool reset_peak() {
  std::ofstream f("/proc/self/clear_refs");
  f << "5";
  return static_cast<bool>(f);
}

TimeChange times_of(const Op& op) {
  TimeChange t;
  timespec v{static_cast<time_t>(op.b), static_cast<long>(op.a)};
  if (op.seed & kTimeAccess)
    t.accessed = v;
  if (op.seed & kTimeModify)
    t.modified = v;
  if (op.seed & kTimeBirth)
    t.birth = v;
  return t;
}

bool needs_space(OpKind kind) {
  switch (kind) {
    case OpKind::Open:
    case OpKind::Write:
    case OpKind::FTruncate:
    case OpKind::Truncate:
    case OpKind::Mkdir:
    case OpKind::Symlink:
    case OpKind::Rename:
    case OpKind::Label: return true;
    default: return false;
  }
}

std::string join(const std::vector<std::string>& lines) {
  std::string s;
  for (const std::string& l : lines)
    s += "\n    " + l;
  return s;
}

struct timespec image_mtime(const std::string& image) {
  struct stat st {};
  ::stat(image.c_str(), &st);
  return st.st_mtim;
}

}  // namespace

bool plausible_errno(int err) {
  switch (err) {
    case 0:
    case ENOENT:
    case EEXIST:
    case ENOTDIR:
    case EISDIR:
    case ENOTEMPTY:
    case EINVAL:
    case EPERM:
    case EROFS:
    case ENAMETOOLONG:
    case ELOOP:
    case EBADF:
    case EFBIG:
    case ENOSPC:
    case EIO:
    case ENXIO:
    case EAGAIN:
    case EBUSY:
    case EACCES: return true;
    default: return false;
  }
}

bool volume_dirty(const std::string& image) {
  char flags = 0;
  std::ifstream(image, std::ios::binary).seekg(106).read(&flags, 1);
  return (flags & 0x02) != 0;  // VolumeFlags bit 1: VolumeDirty
}

std::vector<std::string> fsck_findings(const std::string& image) {
  std::vector<std::string> findings;
  // fsck.exfat -n reports a volume clean whatever its dirty bit says.
  if (volume_dirty(image))
    findings.push_back("the volume is marked dirty after a clean unmount");
  std::string fsck = test::fsck_program();
  if (fsck.empty())
    return findings;
  test::FsckResult r = test::run_fsck_file(image);
  const std::string& out = r.output;
  // fsck.exfat 1.2.0 misreads an entry set that continues in a cluster not
  // adjacent to its first: such findings are set aside when our own
  // checker finds the volume clean and every finding is about such a set.
  bool misread = r.status == 4 && test::fsck_only_misreads_split_sets(image, out) &&
                 exvol_check_findings(image).empty();
  if (r.status != 0 && !misread)
    findings.push_back("fsck.exfat -n (status " + std::to_string(r.status) + "): " + out);
  return findings;
}

std::vector<std::string> exvol_check_findings(const std::string& image) {
  CheckReport report;
  if (std::error_code ec = check(image, CheckOptions(), &report))
    return {"exvol check: " + ec.message()};
  std::vector<std::string> findings;
  for (const Finding& f : report.first.findings)
    findings.push_back("exvol check: " + f.path + ": " + f.what + ", " + f.where);
  if (!report.first.complete)
    findings.push_back("exvol check: the volume could not be checked");
  return findings;
}

Watchdog::Watchdog(int seconds, std::function<std::string()> what, uint64_t memory)
    : thread_([this, seconds, memory, what = std::move(what)] {
        uint64_t ceiling = status_kb("VmRSS:") + memory;
        uint64_t seen = ticks_.load();
        auto since = std::chrono::steady_clock::now();
        while (!stop_.load()) {
          std::this_thread::sleep_for(std::chrono::milliseconds(100));
          if (uint64_t rss = status_kb("VmRSS:"); rss > ceiling) {
            fprintf(stderr, "model check: resident memory passed %llu MiB: %s\n",
                    static_cast<unsigned long long>(rss >> 20), what().c_str());
            abort();
          }
          uint64_t now = ticks_.load();
          if (now != seen) {
            seen = now;
            since = std::chrono::steady_clock::now();
          } else if (std::chrono::steady_clock::now() - since > std::chrono::seconds(seconds)) {
            fprintf(stderr, "model check: no progress for %d s: %s\n", seconds, what().c_str());
            abort();
          }
        }
      }) {}

Watchdog::~Watchdog() {
  stop_ = true;
  thread_.join();
}

Runner::Runner(Fs& fs, Model& model, RunOptions options)
    : fs_(fs), model_(model), opt_(std::move(options)) {
  // EXVOL_MODEL_TRACE=1 prints every operation and its answer.
  const char* trace = getenv("EXVOL_MODEL_TRACE");
  trace_ = trace != nullptr && *trace == '1';
  uint64_t free_clusters = 0;
  fs_.space(&free_clusters, &cluster_bytes_);
}

Env Runner::env_for(const Op& op) {
  Env env;
  env.cluster_bytes = cluster_bytes_;
  if (needs_space(op.kind))
    fs_.space(&env.free_clusters, &env.cluster_bytes);
  return env;
}

Outcome Runner::exec(const Op& op) {
  Outcome o;
  switch (op.kind) {
    case OpKind::Open: o.err = fs_.open(op.slot, op.path, static_cast<int>(op.a)); break;
    case OpKind::Close: o.err = fs_.close(op.slot); break;
    case OpKind::Read:
      o.err = fs_.read(op.slot, op.b, op.a, &o.data);
      o.done = o.data.size();
      break;
    case OpKind::Write:
      o.err = fs_.write(op.slot, op.b, op_bytes(op.seed, op.a), &o.done);
      o.after_err = fs_.fstat(op.slot, &o.after);
      break;
    case OpKind::Seek: o.err = fs_.seek(op.slot, op.b, static_cast<int>(op.a), &o.position); break;
    case OpKind::FTruncate:
      o.err = fs_.ftruncate(op.slot, op.b);
      o.after_err = fs_.fstat(op.slot, &o.after);
      break;
    case OpKind::Fsync: o.err = fs_.fsync(op.slot, op.a == 1); break;
    case OpKind::FStat: o.err = fs_.fstat(op.slot, &o.st); break;
    case OpKind::FUtimes: o.err = fs_.futimes(op.slot, times_of(op)); break;
    case OpKind::FChflags: o.err = fs_.fchflags(op.slot, static_cast<uint32_t>(op.a)); break;
    case OpKind::Stat: o.err = fs_.stat(op.path, op.a != 1, &o.st); break;
    case OpKind::Truncate:
      o.err = fs_.truncate(op.path, op.b);
      o.after_err = fs_.stat(op.path, true, &o.after);
      break;
    case OpKind::Unlink: o.err = fs_.unlink(op.path); break;
    case OpKind::Mkdir: o.err = fs_.mkdir(op.path); break;
    case OpKind::Rmdir: o.err = fs_.rmdir(op.path); break;
    case OpKind::Rename: o.err = fs_.rename(op.path, op.path2, static_cast<unsigned>(op.a)); break;
    case OpKind::Symlink: o.err = fs_.symlink(op.path2, op.path); break;
    case OpKind::Readlink: o.err = fs_.readlink(op.path, &o.text); break;
    case OpKind::Utimes:
      o.err = fs_.utimes(op.path, times_of(op), (op.seed & kNoFollow) == 0);
      break;
    case OpKind::Chflags:
      o.err = fs_.chflags(op.path, static_cast<uint32_t>(op.a), (op.seed & kNoFollow) == 0);
      break;
    case OpKind::List: o.err = fs_.list(op.path, &o.listing); break;
    case OpKind::Label: o.err = fs_.set_label(op.path2); break;
    case OpKind::Sync: o.err = fs_.sync(op.a == 1); break;
    case OpKind::Fill:
    case OpKind::Remount: break;
  }
  return o;
}

// One operation on both sides. A write far past the end of its file is
// measured: the memory an operation needs must not grow with the gap.
std::string Runner::step(const Op& op, Outcome* out) {
  if (model_.skipped(op) || !fs_.mounted())
    return "";
  Env env = env_for(op);
  bool measure = false;
  if (op.kind == OpKind::Write && opt_.memory_limit != 0 && op.b >= 0) {
    auto h = model_.handles().find(op.slot);
    uint64_t size = h != model_.handles().end() ? h->second.node->size : 0;
    measure = static_cast<uint64_t>(op.b) > size + opt_.far_write && reset_peak();
  }
  uint64_t rss = measure ? status_kb("VmRSS:") : 0;
  Outcome o = exec(op);
  if (measure) {
    uint64_t peak = status_kb("VmHWM:");
    if (peak > rss + opt_.memory_limit)
      return describe(op) + ": memory grew by " + std::to_string((peak - rss) >> 20) +
             " MiB for a write " + std::to_string(op.b >> 20) + " MiB into the file";
  }
  steps_++;
  if (trace_)
    fprintf(stderr, "  %s%d: %s -> %s%s\n", opt_.trace_tag.c_str(), steps_, describe(op).c_str(),
            errno_name(o.err).c_str(),
            op.kind == OpKind::Write ? (" done " + std::to_string(o.done)).c_str() : "");
  std::string fault = model_.apply(op, o, env);
  if (after_op)
    after_op(op, o);
  if (out != nullptr)
    *out = o;
  if (o.err < 0 || !plausible_errno(o.err))
    return describe(op) + ": answered " + errno_name(o.err);
  return opt_.lenient ? "" : fault;
}

std::string Runner::run(const Op& op) {
  std::string fault;
  if (op.kind == OpKind::Fill)
    fault = fill(op);
  else if (op.kind == OpKind::Remount)
    fault = remount(op.a == 1);
  else
    fault = step(op);
  if (fault.empty() && !opt_.lenient && opt_.checkpoint_every > 0 &&
      steps_ / opt_.checkpoint_every != (steps_ - 1) / opt_.checkpoint_every)
    fault = checkpoint();
  return fault;
}

// Appends to a file until the volume is full: the writes that follow
// find no space.
std::string Runner::fill(const Op& op) {
  Op open{OpKind::Open, kFillSlot, op.path, "", 0, O_WRONLY | O_CREAT | O_APPEND, 0};
  Outcome o;
  if (std::string f = step(open, &o); !f.empty() || o.err != 0)
    return f;
  uint64_t free_clusters = 0;
  uint32_t cluster = 0;
  fs_.space(&free_clusters, &cluster);
  uint64_t rounds = free_clusters * cluster / op.a + 3;
  for (uint64_t i = 0; i < rounds; i++) {
    Op w{OpKind::Write, kFillSlot, "", "", -1, op.a, op.seed + static_cast<uint32_t>(i)};
    if (std::string f = step(w, &o); !f.empty())
      return f;
    if (o.err != 0 || o.done < op.a)
      break;
  }
  return step(Op{OpKind::Close, kFillSlot, "", "", 0, 0, 0});
}

std::string Runner::remount(bool read_only) {
  std::vector<int> slots;
  for (const auto& [slot, h] : model_.handles())
    slots.push_back(slot);
  for (int slot : slots) {
    if (std::string f = step(Op{OpKind::Close, slot, "", "", 0, 0, 0}); !f.empty())
      return f;
  }
  if (int e = fs_.unmount()) {
    if (!opt_.lenient)
      return "Remount: unmount failed: " + errno_name(e);
    fs_.force_unmount();
  }
  if (ro_mount_) {
    struct timespec now = image_mtime(opt_.image);
    if (now.tv_sec != ro_mtime_.tv_sec || now.tv_nsec != ro_mtime_.tv_nsec)
      return "Remount: the image was written while mounted read-only";
  }
  if (!opt_.lenient) {
    std::vector<std::string> findings;
    for (const VolumeChecker& check : opt_.checkers) {
      std::vector<std::string> f = check(opt_.image);
      findings.insert(findings.end(), f.begin(), f.end());
    }
    if (!findings.empty()) {
      // EXVOL_MODEL_KEEP=PATH keeps a copy of the image for a closer look.
      if (const char* keep = getenv("EXVOL_MODEL_KEEP"))
        std::filesystem::copy_file(opt_.image, keep,
                                   std::filesystem::copy_options::overwrite_existing);
      return "Remount: the unmounted volume is not clean:" + join(findings);
    }
  }
  ro_mount_ = read_only;
  ro_mtime_ = image_mtime(opt_.image);
  if (int e = fs_.mount(read_only))
    return opt_.lenient ? "" : "Remount: mount failed: " + errno_name(e);
  model_.remounted(read_only);
  return opt_.lenient ? "" : checkpoint();
}

std::string Runner::finish() {
  return remount(false);
}

std::string Runner::compare_content(Node& file, const std::string& path) {
  if (int e = fs_.open(kCheckSlot, path, O_RDONLY | O_NOFOLLOW))
    return "checkpoint: open " + path + ": " + errno_name(e);
  std::string fault;
  uint64_t offset = 0;
  for (;;) {
    std::vector<uint8_t> got;
    if (int e = fs_.read(kCheckSlot, static_cast<int64_t>(offset), kReadChunk, &got)) {
      fault = "checkpoint: read " + path + ": " + errno_name(e);
      break;
    }
    if (got.empty())
      break;
    std::vector<uint8_t> want = file.data.read(offset, got.size());
    if (got != want || offset + got.size() > file.size) {
      size_t i = 0;
      while (i < got.size() && i < want.size() && got[i] == want[i])
        i++;
      fault = "checkpoint: " + path + ": bytes differ from offset " + std::to_string(offset + i);
      break;
    }
    offset += got.size();
  }
  if (fault.empty() && offset != file.size)
    fault = "checkpoint: " + path + ": read " + std::to_string(offset) + " bytes of " +
            std::to_string(file.size);
  fs_.close(kCheckSlot);
  if (offset > 0 && !model_.semantics().noatime && !model_.read_only())
    file.accessed.reset();
  return fault;
}

std::string Runner::walk(Node& dir, const std::string& path, const Stat& dir_st,
                         std::set<uint64_t>* ids) {
  Outcome listing;
  Op list{OpKind::List, -1, path, "", 0, 0, 0};
  listing.err = fs_.list(path, &listing.listing);
  if (std::string f = model_.apply(list, listing, Env{}); !f.empty())
    return "checkpoint: " + f;
  std::vector<std::shared_ptr<Node>> children;
  for (const auto& [key, child] : dir.children)
    children.push_back(child);
  for (const std::shared_ptr<Node>& child : children) {
    std::string p = (path == "/" ? "" : path) + "/" + child->name;
    Stat st;
    if (int e = fs_.stat(p, false, &st))
      return "checkpoint: lstat " + p + ": " + errno_name(e);
    std::string d = model_.compare_stat(*child, st, cluster_bytes_);
    if (!d.empty())
      return "checkpoint: " + p + ":" + d;
    // Stamps the volume still holds pending land when the node's last
    // reference goes: an open file holds itself and, through its vnode's
    // parent, every directory above it.
    if (busy_.count(child.get()) == 0)
      model_.adopt(*child, st);
    if (model_.semantics().library) {
      // A file id is the first cluster: two files sharing one share data.
      bool has_clusters = child->type != FileType::Regular || child->size > 0;
      if (has_clusters && !ids->insert(st.file_id).second)
        return "checkpoint: " + p + ": cluster " + std::to_string(st.file_id) +
               " is another file's too";
      if (st.parent_id != dir_st.file_id)
        return "checkpoint: " + p + ": parent id " + std::to_string(st.parent_id) +
               ", the directory's id is " + std::to_string(dir_st.file_id);
    }
    if (child->type == FileType::Regular) {
      if (std::string f = compare_content(*child, p); !f.empty())
        return f;
    } else if (child->type == FileType::Symlink) {
      std::string target;
      if (int e = fs_.readlink(p, &target))
        return "checkpoint: readlink " + p + ": " + errno_name(e);
      if (target != child->target)
        return "checkpoint: " + p + ": target \"" + target + "\", expected \"" + child->target +
               "\"";
    } else if (std::string f = walk(*child, p, st, ids); !f.empty()) {
      return f;
    }
  }
  return "";
}

std::string Runner::checkpoint() {
  busy_.clear();
  for (const auto& [slot, h] : model_.handles())
    for (const Node* n = h.node.get(); n != nullptr; n = n->parent)
      busy_.insert(n);
  Stat root_st;
  if (int e = fs_.stat("/", true, &root_st))
    return "checkpoint: stat /: " + errno_name(e);
  std::set<uint64_t> ids = {root_st.file_id};
  if (std::string f = walk(model_.root(), "/", root_st, &ids); !f.empty())
    return f;
  for (const auto& [slot, h] : model_.handles()) {
    Stat st;
    if (int e = fs_.fstat(slot, &st))
      return "checkpoint: fstat slot " + std::to_string(slot) + ": " + errno_name(e);
    std::string d = model_.compare_stat(*h.node, st, cluster_bytes_);
    if (!d.empty())
      return "checkpoint: open file in slot " + std::to_string(slot) + ":" + d;
  }
  if (model_.semantics().library) {
    std::string label;
    if (int e = fs_.label(&label))
      return "checkpoint: label: " + errno_name(e);
    // The driver reports the label decomposed; either form names it.
    if (nfc(label) != model_.label())
      return "checkpoint: label \"" + label + "\", expected \"" + model_.label() + "\"";
  }
  return "";
}

}  // namespace exvol::model
