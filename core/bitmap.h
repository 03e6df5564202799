// The used-block bitmap: bit i in byte i / 8 under mask 1 << (i % 8).
// A non-owning view; every mark is clamped to the bitmap's bit count so a
// range read from disk can never write outside the allocation.
#pragma once
#include <cstddef>
#include <cstdint>

namespace QORV {

class BlockBitmap {
 public:
  BlockBitmap() = default;
  BlockBitmap(uint8_t* bits, uint64_t count) : bits_(bits), count_(count) {}

  static uint64_t BytesFor(uint64_t count) { return (count + 7) / 8; }

  uint8_t* Data() const { return bits_; }
  uint64_t Count() const { return count_; }

  bool Test(uint64_t i) const { return i < count_ && (bits_[i >> 3] >> (i & 7)) & 1; }
  void Set(uint64_t i) {
    if (i < count_) bits_[i >> 3] |= uint8_t(1u << (i & 7));
  }
  // Sets bit i and returns whether it was already set (visited-set use).
  bool TestAndSet(uint64_t i) {
    if (i >= count_) return true;
    bool was = (bits_[i >> 3] >> (i & 7)) & 1;
    bits_[i >> 3] |= uint8_t(1u << (i & 7));
    return was;
  }
  // Marks [first, first + n), clamped to the bitmap. Returns false when any
  // part of the range fell outside it.
  bool Mark(uint64_t first, uint64_t n);
  uint64_t CountSet() const;

 private:
  uint8_t* bits_ = nullptr;
  uint64_t count_ = 0;
};

// Popcount of the first `count` bits of a raw bitmap; a partial last byte is masked.
uint64_t CountSetBits(const uint8_t* bits, uint64_t count);
// Clears bits [first, end) and returns how many of them were set.
uint64_t ClearBits(uint8_t* bits, uint64_t first, uint64_t end);

// Walks a bitmap in runs of consecutive set bits, each at most maxRun long.
class RunWalker {
 public:
  RunWalker(const uint8_t* bits, uint64_t count, uint64_t maxRun) : bits_(bits), count_(count), maxRun_(maxRun) {}
  // Next run; false when none is left.
  bool Next(uint64_t* first, uint64_t* length);

 private:
  const uint8_t* bits_;
  uint64_t count_;
  uint64_t maxRun_;
  uint64_t pos_ = 0;
};

}  // namespace QORV
