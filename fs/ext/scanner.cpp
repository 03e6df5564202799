// ext2/3/4 scan: fixed metadata (superblocks, descriptors, bitmaps, inode
// tables), the reserved and special inodes with their data, then the tree.
// The tree walk enumerates directories from an explicit stack and only
// collects the files; the files are marked afterwards in inode order so the
// inode tables are read sequentially in large windows.
#include <new>
#include <vector>

#include "fs/ext/ext_fs.h"
#include "fs/scanners.h"

namespace QORV {
namespace ExtFS2 {
namespace {

using api::status_t;

constexpr uint32_t kRootInode = 2;
constexpr uint32_t kDirChunk = 256 << 10;

class CExtScan : public CExtMapVisitor {
 public:
  CExtScan(CExtFsFileSystem& fs, api::IMessage* msg, BlockBitmap& used, bool withData)
      : fs_(fs), sb_(fs.Sb()), msg_(msg), used_(used), withData_(withData) {}

  status_t Run();
  uint32_t problems = 0;

  bool Node(uint64_t block) override { return !used_.TestAndSet(block); }
  status_t Data(uint64_t logical, uint64_t block, uint32_t count, bool fromIndirect) override;
  void Problem() override { ++problems; }

 private:
  void MarkFixed();
  status_t MarkInode(const CExtFsInode& inode, bool data);
  status_t MarkSpecialInodes();
  status_t CollectOrphans();
  status_t WalkTree();
  status_t EnumerateDir(const CExtFsDir& dir);
  status_t EnumerateArea(ByteView area, uint32_t blockSize);
  status_t EnumerateInlineXattr(const CExtFsInode& dir);
  status_t MarkCollectedFiles();
  status_t Poll();
  void MarkChecked(uint64_t block, uint64_t count) {
    if (!fs_.InVolume(block, count)) ++problems;
    used_.Mark(block, count);
  }

  CExtFsFileSystem& fs_;
  const CExtSuperBlock& sb_;
  api::IMessage* msg_;
  BlockBitmap& used_;
  bool withData_;
  bool markData_ = false;
  bool readDir_ = false;
  CExt2Bitmap seen_;   // inodes reached (hard links and loops end here)
  CExt2Bitmap files_;  // files to mark after the walk
  std::vector<uint32_t> dirs_;
  CUnixBlock dirBuf_;
  CExtFsInode inode_, probe_;
  CExtFsEntryNumerator entries_;
  uint32_t polls_ = 0;
};

// Counts one inode of progress; every 256 the percent moves and a stop
// request is honoured.
status_t CExtScan::Poll() {
  if (fs_.DeviceGone()) return api::ERR_DEVICE_GONE;
  if ((polls_++ & 255) != 0 || !msg_) return api::QORV_OK;
  uint64_t position = polls_;
  msg_->SetPosition(&position);
  return msg_->CheckBreak(false) ? api::ERR_TOO_BIG : api::QORV_OK;
}

void CExtScan::MarkFixed() {
  const uint32_t shift = sb_.BlockShift(), bs = sb_.BlockSize();
  const uint64_t sbBlock = 1024 >> shift;
  used_.Mark(sbBlock, (bs + 1023) / bs);
  uint32_t adjust = (sb_.firstDataBlock == 0 && bs == 1024) ? 1 : 0;
  uint32_t lead = (sb_.incompat & kIncompatMetaBg) ? sb_.firstMetaBg : sb_.descBlocks;
  if (lead) used_.Mark(uint64_t(sb_.firstDataBlock) + 1 + adjust, lead);
  const uint32_t perMeta = bs / sb_.descSize;
  for (uint32_t i = lead; i < sb_.descBlocks; ++i) {
    uint64_t g = uint64_t(i) * perMeta;
    uint64_t b = g * sb_.blocksPerGroup + sb_.firstDataBlock;
    used_.Mark(b + (g < sb_.groupCount && fs_.Backups().HasSuper(uint32_t(g)) ? 1 : 0), 1);
  }
  used_.Mark(sbBlock + 1, sb_.groupCount);
  // Backup superblocks with their descriptor and reserved descriptor blocks.
  for (uint32_t g = 0; g < sb_.groupCount; ++g) {
    if (!fs_.Backups().HasSuper(g)) continue;
    uint64_t start = g ? uint64_t(g) * sb_.blocksPerGroup + sb_.firstDataBlock : sbBlock;
    used_.Mark(start, 1);
    if (!(sb_.incompat & kIncompatMetaBg)) used_.Mark(start + 1, uint64_t(sb_.descBlocks) + sb_.reservedGdtBlocks);
  }
  const uint32_t tableBlocks = fs_.TableBlocks();
  for (uint32_t g = 0; g < sb_.groupCount; ++g) {
    MarkChecked(fs_.BlockBitmapOf(g), 1);
    MarkChecked(fs_.InodeBitmapOf(g), 1);
    MarkChecked(fs_.InodeTableOf(g), tableBlocks);
  }
  if ((sb_.incompat & kIncompatMmp) && sb_.mmpBlock) MarkChecked(sb_.mmpBlock, 1);
}

status_t CExtScan::Data(uint64_t, uint64_t block, uint32_t count, bool fromIndirect) {
  if (markData_ || fromIndirect) used_.Mark(block, count);
  if (!readDir_) return api::QORV_OK;
  const uint32_t shift = sb_.BlockShift();
  const uint32_t per = kDirChunk >> shift ? kDirChunk >> shift : 1;
  for (uint32_t done = 0; done < count;) {
    uint32_t n = count - done < per ? count - done : per;
    if (fs_.ReadBlocks(block + done, n, dirBuf_.Data()) != api::QORV_OK) ++problems;
    else QORV_TRY(EnumerateArea(ByteView(dirBuf_.Data(), size_t(n) << shift), sb_.BlockSize()));
    done += n;
  }
  return api::QORV_OK;
}

status_t CExtScan::MarkInode(const CExtFsInode& inode, bool data) {
  if (inode.FileAcl()) MarkChecked(inode.FileAcl(), 1);
  markData_ = data;
  readDir_ = false;
  return fs_.VisitMap(inode, this);
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
      ++problems;
      break;
    }
    files_.Bits().Set(ino);
    ino = inode_.Raw().le32(0x14);  // dtime links the list
  }
  return api::QORV_OK;
}

status_t CExtScan::EnumerateArea(ByteView area, uint32_t blockSize) {
  entries_.Reset(area, sb_.incompat & kIncompatFiletype, blockSize);
  CUnixDirEntry e;
  while (entries_.Next(&e) == api::QORV_OK) {
    if (e.IsDotOrDotDot()) continue;
    if (e.inode > sb_.inodesCount) {
      ++problems;
      continue;
    }
    if (seen_.Bits().Test(e.inode)) {
      if (e.kindKnown && e.kind == UnixKind::Dir) ++problems;  // a second name for a directory: a loop
      continue;
    }
    UnixKind kind = e.kind;
    if (!e.kindKnown) {
      if (fs_.ReadInode(e.inode, &probe_) != api::QORV_OK) {
        ++problems;
        continue;
      }
      kind = probe_.Kind();
    }
    if (kind == UnixKind::Other) continue;
    seen_.Bits().Set(e.inode);
    if (kind == UnixKind::Dir) dirs_.push_back(uint32_t(e.inode));
    else files_.Bits().Set(e.inode);
  }
  if (entries_.Damaged()) ++problems;
  return api::QORV_OK;
}

// Entries beyond i_block live in the in-inode attribute "system.data".
status_t CExtScan::EnumerateInlineXattr(const CExtFsInode& dir) {
  ByteView raw = dir.Raw();
  if (raw.Size() <= 0x84) return api::QORV_OK;
  size_t base = 0x80 + size_t(raw.le16(0x80));
  if (raw.le32(base) != 0xEA020000u) return api::QORV_OK;
  size_t first = base + 4;
  for (size_t off = first; raw.Has(off, 16) && raw.le32(off) != 0;) {
    uint32_t nameLength = raw.u8(off), index = raw.u8(off + 1);
    if (index == 7 && nameLength == 4 && raw.Equals(off + 16, "data", 4)) {
      ByteView value = raw.Sub(first + raw.le16(off + 2), raw.le32(off + 8));
      if (value.Size()) return EnumerateArea(value, uint32_t(value.Size()));
      return api::QORV_OK;
    }
    off += (16 + nameLength + 3) & ~size_t(3);
  }
  return api::QORV_OK;
}

status_t CExtScan::EnumerateDir(const CExtFsDir& view) {
  const CExtFsInode& dir = view.ExtInode();
  if (dir.FileAcl()) MarkChecked(dir.FileAcl(), 1);
  if (dir.HasInlineData()) {
    QORV_TRY(EnumerateArea(dir.IBlock().Sub(4, 56), 56));
    return EnumerateInlineXattr(dir);
  }
  // Every directory keeps its entry blocks, linear or indexed (an index is
  // read like linear blocks: its nodes look like empty entries), so the
  // image lists the same tree.
  markData_ = true;
  readDir_ = true;
  status_t s = fs_.VisitMap(dir, this);
  readDir_ = false;
  return s;
}

status_t CExtScan::WalkTree() {
  seen_.Bits().Set(kRootInode);
  dirs_.push_back(kRootInode);
  while (!dirs_.empty()) {
    uint32_t ino = dirs_.back();
    dirs_.pop_back();
    QORV_TRY(Poll());
    if (fs_.ReadInode(ino, &inode_) != api::QORV_OK) {
      ++problems;
      continue;
    }
    if (inode_.Kind() != UnixKind::Dir) {
      // The entry's type was wrong; treat it by what the inode says.
      if (inode_.Kind() != UnixKind::Other) files_.Bits().Set(ino);
      continue;
    }
    QORV_TRY(EnumerateDir(CExtFsDir(inode_)));
  }
  return api::QORV_OK;
}

status_t CExtScan::MarkCollectedFiles() {
  const BlockBitmap& set = files_.Bits();
  for (uint64_t ino = 1; ino <= sb_.inodesCount; ++ino) {
    if ((ino & 7) == 0 && set.Data()[ino >> 3] == 0) {
      ino += 7;  // a whole empty byte of the set
      continue;
    }
    if (!set.Test(ino)) continue;
    QORV_TRY(Poll());
    if (fs_.ReadInodeSequential(ino, &inode_) != api::QORV_OK) {
      ++problems;
      continue;
    }
    UnixKind kind = inode_.Kind();
    if (kind == UnixKind::Dir) {
      QORV_TRY(MarkInode(inode_, true));
      continue;
    }
    if (kind != UnixKind::File && kind != UnixKind::Link) continue;
    QORV_TRY(MarkInode(inode_, withData_ || kind == UnixKind::Link));
  }
  return api::QORV_OK;
}

status_t CExtScan::Run() {
  QORV_TRY(seen_.Create(fs_.Mem(), uint64_t(sb_.inodesCount) + 1));
  QORV_TRY(files_.Create(fs_.Mem(), uint64_t(sb_.inodesCount) + 8));
  QORV_TRY(dirBuf_.Allocate(fs_.Mem(), kDirChunk > sb_.BlockSize() ? kDirChunk : sb_.BlockSize()));
  MarkFixed();
  QORV_TRY(MarkSpecialInodes());
  QORV_TRY(CollectOrphans());
  // Every inode in use is counted once: directories in the walk, files after it.
  if (msg_) {
    uint64_t total = sb_.inodesCount > sb_.freeInodes ? sb_.inodesCount - sb_.freeInodes : 1;
    msg_->BeginProgress(nullptr);
    msg_->SetTotal(0, &total, nullptr);
  }
  status_t s = WalkTree();
  if (s == api::QORV_OK) s = MarkCollectedFiles();
  if (s == api::QORV_OK && fs_.DeviceGone()) s = api::ERR_DEVICE_GONE;
  if (msg_) msg_->EndProgress();
  return s;
}

}  // namespace
}  // namespace ExtFS2

api::status_t ScanExt(QORV_SCANNER_ARGS) {
  using namespace ExtFS2;
  if (bitmap) *bitmap = nullptr;
  if (problems) *problems = 0;
  void* mem = env->mem->Allocate(sizeof(CExtFsFileSystem), 0);
  if (!mem) return api::ERR_NO_MEMORY;
  auto* fs = new (mem) CExtFsFileSystem(env, dev);
  api::status_t s = fs->Mount();
  CUnixBitmap used;
  uint32_t found = 0;
  if (s == api::QORV_OK) {
    const CExtSuperBlock& sb = fs->Sb();
    if (msg)
      msg->Trace(1, "ExtFS param BS=%u Blocks=%u Isize=%u cmpt=0x%x ro=0x%x ic=0x%x flex=%u blkindesc=%u firstd=%u %s %s %s %s",
                 sb.BlockSize(), sb.blocksCountLo, sb.inodeSize, sb.compat, sb.incompat, sb.roCompat,
                 sb.logGroupsPerFlex, sb.blocksPerGroup, sb.firstDataBlock,
                 (sb.roCompat & kRoCompatGdtCsum) ? "GDTCSUM_RO" : "",
                 (sb.roCompat & kRoCompatMetadataCsum) ? "METADATA_CSUM_RO" : "",
                 (sb.incompat & kIncompatMetaBg) ? "METABG_IN" : "", (sb.incompat & kIncompatFlexBg) ? "FLEX_IN" : "");
    s = used.Create(env->mem, sb.blocksCountLo);
    if (s == api::QORV_OK) {
      *blockCount = sb.blocksCountLo;
      *blockShift = sb.BlockShift();
      CExtScan scan(*fs, msg, used.Bits(), scanFlags & api::SCAN_DATA);
      s = scan.Run();
      found = scan.problems;
    }
  }
  fs->~CExtFsFileSystem();
  env->mem->Free(mem);
  if (problems) *problems = found;
  if (s == api::QORV_OK && bitmap) *bitmap = used.Detach();
  return s;
}

}  // namespace QORV
