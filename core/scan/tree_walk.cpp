#include "core/scan/tree_walk.h"

namespace QORV {

CTreeWalk::Push CTreeWalk::Add(uint64_t address, uint64_t aux) {
  if (childDepth_ > maxDepth_) {
    session_.Problem("%s: node 0x%llx lies deeper than %u levels", what_, (unsigned long long)address, maxDepth_);
    return Push::kTooDeep;
  }
  api::status_t s = api::QORV_OK;
  if (!visited_.Insert(address, &s)) {
    if (s == api::QORV_OK) return Push::kSeen;
    memory_ = s;
    return Push::kNoMemory;
  }
  stack_.push_back(WalkNode{address, aux, childDepth_});
  return Push::kQueued;
}

api::status_t CTreeWalk::VisitOne(ITreeVisitor& visitor, const WalkNode& node) {
  QORV_TRY(memory_);
  QORV_TRY(session_.Poll());
  ++visits_;
  if (node.depth > deepest_) deepest_ = node.depth;
  childDepth_ = node.depth + 1;
  api::status_t s = visitor.Visit(node, *this);
  childDepth_ = 0;
  return s;
}

api::status_t CTreeWalk::Run(ITreeVisitor& visitor) {
  while (!stack_.empty()) {
    WalkNode node = stack_.back();
    stack_.pop_back();
    QORV_TRY(VisitOne(visitor, node));
  }
  return memory_;
}

// Rounds wait on each other like the frames of a depth-first walk: once the
// children a round queues reach the round limit, they become a round of
// their own, visited before the rest of the round that queued them. A wide
// tree then holds at most about the limit per level being walked, not a
// whole level.
api::status_t CTreeWalk::RunRounds(ITreeVisitor& visitor) {
  struct Round {
    std::vector<WalkNode> nodes;
    size_t next = 0;
  };
  std::vector<Round> rounds;
  for (;;) {
    if (!rounds.empty() && rounds.back().next == rounds.back().nodes.size()) {
      rounds.pop_back();
      continue;
    }
    if (!stack_.empty() && (rounds.empty() || stack_.size() >= roundLimit_)) {
      rounds.emplace_back();
      rounds.back().nodes.swap(stack_);
      visitor.Order(rounds.back().nodes.data(), rounds.back().nodes.size());
      if (rounds.size() > deepestRound_) deepestRound_ = uint32_t(rounds.size());
      continue;
    }
    if (rounds.empty()) break;
    Round& r = rounds.back();
    QORV_TRY(VisitOne(visitor, r.nodes[r.next++]));
  }
  return memory_;
}

}  // namespace QORV
