#include "fs/ext/ext_fs.h"

#include <cstring>

#include "core/checksum.h"

namespace QORV {
namespace ExtFS2 {

using api::status_t;

namespace {

// Directory entry fields.
namespace def {
constexpr size_t kInode = 0x0, kRecLen = 0x4, kNameLen = 0x6, kFileType = 0x7, kName = 0x8;
}

// What a queued mapping block is: an extent node (with the depth it must
// have) or an indirect block (with its level and first logical block).
constexpr uint64_t kExtentNode = 1ull << 63;
constexpr uint32_t kLevelShift = 56;
constexpr uint64_t kLogicalMask = (1ull << kLevelShift) - 1;

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
  compat = r.le32(sbf::kFeatureCompat);
  incompat = r.le32(sbf::kFeatureIncompat);
  roCompat = r.le32(sbf::kFeatureRoCompat);
  readOnlyOnly = (roCompat & 0xF78) || (incompat & 0xC2C0);
  if (r.le16(sbf::kMagic) != 0xEF53) return no;
  revLevel = r.le32(sbf::kRevLevel);
  creatorOs = r.le32(sbf::kCreatorOs);
  logBlockSize = r.le32(sbf::kLogBlockSize);
  inodeSize = r.le16(sbf::kInodeSize);
  inodesPerGroup = r.le32(sbf::kInodesPerGroup);
  if (revLevel != 1 || creatorOs != 0 || logBlockSize > 6 || inodeSize < 128 || inodesPerGroup == 0) return no;
  if (incompat & ~kIncompatKnown) {
    mountInfo = (incompat & 0xC5C31) | 0x100000;
    return no;
  }
  blocksCountLo = r.le32(sbf::kBlocksCountLo);
  uint64_t blocks = blocksCountLo;
  if (incompat & kIncompat64Bit) blocks |= uint64_t(r.le32(sbf::kBlocksCountHi)) << 32;
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
  blocksPerGroup = r.le32(sbf::kBlocksPerGroup);
  logClusterSize = r.le32(sbf::kLogClusterSize);
  if (logClusterSize > 16) return no;
  uint64_t maxPerGroup = ((1024ull << logClusterSize) / blockSize_) * 65528;
  if (blocksPerGroup == 0 || blocksPerGroup > maxPerGroup) return no;
  descSize = (incompat & kIncompat64Bit) ? r.le16(sbf::kDescSize) : 32;
  if (descSize < 32 || descSize > blockSize_) return no;
  firstDataBlock = r.le32(sbf::kFirstDataBlock);
  if (firstDataBlock >= blocks) return no;
  if (blocksPerGroup % 8 || inodesPerGroup % 8) return api::ERR_INCONSISTENT;
  inodesCount = r.le32(sbf::kInodesCount);
  uint64_t groups = (blocks - firstDataBlock + blocksPerGroup - 1) / blocksPerGroup;
  if (groups * inodesPerGroup != inodesCount) return no;
  groupCount = uint32_t(groups);
  descBlocks = uint32_t((groups * descSize + blockSize_ - 1) / blockSize_);
  reservedGdtBlocks = r.le16(sbf::kReservedGdtBlocks);
  firstMetaBg = r.le32(sbf::kFirstMetaBg);
  logGroupsPerFlex = r.u8(sbf::kLogGroupsPerFlex);
  journalInum = r.le32(sbf::kJournalInum);
  lastOrphan = r.le32(sbf::kLastOrphan);
  freeInodes = r.le32(sbf::kFreeInodes);
  mmpBlock = r.le64(sbf::kMmpBlock);
  usrQuotaInum = r.le32(sbf::kUsrQuotaInum);
  grpQuotaInum = r.le32(sbf::kGrpQuotaInum);
  backupBgs[0] = r.le32(sbf::kBackupBgs);
  backupBgs[1] = r.le32(sbf::kBackupBgs + 4);
  prjQuotaInum = r.le32(sbf::kPrjQuotaInum);
  orphanFileInum = r.le32(sbf::kOrphanFileInum);
  for (size_t i = 0; i < sbf::kUuidBytes; ++i) uuid[i] = r.u8(sbf::kUuid + i);
  checksumSeed = (incompat & kIncompatCsumSeed) ? r.le32(sbf::kChecksumSeed) : Crc32c(~0u, uuid, sizeof uuid);
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
  if (rawSize_) std::memcpy(raw_, raw.Data(), rawSize_);
  ByteView r(raw_, rawSize_);
  number_ = number;
  mode_ = r.le16(inf::kMode);
  size_ = r.le32(inf::kSizeLo) | (uint64_t(r.le32(inf::kSizeHigh)) << 32);
  links_ = r.le16(inf::kLinksCount);
  flags_ = r.le32(inf::kFlags);
  fileAcl_ = r.le32(inf::kFileAclLo) | (uint64_t(r.le16(inf::kFileAclHi)) << 32);
  sectors_ = r.le32(inf::kBlocksLo) | (uint64_t(r.le16(inf::kBlocksHi)) << 32);
}

bool CExtFsInode::IsFastSymlink(uint32_t blockSize) const {
  return Kind() == UnixKind::Link && !HasInlineData() && !ClaimsBlocks(blockSize);
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
    uint32_t rec = area_.le16(cur + def::kRecLen);
    if (rec == 65535 || (rec == 0 && blockSize_ == 65536)) rec = 65536;
    size_t blockEnd = (cur / blockSize_ + 1) * blockSize_;
    if (rec < 8 || rec % 4 || cur + rec > blockEnd || !area_.Has(cur, rec)) {
      // Damaged entry: the rest of this block is lost, the next block may be fine.
      damaged_ = true;
      off_ = blockEnd;
      continue;
    }
    off_ = cur + rec;
    uint32_t ino = area_.le32(cur + def::kInode);
    uint32_t nameLength = area_.u8(cur + def::kNameLen);
    if (!filetype_) nameLength |= uint32_t(area_.u8(cur + def::kFileType)) << 8;
    if (ino == 0 || nameLength == 0 || def::kName + nameLength > rec) continue;
    e->inode = ino;
    e->name = area_.Data() + cur + def::kName;
    e->nameLength = nameLength;
    e->kindKnown = false;
    e->kind = UnixKind::Other;
    if (filetype_) {
      uint8_t t = area_.u8(cur + def::kFileType);
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
  QORV_TRY(cache_.Allocate(Mem(), kSlots * kSlotBytes + kSeqBytes, false));
  for (uint32_t i = 0; i < kSlots; ++i) slots_[i].data = cache_.Data() + i * kSlotBytes;
  seq_.data = cache_.Data() + kSlots * kSlotBytes;
  return node_.Allocate(Mem(), sb_.BlockSize());
}

uint64_t CExtFsFileSystem::DescField(uint32_t g, size_t lo, size_t hi) const {
  ByteView d = desc_.View().Sub(size_t(g) * sb_.descSize, sb_.descSize);
  uint64_t v = d.le32(lo);
  if ((sb_.incompat & kIncompat64Bit) && sb_.descSize >= 64) v |= uint64_t(d.le32(hi)) << 32;
  return v;
}

bool CExtFsFileSystem::DescriptorVerifies(uint32_t g) const {
  const bool metadataCsum = sb_.roCompat & kRoCompatMetadataCsum;
  if (!metadataCsum && !(sb_.roCompat & kRoCompatGdtCsum)) return false;
  ByteView d = desc_.View().Sub(size_t(g) * sb_.descSize, sb_.descSize);
  if (!d.Has(0, sb_.descSize)) return false;
  uint8_t group[4] = {uint8_t(g), uint8_t(g >> 8), uint8_t(g >> 16), uint8_t(g >> 24)};
  const uint8_t zero[2] = {0, 0};
  const uint8_t* p = d.Data();
  const size_t after = gdf::kChecksum + 2;
  uint16_t sum;
  if (metadataCsum) {
    uint32_t c = Crc32c(sb_.checksumSeed, group, sizeof group);
    c = Crc32c(c, p, gdf::kChecksum);
    c = Crc32c(c, zero, sizeof zero);
    sum = uint16_t(Crc32c(c, p + after, sb_.descSize - after));
  } else {
    uint16_t c = Crc16(0xFFFF, sb_.uuid, sizeof sb_.uuid);
    c = Crc16(c, group, sizeof group);
    c = Crc16(c, p, gdf::kChecksum);
    // The older checksum leaves the 2 bytes of itself out entirely.
    sum = sb_.descSize > after ? Crc16(c, p + after, sb_.descSize - after) : c;
  }
  return sum == d.le16(gdf::kChecksum);
}

uint32_t CExtFsFileSystem::InodesInUseOf(uint32_t g) const {
  if (!DescriptorVerifies(g)) return sb_.inodesPerGroup;
  ByteView d = desc_.View().Sub(size_t(g) * sb_.descSize, sb_.descSize);
  if (d.le16(gdf::kFlags) & gdf::kInodeUninit) return 0;
  uint32_t unused = d.le16(gdf::kItableUnusedLo);
  if ((sb_.incompat & kIncompat64Bit) && sb_.descSize >= 64) unused |= uint32_t(d.le16(gdf::kItableUnusedHi)) << 16;
  return unused < sb_.inodesPerGroup ? sb_.inodesPerGroup - unused : 0;
}

uint32_t CExtFsFileSystem::UsedTableBlocksOf(uint32_t g) const {
  const uint32_t used = InodesInUseOf(g);
  if (used == sb_.inodesPerGroup) return TableBlocks();
  const uint64_t bytes = uint64_t(used) * sb_.inodeSize;
  return uint32_t((bytes + sb_.BlockSize() - 1) >> sb_.BlockShift());
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

// Reads each queued mapping block once and hands it to the extent or
// indirect visitor, which queues the blocks below it.
class CExtFsFileSystem::MapWalker : public ITreeVisitor {
 public:
  MapWalker(CExtFsFileSystem& fs, CExtMapVisitor* v) : fs_(fs), v_(v) {}
  status_t Visit(const WalkNode& node, CTreeWalk& walk) override {
    v_->Node(node.address);
    uint8_t* buf = fs_.node_.Data();
    if (fs_.ReadBlocks(node.address, 1, buf) != api::QORV_OK) {
      v_->Problem("mapping block unreadable", node.address);
      return api::QORV_OK;
    }
    ByteView b(buf, fs_.sb_.BlockSize());
    if (node.aux & kExtentNode)
      return fs_.VisitExtentNode(node.address, b, uint32_t(node.aux & 0xFFFF), v_, walk);
    return fs_.VisitIndirect(b, uint32_t((node.aux & ~kExtentNode) >> kLevelShift), node.aux & kLogicalMask, v_, walk);
  }

 private:
  CExtFsFileSystem& fs_;
  CExtMapVisitor* v_;
};

status_t CExtFsFileSystem::VisitMap(const CExtFsInode& inode, CExtMapVisitor* v, CTreeWalk& walk) {
  if (inode.HasInlineData() || inode.IsFastSymlink(sb_.BlockSize())) return api::QORV_OK;
  ByteView ib = inode.IBlock();
  MapWalker walker(*this, v);
  if (inode.HasExtents()) {
    QORV_TRY(VisitExtentNode(0, ib, UINT32_MAX, v, walk));
    return walk.Run(walker);
  }
  RunBuilder direct(v, false);
  for (uint32_t i = 0; i < 12; ++i) {
    uint32_t b = ib.le32(i * 4);
    if (!b) continue;
    if (b >= sb_.BlockCount()) {
      v->Problem("direct block past the volume's end", b);
      continue;
    }
    QORV_TRY(direct.Add(i, b));
  }
  QORV_TRY(direct.Flush());
  const uint64_t per = sb_.BlockSize() / 4;
  const uint64_t first[3] = {12, 12 + per, 12 + per + per * per};
  for (uint32_t level = 3; level-- > 0;) {
    uint32_t b = ib.le32((12 + level) * 4);
    if (b && !InVolume(b, 1)) v->Problem("indirect block past the volume's end", b);
    else if (b) walk.Add(b, (uint64_t(level) << kLevelShift) | first[level]);
  }
  return walk.Run(walker);
}

status_t CExtFsFileSystem::VisitExtentNode(uint64_t block, ByteView node, uint32_t depthWanted, CExtMapVisitor* v,
                                           CTreeWalk& walk) {
  const uint32_t capacity = uint32_t((node.Size() - ext::kHeaderBytes) / ext::kEntryBytes);
  uint32_t entries = node.le16(ext::kEntries), max = node.le16(ext::kMax), depth = node.le16(ext::kDepth);
  const char* bad = node.le16(ext::kMagic) != ext::kMagicValue ? "extent header magic wrong"
                    : entries > max || max > capacity           ? "extent header counts impossible"
                    : depthWanted != UINT32_MAX && depth != depthWanted ? "extent node depth wrong"
                                                                          : nullptr;
  if (bad) {
    v->Problem(bad, block);
    return api::QORV_OK;
  }
  // Index entries are queued last first, so the walk reads them in order.
  for (uint32_t k = 0; k < entries; ++k) {
    const uint32_t i = depth ? entries - 1 - k : k;
    ByteView e = node.Sub(ext::kHeaderBytes + size_t(i) * ext::kEntryBytes, ext::kEntryBytes);
    if (depth == 0) {
      uint32_t len = e.le16(ext::kLeafLen);
      if (len > ext::kMaxInitLen) len -= ext::kMaxInitLen;
      uint64_t start = (uint64_t(e.le16(ext::kLeafStartHi)) << 32) | e.le32(ext::kLeafStartLo);
      if (len == 0 || !InVolume(start, len)) {
        v->Problem(len ? "extent runs past the volume's end" : "empty extent", start);
        continue;
      }
      QORV_TRY(v->Data(e.le32(ext::kLeafBlock), start, len, false));
      continue;
    }
    uint64_t child = e.le32(ext::kIndexLeafLo) | (uint64_t(e.le16(ext::kIndexLeafHi)) << 32);
    if (!InVolume(child, 1)) {
      v->Problem("extent index points past the volume's end", child);
      continue;
    }
    walk.Add(child, kExtentNode | (depth - 1));
  }
  return api::QORV_OK;
}

status_t CExtFsFileSystem::VisitIndirect(ByteView ind, uint32_t level, uint64_t logical, CExtMapVisitor* v,
                                         CTreeWalk& walk) {
  const uint32_t per = uint32_t(ind.Size() / 4);
  uint64_t span = 1;
  for (uint32_t d = 0; d < level; ++d) span *= per;
  RunBuilder run(v, true);
  // Children are queued last first, so the walk reads them in ascending order.
  for (uint32_t k = 0; k < per; ++k) {
    const uint32_t i = level ? per - 1 - k : k;
    uint32_t b = ind.le32(i * 4);
    if (!b) continue;  // a hole; later entries may still be in use
    if (b >= sb_.BlockCount()) {
      v->Problem(level ? "indirect block past the volume's end" : "data block past the volume's end", b);
      continue;
    }
    if (level == 0) QORV_TRY(run.Add(logical + i, b));
    else walk.Add(b, (uint64_t(level - 1) << kLevelShift) | (logical + i * span));
  }
  return run.Flush();
}

}  // namespace ExtFS2
}  // namespace QORV
