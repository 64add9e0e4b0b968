// `exvol check [--json] [--repair[=aggressive]] IMG`: the consistency
// checker. Exit status 0 clean, 1 problems (after a repair: problems left),
// 2 the volume could not be checked.

#include <cstdio>
#include <string>

#include <nlohmann/json.hpp>

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

nlohmann::ordered_json pass_json(const CheckPass& pass) {
  nlohmann::ordered_json findings = nlohmann::ordered_json::array();
  for (const Finding& f : pass.findings) {
    nlohmann::ordered_json offset;  // null: the finding has no one place
    if (f.offset != kNoOffset)
      offset = f.offset;
    findings.push_back({{"path", f.path},
                        {"kind", finding_kind_name(f.kind)},
                        {"what", f.what},
                        {"where", f.where},
                        {"offset", offset},
                        {"repairable", f.repairable},
                        {"aggressive", f.aggressive}});
  }
  return {{"complete", pass.complete},
          {"files", pass.files},
          {"directories", pass.directories},
          {"bytes_per_cluster", pass.bytes_per_cluster},
          {"cluster_count", pass.cluster_count},
          {"clusters_in_use", pass.clusters_in_use},
          {"leaked_clusters", pass.leaked_clusters},
          {"findings_dropped", pass.findings_dropped},
          {"findings", findings}};
}

void print_check_json(const std::string& image, const CheckReport& report) {
  nlohmann::ordered_json passes = nlohmann::ordered_json::array({pass_json(report.first)});
  if (report.after_repair)
    passes.push_back(pass_json(*report.after_repair));
  print_json({{"image", image},
              {"status", report.exit_status()},
              {"passes", passes},
              {"repairs", report.repairs}});
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
    print_check_json(image, report);
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
