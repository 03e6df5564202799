// FAT16/FAT32 scanner: keeps everything in front of the data area (boot
// sectors, FATs, the FAT16 root) and the cluster chains of every directory.
#include <utility>
#include <vector>

#include "core/bitmap.h"
#include "fs/driver_memory.h"
#include "fs/fat/fat.h"
#include "fs/scanners.h"

namespace QORV {

namespace {

constexpr uint32_t kMountOptions = 0x2 | 0x8;

// Walks the directory tree depth first with an explicit stack, so neither a
// deep tree nor a hostile one can exhaust the call stack. Every directory
// chain walked is marked in `visited`, and a sub-directory whose first
// cluster is already marked (a cycle or a cross-link) is counted and skipped.
class FatTreeWalk {
 public:
  FatTreeWalk(CFileSystemFat* fs, api::IMessage* msg, BlockBitmap used, uint64_t firstDataBlock, bool aligned,
              BlockBitmap visited, int64_t visitedBase)
      : fs_(fs), msg_(msg), used_(used), firstDataBlock_(firstDataBlock), aligned_(aligned), visited_(visited),
        visitedBase_(visitedBase) {}

  // Only a stop request or a vanished device ends the walk early.
  api::status_t Run();
  uint32_t Problems() const { return problems_; }

 private:
  struct Frame {
    std::vector<uint32_t> subdirs;
    size_t next = 0;
  };

  api::status_t WalkOne(uint32_t d, bool isRoot, std::vector<uint32_t>* subdirs);
  uint32_t MarkChain(const std::vector<FatExtent>& extents);
  bool AlreadyWalked(uint32_t c) const { return visited_.Test(uint64_t(int64_t(c) + visitedBase_)); }
  static bool Fatal(api::status_t s) { return s == api::ERR_TOO_BIG || s == api::ERR_DEVICE_GONE; }

  CFileSystemFat* fs_;
  api::IMessage* msg_;
  BlockBitmap used_;
  uint64_t firstDataBlock_;
  bool aligned_;
  BlockBitmap visited_;  // the used bitmap itself when clusters and blocks coincide
  int64_t visitedBase_;  // visited bit of cluster c is c + visitedBase_
  uint32_t problems_ = 0;
};

api::status_t FatTreeWalk::Run() {
  std::vector<Frame> stack(1);
  api::status_t s = WalkOne(fs_->RootCluster(), true, &stack.back().subdirs);
  if (Fatal(s)) return s;
  while (!stack.empty()) {
    Frame& top = stack.back();
    if (top.next == top.subdirs.size()) {
      stack.pop_back();
      continue;
    }
    uint32_t c = top.subdirs[top.next++];
    // Cluster 0 would name the fixed FAT16 root again; anything out of range
    // cannot be opened at all.
    if (!fs_->IsValidCluster(c) || AlreadyWalked(c)) {
      ++problems_;
      continue;
    }
    if (msg_ && msg_->CheckBreak(false)) return api::ERR_TOO_BIG;
    Frame child;
    s = WalkOne(c, false, &child.subdirs);
    if (Fatal(s)) return s;
    if (!child.subdirs.empty()) stack.push_back(std::move(child));
  }
  return api::QORV_OK;
}

api::status_t FatTreeWalk::WalkOne(uint32_t d, bool isRoot, std::vector<uint32_t>* subdirs) {
  CFatDir dir(fs_);
  api::status_t s = dir.Open(d);
  if (s != api::QORV_OK) {
    ++problems_;
    return s;
  }
  problems_ += MarkChain(dir.Extents());
  if (dir.ChainBroken()) ++problems_;

  FatDirEntry e;
  {
    CFatEntryNumerator entries(&dir);
    while ((s = entries.Next(&e)) == api::QORV_OK) {
      if (!(e.attributes & FAT_ATTR_DIRECTORY)) continue;
      if (!isRoot && e.slot < 2) continue;  // "." and ".."
      subdirs->push_back(e.firstCluster);
    }
  }
  if (s != api::ERR_END_OF_DIR) {
    subdirs->clear();
    ++problems_;
    return s;
  }
  subdirs->shrink_to_fit();
  return api::QORV_OK;
}

uint32_t FatTreeWalk::MarkChain(const std::vector<FatExtent>& extents) {
  uint32_t count = 0;
  uint32_t limit = fs_->ClusterLimit();
  for (const FatExtent& e : extents) {
    uint32_t c = e.first;
    uint64_t n = e.count;
    if (c < 2 || c >= limit) {
      ++count;
      continue;
    }
    // Compares a zero-based index with the limit, so only extents running at
    // least two clusters past the end are cut; the bitmap clamps the rest.
    if (uint64_t(c - 2) + n >= limit) {
      n = limit - (c - 2);
      ++count;
    }
    uint64_t block = uint64_t(c - 2) + firstDataBlock_;
    if (aligned_) {
      used_.Mark(block, n);
    } else {
      // Each cluster straddles two blocks: its head lies in the block before
      // `block`, and the last cluster's tail reaches the block after the run.
      used_.Mark(block - 1, n + 2);
    }
    if (visited_.Data() != used_.Data()) visited_.Mark(uint64_t(int64_t(c) + visitedBase_), n);
  }
  return count;
}

api::status_t ScanWith(CFileSystemFat* fs, api::CLibEnv* env, api::IDeviceRWBlock* dev, api::IMessage* msg,
                       uint32_t scanFlags, uint8_t** bitmap, uint64_t* blockCount, uint32_t* blockShift,
                       uint32_t* problems) {
  fs->SetMountOptions(kMountOptions);
  QORV_TRY(fs->Mount(dev));
  if (scanFlags & api::SCAN_DATA) {
    if (msg) msg->Trace(1, "%s support \"-data\" option is not implemented.", fs->TypeName());
    return api::ERR_NOT_SUPPORTED;
  }

  uint64_t firstSector = fs->FirstDataSector();
  uint64_t firstBlock = firstSector >> fs->SectorsPerClusterShift();
  bool aligned = (firstSector & ((uint64_t(1) << fs->SectorsPerClusterShift()) - 1)) == 0;
  if (!aligned) {
    if (msg) msg->Trace(1, "First data sector 0x%x is not cluster aligned.", uint32_t(firstSector));
    ++firstBlock;
  }

  uint64_t count = firstBlock + fs->ClusterLimit() - 1;
  auto* bits = static_cast<uint8_t*>(env->mem->Allocate(BlockBitmap::BytesFor(count), api::ALLOC_ZERO));
  if (!bits) return api::ERR_NO_MEMORY;
  *bitmap = bits;
  *blockCount = count;
  *blockShift = fs->ClusterShift();
  *problems = 0;
  BlockBitmap used(bits, count);
  used.Mark(0, firstBlock);
  if (msg) msg->Trace(0, "Scanning FAT...");

  // With unaligned clusters the block marks overlap neighbours, so the
  // visited set needs a bitmap of its own, one bit per cluster.
  BlockBitmap visited = used;
  int64_t visitedBase = int64_t(firstBlock) - 2;
  uint8_t* own = nullptr;
  if (!aligned) {
    own = static_cast<uint8_t*>(env->mem->Allocate(BlockBitmap::BytesFor(fs->ClusterLimit()), api::ALLOC_ZERO));
    if (!own) return api::ERR_NO_MEMORY;
    visited = BlockBitmap(own, fs->ClusterLimit());
    visitedBase = 0;
  }
  FatTreeWalk walk(fs, msg, used, firstBlock, aligned, visited, visitedBase);
  api::status_t s = walk.Run();
  *problems = walk.Problems();
  if (own) env->mem->Free(own);
  return s == api::ERR_TOO_BIG || s == api::ERR_DEVICE_GONE ? s : api::QORV_OK;
}

template <class Fs>
api::status_t ScanAs(api::CLibEnv* env, api::IDeviceRWBlock* dev, api::IMessage* msg, uint32_t scanFlags,
                     uint8_t** bitmap, uint64_t* blockCount, uint32_t* blockShift, uint32_t* problems) {
  return WithDriver<Fs>(env, [&](Fs* fs) {
    return ScanWith(fs, env, dev, msg, scanFlags, bitmap, blockCount, blockShift, problems);
  });
}

}  // namespace

api::status_t ScanFat(QORV_SCANNER_ARGS) {
  // Outputs are cleared first so that no failure leaves a stale pointer behind.
  *bitmap = nullptr;
  *problems = 0;
  if (!dev) return api::ERR_IO_RANGE;
  api::status_t s = ScanAs<CFileSystemFat32>(env, dev, msg, scanFlags, bitmap, blockCount, blockShift, problems);
  if (s == api::ERR_NOT_RECOGNIZED) {
    DropBitmap(env, bitmap);
    s = ScanAs<CFileSystemFat16>(env, dev, msg, scanFlags, bitmap, blockCount, blockShift, problems);
  }
  if (s != api::QORV_OK) DropBitmap(env, bitmap);
  return s;
}

}  // namespace QORV
