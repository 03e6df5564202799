// HFS+ and HFSX on-disk layout: the field offsets and constants the driver
// reads, named once, after the public description of the format. Every
// multi-byte field is big-endian.
#pragma once
#include <cstddef>
#include <cstdint>

namespace QORV {
namespace hfs {

// The volume header: 512 bytes at byte 1024, the alternate 1024 bytes
// before the volume's end.
struct VolumeHeader {
  static constexpr uint64_t kOffset = 1024;
  static constexpr uint64_t kAlternateFromEnd = 1024;
  static constexpr uint32_t kSize = 512;
  static constexpr size_t kSignature = 0;  // 16 bits
  static constexpr size_t kVersion = 2;    // 16 bits
  static constexpr size_t kAttributes = 4;
  static constexpr size_t kJournalInfoBlock = 12;
  static constexpr size_t kBlockSize = 40;
  static constexpr size_t kTotalBlocks = 44;
  static constexpr size_t kAllocationFile = 112;  // five fork records of 80 bytes
  static constexpr size_t kExtentsFile = 192;
  static constexpr size_t kCatalogFile = 272;
  static constexpr size_t kAttributesFile = 352;
  static constexpr size_t kStartupFile = 432;
  static constexpr uint16_t kSignaturePlus = 0x482B;  // "H+"
  static constexpr uint16_t kSignatureX = 0x4858;     // "HX"
  static constexpr uint16_t kSignatureWrapper = 0x4244;  // "BD": plain HFS, or a wrapper around HFS+
  static constexpr uint16_t kVersionPlus = 4;
  static constexpr uint16_t kVersionX = 5;
  static constexpr uint32_t kJournaled = 0x2000;  // attributes bit 13
  static constexpr uint32_t kMinBlockSize = 512;
};

// A fork record (HFSPlusForkData): sizes, then the first eight extents.
struct ForkData {
  static constexpr size_t kLogicalSize = 0;  // 64 bits
  static constexpr size_t kTotalBlocks = 12;
  static constexpr size_t kExtents = 16;
  static constexpr size_t kSize = 80;
};

// One extent descriptor, and the eight that make an extent record.
struct Extent {
  static constexpr size_t kStartBlock = 0;
  static constexpr size_t kBlockCount = 4;
  static constexpr size_t kSize = 8;
  static constexpr uint32_t kPerRecord = 8;
  static constexpr uint32_t kRecordSize = kSize * kPerRecord;  // 64
};

// Catalog node IDs of the special files.
constexpr uint32_t kExtentsFileId = 3;
constexpr uint32_t kCatalogFileId = 4;
constexpr uint32_t kAllocationFileId = 6;
constexpr uint32_t kStartupFileId = 7;
constexpr uint32_t kAttributesFileId = 8;

constexpr uint8_t kDataFork = 0x00;
constexpr uint8_t kResourceFork = 0xFF;

// The journal info block.
struct JournalInfo {
  static constexpr size_t kFlags = 0;
  static constexpr size_t kOffset = 36;  // 64 bits, bytes from the volume's start
  static constexpr size_t kSize = 44;    // 64 bits
  static constexpr size_t kEnd = 52;
  static constexpr uint32_t kInFileSystem = 0x1;
  static constexpr uint32_t kOnOtherDevice = 0x2;
  static constexpr uint32_t kNeedsInit = 0x4;
};

// B-tree node descriptor, at the start of every node; record offsets are
// 16-bit words at the node's end, record 0's last.
struct NodeDescriptor {
  static constexpr size_t kForward = 0;
  static constexpr size_t kBackward = 4;
  static constexpr size_t kKind = 8;  // signed
  static constexpr size_t kHeight = 9;
  static constexpr size_t kNumRecords = 10;  // 16 bits
  static constexpr size_t kSize = 14;
  static constexpr int8_t kLeaf = -1;
  static constexpr int8_t kIndex = 0;
  static constexpr int8_t kHeader = 1;
  static constexpr int8_t kMap = 2;
  static constexpr size_t kOffsetBytes = 2;
};

// B-tree header record: the first record of node 0.
struct HeaderRecord {
  static constexpr size_t kAt = NodeDescriptor::kSize;
  static constexpr size_t kTreeDepth = kAt + 0;  // 16 bits
  static constexpr size_t kRootNode = kAt + 2;
  static constexpr size_t kNodeSize = kAt + 18;      // 16 bits
  static constexpr size_t kMaxKeyLength = kAt + 20;  // 16 bits
  static constexpr size_t kTotalNodes = kAt + 22;
  static constexpr size_t kAttributes = kAt + 38;
  static constexpr size_t kEnd = kAt + 106;
  static constexpr uint32_t kMinNodeSize = 512;
  static constexpr uint32_t kMaxNodeSize = 32768;
  static constexpr uint32_t kVariableIndexKeys = 0x4;
};

// Keys: a 16-bit length (not counting itself), then the key proper.
constexpr size_t kKeyLengthBytes = 2;
// An index record's child pointer follows its key.
constexpr size_t kChildPointerBytes = 4;

// Extents overflow key.
struct ExtentKey {
  static constexpr size_t kForkType = 2;
  static constexpr size_t kFileId = 4;
  static constexpr size_t kStartBlock = 8;
  static constexpr size_t kSize = 12;
};

// Catalog leaf data: the record type, and the file record's fields.
struct CatalogFile {
  static constexpr size_t kRecordType = 0;  // 16 bits
  static constexpr size_t kFileId = 8;
  static constexpr size_t kDataFork = 88;
  static constexpr size_t kResourceFork = 168;
  static constexpr size_t kSize = 248;
  static constexpr uint16_t kFileRecord = 0x0002;
};

}  // namespace hfs
}  // namespace QORV
