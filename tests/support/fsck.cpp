#include "tests/support/fsck.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <set>
#include <stdexcept>

namespace exvol::test {

namespace {

bool executable(const std::string& path) {
  return access(path.c_str(), X_OK) == 0;
}

// The geometry of an image, from its boot sector, and reads by byte offset.
class Image {
 public:
  explicit Image(const std::string& path) : fd_(open(path.c_str(), O_RDONLY)) {
    uint8_t boot[512];
    ok_ = fd_ >= 0 && read(0, boot, sizeof boot) && boot[108] >= 9 && boot[108] <= 12 &&
          boot[108] + boot[109] <= 25;
    if (!ok_)
      return;
    sector_ = 1u << boot[108];
    cluster_ = sector_ << boot[109];
    fat_ = uint64_t{le32(boot + 80)} * sector_;
    heap_ = uint64_t{le32(boot + 88)} * sector_;
    clusters_ = le32(boot + 92);
  }
  ~Image() {
    if (fd_ >= 0)
      close(fd_);
  }
  Image(const Image&) = delete;
  Image& operator=(const Image&) = delete;

  bool ok() const { return ok_; }
  uint32_t cluster_bytes() const { return cluster_; }
  bool read(uint64_t at, uint8_t* to, size_t n) const {
    return pread(fd_, to, n, static_cast<off_t>(at)) == static_cast<ssize_t>(n);
  }
  // The cluster holding byte `at` of the heap, or 0.
  uint32_t cluster_of(uint64_t at) const {
    if (at < heap_ || (at - heap_) / cluster_ >= clusters_)
      return 0;
    return static_cast<uint32_t>((at - heap_) / cluster_) + 2;
  }
  uint64_t offset_of(uint32_t cluster) const { return heap_ + uint64_t{cluster - 2} * cluster_; }
  uint32_t fat(uint32_t cluster) const {
    uint8_t b[4] = {};
    return read(fat_ + uint64_t{cluster} * 4, b, 4) ? le32(b) : 0;
  }
  bool valid(uint32_t cluster) const { return cluster >= 2 && cluster - 2 < clusters_; }

 private:
  static uint32_t le32(const uint8_t* p) {
    return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
  }
  int fd_;
  bool ok_ = false;
  uint32_t sector_ = 0, cluster_ = 0, clusters_ = 0;
  uint64_t fat_ = 0, heap_ = 0;
};

// The entry set whose File entry is at byte `at`, if it runs past the end
// of its cluster into a next cluster (by the FAT) that does not follow it,
// or on past the end of that one too, and its checksum is right when read
// along the chain: the byte offsets of its entries in later clusters go
// into *continued. False otherwise.
bool split_set_is_valid(const Image& img, uint64_t at, std::set<uint64_t>* continued) {
  uint8_t entry[32];
  uint32_t c = img.cluster_of(at);
  if (c == 0 || !img.read(at, entry, sizeof entry) || entry[0] != 0x85)
    return false;
  const uint32_t count = entry[1] + 1u;
  const uint64_t cluster_end = img.offset_of(c) + img.cluster_bytes();
  const uint32_t next = img.fat(c);
  const bool past_two = at + 32u * count > cluster_end + img.cluster_bytes();
  if (at + 32u * count <= cluster_end || !img.valid(next) || (next == c + 1 && !past_two))
    return false;
  uint16_t sum = 0;
  uint64_t pos = at;
  uint32_t cluster = c;
  for (uint32_t i = 0; i < count; i++, pos += 32) {
    if (pos == img.offset_of(cluster) + img.cluster_bytes()) {
      cluster = img.fat(cluster);  // a set of 256 entries may span several
      if (!img.valid(cluster))
        return false;
      pos = img.offset_of(cluster);
    }
    if (cluster != c)
      continued->insert(pos);
    if (!img.read(pos, entry, sizeof entry))
      return false;
    for (uint32_t b = 0; b < 32; b++) {
      if (i == 0 && (b == 2 || b == 3))
        continue;
      sum = static_cast<uint16_t>(((sum & 1) ? 0x8000 : 0) + (sum >> 1) + entry[b]);
    }
  }
  uint8_t first[32];
  return img.read(at, first, sizeof first) && (first[2] | first[3] << 8) == sum;
}

}  // namespace

bool fsck_only_misreads_split_sets(const std::string& image, const std::string& output) {
  Image img(image);
  if (!img.ok())
    return false;
  std::set<uint64_t> continued;  // where the split sets' later entries lie
  std::vector<uint64_t> orphans;
  int errors = 0;
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("ERROR: ", 0) != 0)
      continue;
    errors++;
    size_t at = line.rfind(" at 0x");
    if (at == std::string::npos)
      return false;
    uint64_t offset = strtoull(line.c_str() + at + 6, nullptr, 16);
    if (line.find("the checksum of a file is wrong") != std::string::npos) {
      if (!split_set_is_valid(img, offset, &continued))
        return false;
    } else if (line.find("unknown entry type") != std::string::npos) {
      orphans.push_back(offset);
    } else {
      return false;
    }
  }
  for (uint64_t offset : orphans) {
    if (continued.count(offset) == 0)
      return false;
  }
  return errors > 0;
}

// Searches PATH first, then the system administration directories that a
// non-root PATH often leaves out.
std::string fsck_program() {
  std::vector<std::string> dirs;
  if (const char* path = getenv("PATH")) {
    std::stringstream ss(path);
    for (std::string dir; std::getline(ss, dir, ':');)
      dirs.push_back(dir);
  }
  dirs.push_back("/usr/sbin");
  dirs.push_back("/sbin");
  for (const std::string& dir : dirs) {
    std::string candidate = dir + "/fsck.exfat";
    if (!dir.empty() && executable(candidate))
      return candidate;
  }
  return "";
}

TempFile::TempFile() {
  std::string pattern = (std::filesystem::temp_directory_path() / "exvol-test-XXXXXX").string();
  int fd = mkstemp(pattern.data());
  if (fd < 0)
    throw std::runtime_error("mkstemp failed");
  close(fd);
  path_ = pattern;
}

TempFile::~TempFile() {
  unlink(path_.c_str());
}

void TempFile::write(const std::vector<uint8_t>& data) const {
  std::ofstream out(path_, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
  if (!out)
    throw std::runtime_error("can't write " + path_);
}

FsckResult run_fsck(const std::vector<uint8_t>& image) {
  FsckResult result;
  std::string program = fsck_program();
  if (program.empty()) {
    result.output = "fsck.exfat not installed";
    return result;
  }
  TempFile file;
  file.write(image);
  return run_fsck_file(file.path());
}

FsckResult run_fsck_file(const std::string& path) {
  FsckResult result;
  std::string program = fsck_program();
  if (program.empty()) {
    result.output = "fsck.exfat not installed";
    return result;
  }
  std::string command = "timeout 120 " + program + " -n '" + path + "' 2>&1";
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe)
    throw std::runtime_error("popen failed");
  constexpr size_t kMaxOutput = 1 << 20;
  std::array<char, 512> chunk;
  size_t n;
  while (result.output.size() < kMaxOutput &&
         (n = fread(chunk.data(), 1, chunk.size(), pipe)) > 0)
    result.output.append(chunk.data(), n);
  bool cut = result.output.size() >= kMaxOutput;
  int status = pclose(pipe);  // a checker still printing gets SIGPIPE
  result.status = WIFEXITED(status) && !cut ? WEXITSTATUS(status) : -1;
  if (result.status == -1 || (WIFEXITED(status) && WEXITSTATUS(status) == 124))
    result.output += "\n(fsck.exfat did not finish)";
  return result;
}

}  // namespace exvol::test
