// A small read-only exFAT/TexFAT driver: enough to recognise a volume from
// its boot regions, follow cluster chains through the FAT and enumerate the
// entry sets of a directory.
#pragma once
#include <cstdint>
#include <vector>

#include "core/api/scanner.h"
#include "core/bytes.h"
#include "fs/fat_family/cluster_chain.h"

namespace QORV {

using ExFatExtent = ClusterRun;

// Boot-sector fields the driver works from, after the boot region was accepted.
struct ExFatGeometry {
  uint32_t sectorShift = 0;
  uint32_t clusterShift = 0;  // sector shift + sectors-per-cluster shift
  uint32_t fatOffset = 0;     // sectors
  uint32_t fatLength = 0;     // sectors
  uint32_t heapOffset = 0;    // sectors
  uint32_t clusterCount = 0;
  uint32_t rootCluster = 0;
  uint16_t volumeFlags = 0;
  uint8_t numberOfFats = 0;
};

class CFileSystemExFat {
 public:
  // Mount options.
  static constexpr uint32_t kOptReadOnly = 0x2;
  static constexpr uint32_t kOptNoCache = 0x8;
  // Driver flags recorded by the mount.
  static constexpr uint32_t kFlagMarkedBoot = 0x1;  // an "RRaA" boot sector was put right in memory
  static constexpr uint32_t kFlagBadBackup = 0x2;   // the backup region's checksum differs from the main one
  static constexpr uint32_t kFlagFromBackup = 0x4;  // mounted from the backup boot region

  // The largest directory the driver opens.
  static constexpr uint64_t kMaxDirBytes = 0x10000000;

  explicit CFileSystemExFat(api::CLibEnv* env) : env_(env), fat_(env) {}
  CFileSystemExFat(const CFileSystemExFat&) = delete;
  CFileSystemExFat& operator=(const CFileSystemExFat&) = delete;

  void SetMountOptions(uint32_t bits) { options_ |= bits; }
  // Recognises the volume from its boot regions: ERR_NOT_RECOGNIZED when it
  // is not exFAT or the regions do not allow a mount, a read's status on a
  // read failure.
  api::status_t Mount(api::IDeviceRWBlock* dev);

  const char* TypeName() const { return geo_.numberOfFats < 2 ? "exFAT" : "TexFAT"; }
  uint32_t Flags() const { return flags_; }
  const ExFatGeometry& Geometry() const { return geo_; }
  // The value stored after the flash-parameters GUID in the OEM sector; 0 when absent.
  uint32_t FlashEraseBlockSize() const { return flashEraseBlock_; }
  api::CLibEnv* Env() const { return env_; }
  api::IDeviceRWBlock* Device() const { return dev_; }

  uint32_t ClusterShift() const { return geo_.clusterShift; }
  uint64_t HeapByteOffset() const { return uint64_t(geo_.heapOffset) << geo_.sectorShift; }
  bool IsValidCluster(uint32_t c) const { return c >= 2 && uint64_t(c) < uint64_t(geo_.clusterCount) + 2; }
  bool IsEndOfChain(uint32_t v) const { return v == 0xFFFFFFFF; }
  uint64_t ClusterOffset(uint32_t c) const { return HeapByteOffset() + (uint64_t(c - 2) << geo_.clusterShift); }

  api::status_t Read(uint64_t offset, void* buf, uint32_t count) { return dev_->ReadBytes(offset, buf, count, 0); }
  // The entry of cluster c in the active FAT, through a chunk cache.
  api::status_t NextCluster(uint32_t c, uint32_t* next);
  // Follows the chain from `start` for at most maxClusters clusters. A link
  // out of range, a free or bad cluster inside the chain, or a loop ends the
  // walk and sets *broken; the clusters gathered so far stay in `out`.
  // *ended tells whether the chain reached its end-of-chain mark.
  api::status_t ReadChain(uint32_t start, uint32_t maxClusters, std::vector<ExFatExtent>* out, bool* broken,
                          bool* ended);

  // The boot checksum of a boot region's sectors 0..10 (VolumeFlags and
  // PercentInUse excluded).
  static uint32_t BootChecksum(const uint8_t* region, uint32_t sectorSize);
  // Whether a 512-byte sector is an acceptable exFAT main boot sector.
  static bool CheckBootSector(const ByteView& boot);

 private:
  // Reads a boot region of 12 sectors at `sector` and compares sector 11
  // with the checksum of sectors 0..10: QORV_OK, ERR_NOT_RECOGNIZED or a read status.
  api::status_t CheckRegion(uint32_t sectorSize, uint64_t sector, uint32_t* checksum);
  api::status_t ReadRegion(uint32_t sectorSize, uint64_t sector, std::vector<uint8_t>* out);
  api::status_t DecideRegions(uint8_t* boot);
  void TakeGeometry(const ByteView& boot);

  api::CLibEnv* env_;
  api::IDeviceRWBlock* dev_ = nullptr;
  uint32_t options_ = 0;
  uint32_t flags_ = 0;
  uint32_t flashEraseBlock_ = 0;
  ExFatGeometry geo_;
  TableCache fat_;  // the active FAT
};

// A file's data stream: its first cluster, its length and whether its
// clusters are contiguous (no FAT chain). Loading resolves the run list.
class CFileExFat {
 public:
  explicit CFileExFat(CFileSystemExFat* fs) : fs_(fs) {}

  void Set(uint32_t firstCluster, uint64_t length, bool noFatChain);
  // Resolves the clusters covering the length. The clusters found before a
  // broken chain stay in Extents() even when this fails (ERR_INCONSISTENT).
  api::status_t LoadRuns();
  // The root directory has no length of its own: it is the whole chain.
  api::status_t LoadWholeChain(uint64_t maxBytes);

  CFileSystemExFat* FileSystem() const { return fs_; }
  uint64_t Length() const { return length_; }
  const std::vector<ExFatExtent>& Extents() const { return extents_; }
  // Reads [pos, pos + n) of the stream; the range must not cross a cluster.
  api::status_t ReadAt(uint64_t pos, void* buf, uint32_t n);
  // The bytes readable in one go from `pos`: to the end of its extent, at most `limit`.
  uint64_t ContiguousFrom(uint64_t pos, uint64_t limit) const;

 private:
  // Device offset of stream byte `pos`, or UINT64_MAX when no extent covers it.
  uint64_t DeviceOffset(uint64_t pos, uint64_t* runBytesLeft) const;

  CFileSystemExFat* fs_;
  uint32_t first_ = 0;
  uint64_t length_ = 0;
  bool noFatChain_ = false;
  std::vector<ExFatExtent> extents_;
};

// An open directory: its stream, size-checked, with a window onto its entries.
class CDirExFat {
 public:
  explicit CDirExFat(CFileSystemExFat* fs) : file_(fs) {}
  ~CDirExFat();
  CDirExFat(const CDirExFat&) = delete;
  CDirExFat& operator=(const CDirExFat&) = delete;

  // The root directory, from the boot sector's first cluster through the FAT.
  api::status_t OpenRoot();
  // A sub-directory from the stream extension of its entry set.
  api::status_t Open(uint32_t firstCluster, uint64_t length, bool noFatChain);
  // Resolves the run list (see CFileExFat::LoadRuns); the root is loaded by OpenRoot.
  api::status_t Load();

  bool IsRoot() const { return root_; }
  uint64_t Size() const { return file_.Length(); }
  const std::vector<ExFatExtent>& Extents() const { return file_.Extents(); }
  // The 32-byte entry at `pos` (a multiple of 32 below Size()).
  api::status_t Entry(uint64_t pos, ByteView* out);

 private:
  CFileExFat file_;
  bool root_ = false;
  uint8_t* buf_ = nullptr;
  uint32_t bufCap_ = 0;
  uint64_t bufPos_ = UINT64_MAX;
  uint32_t bufLen_ = 0;
};

// Directory entry types the scanner looks at. A type with its in-use bit
// (0x80) cleared is a deleted entry of the same kind.
constexpr uint8_t EXFAT_ENTRY_IN_USE = 0x80;
constexpr uint8_t EXFAT_ENTRY_BITMAP = 0x81;
constexpr uint8_t EXFAT_ENTRY_UPCASE = 0x82;
constexpr uint8_t EXFAT_ENTRY_FILE = 0x85;
constexpr uint8_t EXFAT_ENTRY_STREAM = 0xC0;
constexpr uint16_t EXFAT_ATTR_DIRECTORY = 0x10;

// Fields of the 32-byte directory entries the scanner reads.
struct ExFatEntryField {
  static constexpr size_t kType = 0;
  static constexpr size_t kSecondaryCount = 1;  // file entry
  static constexpr size_t kAttributes = 4;      // file entry, 16 bits
  static constexpr size_t kBitmapFlags = 1;     // allocation bitmap entry: bit 0 = second bitmap
  static constexpr size_t kStreamFlags = 1;     // stream extension: bit 1 = NoFatChain
  static constexpr size_t kNameLength = 3;      // stream extension
  static constexpr size_t kFirstCluster = 20;   // bitmap, up-case table, stream extension
  static constexpr size_t kDataLength = 24;     // 64 bits, same three
  static constexpr uint32_t kSize = 32;
  static constexpr uint8_t kNoFatChain = 0x2;
};

// One step of a directory walk: a critical primary entry the scanner uses,
// or a file entry set with what its stream extension says. A deleted set
// (kDeletedSet) is reported without being stepped over, since live entries
// may since have been written over its later entries.
struct ExFatEntry {
  enum Kind { kBitmap, kUpcase, kFileSet, kBadSet, kDeletedSet } kind;
  uint64_t pos;          // byte position of the primary entry
  uint32_t firstCluster; // bitmap/up-case/stream
  uint64_t length;       // DataLength
  uint16_t attributes;   // file sets
  bool noFatChain;       // file sets
  uint8_t bitmapFlags;   // allocation bitmaps
};

// Enumerates a directory's entries from position 0 while a whole minimal
// entry set (96 bytes) still fits, stopping at the end-of-directory mark.
// Unused entries, labels, GUIDs and padding are stepped over; file entry
// sets are checked (length, name length, stream extension second) and a
// malformed one comes back as kBadSet so the caller can count it. A deleted
// file entry followed by a deleted stream extension comes back as
// kDeletedSet.
class CExFatEnum {
 public:
  explicit CExFatEnum(CDirExFat* dir) : dir_(dir) {}
  // QORV_OK with the next entry, ERR_END_OF_DIR at the end, or a read status.
  api::status_t Next(ExFatEntry* out);

 private:
  CDirExFat* dir_;
  uint64_t pos_ = 0;
};

// The allocation bitmap, read through a chunk cache: which clusters are free.
class CExFatAllocation {
 public:
  explicit CExFatAllocation(CFileSystemExFat* fs) : fs_(fs), words_(fs->Env()) {}
  // The bitmap starting at cluster `first`, contiguous; false when it does
  // not fit inside the heap.
  bool Attach(uint32_t first);
  bool Attached() const { return attached_; }
  // Whether every cluster of [first, first + count) lies in the heap and is
  // free; false as well when the bitmap cannot be read.
  bool AllFree(uint32_t first, uint32_t count);

 private:
  CFileSystemExFat* fs_;
  TableCache words_;  // the bitmap as 32-bit little-endian words
  bool attached_ = false;
};

}  // namespace QORV
