// Option parsing, error reporting and interrupts, shared by the commands.

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "cli.h"

namespace exvol::cli {

namespace {

// "+HH", "+HH:MM", "-HHMM" ... east of UTC, as seconds west.
bool parse_utc_offset(const std::string& text, int32_t* seconds_west) {
  if (text.size() < 3 || (text[0] != '+' && text[0] != '-'))
    return false;
  std::string digits;
  for (size_t i = 1; i < text.size(); i++) {
    if (text[i] == ':' && i == 3)
      continue;
    if (text[i] < '0' || text[i] > '9')
      return false;
    digits += text[i];
  }
  if (digits.size() != 2 && digits.size() != 4)
    return false;
  int hours = std::stoi(digits.substr(0, 2));
  int minutes = digits.size() == 4 ? std::stoi(digits.substr(2)) : 0;
  if (hours > 14 || minutes > 59)
    return false;
  int east = (hours * 60 + minutes) * 60;
  *seconds_west = text[0] == '+' ? -east : east;
  return true;
}

int32_t local_seconds_west() {
  time_t now = time(nullptr);
  struct tm tm;
  localtime_r(&now, &tm);
  return static_cast<int32_t>(-tm.tm_gmtoff);
}

// One "-o" item. Returns an error message, empty when it was understood.
std::string apply_mount_option(const std::string& item, MountSettings* m) {
  if (item == "ro") {
    m->read_only = true;
  } else if (item == "rw") {
    m->read_only = false;
  } else if (item == "noatime") {
    m->noatime = true;
  } else if (item == "atime") {
    m->noatime = false;
  } else if (item.rfind("tz=", 0) == 0) {
    std::string zone = item.substr(3);
    int32_t west = 0;
    if (zone == "UTC" || zone == "utc")
      west = 0;
    else if (zone == "local")
      west = local_seconds_west();
    else if (!parse_utc_offset(zone, &west))
      return "bad time zone " + zone + " (UTC, local or +HH:MM)";
    m->seconds_west = west;
  } else if (item.rfind("umask=", 0) == 0) {
    char* end = nullptr;
    unsigned long umask = strtoul(item.c_str() + 6, &end, 8);
    if (item.size() == 6 || *end || umask > 0777)
      return "bad umask " + item.substr(6);
    m->mask = static_cast<uint16_t>(0777 & ~umask);
  } else {
    return "unknown mount option " + item;
  }
  return "";
}

std::string apply_mount_options(const std::string& list, MountSettings* m) {
  size_t start = 0;
  while (start <= list.size()) {
    size_t comma = list.find(',', start);
    std::string item = list.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
    if (!item.empty()) {
      std::string problem = apply_mount_option(item, m);
      if (!problem.empty())
        return problem;
    }
    if (comma == std::string::npos)
      break;
    start = comma + 1;
  }
  return "";
}

class Parser {
 public:
  Parser(const OptionTable& table, Args* out) : table_(table), out_(out) {}

  // Returns "" or the usage error.
  std::string parse(const std::vector<std::string>& raw, bool* help) {
    for (size_t i = 0; i < raw.size(); i++) {
      const std::string& a = raw[i];
      if (a == "--") {
        out_->operands.insert(out_->operands.end(), raw.begin() + i + 1, raw.end());
        break;
      }
      if (a == "--help") {
        *help = true;
        return "";
      }
      std::string problem;
      if (a.size() < 2 || a[0] != '-')
        out_->operands.push_back(a);
      else if (a[1] == '-')
        problem = long_option(a.substr(2), raw, &i);
      else
        problem = short_options(a, raw, &i);
      if (!problem.empty())
        return problem;
    }
    return "";
  }

 private:
  // "--name", "--name=value" or "--name value" (for valued options).
  std::string long_option(const std::string& arg, const std::vector<std::string>& raw,
                          size_t* i) {
    size_t eq = arg.find('=');
    std::string name = arg.substr(0, eq);
    char letter = name == "read-only" ? 'o' : 0;
    for (const auto& [long_name, l] : table_.longs) {
      if (long_name == name)
        letter = l;
    }
    if (letter == 0)
      return "unknown option --" + name;
    bool valued = letter != 'o' && strchr(table_.valued, letter);
    if (!valued && eq != std::string::npos)
      return "option --" + name + " takes no value";
    if (!valued) {
      if (letter == 'o')
        out_->mount.read_only = true;  // --read-only is -o ro
      else
        out_->flags += letter;
      return "";
    }
    if (eq != std::string::npos) {
      out_->values[letter] = arg.substr(eq + 1);
    } else if (*i + 1 < raw.size()) {
      out_->values[letter] = raw[++*i];
    } else {
      return "option --" + name + " needs a value";
    }
    return "";
  }

  std::string short_options(const std::string& a, const std::vector<std::string>& raw, size_t* i) {
    for (size_t k = 1; k < a.size(); k++) {
      char c = a[k];
      bool mount = c == 'o';
      if (mount || strchr(table_.valued, c)) {
        std::string value = a.substr(k + 1);
        if (value.empty()) {
          if (*i + 1 >= raw.size())
            return std::string("option -") + c + " needs a value";
          value = raw[++*i];
        }
        if (mount)
          return apply_mount_options(value, &out_->mount);
        out_->values[c] = value;
        return "";
      }
      if (!strchr(table_.flags, c))
        return std::string("unknown option -") + c;
      out_->flags += c;
    }
    return "";
  }

  const OptionTable& table_;
  Args* out_;
};

std::atomic_bool g_interrupted{false};

void on_signal(int) {
  g_interrupted = true;
}

}  // namespace

bool parse_args(const CommandInfo& command, const OptionTable& table,
                const std::vector<std::string>& raw, Args* out, int* status) {
  bool help = false;
  Parser parser(table, out);
  std::string problem = parser.parse(raw, &help);
  if (help) {
    print_command_help(command);
    *status = 0;
    return false;
  }
  if (!problem.empty()) {
    *status = Reporter(command.name).usage(problem);
    return false;
  }
  if (!out->mount.seconds_west)
    out->mount.seconds_west = local_seconds_west();
  return true;
}

void Reporter::error(const std::string& what, std::error_code ec) {
  error(what + ": " + ec.message());
}

void Reporter::error(const std::string& message) {
  fprintf(stderr, "exvol: %s: %s\n", command_.c_str(), message.c_str());
  failed_ = true;
}

void Reporter::warn(const std::string& message) const {
  fprintf(stderr, "exvol: %s: warning: %s\n", command_.c_str(), message.c_str());
}

int Reporter::usage(const std::string& message) const {
  fprintf(stderr, "exvol: %s: %s\n", command_.c_str(), message.c_str());
  if (const CommandInfo* c = find_command(command_))
    fprintf(stderr, "usage: exvol %s\n", c->synopsis);
  fprintf(stderr, "Try 'exvol %s --help'.\n", command_.c_str());
  return 2;
}

bool interrupted() {
  return g_interrupted;
}

void install_interrupt_handlers() {
  struct sigaction sa {};
  sa.sa_handler = on_signal;
  sa.sa_flags = SA_RESETHAND | SA_RESTART;
  sigemptyset(&sa.sa_mask);
  for (int sig : {SIGINT, SIGTERM, SIGHUP})
    sigaction(sig, &sa, nullptr);
  // A reader that goes away (`exvol cat img:/f | head`) must not kill the
  // program before it unmounts: writes then fail with EPIPE instead.
  signal(SIGPIPE, SIG_IGN);
}

}  // namespace exvol::cli
