// mount.exvol: mounts an exFAT image or device through FUSE.
//
// Life of the daemon:
//   1. parse the arguments (usage errors exit 1 before anything happens);
//   2. unless -f, fork: the parent waits until the child reports that the
//      mount is up, or why it failed, and exits with that status, so that
//      mount(8) and scripts see the result. Forking comes first because the
//      library starts threads when it mounts, and threads don't survive a
//      fork;
//   3. mount the volume, create the FUSE session and mount it on the mount
//      point (failures exit 32, mount(8)'s "mount failure"). The volume's
//      lock is the library's: taken with the mount, here in the process
//      that serves, and never shared with the parent, which only waits;
//      flock locks go with the open file, so the lock holds as long as
//      this process does;
//   4. serve requests on several threads until the kernel unmounts
//      (umount, fusermount3 -u) or SIGTERM/SIGINT/SIGHUP arrives;
//   5. detach the FUSE mount if it is still there, close what the kernel
//      left open and unmount the volume, which writes everything and marks
//      it clean. The library releases the volume's lock last: whoever waits
//      for it knows that the image is complete. A write that failed on the
//      device at any time makes the unmount fail, and the daemon says so
//      (exit 32 in the foreground, the system log otherwise).

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "fuse/daemon.h"
#include "fuse/ops.h"
#include "fuse/options.h"
#include "fuse/watch.h"

namespace exvol::fuse {

namespace {

constexpr int kExitUsage = 1;
constexpr int kExitFailure = 32;

// How the child tells the waiting parent the outcome; -1 when foreground.
int g_notify_fd = -1;

void notify_parent(uint8_t status) {
  if (g_notify_fd < 0)
    return;
  ssize_t n;
  do {
    n = write(g_notify_fd, &status, 1);
  } while (n < 0 && errno == EINTR);
  close(g_notify_fd);
  g_notify_fd = -1;
}

// Forks. The parent waits for the child's status byte and exits with it;
// only the child returns. Returns false if the fork failed.
bool fork_daemon() {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0)
    return false;
  pid_t pid = fork();
  if (pid < 0)
    return false;
  if (pid > 0) {
    close(fds[1]);
    uint8_t status = kExitFailure;
    ssize_t n;
    do {
      n = read(fds[0], &status, 1);
    } while (n < 0 && errno == EINTR);
    if (n != 1) {
      int raw = 0;
      waitpid(pid, &raw, 0);
      fprintf(stderr, "mount.exvol: the daemon exited before the mount was ready\n");
      _exit(kExitFailure);
    }
    _exit(status);
  }
  close(fds[0]);
  g_notify_fd = fds[1];
  setsid();
  return true;
}

// Once the daemon has left the terminal, what the driver reports about the
// volume (damage, failing I/O) goes to the system log, under the image's
// name.
void log_to_syslog(const std::string& image) {
  set_log_handler([image](const std::string& message) {
    syslog(LOG_WARNING, "%s: %s", image.c_str(), message.c_str());
  });
}

// Leaves the terminal once the mount is up: the daemon's output would have
// nowhere to go when the terminal closes.
void detach_stdio() {
  int null = open("/dev/null", O_RDWR);
  if (null < 0)
    return;
  dup2(null, STDIN_FILENO);
  dup2(null, STDOUT_FILENO);
  dup2(null, STDERR_FILENO);
  if (null > STDERR_FILENO)
    close(null);
}

std::unique_ptr<Volume> mount_volume(const Config& c) {
  MountOptions options = c.volume;
  options.echo_kernel_log = false;  // printed below, with the image's name
  std::unique_ptr<Volume> volume;
  std::string diagnostic;
  std::error_code ec = Volume::mount(c.image, options, &volume, &diagnostic);
  if (ec == std::errc::device_or_resource_busy && !diagnostic.empty()) {
    // Names the image and the program that holds it.
    fprintf(stderr, "mount.exvol: %s\n", diagnostic.c_str());
    return nullptr;
  }
  if (ec) {
    // A device without exFAT: the diagnostic says what it holds.
    std::string reason = ec.value() == EMEDIUMTYPE && !diagnostic.empty()
                             ? diagnostic
                             : ec.message() + (diagnostic.empty() ? "" : ": " + diagnostic);
    fprintf(stderr, "mount.exvol: can't mount %s: %s\n", c.image.c_str(), reason.c_str());
    return nullptr;
  }
  if (!diagnostic.empty())
    fprintf(stderr, "mount.exvol: %s: %s\n", c.image.c_str(), diagnostic.c_str());
  return volume;
}

// A volume left dirty (a crash, a device pulled while mounted) may be
// damaged, and this mount clears the mark when it ends: say so while the
// user can still check it, on the terminal and in the system log.
void warn_if_unclean(const Config& c, Volume& volume) {
  VolumeInfo info;
  if (volume.info(&info) || !info.dirty_at_mount)
    return;
  std::string message = "the volume was not cleanly unmounted and may be damaged; "
                        "unmount it and run 'exvol check " + c.image + "'";
  fprintf(stderr, "mount.exvol: %s: warning: %s\n", c.image.c_str(), message.c_str());
  syslog(LOG_WARNING, "%s: %s", c.image.c_str(), message.c_str());
}

// What errors= does about a damaged volume: to the system log always (the
// record an administrator looks for later), and to the terminal too in the
// foreground.
void say(const Config& c, const std::string& message) {
  if (c.foreground)
    fprintf(stderr, "mount.exvol: %s: %s\n", c.image.c_str(), message.c_str());
  syslog(LOG_ERR, "%s: %s", c.image.c_str(), message.c_str());
}

fuse_session* make_session(const Config& c, Daemon* daemon) {
  std::string options = c.fuse_options;
  const char* argv[] = {"mount.exvol", "-o", options.c_str(), c.debug ? "-d" : nullptr,
                        nullptr};
  fuse_args args = FUSE_ARGS_INIT(c.debug ? 4 : 3, const_cast<char**>(argv));
  const fuse_lowlevel_ops& ops = operations();
  fuse_session* se = fuse_session_new(&args, &ops, sizeof(ops), daemon);
  fuse_opt_free_args(&args);
  if (se == nullptr)
    fprintf(stderr, "mount.exvol: can't create the FUSE session\n");
  return se;
}

// Serves requests until the session ends. Termination signals, blocked
// since the start so that no library thread can take them, are let
// through in this thread only: the session's handlers end the loop.
int serve(fuse_session* se) {
  fuse_loop_config* loop = fuse_loop_cfg_create();
  fuse_loop_cfg_set_idle_threads(loop, 4);
  fuse_loop_cfg_set_max_threads(loop, 16);
  fuse_loop_cfg_set_clone_fd(loop, 1);
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGHUP);
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
  int result = fuse_session_loop_mt(se, loop);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  fuse_loop_cfg_destroy(loop);
  return result;
}

int run(const Config& c) {
  openlog("mount.exvol", LOG_PID, LOG_DAEMON);
  std::unique_ptr<Volume> volume = mount_volume(c);
  if (!volume)
    return kExitFailure;
  warn_if_unclean(c, *volume);
  Daemon daemon(c, std::move(volume));
  fuse_session* se = make_session(c, &daemon);
  if (se == nullptr || fuse_set_signal_handlers(se) != 0 ||
      fuse_session_mount(se, c.mountpoint.c_str()) != 0) {
    if (se != nullptr) {
      fuse_remove_signal_handlers(se);
      fuse_session_destroy(se);
    }
    daemon.shut_down();
    return kExitFailure;
  }

  daemon.mounted(se);
  notify_parent(0);
  if (!c.foreground) {
    detach_stdio();
    log_to_syslog(c.image);
    if (chdir("/") != 0) {
      // Only the working directory stays put; nothing depends on it.
    }
  }
  bool panicked;
  {
    // errors=panic ends the session the way SIGTERM does.
    ErrorWatch watch(
        c, daemon.volume(), [&c](const std::string& m) { say(c, m); },
        [] { kill(getpid(), SIGTERM); });
    serve(se);
    panicked = watch.panicked();
  }

  fuse_remove_signal_handlers(se);
  fuse_session_unmount(se);
  std::error_code ec = daemon.shut_down();
  fuse_session_destroy(se);
  if (ec && c.foreground)
    fprintf(stderr, "mount.exvol: unmounting %s: not everything could be written: %s\n",
            c.image.c_str(), ec.message().c_str());
  else if (ec)
    syslog(LOG_ERR, "unmounting %s: not everything could be written: %s", c.image.c_str(),
           ec.message().c_str());
  return ec || panicked ? kExitFailure : 0;
}

}  // namespace

}  // namespace exvol::fuse

int main(int argc, char** argv) {
  using namespace exvol::fuse;
  mode_t mask = umask(0);
  umask(mask);
  ParseResult r = parse_command_line(argc, argv, mask, getuid(), getgid());
  if (r.help) {
    fputs(usage_text().c_str(), stdout);
    return 0;
  }
  if (r.version) {
    printf("mount.exvol %s (FUSE %s)\n", EXVOL_VERSION, fuse_pkgversion());
    return 0;
  }
  if (!r.ok) {
    fprintf(stderr, "mount.exvol: %s\n%s", r.error.c_str(), usage_text().c_str());
    return kExitUsage;
  }

  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  if (!r.config.foreground && !fork_daemon()) {
    fprintf(stderr, "mount.exvol: can't start the daemon: %s\n", strerror(errno));
    return kExitFailure;
  }
  int status = run(r.config);
  notify_parent(static_cast<uint8_t>(status));
  return status;
}
