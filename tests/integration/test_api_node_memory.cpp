// Held file nodes under a tiny vnode limit: their vnodes are reclaimed and
// found again by key, renames carry the ids along, and an id never comes to
// stand for another file. Random operations against a model; every file has
// its own size and contents, so a node answering for the wrong file shows.

#include <fcntl.h>

#include <atomic>
#include <map>
#include <random>
#include <thread>

#include "host/vnode.h"
#include "tests/integration/api_fixture.h"

namespace exvol::test {
namespace {

// Sets the host's vnode limit for a test's length.
struct VnodeLimit {
  explicit VnodeLimit(int n) { host_set_desiredvnodes(n); }
  ~VnodeLimit() { host_set_desiredvnodes(4096); }
};

constexpr int kDirs = 3;
constexpr int kNames = 12;  // per directory

struct Model {
  struct Place {
    int dir;
    std::string name;
    bool operator<(const Place& o) const { return std::tie(dir, name) < std::tie(o.dir, o.name); }
  };
  std::map<Place, uint32_t> at;         // file serial at each name
  std::map<uint32_t, NodeId> node;      // the id held for a serial
  std::map<NodeId, uint32_t> serial;    // and back
  std::map<NodeId, uint64_t> count;     // references held
  std::map<uint32_t, bool> unlinked;
};

size_t size_of(uint32_t serial) { return 1 + serial * 37u % 5000u + serial; }

class ApiNodeMemory : public ApiTest {
 protected:
  std::vector<NodeId> dirs_;
  Model m_;
  uint32_t next_serial_ = 1;
  std::mt19937 rng_{20261124};

  int pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng_); }
  Model::Place place() { return {pick(kDirs), "f" + std::to_string(pick(kNames))}; }

  void make(const Model::Place& p) {
    uint32_t serial = next_serial_++;
    File f;
    NodeId id{};
    ASSERT_FALSE(volume_->create(dirs_[p.dir], p.name, O_RDWR | O_EXCL, &f, &id));
    std::vector<uint8_t> data = pattern(size_of(serial), serial);
    size_t done = 0;
    ASSERT_FALSE(f.write(data.data(), data.size(), &done));
    ASSERT_FALSE(f.close());
    m_.at[p] = serial;
    took(id, serial);
  }

  void took(NodeId id, uint32_t serial) {
    if (m_.node.count(serial)) {
      ASSERT_EQ(m_.node[serial], id) << "a held file is handed out under one id";
    }
    m_.node[serial] = id;
    m_.serial[id] = serial;
    m_.count[id]++;
  }

  // The id answers for its own file, or (unlinked) for none.
  void check(NodeId id) {
    uint32_t serial = m_.serial.at(id);
    Stat st;
    std::error_code ec = volume_->getattr(id, &st);
    if (m_.unlinked[serial] && (err(ec) == ESTALE || err(ec) == ENOENT))
      return;
    ASSERT_FALSE(ec) << "serial " << serial << ": " << ec.message() << " unlinked "
                     << m_.unlinked[serial];
    ASSERT_EQ(size_of(serial), st.size) << "serial " << serial;
    File f;
    ASSERT_FALSE(volume_->open(id, O_RDONLY, &f));
    std::vector<uint8_t> data(st.size);
    size_t done = 0;
    ASSERT_FALSE(f.pread(data.data(), data.size(), 0, &done));
    ASSERT_FALSE(f.close());
    ASSERT_EQ(pattern(size_of(serial), serial), data) << "serial " << serial;
  }

  // Touches more files than the limit and has the unused vnodes reclaimed.
  void churn() {
    for (int d = 0; d < kDirs; d++)
      for (int n = 0; n < kNames; n++) {
        Stat st;
        (void)volume_->stat("/d" + std::to_string(d) + "/f" + std::to_string(n), &st);
      }
    host_vnode_push_out();
  }

  void step() {
    Model::Place p = place(), q = place();
    bool there = m_.at.count(p) != 0;
    switch (pick(7)) {
      case 0:
        if (!there)
          return make(p);
        [[fallthrough]];
      case 1: {
        NodeId id{};
        std::error_code ec = volume_->lookup(dirs_[p.dir], p.name, &id);
        ASSERT_EQ(there ? 0 : ENOENT, err(ec)) << p.name;
        if (there)
          took(id, m_.at[p]);
        return;
      }
      case 2: {
        if (!there || (p.dir == q.dir && p.name == q.name))
          return;
        ASSERT_FALSE(volume_->rename(dirs_[p.dir], p.name, dirs_[q.dir], q.name));
        if (m_.at.count(q))
          m_.unlinked[m_.at[q]] = true;
        m_.at[q] = m_.at[p];
        m_.at.erase(p);
        return;
      }
      case 3:
        if (!there)
          return;
        ASSERT_FALSE(volume_->unlink(dirs_[p.dir], p.name));
        m_.unlinked[m_.at[p]] = true;
        m_.at.erase(p);
        return;
      case 4:
        if (m_.count.empty())
          return;
        {
          auto it = std::next(m_.count.begin(), pick(static_cast<int>(m_.count.size())));
          ASSERT_FALSE(volume_->unref(it->first, it->second));
          m_.node.erase(m_.serial[it->first]);
          m_.serial.erase(it->first);
          m_.count.erase(it);
        }
        return;
      case 5:
        return churn();
      default:
        for (const auto& [id, serial] : m_.serial)
          ASSERT_NO_FATAL_FAILURE(check(id));
    }
  }
};

TEST_F(ApiNodeMemory, HeldIdsSurviveReclaimRenameAndUnlink) {
  VnodeLimit limit(8);
  for (int d = 0; d < kDirs; d++) {
    NodeId id{};
    ASSERT_FALSE(volume_->mkdir(kRootNode, "d" + std::to_string(d), &id));
    dirs_.push_back(id);
  }
  while (m_.at.size() < kDirs * kNames * 3 / 4) {
    Model::Place p = place();
    if (!m_.at.count(p)) {
      ASSERT_NO_FATAL_FAILURE(make(p));
    }
  }
  // Held files cost no vnode: the limit holds with all of them held.
  churn();
  int held_vnodes = host_vnode_count();
  EXPECT_LT(held_vnodes, 8 + kDirs + 8) << "with " << m_.serial.size() << " files held";
  for (int i = 0; i < 1500; i++)
    ASSERT_NO_FATAL_FAILURE(step()) << "step " << i;
  for (const auto& [id, serial] : m_.serial)
    ASSERT_NO_FATAL_FAILURE(check(id));
  for (const auto& [id, count] : m_.count)
    ASSERT_FALSE(volume_->unref(id, count));
  EXPECT_EQ(kDirs, static_cast<int>(volume_->node_count()));
  unmount_and_check();
}

// Readers of held ids race renames back and forth and reclaim: every answer
// is the file's own size (the two files differ in size), never ESTALE from a
// lookup that a rename overlapped.
using ApiNodeMemoryConcurrency = ApiTest;

TEST_F(ApiNodeMemoryConcurrency, LookupsAgainRaceRenames) {
  VnodeLimit limit(8);
  NodeId a{}, b{};
  for (auto [name, id, size] : {std::tuple{"a", &a, 10}, std::tuple{"b", &b, 20}}) {
    std::error_code ec = write_file(std::string("/") + name, pattern(size, 1));
    ASSERT_FALSE(ec) << ec.message();
    ASSERT_FALSE(volume_->lookup(kRootNode, name, id));
  }
  std::atomic<bool> stop{false};
  std::vector<std::thread> readers;
  for (int r = 0; r < 2; r++)
    readers.emplace_back([&] {
      while (!stop) {
        for (auto [id, size] : {std::pair{a, 10u}, std::pair{b, 20u}}) {
          Stat st;
          std::error_code ec = volume_->getattr(id, &st);
          if (ec || st.size != size)
            ADD_FAILURE() << ec.message() << ": size " << st.size << ", not " << size;
        }
        host_vnode_push_out();
      }
    });
  auto rename_and_churn = [&] {
    for (int i = 0; i < 200; i++) {
      const char* from = i % 2 ? "x" : "a";
      const char* to = i % 2 ? "a" : "x";
      ASSERT_FALSE(volume_->rename(kRootNode, from, kRootNode, to)) << i;
      for (int n = 0; n < 10; n++) {  // pushes a and b out of the vnode cache
        std::error_code ec = write_file("/c" + std::to_string(n), {});
        ASSERT_FALSE(ec) << ec.message();
      }
    }
  };
  rename_and_churn();
  stop = true;
  for (auto& t : readers)
    t.join();
  unmount_and_check();
}

}  // namespace
}  // namespace exvol::test
