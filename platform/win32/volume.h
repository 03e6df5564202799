// The Windows volume device: its open sequence (prefixing, lock, the
// dismount question, length and extended-access queries) and its reads and
// writes with the aligned fall-back, written against a small seam over the
// system calls so that the logic also runs against recorded answers.
#pragma once
#include <cstdint>
#include <cstdio>
#include <string>

#include "core/api/device.h"

namespace api {
namespace win32 {

// The system calls the device makes. system.cpp answers them with the Win32
// API; tests answer them from a script.
class IVolumeSystem {
 public:
  // The three length queries, tried in this order.
  enum LengthQuery { LENGTH_INFO, PARTITION_INFO_EX, PARTITION_INFO };

  virtual ~IVolumeSystem() = default;
  // The runtime's shared binary open, never creating: a descriptor, or -1
  // with *err the errno value.
  virtual int Open(const char* path, bool readOnly, int* err) = 0;
  virtual void Close(int fd) = 0;
  // Seeks to 0, then to the end: the end position, or -1.
  virtual int64_t SeekEnd(int fd) = 0;
  // IOCTL_DISK_GET_DRIVE_GEOMETRY: false for an ordinary file.
  virtual bool DriveGeometry(int fd, uint32_t* bytesPerSector) = 0;
  virtual void FlushBuffers(int fd) = 0;
  virtual bool LockVolume(int fd) = 0;
  virtual bool UnlockVolume(int fd) = 0;
  virtual bool DismountVolume(int fd) = 0;
  virtual bool QueryLength(int fd, LengthQuery query, uint64_t* length) = 0;
  // FSCTL_ALLOW_EXTENDED_DASD_IO; on failure *winError is the system's error.
  virtual bool AllowExtendedAccess(int fd, uint32_t* winError) = 0;
  // IOCTL_DISK_VERIFY of a byte range.
  virtual bool Verify(int fd, uint64_t offset, uint32_t count) = 0;
  // One positioned transfer: the count moved, or -1 with *err the errno value.
  virtual int64_t ReadAt(int fd, void* buffer, uint32_t count, uint64_t offset, int* err) = 0;
  virtual int64_t WriteAt(int fd, const void* buffer, uint32_t count, uint64_t offset, int* err) = 0;
  // Whether the path can still be opened for reading (a vanished device cannot).
  virtual bool Readable(const char* path) = 0;
  virtual void Sleep(uint32_t milliseconds) = 0;
  // The console the open sequence talks to: one character of the answer to
  // the dismount question (EOF at the end of input), and the two streams.
  virtual int ReadChar() = 0;
  virtual FILE* Out() = 0;
  virtual FILE* Err() = 0;
};

// The name actually opened: a drive letter (any name whose second
// character is ':') goes behind "\\.\", anything else is opened as given;
// at most 260 characters.
std::string VolumePath(const char* name);

// The trace log's name for the executable path (null when it cannot be
// obtained): what follows the last '.' becomes "log" (cut at the '.' when
// that would pass 256 characters); with no '.', what follows the last '\';
// with neither, "qorv.log"; with no path, "./<programName>.log".
std::string TraceLogPath(const char* exePath, const char* programName);

class CQORV_RWBlock : public CRWBlockA {
 public:
  CQORV_RWBlock(IVolumeSystem* sys, bool readOnly, bool fixedSize)
      : sys_(sys), readOnly_(readOnly), fixedSize_(fixedSize) {}
  ~CQORV_RWBlock() override;

  // The open sequence: 0, or the errno value of the failure.
  int Open(const char* name, bool force, bool verbose, uint32_t forcedSectorSize);
  int fd() const { return fd_; }
  bool locked() const { return locked_; }
  void MakeReadOnly() { readOnly_ = true; }

  bool IsReadOnly() override { return readOnly_; }
  uint32_t GetSectorSize() override { return sectorSize_; }
  uint64_t GetSize() override { return size_; }
  status_t SetSize(uint32_t how, const uint64_t* size) override;
  status_t ReadBytes(uint64_t offset, void* buffer, uint32_t count, uint32_t flags) override;
  status_t WriteBytes(uint64_t offset, const void* buffer, uint32_t count, int32_t flags) override;
  status_t Flush(uint32_t flags) override;
  status_t IoControl(uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t) override { return ERR_NOT_SUPPORTED; }
  int32_t GetDeviceNumber() override { return -1; }

 private:
  int Fail(int code);
  bool InRange(uint64_t offset, uint32_t count) const { return offset <= size_ && count <= size_ - offset; }
  status_t ReadFailed(uint64_t offset, void* buffer, uint32_t count, int64_t got, int err);
  status_t WriteFailed(uint64_t offset, const void* buffer, uint32_t count, int64_t got, int err);

  IVolumeSystem* sys_;
  int fd_ = -1;
  bool readOnly_;
  bool fixedSize_;
  bool locked_ = false;
  bool gone_ = false;
  uint32_t sectorSize_ = 512;
  uint64_t size_ = 0;
  std::string path_;
};

// CreateVolumeDevice over a given system: 0 and the device, or the errno
// value with *device null.
int CreateVolumeDeviceOn(IVolumeSystem* sys, const char* path, bool readOnly, bool fixedSize,
                         IDeviceRWBlock** device, int* descriptor, bool force, uint32_t verbose,
                         uint32_t forcedSectorSize);

}  // namespace win32
}  // namespace api
