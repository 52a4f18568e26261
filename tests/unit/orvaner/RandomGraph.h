/// Random dependency graphs for the scheduler's tests: a recipe says what to
/// build, so the same graph can be built twice (for instance once for the
/// real scheduler and once for a reference model) with its levels computed
/// independently in each copy.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "orvaner/Exception.h"
#include "orvaner/graph/BarrierRegistry.h"
#include "orvaner/graph/PriorityBarrier.h"
#include "orvaner/plugins/Plugin.h"

namespace orvane::testgraph {

/// Told whenever a test vertex runs, from the executor thread that runs it.
class RunObserver {
 public:
  virtual ~RunObserver() = default;
  virtual void Ran(Node& vertex, bool forward) = 0;
};

/// A plugin that does nothing but count its runs and tell an observer.
class TestVertex : public Plugin {
 public:
  TestVertex(std::string name, std::uint32_t schedulingClass, RunObserver* observer)
      : Plugin(std::move(name), schedulingClass), observer_(observer) {}

  void Execute(Executor&) override {
    forwardRuns.fetch_add(1, std::memory_order_relaxed);
    if (observer_ != nullptr) {
      observer_->Ran(*this, true);
    }
  }
  void ExecuteReverse(Executor&) override {
    reverseRuns.fetch_add(1, std::memory_order_relaxed);
    if (observer_ != nullptr) {
      observer_->Ran(*this, false);
    }
  }
  bool HasReverseAction() const override { return true; }

  void Start() override {}
  bool SupportsHostProfile() const override { return false; }
  void ApplyHostProfile() override { throw NotImplementedException("apply_host_profile"); }

  std::atomic<int> forwardRuns{0};
  std::atomic<int> reverseRuns{0};

 private:
  RunObserver* observer_;
};

enum class GraphShape { Chain, WideFan, RandomEdges, PriorityChain, AnyEdges };

inline const char* ShapeName(GraphShape shape) {
  switch (shape) {
    case GraphShape::Chain: return "chain";
    case GraphShape::WideFan: return "wide fan";
    case GraphShape::RandomEdges: return "random DAG";
    case GraphShape::PriorityChain: return "priority chain";
    case GraphShape::AnyEdges: return "random digraph";
  }
  return "?";
}

/// What to build. Vertices are the plugin list, in list order; the priority
/// barriers come from the graph's own registry.
struct GraphRecipe {
  struct Vertex {
    std::uint32_t schedulingClass = Node::kDefaultSchedulingClass;
    bool priorityMember = false;
    std::uint32_t priority = 0;
    bool markDone = false;
  };
  /// Either an edge (`from` runs before `to`, linked from one end or the
  /// other) or, with `member`, vertex `from` joining its priority level.
  struct Step {
    bool member = false;
    int from = 0;
    int to = 0;
    bool linkFromProvider = false;
  };
  GraphShape shape = GraphShape::Chain;
  std::vector<Vertex> vertices;
  std::vector<Step> steps;
};

/// One built copy of a recipe. The vertices and barriers live as long as it.
class TestGraph {
 public:
  explicit TestGraph(const GraphRecipe& recipe, RunObserver* observer = nullptr) {
    vertices_.reserve(recipe.vertices.size());
    for (std::size_t index = 0; index < recipe.vertices.size(); ++index) {
      vertices_.push_back(std::make_unique<TestVertex>(
          "plugin" + std::to_string(index), recipe.vertices[index].schedulingClass, observer));
    }
    for (const GraphRecipe::Step& step : recipe.steps) {
      TestVertex& from = *vertices_[step.from];
      if (step.member) {
        registry_.GetPriorityBarrier(recipe.vertices[step.from].priority).AddMember(from);
      } else if (step.linkFromProvider) {
        from.Provides(*vertices_[step.to]);
      } else {
        vertices_[step.to]->Requires(from);
      }
    }
    for (std::size_t index = 0; index < recipe.vertices.size(); ++index) {
      if (recipe.vertices[index].markDone) {
        vertices_[index]->MarkDone();
      }
    }
  }

  std::size_t Size() const { return vertices_.size(); }
  TestVertex& operator[](std::size_t index) { return *vertices_[index]; }
  /// The plugin list in list order.
  std::vector<TestVertex*> Plugins() {
    std::vector<TestVertex*> plugins;
    for (auto& vertex : vertices_) {
      plugins.push_back(vertex.get());
    }
    return plugins;
  }
  /// The plugins, then the barriers in name order.
  std::vector<Node*> AllVertices() {
    std::vector<Node*> all(vertices_.size());
    std::transform(vertices_.begin(), vertices_.end(), all.begin(),
                   [](auto& vertex) { return vertex.get(); });
    for (Node* barrier : registry_.ListBarriers()) {
      all.push_back(barrier);
    }
    return all;
  }

 private:
  BarrierRegistry registry_;
  std::vector<std::unique_ptr<TestVertex>> vertices_;
};

/// The vertices a pass will reach from the plugin list, asked before it:
/// a forward pass walks predecessors, a reverse one successors, and neither
/// walks on from a vertex that has already finished (marked done). So a
/// barrier that no plugin waits for (the top priority level, say) is never
/// reached by a forward pass.
inline std::set<Node*> ReachedByPass(TestGraph& graph, bool forward) {
  const NodeState finished = forward ? NodeState::Started : NodeState::Stopped;
  std::set<Node*> reached;
  std::vector<Node*> toVisit;
  for (TestVertex* plugin : graph.Plugins()) {
    toVisit.push_back(plugin);
  }
  while (!toVisit.empty()) {
    Node* vertex = toVisit.back();
    toVisit.pop_back();
    if (!reached.insert(vertex).second || vertex->State() == finished) {
      continue;
    }
    const std::vector<Node*>& next = forward ? vertex->Predecessors() : vertex->Successors();
    toVisit.insert(toVisit.end(), next.begin(), next.end());
  }
  return reached;
}

/// Random recipes of one shape. `size` is the number of plugins; edges and
/// priority levels are drawn from `random`.
class RecipeMaker {
 public:
  explicit RecipeMaker(std::uint32_t seed) : random_(seed) {}

  /// @p markDoneShare: the chance that a plugin is marked done before the pass.
  GraphRecipe Make(GraphShape shape, int size, double markDoneShare = 0.0) {
    GraphRecipe recipe;
    recipe.shape = shape;
    recipe.vertices.resize(static_cast<std::size_t>(size));
    std::vector<int> order = Shuffled(size);  // a topological order unrelated to list order
    switch (shape) {
      case GraphShape::Chain: MakeChain(recipe, order); break;
      case GraphShape::WideFan: MakeFans(recipe, order); break;
      case GraphShape::RandomEdges: MakeRandomEdges(recipe, order); break;
      case GraphShape::PriorityChain: MakePriorityChain(recipe, order); break;
      case GraphShape::AnyEdges: MakeAnyEdges(recipe); break;
    }
    std::bernoulli_distribution markDone(markDoneShare);
    for (GraphRecipe::Vertex& vertex : recipe.vertices) {
      vertex.markDone = markDone(random_);
    }
    return recipe;
  }

  std::mt19937& Random() { return random_; }

 private:
  std::vector<int> Shuffled(int size) {
    std::vector<int> order(static_cast<std::size_t>(size));
    for (int index = 0; index < size; ++index) {
      order[static_cast<std::size_t>(index)] = index;
    }
    std::shuffle(order.begin(), order.end(), random_);
    return order;
  }

  int Below(std::size_t bound) {
    return static_cast<int>(std::uniform_int_distribution<std::size_t>(0, bound - 1)(random_));
  }

  void AddEdge(GraphRecipe& recipe, int from, int to) {
    recipe.steps.push_back({false, from, to, std::bernoulli_distribution(0.5)(random_)});
  }

  void MakeChain(GraphRecipe& recipe, const std::vector<int>& order) {
    for (std::size_t index = 1; index < order.size(); ++index) {
      AddEdge(recipe, order[index - 1], order[index]);
    }
  }

  // One to three groups; in each, a root that everything else of the group
  // waits for and/or a sink that waits for everything else.
  void MakeFans(GraphRecipe& recipe, const std::vector<int>& order) {
    const std::size_t groups = std::min<std::size_t>(order.size(), 1 + Below(3));
    const std::size_t groupSize = order.size() / std::max<std::size_t>(groups, 1);
    for (std::size_t group = 0; group < groups; ++group) {
      const std::size_t first = group * groupSize;
      const std::size_t last = group + 1 == groups ? order.size() : first + groupSize;
      if (last - first < 2) {
        continue;
      }
      const int kind = Below(3);  // 0: fan-out, 1: fan-in, 2: both
      const int root = order[first];
      const int sink = order[last - 1];
      for (std::size_t index = first + 1; index + 1 < last; ++index) {
        if (kind != 1) {
          AddEdge(recipe, root, order[index]);
        }
        if (kind != 0) {
          AddEdge(recipe, order[index], sink);
        }
      }
      if (kind == 2 || last - first == 2) {
        AddEdge(recipe, root, sink);
      }
    }
    std::shuffle(recipe.steps.begin(), recipe.steps.end(), random_);
  }

  // Up to three edges per vertex, only forward in `order`, so no cycle;
  // duplicates happen and are kept.
  void MakeRandomEdges(GraphRecipe& recipe, const std::vector<int>& order) {
    if (order.size() < 2) {
      return;
    }
    const std::size_t edgeCount = Below(3 * order.size() + 1);
    for (std::size_t edge = 0; edge < edgeCount; ++edge) {
      int first = Below(order.size());
      int second = Below(order.size());
      if (first == second) {
        continue;
      }
      if (first > second) {
        std::swap(first, second);
      }
      AddEdge(recipe, order[static_cast<std::size_t>(first)],
              order[static_cast<std::size_t>(second)]);
    }
  }

  // About half the plugins are legacy daemons (class 3) spread over up to
  // eight priority levels and joining them in random order; the others are
  // ordinary plugins with edges among themselves and into daemons (never out
  // of a daemon, which could close a cycle through the chain).
  void MakePriorityChain(GraphRecipe& recipe, const std::vector<int>& order) {
    std::vector<std::uint32_t> priorities(1 + Below(8));
    for (std::uint32_t& priority : priorities) {
      priority = static_cast<std::uint32_t>(Below(100));
    }
    std::vector<int> ordinary;
    for (int index : order) {
      GraphRecipe::Vertex& vertex = recipe.vertices[static_cast<std::size_t>(index)];
      if (std::bernoulli_distribution(0.5)(random_)) {
        vertex.priorityMember = true;
        vertex.schedulingClass = Node::kLegacyDaemonSchedulingClass;
        vertex.priority = priorities[static_cast<std::size_t>(Below(priorities.size()))];
        recipe.steps.push_back({true, index, 0, false});
      } else {
        ordinary.push_back(index);
      }
    }
    MakeRandomEdges(recipe, ordinary);
    for (int index : order) {
      if (recipe.vertices[static_cast<std::size_t>(index)].priorityMember && !ordinary.empty() &&
          std::bernoulli_distribution(0.3)(random_)) {
        AddEdge(recipe, ordinary[static_cast<std::size_t>(Below(ordinary.size()))], index);
      }
    }
    std::shuffle(recipe.steps.begin(), recipe.steps.end(), random_);
  }

  // Any edges at all: cycles and self-loops included.
  void MakeAnyEdges(GraphRecipe& recipe) {
    const std::size_t size = recipe.vertices.size();
    const std::size_t edgeCount = Below(2 * size + 1);
    for (std::size_t edge = 0; edge < edgeCount; ++edge) {
      AddEdge(recipe, Below(size), Below(size));
    }
  }

  std::mt19937 random_;
};

}  // namespace orvane::testgraph
