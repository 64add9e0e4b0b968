// A small populated volume, damaged at random and then driven by a random
// sequence of operations. The damage is a few random bytes of one
// structure, or a field of an entry set, a FAT link, a boot sector field,
// a directory's first cluster or up-case units changed to values picked to
// hurt (with the set's, the boot region's or the table's checksum made
// right again, so that the change gets past the checks that catch random
// bytes); up to three of them per variant, or none. Read-only
// mounts list, look up, stat, read, read links, fsync, sync and try to
// rename the volume; read-write mounts also write, truncate, create, make
// directories and links, remove, rename, change attributes and rename the
// volume, while holding some files open across their removal.
//
// Every call must return a value or an errno (no crash, hang, sanitizer
// report or private code), and the unmount must leave no driver memory.
// Beyond that: a read-only mount writes nothing at all, failed or not; a
// file removed while held reports no link; and a session on an undamaged
// volume (one without the sets the checker does not know) never finds it
// corrupt, and when it writes, leaves a volume the checker finds clean.
//
// EXVOL_WALK_SEED picks the damage and the operations, EXVOL_WALK_VARIANTS
// the number of variants (default 300), EXVOL_WALK_OPS the operations per
// mounted variant (default 40); a crash or a hang prints the variant to
// rerun.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "exfat_proto.h"
#include "host/kern.h"
#include "host/mount.h"
#include "host/vfs.h"
#include "tests/support/fsck.h"
#include "tests/support/image_builder.h"
#include "tests/support/vnode_io.h"
#include "tests/unit/driver/damage.h"
#include "tests/unit/driver/namespace_fixture.h"

using namespace exvol::test;

// UBSan ends the process without running the death callback unless it
// aborts; aborting lets the SIGABRT handler name the variant that failed.
extern "C" const char* __ubsan_default_options() { return "abort_on_error=1"; }

namespace {

constexpr uint32_t kClusterCount = 200;

// An entry set of the base volume: its directory, offset and entries.
struct SetPlace {
  const Dir* dir;
  uint32_t offset;
  uint32_t entries;
};

// Whether a listed name is one the kernel could pass as a component.
bool component(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

template <typename T, size_t N>
T pick(const T (&values)[N], std::mt19937& rng) {
  return values[rng() % N];
}

// Names the operations use besides those found on the volume: short and
// long (one and fourteen name entries), hidden, and one that only differs
// in case from a name the volume holds.
const std::string kLongName(200, 'L');
const char* const kNewNames[] = {"n", "new file.txt", ".hidden", "DIR", "B.TXT",
                                 "forty characters long, needing 3 entries"};

}  // namespace

class DamagedWalk : public NamespaceTest {
 protected:
  DamagedWalk() {
    builder_ = mountable(Geometry{.cluster_shift = 0, .cluster_count = kClusterCount,
                                  .root_clusters = 2});
    builder_.add_label(u"WALK");
    dir_ = make_dir(builder_.root(), u"dir", 2);
    sub_ = make_dir(dir_, u"a subdirectory with a long name", 1);
    add(sub_, builder_.add_file(sub_, u"deep.txt", bytes("deep")));
    add(dir_, builder_.add_file(dir_, u"b.txt", std::vector<uint8_t>(1500, 'b')));
    add(dir_, builder_.add_file(dir_, u"a file whose name needs three name entries in its set.txt",
                                bytes("long")));
    chain_ = builder_.add_file(builder_.root(), u"chain.bin", std::vector<uint8_t>(1400, 'c'));
    contig_ = builder_.add_file(builder_.root(), u"contig.bin", std::vector<uint8_t>(1000, 'd'),
                                Alloc::Contiguous);
    add(builder_.root(), chain_);
    add(builder_.root(), contig_);
    add(builder_.root(), builder_.add_file(builder_.root(), u"empty", {}));
  }

  void TearDown() override {
    arm_watchdog(0);
    release_held();
    NamespaceTest::TearDown();
  }

  // Sets the driver must handle that a plain file does not show: one of
  // 255 secondaries behind a one-entry name (a rename to a longer name can't
  // fit), one whose extra secondary owns a cluster, and the set of an
  // unknown benign primary. The big one spans sixteen directory blocks.
  void add_unusual_sets() {
    big_ = make_dir(builder_.root(), u"big", 17);
    FileDesc many;
    many.name = u"many";
    for (int i = 0; i < 253; i++)
      many.extra_secondaries.push_back(raw_entry(EXFAT_ENTRY_VENDOR_EXT));
    add(big_, builder_.add_set(big_, many));

    FileDesc owner;
    owner.name = u"owner";
    uint32_t owned = builder_.allocate(1, Alloc::Chain);
    owner.extra_secondaries.push_back(
        raw_entry(EXFAT_ENTRY_VENDOR_ALLOC, EXFAT_SECONDARY_ALLOCATION_POSSIBLE, owned, 512));
    add(dir_, builder_.add_set(dir_, owner));

    std::vector<uint8_t> set(2 * EXFAT_ENTRY_SIZE, 0);
    set[0] = 0xA5;  // an unknown benign primary
    set[1] = 1;
    set[EXFAT_ENTRY_SIZE] = EXFAT_ENTRY_VENDOR_EXT;
    fix_set_checksum(set);
    builder_.add_entries(builder_.root(), set);
  }

  void add(const Dir& dir, const Placed& p) { sets_.push_back({&dir, p.offset, p.entries}); }

  // A directory made by the builder, its set remembered with its parent.
  Dir make_dir(Dir& parent, const std::u16string& name, uint32_t clusters) {
    uint32_t offset = parent.next_offset;
    Dir made = builder_.mkdir(parent, name, clusters);
    uint32_t entries = 2 + static_cast<uint32_t>(name.size() + 14) / 15;
    dir_sets_.push_back({&parent, offset, entries});
    sets_.push_back(dir_sets_.back());
    return made;
  }

  // The plain volume (which the checker finds clean), then the same with
  // the unusual sets and a symbolic link the driver itself made.
  void make_base() {
    plain_ = builder_.build();
    add_unusual_sets();
    mount_built();
    Vref link;
    ASSERT_EQ(0, symlink(root_vp_, "link", "dir/b.txt", &link));
    link_cluster_ = link.node()->x_start_cluster;
    sets_.push_back({&builder_.root(), link.node()->x_dir_offset,
                     link.node()->x_secondary_count + 1u});
    link.reset();
    release_nodes();
    ASSERT_EQ(0, unmount());
    base_ = read_device(0, image_bytes_);
    ASSERT_NE(0u, link_cluster_);
  }

  // --- Damage -------------------------------------------------------------------------

  uint32_t interesting_cluster(const SetPlace& place, std::mt19937& rng) {
    const uint32_t clusters[] = {0, 1, 2, builder_.bitmap_cluster(), builder_.upcase_cluster(),
                                 place.dir->first_cluster, dir_.first_cluster, sub_.first_cluster,
                                 big_.first_cluster, chain_.first_cluster, link_cluster_,
                                 kClusterCount, kClusterCount + 1, kClusterCount + 2,
                                 EXFAT_FAT_BAD, EXFAT_FAT_EOC};
    return pick(clusters, rng);
  }

  static uint64_t interesting_size(std::mt19937& rng) {
    const uint64_t sizes[] = {0, 1, 511, 512, 513, 1067, 1500, 8192, kClusterCount * 512ull,
                              EXFAT_MAX_DIR_SIZE, EXFAT_MAX_DIR_SIZE + 512ull, 0xFFFFFFFFull,
                              0x100000000ull, 0x7FFFFFFFFFFFFFFFull, ~0ull};
    return pick(sizes, rng);
  }

  // Byte offsets in the image of the entries from a set's first on, as
  // many as its directory holds (a set that claims more secondaries is
  // checksummed over what follows it).
  std::vector<uint64_t> entry_offsets(const SetPlace& place) const {
    uint32_t end = static_cast<uint32_t>(place.dir->clusters.size()) * builder_.bytes_per_cluster();
    std::vector<uint64_t> at;
    for (uint32_t o = place.offset; o < end && at.size() < EXFAT_MAX_SET_ENTRIES; o += 32)
      at.push_back(builder_.dir_byte_offset(*place.dir, o));
    return at;
  }

  // Lets `edit` change a set in the image, then makes the set's checksum
  // right again (when the directory holds as many entries as it claims).
  template <typename Edit>
  void edit_set(std::vector<uint8_t>& image, const SetPlace& place, Edit edit) {
    std::vector<uint64_t> at = entry_offsets(place);
    std::vector<uint8_t> set;
    for (uint64_t a : at)
      set.insert(set.end(), image.begin() + static_cast<long>(a),
                 image.begin() + static_cast<long>(a) + 32);
    edit(set);
    if ((set[1] + 1u) * 32 <= set.size())
      le16enc(&set[2], set_checksum(set.data()));
    for (size_t i = 0; i < at.size(); i++)
      std::copy_n(set.begin() + static_cast<long>(32 * i), 32,
                  image.begin() + static_cast<long>(at[i]));
  }

  // Changes one field of a set to a value picked to hurt.
  std::string damage_set(std::vector<uint8_t>& image, std::mt19937& rng) {
    const SetPlace& place = sets_[rng() % sets_.size()];
    const char* field = nullptr;
    edit_set(image, place,
             [&](std::vector<uint8_t>& set) { field = damage_field(set, place, rng); });
    return std::string("entry set ") + field;
  }

  const char* damage_field(std::vector<uint8_t>& set, const SetPlace& place, std::mt19937& rng) {
    const uint8_t counts[] = {0, 1, 2, 3, 17, 254, 255};
    const uint8_t lengths[] = {0, 1, 15, 16, 31, 255};
    const char* field;
    switch (rng() % 9) {
      case 0: field = "SecondaryCount"; set[1] = pick(counts, rng); break;
      case 1: field = "Directory bit"; set[4] ^= EXFAT_ATTR_DIRECTORY; break;
      case 2: field = "NoFatChain"; set[33] ^= EXFAT_SECONDARY_NO_FAT_CHAIN; break;
      case 3: field = "NameLength"; set[35] = pick(lengths, rng); break;
      case 4: field = "ValidDataLength"; le64enc(&set[40], interesting_size(rng)); break;
      case 5: field = "FirstCluster"; le32enc(&set[52], interesting_cluster(place, rng)); break;
      case 6: field = "DataLength"; le64enc(&set[56], interesting_size(rng)); break;
      case 7: {
        field = "both lengths";
        uint64_t size = interesting_size(rng);
        le64enc(&set[40], size);
        le64enc(&set[56], size);
        break;
      }
      default: field = "a name entry"; set[64 + rng() % 32] = static_cast<uint8_t>(rng()); break;
    }
    return field;
  }

  // Points a directory at the clusters of its parent, of the root or of
  // another directory: it then lists itself or an ancestor, or shares its
  // entries with another.
  std::string damage_cross_link(std::vector<uint8_t>& image, std::mt19937& rng) {
    const SetPlace& place = dir_sets_[rng() % dir_sets_.size()];
    const uint32_t clusters[] = {place.dir->first_cluster, builder_.root().first_cluster,
                                 dir_.first_cluster, big_.first_cluster};
    edit_set(image, place,
             [&](std::vector<uint8_t>& set) { le32enc(&set[52], pick(clusters, rng)); });
    return "cross-linked directory";
  }

  // Points one FAT entry of the used area somewhere it must not go: itself
  // (a loop), its predecessor, another structure, past the heap or free.
  std::string damage_fat(std::vector<uint8_t>& image, std::mt19937& rng) {
    uint32_t cluster = EXFAT_FIRST_CLUSTER + rng() % 60;
    SetPlace none{&builder_.root(), 0, 0};
    const uint32_t values[] = {cluster, cluster - 1, 0, interesting_cluster(none, rng)};
    le32enc(&image[builder_.fat_byte_offset() + 4ull * cluster], pick(values, rng));
    return "FAT link";
  }

  // Moves one boot sector field a little or far, then makes the boot
  // checksum right again so that the mount reads on.
  std::string damage_boot(std::vector<uint8_t>& image, std::mt19937& rng) {
    struct Field {
      uint32_t offset, width;
    };
    const Field fields[] = {{72, 8}, {80, 4}, {84, 4}, {88, 4}, {92, 4}, {96, 4},
                            {106, 2}, {108, 1}, {109, 1}, {110, 1}, {112, 1}};
    const Field f = pick(fields, rng);
    uint64_t value = 0;
    for (uint32_t i = 0; i < f.width; i++)
      value |= uint64_t(image[f.offset + i]) << (8 * i);
    const uint64_t values[] = {value + 1, value - 1, value * 2, value / 2, 0, ~0ull, rng()};
    value = pick(values, rng);
    for (uint32_t i = 0; i < f.width; i++)
      image[f.offset + i] = static_cast<uint8_t>(value >> (8 * i));
    uint32_t sum = boot_checksum(image.data(), 512);
    for (uint32_t i = 0; i < 512; i += 4)
      le32enc(&image[11 * 512 + i], sum);
    return "boot sector field";
  }

  // Changes a few units of the up-case table and makes its checksum in the
  // root's up-case entry right again: the table is then parsed, and may
  // fold names together or apart.
  std::string damage_upcase(std::vector<uint8_t>& image, std::mt19937& rng) {
    const uint64_t table = builder_.cluster_byte_offset(builder_.upcase_cluster());
    const uint32_t length = static_cast<uint32_t>(builder_.upcase_data().size());
    for (int k = 1 + static_cast<int>(rng() % 3); k > 0; k--) {
      const uint16_t units[] = {0, 1, 'A', 0xFFFF, static_cast<uint16_t>(rng())};
      le16enc(&image[table + (rng() % (length / 2)) * 2], pick(units, rng));
    }
    std::vector<uint8_t> data(image.begin() + static_cast<long>(table),
                              image.begin() + static_cast<long>(table + length));
    for (uint32_t o = 0; o < builder_.bytes_per_cluster(); o += EXFAT_ENTRY_SIZE) {
      uint64_t entry = builder_.dir_byte_offset(builder_.root(), o);
      if (image[entry] == EXFAT_ENTRY_UPCASE)
        le32enc(&image[entry + 4], upcase_checksum(data));
    }
    return "up-case table";
  }

  // A few random bytes of one structure, as a failing medium would leave.
  std::string damage_bytes(std::vector<uint8_t>& image, std::mt19937& rng) {
    const uint32_t cluster = builder_.bytes_per_cluster();
    const Region regions[] = {
        {"boot sector", 0, 512},
        {"FAT", builder_.fat_byte_offset(), (kClusterCount + 2) * 4},
        {"bitmap", builder_.cluster_byte_offset(builder_.bitmap_cluster()), cluster},
        {"up-case table", builder_.cluster_byte_offset(builder_.upcase_cluster()), 128},
        {"root directory", builder_.cluster_byte_offset(builder_.root().first_cluster), cluster},
        {"directory", builder_.cluster_byte_offset(dir_.first_cluster), cluster},
        {"big set", builder_.cluster_byte_offset(big_.first_cluster), cluster},
        {"chained file", builder_.cluster_byte_offset(chain_.first_cluster), cluster},
        {"contiguous file", builder_.cluster_byte_offset(contig_.first_cluster), cluster},
        {"symbolic link", builder_.cluster_byte_offset(link_cluster_), 2 * cluster},
    };
    return damage(image, regions, rng).name;
  }

  // Up to three kinds of damage; about one variant in eight stays whole.
  std::string damage_image(std::vector<uint8_t>& image, std::mt19937& rng) {
    std::string what;
    int count = rng() % 8 == 0 ? 0 : 1 + static_cast<int>(rng() % 3);
    for (int k = 0; k < count; k++) {
      if (!what.empty())
        what += ", ";
      switch (rng() % 7) {
        case 0: case 1: what += damage_set(image, rng); break;
        case 2: what += damage_fat(image, rng); break;
        case 3: what += damage_boot(image, rng); break;
        case 4: what += damage_cross_link(image, rng); break;
        case 5: what += damage_upcase(image, rng); break;
        default: what += damage_bytes(image, rng); break;
      }
    }
    return what.empty() ? "undamaged" : what;
  }

  // --- Operations -----------------------------------------------------------------------

  // A directory to work in: the root or one met on the way (each held).
  vnode_t some_dir(std::mt19937& rng) { return dirs_[rng() % dirs_.size()]; }

  void keep(std::vector<vnode_t>& pool, vnode_t vp, size_t limit) {
    if (pool.size() < limit && vnode_get(vp) == 0)
      pool.push_back(vp);
  }

  void release_held() {
    for (vnode_t vp : held_files_)
      vnode_put(vp);
    held_files_.clear();
    for (vnode_t vp : dirs_)
      vnode_put(vp);
    dirs_.clear();
  }

  // A name in dvp: one the listing shows, one of them in other case, or a
  // new one.
  std::string some_name(vnode_t dvp, std::mt19937& rng) {
    std::vector<DirRecord> records;
    if (rng() % 3 != 0 && vn_list(dvp, &records) == 0 && !records.empty()) {
      std::string name = records[rng() % records.size()].name;
      if (!component(name))
        return kNewNames[0];
      if (rng() % 4 == 0)
        for (char& c : name)
          c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
      return name;
    }
    return rng() % 6 == 0 ? kLongName : kNewNames[rng() % std::size(kNewNames)];
  }

  // Looks a name up; a directory found joins the working set, a file may
  // be held open.
  int find(vnode_t dvp, const std::string& name, Vref* out, std::mt19937& rng) {
    int error = settled([&] { return lookup(dvp, name, LOOKUP, out); });
    if (error == 0 && vnode_isdir(out->vp))
      keep(dirs_, out->vp, 6);
    else if (error == 0 && rng() % 4 == 0)
      keep(held_files_, out->vp, 4);
    return error;
  }

  // A regular file: one held open, or one looked up now.
  vnode_t some_file(std::mt19937& rng, Vref* found) {
    if (!held_files_.empty() && rng() % 3 == 0)
      return held_files_[rng() % held_files_.size()];
    vnode_t dvp = some_dir(rng);
    if (find(dvp, some_name(dvp, rng), found, rng) != 0 || !vnode_isreg(found->vp))
      return NULLVP;
    return found->vp;
  }

  // The operations that only read, and fsync, sync and renaming the
  // volume, which a read-only mount must refuse or do without writing.
  void read_op(std::mt19937& rng) {
    vnode_t dvp = some_dir(rng);
    Vref found;
    switch (rng() % 7) {
      case 0: {
        std::vector<DirRecord> records;
        settled([&] { return vn_list(dvp, &records, 100 + rng() % 1000); });
        break;
      }
      case 1:
        if (find(dvp, some_name(dvp, rng), &found, rng) == 0) {
          struct vnode_attr va;
          VATTR_INIT(&va);
          VATTR_WANTED(&va, va_data_size);
          VATTR_WANTED(&va, va_flags);
          VATTR_WANTED(&va, va_modify_time);
          VATTR_WANTED(&va, va_fileid);
          settled([&] { return VNOP_GETATTR(found.vp, &va, ctx_); });
          std::string target;
          if (vnode_islnk(found.vp))
            settled([&] { return vn_readlink(found.vp, &target); });
        }
        break;
      case 2: {
        vnode_t vp = some_file(rng, &found);
        if (vp != NULLVP)
          settled([&] { return vn_read(vp, rng() % 4000, 1 + rng() % 3000).error; });
        break;
      }
      case 3: {
        vnode_t vp = rng() % 2 ? dvp : some_file(rng, &found);
        if (vp != NULLVP)
          settled([&] { return VNOP_FSYNC(vp, MNT_WAIT, ctx_); });
        break;
      }
      case 4:
        settled([&] { return host_sync(mp, MNT_WAIT); });
        break;
      case 5: {
        const char* labels[] = {"", "A", "ELEVEN CHAR", "TWELVE CHARS"};
        int error = set_label(pick(labels, rng));
        if (xm->xm_flags & XM_RDONLY) {
          EXPECT_EQ(EROFS, error) << "a read-only volume was renamed";
        }
        break;
      }
      default:
        // Let go of what is held: inactive writes dirty entries back.
        release_held();
        keep(dirs_, root_vp_, 1);
        break;
    }
  }

  int set_label(const char* name) {
    struct vfs_attr va;
    VFSATTR_INIT(&va);
    std::string copy = name;
    va.f_vol_name = copy.data();
    VFSATTR_WANTED(&va, f_vol_name);
    return settled([&] { return VFS_SETATTR(mp, &va, ctx_); });
  }

  // Removes a name while the file may stay held; a removed file that is
  // still held has no link left.
  void remove_op(vnode_t dvp, const std::string& name) {
    Vref victim;
    // A restart looks the name up again, as the kernel does.
    int error = settled([&] {
      victim.reset();
      int lookup_error = lookup(dvp, name, DELETE, &victim);
      if (lookup_error)
        return lookup_error;
      Component c(name, DELETE);
      return vnode_isdir(victim.vp) ? VNOP_RMDIR(dvp, victim.vp, &c.cn, ctx_)
                                    : VNOP_REMOVE(dvp, victim.vp, &c.cn, 0, ctx_);
    });
    if (error == 0) {
      struct vnode_attr va;
      VATTR_INIT(&va);
      VATTR_WANTED(&va, va_nlink);
      EXPECT_EQ(0, VNOP_GETATTR(victim.vp, &va, ctx_));
      EXPECT_EQ(0u, va.va_nlink) << "a removed file still reports a link";
    }
  }

  void write_op(std::mt19937& rng) {
    vnode_t dvp = some_dir(rng);
    Vref found, made;
    switch (rng() % 9) {
      case 0: {
        vnode_t vp = some_file(rng, &found);
        if (vp != NULLVP)
          settled([&] {
            return vn_write_at(vp, rng() % 4000, std::vector<uint8_t>(1 + rng() % 3000, 'w'));
          });
        break;
      }
      case 1: {
        vnode_t vp = some_file(rng, &found);
        const uint64_t sizes[] = {0, 1, 511, 513, 5000};
        if (vp != NULLVP)
          settled([&] { return vn_set_size(vp, pick(sizes, rng)); });
        break;
      }
      case 2:
        if (settled([&] { return create(dvp, some_name(dvp, rng), &made); }) == 0)
          keep(held_files_, made.vp, 4);
        break;
      case 3:
        if (settled([&] { return mkdir(dvp, some_name(dvp, rng), &made); }) == 0)
          keep(dirs_, made.vp, 6);
        break;
      case 4:
        settled([&] { return symlink(dvp, some_name(dvp, rng), "dir/b.txt", &made); });
        break;
      case 5:
        remove_op(dvp, some_name(dvp, rng));
        break;
      case 6: {
        vnode_t to = some_dir(rng);
        // Long target names half the time: they reshape the set most.
        std::string target = rng() % 2 ? some_name(to, rng) : rng() % 2 ? kLongName : kNewNames[5];
        settled([&] { return rename(dvp, some_name(dvp, rng), to, target); });
        break;
      }
      case 7:
        if (find(dvp, some_name(dvp, rng), &found, rng) == 0) {
          const uint32_t flags[] = {0, UF_HIDDEN, UF_IMMUTABLE, SF_ARCHIVED, UF_NODUMP};
          struct vnode_attr va;
          VATTR_INIT(&va);
          VATTR_SET(&va, va_flags, pick(flags, rng));
          if (rng() % 2)
            VATTR_SET(&va, va_modify_time, (timespec{static_cast<time_t>(rng()), 0}));
          settled([&] { return VNOP_SETATTR(found.vp, &va, ctx_); });
        }
        break;
      default:
        read_op(rng);
        break;
    }
  }

  // One mounted session: a random sequence of operations, then unmount.
  void session(bool writable, int ops, std::mt19937& rng) {
    ctx_ = vfs_context_kernel();
    if (settled([&] { return VFS_ROOT(mp, &root_vp_, ctx_); }) != 0)
      return;
    keep(dirs_, root_vp_, 1);
    // The root's directories are worked in from the start.
    std::vector<DirRecord> records;
    if (settled([&] { return vn_list(root_vp_, &records); }) == 0) {
      for (const DirRecord& r : records) {
        Vref found;
        if (r.type == DT_DIR && component(r.name))
          find(root_vp_, r.name, &found, rng);
      }
    }
    for (int k = 0; k < ops && !HasFailure(); k++) {
      if (writable && rng() % 3 != 0)
        write_op(rng);
      else
        read_op(rng);
    }
    release_held();
  }

  void unmount_all() {
    release_held();
    release_nodes();
    int error = unmount();
    EXPECT_GE(error, 0);
    if (error != 0) {
      EXPECT_EQ(0, unmount(MNT_FORCE));
    }
  }

  Dir dir_, sub_, big_;
  Placed chain_, contig_;
  uint32_t link_cluster_ = 0;
  std::vector<SetPlace> sets_;      // every set of the base volume
  std::vector<SetPlace> dir_sets_;  // the directories' sets
  std::vector<uint8_t> plain_, base_;
  std::vector<vnode_t> dirs_;        // directories to work in, each held
  std::vector<vnode_t> held_files_;  // files held open, removed or not
};

TEST_F(DamagedWalk, EveryOperationReturnsAValueOrAnErrno) {
  const uint32_t seed = env_or("EXVOL_WALK_SEED", 20241107);
  const int variants = static_cast<int>(env_or("EXVOL_WALK_VARIANTS", 300));
  const int ops = static_cast<int>(env_or("EXVOL_WALK_OPS", 40));
  const bool checker = !fsck_program().empty();

  make_base();
  ASSERT_FALSE(HasFatalFailure());

  // Undamaged, the walk reaches every name of the volume.
  ASSERT_EQ(0, load(base_));
  ASSERT_EQ(0, mount(MNT_RDONLY));
  ctx_ = vfs_context_kernel();
  ASSERT_EQ(0, VFS_ROOT(mp, &root_vp_, ctx_));
  EXPECT_EQ(12, walk_tree(root_vp_)) << "the walk misses names";
  unmount_all();
  release();

  std::mt19937 rng(seed);
  arm_crash_report(true);
  int mounted = 0;
  for (int i = 0; i < variants && !HasFailure(); i++) {
    std::vector<uint8_t> image = base_;
    std::string what = damage_image(image, rng);
    if (what == "undamaged")
      image = plain_;
    bool writable = rng() % 2 == 0;
    snprintf(crash_case, sizeof(crash_case), "EXVOL_WALK_SEED=%u, variant %d (%s%s)", seed, i,
             what.c_str(), writable ? ", read-write" : "");
    SCOPED_TRACE(crash_case);
    arm_watchdog(60);

    ASSERT_EQ(0, load(image));
    {
      KernLogCapture quiet;
      int error = mount(writable ? 0 : MNT_RDONLY);
      if (error != 0) {
        EXPECT_GT(error, 0);
      } else {
        mounted++;
        session(writable, ops, rng);
        if (what == "undamaged") {
          EXPECT_EQ(0u, xm->xm_flags & XM_CORRUPT) << "an undamaged volume was found corrupt";
        }
        unmount_all();
      }
    }
    if (!writable) {
      EXPECT_TRUE(read_device(0, image.size()) == image) << "a read-only mount wrote";
    } else if (what == "undamaged" && checker) {
      FsckResult r = run_fsck(read_device(0, image.size()));
      EXPECT_EQ(0, r.status) << r.output;
    }
    release();
    if (driver_memory() != baseline_memory_) {
      ADD_FAILURE() << "driver memory left behind: " << driver_memory();
      break;
    }
  }
  arm_watchdog(0);
  arm_crash_report(false);
  // Most variants must mount, or the operations test little.
  EXPECT_GT(mounted, variants / 2);
}
