#include "core/scan/session.h"

#include <cstdarg>
#include <cstdio>

namespace QORV {

CScanSession::CScanSession(api::CLibEnv* env, api::IDeviceRWBlock* dev, api::IMessage* msg)
    : env_(env), msg_(msg), device_(dev) {}

CScanSession::~CScanSession() {
  if (used_.Data()) env_->mem->Free(used_.Data());
}

api::status_t CScanSession::CreateBitmap(uint64_t blockCount, uint32_t blockShift) {
  uint64_t bytes = BlockBitmap::BytesFor(blockCount);
  if (bytes > SIZE_MAX) return api::ERR_NO_MEMORY;
  if (used_.Data()) env_->mem->Free(used_.Data());
  used_ = BlockBitmap();
  auto* bits = static_cast<uint8_t*>(env_->mem->Allocate(size_t(bytes ? bytes : 1), api::ALLOC_ZERO));
  if (!bits) return api::ERR_NO_MEMORY;
  used_ = BlockBitmap(bits, blockCount);
  shift_ = blockShift;
  return api::QORV_OK;
}

bool CScanSession::Mark(uint64_t first, uint64_t count, const char* what) {
  if (used_.Mark(first, count)) return true;
  Problem("%s: blocks 0x%llx + 0x%llx run past the volume's 0x%llx blocks", what, (unsigned long long)first,
          (unsigned long long)count, (unsigned long long)used_.Count());
  return false;
}

void CScanSession::Problem(const char* format, ...) {
  ++problems_;
  if (!msg_ || !env_->verbose) return;
  if (problems_ > kTracedProblems) return;
  char text[256];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  msg_->Trace(1, "Problem %u: %s", problems_, text);
}

void CScanSession::BeginProgress(uint64_t total) {
  if (!msg_) return;
  progress_ = true;
  msg_->BeginProgress(nullptr);
  msg_->SetTotal(0, &total, nullptr);
}

void CScanSession::SetPosition(uint64_t position) {
  if (progress_) msg_->SetPosition(&position);
}

void CScanSession::EndProgress() {
  if (progress_) msg_->EndProgress();
  progress_ = false;
}

api::status_t CScanSession::Poll() {
  if (device_.Gone()) return api::ERR_DEVICE_GONE;
  if ((polls_++ % kBreakEvery) != 0 || !msg_) return api::QORV_OK;
  return msg_->CheckBreak(false) ? api::ERR_TOO_BIG : api::QORV_OK;
}

api::status_t CScanSession::Finish(api::status_t status, uint8_t** bitmap, uint64_t* blockCount,
                                   uint32_t* blockShift, uint32_t* problems) {
  EndProgress();
  if (status == api::QORV_OK && device_.Gone()) status = api::ERR_DEVICE_GONE;
  if (problems) *problems = problems_;
  if (msg_ && env_->verbose && problems_ > kTracedProblems)
    msg_->Trace(1, "%u more problems not listed", problems_ - kTracedProblems);
  if (bitmap) *bitmap = nullptr;
  if (status != api::QORV_OK) return status;
  if (blockCount) *blockCount = used_.Count();
  if (blockShift) *blockShift = shift_;
  if (bitmap) {
    *bitmap = used_.Data();
    used_ = BlockBitmap();
  }
  return status;
}

}  // namespace QORV
