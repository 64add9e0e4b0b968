// Mounting and unmounting: the file system's mount entry for new mounts and
// updates, the mount sequence that reads and checks the boot region and
// builds the exfat_mount record, the single unwinding path of a failed
// mount, unmount, and the root and start entries.
//
// Mount, update and unmount of one mount are serialised by the kernel's
// mount machinery, so the record is built and torn down without locks; the
// only other thread that can touch it meanwhile is the delayed metadata
// flush, which unmount cancels or waits for under xm_meta_lock.

#include <cstring>
#include <new>

#include "exfat_proto.h"
#include "host/blkdev.h"
#include "host/buf.h"
#include "host/kern.h"
#include "host/mount.h"
#include "host/ubc.h"

namespace {

// Size of the mount argument record and the offsets of its fields; the
// record is little-endian whatever the machine.
constexpr size_t kArgsSize = 24;
constexpr size_t kArgsMagic = 0;
constexpr size_t kArgsMask = 12;
constexpr size_t kArgsSecondsWest = 16;
constexpr size_t kArgsFlags = 20;

// The volume serial number's place in the boot sector; its four bytes, as
// stored, name the volume UUID.
constexpr size_t kBootSerialNumber = 100;

// The mount arguments as the driver uses them.
struct exfat_mount_args {
  uint16_t mask;
  int32_t seconds_west;
  uint32_t flags;  // EXFAT_ARGS_*
};

// Copies in and decodes the argument record. Returns copyin's error.
int exfat_copyin_args(user_addr_t data, struct exfat_mount_args* args) {
  uint8_t raw[kArgsSize];
  int error = copyin(data, raw, sizeof(raw));
  if (error)
    return error;
  // A record from a tool that doesn't know the magic still gives its mask
  // and time zone; only the flags are not trusted then.
  if (le32dec(raw + kArgsMagic) != EXFAT_ARGS_MAGIC)
    le32enc(raw + kArgsFlags, 0);
  args->mask = le16dec(raw + kArgsMask);
  args->seconds_west = static_cast<int32_t>(le32dec(raw + kArgsSecondsWest));
  args->flags = le32dec(raw + kArgsFlags);
  return 0;
}

// Fills the kernel's statfs record. At mount every field; at an update only
// the ones that can change. The free count is read under xm_bitmap_lock,
// which guards it; the caller holds no driver lock.
void exfat_statfs_fill(struct exfat_mount* mount, mount_t mp, bool at_mount) {
  struct vfsstatfs* sbp = vfs_statfs(mp);
  if (at_mount) {
    sbp->f_bsize = mount->xm_bytes_per_cluster;
    sbp->f_iosize = mount->xm_max_io;
    sbp->f_blocks = mount->xm_max_cluster - 1;
    sbp->f_fsid.val[0] = static_cast<int32_t>(mount->xm_dev);
    sbp->f_fsid.val[1] = vfs_typenum(mp);
  }
  // Clusters given back and only waiting for a directory write count as
  // free: an allocation that needs them writes that first.
  lck_mtx_lock(mount->xm_bitmap_lock);
  uint32_t free_clusters = mount->xm_free_clusters + mount->xm_pending_ready;
  lck_mtx_unlock(mount->xm_bitmap_lock);
  sbp->f_bfree = free_clusters;
  sbp->f_bavail = free_clusters;
  sbp->f_bused = sbp->f_blocks - free_clusters;
  sbp->f_files = 0;
  sbp->f_ffree = 0;
  vfs_name(mp, sbp->f_fstypename);
  sbp->f_fssubtype = 0;
}

// Applies an update request to a mounted volume: a downgrade to read-only
// syncs and closes files open for writing; a reload is refused; an upgrade
// to read-write marks the volume dirty. Returns 0, the sync's or vflush's
// error, ENOTSUP for a reload, or the dirty mark's error (the mount then
// stays read-only). A forced downgrade passes over a sync that fails
// (printed): it is how a mount whose device fails writes stops writing.
int exfat_mount_update(struct exfat_mount* mount, mount_t mp, vfs_context_t context) {
  if (!(mount->xm_flags & XM_RDONLY) && vfs_isrdonly(mp)) {
    int error = exfat_vfs_sync(mp, MNT_WAIT, context);
    if (error && vfs_isforce(mp))
      kprintf("exfat_mount_update: error %d syncing before read-only; going on\n", error);
    else if (error)
      return error;
    int flags = WRITECLOSE;
    if (vfs_isforce(mp))
      flags |= FORCECLOSE;
    error = vflush(mp, NULLVP, flags);
    // Whatever vflush left open, nothing may be written from now on. The
    // on-disk dirty mark stays: the volume was not unmounted cleanly.
    mount->xm_flags |= XM_RDONLY;
    if (error)
      return error;
  }
  if (vfs_isreload(mp))
    return ENOTSUP;
  if ((mount->xm_flags & XM_RDONLY) && vfs_iswriteupgrade(mp)) {
    mount->xm_flags &= ~XM_RDONLY;
    int error = exfat_mark_vol_dirty(mount, 1, context);
    if (error) {
      mount->xm_flags |= XM_RDONLY;
      return error;
    }
  }
  return 0;
}

// Reads the boot region (12 device blocks at block 0) into *bpp, aged so
// that it leaves the cache first. On error *bpp may still hold a buffer
// that the caller releases.
int exfat_read_boot_blocks(vnode_t devvp, uint32_t block_size, vfs_context_t context,
                           buf_t* bpp) {
  int error = buf_meta_bread(devvp, 0, static_cast<int>(EXFAT_BOOT_REGION_SECTORS * block_size),
                             vfs_context_ucred(context), bpp);
  if (error == 0)
    buf_markaged(*bpp);
  return error;
}

// The boot region steps up to the checksum: asks the device for its block
// sizes, reads the boot region, checks the signature and the sector shift,
// makes the device's logical block size the sector size (reading again at
// the new size), and checks the boot checksum. Sets xm_phys_block_size and
// xm_bytes_per_sector. On return *bpp holds the boot region buffer when one
// was read (also on most errors); the caller releases it. Returns 0,
// ENXIO, EINVAL, EIO or a device or read error.
int exfat_check_boot_region(struct exfat_mount* mount, vnode_t devvp, vfs_context_t context,
                            buf_t* bpp) {
  uint32_t block_size = 0;
  if (VNOP_IOCTL(devvp, DKIOCGETBLOCKSIZE, reinterpret_cast<caddr_t>(&block_size), 0, context))
    return ENXIO;
  uint32_t phys_block_size = 0;
  if (VNOP_IOCTL(devvp, DKIOCGETPHYSICALBLOCKSIZE, reinterpret_cast<caddr_t>(&phys_block_size),
                 0, context))
    phys_block_size = block_size;
  mount->xm_phys_block_size = phys_block_size;

  int error = exfat_read_boot_blocks(devvp, block_size, context, bpp);
  if (error)
    return error;
  for (;;) {
    const uint8_t* boot = reinterpret_cast<const uint8_t*>(buf_dataptr(*bpp));
    if (memcmp(boot, EXFAT_BOOT_SIGNATURE, EXFAT_BOOT_SIGNATURE_LEN) != 0)
      return EINVAL;
    unsigned shift = boot[offsetof(struct exfat_boot_sector, bsBytesPerSectorShift)];
    if (shift < EXFAT_MIN_SECTOR_SHIFT || shift > EXFAT_MAX_SECTOR_SHIFT) {
      kprintf("exfat_mount_internal: bsBytesPerSectorShift (%d) is out of range 9..16\n", shift);
      return EINVAL;
    }
    mount->xm_bytes_per_sector = 1u << shift;
    if (mount->xm_bytes_per_sector == block_size)
      break;

    uint32_t new_size = mount->xm_bytes_per_sector;
    error = VNOP_IOCTL(devvp, DKIOCSETBLOCKSIZE, reinterpret_cast<caddr_t>(&new_size), FWRITE,
                       context);
    if (error) {
      kprintf("exfat_mount_internal: Couldn't change logical block size to %u (error %d)\n",
              new_size, error);
      return error;
    }
    kprintf("exfat_mount_internal: Changed logical block size to %u\n", new_size);
    block_size = new_size;
    // The old buffer describes blocks of the old size: drop it unwritten.
    buf_markinvalid(*bpp);
    buf_brelse(*bpp);
    *bpp = nullptr;
    error = exfat_read_boot_blocks(devvp, block_size, context, bpp);
    if (error)
      return error;
  }

  const uint8_t* boot = reinterpret_cast<const uint8_t*>(buf_dataptr(*bpp));
  if (exfat_bad_boot_checksum(boot, mount->xm_bytes_per_sector)) {
    kprintf("exfat: Boot region's checksum is invalid\n");
    return EIO;
  }
  return 0;
}

// The geometry steps: cluster shift and size, metadata block size, the FAT
// and heap positions, the root cluster's range, the FAT capacity rule and
// the largest I/O size, from the checked boot sector `boot`. Fills the
// geometry fields of the record. Returns 0 or EINVAL.
int exfat_mount_geometry(struct exfat_mount* mount, mount_t mp, const uint8_t* boot) {
  const struct exfat_boot_sector* bs = reinterpret_cast<const struct exfat_boot_sector*>(boot);
  // The figure the boot sector holds now, so that the first flush rewrites
  // it whenever it differs from the real one: starting from 0 left a stale
  // figure on disk after a mount whose only change emptied the volume.
  mount->xm_percent_in_use = boot[EXFAT_BOOT_PERCENT_IN_USE_OFFSET];
  unsigned cluster_shift = bs->bsSectorsPerClusterShift;
  if (cluster_shift > EXFAT_MAX_CLUSTER_SHIFT) {
    kprintf("exfat_mount_internal: bsSectorsPerClusterShift (%d) is too large\n", cluster_shift);
    return EINVAL;
  }
  // Compared on the true size: 2^32 must not wrap to an acceptable 0. The
  // size is printed in full for the same reason (it equals the 32-bit value
  // for every size that fits).
  uint64_t cluster_bytes = uint64_t{1} << (bs->bsBytesPerSectorShift + cluster_shift);
  if (cluster_bytes > EXFAT_MAXBSIZE) {
    kprintf("exfat: bytes per cluster (%llu) > MAXBSIZE (%u).  Can't mount.",
            static_cast<unsigned long long>(cluster_bytes), EXFAT_MAXBSIZE);
    return EINVAL;
  }
  mount->xm_bytes_per_cluster = static_cast<uint32_t>(cluster_bytes);
  mount->xm_block_size = exfat_metadata_block_size(
      mount->xm_phys_block_size, mount->xm_bytes_per_sector, mount->xm_bytes_per_cluster);
  mount->xm_sectors_per_block = mount->xm_block_size / mount->xm_bytes_per_sector;
  mount->xm_blocks_per_cluster = mount->xm_bytes_per_cluster / mount->xm_block_size;

  uint32_t cluster_count = le32dec(bs->bsClusterCount);
  mount->xm_fat_offset = le32dec(bs->bsFatOffset);
  mount->xm_heap_offset = le32dec(bs->bsClusterHeapOffset);
  mount->xm_root_cluster = le32dec(bs->bsFirstClusterOfRootDirectory);
  mount->xm_max_cluster = cluster_count + 1;
  if (mount->xm_root_cluster < EXFAT_FIRST_CLUSTER ||
      mount->xm_root_cluster > mount->xm_max_cluster) {
    kprintf("exfat: root starting cluster (%u) out of range\n", mount->xm_root_cluster);
    return EINVAL;
  }

  uint32_t fat_length = le32dec(bs->bsFatLength);
  uint32_t fat_entries = fat_length * mount->xm_bytes_per_sector / EXFAT_FAT_ENTRY_SIZE;
  if (mount->xm_max_cluster >= fat_entries) {
    kprintf("exfat: Warning: number of clusters (%d) exceeds FAT capacity (%d)\n",
            static_cast<int>(cluster_count + 2), static_cast<int>(fat_entries));
    // A FAT without a single entry (length 0, or a 32-bit size that wraps
    // to 0) would turn the lowered limit into 0xFFFFFFFF, a volume of four
    // billion clusters described by nothing. Such a boot sector is refused.
    if (fat_entries == 0)
      return EINVAL;
    mount->xm_max_cluster = fat_entries - 1;
  }
  mount->xm_fat_size = fat_length * mount->xm_bytes_per_sector;

  struct vfsioattr ioattr;
  vfs_ioattr(mp, &ioattr);
  mount->xm_max_io = exfat_max_io_size(
      ubc_upl_maxbufsize(), ioattr.io_maxreadcnt, ioattr.io_maxwritecnt, ioattr.io_segreadcnt,
      ioattr.io_maxsegreadsize, ioattr.io_segwritecnt, ioattr.io_maxsegwritesize,
      mount->xm_bytes_per_cluster);
  return 0;
}

// Creates the record's five mutexes, in the documented order. Returns 0 or
// ENOMEM; mutexes already made stay in the record for the unwinding path.
int exfat_mount_alloc_locks(struct exfat_mount* mount) {
  lck_mtx_t** locks[] = {&mount->xm_bitmap_lock, &mount->xm_fat_lock, &mount->xm_rename_lock,
                         &mount->xm_meta_lock, &mount->xm_pending_lock};
  for (lck_mtx_t** lock : locks) {
    *lock = lck_mtx_alloc_init(exfat_lck_grp, exfat_lck_attr);
    if (*lock == nullptr)
      return ENOMEM;
  }
  return 0;
}

// Frees the up-case table, the mutexes that exist and the record itself.
// Nothing else may refer to the record any more.
void exfat_mount_free(struct exfat_mount* mount) {
  if (mount->xm_upcase != nullptr)
    OSFree(mount->xm_upcase, EXFAT_UPCASE_TABLE_SIZE, exfat_malloc_tag);
  lck_mtx_t* locks[] = {mount->xm_bitmap_lock, mount->xm_fat_lock, mount->xm_rename_lock,
                        mount->xm_meta_lock, mount->xm_pending_lock};
  for (lck_mtx_t* lock : locks) {
    if (lock != nullptr)
      lck_mtx_free(lock, exfat_lck_grp);
  }
  OSFree(mount, sizeof(*mount), exfat_malloc_tag);
}

// Undoes whatever a failed mount did, in one order whatever step failed:
// boot buffer, flush timer, the mount's vnodes, the system files and caches,
// the record, the module reference. Returns `error`.
int exfat_mount_unwind(struct exfat_mount* mount, mount_t mp, buf_t bp, vfs_context_t context,
                       int error) {
  if (bp != nullptr)
    buf_brelse(bp);
  if (mount->xm_meta_timer != nullptr) {
    // Nothing arms the timer before a mount succeeds, so it can't be
    // running here.
    thread_call_cancel(mount->xm_meta_timer);
    thread_call_free(mount->xm_meta_timer);
    mount->xm_meta_timer = nullptr;
  }
  vflush(mp, NULLVP, SKIPSYSTEM | FORCECLOSE);
  if (mount->xm_fat_vp != nullptr)
    VNOP_FSYNC(mount->xm_fat_vp, MNT_WAIT, context);
  if (mount->xm_bitmap_vp != nullptr)
    VNOP_FSYNC(mount->xm_bitmap_vp, MNT_WAIT, context);
  // exfat_fat_uninit_vol releases a partial FAT setup; before the setup
  // began there is nothing for it to release.
  if (mount->xm_fat_vp != nullptr || mount->xm_bitmap_vp != nullptr ||
      mount->xm_fat_cache != nullptr || mount->xm_bitmap_cache != nullptr)
    exfat_fat_uninit_vol(mount);
  vflush(mp, NULLVP, FORCECLOSE);
  exfat_mount_free(mount);
  vfs_setfsprivate(mp, nullptr);
  host_module_rele();
  return error;
}

// Writes what the unmount must have on disk before the clean mark: the FAT
// and bitmap caches and their pages (through the system vnodes' fsync) and
// then the device's buffers of directory blocks, so that the mark never
// lands ahead of the metadata it vouches for. A failed write is recorded
// (exfat_note_write_error), so the mark is not written. The caller holds no
// driver lock. Returns the first error.
//
// Clusters given back are freed first (exfat_pending.cpp): every node is
// gone, so every entry that named them is in the buffer cache.
//
// percentInUse is written here too, first: the unmount's vflush releases
// the last references of removed files, whose clusters are freed only then,
// after any sync that preceded the unmount, and other systems show the
// figure as the volume's fill level.
int exfat_unmount_flush(struct exfat_mount* mount, vfs_context_t context) {
  bool writable = !(mount->xm_flags & XM_RDONLY);
  if (writable)
    exfat_pending_flush(mount, "exfat_vfs_unmount");
  int errors[] = {
      writable ? exfat_sync_boot_sector(mount, 1, context) : 0,
      VNOP_FSYNC(mount->xm_fat_vp, MNT_WAIT, context),
      VNOP_FSYNC(mount->xm_bitmap_vp, MNT_WAIT, context),
      buf_flushdirtyblks(mount->xm_devvp, 1, 0, "exfat_vfs_unmount"),
  };
  for (int error : errors) {
    if (error)
      return exfat_note_write_error(mount, error);
  }
  return 0;
}

// Stops the delayed metadata flush for good: cancels a pending run or waits
// for a running one to finish, then frees the timer. Takes xm_meta_lock.
void exfat_meta_timer_stop(struct exfat_mount* mount) {
  if (mount->xm_meta_timer == nullptr)
    return;
  lck_mtx_lock(mount->xm_meta_lock);
  if (mount->xm_meta_state & META_SCHEDULED) {
    if (thread_call_cancel(mount->xm_meta_timer)) {
      mount->xm_meta_state &= ~META_SCHEDULED;
    } else {
      // The callback is running (or about to take the lock): it clears
      // META_SCHEDULED and wakes us when its flush is done.
      while (mount->xm_meta_state & META_SCHEDULED)
        msleep(&mount->xm_meta_state, mount->xm_meta_lock, PWAIT, "exfat_vfs_unmount", nullptr);
    }
  }
  lck_mtx_unlock(mount->xm_meta_lock);
  thread_call_free(mount->xm_meta_timer);
  mount->xm_meta_timer = nullptr;
}

}  // namespace

// The file system's mount entry, for new mounts and for updates of a
// mounted volume. Copies in the mount arguments, mounts or updates, then
// applies the permission mask and the time-zone value and refreshes the
// statfs record. Returns 0, copyin's error, or the error of the mount or
// update (see exfat_mount_internal and exfat_mount_update).
int exfat_vfs_mount(mount_t mp, vnode_t devvp, user_addr_t data, vfs_context_t context) {
  struct exfat_mount_args args;
  int error = exfat_copyin_args(data, &args);
  if (error)
    return error;

  struct exfat_mount* mount;
  if (vfs_isupdate(mp)) {
    mount = static_cast<struct exfat_mount*>(vfs_fsprivate(mp));
    error = exfat_mount_update(mount, mp, context);
    if (error)
      return error;
  } else {
    error = exfat_mount_internal(devvp, mp, context);
    if (error)
      return error;
    mount = static_cast<struct exfat_mount*>(vfs_fsprivate(mp));
  }
  mount->xm_mask = args.mask & 0xFFF;
  mount->xm_secondsWest = args.seconds_west;
  if (args.flags & EXFAT_ARGS_DISCARD)
    mount->xm_flags |= XM_DISCARD;
  else
    mount->xm_flags &= ~XM_DISCARD;
  exfat_statfs_fill(mount, mp, false);
  return 0;
}

// The file system's ioctl entry: EXFAT_IOC_GETSTATE reports whether this
// mount has seen damage or a failed metadata write. Reads xm_flags without
// a lock (it is atomic). Returns 0, or ENOTTY for any other command.
int exfat_vfs_ioctl(mount_t mp, u_long command, caddr_t data, int flags, vfs_context_t context) {
  struct exfat_mount* mount = static_cast<struct exfat_mount*>(vfs_fsprivate(mp));
  if (command != EXFAT_IOC_GETSTATE)
    return ENOTTY;
  uint32_t state = 0;
  if (mount->xm_flags & XM_CORRUPT)
    state |= EXFAT_STATE_CORRUPT;
  memcpy(data, &state, sizeof(state));
  return 0;
}

// A new mount of the block device devvp on mp. Reads and checks the boot
// region, builds the exfat_mount record, opens the FAT, scans the root
// directory (bitmap, up-case table, label, GUID) and, read-write, marks the
// volume dirty. On success the record is mp's private data and the module
// holds a reference for the mount. On failure everything is undone (see
// exfat_mount_unwind) and the error is returned: buf_invalidateblks' error,
// ENOMEM, the boot region's errors (ENXIO, EINVAL, EIO, device errors),
// exfat_fat_init_vol's, the root scan's or the dirty mark's.
int exfat_mount_internal(vnode_t devvp, mount_t mp, vfs_context_t context) {
  dev_t dev = vnode_specrdev(devvp);
  int error = buf_invalidateblks(devvp, BUF_WRITE_DATA, 0, 0);
  if (error)
    return error;
  vfs_setlocklocal(mp);
  host_module_ref();

  struct exfat_mount* mount =
      static_cast<struct exfat_mount*>(OSMalloc(sizeof(struct exfat_mount), exfat_malloc_tag));
  if (mount == nullptr) {
    host_module_rele();
    return ENOMEM;
  }
  new (mount) exfat_mount{};  // zero-filled, atomics included

  buf_t bp = nullptr;
  error = exfat_check_boot_region(mount, devvp, context, &bp);
  if (error)
    return exfat_mount_unwind(mount, mp, bp, context, error);

  mount->xm_mp = mp;
  error = exfat_mount_alloc_locks(mount);
  if (error == 0)
    error = exfat_mount_geometry(mount, mp, reinterpret_cast<const uint8_t*>(buf_dataptr(bp)));
  if (error)
    return exfat_mount_unwind(mount, mp, bp, context, error);

  uuid_create_md5_from_name(mount->xm_uuid, kFSUUIDNamespaceSHA1,
                            reinterpret_cast<const uint8_t*>(buf_dataptr(bp)) + kBootSerialNumber,
                            4);
  buf_brelse(bp);
  bp = nullptr;

  mount->xm_dev = static_cast<uint32_t>(dev);
  mount->xm_devvp = devvp;
  error = exfat_fat_init_vol(mount);
  if (error)
    return exfat_mount_unwind(mount, mp, bp, context, error);
  mount->xm_meta_timer = thread_call_allocate(exfat_meta_sync_callback, mount);
  if (mount->xm_meta_timer == nullptr)
    return exfat_mount_unwind(mount, mp, bp, context, ENOMEM);
  vfs_setfsprivate(mp, mount);

  error = exfat_scan_root_dir(mp, context);
  if (error) {
    // A damaged up-case table or root directory is recorded on a writable
    // volume (MediaFailure) so that a checker looks at it; a read-only mount
    // leaves the disk as it found it.
    if (error == EIO && vfs_isrdwr(mp)) {
      mount->xm_flags |= XM_CORRUPT;
      exfat_mark_vol_dirty(mount, 1, context);
    }
    return exfat_mount_unwind(mount, mp, bp, context, error);
  }

  if (vfs_isrdonly(mp)) {
    mount->xm_flags |= XM_RDONLY;
  } else {
    error = exfat_mark_vol_dirty(mount, 1, context);
    if (error)
      return exfat_mount_unwind(mount, mp, bp, context, error);
  }
  exfat_statfs_fill(mount, mp, true);
  vfs_setflags(mp, MNT_IGNORE_OWNERSHIP);
  return 0;
}

// The file system's unmount entry. Flushes the mount's vnodes, stops the
// delayed flush, writes the FAT and bitmap caches and the device's buffers,
// marks the volume clean (unless it is read-only, corruption was seen or a
// metadata write failed) and frees everything. MNT_FORCE in mntflags forces
// the unmount: errors are printed and passed over, and 0 is returned.
// Unforced, vflush's error (nothing released), or the error of a metadata
// write or of the clean mark (the volume stays mounted, flushed as far as
// the device allowed and without a timer) is returned.
int exfat_vfs_unmount(mount_t mp, int mntflags, vfs_context_t context) {
  struct exfat_mount* mount = static_cast<struct exfat_mount*>(vfs_fsprivate(mp));
  bool force = (mntflags & MNT_FORCE) != 0;

  int error = vflush(mp, NULLVP, SKIPSYSTEM | (force ? FORCECLOSE : 0));
  if (error) {
    kprintf("exfat_vfs_unmount: error %d from vflush\n", error);
    if (!force)
      return error;
  }

  exfat_meta_timer_stop(mount);
  error = exfat_unmount_flush(mount, context);
  if (error) {
    kprintf("exfat_vfs_unmount: error %d writing metadata\n", error);
    if (!force)
      return error;
  }

  if (!(mount->xm_flags & (XM_CORRUPT | XM_RDONLY))) {
    error = exfat_mark_vol_dirty(mount, 0, context);
    if (error) {
      kprintf("exfat_vfs_unmount: error %d from exfat_mark_vol_dirty\n", error);
      if (!force)
        return error;
    }
  }

  exfat_fat_uninit_vol(mount);
  vflush(mp, NULLVP, FORCECLOSE);
  VNOP_FSYNC(mount->xm_devvp, MNT_WAIT, context);

  exfat_mount_free(mount);
  vfs_setfsprivate(mp, nullptr);
  host_module_rele();
  return 0;
}

// The file system's root entry: the root directory's vnode in *vpp, with an
// I/O reference the caller drops. Returns exfat_node_get's error.
int exfat_vfs_root(mount_t mp, vnode_t* vpp, vfs_context_t context) {
  struct exfat_mount* mount = static_cast<struct exfat_mount*>(vfs_fsprivate(mp));
  struct exfat_node* node = nullptr;
  int error = exfat_node_get(mount, NULLVP, nullptr, 0, VDIR, 0, &node, context);
  if (error)
    return error;
  *vpp = node->x_vnode;
  return 0;
}

// The root directory's vnode in *vpp, with an I/O reference the caller
// drops, and its node in *rootp, locked here. The caller holds no node
// lock. Returns exfat_vfs_root's error, with nothing held.
int exfat_vfs_root_locked(mount_t mp, vnode_t* vpp, struct exfat_node** rootp,
                          vfs_context_t context) {
  int error = exfat_vfs_root(mp, vpp, context);
  if (error)
    return error;
  *rootp = static_cast<struct exfat_node*>(vnode_fsnode(*vpp));
  exfat_node_lock(*rootp);
  return 0;
}

// The file system's start entry: nothing to do once mounted.
int exfat_vfs_start(mount_t mp, int flags, vfs_context_t context) {
  return 0;
}
