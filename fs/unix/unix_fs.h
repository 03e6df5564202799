// Thin bases shared by the Unix-family drivers (ext, btrfs): a device with
// a fixed block size, block buffers and bitmaps from the memory manager,
// and the minimal inode / directory shapes the scanners walk.
#pragma once
#include <cstdint>

#include "core/api/scanner.h"
#include "core/bitmap.h"
#include "core/bytes.h"

namespace QORV {

// A buffer owned through the memory manager; freed on destruction.
class CUnixBlock : public api::base_noncopyable {
 public:
  CUnixBlock() = default;
  ~CUnixBlock() { Release(); }
  // zeroed: false for a buffer that is always read into before it is used
  // (the memory manager then hands out a page-aligned block, which the
  // kernel copies into faster).
  api::status_t Allocate(api::IBaseMemoryManager* mem, uint32_t size, bool zeroed = true);
  void Release();
  uint8_t* Data() const { return data_; }
  uint32_t Size() const { return size_; }
  ByteView View() const { return ByteView(data_, size_); }

 private:
  api::IBaseMemoryManager* mem_ = nullptr;
  uint8_t* data_ = nullptr;
  uint32_t size_ = 0;
};

// A zero-filled bitmap from the memory manager. Detach() hands the bytes to
// the caller (the used-block bitmap leaves the scanner that way).
class CUnixBitmap : public api::base_noncopyable {
 public:
  CUnixBitmap() = default;
  ~CUnixBitmap() { Release(); }
  api::status_t Create(api::IBaseMemoryManager* mem, uint64_t bits);
  void Release();
  uint8_t* Detach();
  BlockBitmap& Bits() { return bits_; }
  const BlockBitmap& Bits() const { return bits_; }

 private:
  api::IBaseMemoryManager* mem_ = nullptr;
  BlockBitmap bits_;
};

// Geometry every Unix-family volume has.
class CUnixSuperBlock {
 public:
  virtual ~CUnixSuperBlock() = default;
  uint32_t BlockSize() const { return blockSize_; }
  uint32_t BlockShift() const { return blockShift_; }
  uint64_t BlockCount() const { return blockCount_; }

 protected:
  uint32_t blockSize_ = 0;
  uint32_t blockShift_ = 0;
  uint64_t blockCount_ = 0;
};

class CUnixFileSystem : public api::base_noncopyable {
 public:
  CUnixFileSystem(api::CLibEnv* env, api::IDeviceRWBlock* dev) : env_(env), dev_(dev) {}
  virtual ~CUnixFileSystem() = default;
  virtual api::status_t Mount() = 0;
  virtual const CUnixSuperBlock& Super() const = 0;

  api::IBaseMemoryManager* Mem() const { return env_->mem; }
  api::IDeviceRWBlock* Device() const { return dev_; }
  bool InVolume(uint64_t block, uint64_t count) const {
    uint64_t n = Super().BlockCount();
    return block < n && count <= n - block;
  }
  // Reads whole blocks; a range outside the volume is refused before any I/O.
  api::status_t ReadBlocks(uint64_t block, uint32_t count, void* buf);
  // Any byte range. A scan hands the driver a watched device, which is
  // where a vanished device is noticed.
  api::status_t ReadDevice(uint64_t offset, void* buf, uint32_t count) { return dev_->ReadBytes(offset, buf, count, 0); }

 protected:
  api::CLibEnv* env_;
  api::IDeviceRWBlock* dev_;
};

// File kinds by the Unix mode's type bits.
enum class UnixKind { Other, File, Dir, Link };

class CUnixInode {
 public:
  virtual ~CUnixInode() = default;
  uint64_t Number() const { return number_; }
  uint32_t Mode() const { return mode_; }
  uint64_t Size() const { return size_; }
  UnixKind Kind() const {
    switch (mode_ & 0xF000) {
      case 0x8000: return UnixKind::File;
      case 0x4000: return UnixKind::Dir;
      case 0xA000: return UnixKind::Link;
      default: return UnixKind::Other;
    }
  }

 protected:
  uint64_t number_ = 0;
  uint32_t mode_ = 0;
  uint64_t size_ = 0;
};

// One directory entry as an enumerator yields it; name points into the
// enumerator's buffer and is valid until the next call.
struct CUnixDirEntry {
  uint64_t inode = 0;
  UnixKind kind = UnixKind::Other;
  bool kindKnown = false;
  const uint8_t* name = nullptr;
  uint32_t nameLength = 0;
  bool IsDotOrDotDot() const {
    return (nameLength == 1 && name[0] == '.') || (nameLength == 2 && name[0] == '.' && name[1] == '.');
  }
};

class CUnixEnumerator {
 public:
  virtual ~CUnixEnumerator() = default;
  // api::ERR_END_OF_DIR when no entry is left.
  virtual api::status_t Next(CUnixDirEntry* entry) = 0;
};

class CUnixFile {
 public:
  virtual ~CUnixFile() = default;
  virtual const CUnixInode& Inode() const = 0;
};

class CUnixDir : public CUnixFile {
 public:
  // Whether the directory keeps a hashed index besides its linear entries.
  virtual bool Indexed() const = 0;
};

}  // namespace QORV
