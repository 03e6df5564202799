// A sparse set of 64-bit addresses (blocks, clusters, node numbers) for the
// visited sets of walks. It is kept apart from the used-block bitmap on
// purpose: a block kept for one reason must still be read for another.
#pragma once
#include <cstdint>
#include <unordered_map>

#include "core/api/scanner.h"

namespace QORV {

class CVisitedSet : public api::base_noncopyable {
 public:
  explicit CVisitedSet(api::IBaseMemoryManager* mem) : mem_(mem) {}
  ~CVisitedSet() { Clear(); }

  // Adds `key`; false when it was there already. ERR_NO_MEMORY is reported
  // through *status (the key then counts as seen, so a walk stops there).
  bool Insert(uint64_t key, api::status_t* status = nullptr);
  bool Contains(uint64_t key) const;
  void Clear();
  // Bytes held by the set's pages (walk memory is bounded by what is visited).
  uint64_t BytesHeld() const { return uint64_t(pages_.size()) * kPageBytes; }

 private:
  static constexpr uint32_t kPageBytes = 4096;
  static constexpr uint32_t kPageShift = 15;  // bits per page: 32768
  api::IBaseMemoryManager* mem_;
  std::unordered_map<uint64_t, uint8_t*> pages_;
};

}  // namespace QORV
