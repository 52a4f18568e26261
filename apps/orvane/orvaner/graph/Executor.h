/// The ready list and the pool of worker threads that run the graph.
#pragma once

#include <pthread.h>

#include <functional>
#include <thread>
#include <vector>

#include "orvaner/graph/ReadyList.h"
#include "orvaner/graph/ReadyQueue.h"

namespace orvane {

class GraphLockGuard;
class Node;
class PassObserver;

/// Each worker repeatedly takes the most urgent queued vertex (ReadyList)
/// and runs its forward or reverse action, which makes further vertices
/// ready. One executor serves one pass; destroying it stops the workers and
/// drops whatever is still queued.
class Executor : public ReadyQueue {
 public:
  /// Starts a thread for a worker; replaced in tests to make a start fail.
  using ThreadStarter = std::function<std::thread(std::function<void()> work)>;

  /// Starts @p threadCount workers (none when it is below 1: such an
  /// executor never runs anything). Throws Exception when the ready
  /// condition cannot be created or a thread cannot be started.
  Executor(int threadCount, bool randomize);
  Executor(int threadCount, bool randomize, const ThreadStarter& startThread);
  virtual ~Executor();
  Executor(const Executor&) = delete;
  Executor& operator=(const Executor&) = delete;

  /// Appends a vertex to the ready list and wakes the workers. Called by the
  /// scheduling rules of Node under the graph lock.
  void Enqueue(Node& node) override;
  /// Takes the vertex to run next and runs it on the calling thread exactly
  /// as a worker does: its forward action when it is QueuedStart, its
  /// reverse one otherwise, without the graph lock; then its completion,
  /// which may make other vertices ready. Returns it, or null when nothing
  /// is ready. Call it without the graph lock; an executor without workers
  /// is driven this way, one vertex at a time.
  Node* RunNextReady();

  /// How many workers were started.
  std::size_t ThreadCount() const { return threads_.size(); }
  /// How many vertices wait in the ready list.
  std::size_t ReadyCount() const;

  /// The worker count of a parallel run: twice the host's processors, but
  /// never more workers than plugins.
  static int ParallelThreadCount(std::size_t pluginCount, int processorCount);

  /// Tells @p observer of every vertex that becomes ready or is done from
  /// now on (null: nobody). Set it before the pass starts.
  void SetObserver(PassObserver* observer) { observer_ = observer; }
  PassObserver* Observer() const { return observer_; }

  /// Whether the pass raises system alerts (a barrier that nobody provides
  /// raises one); it does unless told otherwise before the pass starts.
  /// Either way the vertex still logs what it would have raised.
  void SetRaisesAlerts(bool raisesAlerts) { raisesAlerts_ = raisesAlerts; }
  bool RaisesAlerts() const { return raisesAlerts_; }

  /// The index of the worker running this code (0, 1, ... in the order they
  /// were started), or -1 on a thread that is no worker.
  static int CurrentWorker();

 private:
  void WorkerLoop(int index);
  /// Picks the vertex to run next and runs it. Called, and returns, with
  /// @p lock holding the graph lock once; the ready list is not empty.
  Node& RunPicked(GraphLockGuard& lock);
  void StopWorkers();

  pthread_cond_t readyCondition_;
  ReadyList readyList_;
  std::vector<std::thread> threads_;
  bool stopping_ = false;
  bool randomize_;
  PassObserver* observer_ = nullptr;
  bool raisesAlerts_ = true;
};

}  // namespace orvane
