#pragma once
// The advisory lock that keeps two programs from working on one volume at
// once. Each keeps its own caches of the volume's metadata, so a second
// writer, or a reader beside a writer, would see or leave a volume that is
// neither one's.
//
// The lock is flock(2) on the image file or device node: exclusive for a
// read-write mount, shared for a read-only one, so any number of readers
// may share a volume. Other tools see it too (`flock IMAGE true` waits
// until the volume is complete). A loop device is a second path to its
// backing file, so its mount locks that file as well and both routes meet.
//
// flock locks belong to the open file description: they survive a fork
// into every process that shares the descriptor (a daemon that detaches
// keeps them) and are dropped when the last descriptor closes. The
// descriptors are close-on-exec, so programs a holder starts don't inherit
// them.
//
// Not thread-safe: the owner serialises calls (MountState::lock).

#include <string>
#include <vector>

namespace exvol::detail {

class DeviceLock {
 public:
  DeviceLock() = default;
  ~DeviceLock() { release(); }
  DeviceLock(const DeviceLock&) = delete;
  DeviceLock& operator=(const DeviceLock&) = delete;

  // Locks `path`, and the backing file when it is a loop device. Never
  // waits: a conflicting lock fails with EBUSY and *message saying who
  // holds it, as far as the system tells ("IMG is in use by another
  // program (mount.exvol, pid 123)"). Other errors are open(2)'s.
  int acquire(const std::string& path, bool exclusive, std::string* message);
  // Changes the kind of lock held. Becoming exclusive fails with EBUSY
  // (and *message) while others share the volume; the shared lock is kept
  // then.
  int set_exclusive(bool exclusive, std::string* message);
  // Drops the locks. Call only once the device is closed: whoever waits
  // for the lock takes it as the sign that the volume is complete.
  void release();
  bool held() const { return !locks_.empty(); }

 private:
  struct Lock {
    int fd;
    std::string what;  // how messages name the file: path, or path and device
  };
  int lock_one(const std::string& what, int fd, bool exclusive, std::string* message);

  std::vector<Lock> locks_;
  bool exclusive_ = false;
};

}  // namespace exvol::detail
