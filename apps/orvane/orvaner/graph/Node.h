/// A vertex of the dependency graph.
///
/// Life cycle. A vertex is built Idle, with no edges. While plugins load,
/// Requires and Provides add edges; nothing runs yet. A run then makes one
/// pass over the graph:
///
/// - Forward (start) pass. ScheduleStart moves an Idle vertex to
///   PendingStart and looks at its predecessors, scheduling any that are
///   still Idle first. When none of them is PendingStart or QueuedStart any
///   more, the vertex becomes QueuedStart and goes to the ready queue the
///   pass was scheduled with (ReadyQueue.h; the executor's ready list). A
///   worker takes it from there: RunAction runs Execute without the graph
///   lock, then Complete, under the lock, sets Started, schedules every
///   successor that is PendingStart, and wakes everyone waiting for the
///   vertex.
/// - Reverse (stop) pass. The mirror image over the successors:
///   PendingStop, QueuedStop, then RunAction calls ExecuteReverse and
///   Complete sets Stopped; a vertex that already ran forward (Started)
///   counts as done.
/// - MarkDone jumps straight to Started without running anything and without
///   waking anyone: a skipped plugin still releases what depends on it.
///
/// There is no failure state: Started means the work is over, whatever its
/// outcome. Every field is guarded by the graph lock (GraphLock.h), which is
/// also the mutex of the done condition; only Execute and ExecuteReverse run
/// without it. A cycle is never detected: its vertices stay PendingStart
/// and a wait on any of them never returns.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <string>
#include <vector>

namespace orvane {

class Executor;
class ReadyQueue;

/// The seven states of a vertex. The values are fixed: scheduling compares them.
enum class NodeState : std::uint32_t {
  Idle = 0,
  PendingStart = 1,
  PendingStop = 2,
  QueuedStart = 3,
  QueuedStop = 4,
  Started = 5,
  Stopped = 6,
};

class Node {
 public:
  /// The scheduling class of barriers and of JSON, native and debug plugins.
  static constexpr std::uint32_t kDefaultSchedulingClass = 1;
  /// The scheduling class of legacy init-script daemons: they run after everything else that is
  /// ready.
  static constexpr std::uint32_t kLegacyDaemonSchedulingClass = 3;

  /// Throws Exception when the done condition cannot be initialised.
  Node(std::string name, std::uint32_t schedulingClass);
  virtual ~Node();
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;

  /// The forward action, run by an executor thread without the graph lock.
  /// Must not throw: an exception here ends the process.
  virtual void Execute(Executor& executor) = 0;
  /// The reverse action; does nothing unless HasReverseAction is overridden too.
  virtual void ExecuteReverse(Executor& executor);
  /// Attribute text appended to the vertex's label in the Graphviz dump.
  virtual std::string DotAttributes() = 0;
  /// Whether the kind has a reverse action of its own; RunAction does not call
  /// the default one at all.
  virtual bool HasReverseAction() const { return false; }

  const std::string& Name() const { return name_; }
  /// Read these under the graph lock.
  const std::vector<Node*>& Predecessors() const { return predecessors_; }
  const std::vector<Node*>& Successors() const { return successors_; }
  std::uint32_t SchedulingClass() const { return schedulingClass_; }
  /// The current state, read under the graph lock.
  NodeState State() const;

  /// This vertex runs after @p other. No duplicate or cycle check.
  void Requires(Node& other);
  /// @p other runs after this vertex. No duplicate or cycle check.
  void Provides(Node& other);

  /// Started, without running anything and without waking anyone.
  void MarkDone();

  /// Reaches this vertex in a forward pass (see the life cycle above);
  /// every vertex that becomes QueuedStart goes to @p queue.
  void ScheduleStart(ReadyQueue& queue);
  /// Reaches this vertex in a reverse pass.
  void ScheduleStop(ReadyQueue& queue);
  /// How an executor thread runs a vertex it took from the ready list, in
  /// two halves, so that it can keep the graph lock from one vertex's
  /// completion to its next pick. First the action: Execute when
  /// @p forward (the vertex was QueuedStart), else ExecuteReverse when the
  /// kind has one; called without the graph lock.
  void RunAction(Executor& executor, bool forward);
  /// Then the completion: the new state, the release of what waits for
  /// this vertex (scheduled into @p queue), the wake-up.
  void Complete(ReadyQueue& queue, bool forward);
  /// Block until the state is Started (Stopped). Never call with the graph lock held.
  void WaitStarted();
  void WaitStopped();

  /// Length in edges of the longest chain of predecessors; cached.
  int Depth();
  /// Length in edges of the longest chain of successors; cached.
  int Height();
  /// Height while QueuedStart, Depth otherwise: the executor's tie-break.
  int SchedulingLevel();

 private:
  struct Pass;
  static const Pass kForward;
  static const Pass kReverse;

  static void Schedule(Node& start, ReadyQueue& queue, const Pass& pass);
  /// Whether something this vertex waits for in @p pass is pending or queued.
  bool WaitsForUnfinished(const Pass& pass) const;
  void Finish(ReadyQueue& queue, const Pass& pass);
  void WaitFor(NodeState wanted);
  void ComputeLevels();
  static int LongestChain(Node& start, int Node::*level, std::vector<Node*> Node::*edges);

  std::string name_;
  std::vector<Node*> predecessors_;
  std::vector<Node*> successors_;
  std::uint32_t schedulingClass_;
  int height_ = -1;
  int depth_ = -1;
  NodeState state_ = NodeState::Idle;
  pthread_cond_t doneCondition_;
};

}  // namespace orvane
