// Times set explicitly against the stamps the volume takes on its own:
// random sequences of making nodes, writing, reading, adding children and
// setting times, checked against a model after every step and across
// remounts.

#include <fcntl.h>

#include <ctime>
#include <functional>
#include <optional>
#include <random>

#include "tests/integration/api_fixture.h"

namespace exvol::test {
namespace {

using ApiTimes = ApiTest;

// What a node's times must be: a time set last is kept exactly (to the
// volume's resolution); a file written since must show a recent
// modification once it is closed; anything else is not checked.
struct Expected {
  std::optional<timespec> modified;
  std::optional<time_t> accessed;
  bool recent = false;
};

struct Item {
  std::string path;
  FileType type = FileType::Unknown;
  NodeId node{};  // held while mounted
  File file;      // a file kept open for writing, or closed
  Expected want;
};

class TimesModel {
 public:
  TimesModel(std::unique_ptr<Volume>& volume, std::function<void()> remount, uint32_t seed)
      : v_(volume), remount_(std::move(remount)), rng_(seed) {
    items_.push_back({"/", FileType::Directory, kRootNode, File(), {}});
  }

  void step(int round) {
    int op = pick(10);
    if (op < 3)
      make(round);
    else if (op < 6)
      set_times();
    else if (op < 8)
      write();
    else if (op < 9)
      read();
    else
      close_one();
  }

  // Every node shows what the model says.
  void verify(const std::string& when) {
    for (Item& it : items_) {
      Stat st;
      ASSERT_FALSE(volume().lstat(it.path, &st)) << it.path;
      const Expected& w = it.want;
      if (w.modified) {
        EXPECT_EQ(w.modified->tv_sec, st.modified.tv_sec) << it.path << " " << when;
        EXPECT_EQ(w.modified->tv_nsec, st.modified.tv_nsec) << it.path << " " << when;
      }
      if (w.accessed) {
        EXPECT_EQ(*w.accessed, st.accessed.tv_sec) << it.path << " " << when;
      }
      // A write's stamp is taken when its file is written back.
      if (w.recent && !it.file.is_open()) {
        EXPECT_GE(st.modified.tv_sec, start_ - 2) << it.path << " " << when;
      }
    }
  }

  // Everything goes at unmount; the nodes are looked up again afterwards.
  void remount() {
    for (Item& it : items_)
      it.file = File();
    remount_();
    for (Item& it : items_)
      it.node = it.path == "/" ? kRootNode : lookup(it.path);
  }

 private:
  Volume& volume() { return *v_; }
  int pick(int n) { return static_cast<int>(rng_() % static_cast<uint32_t>(n)); }

  NodeId lookup(const std::string& path) {
    NodeId node = kRootNode;
    size_t pos = 1;
    while (pos < path.size()) {
      size_t slash = path.find('/', pos);
      if (slash == std::string::npos)
        slash = path.size();
      EXPECT_FALSE(volume().lookup(node, path.substr(pos, slash - pos), &node)) << path;
      pos = slash + 1;
    }
    return node;
  }

  // A new directory, link or file in a random directory, made through the
  // parent's node. The parent may have grown, which stamps it.
  void make(int round) {
    if (items_.size() > 100)
      return;
    std::vector<size_t> dirs;
    for (size_t i = 0; i < items_.size(); i++)
      if (items_[i].type == FileType::Directory)
        dirs.push_back(i);
    // Half of the nodes go into the newest directory, so that it fills.
    size_t chosen = pick(2) == 0 ? dirs.back()
                                 : dirs[static_cast<size_t>(pick(static_cast<int>(dirs.size())))];
    Item& parent = items_[chosen];
    Item it;
    std::string name = "n" + std::to_string(round);
    it.path = (parent.path == "/" ? "" : parent.path) + "/" + name;
    int kind = pick(3);
    if (kind == 0) {
      it.type = FileType::Directory;
      ASSERT_FALSE(volume().mkdir(parent.node, name, &it.node));
    } else if (kind == 1) {
      it.type = FileType::Symlink;
      ASSERT_FALSE(volume().symlink("target-" + name, parent.node, name, &it.node));
    } else {
      it.type = FileType::Regular;
      ASSERT_FALSE(volume().create(parent.node, name, O_RDWR, &it.file, &it.node));
    }
    parent.want = {};
    latest_ = items_.size();
    items_.push_back(std::move(it));
  }

  // Times of the node made last (the case that matters most) or of any
  // node, through its node, its path or its open file.
  void set_times() {
    if (items_.size() < 2)
      return;
    size_t index = pick(2) == 0 && latest_ != 0
                       ? latest_
                       : 1 + static_cast<size_t>(pick(static_cast<int>(items_.size()) - 1));
    Item& it = items_[index];
    TimeChange tc;
    tc.modified = timespec{1000000000 + pick(900000000), pick(100) * 10000000L};
    if (pick(2) != 0)
      tc.accessed = timespec{2 * (500000000 + pick(400000000)), 0};
    int how = pick(3);
    if (how == 0 && it.file.is_open())
      ASSERT_FALSE(it.file.utimes(tc)) << it.path;
    else if (how == 1)
      ASSERT_FALSE(volume().utimes(it.path, tc, false)) << it.path;
    else
      ASSERT_FALSE(volume().utimes(it.node, tc)) << it.path;
    it.want.modified = tc.modified;
    it.want.recent = false;
    if (tc.accessed)
      it.want.accessed = tc.accessed->tv_sec;
  }

  Item* some_file() {
    std::vector<Item*> files;
    for (Item& it : items_)
      if (it.type == FileType::Regular)
        files.push_back(&it);
    return files.empty() ? nullptr : files[static_cast<size_t>(pick(int(files.size())))];
  }

  // Data written through a file kept open: its stamp stays pending.
  void write() {
    Item* it = some_file();
    if (it == nullptr)
      return;
    if (!it->file.is_open()) {
      ASSERT_FALSE(volume().open(it->node, O_RDWR, &it->file));
    }
    std::vector<uint8_t> data = pattern(1 + pick(20000), static_cast<uint32_t>(rng_()));
    size_t done = 0;
    ASSERT_FALSE(it->file.pwrite(data.data(), data.size(), pick(30000), &done));
    it->want.modified.reset();
    it->want.recent = true;
  }

  // A read stamps the access time (when the file is next written back).
  void read() {
    Item* it = some_file();
    if (it == nullptr)
      return;
    File f;
    ASSERT_FALSE(volume().open(it->node, O_RDONLY, &f));
    char buffer[64];
    size_t done = 0;
    ASSERT_FALSE(f.pread(buffer, sizeof buffer, 0, &done));
    if (done != 0)
      it->want.accessed.reset();
  }

  void close_one() {
    if (Item* it = some_file())
      it->file = File();
  }

  std::unique_ptr<Volume>& v_;
  std::function<void()> remount_;
  std::mt19937 rng_;
  std::vector<Item> items_;
  size_t latest_ = 0;
  time_t start_ = time(nullptr);
};

// Each seed is one sequence; a remount every 40 steps shows what reached
// the volume. Clusters of 512 bytes hold 5 short names, so directories
// grow often, which stamps them.
TEST_F(ApiTimes, ExplicitTimesWinOverPendingStamps) {
  for (uint32_t seed = 1; seed <= 4; seed++) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    ASSERT_NO_FATAL_FAILURE(format(32u << 20, "-c 512"));
    ASSERT_FALSE(mount());
    TimesModel model(volume_, [this] { remount(); }, seed);
    for (int round = 0; round < 160 && !HasFailure(); round++) {
      model.step(round);
      model.verify("after step " + std::to_string(round));
      if (round % 40 == 39) {
        model.remount();
        model.verify("after the remount at step " + std::to_string(round));
      }
    }
    if (HasFailure())
      return;
    unmount_and_check();
  }
}

}  // namespace
}  // namespace exvol::test
