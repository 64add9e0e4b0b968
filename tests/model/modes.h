#pragma once
// The model checker's modes. Each run is a function of its seed: a fresh
// image, a generated operation sequence, the checks of the mode. A run
// returns "" or what went wrong; the sequence it ran is kept for
// shrinking and replay.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tests/model/lib_fs.h"
#include "tests/model/ops.h"

namespace exvol::model {

// The volumes runs are made on: 512-byte to 1 MiB clusters, 512- and
// 4096-byte sectors, small enough that the volume fills often.
struct VolumeShape {
  const char* name;
  unsigned sector_shift;
  unsigned cluster_shift;  // sectors per cluster = 2^shift
  uint32_t clusters;
  bool mkfs;  // made by mkfs.exfat instead of the test builder
};
const std::vector<VolumeShape>& volume_shapes();

enum class ModeKind { Geometry, PowerCut, IoErrors, Damaged };

struct Mode {
  ModeKind kind = ModeKind::Geometry;
  int shape = 0;       // index into volume_shapes()
  bool atime = false;  // reads update access times
  uint64_t seed = 0;   // the fault modes: where the faults fall
  // The C++ expression that makes this mode (for printed test cases).
  std::string expr() const;
};

struct RunResult {
  std::string fault;    // "" when the run passed
  std::vector<Op> ops;  // what ran
  std::string skipped;  // why the run could not be made here (no mkfs.exfat)
};

class Model;
using FsFactory =
    std::function<std::unique_ptr<LibFs>(const std::string& image, const MountOptions& options)>;
// Operations a run takes from: a generator (seeded) or a fixed list.
using OpSource = std::function<std::optional<Op>(int index, const Model& model)>;

// The mode a geometry seed runs in: its shape and whether reads update
// access times.
Mode geometry_mode(uint64_t seed);
RunResult run_geometry(uint64_t seed, int steps, const FsFactory& factory = {});
// As run_geometry, in a volume whose "/crowd" holds `crowd` entries first.
RunResult run_large_directory(uint64_t seed, int steps, int crowd);
// With `ops`, runs those instead of generating (the seed still places the
// cut).
RunResult run_power_cut(uint64_t seed, int steps, const FsFactory& factory = {},
                        const std::vector<Op>* ops = nullptr);
RunResult run_io_errors(uint64_t seed, int steps);
// Through mount.exvol: `steps` operations in one thread with remounts, then
// as many in each of `threads` threads; a fault when the daemon's resident
// memory passes `memory_ceiling` bytes. Skipped without a usable FUSE.
RunResult run_fuse(uint64_t seed, int steps, int threads, uint64_t memory_ceiling);
RunResult run_damaged(uint64_t seed, int steps);

// Runs a fixed sequence in `mode` on a fresh volume; "" when it passes.
std::string replay(const Mode& mode, const std::vector<Op>& ops, const FsFactory& factory = {});

// Delta debugging: the shortest sequence found within `seconds` for which
// `fails` still holds.
std::vector<Op> shrink(std::vector<Op> ops,
                       const std::function<bool(const std::vector<Op>&)>& fails, double seconds);
// What kind of fault a message names, without its paths and numbers: a
// shrunk sequence must fail the same way.
std::string fault_signature(const std::string& fault);

// The seeds a test runs: EXVOL_MODEL_SEED alone when set; seeds from a
// random start for EXVOL_MODEL_SECONDS seconds when that is set (soak);
// else the fixed list. The callback returns false to stop.
void for_each_seed(const std::vector<uint64_t>& fixed,
                   const std::function<bool(uint64_t seed)>& body);

// A failure report: the seed, the command that replays it, and the
// shrunk sequence as a test case when shrinking applies.
std::string report(const std::string& suite, uint64_t seed, const RunResult& r,
                   const std::optional<Mode>& shrink_in);

}  // namespace exvol::model
