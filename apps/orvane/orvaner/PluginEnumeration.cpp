#include "orvaner/PluginEnumeration.h"

#include <exception>
#include <filesystem>
#include <memory>
#include <string>

#include "log/Log.h"
#include "orvaner/DebugConfiguration.h"
#include "orvaner/DebugPlugin.h"
#include "orvaner/JSONPlugin.h"
#include "orvaner/LoadedPlugins.h"
#include "orvaner/NativePlugin.h"
#include "orvaner/RunOptions.h"
#include "orvaner/SystemAlert.h"

namespace orvane {
namespace {

constexpr const char* kLibraryPrefix = "lib";
constexpr const char* kDebugExtension = "debug";
constexpr const char* kNativeExtension = "so";
constexpr const char* kJSONExtension = "json";

std::unique_ptr<Plugin> MakeDebugPlugin(const DebugEntry& entry) {
  return std::make_unique<DebugPlugin>(entry.name, entry.requiredBarriers, entry.providedBarriers,
                                       entry.command);
}

// "libfoo" and "foo" name the same plugin; only the exact lower-case prefix
// counts.
std::string PluginName(const std::string& base) {
  return base.starts_with(kLibraryPrefix)
             ? base.substr(std::char_traits<char>::length(kLibraryPrefix))
             : base;
}

// A plugin file that cannot be loaded costs only its own plugin: the
// failure is raised as a system alert and logged, and loading goes on.
template <typename Construct>
void AppendOrReport(const std::string& fileName, LoadedPlugins& plugins, Construct construct) {
  std::string failure;
  try {
    plugins.Append(construct());
    return;
  } catch (const std::exception& error) {
    failure = "exception occurred whilst loading plugin " + fileName + ": " + error.what();
  } catch (...) {
    failure = "unknown exception occurred whilst loading plugin " + fileName;
  }
  RaiseSystemAlert(failure);
  Log_Level(LOG_LEVEL_WARNING, "%s\n", failure.c_str());
}

}  // namespace

void EnumeratePlugins(const std::vector<std::string>& pluginNames, LoadedPlugins& plugins,
                      const std::string& debugConfiguration) {
  if (!pluginNames.empty()) {
    for (const std::string& fileName : pluginNames) {
      LoadPlugin(fileName, plugins, debugConfiguration);
    }
    return;
  }
  std::vector<DebugEntry> debugEntries;
  ReadDebugConfiguration(debugEntries, debugConfiguration);
  // The plugin directory's files are loaded here, before the debug plugins,
  // once the JSON and native kinds exist.
  for (const DebugEntry& entry : debugEntries) {
    plugins.Append(MakeDebugPlugin(entry));
  }
}

void LoadPlugin(const std::string& fileName, LoadedPlugins& plugins,
                const std::string& debugConfiguration) {
  const std::string::size_type lastDot = fileName.rfind('.');
  if (lastDot == std::string::npos) {
    Log_Level(LOG_LEVEL_WARNING, "ignoring plugin '%s' of unspecified type...\n", fileName.c_str());
    return;
  }
  const std::string extension = fileName.substr(lastDot + 1);
  std::vector<DebugEntry> debugEntries;
  ReadDebugConfiguration(debugEntries, debugConfiguration);
  const std::string pluginName = PluginName(fileName.substr(0, lastDot));

  if (extension == kDebugExtension) {
    for (const DebugEntry& entry : debugEntries) {
      if (entry.name == pluginName) {
        plugins.Append(MakeDebugPlugin(entry));
      }
    }
    return;
  }
  const std::string path =
      (std::filesystem::path(RunOptions::Instance().pluginDirectory) / fileName).string();
  if (extension == kJSONExtension) {
    AppendOrReport(fileName, plugins, [&] { return JSONPlugin::Load(pluginName, path); });
    return;
  }
  if (extension == kNativeExtension) {
    AppendOrReport(fileName, plugins,
                   [&] { return std::make_unique<NativePlugin>(pluginName, path); });
    return;
  }
  Log_Level(LOG_LEVEL_WARNING, "ignoring plugin '%s' of unknown type (%s)...\n", fileName.c_str(),
            extension.c_str());
}

}  // namespace orvane
