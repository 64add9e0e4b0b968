#pragma once
// mount.exvol: helpers shared by the FUSE operations, and the operations
// themselves (ops_nodes.cpp: names and attributes; ops_files.cpp: open
// files and directories). Every operation answers its request exactly once.

#include <sys/stat.h>

#include <system_error>

#include "fuse/daemon.h"

namespace exvol::fuse {

inline Daemon& daemon_of(fuse_req_t req) { return *static_cast<Daemon*>(fuse_req_userdata(req)); }
inline NodeId node_of(fuse_ino_t ino) { return static_cast<NodeId>(ino); }

// Answers with the errno an error carries; EIO if it carries none that the
// kernel would understand.
void reply_error(fuse_req_t req, std::error_code ec);

// Answers a request that made the kernel aware of `node` (one library
// reference held for it). If the answer can't be delivered (the request
// was interrupted), the kernel never counts the lookup, so the reference
// is given back here.
void reply_entry(fuse_req_t req, NodeId node, const Stat& st);

// Answers with a node's current attributes.
void reply_attr(fuse_req_t req, NodeId node);

// Names and attributes (ops_nodes.cpp).
void op_init(void* userdata, fuse_conn_info* conn);
void op_lookup(fuse_req_t req, fuse_ino_t parent, const char* name);
void op_forget(fuse_req_t req, fuse_ino_t ino, uint64_t nlookup);
void op_forget_multi(fuse_req_t req, size_t count, fuse_forget_data* forgets);
void op_getattr(fuse_req_t req, fuse_ino_t ino, fuse_file_info* fi);
void op_setattr(fuse_req_t req, fuse_ino_t ino, struct stat* attr, int to_set, fuse_file_info* fi);
void op_readlink(fuse_req_t req, fuse_ino_t ino);
void op_mknod(fuse_req_t req, fuse_ino_t parent, const char* name, mode_t mode, dev_t rdev);
void op_mkdir(fuse_req_t req, fuse_ino_t parent, const char* name, mode_t mode);
void op_unlink(fuse_req_t req, fuse_ino_t parent, const char* name);
void op_rmdir(fuse_req_t req, fuse_ino_t parent, const char* name);
void op_symlink(fuse_req_t req, const char* link, fuse_ino_t parent, const char* name);
void op_rename(fuse_req_t req, fuse_ino_t parent, const char* name, fuse_ino_t newparent,
               const char* newname, unsigned int flags);
void op_link(fuse_req_t req, fuse_ino_t ino, fuse_ino_t newparent, const char* newname);
void op_statfs(fuse_req_t req, fuse_ino_t ino);
void op_access(fuse_req_t req, fuse_ino_t ino, int mask);

// Open files and directories (ops_files.cpp).
void op_open(fuse_req_t req, fuse_ino_t ino, fuse_file_info* fi);
void op_create(fuse_req_t req, fuse_ino_t parent, const char* name, mode_t mode,
               fuse_file_info* fi);
void op_read(fuse_req_t req, fuse_ino_t ino, size_t size, off_t off, fuse_file_info* fi);
void op_write(fuse_req_t req, fuse_ino_t ino, const char* buf, size_t size, off_t off,
              fuse_file_info* fi);
void op_flush(fuse_req_t req, fuse_ino_t ino, fuse_file_info* fi);
void op_release(fuse_req_t req, fuse_ino_t ino, fuse_file_info* fi);
void op_fsync(fuse_req_t req, fuse_ino_t ino, int datasync, fuse_file_info* fi);
void op_opendir(fuse_req_t req, fuse_ino_t ino, fuse_file_info* fi);
void op_readdir(fuse_req_t req, fuse_ino_t ino, size_t size, off_t off, fuse_file_info* fi);
void op_readdirplus(fuse_req_t req, fuse_ino_t ino, size_t size, off_t off, fuse_file_info* fi);
void op_releasedir(fuse_req_t req, fuse_ino_t ino, fuse_file_info* fi);
void op_fsyncdir(fuse_req_t req, fuse_ino_t ino, int datasync, fuse_file_info* fi);

}  // namespace exvol::fuse
