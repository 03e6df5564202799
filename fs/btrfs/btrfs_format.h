// On-disk layout of the Btrfs structures the driver reads: byte offsets
// named once, read through bounds-checked views with little-endian order.
#pragma once
#include <cstddef>
#include <cstdint>

namespace QORV {
namespace Btrfs {

constexpr uint64_t kSuperOffset = 0x10000;
constexpr uint32_t kSuperBytes = 4096;
constexpr uint64_t kMagic = 0x4D5F53665248425Full;  // "_BHRfS_M"
constexpr size_t kCsumBytes = 32;                   // every checksum field, whatever the type
constexpr size_t kFsidBytes = 16;

// Superblock fields.
namespace sbf {
constexpr size_t kCsum = 0x0, kFsid = 0x20, kBytenr = 0x30, kMagic = 0x40, kGeneration = 0x48;
constexpr size_t kRoot = 0x50, kChunkRoot = 0x58, kLogRoot = 0x60, kTotalBytes = 0x70, kNumDevices = 0x88;
constexpr size_t kSectorSize = 0x90, kNodeSize = 0x94, kSysChunkArraySize = 0xA0;
constexpr size_t kIncompatFlags = 0xBC, kCsumType = 0xC4, kRootLevel = 0xC6, kChunkRootLevel = 0xC7;
constexpr size_t kLogRootLevel = 0xC8, kDevItem = 0xC9, kMetadataUuid = 0x23B, kSysChunkArray = 0x32B;
constexpr size_t kSysChunkArrayMax = 2048;
}  // namespace sbf

// The device item embedded in the superblock (and in the chunk tree).
namespace devf {
constexpr size_t kDevid = 0x0, kTotalBytes = 0x8;
}

constexpr uint64_t kIncompatMetadataUuid = 0x400;

enum CsumType : uint16_t { kCsumCrc32c = 0, kCsumXxhash = 1, kCsumSha256 = 2, kCsumBlake2 = 3 };

// Tree node header; the items or key pointers follow it.
namespace hdr {
constexpr size_t kCsum = 0x0, kFsid = 0x20, kBytenr = 0x30, kFlags = 0x38, kChunkTreeUuid = 0x40;
constexpr size_t kGeneration = 0x50, kOwner = 0x58, kNrItems = 0x60, kLevel = 0x64, kBytes = 0x65;
}  // namespace hdr

// A key: object id, type, offset.
namespace keyf {
constexpr size_t kObjectId = 0x0, kType = 0x8, kOffset = 0x9, kBytes = 0x11;
}
// An inner node's key pointer.
namespace kpf {
constexpr size_t kKey = 0x0, kBlockPtr = 0x11, kGeneration = 0x19, kBytes = 0x21;
}
// A leaf's item; its data lies at `offset` counted from the end of the header.
namespace itf {
constexpr size_t kKey = 0x0, kOffset = 0x11, kSize = 0x15, kBytes = 0x19;
}

// Root item: after the embedded 160-byte inode item.
namespace rootf {
constexpr size_t kBytenr = 0xB0, kLevel = 0xEE, kMinBytes = 0xEF;
}

// Chunk item and its stripes.
namespace chunkf {
constexpr size_t kLength = 0x0, kOwner = 0x8, kStripeLen = 0x10, kType = 0x18, kNumStripes = 0x2C;
constexpr size_t kSubStripes = 0x2E, kStripes = 0x30, kStripeBytes = 0x20;
constexpr size_t kStripeDevid = 0x0, kStripeOffset = 0x8;
}  // namespace chunkf

// Block-group profile bits of a chunk's type.
namespace bg {
constexpr uint64_t kRaid0 = 0x8, kRaid1 = 0x10, kDup = 0x20, kRaid10 = 0x40, kRaid5 = 0x80, kRaid6 = 0x100;
constexpr uint64_t kRaid1c3 = 0x200, kRaid1c4 = 0x400;
}  // namespace bg

// Key types the scan acts on (the trace names the rest).
namespace key {
constexpr uint8_t kRootItem = 132, kChunkItem = 228;
}

constexpr uint32_t kMaxLevel = 8;  // levels 0..7
constexpr uint64_t kFirstChunkTreeObjectId = 256;

}  // namespace Btrfs
}  // namespace QORV
