// exvol: an exFAT image tool in the spirit of mtools. `exvol COMMAND ARGS`.

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "cli.h"

namespace exvol::cli {

namespace {

const char kUsage[] =
    "usage: exvol COMMAND ...\n"
    "commands:\n"
    "  info [--json] IMG    label, UUID, geometry, space and state of a volume\n";

}  // namespace

const char* usage_text() {
  return kUsage;
}

int failure(const std::string& message) {
  fprintf(stderr, "exvol: %s\n", message.c_str());
  return 1;
}

int usage_error(const std::string& message) {
  fprintf(stderr, "exvol: %s\n%s", message.c_str(), kUsage);
  return 2;
}

}  // namespace exvol::cli

int main(int argc, char** argv) {
  using namespace exvol::cli;
  if (argc < 2)
    return usage_error("missing command");
  std::string command = argv[1];
  std::vector<std::string> args(argv + 2, argv + argc);
  if (command == "-h" || command == "--help") {
    fputs(usage_text(), stdout);
    return 0;
  }
  if (command == "info")
    return info_command(args);
  return usage_error("unknown command " + command);
}
