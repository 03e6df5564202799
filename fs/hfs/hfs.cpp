#include "fs/hfs/hfs.h"

namespace QORV {

using api::status_t;
using namespace hfs;

void HfsExtentRecord::Parse(ByteView raw) {
  for (uint32_t i = 0; i < Extent::kPerRecord; ++i) {
    const size_t at = i * Extent::kSize;
    extents[i].startBlock = raw.be32(at + Extent::kStartBlock);
    extents[i].blockCount = raw.be32(at + Extent::kBlockCount);
  }
}

void HfsForkData::Parse(ByteView raw) {
  logicalSize = raw.be64(ForkData::kLogicalSize);
  totalBlocks = raw.be32(ForkData::kTotalBlocks);
  first.Parse(raw.Sub(ForkData::kExtents, Extent::kRecordSize));
}

void HfsVolumeHeader::Parse(ByteView raw) {
  using V = VolumeHeader;
  signature = raw.be16(V::kSignature);
  version = raw.be16(V::kVersion);
  attributes = raw.be32(V::kAttributes);
  journalInfoBlock = raw.be32(V::kJournalInfoBlock);
  blockSize = raw.be32(V::kBlockSize);
  totalBlocks = raw.be32(V::kTotalBlocks);
  allocationFile.Parse(raw.Sub(V::kAllocationFile, ForkData::kSize));
  extentsFile.Parse(raw.Sub(V::kExtentsFile, ForkData::kSize));
  catalogFile.Parse(raw.Sub(V::kCatalogFile, ForkData::kSize));
  attributesFile.Parse(raw.Sub(V::kAttributesFile, ForkData::kSize));
  startupFile.Parse(raw.Sub(V::kStartupFile, ForkData::kSize));
}

bool HfsVolumeHeader::Acceptable() const {
  using V = VolumeHeader;
  if (signature != V::kSignaturePlus && signature != V::kSignatureX) return false;
  if (version != V::kVersionPlus && version != V::kVersionX) return false;
  // The bitmap's unit is the allocation block, so its size must be a power
  // of two; an empty volume has nothing to scan.
  return blockSize >= V::kMinBlockSize && blockSize % V::kMinBlockSize == 0 && IsPowerOfTwo(blockSize) &&
         totalBlocks != 0;
}

bool HfsExtentKey::operator<(const HfsExtentKey& o) const {
  if (fileId != o.fileId) return fileId < o.fileId;
  if (forkType != o.forkType) return forkType < o.forkType;
  return startBlock < o.startBlock;
}

// ---------------------------------------------------------------- forks

void CFileHfs::Reset(uint32_t fileId, uint8_t forkType, uint64_t logicalSize, uint32_t blockShift,
                     uint64_t volumeBlocks) {
  fileId_ = fileId;
  forkType_ = forkType;
  logicalSize_ = logicalSize;
  shift_ = blockShift;
  volumeBlocks_ = volumeBlocks;
  mappedBlocks_ = 0;
  pieces_.clear();
}

bool CFileHfs::Append(const HfsExtentRecord& record) {
  for (const HfsExtent& e : record.extents) {
    if (e.blockCount == 0) break;  // the record's unused tail
    if (pieces_.size() >= kMaxExtents) return false;
    pieces_.push_back(Piece{mappedBlocks_, e});
    mappedBlocks_ += e.blockCount;
  }
  return true;
}

uint64_t CFileHfs::Bytes() const {
  const uint64_t mapped = mappedBlocks_ << shift_;
  return logicalSize_ < mapped ? logicalSize_ : mapped;
}

bool CFileHfs::Translate(uint64_t logical, uint64_t* physical, uint64_t* contiguous) const {
  const uint64_t block = logical >> shift_;
  // The piece holding the block: the first whose end lies beyond it.
  size_t lo = 0, hi = pieces_.size();
  while (lo < hi) {
    size_t mid = (lo + hi) / 2;
    if (pieces_[mid].logicalBlock + pieces_[mid].extent.blockCount <= block) lo = mid + 1;
    else hi = mid;
  }
  if (lo == pieces_.size() || pieces_[lo].logicalBlock > block) return false;
  const Piece& p = pieces_[lo];
  // Only the part of an extent inside the volume maps anything.
  const uint64_t start = p.extent.startBlock, end = start + p.extent.blockCount;
  const uint64_t usableEnd = end < volumeBlocks_ ? end : volumeBlocks_;
  const uint64_t at = start + (block - p.logicalBlock);
  if (at >= usableEnd) return false;
  const uint64_t within = logical & ((uint64_t(1) << shift_) - 1);
  *physical = (at << shift_) + within;
  *contiguous = ((usableEnd - at) << shift_) - within;
  return true;
}

// ---------------------------------------------------------------- nodes

status_t CHfsEntryNumerator::Reset(ByteView node) {
  node_ = node;
  count_ = node.be16(NodeDescriptor::kNumRecords);
  // The offset table holds one word per record and one for the free space.
  const uint64_t table = (uint64_t(count_) + 1) * NodeDescriptor::kOffsetBytes;
  if (node.Size() < NodeDescriptor::kSize || table > node.Size() - NodeDescriptor::kSize) {
    count_ = 0;
    return api::ERR_INCONSISTENT;
  }
  return api::QORV_OK;
}

status_t CHfsEntryNumerator::Record(uint32_t i, ByteView* out) const {
  if (i >= count_) return api::ERR_INCONSISTENT;
  const size_t size = node_.Size();
  const size_t tableStart = size - (size_t(count_) + 1) * NodeDescriptor::kOffsetBytes;
  const size_t start = node_.be16(size - (size_t(i) + 1) * NodeDescriptor::kOffsetBytes);
  const size_t end = node_.be16(size - (size_t(i) + 2) * NodeDescriptor::kOffsetBytes);
  if (start < NodeDescriptor::kSize || end <= start || end > tableStart) return api::ERR_INCONSISTENT;
  *out = node_.Sub(start, end - start);
  return api::QORV_OK;
}

status_t CHfsBTree::Open(api::IDeviceRWBlock* dev, const CFileHfs* file, uint32_t windowBytes) {
  Close();
  dev_ = dev;
  file_ = file;
  // The header record tells the node size; the smallest node holds it.
  status_t s = Fill(0, HeaderRecord::kMinNodeSize);
  ByteView head(window_, windowHeld_);
  if (s == api::QORV_OK && int8_t(head.u8(NodeDescriptor::kKind)) != NodeDescriptor::kHeader)
    s = api::ERR_INCONSISTENT;
  const uint32_t nodeSize = head.be16(HeaderRecord::kNodeSize);
  if (s == api::QORV_OK && (!IsPowerOfTwo(nodeSize) || nodeSize < HeaderRecord::kMinNodeSize ||
                            nodeSize > HeaderRecord::kMaxNodeSize))
    s = api::ERR_INCONSISTENT;
  if (s != api::QORV_OK) {
    Close();
    return s;
  }
  nodeSize_ = nodeSize;
  maxKeyLength_ = head.be16(HeaderRecord::kMaxKeyLength);
  rootNode_ = head.be32(HeaderRecord::kRootNode);
  variableIndexKeys_ = head.be32(HeaderRecord::kAttributes) & HeaderRecord::kVariableIndexKeys;
  const uint64_t inFile = file->Bytes() / nodeSize;
  const uint32_t total = head.be32(HeaderRecord::kTotalNodes);
  nodeCount_ = uint32_t(total < inFile ? total : inFile);
  cached_ = windowBytes == 0;
  if (cached_) {
    s = cache_.Init(dev, nodeSize, UINT64_MAX, kCachedNodes);
    if (s != api::QORV_OK) {
      Close();
      return s;
    }
  }
  if (windowBytes < nodeSize) windowBytes = nodeSize;
  if (windowBytes != windowBytes_) {
    mem_->Free(window_);
    windowBytes_ = windowBytes;
    window_ = static_cast<uint8_t*>(mem_->Allocate(windowBytes_, 0));
    if (!window_) {
      Close();
      return api::ERR_NO_MEMORY;
    }
  }
  windowHeld_ = 0;
  return api::QORV_OK;
}

void CHfsBTree::Close() {
  if (window_) mem_->Free(window_);
  window_ = nullptr;
  windowBytes_ = windowHeld_ = 0;
  file_ = nullptr;
  cached_ = false;
  nodeSize_ = nodeCount_ = maxKeyLength_ = rootNode_ = 0;
}

// Reads fork bytes [offset, offset + bytes) into the window; more, up to
// the window's size, when the fork continues contiguously on the volume.
status_t CHfsBTree::Fill(uint64_t offset, uint32_t bytes) {
  windowHeld_ = 0;
  if (!window_ || windowBytes_ < bytes) {
    mem_->Free(window_);
    windowBytes_ = bytes > windowBytes_ ? bytes : windowBytes_;
    window_ = static_cast<uint8_t*>(mem_->Allocate(windowBytes_, 0));
    if (!window_) {
      windowBytes_ = 0;
      return api::ERR_NO_MEMORY;
    }
  }
  const uint64_t fileBytes = file_->Bytes();
  if (offset > fileBytes || bytes > fileBytes - offset) return api::ERR_IO_RANGE;
  uint64_t physical = 0, contiguous = 0;
  if (!file_->Translate(offset, &physical, &contiguous)) return api::ERR_IO_RANGE;
  if (contiguous >= bytes) {
    // Whole nodes only, as far as the fork runs on and the window holds.
    uint64_t take = contiguous < fileBytes - offset ? contiguous : fileBytes - offset;
    if (take > windowBytes_) take = windowBytes_;
    take -= take % bytes;
    status_t s = dev_->ReadBytes(physical, window_, uint32_t(take), 0);
    // A device cut short may still hold the node asked for.
    if (s != api::QORV_OK && s != api::ERR_DEVICE_GONE && take > bytes) {
      take = bytes;
      s = dev_->ReadBytes(physical, window_, bytes, 0);
    }
    QORV_TRY(s);
    windowAt_ = offset;
    windowHeld_ = uint32_t(take);
    return api::QORV_OK;
  }
  // A node split between extents is put together piece by piece.
  for (uint32_t done = 0; done < bytes;) {
    if (done && !file_->Translate(offset + done, &physical, &contiguous)) return api::ERR_IO_RANGE;
    uint32_t n = contiguous < bytes - done ? uint32_t(contiguous) : bytes - done;
    QORV_TRY(dev_->ReadBytes(physical, window_ + done, n, 0));
    done += n;
  }
  windowAt_ = offset;
  windowHeld_ = bytes;
  return api::QORV_OK;
}

status_t CHfsBTree::ReadNode(uint32_t n, ByteView* out) {
  if (!file_ || n >= nodeCount_) return api::ERR_IO_RANGE;
  const uint64_t at = uint64_t(n) * nodeSize_;
  uint64_t physical = 0, contiguous = 0;
  if (cached_ && file_->Translate(at, &physical, &contiguous) && contiguous >= nodeSize_)
    return cache_.Read(physical, out);
  if (!(windowHeld_ && at >= windowAt_ && at + nodeSize_ <= windowAt_ + windowHeld_))
    QORV_TRY(Fill(at, nodeSize_));
  *out = ByteView(window_ + (at - windowAt_), nodeSize_);
  return api::QORV_OK;
}

// ---------------------------------------------------------------- volume

CFileSystemHfs::~CFileSystemHfs() {
  catalogTree_.Close();
  extentsTree_.Close();
}

status_t CFileSystemHfs::ReadHeader(uint64_t offset, HfsVolumeHeader* out, bool* wrapper) {
  uint8_t raw[VolumeHeader::kSize];
  status_t s = dev_->ReadBytes(offset, raw, sizeof raw, 0);
  // A device too small to hold a header holds no volume.
  if (s == api::ERR_IO_RANGE) return api::ERR_NOT_RECOGNIZED;
  QORV_TRY(s);
  ByteView view(raw, sizeof raw);
  *wrapper = view.be16(VolumeHeader::kSignature) == VolumeHeader::kSignatureWrapper;
  if (*wrapper) return api::ERR_NOT_RECOGNIZED;
  out->Parse(view);
  return out->Acceptable() ? api::QORV_OK : api::ERR_NOT_RECOGNIZED;
}

status_t CFileSystemHfs::Mount(api::IDeviceRWBlock* dev) {
  if (!dev) return api::ERR_IO_RANGE;
  dev_ = dev;
  const uint64_t size = dev->GetSize();
  bool wrapper = false;
  status_t s = ReadHeader(VolumeHeader::kOffset, &vh_, &wrapper);
  // A wrapper around an HFS+ volume, and plain HFS, are not ours to read,
  // whatever lies at the device's end.
  if (s == api::ERR_NOT_RECOGNIZED && !wrapper && size >= VolumeHeader::kOffset + VolumeHeader::kAlternateFromEnd) {
    const uint64_t at = size - VolumeHeader::kAlternateFromEnd;
    s = ReadHeader(at, &vh_, &wrapper);
    if (s == api::QORV_OK) {
      alternate_ = true;
      alternateAt_ = at;
    }
  }
  QORV_TRY(s);
  shift_ = uint32_t(Log2Exact(vh_.blockSize));
  return api::QORV_OK;
}

void CFileSystemHfs::CollectFork(uint32_t fileId, uint8_t forkType, const HfsForkData& fork, CFileHfs* out) {
  out->Reset(fileId, forkType, fork.logicalSize, shift_, vh_.totalBlocks);
  bool more = out->Append(fork.first);
  if (fileId == kExtentsFileId || !extentsTree_.IsOpen()) return;
  HfsExtentRecord next;
  while (more && out->MappedBlocks() < fork.totalBlocks) {
    const uint64_t before = out->MappedBlocks();
    if (LookupExtents(HfsExtentKey{fileId, forkType, uint32_t(before)}, &next) != api::QORV_OK) break;
    more = out->Append(next);
    if (out->MappedBlocks() == before) break;
  }
}

status_t CFileSystemHfs::OpenExtentsTree() {
  CollectFork(kExtentsFileId, kDataFork, vh_.extentsFile, &extentsFile_);
  return extentsTree_.Open(dev_, &extentsFile_, 0);
}

status_t CFileSystemHfs::OpenCatalogTree() {
  CollectFork(kCatalogFileId, kDataFork, vh_.catalogFile, &catalogFile_);
  return catalogTree_.Open(dev_, &catalogFile_, kWalkWindowBytes);
}

namespace {

bool ParseExtentKey(ByteView record, HfsExtentKey* key) {
  if (record.be16(0) + kKeyLengthBytes < ExtentKey::kSize || !record.Has(0, ExtentKey::kSize)) return false;
  key->forkType = record.u8(ExtentKey::kForkType);
  key->fileId = record.be32(ExtentKey::kFileId);
  key->startBlock = record.be32(ExtentKey::kStartBlock);
  return true;
}

}  // namespace

status_t CFileSystemHfs::LookupExtents(const HfsExtentKey& key, HfsExtentRecord* out) {
  if (!extentsTree_.IsOpen()) return api::ERR_INCONSISTENT;
  CHfsBTree& tree = extentsTree_;
  const size_t fixedKeyBytes = kKeyLengthBytes + tree.MaxKeyLength();
  uint32_t node = tree.RootNode();
  CHfsEntryNumerator records;
  for (uint32_t depth = 0; depth < kMaxTreeDepth; ++depth) {
    ByteView view;
    QORV_TRY(tree.ReadNode(node, &view));
    QORV_TRY(records.Reset(view));
    const int8_t kind = records.Kind();
    if (kind == NodeDescriptor::kLeaf) {
      for (uint32_t i = 0; i < records.Count(); ++i) {
        ByteView rec;
        HfsExtentKey k;
        if (records.Record(i, &rec) != api::QORV_OK || !ParseExtentKey(rec, &k) || !(k == key)) continue;
        const size_t keyBytes = kKeyLengthBytes + rec.be16(0);
        if (rec.Size() < keyBytes || rec.Size() - keyBytes != Extent::kRecordSize) return api::ERR_INCONSISTENT;
        out->Parse(rec.Sub(keyBytes, Extent::kRecordSize));
        return api::QORV_OK;
      }
      return api::ERR_INCONSISTENT;
    }
    if (kind != NodeDescriptor::kIndex) return api::ERR_INCONSISTENT;
    // The child under the greatest key not above the one looked for.
    bool found = false;
    HfsExtentKey best;
    uint32_t child = 0;
    for (uint32_t i = 0; i < records.Count(); ++i) {
      ByteView rec;
      HfsExtentKey k;
      if (records.Record(i, &rec) != api::QORV_OK || !ParseExtentKey(rec, &k) || key < k) continue;
      if (found && k < best) continue;
      const size_t keyBytes = tree.VariableIndexKeys() ? kKeyLengthBytes + rec.be16(0) : fixedKeyBytes;
      if (!rec.Has(keyBytes, kChildPointerBytes)) continue;
      found = true;
      best = k;
      child = rec.be32(keyBytes);
    }
    if (!found) return api::ERR_INCONSISTENT;
    node = child;
  }
  return api::ERR_INCONSISTENT;  // deeper than any real tree: a cycle
}

}  // namespace QORV
