#include "platform/message.h"

#include <cstdarg>
#include <cstring>

#include "platform/platform.h"

namespace api {

namespace {

constexpr int kWidth = 79;

struct Prompt {
  const char* text;
  const char* keys;
  int results[3];
};
constexpr Prompt kPrompts[] = {
    {"Press any key ", "", {ANSWER_OK}},
    {"(O)k|(C)ancel ", "OC", {ANSWER_OK, ANSWER_CANCEL}},
    {"(A)bort|(R)etry|(I)gnore ", "ARI", {ANSWER_ABORT, ANSWER_RETRY, ANSWER_IGNORE}},
    {"(Y)es|(N)o|(C)ancel ", "YNC", {ANSWER_YES, ANSWER_NO, ANSWER_CANCEL}},
    {"(Y)es|(N)o ", "YN", {ANSWER_YES, ANSWER_NO}},
    {"(R)etry|(C)ancel ", "RC", {ANSWER_RETRY, ANSWER_CANCEL}},
};

// Formats into a 1024-byte buffer (longer text is cut) and drops one trailing newline.
std::string Format(const char* format, va_list args) {
  char buf[1024];
  std::vsnprintf(buf, sizeof buf, format, args);
  size_t n = std::strlen(buf);
  if (n && buf[n - 1] == '\n') buf[--n] = 0;
  return std::string(buf, n);
}

// Whether a * b <= c * d, for 64-bit a, c and 32-bit b, d.
bool WideLessOrEqual(uint64_t a, uint32_t b, uint64_t c, uint32_t d) {
  auto product = [](uint64_t x, uint32_t y, uint64_t* hi) {
    uint64_t lo = (x & 0xFFFFFFFFu) * y;
    uint64_t mid = (x >> 32) * y + (lo >> 32);
    *hi = mid >> 32;
    return (mid << 32) | (lo & 0xFFFFFFFFu);
  };
  uint64_t hi1, hi2;
  uint64_t lo1 = product(a, b, &hi1), lo2 = product(c, d, &hi2);
  return hi1 < hi2 || (hi1 == hi2 && lo1 <= lo2);
}

}  // namespace

void CQORV_Message::Configure(FILE* stream, Callback callback, bool noPercents) {
  stream_ = stream;
  if (stream_) {
    std::setvbuf(stream_, nullptr, _IONBF, 0);
    isTerminal_ = IsTerminalStream(stream_);
  }
  callback_ = callback;
  noPercents_ = noPercents;
}

void CQORV_Message::Pad(int written) {
  for (int i = written; i < lastWidth_; ++i) std::fputc(' ', stream_);
}

int CQORV_Message::BeginProgress(const char* format, ...) {
  if (depth_ == 0) {
    lastPercent_ = -1;
    total_ = position_ = 0;
    label_.clear();
    if (format) {
      va_list args;
      va_start(args, format);
      VTrace(0, format, args);
      va_end(args);
    }
  }
  ++depth_;
  return 1;
}

int CQORV_Message::EndProgress() {
  if (depth_) --depth_;
  if (depth_ == 0 && stream_) {
    std::fputc('\n', stream_);
    lastWidth_ = 0;
    label_.clear();
  }
  return 1;
}

int CQORV_Message::SetTotal(uint32_t, const uint64_t* total, const char* format, ...) {
  total_ = total ? *total : 0;
  position_ = 0;
  if (!format) return 0;
  va_list args;
  va_start(args, format);
  VTrace(1, format, args);
  va_end(args);
  return 1;
}

uint32_t CQORV_Message::GetPercent() {
  if (total_ == 0) return 0;
  if (position_ >= total_) return 100;
  if (position_ <= UINT64_MAX / 100) return uint32_t(position_ * 100 / total_);
  // position * 100 would overflow: the largest p with p * total <= position
  // * 100, compared as 128-bit products (32-bit targets have no wider type).
  uint32_t low = 0, high = 99;
  while (low < high) {
    uint32_t mid = (low + high + 1) / 2;
    if (WideLessOrEqual(total_, mid, position_, 100))
      low = mid;
    else
      high = mid - 1;
  }
  return low;
}

int CQORV_Message::SetPosition(const uint64_t* position) {
  position_ = *position;
  if (noPercents_ || !stream_) return 0;
  int p = int(GetPercent());
  if (p == lastPercent_) return 0;
  lastPercent_ = p;
  if (isTerminal_) std::fputc('\r', stream_);
  int written = label_.empty() ? std::fprintf(stream_, "%d%%", p) : std::fprintf(stream_, "%d%% %s", p, label_.c_str());
  Pad(written);
  lastWidth_ = written + 1;
  if (isTerminal_) std::fputc('\r', stream_);
  return 0;
}

int CQORV_Message::AddPosition(const uint64_t* delta) {
  uint64_t next = position_ + *delta;
  return SetPosition(&next);
}

int CQORV_Message::Trace(int level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  int r = VTrace(level, format, args);
  va_end(args);
  return r;
}

int CQORV_Message::VTrace(int level, const char* format, va_list args) {
  std::string text = Format(format, args);
  if (!stream_) {
    if (level == 0) lastPercent_ = -1;
    return 0;
  }
  label_.clear();
  if (level < 0) return 0;
  int written = 0;
  if (level != 2) {
    if (isTerminal_) std::fputc('\r', stream_);
    written = std::fprintf(stream_, "%s", text.c_str());
  } else {
    if (isTerminal_) std::fputc('\r', stream_);
    int w = lastPercent_ >= 0 ? std::fprintf(stream_, "%d%% ", lastPercent_) : 0;
    if (w + int(text.size()) >= kWidth) {
      int keep = kWidth - w;  // first 50, "...", last (26 - w)
      int tail = keep - 53;
      text = text.substr(0, 50) + "..." + (tail > 0 ? text.substr(text.size() - size_t(tail)) : std::string());
    }
    written = w + std::fprintf(stream_, "%s", text.c_str());
    if (written < kWidth) label_ = text;
  }
  Pad(written);
  if (level != 2) {
    std::fputc('\n', stream_);
    lastWidth_ = 0;
  } else if (isTerminal_) {
    std::fputc('\r', stream_);
    lastWidth_ = written;
  } else {
    lastWidth_ = 0;
  }
  if (level == 0) lastPercent_ = -1;
  return 0;
}

int CQORV_Message::Ask(int kind, const char* format, ...) {
  if (!stream_) return ANSWER_OK;
  va_list args;
  va_start(args, format);
  std::string question = Format(format, args);
  va_end(args);
  if (isTerminal_) std::fputc('\r', stream_);
  std::fprintf(stream_, "%s\n", question.c_str());
  lastWidth_ = 0;
  if (kind < 0 || kind >= int(sizeof kPrompts / sizeof kPrompts[0])) return 0;
  const Prompt& p = kPrompts[kind];
  for (;;) {
    std::fputs(p.text, stream_);
    int ch = std::getchar();
    if (kind == 0) return ANSWER_OK;
    // End of input has no answer of its own; it would never end, so it cancels.
    if (ch == EOF) return p.results[std::strlen(p.keys) - 1];
    int up = (ch >= 'a' && ch <= 'z') ? ch - 'a' + 'A' : ch;
    for (size_t i = 0; p.keys[i]; ++i)
      if (up == p.keys[i]) return p.results[i];
  }
}

int CQORV_Message::CheckBreak(bool clear) {
  if (!BreakCheckEnabled()) return 0;
  return TakeBreak(clear) ? 1 : 0;
}

std::string TraceLogName(const char* exePath, const char* programName) {
  if (!exePath || !*exePath) return std::string("./") + programName + ".log";
  std::string path(exePath);
  size_t slash = path.rfind('/');
  size_t dot = path.rfind('.');
  if (dot != std::string::npos && (slash == std::string::npos || dot > slash)) return path.substr(0, dot + 1) + "log";
  return path + ".log";
}

IMessage* GetConsoleMessage(FILE* stream, int (*callback)(IMessage*, uintptr_t, uintptr_t), bool noPercents) {
  static CQORV_Message sink;
  static bool installed = false;
  if (!installed) {
    InstallBreakHandler();
    installed = true;
  }
  sink.Configure(stream, callback, noPercents);
  return &sink;
}

}  // namespace api
