// The platform layer's services: the volume device factory, the console
// message sink, the trace log, and the memory, string and time services.
// Everything platform-specific sits behind these calls.
#pragma once
#include <cstdint>
#include <cstdio>

#include "core/api/device.h"
#include "core/api/message.h"
#include "core/api/scanner.h"
#include "core/api/services.h"

namespace api {

// Opens a volume, device or image file. Returns 0 and the device, or an errno
// value (12 allocation, 22 refused lock/dismount/unknown size, else the
// open's errno) with *device null; a writable open of a device the kernel
// holds read-only returns int(ERR_WRITE_PROTECTED) instead, a status and not
// an errno. *descriptor (may be null) receives the
// descriptor the dump reads from directly.
int CreateVolumeDevice(const char* path, bool readOnly, bool fixedSize, IDeviceRWBlock** device, int* descriptor,
                       bool force, uint32_t verbose, uint32_t forcedSectorSize);
// Marks a device made by CreateVolumeDevice read-only (never cleared again).
void MakeReadOnly(IDeviceRWBlock* device);
// Device-level flush after a restore wrote a block device, so the next mount
// sees the restored data (no-op on regular files).
void FlushDeviceCaches(IDeviceRWBlock* device);

// The process's one console message sink. stream null = silent.
IMessage* GetConsoleMessage(FILE* stream, int (*callback)(IMessage*, uintptr_t, uintptr_t), bool noPercents);
// Opens the trace log named after the executable (or "./<programName>.log").
void OpenTraceLog(const char* programName);
bool TraceEnabled();

IBaseMemoryManager* GetMemoryManager();
IBaseStringManager* GetStringManager();
ITime* GetTime();

}  // namespace api

namespace api {
// Whether a stream is a terminal (status lines are then rewritten in place).
bool IsTerminalStream(FILE* stream);
}  // namespace api
