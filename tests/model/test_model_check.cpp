// The model checker's suites. Each runs a fixed set of seeds; with
// EXVOL_MODEL_SECONDS set (make soak) each runs fresh seeds for that long,
// and EXVOL_MODEL_SEED runs one seed. A failure prints the seed, the
// command that replays it and, where the mode allows, the sequence shrunk
// to a short test case.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/model/model.h"
#include "tests/model/modes.h"
#include "tests/model/names.h"

using namespace exvol;
using namespace exvol::model;

namespace {

std::string suite_name() {
  return ::testing::UnitTest::GetInstance()->current_test_info()->test_suite_name();
}

// Runs the seeds; the first failure is reported (shrunk in the modes that
// replay) and ends the test.
void run_seeds(const std::vector<uint64_t>& seeds,
               const std::function<RunResult(uint64_t, int)>& run, int steps,
               std::optional<ModeKind> shrinkable) {
  std::string skipped;
  for_each_seed(seeds, [&](uint64_t seed) {
    RunResult r = run(seed, steps);
    skipped = r.skipped;
    if (!r.skipped.empty())
      return false;
    if (!r.fault.empty()) {
      std::optional<Mode> mode;
      if (shrinkable == ModeKind::Geometry)
        mode = geometry_mode(seed);
      else if (shrinkable)
        mode = Mode{*shrinkable, 0, false, seed};
      ADD_FAILURE() << report(suite_name(), seed, r, mode);
      return false;
    }
    return true;
  });
  if (!skipped.empty())
    GTEST_SKIP() << skipped;
}

std::vector<uint64_t> seed_range(uint64_t first, uint64_t count) {
  std::vector<uint64_t> seeds;
  for (uint64_t i = 0; i < count; i++)
    seeds.push_back(first + i);
  return seeds;
}

}  // namespace

// Every volume shape (seed % shapes picks it), with and without access
// times.
class ModelCheckGeometry : public ::testing::TestWithParam<uint64_t> {};

TEST_P(ModelCheckGeometry, RandomOperationsMatchTheModel) {
  std::vector<uint64_t> seeds = seed_range(GetParam() * 8, 8);
  if (GetParam() == 2)
    seeds.push_back(584233224);  // a set continued in a non-adjacent cluster (fsck.exfat misreads it)
  run_seeds(
      seeds,
      [](uint64_t seed, int steps) { return run_geometry(seed, steps); }, 250, ModeKind::Geometry);
}

// Seed 6: 2 MiB clusters.
INSTANTIATE_TEST_SUITE_P(Seeds, ModelCheckGeometry, ::testing::Values(0, 1, 2, 6));

// One directory of hundreds of entries that the operations keep changing,
// so that its index is built, updated, found stale or evicted along the way.
TEST(ModelCheckLargeDirectory, RandomOperationsMatchTheModel) {
  run_seeds(
      seed_range(100, 4),
      [](uint64_t seed, int steps) { return run_large_directory(seed, steps, 300); }, 250,
      ModeKind::Geometry);
}

class ModelCheckPowerCut : public ::testing::TestWithParam<uint64_t> {};

TEST_P(ModelCheckPowerCut, SyncedStateSurvivesACut) {
  std::vector<uint64_t> seeds = seed_range(1000 + GetParam() * 10, 10);
  if (GetParam() == 0) {
    // A directory's fsync wrote its blocks before the allocation caches; a
    // rename cut short (two entries for one file); fsck.exfat's misread of
    // a synced directory's set split across clusters.
    for (uint64_t seed : {272922202u, 297071122u, 467157510u})
      seeds.push_back(seed);
  }
  if (GetParam() == 1) {
    // Clusters freed by a truncation or removal reached the disk (or
    // another file) before the entry that owned them was rewritten.
    for (uint64_t seed : {649857030u, 917091746u, 834061822u})
      seeds.push_back(seed);
  }
  run_seeds(
      seeds, [](uint64_t seed, int steps) { return run_power_cut(seed, steps); }, 120,
      ModeKind::PowerCut);
}

INSTANTIATE_TEST_SUITE_P(Seeds, ModelCheckPowerCut, ::testing::Values(0, 1));

TEST(ModelCheckIoErrors, ErrorsComeBackAsErrnos) {
  std::vector<uint64_t> seeds = seed_range(2000, 12);
  seeds.push_back(23273137);  // a truncation whose FAT read failed freed a cluster the file kept
  run_seeds(seeds, run_io_errors, 120, std::nullopt);
}

TEST(ModelCheckDamaged, DamagedVolumesNeitherCrashNorHang) {
  std::vector<uint64_t> seeds = seed_range(3000, 16);
  seeds.push_back(3057);       // a refused size change left the page cache at that size
  seeds.push_back(531231273);  // rmdir stamped the open directory's modification time
  seeds.push_back(103773860);  // a set continued in a non-adjacent cluster (fsck.exfat misreads it)
  seeds.push_back(654750560);  // a set over three adjacent clusters (fsck.exfat misreads it too)
  seeds.push_back(783343953);  // a cut of a file whose chain is shorter than its size: E2BIG leaked
  run_seeds(seeds, run_damaged, 120, std::nullopt);
}

// The daemon (built with sanitizers, whose allocator keeps freed memory a
// while) must stay below this.
constexpr uint64_t kDaemonMemoryCeiling = 768ull << 20;

TEST(ModelCheckFuse, SystemCallsOnAMountMatchTheModel) {
  run_seeds(
      {7000, 410166034},  // a second cut walked through the tail of a batch of frees in flight
      [](uint64_t seed, int steps) { return run_fuse(seed, steps, 3, kDaemonMemoryCeiling); }, 150,
      std::nullopt);
}

// --- The checker itself ----------------------------------------------------------------------

namespace {

// A file system with a planted fault: opening with O_TRUNC truncates
// nothing.
class TruncationLost : public LibFs {
 public:
  using LibFs::LibFs;
  int open(int slot, const std::string& path, int oflags) override {
    return LibFs::open(slot, path, oflags & ~O_TRUNC);
  }
};

std::unique_ptr<LibFs> truncation_lost(const std::string& image, const MountOptions& options) {
  return std::make_unique<TruncationLost>(image, options);
}

}  // namespace

// The generator finds a planted fault, the shrinker cuts the sequence
// down to the few operations that show it, and the printed case replays:
// it fails on the faulty file system and passes on the real one.
TEST(ModelCheckReplay, PlantedFaultShrinksToAShortCase) {
  RunResult found;
  uint64_t seed = 0;
  for (; seed < 40 && found.fault.empty(); seed++) {
    found = run_geometry(seed * volume_shapes().size(), 150, truncation_lost);
    ASSERT_TRUE(found.skipped.empty()) << found.skipped;
  }
  ASSERT_FALSE(found.fault.empty()) << "no seed found the planted fault";
  Mode mode = geometry_mode((seed - 1) * volume_shapes().size());
  std::string sig = fault_signature(found.fault);
  std::vector<Op> small = shrink(
      found.ops,
      [&](const std::vector<Op>& ops) {
        return fault_signature(replay(mode, ops, truncation_lost)) == sig;
      },
      60);
  EXPECT_LE(small.size(), 6u) << to_test_case("Planted", mode.expr(), small);
  bool truncating_open = false;
  for (const Op& op : small)
    truncating_open |= op.kind == OpKind::Open && (op.a & O_TRUNC);
  EXPECT_TRUE(truncating_open) << to_test_case("Planted", mode.expr(), small);
  EXPECT_NE("", replay(mode, small, truncation_lost));
  EXPECT_EQ("", replay(mode, small));
}

// The model's own bookkeeping where the checker can't see it: sparse
// contents and the name rules the generated names rely on.
TEST(ModelCheckReplay, ModelKeepsSparseBytesAndFoldsNames) {
  Content c;
  std::vector<uint8_t> a(100, 1), b(50, 2);
  c.write(400ull << 20, a.data(), a.size());  // 400 MiB out: one extent
  c.write(10, b.data(), b.size());
  c.write(40, a.data(), 30);  // overlaps the end of b
  EXPECT_EQ(160u, c.stored());
  std::vector<uint8_t> got = c.read(0, 100);
  EXPECT_EQ(0, got[9]);
  EXPECT_EQ(2, got[10]);
  EXPECT_EQ(1, got[40]);
  EXPECT_EQ(0, got[70]);
  c.cut(45);
  EXPECT_EQ(35u, c.stored());
  EXPECT_EQ(0, c.read(45, 1)[0]);

  EXPECT_EQ(fold_key("\xc3\xa9t\xc3\xa9"), fold_key("E\xcc\x81T\xc3\x89"));  // NFD, case
  EXPECT_NE(fold_key("a"), fold_key("b"));
  EXPECT_EQ(1u, utf16_units("e\xcc\x81"));
  EXPECT_EQ("e\xcc\x81", nfd("\xc3\xa9"));
}

namespace {

// A file system whose syncs return without writing anything.
class SyncsNothing : public LibFs {
 public:
  using LibFs::LibFs;
  int fsync(int, bool) override { return 0; }
  int sync(bool) override { return 0; }
};

}  // namespace

// The power-cut mode holds the volume to what syncs promised: with syncs
// that write nothing, some cut loses promised data.
TEST(ModelCheckReplay, PowerCutFindsSyncsThatWriteNothing) {
  int found = 0;
  for (uint64_t seed = 5000; seed < 5030 && found == 0; seed++) {
    RunResult r = run_power_cut(seed, 120, [](const std::string& image, const MountOptions& o) {
      return std::make_unique<SyncsNothing>(image, o);
    });
    ASSERT_TRUE(r.skipped.empty()) << r.skipped;
    found += r.fault.find("after the power cut") != std::string::npos;
  }
  EXPECT_GT(found, 0);
}

namespace {

// A file system that touches its image while mounted read-only.
class WritesWhileReadOnly : public LibFs {
 public:
  WritesWhileReadOnly(const std::string& image, const MountOptions& options)
      : LibFs(image, options), image_(image) {}
  int mount(bool read_only) override {
    int e = LibFs::mount(read_only);
    if (e == 0 && read_only) {
      int fd = ::open(image_.c_str(), O_RDWR);
      char byte = 0;
      if (fd >= 0 && pread(fd, &byte, 1, 0) == 1) {
        EXPECT_EQ(1, pwrite(fd, &byte, 1, 0));
      }
      ::close(fd);
    }
    return e;
  }

 private:
  std::string image_;
};

}  // namespace

// A read-only mount is held to writing nothing: a write of the very bytes
// that were there already is seen.
TEST(ModelCheckReplay, ReadOnlyMountsMustNotWrite) {
  const std::vector<Op> ops = {
      {OpKind::Remount, -1, "", "", 0, 1u, 0u},
      {OpKind::Mkdir, -1, "/a", "", 0, 0u, 0u},
      {OpKind::Remount, -1, "", "", 0, 0u, 0u},
  };
  Mode mode{ModeKind::Geometry, 0, false};
  EXPECT_EQ("", replay(mode, ops));
  EXPECT_NE(std::string::npos,
            replay(mode, ops, [](const std::string& image, const MountOptions& o) {
              return std::make_unique<WritesWhileReadOnly>(image, o);
            }).find("written while mounted read-only"));
}
