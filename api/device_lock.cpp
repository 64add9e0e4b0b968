// The advisory lock on a volume's image or device (see device_lock.h).

#include "api/device_lock.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <sstream>

namespace exvol::detail {

namespace {

int open_for_lock(const std::string& path) {
  // Without O_NONBLOCK a FIFO named by mistake would block the open.
  return open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
}

// The loop driver reports its backing file's device in the kernel's own
// 64-bit encoding, which is not the C library's.
dev_t decode_kernel_dev(uint64_t dev) {
  unsigned maj = static_cast<unsigned>((dev >> 8) & 0xfff);
  unsigned min = static_cast<unsigned>((dev & 0xff) | ((dev >> 12) & 0xfff00));
  return makedev(maj, min);
}

// When fd is a loop device whose volume starts at the start of its backing
// file, that file opened for locking (its name in *name); -1 otherwise. A
// device that begins further in is a slice of the file (one partition of a
// disk image): the file as a whole is not its volume, and other slices may
// be mounted beside it.
int open_loop_backing(int fd, std::string* name) {
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISBLK(st.st_mode))
    return -1;
  char sys[96];
  snprintf(sys, sizeof(sys), "/sys/dev/block/%u:%u/loop/backing_file", major(st.st_rdev),
           minor(st.st_rdev));
  std::ifstream published(sys);
  if (!std::getline(published, *name) || name->empty())
    return -1;  // not a loop device, or one without a file
  struct loop_info64 info = {};
  if (ioctl(fd, LOOP_GET_STATUS64, &info) != 0 || info.lo_offset != 0)
    return -1;
  // The published name may be stale (the file was renamed or removed) or
  // mean another file in this mount namespace: the identity that the
  // device reports decides.
  int backing = open_for_lock(*name);
  struct stat bst;
  if (backing >= 0 && (fstat(backing, &bst) != 0 || bst.st_ino != info.lo_inode ||
                       bst.st_dev != decode_kernel_dev(info.lo_device))) {
    close(backing);
    backing = -1;
  }
  return backing;
}

std::string process_name(long pid) {
  std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
  std::string name;
  std::getline(comm, name);
  return name;
}

// Who holds a flock lock on fd's file, from the kernel's lock table:
// another process if there is one ("mount.exvol, pid 123", or "pid 123"
// when its name is gone), else this process ("self"); "" when the table
// doesn't say (another pid namespace).
std::string lock_holder(int fd) {
  struct stat st;
  if (fstat(fd, &st) != 0)
    return "";
  std::ifstream table("/proc/locks");
  std::string line;
  bool self = false;
  while (std::getline(table, line)) {
    // "1: FLOCK  ADVISORY  WRITE 1234 fe:00:10953569 0 EOF"; waiting
    // requests carry "->" after the number and hold nothing.
    std::istringstream in(line);
    std::string number, kind, advisory, mode, file;
    long pid = 0;
    if (!(in >> number >> kind >> advisory >> mode >> pid >> file) || kind != "FLOCK")
      continue;
    unsigned maj = 0, min = 0;
    unsigned long long ino = 0;
    if (sscanf(file.c_str(), "%x:%x:%llu", &maj, &min, &ino) != 3 ||
        makedev(maj, min) != st.st_dev || ino != st.st_ino)
      continue;
    if (pid == getpid()) {
      self = true;
      continue;
    }
    std::string name = process_name(pid);
    return (name.empty() ? "" : name + ", ") + "pid " + std::to_string(pid);
  }
  return self ? "self" : "";
}

std::string in_use_message(const std::string& what, int fd) {
  std::string holder = lock_holder(fd);
  if (holder == "self")
    return what + " is in use by this program already";
  return what + " is in use by another program" + (holder.empty() ? "" : " (" + holder + ")");
}

}  // namespace

int DeviceLock::lock_one(const std::string& what, int fd, bool exclusive,
                         std::string* message) {
  if (flock(fd, (exclusive ? LOCK_EX : LOCK_SH) | LOCK_NB) != 0) {
    int error = errno;
    if (error == EWOULDBLOCK) {
      *message = in_use_message(what, fd);
      error = EBUSY;
    }
    close(fd);
    return error;
  }
  locks_.push_back(Lock{fd, what});
  return 0;
}

int DeviceLock::acquire(const std::string& path, bool exclusive, std::string* message) {
  release();
  exclusive_ = exclusive;
  int fd = open_for_lock(path);
  if (fd < 0)
    return errno;
  std::string backing;
  int backing_fd = open_loop_backing(fd, &backing);
  int error = lock_one(path, fd, exclusive, message);
  if (backing_fd >= 0) {
    if (error == 0)
      error = lock_one(path + " (a loop device of " + backing + ")", backing_fd, exclusive,
                       message);
    else
      close(backing_fd);
  }
  if (error)
    release();
  return error;
}

int DeviceLock::set_exclusive(bool exclusive, std::string* message) {
  if (exclusive == exclusive_)
    return 0;
  for (size_t i = 0; i < locks_.size(); i++) {
    if (flock(locks_[i].fd, (exclusive ? LOCK_EX : LOCK_SH) | LOCK_NB) == 0)
      continue;
    int error = errno;
    if (error == EWOULDBLOCK) {
      *message = in_use_message(locks_[i].what, locks_[i].fd);
      error = EBUSY;
    }
    // Only a shared lock can fail to become exclusive, and Linux drops the
    // old lock before it tries the new one: take the shared locks back.
    // Should another program take the file exclusively in that instant
    // (it must have waited for the reader that made us fail), the volume
    // stays mounted read-only without its lock.
    for (size_t j = 0; j <= i; j++)
      flock(locks_[j].fd, LOCK_SH | LOCK_NB);
    return error;
  }
  exclusive_ = exclusive;
  return 0;
}

void DeviceLock::release() {
  for (const Lock& l : locks_)
    close(l.fd);
  locks_.clear();
}

}  // namespace exvol::detail
