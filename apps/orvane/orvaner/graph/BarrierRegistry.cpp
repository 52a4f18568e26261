#include "orvaner/graph/BarrierRegistry.h"

#include <algorithm>
#include <string>
#include <utility>

#include "orvaner/graph/GraphLock.h"
#include "orvaner/graph/InitBarrier.h"
#include "orvaner/graph/PriorityBarrier.h"

namespace orvane {

BarrierRegistry::BarrierRegistry() = default;

BarrierRegistry::~BarrierRegistry() = default;

BarrierRegistry& BarrierRegistry::Instance() {
  // Never destroyed: worker threads may still look at barriers while the
  // process exits.
  static auto* registry = new BarrierRegistry;
  return *registry;
}

Node* BarrierRegistry::GetBarrier(std::string_view name, bool create) {
  GraphLockGuard lock;
  if (auto found = barriers_.find(name); found != barriers_.end()) {
    return found->second;
  }
  if (!create) {
    return nullptr;
  }
  // Owned first: when entering the name then fails, the registry names no
  // barrier it does not hold.
  owned_.push_back(std::make_unique<InitBarrier>(std::string(name)));
  Node* created = owned_.back().get();
  barriers_.emplace(name, created);
  return created;
}

void BarrierRegistry::RegisterBarrier(Node& node, std::string_view name) {
  GraphLockGuard lock;
  if (auto found = barriers_.find(name); found != barriers_.end()) {
    found->second = &node;
    return;
  }
  barriers_.emplace(name, &node);
}

std::deque<Node*> BarrierRegistry::ListBarriers() {
  GraphLockGuard lock;
  std::vector<const std::pair<const std::string, Node*>*> entries;
  entries.reserve(barriers_.size());
  for (const auto& entry : barriers_) {
    entries.push_back(&entry);
  }
  // std::string's order is the byte-wise one, a shorter name first on a
  // common prefix.
  std::sort(entries.begin(), entries.end(),
            [](const auto* left, const auto* right) { return left->first < right->first; });
  std::deque<Node*> barriers;
  for (const auto* entry : entries) {
    barriers.push_back(entry->second);
  }
  return barriers;
}

PriorityBarrier& BarrierRegistry::GetPriorityBarrier(std::uint32_t priority) {
  GraphLockGuard lock;
  // A plain barrier that a plugin happened to give this name is not a
  // level; the new level then takes the name over.
  if (auto* found =
          dynamic_cast<PriorityBarrier*>(GetBarrier(PriorityBarrier::NameOf(priority), false))) {
    return *found;
  }
  auto barrier = std::make_unique<PriorityBarrier>(priority);
  PriorityBarrier& created = *barrier;
  Adopt(std::move(barrier));
  SpliceLevel(created);
  return created;
}

void BarrierRegistry::SpliceLevel(PriorityBarrier& level) {
  GraphLockGuard lock;
  const std::uint32_t priority = level.Priority();
  // Before any equal element, after every smaller one.
  const auto inserted = priorityList_.insert(
      std::lower_bound(priorityList_.begin(), priorityList_.end(), priority), priority);
  const auto pos = static_cast<std::size_t>(inserted - priorityList_.begin());

  if (pos > 0) {
    PriorityBarrier& lower = Level(priorityList_[pos - 1]);
    level.Requires(lower);
    level.SetLevelBelow(&lower);
  }
  if (pos + 1 < priorityList_.size()) {
    // Splicing into the middle of the chain: the level above, members and
    // barrier, now waits for this level too. Its old edges from the level
    // below stay; they are redundant.
    PriorityBarrier& higher = Level(priorityList_[pos + 1]);
    for (Node* member : higher.Members()) {
      level.Provides(*member);
    }
    level.Provides(higher);
    higher.SetLevelBelow(&level);
  }
  RegisterBarrier(level, level.Name());
}

PriorityBarrier& BarrierRegistry::Level(std::uint32_t priority) {
  return static_cast<PriorityBarrier&>(*GetBarrier(PriorityBarrier::NameOf(priority), false));
}

void BarrierRegistry::Adopt(std::unique_ptr<Node> barrier) {
  GraphLockGuard lock;
  owned_.push_back(std::move(barrier));
}

}  // namespace orvane
