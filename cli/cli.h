#pragma once
// The exvol command line: commands, their option parsing and their shared
// error reporting.
//
// Exit status: 0 success, 1 an operation failed, 2 the command line is
// wrong. Messages go to stderr on one line each, prefixed "exvol: " and the
// command's name: "exvol: cp: img.img:/a/b: No such file or directory".
// A command goes on with its other operands after a failed one and exits 1
// at the end.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace exvol::cli {

// Prints "exvol: message" on stderr; returns exit status 1.
int failure(const std::string& message);
// Prints "exvol: message" and the usage on stderr; returns exit status 2.
int usage_error(const std::string& message);

// The usage text.
const char* usage_text();

using CommandFn = int (*)(const std::vector<std::string>& args);

struct CommandInfo {
  const char* name;
  CommandFn run;
  const char* synopsis;  // "ls [-l] [-a] [-R] [-U] IMG:PATH..."
  const char* summary;   // one line for `exvol help`
  const char* details;   // the options, for `exvol help CMD` and --help
};

// Every command, in the order `exvol help` lists them.
const std::vector<CommandInfo>& command_table();
const CommandInfo* find_command(const std::string& name);
// Prints a command's help on stdout.
void print_command_help(const CommandInfo& command);

// How images are mounted: from `-o OPTIONS` and `--read-only`.
struct MountSettings {
  bool read_only = false;                // -o ro: never write, even for writing commands
  std::optional<int32_t> seconds_west;   // -o tz=...; unset: the host's local zone
  uint16_t mask = 0755;                  // -o umask=...: permission bits shown
  bool noatime = false;                  // -o noatime
};

// Which options a command takes besides the common ones (--help, -o,
// --read-only). `flags` are single-letter switches, `valued` letters take
// a value (the next argument or the rest of this one), `longs` maps long
// names ("json", "serial") to a letter of either: "--serial HEX" and
// "--serial=HEX" are "-S HEX".
struct OptionTable {
  const char* flags = "";
  const char* valued = "";
  std::vector<std::pair<std::string, char>> longs;
};

// A parsed command line. Options may come anywhere before "--".
struct Args {
  std::string flags;                   // the switches given
  std::map<char, std::string> values;  // the valued options given (last wins)
  std::vector<std::string> operands;
  MountSettings mount;

  bool has(char flag) const { return flags.find(flag) != std::string::npos; }
};

// Parses `raw` for `command`. Returns true with *out filled, or false with
// *status set: 0 after printing help for --help, 2 after a usage error.
bool parse_args(const CommandInfo& command, const OptionTable& table,
                const std::vector<std::string>& raw, Args* out, int* status);

// Reports a command's failures and remembers that one happened.
class Reporter {
 public:
  explicit Reporter(std::string command) : command_(std::move(command)) {}
  // "exvol: CMD: what: <error text>"; the status becomes 1.
  void error(const std::string& what, std::error_code ec);
  // "exvol: CMD: message"; the status becomes 1.
  void error(const std::string& message);
  // "exvol: CMD: warning: message"; the status stays.
  void warn(const std::string& message) const;
  // "exvol: CMD: message" and the usage hint; returns 2.
  int usage(const std::string& message) const;
  // The status becomes 1 without a message (the failure speaks for itself).
  void fail_quietly() { failed_ = true; }
  int status() const { return failed_ ? 1 : 0; }
  bool failed() const { return failed_; }
  const std::string& command() const { return command_; }

 private:
  std::string command_;
  bool failed_ = false;
};

// Set by SIGINT, SIGTERM and SIGHUP: long operations stop at the next
// chunk, so that the images are still unmounted cleanly. A second signal
// kills the program at once.
bool interrupted();
void install_interrupt_handlers();

int info_command(const std::vector<std::string>& args);
int ls_command(const std::vector<std::string>& args);
int stat_command(const std::vector<std::string>& args);
int cat_command(const std::vector<std::string>& args);
int cp_command(const std::vector<std::string>& args);
int mv_command(const std::vector<std::string>& args);
int rm_command(const std::vector<std::string>& args);
int mkdir_command(const std::vector<std::string>& args);
int rmdir_command(const std::vector<std::string>& args);
int ln_command(const std::vector<std::string>& args);
int readlink_command(const std::vector<std::string>& args);
int touch_command(const std::vector<std::string>& args);
int attrib_command(const std::vector<std::string>& args);
int label_command(const std::vector<std::string>& args);
int df_command(const std::vector<std::string>& args);
int check_command(const std::vector<std::string>& args);
extern const char kCheckDetails[];

}  // namespace exvol::cli
