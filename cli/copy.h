#pragma once
// Copying and removing whole trees, between any two trees.

#include <string>
#include <vector>

#include "cli.h"
#include "tree.h"

namespace exvol::cli {

struct CopyOptions {
  bool recursive = false;   // -r: directories with everything in them
  bool preserve = false;    // -p: times, and the read-only/hidden/archive state
  bool no_clobber = false;  // -n: existing files are left as they are
};

// Copies files, directories and symbolic links from one tree to another,
// reporting each failure and going on with the rest.
class Copier {
 public:
  Copier(Reporter& reporter, const CopyOptions& options);

  // Copies `src` of `from` to exactly `dst` of `to` (the caller has chosen
  // the name). `follow`: a symbolic link `src` is copied as the file it
  // names rather than as a link. Returns true when everything was copied.
  bool copy(Tree& from, const std::string& src, Tree& to, const std::string& dst, bool follow);

 private:
  bool copy_directory(Tree& from, const std::string& src, const Attr& attr, Tree& to,
                      const std::string& dst);
  bool copy_file(Tree& from, const std::string& src, const Attr& attr, Tree& to,
                 const std::string& dst);
  bool copy_link(Tree& from, const std::string& src, const Attr& attr, Tree& to,
                 const std::string& dst);
  bool copy_data(Tree& from, const std::string& src, const Attr& attr, Tree& to,
                 const std::string& dst);
  bool into_itself(Tree& from, const std::string& src, const Attr& attr, Tree& to,
                   const std::string& dst);
  // -p: the times and attributes of `attr` onto `dst`.
  bool preserve(Tree& from, const Attr& attr, Tree& to, const std::string& dst);

  Reporter& reporter_;
  CopyOptions options_;
  std::vector<char> buffer_;
};

// Removes `path` and, for a directory, everything below it. `force`:
// a missing `path` is no error, and read-only files are made writable
// first. Reports each failure; returns true when all is gone.
bool remove_tree(Reporter& reporter, Tree& tree, const std::string& path, bool force);

// The last component of a host path or image path; "" for "/", "." and
// "..", which name a directory whose contents are copied rather than the
// directory itself.
std::string copy_basename(const std::string& path);

}  // namespace exvol::cli
