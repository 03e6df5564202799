#include "fs/fat_family/cluster_chain.h"

#include <algorithm>

#include "core/bytes.h"

namespace QORV {

TableCache::~TableCache() {
  if (chunk_) env_->mem->Free(chunk_);
}

void TableCache::Attach(api::IDeviceRWBlock* dev, uint64_t offset, uint64_t bytes) {
  dev_ = dev;
  offset_ = offset;
  bytes_ = bytes;
  chunkIndex_ = UINT64_MAX;
}

api::status_t TableCache::Entry(uint64_t index, uint32_t width, uint32_t* out) {
  uint64_t off = index * width;
  if (!dev_ || off + width > bytes_) return api::ERR_INCONSISTENT;
  uint64_t chunk = off / kChunk;
  if (chunk != chunkIndex_) {
    if (!chunk_) {
      chunk_ = static_cast<uint8_t*>(env_->mem->Allocate(kChunk, 0));
      if (!chunk_) return api::ERR_NO_MEMORY;
    }
    uint64_t start = chunk * kChunk;
    uint32_t n = uint32_t(std::min<uint64_t>(kChunk, bytes_ - start));
    chunkIndex_ = UINT64_MAX;
    QORV_TRY(dev_->ReadBytes(offset_ + start, chunk_, n, 0));
    chunkIndex_ = chunk;
  }
  ByteView v(chunk_, kChunk);
  size_t at = size_t(off % kChunk);
  *out = width == 4 ? v.le32(at) : v.le16(at);
  return api::QORV_OK;
}

}  // namespace QORV
