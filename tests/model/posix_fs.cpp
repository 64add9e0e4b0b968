#include "tests/model/posix_fs.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>

#include "tests/fuse/mount_fixture.h"

namespace exvol::model {

namespace {

int result(long r) {
  return r < 0 ? errno : 0;
}

FileType type_of(mode_t mode) {
  if (S_ISREG(mode))
    return FileType::Regular;
  if (S_ISDIR(mode))
    return FileType::Directory;
  if (S_ISLNK(mode))
    return FileType::Symlink;
  return FileType::Unknown;
}

void convert(const struct stat& s, Stat* out) {
  *out = Stat{};
  out->type = type_of(s.st_mode);
  out->mode = s.st_mode;
  out->nlink = static_cast<uint32_t>(s.st_nlink);
  out->size = static_cast<uint64_t>(s.st_size);
  out->allocated = static_cast<uint64_t>(s.st_blocks) * 512;
  out->modified = s.st_mtim;
  out->accessed = s.st_atim;
  out->changed = s.st_ctim;
}

// utimensat's pair: access, modification; UTIME_OMIT for those left alone.
void time_pair(const TimeChange& t, struct timespec out[2]) {
  out[0] = t.accessed.value_or(timespec{0, UTIME_OMIT});
  out[1] = t.modified.value_or(timespec{0, UTIME_OMIT});
}

// The ReadOnly attribute is the one flag a mount keeps: it shows as the
// absence of write bits, and chmod sets or clears it.
mode_t mode_for(uint32_t flags) {
  return (flags & kFlagImmutable) ? 0555 : 0755;
}

}  // namespace

FuseMount::FuseMount(std::string image, std::string dir, std::string options)
    : image_(std::move(image)), dir_(std::move(dir)), options_(std::move(options)) {}

FuseMount::~FuseMount() = default;

std::string FuseMount::mount(bool read_only) {
  std::string options = options_;
  if (read_only)
    options += options.empty() ? "ro" : ",ro";
  pid_ = -1;
  volume_ = std::make_unique<test::MountedVolume>(image_, dir_, options);
  pid_ = volume_->ok() ? volume_->pid() : -1;
  return volume_->ok() ? "" : "mount.exvol did not mount: " + volume_->log();
}

int FuseMount::unmount() {
  pid_ = -1;
  int status = volume_ ? volume_->unmount() : -1;
  volume_.reset();
  return status;
}

bool FuseMount::mounted() const {
  return volume_ && volume_->ok() && volume_->pid() > 0;
}
pid_t FuseMount::pid() const {
  return pid_.load();
}
std::string FuseMount::log() const {
  return volume_ ? volume_->log() : "";
}

PosixFs::PosixFs(FuseMount& mount, std::string base) : mount_(mount), base_(std::move(base)) {
  fds_.fill(-1);
}

PosixFs::~PosixFs() {
  close_all();
}

std::string PosixFs::full(const std::string& path) const {
  return mount_.dir() + base_ + (path.empty() || path[0] == '/' ? "" : "/") + path;
}

void PosixFs::close_all() {
  for (int& fd : fds_) {
    if (fd >= 0)
      ::close(fd);
    fd = -1;
  }
}

int PosixFs::open(int slot, const std::string& path, int oflags) {
  int& fd = fds_.at(static_cast<size_t>(slot));
  if (fd >= 0)
    ::close(fd);
  fd = ::open(full(path).c_str(), oflags | O_CLOEXEC, 0644);
  return fd < 0 ? errno : 0;
}

int PosixFs::close(int slot) {
  int& fd = fds_.at(static_cast<size_t>(slot));
  int r = ::close(fd);
  fd = -1;
  return result(r);
}

int PosixFs::read(int slot, int64_t offset, size_t length, std::vector<uint8_t>* out) {
  out->assign(length, 0);
  int fd = fds_.at(static_cast<size_t>(slot));
  size_t done = 0;
  // The kernel hands a large read to the daemon in pieces: gather them.
  while (done < length) {
    ssize_t n = offset < 0 ? ::read(fd, out->data() + done, length - done)
                           : ::pread(fd, out->data() + done, length - done,
                                     static_cast<off_t>(offset + static_cast<int64_t>(done)));
    if (n < 0) {
      out->resize(done);
      return done > 0 ? 0 : errno;
    }
    if (n == 0)
      break;
    done += static_cast<size_t>(n);
  }
  out->resize(done);
  return 0;
}

int PosixFs::write(int slot, int64_t offset, const std::vector<uint8_t>& data, size_t* done) {
  int fd = fds_.at(static_cast<size_t>(slot));
  *done = 0;
  while (*done < data.size()) {
    ssize_t n = offset < 0 ? ::write(fd, data.data() + *done, data.size() - *done)
                           : ::pwrite(fd, data.data() + *done, data.size() - *done,
                                      static_cast<off_t>(offset + static_cast<int64_t>(*done)));
    if (n < 0)
      return *done > 0 ? 0 : errno;
    if (n == 0)
      break;
    *done += static_cast<size_t>(n);
  }
  return 0;
}

int PosixFs::seek(int slot, int64_t offset, int whence, int64_t* position) {
  off_t r = ::lseek(fds_.at(static_cast<size_t>(slot)), static_cast<off_t>(offset), whence);
  *position = r;
  return result(r);
}

int PosixFs::ftruncate(int slot, int64_t size) {
  return result(::ftruncate(fds_.at(static_cast<size_t>(slot)), static_cast<off_t>(size)));
}

int PosixFs::fsync(int slot, bool) {
  return result(::fsync(fds_.at(static_cast<size_t>(slot))));
}

int PosixFs::fstat(int slot, Stat* out) {
  struct stat s {};
  int r = result(::fstat(fds_.at(static_cast<size_t>(slot)), &s));
  convert(s, out);
  return r;
}

int PosixFs::futimes(int slot, const TimeChange& times) {
  struct timespec t[2];
  time_pair(times, t);
  return result(::futimens(fds_.at(static_cast<size_t>(slot)), t));
}

int PosixFs::fchflags(int slot, uint32_t flags) {
  return result(::fchmod(fds_.at(static_cast<size_t>(slot)), mode_for(flags)));
}

int PosixFs::stat(const std::string& path, bool follow, Stat* out) {
  struct stat s {};
  int r = result(follow ? ::stat(full(path).c_str(), &s) : ::lstat(full(path).c_str(), &s));
  convert(s, out);
  return r;
}

int PosixFs::truncate(const std::string& path, int64_t size) {
  return result(::truncate(full(path).c_str(), static_cast<off_t>(size)));
}
int PosixFs::unlink(const std::string& path) {
  return result(::unlink(full(path).c_str()));
}
int PosixFs::mkdir(const std::string& path) {
  return result(::mkdir(full(path).c_str(), 0755));
}
int PosixFs::rmdir(const std::string& path) {
  return result(::rmdir(full(path).c_str()));
}

int PosixFs::rename(const std::string& from, const std::string& to, unsigned flags) {
  return result(::renameat2(AT_FDCWD, full(from).c_str(), AT_FDCWD, full(to).c_str(),
                            (flags & kRenameNoReplace) ? RENAME_NOREPLACE : flags));
}

int PosixFs::symlink(const std::string& target, const std::string& path) {
  return result(::symlink(target.c_str(), full(path).c_str()));
}

int PosixFs::readlink(const std::string& path, std::string* target) {
  char buf[4096];
  ssize_t n = ::readlink(full(path).c_str(), buf, sizeof(buf));
  if (n >= 0)
    target->assign(buf, static_cast<size_t>(n));
  return result(n);
}

int PosixFs::utimes(const std::string& path, const TimeChange& times, bool follow) {
  struct timespec t[2];
  time_pair(times, t);
  return result(::utimensat(AT_FDCWD, full(path).c_str(), t, follow ? 0 : AT_SYMLINK_NOFOLLOW));
}

int PosixFs::chflags(const std::string& path, uint32_t flags, bool) {
  return result(::chmod(full(path).c_str(), mode_for(flags)));
}

int PosixFs::list(const std::string& path, std::vector<Listed>* out) {
  out->clear();
  DIR* d = ::opendir(full(path).c_str());
  if (d == nullptr)
    return errno;
  errno = 0;
  while (struct dirent* e = ::readdir(d)) {
    std::string name = e->d_name;
    if (name == "." || name == "..")
      continue;
    FileType type = e->d_type == DT_DIR   ? FileType::Directory
                    : e->d_type == DT_LNK ? FileType::Symlink
                    : e->d_type == DT_REG ? FileType::Regular
                                          : FileType::Unknown;
    out->push_back({name, type});
  }
  int err = errno;
  ::closedir(d);
  return err;
}

int PosixFs::label(std::string*) {
  return ENOTSUP;
}
int PosixFs::set_label(const std::string&) {
  return ENOTSUP;
}

int PosixFs::sync(bool) {
  int fd = ::open(mount_.dir().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0)
    return errno;
  int r = result(::syncfs(fd));
  ::close(fd);
  return r;
}

int PosixFs::space(uint64_t* free_clusters, uint32_t* cluster_bytes) {
  struct statvfs v {};
  int r = result(::statvfs(mount_.dir().c_str(), &v));
  *free_clusters = v.f_bfree;
  *cluster_bytes = static_cast<uint32_t>(v.f_bsize);
  return r;
}

int PosixFs::unmount() {
  close_all();
  int status = mount_.unmount();
  return status == 0 ? 0 : EIO;
}

int PosixFs::mount(bool read_only) {
  return mount_.mount(read_only).empty() ? 0 : EIO;
}

void PosixFs::force_unmount() {
  close_all();
  mount_.unmount();
}

}  // namespace exvol::model
