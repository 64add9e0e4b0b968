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
