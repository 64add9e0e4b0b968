// exvol: an exFAT image tool in the spirit of mtools. `exvol COMMAND ARGS`.

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "cli.h"

namespace exvol::cli {

namespace {

int help_command(const std::vector<std::string>& args);
}  // namespace

int mkfs_command(const std::vector<std::string>& args);  // mkfs.cpp
extern const char kMkfsDetails[];

namespace {

const char kCommonOptions[] =
    "Options of every command that takes images:\n"
    "  -o OPTIONS       mount options, separated by commas:\n"
    "                     ro            never write the image\n"
    "                     tz=ZONE       time zone of the image's local times:\n"
    "                                   UTC, local (default) or +HH:MM / -HH:MM\n"
    "                     umask=OCTAL   permission bits not shown (default 022)\n"
    "                     noatime       do not record access times\n"
    "  --read-only      the same as -o ro\n"
    "  --help           this help\n";

const std::vector<CommandInfo> kCommands = {
    {"info", info_command, "info [--json] IMG",
     "label, UUID, geometry, space and state of a volume",
     "  --json     machine-readable output\n"},
    {"ls", ls_command, "ls [-l] [-a] [-R] [-d] [-U] IMG:PATH...", "list directories",
     "  -l   long listing: type and attributes (R read-only, H hidden, A archive),\n"
     "       size, modification time, name, and '-> target' for links\n"
     "  -a   also hidden names (Hidden attribute or a leading '.')\n"
     "  -R   list subdirectories recursively\n"
     "  -d   list directories themselves, not their contents\n"
     "  -U   directory order instead of sorting by name\n"},
    {"stat", stat_command, "stat [-L] [--json] IMG:PATH...", "show every attribute of files",
     "  -L       follow a symbolic link\n"
     "  --json   machine-readable output\n"},
    {"cat", cat_command, "cat IMG:PATH...", "write files to standard output", ""},
    {"cp", cp_command, "cp [-r] [-p] [-n] SRC... DST",
     "copy files into, out of and between images",
     "  SRC and DST are IMG:PATH addresses or host paths; with several SRC, or\n"
     "  when DST is a directory, the copies go into DST under their names.\n"
     "  -r, -R   copy directories recursively (links are copied as links)\n"
     "  -p       keep modification, access and creation times, and the\n"
     "           read-only, hidden and archive attributes\n"
     "  -n       do not overwrite existing files\n"
     "  A progress line is shown on a terminal for files of 1 MiB or more.\n"},
    {"mv", mv_command, "mv [-n] SRC... DST", "move or rename files",
     "  Within one image a rename; otherwise a copy that keeps times and\n"
     "  attributes, after which the source is removed.\n"
     "  -n   do not overwrite existing files\n"},
    {"rm", rm_command, "rm [-r] [-f] IMG:PATH...", "remove files",
     "  -r, -R   remove directories and their contents\n"
     "  -f       ignore missing files; remove read-only files too\n"},
    {"mkdir", mkdir_command, "mkdir [-p] IMG:PATH...", "make directories",
     "  -p   make missing parents; no error if the directory exists\n"},
    {"rmdir", rmdir_command, "rmdir IMG:PATH...", "remove empty directories", ""},
    {"ln", ln_command, "ln -s [-f] TARGET IMG:PATH", "make a symbolic link",
     "  -s   make a symbolic link (exFAT has no hard links)\n"
     "  -f   replace an existing file of that name\n"
     "  When IMG:PATH is a directory the link is made inside it.\n"},
    {"readlink", readlink_command, "readlink IMG:PATH...", "print the targets of symbolic links",
     ""},
    {"touch", touch_command, "touch [-c] [-d DATE] IMG:PATH...",
     "set file times, making empty files",
     "  -c        do not create missing files\n"
     "  -d DATE   use DATE instead of now: @SECONDS, YYYY-MM-DD or\n"
     "            'YYYY-MM-DD HH:MM[:SS]', local time or with a final Z for UTC\n"},
    {"attrib", attrib_command, "attrib [+|-][rha]... IMG:PATH...",
     "show or change the read-only, hidden and archive attributes",
     "  +r / -r   set / clear read-only (files only)\n"
     "  +h / -h   set / clear hidden\n"
     "  +a / -a   set / clear archive (files only)\n"
     "  Without changes, prints the attributes as R, H and A.\n"},
    {"label", label_command, "label [-c] IMG [NEW]", "show or change the volume label",
     "  NEW   the new label (at most 11 characters)\n"
     "  -c    remove the label\n"},
    {"df", df_command, "df [-h] IMG...", "show the space used and free",
     "  -h   sizes in K, M, G instead of 1K blocks\n"},
    {"check", check_command, "check [--json] [--repair[=aggressive]] IMG",
     "check a volume's consistency, and repair what can be repaired without guessing",
     kCheckDetails},
    {"mkfs", mkfs_command,
     "mkfs [-s SIZE] [-c CLUSTER] [-L LABEL] [--serial HEX] [--from DIR] IMG|DEVICE",
     "format a volume, optionally filled from a directory", kMkfsDetails},
    {"help", help_command, "help [COMMAND]", "list the commands, or explain one", ""},
};

int help_command(const std::vector<std::string>& args) {
  if (args.empty()) {
    fputs(usage_text(), stdout);
    return 0;
  }
  const CommandInfo* command = find_command(args[0]);
  if (!command || args.size() > 1)
    return usage_error(args.size() > 1 ? "help: one command at a time"
                                       : "help: unknown command " + args[0]);
  print_command_help(*command);
  return 0;
}

std::string make_usage() {
  std::string s =
      "usage: exvol COMMAND [OPTIONS] ARGS...\n"
      "Works on exFAT images and devices without mounting them. Files on an\n"
      "image are named IMG:PATH (IMG: alone is the root directory); other\n"
      "paths are the host's. 'exvol --version' prints the version.\n\ncommands:\n";
  for (const CommandInfo& c : kCommands) {
    char line[160];
    snprintf(line, sizeof(line), "  %-10s%s\n", c.name, c.summary);
    s += line;
  }
  s += "\n'exvol help COMMAND' or 'exvol COMMAND --help' explains a command.\n"
       "Exit status: 0 success, 1 an operation failed, 2 wrong usage.\n";
  return s;
}

}  // namespace

const char* usage_text() {
  static const std::string text = make_usage();
  return text.c_str();
}

const std::vector<CommandInfo>& command_table() {
  return kCommands;
}

const CommandInfo* find_command(const std::string& name) {
  for (const CommandInfo& c : kCommands)
    if (name == c.name)
      return &c;
  return nullptr;
}

void print_command_help(const CommandInfo& command) {
  printf("usage: exvol %s\n%s.\n", command.synopsis, command.summary);
  if (*command.details)
    printf("\n%s", command.details);
  if (strcmp(command.name, "help") != 0 && strcmp(command.name, "info") != 0 &&
      strcmp(command.name, "check") != 0 && strcmp(command.name, "mkfs") != 0)
    printf("\n%s", kCommonOptions);
}

int failure(const std::string& message) {
  fprintf(stderr, "exvol: %s\n", message.c_str());
  return 1;
}

int usage_error(const std::string& message) {
  fprintf(stderr, "exvol: %s\n%s", message.c_str(), usage_text());
  return 2;
}

}  // namespace exvol::cli

int main(int argc, char** argv) {
  using namespace exvol::cli;
  if (argc < 2)
    return usage_error("missing command");
  std::string command = argv[1];
  std::vector<std::string> args(argv + 2, argv + argc);
  if (command == "-h" || command == "--help") {
    fputs(usage_text(), stdout);
    return 0;
  }
  if (command == "--version" || command == "-V") {
    printf("exvol %s\n", EXVOL_VERSION);
    return 0;
  }
  const CommandInfo* info = find_command(command);
  if (!info)
    return usage_error("unknown command " + command);
  install_interrupt_handlers();
  int status = info->run(args);
  if (fflush(stdout) != 0 && status == 0)
    status = failure(command + ": standard output: " + strerror(errno));
  return status;
}
