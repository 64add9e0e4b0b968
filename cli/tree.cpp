// The host's file tree and an image's, behind one interface.

#include "tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>

#include "text.h"

namespace exvol::cli {

namespace {

// --- The host --------------------------------------------------------------------

class FdReader : public Reader {
 public:
  explicit FdReader(int fd) : fd_(fd) {}
  ~FdReader() override { ::close(fd_); }
  std::error_code read(void* buffer, size_t length, size_t* done) override {
    ssize_t n;
    do {
      n = ::read(fd_, buffer, length);
    } while (n < 0 && errno == EINTR);
    if (n < 0)
      return errno_code(errno);
    *done = static_cast<size_t>(n);
    return {};
  }

 private:
  int fd_;
};

class FdWriter : public Writer {
 public:
  explicit FdWriter(int fd) : fd_(fd) {}
  ~FdWriter() override {
    if (fd_ >= 0)
      ::close(fd_);
  }
  std::error_code write(const void* buffer, size_t length) override {
    const char* p = static_cast<const char*>(buffer);
    while (length > 0) {
      ssize_t n = ::write(fd_, p, length);
      if (n < 0 && errno == EINTR)
        continue;
      if (n < 0)
        return errno_code(errno);
      p += n;
      length -= static_cast<size_t>(n);
    }
    return {};
  }
  std::error_code close() override {
    int fd = fd_;
    fd_ = -1;
    return ::close(fd) == 0 ? std::error_code() : errno_code(errno);
  }

 private:
  int fd_;
};

FileType host_type(mode_t mode) {
  if (S_ISREG(mode))
    return FileType::Regular;
  if (S_ISDIR(mode))
    return FileType::Directory;
  if (S_ISLNK(mode))
    return FileType::Symlink;
  return FileType::Unknown;
}

std::error_code result(int rc) {
  return rc == 0 ? std::error_code() : errno_code(errno);
}

class HostTree : public Tree {
 public:
  std::string display(const std::string& path) const override { return path; }
  std::string join(const std::string& dir, const std::string& name) const override {
    return !dir.empty() && dir.back() == '/' ? dir + name : dir + "/" + name;
  }
  std::string parent(const std::string& path) const override {
    std::string p = path;
    while (p.size() > 1 && p.back() == '/')
      p.pop_back();
    size_t slash = p.rfind('/');
    if (slash == std::string::npos)
      return ".";
    return slash == 0 ? "/" : p.substr(0, slash);
  }
  std::string adopt_name(const std::string& name) const override { return composed(name); }
  bool same_tree(const Tree& other) const override {
    return dynamic_cast<const HostTree*>(&other) != nullptr;
  }
  bool keeps_attributes() const override { return false; }

  std::error_code stat(const std::string& path, Attr* out, bool follow) override {
    struct statx sx;
    if (statx(AT_FDCWD, path.c_str(), follow ? 0 : AT_SYMLINK_NOFOLLOW,
              STATX_BASIC_STATS | STATX_BTIME, &sx) != 0)
      return errno_code(errno);
    *out = Attr{};
    out->type = host_type(sx.stx_mode);
    out->size = sx.stx_size;
    out->modified = {static_cast<time_t>(sx.stx_mtime.tv_sec), sx.stx_mtime.tv_nsec};
    out->accessed = {static_cast<time_t>(sx.stx_atime.tv_sec), sx.stx_atime.tv_nsec};
    if (sx.stx_mask & STATX_BTIME)
      out->birth = timespec{static_cast<time_t>(sx.stx_btime.tv_sec), sx.stx_btime.tv_nsec};
    if (out->type == FileType::Regular && !(sx.stx_mode & S_IWUSR))
      out->flags |= kFlagImmutable;
    out->dev = makedev(sx.stx_dev_major, sx.stx_dev_minor);
    out->ino = sx.stx_ino;
    return {};
  }

  std::error_code list(const std::string& path, std::vector<std::string>* names) override {
    DIR* dir = opendir(path.c_str());
    if (!dir)
      return errno_code(errno);
    names->clear();
    errno = 0;
    while (struct dirent* d = readdir(dir)) {
      std::string name = d->d_name;
      if (name != "." && name != "..")
        names->push_back(name);
    }
    int e = errno;
    closedir(dir);
    return e ? errno_code(e) : std::error_code();
  }

  std::error_code open_read(const std::string& path, std::unique_ptr<Reader>* out) override {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
      return errno_code(errno);
    *out = std::make_unique<FdReader>(fd);
    return {};
  }

  std::error_code create(const std::string& path, std::unique_ptr<Writer>* out) override {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0)
      return errno_code(errno);
    *out = std::make_unique<FdWriter>(fd);
    return {};
  }

  std::error_code mkdir(const std::string& path) override { return result(::mkdir(path.c_str(), 0777)); }
  std::error_code rmdir(const std::string& path) override { return result(::rmdir(path.c_str())); }
  std::error_code unlink(const std::string& path) override { return result(::unlink(path.c_str())); }
  std::error_code symlink(const std::string& target, const std::string& path) override {
    return result(::symlink(target.c_str(), path.c_str()));
  }

  std::error_code readlink(const std::string& path, std::string* target) override {
    std::string buffer(4096, '\0');
    ssize_t n = ::readlink(path.c_str(), buffer.data(), buffer.size());
    if (n < 0)
      return errno_code(errno);
    target->assign(buffer.data(), static_cast<size_t>(n));
    return {};
  }

  std::error_code set_times(const std::string& path, const Attr& times) override {
    const struct timespec ts[2] = {times.accessed, times.modified};
    return result(utimensat(AT_FDCWD, path.c_str(), ts, AT_SYMLINK_NOFOLLOW));
  }

  // The host has only "read-only": the write permissions of a regular file.
  std::error_code set_flags(const std::string& path, uint32_t flags) override {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0)
      return errno_code(errno);
    if (!S_ISREG(st.st_mode) || !(flags & kFlagImmutable))
      return {};
    return result(chmod(path.c_str(), st.st_mode & 07555));
  }
};

// --- An image -------------------------------------------------------------------

class FileReader : public Reader {
 public:
  explicit FileReader(File file) : file_(std::move(file)) {}
  std::error_code read(void* buffer, size_t length, size_t* done) override {
    return file_.read(buffer, length, done);
  }

 private:
  File file_;
};

class FileWriter : public Writer {
 public:
  explicit FileWriter(File file) : file_(std::move(file)) {}
  std::error_code write(const void* buffer, size_t length) override {
    const char* p = static_cast<const char*>(buffer);
    while (length > 0) {
      size_t done = 0;
      if (std::error_code ec = file_.write(p, length, &done))
        return ec;
      if (done == 0)
        return errno_code(ENOSPC);
      p += done;
      length -= done;
    }
    return {};
  }
  std::error_code close() override { return file_.close(); }

 private:
  File file_;
};

class ImageTree : public Tree {
 public:
  ImageTree(Volume* volume, std::string image) : volume_(volume), image_(std::move(image)) {}

  std::string display(const std::string& path) const override { return image_ + ":" + path; }
  std::string join(const std::string& dir, const std::string& name) const override {
    return dir == "/" ? "/" + name : dir + "/" + name;
  }
  std::string parent(const std::string& path) const override {
    size_t slash = path.rfind('/');
    return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
  }
  std::string adopt_name(const std::string& name) const override { return name; }
  bool same_tree(const Tree& other) const override {
    const auto* image = dynamic_cast<const ImageTree*>(&other);
    return image && image->volume_ == volume_;
  }
  bool keeps_attributes() const override { return true; }

  std::error_code stat(const std::string& path, Attr* out, bool follow) override {
    Stat st;
    std::error_code ec = follow ? volume_->stat(path, &st) : volume_->lstat(path, &st);
    if (ec)
      return ec;
    *out = Attr{};
    out->type = st.type;
    out->size = st.size;
    out->modified = st.modified;
    out->accessed = st.accessed;
    out->birth = st.birth;
    out->flags = st.flags;
    out->ino = st.file_id > 1 ? st.file_id : 0;
    return {};
  }

  std::error_code list(const std::string& path, std::vector<std::string>* names) override {
    std::vector<DirEntry> entries;
    if (std::error_code ec = volume_->list(path, &entries))
      return ec;
    names->clear();
    for (const DirEntry& e : entries)
      names->push_back(e.name);
    return {};
  }

  std::error_code open_read(const std::string& path, std::unique_ptr<Reader>* out) override {
    File file;
    if (std::error_code ec = volume_->open(path, O_RDONLY, &file))
      return ec;
    *out = std::make_unique<FileReader>(std::move(file));
    return {};
  }

  std::error_code create(const std::string& path, std::unique_ptr<Writer>* out) override {
    File file;
    if (std::error_code ec = volume_->open(path, O_WRONLY | O_CREAT | O_TRUNC, &file))
      return ec;
    *out = std::make_unique<FileWriter>(std::move(file));
    return {};
  }

  std::error_code mkdir(const std::string& path) override { return volume_->mkdir(path); }
  std::error_code rmdir(const std::string& path) override { return volume_->rmdir(path); }
  std::error_code unlink(const std::string& path) override { return volume_->unlink(path); }
  std::error_code symlink(const std::string& target, const std::string& path) override {
    return volume_->symlink(target, path);
  }
  std::error_code readlink(const std::string& path, std::string* target) override {
    return volume_->readlink(path, target);
  }

  std::error_code set_times(const std::string& path, const Attr& times) override {
    TimeChange change;
    change.accessed = times.accessed;
    change.modified = times.modified;
    change.birth = times.birth;
    return volume_->utimes(path, change, false);
  }

  std::error_code set_flags(const std::string& path, uint32_t flags) override {
    return volume_->chflags(path, flags & (kFlagImmutable | kFlagHidden | kFlagArchived), false);
  }

 private:
  Volume* volume_;
  std::string image_;
};

}  // namespace

std::unique_ptr<Tree> host_tree() {
  return std::make_unique<HostTree>();
}

std::unique_ptr<Tree> image_tree(Volume* volume, const std::string& image) {
  return std::make_unique<ImageTree>(volume, image);
}

}  // namespace exvol::cli
