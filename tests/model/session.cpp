#include "tests/model/session.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "host/ubc.h"
#include "tests/model/names.h"
#include "tests/support/image_builder.h"

namespace exvol::model {

namespace {

std::string mkfs_program() {
  for (const char* dir : {"/usr/sbin/", "/sbin/", "/usr/bin/", "/bin/"}) {
    std::string path = std::string(dir) + "mkfs.exfat";
    if (access(path.c_str(), X_OK) == 0)
      return path;
  }
  return "";
}

uint32_t le32(const uint8_t* p) {
  return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}

}  // namespace

Session::Session(const VolumeShape& s, bool atime)
    : shape(s), model(Semantics{true, !atime, 0755, known_faults_tolerated()}), atime_(atime) {}

GenParams Session::gen_params(const VolumeShape& shape) {
  GenParams p;
  p.cluster_bytes = 1u << (shape.sector_shift + shape.cluster_shift);
  p.volume_bytes = uint64_t{shape.clusters} * p.cluster_bytes;
  return p;
}

bool Session::make(std::string* skipped, std::string* fault) {
  // A small page cache makes a write's memory measurable, and pages get
  // evicted while writes run.
  host_ubc_set_limit(kCacheBytes);
  uint64_t bytes = uint64_t{shape.clusters} << (shape.sector_shift + shape.cluster_shift);
  if (shape.mkfs) {
    std::string mkfs = mkfs_program();
    if (mkfs.empty()) {
      *skipped = "mkfs.exfat is not installed";
      return false;
    }
    if (truncate(image().c_str(), static_cast<off_t>(bytes + (2u << 20))) != 0) {
      *fault = "can't size the image";
      return false;
    }
    std::string command =
        mkfs + " -c " + std::to_string(cluster_bytes()) + " '" + image() + "' >/dev/null 2>&1";
    if (std::system(command.c_str()) != 0) {
      *fault = "mkfs.exfat failed: " + command;
      return false;
    }
  } else {
    test::Geometry g;
    g.sector_shift = shape.sector_shift;
    g.cluster_shift = shape.cluster_shift;
    g.cluster_count = shape.clusters;
    test::ImageBuilder b(g);
    b.set_upcase_data(test::compress_upcase(latin_upcase_table()));
    b.add_bitmap_entry().add_upcase_entry().add_label(u"MODEL");
    b.write_to(image());
    model.set_label("MODEL");
  }
  return true;
}

bool Session::mount(std::string* fault) {
  // The driver's messages (damage found, writes refused) are expected by
  // the thousand here: kept only when tracing.
  static const bool quiet = [] {
    const char* t = getenv("EXVOL_MODEL_TRACE");
    if (t == nullptr || *t != '1')
      set_log_handler([](const std::string&) {});
    return true;
  }();
  (void)quiet;
  MountOptions options;
  options.noatime = !atime_;
  fs = factory ? factory(image(), options) : std::make_unique<LibFs>(image(), options);
  if (int e = fs->mount(false)) {
    *fault = "mount failed: " + errno_name(e) + ": " + fs->diagnostic();
    return false;
  }
  return true;
}

RunOptions Session::run_options() const {
  RunOptions o;
  o.image = image();
  o.memory_limit = host_ubc_limit() + kMemorySlack;
  return o;
}

uint64_t Session::cluster_offset(uint32_t cluster) const {
  uint8_t boot[512] = {};
  std::ifstream(image(), std::ios::binary).read(reinterpret_cast<char*>(boot), sizeof(boot));
  uint64_t heap = le32(boot + 88);  // ClusterHeapOffset, sectors
  // A damaged boot sector may hold any shifts: the shape's are the ones made.
  unsigned sector_shift = boot[108] >= 9 && boot[108] <= 12 ? boot[108] : shape.sector_shift;
  unsigned cluster_shift = boot[109] <= 25 - sector_shift ? boot[109] : shape.cluster_shift;
  return (heap << sector_shift) + (uint64_t{cluster} - 2) * (uint64_t{1} << (sector_shift + cluster_shift));
}

}  // namespace exvol::model
