/// The abstract plugin: one unit of boot work and a vertex of the graph.
#pragma once

#include <sys/time.h>

#include <cstdint>
#include <deque>
#include <set>
#include <string>

#include "orvaner/graph/Node.h"

namespace orvane {

/// A plugin knows how to start itself, optionally how to apply the host
/// profile, and carries what it was declared with: API version, run-once
/// flag, plugin version and the boot flags that enable or disable it. The
/// kinds fill these while they load; afterwards only Execute writes the two
/// times, so no lock guards them.
class Plugin : public Node {
 public:
  /// A plugin of the default scheduling class.
  explicit Plugin(std::string name);

  /// Activates the plugin: optionally asks the operator first (interactive
  /// runs), announces the activation in the kernel log, runs the method the
  /// command line named, else the host-profile operation when the host has a
  /// profile and the kind supports it, else Start; records the times and
  /// announces the outcome. Every failure is logged; nothing is thrown, and
  /// the plugin counts as started whatever happened.
  void Execute(Executor& executor) override;
  std::string DotAttributes() override;

  /// Runs the plugin's start work. Reports failure only by throwing,
  /// normally MethodFailedException.
  virtual void Start() = 0;
  virtual bool SupportsHostProfile() const = 0;
  /// Applies the host profile; throws like Start, or
  /// NotImplementedException when the kind has no such operation.
  virtual void ApplyHostProfile() = 0;
  virtual std::int32_t GetApiVersion() const { return apiVersion; }

  bool IsRunOnce() const { return runOnce; }
  const std::string& GetPluginVersion() const { return pluginVersion; }
  const std::set<std::string>& GetRequiredFlags() const { return requiredFlags; }
  const std::set<std::string>& GetDisablingFlags() const { return disablingFlags; }
  const timeval& GetStartTime() const { return startTime; }
  const timeval& GetEndTime() const { return endTime; }
  /// endTime - startTime in microseconds.
  std::int64_t GetElapsedMicroseconds() const;

  /// Runs the method named @p method ("start" or "apply_host_profile",
  /// compared exactly); any other name succeeds without doing anything.
  /// Catches and logs everything the method throws; false when it failed.
  bool InvokeMethod(const std::string& method);

 protected:
  /// For kinds that are scheduled in another class, such as legacy daemons.
  Plugin(std::string name, std::uint32_t schedulingClass);

  std::int32_t apiVersion = -1;
  bool runOnce = false;
  std::string pluginVersion;
  std::set<std::string> requiredFlags;
  std::set<std::string> disablingFlags;
  timeval startTime{};
  timeval endTime{};

 private:
  /// The interactive gate: false when the operator chose to skip the plugin.
  bool AskOperator();
  /// Runs the method chosen for this run; false with @p reason filled when
  /// it failed. Catches everything.
  bool RunChosenMethod(std::string& reason);
  /// Records endTime, logs the trace line and sends the outcome alert.
  void Finish(bool succeeded, const std::string& reason);
};

/// The loaded plugins in load order; main owns them for the whole run.
using PluginList = std::deque<Plugin*>;

}  // namespace orvane
