// Btrfs scan: the primary superblock, then every node of the chunk tree,
// the root tree with every tree its root items point to, and the log root
// tree with the log trees. Leaves are kept as nodes; the file data they
// describe never is. Of a node's copies on this device (DUP and mirrored
// metadata) the first is kept, and the next ones only up to the first that
// reads and checks, which is the one parsed. A tree is walked a round at a
// time (the nodes its last round pointed to), each round in the order of
// its nodes on the device, adjacent ones read together: the trees' nodes
// lie interleaved, so a parent's children are seldom neighbours, but a
// round's often are.
#include <algorithm>
#include <new>
#include <vector>

#include "core/scan/session.h"
#include "core/scan/tree_walk.h"
#include "fs/btrfs/btrfs_fs.h"
#include "fs/scanners.h"

namespace QORV {
namespace Btrfs {
namespace {

using api::status_t;

// Trees hang from the root tree's (or log root tree's) leaves, so a node
// lies at most two trees deep, plus room for root items in odd places.
constexpr uint32_t kMaxWalkDepth = 4 * kMaxLevel;

const char* KeyTypeName(uint8_t type) {
  static const struct {
    uint8_t type;
    const char* name;
  } kNames[] = {{0, "BTRFS_UNTYPED_ITEM"}, {1, "INODE_ITEM"},       {12, "INODE_REF"},        {24, "XATTR_ITEM"},
                {84, "DIR_ITEM"},          {96, "DIR_INDEX"},        {108, "EXTENT_DATA"},     {128, "EXTENT_CSUM"},
                {132, "ROOT_ITEM"},        {144, "ROOT_BADCKREF"},   {156, "ROOT_REF"},        {168, "EXTENT_ITEM"},
                {169, "METADATA_ITEM"},    {192, "BLOCK_GROUP_ITEM"}, {204, "DEV_EXTENT"},     {216, "DEV_ITEM"},
                {228, "CHUNK_ITEM"},       {240, "QGROUP_STATUS"},   {242, "QGROUP_INFO"},     {244, "QGROUP_LIMIT"},
                {246, "QGROUP_RELATION"},  {249, "PERSISTENT_ITEM"}, {251, "UUID_KEY_SUBVOL"}};
  for (const auto& n : kNames)
    if (n.type == type) return n.name;
  return "UNKNOWN_TYPE";
}

// A round's adjacent nodes are read together, up to this many bytes at
// once (the one buffer the scan holds beyond the node cache). Only nodes
// are read: joining across a gap of a node or two saved no time.
constexpr uint32_t kRunBytes = 1u << 20;
// How far ahead of the reads the device is told what comes next.
constexpr uint64_t kAheadBytes = 16u << 20;
// The sort key of a node that no chunk maps.
constexpr uint64_t kUnmapped = UINT64_MAX >> 8;

class CBtrFsScan : public ITreeVisitor {
 public:
  CBtrFsScan(CBtrFsFileSystem& fs, CScanSession& session, api::IMessage* trace)
      : fs_(fs), sb_(fs.Sb()), session_(session), walk_(session, "btrfs tree", kMaxWalkDepth), trace_(trace) {}
  ~CBtrFsScan() {
    if (buf_) session_.Mem()->Free(buf_);
  }

  status_t Run();
  status_t Visit(const WalkNode& node, CTreeWalk& walk) override;
  void Order(WalkNode* nodes, size_t count) override;

 private:
  // Adjacent nodes of one round, read with one call.
  struct Span {
    uint64_t start, end;
    uint32_t nodes;
    bool failed;
  };
  // Walks one tree from its root; the walk's visited set spans all trees.
  status_t WalkTree(const char* stage, const char* tree, uint64_t logical, uint8_t level);
  // True when the node is new to the walk.
  bool Queue(const char* tree, uint64_t parent, uint64_t logical, uint32_t level);
  // The first copy's bytes when they belong to a span of the round, read
  // with that span; null when the node is to be read on its own.
  uint8_t* FromSpan(uint64_t physical);
  // Stage lines are detail: only --verbose shows them.
  void Stage(const char* text) {
    if (session_.Msg() && session_.Env()->verbose) session_.Msg()->Trace(2, "%s", text);
  }

  CBtrFsFileSystem& fs_;
  const CBtrFsSuperBlock& sb_;
  CScanSession& session_;
  CTreeWalk walk_;
  api::IMessage* trace_;  // node trace for diagnostics; null in normal use
  bool chunkTree_ = false;
  const char* tree_ = "";
  std::vector<Span> spans_;             // the round's reads, in address order
  size_t span_ = 0;                     // the first span not yet passed
  size_t hinted_ = 0;                   // the first span not yet announced
  uint8_t* buf_ = nullptr;              // kRunBytes
  uint64_t bufStart_ = 0, bufEnd_ = 0;  // the bytes buf_ holds
};

bool CBtrFsScan::Queue(const char* tree, uint64_t parent, uint64_t logical, uint32_t level) {
  if (logical % sb_.BlockSize()) {
    session_.Problem("%s: node 0x%llx points to 0x%llx, not sector aligned", tree, (unsigned long long)parent,
                     (unsigned long long)logical);
    return false;
  }
  return walk_.Add(logical >> sb_.BlockShift(), level) == CTreeWalk::Push::kQueued;
}

// The round goes in the order of its first copies on the device, so that
// neighbours are read together whichever trees they belong to; nodes that
// do not translate come last and are reported as they are visited. The
// first copy's sector rides in each node's word above its level, so the
// round sorts in place, whatever its width.
void CBtrFsScan::Order(WalkNode* nodes, size_t count) {
  const uint32_t shift = sb_.BlockShift();
  for (size_t i = 0; i < count; ++i) {
    uint64_t copies[CBtrFsChunkMap::kMaxCopies];
    CBtrFsChunkMap::Miss miss;
    const bool mapped = fs_.Chunks().Copies(nodes[i].address << shift, sb_.nodeSize, copies, &miss);
    nodes[i].aux = (mapped ? copies[0] >> shift : kUnmapped) << 8 | (nodes[i].aux & 0xFF);
  }
  std::sort(nodes, nodes + count, [](const WalkNode& a, const WalkNode& b) {
    return a.aux != b.aux ? a.aux < b.aux : a.address < b.address;
  });
  spans_.clear();
  for (size_t i = 0; i < count && nodes[i].aux >> 8 != kUnmapped; ++i) {
    const uint64_t at = (nodes[i].aux >> 8) << shift;
    Span* last = spans_.empty() ? nullptr : &spans_.back();
    if (last && at <= last->end && at - last->start <= kRunBytes - sb_.nodeSize) {
      last->end = std::max(last->end, at + sb_.nodeSize);
      ++last->nodes;
    } else {
      spans_.push_back(Span{at, at + sb_.nodeSize, 1, false});
    }
  }
  span_ = hinted_ = 0;
  bufStart_ = bufEnd_ = 0;
}

uint8_t* CBtrFsScan::FromSpan(uint64_t physical) {
  if (physical >= bufStart_ && physical < bufEnd_ && bufEnd_ - physical >= sb_.nodeSize)
    return buf_ + (physical - bufStart_);
  while (span_ < spans_.size() && spans_[span_].end <= physical) ++span_;
  // Where the volume is not yet in memory the system fetches the spans
  // ahead while the ones here are checked; a bounded distance, so that
  // what it fetches is still there when its turn comes.
  for (; hinted_ < spans_.size() &&
         (spans_[hinted_].start <= physical || spans_[hinted_].start - physical < kAheadBytes);
       ++hinted_)
    session_.Device()->WillNeed(spans_[hinted_].start, spans_[hinted_].end - spans_[hinted_].start);
  if (span_ == spans_.size()) return nullptr;
  Span& sp = spans_[span_];
  // A span of one node, or one whose joined read failed: each node is read
  // alone, so that a failure is reported for that node as it always was.
  if (sp.nodes < 2 || sp.failed || physical < sp.start || sp.end - physical < sb_.nodeSize) return nullptr;
  if (session_.Device()->ReadBytes(sp.start, buf_, uint32_t(sp.end - sp.start), api::READ_QUIET) != api::QORV_OK) {
    sp.failed = true;
    bufStart_ = bufEnd_ = 0;
    return nullptr;
  }
  bufStart_ = sp.start;
  bufEnd_ = sp.end;
  return buf_ + (physical - bufStart_);
}

status_t CBtrFsScan::WalkTree(const char* stage, const char* tree, uint64_t logical, uint8_t level) {
  Stage(stage);
  tree_ = tree;
  Queue(tree, 0, logical, level);
  return walk_.RunRounds(*this);
}

status_t CBtrFsScan::Visit(const WalkNode& wn, CTreeWalk&) {
  const uint64_t logical = wn.address << sb_.BlockShift();
  const uint32_t level = uint32_t(wn.aux & 0xFF);
  const uint32_t shift = sb_.BlockShift(), sectors = sb_.nodeSize >> shift;
  uint64_t copies[CBtrFsChunkMap::kMaxCopies];
  CBtrFsChunkMap::Miss miss;
  const uint32_t count = fs_.Chunks().Copies(logical, sb_.nodeSize, copies, &miss);
  if (count == 0) {
    const char* why = miss == CBtrFsChunkMap::Miss::kOtherDevice ? "lies only on other devices"
                      : miss == CBtrFsChunkMap::Miss::kProfile   ? "lies in a parity (RAID5/6) chunk"
                                                                 : "is not covered by the chunk map";
    session_.Problem("%s: node 0x%llx (level %u) %s", tree_, (unsigned long long)logical, level, why);
    return api::QORV_OK;
  }
  // One copy is enough for a restored volume; a later one is kept only
  // while the ones before it fail, so that a volume whose first copy is
  // damaged restores with the copy that reads. Each is kept before its
  // read, so an unreadable node is still in the image.
  CBtrFsNode node;
  const char* why = "";
  status_t s = api::ERR_INCONSISTENT;
  for (uint32_t i = 0; i < count && s != api::QORV_OK; ++i) {
    session_.Mark(copies[i] >> shift, sectors, "btrfs tree node");
    uint8_t* bytes = i == 0 ? FromSpan(copies[0]) : nullptr;
    s = bytes ? fs_.CheckNode(logical, level, bytes, &node, &why)
              : fs_.ReadNode(logical, level, copies[i], &node, &why);
    if (s == api::ERR_DEVICE_GONE) return s;
  }
  if (s != api::QORV_OK) {
    session_.Problem("%s: node 0x%llx (level %u) at 0x%llx: %s", tree_, (unsigned long long)logical, level,
                     (unsigned long long)copies[0], why);
    return api::QORV_OK;
  }
  if (trace_)
    trace_->Trace(2, "\n> Mark block %llx -> lvl = %x, %x items", (unsigned long long)(copies[0] >> shift),
                  node.Level(), node.Items());
  for (uint32_t i = 0; i < node.Items(); ++i) {
    if (node.Level() > 0) {
      const uint64_t child = node.ChildAt(i);
      Queue(tree_, logical, child, node.Level() - 1u);
      if (trace_) {
        uint64_t phys = 0, run = 0;
        fs_.Chunks().Translate(child, &phys, &run);
        trace_->Trace(2, "     -> Next level = %llx (%llx)", (unsigned long long)child,
                      (unsigned long long)(phys / sb_.nodeSize));
      }
      continue;
    }
    const CBtrFsNode::Key key = node.KeyAt(i);
    if (trace_)
      trace_->Trace(2, "%4u: Key: (%8llx   %2x:%s   %8llx)", i, (unsigned long long)key.objectId, key.type,
                    KeyTypeName(key.type), (unsigned long long)key.offset);
    if (chunkTree_ && key.type == key::kChunkItem && key.objectId == kFirstChunkTreeObjectId) {
      if (fs_.Chunks().Add(key.offset, node.DataAt(i), sb_.BlockSize()) != api::QORV_OK)
        session_.Problem("chunk tree: node 0x%llx item %u (chunk 0x%llx): %s", (unsigned long long)logical, i,
                         (unsigned long long)key.offset, fs_.Chunks().Why());
      continue;
    }
    if (key.type != key::kRootItem) continue;
    ByteView item = node.DataAt(i);
    if (!item.Has(0, rootf::kMinBytes)) {
      session_.Problem("%s: node 0x%llx item %u: root item of %zu bytes", tree_, (unsigned long long)logical, i,
                       item.Size());
      continue;
    }
    const uint8_t rootLevel = item.u8(rootf::kLevel);
    if (rootLevel >= kMaxLevel) {
      session_.Problem("%s: node 0x%llx item %u: root item level %u", tree_, (unsigned long long)logical, i, rootLevel);
      continue;
    }
    Queue(tree_, logical, item.le64(rootf::kBytenr), rootLevel);
  }
  return api::QORV_OK;
}

status_t CBtrFsScan::Run() {
  // The primary superblock; the mirrors are left out.
  const uint64_t first = kSuperOffset >> sb_.BlockShift();
  session_.Mark(first, (kSuperBytes + sb_.BlockSize() - 1) >> sb_.BlockShift(), "superblock");
  buf_ = static_cast<uint8_t*>(session_.Mem()->Allocate(kRunBytes, 0));
  if (!buf_) return api::ERR_NO_MEMORY;
  if (!sb_.csumKnown)
    session_.Problem("superblock: checksum type %u unknown, nodes taken unchecked", sb_.csumType);
  // The chunk tree lives in system chunks, which the superblock's array maps;
  // its chunk items complete the map the other trees need.
  chunkTree_ = true;
  QORV_TRY(WalkTree("Scanning chunk tree ...", "chunk tree", sb_.chunkRoot, sb_.chunkRootLevel));
  chunkTree_ = false;
  QORV_TRY(WalkTree("Scanning root tree ...", "root tree", sb_.root, sb_.rootLevel));
  if (sb_.logRoot) QORV_TRY(WalkTree("Scanning log root tree ...", "log root tree", sb_.logRoot, sb_.logRootLevel));
  return api::QORV_OK;
}

}  // namespace
}  // namespace Btrfs

api::status_t ScanBtrfs(QORV_SCANNER_ARGS) {
  using namespace Btrfs;
  ClearScanOutputs(bitmap, problems);
  CScanSession session(env, dev, msg);
  void* mem = env->mem->Allocate(sizeof(CBtrFsFileSystem), 0);
  if (!mem) return api::ERR_NO_MEMORY;
  auto* fs = new (mem) CBtrFsFileSystem(env, session.Device());
  api::status_t s = fs->Mount();
  if (s != api::QORV_OK && s != api::ERR_NOT_RECOGNIZED && msg)
    msg->Trace(1, "Btrfs volume refused: %s.", fs->Why());
  else if (s == api::ERR_NOT_RECOGNIZED && *fs->Why() && msg && env->verbose)
    msg->Trace(1, "Btrfs magic found, but: %s.", fs->Why());
  // File data is never kept for Btrfs: refused once the volume is known to
  // be Btrfs (other volumes must stay free to reach their own scanners) and
  // before any tree is read.
  if (s == api::QORV_OK && (scanFlags & api::SCAN_DATA)) s = api::ERR_NOT_SUPPORTED;
  if (s == api::QORV_OK) {
    const CBtrFsSuperBlock& sb = fs->Sb();
    if (msg && env->verbose)
      msg->Trace(1, "%s: sector shift %u, node size %u, %llu devices, checksum type %u", kBanner, sb.BlockShift(),
                 sb.nodeSize, (unsigned long long)sb.numDevices, sb.csumType);
    // A bitmap beyond 32-bit block numbers could never be dumped.
    s = sb.BlockCount() > 0xFFFFFFFFull ? api::ERR_TOO_BIG : session.CreateBitmap(sb.BlockCount(), sb.BlockShift());
    if (s == api::QORV_OK) {
      CBtrFsScan scan(*fs, session, nullptr);
      s = scan.Run();
    }
  }
  fs->~CBtrFsFileSystem();
  env->mem->Free(mem);
  return session.Finish(s, bitmap, blockCount, blockShift, problems);
}

}  // namespace QORV
