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

#include "platform/platform.h"

namespace api {

namespace {

constexpr uint32_t kAlign = 4096;

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
  fd_ = ::open(path.c_str(), mode);
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
    int excl = ::open(path.c_str(), mode | O_EXCL);
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
    fd_ = ::open(path.c_str(), mode);
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
  if ((flags & READ_VERIFY) && got < 0) return ERR_IO_RANGE;
  // Some devices refuse unaligned transfers: go by aligned 4096-byte pieces.
  uint8_t bounce[kAlign];
  uint64_t at = offset - offset % kAlign;
  uint32_t skip = uint32_t(offset % kAlign), done = 0;
  while (done < count) {
    uint32_t want = kAlign;
    if (at + want > size_) want = uint32_t(size_ - at);
    ssize_t n = ::pread(fd_, bounce, want, off_t(at));
    uint32_t piece = kAlign - skip;
    if (piece > count - done) piece = count - done;
    if (n < 0) return ReadFailed(at, bounce, want, n, errno);
    if (uint32_t(n) < skip + piece) return ReadFailed(at, bounce, want, n, 0);
    std::memcpy(out + done, bounce + skip, piece);
    done += piece;
    at += kAlign;
    skip = 0;
  }
  return QORV_OK;
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
  // Partial writes and zero fills go by aligned 4096-byte blocks; a block
  // only partly covered is read first.
  uint8_t block[kAlign];
  uint64_t at = offset - offset % kAlign;
  uint32_t skip = uint32_t(offset % kAlign), done = 0;
  while (done < count) {
    uint32_t piece = kAlign - skip;
    if (piece > count - done) piece = count - done;
    uint32_t len = at + kAlign > size_ ? uint32_t(size_ - at) : kAlign;
    if (piece != len) {
      ssize_t n = ::pread(fd_, block, len, off_t(at));
      if (n != ssize_t(len)) return n < 0 ? WriteFailed(at, block, len, n, errno) : ERR_SHORT_IO;
    }
    if (zeros || !in) std::memset(block + skip, 0, piece);
    else std::memcpy(block + skip, in + done, piece);
    ssize_t w = ::pwrite(fd_, block, len, off_t(at));
    if (w != ssize_t(len)) return WriteFailed(at, block, len, w, w < 0 ? errno : 0);
    done += piece;
    at += kAlign;
    skip = 0;
  }
  return QORV_OK;
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
