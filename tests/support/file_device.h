// Minimal devices for tests: a read-only view of a file, and a device over a
// byte vector. They let scanner tests run without the platform layer.
#pragma once
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/api/device.h"

namespace testsupport {

class FileDevice : public api::CRWBlockA {
 public:
  explicit FileDevice(const std::string& path, uint32_t sectorSize = 512) : sector_(sectorSize) {
    fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat st {};
    if (fd_ >= 0 && ::fstat(fd_, &st) == 0) size_ = uint64_t(st.st_size);
  }
  ~FileDevice() override {
    if (fd_ >= 0) ::close(fd_);
  }
  bool ok() const { return fd_ >= 0; }
  int fd() const { return fd_; }
  bool IsReadOnly() override { return true; }
  uint32_t GetSectorSize() override { return sector_; }
  uint64_t GetSize() override { return size_; }
  api::status_t SetSize(uint32_t, const uint64_t*) override { return api::ERR_WRITE_PROTECTED; }
  api::status_t ReadBytes(uint64_t off, void* buf, uint32_t n, uint32_t flags) override {
    if (n == 0) return api::QORV_OK;
    if (off > size_ || n > size_ - off) return api::ERR_IO_RANGE;
    if (flags & (api::READ_NO_DATA | api::READ_VERIFY)) return api::QORV_OK;
    ++reads;
    return ::pread(fd_, buf, n, off_t(off)) == ssize_t(n) ? api::QORV_OK : api::ERR_SHORT_IO;
  }
  api::status_t WriteBytes(uint64_t, const void*, uint32_t, int32_t) override { return api::ERR_WRITE_PROTECTED; }
  api::status_t Flush(uint32_t) override { return api::QORV_OK; }
  api::status_t IoControl(uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t) override {
    return api::ERR_NOT_SUPPORTED;
  }
  int32_t GetDeviceNumber() override { return -1; }
  uint64_t reads = 0;

 private:
  int fd_ = -1;
  uint64_t size_ = 0;
  uint32_t sector_;
};

class MemDevice : public api::CRWBlockA {
 public:
  explicit MemDevice(std::vector<uint8_t> bytes, uint32_t sectorSize = 512) : bytes(std::move(bytes)), sector_(sectorSize) {}
  bool IsReadOnly() override { return readOnly; }
  uint32_t GetSectorSize() override { return sector_; }
  uint64_t GetSize() override { return bytes.size(); }
  api::status_t SetSize(uint32_t, const uint64_t*) override { return api::ERR_NOT_SUPPORTED; }
  api::status_t ReadBytes(uint64_t off, void* buf, uint32_t n, uint32_t flags) override {
    if (n == 0) return api::QORV_OK;
    if (off > bytes.size() || n > bytes.size() - off) return api::ERR_IO_RANGE;
    ++reads;
    if (!(flags & (api::READ_NO_DATA | api::READ_VERIFY)) && buf) std::memcpy(buf, bytes.data() + off, n);
    return api::QORV_OK;
  }
  api::status_t WriteBytes(uint64_t off, const void* buf, uint32_t n, int32_t flags) override {
    if (readOnly) return api::ERR_WRITE_PROTECTED;
    if (n == 0) return api::QORV_OK;
    if (off > bytes.size() || n > bytes.size() - off) return api::ERR_IO_RANGE;
    ++writes;
    if (flags & api::WRITE_ZEROS) std::memset(bytes.data() + off, 0, n);
    else std::memcpy(bytes.data() + off, buf, n);
    return api::QORV_OK;
  }
  api::status_t Flush(uint32_t) override { return api::QORV_OK; }
  api::status_t IoControl(uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t) override {
    return api::ERR_NOT_SUPPORTED;
  }
  int32_t GetDeviceNumber() override { return -1; }

  std::vector<uint8_t> bytes;
  bool readOnly = false;
  uint64_t reads = 0, writes = 0;

 private:
  uint32_t sector_;
};

}  // namespace testsupport
