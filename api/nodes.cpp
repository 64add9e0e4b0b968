// Node references for front ends that keep their own (the FUSE daemon):
// a NodeId stands for a vnode on which the library holds one use reference
// for as long as the front end holds any reference to the id.

#include "api/internal.h"

namespace exvol::detail {

int node_vnode(MountState& ms, NodeId id, IoRef* out) {
  if (id == kRootNode) {
    vnode_t vp = NULLVP;
    int error = VFS_ROOT(ms.mp, &vp, vfs_context_kernel());
    if (error == 0)
      out->reset(vp);
    return error;
  }
  std::lock_guard<std::mutex> guard(ms.registry_lock);
  auto it = ms.nodes.by_id.find(static_cast<uint64_t>(id));
  if (it == ms.nodes.by_id.end())
    return ESTALE;
  // The node's use reference keeps the vnode from being reclaimed, so the
  // I/O reference can only fail on a dying volume.
  if (vnode_get(it->second.vp) != 0)
    return ESTALE;
  out->reset(it->second.vp);
  return 0;
}

// The first reference to a vnode takes the use reference the node holds;
// vnode_ref can't fail here, since the caller's I/O reference keeps the
// vnode alive, but its answer is honoured all the same.
int node_hold(MountState& ms, vnode_t vp, NodeId* out) {
  if (vnode_isvroot(vp)) {
    *out = kRootNode;
    return 0;
  }
  std::lock_guard<std::mutex> guard(ms.registry_lock);
  NodeTable& t = ms.nodes;
  auto it = t.by_vnode.find(vp);
  if (it != t.by_vnode.end()) {
    t.by_id[it->second].count++;
    *out = static_cast<NodeId>(it->second);
    return 0;
  }
  if (int error = vnode_ref(vp))
    return error;
  uint64_t id = t.next_id++;
  t.by_id[id] = NodeTable::Entry{vp, 1};
  t.by_vnode[vp] = id;
  *out = static_cast<NodeId>(id);
  return 0;
}

// Drops `count` references; the last one releases the vnode, outside the
// registry lock because the release may run the driver's inactive.
int node_release(MountState& ms, NodeId id, uint64_t count) {
  if (id == kRootNode)
    return 0;
  vnode_t release = NULLVP;
  {
    std::lock_guard<std::mutex> guard(ms.registry_lock);
    NodeTable& t = ms.nodes;
    auto it = t.by_id.find(static_cast<uint64_t>(id));
    if (it == t.by_id.end())
      return ESTALE;
    if (count > it->second.count)
      return EINVAL;
    it->second.count -= count;
    if (it->second.count == 0) {
      release = it->second.vp;
      t.by_vnode.erase(release);
      t.by_id.erase(it);
    }
  }
  if (release != NULLVP)
    vnode_rele(release);
  return 0;
}

void nodes_release_all(MountState& ms) {
  std::vector<vnode_t> held;
  {
    std::lock_guard<std::mutex> guard(ms.registry_lock);
    for (const auto& [id, entry] : ms.nodes.by_id)
      held.push_back(entry.vp);
    ms.nodes.by_id.clear();
    ms.nodes.by_vnode.clear();
  }
  for (vnode_t vp : held)
    vnode_rele(vp);
}

size_t node_count(MountState& ms) {
  std::lock_guard<std::mutex> guard(ms.registry_lock);
  return ms.nodes.by_id.size();
}

}  // namespace exvol::detail
