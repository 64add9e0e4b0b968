// Operation-table entries whose operations are not written yet.
//
// The registration tables name every operation the file system will have.
// Those below refuse with ENOTSUP, the same answer the kernel's default
// entry gives, so that a caller sees an honest "not supported" rather than
// a half-done operation. Each one is replaced, and removed from this file,
// when its operation is written.

#include "exfat_proto.h"
#include "host/cluster.h"
#include "host/kern.h"

int exfat_vnop_getattr(struct vnop_getattr_args* ap) {
  return ENOTSUP;
}

int exfat_vnop_setattr(struct vnop_setattr_args* ap) {
  return ENOTSUP;
}

int exfat_vnop_pathconf(struct vnop_pathconf_args* ap) {
  return ENOTSUP;
}

// Renaming the volume needs free-slot search in the root directory.
int exfat_vfs_setattr(mount_t mp, struct vfs_attr* attr, vfs_context_t context) {
  return ENOTSUP;
}
