// Helpers the Win32 files share: the system handle behind a runtime
// descriptor, errno values for system errors, positioned transfers.
#pragma once
#include <windows.h>

#include <cstdint>

namespace api {
namespace win32 {

HANDLE OsHandle(int fd);
int ErrnoOf(DWORD error);
// One positioned transfer: the count moved (0 at the end of a file), or -1
// with *err the errno value.
int64_t ReadAtHandle(HANDLE h, void* buffer, uint32_t count, uint64_t offset, int* err);
int64_t WriteAtHandle(HANDLE h, const void* buffer, uint32_t count, uint64_t offset, int* err);

}  // namespace win32
}  // namespace api
