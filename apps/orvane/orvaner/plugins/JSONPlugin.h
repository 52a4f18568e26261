/// The JSON plugin: a plugin described by a JSON file whose operations are
/// host CLI command lines, run one by one in the executor process.
#pragma once

#include <boost/json/fwd.hpp>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "orvaner/plugins/Plugin.h"

namespace orvane {

class BarrierRegistry;

/// A plugin read from a description such as
///
///     {"metadata": {"version": 3, "requires": ["network"], "provides": ["firewall"],
///                   "run_once": false, "plugin_version": "1.0"},
///      "operations": {"start": ["network firewall set --enabled true"]}}
///
/// API version 2 adds the "apply_host_profile" operation; versions 3 and 4
/// add "required_flags", "disabling_flags", "run_once" and
/// "plugin_version". Comments are allowed; unknown keys are ignored.
class JSONPlugin : public Plugin {
 public:
  /// Descriptions larger than this are refused without being read: a
  /// plugin file is a few hundred bytes, and a runaway one must not cost
  /// the boot its memory.
  static constexpr std::size_t kMaxDescriptionSize = std::size_t{16} * 1024 * 1024;
  /// Deeper nesting is refused. The parser keeps its own stack, so this
  /// bounds memory and the depth of the document's destruction, not the
  /// parser's recursion; a description needs three levels.
  static constexpr std::size_t kMaxNestingDepth = 64;

  /// Reads the description at @p path and links the plugin named @p name
  /// into the graph of @p registry. Throws InvalidPluginException naming
  /// @p path with the first problem found, in a fixed order. The barriers
  /// named by "requires" and "provides" are linked before the keys after
  /// them are checked, so a description that fails later leaves them
  /// linked; the refused plugin then stays alive, owned by @p registry and
  /// marked done, so those edges never lead to a vertex that is gone or
  /// that would still run.
  static std::unique_ptr<JSONPlugin> Load(std::string name, const std::string& path,
                                          BarrierRegistry& registry);

  /// Sends every start command to the executor process.
  void Start() override;
  /// False for API version 1; otherwise whether "apply_host_profile" was given.
  bool SupportsHostProfile() const override;
  /// Sends every host-profile command to the executor process. Throws
  /// NotImplementedException for API version 1.
  void ApplyHostProfile() override;

  const std::vector<std::string>& StartCommands() const { return startCommands; }
  const std::vector<std::string>& HostProfileCommands() const { return hostProfileCommands; }

 protected:
  explicit JSONPlugin(std::string name);

  /// Runs one command line; returns only when it succeeded. The executor
  /// process's RunCommand; tests replace it to run without the process.
  virtual void SendCommand(const std::string& commandLine);

  /// Reads and checks the description, filling the fields and linking the
  /// barriers as it goes. Throws InvalidPluginException.
  void ReadDescription(const std::string& path, BarrierRegistry& registry);
  /// The checks of ReadDescription on the text of a description.
  void ParseDescription(std::string_view content, BarrierRegistry& registry);

  /// Builds a plugin of class @p PluginKind (this class or a test's
  /// subclass) as Load describes.
  template <typename PluginKind>
  static std::unique_ptr<PluginKind> LoadAs(std::string name, const std::string& path,
                                            BarrierRegistry& registry);

 private:
  /// A refused plugin that is already linked to barriers is marked done and
  /// handed to @p registry, which outlives every barrier pointing at it.
  static void KeepIfLinked(std::unique_ptr<JSONPlugin> plugin, BarrierRegistry& registry);

  /// The keys of "metadata", in the order they are checked: the API
  /// version, the barriers (linked as soon as each list is checked), then
  /// from version 3 the flags, run_once and plugin_version.
  void ReadMetadata(const boost::json::object& root, BarrierRegistry& registry);
  /// The command lists of "operations"; "apply_host_profile" from version 2.
  void ReadOperations(const boost::json::object& root);

  /// Sends @p commandLines in order, all of them even after a failure, and
  /// throws MethodFailedException for @p method when any failed.
  void RunCliCommands(const std::string& method, const std::vector<std::string>& commandLines);

  std::vector<std::string> startCommands;
  bool hasHostProfileOperation = false;
  std::vector<std::string> hostProfileCommands;
};

template <typename PluginKind>
std::unique_ptr<PluginKind> JSONPlugin::LoadAs(std::string name, const std::string& path,
                                               BarrierRegistry& registry) {
  std::unique_ptr<PluginKind> plugin(new PluginKind(std::move(name)));
  try {
    plugin->ReadDescription(path, registry);
  } catch (...) {
    KeepIfLinked(std::move(plugin), registry);
    throw;
  }
  return plugin;
}

}  // namespace orvane
