// A whole plain run of `orvane` over PLUGINS plugins that do nothing, a third
// each of JSON descriptions (one command whose definition runs /bin/true),
// debug injections (`true`) and native plugins (a no-op start in the helper
// process), serial and with --parallel, against starting the same work
// directly on the same number of threads: for each native plugin the helper
// `nativeExecutor <library> <name> start`, for each injection system("true"),
// for each JSON plugin a spawn of /bin/true. The executor process runs one
// command line at a time, so the direct JSON spawns are serialised too
// (one at a time, alongside the other work).
//
// It lays the plugins out on the host's fixed paths and runs the installed
// program, so it runs only inside a sandbox: scripts/bench-boot builds,
// stages and runs it there. Prints figures; asserts nothing.
//
// Given a second orvane built without the run record (ORVANE_RUN_RECORD=OFF),
// it also measures what recording costs: the two programs run in turns, the
// order swapped every round, and the pairs of runs compared. The record's
// own cost, without processes around it, is orvane_runrecord_bench's.
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "SpawnTiming.h"
#include "orvane/FixedPaths.h"

extern char** environ;

namespace {

using orvane::bench::kOrvane;
using orvane::bench::kTrueProgram;
using orvane::bench::LoadAverage;
using orvane::bench::MedianMilliseconds;
using orvane::bench::RunOrvane;
using orvane::bench::SpawnAndWait;
using orvane::bench::WriteDefinitionFile;
using orvane::bench::WriteFile;

using Clock = std::chrono::steady_clock;
namespace paths = orvane::paths;

constexpr int kRounds = 9;

enum class Kind { kJSON, kDebug, kNative };

struct Work {
  Kind kind;
  std::string name;
  std::string library;  // native plugins only
};

std::string Numbered(const char* prefix, int index) {
  char name[32];
  std::snprintf(name, sizeof name, "%s%04d", prefix, index);
  return name;
}

// Plugin i is JSON, debug or native by i % 3; none requires or provides a
// barrier, so the whole set is one level of independent plugins.
std::vector<Work> LayOut(int plugins, const std::string& nativeLibrary) {
  namespace fs = std::filesystem;
  fs::remove_all(paths::kPluginDirectory);
  fs::create_directories(paths::kPluginDirectory);
  fs::create_directories(fs::path(paths::kDebugConfiguration).parent_path());
  WriteDefinitionFile();
  std::vector<Work> work;
  std::string debugConfiguration;
  for (int index = 0; index < plugins; ++index) {
    switch (index % 3) {
      case 0: {
        const std::string name = Numbered("json", index);
        WriteFile(std::string(paths::kPluginDirectory) + "/" + name + ".json",
                  R"({"metadata": {"version": 1, "requires": [], "provides": []},)"
                  R"( "operations": {"start": ["bench true"]}})"
                  "\n");
        work.push_back({Kind::kJSON, name, {}});
        break;
      }
      case 1: {
        const std::string name = Numbered("debug", index);
        debugConfiguration += name + ":::true\n";
        work.push_back({Kind::kDebug, name, {}});
        break;
      }
      default: {
        const std::string name = Numbered("native", index);
        const std::string library = std::string(paths::kPluginDirectory) + "/lib" + name + ".so";
        fs::copy_file(nativeLibrary, library, fs::copy_options::overwrite_existing);
        work.push_back({Kind::kNative, name, library});
        break;
      }
    }
  }
  WriteFile(paths::kDebugConfiguration, debugConfiguration);
  return work;
}

// Every item started on `threads` threads, each taking the next one; the
// JSON items one at a time, as the executor process runs them.
void RunDirect(const std::vector<Work>& work, int threads) {
  std::atomic<std::size_t> next{0};
  std::mutex executor;
  std::vector<std::thread> workers;
  for (int worker = 0; worker < threads; ++worker) {
    workers.emplace_back([&] {
      for (std::size_t index = next++; index < work.size(); index = next++) {
        const Work& item = work[index];
        switch (item.kind) {
          case Kind::kJSON: {
            const std::lock_guard<std::mutex> oneAtATime(executor);
            SpawnAndWait({kTrueProgram});
            break;
          }
          case Kind::kDebug:
            if (std::system("true") != 0) std::exit(1);
            break;
          case Kind::kNative:
            SpawnAndWait({paths::kNativeExecutor, item.library, item.name, "start"});
            break;
        }
      }
    });
  }
  for (std::thread& worker : workers) worker.join();
}

// @p rounds runs of @p first and of @p second, in turns with the order
// swapped every round, so that a change in the machine's load falls on both
// alike: each one's times, in milliseconds, round by round.
struct Interleaved {
  std::vector<double> first;
  std::vector<double> second;
};

Interleaved RunInTurns(int rounds, const std::function<void()>& first,
                       const std::function<void()>& second) {
  Interleaved times;
  const auto timed = [](const std::function<void()>& run) {
    const auto begin = Clock::now();
    run();
    return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
  };
  first();
  second();
  for (int round = 0; round < rounds; ++round) {
    if (round % 2 == 0) {
      times.first.push_back(timed(first));
      times.second.push_back(timed(second));
    } else {
      times.second.push_back(timed(second));
      times.first.push_back(timed(first));
    }
  }
  return times;
}

// The value below which @p fraction of @p values lie (nearest rank).
double Quantile(std::vector<double> values, double fraction) {
  std::sort(values.begin(), values.end());
  const auto rank =
      static_cast<std::size_t>(fraction * static_cast<double>(values.size() - 1) + 0.5);
  return values[rank];
}

// What the run record costs a boot: the same runs with and without it, in
// turns. Each round's two runs lie side by side, so the difference of each
// pair is the record's cost under that round's load; their median is the
// figure, their quartiles say how far the machine's noise spreads it.
void ReportRecordCost(const std::string& withoutRecord) {
  constexpr int kRecordRounds = 21;
  for (const bool parallel : {false, true}) {
    std::vector<std::string> with = {kOrvane};
    std::vector<std::string> without = {withoutRecord};
    if (parallel) {
      with.push_back("--parallel");
      without.push_back("--parallel");
    }
    const std::string loadBefore = LoadAverage();
    const Interleaved times = RunInTurns(
        kRecordRounds, [&] { RunOrvane(with); }, [&] { RunOrvane(without); });
    std::vector<double> costs;
    for (std::size_t round = 0; round < times.first.size(); ++round) {
      costs.push_back(times.first[round] - times.second[round]);
    }
    const double unrecorded = Quantile(times.second, 0.5);
    std::printf(
        "record   %-8s with %7.1f ms  without %7.1f ms (medians)  cost per pair: median %+5.1f ms "
        "(%+.2f%%), quartiles %+5.1f .. %+5.1f ms; %d rounds in turns, load %s -> %s\n",
        parallel ? "parallel" : "serial", Quantile(times.first, 0.5), unrecorded,
        Quantile(costs, 0.5), 100.0 * Quantile(costs, 0.5) / unrecorded, Quantile(costs, 0.25),
        Quantile(costs, 0.75), kRecordRounds, loadBefore.c_str(), LoadAverage().c_str());
  }
}

// orvane and the direct starts in turns, kRounds times: each one's median,
// and the median of each round's ratio, which a change in the machine's
// load between the two moves far less than the ratio of the medians.
void Compare(const char* mode, int threads, int plugins, const std::function<void()>& orvane,
             const std::function<void()>& direct) {
  const Interleaved times = RunInTurns(kRounds, orvane, direct);
  std::vector<double> ratios;
  for (std::size_t round = 0; round < times.first.size(); ++round) {
    ratios.push_back(times.first[round] / times.second[round]);
  }
  const double orvaneMedian = Quantile(times.first, 0.5);
  const double directMedian = Quantile(times.second, 0.5);
  std::printf(
      "%-8s threads %2d  orvane %8.1f ms (%6.3f ms/plugin)  direct %8.1f ms (%6.3f ms/plugin)  "
      "ratio %.2f (rounds %.2f .. %.2f)\n",
      mode, threads, orvaneMedian, orvaneMedian / plugins, directMedian, directMedian / plugins,
      Quantile(ratios, 0.5), Quantile(ratios, 0.0), Quantile(ratios, 1.0));
}

}  // namespace

int main(int argc, char* argv[]) {
  if (argc < 2 || argc > 4) {
    std::fprintf(stderr, "usage: %s NATIVE-LIBRARY [PLUGINS [ORVANE-WITHOUT-RECORD]]\n", argv[0]);
    return 2;
  }
  const int plugins = argc > 2 ? std::atoi(argv[2]) : 1000;
  if (plugins < 1) {
    std::fprintf(stderr, "usage: %s NATIVE-LIBRARY [PLUGINS [ORVANE-WITHOUT-RECORD]]\n", argv[0]);
    return 2;
  }
  const std::vector<Work> work = LayOut(plugins, argv[1]);
  // orvane's own worker count under --parallel: twice the processors, at
  // most one per plugin.
  const int parallelThreads =
      std::min(plugins, 2 * static_cast<int>(std::thread::hardware_concurrency()));
  const auto count = [&](Kind kind) {
    return std::count_if(work.begin(), work.end(),
                         [&](const Work& item) { return item.kind == kind; });
  };
  std::printf(
      "%d plugins doing nothing (%ld JSON, %ld debug, %ld native); %d rounds of orvane and the "
      "direct starts in turns\n",
      plugins, count(Kind::kJSON), count(Kind::kDebug), count(Kind::kNative), kRounds);

  Compare(
      "serial", 1, plugins, [] { RunOrvane({kOrvane}); }, [&] { RunDirect(work, 1); });
  Compare(
      "parallel", parallelThreads, plugins,
      [] {
        RunOrvane({kOrvane, "--parallel"});
      },
      [&] { RunDirect(work, parallelThreads); });

  // The JSON commands alone, one at a time: with enough threads the rest
  // hides behind them, so this bounds the parallel direct run from below.
  std::vector<Work> commands;
  std::copy_if(work.begin(), work.end(), std::back_inserter(commands),
               [](const Work& item) { return item.kind == Kind::kJSON; });
  const double commandsDirect = MedianMilliseconds(kRounds, [&] { RunDirect(commands, 1); });
  std::printf("JSON commands alone, direct and one at a time: %.1f ms\n", commandsDirect);
  std::printf("load %s\n", LoadAverage().c_str());

  if (argc > 3) ReportRecordCost(argv[3]);
  return 0;
}
