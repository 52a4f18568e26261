/// The debug plugin: a shell command injected into the boot graph.
#pragma once

#include <string>
#include <vector>

#include "orvaner/plugins/Plugin.h"

namespace orvane {

class BarrierRegistry;

/// Runs one command of the debug configuration through the shell at the
/// place in the graph its barriers give it. Its outcome never changes the
/// boot: a failing command is logged and the plugin still counts as started.
class DebugPlugin : public Plugin {
 public:
  /// Links the plugin into the graph of @p registry: after each barrier of
  /// @p requiredBarriers, then before each of @p providedBarriers, in order,
  /// creating the barriers that do not exist yet.
  DebugPlugin(std::string name, const std::vector<std::string>& requiredBarriers,
              const std::vector<std::string>& providedBarriers, std::string command,
              BarrierRegistry& registry);

  /// Runs the command through the shell as system() does (the process-wide
  /// spawner) and waits for the shell. Anything but a
  /// clean exit with code 0 (another code, a signal, system() failing) is
  /// logged at level 5 with the raw status word. Never throws.
  void Start() override;
  bool SupportsHostProfile() const override { return false; }
  /// Throws NotImplementedException: an injection has no host-profile step.
  void ApplyHostProfile() override;

  const std::string& Command() const { return command_; }

 private:
  std::string command_;
};

}  // namespace orvane
