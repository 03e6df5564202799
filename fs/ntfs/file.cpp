// NTFS files and directories: one record with its attribute list, the runs
// of an attribute over all its extents, and the $I30 index enumeration.
#include <algorithm>
#include <cstring>

#include "fs/ntfs/ntfs.h"

namespace QORV {

using namespace ntfs;

namespace {

// Runs of one index allocation; far beyond any real directory.
constexpr size_t kMaxIndexRuns = 1u << 16;
constexpr uint64_t kRootNode = UINT64_MAX;

size_t Utf8(uint32_t c, char* out) {
  if (c < 0x80) {
    out[0] = char(c);
    return 1;
  }
  if (c < 0x800) {
    out[0] = char(0xC0 | (c >> 6));
    out[1] = char(0x80 | (c & 0x3F));
    return 2;
  }
  out[0] = char(0xE0 | (c >> 12));
  out[1] = char(0x80 | ((c >> 6) & 0x3F));
  out[2] = char(0x80 | (c & 0x3F));
  return 3;
}

}  // namespace

bool NtfsAttr::DisplayName(char* out, size_t cap) const {
  if (cap) out[0] = 0;
  if (type != kFileName || nonResident || raw.Size() < size_t(valueOffset) + FileName::kMinValue ||
      value.Size() < FileName::kMinValue || value.u8(FileName::kNamespace) == FileName::kDosNamespace)
    return false;
  size_t units = value.u8(FileName::kNameLength), at = 0;
  for (size_t i = 0; i < units && value.Has(FileName::kName + i * 2, 2) && at + 4 < cap; ++i) {
    uint32_t c = value.le16(FileName::kName + i * 2);
    at += Utf8(c >= 0xD800 && c < 0xE000 ? '?' : c, out + at);
  }
  if (cap) out[std::min(at, cap - 1)] = 0;
  return true;
}

// ---- One record ----------------------------------------------------------------

CFileNtfs::~CFileNtfs() {
  api::IBaseMemoryManager* mem = fs_->Env()->mem;
  for (uint8_t* p : {rec_, ext_, work_, list_})
    if (p) mem->Free(p);
}

api::status_t CFileNtfs::Buffers() {
  if (rec_ && ext_ && work_) return api::QORV_OK;
  size_ = fs_->Geometry().recordSize;
  api::IBaseMemoryManager* mem = fs_->Env()->mem;
  // What a failed attempt did get is kept for the next one.
  for (uint8_t** p : {&rec_, &ext_, &work_})
    if (!*p) *p = static_cast<uint8_t*>(mem->Allocate(size_, 0));
  return rec_ && ext_ && work_ ? api::QORV_OK : api::ERR_NO_MEMORY;
}

api::status_t CFileNtfs::Open(uint64_t r, const ByteView& fixedUp) {
  QORV_TRY(Buffers());
  if (fixedUp.Size() != size_) return api::ERR_INCONSISTENT;
  std::memcpy(rec_, fixedUp.Data(), size_);
  number_ = r;
  bytes_ = ByteView(rec_, size_);
  hasList_ = listLoaded_ = false;
  listBytes_ = 0;
  CNtfsAttrIter it(Bytes());
  NtfsAttr a;
  while (it.Next(&a) == api::QORV_OK) {
    if (a.type == kAttrList) {
      hasList_ = true;
      listAttr_ = a;
      break;
    }
  }
  return api::QORV_OK;
}

api::status_t CFileNtfs::Open(uint64_t r) {
  ByteView v;
  QORV_TRY(fs_->ReadRecord(r, &v));
  return Open(r, v);
}

api::status_t CFileNtfs::LoadList() {
  if (!hasList_ || listLoaded_) return api::QORV_OK;
  const NtfsAttr& a = listAttr_;
  uint64_t bytes = a.nonResident ? a.dataSize : a.value.Size();
  if (bytes > kMaxListBytes || (a.nonResident && (a.lowestVcn != 0 || bytes > a.allocatedSize))) {
    fs_->Problem("record 0x%llx: attribute list of 0x%llx bytes is refused", (unsigned long long)number_,
                 (unsigned long long)bytes);
    return api::ERR_INCONSISTENT;
  }
  if (bytes > listCap_) {
    api::IBaseMemoryManager* mem = fs_->Env()->mem;
    if (list_) mem->Free(list_);
    listCap_ = std::max<uint32_t>(uint32_t(bytes), 4096);
    list_ = static_cast<uint8_t*>(mem->Allocate(listCap_, 0));
    if (!list_) {
      listCap_ = 0;
      return api::ERR_NO_MEMORY;
    }
  }
  if (!a.nonResident) {
    if (bytes) std::memcpy(list_, a.value.Data(), size_t(bytes));
  } else {
    std::vector<NtfsRun> runs;
    api::status_t s = CFileSystemNtfs::DecodeRuns(a, &runs, 4096);
    if (s == api::QORV_OK) s = fs_->ReadStream(runs, 0, list_, uint32_t(bytes));
    if (s != api::QORV_OK) {
      fs_->Problem("record 0x%llx: non-resident attribute list cannot be read (status 0x%x)",
                   (unsigned long long)number_, s);
      return s;
    }
  }
  listBytes_ = uint32_t(bytes);
  listLoaded_ = true;
  return api::QORV_OK;
}

api::status_t CFileNtfs::FirstAttr(NtfsAttr* out, bool firstExtentsOnly) {
  viaList_ = hasList_ && listLoaded_;
  firstOnly_ = firstExtentsOnly;
  listPos_ = 0;
  iter_ = CNtfsAttrIter(Bytes());
  return NextAttr(out);
}

api::status_t CFileNtfs::NextAttr(NtfsAttr* out) {
  if (!viaList_) {
    api::status_t s;
    while ((s = iter_.Next(out)) == api::QORV_OK)
      if (!firstOnly_ || !out->nonResident || out->lowestVcn == 0) return s;
    if (s != api::ERR_END_OF_DIR)
      fs_->Problem("record 0x%llx: an attribute's length or offsets run past the record", (unsigned long long)number_);
    return s;
  }
  return Step(out);
}

// The next list entry's attribute, found in the base record or in the
// extension record the entry names.
api::status_t CFileNtfs::Step(NtfsAttr* out) {
  ByteView list(list_, listBytes_);
  while (listPos_ < listBytes_) {
    size_t at = listPos_;
    if (!list.Has(at, ListEntry::kMinLength)) break;
    uint32_t length = list.le16(at + ListEntry::kLength);
    if (length < ListEntry::kMinLength || !list.Has(at, length)) {
      fs_->Problem("record 0x%llx: attribute list entry at 0x%zx is malformed", (unsigned long long)number_, at);
      return api::ERR_INCONSISTENT;
    }
    listPos_ += length;
    uint32_t type = list.le32(at + ListEntry::kType);
    // The list never lists itself; following it would loop.
    if (type == kAttrList) continue;
    if (firstOnly_ && list.le64(at + ListEntry::kLowestVcn) != 0) continue;
    ByteView name =
        list.Sub(at + list.u8(at + ListEntry::kNameOffset), size_t(list.u8(at + ListEntry::kNameLength)) * 2);
    if (list.u8(at + ListEntry::kNameLength) && !name.Data()) {
      unresolved_ = type;
      return api::ERR_INCONSISTENT;
    }
    api::status_t s = Resolve(at, type, name, out, ext_);
    if (s != api::QORV_OK) unresolved_ = type;
    return s;
  }
  return api::ERR_END_OF_DIR;
}

api::status_t CFileNtfs::Resolve(size_t entry, uint32_t type, const ByteView& name, NtfsAttr* out, uint8_t* buf) {
  ByteView list(list_, listBytes_);
  uint64_t ref = RecordOf(list.le64(entry + ListEntry::kReference));
  uint16_t id = list.le16(entry + ListEntry::kId);
  uint64_t vcn = list.le64(entry + ListEntry::kLowestVcn);
  ByteView rec = Bytes();
  if (ref != number_) {
    ByteView v;
    api::status_t s = fs_->ReadRecord(ref, &v);
    if (s != api::QORV_OK) {
      fs_->Problem("record 0x%llx: extension record 0x%llx cannot be read (status 0x%x)", (unsigned long long)number_,
                   (unsigned long long)ref, s);
      return s;
    }
    if (RecordOf(v.le64(Record::kBaseRef)) != number_) {
      fs_->Problem("record 0x%llx: record 0x%llx named by its attribute list belongs to another file",
                   (unsigned long long)number_, (unsigned long long)ref);
      return api::ERR_INCONSISTENT;
    }
    std::memcpy(buf, v.Data(), size_);
    rec = ByteView(buf, size_);
  }
  CNtfsAttrIter it(rec);
  api::status_t s;
  while ((s = it.Next(out)) == api::QORV_OK)
    if (out->type == type && out->id == id && out->name.Size() == name.Size() &&
        (name.Size() == 0 || out->name.Equals(0, name.Data(), name.Size())) &&
        (!out->nonResident || out->lowestVcn == vcn))
      return api::QORV_OK;
  fs_->Problem("record 0x%llx: attribute 0x%x of its attribute list is not in record 0x%llx",
               (unsigned long long)number_, type, (unsigned long long)ref);
  return api::ERR_INCONSISTENT;
}

api::status_t CFileNtfs::Find(uint32_t type, const char* asciiName, NtfsAttr* out) {
  api::status_t s = FirstAttr(out, true);
  for (; s == api::QORV_OK; s = NextAttr(out))
    if (out->type == type && out->NameIs(asciiName) && (!out->nonResident || out->lowestVcn == 0)) return s;
  return s == api::ERR_END_OF_DIR ? api::ERR_INCONSISTENT : s;
}

bool CFileNtfs::Name(char* out, size_t cap) {
  NtfsAttr a;
  for (api::status_t s = FirstAttr(&a, true); s == api::QORV_OK; s = NextAttr(&a))
    if (a.type == kFileName) return a.DisplayName(out, cap);
  return false;
}

api::status_t CFileNtfs::ForEachRun(const NtfsAttr& single, INtfsRunSink* sink) {
  for (int pass = 0; pass < 2; ++pass) {
    CNtfsRunDecoder dec(single.pairs, single.lowestVcn, single.highestVcn);
    NtfsRun run;
    api::status_t s;
    while ((s = dec.Next(&run)) == api::QORV_OK)
      if (pass == 1) QORV_TRY(sink->Run(run));
    if (s != api::ERR_END_OF_DIR) return s;
  }
  return api::QORV_OK;
}

api::status_t CFileNtfs::ForEachRun(const NtfsAttrKey& key, INtfsRunSink* sink) {
  QORV_TRY(Extents(key, sink, false));
  return Extents(key, sink, true);
}

// Without a list the attribute is one extent in the base record; with one,
// the list's entries of this type and name give the extents in VCN order,
// each of which must start where the last one ended.
api::status_t CFileNtfs::Extents(const NtfsAttrKey& key, INtfsRunSink* sink, bool deliver) {
  NtfsAttr a;
  if (!(hasList_ && listLoaded_)) {
    CNtfsAttrIter it(Bytes());
    api::status_t s;
    while ((s = it.Next(&a)) == api::QORV_OK)
      if (a.nonResident && a.lowestVcn == 0 && key.Matches(a.type, a.name)) break;
    if (s != api::QORV_OK) return api::ERR_INCONSISTENT;
    if (!deliver) {
      CNtfsRunDecoder dec(a.pairs, a.lowestVcn, a.highestVcn);
      NtfsRun run;
      while ((s = dec.Next(&run)) == api::QORV_OK) {
      }
      return s == api::ERR_END_OF_DIR ? api::QORV_OK : s;
    }
    CNtfsRunDecoder dec(a.pairs, a.lowestVcn, a.highestVcn);
    NtfsRun run;
    while ((s = dec.Next(&run)) == api::QORV_OK) QORV_TRY(sink->Run(run));
    return s == api::ERR_END_OF_DIR ? api::QORV_OK : s;
  }
  ByteView list(list_, listBytes_);
  uint64_t expected = 0;
  bool any = false;
  for (size_t at = 0; list.Has(at, ListEntry::kMinLength);) {
    uint32_t length = list.le16(at + ListEntry::kLength);
    if (length < ListEntry::kMinLength || !list.Has(at, length)) return api::ERR_INCONSISTENT;
    uint32_t type = list.le32(at + ListEntry::kType);
    ByteView name =
        list.Sub(at + list.u8(at + ListEntry::kNameOffset), size_t(list.u8(at + ListEntry::kNameLength)) * 2);
    size_t entry = at;
    at += length;
    if (type == kAttrList || !key.Matches(type, name)) continue;
    QORV_TRY(Resolve(entry, type, name, &a, work_));
    if (!a.nonResident || a.lowestVcn != expected) return api::ERR_INCONSISTENT;
    CNtfsRunDecoder dec(a.pairs, a.lowestVcn, a.highestVcn);
    NtfsRun run;
    api::status_t s;
    while ((s = dec.Next(&run)) == api::QORV_OK)
      if (deliver) QORV_TRY(sink->Run(run));
    if (s != api::ERR_END_OF_DIR) return s;
    any = true;
    if (a.highestVcn == UINT64_MAX) break;  // an empty attribute has one extent
    expected = a.highestVcn + 1;
  }
  return any ? api::QORV_OK : api::ERR_INCONSISTENT;
}

// ---- $I30 index ------------------------------------------------------------------

class CNTFSEntryNumerator::RunCollector : public INtfsRunSink {
 public:
  explicit RunCollector(std::vector<NtfsRun>* runs) : runs_(runs) {}
  api::status_t Run(const NtfsRun& r) override {
    if (runs_->size() >= kMaxIndexRuns) return api::ERR_INCONSISTENT;
    runs_->push_back(r);
    return api::QORV_OK;
  }

 private:
  std::vector<NtfsRun>* runs_;
};

api::status_t CNTFSEntryNumerator::Run(CFileNtfs& dir, ISink* sink) {
  sink_ = sink;
  dirRecord_ = dir.Number();
  alloc_.clear();
  allocBytes_ = 0;
  const NtfsGeometry& g = fs_->Geometry();
  vcnShift_ = g.indexSize >= g.clusterSize ? g.clusterShift : 9;
  // Without its list a large directory's index may be out of sight; the
  // reason is given where the list failed.
  if (dir.LoadList() == api::ERR_DEVICE_GONE) return api::ERR_DEVICE_GONE;
  NtfsAttr a;
  api::status_t s = dir.Find(kIndexRoot, "$I30", &a);
  if (s != api::QORV_OK || a.nonResident || a.value.Size() < IndexRoot::kHeader + IndexHeader::kSize) {
    session_.Problem("NTFS directory 0x%llx: no usable $I30 index root", (unsigned long long)dirRecord_);
    return s == api::ERR_DEVICE_GONE ? s : api::ERR_INCONSISTENT;
  }
  root_.assign(a.value.Data(), a.value.Data() + a.value.Size());
  const uint32_t blockSize = ByteView(root_.data(), root_.size()).le32(IndexRoot::kBlockSize);
  if (dir.Find(kIndexAllocation, "$I30", &a) == api::QORV_OK) {
    NtfsAttrKey key;
    key.Set(a);
    const uint64_t dataSize = a.dataSize;
    RunCollector collect(&alloc_);
    if (blockSize != g.indexSize) {
      session_.Problem("NTFS directory 0x%llx: index blocks of 0x%x bytes, the volume's are 0x%x",
                       (unsigned long long)dirRecord_, blockSize, g.indexSize);
    } else if (dir.ForEachRun(key, &collect) != api::QORV_OK) {
      alloc_.clear();
      session_.Problem("NTFS directory 0x%llx: the run list of its index allocation is malformed",
                       (unsigned long long)dirRecord_);
    } else {
      allocBytes_ = dataSize;
    }
  }
  CTreeWalk walk(session_, "NTFS index");
  walk.Add(kRootNode);
  return walk.Run(*this);
}

api::status_t CNTFSEntryNumerator::Visit(const WalkNode& node, CTreeWalk& walk) {
  if (node.address == kRootNode)
    return Entries(ByteView(root_.data(), root_.size()), IndexRoot::kHeader, kRootNode, walk);
  const uint32_t size = fs_->Geometry().indexSize;
  const uint64_t vcn = node.address, pos = vcn << vcnShift_;
  block_.resize(size);
  uint64_t contiguous = 0;
  uint64_t at = fs_->MapStream(alloc_, pos, &contiguous);
  api::status_t s;
  if (at != UINT64_MAX && contiguous >= size) {
    ByteView v;
    s = fs_->ReadIndexBlock(at, &v);
    if (s == api::QORV_OK) std::memcpy(block_.data(), v.Data(), size);
  } else {
    s = fs_->ReadIndexBlockAt(alloc_, pos, block_.data());
  }
  if (s != api::QORV_OK) {
    session_.Problem(
        "NTFS directory 0x%llx: index block at VCN 0x%llx cannot be read or fails its fix-up (status 0x%x)",
        (unsigned long long)dirRecord_, (unsigned long long)vcn, s);
    return s == api::ERR_DEVICE_GONE ? s : api::QORV_OK;
  }
  ByteView v(block_.data(), size);
  if (v.le64(IndexBlock::kVcn) != vcn) {
    session_.Problem("NTFS directory 0x%llx: index block at VCN 0x%llx says it is VCN 0x%llx",
                     (unsigned long long)dirRecord_, (unsigned long long)vcn,
                     (unsigned long long)v.le64(IndexBlock::kVcn));
    return api::QORV_OK;
  }
  return Entries(v, IndexBlock::kHeader, vcn, walk);
}

api::status_t CNTFSEntryNumerator::Entries(const ByteView& node, size_t headerAt, uint64_t vcn, CTreeWalk& walk) {
  const uint64_t first = uint64_t(node.le32(headerAt + IndexHeader::kEntriesOffset)) + headerAt;
  const uint64_t end = uint64_t(node.le32(headerAt + IndexHeader::kIndexLength)) + headerAt;
  std::vector<uint64_t> children;
  bool last = false;
  api::status_t s = api::QORV_OK;
  if (end > node.Size() || first > end) {
    session_.Problem("NTFS directory 0x%llx: index node 0x%llx has entries outside itself",
                     (unsigned long long)dirRecord_, (unsigned long long)vcn);
    return api::QORV_OK;
  }
  for (uint64_t at = first; at + IndexEntry::kKey <= end && !last;) {
    uint32_t length = node.le16(at + IndexEntry::kLength), keyLength = node.le16(at + IndexEntry::kKeyLength);
    uint16_t flags = node.le16(at + IndexEntry::kFlags);
    bool sub = (flags & IndexEntry::kHasSubNode) != 0;
    last = (flags & IndexEntry::kLast) != 0;
    if (length < IndexEntry::kKey + (sub ? 8 : 0) || (length & 7) || length > end - at) {
      session_.Problem("NTFS directory 0x%llx: index node 0x%llx has a malformed entry at 0x%llx",
                       (unsigned long long)dirRecord_, (unsigned long long)vcn, (unsigned long long)at);
      break;
    }
    if (sub) {
      uint64_t child = node.le64(at + length - 8);
      if (child > (UINT64_MAX >> vcnShift_) || (child << vcnShift_) >= allocBytes_ ||
          allocBytes_ - (child << vcnShift_) < fs_->Geometry().indexSize)
        session_.Problem("NTFS directory 0x%llx: index node 0x%llx points at VCN 0x%llx outside its allocation",
                         (unsigned long long)dirRecord_, (unsigned long long)vcn, (unsigned long long)child);
      else
        children.push_back(child);
    }
    if (!last) {
      if (keyLength < FileName::kName || keyLength > length - IndexEntry::kKey) {
        session_.Problem("NTFS directory 0x%llx: index node 0x%llx has an entry with a key of 0x%x bytes",
                         (unsigned long long)dirRecord_, (unsigned long long)vcn, keyLength);
      } else {
        s = sink_->Entry({node.le64(at + IndexEntry::kReference), node.Sub(at + IndexEntry::kKey, keyLength)});
        if (s != api::QORV_OK) return s;
      }
    }
    at += length;
  }
  // Queued in reverse: the walk takes the last one first.
  for (auto it = children.rbegin(); it != children.rend(); ++it)
    if (walk.Add(*it) == CTreeWalk::Push::kSeen)
      session_.Problem("NTFS directory 0x%llx: index sub-node VCN 0x%llx is reached twice (a cycle)",
                       (unsigned long long)dirRecord_, (unsigned long long)*it);
  return api::QORV_OK;
}

}  // namespace QORV
