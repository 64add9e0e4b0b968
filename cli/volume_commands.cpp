// The commands about whole volumes: label and df.

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>

#include "cli.h"
#include "session.h"
#include "text.h"

namespace exvol::cli {

namespace {

// "IMG" or "IMG:" (the root's address) name an image.
std::string image_name(const std::string& operand) {
  struct stat st;
  if (operand.size() > 1 && operand.back() == ':' && ::stat(operand.c_str(), &st) != 0)
    return operand.substr(0, operand.size() - 1);
  return operand;
}

// exFAT stores the label as at most 11 UTF-16 code units: characters
// beyond U+FFFF (most emoji) take two.
std::string label_limit_text(const std::string& label) {
  size_t units = 0;
  for (unsigned char c : label) {
    if ((c & 0xC0) != 0x80)
      units += c >= 0xF0 ? 2 : 1;  // a lead byte of 4 is beyond U+FFFF
  }
  return "it takes " + std::to_string(units) +
         " UTF-16 units, the limit is 11 (characters beyond U+FFFF, such as most emoji, "
         "take 2)";
}

}  // namespace

int label_command(const std::vector<std::string>& raw) {
  const CommandInfo& info = *find_command("label");
  Args args;
  int status;
  if (!parse_args(info, OptionTable{.flags = "c"}, raw, &args, &status))
    return status;
  Reporter reporter("label");
  const bool clear = args.has('c');
  if (args.operands.empty() || args.operands.size() > (clear ? 1u : 2u))
    return reporter.usage(args.operands.empty() ? "missing image" : "too many operands");
  const std::string image = image_name(args.operands[0]);
  const bool change = clear || args.operands.size() == 2;
  Session session(reporter, args.mount);
  Volume* volume = session.volume(image, change);
  if (!volume)
    return session.finish();
  if (change) {
    std::error_code ec = volume->set_label(clear ? "" : args.operands[1]);
    if (ec == std::errc::filename_too_long)
      reporter.error(image + ": label too long: " + label_limit_text(args.operands[1]));
    else if (ec)
      reporter.error(image, ec);
  } else {
    std::string label;
    if (std::error_code ec = volume->label(&label))
      reporter.error(image, ec);
    else
      printf("%s\n", composed(label).c_str());
  }
  return session.finish();
}

namespace {

// df's size columns: 1K blocks, or with -h sizes such as "1.5M".
std::string df_size(uint64_t bytes, bool human) {
  if (!human)
    return std::to_string((bytes + 1023) / 1024);
  const char* units = "BKMGTP";
  double v = static_cast<double>(bytes);
  int u = 0;
  while (v >= 1024 && u < 5) {
    v /= 1024;
    u++;
  }
  char s[32];
  snprintf(s, sizeof(s), u == 0 || v >= 10 ? "%.0f%c" : "%.1f%c", v, units[u]);
  return s;
}

}  // namespace

int df_command(const std::vector<std::string>& raw) {
  const CommandInfo& info = *find_command("df");
  Args args;
  int status;
  if (!parse_args(info, OptionTable{.flags = "h"}, raw, &args, &status))
    return status;
  Reporter reporter("df");
  if (args.operands.empty())
    return reporter.usage("missing image");
  const bool human = args.has('h');
  Session session(reporter, args.mount);
  printf("%-20s %10s %10s %10s %4s\n", "Image", human ? "Size" : "1K-blocks", "Used",
         human ? "Avail" : "Available", "Use%");
  for (const std::string& operand : args.operands) {
    std::string image = image_name(operand);
    Volume* volume = session.volume(image, false);
    StatFs fs;
    if (!volume)
      continue;
    if (std::error_code ec = volume->statfs(&fs)) {
      reporter.error(image, ec);
      continue;
    }
    uint64_t size = fs.blocks * fs.block_size;
    uint64_t used = (fs.blocks - fs.blocks_free) * fs.block_size;
    uint64_t avail = fs.blocks_available * fs.block_size;
    unsigned percent = size ? static_cast<unsigned>((used * 100 + size - 1) / size) : 0;
    printf("%-20s %10s %10s %10s %3u%%\n", image.c_str(), df_size(size, human).c_str(),
           df_size(used, human).c_str(), df_size(avail, human).c_str(), percent);
  }
  return session.finish();
}

}  // namespace exvol::cli
