// Copy-on-write overlay: reads pass through to the wrapped device, writes are
// kept in memory per 512-byte sector, so a driver may write while it mounts
// and scans and the source volume stays untouched.
#pragma once
#include <cstdint>
#include <map>

#include "core/api/device.h"
#include "core/api/scanner.h"

namespace QORV {

// Another way down to the wrapped device's bytes, one that reports nothing
// when it fails. The overlay reads whole ranges through it; a range it cannot
// read is read again sector by sector from the wrapped device, which then
// reports the failure as it always has, once.
class IQuietReader {
 public:
  virtual bool ReadAll(uint64_t offset, void* buffer, uint32_t count) = 0;

 protected:
  ~IQuietReader() = default;
};

class CRWBlockMemMdSnap : public api::CRWBlockA {
 public:
  static constexpr uint32_t kSector = 512;

  // Without a quiet reader every read goes down in pieces of one sector.
  CRWBlockMemMdSnap(api::CLibEnv* env, api::IDeviceRWBlock* lower, IQuietReader* quiet = nullptr)
      : env_(env), lower_(lower), quiet_(quiet) {}
  ~CRWBlockMemMdSnap() override {}  // the owner calls Empty()

  bool IsReadOnly() override { return false; }
  uint32_t GetSectorSize() override { return lower_ ? lower_->GetSectorSize() : 1; }
  uint64_t GetSize() override { return lower_ ? lower_->GetSize() : 1; }
  api::status_t SetSize(uint32_t how, const uint64_t* size) override {
    return lower_ ? lower_->SetSize(how, size) : api::ERR_IO_RANGE;
  }
  api::status_t ReadBytes(uint64_t offset, void* buffer, uint32_t count, uint32_t flags) override;
  api::status_t WriteBytes(uint64_t offset, const void* buffer, uint32_t count, int32_t flags) override;
  api::status_t Flush(uint32_t flags) override { return lower_ ? lower_->Flush(flags) : api::ERR_IO_RANGE; }
  api::status_t IoControl(uint32_t a, uint32_t b, uint32_t c, uint32_t d, uint32_t e, uint32_t f) override {
    return lower_ ? lower_->IoControl(a, b, c, d, e, f) : api::ERR_IO_RANGE;
  }
  int32_t GetDeviceNumber() override {
    return lower_ ? lower_->GetDeviceNumber() : int32_t(api::ERR_IO_RANGE);
  }
  void WillNeed(uint64_t offset, uint64_t count) override {
    if (lower_) lower_->WillNeed(offset, count);
  }

  // Frees every kept sector; later reads come from the wrapped device again.
  void Empty();
  uint64_t SectorCount() const { return sectors_.size(); }

 private:
  api::status_t ReadBelow(uint64_t offset, uint8_t* out, uint32_t count, uint32_t flags);

  api::CLibEnv* env_;
  api::IDeviceRWBlock* lower_;
  IQuietReader* quiet_;
  uint32_t reserved_ = 0;
  std::map<uint64_t, uint8_t*> sectors_;  // sector number -> 512-byte buffer from env_->mem
};

}  // namespace QORV
