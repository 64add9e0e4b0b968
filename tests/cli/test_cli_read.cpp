// The reading commands (ls, stat, cat, df) on builder images, whose fixed
// timestamps make listings exact; that no reading command writes; and the
// command line itself (help, usage errors, exit statuses).

#include <algorithm>
#include <string>

#include "cli_test.h"
#include "tests/support/image_builder.h"

namespace exvol::cli_test {
namespace {

using exvol::test::Alloc;
using exvol::test::bytes;
using exvol::test::ImageBuilder;

constexpr uint16_t kArchive = 0x20, kReadOnly = 0x01, kHidden = 0x02;

// docs/ holds files of every attribute combination the listing shows, added
// out of name order so that sorting is visible.
class CliRead : public CliTest {
 protected:
  void SetUp() override {
    CliTest::SetUp();
    ImageBuilder b;
    b.add_bitmap_entry().add_upcase_entry().add_label(u"DATA");
    exvol::test::Dir docs = b.mkdir(b.root(), u"docs");
    b.add_file(docs, u"zeta.txt", bytes("hello"));
    b.add_file(docs, u"big.bin", std::vector<uint8_t>(12345, 7), Alloc::Chain,
               kArchive | kReadOnly);
    b.add_file(docs, u"secret", bytes("s"), Alloc::Chain, kArchive | kHidden);
    b.add_file(docs, u".dot", bytes("d"));
    b.add_file(docs, u"plain", bytes("p"), Alloc::Chain, 0);
    b.add_file(docs, u"caf\u00e9", bytes("accent"));
    b.mkdir(docs, u"inner");
    image_ = at("built.img");
    b.write_to(image_);
  }
};

TEST_F(CliRead, ListingFormats) {
  struct Case {
    std::vector<std::string> args;
    std::string out;
  } cases[] = {
      // The volume lists "café" decomposed; the listing gives it composed.
      {{"ls", addr("/docs")}, "big.bin\ncaf\u00e9\ninner\nplain\nzeta.txt\n"},
      {{"ls", "-a", addr("/docs")}, ".dot\nbig.bin\ncaf\u00e9\ninner\nplain\nsecret\nzeta.txt\n"},
      {{"ls", "-U", addr("docs")}, "zeta.txt\nbig.bin\nplain\ncaf\u00e9\ninner\n"},
      {{"ls", "-la", addr("/docs")},
       "---A     1 2024-01-01 00:00:00 .dot\n"
       "-R-A 12345 2024-01-01 00:00:00 big.bin\n"
       "---A     6 2024-01-01 00:00:00 caf\u00e9\n"
       "d---  4096 2024-01-01 00:00:00 inner\n"
       "----     1 2024-01-01 00:00:00 plain\n"
       "--HA     1 2024-01-01 00:00:00 secret\n"
       "---A     5 2024-01-01 00:00:00 zeta.txt\n"},
      // Files first, then directories with headers.
      {{"ls", addr("/docs/inner"), addr("/docs/zeta.txt"), addr("/")},
       addr("/docs/zeta.txt") + "\n\n" + addr("/docs/inner") + ":\n\n" + addr("/") + ":\ndocs\n"},
      {{"ls", "-d", addr("/docs")}, addr("/docs") + "\n"},
      {{"ls", "-R", image_ + ":"},
       addr("/") + ":\ndocs\n\n" + addr("/docs") +
           ":\nbig.bin\ncaf\u00e9\ninner\nplain\nzeta.txt\n\n" + addr("/docs/inner") + ":\n"},
      {{"cat", addr("/DOCS/ZETA.TXT"), addr("/docs/plain")}, "hellop"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args[0] + " " + c.args[1]);
    Result r = exvol(c.args);
    EXPECT_EQ(0, r.status);
    EXPECT_EQ("", r.err);
    EXPECT_EQ(c.out, r.out);
  }
}

TEST_F(CliRead, FailedOperandIsReportedAndTheOthersStillDone) {
  Result r = exvol({"ls", addr("/nope"), addr("/docs/inner"), addr("/docs/zeta.txt")});
  EXPECT_EQ(1, r.status);
  EXPECT_EQ(failure_line("ls", addr("/nope"), "No such file or directory"), r.err);
  EXPECT_EQ(addr("/docs/zeta.txt") + "\n", r.out.substr(0, r.out.find('\n') + 1));

  r = exvol({"cat", addr("/docs/zeta.txt"), addr("/docs"), addr("/docs/plain")});
  EXPECT_EQ(1, r.status);
  EXPECT_EQ("hellop", r.out);
  EXPECT_EQ(failure_line("cat", addr("/docs"), "Is a directory"), r.err);

  r = exvol({"ls", at("absent.img") + ":/"});
  EXPECT_EQ(1, r.status);
  EXPECT_EQ(failure_line("ls", at("absent.img"),
                         "no such image file; check the name, or create the volume first "
                         "(mkfs.exfat)"),
            r.err);

  write_file(at("zeros.img"), std::string(1 << 20, '\0'));
  r = exvol({"cat", at("zeros.img") + ":/f"});
  EXPECT_EQ(1, r.status);
  EXPECT_EQ(0u, r.err.find("exvol: cat: " + at("zeros.img") + ": cannot mount: ")) << r.err;
  EXPECT_EQ(1, std::count(r.err.begin(), r.err.end(), '\n')) << r.err;
}

TEST_F(CliRead, StatShowsEveryAttribute) {
  Result r = exvol({"stat", addr("/docs/big.bin")});
  EXPECT_EQ(0, r.status) << r.err;
  for (const char* line :
       {"File:       ", "Type:       regular file\n", "Size:       12345\n",
        "Allocated:  16384\n", "Attributes: read-only archive\n", "Flags:      0x00000002\n",
        "Modified:   2024-01-01 00:00:00.000000000 +0000\n",
        "Birth:      2024-01-01 00:00:00.000000000 +0000\n"})
    EXPECT_NE(std::string::npos, r.out.find(line)) << line << "\n" << r.out;

  r = exvol({"stat", "--json", addr("/docs/secret"), addr("/docs/inner")});
  EXPECT_EQ(0, r.status) << r.err;
  std::vector<nlohmann::json> docs = parse_json_values(r.out);
  ASSERT_EQ(2u, docs.size()) << r.out;
  EXPECT_EQ(nlohmann::json({"hidden", "archive"}), docs[0]["attributes"]) << r.out;
  EXPECT_EQ(addr("/docs/secret"), docs[0]["file"]);
  EXPECT_EQ(1u, docs[0]["size"]);
  EXPECT_EQ("directory", docs[1]["type"]);
  EXPECT_EQ(nlohmann::json({{"sec", 1704067200}, {"nsec", 0}}), docs[1]["modified"]);
  EXPECT_FALSE(docs[1].contains("target"));
}

// The JSON output parses whatever the names hold: quotes, backslashes and
// controls are escaped, bytes that are not UTF-8 become U+FFFD.
TEST_F(CliRead, JsonParsesWhateverTheNamesHold) {
  struct Case {
    std::string name, shown;
  } cases[] = {
      {"q\"uo\\te.img", "q\"uo\\te.img"},
      {"new\nline\t.img", "new\nline\t.img"},
      {"bad\xff\xc3.img", "bad\uFFFD\uFFFD.img"},
  };
  for (const Case& c : cases) {
    std::string copy = at(c.name);
    std::filesystem::copy_file(image_, copy);
    Result r = exvol({"info", "--json", copy});
    ASSERT_EQ(0, r.status) << r.err;
    nlohmann::json doc = parse_json(r.out);
    EXPECT_EQ(at(c.shown), doc["image"]) << r.out;
    EXPECT_EQ("DATA", doc["label"]);
    r = exvol({"stat", "--json", copy + ":/docs/zeta.txt"});
    EXPECT_EQ(at(c.shown) + ":/docs/zeta.txt", parse_json(r.out)["file"]) << r.out;
  }
}

TEST_F(CliRead, DfAgreesWithInfo) {
  Result info = exvol({"info", "--json", image_});
  ASSERT_EQ(0, info.status) << info.err;
  nlohmann::json doc = parse_json(info.out);
  uint64_t total = doc["total_bytes"], free = doc["free_bytes"];
  EXPECT_EQ(doc["cluster_count"].get<uint64_t>() * doc["bytes_per_cluster"].get<uint64_t>(),
            total);
  Result r = exvol({"df", image_});
  EXPECT_EQ(0, r.status) << r.err;
  char expected[256];
  snprintf(expected, sizeof(expected), "%-20s %10llu %10llu %10llu %3llu%%\n", image_.c_str(),
           static_cast<unsigned long long>(total / 1024),
           static_cast<unsigned long long>((total - free) / 1024),
           static_cast<unsigned long long>(free / 1024),
           static_cast<unsigned long long>(((total - free) * 100 + total - 1) / total));
  EXPECT_EQ(std::string("Image                 1K-blocks       Used  Available Use%\n") + expected,
            r.out);
  EXPECT_EQ(0, exvol({"df", "-h", image_}).status);
}

// A volume left dirty by a crash: a read-write mount would rewrite the
// boot sector, a read-only one must leave every byte alone.
TEST_F(CliRead, ReadingCommandsNeverWriteTheImage) {
  ImageBuilder b;
  b.add_bitmap_entry().add_upcase_entry().add_label(u"DIRTY");
  b.add_file(b.root(), u"f", bytes("data"));
  b.volume_flags(0x0002);
  std::string dirty = at("dirty.img");
  b.write_to(dirty);
  std::string before = read_file(dirty);
  for (std::vector<std::string> args :
       {std::vector<std::string>{"ls", "-laR", dirty + ":/"}, {"cat", dirty + ":/f"},
        {"stat", dirty + ":/f"}, {"df", dirty}, {"label", dirty}, {"attrib", dirty + ":/f"},
        {"info", dirty}, {"cp", dirty + ":/f", at("out")}}) {
    Result r = exvol(args);
    EXPECT_EQ(0, r.status) << args[0] << ": " << r.err;
  }
  EXPECT_EQ("data", read_file(at("out")));
  EXPECT_TRUE(read_file(dirty) == before) << "a reading command changed the image";
}

TEST(CliUsage, HelpListsEveryCommandAndEachExplainsItself) {
  Result r = exvol({"help"});
  EXPECT_EQ(0, r.status);
  for (const char* c : {"info", "ls", "stat", "cat", "cp", "mv", "rm", "mkdir", "rmdir", "ln",
                        "readlink", "touch", "attrib", "label", "df"}) {
    EXPECT_NE(std::string::npos, r.out.find(std::string("\n  ") + c + " ")) << c;
    Result h = exvol({c, "--help"});
    EXPECT_EQ(0, h.status) << c;
    EXPECT_EQ(0u, h.out.find(std::string("usage: exvol ") + c + " ")) << h.out;
    EXPECT_EQ(h.out, exvol({"help", c}).out) << c;
  }
}

TEST(CliUsage, WrongCommandLinesExitWithStatusTwo) {
  const std::vector<std::vector<std::string>> wrong = {
      {},
      {"frobnicate"},
      {"ls"},
      {"ls", "-Z", "x.img:"},
      {"ls", "not-an-address"},
      {"cp", "only-one"},
      {"cp", "host-a", "host-b"},
      {"ln", "target", "x.img:/l"},
      {"ln", "-s", "target"},
      {"touch", "-d", "yesterday", "x.img:/f"},
      {"mkdir", "-o", "bogus", "x.img:/d"},
      {"mkdir", "-o", "tz=Mars", "x.img:/d"},
      {"cat", "-o"},
      {"label"},
      {"label", "x.img", "A", "B"},
      {"help", "frobnicate"},
  };
  for (const auto& args : wrong) {
    SCOPED_TRACE(args.empty() ? "(none)" : args[0] + " " + (args.size() > 1 ? args[1] : ""));
    Result r = exvol(args);
    EXPECT_EQ(2, r.status);
    EXPECT_EQ(0u, r.err.find("exvol: ")) << r.err;
    EXPECT_EQ("", r.out);
  }
}

}  // namespace
}  // namespace exvol::cli_test
