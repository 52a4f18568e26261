/// The barriers that order legacy init-script daemons by start priority.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "orvaner/graph/InitBarrier.h"

namespace orvane {

/// One start priority level of the legacy daemons. The levels form a chain
/// in ascending priority: the members of a level run after the barrier of
/// the level below, and a level's barrier completes after its own members
/// and the barrier below. The chain is the barrier registry's: it creates
/// every level (BarrierRegistry::GetPriorityBarrier), splices it in and
/// tells each level which one is below it. A level itself only records its
/// members and links them.
class PriorityBarrier : public InitBarrier {
 public:
  /// The barrier name of a priority: an infix no plugin would write, then
  /// the priority in decimal.
  static std::string NameOf(std::uint32_t priority);

  /// A level on no chain yet, with no members.
  explicit PriorityBarrier(std::uint32_t priority);

  /// Does nothing: a priority level never reports a missing provider.
  void Execute(Executor& executor) override;
  std::string DotAttributes() override;

  /// Puts @p member on this level: after the level below, before this barrier.
  void AddMember(Node& member);
  /// The vertices put on this level, in the order they joined.
  const std::vector<Node*>& Members() const { return members_; }

  std::uint32_t Priority() const { return priority_; }

  /// The level right below this one in the chain, null for the lowest.
  /// Changed only by the registry, with the graph lock held, as it splices
  /// a new level in.
  void SetLevelBelow(PriorityBarrier* below) { below_ = below; }

 private:
  std::uint32_t priority_;
  PriorityBarrier* below_ = nullptr;
  std::vector<Node*> members_;
};

}  // namespace orvane
