#pragma once
// libexvol: the consistency checker of exFAT volumes.
//
// check() reads an image or device directly, with its own reader and
// independently of the driver, so that it works on volumes the driver
// refuses to mount and can judge what the driver wrote. It looks at the
// boot region and its backup, the FAT, the allocation bitmap, the up-case
// table and every entry set of the directory tree, and reports each problem
// as a Finding. It reads only, unless a repair is asked for.
//
// A repair fixes what can be fixed without guessing (leaked clusters freed,
// owned clusters marked in the bitmap, valid data lengths clamped, checksums
// and name hashes of otherwise valid entry sets rewritten, a damaged boot
// region restored from its valid twin, PercentInUse and the dirty flags
// rewritten), then checks again. It never removes data, except in the
// aggressive mode, which truncates files whose cluster chains are broken,
// looped or shared with another file, and frees clusters whose owner can't
// be read.
//
// A repair holds an exclusive flock(2) on the image for its whole run and
// fails with EBUSY when another program holds one. A check without repair
// takes no lock: a volume that is being written may show findings that
// pass once the writer is done.

#include <cstdint>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

namespace exvol {

enum class RepairMode : uint8_t {
  None,        // read only
  Safe,        // --repair
  Aggressive,  // --repair=aggressive: also truncates damaged files
};

struct CheckOptions {
  RepairMode repair = RepairMode::None;
  // Findings kept per pass; further ones are only counted, so that a
  // thoroughly damaged volume can't make the report grow without bound.
  size_t max_findings = 1000;
};

enum class FindingKind : uint8_t {
  BootSignature,   // jump instruction and file system name
  BootChecksum,    // checksum sector against sectors 0-10
  BootGeometry,    // a boot sector field outside the format's limits
  BackupBoot,      // backup boot region differs from the main one
  VolumeDirty,     // VolumeDirty flag set
  MediaFailure,    // MediaFailure flag set
  PercentInUse,    // PercentInUse against the bitmap's count
  SystemEntry,     // bitmap, up-case, label or GUID entry missing or wrong
  UpcaseTable,     // up-case table checksum or expansion
  EntryType,       // an entry that can't stand where it stands
  SetShape,        // entry set not File + Stream + names
  SetChecksum,     // stored set checksum differs
  NameHash,        // stored name hash differs
  NameLength,      // name length 0
  BadName,         // ".", "..", or a '/' or NUL inside: no path reaches it
  DuplicateName,   // two names equal under the volume's up-case table
  ValidLength,     // valid data length above data length
  DataLength,      // data length against the allocation
  FirstCluster,    // first cluster outside the heap
  ChainBroken,     // a FAT link to no cluster
  ChainLoop,       // a chain that comes back on itself
  ChainLength,     // chain length against data length
  CrossLink,       // a cluster owned twice
  Unmarked,        // owned clusters free in the bitmap
  Leak,            // bitmap bits without an owner
  Depth,           // directories nested too deep to follow
  SharedFile,      // two entries for one file's clusters (a rename cut short)
};

// "boot_checksum", "cross_link", …: the kind's name in JSON output.
const char* finding_kind_name(FindingKind kind);

inline constexpr uint64_t kNoOffset = ~uint64_t{0};

struct Finding {
  // The file or directory ("/docs/a.txt", "/" for the root) or the system
  // structure ("<boot>", "<fat>", "<bitmap>", "<upcase>") concerned. Names
  // are shown as stored; characters no path can hold ('/', NUL, other
  // controls, '\', unpaired surrogates) appear as \uXXXX.
  std::string path;
  FindingKind kind = FindingKind::SetShape;
  std::string what;          // "valid data length 8192 above data length 4096"
  std::string where;         // "entry at byte 1048608", "cluster 17", "sector 11"
  uint64_t offset = kNoOffset;  // byte in the image, when one place says it
  bool repairable = false;   // a repair fixes it
  bool aggressive = false;   // only an aggressive repair fixes it (data is lost)
};

struct CheckPass {
  // False when the volume could not be checked (no usable boot region):
  // the findings say why.
  bool complete = true;
  std::vector<Finding> findings;
  uint64_t findings_dropped = 0;  // found beyond max_findings, not kept
  uint64_t files = 0;
  uint64_t directories = 0;       // the root included
  uint32_t bytes_per_cluster = 0;
  uint64_t cluster_count = 0;
  uint64_t clusters_in_use = 0;   // set bits of the bitmap
  uint64_t leaked_clusters = 0;

  uint64_t problems() const { return findings.size() + findings_dropped; }
  bool clean() const { return complete && problems() == 0; }
};

struct CheckReport {
  CheckPass first;
  // After a repair: the check that followed it.
  std::optional<CheckPass> after_repair;
  std::vector<std::string> repairs;  // "path: what was done", one per repair
  // When check() fails because another program holds the image: who.
  std::string error_message;
  // The pass that says how the volume is now.
  const CheckPass& final_pass() const { return after_repair ? *after_repair : first; }
  // 0 clean, 1 problems remain, 2 could not check.
  int exit_status() const {
    const CheckPass& p = final_pass();
    return !p.complete ? 2 : p.clean() ? 0 : 1;
  }
};

// Checks the volume on `image` (a file or block device). The error is for
// what kept the check from running at all (the image can't be opened or
// read, or is locked by another program while a repair was asked for);
// problems of the volume itself are findings.
std::error_code check(const std::string& image, const CheckOptions& options,
                      CheckReport* report);

}  // namespace exvol
