// Memory and string services handed to the drivers. Stateless; one object
// of each per process. The clock is the system's own (posix/, win32/).
#include <cstdlib>
#include <cstring>

#include "platform/platform.h"

namespace api {

namespace {

class QORV_MemoryManager : public IBaseMemoryManager {
  static constexpr size_t kPage = 4096, kAlignFrom = 64 * 1024;

 public:
  void Fill(void* dst, int byte, size_t count) override { std::memset(dst, byte, count); }
  void Copy(void* dst, const void* src, size_t count) override { std::memcpy(dst, src, count); }
  int Compare(const void* a, const void* b, size_t count) override {
    int c = std::memcmp(a, b, count);
    return c < 0 ? -1 : c > 0 ? 1 : 0;
  }
  void Move(void* dst, const void* src, size_t count) override { std::memmove(dst, src, count); }
  void* AllocateEx(size_t size, uint32_t, uint32_t, uint32_t flags) override { return Allocate(size, flags); }
  void* Allocate(size_t size, uint32_t flags) override {
    if (flags & ALLOC_ZERO) return std::calloc(1, size ? size : 1);
    // Large blocks are read into: the kernel copies into a page-aligned
    // buffer about three times as fast as into one a few bytes off a page.
#ifndef _WIN32  // (the Windows runtime's aligned blocks need their own free)
    if (size >= kAlignFrom) {
      void* p = nullptr;
      return ::posix_memalign(&p, kPage, size) == 0 ? p : nullptr;
    }
#endif
    return std::malloc(size ? size : 1);
  }
  void Free(void* block) override { std::free(block); }
};

bool IsByteCode(uint32_t code) { return UnitSize(code) == 1; }
bool IsWideCode(uint32_t code) { return UnitSize(code) == 2; }

// UTF-8 forms, one to six bytes: lead mask, lead value, value mask, smallest value.
struct Utf8Row {
  uint32_t leadMask, leadValue, valueMask, smallest;
};
constexpr Utf8Row kRows[] = {
    {0x80, 0x00, 0x7F, 0},          {0xE0, 0xC0, 0x7FF, 0x80},          {0xF0, 0xE0, 0xFFFF, 0x800},
    {0xF8, 0xF0, 0x1FFFFF, 0x10000}, {0xFC, 0xF8, 0x3FFFFFF, 0x200000}, {0xFE, 0xFC, 0x7FFFFFFF, 0x4000000},
};

// Decodes one sequence at s[0..n); returns bytes used (1 for a skipped lead
// byte with *ok false).
size_t DecodeOne(const uint8_t* s, size_t n, uint32_t* value, bool* ok) {
  uint32_t lead = s[0];
  *ok = false;
  if (lead < 0x80) {
    *value = lead;
    *ok = true;
    return 1;
  }
  uint32_t v = lead;
  for (size_t len = 1; len < 6; ++len) {
    if (len >= n) return 1;
    uint32_t c = s[len];
    if (c < 0x80 || c > 0xBF) return 1;
    v = (v << 6) | (c & 0x3F);
    const Utf8Row& row = kRows[len];
    if ((lead & row.leadMask) == row.leadValue) {
      v &= row.valueMask;
      if (v < row.smallest) return 1;  // over-long form
      *value = v;
      *ok = true;
      return len + 1;
    }
  }
  return 1;
}

class CQORV_Strings : public IBaseStringManager {
 public:
  size_t Length(uint32_t code, const void* text) override {
    if (!text) return 0;
    if (IsByteCode(code)) return std::strlen(static_cast<const char*>(text));
    if (!IsWideCode(code)) return 0;
    const uint16_t* p = static_cast<const uint16_t*>(text);
    size_t n = 0;
    while (p[n]) ++n;
    return n;
  }
  int ToUpper(int ch) override { return ch >= 'a' && ch <= 'z' ? ch - 'a' + 'A' : ch; }
  int CompareNoCase(uint32_t code, const void* a, const void* b) override {
    if (IsByteCode(code)) return CompareUnits(static_cast<const uint8_t*>(a), static_cast<const uint8_t*>(b));
    if (IsWideCode(code)) return CompareUnits(static_cast<const uint16_t*>(a), static_cast<const uint16_t*>(b));
    return -1;
  }
  const void* FindFirst(uint32_t code, const void* text, uint32_t ch) override { return Find(code, text, ch, false); }
  const void* FindLast(uint32_t code, const void* text, uint32_t ch) override { return Find(code, text, ch, true); }

  int Convert(uint32_t sourceCode, const void* source, int64_t sourceLength, uint32_t targetCode, void* target,
              size_t capacity, size_t* outLength) override {
    size_t produced = 0;
    size_t srcLen = sourceLength < 0 ? 0x7FFFFFFF : size_t(sourceLength);
    if (IsByteCode(sourceCode) && IsByteCode(targetCode)) {
      const uint8_t* s = static_cast<const uint8_t*>(source);
      uint8_t* t = static_cast<uint8_t*>(target);
      for (size_t i = 0; i < srcLen && s[i] && produced < capacity; ++i)
        t[produced++] = uint8_t((targetCode & STR_UPPERCASE) ? ToUpper(s[i]) : s[i]);
      if (produced < capacity) t[produced] = 0;
    } else if (IsByteCode(sourceCode) && IsWideCode(targetCode)) {
      const uint8_t* s = static_cast<const uint8_t*>(source);
      uint16_t* t = static_cast<uint16_t*>(target);
      size_t n = sourceLength < 0 ? std::strlen(reinterpret_cast<const char*>(s)) : srcLen;
      for (size_t i = 0; i < n && s[i] && produced < capacity;) {
        uint32_t v;
        bool ok;
        i += DecodeOne(s + i, n - i, &v, &ok);
        if (ok) t[produced++] = uint16_t(v);  // no surrogate pairs: low 16 bits
      }
      if (produced < capacity) t[produced] = 0;
    } else if (IsWideCode(sourceCode) && IsByteCode(targetCode)) {
      const uint16_t* s = static_cast<const uint16_t*>(source);
      uint8_t* t = static_cast<uint8_t*>(target);
      for (size_t i = 0; i < srcLen && s[i] && produced < capacity; ++i) produced += EncodeOne(s[i], t + produced, capacity - produced);
      if (produced < capacity) t[produced] = 0;
    } else if (IsWideCode(sourceCode) && IsWideCode(targetCode)) {
      const uint16_t* s = static_cast<const uint16_t*>(source);
      uint16_t* t = static_cast<uint16_t*>(target);
      for (size_t i = 0; i < srcLen && s[i] && produced < capacity; ++i) t[produced++] = s[i];
      if (produced < capacity) t[produced] = 0;
    } else {
      if (outLength) *outLength = 0;
      return -1;
    }
    if (outLength) *outLength = produced;
    return 0;
  }

 private:
  template <typename Unit>
  int CompareUnits(const Unit* a, const Unit* b) {
    for (;; ++a, ++b) {
      int x = ToUpper(*a), y = ToUpper(*b);
      if (x != y) return x < y ? -1 : 1;
      if (!x) return 0;
    }
  }
  const void* Find(uint32_t code, const void* text, uint32_t ch, bool last) {
    const void* found = nullptr;
    if (IsByteCode(code)) {
      for (const uint8_t* p = static_cast<const uint8_t*>(text); *p; ++p)
        if (*p == uint8_t(ch) && (found = p, !last)) break;
    } else if (IsWideCode(code)) {
      for (const uint16_t* p = static_cast<const uint16_t*>(text); *p; ++p)
        if (*p == uint16_t(ch) && (found = p, !last)) break;
    }
    return found;
  }
  // Writes one unit as UTF-8; a sequence that does not fit is cut off.
  static size_t EncodeOne(uint32_t unit, uint8_t* out, size_t room) {
    if (unit < 0x80) {
      out[0] = uint8_t(unit);
      return 1;
    }
    size_t len = 1;
    while (len < 5 && unit > kRows[len].valueMask) ++len;
    size_t bytes = len + 1;
    uint8_t seq[6];
    for (size_t i = bytes - 1; i > 0; --i, unit >>= 6) seq[i] = uint8_t(0x80 | (unit & 0x3F));
    seq[0] = uint8_t(kRows[len].leadValue | unit);
    size_t n = bytes < room ? bytes : room;
    std::memcpy(out, seq, n);
    return n;
  }
};

}  // namespace

IBaseMemoryManager* GetMemoryManager() {
  static QORV_MemoryManager m;
  return &m;
}
IBaseStringManager* GetStringManager() {
  static CQORV_Strings s;
  return &s;
}

}  // namespace api
