/// Where the host's fixed paths lie in the tree that verify checks.
#pragma once

#include <string>

namespace orvane::analyze {

/// The fixed paths of a host whose "/" is @p root: the plugin directory, the
/// debug configuration and the CLI definition directories, each as a path
/// to read under the root and as the path the host itself knows.
class VerifyPaths {
 public:
  /// @p root as given, relative or absolute; "/" is the machine's own root.
  explicit VerifyPaths(std::string root);

  const std::string& Root() const { return root_; }
  /// @p hostPath (absolute) as a path under the root.
  std::string Under(const std::string& hostPath) const;

  std::string PluginDirectory() const;
  std::string DebugConfiguration() const;

 private:
  std::string root_;
  std::string prefix_;  ///< the root without its trailing "/", empty for "/"
};

}  // namespace orvane::analyze
