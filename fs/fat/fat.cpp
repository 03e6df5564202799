#include "fs/fat/fat.h"

#include <algorithm>
#include <cstring>

namespace QORV {

namespace {

constexpr uint32_t kBootBytes = 512;

}  // namespace

api::status_t CFileSystemFat::Mount(api::IDeviceRWBlock* dev) {
  dev_ = dev;
  uint8_t boot[kBootBytes];
  QORV_TRY(dev->ReadBytes(0, boot, kBootBytes, 0));
  ByteView bs(boot, sizeof boot);

  int sectorShift = Log2Exact(bs.le16(0x0B));
  int spcShift = Log2Exact(bs.u8(0x0D));
  uint32_t reserved = bs.le16(0x0E);
  uint32_t fats = bs.u8(0x10);
  uint32_t total = bs.le16(0x13);
  if (total == 0) total = bs.le32(0x20);
  if (sectorShift < 9 || sectorShift > 12 || spcShift < 0 || reserved == 0 || (fats != 1 && fats != 2) ||
      total == 0 || bs.u8(510) != 0x55 || bs.u8(511) != 0xAA)
    return api::ERR_NOT_RECOGNIZED;
  if (!CheckKind(bs)) return api::ERR_NOT_RECOGNIZED;

  rootEntries_ = bs.le16(0x11);
  uint32_t backup = bs.le16(0x32);
  if (rootEntries_ == 0 && backup != 0) QORV_TRY(CompareBackupBoot(boot, backup << sectorShift));

  sectorShift_ = uint32_t(sectorShift);
  spcShift_ = uint32_t(spcShift);
  uint64_t fatSectors = fat32_ ? bs.le32(0x24) : bs.le16(0x16);
  uint64_t rootSectors = ((uint64_t(rootEntries_) * 32) + (1u << sectorShift_) - 1) >> sectorShift_;
  fatOffset_ = uint64_t(reserved) << sectorShift_;
  fatBytes_ = fatSectors << sectorShift_;
  rootAreaSector_ = reserved + fats * fatSectors;
  firstDataSector_ = rootAreaSector_ + rootSectors;
  if (total < firstDataSector_) return api::ERR_NOT_RECOGNIZED;

  uint64_t clusters = ((total - firstDataSector_) >> spcShift_) + 2;
  uint64_t fatEntries = fatBytes_ / (fat32_ ? 4 : 2);
  uint64_t limit = std::min(clusters, fatEntries);
  if (limit > UINT32_MAX || !AcceptClusterLimit(uint32_t(limit))) return api::ERR_NOT_RECOGNIZED;
  if (!fat32_ && rootSectors == 0) return api::ERR_NOT_RECOGNIZED;
  clusterLimit_ = uint32_t(limit);
  rootCluster_ = fat32_ ? bs.le32(0x2C) : 0;
  fat_.Attach(dev, fatOffset_, fatBytes_);
  return api::QORV_OK;
}

// The backup must carry the same BPB; the hidden-sectors field and the byte
// at 0x41 may differ legitimately, so they are taken from the main copy.
api::status_t CFileSystemFat::CompareBackupBoot(const uint8_t* boot, uint32_t backupOffset) {
  uint8_t copy[kBootBytes];
  QORV_TRY(dev_->ReadBytes(backupOffset, copy, kBootBytes, 0));
  std::memcpy(copy + 0x1C, boot + 0x1C, 4);
  copy[0x41] = boot[0x41];
  if (std::memcmp(copy + 0x0B, boot + 0x0B, 60) != 0 || std::memcmp(copy, boot, 3) != 0 || copy[510] != 0x55 ||
      copy[511] != 0xAA)
    return api::ERR_INCONSISTENT;
  return api::QORV_OK;
}

api::status_t CFileSystemFat::NextCluster(uint32_t c, uint32_t* next) {
  QORV_TRY(fat_.Entry(c, fat32_ ? 4 : 2, next));
  if (fat32_) *next &= 0x0FFFFFFF;
  return api::QORV_OK;
}

api::status_t CFileSystemFat::ReadChain(uint32_t start, uint32_t maxClusters, std::vector<FatExtent>* out,
                                        bool* broken) {
  out->clear();
  *broken = false;
  if (!IsValidCluster(start)) return api::ERR_INCONSISTENT;
  ChainStop stop;
  QORV_TRY(FollowChain(*this, start, maxClusters, out, &stop));
  *broken = stop != ChainStop::kEndMark;
  return api::QORV_OK;
}

bool CFileSystemFat32::CheckKind(const ByteView& boot) const {
  return boot.le16(0x16) == 0 && boot.le32(0x24) != 0 && boot.le32(0x2C) >= 2;
}

// FAT32 layout is already settled by the boot sector, so small volumes count too.
bool CFileSystemFat32::AcceptClusterLimit(uint32_t limit) const { return limit <= 0x0FFFFFF6; }

bool CFileSystemFat16::CheckKind(const ByteView& boot) const {
  return boot.le16(0x11) != 0 && boot.le16(0x16) != 0;
}

// Below 0xFF5 is FAT12, which this driver does not handle.
bool CFileSystemFat16::AcceptClusterLimit(uint32_t limit) const { return limit >= 0xFF5 && limit <= 0xFFF4; }

api::status_t CFatDir::Open(uint32_t d) {
  Close();
  if (d == 0 && !fs_->IsFat32()) {
    fixedRoot_ = true;
    size_ = uint64_t(fs_->RootEntries()) * 32;
    return api::QORV_OK;
  }
  uint32_t shift = fs_->ClusterShift();
  uint32_t maxClusters = uint32_t(std::max<uint64_t>(1, kMaxBytes >> shift));
  api::status_t s = fs_->ReadChain(d, maxClusters, &extents_, &broken_);
  if (s != api::QORV_OK) {
    Close();
    return s;
  }
  for (const FatExtent& e : extents_) size_ += uint64_t(e.count) << shift;
  return api::QORV_OK;
}

api::status_t CFatDir::OpenOneCluster(uint32_t c) {
  Close();
  if (!fs_->IsValidCluster(c)) return api::ERR_INCONSISTENT;
  extents_.push_back({c, 1});
  size_ = uint64_t(1) << fs_->ClusterShift();
  return api::QORV_OK;
}

void CFatDir::Close() {
  fixedRoot_ = false;
  broken_ = false;
  size_ = 0;
  extents_.clear();
}

uint32_t CFatDir::ChunkSize() const {
  uint32_t chunk = 64 * 1024;
  if (!fixedRoot_) chunk = std::min(chunk, 1u << fs_->ClusterShift());
  return chunk;
}

api::status_t CFatDir::ReadAt(uint64_t pos, void* buf, uint32_t n) {
  if (pos > size_ || n > size_ - pos) return api::ERR_IO_RANGE;
  if (fixedRoot_) return fs_->Read(fs_->RootAreaOffset() + pos, buf, n);
  uint32_t shift = fs_->ClusterShift();
  uint64_t within = pos & ((uint64_t(1) << shift) - 1);
  if (within + n > (uint64_t(1) << shift)) return api::ERR_IO_RANGE;
  uint64_t index = pos >> shift;
  for (const FatExtent& e : extents_) {
    if (index < e.count) return fs_->Read(fs_->ClusterOffset(e.first + uint32_t(index)) + within, buf, n);
    index -= e.count;
  }
  return api::ERR_IO_RANGE;
}

CFatEntryNumerator::~CFatEntryNumerator() {
  if (buf_) dir_->FileSystem()->Env()->mem->Free(buf_);
}

api::status_t CFatEntryNumerator::Next(FatDirEntry* out) {
  for (;;) {
    if (pos_ + FatDirField::kSize > dir_->Size()) return api::ERR_END_OF_DIR;
    if (bufPos_ == UINT64_MAX || pos_ < bufPos_ || pos_ + FatDirField::kSize > bufPos_ + bufSize_) {
      uint32_t chunk = dir_->ChunkSize();
      if (!buf_) {
        buf_ = static_cast<uint8_t*>(dir_->FileSystem()->Env()->mem->Allocate(chunk, 0));
        if (!buf_) return api::ERR_NO_MEMORY;
      }
      uint64_t start = pos_ - pos_ % chunk;
      uint32_t n = uint32_t(std::min<uint64_t>(chunk, dir_->Size() - start));
      bufPos_ = UINT64_MAX;
      QORV_TRY(dir_->ReadAt(start, buf_, n));
      bufPos_ = start;
      bufSize_ = n;
    }
    ByteView e(buf_ + (pos_ - bufPos_), FatDirField::kSize);
    uint32_t slot = uint32_t(pos_ / FatDirField::kSize);
    pos_ += FatDirField::kSize;
    uint8_t first = e.u8(FatDirField::kName);
    if (first == FAT_NAME_END) {
      pos_ = dir_->Size();  // nothing valid follows
      return api::ERR_END_OF_DIR;
    }
    uint8_t attributes = e.u8(FatDirField::kAttributes);
    if (attributes & FAT_ATTR_VOLUME) continue;  // long-name part or label
    out->slot = slot;
    std::memcpy(out->name, e.Data() + FatDirField::kName, sizeof out->name);
    out->attributes = attributes;
    out->deleted = first == FAT_NAME_DELETED;
    uint32_t high = dir_->FileSystem()->IsFat32() ? uint32_t(e.le16(FatDirField::kClusterHigh)) << 16 : 0;
    out->firstCluster = (high | e.le16(FatDirField::kClusterLow)) & 0x0FFFFFFF;
    return api::QORV_OK;
  }
}

}  // namespace QORV
