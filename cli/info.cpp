// `exvol info IMG`: what a volume is and how full it is, read-only.

#include <sys/stat.h>

#include <cstdio>
#include <string>

#include "cli.h"
#include <nlohmann/json.hpp>

#include "exvol/volume.h"
#include "session.h"
#include "text.h"

namespace exvol::cli {

namespace {

std::string state_of(const VolumeInfo& v) {
  std::string s;
  auto add = [&s](const char* word) { s += s.empty() ? word : std::string(", ") + word; };
  if (v.dirty())
    add("dirty");
  if (v.media_failure())
    add("media failure");
  if (v.truncated())
    add("truncated");
  return s.empty() ? "clean" : s;
}

void print_human(const std::string& image, const VolumeInfo& v) {
  printf("Image:           %s\n", image.c_str());
  printf("Label:           %s\n", v.label.c_str());
  // blkid's UUID, the name under /dev/disk/by-uuid and in fstab UUID=.
  printf("UUID (blkid):    %s\n", v.serial_string().c_str());
  printf("Name-based UUID: %s\n", v.uuid_string().c_str());
  printf("Serial number:   0x%08X\n", v.serial_number);
  printf("Sector size:     %u\n", v.bytes_per_sector);
  printf("Cluster size:    %u\n", v.bytes_per_cluster);
  printf("Clusters:        %llu\n", static_cast<unsigned long long>(v.cluster_count));
  printf("Free clusters:   %llu\n", static_cast<unsigned long long>(v.free_clusters));
  printf("Size:            %llu (%s)\n", static_cast<unsigned long long>(v.total_bytes()),
         human_size(v.total_bytes()).c_str());
  printf("Used:            %llu (%s)\n",
         static_cast<unsigned long long>(v.used_clusters() * v.bytes_per_cluster),
         human_size(v.used_clusters() * v.bytes_per_cluster).c_str());
  printf("Free:            %llu (%s)\n", static_cast<unsigned long long>(v.free_bytes()),
         human_size(v.free_bytes()).c_str());
  if (v.truncated())
    printf("Image holds:     %llu (%s) of a %s volume\n",
           static_cast<unsigned long long>(v.device_bytes), human_size(v.device_bytes).c_str(),
           human_size(v.volume_bytes).c_str());
  printf("Percent in use:  %u\n", v.percent_in_use);
  printf("Volume flags:    0x%04X (%s)\n", v.volume_flags, state_of(v).c_str());
}

void print_info_json(const std::string& image, const VolumeInfo& v) {
  print_json({{"image", image},
              {"label", v.label},
              {"serial", v.serial_string()},
              {"uuid", v.uuid_string()},
              {"serial_number", v.serial_number},
              {"bytes_per_sector", v.bytes_per_sector},
              {"bytes_per_cluster", v.bytes_per_cluster},
              {"cluster_count", v.cluster_count},
              {"free_clusters", v.free_clusters},
              {"total_bytes", v.total_bytes()},
              {"free_bytes", v.free_bytes()},
              {"percent_in_use", v.percent_in_use},
              {"volume_flags", v.volume_flags},
              {"dirty", v.dirty()},
              {"media_failure", v.media_failure()},
              {"volume_bytes", v.volume_bytes},
              {"device_bytes", v.device_bytes},
              {"truncated", v.truncated()}});
}

}  // namespace

int info_command(const std::vector<std::string>& args) {
  bool json = false;
  std::string image;
  for (const std::string& a : args) {
    if (a == "--help") {
      print_command_help(*find_command("info"));
      return 0;
    } else if (a == "--json") {
      json = true;
    } else if (!a.empty() && a[0] == '-') {
      return usage_error("info: unknown option " + a);
    } else if (image.empty()) {
      image = a;
    } else {
      return usage_error("info: one image only");
    }
  }
  if (image.empty())
    return usage_error("info: missing image");
  // "IMG:" is the address of IMG's root; label and df take it too.
  struct stat st;
  if (image.size() > 1 && image.back() == ':' && ::stat(image.c_str(), &st) != 0)
    image.pop_back();
  if (std::string problem = image_path_problem(image); !problem.empty())
    return failure(problem);

  MountOptions options;
  options.read_only = true;
  options.echo_kernel_log = false;
  std::unique_ptr<Volume> volume;
  std::string diagnostic;
  std::error_code ec = Volume::mount(image, options, &volume, &diagnostic);
  if (ec)
    return failure(mount_failure_text(image, ec, diagnostic));
  warn_if_unclean("", image, *volume);
  VolumeInfo info;
  ec = volume->info(&info);
  if (ec)
    return failure(image + ": " + ec.message());
  // The volume reports names decomposed; Linux users type and expect them
  // composed.
  info.label = composed(info.label);
  if (json)
    print_info_json(image, info);
  else
    print_human(image, info);
  ec = volume->unmount();
  if (ec)
    return failure(image + ": unmount: " + ec.message());
  return 0;
}

}  // namespace exvol::cli
