#include "core/bitmap.h"

#include <cstring>

namespace QORV {

bool BlockBitmap::Mark(uint64_t first, uint64_t n) {
  if (first >= count_) return n == 0;
  bool inside = n <= count_ - first;
  uint64_t end = inside ? first + n : count_;
  uint64_t i = first;
  for (; i < end && (i & 7); ++i) bits_[i >> 3] |= uint8_t(1u << (i & 7));
  // Whole bytes at once: a claimed extent can span most of a 512 MiB bitmap.
  if (i + 8 <= end) {
    uint64_t bytes = (end - i) >> 3;
    std::memset(bits_ + (i >> 3), 0xFF, size_t(bytes));
    i += bytes << 3;
  }
  for (; i < end; ++i) bits_[i >> 3] |= uint8_t(1u << (i & 7));
  return inside;
}

namespace {
// Without a popcount instruction in the target, the compiler's builtin is a
// library call per word; a few shifts and one multiply are cheaper.
inline uint64_t PopCount64(uint64_t x) {
  x -= (x >> 1) & 0x5555555555555555ull;
  x = (x & 0x3333333333333333ull) + ((x >> 2) & 0x3333333333333333ull);
  x = (x + (x >> 4)) & 0x0F0F0F0F0F0F0F0Full;
  return (x * 0x0101010101010101ull) >> 56;
}
}  // namespace

uint64_t CountSetBits(const uint8_t* bits, uint64_t count) {
  uint64_t full = count >> 3, total = 0, i = 0;
  // Eight bytes a step; most words of a large volume's bitmap are empty.
  for (; i + 8 <= full; i += 8) {
    uint64_t w;
    std::memcpy(&w, bits + i, 8);
    if (w != 0) total += PopCount64(w);
  }
  for (; i < full; ++i) total += PopCount64(bits[i]);
  if (count & 7) total += PopCount64(bits[full] & ((1u << (count & 7)) - 1));
  return total;
}

uint64_t ClearBits(uint8_t* bits, uint64_t first, uint64_t end) {
  uint64_t cleared = 0, i = first;
  for (; i < end && (i & 7); ++i) {
    cleared += (bits[i >> 3] >> (i & 7)) & 1;
    bits[i >> 3] &= uint8_t(~(1u << (i & 7)));
  }
  // Whole bytes at once: a damaged header can claim most of a 512 MiB bitmap.
  if (i + 8 <= end) {
    uint64_t bytes = (end - i) >> 3;
    cleared += CountSetBits(bits + (i >> 3), bytes << 3);
    std::memset(bits + (i >> 3), 0, size_t(bytes));
    i += bytes << 3;
  }
  for (; i < end; ++i) {
    cleared += (bits[i >> 3] >> (i & 7)) & 1;
    bits[i >> 3] &= uint8_t(~(1u << (i & 7)));
  }
  return cleared;
}

uint64_t BlockBitmap::CountSet() const { return CountSetBits(bits_, count_); }

namespace {
// The 64 bits from bit `pos` (a multiple of 64), only ever compared with all
// clear or all set, so their order in the word does not matter.
inline uint64_t WordAt(const uint8_t* bits, uint64_t pos) {
  uint64_t w;
  std::memcpy(&w, bits + (pos >> 3), 8);
  return w;
}
}  // namespace

bool RunWalker::Next(uint64_t* first, uint64_t* length) {
  // Skip clear bits a word, then a byte at a time where possible: most of a
  // large volume's bitmap is clear.
  while (pos_ < count_) {
    if ((pos_ & 63) == 0 && count_ - pos_ >= 64 && WordAt(bits_, pos_) == 0) {
      pos_ += 64;
      continue;
    }
    if ((pos_ & 7) == 0 && bits_[pos_ >> 3] == 0) {
      pos_ += 8;
      continue;
    }
    if ((bits_[pos_ >> 3] >> (pos_ & 7)) & 1) break;
    ++pos_;
  }
  if (pos_ >= count_) return false;
  uint64_t start = pos_;
  while (pos_ < count_ && pos_ - start < maxRun_) {
    if ((pos_ & 63) == 0 && count_ - pos_ >= 64 && maxRun_ - (pos_ - start) >= 64 &&
        WordAt(bits_, pos_) == ~uint64_t(0)) {
      pos_ += 64;
      continue;
    }
    if ((pos_ & 7) == 0 && pos_ + 8 <= count_ && pos_ - start + 8 <= maxRun_ && bits_[pos_ >> 3] == 0xFF) {
      pos_ += 8;
      continue;
    }
    if (!((bits_[pos_ >> 3] >> (pos_ & 7)) & 1)) break;
    ++pos_;
  }
  *first = start;
  *length = pos_ - start;
  return true;
}

}  // namespace QORV
