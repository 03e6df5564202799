// NTFS scanner: keeps every cluster the driver reads while it walks the
// volume (boot sector, MFT records, $LogFile restart pages, index blocks)
// and the runs of the non-resident attributes that carry structure: all of
// them for the system files 0..15 and the $Extend children, the structural
// ones (indexes, bitmaps, lists, security, reparse and the like) for every
// other file, file contents only with -data. $BadClus:$Bad spans the volume
// and is never kept.
#include <cinttypes>
#include <cstdio>
#include <string>
#include <vector>

#include "core/scan/session.h"
#include "core/scan/visited.h"
#include "fs/driver_memory.h"
#include "fs/ntfs/ntfs.h"
#include "fs/scanners.h"

namespace QORV {

namespace {

using namespace ntfs;

// More $Extend entries than this is taken for a damaged $Extend.
constexpr uint32_t kMaxExtendEntries = 1000;
// Progress is moved this often, not per record.
constexpr uint64_t kProgressEvery = 256;

struct Hex {
  explicit Hex(uint64_t v) { std::snprintf(text, sizeof text, "%" PRIx64, v); }
  char text[20];
};

// Run marking: holes are skipped; an extent starting at or beyond the last
// cluster is skipped and counted; one reaching the last cluster is cut there,
// marked and counted, also when it ends exactly there.
class RunMarker : public INtfsRunSink {
 public:
  RunMarker(CScanSession& session, uint64_t record, uint32_t type) : session_(session), record_(record), type_(type) {}
  api::status_t Run(const NtfsRun& r) override {
    if (r.lcn == NtfsRun::kHole) return api::QORV_OK;
    const uint64_t count = session_.BlockCount();
    if (r.lcn >= count) {
      ++counted_;
      session_.Problem("NTFS record 0x%" PRIx64 " attribute 0x%x: run at cluster 0x%" PRIx64
                       " lies beyond the volume's 0x%" PRIx64 " clusters",
                       record_, type_, r.lcn, count);
      return api::QORV_OK;
    }
    uint64_t n = r.length;
    if (n >= count - r.lcn) {
      ++counted_;
      session_.Problem("NTFS record 0x%" PRIx64 " attribute 0x%x: run at cluster 0x%" PRIx64 " of 0x%" PRIx64
                       " clusters reaches the end of the volume",
                       record_, type_, r.lcn, r.length);
      n = count - r.lcn;
    }
    session_.Used().Mark(r.lcn, n);
    return api::QORV_OK;
  }
  uint32_t Counted() const { return counted_; }

 private:
  CScanSession& session_;
  uint64_t record_;
  uint32_t type_;
  uint32_t counted_ = 0;
};

class NtfsScan {
 public:
  NtfsScan(CScanSession& session, CFileSystemNtfs* fs, bool includeData)
      : session_(session),
        msg_(session.Msg()),
        fs_(fs),
        data_(includeData),
        file_(fs),
        child_(fs),
        dir_(fs),
        verbose_(msg_ && session.Env()->verbose) {}

  api::status_t Run();

 private:
  class ExtendSink;
  struct Walk;
  // Attributes a record walk acts on, kept from its one pass; a record with
  // more is walked a second time.
  static constexpr size_t kKeptAttrs = 16;
  api::status_t Include(CFileNtfs& file, uint64_t r, api::status_t readStatus, const ByteView& rec, bool data);
  [[gnu::noinline]] api::status_t IncludeKept(CFileNtfs& file, uint64_t r, const ByteView& rec, bool data,
                                              api::status_t s, size_t kept, bool listed, bool overflow);
  api::status_t Attribute(CFileNtfs& file, uint64_t r, const NtfsAttr& a, bool data, Walk& w);
  api::status_t WalkExtend(uint32_t* counter);

  CScanSession& session_;
  api::IMessage* msg_;
  CFileSystemNtfs* fs_;
  bool data_;
  CFileNtfs file_;   // the record of the main walk
  CFileNtfs child_;  // a $Extend child
  CDirNtfs dir_;     // the $Extend directory being enumerated
  uint32_t tally_ = 0;
  bool verbose_;
  uint32_t kept_[kKeptAttrs];  // where in the record
};

// Whether the record walk marks this attribute's runs: the first extent of
// a non-resident attribute, not $BadClus:$Bad (it spans the volume), and
// beyond the system files only structure unless file contents are wanted.
template <class A>
bool Marked(uint64_t r, const A& a, bool data) {
  if (!a.nonResident || a.lowestVcn != 0) return false;
  if (r == kBadClusRecord && a.type == kData && a.NameIs("$Bad")) return false;
  return data || r < kFirstUserRecord || (a.type != kData && a.type < kFirstUserType);
}

// What the walk of one record remembers between attributes.
struct NtfsScan::Walk {
  char name[768];
  bool named = false;
};

// One attribute of the record walk: the display name is remembered, a marked
// attribute's runs are marked. A failure ends the record's walk.
api::status_t NtfsScan::Attribute(CFileNtfs& file, uint64_t r, const NtfsAttr& a, bool data, Walk& w) {
  // The name is only ever traced, so it is only decoded for a verbose run.
  if (a.type == kFileName && !w.named && verbose_) w.named = a.DisplayName(w.name, sizeof w.name);
  if (!Marked(r, a, data)) return api::QORV_OK;
  // A verbose trace: on a volume of many files it would flood a log.
  if (w.named) msg_->Trace(2, "Include file r=%s, \"%s\", %x.", Hex(r).text, w.name, a.type);
  RunMarker marker(session_, r, a.type);
  api::status_t loaded;
  if (file.HasList()) {
    NtfsAttrKey key;
    key.Set(a);
    loaded = file.ForEachRun(key, &marker);
  } else {
    loaded = file.ForEachRun(a, &marker);
  }
  if (loaded != api::QORV_OK) {
    if (msg_) msg_->Trace(1, "Failed to init attribute %x in file 0x%s.", a.type, Hex(r).text);
    session_.Problem("NTFS record 0x%s: the run list of attribute 0x%x cannot be loaded (status 0x%x)", Hex(r).text,
                     a.type, loaded);
    ++tally_;
    return loaded;
  }
  tally_ += marker.Counted();
  return api::QORV_OK;
}

api::status_t NtfsScan::Include(CFileNtfs& file, uint64_t r, api::status_t readStatus, const ByteView& rec, bool data) {
  if (readStatus == kNtfsBlankUnit) return api::QORV_OK;
  // The record is walked where it lies; only one with an attribute list is
  // copied (Open), as resolving the list reads other records.
  if (readStatus == api::QORV_OK) readStatus = file.OpenInPlace(r, rec);
  if (readStatus != api::QORV_OK) {
    if (msg_) msg_->Trace(1, "Failed to init record 0x%s.", Hex(r).text);
    session_.Problem("NTFS record 0x%s cannot be read or fails its fix-up (status 0x%x)", Hex(r).text, readStatus);
    ++tally_;
    return readStatus;
  }
  // An extension record's attributes are reached through its base record.
  if (file.BaseReference() != 0) return api::QORV_OK;

  // One pass over the record's attribute headers finds its attribute list,
  // if it has one, and where the few attributes are that the walk acts on.
  // Most records hold none of either: the pass is all they cost.
  size_t kept = 0;
  bool overflow = false, listed = false;
  CNtfsAttrIter it(file.Bytes());
  NtfsAttrHead head;
  api::status_t s;
  while ((s = it.Skim(&head)) == api::QORV_OK) {
    if (head.type == kAttrList) {
      listed = true;
      break;
    }
    if (head.nonResident ? !Marked(r, head, data) : !(head.type == kFileName && verbose_)) continue;
    if (kept < kKeptAttrs)
      kept_[kept++] = head.at;
    else
      overflow = true;
  }
  if (kept == 0 && !listed && !overflow) {
    if (s == api::ERR_END_OF_DIR) return api::QORV_OK;
    fs_->Problem("record 0x%llx: an attribute's length or offsets run past the record", (unsigned long long)r);
    ++tally_;
    return s;
  }
  return IncludeKept(file, r, rec, data, s, kept, listed, overflow);
}

// The rest of a record's walk, for one whose pass found attributes to act
// on or an attribute list.
api::status_t NtfsScan::IncludeKept(CFileNtfs& file, uint64_t r, const ByteView& rec, bool data, api::status_t s,
                                    size_t kept, bool listed, bool overflow) {
  Walk w;
  // Without a list only the attributes kept are parsed in full.
  if (!listed && !overflow) {
    for (size_t i = 0; i < kept; ++i) {
      NtfsAttr a;
      CNtfsAttrIter one(file.Bytes(), kept_[i]);
      // It was skimmed above, so it parses.
      if (one.Next(&a) != api::QORV_OK) return api::ERR_INCONSISTENT;
      QORV_TRY(Attribute(file, r, a, data, w));
    }
    if (s != api::ERR_END_OF_DIR) {
      fs_->Problem("record 0x%llx: an attribute's length or offsets run past the record", (unsigned long long)r);
      ++tally_;
    }
    return s == api::ERR_END_OF_DIR ? api::QORV_OK : s;
  }

  if (listed) {
    QORV_TRY(file.Open(r, rec));
    api::status_t loaded = file.LoadList();
    if (loaded != api::QORV_OK) {
      if (msg_) msg_->Trace(1, "Failed to load attribute list for record 0x%s.", Hex(r).text);
      session_.Problem("NTFS record 0x%s: its attribute list cannot be loaded (status 0x%x)", Hex(r).text, loaded);
      ++tally_;
      return loaded;
    }
  }
  NtfsAttr a;
  for (s = file.FirstAttr(&a, true); s == api::QORV_OK; s = file.NextAttr(&a)) QORV_TRY(Attribute(file, r, a, data, w));
  if (s != api::ERR_END_OF_DIR) {
    // An attribute the list names could not be found, or one runs past the
    // record; the reason was given where it was found.
    if (file.HasList() && msg_)
      msg_->Trace(1, "Failed to init attribute %x in file 0x%s.", file.UnresolvedType(), Hex(r).text);
    ++tally_;
    return s;
  }
  if (file.HasList() && file.ListAttr().nonResident) {
    RunMarker marker(session_, r, kAttrList);
    if (file.ForEachRun(file.ListAttr(), &marker) == api::QORV_OK) tally_ += marker.Counted();
  }
  return api::QORV_OK;
}

// Takes the entries of one $Extend directory: each child that names this
// directory as its parent is included with its data, sub-directories are
// handed back to be walked.
class NtfsScan::ExtendSink : public CNTFSEntryNumerator::ISink {
 public:
  ExtendSink(NtfsScan* scan, uint64_t dir, uint16_t sequence, uint32_t* counter)
      : scan_(scan), parent_((uint64_t(sequence) << 48) | dir), counter_(counter) {}

  api::status_t Entry(const NtfsIndexEntry& e) override {
    if (++*counter_ >= kMaxExtendEntries) {
      if (scan_->msg_) scan_->msg_->Trace(1, "Too many files in $Extend. May it is broken. Break $Extend enumaration.");
      return api::ERR_TOO_BIG;
    }
    if (e.key.le64(FileName::kParent) != parent_) return api::QORV_OK;
    const uint64_t child = RecordOf(e.reference);
    ByteView rec;
    api::status_t s = scan_->fs_->ReadRecord(child, &rec);
    s = scan_->Include(scan_->child_, child, s, rec, true);
    if (s == api::ERR_DEVICE_GONE) return s;
    if ((e.key.le32(FileName::kFileAttributes) & FileName::kDirectoryIndex) && child != kRootRecord &&
        e.key.u8(FileName::kNamespace) != FileName::kDosNamespace)
      subdirs.push_back(child);
    return api::QORV_OK;
  }

  std::vector<uint64_t> subdirs;

 private:
  NtfsScan* scan_;
  uint64_t parent_;
  uint32_t* counter_;
};

// $Extend and its sub-directories, from an explicit stack; a directory is
// walked once however often it is named.
api::status_t NtfsScan::WalkExtend(uint32_t* counter) {
  std::vector<uint64_t> stack{kExtendRecord};
  CVisitedSet walked(session_.Mem());
  CNTFSEntryNumerator entries(fs_, session_);
  while (!stack.empty()) {
    const uint64_t d = stack.back();
    stack.pop_back();
    if (!walked.Insert(d)) continue;
    CFileNtfs& dir = dir_.File();
    api::status_t s = dir_.Open(d);
    if (s != api::QORV_OK) {
      session_.Problem("NTFS $Extend directory 0x%" PRIx64 " cannot be read (status 0x%x)", d, s);
      if (d == kExtendRecord || s == api::ERR_DEVICE_GONE) return s;
      continue;
    }
    if (d == kExtendRecord) {
      char name[32];
      if (!dir.Name(name, sizeof name) || std::string(name) != "$Extend") {
        session_.Problem("NTFS record 0xb is not named $Extend");
        return api::ERR_INCONSISTENT;
      }
    }
    if (!dir.IsDirectory()) continue;
    ExtendSink sink(this, d, dir.Sequence(), counter);
    s = entries.Run(dir, &sink);
    if (s == api::ERR_TOO_BIG || s == api::ERR_DEVICE_GONE) return s;
    for (auto it = sink.subdirs.rbegin(); it != sink.subdirs.rend(); ++it) stack.push_back(*it);
  }
  return api::QORV_OK;
}

api::status_t NtfsScan::Run() {
  if (fs_->UsedBackupBoot() && msg_)
    msg_->Trace(1, "The first NTFS boot sector is unreadable or corrupt. Reading second NTFS boot sector instead.");
  // The journal check never stops the scan; what it read is kept.
  fs_->ExamineJournal();
  // The journal check loaded $MFT already unless the log is of the other kind
  // or neither copy of record 0 would do.
  if (!fs_->MftLoaded()) {
    api::status_t s = fs_->LoadMft();
    if (s != api::QORV_OK) {
      if (msg_) msg_->Trace(1, "Failed to load $MFT.");
      return s;
    }
  }

  const uint64_t count = fs_->RecordCount();
  if (msg_) {
    msg_->BeginProgress("Scanning NTFS...");
    msg_->SetTotal(0, &count, nullptr);
  }
  uint32_t counter = 0;
  WalkExtend(&counter);
  if (msg_) msg_->SetTotal(0, &count, "Added %u files/dirs from $Extend", counter);

  CNtfsMftReader reader(fs_);
  api::status_t s = api::QORV_OK;
  for (uint64_t r = 0; r < count; ++r) {
    if (msg_ && (r % kProgressEvery) == 0) {
      uint64_t at = r;
      msg_->SetPosition(&at);
    }
    s = session_.Poll();
    if (s != api::QORV_OK) break;
    ByteView rec;
    api::status_t read = reader.Record(r, &rec);
    if (read == api::ERR_NO_MEMORY) {
      s = read;
      break;
    }
    if (Include(file_, r, read, rec, data_) == api::ERR_DEVICE_GONE) {
      s = api::ERR_DEVICE_GONE;
      break;
    }
  }
  if (msg_) {
    if (s == api::QORV_OK) msg_->SetPosition(&count);
    msg_->EndProgress();
  }
  return s;
}

// What the image keeps of the device's end beyond the marked blocks.
constexpr uint64_t kTailBytes = 1024;

api::status_t ScanWith(CFileSystemNtfs* fs, api::CLibEnv* env, api::IDeviceRWBlock* dev, api::IMessage* msg,
                       uint32_t scanFlags, uint8_t** bitmap, uint64_t* blockCount, uint32_t* blockShift,
                       uint32_t* problems) {
  CScanSession session(env, dev, msg);
  fs->SetSession(&session);
  QORV_TRY(fs->Mount(session.Device()));
  const NtfsGeometry& geo = fs->Geometry();
  // The backup boot sector lies right after the volume's last sector, past
  // the last cluster. The image's tail (the device's last 1024 bytes) holds
  // it on small sectors; on larger ones it does not, so the bitmap then
  // takes one more cluster, the one holding it, when the device holds that
  // cluster whole.
  uint64_t blocks = geo.clusterCount;
  const uint64_t deviceBytes = session.Device()->GetSize();
  const uint64_t backupEnd = geo.volumeBytes + Boot::kSize;
  const uint64_t extraEnd = (geo.clusterCount + 1) << geo.clusterShift;
  if (geo.clusterCount < UINT32_MAX && deviceBytes >= kTailBytes && backupEnd <= extraEnd &&
      geo.volumeBytes < deviceBytes - kTailBytes && extraEnd <= deviceBytes)
    ++blocks;
  QORV_TRY(session.CreateBitmap(blocks, geo.clusterShift));
  if (blocks > geo.clusterCount) session.Mark(geo.clusterCount, 1, "NTFS backup boot sector");
  fs->StartReadMarking(&session.Used());
  NtfsScan scan(session, fs, (scanFlags & api::SCAN_DATA) != 0);
  api::status_t s = scan.Run();
  fs->StopReadMarking();
  s = session.Finish(s, bitmap, blockCount, blockShift, problems);
  // The caller is told how many reads ran past the last cluster; the rest
  // was explained under --verbose.
  if (s == api::QORV_OK && problems) *problems = fs->OutOfRangeReads();
  return s;
}

}  // namespace

api::status_t ScanNtfs(QORV_SCANNER_ARGS) {
  ClearScanOutputs(bitmap, problems);
  if (!dev) return api::ERR_IO_RANGE;
  return WithDriver<CFileSystemNtfs>(env, [&](CFileSystemNtfs* fs) {
    return ScanWith(fs, env, dev, msg, scanFlags, bitmap, blockCount, blockShift, problems);
  });
}

}  // namespace QORV
