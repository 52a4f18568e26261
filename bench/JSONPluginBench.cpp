// Loading JSON plugin descriptions as a boot does: 1,000 files of typical
// size (about 400 bytes: two required and two provided barriers, three start
// commands) read from a directory, parsed, checked and linked into the graph.
// The files are written once, so after the first iteration they come from
// the page cache. Each iteration links into a fresh barrier registry, so
// the graph does not grow from one iteration to the next; the time covers
// opening, reading, parsing, checking and linking, not the clean-up.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "orvaner/graph/BarrierRegistry.h"
#include "orvaner/plugins/JSONPlugin.h"

namespace orvane {
namespace {

constexpr std::size_t kFileCount = 1000;

/// A description like the ones a host ships, for plugin @p index: it waits
/// for its stage and a network barrier and provides the next stage and its
/// own service barrier.
std::string TypicalDescription(std::size_t index) {
  const std::string stage = std::to_string(index / 10);
  const std::string next = std::to_string(index / 10 + 1);
  const std::string name = "plugin" + std::to_string(index);
  return "// " + name +
         ": one host service.\n"
         "{\n"
         "  \"metadata\": {\n"
         "    \"version\": 3,\n"
         "    \"requires\": [\"stage" +
         stage + "\", \"network" + std::to_string(index % 50) +
         "\"],\n"
         "    \"provides\": [\"stage" +
         next + "\", \"service-" + name +
         "\"],\n"
         "    \"run_once\": false,\n"
         "    \"plugin_version\": \"1.0." +
         std::to_string(index) +
         "\"\n"
         "  },\n"
         "  \"operations\": {\n"
         "    \"start\": [\n"
         "      \"system settings set --option /Net/" +
         name +
         " --int-value 1\",\n"
         "      \"network firewall set --ruleset " +
         name +
         " --enabled true\",\n"
         "      \"system module load --module " +
         name + "\"\n    ]\n  }\n}\n";
}

/// A directory of kFileCount descriptions, removed at the end.
class DescriptionDirectory {
 public:
  DescriptionDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "orvane-bench.XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
      throw std::runtime_error("mkdtemp failed for " + pattern);
    }
    path_ = pattern;
    for (std::size_t index = 0; index < kFileCount; ++index) {
      const std::string content = TypicalDescription(index);
      totalBytes_ += content.size();
      std::ofstream(path_ / FileName(index), std::ios::binary) << content;
    }
  }
  ~DescriptionDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

  static std::string FileName(std::size_t index) {
    return "plugin" + std::to_string(index) + ".json";
  }
  std::string PathOf(std::size_t index) const { return (path_ / FileName(index)).string(); }
  std::size_t TotalBytes() const { return totalBytes_; }

 private:
  std::filesystem::path path_;
  std::size_t totalBytes_ = 0;
};

void LoadThousandDescriptions(benchmark::State& state) {
  DescriptionDirectory directory;
  std::vector<std::string> paths;
  std::vector<std::string> names;
  for (std::size_t index = 0; index < kFileCount; ++index) {
    paths.push_back(directory.PathOf(index));
    names.push_back("plugin" + std::to_string(index));
  }
  for (auto _ : state) {
    auto registry = std::make_unique<BarrierRegistry>();
    std::vector<std::unique_ptr<JSONPlugin>> plugins;
    plugins.reserve(kFileCount);
    const auto start = std::chrono::steady_clock::now();
    for (std::size_t index = 0; index < kFileCount; ++index) {
      plugins.push_back(JSONPlugin::Load(names[index], paths[index], *registry));
    }
    const auto end = std::chrono::steady_clock::now();
    state.SetIterationTime(std::chrono::duration<double>(end - start).count());
    benchmark::DoNotOptimize(plugins.data());
    // The clean-up is not timed: a boot never destroys its graph.
    plugins.clear();
    registry.reset();
  }
  state.counters["files"] = kFileCount;
  state.counters["bytes_per_file"] = static_cast<double>(directory.TotalBytes()) / kFileCount;
  state.counters["per_file"] = benchmark::Counter(
      static_cast<double>(kFileCount),
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(LoadThousandDescriptions)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace orvane

BENCHMARK_MAIN();
