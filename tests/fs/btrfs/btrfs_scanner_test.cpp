// Btrfs scanner against the pre-built mkfs.btrfs volume in tests/data (see
// make_btrfs_small.sh: 4 KiB nodes, DUP metadata, a read-only snapshot
// sharing nodes with its subvolume, a log tree) and damaged copies of it.
// Nodes are found for damage by their own headers, not through the driver.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "core/checksum.h"
#include "fs/scanners.h"
#include "tests/support/file_device.h"
#include "tests/support/recording_message.h"
#include "tests/support/scan_result.h"
#include "tests/support/volume_bytes.h"

namespace {

using testsupport::Le;
using testsupport::MemDevice;
using testsupport::PutLe;
using testsupport::RecordingMessage;
using testsupport::ScanResult;

constexpr size_t kSuper = 0x10000, kNode = 4096, kSector = 4096;
constexpr size_t kHeader = 101, kItem = 25;
constexpr uint64_t kFsTree = 5, kRootTree = 1;

const std::vector<uint8_t>& Small() { return testsupport::DataVolume("btrfs_small"); }

// A node copy as its header describes it.
struct Found {
  size_t at;
  uint64_t owner;
  uint8_t level;
};

struct Copy {
  std::vector<uint8_t> img = Small();

  void SealBlock(size_t at, size_t size) {
    uint32_t c = ~QORV::Crc32c(~0u, img.data() + at + 32, size - 32);
    std::fill(img.begin() + long(at), img.begin() + long(at + 32), 0);
    PutLe(img, at, c, 4);
  }
  void SealSuper() { SealBlock(kSuper, 4096); }
  void SealNode(size_t at) { SealBlock(at, kNode); }

  // Every node copy, by logical address: a 4 KiB block whose header carries
  // the volume's fsid and whose checksum verifies.
  std::map<uint64_t, std::vector<Found>> Nodes() const {
    std::map<uint64_t, std::vector<Found>> out;
    for (size_t at = kSuper + kSector; at + kNode <= img.size(); at += kSector) {
      if (!std::equal(img.begin() + long(at + 32), img.begin() + long(at + 48), img.begin() + long(kSuper + 32)))
        continue;
      if (uint32_t(Le(img, at, 4)) != ~QORV::Crc32c(~0u, img.data() + at + 32, kNode - 32)) continue;
      out[Le(img, at + 48, 8)].push_back(Found{at, Le(img, at + 88, 8), img[at + 100]});
    }
    return out;
  }
  // Edits every copy of a node, then seals each again.
  template <class F>
  void EditNode(const std::vector<size_t>& copies, F edit) {
    for (size_t at : copies) {
      edit(at);
      SealNode(at);
    }
  }
};

// The pre-built volume's nodes, found once.
const std::map<uint64_t, std::vector<Found>>& SmallNodes() {
  static const std::map<uint64_t, std::vector<Found>> nodes = Copy().Nodes();
  return nodes;
}

// Both copies of the first node of `owner` at `level` that a clean scan
// reached (older generations of nodes linger on disk too): the one the
// clean scan kept first, the other second.
std::vector<size_t> CopiesOf(uint64_t owner, uint8_t level, const ScanResult& clean) {
  for (const auto& [logical, copies] : SmallNodes()) {
    if (copies.size() != 2 || copies[0].owner != owner || copies[0].level != level) continue;
    if (clean.Test(copies[0].at / kSector)) return {copies[0].at, copies[1].at};
    if (clean.Test(copies[1].at / kSector)) return {copies[1].at, copies[0].at};
  }
  return {};
}

// A device that fails reads touching chosen byte ranges, or vanishes.
class FailingDevice : public MemDevice {
 public:
  using MemDevice::MemDevice;
  api::status_t ReadBytes(uint64_t off, void* buf, uint32_t n, uint32_t flags) override {
    ranges.emplace_back(off, n);
    for (uint64_t bad : failAt)
      if (off <= bad && bad < off + n) return gone ? api::ERR_DEVICE_GONE : api::ERR_SHORT_IO;
    return MemDevice::ReadBytes(off, buf, n, flags);
  }
  std::vector<uint64_t> failAt;
  std::vector<std::pair<uint64_t, uint32_t>> ranges;  // every read asked for
  bool gone = false;
};

// No byte was read twice, and every read lies in blocks the scan kept:
// each kept node was read once, a shared one too, and nothing else was.
void ExpectReadOnce(const FailingDevice& dev, const ScanResult& r) {
  auto ranges = dev.ranges;
  std::sort(ranges.begin(), ranges.end());
  uint64_t end = 0, bytes = 0;
  for (auto [off, n] : ranges) {
    EXPECT_GE(off, end) << "0x" << std::hex << off << " read twice";
    for (uint64_t at = off; at < off + n; at += kSector) EXPECT_TRUE(r.Test(at / kSector)) << std::hex << at;
    end = off + n, bytes += n;
  }
  EXPECT_EQ(bytes, r.CountSet() * kSector);
}

ScanResult Scan(std::vector<uint8_t> img, RecordingMessage* msg = nullptr, uint32_t flags = 0,
                FailingDevice** keep = nullptr) {
  static std::unique_ptr<FailingDevice> last;
  last = std::make_unique<FailingDevice>(std::move(img), 4096);
  if (keep) *keep = last.get();
  return testsupport::RunScanner(QORV::ScanBtrfs, last.get(), msg, flags, true);
}

TEST(BtrfsScanner, CleanVolumeKeepsOneCopyOfEveryNodeReadOnce) {
  ASSERT_FALSE(Small().empty()) << "tests/data/btrfs_small.img.zst could not be decompressed (zstd missing?)";
  RecordingMessage msg;
  FailingDevice* dev = nullptr;
  ScanResult r = Scan(Small(), &msg, 0, &dev);
  ASSERT_EQ(r.status, 0u);
  EXPECT_EQ(r.problems, 0u);
  EXPECT_FALSE(r.Test((64u << 20) / kSector)) << "the first mirror superblock is not kept";
  // The three stages, in order, and nothing else at their level.
  std::vector<std::string> stages;
  for (const auto& l : msg.lines)
    if (l.rfind("2:", 0) == 0) stages.push_back(l);
  EXPECT_EQ(stages, (std::vector<std::string>{"2:Scanning chunk tree ...", "2:Scanning root tree ...",
                                              "2:Scanning log root tree ..."}));
  // One of each reachable node's two copies is kept. Stale nodes from older
  // generations are on disk as well, so the reachable ones are a subset of
  // what the headers show.
  size_t kept = 0;
  for (const auto& [logical, copies] : SmallNodes()) {
    size_t set = 0;
    for (const Found& f : copies) set += r.Test(f.at / kSector);
    if (!set) continue;
    ++kept;
    EXPECT_EQ(copies.size(), 2u);
    EXPECT_EQ(set, 1u) << "copies of 0x" << std::hex << logical;
  }
  EXPECT_EQ(r.CountSet(), 1 + kept);
  ExpectReadOnce(*dev, r);
}

TEST(BtrfsScanner, DataRefusedBeforeAnyTreeReadAndRecognition) {
  FailingDevice* dev = nullptr;
  ScanResult r = Scan(Small(), nullptr, api::SCAN_DATA, &dev);
  EXPECT_EQ(r.status, api::ERR_NOT_SUPPORTED);
  ASSERT_EQ(dev->ranges.size(), 1u) << "the superblock only";
  EXPECT_TRUE(r.bitmapNull);

  // Not Btrfs, or a superblock whose checksum fails: not recognised.
  Copy noMagic;
  noMagic.img[kSuper + 0x40] ^= 1;
  noMagic.SealSuper();
  EXPECT_EQ(Scan(noMagic.img).status, api::ERR_NOT_RECOGNIZED);
  // -data on another file system leaves the search to the next scanner.
  EXPECT_EQ(Scan(noMagic.img, nullptr, api::SCAN_DATA).status, api::ERR_NOT_RECOGNIZED);
  Copy badSum;
  badSum.img[kSuper + 0x300] ^= 1;
  EXPECT_EQ(Scan(badSum.img).status, api::ERR_NOT_RECOGNIZED);
  std::vector<uint8_t> tiny(Small().begin(), Small().begin() + kSuper + 100);
  EXPECT_EQ(Scan(tiny).status, api::ERR_NOT_RECOGNIZED);

  // Sector and node sizes outside powers of two from 4 KiB to 64 KiB.
  const std::pair<uint32_t, uint32_t> sizes[] = {{6144, 4096}, {2048, 4096},   {131072, 131072},
                                                 {4096, 12288}, {8192, 4096}, {4096, 131072}, {0, 0}};
  for (auto [sector, node] : sizes) {
    Copy bad;
    PutLe(bad.img, kSuper + 0x90, sector, 4);
    PutLe(bad.img, kSuper + 0x94, node, 4);
    bad.SealSuper();
    RecordingMessage msg;
    ScanResult rb = Scan(std::move(bad.img), &msg);
    EXPECT_EQ(rb.status, api::ERR_INCONSISTENT) << sector << "/" << node;
    EXPECT_TRUE(msg.Has(1, "Btrfs volume refused: sector or node size not a power of two between 4 KiB and 64 KiB."));
  }

  // Without a log root, two stages only. A checksum type the driver does
  // not know (the superblock then goes unchecked too): accepted, nodes
  // unchecked, one problem counted.
  Copy noLog;
  PutLe(noLog.img, kSuper + 0x60, 0, 8);
  PutLe(noLog.img, kSuper + 0xC4, 7, 2);
  RecordingMessage msg;
  ScanResult rn = Scan(noLog.img, &msg);
  EXPECT_EQ(rn.status, 0u);
  EXPECT_EQ(rn.problems, 1u);
  EXPECT_FALSE(msg.Has(2, "Scanning log root tree ..."));
  EXPECT_TRUE(msg.Has(2, "Scanning root tree ..."));
}

// Damage to one node is counted once, with its reason; the node stays kept,
// its subtree is missing, and every other tree is still walked.
TEST(BtrfsScanner, DamagedNodesAreCountedAndSkipped) {
  const ScanResult clean = Scan(Small());
  ASSERT_EQ(clean.status, 0u);
  const std::vector<size_t> leaf = CopiesOf(kFsTree, 0, clean);
  const std::vector<size_t> rootNode = CopiesOf(kRootTree, 1, clean);
  ASSERT_EQ(leaf.size(), 2u);
  ASSERT_EQ(rootNode.size(), 2u);

  struct Case {
    const char* what;
    std::function<void(Copy&)> damage;
    const std::vector<size_t>& damaged;
  };
  const std::vector<size_t> rootFirst = {rootNode[0]};
  const Case cases[] = {
      {"both copies' checksums fail", [&](Copy& c) { c.img[leaf[0] + 200] ^= 0xFF, c.img[leaf[1] + 200] ^= 0xFF; },
       leaf},
      {"impossible level", [&](Copy& c) { c.EditNode(leaf, [&](size_t at) { c.img[at + 100] = 9; }); }, leaf},
      {"impossible item count",
       [&](Copy& c) { c.EditNode(leaf, [&](size_t at) { PutLe(c.img, at + 96, 0x10000, 4); }); }, leaf},
      {"item data beyond the node",
       [&](Copy& c) { c.EditNode(leaf, [&](size_t at) { PutLe(c.img, at + kHeader + 17, 0xFFF0, 4); }); }, leaf},
      {"node names another address",
       [&](Copy& c) { c.EditNode(leaf, [&](size_t at) { PutLe(c.img, at + 48, Le(c.img, at + 48, 8) + kNode, 8); }); },
       leaf},
      {"child outside the chunk map",
       [&](Copy& c) {
         c.EditNode(rootNode, [&](size_t at) { PutLe(c.img, at + kHeader + 17, 0x7FFF00000000ull, 8); });
       },
       rootFirst},
      {"child unaligned",
       [&](Copy& c) {
         c.EditNode(rootNode, [&](size_t at) { PutLe(c.img, at + kHeader + 17, Le(c.img, at + kHeader + 17, 8) + 1, 8); });
       },
       rootFirst},
  };
  for (const Case& k : cases) {
    Copy c;
    k.damage(c);
    RecordingMessage msg;
    ScanResult r = Scan(std::move(c.img), &msg);
    EXPECT_EQ(r.status, 0u) << k.what;
    EXPECT_EQ(r.problems, 1u) << k.what;
    for (size_t at : k.damaged) EXPECT_TRUE(r.Test(at / kSector)) << k.what << ": the damaged node itself is kept";
    EXPECT_TRUE(msg.Has(2, "Scanning log root tree ...")) << k.what << ": later trees still walked";
    EXPECT_LE(r.CountSet(), clean.CountSet() + k.damaged.size() / 2) << k.what;
    EXPECT_TRUE(std::any_of(msg.lines.begin(), msg.lines.end(),
                            [](const std::string& l) { return l.rfind("1:Problem 1: ", 0) == 0; }))
        << k.what;
  }
}

TEST(BtrfsScanner, CyclesReadFailuresAndAVanishedDevice) {
  const ScanResult clean = Scan(Small());
  // A root item pointing back at the root tree's own root (an ancestor):
  // the walk ends, nothing is read twice.
  {
    Copy c;
    const uint64_t root = Le(c.img, kSuper + 0x50, 8);
    bool edited = false;
    c.EditNode(CopiesOf(kRootTree, 0, clean), [&](size_t at) {
      for (uint32_t i = 0; i < Le(c.img, at + 96, 4); ++i) {
        size_t item = at + kHeader + i * kItem;
        if (c.img[item + 8] != 132) continue;
        size_t data = at + kHeader + Le(c.img, item + 17, 4);
        PutLe(c.img, data + 0xB0, root, 8);
        c.img[data + 0xEE] = 1;
        edited = true;
        break;
      }
    });
    ASSERT_TRUE(edited);
    FailingDevice* dev = nullptr;
    ScanResult r = Scan(c.img, nullptr, 0, &dev);
    EXPECT_EQ(r.status, 0u);
    ExpectReadOnce(*dev, r);
    EXPECT_LE(r.CountSet(), clean.CountSet());
  }
  // A node whose reads fail on both copies: one problem, kept, walk goes on.
  // It lies inside a joined read: its neighbours are read again one by one,
  // and the failure is reported for it alone.
  FailingDevice* plain = nullptr;
  Scan(Small(), nullptr, 0, &plain);
  std::pair<uint64_t, uint32_t> joined{0, 0};
  for (auto rg : plain->ranges)
    if (rg.second >= 3 * kNode) joined = rg;
  const uint64_t mid = joined.first + kNode;
  std::vector<uint64_t> bad;
  char why[128];
  for (const auto& [logical, copies] : SmallNodes()) {
    if (std::none_of(copies.begin(), copies.end(), [&](const Found& f) { return f.at == mid; })) continue;
    for (const Found& f : copies) bad.push_back(f.at);
    std::snprintf(why, sizeof why, "Problem 1: root tree: node 0x%llx (level %u) at 0x%llx: read failed",
                  (unsigned long long)logical, copies[0].level, (unsigned long long)mid);
  }
  ASSERT_EQ(bad.size(), 2u) << "a read of three nodes or more";
  {
    FailingDevice dev(Small(), 4096);
    RecordingMessage msg;
    dev.failAt = bad;
    ScanResult r = testsupport::RunScanner(QORV::ScanBtrfs, &dev, &msg, 0, true);
    EXPECT_EQ(r.status, 0u);
    EXPECT_EQ(r.problems, 1u);
    EXPECT_TRUE(msg.Has(1, why));
    for (uint64_t at = joined.first; at < joined.first + joined.second; at += kNode)
      EXPECT_EQ(std::count(dev.ranges.begin(), dev.ranges.end(), std::make_pair(at, uint32_t(kNode))), 1);
    EXPECT_TRUE(r.Test(bad[0] / kSector) && r.Test(bad[1] / kSector));
    EXPECT_TRUE(msg.Has(2, "Scanning log root tree ..."));
    // The same read on a device that vanished ends the scan.
    FailingDevice gone(Small(), 4096);
    gone.failAt = {mid};
    gone.gone = true;
    ScanResult g = testsupport::RunScanner(QORV::ScanBtrfs, &gone, nullptr, 0);
    EXPECT_EQ(g.status, api::ERR_DEVICE_GONE);
    EXPECT_TRUE(g.bitmapNull);
  }
  // A volume cut short: the nodes past its end are counted, never a crash.
  std::vector<uint8_t> cut(Small().begin(), Small().begin() + (24u << 20));
  ScanResult rc = Scan(cut);
  EXPECT_EQ(rc.status, 0u);
  EXPECT_GT(rc.problems, 0u);
}

// The other checksum types are proven by the round trips of volumes made
// with them; CRC-32C has two paths, only one of which a machine runs there.
TEST(Checksums, Crc32cKnownAnswerAndBothPaths) {
  EXPECT_EQ(~QORV::Crc32c(~0u, "123456789", 9), 0xE3069283u);
  EXPECT_EQ(~QORV::Crc32cPortable(~0u, "123456789", 9), 0xE3069283u);
  // The CPU's instruction (where there is one) against the table loop, on
  // every start alignment and lengths around its 8-byte steps and its
  // rounds of three 512-byte lanes.
  std::vector<uint8_t> buf(5000);
  uint32_t seed = 12345;
  for (uint8_t& b : buf) b = uint8_t((seed = seed * 1103515245u + 12345u) >> 16);
  for (size_t start = 0; start < 16; ++start)
    for (size_t len : {size_t(0), size_t(1), size_t(7), size_t(8), size_t(9), size_t(63), size_t(1535), size_t(1536),
                       size_t(4096 - 32), size_t(3 * 1536), size_t(4983 - start)})
      ASSERT_EQ(QORV::Crc32c(0x1234567u * uint32_t(len), buf.data() + start, len),
                QORV::Crc32cPortable(0x1234567u * uint32_t(len), buf.data() + start, len))
          << "start " << start << ", " << len << " bytes";
}

}  // namespace
