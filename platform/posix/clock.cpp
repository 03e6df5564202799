// The time service on POSIX: the real-time clock in the Windows file-time
// form, and the runtime's time-zone offset.
#include <ctime>

#include "platform/platform.h"

namespace api {

namespace {

class QORV_Time : public ITime {
 public:
  int64_t GetSystemTime() override {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    // 100-ns units since 1601-01-01.
    return (int64_t(ts.tv_sec) + 11644473600LL) * 10000000LL + ts.tv_nsec / 100;
  }
  int32_t GetTimeZoneBias() override {
    tzset();
    return int32_t(timezone / 60);
  }
};

}  // namespace

ITime* GetTime() {
  static QORV_Time t;
  return &t;
}

}  // namespace api
