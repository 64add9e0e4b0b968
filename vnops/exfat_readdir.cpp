// Directory listing: the readdir vnode operation fills the caller's uio
// with directory records (vnops/exfat_dirent.h): "." and ".." first, then
// one record per File entry set in directory order, names converted from
// UTF-16 to decomposed UTF-8.
//
// Listing positions (uio offsets, "cookies") are multiples of 32:
//
//   0            the "." record
//   32           the ".." record
//   d + 64       the entry set whose File entry lies at directory offset d
//   x_size + 64  the end of the directory
//
// so that a listing can stop when the buffer is full and resume later at
// the set that did not fit. Between calls the directory may change; a
// resumed listing continues at the next set at or after its cookie.
// Extended records carry in d_seekoff the cookie right after themselves
// (after a set at d of n entries: d + 32n + 64), so that a caller can resume
// after any record of a batch without reading it again.

#include <cstring>

#include "exfat_dirent.h"
#include "exfat_proto.h"
#include "host/uio.h"
#include "host/utf8.h"
#include "host/vnode.h"

namespace {

constexpr uint64_t kDotCookie = 0;        // "."
constexpr uint64_t kSetCookieBase = 64;   // cookie of the set at directory offset 0
constexpr uint64_t kCookieStep = 32;      // cookies are entry-sized steps

// The record being built: one buffer large enough for either form.
union exfat_readdir_record {
  struct dirent32 rr_dirent;
  struct direntry rr_direntry;
};

// The listing context handed to the callback; lives on the stack of one
// readdir call.
struct exfat_readdir_context {
  uint64_t rc_offset;                  // offset of the set being processed
  struct vnop_readdir_args* rc_args;   // the call: uio, flags, outs
  struct exfat_node* rc_dir;           // the directory, locked by the caller
  union exfat_readdir_record rc_record;  // zeroed once per call
  uint16_t rc_name[EXFAT_MAX_NAME_LENGTH];  // the entry's name in UTF-16
};

// The BSD strlcpy: copies at most size - 1 bytes and always terminates.
// Returns the length of src. The platform's C library may lack it.
size_t exfat_strlcpy(char* dst, const char* src, size_t size) {
  size_t length = strlen(src);
  if (size != 0) {
    size_t n = length < size - 1 ? length : size - 1;
    memcpy(dst, src, n);
    dst[n] = '\0';
  }
  return length;
}

inline bool extended(const struct exfat_readdir_context* ctx) {
  return (ctx->rc_args->a_flags & VNODE_READDIR_EXTENDED) != 0;
}

// Fills the record header for a name of `namlen` bytes already in d_name
// and returns the record length; `after` is the cookie that follows it.
uint32_t fill_record(struct exfat_readdir_context* ctx, uint64_t ino, uint8_t type,
                     size_t namlen, uint64_t after) {
  if (extended(ctx)) {
    struct direntry* d = &ctx->rc_record.rr_direntry;
    d->d_ino = ino;
    d->d_seekoff = after;
    d->d_type = type;
    d->d_namlen = static_cast<uint16_t>(namlen);
    d->d_reclen = static_cast<uint16_t>(EXFAT_DIRENTRY_RECLEN(namlen));
    return d->d_reclen;
  }
  struct dirent32* d = &ctx->rc_record.rr_dirent;
  d->d_ino = static_cast<uint32_t>(ino);
  d->d_type = type;
  d->d_namlen = static_cast<uint8_t>(namlen);  // the low 8 bits, as the form has them
  d->d_reclen = static_cast<uint16_t>(EXFAT_DIRENT32_RECLEN(namlen));
  return d->d_reclen;
}

char* record_name(struct exfat_readdir_context* ctx) {
  return extended(ctx) ? ctx->rc_record.rr_direntry.d_name : ctx->rc_record.rr_dirent.d_name;
}

size_t record_name_limit(const struct exfat_readdir_context* ctx) {
  return extended(ctx) ? EXFAT_DIRENTRY_NAME_MAX : EXFAT_DIRENT32_NAME_MAX;
}

// Builds the "." (index 0) or ".." (index 1) record and returns its length.
// "." carries the directory's first cluster; ".." its parent's (the
// directory's own for the root, which has no parent).
uint32_t build_dot_record(struct exfat_readdir_context* ctx, uint64_t index) {
  const struct exfat_node* dir = ctx->rc_dir;
  const char* name = index == 0 ? "." : "..";
  uint64_t ino = dir->x_start_cluster;
  if (index == 1 && (dir->x_flags & X_ROOT) == 0)
    ino = dir->x_dir_cluster;
  size_t namlen = exfat_strlcpy(record_name(ctx), name, record_name_limit(ctx));
  return fill_record(ctx, ino, DT_DIR, namlen, kCookieStep * (index + 1));
}

// Moves the "." and ".." records that lie at or after cookie `o` out.
// Caller holds the directory's node lock. Returns 0 and sets *full when the
// buffer can't take the next record (the uio offset then points at it),
// 0 with *full clear when both are out, or uiomove's error (the uio offset
// points at the record that failed).
int readdir_dots(struct exfat_readdir_context* ctx, uint64_t o, bool* full) {
  uio_t uio = ctx->rc_args->a_uio;
  *full = false;
  for (uint64_t i = o / kCookieStep; i < 2; i++) {
    uint32_t reclen = build_dot_record(ctx, i);
    if (uio_resid(uio) < static_cast<user_ssize_t>(reclen)) {
      uio_setoffset(uio, static_cast<off_t>(kCookieStep * i));
      *full = true;
      return 0;
    }
    int error = uiomove(reinterpret_cast<const char*>(&ctx->rc_record),
                        static_cast<int>(reclen), uio);
    if (error) {
      uio_setoffset(uio, static_cast<off_t>(kCookieStep * i));
      return error;
    }
    (*ctx->rc_args->a_numdirent)++;
  }
  return 0;
}

// The record type of the File set at `offset` of `dir`: directories are
// DT_DIR; a file of exactly a link file's size may be a symbolic link,
// which only its contents tell: when its node is in memory its vnode type
// says, otherwise the record is DT_UNKNOWN and the caller asks for the
// real type; everything else is DT_REG.
uint8_t set_record_type(const struct exfat_node* dir, const uint8_t* set, uint32_t offset) {
  const auto* file = reinterpret_cast<const struct exfat_file_entry*>(set);
  const auto* stream =
      reinterpret_cast<const struct exfat_stream_entry*>(set + EXFAT_SET_STREAM_OFFSET);
  if (le16dec(file->FileAttributes) & EXFAT_ATTR_DIRECTORY)
    return DT_DIR;
  if (le64dec(stream->DataLength) != kSymlinkFileSize)
    return DT_REG;
  enum vtype type = exfat_hash_peek_type(dir->x_mount->xm_dev, dir->x_start_cluster, offset);
  return type == VLNK ? DT_LNK : type == VREG ? DT_REG : DT_UNKNOWN;
}

// The file number of a File set: its first cluster, or 1 for a file
// without clusters, matching the file ID that attribute queries report.
uint64_t set_record_ino(const uint8_t* set) {
  const auto* stream =
      reinterpret_cast<const struct exfat_stream_entry*>(set + EXFAT_SET_STREAM_OFFSET);
  uint32_t first_cluster = le32dec(stream->FirstCluster);
  return first_cluster != 0 ? first_cluster : 1;
}

// Copies the set's name, NameLength units taken 15 from each name entry in
// turn, into the context's UTF-16 buffer; returns the length in units.
uint32_t gather_name(struct exfat_readdir_context* ctx, const uint8_t* set) {
  const auto* stream =
      reinterpret_cast<const struct exfat_stream_entry*>(set + EXFAT_SET_STREAM_OFFSET);
  uint32_t length = stream->NameLength;
  for (uint32_t i = 0; i < length; i++) {
    const uint8_t* name_entry = set + EXFAT_SET_NAME_OFFSET +
                                EXFAT_ENTRY_SIZE * (i / EXFAT_NAME_CHARS_PER_ENTRY);
    const auto* fn = reinterpret_cast<const struct exfat_name_entry*>(name_entry);
    ctx->rc_name[i] = le16dec(fn->FileName + 2 * (i % EXFAT_NAME_CHARS_PER_ENTRY));
  }
  return length;
}

}  // namespace

// Iteration callback of a listing: turns one File set into a record and
// moves it into the uio. Sets of unknown benign primaries are passed over.
// A name too long for the record form is listed with the part that was
// converted; a name that can't be converted at all (an unpaired surrogate)
// marks the volume corrupt and is left out of the listing. Runs under the
// directory's node lock held by exfat_vnop_readdir.
//
// Returns 0 to go on; EXFAT_ITER_FOUND when the uio can't take the record
// (the uio offset then is the set's cookie, and rc_offset the set's
// offset); or an error from the conversion or uiomove, which ends the
// listing.
int exfat_readdir_callback(void* argument, uint8_t* set, uint8_t* entry, uint32_t offset) {
  (void) entry;  // set callbacks receive no single entry
  auto* ctx = static_cast<struct exfat_readdir_context*>(argument);
  lck_mtx_assert(ctx->rc_dir->x_lock, LCK_MTX_ASSERT_OWNED);
  ctx->rc_offset = offset;
  if (set[0] != EXFAT_ENTRY_FILE)
    return 0;

  uint8_t type = set_record_type(ctx->rc_dir, set, offset);
  uint64_t ino = set_record_ino(set);
  uint32_t length = gather_name(ctx, set);
  size_t namlen = 0;
  int error = utf8_encodestr(ctx->rc_name, length * sizeof(uint16_t),
                             reinterpret_cast<uint8_t*>(record_name(ctx)), &namlen,
                             record_name_limit(ctx), 0, UTF_DECOMPOSED | UTF_SFM_CONVERSIONS);
  if (error == EINVAL) {
    ctx->rc_dir->x_mount->xm_flags |= XM_CORRUPT;
    return 0;
  }
  if (error != 0 && error != ENAMETOOLONG)
    return error;

  uint32_t reclen =
      fill_record(ctx, ino, type, namlen, offset + (set[1] + 1u) * kCookieStep + kSetCookieBase);
  uio_t uio = ctx->rc_args->a_uio;
  if (uio_resid(uio) < static_cast<user_ssize_t>(reclen)) {
    uio_setoffset(uio, static_cast<off_t>(offset + kSetCookieBase));
    return EXFAT_ITER_FOUND;
  }
  error = uiomove(reinterpret_cast<const char*>(&ctx->rc_record), static_cast<int>(reclen), uio);
  if (error)
    return error;
  (*ctx->rc_args->a_numdirent)++;
  return 0;
}

// The readdir vnode operation: moves records from the listing position
// uio_offset(ap->a_uio) on into the uio, as many as fit, and leaves the uio
// offset at the position to resume from. *ap->a_numdirent receives the
// number of records; *ap->a_eofflag is set when the end of the directory
// was reached. Both out-pointers must be valid.
//
// Takes and releases the directory's node lock, which is held for the
// whole call so that a listing never sees a half-written entry set.
//
// Returns 0 (also when the buffer filled up, and with no records and end of
// file for a directory that has been removed); EINVAL when seek offsets are
// asked for or the position is not a multiple of 32; ENOTDIR; or an error
// of the directory walk or of uiomove, with the uio offset rewound to where
// the walk began.
int exfat_vnop_readdir(struct vnop_readdir_args* ap) {
  uio_t uio = ap->a_uio;
  *ap->a_numdirent = 0;
  *ap->a_eofflag = 0;
  if (ap->a_flags & VNODE_READDIR_REQSEEKOFF)
    return EINVAL;
  if (!vnode_isdir(ap->a_vp))
    return ENOTDIR;
  // Decision: a negative position can't be a cookie this driver handed out,
  // and is refused like a misaligned one.
  off_t position = uio_offset(uio);
  if (position < 0 || position % static_cast<off_t>(kCookieStep) != 0)
    return EINVAL;
  uint64_t o = static_cast<uint64_t>(position);

  struct exfat_node* dir = static_cast<struct exfat_node*>(vnode_fsnode(ap->a_vp));
  exfat_node_lock(dir);
  if (dir->x_flags & X_DELETED) {
    *ap->a_eofflag = 1;
    exfat_node_unlock(dir);
    return 0;
  }

  // Large (about 1.8 KiB) but short-lived; the record buffer is zeroed
  // once, here, and each record overwrites what it uses.
  struct exfat_readdir_context ctx;
  memset(&ctx, 0, sizeof(ctx));
  ctx.rc_offset = kDotCookie;
  ctx.rc_args = ap;
  ctx.rc_dir = dir;

  bool full = false;
  int error = readdir_dots(&ctx, o, &full);
  if (error || full) {
    exfat_node_unlock(dir);
    return error;
  }

  uint64_t cookie = o > kSetCookieBase ? o : kSetCookieBase;
  uint64_t start = cookie - kSetCookieBase;
  // Decision: no directory reaches 4 GiB, so a start beyond what the
  // walk's 32-bit offset can express lies past the end of any of them, and
  // is answered as the end of the directory.
  int result = 0;
  if (start <= UINT32_MAX)
    result = exfat_dir_iterate(dir, static_cast<uint32_t>(start), &ctx, exfat_readdir_callback,
                               ITER_SETS, ap->a_context);
  uint64_t next;
  if (result == 0) {
    *ap->a_eofflag = 1;
    next = dir->x_size + kSetCookieBase;
  } else if (result == EXFAT_ITER_FOUND) {
    next = ctx.rc_offset + kSetCookieBase;
    result = 0;
  } else {
    next = cookie;
  }
  uio_setoffset(uio, static_cast<off_t>(next));
  exfat_node_unlock(dir);
  return result;
}
