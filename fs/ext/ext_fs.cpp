#include "fs/ext/ext_fs.h"

namespace QORV {
namespace ExtFS2 {

using api::status_t;

namespace {

constexpr uint32_t kExtentMagic = 0xF30A;
constexpr uint32_t kMaxExtentDepth = 5;

// Collects consecutive blocks into runs so a visitor sees few large runs.
class RunBuilder {
 public:
  RunBuilder(CExtMapVisitor* v, bool fromIndirect) : v_(v), indirect_(fromIndirect) {}
  status_t Add(uint64_t logical, uint64_t block) {
    if (count_ && block == block_ + count_ && logical == logical_ + count_ && count_ < 0x10000) {
      ++count_;
      return api::QORV_OK;
    }
    QORV_TRY(Flush());
    logical_ = logical;
    block_ = block;
    count_ = 1;
    return api::QORV_OK;
  }
  status_t Flush() {
    status_t s = count_ ? v_->Data(logical_, block_, count_, indirect_) : api::QORV_OK;
    count_ = 0;
    return s;
  }

 private:
  CExtMapVisitor* v_;
  bool indirect_;
  uint64_t logical_ = 0, block_ = 0;
  uint32_t count_ = 0;
};

bool IsPowerOf(uint32_t g, uint32_t base) {
  while (g > 1 && g % base == 0) g /= base;
  return g == 1;
}

}  // namespace

status_t CExtSuperBlock::Parse(ByteView r) {
  const status_t no = api::ERR_NOT_RECOGNIZED;
  if (!r.Has(0, 1024)) return no;
  compat = r.le32(0x5C);
  incompat = r.le32(0x60);
  roCompat = r.le32(0x64);
  readOnlyOnly = (roCompat & 0xF78) || (incompat & 0xC2C0);
  if (r.le16(0x38) != 0xEF53) return no;
  revLevel = r.le32(0x4C);
  creatorOs = r.le32(0x48);
  logBlockSize = r.le32(0x18);
  inodeSize = r.le16(0x58);
  inodesPerGroup = r.le32(0x28);
  if (revLevel != 1 || creatorOs != 0 || logBlockSize > 6 || inodeSize < 128 || inodesPerGroup == 0) return no;
  if (incompat & ~kIncompatKnown) {
    mountInfo = (incompat & 0xC5C31) | 0x100000;
    return no;
  }
  blocksCountLo = r.le32(0x4);
  uint64_t blocks = blocksCountLo;
  if (incompat & kIncompat64Bit) blocks |= uint64_t(r.le32(0x150)) << 32;
  if (blocks >> 32) return no;
  if (roCompat & kRoCompatBigalloc) {
    mountInfo = 0x900000;
    return no;
  }
  blockShift_ = 10 + logBlockSize;
  blockSize_ = 1u << blockShift_;
  blockCount_ = blocks;
  if (inodeSize > blockSize_) return no;
  uint64_t tableBlocks = (uint64_t(inodesPerGroup) * inodeSize - 1 + blockSize_) / blockSize_;
  if (tableBlocks > 0x10000 - blockSize_ / inodeSize) return no;
  blocksPerGroup = r.le32(0x20);
  logClusterSize = r.le32(0x1C);
  if (logClusterSize > 16) return no;
  uint64_t maxPerGroup = ((1024ull << logClusterSize) / blockSize_) * 65528;
  if (blocksPerGroup == 0 || blocksPerGroup > maxPerGroup) return no;
  descSize = (incompat & kIncompat64Bit) ? r.le16(0xFE) : 32;
  if (descSize < 32 || descSize > blockSize_) return no;
  firstDataBlock = r.le32(0x14);
  if (firstDataBlock >= blocks) return no;
  if (blocksPerGroup % 8 || inodesPerGroup % 8) return api::ERR_INCONSISTENT;
  inodesCount = r.le32(0x0);
  uint64_t groups = (blocks - firstDataBlock + blocksPerGroup - 1) / blocksPerGroup;
  if (groups * inodesPerGroup != inodesCount) return no;
  groupCount = uint32_t(groups);
  descBlocks = uint32_t((groups * descSize + blockSize_ - 1) / blockSize_);
  reservedGdtBlocks = r.le16(0xCE);
  firstMetaBg = r.le32(0x104);
  logGroupsPerFlex = r.u8(0x174);
  journalInum = r.le32(0xE0);
  lastOrphan = r.le32(0xE8);
  freeInodes = r.le32(0x10);
  mmpBlock = r.le64(0x168);
  usrQuotaInum = r.le32(0x240);
  grpQuotaInum = r.le32(0x244);
  backupBgs[0] = r.le32(0x24C);
  backupBgs[1] = r.le32(0x250);
  prjQuotaInum = r.le32(0x26C);
  orphanFileInum = r.le32(0x280);
  return api::QORV_OK;
}

status_t CExtResizeBitmap::Build(api::IBaseMemoryManager* mem, const CExtSuperBlock& sb) {
  QORV_TRY(Create(mem, sb.groupCount));
  BlockBitmap& b = Bits();
  b.Set(0);
  if (sb.compat & kCompatSparseSuper2) {
    for (uint32_t g : sb.backupBgs)
      if (g) b.Set(g);
  } else {
    bool sparse = sb.roCompat & kRoCompatSparseSuper;
    for (uint32_t g = 1; g < sb.groupCount; ++g)
      if (!sparse || IsPowerOf(g, 3) || IsPowerOf(g, 5) || IsPowerOf(g, 7)) b.Set(g);
  }
  return api::QORV_OK;
}

void CExtFsInode::Load(uint64_t number, ByteView raw) {
  rawSize_ = uint32_t(raw.Size() < kMaxRaw ? raw.Size() : kMaxRaw);
  for (uint32_t i = 0; i < rawSize_; ++i) raw_[i] = raw.u8(i);
  ByteView r(raw_, rawSize_);
  number_ = number;
  mode_ = r.le16(0x0);
  size_ = r.le32(0x4) | (uint64_t(r.le32(0x6C)) << 32);
  links_ = r.le16(0x1A);
  flags_ = r.le32(0x20);
  fileAcl_ = r.le32(0x68) | (uint64_t(r.le16(0x76)) << 32);
  sectors_ = r.le32(0x1C) | (uint64_t(r.le16(0x74)) << 32);
}

bool CExtFsInode::IsFastSymlink(uint32_t blockSize) const {
  if (Kind() != UnixKind::Link || HasInlineData()) return false;
  uint64_t eaSectors = fileAcl_ ? blockSize / 512 : 0;
  return sectors_ <= eaSectors;
}

void CExtFsEntryNumerator::Reset(ByteView area, bool hasFiletype, uint32_t blockSize) {
  area_ = area;
  off_ = 0;
  filetype_ = hasFiletype;
  damaged_ = false;
  blockSize_ = blockSize ? blockSize : uint32_t(area.Size());
}

status_t CExtFsEntryNumerator::Next(CUnixDirEntry* e) {
  while (area_.Has(off_, 8)) {
    size_t cur = off_;
    uint32_t rec = area_.le16(cur + 4);
    if (rec == 65535 || (rec == 0 && blockSize_ == 65536)) rec = 65536;
    size_t blockEnd = (cur / blockSize_ + 1) * blockSize_;
    if (rec < 8 || rec % 4 || cur + rec > blockEnd || !area_.Has(cur, rec)) {
      // Damaged entry: the rest of this block is lost, the next block may be fine.
      damaged_ = true;
      off_ = blockEnd;
      continue;
    }
    off_ = cur + rec;
    uint32_t ino = area_.le32(cur);
    uint32_t nameLength = area_.u8(cur + 6);
    if (!filetype_) nameLength |= uint32_t(area_.u8(cur + 7)) << 8;
    if (ino == 0 || nameLength == 0 || 8 + nameLength > rec) continue;
    e->inode = ino;
    e->name = area_.Data() + cur + 8;
    e->nameLength = nameLength;
    e->kindKnown = false;
    e->kind = UnixKind::Other;
    if (filetype_) {
      uint8_t t = area_.u8(cur + 7);
      e->kindKnown = t >= 1 && t <= 7;
      e->kind = t == 1 ? UnixKind::File : t == 2 ? UnixKind::Dir : t == 7 ? UnixKind::Link : UnixKind::Other;
    }
    return api::QORV_OK;
  }
  return api::ERR_END_OF_DIR;
}

status_t CExtFsFileSystem::Mount() {
  CUnixBlock raw;
  QORV_TRY(raw.Allocate(Mem(), 1024));
  if (dev_->ReadBytes(1024, raw.Data(), 1024, 0) != api::QORV_OK) return api::ERR_NOT_RECOGNIZED;
  QORV_TRY(sb_.Parse(raw.View()));
  // The descriptors must fit the device before anything is sized by the group count.
  uint64_t descBytes = uint64_t(sb_.descBlocks) << sb_.BlockShift();
  if (descBytes > dev_->GetSize() || descBytes > UINT32_MAX) return api::ERR_INCONSISTENT;
  QORV_TRY(backups_.Build(Mem(), sb_));
  QORV_TRY(desc_.Allocate(Mem(), uint32_t(descBytes)));
  // The descriptors follow the superblock's block (1 KiB blocks with a first data block of 0 included).
  QORV_TRY(ReadBlocks((1024 >> sb_.BlockShift()) + 1, sb_.descBlocks, desc_.Data()));
  QORV_TRY(cache_.Allocate(Mem(), kSlots * kSlotBytes + kSeqBytes));
  for (uint32_t i = 0; i < kSlots; ++i) slots_[i].data = cache_.Data() + i * kSlotBytes;
  seq_.data = cache_.Data() + kSlots * kSlotBytes;
  return nodes_.Allocate(Mem(), (kMaxExtentDepth + 1) * sb_.BlockSize());
}

uint64_t CExtFsFileSystem::DescField(uint32_t g, uint32_t lo, uint32_t hi) const {
  ByteView d = desc_.View().Sub(size_t(g) * sb_.descSize, sb_.descSize);
  uint64_t v = d.le32(lo);
  if ((sb_.incompat & kIncompat64Bit) && sb_.descSize >= 64) v |= uint64_t(d.le32(hi)) << 32;
  return v;
}

status_t CExtFsFileSystem::ReadInode(uint64_t number, CExtFsInode* out) {
  // Least recently used slot among the small windows.
  Window* hit = nullptr;
  for (Window& w : slots_) {
    if (!hit || w.stamp < hit->stamp) hit = &w;
  }
  uint32_t g = uint32_t((number - 1) / sb_.inodesPerGroup);
  uint64_t off = ((number - 1) % sb_.inodesPerGroup) * uint64_t(sb_.inodeSize);
  for (Window& w : slots_) {
    if (w.group == g && off >= w.start && off + ParsedInodeBytes() <= w.start + w.length) hit = &w;
  }
  hit->stamp = ++clock_;
  return ReadVia(hit, kSlotBytes, number, out);
}

status_t CExtFsFileSystem::ReadInodeSequential(uint64_t number, CExtFsInode* out) {
  return ReadVia(&seq_, kSeqBytes, number, out);
}

status_t CExtFsFileSystem::ReadVia(Window* w, uint32_t windowBytes, uint64_t number, CExtFsInode* out) {
  if (number == 0 || number > sb_.inodesCount) return api::ERR_INCONSISTENT;
  uint32_t g = uint32_t((number - 1) / sb_.inodesPerGroup);
  uint64_t off = ((number - 1) % sb_.inodesPerGroup) * uint64_t(sb_.inodeSize);
  // Only the part of an inode that is parsed has to sit in the window.
  const uint64_t needed = ParsedInodeBytes();
  if (w->group != g || off < w->start || off + needed > w->start + w->length) {
    uint64_t tableBytes = uint64_t(sb_.inodesPerGroup) * sb_.inodeSize;
    uint64_t table = InodeTableOf(g);
    uint64_t tableBlocks = (tableBytes + sb_.BlockSize() - 1) >> sb_.BlockShift();
    if (!InVolume(table, tableBlocks)) return api::ERR_INCONSISTENT;
    w->group = UINT32_MAX;
    w->start = off - off % windowBytes;
    if (off + needed > w->start + windowBytes) w->start = off;  // odd inode sizes straddle windows
    w->length = tableBytes - w->start < windowBytes ? tableBytes - w->start : windowBytes;
    QORV_TRY(ReadDevice((table << sb_.BlockShift()) + w->start, w->data, uint32_t(w->length)));
    w->group = g;
  }
  out->Load(number, ByteView(w->data + (off - w->start), size_t(needed)));
  return api::QORV_OK;
}

status_t CExtFsFileSystem::VisitMap(const CExtFsInode& inode, CExtMapVisitor* v) {
  if (inode.HasInlineData() || inode.IsFastSymlink(sb_.BlockSize())) return api::QORV_OK;
  ByteView ib = inode.IBlock();
  if (inode.HasExtents()) return VisitExtentNode(ib, UINT32_MAX, 4, v);
  RunBuilder direct(v, false);
  for (uint32_t i = 0; i < 12; ++i) {
    uint32_t b = ib.le32(i * 4);
    if (!b) continue;
    if (b >= sb_.BlockCount()) {
      v->Problem();
      continue;
    }
    QORV_TRY(direct.Add(i, b));
  }
  QORV_TRY(direct.Flush());
  uint64_t per = sb_.BlockSize() / 4, logical = 12;
  for (uint32_t depth = 0; depth < 3; ++depth) {
    uint32_t b = ib.le32((12 + depth) * 4);
    if (b) QORV_TRY(VisitIndirect(b, depth, logical, v));
    uint64_t span = per;
    for (uint32_t d = 0; d < depth; ++d) span *= per;
    logical += span;
  }
  return api::QORV_OK;
}

status_t CExtFsFileSystem::VisitExtentNode(ByteView node, uint32_t depthWanted, uint32_t capacity,
                                           CExtMapVisitor* v) {
  uint32_t entries = node.le16(2), max = node.le16(4), depth = node.le16(6);
  if (node.le16(0) != kExtentMagic || entries > max || max > capacity || depth > kMaxExtentDepth ||
      (depthWanted != UINT32_MAX && depth != depthWanted)) {
    v->Problem();
    return api::QORV_OK;
  }
  const uint32_t bs = sb_.BlockSize();
  for (uint32_t i = 0; i < entries; ++i) {
    size_t e = 12 + size_t(i) * 12;
    if (depth == 0) {
      uint32_t len = node.le16(e + 4);
      if (len > 32768) len -= 32768;  // unwritten extent
      uint64_t start = (uint64_t(node.le16(e + 6)) << 32) | node.le32(e + 8);
      if (len == 0 || !InVolume(start, len)) {
        v->Problem();
        continue;
      }
      QORV_TRY(v->Data(node.le32(e), start, len, false));
      continue;
    }
    uint64_t child = node.le32(e + 4) | (uint64_t(node.le16(e + 8)) << 32);
    if (!InVolume(child, 1)) {
      v->Problem();
      continue;
    }
    if (!v->Node(child)) continue;
    uint8_t* buf = nodes_.Data() + size_t(depth - 1) * bs;
    if (ReadBlocks(child, 1, buf) != api::QORV_OK) {
      v->Problem();
      continue;
    }
    QORV_TRY(VisitExtentNode(ByteView(buf, bs), depth - 1, (bs - 12) / 12, v));
  }
  return api::QORV_OK;
}

status_t CExtFsFileSystem::VisitIndirect(uint64_t block, uint32_t depth, uint64_t logical, CExtMapVisitor* v) {
  if (!InVolume(block, 1)) {
    v->Problem();
    return api::QORV_OK;
  }
  if (!v->Node(block)) return api::QORV_OK;
  const uint32_t bs = sb_.BlockSize(), per = bs / 4;
  uint8_t* buf = nodes_.Data() + size_t(depth) * bs;
  if (ReadBlocks(block, 1, buf) != api::QORV_OK) {
    v->Problem();
    return api::QORV_OK;
  }
  ByteView ind(buf, bs);
  uint64_t span = 1;
  for (uint32_t d = 0; d < depth; ++d) span *= per;
  RunBuilder run(v, true);
  for (uint32_t i = 0; i < per; ++i) {
    uint32_t b = ind.le32(i * 4);
    if (!b) continue;  // a hole; later entries may still be in use
    if (depth == 0) {
      if (b >= sb_.BlockCount()) v->Problem();
      else QORV_TRY(run.Add(logical + i, b));
      continue;
    }
    QORV_TRY(VisitIndirect(b, depth - 1, logical + i * span, v));
  }
  return run.Flush();
}

}  // namespace ExtFS2
}  // namespace QORV
