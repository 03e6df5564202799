// The ext scanner on volumes built at test time: recognition and refusals,
// the parameter line, which blocks are kept, hostile volumes, and the real
// acceptance test: only the kept blocks, copied into a sparse file, must
// pass a forced read-only fsck and list the same tree.
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "fs/scanners.h"
#include "tests/support/cli.h"
#include "tests/support/file_device.h"
#include "tests/support/recording_message.h"
#include "tests/support/test_env.h"

namespace {

using testsupport::Sh;
using testsupport::TempDir;

using testsupport::RecordingMessage;

struct ScanResult {
  api::status_t status = 0;
  std::vector<uint8_t> bits;
  uint64_t count = 0;
  uint32_t shift = 0, problems = 0;
  RecordingMessage msg;
  bool Marked(uint64_t b) const { return b < count && (bits[b >> 3] >> (b & 7)) & 1; }
  uint64_t MarkedCount() const {
    uint64_t n = 0;
    for (uint64_t b = 0; b < count; ++b) n += Marked(b);
    return n;
  }
};

std::unique_ptr<ScanResult> Scan(api::IDeviceRWBlock* dev, uint32_t flags = 0, int breakNow = 0, bool verbose = false) {
  testsupport::TestEnv env;
  env.env.verbose = verbose;
  auto r = std::make_unique<ScanResult>();
  r->msg.stop = breakNow;
  uint8_t* bm = nullptr;
  r->status = QORV::ScanExt(&env.env, dev, &r->msg, flags, &bm, &r->count, &r->shift, &r->problems);
  if (bm) {
    r->bits.assign(bm, bm + (r->count + 7) / 8);
    env.mem.Free(bm);
  }
  EXPECT_EQ(env.mem.allocations, env.mem.frees) << "every allocation is released";
  return r;
}

std::unique_ptr<ScanResult> ScanFile(const std::string& path, uint32_t flags = 0, bool verbose = false) {
  testsupport::FileDevice dev(path);
  EXPECT_TRUE(dev.ok()) << path;
  return Scan(&dev, flags, 0, verbose);
}

// Copies only the kept blocks into a sparse file of the volume's size.
void WriteKeptBlocks(const std::string& src, const ScanResult& r, const std::string& dst) {
  std::ifstream in(src, std::ios::binary);
  std::fstream out(dst, std::ios::binary | std::ios::out | std::ios::trunc);
  uint64_t bs = 1ull << r.shift;
  std::vector<char> buf(bs);
  for (uint64_t b = 0; b < r.count; ++b) {
    if (!r.Marked(b)) continue;
    in.seekg(std::streamoff(b * bs));
    in.read(buf.data(), std::streamsize(bs));
    out.seekp(std::streamoff(b * bs));
    out.write(buf.data(), in.gcount());
  }
  out.close();
  truncate(dst.c_str(), off_t(testsupport::FileSize(src)));
}

std::string Out(const TempDir& d, const std::string& cmd) { return Sh(d, cmd).out; }

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
    const TempDir& d = *dir_;
    // A source tree with every kind of entry the scanner must handle.
    Sh(d, "mkdir -p src/sub/deep/deeper src/big && cd src && "
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
  // Builds a volume from the source tree; returns its path.
  static std::string Make(const std::string& name, const std::string& options, const std::string& size,
                          const std::string& tree = "src") {
    const TempDir& d = *dir_;
    std::string img = d / name;
    auto r = Sh(d, "rm -f " + img + " && mke2fs -q -F " + options + " -d " + tree + " " + img + " " + size);
    EXPECT_EQ(r.status, 0) << r.err;
    return img;
  }
  // The acceptance check: fsck of the kept blocks alone, and the same tree.
  static void ExpectRoundTrip(const std::string& img, uint32_t flags = 0) {
    const TempDir& d = *dir_;
    auto source = Sh(d, "e2fsck -fn " + img);
    ASSERT_EQ(source.status, 0) << "the source itself must be clean\n" << source.out << source.err;
    auto r = ScanFile(img, flags);
    ASSERT_EQ(r->status, 0u);
    std::string kept = img + ".kept";
    WriteKeptBlocks(img, *r, kept);
    auto fsck = Sh(d, "e2fsck -fn " + kept);
    EXPECT_EQ(fsck.status, 0) << img << "\n" << fsck.out << fsck.err;
    std::string listing = Listing(d, img);
    EXPECT_NE(listing.find("/lost+found "), std::string::npos) << listing;
    EXPECT_EQ(listing, Listing(d, kept));
    std::printf("[ info ] %s: %llu of %llu blocks kept, %u problems\n", img.c_str(),
                (unsigned long long)r->MarkedCount(), (unsigned long long)r->count, r->problems);
  }
  static TempDir* dir_;
};
TempDir* ExtVolumes::dir_ = nullptr;

TEST_F(ExtVolumes, Ext4DefaultsRoundTripAndParamLine) {
  std::string img = Make("ext4.img", "-t ext4 -b 4096", "64M");
  auto r = ScanFile(img);
  ASSERT_EQ(r->status, 0u);
  EXPECT_EQ(r->shift, 12u);
  EXPECT_EQ(r->count, 16384u);
  EXPECT_EQ(r->problems, 0u);
  ASSERT_EQ(r->msg.lines.size(), 1u);
  std::string sb = Out(*dir_, "dumpe2fs -h " + img + " 2>/dev/null");
  ASSERT_NE(sb.find("metadata_csum"), std::string::npos);
  // Feature words straight from the superblock bytes.
  std::string hex = Out(*dir_, "od -An -tx4 -j $((1024+0x5c)) -N12 " + img);
  unsigned compat = 0, incompat = 0, ro = 0;
  ASSERT_EQ(std::sscanf(hex.c_str(), "%x %x %x", &compat, &incompat, &ro), 3);
  char want[256];
  std::snprintf(want, sizeof want,
                "1:ExtFS param BS=4096 Blocks=16384 Isize=256 cmpt=0x%x ro=0x%x ic=0x%x flex=4 blkindesc=32768 "
                "firstd=0  METADATA_CSUM_RO  FLEX_IN",
                compat, incompat, ro);
  EXPECT_EQ(r->msg.lines[0], want);
  EXPECT_TRUE(r->Marked(0));  // superblock and descriptors
  EXPECT_TRUE(r->Marked(1));
  ExpectRoundTrip(img);
}

TEST_F(ExtVolumes, DataBlocksOnlyWithDataFlag) {
  std::string img = Make("ext4data.img", "-t ext4 -b 4096", "64M");
  std::string blocks = Out(*dir_, "debugfs -R 'blocks /big/blob' " + img + " 2>/dev/null");
  std::vector<uint64_t> list;
  for (const char* p = blocks.c_str(); *p;) {
    char* end;
    unsigned long long v = std::strtoull(p, &end, 10);
    if (end == p) break;
    list.push_back(v);
    p = end;
  }
  ASSERT_GT(list.size(), 700u);
  auto meta = ScanFile(img);
  auto data = ScanFile(img, api::SCAN_DATA);
  for (uint64_t b : list) {
    EXPECT_FALSE(meta->Marked(b)) << b;
    EXPECT_TRUE(data->Marked(b)) << b;
  }
  EXPECT_GT(data->MarkedCount(), meta->MarkedCount() + 700);
  ExpectRoundTrip(img, api::SCAN_DATA);
}

TEST_F(ExtVolumes, Ext2OneKiBlocksIndirectWalk) {
  std::string img = Make("ext2.img", "-t ext2 -b 1024", "32M");
  auto r = ScanFile(img);
  ASSERT_EQ(r->status, 0u);
  EXPECT_EQ(r->shift, 10u);
  EXPECT_TRUE(r->Marked(1));  // superblock
  EXPECT_TRUE(r->Marked(2));  // first descriptor block
  EXPECT_FALSE(r->Marked(0));
  // The sparse file reaches triple-indirect territory; its indirect blocks
  // and the blocks they list are kept, its direct blocks are not.
  std::string stat = Out(*dir_, "debugfs -R 'stat /sparse' " + img + " 2>/dev/null");
  EXPECT_NE(stat.find("(TIND)"), std::string::npos) << stat;
  for (const char* tag : {"(IND):", "(DIND):", "(TIND):"}) {
    size_t at = stat.find(tag);
    if (at == std::string::npos) continue;
    uint64_t b = std::strtoull(stat.c_str() + at + std::strlen(tag), nullptr, 10);
    EXPECT_TRUE(r->Marked(b)) << tag << b;
  }
  std::string mid = Out(*dir_, "debugfs -R 'blocks /sub/mid' " + img + " 2>/dev/null");
  std::vector<uint64_t> list;
  for (const char* p = mid.c_str(); *p;) {
    char* end;
    uint64_t v = std::strtoull(p, &end, 10);
    if (end == p) break;
    list.push_back(v);
    p = end;
  }
  ASSERT_GT(list.size(), 20u);
  for (size_t i = 0; i < 12; ++i) EXPECT_FALSE(r->Marked(list[i])) << "direct block " << i;
  for (size_t i = 12; i < list.size(); ++i) EXPECT_TRUE(r->Marked(list[i])) << "block listed by IND " << i;
  ExpectRoundTrip(img);
}

TEST_F(ExtVolumes, Ext3TwoKiBlocksWithJournalNeedingRecovery) {
  std::string img = Make("ext3.img", "-t ext3 -b 2048", "48M");
  Sh(*dir_, "debugfs -w -R 'feature needs_recovery' " + img);
  auto r = ScanFile(img);
  ASSERT_EQ(r->status, 0u);
  std::string stat = Out(*dir_, "debugfs -R 'blocks <8>' " + img + " 2>/dev/null");
  uint64_t jfirst = std::strtoull(stat.c_str(), nullptr, 10);
  ASSERT_GT(jfirst, 0u);
  EXPECT_TRUE(r->Marked(jfirst)) << "journal superblock";
  testsupport::FileDevice dev(img);
  EXPECT_EQ(dev.IsReadOnly(), true);
  Sh(*dir_, "debugfs -w -R 'feature ^needs_recovery' " + img);
  ExpectRoundTrip(img);
}

TEST_F(ExtVolumes, InlineDataXattrsAndQuota) {
  std::string img = Make("inline.img", "-t ext4 -O inline_data,quota,project -E quotatype=usrquota:grpquota:prjquota -I 256", "64M");
  Sh(*dir_, "head -c 500 /etc/services > ea.txt && debugfs -w -R 'ea_set -f ea.txt /small user.big' " + img + " && "
            "debugfs -w -R 'ea_set /sub user.tag value' " + img + "; e2fsck -fy " + img);
  std::string acl = Out(*dir_, "debugfs -R 'stat /small' " + img + " 2>/dev/null");
  size_t at = acl.find("File ACL: ");
  ASSERT_NE(at, std::string::npos);
  uint64_t xattr = std::strtoull(acl.c_str() + at + 10, nullptr, 10);
  auto r = ScanFile(img);
  ASSERT_EQ(r->status, 0u);
  ASSERT_NE(xattr, 0u) << acl;
  EXPECT_TRUE(r->Marked(xattr)) << "extended-attribute block";
  ExpectRoundTrip(img);
}

// The kernel indexes a large directory as it grows (populating through
// mke2fs would take far too long for tens of thousands of names).
TEST_F(ExtVolumes, LargeIndexedDirectory) {
  std::string img = Make("htree.img", "-t ext4 -N 32768", "64M");
  auto m = Sh(*dir_, "mkdir -p mnt && mount -o loop " + img + " mnt && mkdir mnt/many && cd mnt/many && "
                     "seq 1 25000 | sed 's/^/entry_with_a_longer_name_/' | xargs touch; cd - && umount mnt");
  if (m.status != 0) GTEST_SKIP() << "cannot loop-mount here: " << m.err;
  std::string htree = Out(*dir_, "debugfs -R 'htree /many' " + img + " 2>/dev/null | head -3");
  EXPECT_NE(htree.find("Root node"), std::string::npos) << htree;
  ExpectRoundTrip(img);
}

// Layouts that move the fixed metadata: backups in every group or in two
// chosen groups, 64 KiB blocks, no entry types, a multi-mount block.
TEST_F(ExtVolumes, LayoutVariantsRoundTrip) {
  const char* variants[] = {"-t ext2 -O ^sparse_super,^resize_inode", "-t ext4 -O sparse_super2",
                            "-t ext4 -b 65536", "-t ext3 -O ^filetype", "-t ext4 -O ^has_journal,mmp"};
  int i = 0;
  for (const char* options : variants) {
    SCOPED_TRACE(options);
    ExpectRoundTrip(Make("variant" + std::to_string(i++) + ".img", options, "256M"));
  }
}

// An unlinked inode still on the orphan list keeps its mapping blocks.
TEST_F(ExtVolumes, OrphanListInodeKeepsIndirectBlocks) {
  std::string img = Make("orphan.img", "-t ext2 -b 1024", "32M");
  std::string stat = Out(*dir_, "debugfs -R 'stat /sparse' " + img + " 2>/dev/null");
  size_t at = stat.find("(DIND):");
  ASSERT_NE(at, std::string::npos) << stat;
  uint64_t dind = std::strtoull(stat.c_str() + at + 7, nullptr, 10);
  std::string ino = Out(*dir_, "debugfs -R 'ls -p /' " + img + " 2>/dev/null | grep /sparse/ | cut -d/ -f2");
  ino = ino.substr(0, ino.find('\n'));
  auto s = Sh(*dir_, "debugfs -w -R 'unlink /sparse' " + img + " && debugfs -w -R 'sif <" + ino +
                         "> links_count 0' " + img + " && debugfs -w -R 'ssv last_orphan " + ino + "' " + img);
  ASSERT_EQ(s.status, 0) << s.err;
  auto r = ScanFile(img);
  ASSERT_EQ(r->status, 0u);
  EXPECT_TRUE(r->Marked(dind));
  EXPECT_EQ(r->problems, 0u);
}

// What a damaged volume's user needs most survives: a directory cut off from
// the root with its subtree, a directory whose mode says socket, a file
// whose extent tree is deeper than any the kernel writes. The checker must
// judge the kept blocks as it judges the damaged original.
TEST_F(ExtVolumes, DamagedTreesKeepWhatTheCheckerReads) {
  std::string img = Make("damaged.img", "-t ext4 -b 1024", "32M");
  const TempDir& d = *dir_;
  std::string deeper = Out(d, "debugfs -R 'blocks /sub/deep/deeper' " + img + " 2>/dev/null");
  std::string socket = Out(d, "debugfs -R 'blocks /big' " + img + " 2>/dev/null");
  auto s = Sh(d, "debugfs -w -R 'unlink /sub' " + img + " && debugfs -w -R 'sif /big mode 0140755' " + img +
                     " && debugfs -w -R 'sif /small block[0] 0x1234' " + img);
  ASSERT_EQ(s.status, 0) << s.err;
  auto r = ScanFile(img, 0, true);
  ASSERT_EQ(r->status, 0u);
  EXPECT_TRUE(r->Marked(std::strtoull(deeper.c_str(), nullptr, 10))) << "disconnected subtree";
  EXPECT_TRUE(r->Marked(std::strtoull(socket.c_str(), nullptr, 10))) << "directory with a socket's mode";
  bool reason = false;
  for (const std::string& line : r->msg.lines) reason |= line.find("extent header magic wrong") != std::string::npos;
  EXPECT_TRUE(reason) << "a problem names its reason under --verbose";
  WriteKeptBlocks(img, *r, img + ".kept");
  auto a = Sh(d, "e2fsck -fn " + img), b = Sh(d, "e2fsck -fn " + img + ".kept");
  EXPECT_EQ(a.status, b.status) << a.out << "\n---\n" << b.out;
}

// Refusals print nothing and answer "not recognised".
TEST_F(ExtVolumes, RefusedVolumes) {
  std::string base = Make("refuse.img", "-t ext4 -b 1024", "8M");
  std::string bytes = testsupport::ReadFile(base);
  auto patched = [&](size_t off, uint32_t value, size_t width) {
    std::vector<uint8_t> v(bytes.begin(), bytes.end());
    for (size_t i = 0; i < width; ++i) v[1024 + off + i] = uint8_t(value >> (8 * i));
    return v;
  };
  uint32_t incompat = uint8_t(bytes[1024 + 0x60]) | uint8_t(bytes[1024 + 0x61]) << 8 |
                      uint8_t(bytes[1024 + 0x62]) << 16;
  struct Case {
    const char* what;
    size_t off;
    uint32_t value;
    size_t width;
  } cases[] = {
      {"rev 0", 0x4C, 0, 4},
      {"rev 2", 0x4C, 2, 4},
      {"creator os", 0x48, 3, 4},
      {"magic", 0x38, 0xEF54, 2},
      {"META_BG", 0x60, incompat | 0x10, 4},
      {"unknown incompat", 0x60, incompat | 0x1000, 4},
      {"BIGALLOC", 0x64, 0x200, 4},
      {"2^32 blocks", 0x150, 1, 4},
      {"inode count", 0x0, 12345, 4},
      {"block size", 0x18, 7, 4},
  };
  for (const Case& c : cases) {
    testsupport::MemDevice dev(patched(c.off, c.value, c.width));
    auto r = Scan(&dev);
    EXPECT_EQ(r->status, api::ERR_NOT_RECOGNIZED) << c.what;
    EXPECT_TRUE(r->msg.lines.empty()) << c.what;
  }
  for (const char* opts : {"-O meta_bg,^resize_inode", "-O bigalloc -C 16384"}) {
    std::string img = Make("refuse2.img", std::string("-t ext4 ") + opts, "32M");
    auto r = ScanFile(img);
    EXPECT_EQ(r->status, api::ERR_NOT_RECOGNIZED) << opts;
    EXPECT_TRUE(r->msg.lines.empty());
  }
  testsupport::MemDevice tiny(std::vector<uint8_t>(1500));
  EXPECT_EQ(Scan(&tiny)->status, api::ERR_NOT_RECOGNIZED);
}

// Hostile volumes: problems are counted, nothing hangs or reads wildly.
TEST_F(ExtVolumes, CorruptVolumesCountProblems) {
  std::string img = Make("corrupt.img", "-t ext4 -b 1024", "16M");
  std::string img2 = Make("corrupt2.img", "-t ext2 -b 1024", "16M");
  const TempDir& d = *dir_;
  // A directory loop, an extent header with too many entries, an indirect
  // block past the end, an inode table beyond the volume.
  auto s = Sh(d, "debugfs -w -R 'ln /sub /sub/deep/deeper/loop' " + img + " && "
                 "debugfs -w -R 'sif /sub/mid block[0] 0x7ffff30a' " + img + " && "
                 "debugfs -w -R 'sif /sparse block[IND] 99999999' " + img2 + " && "
                 "debugfs -w -R 'set_bg 1 inode_table 4000000000' " + img2 + " && "
                 "debugfs -w -R 'set_bg 1 checksum calc' " + img2);
  ASSERT_EQ(s.status, 0) << s.err;
  auto r = ScanFile(img);
  EXPECT_EQ(r->status, 0u);
  EXPECT_GE(r->problems, 1u);
  auto r2 = ScanFile(img2);
  EXPECT_EQ(r2->status, 0u);
  EXPECT_GE(r2->problems, 2u);
  // Bad root extent magic: the tree is gone but the scan still ends.
  s = Sh(d, "debugfs -w -R 'sif <2> block[0] 0x12345' " + img);
  auto r3 = ScanFile(img);
  EXPECT_EQ(r3->status, 0u);
  EXPECT_GE(r3->problems, 1u);
  // A truncated device: reads past its end fail and are counted.
  std::string bytes = testsupport::ReadFile(img2);
  testsupport::MemDevice half(std::vector<uint8_t>(bytes.begin(), bytes.begin() + bytes.size() / 2));
  auto r4 = Scan(&half);
  EXPECT_EQ(r4->status, 0u);
  EXPECT_GE(r4->problems, 1u);
  // Inode sizes that are not powers of two make inodes straddle read windows.
  for (uint16_t size : {200, 1000}) {
    std::vector<uint8_t> v(bytes.begin(), bytes.end());
    v[1024 + 0x58] = uint8_t(size);
    v[1024 + 0x59] = uint8_t(size >> 8);
    testsupport::MemDevice odd(std::move(v));
    auto r5 = Scan(&odd);
    EXPECT_TRUE(r5->status == 0 || r5->status == api::ERR_NOT_RECOGNIZED) << size;
  }
}

// Random damage inside the kept (metadata) blocks: every run ends with a
// defined status, never a crash or a hang.
TEST_F(ExtVolumes, RandomMetadataDamageIsSurvived) {
  for (const char* options : {"-t ext4 -b 1024", "-t ext2 -b 1024"}) {
    std::string img = Make("fuzz.img", options, "16M");
    auto clean = ScanFile(img);
    ASSERT_EQ(clean->status, 0u);
    std::vector<uint64_t> kept;
    for (uint64_t b = 0; b < clean->count; ++b)
      if (clean->Marked(b)) kept.push_back(b);
    std::string bytes = testsupport::ReadFile(img);
    uint32_t seed = 12345;
    auto next = [&seed] { return seed = seed * 1103515245u + 12345u; };
    for (int round = 0; round < 40; ++round) {
      std::vector<uint8_t> v(bytes.begin(), bytes.end());
      for (int i = 0; i < 200; ++i) {
        uint64_t b = kept[(next() >> 8) % kept.size()];
        if (b <= 2) continue;  // keep the volume recognisable
        v[b * 1024 + (next() >> 8) % 1024] ^= uint8_t(1 + (next() >> 8) % 255);
      }
      testsupport::MemDevice dev(std::move(v));
      auto r = Scan(&dev, round & 1 ? api::SCAN_DATA : 0);
      EXPECT_TRUE(r->status == 0 || r->status == api::ERR_NOT_RECOGNIZED || r->status == api::ERR_INCONSISTENT)
          << options << " round " << round << " status " << std::hex << r->status;
    }
  }
}

TEST_F(ExtVolumes, BreakStopsTheScan) {
  std::string img = Make("break.img", "-t ext4", "32M");
  testsupport::FileDevice dev(img);
  auto r = Scan(&dev, 0, 1);
  EXPECT_EQ(r->status, api::ERR_TOO_BIG);
  EXPECT_TRUE(r->bits.empty());
}

// A device that disappears mid-scan ends the scan instead of being counted.
class VanishingDevice : public testsupport::FileDevice {
 public:
  VanishingDevice(const std::string& path, int goodReads) : FileDevice(path), left_(goodReads) {}
  api::status_t ReadBytes(uint64_t off, void* buf, uint32_t n, uint32_t flags) override {
    if (left_-- <= 0) return api::ERR_DEVICE_GONE;
    return FileDevice::ReadBytes(off, buf, n, flags);
  }

 private:
  int left_;
};

TEST_F(ExtVolumes, VanishedDeviceEndsTheScan) {
  std::string img = Make("gone.img", "-t ext4 -b 1024", "16M");
  for (int good : {3, 6, 10}) {
    VanishingDevice dev(img, good);
    auto r = Scan(&dev);
    EXPECT_EQ(r->status, api::ERR_DEVICE_GONE) << good;
    EXPECT_TRUE(r->bits.empty());
  }
}

TEST(ExtFixture, Ext3From2003RoundTrip) {
  TempDir d;
  std::string img = testsupport::Fixture(d, "ext/ext3_2003_dftt_1k.img.zst");
  if (img.empty()) GTEST_SKIP() << "fixture or zstd missing";
  auto r = ScanFile(img);
  ASSERT_EQ(r->status, 0u);
  EXPECT_EQ(r->shift, 10u);
  EXPECT_EQ(r->count, 5120u);
  if (!testsupport::HaveTool("e2fsck")) GTEST_SKIP() << "e2fsck not installed";
  auto src = Sh(d, "e2fsck -fn " + img);
  WriteKeptBlocks(img, *r, img + ".kept");
  auto kept = Sh(d, "e2fsck -fn " + img + ".kept");
  EXPECT_EQ(kept.status, src.status) << kept.out;
  EXPECT_EQ(Listing(d, img), Listing(d, img + ".kept"));
}

}  // namespace
