// The time service on Windows: the system time as a file time, and the
// runtime's time-zone offset.
#include <windows.h>

#include <ctime>

#include "platform/platform.h"

namespace api {

namespace {

class QORV_Time : public ITime {
 public:
  int64_t GetSystemTime() override {
    FILETIME ft;
    ::GetSystemTimeAsFileTime(&ft);
    return int64_t((uint64_t(ft.dwHighDateTime) << 32) | ft.dwLowDateTime);
  }
  int32_t GetTimeZoneBias() override {
    _tzset();
    return int32_t(_timezone / 60);
  }
};

}  // namespace

ITime* GetTime() {
  static QORV_Time t;
  return &t;
}

}  // namespace api
