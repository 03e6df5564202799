// The volume device on POSIX: a block device, a device path or an image
// file, with byte-addressed reads and writes.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "platform/aligned_io.h"
#include "platform/platform.h"

namespace api {

namespace {

// Reads leave the volume's access time alone: a dump is no use of the
// file, and skipping the update saves work on every read. Only the owner or
// a privileged caller may ask for that; anyone else opens it plainly.
int OpenVolume(const std::string& path, int mode) {
#ifdef O_NOATIME
  int fd = ::open(path.c_str(), mode | O_NOATIME);
  if (fd >= 0 || errno != EPERM) return fd;
#endif
  return ::open(path.c_str(), mode);
}

// One pread for the aligned fall-back: bytes read, or -1 with *err set.
struct PieceRead {
  int fd;
  explicit PieceRead(int f) : fd(f) {}
  int64_t operator()(void* buffer, uint32_t count, uint64_t at, int* err) const {
    ssize_t n = ::pread(fd, buffer, count, off_t(at));
    *err = errno;
    return n;
  }
};

// The name to open. Drive letters are a Windows notion; here a name is
// opened as given.
std::string PlatformPath(const char* name) { return std::string(name).substr(0, 260); }

// Forcing other users off a mounted volume has no safe counterpart here: an
// unmounted file system is not mounted again by itself.
bool DismountVolume(int) { return false; }

// Whether the kernel holds a block device read-only (a write-protected card,
// a loop device set up read-only). Such a device still opens for writing and
// then refuses every write, so a restore must be stopped at the open, before
// its first block. Not a block device: not read-only by this test.
bool KernelReadOnly(int fd) {
  int readOnly = 0;
  return ::ioctl(fd, BLKROGET, &readOnly) == 0 && readOnly != 0;
}

class CQORV_RWBlock : public CRWBlockA {
 public:
  CQORV_RWBlock(bool readOnly, bool fixedSize) : readOnly_(readOnly), fixedSize_(fixedSize) {}
  ~CQORV_RWBlock() override {
    if (fd_ >= 0) {
      if (written_) ::fsync(fd_);
      ::close(fd_);
    }
  }

  int Open(const char* name, bool force, bool verbose, uint32_t forcedSectorSize);
  int fd() const { return fd_; }
  void MakeReadOnly() { readOnly_ = true; }
  void FlushCaches() {
    if (fd_ < 0 || readOnly_) return;
    ::fsync(fd_);
    if (isBlockDevice_) ::ioctl(fd_, BLKFLSBUF, 0);
  }

  bool IsReadOnly() override { return readOnly_; }
  uint32_t GetSectorSize() override { return sectorSize_; }
  uint64_t GetSize() override { return size_; }
  status_t SetSize(uint32_t, const uint64_t* size) override {
    if (readOnly_) return ERR_WRITE_PROTECTED;
    if (fixedSize_) return ERR_NOT_SUPPORTED;
    return (size && *size) ? ERR_NOT_SUPPORTED : QORV_OK;
  }
  status_t ReadBytes(uint64_t offset, void* buffer, uint32_t count, uint32_t flags) override;
  status_t WriteBytes(uint64_t offset, const void* buffer, uint32_t count, int32_t flags) override;
  status_t Flush(uint32_t) override {
    if (fd_ >= 0) ::fsync(fd_);
    return QORV_OK;
  }
  status_t IoControl(uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t) override { return ERR_NOT_SUPPORTED; }
  int32_t GetDeviceNumber() override { return -1; }
  void WillNeed(uint64_t offset, uint64_t count) override {
    if (fd_ >= 0 && InRange(offset, 0) && count <= size_ - offset)
      ::posix_fadvise(fd_, off_t(offset), off_t(count), POSIX_FADV_WILLNEED);
  }

 private:
  bool InRange(uint64_t offset, uint32_t count) const { return offset <= size_ && count <= size_ - offset; }
  status_t ReadFailed(uint64_t offset, void* buffer, uint32_t count, ssize_t got, int err);
  status_t WriteFailed(uint64_t offset, const void* buffer, uint32_t count, ssize_t got, int err);

  int fd_ = -1;
  bool readOnly_;
  bool fixedSize_;
  bool locked_ = false;
  bool gone_ = false;
  bool written_ = false;
  bool isBlockDevice_ = false;
  uint32_t sectorSize_ = 512;
  uint64_t size_ = 0;
  std::string path_;
};

int CQORV_RWBlock::Open(const char* name, bool force, bool verbose, uint32_t forcedSectorSize) {
  std::string path = PlatformPath(name);
  const int mode = (readOnly_ ? O_RDONLY : O_RDWR) | O_CLOEXEC;
  fd_ = OpenVolume(path, mode);
  if (fd_ < 0) {
    int err = errno;
    std::fprintf(stderr, "Can't open \"%s\" : %s\n", name, std::strerror(err));
    return err;
  }
  if (!readOnly_ && KernelReadOnly(fd_)) {
    std::fprintf(stderr, "Can't open \"%s\" for writing: the device is write-protected\n", name);
    ::close(fd_);
    fd_ = -1;
    return int(ERR_WRITE_PROTECTED);
  }
  int dismounts = 0;
  bool geometry = false;
  for (;;) {
    off_t end = ::lseek(fd_, 0, SEEK_END);
    size_ = end < 0 ? UINT64_MAX : uint64_t(end);
    int bytesPerSector = 0;
    geometry = ::ioctl(fd_, BLKSSZGET, &bytesPerSector) == 0 && bytesPerSector > 0;
    if (!geometry) {
      std::fprintf(stderr, "Can't get sector size of \"%s\". Use default 512 bytes\n", name);
      break;
    }
    isBlockDevice_ = true;
    sectorSize_ = uint32_t(bytesPerSector);
    if (verbose) std::printf("ioctl( \"%s\", BLKSSZGET ) => BytesPerSector = %d\n", name, bytesPerSector);
    ::fsync(fd_);
    // Exclusive access: an O_EXCL open of a block device fails while the
    // volume is mounted or held by someone else.
    int excl = OpenVolume(path, mode | O_EXCL);
    if (excl >= 0) {
      ::close(fd_);
      fd_ = excl;
      locked_ = true;
      if (verbose) std::printf("\"%s\" is locked\n", name);
      break;
    }
    if (readOnly_) break;
    std::fprintf(stderr, "Can't lock volume \"%s\"\n", name);
    if (!force) {
      std::fprintf(stderr, "Press 'y' to force dismount \"%s\"", name);
      int answer = std::getchar();
      for (int c = answer; c != '\n' && c != EOF;) c = std::getchar();
      if (answer != 'y') {
        ::close(fd_);
        fd_ = -1;
        return 22;
      }
    }
    if (!DismountVolume(fd_)) {
      std::fprintf(stderr, "Can't dismount volume \"%s\"\n", name);
      ::close(fd_);
      fd_ = -1;
      return 22;
    }
    if (++dismounts >= 3) {
      ::close(fd_);
      fd_ = -1;
      return 22;
    }
    std::printf("Volume \"%s\" dismounted.  All opened handles to this volume are now invalid.\n", name);
    ::close(fd_);
    ::sleep(2);
    fd_ = OpenVolume(path, mode);
    if (fd_ < 0) {
      int err = errno;
      std::fprintf(stderr, "Can't open \"%s\" : %s\n", name, std::strerror(err));
      return err;
    }
  }
  if (size_ == UINT64_MAX) {
    uint64_t length = 0;
    if (::ioctl(fd_, BLKGETSIZE64, &length) != 0) {
      std::fprintf(stderr, "Can't get the size of volume \"%s\"\n", name);
      ::close(fd_);
      fd_ = -1;
      return 22;
    }
    size_ = length;
    if (verbose) std::printf("ioctl( \"%s\", %s ) => 0x%" PRIx64 "\n", name, "BLKGETSIZE64", length);
  }
  if (sectorSize_ != 512 && sectorSize_ != 4096)
    std::fprintf(stderr, "%s: non standard sector size 0x%x bytes\n", name, sectorSize_);
  if (verbose)
    std::printf("\"%s\": disk size 0x%" PRIx64 " bytes. ~%" PRIu64 "GB, sector size 0x%x\n", name, size_,
                (size_ + (uint64_t(1) << 29)) >> 30, sectorSize_);
  path_ = path;
  if (forcedSectorSize && forcedSectorSize != sectorSize_) {
    sectorSize_ = forcedSectorSize;
    std::printf("%s: force to use sector size 0x%x\n", name, forcedSectorSize);
  }
  return 0;
}

status_t CQORV_RWBlock::ReadFailed(uint64_t offset, void* buffer, uint32_t count, ssize_t got, int err) {
  if (got >= 0) {
    std::fprintf(stderr, "\"%s\": error reading 0x%zx bytes at offset 0x%" PRIx64 ", in buffer %p, pread64=%d\n",
                 path_.c_str(), size_t(count), offset, buffer, int(got));
    return ERR_SHORT_IO;
  }
  std::fprintf(stderr,
               "\"%s\": error reading 0x%zx bytes at offset 0x%" PRIx64 ", in buffer %p, pread64=%d, error=%d,%s\n",
               path_.c_str(), size_t(count), offset, buffer, int(got), err, std::strerror(err));
  if (::access(path_.c_str(), R_OK) != 0) {
    gone_ = true;
    return ERR_DEVICE_GONE;
  }
  return status_t(err);
}

status_t CQORV_RWBlock::WriteFailed(uint64_t offset, const void* buffer, uint32_t count, ssize_t got, int err) {
  std::fprintf(stderr,
               "\"%s\": error writing 0x%zx bytes at offset 0x%" PRIx64 ", in buffer %p, pwrite64=%d, error=%d,%s\n",
               path_.c_str(), size_t(count), offset, buffer, int(got), err, std::strerror(err));
  return err ? status_t(err) : ERR_SHORT_IO;
}

status_t CQORV_RWBlock::ReadBytes(uint64_t offset, void* buffer, uint32_t count, uint32_t flags) {
  if (gone_) return ERR_DEVICE_GONE;
  if (count == 0) return QORV_OK;
  if (!InRange(offset, count)) return ERR_IO_RANGE;
  if (flags & READ_NO_DATA) return QORV_OK;
  std::vector<uint8_t> scratch;
  uint8_t* out = static_cast<uint8_t*>(buffer);
  if ((flags & READ_VERIFY) || !out) {
    // Verifying is reading the range and throwing it away.
    scratch.resize(count);
    out = scratch.data();
  }
  ssize_t got = ::pread(fd_, out, count, off_t(offset));
  if (got == ssize_t(count)) return QORV_OK;
  if (flags & READ_QUIET) return ERR_SHORT_IO;
  if ((flags & READ_VERIFY) && got < 0) return ERR_IO_RANGE;
  // Some devices refuse unaligned transfers: go by aligned pieces.
  return ReadByAlignedPieces(offset, out, count, size_, PieceRead(fd_),
                             [this](uint64_t at, void* b, uint32_t n, int64_t got, int e) {
                               return ReadFailed(at, b, n, ssize_t(got), e);
                             });
}

status_t CQORV_RWBlock::WriteBytes(uint64_t offset, const void* buffer, uint32_t count, int32_t flags) {
  if (gone_) return ERR_DEVICE_GONE;
  if (readOnly_) return ERR_WRITE_PROTECTED;
  if (count == 0) return QORV_OK;
  if (!InRange(offset, count)) return ERR_IO_RANGE;
  written_ = true;
  const bool zeros = flags & WRITE_ZEROS;
  const uint8_t* in = static_cast<const uint8_t*>(buffer);
  if (!zeros && in && ::pwrite(fd_, in, count, off_t(offset)) == ssize_t(count)) return QORV_OK;
  // Partial writes and zero fills go by aligned pieces.
  return WriteByAlignedPieces(offset, zeros ? nullptr : in, count, size_, PieceRead(fd_),
                              [this](const void* b, uint32_t n, uint64_t at, int* e) -> int64_t {
                                ssize_t w = ::pwrite(fd_, b, n, off_t(at));
                                *e = errno;
                                return w;
                              },
                              [this](uint64_t at, const void* b, uint32_t n, int64_t got, int e) {
                                return WriteFailed(at, b, n, ssize_t(got), e);
                              });
}

}  // namespace

int CreateVolumeDevice(const char* path, bool readOnly, bool fixedSize, IDeviceRWBlock** device, int* descriptor,
                       bool force, uint32_t verbose, uint32_t forcedSectorSize) {
  *device = nullptr;
  auto* dev = new (std::nothrow) CQORV_RWBlock(readOnly, fixedSize);
  if (!dev) return 12;
  int status = dev->Open(path, force, verbose != 0, forcedSectorSize);
  if (status != 0) {
    delete dev;
    return status;
  }
  if (descriptor) *descriptor = dev->fd();
  *device = dev;
  return 0;
}

void MakeReadOnly(IDeviceRWBlock* device) {
  if (auto* d = dynamic_cast<CQORV_RWBlock*>(device)) d->MakeReadOnly();
}

void FlushDeviceCaches(IDeviceRWBlock* device) {
  if (auto* d = dynamic_cast<CQORV_RWBlock*>(device)) d->FlushCaches();
}

}  // namespace api
