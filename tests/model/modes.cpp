#include "tests/model/modes.h"

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <random>
#include <sstream>

#include "tests/model/generator.h"
#include "tests/model/lib_fs.h"
#include "tests/model/runner.h"
#include "tests/model/session.h"

namespace exvol::model {

const std::vector<VolumeShape>& volume_shapes() {
  static const std::vector<VolumeShape> shapes = {
      {"512-byte clusters", 9, 0, 8192, false},
      {"4096-byte sectors and clusters", 12, 0, 2048, false},
      {"2 KiB clusters", 9, 2, 4096, false},
      {"32 KiB clusters", 9, 6, 320, false},
      {"128 KiB clusters on 4096-byte sectors", 12, 5, 96, false},
      {"1 MiB clusters", 9, 11, 24, false},
      {"2 MiB clusters on 4096-byte sectors", 12, 9, 16, false},
      {"mkfs.exfat, 4 KiB clusters", 9, 3, 4096, true},
  };
  return shapes;
}

std::string Mode::expr() const {
  const char* names[] = {"Geometry", "PowerCut", "IoErrors", "Damaged"};
  return std::string("Mode{ModeKind::") + names[static_cast<int>(kind)] + ", " +
         std::to_string(shape) + ", " + (atime ? "true" : "false") + ", " + std::to_string(seed) +
         "}";
}

namespace {

// A geometry run: the sequence on a fresh volume, compared step by step,
// the whole tree at checkpoints and at every remount, and at the end.
RunResult run_sequence(const Mode& mode, uint64_t seed, int steps, const OpSource& source,
                       const FsFactory& factory) {
  RunResult r;
  Session s(volume_shapes()[static_cast<size_t>(mode.shape)], mode.atime);
  s.factory = factory;
  if (!s.ready(&r.skipped, &r.fault))
    return r;
  Runner runner(*s.fs, s.model, s.run_options());
  Watchdog watchdog(120, [&] {
    return "seed " + std::to_string(seed) + " at " +
           (r.ops.empty() ? std::string("mount") : describe(r.ops.back()));
  });
  for (int i = 0; i < steps; i++) {
    std::optional<Op> op = source(i, s.model);
    if (!op)
      break;
    r.ops.push_back(*op);
    watchdog.tick();
    r.fault = runner.run(*op);
    if (!r.fault.empty())
      return r;
  }
  watchdog.tick();
  r.fault = runner.finish();
  return r;
}

std::string self_exe() {
  char buf[4096];
  ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
  return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "exvol_model_tests";
}

}  // namespace

Mode geometry_mode(uint64_t seed) {
  size_t shapes = volume_shapes().size();
  return Mode{ModeKind::Geometry, static_cast<int>(seed % shapes), (seed / shapes) % 3 == 0};
}

RunResult run_geometry(uint64_t seed, int steps, const FsFactory& factory) {
  Mode mode = geometry_mode(seed);
  Generator gen(seed, Session::gen_params(volume_shapes()[static_cast<size_t>(mode.shape)]));
  return run_sequence(
      mode, seed, steps, [&](int, const Model& m) { return std::optional<Op>(gen.next(m)); },
      factory);
}

RunResult run_large_directory(uint64_t seed, int steps, int crowd) {
  Mode mode = geometry_mode(seed);
  GenParams params = Session::gen_params(volume_shapes()[static_cast<size_t>(mode.shape)]);
  params.crowd = crowd;
  Generator gen(seed, params);
  return run_sequence(
      mode, seed, steps + crowd + 1,
      [&](int, const Model& m) { return std::optional<Op>(gen.next(m)); }, {});
}

std::string replay(const Mode& mode, const std::vector<Op>& ops, const FsFactory& factory) {
  if (mode.kind == ModeKind::PowerCut)
    return run_power_cut(mode.seed, 0, factory, &ops).fault;
  RunResult r = run_sequence(
      mode, 0, static_cast<int>(ops.size()),
      [&](int i, const Model&) { return std::optional<Op>(ops[static_cast<size_t>(i)]); }, factory);
  return r.skipped.empty() ? r.fault : "";
}

std::string fault_signature(const std::string& fault) {
  std::string kind = fault.substr(0, fault.find(' '));
  size_t colon = fault.find(": ");
  std::string what = colon == std::string::npos ? fault : fault.substr(colon + 2);
  std::string sig;
  bool quoted = false;
  for (char c : what) {
    if (c == '"')
      quoted = !quoted;
    else if (!quoted && !(c >= '0' && c <= '9'))
      sig += c;
    if (sig.size() >= 40)
      break;
  }
  return kind + "|" + sig;
}

std::vector<Op> shrink(std::vector<Op> ops,
                       const std::function<bool(const std::vector<Op>&)>& fails, double seconds) {
  auto deadline = std::chrono::steady_clock::now() +
                  std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000));
  auto expired = [&] { return std::chrono::steady_clock::now() > deadline; };
  size_t parts = 2;
  while (ops.size() >= 2 && !expired()) {
    size_t chunk = (ops.size() + parts - 1) / parts;
    bool reduced = false;
    for (size_t start = 0; start < ops.size() && !expired(); start += chunk) {
      std::vector<Op> rest(ops.begin(), ops.begin() + static_cast<long>(start));
      rest.insert(rest.end(), ops.begin() + static_cast<long>(std::min(ops.size(), start + chunk)),
                  ops.end());
      if (fails(rest)) {
        ops = std::move(rest);
        parts = std::max<size_t>(parts - 1, 2);
        reduced = true;
        break;
      }
    }
    if (!reduced) {
      if (parts >= ops.size())
        break;
      parts = std::min(ops.size(), parts * 2);
    }
  }
  return ops;
}

void for_each_seed(const std::vector<uint64_t>& fixed,
                   const std::function<bool(uint64_t seed)>& body) {
  if (const char* one = getenv("EXVOL_MODEL_SEED")) {
    body(std::strtoull(one, nullptr, 0));
    return;
  }
  if (const char* secs = getenv("EXVOL_MODEL_SECONDS")) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(std::atoi(secs));
    uint64_t seed = std::random_device{}() % 1000000000u;
    while (std::chrono::steady_clock::now() < deadline) {
      if (!body(seed++))
        return;
    }
    return;
  }
  for (uint64_t seed : fixed) {
    if (!body(seed))
      return;
  }
}

std::string report(const std::string& suite, uint64_t seed, const RunResult& r,
                   const std::optional<Mode>& shrink_in) {
  std::ostringstream out;
  out << "seed " << seed << " failed after " << r.ops.size() << " operations:\n  " << r.fault
      << "\nreplay: EXVOL_MODEL_SEED=" << seed << " " << self_exe() << " --gtest_filter='*" << suite
      << "*'\n";
  if (shrink_in && !r.ops.empty()) {
    std::string sig = fault_signature(r.fault);
    double seconds = 120;
    if (const char* s = getenv("EXVOL_MODEL_SHRINK_SECONDS"))
      seconds = std::atof(s);
    std::vector<Op> small = shrink(
        r.ops,
        [&](const std::vector<Op>& ops) { return fault_signature(replay(*shrink_in, ops)) == sig; },
        seconds);
    out << "shrunk to " << small.size() << " operations (" << replay(*shrink_in, small) << "):\n"
        << to_test_case("Seed" + std::to_string(seed), shrink_in->expr(), small);
  }
  return out.str();
}

}  // namespace exvol::model
