// exvol mkfs: formats an image or device, optionally filled from a host
// directory in the same pass.

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "cli.h"
#include "exvol/mkfs.h"

namespace exvol::cli {

namespace {

// "4096", "64K", "64KiB", "512M", "2G", "1T" (binary multiples). Returns
// false on anything else or on overflow.
bool parse_size(const std::string& text, uint64_t* out) {
  char* end = nullptr;
  errno = 0;
  unsigned long long v = strtoull(text.c_str(), &end, 10);
  if (text.empty() || !isdigit(static_cast<unsigned char>(text[0])) || errno)
    return false;
  std::string unit = end;
  unsigned shift = 0;
  if (unit.empty() || unit == "B")
    shift = 0;
  else if (unit == "K" || unit == "k" || unit == "KiB")
    shift = 10;
  else if (unit == "M" || unit == "MiB")
    shift = 20;
  else if (unit == "G" || unit == "GiB")
    shift = 30;
  else if (unit == "T" || unit == "TiB")
    shift = 40;
  else
    return false;
  if (shift && v > (~0ull >> shift))
    return false;
  *out = static_cast<uint64_t>(v) << shift;
  return true;
}

std::string human(uint64_t bytes) {
  const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  int u = 0;
  while (bytes >= 1024 && bytes % 1024 == 0 && u < 4) {
    bytes /= 1024;
    u++;
  }
  return std::to_string(bytes) + " " + units[u];
}

}  // namespace

extern const char kMkfsDetails[] =
    "  -s SIZE        volume size (4096, 64K, 512M, 2G, 1T …); an image file is\n"
    "                 created or extended to it, sparse. Default: the size of\n"
    "                 the device or of the existing file\n"
    "  -c CLUSTER     cluster size, a power of two from 512 bytes to 32M.\n"
    "                 Default: 4K up to 256 MiB, 32K up to 32 GiB, 128K above\n"
    "  -L LABEL       volume label (at most 11 UTF-16 units)\n"
    "  --serial HEX   volume serial number (blkid shows it as XXXX-XXXX);\n"
    "                 default: random\n"
    "  --from DIR     fill the volume with DIR's files, directories and links\n"
    "                 (names, times and read-only attribute kept, data stored\n"
    "                 contiguously), without mounting it\n"
    "  -o tz=ZONE     time zone of the stored times: UTC, local (default) or\n"
    "                 +HH:MM / -HH:MM\n";

int mkfs_command(const std::vector<std::string>& raw) {
  const CommandInfo* self = find_command("mkfs");
  Args args;
  int status = 0;
  OptionTable table{.valued = "scLSF", .longs = {{"serial", 'S'}, {"from", 'F'}}};
  if (!parse_args(*self, table, raw, &args, &status))
    return status;
  Reporter report("mkfs");
  if (args.operands.size() != 1)
    return report.usage(args.operands.empty() ? "missing IMG or DEVICE" : "one IMG or DEVICE");

  MkfsOptions o;
  uint64_t cluster = 0;
  if (args.values.count('s') && (!parse_size(args.values['s'], &o.size) || o.size == 0))
    return report.usage("bad size " + args.values['s']);
  if (args.values.count('c') &&
      (!parse_size(args.values['c'], &cluster) || cluster < 512 || cluster > (32u << 20) ||
       (cluster & (cluster - 1)) != 0))
    return report.usage("bad cluster size " + args.values['c']);
  o.cluster_size = static_cast<uint32_t>(cluster);
  if (args.values.count('S')) {
    const std::string& s = args.values['S'];
    char* end = nullptr;
    unsigned long v = strtoul(s.c_str(), &end, 16);
    if (s.empty() || s.size() > 8 || *end)
      return report.usage("bad serial number " + s + " (up to 8 hexadecimal digits)");
    o.serial = static_cast<uint32_t>(v);
  }
  o.label = args.values.count('L') ? args.values['L'] : "";
  o.from = args.values.count('F') ? args.values['F'] : "";
  o.seconds_west = args.mount.seconds_west.value_or(0);
  o.warn = [&report](const std::string& line) { report.warn(line); };
  o.cancelled = [] { return interrupted(); };

  const std::string& target = args.operands[0];
  MkfsResult r;
  std::string why;
  if (std::error_code ec = mkfs(target, o, &r, &why)) {
    report.error(why.empty() ? target + ": " + ec.message() : why);
    return report.status();
  }
  printf("%s: exFAT, %s clusters, %u clusters, serial %04X-%04X", target.c_str(),
         human(r.bytes_per_cluster).c_str(), r.cluster_count, r.serial >> 16, r.serial & 0xFFFF);
  if (!o.from.empty())
    printf(", %llu files and %llu directories copied",
           static_cast<unsigned long long>(r.files),
           static_cast<unsigned long long>(r.directories));
  printf("\n");
  return 0;
}

}  // namespace exvol::cli
