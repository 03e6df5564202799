// Memory, string and time services handed to the drivers.
#pragma once
#include <cstddef>
#include <cstdint>

namespace api {

constexpr uint32_t ALLOC_ZERO = 0x1;

class IBaseMemoryManager {
 public:
  virtual void Fill(void* dst, int byte, size_t count) = 0;
  virtual void Copy(void* dst, const void* src, size_t count) = 0;
  virtual int Compare(const void* a, const void* b, size_t count) = 0;  // -1, 0 or 1
  virtual void Move(void* dst, const void* src, size_t count) = 0;
  virtual void* AllocateEx(size_t size, uint32_t ignored1, uint32_t ignored2, uint32_t flags) = 0;
  virtual void* Allocate(size_t size, uint32_t flags) = 0;
  virtual void Free(void* block) = 0;
  virtual ~IBaseMemoryManager() = default;
};

// String encodings: only the low five bits count. 1, 8, 16 are byte
// encodings (UTF-8 when converted to 16-bit), 2 and 4 are UTF-16 units.
constexpr uint32_t STR_UTF8 = 1;
constexpr uint32_t STR_UTF16 = 2;
constexpr uint32_t STR_UPPERCASE = 0x80;  // target flag for byte-to-byte conversion

class IBaseStringManager {
 public:
  virtual size_t Length(uint32_t code, const void* text) = 0;
  virtual int ToUpper(int ch) = 0;
  virtual int CompareNoCase(uint32_t code, const void* a, const void* b) = 0;
  virtual const void* FindFirst(uint32_t code, const void* text, uint32_t ch) = 0;
  virtual const void* FindLast(uint32_t code, const void* text, uint32_t ch) = 0;
  // sourceLength < 0: up to the terminating zero unit.
  virtual int Convert(uint32_t sourceCode, const void* source, int64_t sourceLength, uint32_t targetCode,
                      void* target, size_t targetCapacity, size_t* outLength) = 0;
  virtual ~IBaseStringManager() = default;
};

class ITime {
 public:
  virtual int64_t GetSystemTime() = 0;     // 100-ns units since 1601-01-01 UTC
  virtual int32_t GetTimeZoneBias() = 0;   // minutes
  virtual ~ITime() = default;
};

// Pure helpers on the encodings above; they need no service, so any layer
// may call them. UnitSize: bytes per unit, 0 for an unknown encoding.
unsigned UnitSize(uint32_t code);
bool IsEmpty(uint32_t code, const void* text);

}  // namespace api
