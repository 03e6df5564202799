#include "mdsnap/image_format.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>

namespace mdsnap {

SizeGb ToGb(uint64_t bytes) {
  uint32_t h = uint32_t(((((bytes >> 10) & 0xFFFFF) * 100) + 0x7FFFF) >> 20);
  // Never round up into the next whole gigabyte.
  return {uint32_t(bytes >> 30), h >= 100 ? 99u : h};
}

void FormatHeader(char out[kHeaderSize], uint64_t volumeSectors, uint64_t volumeBytes, uint64_t blockCount,
                  uint32_t blockShift, const char* deviceName) {
  char text[kHeaderSize + 1];
  std::memset(text, 0, sizeof text);
  SizeGb gb = ToGb(volumeBytes);
  std::snprintf(text, sizeof text, "V: %" PRIx64 ", %u.%02u Gb, C: %" PRIx64 " x %x, w: %s", volumeSectors, gb.whole,
                gb.hundredths, blockCount, blockShift, deviceName ? deviceName : "");
  // A 64-character text fills the area with no terminator; readers go by the format.
  std::memcpy(out, text, kHeaderSize);
}

bool ParseHeader(const char in[kHeaderSize], ImageHeader* out) {
  char text[kHeaderSize + 1];
  std::memcpy(text, in, kHeaderSize);
  text[kHeaderSize] = 0;
  ImageHeader h;
  uint64_t highest = 0;
  unsigned shift = 0;
  if (std::sscanf(text, "clusters %" SCNx64 ", cluster %x", &highest, &shift) == 2) {
    if (shift >= 64 || highest == UINT64_MAX) return false;
    h.version = 1;
    h.blockCount = highest + 1;
    h.blockShift = shift;
    h.byteSize = h.blockCount > (UINT64_MAX >> shift) ? UINT64_MAX : h.blockCount << shift;
    SizeGb gb = ToGb(h.byteSize);
    h.gb = gb.whole;
    h.hundredths = gb.hundredths;
    *out = h;
    return true;
  }
  unsigned gb = 0, hund = 0;
  if (std::sscanf(text, "V: %" SCNx64 ", %u.%2u Gb, C: %" SCNx64 " x %x", &h.sectors, &gb, &hund, &h.blockCount,
                  &shift) == 5) {
    // Shifts of 64 or more would be undefined in every later computation.
    if (shift >= 64) return false;
    h.version = 2;
    h.blockShift = shift;
    h.gb = gb;
    h.hundredths = hund;
    *out = h;
    return true;
  }
  return false;
}

static uint64_t SectorQuotient(const ImageHeader& h) {
  if (h.sectors == 0) return UINT64_MAX;
  return ((uint64_t(h.gb) << 30) + (uint64_t(h.hundredths) << 20)) / h.sectors;
}

uint32_t EstimateSectorSizeForRestore(const ImageHeader& h) {
  uint64_t q = SectorQuotient(h);
  return q < 768 ? 512 : q < 1536 ? 1024 : q < 3072 ? 2048 : q < 6144 ? 4096 : 8192;
}

uint32_t EstimateSectorSizeForInfo(const ImageHeader& h) {
  uint64_t q = SectorQuotient(h);
  return q < 800 ? 512 : q < 1500 ? 1024 : q < 3000 ? 2048 : 4096;
}

}  // namespace mdsnap
