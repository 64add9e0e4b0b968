#pragma once
// A builder of exFAT volume images for tests, written byte by byte.
//
// The builder lays out a volume (boot region, FAT, cluster heap) when it is
// constructed and allocates the allocation bitmap, the up-case table and the
// root directory as the first clusters of the heap. Everything else is added
// explicitly, in any order and any number, so that a test can make exactly
// the volume it needs, broken ones included:
//
//   ImageBuilder b(Geometry{.sector_shift = 12, .cluster_shift = 0});
//   b.add_bitmap_entry().add_upcase_entry().add_label(u"DATA");
//   Dir docs = b.mkdir(b.root(), u"docs");
//   b.add_file(docs, u"a.txt", bytes("hello"));
//   std::vector<uint8_t> image = b.build();
//
// build() writes the bitmap file from the allocation state and the boot
// region and its backup with their checksum (or a deliberately wrong one);
// everything else is written as it is added. Misuse throws
// std::runtime_error, which fails the calling test.

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace exvol::test {

using Entry = std::array<uint8_t, 32>;

struct Geometry {
  unsigned sector_shift = 9;     // bytes per sector = 2^shift
  unsigned cluster_shift = 3;    // sectors per cluster = 2^shift
  uint32_t cluster_count = 512;
  uint32_t fat_offset = 24;      // sectors; after the main and backup boot regions
  uint32_t fat_length = 0;       // sectors; 0 = just enough for cluster_count + 2 entries
  uint32_t heap_offset = 0;      // sectors; 0 = first cluster-aligned sector after the FAT
  uint32_t serial = 0x1234ABCD;
  uint32_t root_clusters = 1;    // clusters of the root directory's initial chain
};

// How a file's or directory's clusters are recorded.
enum class Alloc {
  Chain,       // linked through the FAT
  Contiguous,  // one run, NoFatChain set, FAT untouched
};

// A directory being filled: its clusters in order and the next free slot.
struct Dir {
  uint32_t first_cluster = 0;
  Alloc alloc = Alloc::Chain;
  std::vector<uint32_t> clusters;
  uint32_t next_offset = 0;  // byte offset of the next entry appended
  bool fixed_size = true;    // false for the root: it grows through the FAT
};

// Where an added entry set or file landed.
struct Placed {
  uint32_t offset = 0;        // byte offset of the set's first entry in its directory
  uint32_t entries = 0;       // entries written
  uint32_t first_cluster = 0; // of the file's data (0 when empty)
  uint32_t clusters = 0;
};

// Describes a File entry set. Fields left alone give a valid set.
struct FileDesc {
  std::u16string name;
  uint16_t attributes = 0x20;  // archive
  uint32_t first_cluster = 0;
  uint64_t data_length = 0;
  std::optional<uint64_t> valid_length;  // default: data_length
  bool no_fat_chain = false;
  uint32_t timestamp = (44u << 25) | (1u << 21) | (1u << 16);  // 2024-01-01 00:00:00
  std::vector<Entry> extra_secondaries;  // appended after the name entries
};

// --- Entry-set bytes (free functions, usable without a builder) ------------------

// The entry-set checksum of a set (its SecondaryCount decides the length).
uint16_t set_checksum(const uint8_t* set);
// Recomputes and stores the checksum of the set at the start of `set`.
void fix_set_checksum(std::vector<uint8_t>& set);
// The exFAT name hash through an up-case mapping.
uint16_t name_hash(const std::u16string& name, const std::vector<uint16_t>& upcase);
// A full up-case table (65,536 entries) with a-z -> A-Z and identity elsewhere.
std::vector<uint16_t> ascii_upcase_table();
// A compressed up-case table (identity stretches as runs), and raw items.
std::vector<uint8_t> compress_upcase(const std::vector<uint16_t>& table);
std::vector<uint8_t> upcase_items(const std::vector<uint16_t>& items);
uint32_t upcase_checksum(const std::vector<uint8_t>& data);
// A File set for desc, hashed through upcase, checksum correct.
std::vector<uint8_t> make_file_set(const FileDesc& desc, const std::vector<uint16_t>& upcase);
// Entries for the root directory.
Entry bitmap_entry(uint8_t flags, uint32_t first_cluster, uint64_t length);
Entry upcase_entry(uint32_t checksum, uint32_t first_cluster, uint64_t length);
Entry label_entry(const std::u16string& label, std::optional<uint8_t> count = std::nullopt);
Entry guid_entry(const std::array<uint8_t, 16>& guid, bool valid_checksum = true);
// A generic entry of any type with flags; FirstCluster/DataLength at 20/24.
Entry raw_entry(uint8_t type, uint8_t byte1 = 0, uint32_t first_cluster = 0, uint64_t length = 0);
// The boot checksum of sectors 0-10 of a boot region.
uint32_t boot_checksum(const uint8_t* region, uint32_t bytes_per_sector);

// --- The builder -------------------------------------------------------------------

class ImageBuilder {
 public:
  explicit ImageBuilder(Geometry geometry = {});

  // Geometry.
  uint32_t bytes_per_sector() const { return 1u << geometry_.sector_shift; }
  uint32_t bytes_per_cluster() const { return bytes_per_sector() << geometry_.cluster_shift; }
  const Geometry& geometry() const { return geometry_; }
  uint64_t cluster_byte_offset(uint32_t cluster) const;  // in the image
  uint64_t fat_byte_offset() const;
  const std::vector<uint16_t>& upcase() const { return upcase_table_; }

  // System files as allocated at construction.
  uint32_t bitmap_cluster() const { return bitmap_cluster_; }
  uint64_t bitmap_length() const { return (geometry_.cluster_count + 7) / 8; }
  uint32_t upcase_cluster() const { return upcase_cluster_; }
  const std::vector<uint8_t>& upcase_data() const { return upcase_data_; }
  Dir& root() { return root_; }

  // --- Clusters, FAT and bitmap ---
  // Allocates count free clusters (lowest first); Chain links them through
  // the FAT with an end mark, Contiguous takes the first free run. Marks
  // them used. Returns the first cluster.
  uint32_t allocate(uint32_t count, Alloc alloc);
  ImageBuilder& set_fat(uint32_t cluster, uint32_t value);
  uint32_t fat(uint32_t cluster) const;
  bool allocated(uint32_t cluster) const;
  // Marks a cluster used or free in the allocation state (written at build).
  ImageBuilder& set_allocated(uint32_t cluster, bool used);
  // Writes data into a file's clusters from its first cluster on.
  ImageBuilder& write_data(uint32_t first_cluster, Alloc alloc, const std::vector<uint8_t>& data);

  // --- Up-case table contents ---
  // Replaces the stored up-case file (it must fit the clusters allocated at
  // construction, 4 clusters or the ASCII table's size, whichever is larger;
  // use a larger allocation through add_upcase_entry for more).
  ImageBuilder& set_upcase_data(const std::vector<uint8_t>& data);

  // --- Root directory system entries (appended to the root) ---
  ImageBuilder& add_bitmap_entry(uint8_t flags = 0);
  ImageBuilder& add_upcase_entry();  // checksum, location, length of the stored table
  ImageBuilder& add_upcase_entry(uint32_t checksum);
  ImageBuilder& add_label(const std::u16string& label);
  ImageBuilder& add_guid(const std::array<uint8_t, 16>& guid, bool valid_checksum = true);

  // --- Directories and files ---
  // Appends raw entries (any bytes) to a directory; returns where they went.
  Placed add_entries(Dir& dir, const std::vector<uint8_t>& entries);
  Placed add_entry(Dir& dir, const Entry& entry);
  // Fills slots with deleted entries up to `offset` (a multiple of 32), so
  // that the next set starts exactly there (e.g. across a block boundary).
  ImageBuilder& skip_to(Dir& dir, uint32_t offset);
  // Appends a File set for desc. Returns its placement.
  Placed add_set(Dir& dir, const FileDesc& desc);
  // Allocates data clusters, writes data and appends a File set for it.
  Placed add_file(Dir& dir, const std::u16string& name, const std::vector<uint8_t>& data,
                  Alloc alloc = Alloc::Chain, uint16_t attributes = 0x20);
  // Makes a directory of `clusters` zero-filled clusters with its set in
  // parent; the returned Dir appends to the new directory.
  Dir mkdir(Dir& parent, const std::u16string& name, uint32_t clusters = 1,
            Alloc alloc = Alloc::Chain);
  // Clears the InUse bit of `count` entries from `offset` in dir.
  ImageBuilder& mark_deleted(const Dir& dir, uint32_t offset, uint32_t count);
  // Byte offset in the image of a directory's byte `offset`.
  uint64_t dir_byte_offset(const Dir& dir, uint32_t offset) const;

  // --- Boot region ---
  // Overrides bytes of the main boot sector (and its backup) before the
  // checksum is computed: little-endian values of width 1, 2, 4 or 8.
  ImageBuilder& boot_field(uint32_t offset, uint64_t value, unsigned width);
  // Makes one 32-bit word (index within sector 11) of the checksum sector wrong.
  ImageBuilder& corrupt_boot_checksum_word(uint32_t word);
  ImageBuilder& volume_flags(uint16_t flags) { return boot_field(106, flags, 2); }

  // Writes the volume-wide structures and returns the image. The builder
  // stays usable: later changes show up in the next build().
  std::vector<uint8_t> build();
  // build(), then writes the image to a file. Throws on I/O errors.
  void write_to(const std::string& path);

 private:
  void layout();
  uint64_t volume_sectors() const;
  void write_boot_region(std::vector<uint8_t>& image, uint64_t sector) const;
  void write_bitmap(std::vector<uint8_t>& image) const;
  uint32_t free_run(uint32_t count) const;
  void grow_dir(Dir& dir);
  uint8_t* at(uint64_t offset);

  Geometry geometry_;
  std::vector<uint8_t> image_;
  std::vector<bool> used_;  // index: cluster - 2
  std::map<uint32_t, std::pair<uint64_t, unsigned>> boot_fields_;
  std::vector<uint32_t> bad_checksum_words_;
  std::vector<uint16_t> upcase_table_;
  std::vector<uint8_t> upcase_data_;
  uint32_t bitmap_cluster_ = 0;
  uint32_t upcase_cluster_ = 0;
  uint32_t upcase_clusters_ = 0;
  Dir root_;
};

// Convenience: bytes of a string.
std::vector<uint8_t> bytes(const std::string& s);

}  // namespace exvol::test
