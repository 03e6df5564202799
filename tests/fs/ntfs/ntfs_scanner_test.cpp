// NTFS scanner against the pre-built populated mkntfs volume in tests/data
// (see make_ntfs_small.sh for what it holds) and damaged copies of it: the
// messages, statuses and problem counts that only a scan shows. Which
// clusters a metadata image needs, the Windows-made samples and the
// dump/restore/checker runs are the ntfs round trips' (checker and mount of
// the restored copy, marker file zero).
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <functional>
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

using testsupport::Le;
using testsupport::MemDevice;
using testsupport::PutLe;
using testsupport::RecordingMessage;
using testsupport::ScanResult;
using testsupport::TempDir;

// Records of the pre-built volume (fls lists them).
constexpr uint64_t kMarker = 64;    // /marker.bin: 16 clusters of data
constexpr uint64_t kBigDir = 66;    // /x/$Extend: 1000 entries
constexpr uint64_t kLinked = 1070;  // /links/target: a non-resident attribute list
constexpr uint32_t kRecord = 1024;
constexpr uint32_t kCluster = 4096;
constexpr uint64_t kClusters = 4095;  // 32767 sectors

ScanResult Scan(api::IDeviceRWBlock* dev, api::IMessage* msg = nullptr, uint32_t flags = 0, bool verbose = false) {
  return testsupport::RunScanner(QORV::ScanNtfs, dev, msg, flags, verbose);
}

bool HasLine(const RecordingMessage& m, const std::string& part) {
  for (const auto& l : m.lines)
    if (l.find(part) != std::string::npos) return true;
  return false;
}

const std::vector<uint8_t>& Small() { return testsupport::DataVolume("ntfs_small"); }

// A copy of the pre-built volume, with helpers to damage it the way a
// failing disk or a hostile image would.
struct Copy {
  std::vector<uint8_t> img = Small();

  size_t MftAt() const { return size_t(Le(img, 48, 8)) * kCluster; }
  size_t MirrAt() const { return size_t(Le(img, 56, 8)) * kCluster; }
  // The pre-built volume's MFT is one run.
  size_t RecordAt(uint64_t r) const { return MftAt() + size_t(r) * kRecord; }

  // Edits record bytes as they read after the fix-up, then protects the
  // record again, so it still passes the fix-up.
  void EditProtected(size_t at, uint32_t size, const std::function<void(std::vector<uint8_t>&)>& edit) {
    std::vector<uint8_t> rec(img.begin() + long(at), img.begin() + long(at + size));
    size_t usa = Le(rec, 4, 2);
    for (uint32_t i = 0; i < size / 512; ++i) {
      rec[(i + 1) * 512 - 2] = rec[usa + 2 + i * 2];
      rec[(i + 1) * 512 - 1] = rec[usa + 3 + i * 2];
    }
    edit(rec);
    for (uint32_t i = 0; i < size / 512; ++i) {
      rec[usa + 2 + i * 2] = rec[(i + 1) * 512 - 2];
      rec[usa + 3 + i * 2] = rec[(i + 1) * 512 - 1];
      rec[(i + 1) * 512 - 2] = rec[usa];
      rec[(i + 1) * 512 - 1] = rec[usa + 1];
    }
    std::copy(rec.begin(), rec.end(), img.begin() + long(at));
  }
  void EditRecord(uint64_t r, const std::function<void(std::vector<uint8_t>&)>& edit) {
    EditProtected(RecordAt(r), kRecord, edit);
  }
};

// Offset of the first attribute of `type` in a fixed-up record.
size_t AttrIn(const std::vector<uint8_t>& rec, uint32_t type) {
  for (size_t at = Le(rec, 0x14, 2); at + 8 <= rec.size();) {
    uint32_t t = uint32_t(Le(rec, at, 4));
    if (t == type) return at;
    if (t == 0xFFFFFFFF || Le(rec, at + 4, 4) == 0) break;
    at += Le(rec, at + 4, 4);
  }
  ADD_FAILURE() << "no attribute 0x" << std::hex << type;
  return 0;
}
// Offset of the mapping pairs of the first non-resident attribute of `type`.
size_t PairsIn(const std::vector<uint8_t>& rec, uint32_t type) {
  size_t a = AttrIn(rec, type);
  return a + Le(rec, a + 0x20, 2);
}
// First cluster of the first run of attribute `type` of the record at `recordAt`.
uint64_t FirstCluster(const std::vector<uint8_t>& img, size_t recordAt, uint32_t type) {
  std::vector<uint8_t> rec(img.begin() + long(recordAt), img.begin() + long(recordAt + kRecord));
  size_t pairs = PairsIn(rec, type);
  return Le(rec, pairs + 1 + (rec[pairs] & 0xF), rec[pairs] >> 4);
}

bool NeedSmall() { return !Small().empty(); }

}  // namespace

// The messages of a scan, and what -data adds: exactly the marker's 16
// clusters of contents, which a metadata image leaves out.
TEST(NtfsScanner, MessagesAndTheContentsOnlyWithData) {
  ASSERT_TRUE(NeedSmall()) << "tests/data/ntfs_small.img.zst cannot be unpacked (zstd missing?)";
  MemDevice dev(Small());
  RecordingMessage msg;
  ScanResult plain = Scan(&dev, &msg);
  ASSERT_EQ(plain.status, 0u);
  EXPECT_EQ(plain.n, kClusters);
  EXPECT_EQ(plain.k, 12u);
  EXPECT_EQ(plain.problems, 0u);
  EXPECT_TRUE(msg.Has(0, "Scanning NTFS..."));
  EXPECT_TRUE(msg.Has(1, "Added 3 files/dirs from $Extend"));
  EXPECT_FALSE(HasLine(msg, "2:Include file r=42, \"$Extend\", a0."));  // a verbose trace only
  RecordingMessage verboseMsg;
  Scan(&dev, &verboseMsg, 0, true);
  EXPECT_TRUE(HasLine(verboseMsg, "2:Include file r=42, \"$Extend\", a0."));
  EXPECT_TRUE(plain.Test(0));  // the boot sector, through $Boot

  ScanResult data = Scan(&dev, nullptr, api::SCAN_DATA);
  ASSERT_EQ(data.status, 0u);
  Copy c;
  const uint64_t marker = FirstCluster(c.img, c.RecordAt(kMarker), 0x80);
  for (uint64_t k = marker; k < marker + 16; ++k) EXPECT_TRUE(data.Test(k) && !plain.Test(k)) << k;
  EXPECT_EQ(data.CountSet(), plain.CountSet() + 16);
}

// The fall-back to the backup boot sector, with its message, is the
// negative round trips'; here what must not trigger it or must stop the scan.
TEST(NtfsScanner, OemNameClusterCountLimitAndUnreadableBootSector) {
  ASSERT_TRUE(NeedSmall());
  {
    Copy c;
    std::memcpy(c.img.data() + 3, "BC", 2);
    MemDevice dev(c.img);
    RecordingMessage msg;
    EXPECT_EQ(Scan(&dev, &msg).status, 0u);
    EXPECT_FALSE(HasLine(msg, "second NTFS boot sector"));
  }
  {
    // 2^41 sectors of 512 bytes in 4 KiB clusters: 2^38 clusters.
    Copy c;
    PutLe(c.img, 40, uint64_t(1) << 41, 8);
    MemDevice dev(c.img);
    ScanResult r = Scan(&dev);
    EXPECT_EQ(r.status, api::ERR_IO_RANGE);
    EXPECT_TRUE(r.bitmapNull);
  }
  {
    // An unreadable sector 0 is not a reason to look at the backup.
    class FirstSectorUnreadable : public MemDevice {
     public:
      using MemDevice::MemDevice;
      api::status_t ReadBytes(uint64_t off, void* buf, uint32_t n, uint32_t flags) override {
        return off == 0 ? api::ERR_SHORT_IO : MemDevice::ReadBytes(off, buf, n, flags);
      }
    } dev(Small());
    EXPECT_EQ(Scan(&dev).status, api::ERR_SHORT_IO);
  }
}

TEST(NtfsScanner, UnusableMftStopsTheScanUnlessItsMirrorServes) {
  ASSERT_TRUE(NeedSmall());
  auto compressData = [](std::vector<uint8_t>& rec) { PutLe(rec, AttrIn(rec, 0x80) + 0x0C, 0x0001, 2); };
  auto hugeBitmap = [](std::vector<uint8_t>& rec) { PutLe(rec, AttrIn(rec, 0xB0) + 0x28, 0x20000000, 8); };
  auto sparseData = [](std::vector<uint8_t>& rec) { PutLe(rec, AttrIn(rec, 0x80) + 0x0C, 0x8000, 2); };
  void (*edits[])(std::vector<uint8_t>&) = {compressData, hugeBitmap, sparseData};
  for (auto edit : edits) {
    Copy c;
    c.EditRecord(0, edit);
    MemDevice onlyMft(c.img);
    EXPECT_EQ(Scan(&onlyMft).status, 0u) << "record 0 of $MFTMirr is intact";
    c.EditProtected(c.MirrAt(), kRecord, edit);
    MemDevice both(c.img);
    RecordingMessage msg;
    ScanResult r = Scan(&both, &msg);
    EXPECT_EQ(r.status, api::ERR_INCONSISTENT);
    EXPECT_TRUE(msg.Has(1, "Failed to load $MFT."));
    EXPECT_TRUE(r.bitmapNull);
  }
  {
    // Billions of records claimed: only what the MFT's runs hold is walked.
    Copy c;
    c.EditRecord(0, [](std::vector<uint8_t>& rec) {
      size_t a = AttrIn(rec, 0x80);
      PutLe(rec, a + 0x30, uint64_t(1) << 45, 8);
      PutLe(rec, a + 0x38, uint64_t(1) << 45, 8);
    });
    MemDevice dev(c.img);
    RecordingMessage msg;
    ScanResult r = Scan(&dev, &msg, 0, true);
    EXPECT_EQ(r.status, 0u);
    EXPECT_TRUE(HasLine(msg, "$MFT: 0x800000000 records claimed, its runs inside the volume hold 0x43c"));
  }
}

TEST(NtfsScanner, ExtendWalkStopsAtAThousandEntriesAndTheScanGoesOn) {
  ASSERT_TRUE(NeedSmall());
  // Record 11 replaced by the 1000-entry directory that is also named $Extend.
  Copy c;
  std::memcpy(c.img.data() + c.RecordAt(11), c.img.data() + c.RecordAt(kBigDir), kRecord);
  MemDevice dev(c.img);
  RecordingMessage msg;
  ScanResult r = Scan(&dev, &msg);
  EXPECT_EQ(r.status, 0u);
  EXPECT_TRUE(msg.Has(1, "Too many files in $Extend. May it is broken. Break $Extend enumaration."));
  EXPECT_TRUE(msg.Has(1, "Added 1000 files/dirs from $Extend"));
}

// The marker's run list replaced: a run ending exactly at the last cluster
// is marked whole and reported (not counted: the problem count is reads
// past the last cluster), one beyond the volume is skipped, a negative first
// cluster or two deltas whose sum overflows 64 bits make no run list.
TEST(NtfsScanner, RunsReachingOrPassingTheEndAndBrokenRunLists) {
  ASSERT_TRUE(NeedSmall());
  const uint8_t f = 0xFF;
  const struct {
    std::vector<uint8_t> run;
    const char* line;
  } cases[] = {
      {{0x21, 0x10, uint8_t(kClusters - 16), uint8_t((kClusters - 16) >> 8), 0},
       "NTFS record 0x40 attribute 0x80: run at cluster 0xfef of 0x10 clusters reaches the end"},
      {{0x31, 0x10, 0x00, 0x00, 0x10, 0}, "run at cluster 0x100000 lies beyond the volume's 0xfff clusters"},
      {{0x11, 0x10, 0xF0, 0}, "1:Failed to init attribute 80 in file 0x40."},
      {{0x81, 0x08, f, f, f, f, f, f, f, 0x7F, 0x81, 0x08, f, f, f, f, f, f, f, 0x7F, 0},
       "1:Failed to init attribute 80 in file 0x40."},
  };
  for (const auto& t : cases) {
    Copy c;
    // Grows the marker's $DATA (the record's last attribute) to hold the run.
    c.EditRecord(kMarker, [&](std::vector<uint8_t>& rec) {
      size_t a = AttrIn(rec, 0x80), pairs = PairsIn(rec, 0x80), length = (pairs - a + t.run.size() + 7) & ~size_t(7);
      ASSERT_EQ(Le(rec, a + Le(rec, a + 4, 4), 4), 0xFFFFFFFFu);
      std::fill(rec.begin() + long(pairs), rec.begin() + long(a + length), 0);
      std::copy(t.run.begin(), t.run.end(), rec.begin() + long(pairs));
      PutLe(rec, a + 4, length, 4);
      PutLe(rec, a + length, 0xFFFFFFFF, 4);
      PutLe(rec, 0x18, a + length + 8, 4);
    });
    MemDevice dev(c.img);
    RecordingMessage msg;
    ScanResult r = Scan(&dev, &msg, api::SCAN_DATA, true);
    ASSERT_EQ(r.status, 0u) << t.line;
    EXPECT_TRUE(HasLine(msg, t.line)) << t.line;
    if (t.run[0] != 0x21) continue;
    for (uint64_t k = kClusters - 16; k < kClusters; ++k) EXPECT_TRUE(r.Test(k)) << k;
    EXPECT_EQ(r.problems, 0u);
  }
}

TEST(NtfsScanner, BadClusterStreamIsNeverKept) {
  ASSERT_TRUE(NeedSmall());
  // $BadClus:$Bad given a real run over the marker's clusters, where a
  // system file's stream would otherwise be kept.
  Copy c;
  c.EditRecord(8, [](std::vector<uint8_t>& rec) {
    size_t a = Le(rec, 0x14, 2);
    while (!(Le(rec, a, 4) == 0x80 && rec[a + 9] == 4)) a += Le(rec, a + 4, 4);
    size_t pairs = a + Le(rec, a + 0x20, 2);
    const uint8_t run[] = {0x21, 0x10, 0x00, 0x0A, 0x00};
    std::copy(run, run + sizeof run, rec.begin() + long(pairs));
  });
  MemDevice dev(c.img);
  ScanResult r = Scan(&dev);
  ASSERT_EQ(r.status, 0u);
  for (uint64_t k = 0xA00; k < 0xA10; ++k) EXPECT_FALSE(r.Test(k)) << k;
}

TEST(NtfsScanner, DamagedRecordsAndIndexesAreCountedNeverFollowedForever) {
  ASSERT_TRUE(NeedSmall());
  const uint64_t indexFirst = FirstCluster(Small(), Copy().RecordAt(kBigDir), 0xA0);
  {
    MemDevice dev(Small());
    ASSERT_TRUE(Scan(&dev).Test(indexFirst));
  }
  {
    // A record whose fix-up fails is reported and its index is not kept;
    // a record that says it extends another one keeps nothing of its own.
    for (bool extension : {false, true}) {
      Copy c;
      if (extension)
        c.EditRecord(kBigDir, [](std::vector<uint8_t>& rec) { PutLe(rec, 0x20, 5, 8); });
      else
        c.img[c.RecordAt(kBigDir) + 510] ^= 0xFF;
      MemDevice dev(c.img);
      RecordingMessage msg;
      ScanResult r = Scan(&dev, &msg);
      EXPECT_EQ(r.status, 0u);
      EXPECT_FALSE(r.Test(indexFirst));
      EXPECT_EQ(msg.Has(1, "Failed to init record 0x42."), !extension);
    }
  }
  {
    // An attribute whose length runs past the record.
    Copy c;
    c.EditRecord(kLinked, [](std::vector<uint8_t>& rec) { PutLe(rec, AttrIn(rec, 0x10) + 4, 0x10000, 4); });
    MemDevice dev(c.img);
    RecordingMessage msg;
    EXPECT_EQ(Scan(&dev, &msg, 0, true).status, 0u);
    EXPECT_TRUE(HasLine(msg, "record 0x42e: an attribute's length or offsets run past the record"));
  }
  {
    // An attribute list whose entries all point back into the base record at
    // attributes that are not there, or at another file's record.
    for (uint64_t target : {kLinked, kMarker}) {
      Copy c;
      size_t list = size_t(FirstCluster(c.img, c.RecordAt(kLinked), 0x20)) * kCluster;
      for (size_t at = list; Le(c.img, at, 4) != 0 && at < list + 1408; at += Le(c.img, at + 4, 2)) {
        PutLe(c.img, at + 0x10, target, 6);
        PutLe(c.img, at + 0x18, 0x77, 2);
      }
      MemDevice dev(c.img);
      RecordingMessage msg;
      EXPECT_EQ(Scan(&dev, &msg, 0, true).status, 0u);
      EXPECT_TRUE(msg.Has(1, "Failed to init attribute 10 in file 0x42e.")) << target;
    }
  }
  {
    // An index whose first sub-node lists itself as its own child: a cycle
    // the $Extend walk meets and survives.
    Copy c;
    std::memcpy(c.img.data() + c.RecordAt(11), c.img.data() + c.RecordAt(kBigDir), kRecord);
    std::vector<uint8_t> root(c.img.begin() + long(c.RecordAt(11)), c.img.begin() + long(c.RecordAt(11) + kRecord));
    size_t ir = AttrIn(root, 0x90);
    size_t header = ir + Le(root, ir + 0x14, 2) + 0x10;
    size_t entry = header + Le(root, header, 4);
    ASSERT_TRUE(Le(root, entry + 12, 2) & 1) << "the root's first entry has a sub-node";
    uint64_t vcn = Le(root, entry + Le(root, entry + 8, 2) - 8, 8);
    size_t block = size_t(indexFirst + vcn) * kCluster;
    c.EditProtected(block, 4096, [&](std::vector<uint8_t>& b) {
      size_t h = 0x18, e = h + Le(b, h, 4), end = h + Le(b, h + 4, 4);
      while (!(Le(b, e + 12, 2) & 2)) e += Le(b, e + 8, 2);
      if (Le(b, e + 12, 2) & 1) {
        PutLe(b, e + Le(b, e + 8, 2) - 8, vcn, 8);
        return;
      }
      ASSERT_EQ(e + 16, end);
      PutLe(b, e + 8, 24, 2);
      PutLe(b, e + 12, 3, 2);
      PutLe(b, e + 16, vcn, 8);
      PutLe(b, h + 4, Le(b, h + 4, 4) + 8, 4);
    });
    MemDevice dev(c.img);
    RecordingMessage msg;
    EXPECT_EQ(Scan(&dev, &msg, 0, true).status, 0u);
    char want[64];
    std::snprintf(want, sizeof want, "index sub-node VCN 0x%llx is reached twice (a cycle)", (unsigned long long)vcn);
    EXPECT_TRUE(HasLine(msg, want));
  }
}

TEST(NtfsScanner, StopRequestAndVanishedDeviceDiscardTheBitmap) {
  ASSERT_TRUE(NeedSmall());
  TempDir dir;
  testsupport::ExpectInterruptionsEndTheScan(QORV::ScanNtfs, testsupport::DataVolumeFile(dir, "ntfs_small"), 1);
}

// The restart pages of a log Windows wrote pass their checks: no problem
// is counted (mkntfs's reset log, above, has none to check).
TEST(NtfsScanner, RestartPagesOfAWindowsLogCountNoProblem) {
  TempDir dir;
  std::string sample = testsupport::Fixture(dir, "ntfs/ntfs_win10_2k_cluster_index.img.zst");
  if (sample.empty()) GTEST_SKIP() << "the Windows 10 sample is not available";
  testsupport::FileDevice dev(sample);
  RecordingMessage msg;
  ScanResult r = Scan(&dev, &msg, 0, true);
  EXPECT_EQ(r.status, 0u);
  EXPECT_EQ(r.problems, 0u);
  EXPECT_FALSE(HasLine(msg, "$LogFile:")) << "a problem with the log";
}
