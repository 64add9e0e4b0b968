// Directory listings and node references through libexvol.

#include <fcntl.h>

#include <algorithm>
#include <map>
#include <set>

#include "tests/integration/api_fixture.h"

namespace exvol::test {
namespace {

using ApiListing = ApiTest;

// Lists `dir` from `cookie`, taking at most `limit` entries.
std::vector<DirEntry> listing(Volume& v, const std::string& dir, uint64_t cookie, size_t limit,
                              uint64_t* next = nullptr, bool* end = nullptr) {
  std::vector<DirEntry> out;
  EXPECT_FALSE(v.readdir(dir, cookie, [&](const DirEntry& e) {
    if (out.size() == limit)
      return false;
    out.push_back(e);
    return true;
  }, next, end));
  return out;
}

// A large directory listed whole and in pieces: every piece resumes where
// the previous one stopped, by the cookie it returned and by the cookie of
// the last entry taken.
TEST_F(ApiListing, LargeDirectoryResumesByCookie) {
  ASSERT_FALSE(volume_->mkdir("/big"));
  std::set<std::string> expected = {"subdir"};
  for (int i = 0; i < 700; i++) {
    expected.insert("entry-" + std::to_string(i) + ".txt");
    ASSERT_FALSE(write_file("/big/entry-" + std::to_string(i) + ".txt", {}));
  }
  ASSERT_FALSE(volume_->mkdir("/big/subdir"));

  uint64_t next = 0;
  bool end = false;
  std::vector<DirEntry> all = listing(*volume_, "/big", kDirStart, SIZE_MAX, &next, &end);
  EXPECT_TRUE(end);
  ASSERT_EQ(expected.size() + 2, all.size());
  EXPECT_EQ(".", all[0].name);
  EXPECT_EQ("..", all[1].name);
  EXPECT_EQ(32u, all[0].cookie);
  EXPECT_EQ(64u, all[1].cookie);
  std::set<std::string> seen;
  for (size_t i = 2; i < all.size(); i++) {
    EXPECT_TRUE(seen.insert(all[i].name).second) << "listed twice: " << all[i].name;
    EXPECT_EQ(all[i].name == "subdir" ? FileType::Directory : FileType::Regular, all[i].type);
    EXPECT_GT(all[i].cookie, all[i - 1].cookie);
  }
  EXPECT_EQ(expected, seen);
  EXPECT_EQ(next, all.back().cookie);

  // Pieces of 7 entries, each resuming at the cookie the last one returned.
  std::vector<std::string> pieced;
  end = false;
  for (uint64_t cookie = kDirStart; !end && pieced.size() <= all.size();)
    for (const DirEntry& e : listing(*volume_, "/big", cookie, 7, &cookie, &end))
      pieced.push_back(e.name);
  ASSERT_EQ(all.size(), pieced.size());
  for (size_t i = 0; i < all.size(); i++)
    EXPECT_EQ(all[i].name, pieced[i]);

  // Any entry's cookie continues right after it.
  for (size_t i : {size_t{0}, size_t{1}, size_t{2}, size_t{350}, all.size() - 2})
    EXPECT_EQ(all[i + 1].name, listing(*volume_, "/big", all[i].cookie, 1).at(0).name);
  EXPECT_TRUE(listing(*volume_, "/big", all.back().cookie, 10, nullptr, &end).empty());
  EXPECT_TRUE(end);
  auto any = [](const DirEntry&) { return true; };
  EXPECT_EQ(EINVAL, err(volume_->readdir("/big", 16, any)));
  EXPECT_EQ(ENOTDIR, err(volume_->readdir("/big/" + all[5].name, 0, any)));
  EXPECT_EQ(ENOENT, err(volume_->readdir("/none", 0, any)));

  // Removing entries between pieces: the listing goes on with what remains.
  for (size_t i = 353; i < 363; i++)
    ASSERT_FALSE(volume_->unlink("/big/" + all[i].name));
  EXPECT_EQ(all[363].name, listing(*volume_, "/big", all[352].cookie, 1).at(0).name);
  unmount_and_check();
}

using ApiNodes = ApiTest;

TEST_F(ApiNodes, ReferencesAndCalls) {
  NodeId dir{}, file{}, again{}, link{};
  Stat st;
  ASSERT_FALSE(volume_->mkdir(kRootNode, "dir", &dir, &st));
  EXPECT_EQ(FileType::Directory, st.type);
  EXPECT_NE(kRootNode, dir);
  File f;
  ASSERT_FALSE(volume_->create(dir, "file", O_RDWR | O_EXCL, &f, &file, &st));
  EXPECT_EQ(FileType::Regular, st.type);
  size_t done = 0;
  ASSERT_FALSE(f.write("abc", 3, &done));
  ASSERT_FALSE(f.close());
  EXPECT_EQ(EEXIST, err(volume_->create(dir, "FILE", O_RDWR | O_EXCL, &f, &again)));
  ASSERT_FALSE(volume_->symlink("file", dir, "link", &link, &st));
  EXPECT_EQ(FileType::Symlink, st.type);
  EXPECT_EQ(3u, volume_->node_count());

  // A lookup of a held vnode hands out its id again, counted.
  ASSERT_FALSE(volume_->lookup(dir, "File", &again, &st));
  EXPECT_EQ(file, again);
  EXPECT_EQ(3u, st.size);
  ASSERT_FALSE(volume_->lookup(kRootNode, "dir", &again));
  EXPECT_EQ(dir, again);
  ASSERT_FALSE(volume_->lookup(dir, "..", &again));
  EXPECT_EQ(kRootNode, again);
  EXPECT_EQ(ENOENT, err(volume_->lookup(dir, "nothing", &again)));
  EXPECT_EQ(EINVAL, err(volume_->lookup(kRootNode, "dir/file", &again)));
  std::string target;
  ASSERT_FALSE(volume_->readlink(link, &target));
  EXPECT_EQ("file", target);
  EXPECT_EQ(FileType::Symlink, (volume_->lookup(dir, "link", &again, &st), st.type))
      << "a node lookup does not follow links";

  // Calls on nodes.
  ASSERT_FALSE(volume_->truncate(file, 10));
  ASSERT_FALSE(volume_->chflags(file, kFlagHidden));
  ASSERT_FALSE(volume_->getattr(file, &st));
  EXPECT_EQ(10u, st.size);
  EXPECT_EQ(kFlagHidden, st.flags & kFlagHidden);
  ASSERT_FALSE(volume_->open(file, O_RDONLY, &f));
  char buf[16];
  ASSERT_FALSE(f.pread(buf, sizeof(buf), 0, &done));
  EXPECT_EQ(std::string("abc\0\0\0\0\0\0\0", 10), std::string(buf, done));
  ASSERT_FALSE(f.close());
  std::vector<std::string> listed;
  ASSERT_FALSE(volume_->readdir(dir, kDirStart, [&](const DirEntry& e) {
    listed.push_back(e.name);
    return true;
  }));
  EXPECT_EQ((std::vector<std::string>{".", "..", "file", "link"}), listed);

  // Renamed and removed while held: the node stays valid.
  ASSERT_FALSE(volume_->rename(dir, "file", kRootNode, "moved"));
  ASSERT_FALSE(volume_->getattr(file, &st));
  EXPECT_EQ(10u, st.size);
  ASSERT_FALSE(volume_->unlink(kRootNode, "moved"));
  ASSERT_FALSE(volume_->getattr(file, &st));
  ASSERT_FALSE(volume_->open(file, O_RDONLY, &f));
  ASSERT_FALSE(f.close());
  EXPECT_EQ(ENOENT, err(volume_->lookup(kRootNode, "moved", &again)));
  ASSERT_FALSE(volume_->unlink(dir, "link"));
  ASSERT_FALSE(volume_->rmdir(kRootNode, "dir")) << "a held directory can be removed";
  ASSERT_FALSE(volume_->getattr(dir, &st));
  NodeId orphan{};
  EXPECT_EQ(ENOENT, err(volume_->create(dir, "orphan", O_RDWR, &f, &orphan)))
      << "nothing is made in a removed directory";

  // References: file was handed out twice (create, lookup), dir twice
  // (mkdir, lookup), link twice (symlink, lookup).
  EXPECT_EQ(EINVAL, err(volume_->unref(file, 3)));
  ASSERT_FALSE(volume_->unref(file, 2));
  EXPECT_EQ(ESTALE, err(volume_->getattr(file, &st)));
  EXPECT_EQ(ESTALE, err(volume_->unref(file)));
  ASSERT_FALSE(volume_->ref(dir));
  ASSERT_FALSE(volume_->unref(dir, 3));
  ASSERT_FALSE(volume_->unref(link, 2));
  EXPECT_EQ(0u, volume_->node_count());
  ASSERT_FALSE(volume_->unref(kRootNode, 100)) << "the root is never counted";
  ASSERT_FALSE(volume_->getattr(kRootNode, &st));

  // Nodes go at unmount, and calls on them afterwards fail cleanly.
  ASSERT_FALSE(volume_->mkdir(kRootNode, "kept", &dir));
  unmount_and_check();
  EXPECT_EQ(ENXIO, err(volume_->getattr(dir, &st)));
  EXPECT_EQ(ENXIO, err(volume_->lookup(kRootNode, "kept", &dir)));
}

}  // namespace
}  // namespace exvol::test
