// Directory listing: name conversion of stored names.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "exfat_proto.h"
#include "host/mount.h"
#include "host/uio.h"
#include "host/vfs.h"
#include "tests/support/vnode_io.h"
#include "tests/unit/driver/volume_fixture.h"
#include "vnops/exfat_dirent.h"

using namespace exvol::test;

namespace {

constexpr uint32_t kCluster = 4096;  // default geometry: 512-byte sectors, 8 per cluster
constexpr int kExtended = VNODE_READDIR_EXTENDED;

// One decoded record, whichever form it came in.
struct Record {
  uint64_t ino = 0;
  uint64_t seekoff = 0;
  uint16_t reclen = 0;
  uint16_t namlen = 0;
  uint8_t type = 0;
  std::string name;
};

// The outcome of one readdir call.
struct Listing {
  int error = 0;
  int eof = -1;
  int count = -1;
  off_t next = -1;
  std::vector<Record> records;

  std::vector<std::string> names() const {
    std::vector<std::string> n;
    for (const Record& r : records)
      n.push_back(r.name);
    return n;
  }
};

// Decodes the records in the first `used` bytes of buf. Each record's name
// must be NUL-terminated within it and its length a multiple of the form's
// alignment.
std::vector<Record> decode(const std::vector<uint8_t>& buf, size_t used, bool extended) {
  std::vector<Record> out;
  size_t at = 0;
  while (at < used) {
    Record r;
    if (extended) {
      struct direntry d;
      memset(&d, 0, sizeof(d));
      memcpy(&d, &buf[at], std::min(sizeof(d), buf.size() - at));
      r = {d.d_ino, d.d_seekoff, d.d_reclen, d.d_namlen, d.d_type,
           std::string(d.d_name, d.d_namlen)};
      EXPECT_EQ(0, d.d_reclen % 8);
      EXPECT_EQ('\0', d.d_name[d.d_namlen]);
      EXPECT_LE(offsetof(struct direntry, d_name) + d.d_namlen + 1, d.d_reclen);
    } else {
      struct dirent32 d;
      memset(&d, 0, sizeof(d));
      memcpy(&d, &buf[at], std::min(sizeof(d), buf.size() - at));
      r = {d.d_ino, 0, d.d_reclen, d.d_namlen, d.d_type, std::string(d.d_name, d.d_namlen)};
      EXPECT_EQ(0, d.d_reclen % 4);
      EXPECT_EQ('\0', d.d_name[d.d_namlen]);
      EXPECT_LE(offsetof(struct dirent32, d_name) + d.d_namlen + 1, d.d_reclen);
    }
    if (r.reclen == 0) {
      ADD_FAILURE() << "record of length 0 at " << at;
      break;
    }
    out.push_back(r);
    at += r.reclen;
  }
  EXPECT_EQ(used, at) << "records must fill exactly what was moved";
  return out;
}

class ReaddirTest : public VolumeTest {
 protected:
  // The vnode of a name in the root, held until the end of the test.
  vnode_t child(const std::string& name) {
    vnode_t vp = NULLVP;
    EXPECT_EQ(0, vn_lookup(root_vp_, name, &vp)) << name;
    if (vp != NULLVP)
      held_.push_back(vp);
    return vp;
  }

  // One VNOP_READDIR call at `offset` with a buffer of `size` bytes. The
  // directory's node lock must be free again afterwards.
  Listing list(vnode_t dvp, off_t offset, size_t size, int flags = 0) {
    std::vector<uint8_t> buf(size, 0xEE);
    uio_t uio = uio_create(1, offset, UIO_SYSSPACE, UIO_READ);
    EXPECT_NE(nullptr, uio);
    Listing l;
    if (uio == nullptr)
      return l;
    EXPECT_EQ(0, uio_addiov(uio, reinterpret_cast<user_addr_t>(buf.data()), size));
    l.error = VNOP_READDIR(dvp, uio, flags, &l.eof, &l.count, ctx_);
    l.next = uio_offset(uio);
    size_t used = size - static_cast<size_t>(uio_resid(uio));
    uio_free(uio);
    l.records = decode(buf, used, (flags & kExtended) != 0);
    EXPECT_EQ(static_cast<size_t>(l.count), l.records.size()) << "record count";
    if (vnode_isdir(dvp)) {
      EXPECT_EQ(0u, node_of(dvp)->x_lock_count) << "readdir left the directory locked";
    }
    return l;
  }

  // Lists the whole directory with `size`-byte buffers, call after call,
  // until end of file.
  std::vector<std::string> list_all(vnode_t dvp, size_t size, int flags = 0) {
    std::vector<std::string> names;
    off_t offset = 0;
    for (int calls = 0; calls < 10000; calls++) {
      Listing l = list(dvp, offset, size, flags);
      EXPECT_EQ(0, l.error);
      if (l.error)
        break;
      for (const Record& r : l.records)
        names.push_back(r.name);
      offset = l.next;
      if (l.eof)
        return names;
      EXPECT_FALSE(l.records.empty()) << "a listing must make progress at " << offset;
      if (l.records.empty())
        break;
    }
    ADD_FAILURE() << "the listing never ended";
    return names;
  }
};

// Record types and file numbers.
TEST_F(ReaddirTest, TypesAndFileNumbers) {
  Placed link = builder_.add_file(builder_.root(), u"maybe-link",
                                  std::vector<uint8_t>(1067, 'x'));
  Placed almost = builder_.add_file(builder_.root(), u"almost", std::vector<uint8_t>(1066, 'x'));
  Dir dir = builder_.mkdir(builder_.root(), u"dir");
  builder_.add_file(builder_.root(), u"empty", {});
  FileDesc huge;  // a 4 GiB file: its DataLength's low 32 bits are not 1067
  huge.name = u"huge";
  huge.data_length = (1ull << 32) + 1067;
  huge.first_cluster = link.first_cluster;
  builder_.add_set(builder_.root(), huge);
  mount_built();

  for (int flags : {0, kExtended}) {
    SCOPED_TRACE(flags);
    Listing l = list(root_vp_, 64, 8192, flags);
    ASSERT_EQ(0, l.error);
    ASSERT_EQ((std::vector<std::string>{"maybe-link", "almost", "dir", "empty", "huge"}),
              l.names());
    EXPECT_EQ(DT_UNKNOWN, l.records[0].type);
    EXPECT_EQ(DT_REG, l.records[1].type);
    EXPECT_EQ(DT_DIR, l.records[2].type);
    EXPECT_EQ(DT_REG, l.records[3].type);
    EXPECT_EQ(DT_REG, l.records[4].type);
    EXPECT_EQ(link.first_cluster, l.records[0].ino);
    EXPECT_EQ(almost.first_cluster, l.records[1].ino);
    EXPECT_EQ(dir.first_cluster, l.records[2].ino);
    EXPECT_EQ(1u, l.records[3].ino);
    // An extended record's d_seekoff resumes right after it.
    const std::vector<std::string> names = l.names();
    for (size_t i = 0; flags == kExtended && i < l.records.size(); i++) {
      Listing rest = list(root_vp_, static_cast<off_t>(l.records[i].seekoff), 8192, flags);
      std::vector<std::string> expected(names.begin() + static_cast<long>(i) + 1, names.end());
      EXPECT_EQ(expected, rest.names()) << "after " << l.records[i].name;
    }
  }
  // Once its node is in memory, the file of a link's size is listed with
  // the type its contents gave it, without the caller looking it up.
  ASSERT_NE(NULLVP, child("maybe-link"));
  EXPECT_EQ(DT_REG, list(root_vp_, 64, 8192).records[0].type);
}

// Listed names are decomposed and SFM private-use code points come back as the
// characters they stand for.
TEST_F(ReaddirTest, NameConversion) {
  builder_.add_file(builder_.root(), u"caf\u00e9", bytes("x"));
  builder_.add_file(builder_.root(), u"a\uf022b\uf001", bytes("y"));
  builder_.add_file(builder_.root(), std::u16string(255, u'\u4e2d'), bytes("z"));
  std::u16string broken = u"x";
  broken += static_cast<char16_t>(0xD800);
  broken += u"y";
  builder_.add_file(builder_.root(), broken, bytes("s"));
  builder_.add_file(builder_.root(), u"last", bytes("w"));
  mount_built();
  ASSERT_EQ(0u, xm->xm_flags & XM_CORRUPT);

  std::string han;  // U+4E2D in UTF-8
  for (int i = 0; i < 255; i++)
    han += "\xe4\xb8\xad";

  Listing shortform = list(root_vp_, 64, 8192);
  ASSERT_EQ(0, shortform.error);
  ASSERT_EQ(4u, shortform.records.size());
  EXPECT_EQ("cafe\xcc\x81", shortform.records[0].name);
  EXPECT_EQ("a:b\x01", shortform.records[1].name);
  EXPECT_EQ(han.substr(0, 255), shortform.records[2].name);
  EXPECT_EQ(255, shortform.records[2].namlen);
  EXPECT_EQ(264, shortform.records[2].reclen);
  EXPECT_EQ("last", shortform.records[3].name);
  EXPECT_EQ(1, shortform.eof);
  EXPECT_NE(0u, xm->xm_flags & XM_CORRUPT);

  Listing extended = list(root_vp_, 64, 8192, kExtended);
  ASSERT_EQ(0, extended.error);
  ASSERT_EQ(4u, extended.records.size());
  EXPECT_EQ(han, extended.records[2].name);
  EXPECT_EQ(765, extended.records[2].namlen);
  EXPECT_EQ(792, extended.records[2].reclen);
  EXPECT_EQ("last", extended.records[3].name);
}

}  // namespace
