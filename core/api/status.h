// Status codes shared by every layer. Failures travel as these values,
// never as exceptions; 0 means success.
#pragma once
#include <cstdint>

namespace api {

using status_t = uint32_t;

constexpr status_t QORV_OK = 0;
constexpr status_t ERR_IO_RANGE = 0xA0001001;        // beyond the device end, device error, bad header
constexpr status_t ERR_NOT_RECOGNIZED = 0xA0001006;  // not this scanner's file system
constexpr status_t ERR_NO_MEMORY = 0xA0001007;
constexpr status_t ERR_SHORT_IO = 0xA000100C;
constexpr status_t ERR_WRITE_FAILED = 0xA000100D;
constexpr status_t ERR_END_OF_DIR = 0xA000100E;      // enumerators only
constexpr status_t ERR_INCONSISTENT = 0xA000101C;    // structure inconsistent or unusable
constexpr status_t ERR_WRITE_PROTECTED = 0xA0001020;
constexpr status_t ERR_NOT_SUPPORTED = 0xA0001024;
constexpr status_t ERR_TOO_BIG = 0xA0001028;         // also: the user asked to stop
constexpr status_t ERR_DEVICE_GONE = 0xA0001033;

}  // namespace api

// Early return on failure; keeps call sites flat.
#define QORV_TRY(expr)                        \
  do {                                        \
    ::api::status_t qorv_try_s_ = (expr);     \
    if (qorv_try_s_ != ::api::QORV_OK)        \
      return qorv_try_s_;                     \
  } while (0)
