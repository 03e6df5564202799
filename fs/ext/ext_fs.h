// Read-only ext2/3/4 driver: just what the metadata scan needs. The
// superblock is recognised and checked, the group descriptors loaded,
// inodes read through small caches of the inode tables, and an inode's
// block map (extent tree or indirect blocks) visited run by run.
#pragma once
#include <cstdint>

#include "core/scan/tree_walk.h"
#include "fs/unix/unix_fs.h"

namespace QORV {
namespace ExtFS2 {

// Byte offsets of the superblock fields the driver reads.
namespace sbf {
constexpr size_t kInodesCount = 0x0, kBlocksCountLo = 0x4, kFreeInodes = 0x10, kFirstDataBlock = 0x14;
constexpr size_t kLogBlockSize = 0x18, kLogClusterSize = 0x1C, kBlocksPerGroup = 0x20, kInodesPerGroup = 0x28;
constexpr size_t kMagic = 0x38, kCreatorOs = 0x48, kRevLevel = 0x4C, kInodeSize = 0x58;
constexpr size_t kFeatureCompat = 0x5C, kFeatureIncompat = 0x60, kFeatureRoCompat = 0x64;
constexpr size_t kReservedGdtBlocks = 0xCE, kJournalInum = 0xE0, kLastOrphan = 0xE8, kDescSize = 0xFE;
constexpr size_t kFirstMetaBg = 0x104, kBlocksCountHi = 0x150, kMmpBlock = 0x168, kLogGroupsPerFlex = 0x174;
constexpr size_t kUsrQuotaInum = 0x240, kGrpQuotaInum = 0x244, kBackupBgs = 0x24C, kPrjQuotaInum = 0x26C;
constexpr size_t kOrphanFileInum = 0x280, kUuid = 0x68, kUuidBytes = 16, kChecksumSeed = 0x270;
}  // namespace sbf

// Group descriptor fields: low half, and high half in 64-bit descriptors.
namespace gdf {
constexpr size_t kBlockBitmapLo = 0x0, kInodeBitmapLo = 0x4, kInodeTableLo = 0x8, kFlags = 0x12;
constexpr size_t kItableUnusedLo = 0x1C, kBlockBitmapHi = 0x20, kInodeBitmapHi = 0x24, kInodeTableHi = 0x28;
constexpr size_t kItableUnusedHi = 0x32, kChecksum = 0x1E;
constexpr uint16_t kInodeUninit = 0x1;
}  // namespace gdf

// Inode fields.
namespace inf {
constexpr size_t kMode = 0x0, kSizeLo = 0x4, kDtime = 0x14, kLinksCount = 0x1A, kBlocksLo = 0x1C, kFlags = 0x20;
constexpr size_t kBlock = 0x28, kBlockBytes = 60, kFileAclLo = 0x68, kSizeHigh = 0x6C, kBlocksHi = 0x74;
constexpr size_t kFileAclHi = 0x76, kExtraIsize = 0x80;
}  // namespace inf

// Extent tree: a 12-byte header, then 12-byte index or leaf entries.
namespace ext {
constexpr size_t kMagic = 0x0, kEntries = 0x2, kMax = 0x4, kDepth = 0x6, kHeaderBytes = 12, kEntryBytes = 12;
constexpr size_t kLeafBlock = 0x0, kLeafLen = 0x4, kLeafStartHi = 0x6, kLeafStartLo = 0x8;
constexpr size_t kIndexLeafLo = 0x4, kIndexLeafHi = 0x8;
constexpr uint16_t kMagicValue = 0xF30A;
constexpr uint32_t kMaxInitLen = 32768;  // longer lengths mark unwritten extents
}  // namespace ext

constexpr uint32_t kCompatSparseSuper2 = 0x200;
constexpr uint32_t kRoCompatSparseSuper = 0x1;
constexpr uint32_t kRoCompatGdtCsum = 0x10;
constexpr uint32_t kRoCompatBigalloc = 0x200;
constexpr uint32_t kRoCompatMetadataCsum = 0x400;
constexpr uint32_t kIncompatFiletype = 0x2;
constexpr uint32_t kIncompatMetaBg = 0x10;
constexpr uint32_t kIncompat64Bit = 0x80;
constexpr uint32_t kIncompatMmp = 0x100;
constexpr uint32_t kIncompatFlexBg = 0x200;
constexpr uint32_t kIncompatInlineData = 0x8000;
constexpr uint32_t kIncompatCsumSeed = 0x2000;
constexpr uint32_t kIncompatKnown = 0x3A3CE;
constexpr uint32_t kInodeIndexFl = 0x1000;
constexpr uint32_t kInodeExtentsFl = 0x80000;
constexpr uint32_t kInodeInlineDataFl = 0x10000000;

class CExtSuperBlock : public CUnixSuperBlock {
 public:
  // Recognition: ERR_NOT_RECOGNIZED (or ERR_INCONSISTENT for bad group
  // geometry) when the 1024 bytes are not a volume this driver reads.
  api::status_t Parse(ByteView raw);

  uint32_t inodesCount = 0, blocksCountLo = 0, firstDataBlock = 0, logBlockSize = 0, logClusterSize = 0;
  uint32_t blocksPerGroup = 0, inodesPerGroup = 0, inodeSize = 0, revLevel = 0, creatorOs = 0;
  uint32_t compat = 0, incompat = 0, roCompat = 0, reservedGdtBlocks = 0, descSize = 32, firstMetaBg = 0;
  uint32_t logGroupsPerFlex = 0, journalInum = 0, lastOrphan = 0, freeInodes = 0;
  uint32_t usrQuotaInum = 0, grpQuotaInum = 0, prjQuotaInum = 0, orphanFileInum = 0;
  uint32_t backupBgs[2] = {0, 0};
  uint8_t uuid[sbf::kUuidBytes] = {};
  uint32_t checksumSeed = 0;  // metadata checksums: crc32c of the uuid, or the stored seed
  uint64_t mmpBlock = 0;
  uint32_t groupCount = 0, descBlocks = 0;
  bool readOnlyOnly = false;  // features this driver could only mount read-only
  uint32_t mountInfo = 0;     // why recognition refused, for diagnostics
};

// Which groups carry a superblock and descriptor backup (sparse_super,
// sparse_super2 or every group).
class CExtResizeBitmap : public CUnixBitmap {
 public:
  api::status_t Build(api::IBaseMemoryManager* mem, const CExtSuperBlock& sb);
  bool HasSuper(uint32_t group) const { return Bits().Test(group); }
};

// Inode-number set (visited / pending); bit i is inode i.
class CExt2Bitmap : public CUnixBitmap {};

class CExtFsInode : public CUnixInode {
 public:
  static constexpr uint32_t kMaxRaw = 1024;
  void Load(uint64_t number, ByteView raw);
  uint32_t Flags() const { return flags_; }
  uint16_t LinksCount() const { return links_; }
  uint32_t Dtime() const { return ByteView(raw_, rawSize_).le32(inf::kDtime); }
  uint64_t FileAcl() const { return fileAcl_; }
  uint64_t SectorCount() const { return sectors_; }
  bool HasExtents() const { return flags_ & kInodeExtentsFl; }
  bool HasInlineData() const { return flags_ & kInodeInlineDataFl; }
  // A symbolic link whose target sits in i_block.
  bool IsFastSymlink(uint32_t blockSize) const;
  // Whether i_blocks counts more than the extended-attribute block.
  bool ClaimsBlocks(uint32_t blockSize) const { return sectors_ > (fileAcl_ ? blockSize / 512 : 0); }
  ByteView IBlock() const { return ByteView(raw_ + inf::kBlock, inf::kBlockBytes); }
  ByteView Raw() const { return ByteView(raw_, rawSize_); }

 private:
  uint8_t raw_[kMaxRaw] = {};
  uint32_t rawSize_ = 0;
  uint32_t flags_ = 0;
  uint16_t links_ = 0;
  uint64_t fileAcl_ = 0;
  uint64_t sectors_ = 0;
};

// Receives an inode's mapping: node blocks (extent index/leaf blocks,
// indirect blocks), each once per scan, and data runs.
class CExtMapVisitor {
 public:
  virtual ~CExtMapVisitor() = default;
  virtual void Node(uint64_t block) = 0;
  // fromIndirect: the run was listed by an indirect block (not i_block).
  virtual api::status_t Data(uint64_t logical, uint64_t block, uint32_t count, bool fromIndirect) = 0;
  // Damage in the mapping: what is wrong, and the block it concerns.
  virtual void Problem(const char* why, uint64_t block) = 0;
};

// Yields the entries of directory blocks (or an inline-data area).
class CExtFsEntryNumerator : public CUnixEnumerator {
 public:
  void Reset(ByteView area, bool hasFiletype, uint32_t blockSize);
  api::status_t Next(CUnixDirEntry* entry) override;
  bool Damaged() const { return damaged_; }

 private:
  ByteView area_;
  size_t off_ = 0;
  bool filetype_ = false;
  bool damaged_ = false;
  uint32_t blockSize_ = 0;
};

class CExtFsDir : public CUnixDir {
 public:
  explicit CExtFsDir(const CExtFsInode& inode) : inode_(inode) {}
  const CUnixInode& Inode() const override { return inode_; }
  const CExtFsInode& ExtInode() const { return inode_; }
  bool Indexed() const override { return inode_.Flags() & kInodeIndexFl; }

 private:
  const CExtFsInode& inode_;
};

class CExtFsFileSystem : public CUnixFileSystem {
 public:
  CExtFsFileSystem(api::CLibEnv* env, api::IDeviceRWBlock* dev) : CUnixFileSystem(env, dev) {}
  api::status_t Mount() override;
  const CUnixSuperBlock& Super() const override { return sb_; }
  const CExtSuperBlock& Sb() const { return sb_; }
  const CExtResizeBitmap& Backups() const { return backups_; }

  uint64_t BlockBitmapOf(uint32_t g) const { return DescField(g, gdf::kBlockBitmapLo, gdf::kBlockBitmapHi); }
  uint64_t InodeBitmapOf(uint32_t g) const { return DescField(g, gdf::kInodeBitmapLo, gdf::kInodeBitmapHi); }
  uint64_t InodeTableOf(uint32_t g) const { return DescField(g, gdf::kInodeTableLo, gdf::kInodeTableHi); }
  // Inodes at the start of group g's table that may be in use: all of them
  // unless the group's descriptor checksum verifies and says fewer.
  uint32_t InodesInUseOf(uint32_t g) const;
  // Whether group g's descriptor carries a checksum that verifies.
  bool DescriptorVerifies(uint32_t g) const;
  uint32_t TableBlocks() const { return uint32_t((uint64_t(sb_.inodeSize) * sb_.inodesPerGroup) >> sb_.BlockShift()); }
  // The blocks of group g's table that may hold inodes in use.
  uint32_t UsedTableBlocksOf(uint32_t g) const;

  // Random access: a handful of small windows over the inode tables.
  api::status_t ReadInode(uint64_t number, CExtFsInode* out);
  // Sequential access (ascending numbers): one large window.
  api::status_t ReadInodeSequential(uint64_t number, CExtFsInode* out);
  // Visits the block map of an inode; structural damage goes to Problem().
  // Mapping blocks are read once per `walk`, whose visited set keeps cycles
  // and blocks shared between inodes from being followed twice.
  api::status_t VisitMap(const CExtFsInode& inode, CExtMapVisitor* v, CTreeWalk& walk);

 private:
  struct Window {
    uint32_t group = UINT32_MAX;
    uint64_t start = 0, length = 0;  // bytes within the group's table
    uint8_t* data = nullptr;
    uint64_t stamp = 0;
  };
  class MapWalker;
  uint64_t DescField(uint32_t g, size_t lo, size_t hi) const;
  uint32_t ParsedInodeBytes() const {
    return sb_.inodeSize < CExtFsInode::kMaxRaw ? sb_.inodeSize : CExtFsInode::kMaxRaw;
  }
  api::status_t ReadVia(Window* w, uint32_t slotBytes, uint64_t number, CExtFsInode* out);
  // One extent node (the root in i_block, block 0, or a block); index
  // entries are queued on the walk with the depth their child must have.
  api::status_t VisitExtentNode(uint64_t block, ByteView node, uint32_t depthWanted, CExtMapVisitor* v,
                                CTreeWalk& walk);
  // One indirect block holding pointers `level` levels above the data.
  api::status_t VisitIndirect(ByteView ind, uint32_t level, uint64_t logical, CExtMapVisitor* v, CTreeWalk& walk);

  CExtSuperBlock sb_;
  CExtResizeBitmap backups_;
  CUnixBlock desc_;
  CUnixBlock cache_;  // kSlots random windows, then the sequential one
  static constexpr uint32_t kSlots = 32, kSlotBytes = 32 << 10, kSeqBytes = 1 << 20;
  Window slots_[kSlots];
  Window seq_;
  uint64_t clock_ = 0;
  CUnixBlock node_;  // the mapping block being visited
};

}  // namespace ExtFS2
}  // namespace QORV
