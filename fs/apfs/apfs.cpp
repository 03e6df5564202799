#include "fs/apfs/apfs.h"

#include <algorithm>
#include <cstring>

namespace QORV {
namespace apfs {

using api::status_t;

namespace {

constexpr uint64_t kModulus = 0xFFFFFFFFull;
// Words summed between reductions. From sums below 2^32, n words leave sum2
// below 2^32 * (1 + n + n(n+1)/2), which stays inside 64 bits up to about
// 92,000 words: a block of up to 64 KiB needs no modulo before its end.
constexpr size_t kWordsPerReduction = 16384;
static_assert(kWordsPerReduction * (kWordsPerReduction + 3) / 2 < kModulus, "the sums of Fletcher64 overflow");
// Chunks beyond what the block count makes that are still taken (a last
// partial chunk, rounding); more is damage.
constexpr uint64_t kSpareChunks = 16;

// A little-endian word; `p` has 4 bytes (the caller's loop bound).
inline uint64_t Word(const uint8_t* p) {
  uint32_t w;
  std::memcpy(&w, p, 4);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
  w = __builtin_bswap32(w);
#endif
  return w;
}

}  // namespace

uint64_t Fletcher64(const uint8_t* data, size_t size) {
  uint64_t sum1 = 0, sum2 = 0;
  const size_t words = size / 4;
  for (size_t i = obj::kOid / 4; i < words;) {
    const size_t end = std::min(words, i + kWordsPerReduction);
    // Four words a step: sum2 gains 4 * sum1 and each word weighted by how
    // many of the step's sums it enters, so the step's additions do not wait
    // on one another.
    for (; i + 4 <= end; i += 4) {
      const uint8_t* p = data + i * 4;
      const uint64_t a = Word(p), b = Word(p + 4), c = Word(p + 8), d = Word(p + 12);
      sum2 += 4 * sum1 + 4 * a + 3 * b + 2 * c + d;
      sum1 += a + b + c + d;
    }
    for (; i < end; ++i) {
      sum1 += Word(data + i * 4);
      sum2 += sum1;
    }
    sum1 %= kModulus;
    sum2 %= kModulus;
  }
  uint64_t low = kModulus - ((sum1 + sum2) % kModulus);
  uint64_t high = kModulus - ((sum1 + low) % kModulus);
  return (high << 32) | low;
}

bool ChecksumVerifies(ByteView object) {
  if (object.Size() < obj::kBytes) return false;
  return Fletcher64(object.Data(), object.Size()) == object.le64(obj::kCksum);
}

status_t CApfsObjectCheck::Check(uint64_t, uint8_t* unit, uint32_t size) {
  ByteView v(unit, size);
  if ((v.le32(obj::kType) & obj::kTypeMask) > kLastKnownType) return api::ERR_INCONSISTENT;
  if (v.le16(btn::kFlags) & btn::kNoHeader) return api::QORV_OK;
  if ((v.le32(obj::kType) & obj::kTypeMask) == kTypeNone || !ChecksumVerifies(v)) return api::ERR_INCONSISTENT;
  return api::QORV_OK;
}

// ---------------------------------------------------------------- superblock

status_t CApfsSuperBlock::ParseGeometry(ByteView head) {
  if (head.le32(nx::kMagicAt) != nx::kMagic) return api::ERR_NOT_RECOGNIZED;
  blockSize = head.le32(nx::kBlockSize);
  blockCount = head.le64(nx::kBlockCount);
  int shift = Log2Exact(blockSize);
  if (shift < 0 || blockSize < nx::kMinBlockSize || blockSize > nx::kMaxBlockSize || blockCount == 0)
    return api::ERR_INCONSISTENT;
  blockShift = uint32_t(shift);
  return api::QORV_OK;
}

bool CApfsSuperBlock::IsValid(ByteView block) {
  return block.le32(nx::kMagicAt) == nx::kMagic && (block.le32(obj::kType) & obj::kTypeMask) == kTypeNxSuperblock &&
         ChecksumVerifies(block);
}

// ---------------------------------------------------------------- B-tree nodes

bool CApfsTree::Load(ByteView node) {
  node_ = node;
  flags_ = node.le16(btn::kFlags);
  level_ = node.le16(btn::kLevel);
  declared_ = node.le32(btn::kNkeys);
  const size_t tocOff = node.le16(btn::kTableSpaceOff), tocLen = node.le16(btn::kTableSpaceLen);
  toc_ = btn::kData + tocOff;
  keys_ = toc_ + tocLen;
  valueEnd_ = node.Size() - ((flags_ & btn::kRoot) ? btn::kInfoBytes : 0);
  count_ = 0;
  if (node.Size() < btn::kData + btn::kInfoBytes || keys_ > valueEnd_) return false;
  const size_t entry = (flags_ & btn::kFixedKvSize) ? btn::kFixedEntryBytes : btn::kVarEntryBytes;
  count_ = uint32_t(std::min<uint64_t>(declared_, tocLen / entry));
  return true;
}

bool CApfsTree::Get(uint32_t i, size_t valueBytes, Entry* out) const {
  *out = Entry();
  if (i >= count_) return false;
  size_t keyOff, keyLen, valOff, valLen;
  if (flags_ & btn::kFixedKvSize) {
    const size_t at = toc_ + size_t(i) * btn::kFixedEntryBytes;
    keyOff = node_.le16(at), keyLen = 0, valOff = node_.le16(at + 2), valLen = valueBytes;
  } else {
    const size_t at = toc_ + size_t(i) * btn::kVarEntryBytes;
    keyOff = node_.le16(at), keyLen = node_.le16(at + 2), valOff = node_.le16(at + 4), valLen = node_.le16(at + 6);
    if (valLen < valueBytes) return false;
  }
  // Keys count from the end of the table of contents, values back from the
  // end of the node (before the root's tree information).
  const size_t keyAt = keys_ + keyOff;
  if (keyAt > valueEnd_ || keyLen > valueEnd_ - keyAt || valOff > valueEnd_ - keys_ || valLen > valOff) return false;
  out->key = node_.Sub(keyAt, keyLen ? keyLen : std::min<size_t>(valueEnd_ - keyAt, snap::kKeyBytes));
  out->value = node_.Sub(valueEnd_ - valOff, valLen);
  return true;
}

// ---------------------------------------------------------------- space manager

status_t CApfsBitmap::Add(const Chunk& c) {
  chunks_.push_back(c);
  return api::QORV_OK;
}

void CApfsBitmap::Sort() {
  std::sort(chunks_.begin(), chunks_.end(), [](const Chunk& a, const Chunk& b) { return a.first < b.first; });
}

const CApfsBitmap::Chunk* CApfsBitmap::Find(uint64_t block) const {
  auto at = std::upper_bound(chunks_.begin(), chunks_.end(), block,
                             [](uint64_t b, const Chunk& c) { return b < c.first; });
  if (at == chunks_.begin()) return nullptr;
  const Chunk& c = *std::prev(at);
  return block - c.first < c.count ? &c : nullptr;
}

status_t CApfsBitmap::LoadBitmap(uint64_t address, bool* ok) {
  if (loaded_ == address) {
    *ok = loadedOk_;
    return api::QORV_OK;
  }
  loaded_ = UINT64_MAX;
  *ok = false;
  if (!dev_ || address >= blockCount_) return api::QORV_OK;
  status_t s = dev_->ReadBytes(address << blockShift_, buf_, blockSize_, 0);
  ++bitmapReads_;
  if (s == api::ERR_DEVICE_GONE || s == api::ERR_NO_MEMORY) return s;
  loaded_ = address;
  loadedOk_ = *ok = (s == api::QORV_OK);
  return api::QORV_OK;
}

status_t CApfsBitmap::RunIs(bool wantUsed, uint64_t first, uint64_t n, bool* answer) {
  *answer = false;
  for (uint64_t b = first, end = first + n; b < end;) {
    const Chunk* c = Find(b);
    if (!c) {
      // Blocks no chunk covers count as used.
      if (!wantUsed) return api::QORV_OK;
      ++b;
      continue;
    }
    const uint64_t stop = std::min(end, c->first + c->count);
    bool allFree = c->free >= c->count, allUsed = c->free == 0;
    bool bitmapOk = false;
    if (!allFree && !allUsed) {
      if (c->bitmap) QORV_TRY(LoadBitmap(c->bitmap, &bitmapOk));
      if (!bitmapOk) allUsed = true;  // unknown: keep it
    }
    if (allFree || allUsed) {
      if (allUsed != wantUsed) return api::QORV_OK;
      b = stop;
      continue;
    }
    const uint8_t want = wantUsed ? 0xFF : 0x00;
    for (uint64_t bit = b - c->first, last = stop - c->first; bit < last;) {
      if ((bit & 7) == 0 && last - bit >= 8) {
        if (buf_[bit >> 3] != want) return api::QORV_OK;
        bit += 8;
        continue;
      }
      if (bool((buf_[bit >> 3] >> (bit & 7)) & 1) != wantUsed) return api::QORV_OK;
      ++bit;
    }
    b = stop;
  }
  *answer = true;
  return api::QORV_OK;
}

status_t CApfsBitmap::WalkRuns(uint64_t blockCount, IApfsRunSink* sink) {
  bool used = true;
  uint64_t n = 1, runStart = 0, flippedAt = UINT64_MAX;
  for (uint64_t at = 0; at < blockCount;) {
    if (n > blockCount - at) n = blockCount - at;
    bool holds = false;
    ++probes_;
    QORV_TRY(RunIs(used, at, n, &holds));
    if (holds) {
      at += n;
      n = n > (UINT64_MAX >> 1) ? n : n * 2;
      QORV_TRY(sink->Reached(at));
      continue;
    }
    if (n > 1) {
      n = 1;
      continue;
    }
    // The run ends here: hand a used one over, then go on in the other state.
    // A block that is neither (never on an intact map) is kept and passed.
    if (used && at > runStart) QORV_TRY(sink->UsedRun(runStart, at - runStart));
    if (at == flippedAt) {
      QORV_TRY(sink->UsedRun(at, 1));
      runStart = ++at;
      continue;
    }
    flippedAt = at;
    used = !used;
    runStart = at;
  }
  if (used && blockCount > runStart) QORV_TRY(sink->UsedRun(runStart, blockCount - runStart));
  return api::QORV_OK;
}

// ---------------------------------------------------------------- file system

CApfsFileSystem::~CApfsFileSystem() {
  if (window_) env_->mem->Free(window_);
  if (block0_) env_->mem->Free(block0_);
  if (scratch_) env_->mem->Free(scratch_);
}

status_t CApfsFileSystem::Mount(api::IDeviceRWBlock* dev, uint32_t flags, bool cipherAvailable) {
  if (!dev || !(flags & kMountReadOnly)) return api::ERR_NOT_SUPPORTED;
  dev_ = dev;
  cipher_ = cipherAvailable;
  const uint64_t size = dev->GetSize();
  if (size < nx::kMinBlockSize) return api::ERR_NOT_RECOGNIZED;
  uint8_t head[nx::kMinBlockSize];
  QORV_TRY(dev->ReadBytes(0, head, sizeof head, 0));
  QORV_TRY(sb_.ParseGeometry(ByteView(head, sizeof head)));
  blockCount_ = std::min<uint64_t>(sb_.blockCount, size >> sb_.blockShift);
  if (blockCount_ == 0) return api::ERR_INCONSISTENT;
  block0_ = static_cast<uint8_t*>(env_->mem->Allocate(sb_.blockSize, 0));
  scratch_ = static_cast<uint8_t*>(env_->mem->Allocate(size_t(sb_.blockSize) * 2, 0));
  if (!block0_ || !scratch_) return api::ERR_NO_MEMORY;
  QORV_TRY(dev->ReadBytes(0, block0_, sb_.blockSize, 0));
  QORV_TRY(reader_.Init(dev, sb_.blockSize, blockCount_ << sb_.blockShift));
  reader_.SetCheck(&check_);
  return api::QORV_OK;
}

status_t CApfsFileSystem::ReadObject(uint64_t block, ByteView* out) {
  if (block - windowFirst_ < windowCount_) {
    uint8_t* unit = window_ + ((block - windowFirst_) << sb_.blockShift);
    *out = ByteView();
    QORV_TRY(check_.Check(block << sb_.blockShift, unit, sb_.blockSize));
    *out = ByteView(unit, sb_.blockSize);
    return api::QORV_OK;
  }
  return reader_.Read(block << sb_.blockShift, out);
}

status_t CApfsFileSystem::LoadWindow(uint64_t first, uint64_t count, uint64_t* held) {
  *held = 0;
  if (!window_) {
    window_ = static_cast<uint8_t*>(env_->mem->Allocate(kWindowBytes, 0));
    if (!window_) return api::ERR_NO_MEMORY;
    windowCount_ = 0;
  }
  const uint64_t most = kWindowBytes >> sb_.blockShift;
  if (first >= blockCount_) return api::ERR_IO_RANGE;
  uint64_t n = std::min<uint64_t>({count, most, blockCount_ - first});
  // Already held (the descriptor area, read while looking for the space
  // manager, is swept again by the walk): the source does not change.
  if (windowCount_ == n && windowFirst_ == first) {
    *held = n;
    return api::QORV_OK;
  }
  windowCount_ = 0;
  QORV_TRY(dev_->ReadBytes(first << sb_.blockShift, window_, uint32_t(n << sb_.blockShift), 0));
  windowFirst_ = first;
  windowCount_ = *held = n;
  return api::QORV_OK;
}

status_t CApfsFileSystem::ReadRaw(uint64_t block, uint8_t* buffer) {
  if (block >= blockCount_) return api::ERR_IO_RANGE;
  return dev_->ReadBytes(block << sb_.blockShift, buffer, sb_.blockSize, 0);
}

// The newest checkpoint's superblock (highest transaction among those of the
// descriptor area that verify, block 0 when none does), and in its checkpoint
// maps the space manager's address.
status_t CApfsFileSystem::FindSpaceman(uint64_t* address) {
  *address = 0;
  ByteView b0 = Block0();
  const uint64_t descBase = b0.le64(nx::kXpDescBase);
  const uint64_t descBlocks = b0.le32(nx::kXpDescBlocks) & ~nx::kAreaNotContiguous;
  uint64_t best = UINT64_MAX, bestXid = 0;
  // A window at a time; the walk's sweep then finds the area's first window
  // still held.
  const uint64_t inside = descBase < blockCount_ ? std::min(descBlocks, blockCount_ - descBase) : 0;
  for (uint64_t i = 0; i < inside;) {
    uint64_t held = 0;
    const status_t w = LoadWindow(descBase + i, inside - i, &held);
    if (w == api::ERR_DEVICE_GONE || w == api::ERR_NO_MEMORY) return w;
    // A window that cannot be read is tried block by block: one bad block
    // loses only itself.
    if (w != api::QORV_OK) held = std::min<uint64_t>(inside - i, kWindowBytes >> sb_.blockShift);
    for (uint64_t end = i + held; i < end; ++i) {
      ByteView v;
      if (ReadObject(descBase + i, &v) != api::QORV_OK || !CApfsSuperBlock::IsValid(v)) continue;
      if (best == UINT64_MAX || v.le64(obj::kXid) > bestXid) best = descBase + i, bestXid = v.le64(obj::kXid);
    }
  }
  uint8_t* sb = scratch_;
  if (best == UINT64_MAX) {
    if (!Block0Valid()) return api::ERR_INCONSISTENT;
    env_->mem->Copy(sb, block0_, sb_.blockSize);
  } else {
    ByteView v;
    QORV_TRY(ReadObject(best, &v));
    env_->mem->Copy(sb, v.Data(), sb_.blockSize);
  }
  ByteView s(sb, sb_.blockSize);
  const uint64_t oid = s.le64(nx::kSpacemanOid);
  const uint64_t index = s.le32(nx::kXpDescIndex), len = s.le32(nx::kXpDescLen);
  if (descBlocks == 0) return api::ERR_INCONSISTENT;
  // The checkpoint's blocks run from its first index, wrapping round the area.
  for (uint64_t i = 0; i < len && i < descBlocks; ++i) {
    const uint64_t block = descBase + (index + i) % descBlocks;
    ByteView m;
    if (block >= blockCount_ || ReadObject(block, &m) != api::QORV_OK) continue;
    if ((m.le32(obj::kType) & obj::kTypeMask) != kTypeCheckpointMap) continue;
    const uint64_t count = m.le32(cpm::kCount);
    for (uint64_t e = 0; e < count && m.Has(cpm::kMap + e * cpm::kEntryBytes, cpm::kEntryBytes); ++e) {
      const size_t at = cpm::kMap + e * cpm::kEntryBytes;
      if (m.le64(at + cpm::kOid) == oid && (m.le32(at + cpm::kType) & obj::kTypeMask) == kTypeSpaceman) {
        *address = m.le64(at + cpm::kPaddr);
        return api::QORV_OK;
      }
    }
  }
  return api::ERR_INCONSISTENT;
}

status_t CApfsFileSystem::AddCib(CApfsBitmap* bitmap, CApfsBitmap::Damage* damage, uint64_t address) {
  ByteView v;
  status_t s = address < blockCount_ ? ReadObject(address, &v) : api::ERR_IO_RANGE;
  if (s == api::ERR_DEVICE_GONE || s == api::ERR_NO_MEMORY) return s;
  if (s != api::QORV_OK || (v.le32(obj::kType) & obj::kTypeMask) != kTypeSpacemanCib) {
    ++damage->unreadable;
    return api::QORV_OK;
  }
  const uint64_t count = v.le32(cib::kCount);
  const uint64_t perChunk = uint64_t(sb_.blockSize) * 8;
  for (uint64_t i = 0; i < count; ++i) {
    const size_t at = cib::kInfos + i * cib::kInfoBytes;
    if (!v.Has(at, cib::kInfoBytes)) {
      ++damage->outOfRange;
      break;
    }
    CApfsBitmap::Chunk c;
    c.first = v.le64(at + cib::kAddr);
    c.count = v.le32(at + cib::kBlockCount);
    c.free = v.le32(at + cib::kFreeCount);
    c.bitmap = v.le64(at + cib::kBitmapAddr);
    // A chunk's bitmap is one block: it never covers more blocks than that holds bits.
    if (c.first >= blockCount_ || c.count == 0 || c.count > perChunk || c.bitmap >= blockCount_) {
      ++damage->outOfRange;
      if (c.first >= blockCount_ || c.count == 0) continue;
      if (c.count > perChunk) c.count = uint32_t(perChunk);
      if (c.bitmap >= blockCount_) c.bitmap = 0;
    }
    if (c.count > blockCount_ - c.first) c.count = uint32_t(blockCount_ - c.first);
    // No more chunks are kept than the container's blocks make.
    if (bitmap->Size() >= (blockCount_ + perChunk - 1) / perChunk + kSpareChunks) {
      ++damage->outOfRange;
      break;
    }
    QORV_TRY(bitmap->Add(c));
  }
  return api::QORV_OK;
}

status_t CApfsFileSystem::LoadSpaceman(CApfsBitmap* bitmap, CApfsBitmap::Damage* damage) {
  bitmap->Clear();
  uint64_t address = 0;
  QORV_TRY(FindSpaceman(&address));
  ByteView v;
  if (address >= blockCount_) return api::ERR_INCONSISTENT;
  QORV_TRY(ReadObject(address, &v));
  if ((v.le32(obj::kType) & obj::kTypeMask) != kTypeSpaceman) return api::ERR_INCONSISTENT;
  uint8_t* sm = scratch_;
  uint8_t* cabBuf = scratch_ + sb_.blockSize;
  env_->mem->Copy(sm, v.Data(), sb_.blockSize);
  ByteView s(sm, sb_.blockSize);
  const uint64_t cibs = s.le32(sm::kDevCibCount), cabs = s.le32(sm::kDevCabCount);
  const uint64_t addrAt = s.le32(sm::kDevAddrOffset);
  // However many chunk-info blocks the space manager claims, no more are read
  // than the container's blocks need (each holds at least one chunk).
  const uint64_t perChunk = uint64_t(sb_.blockSize) * 8;
  uint64_t budget = blockCount_ / perChunk + 2;
  const uint64_t listed = cabs ? cabs : cibs;
  for (uint64_t i = 0; i < listed && budget; ++i) {
    if (!s.Has(addrAt + i * 8, 8)) {
      ++damage->outOfRange;
      break;
    }
    const uint64_t a = s.le64(addrAt + i * 8);
    if (!cabs) {
      --budget;
      QORV_TRY(AddCib(bitmap, damage, a));
      continue;
    }
    ByteView c;
    status_t r = a < blockCount_ ? ReadObject(a, &c) : api::ERR_IO_RANGE;
    if (r == api::ERR_DEVICE_GONE || r == api::ERR_NO_MEMORY) return r;
    if (r != api::QORV_OK || (c.le32(obj::kType) & obj::kTypeMask) != kTypeSpacemanCab) {
      ++damage->unreadable;
      continue;
    }
    env_->mem->Copy(cabBuf, c.Data(), sb_.blockSize);
    ByteView cab(cabBuf, sb_.blockSize);
    const uint64_t n = cab.le32(cab::kCount);
    for (uint64_t j = 0; j < n && budget; ++j, --budget) {
      if (!cab.Has(cab::kAddrs + j * 8, 8)) {
        ++damage->outOfRange;
        break;
      }
      QORV_TRY(AddCib(bitmap, damage, cab.le64(cab::kAddrs + j * 8)));
    }
  }
  if (bitmap->Size() == 0) return api::ERR_INCONSISTENT;
  bitmap->Sort();
  bitmap->SetReader(dev_, cabBuf, sb_.blockSize, sb_.blockShift, blockCount_);
  return api::QORV_OK;
}

}  // namespace apfs
}  // namespace QORV
