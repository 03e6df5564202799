// HFS+/HFSX scan: the boot blocks and volume header, the alternate header,
// the journal info block and the journal, and every block of the five
// special files, B-tree nodes in use or not. With -data and -fork the
// catalog's leaf nodes are read in node order and each file's data or
// resource fork is kept too.
#include <cinttypes>

#include "core/scan/session.h"
#include "fs/driver_memory.h"
#include "fs/hfs/hfs.h"
#include "fs/scanners.h"

namespace QORV {

namespace {

using api::status_t;
using namespace hfs;

// The blocks covering the volume's first 1536 bytes: boot blocks and header.
constexpr uint64_t kHeadBytes = VolumeHeader::kOffset + VolumeHeader::kSize;
// Progress is moved this often, not per node.
constexpr uint32_t kProgressEvery = 64;

const char* ForkName(uint8_t forkType) { return forkType == kResourceFork ? "resource" : "data"; }

class CHfsScan {
 public:
  CHfsScan(CFileSystemHfs& fs, CScanSession& session, uint32_t flags)
      : fs_(fs), session_(session), msg_(session.Msg()), flags_(flags), total_(fs.TotalBlocks()) {}

  status_t Run();

 private:
  void MarkJournal();
  // Marks one extent; returns the blocks it adds to the fork's count.
  uint64_t MarkExtent(const HfsExtent& e, uint32_t fileId, uint8_t forkType);
  uint64_t MarkRecord(const HfsExtentRecord& r, uint32_t fileId, uint8_t forkType);
  status_t MarkFork(uint32_t fileId, uint8_t forkType, const HfsForkData& fork);
  status_t WalkCatalog();
  status_t MarkFileRecord(ByteView record);
  void Note(const char* format, uint64_t a, uint64_t b);

  CFileSystemHfs& fs_;
  CScanSession& session_;
  api::IMessage* msg_;
  uint32_t flags_;
  uint64_t total_;
};

// What ends the catalog walk early is told under --verbose; it is not one
// of the counted problems.
void CHfsScan::Note(const char* format, uint64_t a, uint64_t b) {
  if (msg_ && session_.Env()->verbose) msg_->Trace(1, format, a, b);
}

uint64_t CHfsScan::MarkExtent(const HfsExtent& e, uint32_t fileId, uint8_t forkType) {
  if (e.startBlock >= total_) {
    session_.Problem("HFS file %u %s fork: extent at block 0x%x of 0x%x blocks lies beyond the volume's 0x%" PRIx64
                     " blocks",
                     fileId, ForkName(forkType), e.startBlock, e.blockCount, total_);
    return e.blockCount;
  }
  uint64_t n = e.blockCount;
  // An extent ending exactly at the volume's last block counts too.
  if (n && e.startBlock + n >= total_) {
    session_.Problem("HFS file %u %s fork: extent at block 0x%x of 0x%x blocks reaches the end of the volume",
                     fileId, ForkName(forkType), e.startBlock, e.blockCount);
    n = total_ - e.startBlock;
  }
  session_.Used().Mark(e.startBlock, n);
  return n;
}

uint64_t CHfsScan::MarkRecord(const HfsExtentRecord& r, uint32_t fileId, uint8_t forkType) {
  uint64_t seen = 0;
  for (const HfsExtent& e : r.extents) seen += MarkExtent(e, fileId, forkType);
  return seen;
}

// The fork's own eight extents, then overflow records until the blocks
// seen reach the fork's total.
status_t CHfsScan::MarkFork(uint32_t fileId, uint8_t forkType, const HfsForkData& fork) {
  QORV_TRY(session_.Poll());
  uint64_t seen = MarkRecord(fork.first, fileId, forkType);
  if (!fs_.ExtentsTreeOpen()) return api::QORV_OK;
  HfsExtentRecord next;
  while (seen < fork.totalBlocks) {
    QORV_TRY(session_.Poll());
    status_t s = fs_.LookupExtents(HfsExtentKey{fileId, forkType, uint32_t(seen)}, &next);
    if (s == api::ERR_DEVICE_GONE) return s;
    if (s != api::QORV_OK) {
      session_.Problem("HFS file %u %s fork: no overflow extents from block 0x%" PRIx64 " of 0x%x (status 0x%x)",
                       fileId, ForkName(forkType), seen, fork.totalBlocks, s);
      return api::QORV_OK;
    }
    const uint64_t added = MarkRecord(next, fileId, forkType);
    if (added == 0) {
      // The same key would find the same record again.
      session_.Problem("HFS file %u %s fork: the overflow record at block 0x%" PRIx64 " holds no blocks", fileId,
                       ForkName(forkType), seen);
      return api::QORV_OK;
    }
    seen += added;
  }
  return api::QORV_OK;
}

void CHfsScan::MarkJournal() {
  const HfsVolumeHeader& vh = fs_.Header();
  const uint32_t info = vh.journalInfoBlock;
  if (info < total_) session_.Used().Mark(info, 1);
  else session_.Problem("HFS journal info block 0x%x lies beyond the volume's 0x%" PRIx64 " blocks", info, total_);
  // One sector: the fields lie in its first bytes.
  uint8_t raw[VolumeHeader::kMinBlockSize];
  status_t s = fs_.Device()->ReadBytes(uint64_t(info) << fs_.BlockShift(), raw, sizeof raw, 0);
  if (s != api::QORV_OK) {
    session_.Problem("HFS journal info block 0x%x unreadable (status 0x%x)", info, s);
    return;
  }
  ByteView jib(raw, sizeof raw);
  const uint32_t flags = jib.be32(JournalInfo::kFlags);
  if (!(flags & JournalInfo::kInFileSystem) || (flags & (JournalInfo::kOnOtherDevice | JournalInfo::kNeedsInit)))
    return;
  const uint64_t offset = jib.be64(JournalInfo::kOffset), size = jib.be64(JournalInfo::kSize);
  const uint32_t shift = fs_.BlockShift();
  const uint64_t first = offset >> shift;
  if (first >= total_) {
    session_.Problem("HFS journal at byte 0x%" PRIx64 " lies beyond the volume's 0x%" PRIx64 " blocks", offset,
                     total_);
    return;
  }
  // The end in blocks, rounded up; a sum that overflows ends past the volume.
  const uint64_t mask = fs_.Header().blockSize - 1;
  uint64_t end = UINT64_MAX;
  if (size <= UINT64_MAX - offset - mask) end = (offset + size + mask) >> shift;
  if (end >= total_) {
    session_.Problem("HFS journal at byte 0x%" PRIx64 " of 0x%" PRIx64 " bytes reaches the end of the volume", offset,
                     size);
    end = total_;
  }
  if (end > first) session_.Used().Mark(first, end - first);
}

status_t CHfsScan::MarkFileRecord(ByteView data) {
  const uint32_t fileId = data.be32(CatalogFile::kFileId);
  HfsForkData fork;
  if (flags_ & api::SCAN_DATA) {
    fork.Parse(data.Sub(CatalogFile::kDataFork, ForkData::kSize));
    QORV_TRY(MarkFork(fileId, kDataFork, fork));
  }
  if (flags_ & api::SCAN_FORK) {
    fork.Parse(data.Sub(CatalogFile::kResourceFork, ForkData::kSize));
    QORV_TRY(MarkFork(fileId, kResourceFork, fork));
  }
  return api::QORV_OK;
}

// Every node of the catalog file in node order, free ones included; only
// leaves are looked into. The leaf chain is never followed.
status_t CHfsScan::WalkCatalog() {
  CHfsBTree& tree = fs_.CatalogTree();
  const uint64_t count = tree.NodeCount();
  if (count == 0) return api::QORV_OK;
  if (msg_) {
    msg_->BeginProgress("Scanning HFS catalog tree");
    msg_->SetTotal(0, &count, nullptr);
  }
  const uint64_t maxKey = uint64_t(tree.MaxKeyLength()) + kKeyLengthBytes;
  CHfsEntryNumerator records;
  status_t s = api::QORV_OK;
  for (uint32_t n = 0; n < count && s == api::QORV_OK; ++n) {
    ByteView node;
    s = tree.ReadNode(n, &node);
    if (s != api::QORV_OK) {
      Note("HFS catalog node %" PRIu64 " unreadable (status 0x%" PRIx64 "): the walk ends there", n, s);
      break;
    }
    if (msg_ && (n % kProgressEvery) == 0) {
      uint64_t at = n;
      msg_->SetPosition(&at);
    }
    s = session_.Poll();
    if (s != api::QORV_OK) break;
    if (int8_t(node.u8(NodeDescriptor::kKind)) != NodeDescriptor::kLeaf) continue;
    s = records.Reset(node);
    for (uint32_t i = 0; s == api::QORV_OK && i < records.Count(); ++i) {
      ByteView rec;
      s = records.Record(i, &rec);
      if (s != api::QORV_OK) break;
      const size_t keyLength = rec.be16(0);
      if (keyLength > maxKey || kKeyLengthBytes + keyLength > rec.Size()) continue;
      ByteView data = rec.Sub(kKeyLengthBytes + keyLength, rec.Size() - kKeyLengthBytes - keyLength);
      if (data.be16(CatalogFile::kRecordType) != CatalogFile::kFileRecord) continue;
      if (data.Size() < CatalogFile::kSize) {
        Note("HFS catalog node %" PRIu64 " record %" PRIu64 ": a file record cut short is skipped", n, i);
        continue;
      }
      s = MarkFileRecord(data);
    }
    if (s == api::ERR_INCONSISTENT) Note("HFS catalog node %" PRIu64 ": damaged records (status 0x%" PRIx64 "): the walk ends there", n, s);
  }
  if (msg_) {
    if (s == api::QORV_OK) msg_->SetPosition(&count);
    msg_->EndProgress();
  }
  return s;
}

status_t CHfsScan::Run() {
  const HfsVolumeHeader& vh = fs_.Header();
  if (fs_.FromAlternate() && msg_ && session_.Env()->verbose)
    msg_->Trace(1, "HFS: the volume header is damaged; the alternate header at 0x%" PRIx64 " is used.",
                fs_.AlternateOffset());
  const uint32_t shift = fs_.BlockShift();
  session_.Mark(0, (vh.blockSize + kHeadBytes - 1) >> shift, "HFS boot blocks and volume header");
  const uint64_t tail = vh.blockSize == VolumeHeader::kMinBlockSize ? 2 : 1;
  session_.Mark(total_ > tail ? total_ - tail : 0, tail, "HFS alternate volume header");
  if (vh.Journaled()) MarkJournal();

  status_t s = fs_.OpenExtentsTree();
  if (s == api::ERR_DEVICE_GONE || s == api::ERR_NO_MEMORY) return s;
  if (s != api::QORV_OK) {
    if (msg_) msg_->Trace(1, "Failed to open extents tree. The image may be not full!");
    fs_.CloseExtentsTree();
  }
  const struct {
    uint32_t id;
    const HfsForkData& fork;
  } specials[] = {{kAllocationFileId, vh.allocationFile},
                  {kExtentsFileId, vh.extentsFile},
                  {kCatalogFileId, vh.catalogFile},
                  {kAttributesFileId, vh.attributesFile},
                  {kStartupFileId, vh.startupFile}};
  for (const auto& f : specials) QORV_TRY(MarkFork(f.id, kDataFork, f.fork));

  if (!(flags_ & (api::SCAN_DATA | api::SCAN_FORK))) return api::QORV_OK;
  s = fs_.OpenCatalogTree();
  if (s == api::ERR_DEVICE_GONE || s == api::ERR_NO_MEMORY) return s;
  if (s != api::QORV_OK) {
    if (msg_) msg_->Trace(1, "Failed to open catalog tree. Can't add data or forks to image!");
    return api::QORV_OK;
  }
  s = WalkCatalog();
  // What the walk marked before it ended is a usable image; only a stop
  // request and a vanished device end the scan.
  return s == api::ERR_DEVICE_GONE || s == api::ERR_TOO_BIG || s == api::ERR_NO_MEMORY ? s : api::QORV_OK;
}

}  // namespace

api::status_t ScanHfs(QORV_SCANNER_ARGS) {
  ClearScanOutputs(bitmap, problems);
  if (!dev) return api::ERR_IO_RANGE;
  CScanSession session(env, dev, msg);
  status_t s = WithDriver<CFileSystemHfs>(env, [&](CFileSystemHfs* fs) {
    QORV_TRY(fs->Mount(session.Device()));
    QORV_TRY(session.CreateBitmap(fs->TotalBlocks(), fs->BlockShift()));
    CHfsScan scan(*fs, session, scanFlags);
    return scan.Run();
  });
  return session.Finish(s, bitmap, blockCount, blockShift, problems);
}

}  // namespace QORV
