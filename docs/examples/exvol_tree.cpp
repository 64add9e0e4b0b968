// exvol_tree: prints the tree of an exFAT image with the size of each file.
// A small program against the installed libexvol; build it with
//   c++ -std=c++20 exvol_tree.cpp $(pkg-config --cflags --libs exvol)
#include <exvol/volume.h>

#include <cstdio>
#include <string>

namespace {

// Walks `dir` depth first; returns the first error met.
std::error_code print_tree(exvol::Volume& volume, const std::string& dir, int depth) {
  std::vector<exvol::DirEntry> entries;
  if (std::error_code ec = volume.list(dir, &entries))
    return ec;
  for (const exvol::DirEntry& entry : entries) {
    std::string path = dir == "/" ? "/" + entry.name : dir + "/" + entry.name;
    exvol::Stat st;
    if (std::error_code ec = volume.lstat(path, &st))
      return ec;
    if (entry.type != exvol::FileType::Directory) {
      std::printf("%*s%s  %llu\n", depth * 2, "", entry.name.c_str(),
                  static_cast<unsigned long long>(st.size));
      continue;
    }
    std::printf("%*s%s/\n", depth * 2, "", entry.name.c_str());
    if (std::error_code ec = print_tree(volume, path, depth + 1))
      return ec;
  }
  return {};
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s IMAGE\n", argv[0]);
    return 2;
  }
  exvol::MountOptions options;
  options.read_only = true;
  options.echo_kernel_log = false;
  std::unique_ptr<exvol::Volume> volume;
  std::string why;
  if (std::error_code ec = exvol::Volume::mount(argv[1], options, &volume, &why)) {
    std::fprintf(stderr, "%s: %s%s%s\n", argv[1], ec.message().c_str(), why.empty() ? "" : ": ",
                 why.c_str());
    return 1;
  }
  std::error_code ec = print_tree(*volume, "/", 0);
  if (ec)
    std::fprintf(stderr, "%s: %s\n", argv[1], ec.message().c_str());
  if (std::error_code unmounted = volume->unmount(); unmounted && !ec)
    ec = unmounted;
  return ec ? 1 : 0;
}
