// FAT16/FAT32 scanner against real volumes made with mkfs.fat and mtools and
// damaged copies of them. Where the damage lies and what must be kept come
// from a small independent reader of the volume in this file.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "core/api/scanner.h"
#include "fs/scanners.h"
#include "tests/support/cli.h"
#include "tests/support/file_device.h"
#include "tests/support/interrupt.h"
#include "tests/support/recording_message.h"
#include "tests/support/scan_result.h"

namespace {

using testsupport::RecordingMessage;
using testsupport::ScanResult;

ScanResult Scan(api::IDeviceRWBlock* dev, api::IMessage* msg = nullptr, uint32_t flags = 0) {
  return testsupport::RunScanner(QORV::ScanFat, dev, msg, flags);
}
ScanResult ScanFile(const std::string& img, RecordingMessage* msg = nullptr) {
  testsupport::FileDevice dev(img);
  return Scan(&dev, msg);
}

void Patch(const std::string& path, uint64_t off, const void* bytes, size_t n) {
  int fd = ::open(path.c_str(), O_WRONLY);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::pwrite(fd, bytes, n, off_t(off)), ssize_t(n));
  ::close(fd);
}
void Patch32(const std::string& p, uint64_t off, uint32_t v) { Patch(p, off, &v, 4); }  // little-endian host
void Patch16(const std::string& p, uint64_t off, uint16_t v) { Patch(p, off, &v, 2); }

// Independent reader: the geometry, the FAT and the directory tree as the
// on-disk format defines them, trusting a well-formed volume.
struct Model {
  int fd = -1;
  uint32_t bps = 0, spc = 0, reserved = 0, fats = 0, rootEntries = 0, rootCluster = 0;
  uint64_t fatSectors = 0, total = 0, fds = 0, limit = 0, fdb = 0;
  bool fat32 = false, aligned = true;
  std::map<std::string, uint32_t> dirs;   // path -> first cluster (root: rootCluster)
  std::map<std::string, uint64_t> entry;  // path -> image offset of its directory entry

  ~Model() {
    if (fd >= 0) ::close(fd);
  }
  std::vector<uint8_t> Read(uint64_t off, size_t n) const {
    std::vector<uint8_t> b(n);
    EXPECT_EQ(::pread(fd, b.data(), n, off_t(off)), ssize_t(n));
    return b;
  }
  static uint32_t U16(const uint8_t* p) { return p[0] | p[1] << 8; }
  static uint32_t U32(const uint8_t* p) { return U16(p) | uint32_t(U16(p + 2)) << 16; }

  bool Load(const std::string& path) {
    fd = ::open(path.c_str(), O_RDONLY);
    if (fd < 0) return false;
    auto b = Read(0, 512);
    bps = U16(&b[11]);
    spc = b[13];
    reserved = U16(&b[14]);
    fats = b[16];
    rootEntries = U16(&b[17]);
    total = U16(&b[19]) ? U16(&b[19]) : U32(&b[32]);
    fatSectors = U16(&b[22]);
    fat32 = fatSectors == 0;
    if (fat32) fatSectors = U32(&b[36]);
    rootCluster = fat32 ? U32(&b[44]) : 0;
    fds = reserved + fats * fatSectors + (rootEntries * 32 + bps - 1) / bps;
    limit = std::min<uint64_t>((total - fds) / spc + 2, fatSectors * bps / (fat32 ? 4 : 2));
    aligned = fds % spc == 0;
    fdb = fds / spc + (aligned ? 0 : 1);
    Walk("", rootCluster);
    return true;
  }
  uint32_t Fat(uint32_t c) const {
    auto b = Read(uint64_t(reserved) * bps + uint64_t(c) * (fat32 ? 4 : 2), 4);
    return fat32 ? U32(b.data()) & 0x0FFFFFFF : U16(b.data());
  }
  std::vector<uint32_t> Chain(uint32_t c) const {
    std::vector<uint32_t> out;
    while (c >= 2 && c < limit && out.size() < limit) {
      out.push_back(c);
      c = Fat(c);
    }
    return out;
  }
  uint64_t ClusterOffset(uint32_t c) const { return (fds + uint64_t(c - 2) * spc) * bps; }
  uint64_t Block(uint32_t c) const { return c - 2 + fdb; }
  void Walk(const std::string& path, uint32_t first) {
    dirs[path] = first;
    std::vector<uint64_t> slots;  // image offsets of every 32-byte slot
    if (first == 0) {
      for (uint32_t i = 0; i < rootEntries; ++i) slots.push_back((reserved + fats * fatSectors) * bps + i * 32);
    } else {
      for (uint32_t c : Chain(first))
        for (uint32_t i = 0; i < spc * bps / 32; ++i) slots.push_back(ClusterOffset(c) + i * 32);
    }
    for (uint64_t slot : slots) {
      auto e = Read(slot, 32);
      if (e[0] == 0) break;
      // Deleted, dot, label or long-name entries and files are passed over.
      if (e[0] == 0xE5 || e[0] == '.' || (e[11] & 0x08) || !(e[11] & 0x10)) continue;
      std::string name(reinterpret_cast<char*>(e.data()), 11);
      std::string child = path + "/" + name.substr(0, name.find_last_not_of(' ') + 1);
      entry[child] = slot;
      Walk(child, U16(&e[26]) | (fat32 ? U16(&e[20]) << 16 : 0));
    }
  }
};

// Source tree copied onto every populated volume: nested, wide (long names
// span several entry slots and clusters), empty, and file data that must
// stay out of the bitmap.
class FatVolumes : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!HaveTools()) return;
    dir_ = new testsupport::TempDir();
    testsupport::Sh(*dir_, "mkdir -p src/wide/sub1/subsub src/wide/sub2 src/a/b/c/d src/empty && "
                           "for i in $(seq -w 0 299); do echo $i > \"src/wide/a rather long file name number $i.txt\"; "
                           "done && head -c 200000 /dev/urandom > src/a/b/data.bin && "
                           "head -c 70000 /dev/urandom > src/a/b/c/d/deep.bin");
  }
  static void TearDownTestSuite() {
    delete dir_;
    dir_ = nullptr;
  }
  static bool HaveTools() {
    return testsupport::HaveTool("mkfs.fat") && testsupport::HaveTool("mcopy") && testsupport::HaveTool("mdeltree");
  }
  void SetUp() override {
    if (!dir_) GTEST_SKIP() << "mkfs.fat or mtools not installed";
  }
  // Formats a sparse image and copies the source tree onto it.
  static std::string Build(const std::string& name, const std::string& mkfsArgs, int mib, bool populate = true) {
    std::string img = *dir_ / name;
    std::string cmd = "rm -f " + img + " && truncate -s " + std::to_string(mib) + "M " + img + " && mkfs.fat " +
                      mkfsArgs + " " + img;
    if (populate) cmd += " && MTOOLS_SKIP_CHECK=1 mcopy -s -i " + img + " src/wide src/a src/empty ::";
    auto r = testsupport::Sh(*dir_, cmd);
    EXPECT_EQ(r.status, 0) << mkfsArgs << "\n" << r.err;
    return img;
  }
  static std::string Copy(const std::string& from, const std::string& name) {
    EXPECT_EQ(testsupport::Sh(*dir_, "cp --sparse=always " + from + " " + name).status, 0);
    return *dir_ / name;
  }
  static testsupport::TempDir* dir_;
};
testsupport::TempDir* FatVolumes::dir_ = nullptr;

// Boot sectors: FAT12 and a damaged primary are not FAT (silently, and even
// "-data" is not refused then); a FAT32 backup must match outside the
// hidden-sectors field and byte 0x41. Which blocks a volume keeps is judged
// by the round trips (a marker file's clusters stay out).
TEST_F(FatVolumes, BootSectorRules) {
  {
    testsupport::FileDevice fat12(Build("fat12.img", "-F 12", 4, false));
    RecordingMessage msg;
    ScanResult r = Scan(&fat12, &msg);
    EXPECT_EQ(r.status, api::ERR_NOT_RECOGNIZED);
    EXPECT_TRUE(r.bitmapNull);
    EXPECT_TRUE(msg.lines.empty());
    EXPECT_EQ(Scan(&fat12, nullptr, api::SCAN_DATA).status, api::ERR_NOT_RECOGNIZED);
  }
  std::string fat16 = Build("boot16.img", "-F 16 -S 512 -s 1", 8, false);
  std::string raw = testsupport::ReadFile(fat16);
  struct Bad {
    size_t off;
    uint16_t v;
    bool wide;
  };
  for (Bad b : {Bad{0x0B, 256, true}, Bad{0x0B, 8192, true}, Bad{0x0B, 768, true}, Bad{0x0D, 3, false},
                Bad{0x0D, 0, false}, Bad{0x0E, 0, true}, Bad{0x10, 3, false}, Bad{0x10, 0, false},
                Bad{0x13, 0, true}, Bad{0x1FF, 0x00, false}, Bad{0x16, 0, true}, Bad{0x13, 100, true},
                Bad{0x11, 0, true}}) {
    std::vector<uint8_t> copy(raw.begin(), raw.end());
    copy[b.off] = uint8_t(b.v);
    if (b.wide) copy[b.off + 1] = uint8_t(b.v >> 8);
    testsupport::MemDevice dev(copy);
    ScanResult r = Scan(&dev);
    EXPECT_EQ(r.status, api::ERR_NOT_RECOGNIZED) << "offset " << b.off << " value " << b.v;
    EXPECT_TRUE(r.bitmapNull);
  }
  // "-data" is refused by the type that recognised the volume; a data area
  // off a cluster boundary is said once.
  for (const char* mkfs : {"-F 16 -a -s 4 -R 3", "-F 32 -S 4096 -s 1"}) {
    SCOPED_TRACE(mkfs);
    std::string img = Build("layout.img", mkfs, 40, false);
    Model m;
    ASSERT_TRUE(m.Load(img));
    testsupport::FileDevice dev(img, m.bps);
    RecordingMessage msg, dataMsg;
    ScanResult r = Scan(&dev, &msg);
    ASSERT_EQ(r.status, api::QORV_OK);
    EXPECT_EQ(r.n, m.fdb + m.limit - 1);
    std::vector<std::string> lines{"0:Scanning FAT..."};
    char text[80];
    std::snprintf(text, sizeof text, "1:First data sector 0x%x is not cluster aligned.", unsigned(m.fds));
    if (!m.aligned) lines.insert(lines.begin(), text);
    EXPECT_EQ(msg.lines, lines);
    ScanResult d = Scan(&dev, &dataMsg, api::SCAN_DATA);
    EXPECT_EQ(d.status, api::ERR_NOT_SUPPORTED);
    EXPECT_TRUE(d.bitmapNull);
    EXPECT_EQ(dataMsg.lines, std::vector<std::string>{"1:" + std::string(m.fat32 ? "FAT32" : "FAT16") +
                                                      " support \"-data\" option is not implemented."});
  }
  testsupport::MemDevice tiny(std::vector<uint8_t>(100));
  EXPECT_EQ(Scan(&tiny).status, api::ERR_IO_RANGE);
  EXPECT_EQ(Scan(nullptr).status, api::ERR_IO_RANGE);

  std::string img = Build("backup.img", "-F 32 -s 1", 40, false);
  const uint64_t backup = 6 * 512;
  struct Change {
    uint64_t off;
    uint8_t value;
    api::status_t status;
  };
  for (Change c : {Change{0x1C, 0x78, api::QORV_OK}, Change{0x41, 0x5A, api::QORV_OK}, Change{0x47, 0x77, api::QORV_OK},
                   Change{0x0D, 0x08, api::ERR_INCONSISTENT}, Change{0x00, 0x90, api::ERR_INCONSISTENT},
                   Change{0x46, 0x01, api::ERR_INCONSISTENT}, Change{0x1FE, 0x00, api::ERR_INCONSISTENT}}) {
    std::string copy = Copy(img, "backup_copy.img");
    // The volume id is random: a byte that already holds the value would
    // make the change no change at all.
    if (uint8_t(testsupport::ReadFile(copy)[backup + c.off]) == c.value) c.value ^= 0xFF;
    Patch(copy, backup + c.off, &c.value, 1);
    ScanResult r = ScanFile(copy);
    EXPECT_EQ(r.status, c.status) << "backup byte " << c.off;
    EXPECT_EQ(r.bitmapNull, c.status != api::QORV_OK);
  }
}

// Damaged copies of a populated FAT32 (and a FAT16 for the cycles): every
// damage is counted once and the rest of the tree is still walked. Loops,
// out-of-range clusters and a cycle to the root on FAT32 are the round trips'
// damaged volumes (exit status, no hang, stored blocks equal).
TEST_F(FatVolumes, DamagedTreesAreCountedAndWalkedPast) {
  std::string fat32 = Build("damaged32.img", "-F 32 -s 1", 40), fat16 = Build("damaged16.img", "-F 16 -s 2", 40);
  auto point = [](const std::string& img, uint64_t entry, uint32_t cl) {
    Patch16(img, entry + 26, uint16_t(cl));
    Patch16(img, entry + 20, uint16_t(cl >> 16));
  };
  auto link = [](const Model& m, const std::string& img, uint32_t c, uint32_t next) {
    Patch32(img, uint64_t(m.reserved) * m.bps + 4ull * c, next);
  };
  struct Case {
    const char* what;
    bool onFat16;
    std::function<void(const Model&, const std::string&)> damage;
    uint32_t problems;
    std::function<void(const Model&, const ScanResult&)> check;
  };
  const std::vector<Case> cases = {
      // 65536 entries of 32 bytes in 512-byte clusters: 4096 clusters at most.
      {"chain longer than the largest directory", false,
       [&](const Model& m, const std::string& img) {
         uint32_t from = uint32_t(m.limit) - 6000;
         std::vector<uint32_t> links(5000);
         for (uint32_t i = 0; i < links.size(); ++i) links[i] = i + 1 < links.size() ? from + i + 1 : 0x0FFFFFFF;
         Patch(img, uint64_t(m.reserved) * m.bps + 4ull * from, links.data(), links.size() * 4);
         link(m, img, m.Chain(m.dirs.at("/WIDE")).back(), from);
       },
       1,
       [](const Model& m, const ScanResult& r) {
         auto chain = m.Chain(m.dirs.at("/WIDE"));  // now through the extension
         uint32_t from = uint32_t(m.limit) - 6000;
         uint32_t kept = 4096 - uint32_t(std::find(chain.begin(), chain.end(), from) - chain.begin());
         EXPECT_TRUE(r.Test(m.Block(from + kept - 1)));
         EXPECT_FALSE(r.Test(m.Block(from + kept)));
         EXPECT_TRUE(r.Test(m.Block(m.dirs.at("/WIDE/SUB1/SUBSUB"))));
       }},
      {"root cut off by the end of the device", false,
       [](const Model& m, const std::string& img) { ASSERT_EQ(::truncate(img.c_str(), off_t(m.fds * m.bps)), 0); }, 1,
       [](const Model& m, const ScanResult& r) { EXPECT_EQ(r.CountSet(), m.fdb + 1); }},
      // Sub-directories pointing at their grandparent, their parent and the
      // root, which on FAT16 is cluster 0, the fixed root again.
      {"directory cycles", true,
       [&](const Model& m, const std::string& img) {
         point(img, m.entry.at("/A/B/C/D"), m.dirs.at("/A"));
         point(img, m.entry.at("/WIDE/SUB2"), m.dirs.at("/WIDE"));
         point(img, m.entry.at("/WIDE/SUB1/SUBSUB"), m.rootCluster);
       },
       3, [](const Model& m, const ScanResult& r) { EXPECT_TRUE(r.Test(m.Block(m.dirs.at("/EMPTY")))); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.what) + (c.onFat16 ? " (FAT16)" : " (FAT32)"));
    std::string img = Copy(c.onFat16 ? fat16 : fat32, "damaged.img");
    Model m;
    ASSERT_TRUE(m.Load(img));
    c.damage(m, img);
    ScanResult r = ScanFile(img);
    ASSERT_EQ(r.status, api::QORV_OK);
    EXPECT_EQ(r.problems, c.problems);
    c.check(m, r);
  }
}

TEST_F(FatVolumes, VanishedDeviceAndStopRequestEndTheScan) {
  testsupport::ExpectInterruptionsEndTheScan(QORV::ScanFat, Build("gone.img", "-F 16 -s 2", 24), 3);
}

}  // namespace
