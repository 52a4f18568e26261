// What the benchmarks share: the programs the sandboxed ones run, starting
// a program as a baseline does, one run of orvane, writing the files they
// lay out, medians, and the machine's load to print beside the figures.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "orvane/FixedPaths.h"

namespace orvane::bench {

/// The orvane the sandbox installed, the no-op program the benchmarks'
/// commands run, and the command definition for it ("bench true") that
/// WriteDefinitionFile lays down.
inline constexpr const char* kOrvane = "/usr/bin/orvane";
inline constexpr const char* kTrueProgram = "/bin/true";
inline constexpr const char* kDefinitionFile = "/usr/lib/talvek/qorcli/bench.json";

/// Starts argv[0] with its standard streams on /dev/null and waits for it;
/// a program that cannot start or does not exit 0 ends the benchmark.
inline void SpawnAndWait(std::vector<std::string> arguments) {
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  pid_t child = 0;
  if (posix_spawn(&child, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
    std::perror("posix_spawn");
    std::exit(1);
  }
  posix_spawn_file_actions_destroy(&actions);
  int status = 0;
  waitpid(child, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::fprintf(stderr, "%s ended with status %#x\n", argv[0], status);
    std::exit(1);
  }
}

/// One run of the installed orvane. The executor's socket file outlives its
/// executor (one executor per boot: the host's /var/run starts empty), so
/// each run begins as a boot does, without it.
inline void RunOrvane(const std::vector<std::string>& arguments) {
  unlink(paths::kExecutorSocket);
  SpawnAndWait(arguments);
}

/// Writes @p content as the whole file at @p path; a file that cannot be
/// written ends the benchmark.
inline void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::trunc);
  out << content;
  if (!out.flush()) {
    std::fprintf(stderr, "cannot write %s\n", path.c_str());
    std::exit(1);
  }
}

/// Lays down the bench command definition at kDefinitionFile.
inline void WriteDefinitionFile() {
  std::filesystem::create_directories(std::filesystem::path(kDefinitionFile).parent_path());
  WriteFile(kDefinitionFile, R"({"commands": [{"path": ["bench", "true"], "exec": ["/bin/true"]}]})"
                             "\n");
}

/// The median of @p values (the mean of the middle two for an even count).
inline double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

/// Median wall time in milliseconds of @p rounds runs, after one warm-up.
inline double MedianMilliseconds(int rounds, const std::function<void()>& run) {
  run();
  std::vector<double> milliseconds;
  for (int round = 0; round < rounds; ++round) {
    const auto begin = std::chrono::steady_clock::now();
    run();
    milliseconds.push_back(
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin)
            .count());
  }
  return Median(std::move(milliseconds));
}

/// The load averages over 1, 5 and 15 minutes, as /proc/loadavg gives them.
inline std::string LoadAverage() {
  std::ifstream loadavg("/proc/loadavg");
  std::string one, five, fifteen;
  loadavg >> one >> five >> fifteen;
  return one + " " + five + " " + fifteen;
}

}  // namespace orvane::bench
