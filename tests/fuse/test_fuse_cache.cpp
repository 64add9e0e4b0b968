// What the kernel caches of a mounted volume (names, attributes, listings,
// file data) stays true while the volume changes under random operations
// through names spelled in any case.

#include <dirent.h>
#include <sys/stat.h>

#include <cctype>
#include <map>
#include <random>
#include <set>

#include "tests/fuse/mount_fixture.h"

namespace exvol::test {
namespace {

using FuseCache = FuseVolumeTest;

std::set<std::string> listing(const std::string& dir) {
  std::set<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0)
        names.insert(e->d_name);
    }
    closedir(d);
  }
  return names;
}

std::string lower(std::string s) {
  for (char& c : s)
    c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return s;
}

// stat's size of `path`, or -errno.
off_t size_or_error(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 ? st.st_size : -errno;
}

// Random creates (rewrites), unlinks and renames of a few names, each
// through a random spelling, against a model: the stored spelling and size
// of each name. After every step the listing (twice, so that the second
// one comes from the kernel's cache) shows exactly the stored spellings,
// and a stat of every name through every spelling tried so far (the kernel
// holds their entries) gives the model's size or ENOENT. Removing or
// renaming through one spelling must not leave the kernel answering for
// another; the daemon drops those entries right after its reply, so an
// answer may lag by a moment, never longer.
TEST_F(FuseCache, NamesSizesAndListingsFollowChangesThroughAnySpelling) {
  const std::vector<std::string> pool = {"alpha", "beta", "gamma"};
  struct Entry {
    std::string stored;
    off_t size;
  };
  std::map<std::string, Entry> model;  // by lower-case name
  std::set<std::string> spellings;     // every spelling used so far
  std::mt19937 rng(1234);
  auto spell = [&](const std::string& name) {
    std::string s = name;
    for (char& c : s) {
      if (rng() % 2)
        c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    }
    spellings.insert(s);
    return s;
  };
  ASSERT_EQ(0, mkdir(path("d").c_str(), 0755));
  auto p = [&](const std::string& name) { return path("d/" + name); };
  auto settles = [&](const std::string& s, off_t want) {
    for (auto until = Clock::now() + std::chrono::milliseconds(300);; ) {
      off_t got = size_or_error(p(s));
      if (got == want || Clock::now() > until)
        return got;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  };
  for (int step = 0; step < 150; step++) {
    std::string name = pool[rng() % pool.size()];
    std::string s = spell(name);
    int op = static_cast<int>(rng() % 3);
    std::string trace = "step " + std::to_string(step) + " op " + std::to_string(op) + " " + s;
    if (op == 0) {  // create or rewrite with a new size
      off_t size = static_cast<off_t>(rng() % 9000);
      ASSERT_TRUE(write_file(p(s), pattern(static_cast<size_t>(size), step))) << trace;
      auto it = model.find(name);
      model[name] = {it != model.end() ? it->second.stored : s, size};
    } else if (op == 1) {  // unlink
      ASSERT_EQ(model.count(name) ? 0 : ENOENT, ERRNO_OF(unlink(p(s).c_str()))) << trace;
      model.erase(name);
    } else {  // rename onto another name, replacing it
      std::string other = pool[rng() % pool.size()];
      if (other == name)
        continue;
      std::string t = spell(other);
      trace += " -> " + t;
      ASSERT_EQ(model.count(name) ? 0 : ENOENT, ERRNO_OF(rename(p(s).c_str(), p(t).c_str())))
          << trace;
      if (model.count(name)) {
        model[other] = {t, model[name].size};
        model.erase(name);
      }
    }
    std::set<std::string> stored;
    for (const auto& [key, e] : model)
      stored.insert(e.stored);
    EXPECT_EQ(stored, listing(path("d"))) << trace;
    EXPECT_EQ(stored, listing(path("d"))) << trace << " (cached)";
    for (const std::string& sp : spellings) {
      auto it = model.find(lower(sp));
      off_t want = it != model.end() ? it->second.size : -ENOENT;
      EXPECT_EQ(want, settles(sp, want)) << trace << ": stat " << sp;
    }
    if (HasFailure())
      return;
  }
}

// The requests of one kind for one of `inos` that the daemon logged (-d)
// since `from` (an offset in its log).
int requests(const std::string& log, size_t from, const std::string& opcode,
             const std::set<ino_t>& inos) {
  int n = 0;
  std::string what = "opcode: " + opcode + " ";
  for (size_t at = log.find(what, from); at != std::string::npos; at = log.find(what, at + 1)) {
    size_t id = log.find("nodeid: ", at);
    if (id != std::string::npos && inos.count(std::stoull(log.substr(id + 8, 24))) != 0)
      n++;
  }
  return n;
}

// What the kernel need not send: a flush at the close of a handle that
// can't write. What it must see: a file's attributes right after the close
// of a handle that wrote, which stamped its modification time, and after
// the release of one that read (its access time).
TEST_F(FuseCache, ReadersNeedNoFlushAndClosesDropStampedAttributes) {
  const char* debug = getenv("EXVOL_FUSE_DEBUG");
  std::string saved = debug != nullptr ? debug : "";
  setenv("EXVOL_FUSE_DEBUG", "1", 1);
  remount();
  if (saved.empty())
    unsetenv("EXVOL_FUSE_DEBUG");
  else
    setenv("EXVOL_FUSE_DEBUG", saved.c_str(), 1);
  ASSERT_EQ(0, mkdir(path("d").c_str(), 0755));
  constexpr int kFiles = 40;
  auto p = [&](int i) { return path("d/f" + std::to_string(i)); };
  for (int i = 0; i < kFiles; i++)
    ASSERT_TRUE(write_file(p(i), pattern(static_cast<size_t>(i * 100), i)));
  std::set<ino_t> files;
  auto stat_all = [&] {
    for (int i = 0; i < kFiles; i++) {
      struct stat st {};
      ASSERT_EQ(0, lstat(p(i).c_str(), &st)) << i;
      ASSERT_EQ(i * 100, st.st_size) << i;
      files.insert(st.st_ino);
    }
  };
  stat_all();
  listing(path("d"));
  std::this_thread::sleep_for(std::chrono::milliseconds(1200));  // past the attribute timeout
  size_t from = mount_->log().size();
  stat_all();
  for (int i = 0; i < kFiles; i += 7) {
    std::vector<uint8_t> want = pattern(static_cast<size_t>(i * 100), i);
    EXPECT_EQ(std::string(want.begin(), want.end()), slurp(p(i))) << i;
  }
  std::string log = mount_->log();
  ASSERT_EQ(static_cast<size_t>(kFiles), files.size());
  EXPECT_EQ(0, requests(log, from, "FLUSH", files)) << log.substr(from);
  EXPECT_LT(0, requests(log, from, "RELEASE", files));  // the log has what it needs

  int fd = open(p(1).c_str(), O_WRONLY);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(3, pwrite(fd, "abc", 3, 0));
  struct stat before {}, after {}, later {};
  ASSERT_EQ(0, fstat(fd, &before));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));  // the volume keeps 10 ms
  ASSERT_EQ(0, close(fd));
  ASSERT_EQ(0, stat(p(1).c_str(), &after));
  std::this_thread::sleep_for(std::chrono::milliseconds(1200));
  ASSERT_EQ(0, stat(p(1).c_str(), &later));
  EXPECT_NE(before.st_mtim.tv_nsec + before.st_mtim.tv_sec * 1000000000ll,
            later.st_mtim.tv_nsec + later.st_mtim.tv_sec * 1000000000ll);
  EXPECT_EQ(later.st_mtim.tv_sec, after.st_mtim.tv_sec);
  EXPECT_EQ(later.st_mtim.tv_nsec, after.st_mtim.tv_nsec);

  // So does the release of one that read (its data was not cached: the
  // file ends in a partial page), which the kernel sends just after
  // close(2) returns: the access time, kept to 2 s, was stamped more than
  // 2 s after the file was made. The short timeout would not pass by then.
  fd = open(p(2).c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  char buf[512];
  ASSERT_EQ(200, read(fd, buf, sizeof buf));
  ASSERT_EQ(0, fstat(fd, &before));
  ASSERT_EQ(0, close(fd));
  for (auto until = Clock::now() + std::chrono::milliseconds(500);
       stat(p(2).c_str(), &after) == 0 && after.st_atim.tv_sec == before.st_atim.tv_sec &&
       Clock::now() < until;)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_GT(after.st_atim.tv_sec, before.st_atim.tv_sec);
}

// A descriptor that wrote, still open when a signal ends the daemon: its
// handle is closed after the session has ended, when the daemon must send
// the kernel nothing (the session's descriptor is closed, its number free
// for reuse).
TEST_F(FuseCache, HandlesClosedAfterTheSessionEndedSendNothing) {
  int fd = open(path("f").c_str(), O_RDWR | O_CREAT, 0644);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(3, write(fd, "abc", 3));
  ASSERT_EQ(0, kill(mount_->pid(), SIGTERM));
  EXPECT_EQ(0, mount_->wait_exit()) << mount_->log();
  close(fd);
  EXPECT_EQ(std::string::npos, mount_->log().find("writing device")) << mount_->log();
  EXPECT_FALSE(volume_dirty(image_));
  EXPECT_EQ("", fsck_problems(image_));
}

}  // namespace
}  // namespace exvol::test
