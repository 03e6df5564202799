// FAT16/FAT32 scanner: keeps everything in front of the data area (boot
// sectors, FATs, the FAT16 root), the cluster chains of every directory and
// the first cluster of every deleted directory that is still free.
#include <vector>

#include "core/scan/session.h"
#include "core/scan/tree_walk.h"
#include "fs/driver_memory.h"
#include "fs/fat/fat.h"
#include "fs/scanners.h"

namespace QORV {

namespace {

constexpr uint32_t kMountOptions = 0x2 | 0x8;
// WalkNode::aux: the directory was reached through a deleted entry, or lies
// inside a deleted directory; the root.
constexpr uint64_t kDeletedDir = 0x1;
constexpr uint64_t kRootDir = 0x2;

// One directory per node, its first cluster the address (0: the FAT16 fixed
// root). Live directories keep their whole chain. A deleted directory's chain
// is gone from the FAT, so only its first cluster is kept, and only while the
// FAT still calls it free: otherwise it belongs to something else now.
class FatDirVisitor : public ITreeVisitor {
 public:
  FatDirVisitor(CScanSession& session, CFileSystemFat* fs, uint64_t firstDataBlock, bool aligned)
      : session_(session), fs_(fs), firstDataBlock_(firstDataBlock), aligned_(aligned) {}

  api::status_t Visit(const WalkNode& node, CTreeWalk& walk) override;
  // Walks the live tree from the root, then the deleted directories found in
  // it, so that no live directory is ever taken for a deleted one.
  api::status_t Run(CTreeWalk& walk);

 private:
  struct Child {
    uint32_t slot;
    uint32_t cluster;
  };

  void MarkChain(uint32_t dir, const std::vector<FatExtent>& extents);
  void AddLive(CTreeWalk& walk, uint32_t dir, const Child& child);
  void AddDeleted(CTreeWalk& walk, uint32_t cluster);
  // Only a stop request, a vanished device or exhausted memory end the walk.
  static api::status_t Fatal(api::status_t s) {
    return s == api::ERR_TOO_BIG || s == api::ERR_DEVICE_GONE || s == api::ERR_NO_MEMORY ? s : api::QORV_OK;
  }

  CScanSession& session_;
  CFileSystemFat* fs_;
  uint64_t firstDataBlock_;
  bool aligned_;
  bool liveDone_ = false;
  std::vector<uint32_t> deleted_;  // found while the live tree is walked
};

api::status_t FatDirVisitor::Run(CTreeWalk& walk) {
  walk.Add(fs_->RootCluster(), kRootDir);
  QORV_TRY(walk.Run(*this));
  liveDone_ = true;
  for (auto it = deleted_.rbegin(); it != deleted_.rend(); ++it) walk.Add(*it, kDeletedDir);
  return walk.Run(*this);
}

api::status_t FatDirVisitor::Visit(const WalkNode& node, CTreeWalk& walk) {
  const uint32_t d = uint32_t(node.address);
  // What is wrong inside a deleted directory is left-over data, not damage
  // to the volume, so none of it is counted.
  const bool deleted = (node.aux & kDeletedDir) != 0;
  const bool isRoot = (node.aux & kRootDir) != 0;
  CFatDir dir(fs_);
  api::status_t s = deleted ? dir.OpenOneCluster(d) : dir.Open(d);
  if (s != api::QORV_OK) {
    if (!deleted) session_.Problem("FAT directory at cluster 0x%x: its chain cannot be read (status 0x%x)", d, s);
    return Fatal(s);
  }
  MarkChain(d, dir.Extents());
  if (dir.ChainBroken())
    session_.Problem("FAT directory at cluster 0x%x: its chain breaks off (bad link, free cluster or loop) or runs "
                     "past the largest directory, kept up to there",
                     d);
  // A sub-directory entry pointing into this chain is a cross-link.
  for (const FatExtent& e : dir.Extents())
    for (uint32_t i = 0; i < e.count; ++i) walk.MarkSeen(e.first + i);

  std::vector<Child> live, gone;
  FatDirEntry e;
  {
    CFatEntryNumerator entries(&dir);
    while ((s = entries.Next(&e)) == api::QORV_OK) {
      if (!(e.attributes & FAT_ATTR_DIRECTORY)) continue;
      if (!isRoot && e.slot < 2) continue;  // "." and ".."
      (deleted || e.deleted ? gone : live).push_back({e.slot, e.firstCluster});
    }
  }
  if (s != api::ERR_END_OF_DIR) {
    if (!deleted) session_.Problem("FAT directory at cluster 0x%x: its entries cannot be read (status 0x%x)", d, s);
    return Fatal(s);
  }
  // The walk takes the last one queued first: queue in reverse so the tree
  // is walked in on-disk order.
  for (auto it = gone.rbegin(); it != gone.rend(); ++it) AddDeleted(walk, it->cluster);
  for (auto it = live.rbegin(); it != live.rend(); ++it) AddLive(walk, d, *it);
  return api::QORV_OK;
}

void FatDirVisitor::AddLive(CTreeWalk& walk, uint32_t dir, const Child& child) {
  // Cluster 0 would name the fixed FAT16 root again.
  if (!fs_->IsValidCluster(child.cluster)) {
    session_.Problem("FAT directory at cluster 0x%x: entry %u names cluster 0x%x, outside the data area", dir,
                     child.slot, child.cluster);
    return;
  }
  if (walk.Add(child.cluster) == CTreeWalk::Push::kSeen)
    session_.Problem("FAT directory at cluster 0x%x: entry %u names cluster 0x%x, already walked (a cycle or a "
                     "cross-link)",
                     dir, child.slot, child.cluster);
}

void FatDirVisitor::AddDeleted(CTreeWalk& walk, uint32_t cluster) {
  if (!fs_->IsValidCluster(cluster)) return;
  uint32_t next = 0;
  if (fs_->NextCluster(cluster, &next) != api::QORV_OK || next != 0) return;  // in use again, or unknown
  if (liveDone_)
    walk.Add(cluster, kDeletedDir);
  else
    deleted_.push_back(cluster);
}

void FatDirVisitor::MarkChain(uint32_t dir, const std::vector<FatExtent>& extents) {
  uint32_t limit = fs_->ClusterLimit();
  for (const FatExtent& e : extents) {
    uint32_t c = e.first;
    uint64_t n = e.count;
    if (c < 2 || c >= limit) {
      session_.Problem("FAT directory at cluster 0x%x: run at cluster 0x%x lies outside the data area", dir, c);
      continue;
    }
    // Compares a zero-based index with the limit, so only extents running at
    // least two clusters past the end are cut; the bitmap clamps the rest.
    if (uint64_t(c - 2) + n >= limit) {
      n = limit - (c - 2);
      session_.Problem("FAT directory at cluster 0x%x: run at cluster 0x%x of %u clusters cut at the end of the "
                       "data area",
                       dir, c, e.count);
    }
    // Marked unchecked: the cut above may reach one block past the bitmap,
    // which is clamped silently rather than counted a second time.
    uint64_t block = uint64_t(c - 2) + firstDataBlock_;
    if (aligned_) {
      session_.Used().Mark(block, n);
    } else {
      // Each cluster straddles two blocks: its head lies in the block before
      // `block`, and the last cluster's tail reaches the block after the run.
      session_.Used().Mark(block - 1, n + 2);
    }
  }
}

api::status_t ScanWith(CFileSystemFat* fs, api::CLibEnv* env, api::IDeviceRWBlock* dev, api::IMessage* msg,
                       uint32_t scanFlags, uint8_t** bitmap, uint64_t* blockCount, uint32_t* blockShift,
                       uint32_t* problems) {
  CScanSession session(env, dev, msg);
  fs->SetMountOptions(kMountOptions);
  QORV_TRY(fs->Mount(session.Device()));
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

  QORV_TRY(session.CreateBitmap(firstBlock + fs->ClusterLimit() - 1, fs->ClusterShift()));
  session.Mark(0, firstBlock, "FAT leading region");
  if (msg) msg->Trace(0, "Scanning FAT...");

  CTreeWalk walk(session, "FAT directory tree");
  FatDirVisitor visitor(session, fs, firstBlock, aligned);
  return session.Finish(visitor.Run(walk), bitmap, blockCount, blockShift, problems);
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
  ClearScanOutputs(bitmap, problems);
  if (!dev) return api::ERR_IO_RANGE;
  api::status_t s = ScanAs<CFileSystemFat32>(env, dev, msg, scanFlags, bitmap, blockCount, blockShift, problems);
  if (s == api::ERR_NOT_RECOGNIZED)
    s = ScanAs<CFileSystemFat16>(env, dev, msg, scanFlags, bitmap, blockCount, blockShift, problems);
  return s;
}

}  // namespace QORV
