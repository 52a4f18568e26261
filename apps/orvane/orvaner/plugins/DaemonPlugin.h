/// The daemon plugin: one host daemon started and stopped through stored
/// command lines.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "orvaner/plugins/Plugin.h"

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

}  // namespace orvane
