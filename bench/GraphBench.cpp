// Scheduling throughput of the dependency graph with vertices that do no
// work, so what is measured is the scheduler: the walks, the level
// computation, the ready list, the lock and the wake-ups. A pass is timed
// as the run modes make it: start an executor, schedule every plugin in
// list order, wait for each, stop the executor. Building the graph is timed
// by benchmarks of its own.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "orvaner/graph/BarrierRegistry.h"
#include "orvaner/graph/Executor.h"
#include "orvaner/graph/PriorityBarrier.h"
#include "orvaner/plugins/Plugin.h"

namespace orvane {
namespace {

class NoOpPlugin : public Plugin {
 public:
  NoOpPlugin(std::string name, std::uint32_t schedulingClass)
      : Plugin(std::move(name), schedulingClass) {}
  void Execute(Executor&) override {}
  void Start() override {}
  bool SupportsHostProfile() const override { return false; }
  void ApplyHostProfile() override {}
};

/// A graph with its own barrier registry; the plugins are the plugin list.
struct Graph {
  std::unique_ptr<BarrierRegistry> registry = std::make_unique<BarrierRegistry>();
  std::vector<std::unique_ptr<NoOpPlugin>> plugins;

  std::size_t VertexCount() { return plugins.size() + registry->ListBarriers().size(); }
};

Graph MakePlugins(std::size_t count, std::uint32_t schedulingClass) {
  Graph graph;
  graph.plugins.reserve(count);
  for (std::size_t index = 0; index < count; ++index) {
    graph.plugins.push_back(
        std::make_unique<NoOpPlugin>("plugin" + std::to_string(index), schedulingClass));
  }
  return graph;
}

/// Each plugin waits for the one before it in the list.
Graph MakeChain(std::size_t length) {
  Graph graph = MakePlugins(length, Node::kDefaultSchedulingClass);
  for (std::size_t index = 1; index < length; ++index) {
    graph.plugins[index]->Requires(*graph.plugins[index - 1]);
  }
  return graph;
}

Graph MakeIndependent(std::size_t count) {
  return MakePlugins(count, Node::kDefaultSchedulingClass);
}

/// Edges between random pairs, always forward in a random order of the
/// vertices that is unrelated to the list order.
Graph MakeRandomDag(std::size_t vertexCount, std::size_t edgeCount) {
  Graph graph = MakePlugins(vertexCount, Node::kDefaultSchedulingClass);
  std::mt19937 random(42);
  std::vector<std::size_t> order(vertexCount);
  for (std::size_t index = 0; index < vertexCount; ++index) {
    order[index] = index;
  }
  std::shuffle(order.begin(), order.end(), random);
  std::uniform_int_distribution<std::size_t> position(0, vertexCount - 1);
  for (std::size_t edge = 0; edge < edgeCount;) {
    std::size_t first = position(random);
    std::size_t second = position(random);
    if (first == second) {
      continue;
    }
    if (first > second) {
      std::swap(first, second);
    }
    graph.plugins[order[second]]->Requires(*graph.plugins[order[first]]);
    ++edge;
  }
  return graph;
}

/// Legacy daemons on `levels` start priorities, `perLevel` on each, joining
/// their levels in random order (so levels are spliced into the chain).
Graph MakePriorityChain(std::size_t levels, std::size_t perLevel) {
  Graph graph = MakePlugins(levels * perLevel, Node::kLegacyDaemonSchedulingClass);
  std::vector<std::size_t> joinOrder(graph.plugins.size());
  for (std::size_t index = 0; index < joinOrder.size(); ++index) {
    joinOrder[index] = index;
  }
  std::shuffle(joinOrder.begin(), joinOrder.end(), std::mt19937(42));
  for (std::size_t index : joinOrder) {
    const auto priority = static_cast<std::uint32_t>(index % levels);
    graph.registry->GetPriorityBarrier(priority).AddMember(*graph.plugins[index]);
  }
  return graph;
}

using Clock = std::chrono::steady_clock;

void RunPass(Graph& graph, int workers, bool randomize) {
  Executor executor(workers, randomize);
  for (auto& plugin : graph.plugins) {
    plugin->ScheduleStart(executor);
  }
  for (auto& plugin : graph.plugins) {
    plugin->WaitStarted();
  }
}

/// Times passes over fresh copies of a graph; building and destroying the
/// copies is left out of the time.
void BenchmarkPass(benchmark::State& state, const std::function<Graph()>& make, int workers,
                   bool randomize) {
  Clock::duration total{};
  std::size_t vertices = 0;
  for (auto _ : state) {
    Graph graph = make();
    vertices = graph.VertexCount();
    const Clock::time_point start = Clock::now();
    RunPass(graph, workers, randomize);
    const Clock::duration elapsed = Clock::now() - start;
    state.SetIterationTime(std::chrono::duration<double>(elapsed).count());
    total += elapsed;
  }
  const double nanoseconds = std::chrono::duration<double, std::nano>(total).count();
  state.counters["vertices"] = static_cast<double>(vertices);
  state.counters["ns_per_vertex"] =
      nanoseconds / (static_cast<double>(state.iterations()) * static_cast<double>(vertices));
}

/// Times building a graph: the vertices, their edges and the priority chain.
void BenchmarkBuild(benchmark::State& state, const std::function<Graph()>& make) {
  Clock::duration total{};
  std::size_t vertices = 0;
  for (auto _ : state) {
    const Clock::time_point start = Clock::now();
    Graph graph = make();
    const Clock::duration elapsed = Clock::now() - start;
    state.SetIterationTime(std::chrono::duration<double>(elapsed).count());
    total += elapsed;
    vertices = graph.VertexCount();
  }
  const double nanoseconds = std::chrono::duration<double, std::nano>(total).count();
  state.counters["vertices"] = static_cast<double>(vertices);
  state.counters["ns_per_vertex"] =
      nanoseconds / (static_cast<double>(state.iterations()) * static_cast<double>(vertices));
}

struct Shape {
  std::string name;
  std::function<Graph()> make;
};

void RegisterAll() {
  const std::vector<Shape> shapes = {
      {"chain_100k", [] { return MakeChain(100000); }},
      {"independent_100k", [] { return MakeIndependent(100000); }},
      {"random_dag_100k_300k", [] { return MakeRandomDag(100000, 300000); }},
      {"priority_1000x100", [] { return MakePriorityChain(1000, 100); }},
  };
  for (const Shape& shape : shapes) {
    for (const int workers : {1, 2, 4}) {
      benchmark::RegisterBenchmark(
          ("pass/" + shape.name + "/workers:" + std::to_string(workers)).c_str(),
          [shape, workers](benchmark::State& state) {
            BenchmarkPass(state, shape.make, workers, false);
          })
          ->UseManualTime()
          ->Unit(benchmark::kMillisecond);
    }
    benchmark::RegisterBenchmark(
        ("pass/" + shape.name + "/workers:1/randomize").c_str(),
        [shape](benchmark::State& state) { BenchmarkPass(state, shape.make, 1, true); })
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
  }
  // The cost per vertex must not grow with the number of vertices that are
  // ready at once.
  for (const std::size_t width : {10000, 50000, 100000, 200000}) {
    for (const int workers : {1, 4}) {
      benchmark::RegisterBenchmark(("width/independent_" + std::to_string(width / 1000) +
                                    "k/workers:" + std::to_string(workers))
                                       .c_str(),
                                   [width, workers](benchmark::State& state) {
                                     BenchmarkPass(
                                         state, [width] { return MakeIndependent(width); }, workers,
                                         false);
                                   })
          ->UseManualTime()
          ->Unit(benchmark::kMillisecond);
    }
  }
  for (const Shape& shape : shapes) {
    benchmark::RegisterBenchmark(
        ("build/" + shape.name).c_str(),
        [shape](benchmark::State& state) { BenchmarkBuild(state, shape.make); })
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
  }
}

}  // namespace
}  // namespace orvane

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  orvane::RegisterAll();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
