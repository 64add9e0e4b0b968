// The reading commands: ls, stat, cat and readlink. They mount images
// read-only, so they work on damaged and write-protected images too.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <nlohmann/json.hpp>

#include "cli.h"
#include "session.h"
#include "text.h"

namespace exvol::cli {

namespace {

char type_letter(FileType type) {
  switch (type) {
    case FileType::Directory: return 'd';
    case FileType::Regular: return '-';
    case FileType::Symlink: return 'l';
    default: return '?';
  }
}

// One name in a listing.
struct Item {
  std::string name;  // composed, for display and sorting
  std::string path;  // on the image, as the volume spells it
  Stat st;
  std::string target;  // of a link, with -l
};

class Lister {
 public:
  Lister(Reporter& reporter, const Args& args, Volume* volume)
      : reporter_(reporter),
        volume_(volume),
        long_(args.has('l')),
        all_(args.has('a')),
        recursive_(args.has('R')),
        unsorted_(args.has('U')) {}

  // Fills an item for `path`; false after reporting a failure.
  bool load(const std::string& image, const std::string& path, const std::string& name, Item* item) {
    item->name = name;
    item->path = path;
    if (std::error_code ec = volume_->lstat(path, &item->st)) {
      reporter_.error(image + ":" + path, ec);
      return false;
    }
    if (long_ && item->st.type == FileType::Symlink) {
      if (std::error_code ec = volume_->readlink(path, &item->target))
        reporter_.error(image + ":" + path, ec);
    }
    return true;
  }

  void print(std::vector<Item>& items) {
    if (!unsorted_)
      std::sort(items.begin(), items.end(),
                [](const Item& a, const Item& b) { return a.name < b.name; });
    int width = 1;
    for (const Item& i : items)
      width = std::max(width, static_cast<int>(std::to_string(i.st.size).size()));
    for (const Item& i : items)
      print_one(i, width);
  }

  // Lists a directory (and, with -R, those below it).
  void list_directory(const std::string& image, const std::string& path, bool header,
                      bool first) {
    std::vector<DirEntry> entries;
    if (std::error_code ec = volume_->list(path, &entries)) {
      reporter_.error(image + ":" + path, ec);
      return;
    }
    if (header)
      printf("%s%s:%s:\n", first ? "" : "\n", image.c_str(), path.c_str());
    std::vector<Item> items;
    for (const DirEntry& e : entries) {
      Item item;
      if (load(image, image_join(path, e.name), composed(e.name), &item) && shown(item))
        items.push_back(std::move(item));
    }
    print(items);
    if (!recursive_)
      return;
    for (const Item& i : items)
      if (i.st.type == FileType::Directory && !interrupted())
        list_directory(image, i.path, true, false);
  }

 private:
  bool shown(const Item& item) const {
    return all_ || (item.name[0] != '.' && !(item.st.flags & kFlagHidden));
  }

  void print_one(const Item& i, int width) {
    if (!long_) {
      printf("%s\n", i.name.c_str());
      return;
    }
    printf("%c%s %*llu %s %s", type_letter(i.st.type), attribute_letters(i.st).c_str(), width,
           static_cast<unsigned long long>(i.st.size), format_time(i.st.modified).c_str(),
           i.name.c_str());
    if (i.st.type == FileType::Symlink)
      printf(" -> %s", i.target.c_str());
    printf("\n");
  }

  Reporter& reporter_;
  Volume* volume_;
  bool long_, all_, recursive_, unsorted_;
};

// Whether `a` is listed as a directory (its contents) rather than a name.
bool lists_contents(Volume* volume, const Address& a, const Stat& st, const Args& args) {
  if (args.has('d'))
    return false;
  if (st.type == FileType::Directory)
    return true;
  Stat target;
  return st.type == FileType::Symlink && !args.has('l') && !volume->stat(a.path, &target) &&
         target.type == FileType::Directory;
}

}  // namespace

int ls_command(const std::vector<std::string>& raw) {
  const CommandInfo& info = *find_command("ls");
  Args args;
  int status;
  if (!parse_args(info, OptionTable{.flags = "laRUd"}, raw, &args, &status))
    return status;
  Reporter reporter("ls");
  std::vector<Address> operands;
  if (int usage = image_operands(reporter, args, &operands))
    return usage;
  Session session(reporter, args.mount);

  // Names first, then directories, as ls does.
  std::vector<Item> names;
  std::vector<std::pair<Address, Volume*>> directories;
  for (const Address& a : operands) {
    Volume* volume = session.volume(a.image, false);
    if (!volume)
      continue;
    Lister lister(reporter, args, volume);
    Item item;
    if (!lister.load(a.image, a.path, a.display(), &item))
      continue;
    if (lists_contents(volume, a, item.st, args))
      directories.emplace_back(a, volume);
    else
      names.push_back(std::move(item));
  }
  Lister(reporter, args, nullptr).print(names);
  bool header = operands.size() > 1 || args.has('R');
  bool first = names.empty();
  for (const auto& [a, volume] : directories) {
    Lister lister(reporter, args, volume);
    lister.list_directory(a.image, a.path, header, first);
    first = false;
  }
  return session.finish();
}

namespace {

const char* type_name(FileType type) {
  switch (type) {
    case FileType::Directory: return "directory";
    case FileType::Regular: return "regular file";
    case FileType::Symlink: return "symbolic link";
    default: return "unknown";
  }
}

std::vector<std::string> attribute_names(const Stat& st) {
  std::vector<std::string> names;
  if (st.flags & kFlagImmutable)
    names.push_back("read-only");
  if (st.flags & kFlagHidden)
    names.push_back("hidden");
  if (st.type != FileType::Directory && !(st.flags & kFlagArchived))
    names.push_back("archive");
  return names;
}

void print_stat(const std::string& name, const Stat& st, const std::string& target) {
  std::string attributes;
  for (const std::string& a : attribute_names(st))
    attributes += (attributes.empty() ? "" : " ") + a;
  printf("File:       %s\n", name.c_str());
  printf("Type:       %s\n", type_name(st.type));
  printf("Size:       %llu\n", static_cast<unsigned long long>(st.size));
  printf("Allocated:  %llu\n", static_cast<unsigned long long>(st.allocated));
  printf("Attributes: %s\n", attributes.empty() ? "none" : attributes.c_str());
  printf("Flags:      0x%08x\n", st.flags);
  printf("Mode:       %04o\n", st.mode & 07777);
  printf("Links:      %u\n", st.nlink);
  printf("Owner:      %u:%u\n", st.uid, st.gid);
  printf("File id:    %llu\n", static_cast<unsigned long long>(st.file_id));
  printf("Parent id:  %llu\n", static_cast<unsigned long long>(st.parent_id));
  printf("I/O size:   %u\n", st.io_size);
  printf("Birth:      %s\n", format_time(st.birth, true).c_str());
  printf("Modified:   %s\n", format_time(st.modified, true).c_str());
  printf("Accessed:   %s\n", format_time(st.accessed, true).c_str());
  printf("Changed:    %s\n", format_time(st.changed, true).c_str());
  if (st.type == FileType::Symlink)
    printf("Target:     %s\n", target.c_str());
}

nlohmann::ordered_json json_time(const timespec& t) {
  return {{"sec", static_cast<int64_t>(t.tv_sec)}, {"nsec", static_cast<int64_t>(t.tv_nsec)}};
}

void print_stat_json(const std::string& name, const Stat& st, const std::string& target) {
  nlohmann::ordered_json doc = {{"file", name},
                                {"type", type_name(st.type)},
                                {"size", st.size},
                                {"allocated", st.allocated},
                                {"attributes", attribute_names(st)},
                                {"flags", st.flags},
                                {"mode", st.mode & 07777},
                                {"file_id", st.file_id},
                                {"parent_id", st.parent_id},
                                {"birth", json_time(st.birth)},
                                {"modified", json_time(st.modified)},
                                {"accessed", json_time(st.accessed)}};
  if (st.type == FileType::Symlink)
    doc["target"] = target;
  print_json(doc);
}

// Copies an open file to stdout. Returns false when stdout is gone.
bool cat_file(Reporter& reporter, File& file, const Address& a, std::vector<char>& buffer) {
  for (;;) {
    size_t done = 0;
    if (std::error_code ec = file.read(buffer.data(), buffer.size(), &done)) {
      reporter.error(a.display(), ec);
      return true;
    }
    if (done == 0)
      return true;
    for (size_t off = 0; off < done;) {
      ssize_t n = write(STDOUT_FILENO, buffer.data() + off, done - off);
      if (n < 0 && errno == EINTR && !interrupted())
        continue;
      if (n < 0) {
        // A reader that went away (`| head`) is not worth a message.
        if (errno != EPIPE)
          reporter.error("standard output", errno_code(errno));
        else
          reporter.fail_quietly();
        return false;
      }
      off += static_cast<size_t>(n);
    }
  }
}

}  // namespace

int stat_command(const std::vector<std::string>& raw) {
  OptionTable table{.flags = "Lj", .longs = {{"json", 'j'}}};
  return for_each_image_operand("stat", table, false, raw,
                          [](Reporter& reporter, const Args& args, Volume& volume,
                             const Address& a, size_t index) {
    Stat st;
    std::error_code ec = args.has('L') ? volume.stat(a.path, &st) : volume.lstat(a.path, &st);
    if (ec) {
      reporter.error(a.display(), ec);
      return true;
    }
    std::string target;
    if (st.type == FileType::Symlink && (ec = volume.readlink(a.path, &target)))
      reporter.error(a.display(), ec);
    if (index > 0 && !args.has('j'))
      printf("\n");
    if (args.has('j'))
      print_stat_json(a.display(), st, target);
    else
      print_stat(a.display(), st, target);
    return true;
  });
}

int cat_command(const std::vector<std::string>& raw) {
  std::vector<char> buffer(1 << 20);
  return for_each_image_operand("cat", OptionTable{}, false, raw,
                          [&buffer](Reporter& reporter, const Args&, Volume& volume,
                                    const Address& a, size_t) {
    File file;
    if (std::error_code ec = volume.open(a.path, O_RDONLY, &file)) {
      reporter.error(a.display(), ec);
      return true;
    }
    return cat_file(reporter, file, a, buffer);
  });
}

int readlink_command(const std::vector<std::string>& raw) {
  return for_each_image_operand("readlink", OptionTable{}, false, raw,
                          [](Reporter& reporter, const Args&, Volume& volume, const Address& a,
                             size_t) {
    std::string target;
    if (std::error_code ec = volume.readlink(a.path, &target))
      reporter.error(a.display(), ec);
    else
      printf("%s\n", target.c_str());
    return true;
  });
}

}  // namespace exvol::cli
