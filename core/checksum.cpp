#include "core/checksum.h"

namespace QORV {

namespace {

template <class T, T kPoly>
struct ReflectedTable {
  T entries[256];
  ReflectedTable() {
    for (uint32_t i = 0; i < 256; ++i) {
      T c = T(i);
      for (int k = 0; k < 8; ++k) c = (c & 1) ? T((c >> 1) ^ kPoly) : T(c >> 1);
      entries[i] = c;
    }
  }
};

}  // namespace

uint32_t Crc32c(uint32_t crc, const void* data, size_t size) {
  static const ReflectedTable<uint32_t, 0x82F63B78u> table;
  const auto* p = static_cast<const uint8_t*>(data);
  for (size_t i = 0; i < size; ++i) crc = table.entries[(crc ^ p[i]) & 0xFF] ^ (crc >> 8);
  return crc;
}

uint16_t Crc16(uint16_t crc, const void* data, size_t size) {
  static const ReflectedTable<uint16_t, 0xA001u> table;
  const auto* p = static_cast<const uint8_t*>(data);
  for (size_t i = 0; i < size; ++i) crc = uint16_t(table.entries[(crc ^ p[i]) & 0xFF] ^ (crc >> 8));
  return crc;
}

}  // namespace QORV
