// Power cuts in the middle of a workload: the device's power is cut after N
// writes, for a sample of N over the whole run, on a write-through device
// (every accepted write is durable) and on one with a volatile write cache
// (only what preceded the last cache flush is). The image the device kept
// must then mount (read-only and read-write) and stay dirty; a walk of the
// tree must not crash; the checker may find only the damage an interrupted
// metadata flush can leave on entries no promise covers (kInFlightFindings);
// a volume the checker calls clean must not cross-link files when filled.
// Promises: fsync'd files (once their delayed flush ran, and on a cached
// device after a later cache flush), F_FULLFSYNC data, everything at a
// waiting sync, and the untouched file "keep" survive.
//
// EXVOL_POWERCUT_SEED picks the cut points, EXVOL_POWERCUT_CUTS their number
// per device (default 100).

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "exfat_proto.h"
#include "host/blkdev.h"
#include "host/kern.h"
#include "host/mount.h"
#include "host/vfs.h"
#include "tests/support/fsck.h"
#include "tests/support/image_builder.h"
#include "tests/support/vnode_io.h"
#include "tests/unit/driver/damage.h"
#include "tests/unit/driver/namespace_fixture.h"

using namespace exvol::test;

namespace {

enum class Device { WriteThrough, WriteCache };

const char* device_name(Device d) {
  return d == Device::WriteThrough ? "write-through" : "write-cache";
}

// What must survive, and since when it is owed.
struct Promise {
  bool link = false;
  std::vector<uint8_t> data;  // a file's contents
  std::string target;         // a link's target
  uint64_t writes = 0;        // device writes when the promise was made
  uint64_t flushes = 0;       // device cache flushes then
  bool needs_flush = false;   // owed only after a later cache flush
};

// Checker findings an interrupted metadata flush may leave on entries that
// no promise covers: each flush writes the bitmap, the FAT, then directory
// blocks, so allocations and releases can reach the disk before the entry.
const char* const kInFlightFindings[] = {
    "more clusters are allocated",   // allocation on disk, entry not yet
    "less clusters are allocated",   // release on disk, shrunk entry not yet
    "is marked as free",             // release on disk, deletion not yet
    "broken cluster chain",          // release on disk, shrunk entry not yet
    "the checksum of a file is wrong",  // a set torn at a block boundary
    "unknown entry type 0xc0 ",      // the secondaries of a torn set
    "unknown entry type 0xc1 ",      // without their File entry
    "failed to get stream dentry",   // a set torn at a block boundary
    "failed to get name dentry",
};

// A rename writes the new set before deleting the old: a cut in between
// leaves the file under both names, sharing its clusters.
const char kRenameFinding[] = "cluster is already allocated for the other file";

// The report lines no cut may cause: any finding on an owed file, outside
// the in-flight classes, or not a per-entry finding or the summary.
std::vector<std::string> unacceptable_findings(const FsckResult& r,
                                               const std::set<std::string>& owed,
                                               const std::set<std::string>& renamed) {
  std::vector<std::string> bad;
  if (r.status != 0 && r.status != 4)
    bad.push_back("exit status " + std::to_string(r.status));
  std::istringstream in(r.output);
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line.rfind("exfatprogs version", 0) == 0 ||
        line.find(": clean. directories ") != std::string::npos ||
        line.find(": corrupted. directories ") != std::string::npos ||
        line.find(": files corrupted ") != std::string::npos)
      continue;
    const std::string prefix = "ERROR: /";
    size_t colon = line.find(": ", prefix.size());
    if (line.rfind(prefix, 0) != 0 || colon == std::string::npos) {
      bad.push_back(line);
      continue;
    }
    std::string path = line.substr(prefix.size(), colon - prefix.size());
    std::string finding = line.substr(colon + 2);
    bool in_flight = false;
    for (const char* f : kInFlightFindings)
      in_flight |= finding.find(f) != std::string::npos;
    in_flight |= finding.find(kRenameFinding) != std::string::npos && renamed.count(path) != 0;
    if (!in_flight || owed.count(path) != 0)
      bad.push_back(line);
  }
  return bad;
}

}  // namespace

class PowerCut : public NamespaceTest {
 protected:
  void SetUp() override {
    NamespaceTest::SetUp();
    saved_delay_ = exfat_meta_delay;
    exfat_meta_delay = 2;  // keeps the many runs fast
  }

  void TearDown() override {
    exfat_meta_delay = saved_delay_;
    if (devvp != nullptr)
      host_memdev_set_faults(devvp, host_memdev_faults{});
    NamespaceTest::TearDown();
  }

  // The volume before the workload; "keep" is never touched.
  std::vector<uint8_t> base_image() {
    builder_.add_file(builder_.root(), u"keep", pattern_bytes(0, 1500, 90));
    Dir old = builder_.mkdir(builder_.root(), u"old");
    builder_.add_file(old, u"x", pattern_bytes(0, 700, 91));
    builder_.add_file(old, u"y", pattern_bytes(0, 2000, 92), Alloc::Contiguous);
    builder_.mkdir(builder_.root(), u"d3");
    std::vector<uint8_t> image = builder_.build();
    image_bytes_ = image.size();
    return image;
  }

  void mount_image(const std::vector<uint8_t>& image, uint64_t flags) {
    ASSERT_EQ(0, load(image));
    ASSERT_EQ(0, mount(flags));
    ctx_ = vfs_context_kernel();
    ASSERT_EQ(0, VFS_ROOT(mp, &root_vp_, ctx_));
  }

  // Whether a write has failed: the power is gone.
  bool cut() { return cut_after_ >= 0 && stats().writes > static_cast<uint64_t>(cut_after_); }

  // Waits until no delayed metadata flush is pending or running.
  void wait_for_delayed_flush() {
    EXPECT_TRUE(wait_for([&] { return !flush_pending(xm); }))
        << "the delayed metadata flush never ran";
  }

  // Before the cut everything must succeed; after it any errno will do.
  bool ok(int error, const char* what) {
    if (error != 0 && !cut())
      ADD_FAILURE() << what << " failed with " << error << " before the power cut";
    if (error < 0)
      ADD_FAILURE() << what << " returned the private code " << error;
    return error == 0;
  }

  // Looks up the directories of a path ("d1/alpha": d1); the last component
  // is left in *leaf.
  int resolve_parent(const std::string& path, Vref* dir, std::string* leaf) {
    vnode_get(root_vp_);
    dir->vp = root_vp_;
    size_t start = 0;
    for (size_t slash; (slash = path.find('/', start)) != std::string::npos; start = slash + 1) {
      Vref next;
      int error = lookup(dir->vp, path.substr(start, slash - start), LOOKUP, &next);
      if (error)
        return error;
      std::swap(dir->vp, next.vp);
    }
    *leaf = path.substr(start);
    return 0;
  }
  int resolve(const std::string& path, Vref* out) {
    Vref dir;
    std::string leaf;
    int error = resolve_parent(path, &dir, &leaf);
    return error ? error : lookup(dir.vp, leaf, LOOKUP, out);
  }

  void op_mkdir(const std::string& path) {
    Vref dir, made;
    std::string leaf;
    if (ok(resolve_parent(path, &dir, &leaf), "lookup"))
      ok(mkdir(dir.vp, leaf, &made), "mkdir");
  }

  // Creates (or opens) a file and writes data at offset; closes it.
  void op_write(const std::string& path, off_t offset, const std::vector<uint8_t>& data,
                int sync = 0) {
    Vref dir, file;
    std::string leaf;
    if (!ok(resolve_parent(path, &dir, &leaf), "lookup"))
      return;
    int error = lookup(dir.vp, leaf, LOOKUP, &file);
    if (error == ENOENT)
      error = create(dir.vp, leaf, &file);
    if (!ok(error, "create"))
      return;
    forget(path);
    std::vector<uint8_t>& content = model_[path];
    if (content.size() < static_cast<size_t>(offset) + data.size())
      content.resize(static_cast<size_t>(offset) + data.size(), 0);
    std::copy(data.begin(), data.end(), content.begin() + offset);
    ok(VNOP_OPEN(file.vp, FREAD | FWRITE, ctx_), "open");
    bool written = ok(vn_write_at(file.vp, offset, data), "write");
    if (written && sync == 1 && ok(VNOP_FSYNC(file.vp, MNT_WAIT, ctx_), "fsync"))
      promise(path, false);
    if (written && sync == 2 && ok(VNOP_IOCTL(file.vp, F_FULLFSYNC, nullptr, 0, ctx_), "full"))
      promise(path, false);
    ok(VNOP_CLOSE(file.vp, FREAD | FWRITE, ctx_), "close");
  }

  void op_truncate(const std::string& path, uint64_t size) {
    Vref file;
    if (!ok(resolve(path, &file), "lookup"))
      return;
    forget(path);
    model_[path].resize(size, 0);
    ok(vn_set_size(file.vp, size), "truncate");
  }

  void op_symlink(const std::string& path, const std::string& target) {
    Vref dir, link;
    std::string leaf;
    if (!ok(resolve_parent(path, &dir, &leaf), "lookup") ||
        !ok(symlink(dir.vp, leaf, target, &link), "symlink"))
      return;
    links_[path] = target;
    if (ok(VNOP_FSYNC(link.vp, MNT_WAIT, ctx_), "fsync link"))
      promise(path, true);
  }

  void op_remove(const std::string& path, bool directory = false) {
    Vref dir;
    std::string leaf;
    if (!ok(resolve_parent(path, &dir, &leaf), "lookup"))
      return;
    forget(path);
    model_.erase(path);
    links_.erase(path);
    ok(settled([&] { return directory ? rmdir(dir.vp, leaf) : remove(dir.vp, leaf); }), "remove");
  }

  void op_rename(const std::string& from, const std::string& to) {
    Vref fdir, tdir;
    std::string fleaf, tleaf;
    if (!ok(resolve_parent(from, &fdir, &fleaf), "lookup") ||
        !ok(resolve_parent(to, &tdir, &tleaf), "lookup"))
      return;
    forget(from);
    forget(to);
    renamed_.insert(from);
    renamed_.insert(to);
    auto it = model_.find(from);
    if (it != model_.end()) {
      model_[to] = it->second;
      model_.erase(from);
    }
    ok(settled([&] { return rename(fdir.vp, fleaf, tdir.vp, tleaf); }), "rename");
  }

  void op_sync() {
    if (!ok(host_sync(mp, MNT_WAIT), "sync"))
      return;
    for (const auto& [path, data] : model_)
      promise(path, false, /*needs_flush=*/false);
    for (const auto& [path, target] : links_)
      promise(path, true, false);
  }

  // `path` is owed as the model has it now, once the delayed flush ran.
  void promise(const std::string& path, bool link, bool needs_flush = true) {
    wait_for_delayed_flush();
    if (cut())
      return;
    Promise p;
    p.link = link;
    if (link)
      p.target = links_[path];
    else
      p.data = model_[path];
    host_devstats s = stats();
    p.writes = s.writes;
    p.flushes = s.flushes;
    p.needs_flush = needs_flush && device_ == Device::WriteCache;
    promises_[path] = p;
  }
  void forget(const std::string& path) { promises_.erase(path); }

  // The workload. Pre-existing: keep, old/x, old/y, d3.
  void workload() {
    op_mkdir("d1");
    op_mkdir("d2");
    op_write("d1/alpha", 0, pattern_bytes(0, 3000, 1), 1);
    op_write("d1/A long name that needs several name entries.txt", 0, pattern_bytes(0, 700, 2));
    op_write("beta", 0, pattern_bytes(0, 5000, 3), 2);
    op_rename("old/x", "d2/x-moved");
    op_write("d1/A long name that needs several name entries.txt", 700, pattern_bytes(0, 4000, 4));
    op_remove("old/y");
    op_remove("old", true);
    op_write("d2/gamma", 0, pattern_bytes(0, 8192, 5), 1);
    op_symlink("d2/link", "../beta");
    op_truncate("d1/A long name that needs several name entries.txt", 100);
    for (int i = 0; i < 12; i++)
      op_write("d3/f" + std::to_string(i), 0, pattern_bytes(0, 600 + 97 * i, static_cast<uint8_t>(i)));
    op_sync();
    for (int i = 0; i < 12; i += 2)
      op_remove("d3/f" + std::to_string(i));
    op_rename("d3/f1", "d1/f1-renamed");
    op_write("d3/f3", 600 + 97 * 3, pattern_bytes(0, 3000, 6), 2);
    op_rename("d2/gamma", "d2/gamma2");
    op_mkdir("d5");
    op_rename("d5", "d2/d5");
    op_write("d2/delta", 0, pattern_bytes(0, 1200, 7), 1);
    op_write("d1/alpha-next", 0, pattern_bytes(0, 2500, 8), 2);
  }

  // Mounts, arms the cut, runs the workload, cuts and drops the caches;
  // returns the device writes of the run and the image the device kept.
  uint64_t run(const std::vector<uint8_t>& base, Device device, int64_t cut_after,
               std::vector<uint8_t>* image) {
    device_ = device;
    cut_after_ = cut_after;
    model_.clear();
    links_.clear();
    promises_.clear();
    renamed_.clear();
    promises_["keep"] = Promise{false, pattern_bytes(0, 1500, 90), "", 0, 0, false};
    mount_image(base, 0);
    if (HasFatalFailure())
      return 0;
    host_memdev_faults faults;
    faults.fail_writes_after = cut_after;
    faults.power_cut_mode = device == Device::WriteCache;
    host_memdev_set_faults(devvp, faults);
    host_blkdev_reset_stats(devvp);
    {
      KernLogCapture quiet;
      workload();
      uint64_t writes = stats().writes;
      final_flushes_ = stats().flushes;
      host_memdev_power_cut(devvp);
      host_memdev_faults dead;  // nothing the unmount writes lands
      dead.fail_writes_after = 0;
      dead.power_cut_mode = true;
      host_memdev_set_faults(devvp, dead);
      release_nodes();
      EXPECT_EQ(0, unmount(MNT_FORCE)) << "the forced unmount after the cut";
      EXPECT_EQ(baseline_memory_, driver_memory()) << "driver memory left after the cut";
      host_memdev_set_faults(devvp, host_memdev_faults{});
      *image = read_device(0, image_bytes_);
      return writes;
    }
  }

  // Whether a promise is owed after this run.
  bool owed(const Promise& p) const {
    if (cut_after_ >= 0 && p.writes > static_cast<uint64_t>(cut_after_))
      return false;
    return !p.needs_flush || final_flushes_ > p.flushes;
  }

  // Mounts what the device kept, checks the promises and walks the tree.
  void check_image(const std::vector<uint8_t>& image, const std::string& what) {
    SCOPED_TRACE(what);
    EXPECT_TRUE(le16dec(&image[EXFAT_BOOT_VOLUME_FLAGS_OFFSET]) & EXFAT_VOLUME_DIRTY)
        << "an interrupted volume must stay dirty";
    std::set<std::string> owed_paths;
    for (const auto& [path, p] : promises_)
      if (owed(p))
        owed_paths.insert(path);
    bool checker_clean = false;
    if (!fsck_program().empty()) {
      FsckResult r = run_fsck(image);
      checker_clean = r.status == 0;
      if (getenv("EXVOL_POWERCUT_VERBOSE") != nullptr)
        fprintf(stderr, "--- %s: status %d\n%s", what.c_str(), r.status, r.output.c_str());
      std::vector<std::string> bad = unacceptable_findings(r, owed_paths, renamed_);
      if (!bad.empty())
        ADD_FAILURE() << "the checker found damage no power cut may cause: " << bad[0] << "\n"
                      << r.output;
    }

    KernLogCapture quiet;
    mount_image(image, MNT_RDONLY);
    if (HasFatalFailure())
      return;
    for (const auto& [path, p] : promises_) {
      if (!owed(p))
        continue;
      SCOPED_TRACE(path);
      Vref vp;
      int error = resolve(path, &vp);
      if (error != 0) {
        ADD_FAILURE() << "a file owed since write " << p.writes << " is gone (" << error << ")";
        continue;
      }
      if (p.link) {
        std::string target;
        EXPECT_EQ(0, vn_readlink(vp.vp, &target));
        EXPECT_EQ(p.target, target);
      } else {
        std::vector<uint8_t> data;
        EXPECT_EQ(0, vn_read_all(vp.vp, &data));
        EXPECT_TRUE(data == p.data) << "size " << data.size() << ", owed " << p.data.size();
      }
    }
    walk_tree(root_vp_);
    release_nodes();
    ASSERT_EQ(0, unmount());

    // Filled read-write: on a clean volume no allocation may take an owned
    // cluster (a damaged one must be repaired first: only "no crash" counts).
    mount_image(image, 0);
    if (HasFatalFailure())
      return;
    Vref file;
    if (create(root_vp_, "after-the-cut", &file) == 0) {
      std::vector<uint8_t> chunk = pattern_bytes(0, 16384, 77);
      for (off_t at = 0; vn_write_at(file.vp, at, chunk) == 0; at += chunk.size()) {
      }
      file.reset();
    }
    release_nodes();
    ASSERT_EQ(0, unmount());
    if (checker_clean) {
      FsckResult r = run_fsck(read_device(0, image_bytes_));
      EXPECT_EQ(std::string::npos, r.output.find("already allocated for the other file"))
          << "the volume was clean, yet writing to it cross-linked files:\n" << r.output;
    }
  }

  void sweep(Device device) {
    std::vector<uint8_t> base = base_image();
    std::vector<uint8_t> image;
    uint64_t total = run(base, device, -1, &image);
    ASSERT_FALSE(HasFailure()) << "the workload fails without a power cut";
    check_image(image, std::string(device_name(device)) + ", no cut");
    ASSERT_GT(total, 50u) << "the workload should write a lot";

    uint32_t seed = env_or("EXVOL_POWERCUT_SEED", 20240917);
    uint32_t cuts = env_or("EXVOL_POWERCUT_CUTS", 100);
    std::mt19937 rng(seed);
    std::set<int64_t> points = {0, 1, 2, static_cast<int64_t>(total) - 1};
    while (points.size() < cuts && points.size() < total)
      points.insert(static_cast<int64_t>(rng() % total));
    for (int64_t n : points) {
      std::string what = std::string(device_name(device)) + ", cut after " + std::to_string(n) +
                         " of " + std::to_string(total) + " writes (EXVOL_POWERCUT_SEED=" +
                         std::to_string(seed) + ")";
      run(base, device, n, &image);
      if (HasFatalFailure())
        return;
      check_image(image, what);
      if (HasFatalFailure())
        return;
    }
  }

  uint32_t saved_delay_ = 50;
  Device device_ = Device::WriteThrough;
  int64_t cut_after_ = -1;
  uint64_t final_flushes_ = 0;
  std::map<std::string, std::vector<uint8_t>> model_;
  std::map<std::string, std::string> links_;
  std::map<std::string, Promise> promises_;
  std::set<std::string> renamed_;  // both names of every rename of the run
};

TEST_F(PowerCut, WriteThroughDevice) {
  sweep(Device::WriteThrough);
}

TEST_F(PowerCut, WriteCacheDevice) {
  sweep(Device::WriteCache);
}
