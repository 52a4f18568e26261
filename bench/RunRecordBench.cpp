// What the run record costs a run by itself, without processes around it:
// the record of a run of N plugins (each ready, started and finished, a
// barrier between every ten) written to a file, against the same calls with
// no record open, which is what a run costs when recording is off or failed.
// Together with the boot's own time (scripts/bench-boot) this gives the
// record's share of a boot: the interleaved whole-boot comparison is
// noisier than the effect it looks for.
#include <benchmark/benchmark.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "orvaner/Logging.h"
#include "orvaner/RunOptions.h"
#include "orvaner/graph/BarrierRegistry.h"
#include "orvaner/plugins/LoadedPlugins.h"
#include "orvaner/plugins/Plugin.h"
#include "orvaner/run/RunRecord.h"
#include "orvaner/run/RunState.h"

namespace orvane {
namespace {

class NoOpPlugin : public Plugin {
 public:
  explicit NoOpPlugin(std::string name) : Plugin(std::move(name)) {}
  void Start() override {}
  bool SupportsHostProfile() const override { return false; }
  void ApplyHostProfile() override {}
};

/// N plugins in a graph of their own, every ten after a barrier that the
/// ten before provide.
struct Run {
  explicit Run(int plugins) {
    for (int index = 0; index < plugins; ++index) {
      auto plugin = std::make_unique<NoOpPlugin>("plugin" + std::to_string(index));
      if (index >= 10)
        plugin->Requires(*registry.GetBarrier("level" + std::to_string(index / 10 - 1), true));
      plugin->Provides(*registry.GetBarrier("level" + std::to_string(index / 10), true));
      list.push_back(plugin.get());
      loaded.Append(std::move(plugin),
                    "/usr/libexec/orvane/plugins/plugin" + std::to_string(index) + ".json");
    }
    barriers = registry.ListBarriers();
    state.startMonotonic = std::chrono::steady_clock::now();
    gettimeofday(&state.startTime, nullptr);
  }

  /// What a pass reports of every vertex, in a pass's order.
  void Report(RunRecord& record) const {
    for (const Plugin* plugin : list) {
      record.VertexReady(*plugin);
      record.ActivationStarted(*plugin);
      record.ActivationFinished(*plugin, PassObserver::Outcome::Activated, {});
      record.VertexDone(*plugin);
    }
    for (const Node* barrier : barriers) {
      record.VertexReady(*barrier);
      record.VertexDone(*barrier);
    }
  }

  BarrierRegistry registry;
  LoadedPlugins loaded;
  std::vector<Plugin*> list;
  std::deque<Node*> barriers;
  RunOptions options;
  RunState state;
};

/// A directory for the records: $TMPDIR or /tmp, emptied afterwards.
std::string RecordDirectory() {
  const char* base = std::getenv("TMPDIR");
  const std::string directory = std::string(base != nullptr ? base : "/tmp") +
                                "/orvane-record-bench." + std::to_string(getpid());
  std::filesystem::create_directories(directory);
  return directory;
}

void BM_RecordedRun(benchmark::State& state) {
  Run run(static_cast<int>(state.range(0)));
  const std::string directory = RecordDirectory();
  for (auto _ : state) {
    RunRecord record;
    record.Open(run.options, run.state, run.loaded, run.barriers, directory);
    run.Report(record);
    record.End(0);
  }
  std::filesystem::remove_all(directory);
  state.counters["per plugin"] =
      benchmark::Counter(static_cast<double>(state.iterations() * state.range(0)),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_RecordedRun)->Arg(1000)->Unit(benchmark::kMillisecond)->UseRealTime();

// The baseline: the same calls on a record never opened.
void BM_UnrecordedRun(benchmark::State& state) {
  Run run(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    RunRecord record;
    run.Report(record);
    record.End(0);
  }
  state.counters["per plugin"] =
      benchmark::Counter(static_cast<double>(state.iterations() * state.range(0)),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_UnrecordedRun)->Arg(1000)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace orvane

int main(int argc, char** argv) {
  orvane::ReplaceAlertLogSink([](const std::string&) {});
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
