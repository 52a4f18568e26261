// How much the executor adds to running a command: COUNT commands through
// QorcliExecutor::RunCommand whose definition runs /bin/true, against COUNT
// direct posix_spawn and waitpid calls of /bin/true, and the bare protocol
// round trip of a command line that fails to parse (nothing is spawned).
// Each command through the executor is timed beside a direct spawn, and
// the median of the pairs' differences is one command's overhead; then
// blocks of commands in a row, as a plugin sends them, against blocks of
// direct spawns in a row.
//
// It starts an executor on the host's fixed paths, so it runs only inside a
// sandbox: scripts/bench-executor builds, stages and runs it there with the
// command definition below. Prints figures; asserts nothing.
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <string>
#include <vector>

#include "SpawnTiming.h"
#include "orvaner/Logging.h"
#include "orvaner/cli/QorcliExecutor.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

using orvane::bench::kDefinitionFile;  // laid down by scripts/bench-executor
using orvane::bench::kTrueProgram;
constexpr const char* kTrueCommand = "bench true";
constexpr const char* kUnparsableCommand = "bench 'unterminated";
constexpr int kWarmUpRuns = 50;

/// Per-call durations in microseconds.
struct Timings {
  std::vector<double> microseconds;

  double Total() const {
    double total = 0;
    for (double each : microseconds) total += each;
    return total;
  }
  double Mean() const { return Total() / static_cast<double>(microseconds.size()); }
  double Percentile(double fraction) const {
    std::vector<double> sorted = microseconds;
    std::sort(sorted.begin(), sorted.end());
    return sorted[static_cast<std::size_t>(fraction * static_cast<double>(sorted.size() - 1))];
  }
};

Timings Measure(int count, const std::function<void()>& call) {
  Timings timings;
  timings.microseconds.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) {
    const Clock::time_point start = Clock::now();
    call();
    timings.microseconds.push_back(
        std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  return timings;
}

void Append(Timings& timings, const Timings& more) {
  timings.microseconds.insert(timings.microseconds.end(), more.microseconds.begin(),
                              more.microseconds.end());
}

void SpawnTrue() {
  char* const arguments[] = {const_cast<char*>(kTrueProgram), nullptr};
  pid_t child;
  if (posix_spawn(&child, kTrueProgram, nullptr, nullptr, arguments, environ) != 0) {
    std::fprintf(stderr, "posix_spawn %s failed\n", kTrueProgram);
    std::exit(1);
  }
  int status;
  waitpid(child, &status, 0);
}

void RunTrue() { orvane::QorcliExecutor::Instance().RunCommand(kTrueCommand); }

void RunUnparsable() {
  try {
    orvane::QorcliExecutor::Instance().RunCommand(kUnparsableCommand);
    std::fprintf(stderr, "'%s' unexpectedly succeeded\n", kUnparsableCommand);
    std::exit(1);
  } catch (const std::exception&) {
    // Expected: the executor answers status 1.
  }
}

void Print(const char* name, const Timings& timings) {
  std::printf("%-34s mean %8.1f us   median %8.1f us   p99 %8.1f us   total %8.1f ms\n", name,
              timings.Mean(), timings.Percentile(0.5), timings.Percentile(0.99),
              timings.Total() / 1000.0);
}

}  // namespace

int main(int argc, char* argv[]) {
  const int count = argc > 1 ? std::atoi(argv[1]) : 1000;
  if (count <= 0 || access(kDefinitionFile, R_OK) != 0) {
    std::fprintf(stderr,
                 "usage: executor_bench [COUNT]\n"
                 "Runs only in a sandbox prepared by scripts/bench-executor (%s is missing).\n",
                 kDefinitionFile);
    return 2;
  }
  orvane::InitLogging("orvane");
  try {
    orvane::QorcliExecutor::Instance().Reset();
    for (int i = 0; i < kWarmUpRuns; ++i) {
      RunTrue();
      SpawnTrue();
      RunUnparsable();
    }
    // Interleaved, so that a busy moment of the machine weighs on both alike.
    Timings throughExecutor;
    Timings direct;
    for (int i = 0; i < count; ++i) {
      Append(throughExecutor, Measure(1, RunTrue));
      Append(direct, Measure(1, SpawnTrue));
    }
    const Timings roundTrip = Measure(count, RunUnparsable);
    // Back to back, as a plugin's commands are sent: blocks of commands in
    // a row against blocks of direct spawns in a row, in turns.
    constexpr int kBlock = 50;
    double backToBackExecutor = 0;
    double backToBackDirect = 0;
    for (int done = 0; done < count; done += kBlock) {
      backToBackExecutor += Measure(kBlock, RunTrue).Total();
      backToBackDirect += Measure(kBlock, SpawnTrue).Total();
    }
    orvane::QorcliExecutor::Instance().Stop();

    std::printf("%d calls each, after %d warm-up calls\n", count, kWarmUpRuns);
    Print("RunCommand \"bench true\"", throughExecutor);
    Print("posix_spawn+waitpid /bin/true", direct);
    Print("round trip (parse failure)", roundTrip);
    // Each command was timed beside a direct spawn, so the median of the
    // pairs' differences is one command's overhead under the same load.
    Timings overhead;
    for (int i = 0; i < count; ++i) {
      overhead.microseconds.push_back(throughExecutor.microseconds[static_cast<std::size_t>(i)] -
                                      direct.microseconds[static_cast<std::size_t>(i)]);
    }
    std::printf("ratio executor/direct (total time)  %.3f   (target <= 1.2)\n",
                throughExecutor.Total() / direct.Total());
    std::printf(
        "overhead per command, median of the pairs  %+.1f us (target <= 50 us); quartiles "
        "%+.1f .. %+.1f us\n",
        overhead.Percentile(0.5), overhead.Percentile(0.25), overhead.Percentile(0.75));
    std::printf("round trip mean                     %.1f us (target <= 40 us)\n",
                roundTrip.Mean());
    const int backToBackCount = (count + kBlock - 1) / kBlock * kBlock;
    std::printf(
        "back to back, %d in blocks of %d: executor %.1f us, direct %.1f us a call, "
        "overhead %+.1f us\n",
        backToBackCount, kBlock, backToBackExecutor / backToBackCount,
        backToBackDirect / backToBackCount,
        (backToBackExecutor - backToBackDirect) / backToBackCount);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "executor_bench: %s\n", error.what());
    return 1;
  }
  return 0;
}
