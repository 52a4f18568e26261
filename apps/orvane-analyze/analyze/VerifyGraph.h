/// The graph of a loaded plugin set, as orvane would build it at boot, and
/// what verify checks in it.
#pragma once

#include <deque>
#include <vector>

#include "analyze/VerifyLoader.h"
#include "analyze/VerifyReport.h"
#include "orvaner/graph/BarrierRegistry.h"
#include "orvaner/graph/Node.h"

namespace orvane::analyze {

/// orvane's graph of the plugins: a vertex per plugin, linked to the
/// barriers of a registry of its own exactly as the plugin linked itself,
/// and marked done when the plugin was refused (a boot keeps such a plugin
/// linked, done). No vertex ever runs.
class VerifyGraph {
 public:
  explicit VerifyGraph(const std::vector<VerifyPlugin>& plugins);
  ~VerifyGraph();
  VerifyGraph(const VerifyGraph&) = delete;
  VerifyGraph& operator=(const VerifyGraph&) = delete;

  /// Adds to @p report, in this order: every barrier that nobody provides
  /// (a failure, in the words of the alert a boot raises for it), every
  /// barrier that nobody requires (a note), and every cycle that would hang
  /// the boot (a failure), one per knot of plugins and barriers that wait
  /// on each other. Counts the barriers.
  void Check(VerifyReport& report);

 private:
  /// A plugin's place in the graph.
  class Vertex : public Node {
   public:
    explicit Vertex(std::string name);
    void Execute(Executor& executor) override;
    std::string DotAttributes() override;
  };

  void CheckProviders(VerifyReport& report);
  void CheckCycles(VerifyReport& report);

  BarrierRegistry registry_;
  std::deque<Vertex> vertices_;
};

}  // namespace orvane::analyze
