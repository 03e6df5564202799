// exFAT/TexFAT scanner against volumes built byte by byte in memory (so every
// boot-region and directory rule can be set up exactly), against fresh
// mkfs.exfat volumes and against a populated pre-built volume.
#include <gtest/gtest.h>

#include <cinttypes>
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

using testsupport::MemDevice;
using testsupport::RecordingMessage;
using testsupport::ScanResult;

ScanResult Scan(api::IDeviceRWBlock* dev, api::IMessage* msg = nullptr, uint32_t flags = 0) {
  return testsupport::RunScanner(QORV::ScanExFat, dev, msg, flags);
}

void Put16(std::vector<uint8_t>& b, size_t at, uint16_t v) {
  b[at] = uint8_t(v);
  b[at + 1] = uint8_t(v >> 8);
}
void Put32(std::vector<uint8_t>& b, size_t at, uint32_t v) {
  Put16(b, at, uint16_t(v));
  Put16(b, at + 2, uint16_t(v >> 16));
}
void Put64(std::vector<uint8_t>& b, size_t at, uint64_t v) {
  Put32(b, at, uint32_t(v));
  Put32(b, at + 4, uint32_t(v >> 32));
}

// Builds a small exFAT volume: boot regions with correct checksums, the FAT,
// an allocation bitmap, an up-case table and a root directory, then lets a
// test add directories and files with explicit cluster placement.
class Volume {
 public:
  uint32_t sectorShift = 9, spcShift = 3;  // 4 KiB clusters
  uint32_t fatOffset = 24, heapOffset = 64, clusterCount = 256;
  uint32_t fats = 1;
  uint16_t volumeFlags = 0;
  uint32_t bitmapCluster = 2, upcaseCluster = 3, upcaseBytes = 5836, rootCluster = 5;
  uint32_t secondBitmapCluster = 8;  // two-FAT volumes only
  uint32_t rootClusters = 1;
  uint32_t storedClusters = 0;  // heap clusters kept in memory; 0 keeps all
  std::vector<uint8_t> img;

  uint32_t SectorSize() const { return 1u << sectorShift; }
  uint32_t ClusterSize() const { return 1u << (sectorShift + spcShift); }
  uint32_t FatLength() const { return ((clusterCount + 2) * 4 + SectorSize() - 1) / SectorSize(); }
  uint64_t ClusterOffset(uint32_t c) const {
    return (uint64_t(heapOffset) << sectorShift) + (uint64_t(c - 2) << (sectorShift + spcShift));
  }
  uint64_t HeapBytes() const { return uint64_t(heapOffset) << sectorShift; }

  void Build() {
    uint64_t stored = storedClusters ? storedClusters : clusterCount;
    img.assign(HeapBytes() + (stored << (sectorShift + spcShift)), 0);
    WriteBootRegion(0);
    WriteBootRegion(12);
    for (uint32_t f = 0; f < fats; ++f) {
      Put32(img, FatAt(f, 0), 0xFFFFFFF8);
      Put32(img, FatAt(f, 1), 0xFFFFFFFF);
    }
    Chain(bitmapCluster, 1);
    Chain(upcaseCluster, (upcaseBytes + ClusterSize() - 1) / ClusterSize());
    Chain(rootCluster, rootClusters);
    if (fats == 2) Chain(secondBitmapCluster, 1);
    dirEnd_[rootCluster] = 0;
    Raw(rootCluster, {0x83, 0});  // an empty volume label
    uint8_t bitmapFlags = 0;
    for (uint32_t f = 0; f < fats; ++f, ++bitmapFlags) {
      std::vector<uint8_t> e(32, 0);
      e[0] = 0x81;
      e[1] = bitmapFlags;
      Put32(e, 20, f ? secondBitmapCluster : bitmapCluster);
      Put64(e, 24, (clusterCount + 7) / 8);
      Append(rootCluster, e);
    }
    std::vector<uint8_t> up(32, 0);
    up[0] = 0x82;
    Put32(up, 20, upcaseCluster);
    Put64(up, 24, upcaseBytes);
    Append(rootCluster, up);
  }

  // Re-seals both boot regions after a test changed their sectors.
  void Reseal(uint32_t firstSector) {
    size_t ss = SectorSize();
    uint32_t sum = Checksum(&img[firstSector * ss], ss);
    for (size_t at = 0; at < ss; at += 4) Put32(img, (firstSector + 11) * ss + at, sum);
  }
  static uint32_t Checksum(const uint8_t* region, size_t ss) {
    uint32_t sum = 0;
    for (size_t i = 0; i < ss * 11; ++i) {
      if (i == 106 || i == 107 || i == 112) continue;
      sum = (sum >> 1 | sum << 31) + region[i];
    }
    return sum;
  }

  size_t FatAt(uint32_t fat, uint32_t c) const {
    return (size_t(fatOffset) + size_t(fat) * FatLength()) * SectorSize() + size_t(c) * 4;
  }
  void Link(uint32_t c, uint32_t next) {
    for (uint32_t f = 0; f < fats; ++f) Put32(img, FatAt(f, c), next);
  }
  void Chain(uint32_t first, uint32_t n) {
    for (uint32_t i = 0; i < n; ++i) Link(first + i, i + 1 == n ? 0xFFFFFFFF : first + i + 1);
  }

  // Adds an entry set to directory `dir` (by its first cluster) and returns
  // the byte position of its file entry. With `allocate`, the stream's
  // clusters at `first` are chained through the FAT (unless noFatChain) and
  // a directory becomes writable; hostile entries pass false.
  uint64_t AddSet(uint32_t dir, const std::string& name, bool isDir, uint32_t first, uint64_t length,
                  bool noFatChain = false, bool allocate = true) {
    uint32_t nameEntries = uint32_t((name.size() + 14) / 15);
    std::vector<uint8_t> set(32 * (2 + nameEntries), 0);
    set[0] = 0x85;
    set[1] = uint8_t(1 + nameEntries);
    Put16(set, 4, isDir ? 0x10 : 0x20);
    set[32] = 0xC0;
    set[33] = uint8_t(0x1 | (noFatChain ? 0x2 : 0));
    set[35] = uint8_t(name.size());
    Put64(set, 40, length);
    Put32(set, 52, first);
    Put64(set, 56, length);
    for (size_t i = 0; i < name.size(); ++i) {
      size_t entry = 2 + i / 15;
      set[entry * 32] = 0xC1;
      Put16(set, entry * 32 + 2 + (i % 15) * 2, uint8_t(name[i]));
    }
    uint64_t at = dirEnd_[dir];
    Append(dir, set);
    if (!allocate) return at;
    if (isDir) dirEnd_[first] = 0;
    if (!noFatChain && length) Chain(first, uint32_t((length + ClusterSize() - 1) / ClusterSize()));
    return at;
  }
  // Appends raw entries to a directory; positions run on through the chain
  // when the directory's clusters are contiguous, which the tests keep them.
  void Raw(uint32_t dir, std::vector<uint8_t> entry) {
    entry.resize(32, 0);
    Append(dir, entry);
  }
  uint64_t DirOffset(uint32_t dir, uint64_t pos) const { return ClusterOffset(dir) + pos; }
  // Turns the set at `pos` of `dir` into a deleted one (in-use bits cleared).
  void Delete(uint32_t dir, uint64_t pos) {
    size_t at = DirOffset(dir, pos);
    for (uint32_t i = 0; i <= img[at + 1]; ++i) img[at + 32 * i] &= 0x7F;
  }
  // Sets cluster c's bit in the allocation bitmap.
  void Allocate(uint32_t c) { img[ClusterOffset(bitmapCluster) + (c - 2) / 8] |= uint8_t(1u << ((c - 2) % 8)); }
  uint64_t End(uint32_t dir) { return dirEnd_[dir]; }

  // Heap blocks (at the volume's block shift k) covering cluster c.
  std::vector<uint64_t> BlocksOf(uint32_t c, uint32_t k) const {
    std::vector<uint64_t> out;
    for (uint64_t b = ClusterOffset(c) >> k; b < (ClusterOffset(c) + ClusterSize()) >> k; ++b) out.push_back(b);
    return out;
  }

 private:
  void WriteBootRegion(uint32_t firstSector) {
    size_t ss = SectorSize(), base = firstSector * ss;
    img[base] = 0xEB;
    img[base + 1] = 0x76;
    img[base + 2] = 0x90;
    std::memcpy(&img[base + 3], "EXFAT   ", 8);
    Put64(img, base + 72, heapOffset + (uint64_t(clusterCount) << spcShift));
    Put32(img, base + 80, fatOffset);
    Put32(img, base + 84, FatLength());
    Put32(img, base + 88, heapOffset);
    Put32(img, base + 92, clusterCount);
    Put32(img, base + 96, rootCluster);
    Put32(img, base + 100, 0x12345678);
    Put16(img, base + 104, 0x0100);
    Put16(img, base + 106, volumeFlags);
    img[base + 108] = uint8_t(sectorShift);
    img[base + 109] = uint8_t(spcShift);
    img[base + 110] = uint8_t(fats);
    img[base + 111] = 0x80;
    img[base + 510] = 0x55;
    img[base + 511] = 0xAA;
    for (uint32_t s = 1; s <= 8; ++s) Put32(img, base + s * ss + ss - 4, 0xAA550000);
    Reseal(firstSector);
  }
  void Append(uint32_t dir, const std::vector<uint8_t>& bytes) {
    uint64_t at = dirEnd_[dir];
    std::memcpy(&img[ClusterOffset(dir) + at], bytes.data(), bytes.size());
    dirEnd_[dir] = at + bytes.size();
  }
  std::map<uint32_t, uint64_t> dirEnd_;
};

// The blocks every scan of `v` must keep: everything in front of the heap,
// the bitmap(s), the up-case table and the given directory clusters.
std::set<uint64_t> Expected(const Volume& v, uint32_t k, const std::set<uint32_t>& dirClusters) {
  std::set<uint64_t> want;
  for (uint64_t b = 0; b < v.HeapBytes() >> k; ++b) want.insert(b);
  std::set<uint32_t> clusters = dirClusters;
  clusters.insert(v.bitmapCluster);
  if (v.fats == 2) clusters.insert(v.secondBitmapCluster);
  for (uint32_t c = 0; c < (v.upcaseBytes + v.ClusterSize() - 1) / v.ClusterSize(); ++c)
    clusters.insert(v.upcaseCluster + c);
  for (uint32_t c = 0; c < v.rootClusters; ++c) clusters.insert(v.rootCluster + c);
  for (uint32_t c : clusters)
    for (uint64_t b : v.BlocksOf(c, k)) want.insert(b);
  return want;
}

std::set<uint64_t> Marked(const ScanResult& r) {
  std::set<uint64_t> got;
  for (uint64_t b = 0; b < r.n; ++b)
    if (r.Test(b)) got.insert(b);
  return got;
}

// A tree with a nested directory, a fragmented directory, a contiguous
// (no FAT chain) directory and files whose clusters must not be kept.
struct TreeVolume : Volume {
  std::set<uint32_t> dirs;
  std::set<uint32_t> files;
  void Populate() {
    Build();
    AddSet(rootCluster, "docs", true, 10, 2 * ClusterSize());
    AddSet(10, "nested directory with a long name", true, 20, ClusterSize());
    AddSet(20, "leaf.txt", false, 40, 3 * ClusterSize() + 1);
    AddSet(rootCluster, "flat", true, 30, 3 * ClusterSize(), true);
    AddSet(30, "big.bin", false, 50, 8 * ClusterSize(), true);
    // A fragmented directory: 60 -> 70 -> 61.
    AddSet(rootCluster, "frag", true, 60, 3 * ClusterSize());
    Link(60, 70);
    Link(70, 61);
    Link(61, 0xFFFFFFFF);
    dirs = {10, 11, 20, 30, 31, 32, 60, 61, 70};
    files = {40, 41, 42, 43, 50, 51, 52, 53, 54, 55, 56, 57};
  }
};

TEST(ExFatScanner, KeepsLeadingRegionBitmapUpcaseAndExactlyTheDirectoryClusters) {
  TreeVolume v;
  v.Populate();
  MemDevice dev(v.img);
  RecordingMessage msg;
  ScanResult r = Scan(&dev, &msg);
  ASSERT_EQ(r.status, api::QORV_OK);
  EXPECT_EQ(r.k, 12u);
  EXPECT_EQ(r.n, (v.HeapBytes() >> 12) + v.clusterCount);
  EXPECT_EQ(r.problems, 0u);
  EXPECT_EQ(Marked(r), Expected(v, 12, v.dirs));
  for (uint32_t c : v.files) EXPECT_FALSE(r.Test(v.ClusterOffset(c) >> 12)) << "file cluster " << c << " kept";
  EXPECT_TRUE(msg.Has(0, "Scanning exFAT..."));
}

TEST(ExFatScanner, UnalignedHeapUsesSmallerBlocksWithoutAMessage) {
  for (uint32_t heap : {65u, 66u, 68u}) {  // 512-byte, 1 KiB and 2 KiB alignment with 4 KiB clusters
    TreeVolume v;
    v.heapOffset = heap;
    v.Populate();
    MemDevice dev(v.img);
    RecordingMessage msg;
    ScanResult r = Scan(&dev, &msg);
    ASSERT_EQ(r.status, api::QORV_OK) << heap;
    uint32_t want = 9 + uint32_t(__builtin_ctz(heap));
    EXPECT_EQ(r.k, want) << heap;
    EXPECT_EQ(r.n, (v.HeapBytes() + (uint64_t(v.clusterCount) << 12)) >> want);
    EXPECT_EQ(Marked(r), Expected(v, want, v.dirs)) << heap;
    for (const auto& l : msg.lines) EXPECT_EQ(l.find("not cluster aligned"), std::string::npos) << l;
  }
}

TEST(ExFatScanner, LargeSectorsAndClusters) {
  TreeVolume v;
  v.sectorShift = 12;
  v.spcShift = 1;  // 8 KiB clusters on 4 KiB sectors
  v.heapOffset = 26;
  v.Populate();
  MemDevice dev(v.img, 4096);
  ScanResult r = Scan(&dev);
  ASSERT_EQ(r.status, api::QORV_OK);
  EXPECT_EQ(r.k, 13u);
  EXPECT_EQ(Marked(r), Expected(v, 13, v.dirs));
}

TEST(ExFatScanner, TexFatKeepsBothBitmapsAndFollowsTheActiveFat) {
  TreeVolume v;
  v.fats = 2;
  v.volumeFlags = 1;  // the second FAT is the active one
  v.Populate();
  // Spoil the first FAT's chains: only the active FAT may be followed.
  for (uint32_t c = 2; c < v.clusterCount + 2; ++c) Put32(v.img, v.FatAt(0, c), 0);
  v.Reseal(0);
  v.Reseal(12);
  MemDevice dev(v.img);
  ScanResult r = Scan(&dev);
  ASSERT_EQ(r.status, api::QORV_OK);
  EXPECT_EQ(r.problems, 0u);
  EXPECT_EQ(Marked(r), Expected(v, 12, v.dirs));
}

TEST(ExFatScanner, DataOptionIsRefusedWithItsMessage) {
  TreeVolume v;
  v.Populate();
  MemDevice dev(v.img);
  RecordingMessage msg;
  ScanResult r = Scan(&dev, &msg, api::SCAN_DATA);
  EXPECT_EQ(r.status, api::ERR_NOT_SUPPORTED);
  EXPECT_TRUE(r.bitmapNull);
  EXPECT_TRUE(msg.Has(1, "Exfat support \"-data\" option is not implemented yet."));
  // Without a sink the same status comes back silently.
  EXPECT_EQ(Scan(&dev, nullptr, api::SCAN_DATA).status, api::ERR_NOT_SUPPORTED);
}

// ---------------------------------------------------------------- boot regions

TEST(ExFatBootRegion, MarkedBootSectorIsStillMounted) {
  TreeVolume v;
  v.Populate();
  std::memcpy(&v.img[0], "RRaA", 4);
  std::memcpy(&v.img[4], "XFAT", 4);
  std::memcpy(&v.img[484], "rrAa", 4);
  {
    // The checksum on disk matches the marked sector; with the markers the
    // sector itself is not a boot sector.
    Volume copy = v;
    copy.Reseal(0);
    MemDevice dev(copy.img);
    EXPECT_EQ(Scan(&dev).status, api::QORV_OK);
  }
  {
    // Stale main checksum: mounted from the backup region.
    MemDevice dev(v.img);
    ScanResult r = Scan(&dev);
    EXPECT_EQ(r.status, api::QORV_OK);
    EXPECT_EQ(Marked(r), Expected(v, 12, v.dirs));
  }
  // Without the trailing mark it is just not exFAT.
  v.img[484] = 'x';
  v.Reseal(0);
  MemDevice dev(v.img);
  EXPECT_EQ(Scan(&dev).status, api::ERR_NOT_RECOGNIZED);
}

TEST(ExFatBootRegion, CorruptMainWithGoodBackupIsMountedFromTheBackup) {
  TreeVolume v;
  v.Populate();
  for (uint32_t sector : {1u, 2u, 9u, 10u, 11u}) {
    Volume copy = v;
    copy.img[sector * 512 + 17] ^= 0x5A;
    MemDevice dev(copy.img);
    ScanResult r = Scan(&dev);
    EXPECT_EQ(r.status, api::QORV_OK) << "damaged main sector " << sector;
    EXPECT_EQ(Marked(r), Expected(v, 12, v.dirs));
  }
}

TEST(ExFatBootRegion, GoodMainWithCorruptBackupIsRefused) {
  TreeVolume v;
  v.Populate();
  for (uint32_t sector : {12u, 14u, 23u}) {
    Volume copy = v;
    copy.img[sector * 512 + 17] ^= 0x5A;
    MemDevice dev(copy.img);
    ScanResult r = Scan(&dev);
    EXPECT_EQ(r.status, api::ERR_NOT_RECOGNIZED) << "damaged backup sector " << sector;
    EXPECT_TRUE(r.bitmapNull);
  }
}

TEST(ExFatBootRegion, BothRegionsCorruptIsNotExFat) {
  TreeVolume v;
  v.Populate();
  v.img[3 * 512] ^= 1;
  v.img[15 * 512] ^= 1;
  MemDevice dev(v.img);
  EXPECT_EQ(Scan(&dev).status, api::ERR_NOT_RECOGNIZED);
}

TEST(ExFatBootRegion, TwoGoodRegionsWithDifferentChecksumsStillMount) {
  TreeVolume v;
  v.Populate();
  v.img[12 * 512 + 200] ^= 0xFF;  // boot code of the backup only
  v.Reseal(12);
  MemDevice dev(v.img);
  EXPECT_EQ(Scan(&dev).status, api::QORV_OK);
}

TEST(ExFatBootRegion, VolumeStateFieldsDoNotEnterTheChecksum) {
  TreeVolume v;
  v.Populate();
  v.img[106] = 0x02;  // VolumeDirty
  v.img[112] = 42;    // PercentInUse
  MemDevice dev(v.img);
  EXPECT_EQ(Scan(&dev).status, api::QORV_OK);
}

TEST(ExFatBootRegion, ImplausibleBootSectorsAreNotExFat) {
  struct Case {
    const char* what;
    size_t at;
    std::vector<uint8_t> bytes;
  };
  const std::vector<Case> cases = {
      {"jump", 0, {0xE9}},
      {"name", 3, {'N', 'T', 'F', 'S'}},
      {"old BPB not zero", 11, {0x00, 0x02}},
      {"signature", 510, {0x55, 0x00}},
      {"sector shift 8", 108, {8}},
      {"sector shift 13", 108, {13}},
      {"cluster above 32 MiB", 109, {17}},
      {"no FAT", 110, {0}},
      {"three FATs", 110, {3}},
      {"FAT inside the boot regions", 80, {4, 0, 0, 0}},
      {"heap inside the FAT", 88, {25, 0, 0, 0}},
      {"no clusters", 92, {0, 0, 0, 0}},
      {"FAT too short for the clusters", 92, {0xFF, 0xFF, 0, 0}},
      {"root below cluster 2", 96, {1, 0, 0, 0}},
      {"root past the heap", 96, {0x03, 0x01, 0, 0}},
      {"volume shorter than the heap", 72, {0x10, 0, 0, 0, 0, 0, 0, 0}},
  };
  for (const Case& c : cases) {
    TreeVolume v;
    v.Populate();
    for (uint32_t region : {0u, 12u}) {
      std::memcpy(&v.img[region * 512 + c.at], c.bytes.data(), c.bytes.size());
      v.Reseal(region);
    }
    MemDevice dev(v.img);
    ScanResult r = Scan(&dev);
    EXPECT_EQ(r.status, api::ERR_NOT_RECOGNIZED) << c.what;
    EXPECT_TRUE(r.bitmapNull) << c.what;
  }
  MemDevice tiny(std::vector<uint8_t>(100, 0));
  EXPECT_EQ(Scan(&tiny).status, api::ERR_IO_RANGE) << "a read error is returned as it stands";
}

TEST(ExFatBootRegion, BitmapAboveFourGigabytesIsRefusedWithTheBlockCount) {
  // The largest cluster count with 32 MiB clusters and a heap on an odd
  // sector: blocks fall to 512 bytes and the bitmap would need 2^45 bytes.
  Volume v;
  v.clusterCount = 16;  // build small, then claim a huge geometry
  v.Build();
  const uint32_t clusters = 0xFFFFFFF5, fatLength = (uint64_t(clusters) + 2) * 4 / 512 + 1;
  const uint32_t heap = 24 + fatLength + 1;
  for (uint32_t region : {0u, 12u}) {
    size_t base = region * 512;
    Put64(v.img, base + 72, uint64_t(heap) + (uint64_t(clusters) << 16));
    Put32(v.img, base + 84, fatLength);
    Put32(v.img, base + 88, heap);
    Put32(v.img, base + 92, clusters);
    v.img[base + 109] = 16;
    v.Reseal(region);
  }
  MemDevice dev(v.img);
  RecordingMessage msg;
  ScanResult r = Scan(&dev, &msg);
  EXPECT_EQ(r.status, api::ERR_NOT_SUPPORTED);
  EXPECT_TRUE(r.bitmapNull);
  uint64_t blocks = ((uint64_t(clusters) << 25) + (uint64_t(heap) << 9)) >> 9;
  char want[96];
  std::snprintf(want, sizeof want, "exFat volume is too big for mdsnap (%" PRIx64 " blocks).", blocks);
  EXPECT_TRUE(msg.Has(1, want)) << (msg.lines.empty() ? "(no lines)" : msg.lines.back());
  EXPECT_EQ(Scan(&dev).status, api::ERR_NOT_SUPPORTED);
}

// ---------------------------------------------------------------- hostile directories

TEST(ExFatHostile, DirectoryCyclesAndCrossLinksTerminateAndAreCounted) {
  TreeVolume v;
  v.Populate();
  v.AddSet(20, "back to root", true, v.rootCluster, v.ClusterSize(), false, false);
  v.AddSet(20, "back to docs", true, 10, 2 * v.ClusterSize(), false, false);
  v.AddSet(v.rootCluster, "into the bitmap", true, v.bitmapCluster, v.ClusterSize(), false, false);
  MemDevice dev(v.img);
  ScanResult r = Scan(&dev);
  ASSERT_EQ(r.status, api::QORV_OK);
  EXPECT_EQ(r.problems, 3u);
  EXPECT_EQ(Marked(r), Expected(v, 12, v.dirs));
}

TEST(ExFatHostile, LoopingAndBrokenChainsTerminateAndAreCounted) {
  TreeVolume v;
  v.Populate();
  v.AddSet(v.rootCluster, "loop", true, 80, 1000 * uint64_t(v.ClusterSize()), false, false);
  v.Link(80, 81);
  v.Link(81, 80);
  v.AddSet(v.rootCluster, "short", true, 90, 4 * v.ClusterSize(), false, false);
  v.Link(90, 91);
  v.Link(91, 0);  // free
  v.AddSet(v.rootCluster, "bad", true, 95, 2 * v.ClusterSize(), false, false);
  v.Link(95, 0xFFFFFFF7);
  MemDevice dev(v.img);
  ScanResult r = Scan(&dev);
  ASSERT_EQ(r.status, api::QORV_OK);
  EXPECT_EQ(r.problems, 3u);
  // What the chains reached is kept; their entries are not walked.
  std::set<uint32_t> dirs = v.dirs;
  dirs.insert({80, 81, 90, 91, 95});
  EXPECT_EQ(Marked(r), Expected(v, 12, dirs));
}

TEST(ExFatHostile, OutOfRangeAndOversizedDirectoriesAreCountedAndSkipped) {
  TreeVolume v;
  v.Populate();
  v.AddSet(v.rootCluster, "cluster 1", true, 1, v.ClusterSize(), true, false);
  v.AddSet(v.rootCluster, "past the heap", true, v.clusterCount + 2, v.ClusterSize(), true, false);
  v.AddSet(v.rootCluster, "runs off the end", true, v.clusterCount, 4 * v.ClusterSize(), true, false);
  v.AddSet(v.rootCluster, "too large", true, 100, 0x10000000ull + 4096, true, false);
  v.AddSet(v.rootCluster, "size 2^40", true, 100, 1ull << 40, false, false);
  MemDevice dev(v.img);
  ScanResult r = Scan(&dev);
  ASSERT_EQ(r.status, api::QORV_OK);
  EXPECT_GE(r.problems, 5u);
  // The part of the runaway directory inside the heap is still kept.
  std::set<uint32_t> dirs = v.dirs;
  dirs.insert({v.clusterCount, v.clusterCount + 1});
  EXPECT_EQ(Marked(r), Expected(v, 12, dirs));
}

TEST(ExFatHostile, AbsurdUpcaseLengthIsCountedAndClampedToTheHeap) {
  // Lengths near 2^64 must not wrap to nothing; each one claims more
  // clusters than the heap holds, which is one problem.
  for (uint64_t length : {~uint64_t(0), ~uint64_t(0) - 4094, uint64_t(1) << 40}) {
    Volume v;
    v.Build();
    Put64(v.img, v.DirOffset(v.rootCluster, 32 + 32 * v.fats) + 24, length);
    MemDevice dev(v.img);
    ScanResult r = Scan(&dev);
    ASSERT_EQ(r.status, api::QORV_OK);
    EXPECT_EQ(r.problems, 1u) << length;
    std::set<uint32_t> clusters = {v.rootCluster};
    for (uint32_t c = v.upcaseCluster; c < v.clusterCount + 2; ++c) clusters.insert(c);
    EXPECT_EQ(Marked(r), Expected(v, 12, clusters)) << length;
  }
}

TEST(ExFatHostile, MalformedEntrySetsAreCountedAndWalkedPast) {
  TreeVolume v;
  v.Populate();
  uint64_t at = v.AddSet(v.rootCluster, "no stream", true, 100, v.ClusterSize());
  v.img[v.DirOffset(v.rootCluster, at) + 32] = 0xC1;
  at = v.AddSet(v.rootCluster, "a name far too long for its entries", true, 101, v.ClusterSize());
  v.img[v.DirOffset(v.rootCluster, at) + 1] = 2;  // file + stream + one name entry for 35 characters
  v.AddSet(v.rootCluster, "after", true, 102, v.ClusterSize());  // still found behind them
  v.Raw(v.rootCluster, {0x85, 0});                                   // no secondaries: stepped over
  v.Raw(v.rootCluster, {0x05});                                      // deleted entry
  v.Raw(v.rootCluster, {0xA1});                                      // padding
  MemDevice dev(v.img);
  ScanResult r = Scan(&dev);
  ASSERT_EQ(r.status, api::QORV_OK);
  // Both bad sets are counted; the cut-short one leaves two name entries
  // behind it, which are stepped over, and the set after them is walked.
  EXPECT_EQ(r.problems, 2u);
  std::set<uint32_t> dirs = v.dirs;
  dirs.insert(102);
  EXPECT_EQ(Marked(r), Expected(v, 12, dirs));
}

TEST(ExFatHostile, SetRunningPastTheDirectoryEndIsCounted) {
  TreeVolume v;
  v.Populate();
  uint64_t at = v.AddSet(10, "x", true, 100, v.ClusterSize(), false, false);
  v.img[v.DirOffset(10, at) + 1] = 255;
  MemDevice dev(v.img);
  ScanResult r = Scan(&dev);
  ASSERT_EQ(r.status, api::QORV_OK);
  EXPECT_EQ(r.problems, 1u);
  EXPECT_FALSE(r.Test(v.ClusterOffset(100) >> 12));
}

TEST(ExFatHostile, EntrySetsInTheLastTwoEntriesAreNotVisited) {
  TreeVolume v;
  v.Populate();
  // A directory of one cluster (128 entries) filled with unused entries up
  // to a two-entry set (empty name) in its last 64 bytes.
  v.AddSet(v.rootCluster, "edge", true, 110, v.ClusterSize());
  for (int i = 0; i < 126; ++i) v.Raw(110, {0x40});
  v.AddSet(110, "", true, 111, v.ClusterSize());
  ASSERT_EQ(v.End(110), v.ClusterSize());
  MemDevice dev(v.img);
  ScanResult r = Scan(&dev);
  ASSERT_EQ(r.status, api::QORV_OK);
  EXPECT_TRUE(r.Test(v.ClusterOffset(110) >> 12));
  EXPECT_FALSE(r.Test(v.ClusterOffset(111) >> 12));
}

TEST(ExFatHostile, DeepNestingNeedsNoDeepRecursion) {
  Volume v;
  v.clusterCount = 5000;
  v.Build();
  uint32_t parent = v.rootCluster;
  std::set<uint32_t> dirs;
  for (uint32_t c = 10; c < 4010; ++c) {
    v.AddSet(parent, "d", true, c, v.ClusterSize());
    dirs.insert(c);
    parent = c;
  }
  MemDevice dev(v.img);
  ScanResult r = Scan(&dev);
  ASSERT_EQ(r.status, api::QORV_OK);
  EXPECT_EQ(r.problems, 0u);
  EXPECT_EQ(Marked(r), Expected(v, 12, dirs));
}

TEST(ExFatHostile, RootChainTooLongOrBrokenStopsTheScan) {
  {
    TreeVolume v;
    v.Populate();
    v.Link(v.rootCluster, v.rootCluster);  // the root loops onto itself
    MemDevice dev(v.img);
    ScanResult r = Scan(&dev);
    EXPECT_EQ(r.status, api::ERR_INCONSISTENT);
    EXPECT_TRUE(r.bitmapNull);
  }
  {
    Volume v;
    v.spcShift = 0;  // 512-byte clusters: 0x10000000 bytes is 2^19 clusters
    v.clusterCount = (1u << 19) + 10;
    v.heapOffset = 24 + v.FatLength();
    v.storedClusters = 16;  // the scan stops before reading the root's entries
    v.Build();
    v.Chain(v.rootCluster, (1u << 19) + 1);
    MemDevice dev(v.img);
    EXPECT_EQ(Scan(&dev).status, api::ERR_INCONSISTENT);
  }
}

TEST(ExFatHostile, DeletedDirectoriesKeepTheirRunWhileTheBitmapCallsItFree) {
  TreeVolume v;
  v.Populate();
  const uint32_t cs = v.ClusterSize();
  // A deleted directory of two clusters; inside it a live-looking and a
  // deleted sub-directory, and one whose cluster is in use again.
  uint64_t gone = v.AddSet(v.rootCluster, "gone", true, 120, 2 * cs, true);
  v.AddSet(120, "live-looking", true, 130, cs, true);
  v.Delete(120, v.AddSet(120, "reused", true, 140, cs, true));
  v.Allocate(140);
  v.AddSet(140, "below the reused one", true, 145, cs, true);
  v.Delete(130, v.AddSet(130, "deeper", true, 150, cs, true));
  v.Delete(v.rootCluster, gone);
  // Half in use: not followed at all. A deleted entry naming a live
  // directory's clusters is not followed again, nor counted.
  v.Delete(v.rootCluster, v.AddSet(v.rootCluster, "half", true, 160, 2 * cs, true));
  v.Allocate(161);
  v.Delete(v.rootCluster, v.AddSet(v.rootCluster, "old docs", true, 10, 2 * cs, true, false));
  // Damage inside a deleted directory is left-over data, not counted.
  uint64_t bad = v.AddSet(150, "bad", true, 170, cs);
  v.img[v.DirOffset(150, bad) + 32] = 0xC1;
  MemDevice dev(v.img);
  ScanResult r = Scan(&dev);
  ASSERT_EQ(r.status, api::QORV_OK);
  EXPECT_EQ(r.problems, 0u);
  std::set<uint32_t> dirs = v.dirs;
  dirs.insert({120, 121, 130, 150});
  EXPECT_EQ(Marked(r), Expected(v, 12, dirs));
}

// A device that vanishes after a number of reads.
class VanishingDevice : public MemDevice {
 public:
  VanishingDevice(std::vector<uint8_t> bytes, int readsLeft) : MemDevice(std::move(bytes)), left_(readsLeft) {}
  api::status_t ReadBytes(uint64_t off, void* buf, uint32_t n, uint32_t flags) override {
    if (left_-- <= 0) return api::ERR_DEVICE_GONE;
    return MemDevice::ReadBytes(off, buf, n, flags);
  }

 private:
  int left_;
};

TEST(ExFatHostile, VanishedDeviceAndStopRequestEndTheScan) {
  TreeVolume v;
  v.Populate();
  MemDevice counter(v.img);
  ASSERT_EQ(Scan(&counter).status, api::QORV_OK);
  // Every cut-off point after the boot regions: either the device's status
  // comes back or the scan was already past its last read.
  for (int reads = 3; reads < int(counter.reads); ++reads) {
    VanishingDevice dev(v.img, reads);
    ScanResult r = Scan(&dev);
    EXPECT_EQ(r.status, api::ERR_DEVICE_GONE) << "after " << reads << " reads";
    EXPECT_TRUE(r.bitmapNull);
  }
  MemDevice dev(v.img);
  RecordingMessage msg;
  msg.stop = 1;
  ScanResult r = Scan(&dev, &msg);
  EXPECT_EQ(r.status, api::ERR_TOO_BIG);
  EXPECT_TRUE(r.bitmapNull);
}

// ---------------------------------------------------------------- real volumes

bool Sh(const std::string& cmd) { return std::system(("(" + cmd + ") >/dev/null 2>&1").c_str()) == 0; }

std::vector<uint8_t> ReadFile(const std::string& path) {
  std::vector<uint8_t> out;
  FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) return out;
  uint8_t buf[65536];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) out.insert(out.end(), buf, buf + n);
  std::fclose(f);
  return out;
}

// Reads the volume's own allocation bitmap: the clusters in use.
std::set<uint32_t> Allocated(const std::vector<uint8_t>& img, uint32_t* heapBlockShift, uint64_t* heapBytes) {
  auto u32 = [&](size_t at) { return uint32_t(img[at] | img[at + 1] << 8 | img[at + 2] << 16 | uint32_t(img[at + 3]) << 24); };
  uint32_t ss = img[108], cs = ss + img[109], count = u32(92), root = u32(96);
  *heapBytes = uint64_t(u32(88)) << ss;
  *heapBlockShift = cs;
  auto offset = [&](uint32_t c) { return *heapBytes + (uint64_t(c - 2) << cs); };
  std::set<uint32_t> used;
  for (size_t at = offset(root); at < offset(root) + (1u << cs); at += 32) {
    if (img[at] != 0x81) continue;
    for (uint32_t c = 0; c < count; ++c)
      if (img[offset(u32(at + 20)) + c / 8] >> (c % 8) & 1) used.insert(c + 2);
    break;
  }
  return used;
}

TEST(ExFatRealVolumes, FreshMkfsVolumesKeepExactlyTheAllocatedClusters) {
  if (!Sh("command -v mkfs.exfat")) GTEST_SKIP() << "mkfs.exfat not installed (exfatprogs)";
  char tmpl[] = "/tmp/exfat_scanner_XXXXXX";
  std::string dir = mkdtemp(tmpl);
  struct Layout {
    const char* args;
    int mib;
  } layouts[] = {{"-c 512", 8}, {"-c 4K", 32}, {"-c 64K", 64}, {"-c 32K -b 4K", 48}, {"-c 8K -b 512", 16}};
  for (const Layout& l : layouts) {
    std::string img = dir + "/v.img";
    ASSERT_TRUE(Sh("truncate -s " + std::to_string(l.mib) + "M " + img + " && mkfs.exfat " + l.args + " " + img))
        << l.args;
    std::vector<uint8_t> bytes = ReadFile(img);
    uint32_t cs;
    uint64_t heap;
    std::set<uint32_t> used = Allocated(bytes, &cs, &heap);
    ASSERT_FALSE(used.empty()) << l.args;
    testsupport::FileDevice dev(img);
    ScanResult r = Scan(&dev);
    ASSERT_EQ(r.status, api::QORV_OK) << l.args;
    EXPECT_LE(r.k, cs);
    std::set<uint64_t> want;
    for (uint64_t b = 0; b < heap >> r.k; ++b) want.insert(b);
    for (uint32_t c : used)
      for (uint64_t b = 0; b < (uint64_t(1) << (cs - r.k)); ++b)
        want.insert(((heap + (uint64_t(c - 2) << cs)) >> r.k) + b);
    EXPECT_EQ(Marked(r), want) << l.args;
    EXPECT_EQ(r.problems, 0u) << l.args;
  }
  Sh("rm -rf " + dir);
}

TEST(ExFatRealVolumes, PopulatedVolumeKeepsAllocatedClustersOnlyAndNoFileContents) {
  const std::string packed = std::string(MDSNAP_SOURCE_DIR) + "/tests/data/exfat_small_4k.img.zst";
  if (!Sh("command -v zstd") || !Sh("test -f " + packed)) GTEST_SKIP() << "zstd or " << packed << " missing";
  char tmpl[] = "/tmp/exfat_scanner_XXXXXX";
  std::string dir = mkdtemp(tmpl);
  std::string img = dir + "/v.img";
  ASSERT_TRUE(Sh("zstd -dqf " + packed + " -o " + img));
  std::vector<uint8_t> bytes = ReadFile(img);
  uint32_t cs;
  uint64_t heap;
  std::set<uint32_t> used = Allocated(bytes, &cs, &heap);
  testsupport::FileDevice dev(img);
  ScanResult r = Scan(&dev);
  ASSERT_EQ(r.status, api::QORV_OK);
  ASSERT_EQ(r.k, cs);
  // Free clusters kept are exactly those of the root's deleted directories
  // (the recipe deleted one with all its files).
  std::set<uint32_t> deletedRuns;
  auto u32 = [&](size_t at) { return uint32_t(bytes[at] | bytes[at + 1] << 8 | bytes[at + 2] << 16 | uint32_t(bytes[at + 3]) << 24); };
  size_t root = heap + (uint64_t(u32(96) - 2) << cs);
  for (size_t at = root; at + 64 <= root + (1u << cs); at += 32)
    if (bytes[at] == 0x05 && (bytes[at + 4] & 0x10) && bytes[at + 32] == 0x40)
      for (uint64_t n = 0; n < (u32(at + 32 + 24) + (1u << cs) - 1) >> cs; ++n) deletedRuns.insert(u32(at + 32 + 20) + n);
  ASSERT_FALSE(deletedRuns.empty());
  uint64_t keptHeapClusters = 0;
  for (uint64_t b = heap >> cs; b < r.n; ++b) {
    uint32_t c = uint32_t(b - (heap >> cs) + 2);
    if (deletedRuns.count(c) && !used.count(c)) {
      EXPECT_TRUE(r.Test(b)) << "deleted directory cluster " << c << " not kept";
      continue;
    }
    if (!r.Test(b)) continue;
    ++keptHeapClusters;
    EXPECT_TRUE(used.count(c)) << "kept a free cluster " << b;
  }
  // The volume holds files with contents, so far fewer clusters are kept than are in use.
  EXPECT_GT(keptHeapClusters, 3u);
  EXPECT_LT(keptHeapClusters * 4, used.size());
  Sh("rm -rf " + dir);
}

}  // namespace
