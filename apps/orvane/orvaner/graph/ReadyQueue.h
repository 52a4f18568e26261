/// Where the scheduling rules hand a vertex that has nothing left to wait for.
#pragma once

namespace orvane {

class Node;

/// The one thing the graph's vertices need of whoever runs them: a place to
/// put a vertex once it is queued. The executor is one; a vertex never
/// needs more of it than this.
class ReadyQueue {
 public:
  /// Takes @p node, which has just become QueuedStart or QueuedStop. Called
  /// by the scheduling rules of Node with the graph lock held.
  virtual void Enqueue(Node& node) = 0;

 protected:
  ReadyQueue() = default;
  ~ReadyQueue() = default;
  ReadyQueue(const ReadyQueue&) = delete;
  ReadyQueue& operator=(const ReadyQueue&) = delete;
};

}  // namespace orvane
