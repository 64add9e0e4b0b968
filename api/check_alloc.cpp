// Clusters: the FAT read whole, runs and chains walked, every cluster given
// to at most one owner, and the owners set against the allocation bitmap.

#include <algorithm>
#include <bit>

#include "api/check_private.h"

namespace exvol::checker {

namespace {

constexpr size_t kReadChunk = 256 * 1024;  // largest single read of file data
constexpr unsigned kRangesShown = 4;

// "clusters 5-9, 12, 30-31, …" for up to kRangesShown runs of set bits.
class RangeList {
 public:
  void add(uint32_t cluster) {
    if (count_ > 0 && cluster == last_ + 1) {
      last_ = cluster;
    } else {
      flush();
      first_ = last_ = cluster;
    }
    count_++;
  }
  std::string text() {
    flush();
    std::string s = shown_ == 1 && text_.find('-') == std::string::npos ? "cluster " : "clusters ";
    s += text_;
    if (more_)
      s += ", …";
    return s;
  }
  uint64_t count() const { return count_; }

 private:
  void flush() {
    if (count_ == 0 || flushed_ == count_)
      return;
    flushed_ = count_;
    if (shown_ == kRangesShown) {
      more_ = true;
      return;
    }
    if (shown_)
      text_ += ", ";
    text_ += std::to_string(first_);
    if (last_ != first_) {
      text_ += '-';
      text_ += std::to_string(last_);
    }
    shown_++;
  }

  uint32_t first_ = 0, last_ = 0;
  uint64_t count_ = 0, flushed_ = 0;
  unsigned shown_ = 0;
  bool more_ = false;
  std::string text_;
};

}  // namespace

std::error_code Pass::load_fat() {
  // A FAT can't be larger than the image; a boot sector that says so (and
  // passed its checksum all the same) must not make the check allocate it.
  uint64_t fat_start = uint64_t{geo_.fat_offset} * geo_.bytes_per_sector;
  uint64_t room = image_.size() > fat_start ? (image_.size() - fat_start) / EXFAT_FAT_ENTRY_SIZE : 0;
  if (uint64_t{geo_.max_cluster} + 1 > room) {
    sink_.add(make_finding("<fat>", FindingKind::BootGeometry,
                           "FAT extends past the end of the image", "sector 0 byte 80", 80));
    if (room < 3) {
      out_->complete = false;
      return {};
    }
    geo_.max_cluster = static_cast<uint32_t>(room - 1);
    // Nor can the heap: the bitmap and the ownership bits stay as small.
    geo_.cluster_count = std::min(geo_.cluster_count, geo_.max_cluster - 1);
  }
  size_t entries = size_t{geo_.max_cluster} + 1;
  std::vector<uint8_t> raw(entries * EXFAT_FAT_ENTRY_SIZE);
  if (std::error_code ec = image_.read(fat_start, raw.data(), raw.size()))
    return ec;
  fat_.resize(entries);
  for (size_t i = 0; i < entries; i++)
    fat_[i] = le32dec(&raw[i * EXFAT_FAT_ENTRY_SIZE]);
  owned_.assign((uint64_t{geo_.cluster_count} + 63) / 64, 0);
  return {};
}

// A problem of the owner being claimed, which only a truncation fixes.
long Pass::add_claim_finding(Finding finding) {
  finding.aggressive = can_truncate_;
  return sink_.add(std::move(finding));
}

// Gives the cluster its owner; false when it had one.
bool Pass::take(uint32_t cluster) {
  uint64_t bit = cluster - 2;
  uint64_t mask = uint64_t{1} << (bit % 64);
  uint64_t& word = owned_[bit / 64];
  if (word & mask)
    return false;
  word |= mask;
  if (naming_owners_) {
    auto it = std::lower_bound(shared_.begin(), shared_.end(), cluster,
                               [](const SharedCluster& s, uint32_t c) { return s.cluster < c; });
    for (; it != shared_.end() && it->cluster == cluster; ++it) {
      if (it->first_owner.empty()) {
        it->first_owner = *claiming_;
        it->owner_at_start = claimed_ == 0;
        it->owner_length = claiming_length_;
      }
    }
  }
  claimed_++;
  return true;
}

// Claims the clusters a file of `length` bytes holds from `first`, as one
// run or through the FAT. With to_end (the root directory and the system
// files) a chain is claimed to its end mark whatever the length.
Claim Pass::claim(const std::string& path, uint32_t first, uint64_t length, bool contiguous,
                  bool to_end, bool can_truncate) {
  Claim result;
  uint64_t cs = geo_.bytes_per_cluster;
  uint64_t n = length / cs + (length % cs != 0);
  if (n == 0 && !to_end)
    return result;
  claiming_ = &path;
  claiming_length_ = length;
  claimed_ = 0;
  can_truncate_ = can_truncate;
  if (!geo_.valid_cluster(first)) {
    add_claim_finding(make_finding(path, FindingKind::FirstCluster,
                                   "first cluster " + std::to_string(first) +
                                       " outside the heap (2.." + std::to_string(geo_.max_cluster) +
                                       ")",
                                   "cluster " + std::to_string(first)));
    result.whole = false;
    result.truncate = true;
    result.why = "its first cluster lies outside the heap";
    return result;
  }
  return contiguous ? claim_run(path, first, length) : claim_chain(path, first, length, to_end);
}

Claim Pass::claim_run(const std::string& path, uint32_t first, uint64_t length) {
  Claim result;
  uint64_t cs = geo_.bytes_per_cluster;
  uint64_t n = length / cs + (length % cs != 0);
  uint64_t count = n;
  if (uint64_t{first} + n - 1 > geo_.max_cluster) {
    count = uint64_t{geo_.max_cluster} - first + 1;
    add_claim_finding(make_finding(path, FindingKind::DataLength,
                                   "contiguous run of " + clusters_text(n) + " from " +
                                       std::to_string(first) + " passes the heap's end",
                                   "cluster " + std::to_string(geo_.max_cluster)));
    result.whole = false;
    result.truncate = true;
    result.keep_bytes = count * cs;
    result.why = "its data runs past the end of the heap";
  }
  for (uint64_t i = 0; i < count; i++) {
    uint32_t c = static_cast<uint32_t>(first + i);
    if (!take(c)) {
      result.clusters = static_cast<uint32_t>(i);
      conflict(path, c, result.clusters, i ? c - 1 : 0, false, &result);
      result.keep_bytes = std::min<uint64_t>(i * cs, length);
      result.fat_end = false;
      return result;
    }
  }
  result.clusters = static_cast<uint32_t>(count);
  return result;
}

Claim Pass::claim_chain(const std::string& path, uint32_t first, uint64_t length, bool to_end) {
  Claim result;
  uint64_t cs = geo_.bytes_per_cluster;
  uint64_t n = length / cs + (length % cs != 0);
  uint32_t c = first, prev = 0, nth = 0;
  uint64_t k = 0;
  for (;;) {
    if (!take(c)) {
      // A cluster this walk took already closes a loop; any other has
      // another owner. Walking the k clusters again tells which.
      bool loop = false;
      for (uint32_t x = first, i = 0; i < k && !loop; i++, x = fat_value(x))
        loop = x == c;
      result.clusters = static_cast<uint32_t>(k);
      conflict(path, c, result.clusters, prev, loop, &result);
      result.keep_bytes = std::min(k * cs, length);
      if (k > n && !to_end) {
        result.end_after = nth;
        result.keep_bytes = length;
      }
      return result;
    }
    k++;
    if (k == n)
      nth = c;
    uint32_t next = fat_value(c);
    if (next == EXFAT_FAT_BAD) {
      // The file's own cluster is marked bad: what it holds can't be
      // trusted, and the mark must stay.
      add_claim_finding(make_finding(path, FindingKind::ChainBroken,
                                     "cluster " + std::to_string(c) + " is marked bad",
                                     "cluster " + std::to_string(c)));
      result.clusters = static_cast<uint32_t>(k);
      result.whole = false;
      result.truncate = true;
      result.end_after = prev;
      result.fat_end = prev != 0;
      result.keep_bytes = std::min((k - 1) * cs, length);
      result.why = "its cluster " + std::to_string(c) + " is marked bad";
      return result;
    }
    if (next > EXFAT_FAT_BAD) {
      if (next != EXFAT_FAT_EOC)
        odd_end_mark(path, c, next);
      break;
    }
    if (!geo_.valid_cluster(next)) {
      char what[96];
      snprintf(what, sizeof(what), "chain broken: the FAT entry of cluster %u is 0x%08X", c, next);
      add_claim_finding(
          make_finding(path, FindingKind::ChainBroken, what, "cluster " + std::to_string(c)));
      result.clusters = static_cast<uint32_t>(k);
      result.whole = !to_end && k >= n;
      result.truncate = true;
      result.fat_end = true;
      result.end_after = k > n && !to_end ? nth : c;
      result.keep_bytes = std::min(k * cs, length);
      result.why = "its cluster chain is broken at cluster " + std::to_string(c);
      return result;
    }
    prev = c;
    c = next;
  }
  result.clusters = static_cast<uint32_t>(k);
  if (to_end || k == n)
    return result;
  add_claim_finding(make_finding(path, FindingKind::ChainLength,
                                 "chain of " + clusters_text(k) + ", the data length needs " +
                                     std::to_string(n),
                                 "cluster " + std::to_string(first)));
  result.truncate = true;
  if (k < n) {
    result.whole = false;
    result.keep_bytes = k * cs;
    result.why = "its cluster chain ends early";
  } else {
    result.keep_bytes = length;
    result.end_after = nth;
    result.fat_end = true;
    result.why = "its cluster chain is longer than its data";
  }
  return result;
}

// A chain that ends with a reserved value instead of the end mark: the
// chain is whole, so the end mark is written without guessing.
void Pass::odd_end_mark(const std::string& path, uint32_t cluster, uint32_t value) {
  char what[96];
  snprintf(what, sizeof(what), "chain ends with 0x%08X instead of the end mark", value);
  Finding f = make_finding(path, FindingKind::ChainBroken, what, "cluster " + std::to_string(cluster));
  f.repairable = true;
  sink_.add(f);
  if (sink_.quiet())
    return;
  fixes_.fat.emplace_back(cluster, EXFAT_FAT_EOC);
  fixes_.done.push_back(path + ": end of chain written at cluster " + std::to_string(cluster));
}

// A cluster the walk of `path` reached that already has an owner; `kept`
// clusters were taken before it, the last of them `prev` (0: none).
void Pass::conflict(const std::string& path, uint32_t cluster, uint32_t kept, uint32_t prev,
                    bool is_loop, Claim* result) {
  result->whole = false;
  result->conflict = true;
  result->truncate = true;
  result->end_after = prev;
  result->fat_end = prev != 0;
  std::string where = "cluster " + std::to_string(prev ? prev : cluster);
  if (is_loop) {
    add_claim_finding(make_finding(path, FindingKind::ChainLoop,
                                   "chain comes back to cluster " + std::to_string(cluster) +
                                       " after " + clusters_text(kept),
                                   where));
    result->why = "its cluster chain loops";
    return;
  }
  owners_unknown_ = true;
  long index = add_claim_finding(make_finding(
      path, FindingKind::CrossLink, "cluster " + std::to_string(cluster) + " is owned twice", where));
  if (!naming_owners_)
    shared_.push_back({cluster, index, kept == 0, claiming_length_, {}});
  result->why = "its clusters from " + std::to_string(cluster) + " on belong to another file";
}

// Walks the tree once more, quietly, to learn which owner took each shared
// cluster first, and names it in the finding of the second.
void Pass::name_first_owners() {
  std::stable_sort(shared_.begin(), shared_.end(),
                   [](const SharedCluster& a, const SharedCluster& b) { return a.cluster < b.cluster; });
  std::fill(owned_.begin(), owned_.end(), 0);
  naming_owners_ = true;
  sink_.set_quiet(true);
  std::error_code ec = walk_tree();
  sink_.set_quiet(false);
  naming_owners_ = false;
  for (const SharedCluster& s : shared_) {
    Finding* f = sink_.at(s.finding);
    if (f == nullptr || ec || s.first_owner.empty())
      continue;
    // A directory reached again below itself is a cycle, not a second entry.
    bool below = f->path.compare(0, s.first_owner.size() + 1, s.first_owner + "/") == 0;
    if (s.at_start && s.owner_at_start && s.length == s.owner_length && !below) {
      // Both entries describe one file: what a rename leaves when it is cut
      // short between writing the new entry and deleting the old one.
      f->kind = FindingKind::SharedFile;
      f->what = "the same clusters as " + s.first_owner + ": two entries for one file";
    } else {
      f->what = "cluster " + std::to_string(s.cluster) + " also belongs to " + s.first_owner;
    }
  }
}

// Of the leaked bits in word w, those whose FAT entry marks the cluster
// bad: a formatter or a driver took them out of use, so they are owned.
uint64_t Pass::bad_clusters(uint64_t w, uint64_t leaked) const {
  uint64_t bad = 0;
  for (; leaked; leaked &= leaked - 1) {
    unsigned b = static_cast<unsigned>(std::countr_zero(leaked));
    if (fat_value(static_cast<uint32_t>(w * 64 + b + 2)) == EXFAT_FAT_BAD)
      bad |= uint64_t{1} << b;
  }
  return bad;
}

void Pass::compare_bitmap() {
  if (bitmap_.empty())
    return;
  RangeList leaks, unmarked;
  uint64_t used = 0;
  uint32_t count = geo_.cluster_count;
  for (uint64_t w = 0; w < owned_.size(); w++) {
    uint64_t marked = 0;
    for (unsigned b = 0; b < 8 && w * 8 + b < bitmap_.size(); b++)
      marked |= uint64_t{bitmap_[w * 8 + b]} << (8 * b);
    if ((w + 1) * 64 > count)
      marked &= (uint64_t{1} << (count % 64)) - 1;  // bits past the last cluster
    used += static_cast<uint64_t>(std::popcount(marked));
    uint64_t diff = marked ^ owned_[w];
    diff &= ~bad_clusters(w, marked & ~owned_[w]);
    for (; diff; diff &= diff - 1) {
      unsigned b = static_cast<unsigned>(std::countr_zero(diff));
      uint32_t cluster = static_cast<uint32_t>(w * 64 + b + 2);
      (marked >> b & 1 ? leaks : unmarked).add(cluster);
    }
  }
  out_->clusters_in_use = used;
  out_->leaked_clusters = leaks.count();
  uint64_t cs = geo_.bytes_per_cluster;
  if (unmarked.count()) {
    Finding f = make_finding("<bitmap>", FindingKind::Unmarked,
                             clusters_text(unmarked.count()) + " (" +
                                 size_text(unmarked.count() * cs) +
                                 ") owned by files but free in the bitmap",
                             unmarked.text());
    f.repairable = true;
    sink_.add(f);
    fixes_.mark_unmarked = true;
  }
  if (leaks.count()) {
    std::string what = clusters_text(leaks.count()) + " (" +
                       size_text(leaks.count() * cs) + ") marked in use but owned by no file";
    if (owners_unknown_)
      what += "; kept while some owners can't be read";
    Finding f = make_finding("<bitmap>", FindingKind::Leak, what, leaks.text());
    f.repairable = !owners_unknown_;
    f.aggressive = owners_unknown_;
    sink_.add(f);
    fixes_.free_leaks = !owners_unknown_ || sink_.mode() == RepairMode::Aggressive;
  }
}

// Reads the first `bytes` of a file of `clusters` clusters (walked before).
std::error_code Pass::read_file(uint32_t first, uint32_t clusters, bool contiguous, uint64_t bytes,
                                std::vector<uint8_t>* out) const {
  out->assign(bytes, 0);
  uint64_t done = 0;
  std::error_code ec;
  for_each_run(first, clusters, contiguous, [&](uint64_t offset, uint64_t length) {
    uint64_t n = std::min(length, bytes - done);
    if (!ec && n > 0)
      ec = image_.read(offset, out->data() + done, n);
    done += n;
  });
  return ec;
}

EntryReader::EntryReader(const Pass& pass, uint32_t first, uint32_t clusters, bool contiguous)
    : pass_(pass), contiguous_(contiguous), cluster_(first), left_(clusters) {}

// Makes sure the buffer holds the next entry, reading the next piece of
// the current run, or of the next run of adjacent clusters.
bool EntryReader::fill() {
  if (pos_ < length_)
    return true;
  if (error_)
    return false;
  if (run_pos_ == run_bytes_) {
    if (left_ == 0)
      return false;
    uint32_t start = cluster_;
    uint32_t run = 1;
    left_--;
    uint32_t next = pass_.next_cluster(cluster_, contiguous_);
    while (left_ > 0 && next == start + run && run < kReadChunk / pass_.geometry().bytes_per_cluster) {
      run++;
      left_--;
      next = pass_.next_cluster(next, contiguous_);
    }
    cluster_ = next;
    run_image_ = pass_.geometry().cluster_offset(start);
    run_bytes_ = uint64_t{run} * pass_.geometry().bytes_per_cluster;
    run_pos_ = 0;
  }
  length_ = static_cast<size_t>(std::min<uint64_t>(kReadChunk, run_bytes_ - run_pos_));
  buffer_.resize(std::max(buffer_.size(), length_));
  buffer_image_ = run_image_ + run_pos_;
  run_pos_ += length_;
  pos_ = 0;
  error_ = pass_.image().read(buffer_image_, buffer_.data(), length_);
  return !error_;
}

bool EntryReader::next() {
  if (!fill())
    return false;
  pos_ += EXFAT_ENTRY_SIZE;
  dir_offset_ += EXFAT_ENTRY_SIZE;
  return true;
}

void EntryReader::unread() {
  pos_ -= EXFAT_ENTRY_SIZE;
  dir_offset_ -= EXFAT_ENTRY_SIZE;
}

}  // namespace exvol::checker
