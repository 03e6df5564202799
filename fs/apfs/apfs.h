// Read-only APFS driver: just what the metadata scan needs. The container
// superblock is recognised and checked, objects are read through one checked
// block reader (Fletcher-64 object checksum), B-tree nodes are taken apart
// entry by entry, and the space manager answers whether runs of blocks are
// allocated.
#pragma once
#include <cstdint>
#include <vector>

#include "core/scan/block_reader.h"
#include "fs/apfs/apfs_format.h"

namespace QORV {
namespace apfs {

// The object checksum over `size` bytes; the first 8 bytes (where the sum is
// stored) are left out.
uint64_t Fletcher64(const uint8_t* data, size_t size);
// Whether the object's stored checksum matches its contents.
bool ChecksumVerifies(ByteView object);

// The reader's check: an object must carry a verifying checksum, except a
// B-tree node stored without a header, which has none.
class CApfsObjectCheck : public IUnitCheck {
 public:
  api::status_t Check(uint64_t offset, uint8_t* unit, uint32_t size) override;
};

// The container superblock: geometry and the references the scan follows.
class CApfsSuperBlock {
 public:
  // ERR_NOT_RECOGNIZED without the "NXSB" magic; ERR_INCONSISTENT for a
  // block size out of range.
  api::status_t ParseGeometry(ByteView head);
  // Whether `block` (a whole block) is a container superblock: magic, type
  // and checksum.
  static bool IsValid(ByteView block);

  uint32_t blockSize = 0, blockShift = 0;
  uint64_t blockCount = 0;
};

// One B-tree node taken apart: its table of contents, key and value areas.
// Every offset it hands out has been checked against the node.
class CApfsTree {
 public:
  struct Entry {
    ByteView key;
    ByteView value;
  };
  // False when the node's table of contents does not lie inside it.
  bool Load(ByteView node);
  uint16_t Flags() const { return flags_; }
  uint16_t Level() const { return level_; }
  bool IsLeaf() const { return level_ == 0; }
  // Entries the table of contents holds room for, at most btn_nkeys.
  uint32_t Count() const { return count_; }
  uint32_t Declared() const { return declared_; }
  // Entry i; a key or value whose location falls outside the node comes back
  // empty (and false).
  bool Get(uint32_t i, size_t valueBytes, Entry* out) const;

 private:
  ByteView node_;
  uint16_t flags_ = 0, level_ = 0;
  uint32_t count_ = 0, declared_ = 0;
  size_t toc_ = 0, keys_ = 0, valueEnd_ = 0;
};

// Receives the used runs of a walk over the allocation state.
class IApfsRunSink {
 public:
  virtual api::status_t UsedRun(uint64_t first, uint64_t count) = 0;
  // After each probe that held: the walk has reached `block`. A non-zero
  // status (a stop request) ends the walk.
  virtual api::status_t Reached(uint64_t block) = 0;

 protected:
  ~IApfsRunSink() = default;
};

// The space manager's view of the main device: which blocks are allocated,
// chunk by chunk, from the chunk-info blocks and their bitmaps.
class CApfsBitmap {
 public:
  struct Chunk {
    uint64_t first = 0;   // first block the chunk covers
    uint32_t count = 0;   // blocks it covers
    uint32_t free = 0;    // of which free
    uint64_t bitmap = 0;  // its bitmap block, 0 for none
  };
  // Problems met while loading, for the caller to count.
  struct Damage {
    uint32_t unreadable = 0;   // chunk-info (address) blocks that failed their check
    uint32_t outOfRange = 0;   // addresses or counts beyond the container
  };

  void Clear() { chunks_.clear(); }
  api::status_t Add(const Chunk& c);
  void Sort();
  size_t Size() const { return chunks_.size(); }
  // Whether each of the blocks [first, first + n) is used (wantUsed) or free.
  // A block no chunk covers counts as used, as does a chunk whose bitmap
  // cannot be read: keeping too much is the safe side.
  api::status_t RunIs(bool wantUsed, uint64_t first, uint64_t n, bool* answer);
  void SetReader(api::IDeviceRWBlock* dev, uint8_t* buffer, uint32_t blockSize, uint32_t blockShift,
                 uint64_t blockCount) {
    dev_ = dev, buf_ = buffer, blockSize_ = blockSize, blockShift_ = blockShift, blockCount_ = blockCount;
  }
  uint64_t BitmapReads() const { return bitmapReads_; }

  // Walks blocks [0, blockCount) in runs of one state: from the current
  // block, probes ask whether the next n blocks are all used (in a used run)
  // or all free (in a free run), n starting at 1 and doubling after each probe
  // that holds, as far as the container reaches; a failed probe starts again
  // at 1, and one that fails at 1 flips the state. Block 0 starts a used run.
  api::status_t WalkRuns(uint64_t blockCount, IApfsRunSink* sink);
  uint64_t Probes() const { return probes_; }

 private:
  const Chunk* Find(uint64_t block) const;
  api::status_t LoadBitmap(uint64_t address, bool* ok);
  std::vector<Chunk> chunks_;  // sorted by first block
  api::IDeviceRWBlock* dev_ = nullptr;
  uint8_t* buf_ = nullptr;
  uint32_t blockSize_ = 0, blockShift_ = 0;
  uint64_t blockCount_ = 0;
  uint64_t loaded_ = UINT64_MAX;  // the bitmap block in buf_
  bool loadedOk_ = false;
  uint64_t bitmapReads_ = 0;
  uint64_t probes_ = 0;
};

class CApfsFileSystem : public api::base_noncopyable {
 public:
  // The mount flag of a read-only mount.
  static constexpr uint32_t kMountReadOnly = 0x2000000;

  explicit CApfsFileSystem(api::CLibEnv* env) : env_(env), reader_(env->mem) {}
  ~CApfsFileSystem();

  // Reads block 0 and recognises the container: ERR_NOT_RECOGNIZED, or
  // ERR_INCONSISTENT for geometry out of range. A container larger than the
  // device is taken at the device's size (`Truncated()` says so).
  api::status_t Mount(api::IDeviceRWBlock* dev, uint32_t flags, bool cipherAvailable);
  const CApfsSuperBlock& Sb() const { return sb_; }
  uint64_t BlockCount() const { return blockCount_; }
  bool Truncated() const { return blockCount_ < sb_.blockCount; }
  // Block 0, read whole.
  ByteView Block0() const { return ByteView(block0_, sb_.blockSize); }
  // Whether block 0 is a valid container superblock.
  bool Block0Valid() const { return CApfsSuperBlock::IsValid(Block0()); }

  // An object block through the checked reader (checksum verified, or a node
  // without header). The view lasts until the next read.
  api::status_t ReadObject(uint64_t block, ByteView* out);
  // Reads up to a window's worth of blocks from `first` in one go (the
  // sweeps of the checkpoint areas); ReadObject serves them from there, with
  // the same check, until the next call. A call for the blocks already held
  // reads nothing. Returns how many blocks it holds.
  api::status_t LoadWindow(uint64_t first, uint64_t count, uint64_t* held);
  // A block as it is, into `buffer` (block size bytes).
  api::status_t ReadRaw(uint64_t block, uint8_t* buffer);
  const CBlockReader::Counters& Stats() const { return reader_.Stats(); }

  // Loads the space manager of the newest valid checkpoint into `bitmap`.
  // Damage is counted in `damage`; a container without a usable space
  // manager gives ERR_INCONSISTENT.
  api::status_t LoadSpaceman(CApfsBitmap* bitmap, CApfsBitmap::Damage* damage);

 private:
  api::status_t FindSpaceman(uint64_t* address);
  api::status_t AddCib(CApfsBitmap* bitmap, CApfsBitmap::Damage* damage, uint64_t address);

  api::CLibEnv* env_;
  api::IDeviceRWBlock* dev_ = nullptr;
  CApfsSuperBlock sb_;
  uint64_t blockCount_ = 0;
  uint8_t* block0_ = nullptr;
  uint8_t* scratch_ = nullptr;  // one block for objects kept while others are read
  static constexpr uint32_t kWindowBytes = 1 << 20;
  uint8_t* window_ = nullptr;
  uint64_t windowFirst_ = 0, windowCount_ = 0;
  CApfsObjectCheck check_;
  CBlockReader reader_;
  bool cipher_ = false;
};

}  // namespace apfs
}  // namespace QORV
