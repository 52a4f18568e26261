/// The executor's ready list: queued vertices waiting for a worker.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace orvane {

class Node;

/// Picks vertices in the order of the scheduling rule: the lowest scheduling
/// class first; within it the greatest scheduling level (the longest chain
/// still ahead of the vertex); among equals the one that arrived first, or,
/// when randomising, the candidate at index rand() % number of candidates,
/// counted in arrival order. The C library's generator is used as it stands
/// and never seeded here.
///
/// The choice is that of a scan over the whole list in arrival order, but
/// the vertices are kept in buckets of equal class and level, in arrival
/// order within each, and the buckets in order of urgency: a pick takes
/// from the first bucket, at a cost that does not grow with the number of
/// vertices ready. Levels are asked of a vertex when it is pushed; they do
/// not change while the graph runs. Callers hold the graph lock.
class ReadyList {
 public:
  ReadyList();
  ~ReadyList();
  ReadyList(const ReadyList&) = delete;
  ReadyList& operator=(const ReadyList&) = delete;

  /// Appends a queued vertex.
  void Push(Node& node);
  /// Removes and returns the vertex to run next. The list must not be empty.
  Node& PickNext(bool randomize);

  bool Empty() const;
  std::size_t Size() const;
  /// Drops every vertex still in the list; none of them runs.
  void Clear();

 private:
  struct Entries;
  std::unique_ptr<Entries> entries_;
};

}  // namespace orvane
