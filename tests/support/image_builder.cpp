// The test image builder. It is written from the exFAT format description
// on its own, without the driver's code, so that tests compare the driver
// against an independent reading of the format.

#include "tests/support/image_builder.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace exvol::test {

namespace {

void put16(uint8_t* p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
}

void put32(uint8_t* p, uint32_t v) {
  for (int i = 0; i < 4; i++)
    p[i] = static_cast<uint8_t>(v >> (8 * i));
}

void put64(uint8_t* p, uint64_t v) {
  for (int i = 0; i < 8; i++)
    p[i] = static_cast<uint8_t>(v >> (8 * i));
}

uint32_t get32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

[[noreturn]] void fail(const std::string& what) {
  throw std::runtime_error("ImageBuilder: " + what);
}

constexpr uint32_t kEndOfChain = 0xFFFFFFFF;

}  // namespace

// --- Entry-set bytes ------------------------------------------------------------------

uint16_t set_checksum(const uint8_t* set) {
  uint32_t n = (set[1] + 1u) * 32;
  uint16_t c = 0;
  for (uint32_t i = 0; i < n; i++) {
    if (i == 2 || i == 3)
      continue;
    c = static_cast<uint16_t>(((c & 1) ? 0x8000 : 0) + (c >> 1) + set[i]);
  }
  return c;
}

void fix_set_checksum(std::vector<uint8_t>& set) {
  if (set.size() < 32 || set.size() < (set[1] + 1u) * 32)
    fail("fix_set_checksum: set shorter than its SecondaryCount");
  put16(set.data() + 2, set_checksum(set.data()));
}

uint16_t name_hash(const std::u16string& name, const std::vector<uint16_t>& upcase) {
  uint16_t h = 0;
  for (char16_t unit : name) {
    uint16_t c = upcase.at(unit);
    h = static_cast<uint16_t>(((h & 1) ? 0x8000 : 0) + (h >> 1) + (c & 0xFF));
    h = static_cast<uint16_t>(((h & 1) ? 0x8000 : 0) + (h >> 1) + (c >> 8));
  }
  return h;
}

std::vector<uint16_t> ascii_upcase_table() {
  std::vector<uint16_t> table(65536);
  for (uint32_t c = 0; c < 65536; c++)
    table[c] = static_cast<uint16_t>(c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c);
  return table;
}

std::vector<uint8_t> upcase_items(const std::vector<uint16_t>& items) {
  std::vector<uint8_t> data(items.size() * 2);
  for (size_t i = 0; i < items.size(); i++)
    put16(data.data() + 2 * i, items[i]);
  return data;
}

// Identity stretches of two or more code units become 0xFFFF runs; the rest
// are plain items. A plain 0xFFFF can only stand last, where it is ordinary.
std::vector<uint8_t> compress_upcase(const std::vector<uint16_t>& table) {
  if (table.size() != 65536)
    fail("compress_upcase: table must have 65536 entries");
  std::vector<uint16_t> items;
  uint32_t c = 0;
  while (c < 65536) {
    uint32_t run = 0;
    while (c + run < 65536 && table[c + run] == c + run && run < 0xFFFF)
      run++;
    if (run >= 2) {
      items.push_back(0xFFFF);
      items.push_back(static_cast<uint16_t>(run));
      c += run;
      continue;
    }
    if (table[c] == 0xFFFF && c != 0xFFFF)
      fail("compress_upcase: a plain 0xFFFF item before the end");
    items.push_back(table[c]);
    c++;
  }
  return upcase_items(items);
}

uint32_t upcase_checksum(const std::vector<uint8_t>& data) {
  uint32_t c = 0;
  for (uint8_t b : data)
    c = ((c & 1) ? 0x80000000u : 0) + (c >> 1) + b;
  return c;
}

std::vector<uint8_t> make_file_set(const FileDesc& desc, const std::vector<uint16_t>& upcase) {
  size_t len = desc.name.size();
  if (len > 255)
    fail("make_file_set: name longer than 255 units");
  size_t names = (len + 14) / 15;
  size_t secondaries = 1 + names + desc.extra_secondaries.size();
  if (secondaries > 255)
    fail("make_file_set: more than 255 secondaries");
  std::vector<uint8_t> set((secondaries + 1) * 32, 0);

  uint8_t* fe = set.data();
  fe[0] = 0x85;
  fe[1] = static_cast<uint8_t>(secondaries);
  put16(fe + 4, desc.attributes);
  put32(fe + 8, desc.timestamp);
  put32(fe + 12, desc.timestamp);
  put32(fe + 16, desc.timestamp);
  fe[22] = fe[23] = fe[24] = 0x80;  // UTC

  uint8_t* st = set.data() + 32;
  st[0] = 0xC0;
  st[1] = static_cast<uint8_t>(0x01 | (desc.no_fat_chain ? 0x02 : 0));
  st[3] = static_cast<uint8_t>(len);
  put16(st + 4, name_hash(desc.name, upcase));
  put64(st + 8, desc.valid_length.value_or(desc.data_length));
  put32(st + 20, desc.first_cluster);
  put64(st + 24, desc.data_length);

  for (size_t i = 0; i < len; i++) {
    uint8_t* ne = set.data() + 64 + 32 * (i / 15);
    ne[0] = 0xC1;
    put16(ne + 2 + 2 * (i % 15), desc.name[i]);
  }
  for (size_t i = 0; i < desc.extra_secondaries.size(); i++)
    memcpy(set.data() + 64 + 32 * (names + i), desc.extra_secondaries[i].data(), 32);

  fix_set_checksum(set);
  return set;
}

Entry raw_entry(uint8_t type, uint8_t byte1, uint32_t first_cluster, uint64_t length) {
  Entry e{};
  e[0] = type;
  e[1] = byte1;
  put32(e.data() + 20, first_cluster);
  put64(e.data() + 24, length);
  return e;
}

Entry bitmap_entry(uint8_t flags, uint32_t first_cluster, uint64_t length) {
  return raw_entry(0x81, flags, first_cluster, length);
}

Entry upcase_entry(uint32_t checksum, uint32_t first_cluster, uint64_t length) {
  Entry e = raw_entry(0x82, 0, first_cluster, length);
  put32(e.data() + 4, checksum);
  return e;
}

Entry label_entry(const std::u16string& label, std::optional<uint8_t> count) {
  Entry e{};
  e[0] = 0x83;
  e[1] = count.value_or(static_cast<uint8_t>(label.size()));
  for (size_t i = 0; i < label.size() && i < 11; i++)
    put16(e.data() + 2 + 2 * i, label[i]);
  return e;
}

Entry guid_entry(const std::array<uint8_t, 16>& guid, bool valid_checksum) {
  Entry e{};
  e[0] = 0xA0;
  memcpy(e.data() + 6, guid.data(), 16);
  uint16_t c = set_checksum(e.data());
  put16(e.data() + 2, valid_checksum ? c : static_cast<uint16_t>(c + 1));
  return e;
}

uint32_t boot_checksum(const uint8_t* region, uint32_t bytes_per_sector) {
  uint32_t c = 0;
  for (uint32_t i = 0; i < 11 * bytes_per_sector; i++) {
    if (i == 106 || i == 107 || i == 112)
      continue;
    c = ((c & 1) ? 0x80000000u : 0) + (c >> 1) + region[i];
  }
  return c;
}

std::vector<uint8_t> bytes(const std::string& s) {
  return std::vector<uint8_t>(s.begin(), s.end());
}

// --- The builder ------------------------------------------------------------------

ImageBuilder::ImageBuilder(Geometry geometry) : geometry_(geometry) {
  upcase_table_ = ascii_upcase_table();
  upcase_data_ = compress_upcase(upcase_table_);
  layout();
}

uint64_t ImageBuilder::volume_sectors() const {
  return geometry_.heap_offset +
         (static_cast<uint64_t>(geometry_.cluster_count) << geometry_.cluster_shift);
}

uint64_t ImageBuilder::cluster_byte_offset(uint32_t cluster) const {
  if (cluster < 2 || cluster > geometry_.cluster_count + 1)
    fail("cluster " + std::to_string(cluster) + " outside the heap");
  return static_cast<uint64_t>(geometry_.heap_offset) * bytes_per_sector() +
         static_cast<uint64_t>(cluster - 2) * bytes_per_cluster();
}

uint64_t ImageBuilder::fat_byte_offset() const {
  return static_cast<uint64_t>(geometry_.fat_offset) * bytes_per_sector();
}

uint8_t* ImageBuilder::at(uint64_t offset) {
  if (offset >= image_.size())
    fail("offset past the end of the image");
  return image_.data() + offset;
}

// Places the FAT and the heap, then allocates the bitmap, the up-case table
// and the root directory as the first clusters, as a formatter would.
void ImageBuilder::layout() {
  Geometry& g = geometry_;
  if (g.sector_shift < 9 || g.sector_shift > 16 || g.sector_shift + g.cluster_shift > 25)
    fail("unsupported sector or cluster shift");
  uint32_t bps = bytes_per_sector();
  if (g.fat_length == 0)
    g.fat_length = static_cast<uint32_t>(((g.cluster_count + 2ull) * 4 + bps - 1) / bps);
  if (g.heap_offset == 0) {
    uint32_t spc = 1u << g.cluster_shift;
    uint32_t end = g.fat_offset + g.fat_length;
    g.heap_offset = (end + spc - 1) / spc * spc;
  }
  image_.assign(volume_sectors() * bps, 0);
  used_.assign(g.cluster_count, false);
  set_fat(0, 0xFFFFFFF8);
  set_fat(1, kEndOfChain);

  uint32_t bitmap_clusters =
      static_cast<uint32_t>((bitmap_length() + bytes_per_cluster() - 1) / bytes_per_cluster());
  bitmap_cluster_ = allocate(bitmap_clusters, Alloc::Chain);
  set_upcase_data(upcase_data_);
  root_.clusters.clear();
  root_.first_cluster = allocate(g.root_clusters, Alloc::Chain);
  for (uint32_t c = root_.first_cluster; c != kEndOfChain; c = fat(c))
    root_.clusters.push_back(c);
  root_.alloc = Alloc::Chain;
  root_.fixed_size = false;
}

uint32_t ImageBuilder::free_run(uint32_t count) const {
  uint32_t run = 0;
  for (uint32_t i = 0; i < used_.size(); i++) {
    run = used_[i] ? 0 : run + 1;
    if (run == count)
      return i + 2 - (count - 1);
  }
  fail("no free run of " + std::to_string(count) + " clusters");
}

uint32_t ImageBuilder::allocate(uint32_t count, Alloc alloc) {
  if (count == 0)
    fail("allocate: count 0");
  std::vector<uint32_t> picked;
  if (alloc == Alloc::Contiguous) {
    uint32_t first = free_run(count);
    for (uint32_t i = 0; i < count; i++)
      picked.push_back(first + i);
  } else {
    for (uint32_t i = 0; i < used_.size() && picked.size() < count; i++) {
      if (!used_[i])
        picked.push_back(i + 2);
    }
    if (picked.size() < count)
      fail("volume full");
  }
  for (size_t i = 0; i < picked.size(); i++) {
    used_[picked[i] - 2] = true;
    memset(at(cluster_byte_offset(picked[i])), 0, bytes_per_cluster());
    if (alloc == Alloc::Chain)
      set_fat(picked[i], i + 1 < picked.size() ? picked[i + 1] : kEndOfChain);
  }
  return picked[0];
}

ImageBuilder& ImageBuilder::set_fat(uint32_t cluster, uint32_t value) {
  uint64_t entry = static_cast<uint64_t>(cluster) * 4;
  if (entry + 4 > static_cast<uint64_t>(geometry_.fat_length) * bytes_per_sector())
    fail("FAT entry outside the FAT");
  put32(at(fat_byte_offset() + entry), value);
  return *this;
}

uint32_t ImageBuilder::fat(uint32_t cluster) const {
  uint64_t offset = fat_byte_offset() + static_cast<uint64_t>(cluster) * 4;
  if (offset + 4 > image_.size())
    fail("FAT entry outside the image");
  return get32(image_.data() + offset);
}

bool ImageBuilder::allocated(uint32_t cluster) const {
  return used_.at(cluster - 2);
}

ImageBuilder& ImageBuilder::set_allocated(uint32_t cluster, bool used) {
  used_.at(cluster - 2) = used;
  return *this;
}

ImageBuilder& ImageBuilder::write_data(uint32_t first_cluster, Alloc alloc,
                                       const std::vector<uint8_t>& data) {
  uint32_t bpc = bytes_per_cluster();
  uint32_t cluster = first_cluster;
  for (size_t done = 0; done < data.size(); done += bpc) {
    if (cluster < 2 || cluster > geometry_.cluster_count + 1)
      fail("write_data: chain ends before the data");
    size_t n = std::min<size_t>(bpc, data.size() - done);
    memcpy(at(cluster_byte_offset(cluster)), data.data() + done, n);
    cluster = alloc == Alloc::Contiguous ? cluster + 1 : fat(cluster);
  }
  return *this;
}

// Frees the old up-case clusters and stores the new table in fresh ones, so
// call it before add_upcase_entry.
ImageBuilder& ImageBuilder::set_upcase_data(const std::vector<uint8_t>& data) {
  for (uint32_t c = upcase_cluster_, i = 0; i < upcase_clusters_; i++) {
    uint32_t next = fat(c);
    used_[c - 2] = false;
    set_fat(c, 0);
    c = next;
  }
  upcase_data_ = data;
  uint32_t bpc = bytes_per_cluster();
  upcase_clusters_ = std::max<uint32_t>(1, static_cast<uint32_t>((data.size() + bpc - 1) / bpc));
  upcase_cluster_ = allocate(upcase_clusters_, Alloc::Chain);
  return write_data(upcase_cluster_, Alloc::Chain, data);
}

ImageBuilder& ImageBuilder::add_bitmap_entry(uint8_t flags) {
  add_entry(root_, bitmap_entry(flags, bitmap_cluster_, bitmap_length()));
  return *this;
}

ImageBuilder& ImageBuilder::add_upcase_entry() {
  return add_upcase_entry(upcase_checksum(upcase_data_));
}

ImageBuilder& ImageBuilder::add_upcase_entry(uint32_t checksum) {
  add_entry(root_, upcase_entry(checksum, upcase_cluster_, upcase_data_.size()));
  return *this;
}

ImageBuilder& ImageBuilder::add_label(const std::u16string& label) {
  add_entry(root_, label_entry(label));
  return *this;
}

ImageBuilder& ImageBuilder::add_guid(const std::array<uint8_t, 16>& guid, bool valid_checksum) {
  add_entry(root_, guid_entry(guid, valid_checksum));
  return *this;
}

uint64_t ImageBuilder::dir_byte_offset(const Dir& dir, uint32_t offset) const {
  uint32_t index = offset / bytes_per_cluster();
  if (index >= dir.clusters.size())
    fail("directory offset past its clusters");
  return cluster_byte_offset(dir.clusters[index]) + offset % bytes_per_cluster();
}

// Links one more cluster to a growable (chained) directory.
void ImageBuilder::grow_dir(Dir& dir) {
  if (dir.fixed_size)
    fail("directory full; make it with more clusters");
  uint32_t c = allocate(1, Alloc::Chain);
  set_fat(dir.clusters.back(), c);
  dir.clusters.push_back(c);
}

Placed ImageBuilder::add_entries(Dir& dir, const std::vector<uint8_t>& entries) {
  if (entries.empty() || entries.size() % 32 != 0)
    fail("add_entries: not a whole number of entries");
  Placed placed;
  placed.offset = dir.next_offset;
  placed.entries = static_cast<uint32_t>(entries.size() / 32);
  for (size_t i = 0; i < entries.size(); i += 32) {
    while (dir.next_offset >= dir.clusters.size() * bytes_per_cluster())
      grow_dir(dir);
    memcpy(at(dir_byte_offset(dir, dir.next_offset)), entries.data() + i, 32);
    dir.next_offset += 32;
  }
  return placed;
}

Placed ImageBuilder::add_entry(Dir& dir, const Entry& entry) {
  return add_entries(dir, std::vector<uint8_t>(entry.begin(), entry.end()));
}

// Deleted File entries (type 0x05) stand in the skipped slots: free to the
// driver, and not an end-of-directory marker.
ImageBuilder& ImageBuilder::skip_to(Dir& dir, uint32_t offset) {
  if (offset % 32 != 0 || offset < dir.next_offset)
    fail("skip_to: offset behind the next slot or not entry-aligned");
  while (dir.next_offset < offset)
    add_entry(dir, raw_entry(0x05));
  return *this;
}

Placed ImageBuilder::add_set(Dir& dir, const FileDesc& desc) {
  Placed placed = add_entries(dir, make_file_set(desc, upcase_table_));
  placed.first_cluster = desc.first_cluster;
  uint32_t bpc = bytes_per_cluster();
  placed.clusters = static_cast<uint32_t>((desc.data_length + bpc - 1) / bpc);
  return placed;
}

Placed ImageBuilder::add_file(Dir& dir, const std::u16string& name,
                              const std::vector<uint8_t>& data, Alloc alloc,
                              uint16_t attributes) {
  uint32_t bpc = bytes_per_cluster();
  uint32_t clusters = static_cast<uint32_t>((data.size() + bpc - 1) / bpc);
  FileDesc desc;
  desc.name = name;
  desc.attributes = attributes;
  desc.data_length = data.size();
  if (clusters > 0) {
    desc.first_cluster = allocate(clusters, alloc);
    desc.no_fat_chain = alloc == Alloc::Contiguous;
    write_data(desc.first_cluster, alloc, data);
  }
  return add_set(dir, desc);
}

Dir ImageBuilder::mkdir(Dir& parent, const std::u16string& name, uint32_t clusters,
                        Alloc alloc) {
  Dir dir;
  dir.alloc = alloc;
  dir.first_cluster = allocate(clusters, alloc);
  for (uint32_t i = 0, c = dir.first_cluster; i < clusters; i++) {
    dir.clusters.push_back(c);
    c = alloc == Alloc::Contiguous ? c + 1 : fat(c);
  }
  FileDesc desc;
  desc.name = name;
  desc.attributes = 0x10;
  desc.first_cluster = dir.first_cluster;
  desc.data_length = static_cast<uint64_t>(clusters) * bytes_per_cluster();
  desc.no_fat_chain = alloc == Alloc::Contiguous;
  add_set(parent, desc);
  return dir;
}

ImageBuilder& ImageBuilder::mark_deleted(const Dir& dir, uint32_t offset, uint32_t count) {
  for (uint32_t i = 0; i < count; i++)
    *at(dir_byte_offset(dir, offset + 32 * i)) &= 0x7F;
  return *this;
}

ImageBuilder& ImageBuilder::boot_field(uint32_t offset, uint64_t value, unsigned width) {
  if (width != 1 && width != 2 && width != 4 && width != 8)
    fail("boot_field: width must be 1, 2, 4 or 8");
  if (offset + width > 512)
    fail("boot_field: outside the boot sector");
  boot_fields_[offset] = {value, width};
  return *this;
}

ImageBuilder& ImageBuilder::corrupt_boot_checksum_word(uint32_t word) {
  if (word >= bytes_per_sector() / 4)
    fail("corrupt_boot_checksum_word: word outside the sector");
  bad_checksum_words_.push_back(word);
  return *this;
}

// Writes one boot region (12 sectors) starting at `sector`.
void ImageBuilder::write_boot_region(std::vector<uint8_t>& image, uint64_t sector) const {
  const Geometry& g = geometry_;
  uint32_t bps = bytes_per_sector();
  uint8_t* region = image.data() + sector * bps;
  memset(region, 0, 12 * bps);

  uint8_t* bs = region;
  memcpy(bs, "\xEB\x76\x90" "EXFAT   ", 11);
  put64(bs + 72, volume_sectors());
  put32(bs + 80, g.fat_offset);
  put32(bs + 84, g.fat_length);
  put32(bs + 88, g.heap_offset);
  put32(bs + 92, g.cluster_count);
  put32(bs + 96, root_.first_cluster);
  put32(bs + 100, g.serial);
  put16(bs + 104, 0x0100);
  bs[108] = static_cast<uint8_t>(g.sector_shift);
  bs[109] = static_cast<uint8_t>(g.cluster_shift);
  bs[110] = 1;  // NumberOfFats
  bs[111] = 0x80;
  size_t used = static_cast<size_t>(std::count(used_.begin(), used_.end(), true));
  bs[112] = static_cast<uint8_t>(used * 100 / g.cluster_count);
  bs[510] = 0x55;
  bs[511] = 0xAA;
  for (const auto& [offset, field] : boot_fields_) {
    for (unsigned i = 0; i < field.second; i++)
      bs[offset + i] = static_cast<uint8_t>(field.first >> (8 * i));
  }
  for (uint32_t s = 1; s <= 8; s++)
    put32(region + s * bps + bps - 4, 0xAA550000);

  uint32_t checksum = boot_checksum(region, bps);
  uint8_t* checksum_sector = region + 11 * bps;
  for (uint32_t i = 0; i < bps; i += 4)
    put32(checksum_sector + i, checksum);
  for (uint32_t word : bad_checksum_words_)
    put32(checksum_sector + 4 * word, checksum ^ 0x00010000);
}

void ImageBuilder::write_bitmap(std::vector<uint8_t>& image) const {
  std::vector<uint8_t> bits(static_cast<size_t>(bitmap_length()), 0);
  for (uint32_t i = 0; i < used_.size(); i++)
    bits[i / 8] |= static_cast<uint8_t>(used_[i] ? 1u << (i % 8) : 0);
  uint32_t bpc = bytes_per_cluster();
  uint32_t cluster = bitmap_cluster_;
  for (size_t done = 0; done < bits.size(); done += bpc) {
    size_t n = std::min<size_t>(bpc, bits.size() - done);
    memcpy(image.data() + cluster_byte_offset(cluster), bits.data() + done, n);
    cluster = fat(cluster);
  }
}

std::vector<uint8_t> ImageBuilder::build() {
  write_bitmap(image_);
  write_boot_region(image_, 0);
  write_boot_region(image_, 12);
  return image_;
}

void ImageBuilder::write_to(const std::string& path) {
  std::vector<uint8_t> image = build();
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(image.data()), static_cast<std::streamsize>(image.size()));
  if (!out)
    fail("can't write " + path);
}

}  // namespace exvol::test
