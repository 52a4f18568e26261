/// The plugins of one run, owned for the whole run.
#pragma once

#include <deque>
#include <memory>

#include "orvaner/Plugin.h"

namespace orvane {

/// Owns every plugin constructed for the run and keeps the plugin list: the
/// ones that take part, in load order. The graph refers to the plugins by
/// plain references, so they live until the run ends.
class LoadedPlugins {
 public:
  LoadedPlugins() = default;
  LoadedPlugins(const LoadedPlugins&) = delete;
  LoadedPlugins& operator=(const LoadedPlugins&) = delete;

  /// Takes @p plugin and appends it to the plugin list.
  void Append(std::unique_ptr<Plugin> plugin);

  /// Takes @p plugin without listing it: a plugin kept out of the run that
  /// the barriers it joined still refer to.
  void Keep(std::unique_ptr<Plugin> plugin);

  /// Takes every plugin of @p other and appends its list to this one.
  void Append(LoadedPlugins&& other);

  /// Takes every plugin of @p other without listing any of them.
  void Keep(LoadedPlugins&& other);

  /// The plugins that take part in the run, in load order.
  const PluginList& List() const { return list_; }

 private:
  std::deque<std::unique_ptr<Plugin>> owned_;
  PluginList list_;
};

}  // namespace orvane
