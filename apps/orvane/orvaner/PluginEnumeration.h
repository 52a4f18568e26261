/// Turning the --plugin names, the plugin directory and the debug
/// configuration into the plugins of a run.
#pragma once

#include <string>
#include <vector>

#include "orvane/FixedPaths.h"

namespace orvane {

class LoadedPlugins;

/// Loads the plugins of a run outside daemon mode. With no @p pluginNames,
/// every entry of the debug configuration becomes a debug plugin, appended
/// in file order. Otherwise each name is loaded with LoadPlugin in the order
/// given, repeats included. Throws what constructing a debug plugin throws.
void EnumeratePlugins(const std::vector<std::string>& pluginNames, LoadedPlugins& plugins,
                      const std::string& debugConfiguration = paths::kDebugConfiguration);

/// Loads the plugins that the file name @p fileName stands for and appends
/// them to @p plugins. The extension (after the last ".") picks the kind;
/// the plugin name is the rest, less a leading "lib". For "debug", every
/// entry of the debug configuration (read afresh) with that plugin name
/// becomes a debug plugin. For "json" and "so", the JSON description or the
/// shared object of that name in the run's plugin directory becomes a JSON
/// or a native plugin; one that cannot be loaded is raised as a system
/// alert, logged at level 3 and loads nothing. A name without an extension
/// or with an unknown one is logged at level 3 and loads nothing.
void LoadPlugin(const std::string& fileName, LoadedPlugins& plugins,
                const std::string& debugConfiguration = paths::kDebugConfiguration);

}  // namespace orvane
