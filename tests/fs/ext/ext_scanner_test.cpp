// The ext scanner on volumes built at test time: the parameter line, which
// blocks are kept, refusals, damaged and hostile volumes, and the acceptance
// test for layouts the round-trip groups do not make: only the kept blocks,
// copied into a sparse file, must pass a forced read-only fsck and list the
// same tree.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "fs/scanners.h"
#include "tests/support/cli.h"
#include "tests/support/file_device.h"
#include "tests/support/interrupt.h"
#include "tests/support/recording_message.h"
#include "tests/support/scan_result.h"

namespace {

using testsupport::RecordingMessage;
using testsupport::ScanResult;
using testsupport::Sh;
using testsupport::TempDir;

ScanResult Scan(api::IDeviceRWBlock* dev, uint32_t flags = 0, RecordingMessage* msg = nullptr, bool verbose = false) {
  return testsupport::RunScanner(QORV::ScanExt, dev, msg, flags, verbose);
}
ScanResult ScanFile(const std::string& path, uint32_t flags = 0, RecordingMessage* msg = nullptr, bool verbose = false) {
  testsupport::FileDevice dev(path);
  EXPECT_TRUE(dev.ok()) << path;
  return Scan(&dev, flags, msg, verbose);
}

// Copies only the kept blocks into a sparse file of the volume's size.
void WriteKeptBlocks(const std::string& src, const ScanResult& r, const std::string& dst) {
  std::ifstream in(src, std::ios::binary);
  std::fstream out(dst, std::ios::binary | std::ios::out | std::ios::trunc);
  uint64_t bs = 1ull << r.k;
  std::vector<char> buf(bs);
  for (uint64_t b = 0; b < r.n; ++b) {
    if (!r.Test(b)) continue;
    in.seekg(std::streamoff(b * bs));
    in.read(buf.data(), std::streamsize(bs));
    out.seekp(std::streamoff(b * bs));
    out.write(buf.data(), in.gcount());
  }
  out.close();
  ASSERT_EQ(truncate(dst.c_str(), off_t(testsupport::FileSize(src))), 0);
}

std::string Out(const TempDir& d, const std::string& cmd) { return Sh(d, cmd).out; }

// Block numbers debugfs prints for a command ("blocks /f"), in order.
std::vector<uint64_t> Numbers(const std::string& text) {
  std::vector<uint64_t> list;
  for (const char* p = text.c_str(); *p;) {
    char* end;
    uint64_t v = std::strtoull(p, &end, 10);
    if (end == p) break;
    list.push_back(v);
    p = end;
  }
  return list;
}
// Backup superblocks and the first and last of their descriptor blocks, as
// the volume's own tool reports them.
std::vector<uint64_t> Backups(const TempDir& d, const std::string& img) {
  return Numbers(Sh(d, "dumpe2fs " + img + " 2>/dev/null | sed -n 's/.*Backup superblock at \\([0-9]*\\), "
                       "Group descriptors at \\([0-9]*\\)-\\([0-9]*\\).*/\\1 \\2 \\3/p'")
                     .out);
}
// A recursive listing (inode, mode, name, size of every entry) through debugfs.
std::string Listing(const TempDir& d, const std::string& img) {
  return Sh(d, "walk() { debugfs -R \"ls -p \\\"${1:-/}\\\"\" '" + img +
                   "' 2>/dev/null | while IFS=/ read -r _ ino mode uid gid name size _; do "
                   "case \"$name\" in ''|.|..) continue;; esac; echo \"$1/$name $ino $mode $size\"; "
                   "case $mode in 04*) walk \"$1/$name\";; esac; done; }; walk ''")
      .out;
}

class ExtVolumes : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!testsupport::HaveTool("mke2fs") || !testsupport::HaveTool("debugfs")) return;
    dir_ = new TempDir();
    // A source tree with every kind of entry the scanner must handle.
    Sh(*dir_, "mkdir -p src/sub/deep/deeper src/big && cd src && "
              "head -c 5000 /dev/urandom > small && head -c 300000 /dev/urandom > sub/mid && "
              "truncate -s 80M sparse && printf x | dd of=sparse bs=1 seek=70000000 conv=notrunc 2>/dev/null && "
              "printf y | dd of=sparse bs=1 seek=300000 conv=notrunc 2>/dev/null && "
              "ln -s small fastlink && ln -s $(printf 'long%.0s' $(seq 40)) slowlink && ln small hard && "
              ": > empty && mkfifo fifo && head -c 3000000 /dev/urandom > big/blob");
  }
  static void TearDownTestSuite() {
    delete dir_;
    dir_ = nullptr;
  }
  void SetUp() override {
    if (!dir_) GTEST_SKIP() << "mke2fs/debugfs not installed";
  }
  static std::string Make(const std::string& name, const std::string& options, const std::string& size) {
    std::string img = *dir_ / name;
    auto r = Sh(*dir_, "rm -f " + img + " && mke2fs -q -F " + options + " -d src " + img + " " + size);
    EXPECT_EQ(r.status, 0) << r.err;
    return img;
  }
  // The acceptance check: fsck of the kept blocks alone, and the same tree;
  // the backups the checker does not read are kept too.
  static void ExpectRoundTrip(const std::string& img) {
    auto source = Sh(*dir_, "e2fsck -fn " + img);
    ASSERT_EQ(source.status, 0) << "the source itself must be clean\n" << source.out << source.err;
    ScanResult r = ScanFile(img);
    ASSERT_EQ(r.status, api::QORV_OK);
    for (uint64_t b : Backups(*dir_, img)) EXPECT_TRUE(r.Test(b)) << img << " backup block " << b;
    std::string kept = img + ".kept";
    WriteKeptBlocks(img, r, kept);
    auto fsck = Sh(*dir_, "e2fsck -fn " + kept);
    EXPECT_EQ(fsck.status, 0) << img << "\n" << fsck.out << fsck.err;
    std::string listing = Listing(*dir_, img);
    EXPECT_NE(listing.find("/lost+found "), std::string::npos) << listing;
    EXPECT_EQ(listing, Listing(*dir_, kept));
  }
  static TempDir* dir_;
};
TempDir* ExtVolumes::dir_ = nullptr;

TEST_F(ExtVolumes, Ext4ParamLineAndDataBlocksOnlyWithDataFlag) {
  std::string img = Make("ext4.img", "-t ext4 -b 4096", "64M");
  RecordingMessage msg;
  ScanResult meta = ScanFile(img, 0, &msg);
  ASSERT_EQ(meta.status, api::QORV_OK);
  EXPECT_EQ(meta.k, 12u);
  EXPECT_EQ(meta.n, 16384u);
  EXPECT_EQ(meta.problems, 0u);
  ASSERT_NE(Out(*dir_, "dumpe2fs -h " + img + " 2>/dev/null").find("metadata_csum"), std::string::npos);
  // Feature words straight from the superblock bytes.
  std::string hex = Out(*dir_, "od -An -tx4 -j $((1024+0x5c)) -N12 " + img);
  unsigned compat = 0, incompat = 0, ro = 0;
  ASSERT_EQ(std::sscanf(hex.c_str(), "%x %x %x", &compat, &incompat, &ro), 3);
  char want[256];
  std::snprintf(want, sizeof want,
                "1:ExtFS param BS=4096 Blocks=16384 Isize=256 cmpt=0x%x ro=0x%x ic=0x%x flex=4 blkindesc=32768 "
                "firstd=0  METADATA_CSUM_RO  FLEX_IN",
                compat, incompat, ro);
  EXPECT_EQ(msg.lines, std::vector<std::string>{want});
  EXPECT_TRUE(meta.Test(0) && meta.Test(1));  // superblock and descriptors

  std::vector<uint64_t> blob = Numbers(Out(*dir_, "debugfs -R 'blocks /big/blob' " + img + " 2>/dev/null"));
  ASSERT_GT(blob.size(), 700u);
  ScanResult data = ScanFile(img, api::SCAN_DATA);
  for (uint64_t b : blob) {
    EXPECT_FALSE(meta.Test(b)) << b;
    EXPECT_TRUE(data.Test(b)) << b;
  }
  EXPECT_GT(data.CountSet(), meta.CountSet() + 700);
}

// Layouts the round-trip groups do not make: backups in every group (1 KiB
// blocks, where /sparse needs a triple-indirect block) or in two chosen
// groups, 64 KiB blocks, no entry types, a multi-mount block, and quota and
// project inodes beside extended-attribute blocks and inline data.
TEST_F(ExtVolumes, LayoutVariantsRoundTrip) {
  const struct {
    const char* options;
    const char* then;  // run on $img after mke2fs
  } variants[] = {
      {"-t ext2 -O ^sparse_super,^resize_inode", ""},
      {"-t ext4 -O sparse_super2", ""},
      {"-t ext4 -b 65536", ""},
      {"-t ext3 -O ^filetype", ""},
      {"-t ext4 -O ^has_journal,mmp", ""},
      {"-t ext4 -O inline_data,quota,project -E quotatype=usrquota:grpquota:prjquota -I 256",
       "head -c 500 /etc/services > ea.txt && debugfs -w -R 'ea_set -f ea.txt /small user.big' $img && "
       "debugfs -w -R 'ea_set /sub user.tag value' $img && e2fsck -fy $img; "
       "debugfs -R 'stat /small' $img 2>/dev/null | grep -q 'File ACL: [1-9]'"},
  };
  int i = 0;
  for (const auto& v : variants) {
    SCOPED_TRACE(v.options);
    std::string img = Make("variant" + std::to_string(i++) + ".img", v.options, "256M");
    if (*v.then) {
      ASSERT_EQ(Sh(*dir_, "img=" + img + " && " + v.then).status, 0) << "no extended-attribute block";
    }
    ExpectRoundTrip(img);
  }
}

// First and last block of each group's inode table, as the volume's own tool
// reports them.
std::vector<uint64_t> TableRanges(const std::string& img) {
  return Numbers(Sh(TempDir(), "dumpe2fs " + img +
                                   " 2>/dev/null | sed -n 's/.*Inode table at \\([0-9]*\\)-\\([0-9]*\\).*/\\1 \\2/p'")
                     .out);
}

// Descriptor checksums vouch for what of an inode table was never used:
// only where one verifies is the rest of the table left out. Lazily
// initialised tables, stale bytes in the unused part and a damaged
// descriptor all leave the checker's verdict on the kept blocks unchanged.
TEST_F(ExtVolumes, InodeTablesKeepOnlyWhatVerifiedDescriptorsCallUsed) {
  struct Case {
    const char* name;
    const char* options;
    bool trimmed;
  } cases[] = {
      {"csum.img", "-t ext4 -b 4096 -E lazy_itable_init=1", true},
      {"uninit.img", "-t ext4 -b 4096 -O ^metadata_csum,uninit_bg -E lazy_itable_init=1", true},
      {"nocsum.img", "-t ext3 -b 4096", false},
  };
  for (const Case& c : cases) {
    std::string img = Make(c.name, c.options, "256M");
    std::vector<uint64_t> tables = TableRanges(img);
    ASSERT_GE(tables.size(), 4u) << c.name;
    std::string stale = img + ".stale";
    // Random bytes in the never-used tail of group 1's table.
    Sh(*dir_, "cp " + img + " " + stale + " && dd if=/dev/urandom of=" + stale +
                  " bs=4096 seek=" + std::to_string(tables[3] - 2) + " count=2 conv=notrunc");
    for (const std::string& v : {img, stale}) {
      ScanResult r = ScanFile(v);
      ASSERT_EQ(r.status, api::QORV_OK) << v;
      EXPECT_TRUE(r.Test(tables[0])) << v;  // group 0 holds the root
      EXPECT_EQ(r.Test(tables[3]), !c.trimmed) << v;
      std::string kept = v + ".kept";
      WriteKeptBlocks(v, r, kept);
      EXPECT_EQ(Sh(*dir_, "e2fsck -fn " + kept).status, Sh(*dir_, "e2fsck -fn " + v).status) << v;
    }
  }
  // A descriptor whose checksum fails gets its whole table kept.
  std::string img = *dir_ / "csum.img", bad = img + ".baddesc";
  std::vector<uint64_t> tables = TableRanges(img);
  Sh(*dir_, "cp " + img + " " + bad + " && printf '\\x55\\xaa' | dd of=" + bad +
                " bs=1 seek=$((4096 + 64 + 0x1E)) conv=notrunc");
  ScanResult r = ScanFile(bad);
  ASSERT_EQ(r.status, api::QORV_OK);
  ASSERT_GE(tables.size(), 4u);
  for (uint64_t b = tables[2]; b <= tables[3]; ++b) ASSERT_TRUE(r.Test(b)) << b;
  EXPECT_FALSE(r.Test(tables[1]));  // group 0's descriptor still vouches for its unused tail
  std::string kept = bad + ".kept";
  WriteKeptBlocks(bad, r, kept);
  EXPECT_EQ(Sh(*dir_, "e2fsck -fn " + kept).status, Sh(*dir_, "e2fsck -fn " + bad).status);
}

// Refusals print nothing and answer "not recognised"; META_BG and BIGALLOC
// on volumes mke2fs made.
TEST_F(ExtVolumes, RefusedVolumes) {
  std::string bytes = testsupport::ReadFile(Make("refuse.img", "-t ext4 -b 1024", "8M"));
  uint32_t incompat = uint8_t(bytes[1024 + 0x60]) | uint8_t(bytes[1024 + 0x61]) << 8 |
                      uint8_t(bytes[1024 + 0x62]) << 16;
  struct Case {
    const char* what;
    size_t off;
    uint32_t value;
    size_t width;
  } cases[] = {
      {"rev 0", 0x4C, 0, 4},          {"rev 2", 0x4C, 2, 4},         {"creator os", 0x48, 3, 4},
      {"magic", 0x38, 0xEF54, 2},     {"unknown incompat", 0x60, incompat | 0x1000, 4},
      {"2^32 blocks", 0x150, 1, 4},   {"inode count", 0x0, 12345, 4}, {"block size", 0x18, 7, 4},
  };
  for (const Case& c : cases) {
    std::vector<uint8_t> v(bytes.begin(), bytes.end());
    for (size_t i = 0; i < c.width; ++i) v[1024 + c.off + i] = uint8_t(c.value >> (8 * i));
    testsupport::MemDevice dev(std::move(v));
    RecordingMessage msg;
    ScanResult r = Scan(&dev, 0, &msg);
    EXPECT_EQ(r.status, api::ERR_NOT_RECOGNIZED) << c.what;
    EXPECT_TRUE(msg.lines.empty()) << c.what;
  }
  for (const char* opts : {"-O meta_bg,^resize_inode", "-O bigalloc -C 16384"}) {
    RecordingMessage msg;
    EXPECT_EQ(ScanFile(Make("refuse2.img", std::string("-t ext4 ") + opts, "32M"), 0, &msg).status,
              api::ERR_NOT_RECOGNIZED) << opts;
    EXPECT_TRUE(msg.lines.empty());
  }
  testsupport::MemDevice tiny(std::vector<uint8_t>(1500));
  EXPECT_EQ(Scan(&tiny).status, api::ERR_NOT_RECOGNIZED);
}

// Hostile volumes: problems are counted with their reason, nothing hangs
// or reads wildly (damaged extent headers and directory loops are the
// negative round trips').
TEST_F(ExtVolumes, CorruptVolumesCountProblems) {
  std::string img = Make("corrupt.img", "-t ext4 -b 1024", "16M");
  std::string img2 = Make("corrupt2.img", "-t ext2 -b 1024", "16M");
  std::string clean2 = testsupport::ReadFile(img2);
  // An indirect block past the end, named by the inode and by the
  // double-indirect block; an inode table beyond the volume.
  auto s = Sh(*dir_, "d=$(debugfs -R 'stat /sparse' " + img2 +
                         " 2>/dev/null | sed -n 's/.*(DIND):\\([0-9]*\\).*/\\1/p') && [ -n \"$d\" ] && "
                         "printf '\\360\\377\\377\\017' | dd of=" + img2 + " bs=1 seek=$((d * 1024)) conv=notrunc && "
                         "debugfs -w -R 'sif /sparse block[IND] 99999999' " + img2 + " && "
                         "debugfs -w -R 'set_bg 1 inode_table 4000000000' " + img2 + " && "
                         "debugfs -w -R 'set_bg 1 checksum calc' " + img2);
  ASSERT_EQ(s.status, 0) << s.err;
  ScanResult r = ScanFile(img2);
  EXPECT_EQ(r.status, api::QORV_OK);
  EXPECT_GE(r.problems, 3u);
  // Bad root extent magic: the tree is gone but the scan still ends, and
  // the problem names its reason under --verbose.
  Sh(*dir_, "debugfs -w -R 'sif <2> block[0] 0x12345' " + img);
  RecordingMessage msg;
  r = ScanFile(img, 0, &msg, true);
  EXPECT_EQ(r.status, api::QORV_OK);
  EXPECT_GE(r.problems, 1u);
  bool reason = false;
  for (const std::string& line : msg.lines) reason |= line.find("extent header magic wrong") != std::string::npos;
  EXPECT_TRUE(reason);
  // A truncated device: reads past its end fail and are counted.
  testsupport::MemDevice half(std::vector<uint8_t>(clean2.begin(), clean2.begin() + clean2.size() / 2));
  r = Scan(&half);
  EXPECT_EQ(r.status, api::QORV_OK);
  EXPECT_GE(r.problems, 1u);
  // Inode sizes that are not powers of two make inodes straddle read windows.
  for (uint16_t size : {200, 1000}) {
    std::vector<uint8_t> v(clean2.begin(), clean2.end());
    v[1024 + 0x58] = uint8_t(size);
    v[1024 + 0x59] = uint8_t(size >> 8);
    testsupport::MemDevice odd(std::move(v));
    api::status_t st = Scan(&odd).status;
    EXPECT_TRUE(st == api::QORV_OK || st == api::ERR_NOT_RECOGNIZED) << size;
  }
}

TEST_F(ExtVolumes, VanishedDeviceAndStopRequestEndTheScan) {
  testsupport::ExpectInterruptionsEndTheScan(QORV::ScanExt, Make("gone.img", "-t ext4 -b 1024", "16M"), 3);
}

}  // namespace
