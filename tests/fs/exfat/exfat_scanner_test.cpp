// exFAT/TexFAT scanner. Which clusters real volumes keep is judged by the round trips; boot-region rules are
// proved on damaged copies of a real volume here. What no mkfs makes (hostile entry sets, TexFAT, 4 KiB sectors,
// deleted directories placed exactly) is built byte by byte in memory.
#include <gtest/gtest.h>

#include <array>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "core/api/scanner.h"
#include "fs/scanners.h"
#include "tests/support/cli.h"
#include "tests/support/file_device.h"
#include "tests/support/interrupt.h"
#include "tests/support/recording_message.h"
#include "tests/support/scan_result.h"
#include "tests/support/volume_bytes.h"

namespace {

using testsupport::MemDevice;
using testsupport::RecordingMessage;
using testsupport::ScanResult;
using Bytes = std::vector<uint8_t>;

ScanResult Scan(api::IDeviceRWBlock* dev, api::IMessage* msg = nullptr, uint32_t flags = 0) {
  return testsupport::RunScanner(QORV::ScanExFat, dev, msg, flags);
}

const auto Put = testsupport::PutLe;
uint32_t Get32(const Bytes& b, size_t at) { return uint32_t(testsupport::Le(b, at, 4)); }

// Writes the checksum sector of the boot region starting at `firstSector`,
// skipping the volume-state fields as the format says.
void Reseal(Bytes& img, uint32_t firstSector, size_t ss = 512) {
  uint32_t sum = 0;
  const uint8_t* region = &img[firstSector * ss];
  for (size_t i = 0; i < ss * 11; ++i)
    if (i != 106 && i != 107 && i != 112) sum = (sum >> 1 | sum << 31) + region[i];
  for (size_t at = 0; at < ss; at += 4) Put(img, (firstSector + 11) * ss + at, sum, 4);
}

// A small exFAT volume in memory: boot regions, FAT, allocation bitmap,
// up-case table and root, then directories and files placed by cluster.
class Volume {
 public:
  uint32_t sectorShift = 9, spcShift = 3;  // 4 KiB clusters
  uint32_t fatOffset = 24, heapOffset = 64, clusterCount = 256, fats = 1;
  uint16_t volumeFlags = 0;
  uint32_t bitmapCluster = 2, upcaseCluster = 3, upcaseBytes = 5836, rootCluster = 5;
  uint32_t secondBitmapCluster = 8;  // two-FAT volumes only
  Bytes img;

  uint32_t SectorSize() const { return 1u << sectorShift; }
  uint32_t ClusterSize() const { return 1u << (sectorShift + spcShift); }
  uint32_t FatLength() const { return ((clusterCount + 2) * 4 + SectorSize() - 1) / SectorSize(); }
  uint64_t HeapBytes() const { return uint64_t(heapOffset) << sectorShift; }
  uint64_t ClusterOffset(uint32_t c) const { return HeapBytes() + (uint64_t(c - 2) << (sectorShift + spcShift)); }

  void Build() {
    img.assign(HeapBytes() + (uint64_t(clusterCount) << (sectorShift + spcShift)), 0);
    for (uint32_t region : {0u, 12u}) WriteBootRegion(region);
    for (uint32_t f = 0; f < fats; ++f) Put(img, FatAt(f, 0), 0xFFFFFFFFFFFFFFF8ull, 8);
    Chain(bitmapCluster, 1);
    Chain(upcaseCluster, (upcaseBytes + ClusterSize() - 1) / ClusterSize());
    Chain(rootCluster, 1);
    if (fats == 2) Chain(secondBitmapCluster, 1);
    dirEnd_[rootCluster] = 0;
    Raw(rootCluster, {0x83, 0});  // an empty volume label
    for (uint32_t f = 0; f < fats; ++f) {
      Bytes e(32, 0);
      e[0] = 0x81;
      e[1] = uint8_t(f);
      Put(e, 20, f ? secondBitmapCluster : bitmapCluster, 4);
      Put(e, 24, (clusterCount + 7) / 8, 8);
      Append(rootCluster, e);
    }
    Bytes up(32, 0);
    up[0] = 0x82;
    Put(up, 20, upcaseCluster, 4);
    Put(up, 24, upcaseBytes, 8);
    Append(rootCluster, up);
  }

  size_t FatAt(uint32_t fat, uint32_t c) const {
    return (size_t(fatOffset) + size_t(fat) * FatLength()) * SectorSize() + size_t(c) * 4;
  }
  void Link(uint32_t c, uint32_t next) {
    for (uint32_t f = 0; f < fats; ++f) Put(img, FatAt(f, c), next, 4);
  }
  void Chain(uint32_t first, uint32_t n) {
    for (uint32_t i = 0; i < n; ++i) Link(first + i, i + 1 == n ? 0xFFFFFFFF : first + i + 1);
  }

  // Adds an entry set to directory `dir` (by its first cluster) and returns
  // the byte position of its file entry. With `allocate` the stream's
  // clusters are chained (unless noFatChain) and a directory can be written
  // to; hostile entries pass false.
  uint64_t AddSet(uint32_t dir, const std::string& name, bool isDir, uint32_t first, uint64_t length,
                  bool noFatChain = false, bool allocate = true) {
    uint32_t nameEntries = uint32_t((name.size() + 14) / 15);
    Bytes set(32 * (2 + nameEntries), 0);
    set[0] = 0x85;
    set[1] = uint8_t(1 + nameEntries);
    Put(set, 4, isDir ? 0x10 : 0x20, 2);
    set[32] = 0xC0;
    set[33] = uint8_t(0x1 | (noFatChain ? 0x2 : 0));
    set[35] = uint8_t(name.size());
    Put(set, 40, length, 8);
    Put(set, 52, first, 4);
    Put(set, 56, length, 8);
    for (size_t i = 0; i < name.size(); ++i) {
      size_t entry = 2 + i / 15;
      set[entry * 32] = 0xC1;
      Put(set, entry * 32 + 2 + (i % 15) * 2, uint8_t(name[i]), 2);
    }
    uint64_t at = dirEnd_[dir];
    Append(dir, set);
    if (!allocate) return at;
    if (isDir) dirEnd_[first] = 0;
    if (!noFatChain && length) Chain(first, uint32_t((length + ClusterSize() - 1) / ClusterSize()));
    return at;
  }
  // Appends one raw entry; a directory's clusters are kept contiguous.
  void Raw(uint32_t dir, Bytes entry) {
    entry.resize(32, 0);
    Append(dir, entry);
  }
  uint64_t DirOffset(uint32_t dir, uint64_t pos) const { return ClusterOffset(dir) + pos; }
  // Turns the set at `pos` of `dir` into a deleted one (in-use bits cleared).
  void Delete(uint32_t dir, uint64_t pos) {
    size_t at = DirOffset(dir, pos);
    for (uint32_t i = 0; i <= img[at + 1]; ++i) img[at + 32 * i] &= 0x7F;
  }
  void Allocate(uint32_t c) { img[ClusterOffset(bitmapCluster) + (c - 2) / 8] |= uint8_t(1u << ((c - 2) % 8)); }

  // What every scan must keep at block shift k: all in front of the heap,
  // the bitmap(s), the up-case table, the root and the given clusters.
  std::set<uint64_t> Expected(uint32_t k, const std::set<uint32_t>& dirClusters) const {
    std::set<uint64_t> want;
    for (uint64_t b = 0; b < HeapBytes() >> k; ++b) want.insert(b);
    std::set<uint32_t> clusters = dirClusters;
    clusters.insert({bitmapCluster, rootCluster});
    if (fats == 2) clusters.insert(secondBitmapCluster);
    for (uint32_t c = 0; c < (upcaseBytes + ClusterSize() - 1) / ClusterSize(); ++c) clusters.insert(upcaseCluster + c);
    for (uint32_t c : clusters)
      for (uint64_t b = ClusterOffset(c) >> k; b < (ClusterOffset(c) + ClusterSize()) >> k; ++b) want.insert(b);
    return want;
  }

 private:
  void WriteBootRegion(uint32_t firstSector) {
    size_t ss = SectorSize(), base = firstSector * ss;
    std::memcpy(&img[base], "\xEB\x76\x90" "EXFAT   ", 11);
    Put(img, base + 72, heapOffset + (uint64_t(clusterCount) << spcShift), 8);
    Put(img, base + 80, fatOffset, 4);
    Put(img, base + 84, FatLength(), 4);
    Put(img, base + 88, heapOffset, 4);
    Put(img, base + 92, clusterCount, 4);
    Put(img, base + 96, rootCluster, 4);
    Put(img, base + 104, 0x0100, 2);
    Put(img, base + 106, volumeFlags, 2);
    img[base + 108] = uint8_t(sectorShift);
    img[base + 109] = uint8_t(spcShift);
    img[base + 110] = uint8_t(fats);
    Put(img, base + 510, 0xAA55, 2);
    for (uint32_t s = 1; s <= 8; ++s) Put(img, base + s * ss + ss - 4, 0xAA550000, 4);
    Reseal(img, firstSector, ss);
  }
  void Append(uint32_t dir, const Bytes& bytes) {
    std::memcpy(&img[ClusterOffset(dir) + dirEnd_[dir]], bytes.data(), bytes.size());
    dirEnd_[dir] += bytes.size();
  }
  std::map<uint32_t, uint64_t> dirEnd_;
};

// A nested directory, a fragmented one, a contiguous (no FAT chain) one, and
// files whose clusters must not be kept.
struct TreeVolume : Volume {
  std::set<uint32_t> dirs;
  void Populate() {
    Build();
    AddSet(rootCluster, "docs", true, 10, 2 * ClusterSize());
    AddSet(10, "nested directory with a long name", true, 20, ClusterSize());
    AddSet(20, "leaf.txt", false, 40, 3 * ClusterSize() + 1);
    AddSet(rootCluster, "flat", true, 30, 3 * ClusterSize(), true);
    AddSet(30, "big.bin", false, 50, 8 * ClusterSize(), true);
    AddSet(rootCluster, "frag", true, 60, 3 * ClusterSize());  // 60 -> 70 -> 61
    Link(60, 70);
    Link(70, 61);
    Link(61, 0xFFFFFFFF);
    dirs = {10, 11, 20, 30, 31, 32, 60, 61, 70};
  }
};

// Clean trees of every geometry are kept exactly: the block size follows the
// heap's alignment (no message when it shrinks); TexFAT keeps both bitmaps
// and follows only the active (second) FAT's chains, the first one's
// spoilt. Hostile trees are counted and walked past, or stop the scan; the
// problems are said only under --verbose.
TEST(ExFatScanner, CleanTreesOfEveryGeometryAndHostileOnes) {
  struct Geometry {
    uint32_t sectorShift, spcShift, heapOffset, k, fats;
  };
  struct Case {
    const char* what;
    std::function<void(TreeVolume&)> damage;
    api::status_t status;
    uint32_t problems;
    std::set<uint32_t> alsoKept;
    Geometry g = {9, 3, 64, 12, 1};
  };
  const auto none = [](TreeVolume&) {};
  const uint32_t cs = 4096, end = 256;  // the tree volume's cluster size and count
  auto upcase = [](uint64_t length) {
    return [length](TreeVolume& v) { Put(v.img, v.DirOffset(v.rootCluster, 64) + 24, length, 8); };
  };
  std::set<uint32_t> toTheEnd;
  for (uint32_t c = 3; c < end + 2; ++c) toTheEnd.insert(c);
  const std::vector<Case> cases = {
      {"cycles and cross-links",
       [](TreeVolume& v) {
         v.AddSet(20, "back to root", true, v.rootCluster, cs, false, false);
         v.AddSet(20, "back to docs", true, 10, 2 * cs, false, false);
         v.AddSet(v.rootCluster, "into the bitmap", true, v.bitmapCluster, cs, false, false);
       },
       api::QORV_OK, 3, {}},
      // What the chains reached is kept; their entries are not walked.
      {"looping, free and bad links",
       [](TreeVolume& v) {
         v.AddSet(v.rootCluster, "loop", true, 80, 1000ull * cs, false, false);
         v.Link(80, 81);
         v.Link(81, 80);
         v.AddSet(v.rootCluster, "short", true, 90, 4 * cs, false, false);
         v.Link(90, 91);
         v.Link(91, 0);
         v.AddSet(v.rootCluster, "bad", true, 95, 2 * cs, false, false);
         v.Link(95, 0xFFFFFFF7);
       },
       api::QORV_OK, 3, {80, 81, 90, 91, 95}},
      // The part of the runaway directory inside the heap is still kept.
      {"outside the heap or too large",
       [](TreeVolume& v) {
         v.AddSet(v.rootCluster, "cluster 1", true, 1, cs, true, false);
         v.AddSet(v.rootCluster, "past the heap", true, end + 2, cs, true, false);
         v.AddSet(v.rootCluster, "runs off the end", true, end, 4 * cs, true, false);
         v.AddSet(v.rootCluster, "one cluster too large", true, 100, 0x10000000ull + cs, true, false);
         v.AddSet(v.rootCluster, "size 2^40", true, 100, 1ull << 40, false, false);
       },
       api::QORV_OK, 8, {end, end + 1}},
      // Both bad sets are counted; the cut-short one leaves two name entries
      // behind, which are stepped over, and the set after them is walked.
      {"malformed entry sets",
       [](TreeVolume& v) {
         uint64_t at = v.AddSet(v.rootCluster, "no stream", true, 100, cs);
         v.img[v.DirOffset(v.rootCluster, at) + 32] = 0xC1;
         at = v.AddSet(v.rootCluster, "a name far too long for its entries", true, 101, cs);
         v.img[v.DirOffset(v.rootCluster, at) + 1] = 2;
         v.AddSet(v.rootCluster, "after", true, 102, cs);
         v.Raw(v.rootCluster, {0x85, 0});  // no secondaries
         v.Raw(v.rootCluster, {0x05});     // deleted entry
         v.Raw(v.rootCluster, {0xA1});     // padding
       },
       api::QORV_OK, 2, {102}},
      {"set running past the directory end",
       [](TreeVolume& v) { v.img[v.DirOffset(10, v.AddSet(10, "x", true, 100, cs, false, false)) + 1] = 255; },
       api::QORV_OK, 1, {}},
      // A set in the last two entries of a directory cannot be complete.
      {"set in the last two entries",
       [](TreeVolume& v) {
         v.AddSet(v.rootCluster, "edge", true, 110, cs);
         for (int i = 0; i < 126; ++i) v.Raw(110, {0x40});
         v.AddSet(110, "", true, 111, cs);
       },
       api::QORV_OK, 0, {110}},
      // Up-case lengths near 2^64 must not wrap to nothing; each claims more
      // clusters than the heap holds (one problem, clamped to the heap), and
      // "docs" and "flat" now lie inside it (two cross-links).
      {"up-case length 2^64-1", upcase(~uint64_t(0)), api::QORV_OK, 3, toTheEnd},
      {"up-case length 2^64-4095", upcase(~uint64_t(0) - 4094), api::QORV_OK, 3, toTheEnd},
      {"up-case length 2^40", upcase(uint64_t(1) << 40), api::QORV_OK, 3, toTheEnd},
      // A deleted directory keeps its run while the bitmap calls all of it
      // free: inside it a live-looking and a deleted sub-directory are
      // followed, one whose cluster is in use again is not. Half in use: not
      // followed at all; one naming a live directory's clusters is neither
      // followed again nor counted, and damage inside a deleted directory is
      // left-over data, not counted.
      {"deleted directories",
       [](TreeVolume& v) {
         uint64_t gone = v.AddSet(v.rootCluster, "gone", true, 120, 2 * cs, true);
         v.AddSet(120, "live-looking", true, 130, cs, true);
         v.Delete(120, v.AddSet(120, "reused", true, 140, cs, true));
         v.Allocate(140);
         v.AddSet(140, "below the reused one", true, 145, cs, true);
         v.Delete(130, v.AddSet(130, "deeper", true, 150, cs, true));
         v.Delete(v.rootCluster, gone);
         v.Delete(v.rootCluster, v.AddSet(v.rootCluster, "half", true, 160, 2 * cs, true));
         v.Allocate(161);
         v.Delete(v.rootCluster, v.AddSet(v.rootCluster, "old docs", true, 10, 2 * cs, true, false));
         v.img[v.DirOffset(150, v.AddSet(150, "bad", true, 170, cs)) + 32] = 0xC1;
       },
       api::QORV_OK, 0, {120, 121, 130, 150}},
      {"root chain loops", [](TreeVolume& v) { v.Link(v.rootCluster, v.rootCluster); }, api::ERR_INCONSISTENT, 0, {}},
      {"clean", none, api::QORV_OK, 0, {}},
      {"4 KiB sectors", none, api::QORV_OK, 0, {}, {12, 1, 26, 13, 1}},
      {"heap at sector 65", none, api::QORV_OK, 0, {}, {9, 3, 65, 9, 1}},
      {"heap at sector 66", none, api::QORV_OK, 0, {}, {9, 3, 66, 10, 1}},
      {"heap at sector 68", none, api::QORV_OK, 0, {}, {9, 3, 68, 11, 1}},
      {"TexFAT",
       [](TreeVolume& v) {
         for (uint32_t c = 2; c < v.clusterCount + 2; ++c) Put(v.img, v.FatAt(0, c), 0, 4);
       },
       api::QORV_OK, 0, {}, {9, 3, 64, 12, 2}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const Geometry& g = c.g;
    TreeVolume v;
    v.sectorShift = g.sectorShift;
    v.spcShift = g.spcShift;
    v.heapOffset = g.heapOffset;
    v.fats = g.fats;
    v.volumeFlags = g.fats == 2;
    v.Populate();
    c.damage(v);
    MemDevice dev(v.img, v.SectorSize());
    RecordingMessage msg;
    ScanResult r = Scan(&dev, &msg);
    ASSERT_EQ(r.status, c.status);
    if (c.status != api::QORV_OK) {
      EXPECT_TRUE(r.bitmapNull);
      continue;
    }
    EXPECT_EQ(r.k, g.k);
    EXPECT_EQ(r.n, (v.HeapBytes() + (uint64_t(v.clusterCount) << (g.sectorShift + g.spcShift))) >> g.k);
    EXPECT_EQ(r.problems, c.problems);
    std::set<uint32_t> dirs = v.dirs;
    dirs.insert(c.alsoKept.begin(), c.alsoKept.end());
    EXPECT_EQ(r.Marked(), v.Expected(g.k, dirs));  // exactly: no file cluster
    EXPECT_EQ(msg.lines, std::vector<std::string>{"0:Scanning exFAT..."});
  }
}

// ---------------------------------------------------------------- real volumes

// Boot-region rules on damaged copies of a real volume: a bad main region
// is mounted from the backup, a bad backup is refused, implausible fields are
// not exFAT, and a heap too large for a 4 GiB bitmap is refused by name.
TEST(ExFatRealVolumes, BootRegionRules) {
  const Bytes& clean = testsupport::DataVolume("exfat_small_4k");
  if (clean.empty()) GTEST_SKIP() << "pre-built volume missing or zstd not installed";
  MemDevice cleanDev(clean);
  const std::set<uint64_t> cleanMarks = Scan(&cleanDev).Marked();
  const uint32_t fatOffset = Get32(clean, 80), heap = Get32(clean, 88), clusters = Get32(clean, 92);

  using Damage = std::function<void(Bytes&)>;
  auto flip = [](std::vector<uint32_t> sectors) {
    return Damage([sectors](Bytes& b) {
      for (uint32_t s : sectors) b[s * 512 + 17] ^= 0x5A;
    });
  };
  // Sets fields (offset, value, width) in both regions and reseals them.
  auto fields = [](std::vector<std::array<uint64_t, 3>> set) {
    return Damage([=](Bytes& b) {
      for (uint32_t region : {0u, 12u}) {
        for (auto& f : set) Put(b, region * 512 + f[0], f[1], int(f[2]));
        Reseal(b, region);
      }
    });
  };
  auto marks = [](bool reseal, char tail) {
    return Damage([=](Bytes& b) {
      std::memcpy(&b[0], "RRaAXFAT", 8);
      std::memcpy(&b[484], "rrAa", 4);
      b[484] = uint8_t(tail);
      if (reseal) Reseal(b, 0);
    });
  };
  // 32 MiB clusters on a heap at an odd sector: 512-byte blocks, 2^45 bytes of bitmap.
  const uint64_t hugeClusters = 0xFFFFFFF5, hugeFat = (hugeClusters + 2) * 4 / 512 + 1, hugeHeap = fatOffset + hugeFat + 1;
  char tooBig[96];
  std::snprintf(tooBig, sizeof tooBig, "1:exFat volume is too big for mdsnap (%" PRIx64 " blocks).",
                ((hugeClusters << 25) + (hugeHeap << 9)) >> 9);
  struct Case {
    const char* what;
    Damage damage;
    api::status_t status;
    std::string message = "";
  };
  const api::status_t OK = api::QORV_OK, NO = api::ERR_NOT_RECOGNIZED;
  const std::vector<Case> cases = {
      {"backup boot sector damaged", flip({12}), NO},
      {"backup checksum damaged", flip({23}), NO},
      {"both regions damaged", flip({3, 15}), NO},
      {"backup boot code differs, resealed", [](Bytes& b) { b[12 * 512 + 200] ^= 0xFF, Reseal(b, 12); }, OK},
      {"volume state fields outside the checksum", [](Bytes& b) { b[106] = 0x02, b[112] = 42; }, OK},
      {"marked boot sector, resealed", marks(true, 'r'), OK},
      {"marked boot sector, stale checksum", marks(false, 'r'), OK},
      {"marks without the trailing one", marks(true, 'x'), NO},
      {"jump", fields({{0, 0xE9, 1}}), NO},
      {"name", fields({{3, 0x5346544E, 4}}), NO},
      {"old BPB not zero", fields({{11, 0x0200, 2}}), NO},
      {"signature", fields({{510, 0x0055, 2}}), NO},
      {"sector shift 8", fields({{108, 8, 1}}), NO},
      {"sector shift 13", fields({{108, 13, 1}}), NO},
      {"cluster above 32 MiB", fields({{109, 17, 1}}), NO},
      {"no FAT", fields({{110, 0, 1}}), NO},
      {"three FATs", fields({{110, 3, 1}}), NO},
      {"FAT inside the boot regions", fields({{80, 23, 4}}), NO},
      {"heap inside the FAT", fields({{88, fatOffset + 1, 4}}), NO},
      {"no clusters", fields({{92, 0, 4}}), NO},
      {"FAT too short for the clusters", fields({{92, Get32(clean, 84) * 128ull - 1, 4}, {72, 1ull << 40, 8}}), NO},
      {"root below cluster 2", fields({{96, 1, 4}}), NO},
      {"root past the heap", fields({{96, clusters + 2, 4}}), NO},
      {"volume shorter than the heap", fields({{72, heap - 1, 8}}), NO},
      {"bitmap above 4 GiB",
       fields({{72, hugeHeap + (hugeClusters << 16), 8}, {84, hugeFat, 4}, {88, hugeHeap, 4}, {92, hugeClusters, 4},
               {109, 16, 1}}),
       api::ERR_NOT_SUPPORTED, tooBig},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Bytes copy = clean;
    c.damage(copy);
    MemDevice dev(copy);
    RecordingMessage msg;
    ScanResult r = Scan(&dev, &msg);
    EXPECT_EQ(r.status, c.status);
    if (c.status == api::QORV_OK) {
      EXPECT_EQ(r.Marked(), cleanMarks);
    } else {
      EXPECT_TRUE(r.bitmapNull);
      EXPECT_EQ(msg.lines, c.message.empty() ? std::vector<std::string>{} : std::vector<std::string>{c.message});
    }
  }
  MemDevice tiny(Bytes(100, 0));
  EXPECT_EQ(Scan(&tiny).status, api::ERR_IO_RANGE) << "a read error is returned as it stands";
  EXPECT_EQ(Scan(nullptr).status, api::ERR_IO_RANGE);
}

TEST(ExFatRealVolumes, VanishedDeviceAndStopRequestEndTheScan) {
  testsupport::TempDir dir;
  std::string img = testsupport::DataVolumeFile(dir, "exfat_small_4k");
  if (img.empty()) GTEST_SKIP() << "pre-built volume missing or zstd not installed";
  testsupport::ExpectInterruptionsEndTheScan(QORV::ScanExFat, img, 3);
}

}  // namespace
