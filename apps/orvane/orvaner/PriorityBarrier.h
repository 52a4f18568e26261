/// The barriers that order legacy init-script daemons by start priority.
#pragma once

#include <cstdint>
#include <string>

#include "orvaner/InitBarrier.h"

namespace orvane {

class BarrierRegistry;
class Plugin;

/// One start priority level of the legacy daemons. The levels form a chain
/// in ascending priority: the plugins of a level run after the barrier of
/// the level below, and a level's barrier completes after its own plugins
/// and the barrier below. Created only by BarrierRegistry::GetPriorityBarrier.
class PriorityBarrier : public InitBarrier {
 public:
  static constexpr std::uint32_t kUnknownIndex = 0xFFFFFFFF;

  /// The barrier name of a priority: an infix no plugin would write, then
  /// the priority in decimal.
  static std::string NameOf(std::uint32_t priority);

  /// Enters @p priority into @p registry's priority list, links this
  /// barrier to its neighbours in the chain (splicing it in between two
  /// existing levels) and registers it. Call with the graph lock held.
  PriorityBarrier(BarrierRegistry& registry, std::uint32_t priority);

  /// Does nothing: a priority level never reports a missing provider.
  void Execute(Executor& executor) override;
  std::string DotAttributes() override;

  /// Puts @p plugin on this level: after the level below, before this barrier.
  void AddMember(Plugin& plugin);

  std::uint32_t Priority() const { return priority_; }

 private:
  /// The barrier of another level that already exists.
  PriorityBarrier& LevelBarrier(std::uint32_t priority);

  BarrierRegistry& registry_;
  std::uint32_t priorityIndex_ = kUnknownIndex;
  std::uint32_t priority_;
};

}  // namespace orvane
