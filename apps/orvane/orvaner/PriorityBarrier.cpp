#include "orvaner/PriorityBarrier.h"

#include <algorithm>
#include <vector>

#include "orvaner/BarrierRegistry.h"
#include "orvaner/GraphLock.h"
#include "orvaner/Plugin.h"

namespace orvane {

std::string PriorityBarrier::NameOf(std::uint32_t priority) {
  return "_<->_priority_<->_" + std::to_string(priority);
}

PriorityBarrier::PriorityBarrier(BarrierRegistry& registry, std::uint32_t priority)
    : InitBarrier(NameOf(priority)), registry_(registry), priority_(priority) {
  GraphLockGuard lock;
  std::vector<std::uint32_t>& priorities = registry_.PriorityList();
  // Before any equal element, after every smaller one.
  const auto inserted =
      priorities.insert(std::lower_bound(priorities.begin(), priorities.end(), priority), priority);
  const auto pos = static_cast<std::size_t>(inserted - priorities.begin());

  if (pos > 0) {
    Requires(LevelBarrier(priorities[pos - 1]));
  }
  if (pos + 1 < priorities.size()) {
    // Splicing into the middle of the chain: the level above, plugins and
    // barrier, now waits for this level too. Its old edges from the level
    // below stay; they are redundant.
    PriorityBarrier& higher = LevelBarrier(priorities[pos + 1]);
    std::vector<Node*> above;
    for (Node* predecessor : higher.Predecessors()) {
      if (dynamic_cast<Plugin*>(predecessor) != nullptr) {
        above.push_back(predecessor);
      }
    }
    above.push_back(&higher);
    for (Node* waiting : above) {
      Provides(*waiting);
    }
  }
  registry_.RegisterBarrier(*this, Name());
  priorityIndex_ = static_cast<std::uint32_t>(pos);
}

void PriorityBarrier::Execute(Executor&) {}

std::string PriorityBarrier::DotAttributes() { return " shape=trapezium"; }

void PriorityBarrier::AddMember(Plugin& plugin) {
  GraphLockGuard lock;
  const std::vector<std::uint32_t>& priorities = registry_.PriorityList();
  if (priorityIndex_ >= priorities.size() || priorities[priorityIndex_] != priority_) {
    const auto found = std::find(priorities.begin(), priorities.end(), priority_);
    priorityIndex_ = static_cast<std::uint32_t>(found - priorities.begin());
  }
  if (priorityIndex_ == 0) {
    Requires(plugin);
    return;
  }
  LevelBarrier(priorities[priorityIndex_ - 1]).Provides(plugin);
  Requires(plugin);
}

PriorityBarrier& PriorityBarrier::LevelBarrier(std::uint32_t priority) {
  return static_cast<PriorityBarrier&>(*registry_.GetBarrier(NameOf(priority), false));
}

}  // namespace orvane
