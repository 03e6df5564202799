// ext2/3/4 scan: fixed metadata (superblocks, descriptors, bitmaps, inode
// tables), the reserved and special inodes with their data, the directory
// tree from the root, then one pass over the inode tables in order. The pass
// keeps what the walk cannot reach on a damaged volume (directories and
// symbolic links cut off from the root, inodes whose mode and contents
// disagree) and the mapping blocks of every inode in use; reading the
// tables in order lets it use large sequential windows.
#include <cstdio>
#include <new>
#include <vector>

#include "core/scan/session.h"
#include "core/scan/tree_walk.h"
#include "fs/ext/ext_fs.h"
#include "fs/scanners.h"

namespace QORV {
namespace ExtFS2 {
namespace {

using api::status_t;

constexpr uint32_t kRootInode = 2;
// Inodes below this are the reserved ones marked with their data up front
// (a damaged s_first_ino must not hide ordinary inodes from the pass).
constexpr uint32_t kFirstOrdinaryInode = 11;
constexpr uint32_t kDirChunk = 256 << 10;
constexpr uint32_t kProgressEvery = 4096;  // inodes between percent updates

// The in-inode extended-attribute area after i_extra_isize, where inline
// directories keep the entries that do not fit i_block ("system.data").
namespace xattr {
constexpr uint32_t kMagicValue = 0xEA020000u;
constexpr size_t kMagicBytes = 4, kEntryBytes = 16;
constexpr size_t kNameLen = 0x0, kNameIndex = 0x1, kValueOffs = 0x2, kValueSize = 0x8, kName = 0x10;
constexpr uint8_t kSystemIndex = 7;
}  // namespace xattr
constexpr size_t kInlineDirHeader = 4;  // the parent's inode number

class CExtScan : public CExtMapVisitor {
 public:
  CExtScan(CExtFsFileSystem& fs, CScanSession& session, bool withData)
      : fs_(fs), sb_(fs.Sb()), session_(session), withData_(withData), mapping_(session, "ext mapping blocks") {}

  status_t Run();

  void Node(uint64_t block) override { session_.Mark(block, 1, "ext mapping block"); }
  status_t Data(uint64_t logical, uint64_t block, uint32_t count, bool fromIndirect) override;
  void Problem(const char* why, uint64_t block) override {
    session_.Problem("inode %llu: %s (block 0x%llx)", (unsigned long long)current_, why, (unsigned long long)block);
  }

 private:
  void MarkFixed();
  status_t MarkInode(const CExtFsInode& inode, bool data);
  status_t MarkSpecialInodes();
  status_t CollectOrphans();
  status_t WalkTree();
  status_t EnumerateDir(const CExtFsDir& dir);
  status_t EnumerateArea(ByteView area, uint32_t blockSize);
  status_t EnumerateInlineXattr(const CExtFsInode& dir);
  status_t PassOverInodes();
  status_t MarkFromTable(const CExtFsInode& inode, bool reached);

  CExtFsFileSystem& fs_;
  const CExtSuperBlock& sb_;
  CScanSession& session_;
  bool withData_;
  bool markData_ = false;
  bool readDir_ = false;
  uint64_t current_ = 0;  // the inode being marked, for problem reasons
  uint64_t progress_ = 0;
  CTreeWalk mapping_;  // extent and indirect blocks: read once, whatever the bitmap says
  CExt2Bitmap seen_;   // inodes reached (hard links and loops end here)
  CExt2Bitmap files_;  // inodes reached by name or on the orphan list
  std::vector<uint32_t> dirs_;
  CUnixBlock dirBuf_;
  CExtFsInode inode_, probe_;
  CExtFsEntryNumerator entries_;
};

void CExtScan::MarkFixed() {
  const uint32_t shift = sb_.BlockShift(), bs = sb_.BlockSize();
  const uint64_t sbBlock = 1024 >> shift;
  session_.Mark(sbBlock, (bs + 1023) / bs, "superblock");
  uint32_t adjust = (sb_.firstDataBlock == 0 && bs == 1024) ? 1 : 0;
  uint32_t lead = (sb_.incompat & kIncompatMetaBg) ? sb_.firstMetaBg : sb_.descBlocks;
  if (lead) session_.Mark(uint64_t(sb_.firstDataBlock) + 1 + adjust, lead, "group descriptors");
  const uint32_t perMeta = bs / sb_.descSize;
  for (uint32_t i = lead; i < sb_.descBlocks; ++i) {
    uint64_t g = uint64_t(i) * perMeta;
    uint64_t b = g * sb_.blocksPerGroup + sb_.firstDataBlock;
    session_.Mark(b + (g < sb_.groupCount && fs_.Backups().HasSuper(uint32_t(g)) ? 1 : 0), 1, "meta_bg descriptor");
  }
  session_.Mark(sbBlock + 1, sb_.groupCount, "descriptor area");
  // Backup superblocks with their descriptor and reserved descriptor blocks.
  for (uint32_t g = 0; g < sb_.groupCount; ++g) {
    if (!fs_.Backups().HasSuper(g)) continue;
    uint64_t start = g ? uint64_t(g) * sb_.blocksPerGroup + sb_.firstDataBlock : sbBlock;
    session_.Mark(start, 1, "backup superblock");
    if (!(sb_.incompat & kIncompatMetaBg))
      session_.Mark(start + 1, uint64_t(sb_.descBlocks) + sb_.reservedGdtBlocks, "backup descriptors");
  }
  // Only a range that runs off the volume needs its name spelled out.
  char what[48];
  auto markGroup = [&](uint32_t g, uint64_t first, uint64_t count, const char* kind) {
    if (fs_.InVolume(first, count)) {
      session_.Used().Mark(first, count);
      return;
    }
    std::snprintf(what, sizeof what, "group %u %s", g, kind);
    session_.Mark(first, count, what);
  };
  for (uint32_t g = 0; g < sb_.groupCount; ++g) {
    markGroup(g, fs_.BlockBitmapOf(g), 1, "block bitmap");
    markGroup(g, fs_.InodeBitmapOf(g), 1, "inode bitmap");
    // Where the descriptor's checksum vouches for it, the never-used tail of
    // the table (or all of an uninitialised one) holds nothing to keep.
    markGroup(g, fs_.InodeTableOf(g), fs_.UsedTableBlocksOf(g), "inode table");
  }
  if ((sb_.incompat & kIncompatMmp) && sb_.mmpBlock) session_.Mark(sb_.mmpBlock, 1, "multi-mount block");
}

status_t CExtScan::Data(uint64_t, uint64_t block, uint32_t count, bool fromIndirect) {
  if (markData_ || fromIndirect) session_.Mark(block, count, "ext data run");
  if (!readDir_) return api::QORV_OK;
  const uint32_t shift = sb_.BlockShift();
  const uint32_t per = kDirChunk >> shift ? kDirChunk >> shift : 1;
  for (uint32_t done = 0; done < count;) {
    uint32_t n = count - done < per ? count - done : per;
    if (fs_.ReadBlocks(block + done, n, dirBuf_.Data()) != api::QORV_OK) Problem("directory block unreadable", block + done);
    else QORV_TRY(EnumerateArea(ByteView(dirBuf_.Data(), size_t(n) << shift), sb_.BlockSize()));
    done += n;
  }
  return api::QORV_OK;
}

status_t CExtScan::MarkInode(const CExtFsInode& inode, bool data) {
  current_ = inode.Number();
  if (inode.FileAcl()) session_.Mark(inode.FileAcl(), 1, "extended-attribute block");
  markData_ = data;
  readDir_ = false;
  return fs_.VisitMap(inode, this, mapping_);
}

status_t CExtScan::MarkSpecialInodes() {
  const uint32_t numbers[] = {1, 3, 4, 5, 6, 7, 8, 9, 10, sb_.journalInum, sb_.usrQuotaInum,
                              sb_.grpQuotaInum, sb_.prjQuotaInum, sb_.orphanFileInum};
  for (uint32_t ino : numbers) {
    if (ino == 0 || ino == kRootInode || ino > sb_.inodesCount || seen_.Bits().TestAndSet(ino)) continue;
    if (fs_.ReadInode(ino, &inode_) != api::QORV_OK) continue;
    QORV_TRY(MarkInode(inode_, true));
  }
  return api::QORV_OK;
}

// Inodes on the orphan list are unlinked but still hold blocks.
status_t CExtScan::CollectOrphans() {
  for (uint32_t ino = sb_.lastOrphan; ino && ino <= sb_.inodesCount && !seen_.Bits().TestAndSet(ino);) {
    if (fs_.ReadInode(ino, &inode_) != api::QORV_OK) {
      session_.Problem("orphan list: inode %u unreadable", ino);
      break;
    }
    files_.Bits().Set(ino);
    ino = inode_.Dtime();  // dtime links the list
  }
  return api::QORV_OK;
}

status_t CExtScan::EnumerateArea(ByteView area, uint32_t blockSize) {
  entries_.Reset(area, sb_.incompat & kIncompatFiletype, blockSize);
  CUnixDirEntry e;
  while (entries_.Next(&e) == api::QORV_OK) {
    if (e.IsDotOrDotDot()) continue;
    if (e.inode > sb_.inodesCount) {
      session_.Problem("directory %llu: entry names inode %llu, beyond the volume's %u", (unsigned long long)current_,
                       (unsigned long long)e.inode, sb_.inodesCount);
      continue;
    }
    if (seen_.Bits().Test(e.inode)) {
      if (e.kindKnown && e.kind == UnixKind::Dir)
        session_.Problem("directory %llu: second name for directory %llu (a loop)", (unsigned long long)current_,
                         (unsigned long long)e.inode);
      continue;
    }
    UnixKind kind = e.kind;
    if (!e.kindKnown) {
      if (fs_.ReadInode(e.inode, &probe_) != api::QORV_OK) {
        session_.Problem("directory %llu: inode %llu of an entry unreadable", (unsigned long long)current_,
                         (unsigned long long)e.inode);
        continue;
      }
      kind = probe_.Kind();
    }
    seen_.Bits().Set(e.inode);
    files_.Bits().Set(e.inode);
    // A directory entry's type is only a hint: the walk goes by the inode.
    if (kind == UnixKind::Dir || kind == UnixKind::Other) dirs_.push_back(uint32_t(e.inode));
  }
  if (entries_.Damaged()) session_.Problem("directory %llu: damaged entries skipped", (unsigned long long)current_);
  return api::QORV_OK;
}

// Entries beyond i_block live in the in-inode attribute "system.data".
status_t CExtScan::EnumerateInlineXattr(const CExtFsInode& dir) {
  ByteView raw = dir.Raw();
  if (raw.Size() <= inf::kExtraIsize + 4) return api::QORV_OK;
  size_t base = inf::kExtraIsize + size_t(raw.le16(inf::kExtraIsize));
  if (raw.le32(base) != xattr::kMagicValue) return api::QORV_OK;
  size_t first = base + xattr::kMagicBytes;
  for (size_t off = first; raw.Has(off, xattr::kEntryBytes) && raw.le32(off) != 0;) {
    uint32_t nameLength = raw.u8(off + xattr::kNameLen), index = raw.u8(off + xattr::kNameIndex);
    if (index == xattr::kSystemIndex && nameLength == 4 && raw.Equals(off + xattr::kName, "data", 4)) {
      ByteView value = raw.Sub(first + raw.le16(off + xattr::kValueOffs), raw.le32(off + xattr::kValueSize));
      if (value.Size()) return EnumerateArea(value, uint32_t(value.Size()));
      return api::QORV_OK;
    }
    off += (xattr::kEntryBytes + nameLength + 3) & ~size_t(3);
  }
  return api::QORV_OK;
}

status_t CExtScan::EnumerateDir(const CExtFsDir& view) {
  const CExtFsInode& dir = view.ExtInode();
  current_ = dir.Number();
  if (dir.FileAcl()) session_.Mark(dir.FileAcl(), 1, "extended-attribute block");
  if (dir.HasInlineData()) {
    QORV_TRY(EnumerateArea(dir.IBlock().Sub(kInlineDirHeader, inf::kBlockBytes - kInlineDirHeader),
                           uint32_t(inf::kBlockBytes - kInlineDirHeader)));
    return EnumerateInlineXattr(dir);
  }
  // Every directory keeps its entry blocks, linear or indexed (an index is
  // read like linear blocks: its nodes look like empty entries), so the
  // image lists the same tree.
  markData_ = true;
  readDir_ = true;
  status_t s = fs_.VisitMap(dir, this, mapping_);
  readDir_ = false;
  return s;
}

status_t CExtScan::WalkTree() {
  seen_.Bits().Set(kRootInode);
  files_.Bits().Set(kRootInode);
  dirs_.push_back(kRootInode);
  while (!dirs_.empty()) {
    uint32_t ino = dirs_.back();
    dirs_.pop_back();
    QORV_TRY(session_.Poll());
    if ((++progress_ % kProgressEvery) == 0) session_.SetPosition(progress_);
    if (fs_.ReadInode(ino, &inode_) != api::QORV_OK) {
      session_.Problem("directory inode %u unreadable", ino);
      continue;
    }
    // Only what the inode says is a directory is enumerated; anything else
    // reached by name is marked in the pass over the tables.
    if (inode_.Kind() == UnixKind::Dir) QORV_TRY(EnumerateDir(CExtFsDir(inode_)));
  }
  return api::QORV_OK;
}

// What one inode keeps, seen from the inode table. Directories and symbolic
// links keep their blocks when they have a name, reachable or not; files
// keep their mapping blocks (their data with -data); an inode of any other
// kind that claims blocks keeps them all, since its mode may be the damage.
status_t CExtScan::MarkFromTable(const CExtFsInode& inode, bool reached) {
  if (!reached && inode.LinksCount() == 0) return api::QORV_OK;
  switch (inode.Kind()) {
    case UnixKind::Dir:
    case UnixKind::Link:
      return MarkInode(inode, true);
    case UnixKind::File:
      return MarkInode(inode, withData_);
    case UnixKind::Other:
      if (inode.ClaimsBlocks(sb_.BlockSize()) || inode.HasExtents()) return MarkInode(inode, true);
      if (inode.FileAcl()) session_.Mark(inode.FileAcl(), 1, "extended-attribute block");
      return api::QORV_OK;
  }
  return api::QORV_OK;
}

status_t CExtScan::PassOverInodes() {
  const BlockBitmap& reached = files_.Bits();
  for (uint32_t g = 0; g < sb_.groupCount; ++g) {
    const uint64_t first = uint64_t(g) * sb_.inodesPerGroup + 1;
    const uint64_t inUse = first + fs_.InodesInUseOf(g);
    for (uint64_t ino = first; ino < first + sb_.inodesPerGroup; ++ino) {
      bool named = reached.Test(ino);
      if (ino >= inUse) {
        // Past the used part only what the walk reached is read.
        if ((ino & 7) == 0 && reached.Data()[ino >> 3] == 0) {
          ino += 7;
          continue;
        }
        if (!named) continue;
      }
      if (ino < kFirstOrdinaryInode && ino != kRootInode) continue;  // reserved: marked with their data already
      QORV_TRY(session_.Poll());
      if ((ino % kProgressEvery) == 0) session_.SetPosition(progress_ + ino);
      if (fs_.ReadInodeSequential(ino, &inode_) != api::QORV_OK) {
        session_.Problem("group %u: inode table unreadable at inode %llu", g, (unsigned long long)ino);
        break;
      }
      QORV_TRY(MarkFromTable(inode_, named));
    }
  }
  return api::QORV_OK;
}

status_t CExtScan::Run() {
  QORV_TRY(seen_.Create(session_.Mem(), uint64_t(sb_.inodesCount) + 1));
  QORV_TRY(files_.Create(session_.Mem(), uint64_t(sb_.inodesCount) + 8));
  QORV_TRY(dirBuf_.Allocate(session_.Mem(), kDirChunk > sb_.BlockSize() ? kDirChunk : sb_.BlockSize(), false));
  MarkFixed();
  QORV_TRY(MarkSpecialInodes());
  QORV_TRY(CollectOrphans());
  // Directories of the walk, then every inode number of the pass.
  uint64_t used = sb_.inodesCount > sb_.freeInodes ? sb_.inodesCount - sb_.freeInodes : 0;
  session_.BeginProgress(used + sb_.inodesCount);
  QORV_TRY(WalkTree());
  progress_ = used;
  return PassOverInodes();
}

}  // namespace
}  // namespace ExtFS2

api::status_t ScanExt(QORV_SCANNER_ARGS) {
  using namespace ExtFS2;
  ClearScanOutputs(bitmap, problems);
  CScanSession session(env, dev, msg);
  void* mem = env->mem->Allocate(sizeof(CExtFsFileSystem), 0);
  if (!mem) return api::ERR_NO_MEMORY;
  auto* fs = new (mem) CExtFsFileSystem(env, session.Device());
  api::status_t s = fs->Mount();
  if (s == api::QORV_OK) {
    const CExtSuperBlock& sb = fs->Sb();
    if (msg)
      msg->Trace(1, "ExtFS param BS=%u Blocks=%u Isize=%u cmpt=0x%x ro=0x%x ic=0x%x flex=%u blkindesc=%u firstd=%u %s %s %s %s",
                 sb.BlockSize(), sb.blocksCountLo, sb.inodeSize, sb.compat, sb.incompat, sb.roCompat,
                 sb.logGroupsPerFlex, sb.blocksPerGroup, sb.firstDataBlock,
                 (sb.roCompat & kRoCompatGdtCsum) ? "GDTCSUM_RO" : "",
                 (sb.roCompat & kRoCompatMetadataCsum) ? "METADATA_CSUM_RO" : "",
                 (sb.incompat & kIncompatMetaBg) ? "METABG_IN" : "", (sb.incompat & kIncompatFlexBg) ? "FLEX_IN" : "");
    s = session.CreateBitmap(sb.blocksCountLo, sb.BlockShift());
    if (s == api::QORV_OK) {
      CExtScan scan(*fs, session, scanFlags & api::SCAN_DATA);
      s = scan.Run();
    }
  }
  fs->~CExtFsFileSystem();
  env->mem->Free(mem);
  return session.Finish(s, bitmap, blockCount, blockShift, problems);
}

}  // namespace QORV
