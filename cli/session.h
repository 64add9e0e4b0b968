#pragma once
// Image addresses and the images a command has mounted.
//
// An operand "IMG:PATH" names PATH on the exFAT image (or block device)
// IMG; "IMG:" alone is the root. The operand is split at the first colon
// whose left part is an existing file that is not a directory, so image
// file names may themselves contain colons. Anything else is a host path.

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli.h"
#include "exvol/volume.h"
#include "tree.h"

namespace exvol::cli {

struct Address {
  bool on_image = false;
  std::string image;  // as given, for messages
  std::string path;   // on the image: absolute, single slashes, no trailing slash
                      // on the host: as given
  bool trailing_slash = false;  // "IMG:/dir/": the operand must be a directory

  // "img.img:/a/b" or the host path: how messages name the operand.
  std::string display() const;
};

// An operand that may be on the host or on an image.
Address parse_operand(const std::string& arg);
// An operand that must be on an image. A colon whose left part does not
// exist still makes an image address (mounting it will say why it fails);
// without a colon, nullopt.
std::optional<Address> parse_image_operand(const std::string& arg);

// Why an operand that looks like "IMG:PATH" is not on an image (IMG does
// not exist, or is a directory), as a message that says what to do; ""
// when it has no colon or IMG is one.
std::string why_not_an_image(const std::string& operand);

// Why `image` can't be an image, before trying to mount it: it does not
// exist (perhaps "IMG:" was meant as IMG), or it is a directory. "" when
// it may be one.
std::string image_path_problem(const std::string& image);

// "/a//b/" -> "/a/b"; "" -> "/".
std::string normalize_image_path(const std::string& path);
// The image path of `name` in the directory `dir`.
std::string image_join(const std::string& dir, const std::string& name);
// The parent directory and the last component of an image path ("/" for
// both of the root).
std::string image_dirname(const std::string& path);
std::string image_basename(const std::string& path);

// The images one command works on. Each image is mounted once, however
// often the command names it (two mounts of one image would corrupt it),
// and unmounted by finish() or the destructor; an unmount writes
// everything pending and leaves a read-write mounted image clean.
class Session {
 public:
  Session(Reporter& reporter, const MountSettings& settings)
      : reporter_(reporter), settings_(settings) {}
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // The mounted volume of `image`, mounted now if it isn't yet: read-write
  // when `writable` (unless -o ro), read-only otherwise, so that reading
  // commands also work on damaged and write-protected images. A read-only
  // mount is remounted read-write when a writer asks for it. Returns
  // nullptr after reporting why the image can't be used.
  Volume* volume(const std::string& image, bool writable);
  // The tree an operand lives in: the host's, or its image's (mounted as
  // volume() does). nullptr after reporting why the image can't be used.
  std::unique_ptr<Tree> tree(const Address& address, bool writable);

  // Unmounts every image, reporting failures: an unmount, or a sync, that
  // says a write to the image failed, whenever it was made. Returns the
  // command's exit status.
  int finish();

 private:
  struct Mounted {
    dev_t dev;
    ino_t ino;
    std::string image;
    bool writable;
    std::unique_ptr<Volume> volume;
  };

  Volume* remount_writable(Mounted& m);
  MountOptions options(bool writable) const;

  Reporter& reporter_;
  MountSettings settings_;
  std::vector<Mounted> mounted_;
};

// The message for a failed Volume::mount of `image`: the reason and the
// driver's diagnostic, or only the diagnostic when it says it all (a
// volume in use, a device that holds no exFAT volume).
std::string mount_failure_text(const std::string& image, std::error_code ec,
                               const std::string& diagnostic);
// Reports a failed Volume::mount of `image` (see mount_failure_text).
void report_mount_failure(Reporter& reporter, const std::string& image, std::error_code ec,
                          const std::string& diagnostic);
// Warns, on stderr and in the system log, when the volume was not cleanly
// unmounted before this mount.
void warn_if_unclean(const std::string& command, const std::string& image, Volume& volume);
// Warns when the image is shorter than its volume (it was mounted
// read-only: writing commands can't mount it).
void warn_if_truncated(Reporter& reporter, const std::string& image, Volume& volume);

// Parses every operand of `args` as an image address before anything is
// done, so that a wrong command line changes nothing. Returns 0, or 2
// after reporting the usage error.
int image_operands(const Reporter& reporter, const Args& args, std::vector<Address>* out);

// The frame of the commands that do one thing per image operand: parses
// the command line, mounts each operand's image (read-write when
// `writable`) and calls each(reporter, args, volume, address, index),
// which returns false to stop early. Returns the exit status.
template <typename Each>
int for_each_image_operand(const char* name, const OptionTable& table, bool writable,
                           const std::vector<std::string>& raw, Each each) {
  const CommandInfo& info = *find_command(name);
  Args args;
  int status;
  if (!parse_args(info, table, raw, &args, &status))
    return status;
  Reporter reporter(name);
  std::vector<Address> operands;
  if (int usage = image_operands(reporter, args, &operands))
    return usage;
  Session session(reporter, args.mount);
  for (size_t i = 0; i < operands.size() && !interrupted(); i++) {
    if (Volume* volume = session.volume(operands[i].image, writable))
      if (!each(reporter, args, *volume, operands[i], i))
        break;
  }
  return session.finish();
}

}  // namespace exvol::cli
