#include "core/overlay.h"

#include <algorithm>
#include <cstring>

namespace QORV {

using namespace api;

// A kept sector always wins over the wrapped device; the sectors between kept
// ones go down together.
status_t CRWBlockMemMdSnap::ReadBytes(uint64_t offset, void* buffer, uint32_t count, uint32_t flags) {
  uint8_t* out = static_cast<uint8_t*>(buffer);
  while (count) {
    uint64_t key = offset / kSector;
    uint32_t within = uint32_t(offset % kSector);
    uint32_t piece;
    auto it = sectors_.lower_bound(key);
    if (it != sectors_.end() && it->first == key) {
      piece = std::min<uint32_t>(kSector - within, count);
      if (!(flags & (READ_NO_DATA | READ_VERIFY)) && out) std::memcpy(out, it->second + within, piece);
    } else {
      // Up to the next kept sector; its byte offset cannot overflow, as it
      // lies inside a request that does not.
      uint64_t gap = it == sectors_.end() ? count : it->first * kSector - offset;
      piece = uint32_t(std::min<uint64_t>(gap, count));
      QORV_TRY(ReadBelow(offset, out, piece, flags));
    }
    offset += piece;
    count -= piece;
    if (out) out += piece;
  }
  return QORV_OK;
}

// One read through the quiet reader when it can serve the range; otherwise,
// or when it fails, sector by sector from the wrapped device, so that a
// failure is reported for the same offset and length, with the same status,
// as it always was.
status_t CRWBlockMemMdSnap::ReadBelow(uint64_t offset, uint8_t* out, uint32_t count, uint32_t flags) {
  if (!lower_) return ERR_IO_RANGE;
  if (quiet_ && out && (flags & ~READ_QUIET) == 0 && count > kSector - offset % kSector) {
    uint64_t size = lower_->GetSize();
    if (offset <= size && count <= size - offset && quiet_->ReadAll(offset, out, count)) return QORV_OK;
    if (flags & READ_QUIET) return ERR_SHORT_IO;
  }
  // The wrapped device keeps a quiet read quiet itself.
  if (flags & READ_QUIET) return lower_->ReadBytes(offset, out, count, flags);
  while (count) {
    uint32_t piece = std::min<uint32_t>(kSector - uint32_t(offset % kSector), count);
    QORV_TRY(lower_->ReadBytes(offset, out, piece, flags));
    offset += piece;
    count -= piece;
    if (out) out += piece;
  }
  return QORV_OK;
}

status_t CRWBlockMemMdSnap::WriteBytes(uint64_t offset, const void* buffer, uint32_t count, int32_t flags) {
  const uint8_t* in = static_cast<const uint8_t*>(buffer);
  while (count) {
    uint32_t within = uint32_t(offset % kSector);
    uint32_t piece = std::min<uint32_t>(kSector - within, count);
    uint64_t key = offset / kSector;
    auto it = sectors_.find(key);
    if (it == sectors_.end()) {
      uint8_t* data = static_cast<uint8_t*>(env_->mem->Allocate(kSector, ALLOC_ZERO));
      if (!data) return ERR_NO_MEMORY;
      if (piece != kSector) {
        status_t s = lower_ ? lower_->ReadBytes(key * kSector, data, kSector, 0) : ERR_IO_RANGE;
        if (s != QORV_OK) {
          env_->mem->Free(data);
          return s;
        }
      }
      it = sectors_.emplace(key, data).first;
    }
    if ((flags & WRITE_ZEROS) || !in) std::memset(it->second + within, 0, piece);
    else std::memcpy(it->second + within, in, piece);
    offset += piece;
    count -= piece;
    if (in) in += piece;
  }
  return QORV_OK;
}

void CRWBlockMemMdSnap::Empty() {
  for (auto& kv : sectors_) env_->mem->Free(kv.second);
  sectors_.clear();
}

}  // namespace QORV
