#include "orvaner/graph/PriorityBarrier.h"

#include "orvaner/graph/GraphLock.h"

namespace orvane {

std::string PriorityBarrier::NameOf(std::uint32_t priority) {
  return "_<->_priority_<->_" + std::to_string(priority);
}

PriorityBarrier::PriorityBarrier(std::uint32_t priority)
    : InitBarrier(NameOf(priority)), priority_(priority) {}

void PriorityBarrier::Execute(Executor&) {}

std::string PriorityBarrier::DotAttributes() { return " shape=trapezium"; }

void PriorityBarrier::AddMember(Node& member) {
  GraphLockGuard lock;
  // The lowest level has nothing to wait for: its first member can run at once.
  if (below_ != nullptr) {
    below_->Provides(member);
  }
  Requires(member);
  members_.push_back(&member);
}

}  // namespace orvane
