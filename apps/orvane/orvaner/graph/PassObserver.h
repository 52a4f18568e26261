/// What a pass over the graph tells whoever watches it.
#pragma once

#include <string>

namespace orvane {

class Node;

/// Told of every step of a pass as it happens, from the thread that takes
/// it: the main thread while it schedules, a worker otherwise
/// (Executor::CurrentWorker says which). Implementations must be cheap and
/// must not throw: they run inside the scheduler, some of them under the
/// graph lock.
class PassObserver {
 public:
  /// How a plugin's activation ended.
  enum class Outcome { Activated, Failed, Skipped };

  virtual ~PassObserver() = default;

  /// @p node went to the ready list: everything it waits for is done.
  virtual void VertexReady(const Node& node) = 0;
  /// @p node's action is over; what waits for it is released next.
  virtual void VertexDone(const Node& node) = 0;
  /// A plugin's activation begins (before any interactive prompt).
  virtual void ActivationStarted(const Node& plugin) = 0;
  /// A plugin's activation ended; @p reason is the failure's text.
  virtual void ActivationFinished(const Node& plugin, Outcome outcome,
                                  const std::string& reason) = 0;
};

}  // namespace orvane
