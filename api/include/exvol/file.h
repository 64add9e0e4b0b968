#pragma once
// libexvol: open files and mapped file ranges.
//
// A File is an open file or directory of a mounted Volume, like a file
// descriptor: it holds the file open (so that a file removed while open
// keeps its data until the last File on it is closed) and carries a file
// offset for read and write. Files come from Volume::open and
// Volume::create; a default-constructed File is closed. Files are movable,
// not copyable, and close themselves when destroyed.
//
// One File may be used by many threads at once: pread and pwrite run in
// parallel; read and write, which use and advance the file offset, are
// serialised per File. A File whose volume was unmounted (forcibly) or
// downgraded to read-only while it was open for writing has been revoked:
// its calls fail with ENXIO or EBADF, never crash.
//
// A Mapping is a range of a file accessed through the page cache the way a
// process's memory mapping is: every access faults pages in through the
// file system's page-in operation and stores mark them dirty, to be written
// by the page-out operation at sync, when the page cache needs room, or
// when the file is closed.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <system_error>

#include "exvol/types.h"

namespace exvol {

namespace detail {
struct OpenFile;
struct MapState;
}  // namespace detail

class File {
 public:
  File();
  ~File();  // closes, ignoring errors
  File(File&& other) noexcept;
  File& operator=(File&& other) noexcept;  // closes what it held
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  bool is_open() const;
  // The O_* flags the file was opened with.
  int flags() const;

  // Closes: the file's pending changes (size, times) are written to its
  // directory entry. EBADF when not open; ENXIO when the volume was
  // unmounted meanwhile (the File is closed all the same).
  std::error_code close();

  // Reads or writes at the file offset and advances it by *done bytes.
  // A read stops at the end of the file (*done 0 there). A write may be
  // short when the volume fills: *done tells what was written, and the
  // next write fails with ENOSPC. O_APPEND writes go to the end of file.
  // EBADF: not open for reading / writing; EISDIR: reading a directory.
  std::error_code read(void* buffer, size_t length, size_t* done);
  std::error_code write(const void* buffer, size_t length, size_t* done);
  // The same at an explicit offset, leaving the file offset alone
  // (EINVAL for a negative offset; EFBIG past the largest file).
  std::error_code pread(void* buffer, size_t length, int64_t offset, size_t* done);
  std::error_code pwrite(const void* buffer, size_t length, int64_t offset, size_t* done);
  // lseek: whence is SEEK_SET, SEEK_CUR or SEEK_END. EINVAL for a negative
  // result or another whence.
  std::error_code seek(int64_t offset, int whence, int64_t* position = nullptr);

  // Sets the file's size: zeros appear when it grows. The file must be open
  // for writing (EINVAL otherwise); a negative size is EINVAL.
  std::error_code truncate(int64_t size);
  // Writes the file's data and directory entry.
  std::error_code fsync();
  // fsync, and then the device is asked to flush its own write cache.
  std::error_code full_fsync();

  std::error_code stat(Stat* out) const;
  std::error_code utimes(const TimeChange& times);
  std::error_code chflags(uint32_t flags);
  // Lists an open directory from `cookie` on (see Volume::readdir).
  std::error_code readdir(uint64_t cookie, const DirCallback& callback,
                          uint64_t* next_cookie = nullptr, bool* end = nullptr) const;

 private:
  friend class Volume;
  friend class Mapping;
  explicit File(std::shared_ptr<detail::OpenFile> state);
  std::shared_ptr<detail::OpenFile> state_;
};

class Mapping {
 public:
  Mapping();
  ~Mapping();  // unmaps, ignoring errors
  Mapping(Mapping&& other) noexcept;
  Mapping& operator=(Mapping&& other) noexcept;
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;

  // Maps `length` bytes of the open file from `offset`, a multiple of 4096.
  // A writable mapping needs the file open for writing (EACCES otherwise).
  // The mapping stays valid after the File is closed. EINVAL: bad offset,
  // length 0, or not a regular file.
  static std::error_code map(const File& file, int64_t offset, size_t length, bool writable,
                             Mapping* out);

  bool is_mapped() const;
  size_t length() const;

  // Loads or stores bytes at `offset` within the mapping. Pages wholly past
  // the end of the file can't be touched (EFAULT, where a process would get
  // SIGBUS); stores into the last page beyond the end of file are not kept.
  // EFAULT also for a range outside the mapping; EACCES for a store through
  // a read-only mapping.
  std::error_code read(size_t offset, void* buffer, size_t length) const;
  std::error_code write(size_t offset, const void* buffer, size_t length);
  // msync: writes the mapping's dirty pages, waiting for them with `wait`.
  std::error_code sync(bool wait = true);
  // munmap: the file system is told that the last mapping went away, which
  // pushes the dirty pages out.
  std::error_code unmap();

 private:
  std::shared_ptr<detail::MapState> state_;
};

}  // namespace exvol
