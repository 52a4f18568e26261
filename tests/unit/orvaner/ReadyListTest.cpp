// The ready list keeps its entries ordered so that a pick is cheap, but the
// vertex it yields must be exactly the one that a plain scan over the whole
// list in arrival order yields. These tests run the scan beside the real
// list on many random graphs and compare every pick.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <list>
#include <random>
#include <set>
#include <unordered_map>
#include <vector>

#include "RandomGraph.h"
#include "TestSeams.h"
#include "orvaner/graph/Executor.h"
#include "orvaner/graph/GraphLock.h"
#include "orvaner/graph/ReadyList.h"

namespace orvane {
namespace {

using testgraph::GraphRecipe;
using testgraph::GraphShape;
using testgraph::RecipeMaker;
using testgraph::TestGraph;

constexpr GraphShape kShapes[] = {GraphShape::Chain, GraphShape::WideFan, GraphShape::RandomEdges,
                                  GraphShape::PriorityChain, GraphShape::AnyEdges};

/// The ready list as a plain list in arrival order, picked from by a scan of
/// the whole list: the lowest class, then the greatest level, then the
/// first arrival, or with randomisation candidate rand() % candidates.
class ScanList {
 public:
  void Push(Node& node) { entries_.push_back(&node); }
  bool Empty() const { return entries_.empty(); }

  template <typename LevelOf>
  Node& PickNext(bool randomize, LevelOf levelOf) {
    std::uint32_t bestClass = std::numeric_limits<std::uint32_t>::max();
    int bestLevel = 0;
    std::vector<std::list<Node*>::iterator> candidates;
    for (auto entry = entries_.begin(); entry != entries_.end(); ++entry) {
      const int level = levelOf(**entry);
      const std::uint32_t schedulingClass = (*entry)->SchedulingClass();
      if (schedulingClass < bestClass) {
        candidates.clear();
        candidates.push_back(entry);
        bestClass = schedulingClass;
        bestLevel = level;
      } else if (schedulingClass > bestClass) {
        continue;
      } else if (level > bestLevel) {
        candidates.clear();
        candidates.push_back(entry);
        bestLevel = level;
      } else if (level < bestLevel) {
        continue;
      } else {
        candidates.push_back(entry);
      }
    }
    auto chosen = candidates.front();
    if (randomize) {
      chosen = candidates[static_cast<std::size_t>(std::rand()) % candidates.size()];
    }
    ties += candidates.size() > 1 ? 1 : 0;
    notFirstArrival += chosen != entries_.begin() ? 1 : 0;
    Node& node = **chosen;
    entries_.erase(chosen);
    return node;
  }

  /// Picks that had more than one candidate, and picks of anything but the
  /// oldest entry: evidence that a comparison exercised the tie-breaks.
  long ties = 0;
  long notFirstArrival = 0;

 private:
  std::list<Node*> entries_;
};

std::unordered_map<Node*, int> IndexOf(const std::vector<Node*>& vertices) {
  std::unordered_map<Node*, int> index;
  for (std::size_t position = 0; position < vertices.size(); ++position) {
    index[vertices[position]] = static_cast<int>(position);
  }
  return index;
}

class AlertsSilenced : public ::testing::Test {
 protected:
  unit_testing::ScopedSystemAlertSink silencedAlerts_{[](const std::string&) {}};
};

using ReadyListEquivalence = AlertsSilenced;

// Pushes and picks interleaved at random on vertices whose levels are their
// depths (they stay Idle): the list and the scan must agree on every pick.
TEST_F(ReadyListEquivalence, PicksTheVertexTheScanPicksUnderRandomPushesAndPicks) {
  long ties = 0;
  long notFirstArrival = 0;
  long picks = 0;
  for (std::uint32_t seed = 1; seed <= 400; ++seed) {
    RecipeMaker maker(seed);
    const GraphShape shape = kShapes[seed % std::size(kShapes)];
    TestGraph graph(maker.Make(shape, 1 + static_cast<int>(maker.Random()() % 150)));
    std::vector<Node*> vertices = graph.AllVertices();
    std::shuffle(vertices.begin(), vertices.end(), maker.Random());
    const bool randomize = seed % 2 == 0;

    ReadyList readyList;
    ScanList scan;
    std::size_t pushed = 0;
    std::bernoulli_distribution pushNext(0.6);
    while (pushed < vertices.size() || !scan.Empty()) {
      const bool push = pushNext(maker.Random());
      if (pushed < vertices.size() && (push || scan.Empty())) {
        readyList.Push(*vertices[pushed]);
        scan.Push(*vertices[pushed]);
        ++pushed;
        continue;
      }
      ASSERT_FALSE(readyList.Empty());
      const unsigned pickSeed = seed * 100003u + static_cast<unsigned>(picks);
      GraphLockGuard lock;
      std::srand(pickSeed);
      Node& fromList = readyList.PickNext(randomize);
      std::srand(pickSeed);
      Node& fromScan = scan.PickNext(randomize, [](Node& node) { return node.SchedulingLevel(); });
      ASSERT_EQ(fromList.Name(), fromScan.Name())
          << ShapeName(shape) << " graph of seed " << seed << ", pick " << picks
          << (randomize ? " (randomised)" : "");
      ++picks;
    }
    EXPECT_TRUE(readyList.Empty());
    ties += scan.ties;
    notFirstArrival += scan.notFirstArrival;
  }
  EXPECT_GT(picks, 10000);
  EXPECT_GT(ties, 1000);
  EXPECT_GT(notFirstArrival, 1000);
}

// Thousands of vertices without edges: two big groups of ties (classes 1
// and 3), so a randomised pick chooses among thousands of candidates and
// many of them have been taken from the middle already.
TEST_F(ReadyListEquivalence, RandomisedPicksAmongThousandsOfTiesMatchTheScan) {
  std::mt19937 random(7);
  std::vector<std::unique_ptr<testgraph::TestVertex>> vertices;
  for (int index = 0; index < 5000; ++index) {
    vertices.push_back(std::make_unique<testgraph::TestVertex>(
        "vertex" + std::to_string(index),
        random() % 4 == 0 ? Node::kLegacyDaemonSchedulingClass : Node::kDefaultSchedulingClass,
        nullptr));
  }
  ReadyList readyList;
  ScanList scan;
  std::size_t pushed = 0;
  long picks = 0;
  std::bernoulli_distribution pushNext(0.7);
  GraphLockGuard lock;
  while (pushed < vertices.size() || !scan.Empty()) {
    if (pushed < vertices.size() && (pushNext(random) || scan.Empty())) {
      readyList.Push(*vertices[pushed]);
      scan.Push(*vertices[pushed]);
      ++pushed;
      continue;
    }
    const auto pickSeed = static_cast<unsigned>(picks);
    std::srand(pickSeed);
    Node& fromList = readyList.PickNext(true);
    std::srand(pickSeed);
    Node& fromScan = scan.PickNext(true, [](Node& node) { return node.SchedulingLevel(); });
    ASSERT_EQ(fromList.Name(), fromScan.Name()) << "pick " << picks;
    ++picks;
  }
  EXPECT_EQ(picks, 5000);
  EXPECT_GT(scan.notFirstArrival, 4000);
}

/// One way of driving a pass: schedule the plugin list one vertex at a time
/// and run queued vertices one at a time, interleaved at random, on one
/// thread. Returns the vertices in the order they were picked, as indexes
/// into AllVertices().
struct PassPlan {
  bool forward;
  bool randomize;
  unsigned randSeed;
  std::uint32_t interleaveSeed;
};

template <typename Side>
std::vector<int> DrivePass(Side& side, std::size_t pluginCount, const PassPlan& plan) {
  std::mt19937 interleave(plan.interleaveSeed);
  std::bernoulli_distribution scheduleNext(0.5);
  std::vector<int> picks;
  std::size_t scheduled = 0;
  std::srand(plan.randSeed);
  while (true) {
    const bool preferSchedule = scheduleNext(interleave);
    const bool anyQueued = side.AnyQueued();
    if (scheduled < pluginCount && (preferSchedule || !anyQueued)) {
      side.Schedule(scheduled++);
    } else if (anyQueued) {
      picks.push_back(side.PickAndRun());
    } else {
      return picks;
    }
  }
}

/// The real thing: Node's scheduling rules and the executor's ready list,
/// driven through an executor without workers, which runs each vertex as a
/// worker would.
class RealSide {
 public:
  RealSide(const GraphRecipe& recipe, const PassPlan& plan)
      : plan_(plan),
        graph_(recipe),
        plugins_(graph_.Plugins()),
        vertices_(graph_.AllVertices()),
        index_(IndexOf(vertices_)),
        executor_(0, plan.randomize) {}

  void Schedule(std::size_t plugin) {
    if (plan_.forward) {
      plugins_[plugin]->ScheduleStart(executor_);
    } else {
      plugins_[plugin]->ScheduleStop(executor_);
    }
  }
  // With no worker, a vertex is in a queued state exactly while it is in
  // the ready list.
  bool AnyQueued() const {
    return std::any_of(vertices_.begin(), vertices_.end(), [](Node* vertex) {
      return vertex->State() == NodeState::QueuedStart || vertex->State() == NodeState::QueuedStop;
    });
  }
  int PickAndRun() {
    Node* node = executor_.RunNextReady();
    EXPECT_NE(node, nullptr) << "a vertex was queued";
    return node == nullptr ? -1 : index_.at(node);
  }

 private:
  PassPlan plan_;
  TestGraph graph_;
  std::vector<testgraph::TestVertex*> plugins_;
  std::vector<Node*> vertices_;
  std::unordered_map<Node*, int> index_;
  Executor executor_;
};

/// The model: the scheduling rules as stated, recursive, with the states
/// kept here, and the scan. Its own copy of the graph answers Height and
/// Depth, so levels are computed lazily in the model's order.
class ModelSide {
 public:
  ModelSide(const GraphRecipe& recipe, const PassPlan& plan)
      : plan_(plan),
        graph_(recipe),
        vertices_(graph_.AllVertices()),
        nodeIndex_(IndexOf(vertices_)) {
    for (Node* vertex : vertices_) {
      states_.push_back(vertex->State());  // Idle, or Started when marked done
      predecessors_.emplace_back();
      successors_.emplace_back();
      for (Node* predecessor : vertex->Predecessors()) {
        predecessors_.back().push_back(nodeIndex_.at(predecessor));
      }
      for (Node* successor : vertex->Successors()) {
        successors_.back().push_back(nodeIndex_.at(successor));
      }
    }
  }

  void Schedule(std::size_t plugin) {
    if (plan_.forward) {
      ScheduleStart(static_cast<int>(plugin));
    } else {
      ScheduleStop(static_cast<int>(plugin));
    }
  }
  bool AnyQueued() const { return !scan_.Empty(); }
  int PickAndRun() {
    Node& node = scan_.PickNext(plan_.randomize, [this](Node& vertex) {
      // What SchedulingLevel answers for a vertex in the model's state.
      return states_[static_cast<std::size_t>(nodeIndex_.at(&vertex))] == NodeState::QueuedStart
                 ? vertex.Height()
                 : vertex.Depth();
    });
    const int picked = nodeIndex_.at(&node);
    if (State(picked) == NodeState::QueuedStart) {
      RunStart(picked);
    } else {
      RunStop(picked);
    }
    return picked;
  }

  const ScanList& Scan() const { return scan_; }

 private:
  NodeState& State(int vertex) { return states_[static_cast<std::size_t>(vertex)]; }

  void ScheduleStart(int vertex) {
    if (State(vertex) == NodeState::QueuedStart || State(vertex) == NodeState::Started) {
      return;
    }
    if (State(vertex) == NodeState::Idle) {
      State(vertex) = NodeState::PendingStart;
    }
    bool unfinished = false;
    for (int predecessor : predecessors_[static_cast<std::size_t>(vertex)]) {
      const NodeState state = State(predecessor);
      if (state == NodeState::Idle) {
        ScheduleStart(predecessor);
        unfinished = true;
      } else if (state == NodeState::PendingStart || state == NodeState::QueuedStart) {
        unfinished = true;
      }
    }
    if (unfinished) {
      return;
    }
    State(vertex) = NodeState::QueuedStart;
    scan_.Push(*vertices_[static_cast<std::size_t>(vertex)]);
  }

  void ScheduleStop(int vertex) {
    if (State(vertex) == NodeState::QueuedStop || State(vertex) == NodeState::Stopped) {
      return;
    }
    if (State(vertex) == NodeState::Idle) {
      State(vertex) = NodeState::PendingStop;
    }
    bool unfinished = false;
    for (int successor : successors_[static_cast<std::size_t>(vertex)]) {
      const NodeState state = State(successor);
      if (state == NodeState::Idle) {
        ScheduleStop(successor);
        unfinished = true;
      } else if (state == NodeState::PendingStop || state == NodeState::QueuedStop) {
        unfinished = true;
      }
    }
    if (unfinished) {
      return;
    }
    State(vertex) = NodeState::QueuedStop;
    scan_.Push(*vertices_[static_cast<std::size_t>(vertex)]);
  }

  void RunStart(int vertex) {
    State(vertex) = NodeState::Started;
    for (int successor : successors_[static_cast<std::size_t>(vertex)]) {
      if (State(successor) == NodeState::PendingStart) {
        ScheduleStart(successor);
      }
    }
  }

  void RunStop(int vertex) {
    State(vertex) = NodeState::Stopped;
    for (int predecessor : predecessors_[static_cast<std::size_t>(vertex)]) {
      if (State(predecessor) == NodeState::PendingStop) {
        ScheduleStop(predecessor);
      }
    }
  }

  PassPlan plan_;
  TestGraph graph_;
  std::vector<Node*> vertices_;
  std::unordered_map<Node*, int> nodeIndex_;
  std::vector<NodeState> states_;
  std::vector<std::vector<int>> predecessors_;
  std::vector<std::vector<int>> successors_;
  ScanList scan_;
};

// Every shape, forward and reverse, with and without randomisation: the
// real scheduler and the model pick the same vertices in the same order.
// Each side builds its own copy of the graph, so a difference in when
// levels are first computed (which matters on cycles) shows up too.
TEST_F(ReadyListEquivalence, PassesPickTheSameSequenceAsTheScanModel) {
  long comparedPicks = 0;
  long ties = 0;
  long notFirstArrival = 0;
  for (std::uint32_t seed = 1; seed <= 600; ++seed) {
    RecipeMaker maker(seed);
    const GraphShape shape = kShapes[seed % std::size(kShapes)];
    const GraphRecipe recipe =
        maker.Make(shape, 1 + static_cast<int>(maker.Random()() % 120), seed % 3 == 0 ? 0.1 : 0.0);
    for (const bool forward : {true, false}) {
      for (const bool randomize : {false, true}) {
        const PassPlan plan{forward, randomize, seed * 7919u, seed * 104729u};
        RealSide real(recipe, plan);
        ModelSide model(recipe, plan);
        const std::vector<int> realPicks = DrivePass(real, recipe.vertices.size(), plan);
        const std::vector<int> modelPicks = DrivePass(model, recipe.vertices.size(), plan);
        ASSERT_EQ(realPicks, modelPicks)
            << ShapeName(shape) << " graph of seed " << seed << " with " << recipe.vertices.size()
            << " plugins, " << (forward ? "forward" : "reverse")
            << (randomize ? ", randomised" : "");
        comparedPicks += static_cast<long>(realPicks.size());
        ties += model.Scan().ties;
        notFirstArrival += model.Scan().notFirstArrival;
      }
    }
  }
  EXPECT_GT(comparedPicks, 100000);
  EXPECT_GT(ties, 10000);
  EXPECT_GT(notFirstArrival, 10000);
}

// On an acyclic graph with no vertex marked done the model runs every
// vertex the pass reaches, once, so the comparison above is over whole
// passes and not over a prefix that stalled.
TEST_F(ReadyListEquivalence, ModelRunsEveryReachedVertexOfAnAcyclicGraphOnce) {
  for (std::uint32_t seed = 1; seed <= 50; ++seed) {
    RecipeMaker maker(seed);
    const GraphRecipe recipe = maker.Make(GraphShape::PriorityChain, 60);
    for (const bool forward : {true, false}) {
      const PassPlan plan{forward, false, 1, seed};
      ModelSide model(recipe, plan);
      const std::vector<int> picks = DrivePass(model, recipe.vertices.size(), plan);
      TestGraph copy(recipe);
      const std::vector<Node*> vertices = copy.AllVertices();
      std::set<Node*> picked;
      for (int index : picks) {
        EXPECT_TRUE(picked.insert(vertices[static_cast<std::size_t>(index)]).second)
            << "picked twice, seed " << seed;
      }
      EXPECT_EQ(picked, testgraph::ReachedByPass(copy, forward)) << "seed " << seed;
    }
  }
}

}  // namespace
}  // namespace orvane
