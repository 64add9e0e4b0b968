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

}  // namespace
}  // namespace exvol::test
