// A library environment for tests that must not depend on the platform layer.
#pragma once
#include <cstdlib>
#include <cstring>

#include "core/api/scanner.h"

namespace testsupport {

class HeapMemory : public api::IBaseMemoryManager {
 public:
  void Fill(void* d, int b, size_t n) override { std::memset(d, b, n); }
  void Copy(void* d, const void* s, size_t n) override { std::memcpy(d, s, n); }
  int Compare(const void* a, const void* b, size_t n) override {
    int c = std::memcmp(a, b, n);
    return c < 0 ? -1 : c > 0;
  }
  void Move(void* d, const void* s, size_t n) override { std::memmove(d, s, n); }
  void* AllocateEx(size_t n, uint32_t, uint32_t, uint32_t f) override { return Allocate(n, f); }
  void* Allocate(size_t n, uint32_t f) override {
    ++allocations;
    return (f & api::ALLOC_ZERO) ? std::calloc(1, n ? n : 1) : std::malloc(n ? n : 1);
  }
  void Free(void* p) override {
    if (p) ++frees;
    std::free(p);
  }
  long allocations = 0, frees = 0;
};

struct TestEnv {
  HeapMemory mem;
  api::CLibEnv env{&mem, nullptr, nullptr};
};

}  // namespace testsupport
