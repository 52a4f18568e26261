// What the sandboxed benchmarks (a boot, daemon mode) share: the programs
// they run, starting a program as a baseline does, and the median time of a
// few runs.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

namespace orvane::bench {

/// The orvane the sandbox installed, the no-op program the benchmarks'
/// commands run, and the command definition their scripts lay down for it
/// ({"path": ["bench", "true"], "exec": ["/bin/true"]}).
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
  std::sort(milliseconds.begin(), milliseconds.end());
  return milliseconds[milliseconds.size() / 2];
}

}  // namespace orvane::bench
