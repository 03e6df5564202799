// Runs a scanner entry point the way the dump does and keeps a copy of what
// it hands back, checking that every allocation was released.
#pragma once
#include <gtest/gtest.h>

#include <cstdint>
#include <set>
#include <vector>

#include "core/api/scanner.h"
#include "tests/support/test_env.h"

namespace testsupport {

struct ScanResult {
  api::status_t status = 0;
  bool bitmapNull = true;
  std::vector<uint8_t> bits;
  uint64_t n = 0;
  uint32_t k = 0;
  uint32_t problems = 0;
  bool Test(uint64_t i) const { return i < n && (bits[i >> 3] >> (i & 7)) & 1; }
  uint64_t CountSet() const {
    uint64_t c = 0;
    for (uint64_t i = 0; i < n; ++i) c += Test(i);
    return c;
  }
  std::set<uint64_t> Marked() const {
    std::set<uint64_t> s;
    for (uint64_t i = 0; i < n; ++i)
      if (Test(i)) s.insert(i);
    return s;
  }
};

inline ScanResult RunScanner(api::ScannerEntry entry, api::IDeviceRWBlock* dev, api::IMessage* msg,
                             uint32_t flags, bool verbose = false) {
  TestEnv t;
  t.env.verbose = verbose;
  ScanResult r;
  uint8_t* bitmap = reinterpret_cast<uint8_t*>(&r);  // must be overwritten
  r.status = entry(&t.env, dev, msg, flags, &bitmap, &r.n, &r.k, &r.problems);
  r.bitmapNull = bitmap == nullptr;
  if (bitmap) {
    r.bits.assign(bitmap, bitmap + (r.n + 7) / 8);
    t.mem.Free(bitmap);
  }
  EXPECT_EQ(t.mem.allocations, t.mem.frees) << "scanner leaked or double-freed memory";
  return r;
}

}  // namespace testsupport
