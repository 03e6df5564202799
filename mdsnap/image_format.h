// The metadata image: a 64-byte text header, the used-block bitmap, zero
// padding to a 4096-byte boundary, the stored blocks, and an optional tail of
// the volume's last bytes. Written and read strictly front to back.
#pragma once
#include <cstdint>
#include <string>

namespace mdsnap {

constexpr uint32_t kHeaderSize = 64;
constexpr uint32_t kTailSize = 1024;
constexpr uint32_t kTailMin = 512;

// Whole gibibytes and capped hundredths, as every "%u.%02u" size is printed.
struct SizeGb {
  uint32_t whole;
  uint32_t hundredths;
};
SizeGb ToGb(uint64_t bytes);

inline uint64_t BitmapBytes(uint64_t blockCount) { return blockCount / 8 + ((blockCount & 7) != 0); }
inline uint64_t DataOffset(uint64_t blockCount) { return (BitmapBytes(blockCount) + 4159) & ~uint64_t(4095); }

// Formats the current (version 2) header into exactly 64 bytes.
void FormatHeader(char out[kHeaderSize], uint64_t volumeSectors, uint64_t volumeBytes, uint64_t blockCount,
                  uint32_t blockShift, const char* deviceName);

struct ImageHeader {
  int version = 0;            // 1 or 2
  uint64_t blockCount = 0;    // N
  uint32_t blockShift = 0;    // K
  uint64_t sectors = 0;       // V (version 2)
  uint64_t byteSize = 0;      // version 1: (highest block + 1) << K
  uint32_t gb = 0, hundredths = 0;
};
// Returns false when the 64 bytes fit neither header form.
bool ParseHeader(const char in[kHeaderSize], ImageHeader* out);

// The source sector size a reader assumes for a version 2 header; restore and
// info use different thresholds.
uint32_t EstimateSectorSizeForRestore(const ImageHeader& h);
uint32_t EstimateSectorSizeForInfo(const ImageHeader& h);

}  // namespace mdsnap
