// The block-device interface every driver reads through.
#pragma once
#include <cstdint>

#include "core/api/status.h"

namespace api {

class base_noncopyable {
 protected:
  base_noncopyable() = default;
  ~base_noncopyable() = default;

 public:
  base_noncopyable(const base_noncopyable&) = delete;
  base_noncopyable& operator=(const base_noncopyable&) = delete;
};

// ReadBytes flags.
constexpr uint32_t READ_NO_DATA = 1u << 30;  // range check only
constexpr uint32_t READ_VERIFY = 1u << 29;   // verify, no copy
// A failure is returned but not reported: the caller reads the range again
// in smaller pieces to learn which part failed, and that read reports it.
constexpr uint32_t READ_QUIET = 1u << 28;
// WriteBytes flags.
constexpr int32_t WRITE_ZEROS = INT32_MIN;   // bit 31: buffer ignored, zeros written

class IDeviceRWBlock : public base_noncopyable {
 public:
  virtual bool IsReadOnly() = 0;
  virtual uint32_t GetSectorSize() = 0;
  virtual uint64_t GetSize() = 0;
  virtual status_t SetSize(uint32_t how, const uint64_t* size) = 0;
  virtual status_t ReadBytes(uint64_t offset, void* buffer, uint32_t count, uint32_t flags) = 0;
  virtual status_t WriteBytes(uint64_t offset, const void* buffer, uint32_t count, int32_t flags) = 0;
  virtual status_t Flush(uint32_t flags) = 0;
  virtual status_t IoControl(uint32_t a, uint32_t b, uint32_t c, uint32_t d, uint32_t e, uint32_t f) = 0;
  virtual int32_t GetDeviceNumber() = 0;
  // A hint that these bytes will be read soon, so the system can start
  // fetching them; devices without such a notion ignore it.
  virtual void WillNeed(uint64_t offset, uint64_t count) {
    (void)offset;
    (void)count;
  }
  virtual ~IDeviceRWBlock() = default;
};

// Common base of concrete block devices.
class CRWBlockA : public IDeviceRWBlock {};

}  // namespace api
