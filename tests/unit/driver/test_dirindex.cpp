// The directory index: changes made behind its back are caught and never
// trusted into a wrong answer or an overwritten set; and create, remove,
// rename and lookup racing in one directory leave exactly what they made,
// with the index built, evicted and rebuilt under them.

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "exfat_dirindex.h"
#include "tests/unit/driver/namespace_fixture.h"

using namespace exvol::test;

namespace {

class DirIndexTest : public NamespaceTest {
 protected:
  void TearDown() override {
    exfat_dirindex_set_budget(size_t(64) << 20);
    NamespaceTest::TearDown();
  }

  // The entry set of an empty file named `name`.
  static std::vector<uint8_t> set_of(const std::string& name) {
    FileDesc desc;
    desc.name.assign(name.begin(), name.end());
    return make_file_set(desc, ascii_upcase_table());
  }

  // Writes `bytes` at `offset` of the root directory straight into the
  // device's cached blocks, as a device that changed under the driver
  // would, without going through the driver's directory writes.
  void poke(uint32_t offset, const std::vector<uint8_t>& bytes) {
    exfat_node_lock(root_);
    for (size_t done = 0; done < bytes.size();) {
      uint32_t at = offset + static_cast<uint32_t>(done);
      uint64_t sector = 0;
      ASSERT_EQ(0, exfat_blockmap(root_, at / xm->xm_bytes_per_cluster, 1, &sector, nullptr,
                                  nullptr));
      uint32_t block = (at % xm->xm_bytes_per_cluster) / xm->xm_block_size;
      buf_t bp = nullptr;
      ASSERT_EQ(0, buf_meta_bread(xm->xm_devvp,
                                  static_cast<daddr64_t>(sector + block * xm->xm_sectors_per_block),
                                  static_cast<int>(xm->xm_block_size), NOCRED, &bp));
      uint32_t position = at % xm->xm_block_size;
      size_t n = std::min<size_t>(bytes.size() - done, xm->xm_block_size - position);
      memcpy(reinterpret_cast<uint8_t*>(buf_dataptr(bp)) + position, bytes.data() + done, n);
      ASSERT_EQ(0, buf_bdwrite(bp));
      done += n;
    }
    exfat_node_unlock(root_);
  }

  std::set<std::string> listed() {
    std::vector<DirRecord> records;
    EXPECT_EQ(0, vn_list(root_vp_, &records));
    std::set<std::string> names;
    for (const DirRecord& r : records) {
      if (r.name != "." && r.name != "..") {
        EXPECT_TRUE(names.insert(r.name).second) << "listed twice: " << r.name;
      }
    }
    return names;
  }
};

// Each case changes the root behind the index the first lookup built; the
// operations after it must see the directory as it is.
TEST_F(DirIndexTest, ChangesBehindTheIndexAreCaught) {
  std::vector<Placed> placed;
  for (int i = 0; i < 200; i++) {
    std::string name = "f" + std::to_string(i);
    placed.push_back(builder_.add_set(builder_.root(),
                                      FileDesc{.name = std::u16string(name.begin(), name.end())}));
  }
  mount_built();
  Vref v;
  ASSERT_EQ(0, lookup("f0", &v));
  v.reset();
  ASSERT_LT(0u, exfat_dirindex_bytes()) << "the lookup builds the root's index";

  // The free run the index would offer is taken behind it: a new file
  // must go elsewhere, not over the set written there.
  ASSERT_EQ(0, remove(root_vp_, "f30"));
  poke(placed[30].offset, set_of("intruder"));
  ASSERT_EQ(0, create(root_vp_, "newcomer", &v));
  EXPECT_NE(placed[30].offset, v.node()->x_dir_offset);
  v.reset();

  // A set deleted behind the index: its name is gone and can be made again.
  std::vector<uint8_t> gone = set_of("f10");
  for (size_t i = 0; i < gone.size(); i += EXFAT_ENTRY_SIZE)
    gone[i] &= static_cast<uint8_t>(~EXFAT_ENTRY_INUSE);
  poke(placed[10].offset, gone);
  EXPECT_EQ(ENOENT, lookup("f10", &v));
  ASSERT_EQ(0, create(root_vp_, "f10", &v));
  v.reset();

  // A set replaced by one of another name: the old name is gone, the new
  // one is found once the index is rebuilt.
  poke(placed[20].offset, set_of("g20"));
  EXPECT_EQ(ENOENT, lookup("f20", &v));
  EXPECT_EQ(0, lookup("g20", &v));
  v.reset();

  exfat_dirindex_drop(root_);
  for (const char* name : {"intruder", "newcomer", "f10", "f199"}) {
    EXPECT_EQ(0, lookup(name, &v)) << name;
    v.reset();
  }
  std::set<std::string> names = listed();
  EXPECT_EQ(201u, names.size());
  EXPECT_EQ(1u, names.count("intruder"));
  unmount_and_check();
}

class DirIndexConcurrency : public DirIndexTest {};

// Workers create, rename, look up and remove their own names in one
// directory while a reader looks names up; with the default budget and with
// one so small that the index is evicted after nearly every operation. The
// directory must end up holding exactly the survivors, found by lookup and
// listing alike.
TEST_F(DirIndexConcurrency, RacesInOneDirectoryLeaveExactlyTheSurvivors) {
  constexpr int kWorkers = 4, kFiles = 60;
  mount_built();
  for (size_t budget : {size_t(64) << 20, size_t(1)}) {
    exfat_dirindex_set_budget(budget);
    std::string round = budget == 1 ? "b" : "a";
    std::atomic<bool> done{false};
    std::thread reader([&] {
      for (int i = 0; !done; i = (i + 1) % kFiles) {
        vnode_t vp = NULLVP;
        if (vn_lookup(root_vp_, round + "w0-" + std::to_string(i), &vp) == 0)
          vnode_put(vp);
      }
    });
    std::vector<std::thread> workers;
    for (int w = 0; w < kWorkers; w++) {
      workers.emplace_back([&, w] {
        for (int i = 0; i < kFiles; i++) {
          std::string name = round + "w" + std::to_string(w) + "-" + std::to_string(i);
          Vref made;
          ASSERT_EQ(0, settled([&] { return create(root_vp_, name, &made); })) << name;
          made.reset();
          if (i % 3 == 1) {
            EXPECT_EQ(0, settled([&] { return rename(root_vp_, name, root_vp_, "R" + name); }));
          } else if (i % 3 == 2) {
            EXPECT_EQ(0, settled([&] { return remove(root_vp_, name); }));
          }
        }
      });
    }
    for (std::thread& t : workers)
      t.join();
    done = true;
    reader.join();

    std::set<std::string> expected;
    for (int w = 0; w < kWorkers; w++) {
      for (int i = 0; i < kFiles; i++) {
        std::string name = round + "w" + std::to_string(w) + "-" + std::to_string(i);
        if (i % 3 == 0)
          expected.insert(name);
        else if (i % 3 == 1)
          expected.insert("R" + name);
      }
    }
    std::set<std::string> names = listed();
    std::set<std::string> this_round;
    for (const std::string& n : names)
      if (n.rfind(round, 0) == 0 || n.rfind("R" + round, 0) == 0)
        this_round.insert(n);
    EXPECT_EQ(expected, this_round);
    for (const std::string& n : expected) {
      Vref found;
      EXPECT_EQ(0, lookup(n, &found)) << n;
    }
  }
  unmount_and_check();
}

}  // namespace
