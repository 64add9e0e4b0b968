#include "tests/model/lib_fs.h"

#include <cerrno>

namespace exvol::model {

namespace {

int err(std::error_code ec) {
  return ec.value();
}

}  // namespace

LibFs::LibFs(std::string image, MountOptions options)
    : image_(std::move(image)), options_(options) {
  options_.echo_kernel_log = false;
}

LibFs::~LibFs() {
  force_unmount();
}

int LibFs::open(int slot, const std::string& path, int oflags) {
  return err(volume_->open(path, oflags, &files_.at(static_cast<size_t>(slot))));
}

int LibFs::close(int slot) {
  return err(files_.at(static_cast<size_t>(slot)).close());
}

bool LibFs::slot_open(int slot) const {
  return files_.at(static_cast<size_t>(slot)).is_open();
}

int LibFs::read(int slot, int64_t offset, size_t length, std::vector<uint8_t>* out) {
  out->assign(length, 0);
  size_t done = 0;
  File& f = files_.at(static_cast<size_t>(slot));
  std::error_code ec =
      offset < 0 ? f.read(out->data(), length, &done) : f.pread(out->data(), length, offset, &done);
  out->resize(done);
  return err(ec);
}

int LibFs::write(int slot, int64_t offset, const std::vector<uint8_t>& data, size_t* done) {
  File& f = files_.at(static_cast<size_t>(slot));
  return err(offset < 0 ? f.write(data.data(), data.size(), done)
                        : f.pwrite(data.data(), data.size(), offset, done));
}

int LibFs::seek(int slot, int64_t offset, int whence, int64_t* position) {
  return err(files_.at(static_cast<size_t>(slot)).seek(offset, whence, position));
}

int LibFs::ftruncate(int slot, int64_t size) {
  return err(files_.at(static_cast<size_t>(slot)).truncate(size));
}

int LibFs::fsync(int slot, bool full) {
  File& f = files_.at(static_cast<size_t>(slot));
  return err(full ? f.full_fsync() : f.fsync());
}

int LibFs::fstat(int slot, Stat* out) {
  return err(files_.at(static_cast<size_t>(slot)).stat(out));
}

int LibFs::futimes(int slot, const TimeChange& times) {
  return err(files_.at(static_cast<size_t>(slot)).utimes(times));
}

int LibFs::fchflags(int slot, uint32_t flags) {
  return err(files_.at(static_cast<size_t>(slot)).chflags(flags));
}

int LibFs::stat(const std::string& path, bool follow, Stat* out) {
  return err(follow ? volume_->stat(path, out) : volume_->lstat(path, out));
}

int LibFs::truncate(const std::string& path, int64_t size) {
  return err(volume_->truncate(path, size));
}
int LibFs::unlink(const std::string& path) {
  return err(volume_->unlink(path));
}
int LibFs::mkdir(const std::string& path) {
  return err(volume_->mkdir(path));
}
int LibFs::rmdir(const std::string& path) {
  return err(volume_->rmdir(path));
}

int LibFs::rename(const std::string& from, const std::string& to, unsigned flags) {
  return err(volume_->rename(from, to, flags));
}

int LibFs::symlink(const std::string& target, const std::string& path) {
  return err(volume_->symlink(target, path));
}

int LibFs::readlink(const std::string& path, std::string* target) {
  return err(volume_->readlink(path, target));
}

int LibFs::utimes(const std::string& path, const TimeChange& times, bool follow) {
  return err(volume_->utimes(path, times, follow));
}

int LibFs::chflags(const std::string& path, uint32_t flags, bool follow) {
  return err(volume_->chflags(path, flags, follow));
}

int LibFs::list(const std::string& path, std::vector<Listed>* out) {
  std::vector<DirEntry> entries;
  int e = err(volume_->list(path, &entries));
  out->clear();
  for (const DirEntry& d : entries)
    out->push_back({d.name, d.type});
  return e;
}

int LibFs::label(std::string* out) {
  return err(volume_->label(out));
}
int LibFs::set_label(const std::string& label) {
  return err(volume_->set_label(label));
}
int LibFs::sync(bool wait) {
  return err(volume_->sync(wait));
}

int LibFs::space(uint64_t* free_clusters, uint32_t* cluster_bytes) {
  if (!volume_)
    return ENODEV;  // a remount that failed after an I/O error
  StatFs st;
  int e = err(volume_->statfs(&st));
  *free_clusters = st.blocks_free;
  *cluster_bytes = st.block_size;
  return e;
}

int LibFs::unmount() {
  for (File& f : files_)
    f = File();
  if (!volume_)
    return ENXIO;
  int e = err(volume_->unmount());
  if (e == 0)
    volume_.reset();
  return e;
}

void LibFs::force_unmount() {
  if (!volume_)
    return;
  volume_->unmount(true);
  for (File& f : files_)
    f = File();
  volume_.reset();
}

int LibFs::mount(bool read_only) {
  MountOptions o = options_;
  o.read_only = read_only;
  return err(Volume::mount(image_, o, &volume_, &diagnostic_));
}

}  // namespace exvol::model
