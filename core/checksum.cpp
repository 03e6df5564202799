#include "core/checksum.h"

#include <cstring>

#if (defined(__x86_64__) || defined(__i386__)) && (defined(__GNUC__) || defined(__clang__))
#define QORV_CRC32C_X86 1
#include <nmmintrin.h>
#endif

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

// Eight bytes per step ("slicing by 8"): table k gives the effect of a byte
// followed by k zero bytes. Tree nodes are checksummed whole, so without the
// CPU's instruction this is where a Btrfs scan spends most of its time.
struct Crc32cSlices {
  uint32_t t[8][256];
  Crc32cSlices() {
    static const ReflectedTable<uint32_t, 0x82F63B78u> base;
    for (uint32_t i = 0; i < 256; ++i) t[0][i] = base.entries[i];
    for (int k = 1; k < 8; ++k)
      for (uint32_t i = 0; i < 256; ++i) t[k][i] = (t[k - 1][i] >> 8) ^ t[0][t[k - 1][i] & 0xFF];
  }
};

#ifdef QORV_CRC32C_X86
// The CPU's own CRC-32C instruction: two to three times the table loop.
#ifdef __x86_64__
constexpr uint32_t kCrc32cPoly = 0x82F63B78u;

// a * b modulo the polynomial, in the reflected order (bit 31 is x^0).
uint32_t MultModP(uint32_t a, uint32_t b) {
  uint32_t p = 0;
  for (uint32_t m = 1u << 31; m; m >>= 1) {
    if (a & m) p ^= b;
    b = (b & 1) ? (b >> 1) ^ kCrc32cPoly : b >> 1;
  }
  return p;
}

// Carries a state across `bytes` zero bytes: a linear map (multiplication by
// x^(8 * bytes)), applied a byte of the state at a time.
struct Crc32cZeros {
  uint32_t t[4][256];
  explicit Crc32cZeros(uint64_t bytes) {
    uint32_t k = 1u << 31, x = 1u << 30;  // 1 and x
    for (uint64_t e = 8 * bytes; e; e >>= 1, x = MultModP(x, x))
      if (e & 1) k = MultModP(k, x);
    for (int j = 0; j < 4; ++j)
      for (uint32_t b = 0; b < 256; ++b) t[j][b] = MultModP(b << (8 * j), k);
  }
  uint32_t operator()(uint32_t s) const {
    return t[0][s & 0xFF] ^ t[1][(s >> 8) & 0xFF] ^ t[2][(s >> 16) & 0xFF] ^ t[3][s >> 24];
  }
};

inline uint64_t Load64(const uint8_t* p) {
  uint64_t v;
  std::memcpy(&v, p, 8);
  return v;
}
#endif

__attribute__((target("sse4.2"))) uint32_t Crc32cSse42(uint32_t crc, const uint8_t* p, size_t size) {
  for (; size > 0 && (reinterpret_cast<uintptr_t>(p) & 7); --size) crc = _mm_crc32_u8(crc, *p++);
#ifdef __x86_64__
  // Three streams at once: the instruction takes three cycles but a new one
  // can start every cycle. The states of the second and third stream start
  // at zero and are joined by carrying the earlier ones across their lanes.
  constexpr size_t kLane = 512;
  static const Crc32cZeros oneLane(kLane), twoLanes(2 * kLane);
  uint64_t c = crc;
  for (; size >= 3 * kLane; size -= 3 * kLane, p += 3 * kLane) {
    uint64_t b = 0, d = 0;
    for (size_t i = 0; i < kLane; i += 8) {
      c = _mm_crc32_u64(c, Load64(p + i));
      b = _mm_crc32_u64(b, Load64(p + kLane + i));
      d = _mm_crc32_u64(d, Load64(p + 2 * kLane + i));
    }
    c = twoLanes(uint32_t(c)) ^ oneLane(uint32_t(b)) ^ uint32_t(d);
  }
  for (; size >= 8; size -= 8, p += 8) c = _mm_crc32_u64(c, Load64(p));
  crc = uint32_t(c);
#else
  for (; size >= 4; size -= 4, p += 4) {
    uint32_t v;
    std::memcpy(&v, p, 4);
    crc = _mm_crc32_u32(crc, v);
  }
#endif
  for (; size > 0; --size) crc = _mm_crc32_u8(crc, *p++);
  return crc;
}

bool HasSse42() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("sse4.2");
}
#endif

}  // namespace

uint32_t Crc32c(uint32_t crc, const void* data, size_t size) {
#ifdef QORV_CRC32C_X86
  static const bool fast = HasSse42();
  if (fast) return Crc32cSse42(crc, static_cast<const uint8_t*>(data), size);
#endif
  return Crc32cPortable(crc, data, size);
}

uint32_t Crc32cPortable(uint32_t crc, const void* data, size_t size) {
  static const Crc32cSlices s;
  const auto* p = static_cast<const uint8_t*>(data);
  for (; size >= 8; size -= 8, p += 8) {
    crc ^= uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
    crc = s.t[7][crc & 0xFF] ^ s.t[6][(crc >> 8) & 0xFF] ^ s.t[5][(crc >> 16) & 0xFF] ^ s.t[4][crc >> 24] ^
          s.t[3][p[4]] ^ s.t[2][p[5]] ^ s.t[1][p[6]] ^ s.t[0][p[7]];
  }
  for (; size > 0; --size, ++p) crc = s.t[0][(crc ^ *p) & 0xFF] ^ (crc >> 8);
  return crc;
}

uint16_t Crc16(uint16_t crc, const void* data, size_t size) {
  static const ReflectedTable<uint16_t, 0xA001u> table;
  const auto* p = static_cast<const uint8_t*>(data);
  for (size_t i = 0; i < size; ++i) crc = uint16_t(table.entries[(crc ^ p[i]) & 0xFF] ^ (crc >> 8));
  return crc;
}

}  // namespace QORV
