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

// A scratch image of `bytes`, formatted by mkfs.exfat unless `options` is
// null.
class ScratchImage : public TempFile {
 public:
  ScratchImage(uint64_t bytes, const char* options) {
    EXPECT_EQ(0, truncate(path().c_str(), static_cast<off_t>(bytes)));
    Command mkfs = options ? run(tool_path("mkfs.exfat") + " " + options + " '" + path() + "'")
                           : Command{0, "", ""};
    EXPECT_EQ(0, mkfs.status) << mkfs.err;
  }
  void write_at(uint64_t offset, const std::vector<uint8_t>& data) const {
    int fd = open(path().c_str(), O_WRONLY);
    EXPECT_EQ(static_cast<ssize_t>(data.size()), pwrite(fd, data.data(), data.size(), offset));
    close(fd);
  }
};

const std::string kCli = EXVOL_CLI_BIN;

// A number or text that dump.exfat reports as "key: value".
std::string dump_text(const std::string& dump, const std::string& key) {
  std::smatch m;
  if (std::regex_search(dump, m, std::regex(key + R"([^:\n]*:[ \t]*([^\n]*))")))
    return m[1].str();
  ADD_FAILURE() << "dump.exfat reports no " << key << ":\n" << dump;
  return "0";
}
uint64_t dump_number(const std::string& dump, const std::string& key) {
  return std::stoull(dump_text(dump, key), nullptr, 0);
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

// Mounts a fresh mkfs.exfat volume read-only and read-write and checks it
// against what dump.exfat says.
void check_formatted_volume(const std::string& device, const std::string& label,
                            uint32_t sector_size, uint32_t cluster_size) {
  Command dump = run(tool_path("dump.exfat") + " '" + device + "'");
  ASSERT_EQ(0, dump.status) << dump.err;
  uint64_t sector_bits = dump_number(dump.out, "Sector Size Bits");
  ASSERT_EQ(sector_size, 1u << sector_bits);
  ASSERT_EQ(cluster_size, 1u << (sector_bits + dump_number(dump.out, "Sector per Cluster bits")));
  uint64_t clusters = dump_number(dump.out, "Cluster Count");
  uint64_t free_clusters = dump_number(dump.out, "Free Clusters");
  uint32_t serial = static_cast<uint32_t>(dump_number(dump.out, "Volume Serial"));

  MountOptions ro;
  ro.read_only = true;
  std::unique_ptr<Volume> volume;
  std::string diagnostic;
  ASSERT_FALSE(Volume::mount(device, ro, &volume, &diagnostic)) << diagnostic;
  VolumeInfo info;
  ASSERT_FALSE(volume->info(&info));
  EXPECT_EQ(label, info.label);
  EXPECT_EQ(dump_text(dump.out, "Volume label"), info.label);
  EXPECT_EQ(expected_uuid(serial), info.uuid_string());
  EXPECT_EQ(serial, info.serial_number);
  EXPECT_EQ(sector_size, info.bytes_per_sector);
  EXPECT_EQ(cluster_size, info.bytes_per_cluster);
  EXPECT_EQ(clusters, info.cluster_count);
  EXPECT_EQ(free_clusters, info.free_clusters);
  EXPECT_FALSE(info.dirty());
  StatFs st;
  ASSERT_FALSE(volume->statfs(&st));
  EXPECT_EQ(clusters, st.blocks);
  EXPECT_EQ(free_clusters, st.blocks_free);
  ASSERT_FALSE(volume->unmount());
  EXPECT_EQ(0, volume_flags_on(device) & 0x0002);

  ASSERT_FALSE(Volume::mount(device, MountOptions{}, &volume, &diagnostic)) << diagnostic;
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
  std::string label = "C" + std::to_string(cluster);
  ScratchImage image(cluster >= 65536 ? 96u << 20 : 32u << 20,
                     ("-c " + std::to_string(cluster) + " -L " + label).c_str());
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
    image_ = std::make_unique<ScratchImage>(64u << 20, nullptr);
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
// the image and the driver's reason, and the image left as it was.
TEST(DamagedImageInfo, FailsWithOneClearLineWithoutWriting) {
  if (tool_path("mkfs.exfat").empty() || tool_path("dump.exfat").empty())
    GTEST_SKIP() << "mkfs.exfat or dump.exfat is not installed";
  ScratchImage probe(16u << 20, "-c 4K");
  Command dump = run(tool_path("dump.exfat") + " '" + probe.path() + "'");
  uint64_t upcase = dump_number(dump.out, "Cluster Heap Offset") * 512 +
                    (dump_number(dump.out, "Upcase table start cluster") - 2) * 4096;
  struct Case {
    const char* what;
    uint64_t offset;
    std::vector<uint8_t> bytes;
    const char* message;
  } cases[] = {
      {"signature", 3, {'N', 'O', 'T'},
       "not an exFAT volume: its boot sector is damaged (no \"EXFAT\" name at byte 3)"},
      {"sector shift", 108, {20}, "bsBytesPerSectorShift (20) is out of range 9..16"},
      // Any other boot-sector field is covered by the checksum.
      {"checksum", 11 * 512 + 40, {0x5A}, "exfat: Boot region's checksum is invalid"},
      {"upcase table", upcase + 100, {0x12, 0x34}, "exfat: upcase checksum mismatch"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ScratchImage image(16u << 20, "-c 4K");
    image.write_at(c.offset, c.bytes);
    std::string before = slurp(image.path());
    Command info = run(kCli + " info '" + image.path() + "'");
    EXPECT_EQ(1, info.status) << "exit status (-1: killed by a signal)";
    EXPECT_TRUE(info.out.empty());
    ASSERT_FALSE(info.err.empty());
    EXPECT_EQ(info.err.find('\n'), info.err.size() - 1) << "one line: " << info.err;
    EXPECT_EQ(0u, info.err.find("exvol: " + image.path() + ": cannot mount: ")) << info.err;
    EXPECT_NE(std::string::npos, info.err.find(c.message)) << info.err;
    EXPECT_TRUE(before == slurp(image.path())) << "info mounts read-only";
  }
}

}  // namespace exvol::test
