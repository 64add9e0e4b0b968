// Node references for front ends that keep their own (the FUSE daemon). The
// kernel holds a reference to every file it has looked up until it forgets
// it, so a held file node must cost a small record, not a vnode: a file
// node keeps its vnode weakly (pointer and vid; the host's vnodes are
// type-stable, so a stale pointer may be tested) and, for when that vnode
// has been reclaimed, its key: its directory's node and its name. The daemon
// is the only writer of a mounted volume and every unlink and rename passes
// nodes_removed/nodes_renamed, so a key names the node's file. Directory
// nodes hold a use reference: they are few, and their files' keys need
// them. An open file holds its vnode through the open file, so it is never
// looked up again while open.
//
// Left to the implementer: a name is matched as given, not folded, so a
// file looked up under another case of its name after its vnode was
// reclaimed gets a second node, and that node's key is not followed by a
// rename through the first; at worst it names what now bears the name, as
// the kernel would by that name. A file unlinked or replaced while held is
// pinned from then on; one whose vnode was reclaimed in a way no hook saw
// (by another front end) answers ESTALE.

#include <algorithm>

#include "api/api_private.h"

namespace exvol::detail {

namespace {

using Entry = NodeTable::Entry;
using Releases = std::vector<vnode_t>;  // use references to drop after unlock

size_t key_hash(uint64_t parent, const std::string& name) {
  return std::hash<std::string>()(name) ^ (std::hash<uint64_t>()(parent) * 0x9e3779b97f4a7c15ull);
}

uint64_t id_of(const Entry& e, uint32_t slot) { return (uint64_t{e.gen} << 32) | slot; }

Entry* find(NodeTable& t, uint64_t id) {
  uint32_t slot = static_cast<uint32_t>(id);
  if (slot < 2 || slot >= t.slots.size())
    return nullptr;
  Entry& e = t.slots[slot];
  return e.used && e.gen == static_cast<uint32_t>(id >> 32) ? &e : nullptr;
}

uint64_t add(NodeTable& t) {
  uint32_t slot;
  if (!t.free_slots.empty()) {
    slot = t.free_slots.back();
    t.free_slots.pop_back();
  } else {
    slot = static_cast<uint32_t>(t.slots.size());
    t.slots.emplace_back();
  }
  Entry& e = t.slots[slot];
  e.gen = e.gen + 1 == 0 ? 1 : e.gen + 1;
  e.used = 1;
  return id_of(e, slot);
}

void remove(NodeTable& t, uint64_t id) {
  uint32_t slot = static_cast<uint32_t>(id);
  Entry& e = t.slots[slot];
  uint32_t gen = e.gen;
  std::string().swap(e.name);
  e = Entry{};
  e.gen = gen;
  t.free_slots.push_back(slot);
}

// --- Keys: chains of slots hashed by (parent, name) ---

uint32_t& key_head(NodeTable& t, uint64_t parent, const std::string& name) {
  return t.key_heads[key_hash(parent, name) % t.key_heads.size()];
}

void key_link(NodeTable& t, uint32_t slot, Entry& e) {
  uint32_t& head = key_head(t, e.parent, e.name);
  e.key_next = head;
  head = slot;
}

// Links the slot of e, whose key is set.
void key_insert(NodeTable& t, uint32_t slot, Entry& e) {
  if (t.keyed + 1 > t.key_heads.size()) {
    t.key_heads.assign(std::max<size_t>(64, 2 * t.key_heads.size()), 0);
    for (uint32_t s = 2; s < t.slots.size(); s++) {
      if (t.slots[s].used && t.slots[s].parent != 0 && s != slot)
        key_link(t, s, t.slots[s]);
    }
  }
  key_link(t, slot, e);
  t.keyed++;
}

void key_unlink(NodeTable& t, uint32_t slot, Entry& e) {
  uint32_t* p = &key_head(t, e.parent, e.name);
  while (*p != 0 && *p != slot)
    p = &t.slots[*p].key_next;
  if (*p == slot) {
    *p = e.key_next;
    t.keyed--;
  }
  e.key_next = 0;
}

// The node whose weak vnode is vp, while vp still has that vid; 0 if none.
uint64_t id_of_vnode(NodeTable& t, vnode_t vp, uint32_t vid) {
  auto it = t.by_vnode.find(vp);
  if (it == t.by_vnode.end())
    return 0;
  Entry* e = find(t, it->second);
  return e != nullptr && e->vid == vid ? it->second : 0;
}

// A directory's node: kRootNode, its held node, or 0.
uint64_t dir_id(NodeTable& t, vnode_t dvp) {
  if (vnode_isvroot(dvp))
    return static_cast<uint64_t>(kRootNode);
  return id_of_vnode(t, dvp, vnode_vid(dvp));
}

size_t bucket(vnode_t dvp) {
  if (vnode_isvroot(dvp))
    return 0;
  return 1 + std::hash<vnode_t>()(dvp) % (NodeTable::kBuckets - 1);
}

// The change bucket of a file node's directory node.
size_t bucket_of(NodeTable& t, uint64_t dir) {
  Entry* e = find(t, dir);
  return e == nullptr ? 0 : bucket(e->vp);
}

void attach(NodeTable& t, uint64_t id, Entry& e, vnode_t vp, uint32_t vid) {
  auto it = t.by_vnode.find(e.vp);
  if (it != t.by_vnode.end() && it->second == id)
    t.by_vnode.erase(it);
  e.vp = vp;
  e.vid = vid;
  t.by_vnode[vp] = id;
}

void maybe_erase(NodeTable& t, uint64_t id, Releases* rele);

// Drops a file node's key (and with it its hold on its directory's node).
void unkey(NodeTable& t, uint64_t id, Entry& e, Releases* rele) {
  if (e.dir || e.parent == 0)
    return;
  key_unlink(t, static_cast<uint32_t>(id), e);
  uint64_t parent = e.parent;
  e.parent = 0;
  std::string().swap(e.name);
  Entry* p = find(t, parent);
  if (p != nullptr && p->kids-- == 1)
    maybe_erase(t, parent, rele);
}

// Keys a file node under (parent, name); the new key is taken before the
// old one is dropped, so a shared directory node never goes in between.
void rekey(NodeTable& t, uint64_t id, Entry& e, uint64_t parent, const std::string& name,
           Releases* rele) {
  if (e.parent == parent && e.name == name)
    return;
  if (Entry* p = find(t, parent))
    p->kids++;
  unkey(t, id, e, rele);
  e.parent = parent;
  e.name = name;
  key_insert(t, static_cast<uint32_t>(id), e);
}

void maybe_erase(NodeTable& t, uint64_t id, Releases* rele) {
  Entry* found = find(t, id);
  if (found == nullptr)
    return;  // the root
  Entry& e = *found;
  if (e.count != 0 || e.kids != 0)
    return;
  unkey(t, id, e, rele);
  auto it = t.by_vnode.find(e.vp);
  if (it != t.by_vnode.end() && it->second == id)
    t.by_vnode.erase(it);
  if (e.pinned)
    rele->push_back(e.vp);
  remove(t, id);
}

void release_all(Releases& rele) {
  for (vnode_t vp : rele)
    vnode_rele(vp);
}

// The file nodes that stand for vp, found as `name` in the directory node
// `dir`: the one whose weak vnode it is, and those keyed there. A file has
// one vnode at a time, so a keyed node with another vnode (or vid) has one
// that is gone or going.
std::vector<uint64_t> nodes_of(NodeTable& t, vnode_t vp, uint32_t vid, uint64_t dir,
                               const std::string& name) {
  std::vector<uint64_t> ids;
  if (uint64_t id = id_of_vnode(t, vp, vid))
    ids.push_back(id);
  if (dir == 0)
    return ids;
  if (t.key_heads.empty())
    return ids;
  for (uint32_t slot = key_head(t, dir, name); slot != 0; slot = t.slots[slot].key_next) {
    const Entry& e = t.slots[slot];
    uint64_t id = id_of(e, slot);
    if (e.parent == dir && e.name == name && std::find(ids.begin(), ids.end(), id) == ids.end())
      ids.push_back(id);
  }
  return ids;
}

int hold_locked(NodeTable& t, vnode_t vp, uint32_t vid, bool dir, uint64_t parent,
                const std::string& name, uint64_t* out, Releases* rele) {
  std::vector<uint64_t> ids = nodes_of(t, vp, vid, dir ? 0 : parent, name);
  if (!ids.empty()) {
    Entry& e = *find(t, ids.front());
    e.count++;
    attach(t, ids.front(), e, vp, vid);
    if (!dir && !e.gone)
      rekey(t, ids.front(), e, parent, name, rele);
    *out = ids.front();
    return 0;
  }
  if (dir) {
    if (int error = vnode_ref(vp))
      return error;
  }
  uint64_t id = add(t);
  Entry& e = *find(t, id);
  e.dir = e.pinned = dir;
  e.count = 1;
  attach(t, id, e, vp, vid);
  if (!dir)
    rekey(t, id, e, parent, name, rele);
  *out = id;
  return 0;
}

// Finds a file node's file again by its key.
int find_again(MountState& ms, uint64_t parent, const std::string& name, IoRef* out) {
  IoRef dvp;
  if (int error = node_vnode(ms, static_cast<NodeId>(parent), &dvp))
    return error;
  int error = op_lookup(ms, dvp.get(), name, false, out);
  if (error == 0 && vnode_isdir(out->get()))
    return ESTALE;  // the name now stands for another file
  return error == ENOENT ? ESTALE : error;
}

}  // namespace

int node_vnode(MountState& ms, NodeId id, IoRef* out) {
  if (id == kRootNode) {
    vnode_t vp = NULLVP;
    int error = VFS_ROOT(ms.mp, &vp, vfs_context_kernel());
    if (error == 0)
      out->reset(vp);
    return error;
  }
  // A lookup that an unlink or rename overlapped may have seen the name
  // before or after the change, and the key before: it is done again.
  for (int round = 0; round < 64; round++) {
    Entry seen;
    uint64_t changes;
    {
      std::unique_lock<std::mutex> lk(ms.registry_lock);
      Entry* e = find(ms.nodes, static_cast<uint64_t>(id));
      if (e == nullptr)
        return ESTALE;
      size_t b = bucket_of(ms.nodes, e->parent);
      if (round != 0) {
        // Waits holding no vnode: the change may need nothing of ours.
        ms.nodes.quiet.wait(lk, [&] { return ms.nodes.changing[b] == 0; });
        e = find(ms.nodes, static_cast<uint64_t>(id));
        if (e == nullptr)
          return ESTALE;
        b = bucket_of(ms.nodes, e->parent);
      }
      seen = *e;
      changes = ms.nodes.changing[b] != 0 ? ~0ull : ms.nodes.changes[b];
    }
    if (seen.vp != NULLVP && vnode_getwithvid(seen.vp, seen.vid) == 0) {
      out->reset(seen.vp);
      return 0;
    }
    if (seen.pinned || seen.gone || seen.parent == 0)
      return ESTALE;  // a held vnode fails only on a dying volume
    IoRef found;
    int error = find_again(ms, seen.parent, seen.name, &found);
    uint32_t vid = error == 0 ? vnode_vid(found.get()) : 0;
    std::lock_guard<std::mutex> guard(ms.registry_lock);
    Entry* now = find(ms.nodes, static_cast<uint64_t>(id));
    if (now == nullptr)
      return ESTALE;
    Entry& e = *now;
    size_t b = bucket_of(ms.nodes, seen.parent);
    if (ms.nodes.changing[b] != 0 || ms.nodes.changes[b] != changes || e.gone || e.pinned ||
        e.parent != seen.parent)
      continue;
    if (error != 0)
      return error;
    attach(ms.nodes, static_cast<uint64_t>(id), e, found.get(), vid);
    out->reset(found.release());
    return 0;
  }
  return ESTALE;
}

int node_hold(MountState& ms, vnode_t vp, NodeId parent, const std::string& name, NodeId* out) {
  if (vnode_isvroot(vp)) {
    *out = kRootNode;
    return 0;
  }
  uint32_t vid = vnode_vid(vp);
  bool dir = vnode_isdir(vp) != 0;
  Releases rele;
  uint64_t id = 0;
  int error;
  {
    std::lock_guard<std::mutex> guard(ms.registry_lock);
    error = hold_locked(ms.nodes, vp, vid, dir, static_cast<uint64_t>(parent), name, &id, &rele);
  }
  release_all(rele);
  *out = static_cast<NodeId>(id);
  return error;
}

int node_ref(MountState& ms, NodeId id) {
  if (id == kRootNode)
    return 0;
  std::lock_guard<std::mutex> guard(ms.registry_lock);
  Entry* e = find(ms.nodes, static_cast<uint64_t>(id));
  if (e == nullptr || e->count == 0)
    return ESTALE;
  e->count++;
  return 0;
}

// Drops `count` references; the last one forgets the node, and a pinned
// vnode is released outside the registry lock, since that may run the
// driver's inactive.
int node_release(MountState& ms, NodeId id, uint64_t count) {
  if (id == kRootNode)
    return 0;
  Releases rele;
  {
    std::lock_guard<std::mutex> guard(ms.registry_lock);
    NodeTable& t = ms.nodes;
    Entry* e = find(t, static_cast<uint64_t>(id));
    if (e == nullptr || e->count == 0)
      return ESTALE;
    if (count > e->count)
      return EINVAL;
    e->count -= count;
    maybe_erase(t, static_cast<uint64_t>(id), &rele);
  }
  release_all(rele);
  return 0;
}

namespace {

// A removed file's nodes lose their key and pin the vnode, so that they go
// on standing for the file until forgotten. Directories have no key.
void removed_locked(NodeTable& t, vnode_t vp, vnode_t dvp, const std::string& name,
                    Releases* rele) {
  if (vnode_isdir(vp))
    return;
  uint32_t vid = vnode_vid(vp);
  for (uint64_t id : nodes_of(t, vp, vid, dir_id(t, dvp), name)) {
    Entry& e = *find(t, id);
    unkey(t, id, e, rele);
    e.gone = true;
    attach(t, id, e, vp, vid);
    if (!e.pinned && vnode_ref(vp) == 0)
      e.pinned = true;
  }
}

// The target directory gets a node of its own (no front-end reference, only
// its files') when the front end holds none.
uint64_t dir_node(NodeTable& t, vnode_t dvp) {
  if (uint64_t id = dir_id(t, dvp))
    return id;
  if (vnode_ref(dvp) != 0)
    return 0;
  uint64_t id = add(t);
  Entry& e = *find(t, id);
  e.dir = e.pinned = true;
  attach(t, id, e, dvp, vnode_vid(dvp));
  return id;
}

void renamed_locked(NodeTable& t, vnode_t fvp, vnode_t fdvp, const std::string& fname,
                    vnode_t tdvp, const std::string& tname, Releases* rele) {
  if (vnode_isdir(fvp))
    return;
  uint32_t vid = vnode_vid(fvp);
  std::vector<uint64_t> ids = nodes_of(t, fvp, vid, dir_id(t, fdvp), fname);
  uint64_t to = ids.empty() ? 0 : dir_node(t, tdvp);
  for (uint64_t id : ids) {
    Entry& e = *find(t, id);
    attach(t, id, e, fvp, vid);
    if (e.gone)
      continue;
    if (to != 0) {
      rekey(t, id, e, to, tname, rele);
    } else if (vnode_ref(fvp) == 0) {  // no key to give: pin it instead
      unkey(t, id, e, rele);
      e.gone = e.pinned = true;
    }
  }
  if (to != 0)
    maybe_erase(t, to, rele);  // when no node was keyed under it after all
}

}  // namespace

void nodes_changing(MountState& ms, vnode_t dvp, vnode_t tdvp) {
  std::lock_guard<std::mutex> guard(ms.registry_lock);
  ms.nodes.changing[bucket(dvp)]++;
  if (tdvp != NULLVP)
    ms.nodes.changing[bucket(tdvp)]++;
}

// Ends a change nodes_changing announced.
void changed(NodeTable& t, vnode_t dvp, vnode_t tdvp) {
  for (vnode_t vp : {dvp, tdvp}) {
    if (vp != NULLVP) {
      t.changing[bucket(vp)]--;
      t.changes[bucket(vp)]++;
    }
  }
  t.quiet.notify_all();
}

void nodes_removed(MountState& ms, int error, vnode_t vp, vnode_t dvp, const std::string& name) {
  Releases rele;
  {
    std::lock_guard<std::mutex> guard(ms.registry_lock);
    if (error == 0)
      removed_locked(ms.nodes, vp, dvp, name, &rele);
    changed(ms.nodes, dvp, NULLVP);
  }
  release_all(rele);
}

void nodes_renamed(MountState& ms, int error, vnode_t fvp, vnode_t fdvp, const std::string& fname,
                   vnode_t tdvp, const std::string& tname, vnode_t tvp) {
  Releases rele;
  {
    std::lock_guard<std::mutex> guard(ms.registry_lock);
    if (error == 0 && tvp != NULLVP && tvp != fvp)
      removed_locked(ms.nodes, tvp, tdvp, tname, &rele);
    if (error == 0)
      renamed_locked(ms.nodes, fvp, fdvp, fname, tdvp, tname, &rele);
    changed(ms.nodes, fdvp, tdvp);
  }
  release_all(rele);
}

void nodes_release_all(MountState& ms) {
  Releases rele;
  {
    std::lock_guard<std::mutex> guard(ms.registry_lock);
    for (const Entry& e : ms.nodes.slots) {
      if (e.used && e.pinned)
        rele.push_back(e.vp);
    }
    ms.nodes.slots.resize(2);
    ms.nodes.slots.shrink_to_fit();
    ms.nodes.free_slots = {};
    ms.nodes.key_heads = {};
    ms.nodes.keyed = 0;
    ms.nodes.by_vnode.clear();
  }
  release_all(rele);
}

size_t node_count(MountState& ms) {
  std::lock_guard<std::mutex> guard(ms.registry_lock);
  size_t held = 0;
  for (const Entry& e : ms.nodes.slots)
    held += e.used && e.count != 0 ? 1 : 0;
  return held;
}

}  // namespace exvol::detail
