#pragma once
// mount.exvol: who may do what, when the daemon checks it (Config's
// check_access) rather than the kernel.
//
// The kernel's own checks (default_permissions) refuse explicit times to
// anyone but the owner before the daemon sees the request, so a mount
// whose allow_utime lets others set them does every check here instead,
// the way the kernel would against the owner and modes the mount reports:
//
//   - search (x) on the directory a name is looked up in;
//   - read and write on open and opendir by the access mode (O_TRUNC
//     writes);
//   - write and search on the directory for create, mknod, mkdir,
//     symlink, unlink, rmdir, and on both directories for rename. No
//     directory can show the sticky bit (the masks keep only 0777), so
//     there is no sticky rule;
//   - only the owner may chmod or chown; truncating by name needs write;
//   - times: the owner; a group member when allow_utime has 020, anyone
//     when it has 002; and "now" (both times) whoever may write the file;
//   - root may do all of that (CAP_DAC_OVERRIDE, CAP_FOWNER); execute
//     bits are the kernel's to check, which it still does.
//
// Every file and directory has the same owner and group, and all
// directories the same mode, so the caller's class (owner, group, other)
// is one answer per request. Supplementary groups are read only when the
// answer depends on them (the caller is neither owner nor in the group
// by its own gid).
//
// Each check returns 0 or the errno to answer with, and costs nothing but
// a test of check_access on mounts where the kernel checks.
//
// What the daemon can't see: the kernel walks paths through names it has
// cached without asking, so a caller that may not search directories still
// reaches names others looked up. Lookups of new names, getattr once the
// kernel's attributes expire (a second), opens and every change are
// refused to it all the same.

#include <sys/stat.h>

#include "fuse/daemon.h"

namespace exvol::fuse::access {

// Whether the caller may access a node with the kernel mode in `st`
// (mask of R_OK, W_OK, X_OK): owner, group or other bits by the caller's
// class; root needs an execute bit only to execute a file.
bool permitted(fuse_req_t req, const Config& c, const struct stat& st, int mask);

// The checks themselves, for the operations of the same name.
int may_lookup(fuse_req_t req, fuse_ino_t dir);
int may_getattr(fuse_req_t req, fuse_ino_t ino);
int may_change_dir(fuse_req_t req, fuse_ino_t dir);  // names added or removed
int may_rename(fuse_req_t req, fuse_ino_t from, fuse_ino_t to);
int may_open(fuse_req_t req, fuse_ino_t ino, int flags);
int may_opendir(fuse_req_t req, fuse_ino_t dir);
int may_setattr(fuse_req_t req, fuse_ino_t ino, int to_set, const fuse_file_info* fi);

// Answers a request a check refused: `if (refused(req, may_...)) return;`
inline bool refused(fuse_req_t req, int error) {
  if (error != 0)
    fuse_reply_err(req, error);
  return error != 0;
}

}  // namespace exvol::fuse::access
