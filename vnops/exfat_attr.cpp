// File attributes: how an exFAT file looks to the kernel as a POSIX-like
// object, and which of those attributes can be changed.
//
// exFAT has no owners, permission bits or link counts. Every file reports
// the same owner and group and the mount's permission mask; the on-disk
// attribute bits become BSD file flags; the three on-disk times become the
// kernel's creation, modification (and change) and access times; a size
// change goes to the cluster-chain code.
//
// Attribute bits and the file flags they map to:
//
//   FileAttributes   reported as                   set by
//   ReadOnly  0x01   UF_IMMUTABLE (files only)     UF_IMMUTABLE or SF_IMMUTABLE (files only)
//   Hidden    0x02   UF_HIDDEN                     UF_HIDDEN
//   System    0x04   -                             -
//   Archive   0x20   SF_ARCHIVED when Archive and  SF_ARCHIVED clears it; its absence sets
//                    Directory are both clear      it on a file
//
// Locking: getattr and setattr run under the node lock. A size change also
// holds the node's x_io_lock, taken before the node lock, so that it is
// serialised against reads, writes and paging of the same file. The parent
// directory is locked through exfat_lock_parent for the entry-set rewrite.

#include "exfat_proto.h"
#include "host/ubc.h"
#include "host/vnode.h"

namespace {

// Every file reports this owner and group: exFAT records none.
constexpr uid_t kExfatOwner = 99;
constexpr gid_t kExfatGroup = 99;

// The only file flags a caller may set.
constexpr uint32_t kSettableFlags = UF_IMMUTABLE | UF_HIDDEN | SF_ARCHIVED | SF_IMMUTABLE;

// Path-limit names (pathconf) in the kernel's numbering: _PC_LINK_MAX 1,
// _PC_NAME_MAX 4, _PC_PATH_MAX 5, _PC_CHOWN_RESTRICTED 7, _PC_NO_TRUNC 8,
// _PC_CASE_SENSITIVE 11, _PC_CASE_PRESERVING 12, _PC_FILESIZEBITS 18. The
// C library's _PC_ macros number them differently, so they are not used.
constexpr int kPcLinkMax = 1;
constexpr int kPcNameMax = 4;
constexpr int kPcPathMax = 5;
constexpr int kPcChownRestricted = 7;
constexpr int kPcNoTrunc = 8;
constexpr int kPcCaseSensitive = 11;
constexpr int kPcCasePreserving = 12;
constexpr int kPcFileSizeBits = 18;

struct exfat_node* exfat_vnode_node(vnode_t vp) {
  return static_cast<struct exfat_node*>(vnode_fsnode(vp));
}

bool exfat_is_dir(const struct exfat_node* node) {
  return (node->x_attributes & EXFAT_ATTR_DIRECTORY) != 0;
}

// The BSD file flags that a node's attribute bits stand for. The System
// bit has no flag; a directory is never read-only or archive-pending in
// the kernel's eyes. The caller holds the node lock.
uint32_t exfat_attributes_to_flags(const struct exfat_node* node) {
  uint32_t flags = 0;
  uint16_t attributes = node->x_attributes;
  if (!(attributes & (EXFAT_ATTR_ARCHIVE | EXFAT_ATTR_DIRECTORY)))
    flags |= SF_ARCHIVED;
  if ((attributes & EXFAT_ATTR_READ_ONLY) && !(attributes & EXFAT_ATTR_DIRECTORY))
    flags |= UF_IMMUTABLE;
  if (attributes & EXFAT_ATTR_HIDDEN)
    flags |= UF_HIDDEN;
  return flags;
}

// Fills the link count, sizes, ownership and mode of a node: the values
// every file reports whatever was asked. The link count is 1, or 0 once the
// name is gone. A link's size is its target's length, so that
// readlink buffers are sized right; its allocation is that of the link file.
// The caller holds the node lock.
void exfat_getattr_common(const struct exfat_node* node, struct vnode_attr* vap) {
  lck_mtx_assert(node->x_lock, LCK_MTX_ASSERT_OWNED);
  const struct exfat_mount* mount = node->x_mount;
  const uint64_t cluster = mount->xm_bytes_per_cluster;
  const off_t size = static_cast<off_t>((node->x_flags & X_SYMLINK) ? node->x_link_length
                                                                     : node->x_size);
  const off_t alloc = static_cast<off_t>((node->x_size + cluster - 1) / cluster * cluster);

  VATTR_RETURN(vap, va_rdev, 0);
  // A removed file that is still open has no name left.
  VATTR_RETURN(vap, va_nlink, (node->x_flags & X_DELETED) ? 0 : 1);
  VATTR_RETURN(vap, va_total_size, size);
  VATTR_RETURN(vap, va_data_size, size);
  VATTR_RETURN(vap, va_total_alloc, alloc);
  VATTR_RETURN(vap, va_data_alloc, alloc);
  VATTR_RETURN(vap, va_iosize, mount->xm_max_io);
  VATTR_RETURN(vap, va_uid, kExfatOwner);
  VATTR_RETURN(vap, va_gid, kExfatGroup);
  VATTR_RETURN(vap, va_mode, static_cast<mode_t>(mount->xm_mask & 0xFFF));
}

// Fills the times that were asked for. The creation time comes from its
// host form, which keeps milliseconds; the change time is the modification
// time, exFAT keeping no other. The caller holds the node lock.
void exfat_getattr_times(const struct exfat_node* node, struct vnode_attr* vap) {
  lck_mtx_assert(node->x_lock, LCK_MTX_ASSERT_OWNED);
  if (VATTR_IS_ACTIVE(vap, va_create_time)) {
    vap->va_create_time.tv_sec = static_cast<time_t>(node->x_create_sec);
    vap->va_create_time.tv_nsec = static_cast<long>(node->x_create_msec) * 1000000;
    VATTR_SET_SUPPORTED(vap, va_create_time);
  }
  if (VATTR_IS_ACTIVE(vap, va_modify_time) || VATTR_IS_ACTIVE(vap, va_change_time)) {
    struct timespec ts;
    exfat_timestamp_to_unix(node->x_modify_time, node->x_modify_10ms, node->x_modify_utc, &ts,
                            node->x_mount->xm_secondsWest);
    VATTR_RETURN(vap, va_modify_time, ts);
    VATTR_RETURN(vap, va_change_time, ts);
  }
  if (VATTR_IS_ACTIVE(vap, va_access_time)) {
    struct timespec ts;
    exfat_timestamp_to_unix(node->x_access_time, 0, node->x_access_utc, &ts,
                            node->x_mount->xm_secondsWest);
    VATTR_RETURN(vap, va_access_time, ts);
  }
}

// Step 1 of setattr, the size. Returns 0 with the node locked (whether or
// not a size was asked for), or an error with nothing held: EPERM for a
// size change of anything but a regular file, or exfat_truncate's error.
//
// The page cache learns the new size before the allocation changes, so that
// pages past a new, smaller end are gone before their clusters are freed;
// when the change fails it is given the size the file kept.
// A size equal to the current one is not a truncation (exfat_truncate
// refuses it) but is still a request: the entry set is rewritten at the end
// of setattr all the same.
int exfat_setattr_size(vnode_t vp, struct exfat_node* node, struct vnode_attr* vap,
                       vfs_context_t context) {
  lck_mtx_assert(node->x_io_lock, LCK_MTX_ASSERT_NOTOWNED);
  if (!VATTR_IS_ACTIVE(vap, va_data_size)) {
    exfat_node_lock(node);
    return 0;
  }
  if (vnode_vtype(vp) != VREG)
    return EPERM;

  const uint64_t new_size = static_cast<uint64_t>(vap->va_data_size);
  lck_mtx_lock(node->x_io_lock);
  if (new_size == node->x_size) {
    lck_mtx_unlock(node->x_io_lock);
    VATTR_SET_SUPPORTED(vap, va_data_size);
    exfat_node_lock(node);
    return 0;
  }
  ubc_setsize(vp, vap->va_data_size);
  exfat_node_lock(node);
  // IO_UNIT: a size beyond the free clusters fails at once with ENOSPC
  // instead of leaving a half-grown file.
  int error = exfat_truncate(node, new_size, vap->va_vaflags | IO_UNIT, context);
  if (error) {
    // The page cache must not keep a size the file did not take: its next
    // push would write pages past the file's end.
    const uint64_t kept_size = node->x_size;
    exfat_node_unlock(node);
    ubc_setsize(vp, static_cast<off_t>(kept_size));
    lck_mtx_unlock(node->x_io_lock);
    return error;
  }
  lck_mtx_unlock(node->x_io_lock);
  VATTR_SET_SUPPORTED(vap, va_data_size);
  return 0;
}

// Step 3 of setattr, the file flags. Returns 0, or EINVAL for a flag exFAT
// cannot hold (nothing is changed then). A directory's ReadOnly and Archive
// bits are left alone unless SF_ARCHIVED explicitly asks to clear Archive:
// the kernel shows neither for directories, so a caller that echoes back
// the flags it read must not change them. The caller holds the node lock.
int exfat_setattr_flags(struct exfat_node* node, struct vnode_attr* vap) {
  lck_mtx_assert(node->x_lock, LCK_MTX_ASSERT_OWNED);
  const uint32_t flags = vap->va_flags;
  if (flags & ~kSettableFlags)
    return EINVAL;
  const bool dir = exfat_is_dir(node);

  if (flags & SF_ARCHIVED)
    node->x_attributes &= ~EXFAT_ATTR_ARCHIVE;
  else if (!dir)
    node->x_attributes |= EXFAT_ATTR_ARCHIVE;

  if (!dir) {
    if (flags & (UF_IMMUTABLE | SF_IMMUTABLE))
      node->x_attributes |= EXFAT_ATTR_READ_ONLY;
    else
      node->x_attributes &= ~EXFAT_ATTR_READ_ONLY;
  }

  if (flags & UF_HIDDEN)
    node->x_attributes |= EXFAT_ATTR_HIDDEN;
  else
    node->x_attributes &= ~EXFAT_ATTR_HIDDEN;

  node->x_flags |= X_DIRTY;
  VATTR_SET_SUPPORTED(vap, va_flags);
  return 0;
}

// Step 4 of setattr, the times, in the order creation, access,
// modification. Any time set also sets Archive, on directories as well:
// the entry changed and backup tools should see it. The change time
// cannot be set. Returns whether a time was asked for. The caller holds the
// node lock.
bool exfat_setattr_times(struct exfat_node* node, struct vnode_attr* vap) {
  lck_mtx_assert(node->x_lock, LCK_MTX_ASSERT_OWNED);
  bool any = false;
  if (VATTR_IS_ACTIVE(vap, va_create_time)) {
    const struct timespec* ts = &vap->va_create_time;
    node->x_create_sec = static_cast<uint64_t>(ts->tv_sec);
    node->x_create_msec = static_cast<uint32_t>(ts->tv_nsec / 1000000);
    exfat_timestamp_from_unix(&node->x_create_time, &node->x_create_10ms, &node->x_create_utc,
                              ts, node->x_mount->xm_secondsWest);
    VATTR_SET_SUPPORTED(vap, va_create_time);
    any = true;
  }
  if (VATTR_IS_ACTIVE(vap, va_access_time)) {
    exfat_timestamp_from_unix(&node->x_access_time, nullptr, &node->x_access_utc,
                              &vap->va_access_time, node->x_mount->xm_secondsWest);
    VATTR_SET_SUPPORTED(vap, va_access_time);
    any = true;
  }
  if (VATTR_IS_ACTIVE(vap, va_modify_time)) {
    exfat_timestamp_from_unix(&node->x_modify_time, &node->x_modify_10ms, &node->x_modify_utc,
                              &vap->va_modify_time, node->x_mount->xm_secondsWest);
    VATTR_SET_SUPPORTED(vap, va_modify_time);
    any = true;
  }
  if (any) {
    node->x_attributes |= EXFAT_ATTR_ARCHIVE;
    node->x_flags |= X_DIRTY;
  }
  return any;
}

}  // namespace

// Reports a node's attributes. Sizes, ownership, mode, file system id and
// generation are filled always; flags, times and the file id when asked;
// the parent id for every node but the root. Each value filled is marked
// supported. Takes and drops the node lock. Returns 0.
//
// Every file without clusters reports the file id 1: exFAT has no inode
// numbers, and the first cluster is the only stable number a file has.
int exfat_vnop_getattr(struct vnop_getattr_args* ap) {
  struct vnode_attr* vap = ap->a_vap;
  struct exfat_node* node = exfat_vnode_node(ap->a_vp);

  exfat_node_lock(node);
  exfat_getattr_common(node, vap);
  if (VATTR_IS_ACTIVE(vap, va_flags))
    VATTR_RETURN(vap, va_flags, exfat_attributes_to_flags(node));
  exfat_getattr_times(node, vap);
  if (VATTR_IS_ACTIVE(vap, va_fileid))
    VATTR_RETURN(vap, va_fileid, node->x_start_cluster != 0 ? node->x_start_cluster : 1);
  if (!(node->x_flags & X_ROOT))
    VATTR_RETURN(vap, va_parentid, node->x_dir_cluster);
  VATTR_RETURN(vap, va_fsid, static_cast<dev_t>(node->x_dev));
  VATTR_RETURN(vap, va_gen, 0);
  exfat_node_unlock(node);
  return 0;
}

// Changes a node's size, file flags and times, then rewrites its entry set
// in the parent and asks for a delayed metadata flush. Mode, owner and
// group requests are ignored and left unmarked.
//
// The caller holds no lock of the node: x_io_lock (for a size change) and
// the node lock are taken here, then the parent's through exfat_lock_parent;
// all are released on return. Returns 0; EPERM for a size change of a
// directory, link or other non-regular vnode; exfat_truncate's error (the
// page cache already has the new size); exfat_lock_parent's error (a size
// change stays done); EINVAL for a flag exFAT can't hold (a size change of
// the same request stays done, the flags and times are not changed); or
// exfat_node_update's error (the node keeps the new values).
int exfat_vnop_setattr(struct vnop_setattr_args* ap) {
  vnode_t vp = ap->a_vp;
  struct vnode_attr* vap = ap->a_vap;
  vfs_context_t context = ap->a_context;
  struct exfat_node* node = exfat_vnode_node(vp);
  lck_mtx_assert(node->x_io_lock, LCK_MTX_ASSERT_NOTOWNED);

  int error = exfat_setattr_size(vp, node, vap, context);
  if (error)
    return error;

  // Retried for as long as a rename moves the node while it waits.
  struct exfat_node* parent = nullptr;
  do {
    error = exfat_lock_parent(node, &parent);
  } while (error == ERESTART);
  if (error) {
    exfat_node_unlock(node);
    return error;
  }

  bool changed = VATTR_IS_ACTIVE(vap, va_data_size);
  if (VATTR_IS_ACTIVE(vap, va_flags)) {
    error = exfat_setattr_flags(node, vap);
    changed = true;
  }
  if (!error) {
    if (exfat_setattr_times(node, vap))
      changed = true;
    if (changed) {
      error = exfat_node_update(node, parent, context);
      exfat_meta_flush(node->x_mount, 0);
    }
  }

  if (parent != nullptr) {
    exfat_node_unlock(parent);
    vnode_put(parent->x_vnode);
  }
  exfat_node_unlock(node);
  return error;
}

// Answers a path-limit query: the value for `a_name` in *a_retval. Touches
// no node state and takes no lock. Returns 0, or EINVAL for a name the
// volume has no answer for (_PC_MAX_CANON, _PC_PIPE_BUF, _PC_VDISABLE …).
int exfat_vnop_pathconf(struct vnop_pathconf_args* ap) {
  int32_t value;
  switch (ap->a_name) {
    case kPcLinkMax:
      value = 1;
      break;
    case kPcNameMax:
      value = EXFAT_MAX_NAME_LENGTH;
      break;
    case kPcPathMax:
      value = 1024;
      break;
    case kPcChownRestricted:
      value = 1;
      break;
    case kPcNoTrunc:
      value = 0;
      break;
    case kPcCaseSensitive:
      value = 0;
      break;
    case kPcCasePreserving:
      value = 1;
      break;
    case kPcFileSizeBits:
      value = 64;
      break;
    default:
      return EINVAL;
  }
  *ap->a_retval = value;
  return 0;
}
