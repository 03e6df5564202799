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

api::status_t CTreeWalk::RunRounds(ITreeVisitor& visitor) {
  std::vector<WalkNode> round;
  while (!stack_.empty()) {
    round.swap(stack_);
    stack_.clear();
    visitor.Order(round.data(), round.size());
    for (const WalkNode& node : round) QORV_TRY(VisitOne(visitor, node));
  }
  return memory_;
}

}  // namespace QORV
