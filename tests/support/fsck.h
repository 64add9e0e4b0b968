#pragma once
// Runs the exFAT consistency checker over an image, read-only, as an
// oracle for tests: images the builder calls valid must pass it.

#include <cstdint>
#include <string>
#include <vector>

namespace exvol::test {

struct FsckResult {
  int status = -1;     // the checker's exit status; 0 = clean
  std::string output;  // its standard output and error
};

// The checker's program path, or "" when it isn't installed.
std::string fsck_program();
// Writes the image to a temporary file and checks it without repairing.
FsckResult run_fsck(const std::vector<uint8_t>& image);
// Checks the image file at `path` without repairing, for at most two
// minutes and 1 MiB of output: on some volumes fsck.exfat 1.2.0 never ends,
// printing the same findings over and over. A run cut short has status -1
// and says so at the end of its output.
FsckResult run_fsck_file(const std::string& path);

// Whether every ERROR line of fsck.exfat's output for `image` is about an
// entry set that crosses from one cluster of a FAT-chained directory into a
// cluster that does not follow it on the disk (or that spans three
// clusters, adjacent or not), and that set is valid when read along the
// chain: fsck.exfat 1.2.0 misreads such a set, so it reports the set's
// checksum wrong and the set's entries in later clusters as entries of
// unknown type. False when
// there is no ERROR line, the image can't be read, or any line is about
// something else.
bool fsck_only_misreads_split_sets(const std::string& image, const std::string& output);

// A temporary file removed when the object goes away.
class TempFile {
 public:
  TempFile();
  ~TempFile();
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;
  const std::string& path() const { return path_; }
  void write(const std::vector<uint8_t>& data) const;

 private:
  std::string path_;
};

}  // namespace exvol::test
