// One scan of one volume, shared by every scanner: the used-block bitmap
// with checked marking, the problem count with a reason for each problem,
// progress, and the polls for a stop request and a vanished device.
#pragma once
#include <cstdint>

#include "core/api/scanner.h"
#include "core/bitmap.h"

namespace QORV {

// Passes every call to the volume and notes when it vanishes, so a walk
// that tolerates single read failures still stops on the next poll.
class CWatchedDevice : public api::CRWBlockA {
 public:
  explicit CWatchedDevice(api::IDeviceRWBlock* lower) : lower_(lower) {}
  bool Gone() const { return gone_; }

  bool IsReadOnly() override { return lower_->IsReadOnly(); }
  uint32_t GetSectorSize() override { return lower_->GetSectorSize(); }
  uint64_t GetSize() override { return lower_->GetSize(); }
  api::status_t SetSize(uint32_t how, const uint64_t* size) override { return Note(lower_->SetSize(how, size)); }
  api::status_t ReadBytes(uint64_t offset, void* buffer, uint32_t count, uint32_t flags) override {
    return Note(lower_->ReadBytes(offset, buffer, count, flags));
  }
  api::status_t WriteBytes(uint64_t offset, const void* buffer, uint32_t count, int32_t flags) override {
    return Note(lower_->WriteBytes(offset, buffer, count, flags));
  }
  api::status_t Flush(uint32_t flags) override { return Note(lower_->Flush(flags)); }
  api::status_t IoControl(uint32_t a, uint32_t b, uint32_t c, uint32_t d, uint32_t e, uint32_t f) override {
    return lower_->IoControl(a, b, c, d, e, f);
  }
  int32_t GetDeviceNumber() override { return lower_->GetDeviceNumber(); }
  void WillNeed(uint64_t offset, uint64_t count) override { lower_->WillNeed(offset, count); }

 private:
  api::status_t Note(api::status_t s) {
    if (s == api::ERR_DEVICE_GONE) gone_ = true;
    return s;
  }
  api::IDeviceRWBlock* lower_;
  bool gone_ = false;
};

class CScanSession : public api::base_noncopyable {
 public:
  // How many problem reasons are traced before the rest are only counted.
  static constexpr uint32_t kTracedProblems = 100;

  CScanSession(api::CLibEnv* env, api::IDeviceRWBlock* dev, api::IMessage* msg);
  ~CScanSession();

  api::CLibEnv* Env() const { return env_; }
  api::IBaseMemoryManager* Mem() const { return env_->mem; }
  api::IMessage* Msg() const { return msg_; }
  // The device the scanner's driver reads through.
  api::IDeviceRWBlock* Device() { return &device_; }
  bool DeviceGone() const { return device_.Gone(); }

  // The used-block bitmap: blockCount bits, zero-filled.
  api::status_t CreateBitmap(uint64_t blockCount, uint32_t blockShift);
  BlockBitmap& Used() { return used_; }
  uint64_t BlockCount() const { return used_.Count(); }
  uint32_t BlockShift() const { return shift_; }
  // Marks [first, first + count). A range that runs past the volume is cut
  // at its end and counted as a problem of `what`; false then.
  bool Mark(uint64_t first, uint64_t count, const char* what);

  // Counts one tolerated anomaly; with --verbose its reason (which
  // structure, which block, why) is printed.
  void Problem(const char* format, ...) QORV_PRINTF(2, 3);
  uint32_t Problems() const { return problems_; }

  // Percent progress over `total` steps; Step() moves it and is cheap.
  void BeginProgress(uint64_t total);
  void SetPosition(uint64_t position);
  void EndProgress();

  // ERR_DEVICE_GONE once the device vanished; ERR_TOO_BIG when the user asked
  // to stop (asked of the sink every kBreakEvery polls); otherwise 0.
  api::status_t Poll();

  // Ends the scan: with status 0 the bitmap and the counts go to the
  // scanner's out-arguments (a vanished device turns success into
  // ERR_DEVICE_GONE); otherwise the bitmap is freed and *bitmap left null.
  api::status_t Finish(api::status_t status, uint8_t** bitmap, uint64_t* blockCount, uint32_t* blockShift,
                       uint32_t* problems);

 private:
  static constexpr uint32_t kBreakEvery = 256;
  api::CLibEnv* env_;
  api::IMessage* msg_;
  CWatchedDevice device_;
  BlockBitmap used_;
  uint32_t shift_ = 0;
  uint32_t problems_ = 0;
  uint32_t polls_ = 0;
  bool progress_ = false;
};

// Clears a scanner's out-arguments, so that no failure leaves a stale
// pointer behind.
inline void ClearScanOutputs(uint8_t** bitmap, uint32_t* problems) {
  if (bitmap) *bitmap = nullptr;
  if (problems) *problems = 0;
}

}  // namespace QORV
