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

api::status_t CTreeWalk::Run(ITreeVisitor& visitor) {
  while (!stack_.empty()) {
    QORV_TRY(memory_);
    QORV_TRY(session_.Poll());
    WalkNode node = stack_.back();
    stack_.pop_back();
    ++visits_;
    if (node.depth > deepest_) deepest_ = node.depth;
    childDepth_ = node.depth + 1;
    api::status_t s = visitor.Visit(node, *this);
    childDepth_ = 0;
    QORV_TRY(s);
  }
  return memory_;
}

}  // namespace QORV
