#include "core/scan/address_map.h"

#include <algorithm>

namespace QORV {

bool CIdentityMap::Translate(uint64_t logical, uint64_t* physical, uint64_t* contiguous) const {
  if (logical >= size_) return false;
  *physical = logical;
  *contiguous = size_ - logical;
  return true;
}

api::status_t CRangeMap::Add(uint64_t logical, uint64_t length, uint64_t physical) {
  if (length == 0 || logical + length < logical || physical + length < physical) return api::ERR_INCONSISTENT;
  auto at = std::lower_bound(ranges_.begin(), ranges_.end(), logical,
                             [](const Range& r, uint64_t l) { return r.logical < l; });
  if (at != ranges_.end() && at->logical < logical + length) return api::ERR_INCONSISTENT;
  if (at != ranges_.begin() && std::prev(at)->logical + std::prev(at)->length > logical) return api::ERR_INCONSISTENT;
  ranges_.insert(at, Range{logical, length, physical});
  return api::QORV_OK;
}

bool CRangeMap::Translate(uint64_t logical, uint64_t* physical, uint64_t* contiguous) const {
  auto at = std::upper_bound(ranges_.begin(), ranges_.end(), logical,
                             [](uint64_t l, const Range& r) { return l < r.logical; });
  if (at == ranges_.begin()) return false;
  const Range& r = *std::prev(at);
  if (logical - r.logical >= r.length) return false;
  *physical = r.physical + (logical - r.logical);
  *contiguous = r.length - (logical - r.logical);
  return true;
}

}  // namespace QORV
