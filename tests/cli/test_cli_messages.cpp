// What the tool says for common slips (an image that isn't there, an
// address where an image is wanted, a directory, a device that holds
// something else than exFAT), the warning for a volume left dirty, and the
// serial number info shows as blkid does.

#include <string>

#include "cli_test.h"
#include "tests/support/image_builder.h"

namespace exvol::cli_test {
namespace {

using exvol::test::bytes;
using exvol::test::ImageBuilder;

class CliMessages : public CliTest {
 protected:
  void SetUp() override {
    CliTest::SetUp();
    ImageBuilder b;
    b.add_bitmap_entry().add_upcase_entry().add_label(u"DATA");
    b.add_file(b.root(), u"f", bytes("data"));
    image_ = at("a.img");
    b.write_to(image_);
  }

  // A 1 MiB file of zeros with `head` written at `offset`.
  std::string foreign(const std::string& name, uint64_t offset, const std::string& head) {
    std::string data(1 << 20, '\0');
    data.replace(offset, head.size(), head);
    write_file(at(name), data);
    return at(name);
  }

  std::string image_;
};

TEST_F(CliMessages, SlipsSayWhatIsWrongAndWhatToDo) {
  std::filesystem::create_directories(at("somedir"));
  write_file(at("src.txt"), "hi");
  std::string mbr(66, '\0');
  mbr[4] = 0x07;  // a partition entry in use
  mbr[64] = '\x55';
  mbr[65] = '\xAA';
  write_file(at("tiny"), "abc");
  struct Case {
    std::vector<std::string> args;
    std::string err;  // the whole of stderr
  } cases[] = {
      {{"cp", at("src.txt"), at("b.img") + ":/"},
       "exvol: cp: " + at("b.img") +
           ": no such image file; check the name, or create the volume first (mkfs.exfat) ('" +
           at("b.img") + ":/' names a path on the image " + at("b.img") + ")\n"},
      {{"info", image_ + ":/f"},
       "exvol: " + image_ + ":/f: no such image; the image is '" + image_ +
           "' (this command takes IMG, not IMG:PATH)\n"},
      {{"info", at("somedir")},
       "exvol: " + at("somedir") +
           ": is a directory; give an image file or a block device holding an exFAT volume\n"},
      {{"ls", at("somedir") + ":/"},
       "exvol: ls: " + at("somedir") +
           ": is a directory; give an image file or a block device holding an exFAT volume\n"},
      {{"info", foreign("ext4.img", 1080, "\x53\xEF")},
       "exvol: " + at("ext4.img") +
           ": cannot mount: not an exFAT volume: it holds an ext2/ext3/ext4 file system; mount "
           "it as that type\n"},
      {{"info", foreign("ntfs.img", 3, "NTFS    ")},
       "exvol: " + at("ntfs.img") +
           ": cannot mount: not an exFAT volume: it holds an NTFS file system; mount it as that "
           "type\n"},
      {{"cat", foreign("fat.img", 82, "FAT32   ") + ":/f"},
       "exvol: cat: " + at("fat.img") +
           ": cannot mount: not an exFAT volume: it holds a FAT file system; mount it with -t "
           "vfat\n"},
      {{"info", foreign("zero.img", 0, "")},
       "exvol: " + at("zero.img") +
           ": cannot mount: not an exFAT volume: its first sector is empty: it holds no file "
           "system (format it with mkfs.exfat)\n"},
      {{"info", foreign("disk.img", 446, mbr)},
       "exvol: " + at("disk.img") +
           ": cannot mount: not an exFAT volume: it starts with a partition table, not a "
           "volume; name the partition (/dev/sdX1, or an image's partition through losetup "
           "-P)\n"},
      {{"info", foreign("text.img", 0, "just some text")},
       "exvol: " + at("text.img") +
           ": cannot mount: not an exFAT volume: it does not start with an exFAT boot sector\n"},
      {{"info", at("tiny")},
       "exvol: " + at("tiny") +
           ": cannot mount: not an exFAT volume: it is smaller than the boot region of any "
           "exFAT volume (6 KiB)\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args[0] + " " + c.args.back());
    Result r = exvol(c.args);
    EXPECT_EQ(1, r.status);
    EXPECT_EQ(c.err, r.err);
  }
  // "IMG:" is the image's root, which names the image as label and df take it.
  Result r = exvol({"info", image_ + ":"});
  EXPECT_EQ(0, r.status) << r.err;
  EXPECT_NE(std::string::npos, r.out.find("Label:           DATA\n"));
}

// Long options: "--name=value" and "--name value" alike; a slip names the
// option as it was typed, and exits 2 before anything is done.
TEST_F(CliMessages, LongOptionsTakeValuesEitherWay) {
  std::filesystem::create_directories(at("tree/sub"));
  for (std::vector<std::string> serial :
       {std::vector<std::string>{"--serial=0000ABCD"}, {"--serial", "0000ABCD"}}) {
    std::vector<std::string> args = {"mkfs", "-s", "4M", "--from=" + at("tree")};
    args.insert(args.end(), serial.begin(), serial.end());
    args.push_back(at("new.img"));
    Result r = exvol(args);
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ("0000-ABCD", parse_json(exvol({"info", "--json", at("new.img")}).out)["serial"]);
    EXPECT_EQ("sub\n", exvol({"ls", at("new.img") + ":"}).out);
  }
  struct Case {
    std::vector<std::string> args;
    std::string first_line;
  } cases[] = {
      {{"mkfs", at("x.img"), "--serial"}, "exvol: mkfs: option --serial needs a value\n"},
      {{"stat", "--json=yes", image_ + ":/f"}, "exvol: stat: option --json takes no value\n"},
      {{"ls", "--read-only=1", image_ + ":"}, "exvol: ls: option --read-only takes no value\n"},
      {{"ls", "--bogus", image_ + ":"}, "exvol: ls: unknown option --bogus\n"},
  };
  for (const Case& c : cases) {
    Result r = exvol(c.args);
    EXPECT_EQ(2, r.status);
    EXPECT_EQ(c.first_line, r.err.substr(0, r.err.find('\n') + 1)) << r.err;
  }
  EXPECT_FALSE(std::filesystem::exists(at("x.img")));
}

// blkid's UUID of an exFAT volume is its serial number as XXXX-XXXX; the
// name-based UUID comes beside it, each labelled, in text and JSON.
TEST_F(CliMessages, InfoShowsTheSerialAsBlkidDoes) {
  ImageBuilder b;
  b.add_bitmap_entry().add_upcase_entry();
  b.boot_field(100, 0x1234ABCD, 4);
  b.write_to(image_);
  Result text = exvol({"info", image_});
  ASSERT_EQ(0, text.status) << text.err;
  EXPECT_NE(std::string::npos, text.out.find("UUID (blkid):    1234-ABCD\n")) << text.out;
  EXPECT_NE(std::string::npos, text.out.find("Name-based UUID: ")) << text.out;
  Result json = exvol({"info", "--json", image_});
  nlohmann::json doc = parse_json(json.out);
  EXPECT_EQ("1234-ABCD", doc["serial"]) << json.out;
  EXPECT_EQ(0x1234ABCDu, doc["serial_number"]);
  EXPECT_TRUE(doc["uuid"].is_string()) << json.out;

  std::string blkid = tool("blkid");
  if (blkid.empty())
    return;
  std::string out = at("blkid.out");
  std::system((blkid + " -s UUID -o value '" + image_ + "' > '" + out + "'").c_str());
  EXPECT_EQ("1234-ABCD\n", read_file(out));
}

// Reading commands leave the mark, writing ones clear it at the end: both
// say, once per image, that the volume was not cleanly unmounted.
TEST_F(CliMessages, ADirtyVolumeIsReported) {
  for (bool dirty : {true, false}) {
    ImageBuilder b;
    b.add_bitmap_entry().add_upcase_entry();
    b.add_file(b.root(), u"f", bytes("data"));
    b.volume_flags(dirty ? 0x0002 : 0);
    for (std::vector<std::string> args :
         {std::vector<std::string>{"info", image_}, {"cat", image_ + ":/f"},
          {"cp", image_ + ":/f", image_ + ":/g"}}) {
      SCOPED_TRACE(args[0] + (dirty ? " dirty" : " clean"));
      b.write_to(image_);
      Result r = exvol(args);
      EXPECT_EQ(0, r.status) << r.err;
      std::string prefix = args[0] == "info" ? "exvol: " : "exvol: " + args[0] + ": ";
      EXPECT_EQ(dirty ? prefix + "warning: " + image_ +
                            ": the volume was not cleanly unmounted and may be damaged; run "
                            "'exvol check " +
                            image_ + "'\n"
                      : "",
                r.err);
    }
  }
}

}  // namespace
}  // namespace exvol::cli_test
