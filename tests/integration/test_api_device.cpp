// The device under a volume: the lock that keeps two users from one volume
// (other Volumes, other programs, a loop device over the same image), a
// device shorter than its volume or write-protected, and device writes that
// fail whenever they are made.

#include <sys/file.h>
#include <sys/wait.h>

#include <array>
#include <random>

#include "tests/integration/api_fixture.h"
#include "tests/support/device_faults.h"

namespace exvol::test {
namespace {

class ApiDevice : public ApiTest {
 protected:
  void SetUp() override {
    ApiTest::SetUp();
    if (volume_) {
      ASSERT_FALSE(volume_->unmount());
    }
  }

  std::error_code mount_at(const std::string& path, bool read_only,
                           std::unique_ptr<Volume>* out, std::string* diagnostic) {
    MountOptions o;
    o.read_only = read_only;
    o.echo_kernel_log = false;
    return Volume::mount(path, o, out, diagnostic);
  }

  std::error_code update(Volume& v, bool read_only, std::string* diagnostic) {
    MountOptions o;
    o.read_only = read_only;
    return v.update(o, false, diagnostic);
  }

  const std::string& image() const { return image_.path(); }
};

// Whether another process could take the image's lock now, shared or
// exclusive (the lock that other tools see).
bool others_can_lock(const std::string& path, bool exclusive) {
  pid_t pid = fork();
  if (pid == 0) {
    int fd = open(path.c_str(), O_RDONLY);
    _exit(fd >= 0 && flock(fd, (exclusive ? LOCK_EX : LOCK_SH) | LOCK_NB) == 0 ? 0 : 1);
  }
  int raw = 0;
  waitpid(pid, &raw, 0);
  return WIFEXITED(raw) && WEXITSTATUS(raw) == 0;
}

// Random mounts, updates and unmounts of one image by three Volumes and by
// another process, against the model of a readers-writer lock: a volume is
// written by one user alone, read by any number. Each refusal is EBUSY and
// names the holder that is in the way; each step ends with what another
// program would see of the lock.
TEST_F(ApiDevice, VolumesShareAnImageAsReadersOrHoldItAsTheOneWriter) {
  enum State { kNone, kReader, kWriter };
  std::array<std::unique_ptr<Volume>, 3> volumes;
  std::array<State, 3> state{};
  std::unique_ptr<ForeignLock> foreign;
  State foreign_state = kNone;
  std::mt19937 random(7);
  auto holders = [&](int except) {
    int readers = 0, writers = 0;
    for (int i = 0; i < 3; i++) {
      if (i != except) {
        readers += state[i] == kReader;
        writers += state[i] == kWriter;
      }
    }
    readers += foreign_state == kReader;
    writers += foreign_state == kWriter;
    return std::make_pair(readers, writers);
  };
  // Who a refusal must name: the other program when it is in the way.
  auto blocker = [&](bool writing) {
    bool foreign_blocks = foreign_state == kWriter || (writing && foreign_state == kReader);
    return foreign_blocks ? " is in use by another program (" + foreign->holder() + ")"
                          : " is in use by this program already";
  };

  for (int step = 0; step < 300; step++) {
    int i = static_cast<int>(random() % 4);
    bool writing = random() % 2 == 0;
    std::string diagnostic;
    std::error_code ec;
    SCOPED_TRACE("step " + std::to_string(step) + ", slot " + std::to_string(i) +
                 (writing ? " writing" : " reading"));
    if (i == 3) {  // the other program changes its mind
      foreign.reset();
      foreign_state = kNone;
      auto [readers, writers] = holders(-1);
      State want = random() % 3 == 0 ? kNone : writing ? kWriter : kReader;
      if (want != kNone && writers == 0 && (want == kReader || readers == 0)) {
        foreign = std::make_unique<ForeignLock>(image(), want == kWriter);
        ASSERT_GT(foreign->pid(), 0);
        foreign_state = want;
      }
      continue;
    }
    auto [readers, writers] = holders(i);
    bool allowed = writers == 0 && (!writing || readers == 0);
    State want = writing ? kWriter : kReader;
    if (state[i] == kNone) {
      ec = mount_at(image(), !writing, &volumes[i], &diagnostic);
      EXPECT_EQ(allowed ? 0 : EBUSY, err(ec)) << diagnostic;
      if (!ec)
        state[i] = want;
    } else if (random() % 3 == 0) {
      ASSERT_FALSE(volumes[i]->unmount());
      state[i] = kNone;
    } else {
      ec = update(*volumes[i], !writing, &diagnostic);
      // Giving up writing never waits for anyone.
      EXPECT_EQ(allowed || !writing || state[i] == kWriter ? 0 : EBUSY, err(ec)) << diagnostic;
      if (!ec)
        state[i] = want;
    }
    if (ec) {
      EXPECT_EQ(image() + blocker(writing), diagnostic);
    }
    auto [all_readers, all_writers] = holders(-1);
    ASSERT_EQ(all_writers == 0, others_can_lock(image(), false));
    ASSERT_EQ(all_writers + all_readers == 0, others_can_lock(image(), true));
  }
}

// A volume longer than its device (an image cut short) would lose every
// write beyond the end: read-write is refused with the reason, read-only
// works and says what is missing, and neither changes the image. A device
// longer than its volume is fine.
TEST_F(ApiDevice, AVolumeLongerThanItsDeviceMountsOnlyReadOnly) {
  std::unique_ptr<Volume> v;
  std::string diagnostic;
  ASSERT_EQ(0, truncate(image().c_str(), 40 << 20));
  ASSERT_FALSE(mount_at(image(), false, &v, &diagnostic)) << diagnostic;
  ASSERT_FALSE(v->unmount());

  ASSERT_EQ(0, truncate(image().c_str(), 8 << 20));
  std::string before = slurp(image());
  const std::string claim =
      "the volume claims 65536 sectors of 512 bytes (32.0 MiB) but the device holds only "
      "16384 (8.0 MiB)";
  EXPECT_EQ(EROFS, err(mount_at(image(), false, &v, &diagnostic)));
  EXPECT_EQ(claim + "; it can only be mounted read-only", diagnostic);

  ASSERT_FALSE(mount_at(image(), true, &v, &diagnostic)) << diagnostic;
  EXPECT_EQ(claim + "; what lies beyond is missing", diagnostic);
  VolumeInfo info;
  ASSERT_FALSE(v->info(&info));
  EXPECT_TRUE(info.truncated());
  EXPECT_EQ(32u << 20, info.volume_bytes);
  EXPECT_EQ(8u << 20, info.device_bytes);
  EXPECT_EQ(EROFS, err(update(*v, false, &diagnostic)));
  EXPECT_EQ(claim, diagnostic);
  std::vector<DirEntry> root;
  EXPECT_FALSE(v->list("/", &root));
  ASSERT_FALSE(v->unmount());
  EXPECT_TRUE(before == slurp(image())) << "the image was written";
}

// Device writes that fail, whenever the driver makes them (file data
// written back late, metadata flushed by a timer or at unmount), make sync
// and unmount fail with the write's error; the unmount still completes and
// lets go of the image. Writes beyond 4 MiB of the image fail here: file
// data lands there, metadata and the boot sector don't.
TEST_F(ApiDevice, FailedDeviceWritesAreReportedBySyncAndUnmount) {
  for (bool sync_first : {true, false}) {
    SCOPED_TRACE(sync_first ? "sync, then unmount" : "unmount alone");
    format();
    std::string diagnostic;
    {
      FileSizeLimit limit(4 << 20);
      ASSERT_FALSE(mount_at(image(), false, &volume_, &diagnostic)) << diagnostic;
      write_file("/big", pattern(8 << 20, 1));  // may fail itself; must be reported later
      if (sync_first) {
        EXPECT_EQ(EFBIG, err(volume_->sync(true)));
      }
      EXPECT_EQ(EFBIG, err(volume_->unmount()));
      EXPECT_FALSE(volume_->mounted());
    }
    EXPECT_TRUE(others_can_lock(image(), true));
    ASSERT_FALSE(mount_at(image(), false, &volume_, &diagnostic)) << diagnostic;
    EXPECT_FALSE(volume_->sync(true)) << "a new mount starts without the old failure";
    ASSERT_FALSE(volume_->unmount());
  }
}

// Two routes to one volume, the image and a loop device over it, meet at
// one lock, either way round; readers still share. A write-protected
// device mounts read-only only.
TEST_F(ApiDevice, LoopDevicesShareTheirBackingFilesLock) {
  ATTACH_LOOP_OR_SKIP(loop, image(), false);
  const std::string route = loop.device() + " (a loop device of " + image() + ")";
  std::unique_ptr<Volume> first, second;
  std::string diagnostic;
  ASSERT_FALSE(mount_at(image(), false, &first, &diagnostic)) << diagnostic;
  EXPECT_EQ(EBUSY, err(mount_at(loop.device(), true, &second, &diagnostic)));
  EXPECT_EQ(route + " is in use by this program already", diagnostic);
  ASSERT_FALSE(first->unmount());

  ASSERT_FALSE(mount_at(loop.device(), false, &first, &diagnostic)) << diagnostic;
  EXPECT_EQ(EBUSY, err(mount_at(image(), true, &second, &diagnostic)));
  EXPECT_EQ(image() + " is in use by this program already", diagnostic);
  EXPECT_FALSE(others_can_lock(image(), false));
  ASSERT_FALSE(first->unmount());

  ASSERT_FALSE(mount_at(loop.device(), true, &first, &diagnostic)) << diagnostic;
  ASSERT_FALSE(mount_at(image(), true, &second, &diagnostic)) << diagnostic;
  EXPECT_EQ(EBUSY, err(update(*second, false, &diagnostic)));
  EXPECT_EQ(image() + " is in use by this program already", diagnostic);
  ASSERT_FALSE(first->unmount());
  ASSERT_FALSE(second->unmount());

  ATTACH_LOOP_OR_SKIP(protected_loop, image(), true);
  EXPECT_EQ(EROFS, err(mount_at(protected_loop.device(), false, &first, &diagnostic)));
  EXPECT_EQ("the device is write-protected; it can only be mounted read-only", diagnostic);
  ASSERT_FALSE(mount_at(protected_loop.device(), true, &first, &diagnostic)) << diagnostic;
  EXPECT_EQ(EROFS, err(update(*first, false, &diagnostic)));
  EXPECT_EQ("the device is write-protected", diagnostic);
  ASSERT_FALSE(first->unmount());
}

}  // namespace
}  // namespace exvol::test
