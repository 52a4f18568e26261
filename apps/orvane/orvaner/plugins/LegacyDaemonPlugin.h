/// The daemon plugin of one init.d script.
#pragma once

#include <cstdint>
#include <string>

#include "orvaner/plugins/DaemonPlugin.h"

namespace orvane {

class BarrierRegistry;

/// Starts and stops its daemon by running the init.d script with "start"
/// or "stop", on the priority level of its start order: it runs after every
/// daemon of a lower start order and before those of a higher one.
class LegacyDaemonPlugin : public DaemonPlugin {
 public:
  /// Stores "<script> start" and "<script> stop" and puts the plugin on the
  /// level of @p startOrder in @p registry's priority chain (created when
  /// new), all under the graph lock.
  LegacyDaemonPlugin(std::string name, const std::string& script, std::int32_t startOrder,
                     BarrierRegistry& registry);

  /// Throws NotImplementedException.
  void ApplyHostProfile() override;

  /// The init.d script the daemon is started and stopped through.
  const std::string& Script() const { return script_; }

 private:
  std::string script_;
};

}  // namespace orvane
