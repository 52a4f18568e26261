/// The native plugin: a shared object whose operations run in a helper
/// process.
#pragma once

#include <string>

#include "orvane/FixedPaths.h"
#include "orvaner/plugins/Plugin.h"

namespace orvane {

class BarrierRegistry;

/// A plugin shipped as a shared object that exports a "metadata" record and
/// an "operations" table (orvane/plugin.h). The object is loaded once, to
/// read its declarations, and stays loaded; its code never runs in this
/// process. Each method runs in a fresh nativeExecutor process that shares
/// our standard descriptors, and the helper's exit status is the method's
/// result, so a plugin that crashes or hangs harms only its own helper.
class NativePlugin : public Plugin {
 public:
  /// Loads the object at @p libraryPath and links the plugin into the graph
  /// of @p registry: before each provided barrier, then after each required
  /// one, creating barriers that do not exist yet. From API version 3 on it
  /// also takes the boot flags, run-once flag and plugin version. Throws
  /// InvalidPluginException when the object cannot be opened or declares an
  /// API version outside 1..4, and Exception when a symbol is missing; the
  /// object is closed again in those cases. @p nativeExecutor is the helper
  /// program; only tests pass another one.
  NativePlugin(std::string name, std::string libraryPath, BarrierRegistry& registry,
               std::string nativeExecutor = paths::kNativeExecutor);

  /// Runs the object's start operation in the helper.
  void Start() override;
  /// False for API version 1; otherwise whether the object has a
  /// host-profile operation.
  bool SupportsHostProfile() const override;
  /// Runs the object's host-profile operation in the helper; throws
  /// NotImplementedException when API version 1 or a missing operation rules
  /// it out.
  void ApplyHostProfile() override;

  const std::string& LibraryPath() const { return libraryPath; }

 private:
  /// Runs @p method of the object in a helper and waits for it. Throws
  /// MethodFailedException with the reason when the helper could not be
  /// started or waited for, or did not exit with status 0.
  void RunNativeMethod(const std::string& method);

  bool hasHostProfileOperation = false;
  std::string libraryPath;
  std::string nativeExecutor_;
};

}  // namespace orvane
