#include "fs/btrfs/btrfs_fs.h"

#include <algorithm>
#include <cstring>

#include "core/checksum.h"
#include "fs/btrfs/hash.h"

namespace QORV {
namespace Btrfs {

using api::status_t;

namespace {

constexpr uint64_t kElsewhere = UINT64_MAX;  // a stripe on another device
// Slots of the node cache: a node is read once per scan, so a few suffice.
constexpr uint32_t kNodeSlots = 4;

bool ValidSizes(uint32_t sector, uint32_t node) {
  return IsPowerOfTwo(sector) && IsPowerOfTwo(node) && sector >= kMinSectorSize && sector <= kMaxNodeSize &&
         node >= sector && node <= kMaxNodeSize;
}

}  // namespace

bool VerifyCsum(uint16_t type, const uint8_t* unit, uint32_t size) {
  const uint8_t* body = unit + kCsumBytes;
  const uint32_t n = size - uint32_t(kCsumBytes);
  uint8_t want[kCsumBytes] = {};
  size_t len = 0;
  switch (type) {
    case kCsumCrc32c: {
      uint32_t c = ~Crc32c(~0u, body, n);
      for (int i = 0; i < 4; ++i) want[i] = uint8_t(c >> (8 * i));
      len = 4;
      break;
    }
    case kCsumXxhash: {
      uint64_t h = XxHash64(body, n);
      for (int i = 0; i < 8; ++i) want[i] = uint8_t(h >> (8 * i));
      len = 8;
      break;
    }
    case kCsumSha256:
      Sha256(body, n, want);
      len = 32;
      break;
    case kCsumBlake2:
      Blake2b256(body, n, want);
      len = 32;
      break;
    default:
      return true;  // unknown: the caller was told at mount
  }
  return std::memcmp(unit, want, len) == 0;
}

status_t CBtrFsSuperBlock::Parse(ByteView r) {
  if (!r.Has(0, kSuperBytes) || r.le64(sbf::kMagic) != kMagic) return api::ERR_NOT_RECOGNIZED;
  csumType = r.le16(sbf::kCsumType);
  csumKnown = csumType <= kCsumBlake2;
  if (csumKnown && !VerifyCsum(csumType, r.Data(), kSuperBytes)) {
    why_ = "superblock checksum mismatch";
    return api::ERR_NOT_RECOGNIZED;
  }
  blockSize_ = r.le32(sbf::kSectorSize);
  nodeSize = r.le32(sbf::kNodeSize);
  if (!ValidSizes(blockSize_, nodeSize)) {
    why_ = "sector or node size not a power of two between 4 KiB and 64 KiB";
    return api::ERR_INCONSISTENT;
  }
  blockShift_ = uint32_t(Log2Exact(blockSize_));
  totalBytes = r.le64(sbf::kTotalBytes);
  numDevices = r.le64(sbf::kNumDevices);
  // One member of a multi-device volume is as large as its own device item
  // says: the volume's total would make its image unrestorable onto a
  // device of the member's size.
  blockCount_ = (numDevices > 1 ? r.le64(sbf::kDevItem + devf::kTotalBytes) : totalBytes) >> blockShift_;
  if (blockCount_ == 0) {
    why_ = "volume size smaller than one sector";
    return api::ERR_INCONSISTENT;
  }
  root = r.le64(sbf::kRoot);
  chunkRoot = r.le64(sbf::kChunkRoot);
  logRoot = r.le64(sbf::kLogRoot);
  generation = r.le64(sbf::kGeneration);
  devid = r.le64(sbf::kDevItem + devf::kDevid);
  rootLevel = r.u8(sbf::kRootLevel);
  chunkRootLevel = r.u8(sbf::kChunkRootLevel);
  logRootLevel = r.u8(sbf::kLogRootLevel);
  if (rootLevel >= kMaxLevel || chunkRootLevel >= kMaxLevel || logRootLevel >= kMaxLevel) {
    why_ = "tree root level out of range";
    return api::ERR_INCONSISTENT;
  }
  sysChunkArraySize = r.le32(sbf::kSysChunkArraySize);
  if (sysChunkArraySize > sbf::kSysChunkArrayMax) {
    why_ = "system chunk array larger than its field";
    return api::ERR_INCONSISTENT;
  }
  size_t fsidAt = (r.le64(sbf::kIncompatFlags) & kIncompatMetadataUuid) ? sbf::kMetadataUuid : sbf::kFsid;
  std::memcpy(metadataFsid, r.Data() + fsidAt, kFsidBytes);
  return api::QORV_OK;
}

status_t CBtrFsChunkMap::Add(uint64_t logical, ByteView c, uint32_t sectorSize) {
  if (!c.Has(0, chunkf::kStripes)) {
    why_ = "chunk item shorter than its header";
    return api::ERR_INCONSISTENT;
  }
  const uint64_t length = c.le64(chunkf::kLength), stripeLen = c.le64(chunkf::kStripeLen);
  const uint64_t type = c.le64(chunkf::kType);
  const uint32_t num = c.le16(chunkf::kNumStripes), sub = c.le16(chunkf::kSubStripes);
  if (num == 0 || !c.Has(chunkf::kStripes, size_t(num) * chunkf::kStripeBytes)) {
    why_ = "chunk item without stripes, or with more than it holds";
    return api::ERR_INCONSISTENT;
  }
  if (length == 0 || logical + length < logical || (logical | length) % sectorSize) {
    why_ = "chunk range empty, wrapping or not sector aligned";
    return api::ERR_INCONSISTENT;
  }
  Chunk ch{logical, length, stripeLen, uint32_t(stripes_.size()), 1, 1, true};
  if (type & (bg::kRaid1 | bg::kRaid1c3 | bg::kRaid1c4 | bg::kDup)) {
    ch.copies = uint16_t(num);  // every stripe holds the whole chunk
  } else if (type & bg::kRaid10) {
    if (sub < 2 || num % sub) {
      why_ = "RAID10 chunk with a sub-stripe count that does not divide its stripes";
      return api::ERR_INCONSISTENT;
    }
    ch.copies = uint16_t(sub);
    ch.width = uint16_t(num / sub);
  } else if (type & bg::kRaid0) {
    ch.width = uint16_t(num);
  } else if (type & (bg::kRaid5 | bg::kRaid6)) {
    ch.supported = false;  // parity rotation: nodes there are not located
  } else if (num != 1) {
    ch.copies = uint16_t(num);  // single with stray stripes: read any that is here
  }
  if (ch.width > 1 && (!IsPowerOfTwo(stripeLen) || stripeLen < sectorSize)) {
    why_ = "striped chunk with a stripe length that is not a power of two";
    return api::ERR_INCONSISTENT;
  }
  auto at = std::lower_bound(chunks_.begin(), chunks_.end(), logical,
                             [](const Chunk& x, uint64_t l) { return x.logical < l; });
  if (at != chunks_.end() && at->logical == logical && at->length == length) return api::QORV_OK;
  if ((at != chunks_.end() && at->logical < logical + length) ||
      (at != chunks_.begin() && std::prev(at)->logical + std::prev(at)->length > logical)) {
    why_ = "chunk overlaps another";
    return api::ERR_INCONSISTENT;
  }
  if (chunks_.size() >= kMaxChunks || stripes_.size() + num > kMaxStripes) {
    why_ = "more chunks than the driver keeps";
    return api::ERR_INCONSISTENT;
  }
  // A copy's span on the device must not wrap.
  const uint64_t span = ch.width > 1 ? (length / ch.width + stripeLen) : length;
  for (uint32_t i = 0; i < num; ++i) {
    size_t s = chunkf::kStripes + size_t(i) * chunkf::kStripeBytes;
    uint64_t off = c.le64(s + chunkf::kStripeOffset);
    bool here = c.le64(s + chunkf::kStripeDevid) == devid_ && off + span >= off;
    stripes_.push_back(here ? off : kElsewhere);
  }
  chunks_.insert(at, ch);
  return api::QORV_OK;
}

const CBtrFsChunkMap::Chunk* CBtrFsChunkMap::Find(uint64_t logical) const {
  auto at = std::upper_bound(chunks_.begin(), chunks_.end(), logical,
                             [](uint64_t l, const Chunk& x) { return l < x.logical; });
  if (at == chunks_.begin()) return nullptr;
  const Chunk& c = *std::prev(at);
  return logical - c.logical < c.length ? &c : nullptr;
}

uint32_t CBtrFsChunkMap::Copies(uint64_t logical, uint32_t length, uint64_t out[kMaxCopies], Miss* miss) const {
  *miss = Miss::kUnmapped;
  const Chunk* c = Find(logical);
  if (!c || length > c->length - (logical - c->logical)) return 0;
  if (!c->supported) {
    *miss = Miss::kProfile;
    return 0;
  }
  uint64_t rel = logical - c->logical, base = rel, col = 0;
  if (c->width > 1) {
    const uint64_t nr = rel / c->stripeLen, in = rel % c->stripeLen;
    if (length > c->stripeLen - in) return 0;  // a node may not cross a stripe
    col = nr % c->width;
    base = (nr / c->width) * c->stripeLen + in;
  }
  uint32_t n = 0;
  for (uint32_t k = 0; k < c->copies && n < kMaxCopies; ++k) {
    uint64_t off = stripes_[c->firstStripe + col * c->copies + k];
    if (off != kElsewhere) out[n++] = off + base;
  }
  *miss = n ? Miss::kNone : Miss::kOtherDevice;
  return n;
}

bool CBtrFsChunkMap::Translate(uint64_t logical, uint64_t* physical, uint64_t* contiguous) const {
  uint64_t copies[kMaxCopies];
  Miss miss;
  if (!Copies(logical, 1, copies, &miss)) return false;
  const Chunk* c = Find(logical);
  const uint64_t rel = logical - c->logical;
  *physical = copies[0];
  *contiguous = c->width > 1 ? c->stripeLen - rel % c->stripeLen : c->length - rel;
  return true;
}

status_t CBtrFsNode::Parse(ByteView node) {
  raw_ = node;
  level_ = node.u8(hdr::kLevel);
  items_ = node.le32(hdr::kNrItems);
  const size_t room = node.Size() > hdr::kBytes ? node.Size() - hdr::kBytes : 0;
  if (level_ >= kMaxLevel) {
    why_ = "level above the deepest a tree may have";
    return api::ERR_INCONSISTENT;
  }
  if (level_ > 0) {
    if (items_ == 0 || items_ > room / kpf::kBytes) {
      why_ = "inner node item count impossible for its size";
      return api::ERR_INCONSISTENT;
    }
    return api::QORV_OK;
  }
  if (items_ > room / itf::kBytes) {
    why_ = "leaf item count impossible for its size";
    return api::ERR_INCONSISTENT;
  }
  // Item data lies between the item array and the node's end.
  const uint64_t floor = uint64_t(items_) * itf::kBytes;
  for (uint32_t i = 0; i < items_; ++i) {
    size_t at = hdr::kBytes + size_t(i) * itf::kBytes;
    uint64_t off = node.le32(at + itf::kOffset), size = node.le32(at + itf::kSize);
    if (off < floor || off + size > room) {
      why_ = "leaf item data outside the node";
      return api::ERR_INCONSISTENT;
    }
  }
  return api::QORV_OK;
}

CBtrFsNode::Key CBtrFsNode::KeyAt(uint32_t i) const {
  size_t at = hdr::kBytes + size_t(i) * (level_ ? kpf::kBytes : itf::kBytes);
  return Key{raw_.le64(at + keyf::kObjectId), raw_.u8(at + keyf::kType), raw_.le64(at + keyf::kOffset)};
}

ByteView CBtrFsNode::DataAt(uint32_t i) const {
  size_t at = hdr::kBytes + size_t(i) * itf::kBytes;
  return raw_.Sub(hdr::kBytes + raw_.le32(at + itf::kOffset), raw_.le32(at + itf::kSize));
}

status_t CBtrFsFileSystem::NodeCheck::Check(uint64_t, uint8_t* unit, uint32_t size) {
  if (std::memcmp(unit + hdr::kFsid, sb->metadataFsid, kFsidBytes) != 0) {
    why = "node belongs to another file system (fsid differs)";
    return api::ERR_INCONSISTENT;
  }
  if (sb->csumKnown && !VerifyCsum(sb->csumType, unit, size)) {
    why = "node checksum mismatch";
    return api::ERR_INCONSISTENT;
  }
  return api::QORV_OK;
}

status_t CBtrFsFileSystem::Mount() {
  CUnixBlock raw;
  QORV_TRY(raw.Allocate(Mem(), kSuperBytes));
  const uint64_t size = dev_->GetSize();
  if (size < kSuperOffset + kSuperBytes) return api::ERR_NOT_RECOGNIZED;
  QORV_TRY(ReadDevice(kSuperOffset, raw.Data(), kSuperBytes));
  status_t s = sb_.Parse(raw.View());
  why_ = sb_.Why();
  QORV_TRY(s);
  chunks_.SetDevice(sb_.devid);
  // The system chunk array: (key, chunk item) pairs locating the chunk tree.
  ByteView array = raw.View().Sub(sbf::kSysChunkArray, sb_.sysChunkArraySize);
  size_t at = 0;
  while (at < array.Size()) {
    if (!array.Has(at, keyf::kBytes + chunkf::kStripes) || array.u8(at + keyf::kType) != key::kChunkItem) {
      why_ = "system chunk array entry malformed";
      return api::ERR_INCONSISTENT;
    }
    uint64_t logical = array.le64(at + keyf::kOffset);
    at += keyf::kBytes;
    size_t bytes = chunkf::kStripes + size_t(array.le16(at + chunkf::kNumStripes)) * chunkf::kStripeBytes;
    if (chunks_.Add(logical, array.Sub(at, bytes), sb_.BlockSize()) != api::QORV_OK) {
      why_ = chunks_.Why();
      return api::ERR_INCONSISTENT;
    }
    at += bytes;
  }
  if (chunks_.Size() == 0) {
    why_ = "system chunk array empty";
    return api::ERR_INCONSISTENT;
  }
  check_.sb = &sb_;
  QORV_TRY(reader_.Init(dev_, sb_.nodeSize, size, kNodeSlots));
  reader_.SetCheck(&check_);
  return api::QORV_OK;
}

status_t CBtrFsFileSystem::ReadNode(uint64_t logical, uint32_t level, uint64_t physical, CBtrFsNode* out,
                                    const char** why) {
  ByteView view;
  const uint64_t rejectedBefore = reader_.Stats().rejected;
  status_t s = reader_.Read(physical, &view);
  if (s != api::QORV_OK) {
    *why = reader_.Stats().rejected != rejectedBefore ? check_.why : "read failed";
    return s;
  }
  return ParseNode(logical, level, view, out, why);
}

status_t CBtrFsFileSystem::CheckNode(uint64_t logical, uint32_t level, uint8_t* bytes, CBtrFsNode* out,
                                     const char** why) {
  status_t s = check_.Check(0, bytes, sb_.nodeSize);
  if (s != api::QORV_OK) {
    *why = check_.why;
    return s;
  }
  return ParseNode(logical, level, ByteView(bytes, sb_.nodeSize), out, why);
}

status_t CBtrFsFileSystem::ParseNode(uint64_t logical, uint32_t level, ByteView view, CBtrFsNode* out,
                                     const char** why) {
  if (view.le64(hdr::kBytenr) != logical) {
    *why = "node header names another address";
    return api::ERR_INCONSISTENT;
  }
  if (view.u8(hdr::kLevel) != level) {
    *why = "node level differs from what its parent says";
    return api::ERR_INCONSISTENT;
  }
  status_t s = out->Parse(view);
  if (s != api::QORV_OK) *why = out->Why();
  return s;
}

}  // namespace Btrfs
}  // namespace QORV
