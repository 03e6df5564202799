// APFS scan. Without -data: the object graph from the container superblock
// in block 0, then every block of both checkpoint areas (so older
// checkpoints and what they reach are kept too), each object read once and
// kept whether or not it verifies, followed only when it does. With -data:
// every block the space manager reports allocated, found by run probes that
// double, and the metadata walk on top, so a damaged space manager cannot
// lose structure.
#include <algorithm>

#include "core/scan/session.h"
#include "core/scan/tree_walk.h"
#include "fs/apfs/apfs.h"
#include "fs/driver_memory.h"
#include "fs/scanners.h"

namespace QORV {
namespace apfs {
namespace {

using api::status_t;

// The walk's own word per object: set for objects reached from a sweep of
// the checkpoint areas, whose stale references may well point at reused
// blocks; their failures are not problems.
constexpr uint64_t kFromSweep = 0x1;
// Storage kind in the high bits of o_type: a B-tree's child pointers are
// block addresses only in physical trees (virtual ones are reached through
// their object map).
constexpr uint32_t kObjPhysical = 0x40000000u;

class CApfsScan : public ITreeVisitor, public IApfsRunSink {
 public:
  CApfsScan(CApfsFileSystem& fs, CScanSession& session) : fs_(fs), session_(session), msg_(session.Msg()) {}

  status_t RunMetadata(bool progress);
  status_t RunAllocated();
  void EndProgress() {
    if (progress_ && msg_) msg_->EndProgress();
    progress_ = false;
  }

  status_t Visit(const WalkNode& node, CTreeWalk& walk) override;
  status_t UsedRun(uint64_t first, uint64_t count) override {
    session_.Used().Mark(first, count);
    return api::QORV_OK;
  }
  status_t Reached(uint64_t block) override {
    if (msg_) msg_->SetPosition(&block);
    return session_.Poll();
  }

 private:
  uint64_t Count() const { return fs_.BlockCount(); }
  void Refer(CTreeWalk& walk, uint64_t block, uint64_t aux, const char* what, uint64_t from);
  void MarkRun(uint64_t first, uint64_t count, uint64_t aux, const char* what, uint64_t from);
  void VisitSuperblock(ByteView v, uint64_t block, uint64_t aux, CTreeWalk& walk);
  void VisitSpaceman(ByteView v, uint64_t block, uint64_t aux, CTreeWalk& walk);
  void VisitNode(ByteView v, uint64_t block, uint64_t aux, CTreeWalk& walk);

  CApfsFileSystem& fs_;
  CScanSession& session_;
  api::IMessage* msg_;
  bool progress_ = false;
  CApfsTree tree_;
  // Blocks of the checkpoint areas the running sweep has yet to reach.
  struct Range {
    uint64_t first = 0, end = 0;
    bool Holds(uint64_t b) const { return b >= first && b < end; }
  } ahead_[2];
};

void CApfsScan::Refer(CTreeWalk& walk, uint64_t block, uint64_t aux, const char* what, uint64_t from) {
  if (block == 0) return;
  if (block >= Count()) {
    if (!(aux & kFromSweep))
      session_.Problem("APFS %s named by block 0x%llx lies at 0x%llx, past the container's 0x%llx blocks", what,
                       (unsigned long long)from, (unsigned long long)block, (unsigned long long)Count());
    return;
  }
  if ((aux & kFromSweep) && (ahead_[0].Holds(block) || ahead_[1].Holds(block))) return;
  walk.Add(block, aux);
}

void CApfsScan::MarkRun(uint64_t first, uint64_t count, uint64_t aux, const char* what, uint64_t from) {
  if (count == 0) return;
  if (first < Count() && count <= Count() - first) {
    session_.Used().Mark(first, count);
    return;
  }
  if (aux & kFromSweep) {
    session_.Used().Mark(first, count);
    return;
  }
  session_.Problem("APFS %s named by block 0x%llx: blocks 0x%llx + 0x%llx run past the container's 0x%llx blocks",
                   what, (unsigned long long)from, (unsigned long long)first, (unsigned long long)count,
                   (unsigned long long)Count());
  session_.Used().Mark(first, count);
}

void CApfsScan::VisitSuperblock(ByteView v, uint64_t block, uint64_t aux, CTreeWalk& walk) {
  if (v.le32(nx::kMagicAt) != nx::kMagic) return;
  Refer(walk, v.le64(nx::kOmapOid), aux, "object map", block);
  Refer(walk, v.le64(nx::kEfiJumpstart), aux, "EFI jumpstart", block);
  Refer(walk, v.le64(nx::kFusionMtOid), aux, "fusion middle tree", block);
  Refer(walk, v.le64(nx::kEvictMappingTreeOid), aux, "evict-mapping tree", block);
  // The keybags are encrypted: kept as runs, never parsed.
  MarkRun(v.le64(nx::kKeylocker + prange::kStart), v.le64(nx::kKeylocker + prange::kCount), aux, "keybag", block);
  MarkRun(v.le64(nx::kMkbLocker + prange::kStart), v.le64(nx::kMkbLocker + prange::kCount), aux, "media keybag",
          block);
}

void CApfsScan::VisitSpaceman(ByteView v, uint64_t block, uint64_t aux, CTreeWalk& walk) {
  MarkRun(v.le64(sm::kIpBase), v.le64(sm::kIpBlockCount), aux, "space manager internal pool", block);
  MarkRun(v.le64(sm::kIpBmBase), v.le32(sm::kIpBmBlockCount), aux, "space manager internal-pool bitmap", block);
  // The chunk-info blocks (or the blocks listing them) whose entries name
  // the allocation bitmaps.
  const uint64_t cabs = v.le32(sm::kDevCabCount);
  const uint64_t listed = cabs ? cabs : v.le32(sm::kDevCibCount);
  const size_t at = v.le32(sm::kDevAddrOffset);
  for (uint64_t i = 0; i < listed; ++i) {
    if (!v.Has(at + i * 8, 8)) {
      if (!(aux & kFromSweep))
        session_.Problem("APFS space manager at block 0x%llx lists 0x%llx chunk-info blocks, more than it holds",
                         (unsigned long long)block, (unsigned long long)listed);
      break;
    }
    Refer(walk, v.le64(at + i * 8), aux, "chunk-info block", block);
  }
}

void CApfsScan::VisitNode(ByteView v, uint64_t block, uint64_t aux, CTreeWalk& walk) {
  const uint32_t subtype = v.le32(obj::kSubtype);
  const bool noHeader = v.le16(btn::kFlags) & btn::kNoHeader;
  if (!tree_.Load(v)) {
    if (!(aux & kFromSweep))
      session_.Problem("APFS B-tree node at block 0x%llx: its table of contents lies outside the node",
                       (unsigned long long)block);
    return;
  }
  if (!noHeader) {
    if (subtype == kTypeFsTree || subtype == kTypeFreeQueue) return;
    if (tree_.IsLeaf() && (subtype == kTypeBlockRefTree || subtype == kTypeFusionMiddleTree)) return;
  }
  if (tree_.Count() < tree_.Declared() && !(aux & kFromSweep))
    session_.Problem("APFS B-tree node at block 0x%llx: %u keys declared, room for %u", (unsigned long long)block,
                     tree_.Declared(), tree_.Count());
  const bool physical = noHeader || (v.le32(obj::kType) & kObjPhysical);
  uint32_t bad = 0;
  for (uint32_t i = 0; i < tree_.Count(); ++i) {
    CApfsTree::Entry e;
    if (!tree_.IsLeaf()) {
      if (!tree_.Get(i, btn::kChildOidBytes, &e)) {
        ++bad;
        continue;
      }
      if (physical) Refer(walk, e.value.le64(0), aux, "B-tree child node", block);
      continue;
    }
    if (subtype == kTypeOmap) {
      if (!tree_.Get(i, omap::kValBytes, &e)) {
        ++bad;
        continue;
      }
      const uint64_t paddr = e.value.le64(omap::kValPaddr);
      const uint64_t blocks = (uint64_t(e.value.le32(omap::kValSize)) + fs_.Sb().blockSize - 1) >> fs_.Sb().blockShift;
      // Encrypted objects cannot be read here; they are kept as they are.
      if (e.value.le32(omap::kValFlags) & omap::kValEncrypted) {
        MarkRun(paddr, blocks ? blocks : 1, aux, "encrypted object", block);
        continue;
      }
      Refer(walk, paddr, aux, "mapped object", block);
      if (blocks > 1) MarkRun(paddr + 1, blocks - 1, aux, "mapped object", block);
    } else if (subtype == kTypeSnapMetaTree) {
      if (!tree_.Get(i, 0, &e)) {
        ++bad;
        continue;
      }
      if ((e.key.le64(0) >> snap::kKindShift) != snap::kKindSnapMetadata || e.value.Size() < snap::kValBytes) continue;
      Refer(walk, e.value.le64(snap::kExtentrefTreeOid), aux, "snapshot extent-reference tree", block);
      Refer(walk, e.value.le64(snap::kSblockOid), aux, "snapshot volume superblock", block);
    }
  }
  if (bad && !(aux & kFromSweep))
    session_.Problem("APFS B-tree node at block 0x%llx: %u entries lie outside the node", (unsigned long long)block,
                     bad);
}

status_t CApfsScan::Visit(const WalkNode& node, CTreeWalk& walk) {
  const uint64_t block = node.address, aux = node.aux;
  if (block >= Count()) return api::QORV_OK;
  // Kept before anything is known of its contents.
  session_.Used().Set(block);
  ByteView v;
  status_t s = fs_.ReadObject(block, &v);
  if (s == api::ERR_INCONSISTENT) {
    if (!(aux & kFromSweep))
      session_.Problem("APFS object at block 0x%llx: unknown type or a checksum that fails; kept, not followed",
                       (unsigned long long)block);
    return api::QORV_OK;
  }
  QORV_TRY(s);
  uint32_t type = v.le32(obj::kType) & obj::kTypeMask;
  if (v.le16(btn::kFlags) & btn::kNoHeader) type = kTypeBtree;
  if (type < kTypeNxSuperblock || type > kLastFollowedType) return api::QORV_OK;
  switch (type) {
    case kTypeNxSuperblock:
      VisitSuperblock(v, block, aux, walk);
      break;
    case kTypeBtree:
    case kTypeBtreeNode:
      VisitNode(v, block, aux, walk);
      break;
    case kTypeSpaceman:
      VisitSpaceman(v, block, aux, walk);
      break;
    case kTypeSpacemanCab: {
      const uint64_t n = v.le32(cab::kCount);
      for (uint64_t i = 0; i < n && v.Has(cab::kAddrs + i * 8, 8); ++i)
        Refer(walk, v.le64(cab::kAddrs + i * 8), aux, "chunk-info block", block);
      break;
    }
    case kTypeSpacemanCib: {
      const uint64_t n = v.le32(cib::kCount);
      for (uint64_t i = 0; i < n && v.Has(cib::kInfos + (i + 1) * cib::kInfoBytes - 1, 1); ++i) {
        const uint64_t bitmap = v.le64(cib::kInfos + i * cib::kInfoBytes + cib::kBitmapAddr);
        if (bitmap) MarkRun(bitmap, 1, aux, "allocation bitmap", block);
      }
      break;
    }
    case kTypeOmap:
      Refer(walk, v.le64(omap::kTreeOid), aux, "object-map tree", block);
      if (v.le32(omap::kSnapCount)) Refer(walk, v.le64(omap::kSnapshotTreeOid), aux, "object-map snapshot tree", block);
      break;
    case kTypeCheckpointMap: {
      const uint64_t n = v.le32(cpm::kCount);
      for (uint64_t i = 0; i < n && v.Has(cpm::kMap + (i + 1) * cpm::kEntryBytes - 1, 1); ++i) {
        const size_t at = cpm::kMap + i * cpm::kEntryBytes;
        const uint64_t paddr = v.le64(at + cpm::kPaddr);
        const uint64_t blocks = (uint64_t(v.le32(at + cpm::kSize)) + fs_.Sb().blockSize - 1) >> fs_.Sb().blockShift;
        Refer(walk, paddr, aux, "checkpoint object", block);
        if (blocks > 1) MarkRun(paddr + 1, blocks - 1, aux, "checkpoint object", block);
      }
      break;
    }
    case kTypeFs:
      if (v.le32(apsb::kMagicAt) != apsb::kMagic) break;
      Refer(walk, v.le64(apsb::kOmapOid), aux, "volume object map", block);
      Refer(walk, v.le64(apsb::kExtentrefTreeOid), aux, "extent-reference tree", block);
      Refer(walk, v.le64(apsb::kSnapMetaTreeOid), aux, "snapshot metadata tree", block);
      Refer(walk, v.le64(apsb::kErStateOid), aux, "encryption-rolling state", block);
      if (v.le64(apsb::kIncompat) & apsb::kIncompatSealedVolume)
        Refer(walk, v.le64(apsb::kFextTreeOid), aux, "file-extent tree", block);
      break;
    case kTypeEfiJumpstart: {
      if (v.le32(efi::kMagicAt) != efi::kMagic) break;
      const uint64_t n = v.le32(efi::kNumExtents);
      for (uint64_t i = 0; i < n && v.Has(efi::kExtents + (i + 1) * prange::kBytes - 1, 1); ++i) {
        const size_t at = efi::kExtents + i * prange::kBytes;
        MarkRun(v.le64(at + prange::kStart), v.le64(at + prange::kCount), aux, "EFI driver extent", block);
      }
      break;
    }
    default:
      break;
  }
  return api::QORV_OK;
}

status_t CApfsScan::RunMetadata(bool progress) {
  ByteView b0 = fs_.Block0();
  const uint64_t descBase = b0.le64(nx::kXpDescBase), dataBase = b0.le64(nx::kXpDataBase);
  const uint64_t descBlocks = b0.le32(nx::kXpDescBlocks) & ~nx::kAreaNotContiguous;
  const uint64_t dataBlocks = b0.le32(nx::kXpDataBlocks) & ~nx::kAreaNotContiguous;
  uint64_t step = 0;
  const uint64_t total = descBlocks + dataBlocks + 1;
  if (progress && msg_) {
    msg_->BeginProgress("Scanning APFS...");
    msg_->SetTotal(0, &total, nullptr);
    progress_ = true;
  }
  CTreeWalk walk(session_, "APFS object graph");
  walk.Add(0, 0);
  QORV_TRY(walk.Run(*this));
  if (progress && msg_) msg_->SetPosition(&++step);
  struct Area {
    uint64_t base, blocks;
    const char* what;
  } areas[] = {{descBase, descBlocks, "checkpoint descriptor area"}, {dataBase, dataBlocks, "checkpoint data area"}};
  auto inside = [this](const Area& a) {
    return a.base >= Count() ? 0 : std::min<uint64_t>(a.blocks, Count() - a.base);
  };
  for (size_t k = 0; k < 2; ++k) {
    const Area& a = areas[k];
    const uint64_t in = inside(a);
    if (in < a.blocks)
      session_.Problem("APFS %s: blocks 0x%llx + 0x%llx run past the container's 0x%llx blocks", a.what,
                       (unsigned long long)a.base, (unsigned long long)a.blocks, (unsigned long long)Count());
    // Read a window at a time: a sweep touches every block of the areas.
    for (uint64_t i = 0; i < in;) {
      uint64_t held = 0;
      QORV_TRY(fs_.LoadWindow(a.base + i, in - i, &held));
      // What the sweep has still to reach is not read from here: the sweep
      // gets there with its own window.
      ahead_[0] = {a.base + i + held, a.base + in};
      ahead_[1] = k == 0 ? Range{areas[1].base, areas[1].base + inside(areas[1])} : Range{};
      for (uint64_t end = i + held; i < end; ++i) {
        walk.Add(a.base + i, kFromSweep);
        status_t s = walk.Run(*this);
        if (s != api::QORV_OK) {
          ahead_[0] = ahead_[1] = Range{};
          return s;
        }
        if (progress && msg_) msg_->SetPosition(&++step);
      }
    }
    step += a.blocks - in;
    if (progress && msg_) msg_->SetPosition(&step);
  }
  ahead_[0] = ahead_[1] = Range{};
  EndProgress();
  return api::QORV_OK;
}

status_t CApfsScan::RunAllocated() {
  const uint64_t count = Count();
  if (msg_) {
    msg_->Trace(1, "Scanning APFS... Total clusters: %llx", (unsigned long long)count);
    msg_->BeginProgress("Scanning APFS");
    msg_->SetTotal(0, &count, nullptr);
    progress_ = true;
  }
  CApfsBitmap bitmap;
  CApfsBitmap::Damage damage;
  status_t s = fs_.LoadSpaceman(&bitmap, &damage);
  if (s == api::ERR_DEVICE_GONE || s == api::ERR_NO_MEMORY) return s;
  if (damage.unreadable || damage.outOfRange)
    session_.Problem("APFS space manager: %u chunk-info blocks unreadable, %u entries out of range",
                     damage.unreadable, damage.outOfRange);
  if (s != api::QORV_OK) {
    // Without a space manager every block is kept: file contents cannot be
    // told from free space.
    session_.Problem("APFS space manager not found or unusable (status 0x%x); every block kept", s);
    session_.Used().Mark(0, count);
  } else {
    QORV_TRY(bitmap.WalkRuns(count, this));
  }
  if (msg_) {
    msg_->SetPosition(&count);
    EndProgress();
    if (session_.Env()->verbose)
      msg_->Trace(1, "APFS space manager: %zu chunks, %llu run probes, %llu bitmap blocks read", bitmap.Size(),
                  (unsigned long long)bitmap.Probes(), (unsigned long long)bitmap.BitmapReads());
  }
  return RunMetadata(false);
}

}  // namespace
}  // namespace apfs

api::status_t ScanApfs(QORV_SCANNER_ARGS, uint32_t cipherAvailable) {
  using namespace apfs;
  ClearScanOutputs(bitmap, problems);
  if (!cipherAvailable && msg)
    msg->Trace(1, "OpenSSL is not supported, so some blocks of encrypted APFS volume may not be dumped.");
  if (!dev) return api::ERR_IO_RANGE;
  CScanSession session(env, dev, msg);
  api::status_t s = WithDriver<CApfsFileSystem>(env, [&](CApfsFileSystem* fs) {
    status_t m = fs->Mount(session.Device(), CApfsFileSystem::kMountReadOnly, cipherAvailable != 0);
    if (m == api::ERR_INCONSISTENT && msg)
      msg->Trace(1, "APFS container superblock: block size %u or block count 0x%llx out of range", fs->Sb().blockSize,
                 (unsigned long long)fs->Sb().blockCount);
    QORV_TRY(m);
    const bool data = scanFlags & api::SCAN_DATA;
    if (!fs->Block0Valid()) {
      if (msg) msg->Trace(1, "Invalid Main SuperBlock checksum");
      return api::ERR_INCONSISTENT;
    }
    if (fs->Truncated())
      session.Problem("APFS container of 0x%llx blocks on a device holding 0x%llx: taken at the device's size",
                      (unsigned long long)fs->Sb().blockCount, (unsigned long long)fs->BlockCount());
    QORV_TRY(session.CreateBitmap(fs->BlockCount(), fs->Sb().blockShift));
    CApfsScan scan(*fs, session);
    status_t r = data ? scan.RunAllocated() : scan.RunMetadata(true);
    scan.EndProgress();
    return r;
  });
  return session.Finish(s, bitmap, blockCount, blockShift, problems);
}

}  // namespace QORV
