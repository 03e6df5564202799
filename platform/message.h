// The console message sink: one percent display on one line, leveled
// message lines, prompts, and the Ctrl-C poll.
#pragma once
#include <cstdio>
#include <string>

#include "core/api/message.h"

namespace api {

class CQORV_Message : public IMessage {
 public:
  using Callback = int (*)(IMessage*, uintptr_t, uintptr_t);

  void Configure(FILE* stream, Callback callback, bool noPercents);

  int BeginProgress(const char* format, ...) override QORV_PRINTF(2, 3);
  int EndProgress() override;
  int SetTotal(uint32_t ignored, const uint64_t* total, const char* format, ...) override QORV_PRINTF(4, 5);
  uint64_t GetTotal() override { return total_; }
  int SetPosition(const uint64_t* position) override;
  uint64_t GetPosition() override { return position_; }
  int AddPosition(const uint64_t* delta) override;
  uint32_t GetPercent() override;
  int Reserved() override { return 0; }
  int Trace(int level, const char* format, ...) override QORV_PRINTF(3, 4);
  int VTrace(int level, const char* format, va_list args) override;
  int Ask(int kind, const char* format, ...) override QORV_PRINTF(3, 4);
  int Notify(uintptr_t a, uintptr_t b) override { return callback_ ? callback_(this, a, b) : 0; }
  int CheckBreak(bool clear) override;

 private:
  void Pad(int written);
  FILE* stream_ = nullptr;
  uint32_t depth_ = 0;
  int lastPercent_ = -1;
  int lastWidth_ = 0;
  uint64_t total_ = 0;
  uint64_t position_ = 0;
  std::string label_;  // empty: none
  Callback callback_ = nullptr;
  bool noPercents_ = false;
  bool isTerminal_ = false;
};

// Trace-log file name for an executable path: the extension after the last
// '.' of the last component replaced by "log", or ".log" appended; with no
// path, "./<program>.log".
std::string TraceLogName(const char* exePath, const char* programName);

// Installed once by GetConsoleMessage; set by the Ctrl-C handler.
void SetBreakRequested();
void InstallBreakHandler();
bool BreakCheckEnabled();
bool TakeBreak(bool clear);

}  // namespace api
