#include "orvaner/run/PluginEnumeration.h"

#include <algorithm>
#include <exception>
#include <filesystem>
#include <iterator>
#include <memory>
#include <string>

#include "log/Log.h"
#include "orvaner/RunOptions.h"
#include "orvaner/SystemAlert.h"
#include "orvaner/plugins/DebugConfiguration.h"
#include "orvaner/plugins/DebugPlugin.h"
#include "orvaner/plugins/JSONPlugin.h"
#include "orvaner/plugins/LoadedPlugins.h"
#include "orvaner/plugins/NativePlugin.h"

namespace orvane {
namespace {

constexpr const char* kLibraryPrefix = "lib";
constexpr const char* kDebugExtension = "debug";
constexpr const char* kNativeExtension = "so";
constexpr const char* kJSONExtension = "json";

std::unique_ptr<Plugin> MakeDebugPlugin(const DebugEntry& entry, BarrierRegistry& registry) {
  return std::make_unique<DebugPlugin>(entry.name, entry.requiredBarriers, entry.providedBarriers,
                                       entry.command, registry);
}

// What a cleaned run-once key keeps: ASCII letters and digits, "-", ".",
// "_" and "+".
bool IsRunOnceKeyCharacter(char character) {
  return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
         (character >= '0' && character <= '9') || character == '-' || character == '.' ||
         character == '_' || character == '+';
}

// "libfoo" and "foo" name the same plugin; only the exact lower-case prefix
// counts.
std::string PluginName(const std::string& base) {
  return base.starts_with(kLibraryPrefix)
             ? base.substr(std::char_traits<char>::length(kLibraryPrefix))
             : base;
}

// The directory and the name joined by one separator. A name is not a path,
// so an absolute-looking one does not replace the directory.
std::string FullPath(const std::string& directory, const std::string& fileName) {
  return directory.ends_with('/') ? directory + fileName : directory + '/' + fileName;
}

// A plugin file that cannot be loaded costs only its own plugin: the
// failure is raised as a system alert and logged, and loading goes on.
// The failure is also noted in @p plugins as the refusal of @p pluginName.
template <typename Construct>
std::unique_ptr<Plugin> ConstructOrReport(const std::string& fileName,
                                          const std::string& pluginName, LoadedPlugins& plugins,
                                          Construct construct) {
  std::string failure;
  try {
    return construct();
  } catch (const std::exception& error) {
    failure = "exception occurred whilst loading plugin " + fileName + ": " + error.what();
  } catch (...) {
    failure = "unknown exception occurred whilst loading plugin " + fileName;
  }
  RaiseSystemAlert(failure);
  Log_Level(LOG_LEVEL_WARNING, "%s\n", failure.c_str());
  plugins.Refuse(fileName, pluginName, failure);
  return nullptr;
}

// Each flag followed by one blank, as the refusal messages show them.
std::string FlagText(const std::set<std::string>& flags) {
  std::string text;
  for (const std::string& flag : flags) {
    text += flag;
    text += ' ';
  }
  return text;
}

bool IsDisabled(const Plugin& plugin, const std::vector<std::string>& disabledPlugins) {
  return std::find(disabledPlugins.begin(), disabledPlugins.end(), plugin.Name()) !=
         disabledPlugins.end();
}

// The boot-flag rules: empty when the plugin passes, else why not. Both are
// reported when both apply, the disabling flags first.
std::string BootFlagRefusal(const Plugin& plugin, const std::set<std::string>& bootFlags) {
  std::set<std::string> disabledBy;
  std::set_intersection(bootFlags.begin(), bootFlags.end(), plugin.GetDisablingFlags().begin(),
                        plugin.GetDisablingFlags().end(),
                        std::inserter(disabledBy, disabledBy.end()));
  if (!disabledBy.empty()) {
    Log_Level(LOG_LEVEL_WARNING, "ignoring plugin '%s', disabled due to boot flags: %s.\n",
              plugin.Name().c_str(), FlagText(disabledBy).c_str());
  }
  std::set<std::string> missing;
  std::set_difference(plugin.GetRequiredFlags().begin(), plugin.GetRequiredFlags().end(),
                      bootFlags.begin(), bootFlags.end(), std::inserter(missing, missing.end()));
  if (!missing.empty()) {
    Log_Level(LOG_LEVEL_WARNING,
              "ignoring plugin '%s', disabled due to missing required boot flags: %s.\n",
              plugin.Name().c_str(), FlagText(missing).c_str());
  }
  std::string refusal;
  if (!disabledBy.empty()) refusal = "disabled due to boot flags: " + FlagText(disabledBy);
  if (!missing.empty()) {
    if (!refusal.empty()) refusal += "; ";
    refusal += "disabled due to missing required boot flags: " + FlagText(missing);
  }
  return refusal;
}

// A run-once plugin whose key is known stays in the list, so the graph
// still waits on what it provides, but its work is skipped. The lookup uses
// the key as it is and the record gets the cleaned key, so a version with
// other characters runs again on every run; that is intended.
void ApplyRunOnce(Plugin& plugin, std::set<std::string>& runOnce) {
  if (!plugin.IsRunOnce()) {
    return;
  }
  const std::string key = plugin.Name() + plugin.GetPluginVersion();
  if (runOnce.contains(key)) {
    Log_Level(LOG_LEVEL_INFO, "ignoring plugin '%s' because version '%s'  has already been run.\n",
              plugin.Name().c_str(), plugin.GetPluginVersion().c_str());
    plugin.MarkDone();
    return;
  }
  runOnce.insert(CleanRunOnceKey(key));
}

// Takes a constructed plugin through the filters into the list, or keeps it
// out of it, marked done.
void Filter(std::unique_ptr<Plugin> plugin, const std::string& fileName, const std::string& path,
            LoadedPlugins& plugins, const PluginFilters& filters) {
  if (IsDisabled(*plugin, filters.disabledPlugins)) {
    Log_Level(LOG_LEVEL_INFO, "ignoring plugin '%s' due to blacklist.\n", plugin->Name().c_str());
    plugin->MarkDone();
    plugins.Refuse(fileName, plugin->Name(), "due to blacklist", plugin.get());
    plugins.Keep(std::move(plugin));
    return;
  }
  if (std::string refusal = BootFlagRefusal(*plugin, filters.bootFlags); !refusal.empty()) {
    plugin->MarkDone();
    plugins.Refuse(fileName, plugin->Name(), std::move(refusal), plugin.get());
    plugins.Keep(std::move(plugin));
    return;
  }
  Plugin& accepted = *plugin;
  plugins.Append(std::move(plugin), path);
  ApplyRunOnce(accepted, filters.runOnce);
}

void WalkPluginDirectory(const std::string& directory, LoadedPlugins& plugins,
                         const PluginFilters& filters, const RunOptions& options,
                         BarrierRegistry& registry, const std::string& debugConfiguration) {
  for (const std::filesystem::directory_entry& entry :
       std::filesystem::directory_iterator(directory)) {
    // The entry's name is what follows the last separator of its path ("."
    // and ".." are never listed): taken from the text, without the path
    // parsing and the copies of filename().
    const std::string& path = entry.path().native();
    LoadPlugin(path.substr(path.rfind('/') + 1), plugins, filters, options, registry,
               debugConfiguration);
  }
}

void LoadAll(const std::vector<std::string>& pluginNames, const PluginFilters& filters,
             const RunOptions& options, LoadedPlugins& plugins, BarrierRegistry& registry,
             const std::string& debugConfiguration) {
  if (!pluginNames.empty()) {
    for (const std::string& fileName : pluginNames) {
      LoadPlugin(fileName, plugins, filters, options, registry, debugConfiguration);
    }
    return;
  }
  std::vector<DebugEntry> debugEntries;
  ReadDebugConfiguration(debugEntries, debugConfiguration);
  WalkPluginDirectory(options.pluginDirectory, plugins, filters, options, registry,
                      debugConfiguration);
  for (const DebugEntry& entry : debugEntries) {
    plugins.Append(MakeDebugPlugin(entry, registry), debugConfiguration);
  }
}

}  // namespace

void EnumeratePlugins(const std::vector<std::string>& pluginNames, const PluginFilters& filters,
                      const RunOptions& options, LoadedPlugins& plugins, BarrierRegistry& registry,
                      const std::string& debugConfiguration) {
  // The list is handed over whole once enumeration is over. When it fails
  // half-way, what was loaded stays alive, because the barriers it joined
  // refer to it, but takes no part in the run.
  LoadedPlugins enumerated;
  try {
    LoadAll(pluginNames, filters, options, enumerated, registry, debugConfiguration);
  } catch (...) {
    plugins.Keep(std::move(enumerated));
    throw;
  }
  plugins.Append(std::move(enumerated));
}

void LoadPlugin(const std::string& fileName, LoadedPlugins& plugins, const PluginFilters& filters,
                const RunOptions& options, BarrierRegistry& registry,
                const std::string& debugConfiguration) {
  const std::string path = FullPath(options.pluginDirectory, fileName);
  const std::string::size_type lastDot = fileName.rfind('.');
  if (lastDot == std::string::npos) {
    Log_Level(LOG_LEVEL_WARNING, "ignoring plugin '%s' of unspecified type...\n", fileName.c_str());
    return;
  }
  const std::string extension = fileName.substr(lastDot + 1);
  const std::shared_ptr<const std::vector<DebugEntry>> debugEntries =
      ReadDebugEntries(debugConfiguration);
  const std::string pluginName = PluginName(fileName.substr(0, lastDot));

  std::unique_ptr<Plugin> plugin;
  if (extension == kNativeExtension) {
    plugin = ConstructOrReport(fileName, pluginName, plugins, [&] {
      return std::make_unique<NativePlugin>(pluginName, path, registry);
    });
  } else if (extension == kJSONExtension) {
    plugin = ConstructOrReport(fileName, pluginName, plugins,
                               [&] { return JSONPlugin::Load(pluginName, path, registry); });
  } else if (extension == kDebugExtension) {
    for (const DebugEntry& entry : *debugEntries) {
      if (entry.name == pluginName) {
        plugins.Append(MakeDebugPlugin(entry, registry), debugConfiguration);
      }
    }
    return;
  } else {
    Log_Level(LOG_LEVEL_WARNING, "ignoring plugin '%s' of unknown type (%s)...\n", fileName.c_str(),
              extension.c_str());
    return;
  }
  if (plugin) {
    Filter(std::move(plugin), fileName, path, plugins, filters);
  }
}

std::string CleanRunOnceKey(const std::string& key) {
  std::string cleaned = key;
  std::erase_if(cleaned, [](char character) { return !IsRunOnceKeyCharacter(character); });
  return cleaned;
}

}  // namespace orvane
