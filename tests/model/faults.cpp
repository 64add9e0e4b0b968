// The fault modes: power cuts, I/O errors at chosen bytes, damaged images.

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "exvol/check.h"
#include "tests/model/faulty_io.h"
#include "tests/model/session.h"

namespace exvol::model {

namespace {

// Shapes small enough for many runs: 512-byte to 32 KiB clusters.
const int kFaultShapes[] = {0, 1, 2, 3, 7};

bool tracing() {
  const char* t = getenv("EXVOL_MODEL_TRACE");
  return t != nullptr && *t == '1';
}

int fault_shape(uint64_t seed) {
  return kFaultShapes[seed % std::size(kFaultShapes)];
}

// Walks whatever the volume shows, reading everything, and checks only
// that every answer is an errno. The walk is bounded: a damaged directory
// may loop.
std::string explore(Fs& fs, const std::string& path, int depth, int* budget) {
  std::vector<Listed> entries;
  int e = fs.list(path, &entries);
  if (!plausible_errno(e))
    return "list " + path + ": " + errno_name(e);
  for (const Listed& l : entries) {
    if (--*budget < 0)
      return "";
    std::string p = (path == "/" ? "" : path) + "/" + l.name;
    Stat st;
    e = fs.stat(p, false, &st);
    if (!plausible_errno(e))
      return "lstat " + p + ": " + errno_name(e);
    if (e != 0)
      continue;
    if (st.type == FileType::Directory && depth < 8) {
      if (std::string f = explore(fs, p, depth + 1, budget); !f.empty())
        return f;
    } else if (st.type == FileType::Symlink) {
      std::string target;
      e = fs.readlink(p, &target);
    } else if (st.type == FileType::Regular &&
               (e = fs.open(Runner::kCheckSlot, p, O_RDONLY)) == 0) {
      std::vector<uint8_t> data;
      for (int64_t off = 0; off < (4 << 20) && e == 0; off += 1 << 20) {
        e = fs.read(Runner::kCheckSlot, off, 1 << 20, &data);
        if (data.empty())
          break;
      }
      fs.close(Runner::kCheckSlot);
    }
    if (!plausible_errno(e))
      return "reading " + p + ": " + errno_name(e);
  }
  return "";
}

std::string explore_volume(Fs& fs) {
  int budget = 2000;
  return explore(fs, "/", 0, &budget);
}

// --- Power cuts -----------------------------------------------------------------------------

// What must survive a power cut: a node as a completed sync or fsync left
// it, at its path. A promise is owed while neither the node nor any
// directory on its path has been changed, moved or removed since: a
// directory whose entries changed may have had its own entry set
// rewritten in place (its size, its times), and a cut can tear a set that
// straddles two blocks, which hides everything below it.
struct Promise {
  std::string path;
  std::vector<std::pair<uint64_t, uint64_t>> chain;  // (id, version) from the node up
  uint64_t id = 0;
  FileType type = FileType::Regular;
  std::vector<uint8_t> data;
  std::string target;
  uint64_t flushes_needed = 0;  // on a write cache: owed once this many syncs happened
};

Promise promise_of(const Node& node, uint64_t flushes_needed) {
  Promise p;
  p.path = Model::path_of(node);
  for (const Node* n = &node; n != nullptr; n = n->parent)
    p.chain.emplace_back(n->id, n->version);
  p.id = node.id;
  p.type = node.type;
  if (node.type == FileType::Regular)
    p.data = node.data.read(0, node.size);
  p.target = node.target;
  p.flushes_needed = flushes_needed;
  return p;
}

// Whether the model (before the operation in flight) still owes p, and
// the operation does not touch it.
bool owed(const Promise& p, const Model& model, const std::set<uint64_t>& touched) {
  std::shared_ptr<Node> n = model.find(p.path, false);
  if (!n || n->id != p.id)
    return false;
  size_t i = 0;
  for (const Node* a = n.get(); a != nullptr; a = a->parent, i++) {
    if (i >= p.chain.size() || p.chain[i] != std::make_pair(a->id, a->version) ||
        touched.count(a->id))
      return false;
  }
  return i == p.chain.size();
}

// The nodes an operation may change: those its paths and slot name, and
// their parent directories.
std::set<uint64_t> touched_by(const Op& op, const Model& model) {
  std::set<uint64_t> ids;
  auto add = [&](const std::shared_ptr<Node>& n) {
    if (n) {
      ids.insert(n->id);
      if (n->parent != nullptr)
        ids.insert(n->parent->id);
    }
  };
  for (const std::string& p : {op.path, op.path2}) {
    if (!p.empty()) {
      add(model.find(p, false));
      add(model.find(p, true));
    }
  }
  if (auto h = model.handles().find(op.slot); h != model.handles().end())
    add(h->second.node);
  return ids;
}

// Waits until the device has been quiet for a while: the delayed metadata
// flush that follows an fsync has run.
void settle() {
  uint64_t last = faulty_stats().writes;
  int quiet = 0;
  for (int i = 0; i < 100 && quiet < 4; i++) {
    std::this_thread::sleep_for(std::chrono::milliseconds(40));
    uint64_t now = faulty_stats().writes;
    quiet = now == last ? quiet + 1 : 0;
    last = now;
  }
}

// Checker findings an interrupted metadata flush may leave on entries that
// nothing owed covers: each flush writes the bitmap, the FAT and then
// directory blocks, and a rename writes the new set before deleting the
// old, so allocations and releases can reach the disk before the entries.
const char* const kInFlight[] = {
    "more clusters are allocated",
    "less clusters are allocated",
    "is marked as free",
    "broken cluster chain",
    "the checksum of a file is wrong",
    "unknown entry type",
    "failed to get stream dentry",
    "failed to get name dentry",
    "cluster is already allocated for the other file",
};

// fsck.exfat -n findings a cut may not cause: anything on an owed path,
// anything outside the in-flight classes.
std::string unacceptable(const std::string& image, const std::set<std::string>& owed_paths) {
  std::string fsck = test::fsck_program();
  if (fsck.empty())
    return "";
  test::FsckResult r = test::run_fsck_file(image);
  // fsck.exfat 1.2.0 misreads a set that continues in a cluster not
  // adjacent to its first (see test::fsck_only_misreads_split_sets); exvol
  // check judges those sets below.
  if (r.status == 4 && test::fsck_only_misreads_split_sets(image, r.output))
    return "";
  std::string bad;
  if (r.status != 0 && r.status != 4)
    bad += "\n    fsck.exfat status " + std::to_string(r.status);
  std::istringstream in(r.output);
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line.rfind("exfatprogs version", 0) == 0 ||
        line.find(": clean. directories ") != std::string::npos ||
        line.find(": corrupted. directories ") != std::string::npos ||
        line.find(": files corrupted ") != std::string::npos)
      continue;
    const std::string prefix = "ERROR: ";
    size_t colon = line.find(": ", prefix.size());
    bool in_flight = false;
    for (const char* f : kInFlight)
      in_flight |= line.find(f) != std::string::npos;
    std::string path =
        colon == std::string::npos ? "" : line.substr(prefix.size(), colon - prefix.size());
    if (line.rfind(prefix, 0) != 0 || !in_flight || owed_paths.count(path) != 0)
      bad += "\n    " + line;
  }
  return bad;
}

// A chain longer than its file's data length: clusters a growing file took
// before its entry said so, or a shrunk file had not yet given back.
bool surplus_chain(const Finding& f) {
  unsigned long chain = 0, needed = 0;
  size_t needs = f.what.find("needs ");
  return f.kind == FindingKind::ChainLength && needs != std::string::npos &&
         sscanf(f.what.c_str(), "chain of %lu", &chain) == 1 &&
         sscanf(f.what.c_str() + needs, "needs %lu", &needed) == 1 && chain > needed;
}

// exvol check findings a cut may cause: leaked clusters, loose or attached
// to a file (allocated before the entries that own them were written, or
// not yet freed after), the dirty flag, a stale PercentInUse and torn sets
// nothing was owed for. Anything else is a write-ordering fault.
std::string unacceptable_to_exvol_check(const std::string& image,
                                        const std::set<std::string>& owed_paths) {
  CheckReport report;
  if (std::error_code ec = check(image, CheckOptions(), &report))
    return "\n    exvol check: " + ec.message();
  std::string bad;
  for (const Finding& f : report.first.findings) {
    // An entry set that spans two directory blocks is written in two
    // requests: a cut between them tears a set no sync has vouched for.
    // A rename writes the new set before it deletes the old one: a cut
    // between leaves two entries for the file nothing was owed for.
    bool torn = f.kind == FindingKind::SetShape || f.kind == FindingKind::SetChecksum ||
                f.kind == FindingKind::EntryType || f.kind == FindingKind::SharedFile;
    if (torn && owed_paths.count(f.path) == 0)
      continue;
    if (f.kind != FindingKind::Leak && f.kind != FindingKind::VolumeDirty &&
        f.kind != FindingKind::PercentInUse && !surplus_chain(f))
      bad += "\n    exvol check: " + f.path + ": " + f.what + ", " + f.where;
  }
  return bad;
}

std::string check_promise(Fs& fs, const Promise& p) {
  Stat st;
  if (int e = fs.stat(p.path, false, &st))
    return p.path + ": " + errno_name(e);
  if (st.type != p.type)
    return p.path + ": type " + std::to_string(static_cast<int>(st.type)) + ", promised " +
           std::to_string(static_cast<int>(p.type));
  if (p.type == FileType::Symlink) {
    std::string target;
    fs.readlink(p.path, &target);
    return target == p.target ? "" : p.path + ": target \"" + target + "\"";
  }
  if (p.type != FileType::Regular)
    return "";
  if (st.size != p.data.size())
    return p.path + ": size " + std::to_string(st.size) + ", owed " + std::to_string(p.data.size());
  if (int e = fs.open(Runner::kCheckSlot, p.path, O_RDONLY))
    return p.path + ": open: " + errno_name(e);
  std::vector<uint8_t> all, chunk;
  do {
    if (int e = fs.read(Runner::kCheckSlot, -1, 1 << 20, &chunk)) {
      fs.close(Runner::kCheckSlot);
      return p.path + ": read: " + errno_name(e);
    }
    all.insert(all.end(), chunk.begin(), chunk.end());
  } while (!chunk.empty());
  fs.close(Runner::kCheckSlot);
  return all == p.data ? "" : p.path + ": the bytes differ from what was synced";
}

}  // namespace

RunResult run_power_cut(uint64_t seed, int steps, const FsFactory& factory,
                        const std::vector<Op>* ops) {
  RunResult r;
  std::mt19937_64 rng(seed);
  Session s(volume_shapes()[static_cast<size_t>(fault_shape(seed))], false);
  s.factory = factory;
  DeviceFaults faults;
  faults.write_cache = (seed & 1) != 0;
  faults.cut_after_writes = static_cast<int64_t>(rng() % 90);
  std::vector<Promise> promises;
  std::vector<Promise> owed_at_cut;
  // The device is made faulty before the mount: a cut may come during the
  // mount's own writes, and then there is no workload.
  if (!s.make(&r.skipped, &r.fault))
    return r;
  faulty_attach(s.image(), faults);
  if (!s.mount(&r.fault)) {
    if (!faulty_stats().cut) {
      faulty_detach();
      return r;
    }
    r.fault.clear();
  } else {
    GenParams params = Session::gen_params(s.shape);
    params.remount = false;
    params.max_write = 256 << 10;
    params.sync_weight = 4;
    Generator gen(seed, params);
    RunOptions options = s.run_options();
    Runner runner(*s.fs, s.model, options);
    std::set<uint64_t> synced_dirs;  // (id) of directories the last sync covered
    runner.after_op = [&](const Op& op, const Outcome& o) {
      if (faulty_stats().cut || o.err != 0)
        return;
      if (op.kind == OpKind::Sync && op.a == 1) {
        promises.clear();
        synced_dirs.clear();
        std::vector<const Node*> stack = {&s.model.root()};
        while (!stack.empty()) {
          const Node* n = stack.back();
          stack.pop_back();
          promises.push_back(promise_of(*n, 0));
          if (n->is_dir())
            synced_dirs.insert(n->id);
          for (const auto& [key, child] : n->children)
            stack.push_back(child.get());
        }
      } else if (op.kind == OpKind::Fsync) {
        auto h = s.model.handles().find(op.slot);
        if (h == s.model.handles().end() || h->second.node->unlinked)
          return;
        const Node& node = *h->second.node;
        for (const Node* a = node.parent; a != nullptr; a = a->parent)
          if (synced_dirs.count(a->id) == 0)
            return;  // the path itself was never made durable
        settle();
        DeviceStats now = faulty_stats();
        if (!now.cut)
          promises.push_back(promise_of(node, faults.write_cache ? now.flushes + 1 : 0));
      }
    };
    int after_cut = 10;
    if (ops != nullptr)
      steps = static_cast<int>(ops->size());
    for (int i = 0; i < steps && after_cut > 0; i++) {
      Op op = ops != nullptr ? (*ops)[static_cast<size_t>(i)] : gen.next(s.model);
      r.ops.push_back(op);
      std::set<uint64_t> touched = touched_by(op, s.model);
      std::vector<Promise> owed_now;
      if (!runner.lenient()) {
        for (const Promise& p : promises)
          if (owed(p, s.model, touched))
            owed_now.push_back(p);
      }
      std::string fault = runner.run(op);
      if (faulty_stats().cut) {
        if (!runner.lenient()) {
          owed_at_cut = std::move(owed_now);
          runner.set_lenient(true);
        }
        after_cut--;
      } else if (!fault.empty()) {
        r.fault = fault;
        faulty_detach();
        return r;
      }
    }
    if (!runner.lenient()) {
      for (const Promise& p : promises)
        if (owed(p, s.model, {}))
          owed_at_cut.push_back(p);
    }
    s.fs->force_unmount();
  }
  DeviceStats at_cut = faulty_stats();
  uint64_t flushes = at_cut.flushes;
  faulty_power_cut();
  std::set<std::string> owed_paths;
  std::vector<Promise> due;
  for (const Promise& p : owed_at_cut) {
    if (p.flushes_needed <= flushes) {
      owed_paths.insert(p.path);
      due.push_back(p);
    }
  }
  if (tracing())
    fprintf(stderr,
            "power cut after %llu writes (%s, %s a write cache): %zu promises, %zu owed, %zu due\n",
            static_cast<unsigned long long>(at_cut.writes), at_cut.cut ? "cut" : "not cut",
            faults.write_cache ? "with" : "without", promises.size(), owed_at_cut.size(),
            due.size());
  if (std::string bad = unacceptable(s.image(), owed_paths) + unacceptable_to_exvol_check(s.image(), owed_paths);
      !bad.empty()) {
    r.fault = "after the power cut the checker finds:" + bad;
    return r;
  }
  // A read-only mount of the dirty volume must write nothing.
  {
    struct stat before {
    }, after{};
    ::stat(s.image().c_str(), &before);
    LibFs ro(s.image(), MountOptions{});
    if (int e = ro.mount(true)) {
      r.fault = "after the power cut the volume does not mount read-only: " + errno_name(e);
      return r;
    }
    r.fault = explore_volume(ro);
    ro.force_unmount();
    ::stat(s.image().c_str(), &after);
    if (r.fault.empty() && (before.st_mtim.tv_sec != after.st_mtim.tv_sec ||
                            before.st_mtim.tv_nsec != after.st_mtim.tv_nsec))
      r.fault = "a read-only mount of the cut volume wrote to it";
    if (!r.fault.empty())
      return r;
  }
  LibFs fs(s.image(), MountOptions{});
  if (int e = fs.mount(false)) {
    r.fault =
        "after the power cut the volume does not mount: " + errno_name(e) + ": " + fs.diagnostic();
    return r;
  }
  for (const Promise& p : due) {
    if (std::string f = check_promise(fs, p); !f.empty()) {
      r.fault = "after the power cut, owed by a " +
                std::string(p.flushes_needed ? "fsync" : "sync") + ": " + f;
      return r;
    }
  }
  r.fault = explore_volume(fs);
  if (fs.unmount() != 0)
    fs.force_unmount();
  return r;
}

// --- I/O errors ------------------------------------------------------------------------------

RunResult run_io_errors(uint64_t seed, int steps) {
  RunResult r;
  std::mt19937_64 rng(seed);
  Session s(volume_shapes()[static_cast<size_t>(fault_shape(seed))], false);
  if (!s.ready(&r.skipped, &r.fault))
    return r;
  GenParams params = Session::gen_params(s.shape);
  params.max_write = 256 << 10;
  Generator gen(seed, params);
  Runner runner(*s.fs, s.model, s.run_options());
  bool fired = false;
  // The device's counters are those of the previous run until the faults
  // are attached here.
  bool attached = false;
  uint64_t session_write_faults = 0;  // write faults before this session began
  {
    Watchdog watchdog(120, [&] { return "I/O errors, seed " + std::to_string(seed); });
    for (int i = 0; i < steps; i++) {
      if (i == steps / 3) {
        // Faults at a few bytes, most in the metadata at the front.
        DeviceFaults faults;
        uint64_t meta = s.cluster_offset(2) + 8 * uint64_t{s.cluster_bytes()};
        uint64_t total = uint64_t{s.shape.clusters} * s.cluster_bytes();
        for (int k = 0, n = 1 + static_cast<int>(rng() % 4); k < n; k++) {
          uint64_t at = rng() % 2 ? rng() % meta : rng() % total;
          (rng() % 2 ? faults.fail_reads : faults.fail_writes).push_back(at);
        }
        faulty_attach(s.image(), faults);
        attached = true;
      }
      Op op = gen.next(s.model);
      // What is judged is the unmount of the session that met the fault: a
      // later read-write session of the dirty volume may mark it clean.
      if (fired && op.kind == OpKind::Remount)
        break;
      r.ops.push_back(op);
      watchdog.tick();
      std::string fault = runner.run(op);
      if (attached && op.kind == OpKind::Remount)
        session_write_faults = faulty_stats().write_faults;  // a new session
      if (attached && !fired && faulty_stats().faults > 0) {
        fired = true;
        runner.set_lenient(true);
        fault.clear();  // the operation that met the fault answers as it may
      }
      if (!fault.empty()) {
        r.fault = fault;
        faulty_detach();
        return r;
      }
    }
    int unmounted = s.fs->mounted() ? s.fs->unmount() : -1;
    if (unmounted > 0)
      s.fs->force_unmount();
    fired |= attached && faulty_stats().faults > 0;
    // A device write that failed, whenever it was made, is the unmount's
    // error: the volume on the device lacks something it was given.
    bool write_failed = attached && faulty_stats().write_faults > session_write_faults;
    faulty_detach();
    if (write_failed && unmounted == 0) {
      r.fault = "a device write failed, yet the unmount reported success";
      return r;
    }
  }
  // A volume marked clean must be correct; one left dirty must at least
  // mount and read without a crash.
  bool dirty = volume_dirty(s.image());
  if (tracing())
    fprintf(stderr, "I/O errors: %s, the volume is left %s\n", fired ? "met" : "not met",
            dirty ? "dirty" : "clean");
  if (!dirty) {
    std::vector<std::string> findings = fsck_findings(s.image());
    if (!findings.empty()) {
      r.fault = "after I/O errors the volume is marked clean but: " + findings[0];
      return r;
    }
  }
  if (int e = s.fs->mount(false)) {
    if (!dirty)
      r.fault = "after I/O errors a clean volume does not mount: " + errno_name(e);
    return r;
  }
  if (!fired) {
    // No fault was met: everything must be as the model says.
    s.model.remounted(false);
    Runner check(*s.fs, s.model, s.run_options());
    r.fault = check.checkpoint();
  } else {
    r.fault = explore_volume(*s.fs);
  }
  if (s.fs->unmount() != 0)
    s.fs->force_unmount();
  return r;
}

// --- Damaged images --------------------------------------------------------------------------

RunResult run_damaged(uint64_t seed, int steps) {
  RunResult r;
  std::mt19937_64 rng(seed);
  Session s(volume_shapes()[static_cast<size_t>(fault_shape(seed))], false);
  if (!s.ready(&r.skipped, &r.fault))
    return r;
  GenParams params = Session::gen_params(s.shape);
  params.max_write = 128 << 10;
  params.fill = false;
  std::vector<uint32_t> dir_clusters = {0};
  {
    Generator gen(seed, params);
    Runner runner(*s.fs, s.model, s.run_options());
    for (int i = 0; i < steps / 2; i++) {
      Op op = gen.next(s.model);
      r.ops.push_back(op);
      if (std::string f = runner.run(op); !f.empty()) {
        r.fault = "populating: " + f;
        return r;
      }
    }
    if (std::string f = runner.finish(); !f.empty()) {
      r.fault = "populating: " + f;
      return r;
    }
    std::vector<std::string> stack = {"/"};
    while (!stack.empty()) {
      std::string dir = stack.back();
      stack.pop_back();
      Stat st;
      if (s.fs->stat(dir, false, &st) == 0)
        dir_clusters.push_back(static_cast<uint32_t>(st.file_id));
      if (auto n = s.model.find(dir, false))
        for (const auto& [key, child] : n->children)
          if (child->is_dir())
            stack.push_back(Model::path_of(*child));
    }
    if (s.fs->unmount() != 0)
      s.fs->force_unmount();
  }
  // Damage: entries of directories, the FAT, the system files at the
  // front of the heap, the boot sector, anywhere.
  std::fstream img(s.image(), std::ios::in | std::ios::out | std::ios::binary);
  uint64_t heap = s.cluster_offset(2);
  uint64_t total = heap + uint64_t{s.shape.clusters} * s.cluster_bytes();
  for (int k = 0, n = 1 + static_cast<int>(rng() % 6); k < n; k++) {
    uint64_t r100 = rng() % 100, at;
    if (r100 < 40) {
      uint32_t c = dir_clusters[rng() % dir_clusters.size()];
      at = (c >= 2 ? s.cluster_offset(c) : heap) + rng() % std::min(s.cluster_bytes(), 1024u);
    } else if (r100 < 60) {
      at = (24u << s.shape.sector_shift) + rng() % ((s.shape.clusters + 2) * 4);
    } else if (r100 < 75) {
      at = heap + rng() % (3 * uint64_t{s.cluster_bytes()});
    } else if (r100 < 85) {
      at = rng() % 120;
    } else {
      at = rng() % total;
    }
    char byte = static_cast<char>(rng());
    img.seekp(static_cast<std::streamoff>(at)).write(&byte, 1);
  }
  img.close();
  // Then anything goes, but only errnos may come back.
  int mounted = s.fs->mount(rng() % 5 == 0);
  if (tracing())
    fprintf(stderr, "damaged image: mount %s\n", errno_name(mounted).c_str());
  if (mounted != 0)
    return r;
  Generator gen(seed + 1, params);
  RunOptions options = s.run_options();
  options.lenient = true;
  options.checkers.clear();
  Runner runner(*s.fs, s.model, options);
  Watchdog watchdog(120, [&] { return "damaged image, seed " + std::to_string(seed); });
  for (int i = 0; i < steps / 2; i++) {
    Op op = gen.next(s.model);
    r.ops.push_back(op);
    watchdog.tick();
    if (std::string f = runner.run(op); !f.empty()) {
      r.fault = f;
      return r;
    }
  }
  watchdog.tick();
  if (s.fs->mounted())
    r.fault = explore_volume(*s.fs);
  if (s.fs->mounted() && s.fs->unmount() != 0)
    s.fs->force_unmount();
  return r;
}

}  // namespace exvol::model
