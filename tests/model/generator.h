#pragma once
// The random operation generator: weighted operations on names the model
// holds (and some it doesn't), offsets inside, at and far past the end of
// files and across cluster boundaries, sizes from one byte to megabytes.
// Deterministic for a seed and the model's state.

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "tests/model/model.h"
#include "tests/model/ops.h"

namespace exvol::model {

struct GenParams {
  uint32_t cluster_bytes = 4096;
  uint64_t volume_bytes = 16u << 20;
  int slots = 6;
  bool library = true;         // labels, hidden/archive flags, birth times
  bool absolute_links = true;  // absolute targets resolve from the volume root
  bool dotdot = true;          // "." and ".." components in paths
  bool remount = true;
  bool fill = true;
  uint64_t max_write = 4u << 20;
  int sync_weight = 1;  // times the usual weight of sync and fsync
  // Names in other cases and forms than they were made with. Off through
  // a kernel, whose name cache would keep such aliases of removed names.
  bool name_variants = true;
  bool root_ops = true;  // operations on the root itself (rename, rmdir...)
  // Links made in "/crowd" before anything else, and half the new names
  // put there: one directory of hundreds of entries that the operations
  // keep changing.
  int crowd = 0;
};

class Generator {
 public:
  Generator(uint64_t seed, GenParams params);
  Op next(const Model& model);
  // A name from the generator's alphabet (exposed for shared-directory
  // workloads).
  std::string name();

 private:
  struct Entry {
    std::string path;
    const Node* node;
  };
  uint64_t below(uint64_t n) { return n == 0 ? 0 : rng_() % n; }
  bool chance(double p) { return std::uniform_real_distribution<double>(0, 1)(rng_) < p; }

  void collect(const Model& model);
  Entry any_entry();
  const Entry* pick(FileType type, bool allow_root);
  std::string existing(FileType type);
  std::string fresh_path();
  std::string variant(const std::string& path);
  std::string link_target(const std::string& link_path);
  int slot(const Model& model, bool occupied);
  int64_t write_offset(const Node* node);
  uint64_t length();
  timespec some_time(bool birth);

  Op open_op(const Model& model);
  Op file_op(const Model& model, OpKind kind);
  Op path_op(const Model& model, OpKind kind);

  std::mt19937_64 rng_;
  GenParams p_;
  std::vector<Entry> entries_;  // the model's tree, refreshed per operation
  int crowd_made_ = -1;         // crowd entries made so far; -1: not even "/crowd"
};

}  // namespace exvol::model
