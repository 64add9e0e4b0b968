// `exvol check [--json] [--repair[=aggressive]] IMG`: the consistency
// checker. Exit status 0 clean, 1 problems (after a repair: problems left),
// 2 the volume could not be checked.

#include <cstdio>
#include <string>

#include "cli.h"
#include "exvol/check.h"
#include "text.h"

namespace exvol::cli {

const char kCheckDetails[] =
    "  --json                machine-readable output\n"
    "  --repair              fix what can be fixed without guessing (leaked clusters,\n"
    "                        valid data lengths, checksums and name hashes of sound\n"
    "                        entry sets, a damaged boot region from its valid copy,\n"
    "                        PercentInUse, the dirty flags), then check again\n"
    "  --repair=aggressive   also truncate files whose cluster chains are broken,\n"
    "                        looped or shared (data past the damage is lost)\n"
    "  Each problem is one line: 'path: what, where'. Exit status: 0 clean,\n"
    "  1 problems found (after a repair: problems left), 2 could not check.\n";

namespace {

constexpr char kAggressiveNote[] =
    "--repair=aggressive, which truncates the damaged files (their data "
    "past the damage is lost) and frees clusters whose owner can't be read";

std::string problems(uint64_t n) {
  return std::to_string(n) + (n == 1 ? " problem" : " problems");
}

struct Counts {
  uint64_t repairable = 0;
  uint64_t aggressive = 0;
};

Counts count(const CheckPass& pass) {
  Counts c;
  for (const Finding& f : pass.findings) {
    c.repairable += f.repairable;
    c.aggressive += !f.repairable && f.aggressive;
  }
  return c;
}

void print_pass(const std::string& image, const CheckPass& pass, RepairMode mode) {
  for (const Finding& f : pass.findings)
    printf("%s: %s, %s\n", f.path.c_str(), f.what.c_str(), f.where.c_str());
  if (!pass.complete) {
    printf("%s: could not be checked\n", image.c_str());
    return;
  }
  std::string totals = std::to_string(pass.files) + " files, " +
                       std::to_string(pass.directories) + " directories, " +
                       std::to_string(pass.clusters_in_use) + " of " +
                       std::to_string(pass.cluster_count) + " clusters in use";
  if (pass.clean()) {
    printf("%s: clean; %s\n", image.c_str(), totals.c_str());
    return;
  }
  if (pass.findings_dropped)
    printf("%s: %s more not listed\n", image.c_str(), problems(pass.findings_dropped).c_str());
  Counts c = count(pass);
  printf("%s: %s (%llu repairable); %s\n", image.c_str(), problems(pass.problems()).c_str(),
         static_cast<unsigned long long>(c.repairable), totals.c_str());
  if (c.aggressive && mode != RepairMode::Aggressive)
    printf("%s: %s %s %s\n", image.c_str(), problems(c.aggressive).c_str(),
           c.aggressive == 1 ? "needs" : "need", kAggressiveNote);
}

void print_json_pass(const CheckPass& pass) {
  printf("{\"complete\": %s, \"files\": %llu, \"directories\": %llu, \"bytes_per_cluster\": %u, "
         "\"cluster_count\": %llu, \"clusters_in_use\": %llu, \"leaked_clusters\": %llu, "
         "\"findings_dropped\": %llu, \"findings\": [",
         pass.complete ? "true" : "false", static_cast<unsigned long long>(pass.files),
         static_cast<unsigned long long>(pass.directories), pass.bytes_per_cluster,
         static_cast<unsigned long long>(pass.cluster_count),
         static_cast<unsigned long long>(pass.clusters_in_use),
         static_cast<unsigned long long>(pass.leaked_clusters),
         static_cast<unsigned long long>(pass.findings_dropped));
  const char* separator = "\n";
  for (const Finding& f : pass.findings) {
    std::string offset = f.offset == kNoOffset ? "null" : std::to_string(f.offset);
    printf("%s    {\"path\": %s, \"kind\": \"%s\", \"what\": %s, \"where\": %s, \"offset\": %s, "
           "\"repairable\": %s, \"aggressive\": %s}",
           separator, json_string(f.path).c_str(), finding_kind_name(f.kind),
           json_string(f.what).c_str(), json_string(f.where).c_str(), offset.c_str(),
           f.repairable ? "true" : "false", f.aggressive ? "true" : "false");
    separator = ",\n";
  }
  printf("]}");
}

void print_json(const std::string& image, const CheckReport& report) {
  printf("{\n  \"image\": %s,\n  \"status\": %d,\n  \"passes\": [\n    ", json_string(image).c_str(),
         report.exit_status());
  print_json_pass(report.first);
  if (report.after_repair) {
    printf(",\n    ");
    print_json_pass(*report.after_repair);
  }
  printf("\n  ],\n  \"repairs\": [");
  const char* separator = "";
  for (const std::string& r : report.repairs) {
    printf("%s\n    %s", separator, json_string(r).c_str());
    separator = ",";
  }
  printf("%s]\n}\n", report.repairs.empty() ? "" : "\n  ");
}

}  // namespace

int check_command(const std::vector<std::string>& args) {
  bool json = false;
  CheckOptions options;
  std::string image;
  for (const std::string& a : args) {
    if (a == "--help") {
      print_command_help(*find_command("check"));
      return 0;
    } else if (a == "--json") {
      json = true;
    } else if (a == "--repair") {
      options.repair = RepairMode::Safe;
    } else if (a == "--repair=aggressive") {
      options.repair = RepairMode::Aggressive;
    } else if (!a.empty() && a[0] == '-') {
      return Reporter("check").usage("unknown option " + a);
    } else if (image.empty()) {
      image = a;
    } else {
      return Reporter("check").usage("one image only");
    }
  }
  if (image.empty())
    return Reporter("check").usage("missing image");

  CheckReport report;
  if (std::error_code ec = check(image, options, &report)) {
    Reporter reporter("check");
    if (!report.error_message.empty())
      reporter.error(report.error_message);
    else
      reporter.error(image, ec);
    return 2;
  }
  if (json) {
    print_json(image, report);
    return report.exit_status();
  }
  print_pass(image, report.first, options.repair);
  if (report.after_repair) {
    for (const std::string& r : report.repairs)
      printf("repaired %s\n", r.c_str());
    printf("after repair:\n");
    print_pass(image, *report.after_repair, options.repair);
  }
  return report.exit_status();
}

}  // namespace exvol::cli
