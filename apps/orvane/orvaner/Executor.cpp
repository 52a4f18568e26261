#include "orvaner/Executor.h"

#include <algorithm>
#include <string>
#include <system_error>

#include "orvaner/Exception.h"
#include "orvaner/GraphLock.h"
#include "orvaner/Node.h"

namespace orvane {
namespace {

std::thread StartStdThread(std::function<void()> work) { return std::thread(std::move(work)); }

}  // namespace

Executor::Executor(int threadCount, bool randomize)
    : Executor(threadCount, randomize, StartStdThread) {}

Executor::Executor(int threadCount, bool randomize, const ThreadStarter& startThread)
    : randomize_(randomize) {
  if (pthread_cond_init(&readyCondition_, nullptr) != 0) {
    throw Exception("Condition variable for Executor could not be initialized");
  }
  for (int index = 0; index < threadCount; ++index) {
    try {
      threads_.push_back(startThread([this] { WorkerLoop(); }));
    } catch (const std::system_error&) {
      const std::size_t created = threads_.size();
      // The lock is released before the join: a worker needs it to see
      // that it has to stop, so joining with it held would never return.
      StopWorkers();
      pthread_cond_destroy(&readyCondition_);
      // No blank before "requested)": the text is the product's own.
      throw Exception("Could not create enough execution threads. (" + std::to_string(created) +
                      " created, " + std::to_string(threadCount) + "requested)");
    }
  }
}

Executor::~Executor() {
  StopWorkers();
  pthread_cond_destroy(&readyCondition_);
  readyList_.Clear();  // vertices still queued are dropped, not run
}

void Executor::StopWorkers() {
  {
    GraphLockGuard lock;
    stopping_ = true;
    pthread_cond_broadcast(&readyCondition_);
  }
  for (std::thread& thread : threads_) {
    thread.join();
  }
  threads_.clear();
}

void Executor::Enqueue(Node& node) {
  GraphLockGuard lock;
  readyList_.Push(node);
  pthread_cond_broadcast(&readyCondition_);
}

Node& Executor::PickNext() {
  GraphLockGuard lock;
  return readyList_.PickNext(randomize_);
}

std::size_t Executor::ReadyCount() const {
  GraphLockGuard lock;
  return readyList_.Size();
}

int Executor::ParallelThreadCount(std::size_t pluginCount, int processorCount) {
  const auto doubled = static_cast<std::size_t>(std::max(processorCount, 0)) * 2;
  return static_cast<int>(std::min(pluginCount, doubled));
}

void Executor::RunNode(Node& node) {
  if (node.State() == NodeState::QueuedStart) {
    node.RunStart(*this);
  } else {
    node.RunStop(*this);
  }
}

void Executor::WorkerLoop() {
  GraphLockGuard lock;
  while (!stopping_) {
    while (!readyList_.Empty()) {
      Node& node = PickNext();
      const bool forward = node.State() == NodeState::QueuedStart;
      lock.Unlock();
      node.RunAction(*this, forward);
      // One taking of the lock serves both the completion and the next
      // pick: every vertex would otherwise cost the worker three, each a
      // chance to queue behind the main thread scheduling the plugin list.
      lock.Lock();
      node.Complete(*this, forward);
      if (stopping_) {
        return;
      }
    }
    lock.Wait(readyCondition_);
  }
}

}  // namespace orvane
