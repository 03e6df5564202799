// Progress, leveled message lines, prompts and the break poll.
#pragma once
#include <cstdarg>
#include <cstdint>

#if defined(__MINGW32__)
// The sink formats with the runtime's C99 printf, not the system's own.
#define QORV_PRINTF(fmt_idx, arg_idx) __attribute__((format(gnu_printf, fmt_idx, arg_idx)))
#else
#define QORV_PRINTF(fmt_idx, arg_idx) __attribute__((format(printf, fmt_idx, arg_idx)))
#endif

namespace api {

// Ask() kinds and results.
enum : int { ASK_ANY_KEY = 0, ASK_OK_CANCEL, ASK_ABORT_RETRY_IGNORE, ASK_YES_NO_CANCEL, ASK_YES_NO, ASK_RETRY_CANCEL };
enum : int { ANSWER_OK = 1, ANSWER_CANCEL, ANSWER_ABORT, ANSWER_RETRY, ANSWER_IGNORE, ANSWER_YES, ANSWER_NO };

class IMessage {
 public:
  virtual int BeginProgress(const char* format, ...) QORV_PRINTF(2, 3) = 0;
  virtual int EndProgress() = 0;
  virtual int SetTotal(uint32_t ignored, const uint64_t* total, const char* format, ...) QORV_PRINTF(4, 5) = 0;
  virtual uint64_t GetTotal() = 0;
  virtual int SetPosition(const uint64_t* position) = 0;
  virtual uint64_t GetPosition() = 0;
  virtual int AddPosition(const uint64_t* delta) = 0;
  virtual uint32_t GetPercent() = 0;
  virtual int Reserved() = 0;
  // Level 0 and 1 print a line; level 2 is a status line under the running percent.
  virtual int Trace(int level, const char* format, ...) QORV_PRINTF(3, 4) = 0;
  virtual int VTrace(int level, const char* format, va_list args) = 0;
  virtual int Ask(int kind, const char* format, ...) QORV_PRINTF(3, 4) = 0;
  virtual int Notify(uintptr_t a, uintptr_t b) = 0;
  // Non-zero when the user asked to stop (Ctrl-C); clear resets the request.
  virtual int CheckBreak(bool clear) = 0;
  virtual ~IMessage() = default;
};

}  // namespace api
