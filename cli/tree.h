#pragma once
// One interface over the two kinds of file trees a command moves files
// between: the host's and an image's. cp, mv and rm walk trees through it,
// so that host->image, image->host and image->image copies share one
// algorithm.

#include <sys/types.h>

#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "exvol/volume.h"

namespace exvol::cli {

// What a copy needs to know about a file.
struct Attr {
  FileType type = FileType::Unknown;  // Unknown: a host file of another kind
  uint64_t size = 0;
  timespec modified{};
  timespec accessed{};
  std::optional<timespec> birth;
  // Image flags (kFlag*). A host file without write permission for its
  // owner counts as kFlagImmutable (read-only).
  uint32_t flags = 0;
  // Identity within its tree, 0 when unknown: the host's (dev, ino); an
  // image directory's first cluster (files without clusters have none).
  uint64_t dev = 0, ino = 0;
  bool same_file(const Attr& other) const {
    return ino != 0 && dev == other.dev && ino == other.ino;
  }
};

class Reader {
 public:
  virtual ~Reader() = default;
  // Reads up to `length` bytes; *done 0 at the end of the file.
  virtual std::error_code read(void* buffer, size_t length, size_t* done) = 0;
};

class Writer {
 public:
  virtual ~Writer() = default;
  // Writes all of `length` bytes or fails.
  virtual std::error_code write(const void* buffer, size_t length) = 0;
  // Closes the file; a failure here means the data may not be kept.
  virtual std::error_code close() = 0;
};

class Tree {
 public:
  virtual ~Tree() = default;

  // How messages name `path`.
  virtual std::string display(const std::string& path) const = 0;
  virtual std::string join(const std::string& dir, const std::string& name) const = 0;
  virtual std::string parent(const std::string& path) const = 0;
  // A name read from another tree's listing, as this tree should store
  // it: the host gets composed (NFC) names, an image takes names as they
  // come.
  virtual std::string adopt_name(const std::string& name) const = 0;
  virtual bool same_tree(const Tree& other) const = 0;
  // Whether the tree keeps hidden and archive attributes (an image), or
  // only "read-only" in its permission bits (the host).
  virtual bool keeps_attributes() const = 0;

  virtual std::error_code stat(const std::string& path, Attr* out, bool follow) = 0;
  // Names in the directory, without "." and "..", in the tree's order.
  virtual std::error_code list(const std::string& path, std::vector<std::string>* names) = 0;
  virtual std::error_code open_read(const std::string& path, std::unique_ptr<Reader>* out) = 0;
  // Creates or truncates a regular file for writing.
  virtual std::error_code create(const std::string& path, std::unique_ptr<Writer>* out) = 0;
  virtual std::error_code mkdir(const std::string& path) = 0;
  virtual std::error_code rmdir(const std::string& path) = 0;
  virtual std::error_code unlink(const std::string& path) = 0;
  virtual std::error_code symlink(const std::string& target, const std::string& path) = 0;
  virtual std::error_code readlink(const std::string& path, std::string* target) = 0;
  // Sets the modification, access and (where the tree keeps it) creation
  // times of `path` itself, not of a link's target.
  virtual std::error_code set_times(const std::string& path, const Attr& times) = 0;
  // Sets the read-only, hidden and archive state from image flags.
  virtual std::error_code set_flags(const std::string& path, uint32_t flags) = 0;
};

std::unique_ptr<Tree> host_tree();
// `image` names the image in messages.
std::unique_ptr<Tree> image_tree(Volume* volume, const std::string& image);

inline std::error_code errno_code(int e) {
  return std::error_code(e, std::generic_category());
}

}  // namespace exvol::cli
