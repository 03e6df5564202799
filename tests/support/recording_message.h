// A message sink for scanner tests: records every line as "level:text" and
// answers the break poll from a flag.
#pragma once
#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "core/api/message.h"

namespace testsupport {

class RecordingMessage : public api::IMessage {
 public:
  // A progress title is recorded as a level-0 line, as the console prints it.
  int BeginProgress(const char* format, ...) override {
    if (!format) return 0;
    va_list args;
    va_start(args, format);
    VTrace(0, format, args);
    va_end(args);
    return 0;
  }
  int EndProgress() override { return 0; }
  // So is a progress text, at level 1.
  int SetTotal(uint32_t, const uint64_t*, const char* format, ...) override {
    if (!format) return 0;
    va_list args;
    va_start(args, format);
    VTrace(1, format, args);
    va_end(args);
    return 1;
  }
  uint64_t GetTotal() override { return 0; }
  int SetPosition(const uint64_t*) override { return 0; }
  uint64_t GetPosition() override { return 0; }
  int AddPosition(const uint64_t*) override { return 0; }
  uint32_t GetPercent() override { return 0; }
  int Reserved() override { return 0; }
  int Trace(int level, const char* format, ...) override {
    va_list args;
    va_start(args, format);
    VTrace(level, format, args);
    va_end(args);
    return 0;
  }
  int VTrace(int level, const char* format, va_list args) override {
    char buf[512];
    std::vsnprintf(buf, sizeof buf, format, args);
    lines.push_back(std::to_string(level) + ":" + buf);
    return 0;
  }
  int Ask(int, const char*, ...) override { return 0; }
  int Notify(uintptr_t, uintptr_t) override { return 0; }
  int CheckBreak(bool) override {
    ++polls;
    return stop;
  }
  bool Has(int level, const std::string& text) const {
    for (const auto& l : lines)
      if (l == std::to_string(level) + ":" + text) return true;
    return false;
  }

  std::vector<std::string> lines;
  int stop = 0;
  int polls = 0;
};

}  // namespace testsupport
