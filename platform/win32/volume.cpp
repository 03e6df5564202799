// The Windows volume device's logic, over the system-call seam of volume.h.
// Nothing here includes a system header, so it builds and is tested on any
// host.
#include "platform/win32/volume.h"

#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <new>
#include <vector>

#include "platform/aligned_io.h"

namespace api {
namespace win32 {

namespace {

constexpr size_t kMaxPath = 260;
constexpr size_t kMaxModulePath = 256;
constexpr uint32_t kInvalidParameter = 87;  // the extended-access query's "already allowed"
constexpr uint32_t kDismountWaitMs = 2000;
constexpr int kMaxDismounts = 3;            // the third dismount in one open gives up
constexpr int kRefused = 22;                // EINVAL: lock, dismount or size refused

const char* LengthQueryName(IVolumeSystem::LengthQuery q) {
  switch (q) {
    case IVolumeSystem::LENGTH_INFO:
      return "IOCTL_DISK_GET_LENGTH_INFO";
    case IVolumeSystem::PARTITION_INFO_EX:
      return "IOCTL_DISK_GET_PARTITION_INFO_EX";
    case IVolumeSystem::PARTITION_INFO:
      break;
  }
  return "IOCTL_DISK_GET_PARTITION_INFO";
}

}  // namespace

std::string VolumePath(const char* name) {
  std::string path = (name[0] && name[1] == ':') ? std::string("\\\\.\\") + name : std::string(name);
  return path.substr(0, kMaxPath);
}

std::string TraceLogPath(const char* exePath, const char* programName) {
  if (!exePath) return std::string("./") + programName + ".log";
  std::string path = std::string(exePath).substr(0, kMaxModulePath);
  size_t dot = path.rfind('.');
  if (dot != std::string::npos) {
    std::string named = path.substr(0, dot + 1) + "log";
    return named.size() < kMaxModulePath ? named : path.substr(0, dot);
  }
  size_t slash = path.rfind('\\');
  if (slash != std::string::npos) return path.substr(0, slash + 1) + "log";
  return "qorv.log";
}

CQORV_RWBlock::~CQORV_RWBlock() {
  if (fd_ < 0) return;
  if (locked_) {
    sys_->DismountVolume(fd_);
    sys_->UnlockVolume(fd_);
  }
  sys_->FlushBuffers(fd_);
  sys_->Close(fd_);
}

int CQORV_RWBlock::Fail(int code) {
  sys_->Close(fd_);
  fd_ = -1;
  return code;
}

int CQORV_RWBlock::Open(const char* name, bool force, bool verbose, uint32_t forcedSectorSize) {
  FILE* out = sys_->Out();
  FILE* err = sys_->Err();
  const std::string path = VolumePath(name);
  int openErr = 0;
  fd_ = sys_->Open(path.c_str(), readOnly_, &openErr);
  if (fd_ < 0) {
    std::fprintf(err, "Can't open \"%s\" : %s\n", name, std::strerror(openErr));
    return openErr;
  }
  int dismounts = 0;
  bool geometry = false;
  for (;;) {
    int64_t end = sys_->SeekEnd(fd_);
    size_ = end < 0 ? UINT64_MAX : uint64_t(end);
    uint32_t bytesPerSector = 0;
    geometry = sys_->DriveGeometry(fd_, &bytesPerSector);
    if (geometry) {
      sectorSize_ = bytesPerSector;
      if (verbose)
        std::fprintf(out, "DeviceIoControl( \"%s\", IOCTL_DISK_GET_DRIVE_GEOMETRY ) => BytesPerSector = %d\n", name,
                     int(bytesPerSector));
      // A volume handle may give no length through the seek; the queries
      // below know it.
      if (size_ == 0) size_ = UINT64_MAX;
    } else {
      std::fprintf(err, "Can't get sector size of \"%s\". Use default 512 bytes\n", name);
    }
    sys_->FlushBuffers(fd_);
    if (!geometry) break;
    if (sys_->LockVolume(fd_)) {
      locked_ = true;
      if (verbose) std::fprintf(out, "\"%s\" is locked\n", name);
      break;
    }
    if (readOnly_) break;  // a dump reads the volume unlocked
    std::fprintf(err, "Can't lock volume \"%s\"\n", name);
    if (!force) {
      std::fprintf(err, "Press 'y' to force dismount \"%s\"", name);
      int answer = sys_->ReadChar();
      for (int c = answer; c != '\n' && c != EOF;) c = sys_->ReadChar();
      if (answer != 'y') return Fail(kRefused);
    }
    if (!sys_->DismountVolume(fd_)) {
      std::fprintf(err, "Can't dismount volume \"%s\"\n", name);
      return Fail(kRefused);
    }
    if (++dismounts >= kMaxDismounts) return Fail(kRefused);
    std::fprintf(out, "Volume \"%s\" dismounted.  All opened handles to this volume are now invalid.\n", name);
    sys_->Close(fd_);
    sys_->Sleep(kDismountWaitMs);
    fd_ = sys_->Open(path.c_str(), readOnly_, &openErr);
    if (fd_ < 0) {
      std::fprintf(err, "Can't open \"%s\" : %s\n", name, std::strerror(openErr));
      return openErr;
    }
  }
  if (size_ == UINT64_MAX) {
    const IVolumeSystem::LengthQuery queries[] = {IVolumeSystem::LENGTH_INFO, IVolumeSystem::PARTITION_INFO_EX,
                                                  IVolumeSystem::PARTITION_INFO};
    bool known = false;
    for (auto q : queries) {
      uint64_t length = 0;
      if (!sys_->QueryLength(fd_, q, &length)) continue;
      size_ = length;
      known = true;
      if (verbose) std::fprintf(out, "DeviceIoControl( \"%s\", %s ) => 0x%" PRIx64 "\n", name, LengthQueryName(q), length);
      break;
    }
    if (!known) {
      std::fprintf(err, "Can't get the size of volume \"%s\"\n", name);
      return Fail(kRefused);
    }
  }
  if (geometry) {
    uint32_t winError = 0;
    bool allowed = sys_->AllowExtendedAccess(fd_, &winError) || winError == kInvalidParameter;
    if (allowed && verbose) std::fprintf(out, "\"%s\": allowed EXTENDED_DASD_IO\n", name);
    if (!allowed) std::fprintf(err, "FSCTL_ALLOW_EXTENDED_DASD_IO failed \"%s\"\n", name);
  }
  if (sectorSize_ != 512 && sectorSize_ != 4096)
    std::fprintf(err, "%s: non standard sector size 0x%x bytes\n", name, sectorSize_);
  if (verbose)
    std::fprintf(out, "\"%s\": disk size 0x%" PRIx64 " bytes. ~%" PRIu64 "GB, sector size 0x%x\n", name, size_,
                 (size_ + (uint64_t(1) << 29)) >> 30, sectorSize_);
  path_ = path;
  if (forcedSectorSize && forcedSectorSize != sectorSize_) {
    sectorSize_ = forcedSectorSize;
    std::fprintf(out, "%s: force to use sector size 0x%x\n", name, forcedSectorSize);
  }
  return 0;
}

status_t CQORV_RWBlock::SetSize(uint32_t, const uint64_t* size) {
  if (readOnly_) return ERR_WRITE_PROTECTED;
  if (fixedSize_) return ERR_NOT_SUPPORTED;
  return (size && *size) ? ERR_NOT_SUPPORTED : QORV_OK;
}

status_t CQORV_RWBlock::Flush(uint32_t) {
  if (fd_ >= 0) sys_->FlushBuffers(fd_);
  return QORV_OK;
}

status_t CQORV_RWBlock::ReadFailed(uint64_t offset, void* buffer, uint32_t count, int64_t got, int err) {
  FILE* out = sys_->Err();
  if (got >= 0) {
    std::fprintf(out, "\"%s\": error reading 0x%zx bytes at offset 0x%" PRIx64 ", in buffer %p, pread64=%d\n",
                 path_.c_str(), size_t(count), offset, buffer, int(got));
    return ERR_SHORT_IO;
  }
  std::fprintf(out, "\"%s\": error reading 0x%zx bytes at offset 0x%" PRIx64 ", in buffer %p, pread64=%d, error=%d,%s\n",
               path_.c_str(), size_t(count), offset, buffer, int(got), err, std::strerror(err));
  if (!sys_->Readable(path_.c_str())) {
    gone_ = true;
    return ERR_DEVICE_GONE;
  }
  return status_t(err);
}

status_t CQORV_RWBlock::WriteFailed(uint64_t offset, const void* buffer, uint32_t count, int64_t got, int err) {
  std::fprintf(sys_->Err(),
               "\"%s\": error writing 0x%zx bytes at offset 0x%" PRIx64 ", in buffer %p, pwrite64=%d, error=%d,%s\n",
               path_.c_str(), size_t(count), offset, buffer, int(got), err, std::strerror(err));
  return err ? status_t(err) : ERR_SHORT_IO;
}

status_t CQORV_RWBlock::ReadBytes(uint64_t offset, void* buffer, uint32_t count, uint32_t flags) {
  if (gone_) return ERR_DEVICE_GONE;
  if (count == 0) return QORV_OK;
  if (!InRange(offset, count)) return ERR_IO_RANGE;
  if (flags & READ_NO_DATA) return QORV_OK;
  if (flags & READ_VERIFY) return sys_->Verify(fd_, offset, count) ? QORV_OK : ERR_IO_RANGE;
  uint8_t* out = static_cast<uint8_t*>(buffer);
  std::vector<uint8_t> scratch;
  if (!out) {
    scratch.resize(count);
    out = scratch.data();
  }
  int err = 0;
  if (sys_->ReadAt(fd_, out, count, offset, &err) == int64_t(count)) return QORV_OK;
  if (flags & READ_QUIET) return ERR_SHORT_IO;
  // A volume handle refuses unaligned transfers: go by aligned pieces.
  return ReadByAlignedPieces(
      offset, out, count, size_,
      [this](void* b, uint32_t n, uint64_t at, int* e) { return sys_->ReadAt(fd_, b, n, at, e); },
      [this](uint64_t at, void* b, uint32_t n, int64_t got, int e) { return ReadFailed(at, b, n, got, e); });
}

status_t CQORV_RWBlock::WriteBytes(uint64_t offset, const void* buffer, uint32_t count, int32_t flags) {
  if (gone_) return ERR_DEVICE_GONE;
  if (readOnly_) return ERR_WRITE_PROTECTED;
  if (count == 0) return QORV_OK;
  if (!InRange(offset, count)) return ERR_IO_RANGE;
  const bool zeros = flags & WRITE_ZEROS;
  const uint8_t* in = static_cast<const uint8_t*>(buffer);
  int err = 0;
  if (!zeros && in && sys_->WriteAt(fd_, in, count, offset, &err) == int64_t(count)) return QORV_OK;
  // Partial writes and zero fills go by aligned pieces.
  return WriteByAlignedPieces(
      offset, zeros ? nullptr : in, count, size_,
      [this](void* b, uint32_t n, uint64_t at, int* e) { return sys_->ReadAt(fd_, b, n, at, e); },
      [this](const void* b, uint32_t n, uint64_t at, int* e) { return sys_->WriteAt(fd_, b, n, at, e); },
      [this](uint64_t at, const void* b, uint32_t n, int64_t got, int e) { return WriteFailed(at, b, n, got, e); });
}

int CreateVolumeDeviceOn(IVolumeSystem* sys, const char* path, bool readOnly, bool fixedSize,
                         IDeviceRWBlock** device, int* descriptor, bool force, uint32_t verbose,
                         uint32_t forcedSectorSize) {
  *device = nullptr;
  auto* dev = new (std::nothrow) CQORV_RWBlock(sys, readOnly, fixedSize);
  if (!dev) return ENOMEM;
  int status = dev->Open(path, force, verbose != 0, forcedSectorSize);
  if (status != 0) {
    delete dev;
    return status;
  }
  if (descriptor) *descriptor = dev->fd();
  *device = dev;
  return 0;
}

}  // namespace win32
}  // namespace api
