// The APFS scanner on the shared macOS-made containers and on damaged copies
// of one of them: what it prints, which blocks it keeps, which objects it
// follows, and that hostile containers are counted or refused, never a crash.
// The -data run probes are checked on allocation maps of known shape; what
// -data adds to a dump is the apfs round-trip group's (files read back).
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <tuple>
#include <string>
#include <vector>

#include "fs/apfs/apfs.h"
#include "fs/scanners.h"
#include "tests/support/cli.h"
#include "tests/support/file_device.h"
#include "tests/support/recording_message.h"
#include "tests/support/scan_result.h"
#include "tests/support/volume_bytes.h"

namespace {

using namespace QORV::apfs;
using testsupport::MemDevice;
using testsupport::RecordingMessage;
using testsupport::ScanResult;

constexpr uint32_t kBs = 4096;
const char* const kCipherLine = "OpenSSL is not supported, so some blocks of encrypted APFS volume may not be dumped.";

const char* const kFixtures[] = {
    "apfs_case_sensitive_hdiutil_3files", "apfs_dfvfs_small",        "apfs_dfvfs_small_2020",
    "apfs_dissect_case_insensitive",      "apfs_dissect_case_insensitive_beta",
    "apfs_dissect_case_sensitive",        "apfs_dissect_snapshot_32m", "apfs_filevault_48m",
    "apfs_hdiutil_3files",                "apfs_rich_16m",
};

api::status_t ScanNoCipher(QORV_SCANNER_ARGS) {
  return QORV::ScanApfs(env, dev, msg, scanFlags, bitmap, blockCount, blockShift, problems, 0);
}

// A device over bytes that counts the reads of each offset.
class CountingDevice : public MemDevice {
 public:
  using MemDevice::MemDevice;
  api::status_t ReadBytes(uint64_t off, void* buf, uint32_t n, uint32_t flags) override {
    ++readsAt[off];
    return MemDevice::ReadBytes(off, buf, n, flags);
  }
  std::map<uint64_t, int> readsAt;
};

ScanResult Scan(std::vector<uint8_t> bytes, uint32_t flags = 0, RecordingMessage* msg = nullptr,
                std::map<uint64_t, int>* reads = nullptr) {
  CountingDevice dev(std::move(bytes));
  ScanResult r = testsupport::RunScanner(ScanNoCipher, &dev, msg, flags, true);
  if (reads) *reads = dev.readsAt;
  return r;
}

std::vector<uint8_t> Load(const std::string& name) {
  return testsupport::FixtureBytes("apfs/" + name + ".img.zst");
}

// Little-endian field access on a container held in memory.
uint64_t Get(const std::vector<uint8_t>& v, uint64_t block, size_t off, size_t len) {
  uint64_t x = 0;
  for (size_t i = len; i-- > 0;) x = (x << 8) | v[block * kBs + off + i];
  return x;
}
void Put(std::vector<uint8_t>& v, uint64_t block, size_t off, size_t len, uint64_t x) {
  for (size_t i = 0; i < len; ++i, x >>= 8) v[block * kBs + off + i] = uint8_t(x);
}
void Seal(std::vector<uint8_t>& v, uint64_t block) {
  Put(v, block, obj::kCksum, 8, Fletcher64(v.data() + block * kBs, kBs));
}

struct Sample {
  std::vector<uint8_t> bytes;
  uint64_t blocks = 0;
  std::vector<uint64_t> spare;  // blocks neither the walk nor the space manager keeps
};

// The small populated container, with blocks free for planted objects.
Sample LoadSample() {
  Sample s;
  s.bytes = Load("apfs_dfvfs_small");
  if (s.bytes.empty()) return s;
  s.blocks = s.bytes.size() / kBs;
  ScanResult meta = Scan(s.bytes), data = Scan(s.bytes, api::SCAN_DATA);
  for (uint64_t b = s.blocks; b-- > 1 && s.spare.size() < 8;)
    if (!meta.Test(b) && !data.Test(b)) s.spare.push_back(b);
  return s;
}

#define NEED_SAMPLE(s)                                                       \
  if ((s).bytes.empty()) GTEST_SKIP() << "shared APFS samples or zstd not available"; \
  ASSERT_GE((s).spare.size(), 8u)

// Plants a B-tree node at `block` with the given child pointers (level 1,
// fixed-size entries), stored with or without a header; block 0's EFI
// jumpstart field is pointed at it so the walk reaches it.
void PlantNode(Sample& s, uint64_t block, const std::vector<uint64_t>& children, bool header, uint32_t nkeys = 0) {
  std::memset(s.bytes.data() + block * kBs, 0, kBs);
  const uint16_t tocLen = uint16_t(children.size() * btn::kFixedEntryBytes);
  Put(s.bytes, block, btn::kFlags, 2, btn::kFixedKvSize | btn::kRoot | (header ? 0 : btn::kNoHeader));
  Put(s.bytes, block, btn::kLevel, 2, 1);
  Put(s.bytes, block, btn::kNkeys, 4, nkeys ? nkeys : children.size());
  Put(s.bytes, block, btn::kTableSpaceOff, 2, 0);
  Put(s.bytes, block, btn::kTableSpaceLen, 2, tocLen);
  const size_t valueEnd = kBs - btn::kInfoBytes;
  for (size_t i = 0; i < children.size(); ++i) {
    const size_t toc = btn::kData + i * btn::kFixedEntryBytes;
    const size_t valOff = (i + 1) * 8;
    Put(s.bytes, block, toc, 2, i * 16);    // key offset
    Put(s.bytes, block, toc + 2, 2, valOff);  // value offset, from the values' end
    Put(s.bytes, block, valueEnd - valOff, 8, children[i]);
  }
  if (header) {
    Put(s.bytes, block, obj::kOid, 8, block);
    Put(s.bytes, block, obj::kType, 4, kTypeBtree | 0x40000000u);
    Put(s.bytes, block, obj::kSubtype, 4, kTypeOmap);
    Seal(s.bytes, block);
  }
  Put(s.bytes, 0, nx::kEfiJumpstart, 8, block);
  Seal(s.bytes, 0);
}

TEST(ApfsScanner, SamplesKeepBothCheckpointAreasAndOlderObjectMaps) {
  // The samples' objects verify (no problems below); words of all ones are
  // the modulus itself, the largest sums the checksum meets, and must come
  // out as zero sums, whatever the block size.
  for (size_t size : {size_t(kBs), size_t(65536)}) {
    std::vector<uint8_t> ones(size, 0xFF);
    EXPECT_EQ(Fletcher64(ones.data(), size), ~uint64_t(0)) << size;
  }
  for (const char* name : kFixtures) {
    std::vector<uint8_t> v = Load(name);
    if (v.empty()) GTEST_SKIP() << "shared APFS samples or zstd not available";
    for (uint32_t flags : {0u, uint32_t(api::SCAN_DATA)}) {
      RecordingMessage msg;
      ScanResult r = Scan(v, flags, &msg);
      ASSERT_EQ(r.status, 0u) << name;
      EXPECT_EQ(r.k, 12u);
      EXPECT_EQ(r.n, Get(v, 0, nx::kBlockCount, 8)) << name;
      EXPECT_EQ(r.problems, 0u) << name;
      ASSERT_FALSE(msg.lines.empty());
      EXPECT_EQ(msg.lines[0], std::string("1:") + kCipherLine);
      char total[64];
      std::snprintf(total, sizeof total, "Scanning APFS... Total clusters: %llx", (unsigned long long)r.n);
      EXPECT_EQ(msg.Has(0, "Scanning APFS..."), flags == 0) << name;
      EXPECT_EQ(msg.Has(0, "Scanning APFS") && msg.Has(1, total), flags != 0) << name;
      EXPECT_TRUE(r.Test(0));
      // Every block of both areas, whatever checkpoint is current.
      for (size_t base : {nx::kXpDescBase, nx::kXpDataBase}) {
        const uint64_t first = Get(v, 0, base, 8);
        const uint64_t count = Get(v, 0, base == nx::kXpDescBase ? nx::kXpDescBlocks : nx::kXpDataBlocks, 4);
        for (uint64_t b = first; b < first + count; ++b) ASSERT_TRUE(r.Test(b)) << name << " block " << b;
      }
      // Older checkpoints' superblocks keep their own object maps.
      const uint64_t descBase = Get(v, 0, nx::kXpDescBase, 8), descBlocks = Get(v, 0, nx::kXpDescBlocks, 4);
      for (uint64_t b = descBase; b < descBase + descBlocks; ++b) {
        if (!CApfsSuperBlock::IsValid(QORV::ByteView(v.data() + b * kBs, kBs))) continue;
        EXPECT_TRUE(r.Test(Get(v, b, nx::kOmapOid, 8))) << name << " checkpoint superblock " << b;
      }
    }
  }
}

TEST(ApfsScanner, NonApfsIsNotRecognisedAndBlockZeroDamageIsRefused) {
  RecordingMessage none;
  ScanResult zero = Scan(std::vector<uint8_t>(1 << 20), 0, &none);
  EXPECT_EQ(zero.status, api::ERR_NOT_RECOGNIZED);
  EXPECT_TRUE(zero.bitmapNull);
  EXPECT_EQ(none.lines, std::vector<std::string>{std::string("1:") + kCipherLine});
  EXPECT_EQ(Scan(std::vector<uint8_t>(100)).status, api::ERR_NOT_RECOGNIZED);

  Sample s = LoadSample();
  NEED_SAMPLE(s);
  // One flipped byte in block 0: refused, though the checkpoint areas hold
  // good superblocks; the same for a wrong object type with a good checksum.
  for (int damage = 0; damage < 2; ++damage) {
    std::vector<uint8_t> v = s.bytes;
    if (damage == 0) {
      v[0x600] ^= 1;
    } else {
      Put(v, 0, obj::kType, 4, kTypeBtree);
      Seal(v, 0);
    }
    for (uint32_t flags : {0u, uint32_t(api::SCAN_DATA)}) {
      RecordingMessage msg;
      ScanResult r = Scan(v, flags, &msg);
      EXPECT_EQ(r.status, api::ERR_INCONSISTENT);
      EXPECT_TRUE(r.bitmapNull);
      EXPECT_TRUE(msg.Has(1, "Invalid Main SuperBlock checksum")) << damage;
    }
  }
  // Geometry out of range, with a checksum that verifies.
  for (auto [field, len, value] : {std::tuple<size_t, size_t, uint64_t>{nx::kBlockSize, 4, 3000},
                                   {nx::kBlockSize, 4, 1u << 17}, {nx::kBlockSize, 4, 2048},
                                   {nx::kBlockCount, 8, 0}}) {
    std::vector<uint8_t> v = s.bytes;
    Put(v, 0, field, len, value);
    Seal(v, 0);
    RecordingMessage msg;
    EXPECT_EQ(Scan(v, 0, &msg).status, api::ERR_INCONSISTENT) << value;
    EXPECT_EQ(msg.lines.size(), 2u) << value;  // the cipher line and why
  }
}

TEST(ApfsScanner, ObjectsReferencedTwiceOrInCyclesAreReadOnceAndDamagedOnesKeptNotFollowed) {
  Sample s = LoadSample();
  NEED_SAMPLE(s);
  const uint64_t bad = s.spare[0], node = s.spare[1], child = s.spare[2], grand = s.spare[3];

  // A zero block named twice by block 0: one read, one problem, kept.
  std::vector<uint8_t> v = s.bytes;
  Put(v, 0, nx::kEfiJumpstart, 8, bad);
  Put(v, 0, nx::kFusionMtOid, 8, bad);
  Seal(v, 0);
  std::map<uint64_t, int> reads;
  ScanResult r = Scan(v, 0, nullptr, &reads);
  ASSERT_EQ(r.status, 0u);
  EXPECT_TRUE(r.Test(bad));
  EXPECT_EQ(r.problems, 1u);
  EXPECT_EQ(reads[bad * kBs], 1);

  // A node whose children are a node, itself, none (0), one past the end
  // and the child again; the child points back up: each read once, the walk ends.
  PlantNode(s, node, {child, node, 0, s.blocks + 5, child}, true);
  const std::vector<uint8_t> planted = s.bytes;
  PlantNode(s, child, {grand, node}, true);
  Put(s.bytes, 0, nx::kEfiJumpstart, 8, node);
  Seal(s.bytes, 0);
  r = Scan(s.bytes, 0, nullptr, &reads);
  ASSERT_EQ(r.status, 0u);
  EXPECT_TRUE(r.Test(node) && r.Test(child) && r.Test(grand));
  EXPECT_EQ(reads[node * kBs], 1);
  EXPECT_EQ(reads[child * kBs], 1);
  EXPECT_EQ(r.problems, 2u);  // the address past the end, the zero grandchild

  // The same child node with a flipped byte, or an unknown type: kept, not followed.
  for (int damage = 0; damage < 2; ++damage) {
    std::vector<uint8_t> d = s.bytes;
    if (damage == 0) {
      d[child * kBs + 0x100] ^= 1;
    } else {
      Put(d, child, obj::kType, 4, 40);
      Seal(d, child);
    }
    r = Scan(d);
    ASSERT_EQ(r.status, 0u);
    EXPECT_TRUE(r.Test(child)) << damage;
    EXPECT_FALSE(r.Test(grand)) << damage;
  }

  // Without a header the node has no checksum: taken as a B-tree root and followed.
  s.bytes = planted;
  PlantNode(s, child, {grand}, false);
  Put(s.bytes, 0, nx::kEfiJumpstart, 8, node);
  Seal(s.bytes, 0);
  r = Scan(s.bytes);
  ASSERT_EQ(r.status, 0u);
  EXPECT_TRUE(r.Test(child));
  EXPECT_TRUE(r.Test(grand));
}

TEST(ApfsScanner, HostileContainersAreCountedNeverACrash) {
  Sample s = LoadSample();
  NEED_SAMPLE(s);
  const uint64_t node = s.spare[0];
  struct Case {
    const char* what;
    void (*edit)(Sample&, uint64_t);
  } cases[] = {
      {"block count beyond the device",
       [](Sample& x, uint64_t) { Put(x.bytes, 0, nx::kBlockCount, 8, uint64_t(1) << 40), Seal(x.bytes, 0); }},
      {"checkpoint areas past the end",
       [](Sample& x, uint64_t) {
         Put(x.bytes, 0, nx::kXpDataBase, 8, x.blocks - 3);
         Put(x.bytes, 0, nx::kXpDescBlocks, 4, 0x7FFFFFFF);
         Seal(x.bytes, 0);
       }},
      {"object map past the end",
       [](Sample& x, uint64_t) { Put(x.bytes, 0, nx::kOmapOid, 8, ~uint64_t(0)), Seal(x.bytes, 0); }},
      {"btn_nkeys beyond what fits", [](Sample& x, uint64_t n) { PlantNode(x, n, {n, 1}, true, 0xFFFFFFFF); }},
      {"value offset past the node",
       [](Sample& x, uint64_t n) {
         PlantNode(x, n, {n}, true);
         Put(x.bytes, n, btn::kData + 2, 2, 0xFFF0);
         Seal(x.bytes, n);
       }},
      {"table of contents past the node",
       [](Sample& x, uint64_t n) {
         PlantNode(x, n, {n}, true);
         Put(x.bytes, n, btn::kTableSpaceOff, 2, 0xFFF0);
         Seal(x.bytes, n);
       }},
      {"keybag and EFI extents past the end",
       [](Sample& x, uint64_t n) {
         Put(x.bytes, 0, nx::kKeylocker, 8, x.blocks - 1);
         Put(x.bytes, 0, nx::kKeylocker + 8, 8, ~uint64_t(0));
         std::memset(x.bytes.data() + n * kBs, 0, kBs);
         Put(x.bytes, n, obj::kType, 4, kTypeEfiJumpstart);
         Put(x.bytes, n, efi::kMagicAt, 4, efi::kMagic);
         Put(x.bytes, n, efi::kNumExtents, 4, 0xFFFFFFFF);
         Put(x.bytes, n, efi::kExtents, 8, x.blocks - 2);
         Put(x.bytes, n, efi::kExtents + 8, 8, 100);
         Seal(x.bytes, n);
         Put(x.bytes, 0, nx::kEfiJumpstart, 8, n);
         Seal(x.bytes, 0);
       }},
  };
  for (const Case& c : cases) {
    Sample x = s;
    c.edit(x, node);
    for (uint32_t flags : {0u, uint32_t(api::SCAN_DATA)}) {
      ScanResult r = Scan(x.bytes, flags);
      ASSERT_EQ(r.status, 0u) << c.what;
      EXPECT_EQ(r.n, s.blocks) << c.what;
      EXPECT_GT(r.problems, 0u) << c.what;
    }
  }

  // A space manager whose chunk-info counts overflow: -data still ends, and
  // keeps every block rather than guess.
  std::vector<uint8_t> v = s.bytes;
  const uint64_t dataBase = Get(v, 0, nx::kXpDataBase, 8), dataBlocks = Get(v, 0, nx::kXpDataBlocks, 4);
  int spacemen = 0;
  for (uint64_t b = dataBase; b < dataBase + dataBlocks; ++b) {
    if ((Get(v, b, obj::kType, 4) & obj::kTypeMask) != kTypeSpaceman) continue;
    Put(v, b, sm::kDevCibCount, 4, 0xFFFFFFFF);
    Put(v, b, sm::kDevCabCount, 4, 0xFFFFFFFF);
    Put(v, b, sm::kIpBlockCount, 8, ~uint64_t(0));
    Seal(v, b);
    ++spacemen;
  }
  ASSERT_GT(spacemen, 0);
  ScanResult meta = Scan(v), data = Scan(v, api::SCAN_DATA);
  EXPECT_EQ(meta.status, 0u);
  ASSERT_EQ(data.status, 0u);
  EXPECT_GT(data.problems, 0u);
  EXPECT_EQ(data.CountSet(), data.n);
}

class RunLog : public IApfsRunSink {
 public:
  api::status_t UsedRun(uint64_t first, uint64_t count) override {
    runs.push_back({first, count});
    return api::QORV_OK;
  }
  api::status_t Reached(uint64_t) override { return api::QORV_OK; }
  std::vector<std::pair<uint64_t, uint64_t>> runs;
};

// Which blocks of a fragmented map are used comes out run by run, found by
// doubling probes (what the samples' maps hold, the -data round trips read
// back file by file).
TEST(ApfsBitmap, RunsOfAFragmentedMapAndChunksWithoutABitmap) {
  const uint64_t perChunk = kBs * 8;
  // One chunk whose bitmap holds used runs of 1, 2, 3... blocks with free
  // gaps of the same lengths; a second chunk wholly free.
  std::vector<uint8_t> bytes(4 * kBs);
  std::vector<std::pair<uint64_t, uint64_t>> expect;
  uint64_t at = 0;
  for (uint64_t len = 1; at + 2 * len <= perChunk; ++len) {
    for (uint64_t b = at; b < at + len; ++b) bytes[2 * kBs + b / 8] |= uint8_t(1u << (b % 8));
    expect.push_back({at, len});
    at += 2 * len;
  }
  MemDevice dev(bytes);
  std::vector<uint8_t> buf(kBs);
  CApfsBitmap frag;
  frag.Add({0, uint32_t(perChunk), 1, 2});
  frag.Add({perChunk, uint32_t(perChunk), uint32_t(perChunk), 0});
  frag.Sort();
  frag.SetReader(&dev, buf.data(), kBs, 12, 4);
  RunLog flog;
  ASSERT_EQ(frag.WalkRuns(2 * perChunk, &flog), 0u);
  EXPECT_EQ(flog.runs, expect);
  EXPECT_EQ(frag.BitmapReads(), 1u);
  // Runs are found by doubling probes, far fewer than one per block.
  EXPECT_LT(frag.Probes(), 2 * perChunk / 8);

  // A chunk whose bitmap is unreadable, and blocks no chunk covers, are kept.
  CApfsBitmap lost;
  lost.Add({0, 100, 50, 9});
  lost.Sort();
  lost.SetReader(&dev, buf.data(), kBs, 12, 4);
  RunLog llog;
  ASSERT_EQ(lost.WalkRuns(300, &llog), 0u);
  EXPECT_EQ(llog.runs, (std::vector<std::pair<uint64_t, uint64_t>>{{0, 300}}));
}

}  // namespace
