// `exvol mkfs --from` against `cp -r` of the same tree.
//
// A tree of 10,000 files (100 directories of 100 files, sizes from empty to
// 16 KiB, ten of 1 MiB) is made in shared memory. It is copied with
// `cp -r` to another directory there, and formatted into an image there
// with the library's mkfs and `from`, the best of three runs each. Prints
// both times and "ratio mkfs_from X": cp's seconds over mkfs's, so above 1
// means making the image is faster than copying the files.

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "exvol/mkfs.h"

namespace {

double seconds_since(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

bool make_tree(const std::string& root) {
  std::mt19937 rng(7);
  std::vector<char> data(1 << 20);
  for (char& c : data)
    c = static_cast<char>(rng());
  for (int d = 0; d < 100; d++) {
    std::string dir = root + "/dir" + std::to_string(d);
    if (mkdir(dir.c_str(), 0755) != 0)
      return false;
    for (int f = 0; f < 100; f++) {
      size_t size = f == 0 && d % 10 == 0 ? data.size() : rng() % (16 << 10);
      FILE* out = fopen((dir + "/file" + std::to_string(f) + ".dat").c_str(), "wb");
      if (!out || fwrite(data.data(), 1, size, out) != size || fclose(out) != 0)
        return false;
    }
  }
  return true;
}

}  // namespace

int main() {
  char templ[] = "/dev/shm/exvol-bench-XXXXXX";
  if (!mkdtemp(templ)) {
    perror("mkdtemp");
    return 1;
  }
  const std::string base = templ, src = base + "/src", dst = base + "/dst",
                    image = base + "/image";
  if (mkdir(src.c_str(), 0755) != 0 || !make_tree(src)) {
    perror("making the tree");
    return 1;
  }
  double best_cp = 1e9, best_mkfs = 1e9;
  for (int run = 0; run < 3; run++) {
    std::string clear = "rm -rf '" + dst + "' '" + image + "'";
    if (system(clear.c_str()) != 0)
      return 1;
    auto t0 = std::chrono::steady_clock::now();
    if (system(("cp -r '" + src + "' '" + dst + "'").c_str()) != 0)
      return 1;
    best_cp = std::min(best_cp, seconds_since(t0));

    exvol::MkfsOptions o;
    o.size = 256u << 20;
    o.from = src;
    std::string why;
    t0 = std::chrono::steady_clock::now();
    if (std::error_code ec = exvol::mkfs(image, o, nullptr, &why)) {
      fprintf(stderr, "mkfs: %s\n", why.c_str());
      return 1;
    }
    best_mkfs = std::min(best_mkfs, seconds_since(t0));
  }
  if (system(("rm -rf '" + base + "'").c_str()) != 0)
    return 1;
  printf("mkfs_from: 10000 files: cp -r %.3f s, mkfs --from %.3f s\n", best_cp, best_mkfs);
  printf("ratio mkfs_from %.2f\n", best_cp / best_mkfs);
  return 0;
}
