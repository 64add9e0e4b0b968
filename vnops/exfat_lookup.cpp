// Lookup: one pathname component, as the VFS hands it over (UTF-8 bytes in
// a componentname), turned into a vnode of the directory being searched.
//
// Two layers. exfat_lookup_componentname finds the entry set of a name in a
// directory; remove, rmdir and rename use it too, to find their victims
// again under their own locks. exfat_vnop_lookup adds what the VFS expects
// of the operation: ".", "..", the kernel name cache with positive and
// negative entries, and the answer EJUSTRETURN for a name that a create or a
// rename is about to use.
//
// Names compare case-insensitively through the volume's up-case table and
// keep their case on disk. Every comparison is guarded first by the 16-bit
// name hash and the length stored in the Stream Extension, so a full
// comparison runs only for likely matches.

#include "exfat_dirindex.h"
#include "exfat_proto.h"
#include "host/kern.h"
#include "host/namecache.h"
#include "host/utf8.h"
#include "host/vnode.h"

namespace {

// The UTF-16 form of one component: 255 units at most, the longest name an
// entry set can hold. The buffer has room for 256 so that the conversion's
// limit (510 bytes) is what refuses a longer name.
constexpr size_t kNameBufferBytes = 512;
constexpr size_t kNameLimitBytes = 510;

// What one search looks for and where it reports the match. Lives on the
// stack of exfat_lookup_name for the length of one directory walk.
struct exfat_lookup_arg {
  const uint16_t* la_name;    // the sought name, UTF-16
  uint32_t* la_offset;        // receives the matching set's offset; may be NULL
  uint32_t* la_count;         // receives SecondaryCount + 1; may be NULL
  uint64_t la_length;         // name length in UTF-16 units
  uint16_t la_hash;           // exfat_name_hash of the name
  const uint16_t* la_upcase;  // the mount's up-case table
};

// Unit `i` of the name stored in a File set (name entry i / 15, position
// i mod 15).
inline uint16_t set_name_unit(const uint8_t* set, uint32_t i) {
  const uint8_t* name_entry = set + EXFAT_SET_NAME_OFFSET +
                              EXFAT_ENTRY_SIZE * (i / EXFAT_NAME_CHARS_PER_ENTRY);
  const auto* fn = reinterpret_cast<const struct exfat_name_entry*>(name_entry);
  return le16dec(fn->FileName + 2 * (i % EXFAT_NAME_CHARS_PER_ENTRY));
}

// True when the component is exactly ".".
inline bool is_dot(const struct componentname* cnp) {
  return cnp->cn_namelen == 1 && cnp->cn_nameptr[0] == '.';
}

// Answers "." (and ".." of the root) with the directory itself. Caller holds
// the directory's node lock and an I/O reference on dvp; the lock is
// released here. The reference taken can't fail in practice (the caller's
// own reference keeps the vnode alive); should it fail, its error is
// returned and *vpp stays NULL.
int lookup_self(struct exfat_node* dir, vnode_t dvp, vnode_t* vpp) {
  int error = vnode_get(dvp);
  if (!error)
    *vpp = dvp;
  exfat_node_unlock(dir);
  return error;
}

// Answers ".." of a directory other than the root with its parent's vnode.
// Caller holds the directory's node lock, which is released here; the
// parent's node lock is not taken. A live, non-deleted directory always has
// a parent node with a vnode (the child's vnode holds a reference on the
// parent's), so a missing one is a broken invariant and fatal.
int lookup_dotdot(struct exfat_node* dir, vnode_t* vpp) {
  struct exfat_node* parent = dir->x_parent;
  if (parent == nullptr)
    panic("exfat_vnop_lookup: ex_parent == NULL when looking for ..\n");
  vnode_t parent_vp = parent->x_vnode;
  if (parent_vp == NULLVP)
    panic("exfat_vnop_lookup: vp == NULL when looking for ..\n");
  int error = vnode_get(parent_vp);
  if (!error)
    *vpp = parent_vp;
  exfat_node_unlock(dir);
  return error;
}

// Decides what a name that is not in the directory means for this lookup.
// Caller holds the directory's node lock, released here. Returns
// EJUSTRETURN when the last component is about to be created or renamed to
// (no negative entry: the name will exist in a moment), else ENOENT, after
// entering a negative name-cache entry when the VFS asked for caching and
// the operation is not a create.
int lookup_missing(struct exfat_node* dir, vnode_t dvp, struct componentname* cnp) {
  uint32_t op = cnp->cn_nameiop;
  if ((cnp->cn_flags & ISLASTCN) && (op == CREATE || op == RENAME)) {
    exfat_node_unlock(dir);
    return EJUSTRETURN;
  }
  if ((cnp->cn_flags & MAKEENTRY) && op != CREATE)
    cache_enter(dvp, NULLVP, cnp);
  exfat_node_unlock(dir);
  return ENOENT;
}

}  // namespace

// Iteration callback of a name search: the set matches when it is a File
// set whose stored hash, length and up-cased name equal the sought ones.
// The cheapest tests come first. On a match the set's offset and entry
// count are stored (each only where asked for) and the walk stops with
// EXFAT_ITER_FOUND; otherwise the walk goes on (0). The set copy is complete
// and validated by the iterator, so every name entry its NameLength implies
// is present. Runs under the directory's node lock held by the walker.
int exfat_lookup_callback(void* argument, uint8_t* set, uint8_t* entry, uint32_t offset) {
  (void) entry;  // set callbacks receive no single entry
  const auto* arg = static_cast<const struct exfat_lookup_arg*>(argument);
  // Unknown benign primaries are gathered as sets too, but never name a file.
  if (set[0] != EXFAT_ENTRY_FILE)
    return 0;
  const auto* stream =
      reinterpret_cast<const struct exfat_stream_entry*>(set + EXFAT_SET_STREAM_OFFSET);
  if (le16dec(stream->NameHash) != arg->la_hash)
    return 0;
  if (stream->NameLength != arg->la_length)
    return 0;
  const uint16_t* upcase = arg->la_upcase;
  for (uint32_t i = 0; i < arg->la_length; i++) {
    if (upcase[arg->la_name[i]] != upcase[set_name_unit(set, i)])
      return 0;
  }
  if (arg->la_offset != nullptr)
    *arg->la_offset = offset;
  if (arg->la_count != nullptr)
    *arg->la_count = static_cast<uint32_t>(set[1]) + 1;
  return EXFAT_ITER_FOUND;
}

// Searches directory `dir` for a name already in UTF-16 form with its
// length (units) and hash. The first matching set in directory order wins.
// The directory's index says where sets of that hash lie; without a usable
// one the whole directory is walked.
// Caller holds the directory's node lock, still held on return. Returns 0
// with *offset (the set's File entry) and *count (entries of the set) filled
// where given; ENOENT when no set matches; or the iteration's error (EIO for
// a corrupt directory, ENOMEM, an I/O error).
int exfat_lookup_name(struct exfat_node* dir, const uint16_t* name, uint32_t length,
                      uint16_t hash, const uint16_t* upcase, uint32_t* offset, uint32_t* count,
                      vfs_context_t context) {
  lck_mtx_assert(dir->x_lock, LCK_MTX_ASSERT_OWNED);
  struct exfat_lookup_arg arg = {name, offset, count, length, hash, upcase};
  int error = exfat_dirindex_find_set(dir, name, length, &arg, exfat_lookup_callback,
                                      context);
  if (error == EXFAT_DIRINDEX_NONE)
    error = exfat_dir_iterate(dir, 0, &arg, exfat_lookup_callback, ITER_SETS, context);
  if (error == EXFAT_ITER_FOUND)
    return 0;
  if (error == 0)
    return ENOENT;
  return error;
}

// Searches directory `dir` for the component cnp names. The component is
// converted to precomposed UTF-16, with the characters that the SFM scheme
// covers mapped to their private-use code points, which is how names are
// stored; then hashed and searched as exfat_lookup_name does. Caller holds
// the directory's node lock, still held on return. Returns 0 with the outs
// filled where given; ENOENT when absent; the conversion's error
// (ENAMETOOLONG for more than 255 units, EINVAL for ill-formed UTF-8), in
// which case the directory has not been read; or the iteration's error.
int exfat_lookup_componentname(struct exfat_node* dir, struct componentname* cnp,
                               uint32_t* offset, uint32_t* count, vfs_context_t context) {
  lck_mtx_assert(dir->x_lock, LCK_MTX_ASSERT_OWNED);
  uint16_t name[kNameBufferBytes / sizeof(uint16_t)];
  size_t bytes = 0;
  int error = utf8_decodestr(reinterpret_cast<const uint8_t*>(cnp->cn_nameptr),
                             static_cast<size_t>(cnp->cn_namelen), name, &bytes, kNameLimitBytes,
                             0, UTF_PRECOMPOSED | UTF_SFM_CONVERSIONS);
  if (error)
    return error;
  uint32_t length = static_cast<uint32_t>(bytes / sizeof(uint16_t));
  const uint16_t* upcase = dir->x_mount->xm_upcase;
  uint16_t hash = exfat_name_hash(upcase, static_cast<uint8_t>(length % 256), name);
  return exfat_lookup_name(dir, name, length, hash, upcase, offset, count, context);
}

// The lookup vnode operation: finds the component ap->a_cnp in directory
// ap->a_dvp and returns its vnode in *ap->a_vpp with an I/O reference.
//
// The name cache is asked before any lock is taken. The directory's node
// lock is held from then until the answer is known; for a found name it is
// handed to exfat_node_get, which drops it before it can wait on the
// child's vnode. No node lock of the child, or of the parent for "..", is
// taken here. When the node layer meets a vnode that is being recycled
// (ENOENT from exfat_node_get), the whole lookup starts again.
//
// Returns 0 with the vnode; ENOENT when the name is absent or the
// directory has been removed; EJUSTRETURN for an absent last component of a
// CREATE or RENAME; ENAMETOOLONG or EINVAL from the conversion; EIO, ENOMEM
// or an I/O error from the directory walk or the node layer.
int exfat_vnop_lookup(struct vnop_lookup_args* ap) {
  vnode_t dvp = ap->a_dvp;
  struct componentname* cnp = ap->a_cnp;
  struct exfat_node* dir = static_cast<struct exfat_node*>(vnode_fsnode(dvp));

  for (;;) {
    *ap->a_vpp = NULLVP;
    int error = cache_lookup(dvp, ap->a_vpp, cnp);
    if (error == -1)
      return 0;  // positive hit: the cache took the I/O reference
    if (error != 0)
      return error;  // ENOENT: a negative entry

    exfat_node_lock(dir);
    if (dir->x_flags & X_DELETED) {
      exfat_node_unlock(dir);
      return ENOENT;
    }
    if (((cnp->cn_flags & ISDOTDOT) && (dir->x_flags & X_ROOT)) || is_dot(cnp))
      return lookup_self(dir, dvp, ap->a_vpp);
    if (cnp->cn_flags & ISDOTDOT)
      return lookup_dotdot(dir, ap->a_vpp);

    uint32_t offset = 0;
    error = exfat_lookup_componentname(dir, cnp, &offset, nullptr, ap->a_context);
    if (error == ENOENT)
      return lookup_missing(dir, dvp, cnp);
    if (error) {
      exfat_node_unlock(dir);
      return error;
    }

    // exfat_node_get drops our level of the directory's lock in every path.
    struct exfat_node* node = nullptr;
    error = exfat_node_get(dir->x_mount, dvp, cnp, offset, VNON, 0, &node, ap->a_context);
    if (error == ENOENT)
      continue;  // the hashed node's vnode was being recycled: look again
    if (error)
      return error;
    *ap->a_vpp = node->x_vnode;
    return 0;
  }
}
