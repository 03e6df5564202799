// Win32 side of the tool's files: image files, restore targets, the
// standard streams, through the runtime's descriptors.
#include <windows.h>
#include <winioctl.h>
#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>

#include <cerrno>

#include "platform/platform.h"
#include "platform/win32/win32.h"

namespace api {

using win32::OsHandle;

namespace {

// Only files on disk have a position; pipes and consoles do not.
bool OnDisk(int fd) {
  HANDLE h = OsHandle(fd);
  return h != INVALID_HANDLE_VALUE && ::GetFileType(h) == FILE_TYPE_DISK;
}

constexpr uint32_t kMaxTransfer = 0x40000000;  // one ReadFile/WriteFile call

}  // namespace

bool StdinIsConsole() {
  DWORD mode;
  return ::GetConsoleMode(::GetStdHandle(STD_INPUT_HANDLE), &mode) != 0;
}

void SetBinaryMode(int fd) { _setmode(fd, _O_BINARY); }

int OpenFileForReading(const char* path) { return _open(path, _O_RDONLY | _O_BINARY); }

int OpenFileForWriting(const char* path) { return _open(path, _O_WRONLY | _O_CREAT | _O_BINARY, _S_IREAD | _S_IWRITE); }

int PathIsRegularFile(const char* path) {
  struct _stati64 st {};
  if (_stati64(path, &st) != 0) return -1;
  return (st.st_mode & _S_IFMT) == _S_IFREG ? 1 : 0;
}

void CloseFile(int fd) { _close(fd); }

bool RegularFileSize(int fd, uint64_t* size) {
  LARGE_INTEGER length;
  // A volume handle is on disk too, but has no file size.
  if (!OnDisk(fd) || !::GetFileSizeEx(OsHandle(fd), &length)) return false;
  *size = uint64_t(length.QuadPart);
  return true;
}

int64_t FilePosition(int fd) {
  if (!OnDisk(fd)) {
    errno = ESPIPE;
    return -1;
  }
  return _lseeki64(fd, 0, SEEK_CUR);
}

bool FileAppends(int) { return false; }  // the tool never opens for appending

bool SeekFile(int fd, uint64_t offset) {
  if (!OnDisk(fd)) {
    errno = ESPIPE;
    return false;
  }
  return _lseeki64(fd, int64_t(offset), SEEK_SET) == int64_t(offset);
}

int64_t FileRead(int fd, void* buffer, size_t count) {
  return _read(fd, buffer, unsigned(count < kMaxTransfer ? count : kMaxTransfer));
}

int64_t FileWrite(int fd, const void* buffer, size_t count) {
  return _write(fd, buffer, unsigned(count < kMaxTransfer ? count : kMaxTransfer));
}

int64_t FileReadAt(int fd, void* buffer, size_t count, uint64_t offset) {
  int err = 0;
  int64_t n = win32::ReadAtHandle(OsHandle(fd), buffer, uint32_t(count < kMaxTransfer ? count : kMaxTransfer), offset,
                                  &err);
  if (n < 0) errno = err;
  return n;
}

int64_t FileWriteAt(int fd, const void* buffer, size_t count, uint64_t offset) {
  int err = 0;
  int64_t n = win32::WriteAtHandle(OsHandle(fd), buffer, uint32_t(count < kMaxTransfer ? count : kMaxTransfer),
                                   offset, &err);
  if (n < 0) errno = err;
  return n;
}

// The dump reads as usual and fetches nothing ahead here.
int64_t FileReadCachedAt(int, void*, size_t, uint64_t, bool* unsupported) {
  *unsupported = true;
  errno = ENOSYS;
  return -1;
}

void FilePrefetch(int, uint64_t, uint64_t) {}

void FileWriteBehind(int, uint64_t, uint64_t) {}

// No zero-copy path here: the dump falls back to its own reads and writes.
int64_t FileSendAt(int, int, size_t, uint64_t, bool* unsupported) {
  *unsupported = true;
  return -1;
}

bool ResizeFile(int fd, uint64_t size) {
  if (size > uint64_t(INT64_MAX)) return false;
  HANDLE h = OsHandle(fd);
  LARGE_INTEGER zero{}, was{}, to{};
  to.QuadPart = LONGLONG(size);
  if (!::SetFilePointerEx(h, zero, &was, FILE_CURRENT) || !::SetFilePointerEx(h, to, nullptr, FILE_BEGIN)) return false;
  bool ok = ::SetEndOfFile(h) != 0;
  ::SetFilePointerEx(h, was, nullptr, FILE_BEGIN);
  if (!ok) errno = win32::ErrnoOf(::GetLastError());
  return ok;
}

bool MarkSparse(int fd) {
  FILE_SET_SPARSE_BUFFER sparse{};
  sparse.SetSparse = TRUE;
  DWORD returned = 0;
  return ::DeviceIoControl(OsHandle(fd), FSCTL_SET_SPARSE, &sparse, sizeof sparse, nullptr, 0, &returned, nullptr) != 0;
}

bool FileExtent(int fd, uint64_t offset, uint64_t size, bool* hole, uint64_t* end) {
  FILE_ALLOCATED_RANGE_BUFFER want{}, got{};
  want.FileOffset.QuadPart = LONGLONG(offset);
  want.Length.QuadPart = LONGLONG(size - offset);
  DWORD returned = 0;
  // One range is enough: the first one after offset says what comes next.
  if (!::DeviceIoControl(OsHandle(fd), FSCTL_QUERY_ALLOCATED_RANGES, &want, sizeof want, &got, sizeof got, &returned,
                         nullptr) &&
      ::GetLastError() != ERROR_MORE_DATA)
    return false;
  if (returned < sizeof got) {  // no allocated range: a hole to the end
    *hole = true;
    *end = size;
    return true;
  }
  uint64_t from = uint64_t(got.FileOffset.QuadPart), length = uint64_t(got.Length.QuadPart);
  if (from > offset) {
    *hole = true;
    *end = from < size ? from : size;
    return true;
  }
  if (from + length <= offset) return false;
  *hole = false;
  *end = from + length;
  return true;
}

}  // namespace api
