// POSIX side of the console: terminal test, Ctrl-C flag, trace-log file.
#include <signal.h>
#include <unistd.h>

#include <climits>
#include <cstdio>

#include "platform/message.h"
#include "platform/platform.h"

namespace api {

namespace {
volatile sig_atomic_t g_breakRequested = 0;
bool g_breakCheckEnabled = false;
FILE* g_traceLog = nullptr;
bool g_tracing = false;

// Only sets the flag: long loops poll it and stop cleanly.
void OnBreak(int) { g_breakRequested = 1; }
}  // namespace

bool IsTerminalStream(FILE* stream) { return stream && ::isatty(fileno(stream)); }

void SetBreakRequested() { g_breakRequested = 1; }

void InstallBreakHandler() {
  struct sigaction sa {};
  sa.sa_handler = OnBreak;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = SA_RESTART;
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
  g_breakCheckEnabled = true;
}

bool BreakCheckEnabled() { return g_breakCheckEnabled; }

bool TakeBreak(bool clear) {
  bool was = g_breakRequested != 0;
  if (clear) g_breakRequested = 0;
  return was;
}

void OpenTraceLog(const char* programName) {
  if (!g_traceLog) {
    char exe[PATH_MAX];
    ssize_t n = ::readlink("/proc/self/exe", exe, sizeof exe - 1);
    if (n > 0) exe[n] = 0;
    std::string name = TraceLogName(n > 0 ? exe : nullptr, programName);
    g_traceLog = std::fopen(name.c_str(), "w");
  }
  g_tracing = true;
}

bool TraceEnabled() { return g_tracing; }

}  // namespace api
