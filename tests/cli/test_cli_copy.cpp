// cp and mv: trees copied in, out, between images and within one, compared
// byte for byte; the options (-r, -p, -n), the mistakes cp must refuse,
// the progress line, and interruption. Writing commands leave images clean.

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <map>
#include <string>

#include "cli_test.h"

namespace exvol::cli_test {
namespace {

namespace fs = std::filesystem;

// What a host tree holds: relative path -> "D" for a directory,
// "L:target" for a link, "F:" + contents for a file.
std::map<std::string, std::string> snapshot(const std::string& root) {
  std::map<std::string, std::string> out;
  for (const auto& e : fs::recursive_directory_iterator(root)) {
    std::string rel = fs::relative(e.path(), root).string();
    if (e.is_symlink())
      out[rel] = "L:" + fs::read_symlink(e.path()).string();
    else if (e.is_directory())
      out[rel] = "D";
    else
      out[rel] = "F:" + read_file(e.path().string());
  }
  return out;
}

class CliCopy : public CliTest {
 protected:
  void SetUp() override {
    CliTest::SetUp();
    REQUIRE_MKFS();
    image_ = make_image("vol.img");
  }

  // Nested and empty directories, long and non-ASCII names, empty files,
  // a link, and a file of several MiB.
  void make_tree(const std::string& root) {
    fs::create_directories(root + "/one/two/three");
    fs::create_directories(root + "/empty dir");
    write_file(root + "/one/two/three/deep.txt", "deep");
    write_file(root + "/one/small", "s");
    write_file(root + "/empty", "");
    write_file(root + "/" + std::string(200, 'n') + ".long", "long name");
    write_file(root + "/caf\u00e9 \u65e5\u672c\u8a9e \u00dcml\u00e4ut", "utf-8");
    write_file(root + "/one/big.bin", pattern(6 * 1024 * 1024 + 123, 1));
    fs::create_symlink("two/three/deep.txt", root + "/one/link");
  }
};

TEST_F(CliCopy, TreesGoInComeOutAndCrossImagesTheSame) {
  make_tree(at("tree"));
  ok({"cp", "-r", at("tree"), addr("/")});
  EXPECT_EQ("deep", cat("/tree/one/link")) << "the link resolves on the image";
  std::string other = make_image("other.img", 32 << 20);
  ok({"cp", "-r", addr("/tree"), other + ":/copy"});
  expect_clean(other);
  ok({"cp", "-r", addr("/tree"), addr("/second")});
  ok({"cp", "-r", other + ":/copy", at("from-other")});
  ok({"cp", "-r", addr("/second"), at("from-second")});
  EXPECT_EQ(snapshot(at("tree")), snapshot(at("from-other")));
  EXPECT_EQ(snapshot(at("tree")), snapshot(at("from-second")));

  // The image root copies its contents.
  ok({"cp", "-r", other + ":/", at("whole")});
  EXPECT_EQ(snapshot(at("from-other")), snapshot(at("whole/copy")));
}

TEST_F(CliCopy, TargetsAndFailures) {
  write_file(at("a"), "A");
  write_file(at("b"), "B");
  ok({"mkdir", addr("/dir")});
  ok({"cp", at("a"), at("b"), addr("/dir")});
  EXPECT_EQ("AB", cat("/dir/a") + cat("/dir/b"));
  ok({"cp", at("a"), addr("/renamed")});
  EXPECT_EQ("A", cat("/renamed"));
  // The same source twice is fine.
  ok({"cp", at("a"), at("a"), addr("/dir/")});

  fails({"cp", at("a"), at("b"), addr("/renamed")}, addr("/renamed"), "Not a directory");
  fails({"cp", at("a"), addr("/nodir/")}, addr("/nodir"), "No such file or directory");
  fails({"cp", at("absent"), addr("/")}, at("absent"), "No such file or directory");
  fs::create_directory(at("d"));
  Result r = exvol({"cp", at("d"), addr("/")});
  EXPECT_EQ(1, r.status);
  EXPECT_EQ("exvol: cp: " + at("d") + ": is a directory (not copied; use -r)\n", r.err);
}

TEST_F(CliCopy, NoClobberKeepsExistingFiles) {
  write_file(at("f"), "new");
  write_file(at("old"), "old");
  ok({"cp", at("old"), addr("/f")});
  ok({"cp", "-n", at("f"), addr("/")});
  EXPECT_EQ("old", cat("/f"));
  ok({"cp", "-n", addr("/f"), at("f")});
  EXPECT_EQ("new", read_file(at("f")));
  ok({"cp", at("f"), addr("/")});
  EXPECT_EQ("new", cat("/f")) << "without -n the file is replaced";

  // Replacing a longer file must not leave its tail behind.
  write_file(at("long"), pattern(100000, 2));
  ok({"cp", at("long"), addr("/f")});
  ok({"cp", at("old"), addr("/f")});
  EXPECT_EQ("old", cat("/f"));
}

TEST_F(CliCopy, PreserveKeepsTimesAndAttributes) {
  write_file(at("f"), "data");
  const struct timespec times[2] = {{981173106, 0}, {981173106, 500000000}};  // 2001-02-03 04:05:06
  ASSERT_EQ(0, utimensat(AT_FDCWD, at("f").c_str(), times, 0));

  ok({"cp", "-p", at("f"), addr("/kept")});
  ok({"cp", at("f"), addr("/fresh")});
  Result kept = exvol({"stat", addr("/kept")});
  EXPECT_NE(std::string::npos, kept.out.find("Modified:   2001-02-03 04:05:06.500000000")) << kept.out;
  Result fresh = exvol({"stat", addr("/fresh")});
  EXPECT_EQ(std::string::npos, fresh.out.find("Modified:   2001-")) << fresh.out;

  // Out again, and between images, with the read-only and hidden state.
  ok({"attrib", "+r", "+h", addr("/kept")});
  ok({"cp", "-p", addr("/kept"), at("back")});
  struct stat st;
  ASSERT_EQ(0, ::stat(at("back").c_str(), &st));
  EXPECT_EQ(981173106, st.st_mtim.tv_sec);
  EXPECT_EQ(500000000, st.st_mtim.tv_nsec);
  EXPECT_EQ(0u, st.st_mode & 0222) << "read-only on the image, read-only here";

  std::string other = make_image("other.img", 16 << 20);
  ok({"cp", "-p", addr("/kept"), other + ":/"});
  EXPECT_EQ("RHA  " + other + ":/kept\n", exvol({"attrib", other + ":/kept"}).out);
  EXPECT_NE(std::string::npos,
            exvol({"stat", other + ":/kept"}).out.find("Modified:   2001-02-03 04:05:06.500"));
  expect_clean(other);
}

TEST_F(CliCopy, RefusesToCopyOntoItself) {
  write_file(at("f"), "precious");
  ok({"cp", at("f"), addr("/f")});
  // The volume ignores case: /F is /f, and truncating it would lose it.
  Result r = exvol({"cp", addr("/f"), addr("/F")});
  EXPECT_EQ(1, r.status);
  EXPECT_EQ("exvol: cp: " + addr("/f") + " and " + addr("/F") + " are the same file\n", r.err);
  EXPECT_EQ("precious", cat("/f"));

  ok({"mkdir", "-p", addr("/a/b")});
  r = exvol({"cp", "-r", addr("/a"), addr("/a/b")});
  EXPECT_EQ(1, r.status);
  EXPECT_EQ("exvol: cp: cannot copy " + addr("/a") + " into itself, " + addr("/a/b/a") + "\n",
            r.err);
  EXPECT_EQ(1, exvol({"cp", "-r", addr("/A"), addr("/a/b/c")}).status);
  EXPECT_EQ("b\n", exvol({"ls", addr("/a")}).out);
  EXPECT_EQ("", exvol({"ls", addr("/a/b")}).out);
  expect_clean(image_);
}

// mv renames within an image (a change of case too: /DOCS is /docs itself,
// not a directory to move into) and copies, then removes, across images
// and to and from the host.
TEST_F(CliCopy, MoveRenamesWithinAnImageAndCopiesAcross) {
  make_tree(at("tree"));
  ok({"cp", "-r", at("tree"), addr("/")});
  ok({"mkdir", addr("/into")});
  ok({"mv", addr("/tree/one"), addr("/into")});
  EXPECT_EQ("deep", cat("/into/one/two/three/deep.txt"));
  ok({"mv", addr("/into"), addr("/INTO")});
  EXPECT_EQ("INTO\ntree\n", exvol({"ls", addr("/")}).out);

  std::string other = make_image("other.img", 32 << 20);
  ok({"attrib", "+r", addr("/into/one/small")});
  ok({"mv", addr("/into/one"), other + ":/"});
  expect_clean(other);
  EXPECT_EQ("", exvol({"ls", addr("/into")}).out);
  EXPECT_EQ("R-A  " + other + ":/one/small\n", exvol({"attrib", other + ":/one/small"}).out)
      << "attributes move along";
  ok({"mv", other + ":/one", at("host-moved")});
  expect_clean(other);
  EXPECT_EQ("", exvol({"ls", other + ":"}).out);
  EXPECT_EQ(snapshot(at("tree/one")), snapshot(at("host-moved")));

  ok({"mv", at("host-moved"), addr("/back")});
  EXPECT_FALSE(fs::exists(at("host-moved")));
  EXPECT_EQ("deep", cat("/back/two/three/deep.txt"));

  write_file(at("a"), "A");
  ok({"cp", at("a"), addr("/a")});
  ok({"mv", "-n", addr("/a"), addr("/back/two/three/deep.txt")});
  EXPECT_EQ("A", cat("/a"));
  ok({"mv", addr("/a"), addr("/back/two/three/deep.txt")});
  EXPECT_EQ("A", cat("/back/two/three/deep.txt"));
  EXPECT_EQ(1, exvol({"cat", addr("/a")}).status);
}

TEST_F(CliCopy, FullVolumeFailsAndStaysConsistent) {
  std::string small = make_image("small.img", 8 << 20);
  write_file(at("ten"), pattern(10 << 20, 4));
  fails({"cp", at("ten"), small + ":/"}, small + ":/ten", "No space left on device");
  expect_clean(small);
  EXPECT_EQ(read_file(at("ten")).substr(0, 1 << 20),
            exvol({"cat", small + ":/ten"}).out.substr(0, 1 << 20));
  ASSERT_EQ(0, exvol({"rm", small + ":/ten"}).status);
  EXPECT_NE(std::string::npos, exvol({"df", small}).out.find("   1%\n"));
  expect_clean(small);
}

TEST_F(CliCopy, ProgressOnlyOnATerminal) {
  write_file(at("big"), pattern(3 << 20, 3));
  ok({"cp", at("big"), addr("/piped")});

  Result tty = exvol_on_terminal({"cp", at("big"), addr("/tty")});
  EXPECT_EQ(0, tty.status) << tty.out;
  EXPECT_NE(std::string::npos, tty.out.find("100%")) << tty.out;
  EXPECT_NE(std::string::npos, tty.out.find("3.0 MiB / 3.0 MiB")) << tty.out;
  EXPECT_EQ("\r\033[K", tty.out.substr(tty.out.size() - 4)) << "the line is erased at the end";

  write_file(at("small"), "tiny");
  Result quiet = exvol_on_terminal({"cp", at("small"), addr("/small")});
  EXPECT_EQ("", quiet.out) << "no progress for small files";
  EXPECT_EQ(read_file(at("big")), cat("/tty"));
  expect_clean(image_);
}

// A signal in the middle of a copy stops it, and the image is still
// unmounted cleanly. (On a fast machine the copy may finish first.)
// Whether process `pid` has `path` open.
bool holds_open(pid_t pid, const std::string& path) {
  std::error_code ec;
  std::filesystem::path want = std::filesystem::canonical(path, ec);
  std::filesystem::path dir = "/proc/" + std::to_string(pid) + "/fd";
  for (const auto& entry : std::filesystem::directory_iterator(dir, ec)) {
    std::filesystem::path target = std::filesystem::read_symlink(entry.path(), ec);
    if (!ec && target == want)
      return true;
  }
  return false;
}

TEST_F(CliCopy, InterruptedCopyLeavesTheImageClean) {
  write_file(at("big"), pattern(48 << 20, 5));
  pid_t pid = fork();
  if (pid == 0) {
    int null = open("/dev/null", O_WRONLY);
    dup2(null, 2);
    execl(EXVOL_CLI_BIN, EXVOL_CLI_BIN, "cp", at("big").c_str(), addr("/big").c_str(), nullptr);
    _exit(127);
  }
  // Interrupt it once it has the image open (it opens it to mount, after
  // its signal handlers are in place); a fixed delay raced
  // the start-up of a sanitizer build on a loaded machine.
  int raw = 0;
  pid_t done = 0;
  for (int i = 0; i < 20000 && done == 0; i++) {
    if (holds_open(pid, image_)) {
      kill(pid, SIGINT);
      break;
    }
    usleep(1000);
    done = waitpid(pid, &raw, WNOHANG);
  }
  if (done == 0) {
    ASSERT_EQ(pid, waitpid(pid, &raw, 0));
  }
  ASSERT_TRUE(WIFEXITED(raw)) << "the signal killed it before it unmounted";
  EXPECT_TRUE(WEXITSTATUS(raw) == 0 || WEXITSTATUS(raw) == 1) << WEXITSTATUS(raw);
  expect_clean(image_);
}

}  // namespace
}  // namespace exvol::cli_test
