// One checked, cached reader of fixed-size units (blocks, tree nodes, file
// records) below the scanners. A unit is handed out only after the format's
// own check accepted it (fix-ups, checksums, node descriptors), so parsers
// never see bytes that failed it.
#pragma once
#include <cstdint>

#include "core/api/scanner.h"
#include "core/bytes.h"

namespace QORV {

// The format's check of one unit just read. It may repair the unit in
// memory (update-sequence fix-ups); a non-zero status rejects it.
class IUnitCheck {
 public:
  virtual api::status_t Check(uint64_t offset, uint8_t* unit, uint32_t size) = 0;

 protected:
  ~IUnitCheck() = default;
};

class CBlockReader : public api::base_noncopyable {
 public:
  struct Counters {
    uint64_t reads = 0;     // units read from the device
    uint64_t hits = 0;      // units served from the cache
    uint64_t rejected = 0;  // units the check refused
    uint64_t failed = 0;    // device reads that failed
  };

  explicit CBlockReader(api::IBaseMemoryManager* mem) : mem_(mem) {}
  ~CBlockReader();

  // Units of `unitSize` bytes (a power of two, at most 1 MiB) from `dev`,
  // none of which may reach past `limitBytes`; `slots` units are cached.
  api::status_t Init(api::IDeviceRWBlock* dev, uint32_t unitSize, uint64_t limitBytes, uint32_t slots = 16);
  void SetCheck(IUnitCheck* check) { check_ = check; }
  uint32_t UnitSize() const { return unitSize_; }

  // The checked unit at byte `offset`, through the cache. The view stays
  // valid until the next Read. ERR_IO_RANGE for a unit outside the limit,
  // the check's status for a rejected unit, the device's for a failed read.
  api::status_t Read(uint64_t offset, ByteView* out);
  // Forgets cached units (after the check's parameters changed).
  void Invalidate();
  const Counters& Stats() const { return stats_; }

 private:
  struct Slot {
    uint64_t offset = UINT64_MAX;
    uint64_t stamp = 0;
    uint8_t* data = nullptr;
  };
  api::IBaseMemoryManager* mem_;
  api::IDeviceRWBlock* dev_ = nullptr;
  IUnitCheck* check_ = nullptr;
  uint32_t unitSize_ = 0;
  uint64_t limit_ = 0;
  Slot* slots_ = nullptr;
  uint32_t slotCount_ = 0;
  uint8_t* pool_ = nullptr;
  uint64_t clock_ = 0;
  Counters stats_;
};

}  // namespace QORV
