/// Turning the plugin directory, the --plugin names and the debug
/// configuration into the plugins of a run, through the filters that can
/// keep a plugin out: the disabled list, the boot flags and the run-once set.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "orvane/FixedPaths.h"

namespace orvane {

class BarrierRegistry;
class LoadedPlugins;
struct RunOptions;

/// What the filters of one enumeration look at. The run-once set is read
/// and extended: every run-once plugin accepted for the first time adds its
/// cleaned key.
struct PluginFilters {
  std::set<std::string> bootFlags;  ///< the run's plugin-flags set
  const std::vector<std::string>& disabledPlugins;
  std::set<std::string>& runOnce;
};

/// Loads the plugins of a run outside daemon mode into the graph of
/// @p registry and appends them to @p plugins. With no @p pluginNames, every
/// entry of the plugin directory (@p options.pluginDirectory) goes through
/// LoadPlugin in the order the file system lists them, and then every entry
/// of the debug configuration (read once, before the walk) becomes a debug
/// plugin that no filter sees. Otherwise each name goes through LoadPlugin
/// in the order given, repeats included, and the directory is not walked.
/// Throws what the directory iterator throws (a missing or unreadable plugin
/// directory) and what constructing a debug plugin throws; the plugins
/// loaded by then are kept alive but not appended to the list.
void EnumeratePlugins(const std::vector<std::string>& pluginNames, const PluginFilters& filters,
                      const RunOptions& options, LoadedPlugins& plugins, BarrierRegistry& registry,
                      const std::string& debugConfiguration = paths::kDebugConfiguration);

/// Loads the plugins that the file name @p fileName stands for into the
/// graph of @p registry. The extension (after the last ".") picks the kind;
/// the plugin name is the rest, less a leading "lib". For "debug", every
/// entry of the debug configuration (read afresh) with that plugin name is
/// appended as a debug plugin, unfiltered. For "json" and "so", the JSON
/// description or the shared object of that name in
/// @p options.pluginDirectory is constructed; one that cannot be is raised
/// as a system alert, logged at level 3 and loads nothing. The plugin then
/// passes the disabled list, the disabling and the required boot flags, in
/// that order; a refused plugin is marked done and kept out of the list (but
/// stays owned by @p plugins, since the barriers it joined refer to it). An
/// accepted run-once plugin whose key is already in @p filters.runOnce is
/// appended but marked done; otherwise its cleaned key is inserted. A name
/// without an extension or with an unknown one is logged at level 3 and
/// loads nothing.
void LoadPlugin(const std::string& fileName, LoadedPlugins& plugins, const PluginFilters& filters,
                const RunOptions& options, BarrierRegistry& registry,
                const std::string& debugConfiguration = paths::kDebugConfiguration);

/// @p key as the run-once set stores it: without the characters other than
/// letters, digits, "-", ".", "_" and "+".
std::string CleanRunOnceKey(const std::string& key);

}  // namespace orvane
