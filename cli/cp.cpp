// `exvol cp` and `exvol mv`: files in, out and between images.

#include <cerrno>

#include "cli.h"
#include "copy.h"
#include "session.h"

namespace exvol::cli {

namespace {

// The operands of cp and mv, with their trees mounted.
struct Transfer {
  std::vector<Address> sources;
  Address target;
  std::vector<std::unique_ptr<Tree>> source_trees;
  std::unique_ptr<Tree> target_tree;
  bool target_is_dir = false;
};

// Parses and mounts the operands. Returns 0 to go on, else the exit status.
// Sources are mounted read-write when they lose files (`sources_writable`).
int prepare(Reporter& reporter, Session& session, const std::vector<std::string>& operands,
            bool sources_writable, Transfer* t) {
  if (operands.size() < 2)
    return reporter.usage(operands.empty() ? "missing operands" : "missing destination");
  for (size_t i = 0; i + 1 < operands.size(); i++)
    t->sources.push_back(parse_operand(operands[i]));
  t->target = parse_operand(operands.back());
  bool any_image = t->target.on_image;
  for (const Address& a : t->sources)
    any_image = any_image || a.on_image;
  if (!any_image) {
    // "b.img:/" with no b.img: say that, not that nothing is an image.
    for (const std::string& operand : operands) {
      std::string why = why_not_an_image(operand);
      if (!why.empty()) {
        reporter.error(why);
        return reporter.status();
      }
    }
    return reporter.usage("no operand is on an image (IMG:PATH)");
  }

  // The target first: an image that is also a source is then mounted
  // read-write once, not read-only and again.
  t->target_tree = session.tree(t->target, true);
  if (!t->target_tree) {
    session.finish();
    return 1;  // reported by the session
  }
  for (const Address& a : t->sources)
    t->source_trees.push_back(session.tree(a, sources_writable));

  Attr attr;
  std::error_code ec = t->target_tree->stat(t->target.path, &attr, true);
  t->target_is_dir = !ec && attr.type == FileType::Directory;
  if (!t->target_is_dir && (t->sources.size() > 1 || t->target.trailing_slash)) {
    reporter.error(t->target.display(), ec ? ec : errno_code(ENOTDIR));
    session.finish();
    return 1;
  }
  return 0;
}

// Whether source `i` and the target are one directory of one image under
// two spellings ("mv img:/docs img:/DOCS" changes the name's case).
bool target_is_source(const Transfer& t, size_t i) {
  if (!t.source_trees[i] || !t.source_trees[i]->same_tree(*t.target_tree))
    return false;
  Attr source, target;
  return !t.source_trees[i]->stat(t.sources[i].path, &source, false) &&
         !t.target_tree->stat(t.target.path, &target, false) && source.same_file(target);
}

// Where source `i` goes: into the target directory under its own name,
// or to the target itself.
std::string destination(const Transfer& t, size_t i) {
  if (!t.target_is_dir || target_is_source(t, i))
    return t.target.path;
  std::string base = copy_basename(t.sources[i].path);
  if (base.empty())
    return t.target.path;
  return t.target_tree->join(t.target.path, t.target_tree->adopt_name(base));
}

}  // namespace

int cp_command(const std::vector<std::string>& raw) {
  const CommandInfo& info = *find_command("cp");
  Args args;
  int status;
  if (!parse_args(info, OptionTable{.flags = "rRpn"}, raw, &args, &status))
    return status;
  Reporter reporter("cp");
  Session session(reporter, args.mount);
  Transfer t;
  if (int stop = prepare(reporter, session, args.operands, false, &t))
    return stop;

  CopyOptions options{.recursive = args.has('r') || args.has('R'),
                      .preserve = args.has('p'),
                      .no_clobber = args.has('n')};
  Copier copier(reporter, options);
  for (size_t i = 0; i < t.sources.size() && !interrupted(); i++) {
    if (!t.source_trees[i])
      continue;  // its image could not be mounted (reported)
    // Recursive copies copy links as links; a plain copy copies what a
    // link names, as cp does.
    copier.copy(*t.source_trees[i], t.sources[i].path, *t.target_tree, destination(t, i),
                !options.recursive);
  }
  return session.finish();
}

namespace {

// A move within one image is a rename; anything else is a copy that keeps
// times and attributes, followed by removing the source.
void move_one(Reporter& reporter, Tree& from, const Address& src, Tree& to,
              const std::string& dst, bool no_clobber, Volume* same_volume) {
  if (src.on_image && src.path == "/") {
    reporter.error(src.display() + ": cannot move the root directory");
    return;
  }
  if (same_volume) {
    std::error_code ec =
        same_volume->rename(src.path, dst, no_clobber ? kRenameNoReplace : 0);
    if (ec && !(no_clobber && ec == std::errc::file_exists))
      reporter.error(src.display() + " -> " + to.display(dst), ec);
    return;
  }
  Attr existing;
  if (no_clobber && !to.stat(dst, &existing, false))
    return;
  Copier copier(reporter, CopyOptions{.recursive = true, .preserve = true});
  if (copier.copy(from, src.path, to, dst, false))
    remove_tree(reporter, from, src.path, true);
}

}  // namespace

int mv_command(const std::vector<std::string>& raw) {
  const CommandInfo& info = *find_command("mv");
  Args args;
  int status;
  if (!parse_args(info, OptionTable{.flags = "n"}, raw, &args, &status))
    return status;
  Reporter reporter("mv");
  Session session(reporter, args.mount);
  Transfer t;
  if (int stop = prepare(reporter, session, args.operands, true, &t))
    return stop;

  for (size_t i = 0; i < t.sources.size() && !interrupted(); i++) {
    const Address& src = t.sources[i];
    if (!t.source_trees[i])
      continue;
    Volume* same = nullptr;
    if (src.on_image && t.target.on_image && t.source_trees[i]->same_tree(*t.target_tree))
      same = session.volume(src.image, true);
    move_one(reporter, *t.source_trees[i], src, *t.target_tree, destination(t, i),
             args.has('n'), same);
  }
  return session.finish();
}

}  // namespace exvol::cli
