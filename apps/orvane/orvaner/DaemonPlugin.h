/// The daemon plugin, and the command runner that starts its daemon's
/// commands as new host processes.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "ZelkKernel/ProcessExitWatch.h"
#include "orvane/FixedPaths.h"
#include "orvaner/Plugin.h"

namespace orvane {

/// A plugin that starts or stops one host daemon by running one of its
/// stored command lines through RunDaemonCommand. It shows "Starting
/// service <name>" on the boot progress screen while it runs, turns a failed
/// start into MethodFailedException, and is a legacy daemon in the
/// scheduling order. Subclasses fill the operations.
///
/// Daemon state: kConstructed, then kStarted or kStartFailed after Start,
/// kStopped after a successful Stop. Stop never looks at the state: a stop
/// after a failed start runs the stop command all the same.
class DaemonPlugin : public Plugin {
 public:
  static constexpr std::int32_t kConstructed = 0;
  static constexpr std::int32_t kStarted = 2;
  static constexpr std::int32_t kStopped = 12;
  static constexpr std::int32_t kStartFailed = 20;

  /// Operation codes of the operations map.
  static constexpr std::int32_t kStartOperation = 2;
  static constexpr std::int32_t kStopOperation = 4;

  /// @p number is the creator's (a start order for init.d daemons), kept
  /// unchanged. No operation is stored yet.
  DaemonPlugin(std::string name, std::int32_t number);

  /// Shows the service on the boot progress screen, runs the activation of
  /// Plugin::Execute (which calls Start in a start run), then advances the
  /// progress screen one step.
  void Execute(Executor& executor) override;
  /// Deactivation: announces it in the kernel log and calls Stop. A failed
  /// stop is announced and swallowed.
  void ExecuteReverse(Executor& executor) override;
  bool HasReverseAction() const override { return true; }

  /// Runs the start operation. Any standard exception (a missing operation,
  /// a failed command) leaves kStartFailed and becomes a
  /// MethodFailedException for "start" with the exception's text as reason.
  void Start() override;
  bool SupportsHostProfile() const override { return false; }
  /// Throws NotImplementedException.
  void ApplyHostProfile() override;

  /// Runs the stop operation; kStopped when it succeeded. A standard
  /// exception is logged and rethrown as it is, the state left alone.
  virtual void Stop();
  /// Throws NotImplementedException.
  virtual void Restart();
  /// Throws NotImplementedException.
  virtual void SSLReset();

  /// The command line stored for @p code. Throws Exception "<name> Daemon
  /// operations are not initialized" when there is none.
  const std::string& Operation(std::int32_t code) const;

  std::int32_t Number() const { return number_; }
  /// Written by the worker that runs the plugin; read it after the pass.
  std::int32_t DaemonState() const { return daemonState_; }

 protected:
  /// Stores @p commandLine for @p code, replacing what was stored.
  void SetOperation(std::int32_t code, std::string commandLine);

 private:
  std::int32_t number_;
  std::int32_t daemonState_ = kConstructed;
  std::map<std::int32_t, std::string> operations_;
};

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
