#include "fs/btrfs/hash.h"

#include <cstring>

namespace QORV {
namespace Btrfs {
namespace {

inline uint64_t Rotl64(uint64_t v, int n) { return (v << n) | (v >> (64 - n)); }
inline uint64_t Rotr64(uint64_t v, int n) { return (v >> n) | (v << (64 - n)); }
inline uint32_t Rotr32(uint32_t v, int n) { return (v >> n) | (v << (32 - n)); }

inline uint64_t Le64(const uint8_t* p) {
  uint64_t v = 0;
  for (int i = 8; i-- > 0;) v = (v << 8) | p[i];
  return v;
}
inline uint32_t Le32(const uint8_t* p) { return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24; }
inline uint32_t Be32(const uint8_t* p) { return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]; }

// xxHash64 primes.
constexpr uint64_t kP1 = 0x9E3779B185EBCA87ull, kP2 = 0xC2B2AE3D27D4EB4Full, kP3 = 0x165667B19E3779F9ull;
constexpr uint64_t kP4 = 0x85EBCA77C2B2AE63ull, kP5 = 0x27D4EB2F165667C5ull;

inline uint64_t XxRound(uint64_t acc, uint64_t input) { return Rotl64(acc + input * kP2, 31) * kP1; }
inline uint64_t XxMerge(uint64_t acc, uint64_t v) { return (acc ^ XxRound(0, v)) * kP1 + kP4; }

constexpr uint32_t kSha256K[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5, 0xd807aa98, 0x12835b01,
    0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174, 0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc,
    0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da, 0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147,
    0x06ca6351, 0x14292967, 0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070, 0x19a4c116, 0x1e376c08,
    0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3, 0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208,
    0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

void Sha256Block(uint32_t h[8], const uint8_t* block) {
  uint32_t w[64];
  for (int i = 0; i < 16; ++i) w[i] = Be32(block + 4 * i);
  for (int i = 16; i < 64; ++i) {
    uint32_t s0 = Rotr32(w[i - 15], 7) ^ Rotr32(w[i - 15], 18) ^ (w[i - 15] >> 3);
    uint32_t s1 = Rotr32(w[i - 2], 17) ^ Rotr32(w[i - 2], 19) ^ (w[i - 2] >> 10);
    w[i] = w[i - 16] + s0 + w[i - 7] + s1;
  }
  uint32_t a = h[0], b = h[1], c = h[2], d = h[3], e = h[4], f = h[5], g = h[6], k = h[7];
  for (int i = 0; i < 64; ++i) {
    uint32_t t1 = k + (Rotr32(e, 6) ^ Rotr32(e, 11) ^ Rotr32(e, 25)) + ((e & f) ^ (~e & g)) + kSha256K[i] + w[i];
    uint32_t t2 = (Rotr32(a, 2) ^ Rotr32(a, 13) ^ Rotr32(a, 22)) + ((a & b) ^ (a & c) ^ (b & c));
    k = g;
    g = f;
    f = e;
    e = d + t1;
    d = c;
    c = b;
    b = a;
    a = t1 + t2;
  }
  h[0] += a; h[1] += b; h[2] += c; h[3] += d; h[4] += e; h[5] += f; h[6] += g; h[7] += k;
}

// BLAKE2b: the SHA-512 initial values and the message schedule of its ten
// permutations (rounds 10 and 11 reuse the first two).
constexpr uint64_t kBlakeIv[8] = {0x6a09e667f3bcc908ull, 0xbb67ae8584caa73bull, 0x3c6ef372fe94f82bull,
                                  0xa54ff53a5f1d36f1ull, 0x510e527fade682d1ull, 0x9b05688c2b3e6c1full,
                                  0x1f83d9abfb41bd6bull, 0x5be0cd19137e2179ull};
constexpr uint8_t kSigma[10][16] = {
    {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}, {14, 10, 4, 8, 9, 15, 13, 6, 1, 12, 0, 2, 11, 7, 5, 3},
    {11, 8, 12, 0, 5, 2, 15, 13, 10, 14, 3, 6, 7, 1, 9, 4}, {7, 9, 3, 1, 13, 12, 11, 14, 2, 6, 5, 10, 4, 0, 15, 8},
    {9, 0, 5, 7, 2, 4, 10, 15, 14, 1, 11, 12, 6, 8, 3, 13}, {2, 12, 6, 10, 0, 11, 8, 3, 4, 13, 7, 5, 15, 14, 1, 9},
    {12, 5, 1, 15, 14, 13, 4, 10, 0, 7, 6, 3, 9, 2, 8, 11}, {13, 11, 7, 14, 12, 1, 3, 9, 5, 0, 15, 4, 8, 6, 2, 10},
    {6, 15, 14, 9, 11, 3, 0, 8, 12, 2, 13, 7, 1, 4, 10, 5}, {10, 2, 8, 4, 7, 6, 1, 5, 15, 11, 9, 14, 3, 12, 13, 0}};

void Blake2bCompress(uint64_t h[8], const uint8_t* block, uint64_t counter, bool last) {
  uint64_t m[16], v[16];
  for (int i = 0; i < 16; ++i) m[i] = Le64(block + 8 * i);
  for (int i = 0; i < 8; ++i) {
    v[i] = h[i];
    v[i + 8] = kBlakeIv[i];
  }
  v[12] ^= counter;
  if (last) v[14] = ~v[14];
  auto g = [&](int a, int b, int c, int d, uint64_t x, uint64_t y) {
    v[a] = v[a] + v[b] + x;
    v[d] = Rotr64(v[d] ^ v[a], 32);
    v[c] = v[c] + v[d];
    v[b] = Rotr64(v[b] ^ v[c], 24);
    v[a] = v[a] + v[b] + y;
    v[d] = Rotr64(v[d] ^ v[a], 16);
    v[c] = v[c] + v[d];
    v[b] = Rotr64(v[b] ^ v[c], 63);
  };
  for (int r = 0; r < 12; ++r) {
    const uint8_t* s = kSigma[r % 10];
    g(0, 4, 8, 12, m[s[0]], m[s[1]]);
    g(1, 5, 9, 13, m[s[2]], m[s[3]]);
    g(2, 6, 10, 14, m[s[4]], m[s[5]]);
    g(3, 7, 11, 15, m[s[6]], m[s[7]]);
    g(0, 5, 10, 15, m[s[8]], m[s[9]]);
    g(1, 6, 11, 12, m[s[10]], m[s[11]]);
    g(2, 7, 8, 13, m[s[12]], m[s[13]]);
    g(3, 4, 9, 14, m[s[14]], m[s[15]]);
  }
  for (int i = 0; i < 8; ++i) h[i] ^= v[i] ^ v[i + 8];
}

}  // namespace

uint64_t XxHash64(const void* data, size_t size, uint64_t seed) {
  const auto* p = static_cast<const uint8_t*>(data);
  const uint8_t* end = p + size;
  uint64_t h;
  if (size >= 32) {
    uint64_t v1 = seed + kP1 + kP2, v2 = seed + kP2, v3 = seed, v4 = seed - kP1;
    for (; end - p >= 32; p += 32) {
      v1 = XxRound(v1, Le64(p));
      v2 = XxRound(v2, Le64(p + 8));
      v3 = XxRound(v3, Le64(p + 16));
      v4 = XxRound(v4, Le64(p + 24));
    }
    h = Rotl64(v1, 1) + Rotl64(v2, 7) + Rotl64(v3, 12) + Rotl64(v4, 18);
    h = XxMerge(XxMerge(XxMerge(XxMerge(h, v1), v2), v3), v4);
  } else {
    h = seed + kP5;
  }
  h += size;
  for (; end - p >= 8; p += 8) h = Rotl64(h ^ XxRound(0, Le64(p)), 27) * kP1 + kP4;
  if (end - p >= 4) {
    h = Rotl64(h ^ (uint64_t(Le32(p)) * kP1), 23) * kP2 + kP3;
    p += 4;
  }
  for (; p < end; ++p) h = Rotl64(h ^ (*p * kP5), 11) * kP1;
  h ^= h >> 33;
  h *= kP2;
  h ^= h >> 29;
  h *= kP3;
  return h ^ (h >> 32);
}

void Sha256(const void* data, size_t size, uint8_t digest[32]) {
  uint32_t h[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a, 0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
  const auto* p = static_cast<const uint8_t*>(data);
  size_t left = size;
  for (; left >= 64; left -= 64, p += 64) Sha256Block(h, p);
  // The tail, the 0x80 terminator and the bit length fill one or two blocks.
  uint8_t tail[128] = {};
  std::memcpy(tail, p, left);
  tail[left] = 0x80;
  size_t blocks = left + 9 > 64 ? 2 : 1;
  uint64_t bits = uint64_t(size) * 8;
  for (int i = 0; i < 8; ++i) tail[blocks * 64 - 1 - i] = uint8_t(bits >> (8 * i));
  for (size_t b = 0; b < blocks; ++b) Sha256Block(h, tail + 64 * b);
  for (int i = 0; i < 8; ++i)
    for (int j = 0; j < 4; ++j) digest[4 * i + j] = uint8_t(h[i] >> (24 - 8 * j));
}

void Blake2b256(const void* data, size_t size, uint8_t digest[32]) {
  uint64_t h[8];
  for (int i = 0; i < 8; ++i) h[i] = kBlakeIv[i];
  h[0] ^= 0x01010000ull | 32;  // depth 1, fanout 1, no key, 32-byte digest
  const auto* p = static_cast<const uint8_t*>(data);
  size_t left = size;
  uint64_t counter = 0;
  // The last block (even a full one) is compressed with the final flag.
  for (; left > 128; left -= 128, p += 128) {
    counter += 128;
    Blake2bCompress(h, p, counter, false);
  }
  uint8_t last[128] = {};
  std::memcpy(last, p, left);
  counter += left;
  Blake2bCompress(h, last, counter, true);
  for (int i = 0; i < 32; ++i) digest[i] = uint8_t(h[i / 8] >> (8 * (i % 8)));
}

}  // namespace Btrfs
}  // namespace QORV
