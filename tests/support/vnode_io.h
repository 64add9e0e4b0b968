#pragma once
// Whole-file and whole-directory access through the vnode operations, for
// the tests that drive a mounted volume the way the kernel's system calls
// would: read a file to its end, write at an offset, list a directory to
// its end, read a link, fetch a size, look a name up. Every helper returns
// the operation's errno and never asserts, so that tests on damaged or
// failing volumes can decide what an error means.
//
// Loops that depend on what the volume reports (listing positions, read
// offsets) are bounded, so that a driver that never reports the end fails
// with ELOOP here instead of spinning.

#include <cstdint>
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "host/uio.h"
#include "host/vfs.h"
#include "host/vnode.h"
#include "vnops/exfat_dirent.h"

namespace exvol::test {

// One transfer through VNOP_READ or VNOP_WRITE and what it left in its uio.
struct Transfer {
  int error = 0;
  std::vector<uint8_t> data;  // read: the bytes that came back
  off_t offset = 0;           // the uio's offset afterwards
  user_ssize_t resid = 0;     // the uio's residual count afterwards
};

inline Transfer vn_read(vnode_t vp, off_t offset, size_t length, int ioflag = 0) {
  Transfer t;
  std::vector<uint8_t> buffer(length, 0xA5);
  uio_t uio = uio_create(1, offset, UIO_SYSSPACE, UIO_READ);
  uio_addiov(uio, reinterpret_cast<user_addr_t>(buffer.data()), length);
  t.error = VNOP_READ(vp, uio, ioflag, vfs_context_kernel());
  t.offset = uio_offset(uio);
  t.resid = uio_resid(uio);
  buffer.resize(length - static_cast<size_t>(t.resid));
  t.data = std::move(buffer);
  uio_free(uio);
  return t;
}

inline Transfer vn_write(vnode_t vp, off_t offset, const std::vector<uint8_t>& data,
                         int ioflag = 0) {
  Transfer t;
  uio_t uio = uio_create(1, offset, UIO_SYSSPACE, UIO_WRITE);
  uio_addiov(uio, reinterpret_cast<user_addr_t>(data.data()), data.size());
  t.error = VNOP_WRITE(vp, uio, ioflag, vfs_context_kernel());
  t.offset = uio_offset(uio);
  t.resid = uio_resid(uio);
  uio_free(uio);
  return t;
}

// Reads from offset 0 in `chunk`-byte requests until a read moves nothing;
// at most `limit` bytes are kept (the rest is an error: EFBIG).
inline int vn_read_all(vnode_t vp, std::vector<uint8_t>* out, size_t limit = 1u << 22,
                       size_t chunk = 3000) {
  out->clear();
  for (;;) {
    Transfer t = vn_read(vp, static_cast<off_t>(out->size()), chunk);
    if (t.error != 0 || t.data.empty())
      return t.error;
    if (out->size() + t.data.size() > limit)
      return EFBIG;
    out->insert(out->end(), t.data.begin(), t.data.end());
  }
}

// Writes all of `data` at `offset`; a short write without an error is EIO.
inline int vn_write_at(vnode_t vp, off_t offset, const std::vector<uint8_t>& data,
                       int ioflag = 0) {
  Transfer t = vn_write(vp, offset, data, ioflag);
  return t.error != 0 ? t.error : (t.resid != 0 ? EIO : 0);
}

// One entry of a listing.
struct DirRecord {
  std::string name;
  uint8_t type = 0;  // DT_*
  uint64_t ino = 0;
};

// Lists a directory to its end in the extended record form, without "."
// and "..". EINVAL when a record is malformed, ELOOP when the listing
// never ends.
inline int vn_list(vnode_t dvp, std::vector<DirRecord>* out, size_t buffer_size = 700) {
  out->clear();
  std::vector<uint8_t> buffer(buffer_size);
  off_t offset = 0;
  for (int calls = 0; calls < 10000; calls++) {
    uio_t uio = uio_create(1, offset, UIO_SYSSPACE, UIO_READ);
    uio_addiov(uio, reinterpret_cast<user_addr_t>(buffer.data()), buffer.size());
    int eof = 0, count = 0;
    int error = VNOP_READDIR(dvp, uio, VNODE_READDIR_EXTENDED, &eof, &count,
                             vfs_context_kernel());
    size_t used = buffer.size() - static_cast<size_t>(uio_resid(uio));
    off_t next = uio_offset(uio);
    uio_free(uio);
    if (error)
      return error;
    for (size_t at = 0; at < used;) {
      struct direntry d;
      memset(&d, 0, sizeof(d));
      memcpy(&d, &buffer[at], std::min(sizeof(d), used - at));
      if (d.d_reclen == 0 || at + d.d_reclen > used ||
          offsetof(struct direntry, d_name) + d.d_namlen >= d.d_reclen)
        return EINVAL;
      std::string name(d.d_name, d.d_namlen);
      if (name != "." && name != "..")
        out->push_back(DirRecord{name, d.d_type, d.d_ino});
      at += d.d_reclen;
    }
    if (eof || used == 0)
      return 0;
    if (next <= offset)
      return ELOOP;
    offset = next;
  }
  return ELOOP;
}

// The target of a symbolic link.
inline int vn_readlink(vnode_t vp, std::string* target) {
  std::vector<char> buffer(2048);
  uio_t uio = uio_create(1, 0, UIO_SYSSPACE, UIO_READ);
  uio_addiov(uio, reinterpret_cast<user_addr_t>(buffer.data()), buffer.size());
  int error = VNOP_READLINK(vp, uio, vfs_context_kernel());
  size_t used = buffer.size() - static_cast<size_t>(uio_resid(uio));
  uio_free(uio);
  if (error == 0)
    target->assign(buffer.data(), used);
  return error;
}

// The data size and type that getattr reports.
inline int vn_size(vnode_t vp, uint64_t* size) {
  struct vnode_attr va;
  VATTR_INIT(&va);
  VATTR_WANTED(&va, va_data_size);
  int error = VNOP_GETATTR(vp, &va, vfs_context_kernel());
  if (error == 0)
    *size = static_cast<uint64_t>(va.va_data_size);
  return error;
}

// Truncates or extends a file through setattr.
inline int vn_set_size(vnode_t vp, uint64_t size) {
  struct vnode_attr va;
  VATTR_INIT(&va);
  VATTR_SET(&va, va_data_size, static_cast<off_t>(size));
  return VNOP_SETATTR(vp, &va, vfs_context_kernel());
}

// A componentname of the last component of a path, with its own name
// buffer, kept alive across calls.
struct Component {
  std::string name;
  struct componentname cn = {};
  Component(const std::string& n, uint32_t nameiop, uint32_t flags = ISLASTCN | MAKEENTRY)
      : name(n) {
    cn.cn_nameiop = nameiop;
    cn.cn_flags = flags;
    cn.cn_nameptr = name.data();
    cn.cn_namelen = static_cast<int>(name.size());
    cn.cn_pnbuf = name.data();
    cn.cn_pnlen = static_cast<int>(name.size());
  }
  Component(const Component&) = delete;
  Component& operator=(const Component&) = delete;
};

// A lookup of one name in dvp for `nameiop`; the vnode comes back with an
// I/O reference the caller drops with vnode_put.
inline int vn_lookup(vnode_t dvp, const std::string& name, vnode_t* vpp,
                     uint32_t nameiop = LOOKUP) {
  Component c(name, nameiop);
  *vpp = NULLVP;
  return VNOP_LOOKUP(dvp, vpp, &c.cn, vfs_context_kernel());
}

}  // namespace exvol::test
