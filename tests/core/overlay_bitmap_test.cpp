#include <gtest/gtest.h>

#include <numeric>
#include <vector>

#include "core/bitmap.h"
#include "core/overlay.h"
#include "tests/support/file_device.h"
#include "tests/support/test_env.h"

using namespace QORV;
using testsupport::MemDevice;

namespace {

std::vector<uint8_t> Pattern(size_t n) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = uint8_t(i * 7 + 3);
  return v;
}

}  // namespace

TEST(Overlay, StraddlingWriteKeepsTwoSectorsAndLeavesLowerUntouched) {
  testsupport::TestEnv t;
  MemDevice lower(Pattern(4096));
  const std::vector<uint8_t> original = lower.bytes;
  CRWBlockMemMdSnap overlay(&t.env, &lower);
  const uint8_t three[3] = {0xA1, 0xA2, 0xA3};
  ASSERT_EQ(overlay.WriteBytes(510, three, 3, 0), api::QORV_OK);
  EXPECT_EQ(overlay.SectorCount(), 2u);
  EXPECT_EQ(lower.bytes, original);
  std::vector<uint8_t> got(1024);
  ASSERT_EQ(overlay.ReadBytes(0, got.data(), 1024, 0), api::QORV_OK);
  std::vector<uint8_t> want(original.begin(), original.begin() + 1024);
  want[510] = 0xA1;
  want[511] = 0xA2;
  want[512] = 0xA3;
  EXPECT_EQ(got, want);
  overlay.Empty();
  EXPECT_EQ(overlay.SectorCount(), 0u);
  ASSERT_EQ(overlay.ReadBytes(0, got.data(), 1024, 0), api::QORV_OK);
  EXPECT_TRUE(std::equal(got.begin(), got.end(), original.begin()));
  EXPECT_EQ(t.mem.allocations, t.mem.frees);
}

TEST(Overlay, WholeSectorWriteDoesNotReadLower) {
  testsupport::TestEnv t;
  MemDevice lower(Pattern(4096));
  CRWBlockMemMdSnap overlay(&t.env, &lower);
  std::vector<uint8_t> ones(512, 1);
  ASSERT_EQ(overlay.WriteBytes(1024, ones.data(), 512, 0), api::QORV_OK);
  EXPECT_EQ(lower.reads, 0u);
  overlay.Empty();
}

TEST(Overlay, ZeroWriteFlagAndNoDataReadFlag) {
  testsupport::TestEnv t;
  MemDevice lower(Pattern(2048));
  CRWBlockMemMdSnap overlay(&t.env, &lower);
  ASSERT_EQ(overlay.WriteBytes(100, nullptr, 50, api::WRITE_ZEROS), api::QORV_OK);
  std::vector<uint8_t> got(512, 0xEE);
  ASSERT_EQ(overlay.ReadBytes(0, got.data(), 512, 0), api::QORV_OK);
  for (int i = 100; i < 150; ++i) EXPECT_EQ(got[i], 0);
  EXPECT_EQ(got[99], lower.bytes[99]);
  EXPECT_NE(lower.bytes[120], 0);
  std::vector<uint8_t> untouched(512, 0xEE);
  ASSERT_EQ(overlay.ReadBytes(0, untouched.data(), 512, api::READ_NO_DATA), api::QORV_OK);
  EXPECT_EQ(untouched[0], 0xEE);
  overlay.Empty();
}

TEST(Overlay, ForwardsInSectorPiecesAndPassesErrorsThrough) {
  testsupport::TestEnv t;
  MemDevice lower(Pattern(2048));
  CRWBlockMemMdSnap overlay(&t.env, &lower);
  std::vector<uint8_t> got(1500);
  ASSERT_EQ(overlay.ReadBytes(300, got.data(), 1500, 0), api::QORV_OK);
  EXPECT_EQ(lower.reads, 4u);  // 212 + 512 + 512 + 264
  EXPECT_TRUE(std::equal(got.begin(), got.end(), lower.bytes.begin() + 300));
  EXPECT_EQ(overlay.ReadBytes(2000, got.data(), 100, 0), api::ERR_IO_RANGE);
  // A partial write whose sector cannot be read from below keeps nothing.
  const uint8_t b = 1;
  EXPECT_EQ(overlay.WriteBytes(4096, &b, 1, 0), api::ERR_IO_RANGE);
  EXPECT_EQ(overlay.SectorCount(), 0u);
  EXPECT_EQ(t.mem.allocations, t.mem.frees);
}

TEST(Overlay, NoLowerDevice) {
  testsupport::TestEnv t;
  CRWBlockMemMdSnap overlay(&t.env, nullptr);
  EXPECT_EQ(overlay.GetSize(), 1u);
  EXPECT_EQ(overlay.GetSectorSize(), 1u);
  EXPECT_EQ(overlay.Flush(0), api::ERR_IO_RANGE);
  EXPECT_FALSE(overlay.IsReadOnly());
}

TEST(BlockBitmap, MarkIsClampedToTheBitmap) {
  std::vector<uint8_t> bytes(3, 0);
  BlockBitmap b(bytes.data(), 20);
  EXPECT_TRUE(b.Mark(3, 10));
  EXPECT_FALSE(b.Mark(18, 100));  // cut at bit 19
  EXPECT_FALSE(b.Mark(1000, 1));
  EXPECT_EQ(bytes[0], 0xF8);
  EXPECT_EQ(bytes[1], 0x1F);
  EXPECT_EQ(bytes[2], 0x0C);
  EXPECT_EQ(b.CountSet(), 12u);
  EXPECT_FALSE(b.TestAndSet(0));
  EXPECT_TRUE(b.TestAndSet(0));
  EXPECT_TRUE(b.TestAndSet(20));  // outside counts as visited
}

TEST(BlockBitmap, CountMasksThePartialLastByte) {
  uint8_t bytes[2] = {0xFF, 0xFF};
  EXPECT_EQ(CountSetBits(bytes, 12), 12u);
  EXPECT_EQ(CountSetBits(bytes, 16), 16u);
  EXPECT_EQ(CountSetBits(bytes, 0), 0u);
}

TEST(RunWalker, RunsAreCutAtTheLongestTransfer) {
  std::vector<uint8_t> bytes(8, 0);
  BlockBitmap b(bytes.data(), 64);
  b.Mark(2, 3);
  b.Mark(8, 30);
  b.Mark(63, 1);
  RunWalker w(bytes.data(), 64, 16);
  std::vector<std::pair<uint64_t, uint64_t>> runs;
  uint64_t f, n;
  while (w.Next(&f, &n)) runs.emplace_back(f, n);
  std::vector<std::pair<uint64_t, uint64_t>> want = {{2, 3}, {8, 16}, {24, 14}, {63, 1}};
  EXPECT_EQ(runs, want);
  RunWalker none(bytes.data(), 2, 16);
  EXPECT_FALSE(none.Next(&f, &n));
}
