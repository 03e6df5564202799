#include "core/scan/block_reader.h"

namespace QORV {

CBlockReader::~CBlockReader() {
  if (pool_) mem_->Free(pool_);
  if (slots_) mem_->Free(slots_);
}

api::status_t CBlockReader::Init(api::IDeviceRWBlock* dev, uint32_t unitSize, uint64_t limitBytes, uint32_t slots) {
  if (!dev || !IsPowerOfTwo(unitSize) || unitSize > (1u << 20) || slots == 0 || slots > 256)
    return api::ERR_INCONSISTENT;
  if (pool_) mem_->Free(pool_);
  if (slots_) mem_->Free(slots_);
  pool_ = nullptr;
  slots_ = nullptr;
  pool_ = static_cast<uint8_t*>(mem_->Allocate(size_t(unitSize) * slots, 0));
  slots_ = static_cast<Slot*>(mem_->Allocate(sizeof(Slot) * slots, 0));
  if (!pool_ || !slots_) return api::ERR_NO_MEMORY;
  for (uint32_t i = 0; i < slots; ++i) slots_[i] = Slot{UINT64_MAX, 0, pool_ + size_t(i) * unitSize};
  dev_ = dev;
  unitSize_ = unitSize;
  limit_ = limitBytes;
  slotCount_ = slots;
  return api::QORV_OK;
}

void CBlockReader::Invalidate() {
  for (uint32_t i = 0; i < slotCount_; ++i) slots_[i].offset = UINT64_MAX;
}

api::status_t CBlockReader::Read(uint64_t offset, ByteView* out) {
  *out = ByteView();
  if (!dev_) return api::ERR_IO_RANGE;
  if (offset > limit_ || unitSize_ > limit_ - offset) return api::ERR_IO_RANGE;
  Slot* victim = &slots_[0];
  for (uint32_t i = 0; i < slotCount_; ++i) {
    Slot& s = slots_[i];
    if (s.offset == offset) {
      s.stamp = ++clock_;
      ++stats_.hits;
      *out = ByteView(s.data, unitSize_);
      return api::QORV_OK;
    }
    if (s.stamp < victim->stamp) victim = &s;
  }
  victim->offset = UINT64_MAX;
  api::status_t s = dev_->ReadBytes(offset, victim->data, unitSize_, 0);
  if (s != api::QORV_OK) {
    ++stats_.failed;
    return s;
  }
  ++stats_.reads;
  if (check_) {
    s = check_->Check(offset, victim->data, unitSize_);
    if (s != api::QORV_OK) {
      ++stats_.rejected;
      return s;
    }
  }
  victim->offset = offset;
  victim->stamp = ++clock_;
  *out = ByteView(victim->data, unitSize_);
  return api::QORV_OK;
}

}  // namespace QORV
