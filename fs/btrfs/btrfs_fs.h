// Read-only Btrfs driver: just what the metadata scan needs. The superblock
// is recognised and checked, the chunk map built from the system chunk
// array and the chunk tree's chunk items, logical addresses translated to
// every copy on the one device read, and tree nodes read, checked
// (checksum, address, level, item bounds) and parsed.
#pragma once
#include <cstdint>
#include <vector>

#include "core/scan/address_map.h"
#include "core/scan/block_reader.h"
#include "fs/btrfs/btrfs_format.h"
#include "fs/unix/unix_fs.h"

namespace QORV {
namespace Btrfs {

// The banner the driver identifies itself with.
constexpr const char* kBanner = "Btrfs v4.10.2";

// Sector and node sizes the driver accepts (powers of two).
constexpr uint32_t kMinSectorSize = 4096, kMaxNodeSize = 65536;

class CBtrFsSuperBlock : public CUnixSuperBlock {
 public:
  // ERR_NOT_RECOGNIZED without the magic or with a checksum that fails;
  // ERR_INCONSISTENT for impossible geometry (why() says which).
  api::status_t Parse(ByteView raw);
  const char* Why() const { return why_; }

  uint64_t totalBytes = 0, root = 0, chunkRoot = 0, logRoot = 0, generation = 0, numDevices = 0, devid = 0;
  uint32_t nodeSize = 0, sysChunkArraySize = 0;
  uint16_t csumType = 0;
  uint8_t rootLevel = 0, chunkRootLevel = 0, logRootLevel = 0;
  bool csumKnown = true;                // false: nodes are taken without a checksum check
  uint8_t metadataFsid[kFsidBytes] = {};  // what every node header carries

 private:
  const char* why_ = "";
};

// Verifies a checksum field (the first 32 bytes) over the rest of the unit.
bool VerifyCsum(uint16_t type, const uint8_t* unit, uint32_t size);

// Logical-to-physical translation over the chunks, keeping for each chunk
// the stripes that lie on this device (every copy of a mirrored profile).
class CBtrFsChunkMap final : public IAddressMap {
 public:
  static constexpr uint32_t kMaxCopies = 4;
  // Chunks and stripes beyond these are refused: a bound on memory (and on
  // sorted insertion) against a hostile tree. A volume the dump can take
  // (2^32 sectors) has far fewer chunks of 256 MiB and up.
  static constexpr size_t kMaxChunks = 1u << 15, kMaxStripes = 1u << 17;

  void SetDevice(uint64_t devid) { devid_ = devid; }
  // One chunk item (key offset = logical start). A chunk already known
  // with the same range is ignored; ERR_INCONSISTENT for a malformed item
  // or one overlapping another (why() says which).
  api::status_t Add(uint64_t logical, ByteView chunk, uint32_t sectorSize);
  const char* Why() const { return why_; }

  enum class Miss { kNone, kUnmapped, kOtherDevice, kProfile };
  // Every physical copy of `logical` on this device with `length` bytes
  // contiguous from each; returns the count (0: *miss says why).
  uint32_t Copies(uint64_t logical, uint32_t length, uint64_t out[kMaxCopies], Miss* miss) const;
  bool Translate(uint64_t logical, uint64_t* physical, uint64_t* contiguous) const override;
  size_t Size() const { return chunks_.size(); }

 private:
  struct Chunk {
    uint64_t logical, length, stripeLen;
    uint32_t firstStripe;  // index into stripes_
    uint16_t width, copies;
    bool supported;
  };
  const Chunk* Find(uint64_t logical) const;
  uint64_t devid_ = 1;
  std::vector<Chunk> chunks_;       // sorted by logical start
  std::vector<uint64_t> stripes_;   // physical offsets; kElsewhere when on another device
  const char* why_ = "";
};

// A checked node: its header and the bounds of its items.
class CBtrFsNode {
 public:
  struct Key {
    uint64_t objectId;
    uint8_t type;
    uint64_t offset;
  };
  // ERR_INCONSISTENT when the level, the item count or (in a leaf) any
  // item's data bounds are impossible; why() says which.
  api::status_t Parse(ByteView node);
  const char* Why() const { return why_; }

  uint8_t Level() const { return level_; }
  uint32_t Items() const { return items_; }
  uint64_t Bytenr() const { return raw_.le64(hdr::kBytenr); }
  uint64_t Owner() const { return raw_.le64(hdr::kOwner); }
  ByteView Raw() const { return raw_; }
  Key KeyAt(uint32_t i) const;
  // Inner nodes: the child's logical address.
  uint64_t ChildAt(uint32_t i) const { return raw_.le64(hdr::kBytes + size_t(i) * kpf::kBytes + kpf::kBlockPtr); }
  // Leaves: the item's data.
  ByteView DataAt(uint32_t i) const;

 private:
  ByteView raw_;
  uint8_t level_ = 0;
  uint32_t items_ = 0;
  const char* why_ = "";
};

class CBtrFsFileSystem : public CUnixFileSystem {
 public:
  CBtrFsFileSystem(api::CLibEnv* env, api::IDeviceRWBlock* dev) : CUnixFileSystem(env, dev), reader_(env->mem) {}
  // Superblock and system chunk array; a refusal's reason is in Why().
  api::status_t Mount() override;
  const CUnixSuperBlock& Super() const override { return sb_; }
  const CBtrFsSuperBlock& Sb() const { return sb_; }
  const char* Why() const { return why_; }
  CBtrFsChunkMap& Chunks() { return chunks_; }
  const CBtrFsChunkMap& Chunks() const { return chunks_; }

  // The node at `logical` expected at `level`, read from the copy at byte
  // `physical` and checked. The node stays valid until the next read. On
  // failure *why says what was wrong.
  api::status_t ReadNode(uint64_t logical, uint32_t level, uint64_t physical, CBtrFsNode* out, const char** why);
  // The same checks on a node the caller read itself (`bytes` holds
  // nodeSize bytes and stays the caller's).
  api::status_t CheckNode(uint64_t logical, uint32_t level, uint8_t* bytes, CBtrFsNode* out, const char** why);
  const CBlockReader::Counters& ReadStats() const { return reader_.Stats(); }

 private:
  class NodeCheck : public IUnitCheck {
   public:
    api::status_t Check(uint64_t offset, uint8_t* unit, uint32_t size) override;
    const CBtrFsSuperBlock* sb = nullptr;
    const char* why = "";
  };
  // Address, level and item bounds of a node that passed the check.
  api::status_t ParseNode(uint64_t logical, uint32_t level, ByteView view, CBtrFsNode* out, const char** why);

  CBtrFsSuperBlock sb_;
  CBtrFsChunkMap chunks_;
  CBlockReader reader_;
  NodeCheck check_;
  const char* why_ = "";
};

}  // namespace Btrfs
}  // namespace QORV
