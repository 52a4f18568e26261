// orvane-analyze on the record of a boot of 100,000 plugins: the seconds
// each command takes from reading the file to its last byte of output
// (written to /dev/null), and the record's size; status also on the
// record cut after half of its events, a run still going. The record is made here:
// ten levels of 10,000 plugins, each level's plugins waiting for one or two
// of the 1,000 barriers that ten plugins of the level before provide, run
// on 8 workers with activations of 0.1 to 5 ms, 3% of them failing.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <queue>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "analyze/Main.h"

namespace {

constexpr int kPlugins = 100'000;
constexpr int kLevels = 10;
constexpr int kPluginsPerLevel = kPlugins / kLevels;
constexpr int kProvidersPerBarrier = 10;
constexpr int kBarriersPerLevel = kPluginsPerLevel / kProvidersPerBarrier;
constexpr int kWorkers = 8;

struct Event {
  long long t;
  long long sequence;
  std::string line;
};

/// The record's text: header, graph, events in time order, end.
std::string MakeRecord() {
  std::mt19937_64 random(20261124);
  const auto barrierId = [](int level, int index) {
    return kPlugins + level * kBarriersPerLevel + index;
  };
  std::vector<std::vector<int>> required(kPlugins);
  for (int plugin = kPluginsPerLevel; plugin < kPlugins; ++plugin) {
    const int level = plugin / kPluginsPerLevel;
    const int count = 1 + static_cast<int>(random() % 2);
    for (int barrier = 0; barrier < count; ++barrier) {
      required[plugin].push_back(
          barrierId(level - 1, static_cast<int>(random() % kBarriersPerLevel)));
    }
  }
  // The plugin at position p of a level provides barrier p / 10 of it.
  const auto providedBarrier = [&](int plugin) {
    return barrierId(plugin / kPluginsPerLevel, (plugin % kPluginsPerLevel) / kProvidersPerBarrier);
  };

  std::string text =
      R"({"type":"header","schema":1,"mode":"init","method":"","options":{"parallel":true,"threads":8},)"
      R"("start":"2026-11-24T15:14:00.000000Z","startMicroseconds":1764000000000000,"host":"bench","pid":1,"version":"0.1.0"})"
      "\n";
  std::vector<std::vector<int>> waiting(kPlugins + kLevels * kBarriersPerLevel);
  for (int plugin = 0; plugin < kPlugins; ++plugin) {
    std::string requiredIds;
    for (const int barrier : required[plugin]) {
      requiredIds += (requiredIds.empty() ? "" : ",") + std::to_string(barrier);
      waiting[barrier].push_back(plugin);
    }
    text += R"({"type":"plugin","id":)" + std::to_string(plugin) + R"(,"name":"plugin)" +
            std::to_string(plugin) + R"(","kind":")" + (plugin % 3 == 0 ? "native" : "json") +
            R"(","file":"/usr/libexec/orvane/plugins/plugin)" + std::to_string(plugin) +
            R"(.json","requires":[)" + requiredIds + R"(],"provides":[)" +
            std::to_string(providedBarrier(plugin)) +
            R"(],"apiVersion":3,"runOnceKey":null,"alreadyRun":false})"
            "\n";
  }
  for (int level = 0; level < kLevels; ++level) {
    for (int index = 0; index < kBarriersPerLevel; ++index) {
      const int id = barrierId(level, index);
      std::string providers;
      for (int provider = 0; provider < kProvidersPerBarrier; ++provider) {
        providers +=
            (provider == 0 ? "" : ",") +
            std::to_string(level * kPluginsPerLevel + index * kProvidersPerBarrier + provider);
      }
      std::string waiters;
      for (const int plugin : waiting[id]) {
        waiters += (waiters.empty() ? "" : ",") + std::to_string(plugin);
      }
      text += R"({"type":"barrier","id":)" + std::to_string(id) + R"(,"name":"barrier)" +
              std::to_string(id) + R"(","kind":"init","requires":[)" + providers +
              R"(],"provides":[)" + waiters + "]}\n";
    }
  }

  // The pass, level by level: a plugin is ready when its barriers are done,
  // starts on the first free worker, and its barrier is done when its ten
  // providers have finished.
  std::vector<Event> events;
  long long sequence = 0;
  const auto add = [&](long long t, const std::string& line) {
    events.push_back({t, sequence++, line});
  };
  std::vector<long long> barrierDone(kPlugins + kLevels * kBarriersPerLevel, 0);
  std::priority_queue<std::pair<long long, int>, std::vector<std::pair<long long, int>>,
                      std::greater<>>
      freeWorkers;
  for (int worker = 0; worker < kWorkers; ++worker) {
    freeWorkers.push({0, worker});
  }
  long long lastTime = 0;
  for (int level = 0; level < kLevels; ++level) {
    std::vector<std::pair<long long, int>> ready;
    for (int plugin = level * kPluginsPerLevel; plugin < (level + 1) * kPluginsPerLevel; ++plugin) {
      long long readyTime = 10;
      for (const int barrier : required[plugin]) {
        readyTime = std::max(readyTime, barrierDone[barrier] + 1);
      }
      ready.push_back({readyTime, plugin});
    }
    std::sort(ready.begin(), ready.end());
    std::vector<long long> finished(kPlugins, 0);
    for (const auto& [readyTime, plugin] : ready) {
      add(readyTime, R"({"type":"ready","t":)" + std::to_string(readyTime) +
                         R"(,"worker":-1,"id":)" + std::to_string(plugin) + "}");
      auto [free, worker] = freeWorkers.top();
      freeWorkers.pop();
      const long long start = std::max(free, readyTime) + 2;
      const long long finish = start + 100 + static_cast<long long>(random() % 4900);
      const bool failed = random() % 100 < 3;
      add(start, R"({"type":"start","t":)" + std::to_string(start) + R"(,"worker":)" +
                     std::to_string(worker) + R"(,"id":)" + std::to_string(plugin) + "}");
      add(finish, R"({"type":"finish","t":)" + std::to_string(finish) + R"(,"worker":)" +
                      std::to_string(worker) + R"(,"id":)" + std::to_string(plugin) +
                      (failed ? R"(,"outcome":"failed","reason":"plugin)" + std::to_string(plugin) +
                                    R"(->start() failed: error while executing the cli"})"
                              : R"(,"outcome":"activated"})"));
      freeWorkers.push({finish, worker});
      const int barrier = providedBarrier(plugin);
      barrierDone[barrier] = std::max(barrierDone[barrier], finish + 5);
      lastTime = std::max(lastTime, finish);
    }
    for (int index = 0; index < kBarriersPerLevel; ++index) {
      const int id = barrierId(level, index);
      add(barrierDone[id] - 1, R"({"type":"ready","t":)" + std::to_string(barrierDone[id] - 1) +
                                   R"(,"worker":0,"id":)" + std::to_string(id) + "}");
      add(barrierDone[id], R"({"type":"barrier-done","t":)" + std::to_string(barrierDone[id]) +
                               R"(,"worker":0,"id":)" + std::to_string(id) + "}");
      lastTime = std::max(lastTime, barrierDone[id]);
    }
  }
  std::sort(events.begin(), events.end(), [](const Event& left, const Event& right) {
    return left.t != right.t ? left.t < right.t : left.sequence < right.sequence;
  });
  for (const Event& event : events) {
    text += event.line + "\n";
  }
  text += R"({"type":"end","t":)" + std::to_string(lastTime + 100) +
          R"(,"status":0,"end":"2026-11-24T15:14:30.000000Z"})"
          "\n";
  return text;
}

double SecondsOf(const std::vector<std::string>& arguments) {
  std::ofstream discard("/dev/null");
  std::ostringstream errors;
  const auto start = std::chrono::steady_clock::now();
  const int status = orvane::analyze::Run(arguments, discard, errors);
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
  if (status != 0) {
    std::cerr << "failed: " << errors.str();
    std::exit(1);
  }
  return seconds.count();
}

}  // namespace

int main() {
  const std::filesystem::path file =
      std::filesystem::temp_directory_path() /
      ("orvane-analyze-bench-" + std::to_string(getpid()) + ".jsonl");
  const std::filesystem::path liveFile = file.string() + ".live";
  {
    const std::string text = MakeRecord();
    std::ofstream(file, std::ios::binary) << text;
    // The same run while it goes on: half of its events, no end line.
    const std::size_t events = text.find(R"({"type":"ready")");
    const std::size_t cut = text.find('\n', events + (text.size() - events) / 2) + 1;
    std::ofstream(liveFile, std::ios::binary) << text.substr(0, cut);
  }
  std::printf("record: %d plugins, %d barriers, %.1f MiB\n", kPlugins, kLevels * kBarriersPerLevel,
              static_cast<double>(std::filesystem::file_size(file)) / (1 << 20));
  const std::string record = file.string();
  const std::vector<std::vector<std::string>> commands = {
      {"blame", "-r", record},
      {"critical-chain", "-r", record},
      {"plot", "-r", record},
      {"trace", "-r", record},
      {"status", "-r", record},
      {"status", "-r", liveFile.string()},
      {"blame", "--json", "-r", record},
      {"compare", record, record},
      {"aggregate", record, record},
  };
  for (const std::vector<std::string>& command : commands) {
    std::string name;
    for (const std::string& word : command) {
      const std::string shown = word == record              ? std::string("RECORD")
                                : word == liveFile.string() ? std::string("LIVE-RECORD")
                                                            : word;
      name += (name.empty() ? "" : " ") + shown;
    }
    // The best of three runs: the figure least disturbed by other work.
    double best = 1e9;
    for (int run = 0; run < 3; ++run) {
      best = std::min(best, SecondsOf(command));
    }
    std::printf("%-32s %7.3f s\n", name.c_str(), best);
  }
  std::filesystem::remove(file);
  std::filesystem::remove(liveFile);
  return 0;
}
