// NTFS on-disk layout: the field offsets and constants the driver reads,
// named once, after the public description of the format.
#pragma once
#include <cstddef>
#include <cstdint>

namespace QORV {
namespace ntfs {

// Boot sector (the first 512 bytes of the volume, backup at its last 512).
struct Boot {
  static constexpr size_t kOemName = 3;              // 8 bytes: "NTFS    "
  static constexpr size_t kBytesPerSectorLow = 11;   // must be 0
  static constexpr size_t kBytesPerSectorHigh = 12;  // x 256
  static constexpr size_t kSectorsPerCluster = 13;
  static constexpr size_t kTotalSectors = 40;       // 64 bits
  static constexpr size_t kMftCluster = 48;         // 64 bits
  static constexpr size_t kMftMirrCluster = 56;     // 64 bits
  static constexpr size_t kClustersPerRecord = 64;  // signed
  static constexpr size_t kClustersPerIndex = 68;   // signed
  static constexpr size_t kSerial = 72;             // 64 bits
  static constexpr uint32_t kSize = 512;
};

// Multi-sector protected records (FILE, INDX, RSTR): the update sequence.
struct Protected {
  static constexpr size_t kMagic = 0;
  static constexpr size_t kUsaOffset = 4;  // 16 bits
  static constexpr size_t kUsaCount = 6;   // 16 bits: strides + 1
  static constexpr uint32_t kStride = 512;
};

// MFT record header.
struct Record {
  static constexpr size_t kSequence = 0x10;    // 16 bits
  static constexpr size_t kAttrOffset = 0x14;  // 16 bits
  static constexpr size_t kFlags = 0x16;       // 16 bits
  static constexpr size_t kBytesInUse = 0x18;  // 32 bits
  static constexpr size_t kBytesAllocated = 0x1C;
  static constexpr size_t kBaseRef = 0x20;        // 64 bits
  static constexpr size_t kMinAttrOffset = 0x28;  // the oldest header ends there
  static constexpr uint16_t kInUse = 0x01;
  static constexpr uint16_t kDirectory = 0x02;
};

// Attribute record header, common part, then resident or non-resident.
struct Attr {
  static constexpr size_t kType = 0x00;
  static constexpr size_t kLength = 0x04;
  static constexpr size_t kNonResident = 0x08;
  static constexpr size_t kNameLength = 0x09;  // UTF-16 units
  static constexpr size_t kNameOffset = 0x0A;
  static constexpr size_t kFlags = 0x0C;
  static constexpr size_t kId = 0x0E;
  static constexpr size_t kValueLength = 0x10;  // resident, 32 bits
  static constexpr size_t kValueOffset = 0x14;  // resident, 16 bits
  static constexpr size_t kResidentHeader = 0x18;
  static constexpr size_t kLowestVcn = 0x10;  // non-resident, 64 bits
  static constexpr size_t kHighestVcn = 0x18;
  static constexpr size_t kPairsOffset = 0x20;  // 16 bits
  static constexpr size_t kAllocatedSize = 0x28;
  static constexpr size_t kDataSize = 0x30;
  static constexpr size_t kInitializedSize = 0x38;
  static constexpr size_t kNonResidentHeader = 0x40;
  static constexpr uint16_t kCompressedOrSparse = 0x8001;
  static constexpr uint32_t kEnd = 0xFFFFFFFF;
};

// Attribute types the driver knows.
constexpr uint32_t kAttrList = 0x20;
constexpr uint32_t kFileName = 0x30;
constexpr uint32_t kData = 0x80;
constexpr uint32_t kIndexRoot = 0x90;
constexpr uint32_t kIndexAllocation = 0xA0;
constexpr uint32_t kBitmap = 0xB0;
constexpr uint32_t kFirstUserType = 0x100;

// Attribute list entry.
struct ListEntry {
  static constexpr size_t kType = 0x00;
  static constexpr size_t kLength = 0x04;      // 16 bits
  static constexpr size_t kNameLength = 0x06;  // 8 bits
  static constexpr size_t kNameOffset = 0x07;  // 8 bits
  static constexpr size_t kLowestVcn = 0x08;
  static constexpr size_t kReference = 0x10;
  static constexpr size_t kId = 0x18;  // 16 bits
  static constexpr size_t kMinLength = 0x1A;
};

// $FILE_NAME value (also the key of a $I30 index entry).
struct FileName {
  static constexpr size_t kParent = 0x00;
  static constexpr size_t kFileAttributes = 0x38;  // 32 bits
  static constexpr size_t kNameLength = 0x40;
  static constexpr size_t kNamespace = 0x41;
  static constexpr size_t kName = 0x42;
  static constexpr size_t kMinValue = 0x44;  // 68: the fixed part the scanner insists on
  static constexpr uint8_t kDosNamespace = 2;
  static constexpr uint32_t kDirectoryIndex = 0x10000000;
};

// $INDEX_ROOT value, the index header inside it and in every INDX block,
// and the index entries.
struct IndexRoot {
  static constexpr size_t kBlockSize = 0x08;  // 32 bits
  static constexpr size_t kHeader = 0x10;
};
struct IndexHeader {
  static constexpr size_t kEntriesOffset = 0x00;  // from the header
  static constexpr size_t kIndexLength = 0x04;    // end of the entries, from the header
  static constexpr size_t kSize = 0x10;
};
struct IndexBlock {
  static constexpr size_t kVcn = 0x10;
  static constexpr size_t kHeader = 0x18;
};
struct IndexEntry {
  static constexpr size_t kReference = 0x00;
  static constexpr size_t kLength = 0x08;     // 16 bits
  static constexpr size_t kKeyLength = 0x0A;  // 16 bits
  static constexpr size_t kFlags = 0x0C;      // 16 bits
  static constexpr size_t kKey = 0x10;
  static constexpr uint16_t kHasSubNode = 0x1;
  static constexpr uint16_t kLast = 0x2;
};

// $LogFile restart page.
struct Restart {
  static constexpr size_t kSystemPageSize = 0x10;  // 32 bits
  static constexpr size_t kLogPageSize = 0x14;
  static constexpr size_t kAreaOffset = 0x18;  // 16 bits
  static constexpr size_t kAreaFlags = 0x0E;   // 16 bits, inside the restart area
  static constexpr uint16_t kClean = 0x2;
  static constexpr uint32_t kFirstPage = 4096;
};

// Record numbers of the system files the scan treats by name.
constexpr uint64_t kMftRecord = 0;
constexpr uint64_t kLogFileRecord = 2;
constexpr uint64_t kRootRecord = 5;
constexpr uint64_t kBadClusRecord = 8;
constexpr uint64_t kExtendRecord = 11;
constexpr uint64_t kFirstUserRecord = 16;

// A file reference: record number in the low 48 bits, sequence above.
constexpr uint64_t kRecordMask = (uint64_t(1) << 48) - 1;
inline uint64_t RecordOf(uint64_t ref) { return ref & kRecordMask; }

}  // namespace ntfs
}  // namespace QORV
