/// The cycles of a directed graph, one per knot, in time and memory linear
/// in the graph's size and without recursion.
#pragma once

#include <cstddef>
#include <vector>

namespace orvane::analyze {

/// A cycle: its vertices in order, the first again at the end.
struct VerifyCycle {
  std::vector<std::size_t> path;
  /// The vertices of its strongly connected component: every one of them
  /// waits, directly or not, on every other.
  std::size_t componentSize = 0;
};

/// Finds the strongly connected components (Tarjan's algorithm, with a
/// stack of its own so that a chain of any length cannot overflow the
/// thread's stack) and, in each that holds a cycle, a shortest cycle
/// through its lowest-numbered vertex.
class VerifyCycleFinder {
 public:
  /// @p successors[v] lists the vertices that v leads to; a vertex for
  /// which @p skipped is true is left out of the graph, with its edges.
  VerifyCycleFinder(const std::vector<std::vector<std::size_t>>& successors,
                    const std::vector<bool>& skipped);

  /// One cycle per component that has one, ordered by their lowest vertex.
  std::vector<VerifyCycle> Find();

 private:
  static constexpr std::size_t kNone = static_cast<std::size_t>(-1);

  bool Skipped(std::size_t vertex) const { return skipped_[vertex]; }
  /// Numbers the components of everything reachable from @p root.
  void NumberComponents(std::size_t root);
  /// A breadth-first search from @p start inside its component, back to it.
  VerifyCycle ShortestCycleThrough(std::size_t start, std::size_t componentSize);

  const std::vector<std::vector<std::size_t>>& successors_;
  const std::vector<bool>& skipped_;
  std::vector<std::size_t> order_;      ///< when the walk reached a vertex, or kNone
  std::vector<std::size_t> lowLink_;    ///< the earliest vertex still open it reaches
  std::vector<std::size_t> component_;  ///< its component's number, or kNone
  std::vector<bool> open_;              ///< on the stack of unfinished components
  std::vector<std::size_t> openStack_;
  std::vector<std::size_t> componentSizes_;
  std::size_t reached_ = 0;
  std::vector<std::size_t> parent_;  ///< the search's way back, kNone when not reached
};

}  // namespace orvane::analyze
