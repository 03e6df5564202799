// One walk for every tree a scanner follows (B-trees, extent trees,
// directory trees): depth first from an explicit stack, so neither depth nor
// a hostile pointer can exhaust the call stack; a visited set of its own, so
// cycles and shared nodes are read once; a depth bound that only hostile
// input ever reaches.
#pragma once
#include <cstddef>
#include <cstdint>
#include <vector>

#include "core/scan/session.h"
#include "core/scan/visited.h"

namespace QORV {

struct WalkNode {
  uint64_t address;  // what identifies the node (a block, a cluster, a logical address)
  uint64_t aux;      // the format's own word: expected level, owner, length...
  uint32_t depth;    // 0 for a root
};

class CTreeWalk;

class ITreeVisitor {
 public:
  // Reads, validates and marks one node and pushes its children. Damage to
  // this node alone is counted in the session and answered with 0; any
  // other status ends the walk.
  virtual api::status_t Visit(const WalkNode& node, CTreeWalk& walk) = 0;
  // Walks in rounds only: puts one round's nodes in the order they are
  // visited (by disk address, say, so that neighbours are read together).
  virtual void Order(WalkNode* nodes, size_t count) {
    (void)nodes;
    (void)count;
  }

 protected:
  ~ITreeVisitor() = default;
};

class CTreeWalk : public api::base_noncopyable {
 public:
  // Far beyond any real format's height or directory depth.
  static constexpr uint32_t kDefaultMaxDepth = 1u << 16;

  enum class Push { kQueued, kSeen, kTooDeep, kNoMemory };

  CTreeWalk(CScanSession& session, const char* what, uint32_t maxDepth = kDefaultMaxDepth)
      : session_(session), visited_(session.Mem()), what_(what), maxDepth_(maxDepth) {}

  // Queues a root, or (inside Visit) a child of the node being visited.
  // A node seen before is not queued again; passing the depth bound counts
  // a problem.
  Push Add(uint64_t address, uint64_t aux = 0);
  // Marks an address as seen without visiting it (a node the scanner has
  // already handled by other means).
  bool MarkSeen(uint64_t address) { return visited_.Insert(address); }
  bool Seen(uint64_t address) const { return visited_.Contains(address); }

  // Visits queued nodes until none is left; polls the session per node.
  api::status_t Run(ITreeVisitor& visitor);
  // The same nodes in rounds instead of depth first: every node queued so
  // far is ordered by the visitor and visited, and the children those
  // visits queue make the next round. A round holds about the round limit
  // at most: more children than that are walked first, as a round of their
  // own, so memory follows the walk's depth, not a tree's width.
  api::status_t RunRounds(ITreeVisitor& visitor);
  void SetRoundLimit(size_t nodes) { roundLimit_ = nodes ? nodes : 1; }
  // Rounds waiting on each other at the deepest point of the walk.
  uint32_t DeepestRound() const { return deepestRound_; }
  uint64_t Visited() const { return visits_; }
  uint32_t MaxDepthReached() const { return deepest_; }

 private:
  api::status_t VisitOne(ITreeVisitor& visitor, const WalkNode& node);

  CScanSession& session_;
  CVisitedSet visited_;
  const char* what_;
  uint32_t maxDepth_;
  uint32_t childDepth_ = 0;
  uint32_t deepest_ = 0;
  uint64_t visits_ = 0;
  // A round must hold most of a tree level's nodes for its neighbours to be
  // read together (a level's nodes lie interleaved with other trees'):
  // 65,536 nodes of 16 KiB are 1 GiB of metadata, queued in 1.5 MiB.
  size_t roundLimit_ = 65536;
  uint32_t deepestRound_ = 0;
  api::status_t memory_ = api::QORV_OK;
  std::vector<WalkNode> stack_;
};

}  // namespace QORV
