// Copying and removing trees; the cp and mv commands.
//
// Every copy goes through the Tree interface, so that host->image,
// image->host and image->image (on one image or two) take the same path.
// Data moves in 1 MiB chunks: the library hands each chunk to the page
// cache in one call, which maps it onto the clusters in a few large I/Os.

#include "copy.h"

#include <algorithm>
#include <cerrno>

#include "progress.h"
#include "session.h"

namespace exvol::cli {

namespace {

constexpr size_t kChunk = 1 << 20;

std::string ascii_lower(std::string s) {
  for (char& c : s)
    if (c >= 'A' && c <= 'Z')
      c = static_cast<char>(c - 'A' + 'a');
  return s;
}

// Whether image path `inner` is `outer` or lies below it, as the volume
// compares names (without regard to ASCII case at least).
bool image_path_within(const std::string& outer, const std::string& inner) {
  if (outer == "/")
    return true;
  std::string o = ascii_lower(outer), i = ascii_lower(inner);
  return i == o || (i.size() > o.size() && i.compare(0, o.size(), o) == 0 && i[o.size()] == '/');
}

}  // namespace

std::string copy_basename(const std::string& path) {
  std::string p = path;
  while (p.size() > 1 && p.back() == '/')
    p.pop_back();
  size_t slash = p.rfind('/');
  std::string base = slash == std::string::npos ? p : p.substr(slash + 1);
  if (base == "." || base == ".." || base == "/")
    return "";
  return base;
}

Copier::Copier(Reporter& reporter, const CopyOptions& options)
    : reporter_(reporter), options_(options), buffer_(kChunk) {}

bool Copier::copy(Tree& from, const std::string& src, Tree& to, const std::string& dst,
                  bool follow) {
  if (interrupted()) {
    reporter_.error(from.display(src) + ": interrupted");
    return false;
  }
  Attr attr;
  if (std::error_code ec = from.stat(src, &attr, follow)) {
    reporter_.error(from.display(src), ec);
    return false;
  }
  switch (attr.type) {
    case FileType::Directory:
      if (!options_.recursive) {
        reporter_.error(from.display(src) + ": is a directory (not copied; use -r)");
        return false;
      }
      return copy_directory(from, src, attr, to, dst);
    case FileType::Regular:
      return copy_file(from, src, attr, to, dst);
    case FileType::Symlink:
      return copy_link(from, src, attr, to, dst);
    default:
      reporter_.error(from.display(src) + ": not a regular file, directory or symbolic link");
      return false;
  }
}

// A directory copied into itself would grow while it is being copied.
bool Copier::into_itself(Tree& from, const std::string& src, const Attr& attr, Tree& to,
                         const std::string& dst) {
  if (!from.same_tree(to))
    return false;
  bool inside = from.keeps_attributes() && image_path_within(src, dst);
  for (std::string p = to.parent(dst); !inside;) {
    Attr a;
    if (!to.stat(p, &a, true) && a.same_file(attr))
      inside = true;
    std::string up = to.parent(p);
    if (up == p)
      break;
    p = up;
  }
  if (inside)
    reporter_.error("cannot copy " + from.display(src) + " into itself, " + to.display(dst));
  return inside;
}

bool Copier::copy_directory(Tree& from, const std::string& src, const Attr& attr, Tree& to,
                            const std::string& dst) {
  if (into_itself(from, src, attr, to, dst))
    return false;
  // The listing is taken before the copy is made, so that a copy made
  // inside the source is not copied again.
  std::vector<std::string> names;
  if (std::error_code ec = from.list(src, &names)) {
    reporter_.error(from.display(src), ec);
    return false;
  }
  Attr existing;
  if (!to.stat(dst, &existing, true)) {
    if (existing.type != FileType::Directory) {
      reporter_.error(to.display(dst), errno_code(ENOTDIR));
      return false;
    }
  } else if (std::error_code ec = to.mkdir(dst)) {
    reporter_.error(to.display(dst), ec);
    return false;
  }
  bool ok = true;
  for (const std::string& name : names) {
    if (!copy(from, from.join(src, name), to, to.join(dst, to.adopt_name(name)), false))
      ok = false;
    if (interrupted())
      return false;
  }
  // Last, because creating the entries above changed the times.
  return preserve(from, attr, to, dst) && ok;
}

bool Copier::copy_file(Tree& from, const std::string& src, const Attr& attr, Tree& to,
                       const std::string& dst) {
  Attr existing;
  if (!to.stat(dst, &existing, true)) {
    if (from.same_tree(to) && existing.same_file(attr)) {
      reporter_.error(from.display(src) + " and " + to.display(dst) + " are the same file");
      return false;
    }
    if (options_.no_clobber)
      return true;
    if (existing.type == FileType::Directory) {
      reporter_.error(to.display(dst), errno_code(EISDIR));
      return false;
    }
  }
  return copy_data(from, src, attr, to, dst) && preserve(from, attr, to, dst);
}

bool Copier::copy_data(Tree& from, const std::string& src, const Attr& attr, Tree& to,
                       const std::string& dst) {
  std::unique_ptr<Reader> reader;
  if (std::error_code ec = from.open_read(src, &reader)) {
    reporter_.error(from.display(src), ec);
    return false;
  }
  std::unique_ptr<Writer> writer;
  if (std::error_code ec = to.create(dst, &writer)) {
    reporter_.error(to.display(dst), ec);
    return false;
  }
  Progress progress(from.display(src), attr.size);
  for (;;) {
    if (interrupted()) {
      reporter_.error(to.display(dst) + ": interrupted");
      return false;
    }
    size_t done = 0;
    if (std::error_code ec = reader->read(buffer_.data(), buffer_.size(), &done)) {
      reporter_.error(from.display(src), ec);
      return false;
    }
    if (done == 0)
      break;
    if (std::error_code ec = writer->write(buffer_.data(), done)) {
      reporter_.error(to.display(dst), ec);
      return false;
    }
    progress.advance(done);
  }
  if (std::error_code ec = writer->close()) {
    reporter_.error(to.display(dst), ec);
    return false;
  }
  return true;
}

bool Copier::copy_link(Tree& from, const std::string& src, const Attr& attr, Tree& to,
                       const std::string& dst) {
  std::string target;
  if (std::error_code ec = from.readlink(src, &target)) {
    reporter_.error(from.display(src), ec);
    return false;
  }
  Attr existing;
  if (!to.stat(dst, &existing, false)) {
    if (options_.no_clobber)
      return true;
    if (existing.type == FileType::Directory) {
      reporter_.error(to.display(dst), errno_code(EISDIR));
      return false;
    }
    if (std::error_code ec = to.unlink(dst)) {
      reporter_.error(to.display(dst), ec);
      return false;
    }
  }
  if (std::error_code ec = to.symlink(target, dst)) {
    reporter_.error(to.display(dst), ec);
    return false;
  }
  return preserve(from, attr, to, dst);
}

bool Copier::preserve(Tree& from, const Attr& attr, Tree& to, const std::string& dst) {
  if (!options_.preserve)
    return true;
  // Times first: setting them marks an image file for archiving, which
  // the flags below may undo.
  if (std::error_code ec = to.set_times(dst, attr)) {
    reporter_.error(to.display(dst) + ": cannot keep times", ec);
    return false;
  }
  Attr current;
  if (std::error_code ec = to.stat(dst, &current, false)) {
    reporter_.error(to.display(dst), ec);
    return false;
  }
  // From the host only "read-only" carries over: its names decide hidden.
  uint32_t flags = from.keeps_attributes()
                       ? attr.flags
                       : (current.flags & ~kFlagImmutable) | (attr.flags & kFlagImmutable);
  if (flags == current.flags || attr.type == FileType::Symlink)
    return true;
  if (std::error_code ec = to.set_flags(dst, flags)) {
    reporter_.error(to.display(dst) + ": cannot keep attributes", ec);
    return false;
  }
  return true;
}

bool remove_tree(Reporter& reporter, Tree& tree, const std::string& path, bool force) {
  Attr attr;
  if (std::error_code ec = tree.stat(path, &attr, false)) {
    if (force && ec == std::errc::no_such_file_or_directory)
      return true;
    reporter.error(tree.display(path), ec);
    return false;
  }
  if (attr.type == FileType::Directory) {
    std::vector<std::string> names;
    if (std::error_code ec = tree.list(path, &names)) {
      reporter.error(tree.display(path), ec);
      return false;
    }
    bool ok = true;
    for (const std::string& name : names)
      ok = remove_tree(reporter, tree, tree.join(path, name), force) && ok;
    if (!ok)
      return false;
    if (std::error_code ec = tree.rmdir(path)) {
      reporter.error(tree.display(path), ec);
      return false;
    }
    return true;
  }
  std::error_code ec = tree.unlink(path);
  if (ec == std::errc::operation_not_permitted && force && (attr.flags & kFlagImmutable) &&
      !tree.set_flags(path, attr.flags & ~kFlagImmutable))
    ec = tree.unlink(path);
  if (ec) {
    reporter.error(tree.display(path), ec);
    return false;
  }
  return true;
}

}  // namespace exvol::cli
