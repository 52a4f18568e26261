// Enumerating a plugin directory as a plain run does: a directory of mixed
// plugin files (JSON descriptions and debug names, 10,000 by default) walked
// in the file system's order, every file loaded through the filters and
// linked into the process-wide graph, then the debug configuration's own
// entries appended. One enumeration per process, since the barrier registry
// only grows; the time covers the walk, the loading and the linking.
//
// Usage: orvane_enumeration_bench [jsonFiles] [debugFiles] [debugEntries]
// The debug configuration is read afresh for every file name (parsed again
// only when its text changed), so its size weighs on every file.
#include <stdlib.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "orvaner/RunOptions.h"
#include "orvaner/graph/BarrierRegistry.h"
#include "orvaner/plugins/LoadedPlugins.h"
#include "orvaner/run/PluginEnumeration.h"

namespace orvane {
namespace {

/// A description of typical size: two required and two provided barriers,
/// flags to test, three start commands.
std::string Description(std::size_t index) {
  const std::string stage = std::to_string(index / 10);
  return "{\"metadata\": {\"version\": 3, \"requires\": [\"stage" + stage + "\", \"network" +
         std::to_string(index % 50) + "\"], \"provides\": [\"stage" +
         std::to_string(index / 10 + 1) + "\", \"service" + std::to_string(index) +
         "\"], \"required_flags\": [], \"disabling_flags\": [\"noservice\"], \"run_once\": " +
         (index % 7 == 0 ? "true" : "false") + ", \"plugin_version\": \"1.0." +
         std::to_string(index) +
         "\"},\n \"operations\": {\"start\": [\"system service start --name s" +
         std::to_string(index) + "\", \"network ip interface list\", \"system settings get\"]}}\n";
}

long PeakKilobytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

std::size_t Argument(int argc, char* argv[], int index, std::size_t fallback) {
  return argc > index ? std::stoul(argv[index]) : fallback;
}

int Run(int argc, char* argv[]) {
  const std::size_t jsonFiles = Argument(argc, argv, 1, 9000);
  const std::size_t debugFiles = Argument(argc, argv, 2, 1000);
  const std::size_t debugEntries = Argument(argc, argv, 3, debugFiles);

  std::string pattern = (std::filesystem::temp_directory_path() / "orvane-bench.XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  const std::filesystem::path root = pattern;
  const std::filesystem::path directory = root / "plugins";
  std::filesystem::create_directory(directory);
  for (std::size_t index = 0; index < jsonFiles; ++index) {
    std::ofstream(directory / ("plugin" + std::to_string(index) + ".json")) << Description(index);
  }
  for (std::size_t index = 0; index < debugFiles; ++index) {
    std::ofstream(directory / ("inject" + std::to_string(index) + ".debug"));
  }
  const std::string debugConfiguration = (root / "debug.conf").string();
  {
    std::ofstream configuration(debugConfiguration);
    for (std::size_t index = 0; index < debugEntries; ++index) {
      configuration << "inject" << index << ":stage" << index / 10 << ":inject" << index
                    << ".done:echo inject " << index << "\n";
    }
  }

  RunOptions options;
  options.pluginDirectory = directory.string();
  std::set<std::string> runOnce;
  const std::vector<std::string> disabled = {"plugin3", "plugin77"};
  BarrierRegistry& registry = BarrierRegistry::Instance();
  LoadedPlugins plugins;
  const long peakBefore = PeakKilobytes();
  const auto start = std::chrono::steady_clock::now();
  EnumeratePlugins({}, PluginFilters{{"noflag"}, disabled, runOnce}, options, plugins, registry,
                   debugConfiguration);
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  const long peakAfter = PeakKilobytes();

  const std::size_t files = jsonFiles + debugFiles;
  std::printf("files %zu (json %zu, debug names %zu), debug entries %zu\n", files, jsonFiles,
              debugFiles, debugEntries);
  std::printf("plugins listed %zu, barriers %zu, run-once keys %zu\n", plugins.List().size(),
              registry.ListBarriers().size(), runOnce.size());
  std::printf("enumeration %.3f s, %.1f us per file\n", elapsed.count(),
              elapsed.count() * 1e6 / static_cast<double>(files));
  std::printf("peak memory %.1f MB (%.1f MB before enumerating)\n", peakAfter / 1024.0,
              peakBefore / 1024.0);
  std::filesystem::remove_all(root);
  return 0;
}

}  // namespace
}  // namespace orvane

int main(int argc, char* argv[]) { return orvane::Run(argc, argv); }
