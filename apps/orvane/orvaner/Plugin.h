/// The abstract plugin: one unit of boot work and a vertex of the graph.
#pragma once

#include <sys/time.h>

#include <cstdint>
#include <deque>
#include <set>
#include <string>

#include "orvaner/Node.h"

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
};

/// The loaded plugins in load order; main owns them for the whole run.
using PluginList = std::deque<Plugin*>;

}  // namespace orvane
