#include "tests/support/fsck.h"

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace exvol::test {

namespace {

bool executable(const std::string& path) {
  return access(path.c_str(), X_OK) == 0;
}

}  // namespace

// Searches PATH first, then the system administration directories that a
// non-root PATH often leaves out.
std::string fsck_program() {
  std::vector<std::string> dirs;
  if (const char* path = getenv("PATH")) {
    std::stringstream ss(path);
    for (std::string dir; std::getline(ss, dir, ':');)
      dirs.push_back(dir);
  }
  dirs.push_back("/usr/sbin");
  dirs.push_back("/sbin");
  for (const std::string& dir : dirs) {
    std::string candidate = dir + "/fsck.exfat";
    if (!dir.empty() && executable(candidate))
      return candidate;
  }
  return "";
}

TempFile::TempFile() {
  std::string pattern = (std::filesystem::temp_directory_path() / "exvol-test-XXXXXX").string();
  int fd = mkstemp(pattern.data());
  if (fd < 0)
    throw std::runtime_error("mkstemp failed");
  close(fd);
  path_ = pattern;
}

TempFile::~TempFile() {
  unlink(path_.c_str());
}

void TempFile::write(const std::vector<uint8_t>& data) const {
  std::ofstream out(path_, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
  if (!out)
    throw std::runtime_error("can't write " + path_);
}

FsckResult run_fsck(const std::vector<uint8_t>& image) {
  FsckResult result;
  std::string program = fsck_program();
  if (program.empty()) {
    result.output = "fsck.exfat not installed";
    return result;
  }
  TempFile file;
  file.write(image);
  std::string command = program + " -n '" + file.path() + "' 2>&1";
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe)
    throw std::runtime_error("popen failed");
  std::array<char, 512> chunk;
  size_t n;
  while ((n = fread(chunk.data(), 1, chunk.size(), pipe)) > 0)
    result.output.append(chunk.data(), n);
  int status = pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

}  // namespace exvol::test
