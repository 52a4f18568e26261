// What daemon mode adds to starting init.d scripts: the wall time of
// `orvane --daemon=wait --method=start` over SCRIPTS scripts that exit at
// once, in LEVELS start orders, serial and with --parallel, against spawning
// and reaping the same scripts directly with the same number of threads.
// The direct runs are measured twice: level by level (a thread barrier
// between start orders, as the priority chain has) and free (no levels).
//
// It lays the scripts and a stand-in service tool on the host's fixed paths
// and runs daemon mode, which would start the machine's real services
// outside a sandbox: scripts/bench-daemons runs it only inside one.
// Prints figures; asserts nothing.
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
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "SpawnTiming.h"

extern char** environ;

namespace {

using orvane::bench::kOrvane;
using orvane::bench::MedianMilliseconds;
using orvane::bench::SpawnAndWait;

using Clock = std::chrono::steady_clock;

constexpr const char* kServiceTool = "/bin/chkconfig";
constexpr const char* kScriptDirectory = "/etc/init.d";
constexpr int kRounds = 7;

std::string ScriptPath(int index) {
  char name[32];
  std::snprintf(name, sizeof name, "/bench%03d", index);
  return kScriptDirectory + std::string(name);
}

void WriteExecutable(const std::string& path, const std::string& content) {
  std::ofstream(path) << content;
  chmod(path.c_str(), 0755);
}

// Script i has start order 10 * (i % levels + 1), so the listing interleaves levels.
void LayOut(int scripts, int levels) {
  std::string listing;
  for (int index = 0; index < scripts; ++index) {
    WriteExecutable(ScriptPath(index), "#!/bin/sh\nexit 0\n");
    listing += ScriptPath(index) + " " + std::to_string(10 * (index % levels + 1)) + "\n";
  }
  WriteExecutable(kServiceTool, "#!/bin/sh\ncat <<'LISTING'\n" + listing + "LISTING\n");
}

// Scripts [first, last) started on `threads` threads, each taking the next one.
void RunDirect(int first, int last, int threads) {
  std::atomic<int> next{first};
  std::vector<std::thread> workers;
  for (int worker = 0; worker < threads; ++worker) {
    workers.emplace_back([&] {
      for (int index = next++; index < last; index = next++) {
        SpawnAndWait({ScriptPath(index), "start"});
      }
    });
  }
  for (std::thread& worker : workers) worker.join();
}

// Level by level, the scripts of a level being those with index % levels == level.
void RunDirectByLevel(int scripts, int levels, int threads) {
  for (int level = 0; level < levels; ++level) {
    std::atomic<int> next{level};
    std::vector<std::thread> workers;
    for (int worker = 0; worker < threads; ++worker) {
      workers.emplace_back([&] {
        for (int index = next.fetch_add(levels); index < scripts; index = next.fetch_add(levels)) {
          SpawnAndWait({ScriptPath(index), "start"});
        }
      });
    }
    for (std::thread& worker : workers) worker.join();
  }
}

void Report(const char* mode, int threads, double orvane, double byLevel, double free) {
  std::printf(
      "%-8s threads %2d  orvane %8.1f ms  direct by level %8.1f ms (ratio %.2f)  "
      "direct free %8.1f ms (ratio %.2f)\n",
      mode, threads, orvane, byLevel, orvane / byLevel, free, orvane / free);
}

}  // namespace

int main(int argc, char* argv[]) {
  const int scripts = argc > 1 ? std::atoi(argv[1]) : 200;
  const int levels = argc > 2 ? std::atoi(argv[2]) : 20;
  if (scripts < 1 || levels < 1) {
    std::fprintf(stderr, "usage: %s [SCRIPTS [LEVELS]]\n", argv[0]);
    return 2;
  }
  LayOut(scripts, levels);
  // orvane's own worker count under --parallel: twice the processors, at
  // most one per plugin.
  const int parallelThreads =
      std::min(scripts, 2 * static_cast<int>(std::thread::hardware_concurrency()));
  std::printf("%d scripts that exit at once in %d start orders; median of %d runs\n", scripts,
              levels, kRounds);

  const double serialOrvane = MedianMilliseconds(kRounds, [] {
    SpawnAndWait({kOrvane, "--daemon=wait", "--method=start"});
  });
  const double serialByLevel =
      MedianMilliseconds(kRounds, [&] { RunDirectByLevel(scripts, levels, 1); });
  const double serialFree = MedianMilliseconds(kRounds, [&] { RunDirect(0, scripts, 1); });
  Report("serial", 1, serialOrvane, serialByLevel, serialFree);

  const double parallelOrvane = MedianMilliseconds(kRounds, [] {
    SpawnAndWait({kOrvane, "--daemon=wait", "--method=start", "--parallel"});
  });
  const double parallelByLevel =
      MedianMilliseconds(kRounds, [&] { RunDirectByLevel(scripts, levels, parallelThreads); });
  const double parallelFree =
      MedianMilliseconds(kRounds, [&] { RunDirect(0, scripts, parallelThreads); });
  Report("parallel", parallelThreads, parallelOrvane, parallelByLevel, parallelFree);
  return 0;
}
