// HFS+ scanner against a small volume built here from the public format
// (nothing on Linux makes HFS+), whose copies carry the damage a failing disk
// or a hostile image would: 512-byte blocks, a catalog with overflow extents,
// a journal, and B-trees whose headers, records and keys lie. The samples'
// forks and special files are judged by the hfs round-trip group.
#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "fs/scanners.h"
#include "tests/support/cli.h"
#include "tests/support/file_device.h"
#include "tests/support/interrupt.h"
#include "tests/support/recording_message.h"
#include "tests/support/scan_result.h"
#include "tests/support/volume_bytes.h"

namespace {

using testsupport::MemDevice;
using testsupport::PutBe;
using testsupport::RecordingMessage;
using testsupport::ScanResult;
using testsupport::TempDir;

constexpr uint32_t kData = api::SCAN_DATA, kFork = api::SCAN_FORK;

ScanResult Scan(api::IDeviceRWBlock* dev, uint32_t flags = 0, api::IMessage* msg = nullptr) {
  return testsupport::RunScanner(QORV::ScanHfs, dev, msg, flags);
}

// ---------------------------------------------------------------- a built volume

// 64 blocks of 512 bytes. Block 2 holds the header, 3 the allocation file,
// 4-5 the extents tree (header node, one leaf holding the catalog's overflow
// record), 6-7 and 20 the catalog (header node, an empty leaf, and the leaf
// with file 30's record, reached only through the overflow record). File 30
// has data blocks 10-12 and resource block 13; the journal info block is 14,
// the journal 15-16; the alternate header lies in block 62.
struct Built {
  static constexpr uint32_t kBs = 512, kBlocks = 64, kFileId = 30;
  static constexpr size_t kVh = 1024, kExtents = 4 * kBs, kCatalog = 6 * kBs, kCatalogLeaf = 20 * kBs;
  std::vector<uint8_t> img = std::vector<uint8_t>(kBs * kBlocks);

  static void Fork(std::vector<uint8_t>& b, size_t at, uint64_t size, uint32_t total,
                   std::vector<std::pair<uint32_t, uint32_t>> extents) {
    PutBe(b, at, size, 8);
    PutBe(b, at + 12, total, 4);
    for (size_t i = 0; i < extents.size(); ++i) {
      PutBe(b, at + 16 + 8 * i, extents[i].first, 4);
      PutBe(b, at + 20 + 8 * i, extents[i].second, 4);
    }
  }
  // A node: descriptor, then records back to back, offsets at the end.
  void Node(size_t at, int8_t kind, const std::vector<std::vector<uint8_t>>& records) {
    img[at + 8] = uint8_t(kind);
    PutBe(img, at + 10, records.size(), 2);
    size_t off = 14;
    for (size_t i = 0; i < records.size(); ++i) {
      PutBe(img, at + kBs - 2 * (i + 1), off, 2);
      std::copy(records[i].begin(), records[i].end(), img.begin() + long(at + off));
      off += records[i].size();
    }
    PutBe(img, at + kBs - 2 * (records.size() + 1), off, 2);
  }
  void Header(size_t at, uint32_t root, uint32_t maxKey, uint32_t totalNodes) {
    std::vector<uint8_t> h(106);
    PutBe(h, 0, 1, 2);
    PutBe(h, 2, root, 4);
    PutBe(h, 18, kBs, 2);
    PutBe(h, 20, maxKey, 2);
    PutBe(h, 22, totalNodes, 4);
    PutBe(h, 38, 0x6, 4);  // big keys, variable index keys
    Node(at, 1, {h});
  }
  void WriteHeader(size_t at, uint16_t signature) {
    PutBe(img, at + 0, signature, 2);
    PutBe(img, at + 2, signature == 0x4858 ? 5 : 4, 2);
    PutBe(img, at + 4, 0x2000, 4);  // journaled
    PutBe(img, at + 12, 14, 4);
    PutBe(img, at + 40, kBs, 4);
    PutBe(img, at + 44, kBlocks, 4);
    Fork(img, at + 112, kBs, 1, {{3, 1}});
    Fork(img, at + 192, 2 * kBs, 2, {{4, 2}});
    Fork(img, at + 272, 3 * kBs, 3, {{6, 2}});
  }
  std::vector<uint8_t> FileRecord(uint32_t keyLength = 8) {
    std::vector<uint8_t> r(2 + 8 + 248);
    PutBe(r, 0, keyLength, 2);
    PutBe(r, 2, 2, 4);  // parent: the root folder
    PutBe(r, 6, 1, 2);
    PutBe(r, 8, 'f', 2);
    PutBe(r, 10, 2, 2);  // a file record
    PutBe(r, 10 + 8, kFileId, 4);
    Fork(r, 10 + 88, 3 * kBs, 3, {{10, 3}});
    Fork(r, 10 + 168, kBs, 1, {{13, 1}});
    return r;
  }

  Built() {
    WriteHeader(kVh, 0x482B);
    WriteHeader(kBs * kBlocks - 1024, 0x482B);
    Header(kExtents, 1, 10, 2);
    std::vector<uint8_t> overflow(12 + 64);
    PutBe(overflow, 0, 10, 2);
    PutBe(overflow, 4, 4, 4);  // the catalog's data fork
    PutBe(overflow, 8, 2, 4);  // from its block 2
    PutBe(overflow, 12, 20, 4);
    PutBe(overflow, 16, 1, 4);
    Node(kExtents + kBs, -1, {overflow});
    Header(kCatalog, 2, 516, 3);
    Node(kCatalog + kBs, -1, {});
    Node(kCatalogLeaf, -1, {FileRecord()});
    PutBe(img, 14 * kBs, 1, 4);  // journal in this file system
    PutBe(img, 14 * kBs + 36, 15 * kBs, 8);
    PutBe(img, 14 * kBs + 44, 2 * kBs, 8);
  }
};

const std::set<uint64_t> kMetadata = {0, 1, 2, 3, 4, 5, 6, 7, 14, 15, 16, 20, 62, 63};

std::set<uint64_t> With(std::set<uint64_t> s, std::initializer_list<uint64_t> more) {
  s.insert(more);
  return s;
}

// Recognition: the alternate header takes over from a damaged primary; a
// wrapper or plain HFS ("BD") is refused even with a good alternate; so are
// block sizes the format does not allow, other versions, tiny devices.
TEST(HfsScanner, RecognitionFallsBackToTheAlternateAndRefusesWrappersAndBadGeometry) {
  {
    Built v;
    std::fill(v.img.begin() + Built::kVh, v.img.begin() + Built::kVh + 512, 0);
    MemDevice dev(v.img);
    ScanResult r = Scan(&dev);
    ASSERT_EQ(r.status, api::QORV_OK);
    EXPECT_EQ(r.Marked(), kMetadata);
  }
  auto refused = [](const std::function<void(std::vector<uint8_t>&)>& edit, const char* what) {
    Built v;
    edit(v.img);
    MemDevice dev(v.img);
    ScanResult r = Scan(&dev);
    EXPECT_EQ(r.status, api::ERR_NOT_RECOGNIZED) << what;
    EXPECT_TRUE(r.bitmapNull) << what;
  };
  refused([](std::vector<uint8_t>& b) { PutBe(b, Built::kVh, 0x4244, 2); }, "BD wrapper");
  // Both headers carry the damage, so neither can stand in for the other.
  auto both = [](uint64_t field, uint64_t value, int bytes) {
    return [=](std::vector<uint8_t>& b) {
      for (size_t at : {size_t(Built::kVh), b.size() - 1024}) PutBe(b, at + field, value, bytes);
    };
  };
  refused(both(40, 1536, 4), "block size not a power of two");
  refused(both(40, 256, 4), "block size below 512");
  refused(both(2, 3, 2), "version 3");
  refused(both(44, 0, 4), "no blocks");
  MemDevice tiny(std::vector<uint8_t>(1200));
  EXPECT_EQ(Scan(&tiny).status, api::ERR_NOT_RECOGNIZED);
}

// The problem count: extents beyond the volume, extents ending at its last
// block (counted although nothing is cut), a journal on another device
// (only its info block kept), a journal running off the volume, an
// overflow chain that never reaches the fork's total.
TEST(HfsScanner, RangesBeyondTheVolumeAreClippedAndCounted) {
  struct Case {
    const char* what;
    std::function<void(Built&)> edit;
    std::set<uint64_t> marked;
    uint32_t problems;
  };
  const std::vector<Case> cases = {
      {"startup file beyond the end",
       [](Built& v) { Built::Fork(v.img, Built::kVh + 432, 512, 2, {{64, 1}, {70, 1}}); }, kMetadata, 2},
      {"startup file ending at the last block",
       [](Built& v) { Built::Fork(v.img, Built::kVh + 432, 512, 2, {{40, 24}}); },
       With(kMetadata, {40, 41, 42, 43, 44, 45, 46, 47, 48, 49, 50, 51, 52, 53, 54, 55, 56, 57, 58, 59, 60, 61}), 1},
      {"journal on another device",
       [](Built& v) { PutBe(v.img, 14 * Built::kBs, 3, 4); }, {0, 1, 2, 3, 4, 5, 6, 7, 14, 20, 62, 63}, 0},
      {"journal running off the volume",
       [](Built& v) { PutBe(v.img, 14 * Built::kBs + 44, uint64_t(1) << 62, 8); },
       [] {
         std::set<uint64_t> s = kMetadata;
         for (uint64_t b = 15; b < 64; ++b) s.insert(b);
         return s;
       }(),
       1},
      {"journal info block beyond the volume", [](Built& v) { PutBe(v.img, Built::kVh + 12, 900, 4); },
       {0, 1, 2, 3, 4, 5, 6, 7, 20, 62, 63}, 2},
      {"catalog whose overflow chain stops short",
       [](Built& v) { PutBe(v.img, Built::kVh + 272 + 12, 9, 4); }, kMetadata, 1},
      {"overflow record that adds no block",
       [](Built& v) { PutBe(v.img, Built::kExtents + Built::kBs + 14 + 16, 0, 4); },
       {0, 1, 2, 3, 4, 5, 6, 7, 14, 15, 16, 62, 63}, 1},
  };
  for (const Case& c : cases) {
    Built v;
    c.edit(v);
    MemDevice dev(v.img);
    ScanResult r = Scan(&dev);
    ASSERT_EQ(r.status, api::QORV_OK) << c.what;
    EXPECT_EQ(r.Marked(), c.marked) << c.what;
    EXPECT_EQ(r.problems, c.problems) << c.what;
  }
}

// Hostile B-trees: the two messages, and never a crash, hang or status
// other than 0 for damage inside the trees.
TEST(HfsScanner, HostileTreesAreSurvivedWithTheirMessages) {
  const std::string extentsMsg = "Failed to open extents tree. The image may be not full!";
  const std::string catalogMsg = "Failed to open catalog tree. Can't add data or forks to image!";
  struct Case {
    const char* what;
    std::function<void(Built&)> edit;
    bool extentsFails, catalogFails, fileKept;
  };
  const size_t hdr = 14;
  const std::vector<Case> cases = {
      {"extents node size 0", [&](Built& v) { PutBe(v.img, Built::kExtents + hdr + 18, 0, 2); }, true, false, false},
      {"extents node size 64 KiB", [&](Built& v) { PutBe(v.img, Built::kExtents + hdr + 18, 0xFFFF, 2); }, true,
       false, false},
      {"catalog node size 0", [&](Built& v) { PutBe(v.img, Built::kCatalog + hdr + 18, 0, 2); }, false, true, false},
      {"catalog header not a header", [&](Built& v) { v.img[Built::kCatalog + 8] = 0; }, false, true, false},
      {"catalog of four billion nodes", [&](Built& v) {
         PutBe(v.img, Built::kCatalog + hdr + 22, 0xFFFFFFFF, 4);
         Built::Fork(v.img, Built::kVh + 272, uint64_t(1) << 62, 0xFFFFFFFF, {{6, 2}});
       }, false, false, true},
      {"record offset past the node", [&](Built& v) { PutBe(v.img, Built::kCatalogLeaf + 510, 600, 2); }, false,
       false, false},
      {"records overlapping", [&](Built& v) {
         PutBe(v.img, Built::kCatalogLeaf + 10, 2, 2);
         PutBe(v.img, Built::kCatalogLeaf + 508, 14, 2);
       }, false, false, false},
      {"record count filling the node", [&](Built& v) { PutBe(v.img, Built::kCatalogLeaf + 10, 0xFFFF, 2); }, false,
       false, false},
      {"key length beyond the maximum", [&](Built& v) { PutBe(v.img, Built::kCatalogLeaf + 14, 519, 2); }, false,
       false, false},
      {"key length at the maximum + 2", [&](Built& v) {
         PutBe(v.img, Built::kCatalogLeaf + 14, 518, 2);
       }, false, false, false},
      {"extents index looping on itself", [&](Built& v) {
         std::vector<uint8_t> index(12 + 4);
         PutBe(index, 0, 10, 2);
         PutBe(index, 12, 1, 4);  // child: this node
         v.Node(Built::kExtents + Built::kBs, 0, {index});
       }, false, false, false},
  };
  for (const Case& c : cases) {
    Built v;
    c.edit(v);
    MemDevice dev(v.img);
    RecordingMessage msg;
    ScanResult r = Scan(&dev, kData | kFork, &msg);
    ASSERT_EQ(r.status, api::QORV_OK) << c.what;
    EXPECT_EQ(msg.Has(1, extentsMsg), c.extentsFails) << c.what;
    EXPECT_EQ(msg.Has(1, catalogMsg), c.catalogFails) << c.what;
    EXPECT_EQ(r.Test(10), c.fileKept) << c.what;
    for (uint64_t b : {0, 1, 2, 3, 4, 5, 62, 63}) EXPECT_TRUE(r.Test(b)) << c.what << " block " << b;
  }
}

// Without -data or -fork the scan reads no byte of the catalog and says
// nothing of it; with both, the file whose record only the catalog's
// overflow extents reach keeps its forks (which fork goes with which flag,
// the hfs round trips judge on the samples). The source is never written.
// A vanishing device ends the scan with ERR_DEVICE_GONE at every read, a
// stop request with ERR_TOO_BIG.
TEST(HfsScanner, CatalogReadOnlyForForksAndInterruptions) {
  Built v;
  struct Recording : MemDevice {
    using MemDevice::MemDevice;
    std::vector<uint64_t> offsets;
    api::status_t ReadBytes(uint64_t off, void* buf, uint32_t n, uint32_t flags) override {
      for (uint64_t b = off / Built::kBs; b * Built::kBs < off + n; ++b) offsets.push_back(b);
      return MemDevice::ReadBytes(off, buf, n, flags);
    }
  } dev(v.img);
  RecordingMessage plain, forks;
  ScanResult r = Scan(&dev, 0, &plain);
  ASSERT_EQ(r.status, api::QORV_OK);
  EXPECT_EQ(r.n, Built::kBlocks);
  EXPECT_EQ(r.k, 9u);
  EXPECT_EQ(r.problems, 0u);
  EXPECT_EQ(r.Marked(), kMetadata);
  EXPECT_FALSE(plain.Has(0, "Scanning HFS catalog tree"));
  for (uint64_t b : dev.offsets) EXPECT_TRUE(b != 6 && b != 7 && b != 20) << "catalog block " << b << " read";
  r = Scan(&dev, kData | kFork, &forks);
  EXPECT_EQ(r.Marked(), With(kMetadata, {10, 11, 12, 13}));
  EXPECT_TRUE(forks.Has(0, "Scanning HFS catalog tree"));
  EXPECT_EQ(dev.writes, 0u);

  TempDir dir;
  std::string path = testsupport::Fixture(dir, "hfsplus/hfsplus_rich_16m.img.zst");
  if (path.empty()) GTEST_SKIP() << "sample missing";
  testsupport::ExpectInterruptionsEndTheScan(QORV::ScanHfs, path, 0);
}

}  // namespace
