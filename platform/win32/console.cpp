// Win32 side of the console: terminal test, the Ctrl-C handler, the trace
// log beside the executable.
#include <windows.h>
#include <io.h>

#include <cstdio>

#include "platform/message.h"
#include "platform/platform.h"
#include "platform/win32/volume.h"

namespace api {

namespace {
volatile LONG g_breakRequested = 0;
bool g_breakCheckEnabled = false;
FILE* g_traceLog = nullptr;
bool g_tracing = false;

// Runs on a thread of its own: only sets the flag, and keeps the process
// alive for every event, so long loops stop cleanly when they poll.
BOOL WINAPI OnConsoleEvent(DWORD event) {
  if (event == CTRL_C_EVENT || event == CTRL_BREAK_EVENT) ::InterlockedExchange(&g_breakRequested, 1);
  return TRUE;
}
}  // namespace

bool IsTerminalStream(FILE* stream) {
  if (!stream) return false;
  DWORD mode;
  return ::GetConsoleMode(reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(stream))), &mode) != 0;
}

void SetBreakRequested() { ::InterlockedExchange(&g_breakRequested, 1); }

void InstallBreakHandler() {
  ::SetConsoleCtrlHandler(OnConsoleEvent, TRUE);
  g_breakCheckEnabled = true;
}

bool BreakCheckEnabled() { return g_breakCheckEnabled; }

bool TakeBreak(bool clear) {
  return (clear ? ::InterlockedExchange(&g_breakRequested, 0) : g_breakRequested) != 0;
}

void OpenTraceLog(const char* programName) {
  if (!g_traceLog) {
    char exe[256];
    DWORD n = ::GetModuleFileNameA(nullptr, exe, sizeof exe);
    bool known = n > 0 && n < sizeof exe;
    g_traceLog = std::fopen(win32::TraceLogPath(known ? exe : nullptr, programName).c_str(), "wt");
  }
  g_tracing = true;
}

bool TraceEnabled() { return g_tracing; }

}  // namespace api
