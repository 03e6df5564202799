// A small read-only FAT16/FAT32 driver: enough to recognise a volume, follow
// cluster chains through the FAT and enumerate directory entries.
#pragma once
#include <cstdint>
#include <vector>

#include "core/api/scanner.h"
#include "core/bytes.h"
#include "fs/fat_family/cluster_chain.h"

namespace QORV {

using FatExtent = ClusterRun;

class CFileSystemFat {
 public:
  virtual ~CFileSystemFat() = default;
  CFileSystemFat(const CFileSystemFat&) = delete;
  CFileSystemFat& operator=(const CFileSystemFat&) = delete;

  virtual const char* TypeName() const = 0;
  void SetMountOptions(uint32_t bits) { options_ |= bits; }
  // Reads and checks the boot sector; ERR_NOT_RECOGNIZED when it is not of this object's kind.
  api::status_t Mount(api::IDeviceRWBlock* dev);

  bool IsFat32() const { return fat32_; }
  api::CLibEnv* Env() const { return env_; }
  uint64_t FirstDataSector() const { return firstDataSector_; }
  uint32_t SectorShift() const { return sectorShift_; }
  uint32_t SectorsPerClusterShift() const { return spcShift_; }
  uint32_t ClusterShift() const { return sectorShift_ + spcShift_; }
  uint32_t ClusterLimit() const { return clusterLimit_; }
  uint32_t RootCluster() const { return rootCluster_; }
  uint32_t RootEntries() const { return rootEntries_; }
  uint64_t RootAreaOffset() const { return rootAreaSector_ << sectorShift_; }
  uint64_t ClusterOffset(uint32_t c) const {
    return (firstDataSector_ + (uint64_t(c - 2) << spcShift_)) << sectorShift_;
  }
  bool IsValidCluster(uint32_t c) const { return c >= 2 && c < clusterLimit_; }
  bool IsEndOfChain(uint32_t v) const { return v >= (fat32_ ? 0x0FFFFFF8u : 0xFFF8u); }

  api::status_t Read(uint64_t offset, void* buf, uint32_t count) { return dev_->ReadBytes(offset, buf, count, 0); }
  // The FAT entry of cluster c (first FAT copy), through a chunk cache.
  api::status_t NextCluster(uint32_t c, uint32_t* next);
  // Follows the chain from `start` for at most maxClusters clusters. A link out
  // of range, a free or bad cluster inside the chain, a loop or a chain longer
  // than maxClusters ends the walk and sets *broken; the clusters gathered so
  // far stay in `out`.
  api::status_t ReadChain(uint32_t start, uint32_t maxClusters, std::vector<FatExtent>* out, bool* broken);

 protected:
  CFileSystemFat(api::CLibEnv* env, bool fat32) : env_(env), fat32_(fat32), fat_(env) {}
  // Kind-specific boot-sector fields (FAT16: fixed root and 16-bit FAT size; FAT32: 32-bit FAT size).
  virtual bool CheckKind(const ByteView& boot) const = 0;
  virtual bool AcceptClusterLimit(uint32_t limit) const = 0;

 private:
  api::status_t CompareBackupBoot(const uint8_t* boot, uint32_t backupSector);

  api::CLibEnv* env_;
  bool fat32_;
  api::IDeviceRWBlock* dev_ = nullptr;
  uint32_t options_ = 0;
  uint32_t sectorShift_ = 0;
  uint32_t spcShift_ = 0;
  uint64_t fatOffset_ = 0;  // bytes
  uint64_t fatBytes_ = 0;
  uint64_t rootAreaSector_ = 0;
  uint32_t rootEntries_ = 0;
  uint64_t firstDataSector_ = 0;
  uint32_t clusterLimit_ = 0;
  uint32_t rootCluster_ = 0;
  TableCache fat_;  // the first FAT copy
};

class CFileSystemFat32 : public CFileSystemFat {
 public:
  explicit CFileSystemFat32(api::CLibEnv* env) : CFileSystemFat(env, true) {}
  const char* TypeName() const override { return "FAT32"; }

 protected:
  bool CheckKind(const ByteView& boot) const override;
  bool AcceptClusterLimit(uint32_t limit) const override;
};

class CFileSystemFat16 : public CFileSystemFat {
 public:
  explicit CFileSystemFat16(api::CLibEnv* env) : CFileSystemFat(env, false) {}
  const char* TypeName() const override { return "FAT16"; }

 protected:
  bool CheckKind(const ByteView& boot) const override;
  bool AcceptClusterLimit(uint32_t limit) const override;
};

// An open directory: the fixed FAT16 root area (cluster 0) or a cluster chain.
class CFatDir {
 public:
  explicit CFatDir(CFileSystemFat* fs) : fs_(fs) {}
  // Opens the directory starting at cluster d. A chain that had to be cut
  // short still opens; ChainBroken() tells.
  api::status_t Open(uint32_t d);
  // Opens cluster c alone as a directory: a deleted directory's chain is
  // gone from the FAT, only its first cluster is known.
  api::status_t OpenOneCluster(uint32_t c);
  void Close();

  CFileSystemFat* FileSystem() const { return fs_; }
  bool IsFixedRoot() const { return fixedRoot_; }
  bool ChainBroken() const { return broken_; }
  const std::vector<FatExtent>& Extents() const { return extents_; }
  uint64_t Size() const { return size_; }
  uint32_t Capacity() const { return uint32_t(size_ / 32); }
  // Reads [pos, pos + n) of the directory's bytes; the range must not cross a cluster.
  api::status_t ReadAt(uint64_t pos, void* buf, uint32_t n);
  // The largest read that never crosses a cluster boundary, at most 64 KiB.
  uint32_t ChunkSize() const;

  // A directory holds at most 65536 entries; longer chains are corrupt.
  static constexpr uint64_t kMaxBytes = 65536ull * 32;

 private:
  CFileSystemFat* fs_;
  bool fixedRoot_ = false;
  bool broken_ = false;
  uint64_t size_ = 0;
  std::vector<FatExtent> extents_;
};

struct FatDirEntry {
  uint32_t slot;  // position of the 32-byte entry in its directory
  uint8_t name[11];
  uint8_t attributes;
  uint32_t firstCluster;
  bool deleted;  // the name's first byte carries the deleted mark
};

// Fields of a 32-byte short directory entry.
struct FatDirField {
  static constexpr size_t kName = 0;
  static constexpr size_t kAttributes = 11;
  static constexpr size_t kClusterHigh = 20;  // FAT32 only
  static constexpr size_t kClusterLow = 26;
  static constexpr uint32_t kSize = 32;
};

constexpr uint8_t FAT_NAME_END = 0x00;      // no entry follows
constexpr uint8_t FAT_NAME_DELETED = 0xE5;
constexpr uint8_t FAT_ATTR_VOLUME = 0x08;   // labels, and every long-name part
constexpr uint8_t FAT_ATTR_DIRECTORY = 0x10;

// Walks a directory's short entries in on-disk order, live and deleted ones
// (FatDirEntry::deleted tells), skipping long-name parts and volume labels.
class CFatEntryNumerator {
 public:
  explicit CFatEntryNumerator(CFatDir* dir) : dir_(dir) {}
  ~CFatEntryNumerator();
  CFatEntryNumerator(const CFatEntryNumerator&) = delete;
  CFatEntryNumerator& operator=(const CFatEntryNumerator&) = delete;

  // QORV_OK with the next entry, ERR_END_OF_DIR at the end, or a read failure.
  api::status_t Next(FatDirEntry* out);

 private:
  CFatDir* dir_;
  uint8_t* buf_ = nullptr;
  uint32_t bufSize_ = 0;
  uint64_t bufPos_ = UINT64_MAX;  // directory offset of buf_
  uint64_t pos_ = 0;              // next entry's byte offset
};

}  // namespace QORV
