#include "fs/exfat/exfat.h"

#include <algorithm>
#include <cstring>

namespace QORV {

namespace {

constexpr uint32_t kBootBytes = 512;
constexpr uint32_t kRegionSectors = 12;
constexpr uint32_t kChecksumSector = 11;
constexpr uint32_t kOemSector = 9;
// The largest cluster count the format allows.
constexpr uint32_t kMaxClusterCount = 0xFFFFFFF5;
// A backup region may declare another sector size; follow it this often.
constexpr int kRegionAttempts = 4;
constexpr uint32_t kEntryWindow = 64 * 1024;
// A directory's entries usually end long before its first cluster does:
// the first window is small and each refill reads twice as much.
constexpr uint32_t kFirstEntryWindow = 4096;

// {0A0C7E46-3399-4021-90C8-FA6D389C4BA2} as stored on disk.
constexpr uint8_t kFlashGuid[16] = {0x46, 0x7E, 0x0C, 0x0A, 0x99, 0x33, 0x21, 0x40,
                                    0x90, 0xC8, 0xFA, 0x6D, 0x38, 0x9C, 0x4B, 0xA2};

}  // namespace

bool CFileSystemExFat::CheckBootSector(const ByteView& boot) {
  static const uint8_t kJump[3] = {0xEB, 0x76, 0x90};
  if (!boot.Equals(0, kJump, 3) || !boot.Equals(3, "EXFAT   ", 8)) return false;
  if (boot.u8(510) != 0x55 || boot.u8(511) != 0xAA) return false;
  // The old BPB area must be zero, so that no FAT driver takes the volume.
  for (size_t i = 11; i < 64; ++i)
    if (boot.u8(i) != 0) return false;
  uint32_t sectorShift = boot.u8(108), spcShift = boot.u8(109), fats = boot.u8(110);
  if (sectorShift < 9 || sectorShift > 12 || sectorShift + spcShift > 25 || fats < 1 || fats > 2) return false;
  uint64_t fatOffset = boot.le32(80), fatLength = boot.le32(84), heap = boot.le32(88);
  uint64_t clusters = boot.le32(92), root = boot.le32(96), volumeLength = boot.le64(72);
  if (fatOffset < 24 || fatLength == 0 || heap < fatOffset + fats * fatLength) return false;
  if (clusters == 0 || clusters > kMaxClusterCount) return false;
  if ((fatLength << sectorShift) < (clusters + 2) * 4) return false;
  if (root < 2 || root > clusters + 1) return false;
  return volumeLength >= heap + (clusters << spcShift);
}

uint32_t CFileSystemExFat::BootChecksum(const uint8_t* region, uint32_t sectorSize) {
  uint32_t sum = 0;
  uint64_t bytes = uint64_t(sectorSize) * kChecksumSector;
  for (uint64_t i = 0; i < bytes; ++i) {
    if (i == 106 || i == 107 || i == 112) continue;  // VolumeFlags and PercentInUse change in use
    sum = ((sum & 1) ? 0x80000000u : 0) + (sum >> 1) + region[i];
  }
  return sum;
}

api::status_t CFileSystemExFat::ReadRegion(uint32_t sectorSize, uint64_t sector, std::vector<uint8_t>* out) {
  out->assign(size_t(sectorSize) * kRegionSectors, 0);
  return dev_->ReadBytes(sector * sectorSize, out->data(), uint32_t(out->size()), 0);
}

api::status_t CFileSystemExFat::CheckRegion(uint32_t sectorSize, uint64_t sector, uint32_t* checksum) {
  std::vector<uint8_t> region;
  QORV_TRY(ReadRegion(sectorSize, sector, &region));
  if (sector == 0) {
    // Flash media note their erase block size among the OEM parameters.
    ByteView oem(region.data() + size_t(kOemSector) * sectorSize, sectorSize);
    for (size_t at = 0; at + 48 <= 480 && at + 48 <= oem.Size(); at += 48)
      if (oem.Equals(at, kFlashGuid, sizeof kFlashGuid)) flashEraseBlock_ = oem.le32(at + 16);
  }
  uint32_t sum = BootChecksum(region.data(), sectorSize);
  *checksum = sum;
  ByteView check(region.data() + size_t(kChecksumSector) * sectorSize, sectorSize);
  for (uint32_t at = 0; at < sectorSize; at += 4)
    if (check.le32(at) != sum) return api::ERR_NOT_RECOGNIZED;
  return api::QORV_OK;
}

// Both regions good: mount. Only the backup good: mount from it. Only the
// main region good: refused, so that a volume whose backup was damaged is
// not dumped as if it were whole.
api::status_t CFileSystemExFat::DecideRegions(uint8_t* boot) {
  uint32_t shift = boot[108];
  for (int attempt = 0; attempt < kRegionAttempts; ++attempt) {
    uint32_t sectorSize = 1u << shift;
    uint32_t mainSum = 0, backupSum = 0;
    api::status_t mainState = CheckRegion(sectorSize, 0, &mainSum);
    api::status_t backupState = CheckRegion(sectorSize, kRegionSectors, &backupSum);
    if (mainState == api::QORV_OK && backupState == api::QORV_OK) {
      if (mainSum != backupSum) flags_ |= kFlagBadBackup;
      return api::QORV_OK;
    }
    if (mainState != api::QORV_OK && backupState != api::QORV_OK) return api::ERR_NOT_RECOGNIZED;
    if (mainState == api::QORV_OK) return backupState;

    uint8_t backup[kBootBytes];
    QORV_TRY(dev_->ReadBytes(uint64_t(kRegionSectors) * sectorSize, backup, kBootBytes, 0));
    backup[106] = boot[106];  // the main copy's volume state wins
    if (!CheckBootSector(ByteView(backup, kBootBytes))) return api::ERR_NOT_RECOGNIZED;
    std::memcpy(boot, backup, kBootBytes);
    flags_ |= kFlagFromBackup;
    if (boot[108] == shift) return api::QORV_OK;
    shift = boot[108];
  }
  return api::ERR_NOT_RECOGNIZED;
}

void CFileSystemExFat::TakeGeometry(const ByteView& boot) {
  geo_.sectorShift = boot.u8(108);
  geo_.clusterShift = geo_.sectorShift + boot.u8(109);
  geo_.fatOffset = boot.le32(80);
  geo_.fatLength = boot.le32(84);
  geo_.heapOffset = boot.le32(88);
  geo_.clusterCount = boot.le32(92);
  geo_.rootCluster = boot.le32(96);
  geo_.volumeFlags = boot.le16(106);
  geo_.numberOfFats = boot.u8(110);
  // On TexFAT the ActiveFat flag picks which FAT holds the chains.
  uint64_t active = (geo_.numberOfFats == 2 && (geo_.volumeFlags & 1)) ? 1 : 0;
  fat_.Attach(dev_, (uint64_t(geo_.fatOffset) + active * geo_.fatLength) << geo_.sectorShift,
              uint64_t(geo_.fatLength) << geo_.sectorShift);
}

api::status_t CFileSystemExFat::Mount(api::IDeviceRWBlock* dev) {
  dev_ = dev;
  flags_ = 0;
  flashEraseBlock_ = 0;
  uint8_t boot[kBootBytes];
  QORV_TRY(dev->ReadBytes(0, boot, kBootBytes, 0));
  if (!CheckBootSector(ByteView(boot, kBootBytes))) {
    // A boot sector marked as being rewritten keeps everything but its first
    // bytes; put them back and try again.
    if (std::memcmp(boot, "RRaA", 4) != 0 || std::memcmp(boot + 4, "XFAT", 4) != 0 ||
        std::memcmp(boot + 484, "rrAa", 4) != 0)
      return api::ERR_NOT_RECOGNIZED;
    static const uint8_t kRestored[4] = {0xEB, 0x76, 0x90, 'E'};
    std::memcpy(boot, kRestored, sizeof kRestored);
    if (!CheckBootSector(ByteView(boot, kBootBytes))) return api::ERR_NOT_RECOGNIZED;
    flags_ |= kFlagMarkedBoot;
  }
  QORV_TRY(DecideRegions(boot));
  TakeGeometry(ByteView(boot, kBootBytes));
  return api::QORV_OK;
}

api::status_t CFileSystemExFat::NextCluster(uint32_t c, uint32_t* next) { return fat_.Entry(c, 4, next); }

api::status_t CFileSystemExFat::ReadChain(uint32_t start, uint32_t maxClusters, std::vector<ExFatExtent>* out,
                                          bool* broken, bool* ended) {
  ChainStop stop;
  QORV_TRY(FollowChain(*this, start, maxClusters, out, &stop));
  *broken = stop == ChainStop::kBroken;
  *ended = stop == ChainStop::kEndMark;
  return api::QORV_OK;
}

void CFileExFat::Set(uint32_t firstCluster, uint64_t length, bool noFatChain) {
  first_ = firstCluster;
  length_ = length;
  noFatChain_ = noFatChain;
  extents_.clear();
}

api::status_t CFileExFat::LoadRuns() {
  extents_.clear();
  if (length_ == 0) return api::QORV_OK;
  uint32_t shift = fs_->ClusterShift();
  uint64_t clusters = ((length_ - 1) >> shift) + 1;
  if (clusters > UINT32_MAX) return api::ERR_INCONSISTENT;
  if (noFatChain_) {
    // Contiguous: the run is what the entry says; one running past the heap
    // is still handed back so that its part inside gets kept.
    extents_.push_back({first_, uint32_t(clusters)});
    uint64_t lastIndex = uint64_t(first_) - 2 + clusters;
    return fs_->IsValidCluster(first_) && lastIndex <= fs_->Geometry().clusterCount ? api::QORV_OK
                                                                                      : api::ERR_INCONSISTENT;
  }
  bool broken, ended;
  QORV_TRY(fs_->ReadChain(first_, uint32_t(clusters), &extents_, &broken, &ended));
  uint64_t got = 0;
  for (const ExFatExtent& e : extents_) got += e.count;
  return broken || got < clusters ? api::ERR_INCONSISTENT : api::QORV_OK;
}

api::status_t CFileExFat::LoadWholeChain(uint64_t maxBytes) {
  uint32_t shift = fs_->ClusterShift();
  uint32_t maxClusters = uint32_t(std::min<uint64_t>(UINT32_MAX, (maxBytes >> shift) + 1));
  bool broken, ended;
  noFatChain_ = false;
  QORV_TRY(fs_->ReadChain(first_, maxClusters, &extents_, &broken, &ended));
  uint64_t got = 0;
  for (const ExFatExtent& e : extents_) got += e.count;
  length_ = got << shift;
  if (length_ > maxBytes) return api::ERR_INCONSISTENT;  // longer than any directory
  return broken ? api::ERR_INCONSISTENT : api::QORV_OK;
}

uint64_t CFileExFat::DeviceOffset(uint64_t pos, uint64_t* runBytesLeft) const {
  uint32_t shift = fs_->ClusterShift();
  uint64_t index = pos >> shift;
  uint64_t within = pos & ((uint64_t(1) << shift) - 1);
  for (const ExFatExtent& e : extents_) {
    if (index < e.count) {
      if (!fs_->IsValidCluster(e.first) || uint64_t(e.first) - 2 + e.count > fs_->Geometry().clusterCount)
        return UINT64_MAX;
      *runBytesLeft = ((uint64_t(e.count) - index) << shift) - within;
      return fs_->ClusterOffset(e.first) + (index << shift) + within;
    }
    index -= e.count;
  }
  return UINT64_MAX;
}

uint64_t CFileExFat::ContiguousFrom(uint64_t pos, uint64_t limit) const {
  uint64_t left = 0;
  if (pos >= length_ || DeviceOffset(pos, &left) == UINT64_MAX) return 0;
  return std::min({left, limit, length_ - pos});
}

api::status_t CFileExFat::ReadAt(uint64_t pos, void* buf, uint32_t n) {
  uint64_t left = 0;
  if (pos > length_ || n > length_ - pos) return api::ERR_IO_RANGE;
  uint64_t at = DeviceOffset(pos, &left);
  if (at == UINT64_MAX || n > left) return api::ERR_IO_RANGE;
  return fs_->Read(at, buf, n);
}

CDirExFat::~CDirExFat() {
  if (buf_) file_.FileSystem()->Env()->mem->Free(buf_);
}

api::status_t CDirExFat::OpenRoot() {
  root_ = true;
  file_.Set(file_.FileSystem()->Geometry().rootCluster, 0, false);
  return file_.LoadWholeChain(CFileSystemExFat::kMaxDirBytes);
}

api::status_t CDirExFat::Open(uint32_t firstCluster, uint64_t length, bool noFatChain) {
  root_ = false;
  file_.Set(firstCluster, length, noFatChain);
  return length > CFileSystemExFat::kMaxDirBytes ? api::ERR_INCONSISTENT : api::QORV_OK;
}

api::status_t CDirExFat::Load() { return root_ ? api::QORV_OK : file_.LoadRuns(); }

api::status_t CDirExFat::Entry(uint64_t pos, ByteView* out) {
  if (pos + 32 > Size()) return api::ERR_IO_RANGE;
  if (bufPos_ == UINT64_MAX || pos < bufPos_ || pos + 32 > bufPos_ + bufLen_) {
    if (!buf_) {
      buf_ = static_cast<uint8_t*>(file_.FileSystem()->Env()->mem->Allocate(kEntryWindow, 0));
      if (!buf_) return api::ERR_NO_MEMORY;
      bufCap_ = kEntryWindow;
    }
    // Sector-aligned reads; clusters are at least a sector, so the start
    // stays inside the entry's extent.
    uint64_t start = pos & ~uint64_t(511);
    uint32_t want = bufLen_ ? std::min(bufCap_, bufLen_ * 2) : std::min(bufCap_, kFirstEntryWindow);
    uint32_t n = uint32_t(file_.ContiguousFrom(start, want < 1024 ? 1024 : want));
    if (n < pos + 32 - start) return api::ERR_IO_RANGE;
    bufPos_ = UINT64_MAX;
    QORV_TRY(file_.ReadAt(start, buf_, n));
    bufPos_ = start;
    bufLen_ = n;
  }
  *out = ByteView(buf_ + (pos - bufPos_), 32);
  return api::QORV_OK;
}

api::status_t CExFatEnum::Next(ExFatEntry* out) {
  using F = ExFatEntryField;
  const uint64_t size = dir_->Size();
  for (;;) {
    // A set needs at least three entries; fewer left cannot hold one.
    if (pos_ + 3 * F::kSize > size) return api::ERR_END_OF_DIR;
    const uint64_t at = pos_;
    ByteView e;
    QORV_TRY(dir_->Entry(at, &e));
    uint8_t type = e.u8(F::kType);
    if (type == 0x00) {
      pos_ = size;
      return api::ERR_END_OF_DIR;
    }
    pos_ += F::kSize;
    if (type == (EXFAT_ENTRY_FILE & ~EXFAT_ENTRY_IN_USE) && e.u8(F::kSecondaryCount) != 0) {
      uint16_t attributes = e.le16(F::kAttributes);
      ByteView stream;
      QORV_TRY(dir_->Entry(at + F::kSize, &stream));
      if (stream.u8(F::kType) != (EXFAT_ENTRY_STREAM & ~EXFAT_ENTRY_IN_USE)) continue;
      *out = ExFatEntry{ExFatEntry::kDeletedSet, at, stream.le32(F::kFirstCluster), stream.le64(F::kDataLength),
                        attributes, (stream.u8(F::kStreamFlags) & F::kNoFatChain) != 0, 0};
      return api::QORV_OK;
    }
    if (type < EXFAT_ENTRY_IN_USE) continue;
    if (dir_->IsRoot() && (type == EXFAT_ENTRY_BITMAP || type == EXFAT_ENTRY_UPCASE)) {
      *out = ExFatEntry{type == EXFAT_ENTRY_BITMAP ? ExFatEntry::kBitmap : ExFatEntry::kUpcase, at,
                        e.le32(F::kFirstCluster), e.le64(F::kDataLength), 0, false, e.u8(F::kBitmapFlags)};
      return api::QORV_OK;
    }
    if (type != EXFAT_ENTRY_FILE || e.u8(F::kSecondaryCount) == 0) continue;

    uint32_t secondaries = e.u8(F::kSecondaryCount);
    uint16_t attributes = e.le16(F::kAttributes);
    uint64_t end = at + F::kSize * (uint64_t(secondaries) + 1);
    pos_ = end;
    *out = ExFatEntry{ExFatEntry::kBadSet, at, 0, 0, attributes, false, 0};
    if (end > size) return api::QORV_OK;
    ByteView stream;
    QORV_TRY(dir_->Entry(at + F::kSize, &stream));
    uint32_t nameEntries = (uint32_t(stream.u8(F::kNameLength)) + 14) / 15;
    if (stream.u8(F::kType) != EXFAT_ENTRY_STREAM || end - at < (uint64_t(nameEntries) + 2) * F::kSize)
      return api::QORV_OK;
    out->kind = ExFatEntry::kFileSet;
    out->firstCluster = stream.le32(F::kFirstCluster);
    out->length = stream.le64(F::kDataLength);
    out->noFatChain = (stream.u8(F::kStreamFlags) & F::kNoFatChain) != 0;
    return api::QORV_OK;
  }
}

bool CExFatAllocation::Attach(uint32_t first) {
  attached_ = false;
  const uint64_t count = fs_->Geometry().clusterCount;
  const uint64_t bytes = (count + 7) / 8;
  const uint32_t shift = fs_->ClusterShift();
  const uint64_t clusters = ((bytes + 3) / 4 * 4 + (uint64_t(1) << shift) - 1) >> shift;
  if (!fs_->IsValidCluster(first) || uint64_t(first) - 2 + clusters > count) return false;
  words_.Attach(fs_->Device(), fs_->ClusterOffset(first), (bytes + 3) / 4 * 4);
  attached_ = true;
  return true;
}

bool CExFatAllocation::AllFree(uint32_t first, uint32_t count) {
  if (!attached_ || !fs_->IsValidCluster(first) || count == 0 ||
      uint64_t(first) - 2 + count > fs_->Geometry().clusterCount)
    return false;
  for (uint64_t index = uint64_t(first) - 2; index < uint64_t(first) - 2 + count; ++index) {
    uint32_t word = 0;
    if (words_.Entry(index / 32, 4, &word) != api::QORV_OK || (word >> (index % 32)) & 1) return false;
  }
  return true;
}

}  // namespace QORV
