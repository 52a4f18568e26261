#include "orvaner/graph/Executor.h"

#include <algorithm>
#include <exception>
#include <string>

#include "log/Log.h"
#include "orvaner/Exception.h"
#include "orvaner/graph/GraphLock.h"
#include "orvaner/graph/Node.h"
#include "orvaner/graph/PassObserver.h"

namespace orvane {
namespace {

std::thread StartStdThread(std::function<void()> work) { return std::thread(std::move(work)); }

thread_local int currentWorker = -1;

/// Logs an exception that left a vertex's action or completion, which is
/// the exception being handled; @p step says which. Without the memory to
/// say it, it says nothing.
void ReportEscapedException(const char* step, const Node& node) noexcept {
  try {
    try {
      throw;
    } catch (const std::exception& error) {
      Log_Level(LOG_LEVEL_ERROR, "unhandled exception whilst %s %s: %s\n", step,
                node.Name().c_str(), error.what());
    } catch (...) {
      Log_Level(LOG_LEVEL_ERROR, "unknown exception whilst %s %s\n", step, node.Name().c_str());
    }
  } catch (...) {
  }
}

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
      // Room first: a thread that is started but cannot be stored would end
      // the process when its handle goes.
      threads_.reserve(threads_.size() + 1);
      threads_.push_back(startThread([this, index] { WorkerLoop(index); }));
    } catch (...) {
      // Not only a thread the system refuses: memory for the thread or its
      // handle that cannot be had fails the pool the same way.
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
  if (observer_ != nullptr) observer_->VertexReady(node);
  pthread_cond_broadcast(&readyCondition_);
}

std::size_t Executor::ReadyCount() const {
  GraphLockGuard lock;
  return readyList_.Size();
}

int Executor::ParallelThreadCount(std::size_t pluginCount, int processorCount) {
  const auto doubled = static_cast<std::size_t>(std::max(processorCount, 0)) * 2;
  return static_cast<int>(std::min(pluginCount, doubled));
}

Node* Executor::RunNextReady() {
  GraphLockGuard lock;
  if (readyList_.Empty()) {
    return nullptr;
  }
  return &RunPicked(lock);
}

int Executor::CurrentWorker() { return currentWorker; }

void Executor::WorkerLoop(int index) {
  currentWorker = index;
  GraphLockGuard lock;
  while (!stopping_) {
    // One taking of the lock serves both a vertex's completion and the next
    // pick: every vertex would otherwise cost the worker three, each a
    // chance to queue behind the main thread scheduling the plugin list.
    while (!readyList_.Empty()) {
      RunPicked(lock);
      if (stopping_) {
        return;
      }
    }
    lock.Wait(readyCondition_);
  }
}

Node& Executor::RunPicked(GraphLockGuard& lock) {
  Node& node = readyList_.PickNext(randomize_);
  const bool forward = node.State() == NodeState::QueuedStart;
  lock.Unlock();
  // An action must not throw; one that does anyway is reported and its
  // vertex counts as finished, like a failed plugin, so that the pass goes
  // on instead of the process ending.
  try {
    node.RunAction(*this, forward);
  } catch (...) {
    ReportEscapedException("running", node);
  }
  lock.Lock();
  if (observer_ != nullptr) observer_->VertexDone(node);
  try {
    node.Complete(*this, forward);
  } catch (...) {
    ReportEscapedException("completing", node);
  }
  return node;
}

}  // namespace orvane
