// The consistency checker: clean volumes pass (builder and mkfs.exfat
// images of several geometries; volumes after random work through the
// library are the model checker's, which checks every unmount); every kind of damage is found where it is; repairs fix what
// they promise and leave volumes that a second pass and fsck.exfat -n find
// clean; random damage never crashes or hangs it; the exvol command prints
// and exits as documented.

#include <sys/file.h>

#include <algorithm>
#include <functional>
#include <random>

#include <nlohmann/json.hpp>

#include "exfat_format.h"
#include "exvol/check.h"
#include "tests/integration/api_fixture.h"

namespace exvol::test {
namespace {

CheckReport run_check(const std::string& path, RepairMode mode = RepairMode::None) {
  CheckOptions options;
  options.repair = mode;
  CheckReport report;
  std::error_code ec = check(path, options, &report);
  EXPECT_FALSE(ec) << ec.message();
  return report;
}

std::string listing(const CheckPass& pass) {
  std::string s;
  for (const Finding& f : pass.findings)
    s += f.path + ": " + f.what + ", " + f.where + " [" + finding_kind_name(f.kind) + "]\n";
  return s.empty() ? "(no findings)\n" : s;
}

const Finding* find(const CheckPass& pass, FindingKind kind, const std::string& path) {
  for (const Finding& f : pass.findings)
    if (f.kind == kind && (path.empty() || f.path == path))
      return &f;
  return nullptr;
}

std::vector<uint8_t> read_image(const std::string& path) {
  std::string s = slurp(path);
  return std::vector<uint8_t>(s.begin(), s.end());
}

// A small populated volume: 4 KiB clusters, a label, /docs with a chained
// and a contiguous file and a subdirectory, a file in the root.
struct Populated {
  explicit Populated(Geometry g = Geometry{.sector_shift = 9, .cluster_shift = 3,
                                           .cluster_count = 512})
      : b(g) {
    b.add_bitmap_entry().add_upcase_entry().add_label(u"CHECK");
    docs = b.mkdir(b.root(), u"docs");
    a = b.add_file(docs, u"a.txt", pattern(10000, 1));
    contig = b.add_file(docs, u"contig.bin", pattern(9000, 2), Alloc::Contiguous);
    sub = b.mkdir(docs, u"sub");
    b.add_file(sub, u"deep.txt", bytes("deep"));
    readme = b.add_file(b.root(), u"Readme", bytes("readme"));
  }
  uint32_t a_cluster(unsigned i) const {
    uint32_t c = a.first_cluster;
    while (i--)
      c = b.fat(c);
    return c;
  }
  uint64_t set_at(const Dir& dir, const Placed& p) const { return b.dir_byte_offset(dir, p.offset); }

  ImageBuilder b;
  Dir docs, sub;
  Placed a, contig, readme;
};

// Recomputes the checksum of the set at `offset` of an image.
void refresh_checksum(std::vector<uint8_t>& image, uint64_t offset) {
  le16enc(&image[offset + 2], set_checksum(&image[offset]));
}

struct Fault {
  const char* name;
  std::function<void(Populated&)> build;                         // through the builder
  std::function<void(Populated&, std::vector<uint8_t>&)> edit;   // then on the bytes
  FindingKind kind;
  std::string path;      // "" for any
  std::string what;      // a part of the message
  RepairMode fixed_by;   // None: no repair may touch it
  std::vector<std::string> repaired = {};  // lines of the repair's account
  int status = 1;             // 2: the volume can't be checked at all
};

FileDesc desc(std::u16string name, uint32_t first, uint64_t length, uint16_t attributes = 0x20) {
  FileDesc d;
  d.name = std::move(name);
  d.first_cluster = first;
  d.data_length = length;
  d.attributes = attributes;
  return d;
}

std::vector<Fault> faults() {
  using K = FindingKind;
  const RepairMode safe = RepairMode::Safe, aggressive = RepairMode::Aggressive,
                   none = RepairMode::None;
  auto nop = [](Populated&) {};
  auto keep = [](Populated&, std::vector<uint8_t>&) {};
  return {
      {"leak", [](Populated& v) { v.b.set_allocated(450, true); }, keep, K::Leak, "<bitmap>",
       "1 cluster (4 KiB) marked in use but owned by no file", safe},
      {"valid length over size",
       [](Populated& v) {
         FileDesc d = desc(u"vdl", v.b.allocate(1, Alloc::Chain), 4096);
         d.valid_length = 8192;
         v.b.add_set(v.docs, d);
       },
       keep, K::ValidLength, "/docs/vdl", "valid data length 8192 above data length 4096", safe},
      {"owned cluster free in the bitmap",
       [](Populated& v) { v.b.set_allocated(v.a_cluster(1), false); }, keep, K::Unmarked,
       "<bitmap>", "1 cluster (4 KiB) owned by files but free in the bitmap", safe},
      {"set checksum", nop,
       [](Populated& v, std::vector<uint8_t>& im) { im[v.set_at(v.docs, v.a) + 8] ^= 1; },
       K::SetChecksum, "/docs/a.txt", "set checksum 0x", safe},
      {"name hash", nop,
       [](Populated& v, std::vector<uint8_t>& im) {
         im[v.set_at(v.docs, v.a) + 32 + 4] ^= 1;
         refresh_checksum(im, v.set_at(v.docs, v.a));
       },
       K::NameHash, "/docs/a.txt", "name hash 0x", safe},
      {"main boot checksum", nop, [](Populated&, std::vector<uint8_t>& im) { im[100] ^= 0xFF; },
       K::BootChecksum, "<boot>", "checksum sector holds", safe},
      {"main boot sector shift", nop, [](Populated&, std::vector<uint8_t>& im) { im[108] = 20; },
       K::BootGeometry, "<boot>", "sector size shift 20 out of range", safe},
      {"no backup boot region", nop,
       [](Populated&, std::vector<uint8_t>& im) {
         std::fill(im.begin() + 12 * 512, im.begin() + 24 * 512, 0);
       },
       K::BackupBoot, "<boot>", "backup boot region damaged: no backup boot region", safe},
      {"backup boot differs", nop,
       [](Populated&, std::vector<uint8_t>& im) { im[12 * 512 + 100] ^= 0xFF; }, K::BackupBoot,
       "<boot>", "backup boot region damaged", safe},
      {"dirty", [](Populated& v) { v.b.volume_flags(EXFAT_VOLUME_DIRTY); }, keep, K::VolumeDirty,
       "<boot>", "VolumeDirty set", safe},
      {"media failure", [](Populated& v) { v.b.volume_flags(EXFAT_VOLUME_MEDIA_FAILURE); }, keep,
       K::MediaFailure, "<boot>", "MediaFailure set", safe},
      {"percent in use", [](Populated& v) { v.b.boot_field(112, 90, 1); }, keep, K::PercentInUse,
       "<boot>", "PercentInUse 90, the bitmap says 2", safe},
      {"cross-link",
       [](Populated& v) { v.b.add_set(v.docs, desc(u"shared", v.a.first_cluster, 4096)); }, keep,
       K::CrossLink, "/docs/shared", "also belongs to /docs/a.txt", aggressive},
      {"two entries for one file",
       [](Populated& v) { v.b.add_set(v.docs, desc(u"twin", v.a.first_cluster, 10000)); }, keep,
       K::SharedFile, "/docs/twin", "the same clusters as /docs/a.txt", aggressive},
      {"loop", [](Populated& v) { v.b.set_fat(v.a_cluster(2), v.a.first_cluster); }, keep,
       K::ChainLoop, "/docs/a.txt", "chain comes back to cluster", aggressive},
      {"broken chain", [](Populated& v) { v.b.set_fat(v.a_cluster(1), 0); }, keep, K::ChainBroken,
       "/docs/a.txt", "is 0x00000000", aggressive,
       // The cut file keeps the clusters before the break; the rest is freed.
       {"/docs/a.txt: truncated to 8192 bytes: its cluster chain is broken at cluster 7",
        "<bitmap>: 1 cluster (4 KiB) freed"}},
      {"reserved end mark", [](Populated& v) { v.b.set_fat(v.a_cluster(2), 0xFFFFFFF9); }, keep,
       K::ChainBroken, "/docs/a.txt", "chain ends with 0xFFFFFFF9 instead of the end mark", safe},
      {"bad cluster in a chain", [](Populated& v) { v.b.set_fat(v.a_cluster(2), EXFAT_FAT_BAD); },
       keep, K::ChainBroken, "/docs/a.txt", "is marked bad", aggressive},
      {"empty file naming a cluster", [](Populated& v) { v.b.add_set(v.docs, desc(u"e", 77, 0)); },
       keep, K::FirstCluster, "/docs/e", "empty, but names first cluster 77", aggressive},
      {"characters past the name", nop,
       [](Populated& v, std::vector<uint8_t>& im) {
         uint64_t at = v.set_at(v.docs, v.a);
         im[at + 64 + 2 + 2 * 6] = 'x';  // after "a.txt" in its name entry
         refresh_checksum(im, at);
       },
       K::NameLength, "/docs/a.txt", "name entry holds characters past the name's 5", none},
      {"allocation without AllocationPossible", nop,
       [](Populated& v, std::vector<uint8_t>& im) {
         uint64_t at = v.set_at(v.docs, v.a);
         im[at + 32 + 1] = 0;
         refresh_checksum(im, at);
       },
       K::SetShape, "/docs/a.txt", "without AllocationPossible", none},
      {"reserved attribute bits",
       [](Populated& v) { v.b.add_set(v.docs, desc(u"odd bits", 0, 0, 0x8020)); }, keep,
       K::SetShape, "/docs/odd bits", "reserved attribute bits set (0x8020)", none},
      {"short chain", [](Populated& v) { v.b.set_fat(v.a_cluster(1), EXFAT_FAT_EOC); }, keep,
       K::ChainLength, "/docs/a.txt", "chain of 2 clusters, the data length needs 3", aggressive},
      {"long chain",
       [](Populated& v) { v.b.add_set(v.docs, desc(u"long", v.b.allocate(2, Alloc::Chain), 10)); },
       keep, K::ChainLength, "/docs/long", "chain of 2 clusters, the data length needs 1",
       aggressive},
      {"first cluster outside the heap",
       [](Populated& v) { v.b.add_set(v.docs, desc(u"far", 100000, 10)); }, keep, K::FirstCluster,
       "/docs/far", "first cluster 100000 outside the heap", aggressive},
      {"run past the heap",
       [](Populated& v) {
         FileDesc d = desc(u"tail", 512, 8 * 4096);
         d.no_fat_chain = true;
         v.b.set_allocated(512, true).set_allocated(513, true);
         v.b.add_set(v.docs, d);
       },
       keep, K::DataLength, "/docs/tail", "contiguous run of 8 clusters from 512", aggressive},
      {"directory cycle",
       [](Populated& v) {
         v.b.add_set(v.sub, desc(u"up", v.docs.first_cluster, 4096, EXFAT_ATTR_DIRECTORY));
       },
       keep, K::CrossLink, "/docs/sub/up", "also belongs to /docs", aggressive},
      {"duplicate name", [](Populated& v) { v.b.add_file(v.b.root(), u"README", bytes("x")); },
       keep, K::DuplicateName, "/README", "same name as /Readme", none},
      {"dot-dot name", [](Populated& v) { v.b.add_set(v.docs, desc(u"..", 0, 0)); }, keep,
       K::BadName, "/docs/..", "can't be reached by a path", none},
      {"slash in a name", [](Populated& v) { v.b.add_set(v.docs, desc(u"a/b", 0, 0)); }, keep,
       K::BadName, "/docs/a\\u002Fb", "name holds a '/'", none},
      {"NUL in a name",
       [](Populated& v) { v.b.add_set(v.docs, desc(std::u16string(u"a\0b", 3), 0, 0)); }, keep,
       K::BadName, "/docs/a\\u0000b", "name holds a NUL", none},
      {"empty name", [](Populated& v) { v.b.add_set(v.docs, desc(u"", 0, 0)); }, keep,
       K::NameLength, "", "name length 0", none},
      {"set cut short",
       [](Populated& v) {
         std::vector<uint8_t> set = make_file_set(desc(u"short", 0, 0), v.b.upcase());
         set[1]++;  // claims one more secondary than follows
         v.b.add_entries(v.docs, set);
         v.b.add_set(v.docs, desc(u"after", 0, 0));
       },
       keep, K::SetShape, "/docs/short", "entry set of 4 entries cut short after 3", none},
      {"stray secondary", [](Populated& v) { v.b.add_entry(v.docs, raw_entry(0xC1)); }, keep,
       K::EntryType, "/docs", "secondary entry 0xC1 outside an entry set", none},
      {"unknown critical entry", [](Populated& v) { v.b.add_entry(v.docs, raw_entry(0x86)); },
       keep, K::EntryType, "/docs", "unknown critical entry type 0x86", none},
      {"up-case checksum", nop,
       [](Populated& v, std::vector<uint8_t>& im) { im[v.b.dir_byte_offset(v.b.root(), 32) + 4] ^= 1; },
       K::UpcaseTable, "<upcase>", "checksum 0x", none},
      {"up-case expansion", nop,
       [](Populated& v, std::vector<uint8_t>& im) {
         // Identity for every unit, then one item too many; checksum right.
         std::vector<uint8_t> items = upcase_items({0xFFFF, 0xFFFF, 0xFFFF, 0x0001, 0x0041});
         uint64_t entry = v.b.dir_byte_offset(v.b.root(), 32);
         std::copy(items.begin(), items.end(), im.begin() + v.b.cluster_byte_offset(v.b.upcase_cluster()));
         le32enc(&im[entry + 4], upcase_checksum(items));
         le64enc(&im[entry + 24], items.size());
       },
       K::UpcaseTable, "<upcase>", "items left over", none},
      {"no bitmap entry", nop,
       [](Populated& v, std::vector<uint8_t>& im) { im[v.b.dir_byte_offset(v.b.root(), 0)] = 0x01; },
       K::SystemEntry, "<bitmap>", "no allocation bitmap entry", none},
      {"second bitmap entry", [](Populated& v) { v.b.add_bitmap_entry(); }, keep, K::SystemEntry,
       "<bitmap>", "a second entry", none},
      {"label too long", [](Populated& v) { v.b.add_entry(v.b.root(), label_entry(u"L", 15)); },
       keep, K::SystemEntry, "/", "volume label of 15 characters", none},
      {"GUID checksum", [](Populated& v) { v.b.add_guid({1, 2, 3}, false); }, keep,
       K::SystemEntry, "/", "volume GUID entry checksum", none},
      {"directory size", [](Populated& v) {
         v.b.add_set(v.docs, desc(u"odd", v.b.allocate(1, Alloc::Chain), 1000, EXFAT_ATTR_DIRECTORY));
       },
       keep, K::DataLength, "/docs/odd", "not a multiple of the cluster size", none},
      {"image shorter than the volume", nop,
       [](Populated&, std::vector<uint8_t>& im) { im.resize(im.size() - 40960); },
       K::BootGeometry, "<boot>", "longer than the image", none},
      {"both boot regions unusable", nop,
       [](Populated&, std::vector<uint8_t>& im) { im[3] = im[12 * 512 + 3] = 'X'; },
       K::BootSignature, "<boot>", "", none, {}, 2},
      // The geometry must not make the check allocate a FAT it can't read.
      {"image ending before its FAT", nop,
       [](Populated&, std::vector<uint8_t>& im) { im.resize(24 * 512); }, K::BootGeometry, "<fat>",
       "", none, {}, 2},
  };
}

TEST(Check, CleanBuilderImagesPass) {
  for (Geometry g : {Geometry{.sector_shift = 9, .cluster_shift = 3, .cluster_count = 512},
                     Geometry{.sector_shift = 9, .cluster_shift = 0, .cluster_count = 4000},
                     Geometry{.sector_shift = 12, .cluster_shift = 1, .cluster_count = 300}}) {
    Populated v(g);
    TempFile image;
    v.b.write_to(image.path());
    CheckReport r = run_check(image.path());
    EXPECT_TRUE(r.first.clean()) << "sector shift " << g.sector_shift << "\n" << listing(r.first);
    EXPECT_EQ(4u, r.first.files);
    EXPECT_EQ(3u, r.first.directories);
  }
}

// Directories read in several requests: a contiguous one larger than one
// read, with a set across the boundary between two reads and a name used
// twice on either side of it; a root grown cluster by cluster between
// data clusters, so that its chain is never adjacent.
TEST(Check, LargeAndFragmentedDirectories) {
  ImageBuilder b(Geometry{.sector_shift = 9, .cluster_shift = 0, .cluster_count = 4000});
  b.add_bitmap_entry().add_upcase_entry();
  Dir big = b.mkdir(b.root(), u"big", 600, Alloc::Contiguous);
  b.add_file(big, u"Same", bytes("first"));
  b.skip_to(big, 256 * 1024 - 32);
  b.add_file(big, u"across", pattern(700, 3));
  b.add_file(big, u"SAME", bytes("second"));
  for (int i = 0; i < 40; i++)
    b.add_file(b.root(), u"root file " + std::u16string(1, u'a' + i % 26) + (i < 26 ? u"" : u"2"),
               pattern(300, i));
  ASSERT_GT(b.root().clusters.size(), 4u);
  TempFile image;
  b.write_to(image.path());
  CheckReport r = run_check(image.path());
  ASSERT_EQ(1u, r.first.findings.size()) << listing(r.first);
  const Finding& f = r.first.findings[0];
  EXPECT_EQ(FindingKind::DuplicateName, f.kind);
  EXPECT_EQ("/big/SAME", f.path);
  EXPECT_EQ("same name as /big/Same", f.what);
  EXPECT_EQ(43u, r.first.files);
}

// At most max_findings are kept; the rest are counted, and still make the
// volume unclean.
TEST(Check, FindingsBeyondTheLimitAreCounted) {
  Populated v;
  for (uint32_t c = 450; c < 460; c += 2)
    v.b.set_allocated(c, true);  // one leak finding
  v.b.volume_flags(EXFAT_VOLUME_DIRTY | EXFAT_VOLUME_MEDIA_FAILURE);
  v.b.boot_field(112, 77, 1);
  TempFile image;
  v.b.write_to(image.path());
  CheckOptions options;
  options.max_findings = 2;
  CheckReport r;
  ASSERT_FALSE(check(image.path(), options, &r));
  EXPECT_EQ(2u, r.first.findings.size());
  EXPECT_EQ(2u, r.first.findings_dropped);
  EXPECT_EQ(4u, r.first.problems());
  EXPECT_EQ(1, r.exit_status());
  EXPECT_EQ(5u, r.first.leaked_clusters);
}

TEST(Check, FindsEachFaultAndRepairsWhatItPromises) {
  for (const Fault& fault : faults()) {
    SCOPED_TRACE(fault.name);
    Populated v;
    fault.build(v);
    std::vector<uint8_t> bytes = v.b.build();
    fault.edit(v, bytes);
    TempFile image;
    image.write(bytes);

    CheckReport r = run_check(image.path());
    const Finding* f = find(r.first, fault.kind, fault.path);
    ASSERT_NE(nullptr, f) << listing(r.first);
    EXPECT_NE(std::string::npos, f->what.find(fault.what)) << f->what;
    EXPECT_EQ(fault.status, r.exit_status());
    EXPECT_EQ(fault.fixed_by == RepairMode::Safe, f->repairable) << f->what;
    EXPECT_EQ(fault.fixed_by == RepairMode::Aggressive, f->aggressive) << f->what;
    EXPECT_EQ(bytes, read_image(image.path())) << "a check without repair wrote";

    // A repair short of the one that fixes it leaves the finding.
    RepairMode weaker = fault.fixed_by == RepairMode::Aggressive ? RepairMode::Safe
                                                                 : RepairMode::Aggressive;
    if (fault.fixed_by != RepairMode::Safe) {
      CheckReport w = run_check(image.path(), weaker);
      EXPECT_NE(nullptr, find(w.final_pass(), fault.kind, fault.path)) << listing(w.final_pass());
    }
    if (fault.fixed_by == RepairMode::None)
      continue;
    image.write(bytes);
    CheckReport fixed = run_check(image.path(), fault.fixed_by);
    ASSERT_TRUE(fixed.after_repair.has_value());
    EXPECT_TRUE(fixed.after_repair->clean()) << listing(*fixed.after_repair);
    std::string account;
    for (const std::string& line : fixed.repairs)
      account += line + "\n";
    for (const std::string& line : fault.repaired)
      EXPECT_NE(std::string::npos, account.find(line + "\n")) << account;
    EXPECT_FALSE(fixed.repairs.empty());
    EXPECT_EQ(0, fixed.exit_status());
    EXPECT_TRUE(run_check(image.path()).first.clean());
    expect_fsck_clean(image.path());
  }
}

// Directories nested past the walk's limit are reported, not followed, and
// the leaks under them are kept.
TEST(Check, DeepNestingStopsTheWalk) {
  ImageBuilder b(Geometry{.sector_shift = 9, .cluster_shift = 0, .cluster_count = 1200});
  b.add_bitmap_entry().add_upcase_entry();
  Dir dir = b.root();
  for (int i = 0; i < 1030; i++)
    dir = b.mkdir(dir, u"d");
  b.set_allocated(1190, true);
  TempFile image;
  b.write_to(image.path());
  CheckReport r = run_check(image.path());
  const Finding* deep = find(r.first, FindingKind::Depth, "");
  ASSERT_NE(nullptr, deep) << listing(r.first);
  EXPECT_EQ(1025u * 2, deep->path.size());  // "/d" 1025 times
  const Finding* leak = find(r.first, FindingKind::Leak, "<bitmap>");
  ASSERT_NE(nullptr, leak);
  EXPECT_FALSE(leak->repairable);
  EXPECT_TRUE(leak->aggressive);
}

TEST(Check, TakesTheLockAMountTakes) {
  Populated v;
  v.b.set_allocated(450, true);
  TempFile image;
  v.b.write_to(image.path());
  int fd = open(image.path().c_str(), O_RDONLY);
  CheckOptions options;
  options.repair = RepairMode::Safe;
  CheckReport r;
  // A reader (a read-only mount) lets checks run but no repair.
  ASSERT_EQ(0, flock(fd, LOCK_SH));
  EXPECT_EQ(0, check(image.path(), CheckOptions(), &r).value());
  EXPECT_EQ(EBUSY, check(image.path(), options, &r).value());
  EXPECT_NE(std::string::npos, r.error_message.find(" is in use by ")) << r.error_message;
  // A writer (a read-write mount) holds metadata the image lacks: no check.
  ASSERT_EQ(0, flock(fd, LOCK_EX));
  EXPECT_EQ(EBUSY, check(image.path(), CheckOptions(), &r).value());
  close(fd);
  EXPECT_EQ(0, check(image.path(), options, &r).value());
  EXPECT_EQ(0, r.exit_status());
}

TEST(Check, MissingImageIsAnError) {
  CheckReport r;
  EXPECT_EQ(ENOENT, check("/nonexistent/image", CheckOptions(), &r).value());
}

TEST(Check, MkfsImagesOfEveryClusterSizePass) {
  std::string mkfs = tool_path("mkfs.exfat");
  if (mkfs.empty())
    GTEST_SKIP() << "mkfs.exfat is not installed";
  for (const char* cluster : {"512", "4K", "32K", "128K", "1M"}) {
    TempFile image;
    ASSERT_EQ(0, truncate(image.path().c_str(), 256 << 20));
    ASSERT_EQ(0, run(mkfs + " -c " + cluster + " -L ORACLE '" + image.path() + "'").status);
    CheckReport r = run_check(image.path());
    EXPECT_TRUE(r.first.clean()) << cluster << "\n" << listing(r.first);
    EXPECT_EQ(1u, r.first.directories);
  }
}

// Repairable faults two or three at once, on different paths (the
// bitmap's excepted: its faults are independent): one aggressive repair
// fixes them all, whatever order it meets them in.
TEST(Check, AggressiveRepairFixesFaultsTogether) {
  uint32_t seed = getenv("EXVOL_CHECK_SEED") ? static_cast<uint32_t>(atoi(getenv("EXVOL_CHECK_SEED"))) : 1;
  std::vector<Fault> fixable = faults();
  std::erase_if(fixable, [](const Fault& f) { return f.fixed_by == RepairMode::None; });
  std::mt19937 rng(seed);
  TempFile image;
  for (int variant = 0; variant < 60; variant++) {
    std::shuffle(fixable.begin(), fixable.end(), rng);
    const size_t want = 2 + rng() % 2;
    std::vector<const Fault*> chosen;
    std::string names;
    for (const Fault& f : fixable)
      if (chosen.size() < want &&
          std::none_of(chosen.begin(), chosen.end(), [&](const Fault* c) {
            return c->path == f.path && f.path != "<bitmap>";
          })) {
        chosen.push_back(&f);
        names += std::string(f.name) + "; ";
      }
    SCOPED_TRACE("EXVOL_CHECK_SEED=" + std::to_string(seed) + " variant " +
                 std::to_string(variant) + ": " + names);
    Populated v;
    for (const Fault* f : chosen)
      f->build(v);
    std::vector<uint8_t> bytes = v.b.build();
    for (const Fault* f : chosen)
      f->edit(v, bytes);
    image.write(bytes);
    CheckReport fixed = run_check(image.path(), RepairMode::Aggressive);
    ASSERT_EQ(0, fixed.exit_status()) << listing(fixed.final_pass());
    expect_fsck_clean(image.path());
  }
}

// --- Random damage ------------------------------------------------------------------

// Bytes of one metadata structure changed at random: the check never
// crashes or hangs, a repair never leaves a finding it calls repairable,
// and the repaired volume checks the same way twice.
TEST(Check, RandomDamage) {
  uint32_t seed = getenv("EXVOL_CHECK_SEED") ? static_cast<uint32_t>(atoi(getenv("EXVOL_CHECK_SEED"))) : 1;
  int variants = getenv("EXVOL_CHECK_VARIANTS") ? atoi(getenv("EXVOL_CHECK_VARIANTS")) : 300;
  Populated v;
  for (int i = 0; i < 40; i++)
    v.b.add_file(i % 2 ? v.docs : v.sub, u"file number " + std::u16string(1, u'A' + i % 26) + u"-" +
                                            std::u16string(1, u'a' + i / 26),
                 pattern(1000u * (i % 9), i), i % 3 ? Alloc::Chain : Alloc::Contiguous);
  std::vector<uint8_t> clean = v.b.build();
  struct Region {
    const char* name;
    uint64_t offset, length;
  };
  const Region regions[] = {
      {"boot", 0, 512},
      {"backup boot", 12 * 512, 512},
      {"FAT", v.b.fat_byte_offset(), 4 * 600},
      {"bitmap", v.b.cluster_byte_offset(v.b.bitmap_cluster()), 64},
      {"up-case", v.b.cluster_byte_offset(v.b.upcase_cluster()), 64},
      {"root", v.b.dir_byte_offset(v.b.root(), 0), 4096},
      {"docs", v.b.dir_byte_offset(v.docs, 0), 4096},
      {"sub", v.b.dir_byte_offset(v.sub, 0), 4096},
  };
  std::mt19937 rng(seed);
  TempFile image;
  for (int variant = 0; variant < variants; variant++) {
    std::vector<uint8_t> bytes = clean;
    const Region& r = regions[rng() % std::size(regions)];
    // Mostly a few bytes; every tenth variant a region thoroughly ruined.
    int changes = 1 + static_cast<int>(rng() % (variant % 10 == 9 ? 200 : 8));
    for (int k = changes; k > 0; k--)
      bytes[r.offset + rng() % r.length] = static_cast<uint8_t>(rng());
    SCOPED_TRACE("EXVOL_CHECK_SEED=" + std::to_string(seed) + " variant " +
                 std::to_string(variant) + " in " + r.name);
    image.write(bytes);
    CheckReport plain = run_check(image.path());
    RepairMode mode = variant % 4 == 3 ? RepairMode::Aggressive : RepairMode::Safe;
    CheckReport repaired = run_check(image.path(), mode);
    const CheckPass& after = repaired.final_pass();
    for (const Finding& f : after.findings)
      EXPECT_FALSE(f.repairable) << "left after repair: " << f.path << ": " << f.what;
    if (plain.first.clean()) {
      EXPECT_FALSE(repaired.after_repair.has_value());
      continue;
    }
    CheckReport again = run_check(image.path());
    EXPECT_EQ(listing(after), listing(again.first));
    if (after.clean())
      expect_fsck_clean(image.path());
  }
}

// --- The command ----------------------------------------------------------------------

TEST(CheckCommand, PrintsFindingsRepairsAndExitStatus) {
  const std::string cli = EXVOL_CLI_BIN;
  Populated v;
  v.b.set_allocated(450, true);
  TempFile image;
  v.b.write_to(image.path());
  const std::string& img = image.path();

  Command c = run(cli + " check '" + img + "'");
  EXPECT_EQ(1, c.status) << c.err;
  EXPECT_EQ("<bitmap>: 1 cluster (4 KiB) marked in use but owned by no file, cluster 450\n" + img +
                ": 1 problem (1 repairable); 4 files, 3 directories, 14 of 512 clusters in use\n",
            c.out);

  c = run(cli + " check --json '" + img + "'");
  EXPECT_EQ(1, c.status);
  nlohmann::json doc = nlohmann::json::parse(c.out, nullptr, false);
  ASSERT_FALSE(doc.is_discarded()) << c.out;
  EXPECT_EQ(nlohmann::json({{"path", "<bitmap>"}, {"kind", "leak"},
                            {"what", "1 cluster (4 KiB) marked in use but owned by no file"},
                            {"where", "cluster 450"}, {"offset", nullptr}, {"repairable", true},
                            {"aggressive", false}}),
            doc["passes"][0]["findings"][0])
      << c.out;
  EXPECT_EQ(1, doc["status"]) << c.out;

  c = run(cli + " check --repair '" + img + "'");
  EXPECT_EQ(0, c.status) << c.out << c.err;
  EXPECT_NE(std::string::npos, c.out.find("repaired <bitmap>: 1 cluster (4 KiB) freed\n"
                                          "after repair:\n" + img + ": clean; 4 files")) << c.out;

  c = run(cli + " check '" + img + "' extra");
  EXPECT_EQ(2, c.status);
  c = run(cli + " check --repair=bold '" + img + "'");
  EXPECT_EQ(2, c.status);
  c = run(cli + " check /nonexistent/image");
  EXPECT_EQ(2, c.status);
  EXPECT_EQ("exvol: check: /nonexistent/image: No such file or directory\n", c.err);
}

TEST(CheckCommand, ExplainsWhatNeedsAnAggressiveRepair) {
  const std::string cli = EXVOL_CLI_BIN;
  Populated v;
  v.b.set_fat(v.a_cluster(2), v.a.first_cluster);
  TempFile image;
  v.b.write_to(image.path());
  Command c = run(cli + " check --repair '" + image.path() + "'");
  EXPECT_EQ(1, c.status);
  EXPECT_NE(std::string::npos, c.out.find("1 problem needs --repair=aggressive, which truncates"))
      << c.out;
  c = run(cli + " check --repair=aggressive '" + image.path() + "'");
  EXPECT_EQ(0, c.status) << c.out;
  EXPECT_NE(std::string::npos, c.out.find("repaired /docs/a.txt: truncated to")) << c.out;
}

}  // namespace
}  // namespace exvol::test
