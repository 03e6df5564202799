// APFS on-disk layout: the byte offsets of the fields the driver reads, the
// object types and the flags, named once after the published structures.
#pragma once
#include <cstddef>
#include <cstdint>

namespace QORV {
namespace apfs {

// obj_phys_t, the header of every object.
namespace obj {
constexpr size_t kCksum = 0x0, kOid = 0x8, kXid = 0x10, kType = 0x18, kSubtype = 0x1C, kBytes = 0x20;
constexpr uint32_t kTypeMask = 0xFFFF;
}  // namespace obj

// Object types (low 16 bits of o_type) and B-tree subtypes.
enum ObjectType : uint32_t {
  kTypeNone = 0,
  kTypeNxSuperblock = 1,
  kTypeBtree = 2,
  kTypeBtreeNode = 3,
  kTypeSpaceman = 5,
  kTypeSpacemanCab = 6,
  kTypeSpacemanCib = 7,
  kTypeSpacemanBitmap = 8,
  kTypeFreeQueue = 9,
  kTypeExtentListTree = 10,
  kTypeOmap = 11,
  kTypeCheckpointMap = 12,
  kTypeFs = 13,
  kTypeFsTree = 14,
  kTypeBlockRefTree = 15,
  kTypeSnapMetaTree = 16,
  kTypeReaper = 17,
  kTypeReapList = 18,
  kTypeOmapSnapshot = 19,
  kTypeEfiJumpstart = 20,
  kTypeFusionMiddleTree = 21,
};
// Types above this are not objects at all; types above kLastFollowed are
// objects the walk keeps without following.
constexpr uint32_t kLastKnownType = 31;
constexpr uint32_t kLastFollowedType = kTypeEfiJumpstart;

// prange_t: a run of physical blocks.
namespace prange {
constexpr size_t kStart = 0x0, kCount = 0x8, kBytes = 0x10;
}

// nx_superblock_t.
namespace nx {
constexpr uint32_t kMagic = 0x4253584E;  // "NXSB"
constexpr size_t kMagicAt = 0x20, kBlockSize = 0x24, kBlockCount = 0x28;
constexpr size_t kXpDescBlocks = 0x68, kXpDataBlocks = 0x6C, kXpDescBase = 0x70, kXpDataBase = 0x78;
constexpr size_t kXpDescIndex = 0x88, kXpDescLen = 0x8C;
constexpr size_t kSpacemanOid = 0x98, kOmapOid = 0xA0, kEvictMappingTreeOid = 0x4E8;
constexpr size_t kEfiJumpstart = 0x4F8, kKeylocker = 0x510, kFusionMtOid = 0x548, kMkbLocker = 0x570;
// The high bit of nx_xp_*_blocks says the area is not contiguous.
constexpr uint32_t kAreaNotContiguous = 0x80000000u;
constexpr uint32_t kMinBlockSize = 4096, kMaxBlockSize = 65536;
}  // namespace nx

// checkpoint_map_phys_t and its checkpoint_mapping_t entries.
namespace cpm {
constexpr size_t kCount = 0x24, kMap = 0x28, kEntryBytes = 0x28;
constexpr size_t kType = 0x0, kSize = 0x8, kOid = 0x18, kPaddr = 0x20;
}  // namespace cpm

// omap_phys_t; omap_val_t in the tree's leaves.
namespace omap {
constexpr size_t kSnapCount = 0x24, kTreeOid = 0x30, kSnapshotTreeOid = 0x38;
constexpr size_t kValFlags = 0x0, kValSize = 0x4, kValPaddr = 0x8, kValBytes = 0x10;
constexpr uint32_t kValEncrypted = 0x4;
}  // namespace omap

// btree_node_phys_t, its table of contents and the root's btree_info_t.
namespace btn {
constexpr size_t kFlags = 0x20, kLevel = 0x22, kNkeys = 0x24, kTableSpaceOff = 0x28, kTableSpaceLen = 0x2A;
constexpr size_t kData = 0x38, kInfoBytes = 0x28;
constexpr uint16_t kRoot = 0x1, kLeaf = 0x2, kFixedKvSize = 0x4, kNoHeader = 0x10;
// kvoff_t (fixed-size entries) and kvloc_t (variable-size entries).
constexpr size_t kFixedEntryBytes = 4, kVarEntryBytes = 8;
constexpr size_t kChildOidBytes = 8;
}  // namespace btn

// apfs_superblock_t: the physical trees a volume names.
namespace apsb {
constexpr uint32_t kMagic = 0x42535041;  // "APSB"
constexpr size_t kMagicAt = 0x20, kIncompat = 0x38, kOmapOid = 0x80, kExtentrefTreeOid = 0x90;
constexpr size_t kSnapMetaTreeOid = 0x98, kErStateOid = 0x3D0, kFextTreeOid = 0x408;
constexpr uint64_t kIncompatSealedVolume = 0x20;
}  // namespace apsb

// j_snap_metadata_val_t, the leaf values of snapshot metadata trees whose
// key (j_key_t) has the snapshot-metadata record type.
namespace snap {
constexpr size_t kKeyBytes = 8, kExtentrefTreeOid = 0x0, kSblockOid = 0x8, kValBytes = 0x10;
constexpr uint64_t kKindShift = 60, kKindSnapMetadata = 1;
}  // namespace snap

// spaceman_phys_t with its main-device spaceman_device_t.
namespace sm {
constexpr size_t kBlocksPerChunk = 0x24, kChunksPerCib = 0x28;
constexpr size_t kDevBlockCount = 0x30, kDevChunkCount = 0x38, kDevCibCount = 0x40, kDevCabCount = 0x44;
constexpr size_t kDevAddrOffset = 0x50;
constexpr size_t kIpBmBlockCount = 0xA4, kIpBlockCount = 0x98, kIpBmBase = 0xA8, kIpBase = 0xB0;
}  // namespace sm

// cib_addr_block_t and chunk_info_block_t with its chunk_info_t entries.
namespace cab {
constexpr size_t kCount = 0x24, kAddrs = 0x28;
}
namespace cib {
constexpr size_t kCount = 0x24, kInfos = 0x28, kInfoBytes = 0x20;
constexpr size_t kAddr = 0x8, kBlockCount = 0x10, kFreeCount = 0x14, kBitmapAddr = 0x18;
}  // namespace cib

// nx_efi_jumpstart_t.
namespace efi {
constexpr uint32_t kMagic = 0x5244534A;  // "JSDR"
constexpr size_t kMagicAt = 0x20, kNumExtents = 0x2C, kExtents = 0xB0;
}  // namespace efi

}  // namespace apfs
}  // namespace QORV
