// A small read-only NTFS driver: boot-sector recognition, MFT records with
// their update-sequence fix-up, attributes, attribute lists, run lists,
// $I30 index enumeration and the $LogFile restart area. Every read goes
// through one device wrapper that marks the clusters it touches once the
// scan has a used-block bitmap.
#pragma once
#include <algorithm>
#include <cstdint>
#include <vector>

#include "core/bitmap.h"
#include "core/scan/block_reader.h"
#include "core/scan/session.h"
#include "core/scan/tree_walk.h"
#include "fs/ntfs/ntfs_format.h"

namespace QORV {

// One extent of a run list. A hole (sparse part) has lcn == kHole.
struct NtfsRun {
  static constexpr uint64_t kHole = UINT64_MAX;
  uint64_t vcn = 0;
  uint64_t lcn = 0;
  uint64_t length = 0;
};

// Decodes the mapping pairs of one attribute extent, covering VCNs
// [firstVcn, lastVcn]. A delta that overflows, a cluster below 0, a length
// of 0 or beyond the extent's VCN range is refused (ERR_INCONSISTENT).
class CNtfsRunDecoder {
 public:
  CNtfsRunDecoder(const ByteView& pairs, uint64_t firstVcn, uint64_t lastVcn);
  // QORV_OK with the next run, ERR_END_OF_DIR after the last one.
  api::status_t Next(NtfsRun* out);

 private:
  ByteView pairs_;
  size_t pos_ = 0;
  uint64_t vcn_;
  uint64_t vcnEnd_;  // lastVcn + 1; 0 for an empty extent
  int64_t lcn_ = 0;
  bool bad_ = false;
};

// What the fix-up answers for a unit that was never written (no magic, no
// update sequence): the MFT holds such records past the last one used, and
// they are not damage.
constexpr api::status_t kNtfsBlankUnit = api::ERR_END_OF_DIR;

// The update-sequence fix-up of FILE, INDX and RSTR records: 512-byte
// strides whose last two bytes must hold the sequence number; they are put
// back from the array. A wrong magic or a mismatch rejects the unit.
class CNtfsFixup final : public IUnitCheck {
 public:
  explicit CNtfsFixup(const char* magic);  // four characters
  api::status_t Check(uint64_t offset, uint8_t* unit, uint32_t size) override;
  uint32_t Magic() const { return magic_; }

 private:
  uint32_t magic_;
};

// Read marking: passes every call down and, while a bitmap is attached,
// marks the clusters of each read; a read ending past the last cluster
// marks nothing and is counted.
class CNtfsMarkingDevice : public api::CRWBlockA {
 public:
  explicit CNtfsMarkingDevice(api::IDeviceRWBlock* lower) : lower_(lower) {}
  void SetLower(api::IDeviceRWBlock* lower) { lower_ = lower; }
  void Attach(BlockBitmap* used, uint32_t clusterShift, uint64_t clusterCount);
  void Detach() { used_ = nullptr; }
  uint32_t OutOfRange() const { return outOfRange_; }

  bool IsReadOnly() override { return lower_->IsReadOnly(); }
  uint32_t GetSectorSize() override { return lower_->GetSectorSize(); }
  uint64_t GetSize() override { return lower_->GetSize(); }
  api::status_t SetSize(uint32_t how, const uint64_t* size) override { return lower_->SetSize(how, size); }
  api::status_t ReadBytes(uint64_t offset, void* buffer, uint32_t count, uint32_t flags) override;
  api::status_t WriteBytes(uint64_t offset, const void* buffer, uint32_t count, int32_t flags) override {
    return lower_->WriteBytes(offset, buffer, count, flags);
  }
  api::status_t Flush(uint32_t flags) override { return lower_->Flush(flags); }
  api::status_t IoControl(uint32_t a, uint32_t b, uint32_t c, uint32_t d, uint32_t e, uint32_t f) override {
    return lower_->IoControl(a, b, c, d, e, f);
  }
  int32_t GetDeviceNumber() override { return lower_->GetDeviceNumber(); }

 private:
  api::IDeviceRWBlock* lower_;
  BlockBitmap* used_ = nullptr;
  uint32_t shift_ = 0;
  uint64_t count_ = 0;
  uint32_t outOfRange_ = 0;
};

// Geometry from the boot sector.
struct NtfsGeometry {
  uint32_t bytesPerSector = 0;
  uint32_t clusterSize = 0;
  uint32_t clusterShift = 0;
  uint32_t recordSize = 0;
  uint32_t recordShift = 0;
  uint32_t clustersPerRecord = 0;
  uint32_t indexSize = 0;
  uint32_t ioUnit = 0;
  uint32_t ioShift = 0;
  uint64_t serial = 0;
  uint64_t mftCluster = 0;
  uint64_t mftMirrCluster = 0;
  uint64_t volumeBytes = 0;
  uint64_t clusterCount = 0;
};

// Whether a UTF-16LE attribute name is the ASCII text given. The name is
// taken by value, so that asking leaves the attribute where it is.
bool NtfsNameIs(ByteView name, const char* ascii);

// One attribute record, as parsed from its header; views point into the
// record that holds it.
struct NtfsAttr {
  uint32_t type = 0;
  bool nonResident = false;
  uint16_t flags = 0;
  uint16_t id = 0;
  ByteView name;   // UTF-16LE
  ByteView value;  // resident
  uint64_t lowestVcn = 0, highestVcn = 0;
  uint64_t allocatedSize = 0, dataSize = 0, initializedSize = 0;
  ByteView pairs;  // non-resident
  ByteView raw;    // the whole attribute record
  uint32_t valueOffset = 0;
  bool NameIs(const char* ascii) const { return NtfsNameIs(name, ascii); }
  // The display name of a $FILE_NAME attribute, in UTF-8: false when it is
  // not resident, too short for its fixed part, or a DOS-only name.
  bool DisplayName(char* out, size_t cap) const;
};

// What a walk needs to pass over an attribute: its type, where it starts
// in the record, its form and name, the first VCN of a non-resident one.
struct NtfsAttrHead {
  uint32_t type = 0;
  uint32_t at = 0;
  bool nonResident = false;
  uint64_t lowestVcn = 0;
  ByteView name;  // UTF-16LE
  bool NameIs(const char* ascii) const { return NtfsNameIs(name, ascii); }
};

// Walks the attributes of one fixed-up MFT record, every length and offset
// checked against the record's bytes in use.
class CNtfsAttrIter {
 public:
  explicit CNtfsAttrIter(const ByteView& record);
  // Starts at the attribute `at` bytes into the record (one Skim found).
  CNtfsAttrIter(const ByteView& record, uint32_t at) : CNtfsAttrIter(record) { pos_ = at; }
  // QORV_OK with the next attribute, ERR_END_OF_DIR after the last one,
  // ERR_INCONSISTENT for a malformed one (the walk ends there).
  api::status_t Next(NtfsAttr* out);
  // The same walk with the same checks and statuses, giving only the head:
  // for a pass over every attribute of every record that acts on few.
  api::status_t Skim(NtfsAttrHead* out);

 private:
  ByteView rec_;  // the bytes in use
  size_t pos_ = 0;
  bool done_ = false;
};

// Inline: the record walk skims every attribute of every record. The view
// is cut to the bytes in use, so that checking a read against the view
// checks it against them too.
inline CNtfsAttrIter::CNtfsAttrIter(const ByteView& record) {
  FixedWindow<ntfs::Record::kBytesInUse + 4> h;
  if (!record.Window(0, &h)) return;  // no attribute fits: the first Skim says so
  pos_ = h.le16<ntfs::Record::kAttrOffset>();
  rec_ = record.Sub(0, std::min<size_t>(h.le32<ntfs::Record::kBytesInUse>(), record.Size()));
}

[[gnu::always_inline]] inline api::status_t CNtfsAttrIter::Skim(NtfsAttrHead* out) {
  using ntfs::Attr;
  if (done_) return api::ERR_END_OF_DIR;
  done_ = true;  // until this attribute proves whole
  // Every attribute has the common header; its offsets are checked against
  // its own length, which lies inside the bytes in use. Only the end marker
  // may sit closer to the end than a header's size.
  FixedWindow<Attr::kResidentHeader> h;
  if (!rec_.Window(pos_, &h)) {
    FixedWindow<4> t;
    return rec_.Window(pos_, &t) && t.le32<Attr::kType>() == Attr::kEnd ? api::ERR_END_OF_DIR
                                                                        : api::ERR_INCONSISTENT;
  }
  const uint32_t type = h.le32<Attr::kType>();
  if (type == Attr::kEnd) return api::ERR_END_OF_DIR;
  // At least the header, whole 8-byte units, inside the bytes in use: the
  // header's size is such a unit, so one subtraction checks the first two.
  const uint32_t length = h.le32<Attr::kLength>();
  const uint64_t beyond = uint64_t(length) - Attr::kResidentHeader;  // huge when shorter
  if ((beyond & 7) || beyond > rec_.Size() - pos_ - Attr::kResidentHeader) return api::ERR_INCONSISTENT;
  out->type = type;
  out->at = uint32_t(pos_);
  out->nonResident = h.u8<Attr::kNonResident>() != 0;
  out->lowestVcn = 0;
  out->name = ByteView();
  if (const uint32_t nameLength = h.u8<Attr::kNameLength>()) {
    const uint32_t nameOffset = h.le16<Attr::kNameOffset>();
    if (nameOffset + nameLength * 2 > length) return api::ERR_INCONSISTENT;
    out->name = rec_.Sub(pos_ + nameOffset, size_t(nameLength) * 2);
  }
  if (!out->nonResident) {
    if (uint64_t(h.le16<Attr::kValueOffset>()) + h.le32<Attr::kValueLength>() > length) return api::ERR_INCONSISTENT;
  } else {
    FixedWindow<Attr::kNonResidentHeader> n;
    if (length < Attr::kNonResidentHeader || !rec_.Window(pos_, &n)) return api::ERR_INCONSISTENT;
    const uint32_t pairs = n.le16<Attr::kPairsOffset>();
    if (pairs < Attr::kNonResidentHeader || pairs > length) return api::ERR_INCONSISTENT;
    out->lowestVcn = n.le64<Attr::kLowestVcn>();
  }
  pos_ += length;
  done_ = false;
  return api::QORV_OK;
}

// An attribute's identity: type and name (at most 255 UTF-16 units).
struct NtfsAttrKey {
  uint32_t type = 0;
  uint8_t nameLength = 0;
  uint8_t name[510] = {};
  void Set(const NtfsAttr& a);
  bool Matches(uint32_t t, const ByteView& n) const;
};

class CFileSystemNtfs;

// Receives the runs of an attribute, in VCN order.
class INtfsRunSink {
 public:
  virtual api::status_t Run(const NtfsRun& run) = 0;

 protected:
  ~INtfsRunSink() = default;
};

// One open MFT record (a file or directory): its own copy of the base
// record, its attribute list in memory, its attributes in order.
class CFileNtfs : public api::base_noncopyable {
 public:
  // The largest attribute list held in memory.
  static constexpr uint32_t kMaxListBytes = 1u << 20;

  explicit CFileNtfs(CFileSystemNtfs* fs) : fs_(fs) {}
  ~CFileNtfs();

  // Opens record r from bytes already read and fixed up, or reads it.
  api::status_t Open(uint64_t r, const ByteView& fixedUp);
  api::status_t Open(uint64_t r);
  // Takes record r where it lies, without a copy and without looking for an
  // attribute list (HasList stays false): for a caller that walks the
  // attributes itself and keeps the bytes in place meanwhile. Reading other
  // records could overwrite them, so a record with a list is opened with
  // Open instead.
  api::status_t OpenInPlace(uint64_t r, const ByteView& fixedUp) {
    if (!(rec_ && ext_ && work_)) {
      api::status_t s = Buffers();
      if (s != api::QORV_OK) return s;
    }
    if (fixedUp.Size() != size_) return api::ERR_INCONSISTENT;
    number_ = r;
    bytes_ = fixedUp;
    hasList_ = listLoaded_ = false;
    listBytes_ = 0;
    return api::QORV_OK;
  }

  uint64_t Number() const { return number_; }
  ByteView Bytes() const { return bytes_; }
  uint16_t Sequence() const { return Bytes().le16(ntfs::Record::kSequence); }
  uint16_t Flags() const { return Bytes().le16(ntfs::Record::kFlags); }
  bool IsDirectory() const { return (Flags() & ntfs::Record::kDirectory) != 0; }
  uint64_t BaseReference() const { return Bytes().le64(ntfs::Record::kBaseRef); }

  // The attribute list, when the record has one: found, and loaded.
  bool HasList() const { return hasList_; }
  const NtfsAttr& ListAttr() const { return listAttr_; }
  api::status_t LoadList();

  // Attributes in order: the record's own, or those the list names (their
  // first extents only when firstExtentsOnly). The attribute stays valid
  // until the next call.
  api::status_t FirstAttr(NtfsAttr* out, bool firstExtentsOnly);
  api::status_t NextAttr(NtfsAttr* out);
  // The type of the list entry NextAttr could not resolve.
  uint32_t UnresolvedType() const { return unresolved_; }
  // The first extent of the attribute of this type and name.
  api::status_t Find(uint32_t type, const char* asciiName, NtfsAttr* out);
  // The record's display name: its first non-DOS resident $FILE_NAME.
  bool Name(char* out, size_t cap);

  // Every run of the attribute, all extents through the list, in VCN order;
  // nothing reaches the sink when any extent is malformed.
  api::status_t ForEachRun(const NtfsAttrKey& key, INtfsRunSink* sink);
  api::status_t ForEachRun(const NtfsAttr& single, INtfsRunSink* sink);

 private:
  api::status_t Step(NtfsAttr* out);
  api::status_t Resolve(size_t entry, uint32_t type, const ByteView& name, NtfsAttr* out, uint8_t* buf);
  api::status_t Extents(const NtfsAttrKey& key, INtfsRunSink* sink, bool deliver);
  api::status_t Buffers();

  CFileSystemNtfs* fs_;
  uint64_t number_ = 0;
  uint32_t size_ = 0;
  uint8_t* rec_ = nullptr;   // the base record
  ByteView bytes_;           // the base record: rec_, or where OpenInPlace found it
  uint8_t* ext_ = nullptr;   // the extension record the cursor is in
  uint8_t* work_ = nullptr;  // extension records read while gathering runs
  bool hasList_ = false;
  bool listLoaded_ = false;
  NtfsAttr listAttr_;
  uint8_t* list_ = nullptr;
  uint32_t listCap_ = 0;
  uint32_t listBytes_ = 0;
  // Cursor.
  CNtfsAttrIter iter_{ByteView()};
  size_t listPos_ = 0;
  bool viaList_ = false;
  bool firstOnly_ = false;
  uint32_t unresolved_ = 0;
};

// One $I30 index entry as the enumerator hands it out.
struct NtfsIndexEntry {
  uint64_t reference = 0;
  ByteView key;  // the $FILE_NAME value
};

// Enumerates the $I30 index of a directory: the index root, then the INDX
// blocks of the index allocation, walked with a tree walk so a cycle or an
// endless nesting of sub-nodes ends. Each node's entries come in order;
// sub-nodes follow their parent.
class CNTFSEntryNumerator : public ITreeVisitor {
 public:
  class ISink {
   public:
    // A non-zero status ends the enumeration with it.
    virtual api::status_t Entry(const NtfsIndexEntry& e) = 0;

   protected:
    ~ISink() = default;
  };

  CNTFSEntryNumerator(CFileSystemNtfs* fs, CScanSession& session) : fs_(fs), session_(session) {}
  // Damage inside the index is counted in the session and skipped; what
  // the sink returns, a stop or a vanished device end the walk.
  api::status_t Run(CFileNtfs& dir, ISink* sink);
  api::status_t Visit(const WalkNode& node, CTreeWalk& walk) override;

 private:
  class RunCollector;
  api::status_t Entries(const ByteView& node, size_t headerAt, uint64_t vcn, CTreeWalk& walk);

  CFileSystemNtfs* fs_;
  CScanSession& session_;
  ISink* sink_ = nullptr;
  uint64_t dirRecord_ = 0;
  std::vector<uint8_t> root_;   // the $INDEX_ROOT value
  std::vector<uint8_t> block_;  // the INDX block being walked
  std::vector<NtfsRun> alloc_;  // the index allocation's runs
  uint64_t allocBytes_ = 0;
  uint32_t vcnShift_ = 0;
};

// A directory opened for its $I30 index.
class CDirNtfs {
 public:
  explicit CDirNtfs(CFileSystemNtfs* fs) : file_(fs) {}
  api::status_t Open(uint64_t r) { return file_.Open(r); }
  CFileNtfs& File() { return file_; }

 private:
  CFileNtfs file_;
};

// Reads the MFT front to back in large pieces along its run list, fixing up
// each record in memory: one device read per piece, not per record. A piece
// that cannot be read is read again record by record, so one bad sector
// costs only the records in it.
class CNtfsMftReader : public api::base_noncopyable {
 public:
  // Small enough that a piece is still in the core's own cache when its
  // records are parsed, right after the read copied it there; large enough
  // that the calls stay few (one per 128 records of 1 KiB).
  static constexpr uint32_t kPieceBytes = 1u << 17;

  explicit CNtfsMftReader(CFileSystemNtfs* fs) : fs_(fs) {}
  ~CNtfsMftReader();
  // Record r (taken in ascending order), fixed up; the view lasts until the
  // next call. A failure concerns record r alone. Inline: it runs once per
  // record of the volume.
  api::status_t Record(uint64_t r, ByteView* out);

 private:
  api::status_t Fill(uint64_t r);
  api::status_t Refill(uint64_t r, ByteView* out);

  CFileSystemNtfs* fs_;
  uint8_t* piece_ = nullptr;
  uint64_t first_ = 0;   // first record in the piece
  uint64_t count_ = 0;   // records in the piece
  bool single_ = false;  // the piece failed: records are read one by one
};

class CFileSystemNtfs : public api::base_noncopyable {
 public:
  // Largest MFT record and index block the driver takes.
  static constexpr uint32_t kMaxRecordSize = 65536;

  explicit CFileSystemNtfs(api::CLibEnv* env);
  ~CFileSystemNtfs();

  // Whether a 512-byte sector is an NTFS boot sector.
  static bool CheckBootSector(const ByteView& boot);

  // Recognises the volume (falling back to the backup boot sector): the
  // first read's status, ERR_NOT_RECOGNIZED, ERR_IO_RANGE for a cluster
  // count beyond 32 bits, ERR_NO_MEMORY.
  api::status_t Mount(api::IDeviceRWBlock* dev);
  bool UsedBackupBoot() const { return backupBoot_; }
  const NtfsGeometry& Geometry() const { return geo_; }
  api::CLibEnv* Env() const { return env_; }
  // Where tolerated damage is explained; may stay unset.
  void SetSession(CScanSession* s) { session_ = s; }
  void Problem(const char* format, ...) QORV_PRINTF(2, 3);

  // Read marking from now on, into `used`.
  void StartReadMarking(BlockBitmap* used) { device_.Attach(used, geo_.clusterShift, geo_.clusterCount); }
  void StopReadMarking() { device_.Detach(); }
  uint32_t OutOfRangeReads() const { return device_.OutOfRange(); }

  // The $LogFile check of the mount; its result is kept, never returned.
  void ExamineJournal();
  bool AlternativeJournal() const { return altJournal_; }
  bool JournalRestartValid() const { return restartValid_; }
  bool JournalClean() const { return journalClean_; }

  // Loads $MFT's run list and the MFT-record bitmap's; ERR_INCONSISTENT
  // when $MFT is unusable.
  api::status_t LoadMft();
  bool MftLoaded() const { return mftLoaded_; }
  uint64_t RecordCount() const { return recordCount_; }
  uint64_t AllocatedRecordCount() const { return allocatedCount_; }

  // A raw read through the marked path.
  api::status_t Read(uint64_t offset, void* buf, uint32_t n) { return device_.ReadBytes(offset, buf, n, 0); }
  // Reads [pos, pos + n) of a stream described by `runs`; a hole or a run
  // past the volume is ERR_IO_RANGE.
  api::status_t ReadStream(const std::vector<NtfsRun>& runs, uint64_t pos, void* buf, uint32_t n);
  // Device offset of stream byte `pos` and the bytes contiguous from there;
  // UINT64_MAX when unmapped, a hole or outside the volume.
  uint64_t MapStream(const std::vector<NtfsRun>& runs, uint64_t pos, uint64_t* contiguous) const;

  // Record r, fixed up, through the record cache. The view lasts until the
  // next record read.
  api::status_t ReadRecord(uint64_t r, ByteView* out);
  // Device offset of record r and whether it lies in one piece.
  uint64_t RecordOffset(uint64_t r, bool* contiguous) const;
  // Bytes of the MFT's run from record r on (0 when r is not mapped).
  uint64_t RecordRunBytes(uint64_t r) const;
  // The fix-up and header checks of a record just read.
  api::status_t CheckRecord(uint64_t offset, uint8_t* rec);
  // One INDX block of `size` bytes at a device offset, fixed up.
  api::status_t ReadIndexBlock(uint64_t offset, ByteView* out);
  // An INDX block in pieces (its runs are not contiguous), into `buf`.
  api::status_t ReadIndexBlockAt(const std::vector<NtfsRun>& runs, uint64_t pos, uint8_t* buf);

  // Decodes an attribute's runs, refusing more than `maxRuns`.
  static api::status_t DecodeRuns(const NtfsAttr& a, std::vector<NtfsRun>* out, size_t maxRuns);

 private:
  api::status_t LoadMftFrom(uint64_t cluster);
  api::status_t TakeGeometry(const ByteView& boot);

  api::CLibEnv* env_;
  CNtfsMarkingDevice device_{nullptr};
  CScanSession* session_ = nullptr;
  NtfsGeometry geo_;
  bool backupBoot_ = false;
  bool mftLoaded_ = false;
  bool altJournal_ = false;
  bool restartValid_ = false;
  bool journalClean_ = false;
  uint64_t recordCount_ = 0;
  uint64_t allocatedCount_ = 0;
  std::vector<NtfsRun> mftRuns_;
  std::vector<NtfsRun> mftBitmapRuns_;  // the MFT-record bitmap
  uint64_t mftBitmapBits_ = 0;
  CNtfsFixup fileFixup_{"FILE"};
  CNtfsFixup indexFixup_{"INDX"};
  CBlockReader records_;
  CBlockReader indexBlocks_;
  uint8_t* work_ = nullptr;  // twice the record size
  uint8_t* unit_ = nullptr;  // max(record size, cluster size)
};

inline api::status_t CNtfsMftReader::Record(uint64_t r, ByteView* out) {
  *out = ByteView();
  if (r - first_ >= count_ || single_) return Refill(r, out);
  const uint32_t size = fs_->Geometry().recordSize;
  uint8_t* rec = piece_ + size_t(r - first_) * size;
  QORV_TRY(fs_->CheckRecord(0, rec));
  *out = ByteView(rec, size);
  return api::QORV_OK;
}

}  // namespace QORV
