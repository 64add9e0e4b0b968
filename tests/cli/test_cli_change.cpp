// The commands that change an image (mkdir, rmdir, rm, ln, touch, attrib,
// label): their options, operands, output and failure lines. Every writing
// command must leave the image clean; -o ro must leave it untouched.

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
  std::string attrib(const std::string& path) { return exvol({"attrib", addr(path)}).out; }
};

TEST_F(CliChange, MkdirAndRmdir) {
  ok({"mkdir", addr("/a"), addr("/b")});
  EXPECT_EQ("a\nb\n", ls("/"));
  fails({"mkdir", addr("/a")}, addr("/a"), "File exists");
  ok({"mkdir", "-p", addr("/a/deep/er/est"), addr("/a")});
  EXPECT_EQ("est\n", ls("/a/deep/er"));
  ok({"touch", addr("/file")});
  fails({"mkdir", "-p", addr("/file/sub")}, addr("/file"), "Not a directory");
  fails({"rmdir", addr("/a")}, addr("/a"), "Directory not empty");
  ok({"rmdir", addr("/a/deep/er/est"), addr("/b")});
  EXPECT_EQ("a\nfile\n", ls("/"));
}

// rm needs -r for a directory and -f for a missing name or a read-only
// file, and never removes the root.
TEST_F(CliChange, RmRecursesAndForces) {
  ok({"mkdir", "-p", addr("/t/u/v")});
  ok({"touch", addr("/t/f"), addr("/t/u/v/h"), addr("/single"), addr("/locked")});
  fails({"rm", addr("/t")}, addr("/t"), "Is a directory");
  // A trailing slash names a directory, as for rm(1).
  fails({"rm", addr("/single/")}, addr("/single/"), "Not a directory");
  ok({"rm", addr("/single")});
  fails({"rm", addr("/single")}, addr("/single"), "No such file or directory");
  ok({"rm", "-f", addr("/single")});

  ok({"attrib", "+r", addr("/locked"), addr("/t/u/v/h")});
  fails({"rm", addr("/locked")}, addr("/locked"), "Operation not permitted");
  EXPECT_EQ(1, exvol({"rm", "-r", addr("/t")}).status);
  ok({"rm", "-f", addr("/locked")});
  ok({"rm", "-rf", addr("/t")});
  EXPECT_EQ("", ls("/"));

  Result r = exvol({"rm", "-r", addr("/")});
  EXPECT_EQ(1, r.status);
  EXPECT_EQ("exvol: rm: " + addr("/") + ": cannot remove the root directory\n", r.err);
}

TEST_F(CliChange, AttribSetsAndClearsEachAttribute) {
  ok({"touch", addr("/f"), addr("/g")});
  ok({"attrib", "+rh", "-a", addr("/f")});
  EXPECT_EQ("RH-  " + addr("/f") + "\n--A  " + addr("/g") + "\n",
            exvol({"attrib", addr("/f"), addr("/g")}).out);
  EXPECT_EQ("-RH- 0 ", ls("/", "-la").substr(0, 7));
  EXPECT_EQ(std::string::npos, ls("/", "-l").find(" f\n")) << "hidden without -a";
  ok({"attrib", "-r", "-h", "+a", addr("/f")});
  EXPECT_EQ("--A  " + addr("/f") + "\n", attrib("/f"));

  ok({"mkdir", addr("/d")});
  ok({"attrib", "+h", addr("/d")});
  EXPECT_EQ("-H-  " + addr("/d") + "\n", attrib("/d"));
  Result r = exvol({"attrib", "+r", addr("/d")});
  EXPECT_EQ(1, r.status);
  EXPECT_EQ("exvol: attrib: " + addr("/d") + ": a directory has only the hidden attribute\n",
            r.err);
  fails({"attrib", "+h", addr("/nope")}, addr("/nope"), "No such file or directory");
}

TEST_F(CliChange, SymbolicLinks) {
  ok({"mkdir", addr("/dir")});
  ok({"touch", addr("/dir/t")});
  ok({"ln", "-s", "dir/t", addr("/link")});
  ok({"ln", "-s", "/elsewhere/name", addr("/dir")});  // made inside the directory
  EXPECT_EQ("dir/t\n/elsewhere/name\n",
            exvol({"readlink", addr("/link"), addr("/dir/name")}).out);
  std::string line = exvol({"ls", "-l", addr("/link")}).out;
  EXPECT_EQ("l--A 5 ", line.substr(0, 7)) << line;
  EXPECT_EQ(addr("/link") + " -> dir/t\n", line.substr(line.size() - addr("/link").size() - 10));

  fails({"ln", "-s", "other", addr("/link")}, addr("/link"), "File exists");
  ok({"ln", "-sf", "other", addr("/link")});
  EXPECT_EQ("other\n", exvol({"readlink", addr("/link")}).out);
  fails({"readlink", addr("/dir/t")}, addr("/dir/t"), "Invalid argument");
}

TEST_F(CliChange, TouchCreatesAndSetsTimes) {
  ok({"touch", "-c", addr("/nothing")});
  EXPECT_EQ("", ls("/"));
  ok({"touch", "-d", "2020-02-29 12:34:56", addr("/leap"), addr("/other")});
  Result r = exvol({"stat", addr("/leap")});
  EXPECT_NE(std::string::npos, r.out.find("Size:       0\n")) << r.out;
  EXPECT_NE(std::string::npos, r.out.find("Modified:   2020-02-29 12:34:56.000000000 +0000"));
  ok({"touch", "-d", "@0", addr("/leap")});
  EXPECT_EQ("---A 0 1980-01-01 00:00:00 " + addr("/leap") + "\n",
            exvol({"ls", "-l", addr("/leap")}).out)
      << "exFAT starts in 1980";
  ok({"touch", addr("/leap")});
  EXPECT_EQ(std::string::npos, exvol({"ls", "-l", addr("/leap")}).out.find(" 1980-"));

  // The same instant written with two zones reads back the same.
  ok({"touch", "-o", "tz=+05:30", "-d", "2022-06-01 10:00:00Z", addr("/east")});
  ok({"touch", "-o", "tz=-08:00", "-d", "2022-06-01 10:00:00Z", addr("/west")});
  for (const char* name : {"/east", "/west"}) {
    std::string out = exvol({"ls", "-l", addr(name)}).out;
    EXPECT_NE(std::string::npos, out.find(" 2022-06-01 10:00:00 ")) << out;
  }
}

TEST_F(CliChange, LabelRoundTrip) {
  EXPECT_EQ("START\n", exvol({"label", image_}).out);
  EXPECT_EQ("START\n", exvol({"label", image_ + ":"}).out) << "IMG: names the image too";
  ok({"label", image_, "\u00dcml\u00e4ut \u65e5\u672c"});
  EXPECT_EQ("\u00dcml\u00e4ut \u65e5\u672c\n", exvol({"label", image_}).out);
  Result info = exvol({"info", image_});
  EXPECT_NE(std::string::npos, info.out.find("Label:           \u00dcml\u00e4ut \u65e5\u672c\n"));

  // The limit is in UTF-16 units: 6 emoji are 12.
  for (const auto& [label, units] : {std::pair<std::string, int>{"twelve chars", 12},
                                     {"\U0001F600\U0001F600\U0001F600\U0001F600\U0001F600"
                                      "\U0001F600",
                                      12}}) {
    Result r = exvol({"label", image_, label});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("exvol: label: " + image_ + ": label too long: it takes " + std::to_string(units) +
                  " UTF-16 units, the limit is 11 (characters beyond U+FFFF, such as most "
                  "emoji, take 2)\n",
              r.err);
  }
  ok({"label", image_, "\U0001F600\U0001F600\U0001F600\U0001F600\U0001F600a"});
  ok({"label", "-c", image_});
  EXPECT_EQ("\n", exvol({"label", image_}).out);
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

}  // namespace
}  // namespace exvol::cli_test
