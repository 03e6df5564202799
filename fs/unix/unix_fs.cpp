#include "fs/unix/unix_fs.h"

namespace QORV {

api::status_t CUnixBlock::Allocate(api::IBaseMemoryManager* mem, uint32_t size, bool zeroed) {
  Release();
  data_ = static_cast<uint8_t*>(mem->Allocate(size, zeroed ? api::ALLOC_ZERO : 0));
  if (!data_) return api::ERR_NO_MEMORY;
  mem_ = mem;
  size_ = size;
  return api::QORV_OK;
}

void CUnixBlock::Release() {
  if (data_) mem_->Free(data_);
  data_ = nullptr;
  size_ = 0;
}

api::status_t CUnixBitmap::Create(api::IBaseMemoryManager* mem, uint64_t bits) {
  Release();
  uint64_t bytes = BlockBitmap::BytesFor(bits);
  if (bytes > SIZE_MAX) return api::ERR_NO_MEMORY;
  auto* p = static_cast<uint8_t*>(mem->Allocate(size_t(bytes ? bytes : 1), api::ALLOC_ZERO));
  if (!p) return api::ERR_NO_MEMORY;
  mem_ = mem;
  bits_ = BlockBitmap(p, bits);
  return api::QORV_OK;
}

void CUnixBitmap::Release() {
  if (bits_.Data()) mem_->Free(bits_.Data());
  bits_ = BlockBitmap();
}

uint8_t* CUnixBitmap::Detach() {
  uint8_t* p = bits_.Data();
  bits_ = BlockBitmap();
  return p;
}

api::status_t CUnixFileSystem::ReadBlocks(uint64_t block, uint32_t count, void* buf) {
  if (!InVolume(block, count)) return api::ERR_IO_RANGE;
  uint32_t shift = Super().BlockShift();
  uint64_t bytes = uint64_t(count) << shift;
  if (bytes > UINT32_MAX) return api::ERR_IO_RANGE;
  return ReadDevice(block << shift, buf, uint32_t(bytes));
}

}  // namespace QORV
