// The NTFS volume: boot sector, geometry, read marking, fix-ups, run lists,
// the MFT and the $LogFile restart area.
#include "fs/ntfs/ntfs.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace QORV {

using namespace ntfs;

namespace {

// The MFT's own run list; more runs than this is not a real volume.
constexpr size_t kMaxMftRuns = 1u << 16;
// Record decoding of a size field: negative v is 2^-v bytes, else v clusters.
// Returns 0 when the value is not acceptable.
uint64_t DecodeSize(int8_t v, uint64_t clusterSize) {
  if (v < 0) {
    int shift = -int(v);
    return shift < 8 || shift > 31 ? 0 : uint64_t(1) << shift;
  }
  return IsPowerOfTwo(uint64_t(v)) ? uint64_t(v) * clusterSize : 0;
}

}  // namespace

// ---- Run lists -------------------------------------------------------------

CNtfsRunDecoder::CNtfsRunDecoder(const ByteView& pairs, uint64_t firstVcn, uint64_t lastVcn)
    : pairs_(pairs), vcn_(firstVcn), vcnEnd_(lastVcn + 1) {
  // An empty extent says lastVcn = firstVcn - 1; anything lower is malformed.
  if (lastVcn != UINT64_MAX && lastVcn + 1 < firstVcn) bad_ = true;
}

api::status_t CNtfsRunDecoder::Next(NtfsRun* out) {
  if (bad_) return api::ERR_INCONSISTENT;
  uint8_t head = pairs_.u8(pos_);
  if (!pairs_.Has(pos_, 1) || head == 0) return api::ERR_END_OF_DIR;
  uint32_t lengthBytes = head & 0xF, offsetBytes = head >> 4;
  if (lengthBytes == 0 || lengthBytes > 8 || offsetBytes > 8 || !pairs_.Has(pos_ + 1, lengthBytes + offsetBytes)) {
    bad_ = true;
    return api::ERR_INCONSISTENT;
  }
  uint64_t length = 0;
  for (uint32_t i = lengthBytes; i-- > 0;) length = (length << 8) | pairs_.u8(pos_ + 1 + i);
  // Lengths are signed on disk; a negative or zero one, or one running past
  // the extent's VCN range, is no run list.
  if (length == 0 || (length >> 62) != 0 || vcn_ > vcnEnd_ || length > vcnEnd_ - vcn_) {
    bad_ = true;
    return api::ERR_INCONSISTENT;
  }
  out->vcn = vcn_;
  out->length = length;
  if (offsetBytes == 0) {
    out->lcn = NtfsRun::kHole;
  } else {
    uint64_t raw = 0;
    for (uint32_t i = offsetBytes; i-- > 0;) raw = (raw << 8) | pairs_.u8(pos_ + 1 + lengthBytes + i);
    if (offsetBytes < 8 && (raw >> (offsetBytes * 8 - 1)) & 1) raw |= ~uint64_t(0) << (offsetBytes * 8);
    int64_t next;
    if (__builtin_add_overflow(lcn_, int64_t(raw), &next) || next < 0) {
      bad_ = true;
      return api::ERR_INCONSISTENT;
    }
    lcn_ = next;
    out->lcn = uint64_t(next);
  }
  vcn_ += length;
  pos_ += 1 + lengthBytes + offsetBytes;
  return api::QORV_OK;
}

api::status_t CFileSystemNtfs::DecodeRuns(const NtfsAttr& a, std::vector<NtfsRun>* out, size_t maxRuns) {
  if (!a.nonResident) return api::ERR_INCONSISTENT;
  CNtfsRunDecoder dec(a.pairs, a.lowestVcn, a.highestVcn);
  NtfsRun run;
  api::status_t s;
  while ((s = dec.Next(&run)) == api::QORV_OK) {
    if (out->size() >= maxRuns) return api::ERR_INCONSISTENT;
    out->push_back(run);
  }
  return s == api::ERR_END_OF_DIR ? api::QORV_OK : s;
}

// ---- Fix-up ----------------------------------------------------------------

CNtfsFixup::CNtfsFixup(const char* magic) {
  // The tag as the header's first four bytes read little-endian, so that one
  // compare tells it.
  magic_ = ByteView(magic, 4).le32(0);
}

namespace {

// The fix-up itself, inline where every MFT record goes through it.
inline api::status_t Fixup(uint32_t magic, uint8_t* unit, uint32_t size) {
  ByteView v(unit, size);
  FixedWindow<Protected::kUsaCount + 2> h;
  if (!v.Window(0, &h)) return api::ERR_INCONSISTENT;
  if (h.le32<Protected::kMagic>() != magic) return h.le64<0>() == 0 ? kNtfsBlankUnit : api::ERR_INCONSISTENT;
  const uint32_t usa = h.le16<Protected::kUsaOffset>(), count = h.le16<Protected::kUsaCount>();
  const uint32_t strides = size / Protected::kStride;
  if (strides == 0 || count != strides + 1 || (usa & 1) || usa < 8 || !v.Has(usa, size_t(count) * 2))
    return api::ERR_INCONSISTENT;
  // The array holds the sequence number and then one entry per stride; it
  // lies inside the unit (checked above), and so does each stride's tail.
  // The array itself must not lie in a stride's protected tail; only one
  // that reaches the first tail can.
  if (usa + size_t(count) * 2 >= Protected::kStride) {
    for (uint32_t i = 0; i < strides; ++i) {
      size_t end = size_t(i + 1) * Protected::kStride - 2;
      if (usa + 2 + i * 2 >= end && usa <= end + 1) return api::ERR_INCONSISTENT;
    }
  }
  const uint8_t* saved = unit + usa;
  uint8_t* const last = unit + size_t(strides) * Protected::kStride;
  for (uint8_t* tail = unit + Protected::kStride - 2; tail < last; tail += Protected::kStride)
    if (tail[0] != saved[0] || tail[1] != saved[1]) return api::ERR_INCONSISTENT;
  for (uint8_t* tail = unit + Protected::kStride - 2; tail < last; tail += Protected::kStride) {
    saved += 2;
    tail[0] = saved[0];
    tail[1] = saved[1];
  }
  return api::QORV_OK;
}

}  // namespace

api::status_t CNtfsFixup::Check(uint64_t, uint8_t* unit, uint32_t size) { return Fixup(magic_, unit, size); }

// ---- Read marking ------------------------------------------------------------

void CNtfsMarkingDevice::Attach(BlockBitmap* used, uint32_t clusterShift, uint64_t clusterCount) {
  used_ = used;
  shift_ = clusterShift;
  count_ = clusterCount;
}

api::status_t CNtfsMarkingDevice::ReadBytes(uint64_t offset, void* buffer, uint32_t count, uint32_t flags) {
  if (used_ && count) {
    // The end is the last byte rounded up to a cluster boundary, as the
    // volume's readers have always computed it.
    const uint64_t mask = (uint64_t(1) << shift_) - 1;
    uint64_t first = offset >> shift_;
    uint64_t last = offset + count - 1;
    uint64_t end = last < offset || last > UINT64_MAX - mask ? UINT64_MAX : ((last + mask) & ~mask) >> shift_;
    if (end <= count_) {
      if (end > first) used_->Mark(first, end - first);
    } else {
      ++outOfRange_;
    }
  }
  return lower_->ReadBytes(offset, buffer, count, flags);
}

// ---- Attributes ------------------------------------------------------------

bool NtfsNameIs(ByteView name, const char* ascii) {
  size_t n = std::strlen(ascii);
  if (name.Size() != n * 2) return false;
  for (size_t i = 0; i < n; ++i)
    if (name.le16(i * 2) != uint8_t(ascii[i])) return false;
  return true;
}


void NtfsAttrKey::Set(const NtfsAttr& a) {
  type = a.type;
  nameLength = uint8_t(a.name.Size() / 2);
  std::memcpy(name, a.name.Data() ? a.name.Data() : name, size_t(nameLength) * 2);
}

bool NtfsAttrKey::Matches(uint32_t t, const ByteView& n) const {
  return t == type && n.Size() == size_t(nameLength) * 2 && (nameLength == 0 || n.Equals(0, name, n.Size()));
}

api::status_t CNtfsAttrIter::Next(NtfsAttr* out) {
  NtfsAttrHead head;
  QORV_TRY(Skim(&head));
  // Skim checked every offset and length used here.
  ByteView a = rec_.Sub(head.at, rec_.le32(head.at + Attr::kLength));
  *out = NtfsAttr();
  out->raw = a;
  out->type = head.type;
  out->nonResident = head.nonResident;
  out->flags = a.le16(Attr::kFlags);
  out->id = a.le16(Attr::kId);
  out->name = head.name;
  if (!out->nonResident) {
    out->valueOffset = a.le16(Attr::kValueOffset);
    out->value = a.Sub(out->valueOffset, a.le32(Attr::kValueLength));
  } else {
    uint32_t pairs = a.le16(Attr::kPairsOffset);
    out->lowestVcn = head.lowestVcn;
    out->highestVcn = a.le64(Attr::kHighestVcn);
    out->allocatedSize = a.le64(Attr::kAllocatedSize);
    out->dataSize = a.le64(Attr::kDataSize);
    out->initializedSize = a.le64(Attr::kInitializedSize);
    out->pairs = a.Sub(pairs, a.Size() - pairs);
  }
  return api::QORV_OK;
}

// ---- Volume ------------------------------------------------------------------

CFileSystemNtfs::CFileSystemNtfs(api::CLibEnv* env) : env_(env), records_(env->mem), indexBlocks_(env->mem) {}

CFileSystemNtfs::~CFileSystemNtfs() {
  if (work_) env_->mem->Free(work_);
  if (unit_) env_->mem->Free(unit_);
}

void CFileSystemNtfs::Problem(const char* format, ...) {
  if (!session_) return;
  char text[224];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  session_->Problem("%s", text);
}

bool CFileSystemNtfs::CheckBootSector(const ByteView& boot) {
  if (!(boot.Equals(Boot::kOemName, "NT", 2) || boot.Equals(Boot::kOemName, "BC", 2)) ||
      !boot.Equals(Boot::kOemName + 2, "FS    ", 6))
    return false;
  if (boot.u8(Boot::kBytesPerSectorLow) != 0 || boot.u8(Boot::kBytesPerSectorHigh) < 2) return false;
  uint32_t spcRaw = boot.u8(Boot::kSectorsPerCluster);
  uint64_t spc = spcRaw > 128 ? (256 - spcRaw < 32 ? uint64_t(1) << (256 - spcRaw) : 0) : spcRaw;
  if (!IsPowerOfTwo(spc)) return false;
  uint64_t total = boot.le64(Boot::kTotalSectors);
  uint64_t mft = boot.le64(Boot::kMftCluster), mirr = boot.le64(Boot::kMftMirrCluster);
  if (mft > UINT64_MAX / spc || mft * spc >= total || mirr > UINT64_MAX / spc || mirr * spc >= total) return false;
  for (size_t at : {Boot::kClustersPerRecord, Boot::kClustersPerIndex}) {
    int8_t v = int8_t(boot.u8(at));
    if (v < 0) {
      if (-int(v) >= 63 || (uint64_t(2) << -int(v)) < 512) return false;
    } else if (!IsPowerOfTwo(uint64_t(v))) {
      return false;
    }
  }
  return true;
}

api::status_t CFileSystemNtfs::TakeGeometry(const ByteView& boot) {
  geo_.bytesPerSector = uint32_t(boot.u8(Boot::kBytesPerSectorHigh)) * 256;
  uint32_t spcRaw = boot.u8(Boot::kSectorsPerCluster);
  uint64_t spc = spcRaw > 128 ? uint64_t(1) << (256 - spcRaw) : spcRaw;
  uint64_t cluster = uint64_t(geo_.bytesPerSector) * spc;
  // Sector sizes that are not powers of two, or clusters beyond 2 GiB, are
  // no volume this driver reads.
  if (cluster < geo_.bytesPerSector || !IsPowerOfTwo(cluster) || cluster > (uint64_t(1) << 31))
    return api::ERR_NOT_RECOGNIZED;
  geo_.clusterSize = uint32_t(cluster);
  geo_.clusterShift = uint32_t(Log2Exact(cluster));
  uint64_t record = DecodeSize(int8_t(boot.u8(Boot::kClustersPerRecord)), cluster);
  uint64_t index = DecodeSize(int8_t(boot.u8(Boot::kClustersPerIndex)), cluster);
  if (record < 512 || record > kMaxRecordSize || index < 512 || index > kMaxRecordSize) return api::ERR_NOT_RECOGNIZED;
  geo_.recordSize = uint32_t(record);
  geo_.recordShift = uint32_t(Log2Exact(record));
  geo_.clustersPerRecord = record > cluster ? uint32_t(record / cluster) : 1;
  geo_.indexSize = uint32_t(index);
  geo_.serial = boot.le64(Boot::kSerial);
  geo_.mftCluster = boot.le64(Boot::kMftCluster);
  geo_.mftMirrCluster = boot.le64(Boot::kMftMirrCluster);
  uint64_t total = boot.le64(Boot::kTotalSectors);
  if (total > UINT64_MAX / geo_.bytesPerSector) return api::ERR_IO_RANGE;
  geo_.volumeBytes = total * geo_.bytesPerSector;
  geo_.clusterCount = geo_.volumeBytes >> geo_.clusterShift;
  if (geo_.clusterCount > UINT32_MAX) return api::ERR_IO_RANGE;
  geo_.ioUnit = std::min<uint32_t>(geo_.clusterSize, 4096);
  geo_.ioShift = uint32_t(Log2Exact(geo_.ioUnit));
  return api::QORV_OK;
}

api::status_t CFileSystemNtfs::Mount(api::IDeviceRWBlock* dev) {
  device_.SetLower(dev);
  backupBoot_ = false;
  const uint64_t length = dev->GetSize();
  uint8_t boot[Boot::kSize];
  QORV_TRY(device_.ReadBytes(0, boot, sizeof boot, 0));
  if (!CheckBootSector(ByteView(boot, sizeof boot))) {
    if (length < Boot::kSize || device_.ReadBytes(length - Boot::kSize, boot, sizeof boot, 0) != api::QORV_OK ||
        !CheckBootSector(ByteView(boot, sizeof boot)))
      return api::ERR_NOT_RECOGNIZED;
    backupBoot_ = true;
  }
  QORV_TRY(TakeGeometry(ByteView(boot, sizeof boot)));
  work_ = static_cast<uint8_t*>(env_->mem->Allocate(size_t(geo_.recordSize) * 2, 0));
  unit_ = static_cast<uint8_t*>(env_->mem->Allocate(std::max(geo_.recordSize, geo_.clusterSize), 0));
  if (!work_ || !unit_) return api::ERR_NO_MEMORY;
  const uint64_t limit = geo_.clusterCount << geo_.clusterShift;
  QORV_TRY(records_.Init(&device_, geo_.recordSize, limit, 16));
  records_.SetCheck(&fileFixup_);
  QORV_TRY(indexBlocks_.Init(&device_, geo_.indexSize, limit, 8));
  indexBlocks_.SetCheck(&indexFixup_);
  return api::QORV_OK;
}

// ---- Streams -----------------------------------------------------------------

uint64_t CFileSystemNtfs::MapStream(const std::vector<NtfsRun>& runs, uint64_t pos, uint64_t* contiguous) const {
  uint64_t vcn = pos >> geo_.clusterShift;
  auto it = std::upper_bound(runs.begin(), runs.end(), vcn, [](uint64_t v, const NtfsRun& r) { return v < r.vcn; });
  if (it == runs.begin()) return UINT64_MAX;
  const NtfsRun& r = *--it;
  if (vcn - r.vcn >= r.length || r.lcn == NtfsRun::kHole) return UINT64_MAX;
  if (r.lcn >= geo_.clusterCount || r.length > geo_.clusterCount - r.lcn) return UINT64_MAX;
  uint64_t within = pos - (r.vcn << geo_.clusterShift);
  *contiguous = (r.length << geo_.clusterShift) - within;
  return (r.lcn << geo_.clusterShift) + within;
}

api::status_t CFileSystemNtfs::ReadStream(const std::vector<NtfsRun>& runs, uint64_t pos, void* buf, uint32_t n) {
  auto* out = static_cast<uint8_t*>(buf);
  while (n) {
    uint64_t contiguous = 0;
    uint64_t at = MapStream(runs, pos, &contiguous);
    if (at == UINT64_MAX) return api::ERR_IO_RANGE;
    uint32_t piece = uint32_t(std::min<uint64_t>(n, contiguous));
    QORV_TRY(Read(at, out, piece));
    out += piece;
    pos += piece;
    n -= piece;
  }
  return api::QORV_OK;
}

// ---- Records -----------------------------------------------------------------

uint64_t CFileSystemNtfs::RecordOffset(uint64_t r, bool* contiguous) const {
  *contiguous = true;
  if (r > (UINT64_MAX >> geo_.recordShift)) return UINT64_MAX;
  uint64_t pos = r << geo_.recordShift;
  if (!mftLoaded_) {
    // Before $MFT is loaded only its first records are read, from where the
    // boot sector says it starts.
    uint64_t start = geo_.mftCluster << geo_.clusterShift;
    return start + pos + geo_.recordSize > (geo_.clusterCount << geo_.clusterShift) ? UINT64_MAX : start + pos;
  }
  if (r >= recordCount_) return UINT64_MAX;
  uint64_t run = 0;
  uint64_t at = MapStream(mftRuns_, pos, &run);
  if (at != UINT64_MAX && run < geo_.recordSize) *contiguous = false;
  return at;
}

uint64_t CFileSystemNtfs::RecordRunBytes(uint64_t r) const {
  uint64_t run = 0;
  if (!mftLoaded_ || r >= recordCount_ || MapStream(mftRuns_, r << geo_.recordShift, &run) == UINT64_MAX) return 0;
  return run;
}

// The header fields every later parse relies on: where the attributes
// start and how many bytes are in use, inside the record.
static inline api::status_t CheckRecordHeader(const ByteView& v) {
  FixedWindow<Record::kBytesInUse + 4> h;
  if (!v.Window(0, &h)) return api::ERR_INCONSISTENT;
  uint32_t attrs = h.le16<Record::kAttrOffset>(), inUse = h.le32<Record::kBytesInUse>();
  if (attrs < Record::kMinAttrOffset || (attrs & 7) || inUse > v.Size() || attrs >= inUse) return api::ERR_INCONSISTENT;
  return api::QORV_OK;
}

api::status_t CFileSystemNtfs::CheckRecord(uint64_t, uint8_t* rec) {
  QORV_TRY(Fixup(fileFixup_.Magic(), rec, geo_.recordSize));
  return CheckRecordHeader(ByteView(rec, geo_.recordSize));
}

api::status_t CFileSystemNtfs::ReadRecord(uint64_t r, ByteView* out) {
  *out = ByteView();
  bool contiguous = true;
  uint64_t at = RecordOffset(r, &contiguous);
  if (at == UINT64_MAX) return api::ERR_IO_RANGE;
  if (contiguous) {
    ByteView v;
    QORV_TRY(records_.Read(at, &v));
    // The cache ran the fix-up; the header checks come on top.
    QORV_TRY(CheckRecordHeader(v));
    *out = v;
    return api::QORV_OK;
  }
  // A record split between two runs of a fragmented MFT.
  QORV_TRY(ReadStream(mftRuns_, r << geo_.recordShift, work_, geo_.recordSize));
  QORV_TRY(CheckRecord(at, work_));
  *out = ByteView(work_, geo_.recordSize);
  return api::QORV_OK;
}

api::status_t CFileSystemNtfs::ReadIndexBlock(uint64_t offset, ByteView* out) { return indexBlocks_.Read(offset, out); }

api::status_t CFileSystemNtfs::ReadIndexBlockAt(const std::vector<NtfsRun>& runs, uint64_t pos, uint8_t* buf) {
  QORV_TRY(ReadStream(runs, pos, buf, geo_.indexSize));
  return indexFixup_.Check(0, buf, geo_.indexSize);
}

// ---- $MFT ----------------------------------------------------------------------

namespace {

// Collects the runs of one extent after those already held, refusing an
// extent that does not continue where the last one ended.
class AppendRuns : public INtfsRunSink {
 public:
  explicit AppendRuns(std::vector<NtfsRun>* runs) : runs_(runs) {}
  api::status_t Run(const NtfsRun& r) override {
    if (runs_->size() >= kMaxMftRuns) return api::ERR_INCONSISTENT;
    uint64_t next = runs_->empty() ? 0 : runs_->back().vcn + runs_->back().length;
    if (r.vcn != next) return api::ERR_INCONSISTENT;
    runs_->push_back(r);
    return api::QORV_OK;
  }

 private:
  std::vector<NtfsRun>* runs_;
};

}  // namespace

api::status_t CFileSystemNtfs::LoadMft() {
  api::status_t s = LoadMftFrom(geo_.mftCluster);
  if (s != api::QORV_OK) mftLoaded_ = false;
  return s;
}

api::status_t CFileSystemNtfs::LoadMftFrom(uint64_t cluster) {
  mftLoaded_ = false;
  mftRuns_.clear();
  mftBitmapRuns_.clear();
  recordCount_ = allocatedCount_ = 0;
  records_.Invalidate();
  geo_.mftCluster = cluster;

  CFileNtfs mft(this);
  QORV_TRY(mft.Open(kMftRecord));
  NtfsAttr data;
  if (mft.Find(kData, "", &data) != api::QORV_OK || !data.nonResident || (data.flags & Attr::kCompressedOrSparse)) {
    Problem("$MFT record: its $DATA is missing, resident, compressed or sparse");
    return api::ERR_INCONSISTENT;
  }
  const uint64_t initialized = data.initializedSize, allocated = data.allocatedSize;
  // The first extent lies in record 0 itself; further extents of a very
  // fragmented MFT lie in records that the runs found so far reach.
  if (DecodeRuns(data, &mftRuns_, kMaxMftRuns) != api::QORV_OK || mftRuns_.empty()) {
    Problem("$MFT record: its $DATA run list is malformed");
    return api::ERR_INCONSISTENT;
  }
  mftLoaded_ = true;
  recordCount_ = UINT64_MAX;  // while extents are gathered, any mapped record may be read
  if (mft.HasList()) {
    if (mft.LoadList() != api::QORV_OK) return api::ERR_INCONSISTENT;
    std::vector<NtfsRun> all;
    AppendRuns sink(&all);
    NtfsAttrKey key;
    key.type = kData;
    if (mft.ForEachRun(key, &sink) != api::QORV_OK) {
      Problem("$MFT record: the extents of its $DATA do not follow each other");
      return api::ERR_INCONSISTENT;
    }
    mftRuns_.swap(all);
  }
  char name[16];
  if (!mft.Name(name, sizeof name) || std::strcmp(name, "$MFT") != 0) {
    Problem("$MFT record: its name is not $MFT");
    return api::ERR_INCONSISTENT;
  }

  // The count can never exceed what the runs hold inside the volume.
  uint64_t clusters = 0;
  for (const NtfsRun& r : mftRuns_)
    if (r.lcn != NtfsRun::kHole && r.lcn < geo_.clusterCount) clusters += std::min(r.length, geo_.clusterCount - r.lcn);
  const uint64_t holdable = (clusters << geo_.clusterShift) >> geo_.recordShift;
  recordCount_ = std::min(initialized >> geo_.recordShift, holdable);
  allocatedCount_ = std::min(allocated >> geo_.recordShift, holdable);
  if (recordCount_ < (initialized >> geo_.recordShift))
    Problem("$MFT: 0x%llx records claimed, its runs inside the volume hold 0x%llx",
            (unsigned long long)(initialized >> geo_.recordShift), (unsigned long long)holdable);

  NtfsAttr bitmap;
  if (mft.Find(kBitmap, "", &bitmap) != api::QORV_OK || !bitmap.nonResident ||
      (bitmap.flags & Attr::kCompressedOrSparse) || bitmap.allocatedSize >= 0x20000000 ||
      DecodeRuns(bitmap, &mftBitmapRuns_, kMaxMftRuns) != api::QORV_OK) {
    Problem("$MFT record: its $BITMAP is missing, resident, compressed, sparse, malformed or 512 MiB or more");
    mftLoaded_ = false;
    return api::ERR_INCONSISTENT;
  }
  mftBitmapBits_ = std::min(allocatedCount_, bitmap.allocatedSize * 8);
  return api::QORV_OK;
}

// ---- $LogFile ------------------------------------------------------------------

void CFileSystemNtfs::ExamineJournal() {
  altJournal_ = restartValid_ = journalClean_ = false;
  CFileNtfs log(this);
  char name[16];
  NtfsAttr data;
  std::vector<NtfsRun> runs;
  if (log.Open(kLogFileRecord) != api::QORV_OK || !log.Name(name, sizeof name) || std::strcmp(name, "$LogFile") ||
      log.Find(kData, "", &data) != api::QORV_OK || DecodeRuns(data, &runs, kMaxMftRuns) != api::QORV_OK ||
      ReadStream(runs, 0, unit_, 512) != api::QORV_OK) {
    Problem("$LogFile: record 2 or its $DATA cannot be read");
    return;
  }
  if (std::memcmp(unit_, "JNLx", 4) == 0 || std::memcmp(unit_, "xLNJ", 4) == 0) {
    altJournal_ = true;
    return;
  }
  if (LoadMft() != api::QORV_OK && LoadMftFrom(geo_.mftMirrCluster) != api::QORV_OK) mftLoaded_ = false;
  // A log that was reset and never written since holds no restart page.
  static const uint8_t kUnwritten[4] = {0xFF, 0xFF, 0xFF, 0xFF};
  if (std::memcmp(unit_, kUnwritten, sizeof kUnwritten) == 0) return;

  // Both restart pages: the first at 0, the second one system page on.
  // Pages larger than the work buffer are looked at in their first part.
  uint32_t page = Restart::kFirstPage;
  const uint32_t room = std::max(geo_.recordSize, geo_.clusterSize);
  for (int copy = 0; copy < 2; ++copy) {
    uint32_t size = std::min(page, room);
    uint64_t at = copy == 0 ? 0 : page;
    if (ReadStream(runs, at, unit_, size) != api::QORV_OK) continue;
    CNtfsFixup fix(std::memcmp(unit_, "CHKD", 4) == 0 ? "CHKD" : "RSTR");
    ByteView v(unit_, size);
    uint32_t systemPage = v.le32(Restart::kSystemPageSize), logPage = v.le32(Restart::kLogPageSize);
    if (!IsPowerOfTwo(systemPage) || systemPage < 512 || systemPage > kMaxRecordSize || !IsPowerOfTwo(logPage))
      continue;
    if (size == systemPage && fix.Check(at, unit_, size) != api::QORV_OK) continue;
    uint32_t area = v.le16(Restart::kAreaOffset);
    if (!v.Has(area, Restart::kAreaFlags + 2)) continue;
    restartValid_ = true;
    journalClean_ = journalClean_ || (v.le16(area + Restart::kAreaFlags) & Restart::kClean) != 0;
    page = systemPage;
  }
  if (!restartValid_) Problem("$LogFile: neither restart page is valid");
}

// ---- Sequential MFT reading ------------------------------------------------------

CNtfsMftReader::~CNtfsMftReader() {
  if (piece_) fs_->Env()->mem->Free(piece_);
}

api::status_t CNtfsMftReader::Fill(uint64_t r) {
  const NtfsGeometry& g = fs_->Geometry();
  if (!piece_) {
    piece_ = static_cast<uint8_t*>(fs_->Env()->mem->Allocate(kPieceBytes, 0));
    if (!piece_) return api::ERR_NO_MEMORY;
  }
  first_ = r;
  count_ = 0;
  single_ = true;
  bool contiguous = true;
  uint64_t at = fs_->RecordOffset(r, &contiguous);
  if (at == UINT64_MAX || !contiguous) {
    count_ = 1;
    return api::QORV_OK;
  }
  // As far as the run, the piece and the record count allow.
  uint64_t n = std::min<uint64_t>(
      {kPieceBytes >> g.recordShift, fs_->RecordCount() - r, fs_->RecordRunBytes(r) >> g.recordShift});
  if (n == 0) n = 1;
  count_ = n;
  if (n > 1 && fs_->Read(at, piece_, uint32_t(n << g.recordShift)) == api::QORV_OK) single_ = false;
  return api::QORV_OK;
}

api::status_t CNtfsMftReader::Refill(uint64_t r, ByteView* out) {
  if (r - first_ >= count_) QORV_TRY(Fill(r));
  if (single_) return fs_->ReadRecord(r, out);
  // Fill took record r into the piece.
  return Record(r, out);
}

}  // namespace QORV
