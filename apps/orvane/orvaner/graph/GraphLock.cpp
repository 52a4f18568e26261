#include "orvaner/graph/GraphLock.h"

#include <atomic>
#include <cstdlib>

namespace orvane {
namespace {

// Initialised statically, so the lock exists before any constructor of a
// vertex or barrier runs.
pthread_mutex_t graphMutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;

// Read without the mutex by IsGraphLockHeld, hence atomic. The count is
// written only while the mutex is held.
std::atomic<int> holdCount{0};
std::atomic<pthread_t> holder{};

void LockGraph() {
  if (pthread_mutex_lock(&graphMutex) != 0) {
    std::abort();  // the mutex is recursive and valid: failing here is a broken process
  }
  holdCount.fetch_add(1, std::memory_order_relaxed);
  holder.store(pthread_self(), std::memory_order_relaxed);
}

void UnlockGraph() {
  holdCount.fetch_sub(1, std::memory_order_relaxed);
  pthread_mutex_unlock(&graphMutex);
}

}  // namespace

bool IsGraphLockHeld() {
  return holdCount.load(std::memory_order_relaxed) >= 1 &&
         pthread_equal(holder.load(std::memory_order_relaxed), pthread_self());
}

GraphLockGuard::GraphLockGuard() { Lock(); }

GraphLockGuard::~GraphLockGuard() {
  if (ownsLock_) {
    Unlock();
  }
}

void GraphLockGuard::Lock() {
  LockGraph();
  ownsLock_ = true;
}

void GraphLockGuard::Unlock() {
  ownsLock_ = false;
  UnlockGraph();
}

void GraphLockGuard::Wait(pthread_cond_t& condition) {
  // Another thread takes the mutex while this one waits; the count follows.
  holdCount.store(0, std::memory_order_relaxed);
  pthread_cond_wait(&condition, &graphMutex);
  holdCount.store(1, std::memory_order_relaxed);
  holder.store(pthread_self(), std::memory_order_relaxed);
}

}  // namespace orvane
