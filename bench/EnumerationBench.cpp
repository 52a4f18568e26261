// Enumerating a plugin directory as a plain run does: a directory of mixed
// plugin files (JSON descriptions and debug names, 10,000 by default) walked
// in the file system's order, every file loaded through the filters and
// linked into the process-wide graph, then the debug configuration's own
// entries appended.
//
// The figures are those of a whole process: the driver writes the directory
// once, then starts this program again on it (--enumerate) and measures from
// outside, from the spawn to the end of the wait, the wall time and the peak
// resident memory (ru_maxrss of wait4) of a process that does nothing but
// start, enumerate, list the barriers once (as the run record does), free
// its plugins and exit. In the same rounds it starts
// two baselines, so that the figures can be read as ratios on a loaded
// machine: the same program enumerating an empty directory (what starting
// and ending the process costs) and the same program reading and parsing
// every file of the directory with nothing else (what any loader must pay).
// The files come from the page cache after the first round. The debug
// configuration is older than the loader's settling margin, as a boot finds
// it; a last row shows one rewritten just before each run.
//
// Where the time of one file goes (the default directory: 9,000 JSON files,
// 1,000 debug names, 1,000 configuration entries). From perf profiles of
// five --enumerate runs, samples bucketed by the first of these functions on
// their call stack (bench/enumeration-profile), scaled to the whole-process
// median; a 2-core VM at load average 2.4 to 3.1; shares of a profile move
// by a few tenths of a us:
//
//                                                 before     after (us)
//   debug configuration, read for every file name   5.2       1.2  one stat
//   reading the JSON file (open, fstat, 2 reads,    4.0       3.2  the same
//     close)                                                        calls
//   barrier registry (lookups, new barriers)        1.3       0.8
//   walking the directory                           0.6       0.6
//   JSON parse (Boost.JSON)                         0.4       0.5
//   linking edges                                   0.5       0.4
//   freeing plugins and barriers at the end         0.3       0.4
//   checking the description                        0.2       0.3
//   filters and run-once keys                       0.2       0.2
//   plugin list and load log                        0.2       0.0
//   file name, path, extension, construction        0.3       0.5
//   process start-up and exit, other                0.6       0.7
//   total (whole process, median)                  13.8       8.6
//
// Before, every file name opened, read and compared the whole debug
// configuration (47 KB); now a stat of its stamps stands in for that. The
// descriptions' own reads cost less after too, likely because those 47 KB
// no longer push the rest out of the caches. What remains is mostly the system
// calls of reading each description (about 2.7 us a file on this machine
// when timed alone) and the stat (0.7 us).
//
// Usage: orvane_enumeration_bench [jsonFiles] [debugFiles] [debugEntries] [rounds]
//        orvane_enumeration_bench --write DIRECTORY [jsonFiles] [debugFiles] [debugEntries]
//        orvane_enumeration_bench --enumerate PLUGINDIRECTORY CONFIGURATION
//        orvane_enumeration_bench --read-and-parse PLUGINDIRECTORY CONFIGURATION
// --write leaves a directory in place (plugins/ and debug.conf), so that one
// --enumerate can be run alone under perf or strace. Nothing outside the
// directories given is read or written; the system alerts a broken plugin
// would raise are counted, not sent.
#include <fcntl.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <boost/json/monotonic_resource.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/parse_options.hpp>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "SpawnTiming.h"
#include "hostfile/HostFile.h"
#include "orvaner/RunOptions.h"
#include "orvaner/SystemAlert.h"
#include "orvaner/graph/BarrierRegistry.h"
#include "orvaner/plugins/DebugConfiguration.h"
#include "orvaner/plugins/LoadedPlugins.h"
#include "orvaner/run/PluginEnumeration.h"

namespace orvane {
namespace {

using orvane::bench::LoadAverage;
using orvane::bench::Median;

constexpr std::size_t kMaxFileSize = std::size_t{16} * 1024 * 1024;

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

struct Counts {
  std::size_t jsonFiles = 9000;
  std::size_t debugFiles = 1000;
  std::size_t debugEntries = 1000;
};

std::string Configuration(const Counts& counts) {
  std::string text;
  for (std::size_t index = 0; index < counts.debugEntries; ++index) {
    text += "inject" + std::to_string(index) + ":stage" + std::to_string(index / 10) + ":inject" +
            std::to_string(index) + ".done:echo inject " + std::to_string(index) + "\n";
  }
  return text;
}

/// Writes plugins/ (the JSON descriptions and the empty debug names) and
/// debug.conf under @p root.
void WriteDirectory(const std::filesystem::path& root, const Counts& counts) {
  const std::filesystem::path directory = root / "plugins";
  std::filesystem::create_directories(directory);
  for (std::size_t index = 0; index < counts.jsonFiles; ++index) {
    std::ofstream(directory / ("plugin" + std::to_string(index) + ".json")) << Description(index);
  }
  for (std::size_t index = 0; index < counts.debugFiles; ++index) {
    std::ofstream(directory / ("inject" + std::to_string(index) + ".debug"));
  }
  std::ofstream(root / "debug.conf") << Configuration(counts);
}

long PeakKilobytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// ---- the measured processes

/// One enumeration as a plain run makes it, into the process-wide registry,
/// followed by what a run does with the graph whatever it runs: the barriers
/// listed in name order once (for the run record) and the plugins freed when
/// the run ends. Prints what it loaded and its own time for all of it, and
/// for the listing alone.
int Enumerate(const std::string& pluginDirectory, const std::string& configuration) {
  std::size_t alerts = 0;
  ReplaceSystemAlertSink([&alerts](const std::string&) { ++alerts; });
  RunOptions options;
  options.pluginDirectory = pluginDirectory;
  std::set<std::string> runOnce;
  const std::vector<std::string> disabled = {"plugin3", "plugin77"};
  BarrierRegistry& registry = BarrierRegistry::Instance();
  const long peakBefore = PeakKilobytes();
  const auto start = std::chrono::steady_clock::now();
  std::size_t listed = 0;
  std::size_t barriers = 0;
  double listing = 0;
  {
    LoadedPlugins plugins;
    EnumeratePlugins({}, PluginFilters{{"noflag"}, disabled, runOnce}, options, plugins, registry,
                     configuration);
    listed = plugins.List().size();
    const auto listStart = std::chrono::steady_clock::now();
    barriers = registry.ListBarriers().size();
    listing = SecondsSince(listStart);
  }
  const double inProcess = SecondsSince(start);
  std::printf(
      "listed %zu barriers %zu run-once %zu alerts %zu configuration-reads %zu listing-barriers "
      "%.6f in-process %.6f before-kb %ld\n",
      listed, barriers, runOnce.size(), alerts, DebugConfigurationCache::Instance().TextReads(),
      listing, inProcess, peakBefore);
  return 0;
}

/// The floor of any loader: every file of the directory and the
/// configuration read whole, and every description parsed, nothing kept.
int ReadAndParse(const std::string& pluginDirectory, const std::string& configuration) {
  std::size_t parsed = 0;
  const auto start = std::chrono::steady_clock::now();
  hostfile::ReadHostFile(configuration, kMaxFileSize);
  boost::json::parse_options parseOptions;
  parseOptions.allow_comments = true;
  for (const std::filesystem::directory_entry& entry :
       std::filesystem::directory_iterator(pluginDirectory)) {
    const hostfile::FileContent file = hostfile::ReadHostFile(entry.path().string(), kMaxFileSize);
    if (!file.Ok() || entry.path().extension() != ".json") continue;
    unsigned char arenaStart[4096];
    boost::json::monotonic_resource arena(arenaStart, sizeof arenaStart);
    boost::system::error_code error;
    const boost::json::value root = boost::json::parse(file.text, error, &arena, parseOptions);
    if (!error && root.is_object()) ++parsed;
  }
  std::printf("parsed %zu in-process %.6f before-kb %ld\n", parsed, SecondsSince(start), 0L);
  return 0;
}

// ---- the driver

/// What one started process reported: the line it printed, and its wall
/// time and peak resident memory measured from outside.
struct Outcome {
  std::string report;
  double seconds = 0;
  long peakKilobytes = 0;
};

Outcome Spawn(std::vector<std::string> arguments) {
  int output[2];
  if (::pipe(output) != 0) throw std::runtime_error("pipe failed");
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, output[1], 1);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addclose(&actions, output[0]);
  const auto start = std::chrono::steady_clock::now();
  pid_t child = 0;
  if (posix_spawn(&child, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
    throw std::runtime_error("cannot start " + arguments[0]);
  }
  posix_spawn_file_actions_destroy(&actions);
  ::close(output[1]);
  Outcome outcome;
  char buffer[512];
  for (ssize_t count; (count = ::read(output[0], buffer, sizeof buffer)) > 0;) {
    outcome.report.append(buffer, static_cast<std::size_t>(count));
  }
  ::close(output[0]);
  int status = 0;
  rusage usage{};
  ::wait4(child, &status, 0, &usage);
  outcome.seconds = SecondsSince(start);
  outcome.peakKilobytes = usage.ru_maxrss;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    throw std::runtime_error(arguments[1] + " ended with status " + std::to_string(status));
  }
  return outcome;
}

/// The figures of one kind of process over all rounds.
struct Series {
  std::vector<double> seconds;
  std::vector<double> inProcess;
  long peakKilobytes = 0;
  std::string report;

  void Add(const Outcome& outcome) {
    seconds.push_back(outcome.seconds);
    peakKilobytes = std::max(peakKilobytes, outcome.peakKilobytes);
    report = outcome.report;
    const std::string::size_type at = report.find("in-process ");
    if (at != std::string::npos) inProcess.push_back(std::stod(report.substr(at + 11)));
  }
};

std::size_t Argument(int argc, char* argv[], int index, std::size_t fallback) {
  return argc > index ? std::stoul(argv[index]) : fallback;
}

int Drive(int argc, char* argv[]) {
  Counts counts;
  counts.jsonFiles = Argument(argc, argv, 1, counts.jsonFiles);
  counts.debugFiles = Argument(argc, argv, 2, counts.debugFiles);
  counts.debugEntries = Argument(argc, argv, 3, counts.debugFiles);
  const std::size_t rounds = std::max<std::size_t>(1, Argument(argc, argv, 4, 7));

  std::string pattern = (std::filesystem::temp_directory_path() / "orvane-bench.XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  const std::filesystem::path root = pattern;
  WriteDirectory(root, counts);
  std::filesystem::create_directory(root / "empty");
  const std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
  const std::string plugins = (root / "plugins").string();
  const std::string configuration = (root / "debug.conf").string();
  const std::string noConfiguration = (root / "absent.conf").string();

  // A configuration is written long before a boot reads it. Its stamps
  // identify its text only once it is older than the settling margin, so
  // the rounds begin after that; the last row shows the other case, a
  // configuration rewritten (with the same text) just before each run.
  const std::string configurationText = Configuration(counts);
  const std::string fresh = (root / "fresh.conf").string();
  std::this_thread::sleep_for(DebugConfigurationCache::kSettlingMargin +
                              std::chrono::milliseconds(200));
  std::printf("load average before: %s\n", LoadAverage().c_str());
  Series empty, readAndParse, enumerate, enumerateFresh;
  // One warm-up round, whose figures are dropped: the page cache, the
  // dynamic loader's caches.
  for (std::size_t round = 0; round <= rounds; ++round) {
    const Outcome emptyRun =
        Spawn({self, "--enumerate", (root / "empty").string(), noConfiguration});
    const Outcome readRun = Spawn({self, "--read-and-parse", plugins, configuration});
    const Outcome enumerateRun = Spawn({self, "--enumerate", plugins, configuration});
    std::ofstream(fresh) << configurationText;
    const Outcome freshRun = Spawn({self, "--enumerate", plugins, fresh});
    if (round == 0) continue;
    empty.Add(emptyRun);
    readAndParse.Add(readRun);
    enumerate.Add(enumerateRun);
    enumerateFresh.Add(freshRun);
  }
  std::filesystem::remove_all(root);

  const std::size_t files = counts.jsonFiles + counts.debugFiles;
  const double enumerated = Median(enumerate.seconds);
  std::printf("files %zu (json %zu, debug names %zu), debug entries %zu; %zu rounds, medians\n",
              files, counts.jsonFiles, counts.debugFiles, counts.debugEntries, rounds);
  std::printf("enumeration child: %s", enumerate.report.c_str());
  std::printf("enumeration child, configuration just written: %s", enumerateFresh.report.c_str());
  std::printf("%-34s %9s %9s %9s %8s\n", "whole process", "wall s", "min s", "in-proc s",
              "peak MB");
  auto row = [](const char* name, const Series& series) {
    std::printf("%-34s %9.4f %9.4f %9.4f %8.1f\n", name, Median(series.seconds),
                *std::min_element(series.seconds.begin(), series.seconds.end()),
                series.inProcess.empty() ? 0.0 : Median(series.inProcess),
                static_cast<double>(series.peakKilobytes) / 1024.0);
  };
  row("start and exit (empty directory)", empty);
  row("read and parse every file", readAndParse);
  row("enumerate into the graph", enumerate);
  row("  configuration just written", enumerateFresh);
  std::printf(
      "enumeration: %.1f us per file in the whole process, %.1f us per file beyond "
      "start and exit\n",
      enumerated * 1e6 / static_cast<double>(files),
      (enumerated - Median(empty.seconds)) * 1e6 / static_cast<double>(files));
  std::printf("ratios: enumeration / read and parse %.2f, enumeration / start and exit %.2f\n",
              enumerated / Median(readAndParse.seconds), enumerated / Median(empty.seconds));
  std::printf("target (10,000 files): at most 0.150 s and 20.0 MB: %.3f s, %.1f MB peak\n",
              enumerated, static_cast<double>(enumerate.peakKilobytes) / 1024.0);
  std::printf("load average after: %s\n", LoadAverage().c_str());
  return 0;
}

int Run(int argc, char* argv[]) {
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "--enumerate" && argc == 4) return Enumerate(argv[2], argv[3]);
  if (mode == "--read-and-parse" && argc == 4) return ReadAndParse(argv[2], argv[3]);
  if (mode == "--write" && argc >= 3) {
    Counts counts;
    counts.jsonFiles = Argument(argc, argv, 3, counts.jsonFiles);
    counts.debugFiles = Argument(argc, argv, 4, counts.debugFiles);
    counts.debugEntries = Argument(argc, argv, 5, counts.debugFiles);
    WriteDirectory(argv[2], counts);
    return 0;
  }
  if (!mode.empty() && mode.starts_with("--")) {
    std::fprintf(stderr, "usage: see the top of bench/EnumerationBench.cpp\n");
    return 2;
  }
  return Drive(argc, argv);
}

}  // namespace
}  // namespace orvane

int main(int argc, char* argv[]) {
  try {
    return orvane::Run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "orvane_enumeration_bench: %s\n", error.what());
    return 1;
  }
}
