// The overlay every dump reads through: writes stay above the volume, and a
// failed read below it ends as a sector-by-sector read would.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

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

// A volume with one unreadable sector. Like the device layer, it reports each
// failed read itself; the quiet reader beside it reads the same bytes and
// reports nothing.
class BadSectorDevice : public MemDevice, public IQuietReader {
 public:
  BadSectorDevice(std::vector<uint8_t> bytes, uint64_t bad) : MemDevice(std::move(bytes)), bad_(bad) {}
  api::status_t ReadBytes(uint64_t off, void* buf, uint32_t n, uint32_t flags) override {
    if (Touches(off, n)) {
      ++reads;
      char line[80];
      std::snprintf(line, sizeof line, "error reading 0x%x bytes at offset 0x%llx", n, (unsigned long long)off);
      log.push_back(line);
      return api::status_t(5);
    }
    return MemDevice::ReadBytes(off, buf, n, flags);
  }
  bool ReadAll(uint64_t off, void* buf, uint32_t n) override {
    ++quietReads;
    if (Touches(off, n) || off + n > bytes.size()) return false;
    std::memcpy(buf, bytes.data() + off, n);
    return true;
  }
  std::vector<std::string> log;
  uint64_t quietReads = 0;

 private:
  bool Touches(uint64_t off, uint32_t n) const { return off < (bad_ + 1) * 512 && off + n > bad_ * 512; }
  uint64_t bad_;
};

}  // namespace

// Writes stay in the overlay: a straddling one keeps two sectors, a whole
// sector is taken without reading below, a zero write covers its range only,
// and a no-data read leaves the buffer alone. The volume is never written.
TEST(Overlay, WritesStayAboveTheVolume) {
  testsupport::TestEnv t;
  MemDevice lower(Pattern(4096));
  const std::vector<uint8_t> original = lower.bytes;
  CRWBlockMemMdSnap overlay(&t.env, &lower);
  std::vector<uint8_t> ones(512, 1);
  ASSERT_EQ(overlay.WriteBytes(1024, ones.data(), 512, 0), api::QORV_OK);
  EXPECT_EQ(lower.reads, 0u);
  const uint8_t three[3] = {0xA1, 0xA2, 0xA3};
  ASSERT_EQ(overlay.WriteBytes(510, three, 3, 0), api::QORV_OK);
  ASSERT_EQ(overlay.WriteBytes(1600, nullptr, 50, api::WRITE_ZEROS), api::QORV_OK);
  EXPECT_EQ(overlay.SectorCount(), 4u);
  EXPECT_EQ(lower.bytes, original);
  std::vector<uint8_t> got(2048);
  ASSERT_EQ(overlay.ReadBytes(0, got.data(), 2048, 0), api::QORV_OK);
  std::vector<uint8_t> want(original.begin(), original.begin() + 2048);
  std::copy(three, three + 3, want.begin() + 510);
  std::fill(want.begin() + 1024, want.begin() + 1536, 1);
  std::fill(want.begin() + 1600, want.begin() + 1650, 0);
  EXPECT_EQ(got, want);
  std::vector<uint8_t> untouched(512, 0xEE);
  ASSERT_EQ(overlay.ReadBytes(0, untouched.data(), 512, api::READ_NO_DATA), api::QORV_OK);
  EXPECT_EQ(untouched[0], 0xEE);
  // Past the volume's end: a read fails, and a partial write whose sector
  // cannot be read from below keeps nothing.
  EXPECT_EQ(overlay.ReadBytes(4000, got.data(), 100, 0), api::ERR_IO_RANGE);
  EXPECT_EQ(overlay.WriteBytes(4096, three, 1, 0), api::ERR_IO_RANGE);
  EXPECT_EQ(overlay.SectorCount(), 4u);
  overlay.Empty();
  EXPECT_EQ(overlay.SectorCount(), 0u);
  ASSERT_EQ(overlay.ReadBytes(0, got.data(), 2048, 0), api::QORV_OK);
  EXPECT_TRUE(std::equal(got.begin(), got.end(), original.begin()));
  EXPECT_EQ(t.mem.allocations, t.mem.frees);
}

TEST(Overlay, BadSectorInALargeReadFailsAsSectorBySector) {
  testsupport::TestEnv t;
  // The same read, sector by sector and merged: same status, same report,
  // the same reads of the wrapped device after the one merged attempt.
  BadSectorDevice plain(Pattern(64 * 1024), 40), merged(Pattern(64 * 1024), 40);
  CRWBlockMemMdSnap byPieces(&t.env, &plain), overlay(&t.env, &merged, &merged);
  std::vector<uint8_t> a(40000), b(40000);
  const api::status_t want = byPieces.ReadBytes(1000, a.data(), uint32_t(a.size()), 0);
  EXPECT_EQ(want, api::status_t(5));
  EXPECT_EQ(overlay.ReadBytes(1000, b.data(), uint32_t(b.size()), 0), want);
  EXPECT_EQ(merged.log, plain.log);
  ASSERT_EQ(merged.log.size(), 1u);
  EXPECT_EQ(merged.log[0], "error reading 0x200 bytes at offset 0x5000");
  EXPECT_EQ(merged.quietReads, 1u);
  EXPECT_EQ(merged.reads, plain.reads);
  EXPECT_EQ(plain.reads, 40u);  // sectors 1 to 39, then the bad one
  EXPECT_TRUE(std::equal(a.begin(), a.begin() + 0x5000 - 1000, b.begin()));
  // A range past the end is not tried quietly; the device refuses it as before.
  EXPECT_EQ(overlay.ReadBytes(60 * 1024, b.data(), 8192, 0), api::ERR_IO_RANGE);
  EXPECT_EQ(merged.quietReads, 1u);
  // Asked to stay quiet, the overlay fails with no report and no reads by
  // sectors: the caller reads the range again in pieces.
  const uint64_t reads = merged.reads;
  EXPECT_NE(overlay.ReadBytes(1000, b.data(), uint32_t(b.size()), api::READ_QUIET), api::QORV_OK);
  EXPECT_EQ(merged.log.size(), 1u);
  EXPECT_EQ(merged.reads, reads);
  EXPECT_EQ(merged.quietReads, 2u);
}
