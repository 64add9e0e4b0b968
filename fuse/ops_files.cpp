// mount.exvol: the FUSE operations on open files and directories.
//
// A FUSE file handle is a Handle (daemon.h) holding a libexvol File. Reads
// and writes are positional (pread/pwrite), so requests on one handle run
// in parallel on the session's threads.

#include <fcntl.h>

#include <cerrno>
#include <vector>

#include "fuse/access.h"
#include "fuse/ops.h"

namespace exvol::fuse {

namespace {

// The open flags the library is given: access mode, O_TRUNC (the kernel
// sends it with open), O_APPEND and synchronous writes. The kernel has
// dealt with the others (O_CREAT, O_NOCTTY, O_CLOEXEC ...) already.
int library_flags(int kernel_flags, const Config& c) {
  int flags = kernel_flags & (O_ACCMODE | O_TRUNC | O_APPEND | O_EXCL);
  if ((kernel_flags & O_DSYNC) || c.sync_writes)
    flags |= O_SYNC;
  return flags;
}

// Registers the handle of a newly opened file of `node` in fi.
void add_handle(Daemon& d, fuse_file_info* fi, NodeId node, File file, bool directory) {
  auto h = std::make_unique<Handle>();
  h->file = std::move(file);
  h->node = node;
  h->directory = directory;
  h->writable = !directory && (h->file.flags() & O_ACCMODE) != O_RDONLY;
  bool h_writable = h->writable;
  fi->fh = d.add_handle(std::move(h));
  // Nothing but this daemon changes the volume, and the kernel drops what
  // it cached of a file or listing it changes itself, so what it has
  // cached stays true from one open to the next.
  fi->keep_cache = 1;
  if (directory)
    fi->cache_readdir = 1;
  // Only a handle that can write has anything to do at close(2) (see
  // op_flush), and this daemon keeps no POSIX locks the kernel would ask
  // it to drop: the others spare that request.
  if (!directory && !h_writable)
    fi->noflush = 1;
}

// Hands an open File to the kernel. If the reply can't be delivered the
// kernel will never release the handle, so it is closed here.
void reply_open(fuse_req_t req, fuse_file_info* fi, NodeId node, File file, bool directory) {
  Daemon& d = daemon_of(req);
  add_handle(d, fi, node, std::move(file), directory);
  if (fuse_reply_open(req, fi) != 0)
    d.close_handle(fi->fh);
}

// The file's close errors have nowhere to go: close(2) returned already.
void release_handle(fuse_req_t req, fuse_file_info* fi) {
  daemon_of(req).close_handle(fi->fh);
  fuse_reply_err(req, 0);
}

// One listing reply in the making: up to `size` bytes of entries.
struct ListingBuffer {
  explicit ListingBuffer(size_t size) : bytes(size) {}
  std::vector<char> bytes;
  size_t used = 0;
  size_t room() const { return bytes.size() - used; }
  char* end() { return bytes.data() + used; }
};

mode_t type_bits(FileType type) {
  switch (type) {
    case FileType::Directory:
      return S_IFDIR;
    case FileType::Symlink:
      return S_IFLNK;
    default:
      return S_IFREG;
  }
}

// The id that "." and ".." of a listing report. The kernel holds every
// directory above one it knows, so the parent's id is held already and the
// lookup only adds a reference that is given back at once.
fuse_ino_t dot_ino(Daemon& d, fuse_ino_t dir, const std::string& name) {
  if (name == "." || dir == FUSE_ROOT_ID)
    return dir;
  NodeId parent;
  if (d.volume().lookup(node_of(dir), "..", &parent))
    return dir;
  d.volume().unref(parent, 1);
  return static_cast<fuse_ino_t>(parent);
}

bool is_dot(const std::string& name) { return name == "." || name == ".."; }

// Replies to a listing, or to its failure when nothing could be listed.
// Returns whether the reply reached the kernel.
bool reply_listing(fuse_req_t req, std::error_code ec, const ListingBuffer& buf) {
  if (ec && buf.used == 0) {
    reply_error(req, ec);
    return true;
  }
  return fuse_reply_buf(req, buf.bytes.data(), buf.used) == 0;
}

}  // namespace

void op_open(fuse_req_t req, fuse_ino_t ino, fuse_file_info* fi) {
  if (access::refused(req, access::may_open(req, ino, fi->flags)))
    return;
  Daemon& d = daemon_of(req);
  d.initialized();
  File file;
  std::error_code ec =
      d.volume().open(node_of(ino), library_flags(fi->flags, d.config()) & ~O_EXCL, &file);
  if (ec)
    reply_error(req, ec);
  else
    reply_open(req, fi, node_of(ino), std::move(file), false);
}

// The mode is not kept (exFAT has none): the new file reports the mount's.
void op_create(fuse_req_t req, fuse_ino_t parent, const char* name, mode_t, fuse_file_info* fi) {
  if (access::refused(req, access::may_change_dir(req, parent)))
    return;
  Daemon& d = daemon_of(req);
  File file;
  NodeId node;
  Stat st;
  std::error_code ec = d.volume().create(node_of(parent), name,
                                         library_flags(fi->flags, d.config()) | O_CREAT, &file,
                                         &node, &st);
  if (ec) {
    reply_error(req, ec);
    return;
  }
  add_handle(d, fi, node, std::move(file), false);
  fuse_entry_param e = d.entry(node, st);
  if (fuse_reply_create(req, &e, fi) != 0) {
    d.close_handle(fi->fh);
    d.volume().unref(node, 1);
  }
}

void op_read(fuse_req_t req, fuse_ino_t, size_t size, off_t off, fuse_file_info* fi) {
  // One buffer per session thread, as large as the largest request, so
  // that large reads don't map and unmap fresh memory every time.
  thread_local std::vector<char> buffer;
  if (buffer.size() < size)
    buffer.resize(size);
  size_t done = 0;
  Handle& h = Daemon::handle(fi->fh);
  if (!h.ever_read.load(std::memory_order_relaxed))
    h.ever_read.store(true);
  std::error_code ec = h.file.pread(buffer.data(), size, off, &done);
  if (ec && done == 0)
    reply_error(req, ec);
  else
    fuse_reply_buf(req, buffer.data(), done);
}

// A short write (the volume filled up) reports what was written; the
// kernel then retries the rest and gets ENOSPC.
void op_write(fuse_req_t req, fuse_ino_t, const char* buf, size_t size, off_t off,
              fuse_file_info* fi) {
  size_t done = 0;
  Handle& h = Daemon::handle(fi->fh);
  std::error_code ec = h.file.pwrite(buf, size, off, &done);
  if (done != 0) {
    h.written.store(true);
    h.ever_written.store(true);
  }
  if (ec && done == 0)
    reply_error(req, ec);
  else
    fuse_reply_write(req, done);
}

// close(2) of a descriptor: a handle written since its last flush is
// synced, so that close reports write errors (see daemon.h).
void op_flush(fuse_req_t req, fuse_ino_t, fuse_file_info* fi) {
  Handle& h = Daemon::handle(fi->fh);
  std::error_code ec;
  if (h.written.exchange(false)) {
    ec = h.file.fsync();
    daemon_of(req).drop_attrs(h.node);
  }
  fuse_reply_err(req, ec.value());
}

void op_release(fuse_req_t req, fuse_ino_t, fuse_file_info* fi) { release_handle(req, fi); }

void op_fsync(fuse_req_t req, fuse_ino_t, int, fuse_file_info* fi) {
  fuse_reply_err(req, Daemon::handle(fi->fh).file.fsync().value());
}

void op_opendir(fuse_req_t req, fuse_ino_t ino, fuse_file_info* fi) {
  if (access::refused(req, access::may_opendir(req, ino)))
    return;
  File file;
  std::error_code ec = daemon_of(req).volume().open(node_of(ino), O_RDONLY | O_DIRECTORY, &file);
  if (ec)
    reply_error(req, ec);
  else
    reply_open(req, fi, node_of(ino), std::move(file), true);
}

// Plain listings carry no reference, so names other than "." and ".."
// can't report a held id; they report the "unknown" inode number instead
// of one that stat would contradict. The kernel lists with attributes
// (op_readdirplus) whenever it can.
void op_readdir(fuse_req_t req, fuse_ino_t ino, size_t size, off_t off, fuse_file_info* fi) {
  Daemon& d = daemon_of(req);
  ListingBuffer buf(size);
  auto add = [&](const DirEntry& e) {
    struct stat st {};
    st.st_ino = is_dot(e.name) ? dot_ino(d, ino, e.name) : 0xffffffffu;
    st.st_mode = type_bits(e.type);
    size_t need =
        fuse_add_direntry(req, buf.end(), buf.room(), e.name.c_str(), &st, static_cast<off_t>(e.cookie));
    if (need > buf.room())
      return false;
    buf.used += need;
    return true;
  };
  std::error_code ec = Daemon::handle(fi->fh).file.readdir(static_cast<uint64_t>(off), add);
  reply_listing(req, ec, buf);
}

// Each name but "." and ".." is looked up, and the kernel counts the
// lookup. A name that can't be looked up any more (removed since it was
// listed) is left out. If the reply doesn't reach the kernel, the
// references taken are given back.
void op_readdirplus(fuse_req_t req, fuse_ino_t ino, size_t size, off_t off, fuse_file_info* fi) {
  Daemon& d = daemon_of(req);
  ListingBuffer buf(size);
  std::vector<NodeId> taken;
  auto add = [&](const DirEntry& e) {
    fuse_entry_param ep{};
    size_t need = fuse_add_direntry_plus(req, nullptr, 0, e.name.c_str(), &ep,
                                         static_cast<off_t>(e.cookie));
    if (need > buf.room())
      return false;
    if (is_dot(e.name)) {
      // The kernel takes no reference for these: ino 0 says so.
      ep.attr.st_ino = dot_ino(d, ino, e.name);
      ep.attr.st_mode = S_IFDIR;
    } else {
      NodeId node;
      Stat st;
      if (d.volume().lookup(node_of(ino), e.name, &node, &st))
        return true;
      taken.push_back(node);
      ep = d.entry(node, st);
    }
    fuse_add_direntry_plus(req, buf.end(), buf.room(), e.name.c_str(), &ep,
                           static_cast<off_t>(e.cookie));
    buf.used += need;
    return true;
  };
  std::error_code ec = Daemon::handle(fi->fh).file.readdir(static_cast<uint64_t>(off), add);
  if (!reply_listing(req, ec, buf)) {
    for (NodeId node : taken)
      d.volume().unref(node, 1);
  }
}

void op_releasedir(fuse_req_t req, fuse_ino_t, fuse_file_info* fi) { release_handle(req, fi); }

// A directory's entries live in its blocks and its files' entry sets; the
// volume's sync writes both.
void op_fsyncdir(fuse_req_t req, fuse_ino_t, int, fuse_file_info*) {
  fuse_reply_err(req, daemon_of(req).volume().sync(true).value());
}

}  // namespace exvol::fuse
