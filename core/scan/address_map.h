// Logical-to-physical translation for formats whose pointers are not
// device offsets (chunk maps, object maps, container tables), so scanners
// only ever mark physical blocks.
#pragma once
#include <cstddef>
#include <cstdint>
#include <vector>

#include "core/api/status.h"

namespace QORV {

class IAddressMap {
 public:
  // The physical byte offset of `logical` and how many bytes from there are
  // contiguous; false when nothing maps it.
  virtual bool Translate(uint64_t logical, uint64_t* physical, uint64_t* contiguous) const = 0;

 protected:
  ~IAddressMap() = default;
};

// Logical addresses are physical ones (every format without a map).
class CIdentityMap final : public IAddressMap {
 public:
  explicit CIdentityMap(uint64_t size) : size_(size) {}
  bool Translate(uint64_t logical, uint64_t* physical, uint64_t* contiguous) const override;

 private:
  uint64_t size_;
};

// A table of ranges, as a chunk map is. Ranges may come in any order; an
// empty one, one that wraps, or one overlapping another is refused.
class CRangeMap final : public IAddressMap {
 public:
  api::status_t Add(uint64_t logical, uint64_t length, uint64_t physical);
  bool Translate(uint64_t logical, uint64_t* physical, uint64_t* contiguous) const override;
  size_t Size() const { return ranges_.size(); }

 private:
  struct Range {
    uint64_t logical, length, physical;
  };
  std::vector<Range> ranges_;  // sorted by logical start
};

}  // namespace QORV
