// The FUSE mode: the generator's operations as real system calls on a
// mount.exvol mount. First one thread with remounts; then several threads
// at once, each in its own subtree with its own model, all of them also
// working in one shared directory, while the daemon's memory is sampled.

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <random>
#include <thread>

#include "tests/fuse/mount_fixture.h"
#include "tests/model/generator.h"
#include "tests/model/modes.h"
#include "tests/model/posix_fs.h"
#include "tests/model/runner.h"

namespace exvol::model {

namespace {

uint64_t rss_of(pid_t pid) {
  std::ifstream f("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(f, line);) {
    if (line.rfind("VmRSS:", 0) == 0)
      return std::stoull(line.substr(6)) * 1024;
  }
  return 0;
}

// Samples the daemon's resident memory until stopped; records the peak.
class MemorySampler {
 public:
  explicit MemorySampler(const FuseMount& mount)
      : thread_([this, &mount] {
          while (!stop_) {
            pid_t pid = mount.pid();
            if (pid > 0)
              peak_ = std::max<uint64_t>(peak_, rss_of(pid));
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
          }
        }) {}
  ~MemorySampler() {
    stop_ = true;
    thread_.join();
  }
  uint64_t peak() const { return peak_; }

 private:
  std::atomic<bool> stop_{false};
  std::atomic<uint64_t> peak_{0};
  std::thread thread_;
};

Semantics fuse_semantics() {
  Semantics sem;
  sem.library = false;
  sem.noatime = true;
  sem.tolerated = known_faults_tolerated();
  return sem;
}

GenParams fuse_params(uint32_t cluster_bytes, uint64_t volume_bytes, bool remounts) {
  GenParams p;
  p.cluster_bytes = cluster_bytes;
  p.volume_bytes = volume_bytes;
  p.library = false;
  p.absolute_links = false;  // the kernel takes them from its own root
  p.dotdot = false;
  p.name_variants = false;
  p.root_ops = false;
  p.remount = remounts;
  p.fill = false;
  p.max_write = 512 << 10;
  return p;
}

RunOptions fuse_options(const std::string& image) {
  RunOptions o;
  o.image = image;
  o.memory_limit = 0;  // the daemon's memory is sampled instead
  return o;
}

// Operations in the shared directory: any thread may be changing any
// name, so only the answers' kinds are checked.
std::string shared_op(PosixFs& fs, std::mt19937_64& rng) {
  const char* names[] = {"/s0", "/s1", "/s2", "/d0", "/d1", "/d0/x"};
  std::string a = names[rng() % std::size(names)], b = names[rng() % std::size(names)];
  int e = 0;
  switch (rng() % 7) {
    case 0:
      if ((e = fs.open(0, a, O_WRONLY | O_CREAT | O_APPEND)) == 0) {
        size_t done = 0;
        e = fs.write(0, -1, op_bytes(static_cast<uint32_t>(rng()), 1 + rng() % 20000), &done);
        fs.close(0);
      }
      break;
    case 1: e = fs.unlink(a); break;
    case 2: e = fs.rename(a, b, 0); break;
    case 3: e = fs.mkdir(a); break;
    case 4: e = fs.rmdir(a); break;
    case 5: {
      std::vector<Listed> l;
      e = fs.list("/", &l);
      break;
    }
    default:
      if ((e = fs.open(0, a, O_RDONLY)) == 0) {
        std::vector<uint8_t> data;
        e = fs.read(0, 0, 1 << 16, &data);
        fs.close(0);
      }
  }
  return plausible_errno(e) ? "" : "shared directory: " + errno_name(e);
}

}  // namespace

// Removes a tree through the mount; "" or what failed.
std::string remove_tree(const std::string& top) {
  namespace fs = std::filesystem;
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(top, ec); !ec && it != fs::end(it);
       it.increment(ec)) {
    if (!it->is_symlink())
      fs::permissions(it->path(), fs::perms::owner_write, fs::perm_options::add, ec);
  }
  if (!ec)
    fs::remove_all(top, ec);
  return ec ? "removing " + top + ": " + ec.message() : "";
}

RunResult run_fuse(uint64_t seed, int steps, int threads, uint64_t memory_ceiling) {
  RunResult r;
  std::string why = test::fuse_unavailable_reason();
  if (!why.empty()) {
    r.skipped = why;
    return r;
  }
  test::ScratchDir scratch;
  std::string image = scratch.sub("volume.img");
  test::Geometry g;
  g.cluster_count = 16384;  // 64 MiB of 4 KiB clusters: no thread runs out of space
  test::ImageBuilder b(g);
  b.add_bitmap_entry().add_upcase_entry();
  b.write_to(image);
  FuseMount mount(image, scratch.sub("mnt"), "umask=022,tz=UTC,noatime");
  if (std::string f = mount.mount(false); !f.empty()) {
    r.fault = f;
    return r;
  }
  MemorySampler sampler(mount);
  uint32_t cluster = 4096;
  uint64_t volume = uint64_t{g.cluster_count} * cluster;

  // One thread, with remounts.
  {
    PosixFs fs(mount, "/t");
    if (int e = fs.mkdir("/")) {
      r.fault = "mkdir /t: " + errno_name(e);
      return r;
    }
    Model model(fuse_semantics());
    Generator gen(seed, fuse_params(cluster, volume, true));
    Runner runner(fs, model, fuse_options(image));
    Watchdog watchdog(120, [&] { return "FUSE, seed " + std::to_string(seed); });
    for (int i = 0; i < steps; i++) {
      Op op = gen.next(model);
      r.ops.push_back(op);
      watchdog.tick();
      if ((r.fault = runner.run(op)).empty())
        continue;
      r.fault += "\n  daemon log: " + mount.log();
      return r;
    }
    // Ends mounted read-write, everything compared once more.
    if (!(r.fault = runner.finish()).empty())
      return r;
  }

  // The single thread may have filled the volume (a write far past the end
  // of a file allocates the whole gap), and the threads below assume room:
  // its tree goes, read-only files made writable first.
  if (std::string f = remove_tree(mount.dir() + "/t"); !f.empty()) {
    r.fault = f;
    return r;
  }

  // Several threads at once: their own subtrees, and the shared directory.
  std::vector<std::unique_ptr<PosixFs>> fss;
  std::vector<std::unique_ptr<Model>> models;
  std::vector<std::string> faults(static_cast<size_t>(threads));
  PosixFs root(mount, "");
  if (int e = root.mkdir("/shared")) {
    r.fault = "mkdir /shared: " + errno_name(e);
    return r;
  }
  for (int t = 0; t < threads; t++) {
    std::string base = "/c" + std::to_string(t);
    if (int e = root.mkdir(base)) {
      r.fault = "mkdir " + base + ": " + errno_name(e);
      return r;
    }
    fss.push_back(std::make_unique<PosixFs>(mount, base));
    models.push_back(std::make_unique<Model>(fuse_semantics()));
  }
  {
    Watchdog watchdog(120, [&] { return "FUSE threads, seed " + std::to_string(seed); });
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; t++) {
      workers.emplace_back([&, t] {
        // The generator's writes reach up to about 4.25 times the volume it
        // is told of (to meet ENOSPC); told of an eighth of a thread's share,
        // all threads together stay within half the volume, so no thread
        // runs out of space because others hold it.
        Generator gen(seed * 31 + static_cast<uint64_t>(t),
                      fuse_params(cluster, volume / (8 * static_cast<uint64_t>(threads)), false));
        RunOptions options = fuse_options(image);
        options.trace_tag = "c" + std::to_string(t) + " ";
        Runner runner(*fss[static_cast<size_t>(t)], *models[static_cast<size_t>(t)], options);
        PosixFs shared(mount, "/shared");
        std::mt19937_64 rng(seed + static_cast<uint64_t>(t));
        for (int i = 0; i < steps && faults[static_cast<size_t>(t)].empty(); i++) {
          watchdog.tick();
          std::string f = runner.run(gen.next(*models[static_cast<size_t>(t)]));
          if (f.empty() && rng() % 3 == 0)
            f = shared_op(shared, rng);
          faults[static_cast<size_t>(t)] = f;
        }
        if (faults[static_cast<size_t>(t)].empty())
          faults[static_cast<size_t>(t)] = runner.checkpoint();
      });
    }
    for (std::thread& w : workers)
      w.join();
  }
  for (int t = 0; t < threads; t++) {
    if (!faults[static_cast<size_t>(t)].empty()) {
      r.fault = "thread " + std::to_string(t) + ": " + faults[static_cast<size_t>(t)];
      return r;
    }
  }
  fss.clear();
  if (root.unmount() != 0) {
    r.fault = "the daemon's final unmount failed: " + mount.log();
    return r;
  }
  if (std::vector<std::string> f = fsck_findings(image); !f.empty()) {
    r.fault = "after the threads: " + f[0];
    return r;
  }
  if (const char* t = getenv("EXVOL_MODEL_TRACE"); t != nullptr && *t == '1')
    fprintf(stderr, "daemon peak resident memory: %llu MiB\n",
            static_cast<unsigned long long>(sampler.peak() >> 20));
  if (sampler.peak() > memory_ceiling)
    r.fault = "the daemon's resident memory reached " + std::to_string(sampler.peak() >> 20) +
              " MiB, above the ceiling of " + std::to_string(memory_ceiling >> 20) + " MiB";
  return r;
}

}  // namespace exvol::model
