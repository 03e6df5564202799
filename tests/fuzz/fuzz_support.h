// Shared pieces of the fuzz targets: a memory manager that counts what is
// live, so a target can hold a scan to its memory budget.
#pragma once
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/api/scanner.h"
#include "tests/support/test_env.h"

namespace fuzzsupport {

// Memory a scan may hold besides its bitmap.
constexpr uint64_t kScanSlack = 16ull << 20;

// The test tree's heap, counting what is live.
class CountingMemory : public testsupport::HeapMemory {
 public:
  void* Allocate(size_t n, uint32_t f) override {
    // A request past the whole budget is refused, as a real allocator would
    // refuse one past the machine's memory; the scanner must cope.
    if (n > limit) return nullptr;
    auto* p = static_cast<uint64_t*>((f & api::ALLOC_ZERO) ? std::calloc(1, n + 16) : std::malloc(n + 16));
    if (!p) return nullptr;
    p[0] = n;
    live += n;
    if (live > peak) peak = live;
    ++allocations;
    return p + 2;
  }
  void Free(void* q) override {
    if (!q) return;
    auto* p = static_cast<uint64_t*>(q) - 2;
    live -= p[0];
    ++frees;
    std::free(p);
  }
  uint64_t limit = UINT64_MAX;
  uint64_t live = 0, peak = 0;
};

[[noreturn]] inline void Fail(const char* what) {
  std::fprintf(stderr, "fuzz check failed: %s\n", what);
  std::abort();
}

}  // namespace fuzzsupport
