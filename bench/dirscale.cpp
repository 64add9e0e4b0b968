// Per-file cost in large directories, through the library on an image in
// shared memory (formatted by mkfs.exfat, 4 KiB clusters).
//
// One directory of 50,000 empty files (after 5,000 elsewhere have filled the
// vnode and name caches): the cost per file of creating,
// of stat by name (after a remount, so that no cache remembers the names)
// and of unlinking the first 5,000 against the last 5,000. Then create +
// write 16 KiB + fsync + close of 500 files in an empty directory against
// the same in a directory that already holds 20,000 files. Each ratio is
// the large case's time over the small one's; the cost of an operation
// should not depend on the size of the directory, so all stay near 1.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "exvol/volume.h"

namespace {

constexpr uint64_t kVolumeBytes = 2ull << 30;
constexpr int kFiles = 50000;
constexpr int kSlice = 5000;
constexpr int kCrowd = 20000;
constexpr int kSynced = 500;

double seconds_since(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

std::string file_name(const std::string& dir, int i) {
  return dir + "/file_" + std::to_string(i) + ".dat";
}

// Runs `op` on files [first, last) of `dir` and returns the seconds taken,
// or -1 at the first failure (reported). The time is that of the median of
// ten equal chunks, times ten: the machine's other work disturbs some
// chunks, not the cost per file.
double timed(const char* what, const std::string& dir, int first, int last,
             const std::function<std::error_code(const std::string&)>& op) {
  constexpr int kChunks = 10;
  std::vector<double> chunks;
  for (int c = 0; c < kChunks; c++) {
    int from = first + (last - first) * c / kChunks, to = first + (last - first) * (c + 1) / kChunks;
    auto t0 = std::chrono::steady_clock::now();
    for (int i = from; i < to; i++) {
      if (std::error_code ec = op(file_name(dir, i))) {
        fprintf(stderr, "exvol_bench_dirscale: %s %s: %s\n", what, file_name(dir, i).c_str(),
                ec.message().c_str());
        return -1;
      }
    }
    chunks.push_back(seconds_since(t0));
  }
  std::sort(chunks.begin(), chunks.end());
  return (chunks[kChunks / 2 - 1] + chunks[kChunks / 2]) / 2 * kChunks;
}

void print_ratio(const char* name, double small, double large) {
  printf("%s: first %.3f s, last %.3f s (per file %.1f us, %.1f us)\n", name, small, large,
         small * 1e6 / kSlice, large * 1e6 / kSlice);
  printf("ratio %s %.2f\n", name, large / small);
}

bool run(const std::string& image) {
  std::unique_ptr<exvol::Volume> volume;
  exvol::MountOptions options;
  if (exvol::Volume::mount(image, options, &volume))
    return false;
  exvol::Volume& v = *volume;
  auto create = [&v](const std::string& path) {
    exvol::File f;
    return v.open(path, O_WRONLY | O_CREAT | O_EXCL, &f);
  };
  if (v.mkdir("/big") || v.mkdir("/crowd") || v.mkdir("/empty") || v.mkdir("/warm"))
    return false;
  // The vnode and name caches are filled first, so that both slices are
  // measured with the caches recycling: only the directory's size differs.
  if (timed("create", "/warm", 0, kSlice, create) < 0)
    return false;

  double c_first = timed("create", "/big", 0, kSlice, create);
  if (c_first < 0 || timed("create", "/big", kSlice, kFiles - kSlice, create) < 0)
    return false;
  double c_last = timed("create", "/big", kFiles - kSlice, kFiles, create);
  if (c_last < 0 || v.unmount() || exvol::Volume::mount(image, options, &volume))
    return false;
  exvol::Volume& w = *volume;
  auto stat2 = [&w](const std::string& path) {
    exvol::Stat st;
    return w.stat(path, &st);
  };
  auto unlink2 = [&w](const std::string& path) { return w.unlink(path); };
  double s_first = timed("stat", "/big", 0, kSlice, stat2);
  double s_last = timed("stat", "/big", kFiles - kSlice, kFiles, stat2);
  double u_first = timed("unlink", "/big", 0, kSlice, unlink2);
  if (s_first < 0 || s_last < 0 || u_first < 0 ||
      timed("unlink", "/big", kSlice, kFiles - kSlice, unlink2) < 0)
    return false;
  double u_last = timed("unlink", "/big", kFiles - kSlice, kFiles, unlink2);
  if (u_last < 0)
    return false;
  print_ratio("dir_create_last_vs_first", c_first, c_last);
  print_ratio("dir_stat_last_vs_first", s_first, s_last);
  print_ratio("dir_unlink_last_vs_first", u_first, u_last);

  auto create2 = [&w](const std::string& path) {
    exvol::File f;
    return w.open(path, O_WRONLY | O_CREAT | O_EXCL, &f);
  };
  if (timed("create", "/crowd", 0, kCrowd, create2) < 0)
    return false;
  std::vector<char> data(16384, 'x');
  auto synced = [&w, &data](const std::string& path) {
    exvol::File f;
    if (std::error_code ec = w.open(path, O_WRONLY | O_CREAT | O_EXCL, &f))
      return ec;
    size_t done = 0;
    if (std::error_code ec = f.write(data.data(), data.size(), &done))
      return ec;
    return f.fsync();
  };
  double empty = timed("create+fsync", "/empty", kCrowd, kCrowd + kSynced, synced);
  double crowd = timed("create+fsync", "/crowd", kCrowd, kCrowd + kSynced, synced);
  if (empty < 0 || crowd < 0)
    return false;
  printf("create+write+fsync: empty directory %.1f us/file, 20,000 files %.1f us/file\n",
         empty * 1e6 / kSynced, crowd * 1e6 / kSynced);
  printf("ratio dir_fsync_create_crowded_vs_empty %.2f\n", crowd / empty);
  return !w.unmount();
}

}  // namespace

int main() {
  std::string path = "/dev/shm/exvol_bench_dirscale." + std::to_string(getpid());
  int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
  if (fd < 0 || ftruncate(fd, static_cast<off_t>(kVolumeBytes)) != 0) {
    perror("exvol_bench_dirscale: image");
    return 1;
  }
  close(fd);
  std::string mkfs = "PATH=\"$PATH:/usr/sbin:/sbin\" mkfs.exfat -c 4K '" + path + "' >/dev/null";
  bool ok = system(mkfs.c_str()) == 0 && run(path);
  unlink(path.c_str());
  if (!ok) {
    fprintf(stderr, "exvol_bench_dirscale: failed\n");
    return 1;
  }
  return 0;
}
