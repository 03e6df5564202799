// FAT16/FAT32 scanner against real volumes made with mkfs.fat and mtools,
// the shared sample volumes, and deliberately damaged copies. Expected
// bitmaps come from a small independent reader of the volume in this file.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "core/api/scanner.h"
#include "fs/scanners.h"
#include "tests/support/file_device.h"
#include "tests/support/recording_message.h"
#include "tests/support/scan_result.h"
#include "tests/support/test_env.h"

namespace {

using testsupport::RecordingMessage;
using testsupport::ScanResult;

ScanResult Scan(api::IDeviceRWBlock* dev, api::IMessage* msg = nullptr, uint32_t flags = 0) {
  return testsupport::RunScanner(QORV::ScanFat, dev, msg, flags);
}

bool Sh(const std::string& cmd) { return std::system(("(" + cmd + ") >/dev/null 2>&1").c_str()) == 0; }

bool HaveTools() { return Sh("command -v mkfs.fat && command -v mmd && command -v mcopy"); }

std::string TempDir() {
  char tmpl[] = "/tmp/fat_scanner_XXXXXX";
  const char* d = mkdtemp(tmpl);
  return d ? d : "";
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
struct DirEntryAt {
  std::string name;
  uint8_t attr;
  uint32_t cluster;
  uint64_t offset;  // byte offset of the 32-byte entry in the image
};

struct Model {
  int fd = -1;
  uint32_t bps = 0, spc = 0, reserved = 0, fats = 0, rootEntries = 0, rootCluster = 0;
  uint64_t fatSectors = 0, total = 0, fds = 0, limit = 0, fdb = 0;
  bool fat32 = false, aligned = true;
  std::map<std::string, uint32_t> dirs;                 // path -> first cluster (root: rootCluster)
  std::map<std::string, std::vector<DirEntryAt>> entries;  // path -> its entries
  std::set<uint32_t> dirClusters, fileClusters;
  // First clusters of deleted directories that the FAT still calls free,
  // found in kept directories and, one level at a time, inside them.
  std::set<uint32_t> deletedDirs;

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
  void Walk(const std::string& path, uint32_t first) {
    if (dirs.size() > 10000 || (first != 0 && dirClusters.count(first))) return;  // damaged: stop
    dirs[path] = first;
    std::vector<uint64_t> slots;  // image offsets of every 32-byte slot
    if (first == 0) {
      for (uint32_t i = 0; i < rootEntries; ++i) slots.push_back((reserved + fats * fatSectors) * bps + i * 32);
    } else {
      for (uint32_t c : Chain(first)) {
        dirClusters.insert(c);
        for (uint32_t i = 0; i < spc * bps / 32; ++i) slots.push_back(ClusterOffset(c) + i * 32);
      }
    }
    WalkSlots(path, slots, !path.empty(), false);
  }
  void WalkDeleted(uint32_t c) {
    if (c < 2 || c >= limit || Fat(c) != 0 || dirClusters.count(c) || !deletedDirs.insert(c).second) return;
    std::vector<uint64_t> slots;
    for (uint32_t i = 0; i < spc * bps / 32; ++i) slots.push_back(ClusterOffset(c) + i * 32);
    WalkSlots("", slots, true, true);
  }
  void WalkSlots(const std::string& path, const std::vector<uint64_t>& slots, bool hasDots, bool deleted) {
    for (size_t i = 0; i < slots.size(); ++i) {
      uint64_t off = slots[i];
      auto e = Read(off, 32);
      if (e[0] == 0) break;
      if (e[11] & 0x08) continue;
      uint32_t cl = U16(&e[26]) | (fat32 ? U16(&e[20]) << 16 : 0);
      if (deleted || e[0] == 0xE5) {
        if ((e[11] & 0x10) && !(hasDots && i < 2)) WalkDeleted(cl);
        continue;
      }
      std::string name(reinterpret_cast<char*>(e.data()), 11);
      entries[path].push_back({name, e[11], cl, off});
      if (name == ".          " || name == "..         ") continue;
      std::string trimmed = name.substr(0, name.find_last_not_of(' ') + 1);
      if (e[11] & 0x10)
        Walk(path + "/" + trimmed, cl);
      else
        for (uint32_t c : Chain(cl)) fileClusters.insert(c);
    }
  }
  // Every directory cluster a scan keeps.
  std::set<uint32_t> KeptClusters() const {
    std::set<uint32_t> all = dirClusters;
    all.insert(deletedDirs.begin(), deletedDirs.end());
    return all;
  }
  const DirEntryAt* Entry(const std::string& dir, const std::string& name11) const {
    auto it = entries.find(dir);
    if (it == entries.end()) return nullptr;
    for (auto& e : it->second)
      if (e.name == name11) return &e;
    return nullptr;
  }
  // Blocks holding any sector of cluster c.
  std::vector<uint64_t> BlocksOf(uint32_t c) const {
    uint64_t s = fds + uint64_t(c - 2) * spc;
    std::vector<uint64_t> b{s / spc};
    if ((s + spc - 1) / spc != s / spc) b.push_back((s + spc - 1) / spc);
    return b;
  }
};

// Copies only the marked blocks into a sparse file of the same size, as a
// restore of the metadata image would, and asks fsck.fat whether the result
// is a consistent volume.
bool RestoredCopyIsClean(const std::string& img, const ScanResult& r, std::string* out) {
  *out = img + ".restored";
  int in = ::open(img.c_str(), O_RDONLY);
  int fd = ::open(out->c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  struct stat st {};
  if (in < 0 || fd < 0 || ::fstat(in, &st) != 0 || ::ftruncate(fd, st.st_size) != 0) return false;
  std::vector<uint8_t> block(size_t(1) << r.k);
  for (uint64_t b = 0; b < r.n; ++b) {
    if (!r.Test(b)) continue;
    ssize_t got = ::pread(in, block.data(), block.size(), off_t(b << r.k));
    if (got > 0 && ::pwrite(fd, block.data(), size_t(got), off_t(b << r.k)) != got) return false;
  }
  ::close(in);
  ::close(fd);
  return Sh("fsck.fat -n " + *out);
}

// Source tree copied onto every test volume: nested, wide (long names span
// several entry slots), empty, and file data that must stay out of the bitmap.
class FatFixture : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!HaveTools()) return;
    src_ = TempDir();
    Sh("mkdir -p " + src_ + "/wide " + src_ + "/a/b/c/d " + src_ + "/empty");
    for (int i = 0; i < 300; ++i) {
      char name[128];
      std::snprintf(name, sizeof name, "%s/wide/a rather long file name number %03d.txt", src_.c_str(), i);
      FILE* f = std::fopen(name, "w");
      if (f) {
        std::fprintf(f, "%d\n", i);
        std::fclose(f);
      }
    }
    Sh("head -c 200000 /dev/urandom > " + src_ + "/a/b/data.bin");
    Sh("head -c 70000 /dev/urandom > " + src_ + "/a/b/c/d/deep.bin");
    Sh("mkdir -p " + src_ + "/wide/sub1/subsub " + src_ + "/wide/sub2");
  }
  static void TearDownTestSuite() {
    if (!src_.empty()) Sh("rm -rf " + src_);
  }
  void SetUp() override {
    if (!HaveTools()) GTEST_SKIP() << "mkfs.fat or mtools not installed";
    dir_ = TempDir();
  }
  void TearDown() override {
    if (!dir_.empty()) Sh("rm -rf " + dir_);
  }
  // Formats a sparse image and copies the source tree onto it.
  std::string Build(const std::string& name, const std::string& mkfsArgs, int mib, bool populate = true) {
    std::string img = dir_ + "/" + name + ".img";
    EXPECT_TRUE(Sh("rm -f " + img + " && truncate -s " + std::to_string(mib) + "M " + img + " && mkfs.fat " + mkfsArgs + " " + img))
        << mkfsArgs;
    if (populate) {
      std::string m = "MTOOLS_SKIP_CHECK=1 ";
      EXPECT_TRUE(Sh(m + "mcopy -s -i " + img + " " + src_ + "/wide " + src_ + "/a " + src_ + "/empty ::"))
          << "mcopy failed for " << mkfsArgs;
    }
    return img;
  }
  // The bitmap the scanner must produce for an aligned volume: the leading
  // region and every directory cluster, nothing else.
  static void ExpectExactBitmap(const Model& m, const ScanResult& r) {
    std::vector<bool> want(r.n, false);
    for (uint64_t b = 0; b < m.fdb && b < r.n; ++b) want[b] = true;
    for (uint32_t c : m.KeptClusters())
      for (uint64_t b : m.BlocksOf(c)) want[b] = true;
    uint64_t wrong = 0;
    for (uint64_t i = 0; i < r.n; ++i) wrong += want[i] != r.Test(i);
    EXPECT_EQ(wrong, 0u) << "blocks differing from leading region + directory clusters";
  }
  static std::string src_;
  std::string dir_;
};
std::string FatFixture::src_;

struct Layout {
  const char* name;
  const char* mkfs;
  int mib;
  const char* type;
};

class FatLayouts : public FatFixture, public ::testing::WithParamInterface<Layout> {};

TEST_P(FatLayouts, KeepsLeadingRegionAndExactlyTheDirectoryClusters) {
  const Layout& p = GetParam();
  std::string img = Build(p.name, p.mkfs, p.mib);
  Model m;
  ASSERT_TRUE(m.Load(img));
  ASSERT_EQ(m.fat32, std::string(p.type) == "FAT32");
  ASSERT_TRUE(m.aligned);
  ASSERT_TRUE(m.dirs.count("/A/B/C/D") && m.dirs.count("/WIDE/SUB1/SUBSUB") && m.dirs.count("/EMPTY"));
  ASSERT_GT(m.Chain(m.dirs["/WIDE"]).size(), 1u) << "wide directory should span several clusters";
  ASSERT_FALSE(m.fileClusters.empty());

  testsupport::FileDevice dev(img, m.bps);
  RecordingMessage msg;
  ScanResult r = Scan(&dev, &msg);
  ASSERT_EQ(r.status, api::QORV_OK);
  ASSERT_FALSE(r.bitmapNull);
  EXPECT_EQ(1u << r.k, m.bps * m.spc);
  EXPECT_EQ(r.n, m.fdb + m.limit - 1);
  EXPECT_EQ(r.problems, 0u);
  EXPECT_TRUE(msg.Has(0, "Scanning FAT..."));
  EXPECT_FALSE(msg.Has(1, "First data sector 0x" + std::to_string(m.fds) + " is not cluster aligned."));
  ExpectExactBitmap(m, r);
  std::string restored;
  if (Sh("command -v fsck.fat")) {
    EXPECT_TRUE(RestoredCopyIsClean(img, r, &restored)) << restored;
  }
  for (uint32_t c : m.fileClusters) ASSERT_FALSE(r.Test(c - 2 + m.fdb)) << "file cluster " << c << " marked";
  // The FAT goes through a chunk cache: far fewer reads than FAT entries touched.
  uint64_t fatChunks = (m.fatSectors * m.bps + 65535) / 65536;
  EXPECT_LE(dev.reads, m.dirClusters.size() + fatChunks + 4);

  // "-data" is refused by the object that recognised the volume.
  RecordingMessage dataMsg;
  ScanResult d = Scan(&dev, &dataMsg, api::SCAN_DATA);
  EXPECT_EQ(d.status, api::ERR_NOT_SUPPORTED);
  EXPECT_TRUE(d.bitmapNull);
  ASSERT_EQ(dataMsg.lines.size(), 1u);
  EXPECT_EQ(dataMsg.lines[0], "1:" + std::string(p.type) + " support \"-data\" option is not implemented.");
  EXPECT_EQ(Scan(&dev, nullptr, api::SCAN_DATA).status, api::ERR_NOT_SUPPORTED);
}

INSTANTIATE_TEST_SUITE_P(
    Volumes, FatLayouts,
    ::testing::Values(Layout{"fat32_512_c1", "-F 32 -S 512 -s 1", 40, "FAT32"},
                      Layout{"fat32_512_c8", "-F 32 -S 512 -s 8", 272, "FAT32"},
                      Layout{"fat32_4k_c1", "-F 32 -S 4096 -s 1", 272, "FAT32"},
                      Layout{"fat32_4k_c2", "-F 32 -S 4096 -s 2", 528, "FAT32"},
                      Layout{"fat16_512_c1", "-F 16 -S 512 -s 1", 12, "FAT16"},
                      Layout{"fat16_512_c4", "-F 16 -S 512 -s 4", 24, "FAT16"},
                      Layout{"fat16_4k_c1", "-F 16 -S 4096 -s 1", 32, "FAT16"}),
    [](const ::testing::TestParamInfo<Layout>& i) { return std::string(i.param.name); });

using FatScanner = FatFixture;

TEST_F(FatScanner, EmptyVolumeKeepsOnlyTheLeadingRegionAndRoot) {
  // The last one is a FAT32 layout with fewer clusters than FAT32 normally has.
  for (const char* args : {"-F 16 -s 2", "-F 32 -s 1", "-F 32 -S 4096 -s 1"}) {
    std::string img = Build("empty", args, 40, false);
    Model m;
    ASSERT_TRUE(m.Load(img));
    testsupport::FileDevice dev(img);
    ScanResult r = Scan(&dev);
    ASSERT_EQ(r.status, api::QORV_OK) << args;
    // FAT16: the root lives in the leading region; FAT32: one root cluster.
    EXPECT_EQ(r.CountSet(), m.fdb + (m.fat32 ? 1 : 0)) << args;
    EXPECT_EQ(r.problems, 0u);
  }
}

TEST_F(FatScanner, Fat12IsRecognisedByNeitherObject) {
  std::string img = Build("fat12", "-F 12", 4, false);
  testsupport::FileDevice dev(img);
  RecordingMessage msg;
  ScanResult r = Scan(&dev, &msg);
  EXPECT_EQ(r.status, api::ERR_NOT_RECOGNIZED);
  EXPECT_TRUE(r.bitmapNull);
  EXPECT_TRUE(msg.lines.empty());
  // Even "-data" is not refused: the volume was never recognised.
  EXPECT_EQ(Scan(&dev, nullptr, api::SCAN_DATA).status, api::ERR_NOT_RECOGNIZED);
}

TEST_F(FatScanner, UnalignedDataAreaCoversBothHalvesOfEveryCluster) {
  std::string img = Build("unaligned", "-F 16 -a -s 4 -R 3", 16);
  Model m;
  ASSERT_TRUE(m.Load(img));
  ASSERT_FALSE(m.aligned);
  testsupport::FileDevice dev(img);
  RecordingMessage msg;
  ScanResult r = Scan(&dev, &msg);
  ASSERT_EQ(r.status, api::QORV_OK);
  char text[80];
  std::snprintf(text, sizeof text, "First data sector 0x%x is not cluster aligned.", unsigned(m.fds));
  EXPECT_TRUE(msg.Has(1, text));
  EXPECT_EQ(r.n, m.fds / m.spc + 1 + m.limit - 1);
  for (uint64_t b = 0; b < m.fdb; ++b) ASSERT_TRUE(r.Test(b)) << b;
  for (uint32_t c : m.dirClusters)
    for (uint64_t b : m.BlocksOf(c)) EXPECT_TRUE(r.Test(b)) << "cluster " << c << " block " << b;
  std::string restored;
  if (Sh("command -v fsck.fat")) {
    EXPECT_TRUE(RestoredCopyIsClean(img, r, &restored)) << restored;
  }
  // The block just after every directory run is kept too.
  for (uint32_t c : m.dirClusters)
    if (!m.dirClusters.count(c + 1)) {
      EXPECT_TRUE(r.Test(c - 2 + m.fdb + 1));
    }
  EXPECT_EQ(r.problems, 0u);
}

TEST_F(FatScanner, BackupBootSectorMustMatchOutsideTheIgnoredFields) {
  std::string img = Build("backup", "-F 32 -s 1", 40, false);
  Model m;
  ASSERT_TRUE(m.Load(img));
  uint64_t backup = 6 * 512;
  {
    testsupport::FileDevice dev(img);
    ASSERT_EQ(Scan(&dev).status, api::QORV_OK);
  }
  // Differences in hidden sectors and at 0x41 are tolerated.
  Patch32(img, backup + 0x1C, 0x12345678);
  uint8_t b41 = 0x5A;
  Patch(img, backup + 0x41, &b41, 1);
  {
    testsupport::FileDevice dev(img);
    EXPECT_EQ(Scan(&dev).status, api::QORV_OK);
  }
  struct Change {
    uint64_t off;
    uint8_t value;
  };
  for (Change c : {Change{0x0D, 0x08}, Change{0x00, 0x90}, Change{0x46, 0x01}, Change{0x1FE, 0x00}}) {
    auto orig = m.Read(backup + c.off, 1);
    Patch(img, backup + c.off, &c.value, 1);
    testsupport::FileDevice dev(img);
    ScanResult r = Scan(&dev);
    EXPECT_EQ(r.status, api::ERR_INCONSISTENT) << "offset " << c.off;
    EXPECT_TRUE(r.bitmapNull);
    Patch(img, backup + c.off, orig.data(), 1);
  }
  // Byte 0x47 is outside the compared range.
  uint8_t v = 0x77;
  Patch(img, backup + 0x47, &v, 1);
  testsupport::FileDevice dev(img);
  EXPECT_EQ(Scan(&dev).status, api::QORV_OK);
}

TEST_F(FatScanner, LoopingAndBrokenChainsTerminateAndAreCounted) {
  std::string img = Build("loops", "-F 32 -s 1", 40);
  Model m;
  ASSERT_TRUE(m.Load(img));
  uint64_t fat = uint64_t(m.reserved) * m.bps;
  auto wide = m.Chain(m.dirs["/WIDE"]);
  ASSERT_GT(wide.size(), 2u);
  Patch32(img, fat + 4 * wide.back(), wide.front());       // long loop back to the start
  Patch32(img, fat + 4 * m.dirs["/A"], m.dirs["/A"]);      // self loop
  Patch32(img, fat + 4 * m.dirs["/A/B"], 0x0FFFFFF0);      // link beyond the cluster limit
  Patch32(img, fat + 4 * m.dirs["/EMPTY"], 0);             // free cluster inside a chain
  testsupport::FileDevice dev(img);
  ScanResult r = Scan(&dev);
  ASSERT_EQ(r.status, api::QORV_OK);
  EXPECT_EQ(r.problems, 4u);
  for (uint32_t c : wide) EXPECT_TRUE(r.Test(c - 2 + m.fdb));
  EXPECT_TRUE(r.Test(m.dirs["/A/B/C"] - 2 + m.fdb));  // still reached through a/b's first cluster
}

TEST_F(FatScanner, OverlongDirectoryChainIsCutAtTheLargestDirectorySize) {
  std::string img = Build("overlong", "-F 32 -s 1", 40);
  Model m;
  ASSERT_TRUE(m.Load(img));
  auto wide = m.Chain(m.dirs["/WIDE"]);
  // Extend the chain through 5000 free clusters near the end of the volume.
  uint32_t from = uint32_t(m.limit) - 6000;
  std::vector<uint32_t> links(5000);
  for (uint32_t i = 0; i < links.size(); ++i) links[i] = i + 1 < links.size() ? from + i + 1 : 0x0FFFFFFF;
  uint64_t fat = uint64_t(m.reserved) * m.bps;
  Patch(img, fat + 4ull * from, links.data(), links.size() * 4);
  Patch32(img, fat + 4ull * wide.back(), from);
  testsupport::FileDevice dev(img);
  ScanResult r = Scan(&dev);
  ASSERT_EQ(r.status, api::QORV_OK);
  EXPECT_EQ(r.problems, 1u);
  // 65536 entries of 32 bytes in 512-byte clusters: 4096 clusters at most.
  uint32_t kept = 4096 - uint32_t(wide.size());
  EXPECT_TRUE(r.Test(from + kept - 1 - 2 + m.fdb));
  EXPECT_FALSE(r.Test(from + kept - 2 + m.fdb));
  EXPECT_TRUE(r.Test(m.dirs["/WIDE/SUB1/SUBSUB"] - 2 + m.fdb));
}

TEST_F(FatScanner, DirectoryEntriesOutOfRangeAreCountedAndSkipped) {
  std::string img = Build("range", "-F 32 -s 1", 40);
  Model m;
  ASSERT_TRUE(m.Load(img));
  const DirEntryAt* a = m.Entry("", "A          ");
  const DirEntryAt* empty = m.Entry("", "EMPTY      ");
  ASSERT_TRUE(a && empty);
  Patch16(img, a->offset + 20, 0x0FFF);  // high word: cluster 0x0FFFxxxx
  Patch16(img, empty->offset + 26, 1);   // cluster 1 is reserved
  testsupport::FileDevice dev(img);
  ScanResult r = Scan(&dev);
  ASSERT_EQ(r.status, api::QORV_OK);
  EXPECT_EQ(r.problems, 2u);
  EXPECT_FALSE(r.Test(m.dirs["/A/B"] - 2 + m.fdb)) << "subtree of an unreachable directory was walked";
  EXPECT_TRUE(r.Test(m.dirs["/WIDE/SUB1/SUBSUB"] - 2 + m.fdb));
}

TEST_F(FatScanner, DirectoryCyclesTerminate) {
  for (const char* args : {"-F 32 -s 1", "-F 16 -s 2"}) {
    std::string img = Build("cycle", args, 40);
    Model m;
    ASSERT_TRUE(m.Load(img));
    const DirEntryAt* d = m.Entry("/A/B/C", "D          ");
    const DirEntryAt* sub2 = m.Entry("/WIDE", "SUB2       ");
    const DirEntryAt* subsub = m.Entry("/WIDE/SUB1", "SUBSUB     ");
    const DirEntryAt* empty = m.Entry("", "EMPTY      ");
    ASSERT_TRUE(d && sub2 && subsub && empty);
    auto point = [&](const DirEntryAt* e, uint32_t cl) {
      Patch16(img, e->offset + 26, uint16_t(cl));
      Patch16(img, e->offset + 20, uint16_t(cl >> 16));
    };
    point(d, m.dirs["/A"]);          // grandparent
    point(sub2, m.dirs["/WIDE"]);    // own parent
    point(subsub, m.rootCluster);    // the root (cluster 0 on FAT16: the fixed root again)
    point(empty, m.dirs["/EMPTY"] + 0);  // unchanged: a control entry
    testsupport::FileDevice dev(img);
    RecordingMessage msg;
    ScanResult r = Scan(&dev, &msg);
    ASSERT_EQ(r.status, api::QORV_OK) << args;
    EXPECT_EQ(r.problems, 3u) << args;
    EXPECT_TRUE(r.Test(m.dirs["/EMPTY"] - 2 + m.fdb));
  }
}

TEST_F(FatScanner, StopRequestEndsTheWalkWithTooBig) {
  std::string img = Build("stop", "-F 16 -s 2", 24);
  testsupport::FileDevice dev(img);
  RecordingMessage msg;
  msg.stop = 1;
  ScanResult r = Scan(&dev, &msg);
  EXPECT_EQ(r.status, api::ERR_TOO_BIG);
  EXPECT_TRUE(r.bitmapNull);
}

TEST_F(FatScanner, TruncatedVolumeCountsUnreadableDirectories) {
  std::string img = Build("trunc", "-F 32 -s 1", 40);
  Model m;
  ASSERT_TRUE(m.Load(img));
  // Keep the boot area and the FATs, cut off the data area.
  ASSERT_EQ(::truncate(img.c_str(), off_t(m.fds * m.bps)), 0);
  testsupport::FileDevice dev(img);
  ScanResult r = Scan(&dev);
  ASSERT_EQ(r.status, api::QORV_OK);
  EXPECT_EQ(r.problems, 1u);  // the root cannot be read
  EXPECT_EQ(r.CountSet(), m.fdb + 1);
}

TEST_F(FatScanner, DeletedDirectoriesKeepTheirFirstClusterWhileItIsFree) {
  if (!Sh("command -v mdeltree")) GTEST_SKIP() << "mdeltree not installed (mtools)";
  for (const char* args : {"-F 32 -s 1", "-F 16 -s 2"}) {
    std::string img = Build("deleted", args, 40);
    std::map<std::string, uint32_t> before;
    {
      Model m;
      ASSERT_TRUE(m.Load(img));
      before = m.dirs;
    }
    // A whole subtree deleted: every level of it is still on disk.
    std::string m = "MTOOLS_SKIP_CHECK=1 ";
    ASSERT_TRUE(Sh(m + "mdeltree -i " + img + " ::/A ::/WIDE/SUB1"));
    Model after;
    ASSERT_TRUE(after.Load(img));
    for (const char* gone : {"/A", "/A/B", "/A/B/C", "/A/B/C/D", "/WIDE/SUB1", "/WIDE/SUB1/SUBSUB"}) {
      ASSERT_FALSE(after.dirs.count(gone)) << gone;
      EXPECT_TRUE(after.deletedDirs.count(before[gone])) << args << " " << gone;
    }
    testsupport::FileDevice dev(img);
    ScanResult r = Scan(&dev);
    ASSERT_EQ(r.status, api::QORV_OK) << args;
    EXPECT_EQ(r.problems, 0u) << args;
    ExpectExactBitmap(after, r);

    // Once the FAT gives that cluster to something else (here: the end of a
    // one-cluster chain), the deleted entry pointing there is not followed,
    // and what lay below it is not reached either.
    uint64_t fat = uint64_t(after.reserved) * after.bps;
    if (after.fat32)
      Patch32(img, fat + 4ull * before["/A"], 0x0FFFFFFF);
    else
      Patch16(img, fat + 2ull * before["/A"], 0xFFFF);
    Model refilled;
    ASSERT_TRUE(refilled.Load(img));
    ASSERT_FALSE(refilled.deletedDirs.count(before["/A"]));
    ASSERT_FALSE(refilled.deletedDirs.count(before["/A/B"]));
    testsupport::FileDevice dev2(img);
    r = Scan(&dev2);
    ASSERT_EQ(r.status, api::QORV_OK) << args;
    ExpectExactBitmap(refilled, r);
    EXPECT_FALSE(r.Test(before["/A"] - 2 + refilled.fdb)) << args;
  }
}

TEST(FatScannerHostile, BadBootSectorsAreRefusedWithoutReadingFurther) {
  EXPECT_EQ(Scan(nullptr).status, api::ERR_IO_RANGE);
  testsupport::MemDevice tiny(std::vector<uint8_t>(100));
  EXPECT_EQ(Scan(&tiny).status, api::ERR_IO_RANGE);

  // A plausible FAT16 boot sector, then one broken field at a time.
  std::vector<uint8_t> img(8 << 20);
  auto put16 = [&](size_t o, uint16_t v) { img[o] = uint8_t(v), img[o + 1] = uint8_t(v >> 8); };
  img[0] = 0xEB, img[1] = 0x3C, img[2] = 0x90;
  put16(0x0B, 512);
  img[0x0D] = 1;
  put16(0x0E, 1);
  img[0x10] = 2;
  put16(0x11, 512);
  put16(0x13, 16384);
  put16(0x16, 64);
  img[510] = 0x55, img[511] = 0xAA;
  {
    testsupport::MemDevice dev(img);
    ScanResult r = Scan(&dev);
    ASSERT_EQ(r.status, api::QORV_OK);
    EXPECT_EQ(r.k, 9u);
    EXPECT_EQ(r.n, (1 + 128 + 32) + (16384 - 161 + 2) - 1);
  }
  struct Bad {
    size_t off;
    uint16_t v;
    bool wide;
  };
  for (Bad b : {Bad{0x0B, 256, true}, Bad{0x0B, 8192, true}, Bad{0x0B, 768, true}, Bad{0x0D, 3, false},
                Bad{0x0D, 0, false}, Bad{0x0E, 0, true}, Bad{0x10, 3, false}, Bad{0x10, 0, false},
                Bad{0x13, 0, true}, Bad{0x1FF, 0x00, false}, Bad{0x16, 0, true}, Bad{0x13, 100, true},
                Bad{0x11, 0, true}}) {
    std::vector<uint8_t> copy = img;
    copy[b.off] = uint8_t(b.v);
    if (b.wide) copy[b.off + 1] = uint8_t(b.v >> 8);
    testsupport::MemDevice dev(copy);
    ScanResult r = Scan(&dev);
    EXPECT_EQ(r.status, api::ERR_NOT_RECOGNIZED) << "offset " << b.off << " value " << b.v;
    EXPECT_TRUE(r.bitmapNull);
  }
}

// Decompresses a shared sample volume next to the test's temp files.
std::string Unpack(const std::string& dir, const std::string& name) {
  std::string src = std::string(MDSNAP_FIXTURES_DIR) + "/fat/" + name + ".img.zst";
  std::string out = dir + "/" + name + ".img";
  if (!Sh("command -v zstd") || !Sh("test -f " + src)) return "";
  return Sh("zstd -q -dc " + src + " > " + out) ? out : "";
}

TEST(FatScannerSamples, RealVolumesFromOtherSystems) {
  std::string dir = TempDir();
  struct Sample {
    const char* name;
    const char* type;
  };
  for (Sample s : {Sample{"fat32_winxp_label", "FAT32"}, Sample{"fat16_winxp_dftt_undelete", "FAT16"}}) {
    std::string img = Unpack(dir, s.name);
    if (img.empty()) {
      Sh("rm -rf " + dir);
      GTEST_SKIP() << "sample volume or zstd missing: " << s.name;
    }
    Model m;
    ASSERT_TRUE(m.Load(img));
    testsupport::FileDevice dev(img);
    RecordingMessage msg;
    ScanResult r = Scan(&dev, &msg);
    ASSERT_EQ(r.status, api::QORV_OK) << s.name;
    EXPECT_EQ(r.problems, 0u) << s.name;
    EXPECT_EQ(1u << r.k, m.bps * m.spc);
    EXPECT_EQ(r.n, m.fdb + m.limit - 1);
    for (uint64_t b = 0; b < m.fdb; ++b) ASSERT_TRUE(r.Test(b));
    std::set<uint32_t> kept = m.KeptClusters();
    for (uint32_t c : kept) EXPECT_TRUE(r.Test(c - 2 + m.fdb)) << s.name << " dir cluster " << c;
    for (uint32_t c : m.fileClusters) {
      if (!kept.count(c)) {
        EXPECT_FALSE(r.Test(c - 2 + m.fdb)) << s.name << " file cluster " << c;
      }
    }
    EXPECT_EQ(r.CountSet(), m.fdb + kept.size()) << s.name;
    // The undelete sample holds two deleted directories, one inside the other's parent.
    if (std::string(s.name) == "fat16_winxp_dftt_undelete") {
      EXPECT_GE(m.deletedDirs.size(), 2u);
    }
    RecordingMessage dataMsg;
    EXPECT_EQ(Scan(&dev, &dataMsg, api::SCAN_DATA).status, api::ERR_NOT_SUPPORTED);
    EXPECT_TRUE(dataMsg.Has(1, std::string(s.type) + " support \"-data\" option is not implemented."));
  }
  Sh("rm -rf " + dir);
}

}  // namespace
