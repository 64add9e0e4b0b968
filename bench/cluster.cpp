// Sequential throughput of the cluster layer against the plain system calls.
//
// A file-backed device in shared memory holds one contiguous 1 GiB file of a
// minimal file system (its blockmap is arithmetic). The same bytes are
// written and read with pwrite/pread in the same request size, then through
// cluster_write (plus a synchronous cluster_push, so that everything is on
// the device) and cluster_read after the cache was dropped. Prints one line
// per direction: "ratio seq_write 0.83" is cluster MB/s divided by raw MB/s.

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "host/blkdev.h"
#include "host/buf.h"
#include "host/cluster.h"
#include "host/mount.h"
#include "host/ubc.h"
#include "host/uio.h"
#include "host/vfs.h"
#include "host/vnode.h"

namespace {

constexpr off_t kFileBytes = off_t(1) << 30;
constexpr size_t kRequest = 1 << 20;
constexpr off_t kFileStart = 1 << 20;  // the file's first byte on the device

vnode_t g_devvp;
VOPFUNC* bench_vnodeop_p;

int b_blockmap(void* v) {
  auto* ap = static_cast<struct vnop_blockmap_args*>(v);
  if (ap->a_bpn == nullptr) return 0;
  *ap->a_bpn = (kFileStart + ap->a_foffset) / 512;
  if (ap->a_run) *ap->a_run = std::min<size_t>(ap->a_size, size_t(kFileBytes - ap->a_foffset));
  if (ap->a_poff) *static_cast<int*>(ap->a_poff) = int(ap->a_foffset % 512);
  return 0;
}

int b_strategy(void* v) { return buf_strategy(g_devvp, v); }

int b_blktooff(void* v) {
  auto* ap = static_cast<struct vnop_blktooff_args*>(v);
  *ap->a_offset = ap->a_lblkno * 4096;
  return 0;
}

int b_offtoblk(void* v) {
  auto* ap = static_cast<struct vnop_offtoblk_args*>(v);
  *ap->a_lblkno = ap->a_offset / 4096;
  return 0;
}

int b_reclaim(void* v) {
  vnode_clearfsnode(static_cast<struct vnop_reclaim_args*>(v)->a_vp);
  return 0;
}

const struct vnodeopv_entry_desc bench_entries[] = {
    {&vnop_default_desc, vn_default_error}, {&vnop_blockmap_desc, b_blockmap},
    {&vnop_strategy_desc, b_strategy},      {&vnop_blktooff_desc, b_blktooff},
    {&vnop_offtoblk_desc, b_offtoblk},      {&vnop_reclaim_desc, b_reclaim},
    {nullptr, nullptr},
};
struct vnodeopv_desc bench_opv_desc = {&bench_vnodeop_p, bench_entries};

int b_mount(mount_t mp, vnode_t devvp, user_addr_t data, vfs_context_t ctx) { return 0; }
int b_unmount(mount_t mp, int mntflags, vfs_context_t ctx) { return vflush(mp, nullptr, FORCECLOSE); }
struct vfsops bench_vfsops = {b_mount, nullptr, b_unmount};

double seconds_since(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

double mbps(double secs) { return double(kFileBytes) / (1 << 20) / secs; }

int cluster_pass(vnode_t vp, char* buf, bool write) {
  for (off_t off = 0; off < kFileBytes; off += off_t(kRequest)) {
    uio_t uio = uio_create(1, off, UIO_SYSSPACE, write ? UIO_WRITE : UIO_READ);
    uio_addiov(uio, reinterpret_cast<user_addr_t>(buf), kRequest);
    int e = write ? cluster_write(vp, uio, kFileBytes, kFileBytes, 0, 0, 0)
                  : cluster_read(vp, uio, kFileBytes, 0);
    uio_free(uio);
    if (e) return e;
  }
  return write ? cluster_push(vp, IO_SYNC) : 0;
}

bool raw_pass(int fd, char* buf, bool write) {
  for (off_t off = 0; off < kFileBytes; off += off_t(kRequest)) {
    ssize_t n = write ? pwrite(fd, buf, kRequest, kFileStart + off) : pread(fd, buf, kRequest, kFileStart + off);
    if (n != ssize_t(kRequest)) return false;
  }
  return true;
}

}  // namespace

int main() {
  std::string path = "/dev/shm/exvol_bench_cluster." + std::to_string(getpid());
  int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
  if (fd < 0 || ftruncate(fd, kFileStart + kFileBytes) != 0) {
    perror("exvol_bench_cluster: backing file");
    return 1;
  }
  std::vector<char> buf(kRequest);
  for (size_t i = 0; i < buf.size(); i++) buf[i] = char(i * 7 + 1);
  // Allocate the backing store once, so that neither side pays for it.
  if (!raw_pass(fd, buf.data(), true)) return 1;

  struct vnodeopv_desc* descs[] = {&bench_opv_desc};
  struct vfs_fsentry vfe = {};
  vfe.vfe_vfsops = &bench_vfsops;
  vfe.vfe_vopcnt = 1;
  vfe.vfe_opvdescs = descs;
  strncpy(vfe.vfe_fsname, "benchfs", MFSNAMELEN - 1);
  vfe.vfe_flags = VFS_TBLTHREADSAFE | VFS_TBLNOTYPENUM | VFS_TBL64BITREADY;
  vfstable_t table;
  mount_t mp;
  if (vfs_fsadd(&vfe, &table) != 0 || host_blkdev_open(path.c_str(), 0, &g_devvp) != 0 ||
      host_mount("benchfs", g_devvp, 0, nullptr, 0, &mp) != 0) {
    fprintf(stderr, "exvol_bench_cluster: setup failed\n");
    return 1;
  }
  struct vnode_fsparam p = {};
  p.vnfs_mp = mp;
  p.vnfs_vtype = VREG;
  p.vnfs_str = "benchfs";
  p.vnfs_vops = bench_vnodeop_p;
  p.vnfs_filesize = kFileBytes;
  p.vnfs_flags = VNFS_NOCACHE;
  vnode_t vp;
  if (vnode_create(VNCREATE_FLAVOR, VCREATESIZE, &p, &vp) != 0) return 1;

  double best[2][2] = {{1e9, 1e9}, {1e9, 1e9}};  // [raw|cluster][write|read]
  for (int round = 0; round < 2; round++) {
    auto t0 = std::chrono::steady_clock::now();
    if (!raw_pass(fd, buf.data(), true)) return 1;
    best[0][0] = std::min(best[0][0], seconds_since(t0));
    t0 = std::chrono::steady_clock::now();
    if (cluster_pass(vp, buf.data(), true) != 0) return 1;
    best[1][0] = std::min(best[1][0], seconds_since(t0));
    ubc_msync(vp, 0, kFileBytes, nullptr, UBC_INVALIDATE);
    t0 = std::chrono::steady_clock::now();
    if (!raw_pass(fd, buf.data(), false)) return 1;
    best[0][1] = std::min(best[0][1], seconds_since(t0));
    t0 = std::chrono::steady_clock::now();
    if (cluster_pass(vp, buf.data(), false) != 0) return 1;
    best[1][1] = std::min(best[1][1], seconds_since(t0));
    ubc_msync(vp, 0, kFileBytes, nullptr, UBC_INVALIDATE);
  }
  printf("seq_write raw %.0f MB/s, cluster %.0f MB/s (1 GiB, %zu KiB requests)\n", mbps(best[0][0]),
         mbps(best[1][0]), kRequest >> 10);
  printf("seq_read  raw %.0f MB/s, cluster %.0f MB/s\n", mbps(best[0][1]), mbps(best[1][1]));
  printf("ratio seq_write %.2f\n", best[0][0] / best[1][0]);
  printf("ratio seq_read %.2f\n", best[0][1] / best[1][1]);

  vnode_recycle(vp);
  vnode_put(vp);
  host_unmount(mp, MNT_FORCE);
  host_blkdev_close(g_devvp);
  close(fd);
  unlink(path.c_str());
  return 0;
}
