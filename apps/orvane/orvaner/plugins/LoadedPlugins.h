/// The plugins of one run, owned for the whole run.
#pragma once

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "orvaner/plugins/Plugin.h"

namespace orvane {

/// Owns every plugin constructed for the run and keeps the plugin list: the
/// ones that take part, in load order. The graph refers to the plugins by
/// plain references, so they live until the run ends.
class LoadedPlugins {
 public:
  LoadedPlugins() = default;
  LoadedPlugins(const LoadedPlugins&) = delete;
  LoadedPlugins& operator=(const LoadedPlugins&) = delete;

  /// What loading met, in order: a plugin that takes part, with the file it
  /// came from, or a refusal: the file, the plugin's name and why.
  struct LoadEntry {
    bool refused = false;
    /// The plugin; for a refusal the one kept out (still linked to its
    /// barriers), or null when none could be built.
    const Plugin* plugin = nullptr;
    std::string source;
    std::string name;    ///< of a refusal
    std::string reason;  ///< of a refusal
  };

  /// Takes @p plugin and appends it to the plugin list; @p source is the
  /// file it was loaded from, when there is one.
  void Append(std::unique_ptr<Plugin> plugin, std::string source = {});

  /// Takes @p plugin without listing it: a plugin kept out of the run that
  /// the barriers it joined still refer to.
  void Keep(std::unique_ptr<Plugin> plugin);

  /// Notes that the plugin @p name of @p source was kept out of the run,
  /// and why; @p plugin is the plugin kept out, when it could be built.
  void Refuse(std::string source, std::string name, std::string reason,
              const Plugin* plugin = nullptr);

  /// Takes every plugin of @p other and appends its list and what its
  /// loading met to this one.
  void Append(LoadedPlugins&& other);

  /// Takes every plugin of @p other without listing any of them.
  void Keep(LoadedPlugins&& other);

  /// The plugins that take part in the run, in load order.
  const PluginList& List() const { return list_; }
  /// The plugins appended and the refusals noted, in the order they came.
  const std::deque<LoadEntry>& LoadLog() const { return loadLog_; }

 private:
  std::deque<std::unique_ptr<Plugin>> owned_;
  PluginList list_;
  // A deque: it grows without copying what it holds, so loading 10,000
  // plugins never holds two copies of their entries.
  std::deque<LoadEntry> loadLog_;
};

}  // namespace orvane
