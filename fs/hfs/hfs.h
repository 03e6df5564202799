// A small read-only HFS+/HFSX driver: volume-header recognition (with the
// alternate header as fallback), forks as extent lists, and B-tree access
// for the extents overflow and catalog files: node reads bounded by the
// file's real size, record fetches checked against the node, and the
// overflow-extent lookup.
#pragma once
#include <cstdint>
#include <vector>

#include "core/api/scanner.h"
#include "core/bytes.h"
#include "core/scan/address_map.h"
#include "core/scan/block_reader.h"
#include "fs/hfs/hfs_format.h"

namespace QORV {

struct HfsExtent {
  uint32_t startBlock = 0;
  uint32_t blockCount = 0;
};

// Eight extent descriptors: a fork record's own, or one overflow record.
struct HfsExtentRecord {
  HfsExtent extents[hfs::Extent::kPerRecord];
  void Parse(ByteView raw);
};

struct HfsForkData {
  uint64_t logicalSize = 0;
  uint32_t totalBlocks = 0;
  HfsExtentRecord first;
  void Parse(ByteView raw);
};

struct HfsVolumeHeader {
  uint16_t signature = 0, version = 0;
  uint32_t attributes = 0, journalInfoBlock = 0, blockSize = 0, totalBlocks = 0;
  HfsForkData allocationFile, extentsFile, catalogFile, attributesFile, startupFile;
  void Parse(ByteView raw);
  // The signature, version and block size of an HFS+ or HFSX volume.
  bool Acceptable() const;
  bool Journaled() const { return attributes & hfs::VolumeHeader::kJournaled; }
};

// Orders extents-overflow keys as the tree does: file ID, fork type, start block.
struct HfsExtentKey {
  uint32_t fileId = 0;
  uint8_t forkType = 0;
  uint32_t startBlock = 0;
  bool operator<(const HfsExtentKey& o) const;
  bool operator==(const HfsExtentKey& o) const {
    return fileId == o.fileId && forkType == o.forkType && startBlock == o.startBlock;
  }
};

// One fork of a file as a list of extents in logical order. Translates a
// byte offset in the fork to one on the volume; an extent that runs past
// the volume's blocks maps nothing.
class CFileHfs final : public IAddressMap {
 public:
  // Hostile overflow chains stop growing the list here (512 KiB of extents).
  static constexpr size_t kMaxExtents = 65536;

  void Reset(uint32_t fileId, uint8_t forkType, uint64_t logicalSize, uint32_t blockShift, uint64_t volumeBlocks);
  // Appends the record's extents up to its first empty one; false when
  // the list is full.
  bool Append(const HfsExtentRecord& record);
  uint32_t FileId() const { return fileId_; }
  uint8_t ForkType() const { return forkType_; }
  uint64_t MappedBlocks() const { return mappedBlocks_; }
  // The bytes a reader may use: the logical size, cut to what the extents map.
  uint64_t Bytes() const;
  bool Translate(uint64_t logical, uint64_t* physical, uint64_t* contiguous) const override;

 private:
  struct Piece {
    uint64_t logicalBlock;
    HfsExtent extent;
  };
  uint32_t fileId_ = 0;
  uint8_t forkType_ = 0;
  uint64_t logicalSize_ = 0;
  uint32_t shift_ = 0;
  uint64_t volumeBlocks_ = 0;
  uint64_t mappedBlocks_ = 0;
  std::vector<Piece> pieces_;
};

// The records of one B-tree node. A record lies between its offset and the
// next one's, after the descriptor and before the offset table; offsets
// that run backwards, overlap or leave the node are refused.
class CHfsEntryNumerator {
 public:
  // ERR_INCONSISTENT when the descriptor's record count cannot fit the node.
  api::status_t Reset(ByteView node);
  int8_t Kind() const { return int8_t(node_.u8(hfs::NodeDescriptor::kKind)); }
  uint32_t Count() const { return count_; }
  // Record i, key included; ERR_INCONSISTENT when its offsets are damaged.
  api::status_t Record(uint32_t i, ByteView* out) const;

 private:
  ByteView node_;
  uint32_t count_ = 0;
};

// A B-tree file: its header, and node reads. Searches read through a small
// cache of nodes; sequential walks through a window that holds a run of
// nodes lying together on the volume.
class CHfsBTree : public api::base_noncopyable {
 public:
  explicit CHfsBTree(api::IBaseMemoryManager* mem) : mem_(mem), cache_(mem) {}
  ~CHfsBTree() { Close(); }

  // Reads the header node of `file` (which the tree then refers to);
  // windowBytes 0 asks for the search cache. ERR_INCONSISTENT for a header
  // that is not one or a node size the format does not allow; the device's
  // status for a failed read.
  api::status_t Open(api::IDeviceRWBlock* dev, const CFileHfs* file, uint32_t windowBytes);
  void Close();
  bool IsOpen() const { return file_ != nullptr; }

  uint32_t NodeSize() const { return nodeSize_; }
  // Nodes the walk may read: the header's count, cut to the file's size.
  uint32_t NodeCount() const { return nodeCount_; }
  uint32_t MaxKeyLength() const { return maxKeyLength_; }
  uint32_t RootNode() const { return rootNode_; }
  bool VariableIndexKeys() const { return variableIndexKeys_; }

  // Node n; the view stays valid until the next read. ERR_IO_RANGE for a
  // node past the count or one the fork does not map.
  api::status_t ReadNode(uint32_t n, ByteView* out);

 private:
  static constexpr uint32_t kCachedNodes = 16;  // a search path, and then some
  api::status_t Fill(uint64_t offset, uint32_t bytes);
  api::IBaseMemoryManager* mem_;
  api::IDeviceRWBlock* dev_ = nullptr;
  const CFileHfs* file_ = nullptr;
  CBlockReader cache_;
  bool cached_ = false;
  uint8_t* window_ = nullptr;  // also puts together a node split between extents
  uint32_t windowBytes_ = 0;
  uint64_t windowAt_ = 0;   // fork offset of the window's first byte
  uint32_t windowHeld_ = 0;  // bytes of it that are valid
  uint32_t nodeSize_ = 0, nodeCount_ = 0, maxKeyLength_ = 0, rootNode_ = 0;
  bool variableIndexKeys_ = false;
};

class CFileSystemHfs : public api::base_noncopyable {
 public:
  // Index descents deeper than this are taken for a cycle.
  static constexpr uint32_t kMaxTreeDepth = 32;
  // The catalog walk's window: runs of nodes read in one go.
  static constexpr uint32_t kWalkWindowBytes = 1u << 20;

  explicit CFileSystemHfs(api::CLibEnv* env) : env_(env), extentsTree_(env->mem), catalogTree_(env->mem) {}
  ~CFileSystemHfs();

  // Recognition: the primary volume header, or the alternate one when the
  // primary is not an HFS+/HFSX header. ERR_NOT_RECOGNIZED for anything
  // else, a wrapped or plain HFS volume among them.
  api::status_t Mount(api::IDeviceRWBlock* dev);
  const HfsVolumeHeader& Header() const { return vh_; }
  uint32_t BlockShift() const { return shift_; }
  uint64_t TotalBlocks() const { return vh_.totalBlocks; }
  bool FromAlternate() const { return alternate_; }
  uint64_t AlternateOffset() const { return alternateAt_; }
  api::IDeviceRWBlock* Device() const { return dev_; }

  api::status_t OpenExtentsTree();
  bool ExtentsTreeOpen() const { return extentsTree_.IsOpen(); }
  void CloseExtentsTree() { extentsTree_.Close(); }
  // The overflow extent record of key (forkType, fileId, startBlock).
  // ERR_INCONSISTENT when the tree holds no such record or it is not a
  // whole extent record; a read's status when a node cannot be read.
  api::status_t LookupExtents(const HfsExtentKey& key, HfsExtentRecord* out);

  // The catalog tree, its fork completed from the overflow file when that
  // is open.
  api::status_t OpenCatalogTree();
  CHfsBTree& CatalogTree() { return catalogTree_; }

 private:
  api::status_t ReadHeader(uint64_t offset, HfsVolumeHeader* out, bool* wrapper);
  // A fork's whole extent list: its own eight, then overflow records.
  void CollectFork(uint32_t fileId, uint8_t forkType, const HfsForkData& fork, CFileHfs* out);

  api::CLibEnv* env_;
  api::IDeviceRWBlock* dev_ = nullptr;
  HfsVolumeHeader vh_;
  uint32_t shift_ = 0;
  bool alternate_ = false;
  uint64_t alternateAt_ = 0;
  CFileHfs extentsFile_, catalogFile_;
  CHfsBTree extentsTree_, catalogTree_;
};

}  // namespace QORV
