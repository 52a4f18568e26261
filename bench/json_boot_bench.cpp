// A boot of JSON plugins and nothing else: `orvane` over PLUGINS JSON
// plugins of COMMANDS start commands each, every command a definition that
// runs /bin/true, serial and with --parallel, against the same number of
// direct posix_spawn and waitpid calls of /bin/true one after another (the
// executor process runs one command at a time whatever the parallelism, so
// the direct spawns are serial in both comparisons). A fourth run boots the
// same plugins with no commands at all: what a boot costs around its
// commands (starting orvane and the executor, loading, activating and
// recording the plugins, the logs), so that what is left is the commands'
// own cost.
//
// Given a second orvane (another build of the program, such as the one
// before a change), it also boots that one serial, with --parallel and
// without commands in the same rounds, so that the two builds are compared
// under the same load.
//
// The runs take turns within each round, their order rotated from
// round to round, so that a change in the machine's load falls on all of
// them alike; the figures are the medians over the rounds, and the ratios
// the medians of each round's own ratios.
//
// With --one-processor first, the benchmark and everything it starts run on
// one processor, so that each hand-over between orvane, its executor and a
// command's program is a switch on that processor instead of a wake-up of
// another one: the difference to a run on every processor is what those
// wake-ups cost on the machine.
//
// It lays the plugins out on the host's fixed paths and runs the installed
// program, so it runs only inside a sandbox: scripts/bench-json-boot builds,
// stages and runs it there. Prints figures; asserts nothing.
//
// The steps of one command, each on its own, are measured by
// orvane_executor_steps_bench (bench/ExecutorStepsBench.cpp), and one
// command against one direct spawn by executor_bench.
//
// Where a command's time went beyond the program's own spawn, measured on
// the 2-core shared machine (load 1.3-3.2; figures move by a third with it):
//
//   step                                   before             after
//   client: socket, connect, send,         6 system calls     5 (the shutdown
//     shutdown, recv, close                                   only after an
//                                                             empty line)
//   the protocol's two wake-ups            20-38 us for the whole round trip
//     (connect wakes the executor,         between two threads, unchanged:
//     its reply wakes the client)          one connection per command
//   executor: poll, accept4, SO_PEERCRED,  0.5 us, 7 calls    6 calls (the
//     geteuid, SO_RCVTIMEO, recv                              user read once;
//                                                             the time-out set
//                                                             only when the
//                                                             line is not
//                                                             there yet, 1 in
//                                                             5 connections)
//   parse, validate, look up, arguments    0.2 us             0.2 us
//   environment                            every variable     pointers to the
//                                          copied into a set  executor's own
//                                          (~2 us CPU)        entries
//   spawn: posix_spawn's stack mapped and  ~8 us              none: a clone
//     unmapped per program (the unmap                         with CLONE_VM |
//     interrupts every processor)                             CLONE_VFORK on
//                                                             a kept stack
//   child: every signal's action reset     ~9 us (62 calls)   1 call (SIGPIPE):
//                                                             the executor's
//                                                             actions are fixed
//   runner against a plain posix_spawn     +14 us (497/482)   -28 us (463/491;
//     of /bin/true (steps benchmark)                          -12 us with every
//                                                             signal reset)
//   logging per successful command         none               none
//
// One command over one direct spawn (executor_bench, medians of the paired
// differences): 33-43 us before, 15-30 us after; back to back, as a
// plugin sends them: 50-57 us before, 32-37 us after. What a boot adds
// around its commands, a plugin at a time: two kernel-log records (each
// opened and closed /dev/kmsg before; written on a kept descriptor after),
// the "executing start plugin" line to syslog and standard output, the
// run record's lines, and the main thread's wake-up as it waited for each
// plugin in list order (it now waits from the last plugin, and wakes about
// once a pass: 33 futex calls in a boot of 300 plugins instead of 1,299);
// 15.4 ms for 300 plugins without commands before (load 1.6-1.9), 13.1 ms
// with the kept descriptor (load 2.0-3.1); in one run of 15 rounds (load
// 0.8), 11.2 ms waiting in list order and 10.7 ms waiting from the last.
//
// The rest of the gap is the wake-ups of the executor and its client: on
// a machine whose idle processors halt, a hand-over to a process on
// another processor waits for that processor to wake. With --one-processor
// (load 1.1, 15 rounds) the overhead per command falls from +42 us to
// +23 us and the ratios from 1.108 serial and 1.102 parallel to 1.069 and
// 1.068.
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "SpawnTiming.h"
#include "orvane/FixedPaths.h"

namespace {

using orvane::bench::kOrvane;
using orvane::bench::kTrueProgram;
using orvane::bench::LoadAverage;
using orvane::bench::Median;
using orvane::bench::RunOrvane;
using orvane::bench::SpawnAndWait;
using orvane::bench::WriteDefinitionFile;
using orvane::bench::WriteFile;

using Clock = std::chrono::steady_clock;
namespace paths = orvane::paths;

constexpr const char* kCommandLine = "bench true";

std::string PluginPath(int index) {
  char name[32];
  std::snprintf(name, sizeof name, "/json%04d.json", index);
  return paths::kPluginDirectory + std::string(name);
}

// PLUGINS independent JSON plugins (none requires or provides a barrier),
// each with @p commands start commands; no debug injections.
void LayOutPlugins(int plugins, int commands) {
  std::string start;
  for (int command = 0; command < commands; ++command) {
    start += std::string(command == 0 ? "" : ", ") + "\"" + kCommandLine + "\"";
  }
  const std::string description = R"({"metadata": {"version": 1, "requires": [], "provides": []},)"
                                  R"( "operations": {"start": [)" +
                                  start + "]}}\n";
  for (int index = 0; index < plugins; ++index) WriteFile(PluginPath(index), description);
}

void PrepareHost() {
  namespace fs = std::filesystem;
  fs::remove_all(paths::kPluginDirectory);
  fs::create_directories(paths::kPluginDirectory);
  fs::remove(paths::kDebugConfiguration);
  WriteDefinitionFile();
}

double Milliseconds(const std::function<void()>& run) {
  const auto begin = Clock::now();
  run();
  return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

// Keeps this process, and so everything it starts, on the first processor
// it may use; false when it cannot.
bool KeepToOneProcessor() {
  cpu_set_t allowed;
  if (sched_getaffinity(0, sizeof allowed, &allowed) != 0) return false;
  for (int processor = 0; processor < CPU_SETSIZE; ++processor) {
    if (!CPU_ISSET(processor, &allowed)) continue;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(processor, &one);
    if (sched_setaffinity(0, sizeof one, &one) != 0) return false;
    std::printf("everything on processor %d\n", processor);
    return true;
  }
  return false;
}

enum Run { kSerial, kParallel, kDirect, kEmpty, kOtherSerial, kOtherParallel, kOtherEmpty, kRuns };

}  // namespace

int main(int argc, char* argv[]) {
  if (argc > 1 && std::string(argv[1]) == "--one-processor") {
    if (!KeepToOneProcessor()) {
      std::perror("cannot keep to one processor");
      return 1;
    }
    --argc;
    ++argv;
  }
  const int plugins = argc > 1 ? std::atoi(argv[1]) : 300;
  const int commandsEach = argc > 2 ? std::atoi(argv[2]) : 3;
  const int rounds = argc > 3 ? std::atoi(argv[3]) : 9;
  const std::string other = argc > 4 ? argv[4] : "";
  if (argc > 5 || plugins < 1 || commandsEach < 1 || rounds < 1) {
    std::fprintf(stderr,
                 "usage: %s [--one-processor] [PLUGINS [COMMANDS-EACH [ROUNDS [OTHER-ORVANE]]]]\n",
                 argv[0]);
    return 2;
  }
  const int runCount = other.empty() ? kOtherSerial : kRuns;
  const int commands = plugins * commandsEach;
  PrepareHost();

  const std::array<std::function<void()>, kRuns> runs = {
      [&] { RunOrvane({kOrvane}); },
      [&] {
        RunOrvane({kOrvane, "--parallel"});
      },
      [&] {
        for (int command = 0; command < commands; ++command) SpawnAndWait({kTrueProgram});
      },
      [&] { RunOrvane({kOrvane}); },
      [&] { RunOrvane({other}); },
      [&] {
        RunOrvane({other, "--parallel"});
      },
      [&] { RunOrvane({other}); },
  };
  // The empty runs need plugins without commands; the others the real ones.
  const auto timed = [&](int run) {
    const bool empty = run == kEmpty || run == kOtherEmpty;
    if (empty) LayOutPlugins(plugins, 0);
    const double milliseconds = Milliseconds(runs[run]);
    if (empty) LayOutPlugins(plugins, commandsEach);
    return milliseconds;
  };

  std::printf(
      "%d JSON plugins x %d commands (%d spawns of %s) against %d direct spawns; %d rounds "
      "in turns, after one warm-up round\n",
      plugins, commandsEach, commands, kTrueProgram, commands, rounds);
  const std::string loadBefore = LoadAverage();
  LayOutPlugins(plugins, commandsEach);
  for (int run = 0; run < runCount; ++run) timed(run);

  std::array<std::vector<double>, kRuns> times;
  std::vector<double> serialRatios, parallelRatios, serialOverheads, parallelOverheads;
  std::vector<double> otherSerialRatios, otherParallelRatios;
  for (int round = 0; round < rounds; ++round) {
    std::array<double, kRuns> roundTimes{};
    for (int turn = 0; turn < runCount; ++turn) {
      const int run = (turn + round) % runCount;
      roundTimes[run] = timed(run);
      times[run].push_back(roundTimes[run]);
    }
    serialRatios.push_back(roundTimes[kSerial] / roundTimes[kDirect]);
    parallelRatios.push_back(roundTimes[kParallel] / roundTimes[kDirect]);
    if (!other.empty()) {
      otherSerialRatios.push_back(roundTimes[kOtherSerial] / roundTimes[kDirect]);
      otherParallelRatios.push_back(roundTimes[kOtherParallel] / roundTimes[kDirect]);
    }
    // Microseconds per command that a boot adds over the direct spawns,
    // once what the boot costs without commands is taken out.
    const double perCommand = 1000.0 / commands;
    serialOverheads.push_back((roundTimes[kSerial] - roundTimes[kEmpty] - roundTimes[kDirect]) *
                              perCommand);
    parallelOverheads.push_back((roundTimes[kParallel] - roundTimes[kEmpty] - roundTimes[kDirect]) *
                                perCommand);
  }

  const double direct = Median(times[kDirect]);
  std::printf("direct spawns       %8.1f ms  (%6.1f us per spawn)\n", direct,
              1000.0 * direct / commands);
  std::printf("orvane, no commands %8.1f ms  (the boot around the commands)\n",
              Median(times[kEmpty]));
  std::printf(
      "orvane serial       %8.1f ms  ratio to direct %.3f (rounds %.3f .. %.3f)  "
      "per command over direct, boot taken out: %+6.1f us\n",
      Median(times[kSerial]), Median(serialRatios),
      *std::min_element(serialRatios.begin(), serialRatios.end()),
      *std::max_element(serialRatios.begin(), serialRatios.end()), Median(serialOverheads));
  std::printf(
      "orvane --parallel   %8.1f ms  ratio to direct %.3f (rounds %.3f .. %.3f)  "
      "per command over direct, boot taken out: %+6.1f us\n",
      Median(times[kParallel]), Median(parallelRatios),
      *std::min_element(parallelRatios.begin(), parallelRatios.end()),
      *std::max_element(parallelRatios.begin(), parallelRatios.end()), Median(parallelOverheads));
  if (!other.empty()) {
    std::printf("%s serial %8.1f ms  ratio to direct %.3f\n", other.c_str(),
                Median(times[kOtherSerial]), Median(otherSerialRatios));
    std::printf("%s --parallel %8.1f ms  ratio to direct %.3f\n", other.c_str(),
                Median(times[kOtherParallel]), Median(otherParallelRatios));
    std::printf("%s, no commands %8.1f ms\n", other.c_str(), Median(times[kOtherEmpty]));
  }
  std::printf("load average %s -> %s\n", loadBefore.c_str(), LoadAverage().c_str());
  return 0;
}
