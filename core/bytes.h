// Bounds-checked little/big-endian readers over on-disk buffers. Reads
// outside the view return 0 and never touch memory past the end; callers
// that must tell "zero" from "absent" check Has() first.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace QORV {

// len (at most 8) bytes at p as a little-endian number: one load where the
// machine's own order is little-endian.
inline uint64_t LoadLe(const uint8_t* p, size_t len) {
  uint64_t v = 0;
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  std::memcpy(&v, p, len);
#else
  for (size_t i = len; i-- > 0;) v = (v << 8) | p[i];
#endif
  return v;
}

// N bytes of a view whose bounds were checked once, when the window was
// taken: each read names a constant offset that the compiler checks against
// N, so a header of fixed layout costs one check instead of one per field.
template <size_t N>
class FixedWindow {
 public:
  FixedWindow() = default;
  template <size_t Off>
  uint8_t u8() const {
    static_assert(Off + 1 <= N, "read past the window");
    return p_[Off];
  }
  template <size_t Off>
  uint16_t le16() const {
    static_assert(Off + 2 <= N, "read past the window");
    return uint16_t(Le(Off, 2));
  }
  template <size_t Off>
  uint32_t le32() const {
    static_assert(Off + 4 <= N, "read past the window");
    return uint32_t(Le(Off, 4));
  }
  template <size_t Off>
  uint64_t le64() const {
    static_assert(Off + 8 <= N, "read past the window");
    return Le(Off, 8);
  }

 private:
  friend class ByteView;
  explicit FixedWindow(const uint8_t* p) : p_(p) {}
  uint64_t Le(size_t off, size_t len) const { return LoadLe(p_ + off, len); }
  const uint8_t* p_ = nullptr;
};

class ByteView {
 public:
  ByteView() = default;
  ByteView(const void* data, size_t size) : p_(static_cast<const uint8_t*>(data)), n_(data ? size : 0) {}

  const uint8_t* Data() const { return p_; }
  size_t Size() const { return n_; }
  bool Has(size_t off, size_t len) const { return off <= n_ && len <= n_ - off; }
  // A sub-view; empty when the range is not inside this view.
  ByteView Sub(size_t off, size_t len) const { return Has(off, len) ? ByteView(p_ + off, len) : ByteView(); }

  uint8_t u8(size_t off) const { return Has(off, 1) ? p_[off] : 0; }
  uint16_t le16(size_t off) const { return uint16_t(le(off, 2)); }
  uint32_t le32(size_t off) const { return uint32_t(le(off, 4)); }
  uint64_t le64(size_t off) const { return le(off, 8); }
  uint16_t be16(size_t off) const { return uint16_t(be(off, 2)); }
  uint32_t be32(size_t off) const { return uint32_t(be(off, 4)); }
  uint64_t be64(size_t off) const { return be(off, 8); }
  // The N bytes at off as a window; false (and *out untouched) when they
  // are not all inside the view.
  template <size_t N>
  bool Window(size_t off, FixedWindow<N>* out) const {
    if (!Has(off, N)) return false;
    *out = FixedWindow<N>(p_ + off);
    return true;
  }
  bool Equals(size_t off, const void* what, size_t len) const {
    return Has(off, len) && std::memcmp(p_ + off, what, len) == 0;
  }

 private:
  // len is 2, 4 or 8 at every call: one load, not a byte loop.
  uint64_t le(size_t off, size_t len) const {
    return Has(off, len) ? LoadLe(p_ + off, len) : 0;
  }
  uint64_t be(size_t off, size_t len) const {
    if (!Has(off, len)) return 0;
    uint64_t v = 0;
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    std::memcpy(&v, p_ + off, len);
    v = __builtin_bswap64(v) >> (64 - 8 * len);
#else
    for (size_t i = 0; i < len; ++i) v = (v << 8) | p_[off + i];
#endif
    return v;
  }
  const uint8_t* p_ = nullptr;
  size_t n_ = 0;
};

inline bool IsPowerOfTwo(uint64_t v) { return v && !(v & (v - 1)); }
// log2 of a power of two; -1 otherwise.
inline int Log2Exact(uint64_t v) { return IsPowerOfTwo(v) ? __builtin_ctzll(v) : -1; }

}  // namespace QORV
