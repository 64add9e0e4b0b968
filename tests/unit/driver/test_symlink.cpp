// Symbolic links: the exact bytes of the link file for targets at and
// around the limits, reading a target back, and which files are recognised
// as links when they are instantiated.

#include <gtest/gtest.h>
#include <md5.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "host/uio.h"
#include "tests/unit/driver/namespace_fixture.h"

using namespace exvol::test;

namespace {

constexpr size_t kLinkSize = 1067;

std::string target_of_length(size_t n) {
  std::string t;
  for (size_t i = 0; i < n; i++)
    t.push_back(i % 8 == 7 ? '/' : static_cast<char>('a' + i % 26));
  return t;
}

class SymlinkTest : public NamespaceTest {
 protected:
  // The first `length` bytes of a file's clusters as on the device,
  // following the FAT unless the run is contiguous.
  std::vector<uint8_t> file_on_device(uint32_t first, bool contiguous, size_t length) {
    std::vector<uint8_t> data;
    uint32_t cluster = first;
    while (data.size() < length) {
      std::vector<uint8_t> c = read_device(builder_.cluster_byte_offset(cluster), 512);
      data.insert(data.end(), c.begin(), c.end());
      cluster = contiguous ? cluster + 1
                           : le32dec(read_device(builder_.fat_byte_offset() + 4 * cluster, 4).data());
    }
    data.resize(length);
    return data;
  }

  // VNOP_READLINK into a buffer of `capacity` bytes pre-filled with 0xEE.
  int readlink(vnode_t vp, size_t capacity, std::string* out, size_t* moved) {
    std::string buffer(capacity, '\xEE');
    uio_t uio = uio_create(1, 0, UIO_SYSSPACE, UIO_READ);
    uio_addiov(uio, reinterpret_cast<user_addr_t>(buffer.data()), capacity);
    int error = VNOP_READLINK(vp, uio, ctx_);
    *moved = capacity - static_cast<size_t>(uio_resid(uio));
    uio_free(uio);
    *out = buffer;
    return error;
  }
};

// Targets of 0, 1, 1023 and 1024 bytes give exactly the documented file; a
// longer one is refused before anything is made.
TEST_F(SymlinkTest, LinkFilesAreLaidOutExactly) {
  EXPECT_EQ("XSym\n0000\nd41d8cd98f00b204e9800998ecf8427e\n\n" + std::string(1023, ' '),
            link_file(""));
  mount_built();
  uint32_t free_before = free_clusters();
  Vref refused;
  EXPECT_EQ(ENAMETOOLONG, symlink(root_vp_, "long", target_of_length(1025), &refused));
  EXPECT_EQ(free_before, free_clusters());
  struct Made {
    size_t length;
    uint32_t first;
    bool contiguous;
  };
  std::vector<Made> made;
  for (size_t length : {0, 1, 1023, 1024}) {
    std::string target = target_of_length(length);
    Vref link;
    ASSERT_EQ(0, symlink(root_vp_, "l" + std::to_string(length), target, &link));
    ASSERT_EQ(VLNK, vnode_vtype(link.vp));
    EXPECT_EQ(kLinkSize, link.node()->x_size);
    EXPECT_EQ(kLinkSize, link.node()->x_valid_size);
    EXPECT_EQ(length, link.node()->x_link_length);
    std::string read;
    size_t moved = 0;
    ASSERT_EQ(0, readlink(link.vp, 2048, &read, &moved));
    EXPECT_EQ(length, moved);
    EXPECT_EQ(target, read.substr(0, length));
    EXPECT_EQ(std::string(2048 - length, '\xEE'), read.substr(length));
    made.push_back({length, link.node()->x_start_cluster,
                    (link.node()->x_flags & X_CONTIGUOUS) != 0});
  }
  unmount_and_check();
  for (const Made& m : made) {
    std::vector<uint8_t> bytes = file_on_device(m.first, m.contiguous, 3 * 512);
    std::string expect = link_file(target_of_length(m.length));
    EXPECT_EQ(expect, std::string(bytes.begin(), bytes.begin() + kLinkSize)) << m.length;
    EXPECT_TRUE(std::all_of(bytes.begin() + kLinkSize, bytes.end(), [](uint8_t b) { return b == 0; }))
        << m.length;
  }
}

// A file is recognised as a link, by its magic and its lower-case digest,
// each time its node is instantiated.
TEST_F(SymlinkTest, RecognitionChecksMagicAndDigest) {
  std::string good = link_file("some/where");
  std::string upper = good;
  std::transform(upper.begin() + 10, upper.begin() + 42, upper.begin() + 10,
                 [](char c) { return static_cast<char>(toupper(c)); });
  ASSERT_NE(good, upper);
  std::string magicless = good;
  magicless[0] = 'x';
  builder_.add_file(builder_.root(), u"built", bytes(good));
  builder_.add_file(builder_.root(), u"upper", bytes(upper));
  builder_.add_file(builder_.root(), u"nomagic", bytes(magicless));
  mount_built();

  Vref made, link;
  ASSERT_EQ(0, symlink(root_vp_, "made", "target/path", &made));
  ASSERT_EQ(0, symlink(root_vp_, "damaged", "target/path", &link));
  uint32_t damaged = link.node()->x_start_cluster;
  made.reset();
  link.reset();
  remount(0);

  std::map<std::string, enum vtype> expect = {
      {"built", VLNK}, {"upper", VREG}, {"nomagic", VREG}, {"made", VLNK}, {"damaged", VLNK}};
  for (const auto& [name, type] : expect) {
    Vref v;
    ASSERT_EQ(0, lookup(name, &v)) << name;
    EXPECT_EQ(type, vnode_vtype(v.vp)) << name;
  }

  // One byte of the target changes on disk; the next instantiation sees a
  // regular file.
  release_nodes();
  ASSERT_EQ(0, unmount());
  uint64_t at = builder_.cluster_byte_offset(damaged) + 43;
  ASSERT_EQ('t', read_device(at, 1)[0]);
  uint8_t changed = 'T';
  ASSERT_EQ(0, host_memdev_load(devvp, &changed, 1, at));
  ASSERT_EQ(0, mount());
  ASSERT_EQ(0, VFS_ROOT(mp, &root_vp_, ctx_));
  Vref v;
  ASSERT_EQ(0, lookup("damaged", &v));
  EXPECT_EQ(VREG, vnode_vtype(v.vp));
  EXPECT_EQ(kLinkSize, v.node()->x_size);
}

}  // namespace
