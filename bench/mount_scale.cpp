// mount.exvol against tmpfs, measured in the same run: a 4 GiB image in
// shared memory, formatted by mkfs.exfat and mounted through the kernel;
// the same work is done in a scratch directory of /dev/shm. Prints the
// absolute figures and, for each, "ratio NAME X": how many times as long
// exvol takes as tmpfs (so lower is better; 1 is tmpfs's speed).
//
//   files100k_*  100,000 empty files in 100 directories: create, a cold
//                `ls -lR` (after a remount), `rm -rf`; the daemon's RSS
//                after the listing
//   files10k_*   the same with 10,000 files in 10 directories, plus a warm
//                `ls -lR` (the second of two)
//   rand4k_tN    4 KiB random reads and writes (70/30, pread/pwrite) on a
//                256 MiB file with N threads for EXVOL_BENCH_SECONDS (15),
//                and the daemon's processor time per operation
//   seq_write    1 GiB written in 1 MiB writes, then fsync
//   seq_read     the same file read cold (exvol: after a remount; tmpfs
//                can only be read from memory)
//
// Needs root and /dev/fuse; says so and exits 0 without.

#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point t) {
  return std::chrono::duration<double>(Clock::now() - t).count();
}

double timed(const std::function<void()>& fn) {
  auto t = Clock::now();
  fn();
  return seconds_since(t);
}

void die(const std::string& what) {
  fprintf(stderr, "mount_scale: %s: %s\n", what.c_str(), strerror(errno));
  exit(1);
}

int run(const std::string& cmd) { return system(cmd.c_str()); }

bool is_mountpoint(const std::string& dir) {
  std::ifstream f("/proc/self/mountinfo");
  std::string line, id, parent, devno, root, point;
  while (std::getline(f, line)) {
    std::istringstream(line) >> id >> parent >> devno >> root >> point;
    if (point == dir)
      return true;
  }
  return false;
}

// One mount.exvol in the foreground.
class Mount {
 public:
  Mount(std::string bin, std::string image, std::string dir)
      : bin_(std::move(bin)), image_(std::move(image)), dir_(std::move(dir)) {}
  ~Mount() { stop(); }

  void start() {
    pid_ = fork();
    if (pid_ == 0) {
      execl(bin_.c_str(), bin_.c_str(), image_.c_str(), dir_.c_str(), "-f", nullptr);
      _exit(127);
    }
    for (auto deadline = Clock::now() + std::chrono::seconds(30); !is_mountpoint(dir_);) {
      if (Clock::now() > deadline || waitpid(pid_, nullptr, WNOHANG) == pid_)
        die("mount.exvol did not mount");
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  void stop() {
    if (pid_ <= 0)
      return;
    while (is_mountpoint(dir_) && umount2(dir_.c_str(), 0) != 0)
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }
  void remount() {
    stop();
    start();
  }
  // The daemon's processor time so far (user and system), in seconds.
  double cpu_seconds() const {
    std::ifstream f("/proc/" + std::to_string(pid_) + "/stat");
    std::string line;
    std::getline(f, line);
    // Fields after the command name, which ends at the last ')': state is
    // the first, utime the 12th and stime the 13th.
    std::istringstream rest(line.substr(line.rfind(')') + 2));
    std::string field;
    double ticks = 0;
    for (int i = 1; i <= 13 && rest >> field; i++) {
      if (i >= 12)
        ticks += std::stod(field);
    }
    return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
  }
  // The daemon's resident memory in MiB.
  double rss_mib() const {
    std::ifstream f("/proc/" + std::to_string(pid_) + "/status");
    std::string line;
    while (std::getline(f, line)) {
      if (line.rfind("VmRSS:", 0) == 0)
        return std::stod(line.substr(6)) / 1024.0;
    }
    return 0;
  }

 private:
  std::string bin_, image_, dir_;
  pid_t pid_ = -1;
};

struct Target {
  std::string name;
  std::string root;
  std::function<void()> make_cold;  // drops what is cached of the files
};

void make_files(const std::string& root, int dirs, int per_dir) {
  for (int d = 0; d < dirs; d++) {
    std::string dir = root + "/d" + std::to_string(d);
    if (mkdir(dir.c_str(), 0755) != 0)
      die("mkdir " + dir);
    for (int f = 0; f < per_dir; f++) {
      std::string path = dir + "/file-" + std::to_string(f) + ".dat";
      int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
      if (fd < 0 || close(fd) != 0)
        die("create " + path);
    }
  }
}

void list(const std::string& root) { run("ls -lR '" + root + "' >/dev/null"); }
void remove_all(const std::string& root) { run("rm -rf '" + root + "'"); }

void report(const char* name, double exvol, double tmpfs, const char* unit) {
  printf("%-16s exvol %10.3f %s   tmpfs %10.3f %s\n", name, exvol, unit, tmpfs, unit);
}
void ratio(const char* name, double exvol_cost, double tmpfs_cost) {
  printf("ratio %s %.2f\n", name, exvol_cost / tmpfs_cost);
  fflush(stdout);
}

// Many files: create, cold listing, warm listing, removal.
void bench_files(const char* tag, int dirs, int per_dir, Target& ex, Target& tm, Mount& m) {
  double t[2][4];
  Target* targets[2] = {&ex, &tm};
  double rss = 0;
  for (int i = 0; i < 2; i++) {
    std::string root = targets[i]->root + "/" + tag;
    if (mkdir(root.c_str(), 0755) != 0)
      die("mkdir " + root);
    t[i][0] = timed([&] { make_files(root, dirs, per_dir); });
    targets[i]->make_cold();
    t[i][1] = timed([&] { list(root); });
    if (i == 0)
      rss = m.rss_mib();
    t[i][2] = timed([&] { list(root); });
    t[i][3] = timed([&] { remove_all(root); });
  }
  const char* what[] = {"create", "ls_cold", "ls_warm", "rm"};
  for (int k = 0; k < 4; k++) {
    std::string name = std::string(tag) + "_" + what[k];
    report(name.c_str(), t[0][k], t[1][k], "s");
    ratio(name.c_str(), t[0][k], t[1][k]);
  }
  printf("%s daemon RSS after the cold ls -lR: %.1f MiB\n", tag, rss);
}

constexpr size_t kRandFileBytes = 256u << 20;

void fill(const std::string& path, size_t bytes) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0)
    die("open " + path);
  std::vector<char> block(1 << 20, 'x');
  for (size_t done = 0; done < bytes; done += block.size()) {
    if (write(fd, block.data(), block.size()) != static_cast<ssize_t>(block.size()))
      die("write " + path);
  }
  if (fsync(fd) != 0 || close(fd) != 0)
    die("fsync " + path);
}

// Operations a second, all threads together.
double random_io(const std::string& path, int threads, double secs) {
  std::atomic<uint64_t> ops{0};
  std::atomic<bool> stop{false};
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; t++) {
    workers.emplace_back([&, t] {
      int fd = open(path.c_str(), O_RDWR);
      if (fd < 0)
        die("open " + path);
      std::mt19937_64 rng(t + 1);
      alignas(4096) static thread_local char buf[4096];
      memset(buf, t, sizeof buf);
      uint64_t n = 0;
      while (!stop.load(std::memory_order_relaxed)) {
        off_t off = static_cast<off_t>(rng() % (kRandFileBytes / 4096)) * 4096;
        ssize_t r = rng() % 10 < 7 ? pread(fd, buf, 4096, off) : pwrite(fd, buf, 4096, off);
        if (r != 4096)
          die("random I/O on " + path);
        n++;
      }
      ops += n;
      close(fd);
    });
  }
  auto t0 = Clock::now();
  std::this_thread::sleep_for(std::chrono::duration<double>(secs));
  stop = true;
  for (auto& w : workers)
    w.join();
  return static_cast<double>(ops.load()) / seconds_since(t0);
}

// Also prints the daemon's processor time per operation, which depends
// less than the rates on what else the machine is doing.
void bench_random(Target& ex, Target& tm, double secs, const Mount& m) {
  std::string paths[2] = {ex.root + "/rand.dat", tm.root + "/rand.dat"};
  for (const std::string& p : paths)
    fill(p, kRandFileBytes);
  for (int threads : {1, 4}) {
    double iops[2];
    double cpu = m.cpu_seconds();
    iops[0] = random_io(paths[0], threads, secs);
    cpu = m.cpu_seconds() - cpu;
    iops[1] = random_io(paths[1], threads, secs);
    std::string name = "rand4k_t" + std::to_string(threads);
    report(name.c_str(), iops[0], iops[1], "op/s");
    printf("%s daemon CPU: %.2f us/op\n", name.c_str(), cpu * 1e6 / (iops[0] * secs));
    ratio(name.c_str(), iops[1], iops[0]);
  }
  for (const std::string& p : paths)
    unlink(p.c_str());
}

constexpr size_t kSeqBytes = 1ull << 30;

double read_all(const std::string& path) {
  int fd = open(path.c_str(), O_RDONLY);
  if (fd < 0)
    die("open " + path);
  std::vector<char> block(1 << 20);
  size_t total = 0;
  auto t = Clock::now();
  for (ssize_t r; (r = read(fd, block.data(), block.size())) > 0;)
    total += static_cast<size_t>(r);
  double s = seconds_since(t);
  close(fd);
  if (total != kSeqBytes)
    die("short read of " + path);
  return s;
}

void bench_sequential(Target& ex, Target& tm) {
  double w[2], r[2];
  Target* targets[2] = {&ex, &tm};
  for (int i = 0; i < 2; i++) {
    std::string path = targets[i]->root + "/seq.dat";
    w[i] = timed([&] { fill(path, kSeqBytes); });
    targets[i]->make_cold();
    r[i] = read_all(path);
    unlink(path.c_str());
  }
  double gb = kSeqBytes / 1e9;
  report("seq_write", gb / w[0], gb / w[1], "GB/s");
  ratio("seq_write", w[0], w[1]);
  report("seq_read", gb / r[0], gb / r[1], "GB/s");
  ratio("seq_read", r[0], r[1]);
}

}  // namespace

int main(int, char** argv) {
  std::string bin = fs::canonical("/proc/self/exe").parent_path().parent_path() / "fuse" /
                    "mount.exvol";
  if (geteuid() != 0 || access("/dev/fuse", R_OK | W_OK) != 0 || access(bin.c_str(), X_OK) != 0 ||
      run("command -v mkfs.exfat >/dev/null") != 0) {
    printf("%s: skipped (needs root, /dev/fuse, mount.exvol and mkfs.exfat)\n", argv[0]);
    return 0;
  }
  const char* env = getenv("EXVOL_BENCH_SECONDS");
  double secs = env != nullptr ? atof(env) : 15.0;
  char templ[] = "/dev/shm/exvol-bench-XXXXXX";
  if (mkdtemp(templ) == nullptr)
    die("mkdtemp");
  std::string base = templ;
  std::string image = base + "/volume.img", mnt = base + "/mnt", tmp = base + "/tmpfs";
  if (truncate((image).c_str(), 0) != 0 && errno != ENOENT)
    die("image");
  if (run("truncate -s 4G '" + image + "' && mkfs.exfat '" + image + "' >/dev/null") != 0)
    die("mkfs.exfat");
  mkdir(mnt.c_str(), 0755);
  mkdir(tmp.c_str(), 0755);
  Mount m(bin, image, mnt);
  m.start();
  Target ex{"exvol", mnt, [&] { m.remount(); }};
  Target tm{"tmpfs", tmp, [] { sync(); }};

  // EXVOL_BENCH_ONLY=files|random|sequential runs one part.
  const char* only_env = getenv("EXVOL_BENCH_ONLY");
  std::string only = only_env != nullptr ? only_env : "";
  if (only.empty() || only == "files") {
    bench_files("files10k", 10, 1000, ex, tm, m);
    bench_files("files100k", 100, 1000, ex, tm, m);
  }
  if (only.empty() || only == "random")
    bench_random(ex, tm, secs, m);
  if (only.empty() || only == "sequential")
    bench_sequential(ex, tm);

  m.stop();
  fs::remove_all(base);
  return 0;
}
