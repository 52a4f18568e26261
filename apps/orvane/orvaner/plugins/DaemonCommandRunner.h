/// The daemon command runner: a command line of a daemon plugin started as
/// a new host process by the kernel spawn call, and polled until it ends or
/// its time is up.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "ZelkKernel/ProcessExitWatch.h"
#include "orvane/FixedPaths.h"

namespace orvane {

/// The files a daemon command gets as its standard streams.
struct DaemonCommandStreams {
  /// Standard input and output; when it cannot be opened, the root
  /// directory's descriptor stands in (with a warning).
  const char* input = paths::kDevNull;
  /// Standard error; when it cannot be opened, standard input's descriptor
  /// stands in (silently).
  const char* errors = paths::kDevLog;
};

/// Runs @p commandLine, split into words at white space (no quoting, the
/// first word is the program), as a new process in "/" with the streams of
/// @p streams, the caller's user and group and the run options'
/// environment. With the run options' daemon wait flag it waits up to the
/// daemon wait time-out for the command to end; without it up to ten
/// seconds, after which a command still running counts as a success. The
/// process is never killed. Throws Exception naming the command when it
/// cannot be started, ends with a signal or a non-zero code, or (waiting)
/// outlives the time-out. @p pluginName is the caller's, for its messages.
void RunDaemonCommand(const std::string& pluginName, const std::string& commandLine,
                      const DaemonCommandStreams& streams = {});

/// How many 10 ms polls RunDaemonCommand makes at most: with @p wait one
/// per started 10 ms of @p timeoutSeconds, in unsigned 32-bit arithmetic
/// (so 0 seconds gives 0 polls, which then wrap to no limit); without it
/// a thousand.
std::uint32_t DaemonCommandPollCount(bool wait, std::uint32_t timeoutSeconds);

/// The polling of RunDaemonCommand for the spawned process @p child: at
/// most @p pollCount waits of 10 ms, each ending early when the child ends.
/// Returns the failure message, empty on success.
std::string AwaitDaemonCommand(pid_t child, std::uint32_t pollCount, bool wait,
                               const std::string& commandLine);

/// A pause of AwaitDaemonCommand between two polls of a command that still
/// runs: at most @p period (10 ms), over early when the command ends.
using DaemonCommandPause = std::function<void(const ZelkKernel::ProcessExitWatch& exitWatch,
                                              std::chrono::microseconds period)>;

/// Makes AwaitDaemonCommand pause with @p pause instead of waiting on the
/// exit watch itself, until reset with an empty function. For tests, which
/// count the pauses or lengthen them; set it while no command runs.
void ReplaceDaemonCommandPause(DaemonCommandPause pause);

}  // namespace orvane
