// Who may do what on a root mount that serves others: the kernel's checks
// (default_permissions) where allow_utime gives no one but the owner
// anything, the daemon's own where it does. Each row runs one operation in
// a child process that has taken a user's identity.

#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "tests/fuse/mount_fixture.h"

namespace exvol::test {
namespace {

// The mount's files belong to 1000:1000. The member is in group 1000 only
// through its supplementary groups, which the daemon must read.
struct Who {
  const char* name;
  uid_t uid;
  gid_t gid;
  gid_t extra;
};
constexpr Who kOwner{"owner", 1000, 1000, 1000};
constexpr Who kMember{"member", 1001, 1001, 1000};
constexpr Who kOther{"other", 1002, 1002, 1002};
constexpr Who kRoot{"root", 0, 0, 0};

enum class Op {
  kSetTimes,  // explicit times on "f"
  kTouch,     // both times "now" on "f"
  kRead,
  kWrite,
  kTruncate,  // by name
  kCreate,    // "new"
  kUnlink,    // "victim"
  kRename,    // "victim" to "moved"
  kMkdir,     // "newdir"
  kChmod,     // "f" to the mode it has
  kLookup,    // "missing", which does not exist
};

// Returned when the operation succeeded but did not do what it said.
constexpr int kWrongResult = 99;
constexpr time_t kExplicit = 1000000000;

int perform(Op op) {
  switch (op) {
    case Op::kSetTimes: {
      timespec ts[2] = {{kExplicit, 0}, {kExplicit, 0}};
      if (utimensat(AT_FDCWD, "mnt/f", ts, 0) != 0)
        return errno;
      struct stat st;
      return stat("mnt/f", &st) == 0 && st.st_mtime == kExplicit ? 0 : kWrongResult;
    }
    case Op::kTouch: return utimensat(AT_FDCWD, "mnt/f", nullptr, 0) == 0 ? 0 : errno;
    case Op::kRead:
    case Op::kWrite: {
      int fd = open("mnt/f", op == Op::kRead ? O_RDONLY : O_WRONLY);
      return fd < 0 ? errno : (close(fd) == 0 ? 0 : errno);
    }
    case Op::kTruncate: return truncate("mnt/f", 1) == 0 ? 0 : errno;
    case Op::kCreate: {
      int fd = open("mnt/new", O_WRONLY | O_CREAT | O_EXCL, 0644);
      return fd < 0 ? errno : (close(fd) == 0 ? 0 : errno);
    }
    case Op::kUnlink: return unlink("mnt/victim") == 0 ? 0 : errno;
    case Op::kRename: return rename("mnt/victim", "mnt/moved") == 0 ? 0 : errno;
    case Op::kMkdir: return mkdir("mnt/newdir", 0755) == 0 ? 0 : errno;
    case Op::kChmod: {
      struct stat st;
      if (stat("mnt/f", &st) != 0)
        return errno;
      return chmod("mnt/f", st.st_mode & 07777) == 0 ? 0 : errno;
    }
    case Op::kLookup: {
      struct stat st;
      return stat("mnt/missing", &st) == 0 ? kWrongResult : errno;
    }
  }
  return kWrongResult;
}

// 0 or the errno of `op` run by `who` from the directory that holds the
// mount point "mnt" (a chdir into the mount would itself be checked).
int run_as(const Who& who, Op op, const std::string& dir) {
  pid_t pid = fork();
  if (pid == 0) {
    if (setgroups(1, &who.extra) != 0 || setresgid(who.gid, who.gid, who.gid) != 0 ||
        setresuid(who.uid, who.uid, who.uid) != 0 || chdir(dir.c_str()) != 0)
      _exit(100);
    _exit(perform(op));
  }
  int raw = 0;
  waitpid(pid, &raw, 0);
  return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
}

// Root puts back what the operations change.
void reset(const MountedVolume& m) {
  for (const char* name : {"f", "victim"}) {
    int fd = open(m.path(name).c_str(), O_WRONLY | O_CREAT, 0644);
    ASSERT_GE(fd, 0) << name << ": " << strerror(errno);
    close(fd);
  }
  unlink(m.path("new").c_str());
  unlink(m.path("moved").c_str());
  rmdir(m.path("newdir").c_str());
}

struct Row {
  const Who& who;
  Op op;
  int expected;
};

struct Mount {
  const char* options;
  std::vector<Row> rows;
};

const char* op_name(Op op) {
  static const char* const names[] = {"set times", "touch",  "read",  "write", "truncate", "create",
                                      "unlink",    "rename", "mkdir", "chmod", "lookup"};
  return names[static_cast<int>(op)];
}

TEST(FuseAccess, AllowUtimeAndTheModesDecideForEveryUser) {
  SKIP_WITHOUT_FUSE();
  if (geteuid() != 0)
    GTEST_SKIP() << "needs root: a root mount and other users";
  ScratchDir scratch;
  std::string image = scratch.sub("volume.img");
  std::string mnt = scratch.sub("mnt");
  make_builder_image(image);
  std::filesystem::create_directories(mnt);
  // Every user must reach the mount point.
  std::filesystem::permissions(std::filesystem::path(mnt).parent_path(),
                               std::filesystem::perms::owner_all |
                                   std::filesystem::perms::others_exec |
                                   std::filesystem::perms::group_exec);
  const std::string ids = "uid=1000,gid=1000,";
  const Mount mounts[] = {
      // allow_utime follows dmask (~022 & 022: nothing), the kernel checks.
      {"umask=022",
       {{kOwner, Op::kSetTimes, 0},
        {kMember, Op::kSetTimes, EPERM},
        {kMember, Op::kTouch, EACCES},
        {kOwner, Op::kWrite, 0},
        {kMember, Op::kWrite, EACCES}}},
      // The group may set times; the modes still hold for the rest.
      {"umask=022,allow_utime=020",
       {{kOwner, Op::kSetTimes, 0},     {kMember, Op::kSetTimes, 0},
        {kMember, Op::kTouch, 0},       {kOther, Op::kSetTimes, EPERM},
        {kOther, Op::kTouch, EACCES},   {kRoot, Op::kSetTimes, 0},
        {kMember, Op::kRead, 0},        {kMember, Op::kWrite, EACCES},
        {kOwner, Op::kWrite, 0},        {kMember, Op::kTruncate, EACCES},
        {kOwner, Op::kTruncate, 0},     {kMember, Op::kCreate, EACCES},
        {kOwner, Op::kCreate, 0},       {kRoot, Op::kCreate, 0},
        {kMember, Op::kUnlink, EACCES}, {kOwner, Op::kUnlink, 0},
        {kMember, Op::kRename, EACCES}, {kOwner, Op::kRename, 0},
        {kMember, Op::kMkdir, EACCES},  {kOwner, Op::kMkdir, 0},
        {kMember, Op::kChmod, EPERM},   {kOwner, Op::kChmod, 0},
        {kRoot, Op::kChmod, 0},         {kMember, Op::kLookup, ENOENT}}},
      // Group-writable files: "now" by writing, explicit times not.
      {"umask=002,allow_utime=0", {{kMember, Op::kTouch, 0}, {kMember, Op::kSetTimes, EPERM}}},
      // Everyone may write, and by default (~dmask & 022) set times.
      {"umask=0",
       {{kOther, Op::kSetTimes, 0},
        {kOther, Op::kWrite, 0},
        {kOther, Op::kTruncate, 0},
        {kOther, Op::kCreate, 0},
        {kOther, Op::kUnlink, 0},
        {kOther, Op::kRename, 0},
        {kOther, Op::kMkdir, 0},
        {kOther, Op::kChmod, EPERM}}},
      // Others may set times but not search or read anything; the group
      // may write.
      {"umask=007,allow_utime=2",
       {{kOther, Op::kLookup, EACCES},
        {kOther, Op::kRead, EACCES},
        {kOther, Op::kCreate, EACCES},
        {kMember, Op::kWrite, 0},
        {kMember, Op::kTouch, 0},           // by write permission
        {kMember, Op::kSetTimes, EPERM}}},  // 002 is not for the group
      // Asked for by name, the kernel's checks stay.
      {"umask=022,allow_utime=020,default_permissions", {{kMember, Op::kSetTimes, EPERM}}},
  };
  for (const Mount& mount : mounts) {
    SCOPED_TRACE(mount.options);
    MountedVolume m(image, mnt, ids + mount.options);
    ASSERT_TRUE(m.ok());
    for (const Row& row : mount.rows) {
      ASSERT_NO_FATAL_FAILURE(reset(m));
      EXPECT_EQ(row.expected, run_as(row.who, row.op, scratch.sub("")))
          << row.who.name << " " << op_name(row.op);
    }
    EXPECT_EQ(0, m.unmount()) << m.log();
  }
}

}  // namespace
}  // namespace exvol::test
