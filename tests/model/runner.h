#pragma once
// Runs operations against the file system under test and the model side
// by side. After every operation the answer (errno, bytes, stat) must be
// the model's; at checkpoints the whole tree is compared (names with case,
// listings, sizes, bytes, times, attributes); every remount runs the
// volume checkers over the unmounted image.

#include <atomic>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/model/fs.h"
#include "tests/model/model.h"
#include "tests/model/ops.h"

namespace exvol::model {

// Checks an unmounted image; returns the findings, none when it is clean.
// The defaults run fsck.exfat -n (when installed), check that the volume
// is marked clean, and run exvol check, which also sees leaked clusters.
using VolumeChecker = std::function<std::vector<std::string>(const std::string& image)>;
std::vector<std::string> fsck_findings(const std::string& image);
std::vector<std::string> exvol_check_findings(const std::string& image);
bool volume_dirty(const std::string& image);

struct RunOptions {
  std::string image;
  std::vector<VolumeChecker> checkers = {fsck_findings, exvol_check_findings};
  // Compare the whole tree every this many operations (0: never).
  int checkpoint_every = 40;
  // Compare nothing: only that every answer is an errno a caller can get
  // (damaged volumes, and after an injected fault).
  bool lenient = false;
  // A write this far past the end of its file may raise the process's
  // peak memory by at most memory_limit bytes (0: not measured).
  uint64_t far_write = 32u << 20;
  uint64_t memory_limit = 0;
  std::string trace_tag;  // before each traced operation
};

class Runner {
 public:
  static constexpr int kCheckSlot = 14;
  static constexpr int kFillSlot = 15;

  Runner(Fs& fs, Model& model, RunOptions options);

  // Runs one operation (a Fill or Remount is several); "" or the fault.
  std::string run(const Op& op);
  // The whole tree against the model, adopting unknown values.
  std::string checkpoint();
  // Remounts read-write and compares everything.
  std::string finish();
  void set_lenient(bool lenient) { opt_.lenient = lenient; }
  bool lenient() const { return opt_.lenient; }
  // Called after each operation with what the volume answered.
  std::function<void(const Op&, const Outcome&)> after_op;
  int steps() const { return steps_; }

 private:
  Outcome exec(const Op& op);
  std::string step(const Op& op, Outcome* out = nullptr);
  std::string fill(const Op& op);
  std::string remount(bool read_only);
  std::string walk(Node& dir, const std::string& path, const Stat& dir_st, std::set<uint64_t>* ids);
  std::string compare_content(Node& file, const std::string& path);
  Env env_for(const Op& op);

  Fs& fs_;
  Model& model_;
  RunOptions opt_;
  uint32_t cluster_bytes_ = 0;
  int steps_ = 0;
  bool trace_ = false;
  std::set<const Node*> busy_;  // open nodes and the directories above them
  bool ro_mount_ = false;
  struct timespec ro_mtime_ {};
};

// Aborts the process with `what()` on stderr when tick() isn't called for
// `seconds`, or when the process's resident memory grows by more than
// `memory` bytes: a hung or runaway operation fails the run instead of
// taking the suite's time budget or the machine's memory.
class Watchdog {
 public:
  Watchdog(int seconds, std::function<std::string()> what, uint64_t memory = 2ull << 30);
  ~Watchdog();
  void tick() { ticks_++; }

 private:
  std::atomic<uint64_t> ticks_{0};
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// Whether err is an answer a caller of a file system can get.
bool plausible_errno(int err);

}  // namespace exvol::model
