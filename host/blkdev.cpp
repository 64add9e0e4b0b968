#include "host/blkdev.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstring>
#include <mutex>

#include "host/blkdev_private.h"
#include "host/buf.h"
#include "host/buf_private.h"
#include "host/kern.h"
#include "host/vfs.h"
#include "host/vnode.h"
#include "host/vnode_slots_private.h"

// A device vnode (VBLK) carries a spec_dev in its device slot. The spec_dev
// owns a backend that moves bytes: a file or block device reached with
// preadv/pwritev, or memory. Block numbers on the device count in the
// current logical block size, which DKIOCSETBLOCKSIZE may change; the
// backend only ever sees byte offsets.

namespace {

// --- Backends ------------------------------------------------------------------

class Backend {
 public:
  virtual ~Backend() = default;
  virtual uint64_t size() const = 0;
  // One transfer of the bytes described by iov at `offset`; the range was
  // checked against size(). Returns 0 or an errno value.
  virtual int read(uint64_t offset, const struct iovec* iov, int iovcnt) = 0;
  virtual int write(uint64_t offset, const struct iovec* iov, int iovcnt) = 0;
  // Makes every completed write durable.
  virtual int flush() = 0;
  // Forgets the bytes of a range in use no longer (see DKIOCUNMAP).
  virtual int discard(uint64_t offset, uint64_t length) = 0;
};

size_t iov_bytes(const struct iovec* iov, int iovcnt) {
  size_t n = 0;
  for (int i = 0; i < iovcnt; i++) n += iov[i].iov_len;
  return n;
}

// A file or block device. One request is one preadv/pwritev (more only when
// the kernel transfers less than asked, or for more than IOV_MAX vectors).
class FileBackend final : public Backend {
 public:
  FileBackend(int fd, uint64_t size, bool block_device)
      : fd_(fd), size_(size), block_device_(block_device) {}
  ~FileBackend() override { close(fd_); }
  uint64_t size() const override { return size_; }
  int read(uint64_t offset, const struct iovec* iov, int iovcnt) override {
    return transfer(false, offset, iov, iovcnt);
  }
  int write(uint64_t offset, const struct iovec* iov, int iovcnt) override {
    return transfer(true, offset, iov, iovcnt);
  }
  int flush() override { return fdatasync(fd_) == 0 ? 0 : errno; }
  int discard(uint64_t offset, uint64_t length) override;

 private:
  int transfer(bool write, uint64_t offset, const struct iovec* iov, int iovcnt);

  int fd_;
  uint64_t size_;
  bool block_device_;
};

// An image file gets a hole, so that it stays sparse; its size stays. A
// file system that can't punch holes, or a disk without discard, says
// EOPNOTSUPP, which is ENOTSUP here.
int FileBackend::discard(uint64_t offset, uint64_t length) {
  int r;
  if (block_device_) {
    uint64_t range[2] = {offset, length};
    r = ioctl(fd_, BLKDISCARD, range);
  } else {
    r = fallocate(fd_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(offset),
                  static_cast<off_t>(length));
  }
  if (r == 0) return 0;
  return errno == EOPNOTSUPP ? ENOTSUP : errno;
}

// Loops only for short transfers; a transfer that makes no progress (end
// of a file that shrank under us) is EIO, as on a disk. Other failures
// return the system's errno (ENOSPC from a full file system under an
// image, EPERM from a write-protected block device …).
int FileBackend::transfer(bool write, uint64_t offset, const struct iovec* iov_in,
                          int iovcnt) {
  struct iovec local[IOV_MAX];
  int n = 0;
  size_t first_skip = 0;  // bytes of iov_in[0] already done
  while (iovcnt > 0) {
    n = std::min(iovcnt, IOV_MAX);
    std::copy(iov_in, iov_in + n, local);
    local[0].iov_base = static_cast<char*>(local[0].iov_base) + first_skip;
    local[0].iov_len -= first_skip;
    ssize_t done = write ? pwritev(fd_, local, n, static_cast<off_t>(offset))
                         : preadv(fd_, local, n, static_cast<off_t>(offset));
    if (done < 0 && errno == EINTR) continue;
    if (done < 0) return errno;
    if (done == 0) return EIO;
    offset += static_cast<uint64_t>(done);
    // Step over the vectors the call finished.
    size_t left = static_cast<size_t>(done);
    while (iovcnt > 0 && left >= iov_in[0].iov_len - first_skip) {
      left -= iov_in[0].iov_len - first_skip;
      first_skip = 0;
      iov_in++;
      iovcnt--;
    }
    first_skip += left;
  }
  return 0;
}

// Memory, with injected faults and volatile writes (see host_memdev_faults).
// The contents are an anonymous mapping, so an untouched device costs no
// memory. Protected by md_lock: transfers copy under it, which serialises
// them, and keeps faults, counters and the undo log consistent.
class MemBackend final : public Backend {
 public:
  explicit MemBackend(uint64_t size);
  ~MemBackend() override;
  bool ok() const { return data_ != nullptr; }
  uint64_t size() const override { return size_; }
  int read(uint64_t offset, const struct iovec* iov, int iovcnt) override;
  int write(uint64_t offset, const struct iovec* iov, int iovcnt) override;
  int flush() override;
  int discard(uint64_t offset, uint64_t length) override;

  void load(const void* src, size_t len, uint64_t offset);
  void save(void* dst, size_t len, uint64_t offset);
  void set_faults(const host_memdev_faults& faults);
  void power_cut();

 private:
  static bool hits(const std::vector<uint64_t>& bytes, uint64_t offset, size_t len);

  struct Undo {
    uint64_t offset;
    std::vector<uint8_t> old;
  };

  std::mutex md_lock;
  uint8_t* data_;
  uint64_t size_;
  host_memdev_faults faults_;        // protected by md_lock
  int64_t writes_since_faults_ = 0;  // protected by md_lock
  std::vector<Undo> undo_;           // writes not yet flushed; protected by md_lock
};

MemBackend::MemBackend(uint64_t size) : size_(size) {
  void* p = mmap(nullptr, size ? size : 1, PROT_READ | PROT_WRITE,
                 MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  data_ = p == MAP_FAILED ? nullptr : static_cast<uint8_t*>(p);
}

MemBackend::~MemBackend() {
  if (data_ != nullptr) munmap(data_, size_ ? size_ : 1);
}

bool MemBackend::hits(const std::vector<uint64_t>& bytes, uint64_t offset, size_t len) {
  return std::any_of(bytes.begin(), bytes.end(),
                     [&](uint64_t b) { return b >= offset && b - offset < len; });
}

int MemBackend::read(uint64_t offset, const struct iovec* iov, int iovcnt) {
  std::lock_guard<std::mutex> guard(md_lock);
  if (hits(faults_.fail_read_bytes, offset, iov_bytes(iov, iovcnt))) return EIO;
  for (int i = 0; i < iovcnt; i++) {
    memcpy(iov[i].iov_base, data_ + offset, iov[i].iov_len);
    offset += iov[i].iov_len;
  }
  return 0;
}

int MemBackend::write(uint64_t offset, const struct iovec* iov, int iovcnt) {
  std::lock_guard<std::mutex> guard(md_lock);
  size_t len = iov_bytes(iov, iovcnt);
  if (hits(faults_.fail_write_bytes, offset, len)) return EIO;
  if (faults_.fail_writes_after >= 0 && writes_since_faults_ >= faults_.fail_writes_after)
    return EIO;
  writes_since_faults_++;
  if (faults_.power_cut_mode)
    undo_.push_back(Undo{offset, std::vector<uint8_t>(data_ + offset, data_ + offset + len)});
  for (int i = 0; i < iovcnt; i++) {
    memcpy(data_ + offset, iov[i].iov_base, iov[i].iov_len);
    offset += iov[i].iov_len;
  }
  return 0;
}

int MemBackend::flush() {
  std::lock_guard<std::mutex> guard(md_lock);
  undo_.clear();
  return 0;
}

// Zeroes, as a thinly provisioned disk reads a discarded range. Kept in the
// undo log like a write: a power cut before the next flush brings the old
// bytes back, as it may on a disk whose discard was still in its cache.
int MemBackend::discard(uint64_t offset, uint64_t length) {
  std::lock_guard<std::mutex> guard(md_lock);
  if (faults_.power_cut_mode)
    undo_.push_back(Undo{offset, std::vector<uint8_t>(data_ + offset, data_ + offset + length)});
  memset(data_ + offset, 0, length);
  return 0;
}

void MemBackend::load(const void* src, size_t len, uint64_t offset) {
  std::lock_guard<std::mutex> guard(md_lock);
  memcpy(data_ + offset, src, len);
}

void MemBackend::save(void* dst, size_t len, uint64_t offset) {
  std::lock_guard<std::mutex> guard(md_lock);
  memcpy(dst, data_ + offset, len);
}

// Leaving power-cut mode makes the pending writes durable: nothing is left
// that a later cut could drop.
void MemBackend::set_faults(const host_memdev_faults& faults) {
  std::lock_guard<std::mutex> guard(md_lock);
  faults_ = faults;
  writes_since_faults_ = 0;
  if (!faults_.power_cut_mode) undo_.clear();
}

// Undoes the unflushed writes newest first, so that overlapping writes
// restore the bytes that were durable.
void MemBackend::power_cut() {
  std::lock_guard<std::mutex> guard(md_lock);
  for (auto it = undo_.rbegin(); it != undo_.rend(); ++it)
    memcpy(data_ + it->offset, it->old.data(), it->old.size());
  undo_.clear();
}

// --- The device ---------------------------------------------------------------

// Per-device state, in the vnode's device slot from creation to reclaim. The
// block sizes and counters are atomics: they are read on every transfer,
// from any thread, without a lock.
struct spec_dev {
  std::unique_ptr<Backend> sd_backend;
  MemBackend* sd_mem = nullptr;  // the same backend, when it is memory
  std::atomic<uint32_t> sd_bsize;
  uint32_t sd_phys_bsize;
  bool sd_rdonly = false;
  std::atomic<int> sd_refuse_setbsize{0};
  std::atomic<int> sd_write_error{0};  // the first failed write's or flush's error
  std::atomic<uint64_t> sd_reads{0}, sd_writes{0}, sd_bytes_read{0}, sd_bytes_written{0},
      sd_flushes{0}, sd_discards{0}, sd_bytes_discarded{0};
};

std::atomic<unsigned> g_next_minor{0};
constexpr unsigned kSpecMajor = 240;  // a major from the range Linux leaves for local use

spec_dev* spec_of(vnode_t vp) {
  auto* sd = static_cast<spec_dev*>(*host_vnode_spec_slot(vp));
  if (sd == nullptr) panic("blkdev: vnode %p is not an open device", static_cast<void*>(vp));
  return sd;
}

MemBackend* mem_of(vnode_t vp, const char* who) {
  MemBackend* mem = spec_of(vp)->sd_mem;
  if (mem == nullptr) panic("%s: vnode %p is not an in-memory device", who,
                            static_cast<void*>(vp));
  return mem;
}

// Keeps the first failure for host_blkdev_write_error. A block device that
// refuses writes says EPERM; the caller of the write learns EIO either way.
void note_write_error(spec_dev* sd, int error) {
  if (error == EPERM) error = EROFS;
  int none = 0;
  sd->sd_write_error.compare_exchange_strong(none, error);
}

int spec_flush_cache(spec_dev* sd) {
  sd->sd_flushes.fetch_add(1, std::memory_order_relaxed);
  int error = sd->sd_backend->flush();
  if (error == 0) return 0;
  note_write_error(sd, error);
  return EIO;
}

// --- Vnode operations of device vnodes -------------------------------------------

int spec_strategy(void* ap) {
  auto* a = static_cast<vnop_strategy_args*>(ap);
  return buf_strategy(buf_vnode(a->a_bp), ap);
}

// A new logical block size must be a power of two from 512 to 64 KiB. The
// device's idle buffers are written and dropped first: their block numbers
// count in the old size.
int spec_setblocksize(vnode_t vp, spec_dev* sd, uint32_t size) {
  int refuse = sd->sd_refuse_setbsize.load();
  if (refuse != 0) return refuse;
  if (size < 512 || size > 65536 || (size & (size - 1)) != 0) return EINVAL;
  if (size == sd->sd_bsize.load()) return 0;
  host_buf_drop_idle(vp);
  sd->sd_bsize.store(size);
  return 0;
}

// Checks every range first, so that a bad request discards nothing.
int spec_unmap(spec_dev* sd, const dk_unmap_t* unmap) {
  if (sd->sd_rdonly) return EROFS;
  uint64_t bsize = sd->sd_bsize.load(), size = sd->sd_backend->size();
  for (uint32_t i = 0; i < unmap->extentsCount; i++) {
    const dk_extent_t& e = unmap->extents[i];
    if (e.offset % bsize != 0 || e.length % bsize != 0 || e.offset > size ||
        e.length > size - e.offset)
      return EINVAL;
  }
  for (uint32_t i = 0; i < unmap->extentsCount; i++) {
    const dk_extent_t& e = unmap->extents[i];
    if (e.length == 0) continue;
    if (int error = sd->sd_backend->discard(e.offset, e.length)) return error;
    sd->sd_discards.fetch_add(1, std::memory_order_relaxed);
    sd->sd_bytes_discarded.fetch_add(e.length, std::memory_order_relaxed);
  }
  return 0;
}

int spec_ioctl(void* ap) {
  auto* a = static_cast<vnop_ioctl_args*>(ap);
  spec_dev* sd = spec_of(a->a_vp);
  switch (static_cast<uint32_t>(a->a_command)) {
    case DKIOCGETBLOCKSIZE:
      *reinterpret_cast<uint32_t*>(a->a_data) = sd->sd_bsize.load();
      return 0;
    case DKIOCGETPHYSICALBLOCKSIZE:
      *reinterpret_cast<uint32_t*>(a->a_data) = sd->sd_phys_bsize;
      return 0;
    case DKIOCGETBLOCKCOUNT:
      *reinterpret_cast<uint64_t*>(a->a_data) = sd->sd_backend->size() / sd->sd_bsize.load();
      return 0;
    case DKIOCSETBLOCKSIZE:
      return spec_setblocksize(a->a_vp, sd, *reinterpret_cast<uint32_t*>(a->a_data));
    case DKIOCSYNCHRONIZECACHE:
      return spec_flush_cache(sd);
    case DKIOCUNMAP:
      return spec_unmap(sd, reinterpret_cast<const dk_unmap_t*>(a->a_data));
    default:
      return ENOTTY;
  }
}

// Writes the device's delayed writes; with MNT_WAIT also flushes the
// device's write cache, so that what was written survives a power loss.
// Returns the first write error (see buf_flushdirtyblks), else the cache
// flush's.
int spec_fsync(void* ap) {
  auto* a = static_cast<vnop_fsync_args*>(ap);
  bool wait = a->a_waitfor == MNT_WAIT;
  int error = buf_flushdirtyblks(a->a_vp, wait, 0, "spec_fsync");
  int flushed = wait ? spec_flush_cache(spec_of(a->a_vp)) : 0;
  return error != 0 ? error : flushed;
}

int spec_blktooff(void* ap) {
  auto* a = static_cast<vnop_blktooff_args*>(ap);
  *a->a_offset = static_cast<off_t>(a->a_lblkno) * spec_of(a->a_vp)->sd_bsize.load();
  return 0;
}

int spec_offtoblk(void* ap) {
  auto* a = static_cast<vnop_offtoblk_args*>(ap);
  *a->a_lblkno = a->a_offset / spec_of(a->a_vp)->sd_bsize.load();
  return 0;
}

// Open, close, inactive and reclaim have nothing to do here: the device's
// state lives until host_blkdev_vnode_reclaim.
int spec_nop(void* ap) { return 0; }

VOPFUNC* spec_vnodeop_p() {
  static VOPFUNC* vector = [] {
    int n = vnop_desc_count();
    auto* v = new VOPFUNC[static_cast<size_t>(n)];
    std::fill(v, v + n, &vn_default_error);
    v[vnop_strategy_desc.vdesc_offset] = &spec_strategy;
    v[vnop_ioctl_desc.vdesc_offset] = &spec_ioctl;
    v[vnop_fsync_desc.vdesc_offset] = &spec_fsync;
    v[vnop_blktooff_desc.vdesc_offset] = &spec_blktooff;
    v[vnop_offtoblk_desc.vdesc_offset] = &spec_offtoblk;
    v[vnop_bwrite_desc.vdesc_offset] = &vn_bwrite;
    v[vnop_open_desc.vdesc_offset] = &spec_nop;
    v[vnop_close_desc.vdesc_offset] = &spec_nop;
    v[vnop_inactive_desc.vdesc_offset] = &spec_nop;
    v[vnop_reclaim_desc.vdesc_offset] = &spec_nop;
    return v;
  }();
  return vector;
}

// Makes the device vnode around sd; on success the vnode owns sd.
int spec_vnode_create(std::unique_ptr<spec_dev> sd, vnode_t* devvpp) {
  vnode_fsparam param{};
  param.vnfs_mp = nullptr;
  param.vnfs_vtype = VBLK;
  param.vnfs_str = "blkdev";
  param.vnfs_fsnode = nullptr;  // the state lives in the device slot
  param.vnfs_vops = spec_vnodeop_p();
  param.vnfs_rdev = makedev(kSpecMajor, g_next_minor.fetch_add(1));
  param.vnfs_flags = VNFS_NOCACHE | VNFS_CANTCACHE;
  vnode_t vp = NULLVP;
  int error = vnode_create(VNCREATE_FLAVOR, VCREATESIZE, &param, &vp);
  if (error != 0) return error;
  *host_vnode_spec_slot(vp) = sd.release();
  *devvpp = vp;
  return 0;
}

}  // namespace

// --- Transfers for the buffer cache ---------------------------------------------------

uint32_t host_blkdev_bsize(vnode_t devvp) { return spec_of(devvp)->sd_bsize.load(); }

int host_blkdev_transfer(vnode_t devvp, bool write, uint64_t offset, const struct iovec* iov,
                         int iovcnt) {
  spec_dev* sd = spec_of(devvp);
  uint64_t len = iov_bytes(iov, iovcnt);
  uint64_t size = sd->sd_backend->size();
  bool outside = offset > size || len > size - offset;
  if (!write) {
    sd->sd_reads.fetch_add(1, std::memory_order_relaxed);
    sd->sd_bytes_read.fetch_add(len, std::memory_order_relaxed);
    if (outside) return EIO;
    return sd->sd_backend->read(offset, iov, iovcnt) == 0 ? 0 : EIO;
  }
  sd->sd_writes.fetch_add(1, std::memory_order_relaxed);
  sd->sd_bytes_written.fetch_add(len, std::memory_order_relaxed);
  int error = sd->sd_rdonly ? EROFS : outside ? EIO : sd->sd_backend->write(offset, iov, iovcnt);
  if (error == 0) return 0;
  note_write_error(sd, error);
  return error == EROFS && sd->sd_rdonly ? EROFS : EIO;
}

int host_blkdev_write_error(vnode_t devvp) { return spec_of(devvp)->sd_write_error.load(); }

// --- Opening and closing ----------------------------------------------------------------

int host_blkdev_open(const char* path, int rdonly, vnode_t* devvpp) {
  int fd = open(path, (rdonly ? O_RDONLY : O_RDWR) | O_CLOEXEC);
  if (fd < 0) return errno;
  struct stat st;
  if (fstat(fd, &st) != 0) {
    int error = errno;
    close(fd);
    return error;
  }
  auto sd = std::make_unique<spec_dev>();
  uint64_t size = static_cast<uint64_t>(st.st_size);
  uint32_t bsize = 512, phys = 512;
  if (S_ISBLK(st.st_mode)) {
    int lsz = 0;
    unsigned int psz = 0;
    if (ioctl(fd, BLKGETSIZE64, &size) != 0 || ioctl(fd, BLKSSZGET, &lsz) != 0) {
      int error = errno;
      close(fd);
      return error;
    }
    bsize = static_cast<uint32_t>(lsz);
    phys = ioctl(fd, BLKPBSZGET, &psz) == 0 && psz != 0 ? psz : bsize;
    // Linux opens a write-protected block device for writing and then
    // fails every write; say so at once, as open(2) does for a file on a
    // read-only file system.
    int ro = 0;
    if (!rdonly && ioctl(fd, BLKROGET, &ro) == 0 && ro != 0) {
      close(fd);
      return EROFS;
    }
  } else if (!S_ISREG(st.st_mode)) {
    close(fd);
    return ENODEV;
  }
  sd->sd_backend = std::make_unique<FileBackend>(fd, size, S_ISBLK(st.st_mode));
  sd->sd_bsize.store(bsize);
  sd->sd_phys_bsize = phys;
  sd->sd_rdonly = rdonly != 0;
  return spec_vnode_create(std::move(sd), devvpp);
}

int host_memdev_create(uint64_t bytes, uint32_t logical_block, uint32_t physical_block,
                       vnode_t* devvpp) {
  if (logical_block < 512 || (logical_block & (logical_block - 1)) != 0 ||
      physical_block == 0 || (physical_block & (physical_block - 1)) != 0)
    return EINVAL;
  auto mem = std::make_unique<MemBackend>(bytes);
  if (!mem->ok()) return ENOMEM;
  auto sd = std::make_unique<spec_dev>();
  sd->sd_mem = mem.get();
  sd->sd_backend = std::move(mem);
  sd->sd_bsize.store(logical_block);
  sd->sd_phys_bsize = physical_block;
  return spec_vnode_create(std::move(sd), devvpp);
}

void host_blkdev_close(vnode_t devvp) {
  vnode_recycle(devvp);
  vnode_put(devvp);
}

// A device vnode made by someone else (with its own operations) keeps
// whatever it put in the device slot.
void host_blkdev_vnode_reclaim(vnode_t vp) {
  if (host_vnode_ops(vp) != spec_vnodeop_p()) return;
  void** slot = host_vnode_spec_slot(vp);
  delete static_cast<spec_dev*>(*slot);
  *slot = nullptr;
}

// --- In-memory device controls -----------------------------------------------------------

int host_memdev_load(vnode_t devvp, const void* data, size_t len, uint64_t offset) {
  MemBackend* mem = mem_of(devvp, "host_memdev_load");
  if (offset > mem->size() || len > mem->size() - offset) return EINVAL;
  mem->load(data, len, offset);
  return 0;
}

int host_memdev_read(vnode_t devvp, void* data, size_t len, uint64_t offset) {
  MemBackend* mem = mem_of(devvp, "host_memdev_read");
  if (offset > mem->size() || len > mem->size() - offset) return EINVAL;
  mem->save(data, len, offset);
  return 0;
}

void host_memdev_set_faults(vnode_t devvp, const host_memdev_faults& faults) {
  mem_of(devvp, "host_memdev_set_faults")->set_faults(faults);
}

void host_memdev_power_cut(vnode_t devvp) { mem_of(devvp, "host_memdev_power_cut")->power_cut(); }

void host_memdev_refuse_setblocksize(vnode_t devvp, int error) {
  mem_of(devvp, "host_memdev_refuse_setblocksize");
  spec_of(devvp)->sd_refuse_setbsize.store(error);
}

void host_blkdev_stats(vnode_t devvp, host_devstats* stats) {
  spec_dev* sd = spec_of(devvp);
  stats->reads = sd->sd_reads.load();
  stats->writes = sd->sd_writes.load();
  stats->bytes_read = sd->sd_bytes_read.load();
  stats->bytes_written = sd->sd_bytes_written.load();
  stats->flushes = sd->sd_flushes.load();
  stats->discards = sd->sd_discards.load();
  stats->bytes_discarded = sd->sd_bytes_discarded.load();
}

void host_blkdev_reset_stats(vnode_t devvp) {
  spec_dev* sd = spec_of(devvp);
  sd->sd_reads.store(0);
  sd->sd_writes.store(0);
  sd->sd_bytes_read.store(0);
  sd->sd_bytes_written.store(0);
  sd->sd_flushes.store(0);
  sd->sd_discards.store(0);
  sd->sd_bytes_discarded.store(0);
}
