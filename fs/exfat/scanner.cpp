// exFAT/TexFAT scanner: keeps everything in front of the cluster heap (both
// boot regions, the FATs), the allocation bitmaps, the up-case table, the
// clusters of every directory and of every deleted directory whose clusters
// are still free. File contents are never kept.
#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <vector>

#include "core/scan/session.h"
#include "core/scan/tree_walk.h"
#include "fs/driver_memory.h"
#include "fs/exfat/exfat.h"
#include "fs/scanners.h"

namespace QORV {

namespace {

// WalkNode::aux: the directory's DataLength (at most kMaxDirBytes) and flags.
constexpr uint64_t kRootDir = uint64_t(1) << 61;
constexpr uint64_t kNoFatChain = uint64_t(1) << 62;
constexpr uint64_t kDeletedDir = uint64_t(1) << 63;
constexpr uint64_t kLengthMask = kRootDir - 1;
static_assert(CFileSystemExFat::kMaxDirBytes <= kLengthMask, "directory lengths fit beside the flags");

// An up-case table maps at most every 16-bit code: 128 KiB. Only that much of
// it is noted as seen, so a hostile length cannot make the walk note billions.
constexpr uint64_t kMaxUpcaseBytes = 65536 * 2;

// One directory per node, its first cluster the address. Live directories keep their runs as their entry set says.
// A deleted directory keeps the contiguous run its stream extension
// describes, and only when the allocation bitmap calls every cluster of it
// free: otherwise they belong to something else now.
class ExFatDirVisitor : public ITreeVisitor {
 public:
  ExFatDirVisitor(CScanSession& session, CFileSystemExFat* fs, uint64_t firstHeapBlock, uint32_t ratioShift)
      : session_(session), fs_(fs), allocation_(fs), firstHeapBlock_(firstHeapBlock), ratio_(ratioShift) {}

  api::status_t Visit(const WalkNode& node, CTreeWalk& walk) override;
  // Walks the live tree from the root, then the deleted directories found in
  // it, so that no live directory is ever taken for a deleted one.
  api::status_t Run(CTreeWalk& walk);

 private:
  api::status_t VisitEntries(CDirExFat* dir, uint32_t at, bool deleted, CTreeWalk& walk);
  void AddLive(CTreeWalk& walk, uint32_t parent, const ExFatEntry& e);
  void AddDeleted(CTreeWalk& walk, const ExFatEntry& e);
  void MarkRuns(uint32_t dir, const char* what, const std::vector<ExFatExtent>& extents);
  void MarkContiguous(uint32_t first, uint64_t bytes, const char* what, uint64_t seenBytes, CTreeWalk& walk);
  void MarkSeen(CTreeWalk& walk, const std::vector<ExFatExtent>& extents) const;

  CScanSession& session_;
  CFileSystemExFat* fs_;
  CExFatAllocation allocation_;
  uint64_t firstHeapBlock_;
  uint32_t ratio_;
  // The percent follows the root's sub-trees; that is cheap and never goes back.
  uint64_t rootChildrenDone_ = 0;
  bool liveDone_ = false;
  std::vector<WalkNode> deleted_;  // found while the live tree is walked
};

api::status_t ExFatDirVisitor::Run(CTreeWalk& walk) {
  walk.Add(fs_->Geometry().rootCluster, kRootDir);
  QORV_TRY(walk.Run(*this));
  liveDone_ = true;
  for (auto it = deleted_.rbegin(); it != deleted_.rend(); ++it) walk.Add(it->address, it->aux);
  return walk.Run(*this);
}

api::status_t ExFatDirVisitor::Visit(const WalkNode& node, CTreeWalk& walk) {
  const uint32_t first = uint32_t(node.address);
  CDirExFat dir(fs_);
  if (node.aux & kRootDir) {
    api::status_t s = dir.OpenRoot();
    if (dir.Size() <= CFileSystemExFat::kMaxDirBytes) MarkRuns(first, "root directory", dir.Extents());
    if (s != api::QORV_OK) {
      // Without its root the volume cannot be walked at all.
      session_.Problem("exFAT root directory at cluster 0x%x: its chain cannot be followed (status 0x%x)", first, s);
      return s;
    }
    MarkSeen(walk, dir.Extents());
    return VisitEntries(&dir, first, false, walk);
  }

  // What is wrong inside a deleted directory is left-over data, not damage
  // to the volume, so none of it is counted.
  const bool deleted = (node.aux & kDeletedDir) != 0;
  if (node.depth == 1 && !deleted) session_.SetPosition(++rootChildrenDone_);
  api::status_t s = dir.Open(first, node.aux & kLengthMask, (node.aux & kNoFatChain) != 0);
  if (s == api::QORV_OK) {
    s = dir.Load();
    if (!deleted) MarkRuns(first, "directory", dir.Extents());
  }
  if (deleted && s == api::QORV_OK) {
    // Checked free and inside the heap before it was queued.
    for (const ExFatExtent& e : dir.Extents())
      session_.Used().Mark(((uint64_t(e.first) - 2) << ratio_) + firstHeapBlock_, uint64_t(e.count) << ratio_);
  }
  if (s != api::QORV_OK) {
    if (!deleted)
      session_.Problem("exFAT directory at cluster 0x%x: its clusters cannot be followed (status 0x%x)", first, s);
    return s == api::ERR_DEVICE_GONE ? s : api::QORV_OK;
  }
  MarkSeen(walk, dir.Extents());
  s = VisitEntries(&dir, first, deleted, walk);
  return s == api::ERR_DEVICE_GONE ? s : api::QORV_OK;
}

api::status_t ExFatDirVisitor::VisitEntries(CDirExFat* dir, uint32_t at, bool deleted, CTreeWalk& walk) {
  const uint32_t clusterCount = fs_->Geometry().clusterCount;
  // TexFAT: the ActiveFat flag also picks the allocation bitmap in use.
  const uint8_t activeBitmap = fs_->Geometry().numberOfFats == 2 ? fs_->Geometry().volumeFlags & 1 : 0;
  std::vector<ExFatEntry> live, gone;
  CExFatEnum entries(dir);
  ExFatEntry e;
  api::status_t s;
  while ((s = entries.Next(&e)) == api::QORV_OK) {
    switch (e.kind) {
      case ExFatEntry::kBitmap: {
        // The bitmap's true size follows from the cluster count, whatever the entry claims.
        uint64_t bytes = clusterCount >= 0xFFFFFFF9u ? 0x20000000u : (uint64_t(clusterCount) + 7) / 8;
        MarkContiguous(e.firstCluster, bytes, "allocation bitmap", bytes, walk);
        if ((e.bitmapFlags & 1) == activeBitmap && !allocation_.Attached()) allocation_.Attach(e.firstCluster);
        break;
      }
      case ExFatEntry::kUpcase:
        MarkContiguous(e.firstCluster, e.length, "up-case table", kMaxUpcaseBytes, walk);
        break;
      case ExFatEntry::kBadSet:
        if (!deleted)
          session_.Problem("exFAT directory at cluster 0x%x: malformed entry set at byte 0x%llx", at,
                           (unsigned long long)e.pos);
        break;
      case ExFatEntry::kFileSet:
        if (e.attributes & EXFAT_ATTR_DIRECTORY) (deleted ? gone : live).push_back(e);
        break;
      case ExFatEntry::kDeletedSet:
        if (e.attributes & EXFAT_ATTR_DIRECTORY) gone.push_back(e);
        break;
    }
  }
  // The walk takes the last one queued first: queue in reverse so the tree
  // is walked in on-disk order. What was found before a failed read is still
  // walked.
  for (auto it = gone.rbegin(); it != gone.rend(); ++it) AddDeleted(walk, *it);
  for (auto it = live.rbegin(); it != live.rend(); ++it) AddLive(walk, at, *it);
  if (s != api::ERR_END_OF_DIR) {
    if (!deleted)
      session_.Problem("exFAT directory at cluster 0x%x: its entries cannot be read (status 0x%x)", at, s);
    return s;
  }
  if (dir->IsRoot()) session_.BeginProgress(live.size() + 1);
  return api::QORV_OK;
}

void ExFatDirVisitor::AddLive(CTreeWalk& walk, uint32_t parent, const ExFatEntry& e) {
  if (e.length > CFileSystemExFat::kMaxDirBytes) {
    session_.Problem("exFAT directory at cluster 0x%x: sub-directory at cluster 0x%x claims 0x%llx bytes, more "
                     "than any directory holds",
                     parent, e.firstCluster, (unsigned long long)e.length);
    return;
  }
  if (walk.Add(e.firstCluster, e.length | (e.noFatChain ? kNoFatChain : 0)) == CTreeWalk::Push::kSeen)
    session_.Problem("exFAT directory at cluster 0x%x: sub-directory at cluster 0x%x is kept already (a cycle or a "
                     "cross-link)",
                     parent, e.firstCluster);
}

void ExFatDirVisitor::AddDeleted(CTreeWalk& walk, const ExFatEntry& e) {
  if (e.length == 0 || e.length > CFileSystemExFat::kMaxDirBytes) return;
  uint64_t clusters = ((e.length - 1) >> fs_->ClusterShift()) + 1;
  if (!allocation_.AllFree(e.firstCluster, uint32_t(clusters))) return;
  uint64_t aux = e.length | kNoFatChain | kDeletedDir;
  if (liveDone_)
    walk.Add(e.firstCluster, aux);
  else
    deleted_.push_back(WalkNode{e.firstCluster, aux, 0});
}

void ExFatDirVisitor::MarkSeen(CTreeWalk& walk, const std::vector<ExFatExtent>& extents) const {
  // A sub-directory pointing into a kept run is a cross-link.
  const uint64_t end = uint64_t(fs_->Geometry().clusterCount) + 2;
  for (const ExFatExtent& e : extents)
    for (uint64_t c = e.first; c < uint64_t(e.first) + e.count && c < end; ++c) walk.MarkSeen(c);
}

void ExFatDirVisitor::MarkContiguous(uint32_t first, uint64_t bytes, const char* what, uint64_t seenBytes,
                                     CTreeWalk& walk) {
  // Rounded up without adding to `bytes`, which an on-disk length near 2^64
  // would wrap to nothing. A length beyond the heap is counted by MarkRuns.
  const uint32_t shift = fs_->ClusterShift();
  uint64_t clusters = (bytes >> shift) + ((bytes & ((uint64_t(1) << shift) - 1)) != 0);
  if (clusters == 0) return;
  MarkRuns(first, what, {{first, uint32_t(clusters > UINT32_MAX ? UINT32_MAX : clusters)}});
  uint64_t seen = (std::min(bytes, seenBytes) + (uint64_t(1) << shift) - 1) >> shift;
  MarkSeen(walk, {{first, uint32_t(seen > UINT32_MAX ? UINT32_MAX : seen)}});
}

void ExFatDirVisitor::MarkRuns(uint32_t dir, const char* what, const std::vector<ExFatExtent>& extents) {
  const uint64_t clusterCount = fs_->Geometry().clusterCount;
  for (const ExFatExtent& e : extents) {
    if (e.first < 2 || e.first >= clusterCount + 2) {
      session_.Problem("exFAT %s at cluster 0x%x: run at cluster 0x%x lies outside the heap", what, dir, e.first);
      continue;
    }
    uint64_t z = e.first - 2, n = e.count;
    // An extent reaching the very end of the heap is counted as well; only
    // one running past it is actually cut.
    if (z + n >= clusterCount) {
      session_.Problem("exFAT %s at cluster 0x%x: run at cluster 0x%x of 0x%x clusters reaches the end of the heap",
                       what, dir, e.first, e.count);
      n = clusterCount - z;
    }
    session_.Mark((z << ratio_) + firstHeapBlock_, n << ratio_, what);
  }
}

api::status_t ScanWith(CFileSystemExFat* fs, api::CLibEnv* env, api::IDeviceRWBlock* dev, api::IMessage* msg,
                       uint32_t scanFlags, uint8_t** bitmap, uint64_t* blockCount, uint32_t* blockShift,
                       uint32_t* problems) {
  CScanSession session(env, dev, msg);
  fs->SetMountOptions(CFileSystemExFat::kOptReadOnly | CFileSystemExFat::kOptNoCache);
  QORV_TRY(fs->Mount(session.Device()));
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
  if (BlockBitmap::BytesFor(count) > 0xFFFFFFFFull) {
    if (msg) {
      char digits[24];
      std::snprintf(digits, sizeof digits, "%" PRIx64, count);
      msg->Trace(1, "exFat volume is too big for mdsnap (%s blocks).", digits);
    }
    return api::ERR_NOT_SUPPORTED;
  }

  QORV_TRY(session.CreateBitmap(count, uint32_t(shift)));
  session.Mark(0, firstHeapBlock, "exFAT region in front of the heap");
  if (msg) msg->Trace(0, "Scanning exFAT...");

  CTreeWalk walk(session, "exFAT directory tree");
  ExFatDirVisitor visitor(session, fs, firstHeapBlock, ratio);
  return session.Finish(visitor.Run(walk), bitmap, blockCount, blockShift, problems);
}

}  // namespace

api::status_t ScanExFat(QORV_SCANNER_ARGS) {
  ClearScanOutputs(bitmap, problems);
  if (!dev) return api::ERR_IO_RANGE;
  return WithDriver<CFileSystemExFat>(env, [&](CFileSystemExFat* fs) {
    return ScanWith(fs, env, dev, msg, scanFlags, bitmap, blockCount, blockShift, problems);
  });
}

}  // namespace QORV
