// The commands that change an image: mkdir, rmdir, rm, ln, touch, attrib
// and label, on images made by mkfs.exfat, with their errors and exit
// statuses. Every writing command must leave the image clean; -o ro must
// leave it untouched.

#include <filesystem>
#include <string>

#include "cli_test.h"

namespace exvol::cli_test {
namespace {

class CliChange : public CliTest {
 protected:
  void SetUp() override {
    CliTest::SetUp();
    REQUIRE_MKFS();
    image_ = make_image("vol.img", 32 << 20, "START");
  }

  std::string ls(const std::string& path, const std::string& flags = "-a") {
    return exvol({"ls", flags, addr(path)}).out;
  }
};

TEST_F(CliChange, MkdirAndRmdir) {
  ok({"mkdir", addr("/a"), addr("/b")});
  EXPECT_EQ("a\nb\n", ls("/"));
  fails({"mkdir", addr("/a")}, addr("/a"), "File exists");
  fails({"mkdir", addr("/x/y")}, addr("/x/y"), "No such file or directory");

  ok({"mkdir", "-p", addr("/a/deep/er/est"), addr("/a")});
  EXPECT_EQ("est\n", ls("/a/deep/er"));
  ok({"touch", addr("/file")});
  fails({"mkdir", "-p", addr("/file/sub")}, addr("/file"), "Not a directory");

  fails({"rmdir", addr("/a")}, addr("/a"), "Directory not empty");
  fails({"rmdir", addr("/file")}, addr("/file"), "Not a directory");
  ok({"rmdir", addr("/a/deep/er/est"), addr("/b")});
  EXPECT_EQ("a\nfile\n", ls("/"));
}

TEST_F(CliChange, RmFilesAndTrees) {
  ok({"mkdir", "-p", addr("/t/u/v")});
  ok({"touch", addr("/t/f"), addr("/t/u/g"), addr("/t/u/v/h"), addr("/single")});
  fails({"rm", addr("/t")}, addr("/t"), "Is a directory");
  ok({"rm", addr("/single")});
  fails({"rm", addr("/single")}, addr("/single"), "No such file or directory");
  ok({"rm", "-f", addr("/single")});

  ok({"rm", "-r", addr("/t")});
  EXPECT_EQ("", ls("/"));

  Result r = exvol({"rm", "-r", addr("/")});
  EXPECT_EQ(1, r.status);
  EXPECT_EQ("exvol: rm: " + addr("/") + ": cannot remove the root directory\n", r.err);
}

TEST_F(CliChange, ReadOnlyFilesNeedForce) {
  ok({"touch", addr("/locked")});
  ok({"attrib", "+r", addr("/locked")});
  fails({"rm", addr("/locked")}, addr("/locked"), "Operation not permitted");
  write_file(at("data"), "new");
  fails({"cp", at("data"), addr("/locked")}, addr("/locked"), "Operation not permitted");
  ok({"rm", "-f", addr("/locked")});
  EXPECT_EQ("", ls("/"));

  ok({"mkdir", addr("/d")});
  ok({"touch", addr("/d/locked")});
  ok({"attrib", "+r", addr("/d/locked")});
  EXPECT_EQ(1, exvol({"rm", "-r", addr("/d")}).status);
  ok({"rm", "-rf", addr("/d")});
  EXPECT_EQ("", ls("/"));
}

TEST_F(CliChange, AttribSetsAndClearsEachAttribute) {
  ok({"touch", addr("/f")});
  EXPECT_EQ("--A  " + addr("/f") + "\n", exvol({"attrib", addr("/f")}).out);
  ok({"attrib", "+rh", "-a", addr("/f")});
  EXPECT_EQ("RH-  " + addr("/f") + "\n", exvol({"attrib", addr("/f")}).out);
  EXPECT_EQ("", ls("/", "-l")) << "hidden files are not listed without -a";
  EXPECT_EQ("-RH- 0 ", ls("/", "-la").substr(0, 7));
  ok({"attrib", "-r", "-h", "+a", addr("/f")});
  EXPECT_EQ("--A  " + addr("/f") + "\n", exvol({"attrib", addr("/f")}).out);

  ok({"mkdir", addr("/d")});
  ok({"attrib", "+h", addr("/d")});
  EXPECT_EQ("-H-  " + addr("/d") + "\n", exvol({"attrib", addr("/d")}).out);
  Result r = exvol({"attrib", "+r", addr("/d")});
  EXPECT_EQ(1, r.status);
  EXPECT_EQ("exvol: attrib: " + addr("/d") + ": a directory has only the hidden attribute\n",
            r.err);
  fails({"attrib", "+h", addr("/nope")}, addr("/nope"), "No such file or directory");
}

TEST_F(CliChange, SymbolicLinks) {
  ok({"mkdir", addr("/dir")});
  write_file(at("t"), "target data");
  ok({"cp", at("t"), addr("/dir/t")});
  ok({"ln", "-s", "dir/t", addr("/link")});
  ok({"ln", "-s", "/elsewhere/name", addr("/dir")});  // made inside the directory
  EXPECT_EQ("dir/t\n/elsewhere/name\n",
            exvol({"readlink", addr("/link"), addr("/dir/name")}).out);
  EXPECT_EQ("target data", exvol({"cat", addr("/link")}).out);
  std::string line = exvol({"ls", "-l", addr("/link")}).out;
  EXPECT_EQ("l--A 5 ", line.substr(0, 7)) << line;
  EXPECT_EQ(addr("/link") + " -> dir/t\n", line.substr(line.size() - addr("/link").size() - 10));

  fails({"ln", "-s", "other", addr("/link")}, addr("/link"), "File exists");
  ok({"ln", "-sf", "other", addr("/link")});
  EXPECT_EQ("other\n", exvol({"readlink", addr("/link")}).out);
  fails({"readlink", addr("/dir/t")}, addr("/dir/t"), "Invalid argument");
  fails({"ln", "-s", std::string(1100, 'x'), addr("/toolong")}, addr("/toolong"),
        "File name too long");
}

TEST_F(CliChange, TouchCreatesAndSetsTimes) {
  ok({"touch", "-c", addr("/nothing")});
  EXPECT_EQ("", ls("/"));
  ok({"touch", "-d", "2020-02-29 12:34:56", addr("/leap"), addr("/dir-less")});
  Result r = exvol({"stat", addr("/leap")});
  EXPECT_NE(std::string::npos, r.out.find("Size:       0\n")) << r.out;
  EXPECT_NE(std::string::npos, r.out.find("Modified:   2020-02-29 12:34:56.000000000 +0000"));
  ok({"touch", "-d", "@0", addr("/leap")});
  EXPECT_EQ("---A 0 1980-01-01 00:00:00 " + addr("/leap") + "\n",
            exvol({"ls", "-l", addr("/leap")}).out)
      << "exFAT starts in 1980";
  ok({"touch", addr("/leap")});
  EXPECT_EQ(std::string::npos, exvol({"ls", "-l", addr("/leap")}).out.find(" 1980-"));
  fails({"touch", addr("/no/such")}, addr("/no/such"), "No such file or directory");
}

TEST_F(CliChange, LabelRoundTrip) {
  EXPECT_EQ("START\n", exvol({"label", image_}).out);
  ok({"label", image_, "Backup 2024"});
  EXPECT_EQ("Backup 2024\n", exvol({"label", image_}).out);
  ok({"label", image_, "\u00dcml\u00e4ut \u65e5\u672c"});
  EXPECT_EQ("\u00dcml\u00e4ut \u65e5\u672c\n", exvol({"label", image_}).out);
  Result info = exvol({"info", image_});
  EXPECT_NE(std::string::npos, info.out.find("Label:           \u00dcml\u00e4ut \u65e5\u672c\n"));

  Result r = exvol({"label", image_, "twelve chars"});
  EXPECT_EQ(1, r.status);
  EXPECT_EQ("exvol: label: " + image_ + ": label too long (at most 11 characters)\n", r.err);
  EXPECT_EQ("\u00dcml\u00e4ut \u65e5\u672c\n", exvol({"label", image_}).out);
  ok({"label", "-c", image_});
  EXPECT_EQ("\n", exvol({"label", image_}).out);
  expect_clean(image_);
}

TEST_F(CliChange, ReadOnlyOptionRefusesEveryChange) {
  ok({"mkdir", addr("/keep")});
  std::string before = read_file(image_);
  write_file(at("f"), "f");
  for (std::vector<std::string> args :
       {std::vector<std::string>{"mkdir", "-o", "ro", addr("/new")},
        {"rmdir", "--read-only", addr("/keep")},
        {"cp", "-o", "ro", at("f"), addr("/f")},
        {"touch", "-o", "tz=UTC,ro", addr("/keep")},
        {"label", "-o", "ro", image_, "NEW"}}) {
    Result r = exvol(args);
    EXPECT_EQ(1, r.status) << args[0];
    EXPECT_NE(std::string::npos, r.err.find(": Read-only file system\n")) << r.err;
  }
  EXPECT_TRUE(read_file(image_) == before) << "a read-only mount wrote the image";
}

TEST_F(CliChange, TimeZoneOptionKeepsTheInstant) {
  // The same instant, written with two zones, reads back the same.
  ok({"touch", "-o", "tz=+05:30", "-d", "2022-06-01 10:00:00Z", addr("/east")});
  ok({"touch", "-o", "tz=-08:00", "-d", "2022-06-01 10:00:00Z", addr("/west")});
  std::string east = exvol({"ls", "-l", addr("/east")}).out;
  std::string west = exvol({"ls", "-l", addr("/west")}).out;
  EXPECT_NE(std::string::npos, east.find(" 2022-06-01 10:00:00 ")) << east;
  EXPECT_NE(std::string::npos, west.find(" 2022-06-01 10:00:00 ")) << west;
}

}  // namespace
}  // namespace exvol::cli_test
