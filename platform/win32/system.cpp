// The Win32 side of the volume device: the system calls behind the seam of
// volume.h, and the device factory the tool calls.
#include <windows.h>
#include <winioctl.h>
#include <fcntl.h>
#include <io.h>
#include <share.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>

#include "platform/platform.h"
#include "platform/win32/volume.h"
#include "platform/win32/win32.h"

namespace api {

namespace win32 {

HANDLE OsHandle(int fd) { return reinterpret_cast<HANDLE>(_get_osfhandle(fd)); }

int ErrnoOf(DWORD error) {
  switch (error) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
    case ERROR_INVALID_DRIVE:
    case ERROR_BAD_NETPATH:
    case ERROR_BAD_PATHNAME:
    case ERROR_INVALID_NAME:
      return ENOENT;
    case ERROR_ACCESS_DENIED:
    case ERROR_WRITE_PROTECT:
    case ERROR_LOCK_VIOLATION:
    case ERROR_SHARING_VIOLATION:
      return EACCES;
    case ERROR_NOT_ENOUGH_MEMORY:
    case ERROR_OUTOFMEMORY:
      return ENOMEM;
    case ERROR_DISK_FULL:
    case ERROR_HANDLE_DISK_FULL:
      return ENOSPC;
    case ERROR_INVALID_PARAMETER:
    case ERROR_INVALID_FUNCTION:
      return EINVAL;
    case ERROR_BROKEN_PIPE:
    case ERROR_NO_DATA:
      return EPIPE;
    case ERROR_INVALID_HANDLE:
      return EBADF;
    case ERROR_NOT_READY:
    case ERROR_DEV_NOT_EXIST:
      return ENXIO;
  }
  return EIO;
}

int64_t ReadAtHandle(HANDLE h, void* buffer, uint32_t count, uint64_t offset, int* err) {
  OVERLAPPED at{};
  at.Offset = DWORD(offset);
  at.OffsetHigh = DWORD(offset >> 32);
  DWORD got = 0;
  if (::ReadFile(h, buffer, count, &got, &at)) return int64_t(got);
  DWORD e = ::GetLastError();
  if (e == ERROR_HANDLE_EOF) return 0;  // at or past the end of a file
  *err = ErrnoOf(e);
  return -1;
}

int64_t WriteAtHandle(HANDLE h, const void* buffer, uint32_t count, uint64_t offset, int* err) {
  OVERLAPPED at{};
  at.Offset = DWORD(offset);
  at.OffsetHigh = DWORD(offset >> 32);
  DWORD put = 0;
  if (::WriteFile(h, buffer, count, &put, &at)) return int64_t(put);
  *err = ErrnoOf(::GetLastError());
  return -1;
}

namespace {

bool Control(int fd, DWORD code, const void* in, DWORD inSize, void* out, DWORD outSize) {
  DWORD returned = 0;
  return ::DeviceIoControl(OsHandle(fd), code, const_cast<void*>(in), inSize, out, outSize, &returned, nullptr) != 0;
}

class Win32VolumeSystem : public IVolumeSystem {
 public:
  int Open(const char* path, bool readOnly, int* err) override {
    int fd = _sopen(path, (readOnly ? _O_RDONLY : _O_RDWR) | _O_BINARY, _SH_DENYNO);
    if (fd < 0) *err = errno;
    return fd;
  }
  void Close(int fd) override { _close(fd); }
  int64_t SeekEnd(int fd) override {
    if (_lseeki64(fd, 0, SEEK_SET) != 0) return -1;
    return _lseeki64(fd, 0, SEEK_END);
  }
  bool DriveGeometry(int fd, uint32_t* bytesPerSector) override {
    DISK_GEOMETRY g{};
    static_assert(sizeof g == 24, "the geometry answer is 24 bytes");
    if (!Control(fd, IOCTL_DISK_GET_DRIVE_GEOMETRY, nullptr, 0, &g, sizeof g) || g.BytesPerSector == 0) return false;
    *bytesPerSector = g.BytesPerSector;
    return true;
  }
  void FlushBuffers(int fd) override { ::FlushFileBuffers(OsHandle(fd)); }
  bool LockVolume(int fd) override { return Control(fd, FSCTL_LOCK_VOLUME, nullptr, 0, nullptr, 0); }
  bool UnlockVolume(int fd) override { return Control(fd, FSCTL_UNLOCK_VOLUME, nullptr, 0, nullptr, 0); }
  bool DismountVolume(int fd) override { return Control(fd, FSCTL_DISMOUNT_VOLUME, nullptr, 0, nullptr, 0); }
  bool QueryLength(int fd, LengthQuery query, uint64_t* length) override {
    switch (query) {
      case LENGTH_INFO: {
        GET_LENGTH_INFORMATION info{};
        if (!Control(fd, IOCTL_DISK_GET_LENGTH_INFO, nullptr, 0, &info, sizeof info)) return false;
        *length = uint64_t(info.Length.QuadPart);
        return true;
      }
      case PARTITION_INFO_EX: {
        PARTITION_INFORMATION_EX info{};
        if (!Control(fd, IOCTL_DISK_GET_PARTITION_INFO_EX, nullptr, 0, &info, sizeof info)) return false;
        *length = uint64_t(info.PartitionLength.QuadPart);
        return true;
      }
      case PARTITION_INFO: {
        PARTITION_INFORMATION info{};
        if (!Control(fd, IOCTL_DISK_GET_PARTITION_INFO, nullptr, 0, &info, sizeof info)) return false;
        *length = uint64_t(info.PartitionLength.QuadPart);
        return true;
      }
    }
    return false;
  }
  bool AllowExtendedAccess(int fd, uint32_t* winError) override {
    if (Control(fd, FSCTL_ALLOW_EXTENDED_DASD_IO, nullptr, 0, nullptr, 0)) return true;
    *winError = ::GetLastError();
    return false;
  }
  bool Verify(int fd, uint64_t offset, uint32_t count) override {
    VERIFY_INFORMATION v{};
    v.StartingOffset.QuadPart = LONGLONG(offset);
    v.Length = count;
    return Control(fd, IOCTL_DISK_VERIFY, &v, sizeof v, nullptr, 0);
  }
  int64_t ReadAt(int fd, void* buffer, uint32_t count, uint64_t offset, int* err) override {
    return ReadAtHandle(OsHandle(fd), buffer, count, offset, err);
  }
  int64_t WriteAt(int fd, const void* buffer, uint32_t count, uint64_t offset, int* err) override {
    return WriteAtHandle(OsHandle(fd), buffer, count, offset, err);
  }
  bool Readable(const char* path) override {
    int fd = _sopen(path, _O_RDONLY | _O_BINARY, _SH_DENYNO);
    if (fd < 0) return false;
    _close(fd);
    return true;
  }
  void Sleep(uint32_t milliseconds) override { ::Sleep(milliseconds); }
  int ReadChar() override { return std::getchar(); }
  FILE* Out() override { return stdout; }
  FILE* Err() override { return stderr; }
};

Win32VolumeSystem g_system;

}  // namespace

}  // namespace win32

int CreateVolumeDevice(const char* path, bool readOnly, bool fixedSize, IDeviceRWBlock** device, int* descriptor,
                       bool force, uint32_t verbose, uint32_t forcedSectorSize) {
  return win32::CreateVolumeDeviceOn(&win32::g_system, path, readOnly, fixedSize, device, descriptor, force, verbose,
                                     forcedSectorSize);
}

void MakeReadOnly(IDeviceRWBlock* device) {
  if (auto* d = dynamic_cast<win32::CQORV_RWBlock*>(device)) d->MakeReadOnly();
}

void FlushDeviceCaches(IDeviceRWBlock* device) {
  // The restored blocks reach the disk; the next mount reads them afresh.
  if (auto* d = dynamic_cast<win32::CQORV_RWBlock*>(device))
    if (d->fd() >= 0 && !d->IsReadOnly()) ::FlushFileBuffers(win32::OsHandle(d->fd()));
}

}  // namespace api
