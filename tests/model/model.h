#pragma once
// The in-memory model of what a volume must hold: the tree with names in
// their case, file contents (sparse: a byte written 400 MiB past the end
// costs one extent, holes read as zeros), symbolic links, attributes,
// times at the precision the volume keeps, the label, and the open files,
// removed-while-open ones included.
//
// Model::apply takes an operation together with what the file system
// under test answered, works out what the answer had to be, and applies
// the operation's effect. Where the answer can't be known in advance it
// says so explicitly (see the tolerances in model.cpp): running out of
// space, and the times and archive bits that the volume stamps itself.
// Such values are "unknown" until the next checkpoint adopts what the
// volume reports; from then on they must stay as adopted, across
// remounts too.

#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "exvol/types.h"
#include "tests/model/fs.h"
#include "tests/model/ops.h"

namespace exvol::model {

// Sparse bytes: extents at offsets, zeros elsewhere.
class Content {
 public:
  void write(uint64_t offset, const uint8_t* data, size_t length);
  // Drops every byte at or past `size`.
  void cut(uint64_t size);
  std::vector<uint8_t> read(uint64_t offset, size_t length) const;
  // Bytes held (not counting holes): what the model's memory costs.
  uint64_t stored() const;

 private:
  std::map<uint64_t, std::vector<uint8_t>> extents_;
};

struct Node : std::enable_shared_from_this<Node> {
  uint64_t id = 0;
  FileType type = FileType::Regular;
  std::string name;  // NFC, with its case
  Node* parent = nullptr;
  std::map<std::string, std::shared_ptr<Node>> children;  // by fold_key
  Content data;
  uint64_t size = 0;
  std::string target;  // a link's
  bool readonly = false;
  bool hidden = false;
  std::optional<bool> archive;  // unknown after the volume may have stamped it
  std::optional<timespec> birth, modified, accessed;
  bool unlinked = false;
  int opens = 0;
  uint64_t version = 0;  // bumped by every change to the node itself
  bool is_dir() const { return type == FileType::Directory; }
};

struct Handle {
  std::shared_ptr<Node> node;
  int oflags = 0;
  int64_t offset = 0;
};

// Faults of the system under test that are known and being fixed. While
// one is tolerated, the checker steps around it where the comment at the
// step says, so that runs go on to find other faults; an entry is dropped
// from known_faults_tolerated() once its fix is in. EXVOL_MODEL_STRICT=1
// tolerates none, EXVOL_MODEL_STRICT=name,name none of those named.
enum KnownFault : uint32_t {
  // None open now.
};
uint32_t known_faults_tolerated();
const char* known_fault_name(uint32_t fault);

// How the file system under test differs from libexvol's own rules.
struct Semantics {
  bool library = true;  // false: system calls on a FUSE mount
  bool noatime = true;  // reads leave access times alone
  uint32_t mask = 0755;
  uint32_t tolerated = 0;  // KnownFault bits
  bool tolerates(KnownFault f) const { return (tolerated & f) != 0; }
};

// What the file system under test answered to one operation.
struct Outcome {
  int err = 0;
  size_t done = 0;
  std::vector<uint8_t> data;
  Stat st;
  std::string text;
  int64_t position = 0;
  std::vector<Listed> listing;
  // After Write, FTruncate and Truncate: the file's stat (after_err 0).
  int after_err = -1;
  Stat after;
};

// The state around one operation that the model can't know itself.
struct Env {
  uint64_t free_clusters = 0;  // before the operation
  uint32_t cluster_bytes = 4096;
};

class Model {
 public:
  explicit Model(Semantics semantics = {});

  // The expected answer compared with `got`, and the effect applied. ""
  // when they agree, else what differs.
  std::string apply(const Op& op, const Outcome& got, const Env& env);
  // Whether the operation has nothing to act on (an empty slot): it is
  // then not run at all.
  bool skipped(const Op& op) const;
  // Every slot closes; removed-while-open files go; the mount becomes
  // read-only or read-write. Times and flags of the root live only in
  // memory, so they become unknown.
  void remounted(bool read_only);

  // Differences between a node and what the volume reports for it, where
  // the model knows the value.
  std::string compare_stat(const Node& node, const Stat& st, uint32_t cluster_bytes) const;
  // Takes what the volume reports for every unknown value of the node.
  void adopt(Node& node, const Stat& st);

  Node& root() { return *root_; }
  const Node& root() const { return *root_; }
  const Semantics& semantics() const { return sem_; }
  bool read_only() const { return read_only_; }
  const std::string& label() const { return label_; }
  void set_label(const std::string& label) { label_ = label; }
  const std::map<int, Handle>& handles() const { return handles_; }
  // The path of a node from the root ("/a/b"), "" for a removed one.
  static std::string path_of(const Node& node);
  // The node a path names (links followed as the volume follows them), or
  // null.
  std::shared_ptr<Node> find(const std::string& path, bool follow = true) const;

 private:
  struct Resolved;
  enum NameOp { kLookup, kCreate, kDelete, kRename };
  Resolved namei(const std::string& path, NameOp op, bool follow, bool want_parent) const;

  std::string apply_file_op(const Op& op, const Outcome& got, const Env& env);
  std::string apply_path_op(const Op& op, const Outcome& got, const Env& env);
  std::string do_open(const Op& op, const Outcome& got, const Env& env);
  std::string do_read(const Op& op, const Outcome& got);
  std::string do_write(const Op& op, const Outcome& got, const Env& env);
  std::string do_resize(const std::shared_ptr<Node>& node, const Op& op, const Outcome& got,
                        const Env& env);
  std::string do_rename(const Op& op, const Outcome& got, const Env& env);
  std::string do_make(const Op& op, const Outcome& got, const Env& env);
  std::string do_remove(const Op& op, const Outcome& got);
  std::string do_times(const std::shared_ptr<Node>& node, const Op& op, const Outcome& got);
  std::string do_flags(const std::shared_ptr<Node>& node, const Op& op, const Outcome& got);
  std::string do_list(const Op& op, const Outcome& got);
  std::string do_label(const Op& op, const Outcome& got, const Env& env);

  std::shared_ptr<Node> make_node(FileType type, const std::string& name, Node* parent);
  void detach(Node& node);
  void touch_dir(Node& dir);
  void modified(Node& node);

  Semantics sem_;
  std::shared_ptr<Node> root_;
  std::map<int, Handle> handles_;
  bool read_only_ = false;
  std::string label_;  // NFC
  uint64_t next_id_ = 1;
};

// An errno mismatch message: "Mkdir \"/a\": expected ENOENT, got 0".
std::string errno_name(int err);

// Times at the precision the volume stores them: modification and
// creation times to 10 ms, access times to 2 s, nothing before 1980.
timespec stored_10ms(timespec t);
timespec stored_2s(timespec t);

}  // namespace exvol::model
