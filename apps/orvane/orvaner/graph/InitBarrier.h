/// A named synchronisation point of the graph.
#pragma once

#include <string>

#include "orvaner/graph/Node.h"

namespace orvane {

/// Plugins "provide" a barrier (it completes only after them) and "require"
/// it (they run only after it). It does no work of its own except to report
/// when nobody provides it; its requirers run all the same.
class InitBarrier : public Node {
 public:
  explicit InitBarrier(std::string name);

  /// The missing-provider check: with no predecessor, raises a system alert
  /// (when the pass raises alerts) and logs a warning naming every requirer.
  void Execute(Executor& executor) override;
  std::string DotAttributes() override;

  /// The text of the missing-provider report for this barrier.
  std::string MissingProviderText() const;
};

}  // namespace orvane
