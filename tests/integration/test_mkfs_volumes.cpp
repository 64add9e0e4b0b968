// Volumes made by mkfs.exfat, mounted through libexvol: every cluster size
// from 512 bytes to 1 MiB on 512-byte sectors, and 4096-byte sectors on a
// loop device. What the library reports must match what the format tools
// say about the same image; a read-write mount must mark the volume dirty
// on disk and a clean unmount must clear it, leaving a volume the checker
// finds clean. `exvol info` must describe every such image and fail with
// one clear line on damaged ones.

#include <md5.h>

#include <regex>

#include "tests/integration/api_fixture.h"

namespace exvol::test {
namespace {

// A scratch image of `bytes` (zeros), removed at the end.
class ScratchImage : public TempFile {
 public:
  explicit ScratchImage(uint64_t bytes) {
    EXPECT_EQ(0, truncate(path().c_str(), static_cast<off_t>(bytes)));
  }
  std::vector<uint8_t> read(uint64_t offset, size_t length) const {
    std::vector<uint8_t> data(length);
    int fd = open(path().c_str(), O_RDONLY);
    EXPECT_EQ(static_cast<ssize_t>(length), pread(fd, data.data(), length, offset));
    close(fd);
    return data;
  }
  void write_at(uint64_t offset, const std::vector<uint8_t>& data) const {
    int fd = open(path().c_str(), O_WRONLY);
    EXPECT_EQ(static_cast<ssize_t>(data.size()), pwrite(fd, data.data(), data.size(), offset));
    close(fd);
  }
};

const std::string kCli = EXVOL_CLI_BIN;

// What dump.exfat reports about a volume.
struct Dump {
  uint64_t clusters = 0, free_clusters = 0;
  uint32_t serial = 0;
  unsigned sector_bits = 0, cluster_bits = 0;
  std::string label;
};

bool parse_dump(const std::string& text, Dump* d) {
  std::smatch m;
  auto number = [&](const char* key, uint64_t* v) {
    std::regex re(std::string(key) + R"(:\s*(0x[0-9a-fA-F]+|\d+))");
    if (!std::regex_search(text, m, re))
      return false;
    *v = std::stoull(m[1].str(), nullptr, 0);
    return true;
  };
  uint64_t serial = 0, sector_bits = 0, cluster_bits = 0;
  bool ok = number("Cluster Count", &d->clusters) && number("Free Clusters", &d->free_clusters) &&
            number("Volume Serial", &serial) && number("Sector Size Bits", &sector_bits) &&
            number("Sector per Cluster bits", &cluster_bits);
  d->serial = static_cast<uint32_t>(serial);
  d->sector_bits = static_cast<unsigned>(sector_bits);
  d->cluster_bits = static_cast<unsigned>(cluster_bits);
  if (std::regex_search(text, m, std::regex(R"(Volume label:\s*([^\n]*))")))
    d->label = m[1].str();
  return ok;
}

// The volume UUID the format's serial number names: an MD5 (version 3) UUID
// of the four serial-number bytes as stored, in the namespace
// b3e20f39-f292-11d6-97a4-00306543ecac.
std::string expected_uuid(uint32_t serial) {
  const uint8_t ns[16] = {0xb3, 0xe2, 0x0f, 0x39, 0xf2, 0x92, 0x11, 0xd6,
                          0x97, 0xa4, 0x00, 0x30, 0x65, 0x43, 0xec, 0xac};
  uint8_t name[4] = {static_cast<uint8_t>(serial), static_cast<uint8_t>(serial >> 8),
                     static_cast<uint8_t>(serial >> 16), static_cast<uint8_t>(serial >> 24)};
  MD5_CTX ctx;
  uint8_t d[16];
  MD5Init(&ctx);
  MD5Update(&ctx, ns, sizeof(ns));
  MD5Update(&ctx, name, sizeof(name));
  MD5Final(d, &ctx);
  d[6] = static_cast<uint8_t>((d[6] & 0x0F) | 0x30);
  d[8] = static_cast<uint8_t>((d[8] & 0x3F) | 0x80);
  char s[37];
  snprintf(s, sizeof(s), "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X",
           d[0], d[1], d[2], d[3], d[4], d[5], d[6], d[7], d[8], d[9], d[10], d[11], d[12], d[13],
           d[14], d[15]);
  return s;
}

uint16_t volume_flags_on(const std::string& device) {
  std::string boot = slurp(device).substr(106, 2);  // VolumeFlags
  return static_cast<uint16_t>(uint8_t(boot[0]) | uint8_t(boot[1]) << 8);
}

// Mounts `device` read-only and read-write and checks it against the
// format tools. The device holds a fresh mkfs.exfat volume.
void check_formatted_volume(const std::string& device, const std::string& label,
                            uint32_t sector_size, uint32_t cluster_size) {
  Command dump = run(tool_path("dump.exfat") + " '" + device + "'");
  ASSERT_EQ(0, dump.status) << dump.err;
  Dump d;
  ASSERT_TRUE(parse_dump(dump.out, &d)) << dump.out;
  ASSERT_EQ(sector_size, 1u << d.sector_bits);
  ASSERT_EQ(cluster_size, 1u << (d.sector_bits + d.cluster_bits));

  MountOptions ro;
  ro.read_only = true;
  std::unique_ptr<Volume> volume;
  std::string diagnostic;
  ASSERT_FALSE(Volume::mount(device, ro, &volume, &diagnostic)) << diagnostic;
  VolumeInfo info;
  ASSERT_FALSE(volume->info(&info));
  EXPECT_EQ(label, info.label);
  EXPECT_EQ(d.label, info.label);
  EXPECT_EQ(expected_uuid(d.serial), info.uuid_string());
  EXPECT_EQ(d.serial, info.serial_number);
  EXPECT_EQ(sector_size, info.bytes_per_sector);
  EXPECT_EQ(cluster_size, info.bytes_per_cluster);
  EXPECT_EQ(d.clusters, info.cluster_count);
  EXPECT_EQ(d.free_clusters, info.free_clusters);
  EXPECT_FALSE(info.dirty());
  StatFs st;
  ASSERT_FALSE(volume->statfs(&st));
  EXPECT_EQ(d.clusters, st.blocks);
  EXPECT_EQ(d.free_clusters, st.blocks_free);
  ASSERT_FALSE(volume->unmount());
  EXPECT_EQ(0, volume_flags_on(device) & 0x0002);

  MountOptions rw;
  ASSERT_FALSE(Volume::mount(device, rw, &volume, &diagnostic)) << diagnostic;
  EXPECT_EQ(0x0002, volume_flags_on(device) & 0x0002) << "mounted read-write: dirty on disk";
  ASSERT_FALSE(volume->info(&info));
  EXPECT_TRUE(info.dirty());
  ASSERT_FALSE(volume->unmount());
  EXPECT_EQ(0, volume_flags_on(device) & 0x0006) << "a clean unmount clears the mark";

  expect_fsck_clean(device);
}

}  // namespace

class MkfsVolume : public ::testing::TestWithParam<uint32_t> {
 protected:
  void SetUp() override {
    if (tool_path("mkfs.exfat").empty() || tool_path("dump.exfat").empty() ||
        tool_path("fsck.exfat").empty())
      GTEST_SKIP() << "mkfs.exfat, dump.exfat or fsck.exfat is not installed";
  }
};

TEST_P(MkfsVolume, MountsAndMatchesTheFormatTools) {
  uint32_t cluster = GetParam();
  ScratchImage image(cluster >= 65536 ? 96u << 20 : 32u << 20);
  std::string label = "C" + std::to_string(cluster);
  Command mkfs = run(tool_path("mkfs.exfat") + " -c " + std::to_string(cluster) + " -L " + label +
                     " '" + image.path() + "'");
  ASSERT_EQ(0, mkfs.status) << mkfs.out << mkfs.err;
  check_formatted_volume(image.path(), label, 512, cluster);

  Command info = run(kCli + " info --json '" + image.path() + "'");
  EXPECT_EQ(0, info.status) << info.err;
  EXPECT_TRUE(info.err.empty()) << info.err;
  EXPECT_NE(std::string::npos, info.out.find("\"label\": \"" + label + "\""));
  EXPECT_NE(std::string::npos,
            info.out.find("\"bytes_per_cluster\": " + std::to_string(cluster) + ","));
  Command human = run(kCli + " info '" + image.path() + "'");
  EXPECT_EQ(0, human.status) << human.err;
  EXPECT_NE(std::string::npos, human.out.find("Label:           " + label + "\n"));
}

INSTANTIATE_TEST_SUITE_P(ClusterSizes, MkfsVolume,
                         ::testing::Values(512u, 1024u, 2048u, 4096u, 8192u, 16384u, 32768u,
                                           65536u, 131072u, 262144u, 524288u, 1048576u));

// 4096-byte sectors need a block device whose logical block is 4096 bytes:
// a loop device over a scratch image.
class LoopDevice : public ::testing::Test {
 protected:
  void SetUp() override {
    if (tool_path("mkfs.exfat").empty() || tool_path("losetup").empty())
      GTEST_SKIP() << "mkfs.exfat or losetup is not installed";
    image_ = std::make_unique<ScratchImage>(64u << 20);
    Command attach =
        run(tool_path("losetup") + " -f --show --sector-size 4096 '" + image_->path() + "'");
    if (attach.status != 0 || attach.out.empty())
      GTEST_SKIP() << "no loop device with 4096-byte sectors here: " << attach.err;
    device_ = attach.out.substr(0, attach.out.find('\n'));
  }
  void TearDown() override {
    if (!device_.empty())
      run(tool_path("losetup") + " -d " + device_);
  }

  std::unique_ptr<ScratchImage> image_;
  std::string device_;
};

TEST_F(LoopDevice, FourKilobyteSectorsMount) {
  Command mkfs = run(tool_path("mkfs.exfat") + " -c 16K -L SECTOR4K " + device_);
  ASSERT_EQ(0, mkfs.status) << mkfs.err;
  check_formatted_volume(device_, "SECTOR4K", 4096, 16384);

  // The same volume read from the image file, a device of 512-byte blocks:
  // the driver raises the block size to the sector size.
  run(tool_path("losetup") + " -d " + device_);
  device_.clear();
  MountOptions ro;
  ro.read_only = true;
  std::unique_ptr<Volume> volume;
  std::string diagnostic;
  ASSERT_FALSE(Volume::mount(image_->path(), ro, &volume, &diagnostic)) << diagnostic;
  EXPECT_EQ("exfat_mount_internal: Changed logical block size to 4096", diagnostic);
  VolumeInfo info;
  ASSERT_FALSE(volume->info(&info));
  EXPECT_EQ("SECTOR4K", info.label);
  EXPECT_EQ(4096u, info.bytes_per_sector);
}

// `exvol info` on damaged images: exit status 1, one line on stderr naming
// the image and, where the driver said why, its message.
class DamagedImageInfo : public ::testing::Test {
 protected:
  void SetUp() override {
    if (tool_path("mkfs.exfat").empty())
      GTEST_SKIP() << "mkfs.exfat is not installed";
  }
};

TEST_F(DamagedImageInfo, FailsWithOneClearLine) {
  struct Case {
    const char* what;
    uint64_t offset;
    std::vector<uint8_t> bytes;
    const char* message;  // expected in the line, "" for none
  } cases[] = {
      {"signature", 3, {'N', 'O', 'T'}, "Invalid argument"},
      {"sector shift", 108, {20}, "bsBytesPerSectorShift (20) is out of range 9..16"},
      // Any other boot-sector field is covered by the checksum.
      {"checksum", 11 * 512 + 40, {0x5A}, "exfat: Boot region's checksum is invalid"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ScratchImage image(16u << 20);
    ASSERT_EQ(0, run(tool_path("mkfs.exfat") + " '" + image.path() + "'").status);
    image.write_at(c.offset, c.bytes);
    Command info = run(kCli + " info '" + image.path() + "'");
    EXPECT_EQ(1, info.status) << "exit status (-1: killed by a signal)";
    EXPECT_TRUE(info.out.empty());
    ASSERT_FALSE(info.err.empty());
    EXPECT_EQ(info.err.find('\n'), info.err.size() - 1) << "one line: " << info.err;
    EXPECT_EQ(0u, info.err.find("exvol: " + image.path() + ": cannot mount: ")) << info.err;
    EXPECT_NE(std::string::npos, info.err.find(c.message)) << info.err;
  }
}

TEST_F(DamagedImageInfo, UpcaseDamageIsReportedWithoutWriting) {
  ScratchImage image(16u << 20);
  ASSERT_EQ(0, run(tool_path("mkfs.exfat") + " -c 4K '" + image.path() + "'").status);
  Command dump = run(tool_path("dump.exfat") + " '" + image.path() + "'");
  std::smatch m;
  ASSERT_TRUE(std::regex_search(dump.out, m, std::regex(R"(Upcase table start cluster:\s*(\d+))")));
  uint64_t cluster = std::stoull(m[1].str());
  ASSERT_TRUE(std::regex_search(dump.out, m, std::regex(R"(Cluster Heap Offset[^:]*:\s*(\d+))")));
  uint64_t heap = std::stoull(m[1].str()) * 512;
  image.write_at(heap + (cluster - 2) * 4096 + 100, {0x12, 0x34});
  std::vector<uint8_t> before = image.read(0, 4096);

  Command info = run(kCli + " info '" + image.path() + "'");
  EXPECT_EQ(1, info.status);
  EXPECT_NE(std::string::npos, info.err.find("exfat: upcase checksum mismatch")) << info.err;
  EXPECT_EQ(before, image.read(0, 4096)) << "info mounts read-only";
}

}  // namespace exvol::test
