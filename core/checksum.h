// Checksums that on-disk formats use to protect their structures. Each is
// the raw running value: callers apply the format's own seed and final
// inversion, so one routine serves every format.
#pragma once
#include <cstddef>
#include <cstdint>

namespace QORV {

// CRC-32C (Castagnoli, reflected polynomial 0x82F63B78), no inversion:
// with the CPU's CRC instruction where it has one (x86 with SSE4.2),
// otherwise the portable table loop, which gives the same values.
uint32_t Crc32c(uint32_t crc, const void* data, size_t size);
uint32_t Crc32cPortable(uint32_t crc, const void* data, size_t size);
// CRC-16 (reflected polynomial 0xA001), no inversion.
uint16_t Crc16(uint16_t crc, const void* data, size_t size);

}  // namespace QORV
