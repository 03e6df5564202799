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

// Image files, restore targets and the standard streams, by the runtime's
// descriptor numbers. The tool reaches files only through these, so it never
// knows which system it runs on.
namespace api {

constexpr int kStdIn = 0;
constexpr int kStdOut = 1;

// Whether standard input is a console (a terminal): the automatic direction.
bool StdinIsConsole();
// A standard stream that carries an image moves bytes untranslated.
void SetBinaryMode(int fd);

// Read-only open; -1 with errno set on failure.
int OpenFileForReading(const char* path);
// Write-only open, created if missing, never truncated; -1 with errno set.
int OpenFileForWriting(const char* path);
// 1 for a regular file, 0 for anything else, -1 with errno set when the path
// has no status.
int PathIsRegularFile(const char* path);
void CloseFile(int fd);

// An open regular file's size; false for pipes, consoles and devices.
bool RegularFileSize(int fd, uint64_t* size);
// The current position, or -1 where there is none (a pipe).
int64_t FilePosition(int fd);
// Whether writes land at the end whatever the position says.
bool FileAppends(int fd);
// Absolute seek; false with errno set (ESPIPE for a pipe).
bool SeekFile(int fd, uint64_t offset);
// One transfer at the current position or at an offset: the count moved
// (possibly short), or -1 with errno set. An interrupted call is resumed.
int64_t FileRead(int fd, void* buffer, size_t count);
int64_t FileWrite(int fd, const void* buffer, size_t count);
int64_t FileReadAt(int fd, void* buffer, size_t count, uint64_t offset);
int64_t FileWriteAt(int fd, const void* buffer, size_t count, uint64_t offset);
bool ResizeFile(int fd, uint64_t size);
// Like FileReadAt, but only what the system already holds in memory: fewer
// bytes than asked (or -1 with errno EAGAIN) where the rest would have to
// come from the device. *unsupported when this descriptor cannot read that
// way (then read as usual).
int64_t FileReadCachedAt(int fd, void* buffer, size_t count, uint64_t offset, bool* unsupported);
// A hint: start fetching count bytes at offset into memory.
void FilePrefetch(int fd, uint64_t offset, uint64_t count);
// A hint: start writing count bytes at offset, written before, out to the
// device without waiting for them.
void FileWriteBehind(int fd, uint64_t offset, uint64_t count);
// Moves count bytes from offset of in to the current position of out
// without a copy through the process, where the system can: the count moved
// (possibly short), or -1 with errno set; *unsupported when this pair of
// descriptors can never be served that way (then use reads and writes).
int64_t FileSendAt(int out, int in, size_t count, uint64_t offset, bool* unsupported);
// Asks the file system to keep a new restore target sparse; false when it
// refused (where every file is sparse by nature, always true).
bool MarkSparse(int fd);
// From offset on (offset < size), whether a regular file holds a hole
// (*hole) or data, and where that extent ends (*end, at most size). False
// when the file system cannot say: treat everything as data.
bool FileExtent(int fd, uint64_t offset, uint64_t size, bool* hole, uint64_t* end);

}  // namespace api
