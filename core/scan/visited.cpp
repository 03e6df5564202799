#include "core/scan/visited.h"

namespace QORV {

bool CVisitedSet::Insert(uint64_t key, api::status_t* status) {
  const uint64_t page = key >> kPageShift;
  const uint32_t bit = uint32_t(key & ((1u << kPageShift) - 1));
  auto it = pages_.find(page);
  if (it == pages_.end()) {
    auto* bits = static_cast<uint8_t*>(mem_->Allocate(kPageBytes, api::ALLOC_ZERO));
    if (!bits) {
      if (status) *status = api::ERR_NO_MEMORY;
      return false;
    }
    it = pages_.emplace(page, bits).first;
  }
  uint8_t& byte = it->second[bit >> 3];
  const uint8_t mask = uint8_t(1u << (bit & 7));
  if (byte & mask) return false;
  byte |= mask;
  return true;
}

bool CVisitedSet::Contains(uint64_t key) const {
  auto it = pages_.find(key >> kPageShift);
  if (it == pages_.end()) return false;
  const uint32_t bit = uint32_t(key & ((1u << kPageShift) - 1));
  return (it->second[bit >> 3] >> (bit & 7)) & 1;
}

void CVisitedSet::Clear() {
  for (auto& kv : pages_) mem_->Free(kv.second);
  pages_.clear();
}

}  // namespace QORV
