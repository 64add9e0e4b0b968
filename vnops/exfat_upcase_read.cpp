// Reading the volume's up-case table at mount.
//
// The table is a file in the root directory, stored compressed. It is read
// in one request through a short-lived "<upcase>" system vnode (so the read
// goes through the ordinary block mapping), checked against the checksum in
// its directory entry and expanded into the flat table that name hashing
// and comparison index (exfat_upcase.cpp).

#include "exfat_proto.h"
#include "host/cluster.h"
#include "host/kern.h"
#include "host/uio.h"

namespace {

// Reads `length` bytes of the file vp from offset 0 into buffer with one
// cluster_read. Returns 0, ENOMEM when the request can't be made, the read's
// error, or EIO when the file ends early.
int exfat_upcase_read_file(vnode_t vp, uint8_t* buffer, uint32_t length) {
  uio_t uio = uio_create(1, 0, UIO_SYSSPACE, UIO_READ);
  if (uio == nullptr)
    return ENOMEM;
  int error = uio_addiov(uio, reinterpret_cast<user_addr_t>(buffer), length);
  if (error == 0)
    error = cluster_read(vp, uio, length, 0);
  // The checksum must never be computed over bytes that were not read.
  if (error == 0 && uio_resid(uio) != 0)
    error = EIO;
  uio_free(uio);
  return error;
}

}  // namespace

// Reads, checks and expands the up-case table whose entry stands at
// `offset` in the root directory dir_vp, and hangs the table on the mount as
// xm_upcase. The caller holds the root node's lock. Returns 0; EIO with
// XM_CORRUPT set (and a message) for a table that is too long, fails its
// checksum or is malformed; ENOMEM (with a message where memory for the
// table or the file runs out); or the system vnode's or the read's error.
// The table's vnode never outlives this call.
//
// A DataLength of 0 gets no file buffer and no read: the empty table then
// fails the checksum unless TableChecksum is 0, and is "too short" if it is.
int exfat_read_upcase(struct exfat_mount* mount, vnode_t dir_vp, uint32_t offset,
                      const uint8_t* entry) {
  const struct exfat_upcase_entry* upcase =
      reinterpret_cast<const struct exfat_upcase_entry*>(entry);
  lck_mtx_assert(static_cast<struct exfat_node*>(vnode_fsnode(dir_vp))->x_lock,
                 LCK_MTX_ASSERT_OWNED);
  uint64_t data_length = le64dec(upcase->DataLength);
  int error = exfat_upcase_check_length(mount, data_length);
  if (error)
    return error;
  uint32_t length = static_cast<uint32_t>(data_length);

  uint16_t* table = static_cast<uint16_t*>(OSMalloc(EXFAT_UPCASE_TABLE_SIZE, exfat_malloc_tag));
  if (table == nullptr) {
    kprintf("exfat: No memory to allocate upcase table!");
    return ENOMEM;
  }
  uint8_t* buffer = nullptr;
  if (length != 0) {
    buffer = static_cast<uint8_t*>(OSMalloc(length, exfat_malloc_tag));
    if (buffer == nullptr) {
      kprintf("exfat: No memory for compressed upcase table");
      OSFree(table, EXFAT_UPCASE_TABLE_SIZE, exfat_malloc_tag);
      return ENOMEM;
    }
  }

  vnode_t vp = NULLVP;
  error = exfat_system_node_get(mount, dir_vp, "<upcase>", offset, le32dec(upcase->FirstCluster),
                                length, &vp);
  if (error == 0 && length != 0)
    error = exfat_upcase_read_file(vp, buffer, length);
  if (error == 0)
    error = exfat_upcase_load(mount, buffer, length, le32dec(upcase->TableChecksum), table);
  if (error == 0) {
    mount->xm_upcase = table;
    table = nullptr;
  }

  if (vp != NULLVP) {
    vnode_recycle(vp);
    vnode_put(vp);
  }
  if (buffer != nullptr)
    OSFree(buffer, length, exfat_malloc_tag);
  if (table != nullptr)
    OSFree(table, EXFAT_UPCASE_TABLE_SIZE, exfat_malloc_tag);
  return error;
}
