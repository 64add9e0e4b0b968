// Names as the library hands them on: composed (or decomposed on request),
// found in either form, and never a name that no path can reach.

#include <filesystem>
#include <mutex>
#include <set>

#include "tests/integration/api_fixture.h"

namespace exvol::test {
namespace {

using ApiNames = ApiTest;

struct NameCase {
  const char* typed;       // as a program gives it
  const char* composed;    // listed by default
  const char* decomposed;  // listed with decomposed_names
};

// Names typed composed, decomposed, with singletons, Hangul and marks out
// of canonical order; "<" with a combining mark is kept apart, since the
// volume stores that "<" as a character that composes with nothing.
const NameCase kNames[] = {
    {"cafe\u0301", "caf\u00e9", "cafe\u0301"},
    {"na\u00efve", "na\u00efve", "nai\u0308ve"},
    {"\u2126hm", "\u03a9hm", "\u03a9hm"},
    {"\u1100\u1161x", "\uac00x", "\u1100\u1161x"},
    {"e\u0302\u0323", "\u1ec7", "e\u0323\u0302"},
    {"a<\u0338b", "a<\u0338b", "a<\u0338b"},
    {"plain", "plain", "plain"},
};

std::set<std::string> listed(Volume& v) {
  std::vector<DirEntry> entries;
  EXPECT_FALSE(v.list("/", &entries));
  std::set<std::string> out;
  for (const DirEntry& e : entries)
    out.insert(e.name);
  return out;
}

TEST_F(ApiNames, ListedComposedAndFoundInEitherForm) {
  std::set<std::string> composed, decomposed;
  for (size_t i = 0; i < std::size(kNames); i++) {
    ASSERT_FALSE(write_file(std::string("/") + kNames[i].typed, {static_cast<uint8_t>(i)}))
        << kNames[i].typed;
    composed.insert(kNames[i].composed);
    decomposed.insert(kNames[i].decomposed);
  }
  EXPECT_EQ(composed, listed(*volume_));
  for (size_t i = 0; i < std::size(kNames); i++) {
    for (const char* form : {kNames[i].typed, kNames[i].composed, kNames[i].decomposed})
      EXPECT_EQ(std::vector<uint8_t>{static_cast<uint8_t>(i)}, read_file(std::string("/") + form))
          << form;
  }

  MountOptions options;
  options.decomposed_names = true;
  ASSERT_FALSE(volume_->update(options));
  EXPECT_EQ(decomposed, listed(*volume_));
  ASSERT_NO_FATAL_FAILURE(remount());
  EXPECT_EQ(composed, listed(*volume_)) << "the form is the mount's, not the volume's";
  unmount_and_check();
}

// A host directory, removed with its contents.
class HostDir {
 public:
  HostDir() {
    std::string templ = (std::filesystem::temp_directory_path() / "exvol-names-XXXXXX").string();
    if (mkdtemp(templ.data()) != nullptr)
      path_ = templ;
  }
  ~HostDir() {
    std::error_code ec;
    if (!path_.empty())
      std::filesystem::remove_all(path_, ec);
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

std::set<std::string> host_tree(const std::string& root) {
  std::set<std::string> out;
  for (const auto& e : std::filesystem::recursive_directory_iterator(root))
    out.insert(std::filesystem::relative(e.path(), root).string());
  return out;
}

// Entry sets named ".", "..", "a/b" and "x<NUL>y" (a damaged or crafted
// volume) are left out of listings with a line in the log, and so a
// recursive copy out of the volume writes only below its target.
TEST_F(ApiNames, NamesNoPathCanReachAreLeftOut) {
  ImageBuilder b(Geometry{.cluster_count = 1024});
  b.add_bitmap_entry().add_upcase_entry();
  Dir out = b.mkdir(b.root(), u"out");
  b.add_file(out, u"ok", {1});
  b.add_file(out, u".", {2});
  b.add_file(out, u"a/b", {3});
  b.add_file(out, std::u16string(u"x\0y", 3), {4});
  Dir up = b.mkdir(out, u"..");
  b.add_file(up, u"evil", {5});
  ASSERT_FALSE(volume_->unmount());
  b.write_to(image_.path());
  std::mutex lock;
  std::vector<std::string> messages;
  set_log_handler([&](const std::string& m) {
    std::lock_guard<std::mutex> guard(lock);
    messages.push_back(m);
  });
  ASSERT_FALSE(mount());
  std::vector<DirEntry> entries;
  ASSERT_FALSE(volume_->readdir("/out", kDirStart, [&](const DirEntry& e) {
    entries.push_back(e);
    return true;
  }));
  std::vector<std::string> names;
  for (const DirEntry& e : entries)
    names.push_back(e.name);
  EXPECT_EQ((std::vector<std::string>{".", "..", "ok"}), names);
  set_log_handler(nullptr);
  size_t left_out = 0;
  for (const std::string& m : messages)
    left_out += m.find("no path can name") != std::string::npos;
  EXPECT_EQ(4u, left_out) << testing::PrintToString(messages);
  ASSERT_FALSE(volume_->unmount());

  HostDir host;
  ASSERT_FALSE(host.path().empty());
  std::string target = host.path() + "/inner/target";
  std::filesystem::create_directories(host.path() + "/inner");
  Command cp = run(std::string(EXVOL_CLI_BIN) + " cp -r '" + image_.path() + ":/out' '" + target +
                   "'");
  EXPECT_EQ(0, cp.status) << cp.err;
  EXPECT_EQ((std::set<std::string>{"inner", "inner/target", "inner/target/ok"}),
            host_tree(host.path()));
}

}  // namespace
}  // namespace exvol::test
