// The root directory's system entries: the allocation bitmap and the
// up-case table (claimed, read and checked), the volume label and the
// volume GUID. They are read before any file, since names are hashed and
// compared through the up-case table and owners are set against the bitmap.

#include <cstdio>

#include "api/check_private.h"

namespace exvol::checker {

namespace {

// Expands the compressed up-case table into 65,536 entries. Returns what
// is wrong with it, or "" when the items map exactly every code unit.
std::string expand_upcase(const std::vector<uint8_t>& data, std::vector<uint16_t>* table) {
  size_t items = data.size() / 2;
  size_t i = 0;
  uint32_t unit = 0;
  table->assign(EXFAT_UPCASE_ENTRIES, 0);
  while (i < items && unit < EXFAT_UPCASE_ENTRIES) {
    uint16_t item = le16dec(&data[2 * i]);
    if (item == EXFAT_UPCASE_RUN_MARK && i + 1 < items) {
      uint32_t run = le16dec(&data[2 * i + 2]);
      if (unit + run > EXFAT_UPCASE_ENTRIES)
        return "an identity run passes code unit 0xFFFF";
      for (uint32_t k = 0; k < run; k++, unit++)
        (*table)[unit] = static_cast<uint16_t>(unit);
      i += 2;
    } else {
      (*table)[unit++] = item;
      i++;
    }
  }
  if (i < items)
    return "items left over after all 65536 code units";
  if (unit != EXFAT_UPCASE_ENTRIES)
    return "maps only " + std::to_string(unit) + " of 65536 code units";
  return "";
}

}  // namespace

std::error_code Pass::scan_system_entries(uint32_t root_clusters) {
  EntryReader reader(*this, geo_.root_cluster, root_clusters, false);
  bool bitmap_seen = false, upcase_seen = false;
  while (reader.next()) {
    const uint8_t* e = reader.entry();
    uint64_t at = reader.image_offset();
    uint8_t type = e[0];
    if (type == EXFAT_ENTRY_END)
      break;
    if (type == EXFAT_ENTRY_BITMAP && (e[1] & EXFAT_BITMAP_SECOND_FAT)) {
      // The second FAT's bitmap: not checked, but its clusters are owned.
      claim("<bitmap 2>", le32dec(e + 20), le64dec(e + 24), false, false, false);
    } else if ((type == EXFAT_ENTRY_BITMAP && bitmap_seen) ||
               (type == EXFAT_ENTRY_UPCASE && upcase_seen)) {
      sink_.add(make_finding(type == EXFAT_ENTRY_BITMAP ? "<bitmap>" : "<upcase>",
                             FindingKind::SystemEntry, "a second entry in the root directory",
                             at_byte(at), at));
    } else if (type == EXFAT_ENTRY_BITMAP) {
      bitmap_seen = true;
      if (std::error_code ec = load_bitmap(e, at))
        return ec;
    } else if (type == EXFAT_ENTRY_UPCASE) {
      upcase_seen = true;
      if (std::error_code ec = load_upcase(e, at))
        return ec;
    } else if (type == EXFAT_ENTRY_LABEL && e[1] > EXFAT_LABEL_MAX_CHARS) {
      sink_.add(make_finding("/", FindingKind::SystemEntry,
                             "volume label of " + std::to_string(e[1]) + " characters, at most 11",
                             at_byte(at), at));
    } else if (type == EXFAT_ENTRY_GUID && entry_set_checksum(e, 1) != le16dec(e + 2)) {
      sink_.add(make_finding("/", FindingKind::SystemEntry, "volume GUID entry checksum is wrong",
                             at_byte(at), at));
    }
  }
  if (reader.error())
    return reader.error();
  if (!bitmap_seen)
    sink_.add(make_finding("<bitmap>", FindingKind::SystemEntry, "no allocation bitmap entry",
                           "root directory"));
  if (!upcase_seen)
    sink_.add(make_finding("<upcase>", FindingKind::SystemEntry, "no up-case table entry",
                           "root directory"));
  return {};
}

// Claims the bitmap file and, unless the pass is only naming owners, reads
// it. A bitmap that can't be read whole is not used: every cluster would
// look unmarked, and a repair would write into clusters it doesn't own.
std::error_code Pass::load_bitmap(const uint8_t* entry, uint64_t offset) {
  uint32_t first = le32dec(entry + 20);
  uint64_t length = le64dec(entry + 24);
  uint64_t needed = (uint64_t{geo_.cluster_count} + 7) / 8;
  if (length < needed)
    sink_.add(make_finding("<bitmap>", FindingKind::SystemEntry,
                           "bitmap of " + std::to_string(length) + " bytes can't describe " +
                               std::to_string(geo_.cluster_count) + " clusters",
                           at_byte(offset), offset));
  Claim c = claim("<bitmap>", first, length, false, false, false);
  if (sink_.quiet() || uint64_t{c.clusters} * geo_.bytes_per_cluster < needed)
    return {};
  bitmap_first_ = first;
  bitmap_clusters_ = c.clusters;
  return read_file(first, c.clusters, false, needed, &bitmap_);
}

std::error_code Pass::load_upcase(const uint8_t* entry, uint64_t offset) {
  uint32_t stored = le32dec(entry + 4);
  uint32_t first = le32dec(entry + 20);
  uint64_t length = le64dec(entry + 24);
  Claim c = claim("<upcase>", first, length, false, false, false);
  if (sink_.quiet())
    return {};
  auto problem = [&](const std::string& what) {
    sink_.add(make_finding("<upcase>", FindingKind::UpcaseTable, what, at_byte(offset), offset));
  };
  if (length > EXFAT_UPCASE_TABLE_SIZE) {
    problem("table of " + std::to_string(length) + " bytes, at most 131072");
    return {};
  }
  if (uint64_t{c.clusters} * geo_.bytes_per_cluster < length)
    return {};  // the claim said why
  std::vector<uint8_t> data;
  if (std::error_code ec = read_file(first, c.clusters, false, length, &data))
    return ec;
  uint32_t sum = table_checksum(data.data(), data.size());
  if (sum != stored) {
    char what[96];
    snprintf(what, sizeof(what), "checksum 0x%08X, the entry says 0x%08X", sum, stored);
    problem(what);
    return {};
  }
  std::vector<uint16_t> table;
  std::string wrong = expand_upcase(data, &table);
  if (!wrong.empty()) {
    problem(wrong);
    return {};
  }
  upcase_ = std::move(table);
  return {};
}

}  // namespace exvol::checker
