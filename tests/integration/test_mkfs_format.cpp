// exvol's own formatter. Volumes of every cluster size, with random host
// trees copied in with `from`, must pass fsck.exfat and exvol check, mount
// through the library, take writes and read back identical; the up-case
// table it stores must expand, in the driver, to the mapping it was
// generated from.

#include <dirent.h>
#include <sys/stat.h>

#include <map>
#include <random>

#include "exfat_proto.h"
#include "exvol/mkfs.h"
#include "host/utf8.h"
#include "tests/integration/api_fixture.h"
#include "tests/unit/driver/host_mount_fixture.h"

namespace exvol::test {
namespace {

const std::string kCli = EXVOL_CLI_BIN;

// A temporary directory removed with its contents.
class TempDir {
 public:
  TempDir() {
    char templ[] = "/tmp/exvol-mkfs-XXXXXX";
    path_ = mkdtemp(templ);
  }
  ~TempDir() { run("chmod -R u+w '" + path_ + "'; rm -rf '" + path_ + "'"); }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

void expect_checks_clean(const std::string& image) {
  expect_fsck_clean(image);
  Command check = run(kCli + " check '" + image + "'");
  EXPECT_EQ(0, check.status) << check.out << check.err;
}

void write_host(const std::string& path, const std::vector<uint8_t>& data) {
  FILE* f = fopen(path.c_str(), "wb");
  ASSERT_TRUE(f) << path << ": " << strerror(errno);
  EXPECT_EQ(data.size(), data.empty() ? 0 : fwrite(data.data(), 1, data.size(), f));
  EXPECT_EQ(0, fclose(f));
}

std::unique_ptr<Volume> mount_image(const std::string& image, MountOptions o = {}) {
  o.echo_kernel_log = false;
  std::unique_ptr<Volume> v;
  std::string why;
  EXPECT_FALSE(Volume::mount(image, o, &v, &why)) << why;
  return v;
}

std::error_code put(Volume& v, const std::string& path, const std::vector<uint8_t>& data) {
  File f;
  if (std::error_code ec = v.open(path, O_WRONLY | O_CREAT | O_TRUNC, &f))
    return ec;
  size_t done = 0;
  if (std::error_code ec = f.write(data.data(), data.size(), &done))
    return ec;
  return f.close();
}

std::vector<uint8_t> get(Volume& v, const std::string& path) {
  File f;
  Stat st;
  EXPECT_FALSE(v.open(path, O_RDONLY, &f)) << path;
  EXPECT_FALSE(f.stat(&st));
  std::vector<uint8_t> data(st.size);
  size_t done = 0;
  EXPECT_FALSE(f.pread(data.data(), data.size(), 0, &done));
  EXPECT_EQ(data.size(), done) << path;
  return data;
}

// What a command line can get wrong, and what does not fit.
TEST(MkfsFormat, RefusesWhatCannotBeFormatted) {
  TempDir src;
  TempFile image;
  write_host(src.path() + "/big", std::vector<uint8_t>(3000000, 7));
  write_host(src.path() + "/Name", {});
  write_host(src.path() + "/NAME", {});
  struct Case {
    std::string args;
    int status;
    std::string message;
  } cases[] = {
      {"-s 512K", 1, "at least 1 MiB"},
      {"-s 8M -c 3000", 2, "bad cluster size"},
      {"-s 8M -c 64M", 2, "bad cluster size"},
      {"-s 8M -L TwelveChars!", 1, "11 UTF-16 units"},
      {"-s 8M --serial 123456789", 2, "bad serial"},
      {"-s 2M --from '" + src.path() + "'", 1, "differs only in case"},
      {"-s 8M --from /nonexistent", 1, "No such file"},
      {"-s 8x", 2, "bad size"},
  };
  // Each refusal leaves the volume already on the image as it was.
  MkfsOptions first;
  first.size = 4u << 20;
  first.label = "KEEP";
  ASSERT_FALSE(mkfs(image.path(), first));
  std::string before = slurp(image.path());
  for (const Case& c : cases) {
    Command r = run(kCli + " mkfs " + c.args + " '" + image.path() + "'");
    EXPECT_EQ(c.status, r.status) << c.args << ": " << r.err;
    EXPECT_NE(std::string::npos, r.err.find(c.message)) << c.args << ": " << r.err;
    bool changes = c.message == "differs only in case";  // found while writing
    EXPECT_TRUE(changes || before == slurp(image.path())) << c.args << " changed the image";
    before = slurp(image.path());
  }
  ASSERT_EQ(0, unlink((src.path() + "/NAME").c_str()));
  Command full = run(kCli + " mkfs -s 2M --from '" + src.path() + "' '" + image.path() + "'");
  EXPECT_EQ(1, full.status);
  EXPECT_NE(std::string::npos, full.err.find("no space left")) << full.err;

  // An image inside the tree is not copied into itself; one in use is not
  // formatted under its user.
  const std::string inside = src.path() + "/self.img";
  Command self = run(kCli + " mkfs -s 8M --from '" + src.path() + "' '" + inside + "'");
  EXPECT_EQ(0, self.status) << self.err;
  EXPECT_NE(std::string::npos, self.err.find("self.img: skipped: the volume being made"))
      << self.err;
  std::unique_ptr<Volume> v = mount_image(inside);
  ASSERT_TRUE(v);
  Stat st;
  EXPECT_EQ(ENOENT, v->stat("/self.img", &st).value());
  Command busy = run(kCli + " mkfs '" + inside + "'");
  EXPECT_EQ(1, busy.status);
  EXPECT_NE(std::string::npos, busy.err.find("in use by another program")) << busy.err;
}

// The stored table, as the driver expands it when mounting, is the generated mapping,
// and that mapping is a real case mapping; names found through it on the
// mounted volume hash and compare as the driver expects.
TEST(MkfsFormat, UpcaseTableExpandsToTheGeneratedMapping) {
  const std::vector<uint16_t>& map = upcase_mapping();
  ASSERT_EQ(65536u, map.size());
  std::map<uint16_t, uint16_t> samples = {{'a', 'A'},       {'z', 'Z'},       {'A', 'A'},
                                          {0xE9, 0xC9},     {0x3C9, 0x3A9},   {0x44F, 0x42F},
                                          {0xFF41, 0xFF21}, {0xD801, 0xD801}, {0xFFFF, 0xFFFF},
                                          {'1', '1'}};
  for (auto [c, up] : samples)
    EXPECT_EQ(up, map[c]) << std::hex << c;

  TempDir src;
  const std::string name = "\xC3\xA4rger-\xCF\x89.txt";  // "ärger-ω.txt"
  write_host(src.path() + "/" + name, bytes("x\n"));
  TempFile image;
  MkfsOptions o;
  o.size = 8u << 20;
  o.from = src.path();
  std::string why;
  ASSERT_FALSE(mkfs(image.path(), o, nullptr, &why)) << why;

  // The up-case entry of the root directory, and the table it points to.
  std::vector<uint8_t> img(o.size);
  int fd = open(image.path().c_str(), O_RDONLY);
  ASSERT_EQ(static_cast<ssize_t>(img.size()), pread(fd, img.data(), img.size(), 0));
  close(fd);
  auto* bs = reinterpret_cast<const exfat_boot_sector*>(img.data());
  uint64_t heap = uint64_t{le32dec(bs->bsClusterHeapOffset)} << bs->bsBytesPerSectorShift;
  uint32_t cluster_bytes = 1u << (bs->bsBytesPerSectorShift + bs->bsSectorsPerClusterShift);
  auto at = [&](uint32_t c) { return heap + uint64_t{c - 2} * cluster_bytes; };
  const uint8_t* root = &img[at(le32dec(bs->bsFirstClusterOfRootDirectory))];
  const uint8_t* entry = root;
  while (entry[0] != EXFAT_ENTRY_UPCASE && entry < root + cluster_bytes)
    entry += EXFAT_ENTRY_SIZE;
  ASSERT_EQ(EXFAT_ENTRY_UPCASE, entry[0]);
  const uint8_t* stored = &img[at(le32dec(entry + 20))];
  uint32_t length = static_cast<uint32_t>(le64dec(entry + 24));
  EXPECT_LT(length, 8000u) << "identity stretches are not compressed";
  EXPECT_EQ(le32dec(entry + 4), exfat_upcase_checksum(stored, length));

  // The table the driver made of it when mounting (the library has loaded
  // the driver module by its first mount).
  std::unique_ptr<Volume> v = mount_image(image.path());
  ASSERT_TRUE(v);
  {
    MountedVolume driver;
    ASSERT_EQ(0, driver.load(img));
    ASSERT_EQ(0, driver.mount(MNT_RDONLY));
    EXPECT_EQ(map, std::vector<uint16_t>(driver.xm->xm_upcase, driver.xm->xm_upcase + 65536));
  }
  Stat st;
  EXPECT_FALSE(v->stat("/\xC3\x84RGER-\xCE\xA9.TXT", &st));  // "ÄRGER-Ω.TXT"
  EXPECT_EQ(2u, st.size);
}

// --- Random trees ------------------------------------------------------------------

struct Node {
  std::string path;  // relative, '/'-separated
  char type;         // 'f' file, 'd' directory, 'l' link
  std::vector<uint8_t> data;
  std::string target;
  bool read_only = false;
  timespec modified{}, accessed{};
};

// Names: ASCII, accented, Greek, CJK and an emoji outside the BMP, in
// mixed case, unique in any case through a counter.
std::string random_name(std::mt19937& rng, int serial) {
  static const char* pieces[] = {"a",  "B",  "readme", "Data", "\xC3\xA9t\xC3\xA9",
                                 "\xC3\x9F", "\xCE\xA9mega", "\xE6\x97\xA5\xE6\x9C\xAC",
                                 "\xF0\x9F\x98\x80", " sp", ".dot", "x-y_z"};
  std::string name;
  for (int n = 1 + static_cast<int>(rng() % 3); n > 0; n--)
    name += pieces[rng() % (sizeof(pieces) / sizeof(pieces[0]))];
  return name + "~" + std::to_string(serial);
}

timespec random_time(std::mt19937& rng) {
  // 1980-01-02 .. 2100-01-01, any nanosecond.
  int64_t lo = 315619200, hi = 4102444800;
  return {static_cast<time_t>(lo + static_cast<int64_t>(rng() % static_cast<uint64_t>(hi - lo))),
          static_cast<long>(rng() % 1000000000)};
}

std::vector<Node> make_tree(const std::string& root, std::mt19937& rng, uint32_t cluster) {
  std::vector<Node> nodes;
  std::vector<std::string> dirs = {""};
  for (int i = 0; i < 60; i++) {
    Node n;
    const std::string& parent = dirs[rng() % dirs.size()];
    n.path = (parent.empty() ? "" : parent + "/") + random_name(rng, i);
    std::string host = root + "/" + n.path;
    int kind = static_cast<int>(rng() % 10);
    if (kind < 2 && parent.size() < 120) {
      n.type = 'd';
      EXPECT_EQ(0, mkdir(host.c_str(), 0755)) << host;
      dirs.push_back(n.path);
    } else if (kind < 4) {
      n.type = 'l';
      n.target = rng() % 2 ? "../" + random_name(rng, i) : std::string(1 + rng() % 1024, 'q');
      EXPECT_EQ(0, symlink(n.target.c_str(), host.c_str())) << host;
    } else {
      n.type = 'f';
      size_t sizes[] = {0, 1, cluster - 1, cluster, size_t{cluster} * 3 + 7, 100000};
      n.data = pattern(sizes[rng() % 6], i);
      write_host(host, n.data);
      n.read_only = rng() % 4 == 0;
    }
    n.modified = random_time(rng);
    n.accessed = random_time(rng);
    timespec times[2] = {n.accessed, n.modified};
    EXPECT_EQ(0, utimensat(AT_FDCWD, host.c_str(), times, AT_SYMLINK_NOFOLLOW)) << host;
    if (n.read_only) {
      EXPECT_EQ(0, chmod(host.c_str(), 0444));
    }
    nodes.push_back(n);
  }
  // Directory times last: filling a directory changes them.
  for (Node& n : nodes) {
    if (n.type != 'd')
      continue;
    timespec times[2] = {n.accessed, n.modified};
    EXPECT_EQ(0, utimensat(AT_FDCWD, (root + "/" + n.path).c_str(), times, 0));
  }
  return nodes;
}

int64_t ns(const timespec& t) { return int64_t{t.tv_sec} * 1000000000 + t.tv_nsec; }

void expect_node(Volume& v, const Node& n) {
  SCOPED_TRACE(n.path);
  Stat st;
  ASSERT_FALSE(v.lstat("/" + n.path, &st));
  EXPECT_EQ(n.type == 'd' ? FileType::Directory : n.type == 'l' ? FileType::Symlink
                                                                  : FileType::Regular,
            st.type);
  // Modification times keep 10 ms, access times 2 s.
  EXPECT_EQ(ns(n.modified) / 10000000, ns(st.modified) / 10000000);
  EXPECT_EQ(n.accessed.tv_sec / 2 * 2, st.accessed.tv_sec);
  if (n.type == 'f') {
    EXPECT_EQ(n.data, get(v, "/" + n.path));
    EXPECT_EQ(n.read_only, (st.flags & kFlagImmutable) != 0);
  } else if (n.type == 'l') {
    std::string target;
    EXPECT_FALSE(v.readlink("/" + n.path, &target));
    EXPECT_EQ(n.target, target);
  }
}

// Every cluster size from 512 bytes to 32 MiB, the smaller ones with a
// random tree copied in (the larger on the smallest volume that holds the
// system files and a few clusters more), each in a random time zone: the
// checkers pass, the volume mounts and takes writes, and everything reads
// back identical.
TEST(MkfsFormat, RandomTreesOfEveryClusterSizeReadBackIdentical) {
  for (uint32_t shift = 9; shift <= 25; shift++) {
    SCOPED_TRACE("cluster size " + std::to_string(1u << shift));
    const uint32_t cluster = 1u << shift;
    std::mt19937 rng(shift);
    TempDir src;
    const bool tree = shift == 9 || shift == 12 || shift == 16;
    std::vector<Node> nodes = tree ? make_tree(src.path(), rng, cluster) : std::vector<Node>();
    ASSERT_EQ(0, mkfifo((src.path() + "/fifo").c_str(), 0644));  // skipped with a warning
    const int32_t wests[] = {0, -19800, 25200};
    MountOptions mo;
    mo.seconds_west = wests[rng() % 3];
    TempFile image;
    MkfsOptions o;
    o.size = tree ? 64u << 20 : std::max<uint64_t>(4u << 20, uint64_t{cluster} * 8 + (2u << 20));
    o.cluster_size = cluster;
    o.label = "Vol" + std::to_string(shift);
    o.serial = 0x12340000u + shift;
    o.from = src.path();
    o.seconds_west = mo.seconds_west;
    std::vector<std::string> warnings;
    o.warn = [&](const std::string& w) { warnings.push_back(w); };
    MkfsResult r;
    std::string why;
    ASSERT_FALSE(mkfs(image.path(), o, &r, &why)) << why;
    EXPECT_EQ(1u, warnings.size());
    EXPECT_EQ(cluster, r.bytes_per_cluster);
    EXPECT_EQ(0u, (uint64_t{r.heap_offset} * 512) % std::min(cluster, 1u << 20));
    expect_checks_clean(image.path());

    std::unique_ptr<Volume> v = mount_image(image.path(), mo);
    ASSERT_TRUE(v);
    VolumeInfo info;
    ASSERT_FALSE(v->info(&info));
    EXPECT_EQ(o.label, info.label);
    EXPECT_EQ(*o.serial, info.serial_number);
    EXPECT_EQ(cluster, info.bytes_per_cluster);
    EXPECT_EQ(r.cluster_count, info.cluster_count);
    EXPECT_EQ(info.cluster_count - r.used_clusters, info.free_clusters);
    std::vector<uint8_t> data = pattern(std::min<size_t>(size_t{cluster} * 2 + 5, 3u << 20), shift);
    ASSERT_FALSE(v->mkdir("/Sub"));
    ASSERT_FALSE(put(*v, "/Sub/file.bin", data));
    ASSERT_FALSE(v->unmount());
    expect_checks_clean(image.path());

    mo.read_only = true;
    v = mount_image(image.path(), mo);
    ASSERT_TRUE(v);
    EXPECT_EQ(data, get(*v, "/SUB/FILE.BIN"));
    std::map<std::string, std::vector<std::string>> expected;  // directory -> names
    expected[""] = {"Sub"};
    expected["Sub"] = {"file.bin"};
    for (const Node& n : nodes) {
      size_t slash = n.path.rfind('/');
      expected[slash == std::string::npos ? "" : n.path.substr(0, slash)].push_back(
          n.path.substr(slash == std::string::npos ? 0 : slash + 1));
      if (n.type == 'd')
        expected[n.path];
      expect_node(*v, n);
    }
    for (auto& [dir, names] : expected) {
      std::vector<DirEntry> entries;
      ASSERT_FALSE(v->list("/" + dir, &entries)) << dir;
      std::vector<std::string> listed;
      for (const DirEntry& e : entries)
        listed.push_back(e.name);
      std::sort(listed.begin(), listed.end());
      std::sort(names.begin(), names.end());
      EXPECT_EQ(names, listed) << "in /" << dir;
    }
  }
}

}  // namespace
}  // namespace exvol::test
