#pragma once
// One run's volume: a fresh image of a shape, mounted through libexvol,
// and the model of what it holds.

#include <memory>
#include <string>

#include "tests/model/generator.h"
#include "tests/model/lib_fs.h"
#include "tests/model/model.h"
#include "tests/model/modes.h"
#include "tests/model/runner.h"
#include "tests/support/fsck.h"

namespace exvol::model {

class Session {
 public:
  // atime: reads update access times (otherwise the volume is mounted
  // without them and every access time the model knows must hold).
  Session(const VolumeShape& shape, bool atime);

  // Makes the image and mounts it. false with *skipped (the image can't be
  // made here) or *fault (it doesn't mount).
  bool ready(std::string* skipped, std::string* fault) {
    return make(skipped, fault) && mount(fault);
  }
  bool make(std::string* skipped, std::string* fault);
  bool mount(std::string* fault);
  // Makes the file system object the session mounts (a stand-in with a
  // planted fault, in the tests of the checker itself).
  FsFactory factory;
  RunOptions run_options() const;
  static GenParams gen_params(const VolumeShape& shape);
  const std::string& image() const { return image_.path(); }
  // Geometry read back from the image's boot sector.
  uint64_t cluster_offset(uint32_t cluster) const;
  uint32_t cluster_bytes() const { return 1u << (shape.sector_shift + shape.cluster_shift); }

  VolumeShape shape;
  Model model;
  std::unique_ptr<LibFs> fs;

 private:
  test::TempFile image_;
  bool atime_;
};

// The page cache bound of the runs, and how far above it the process's
// peak memory may rise during a write far past the end of a file.
inline constexpr uint64_t kCacheBytes = 16u << 20;
inline constexpr uint64_t kMemorySlack = 48u << 20;

}  // namespace exvol::model
