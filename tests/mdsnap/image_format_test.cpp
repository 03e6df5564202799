#include "mdsnap/image_format.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

using namespace mdsnap;

namespace {

std::string Header(uint64_t sectors, uint64_t bytes, uint64_t n, uint32_t k, const char* name) {
  char out[kHeaderSize];
  std::memset(out, 0x55, sizeof out);
  FormatHeader(out, sectors, bytes, n, k, name);
  return std::string(out, kHeaderSize);
}

}  // namespace

TEST(ImageFormat, HundredthsAreCappedNeverRoundedUp) {
  EXPECT_EQ(ToGb(1ull << 30).whole, 1u);
  EXPECT_EQ(ToGb(1ull << 30).hundredths, 0u);
  SizeGb justUnder = ToGb((1ull << 30) - 1);
  EXPECT_EQ(justUnder.whole, 0u);
  EXPECT_EQ(justUnder.hundredths, 99u);
  SizeGb half = ToGb(3ull << 29);
  EXPECT_EQ(half.whole, 1u);
  EXPECT_EQ(half.hundredths, 50u);
  EXPECT_EQ(ToGb(0).hundredths, 0u);
  // 10 MiB is 0.0097 GiB; the rounding constant lifts it to 1 hundredth.
  EXPECT_EQ(ToGb(10ull << 20).hundredths, 1u);
}

TEST(ImageFormat, DataOffsetIsBitmapEndRoundedTo4096) {
  EXPECT_EQ(BitmapBytes(0x7FFF8), 65535u);
  EXPECT_EQ(DataOffset(0x7FFF8), 69632u);
  // 64 + B == 4096 exactly: no padding at all.
  EXPECT_EQ(DataOffset((4096 - 64) * 8), 4096u);
  EXPECT_EQ(DataOffset((4096 - 64) * 8 + 1), 8192u);
  EXPECT_EQ(DataOffset(0), 4096u);
  EXPECT_EQ(BitmapBytes(9), 2u);
  EXPECT_EQ(BitmapBytes(UINT64_MAX), (UINT64_MAX >> 3) + 1);
}

// The exact header bytes, parsed back; a name too long for the 64 bytes
// fills them without a terminator.
TEST(ImageFormat, HeaderBytesAreExactAndParseBack) {
  struct Case {
    uint64_t sectors, bytes, n;
    uint32_t k;
    std::string name, text;
    uint32_t gb, hundredths;
  } cases[] = {
      {0x200000, 1ull << 30, 0x40000, 12, "/dev/sdb1", "V: 200000, 1.00 Gb, C: 40000 x c, w: /dev/sdb1", 1, 0},
      {0x7fa000, 0x7fa000ull * 512, 0xff400, 12, "vol.img", "V: 7fa000, 3.99 Gb, C: ff400 x c, w: vol.img", 3, 99},
      {1, 512, 1, 9, std::string(100, 'x'), "V: 1, 0.00 Gb, C: 1 x 9, w: " + std::string(36, 'x'), 0, 0},
  };
  for (const Case& c : cases) {
    std::string h = Header(c.sectors, c.bytes, c.n, c.k, c.name.c_str());
    EXPECT_EQ(h, c.text + std::string(kHeaderSize - c.text.size(), '\0')) << c.text;
    ImageHeader p;
    ASSERT_TRUE(ParseHeader(h.data(), &p)) << c.text;
    EXPECT_EQ(p.version, 2);
    EXPECT_EQ(p.sectors, c.sectors);
    EXPECT_EQ(p.blockCount, c.n);
    EXPECT_EQ(p.blockShift, c.k);
    EXPECT_EQ(p.gb, c.gb);
    EXPECT_EQ(p.hundredths, c.hundredths);
  }
}

// Version 1 headers still parse; garbage, partial headers and shifts or
// counts that overflow do not.
TEST(ImageFormat, ParsesVersion1AndRejectsGarbageAndHostileShifts) {
  char v1[kHeaderSize] = "clusters 3ff, cluster 9";
  ImageHeader p;
  ASSERT_TRUE(ParseHeader(v1, &p));
  EXPECT_EQ(p.version, 1);
  EXPECT_EQ(p.blockCount, 1024u);
  EXPECT_EQ(p.blockShift, 9u);
  EXPECT_EQ(p.byteSize, 524288u);
  for (const char* bad : {"", "(\xb5/\xfd compressed bytes", "V: 100, 1.00 Gb, C: 10",
                          "V: 100, 1.00 Gb, C: 10 x 40, w: x", "clusters ffffffffffffffff, cluster 9"}) {
    char raw[kHeaderSize] = {};
    std::strncpy(raw, bad, sizeof raw - 1);
    EXPECT_FALSE(ParseHeader(raw, &p)) << bad;
  }
}

TEST(ImageFormat, SectorEstimatesUseTheirOwnThresholds) {
  ImageHeader p;
  p.version = 2;
  p.gb = 1;
  p.hundredths = 0;
  // 1 GiB over 1,000,000 sectors: quotient 1073, 1024 for both readers.
  p.sectors = 1000000;
  EXPECT_EQ(EstimateSectorSizeForRestore(p), 1024u);
  EXPECT_EQ(EstimateSectorSizeForInfo(p), 1024u);
  // quotient 1529: restore still 1024, info already 2048.
  p.sectors = 702000;
  EXPECT_EQ(EstimateSectorSizeForRestore(p), 1024u);
  EXPECT_EQ(EstimateSectorSizeForInfo(p), 2048u);
  // quotient 6000: restore 4096, info 4096; 8000: restore 8192.
  p.sectors = (1ull << 30) / 6000;
  EXPECT_EQ(EstimateSectorSizeForRestore(p), 4096u);
  p.sectors = (1ull << 30) / 8000;
  EXPECT_EQ(EstimateSectorSizeForRestore(p), 8192u);
  EXPECT_EQ(EstimateSectorSizeForInfo(p), 4096u);
  p.sectors = 0x7fa000;  // 3.99 GiB of 512-byte sectors
  p.gb = 3;
  p.hundredths = 99;
  EXPECT_EQ(EstimateSectorSizeForRestore(p), 512u);
  EXPECT_EQ(EstimateSectorSizeForInfo(p), 512u);
  p.sectors = 0;  // hostile: no division by zero
  EXPECT_EQ(EstimateSectorSizeForRestore(p), 8192u);
}
