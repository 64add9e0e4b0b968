// The directory tree: every directory read in order, depth first; every
// entry set judged (shape, checksum, name, hash, stream fields) and its
// clusters claimed; names compared within each directory under the
// volume's up-case table.

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <unordered_map>

#include "api/check_private.h"

namespace exvol::checker {

namespace {

// Directories nested deeper than this are not followed. A path through
// them would pass the host's 4096-byte path limit long before; the limit
// keeps a crafted volume from making the walk's memory grow without end.
constexpr size_t kMaxDepth = 1024;

struct DirTask {
  std::string path;
  uint32_t first = 0;
  uint32_t clusters = 0;
  bool contiguous = false;
};

// One gathered entry set and where each of its entries lies in the image.
struct EntrySet {
  uint8_t bytes[EXFAT_SET_BUFFER_SIZE];
  uint64_t image[EXFAT_MAX_SET_ENTRIES];
  uint64_t dir_offset = 0;
  unsigned count = 0;   // entries gathered
  unsigned wanted = 0;  // SecondaryCount + 1
  const uint8_t* entry(unsigned i) const { return bytes + size_t{i} * EXFAT_ENTRY_SIZE; }
};

void append_utf8(std::string* out, uint32_t cp) {
  if (cp < 0x80) {
    *out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    *out += static_cast<char>(0xC0 | cp >> 6);
    *out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    *out += static_cast<char>(0xE0 | cp >> 12);
    *out += static_cast<char>(0x80 | (cp >> 6 & 0x3F));
    *out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    *out += static_cast<char>(0xF0 | cp >> 18);
    *out += static_cast<char>(0x80 | (cp >> 12 & 0x3F));
    *out += static_cast<char>(0x80 | (cp >> 6 & 0x3F));
    *out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

// A stored name for reports: UTF-8, with what no path can hold (controls,
// '/', and '\' so that the escape stays unambiguous) and unpaired
// surrogates as \uXXXX.
std::string display_name(const std::u16string& name) {
  std::string out;
  for (size_t i = 0; i < name.size(); i++) {
    uint32_t u = name[i];
    bool high = u >= 0xD800 && u < 0xDC00;
    if (high && i + 1 < name.size() && name[i + 1] >= 0xDC00 && name[i + 1] < 0xE000) {
      append_utf8(&out, 0x10000 + ((u - 0xD800) << 10) + (name[i + 1] - 0xDC00));
      i++;
    } else if (u < 0x20 || u == '/' || u == '\\' || (u >= 0xD800 && u < 0xE000)) {
      char escape[8];
      snprintf(escape, sizeof(escape), "\\u%04X", u);
      out += escape;
    } else {
      append_utf8(&out, u);
    }
  }
  return out;
}

std::string child_path(const std::string& dir, const std::string& name) {
  return dir == "/" ? "/" + name : dir + "/" + name;
}

// What keeps a name from being reached by any path, or "".
std::string unreachable(const std::u16string& name) {
  if (name == u"." || name == u"..")
    return "name \"" + std::string(name.size(), '.') + "\" can't be reached by a path";
  if (name.find(u'/') != std::u16string::npos)
    return "name holds a '/'";
  if (name.find(u'\0') != std::u16string::npos)
    return "name holds a NUL";
  return "";
}

// The attribute bits the format defines: read-only, hidden, system,
// directory, archive.
constexpr uint16_t kKnownAttributes = EXFAT_ATTR_READ_ONLY | EXFAT_ATTR_HIDDEN |
                                      EXFAT_ATTR_SYSTEM | EXFAT_ATTR_DIRECTORY |
                                      EXFAT_ATTR_ARCHIVE;

std::string hex4(uint16_t value) {
  char text[8];
  snprintf(text, sizeof(text), "%04X", value);
  return text;
}

// Whether the last name entry of a name of `length` units is zero after
// the name.
bool trailing_zero(const uint8_t* last_name_entry, unsigned length) {
  unsigned used = (length - 1) % EXFAT_NAME_CHARS_PER_ENTRY + 1;
  for (unsigned i = used; i < EXFAT_NAME_CHARS_PER_ENTRY; i++)
    if (le16dec(last_name_entry + 2 + 2 * i) != 0)
      return false;
  return true;
}

// FNV-1a over the up-cased name: the key of the directory's name set.
uint64_t name_key(const std::vector<uint16_t>& upcase, const std::u16string& name) {
  uint64_t h = 0xCBF29CE484222325ull;
  for (char16_t u : name) {
    uint16_t c = upcase[u];
    h = (h ^ (c & 0xFF)) * 0x100000001B3ull;
    h = (h ^ (c >> 8)) * 0x100000001B3ull;
  }
  return h;
}

// The problems of one entry set, kept until the set is judged whole:
// whether one can be repaired safely depends on all the others.
struct SetProblems {
  std::vector<Finding> list;
  bool safe = true;  // nothing a safe repair can't fix
  void add(FindingKind kind, const std::string& what, uint64_t where, bool fixable) {
    list.push_back(make_finding("", kind, what, at_byte(where), where));
    list.back().repairable = fixable;  // if nothing else is wrong
    safe = safe && fixable;
  }
};

// What a File set says, as far as its shape lets it be read.
struct FileFacts {
  std::string path;
  std::u16string name;
  unsigned length = 0, needed = 0, name_entries = 0;
  bool whole_name = false, checksum_ok = true, shape_ok = false;
  uint32_t first = 0;
  uint64_t valid = 0, data = 0;
  bool contiguous = false, is_dir = false;
};

}  // namespace

// Walks the tree from the root. One instance per walk; the pass it works
// for keeps what it finds.
class TreeWalk {
 public:
  explicit TreeWalk(Pass& pass) : p_(pass), cs_(pass.geo_.bytes_per_cluster) {}
  std::error_code run();

 private:
  // The names of one directory: the key of each, the first set's offset.
  struct Names {
    std::unordered_map<uint64_t, uint64_t> first;
    std::vector<std::pair<uint64_t, uint64_t>> same;  // dir offsets: first, later
  };

  std::error_code scan(const DirTask& dir, bool root, std::vector<DirTask>* children);
  void gather(EntryReader& reader, EntrySet* set);
  void entry_problem(const std::string& path, const char* what, uint8_t type, uint64_t at);
  void file_set(const DirTask& dir, std::vector<DirTask>* children, Names* names);
  void judge_name(const DirTask& dir, SetProblems* problems, FileFacts* fact,
                  Names* names);
  void judge_stream(SetProblems* problems, FileFacts* fact);
  void report(const std::string& path, SetProblems* problems, bool safe, bool truncatable);
  void benign_set(const DirTask& dir);
  std::u16string name_of(const EntrySet& set, unsigned* name_entries) const;
  void fix_set(const std::string& path, const EntrySet& set, bool safe, bool truncate,
               const Claim& claim);
  std::error_code report_same_names(const DirTask& dir, const Names& names);
  bool quiet() const { return p_.sink_.quiet(); }

  Pass& p_;
  uint64_t cs_;
  EntrySet set_;
};

std::error_code Pass::walk_tree() {
  return TreeWalk(*this).run();
}

std::error_code TreeWalk::run() {
  const Geometry& g = p_.geo_;
  Claim root = p_.claim("/", g.root_cluster, 0, false, true, true);
  if (!root.whole)
    p_.owners_unknown_ = true;
  if (root.truncate && root.fat_end && p_.options_.repair == RepairMode::Aggressive && !quiet()) {
    p_.fixes_.fat.emplace_back(root.end_after, EXFAT_FAT_EOC);
    p_.fixes_.done.push_back("/: root directory chain ended at cluster " +
                             std::to_string(root.end_after));
  }
  if (!quiet())
    p_.out_->directories++;
  if (std::error_code ec = p_.scan_system_entries(root.clusters))
    return ec;

  std::vector<std::vector<DirTask>> levels(1);
  if (std::error_code ec = scan({"/", g.root_cluster, root.clusters, false}, true, &levels[0]))
    return ec;
  std::reverse(levels[0].begin(), levels[0].end());
  while (!levels.empty()) {
    if (levels.back().empty()) {
      levels.pop_back();
      continue;
    }
    DirTask dir = std::move(levels.back().back());
    levels.back().pop_back();
    if (levels.size() > kMaxDepth) {
      p_.owners_unknown_ = true;
      p_.sink_.add(make_finding(dir.path, FindingKind::Depth,
                                "directories nested deeper than " + std::to_string(kMaxDepth) +
                                    "; not followed",
                                "cluster " + std::to_string(dir.first)));
      continue;
    }
    std::vector<DirTask> children;
    if (std::error_code ec = scan(dir, false, &children))
      return ec;
    if (!children.empty()) {
      std::reverse(children.begin(), children.end());
      levels.push_back(std::move(children));
    }
  }
  return {};
}

std::error_code TreeWalk::scan(const DirTask& dir, bool root, std::vector<DirTask>* children) {
  EntryReader reader(p_, dir.first, dir.clusters, dir.contiguous);
  Names names;
  while (reader.next()) {
    const uint8_t* e = reader.entry();
    uint8_t type = e[0];
    uint64_t at = reader.image_offset();
    if (type == EXFAT_ENTRY_END)
      break;
    if (!(type & EXFAT_ENTRY_INUSE))
      continue;
    if (exfat_single_entry_type(type)) {
      if (!root && !(type & EXFAT_ENTRY_BENIGN))
        entry_problem(dir.path, "system entry 0x%02X outside the root directory", type, at);
    } else if (type & EXFAT_ENTRY_SECONDARY) {
      entry_problem(dir.path, "secondary entry 0x%02X outside an entry set", type, at);
    } else if (type != EXFAT_ENTRY_FILE && !(type & EXFAT_ENTRY_BENIGN)) {
      entry_problem(dir.path, "unknown critical entry type 0x%02X", type, at);
    } else {
      set_.dir_offset = reader.dir_offset();
      gather(reader, &set_);
      if (type == EXFAT_ENTRY_FILE)
        file_set(dir, children, &names);
      else
        benign_set(dir);
    }
  }
  if (reader.error())
    return reader.error();
  return names.same.empty() || quiet() ? std::error_code() : report_same_names(dir, names);
}

void TreeWalk::entry_problem(const std::string& path, const char* what, uint8_t type, uint64_t at) {
  char text[80];
  snprintf(text, sizeof(text), what, type);
  p_.sink_.add(make_finding(path, FindingKind::EntryType, text, at_byte(at), at));
}

// Gathers the set whose primary the reader stands on: its SecondaryCount
// secondaries, or as many as follow before another kind of entry, which
// the reader gives again next.
void TreeWalk::gather(EntryReader& reader, EntrySet* set) {
  memcpy(set->bytes, reader.entry(), EXFAT_ENTRY_SIZE);
  set->image[0] = reader.image_offset();
  set->count = 1;
  set->wanted = 1u + set->bytes[1];
  while (set->count < set->wanted && reader.next()) {
    uint8_t type = reader.entry()[0];
    if ((type & (EXFAT_ENTRY_INUSE | EXFAT_ENTRY_SECONDARY)) !=
        (EXFAT_ENTRY_INUSE | EXFAT_ENTRY_SECONDARY)) {
      reader.unread();
      break;
    }
    memcpy(set->bytes + size_t{set->count} * EXFAT_ENTRY_SIZE, reader.entry(), EXFAT_ENTRY_SIZE);
    set->image[set->count++] = reader.image_offset();
  }
}

// The name units the set holds (at most NameLength), and how many name
// entries in a row follow the stream entry, up to the number needed.
std::u16string TreeWalk::name_of(const EntrySet& set, unsigned* name_entries) const {
  unsigned length = set.entry(1)[3];
  unsigned needed = (length + EXFAT_NAME_CHARS_PER_ENTRY - 1) / EXFAT_NAME_CHARS_PER_ENTRY;
  unsigned n = 0;
  while (n < needed && 2 + n < set.count && set.entry(2 + n)[0] == EXFAT_ENTRY_NAME)
    n++;
  *name_entries = n;
  std::u16string name;
  for (unsigned i = 0; i < length && i / EXFAT_NAME_CHARS_PER_ENTRY < n; i++) {
    const uint8_t* e = set.entry(2 + i / EXFAT_NAME_CHARS_PER_ENTRY);
    name += static_cast<char16_t>(le16dec(e + 2 + 2 * (i % EXFAT_NAME_CHARS_PER_ENTRY)));
  }
  return name;
}

void TreeWalk::file_set(const DirTask& dir, std::vector<DirTask>* children, Names* names) {
  const EntrySet& s = set_;
  SetProblems problems;
  FileFacts fact;
  fact.path = child_path(dir.path, "<entry at byte " + std::to_string(s.image[0]) + ">");
  if (s.count < s.wanted)
    problems.add(FindingKind::SetShape, "entry set of " + std::to_string(s.wanted) +
                 " entries cut short after " + std::to_string(s.count), s.image[0], false);
  if (s.count < 2 || s.entry(1)[0] != EXFAT_ENTRY_STREAM) {
    problems.add(FindingKind::SetShape, "no stream extension entry", s.image[0], false);
    report(fact.path, &problems, false, false);
    p_.owners_unknown_ = true;  // whatever it owned is unknown now
    return;
  }
  judge_name(dir, &problems, &fact, names);
  judge_stream(&problems, &fact);
  Claim claim = p_.claim(fact.path, fact.first, fact.data, fact.contiguous, false, fact.shape_ok);
  if (fact.data == 0 && (fact.first != 0 || fact.contiguous)) {
    problems.add(FindingKind::FirstCluster, fact.first != 0 ? "empty, but names first cluster " +
                 std::to_string(fact.first) : "empty, but marked as one contiguous run",
                 s.image[1], false);
    problems.list.back().aggressive = fact.shape_ok;
    claim.truncate = true;
    claim.why = "it is empty but names clusters";
  }
  for (unsigned i = 2 + fact.name_entries; i < s.count; i++) {
    const uint8_t* e = s.entry(i);
    if (e[1] & EXFAT_SECONDARY_ALLOCATION_POSSIBLE)
      p_.claim(fact.path, le32dec(e + 20), le64dec(e + 24), e[1] & EXFAT_SECONDARY_NO_FAT_CHAIN,
               false, false);
  }
  bool safe = problems.safe && !claim.truncate;
  bool truncate = claim.truncate && fact.shape_ok && p_.options_.repair == RepairMode::Aggressive;
  report(fact.path, &problems, safe, claim.truncate && fact.shape_ok);
  if (!quiet() && (truncate || (safe && !problems.list.empty())))
    fix_set(fact.path, s, safe, truncate, claim);
  if (!quiet())
    (fact.is_dir ? p_.out_->directories : p_.out_->files)++;
  if (!fact.is_dir)
    return;
  // Children are followed even under a damaged set: whatever they own must
  // not look leaked.
  uint64_t n = fact.data / cs_ + (fact.data % cs_ != 0);
  if (!claim.whole)
    p_.owners_unknown_ = true;
  if (claim.clusters > 0)
    children->push_back({fact.path, fact.first,
                         static_cast<uint32_t>(std::min<uint64_t>(claim.clusters, n)),
                         fact.contiguous});
}

// The set's shape around its name, the checksum, the name and its hash;
// enters the name in the directory's name set.
void TreeWalk::judge_name(const DirTask& dir, SetProblems* problems, FileFacts* fact,
                          Names* names) {
  const EntrySet& s = set_;
  fact->name = name_of(s, &fact->name_entries);
  fact->length = s.entry(1)[3];
  fact->needed = (fact->length + EXFAT_NAME_CHARS_PER_ENTRY - 1) / EXFAT_NAME_CHARS_PER_ENTRY;
  if (!fact->name.empty())
    fact->path = child_path(dir.path, display_name(fact->name));
  fact->whole_name = fact->length > 0 && fact->name_entries == fact->needed;
  fact->shape_ok = s.count == s.wanted && fact->name_entries == fact->needed &&
                   s.bytes[1] >= 1 + fact->needed;
  if (fact->length == 0)
    problems->add(FindingKind::NameLength, "name length 0", s.image[1], false);
  if (fact->name_entries < fact->needed || s.bytes[1] < 1 + fact->needed)
    problems->add(FindingKind::SetShape, "name of " + std::to_string(fact->length) +
                  " characters needs " + std::to_string(fact->needed) +
                  " name entries, the set has " + std::to_string(fact->name_entries),
                  s.image[0], false);
  if (s.count == s.wanted) {
    uint16_t stored = le16dec(s.bytes + 2), sum = entry_set_checksum(s.bytes, s.count);
    fact->checksum_ok = stored == sum;
    if (!fact->checksum_ok) {
      char what[80];
      snprintf(what, sizeof(what), "set checksum 0x%04X, the entries sum to 0x%04X", stored, sum);
      problems->add(FindingKind::SetChecksum, what, s.image[0], true);
    }
  }
  if (!fact->whole_name)
    return;
  if (!trailing_zero(s.entry(1 + fact->needed), fact->length))
    problems->add(FindingKind::NameLength, "name entry holds characters past the name's " +
                  std::to_string(fact->length), s.image[1 + fact->needed], false);
  if (!unreachable(fact->name).empty())
    problems->add(FindingKind::BadName, unreachable(fact->name), s.image[0], false);
  const std::vector<uint16_t>& upcase = p_.upcase_;
  if (upcase.empty())
    return;
  uint16_t stored = le16dec(s.entry(1) + 4);
  uint16_t hash = name_hash(upcase.data(), reinterpret_cast<const uint16_t*>(fact->name.data()),
                            static_cast<unsigned>(fact->name.size()));
  if (stored != hash) {
    char what[80];
    snprintf(what, sizeof(what), "name hash 0x%04X, the name hashes to 0x%04X", stored, hash);
    problems->add(FindingKind::NameHash, what, s.image[1], fact->checksum_ok);
  }
  if (!quiet()) {
    auto [it, fresh] = names->first.emplace(name_key(upcase, fact->name), s.dir_offset);
    if (!fresh)
      names->same.emplace_back(it->second, s.dir_offset);
  }
}

// The stream entry's fields and the attributes.
void TreeWalk::judge_stream(SetProblems* problems, FileFacts* fact) {
  const EntrySet& s = set_;
  const uint8_t* stream = s.entry(1);
  fact->valid = le64dec(stream + 8);
  fact->data = le64dec(stream + 24);
  fact->first = le32dec(stream + 20);
  fact->contiguous = stream[1] & EXFAT_SECONDARY_NO_FAT_CHAIN;
  uint16_t attributes = le16dec(s.bytes + 4);
  fact->is_dir = attributes & EXFAT_ATTR_DIRECTORY;
  if (fact->valid > fact->data)
    problems->add(FindingKind::ValidLength, "valid data length " + std::to_string(fact->valid) +
                  " above data length " + std::to_string(fact->data), s.image[1], true);
  if (fact->is_dir && fact->data % cs_ != 0)
    problems->add(FindingKind::DataLength, "directory size " + std::to_string(fact->data) +
                  " not a multiple of the cluster size", s.image[1], false);
  if (!(stream[1] & EXFAT_SECONDARY_ALLOCATION_POSSIBLE) && (fact->data != 0 || fact->first != 0))
    problems->add(FindingKind::SetShape, "stream holds clusters without AllocationPossible",
                  s.image[1], false);
  if (attributes & ~kKnownAttributes)
    problems->add(FindingKind::SetShape, "reserved attribute bits set (0x" + hex4(attributes) +
                  ")", s.image[0], false);
}

// Reports a set's problems: repairable when the whole set is safely
// fixable, fixed by an aggressive repair when it will truncate the set.
void TreeWalk::report(const std::string& path, SetProblems* problems, bool safe,
                      bool truncatable) {
  for (Finding& f : problems->list) {
    bool fixable = f.repairable;
    f.path = path;
    f.repairable = fixable && safe;
    f.aggressive = f.aggressive || (fixable && !safe && truncatable);
    p_.sink_.add(std::move(f));
  }
}

// Records the fixes of one set: the safe ones (every problem of the set
// is safely fixable), or the truncation of an aggressive repair (its
// clusters are in trouble and its shape is sound), which takes the set as
// it stands and rewrites its derived fields along.
void TreeWalk::fix_set(const std::string& path, const EntrySet& set, bool safe, bool truncate,
                       const Claim& claim) {
  uint8_t fixed[EXFAT_SET_BUFFER_SIZE];
  size_t bytes = size_t{set.count} * EXFAT_ENTRY_SIZE;
  memcpy(fixed, set.bytes, bytes);
  uint8_t* stream = fixed + EXFAT_SET_STREAM_OFFSET;
  std::vector<std::string> done;
  uint64_t data = le64dec(stream + 24);
  if (truncate && claim.keep_bytes < data) {
    data = claim.keep_bytes;
    le64enc(stream + 24, data);
  }
  if (truncate && data == 0) {
    le32enc(stream + 20, 0);
    stream[1] &= static_cast<uint8_t>(~EXFAT_SECONDARY_NO_FAT_CHAIN);
  }
  if (truncate) {
    if (claim.fat_end)
      p_.fixes_.fat.emplace_back(claim.end_after, EXFAT_FAT_EOC);
    p_.fixes_.done.push_back(path + ": truncated to " + std::to_string(data) + " bytes: " +
                             claim.why);
  }
  if (le64dec(stream + 8) > data) {
    le64enc(stream + 8, data);
    done.push_back(path + ": valid data length clamped to " + std::to_string(data));
  }
  if ((safe || truncate) && !p_.upcase_.empty() && set.count >= 3) {
    unsigned entries = 0;
    std::u16string name = name_of(set, &entries);
    uint16_t hash = name_hash(p_.upcase_.data(), reinterpret_cast<const uint16_t*>(name.data()),
                              static_cast<unsigned>(name.size()));
    if (hash != le16dec(stream + 4)) {
      le16enc(stream + 4, hash);
      done.push_back(path + ": name hash rewritten");
    }
  }
  uint16_t sum = entry_set_checksum(fixed, set.count);
  if (sum != le16dec(fixed + 2)) {
    if (done.empty() && !truncate)
      done.push_back(path + ": entry set checksum rewritten");
    le16enc(fixed + 2, sum);
  }
  for (unsigned i = 0; i < 2; i++) {
    if (memcmp(fixed + i * EXFAT_ENTRY_SIZE, set.entry(i), EXFAT_ENTRY_SIZE) == 0)
      continue;
    EntryPatch patch;
    patch.offset = set.image[i];
    memcpy(patch.bytes.data(), fixed + i * EXFAT_ENTRY_SIZE, EXFAT_ENTRY_SIZE);
    p_.fixes_.entries.push_back(patch);
  }
  for (std::string& d : done)
    p_.fixes_.done.push_back(std::move(d));
}

// A benign primary the system does not know: its checksum, and the
// clusters its secondaries own.
void TreeWalk::benign_set(const DirTask& dir) {
  const EntrySet& s = set_;
  std::string path = child_path(dir.path, "<entry at byte " + std::to_string(s.image[0]) + ">");
  if (s.count == s.wanted && entry_set_checksum(s.bytes, s.count) != le16dec(s.bytes + 2))
    p_.sink_.add(make_finding(path, FindingKind::SetChecksum, "benign entry set checksum is wrong",
                              at_byte(s.image[0]), s.image[0]));
  for (unsigned i = 1; i < s.count; i++) {
    const uint8_t* e = s.entry(i);
    if (e[1] & EXFAT_SECONDARY_ALLOCATION_POSSIBLE)
      p_.claim(path, le32dec(e + 20), le64dec(e + 24), e[1] & EXFAT_SECONDARY_NO_FAT_CHAIN, false,
               false);
  }
}

// Names whose keys met in one directory: the directory is read again for
// the sets involved, and those whose up-cased names really are equal are
// reported, each later one naming the first.
std::error_code TreeWalk::report_same_names(const DirTask& dir, const Names& names) {
  std::unordered_map<uint64_t, std::pair<std::u16string, uint64_t>> found;  // dir offset ->
  for (const auto& [a, b] : names.same)
    found[a] = found[b] = {};
  EntryReader reader(p_, dir.first, dir.clusters, dir.contiguous);
  while (reader.next()) {
    uint8_t type = reader.entry()[0];
    if (type == EXFAT_ENTRY_END)
      break;
    auto it = found.find(reader.dir_offset());
    if (it == found.end() || type != EXFAT_ENTRY_FILE)
      continue;
    EntrySet* set = &set_;
    gather(reader, set);
    unsigned entries = 0;
    it->second = {name_of(*set, &entries), set->image[0]};
  }
  if (reader.error())
    return reader.error();
  const std::vector<uint16_t>& up = p_.upcase_;
  for (const auto& [a, b] : names.same) {
    const auto& [first, first_at] = found[a];
    const auto& [later, later_at] = found[b];
    bool equal = first.size() == later.size() &&
                 std::equal(first.begin(), first.end(), later.begin(),
                            [&](char16_t x, char16_t y) { return up[x] == up[y]; });
    if (equal && !first.empty())
      p_.sink_.add(make_finding(child_path(dir.path, display_name(later)),
                                FindingKind::DuplicateName,
                                "same name as " + child_path(dir.path, display_name(first)),
                                at_byte(later_at), later_at));
  }
  return {};
}

}  // namespace exvol::checker
