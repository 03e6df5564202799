// exFAT/TexFAT scanner: keeps everything in front of the cluster heap (both
// boot regions, the FATs), the allocation bitmaps, the up-case table and the
// clusters of every directory. File contents are never kept.
#include <cinttypes>
#include <cstdio>
#include <utility>
#include <vector>

#include "core/bitmap.h"
#include "fs/driver_memory.h"
#include "fs/exfat/exfat.h"
#include "fs/scanners.h"

namespace QORV {

namespace {

// Where a sub-directory's stream lives, as its entry set in the parent says.
struct SubDir {
  uint32_t firstCluster;
  uint64_t length;
  bool noFatChain;
};

class ExFatScan {
 public:
  ExFatScan(CFileSystemExFat* fs, api::IMessage* msg, BlockBitmap used, uint64_t firstHeapBlock,
            uint32_t ratioShift)
      : fs_(fs), msg_(msg), used_(used), firstHeapBlock_(firstHeapBlock), ratio_(ratioShift) {}

  // Walks the tree depth first with an explicit stack so that depth cannot
  // exhaust the call stack. A sub-directory whose first cluster is already
  // kept (a cycle or a cross-link) is counted and skipped, so the used
  // bitmap doubles as the visited set.
  api::status_t Run();
  uint32_t Problems() const { return problems_; }

 private:
  struct Frame {
    std::vector<SubDir> subdirs;
    size_t next = 0;
  };

  api::status_t WalkRoot(std::vector<SubDir>* subdirs);
  api::status_t WalkSub(const SubDir& d, std::vector<SubDir>* subdirs);
  api::status_t WalkEntries(CDirExFat* dir, std::vector<SubDir>* subdirs);
  void MarkRuns(const std::vector<ExFatExtent>& extents);
  void MarkContiguous(uint32_t first, uint64_t bytes);
  bool AlreadyKept(uint32_t c) const {
    return fs_->IsValidCluster(c) && used_.Test((uint64_t(c - 2) << ratio_) + firstHeapBlock_);
  }
  void Progress(uint64_t done, uint64_t total);

  CFileSystemExFat* fs_;
  api::IMessage* msg_;
  BlockBitmap used_;
  uint64_t firstHeapBlock_;
  uint32_t ratio_;
  uint32_t problems_ = 0;
};

api::status_t ExFatScan::Run() {
  std::vector<Frame> stack(1);
  QORV_TRY(WalkRoot(&stack.back().subdirs));
  // The percent follows the root's sub-trees; that is cheap and never goes back.
  const uint64_t total = stack.back().subdirs.size() + 1;
  if (msg_) {
    msg_->BeginProgress(nullptr);
    msg_->SetTotal(0, &total, nullptr);
  }
  api::status_t s = api::QORV_OK;
  while (!stack.empty()) {
    Frame& top = stack.back();
    if (top.next == top.subdirs.size()) {
      stack.pop_back();
      continue;
    }
    if (stack.size() == 1) Progress(top.next + 1, total);
    SubDir d = top.subdirs[top.next++];
    if (AlreadyKept(d.firstCluster)) {
      ++problems_;
      continue;
    }
    if (msg_ && msg_->CheckBreak(false)) {
      s = api::ERR_TOO_BIG;
      break;
    }
    Frame child;
    s = WalkSub(d, &child.subdirs);
    // Only a vanished device (or a stop request) ends the walk; any other
    // failure was counted and the walk goes on.
    if (s == api::ERR_DEVICE_GONE || s == api::ERR_TOO_BIG) break;
    s = api::QORV_OK;
    if (!child.subdirs.empty()) stack.push_back(std::move(child));
  }
  if (msg_) msg_->EndProgress();
  return s;
}

void ExFatScan::Progress(uint64_t done, uint64_t total) {
  if (!msg_) return;
  uint64_t at = done < total ? done : total;
  msg_->SetPosition(&at);
}

api::status_t ExFatScan::WalkRoot(std::vector<SubDir>* subdirs) {
  CDirExFat dir(fs_);
  api::status_t s = dir.OpenRoot();
  if (dir.Size() <= CFileSystemExFat::kMaxDirBytes) MarkRuns(dir.Extents());
  if (s != api::QORV_OK) {
    ++problems_;
    return s;
  }
  return WalkEntries(&dir, subdirs);
}

api::status_t ExFatScan::WalkSub(const SubDir& d, std::vector<SubDir>* subdirs) {
  CDirExFat dir(fs_);
  api::status_t s = dir.Open(d.firstCluster, d.length, d.noFatChain);
  if (s != api::QORV_OK) {
    ++problems_;
    return s;
  }
  s = dir.Load();
  MarkRuns(dir.Extents());
  if (s != api::QORV_OK) {
    ++problems_;
    return s;
  }
  return WalkEntries(&dir, subdirs);
}

api::status_t ExFatScan::WalkEntries(CDirExFat* dir, std::vector<SubDir>* subdirs) {
  CExFatEnum entries(dir);
  ExFatEntry e;
  api::status_t s;
  const uint32_t clusterCount = fs_->Geometry().clusterCount;
  while ((s = entries.Next(&e)) == api::QORV_OK) {
    switch (e.kind) {
      case ExFatEntry::kBitmap:
        // The bitmap's true size follows from the cluster count, whatever the entry claims.
        MarkContiguous(e.firstCluster, clusterCount >= 0xFFFFFFF9u ? 0x20000000u : (uint64_t(clusterCount) + 7) / 8);
        break;
      case ExFatEntry::kUpcase:
        MarkContiguous(e.firstCluster, e.length);
        break;
      case ExFatEntry::kBadSet:
        ++problems_;
        break;
      case ExFatEntry::kFileSet:
        if (e.attributes & EXFAT_ATTR_DIRECTORY) subdirs->push_back({e.firstCluster, e.length, e.noFatChain});
        break;
    }
  }
  if (s == api::ERR_END_OF_DIR) return api::QORV_OK;
  ++problems_;
  return s;
}

void ExFatScan::MarkContiguous(uint32_t first, uint64_t bytes) {
  uint64_t clusters = (bytes + (uint64_t(1) << fs_->ClusterShift()) - 1) >> fs_->ClusterShift();
  if (clusters == 0) return;
  MarkRuns({{first, uint32_t(clusters > UINT32_MAX ? UINT32_MAX : clusters)}});
}

void ExFatScan::MarkRuns(const std::vector<ExFatExtent>& extents) {
  const uint64_t clusterCount = fs_->Geometry().clusterCount;
  for (const ExFatExtent& e : extents) {
    if (e.first < 2 || e.first >= clusterCount + 2) {
      ++problems_;
      continue;
    }
    uint64_t z = e.first - 2, n = e.count;
    // An extent reaching the very end of the heap is counted as well; only
    // one running past it is actually cut.
    if (z + n >= clusterCount) {
      ++problems_;
      n = clusterCount - z;
    }
    used_.Mark((z << ratio_) + firstHeapBlock_, n << ratio_);
  }
}

api::status_t ScanWith(CFileSystemExFat* fs, api::CLibEnv* env, api::IDeviceRWBlock* dev, api::IMessage* msg,
                       uint32_t scanFlags, uint8_t** bitmap, uint64_t* blockCount, uint32_t* blockShift,
                       uint32_t* problems) {
  fs->SetMountOptions(CFileSystemExFat::kOptReadOnly | CFileSystemExFat::kOptNoCache);
  QORV_TRY(fs->Mount(dev));
  if (scanFlags & api::SCAN_DATA) {
    if (msg) msg->Trace(1, "Exfat support \"-data\" option is not implemented yet.");
    return api::ERR_NOT_SUPPORTED;
  }

  // Blocks are clusters unless the heap starts off a cluster boundary; then
  // they shrink to the largest power of two that lines up with the heap.
  const ExFatGeometry& geo = fs->Geometry();
  const uint64_t heap = fs->HeapByteOffset();
  int shift = int(geo.clusterShift);
  while (shift >= 0 && (heap & ((uint64_t(1) << shift) - 1)) != 0) --shift;
  if (shift < 0) {
    if (msg) msg->Trace(1, "Clusters heap offset 0x%x is not cluster aligned.", geo.heapOffset);
    return api::ERR_NOT_SUPPORTED;
  }
  const uint32_t ratio = geo.clusterShift - uint32_t(shift);
  const uint64_t firstHeapBlock = heap >> shift;
  const uint64_t count = ((uint64_t(geo.clusterCount) << geo.clusterShift) + heap) >> shift;
  const uint64_t bytes = BlockBitmap::BytesFor(count);
  if (bytes > 0xFFFFFFFFull) {
    if (msg) {
      char digits[24];
      std::snprintf(digits, sizeof digits, "%" PRIx64, count);
      msg->Trace(1, "exFat volume is too big for mdsnap (%s blocks).", digits);
    }
    return api::ERR_NOT_SUPPORTED;
  }

  auto* bits = static_cast<uint8_t*>(env->mem->Allocate(bytes, api::ALLOC_ZERO));
  if (!bits) return api::ERR_NO_MEMORY;
  *bitmap = bits;
  *blockCount = count;
  *blockShift = uint32_t(shift);
  BlockBitmap used(bits, count);
  used.Mark(0, firstHeapBlock);
  if (msg) msg->Trace(0, "Scanning exFAT...");

  ExFatScan scan(fs, msg, used, firstHeapBlock, ratio);
  api::status_t s = scan.Run();
  *problems = scan.Problems();
  return s;
}

}  // namespace

api::status_t ScanExFat(QORV_SCANNER_ARGS) {
  // Outputs are cleared first so that no failure leaves a stale pointer behind.
  *bitmap = nullptr;
  *problems = 0;
  if (!dev) return api::ERR_IO_RANGE;
  api::status_t s = WithDriver<CFileSystemExFat>(env, [&](CFileSystemExFat* fs) {
    return ScanWith(fs, env, dev, msg, scanFlags, bitmap, blockCount, blockShift, problems);
  });
  if (s != api::QORV_OK) DropBitmap(env, bitmap);
  return s;
}

}  // namespace QORV
