// Read-only ext2/3/4 driver: just what the metadata scan needs. The
// superblock is recognised and checked, the group descriptors loaded,
// inodes read through small caches of the inode tables, and an inode's
// block map (extent tree or indirect blocks) visited run by run.
#pragma once
#include <cstdint>

#include "fs/unix/unix_fs.h"

namespace QORV {
namespace ExtFS2 {

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
  uint64_t FileAcl() const { return fileAcl_; }
  uint64_t SectorCount() const { return sectors_; }
  bool HasExtents() const { return flags_ & kInodeExtentsFl; }
  bool HasInlineData() const { return flags_ & kInodeInlineDataFl; }
  // A symbolic link whose target sits in i_block.
  bool IsFastSymlink(uint32_t blockSize) const;
  ByteView IBlock() const { return ByteView(raw_ + 0x28, 60); }
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
// indirect blocks) and data runs. Node(): return false to not descend.
class CExtMapVisitor {
 public:
  virtual ~CExtMapVisitor() = default;
  virtual bool Node(uint64_t block) = 0;
  // fromIndirect: the run was listed by an indirect block (not i_block).
  virtual api::status_t Data(uint64_t logical, uint64_t block, uint32_t count, bool fromIndirect) = 0;
  virtual void Problem() = 0;
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

  uint64_t BlockBitmapOf(uint32_t g) const { return DescField(g, 0x0, 0x20); }
  uint64_t InodeBitmapOf(uint32_t g) const { return DescField(g, 0x4, 0x24); }
  uint64_t InodeTableOf(uint32_t g) const { return DescField(g, 0x8, 0x28); }
  uint32_t TableBlocks() const { return uint32_t((uint64_t(sb_.inodeSize) * sb_.inodesPerGroup) >> sb_.BlockShift()); }

  // Random access: a handful of small windows over the inode tables.
  api::status_t ReadInode(uint64_t number, CExtFsInode* out);
  // Sequential access (ascending numbers): one large window.
  api::status_t ReadInodeSequential(uint64_t number, CExtFsInode* out);
  // Visits the block map of an inode; structural damage goes to Problem().
  api::status_t VisitMap(const CExtFsInode& inode, CExtMapVisitor* v);

 private:
  struct Window {
    uint32_t group = UINT32_MAX;
    uint64_t start = 0, length = 0;  // bytes within the group's table
    uint8_t* data = nullptr;
    uint64_t stamp = 0;
  };
  uint64_t DescField(uint32_t g, uint32_t lo, uint32_t hi) const;
  uint32_t ParsedInodeBytes() const {
    return sb_.inodeSize < CExtFsInode::kMaxRaw ? sb_.inodeSize : CExtFsInode::kMaxRaw;
  }
  api::status_t ReadVia(Window* w, uint32_t slotBytes, uint64_t number, CExtFsInode* out);
  api::status_t VisitExtentNode(ByteView node, uint32_t depth, uint32_t maxEntries, CExtMapVisitor* v);
  api::status_t VisitIndirect(uint64_t block, uint32_t depth, uint64_t logical, CExtMapVisitor* v);

  CExtSuperBlock sb_;
  CExtResizeBitmap backups_;
  CUnixBlock desc_;
  CUnixBlock cache_;  // kSlots random windows, then the sequential one
  static constexpr uint32_t kSlots = 32, kSlotBytes = 32 << 10, kSeqBytes = 1 << 20;
  Window slots_[kSlots];
  Window seq_;
  uint64_t clock_ = 0;
  CUnixBlock nodes_;  // one block per extent/indirect level
};

}  // namespace ExtFS2
}  // namespace QORV
