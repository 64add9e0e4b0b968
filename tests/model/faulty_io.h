#pragma once
// Faults on the image file a Volume is mounted from, for the power-cut and
// I/O-error modes. libexvol mounts images by path, so the faults sit under
// the device: this test binary interposes the vectored reads and writes
// and the data syncs that the host's file-backed device makes, and acts
// on those aimed at the one attached image (matched by device and inode).
// All other I/O of the process passes through untouched.
//
// The model of the disk is the one the in-memory test device uses: a
// write fails with EIO when its byte range covers a failing byte, or when
// the power is gone (every write after the first `cut_after_writes`
// succeeded). With a write cache, writes are volatile until the next data
// sync; power_cut() then restores what they overwrote, newest first.

#include <cstdint>
#include <string>
#include <vector>

namespace exvol::model {

struct DeviceFaults {
  int64_t cut_after_writes = -1;      // -1: the power stays on
  bool write_cache = false;           // writes volatile until a sync
  std::vector<uint64_t> fail_reads;   // byte offsets whose reads fail
  std::vector<uint64_t> fail_writes;  // byte offsets whose writes fail
};

struct DeviceStats {
  uint64_t writes = 0;   // writes that reached the image
  uint64_t flushes = 0;  // data syncs that made writes durable
  uint64_t faults = 0;   // requests failed by a chosen byte
  uint64_t write_faults = 0;  // of those, writes
  bool cut = false;      // a write found the power gone
};

// Starts counting (and failing) I/O on `image`. Throws when it can't be
// stat'ed.
void faulty_attach(const std::string& image, const DeviceFaults& faults);
// The power goes now: every later write fails.
void faulty_cut_now();
// Stops: volatile writes become durable, as when the power stays on.
void faulty_detach();
// Restores the bytes of every write not yet synced, then detaches.
void faulty_power_cut();
DeviceStats faulty_stats();

}  // namespace exvol::model
