#include "tests/model/ops.h"

#include <cstdio>
#include <sstream>

namespace exvol::model {

namespace {

// Octal escapes for anything outside printable ASCII: unlike \x, a
// three-digit octal escape never swallows the character after it.
std::string quoted(const std::string& s) {
  std::string out = "\"";
  for (unsigned char c : s) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c >= 0x20 && c < 0x7F) {
      out += static_cast<char>(c);
    } else {
      char buf[8];
      snprintf(buf, sizeof(buf), "\\%03o", c);
      out += buf;
    }
  }
  return out + "\"";
}

}  // namespace

const char* kind_name(OpKind kind) {
  switch (kind) {
    case OpKind::Open: return "Open";
    case OpKind::Close: return "Close";
    case OpKind::Read: return "Read";
    case OpKind::Write: return "Write";
    case OpKind::Seek: return "Seek";
    case OpKind::FTruncate: return "FTruncate";
    case OpKind::Fsync: return "Fsync";
    case OpKind::FStat: return "FStat";
    case OpKind::FUtimes: return "FUtimes";
    case OpKind::FChflags: return "FChflags";
    case OpKind::Stat: return "Stat";
    case OpKind::Truncate: return "Truncate";
    case OpKind::Unlink: return "Unlink";
    case OpKind::Mkdir: return "Mkdir";
    case OpKind::Rmdir: return "Rmdir";
    case OpKind::Rename: return "Rename";
    case OpKind::Symlink: return "Symlink";
    case OpKind::Readlink: return "Readlink";
    case OpKind::Utimes: return "Utimes";
    case OpKind::Chflags: return "Chflags";
    case OpKind::List: return "List";
    case OpKind::Label: return "Label";
    case OpKind::Sync: return "Sync";
    case OpKind::Fill: return "Fill";
    case OpKind::Remount: return "Remount";
  }
  return "?";
}

bool on_slot(OpKind kind) {
  switch (kind) {
    case OpKind::Close:
    case OpKind::Read:
    case OpKind::Write:
    case OpKind::Seek:
    case OpKind::FTruncate:
    case OpKind::Fsync:
    case OpKind::FStat:
    case OpKind::FUtimes:
    case OpKind::FChflags: return true;
    default: return false;
  }
}

std::string describe(const Op& op) {
  std::ostringstream s;
  s << kind_name(op.kind);
  if (op.slot >= 0)
    s << " slot " << op.slot;
  if (!op.path.empty())
    s << " " << quoted(op.path);
  if (!op.path2.empty() || op.kind == OpKind::Label)
    s << " -> " << quoted(op.path2);
  s << " b=" << op.b << " a=" << op.a;
  if (op.seed != 0)
    s << " seed=" << op.seed;
  return s.str();
}

std::string to_code(const Op& op) {
  std::ostringstream s;
  s << "{OpKind::" << kind_name(op.kind) << ", " << op.slot << ", " << quoted(op.path) << ", "
    << quoted(op.path2) << ", " << op.b << ", " << op.a << "u, " << op.seed << "u}";
  return s.str();
}

std::string to_test_case(const std::string& name, const std::string& mode_expr,
                         const std::vector<Op>& ops) {
  std::ostringstream s;
  s << "TEST(ModelCheckReplay, " << name << ") {\n"
    << "  const std::vector<Op> ops = {\n";
  for (const Op& op : ops)
    s << "      " << to_code(op) << ",\n";
  s << "  };\n"
    << "  EXPECT_EQ(\"\", replay(" << mode_expr << ", ops));\n"
    << "}\n";
  return s.str();
}

std::vector<uint8_t> op_bytes(uint32_t seed, size_t length, uint64_t salt) {
  std::vector<uint8_t> out(length);
  uint64_t x = 0x9E3779B97F4A7C15ull * (seed + 1) + salt * 0xD1B54A32D192ED03ull;
  for (size_t i = 0; i < length; i++) {
    x ^= x << 13;
    x ^= x >> 7;
    x ^= x << 17;
    out[i] = static_cast<uint8_t>(x >> 32);
  }
  return out;
}

}  // namespace exvol::model
