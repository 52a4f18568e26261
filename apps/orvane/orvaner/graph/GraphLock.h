/// The graph lock: one process-wide recursive mutex that guards every graph
/// vertex, the barrier registry, the priority chain and the executor's ready
/// list. It is also the mutex of every condition variable of the graph, and
/// it serialises resets of the executor process.
#pragma once

#include <pthread.h>

namespace orvane {

/// True when the calling thread holds the graph lock.
bool IsGraphLockHeld();

/// Takes the graph lock for a scope. It can be released early and taken
/// again; the destructor releases it only if this guard holds it.
class GraphLockGuard {
 public:
  /// Takes the lock at once.
  GraphLockGuard();
  ~GraphLockGuard();
  GraphLockGuard(const GraphLockGuard&) = delete;
  GraphLockGuard& operator=(const GraphLockGuard&) = delete;

  void Lock();
  void Unlock();
  bool OwnsLock() const { return ownsLock_; }

  /// Waits on @p condition, which must be used with the graph lock only.
  /// The guard must hold the lock exactly once.
  void Wait(pthread_cond_t& condition);

 private:
  bool ownsLock_ = false;
};

}  // namespace orvane
